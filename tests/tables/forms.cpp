#include "forms.h"

#include <cstddef>
#include <cstring>

namespace table_tests {

trellis::testing::handle_options shared_kind() {
    trellis::testing::handle_options options;
    options.db_kind = LOOM_DB_MAPPED;
    options.containment = true;
    return options;
}

namespace {
/// One field: its address, length and name.
#define FIELD(object, field)                                                                                      \
    { &(object)->field, sizeof(object)->field, #field }
struct field {
    const void* address;
    size_t length;
    const char* name;
};
void name_all(test_handle& handle, const void* object, const std::string& label,
              std::initializer_list<field> fields) {
    handle.name(object, sizeof(void*), label);
    for (const field& each : fields)
        handle.name(each.address, each.length, label + "." + each.name);
}
} // namespace

void name_fields(test_handle& handle, loom_table* table, const std::string& label) {
    name_all(handle, table, label,
             {FIELD(table, record_count), FIELD(table, pending_destroy_count), FIELD(table, toc_next),
              FIELD(table, toc_prev), FIELD(table, db_word), FIELD(table, shadow_count), FIELD(table, avl_root),
              FIELD(table, avl_aux), FIELD(table, seq_batch_mode), FIELD(table, seq_count),
              FIELD(table, seq_head)});
}

void name_fields(test_handle& handle, loom_table_record* record, const std::string& label) {
    name_all(
        handle, record, label,
        {FIELD(record, table), FIELD(record, ref_count), FIELD(record, record_flags), FIELD(record, avl_node)});
}
#undef FIELD

forms_test::forms_test(const trellis::testing::handle_options& options) : handle(options) {
    static const bool added = [] {
        trellis::testing::add_trace_texts_of(exported("number_tbl_insert"));
        return true;
    }();
    EXPECT_TRUE(added);
}

loom_table* forms_test::open_numbers(const char* name) {
    loom_table* table = number_tbl_table_open(h(), d, name, 0, &err);
    EXPECT_EQ(err, 0u);
    if (table != nullptr) name_fields(handle, table, "table");
    return table;
}

loom_table* forms_test::open_places(const char* name) {
    loom_table* table = place_tbl_table_open(h(), d, name, 0, &err);
    EXPECT_EQ(err, 0u);
    if (table != nullptr) name_fields(handle, table, "table");
    return table;
}

number_tbl_table_record* forms_test::number(u32 id, u32 src) {
    number_tbl_table_record* record = number_tbl_create_record_w_src(h(), d, src, &err);
    number_row* payload = number_row_create(h(), d);
    number_row_id_set_value(h(), d, payload, id, &err);
    number_tbl_number_row_set_field(h(), d, record, payload);
    const std::string label = std::to_string(id) + ":" + std::to_string(src);
    name_fields(handle, &record->loom_record, label);
    handle.name(&record->number_row, sizeof record->number_row, label + ".payload");
    handle.name(payload, sizeof *payload, "row" + std::to_string(id));
    return record;
}

number_tbl_table_record* forms_test::insert_number(loom_table* table, u32 id, u32 src) {
    number_tbl_table_record* record = number(id, src);
    number_tbl_insert(h(), d, table, record, &err);
    return record;
}

place_tbl_table_record* forms_test::place(const char* name, u32 position, u32 src) {
    place_tbl_table_record* record = place_tbl_create_record_w_src(h(), d, src, &err);
    place_row* payload = place_row_create(h(), d);
    place_row_reorder_seq_compact_no_set_value(h(), d, payload, position, &err);
    place_tbl_place_row_set_field(h(), d, record, payload);
    pair_key* key = pair_key_create(h(), d);
    loom_vstring text{};
    text.text = const_cast<char*>(name);
    text.length = static_cast<u32>(strlen(name));
    pair_key_name_set(h(), d, key, &text, &err);
    place_tbl_pair_key_set_field(h(), d, record, key);
    const std::string label = name;
    name_fields(handle, &record->loom_record, label);
    handle.name(&record->seq_next, sizeof record->seq_next, label + ".seq_next");
    handle.name(&record->seq_prev, sizeof record->seq_prev, label + ".seq_prev");
    handle.name(payload, sizeof *payload, "row " + label);
    handle.name(&payload->reorder_seq_compact_no, sizeof payload->reorder_seq_compact_no, label + ".number");
    return record;
}

std::string forms_test::dump(loom_table* numbers) {
    std::string text;
    number_tbl_number_row_id_walk(
        numbers,
        [](number_tbl_table_record* record, void* user) -> i32 {
            auto& all = *static_cast<std::string*>(user);
            all += (all.empty() ? "" : " ") + std::to_string(record->number_row->id) + ":" +
                   std::to_string(record->loom_record.src);
            return 0;
        },
        &text, &err);
    return text;
}

std::string forms_test::ring(const loom_table* places) {
    std::string text;
    const auto record_of = [](void* cell) {
        return reinterpret_cast<place_tbl_table_record*>(static_cast<char*>(cell) -
                                                         offsetof(place_tbl_table_record, seq_next));
    };
    if (places->seq_head != nullptr) {
        const place_tbl_table_record* first = record_of(places->seq_head);
        const place_tbl_table_record* each = first;
        do {
            EXPECT_EQ(record_of(record_of(each->seq_next)->seq_prev), each) << "the ring is torn";
            text += handle.name_of(each) + "=" + std::to_string(each->place_row->reorder_seq_compact_no) + " ";
            each = record_of(each->seq_next);
        } while (each != first);
    }
    return text + "| " + std::to_string(places->seq_count);
}

} // namespace table_tests
