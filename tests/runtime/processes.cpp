// Tests with more than one process: this program starts itself again as a child. Also the main function.
#include "tests/runtime/crash.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace runtime_test {

child_process::child_process(const std::vector<std::string>& arguments) {
    int to_child[2], from_child[2];
    if (pipe2(to_child, O_CLOEXEC) != 0 || pipe2(from_child, O_CLOEXEC) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, to_child[0], 0);
    posix_spawn_file_actions_adddup2(&actions, from_child[1], 1);
    std::vector<std::string> all = {"/proc/self/exe", "--child"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (std::string& each : all)
        pointers.push_back(each.data());
    pointers.push_back(nullptr);
    const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
    if (posix_spawn(&process_, program.c_str(), &actions, nullptr, pointers.data(), environ) != 0) std::abort();
    posix_spawn_file_actions_destroy(&actions);
    close(to_child[0]);
    close(from_child[1]);
    input_ = to_child[1];
    output_ = from_child[0];
}

child_process::~child_process() {
    if (process_ > 0) {
        kill(process_, SIGKILL);
        wait();
    }
    close(input_);
    close(output_);
}

std::string child_process::line() {
    std::string text;
    for (char character; read(output_, &character, 1) == 1 && character != '\n';)
        text += character;
    return text;
}

void child_process::say(const std::string& text) {
    const std::string line = text + "\n";
    EXPECT_EQ(write(input_, line.data(), line.size()), static_cast<long>(line.size()));
}

int child_process::wait() {
    int status = 0;
    waitpid(process_, &status, 0);
    process_ = -1;
    return status;
}

namespace {
void say(const std::string& text) {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}
void wait_for_parent() { static_cast<void>(!std::getc(stdin)); }

/// Changes much of everything inside a section that never ends.
void change_a_lot(loom_handle* handle) {
    std::uint32_t err = 0;
    for (std::size_t i = 0; i < 100; ++i)
        set_cell(handle, i, 0xDEAD);
    loom_table* table = fake_table_open(handle, 1, "left/behind", &err);
    for (std::uint32_t key = 0; key < 2000; ++key)
        fake_table_add(handle, 1, table, key, &err);
    loom_table* old = fake_table_open(handle, 1, "old/table", &err);
    for (std::uint32_t key = 0; key < 500; ++key)
        fake_table_add(handle, 1, old, 1000 + key, &err);
    std::vector<void*> blocks;
    for (std::size_t i = 1; i < 300; ++i)
        blocks.push_back(handle->alloc(handle->alloc_ctx, 1, i * 37));
    for (std::size_t i = 0; i < blocks.size(); i += 2)
        handle->free(handle->alloc_ctx, 1, blocks[i]);
    handle->free(handle->alloc_ctx, 1, arbor_get_key(handle->alloc_ctx, "spare"));
}
/// Sections that keep four sums: cells 0 to 49 together, the blocks and the records that cells 50 and 51 count.
[[noreturn]] void work_for_ever(loom_handle* handle) {
    random_source random(static_cast<std::uint32_t>(getpid()));
    std::uint32_t err = 0;
    std::vector<void*> mine;
    for (;;) {
        loom_write_begin(handle);
        const std::vector<void*> before = mine;
        for (int step = 0; step < 20; ++step) {
            const std::size_t from = random() % 50, to = random() % 50;
            set_cell(handle, from, cells_of(handle)[from] - 7);
            set_cell(handle, to, cells_of(handle)[to] + 7);
            if (mine.size() > 40 || (!mine.empty() && random() % 3 == 0)) {
                handle->free(handle->alloc_ctx, 1, mine.back());
                mine.pop_back();
                set_cell(handle, 50, cells_of(handle)[50] - 1);
            } else {
                const std::size_t size = random() % 3000;
                mine.push_back(handle->alloc(handle->alloc_ctx, 1, size));
                std::memset(mine.back(), 0xAA, size);
                set_cell(handle, 50, cells_of(handle)[50] + 1);
            }
        }
        loom_table* table = fake_table_open(handle, 1, "old/table", &err);
        if (fake_table_add(handle, 1, table, random(), &err)) set_cell(handle, 51, cells_of(handle)[51] + 1);
        err = 0;
        if (random() % 4 == 0) {
            loom_write_abort(handle);
            mine = before;
        } else {
            loom_write_commit(handle);
        }
    }
}
} // namespace

int run_child(const std::vector<std::string>& arguments) {
    const std::string& operation = arguments[0];
    if (operation == "crash") return crash_main(arguments);
    if (operation == "flips") return flips_main(arguments);
    if (operation == "check_wrecks") return check_wrecks();
    handle_ptr handle(loom_open_mapped(arguments[1].c_str(), 0));
    if (!handle) {
        say(loom_error_text());
        return 2;
    }
    if (operation == "count") {
        for (int i = 0; i < 200; ++i) {
            if (loom_write_begin(handle)) return 3;
            const std::uint64_t value = cells_of(handle)[0];
            set_cell(handle, 1, 1); // the others must never see the two cells apart
            set_cell(handle, 0, value + 1);
            set_cell(handle, 1, 0);
            if (loom_write_commit(handle)) return 3;
        }
    } else if (operation == "die_in_work") {
        loom_write_begin(handle);
        for (std::size_t i = 0; i < 100; ++i)
            set_cell(handle, i, 0xDEAD);
        kill(getpid(), SIGKILL);
    } else if (operation == "die_in_section") {
        loom_write_begin(handle);
        change_a_lot(handle);
        kill(getpid(), SIGKILL);
    } else if (operation == "die_in_long_section") {
        loom_write_begin(handle);
        overwrite_large(handle, 12);
        kill(getpid(), SIGKILL);
    } else if (operation == "work_until_killed") {
        say("working");
        work_for_ever(handle);
    } else if (operation == "die_with_blocks") {
        // One of them is linked by another handle, which leads to a second one.
        const handle_ptr other = open_mapped(arguments[1], 0);
        std::array<void**, 40> blocks;
        for (void**& each : blocks)
            each = static_cast<void**>(handle->alloc(handle->alloc_ctx, 1, &each == &blocks[0] ? 3000 : 100));
        *blocks[0] = blocks[1];
        loom_write_begin(other);
        arbor_set_key(other->alloc_ctx, "linked", blocks[0]);
        loom_write_commit(other);
        kill(getpid(), SIGKILL);
    } else if (operation == "store_in_silence") {
        loom_write_begin(handle);
        set_cell(handle, 0, 1);
        cells_of(handle)[50] = 1;
        loom_write_commit(handle);
    } else if (operation == "die_reading") {
        loom_read_begin(handle);
        kill(getpid(), SIGKILL);
    } else if (operation == "hold_write") {
        loom_write_begin(handle);
        set_cell(handle, 0, 77);
        say("held");
        wait_for_parent();
        loom_write_commit(handle);
    } else if (operation == "hold_read") {
        loom_read_begin(handle);
        say(std::to_string(cells_of(handle)[0]));
        wait_for_parent();
        loom_read_end(handle);
    } else if (operation == "open") {
        say("open");
        wait_for_parent();
    } else if (operation == "grow") {
        loom_write_begin(handle);
        auto* block = static_cast<char*>(handle->alloc(handle->alloc_ctx, 1, 8u << 20));
        std::memset(block, 'g', 8u << 20);
        arbor_set_key(handle->alloc_ctx, "grown", block);
        loom_write_commit(handle);
        say("grown");
        wait_for_parent();
    } else {
        return 4;
    }
    return 0;
}

} // namespace runtime_test

int main(int count, char** arguments) {
    if (count > 2 && std::strcmp(arguments[1], "--child") == 0)
        return runtime_test::run_child(std::vector<std::string>(arguments + 2, arguments + count));
    testing::InitGoogleTest(&count, arguments);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    return RUN_ALL_TESTS();
}
