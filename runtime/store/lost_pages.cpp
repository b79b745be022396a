#include "runtime/store/lost_pages.h"

#include <array>
#include <csignal>
#include <cstring>
#include <mutex>
#include <unistd.h>

namespace loom {
namespace {
/// Read by a handler of signals: `size` is set last and cleared first.
struct protected_memory {
    std::atomic<u64> size{0};
    u64 begin = 0;
    control* trust = nullptr;
    std::array<char, 512> path{};
};
std::array<protected_memory, 64> memories;
std::mutex memories_mutex;
struct sigaction handler_before;

void say(const char* text) {
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, std::strlen(text));
}

void pass_on(int number, siginfo_t* info, void* context) {
    if (handler_before.sa_flags & SA_SIGINFO) return handler_before.sa_sigaction(number, info, context);
    if (handler_before.sa_handler != SIG_DFL && handler_before.sa_handler != SIG_IGN)
        return handler_before.sa_handler(number);
    // The access is repeated, and ends the process; what another process has sent is not.
    signal(number, SIG_DFL);
    if (info->si_code <= 0) raise(number);
}

void take(int number, siginfo_t* info, void* context) {
    const auto address = reinterpret_cast<u64>(info->si_addr);
    for (protected_memory& each : memories) {
        const u64 size = each.size.load(std::memory_order_acquire);
        if (size == 0 || address - each.begin >= size) continue;
        say("loom runtime: database ");
        say(each.path.data());
        say(": a page of its image cannot be read: the disk fails or is full, or the file was cut short; what is "
            "committed is kept: close the database everywhere, look at the system's messages and at the room on "
            "the "
            "disk, and open it again\n");
        each.trust->distrust();
        break;
    }
    pass_on(number, info, context);
}
} // namespace

void lost_page_guard::protect(const std::string& path, const void* memory, u64 size, control& trust) {
    const std::lock_guard guard(memories_mutex);
    static const bool handled = [] {
        struct sigaction action {};
        action.sa_sigaction = take;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        return sigaction(SIGBUS, &action, &handler_before) == 0;
    }();
    for (std::size_t i = 0; handled && i < memories.size(); ++i) {
        protected_memory& each = memories[i];
        if (each.size.load(std::memory_order_relaxed) != 0) continue;
        each.begin = reinterpret_cast<u64>(memory);
        each.trust = &trust;
        each.path[path.copy(each.path.data(), each.path.size() - 1)] = 0;
        each.size.store(size, std::memory_order_release);
        slot_ = static_cast<int>(i);
        return;
    }
}

lost_page_guard::~lost_page_guard() {
    if (slot_ >= 0) memories[static_cast<std::size_t>(slot_)].size.store(0, std::memory_order_release);
}

} // namespace loom
