// Documents: what is parsed and what refused, elements by path, and that reading a document by paths is linear.
#include "documents.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace {

/// The value at the path, or "error N".
std::string value_at(const document_pointer& document, const std::string& path) {
    char value[128];
    uint32_t needed = 0;
    const uint32_t error = xml_get_element_value(document.get(), path.c_str(), value, sizeof value, &needed);
    return error ? "error " + std::to_string(error) : std::string(value, needed);
}

/// The number of nodes at the path; errors as negative numbers.
int64_t count_at(const document_pointer& document, const std::string& path) {
    uint32_t count = 99;
    const uint32_t error = xml_get_element_nodecount(document.get(), path.c_str(), &count);
    return error ? -int64_t{error} : count;
}

TEST(xml_paths, lead_to_elements) {
    const auto document = parse("<?xml version=\"1.0\"?>\n<!-- first -->\n"
                                "<a state=\"1\">\n"
                                "  <b>one</b>\n  <x/>\n  <b>two<i>inner</i></b>\n  <!-- note -->\n"
                                "  <c><b>deep</b><d> </d></c>\n  <b>three</b>\n"
                                "</a>\n");
    EXPECT_STREQ(loom_xml_root_name(document.get()), "a");
    EXPECT_EQ(value_at(document, "a/b"), "one");
    EXPECT_EQ(value_at(document, "/a/b[1]"), "one");
    EXPECT_EQ(value_at(document, "a/b[2]"), "two");
    EXPECT_EQ(value_at(document, "a[1]/b[3]"), "three");
    EXPECT_EQ(value_at(document, "a/b[2]/i"), "inner");
    EXPECT_EQ(value_at(document, "a/c/d"), " ");
    EXPECT_EQ(value_at(document, "a/x"), "");
    EXPECT_EQ(value_at(document, "//d"), " ");
    EXPECT_EQ(value_at(document, "//b"), "one");
    EXPECT_EQ(value_at(document, "//b[3]"), "deep"); // in document order
    EXPECT_EQ(value_at(document, "//c/b"), "deep");
    EXPECT_EQ(value_at(document, "//a/c/b[1]"), "deep");
    for (const char* absent : {"", "b", "a/b[4]", "a/none", "a/none/b", "a/x/y", "a[2]/b", "//none", "//c/none",
                               "a/b[9999999999999999]", "a/state", "A/b", "a/bb", "//none/x"})
        EXPECT_EQ(value_at(document, absent), "error 2") << absent;
    for (const char* wrong : {"/", "//", "a/", "a//b", "///a", "a/b[0]", "a/b[]", "a/b[x]", "a/b[1", "a/b[1]x",
                              "a/b[-1]", "a/[1]", "none//b", "none/b[0]/c", "a/b[99999999999999999999]"})
        EXPECT_EQ(value_at(document, wrong), "error 22") << wrong;

    EXPECT_EQ(count_at(document, "a/b"), 3);
    EXPECT_EQ(count_at(document, "a/b[2]"), 1);
    EXPECT_EQ(count_at(document, "a/b[4]"), 0);
    EXPECT_EQ(count_at(document, "//b"), 4);
    EXPECT_EQ(count_at(document, "//c/b"), 1);
    EXPECT_EQ(count_at(document, "a"), 1);
    EXPECT_EQ(count_at(document, "none/b"), 0);
    EXPECT_EQ(count_at(document, ""), 0);
    EXPECT_EQ(count_at(document, "a//b"), -22);
}

TEST(xml_paths, give_values_that_fit) {
    const auto document = parse("<a><t>12345</t><e/><h encoding=\"hex\">0041ff</h></a>");
    char value[8] = "#######";
    uint32_t needed = 0;
    EXPECT_EQ(xml_get_element_value(document.get(), "a/t", nullptr, 0, &needed), 28u);
    EXPECT_EQ(needed, 5u);
    EXPECT_EQ(xml_get_element_value(document.get(), "a/t", value, 5, &needed), 28u);
    EXPECT_STREQ(value, "#######");
    EXPECT_EQ(xml_get_element_value(document.get(), "a/t", value, 6, &needed), 0u);
    EXPECT_STREQ(value, "12345");
    EXPECT_EQ(value[6], '#');
    EXPECT_EQ(xml_get_element_value(document.get(), "a/t", value, 6, nullptr), 0u);
    EXPECT_EQ(xml_get_element_value(document.get(), "a/e", nullptr, 0, &needed), 28u);
    EXPECT_EQ(needed, 0u);
    EXPECT_EQ(xml_get_element_value(document.get(), "a/h", value, sizeof value, &needed), 0u);
    EXPECT_EQ(std::string(value, needed), std::string("\0A\xff", 3));
    EXPECT_EQ(xml_get_element_value(document.get(), nullptr, value, sizeof value, &needed), 22u);
    EXPECT_EQ(xml_get_element_value(nullptr, "a", value, sizeof value, &needed), 22u);
    EXPECT_EQ(xml_get_element_nodecount(nullptr, "a", &needed), 22u);
}

TEST(xml_paths, take_a_recording_of_several_elements) {
    const auto document = parse("<m><v>1</v></m><m><v>2</v></m><n/>");
    EXPECT_EQ(count_at(document, "m"), 2);
    EXPECT_EQ(value_at(document, "m[2]/v"), "2");
    EXPECT_EQ(value_at(document, "//v"), "1");
    EXPECT_EQ(count_at(document, "n"), 1);
}

TEST(xml_documents, tell_where_a_text_is_no_document) {
    const struct {
        std::string text;
        uint32_t line;
        uint32_t column;
    } samples[] = {
        {"", 0, 0},
        {"<a>\n  <b>\n  </c>\n</a>", 3, 5},
        {"<a><b></a>", 1, 9},
        {"<a", 1, 3},
        {"<a>\n text", 2, 6},
        {"just text", 1, 1},
        {"<a/>\n\n  trailing", 3, 3},
        {"<!-- nothing -->\n", 2, 1},
        {"<a b=c/>", 1, 6},
        {"\xef\xbb\xbf<a>\n</b>", 2, 3},
    };
    for (const auto& sample : samples) {
        loom_xml_error error{};
        EXPECT_EQ(parse(sample.text, &error), nullptr) << sample.text;
        EXPECT_EQ(error.number, 22u);
        EXPECT_EQ(error.line, sample.line) << sample.text << ": " << error.reason;
        EXPECT_NEAR(error.column, sample.column, 1) << sample.text << ": " << error.reason;
        EXPECT_GT(std::string(error.reason).size(), 5u);
        EXPECT_EQ(parse(sample.text), nullptr);
    }
}

TEST(xml_documents, come_from_files) {
    const std::string name = testing::TempDir() + "loom_xml_document_test.xml";
    std::FILE* file = std::fopen(name.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::string text = "<a>\n";
    for (int i = 0; i < 20000; ++i)
        text += "<b>x</b>\n"; // more than one block of input
    text += "</a>";
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
    const document_pointer document(loom_xml_parse_file(name.c_str(), nullptr), loom_xml_free);
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(count_at(document, "a/b"), 20000);
    std::remove(name.c_str());

    loom_xml_error error{};
    EXPECT_EQ(loom_xml_parse_file(name.c_str(), &error), nullptr);
    EXPECT_EQ(error.number, 2u);
    EXPECT_EQ(loom_xml_parse_file(testing::TempDir().c_str(), &error), nullptr);
    EXPECT_EQ(error.number, 21u); // a directory
}

TEST(xml_documents, outlive_bombs) {
    std::string entities = "<!DOCTYPE a [<!ENTITY x0 \"xxxxxxxxxx\">";
    for (int i = 1; i < 20; ++i) {
        const std::string before = "&x" + std::to_string(i - 1) + ";";
        entities += "<!ENTITY x" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j)
            entities += before;
        entities += "\">";
    }
    entities += "]><a>&x19;</a>";
    const auto document = parse(entities);
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(value_at(document, "a"), "&x19;"); // not replaced

    const auto nested = [](size_t depth) {
        std::string text;
        for (size_t i = 0; i < depth; ++i)
            text += "<a>";
        text += "<b>bottom</b>";
        for (size_t i = 0; i < depth; ++i)
            text += "</a>";
        return text;
    };
    loom_xml_error error{};
    EXPECT_EQ(parse(nested(1'000'000), &error), nullptr);
    EXPECT_EQ(error.line, 1u);
    EXPECT_EQ(error.column, 3 * LOOM_XML_DEPTH_LIMIT + 1);
    EXPECT_EQ(parse(nested(LOOM_XML_DEPTH_LIMIT), &error), nullptr); // one element too deep
    const auto deepest = parse(nested(LOOM_XML_DEPTH_LIMIT - 1), &error);
    ASSERT_NE(deepest, nullptr) << error.reason;
    EXPECT_EQ(value_at(deepest, "//b"), "bottom");
    std::string path;
    for (uint32_t i = 1; i < LOOM_XML_DEPTH_LIMIT; ++i)
        path += "a/";
    EXPECT_EQ(value_at(deepest, path + "b"), "bottom");
    EXPECT_EQ(parse(std::string(1'000'000, '<')), nullptr);
}

/// Reads a document of `records` records by absolute paths and returns the look-ups' cost.
uint64_t cost_of_reading(int records, bool around_siblings) {
    std::string text = "<t><records>";
    for (int i = 1; i <= records; ++i) {
        const std::string number = std::to_string(i);
        text += "<rec><id>" + number + "</id><name>n" + number + "</name><in><x>" + number + "</x></in></rec>";
        if (around_siblings) text += "<other/>text<!-- note -->";
    }
    text += "</records></t>";
    const auto document = parse(text);
    for (int i = 1; i <= records; ++i) {
        const std::string record = "t/records/rec[" + std::to_string(i) + "]";
        EXPECT_EQ(count_at(document, record), 1);
        EXPECT_EQ(value_at(document, record + "/id"), std::to_string(i));
        EXPECT_EQ(value_at(document, record + "/in/x"), std::to_string(i));
        EXPECT_EQ(value_at(document, record + "/absent"), "error 2");
        EXPECT_EQ(value_at(document, "//records/rec[" + std::to_string(i) + "]/name").substr(1),
                  std::to_string(i));
        EXPECT_EQ(value_at(document, "//absent" + std::to_string(i)), "error 2");
    }
    return loom_xml_visited(document.get());
}

TEST(xml_documents, are_read_in_linear_time) {
    for (const bool around_siblings : {false, true}) {
        const uint64_t small = cost_of_reading(1'000, around_siblings);
        const uint64_t large = cost_of_reading(100'000, around_siblings);
        EXPECT_LT(large, 110 * small);
        EXPECT_LT(large, uint64_t{100'000} * 60);
    }
}

/// Long lists beside each other, read in turns, as the parts of one record are.
TEST(xml_documents, keep_every_list_at_hand) {
    constexpr uint64_t length = 3000;
    std::string text = "<t>";
    for (const char* list : {"a", "b", "c"}) {
        text += std::string("<") + list + ">";
        for (uint64_t i = 1; i <= length; ++i)
            text += "<e>" + std::to_string(i) + "</e>";
        text += std::string("</") + list + ">";
    }
    const auto document = parse(text + "</t>");
    for (uint64_t i = 1; i <= length; ++i)
        for (const char* list : {"t/a/e[", "t/b/e[", "t/c/e["})
            EXPECT_EQ(value_at(document, list + std::to_string(i) + "]"), std::to_string(i));
    EXPECT_LT(loom_xml_visited(document.get()), 3 * length * 30);
}
} // namespace
