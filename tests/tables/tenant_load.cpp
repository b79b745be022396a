// Three tenants work on two tables of a shared database, in processes that are killed at any moment:
//
//     tenant_load SECONDS
//
// In one table records are ended by request and collector, in the other by hand, often in another tenant's name.
// Counters must agree with the tree at every look, and in the end nothing may be left of any record.
#include <loom_runtime/arena.h>
#include <loom_runtime/runtime.h>
#include <loom_runtime/trace.h>

#include <table_forms/table_forms.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {
using u32 = std::uint32_t;
using u64 = std::uint64_t;

constexpr u32 domain = 1;
constexpr std::uint16_t tenants = 3;
constexpr std::uint8_t sources[] = {1, 2, 255};

void must(bool holds, const std::string& what) {
    if (holds) return;
    std::fprintf(stderr, "tenant_load: %s; the runtime says: %s\n", what.c_str(), loom_error_text());
    std::exit(1);
}

loom_table* open_table(loom_handle* handle, bool collected) {
    u32 err = 0;
    loom_table* table = number_tbl_table_open(handle, domain, collected ? "collected" : "by hand", 0, &err);
    must(table && err == 0, "a table cannot be opened");
    return table;
}

std::vector<number_tbl_table_record*> records_of(loom_table* table) {
    std::vector<number_tbl_table_record*> all;
    for (e_avl_node* node = e_avl_get_first(table->avl_root); node;
         node = e_avl_get_next(table->avl_root, node, nullptr))
        all.push_back(reinterpret_cast<number_tbl_table_record*>(reinterpret_cast<char*>(node) -
                                                                 offsetof(loom_table_record, avl_node)));
    return all;
}

/// One record is made, and taken in unless its place is taken.
void add_record(loom_handle* handle, loom_table* table, std::mt19937& random) {
    u32 err = 0;
    number_tbl_table_record* record = number_tbl_create_record_w_src(handle, domain, sources[random() % 3], &err);
    number_row* row = number_row_create(handle, domain);
    must(record && row, "there is no memory for a record");
    number_row_id_set_value(handle, domain, row, static_cast<u32>(random() % 100), &err);
    number_tbl_number_row_set_field(handle, domain, record, row);
    if (random() % 4 == 0) loom_set_tenant(static_cast<std::uint16_t>(random() % (tenants + 1)));
    number_tbl_insert(handle, domain, table, record, &err);
    const bool refused = err == LOOM_EEXIST;
    must(err == 0 || refused, "a record cannot be inserted");
    err = 0;
    if (refused) number_tbl_destroy_record(handle, domain, record, &err);
}

void end_record(loom_handle* handle, loom_table* table, number_tbl_table_record* record, bool collected) {
    u32 err = 0;
    if (collected)
        number_tbl_request_record_destroy(handle, domain, table, record, &err);
    else
        number_tbl_delete(handle, domain, table, record, &err);
    must(err == 0, "a record cannot be ended");
    if (!collected) number_tbl_destroy_record(handle, domain, record, &err);
    must(err == 0, "a record cannot be given up");
}

void collect(loom_handle* handle, loom_table* table) {
    must(loom_table_advance_read_cursor(handle, table, loom_table_write_cursor(handle, table)) == 0, "no cursor");
    must(loom_gc_run(handle, nullptr) == 0, "the collector cannot run");
}

/// Changes for ever; somebody kills this process.
[[noreturn]] void work(const char* path) {
    loom_handle* handle = loom_open_mapped(path, 0);
    must(handle, "a worker cannot open the database");
    loom_set_suppress_messages(handle, 1);
    handle->suppress_duplicate_trace = 1;
    loom_trace_set_level(nullptr, 0);
    std::mt19937 random(static_cast<u32>(getpid()));
    for (;;) {
        must(loom_write_begin(handle) == 0, "a section cannot be opened");
        const bool collected = random() % 2;
        loom_table* table = open_table(handle, collected);
        for (int step = 0; step < 6; ++step) {
            loom_set_tenant(static_cast<std::uint16_t>(1 + random() % tenants));
            const std::vector<number_tbl_table_record*> present = records_of(table);
            if (present.size() < 40 || random() % 2)
                add_record(handle, table, random);
            else
                end_record(handle, table, present[random() % present.size()], collected);
        }
        if (collected && random() % 4 == 0) {
            loom_set_tenant(static_cast<std::uint16_t>(random() % 7));
            collect(handle, table);
        }
        must((random() % 5 ? loom_write_commit : loom_write_abort)(handle) == 0, "a section cannot be ended");
    }
}

/// Counters against the tree; returns the number of records.
u64 check(loom_handle* handle, bool collected) {
    loom_table* table = open_table(handle, collected);
    std::array<std::array<u32, 256>, tenants + 1> counted{};
    u32 shadows = 0, pending = 0;
    const auto all = records_of(table);
    for (const number_tbl_table_record* each : all) {
        ++counted[each->loom_record.tenant_id][each->loom_record.src];
        shadows += each->loom_record.src == 255;
        pending += (each->loom_record.record_flags & REC_PENDING_DESTROY) != 0;
    }
    must(table->record_count == all.size(), "record_count is not that of the tree");
    must(table->shadow_count == shadows, "shadow_count is not that of the tree");
    must(table->pending_destroy_count == pending, "pending_destroy_count is not that of the tree");
    for (std::uint16_t tenant = 1; tenant <= tenants; ++tenant) {
        u32 sum = 0, count = 0;
        for (const std::uint8_t source : sources) {
            loomdb_get_tenant_counter(handle, domain, table, &count, tenant, &source);
            must(count == counted[tenant][source], "the count of a tenant's source is not that of the tree");
            sum += count;
        }
        loom_set_tenant(tenant);
        must(number_tbl_table_get_count(handle, domain, table) == sum, "a tenant's count is not that of the tree");
    }
    must(loom_arena_verify(handle) == 0, "the arena is not sound");
    return all.size();
}

u64 blocks_of(loom_handle* handle) {
    loom_arena_usage usage{};
    loom_arena_usage_get(handle, &usage);
    return usage.blocks;
}

/// Both tables are made and ended, with all that is in them.
void begin_tables(loom_handle* handle) {
    loom_write_begin(handle);
    must(loom_table_set_replication(handle, domain, open_table(handle, true), 1, 1) == 0, "no replication");
    open_table(handle, false);
    loom_write_commit(handle);
}
void end_tables(loom_handle* handle) {
    loom_write_begin(handle);
    for (const bool collected : {true, false}) {
        loom_table* table = open_table(handle, collected);
        for (number_tbl_table_record* each : records_of(table))
            end_record(handle, table, each, collected);
        if (collected) collect(handle, table);
        must(!table->avl_root && table->record_count == 0, "a record was not ended");
        u32 err = 0;
        number_tbl_request_table_free(handle, domain, table, &err);
        must(err == 0, "the free of a table cannot be requested");
    }
    loom_gc_result result{};
    must(loom_gc_run(handle, &result) == 0 && result.tables_freed == 2, "a table was not ended");
    loom_write_commit(handle);
}

pid_t start_worker(const std::string& path) {
    const pid_t process = fork();
    if (process == 0) {
        execl("/proc/self/exe", "tenant_load", "--work", path.c_str(), nullptr);
        _exit(127);
    }
    return process;
}
/// Kills the worker; one that has ended by itself has found a fault.
void kill_worker(pid_t process) {
    kill(process, SIGKILL);
    int status = 0;
    waitpid(process, &status, 0);
    must(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL, "a worker found a fault");
}

void run(double seconds, const std::string& path) {
    loom_handle* handle = loom_open_mapped(path.c_str(), LOOM_OPEN_CREATE);
    must(handle, "the database cannot be made");
    begin_tables(handle);
    end_tables(handle); // types and contents stay
    const u64 blocks = blocks_of(handle);
    begin_tables(handle);

    using clock = std::chrono::steady_clock;
    const auto end = clock::now() + std::chrono::duration<double>(seconds);
    std::mt19937 random(1);
    std::array<pid_t, 4> workers{};
    for (pid_t& each : workers)
        each = start_worker(path);
    u64 kills = 0, looks = 0, most = 0;
    while (clock::now() < end) {
        usleep(20000 + static_cast<u32>(random() % 60000));
        pid_t& victim = workers[random() % workers.size()];
        kill_worker(victim);
        victim = start_worker(path);
        ++kills;
        must(loom_write_begin(handle) == 0, "a section cannot be opened");
        most = std::max(most, check(handle, true) + check(handle, false));
        must(loom_write_commit(handle) == 0, "a section cannot be ended");
        ++looks;
    }
    for (const pid_t each : workers)
        kill_worker(each);
    end_tables(handle);
    must(blocks_of(handle) == blocks, "blocks of ended records are left: " + std::to_string(blocks_of(handle)) +
                                          " instead of " + std::to_string(blocks));
    must(most > 0, "no worker came to anything");
    loom_close(handle);
    std::printf("%.0f seconds, %llu kills, %llu looks at counters, at most %llu records, all of them ended\n",
                seconds, static_cast<unsigned long long>(kills), static_cast<unsigned long long>(looks),
                static_cast<unsigned long long>(most));
}
} // namespace

int main(int count, char** words) {
    if (count == 3 && std::string(words[1]) == "--work") work(words[2]);
    std::string directory = (std::filesystem::temp_directory_path() / "tenant-load-XXXXXX").string();
    must(mkdtemp(directory.data()), "no directory");
    run(count > 1 ? std::atof(words[1]) : 60, directory + "/load.db");
    std::filesystem::remove_all(directory);
}
