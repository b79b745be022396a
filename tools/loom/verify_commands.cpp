// The commands that look through a database for damage, and save what can be read of a damaged one.
#include "commands.h"
#include "database.h"
#include "failure.h"

#include <loom_runtime/verify.h>

#include <filesystem>
#include <iostream>

namespace tool {
namespace {

std::string counted(std::uint64_t count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

void print_finding(const loom_finding* finding, void*) {
    const char* kind = finding->kind == LOOM_FINDING_DAMAGE ? "damaged"
                       : finding->kind == LOOM_FINDING_LOST ? "lost"
                                                            : "not checked";
    std::cout << kind << ": " << finding->place << ": " << finding->meaning << '\n';
}

std::string summary(const loom_verify_result& result) {
    std::string text = counted(result.records, "record", "records") + " of " +
                       counted(result.tables, "table", "tables") + ", " +
                       counted(result.blocks, "block", "blocks") + ", " + counted(result.pages, "page", "pages") +
                       ", " + counted(result.entries, "journal entry", "journal entries") + ": ";
    if (result.damaged == 0 && result.lost == 0 && result.unchecked == 0) return text + "sound";
    std::string parts;
    const auto add = [&](std::uint64_t count, const std::string& part) {
        if (count != 0) parts += (parts.empty() ? "" : ", ") + part;
    };
    add(result.damaged, counted(result.damaged, "damage", "damages"));
    add(result.lost_blocks, counted(result.lost_blocks, "lost block", "lost blocks") + " of " +
                                counted(result.lost_bytes, "byte", "bytes"));
    add(result.unchecked, counted(result.unchecked, "thing", "things") + " not checked");
    return text + (parts.empty() ? "counts are too high" : parts);
}

/// Opens it; one that cannot be opened is told by its files.
database opened(const context& c, bool alone) {
    const std::string& path = c.line[0];
    try {
        return alone ? database::open(path, LOOM_OPEN_EXCLUSIVE)
                     : database::open_for_reading(path, c.line.has("--read-only"));
    } catch (const failure&) {
        std::uint64_t damaged = 0;
        if (loom_database_verify_files(path.c_str(), print_finding, nullptr, &damaged) != 0 || damaged == 0) throw;
        throw failure(path + ": cannot be opened: " + counted(damaged, "damage", "damages"),
                      "restore it from a backup; 'loom salvage " + path + " NEW' saves what can be read");
    }
}

} // namespace

int verify_database(context& c) {
    const bool reclaims = c.line.has("--reclaim");
    const database db = opened(c, reclaims);
    try {
        // Nothing in the database can be trusted to tell which ones it needs.
        c.loaded.load_all();
    } catch (const failure& none) {
        std::cerr << "loom: " << none.what() << "; trees are not compared\n";
    }
    const std::uint32_t flags = (c.line.has("--deep") ? std::uint32_t{LOOM_VERIFY_DEEP} : 0) |
                                (reclaims ? std::uint32_t{LOOM_VERIFY_RECLAIM} : 0);
    loom_verify_result result{};
    if (loom_database_verify(db.handle(), flags, print_finding, nullptr, &result) != 0) throw runtime_failure();
    std::cout << db.path() << ": " << summary(result) << '\n';
    if (reclaims)
        std::cout << db.path() << ": " << counted(result.reclaimed_blocks, "block", "blocks") << " reclaimed\n";
    return result.damaged == 0 ? exit_good : exit_failed;
}

int salvage_database(context& c) {
    const std::string &damaged = c.line[0], &path = c.line[1];
    if (!std::filesystem::exists(damaged)) throw failure(damaged + ": there is no such database");
    if (std::filesystem::exists(path))
        throw failure(path + ": is there already", "remove it, or take another name");
    c.loaded.load_all();
    loom_salvage_result result{};
    if (loom_database_salvage(damaged.c_str(), path.c_str(), print_finding, nullptr, &result) != 0) {
        const failure reason = runtime_failure();
        std::filesystem::remove_all(path);
        throw reason;
    }
    std::cout << path << ": " << counted(result.records, "record", "records") << " of "
              << counted(result.tables, "table", "tables") << " salvaged";
    if (result.lost_records != 0)
        std::cout << ", " << counted(result.lost_records, "record", "records") << " lost";
    if (result.findings == 0) std::cout << ", nothing lost";
    std::cout << '\n';
    return result.findings == 0 ? exit_good : exit_failed;
}

} // namespace tool
