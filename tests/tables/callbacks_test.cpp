// Record callbacks: to a handler when the application defines one, else to the trace. The test defines handlers of
// number_tbl (all seven), short_tbl (the plain ones) and none of quiet_tbl.
#include "forms.h"

using namespace table_tests;

namespace {
std::string called;

void note_call(const char* handler, std::initializer_list<u64> values, u32* err) {
    called += handler;
    for (u64 value : values)
        called += " " + std::to_string(value);
    called += "\n";
    *err = 77;
}
} // namespace

extern "C" {
void table_forms_number_tbl_table_record_create_handler(loom_handle*, u32 domain, u64 a, u64 b, u32* err) {
    note_call("create", {domain, a, b}, err);
}
void table_forms_number_tbl_table_record_modify_handler(loom_handle*, u32 domain, u64 a, u64 b, u32* err) {
    note_call("modify", {domain, a, b}, err);
}
void table_forms_number_tbl_table_record_delete_handler(loom_handle*, u32 domain, u64 a, u64 b, u32* err) {
    note_call("delete", {domain, a, b}, err);
}
void table_forms_number_tbl_table_record_create_dm_handler(loom_handle*, u32 domain, u64 a, u32* err) {
    note_call("create dm", {domain, a}, err);
}
void table_forms_number_tbl_table_record_delete_dm_handler(loom_handle*, u32 domain, u64 a, u32* err) {
    note_call("delete dm", {domain, a}, err);
}
void table_forms_number_tbl_table_record_grouping_handler(loom_handle*, u32 domain, u64 a, u32* err, u64 b, u64 c,
                                                          u32 d, u64 e) {
    note_call("grouping", {domain, a, b, c, d, e}, err);
}
void table_forms_number_tbl_table_record_free_handler(loom_handle*, u32 domain, u64 a, u32 d, u32* err, u64 b) {
    note_call("free", {domain, a, d, b}, err);
}
void table_forms_short_tbl_table_record_create_handler(loom_handle*, u32 domain, u64 a, u64 b, u32* err) {
    note_call("short create", {domain, a, b}, err);
}
void table_forms_short_tbl_table_record_delete_handler(loom_handle*, u32 domain, u64 a, u64 b, u32* err) {
    note_call("short delete", {domain, a, b}, err);
}
}

namespace {

constexpr u64 big = 0x123456789ABCDEF0;

class callbacks : public forms_test {
  protected:
    callbacks() {
        quiet_tbl_destroy_record(h(), d, quiet_tbl_create_record(h(), d, &err),
                                 &err); // registers the trace module
        called.clear();
        h()->last_error = 4;
    }
};

TEST_F(callbacks, reach_the_handlers) {
    number_tbl_table_record_create_cb(h(), d, big, 2, &err);
    EXPECT_EQ(err, 77u) << "the handler's verdict";
    EXPECT_EQ(h()->last_error, 0u);
    number_tbl_table_record_modify_cb(h(), d, 3, 4, &(err = 0));
    number_tbl_table_record_delete_cb(h(), d, 5, 6, &(err = 0));
    number_tbl_table_record_create_dm_cb(h(), d, 7, &(err = 0));
    number_tbl_table_record_delete_dm_cb(h(), d, 8, &(err = 0));
    number_tbl_table_record_grouping_cb(h(), d, 1, &(err = 0), 2, big, 4, 5);
    number_tbl_table_record_free_cb(h(), d, 1, 2, &(err = 0), 3);
    EXPECT_EQ(called, "create 1 1311768467463790320 2\n"
                      "modify 1 3 4\n"
                      "delete 1 5 6\n"
                      "create dm 1 7\n"
                      "delete dm 1 8\n"
                      "grouping 1 1 2 1311768467463790320 4 5\n"
                      "free 1 1 2 3\n");
    EXPECT_EQ(err, 77u);
}

TEST_F(callbacks, fall_back_to_the_plain_handler) {
    EXPECT_EQ(log_of([&] { short_tbl_table_record_create_dm_cb(h(), d, 9, &err); }),
              "says 6 default table_forms_short_tbl_record create DM handler called\n");
    EXPECT_EQ(called, "short create 1 0 9\n");
    EXPECT_EQ(err, 77u);
    err = 0;
    short_tbl_table_record_delete_dm_cb(h(), d, 8, &err);
    EXPECT_EQ(called, "short create 1 0 9\nshort delete 1 0 8\n");
}

TEST_F(callbacks, tell_the_trace_when_there_is_no_handler) {
    EXPECT_EQ(log_of([&] {
                  quiet_tbl_table_record_create_cb(h(), d, 1, 2, &err);
                  quiet_tbl_table_record_modify_cb(h(), d, 1, 2, &err);
                  quiet_tbl_table_record_delete_cb(h(), d, 1, 2, &err);
                  quiet_tbl_table_record_create_dm_cb(h(), d, 1, &err);
                  quiet_tbl_table_record_delete_dm_cb(h(), d, 1, &err);
                  quiet_tbl_table_record_grouping_cb(h(), d, 1, &err, 2, 3, 4, 5);
                  quiet_tbl_table_record_free_cb(h(), d, 1, 2, &err, 3);
              }),
              "says 6 default table_forms_quiet_tbl_record create handler called\n"
              "says 6 default table_forms_quiet_tbl_record modify handler called\n"
              "says 6 default table_forms_quiet_tbl_record delete handler called\n"
              "says 6 default table_forms_quiet_tbl_record create DM handler called\n"
              "says 6 default table_forms_quiet_tbl_record create handler called\n"
              "says 6 default table_forms_quiet_tbl_record delete DM handler called\n"
              "says 6 default table_forms_quiet_tbl_record delete handler called\n"
              "says 8 default table_forms_quiet_tbl_record grouping handler called\n"
              "says 6 default table_forms_quiet_tbl_record free handler called\n");
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(h()->last_error, 0u);
}

TEST_F(callbacks, stop_at_a_pending_error) {
    err = 5;
    EXPECT_EQ(log_of([&] {
                  number_tbl_table_record_create_cb(h(), d, 1, 2, &err);
                  number_tbl_table_record_create_dm_cb(h(), d, 1, &err);
                  number_tbl_table_record_grouping_cb(h(), d, 1, &err, 2, 3, 4, 5);
                  quiet_tbl_table_record_free_cb(h(), d, 1, 2, &err, 3);
                  quiet_tbl_table_record_delete_dm_cb(h(), d, 1, &err);
              }),
              "");
    EXPECT_EQ(called, "");
    EXPECT_EQ(err, 5u);
    EXPECT_EQ(h()->last_error, 4u);
}

} // namespace
