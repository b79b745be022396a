// The XML form by literal elements, and what reading makes of documents that lack or have too much.
#include "tests/codec/codec_fixture.h"

#include <loom_runtime/xml.h>
#include <trellis_test_types/trellis_test_types.h>

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
                  const char* path = "/e", std::string* message = nullptr) {
    loom_xml_document* document = loom_xml_parse(text.data(), text.size(), nullptr);
    EXPECT_NE(document, nullptr) << text;
    uint32_t error = 0;
    char words[300] = "";
    using signature =
        void(loom_handle*, uint32_t, const char*, const loom_xml_document*, void*, uint32_t*, char*, uint32_t);
    reinterpret_cast<signature*>(find_function(std::string(type) + "_from_xml"))(
        handle, domain, path, document, object, &error, message == nullptr ? nullptr : words, sizeof words);
    if (message != nullptr) *message = words;
    loom_xml_free(document);
    return error;
}

TEST(XmlForm, ArmsAreNamedByDiscriminatorAndArm) {
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

TEST(XmlForm, ArmsAreReadOfTheCaseThatTheDocumentOrTheInstanceSelects) {
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

TEST(XmlForm, StatesAndVariants) {
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

TEST(XmlForm, UntrackedObjectUnderTrackingHandleEndsAfterItsTag) {
    const database plain, on(LOOM_TRACKING_ON);
    string_key* object = string_key_create(plain, domain);
    EXPECT_EQ(to_xml("string_key", on, object, "e", 0, 22), "<e>");
    string_key_destroy(plain, domain, object);
}

TEST(XmlForm, CountsStandInFrontOfElementsOfOneName) {
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

TEST(XmlForm, ArraysTakeWhatIsThere) {
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

TEST(XmlForm, ListsAreAppendedTo) {
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

TEST(XmlForm, CountedStringsAreCutByTheirCount) {
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

TEST(XmlForm, AbsentRecordAndUnreadableValue) {
    const database plain;
    const_default_type* object = const_default_type_create(plain, domain);
    EXPECT_EQ(from_xml("const_default_type", plain, "<other/>", object), 2u);
    EXPECT_EQ(plain.handle()->last_error, 2u);
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

TEST(XmlForm, EnumerationsAndFlagSets) {
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
