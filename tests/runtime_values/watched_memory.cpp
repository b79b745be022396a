#include "watched_memory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

watched_memory::watched_memory() {
    handle_.alloc_ctx = this;
    handle_.alloc = [](void* self, uint32_t used_domain, size_t size) {
        EXPECT_EQ(used_domain, domain);
        return static_cast<watched_memory*>(self)->allocate(size);
    };
    handle_.free = [](void* self, uint32_t used_domain, void* block) {
        EXPECT_EQ(used_domain, domain);
        static_cast<watched_memory*>(self)->release(block);
    };
    handle_.write_hook = [](loom_handle* handle, const void* address, size_t length, uint32_t used_domain,
                            const void* owner) {
        EXPECT_EQ(used_domain, domain);
        EXPECT_NE(owner, nullptr);
        static_cast<watched_memory*>(handle->alloc_ctx)->announce(address, length);
    };
}

watched_memory::~watched_memory() {
    EXPECT_EQ(live_.size(), 0u) << "blocks were not given back";
    for (const auto& [block, size] : live_)
        std::free(block);
}

void* watched_memory::allocate(size_t size) {
    ++allocations_;
    allocated_bytes_ += size;
    if (until_failure_ && --until_failure_ == 0) return nullptr;
    auto* block = static_cast<uint8_t*>(std::malloc(size ? size : 1));
    std::memset(block, 0xa5, size);
    live_[block] = size;
    return block;
}

void* watched_memory::allocate_zeroed(size_t size) {
    auto* block = static_cast<uint8_t*>(std::calloc(1, size));
    live_[block] = size;
    return block;
}

void watched_memory::release(void* block) {
    auto* bytes = static_cast<uint8_t*>(block);
    ASSERT_EQ(live_.erase(bytes), 1u) << "not a block of this handle";
    watched_.erase(bytes);
    std::free(bytes);
}

void watched_memory::watch() {
    watched_.clear();
    for (const auto& [block, size] : live_)
        watched_[block] = {std::vector<uint8_t>(block, block + size), std::vector<bool>(size)};
    announcements_ = 0;
    announced_late_ = false;
}

watched_memory::watched_block* watched_memory::watched_at(const void* address, size_t& offset) {
    auto after = watched_.upper_bound(static_cast<const uint8_t*>(address));
    if (after == watched_.begin()) return nullptr;
    auto& [block, watched] = *std::prev(after);
    offset = static_cast<size_t>(static_cast<const uint8_t*>(address) - block);
    return offset < watched.before.size() ? &watched : nullptr;
}

void watched_memory::announce(const void* address, size_t length) {
    ++announcements_;
    size_t offset = 0;
    watched_block* watched = watched_at(address, offset);
    if (!watched) return;
    ASSERT_LE(offset + length, watched->before.size()) << "announced beyond the block";
    for (size_t i = 0; i < length; ++i) {
        const uint8_t now = static_cast<const uint8_t*>(address)[i];
        if (!watched->announced[offset + i] && now != watched->before[offset + i]) announced_late_ = true;
        watched->announced[offset + i] = true;
    }
}

bool watched_memory::unchanged() const {
    for (const auto& [block, watched] : watched_)
        if (std::memcmp(block, watched.before.data(), watched.before.size()) != 0) return false;
    return true;
}

bool watched_memory::all_announced() const {
    for (const auto& [block, watched] : watched_)
        for (size_t i = 0; i < watched.before.size(); ++i)
            if (block[i] != watched.before[i] && !watched.announced[i]) return false;
    return !announced_late_;
}
