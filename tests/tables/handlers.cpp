// Handlers of an application that the bundle's callbacks find by name: of number_tbl all seven, of short_tbl the
// plain ones, of the message note. Each logs its arguments and gives error 77.
#include "tests/support/test_handle.h"

#include <table_forms/table_forms.h>

using trellis::u32;
using trellis::u64;
using trellis::testing::test_handle;

namespace {
void called(const loom_handle* handle, std::string what, std::initializer_list<u64> values, u32* err) {
    for (u64 value : values)
        what += " " + std::to_string(value);
    test_handle::of_handle(handle)->log("calls " + what);
    *err = 77;
}
} // namespace

extern "C" {
void table_forms_number_tbl_table_record_create_handler(loom_handle* h, u32 domain, u64 a, u64 b, u32* err) {
    called(h, "create", {domain, a, b}, err);
}
void table_forms_number_tbl_table_record_modify_handler(loom_handle* h, u32 domain, u64 a, u64 b, u32* err) {
    called(h, "modify", {domain, a, b}, err);
}
void table_forms_number_tbl_table_record_delete_handler(loom_handle* h, u32 domain, u64 a, u64 b, u32* err) {
    called(h, "delete", {domain, a, b}, err);
}
void table_forms_number_tbl_table_record_create_dm_handler(loom_handle* h, u32 domain, u64 a, u32* err) {
    called(h, "create dm", {domain, a}, err);
}
void table_forms_number_tbl_table_record_delete_dm_handler(loom_handle* h, u32 domain, u64 a, u32* err) {
    called(h, "delete dm", {domain, a}, err);
}
void table_forms_number_tbl_table_record_grouping_handler(loom_handle* h, u32 domain, u64 a, u32* err, u64 b,
                                                          u64 c, u32 d, u64 e) {
    called(h, "grouping", {domain, a, b, c, d, e}, err);
}
void table_forms_number_tbl_table_record_free_handler(loom_handle* h, u32 domain, u64 a, u32 d, u32* err, u64 b) {
    called(h, "free", {domain, a, d, b}, err);
}
void table_forms_short_tbl_table_record_create_handler(loom_handle* h, u32 domain, u64 a, u64 b, u32* err) {
    called(h, "short create", {domain, a, b}, err);
}
void table_forms_short_tbl_table_record_delete_handler(loom_handle* h, u32 domain, u64 a, u64 b, u32* err) {
    called(h, "short delete", {domain, a, b}, err);
}
void table_forms_note_action_message_handler(loom_handle* h, u32, void* context, note_action_message* message,
                                             u32* err) {
    called(h,
           "note " + std::to_string(message->number_row->id) + " with " +
               test_handle::of_handle(h)->name_of(context),
           {}, err);
}
/// For texts: a callback of note, which stands before the handler.
void note_callback(loom_handle* h, u32, void*, note_action_message* message, u32*) {
    test_handle::of_handle(h)->log("calls back for note " + std::to_string(message->number_row->id));
}
}
