// loom: databases, tables, records, bundles and traces on the command line. Here: the list of commands, their
// help, and how failures are told. What commands do stands in *_commands.cpp.
#include "commands.h"
#include "failure.h"
#include "interruption.h"
#include "trace_lines.h"
#include "whole_file.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <optional>
#include <span>

namespace tool {
namespace {

struct command {
    std::string_view name;
    std::string_view operands = {};
    std::string_view summary;
    std::size_t fewest = 0; // operands
    std::size_t most = 0;
    std::vector<option> options = {};
    int (*run)(context&);
};

constexpr std::size_t any_number = static_cast<std::size_t>(-1);
const option tenant{"--tenant", "N", "work on the records of tenant N (default 0)"};
const option source{"--src", "N", "take records of source N (default 1)"};
const option nearest{"--nearest", "", "or else the next one behind it"};
const option largest{"--largest", "MIB", "take no more at once from the other side (default 16 MiB)"};
const option patience{"--patience", "SECONDS",
                      "wait so long for each step of the other side (default 30; 0: for ever)"};
const option as_text{"--text", "", "as text"};
const option as_xml{"--xml", "", "as XML"};

const option snapshot{"--read-only", "", "as it is now, without a lock and without touching its files"};

/// Known to all commands.
const option common_options[] = {
    {"--bundle", "NAME|FILE", "load this bundle; without it, those that the data needs or all in the search path"},
    {"--bundle-path", "DIR", "look for bundles here first (also: LOOM_BUNDLE_PATH, directories joined by ':')"},
    {"--trace", "FILE", "write what is traced meanwhile into this file; 'loom trace' prints it"},
};

const std::vector<command>& commands() {
    static const std::vector<command> all = {
        {.name = "create",
         .operands = "DB",
         .summary = "make an empty database",
         .fewest = 1,
         .most = 1,
         .options = {{"--room", "MIB", "the most it can ever hold, in MiB (default 4096)"},
                     {"--durability", "LEVEL",
                      "volatile, ordered or durable (default): what outlives the machine"},
                     {"--mode", "DIGITS", "access rights of its files, in octal digits (default: by the umask)"}},
         .run = create_database},
        {.name = "backup",
         .operands = "DB FILE",
         .summary = "write a backup into a new file, while others go on",
         .fewest = 2,
         .most = 2,
         .options = {{"--since", "N", "only what has changed since commit N, to go behind another backup"}},
         .run = back_up_database},
        {.name = "restore",
         .operands = "FILE... DB",
         .summary = "make a database of a backup, and of those since it",
         .fewest = 2,
         .most = any_number,
         .options = {{"--commit", "N", "as it was behind commit N (default: the latest)"},
                     {"--keep-identity", "", "it takes the place of the lost one (default: one of its own)"},
                     {"--mode", "DIGITS", "access rights of its files, in octal digits (default: as they were)"}},
         .run = restore_database},
        {.name = "import",
         .operands = "DB FILE...",
         .summary = "put records from XML files into tables; all of them or none",
         .fewest = 2,
         .most = any_number,
         .run = import_file},
        {.name = "export",
         .operands = "DB [TABLE]",
         .summary = "write records as XML, in the form that import reads",
         .fewest = 1,
         .most = 2,
         .options = {{"--output", "FILE", "into this file instead of the standard output"}, snapshot},
         .run = export_tables},
        {.name = "tables",
         .operands = "DB",
         .summary = "list the tables",
         .fewest = 1,
         .most = 1,
         .options = {snapshot},
         .run = list_tables},
        {.name = "walk",
         .operands = "DB TABLE",
         .summary = "list the records in the order of their keys",
         .fewest = 2,
         .most = 2,
         .options = {{"--src", "N", "only those of source N (default: all)"}, tenant, as_text, as_xml, snapshot},
         .run = walk_table},
        {.name = "find",
         .operands = "DB TABLE ATTRIBUTE=VALUE...",
         .summary = "find a record by its key",
         .fewest = 3,
         .most = any_number,
         .options = {nearest, source, tenant, snapshot},
         .run = find_record},
        {.name = "show",
         .operands = "DB TABLE ATTRIBUTE=VALUE...",
         .summary = "show a record by its key, as text unless told otherwise",
         .fewest = 3,
         .most = any_number,
         .options = {as_text,
                     as_xml,
                     {"--bytes", "", "as annotated bytes of its binary form"},
                     {"--schema", "FILE", "the schema as 'trellisc json' prints it (default: beside the bundle)"},
                     nearest,
                     source,
                     tenant,
                     snapshot},
         .run = show_record},
        {.name = "compare",
         .operands = "DB DB",
         .summary = "tell whether two databases hold equal records; status 1 when not",
         .fewest = 2,
         .most = 2,
         .options = {snapshot},
         .run = compare_databases},
        {.name = "verify",
         .operands = "DB",
         .summary = "look for damage; status 1 when there is some",
         .fewest = 1,
         .most = 1,
         .options = {{"--deep", "", "also compare the image with what base and journal hold together"},
                     {"--reclaim", "", "give back blocks that are reached from nowhere; nobody else may use it"},
                     snapshot},
         .run = verify_database},
        {.name = "salvage",
         .operands = "DB NEW",
         .summary = "make a new database of what can be read of a damaged one; status 1 when something is lost",
         .fewest = 2,
         .most = 2,
         .run = salvage_database},
        {.name = "send",
         .operands = "DB TABLE [ATTRIBUTE=VALUE...]",
         .summary = "send a record, or all of a table, to another process",
         .fewest = 2,
         .most = any_number,
         .options = {{"--socket", "PATH", "to the 'loom receive' that listens there"},
                     {"--exec", "COMMAND...",
                      "to a command that gets one end of a socket pair as its standard input"},
                     largest,
                     patience},
         .run = send_records},
        {.name = "receive",
         .summary = "print records that another process sends",
         .options = {{"--socket", "PATH", "listen there (default: the standard input is the socket)"},
                     as_text,
                     as_xml,
                     {"--into", "DB", "put them into this database instead"},
                     largest,
                     patience},
         .run = receive_records},
        {.name = "bundles", .summary = "list the bundles", .run = list_bundles},
        {.name = "types",
         .operands = "[BUNDLE...]",
         .summary = "list the types of bundles with their luids, sizes and variants",
         .most = any_number,
         .options = {{"--kind", "KIND", "only records, enumerations, tables, ..."}},
         .run = list_types},
        {.name = "trace",
         .operands = "FILE",
         .summary = "print a trace file, with the texts out of the bundles",
         .fewest = 1,
         .most = 1,
         .run = decode_trace},
    };
    return all;
}

void print_overview(std::ostream& out) {
    out << "loom: databases of typed records, on the command line\n\n";
    for (const command& each : commands()) {
        const std::string synopsis = std::string(each.name) + " " + std::string(each.operands);
        out << "  loom " << std::left << std::setw(36) << synopsis << each.summary << '\n';
    }
    out << "\n'loom help COMMAND' tells the options of a command, 'loom --version' the version.\n"
           "Status: 0 done, 1 it does not hold or could not be done, 2 wrong usage.\n";
}

void print_options(std::ostream& out, std::span<const option> options) {
    for (const option& each : options) {
        const std::string synopsis =
            std::string(each.name) + (each.value.empty() ? "" : " " + std::string(each.value));
        out << "  " << std::left << std::setw(24) << synopsis << each.help << '\n';
    }
}

void print_help(std::ostream& out, const command& wanted) {
    out << "loom " << wanted.name << (wanted.operands.empty() ? "" : " ") << wanted.operands << "\n  "
        << wanted.summary << "\n\n";
    print_options(out, wanted.options);
    print_options(out, common_options);
}

const command& command_named(const std::string& name) {
    const auto found = std::ranges::find(commands(), name, &command::name);
    if (found == commands().end())
        throw usage_failure("there is no command '" + name + "'", "'loom help' lists the commands");
    return *found;
}

/// A record is shown in one form, or kept.
void check_forms(const arguments& line) {
    std::string_view given;
    for (const std::string_view form : {"--text", "--xml", "--bytes", "--into"}) {
        if (!line.has(form)) continue;
        if (!given.empty())
            throw usage_failure("options " + std::string(given) + " and " + std::string(form) +
                                    " exclude each other",
                                "take one of them");
        given = form;
    }
}

int run(const command& wanted, std::span<const std::string> words) {
    std::vector<option> known = wanted.options;
    known.insert(known.end(), std::begin(common_options), std::end(common_options));
    const std::string cure = "usage: loom " + std::string(wanted.name) + " " + std::string(wanted.operands);
    const arguments line(words, known, "'loom help " + std::string(wanted.name) + "' lists the options");
    check_forms(line);
    if (line.positional().size() < wanted.fewest) throw usage_failure("there is something missing", cure);
    if (line.positional().size() > wanted.most)
        throw usage_failure("'" + line[wanted.most] + "' is too much", cure);
    std::optional<trace_recording> recording;
    if (const auto path = line.value("--trace")) {
        refuse_part_of_database(*path);
        recording.emplace(*path);
    }
    bundles loaded(line);
    context c{line, loaded};
    return wanted.run(c);
}

int dispatch(std::span<const std::string> words) {
    if (words.empty()) {
        print_overview(std::cerr);
        return exit_usage;
    }
    if (words[0] == "help" || words[0] == "--help" || words[0] == "-h") {
        if (words.size() > 1 && words[1] != "help")
            print_help(std::cout, command_named(words[1]));
        else
            print_overview(std::cout);
        return exit_good;
    }
    if (words[0] == "--version") {
        std::cout << "loom " LOOM_VERSION "\n";
        return exit_good;
    }
    const command& wanted = command_named(words[0]);
    if (std::ranges::find(words, "--help") != words.end()) {
        print_help(std::cout, wanted);
        return exit_good;
    }
    return run(wanted, words.subspan(1));
}

void report(const std::exception& error, const std::string& cure) {
    std::cout.flush();
    std::cerr << "loom: " << error.what() << '\n';
    if (!cure.empty()) std::cerr << "loom: cure: " << cure << '\n';
}

} // namespace
} // namespace tool

int main(int count, char** words) {
    tool::handle_interruptions();
    try {
        const std::vector<std::string> all(words + 1, words + count);
        const int status = tool::dispatch(all);
        if (!std::cout.flush()) throw tool::failure("the output cannot be written");
        return status;
    } catch (const tool::usage_failure& error) {
        tool::report(error, error.cure());
        return tool::exit_usage;
    } catch (const tool::failure& error) {
        tool::report(error, error.cure());
    } catch (const std::exception& error) {
        tool::report(error, {});
    }
    tool::end_as_interrupted();
    return tool::exit_failed;
}
