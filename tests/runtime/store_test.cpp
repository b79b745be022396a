// Databases behind a crash of the machine: a model of the disk follows a workload, forgets or tears what was not
// flushed at any point, and what is opened then must be what a commit has made. Also: copies of directories.
#include "tests/runtime/support.h"

#include "runtime/store/disk.h"

#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sys/wait.h>

namespace {
using namespace runtime_test;
using bytes = std::vector<char>;

/// What happened to a file, as far as it is not known to be on the disk.
struct change {
    std::uint64_t offset;
    bytes contents; ///< empty: a change of size, to `offset`
};
struct model_file {
    bytes durable;
    std::vector<change> pending;
};

void write_at(bytes& file, std::uint64_t offset, const char* contents, std::size_t size) {
    if (file.size() < offset + size) file.resize(offset + size);
    std::memcpy(file.data() + offset, contents, size);
}

/// The files of a directory as the disk has them, and what is on its way there.
class disk_model {
  public:
    explicit disk_model(std::string directory) : directory_(std::move(directory)) {
        for (const char* name : {"superblock", "base", "checksums", "journal.0", "journal.1"}) {
            std::ifstream stream(directory_ + "/" + name, std::ios::binary);
            files_[name].durable = {std::istreambuf_iterator<char>(stream), {}};
        }
        loom_disk_observe(&disk_model::see, this);
    }
    ~disk_model() { loom_disk_observe(nullptr, nullptr); }
    disk_model(const disk_model&) = delete;
    disk_model& operator=(const disk_model&) = delete;

    /// Called before every operation: here the machine may go down.
    std::function<void(disk_model&)> before_each;

    /// Writes into `target` what a machine that goes down now leaves of the files.
    void crash_into(const std::string& target, random_source& random) const {
        std::filesystem::create_directory(target);
        const unsigned manner = random() % 4;
        for (const auto& [name, file] : files_) {
            bytes contents = file.durable;
            for (const change& each : file.pending) {
                // Nothing, everything, or some of it, sector by sector and in any order.
                if (manner == 0 || (manner == 2 && random() % 2)) continue;
                if (each.contents.empty()) {
                    contents.resize(std::max<std::size_t>(contents.size(), each.offset));
                    continue;
                }
                for (std::size_t at = 0; at < each.contents.size();) {
                    const std::size_t end = std::min(each.contents.size(), at + 512 - (each.offset + at) % 512);
                    if (manner != 3 || random() % 2)
                        write_at(contents, each.offset + at, each.contents.data() + at, end - at);
                    at = end;
                }
            }
            std::ofstream(target + "/" + name, std::ios::binary)
                .write(contents.data(), static_cast<long>(contents.size()));
        }
    }

  private:
    static int see(const loom_disk_operation* operation, void* context) {
        auto& self = *static_cast<disk_model*>(context);
        const std::lock_guard guard(self.mutex_);
        if (self.directory_ != operation->directory) return 0;
        if (self.before_each) self.before_each(self);
        model_file& file = self.files_[operation->name];
        if (operation->kind == LOOM_DISK_RESIZE) file.pending.push_back({operation->offset, {}});
        if (operation->kind == LOOM_DISK_WRITE) {
            bytes contents;
            for (unsigned i = 0; i < operation->piece_count; ++i) {
                const auto* piece = static_cast<const char*>(operation->pieces[i].iov_base);
                contents.insert(contents.end(), piece, piece + operation->pieces[i].iov_len);
            }
            file.pending.push_back({operation->offset, std::move(contents)});
        }
        if (operation->kind == LOOM_DISK_FLUSH) {
            for (const change& each : file.pending)
                if (each.contents.empty())
                    file.durable.resize(std::max<std::size_t>(file.durable.size(), each.offset));
                else
                    write_at(file.durable, each.offset, each.contents.data(), each.contents.size());
            file.pending.clear();
        }
        return 0;
    }

    std::string directory_;
    std::map<std::string, model_file> files_;
    std::mutex mutex_;
};

handle_ptr open_durable(const std::string& path, std::uint32_t level) {
    loom_open_options options{};
    options.size = sizeof options;
    options.kind = LOOM_DB_MAPPED;
    options.flags = LOOM_OPEN_CREATE;
    options.path = path.c_str();
    options.durability = level;
    options.journal_limit = 8 << 10;
    options.reserve = 64 << 20;
    handle_ptr handle(loom_open(&options));
    EXPECT_TRUE(handle) << loom_error_text();
    return handle;
}

constexpr std::size_t cells = 100;
void make_cells(loom_handle* handle) {
    loom_write_begin(handle);
    auto* made = static_cast<std::uint64_t*>(handle->alloc(handle->alloc_ctx, 1, cells * 8));
    std::memset(made, 0, cells * 8);
    arbor_set_key(handle->alloc_ctx, "cells", made);
    loom_write_commit(handle);
}

/// The commit of that number: all cells tell of it, and a block comes or goes that is full of it. Nobody can reach
/// a block before its name is set, so every other one is made in front of the section.
void work(loom_handle* handle, std::uint64_t number) {
    const std::size_t size = 100 + number * 997 % (number % 50 == 0 ? 300000 : 3000);
    const auto block = [&] {
        return std::memset(handle->alloc(handle->alloc_ctx, 1, size), static_cast<int>(number), size);
    };
    void* old = arbor_get_key(handle->alloc_ctx, "block");
    void* fresh = !old && number % 4 == 1 ? block() : nullptr;
    ASSERT_EQ(loom_write_begin(handle), 0u) << loom_error_text();
    set_cell(handle, 0, number);
    for (std::size_t i = 1; i < 6; ++i)
        set_cell(handle, 1 + (number * 7 + i) % (cells - 2), number);
    if (!old && !fresh) fresh = block();
    arbor_set_key(handle->alloc_ctx, "block", fresh);
    if (old) handle->free(handle->alloc_ctx, 1, old);
    ASSERT_EQ(loom_write_commit(handle), 0u) << loom_error_text();
}

/// A digest of everything that the workload has made.
std::string state_of(loom_handle* handle) {
    std::string state;
    if (const std::uint64_t* all = cells_of(handle)) state.assign(reinterpret_cast<const char*>(all), cells * 8);
    if (const auto* block = static_cast<const char*>(arbor_get_key(handle->alloc_ctx, "block")))
        state.append(block, 100);
    return state;
}

class behind_a_crash : public testing::TestWithParam<std::uint32_t> {
  protected:
    /// Opens what a crash has left in another process's place, and tells the number of the commit that it holds.
    std::uint64_t number_found_in(const std::string& path) {
        const handle_ptr handle = open_durable(path, LOOM_DURABILITY_DEFAULT);
        if (!handle) return ~std::uint64_t{0};
        expect_sound(handle);
        const std::string state = state_of(handle);
        const std::uint64_t number = cells_of(handle)[0];
        EXPECT_EQ(state, states.at(number));
        // And it goes on from there.
        work(handle, 1'000'000);
        return number;
    }

    scratch_directory directory;
    std::map<std::uint64_t, std::string> states;
};

TEST_P(behind_a_crash, a_database_is_what_a_commit_has_made) {
    const std::string path = directory.file("model.db");
    random_source random(GetParam());
    struct wreck {
        std::string path;
        std::uint64_t acknowledged;
        std::uint64_t last;
    };
    std::vector<wreck> wrecks;
    {
        handle_ptr handle = open_durable(path, GetParam());
        make_cells(handle);
        states[0] = state_of(handle);
        ASSERT_EQ(loom_database_sync(handle), 0u);
        handle.reset();
        disk_model model(path);
        std::uint64_t acknowledged = 0, last = 0;
        model.before_each = [&](disk_model& disk) {
            if (random() % 8) return;
            wrecks.push_back({directory.file("wreck" + std::to_string(wrecks.size())), acknowledged, last});
            disk.crash_into(wrecks.back().path, random);
        };
        handle = open_durable(path, GetParam());
        for (std::uint64_t number = 1; number <= 300; ++number) {
            last = number;
            // What the commit will make is known before it is made: it may be on the disk before it returns.
            work(handle, number);
            states[number] = state_of(handle);
            if (GetParam() == LOOM_DURABILITY_DURABLE) acknowledged = number;
            if (number % 40 == 0) {
                ASSERT_EQ(loom_database_sync(handle), 0u) << loom_error_text();
                acknowledged = number;
            }
        }
    }
    ASSERT_GT(wrecks.size(), 30u);
    for (const wreck& each : wrecks) {
        SCOPED_TRACE(each.path);
        const std::uint64_t found = number_found_in(each.path);
        EXPECT_GE(found, each.acknowledged);
        EXPECT_LE(found, each.last);
        std::filesystem::remove_all(each.path);
    }
}
INSTANTIATE_TEST_SUITE_P(levels, behind_a_crash,
                         testing::Values(std::uint32_t{LOOM_DURABILITY_ORDERED},
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
