// Databases behind a crash of the machine: a model of the disk follows a workload, forgets or tears what was not
// flushed at any point, and what is opened then must be what a commit has made. Also: copies of directories.
#include "tests/runtime/crash.h"

#include "runtime/store/disk.h"

#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sys/wait.h>

namespace {
using namespace runtime_test;
using bytes = std::vector<char>;

handle_ptr open_durable(const std::string& path, std::uint32_t level) {
    handle_ptr handle = open_for_work(path, level);
    EXPECT_TRUE(handle) << loom_error_text();
    return handle;
}

/// A sample; scripts/crash takes many.
class behind_a_crash : public testing::TestWithParam<std::uint32_t> {};
TEST_P(behind_a_crash, a_database_is_what_a_commit_has_made) {
    crash_plan plan;
    plan.level = GetParam();
    plan.cuts = 30;
    plan.failures = 3;
    const crash_counts counts = run_crashes(plan);
    EXPECT_GE(counts.cuts, plan.cuts);
    EXPECT_EQ(counts.wrong, std::vector<std::string>{});
}
INSTANTIATE_TEST_SUITE_P(levels, behind_a_crash,
                         testing::Values(std::uint32_t{LOOM_DURABILITY_VOLATILE},
                                         std::uint32_t{LOOM_DURABILITY_ORDERED},
                                         std::uint32_t{LOOM_DURABILITY_DURABLE}));

/// A flush that fails is not repeated: commits stop for good, reading goes on, and who opens the database next
/// finds all that was committed on new files.
TEST(a_disk, that_fails_a_flush_gets_no_more_commits) {
    scratch_directory directory;
    const std::string path = directory.file("failing.db");
    handle_ptr handle = open_durable(path, LOOM_DURABILITY_DURABLE);
    make_cells(handle);
    work(handle, 1);
    loom_disk_observe(
        [](const loom_disk_operation* operation, void*) { return operation->kind == LOOM_DISK_FLUSH ? EIO : 0; },
        nullptr);
    loom_write_begin(handle);
    set_cell(handle, 0, 2);
    EXPECT_EQ(loom_write_commit(handle), std::uint32_t{EIO});
    EXPECT_NE(std::string(loom_error_text()).find("nothing more is committed"), std::string::npos);
    loom_disk_observe(nullptr, nullptr);
    EXPECT_EQ(loom_write_begin(handle), std::uint32_t{EIO});
    EXPECT_EQ(loom_read_begin(handle), 0u);
    EXPECT_EQ(cells_of(handle)[0], 2u);
    loom_read_end(handle);
    handle.reset();
    handle = open_durable(path, LOOM_DURABILITY_DEFAULT);
    EXPECT_EQ(cells_of(handle)[0], 2u);
    work(handle, 3);
}

/// A page that the disk has damaged gets no new checksum when a part of it changes.
TEST(a_disk, that_damages_a_page_is_found_out_before_the_page_is_renewed) {
    scratch_directory directory;
    const std::string path = directory.file("damaged.db");
    const handle_ptr handle = open_durable(path, LOOM_DURABILITY_DURABLE);
    make_cells(handle);
    for (std::uint64_t number = 1; number <= 20; ++number)
        work(handle, number);
    ASSERT_EQ(loom_database_sync(handle), 0u) << loom_error_text();
    std::fstream base(path + "/base", std::ios::in | std::ios::out | std::ios::binary);
    for (std::uintmax_t end = std::filesystem::file_size(path + "/base"), at = 4000; at < end; at += 4096)
        base.seekp(static_cast<long>(at)).put('x').flush();
    std::uint32_t error = 0;
    for (std::uint64_t number = 21; !error && number < 100; ++number) {
        if ((error = loom_write_begin(handle))) break;
        for (std::size_t i = 0; i < cells; ++i)
            set_cell(handle, i, number);
        error = loom_write_commit(handle);
        if (!error) error = loom_database_sync(handle);
    }
    EXPECT_EQ(error, std::uint32_t{EIO});
}

/// Without room for its journal entry a commit is taken back, and the next one that fits is made.
TEST(a_disk, without_room_takes_a_commit_back) {
    scratch_directory directory;
    const handle_ptr handle = open_durable(directory.file("full.db"), LOOM_DURABILITY_ORDERED);
    make_cells(handle);
    loom_disk_observe([](const loom_disk_operation* operation,
                         void*) { return operation->kind == LOOM_DISK_WRITE ? ENOSPC : 0; },
                      nullptr);
    loom_write_begin(handle);
    set_cell(handle, 0, 2);
    EXPECT_EQ(loom_write_commit(handle), std::uint32_t{ENOSPC});
    EXPECT_NE(std::string(loom_error_text()).find("make room on the disk"), std::string::npos);
    loom_disk_observe(nullptr, nullptr);
    EXPECT_EQ(cells_of(handle)[0], 0u);
    work(handle, 1);
    EXPECT_EQ(cells_of(handle)[0], 1u);
}

/// What a process has made and not handed over goes with it, unless something leads there.
TEST(a_dead_process, leaves_no_blocks_behind) {
    scratch_directory directory;
    const std::string path = directory.file("left.db");
    const handle_ptr handle = open_durable(path, LOOM_DURABILITY_ORDERED);
    make_cells(handle);
    for (int round = 0; round < 3; ++round) {
        const std::uint64_t before = usage_of(handle).blocks;
        child_process({"die_with_blocks", path}).wait();
        EXPECT_EQ(usage_of(handle).blocks, before + 40 + (round == 0));
        open_durable(path, LOOM_DURABILITY_DEFAULT).reset();
        EXPECT_EQ(usage_of(handle).blocks, before + 2 + (round == 0))
            << "the linked one, its second, and the root";
        expect_sound(handle);
    }
}

TEST(checking_mode, ends_a_process_whose_store_the_journal_does_not_have) {
    scratch_directory directory;
    const std::string path = directory.file("checked.db");
    make_cells(open_durable(path, LOOM_DURABILITY_ORDERED));
    const bool was_checked = std::getenv("LOOM_CHECK_COMMITS");
    for (const bool checked : {!was_checked, was_checked}) {
        checked ? setenv("LOOM_CHECK_COMMITS", "1", 1) : unsetenv("LOOM_CHECK_COMMITS");
        EXPECT_EQ(WIFSIGNALED(child_process({"store_in_silence", path}).wait()), checked);
    }
}

struct copies : testing::Test {
    scratch_directory directory;
    std::string path = directory.file("first.db");
    std::string copy = directory.file("copy.db");
    static bytes image_of(const std::string& database, std::uint64_t size) {
        std::ifstream stream(database + "/image", std::ios::binary);
        bytes all{std::istreambuf_iterator<char>(stream), {}};
        all.resize(size);
        return all;
    }
};

/// Base and journal together are the image, to the byte.
TEST_F(copies, of_a_database_are_made_from_base_and_journal) {
    std::uint64_t top = 0;
    {
        const handle_ptr handle = open_durable(path, LOOM_DURABILITY_ORDERED);
        make_cells(handle);
        for (std::uint64_t number = 1; number <= 200; ++number) {
            work(handle, number);
            // Made and filled outside of a section, found in it by the next one.
            auto* outside = static_cast<char*>(handle->alloc(handle->alloc_ctx, 1, 200));
            std::memset(outside, 'o', 200);
            if (number % 3 == 0) handle->free(handle->alloc_ctx, 1, outside);
            if (number % 60 == 0) loom_database_sync(handle);
        }
        std::memcpy(&top, reinterpret_cast<const char*>(usage_of(handle).base) + 136, 8);
    }
    std::filesystem::copy(path, copy);
    open_durable(copy, LOOM_DURABILITY_DEFAULT).reset();
    const bytes first = image_of(path, top), second = image_of(copy, top);
    for (std::size_t i = 0; i < top; ++i)
        ASSERT_EQ(first[i], second[i]) << "offset " << i;
}

TEST_F(copies, tell_of_damage) {
    {
        const handle_ptr handle = open_durable(path, LOOM_DURABILITY_DURABLE);
        make_cells(handle);
        for (std::uint64_t number = 1; number <= 60; ++number)
            work(handle, number);
        ASSERT_EQ(loom_database_sync(handle), 0u);
        for (std::uint64_t number = 61; number <= 80; ++number)
            work(handle, number);
    }
    random_source random(7);
    unsigned told = 0, harmless = 0;
    for (int round = 0; round < 200; ++round) {
        std::filesystem::remove_all(copy);
        std::filesystem::copy(path, copy);
        const char* const names[] = {"base", "checksums", "journal.0", "journal.1", "superblock"};
        const std::string victim = copy + "/" + names[round % 5];
        std::fstream file(victim, std::ios::binary | std::ios::in | std::ios::out);
        const auto size = std::filesystem::file_size(victim);
        const auto place = static_cast<long>((std::uint64_t{random()} << 16 ^ random()) %
                                             std::min<std::uint64_t>(size, 64 << 10));
        file.seekg(place);
        char byte = 0;
        file.get(byte);
        file.seekp(place);
        file.put(static_cast<char>(byte ^ (1 << random() % 8)));
        file.close();
        const handle_ptr handle(loom_open_mapped(copy.c_str(), 0));
        if (!handle) {
            EXPECT_NE(std::string(loom_error_text()).find(copy), std::string::npos) << loom_error_text();
            ++told;
            continue;
        }
        EXPECT_EQ(cells_of(handle)[0], 80u) << victim << " at " << place;
        expect_sound(handle);
        ++harmless;
    }
    EXPECT_GT(told, 20u);
    EXPECT_GT(harmless, 20u);
}
} // namespace
