#include "fuzz/limited_database.h"

#include "fuzz/input.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace trellis::fuzz {

namespace {
std::vector<limited_database*>& all() {
    static std::vector<limited_database*> known;
    return known;
}
} // namespace

limited_database* limited_database::of_context(const void* context) {
    const auto known = std::find_if(all().begin(), all().end(), [context](const limited_database* each) {
        return each->handle_->alloc_ctx == context;
    });
    if (known == all().end()) found("an allocation for no database");
    return *known;
}

void* limited_database::allocate(void* context, uint32_t, size_t size) {
    limited_database& self = *of_context(context);
    const bool fails = self.failing_ != 0 && --self.failing_ == 0;
    if (fails || size > limit - self.bytes_) {
        self.refused_ = true;
        return nullptr;
    }
    void* block = std::malloc(size);
    self.blocks_.emplace(block, size);
    self.bytes_ += size;
    return block;
}

void limited_database::release(void* context, uint32_t domain, void* block) {
    limited_database& self = *of_context(context);
    const auto known = self.blocks_.find(block);
    if (known == self.blocks_.end()) {
        self.release_to_runtime_(context, domain, block);
        return;
    }
    self.bytes_ -= known->second;
    self.blocks_.erase(known);
    std::free(block);
}

limited_database::limited_database(uint32_t tracking) {
    loom_open_options options{};
    options.size = sizeof options;
    options.tracking = tracking;
    options.reserve = uint64_t{1} << 30;
    handle_ = loom_open(&options);
    if (handle_ == nullptr) throw std::runtime_error(loom_error_text());
    release_to_runtime_ = handle_->free;
    handle_->alloc = allocate;
    handle_->free = release;
    all().push_back(this);
}

limited_database::~limited_database() {
    std::erase(all(), this);
    loom_close(handle_);
}

void limited_database::begin(uint64_t failing) {
    failing_ = failing;
    refused_ = false;
}

void limited_database::end() {
    if (!blocks_.empty())
        found(std::to_string(blocks_.size()) + " blocks are left, one of " +
              std::to_string(blocks_.begin()->second) + " bytes");
    failing_ = 0;
}

void limited_database::end_with_leftovers() {
    for (const auto& [block, size] : blocks_)
        std::free(block);
    blocks_.clear();
    bytes_ = 0;
    failing_ = 0;
}

limited_database& database_of_mode(unsigned bits) {
    static limited_database without(LOOM_TRACKING_NONE), off(LOOM_TRACKING_OFF), on(LOOM_TRACKING_ON);
    return bits == 0 ? without : bits == 1 ? off : on;
}

limited_database& plain_database() {
    static limited_database plain(LOOM_TRACKING_NONE);
    return plain;
}

} // namespace trellis::fuzz
