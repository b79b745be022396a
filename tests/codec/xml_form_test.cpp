// The XML form by literal elements, and what reading makes of documents that lack or have too much.
#include "tests/codec/codec_fixture.h"

#include <trellis_test_types/trellis_test_types.h>

#include <algorithm>

namespace trellis::testing {
namespace {

std::string to_xml(const char* type, loom_handle* handle, const void* object, const char* element = "e",
                   uint8_t state = 0, uint32_t expected_error = 0) {
    std::vector<char> buffer(1u << 16);
    uint32_t error = 0;
    const uint32_t size = named_type(type).to_xml(handle, domain, element, buffer.data(), object,
                                                  static_cast<int32_t>(buffer.size()), state, &error);
    EXPECT_EQ(error, expected_error);
    return std::string(buffer.data(), size);
}

/// Reads `text` into `object` and returns the error; the failing path in `*message`.
uint32_t from_xml(const char* type, loom_handle* handle, const std::string& text, void* object,
                  const std::string& path = "/e", std::string* message = nullptr) {
    const xml_text document(text);
    uint32_t error = 0;
    char words[300] = "";
    using signature =
        void(loom_handle*, uint32_t, const char*, const loom_xml_document*, void*, uint32_t*, char*, uint32_t);
    reinterpret_cast<signature*>(find_function(std::string(type) + "_from_xml"))(
        handle, domain, path.c_str(), document, object, &error, message == nullptr ? nullptr : words,
        sizeof words);
    if (message != nullptr) *message = words;
    return error;
}

TEST(xml_form, arms_are_named_by_discriminator_and_arm) {
    const database plain;
    simple_union* object = simple_union_create(plain, domain);
    EXPECT_EQ(to_xml("simple_union", plain, object), "<e><val_discr><EN_VAL_0/></val_discr></e>");
    uint32_t error = 0;
    uint32_t* number = u_int32_create(plain, domain);
    *number = 12;
    simple_union_int_attr_set(plain, domain, object, number, &error);
    EXPECT_EQ(to_xml("simple_union", plain, object),
              "<e><val_discr><EN_VAL_1/></val_discr><val_discr-int_attr>12</val_discr-int_attr></e>")
        << "the other selected arm has no value";
    simple_union_destroy(plain, domain, object);
}

TEST(xml_form, arms_are_read_of_the_case_that_the_document_or_the_instance_selects) {
    const database plain;
    simple_union* object = simple_union_create(plain, domain);
    EXPECT_EQ(from_xml("simple_union", plain,
                       "<e><val_discr><EN_VAL_2/></val_discr><val_discr-int_attr>1</val_discr-int_attr>"
                       "<val_discr-str_attr>hello</val_discr-str_attr></e>",
                       object),
              0u);
    EXPECT_EQ(object->val_discr.value, 2);
    ASSERT_NE(object->str_attr, nullptr);
    EXPECT_STREQ(object->str_attr->text, "hello");
    EXPECT_EQ(object->int_attr, nullptr);

    object->val_discr.value = 1;
    EXPECT_EQ(from_xml("simple_union", plain, "<e><val_discr-int_attr>9</val_discr-int_attr></e>", object), 0u);
    EXPECT_EQ(object->val_discr.value, 1);
    ASSERT_NE(object->int_attr, nullptr);
    EXPECT_EQ(*object->int_attr, 9u);
    EXPECT_NE(object->cal_attr, nullptr) << "made though its element is absent";
    simple_union_destroy(plain, domain, object);
}

TEST(xml_form, states_and_variants) {
    const database plain, on(LOOM_TRACKING_ON);
    custom_rpc_type_timeout* object = custom_rpc_type_timeout_create(on, domain);
    uint32_t error = 0;
    custom_rpc_type_timeout_duration_set_value(on, domain, object, 4, &error);
    EXPECT_EQ(to_xml("custom_rpc_type_timeout", on, object, "e", 3),
              "<e state=\"3\"><request_timeout>false</request_timeout><duration state=\"2\">4</duration>"
              "<custom_timeout>0</custom_timeout></e>");
    object->loom_variant = 0;
    EXPECT_EQ(to_xml("custom_rpc_type_timeout", plain, object, "e", 3),
              "<e state=\"3\"><request_timeout>false</request_timeout><duration>4</duration></e>");
    object->loom_variant = -1;
    EXPECT_EQ(to_xml("custom_rpc_type_timeout", on, object), "<e></e>");
    object->loom_variant = 1;
    custom_rpc_type_timeout_destroy(on, domain, object);
}

TEST(xml_form, untracked_object_under_tracking_handle_ends_after_its_tag) {
    const database plain, on(LOOM_TRACKING_ON);
    string_key* object = string_key_create(plain, domain);
    EXPECT_EQ(to_xml("string_key", on, object, "e", 0, 22), "<e>");
    string_key_destroy(plain, domain, object);
}

TEST(xml_form, counts_stand_in_front_of_elements_of_one_name) {
    const database plain;
    ud_type_with_arr* object = ud_type_with_arr_create(plain, domain);
    uint32_t error = 0;
    const uint8_t bytes[] = {7, 8};
    ud_type_with_arr_b_arr_att_set_mem(plain, domain, object, bytes, 2, &error);
    EXPECT_NE(to_xml("ud_type_with_arr", plain, object)
                  .find("<b_arr_len>2</b_arr_len><b_arr_att>7</b_arr_att><b_arr_att>8</b_arr_att>"
                        "<ud_arr_len>0</ud_arr_len></e>"),
              std::string::npos);
    ud_type_with_arr_destroy(plain, domain, object);
}

TEST(xml_form, arrays_take_what_is_there) {
    const database plain;
    ud_type_with_arr* arrays = ud_type_with_arr_create(plain, domain);
    EXPECT_EQ(from_xml("ud_type_with_arr", plain,
                       "<e><b_arr_att>3</b_arr_att><int_att>5</int_att><b_arr_att>4</b_arr_att>"
                       "<b_arr_len>77</b_arr_len><stranger/>"
                       "<ud_arr_att><int_att>6</int_att></ud_arr_att></e>",
                       arrays),
              0u);
    ASSERT_EQ(arrays->b_arr_len, 2);
    EXPECT_EQ(hex(arrays->b_arr_att, 2), "03 04");
    EXPECT_EQ(arrays->int_att, 5u);
    ASSERT_EQ(arrays->ud_arr_len, 1);
    EXPECT_EQ(arrays->ud_arr_att[0].int_att, 6u);
    ud_type_with_arr_destroy(plain, domain, arrays);

    rec_child_comp_key_parent_sing* fixed = rec_child_comp_key_parent_sing_create(plain, domain);
    fixed->b_fixed_arr_attr[2] = 9;
    EXPECT_EQ(from_xml("rec_child_comp_key_parent_sing", plain,
                       "<e><b_fixed_arr_attr>1</b_fixed_arr_attr><b_fixed_arr_attr>2</b_fixed_arr_attr></e>",
                       fixed),
              0u);
    EXPECT_EQ(hex(fixed->b_fixed_arr_attr, 3), "01 02 09");
    std::string many = "<e>";
    for (int i = 0; i < 5; ++i)
        many += "<b_fixed_arr_attr>7</b_fixed_arr_attr>";
    EXPECT_EQ(from_xml("rec_child_comp_key_parent_sing", plain, many + "</e>", fixed), 0u);
    EXPECT_EQ(hex(fixed->b_fixed_arr_attr, 3), "07 07 07");
    rec_child_comp_key_parent_sing_destroy(plain, domain, fixed);
}

TEST(xml_form, lists_are_appended_to) {
    const database plain;
    ud_type_keyless_list* object = ud_type_keyless_list_create(plain, domain);
    const std::string text = "<e><list_attr><b_attr>true</b_attr></list_attr><list_attr/>"
                             "<uint32_key>8</uint32_key></e>";
    for (uint32_t count : {2u, 4u}) {
        EXPECT_EQ(from_xml("ud_type_keyless_list", plain, text, object), 0u);
        EXPECT_EQ(object->list_attr.count, count);
    }
    EXPECT_EQ(object->uint32_key, 8u);
    ud_type_keyless_list_destroy(plain, domain, object);
}

TEST(xml_form, counted_strings_are_cut_by_their_count) {
    const database plain;
    rec_type* object = rec_type_create(plain, domain);
    EXPECT_EQ(from_xml("rec_type", plain,
                       "<e><dynamic_char_arr_attr>" + std::string(300, 'x') +
                           "</dynamic_char_arr_attr>"
                           "<ranged_char_arr_attr>ab</ranged_char_arr_attr><pi>2.5</pi></e>",
                       object),
              0u);
    EXPECT_EQ(object->dynamic_char_arr_len, 300 - 256);
    EXPECT_EQ(std::string(object->dynamic_char_arr_attr), std::string(300 - 256, 'x'));
    EXPECT_STREQ(object->ranged_char_arr_attr, "ab");
    EXPECT_EQ(object->pi, 2.5);
    rec_type_destroy(plain, domain, object);
}

TEST(xml_form, absent_record_and_unreadable_value) {
    const database plain;
    const_default_type* object = const_default_type_create(plain, domain);
    EXPECT_EQ(from_xml("const_default_type", plain, "<other/>", object), 2u);
    EXPECT_EQ(plain.handle()->last_error, 2u);
    for (const char* no_path : {"/e[", "/e[0]"})
        EXPECT_EQ(from_xml("const_default_type", plain, "<e/>", object, no_path), 2u)
            << "an element that cannot be looked for is absent: " << no_path;
    uint32_t error = 0;
    const_default_type_from_xml(plain, domain, "/e", nullptr, object, &error, nullptr, 0);
    EXPECT_EQ(error, 2u);
    std::string message;
    EXPECT_EQ(from_xml("const_default_type", plain,
                       "<e><bool_attr>true</bool_attr><int_attr>many</int_attr><pd_attr>4</pd_attr></e>", object,
                       "/e", &message),
              22u);
    EXPECT_EQ(message, "Failed xpath: /e/int_attr");
    EXPECT_EQ(object->bool_attr, 1u) << "what stood before is kept";
    EXPECT_EQ(object->pd_attr, 0u) << "what stands behind is not read";
    EXPECT_EQ(from_xml("const_default_type", plain, "<e><int_attr>many</int_attr></e>", object), 22u);
    const_default_type_destroy(plain, domain, object);
}

/// An element that is found as long as its path, with its zero, fits into 256 bytes.
struct deep_element {
    const char* type;
    const char* content; // of the type's own element
    const char* below;   // from there to the element that must be found
    bool (*found)(const void* object);
};
template <class T>
const T& as(const void* object) {
    return *static_cast<const T*>(object);
}
const deep_element deep_elements[] = {
    {"const_default_type", "<int_attr>7</int_attr>", "/int_attr",
     [](const void* o) { return as<const_default_type>(o).int_attr == 7; }},
    {"ud_enum_custom_val", "<EN_VAL_56/>", "/EN_VAL_56",
     [](const void* o) { return as<ud_enum_custom_val>(o).value == 56; }},
    {"ud_flag_64", "<UD_64_FLG2/>", "/UD_64_FLG2", [](const void* o) { return as<ud_flag_64>(o).bits[0] == 4; }},
    {"ud_type_with_arr", "<b_arr_att>3</b_arr_att>", "/b_arr_att[1]",
     [](const void* o) { return as<ud_type_with_arr>(o).b_arr_len == 1; }},
    {"ud_type_with_arr", "<ud_arr_att/>", "/ud_arr_att[1]",
     [](const void* o) { return as<ud_type_with_arr>(o).ud_arr_len == 1; }},
    {"rec_child_comp_key_parent_sing", "<b_fixed_arr_attr>5</b_fixed_arr_attr>", "/b_fixed_arr_attr[1]",
     [](const void* o) { return as<rec_child_comp_key_parent_sing>(o).b_fixed_arr_attr[0] == 5; }},
    {"rec_type", "<dynamic_char_arr_attr>ab</dynamic_char_arr_attr>", "/dynamic_char_arr_attr",
     [](const void* o) { return as<rec_type>(o).dynamic_char_arr_len == 2; }},
    {"rec_type", "<fixed_len_char_arr_attr>ab</fixed_len_char_arr_attr>", "/fixed_len_char_arr_attr",
     [](const void* o) { return as<rec_type>(o).fixed_len_char_arr_attr[0] == 'a'; }},
    {"ud_type_keyless_list", "<list_attr/>", "/list_attr[1]",
     [](const void* o) { return as<ud_type_keyless_list>(o).list_attr.count == 1; }},
    {"simple_choice", "<val_discr-u_int_attr>9</val_discr-u_int_attr>", "/val_discr-u_int_attr",
     [](const void* o) { return *as<simple_choice>(o).u_int_attr == 9; }},
    {"wrapped_union", "<deep_union_attr><val_discr><EN_VAL_2/></val_discr></deep_union_attr>",
     "/deep_union_attr/val_discr/EN_VAL_2",
     [](const void* o) { return as<wrapped_union>(o).deep_union_attr.val_discr.value == 2; }},
};

/// The document's one element, with a name that makes the path of what is below it so long.
std::string stretched(size_t length, const deep_element& each) {
    return std::string(length - strlen(each.below) - 1, 'e');
}

class every_deep_element : public ::testing::TestWithParam<deep_element> {};

TEST_P(every_deep_element, is_found_within_the_bound) {
    const database plain;
    const named_type type(GetParam().type);
    for (size_t length = 240; length <= 260; ++length) {
        const std::string name = stretched(length, GetParam());
        void* object = type.create(plain, domain);
        EXPECT_EQ(from_xml(GetParam().type, plain, "<" + name + ">" + GetParam().content + "</" + name + ">",
                           object, "/" + name),
                  0u);
        EXPECT_EQ(GetParam().found(object), length <= 255) << length;
        type.destroy(plain, domain, object);
    }
}
INSTANTIATE_TEST_SUITE_P(xml_form, every_deep_element, ::testing::ValuesIn(deep_elements), [](const auto& info) {
    std::string name = info.param.type + std::string(info.param.below);
    std::replace_if(
        name.begin(), name.end(), [](char c) { return isalnum(c) == 0; }, '_');
    return name;
});

TEST(xml_form, the_whole_failing_path_is_told) {
    const database plain;
    struct {
        const char* type;
        const char* content;
        const char* below; // to the element that a text stands in
        const char* told;  // to the element that the message names
        uint32_t error;
    } const cases[] = {
        {"const_default_type", "<int_attr>many</int_attr>", "/int_attr", "/int_attr", 22},
        {"ud_type_with_arr", "<b_arr_att>1</b_arr_att><b_arr_att>256</b_arr_att>", "/b_arr_att[2]",
         "/b_arr_att[2]", 22},
        // Of members and bits the element around them is told.
        {"ud_enum_custom_val", "<EN_VAL_56>%s</EN_VAL_56>", "/EN_VAL_56", "", 28},
        {"ud_flag_64", "<UD_64_FLG2>%s</UD_64_FLG2>", "/UD_64_FLG2", "", 28},
    };
    for (const auto& each : cases) {
        const named_type type(each.type);
        for (size_t length = 240; length <= 260; ++length) {
            SCOPED_TRACE(each.type + std::to_string(length));
            const std::string name(length - strlen(each.below) - 1, 'e');
            std::string content = each.content;
            if (const size_t at = content.find("%s"); at != std::string::npos)
                content.replace(at, 2, std::string(128, 'x')); // one more than there is room for
            void* object = type.create(plain, domain);
            std::string message;
            EXPECT_EQ(from_xml(each.type, plain, "<" + name + ">" + content + "</" + name + ">", object,
                               "/" + name, &message),
                      length <= 255 ? each.error : 0u);
            EXPECT_EQ(message, length <= 255 ? "Failed xpath: /" + name + each.told : "");
            type.destroy(plain, domain, object);
        }
    }
}

TEST(xml_form, enumerations_and_flag_sets) {
    const database plain;
    uint32_t error = 0;
    ud_enum_custom_val* value = ud_enum_custom_val_create(plain, domain);
    EXPECT_EQ(to_xml("ud_enum_custom_val", plain, value, "e", 9),
              "<e><ud_enum_custom_val value out of range/></e>");
    EXPECT_EQ(from_xml("ud_enum_custom_val", plain, "<e><EN_VAL_56/></e>", value), 0u);
    EXPECT_EQ(value->value, 56);
    EXPECT_EQ(from_xml("ud_enum_custom_val", plain, "<e><EN_VAL_1/></e>", value), 0u);
    EXPECT_EQ(value->value, 56) << "no member";
    ud_enum_custom_val_destroy(plain, domain, value);

    ud_flag_64* flags = ud_flag_64_create(plain, domain);
    ud_flag_64_set_value(plain, domain, flags, 63, 1, &error);
    EXPECT_EQ(to_xml("ud_flag_64", plain, flags), "<e><UD_64_FLG63/></e>");
    EXPECT_EQ(from_xml("ud_flag_64", plain, "<e><UD_64_FLG2/><UD_64_FLG64/></e>", flags), 0u);
    EXPECT_EQ(hex(flags->bits, 8), "04 00 00 00 00 00 00 80") << "bits are only ever set";
    EXPECT_NE(to_xml("ud_flag", plain, nullptr).find("<e><error>ERR</error><error>ERR</error>"),
              std::string::npos);
    ud_flag_64_destroy(plain, domain, flags);
}

} // namespace
} // namespace trellis::testing
