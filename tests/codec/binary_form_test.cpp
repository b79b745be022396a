// The binary form by literal bytes, and what happens at the ends of buffers, variants and arrays.
#include "tests/codec/codec_fixture.h"

#include <trellis_test_types/trellis_test_types.h>

namespace trellis::testing {
namespace {

struct written {
    std::string bytes;
    uint32_t error;
};

template <class Object>
written marshal(const char* type, loom_handle* handle, const Object* object, int32_t length) {
    exact_buffer buffer(static_cast<size_t>(length) + 1, 0xAA); // the spare byte
    uint32_t error = 0;
    const uint32_t size = named_type(type).marshal(handle, domain, buffer.data(), object, length, &error);
    return {hex(buffer.data(), size), error};
}

simple_union* empty_union(loom_handle* handle) {
    simple_union* made = simple_union_create(handle, domain);
    uint32_t error = 0;
    simple_union_val_discr_set_value(handle, domain, made, 0, &error);
    EXPECT_EQ(error, 0u);
    return made;
}

TEST(binary_form, union_without_active_arm) {
    const database plain, off(LOOM_TRACKING_OFF);
    for (const database* each : {&plain, &off}) {
        simple_union* object = empty_union(*each);
        EXPECT_EQ(simple_union_len(*each, domain, object), 11u);
        const written form = marshal("simple_union", *each, object, 11);
        EXPECT_EQ(form.bytes, "00 00 00 00 00 09 01 00 00 00 00");
        EXPECT_EQ(form.error, 0u);
        simple_union_destroy(*each, domain, object);
    }
}

TEST(binary_form, union_with_state_bytes) {
    const database on(LOOM_TRACKING_ON);
    simple_union* object = empty_union(on);
    EXPECT_EQ(simple_union_len(on, domain, object), 15u);
    EXPECT_EQ(marshal("simple_union", on, object, 20).bytes, "00 08 00 00 00 0d 01 00 00 00 00 02 00 00 00");
    // The last guarded byte wants two bytes of room.
    const written exact = marshal("simple_union", on, object, 15);
    EXPECT_EQ(exact.bytes, "00 08 00 00 00 0c 01 00 00 00 00 02 00 00");
    EXPECT_EQ(exact.error, 0u);
    simple_union_destroy(on, domain, object);
}

TEST(binary_form, scalar_step_stores_behind_the_end_and_stays) {
    const database on(LOOM_TRACKING_ON);
    simple_union* object = empty_union(on);
    exact_buffer buffer(12, 0xAA);
    uint32_t error = 0;
    EXPECT_EQ(simple_union_marshal(on, domain, buffer.data(), object, 11, &error), 11u);
    EXPECT_EQ(hex(buffer.data(), 12), "00 08 00 00 00 09 01 00 00 00 00 02");
    simple_union_destroy(on, domain, object);
}

TEST(binary_form, untracked_object_under_tracking_handle_has_empty_states) {
    const database plain, on(LOOM_TRACKING_ON);
    simple_union* object = empty_union(plain);
    EXPECT_EQ(marshal("simple_union", on, object, 20).bytes, "00 08 00 00 00 0d 01 00 00 00 00 00 00 00 00");
    simple_union_destroy(plain, domain, object);
}

TEST(binary_form, selected_arms) {
    const database plain;
    simple_union* object = empty_union(plain);
    uint32_t error = 0;
    simple_union_val_discr_set_value(plain, domain, object, 1, &error);
    EXPECT_EQ(simple_union_len(plain, domain, object), 11u) << "arms without value count nothing";
    EXPECT_EQ(marshal("simple_union", plain, object, 40).error, 2u);

    uint32_t* number = u_int32_create(plain, domain);
    *number = 0x01020304;
    simple_union_int_attr_set(plain, domain, object, number, &error);
    loom_vstring* text = loom_vstring_create(plain, domain);
    loom_vstring_assign(plain, domain, text, "x", 1, &error);
    simple_union_str_attr_set(plain, domain, object, text, &error);
    ASSERT_EQ(error, 0u);
    // The number's arm is stale now.
    EXPECT_EQ(marshal("simple_union", plain, object, 40).bytes, "00 00 00 00 00 0e 01 00 00 00 02 00 00 00 01 78");
    EXPECT_EQ(simple_union_len(plain, domain, object), 16u);
    simple_union_destroy(plain, domain, object);
}

TEST(binary_form, enumerations_travel_by_internal_value) {
    const database plain;
    ud_enum_custom_neg_val* object = ud_enum_custom_neg_val_create(plain, domain);
    uint32_t error = 0;
    ud_enum_custom_neg_val_set_value(plain, domain, object, 77, &error);
    EXPECT_EQ(marshal("ud_enum_custom_neg_val", plain, object, 5).bytes, "00 00 00 00 02");
    ud_enum_custom_neg_val_set_value(plain, domain, object, -33, &error);
    EXPECT_EQ(marshal("ud_enum_custom_neg_val", plain, object, 5).bytes, "00 00 00 00 00");
    EXPECT_EQ(marshal("ud_enum_custom_neg_val", plain, object, 4).error, 90u);

    const std::vector<std::pair<std::vector<uint8_t>, int32_t>> readings = {{{0, 0, 0, 0, 0}, -33},
                                                                            {{0, 0, 0, 0, 1}, -22},
                                                                            {{0, 0, 0, 0, 2}, 77},
                                                                            {{0, 0, 0, 0, 3}, 3},
                                                                            {{9, 0xff, 0xff, 0xff, 0xff}, -1}};
    for (const auto& [bytes, value] : readings) {
        error = 0;
        EXPECT_EQ(ud_enum_custom_neg_val_unmarshal(plain, domain, bytes.data(), object, 5, 0, &error), 5u);
        EXPECT_EQ(object->value, value);
        EXPECT_EQ(object->loom_variant, 0) << "lowered to the layout's";
    }
    EXPECT_EQ(ud_enum_custom_neg_val_len(plain, domain, nullptr), 5u);
    ud_enum_custom_neg_val_destroy(plain, domain, object);
}

TEST(binary_form, flag_sets_travel_as_they_lie) {
    const database plain;
    ud_flag_big* object = ud_flag_big_create(plain, domain);
    uint32_t error = 0;
    ud_flag_big_set_value(plain, domain, object, 0, 1, &error);
    ud_flag_big_set_value(plain, domain, object, 79, 1, &error);
    EXPECT_EQ(marshal("ud_flag_big", plain, object, 15).bytes, "00 00 00 00 0e 01 00 00 00 00 00 00 00 00 80");
    const written cut = marshal("ud_flag_big", plain, object, 14);
    EXPECT_EQ(cut.bytes, "00 00 00 00 04") << "without room for all bits none are written";
    EXPECT_EQ(cut.error, 90u);
    EXPECT_EQ(ud_flag_big_len(plain, domain, nullptr), 15u);
    ud_flag_big_destroy(plain, domain, object);
}

TEST(binary_form, flag_set_reader_jumps_over_what_a_later_writer_adds) {
    const database plain;
    ud_flag* object = ud_flag_create(plain, domain);
    const std::vector<uint8_t> bytes = {5, 0, 0, 0, 8, 0x21, 0x02, 0xEE, 0xEE};
    uint32_t error = 0;
    EXPECT_EQ(ud_flag_unmarshal(plain, domain, bytes.data(), object, 9, 0, &error), 9u);
    EXPECT_EQ(object->loom_variant, 1);
    EXPECT_EQ(hex(object->bits, 2), "21 02");
    ud_flag_destroy(plain, domain, object);
}

TEST(binary_form, lengths_of_absent_and_vanished_instances) {
    const database plain;
    EXPECT_EQ(simple_union_len(plain, domain, nullptr), 11u);
    EXPECT_EQ(simple_choice_len(plain, domain, nullptr), 11u);
    rec_type* object = rec_type_create(plain, domain);
    object->loom_variant = -1;
    EXPECT_EQ(rec_type_len(plain, domain, object), 6u);
    EXPECT_EQ(marshal("rec_type", plain, object, 40).bytes, "ff 00 00 00 00 04");
    object->loom_variant = 3;
    rec_type_destroy(plain, domain, object);
}

TEST(binary_form, errors_stop_before_anything_is_touched) {
    const database plain;
    rec_type* object = rec_type_create(plain, domain);
    exact_buffer buffer(600, 0xAA);
    uint32_t error = 0;
    EXPECT_EQ(rec_type_marshal(plain, domain, buffer.data(), object, 0, &error), 0u);
    EXPECT_EQ(error, 90u);
    EXPECT_EQ(plain.handle()->last_error, 90u);
    EXPECT_EQ(rec_type_unmarshal(plain, domain, buffer.data(), object, 600, 0, &error), 0u) << "error pending";
    EXPECT_EQ(rec_type_marshal(plain, domain, buffer.data(), object, 600, &error), 0u);
    EXPECT_EQ(buffer.data()[0], 0xAA);
    EXPECT_EQ(rec_type_len_cr(plain, object), 0u) << "the slot is set";
    rec_type_destroy(plain, domain, object);
}

TEST(binary_form, remote_address_block_goes_out_empty_and_is_dropped) {
    const database plain;
    string_key* object = string_key_create(plain, domain);
    object->loom_flags |= OBJ_RA_DATA;
    EXPECT_EQ(string_key_len(plain, domain, object), 10u) << "not counted";
    const written form = marshal("string_key", plain, object, 40);
    EXPECT_EQ(form.bytes, "00 20 00 00 00 00 00 00 00 00 00 00 00 00 08 00 00 00 00");
    string_key* copy = string_key_create(plain, domain);
    exact_buffer buffer(41);
    uint32_t error = 0;
    const uint32_t size = string_key_marshal(plain, domain, buffer.data(), object, 40, &error);
    EXPECT_EQ(string_key_unmarshal(plain, domain, buffer.data(), copy, static_cast<int32_t>(size), 0, &error),
              size);
    EXPECT_NE(copy->loom_flags & OBJ_RA_DATA, 0);
    string_key_destroy(plain, domain, copy);
    string_key_destroy(plain, domain, object);
}

TEST(binary_form, only_travelling_flags_are_taken_from_the_wire) {
    const database plain;
    string_key* object = string_key_create(plain, domain);
    const std::vector<uint8_t> bytes = {0, 0xD7, 0, 0, 0, 8, 0, 0, 0, 0};
    uint32_t error = 0;
    string_key_unmarshal(plain, domain, bytes.data(), object, 10, 0, &error);
    EXPECT_EQ(object->loom_flags, 0);
    string_key_destroy(plain, domain, object);
}

TEST(skew, marshal_for_an_older_peer_is_whole_in_the_older_form) {
    const database plain;
    trellis_telemetry_data* object = trellis_telemetry_data_create(plain, domain);
    std::vector<uint32_t> lengths;
    for (int8_t variant = 0; variant <= 2; ++variant) {
        object->loom_variant = variant;
        lengths.push_back(trellis_telemetry_data_len(plain, domain, object));
    }
    for (int32_t known = -1; known <= 2; ++known) {
        const older_peer peer(plain, "trellis_telemetry_data", known);
        exact_buffer buffer(2000);
        uint32_t error = 0;
        const uint32_t size = trellis_telemetry_data_marshal(plain, domain, buffer.data(), object, 1999, &error);
        EXPECT_EQ(error, known == 2 ? 0u : 43u);
        EXPECT_EQ(plain.handle()->last_error, error);
        EXPECT_EQ(size, known < 0 ? 6u : lengths[static_cast<size_t>(known)]);
        EXPECT_EQ(static_cast<int8_t>(buffer.data()[0]), known);
        error = 0;
        EXPECT_EQ(trellis_telemetry_data_marshal_for_clone(plain, domain, buffer.data(), object, 1999, &error),
                  lengths[2]);
        EXPECT_EQ(error, 0u);
    }
    // A short buffer is no older form.
    const older_peer peer(plain, "trellis_telemetry_data", 0);
    EXPECT_EQ(marshal("trellis_telemetry_data", plain, object, static_cast<int32_t>(lengths[0]) - 1).error, 90u);
    trellis_telemetry_data_destroy(plain, domain, object);
}

TEST(skew, parts_that_are_cut_down_do_not_stop_the_others) {
    const database plain;
    rec_child_comp_key_parent_sing* object = rec_child_comp_key_parent_sing_create(plain, domain);
    object->comp_attr.loom_variant = 0; // without its unions, which need an arm
    object->parent_singleton_id_key = 0x01020304;
    object->loom_variant = 0;
    uint32_t error = 0;
    exact_buffer whole(2000), cut(2000);
    const uint32_t size =
        rec_child_comp_key_parent_sing_marshal(plain, domain, whole.data(), object, 1999, &error);
    ASSERT_EQ(error, 0u);
    object->loom_variant = 1;

    // The peer knows all these types in their first variant only.
    const older_peer peer(plain, {"rec_child_comp_key_parent_sing", "ud_enum", "ud_flag"}, 0);
    EXPECT_EQ(rec_child_comp_key_parent_sing_marshal(plain, domain, cut.data(), object, 1999, &error), size);
    EXPECT_EQ(error, 43u);
    EXPECT_EQ(hex(cut.data() + size - 4, 4), "01 02 03 04") << "the last field of the first variant";

    // The same for a holder that is not newer itself.
    object->loom_variant = 0;
    error = 0;
    EXPECT_EQ(rec_child_comp_key_parent_sing_marshal(plain, domain, cut.data(), object, 1999, &error), size);
    EXPECT_EQ(error, 43u);
    EXPECT_EQ(plain.handle()->last_error, 43u);
    object->loom_variant = 1;
    object->comp_attr.loom_variant = 4;
    rec_child_comp_key_parent_sing_destroy(plain, domain, object);
}

/// A record of two variants written in the newest.
class skewed_records {
  public:
    skewed_records() {
        source->duration = 7;
        source->custom_timeout = 8;
    }
    ~skewed_records() {
        custom_rpc_type_timeout_destroy(plain, domain, object);
        custom_rpc_type_timeout_destroy(plain, domain, source);
    }
    void transfer() {
        exact_buffer buffer(200);
        uint32_t error = 0;
        const uint32_t size = custom_rpc_type_timeout_marshal(plain, domain, buffer.data(), source, 199, &error);
        EXPECT_EQ(custom_rpc_type_timeout_unmarshal(plain, domain, buffer.data(), object,
                                                    static_cast<int32_t>(size), 1, &error),
                  size);
        EXPECT_EQ(error, 0u);
    }

    const database plain;
    custom_rpc_type_timeout* source = custom_rpc_type_timeout_create(plain, domain);
    custom_rpc_type_timeout* object = custom_rpc_type_timeout_create(plain, domain);
};

TEST(skew, reader_stops_at_what_its_layout_holds) {
    skewed_records records;
    records.object->loom_layout_variant = 0;
    records.object->custom_timeout = 5;
    records.transfer();
    EXPECT_EQ(records.object->loom_variant, 0);
    EXPECT_EQ(records.object->duration, 7u);
    EXPECT_EQ(records.object->custom_timeout, 5u) << "left alone";
}

TEST(skew, older_form_leaves_later_fields_alone) {
    skewed_records records;
    records.source->loom_variant = 0;
    records.object->custom_timeout = 5;
    records.transfer();
    EXPECT_EQ(records.object->loom_variant, 0);
    EXPECT_EQ(records.object->duration, 7u);
    EXPECT_EQ(records.object->custom_timeout, 5u);
}

TEST(skew, vanished_record_is_a_frame) {
    skewed_records records;
    records.source->loom_variant = -1;
    records.transfer();
    EXPECT_EQ(records.object->loom_variant, -1);
    EXPECT_EQ(records.object->duration, 0u);
}

TEST(reader, array_longer_than_the_bytes_is_cut_without_error) {
    const database plain;
    ud_type_with_arr* source = ud_type_with_arr_create(plain, domain);
    const uint8_t bytes[] = {1, 2, 3, 4, 5, 6};
    uint32_t error = 0;
    ud_type_with_arr_b_arr_att_set_mem(plain, domain, source, bytes, sizeof bytes, &error);
    exact_buffer buffer(500);
    const uint32_t size = ud_type_with_arr_marshal(plain, domain, buffer.data(), source, 499, &error);
    ASSERT_EQ(error, 0u);
    // Behind the six bytes stands the 16-bit count of the record array.
    const exact_buffer cut(buffer.data(), size - 2 - 3);
    ud_type_with_arr* object = ud_type_with_arr_create(plain, domain);
    ud_type_with_arr_unmarshal(plain, domain, cut.data(), object, cut.size(), 0, &error);
    EXPECT_EQ(error, 90u) << "of the count behind";
    ASSERT_EQ(object->b_arr_len, 6);
    EXPECT_EQ(hex(object->b_arr_att, 6), "01 02 03 00 00 00");
    ud_type_with_arr_destroy(plain, domain, object);
    ud_type_with_arr_destroy(plain, domain, source);
}

TEST(reader, failed_allocation_leaves_an_empty_array) {
    const database plain;
    ud_type_with_arr* source = ud_type_with_arr_create(plain, domain);
    const uint8_t bytes[] = {1, 2, 3};
    uint32_t error = 0;
    ud_type_with_arr_b_arr_att_set_mem(plain, domain, source, bytes, sizeof bytes, &error);
    exact_buffer buffer(500);
    const uint32_t size = ud_type_with_arr_marshal(plain, domain, buffer.data(), source, 499, &error);
    ud_type_with_arr* object = ud_type_with_arr_create(plain, domain);
    loom_arena_fail_after(plain, 0);
    EXPECT_EQ(
        ud_type_with_arr_unmarshal(plain, domain, buffer.data(), object, static_cast<int32_t>(size), 0, &error),
        0u);
    loom_arena_fail_after(plain, UINT64_MAX);
    EXPECT_EQ(error, 12u);
    EXPECT_EQ(object->b_arr_att, nullptr);
    EXPECT_EQ(object->b_arr_len, 0);
    ud_type_with_arr_destroy(plain, domain, object);
    ud_type_with_arr_destroy(plain, domain, source);
}

TEST(reader, lists_of_another_length_are_replaced_and_those_of_the_same_are_kept) {
    const database plain;
    rec_with_list* source = rec_with_list_create(plain, domain);
    rec_with_list* object = rec_with_list_create(plain, domain);
    uint32_t error = 0;
    exact_buffer buffer(500);
    const auto transfer = [&](uint32_t existing) {
        const uint32_t size = rec_with_list_marshal(plain, domain, buffer.data(), source, 499, &error);
        EXPECT_EQ(rec_with_list_unmarshal(plain, domain, buffer.data(), object, static_cast<int32_t>(size),
                                          existing, &error),
                  size);
        EXPECT_EQ(error, 0u);
    };
    const auto add = [&](uint32_t value) {
        type_with_list* element = type_with_list_create(plain, domain);
        element->b_attr = value;
        rec_with_list_list_attr_set_last(plain, domain, source, element, &error);
    };
    const auto first = [&] { return rec_with_list_list_attr_get_first(plain, domain, object, &error); };
    add(1);
    transfer(0);
    type_with_list* kept = first();
    ASSERT_NE(kept, nullptr);
    transfer(1);
    EXPECT_EQ(first(), kept);
    EXPECT_EQ(object->list_attr.count, 1u);
    add(0);
    transfer(1);
    EXPECT_EQ(object->list_attr.count, 2u);
    transfer(0);
    EXPECT_EQ(object->list_attr.count, 4u) << "appended";
    rec_with_list_destroy(plain, domain, object);
    rec_with_list_destroy(plain, domain, source);
}

} // namespace
} // namespace trellis::testing
