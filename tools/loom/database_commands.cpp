// Commands on one database: create, tables, walk, find, show.
#include "annotated_bytes.h"
#include "commands.h"
#include "failure.h"
#include "table_type.h"
#include "xml_file.h"

#include <iomanip>
#include <iostream>

namespace tool {
namespace {

/// A table of an open database and its type.
struct opened_table {
    stored_table stored;
    table_type type;
};

opened_table open_table(context& c, const database& db, const std::string& wanted) {
    const stored_table stored = db.table(wanted);
    return {stored, table_type::of(stored, db, c.loaded)};
}

/// The source of `--src`: 1 when it is not given, as everywhere.
std::uint8_t wanted_source(const arguments& line) {
    return static_cast<std::uint8_t>(line.number("--src", 255, 1));
}

/// The record whose key stands in the words behind database and table; throws failure when there is none.
loom_table_record* wanted_record(context& c, const database& db, const opened_table& table) {
    const std::span<const std::string> words = c.line.from(2);
    const auto key = table.type.key_record(db.handle(), table.stored.table, words);
    loom_table_record* found = table.type.search(db.handle(), table.stored.table, key.get(),
                                                 c.line.has("--nearest"), wanted_source(c.line));
    if (!found)
        throw failure(db.path() + ": " + table.stored.label() + " has no record with " +
                          table.type.key_text(db.handle(), table.stored.table, key.get()),
                      "list the keys with 'loom walk " + db.path() + " " + table.stored.label() + "'");
    return found;
}

/// The key, and the place where it is not the usual one.
void print_key(std::ostream& out, const opened_table& table, const database& db, loom_table_record* record) {
    out << table.type.key_text(db.handle(), table.stored.table, record);
    const record_place place = place_of(record);
    if (place.tenant != 0) out << "  (tenant " << place.tenant << ")";
    if (place.source == 255)
        out << "  (shadow)";
    else if (place.source != 1)
        out << "  (source " << unsigned{place.source} << ")";
    out << '\n';
}

/// The level of `--durability`; without it a commit lasts when the command ends.
std::uint32_t wanted_durability(const arguments& line) {
    const std::string level = line.value("--durability").value_or("durable");
    if (level == "volatile") return LOOM_DURABILITY_VOLATILE;
    if (level == "ordered") return LOOM_DURABILITY_ORDERED;
    if (level == "durable") return LOOM_DURABILITY_DURABLE;
    throw usage_failure("--durability " + level + ": is no level; take volatile, ordered or durable");
}

void select_tenant(const arguments& line) {
    loom_set_tenant(static_cast<std::uint16_t>(line.number("--tenant", 65535, 0)));
}

} // namespace

int create_database(context& c) {
    // Each database keeps its addresses to itself; small ones leave room for others in the same process.
    constexpr std::uint64_t mebibyte = 1024 * 1024;
    constexpr unsigned usual_room = 4096;
    const std::uint64_t room = c.line.number("--room", 1u << 31, usual_room) * mebibyte;
    const database db = database::create(c.line[0], room, wanted_durability(c.line), wanted_mode(c.line));
    std::cout << db.path() << ": an empty database\n";
    return exit_good;
}

int list_tables(context& c) {
    const database db = database::open_for_reading(c.line[0], c.line.has("--read-only"));
    const read_section reading(db);
    const std::vector<stored_table> tables = db.tables();
    if (tables.empty()) std::cout << db.path() << ": no tables yet\n";
    std::size_t width = 0;
    for (const stored_table& each : tables)
        width = std::max(width, each.label().size());
    for (const stored_table& each : tables)
        std::cout << std::left << std::setw(static_cast<int>(width)) << each.label() << std::right << std::setw(9)
                  << each.table->record_count << " records  " << each.module << '\n';
    return exit_good;
}

int walk_table(context& c) {
    const database db = database::open_for_reading(c.line[0], c.line.has("--read-only"));
    select_tenant(c.line);
    const read_section reading(db);
    const opened_table table = open_table(c, db, c.line[1]);
    std::optional<std::uint8_t> source;
    if (c.line.has("--src")) source = wanted_source(c.line);
    for (loom_table_record* record : table.type.records(db.handle(), table.stored.table, source)) {
        check_interruption();
        if (c.line.has("--xml"))
            write_indented(std::cout, table.type.to_xml(db.handle(), record), 0);
        else if (c.line.has("--text"))
            std::cout << table.type.to_text(db.handle(), record);
        else
            print_key(std::cout, table, db, record);
    }
    return exit_good;
}

int find_record(context& c) {
    const database db = database::open_for_reading(c.line[0], c.line.has("--read-only"));
    select_tenant(c.line);
    const read_section reading(db);
    const opened_table table = open_table(c, db, c.line[1]);
    print_key(std::cout, table, db, wanted_record(c, db, table));
    return exit_good;
}

int show_record(context& c) {
    const database db = database::open_for_reading(c.line[0], c.line.has("--read-only"));
    select_tenant(c.line);
    const read_section reading(db);
    const opened_table table = open_table(c, db, c.line[1]);
    loom_table_record* record = wanted_record(c, db, table);
    if (c.line.has("--xml")) {
        write_indented(std::cout, table.type.to_xml(db.handle(), record), 0);
    } else if (c.line.has("--bytes")) {
        const schema_model model = schema_model::load(c.line.value("--schema"), table.type.module());
        write_annotated(std::cout, table.type.to_bytes(db.handle(), record), table.type, model);
    } else {
        std::cout << table.type.to_text(db.handle(), record);
    }
    return exit_good;
}

} // namespace tool
