// The set of revoked roots, for all arenas of the process: no two of them share addresses at the same time.
#include "runtime/database/revoked_roots.h"

#include <atomic>
#include <mutex>
#include <unordered_set>

namespace loom {
namespace {
struct revoked_roots {
    std::mutex mutex;
    std::unordered_set<const void*> addresses;
    std::atomic<bool> any{false};
};
revoked_roots& roots() {
    static auto* set = new revoked_roots;
    return *set;
}
} // namespace

void revoke_root(const void* address) {
    const std::lock_guard guard(roots().mutex);
    roots().addresses.insert(address);
    roots().any.store(true, std::memory_order_release);
}

void reinstate_root(const void* address) {
    if (!roots().any.load(std::memory_order_acquire)) return;
    const std::lock_guard guard(roots().mutex);
    roots().addresses.erase(address);
}

bool is_revoked_root(const void* address) {
    if (!roots().any.load(std::memory_order_acquire)) return false;
    const std::lock_guard guard(roots().mutex);
    return roots().addresses.count(address) != 0;
}
} // namespace loom
