// What the tests of the runtime share: places for files, other processes, and types and tables as a bundle would
// bring them.
#pragma once

#include <loom_runtime/arena.h>
#include <loom_runtime/runtime.h>

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace runtime_test {

struct close_handle {
    void operator()(loom_handle* handle) const { loom_close(handle); }
};
/// A handle that is closed with its scope.
struct handle_ptr : std::unique_ptr<loom_handle, close_handle> {
    using std::unique_ptr<loom_handle, close_handle>::unique_ptr;
    operator loom_handle*() const { return get(); }
};

/// A directory that goes with its test.
class scratch_directory {
  public:
    scratch_directory();
    ~scratch_directory();
    std::string file(const std::string& name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_;
    bool is_outermost_ = false;
};

handle_ptr open_private(std::uint32_t kind = LOOM_DB_PRIVATE, std::uint32_t tracking = LOOM_TRACKING_NONE);
/// A mapped database; fails the test when it cannot be opened.
handle_ptr open_mapped(const std::string& path, std::uint32_t flags = LOOM_OPEN_CREATE);

/// Repeatable random numbers.
class random_source {
  public:
    explicit random_source(std::uint32_t seed) : engine_(seed) {}
    std::uint32_t operator()() { return static_cast<std::uint32_t>(engine_()); }

  private:
    std::mt19937 engine_;
};

/// Which database a parameterised test works on.
enum class memory_kind { private_memory, manifested_memory, shared_file, exclusive_file };
std::string name_of(memory_kind kind);
handle_ptr open_kind(memory_kind kind, const scratch_directory& directory);

loom_arena_usage usage_of(loom_handle* handle);
/// Fails the test when the arena's records contradict each other.
void expect_sound(loom_handle* handle);

/// A test on an open database of the parameter's kind.
class on_database : public testing::TestWithParam<memory_kind> {
  protected:
    void* alloc(std::size_t size) { return handle->alloc(handle->alloc_ctx, 1, size); }
    void free(void* block) { handle->free(handle->alloc_ctx, 1, block); }
    loom_arena_usage usage() const { return usage_of(handle); }

    scratch_directory directory;
    handle_ptr handle = open_kind(GetParam(), directory);
    std::uint32_t err = 0;
};
/// The same, with the fake bundle and inside a write section, which is committed in the end.
class in_write_section : public on_database {
  protected:
    void SetUp() override;
    void TearDown() override;
};
inline std::string name_of_kind(const testing::TestParamInfo<memory_kind>& info) { return name_of(info.param); }

/// Another process: this program with "--child <operation> arguments...". See processes.cpp.
class child_process {
  public:
    explicit child_process(const std::vector<std::string>& arguments);
    ~child_process();
    /// The next line that it prints.
    std::string line();
    /// Lets it go on: it waits for a line of input.
    void go_on() { say(""); }
    void say(const std::string& text);
    /// The exit status as waitpid tells it.
    int wait();

  private:
    int process_ = -1;
    int input_ = -1;
    int output_ = -1;
};
/// What a child does; its exit status.
int run_child(const std::vector<std::string>& arguments);

/// A type as a bundle has it: static record, variant table, entries.
struct fake_type {
    explicit fake_type(const char* name, const char* kind = "type", std::int8_t variants = 1,
                       const char* module = "fake_bundle");
    std::array<loom_variant_entry, 5> entries{};
    loom_variant_table table{};
    loom_type_info info{};
};

/// What a bundle's initialiser does for one type: its record in the database, made when it is missing there.
void manifest_type(loom_handle* handle, std::uint32_t domain, const fake_type& type, std::uint32_t* err);

/// An object with room for attributes, as instances lie in memory.
struct fake_object {
    loom_object header;
    std::uint64_t value;
};
fake_object* new_object(loom_handle* handle, loom_type_info* info);

/// The numbers that a database keeps under the name "cells".
std::uint64_t* cells_of(loom_handle* handle);
void set_cell(loom_handle* handle, std::size_t cell, std::uint64_t value);

/// Size of the block that a database keeps under the name "large".
constexpr std::size_t large_size = 8u << 20;
/// Announces that block and overwrites it, so many times, a byte less each time.
void overwrite_large(loom_handle* handle, std::size_t times);

/// The fake bundle's one table: keys are 32-bit numbers.
struct fake_record {
    loom_table_record record;
    std::uint32_t key;
};
extern fake_type fake_table_type;
extern const loom_table_vft fake_table_vft;
/// The table of this name, or null.
loom_table* fake_table_find(loom_handle* handle, std::uint32_t domain, const std::string& name,
                            std::uint32_t* err);
loom_table* fake_table_open(loom_handle* handle, std::uint32_t domain, const char* name, std::uint32_t* err);
fake_record* fake_table_add(loom_handle* handle, std::uint32_t domain, loom_table* table, std::uint32_t key,
                            std::uint32_t* err);
/// Puts the fake bundle's node on the module list, once.
void load_fake_bundle();

} // namespace runtime_test
