#include "interruption.h"

#include "failure.h"

#include <atomic>
#include <csignal>

namespace tool {
namespace {
std::atomic<int> sections{0};
std::atomic<int> signal_that_came{0};
static_assert(std::atomic<int>::is_always_lock_free);

void end_by(int number) {
    std::signal(number, SIG_DFL);
    std::raise(number);
}

/// A second signal of the kind ends the process at once: what its section has changed is then taken back by the
/// next process that asks for one.
void take(int number) {
    if (sections == 0 || signal_that_came != 0) end_by(number);
    signal_that_came = number;
}
} // namespace

void handle_interruptions() {
    // A file over the limit of the process is told as such.
    std::signal(SIGXFSZ, SIG_IGN);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        action.sa_handler = take;
        // Whoever started the command may want it to go on.
        struct sigaction before {};
        if (sigaction(number, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
            sigaction(number, &action, nullptr);
    }
}

void end_as_interrupted() {
    if (const int number = signal_that_came) end_by(number);
}

orderly_end::orderly_end() { ++sections; }

orderly_end::~orderly_end() { --sections; }

void check_interruption() {
    if (signal_that_came != 0) throw failure("interrupted", "start the command again");
}

} // namespace tool
