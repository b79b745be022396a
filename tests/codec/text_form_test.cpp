// The text form by literal lines, and its odd ends.
#include "tests/codec/codec_fixture.h"

#include <trellis_test_types/trellis_test_types.h>

namespace trellis::testing {
namespace {

/// What `_print` writes into a cleared buffer, unwritten bytes as dots.
std::string print(const char* type, loom_handle* handle, const void* object, int32_t depth = 0,
                  const char* label = "u") {
    std::vector<char> buffer(1u << 16);
    uint32_t error = 0;
    const int32_t size = named_type(type).print(handle, domain, buffer.data(), depth, label, object,
                                                static_cast<int32_t>(buffer.size()), &error);
    EXPECT_EQ(error, 0u);
    std::string text(buffer.data(), static_cast<size_t>(size));
    for (char& each : text)
        if (each == 0) each = '.';
    return text;
}

TEST(text_form, union_prints_the_selected_arm_by_its_path) {
    const database plain;
    simple_union* object = simple_union_create(plain, domain);
    uint32_t error = 0;
    loom_vstring* text = loom_vstring_create(plain, domain);
    loom_vstring_assign(plain, domain, text, "x", 1, &error);
    simple_union_str_attr_set(plain, domain, object, text, &error);
    EXPECT_EQ(print("simple_union", plain, object), "u@simple_union: {\n"
                                                    "  val_discr@ud_enum:EN_VAL_2\n"
                                                    "  val_discr.str_attr@loom_vstring:x\n"
                                                    "}\n");
    simple_union_val_discr_set_value(plain, domain, object, 1, &error);
    EXPECT_EQ(print("simple_union", plain, object), "u@simple_union: {\n"
                                                    "  val_discr@ud_enum:EN_VAL_1\n"
                                                    "}\n")
        << "selected arms without value are left out";
    simple_union_destroy(plain, domain, object);
}

TEST(text_form, nested_closing_brace_stands_behind_unwritten_bytes) {
    const database plain;
    wrapped_union* object = wrapped_union_create(plain, domain);
    EXPECT_EQ(print("wrapped_union", plain, object, 0), "u@wrapped_union: {\n"
                                                        "  deep_union_attr@simple_union: {\n"
                                                        "    val_discr@ud_enum:EN_VAL_0\n"
                                                        "..}\n"
                                                        "}\n");
    wrapped_union_destroy(plain, domain, object);
}

TEST(text_form, older_records_end_without_brace) {
    const database plain;
    custom_rpc_type_timeout* object = custom_rpc_type_timeout_create(plain, domain);
    object->duration = 5;
    const std::string variant_0 = "u@custom_rpc_type_timeout: {\n"
                                  "  request_timeout@loom_boolean:false\n"
                                  "  duration@u_int32:5\n";
    EXPECT_EQ(print("custom_rpc_type_timeout", plain, object), variant_0 + "  custom_timeout@u_int32:0\n}\n");
    object->loom_variant = 0;
    EXPECT_EQ(print("custom_rpc_type_timeout", plain, object), variant_0);
    object->loom_variant = -1;
    EXPECT_EQ(print("custom_rpc_type_timeout", plain, object), "u@custom_rpc_type_timeout: {\n");
    object->loom_variant = 1;
    custom_rpc_type_timeout_destroy(plain, domain, object);
}

TEST(text_form, arrays_and_lists) {
    const database plain;
    uint32_t error = 0;
    rec_with_list* list = rec_with_list_create(plain, domain);
    rec_with_list_list_attr_set_last(plain, domain, list, type_with_list_create(plain, domain), &error);
    EXPECT_EQ(print("rec_with_list", plain, list), "u@rec_with_list: {\n"
                                                   "  list list_attr count@u_int32:1\n"
                                                   "  list list_attr@type_with_list: {\n"
                                                   "    b_attr@loom_boolean:false\n"
                                                   "..}\n"
                                                   "}\n");
    rec_with_list_destroy(plain, domain, list);

    ud_type_with_arr* arrays = ud_type_with_arr_create(plain, domain);
    EXPECT_NE(print("ud_type_with_arr", plain, arrays).find("  b_arr_len@u_int16:0\n  ud_arr_len@u_int16:0\n}\n"),
              std::string::npos);
    const uint8_t bytes[] = {7, 8};
    ud_type_with_arr_b_arr_att_set_mem(plain, domain, arrays, bytes, 2, &error);
    EXPECT_NE(print("ud_type_with_arr", plain, arrays)
                  .find("  b_arr_len@u_int16:2\n  b_arr_att[0]@u_int8:7\n  b_arr_att[1]@u_int8:8\n"),
              std::string::npos);
    ud_type_with_arr_destroy(plain, domain, arrays);
}

TEST(text_form, enumerations_and_flag_sets) {
    const database plain;
    uint32_t error = 0;
    ud_enum_custom_val* value = ud_enum_custom_val_create(plain, domain);
    EXPECT_EQ(print("ud_enum_custom_val", plain, value), "u@ud_enum_custom_val:Enum value out of range");
    ud_enum_custom_val_set_value(plain, domain, value, 99, &error);
    EXPECT_EQ(print("ud_enum_custom_val", plain, value, 2), "  u@ud_enum_custom_val:EN_VAL_99\n");
    ud_enum_custom_val_destroy(plain, domain, value);

    ud_flag* flags = ud_flag_create(plain, domain);
    EXPECT_EQ(print("ud_flag", plain, flags), "u@ud_flag:\n");
    ud_flag_set_value(plain, domain, flags, 0, 1, &error);
    ud_flag_set_value(plain, domain, flags, 9, 1, &error);
    EXPECT_EQ(print("ud_flag", plain, flags), "u@ud_flag:UD_FLG0 UD_FLG9 \n");
    EXPECT_EQ(print("ud_flag", plain, nullptr), "u@ud_flag:ERR ERR ERR ERR ERR ERR ERR ERR ERR ERR \n");
    ud_flag_destroy(plain, domain, flags);
}

TEST(text_form, chain_forms) {
    const database plain;
    simple_union* object = simple_union_create(plain, domain);
    char buffer[200] = "untouched";
    plain.handle()->last_error = 22;
    EXPECT_EQ(simple_union_print_cr(plain, object, buffer, sizeof buffer), -1);
    EXPECT_EQ(simple_union_toxml_cr(plain, object, buffer, sizeof buffer), -1);
    EXPECT_STREQ(buffer, "untouched");
    plain.handle()->last_error = 0;
    EXPECT_EQ(simple_union_print_cr(plain, object, buffer, 10), -1) << "no room";
    EXPECT_EQ(plain.handle()->last_error, 90u);
    plain.handle()->last_error = 0;
    std::memset(buffer, 0, sizeof buffer);
    EXPECT_GT(simple_union_print_cr(plain, object, buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "simple_union@simple_union: {\n  val_discr@ud_enum:EN_VAL_0\n}\n");
    simple_union_destroy(plain, domain, object);
}

} // namespace
} // namespace trellis::testing
