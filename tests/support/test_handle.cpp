// Hooks of the test handle, the runtime operations that tests look over the shoulder of, and the judgement of
// stores.
#include "tests/support/test_handle.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <unordered_map>

namespace trellis::testing {

namespace {

std::unordered_map<const void*, test_handle*>& handles() {
    static std::unordered_map<const void*, test_handle*> all;
    return all;
}

/// The handle whose log takes trace records: they name no handle.
test_handle* tracing = nullptr;

void* alloc_hook(void* context, u32 domain, size_t size);
void* shared_alloc_hook(void* context, u32 domain, size_t size);

/// Handles share their hooks; what the runtime put there first is kept per process, since all are the same.
struct real_hooks {
    decltype(loom_handle::alloc) alloc;
    decltype(loom_handle::shared_alloc) shared_alloc;
};
real_hooks real;

void* alloc_hook(void* context, u32 domain, size_t size) {
    return test_handle::of_context(context)->on_alloc(real.alloc, context, domain, size);
}
void* shared_alloc_hook(void* context, u32 domain, size_t size) {
    return test_handle::of_context(context)->on_alloc(real.shared_alloc, context, domain, size);
}
void free_hook(void* context, u32 domain, void* block) {
    test_handle::of_context(context)->on_free(context, domain, block);
}
void write_hook(loom_handle* handle, const void* address, size_t length, u32 domain, const void* owner) {
    test_handle::of_handle(handle)->on_write(address, length, domain, owner);
}

void report(loom_handle*, const loom_report* what, void* context) {
    static_cast<test_handle*>(context)->on_report(*what);
}
void trace(const loom_trace_record* record, void*) {
    if (tracing != nullptr) tracing->on_trace(*record);
}

std::string fresh_path() {
    static std::atomic<u32> number = 0;
    return (std::filesystem::temp_directory_path() /
            ("trellis_test_" + std::to_string(getpid()) + "_" + std::to_string(++number)))
        .string();
}

} // namespace

loom_trace_decoder* trace_decoder() {
    static loom_trace_decoder* decoder = loom_trace_decoder_create();
    return decoder;
}

void add_trace_texts_of(const void* symbol) {
    Dl_info info{};
    if (dladdr(symbol, &info) == 0 || loom_trace_decoder_add(trace_decoder(), info.dli_fname) != 0)
        throw std::runtime_error(std::string("no trace texts: ") + loom_error_text());
}

test_handle* test_handle::of_handle(const loom_handle* handle) {
    const auto found = handles().find(handle);
    return found == handles().end() ? nullptr : found->second;
}
test_handle* test_handle::of_context(const void* context) {
    return of_handle(static_cast<const loom_handle*>(context));
}

test_handle::test_handle(const handle_options& options) : options_(options) {
    loom_open_options open{};
    open.size = sizeof open;
    open.kind = options.db_kind;
    open.tracking = options.tracking;
    open.workspace_size = options.workspace_size;
    open.reserve = u64{1} << 30;
    if (options.db_kind == LOOM_DB_MAPPED) {
        path_ = fresh_path();
        open.path = path_.c_str();
        open.flags = LOOM_OPEN_CREATE | LOOM_OPEN_EXCLUSIVE;
    }
    handle_ = loom_open(&open);
    if (handle_ == nullptr) throw std::runtime_error(loom_error_text());
    if (!path_.empty()) {
        // Open files stay usable; nothing is left behind, however the test ends.
        std::filesystem::remove_all(path_);
        if (loom_write_begin(handle_) != 0) throw std::runtime_error(loom_error_text());
    }
    loom_trace_set_level(nullptr, 8);
    if (options.containment) loom_set_containment(handle_, 1, report, this);

    real = {handle_->alloc, handle_->shared_alloc};
    real_free_ = handle_->free;
    real_write_hook_ = handle_->write_hook;
    handle_->alloc = alloc_hook;
    handle_->shared_alloc = shared_alloc_hook;
    handle_->free = free_hook;
    if (!options.unfollowed) handle_->write_hook = testing::write_hook;
    handles()[handle_] = this;
    handles()[handle_->alloc_ctx] = this;
}

test_handle::~test_handle() {
    handles().erase(handle_->alloc_ctx);
    handles().erase(handle_);
    if (tracing == this) tracing = nullptr;
    if (!path_.empty()) loom_write_commit(handle_);
    loom_close(handle_);
}

// ---- Log ---------------------------------------------------------------------------------------------------

void test_handle::name(const void* address, size_t length, std::string name) {
    names_[static_cast<const u8*>(address)] = {length, std::move(name)};
}

std::string test_handle::name_of(const void* address) const {
    if (address == nullptr) return "0";
    const u8* at = static_cast<const u8*>(address);
    for (auto found = names_.upper_bound(at); found != names_.begin();) {
        --found;
        const size_t offset = static_cast<size_t>(at - found->first);
        if (offset < found->second.length)
            return offset == 0 ? found->second.name : found->second.name + "+" + std::to_string(offset);
    }
    return "?";
}

const void* test_handle::address_of(const std::string& name, size_t* length) const {
    for (const auto& [address, range] : names_)
        if (range.name == name) {
            if (length != nullptr) *length = range.length;
            return address;
        }
    return nullptr;
}

std::string test_handle::log_of(const std::function<void()>& body) {
    log_.clear();
    named_blocks_ = 0;
    logging_ = true;
    test_handle* earlier = tracing;
    tracing = this;
    loom_trace_set_tap(trace, nullptr);
    body();
    loom_trace_set_tap(nullptr, nullptr);
    tracing = earlier;
    logging_ = false;
    return std::move(log_);
}

void test_handle::log(std::string line) {
    if (!logging_) return;
    log_ += line;
    log_ += '\n';
}

void test_handle::on_report(const loom_report& what) {
    switch (what.kind) {
    case LOOM_REPORT_CONTAINMENT: log("contains " + name_of(what.subject) + " in " + name_of(what.parent)); break;
    case LOOM_REPORT_DIRTY: log("dirty " + name_of(what.subject)); break;
    case LOOM_REPORT_DESTROY: log("destroyed " + name_of(what.subject)); break;
    case LOOM_REPORT_DETACH: log("detached " + name_of(what.subject) + " " + std::to_string(what.arm)); break;
    }
}

void test_handle::on_trace(const loom_trace_record& record) {
    char text[1024];
    loom_trace_format(trace_decoder(), &record, text, sizeof text);
    const std::string number = numbering_ ? "#" + std::to_string(record.index) + " " : "";
    log("says " + std::to_string(record.level) + " " + number + text);
}

// ---- Memory ------------------------------------------------------------------------------------------------

bool test_handle::fails_now() {
    if (failing_ == 0 || --failing_ != 0) return false;
    return failed_ = true;
}

bool test_handle::on_placing(const void* object) {
    const bool known = loomlib_get_sttr_offset(handle_, domain, object) != 0;
    return known || !fails_now();
}

void* test_handle::on_alloc(decltype(loom_handle::alloc) real_alloc, void* context, u32 in_domain, size_t size) {
    ++event_;
    if (fails_now()) {
        log("alloc " + std::to_string(size) + " = none");
        return nullptr;
    }
    void* made = real_alloc(context, in_domain, size);
    if (made == nullptr) return nullptr;
    ++allocations_;
    memset(made, 0xA5, size);
    const u8* address = static_cast<const u8*>(made);
    block& at = blocks_[address];
    at.fresh = true;
    at.size = size;
    if (options_.check_stores)
        at.shadow.assign(address, address + size);
    else
        at.shadow.resize(0);
    if (logging_) name(made, size == 0 ? 1 : size, "b" + std::to_string(++named_blocks_));
    log("alloc " + std::to_string(size) + " = " + name_of(made));
    last_event_ = "alloc " + std::to_string(size);
    return made;
}

void test_handle::on_free(void* context, u32 in_domain, void* address) {
    ++event_;
    log("free " + name_of(address));
    const auto found = blocks_.find(static_cast<const u8*>(address));
    if (found == blocks_.end()) {
        violations_ += "free of " + name_of(address) + ", which is no block in use\n";
        return;
    }
    if (options_.check_stores) look_at(found->first, found->second);
    freed_.push_back(address);
    last_event_ = "free " + name_of(address);
    names_.erase(names_.lower_bound(found->first), names_.lower_bound(found->first + found->second.size));
    blocks_.erase(found);
    real_free_(context, in_domain, address);
}

void test_handle::on_write(const void* address, size_t length, u32 in_domain, const void* owner) {
    log("hook " + name_of(address) + " " + std::to_string(length) + " " + name_of(owner));
    // A block that is announced whole for its holder is built anew: it stays announced to the end of the
    // operation.
    const auto block_there = blocks_.find(static_cast<const u8*>(address));
    const bool rebuilt = options_.check_stores && owner != nullptr && owner != address &&
                         block_there != blocks_.end() && length == block_there->second.shadow.size();
    if (rebuilt) {
        look();
        block_there->second.fresh = true;
    } else {
        announce(address, length);
    }
    last_event_ = "hook " + name_of(address) + " " + std::to_string(length);
    real_write_hook_(handle_, address, length, in_domain, owner);
}

bool test_handle::on_range(const void* address, size_t length) {
    log("range " + name_of(address) + " " + std::to_string(length));
    announce(address, length);
    last_event_ = "range " + name_of(address) + " " + std::to_string(length);
    return !refusing_;
}

std::string test_handle::describe_live_blocks() const {
    std::string text;
    for (const auto& [address, at] : blocks_)
        text += name_of(address) + ", " + std::to_string(at.size) + " bytes\n";
    return text;
}

void test_handle::name_block(const void* address, const std::string& to) {
    const auto block = blocks_.find(static_cast<const u8*>(address));
    if (block == blocks_.end()) return;
    const auto known = names_.find(block->first);
    const bool by_number =
        known != names_.end() && known->second.name.find_first_not_of("0123456789", 1) == std::string::npos;
    if (known == names_.end() || by_number) name(address, block->second.size, to);
}

// ---- Checker -----------------------------------------------------------------------------------------------

void test_handle::announce(const void* address, size_t length) {
    ++event_;
    if (!options_.check_stores) return;
    look();
    // What is announced of a new object does not count: an arm is announced before the object is made that it will
    // point at.
    if (is_in_fresh_block(static_cast<const u8*>(address))) return;
    if (held_ == 0) announced_.clear();
    announced_.push_back({static_cast<const u8*>(address), length});
}

void test_handle::end_operation() {
    if (!options_.check_stores) return;
    look();
    announced_.clear();
    for (auto& [address, at] : blocks_)
        at.fresh = false;
    last_event_ = "end of the operation before";
}

void test_handle::look() {
    for (auto& [address, at] : blocks_)
        look_at(address, at);
    freed_.clear();
}

void test_handle::look_at(const u8* address, block& at) {
    const size_t size = at.shadow.size();
    if (memcmp(address, at.shadow.data(), size) == 0) return;
    if (!at.fresh && unannounced_ == 0) {
        for (size_t i = 0; i < size; ++i) {
            if (address[i] == at.shadow[i] || is_announced(address + i) ||
                is_cleared_pointer_to_freed(address + i, address, at.shadow))
                continue;
            size_t end = i;
            while (end < size && address[end] != at.shadow[end])
                ++end;
            violations_ += "store of " + std::to_string(end - i) + " bytes at offset " + std::to_string(i) +
                           " of a block of " + std::to_string(size) + " (" + name_of(address) + ") after " +
                           last_event_ + "\n";
            i = end;
        }
    }
    at.shadow.assign(address, address + size);
}

bool test_handle::is_in_fresh_block(const u8* address) const {
    auto found = blocks_.upper_bound(address);
    if (found == blocks_.begin()) return false;
    --found;
    return found->second.fresh && address < found->first + found->second.shadow.size();
}

bool test_handle::is_announced(const u8* address) const {
    for (const announcement& each : announced_)
        if (address >= each.address && address < each.address + each.length) return true;
    return false;
}

/// Destroy clears the pointers to element flags in the tracking area without a notice, as its order says; the
/// block behind such a pointer has just been given back.
bool test_handle::is_cleared_pointer_to_freed(const u8* address, const u8* block_start,
                                              const std::vector<u8>& old) const {
    const size_t word = static_cast<size_t>(address - block_start) & ~size_t{7};
    if (word + 8 > old.size()) return false;
    const void* before;
    const void* now;
    memcpy(&before, old.data() + word, 8);
    memcpy(&now, block_start + word, 8);
    if (now != nullptr) return false;
    for (const void* each : freed_)
        if (each == before) return true;
    return false;
}

std::string test_handle::take_violations() {
    end_operation();
    return std::move(violations_);
}

test_handle::unannounced::unannounced(test_handle& handle, std::string_view) : handle_(handle) {
    handle.end_operation();
    ++handle.unannounced_;
}
test_handle::unannounced::~unannounced() {
    handle_.end_operation();
    --handle_.unannounced_;
}

} // namespace trellis::testing

// ---- Operations of the runtime that bundles call: seen here first, then done by the runtime ------------------

namespace {
using trellis::testing::test_handle;

template <class Function>
Function* next(const char* name) {
    auto* found = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    if (found == nullptr) abort();
    return found;
}

int variant_of(const loom_type_info* tinfo, const uint64_t* statistics) {
    const auto* entries = reinterpret_cast<const unsigned char*>(tinfo->variant_table->entries);
    return static_cast<int>((reinterpret_cast<const unsigned char*>(statistics) - entries) /
                            static_cast<std::ptrdiff_t>(sizeof(loom_variant_entry)));
}
} // namespace

#define SEEN extern "C" __attribute__((visibility("default")))

SEEN uint32_t arbor_set_range(void* arena, const void* address, size_t size, uint32_t domain) {
    static auto* const real = next<decltype(arbor_set_range)>("arbor_set_range");
    if (test_handle* seen = test_handle::of_context(arena))
        if (!seen->on_range(address, size)) return 0;
    return real(arena, address, size, domain);
}

SEEN void loom_store_err(loom_handle* handle, uint32_t number) {
    static auto* const real = next<decltype(loom_store_err)>("loom_store_err");
    if (test_handle* seen = test_handle::of_handle(handle)) seen->log("error " + std::to_string(number));
    real(handle, number);
}

SEEN void loom_store_epoch_err(loom_handle* handle, uint32_t number, uint32_t* err) {
    if (test_handle* seen = test_handle::of_handle(handle)) seen->log("epoch error " + std::to_string(number));
    if (err != nullptr) *err = number;
    handle->last_error = number;
}

SEEN loom_type_info* loom_type_info_ptr_get(loom_handle* handle, uint32_t domain, const loom_type_info* tinfo,
                                            loom_typeinfo_initialize_fn initialize) {
    static auto* const real = next<decltype(loom_type_info_ptr_get)>("loom_type_info_ptr_get");
    test_handle* seen = test_handle::of_handle(handle);
    if (seen != nullptr) seen->hold_announcements(true);
    loom_type_info* found = real(handle, domain, tinfo, initialize);
    if (seen != nullptr) seen->hold_announcements(false);
    return found;
}

SEEN void loomlib_update_sttr_offset(loom_handle* handle, uint32_t domain, void* object, uint32_t offset) {
    static auto* const real = next<decltype(loomlib_update_sttr_offset)>("loomlib_update_sttr_offset");
    test_handle* seen = test_handle::of_handle(handle);
    if (seen == nullptr || seen->on_placing(object))
        real(handle, domain, object, offset);
    else
        loom_store_err(handle, LOOM_ENOMEM);
}

SEEN void loomlib_type_stats_create_object(loom_handle* handle, uint32_t domain, loom_type_info* tinfo,
                                           uint64_t* statistics, uint32_t* err) {
    static auto* const real = next<decltype(loomlib_type_stats_create_object)>("loomlib_type_stats_create_object");
    if (test_handle* seen = test_handle::of_handle(handle))
        seen->log("made " + std::string(tinfo->name) + " " + std::to_string(variant_of(tinfo, statistics)));
    real(handle, domain, tinfo, statistics, err);
}

SEEN void loomlib_type_stats_destroy_object(loom_handle* handle, uint32_t domain, loom_type_info* tinfo,
                                            uint64_t* statistics, uint32_t* err) {
    static auto* const real =
        next<decltype(loomlib_type_stats_destroy_object)>("loomlib_type_stats_destroy_object");
    if (test_handle* seen = test_handle::of_handle(handle))
        seen->log("ended " + std::string(tinfo->name) + " " + std::to_string(variant_of(tinfo, statistics)));
    real(handle, domain, tinfo, statistics, err);
}
