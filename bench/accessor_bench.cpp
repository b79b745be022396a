// Accessors and object lives beside Protocol Buffers' setters, getters and messages, in one process. A row's name
// is operation/record/library. "protobuf" has its messages on the heap, "protobuf arena" in an arena with a first
// block of its own that is reset behind each message. Accessors must take no memory, neither from the handle nor
// from the process: a row that breaks this ends the program.
#include "peers.h"

#include <trellis_test_types/rec_parent_with_sing_child.h>
#include <trellis_test_types/string_key.h>

#include <loom_runtime/runtime.h>

#include <benchmark/benchmark.h>
#include <google/protobuf/arena.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

// ---- Allocations are counted -----------------------------------------------------------------------------------

namespace {
std::atomic<std::uint64_t> process_allocations;
std::uint64_t handle_allocations;
void* (*alloc_of_the_runtime)(void*, std::uint32_t, std::size_t);
} // namespace

extern "C" {
void* __libc_malloc(std::size_t size); // NOLINT(*-reserved-identifier): glibc's own name
void* malloc(std::size_t size) {
    process_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
}

namespace {

constexpr std::uint32_t domain = 1;
namespace proto = peers::proto;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "accessor_bench: %s\n", what.c_str());
    std::exit(1);
}

loom_handle* ground() {
    static loom_handle* const handle = [] {
        loom_handle* opened = loom_open_private();
        alloc_of_the_runtime = opened->alloc;
        opened->alloc = [](void* context, std::uint32_t in, std::size_t size) {
            ++handle_allocations;
            return alloc_of_the_runtime(context, in, size);
        };
        return opened;
    }();
    return handle;
}

constexpr char text[] = "text 1 of a usual length";
loom_vstring value_of_text() { return {const_cast<char*>(text), sizeof text - 1, 0}; }

const char* row_in_progress = "";

/// Times the body; one that is said to take no memory must not. The library of the benchmarks itself takes some at
/// the ends of a loop.
enum class memory { taken, untouched };
constexpr std::uint64_t taken_by_the_loop = 8;
template <class Body>
void run(benchmark::State& state, memory use, Body&& body) {
    body(); // what a first call sets up for all others
    const std::uint64_t before = process_allocations + handle_allocations;
    for (auto _ : state) {
        body();
        benchmark::ClobberMemory();
    }
    const std::uint64_t taken = process_allocations + handle_allocations - before;
    if (use == memory::untouched && taken > taken_by_the_loop)
        fail(std::string(row_in_progress) + " takes memory");
}

// ---- Scalars and strings ---------------------------------------------------------------------------------------

struct our_record {
    rec_parent_with_sing_child* object = rec_parent_with_sing_child_create(ground(), domain);
    std::uint32_t error = 0;
    our_record() {
        const loom_vstring value = value_of_text();
        rec_parent_with_sing_child_int_attr_set_value(ground(), domain, object, 7, &error);
        rec_parent_with_sing_child_st_attr_set(ground(), domain, object, &value, &error);
    }
    ~our_record() {
        if (error != 0) fail("an accessor gives error " + std::to_string(error));
        rec_parent_with_sing_child_destroy(ground(), domain, object);
    }
};

void our_get(benchmark::State& state) {
    our_record x;
    run(state, memory::untouched, [&] {
        benchmark::DoNotOptimize(rec_parent_with_sing_child_int_attr_get(ground(), domain, x.object, &x.error));
    });
}
void our_get_value(benchmark::State& state) {
    our_record x;
    run(state, memory::untouched, [&] {
        benchmark::DoNotOptimize(
            rec_parent_with_sing_child_int_attr_get_value(ground(), domain, x.object, &x.error));
    });
}
void our_set(benchmark::State& state) {
    our_record x;
    std::uint32_t value = 0;
    run(state, memory::untouched, [&] {
        ++value;
        rec_parent_with_sing_child_int_attr_set(ground(), domain, x.object, &value, &x.error);
    });
}
void our_set_value(benchmark::State& state) {
    our_record x;
    std::uint32_t value = 0;
    run(state, memory::untouched,
        [&] { rec_parent_with_sing_child_int_attr_set_value(ground(), domain, x.object, ++value, &x.error); });
}
void our_string_get(benchmark::State& state) {
    our_record x;
    run(state, memory::untouched, [&] {
        benchmark::DoNotOptimize(rec_parent_with_sing_child_st_attr_get(ground(), domain, x.object, &x.error));
    });
}
void our_string_set(benchmark::State& state) {
    our_record x;
    const loom_vstring value = value_of_text();
    run(state, memory::taken,
        [&] { rec_parent_with_sing_child_st_attr_set(ground(), domain, x.object, &value, &x.error); });
}

/// A message on the heap, or in an arena.
template <class Message>
struct heap_message {
    Message message;
    Message* get() { return &message; }
};
template <class Message>
struct arena_message {
    google::protobuf::Arena arena;
    Message* get() {
        if (made == nullptr) made = google::protobuf::Arena::CreateMessage<Message>(&arena);
        return made;
    }
    Message* made = nullptr;
};

template <class Holder>
void protobuf_get_value(benchmark::State& state) {
    Holder x;
    auto* message = x.get();
    message->set_int_attr(7);
    run(state, memory::untouched, [&] {
        benchmark::DoNotOptimize(message);
        benchmark::DoNotOptimize(message->int_attr());
    });
}
template <class Holder>
void protobuf_set_value(benchmark::State& state) {
    Holder x;
    auto* message = x.get();
    std::uint32_t value = 0;
    run(state, memory::untouched, [&] {
        benchmark::DoNotOptimize(message);
        message->set_int_attr(++value);
    });
}
template <class Holder>
void protobuf_string_get(benchmark::State& state) {
    Holder x;
    auto* message = x.get();
    message->set_st_attr(text, sizeof text - 1);
    run(state, memory::untouched, [&] {
        benchmark::DoNotOptimize(message);
        benchmark::DoNotOptimize(message->st_attr().data());
    });
}
template <class Holder>
void protobuf_string_set(benchmark::State& state) {
    Holder x;
    auto* message = x.get();
    run(state, memory::taken, [&] {
        benchmark::DoNotOptimize(message);
        message->set_st_attr(text, sizeof text - 1);
    });
}

// ---- Lives -----------------------------------------------------------------------------------------------------

void our_life_of_string_key(benchmark::State& state) {
    run(state, memory::taken, [] {
        string_key* made = string_key_create(ground(), domain);
        benchmark::DoNotOptimize(made);
        string_key_destroy(ground(), domain, made);
    });
}
void our_life_of_the_record(benchmark::State& state) {
    run(state, memory::taken, [] {
        rec_parent_with_sing_child* made = rec_parent_with_sing_child_create(ground(), domain);
        benchmark::DoNotOptimize(made);
        rec_parent_with_sing_child_destroy(ground(), domain, made);
    });
}
template <class Message>
void protobuf_life(benchmark::State& state) {
    run(state, memory::taken, [] {
        auto made = std::make_unique<Message>();
        benchmark::DoNotOptimize(made.get());
    });
}
template <class Message>
void protobuf_arena_life(benchmark::State& state) {
    alignas(16) static char first_block[16384];
    google::protobuf::ArenaOptions options;
    options.initial_block = first_block;
    options.initial_block_size = sizeof first_block;
    google::protobuf::Arena arena(options);
    run(state, memory::taken, [&] {
        auto* made = google::protobuf::Arena::CreateMessage<Message>(&arena);
        benchmark::DoNotOptimize(made);
        arena.Reset();
    });
}

void row(const char* name, void (*body)(benchmark::State&)) {
    benchmark::RegisterBenchmark(name, [=](benchmark::State& state) {
        row_in_progress = name;
        body(state);
    });
}

} // namespace

int main(int argc, char** argv) {
    using record = proto::rec_parent_with_sing_child;
    using heap = heap_message<record>;
    using arena = arena_message<record>;
    row("get/rec_parent_with_sing_child/trellis", our_get);
    row("get_value/rec_parent_with_sing_child/trellis", our_get_value);
    row("get_value/rec_parent_with_sing_child/protobuf", protobuf_get_value<heap>);
    row("get_value/rec_parent_with_sing_child/protobuf arena", protobuf_get_value<arena>);
    row("set/rec_parent_with_sing_child/trellis", our_set);
    row("set_value/rec_parent_with_sing_child/trellis", our_set_value);
    row("set_value/rec_parent_with_sing_child/protobuf", protobuf_set_value<heap>);
    row("set_value/rec_parent_with_sing_child/protobuf arena", protobuf_set_value<arena>);
    row("string get/rec_parent_with_sing_child/trellis", our_string_get);
    row("string get/rec_parent_with_sing_child/protobuf", protobuf_string_get<heap>);
    row("string get/rec_parent_with_sing_child/protobuf arena", protobuf_string_get<arena>);
    row("string set/rec_parent_with_sing_child/trellis", our_string_set);
    row("string set/rec_parent_with_sing_child/protobuf", protobuf_string_set<heap>);
    row("string set/rec_parent_with_sing_child/protobuf arena", protobuf_string_set<arena>);
    row("create, destroy/rec_parent_with_sing_child/trellis", our_life_of_the_record);
    row("create, destroy/rec_parent_with_sing_child/protobuf", protobuf_life<record>);
    row("create, destroy/rec_parent_with_sing_child/protobuf arena", protobuf_arena_life<record>);
    row("create, destroy/string_key/trellis", our_life_of_string_key);
    row("create, destroy/string_key/protobuf", protobuf_life<proto::string_key>);
    row("create, destroy/string_key/protobuf arena", protobuf_arena_life<proto::string_key>);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
