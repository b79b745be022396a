// Commands that move whole tables: import, export, compare.
#include "commands.h"
#include "failure.h"
#include "interruption.h"
#include "table_type.h"
#include "trace_lines.h"
#include "whole_file.h"
#include "xml_file.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tool {
namespace {

// ------------------------------------------------------------------------------------------------------- import

std::string place_of_element(const std::string& file, const record_element& element) {
    return file + ":" + std::to_string(element.line) + ": " + element.name;
}

/// A number out of an attribute of a record element, or `otherwise` when the attribute is not given.
template <class Number>
Number attribute_number(const std::string& text, Number otherwise, const std::string& place) {
    if (text.empty()) return otherwise;
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        throw failure(place + ": '" + text + "' is no number that can stand there",
                      "mend the attribute of the element");
    return number;
}

/// Puts the records of files into the tables of a database whose write section is open.
class importer {
  public:
    importer(const database& db) : handle_(db.handle()) {}

    void take(const std::string& file, const record_element& element) {
        check_interruption();
        const std::string place = place_of_element(file, element);
        const table_type& type = type_of(element, place);
        loom_table* table = table_of(type, element, place);
        loom_set_tenant(attribute_number<std::uint16_t>(element.tenant, 0, place));
        auto record = type.from_xml(handle_, element.text, place);
        check_nothing_lost(type, element, record.get(), place);
        record->src = attribute_number<std::uint8_t>(element.source, 1, place);
        insert(type, table, record, place);
        ++counts_[type.name()];
    }

    const std::map<std::string, unsigned>& counts() const { return counts_; }

  private:
    const table_type& type_of(const record_element& element, const std::string& place) {
        const auto known = types_.find(element.name);
        if (known != types_.end()) return known->second;
        std::optional<table_type> type = table_type::named(element.name, handle_);
        if (!type)
            throw failure(place + ": no loaded bundle has a table of this name",
                          "see the names with 'loom types --kind table', or name another bundle with --bundle");
        return types_.emplace(element.name, std::move(*type)).first->second;
    }

    loom_table* table_of(const table_type& type, const record_element& element, const std::string& place) {
        loom_table*& table = tables_[{element.name, element.instance, element.id}];
        if (!table)
            table = element.id.empty()
                        ? type.open(handle_, element.instance.empty() ? element.name : element.instance)
                        : type.open_by_id(handle_, attribute_number<std::uint64_t>(element.id, 0, place));
        return table;
    }

    /// A reader asks for what it knows and never sees the rest: a misspelt name, a member that does not exist or
    /// stands as text, an element too many for its array. Here they are faults.
    void check_nothing_lost(const table_type& type, const record_element& element, loom_table_record* record,
                            const std::string& place) {
        const std::vector<std::string> lost = losses(element.text, type.to_xml(handle_, record));
        if (lost.empty()) return;
        std::string message = place + ": " + lost.front();
        if (lost.size() > 1) message += ", and " + std::to_string(lost.size() - 1) + " more";
        throw failure(message, "hold the element against the schema of " + type.payload_type() +
                                   "; members stand as empty elements, counts are those of the elements");
    }

    void insert(const table_type& type, loom_table* table, table_type::owned_record& record,
                const std::string& place) {
        trace_watch watch;
        const std::uint32_t error = type.insert(handle_, table, record);
        if (error == 0) return;
        const std::string key = type.key_text(handle_, table, record.get());
        const std::string trace = watch.latest_line();
        throw failure(place + ": error " + error_number_text(error) +
                          (error == LOOM_EEXIST ? ": a record with this key is in the table already" : "") + ": " +
                          key + (trace.empty() ? "" : "\n  trace: " + trace),
                      "take the record out of the file, or import into another database; nothing was imported");
    }

    loom_handle* handle_;
    std::map<std::string, table_type> types_;
    std::map<std::tuple<std::string, std::string, std::string>, loom_table*> tables_;
    std::map<std::string, unsigned> counts_;
};

// ------------------------------------------------------------------------------------------------------- export

/// The opening tag's attributes: what no form of a record carries.
std::string place_attributes(const stored_table& table, const record_place& place) {
    std::string text;
    if (table.id)
        text += " id=\"" + std::to_string(*table.id) + "\"";
    else if (table.instance != table.type_name)
        text += " table=\"" + escaped(table.instance) + "\"";
    if (place.tenant != 0) text += " tenant=\"" + std::to_string(place.tenant) + "\"";
    if (place.source != 1) text += " src=\"" + std::to_string(place.source) + "\"";
    return text;
}

struct exported {
    unsigned records = 0;
    std::vector<std::string> incomplete; // keys of records that do not come back as they were
};

void export_table(std::ostream& out, context& c, const database& db, const stored_table& stored,
                  exported& result) {
    const table_type type = table_type::of(stored, db, c.loaded);
    for (loom_table_record* record : table_type::all_records(stored.table)) {
        check_interruption();
        const std::string element = type.to_xml(db.handle(), record);
        const auto read_back = type.draft_from_xml(element, "the XML of a record");
        if (!type.equal(record, read_back.get()))
            result.incomplete.push_back(stored.label() + " " + type.key_text(db.handle(), stored.table, record));
        const std::size_t name_end = 1 + type.name().size();
        write_indented(out,
                       element.substr(0, name_end) + place_attributes(stored, place_of(record)) +
                           element.substr(name_end),
                       1);
        ++result.records;
    }
}

exported export_all(std::ostream& out, context& c, const database& db, const std::vector<stored_table>& tables) {
    exported result;
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<database>\n";
    for (const stored_table& stored : tables)
        export_table(out, c, db, stored, result);
    out << "</database>\n";
    return result;
}

// ------------------------------------------------------------------------------------------------------ compare

/// What a record is found by in the other database.
using identity = std::tuple<std::uint16_t, std::string, std::uint8_t>;
using records_by_identity = std::map<identity, loom_table_record*>;

records_by_identity identified(const table_type& type, const database& db, const stored_table& stored) {
    records_by_identity result;
    for (loom_table_record* record : table_type::all_records(stored.table)) {
        check_interruption();
        const record_place place = place_of(record);
        result.emplace(identity{place.tenant, type.key_text(db.handle(), stored.table, record), place.source},
                       record);
    }
    return result;
}

/// Counts differences and prints the first of them.
class difference_report {
  public:
    void add(const std::string& text) {
        constexpr unsigned shown = 20;
        if (++count_ <= shown) std::cout << text << '\n';
        if (count_ == shown + 1) std::cout << "... and more\n";
    }
    unsigned count() const { return count_; }

  private:
    unsigned count_ = 0;
};

unsigned compare_tables(const table_type& type, const database& left, const stored_table& left_table,
                        const database& right, const std::string& right_path, const stored_table& right_table,
                        difference_report& report) {
    const records_by_identity left_records = identified(type, left, left_table);
    const records_by_identity right_records = identified(type, right, right_table);
    unsigned equal = 0;
    for (const auto& [id, record] : left_records) {
        check_interruption();
        const auto other = right_records.find(id);
        const std::string name = left_table.label() + " " + std::get<std::string>(id);
        if (other == right_records.end())
            report.add(name + ": only in " + left.path());
        else if (!type.equal(record, other->second))
            report.add(name + ": differs");
        else
            ++equal;
    }
    for (const auto& [id, record] : right_records)
        if (!left_records.contains(id))
            report.add(right_table.label() + " " + std::get<std::string>(id) + ": only in " + right_path);
    return equal;
}

/// Memory that is a file for other processes.
class memory_file {
  public:
    memory_file() : descriptor_(::memfd_create("loom", MFD_CLOEXEC)) {
        if (descriptor_ < 0) throw failure(std::string("no memory for a file: ") + std::strerror(errno));
    }
    ~memory_file() { ::close(descriptor_); }
    memory_file(const memory_file&) = delete;
    memory_file& operator=(const memory_file&) = delete;
    int descriptor() const { return descriptor_; }
    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

  private:
    int descriptor_;
};

/// Runs a program whose output goes to `output`; its wait status.
int status_of(const std::vector<std::string>& command, int output) {
    std::vector<char*> words;
    for (const std::string& word : command)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t process = 0;
    const int error = ::posix_spawn(&process, words[0], &actions, nullptr, words.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    int status = -1;
    while (error == 0 && ::waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

/// The other database of a comparison. Two files may want the same addresses; then the second one is opened by a
/// process of its own, whose export is read into memory.
class other_database {
  public:
    other_database(context& c, const std::string& path) {
        try {
            database_.emplace(database::open_for_reading(path, c.line.has("--read-only")));
        } catch (const failure& reason) {
            read_by_another_process(c, path, reason);
        }
    }

    const database& get() const { return *database_; }

  private:
    void read_by_another_process(context& c, const std::string& path, const failure& reason) {
        const memory_file xml;
        std::vector<std::string> command = {"/proc/self/exe", "export", path};
        for (const char* option : {"--bundle", "--bundle-path"})
            for (const std::string& value : c.line.values(option))
                command.insert(command.end(), {option, value});
        if (c.line.has("--read-only")) command.push_back("--read-only");
        if (status_of(command, xml.descriptor()) != 0) throw failure(reason);
        c.loaded.load_all();
        database_.emplace(database::in_memory());
        write_section writing(*database_);
        importer target(*database_);
        for (const record_element& element : read_record_elements(xml.path()))
            target.take(path, element);
        writing.commit();
        loom_set_tenant(0);
    }

    std::optional<database> database_;
};

bool same_database(const database& left, const database& right) {
    std::uint8_t a[16], b[16];
    loom_database_identity(left.handle(), a);
    loom_database_identity(right.handle(), b);
    return std::memcmp(a, b, sizeof a) == 0;
}

} // namespace

int import_file(context& c) {
    std::vector<std::pair<std::string, std::vector<record_element>>> files;
    for (const std::string& file : c.line.from(1)) {
        files.emplace_back(file, read_record_elements(file));
        if (files.back().second.empty())
            throw failure(file + ": holds no records",
                          "records are the elements directly inside the root element");
    }
    const database db = database::open(c.line[0]);
    c.loaded.load_all();

    write_section writing(db);
    importer target(db);
    for (const auto& [file, elements] : files)
        for (const record_element& element : elements)
            target.take(file, element);
    writing.commit();
    for (const auto& [table, count] : target.counts())
        std::cout << table << ": " << count << " records\n";
    return exit_good;
}

int export_tables(context& c) {
    const database db = database::open_for_reading(c.line[0], c.line.has("--read-only"));
    const read_section reading(db);
    std::vector<stored_table> tables;
    if (c.line.positional().size() > 1)
        tables.push_back(db.table(c.line[1]));
    else
        tables = db.tables();

    exported result;
    if (const auto path = c.line.value("--output")) {
        whole_file file(*path);
        result = export_all(file.stream(), c, db, tables);
        file.finish();
        std::cout << *path << ": " << result.records << " records of " << tables.size() << " tables\n";
    } else {
        result = export_all(std::cout, c, db, tables);
        if (!std::cout.flush()) throw failure("the output cannot be written");
    }
    for (const std::string& record : result.incomplete)
        std::cerr << "loom: " << record
                  << ": XML does not carry all of it (object references, values that no member has)\n";
    return exit_good;
}

int compare_databases(context& c) {
    const database left = database::open_for_reading(c.line[0], c.line.has("--read-only"));
    const other_database other_side(c, c.line[1]);
    const database& right = other_side.get();
    if (same_database(left, right)) {
        std::cout << "one and the same database\n";
        return exit_good;
    }
    const read_section reading_left(left), reading_right(right);
    const std::vector<stored_table> left_tables = left.tables(), right_tables = right.tables();
    const auto find = [](const std::vector<stored_table>& tables, const stored_table& wanted) {
        return std::ranges::find(tables, wanted.label(), &stored_table::label);
    };

    difference_report report;
    unsigned equal = 0;
    for (const stored_table& table : left_tables) {
        const auto other = find(right_tables, table);
        if (other == right_tables.end()) {
            report.add(table.label() + ": only in " + left.path());
            continue;
        }
        const table_type type = table_type::of(table, left, c.loaded);
        table_type::of(*other, right, c.loaded);
        equal += compare_tables(type, left, table, right, c.line[1], *other, report);
    }
    for (const stored_table& table : right_tables)
        if (find(left_tables, table) == left_tables.end()) report.add(table.label() + ": only in " + c.line[1]);

    if (report.count() == 0)
        std::cout << "equal: " << equal << " records of " << left_tables.size() << " tables\n";
    else
        std::cout << report.count() << " differences, " << equal << " records are equal\n";
    return report.count() == 0 ? exit_good : exit_failed;
}

} // namespace tool
