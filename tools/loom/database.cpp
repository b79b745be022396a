#include "database.h"

#include "bundles.h"
#include "failure.h"

#include <cerrno>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tool {
namespace {

stored_table describe(loom_table* table) {
    stored_table result;
    result.table = table;
    const loom_type_info& info = *table->header.loom_tinfo;
    result.type_name = text_of(info.name);
    result.module = text_of(info.module);
    if (table->open_mode != 0) {
        result.id = table->table_id;
        return result;
    }
    // A plain name is stored as "name/luid"; a name with a slash of its own stands as it was given.
    result.instance = text_of(table->table_name);
    const std::string ending = "/" + text_of(info.luid_text);
    if (result.instance.ends_with(ending)) {
        const std::string plain = result.instance.substr(0, result.instance.size() - ending.size());
        if (plain.find('/') == std::string::npos) result.instance = plain;
    }
    return result;
}

} // namespace

std::string stored_table::label() const {
    if (id) return type_name + "#" + std::to_string(*id);
    return instance == type_name ? type_name : type_name + ":" + instance;
}

database database::checked(loom_handle* handle, const std::string& path) {
    if (!handle) throw runtime_failure();
    return {handle, path};
}

database database::open(const std::string& path, std::uint32_t flags) {
    if (!fs::exists(path))
        throw failure(path + ": there is no such database", "make a database with 'loom create " + path + "'");
    return checked(loom_open_mapped(path.c_str(), flags), path);
}

database database::open_for_reading(const std::string& path, bool snapshot) {
    const bool may_write = ::access((path + "/superblock").c_str(), W_OK) == 0 || errno == ENOENT;
    if (may_write && !snapshot) return open(path);
    return open(path, LOOM_OPEN_READ_ONLY);
}

database database::create(const std::string& path, std::uint64_t reserve, std::uint32_t durability,
                          std::uint32_t mode) {
    // A directory without a superblock is one where a database may be made, or its making was cut off.
    if (fs::exists(path) && (!fs::is_directory(path) || fs::exists(path + "/superblock")))
        throw failure(path + ": is there already", "remove it, or take another name");
    loom_open_options options{};
    options.size = sizeof options;
    options.kind = LOOM_DB_MAPPED;
    options.path = path.c_str();
    options.flags = LOOM_OPEN_CREATE;
    options.reserve = reserve;
    options.durability = durability;
    options.mode = mode;
    return checked(loom_open(&options), path);
}

database database::in_memory() { return checked(loom_open_private(), "memory"); }

std::vector<stored_table> database::tables() const {
    std::vector<stored_table> found;
    const auto visit = [](loom_table* table, void* context) -> std::uint32_t {
        static_cast<std::vector<stored_table>*>(context)->push_back(describe(table));
        return 0;
    };
    loom_each_table(handle(), visit, &found);
    return found;
}

stored_table database::table(const std::string& wanted) const {
    const std::vector<stored_table> all = tables();
    std::vector<const stored_table*> matches;
    std::string labels;
    for (const stored_table& each : all) {
        if (each.label() == wanted) return each;
        if (each.type_name == wanted || (!each.id && each.instance == wanted)) matches.push_back(&each);
        labels += (labels.empty() ? "" : ", ") + each.label();
    }
    if (matches.size() == 1) return *matches.front();
    if (!matches.empty()) throw failure(path_ + ": several tables answer to " + wanted, "name one of " + labels);
    throw failure(path_ + ": there is no table " + wanted,
                  labels.empty() ? "the database is empty; fill it with 'loom import'" : "it holds " + labels);
}

read_section::read_section(const database& db) : handle_(db.handle()) {
    if (loom_read_begin(handle_) != 0)
        throw failure(db.path() + ": cannot be locked for reading: " + loom_error_text());
}

read_section::~read_section() { loom_read_end(handle_); }

write_section::write_section(const database& db) : database_(db) {
    if (loom_write_begin(db.handle()) != 0)
        throw failure(db.path() + ": cannot be locked for writing: " + loom_error_text());
}

write_section::~write_section() {
    if (open_) loom_write_abort(database_.handle());
}

void write_section::commit() {
    open_ = false;
    if (loom_write_commit(database_.handle()) != 0)
        throw failure(database_.path() + ": the changes cannot be kept: " + loom_error_text());
}

} // namespace tool
