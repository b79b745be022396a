// Emitting: modules and their levels, the buffers of threads, the tap and the trace file.
//
// Each thread writes into a ring of its own; whoever empties rings holds `collector`, so that a ring has one
// reader at a time. A full ring is emptied by its own thread, in the same way. A thread that ends leaves its ring
// to the next one that begins. A statement that is run while a thread is being taken down uses a ring under the
// lock.
#include "runtime/database/error_text.h"
#include "runtime/export.h"
#include "runtime/trace/clock.h"
#include "runtime/trace/record.h"
#include "runtime/trace/trace_file.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace loom {
namespace {
constexpr std::size_t ring_size = std::size_t{128} << 10;
constexpr u32 most_modules = 1024;
constexpr u8 first_level = 6;

// -------------------------------------------------------------------------------------------------- modules

struct module_table {
    std::array<std::atomic<u8>, most_modules> levels;
    std::array<std::string, most_modules> names; ///< written once each, before `count` tells of them
    std::atomic<u32> count{1};                   ///< number 0 is the module that is not registered
    std::atomic<u8> default_level{first_level};
    std::mutex mutex;

    module_table() {
        tick_reader::start();
        for (auto& level : levels)
            level = first_level;
    }
    const char* name(u16 number) const {
        return number && number < count.load(std::memory_order_acquire) ? names[number].c_str() : "";
    }
};
module_table& modules() {
    static auto* table = new module_table;
    return *table;
}

bool is_on(u16 module, u32 level) {
    const module_table& table = modules();
    return level <=
           (module < most_modules ? table.levels[module] : table.default_level).load(std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------------------------------- rings

struct ring {
    alignas(64) std::atomic<u64> head{0}; ///< where the next record begins; moved by the writer
    u64 known_tail = 0;                   ///< the writer's latest look at `tail`
    u32 thread = 0;
    alignas(64) std::atomic<u64> tail{0}; ///< what has been read; moved under `collector`
    std::array<std::byte, ring_size> bytes;

    /// Room for `size` bytes in one piece, or null. Skips what is left before the end when it is too little.
    std::byte* room(std::size_t size) {
        const u64 at = head.load(std::memory_order_relaxed);
        const std::size_t left = ring_size - at % ring_size;
        const std::size_t needed = left < size ? left + size : size;
        if (ring_size - (at - known_tail) < needed) {
            known_tail = tail.load(std::memory_order_acquire);
            if (ring_size - (at - known_tail) < needed) return nullptr;
        }
        if (left >= size) return &bytes[at % ring_size];
        if (left >= sizeof(u64)) {
            trace_entry padding{};
            padding.size = static_cast<u16>(std::min<std::size_t>(left, 0xFFF8));
            std::memcpy(&bytes[at % ring_size], &padding, std::min(left, sizeof padding));
        }
        head.store(at + left, std::memory_order_release);
        return &bytes[0];
    }
    void done(std::size_t size) {
        head.store(head.load(std::memory_order_relaxed) + size, std::memory_order_release);
    }
};

/// Everything that only the holder of the lock may touch.
struct collector_state {
    std::mutex mutex;
    std::vector<std::unique_ptr<ring>> rings;
    std::vector<ring*> free_rings;
    ring* late = nullptr; ///< for threads that have given their ring back already
    trace_writer file;
    u64 lost_before_file = 0; ///< of lost_records, when the file was opened
};
collector_state& collector() {
    static auto* state = new collector_state;
    return *state;
}
std::atomic<u64> lost_records{0};

/// Calls `visit` with each entry of the ring and empties it.
template <class Visit>
void empty_ring(ring& from, Visit visit) {
    const u64 head = from.head.load(std::memory_order_acquire);
    u64 tail = from.tail.load(std::memory_order_relaxed);
    while (tail < head) {
        const std::byte* place = &from.bytes[tail % ring_size];
        trace_entry entry{};
        std::memcpy(&entry, place, std::min(sizeof entry, ring_size - tail % ring_size));
        if (entry.kind != entry_padding) visit(entry, place);
        tail += entry.size;
    }
    from.tail.store(tail, std::memory_order_release);
}

void write_ring(collector_state& state, ring& from) {
    u64 dropped = 0;
    const tick_reader clock;
    empty_ring(from, [&](trace_entry& entry, const std::byte* place) {
        if (!state.file.is_open()) {
            ++dropped;
            return;
        }
        entry.time = clock.time_of(entry.time);
        state.file.add(entry, place + sizeof entry);
    });
    lost_records += dropped + state.file.finish_block(lost_records - state.lost_before_file);
}

ring* new_ring(collector_state& state) {
    if (state.free_rings.empty()) {
        state.rings.push_back(std::make_unique<ring>());
        state.free_rings.push_back(state.rings.back().get());
    }
    ring* taken = state.free_rings.back();
    state.free_rings.pop_back();
    taken->known_tail = taken->tail.load(std::memory_order_relaxed);
    return taken;
}

enum class thread_phase : u8 { unborn, alive, ended };
// Found without a call, as the emit functions do little else; two words fit into what the loader keeps free.
__attribute__((tls_model("initial-exec"))) thread_local thread_phase phase = thread_phase::unborn;
__attribute__((tls_model("initial-exec"))) thread_local ring* own_ring = nullptr;

/// Gives the ring back at the end of the thread.
struct ring_owner {
    ~ring_owner() {
        collector_state& state = collector();
        const std::lock_guard guard(state.mutex);
        phase = thread_phase::ended;
        if (!own_ring) return;
        if (state.file.is_open()) write_ring(state, *own_ring);
        state.free_rings.push_back(own_ring);
        own_ring = nullptr;
    }
};

ring* ring_of_thread() {
    if (own_ring) return own_ring;
    if (phase == thread_phase::ended) return nullptr;
    thread_local ring_owner owner;
    static_cast<void>(owner);
    phase = thread_phase::alive;
    collector_state& state = collector();
    const std::lock_guard guard(state.mutex);
    own_ring = new_ring(state);
    own_ring->thread = static_cast<u32>(gettid());
    return own_ring;
}

// -------------------------------------------------------------------------------------------------- the tap

struct tap_state {
    std::atomic<bool> set{false};
    std::mutex mutex;
    loom_trace_fn call = nullptr;
    void* context = nullptr;
};
tap_state& tap() {
    static auto* state = new tap_state;
    return *state;
}

void show_to_tap(const trace_entry& entry, const std::byte* arguments) {
    loom_trace_record record;
    if (!decode_entry(entry, arguments, record)) return;
    record.time = tick_reader().time_of(entry.time);
    record.module_name = modules().name(entry.module);
    tap_state& state = tap();
    const std::lock_guard guard(state.mutex);
    if (state.call) state.call(&record, state.context);
}

// ------------------------------------------------------------------------------------------------- emitting

struct text_argument {
    static constexpr u16 kind = 1;
    const char* text;
    u16 length;

    explicit text_argument(const char* given)
        : text(given), length(given ? static_cast<u16>(strnlen(given, LOOM_TRACE_TEXT_MAX)) : null_text) {}
    std::size_t size() const { return sizeof length + (text ? length : 0u); }
    std::byte* write(std::byte* to) const {
        std::memcpy(to, &length, sizeof length);
        if (text) std::memcpy(to + sizeof length, text, length);
        return to + size();
    }
};
template <u16 Kind, class Number>
struct number_argument {
    static constexpr u16 kind = Kind;
    Number number;
    static constexpr std::size_t size() { return sizeof(Number); }
    std::byte* write(std::byte* to) const {
        std::memcpy(to, &number, sizeof number);
        return to + sizeof number;
    }
};

text_argument as_argument(const char* text) { return text_argument(text); }
number_argument<4, u32> as_argument(u32 number) { return {number}; }
number_argument<5, u64> as_argument(const void* pointer) { return {reinterpret_cast<u64>(pointer)}; }

/// The message of a fatal statement, for people: found through the object that holds the unit.
void print_fatal(const u8* unit, const trace_entry& entry, const std::byte* arguments) {
    loom_trace_record record;
    if (!decode_entry(entry, arguments, record)) return;
    record.module_name = modules().name(entry.module);
    loom_trace_decoder* decoder = loom_trace_decoder_create();
    Dl_info info;
    if (dladdr(unit, &info) && info.dli_fname) loom_trace_decoder_add(decoder, info.dli_fname);
    char text[1024];
    loom_trace_format(decoder, &record, text, sizeof text);
    std::fprintf(stderr, "loom: fatal: %s: %s\n", *record.module_name ? record.module_name : "unregistered module",
                 text);
    loom_trace_decoder_release(decoder);
}

/// Writes the entry into the ring; false when it is full.
template <class... Arguments>
bool write_entry(ring& to, const trace_entry& entry, const Arguments&... arguments) {
    std::byte* place = to.room(entry.size);
    if (!place) return false;
    std::memcpy(place, &entry, sizeof entry);
    [[maybe_unused]] std::byte* next = place + sizeof entry;
    ((next = arguments.write(next)), ...);
    to.done(entry.size);
    return true;
}

template <class... Arguments>
__attribute__((noinline)) void write_slowly(trace_entry entry, const Arguments&... arguments) {
    collector_state& state = collector();
    const std::lock_guard guard(state.mutex);
    ring* to = own_ring;
    if (!to) {
        if (!state.late) state.late = new_ring(state);
        to = state.late;
    }
    if (write_entry(*to, entry, arguments...)) return;
    write_ring(state, *to);
    write_entry(*to, entry, arguments...);
}

template <class... Arguments>
void emit_arguments(const u8* unit, u32 index, u16 module, u32 level, const Arguments&... arguments) {
    trace_entry entry;
    const std::size_t size = (sizeof entry + ... + arguments.size());
    entry.size = static_cast<u16>((size + 7) & ~std::size_t{7});
    entry.kind = entry_record;
    entry.level = static_cast<u8>(level);
    entry.module = module;
    entry.arguments = 0;
    [[maybe_unused]] u32 shift = 0;
    ((entry.arguments = static_cast<u16>(entry.arguments | arguments.kind << shift), shift += 4), ...);
    entry.index = index;
    entry.time = ticks();
    std::memcpy(entry.unit, unit, sizeof entry.unit);
    ring* to = ring_of_thread();
    entry.thread = to ? to->thread : static_cast<u32>(gettid());
    if (tap().set.load(std::memory_order_acquire) || level == 0) [[unlikely]] {
        std::array<std::byte, largest_entry> copy;
        [[maybe_unused]] std::byte* next = copy.data();
        ((next = arguments.write(next)), ...);
        show_to_tap(entry, copy.data());
        if (level == 0) print_fatal(unit, entry, copy.data());
    }
    if (!to || !write_entry(*to, entry, arguments...)) write_slowly(entry, arguments...);
    if (level == 0) loom_trace_flush();
}

template <class... Arguments>
void emit(const u8* unit, u32 index, u16 module, u32 level_word, Arguments... arguments) {
    const u32 level = level_word >> 24;
    if (is_on(module, level)) emit_arguments(unit, index, module, level, as_argument(arguments)...);
}

// ------------------------------------------------------------------------------------------------- the file

__attribute__((destructor)) void close_at_exit() { loom_trace_close(); }

// A child of a fork is a writer of its own. Records that were buffered at that moment are its parent's, and of all
// threads it has only the one that forked.
void before_fork() { collector().mutex.lock(); }
void after_fork_in_parent() { collector().mutex.unlock(); }
void after_fork_in_child() {
    collector_state& state = collector();
    state.free_rings.clear();
    for (const auto& each : state.rings) {
        each->tail.store(each->head.load());
        if (each.get() != own_ring && each.get() != state.late) state.free_rings.push_back(each.get());
    }
    if (own_ring) own_ring->thread = static_cast<u32>(gettid());
    state.file.begin_as_child();
    state.lost_before_file = lost_records;
    state.mutex.unlock();
}

u32 register_module(const char* name, u16& number) {
    module_table& table = modules();
    const std::lock_guard guard(table.mutex);
    const u32 count = table.count.load(std::memory_order_relaxed);
    for (u32 i = 1; i < count; ++i)
        if (table.names[i] == name) {
            number = static_cast<u16>(i);
            return 0;
        }
    if (count == most_modules)
        return fail(ENOSPC, "trace module %s: there are %u modules already", name, count - 1);
    table.names[count] = name;
    table.levels[count] = table.default_level.load();
    table.count.store(count + 1, std::memory_order_release);
    number = static_cast<u16>(count);
    collector_state& state = collector();
    const std::lock_guard file_guard(state.mutex);
    state.file.add_module(number, name);
    return 0;
}

/// A record taken out of a ring, to be sorted by time.
struct taken_record {
    u64 ticks;
    std::vector<std::byte> bytes;
};
} // namespace
} // namespace loom

using namespace loom;

LOOM_EXPORT uint32_t spoor_module_init_fn(const char* name, uint16_t* module_id, uint32_t* state) {
    if (!name || !module_id) return fail(EINVAL, "a trace module needs a name and a place for its number");
    if (__atomic_load_n(module_id, __ATOMIC_ACQUIRE)) return 0;
    u16 number = 0;
    if (const u32 error = register_module(name, number)) return error;
    __atomic_store_n(module_id, number, __ATOMIC_RELEASE);
    if (state) __atomic_store_n(state, 1u, __ATOMIC_RELEASE);
    return 0;
}

LOOM_EXPORT uint32_t spoor_module_test(uint16_t module_id, uint32_t level) { return is_on(module_id, level); }

namespace {
void init_once(const char* name, uint16_t& number) { spoor_module_init_fn(name, &number, nullptr); }
} // namespace
LOOM_EXPORT void trans_avl_trace_init(void) {
    static uint16_t number = 0;
    init_once("trans_avl", number);
}
LOOM_EXPORT void trans_gbt_trace_init(void) {
    static uint16_t number = 0;
    init_once("trans_gbt", number);
}

LOOM_EXPORT void __SPf_0(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level) {
    emit(unit, index, module_id, level);
}
LOOM_EXPORT void __SPf_1(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, const char* a) {
    emit(unit, index, module_id, level, a);
}
LOOM_EXPORT void __SPf_4(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, uint32_t a) {
    emit(unit, index, module_id, level, a);
}
LOOM_EXPORT void __SPf_11(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, const char* a,
                          const char* b) {
    emit(unit, index, module_id, level, a, b);
}
LOOM_EXPORT void __SPf_14(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, const char* a,
                          uint32_t b) {
    emit(unit, index, module_id, level, a, b);
}
LOOM_EXPORT void __SPf_44(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, uint32_t a,
                          uint32_t b) {
    emit(unit, index, module_id, level, a, b);
}
LOOM_EXPORT void __SPf_51(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, const void* a,
                          const char* b) {
    emit(unit, index, module_id, level, a, b);
}
LOOM_EXPORT void __SPf_111(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, const char* a,
                           const char* b, const char* c) {
    emit(unit, index, module_id, level, a, b, c);
}
LOOM_EXPORT void __SPf_444(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, uint32_t a,
                           uint32_t b, uint32_t c) {
    emit(unit, index, module_id, level, a, b, c);
}

LOOM_EXPORT uint32_t loom_trace_set_level(const char* module, uint32_t level) {
    module_table& table = modules();
    const std::lock_guard guard(table.mutex);
    const u8 wanted = static_cast<u8>(std::min(level, 255u));
    const u32 count = table.count.load(std::memory_order_relaxed);
    if (!module) {
        table.default_level = wanted;
        for (auto& each : table.levels)
            each = wanted;
        return done();
    }
    for (u32 i = 1; i < count; ++i)
        if (table.names[i] == module) {
            table.levels[i] = wanted;
            return done();
        }
    return fail(ENOENT, "trace module %s is not registered", module);
}

LOOM_EXPORT void loom_trace_set_tap(loom_trace_fn call, void* context) {
    tap_state& state = tap();
    const std::lock_guard guard(state.mutex);
    state.call = call;
    state.context = context;
    state.set.store(call != nullptr, std::memory_order_release);
}

LOOM_EXPORT uint32_t loom_trace_open(const char* path) {
    collector_state& state = collector();
    const std::lock_guard guard(state.mutex);
    if (state.file.is_open()) return fail(EEXIST, "a trace file is open already");
    static const int follows_forks = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    if (follows_forks != 0) return fail(static_cast<u32>(follows_forks), "trace file %s: no memory", path);
    if (const u32 error = state.file.open(path)) return error;
    state.lost_before_file = lost_records;
    lost_records += state.file.finish_block(0);
    return done();
}

LOOM_EXPORT void loom_trace_flush(void) {
    collector_state& state = collector();
    const std::lock_guard guard(state.mutex);
    if (!state.file.is_open()) return;
    for (const auto& each : state.rings)
        write_ring(state, *each);
}

LOOM_EXPORT void loom_trace_close(void) {
    loom_trace_flush();
    collector_state& state = collector();
    const std::lock_guard guard(state.mutex);
    state.file.close(lost_records - state.lost_before_file);
}

LOOM_EXPORT uint64_t loom_trace_drain(loom_trace_fn visit, void* context) {
    std::vector<taken_record> taken;
    collector_state& state = collector();
    {
        const std::lock_guard guard(state.mutex);
        for (const auto& each : state.rings)
            empty_ring(*each, [&](const trace_entry& entry, const std::byte* place) {
                taken.push_back({entry.time, {place, place + entry.size}});
            });
    }
    std::stable_sort(taken.begin(), taken.end(), [](const auto& a, const auto& b) { return a.ticks < b.ticks; });
    const tick_reader clock;
    for (const taken_record& each : taken) {
        trace_entry entry;
        std::memcpy(&entry, each.bytes.data(), sizeof entry);
        loom_trace_record record;
        if (!visit || !decode_entry(entry, each.bytes.data() + sizeof entry, record)) continue;
        record.time = clock.time_of(entry.time);
        record.module_name = modules().name(entry.module);
        visit(&record, context);
    }
    return taken.size();
}

LOOM_EXPORT uint64_t loom_trace_lost(void) { return lost_records.load(); }
