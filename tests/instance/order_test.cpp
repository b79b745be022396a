// The order of stores, notices, reports and traces, as literal dumps: what is done stands on the left, what must
// be seen on the right. Addresses are names and offsets, lengths are bytes; the events are explained in
// test_handle.h.
#include "tests/support/test_handle.h"

#include <trellis_test_types/rec_child_comp_key_parent_comp_key.h>
#include <trellis_test_types/rec_parent_with_sing_child.h>
#include <trellis_test_types/rec_with_list.h>
#include <trellis_test_types/simple_union.h>
#include <trellis_test_types/string_key.h>
#include <trellis_test_types/type_with_list.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace trellis::testing {
namespace {

constexpr u32 domain = test_handle::domain;

struct trace_texts {
    trace_texts() { add_trace_texts_of(reinterpret_cast<const void*>(&string_key_create)); }
} const trace_texts_added;

class order : public ::testing::Test {
  protected:
    /// A handle of its own for every test, containment on, so that all reports are seen.
    void open(u32 db_kind, u32 tracking) {
        handle_options options{};
        options.db_kind = db_kind;
        options.tracking = tracking;
        options.containment = true;
        options.check_stores = true;
        handle_ = std::make_unique<test_handle>(options);
    }
    test_handle& handle() { return *handle_; }

    /// Runs the operation and compares what happened.
    template <class Body>
    void expect(const char* dump, Body&& body) {
        EXPECT_EQ("\n" + handle().log_of(body), dump);
        EXPECT_EQ(error, 0u);
        handle().end_operation();
    }
    template <class T>
    T* named(T* object, const char* name, size_t length) {
        handle().name(object, length, name);
        return object;
    }
    void TearDown() override {
        EXPECT_EQ(handle().take_violations(), "");
        EXPECT_EQ(handle().live_blocks(), 0u) << handle().describe_live_blocks();
    }

    u32 error = 0;

  private:
    std::unique_ptr<test_handle> handle_;
};

// ---- Making and ending -------------------------------------------------------------------------------------

TEST_F(order, of_a_plain_key) {
    open(LOOM_DB_PRIVATE, LOOM_TRACKING_NONE);
    string_key* key = nullptr;
    expect(R"(
alloc 40 = b1
hook b1+9 1 0
hook b1+8 1 0
hook b1 8 0
hook b1+10 1 b1
made string_key 0
contains b1 in 0
)",
           [&] { key = string_key_create(handle(), domain); });
    named(key, "key", 40);
    expect(R"(
ended string_key 0
hook key 8 0
free key
)",
           [&] { string_key_destroy(handle(), domain, key); });
}

TEST_F(order, of_a_tracked_key_in_a_shared_database) {
    open(LOOM_DB_MAPPED, LOOM_TRACKING_ON);
    string_key_destroy(handle(), domain, string_key_create(handle(), domain)); // makes the type information
    const u64 blocks = handle().live_blocks();
    string_key* key = nullptr;
    expect(R"(
alloc 41 = b1
hook b1+9 1 0
hook b1+8 1 0
hook b1 8 0
hook b1+10 1 b1
hook b1+10 1 0
made string_key 0
contains b1 in 0
dirty b1
)",
           [&] { key = string_key_create(handle(), domain); });
    named(key, "key", 41);
    expect(R"(
ended string_key 0
destroyed key
hook key 8 0
free key
)",
           [&] { string_key_destroy(handle(), domain, key); });
    // Without a domain nothing is reported to the shared database.
    expect(R"(
alloc 41 = b1
hook b1+9 1 0
hook b1+8 1 0
hook b1 8 0
hook b1+10 1 b1
hook b1+10 1 0
made string_key 0
contains b1 in 0
)",
           [&] { key = string_key_create(handle(), LOOM_DOMAIN_NONE); });
    named(key, "key", 41);
    expect(R"(
ended string_key 0
hook key 8 0
free key
)",
           [&] { string_key_destroy(handle(), LOOM_DOMAIN_NONE, key); });
    EXPECT_EQ(handle().live_blocks(), blocks);
    // The manifested records stay with the database.
    handle().forget_blocks();
}

TEST_F(order, of_a_record_with_everything) {
    open(LOOM_DB_PRIVATE, LOOM_TRACKING_NONE);
    rec_parent_with_sing_child* rec = nullptr;
    // The oid's type word first, then the header, then the attributes in order: an enumeration and a flag set are
    // their own owners, the nested record repeats the pattern.
    expect(R"(
alloc 968 = b1
hook b1+880 8 0
hook b1+9 1 0
hook b1+8 1 0
hook b1 8 0
hook b1+10 1 b1
made rec_parent_with_sing_child 2
hook b1+153 1 b1+144
hook b1+152 1 b1+144
hook b1+144 8 b1+144
hook b1+154 1 b1+144
hook b1+201 1 b1+192
hook b1+200 1 b1+192
hook b1+192 8 b1+192
hook b1+202 1 b1+192
hook b1+225 1 0
hook b1+224 1 0
hook b1+216 8 0
hook b1+226 1 b1+216
made ud_type 4
hook b1+377 1 b1+368
hook b1+376 1 b1+368
hook b1+368 8 b1+368
hook b1+378 1 b1+368
hook b1+417 1 b1+408
hook b1+416 1 b1+408
hook b1+408 8 b1+408
hook b1+418 1 b1+408
hook b1+489 1 b1+480
hook b1+488 1 b1+480
hook b1+480 8 b1+480
hook b1+490 1 b1+480
hook b1+537 1 b1+528
hook b1+536 1 b1+528
hook b1+528 8 b1+528
hook b1+538 1 b1+528
hook b1+569 1 0
hook b1+568 1 0
hook b1+560 8 0
hook b1+570 1 b1+560
made const_default_type 0
hook b1+665 1 b1+656
hook b1+664 1 b1+656
hook b1+656 8 b1+656
hook b1+666 1 b1+656
hook b1+681 1 b1+672
hook b1+680 1 b1+672
hook b1+672 8 b1+672
hook b1+682 1 b1+672
hook b1+721 1 0
hook b1+720 1 0
hook b1+712 8 0
hook b1+722 1 b1+712
made simple_choice 0
hook b1+737 1 b1+728
hook b1+736 1 b1+728
hook b1+728 8 b1+728
hook b1+738 1 b1+728
hook b1+785 1 b1+776
hook b1+784 1 b1+776
hook b1+776 8 b1+776
hook b1+786 1 b1+776
contains b1 in 0
)",
           [&] { rec = rec_parent_with_sing_child_create(handle(), domain); });
    named(rec, "rec", 968);
    expect(R"(
ended const_default_type 0
ended simple_choice 0
ended ud_type 4
ended rec_parent_with_sing_child 2
hook rec 8 0
free rec
)",
           [&] { rec_parent_with_sing_child_destroy(handle(), domain, rec); });
}

// ---- Values ------------------------------------------------------------------------------------------------

TEST_F(order, of_setting_values_on_a_tracked_record) {
    open(LOOM_DB_PRIVATE, LOOM_TRACKING_ON);
    auto* rec = named(rec_parent_with_sing_child_create(handle(), domain), "rec", 1072);
    handle().end_operation();
    u32 value = 5;
    named(&value, "value", 4);
    // The store, then the mark (byte 6 of the tracking area at 968), then the report.
    expect(R"(
hook rec+160 4 rec+160
hook rec+974 1 0
contains value in rec
)",
           [&] { rec_parent_with_sing_child_int_attr_set(handle(), domain, rec, &value, &error); });
    // By value the cell is reported twice, and the value not at all.
    expect(R"(
contains rec+160 in rec
contains rec+160 in rec
hook rec+160 4 rec+160
hook rec+974 1 0
)",
           [&] { rec_parent_with_sing_child_int_attr_set_value(handle(), domain, rec, 6, &error); });
    expect(R"(
contains rec+160 in rec
)",
           [&] { EXPECT_EQ(*rec_parent_with_sing_child_int_attr_get(handle(), domain, rec, &error), 6u); });
    // An enumeration reports itself as handed out, and stores with itself as owner.
    expect(R"(
contains rec+144 in 0
contains rec+144 in rec
contains rec+144 in rec
hook rec+156 4 rec+144
hook rec+973 1 0
)",
           [&] { rec_parent_with_sing_child_en_attr_set_value(handle(), domain, rec, 3, &error); });
    expect(R"(
contains rec in 0
)",
           [&] { EXPECT_EQ(rec_parent_with_sing_child_get(handle(), domain, rec), rec); });
    // A bulk set marks and reports nothing.
    expect(R"(
hook rec+80 4 rec+80
hook rec+156 4 rec+144
hook rec+160 4 rec+160
hook rec+168 8 rec+168
)",
           [&] { rec_parent_with_sing_child_set_all(handle(), domain, rec, 1, 2, 3, 4.0, &error); });
    rec_parent_with_sing_child_destroy(handle(), domain, rec);
}

/// Grows an array of a record of its own, so that later growths of the field have nothing to say.
void grow_once() {
    test_handle handle;
    u32 error = 0;
    auto* rec = rec_parent_with_sing_child_create(handle, domain);
    for (u32 i = 0; i < 3; ++i)
        rec_parent_with_sing_child_b_arr_attr_set_value(handle, domain, rec, i, 1, &error);
    rec_parent_with_sing_child_destroy(handle, domain, rec);
}

TEST_F(order, of_growing_an_array_of_values) {
    grow_once();
    open(LOOM_DB_PRIVATE, LOOM_TRACKING_ON);
    auto* rec = named(rec_parent_with_sing_child_create(handle(), domain), "rec", 1072);
    handle().end_operation();
    // Setting by value looks the slot up first; it is not there (2), so the array grows with no value to set.
    // Block and flags are new memory; pointer, count and flags take their places, the marks follow.
    expect(R"(
error 2
alloc 2 = b1
alloc 2 = b2
hook rec+840 8 rec
hook rec+832 2 rec
hook rec+1024 8 0
hook rec+1020 1 0
hook b2+1 1 0
hook b1+1 1 b1+1
hook rec+1020 1 0
hook b2+1 1 0
)",
           [&] { rec_parent_with_sing_child_b_arr_attr_set_value(handle(), domain, rec, 1, 9, &error); });
    named(rec->b_arr_attr, "bytes", 2);
    u8* flags = nullptr;
    rec_parent_with_sing_child_b_arr_attr_state_flag_get_arr(handle(), domain, rec, &flags, &error);
    named(flags, "flags", 2);
    u8 value = 7;
    named(&value, "value", 1);
    // A later growth moves what is there and gives the old blocks back. That it says so once per process is told
    // by a test of its own: here an earlier test may have been the first.
    expect(R"(
alloc 3 = b1
alloc 3 = b2
free bytes
hook rec+840 8 rec
hook rec+832 2 rec
hook rec+1024 8 0
free flags
hook b1+2 1 b1+2
hook rec+1020 1 0
hook b2+2 1 0
contains value in rec
)",
           [&] { rec_parent_with_sing_child_b_arr_attr_set(handle(), domain, rec, 2, &value, &error); });
    named(rec->b_arr_attr, "bytes", 3);
    rec_parent_with_sing_child_b_arr_attr_state_flag_get_arr(handle(), domain, rec, &flags, &error);
    named(flags, "flags", 3);
    expect(R"(
alloc 4 = b1
alloc 4 = b2
free bytes
hook rec+840 8 rec
hook rec+832 2 rec
hook rec+1024 8 0
free flags
hook b1+3 1 b1+3
hook rec+1020 1 0
hook b2+3 1 0
contains value in rec
)",
           [&] { rec_parent_with_sing_child_b_arr_attr_set(handle(), domain, rec, 3, &value, &error); });
    named(rec->b_arr_attr, "bytes", 4);
    rec_parent_with_sing_child_b_arr_attr_state_flag_get_arr(handle(), domain, rec, &flags, &error);
    named(flags, "flags", 4);
    const u8 source[] = {1, 2};
    expect(R"(
free bytes
alloc 2 = b1
hook rec+840 8 rec
hook rec+832 2 rec
hook rec+1020 1 0
alloc 2 = b2
hook rec+1024 8 0
free flags
)",
           [&] { rec_parent_with_sing_child_b_arr_attr_set_mem(handle(), domain, rec, source, 2, &error); });
    named(rec->b_arr_attr, "bytes", 2);
    expect(R"(
free bytes
hook rec+840 8 rec
hook rec+832 2 rec
)",
           [&] { rec_parent_with_sing_child_b_arr_attr_remove_elements(handle(), domain, rec); });
    rec_parent_with_sing_child_destroy(handle(), domain, rec);
}

/// In a process of its own: traces of the growth, counted.
[[noreturn]] void count_growths() {
    static u32 said = 0;
    loom_trace_set_level(nullptr, 8);
    loom_trace_set_tap(
        [](const loom_trace_record* record, void*) {
            char text[256];
            loom_trace_format(trace_decoder(), record, text, sizeof text);
            if (strstr(text, "Reallocating") != nullptr) fprintf(stderr, "%u: %s\n", ++said, text);
        },
        nullptr);
    grow_once();
    grow_once();
    exit(said == 1 ? 0 : 1);
}

TEST(growth, is_said_once_per_process_and_field) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(count_growths(), ::testing::ExitedWithCode(0),
                "1: Reallocating resource for rec_parent_with_sing_child");
}

TEST_F(order, of_an_array_in_a_shared_database) {
    grow_once();
    open(LOOM_DB_MAPPED, LOOM_TRACKING_NONE);
    auto* rec = named(rec_parent_with_sing_child_create(handle(), domain), "rec", 968);
    rec_parent_with_sing_child_b_arr_attr_set_value(handle(), domain, rec, 0, 9, &error);
    named(rec->b_arr_attr, "bytes", 1);
    handle().end_operation();
    expect(R"(
error 2
alloc 2 = b1
detached bytes 0
free bytes
hook rec+840 8 rec
hook rec+832 2 rec
hook b1+1 1 b1+1
)",
           [&] { rec_parent_with_sing_child_b_arr_attr_set_value(handle(), domain, rec, 1, 8, &error); });
    named(rec->b_arr_attr, "bytes", 2);
    // At the end the block goes first, then its pointer is cleared; the count stays.
    expect(R"(
ended const_default_type 0
ended simple_choice 0
ended ud_type 4
free bytes
hook rec+840 8 0
ended rec_parent_with_sing_child 2
destroyed rec
hook rec 8 0
free rec
)",
           [&] { rec_parent_with_sing_child_destroy(handle(), domain, rec); });
    handle().forget_blocks();
}

// ---- Arms --------------------------------------------------------------------------------------------------

TEST_F(order, of_arms) {
    open(LOOM_DB_MAPPED, LOOM_TRACKING_ON);
    simple_union_destroy(handle(), domain, simple_union_create(handle(), domain));
    simple_union* made = nullptr;
    expect(R"(
alloc 68 = b1
hook b1+9 1 0
hook b1+8 1 0
hook b1 8 0
hook b1+10 1 b1
hook b1+10 1 0
made simple_union 0
hook b1+25 1 b1+16
hook b1+24 1 b1+16
hook b1+16 8 b1+16
hook b1+26 1 b1+16
contains b1 in 0
dirty b1
)",
           [&] { made = simple_union_create(handle(), domain); });
    auto* choice = named(made, "choice", 68);
    expect(R"(
contains choice+16 in 0
contains choice+16 in choice
contains choice+16 in choice
hook choice+28 4 choice+16
hook choice+64 1 0
)",
           [&] { simple_union_val_discr_set_value(handle(), domain, choice, 2, &error); });
    uint32_t* first = named(u_int32_create(handle(), domain), "first", 4);
    uint32_t* second = named(u_int32_create(handle(), domain), "second", 4);
    calendar_time* time = named(calendar_time_create(handle(), domain), "time", 16);
    // The pointer, the case, the arm's own mark; the discriminator's mark stays.
    expect(R"(
hook choice+32 8 choice
hook choice+28 4 choice
hook choice+65 1 0
contains first in choice
)",
           [&] { simple_union_int_attr_set(handle(), domain, choice, first, &error); });
    EXPECT_EQ(choice->val_discr.value, 1);
    // An earlier arm is let go of, not ended.
    expect(R"(
contains first in choice
detached first 1
hook choice+32 8 choice
hook choice+28 4 choice
hook choice+65 1 0
contains second in choice
)",
           [&] { simple_union_int_attr_set(handle(), domain, choice, second, &error); });
    simple_union_cal_attr_set(handle(), domain, choice, time, &error);
    expect(R"(
hook choice+32 8 choice
hook choice+28 4 choice
hook choice+65 1 0
contains second in choice
detached second 1
)",
           [&] { EXPECT_EQ(simple_union_int_attr_get_detach(handle(), domain, choice, &error), second); });
    EXPECT_EQ(choice->val_discr.value, 0);
    EXPECT_EQ(choice->cal_attr, time);
    u_int32_destroy(handle(), domain, first);
    u_int32_destroy(handle(), domain, second);
    // A stale arm goes with its holder.
    expect(R"(
free time
hook choice+40 8 0
ended simple_union 0
destroyed choice
hook choice 8 0
free choice
)",
           [&] { simple_union_destroy(handle(), domain, choice); });
    handle().forget_blocks();
}

// ---- Lists -------------------------------------------------------------------------------------------------

TEST_F(order, of_a_list) {
    open(LOOM_DB_PRIVATE, LOOM_TRACKING_ON);
    rec_with_list* made = nullptr;
    expect(R"(
alloc 49 = b1
hook b1+9 1 0
hook b1+8 1 0
hook b1 8 0
hook b1+10 1 b1
hook b1+10 1 0
made rec_with_list 0
hook b1+16 16 0
contains b1 in 0
)",
           [&] { made = rec_with_list_create(handle(), domain); });
    auto* rec = named(made, "rec", 49);
    const auto element = [&](const char* name) {
        return named(type_with_list_create(handle(), domain), name, 57);
    };
    type_with_list* a = element("a");
    type_with_list* b = element("b");
    type_with_list* c = element("c");
    type_with_list* d = element("d");
    // The count, the element's links, the neighbour's link (in an empty list the head's other end), the head's
    // end.
    expect(R"(
hook rec+32 4 rec
range a+16 8
range a+24 8
range a+32 8
range rec+24 8
range rec+16 8
hook rec+48 1 0
contains a in rec
)",
           [&] { rec_with_list_list_attr_set_first(handle(), domain, rec, a, &error); });
    expect(R"(
hook rec+32 4 rec
range b+16 8
range b+24 8
range b+32 8
range a+24 8
range rec+24 8
hook rec+48 1 0
contains b in rec
)",
           [&] { rec_with_list_list_attr_set_last(handle(), domain, rec, b, &error); });
    expect(R"(
hook rec+32 4 rec
range c+16 8
range c+24 8
range c+32 8
range a+32 8
range rec+16 8
hook rec+48 1 0
contains c in rec
)",
           [&] { rec_with_list_list_attr_set_before(handle(), domain, rec, a, c, &error); });
    expect(R"(
hook rec+32 4 rec
range d+16 8
range d+24 8
range d+32 8
range b+24 8
range rec+24 8
hook rec+48 1 0
contains d in rec
)",
           [&] { rec_with_list_list_attr_set_after(handle(), domain, rec, b, d, &error); });
    // c a b d. Both links of the element first, then the mirror of linking: the head's end, the neighbour, the
    // count.
    expect(R"(
range d+24 16
range rec+24 8
range b+24 8
hook rec+32 4 rec
hook rec+48 1 0
contains d in rec
)",
           [&] { rec_with_list_list_attr_remove(handle(), domain, rec, d, &error); });
    expect(R"(
range c+24 16
range rec+16 8
range a+32 8
hook rec+32 4 rec
hook rec+48 1 0
contains c in rec
)",
           [&] { rec_with_list_list_attr_remove(handle(), domain, rec, c, &error); });
    EXPECT_EQ(c->loom_links.next, a) << "a removed element keeps its links";
    type_with_list_destroy(handle(), domain, c);
    type_with_list_destroy(handle(), domain, d);

    // A move redirects the ends, empties the source, and makes every element's owner the new head.
    auto* to = named(rec_with_list_create(handle(), domain), "to", 49);
    handle().end_operation();
    expect(R"(
hook to 48 to
hook to+48 1 to+48
hook to+16 16 to
range a+32 8
range b+24 8
hook to+16 16 to
hook rec+16 16 rec
hook a+16 8 a
hook b+16 8 b
hook rec+32 4 rec
)",
           [&] { rec_with_list_set(handle(), domain, to, rec, &error); });
    EXPECT_EQ(a->loom_links.owner, &to->list_attr);
    EXPECT_EQ(rec->list_attr.first, &rec->list_attr);
    EXPECT_EQ(to->list_attr.count, 2u);
    rec_with_list_destroy(handle(), domain, rec);
    expect(R"(
ended type_with_list 0
hook a 8 0
free a
ended type_with_list 0
hook b 8 0
free b
hook to+16 24 0
ended rec_with_list 0
hook to 8 0
free to
)",
           [&] { rec_with_list_destroy(handle(), domain, to); });
}

TEST_F(order, of_a_list_in_a_shared_database) {
    open(LOOM_DB_MAPPED, LOOM_TRACKING_NONE);
    auto* rec = named(rec_with_list_create(handle(), domain), "rec", 48);
    auto* a = named(type_with_list_create(handle(), domain), "a", 56);
    auto* b = named(type_with_list_create(handle(), domain), "b", 56);
    rec_with_list_list_attr_set_last(handle(), domain, rec, a, &error);
    handle().end_operation();
    // Each notice is followed by the object that the bytes lie in.
    expect(R"(
hook rec+32 4 rec
range b+16 8
dirty b
range b+24 8
dirty b
range b+32 8
dirty b
range a+24 8
dirty a
range rec+24 8
dirty rec
contains b in rec
)",
           [&] { rec_with_list_list_attr_set_last(handle(), domain, rec, b, &error); });
    expect(R"(
range a+24 16
dirty a
range rec+16 8
dirty rec
range b+32 8
dirty b
hook rec+32 4 rec
contains a in rec
)",
           [&] { rec_with_list_list_attr_remove(handle(), domain, rec, a, &error); });
    type_with_list_destroy(handle(), domain, a);
    rec_with_list_destroy(handle(), domain, rec);
    handle().forget_blocks();
}

// ---- Strings, fixed arrays, references ---------------------------------------------------------------------

TEST_F(order, of_character_and_fixed_arrays) {
    open(LOOM_DB_PRIVATE, LOOM_TRACKING_ON);
    auto* rec = rec_child_comp_key_parent_comp_key_create(handle(), domain);
    const u32 size = rec_child_comp_key_parent_comp_key_sizeof(handle());
    named(rec, "rec", size);
    named(&rec->dynamic_char_arr_len, "length", 1);
    named(&rec->dynamic_char_arr_attr, "pointer", 8);
    named(&rec->fixed_len_char_arr_attr, "characters", 16);
    named(&rec->b_fixed_arr_attr, "bytes", 3);
    named(reinterpret_cast<u8*>(rec) + sizeof *rec, "area", size - sizeof *rec);
    handle().end_operation();
    // Places in the tracking area, counted by hand: the oid at 96, comp_key at 97 with its two bytes,
    // wrapped_union at 100 with the byte and the area of its union (4), b_fixed_arr_attr at 106 with three
    // elements, the strings.
    expect(R"(
alloc 6 = b1
hook pointer 8 rec
hook length 1 rec
hook area+110 1 0
)",
           [&] {
               rec_child_comp_key_parent_comp_key_dynamic_char_arr_attr_set(handle(), domain, rec, "hello", 5,
                                                                            &error);
           });
    expect(R"(
free b1
hook pointer 8 rec
hook length 1 rec
hook area+110 1 0
)",
           [&] {
               rec_child_comp_key_parent_comp_key_dynamic_char_arr_attr_set(handle(), domain, rec, "", 256,
                                                                            &error);
           });
    expect(R"(
hook characters 4 rec
hook area+112 1 0
)",
           [&] {
               rec_child_comp_key_parent_comp_key_fixed_len_char_arr_attr_set(handle(), domain, rec, "abcd", 4,
                                                                              &error);
           });
    const u8 source[] = {1, 2, 3};
    named(source, "source", 3);
    expect(R"(
hook bytes+2 1 bytes+2
hook area+106 1 0
hook area+109 1 0
contains source in rec
)",
           [&] {
               rec_child_comp_key_parent_comp_key_b_fixed_arr_attr_set(handle(), domain, rec, 2, source, &error);
           });
    expect(R"(
hook bytes 3 rec
hook area+106 1 0
)",
           [&] {
               rec_child_comp_key_parent_comp_key_b_fixed_arr_attr_set_mem(handle(), domain, rec, source, 3,
                                                                           &error);
           });
    rec_child_comp_key_parent_comp_key_destroy(handle(), domain, rec);
}

TEST_F(order, of_a_reference) {
    open(LOOM_DB_PRIVATE, LOOM_TRACKING_ON);
    auto* rec = named(rec_parent_with_sing_child_create(handle(), domain), "rec", 1072);
    // A table as far as references look into it.
    loom_table table{};
    table.header.loom_tinfo = rec->loom_child_sing_oid_type;
    ASSERT_NE(loom_oid_mapping_create(handle(), domain, &table, 2, 0, 0, &error), 0u);
    named(&table, "table", sizeof table);
    handle().end_operation();
    expect(R"(
hook rec+888 40 rec
contains table in rec
hook rec+1064 1 0
)",
           [&] { rec_parent_with_sing_child_child_sing_oid_set_by_ref(handle(), domain, rec, &table, &error); });
    expect(R"(
contains table in rec
)",
           [&] {
               EXPECT_EQ(rec_parent_with_sing_child_child_sing_oid_get_by_ref(handle(), domain, rec, &error),
                         &table);
           });
    // The same once more: one reference is dropped and one taken.
    rec_parent_with_sing_child_child_sing_oid_set_by_ref(handle(), domain, rec, &table, &error);
    loom_oid_state state{};
    ASSERT_EQ(loom_oid_mapping_state(handle(), &table, &state), 0u);
    EXPECT_EQ(state.count, 1u);
    // Clearing marks and reports nothing.
    expect(R"(
hook rec+888 40 rec
)",
           [&] { rec_parent_with_sing_child_child_sing_oid_set_by_ref(handle(), domain, rec, nullptr, &error); });
    ASSERT_EQ(loom_oid_mapping_state(handle(), &table, &state), 0u);
    EXPECT_EQ(state.count, 0u);
    expect(R"(
hook rec+888 40 rec
)",
           [&] { rec_parent_with_sing_child_child_sing_oid_set_by_ref(handle(), domain, rec, nullptr, &error); });
    expect(R"(
hook rec+888 40 rec
contains ? in rec
)",
           [&] {
               rec_parent_with_sing_child_child_sing_oid_set_by_ref(handle(), domain, rec, LOOM_OID_RAW_TARGET,
                                                                    &error);
           });
    rec_parent_with_sing_child_destroy(handle(), domain, rec);
    loom_request_oid_mapping_destroy(handle(), domain, &table, &error);
}

// ---- Failures ----------------------------------------------------------------------------------------------

TEST_F(order, of_a_set_without_tracking) {
    open(LOOM_DB_PRIVATE, LOOM_TRACKING_NONE);
    auto* rec = named(rec_parent_with_sing_child_create(handle(), domain), "rec", 968);
    handle().end_operation();
    loom_set_tracking(handle(), LOOM_TRACKING_ON);
    // The value is stored before the failure.
    const u32 value = 5;
    EXPECT_EQ("\n" + handle().log_of(
                         [&] { rec_parent_with_sing_child_int_attr_set(handle(), domain, rec, &value, &error); }),
              R"(
hook rec+160 4 rec+160
error 22
says 3 The object is not state tracked
)");
    EXPECT_EQ(error, 22u);
    EXPECT_EQ(rec->int_attr, 5u);
    // The two families of state flags spell and order it differently.
    error = 0;
    EXPECT_EQ("\n" + handle().log_of([&] {
        EXPECT_EQ(rec_parent_with_sing_child_int_attr_state_flag_get(handle(), domain, rec, &error), 0);
    }),
              R"(
error 22
says 3 The object is non state tracked
)");
    error = 0;
    EXPECT_EQ("\n" + handle().log_of([&] {
        rec_parent_with_sing_child_int_attr_state_flag_set(handle(), domain, rec, 1, &error);
    }),
              R"(
says 3 The object is not state tracked
error 22
)");
    loom_set_tracking(handle(), LOOM_TRACKING_OFF);
    error = 0;
    EXPECT_EQ("\n" + handle().log_of([&] {
        EXPECT_EQ(rec_parent_with_sing_child_int_attr_state_flag_get(handle(), domain, rec, &error), 0);
    }),
              R"(
error 22
)");
    error = 0;
    loom_set_tracking(handle(), LOOM_TRACKING_NONE);
    rec_parent_with_sing_child_destroy(handle(), domain, rec);
}

TEST_F(order, of_creations_that_fail) {
    open(LOOM_DB_PRIVATE, LOOM_TRACKING_NONE);
    // A plain creation stores no error and reports the null.
    handle().fail_allocation(1);
    expect(R"(
alloc 40 = none
contains 0 in 0
)",
           [&] { EXPECT_EQ(string_key_create(handle(), domain), nullptr); });
    EXPECT_EQ(handle()->last_error, 0u);
    // In a chain there is always an object.
    handle().fail_allocation(1);
    string_key* chained = nullptr;
    expect(R"(
alloc 40 = none
error 12
contains ? in 0
)",
           [&] { chained = string_key_create_cr(handle()); });
    ASSERT_NE(chained, nullptr);
    EXPECT_EQ(handle()->last_error, 12u);
    EXPECT_EQ(handle()->cr_active, 0u);
    expect(R"(
contains ? in 0
)",
           [&] { EXPECT_EQ(string_key_create_cr(handle()), chained); });
    EXPECT_EQ("\n" + handle().log_of([&] { string_key_destroy_cr(handle(), chained); }), "\n");
    for (u32 i = 0; i < 40; ++i)
        EXPECT_EQ(reinterpret_cast<const u8*>(chained)[i], 0);
}

} // namespace
} // namespace trellis::testing
