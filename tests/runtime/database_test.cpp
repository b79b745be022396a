// Handles and mapped files: opening, what is said about files that cannot be opened, sections and locks across
// handles, threads and processes, and recovery after a writer has died.
#include "tests/runtime/support.h"

#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {
using namespace runtime_test;

struct database_file : testing::Test {
    scratch_directory directory;
    std::string path = directory.file("test.loom");

    /// A database with 100 cells of zero, a spare block, and a table of ten records.
    handle_ptr make() {
        load_fake_bundle();
        handle_ptr handle = open_mapped(path);
        loom_write_begin(handle);
        auto* cells = static_cast<std::uint64_t*>(handle->alloc(handle->alloc_ctx, 1, 800));
        std::memset(cells, 0, 800);
        arbor_set_key(handle->alloc_ctx, "cells", cells);
        void* spare = handle->alloc(handle->alloc_ctx, 1, 3000);
        std::memset(spare, 's', 3000);
        arbor_set_key(handle->alloc_ctx, "spare", spare);
        std::uint32_t err = 0;
        loom_table* table = fake_table_open(handle, 1, "old/table", &err);
        for (std::uint32_t key = 0; key < 10; ++key)
            fake_table_add(handle, 1, table, key, &err);
        EXPECT_EQ(err, 0u);
        EXPECT_EQ(loom_write_commit(handle), 0u);
        return handle;
    }
    std::string reason(std::uint32_t flags = 0) const {
        handle_ptr handle(loom_open_mapped(path.c_str(), flags));
        EXPECT_FALSE(handle);
        return loom_error_text();
    }
    std::string part(const char* name) const { return path + "/" + name; }
    static std::vector<char> bytes_of(const std::string& file) {
        std::ifstream stream(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    static void write(const std::string& file, const std::vector<char>& contents) {
        std::ofstream(file, std::ios::binary | std::ios::trunc)
            .write(contents.data(), static_cast<long>(contents.size()));
    }
};

TEST_F(database_file, keeps_its_contents_and_its_address) {
    std::uint64_t* place = nullptr;
    std::uint8_t identity[16], again[16];
    {
        handle_ptr handle = make();
        place = cells_of(handle);
        loom_write_begin(handle);
        set_cell(handle, 5, 55);
        loom_write_commit(handle);
        loom_database_identity(handle, identity);
        EXPECT_STREQ(handle->db_name, "test");
        EXPECT_EQ(loom_database_sync(handle), 0u);
    }
    handle_ptr handle = open_mapped(path, 0);
    EXPECT_EQ(cells_of(handle), place);
    EXPECT_EQ(cells_of(handle)[5], 55u);
    loom_database_identity(handle, again);
    EXPECT_EQ(std::memcmp(identity, again, 16), 0);
    std::uint32_t err = 0;
    loom_table* table = fake_table_open(handle, 1, "old/table", &err);
    ASSERT_TRUE(table);
    EXPECT_EQ(table->record_count, 10u);
    expect_sound(handle);
}

TEST_F(database_file, says_what_is_wrong_with_a_path) {
    EXPECT_NE(reason().find(path + ": there is no such directory"), std::string::npos);
    write(path, {'x'});
    EXPECT_NE(reason(LOOM_OPEN_CREATE).find("is no database, which is a directory"), std::string::npos);
    write(path, {'L', 'O', 'O', 'M', 'A', 'R', 'N', 'A'});
    EXPECT_NE(reason().find("is of the former kind"), std::string::npos);
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_NE(reason().find("is an empty directory"), std::string::npos);
    write(part("letter"), {'x'});
    EXPECT_NE(reason().find("other files (letter)"), std::string::npos);
    EXPECT_NE(reason(LOOM_OPEN_CREATE).find("something else (letter)"), std::string::npos);
    std::filesystem::remove_all(path);
    path = directory.file("no/such/directory/file");
    EXPECT_NE(reason(LOOM_OPEN_CREATE).find("cannot be made"), std::string::npos) << loom_error_text();
}

TEST_F(database_file, opens_no_damaged_superblock) {
    make().reset();
    const std::vector<char> good = bytes_of(part("superblock"));
    write(part("superblock"), {good.begin(), good.begin() + 100});
    EXPECT_NE(reason().find("is no superblock"), std::string::npos);
    for (std::size_t place = 0; place < 144; ++place) {
        std::vector<char> changed = good;
        changed[place] = static_cast<char>(changed[place] ^ (1 << place % 8));
        write(part("superblock"), changed);
        EXPECT_NE(reason(), "") << "byte " << place;
    }
}

TEST_F(database_file, names_what_is_in_the_way) {
    handle_ptr handle = make();
    const std::uint64_t base = usage_of(handle).base;
    handle.reset();
    void* obstacle = mmap(reinterpret_cast<void*>(base + (1 << 20)), 4096, PROT_READ,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    ASSERT_NE(obstacle, MAP_FAILED);
    EXPECT_NE(reason().find("is taken by memory without a name"), std::string::npos) << loom_error_text();
    munmap(obstacle, 4096);
    EXPECT_TRUE(open_mapped(path, 0));
}

TEST_F(database_file, two_databases_lie_side_by_side) {
    std::vector<handle_ptr> handles;
    for (int i = 0; i < 6; ++i) {
        loom_open_options options{};
        options.size = sizeof options;
        options.kind = LOOM_DB_MAPPED;
        options.flags = LOOM_OPEN_CREATE;
        const std::string each = directory.file("db" + std::to_string(i));
        options.path = each.c_str();
        handles.emplace_back(loom_open(&options));
        ASSERT_TRUE(handles.back()) << loom_error_text();
        EXPECT_FALSE(arbor_in_range(handles[0]->alloc_ctx, &handles.back()->alloc_ctx));
    }
}

TEST_F(database_file, exclusive_use_shuts_others_out) {
    handle_ptr handle = make();
    EXPECT_NE(reason(LOOM_OPEN_EXCLUSIVE).find("in use"), std::string::npos);
    EXPECT_NE(loomlib_db_is_shared(), 0u);
    handle.reset();
    EXPECT_EQ(loomlib_db_is_shared(), 0u);
    handle = open_mapped(path, LOOM_OPEN_EXCLUSIVE);
    EXPECT_EQ(loomlib_db_is_shared(), 0u);
    EXPECT_NE(loomlib_database_is_write_locked(handle), 0u);
    EXPECT_NE(reason().find("in use exclusively"), std::string::npos);
    child_process other({"open", path});
    EXPECT_NE(other.line().find("in use exclusively"), std::string::npos);
    EXPECT_EQ(WEXITSTATUS(other.wait()), 2);
}

TEST_F(database_file, sections_do_not_nest_and_know_their_handle) {
    handle_ptr handle = make();
    handle_ptr second = open_mapped(path, 0);
    EXPECT_EQ(loomlib_database_is_write_locked(handle), 0u);
    EXPECT_EQ(loom_write_begin(handle), 0u);
    EXPECT_NE(loomlib_database_is_write_locked(handle), 0u);
    EXPECT_EQ(loomlib_database_is_write_locked(second), 0u);
    EXPECT_EQ(loom_write_begin(handle), std::uint32_t{EBUSY});
    EXPECT_EQ(loom_read_begin(handle), std::uint32_t{EBUSY});
    EXPECT_EQ(loom_write_begin(second), std::uint32_t{EDEADLK});
    EXPECT_EQ(loom_read_begin(second), std::uint32_t{EDEADLK});
    EXPECT_EQ(second->alloc(second->alloc_ctx, 1, 8), nullptr);
    EXPECT_EQ(loom_read_end(handle), std::uint32_t{EINVAL});
    EXPECT_EQ(loom_write_commit(handle), 0u);
    EXPECT_EQ(loom_write_commit(handle), std::uint32_t{EINVAL});
    EXPECT_EQ(loom_read_begin(handle), 0u);
    EXPECT_EQ(loom_read_begin(second), 0u); // readers share
    EXPECT_EQ(loom_read_end(second), 0u);
    EXPECT_EQ(loom_read_end(handle), 0u);
}

TEST_F(database_file, objects_made_while_reading_are_the_processes_own) {
    handle_ptr handle = make();
    auto* before = static_cast<char*>(handle->alloc(handle->alloc_ctx, 1, 50));
    const std::uint64_t blocks = usage_of(handle).blocks;
    loom_read_begin(handle);
    auto* temporary = static_cast<char*>(handle->alloc(handle->alloc_ctx, 1, 100));
    ASSERT_TRUE(temporary);
    std::memset(temporary, 1, 100);
    EXPECT_FALSE(arbor_in_range(handle->alloc_ctx, temporary));
    EXPECT_EQ(arbor_set_range(handle->alloc_ctx, temporary, 8, 1), 1u);
    handle->free(handle->alloc_ctx, 1, before); // is carried out when the database may be changed
    EXPECT_EQ(usage_of(handle).blocks, blocks);
    EXPECT_EQ(arbor_set_key(handle->alloc_ctx, "refused", temporary), 0u);
    loom_read_end(handle);
    EXPECT_EQ(usage_of(handle).blocks, blocks - 1);
    handle->free(handle->alloc_ctx, 1, temporary);
}

TEST_F(database_file, closing_inside_a_section_aborts_it) {
    handle_ptr handle = make();
    loom_write_begin(handle);
    set_cell(handle, 3, 33);
    handle.reset();
    handle = open_mapped(path, 0);
    EXPECT_EQ(cells_of(handle)[3], 0u);
}

TEST_F(database_file, many_processes_and_threads_count_together) {
    handle_ptr handle = make();
    std::vector<std::unique_ptr<child_process>> children;
    for (int i = 0; i < 3; ++i)
        children.push_back(std::make_unique<child_process>(std::vector<std::string>{"count", path}));
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([&] {
            handle_ptr own = open_mapped(path, 0);
            for (int round = 0; round < 100; ++round) {
                ASSERT_EQ(loom_write_begin(own), 0u);
                set_cell(own, 0, cells_of(own)[0] + 1);
                ASSERT_EQ(loom_write_commit(own), 0u);
                ASSERT_EQ(loom_read_begin(own), 0u);
                ASSERT_EQ(cells_of(own)[1], 0u);
                ASSERT_EQ(loom_read_end(own), 0u);
                // Objects outside sections come and go beside other handles' sections.
                own->free(own->alloc_ctx, 1, own->alloc(own->alloc_ctx, 1, 24));
            }
        });
    for (std::thread& each : threads)
        each.join();
    for (auto& each : children)
        EXPECT_EQ(WEXITSTATUS(each->wait()), 0);
    loom_read_begin(handle);
    EXPECT_EQ(cells_of(handle)[0], 800u);
    expect_sound(handle);
    loom_read_end(handle);
}

TEST_F(database_file, a_writer_that_dies_leaves_nothing_behind) {
    handle_ptr handle = make();
    const loom_arena_usage start = usage_of(handle);
    for (const bool by_reading : {false, true}) {
        child_process child({"die_in_section", path});
        const int status = child.wait();
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        EXPECT_EQ(cells_of(handle)[7], 0xDEADu); // the store itself did happen
        if (by_reading)
            loom_read_begin(handle);
        else
            loom_write_begin(handle);
        EXPECT_EQ(cells_of(handle)[7], 0u);
        expect_sound(handle);
        EXPECT_EQ(usage_of(handle).blocks, start.blocks);
        EXPECT_EQ(usage_of(handle).bytes, start.bytes);
        const auto* spare = static_cast<const char*>(arbor_get_key(handle->alloc_ctx, "spare"));
        EXPECT_EQ(std::string(spare, 3000), std::string(3000, 's'));
        std::uint32_t err = 0;
        EXPECT_FALSE(fake_table_find(handle, 1, "left/behind", &err));
        loom_table* old = fake_table_find(handle, 1, "old/table", &err);
        ASSERT_TRUE(old);
        EXPECT_EQ(old->record_count, 10u);
        if (by_reading)
            loom_read_end(handle);
        else
            loom_write_commit(handle);
    }
}

/// Processes are killed at any moment, in the middle of sections, commits and aborts. Whatever was going on, the
/// sums that every section keeps must hold afterwards.
TEST_F(database_file, processes_may_be_killed_at_any_moment) {
    handle_ptr handle = make();
    const loom_arena_usage start = usage_of(handle);
    random_source random(2);
    for (int round = 0; round < 40; ++round) {
        {
            child_process child({"work_until_killed", path});
            ASSERT_EQ(child.line(), "working");
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
        } // killed here
        ASSERT_EQ(loom_read_begin(handle), 0u);
        expect_sound(handle);
        std::uint64_t sum = 0;
        for (std::size_t cell = 0; cell < 50; ++cell)
            sum += cells_of(handle)[cell];
        ASSERT_EQ(sum, 0u);
        std::uint32_t err = 0;
        loom_table* table = fake_table_find(handle, 1, "old/table", &err);
        ASSERT_EQ(table->record_count, 10 + cells_of(handle)[51]);
        std::uint64_t records = 0;
        for (e_avl_node* node = e_avl_get_first(table->avl_root); node;
             node = e_avl_get_next(table->avl_root, node, nullptr))
            ++records;
        ASSERT_EQ(records, table->record_count);
        ASSERT_EQ(usage_of(handle).blocks, start.blocks + cells_of(handle)[50] + cells_of(handle)[51]);
        ASSERT_EQ(loom_read_end(handle), 0u);
    }
    loom_read_begin(handle);
    EXPECT_GT(cells_of(handle)[51], 0u); // some sections did commit
    loom_read_end(handle);
}

TEST_F(database_file, a_dead_writer_is_cleaned_up_by_the_next_open) {
    make().reset();
    child_process child({"die_in_section", path});
    child.wait();
    handle_ptr handle = open_mapped(path, 0);
    EXPECT_EQ(cells_of(handle)[7], 0u);
    expect_sound(handle);
}

/// A log of tens of megabytes outgrows the addresses that it begins with, in the process that writes it and in one
/// that finds it.
TEST_F(database_file, a_long_section_is_put_back) {
    handle_ptr handle = make();
    const std::vector<char> expected(large_size, 'L');
    loom_write_begin(handle);
    void* block = handle->alloc(handle->alloc_ctx, 1, large_size);
    std::memcpy(block, expected.data(), large_size);
    arbor_set_key(handle->alloc_ctx, "large", block);
    ASSERT_EQ(loom_write_commit(handle), 0u);

    child_process({"die_in_long_section", path}).wait();
    EXPECT_GT(std::filesystem::file_size(part("undo")), 11 * large_size);
    ASSERT_EQ(loom_read_begin(handle), 0u) << loom_error_text();
    EXPECT_EQ(std::memcmp(block, expected.data(), large_size), 0);
    loom_read_end(handle);

    loom_write_begin(handle);
    overwrite_large(handle, 20);
    ASSERT_EQ(loom_write_abort(handle), 0u);
    EXPECT_EQ(std::memcmp(block, expected.data(), large_size), 0);
}

/// What can be wrong with the undo log of a section that was cut off: the image is then made of what was
/// committed, at once or by the next opener, and the section is gone in any case.
TEST_F(database_file, a_section_is_undone_without_its_log) {
    const auto flip = [](const std::string& file, std::size_t place) {
        std::vector<char> bytes = bytes_of(file);
        bytes[place] = static_cast<char>(bytes[place] ^ 4);
        write(file, bytes);
    };
    const std::vector<std::pair<const char*, std::function<void()>>> faults = {
        {"removed", [&] { std::filesystem::remove(part("undo")); }},
        {"cut short", [&] { std::filesystem::resize_file(part("undo"), 4096); }},
        {"of another database",
         [&] {
             const std::string other = directory.file("other.loom");
             open_mapped(other).reset();
             std::filesystem::copy_file(other + "/undo", part("undo"),
                                        std::filesystem::copy_options::overwrite_existing);
         }},
        {"its end flipped", [&] { flip(part("undo"), 58); }},
        {"its number flipped", [&] { flip(part("undo"), 40); }},
        {"an old byte flipped", [&] { flip(part("undo"), 4096 + 8); }},
        {"the control page removed", [&] { std::filesystem::remove(part("control")); }},
    };
    for (const auto& [what, damage] : faults) {
        SCOPED_TRACE(what);
        std::filesystem::remove_all(path);
        make().reset();
        child_process({"die_in_section", path}).wait();
        damage();
        handle_ptr handle(loom_open_mapped(path.c_str(), 0));
        if (!handle) {
            EXPECT_NE(std::string(loom_error_text()).find("undo log is damaged"), std::string::npos);
            handle = open_mapped(path, 0);
        }
        EXPECT_EQ(cells_of(handle)[7], 0u);
        expect_sound(handle);
    }
}

TEST_F(database_file, verification_survives_any_damage) {
    make().reset();
    std::vector<char> good = bytes_of(part("image"));
    random_source random(6);
    for (int round = 0; round < 200; ++round) {
        std::vector<char> bad = good;
        for (int i = 0; i < 20; ++i)
            bad[136 + random() % 40000] = static_cast<char>(random());
        write(part("image"), bad);
        if (loom_handle* handle = loom_open_mapped(path.c_str(), 0)) {
            EXPECT_NE(loom_arena_verify(handle), 77u);
            loom_close(handle);
        }
    }
}

/// The machine goes down with a section open, and the last commit was not on the disk: the log knows the bytes of
/// a commit that is gone.
TEST_F(database_file, the_log_of_an_earlier_image_is_not_put_back) {
    handle_ptr handle = make();
    const std::vector<char> journal = bytes_of(part("journal.0"));
    loom_write_begin(handle);
    set_cell(handle, 7, 1);
    ASSERT_EQ(loom_write_commit(handle), 0u);
    handle.reset();
    child_process({"die_in_section", path}).wait();
    write(part("journal.0"), journal);
    std::filesystem::remove(part("image"));
    std::filesystem::remove(part("control"));
    handle = open_mapped(path, 0);
    EXPECT_EQ(cells_of(handle)[7], 0u);
    expect_sound(handle);
}

TEST_F(database_file, an_abort_leaves_the_image_as_it_was) {
    const handle_ptr handle = make();
    const std::vector<char> before = bytes_of(part("image"));
    loom_write_begin(handle);
    std::memset(handle->alloc(handle->alloc_ctx, 1, large_size), 'x', large_size);
    loom_write_abort(handle);
    EXPECT_TRUE(bytes_of(part("image")) == before);
}

TEST_F(database_file, closing_and_refusing_leave_no_files_and_mappings) {
    const auto in_use = [&] {
        auto count = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line);)
            count += line.find(path) != std::string::npos;
        return count;
    };
    make().reset();
    const auto before = in_use();
    {
        const handle_ptr handle = open_mapped(path, 0);
        EXPECT_FALSE(loom_open_mapped(path.c_str(), LOOM_OPEN_EXCLUSIVE));
        loom_write_begin(handle);
        arbor_set_key(handle->alloc_ctx, "large", handle->alloc(handle->alloc_ctx, 1, large_size));
        loom_write_commit(handle);
        loom_write_begin(handle);
        overwrite_large(handle, 5); // the log outgrows its first mapping
        loom_write_abort(handle);
    }
    EXPECT_EQ(in_use(), before);
    write(part("superblock"), {});
    EXPECT_FALSE(loom_open_mapped(path.c_str(), 0));
    EXPECT_EQ(in_use(), before);
}

TEST_F(database_file, a_dead_reader_blocks_nobody) {
    handle_ptr handle = make();
    child_process child({"die_reading", path});
    child.wait();
    EXPECT_EQ(loom_write_begin(handle), 0u);
    EXPECT_EQ(loom_write_commit(handle), 0u);
}

TEST_F(database_file, a_writer_waits_for_readers_and_readers_for_the_writer) {
    handle_ptr handle = make();
    child_process reader({"hold_read", path});
    EXPECT_EQ(reader.line(), "0");
    std::atomic<bool> written{false};
    std::thread writer([&] {
        handle_ptr own = open_mapped(path, 0);
        loom_write_begin(own);
        set_cell(own, 0, 5);
        loom_write_commit(own);
        written = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(written);
    reader.go_on();
    writer.join();
    child_process holder({"hold_write", path});
    EXPECT_EQ(holder.line(), "held");
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        holder.go_on();
    });
    loom_read_begin(handle);
    EXPECT_EQ(cells_of(handle)[0], 77u);
    loom_read_end(handle);
    release.join();
}

TEST_F(database_file, what_another_process_adds_is_there_at_once) {
    handle_ptr handle = make();
    child_process other({"grow", path});
    ASSERT_EQ(other.line(), "grown");
    loom_read_begin(handle);
    const auto* block = static_cast<const char*>(arbor_get_key(handle->alloc_ctx, "grown"));
    ASSERT_TRUE(block);
    EXPECT_EQ(block[0], 'g');
    EXPECT_EQ(block[(8u << 20) - 1], 'g');
    loom_read_end(handle);
    other.go_on();
    EXPECT_EQ(WEXITSTATUS(other.wait()), 0);
}

TEST_F(database_file, an_object_of_one_handle_outlives_the_abort_of_another) {
    handle_ptr handle = make();
    std::uint64_t* own = static_cast<std::uint64_t*>(handle->alloc(handle->alloc_ctx, 1, 64));
    std::memset(own, 0, 64);
    std::thread([&] {
        handle_ptr other = open_mapped(path, 0);
        loom_write_begin(other);
        set_cell(other, 0, 9);
        // Not in a section: this handle's notices are not part of the other one's.
        std::thread([&] {
            handle->write_hook(handle, own, 8, 1, nullptr);
            *own = 42;
        }).join();
        loom_write_abort(other);
    }).join();
    EXPECT_EQ(*own, 42u);
    EXPECT_EQ(cells_of(handle)[0], 0u);
}

// ---------------------------------------------------------------------------------------------- the handle

TEST(handle, refuses_options_that_are_not_filled_in) {
    EXPECT_FALSE(loom_open(nullptr));
    loom_open_options options{};
    EXPECT_FALSE(loom_open(&options));
    EXPECT_NE(std::string(loom_error_text()).find("options"), std::string::npos);
}

TEST(handle, shows_its_settings_to_bundles) {
    loom_open_options options{};
    options.size = sizeof options;
    options.kind = LOOM_DB_PRIVATE_MANIFESTED;
    options.name = "settings";
    options.tracking = LOOM_TRACKING_ON;
    options.cr_domain = 9;
    options.header_tag = 77;
    options.workspace_size = 5000;
    handle_ptr handle(loom_open(&options));
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle->db_kind, 2u);
    EXPECT_STREQ(handle->db_name, "settings");
    EXPECT_STREQ(handle->domain_text, "local");
    EXPECT_EQ(handle->cr_domain, 9u);
    EXPECT_EQ(handle->header_tag, 77u);
    ASSERT_TRUE(handle->sttr_block);
    EXPECT_EQ(handle->sttr_block->sttr_mode, LOOM_STTR_ON);
    loom_set_tracking(handle, LOOM_TRACKING_OFF);
    EXPECT_EQ(handle->sttr_block->sttr_mode, LOOM_STTR_OFF);
    loom_set_tracking(handle, LOOM_TRACKING_NONE);
    EXPECT_FALSE(handle->sttr_block);
    void* workspace = nullptr;
    std::uint32_t size = 0;
    loomlib_get_handle_ws(handle, &workspace, &size);
    EXPECT_EQ(size, 5000u);
    std::memset(workspace, 1, size);
    loom_set_workspace_size(handle, 10000);
    loomlib_get_handle_ws(handle, &workspace, &size);
    EXPECT_EQ(size, 10000u);
    std::memset(workspace, 1, size);
    loom_set_suppress_messages(handle, 1);
    EXPECT_EQ(loomlib_suppress_messages_enabled(handle), 1u);
}

TEST(handle, shows_reports_to_its_observer_and_counts_them) {
    handle_ptr handle = open_private();
    std::vector<loom_report> seen;
    loom_set_containment(
        handle, 1,
        [](loom_handle*, const loom_report* report, void* context) {
            static_cast<std::vector<loom_report>*>(context)->push_back(*report);
        },
        &seen);
    EXPECT_EQ(handle->containment, 1u);
    int value = 0, parent = 0;
    loomdb_record_containment2(handle, 3, &value, &parent, 1);
    loomdb_record_containment(handle, 3, 4, &value, nullptr, 1);
    loomdb_plat_set_dirty(handle, 3, &value);
    loomdb_plat_set_destroy(handle, 3, &value);
    loomdb_plat_set_detach(handle, 3, &value, 1);
    ASSERT_EQ(seen.size(), 5u);
    EXPECT_EQ(seen[0].parent, &parent);
    EXPECT_EQ(seen[1].subject_kind, 4u);
    EXPECT_EQ(seen[4].kind, LOOM_REPORT_DETACH);
    EXPECT_EQ(seen[4].arm, 1u);
    EXPECT_EQ(loom_report_count(handle, LOOM_REPORT_CONTAINMENT), 2u);
    EXPECT_EQ(loom_report_count(handle, LOOM_REPORT_DESTROY), 1u);
}
} // namespace
