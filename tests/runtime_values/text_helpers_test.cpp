// Bounded printing, tags, and the text forms of character arrays.
#include "documents.h"
#include "watched_memory.h"

#include <loom/text.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <regex>
#include <utility>
#include <vector>

namespace {

constexpr uint32_t domain = watched_memory::domain;
constexpr char canary = '#';

class text_helpers : public testing::Test {
  protected:
    using writer = std::function<int64_t(char* buffer, int32_t length)>;

    /// What is written into ample room; and that no shorter buffer is left, its error is 90 and a pending error
    /// writes nothing.
    std::string written(const writer& write) {
        std::vector<char> buffer(1024, canary);
        const int64_t size = write(buffer.data(), static_cast<int32_t>(buffer.size()));
        EXPECT_EQ(memory.error, 0u);
        const std::string text(buffer.data(), static_cast<size_t>(size));
        for (int32_t length = -1; length < size; ++length) {
            std::fill(buffer.begin(), buffer.end(), canary);
            const int64_t short_size = write(buffer.data(), length);
            EXPECT_LE(short_size, std::max(0, length));
            EXPECT_EQ(std::exchange(memory.error, 0u), 90u) << text << " in " << length;
            EXPECT_EQ(std::exchange(memory.handle()->last_error, 0u), 90u);
            for (size_t i = static_cast<size_t>(std::max(0, length)); i < buffer.size(); ++i)
                EXPECT_EQ(buffer[i], canary);
        }
        memory.error = 5;
        std::fill(buffer.begin(), buffer.end(), canary);
        EXPECT_EQ(write(buffer.data(), 1024), 0);
        EXPECT_EQ(buffer, std::vector<char>(1024, canary));
        memory.error = 0;
        return text;
    }

    watched_memory memory;
    loom_handle* handle = memory.handle();
    uint32_t* err = &memory.error;
};

TEST_F(text_helpers, print_is_bounded_with_its_terminator) {
    EXPECT_EQ(written([&](char* buffer, int32_t length) {
                  return loom_snprintf(handle, domain, buffer, length, err, "%s@%d", "name", 42);
              }),
              "name@42");
    char buffer[8] = "#######";
    EXPECT_EQ(loom_snprintf(handle, domain, buffer, 4, err, "%s", "abcdef"), 3);
    EXPECT_EQ(std::string(buffer, 7), std::string("abc\0###", 7));
    *err = 0;
    EXPECT_EQ(loom_snprintf(handle, domain, buffer, 4, err, "%s", "abcd"), 3); // no room for the terminator
    EXPECT_EQ(*err, 90u);
}

TEST_F(text_helpers, blanks_have_no_terminator) {
    EXPECT_EQ(written([&](char* buffer, int32_t length) {
                  return loom_print_space(handle, domain, buffer, 5, length, err);
              }),
              "     ");
    char buffer[4] = "###";
    EXPECT_EQ(loom_print_space(handle, domain, buffer, 2, 2, err), 2);
    EXPECT_STREQ(buffer, "  #");
    EXPECT_EQ(loom_print_space(handle, domain, buffer, -3, 2, err), 0);
    EXPECT_EQ(*err, 0u);
    EXPECT_EQ(loom_print_space(handle, domain, buffer, 3, 1, err), 1);
    EXPECT_EQ(*err, 90u);
}

TEST_F(text_helpers, tags_carry_the_state) {
    const auto open = [&](uint8_t state) {
        return written([&, state](char* buffer, int32_t length) {
            return start_tag(handle, domain, buffer, "rec", length, state, err);
        });
    };
    EXPECT_EQ(open(0), "<rec>");
    EXPECT_EQ(open(2), "<rec state=\"2\">");
    EXPECT_EQ(open(255), "<rec state=\"255\">");
    EXPECT_EQ(
        written([&](char* buffer, int32_t length) { return end_tag(handle, domain, buffer, "rec", length, err); }),
        "</rec>");
    EXPECT_EQ(written([&](char* buffer, int32_t length) {
                  return xml_enum_print(handle, domain, buffer, "<EN_VAL_0/>", length, 11, err);
              }),
              "<EN_VAL_0/>");
    const std::string stamped = written([&](char* buffer, int32_t length) {
        return start_tag_timestamp(handle, domain, buffer, "bundle", length, err);
    });
    EXPECT_TRUE(
        std::regex_match(stamped, std::regex(R"(<bundle timestamp="20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z">)")))
        << stamped;
    EXPECT_EQ(start_tag(handle, domain, nullptr, nullptr, 0, 0, err), 0u);
    EXPECT_EQ(*err, 22u);
}

TEST_F(text_helpers, character_arrays_print_as_text) {
    const std::string text("a\0b", 3);
    EXPECT_EQ(written([&](char* buffer, int32_t length) {
                  return var_string_print(handle, domain, buffer, 2, "n", text.data(), length, 3, err);
              }),
              "  n@var_string:a\\x00b\n");
    EXPECT_EQ(written([&](char* buffer, int32_t length) {
                  return null_string_print(handle, domain, buffer, 0, "n", text.data(), length, 3, err);
              }),
              "n@null_string:a\n");
    EXPECT_EQ(written([&](char* buffer, int32_t length) {
                  return var_string_print(handle, domain, buffer, 0, "n", nullptr, length, 0, err);
              }),
              "n@var_string:\n");
}

TEST_F(text_helpers, character_arrays_read_back_their_xml) {
    const std::string samples[] = {"", " ", "plain", "<&>", std::string("\0\x01\xff", 3), std::string(16, 'x')};
    for (const std::string& text : samples) {
        const auto size = static_cast<uint32_t>(text.size());
        const std::string counted = written([&](char* buffer, int32_t length) {
            return var_string_to_xml(handle, domain, "s", buffer, text.data(), length, size, 3, err);
        });
        EXPECT_NE(counted.find(" state=\"3\""), std::string::npos);
        char fixed[16] = {};
        std::memcpy(fixed, text.data(), text.size());
        const std::string terminated = written([&](char* buffer, int32_t length) {
            return null_string_to_xml(handle, domain, "f", buffer, fixed, length, sizeof fixed, 0, err);
        });
        const std::string whole = "<r>" + counted + terminated + "</r>";
        const auto document = parse(whole);
        ASSERT_NE(document, nullptr) << whole;

        uint32_t needed = 99;
        EXPECT_EQ(xml_get_element_value(document.get(), "r/s", nullptr, 0, &needed), 28u);
        EXPECT_EQ(needed, size);
        std::vector<char> block(size + 2, canary);
        var_string_from_xml(handle, domain, "r/s", document.get(), block.data(), size + 1, err, nullptr, 0);
        EXPECT_EQ(*err, 0u);
        EXPECT_EQ(std::string(block.data(), size), text);
        EXPECT_EQ(block[size], '\0');
        EXPECT_EQ(block[size + 1], canary);

        char* array = static_cast<char*>(static_cast<void*>(memory.place<std::array<char, 17>>()));
        std::memset(array, canary, 17);
        memory.watch();
        null_string_from_xml(handle, domain, "r/f", document.get(), array, 16, err, nullptr, 0);
        EXPECT_EQ(*err, 0u);
        EXPECT_TRUE(memory.all_announced());
        const std::string expected = text.substr(0, strnlen(text.data(), text.size()));
        EXPECT_EQ(std::string(array, 17), expected + std::string(16 - expected.size(), '\0') + canary);
        memory.give_back(array);
    }
}

TEST_F(text_helpers, character_arrays_refuse_what_they_cannot_hold) {
    const auto document = parse("<r><s>12345</s></r>");
    char array[6] = "#####";
    char message[64] = "";
    null_string_from_xml(handle, domain, "r/s", document.get(), array, 4, err, message, sizeof message);
    EXPECT_EQ(std::exchange(*err, 0u), 28u);
    EXPECT_STREQ(message, "Failed xpath: r/s");
    var_string_from_xml(handle, domain, "r/s", document.get(), array, 4, err, nullptr, 0);
    EXPECT_EQ(std::exchange(*err, 0u), 28u);
    var_string_from_xml(handle, domain, "r/none", document.get(), array, 4, err, nullptr, 0);
    EXPECT_EQ(std::exchange(*err, 0u), 2u);
    EXPECT_STREQ(array, "#####");
    var_string_from_xml(handle, domain, "r/s", document.get(), array, 5, err, nullptr, 0);
    EXPECT_STREQ(array, "12345"); // fits without its terminator
    EXPECT_EQ(*err, 0u);
}
} // namespace
