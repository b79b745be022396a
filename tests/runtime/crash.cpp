// The workload over the model of the disk, and the judgement of what a crash leaves.
#include "tests/runtime/crash.h"

#include "tests/runtime/disk_model.h"

#include <loom_runtime/backup.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace runtime_test {
namespace {
constexpr unsigned named_blocks = 6;

std::string name_of_block(std::uint64_t number) { return "block" + std::to_string(number % named_blocks); }

/// Mostly small; now and then the database grows, and what made it grow goes again.
std::size_t size_of_block(std::uint64_t number) {
    return 100 + number * 997 % (number % 25 == 0 ? 300000 : number % 7 == 0 ? 20000 : 1500);
}
} // namespace

handle_ptr open_for_work(const std::string& path, std::uint32_t level, std::uint32_t flags) {
    loom_open_options options{};
    options.size = sizeof options;
    options.kind = LOOM_DB_MAPPED;
    options.flags = flags;
    options.path = path.c_str();
    options.durability = level;
    options.journal_limit = 8 << 10;
    options.reserve = 64 << 20;
    return handle_ptr(loom_open(&options));
}

void make_cells(loom_handle* handle) {
    loom_write_begin(handle);
    auto* made = static_cast<std::uint64_t*>(handle->alloc(handle->alloc_ctx, 1, cells * 8));
    std::memset(made, 0, cells * 8);
    arbor_set_key(handle->alloc_ctx, "cells", made);
    loom_write_commit(handle);
}

std::uint64_t number_of(loom_handle* handle) {
    const std::uint64_t* all = cells_of(handle);
    return all ? all[0] : 0;
}

std::uint64_t digest_of(loom_handle* handle) {
    std::uint64_t digest = 14695981039346656037u;
    loom_arena_each_block(
        handle,
        [](void* block, std::uint64_t size, std::uint32_t, void* context) {
            auto& sum = *static_cast<std::uint64_t*>(context);
            const auto add = [&](std::uint64_t word) { sum = (sum ^ word) * 1099511628211u + (sum >> 47); };
            add(reinterpret_cast<std::uintptr_t>(block) & 0xFFFFFFFF);
            for (std::uint64_t i = 0; i + 8 <= size; i += 8) {
                std::uint64_t word;
                std::memcpy(&word, static_cast<const char*>(block) + i, 8);
                add(word);
            }
        },
        &digest);
    return digest;
}

std::uint32_t work(loom_handle* handle, std::uint64_t number, std::uint64_t* digest) {
    void* outside = nullptr;
    const std::size_t size = size_of_block(number);
    if (number % 5 == 0) {
        outside = handle->alloc(handle->alloc_ctx, 1, size);
        if (outside) std::memset(outside, static_cast<int>(number), size);
    }
    if (const std::uint32_t error = loom_write_begin(handle)) {
        if (outside) handle->free(handle->alloc_ctx, 1, outside);
        return error;
    }
    if (!cells_of(handle)) {
        auto* made = static_cast<std::uint64_t*>(handle->alloc(handle->alloc_ctx, 1, cells * 8));
        std::memset(made, 0, cells * 8);
        arbor_set_key(handle->alloc_ctx, "cells", made);
    }
    set_cell(handle, 0, number);
    for (std::size_t i = 1; i < 6; ++i)
        set_cell(handle, 1 + (number * 7 + i) % (cells - 2), number);
    const std::string name = name_of_block(number);
    if (void* old = arbor_get_key(handle->alloc_ctx, name.c_str())) handle->free(handle->alloc_ctx, 1, old);
    void* fresh = outside;
    if (!fresh && number % 3 != 0) {
        fresh = handle->alloc(handle->alloc_ctx, 1, size);
        if (fresh) std::memset(fresh, static_cast<int>(number), size);
    }
    arbor_set_key(handle->alloc_ctx, name.c_str(), fresh);
    if (digest) *digest = digest_of(handle);
    const std::uint32_t error = loom_write_commit(handle);
    if (error && outside) handle->free(handle->alloc_ctx, 1, outside);
    return error;
}

// ------------------------------------------------------------------------------------------------- judgement

namespace {
/// What was found where a machine went down.
struct finding {
    bool is_database = false;
    std::uint64_t number = 0;
    std::uint64_t digest = 0;
    unsigned repeated = 0; ///< recoveries of this one that were cut off
    std::string fault;     ///< what was wrong, or why it is no database
    bool is_wrong = false;
};

finding wrong(const std::string& what) {
    finding found;
    found.is_wrong = true;
    found.fault = what;
    return found;
}

/// Opens a wreck. The machine goes down once more meanwhile; what that leaves must lead to the same.
finding look_at(const std::string& path, random_source& random, unsigned depth = 0) {
    finding found;
    std::string again;
    {
        disk_model model(path);
        unsigned calls_left = depth < 3 ? random() % 24 : ~0u;
        model.before_each = [&](disk_model& disk, const loom_disk_operation&) {
            if (calls_left != ~0u && calls_left-- == 0 && disk.crash_into(path + "r", random)) again = path + "r";
            return 0;
        };
        handle_ptr handle = open_for_work(path, LOOM_DURABILITY_DEFAULT, 0);
        calls_left = ~0u;
        if (!handle) {
            found.fault = loom_error_text();
            return found;
        }
        found.is_database = true;
        if (loom_arena_verify(handle) != 0) return wrong(loom_error_text());
        found.number = number_of(handle);
        found.digest = digest_of(handle);
        // It goes on from there, and the next one finds what was made of it.
        std::uint64_t next = 0;
        if (work(handle, 1'000'000, &next) != 0) return wrong(std::string("goes on: ") + loom_error_text());
        handle.reset();
        handle = open_for_work(path, LOOM_DURABILITY_DEFAULT, 0);
        if (!handle || digest_of(handle) != next)
            return wrong(std::string("not found again: ") + loom_error_text());
    }
    if (again.empty()) return found;
    const finding second = look_at(again, random, depth + 1);
    std::filesystem::remove_all(again);
    found.repeated = 1 + second.repeated;
    if (second.is_wrong) return second;
    if (!second.is_database && second.fault.find("is volatile") != std::string::npos) return found;
    if (!second.is_database || second.number != found.number || second.digest != found.digest)
        return wrong("a recovery that was cut off and done again gives something else: " + second.fault);
    return found;
}
} // namespace

int check_wrecks() {
    setenv("LOOM_CHECK_COMMITS", "1", 1);
    random_source random(static_cast<std::uint32_t>(getpid()));
    for (std::string path; std::getline(std::cin, path);) {
        alarm(60); // who hangs dies
        const finding found = look_at(path, random);
        std::string fault = found.fault;
        std::replace(fault.begin(), fault.end(), '\n', ' ');
        std::cout << (found.is_wrong      ? "wrong"
                      : found.is_database ? "found"
                                          : "none")
                  << ' ' << found.number << ' ' << found.digest << ' ' << found.repeated << ' ' << fault
                  << std::endl;
    }
    return 0;
}

namespace {
// --------------------------------------------------------------------------------------------------- running

/// The process that looks at wrecks; a new one when it dies, which is a fault.
class examiner {
  public:
    finding look(const std::string& path) {
        if (!child_) child_ = std::make_unique<child_process>(std::vector<std::string>{"check_wrecks", ""});
        child_->say(path);
        std::istringstream answer(child_->line());
        std::string kind;
        finding found;
        answer >> kind >> found.number >> found.digest >> found.repeated;
        std::getline(answer, found.fault);
        found.is_database = kind == "found";
        found.is_wrong = kind == "wrong" || kind.empty();
        if (kind.empty()) {
            child_.reset();
            found.fault = "the process that opened it died";
        }
        return found;
    }

  private:
    std::unique_ptr<child_process> child_;
};

/// One life of a database, from its making on.
class crash_run {
  public:
    crash_run(const crash_plan& plan, crash_counts& counts, examiner& judge)
        : level_(plan.level), random_(plan.seed), counts_(counts), examiner_(judge) {}

    std::uint64_t most_cuts = ~std::uint64_t{0};
    unsigned one_cut_of = 1; ///< calls
    std::uint64_t failing_call = ~std::uint64_t{0};
    int failure = EIO;
    std::uint64_t calls = 0;

    void run(std::uint64_t commits, bool with_others);

  private:
    struct sample {
        finding found;
        std::uint64_t acknowledged, last;
        bool created, closed;
        std::string place;
    };
    int at_call(disk_model& disk, const loom_disk_operation& operation);
    void cut(disk_model& disk, const std::string& place);
    void open();
    void close();
    void commit(std::uint64_t number);
    void sync(loom_handle* handle);
    void work_beside();
    void look_at_backups();
    void judge(const sample& each);
    void complain(const std::string& what) { counts_.wrong.push_back(what); }

    std::uint32_t level_;
    random_source random_;
    crash_counts& counts_;
    examiner& examiner_;
    scratch_directory directory_;
    std::string path_ = directory_.file("model.db");
    handle_ptr handle_;
    std::map<std::uint64_t, std::set<std::uint64_t>> digests_; ///< of the states that a commit may have made
    std::vector<sample> samples_;
    std::vector<std::string> backups_;
    std::atomic<std::uint64_t> acknowledged_{0}, last_{0}, returned_{0}, failed_{0};
    std::uint64_t failed_before_opening_ = 0;
    std::atomic<bool> created_{false}, closed_{false}, done_{false};
};

void crash_run::cut(disk_model& disk, const std::string& place) {
    const std::string target = directory_.file("wreck");
    if (!disk.crash_into(target, random_)) std::filesystem::create_directory(target);
    ++counts_.cuts;
    samples_.push_back({examiner_.look(target), acknowledged_, last_, created_, closed_, place});
    counts_.repeated += samples_.back().found.repeated;
    std::filesystem::remove_all(target);
    std::filesystem::remove_all(target + "r");
}

int crash_run::at_call(disk_model& disk, const loom_disk_operation& operation) {
    static const char* const kinds[] = {"create", "write",  "resize",         "flush",
                                        "remove", "rename", "flush directory"};
    if (random_() % one_cut_of == 0 && counts_.cuts < most_cuts)
        cut(disk, "call " + std::to_string(calls) + ", before " + kinds[operation.kind] + " " + operation.name);
    if (calls++ != failing_call) return 0;
    ++counts_.failed;
    ++failed_;
    return failure;
}

/// A call that fails once is told; then the database can be opened, and nothing that was committed is missing.
void crash_run::open() {
    closed_ = false;
    failed_before_opening_ = failed_;
    for (int tries = 0; tries < 2 && !handle_; ++tries) {
        handle_ = open_for_work(path_, level_);
        if (!handle_ && std::string(loom_error_text()).size() < 20) complain("an opening fails without a text");
    }
    if (!handle_) return complain(std::string("cannot be opened: ") + loom_error_text());
    created_ = true;
    const std::uint64_t found = number_of(handle_);
    if (found == 0) digests_[0].insert(digest_of(handle_));
    if (found < returned_ || found > last_ || !digests_[found].contains(digest_of(handle_)))
        complain("opened at commit " + std::to_string(found) + " of " + std::to_string(returned_));
}

void crash_run::close() {
    handle_.reset();
    // What has failed is on the disk only when the next opener has seen to it.
    if (failed_ != failed_before_opening_) return;
    acknowledged_ = returned_.load();
    closed_ = true;
}

void crash_run::sync(loom_handle* handle) {
    const std::uint64_t number = returned_;
    if (loom_database_sync(handle) == 0 && level_ != LOOM_DURABILITY_VOLATILE && number > acknowledged_)
        acknowledged_ = number;
}

void crash_run::commit(std::uint64_t number) {
    for (int tries = 0; tries < 3 && handle_; ++tries) {
        last_ = number;
        std::uint64_t digest = 0;
        const std::uint32_t error = work(handle_, number, &digest);
        digests_[number].insert(digest);
        if (error == 0) {
            returned_ = number;
            if (level_ == LOOM_DURABILITY_DURABLE) acknowledged_ = number;
            return;
        }
        if (std::string(loom_error_text()).size() < 20) complain("a commit fails without a text");
        if (std::string(loom_error_text()).find("nothing more is committed") == std::string::npos) continue;
        close();
        open();
        // It may have lasted all the same.
        if (handle_ && number_of(handle_) == number) return;
    }
    complain("commit " + std::to_string(number) + " cannot be made: " + loom_error_text());
}

/// Another thread: flushes, absorbs and backs up while commits go on.
void crash_run::work_beside() {
    random_source random(1);
    while (!done_) {
        const handle_ptr own = open_for_work(path_, level_, 0);
        if (!own) return complain(std::string("beside: ") + loom_error_text());
        for (int i = 0; i < 5 && !done_; ++i) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
            sync(own);
        }
        const std::string file = directory_.file("backup" + std::to_string(backups_.size()));
        if (level_ == LOOM_DURABILITY_VOLATILE || done_) continue;
        if (loom_backup(own, file.c_str(), LOOM_BACKUP_ALL, nullptr) == 0)
            backups_.push_back(file);
        else
            complain(std::string("backup: ") + loom_error_text());
    }
}

void crash_run::look_at_backups() {
    for (const std::string& file : backups_) {
        const std::string target = directory_.file("restored");
        const char* const name = file.c_str();
        loom_restore_options options{};
        options.size = sizeof options;
        options.files = &name;
        options.file_count = 1;
        options.path = target.c_str();
        options.commit = LOOM_BACKUP_ALL;
        if (loom_restore(&options, nullptr) != 0) {
            complain(std::string("restore: ") + loom_error_text());
            continue;
        }
        judge({examiner_.look(target), 0, last_, true, true, "a backup"});
        std::filesystem::remove_all(target);
        ++counts_.backups;
    }
}

void crash_run::judge(const sample& each) {
    const finding& found = each.found;
    const bool is_volatile = level_ == LOOM_DURABILITY_VOLATILE;
    std::string fault;
    if (found.is_wrong) {
        fault = found.fault;
    } else if (!found.is_database) {
        ++counts_.refused;
        const bool may_be = !each.created || (is_volatile && !each.closed);
        const bool tells_why = !each.created || found.fault.find("is volatile") != std::string::npos;
        if (!may_be || !tells_why) fault = "refused: " + found.fault;
    } else if (found.number > each.last || found.number < (is_volatile ? each.last : each.acknowledged)) {
        fault = "commit " + std::to_string(found.number) + " found";
    } else if (!digests_[found.number].contains(found.digest)) {
        fault = "commit " + std::to_string(found.number) + " found, but not what it has made";
    }
    if (!fault.empty())
        complain(each.place + ", of commits " + std::to_string(each.acknowledged) + " to " +
                 std::to_string(each.last) + ": " + fault);
}

void crash_run::run(std::uint64_t commits, bool with_others) {
    disk_model model(path_);
    model.before_each = [this](disk_model& disk, const loom_disk_operation& operation) {
        return at_call(disk, operation);
    };
    open();
    std::thread other;
    if (with_others && handle_) other = std::thread([this] { work_beside(); });
    for (std::uint64_t number = 1; number <= commits && handle_; ++number) {
        commit(number);
        if (!with_others && number % 7 == 0 && handle_) sync(handle_);
        if (with_others || number % 10 != 0) continue;
        close();
        cut(model, "closed");
        open();
    }
    done_ = true;
    if (other.joinable()) other.join();
    close();
    cut(model, "closed");
    model.before_each = nullptr;
    for (const sample& each : samples_)
        judge(each);
    // Without a crash nothing may be missing.
    judge({examiner_.look(path_), returned_, last_, true, true, "in the end"});
    look_at_backups();
}
} // namespace

crash_counts run_crashes(const crash_plan& plan) {
    crash_counts counts;
    examiner judge;
    crash_plan own = plan;
    const auto life = [&] {
        ++own.seed;
        return std::make_unique<crash_run>(own, counts, judge);
    };
    for (bool with_others = true; counts.cuts < plan.cuts && counts.wrong.empty(); with_others = !with_others) {
        const auto run = life();
        run->most_cuts = plan.cuts;
        if (plan.cuts < 200) run->one_cut_of = 12;
        run->run(120, with_others);
        counts.calls += run->calls;
    }
    std::uint64_t calls = 1;
    for (unsigned i = 0; i < plan.failures && counts.wrong.empty(); ++i) {
        const auto run = life();
        run->one_cut_of = 20;
        run->failing_call = own.seed * 7 % calls;
        run->failure = i % 2 ? EIO : ENOSPC;
        run->run(25, false);
        calls = std::max<std::uint64_t>(run->calls, 1);
    }
    return counts;
}

int crash_main(const std::vector<std::string>& arguments) {
    const char* const levels[] = {"", "volatile", "ordered", "durable"};
    crash_plan plan;
    for (std::uint32_t level = 1; level < 4; ++level)
        if (arguments.at(1) == levels[level]) plan.level = level;
    plan.cuts = static_cast<unsigned>(std::stoul(arguments.at(2)));
    plan.failures = static_cast<unsigned>(std::stoul(arguments.at(3)));
    plan.seed = static_cast<std::uint32_t>(std::stoul(arguments.at(4)));
    const crash_counts counts = run_crashes(plan);
    for (const std::string& each : counts.wrong)
        std::cout << "  " << each << '\n';
    std::cout << arguments[1] << ": " << counts.cuts << " cuts, " << counts.calls << " calls, " << counts.repeated
              << " recoveries cut off, " << counts.failed << " failed calls, " << counts.refused << " refused, "
              << counts.backups << " backups, " << counts.wrong.size() << " wrong" << std::endl;
    return counts.wrong.empty() ? 0 : 1;
}

namespace {
/// One of them is damaged in each round.
struct victim {
    const char* name;
    std::vector<std::string> files;
    bool has_open_section; ///< left by a process that died
};

void damage(const std::string& file, random_source& random) {
    const std::uint64_t size = std::filesystem::file_size(file);
    if (size == 0) return;
    // Most of a file may be room that was never written to.
    const std::uint64_t reach = random() % 2 ? size : std::min<std::uint64_t>(size, 32 << 10);
    const std::uint64_t place = (std::uint64_t{random()} << 20 ^ random()) % reach;
    if (random() % 5 == 0) return std::filesystem::resize_file(file, place);
    std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
    stream.seekg(static_cast<long>(place));
    const int byte = stream.get();
    stream.seekp(static_cast<long>(place));
    stream.put(static_cast<char>(byte ^ (1 << random() % 8)));
}

bool restores(const std::string& backup, const std::string& target, std::string& reason) {
    const char* const name = backup.c_str();
    loom_restore_options options{};
    options.size = sizeof options;
    options.files = &name;
    options.file_count = 1;
    options.path = target.c_str();
    options.commit = LOOM_BACKUP_ALL;
    if (loom_restore(&options, nullptr) == 0) return true;
    reason = loom_error_text();
    return false;
}
} // namespace

int flips_main(const std::vector<std::string>& arguments) {
    const unsigned rounds = static_cast<unsigned>(std::stoul(arguments.at(1)));
    random_source random(static_cast<std::uint32_t>(std::stoul(arguments.at(2))));
    const scratch_directory directory;
    const std::string path = directory.file("good.db"), copy = directory.file("copy.db"),
                      backup = directory.file("backup"), bad = directory.file("bad");
    std::uint64_t digest = 0;
    {
        const handle_ptr handle = open_for_work(path, LOOM_DURABILITY_DURABLE);
        for (std::uint64_t number = 1; number <= 60; ++number) {
            work(handle, number, &digest);
            if (number == 45) loom_database_sync(handle);
        }
        loom_backup(handle, backup.c_str(), LOOM_BACKUP_ALL, nullptr);
    }
    const victim victims[] = {{"base", {"base", "checksums"}, false},
                              {"journals", {"journal.0", "journal.1"}, false},
                              {"headers", {"superblock", "control"}, true},
                              {"undo log with an open section", {"undo"}, true},
                              {"backup", {}, false}};
    examiner judge;
    std::uint64_t all_wrong = 0;
    for (const victim& each : victims) {
        std::uint64_t told = 0, harmless = 0, wrong = 0;
        for (unsigned round = 0; round < rounds; ++round) {
            std::filesystem::remove_all(copy);
            finding found;
            bool is_there = true;
            if (each.files.empty()) {
                std::filesystem::copy_file(backup, bad, std::filesystem::copy_options::overwrite_existing);
                damage(bad, random);
                is_there = restores(bad, copy, found.fault);
            } else {
                std::filesystem::copy(path, copy);
                if (each.has_open_section) child_process({"die_in_work", copy}).wait();
                damage(copy + "/" + each.files[random() % each.files.size()], random);
            }
            if (is_there) found = judge.look(copy);
            std::filesystem::remove_all(copy + "r");
            if (!found.is_wrong && !found.is_database && found.fault.size() > 20) {
                ++told;
            } else if (found.is_database && found.number == 60 && found.digest == digest) {
                ++harmless;
            } else {
                ++wrong;
                std::cout << "  " << each.name << ", round " << round << ": " << found.fault << '\n';
            }
        }
        std::cout << each.name << ": " << rounds << " damaged, " << told << " told, " << harmless << " harmless, "
                  << wrong << " wrong, dead or hanging" << std::endl;
        all_wrong += wrong;
    }
    return all_wrong != 0;
}

} // namespace runtime_test
