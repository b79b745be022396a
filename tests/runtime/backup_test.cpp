// Backups: written beside a writer, restored to what a commit has made; what is damaged or does not go together is
// told, and leaves nothing.
#include "tests/runtime/support.h"

#include "runtime/store/disk.h"

#include <loom_runtime/backup.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {
using namespace runtime_test;
constexpr std::size_t cells = 2000;

struct backups : testing::Test {
    handle_ptr open(const std::string& path, std::uint32_t flags = 0) {
        loom_open_options options{};
        options.size = sizeof options;
        options.kind = LOOM_DB_MAPPED;
        options.flags = flags;
        options.path = path.c_str();
        options.journal_limit = 32 << 10;
        options.reserve = 64 << 20;
        handle_ptr handle(loom_open(&options));
        EXPECT_TRUE(handle) << loom_error_text();
        return handle;
    }
    /// Every cell of a page tells of one commit, and the first cell of all of the latest.
    void work(loom_handle* handle, std::uint64_t number) {
        ASSERT_EQ(loom_write_begin(handle), 0u) << loom_error_text();
        for (std::size_t i = 0; i < 100; ++i)
            set_cell(handle, number * 100 % cells + i, number);
        set_cell(handle, 0, number);
        ASSERT_EQ(loom_write_commit(handle), 0u) << loom_error_text();
    }
    handle_ptr make() {
        handle_ptr handle = open(path, LOOM_OPEN_CREATE);
        loom_write_begin(handle);
        auto* made = static_cast<std::uint64_t*>(handle->alloc(handle->alloc_ctx, 1, cells * 8));
        std::memset(made, 0, cells * 8);
        arbor_set_key(handle->alloc_ctx, "cells", made);
        loom_write_commit(handle);
        return handle;
    }
    std::uint32_t restore(const std::vector<std::string>& files, const std::string& to,
                          std::uint64_t commit = LOOM_BACKUP_ALL) {
        std::vector<const char*> names;
        for (const std::string& file : files)
            names.push_back(file.c_str());
        loom_restore_options options{};
        options.size = sizeof options;
        options.path = to.c_str();
        options.files = names.data();
        options.file_count = static_cast<std::uint32_t>(names.size());
        options.commit = commit;
        return loom_restore(&options, nullptr);
    }
    /// The database is what `work` has made up to some number, which is returned.
    std::uint64_t number_read(loom_handle* handle) {
        expect_sound(handle);
        const std::uint64_t* all = cells_of(handle);
        const std::uint64_t number = all[0];
        for (std::uint64_t each = number; each > 0 && each + cells / 100 > number; --each)
            for (std::size_t i = 1; i < 100; ++i)
                if (all[each * 100 % cells + i] != each) {
                    ADD_FAILURE() << "of commit " << each << " a cell is missing as of " << number;
                    return number;
                }
        return number;
    }
    /// The same, and it goes on from there.
    std::uint64_t number_in(const std::string& restored) {
        const handle_ptr handle = open(restored);
        if (!handle) return ~std::uint64_t{0};
        const std::uint64_t number = number_read(handle);
        work(handle, number + 1);
        return number;
    }

    scratch_directory directory;
    std::string path = directory.file("first.db");
};

TEST_F(backups, beside_a_writer_are_what_a_commit_has_made) {
    handle_ptr handle = make();
    std::atomic<std::uint64_t> written{0};
    std::atomic<bool> ends{false};
    std::thread writer([&] {
        const handle_ptr own = open(path);
        for (std::uint64_t number = 1; !ends; ++number) {
            work(own, number);
            written = number;
            if (number % 50 == 0) loom_database_sync(own);
        }
    });
    struct made {
        std::string file;
        std::uint64_t written;
        loom_backup_report report;
    };
    std::vector<made> all;
    for (int i = 0; i < 16; ++i) {
        const std::uint64_t since = i % 8 ? all.back().report.last_commit : LOOM_BACKUP_ALL;
        const std::uint64_t before = written;
        while (written < before + static_cast<std::uint64_t>(i % 3) * 40)
            std::this_thread::yield();
        all.push_back({directory.file("backup" + std::to_string(i)), written, {}});
        EXPECT_EQ(loom_backup(handle, all.back().file.c_str(), since, &all.back().report), 0u)
            << loom_error_text();
    }
    ends = true;
    writer.join();
    handle.reset(); // its addresses are those of the restored ones
    std::vector<std::string> chain;
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (i % 8 == 0) chain.clear();
        chain.push_back(all[i].file);
        SCOPED_TRACE(all[i].file);
        const std::string restored = directory.file("restored" + std::to_string(i));
        ASSERT_EQ(restore(chain, restored), 0u) << loom_error_text();
        EXPECT_GE(number_in(restored), all[i].written);
        // An earlier commit, a few before the last one: the first of all was that which made the cells.
        const std::uint64_t earlier = (all[i].report.first_commit + all[i].report.last_commit) / 2;
        if (earlier < 3) continue;
        ASSERT_EQ(restore(chain, restored + "e", earlier), 0u) << loom_error_text();
        EXPECT_LE(number_in(restored + "e"), earlier);
    }
    // Without the one in the middle, or behind another full one, a backup does not fit.
    EXPECT_EQ(restore({all[0].file, all[1].file, all[7].file}, directory.file("none")), 22u);
    EXPECT_FALSE(std::filesystem::exists(directory.file("none")));
}

TEST_F(backups, that_are_damaged_are_told) {
    {
        const handle_ptr handle = make();
        for (std::uint64_t number = 1; number <= 120; ++number)
            work(handle, number);
        ASSERT_EQ(loom_database_sync(handle), 0u);
        for (std::uint64_t number = 121; number <= 140; ++number)
            work(handle, number);
        ASSERT_EQ(loom_backup(handle, directory.file("good").c_str(), LOOM_BACKUP_ALL, nullptr), 0u);
        EXPECT_EQ(loom_backup(handle, directory.file("good").c_str(), LOOM_BACKUP_ALL, nullptr), 17u);
    }
    random_source random(5);
    const std::string victim = directory.file("bad"), target = directory.file("target");
    const auto size = std::filesystem::file_size(directory.file("good"));
    unsigned told = 0;
    for (int round = 0; round < 120; ++round) {
        std::filesystem::copy_file(directory.file("good"), victim,
                                   std::filesystem::copy_options::overwrite_existing);
        const auto place = static_cast<long>(random() % size);
        if (round % 10 == 0) {
            std::filesystem::resize_file(victim, static_cast<std::uintmax_t>(place));
        } else {
            std::fstream file(victim, std::ios::binary | std::ios::in | std::ios::out);
            file.seekg(place);
            const int byte = file.get();
            file.seekp(place);
            file.put(static_cast<char>(byte ^ (1 << random() % 8)));
        }
        if (restore({victim}, target) != 0) {
            ++told;
            EXPECT_NE(std::string(loom_error_text()).find(victim), std::string::npos) << loom_error_text();
            EXPECT_FALSE(std::filesystem::exists(target));
            continue;
        }
        EXPECT_EQ(number_in(target), 140u) << place;
        std::filesystem::remove_all(target);
    }
    EXPECT_GT(told, 80u);
}

TEST_F(backups, are_not_needed_to_read_beside_a_writer) {
    make().reset();
    const pid_t writer = fork();
    if (writer == 0) {
        const handle_ptr own = open(path);
        for (std::uint64_t number = 1;; ++number) {
            work(own, number);
            if (number % 50 == 0) loom_database_sync(own);
        }
    }
    std::uint64_t last = 0;
    for (int i = 0; i < 50; ++i) {
        const handle_ptr handle = open(path, LOOM_OPEN_READ_ONLY);
        const std::uint64_t number = number_read(handle);
        EXPECT_GE(number, last);
        last = number;
    }
    EXPECT_GT(last, 0u);
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);

    const handle_ptr handle = open(path, LOOM_OPEN_READ_ONLY), again = open(path, LOOM_OPEN_READ_ONLY);
    EXPECT_EQ(loom_write_begin(handle), std::uint32_t{EROFS});
    EXPECT_EQ(loom_read_begin(handle), 0u);
    EXPECT_NE(handle->alloc(handle->alloc_ctx, 1, 100), nullptr);
    EXPECT_EQ(loom_read_end(handle), 0u);
    EXPECT_EQ(loom_database_sync(handle), 0u);
    EXPECT_EQ(loom_backup(handle, directory.file("of-a-snapshot").c_str(), LOOM_BACKUP_ALL, nullptr), 0u);
    EXPECT_FALSE(loom_open_mapped(path.c_str(), 0));
    EXPECT_NE(std::string(loom_error_text()).find("reading only in this process"), std::string::npos);
}

/// Processes on other machines would not see each other's stores.
TEST_F(backups, and_databases_are_not_kept_where_memory_is_not_shared) {
    make().reset();
    loom_disk_observe([](const loom_disk_operation* operation,
                         void*) { return operation->kind == LOOM_DISK_FILE_SYSTEM ? 0x6969 : 0; },
                      nullptr);
    EXPECT_FALSE(loom_open_mapped(path.c_str(), 0));
    EXPECT_NE(std::string(loom_error_text()).find("of the kind NFS"), std::string::npos);
    loom_disk_observe(nullptr, nullptr);
}

/// What is committed outlives an image of which pages are gone, and who used it is told.
TEST_F(backups, are_not_needed_when_pages_of_the_image_are_lost) {
    make().reset();
    const auto lose_pages = [&] {
        const handle_ptr handle = open(path);
        work(handle, 1);
        std::filesystem::resize_file(path + "/image", 4096);
        work(handle, 2);
    };
    EXPECT_EXIT(lose_pages(), testing::KilledBySignal(SIGBUS),
                "first.db: a page of its image cannot be read: .*; what is committed is kept");
    const pid_t user = fork();
    if (user == 0) lose_pages();
    waitpid(user, nullptr, 0);
    EXPECT_EQ(number_in(path), 1u);
    for (const std::uint64_t size : {4096, 0}) {
        std::filesystem::resize_file(path + "/image", size);
        EXPECT_EQ(number_in(path), size ? 2u : 3u); // it has gone on
    }
}
} // namespace
