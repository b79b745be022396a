// Ordered tables: the ring of sequence numbers, renumbering, and batch mode.
#include "forms.h"

#include <map>

using namespace table_tests;

namespace {

constexpr u32 at_end = 0xFFFFFFFF;

class ordered_table : public forms_test {
  protected:
    ordered_table() : table(open_places()) {}

    /// Inserts a record of that name and number; returns the error.
    u32 insert(const char* name, u32 position, u32 src = 1) {
        records[name] = place(name, position, src);
        err = 0;
        place_tbl_insert(h(), d, table, records[name], &err);
        return err;
    }
    u32 erase(const char* name) {
        err = 0;
        place_tbl_delete(h(), d, table, records[name], &err);
        return err;
    }
    u32 start() {
        err = 0;
        place_tbl_seq_compact_batch_start(h(), d, table, &err);
        return err;
    }
    u32 end() {
        err = 0;
        place_tbl_seq_compact_batch_end(h(), d, table, &err);
        return err;
    }

    loom_table* table;
    std::map<std::string, place_tbl_table_record*> records;
};

TEST_F(ordered_table, numbers_are_dense_positions) {
    EXPECT_EQ(insert("x", 2), 7u);
    EXPECT_EQ(insert("x", 0), 7u);
    EXPECT_EQ(ring(table), "| 0");
    EXPECT_EQ(insert("a", at_end), 0u);
    EXPECT_EQ(ring(table), "a=1 | 1");
    EXPECT_EQ(insert("b", 2), 0u);
    EXPECT_EQ(insert("c", at_end), 0u);
    EXPECT_EQ(ring(table), "a=1 b=2 c=3 | 3");
    EXPECT_EQ(insert("d", 2), 0u);
    EXPECT_EQ(ring(table), "a=1 d=2 b=3 c=4 | 4");
    EXPECT_EQ(insert("e", 1), 0u);
    EXPECT_EQ(ring(table), "e=1 a=2 d=3 b=4 c=5 | 5");
    EXPECT_EQ(insert("x", 7), 7u);
    EXPECT_EQ(erase("d"), 0u);
    EXPECT_EQ(ring(table), "e=1 a=2 b=3 c=4 | 4");
    EXPECT_EQ(erase("e"), 0u);
    EXPECT_EQ(erase("c"), 0u);
    EXPECT_EQ(ring(table), "a=1 b=2 | 2");
    EXPECT_EQ(erase("a"), 0u);
    EXPECT_EQ(erase("b"), 0u);
    EXPECT_EQ(ring(table), "| 0");
    EXPECT_EQ(table->seq_head, nullptr);
    EXPECT_EQ(insert("f", 1), 0u);
    EXPECT_EQ(ring(table), "f=1 | 1");
}

TEST_F(ordered_table, refuses_in_words) {
    place_tbl_table_record* x = place("x", 5);
    EXPECT_EQ(log_of([&] { place_tbl_insert(h(), d, table, x, &err); }),
              "says 3 place_tbl insert record rejected: seq out of range.\nerror 7\n");
    EXPECT_EQ(table->record_count, 0u);
    EXPECT_EQ(x->loom_record.table, nullptr);
    err = 0;
    start();
    x->place_row->reorder_seq_compact_no = at_end;
    EXPECT_EQ(
        log_of([&] { place_tbl_insert(h(), d, table, x, &err); }),
        "says 3 place_tbl insert record rejected: UINT32_MAX can not be used in sequence batch mode\nerror 22\n");
    EXPECT_EQ(log_of([&] { place_tbl_seq_compact_batch_start(h(), d, table, &err); }),
              "says 3 It's already in Sequence Batch Mode\nerror 22\n");
    EXPECT_EQ(end(), 0u);
    EXPECT_EQ(log_of([&] { place_tbl_seq_compact_batch_end(h(), d, table, &err); }),
              "says 3 We are not in Sequence Batch Mode\nerror 22\n");
}

TEST_F(ordered_table, a_duplicate_keeps_its_rewritten_number) {
    insert("a", 1);
    place_tbl_table_record* twin = place("a", at_end);
    err = 0;
    place_tbl_insert(h(), d, table, twin, &err);
    EXPECT_EQ(err, 17u);
    EXPECT_EQ(twin->place_row->reorder_seq_compact_no, 2u);
    EXPECT_EQ(table->seq_count, 1u);
}

TEST_F(ordered_table, shadows_stand_beside_the_ring) {
    insert("a", 1);
    EXPECT_EQ(insert("s", at_end, 255), 0u);
    EXPECT_EQ(records["s"]->place_row->reorder_seq_compact_no, at_end);
    EXPECT_EQ(insert("t", 99, 255), 0u);
    EXPECT_EQ(ring(table), "a=1 | 1");
    EXPECT_EQ(table->record_count, 3u);
    EXPECT_EQ(table->shadow_count, 2u);
    EXPECT_EQ(erase("s"), 0u);
    EXPECT_EQ(ring(table), "a=1 | 1");
    EXPECT_EQ(table->shadow_count, 1u);
}

TEST_F(ordered_table, batch_mode_puts_renumbering_off) {
    insert("a", 1);
    insert("b", 2);
    insert("c", 3);
    EXPECT_EQ(start(), 0u);
    EXPECT_EQ(insert("d", 2), 0u);
    EXPECT_EQ(insert("e", 2), 0u);
    EXPECT_EQ(ring(table), "a=1 e=2 d=2 b=2 c=3 | 3") << "a later insert stands before the earlier one";
    EXPECT_EQ(insert("x", 5), 7u);
    EXPECT_EQ(erase("d"), 0u);
    EXPECT_EQ(ring(table), "a=1 e=2 b=2 c=3 | 2") << "this very record, among equal numbers";
    EXPECT_EQ(end(), 0u);
    EXPECT_EQ(ring(table), "a=1 e=2 b=3 c=4 | 4");
    EXPECT_EQ(table->seq_batch_mode, 0u);
}

TEST_F(ordered_table, the_closing_pass_keeps_gaps) {
    for (const char* name : {"a", "b", "c", "d", "e"})
        insert(name, at_end);
    start();
    for (const char* name : {"b", "c", "d"})
        erase(name);
    EXPECT_EQ(ring(table), "a=1 e=5 | 2");
    EXPECT_EQ(insert("f", 1), 0u);
    EXPECT_EQ(insert("g", 1), 0u);
    EXPECT_EQ(ring(table), "g=1 f=1 a=1 e=5 | 2");
    EXPECT_EQ(end(), 0u);
    EXPECT_EQ(ring(table), "g=1 f=2 a=3 e=5 | 5");
}

TEST_F(ordered_table, an_empty_batch_ends_with_no_numbers) {
    insert("a", 1);
    start();
    erase("a");
    EXPECT_EQ(ring(table), "| 0");
    EXPECT_EQ(end(), 0u);
    EXPECT_EQ(ring(table), "| 0");
    start();
    EXPECT_EQ(insert("b", 1), 0u);
    EXPECT_EQ(ring(table), "b=1 | 1") << "the count is never 0 with a record on the ring";
    EXPECT_EQ(end(), 0u);
}

TEST_F(ordered_table, a_lost_number_is_told_and_not_mended) {
    insert("a", 1);
    insert("b", 2);
    insert("s", 9, 255);
    records["s"]->loom_record.src = 1; // in the tree, and not on the ring
    err = 0;
    const std::string log = log_of([&] { place_tbl_delete(h(), d, table, records["s"], &err); });
    EXPECT_NE(log.find("hook b.number 4 0\nhook a.number 4 0\n"
                       "says 3 place_tbl delete record failed: seq number not found.\nerror 2\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(ring(table), "a=0 b=1 | 2");
    EXPECT_EQ(table->record_count, 3u);
    EXPECT_EQ(records["s"]->loom_record.table, nullptr);
}

TEST_F(ordered_table, hooks_stand_before_their_stores) {
    insert("a", 1);
    insert("b", 2);
    place_tbl_table_record* c = place("c", 2);
    err = 0;
    const std::string log = log_of([&] { place_tbl_insert(h(), d, table, c, &err); });
    EXPECT_EQ(log.substr(log.find("hook")), // behind the tree's own notices
              "hook c.table 8 c\n"
              "hook b.number 4 b\n"
              "hook c.seq_next 8 0\n"
              "hook c.seq_prev 8 0\n"
              "hook a.seq_next 8 0\n"
              "hook b.seq_prev 8 0\n"
              "hook table.seq_count 4 0\n"
              "hook table.record_count 4 0\n"
              "hook c.record_flags 4 c\n");
    EXPECT_EQ(ring(table), "a=1 c=2 b=3 | 3");
}

TEST_F(ordered_table, the_last_record_is_unlinked_like_any_other) {
    insert("a", 1);
    err = 0;
    const std::string log = log_of([&] { place_tbl_delete(h(), d, table, records["a"], &err); });
    EXPECT_NE(log.find("hook a.table 8 a\n"
                       "hook a.seq_next 8 0\n"
                       "hook a.seq_prev 8 0\n"
                       "hook table.seq_head 8 0\n"
                       "hook table.seq_count 4 0\n"
                       "hook table.record_count 4 0\n"),
              std::string::npos)
        << log;
}

TEST_F(ordered_table, destroying_a_record_closes_its_gap) {
    insert("a", 1);
    insert("b", 2);
    insert("c", 3);
    err = 0;
    place_tbl_destroy_record(h(), d, records["a"], &err);
    EXPECT_EQ(ring(table), "b=1 c=2 | 2");
    EXPECT_EQ(place_tbl_delete_cr(h(), table, records["b"], 1), 0u);
    EXPECT_EQ(ring(table), "c=1 | 1");
}

} // namespace
