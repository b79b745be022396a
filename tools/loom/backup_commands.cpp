// Commands on whole databases: backup, restore.
#include "commands.h"
#include "database.h"
#include "failure.h"

#include <loom_runtime/backup.h>

#include <charconv>
#include <iostream>

namespace tool {
namespace {

/// A commit's number behind an option; all of them without it.
std::uint64_t wanted_commit(const arguments& line, std::string_view name) {
    const std::optional<std::string> digits = line.value(name);
    if (!digits) return LOOM_BACKUP_ALL;
    std::uint64_t number = 0;
    const char* const end = digits->data() + digits->size();
    const auto [rest, error] = std::from_chars(digits->data(), end, number);
    if (error != std::errc{} || rest != end)
        throw usage_failure(std::string(name) + " " + *digits + ": is no number of a commit",
                            "take one that 'loom backup' has printed");
    return number;
}

} // namespace

int back_up_database(context& c) {
    const database db = database::open(c.line[0]);
    const std::string& file = c.line[1];
    const std::uint64_t since = wanted_commit(c.line, "--since");
    loom_backup_report made{};
    if (loom_backup(db.handle(), file.c_str(), since, &made) != 0) throw runtime_failure();
    std::cout << file << ": ";
    if (since != LOOM_BACKUP_ALL) std::cout << "what has changed since commit " << since << ", ";
    if (made.first_commit == made.last_commit)
        std::cout << "commit " << made.last_commit;
    else
        std::cout << "commits " << made.first_commit << " to " << made.last_commit;
    std::cout << ", " << made.size << " bytes\n";
    return exit_good;
}

int restore_database(context& c) {
    const std::vector<std::string>& words = c.line.positional();
    std::vector<const char*> files;
    for (std::size_t i = 0; i + 1 < words.size(); ++i)
        files.push_back(words[i].c_str());
    loom_restore_options options{};
    options.size = sizeof options;
    options.path = words.back().c_str();
    options.files = files.data();
    options.file_count = static_cast<std::uint32_t>(files.size());
    options.commit = wanted_commit(c.line, "--commit");
    options.keep_identity = c.line.has("--keep-identity");
    options.mode = wanted_mode(c.line);
    loom_backup_report made{};
    if (loom_restore(&options, &made) != 0) throw runtime_failure();
    std::cout << words.back() << ": as of commit " << made.last_commit << '\n';
    return exit_good;
}

} // namespace tool
