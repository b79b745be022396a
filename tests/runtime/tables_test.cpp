// The database layer of tables: contents, collection, replication, tenants, locations.
#include "tests/runtime/support.h"

#include <cstring>

namespace {
using namespace runtime_test;

class table_layer : public in_write_section {
  protected:
    bool shared() const { return GetParam() == memory_kind::shared_file; }
    loom_table* open(const std::string& name) { return fake_table_open(handle, 1, name.c_str(), &err); }
    loom_table* find(const std::string& path) { return fake_table_find(handle, 1, path, &err); }
    /// Adds records of the keys 0, 1, 2...
    std::vector<fake_record*> filled(loom_table* table, std::uint32_t count) {
        std::vector<fake_record*> records;
        for (std::uint32_t key = 0; key < count; ++key)
            records.push_back(fake_table_add(handle, 1, table, key, &err));
        return records;
    }
    std::vector<loom_table*> all() {
        std::vector<loom_table*> tables;
        loom_each_table(
            handle,
            [](loom_table* table, void* context) {
                static_cast<std::vector<loom_table*>*>(context)->push_back(table);
                return 0u;
            },
            &tables);
        return tables;
    }
    loom_gc_result collect() {
        loom_gc_result result{};
        EXPECT_EQ(loom_gc_run(handle, &result), 0u);
        return result;
    }
};
INSTANTIATE_TEST_SUITE_P(kinds, table_layer,
                         testing::Values(memory_kind::private_memory, memory_kind::shared_file,
                                         memory_kind::exclusive_file),
                         name_of_kind);

TEST_P(table_layer, contents_are_per_domain_and_by_path_or_id) {
    EXPECT_FALSE(loomdb_database_toc_get(handle, 1, &err));
    EXPECT_FALSE(loomlib_database_table_toc_get(handle, LOOM_DOMAIN_NONE, &err));
    std::vector<loom_table*> tables;
    for (int i = 0; i < 60; ++i)
        tables.push_back(open("path/" + std::to_string(i)));
    for (std::size_t i = 0; i < 60; ++i)
        EXPECT_EQ(find("path/" + std::to_string(i)), tables[i]);
    EXPECT_FALSE(find("path/60"));
    EXPECT_EQ(all(), tables);
    EXPECT_FALSE(fake_table_find(handle, 2, "path/1", &err));
    EXPECT_EQ((loomdb_database_toc_get(handle, 1, &err)->flags & LOOM_TOC_SHARED) != 0, shared());

    loom_table* numbered = tables[3];
    loomdb_database_toc_delete(handle, 1, numbered, &err);
    loomgc_database_gc_list_remove(handle, 1, numbered, &err);
    err = 0;
    numbered->open_mode = 1;
    numbered->table_id = 50;
    loomdb_database_toc_insert(handle, 1, numbered, 0, &err);
    const auto by_id = [&](std::uint64_t id) {
        return loomdb_database_toc_get_table_root(handle, 1, nullptr, 0, id, fake_table_type.info.luid, 16, 0,
                                                  &err);
    };
    EXPECT_EQ(by_id(50), numbered);
    EXPECT_FALSE(by_id(51));
    EXPECT_FALSE(find("path/3"));
    EXPECT_EQ(err, 0u);
    loomdb_database_toc_insert(handle, 1, numbered, 0, &err);
    EXPECT_EQ(std::exchange(err, 0u), std::uint32_t{LOOM_EEXIST});
    const std::uint8_t other_luid[16] = {1};
    EXPECT_FALSE(loomdb_database_toc_get_table_root(handle, 1, "path/1", 6, 0, other_luid, 16, 1, &err));
    EXPECT_EQ(err, std::uint32_t{LOOM_EINVAL});
}

TEST_P(table_layer, a_table_that_was_taken_out_may_be_taken_out_again) {
    loom_table* table = open("a/table");
    loom_table* never_in = static_cast<loom_table*>(handle->alloc(handle->alloc_ctx, 1, sizeof(loom_table)));
    std::memset(static_cast<void*>(never_in), 0, sizeof *never_in);
    loomdb_database_toc_delete(handle, 1, never_in, &err);
    EXPECT_EQ(std::exchange(err, 0u), std::uint32_t{LOOM_ENOENT});
    loomdb_database_toc_delete(handle, 1, table, &err);
    EXPECT_FALSE(find("a/table"));
    loomdb_database_toc_delete(handle, 1, table, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ((table->table_flags & LOOM_TABLE_ON_GC_LIST) != 0, shared());
}

TEST_P(table_layer, tables_of_shared_databases_are_ended_by_the_collector) {
    loom_table* table = open("to/collect");
    fake_record* record = fake_table_add(handle, 1, table, 1, &err);
    loomdb_database_toc_delete(handle, 1, table, &err);
    if (!shared()) {
        EXPECT_EQ(collect().tables_freed, 0u);
        return;
    }
    EXPECT_EQ(collect().tables_waiting, 1u); // it has a record
    loomdb_request_record_destroy(handle, 1, &record->record, &err);
    loom_gc_result result = collect();
    EXPECT_EQ(result.records_destroyed, 1u);
    EXPECT_EQ(result.tables_freed, 1u);
    EXPECT_TRUE(all().empty());
    EXPECT_EQ(loom_oid_mapping_count(handle), 0u);
    EXPECT_EQ(err, 0u);
}

/// On the collector's list it goes with its last reference; elsewhere its caller repeats the free, until when
/// nothing else can lie at its address.
TEST_P(table_layer, a_referenced_table_waits_for_its_last_reference) {
    loom_table* table = open("referenced");
    loom_oid oid;
    loom_handle_to_oid(&oid, handle, 1, table, 2, 1, &err);
    EXPECT_FALSE(table->header.loom_flags & OBJ_OID_MAPPED);
    const loom_table_vft* vft = loom_find_table_vft(handle, fake_table_type.info.luid);
    ASSERT_EQ(vft, &fake_table_vft);
    const auto free_table = reinterpret_cast<void (*)(loom_handle*, std::uint32_t, loom_table*, std::uint32_t*)>(
        const_cast<void*>(vft->slots[LOOM_VFT_TABLE_FREE]));
    free_table(handle, 1, table, &err);
    EXPECT_EQ(std::exchange(err, 0u), shared() ? 0u : std::uint32_t{LOOM_EAGAIN});
    EXPECT_EQ(collect().tables_waiting, shared() ? 1u : 0u);
    EXPECT_EQ(all().size(), 1u);
    loomlib_oid_release_internal(handle, 1, &oid, &err);
    EXPECT_EQ(err, 0u);
    if (!shared()) {
        const loom_gc_result result = collect();
        EXPECT_EQ(result.objects_waiting + result.objects_destroyed + result.tables_freed, 0u);
        loom_table* other = open("other");
        EXPECT_EQ(all(), (std::vector<loom_table*>{table, other}));
        free_table(handle, 1, table, &err);
        EXPECT_EQ(all(), std::vector<loom_table*>{other});
        free_table(handle, 1, other, &err);
    }
    EXPECT_EQ(err, 0u);
    EXPECT_TRUE(all().empty());
    EXPECT_EQ(loom_oid_mapping_count(handle), 0u);
}

/// Marked for sharing in between, it is the collector's as soon as it is taken out again.
TEST_P(table_layer, a_table_that_waits_for_its_caller_can_be_left_to_the_collector) {
    loom_table* table = open("left");
    loom_database_mark_shared(handle, 0);
    loomdb_database_toc_delete(handle, 1, table, &err);
    loom_database_mark_shared(handle, 1);
    EXPECT_EQ(collect().tables_freed, 0u);
    loomdb_database_toc_delete(handle, 1, table, &err);
    EXPECT_EQ(collect().tables_freed, 1u);
    EXPECT_EQ(err, 0u);
}

TEST_P(table_layer, pending_records_are_counted_and_ended_behind_the_cursors) {
    loom_table* table = open("replicated");
    EXPECT_FALSE(loomdb_table_are_cursors_enabled(handle, 1, table, &err));
    EXPECT_EQ(loom_table_set_replication(handle, 1, table, 1, 1), 0u);
    EXPECT_TRUE(loomdb_table_are_cursors_enabled(handle, 1, table, &err));
    std::vector<fake_record*> records;
    for (std::uint32_t key = 0; key < 10; ++key)
        records.push_back(fake_table_add(handle, 1, table, 9 - key, &err));
    EXPECT_EQ(loom_table_write_cursor(handle, table), 10u);

    std::vector<std::uint32_t> keys;
    loom_table_each_enqueued(
        handle, table, 7,
        [](loom_table*, loom_table_record* record, std::uint64_t, void* c) {
            static_cast<std::vector<std::uint32_t>*>(c)->push_back(reinterpret_cast<fake_record*>(record)->key);
        },
        &keys);
    EXPECT_EQ(keys, (std::vector<std::uint32_t>{2, 1, 0})); // in the order of insertion, not of keys

    for (int i = 0; i < 4; ++i)
        loomdb_request_record_destroy(handle, 1, &records[static_cast<std::size_t>(i)]->record, &err);
    loomdb_request_record_destroy(handle, 1, &records[0]->record, &err); // once is enough
    EXPECT_EQ(table->pending_destroy_count, 4u);
    EXPECT_EQ(handle->pending_totals->pending_destroy, 4u);
    loom_gc_result result = collect();
    EXPECT_EQ(result.records_waiting, 4u);
    EXPECT_EQ(loom_table_advance_read_cursor(handle, table, 3), 0u);
    EXPECT_EQ(loom_table_advance_read_cursor(handle, table, 2), std::uint32_t{EINVAL});
    EXPECT_EQ(loom_table_advance_read_cursor(handle, table, 11), std::uint32_t{EINVAL});
    result = collect();
    EXPECT_EQ(result.records_destroyed, 3u);
    EXPECT_EQ(result.records_waiting, 1u);
    EXPECT_EQ(table->record_count, 7u);
    EXPECT_EQ(handle->pending_totals->pending_destroy, 1u);
    EXPECT_EQ(handle->gc_context, 0u);
    EXPECT_EQ(err, 0u);
    loomdb_request_record_destroy(handle, 1, nullptr, &err);
    EXPECT_EQ(err, std::uint32_t{LOOM_EINVAL});
}

TEST_P(table_layer, the_collector_works_under_the_tenant_of_each_record) {
    loom_table* table = open("tenants");
    for (const std::uint16_t tenant : std::vector<std::uint16_t>{5, 0, 7}) {
        loom_set_tenant(tenant);
        loomdb_request_record_destroy(handle, 1, &fake_table_add(handle, 1, table, tenant, &err)->record, &err);
    }
    loom_set_tenant(6);
    EXPECT_EQ(collect().records_destroyed, 3u);
    std::uint16_t tenant = 0;
    mt_get_tenant_id(&tenant);
    EXPECT_EQ(tenant, 6u);
    loom_set_tenant(0);
    for (const std::uint16_t each : std::vector<std::uint16_t>{5, 6, 7}) {
        std::uint32_t count = 99;
        loomdb_get_tenant_counter(handle, 1, table, &count, each, nullptr);
        EXPECT_EQ(count, 0u);
    }
    EXPECT_EQ(err, 0u);
}

TEST_P(table_layer, the_collector_notices_a_table_that_must_not_go) {
    loom_table* table = open("full");
    fake_table_add(handle, 1, table, 1, &err);
    loom_set_gc_validation(handle, 1);
    EXPECT_EQ(handle->gc_validation, 1u);
    loomgc_validate_table_delete(handle, table);
    EXPECT_EQ(loom_gc_validation_failures(handle), 1u);
    EXPECT_NE(std::string(loom_error_text()).find("\"full\""), std::string::npos);
    loomgc_validate_table_delete(handle, open("empty"));
    EXPECT_EQ(loom_gc_validation_failures(handle), 1u);
}

TEST_P(table_layer, tenants_are_counted_by_source) {
    loom_table* table = open("tenants");
    for (std::uint16_t tenant = 1; tenant < 40; ++tenant)
        for (std::uint8_t src = 1; src < 4; ++src)
            for (int i = 0; i < src; ++i)
                loomdb_update_tenant_counter(handle, 1, table, 1, tenant, src, &err);
    loomdb_update_tenant_counter(handle, 1, table, 0, 7, 3, &err);
    ASSERT_EQ(err, 0u);
    const auto count = [&](std::uint16_t tenant, const std::uint8_t* src) {
        std::uint32_t value = 99;
        loomdb_get_tenant_counter(handle, 1, table, &value, tenant, src);
        return value;
    };
    const std::uint8_t two = 2, three = 3, four = 4;
    EXPECT_EQ(count(7, nullptr), 5u);
    EXPECT_EQ(count(7, &three), 2u);
    EXPECT_EQ(count(8, &three), 3u);
    EXPECT_EQ(count(8, &two), 2u);
    EXPECT_EQ(count(8, &four), 0u);
    EXPECT_EQ(count(0, nullptr), 0u);
    loomdb_update_tenant_counter(handle, 1, table, 0, 100, 1, &err);
    EXPECT_EQ(std::exchange(err, 0u), std::uint32_t{LOOM_ENOENT});
    std::uint16_t tenant = 99;
    mt_get_tenant_id(&tenant);
    EXPECT_EQ(tenant, 0u);
    loom_set_tenant(5);
    mt_get_tenant_id(&tenant);
    EXPECT_EQ(tenant, 5u);
    loom_set_tenant(0);
    // The counts go with the table.
    loomdb_database_toc_delete(handle, 1, table, &err);
    if (shared()) loomgc_database_gc_list_remove(handle, 1, table, &err);
    EXPECT_NE(loom_request_oid_mapping_destroy(handle, 1, table, &err), 0u);
    EXPECT_EQ(count(8, nullptr), 0u);
}

TEST_P(table_layer, locations_are_shared_and_counted) {
    loom_table* table = open("located");
    const std::vector<fake_record*> records = filled(table, 6);
    loom_record_set_location(handle, 1, &records[0]->record, "seg7/row9");
    const std::uint64_t before = usage().bytes;
    for (fake_record* each : records)
        loom_record_set_location(handle, 1, &each->record, "seg7/row9");
    EXPECT_EQ(usage().bytes, before);
    EXPECT_STREQ(loom_record_location(&records[3]->record), "seg7/row9");
    for (fake_record* each : records)
        loomlib_record_dereference_loc(handle, 1, &each->record, &err);
    EXPECT_EQ(records[3]->record.location, 0u);
    loomlib_record_dereference_loc(handle, 1, &records[3]->record, &err);
    EXPECT_EQ(err, 0u);
    records[0]->record.location = 1234;
    loomlib_record_dereference_loc(handle, 1, &records[0]->record, &err);
    EXPECT_EQ(err, std::uint32_t{LOOM_EINVAL});
}

TEST_P(table_layer, the_replication_cache_shows_what_readers_were_handed) {
    loom_table* table = open("read");
    const std::vector<fake_record*> records = filled(table, 300);
    for (fake_record* each : records)
        loomrepl_add_to_cache(handle, 1, table, &each->record, &err);
    EXPECT_EQ(loom_replication_cache_count(handle), 300u);
    std::vector<const loom_table_record*> seen;
    loom_replication_cache_each(
        handle,
        [](loom_table*, loom_table_record* record, std::uint64_t, void* context) {
            static_cast<std::vector<const loom_table_record*>*>(context)->push_back(record);
        },
        &seen);
    ASSERT_EQ(seen.size(), 256u);
    EXPECT_EQ(seen.front(), &records[44]->record);
    EXPECT_EQ(seen.back(), &records[299]->record);
}

TEST_P(table_layer, the_mark_of_sharing_can_be_changed) {
    open("marked");
    EXPECT_EQ(loom_database_mark_shared(handle, !shared()), 0u);
    EXPECT_EQ((loomdb_database_toc_get(handle, 1, &err)->flags & LOOM_TOC_SHARED) != 0, !shared());
    EXPECT_EQ((loomdb_database_toc_open(handle, 5, &err)->flags & LOOM_TOC_SHARED) != 0, !shared());
}

TEST_P(table_layer, an_abort_takes_everything_back) {
    loom_table* kept = open("kept");
    fake_table_add(handle, 1, kept, 1, &err);
    loom_write_commit(handle);
    const std::uint64_t before = usage().blocks;
    loom_write_begin(handle);
    for (std::uint32_t key = 2; key < 100; ++key)
        fake_table_add(handle, 1, kept, key, &err);
    for (int i = 0; i < 40; ++i)
        open("gone/" + std::to_string(i));
    loom_table_set_replication(handle, 1, kept, 1, 1);
    loomdb_update_tenant_counter(handle, 1, kept, 1, 3, 1, &err);
    loom_write_abort(handle);
    EXPECT_EQ(usage().blocks, before);
    EXPECT_EQ(kept->record_count, 1u);
    EXPECT_FALSE(loomdb_table_are_cursors_enabled(handle, 1, kept, &err));
    EXPECT_EQ(all().size(), 1u);
    EXPECT_FALSE(find("gone/7"));
    EXPECT_EQ(loom_oid_mapping_count(handle), 1u);
    loom_write_begin(handle);
    EXPECT_TRUE(open("after"));
}
} // namespace
