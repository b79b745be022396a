// The edges of the instance model: pending errors, sizes and indexes, older instances, array and string limits,
// state flags, lists, unions, enumerations, flag sets, copies.
#include "tests/support/test_handle.h"

#include <trellis_test_types/double_testing.h>
#include <trellis_test_types/ipv6_addr_keys.h>
#include <trellis_test_types/leaf_list_test_variable.h>
#include <trellis_test_types/rec_child_comp_key_parent_comp_key.h>
#include <trellis_test_types/rec_parent_with_sing_child.h>
#include <trellis_test_types/rec_with_list.h>
#include <trellis_test_types/simple_choice.h>
#include <trellis_test_types/simple_union.h>
#include <trellis_test_types/string_key.h>
#include <trellis_test_types/type_with_list.h>
#include <trellis_test_types/ud_enum.h>
#include <trellis_test_types/ud_enum_custom_neg_val.h>
#include <trellis_test_types/ud_enum_custom_val.h>
#include <trellis_test_types/ud_flag.h>
#include <trellis_test_types/ud_flag_64.h>
#include <trellis_test_types/ud_flag_big.h>
#include <trellis_test_types/ud_type.h>
#include <trellis_test_types/ud_type_with_arr.h>

#include <gtest/gtest.h>

#include <memory>

namespace trellis::testing {
namespace {

constexpr u32 domain = test_handle::domain;
using parent = rec_parent_with_sing_child;

class edges : public ::testing::Test {
  protected:
    explicit edges(u32 tracking = LOOM_TRACKING_NONE) { open(tracking); }
    void open(u32 tracking) {
        handle_options options{};
        options.tracking = tracking;
        options.check_stores = true;
        h = std::make_unique<test_handle>(options);
    }
    /// The peer knows the type up to `variant` only.
    void limit(const char* type, int variant) {
        if (peer == nullptr) peer = loom_peer_create_same_build("older");
        loom_peer_limit(peer, type, variant);
        loom_set_peer(*h, peer);
    }
    /// The error since the last call of this.
    u32 taken() {
        const u32 number = error;
        error = 0;
        return number;
    }
    void TearDown() override {
        EXPECT_EQ(taken(), 0u);
        EXPECT_EQ(h->take_violations(), "");
        EXPECT_EQ(h->live_blocks(), 0u);
        loom_set_peer(*h, nullptr);
        if (peer != nullptr) loom_peer_release(peer);
    }

    std::unique_ptr<test_handle> h;
    loom_peer* peer = nullptr;
    u32 error = 0;
};
class tracked_edges : public edges {
  protected:
    tracked_edges() : edges(LOOM_TRACKING_ON) {}
};

/// Selects arms that are there: a new choice selects one that is not, and cannot be marshalled.
void complete(test_handle& handle, ud_type* object) {
    u32 error = 0;
    simple_choice_u_int_attr_set(handle, domain, &object->union_attr, u_int32_create(handle, domain), &error);
    ud_type_unn_uint_attr_set(handle, domain, object, u_int32_create(handle, domain), &error);
    EXPECT_EQ(error, 0u);
}

loom_vstring text_of(const char* text) { return {const_cast<char*>(text), static_cast<u32>(strlen(text)), 0}; }

// ---- Errors on entry ---------------------------------------------------------------------------------------

TEST_F(tracked_edges, a_pending_error_stops_every_operation_before_it_does_anything) {
    auto* rec = rec_parent_with_sing_child_create(*h, domain);
    auto* choice = simple_union_create(*h, domain);
    auto* holder = rec_with_list_create(*h, domain);
    auto* element = type_with_list_create(*h, domain);
    (*h)->last_error = 77;
    const u32 number = 5;
    const u8 byte = 1;
    u32 value = 3;
    char text[8] = "before";
    error = 99;
    EXPECT_EQ(h->log_of([&] {
        EXPECT_EQ(rec_parent_with_sing_child_int_attr_get(*h, domain, rec, &error), nullptr);
        EXPECT_EQ(rec_parent_with_sing_child_int_attr_get_value(*h, domain, rec, &error), 0u);
        rec_parent_with_sing_child_int_attr_set(*h, domain, rec, &number, &error);
        rec_parent_with_sing_child_int_attr_set_value(*h, domain, rec, 5, &error);
        EXPECT_EQ(rec_parent_with_sing_child_int_attr_state_flag_get(*h, domain, rec, &error), 0);
        rec_parent_with_sing_child_int_attr_state_flag_set(*h, domain, rec, 1, &error);
        EXPECT_EQ(rec_parent_with_sing_child_b_arr_attr_get(*h, domain, rec, 0, &error), nullptr);
        rec_parent_with_sing_child_b_arr_attr_set(*h, domain, rec, 0, &byte, &error);
        rec_parent_with_sing_child_b_arr_attr_set_value(*h, domain, rec, 0, 1, &error);
        rec_parent_with_sing_child_b_arr_attr_set_mem(*h, domain, rec, &byte, 1, &error);
        rec_parent_with_sing_child_b_fixed_arr_attr_set_mem(*h, domain, rec, &byte, 1, &error);
        rec_parent_with_sing_child_child_sing_oid_set_by_ref(*h, domain, rec, nullptr, &error);
        rec_parent_with_sing_child_get_all(*h, domain, rec, &value, nullptr, nullptr, nullptr, nullptr, nullptr,
                                           nullptr, &error);
        rec_parent_with_sing_child_set_all(*h, domain, rec, 1, 2, 3, 4, &error);
        simple_union_int_attr_set(*h, domain, choice, nullptr, &error);
        EXPECT_EQ(simple_union_int_attr_get_detach(*h, domain, choice, &error), nullptr);
        rec_with_list_list_attr_set_first(*h, domain, holder, element, &error);
        rec_with_list_list_attr_remove(*h, domain, holder, element, &error);
        parent* copy = nullptr;
        rec_parent_with_sing_child_clone_internal(*h, domain, rec, &copy, text, 8, &error);
        EXPECT_EQ(copy, nullptr);
        EXPECT_EQ(rec_parent_with_sing_child_initialize(*h, domain, rec, nullptr, 1, 0, 0, nullptr, &error), 0u);
    }),
              "");
    EXPECT_EQ(taken(), 99u);
    EXPECT_EQ((*h)->last_error, 77u);
    EXPECT_EQ(value, 3u);
    EXPECT_STREQ(text, "before");
    (*h)->last_error = 0;
    type_with_list_destroy(*h, domain, element);
    rec_with_list_destroy(*h, domain, holder);
    simple_union_destroy(*h, domain, choice);
    rec_parent_with_sing_child_destroy(*h, domain, rec);
}

TEST_F(edges, a_chain_keeps_its_first_error_and_works_on_the_sentinel) {
    h->fail_allocation(1);
    auto* rec = rec_parent_with_sing_child_create_cr(*h);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ((*h)->last_error, u32{LOOM_ENOMEM});
    EXPECT_EQ(h->log_of([&] {
        const u8 bytes[] = {1, 2};
        EXPECT_EQ(rec_parent_with_sing_child_b_arr_attr_set_mem_cr(*h, rec, bytes, 2), u32{LOOM_ENOMEM});
        EXPECT_EQ(rec_parent_with_sing_child_b_arr_attr_set_cr(*h, rec, 0, bytes), u32{LOOM_ENOMEM});
        EXPECT_EQ(rec_parent_with_sing_child_child_sing_oid_set_by_ref_cr(*h, rec, nullptr), u32{LOOM_ENOMEM});
        EXPECT_EQ(rec_parent_with_sing_child_child_sing_oid_get_by_ref_cr(*h, rec), nullptr);
        EXPECT_EQ(rec_parent_with_sing_child_clone_cr(*h, rec), nullptr);
        EXPECT_EQ(rec_parent_with_sing_child_len_cr(*h, rec), 0u);
        rec_parent_with_sing_child_destroy_cr(*h, rec);
        rec_parent_with_sing_child_destroy(*h, domain, rec);
        rec_parent_with_sing_child_destroy_internal(*h, domain, rec, 1);
    }),
              "");
    const auto* bytes = reinterpret_cast<const u8*>(rec);
    for (u32 i = 0; i < 968; ++i)
        ASSERT_EQ(bytes[i], 0) << i;
    (*h)->last_error = 0;
    // Without an error a chain is a plain run of calls.
    rec = rec_parent_with_sing_child_create_cr(*h);
    const u8 one[] = {1};
    EXPECT_EQ(rec_parent_with_sing_child_b_arr_attr_set_mem_cr(*h, rec, one, 1), 0u);
    complete(*h, &rec->comp_attr);
    auto* copy = rec_parent_with_sing_child_clone_cr(*h, rec);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(rec_parent_with_sing_child_compare(rec, copy), 0);
    rec_parent_with_sing_child_destroy_cr(*h, copy);
    rec_parent_with_sing_child_destroy_cr(*h, rec);
    rec_parent_with_sing_child_destroy(*h, domain, nullptr);
}

// ---- Sizes, variants, indexes ------------------------------------------------------------------------------

TEST_F(edges, sizes_follow_the_mode_and_the_layout) {
    const auto sizes = [&](u32 with, u32 only, u8 layout) {
        ud_type object{};
        object.loom_layout_variant = layout;
        return ud_type_sizeof_internal(*h, &object, with, only);
    };
    EXPECT_EQ(string_key_sizeof(*h), 40u);
    EXPECT_EQ(double_testing_sizeof(*h), 152u);
    EXPECT_EQ(ipv6_addr_keys_sizeof(*h), 72u);
    EXPECT_EQ(ud_type_sizeof(*h), 616u);
    EXPECT_EQ(ud_type_with_arr_sizeof(*h), 264u);
    EXPECT_EQ(rec_parent_with_sing_child_sizeof(*h), 968u);
    EXPECT_EQ(sizes(1, 0, 0), 616u) << "without a control block the layout is not looked at";
    EXPECT_EQ(sizes(1, 1, 0), 0u);
    loom_set_tracking(*h, LOOM_TRACKING_OFF);
    EXPECT_EQ(string_key_sizeof(*h), 40u);
    EXPECT_EQ(sizes(1, 0, 0), 232u);
    EXPECT_EQ(sizes(0, 1, 0), 0u);
    loom_set_tracking(*h, LOOM_TRACKING_ON);
    EXPECT_EQ(string_key_sizeof(*h), 41u);
    EXPECT_EQ(double_testing_sizeof(*h), 167u);
    EXPECT_EQ(rec_parent_with_sing_child_sizeof(*h), 1072u);
    const u32 layouts[] = {232, 352, 360, 512, 616, 616};
    const u32 areas[] = {10, 23, 24, 32, 41, 41};
    for (u8 layout = 0; layout < 6; ++layout) { // a layout beyond the newest counts as the newest
        EXPECT_EQ(sizes(0, 0, layout), layouts[layout]);
        EXPECT_EQ(sizes(1, 0, layout), layouts[layout] + areas[layout]);
        EXPECT_EQ(sizes(1, 1, layout), areas[layout]);
    }
    EXPECT_EQ(ud_type_sizeof_internal(*h, nullptr, 1, 0), 657u);
}

TEST_F(edges, variants_are_clamped_in_the_low_byte) {
    EXPECT_EQ(string_key_variant_data_index_cap(3), 0u);
    EXPECT_EQ(rec_parent_with_sing_child_variant_data_index_cap(1), 1u);
    EXPECT_EQ(rec_parent_with_sing_child_variant_data_index_cap(7), 2u);
    EXPECT_EQ(rec_parent_with_sing_child_variant_data_index_cap(0xABCDEF07u), 0xABCDEF02u);
    EXPECT_EQ(rec_parent_with_sing_child_variant_data_index_cap(0xFFu), 0xFFu);
    EXPECT_EQ(ud_enum_variant_data_index_cap(9), 1u);
    EXPECT_EQ(ud_flag_variant_data_index_cap(9), 1u);
}

TEST_F(edges, attribute_numbers_have_a_gap_before_each_later_variant) {
    auto* rec = rec_parent_with_sing_child_create(*h, domain);
    const auto valid = [&](u32 index, u32 flags = 0) {
        return rec_parent_with_sing_child_is_valid_cr(*h, rec, index, flags);
    };
    EXPECT_EQ(valid(21), 1u);
    EXPECT_EQ(valid(22), 0u);
    rec->loom_variant = 1;
    EXPECT_EQ(valid(19), 1u);
    EXPECT_EQ(valid(20), 0u);
    EXPECT_EQ(valid(21), 0u);
    EXPECT_EQ(valid(21, 1), 1u) << "the peer's variant alone";
    EXPECT_EQ(rec_parent_with_sing_child_is_valid_cr(*h, nullptr, 21, 1), 1u);
    rec->loom_variant = 0;
    EXPECT_EQ(valid(17), 1u);
    EXPECT_EQ(valid(18), 0u);
    rec->loom_variant = 2;
    limit("rec_parent_with_sing_child", 1);
    EXPECT_EQ(valid(19), 1u);
    EXPECT_EQ(valid(21), 0u);
    EXPECT_EQ(valid(21, 1), 0u);
    EXPECT_EQ(string_key_is_valid_cr(*h, nullptr, 0, 1), 1u);
    EXPECT_EQ(string_key_is_valid_cr(*h, nullptr, 1, 1), 0u);
    rec_parent_with_sing_child_destroy(*h, domain, rec);
}

TEST_F(edges, an_older_instance_hides_later_attributes_until_a_write_may_raise_it) {
    limit("rec_parent_with_sing_child", 0);
    auto* rec = rec_parent_with_sing_child_create(*h, domain);
    EXPECT_EQ(rec->loom_variant, 0);
    EXPECT_EQ(rec->loom_layout_variant, 2);
    nexa_bytestr bytes{reinterpret_cast<u8*>(const_cast<char*>("abc")), 3, 0};
    EXPECT_EQ(rec_parent_with_sing_child_binary_data_get(*h, domain, rec, &error), nullptr);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    rec_parent_with_sing_child_binary_data_set(*h, domain, rec, &bytes, &error);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    EXPECT_EQ((*h)->last_error, u32{LOOM_EIDRM});
    EXPECT_EQ(rec->binary_data.bytes, nullptr);
    u8 fixed[3] = {9, 9, 9};
    rec_parent_with_sing_child_b_fixed_arr_attr_get_mem(*h, domain, rec, fixed, 3, &error);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    EXPECT_EQ(fixed[0], 9);
    limit("rec_parent_with_sing_child", 2);
    rec_parent_with_sing_child_binary_data_set(*h, domain, rec, &bytes, &error);
    EXPECT_EQ(taken(), 0u);
    EXPECT_EQ(rec->loom_variant, 2);
    rec_parent_with_sing_child_destroy(*h, domain, rec);

    // A destroy follows the variant: what lies beyond it is left alone.
    rec = rec_parent_with_sing_child_create(*h, domain);
    rec_parent_with_sing_child_binary_data_set(*h, domain, rec, &bytes, &error);
    u8* kept = rec->binary_data.bytes;
    rec->loom_variant = 1;
    rec_parent_with_sing_child_destroy(*h, domain, rec);
    EXPECT_EQ(h->live_blocks(), 1u);
    (*h)->free((*h)->alloc_ctx, domain, kept);
}

TEST_F(edges, an_instance_that_the_peer_does_not_know_has_no_attributes) {
    limit("rec_parent_with_sing_child", -1);
    auto* rec = rec_parent_with_sing_child_create(*h, domain);
    EXPECT_EQ(rec->loom_variant, -1);
    EXPECT_EQ(rec_parent_with_sing_child_int_attr_get(*h, domain, rec, &error), nullptr);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    rec_parent_with_sing_child_int_attr_set_value(*h, domain, rec, 5, &error);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    EXPECT_EQ(rec->int_attr, 0u);
    u32 boolean = 7;
    i32 enumeration = 7;
    u32 number = 7;
    double real = 7;
    u16 length = 7;
    rec_parent_with_sing_child_get_all(*h, domain, rec, &boolean, &enumeration, &number, &real, &length, &length,
                                       &length, &error);
    EXPECT_EQ(number, 7u) << "nothing is written";
    rec_parent_with_sing_child_set_all(*h, domain, rec, 1, 1, 1, 1, &error);
    EXPECT_EQ(rec->int_attr, 0u);
    rec_parent_with_sing_child_destroy(*h, domain, rec);
}

// ---- Moves and bulk access ---------------------------------------------------------------------------------

TEST_F(edges, a_move_empties_arrays_and_keeps_strings) {
    auto* from = rec_parent_with_sing_child_create(*h, domain);
    auto* to = rec_parent_with_sing_child_create(*h, domain);
    const loom_vstring text = text_of("kept");
    rec_parent_with_sing_child_st_attr_set(*h, domain, from, &text, &error);
    const u8 bytes[] = {1, 2, 3};
    rec_parent_with_sing_child_b_arr_attr_set_mem(*h, domain, from, bytes, 3, &error);
    // What the destination had goes.
    rec_parent_with_sing_child_st_attr_set(*h, domain, to, &text, &error);
    rec_parent_with_sing_child_b_arr_attr_set_mem(*h, domain, to, bytes, 2, &error);
    auto* block = from->b_arr_attr;
    rec_parent_with_sing_child_set(*h, domain, to, from, &error);
    EXPECT_EQ(to->b_arr_attr, block);
    EXPECT_EQ(to->b_arr_len, 3u);
    EXPECT_EQ(from->b_arr_attr, nullptr);
    EXPECT_EQ(from->b_arr_len, 0u);
    EXPECT_STREQ(from->st_attr.text, "kept");
    EXPECT_STREQ(to->st_attr.text, "kept");
    EXPECT_NE(to->st_attr.text, from->st_attr.text);
    rec_parent_with_sing_child_set(*h, domain, to, to, &error);
    EXPECT_EQ(to->b_arr_len, 3u) << "a move onto itself";
    // An older destination takes nothing, a newer one becomes older.
    to->loom_variant = 1;
    limit("rec_parent_with_sing_child", 1);
    rec_parent_with_sing_child_set(*h, domain, to, from, &error);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    EXPECT_EQ(to->b_arr_len, 3u);
    rec_parent_with_sing_child_set(*h, domain, from, to, &error);
    EXPECT_EQ(taken(), 0u);
    EXPECT_EQ(from->loom_variant, 1);
    EXPECT_EQ(from->b_arr_len, 3u);
    // A move does not look at a pending error.
    error = 5;
    rec_parent_with_sing_child_set(*h, domain, to, from, &error);
    EXPECT_EQ(taken(), 5u);
    EXPECT_EQ(to->b_arr_len, 3u);
    rec_parent_with_sing_child_destroy(*h, domain, from);
    rec_parent_with_sing_child_destroy(*h, domain, to);
}

TEST_F(tracked_edges, bulk_values_come_with_lengths_and_leave_the_flags) {
    auto* rec = rec_parent_with_sing_child_create(*h, domain);
    rec_parent_with_sing_child_set_all(*h, domain, rec, 1, 3, 42, 2.5, &error);
    for (u32 i = 0; i < 104; ++i)
        EXPECT_EQ(reinterpret_cast<const u8*>(rec)[968 + i], 0) << i;
    rec_parent_with_sing_child_b_arr_attr_set_value(*h, domain, rec, 4, 1, &error);
    u32 boolean = 0;
    i32 enumeration = 0;
    u32 number = 0;
    double real = 0;
    u16 bytes = 9;
    u16 records = 9;
    u16 nested = 9;
    rec_parent_with_sing_child_get_all(*h, domain, rec, &boolean, &enumeration, &number, &real, &bytes, &records,
                                       &nested, &error);
    EXPECT_EQ(boolean, 1u);
    EXPECT_EQ(enumeration, 3);
    EXPECT_EQ(number, 42u);
    EXPECT_EQ(real, 2.5);
    EXPECT_EQ(bytes, 5u);
    EXPECT_EQ(records, 0u);
    EXPECT_EQ(nested, 0u);
    // A value that the enumeration refuses stops the bulk there.
    rec_parent_with_sing_child_set_all(*h, domain, rec, 0, 1000, 43, 3.5, &error);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    EXPECT_EQ(rec->bool_attr, 0u);
    EXPECT_EQ(rec->int_attr, 42u);
    rec_parent_with_sing_child_destroy(*h, domain, rec);
}

// ---- State flags -------------------------------------------------------------------------------------------

TEST_F(tracked_edges, flags_start_at_zero_and_have_their_places) {
    auto* rec = rec_parent_with_sing_child_create(*h, domain);
    const u8* area = reinterpret_cast<const u8*>(rec) + 968;
    for (u32 i = 0; i < 104; ++i)
        EXPECT_EQ(area[i], 0);
    rec_parent_with_sing_child_int_attr_set_value(*h, domain, rec, 1, &error);
    EXPECT_EQ(area[6], 2);
    // The nested record's own area lies behind its byte at 10.
    ud_type_int_att_set_value(*h, domain, &rec->comp_attr, 1, &error);
    EXPECT_EQ(area[10], 0);
    EXPECT_EQ(area[12], 2);
    const_default_type_pd_attr_set_value(*h, domain, &rec->comp_attr.default_attr, 1, &error);
    EXPECT_EQ(area[11 + 25 + 4], 2);
    simple_choice_val_discr_set_value(*h, domain, &rec->comp_attr.union_attr, 1, &error);
    EXPECT_EQ(area[11 + 33], 2);
    rec_parent_with_sing_child_b_fixed_arr_attr_set_value(*h, domain, rec, 1, 5, &error);
    EXPECT_EQ(area[97], 2);
    EXPECT_EQ(area[99], 2);
    // The flags of an array's elements; an empty one has none.
    u8* flags = reinterpret_cast<u8*>(rec);
    rec_parent_with_sing_child_b_arr_attr_state_flag_get_arr(*h, domain, rec, &flags, &error);
    EXPECT_EQ(flags, nullptr);
    rec_parent_with_sing_child_b_fixed_arr_attr_state_flag_get_arr(*h, domain, rec, &flags, &error);
    EXPECT_EQ(flags, area + 98);
    EXPECT_EQ(rec_parent_with_sing_child_b_arr_attr_state_flag_get(*h, domain, rec, 0, &error), 0);
    EXPECT_EQ(taken(), u32{LOOM_ENOENT});
    rec_parent_with_sing_child_b_arr_attr_state_flag_set(*h, domain, rec, 0, 1, &error);
    EXPECT_EQ(taken(), u32{LOOM_ENOENT});
    rec_parent_with_sing_child_b_fixed_arr_attr_state_flag_set(*h, domain, rec, 3, 1, &error);
    EXPECT_EQ(taken(), u32{LOOM_ENOENT});
    rec_parent_with_sing_child_b_fixed_arr_attr_state_flag_whole_set(*h, domain, rec, 9, &error);
    EXPECT_EQ(rec_parent_with_sing_child_b_fixed_arr_attr_state_flag_whole_get(*h, domain, rec, &error), 9);
    // A whole row of flags lands on the first attributes, whichever array it is for.
    const u8 row[] = {7, 8, 9};
    rec_parent_with_sing_child_b_fixed_arr_attr_state_flag_set_arr(*h, domain, rec, row, 2, &error);
    EXPECT_EQ(taken(), u32{LOOM_ENOENT});
    {
        const test_handle::unannounced quiet(*h, "a row of flags is stored without a notice");
        rec_parent_with_sing_child_b_fixed_arr_attr_state_flag_set_arr(*h, domain, rec, row, 3, &error);
    }
    EXPECT_EQ(area[0], 7);
    EXPECT_EQ(area[2], 9);
    EXPECT_EQ(area[99], 2);
    // All flags at once, without a notice; the pointers to element flags are overwritten as well.
    auto* choice = simple_union_create(*h, domain);
    {
        const test_handle::unannounced quiet(*h, "all flags are stored without a notice");
        simple_union_set_all_state_tracking_flag(*h, domain, choice, 5);
    }
    EXPECT_EQ(simple_union_val_discr_state_flag_get(*h, domain, choice, &error), 5);
    EXPECT_EQ(simple_union_str_attr_state_flag_get(*h, domain, choice, &error), 5);
    simple_union_destroy(*h, domain, choice);
    rec_parent_with_sing_child_destroy(*h, domain, rec);
}

TEST_F(edges, flags_without_tracking) {
    loom_set_tracking(*h, LOOM_TRACKING_OFF);
    auto* key = string_key_create(*h, domain);
    EXPECT_EQ(string_key_s_key_state_flag_get(*h, domain, key, &error), 0);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    string_key_set_all_state_tracking_flag(*h, domain, key, 1);
    (*h)->sttr_block->sttr_mode = 0x1234;
    string_key_set_all_state_tracking_flag(*h, domain, key, 1); // a corrupted mode is no fault here
    loom_set_tracking(*h, LOOM_TRACKING_NONE);
    EXPECT_EQ(string_key_s_key_state_flag_get(*h, domain, key, &error), 0);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    string_key_destroy(*h, domain, key);
}

TEST_F(tracked_edges, an_untracked_value_is_refused_by_arrays_and_lists) {
    loom_set_tracking(*h, LOOM_TRACKING_OFF);
    auto* value = ud_type_create(*h, domain);
    auto* element = type_with_list_create(*h, domain);
    loom_set_tracking(*h, LOOM_TRACKING_ON);
    auto* rec = rec_parent_with_sing_child_create(*h, domain);
    auto* holder = rec_with_list_create(*h, domain);
    rec_parent_with_sing_child_ud_arr_attr_set(*h, domain, rec, 0, value, &error);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    EXPECT_EQ(rec->ud_arr_len, 0u);
    rec_with_list_list_attr_set_last(*h, domain, holder, element, &error);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    EXPECT_EQ(holder->list_attr.count, 0u);
    rec_with_list_destroy(*h, domain, holder);
    rec_parent_with_sing_child_destroy(*h, domain, rec);
    type_with_list_destroy(*h, domain, element);
    ud_type_destroy(*h, domain, value);
}

// ---- Arrays ------------------------------------------------------------------------------------------------

TEST_F(tracked_edges, an_array_grows_to_the_index_and_its_elements_keep_their_contents) {
    auto* rec = rec_parent_with_sing_child_create(*h, domain);
    auto* value = ud_type_create(*h, domain);
    const loom_vstring text = text_of("element");
    complete(*h, value);
    ud_type_st_att_set(*h, domain, value, &text, &error);
    rec_parent_with_sing_child_ud_arr_attr_set(*h, domain, rec, 5, value, &error);
    EXPECT_EQ(rec->ud_arr_len, 6u);
    EXPECT_EQ(rec_parent_with_sing_child_ud_arr_attr_get(*h, domain, rec, 6, &error), nullptr);
    EXPECT_EQ(taken(), u32{LOOM_ENOENT});
    for (u32 i = 0; i < 5; ++i) {
        const ud_type* element = rec_parent_with_sing_child_ud_arr_attr_get(*h, domain, rec, i, &error);
        EXPECT_EQ(element->st_att.text, nullptr);
        EXPECT_EQ(element->loom_flags & OBJ_NESTED, OBJ_NESTED);
        EXPECT_EQ(element->loom_variant, 4);
        EXPECT_EQ(rec_parent_with_sing_child_ud_arr_attr_state_flag_get(*h, domain, rec, i, &error), 0);
    }
    EXPECT_EQ(rec_parent_with_sing_child_ud_arr_attr_state_flag_get(*h, domain, rec, 5, &error), 2);
    const_default_type_int_attr_set_value(*h, domain, &rec->ud_arr_attr[5].default_attr, 77, &error);
    // Growth moves the elements with their flags, their nested records' flags and their own strings.
    rec_parent_with_sing_child_ud_arr_attr_set(*h, domain, rec, 8, nullptr, &error);
    EXPECT_EQ(rec->ud_arr_len, 9u);
    ud_type* moved = rec_parent_with_sing_child_ud_arr_attr_get(*h, domain, rec, 5, &error);
    EXPECT_STREQ(moved->st_att.text, "element");
    EXPECT_EQ(moved->default_attr.int_attr, 77u);
    EXPECT_EQ(ud_type_st_att_state_flag_get(*h, domain, moved, &error), 2);
    EXPECT_EQ(ud_type_int_att_state_flag_get(*h, domain, moved, &error), 0);
    EXPECT_EQ(const_default_type_int_attr_state_flag_get(*h, domain, &moved->default_attr, &error), 2);
    EXPECT_EQ(rec_parent_with_sing_child_ud_arr_attr_state_flag_get(*h, domain, rec, 5, &error), 2);
    EXPECT_EQ(rec_parent_with_sing_child_ud_arr_attr_state_flag_get(*h, domain, rec, 8, &error), 2);
    // A value that is copied stays whole, one that is moved gives its arms away.
    EXPECT_EQ(value->unn_uint_attr, nullptr);
    complete(*h, value);
    EXPECT_EQ(rec_parent_with_sing_child_ud_arr_attr_set_cr(*h, rec, 0, value, 0), 0u);
    EXPECT_STREQ(value->st_att.text, "element");
    EXPECT_STREQ(rec->ud_arr_attr[0].st_att.text, "element");
    EXPECT_NE(value->unn_uint_attr, nullptr);
    rec_parent_with_sing_child_ud_arr_attr_remove_elements(*h, domain, rec);
    EXPECT_EQ(rec->ud_arr_len, 0u);
    EXPECT_EQ(rec->ud_arr_attr, nullptr);
    rec_parent_with_sing_child_ud_arr_attr_remove_elements(*h, domain, rec);
    rec_parent_with_sing_child_ud_arr_attr_remove_elements(*h, domain, nullptr);
    rec_parent_with_sing_child_ud_arr_attr_set(*h, domain, rec, 0, nullptr, &error);
    EXPECT_EQ(rec->ud_arr_len, 1u);
    ud_type_destroy(*h, domain, value);
    rec_parent_with_sing_child_destroy(*h, domain, rec);
    EXPECT_EQ(loom_tracking_map_count(*h), 0u);
}

TEST_F(edges, lengths_of_blocks_are_tested) {
    auto* rec = rec_parent_with_sing_child_create(*h, domain);
    const u8 bytes[] = {1, 2, 3, 4};
    u8 out[4] = {};
    rec_parent_with_sing_child_b_fixed_arr_attr_set_mem(*h, domain, rec, bytes, 4, &error);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    rec_parent_with_sing_child_b_fixed_arr_attr_set_mem(*h, domain, rec, bytes, 3, &error);
    rec_parent_with_sing_child_b_fixed_arr_attr_set_mem(*h, domain, rec, bytes + 3, 1, &error);
    EXPECT_EQ(rec->b_fixed_arr_attr[0], 4);
    EXPECT_EQ(rec->b_fixed_arr_attr[1], 2) << "the rest stays";
    rec_parent_with_sing_child_b_fixed_arr_attr_get_mem(*h, domain, rec, out, 4, &error);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    EXPECT_EQ(rec_parent_with_sing_child_b_fixed_arr_attr_get(*h, domain, rec, 3, &error), nullptr);
    EXPECT_EQ(taken(), u32{LOOM_ENOENT});
    rec_parent_with_sing_child_b_fixed_arr_attr_set(*h, domain, rec, 0, nullptr, &error);
    EXPECT_EQ(rec->b_fixed_arr_attr[0], 4) << "a null value changes nothing";
    rec_parent_with_sing_child_b_arr_attr_set_mem(*h, domain, rec, bytes, 3, &error);
    rec_parent_with_sing_child_b_arr_attr_get_mem(*h, domain, rec, out, 4, &error);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    rec_parent_with_sing_child_b_arr_attr_get_mem(*h, domain, rec, out, 2, &error);
    EXPECT_EQ(out[1], 2);
    rec_parent_with_sing_child_b_arr_attr_set_mem(*h, domain, rec, bytes, 0, &error);
    EXPECT_EQ(rec->b_arr_len, 0u) << "an empty block is an array like any other";
    // An index that the count cannot hold.
    rec_parent_with_sing_child_b_arr_attr_set_value(*h, domain, rec, 65535, 1, &error);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    EXPECT_EQ(rec->b_arr_len, 0u);
    rec_parent_with_sing_child_b_arr_attr_set_value(*h, domain, rec, 65534, 1, &error);
    EXPECT_EQ(rec->b_arr_len, 65535u);
    rec_parent_with_sing_child_destroy(*h, domain, rec);
    auto* leaves = leaf_list_test_variable_create(*h, domain);
    const loom_vstring text = text_of("leaf");
    for (u32 i = 0; i < 3; ++i)
        leaf_list_test_variable_leaf_list_string_variable_set(*h, domain, leaves, i, &text, &error);
    EXPECT_STREQ(leaves->leaf_list_string_variable[2].text, "leaf");
    EXPECT_EQ(leaves->leaf_list_string_len, 3u);
    leaf_list_test_variable_leaf_list_string_variable_remove_elements(*h, domain, leaves);
    EXPECT_EQ(h->live_blocks(), 1u);
    leaf_list_test_variable_destroy(*h, domain, leaves);
}

TEST_F(edges, a_block_with_a_count_of_zero_is_freed) {
    auto* rec = rec_parent_with_sing_child_create(*h, domain);
    rec_parent_with_sing_child_ud_arr_attr_set(*h, domain, rec, 0, nullptr, &error);
    // Elements are not ended then, which only an element without storage survives.
    h->end_operation();
    {
        const test_handle::unannounced quiet(*h, "the test itself");
        rec->ud_arr_len = 0;
    }
    EXPECT_EQ(h->live_blocks(), 2u);
    rec_parent_with_sing_child_destroy(*h, domain, rec);
}

TEST_F(tracked_edges, character_arrays) {
    using child = rec_child_comp_key_parent_comp_key;
    auto* rec = rec_child_comp_key_parent_comp_key_create(*h, domain);
    const auto set = [&](const char* text, u32 length) {
        rec_child_comp_key_parent_comp_key_dynamic_char_arr_attr_set(*h, domain, rec, text, length, &error);
    };
    char out[32];
    const auto get = [&](u32 size) {
        memset(out, '~', sizeof out);
        rec_child_comp_key_parent_comp_key_dynamic_char_arr_attr_get(*h, domain, rec, out, size, &error);
    };
    static_assert(sizeof(child::dynamic_char_arr_len) == 1);
    get(0);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    get(1);
    EXPECT_EQ(out[0], 0) << "an empty text needs its end only";
    set("hello", 5);
    get(6);
    EXPECT_STREQ(out, "hello");
    get(5);
    EXPECT_EQ(taken(), u32{LOOM_ENOSPC});
    EXPECT_STREQ(out, "hell");
    EXPECT_EQ(rec->dynamic_char_arr_attr[5], 0);
    const std::string longest(300, 'x');
    set(longest.c_str(), 255);
    EXPECT_EQ(rec->dynamic_char_arr_len, 255u);
    set(longest.c_str(), 260);
    EXPECT_EQ(rec->dynamic_char_arr_len, 4u) << "the low byte of the length counts";
    set(longest.c_str(), 256);
    EXPECT_EQ(rec->dynamic_char_arr_len, 0u);
    EXPECT_EQ(rec->dynamic_char_arr_attr, nullptr);

    const auto fix = [&](const char* text, u32 length) {
        rec_child_comp_key_parent_comp_key_fixed_len_char_arr_attr_set(*h, domain, rec, text, length, &error);
    };
    const auto read = [&](u32 size) {
        memset(out, '~', sizeof out);
        rec_child_comp_key_parent_comp_key_fixed_len_char_arr_attr_get(*h, domain, rec, out, size, &error);
    };
    fix("0123456789abcdefg", 17);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    EXPECT_EQ(rec->fixed_len_char_arr_attr[0], 0);
    fix("0123456789abcdef", 16);
    read(17);
    EXPECT_STREQ(out, "0123456789abcdef");
    read(16);
    EXPECT_EQ(taken(), u32{LOOM_ENOSPC});
    EXPECT_STREQ(out, "0123456789abcde");
    read(0);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    fix("ab", 4); // copies as strncpy does: two characters and two zeros
    EXPECT_EQ(memcmp(rec->fixed_len_char_arr_attr,
                     "ab\0\0"
                     "456789abcdef",
                     16),
              0);
    rec_child_comp_key_parent_comp_key_destroy(*h, domain, rec);
}

// ---- Lists, unions -----------------------------------------------------------------------------------------

TEST_F(edges, lists) {
    auto* holder = rec_with_list_create(*h, domain);
    EXPECT_EQ(holder->list_attr.first, &holder->list_attr);
    EXPECT_EQ(rec_with_list_list_attr_get_first(*h, domain, holder, &error), nullptr);
    EXPECT_EQ(rec_with_list_list_attr_get_last(*h, domain, holder, &error), nullptr);
    type_with_list* made[4];
    for (auto*& each : made)
        each = type_with_list_create(*h, domain);
    EXPECT_EQ(rec_with_list_list_attr_add_cr(*h, holder, made[1], 0, nullptr), 0u);
    EXPECT_EQ(rec_with_list_list_attr_add_cr(*h, holder, made[3], 1, nullptr), 0u);
    EXPECT_EQ(rec_with_list_list_attr_add_cr(*h, holder, made[0], 2, made[1]), 0u);
    EXPECT_EQ(rec_with_list_list_attr_add_cr(*h, holder, made[2], 3, made[1]), 0u);
    type_with_list* at = nullptr;
    for (u32 i = 0; i < 4; ++i) {
        at = i == 0 ? rec_with_list_list_attr_get_cr(*h, holder, 0, nullptr)
                    : rec_with_list_list_attr_get_cr(*h, holder, 3, at);
        EXPECT_EQ(at, made[i]);
        EXPECT_EQ(type_with_list_list_attr_get_parent(*h, domain, at, &error), holder);
    }
    EXPECT_EQ(rec_with_list_list_attr_get_cr(*h, holder, 3, at), nullptr);
    for (u32 i = 4; i-- > 0;) {
        at = i == 3 ? rec_with_list_list_attr_get_cr(*h, holder, 1, nullptr)
                    : rec_with_list_list_attr_get_cr(*h, holder, 2, at);
        EXPECT_EQ(at, made[i]);
    }
    EXPECT_EQ(rec_with_list_list_attr_get_cr(*h, holder, 2, at), nullptr);
    EXPECT_EQ(rec_with_list_list_attr_get_cr(*h, holder, 4, at), nullptr);
    EXPECT_EQ((*h)->last_error, u32{LOOM_EINVAL});
    (*h)->last_error = 0;
    auto* loose = type_with_list_create(*h, domain);
    EXPECT_EQ(rec_with_list_list_attr_add_cr(*h, holder, loose, 4, nullptr), u32{LOOM_EINVAL});
    (*h)->last_error = 0;
    EXPECT_EQ(holder->list_attr.count, 4u);
    EXPECT_EQ(type_with_list_list_attr_get_parent(*h, domain, loose, &error), nullptr);
    type_with_list_destroy(*h, domain, loose);
    for (auto* each : {made[1], made[0], made[3], made[2]}) {
        EXPECT_EQ(rec_with_list_list_attr_remove_cr(*h, holder, each), 0u);
        type_with_list_destroy(*h, domain, each);
    }
    EXPECT_EQ(holder->list_attr.first, &holder->list_attr);
    EXPECT_EQ(holder->list_attr.last, &holder->list_attr);
    EXPECT_EQ(rec_with_list_list_attr_get_count(*h, domain, holder, &error), 0u);
    rec_with_list_destroy(*h, domain, holder);
}

TEST_F(tracked_edges, arms_stay_until_they_are_detached_or_their_holder_ends) {
    auto* choice = simple_union_create(*h, domain);
    auto* number = u_int32_create(*h, domain);
    simple_union_int_attr_set(*h, domain, choice, number, &error);
    simple_union_val_discr_set_value(*h, domain, choice, 2, &error);
    EXPECT_EQ(simple_union_int_attr_get(*h, domain, choice, &error), number) << "the old arm still answers";
    EXPECT_EQ(simple_union_int_attr_get_detach(*h, domain, choice, &error), nullptr) << "it is not selected";
    EXPECT_EQ(choice->val_discr.value, 2);
    simple_union_val_discr_set_value(*h, domain, choice, 1, &error);
    EXPECT_EQ(simple_union_int_attr_state_flag_get(*h, domain, choice, &error), 2);
    EXPECT_EQ(simple_union_int_attr_get_detach(*h, domain, choice, &error), number);
    EXPECT_EQ(simple_union_int_attr_state_flag_get(*h, domain, choice, &error), 0);
    EXPECT_EQ(simple_union_int_attr_get(*h, domain, choice, &error), nullptr);
    EXPECT_EQ(simple_union_int_attr_get_detach(*h, domain, nullptr, &error), nullptr);
    u_int32_destroy(*h, domain, number);
    simple_union_val_discr_set_value(*h, domain, choice, 1000, &error);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    EXPECT_EQ(choice->val_discr.value, 0);
    simple_union_destroy(*h, domain, choice);
}

// ---- Enumerations and flag sets ----------------------------------------------------------------------------

TEST_F(edges, enumerations) {
    auto* negative = ud_enum_custom_neg_val_create(*h, domain);
    ud_enum_custom_neg_val_set_value(*h, domain, negative, -33, &error);
    EXPECT_EQ(negative->value, -33);
    EXPECT_EQ(ud_enum_custom_neg_val_map_to_internal_value(-33), 0);
    EXPECT_EQ(ud_enum_custom_neg_val_map_to_internal_value(77), 2);
    EXPECT_EQ(ud_enum_custom_neg_val_map_to_internal_value(5), 5);
    EXPECT_EQ(ud_enum_custom_neg_val_map_to_user_value(0), 0);
    EXPECT_EQ(ud_enum_custom_val_map_to_user_value(1), 1);
    EXPECT_EQ(ud_enum_custom_val_map_to_internal_value(56), 1);
    ud_enum_custom_neg_val_set_value(*h, domain, negative, 5, &error);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    EXPECT_EQ(negative->value, -33);
    ud_enum_custom_neg_val_set_value(*h, domain, negative, 1, &error);
    EXPECT_EQ(negative->value, 1) << "no member, but below the number of members";
    ud_enum_custom_neg_val_destroy(*h, domain, negative);

    EXPECT_EQ(ud_enum_is_valid_cr(*h, 5), 1u);
    EXPECT_EQ(ud_enum_is_valid_cr(*h, 6), 0u);
    EXPECT_EQ(ud_enum_is_valid_cr(*h, -1), 1u) << "the test is signed here";
    limit("ud_enum", 0);
    EXPECT_EQ(ud_enum_is_valid_cr(*h, 5), 0u);
    EXPECT_EQ(ud_enum_is_valid_cr(*h, 4), 1u);
    auto* older = ud_enum_create(*h, domain);
    EXPECT_EQ(older->loom_variant, 0);
    EXPECT_EQ(older->loom_layout_variant, 1);
    ud_enum_set_value(*h, domain, older, 5, &error);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    ud_enum_set_value(*h, domain, older, -1, &error);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM}) << "and unsigned here";
    limit("ud_enum", 1);
    ud_enum_set_value(*h, domain, older, 5, &error);
    EXPECT_EQ(older->value, 5) << "the instance could be raised";
    EXPECT_EQ(older->loom_variant, 1);
    auto* copy = ud_enum_create(*h, domain);
    ud_enum_set(*h, domain, copy, older, &error);
    EXPECT_EQ(ud_enum_get_value(*h, domain, copy, &error), 5);
    EXPECT_EQ(ud_enum_get_value(*h, domain, nullptr, &error), 0);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    EXPECT_EQ(ud_enum_sizeof(*h), 16u);
    EXPECT_EQ(ud_enum_len(*h, domain, nullptr), 5u);
    ud_enum_destroy(*h, domain, copy);
    ud_enum_destroy(*h, domain, older);
}

TEST_F(edges, flag_sets) {
    EXPECT_EQ(ud_flag_in_range(9), 1u);
    EXPECT_EQ(ud_flag_in_range(10), 0u);
    EXPECT_EQ(ud_flag_sizeof(*h), 24u);
    EXPECT_EQ(ud_flag_64_sizeof(*h), 32u);
    EXPECT_EQ(ud_flag_big_sizeof(*h), 32u);
    limit("ud_flag", 0);
    EXPECT_EQ(ud_flag_is_valid_cr(*h, 9), 0u);
    EXPECT_EQ(ud_flag_is_valid_cr(*h, 8), 1u);
    auto* flags = ud_flag_create(*h, domain);
    ud_flag_set_value(*h, domain, flags, 9, 1, &error);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    limit("ud_flag", 1);
    ud_flag_set_value(*h, domain, flags, 9, 1, &error);
    EXPECT_EQ(flags->bits[0], 0);
    EXPECT_EQ(flags->bits[1], 2);
    EXPECT_EQ(ud_flag_set_cr(*h, flags, 0, 1), 0u);
    EXPECT_EQ(ud_flag_get_cr(*h, flags, 0), 1u);
    ud_flag_set_value(*h, domain, flags, 9, 0, &error);
    EXPECT_EQ(flags->bits[1], 0);
    ud_flag_set_value(*h, domain, flags, 10, 1, &error);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    EXPECT_EQ(ud_flag_get_value(*h, domain, flags, 10, &error), 0u);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    EXPECT_EQ(ud_flag_get_value(*h, domain, nullptr, 0, &error), 0u);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    ud_flag_set_value(*h, domain, nullptr, 0, 1, &error);
    EXPECT_EQ(taken(), 0u) << "nobody is there to be told";
    ud_flag_destroy(*h, domain, flags);

    auto* wide = ud_flag_64_create(*h, domain);
    ud_flag_64_set_value(*h, domain, wide, 63, 1, &error);
    for (u32 i = 0; i < 7; ++i)
        EXPECT_EQ(wide->bits[i], 0);
    EXPECT_EQ(wide->bits[7], 0x80);
    ud_flag_64_destroy(*h, domain, wide);
    auto* big = ud_flag_big_create(*h, domain);
    ud_flag_big_set_value(*h, domain, big, 79, 1, &error);
    EXPECT_EQ(big->bits[9], 0x80);
    EXPECT_EQ(ud_flag_big_get_value(*h, domain, big, 79, &error), 1u);
    EXPECT_EQ(ud_flag_big_get_value(*h, domain, big, 78, &error), 0u);
    ud_flag_big_destroy(*h, domain, big);
}

// ---- Embedded, copies, references --------------------------------------------------------------------------

TEST_F(edges, embedding_marks_everything_with_a_header) {
    auto* rec = rec_parent_with_sing_child_create(*h, domain);
    rec_parent_with_sing_child_set_instance_embedded(*h, domain, rec);
    EXPECT_EQ(rec->loom_flags & OBJ_EMBEDDED, OBJ_EMBEDDED);
    EXPECT_EQ(rec->comp_attr.loom_flags & OBJ_EMBEDDED, OBJ_EMBEDDED);
    EXPECT_EQ(rec->comp_attr.default_attr.enum_attr.loom_flags & OBJ_EMBEDDED, OBJ_EMBEDDED);
    EXPECT_EQ(rec->flg_attr.loom_flags & OBJ_EMBEDDED, OBJ_EMBEDDED);
    rec_parent_with_sing_child_set_instance_embedded(*h, domain, nullptr);
    rec_parent_with_sing_child_destroy(*h, domain, rec);
}

TEST_F(edges, copies) {
    auto* rec = rec_parent_with_sing_child_create(*h, domain);
    complete(*h, &rec->comp_attr);
    const u64 blocks = h->live_blocks();
    const u32 length = rec_parent_with_sing_child_len(*h, domain, rec);
    std::vector<std::byte> workspace(length + 1);
    parent* copy = rec;
    rec_parent_with_sing_child_clone(*h, domain, rec, &copy, workspace.data(), static_cast<i32>(length) - 1,
                                     &error);
    EXPECT_EQ(taken(), u32{LOOM_EMSGSIZE});
    EXPECT_EQ(copy, nullptr);
    EXPECT_EQ(h->live_blocks(), blocks);
    rec_parent_with_sing_child_clone(*h, domain, rec, nullptr, workspace.data(), 10, &error);
    EXPECT_EQ(taken(), u32{LOOM_ENOENT});
    rec_parent_with_sing_child_clone(*h, domain, rec, &copy, nullptr, 10, &error);
    EXPECT_EQ(taken(), u32{LOOM_ENOENT});
    // A copy keeps the variant of its source, whatever the peer speaks.
    limit("rec_parent_with_sing_child", 0);
    const u8 bytes[] = {1, 2, 3};
    rec_parent_with_sing_child_b_fixed_arr_attr_set_mem(*h, domain, rec, bytes, 3, &error);
    rec_parent_with_sing_child_clone(*h, domain, rec, &copy, workspace.data(), static_cast<i32>(workspace.size()),
                                     &error);
    EXPECT_EQ(taken(), 0u);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->loom_variant, 2);
    EXPECT_EQ(copy->b_fixed_arr_attr[2], 3);
    rec_parent_with_sing_child_destroy(*h, domain, copy);
    // A nested part that is too new for the peer makes the copy fail.
    limit("ud_type", 3);
    rec_parent_with_sing_child_clone(*h, domain, rec, &copy, workspace.data(), static_cast<i32>(workspace.size()),
                                     &error);
    EXPECT_EQ(taken(), u32{LOOM_EIDRM});
    EXPECT_EQ(copy, nullptr);
    (*h)->last_error = 9;
    EXPECT_EQ(rec_parent_with_sing_child_clone_cr(*h, rec), nullptr);
    EXPECT_EQ((*h)->last_error, 9u);
    (*h)->last_error = 0;
    rec_parent_with_sing_child_destroy(*h, domain, rec);
}

/// Whatever a handle's workspace can hold, the copy is whole or there is none: only the last state may be missing.
TEST(workspace, of_every_size) {
    test_handle handle({.tracking = LOOM_TRACKING_ON});
    string_key* key = string_key_create(handle, domain);
    const u32 whole = string_key_len(handle, domain, key);
    for (u32 size = 1; size <= whole; ++size) {
        loom_set_workspace_size(handle, size);
        string_key* copy = string_key_clone_cr(handle, key);
        EXPECT_EQ(copy != nullptr, size + 1 >= whole) << size;
        EXPECT_EQ(handle->last_error, copy != nullptr ? 0u : 90u);
        string_key_destroy(handle, domain, copy);
        handle->last_error = 0;
    }
    string_key_destroy(handle, domain, key);
}

TEST_F(edges, references_are_counted_where_they_stand) {
    auto* rec = rec_parent_with_sing_child_create(*h, domain);
    EXPECT_EQ(rec_parent_with_sing_child_child_sing_oid_get_by_ref(*h, domain, rec, &error), nullptr);
    EXPECT_EQ(taken(), 0u);
    EXPECT_EQ(rec_parent_with_sing_child_get_oid_count(*h, domain, rec, &error), 1u);
    EXPECT_EQ(ud_type_get_oid_count(*h, domain, &rec->comp_attr, &error), 0u);
    EXPECT_EQ(rec_parent_with_sing_child_get_oid_count(*h, domain, nullptr, &error), 0u);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    void* references[1] = {rec};
    rec_parent_with_sing_child_get_object_references(*h, domain, rec, references, 1, &error);
    EXPECT_EQ(references[0], nullptr);
    rec_parent_with_sing_child_get_object_references(*h, domain, nullptr, references, 1, &error);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    // A record of another table is refused, and an old reference stays.
    loom_table right{};
    right.header.loom_tinfo = rec->loom_child_sing_oid_type;
    loom_table wrong{};
    wrong.header.loom_tinfo = rec->loom_tinfo;
    ASSERT_NE(loom_oid_mapping_create(*h, domain, &right, 2, 0, 0, &error), 0u);
    rec_parent_with_sing_child_child_sing_oid_set_by_ref(*h, domain, rec, &right, &error);
    rec_parent_with_sing_child_child_sing_oid_set_by_ref(*h, domain, rec, &wrong, &error);
    EXPECT_EQ(taken(), u32{LOOM_EINVAL});
    EXPECT_EQ(rec_parent_with_sing_child_child_sing_oid_get_by_ref(*h, domain, rec, &error), &right);
    rec_parent_with_sing_child_get_object_references(*h, domain, rec, references, 1, &error);
    EXPECT_EQ(references[0], &right);
    // The record's end lets go of it.
    rec_parent_with_sing_child_destroy(*h, domain, rec);
    loom_oid_state state{};
    EXPECT_EQ(loom_oid_mapping_state(*h, &right, &state), 0u);
    EXPECT_EQ(state.count, 0u);
    EXPECT_NE(loom_request_oid_mapping_destroy(*h, domain, &right, &error), 0u);
}

TEST_F(edges, a_referenced_object_outlives_its_destroy) {
    auto* key = string_key_create(*h, domain);
    ASSERT_NE(loom_oid_mapping_create(*h, domain, key, 0, 0, 0, &error), 0u);
    loom_oid oid{};
    loom_handle_to_oid(&oid, *h, domain, key, 0, 1, &error);
    ASSERT_EQ(taken(), 0u);
    const u64 ended = key->loom_tinfo->variant_table->entries[0].objects_destroyed;
    string_key_destroy(*h, domain, key);
    EXPECT_EQ(h->live_blocks(), 1u);
    EXPECT_EQ(key->loom_tinfo->variant_table->entries[0].objects_destroyed, ended);
    // The last reference takes it along.
    loomlib_oid_release_internal(*h, domain, &oid, &error);
    EXPECT_EQ(taken(), 0u);
    EXPECT_EQ(h->live_blocks(), 0u);
}

} // namespace
} // namespace trellis::testing
