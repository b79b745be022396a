// Insert and delete: what they store in which order, counters of table, tenant and database, marks, and
// replication.
#include "forms.h"

using namespace table_tests;

namespace {

class insert_delete : public forms_test {
  protected:
    insert_delete() : forms_test(shared_kind()), table(open_numbers()) {}
    u32 erase(number_tbl_table_record* record) {
        err = 0;
        number_tbl_delete(h(), d, table, record, &err);
        return err;
    }
    loom_table* table;
};

TEST_F(insert_delete, store_in_order) {
    number_tbl_table_record* one = number(1);
    const std::string inserted = log_of([&] { number_tbl_insert(h(), d, table, one, &err); });
    EXPECT_NE(inserted.find("hook 1:1.table 8 1:1\n"
                            "hook table.record_count 4 0\n"
                            "hook 1:1.record_flags 4 1:1\n"
                            "kind 2\n"
                            "contains 1:1 in table\n"),
              std::string::npos)
        << inserted;
    EXPECT_EQ(one->loom_record.table, table);
    EXPECT_EQ(one->loom_record.record_flags, REC_IN_TABLE);
    const std::string deleted = log_of([&] { number_tbl_delete(h(), d, table, one, &err); });
    EXPECT_NE(deleted.find("hook 1:1.table 8 1:1\nhook table.record_count 4 0\ndestroyed 1:1\n"),
              std::string::npos)
        << deleted;
    EXPECT_EQ(one->loom_record.table, nullptr);
    EXPECT_EQ(one->loom_record.record_flags, REC_IN_TABLE) << "the mark of a former table stays";
    EXPECT_EQ(one->loom_record.ref_count, 1u);
    EXPECT_EQ(err, 0u);
}

TEST_F(insert_delete, shadows_and_marks_have_their_own_hooks) {
    number_tbl_table_record* shadow = number(1, 255);
    std::string log = log_of([&] { number_tbl_pkey_insert(h(), d, table, shadow, &err); });
    EXPECT_NE(log.find("hook 1:255.table 8 1:255\nhook table.record_count 4 0\nhook table.shadow_count 4 "
                       "table\nhook 1:255.record_flags 4 1:255\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(shadow->loom_record.record_flags, REC_IN_TABLE | REC_PKEY_MARK);
    EXPECT_EQ(table->shadow_count, 1u);
    log = log_of([&] { number_tbl_delete(h(), d, table, shadow, &err); });
    EXPECT_NE(log.find("hook 1:255.table 8 1:255\nhook 1:255.record_flags 4 0\nhook table.record_count 4 0\nhook "
                       "table.shadow_count 4 table\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(shadow->loom_record.record_flags, REC_IN_TABLE);
    EXPECT_EQ(table->record_count, 0u);
    EXPECT_EQ(table->shadow_count, 0u);
    number_tbl_insert(h(), d, table, shadow, &err);
    table->shadow_count = 0;
    EXPECT_EQ(erase(shadow), 0u);
    EXPECT_EQ(table->record_count, 0u);
    EXPECT_EQ(table->shadow_count, 0u);
}

TEST_F(insert_delete, an_equal_record_is_refused) {
    number_tbl_table_record* one = insert_number(table, 1);
    number_tbl_table_record* twin = number(1);
    EXPECT_EQ(log_of([&] { number_tbl_insert(h(), d, table, twin, &err); }),
              "says 3 number_tbl insert record exists for number_row id\nerror 17\n");
    EXPECT_EQ(err, 17u);
    EXPECT_EQ(twin->loom_record.table, nullptr);
    EXPECT_EQ(twin->loom_record.record_flags, 0u);
    err = 0;
    h()->suppress_duplicate_trace = 1;
    EXPECT_EQ(log_of([&] { number_tbl_insert(h(), d, table, twin, &err); }), "error 17\n");
    err = 0;
    number_tbl_insert(h(), d, table, one, &err);
    EXPECT_EQ(err, 17u) << "the same record a second time";
    EXPECT_EQ(table->record_count, 1u);
    h()->last_error = 0;
    EXPECT_EQ(number_tbl_insert_cr(h(), table, twin, 0), 17u);
}

TEST_F(insert_delete, null_comes_before_a_pending_error) {
    for (loom_table* into : {table, static_cast<loom_table*>(nullptr)}) {
        err = 5;
        number_tbl_insert(h(), d, into, nullptr, &err);
        EXPECT_EQ(err, 17u);
    }
    number_tbl_table_record* one = number(1);
    err = 5;
    EXPECT_EQ(log_of([&] {
                  number_tbl_insert(h(), d, table, one, &err);
                  number_tbl_delete(h(), d, table, one, &err);
                  number_tbl_pkey_delete(h(), d, table, one, &err);
              }),
              "");
    EXPECT_EQ(err, 5u);
}

TEST_F(insert_delete, no_record_cannot_go) {
    EXPECT_EQ(log_of([&] { number_tbl_delete(h(), d, table, nullptr, &err); }),
              "says 3 number_tbl delete, record not found for number_row id\nerror 2\n");
    err = 0;
    EXPECT_EQ(log_of([&] { number_tbl_pkey_delete(h(), d, table, nullptr, &err); }), "error 2\n");
    h()->last_error = 0;
    EXPECT_EQ(number_tbl_delete_cr(h(), table, nullptr, 1), 2u);
}

TEST_F(insert_delete, what_is_not_there_cannot_go) {
    number_tbl_table_record* one = number(1);
    const std::string log = log_of([&] { number_tbl_delete(h(), d, table, one, &err); });
    EXPECT_NE(log.find("says 3 number_tbl delete, record not found for number_row id\nerror 2\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(err, 2u);
    err = 0;
    number_tbl_insert(h(), d, table, one, &err);
    table->record_count = 0;
    const std::string zero = log_of([&] { number_tbl_delete(h(), d, table, one, &err); });
    EXPECT_NE(zero.find("says 3 number_tbl delete: record count already 0!\ndestroyed 1:1\n"), std::string::npos)
        << zero;
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(dump(table), "");
}

TEST_F(insert_delete, a_key_delete_only_marks) {
    number_tbl_table_record* one = insert_number(table, 1);
    EXPECT_EQ(log_of([&] { number_tbl_pkey_delete(h(), d, table, one, &err); }), "hook 1:1.record_flags 4 1:1\n");
    EXPECT_EQ(log_of([&] { number_tbl_pkey_delete(h(), d, table, one, &err); }), "");
    EXPECT_EQ(one->loom_record.record_flags, REC_IN_TABLE | REC_PKEY_MARK);
    EXPECT_EQ(dump(table), "1:1");
    EXPECT_EQ(table->record_count, 1u);
    EXPECT_EQ(erase(one), 0u);
    EXPECT_EQ(one->loom_record.record_flags, REC_IN_TABLE);
    number_tbl_delete_internal(h(), d, table, insert_number(table, 2), 1, &err);
    EXPECT_EQ(dump(table), "2:1");
}

TEST_F(insert_delete, sources_and_tenants_coexist) {
    insert_number(table, 1, 1);
    insert_number(table, 1, 9);
    insert_number(table, 1, 255);
    {
        as_tenant five(5);
        insert_number(table, 1, 1);
        EXPECT_EQ(err, 0u);
        insert_number(table, 2, 255);
        EXPECT_EQ(number_tbl_table_get_count(h(), d, table), 2u);
        EXPECT_EQ(number_tbl_table_get_count_by_src(h(), d, table, 255), 1u);
        EXPECT_EQ(number_tbl_table_get_count_by_src(h(), d, table, 1), 1u);
        EXPECT_EQ(number_tbl_table_get_count_by_src(h(), d, table, 0x101), 1u) << "a source is eight bits";
    }
    EXPECT_EQ(number_tbl_table_get_count(h(), d, table), 5u);
    EXPECT_EQ(number_tbl_table_get_count_cr(h(), table), 5u);
    EXPECT_EQ(number_tbl_table_get_count_by_src(h(), d, table, 255), 2u);
    EXPECT_EQ(number_tbl_table_get_count_by_src(h(), d, table, 1), 0u) << "the default tenant counts shadows only";
    EXPECT_EQ(dump(table), "1:1 1:9 1:255 1:1 2:255");
}

/// Whoever takes a record out, under whatever tenant: it is its own tenant's count that goes down, and it is
/// ended.
TEST_F(insert_delete, a_record_counts_for_its_own_tenant) {
    const std::vector<std::function<void(number_tbl_table_record*)>> ways_out = {
        [&](auto* record) {
            number_tbl_delete(h(), d, table, record, &err);
            EXPECT_EQ(record->loom_record.table, nullptr);
            number_tbl_destroy_record(h(), d, record, &err);
        },
        [&](auto* record) { number_tbl_destroy_record(h(), d, record, &err); },
        [&](auto* record) { err = number_tbl_delete_cr(h(), table, record, 1); },
        [&](auto* record) {
            loom_table_set_replication(h(), d, table, 1, 0);
            number_tbl_request_record_destroy(h(), d, table, record, &err);
            loom_gc_result result{};
            loom_gc_run(h(), &result);
            EXPECT_EQ(result.records_destroyed, 1u);
            EXPECT_EQ(result.records_waiting, 0u);
            loom_table_set_replication(h(), d, table, 0, 0);
        }};
    for (const auto& go : ways_out)
        for (const trellis::u16 at_work : std::vector<trellis::u16>{0, 5, 6}) {
            number_tbl_table_record* fives = nullptr;
            {
                as_tenant five(5);
                fives = insert_number(table, 1, 3);
            }
            as_tenant six(6);
            number_tbl_table_record* sixes = insert_number(table, 1, 3);
            const u64 blocks = handle.live_blocks();
            {
                as_tenant working(at_work);
                const std::string log = log_of([&] { go(fives); });
                EXPECT_NE(log.find("tenant 5 down source 3\n"), std::string::npos) << log;
            }
            EXPECT_EQ(err, 0u);
            EXPECT_EQ(handle.live_blocks(), blocks - 2) << "the record and its payload";
            EXPECT_EQ(dump(table), "1:3");
            loom_set_tenant(6);
            EXPECT_EQ(number_tbl_table_get_count(h(), d, table), 1u);
            number_tbl_destroy_record(h(), d, sixes, &err);
            EXPECT_EQ(number_tbl_table_get_count(h(), d, table), 0u);
            loom_set_tenant(5);
            EXPECT_EQ(number_tbl_table_get_count(h(), d, table), 0u);
        }
    EXPECT_EQ(err, 0u);
}

TEST_F(insert_delete, replication_guards_the_way_out) {
    loom_table_set_replication(h(), d, table, 1, 1);
    number_tbl_table_record* one = number(1);
    std::string log = log_of([&] { number_tbl_insert(h(), d, table, one, &err); });
    EXPECT_NE(log.find("enqueue 1:1\n"), std::string::npos) << log;
    const char* refusal =
        "says 3 number_tbl_delete() cannot be direclty used when the table is marked for replication\n"
        "error 22\n";
    EXPECT_EQ(log_of([&] { number_tbl_delete(h(), d, table, one, &err); }), refusal);
    EXPECT_EQ(err, 22u);
    err = 0;
    EXPECT_EQ(log_of([&] { number_tbl_pkey_delete(h(), d, table, one, &err); }), refusal);
    err = 0;
    EXPECT_EQ(dump(table), "1:1");
    number_tbl_request_record_destroy(h(), d, table, one, &err);
    EXPECT_EQ(table->pending_destroy_count, 1u);
    const u64 waiting = h()->pending_totals->pending_destroy;
    EXPECT_EQ(dump(table), "1:1");
    h()->gc_context = 1;
    EXPECT_EQ(erase(one), 0u);
    EXPECT_EQ(table->pending_destroy_count, 0u);
    EXPECT_EQ(h()->pending_totals->pending_destroy, waiting - 1);
    EXPECT_EQ(one->loom_record.record_flags, REC_IN_TABLE | REC_PENDING_DESTROY) << "the marks stay";
    number_tbl_insert(h(), d, table, one, &err);
    EXPECT_EQ(one->loom_record.record_flags, REC_IN_TABLE) << "an insert sets them anew";
    EXPECT_EQ(err, 0u);
}

TEST_F(insert_delete, a_quiet_write_cursor_stays) {
    loom_table_set_replication(h(), d, table, 1, 0);
    number_tbl_table_record* one = number(1);
    const std::string log = log_of([&] { number_tbl_insert(h(), d, table, one, &err); });
    EXPECT_EQ(log.find("enqueue"), std::string::npos) << log;
}

TEST_F(insert_delete, the_chain_deletes_and_ends) {
    number_tbl_table_record* one = number(1);
    EXPECT_EQ(number_tbl_insert_cr(h(), table, one, 1), 0u);
    EXPECT_EQ(one->loom_record.record_flags, REC_IN_TABLE | REC_PKEY_MARK);
    EXPECT_EQ(number_tbl_delete_cr(h(), table, one, 0), 0u);
    EXPECT_EQ(one->loom_record.ref_count, 1u);
    EXPECT_EQ(number_tbl_delete_cr(h(), table, one, 1), 2u) << "not there: nothing is ended";
    EXPECT_EQ(one->loom_record.ref_count, 1u);
    h()->last_error = 0;
    number_tbl_insert_cr(h(), table, one, 0);
    const std::string log = log_of([&] { EXPECT_EQ(number_tbl_delete_cr(h(), table, one, 1), 0u); });
    EXPECT_NE(log.find("free 1:1\n"), std::string::npos) << log;
}

/// Every store of insert and delete stands behind its announcement.
TEST(insert_delete_stores, are_announced) {
    trellis::testing::handle_options options;
    options.db_kind = LOOM_DB_MAPPED;
    options.check_stores = true;
    test_handle handle(options);
    u32 err = 0;
    loom_table* table = number_tbl_table_open_by_id(handle, 1, 4, 0, &err);
    std::vector<number_tbl_table_record*> records;
    for (u32 id : {4u, 2u, 6u, 1u, 3u, 5u, 7u}) {
        records.push_back(number_tbl_create_record_w_src(handle, 1, id == 3 ? 255 : 1, &err));
        number_row* payload = number_row_create(handle, 1);
        number_row_id_set_value(handle, 1, payload, id, &err);
        number_tbl_number_row_set_field(handle, 1, records.back(), payload);
        handle.end_operation();
        number_tbl_insert(handle, 1, table, records.back(), &err);
        handle.end_operation();
    }
    for (number_tbl_table_record* each : records) {
        number_tbl_record_add_ref(handle, 1, each, &err);
        number_tbl_destroy_record(handle, 1, each, &err);
        number_tbl_destroy_record(handle, 1, each, &err);
        handle.end_operation();
    }
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(handle.take_violations(), "");
}

} // namespace
