#include "forms.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iostream>
#include <regex>

using trellis::i32;
using trellis::u32;
using trellis::testing::test_handle;

namespace {
/// One field: its address, length and name.
#define FIELD(object, field)                                                                                      \
    { &(object)->field, sizeof(object)->field, #field }
struct field {
    const void* address;
    size_t length;
    const char* name;
};
void name_all(const loom_handle* in, const std::string& label, std::initializer_list<field> fields) {
    for (const field& each : fields)
        test_handle::of_handle(in)->name(each.address, each.length, label + "." + each.name);
}

void name_record(loom_handle* in, loom_table_record* record, size_t size, const std::string& label) {
    test_handle::of_handle(in)->name(record, size, label);
    name_all(in, label,
             {FIELD(record, table), FIELD(record, ref_count), FIELD(record, record_flags), FIELD(record, avl_node),
              FIELD(record, src), FIELD(record, tenant_id), FIELD(record, location)});
}

std::string text; // what was told last
} // namespace

void name_table(loom_handle* handle, u32, loom_table* table, const char* label) {
    test_handle::of_handle(handle)->name(table, sizeof *table, label);
    name_all(handle, label,
             {FIELD(table, record_count), FIELD(table, pending_destroy_count), FIELD(table, toc_next),
              FIELD(table, toc_prev), FIELD(table, db_word), FIELD(table, shadow_count), FIELD(table, avl_root),
              FIELD(table, avl_aux), FIELD(table, seq_batch_mode), FIELD(table, seq_count), FIELD(table, seq_head),
              FIELD(table, table_flags), FIELD(table, table_id), FIELD(table, open_mode)});
}

number_tbl_table_record* make_number(loom_handle* handle, u32 domain, u32 id, u32 src) {
    u32 err = 0;
    number_tbl_table_record* record = number_tbl_create_record_w_src(handle, domain, src, &err);
    number_row* payload = number_row_create(handle, domain);
    number_row_id_set_value(handle, domain, payload, id, &err);
    number_tbl_number_row_set_field(handle, domain, record, payload);
    const std::string label = std::to_string(id) + ":" + std::to_string(src);
    name_record(handle, &record->loom_record, sizeof *record, label);
    name_all(handle, label, {{&record->number_row, sizeof record->number_row, "payload"}});
    test_handle::of_handle(handle)->name(payload, sizeof *payload, "row" + std::to_string(id));
    return record;
}
number_tbl_table_record* insert_number(loom_handle* handle, u32 domain, loom_table* table, u32 id, u32 src,
                                       u32* err) {
    number_tbl_table_record* record = make_number(handle, domain, id, src);
    number_tbl_insert(handle, domain, table, record, err);
    return record;
}

place_tbl_table_record* make_place(loom_handle* handle, u32 domain, const char* name, u32 position, u32 src) {
    u32 err = 0;
    place_tbl_table_record* record = place_tbl_create_record_w_src(handle, domain, src, &err);
    place_row* payload = place_row_create(handle, domain);
    place_row_reorder_seq_compact_no_set_value(handle, domain, payload, position, &err);
    place_tbl_place_row_set_field(handle, domain, record, payload);
    pair_key* key = pair_key_create(handle, domain);
    const loom_vstring characters{const_cast<char*>(name), static_cast<u32>(strlen(name)), 0};
    pair_key_name_set(handle, domain, key, &characters, &err);
    place_tbl_pair_key_set_field(handle, domain, record, key);
    name_record(handle, &record->loom_record, sizeof *record, name);
    name_all(handle, name,
             {FIELD(record, seq_next),
              FIELD(record, seq_prev),
              {&payload->reorder_seq_compact_no, sizeof payload->reorder_seq_compact_no, "number"}});
    return record;
}
place_tbl_table_record* insert_place(loom_handle* handle, u32 domain, loom_table* table, const char* name,
                                     u32 position, u32 src, u32* err) {
    place_tbl_table_record* record = make_place(handle, domain, name, position, src);
    place_tbl_insert(handle, domain, table, record, err);
    return record;
}

const char* records_of(loom_handle*, u32, loom_table* numbers) {
    u32 err = 0;
    text.clear();
    number_tbl_number_row_id_walk(
        numbers,
        [](number_tbl_table_record* record, void*) -> i32 {
            text += (text.empty() ? "" : " ") + std::to_string(record->number_row->id) + ":" +
                    std::to_string(record->loom_record.src);
            return 0;
        },
        nullptr, &err);
    return text.c_str();
}

const char* ring_of(loom_handle* handle, u32, const loom_table* places) {
    text.clear();
    const auto record_of = [](void* cell) {
        return reinterpret_cast<place_tbl_table_record*>(static_cast<char*>(cell) -
                                                         offsetof(place_tbl_table_record, seq_next));
    };
    if (places->seq_head != nullptr) {
        const place_tbl_table_record* first = record_of(places->seq_head);
        const place_tbl_table_record* each = first;
        do {
            if (record_of(record_of(each->seq_next)->seq_prev) != each) text += "torn at ";
            text += test_handle::of_handle(handle)->name_of(each) + "=" +
                    std::to_string(each->place_row->reorder_seq_compact_no) + " ";
            each = record_of(each->seq_next);
        } while (each != first);
    }
    text += "| " + std::to_string(places->seq_count);
    return text.c_str();
}

loom_table_id_root* id_root(loom_handle* handle, u32) {
    const std::string key = std::string("__loom_TBI__") + table_number_tbl_luid_text;
    return static_cast<loom_table_id_root*>(arbor_get_key(handle->alloc_ctx, key.c_str()));
}
u32 count_tables(loom_handle* handle, u32) {
    u32 count = 0;
    loom_each_table(
        handle, [](loom_table*, void* context) -> u32 { return ++*static_cast<u32*>(context), 0; }, &count);
    return count;
}
loom_table* open_long(loom_handle* handle, u32 domain, u32 length, u32 is_path, u32* err) {
    const std::string name = is_path != 0 ? "a/" + std::string(length, 'p') : std::string(length, 'n');
    return number_tbl_table_open(handle, domain, name.c_str(), 0, err);
}
trellis::u64 id_in_another_arena(loom_handle*, u32 domain, u32* err) {
    test_handle other;
    return number_tbl_table_open_auto_id(other, domain, 0, err)->table_id;
}
u32 every_room(loom_handle* handle, u32 domain, const pair_tbl_table_record* record, u32* err) {
    unsigned char wire[512];
    const auto marshal = [&](u32 room) {
        memset(wire, 0xEE, sizeof wire);
        *err = 0;
        return pair_tbl_table_record_marshal(handle, domain, wire, record, static_cast<i32>(room), err);
    };
    const u32 whole = marshal(sizeof wire);
    u32 rooms = 0;
    for (; rooms < whole; ++rooms) {
        const u32 written = marshal(rooms);
        const bool no_header = rooms < 27 ? written == 0 : std::count(wire, wire + 27, 0) == 27;
        const bool kept = std::count(wire + rooms, std::end(wire), 0xEE) == std::end(wire) - wire - rooms;
        if (*err != 90 || written > rooms || !no_header || !kept) break;
    }
    *err = 0;
    return marshal(rooms) == whole && *err == 0 ? rooms : 1000 + rooms;
}
u32 every_cut(loom_handle* handle, u32 domain, const void* wire, u32* err) {
    for (i32 length = 0;; ++length) {
        pair_tbl_table_record* read = nullptr;
        *err = 0;
        pair_tbl_table_record_unmarshal(handle, domain, &read, wire, length, 0, err);
        if (*err != 90 || read == nullptr) return static_cast<u32>(length);
        *err = 0;
        pair_tbl_destroy_record(handle, domain, read, err);
    }
}
u32 every_message_room(loom_handle* handle, u32 domain, note_action_message* message, u32* err) {
    unsigned char wire[512];
    const u32 whole = note_action_message_len(handle, domain, message);
    for (u32 room = 0; room < whole; ++room) {
        memset(wire, 0xEE, sizeof wire);
        *err = 0;
        const u32 written =
            note_action_message_marshal(handle, domain, wire, message, static_cast<i32>(room), err);
        const bool no_header = room < 27 || std::count(wire, wire + 27, 0) == 27;
        const bool no_luid = room >= 43 || wire[27] == 0xEE;
        const bool kept = std::count(wire + room, std::end(wire), 0xEE) == std::end(wire) - wire - room;
        if (*err != 90 || written > room || !no_header || !no_luid || !kept) return room;
    }
    *err = 0;
    return whole;
}
u32 every_message_cut(loom_handle* handle, u32 domain, const void* wire, u32* err) {
    for (i32 length = 0;; ++length) {
        note_action_message* read = nullptr;
        *err = 0;
        note_action_message_unmarshal_only(handle, domain, &read, wire, length, err);
        const bool missed = *err == 90 && read != nullptr;
        *err = 0;
        note_action_message_destroy(handle, domain, read);
        if (!missed) return static_cast<u32>(length);
    }
}
trellis::u64 recorded(loom_handle*, u32, void* stream) {
    auto* file = static_cast<FILE*>(stream);
    fflush(file);
    rewind(file);
    char all[4096];
    const size_t size = fread(all, 1, sizeof all, file);
    std::cout << std::regex_replace(std::string(all, size), std::regex("timestamp=\"[^\"]*\""), "...")
              << std::endl;
    return size;
}
i32 visit(number_tbl_table_record* record, void* handle) {
    test_handle* log = test_handle::of_handle(static_cast<loom_handle*>(handle));
    log->log("visits " + log->name_of(record));
    return 0;
}
i32 visit_two(number_tbl_table_record* record, void* handle) {
    visit(record, handle);
    return record->number_row->id == 2 ? 1 : 0;
}
void exchange_map(loom_handle* handle, u32, void* map) {
    if (handle->hd_map == nullptr)
        handle->hd_map = map;
    else if (handle->hd_map == map)
        handle->hd_map = nullptr;
}
void silence_duplicates(loom_handle* handle, u32, u32 silent) {
    handle->suppress_duplicate_trace = static_cast<decltype(handle->suppress_duplicate_trace)>(silent);
}
void tag_headers(loom_handle* handle, u32, u32 tag) { handle->header_tag = tag; }
void activate_bundle(loom_handle* handle, u32, u32 active) {
    handle->bundle_active = static_cast<decltype(handle->bundle_active)>(active);
}
void collect_garbage(loom_handle* handle, u32, u32 collecting) {
    handle->gc_context = static_cast<decltype(handle->gc_context)>(collecting);
}
void validate_garbage(loom_handle* handle, u32, u32 validating) {
    handle->gc_validation = static_cast<decltype(handle->gc_validation)>(validating);
}
