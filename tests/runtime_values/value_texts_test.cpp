// The forms of single values, literally: text, XML and wire; what is refused; hash values and type information.
#include "documents.h"
#include "value_families.h"

#include <iomanip>
#include <sstream>
#include <vector>

namespace {

constexpr uint32_t domain = watched_memory::domain;

std::string hexadecimal(const std::vector<uint8_t>& bytes) {
    std::ostringstream out;
    for (const uint8_t byte : bytes)
        out << std::hex << std::setw(2) << std::setfill('0') << unsigned{byte};
    return out.str();
}

struct forms {
    std::string print;
    std::string xml;
    std::string wire;
};

template <class F>
forms forms_of(watched_memory& memory, const typename F::type& value) {
    std::vector<char> text(4096);
    const auto room = static_cast<int32_t>(text.size());
    forms result;
    const int32_t printed = F::print(memory.handle(), domain, text.data(), 0, "v", &value, room, &memory.error);
    result.print.assign(text.data(), static_cast<size_t>(printed));
    const uint32_t written = F::to_xml(memory.handle(), domain, "v", text.data(), &value, room, 0, &memory.error);
    result.xml.assign(text.data(), written);
    std::vector<uint8_t> bytes(F::len(memory.handle(), domain, &value));
    F::marshal(memory.handle(), domain, bytes.data(), &value, room, &memory.error);
    result.wire = hexadecimal(bytes);
    EXPECT_EQ(memory.error, 0u);
    return result;
}

/// Every form of one in-place value: its text (in print and XML alike) and its wire bytes.
template <class F>
void expect_forms(const typename F::type& value, const std::string& text, const std::string& wire) {
    watched_memory memory;
    const forms got = forms_of<F>(memory, value);
    EXPECT_EQ(got.print, "v@" + std::string(F::name) + ":" + text + "\n");
    EXPECT_EQ(got.xml, "<v>" + text + "</v>");
    EXPECT_EQ(got.wire, wire);
}

/// Reads `content` as the content of an element; the error number, and the value's text after success.
template <class F>
std::string read_text(const std::string& content) {
    watched_memory memory;
    const auto document = parse("<v>" + content + "</v>");
    typename F::type value{};
    F::from_xml(memory.handle(), domain, "v", document.get(), &value, &memory.error, nullptr, 0);
    if (memory.error) return "error " + std::to_string(memory.error);
    std::string result = forms_of<F>(memory, value).xml;
    F::destroy_internal(memory.handle(), domain, &value, 0);
    return result.substr(3, result.size() - 7);
}

template <class F>
void expect_refused(std::initializer_list<const char*> contents) {
    for (const char* content : contents)
        EXPECT_EQ(read_text<F>(content), "error 22") << F::name << " from " << content;
}

ip_address address_of(uint32_t family, std::initializer_list<uint8_t> octets, uint32_t zone = 0) {
    ip_address value{};
    value.family = family;
    value.zone = zone;
    std::copy(octets.begin(), octets.end(), value.octets);
    return value;
}

ip_prefix prefix_of(uint32_t family, std::initializer_list<uint8_t> octets, uint32_t length) {
    ip_prefix value{};
    value.family = family;
    value.length = length;
    std::copy(octets.begin(), octets.end(), value.octets);
    return value;
}

TEST(value_texts, of_numbers) {
    expect_forms<family::u_int8>(200, "200", "c8");
    expect_forms<family::u_int16>(258, "258", "0102");
    expect_forms<family::u_int32>(0x01020304, "16909060", "01020304");
    expect_forms<family::u_int64>(0x0102030405060708, "72623859790382856", "0102030405060708");
    expect_forms<family::int8>(-128, "-128", "80");
    expect_forms<family::int64>(INT64_MIN, "-9223372036854775808", "8000000000000000");
    expect_forms<family::double_precision>(0.1, "0.1", "3fb999999999999a");
    expect_forms<family::double_precision>(-0.0, "-0", "8000000000000000");
    expect_forms<family::double_precision>(1e300, "1e+300", "7e37e43c8800759c");
    expect_forms<family::single_precision>(0.1f, "0.1", "3dcccccd");
    expect_forms<family::single_precision>(-std::numeric_limits<float>::infinity(), "-INF", "ff800000");
    expect_forms<family::double_precision>(std::numeric_limits<double>::quiet_NaN(), "NaN", "7ff8000000000000");
    expect_forms<family::boolean>(0, "false", "00000000");
    expect_forms<family::boolean>(1, "true", "00000001");
    expect_forms<family::boolean>(256, "true", "00000100");
}

TEST(value_texts, of_addresses) {
    ipv4_addr v4;
    const uint8_t octets[] = {192, 0, 2, 33};
    std::memcpy(&v4.address, octets, sizeof octets);
    expect_forms<family::ipv4>(v4, "192.0.2.33", "c0000221");
    expect_forms<family::ipv6>({{0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1}}, "2001:db8::1:0:0:1",
                               "20010db8000000000001000000000001");
    expect_forms<family::ipv6>({}, "::", std::string(32, '0'));
    expect_forms<family::mac>({{0, 0x1a, 0xff, 3, 4, 5}}, "00:1a:ff:03:04:05", "001aff030405");
    expect_forms<family::address>(address_of(0, {9}), "", "00");
    expect_forms<family::address>(address_of(4, {10, 0, 0, 1, 99}, 5), "10.0.0.1", "040a000001");
    expect_forms<family::address>(address_of(6, {0xfe, 0x80}), "fe80::", "06fe80" + std::string(36, '0'));
    expect_forms<family::address>(address_of(6, {0xfe, 0x80}, 258), "fe80::%258",
                                  "06fe80" + std::string(28, '0') + "00000102");
    expect_forms<family::address>(address_of(77, {1, 2, 3}), "", "00");
    expect_forms<family::prefix>(prefix_of(4, {10, 1, 2, 0}, 24), "10.1.2.0/24", "040a01020018");
    expect_forms<family::prefix>(prefix_of(4, {10, 1, 2, 0}, 4000), "10.1.2.0/32", "040a01020020");
    expect_forms<family::prefix>(prefix_of(6, {0x20, 1}, 0), "2001::/0", "062001" + std::string(30, '0'));
    expect_forms<family::prefix>({}, "", "00");
    loom_phys_addr physical{3, {0xa, 0xb, 0xc}, {}};
    expect_forms<family::physical>(physical, "0a:0b:0c", "030a0b0c");
    expect_forms<family::physical>({}, "", "00");
}

TEST(value_texts, of_times) {
    expect_forms<family::calendar>({}, "1970-01-01T00:00:00Z", std::string(28, '0'));
    expect_forms<family::calendar>({1709206200, 500000000, 60, 0}, "2024-02-29T12:30:00.5+01:00",
                                   "0000000065e06ab81dcd6500003c");
    expect_forms<family::calendar>({-1, 1, -90, 0}, "1969-12-31T22:29:59.000000001-01:30",
                                   "ffffffffffffffff00000001ffa6");
    expect_forms<family::calendar>({253402300799, 0, 0, 0}, "9999-12-31T23:59:59Z",
                                   "0000003afff4417f000000000000");
    expect_forms<family::calendar>({253402300799, 0, 1, 0}, "@253402300799,0,1", "0000003afff4417f000000000001");
    expect_forms<family::calendar>({-62167219200, 0, 0, 0}, "0000-01-01T00:00:00Z",
                                   "fffffff1868b8400000000000000");
    expect_forms<family::calendar>({INT64_MIN, UINT32_MAX, INT16_MIN, 0},
                                   "@-9223372036854775808,4294967295,-32768", "8000000000000000ffffffff8000");
    expect_forms<family::stamp>({0, 0}, "1970-01-01T00:00:00.000Z", "0000000000000000");
    expect_forms<family::stamp>({397, 0xf4a0e0b4}, "2024-02-29T11:30:00.500Z", "0000018df4a0e0b4");
    expect_forms<family::stamp>({UINT32_MAX, UINT32_MAX}, "@18446744073709551615", "ffffffffffffffff");
}

TEST(value_texts, of_strings) {
    struct sample {
        std::string text;
        std::string print;
        std::string xml;
    };
    const sample samples[] = {
        {"", "", "<v></v>"},
        {"  two  ", "  two  ", "<v>  two  </v>"},
        {"a<b> & \"c\" ]]>", "a<b> & \"c\" ]]>", "<v>a&lt;b&gt; &amp; \"c\" ]]&gt;</v>"},
        {"one\ntwo\r\t\x7f", "one\\x0atwo\\x0d\\x09\\x7f", "<v>one&#10;two&#13;&#9;&#127;</v>"},
        {"gr\xc3\xbc\xc3\x9f", "gr\xc3\xbc\xc3\x9f", "<v>gr\xc3\xbc\xc3\x9f</v>"},
        {std::string("a\0b", 3), "a\\x00b", "<v encoding=\"hex\">610062</v>"},
        {"\x1b[0m", "\\x1b[0m", "<v encoding=\"hex\">1b5b306d</v>"},
        {"\xff", "\xff", "<v encoding=\"hex\">ff</v>"},
        {"\xc0\x80", "\xc0\x80", "<v encoding=\"hex\">c080</v>"},           // overlong
        {"\xed\xa0\x80", "\xed\xa0\x80", "<v encoding=\"hex\">eda080</v>"}, // a surrogate
        {"\xef\xbf\xbf", "\xef\xbf\xbf", "<v encoding=\"hex\">efbfbf</v>"}, // U+FFFF
        {"\xc3", "\xc3", "<v encoding=\"hex\">c3</v>"},                     // cut off
        {"\xf4\x90\x80\x80", "\xf4\x90\x80\x80", "<v encoding=\"hex\">f4908080</v>"},
    };
    watched_memory memory;
    for (const sample& expected : samples) {
        loom_vstring value{};
        loom_vstring_assign(memory.handle(), domain, &value, expected.text.data(),
                            static_cast<uint32_t>(expected.text.size()), &memory.error);
        const forms got = forms_of<family::vstring>(memory, value);
        EXPECT_EQ(got.print, "v@loom_vstring:" + expected.print + "\n");
        EXPECT_EQ(got.xml, expected.xml);
        EXPECT_EQ(got.wire.substr(0, 8), hexadecimal({0, 0, 0, static_cast<uint8_t>(expected.text.size())}));
        if (value.text) {
            EXPECT_EQ(value.text[value.length], '\0');
        }
        loom_vstring_destroy_internal(memory.handle(), domain, &value, 0);
    }
}

TEST(value_texts, of_bytes_and_secrets) {
    watched_memory memory;
    nexa_bytestr bytes{};
    nexa_bytestr_assign(memory.handle(), domain, &bytes, "\x00\xff\x41", 3, &memory.error);
    const forms octets = forms_of<family::bytestr>(memory, bytes);
    EXPECT_EQ(octets.print, "v@nexa_bytestr:00ff41\n");
    EXPECT_EQ(octets.xml, "<v>00ff41</v>");
    EXPECT_EQ(octets.wire, "0000000300ff41");
    nexa_bytestr_destroy_internal(memory.handle(), domain, &bytes, 0);

    char word[] = "hidden";
    const loom_aes_password_vstring password{word, 6, 0};
    const forms secret = forms_of<family::password>(memory, password);
    EXPECT_EQ(secret.print, "v@loom_aes_password_vstring:<6 bytes>\n");
    EXPECT_EQ(secret.xml, "<v>hidden</v>");
}

TEST(value_texts, of_characters) {
    watched_memory memory;
    EXPECT_EQ(forms_of<family::character>(memory, 'x').xml, "<v>x</v>");
    EXPECT_EQ(forms_of<family::character>(memory, '<').xml, "<v>&lt;</v>");
    EXPECT_EQ(forms_of<family::character>(memory, '\0').xml, "<v encoding=\"hex\">00</v>");
    EXPECT_EQ(forms_of<family::character>(memory, '\0').print, "v@char:\\x00\n");
}

TEST(value_texts, are_read_as_people_write_them) {
    EXPECT_EQ(read_text<family::u_int16>("\n  65535 "), "65535");
    EXPECT_EQ(read_text<family::int32>("+7"), "7");
    EXPECT_EQ(read_text<family::double_precision>("1.50e2"), "150");
    EXPECT_EQ(read_text<family::boolean>("1"), "true");
    EXPECT_EQ(read_text<family::boolean>(" false "), "false");
    EXPECT_EQ(read_text<family::mac>("AA-BB-CC-DD-EE-FF"), "aa:bb:cc:dd:ee:ff");
    EXPECT_EQ(read_text<family::ipv6>("2001:DB8:0:0:0:0:0:1"), "2001:db8::1");
    EXPECT_EQ(read_text<family::calendar>("2024-02-29T00:00:00"), "2024-02-29T00:00:00Z");
    EXPECT_EQ(read_text<family::stamp>("1970-01-01T01:00:00.25+01:00"), "1970-01-01T00:00:00.250Z");
    EXPECT_EQ(read_text<family::vstring>("<![CDATA[a <b> ]]>&amp;<!-- note --> c"), "a &lt;b&gt; &amp; c");
    EXPECT_EQ(read_text<family::bytestr>(" 00FF "), "00ff");
}

TEST(value_texts, are_refused_when_they_are_no_values) {
    expect_refused<family::u_int8>({"", "-1", "256", "1.0", "0x10", "1 2", "one", "+-1", "++1"});
    expect_refused<family::int8>({"129", "-129"});
    expect_refused<family::double_precision>({"", "1e999", "inf", "nan", "NaN(0)", "NaN(zz)", "1,5", "0x1p3"});
    expect_refused<family::boolean>({"", "yes", "TRUE", "2"});
    expect_refused<family::character>({"", "ab"});
    expect_refused<family::ipv4>({"", "1.2.3", "1.2.3.256", "1.2.3.4.5", "::1", "1.2.3.4/8"});
    expect_refused<family::ipv6>({"", "1.2.3.4", "1::2::3", "12345::", ":::"});
    expect_refused<family::address>({"x", "1.2.3.4%1", "fe80::1%", "fe80::1%x", "%5"});
    expect_refused<family::prefix>({"1.2.3.4", "1.2.3.4/33", "1.2.3.4/-1", "::/129", "::/", "/8"});
    expect_refused<family::mac>({"", "aa:bb:cc:dd:ee", "aa:bb:cc:dd:ee:ff:00", "aa:bb:cc:dd:ee-ff", "aabbccddeeff",
                                 "ga:bb:cc:dd:ee:ff", "aa:bb:cc:dd:ee:f"});
    expect_refused<family::physical>({"00:01:02:03:04:05:06:07:08:09:0a:0b:0c:0d:0e:0f"});
    expect_refused<family::calendar>(
        {"", "2023-02-29T00:00:00Z", "2024-13-01T00:00:00Z", "2024-01-01T24:00:00Z", "2024-01-01T00:60:00Z",
         "2024-01-01T00:00:60Z", "2024-01-01 00:00:00Z", "2024-01-01T00:00:00.Z", "2024-01-01T00:00:00+24:00",
         "2024-01-01T00:00:00Zx", "2024-01-01", "@1,2", "@1,2,3,4", "@1,4294967296,0"});
    expect_refused<family::stamp>(
        {"1969-12-31T23:59:59Z", "2024-01-01T00:00:00.0001Z", "@18446744073709551616", "@-1"});
    expect_refused<family::bytestr>({"0", "0g", "00 11"});
}

/// Wire bytes that no writer makes.
TEST(value_texts, have_wire_forms_that_are_refused) {
    watched_memory memory;
    const auto error_of = [&]<class F>(F, std::vector<uint8_t> bytes) {
        typename F::type value{};
        F::unmarshal(memory.handle(), domain, bytes.data(), &value, static_cast<int32_t>(bytes.size()), 0,
                     &memory.error);
        return std::exchange(memory.error, 0u);
    };
    EXPECT_EQ(error_of(family::address{}, {5, 1, 2, 3, 4}), 22u);
    EXPECT_EQ(error_of(family::address{}, std::vector<uint8_t>(30, 0xff)), 22u);
    EXPECT_EQ(error_of(family::prefix{}, {4, 1, 2, 3, 4, 33}), 22u);
    EXPECT_EQ(error_of(family::prefix{}, {1}), 22u);
    EXPECT_EQ(error_of(family::physical{}, std::vector<uint8_t>(20, 16)), 22u);
    EXPECT_EQ(error_of(family::vstring{}, {0xff, 0xff, 0xff, 0xff, 'x'}), 90u);
    EXPECT_EQ(error_of(family::bytestr{}, {0, 0, 0, 2, 'x'}), 90u);
    EXPECT_EQ(memory.allocations(), 0u);
}

TEST(value_texts, strings_order_by_bytes_then_length) {
    const auto compare = [](const char* a, const char* b) {
        char first[16], second[16];
        std::strcpy(first, a);
        std::strcpy(second, b);
        const loom_vstring left{first, static_cast<uint32_t>(std::strlen(a)), 0};
        const loom_vstring right{second, static_cast<uint32_t>(std::strlen(b)), 0};
        return loom_vstring_compare(&left, &right);
    };
    EXPECT_EQ(compare("ab", "abc"), -1);
    EXPECT_EQ(compare("b", "abc"), 1);
    EXPECT_EQ(compare("\x80", "a"), 1);
    EXPECT_EQ(compare("", ""), 0);
    EXPECT_EQ(compare("", "a"), -1);
}

TEST(value_texts, addresses_order_by_family_then_octets) {
    const ip_address none{}, small = address_of(4, {1, 2, 3, 4}), large = address_of(4, {200}),
                             other = address_of(6, {1}), zoned = address_of(6, {1}, 1);
    const ip_address* in_order[] = {&none, &small, &large, &other, &zoned};
    for (size_t i = 1; i < std::size(in_order); ++i)
        EXPECT_EQ(ip_address_compare(in_order[i - 1], in_order[i]), -1);
    const ip_prefix wide = prefix_of(4, {10}, 8), narrow = prefix_of(4, {10}, 24);
    EXPECT_EQ(ip_prefix_compare(&wide, &narrow), -1);
    const timestamp early{0, UINT32_MAX}, late{1, 0};
    EXPECT_EQ(timestamp_compare(&early, &late), -1);
}

TEST(string_assignment, takes_its_own_text_and_keeps_equal_blocks) {
    watched_memory memory;
    loom_vstring value{};
    const auto assign = [&](const char* text, uint32_t length) {
        loom_vstring_assign(memory.handle(), domain, &value, text, length, &memory.error);
    };
    assign("abcdef", 6);
    const char* block = value.text;
    assign("ghijkl", 6);
    EXPECT_EQ(value.text, block);
    assign(value.text + 2, 4); // a part of itself
    EXPECT_STREQ(value.text, "ijkl");
    assign(value.text, 4); // all of itself
    EXPECT_STREQ(value.text, "ijkl");
    assign(nullptr, 3);
    EXPECT_EQ(std::exchange(memory.error, 0u), 2u);
    EXPECT_STREQ(value.text, "ijkl");
    assign(nullptr, 0);
    EXPECT_EQ(value.text, nullptr);
    EXPECT_EQ(value.length, 0u);
}

TEST(super_fast_hash, gives_the_published_values) {
    const auto hash = [](std::string_view text, uint32_t seed) {
        return SuperFastHash(text.data(), static_cast<uint32_t>(text.size()), seed);
    };
    std::string all_bytes;
    for (int i = 0; i < 256; ++i)
        all_bytes += static_cast<char>(i);
    EXPECT_EQ(hash("", 7), 7u);
    EXPECT_EQ(hash("a", 0), 0x93642e87u);
    EXPECT_EQ(hash("\xff", 0), 0x7ffaa939u);
    EXPECT_EQ(hash("ab", 1), 0xbf27be3du);
    EXPECT_EQ(hash("abc", 1), 0x4c2681c2u);
    EXPECT_EQ(hash("ab\x80", 1), 0xfc30160du);
    EXPECT_EQ(hash("abcd", 0), 0x3ab452d8u);
    EXPECT_EQ(hash("The quick brown fox", 19), 0x77d8492bu);
    EXPECT_EQ(hash(all_bytes, 0xdeadbeef), 0x21c27a6u);
    const uint32_t number = 0x01020304;
    EXPECT_EQ(u_int32_hash(&number, 3), SuperFastHash(&number, 4, 3));
    const double minus_zero = -0.0, zero = 0.0;
    EXPECT_EQ(double_hash(&minus_zero, 3), double_hash(&zero, 3));
}

TEST(value_type_information, names_the_type_and_its_only_variant) {
    const struct {
        const char* name;
        const loom_type_info* info;
        size_t width;
        const char* luid;
    } expected[] = {
#include "expected_luids.inc"
    };
    for (const auto& type : expected) {
        const loom_type_info& info = *type.info;
        EXPECT_EQ(info.magic, LOOM_TYPE_INFO_MAGIC);
        EXPECT_STREQ(info.name, type.name);
        EXPECT_STREQ(info.module, "loom");
        EXPECT_STREQ(info.kind, "type");
        EXPECT_STREQ(info.luid_text, type.luid);
        EXPECT_EQ(hexadecimal({info.luid, info.luid + 16}), type.luid);
        EXPECT_EQ(info.runtime_slot, -1);
        EXPECT_EQ(info.manifested_kind, 0u);
        ASSERT_NE(info.variant_table, nullptr);
        EXPECT_EQ(info.variant_table->n_variants, 1);
        EXPECT_EQ(info.variant_table->entries->variant, 0u);
        EXPECT_EQ(info.variant_table->entries->used_length, type.width);
        EXPECT_EQ(info.variant_table->entries->alloc_slop, 0u);
        for (const auto& other : expected)
            if (other.info != type.info) {
                EXPECT_NE(info.variant_table->entries, other.info->variant_table->entries);
            }
    }
}
} // namespace
