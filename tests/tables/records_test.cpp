// Table records: making and ending them, their reference count, the sentinel, and the accessors of their fields.
#include "forms.h"

#include <cstring>

using namespace table_tests;

namespace {

class table_record : public forms_test {
  protected:
    table_record() : forms_test(shared_kind()) {
        open_numbers(); // so that all type information is in the database
        number_tbl_destroy_record(h(), d, number(99), &err);
        pair_tbl_destroy_record(h(), d, pair_tbl_create_record(h(), d, &err), &err);
    }
    u64 made_and_alive() {
        const loom_variant_entry& entry = *_number_tbl_table_record_type_info_internal.variant_table->entries;
        return entry.objects_created - entry.objects_destroyed;
    }
};

TEST_F(table_record, is_made_in_order) {
    number_tbl_table_record* record = nullptr;
    EXPECT_EQ(log_of([&] { record = number_tbl_create_record_w_src(h(), d, 7, &err); }), "alloc 112 = b1\n"
                                                                                         "hook b1 8 0\n"
                                                                                         "kind 2\n"
                                                                                         "contains b1 in 0\n"
                                                                                         "dirty b1\n");
    EXPECT_EQ(record->loom_record.ref_count, 1u);
    EXPECT_EQ(record->loom_record.src, 7u);
    EXPECT_EQ(record->loom_record.tenant_id, 0u);
    EXPECT_EQ(record->loom_record.record_flags, 0u);
    EXPECT_EQ(record->loom_record.table, nullptr);
    EXPECT_EQ(record->number_row, nullptr);
    EXPECT_STREQ(record->loom_record.loom_tinfo->name, "number_tbl_record");
    EXPECT_NE(record->loom_record.loom_tinfo, &_number_tbl_table_record_type_info_internal) << "manifested";
    as_tenant five(5);
    EXPECT_EQ(number_tbl_create_record(h(), d, &err)->loom_record.tenant_id, 5u);
    EXPECT_EQ(number_tbl_create_record(h(), d, &err)->loom_record.src, 1u);
}

TEST_F(table_record, making_one_forgets_a_pending_error) {
    err = 9;
    EXPECT_NE(number_tbl_create_record(h(), d, &err), nullptr);
    EXPECT_EQ(err, 0u);
    handle.fail_allocation(1);
    err = 9;
    EXPECT_EQ(log_of([&] { EXPECT_EQ(number_tbl_create_record(h(), d, &err), nullptr); }),
              "alloc 112 = none\nkind 2\ncontains 0 in 0\n");
    EXPECT_EQ(err, 9u);
}

/// Neither for the record nor for the description of its type, which the first one brings into the database.
TEST(table_record_without_room, is_null_with_error_12) {
    trellis::testing::handle_options options;
    options.db_kind = LOOM_DB_PRIVATE_MANIFESTED;
    constexpr u32 d = test_handle::domain;
    u64 refusals = 0;
    for (u64 nth = 1;; ++nth) {
        test_handle handle(options), chain(options);
        u32 err = 0;
        handle.fail_allocation(nth);
        const number_tbl_table_record* record = number_tbl_create_record_w_src(handle, d, 7, &err);
        EXPECT_EQ(err, record == nullptr ? 12u : 0u) << nth;
        refusals += record == nullptr ? 1 : 0;
        chain.fail_allocation(nth);
        EXPECT_NE(number_tbl_record_create_cr(chain, 0)->loom_record.loom_tinfo, nullptr) << nth;
        if (!handle.allocation_failed()) break;
    }
    EXPECT_GT(refusals, 1u);
}

TEST_F(table_record, counts_references) {
    number_tbl_table_record* record = number(1);
    EXPECT_EQ(number_tbl_record_add_ref(h(), d, record, &err), 1u);
    EXPECT_EQ(record->loom_record.ref_count, 2u);
    EXPECT_EQ(log_of([&] { number_tbl_destroy_record(h(), d, record, &err); }), "hook 1:1.ref_count 4 0\n");
    EXPECT_EQ(record->loom_record.ref_count, 1u);
    const std::string log = log_of([&] { number_tbl_destroy_record(h(), d, record, &err); });
    EXPECT_EQ(log.rfind("hook 1:1.ref_count 4 0\n", 0), 0u) << log;
    EXPECT_NE(log.find("ended number_row 0\n"), std::string::npos) << log;
    EXPECT_NE(log.find("hook 1:1 8 0\nfree 1:1\n"), std::string::npos) << log;
    EXPECT_EQ(err, 0u);
}

TEST_F(table_record, the_upper_bits_of_the_count_go) {
    number_tbl_table_record* record = number(1);
    record->loom_record.ref_count = 0xAB000005;
    EXPECT_EQ(number_tbl_record_add_ref(h(), d, record, &err), 5u);
    EXPECT_EQ(record->loom_record.ref_count, 6u);
    record->loom_record.ref_count = 0;
    number_tbl_destroy_record(h(), d, record, &err);
    EXPECT_EQ(record->loom_record.ref_count, 0xFFFFFFu) << "a count of 0 wraps and the record stays";
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(number_tbl_record_add_ref(h(), d, record, &err), "\\(\\(1 << 24\\) - 1\\) != __ref_cnt");
}

TEST_F(table_record, null_is_error_2) {
    err = 0;
    EXPECT_EQ(number_tbl_record_add_ref(h(), d, nullptr, &err), 0u);
    EXPECT_EQ(err, 2u);
    err = 0;
    number_tbl_destroy_record(h(), d, nullptr, &err);
    EXPECT_EQ(err, 2u);
    EXPECT_EQ(h()->last_error, 2u);
    err = 5;
    number_tbl_table_record* record = number_tbl_create_record(h(), d, &err);
    EXPECT_EQ(number_tbl_record_add_ref(h(), d, record, &(err = 5)), 1u) << "a pending error is not looked at";
    number_tbl_destroy_record(h(), d, record, &err);
    EXPECT_EQ(record->loom_record.ref_count, 2u) << "and here it is";
}

TEST_F(table_record, leaves_its_table_with_its_last_reference) {
    loom_table* table = open_numbers();
    insert_number(table, 1);
    number_tbl_table_record* two = insert_number(table, 2);
    number_tbl_destroy_record(h(), d, two, &err);
    EXPECT_EQ(dump(table), "1:1");
    EXPECT_EQ(table->record_count, 1u);
    number_tbl_table_record* three = insert_number(table, 3);
    three->loom_record.record_flags |= REC_NO_AUTO_DELETE;
    three->loom_record.ref_count = 2;
    number_tbl_destroy_record(h(), d, three, &err);
    EXPECT_EQ(dump(table), "1:1 3:1");
    EXPECT_EQ(err, 0u);
}

TEST_F(table_record, a_replicated_table_refuses_and_the_record_ends_all_the_same) {
    loom_table* table = open_numbers();
    number_tbl_table_record* one = insert_number(table, 1);
    loom_table_set_replication(h(), d, table, 1, 0);
    const u64 alive = made_and_alive();
    const std::string log = log_of([&] { number_tbl_destroy_record(h(), d, one, &err); });
    EXPECT_NE(
        log.find("says 3 number_tbl_delete() cannot be direclty used when the table is marked for replication\n"
                 "error 22\nsays 3 Error 22 deleting number_tbl record when destroying\n"),
        std::string::npos)
        << log;
    EXPECT_NE(log.find("free 1:1\n"), std::string::npos) << log;
    EXPECT_EQ(err, 0u);
    EXPECT_LE(made_and_alive(), alive);
}

TEST_F(table_record, what_the_runtime_holds_can_keep_it) {
    number_tbl_table_record* record = number(1);
    record->loom_record.location = 1;
    record->loom_record.record_flags |= REC_HD_MAPPED;
    {
        failing refused("loom_hd_mapping_destroy", 5);
        int map = 0;
        if (h()->hd_map == nullptr) h()->hd_map = &map;
        const std::string log = log_of([&] { number_tbl_destroy_record(h(), d, record, &err); });
        EXPECT_NE(
            log.find("says 3 number_tbl destroy: Failed to remove oid mapping for object. Error Input/output "
                     "error\nerror 5\n"),
            std::string::npos)
            << log;
        if (h()->hd_map == &map) h()->hd_map = nullptr;
    }
    EXPECT_EQ(err, 5u);
    EXPECT_EQ(record->loom_record.ref_count, 0u);
    record->loom_record.ref_count = 1;
    record->number_row = nullptr;
    record->loom_record.record_flags = 0;
    err = 0;
    failing refused("loomlib_record_dereference_loc", 5);
    const std::string log = log_of([&] { number_tbl_destroy_record(h(), d, record, &err); });
    EXPECT_NE(
        log.find(
            "location of 1:1\nsays 3 number_tbl destroy: Failed to dereference location: Input/output error\n"),
        std::string::npos)
        << log;
    EXPECT_EQ(log.find("free 1:1"), std::string::npos) << log;
}

TEST_F(table_record, a_chain_makes_fields_and_a_sentinel) {
    pair_tbl_table_record* bare = pair_tbl_record_create_cr(h(), 0);
    EXPECT_EQ(bare->value_row, nullptr);
    pair_tbl_table_record* full = pair_tbl_record_create_cr(h(), 1);
    ASSERT_NE(full->value_row, nullptr);
    ASSERT_NE(full->pair_key, nullptr);
    EXPECT_EQ(full->value_row->loom_flags & OBJ_EMBEDDED, 0);
    EXPECT_EQ(h()->cr_active, 0u);
    handle.fail_allocation(1);
    pair_tbl_table_record* sentinel = pair_tbl_record_create_cr(h(), 1);
    ASSERT_NE(sentinel, nullptr);
    EXPECT_EQ(h()->last_error, 0u) << "a failed allocation leaves an empty slot";
    EXPECT_NE(sentinel->value_row, nullptr) << "a sentinel gets fields like any other";
    EXPECT_STREQ(sentinel->loom_record.loom_tinfo->name, "pair_tbl_record");
    handle.name(sentinel, sizeof *sentinel, "sentinel");
    const std::string log = log_of([&] { pair_tbl_record_destroy_cr(h(), sentinel); });
    EXPECT_NE(log.find("hook sentinel 8 0\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("free sentinel"), std::string::npos) << log;
    EXPECT_EQ(h()->last_error, 0u);
    handle.fail_allocation(1);
    EXPECT_EQ(pair_tbl_record_create_cr(h(), 0), sentinel);
    EXPECT_EQ(sentinel->loom_record.ref_count, 1u);
}

TEST_F(table_record, its_end_can_be_requested_where_it_is_replicated) {
    loom_table* table = open_numbers();
    number_tbl_table_record* one = insert_number(table, 1);
    number_tbl_request_record_destroy(h(), d, table, one, &err);
    EXPECT_EQ(err, 22u);
    EXPECT_EQ(h()->last_error, 22u);
    loom_table_set_replication(h(), d, table, 1, 0);
    err = 0;
    number_tbl_request_record_destroy(h(), d, table, nullptr, &err);
    EXPECT_EQ(err, 22u);
    err = 0;
    number_tbl_request_record_destroy(h(), d, table, one, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(one->loom_record.record_flags, REC_IN_TABLE | REC_PENDING_DESTROY);
    EXPECT_EQ(table->pending_destroy_count, 1u);
    number_tbl_table_record* two = insert_number(table, 2);
    h()->last_error = 0;
    EXPECT_EQ(number_tbl_request_record_destroy_cr(h(), table, two), 0u);
    EXPECT_EQ(table->pending_destroy_count, 2u);
    failing refused("loomdb_request_record_destroy", 5);
    const std::string log = log_of([&] { number_tbl_request_record_destroy(h(), d, table, one, &err); });
    EXPECT_NE(log.find("says 3 number_tbl request destroy record failed\n"), std::string::npos) << log;
}

TEST_F(table_record, hands_its_fields_out_and_over) {
    number_tbl_table_record* record = number(1);
    number_row* payload = record->number_row;
    EXPECT_EQ(log_of([&] { EXPECT_EQ(number_tbl_number_row_get_field(h(), d, record), payload); }),
              "kind 4\ncontains row1 in 1:1\n");
    EXPECT_EQ(log_of([&] { EXPECT_EQ(number_tbl_number_row_get_field_detach(h(), d, record), payload); }),
              "kind 4\ncontains row1 in 0\ndetached row1 0\nhook 1:1.payload 8 1:1\n");
    EXPECT_EQ(number_tbl_number_row_get_field(h(), d, record), nullptr);
    EXPECT_NE(payload->loom_flags & OBJ_EMBEDDED, 0);
    h()->last_error = 0;
    const std::string refused = log_of([&] { number_tbl_number_row_set_field(h(), d, record, payload); });
    EXPECT_EQ(refused.rfind("says 3 Object is either nested or already embedded. Cannot set such objects into the "
                            "record\nerror ",
                            0),
              0u)
        << refused;
    EXPECT_NE(h()->last_error, 0u);
    EXPECT_EQ(record->number_row, nullptr);
    number_row_destroy(h(), d, payload);
}

TEST_F(table_record, set_reports_before_and_replace_behind_the_store) {
    number_tbl_table_record* record = number(1);
    number_row* fresh = number_row_create(h(), d);
    handle.name(fresh, sizeof *fresh, "fresh");
    number_tbl_number_row_get_field_detach(h(), d, record);
    std::string log = log_of([&] { number_tbl_number_row_set_field(h(), d, record, fresh); });
    EXPECT_EQ(log.rfind("kind 4\ncontains fresh in 1:1\nhook 1:1.payload 8 1:1\n", 0), 0u) << log;
    number_row* newer = number_row_create(h(), d);
    handle.name(newer, sizeof *newer, "newer");
    log = log_of([&] { number_tbl_number_row_free_and_set_field(h(), d, record, newer); });
    EXPECT_NE(log.find("free fresh\nhook 1:1.payload 8 1:1\nkind 4\ncontains newer in 1:1\n"), std::string::npos)
        << log;
    EXPECT_EQ(record->number_row, newer);
    log = log_of([&] { number_tbl_number_row_free_and_set_field(h(), d, record, newer); });
    EXPECT_EQ(
        log.rfind("says 3 Object is either nested or already embedded in a record. Cannot set such objects into "
                  "the record\nerror ",
                  0),
        0u)
        << log;
}

TEST_F(table_record, key_objects_are_keys_or_empty_payloads) {
    number_row* payload = number_tbl_pkey_create(h(), d);
    EXPECT_STREQ(payload->loom_tinfo->name, "number_row");
    number_tbl_pkey_destroy(h(), d, payload);
    pair_key* key = pair_tbl_pkey_create(h(), d);
    EXPECT_STREQ(key->loom_tinfo->name, "pair_key");
    pair_tbl_pkey_destroy(h(), d, key);
    pair_tbl_pkey_destroy(h(), d, nullptr);
    whole_row* whole = whole_tbl_pkey_create(h(), d);
    EXPECT_STREQ(whole->loom_tinfo->name, "whole_row");
    whole_tbl_pkey_destroy(h(), d, whole);
    handle.fail_allocation(1);
    EXPECT_EQ(pair_tbl_pkey_create(h(), d), nullptr);
}

TEST_F(table_record, dies_of_broken_type_information) {
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    number_tbl_table_record* record = number(1);
    loom_type_info broken = *record->loom_record.loom_tinfo;
    broken.variant_table = nullptr;
    record->loom_record.loom_tinfo = &broken;
    EXPECT_DEATH(number_tbl_destroy_record(h(), d, record, &err), "varinfo is NULL");
    broken.magic = 1;
    EXPECT_DEATH(number_tbl_destroy_record(h(), d, record, &err), "tinfo is null or corrupted");
    record->loom_record.loom_tinfo = nullptr;
    EXPECT_DEATH(number_tbl_destroy_record(h(), d, record, &err), "tinfo is null or corrupted");
}

} // namespace
