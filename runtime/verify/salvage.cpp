// Salvage: a new database of all records that can still be read of a damaged one. Records are looked for in all
// blocks, proved by their types' descriptions, and go over in their binary form.
#include "runtime/export.h"
#include "runtime/handle/open_handle.h"
#include "runtime/store/salvage_source.h"
#include "runtime/verify/table_walk.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <filesystem>

namespace loom {
namespace {
using open_op = loom_table* (*)(loom_handle*, u32, const char*, u32, u32*);
using open_by_id_op = loom_table* (*)(loom_handle*, u32, u64, u32, u32*);
using length_op = u32 (*)(loom_handle*, u32, const loom_table_record*);
using marshal_op = u32 (*)(loom_handle*, u32, void*, const loom_table_record*, i32, u32*);
using unmarshal_op = u32 (*)(loom_handle*, u32, loom_table_record**, const void*, i32, u32, u32*);
using record_op = void (*)(loom_handle*, u32, loom_table*, loom_table_record*, u32*);
using end_record_op = void (*)(loom_handle*, u32, loom_table_record*, u32*);

template <class Function>
Function slot(const loom_table_vft& vft, u32 number) {
    return reinterpret_cast<Function>(const_cast<void*>(vft.slots[number]));
}

std::string told(u64 number) { return std::to_string(number); }
/// What a loaded bundle has of a type; null when none knows it. What the database has may be damaged.
const loom_type_info* info_in_bundles(const u8* luid) {
    for (const loom_module_node* node = loom_module_tot_root.first; node; node = node->next)
        for (loom_type_info* const* info = node->type_infos; info && *info; ++info)
            if (std::memcmp((*info)->luid, luid, sizeof(*info)->luid) == 0) return *info;
    return nullptr;
}

bool is_of_kind(const known_type& type, const char* kind) {
    return std::strncmp(type.info->kind, kind, sizeof type.info->kind) == 0;
}

/// The records that name one table as theirs.
struct found_table {
    const known_type* type = nullptr;  ///< of the table
    const loom_table* table = nullptr; ///< null when it is lost itself
    const known_type* record_type = nullptr;
    std::vector<loom_table_record*> records;
    u64 lost = 0;
};

class salvager {
  public:
    salvager(const salvage_source& source, loom_handle* into, findings& found, loom_salvage_result& result);

    u32 run();

  private:
    void find_types();
    void add_types_of_bundles();
    bool is_lost(const void* address) const;
    bool may_be(const loom_type_info* word, const known_type& type);
    const known_type* type_of_lost_word(const loom_table* table);
    void find_tables();
    void find_records();
    void prove_records(const void* address, found_table& of);
    void put_in_order(found_table& of) const;
    u32 copy_table(const void* address, found_table& of);
    loom_table* open_table(const loom_table_vft& vft, const found_table& of, u32 domain);
    bool copy_record(const loom_table_vft& vft, u32 domain, loom_table* table, loom_table_record* record);
    loom_table_record* remade(const loom_table_vft& vft, u32 domain, const loom_table_record* record);
    u32* sequence_of(const known_type& record_type, const loom_table_record* record) const;
    void keep_location(u32 domain, const loom_table_record* from, loom_table_record* to);
    u32 renew_references();
    std::string label_of(const found_table& of) const;

    const salvage_source& source_;
    loom_handle* into_;
    findings& found_;
    loom_salvage_result& result_;
    arena memory_;
    std::unique_ptr<block_map> blocks_;
    known_types types_;
    std::map<const void*, found_table> tables_; ///< by where they lay
    std::map<const void*, loom_table*> made_;   ///< what they have become
    std::vector<loom_table_record*> made_records_;
    const found_table* current_ = nullptr;
};

/// The header may be lost; of the rest only what was looked at is believed.
salvager::salvager(const salvage_source& source, loom_handle* into, findings& found, loom_salvage_result& result)
    : source_(source), into_(into), found_(found), result_(result) {
    const superblock& fixed = source.fixed();
    auto& header = *reinterpret_cast<arena_header*>(source.memory());
    arena::format(header, fixed.base, fixed.room, source.size(), fixed.identity, fixed.name);
    header.top = source.size();
    memory_.attach(source.memory(), nullptr, false);
    blocks_ = std::make_unique<block_map>(memory_, source.lost_pages());
}

std::string salvager::label_of(const found_table& of) const {
    return of.table ? table_walk::label_of(of.table) : "a lost table " + of.type->name;
}

// ----------------------------------------------------------------------------------------------------- finding

void salvager::find_types() {
    std::map<std::string, const loom_type_description*> descriptions;
    std::vector<const loom_type_info*> infos;
    blocks_->each_lost([&](void* payload, u64 size) {
        const auto* info = static_cast<const loom_type_info*>(payload);
        const auto* description = static_cast<const loom_type_description*>(payload);
        if (size >= sizeof *info && info->magic == LOOM_TYPE_INFO_MAGIC)
            infos.push_back(info);
        else if (size >= sizeof *description && is_sound(*description, size))
            descriptions[std::string(reinterpret_cast<const char*>(description->luid), 16)] = description;
    });
    for (const loom_type_info* info : infos) {
        const auto described = descriptions.find(std::string(reinterpret_cast<const char*>(info->luid), 16));
        const loom_type_info* own = described == descriptions.end() ? info_in_bundles(info->luid) : nullptr;
        types_.add(*info, own                               ? find_description(*own)
                          : described != descriptions.end() ? described->second
                                                            : nullptr);
    }
    add_types_of_bundles();
    types_.connect();
}

/// Where records of types are lost, the bundles' own stand for them: what words lead there is found out later.
void salvager::add_types_of_bundles() {
    if (source_.lost_pages().empty()) return;
    for (const loom_module_node* node = loom_module_tot_root.first; node; node = node->next)
        for (loom_type_info* const* info = node->type_infos; info && *info; ++info)
            if (!types_.of_luid((*info)->luid)) types_.add(**info, find_description(**info));
}

bool salvager::is_lost(const void* address) const {
    return memory_.contains(address) &&
           std::ranges::binary_search(source_.lost_pages(), memory_.offset_of(address) / page_size);
}

/// A type word that leads into a lost page can be that of a type whose record is lost; it is from then on.
bool salvager::may_be(const loom_type_info* word, const known_type& type) {
    if (memory_.contains(type.info) || !is_lost(word)) return false;
    types_.add_word(word, type);
    return true;
}

/// The path of a table ends with the luid of its type.
const known_type* salvager::type_of_lost_word(const loom_table* table) {
    const std::string path(table->table_name, strnlen(table->table_name, sizeof table->table_name));
    if (!is_lost(table->header.loom_tinfo) || path.size() < 33 || path[path.size() - 33] != '/') return nullptr;
    u8 luid[16];
    for (std::size_t i = 0; i < sizeof luid; ++i)
        if (std::sscanf(path.c_str() + path.size() - 32 + 2 * i, "%2hhx", luid + i) != 1) return nullptr;
    const known_type* type = types_.of_luid(luid);
    return type && may_be(table->header.loom_tinfo, *type) ? type : nullptr;
}

void salvager::find_tables() {
    blocks_->each_lost([&](void* payload, u64 size) {
        if (size < sizeof(loom_table)) return;
        const auto* table = static_cast<const loom_table*>(payload);
        const known_type* type = types_.of(table->header.loom_tinfo);
        if (!type) type = type_of_lost_word(table);
        if (!type || !type->description || !is_of_kind(*type, "table")) return;
        tables_[table] = {type, table, known_types::referred(*type, type->description->record), {}, 0};
    });
}

void salvager::find_records() {
    blocks_->each_lost([&](void* payload, u64 size) {
        if (size < sizeof(loom_table_record)) return;
        auto* record = static_cast<loom_table_record*>(payload);
        if (!(record->record_flags & REC_IN_TABLE)) return;
        const known_type* type = types_.of(record->loom_tinfo);
        if (!type) {
            const auto table = tables_.find(record->table);
            type = table != tables_.end() ? table->second.record_type : nullptr;
            if (!type || !may_be(record->loom_tinfo, *type)) return;
        }
        if (!is_of_kind(*type, "table_record")) return;
        if (!type->description || size < type->description->base_size) return;
        found_table& of = tables_[record->table];
        if (!of.type) {
            of.record_type = type;
            of.type = types_.table_of(*type);
        }
        if (of.type && of.record_type == type) of.records.push_back(record);
    });
    std::erase_if(tables_, [](const auto& each) { return !each.second.type; });
}

/// Keeps the records that own all that they should.
void salvager::prove_records(const void* address, found_table& of) {
    object_walk objects(*blocks_, types_, found_);
    objects.set_holder(label_of(of));
    // The states of attributes lie in areas that a side table tells of: they are left behind.
    objects.set_visitors(
        [](const std::byte* object) {
            auto* header = reinterpret_cast<loom_object*>(const_cast<std::byte*>(object));
            header->loom_flags &= static_cast<u8>(~(OBJ_STATE_TRACKED | OBJ_STTR_OFFSET));
        },
        nullptr);
    objects.set_judge_of_words(
        [this](const loom_type_info* word, const known_type& expected) { return may_be(word, expected); });
    const auto cannot_be_read = [&](loom_table_record* record) {
        return !objects.walk(record, *of.record_type) || !objects.undescribed().empty();
    };
    of.lost = std::erase_if(of.records, cannot_be_read);
    for (const std::string& type : objects.undescribed())
        found_.unchecked(label_of(of), "type " + type + " is not described: its records cannot be proved");
    const u64 counted = address && of.table ? of.table->record_count : 0;
    if (counted > of.records.size() + of.lost)
        found_.damage(label_of(of),
                      "of " + told(counted - of.records.size() - of.lost) + " records nothing is left");
}

/// The place on the ring of an ordered table, in the payload; null for other tables.
u32* salvager::sequence_of(const known_type& record_type, const loom_table_record* record) const {
    if (!(record_type.description->flags & LOOM_TYPE_ORDERED)) return nullptr;
    const known_type* payload = known_types::referred(record_type, 0);
    auto* object = *reinterpret_cast<std::byte* const*>(reinterpret_cast<const std::byte*>(record) +
                                                        sizeof(loom_table_record));
    if (!payload || !payload->description || !object) return nullptr;
    for (const loom_attribute_description& each : attributes_of(*payload->description))
        if (std::strcmp(text_in(*payload->description, each.name), "reorder_seq_compact_no") == 0)
            return reinterpret_cast<u32*>(object + each.offset);
    return nullptr;
}

/// Records of an ordered table go in one behind the other, and get their numbers anew.
void salvager::put_in_order(found_table& of) const {
    const auto number_of = [&](const loom_table_record* record) {
        const u32* number = sequence_of(*of.record_type, record);
        return number ? *number : 0;
    };
    std::ranges::stable_sort(of.records, {}, number_of);
    constexpr u32 at_the_end = ~u32{0};
    for (loom_table_record* record : of.records)
        if (u32* number = sequence_of(*of.record_type, record)) *number = at_the_end;
}

// ----------------------------------------------------------------------------------------------------- copying

loom_table* salvager::open_table(const loom_table_vft& vft, const found_table& of, u32 domain) {
    constexpr u32 find_or_create = 0;
    u32 err = 0;
    loom_table* table = nullptr;
    if (of.table && of.table->open_mode != 0) {
        table = slot<open_by_id_op>(vft, LOOM_VFT_TABLE_OPEN_BY_ID)(into_, domain, of.table->table_id,
                                                                    find_or_create, &err);
    } else {
        std::string name = of.type->name;
        if (of.table) {
            name.assign(of.table->table_name, strnlen(of.table->table_name, sizeof of.table->table_name));
            const std::string ending = "/" + std::string(of.type->info->luid_text, 32);
            const bool is_plain = name.ends_with(ending) && name.find('/') == name.size() - ending.size();
            if (is_plain) name.resize(name.size() - ending.size());
        }
        table = slot<open_op>(vft, LOOM_VFT_TABLE_OPEN)(into_, domain, name.c_str(), find_or_create, &err);
    }
    return err ? nullptr : table;
}

/// A copy of the record in the new database; null when its binary form cannot be made or read.
loom_table_record* salvager::remade(const loom_table_vft& vft, u32 domain, const loom_table_record* record) {
    // One byte more than the length: a state byte may be stored there.
    std::vector<std::byte> bytes(slot<length_op>(vft, LOOM_VFT_RECORD_LEN)(into_, domain, record) + u64{1});
    u32 err = 0;
    const u32 written = slot<marshal_op>(vft, LOOM_VFT_RECORD_MARSHAL)(into_, domain, bytes.data(), record,
                                                                       static_cast<i32>(bytes.size()), &err);
    if (err && err != LOOM_EIDRM) return nullptr;
    err = 0;
    loom_table_record* made = nullptr;
    slot<unmarshal_op>(vft, LOOM_VFT_RECORD_UNMARSHAL)(into_, domain, &made, bytes.data(),
                                                       static_cast<i32>(written), 0, &err);
    if (made && err) {
        u32 ignored = 0;
        slot<end_record_op>(vft, LOOM_VFT_DESTROY_RECORD)(into_, domain, made, &ignored);
        made = nullptr;
    }
    return made;
}

void salvager::keep_location(u32 domain, const loom_table_record* from, loom_table_record* to) {
    const auto* node = reinterpret_cast<const location_node*>(from->location);
    const u64 size = node ? blocks_->size_at(node) : 0;
    if (size > sizeof *node && node->length < size - sizeof *node && node->text()[node->length] == 0)
        loom_record_set_location(into_, domain, to, node->text());
}

bool salvager::copy_record(const loom_table_vft& vft, u32 domain, loom_table* table, loom_table_record* record) {
    loom_table_record* made = remade(vft, domain, record);
    if (!made) return false;
    const auto store = [&](auto& place, auto value) {
        into_->write_hook(into_, &place, sizeof place, domain, made);
        place = value;
    };
    store(made->tenant_id, record->tenant_id);
    store(made->src, record->src);
    keep_location(domain, record, made);
    u32 err = 0;
    slot<record_op>(vft, LOOM_VFT_INSERT)(into_, domain, table, made, &err);
    if (err == 0) {
        made_records_.push_back(made);
        return true;
    }
    err = 0;
    slot<end_record_op>(vft, LOOM_VFT_DESTROY_RECORD)(into_, domain, made, &err);
    return false;
}

u32 salvager::copy_table(const void* address, found_table& of) {
    const loom_table_vft* vft = loom_find_table_vft(into_, of.type->info->luid);
    if (!vft) {
        found_.unchecked(label_of(of), "no loaded bundle knows it; load the one that made it");
        return 0;
    }
    prove_records(address, of);
    put_in_order(of);
    const u64 known_domain = of.table ? words_of(const_cast<loom_table*>(of.table)).domain : 0;
    const u32 domain = known_domain != 0 ? static_cast<u32>(known_domain) : into_->cr_domain;
    if (const u32 error = loom_write_begin(into_)) return error;
    loom_table* table = open_table(*vft, of, domain);
    if (!table) {
        const u32 error = into_->last_error ? into_->last_error : u32{LOOM_ENOMEM};
        loom_write_abort(into_);
        return error;
    }
    made_[address] = table;
    for (loom_table_record* record : of.records) {
        if (copy_record(*vft, domain, table, record)) {
            ++result_.records;
            continue;
        }
        ++of.lost;
        found_.damage(label_of(of) + ", record at offset " + told(memory_.offset_of(record)),
                      "cannot be put into the new table: " + error_text());
    }
    ++result_.tables;
    result_.lost_records += of.lost;
    return loom_write_commit(into_);
}

/// Copies hold the references of the old database, which lead nowhere: those to tables are made anew.
u32 salvager::renew_references() {
    if (const u32 error = loom_write_begin(into_)) return error;
    const database& db = *opened(into_)->db;
    findings ignored;
    block_map blocks(db.memory);
    known_types types;
    db.root()->types.each([&](const type_node& node) { types.add(*node.info, node.description); });
    types.connect();
    object_walk objects(blocks, types, ignored);
    std::vector<loom_oid*> references;
    objects.set_visitors(nullptr, [&](const std::byte* oid) {
        references.push_back(reinterpret_cast<loom_oid*>(const_cast<std::byte*>(oid)));
    });
    for (const loom_table_record* record : made_records_)
        if (const known_type* type = types.of(record->loom_tinfo)) objects.walk(record, *type);
    u64 lost = 0;
    for (loom_oid* oid : references) {
        if (std::memcmp(oid->source, source_.fixed().identity, sizeof oid->source) != 0) continue;
        const auto target = made_.find(reinterpret_cast<const void*>(oid->object));
        loom_oid made{};
        u32 err = 0;
        constexpr u32 kind_table = 2, counted = 1;
        if (target != made_.end())
            loom_handle_to_oid(&made, into_, into_->cr_domain, target->second, kind_table, counted, &err);
        lost += target == made_.end() || err != 0;
        into_->write_hook(into_, oid, sizeof *oid, into_->cr_domain, nullptr);
        *oid = made;
    }
    if (lost != 0)
        found_.damage("references", told(lost) + " lead to nothing that was salvaged: they are empty now");
    return loom_write_commit(into_);
}

u32 salvager::run() {
    result_.lost_pages = source_.lost_pages().size();
    find_types();
    find_tables();
    find_records();
    for (auto& [address, of] : tables_)
        if (const u32 error = copy_table(address, of)) return error;
    return renew_references();
}

/// Whether the database still opens, which puts back what a dead writer has left.
u32 opens(const char* path) {
    loom_handle* handle = loom_open_mapped(path, LOOM_OPEN_EXCLUSIVE);
    if (!handle) return EIO;
    loom_close(handle);
    return 0;
}

u32 salvage(const char* damaged, const char* path, findings& found, loom_salvage_result& result) {
    if (std::filesystem::exists(path))
        return fail(EEXIST, "database %s: is there already; name a place where nothing is", path);
    salvage_source source;
    const auto report = [&](const std::string& place, const std::string& meaning) {
        found.damage(place, meaning);
    };
    if (const u32 error = opens(damaged) == 0 ? source.read_image(damaged) : source.read_files(damaged, report))
        return error;
    loom_open_options options{};
    options.size = sizeof options;
    options.kind = LOOM_DB_MAPPED;
    options.path = path;
    options.name = source.fixed().name;
    options.flags = LOOM_OPEN_CREATE;
    options.durability = static_cast<u32>(source.fixed().level);
    options.reserve = source.fixed().room;
    options.mode = source.fixed().mode;
    loom_handle* into = loom_open(&options);
    if (!into) return EIO;
    u32 error = salvager(source, into, found, result).run();
    if (!error) error = loom_database_sync(into);
    const std::string reason = error ? error_text() : std::string();
    loom_close(into);
    return error ? fail(error, "%s", reason.c_str()) : 0;
}
} // namespace
} // namespace loom

using namespace loom;

LOOM_EXPORT uint32_t loom_database_verify_files(const char* path, loom_finding_fn report, void* context,
                                                uint64_t* damaged) {
    findings found;
    salvage_source source;
    const u32 error = source.read_files(
        path, [&](const std::string& place, const std::string& meaning) { found.damage(place, meaning); });
    if (damaged) *damaged = found.result.damaged;
    if (report) found.tell(report, context);
    return done(error);
}

LOOM_EXPORT uint32_t loom_database_salvage(const char* damaged, const char* path, loom_finding_fn report,
                                           void* context, loom_salvage_result* result) {
    findings found;
    loom_salvage_result sums{};
    const u32 error = salvage(damaged, path, found, sums);
    sums.findings = found.result.damaged + found.result.lost + found.result.unchecked;
    if (result) *result = sums;
    if (report) found.tell(report, context);
    return done(error);
}
