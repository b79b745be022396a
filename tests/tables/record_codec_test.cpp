// Table records as bytes, text and XML, and their keys alone: frames, short buffers, missing fields, and peers
// that do not know the table.
#include "forms.h"
#include "tests/support/forms.h"

#include <cstring>

using namespace table_tests;
using trellis::testing::hexadecimal;
using trellis::testing::older_peer;
using trellis::testing::xml_text;

namespace {

/// Printed text in which terminators of nested lines count as blanks.
std::string without_zeros(std::string text) {
    for (char& each : text)
        if (each == '\0') each = ' ';
    return text;
}

class record_codec : public forms_test {
  protected:
    record_codec() {
        loom_vstring name{};
        name.text = const_cast<char*>("north");
        name.length = 5;
        record = pair_tbl_create_record(h(), d, &err);
        value_row* row = value_row_create(h(), d);
        value_row_text_set(h(), d, row, &name, &err);
        pair_tbl_value_row_set_field(h(), d, record, row);
        pair_key* key = pair_key_create(h(), d);
        pair_key_name_set(h(), d, key, &name, &err);
        pair_key_part_set_value(h(), d, key, 6, &err);
        pair_tbl_pair_key_set_field(h(), d, record, key);
        h()->header_tag = 0x01020304;
    }
    u32 marshal(i32 room) {
        memset(wire, 0xEE, sizeof wire);
        return pair_tbl_table_record_marshal(h(), d, wire, record, room, &err);
    }
    std::string hex(u32 from, u32 count) const { return hexadecimal(wire + from, count); }
    pair_tbl_table_record* from_xml(const char* text, char* message = nullptr, u32 size = 0) {
        return pair_tbl_table_record_from_xml(h(), d, xml_text(text), &err, message, size);
    }

    pair_tbl_table_record* record;
    unsigned char wire[512];
};

TEST_F(record_codec, frames_payload_and_key) {
    const u32 written = marshal(sizeof wire);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(hex(0, 7), "bcffffffffffff");
    EXPECT_EQ(hex(7, 1), "00");
    EXPECT_EQ(hex(8, 4), "01020304");
    char length[9];
    snprintf(length, sizeof length, "%08x", written);
    EXPECT_EQ(hex(12, 4), length);
    EXPECT_EQ(hex(16, 11), "0000000000000000000000");
    EXPECT_EQ(memcmp(wire + 27, table_pair_tbl_luid, 16), 0);
    EXPECT_EQ(written, 43 + value_row_len(h(), d, record->value_row) + pair_key_len(h(), d, record->pair_key));
    EXPECT_EQ(written, pair_tbl_table_record_len(h(), d, record));
    EXPECT_EQ(pair_tbl_record_len_cr(h(), record), written);
    EXPECT_EQ(pair_tbl_record_marshal_cr(h(), record, wire, sizeof wire), static_cast<i32>(written));
    h()->last_error = 5;
    EXPECT_EQ(pair_tbl_record_len_cr(h(), record), 0u);
    EXPECT_EQ(pair_tbl_record_marshal_cr(h(), record, wire, sizeof wire), -1);
}

TEST_F(record_codec, every_room_is_respected) {
    const u32 whole = marshal(sizeof wire);
    for (i32 room = 0; room < static_cast<i32>(whole); ++room) {
        err = 0;
        const u32 written = marshal(room);
        EXPECT_EQ(err, 90u) << room;
        EXPECT_LE(written, static_cast<u32>(room));
        for (u32 i = static_cast<u32>(room); i < sizeof wire; ++i)
            ASSERT_EQ(wire[i], 0xEE) << room;
        if (room < 27)
            EXPECT_EQ(written, 0u) << room;
        else
            EXPECT_EQ(hex(0, 27), std::string(54, '0')) << "the header is not written";
    }
    err = 0;
    EXPECT_EQ(marshal(static_cast<i32>(whole)), whole);
    EXPECT_EQ(err, 0u);
}

TEST_F(record_codec, every_cut_is_noticed) {
    const u32 whole = marshal(sizeof wire);
    for (i32 length = 0; length < static_cast<i32>(whole); ++length) {
        err = 0;
        pair_tbl_table_record* read = nullptr;
        pair_tbl_table_record_unmarshal(h(), d, &read, wire, length, 0, &err);
        EXPECT_EQ(err, 90u) << length;
        ASSERT_NE(read, nullptr) << "a partly filled record belongs to the caller";
        err = 0;
        pair_tbl_destroy_record(h(), d, read, &err);
    }
}

TEST_F(record_codec, a_jump_far_behind_the_end_leaves_the_key_unread) {
    const u32 whole = marshal(sizeof wire);
    static constexpr unsigned char far[] = {0x7f, 0xff, 0xff, 0xf0};
    memcpy(wire + 43 + 2, far, sizeof far); // of the payload, behind variant and flags
    pair_tbl_table_record* read = nullptr;
    EXPECT_EQ(pair_tbl_table_record_unmarshal(h(), d, &read, wire, static_cast<i32>(whole), 0, &err), 0x7fffffffu);
    EXPECT_EQ(err, 90u);
    ASSERT_NE(read, nullptr);
    err = 0;
    pair_tbl_destroy_record(h(), d, read, &err);
}

TEST_F(record_codec, empty_fields_stop_the_marshal) {
    pair_key* key = pair_tbl_pair_key_get_field_detach(h(), d, record);
    EXPECT_EQ(log_of([&] { marshal(sizeof wire); }),
              "says 3 Failed to marshal pair_tbl record: Field pair_key is empty\nerror 2\n");
    EXPECT_EQ(err, 2u);
    err = 0;
    value_row* row = pair_tbl_value_row_get_field_detach(h(), d, record);
    EXPECT_EQ(log_of([&] { EXPECT_EQ(marshal(sizeof wire), 43u); }),
              "says 3 Failed to marshal pair_tbl record: Field value_row is empty\nerror 2\n");
    EXPECT_EQ(hex(0, 27), std::string(54, '0'));
    value_row_destroy(h(), d, row);
    pair_key_destroy(h(), d, key);
}

TEST_F(record_codec, unknown_tables_are_not_sent) {
    const older_peer peer(h(), "pair_tbl", -1, "the neighbour");
    EXPECT_EQ(log_of([&] { EXPECT_EQ(marshal(sizeof wire), 0u); }),
              std::string("says 3 domainfail: Table pair_tbl (") + table_pair_tbl_luid_text +
                  ") is not allowed for the current domain (the neighbour)\nepoch error 52\n");
    EXPECT_EQ(err, 52u);
    EXPECT_EQ(hex(0, 1), "ee");
}

TEST_F(record_codec, reads_into_new_and_existing_records) {
    const u32 whole = marshal(sizeof wire);
    pair_tbl_table_record* read = nullptr;
    EXPECT_EQ(pair_tbl_table_record_unmarshal(h(), d, &read, wire, static_cast<i32>(whole), 0, &err), whole);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(read->loom_record.src, 1u);
    EXPECT_EQ(pair_key_compare(read->pair_key, record->pair_key), 0);
    pair_key_part_set_value(h(), d, read->pair_key, 1, &err);
    const value_row* row = read->value_row;
    EXPECT_EQ(pair_tbl_table_record_unmarshal(h(), d, &read, wire, static_cast<i32>(whole), 1, &err), whole);
    EXPECT_EQ(read->value_row, row);
    EXPECT_EQ(read->pair_key->part, 6u);
    quiet_tbl_table_record* other = nullptr; // the luid is not compared
    EXPECT_EQ(quiet_tbl_table_record_unmarshal(h(), d, &other, wire, static_cast<i32>(whole), 0, &err), whole);
    EXPECT_EQ(other->pair_key->part, 6u);
    pair_tbl_table_record* none = nullptr;
    EXPECT_EQ(pair_tbl_table_record_unmarshal(h(), d, &none, wire, static_cast<i32>(whole), 1, &err), 0u);
    EXPECT_EQ(err, 2u);
    err = 0;
    pair_tbl_table_record* bare = pair_tbl_create_record(h(), d, &err);
    EXPECT_EQ(pair_tbl_table_record_unmarshal(h(), d, &bare, wire, static_cast<i32>(whole), 1, &err), 43u);
    EXPECT_EQ(err, 2u);
    for (u64 nth = 1; nth <= 3; ++nth) {
        err = 0;
        pair_tbl_table_record* partly = nullptr;
        handle.fail_allocation(nth);
        pair_tbl_table_record_unmarshal(h(), d, &partly, wire, static_cast<i32>(whole), 0, &err);
        EXPECT_EQ(err, 12u) << nth;
        EXPECT_EQ(partly == nullptr, nth == 1);
    }
}

TEST_F(record_codec, says_what_was_pending) {
    err = 5;
    pair_tbl_table_record* read = nullptr;
    pair_key* key = nullptr;
    EXPECT_EQ(log_of([&] {
                  EXPECT_EQ(marshal(sizeof wire), 0u);
                  EXPECT_EQ(pair_tbl_table_record_unmarshal(h(), d, &read, wire, 100, 0, &err), 0u);
                  EXPECT_EQ(pair_tbl_table_pkey_marshal(h(), d, wire, record, 100, &err), 0u);
                  EXPECT_EQ(pair_tbl_table_pkey_unmarshal(h(), d, &key, wire, 100, &err), 0u);
              }),
              "says 7 Error present in call to table marshal: Input/output error\n"
              "says 7 Error present in call to pair_tbl unmarshal: Input/output error\n"
              "says 7 Error present in call to table marshal: Input/output error\n"
              "says 7 Error present in call to pair_tbl pkey unmarshal: Input/output error\n");
    EXPECT_EQ(err, 5u);
}

TEST_F(record_codec, keys_travel_alone) {
    const u32 length = pair_tbl_table_pkey_len(h(), d, record);
    EXPECT_EQ(length, pair_key_len(h(), d, record->pair_key));
    EXPECT_EQ(pair_tbl_table_pkey_marshal(h(), d, wire, record, static_cast<i32>(length) - 1, &err), 0u);
    EXPECT_EQ(err, 90u);
    err = 0;
    const u32 written = pair_tbl_table_pkey_marshal(h(), d, wire, record, static_cast<i32>(length), &err);
    pair_key* key = nullptr;
    EXPECT_EQ(pair_tbl_table_pkey_unmarshal(h(), d, &key, wire, static_cast<i32>(written), &err), written);
    EXPECT_EQ(pair_key_compare(key, record->pair_key), 0);
    pair_tbl_pkey_destroy(h(), d, key);
    EXPECT_EQ(pair_tbl_table_pkey_unmarshal(h(), d, nullptr, wire, 100, &err), 0u);
    EXPECT_EQ(err, 14u);
    err = 0;
    handle.fail_allocation(1);
    pair_tbl_table_pkey_unmarshal(h(), d, &key, wire, static_cast<i32>(written), &err);
    EXPECT_EQ(err, 12u);
    err = 0;
    key = nullptr;
    pair_tbl_table_pkey_unmarshal(h(), d, &key, wire, 3, &err);
    EXPECT_EQ(err, 90u);
    EXPECT_NE(key, nullptr) << "stored even when the unmarshal failed";
    err = 0;
    EXPECT_EQ(number_tbl_table_pkey_marshal(h(), d, wire, number(0x0A0B0C0D), 4, &err), 4u);
    EXPECT_EQ(hex(0, 4), "0a0b0c0d") << "an attribute's own form, without a frame";
    number_row* payload = nullptr;
    EXPECT_EQ(number_tbl_table_pkey_unmarshal(h(), d, &payload, wire, 4, &err), 4u);
    EXPECT_EQ(payload->id, 0x0A0B0C0Du);
}

TEST_F(record_codec, prints) {
    char text[512];
    memset(text, ' ', sizeof text); // a record's closing line steps over its indent
    const i32 written = pair_tbl_table_record_print(h(), d, text, record, sizeof text, &err);
    EXPECT_EQ(without_zeros(std::string(text, static_cast<std::size_t>(written))), "record@pair_tbl: {\n"
                                                                                   "  value_row@value_row: {\n"
                                                                                   "    text@loom_vstring:north\n"
                                                                                   "  }\n"
                                                                                   "  pair_key@pair_key: {\n"
                                                                                   "    name@loom_vstring:north\n"
                                                                                   "    part@u_int32:6\n"
                                                                                   "  }\n"
                                                                                   "}\n");
    char again[512];
    memset(again, ' ', sizeof again);
    EXPECT_EQ(pair_tbl_record_print_cr(h(), record, again, sizeof again), written);
    EXPECT_EQ(memcmp(again, text, static_cast<std::size_t>(written)), 0);
    h()->last_error = 5;
    again[0] = '\0';
    EXPECT_EQ(pair_tbl_record_print_cr(h(), record, again, sizeof again), -1);
    EXPECT_STREQ(again, "");
    EXPECT_EQ(pair_tbl_table_record_print(h(), d, text, record, 22, &err), 19);
    EXPECT_EQ(err, 90u) << "the binary length is the yardstick of room";
}

TEST_F(record_codec, prints_keys) {
    char text[256] = {};
    loom_table* table = open_numbers();
    EXPECT_EQ(number_tbl_pkey_print(h(), d, table, number(12), text, sizeof text, &err), 14);
    EXPECT_STREQ(text, "id@u_int32:12\n");
    loom_table* pairs = pair_tbl_table_open(h(), d, "pairs", 0, &err);
    pair_tbl_pkey_print(h(), d, pairs, record, text, sizeof text, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(std::string(text).rfind("@pair_key: {\n", 0), 0u) << text;
    EXPECT_EQ(number_tbl_pkey_print(h(), d, table, number(12), text, 3, &err), 0);
    EXPECT_EQ(err, 90u);
    for (int missing = 0; missing < 3; ++missing) {
        err = 0;
        EXPECT_EQ(number_tbl_pkey_print(missing == 0 ? nullptr : h(), d, missing == 1 ? nullptr : table,
                                        missing == 2 ? nullptr : number(1), text, sizeof text, &err),
                  0);
        EXPECT_EQ(err, 22u) << missing;
    }
}

TEST_F(record_codec, writes_and_reads_xml) {
    char text[512] = {};
    const u32 written = pair_tbl_table_record_to_xml(h(), d, text, record, sizeof text, &err);
    EXPECT_EQ(std::string(text, written), "<pair_tbl><value_row><text>north</text></value_row>"
                                          "<pair_key><name>north</name><part>6</part></pair_key></pair_tbl>");
    EXPECT_EQ(pair_tbl_record_toxml_cr(h(), record, text, sizeof text), static_cast<i32>(written));
    pair_tbl_table_record* read = from_xml(std::string(text, written).c_str());
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(pair_key_compare(read->pair_key, record->pair_key), 0);
    EXPECT_EQ(value_row_compare(read->value_row, record->value_row), 0);
    read = from_xml("<elsewhere><deep><value_row><text>x</text></value_row></deep></elsewhere>");
    ASSERT_NE(read, nullptr) << "elements are found at any depth, and a missing key is none";
    EXPECT_EQ(std::string(read->value_row->text.text), "x");
    EXPECT_EQ(read->pair_key->part, 0u);
    EXPECT_EQ(err, 0u);
    read = from_xml("<pair_tbl/>");
    ASSERT_NE(read, nullptr);
    EXPECT_NE(read->value_row, nullptr);
    EXPECT_EQ(err, 0u);
    read = from_xml("<t><pair_key><part>4</part></pair_key></t>");
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(read->pair_key->part, 0u) << "a missing payload leaves the key unread";
    EXPECT_EQ(err, 0u);
    err = h()->last_error = 9;
    read = from_xml("<t><value_row/></t>");
    EXPECT_NE(read, nullptr) << "a record is made whatever is pending";
    EXPECT_EQ(err, 0u) << "and what was is gone";
    char message[128] = {};
    EXPECT_EQ(from_xml("<t><value_row/><pair_key><part>six</part></pair_key></t>", message, sizeof message),
              nullptr);
    EXPECT_EQ(err, 22u);
    EXPECT_STREQ(message, "Failed xpath: //pair_key/part");
    err = 0;
    h()->last_error = 5;
    EXPECT_EQ(pair_tbl_record_toxml_cr(h(), record, text, sizeof text), -1);
}

TEST_F(record_codec, what_is_read_from_xml_without_memory_leaves_nothing) {
    for (const char* text : {"<t><value_row/><pair_key/></t>", "<t/>"}) {
        for (u64 nth = 1; nth <= 3; ++nth) {
            err = 0;
            const u64 blocks = handle.live_blocks();
            handle.fail_allocation(nth);
            EXPECT_EQ(from_xml(text), nullptr);
            EXPECT_EQ(err, 12u) << nth;
            EXPECT_EQ(handle.live_blocks(), blocks) << handle.describe_live_blocks();
        }
    }
}

} // namespace
