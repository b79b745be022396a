// The end of tables: closing, freeing, requesting the free, and who may call what.
#include "forms.h"

using namespace table_tests;

namespace {

class free_table : public forms_test {
  protected:
    free_table() : forms_test(shared_kind()) {}
    loom_table* reopened(const char* name = "numbers") { return number_tbl_table_open(h(), d, name, 1, &err); }
};

TEST_F(free_table, closing_is_nothing) {
    loom_table* table = open_numbers();
    h()->last_error = 3;
    number_tbl_table_close(h(), d, table, &err);
    EXPECT_EQ(h()->last_error, 0u);
    number_tbl_table_close(h(), d, table, &err);
    EXPECT_EQ(reopened(), table);
    EXPECT_EQ(number_tbl_table_close_cr(h(), table, 0), 0u);
    EXPECT_EQ(number_tbl_table_close_cr(h(), table, 7), 0u);
    EXPECT_EQ(reopened(), table);
    EXPECT_EQ(number_tbl_table_close_cr(h(), table, 1), 0u);
    EXPECT_EQ(reopened(), nullptr);
    EXPECT_EQ(number_tbl_table_close_cr(h(), open_numbers(), 2), 0u);
    EXPECT_EQ(reopened(), nullptr);
}

TEST_F(free_table, undoes_in_order) {
    loom_table* first = open_numbers("first");
    name_fields(handle, first, "first");
    loom_table* second = open_numbers("second");
    name_fields(handle, second, "second");
    loom_table* third = open_numbers("third");
    name_fields(handle, third, "third");
    auto* list = loomlib_database_table_toc_get(h(), LOOM_DOMAIN_NONE, &err);
    handle.name(list, sizeof *list, "list");
    EXPECT_EQ(log_of([&] { number_tbl_table_free(h(), d, second, &err); }),
              "toc delete second\n"
              "unmap second\n"
              "says 7 number_tbl table free: Successfully removed OID mapping for number_tbl\n"
              "range third.toc_prev 8\n"
              "dirty third\n"
              "range first.toc_next 8\n"
              "dirty list\n"
              "destroyed second\n"
              "free second\n");
    EXPECT_EQ(first->toc_next, third);
    EXPECT_EQ(third->toc_prev, &first->toc_next);
    EXPECT_EQ(log_of([&] { number_tbl_table_free(h(), d, third, &err); }),
              "toc delete third\n"
              "unmap third\n"
              "says 7 number_tbl table free: Successfully removed OID mapping for number_tbl\n"
              "range list+8 8\n"
              "dirty list\n"
              "range first.toc_next 8\n"
              "dirty list\n"
              "destroyed third\n"
              "free third\n");
    EXPECT_EQ(list->last, &first->toc_next);
    EXPECT_EQ(err, 0u);
}

TEST_F(free_table, waits_while_it_is_referenced) {
    loom_table* table = open_numbers();
    {
        failing referenced("loom_request_oid_mapping_destroy", 0);
        number_tbl_table_free(h(), d, table, &err);
        EXPECT_EQ(err, 11u);
        EXPECT_EQ(h()->last_error, 11u);
    }
    EXPECT_EQ(reopened(), nullptr) << "a pending error stops the open";
    err = 0;
    EXPECT_EQ(reopened(), nullptr) << "it is out of the table of contents";
    h()->gc_context = 1;
    loom_database_mark_shared(h(), 1);
    number_tbl_table_free(h(), d, table, &err);
    EXPECT_EQ(err, 0u);
}

/// Requested, it is the collector's even where no TOC is marked shared; it waits for references there, and may
/// still be freed by hand.
TEST_F(free_table, a_replicated_table_is_ended_by_the_collector_in_any_database) {
    loom_gc_result result{};
    for (const bool freed_by_hand : {false, true}) {
        loom_table* table = open_numbers();
        loom_table_set_replication(h(), d, table, 1, 0);
        loom_oid oid;
        loom_handle_to_oid(&oid, h(), d, table, 2, 1, &err);
        number_tbl_request_table_free(h(), d, table, &err);
        loom_gc_run(h(), &result);
        EXPECT_EQ(result.tables_waiting, 1u);
        if (freed_by_hand) {
            number_tbl_table_free(h(), d, table, &err);
            EXPECT_EQ(std::exchange(err, 0u), 11u);
        }
        loomlib_oid_release_internal(h(), d, &oid, &err);
        EXPECT_EQ(loom_oid_mapping_count(h()), freed_by_hand ? 1u : 0u);
        if (freed_by_hand) number_tbl_table_free(h(), d, table, &err);
        EXPECT_EQ(loom_oid_mapping_count(h()), 0u);
        EXPECT_EQ(err, 0u);
    }
    loom_table* table = open_numbers();
    loom_table_set_replication(h(), d, table, 1, 0);
    number_tbl_request_table_free(h(), d, table, &err);
    loom_table_set_replication(h(), d, table, 0, 0);
    loom_gc_run(h(), &result);
    EXPECT_EQ(result.tables_freed, 1u);
    EXPECT_EQ(err, 0u);
}

TEST_F(free_table, reports_what_is_refused) {
    loom_table* table = open_numbers();
    const auto free_with = [&](const char* operation, u32 number) {
        failing refused(operation, number);
        err = 0;
        return log_of([&] { number_tbl_table_free(h(), d, table, &err); });
    };
    EXPECT_EQ(free_with("loomdb_database_toc_open", 5),
              "says 3 Failed to get toc root while freeing table. Error Input/output error\n");
    EXPECT_EQ(err, 5u);
    EXPECT_EQ(free_with("loomdb_database_toc_delete", 5),
              "toc delete table\n"
              "says 3 number_tbl table free: Failed to delete table entry from TOC. Error: Input/output error\n");
    EXPECT_EQ(free_with("loom_request_oid_mapping_destroy", 5),
              "toc delete table\nunmap table\n"
              "says 3 number_tbl table free: Failed to request oid mapping destroy for table. Error Input/output "
              "error\n");
    err = 0;
    table->table_flags |= LOOM_TABLE_ON_GC_LIST;
    const std::string log = free_with("loomgc_database_gc_list_remove", 5);
    EXPECT_NE(log.find("says 3 number_tbl table free: Table being freed is still on the GC list!\n"
                       "gc list without table\n"
                       "says 3 number_tbl table free: Failed to remove table from the GC list. Error: "
                       "Input/output error\n"),
              std::string::npos)
        << log;
}

TEST_F(free_table, a_shared_table_is_left_to_the_collector) {
    loom_table* table = open_numbers();
    loom_database_mark_shared(h(), 1);
    EXPECT_EQ(
        log_of([&] { number_tbl_table_free(h(), d, table, &err); }),
        "says 7 APPLICATION ERROR! Table number_tbl in SHARED DB should be freed by requesting table free by "
        "the GC. Please free the table via toc delete or mark the DB as non-shared\ntoc delete table\n");
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(reopened(), nullptr);
    h()->gc_context = 1;
    h()->gc_validation = 1;
    const std::string log = log_of([&] { number_tbl_table_free(h(), d, table, &err); });
    EXPECT_EQ(log.find("toc delete"), std::string::npos) << log;
    EXPECT_NE(log.find("validate table\ndestroyed table\nfree table\n"), std::string::npos) << log;
    EXPECT_EQ(err, 0u);
}

TEST_F(free_table, a_request_ends_a_private_table_all_the_same) {
    loom_table* table = open_numbers();
    const std::string log = log_of([&] { number_tbl_request_table_free(h(), d, table, &err); });
    EXPECT_EQ(log.rfind("says 3 APPLICATION ERROR! LOOm_REQUEST_TABLE_FREE should only be used for SHARED "
                        "databases\ntoc delete table\n",
                        0),
              0u)
        << log;
    EXPECT_NE(log.find("free table\n"), std::string::npos) << log;
    EXPECT_EQ(err, 0u);
}

TEST_F(free_table, a_request_leaves_a_replicated_table_to_the_collector) {
    loom_table* table = open_numbers();
    shared_database writer(true);
    loom_table_set_replication(h(), d, table, 1, 0);
    EXPECT_EQ(log_of([&] { number_tbl_request_table_free(h(), d, table, &err); }),
              "toc delete table\ndestroyed table\n");
    EXPECT_EQ(log_of([&] { number_tbl_request_table_free(h(), d, table, &err); }),
              "toc delete table\ndestroyed table\n");
    EXPECT_EQ(err, 0u) << "a table that is out of the TOC already is no error";
    failing refused("loomdb_database_toc_delete", 5);
    EXPECT_EQ(log_of([&] { number_tbl_request_table_free(h(), d, table, &err); }),
              "toc delete table\n"
              "says 3 Failed to perform toc delete for table number_tbl. Error Input/output error\n");
}

TEST_F(free_table, a_pending_error_stops_all) {
    loom_table* table = open_numbers();
    err = 4;
    EXPECT_EQ(log_of([&] {
                  number_tbl_table_free(h(), d, table, &err);
                  number_tbl_request_table_free(h(), d, table, &err);
              }),
              "");
    EXPECT_EQ(err, 4u);
}

} // namespace
