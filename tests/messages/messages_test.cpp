// Action messages: making and ending them, their forms, dispatch to callbacks and handlers, message bundles and
// recording. The test defines the handler of `note` and none of `ping` and `lost`.
#include "tests/support/forms.h"
#include "tests/support/test_handle.h"

#include <table_forms/table_forms.h>

#include <loom/loom.h>
#include <loom_runtime/runtime.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using trellis::i32;
using trellis::u32;
using trellis::u64;
using trellis::u8;
using trellis::testing::hexadecimal;
using trellis::testing::older_peer;
using trellis::testing::test_handle;
using trellis::testing::xml_text;

namespace {
note_action_message* handled = nullptr;
void* handled_context = nullptr;
} // namespace

extern "C" void table_forms_note_action_message_handler(loom_handle*, u32, void* context,
                                                        note_action_message* message, u32* err) {
    handled = message;
    handled_context = context;
    *err = 77;
}

namespace {

class messages : public ::testing::Test {
  protected:
    explicit messages(const trellis::testing::handle_options& options = {}) : handle(options) {
        static const bool added = [] {
            trellis::testing::add_trace_texts_of(reinterpret_cast<const void*>(&note_action_message_create));
            return true;
        }();
        EXPECT_TRUE(added);
        h()->header_tag = 0x0A0B0C0D;
        handled = nullptr;
        memset(wire, 0xEE, sizeof wire);
    }
    loom_handle* h() { return handle.get(); }
    static constexpr u32 d = test_handle::domain;
    std::string log_of(const std::function<void()>& body) { return handle.log_of(body); }

    note_action_message* note(u32 id) {
        note_action_message* message = note_action_message_create(h(), d);
        number_row_id_set_value(h(), d, message->number_row, id, &err);
        return message;
    }
    std::string hex(u32 from, u32 count) const { return hexadecimal(wire + from, count); }
    u32 marshal(note_action_message* message, i32 room = sizeof wire) {
        return note_action_message_marshal(h(), d, wire, message, room, &err);
    }

    test_handle handle;
    u32 err = 0;
    unsigned char wire[1024];
};

struct tracked : messages {
    static trellis::testing::handle_options on() {
        trellis::testing::handle_options options;
        options.tracking = LOOM_TRACKING_ON;
        return options;
    }
    tracked() : messages(on()) {}
};

// ---- Life ------------------------------------------------------------------------------------------------------

TEST_F(messages, are_made_whole_or_shallow) {
    note_action_message* whole = note_action_message_create(h(), d);
    ASSERT_NE(whole, nullptr);
    EXPECT_STREQ(whole->loom_tinfo->kind, "message");
    EXPECT_EQ(whole->loom_variant, 0);
    EXPECT_EQ(whole->loom_flags, 0);
    EXPECT_EQ(whole->msg_header.hdr_magic, 188);
    for (u8 each : whole->msg_header.hdr_reserved)
        EXPECT_EQ(each, 0xFF);
    EXPECT_EQ(whole->msg_header.hdr_sttr, 0);
    EXPECT_NE(whole->number_row, nullptr);
    note_action_message* shallow = note_action_message_create_shallow(h(), d);
    EXPECT_EQ(shallow->number_row, nullptr);
    ping_action_message* ping = ping_action_message_create_cr(h());
    const loom_variant_entry& entry = *whole->loom_tinfo->variant_table->entries;
    const u64 alive = entry.objects_created - entry.objects_destroyed;
    note_action_message_destroy(h(), d, whole);
    note_action_message_destroy(h(), d, shallow);
    note_action_message_destroy(h(), d, nullptr);
    ping_action_message_destroy_cr(h(), ping);
    EXPECT_EQ(entry.objects_created - entry.objects_destroyed, alive - 2);
    EXPECT_EQ(handle.live_blocks(), 0u) << handle.describe_live_blocks();
    u8 luid[16];
    note_action_message* again = note_action_message_create(h(), d);
    note_action_message_get_luid(h(), d, again, luid, &err);
    EXPECT_EQ(memcmp(luid, message_action_note_luid, 16), 0);
    EXPECT_STREQ(message_action_note_name, "message_action note");
    note_action_message_destroy(h(), d, again);
}

TEST_F(tracked, say_so_in_flags_and_header) {
    ping_action_message* ping = ping_action_message_create(h(), d);
    EXPECT_EQ(ping->loom_flags, OBJ_STATE_TRACKED);
    EXPECT_EQ(ping->msg_header.hdr_sttr, 1);
    EXPECT_EQ(ping_action_message_marshal(h(), d, wire, ping, 43, &err), 43u);
    EXPECT_EQ(hex(7, 1), "01");
    ping_action_message_destroy(h(), d, ping);
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    h()->sttr_block->sttr_mode = 7;
    EXPECT_DEATH(ping_action_message_create(h(), d), "Corrupted LOOM Handle");
    h()->sttr_block->sttr_mode = LOOM_STTR_ON;
}

TEST_F(messages, without_memory_are_null_or_the_sentinel) {
    for (u64 nth = 1; nth <= 2; ++nth) {
        handle.fail_allocation(nth);
        EXPECT_EQ(note_action_message_create(h(), d), nullptr) << nth;
        EXPECT_EQ(handle.live_blocks(), 0u) << nth;
    }
    handle.fail_allocation(1);
    EXPECT_EQ(note_action_message_create_shallow(h(), d), nullptr);
    EXPECT_EQ(h()->last_error, 0u);
    handle.fail_allocation(1);
    note_action_message* sentinel = note_action_message_create_cr(h());
    ASSERT_NE(sentinel, nullptr);
    EXPECT_EQ(h()->last_error, 12u);
    EXPECT_EQ(h()->cr_active, 0u);
    EXPECT_EQ(note_action_message_create_cr(h()), sentinel) << "a pending error allocates nothing";
    EXPECT_EQ(handle.live_blocks(), 0u);
    EXPECT_EQ(log_of([&] { note_action_message_destroy_cr(h(), sentinel); }), "");
}

/// The first message brings the descriptions of the bundle's types into the database.
TEST(messages_without_room, for_their_description_are_null_or_the_sentinel) {
    trellis::testing::handle_options options;
    options.db_kind = LOOM_DB_PRIVATE_MANIFESTED;
    constexpr u32 d = test_handle::domain;
    u64 refusals = 0;
    for (u64 nth = 1;; ++nth) {
        test_handle shallow(options), whole(options), chain(options);
        for (test_handle* each : {&shallow, &whole, &chain})
            each->fail_allocation(nth);
        refusals += lost_action_message_create_shallow(shallow, d) == nullptr ? 1 : 0;
        refusals += lost_action_message_create(whole, d) == nullptr ? 1 : 0;
        const lost_action_message* message = lost_action_message_create_cr(chain);
        ASSERT_NE(message, nullptr) << nth;
        EXPECT_NE(message->number_row, nullptr) << nth;
        EXPECT_TRUE(message->loom_tinfo != nullptr || chain->last_error == 12) << nth;
        if (!whole.allocation_failed()) break;
    }
    EXPECT_GT(refusals, 3u) << "not the first allocation alone";
}

TEST_F(messages, hand_their_payload_out_and_over) {
    note_action_message* message = note(1);
    number_row* payload = message->number_row;
    EXPECT_EQ(note_action_message_number_row_get(h(), d, message, &err), payload);
    EXPECT_EQ(note_action_message_number_row_get_detach(h(), d, message, &err), payload);
    EXPECT_EQ(message->number_row, nullptr);
    note_action_message_number_row_set(h(), d, message, payload, &err);
    EXPECT_EQ(message->number_row, payload);
    EXPECT_EQ(payload->loom_flags & OBJ_EMBEDDED, 0);
    number_row* newer = number_row_create(h(), d);
    note_action_message_number_row_free_and_set(h(), d, message, newer, &err);
    EXPECT_EQ(message->number_row, newer);
    EXPECT_EQ(handle.live_blocks(), 2u);
    err = 5;
    EXPECT_EQ(log_of([&] {
                  EXPECT_EQ(note_action_message_number_row_get(h(), d, message, &err), nullptr);
                  EXPECT_EQ(note_action_message_number_row_get_detach(h(), d, message, &err), nullptr);
                  note_action_message_number_row_set(h(), d, message, nullptr, &err);
                  note_action_message_number_row_free_and_set(h(), d, message, nullptr, &err);
              }),
              "says 7 Error present when getting value for number_row: Input/output error\n"
              "says 7 Error present getting detached number_row value for note: Input/output error\n"
              "says 7 Error present when setting value for number_row: Input/output error\n"
              "says 7 Error present when freeing and setting value for number_row: Input/output error\n");
    EXPECT_EQ(message->number_row, newer);
    err = 0;
    EXPECT_EQ(log_of([&] { note_action_message_number_row_get(h(), d, nullptr, &err); }),
              "says 7 Error present when getting value for number_row: Success\n");
    note_action_message_destroy(h(), d, message);
}

// ---- Binary form -----------------------------------------------------------------------------------------------

TEST_F(messages, travel_in_their_frame) {
    ping_action_message* ping = ping_action_message_create(h(), d);
    EXPECT_EQ(ping_action_message_len(h(), d, ping), 43u);
    EXPECT_EQ(ping_action_message_len(h(), d, nullptr), 43u);
    EXPECT_EQ(ping_action_message_marshal(h(), d, wire, ping, 43, &err), 43u);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(hex(0, 27), "bcffffffffffff000a0b0c0d0000002b0000000000000000000000");
    EXPECT_EQ(memcmp(wire + 27, message_action_ping_luid, 16), 0);
    note_action_message* message = note(258);
    const u32 written = marshal(message);
    EXPECT_EQ(written, note_action_message_len(h(), d, message));
    EXPECT_EQ(written, 43 + number_row_len(h(), d, message->number_row));
    EXPECT_EQ(message->msg_header.hdr_length, written);
    EXPECT_EQ(note_action_message_len_cr(h(), message), written);
    EXPECT_EQ(note_action_message_marshal_cr(h(), message, wire, sizeof wire), static_cast<i32>(written));
    note_action_message* read = nullptr;
    EXPECT_EQ(note_action_message_unmarshal_only(h(), d, &read, wire, static_cast<i32>(written), &err), written);
    EXPECT_EQ(read->number_row->id, 258u);
    EXPECT_EQ(read->msg_header.hdr_word, 0x0A0B0C0Du);
    EXPECT_EQ(read->msg_header.hdr_length, written);
    EXPECT_EQ(handled, nullptr) << "decoding alone calls nobody";
    h()->last_error = 5;
    EXPECT_EQ(note_action_message_len_cr(h(), message), 0u);
    EXPECT_EQ(note_action_message_marshal_cr(h(), message, wire, sizeof wire), -1);
}

TEST_F(messages, respect_every_room) {
    note_action_message* message = note(1);
    const u32 whole = marshal(message);
    for (i32 room = 0; room < static_cast<i32>(whole); ++room) {
        memset(wire, 0xEE, sizeof wire);
        err = 0;
        EXPECT_LE(marshal(message, room), static_cast<u32>(room));
        EXPECT_EQ(err, 90u) << room;
        for (u32 i = static_cast<u32>(room); i < sizeof wire; ++i)
            ASSERT_EQ(wire[i], 0xEE) << room;
        EXPECT_EQ(hex(0, 27), room < 27 ? hex(0, 27) : std::string(54, '0')) << "no header";
        EXPECT_EQ(hex(27, 1), room < 43 ? std::string("ee") : hex(27, 1)) << "no luid";
    }
    err = 0;
    marshal(message);
    for (i32 length = 0; length < static_cast<i32>(whole); ++length) {
        err = 0;
        note_action_message* read = nullptr;
        note_action_message_unmarshal_only(h(), d, &read, wire, length, &err);
        EXPECT_EQ(err, 90u) << length;
        ASSERT_NE(read, nullptr);
        note_action_message_destroy(h(), d, read);
    }
}

TEST_F(messages, say_why_they_were_not_sent) {
    note_action_message* message = note(1);
    EXPECT_EQ(log_of([&] { marshal(message, 42); }),
              "error 90\nsays 3 Message note_action failed to marshal: Message too long\n");
    loom_set_suppress_messages(h(), 1);
    err = 0;
    EXPECT_EQ(log_of([&] { marshal(message, 20); }),
              "error 90\nsays 7 Message note_action failed to marshal: Message too long\n");
    EXPECT_EQ(log_of([&] { EXPECT_EQ(marshal(message), 0u); }),
              "says 7 Error present in call to message marshal: Message too long\n");
    EXPECT_EQ(err, 90u);
    EXPECT_EQ(note_action_message_is_valid_cr(h()) != 0, true);
    const older_peer peer(h(), "note", -1, "the neighbour");
    err = 0;
    memset(wire, 0xEE, sizeof wire);
    EXPECT_EQ(log_of([&] { EXPECT_EQ(marshal(message), 0u); }),
              std::string("says 3 domainfail: Message note_action (") + message_action_note_luid_text +
                  ") is not allowed for the current domain (the neighbour)\nepoch error 52\n");
    EXPECT_EQ(err, 52u);
    EXPECT_EQ(hex(0, 1), "ee");
    h()->last_error = 0;
    EXPECT_EQ(note_action_message_is_valid_cr(h()), 0u);
}

TEST_F(messages, without_their_payload_are_not_sent) {
    note_action_message* message = note_action_message_create_shallow(h(), d);
    EXPECT_EQ(log_of([&] { EXPECT_EQ(marshal(message), 43u); }),
              "error 2\nsays 3 Message note_action failed to marshal: No such file or directory\n");
    EXPECT_EQ(err, 2u);
    EXPECT_EQ(hex(0, 27), std::string(54, '0')) << "a header stands only before what is whole";
    EXPECT_EQ(hex(43, 1), "ee");
    h()->last_error = 0;
    EXPECT_EQ(note_action_message_marshal_cr(h(), message, wire, sizeof wire), -1);
    EXPECT_EQ(h()->last_error, 2u);
    note_action_message_destroy(h(), d, message);
}

TEST_F(messages, count_in_an_open_bundle) {
    note_action_message* message = note(1);
    loom_message_bundle_open(h(), "bundle");
    marshal(message);
    marshal(message);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(loom_message_bundle_count(h(), message_action_note_luid), 2u);
    loom_message_bundle_allow(h(), message_action_ping_luid);
    memset(wire, 0xEE, sizeof wire);
    const std::string log = log_of([&] { EXPECT_EQ(marshal(message), 0u); });
    EXPECT_NE(log.find("says 3 Message note_action is not valid for bundle: "), std::string::npos) << log;
    EXPECT_NE(err, 0u);
    EXPECT_EQ(hex(0, 1), "ee") << "nothing is written";
    loom_message_bundle_close(h());
    err = 0;
    h()->bundle_active = 1; // a bundle that nobody has opened
    const std::string absent = log_of([&] { marshal(message); });
    EXPECT_NE(absent.find("says 3 Message note_action i"), std::string::npos) << absent;
    h()->bundle_active = 0;
}

// ---- Dispatch --------------------------------------------------------------------------------------------------

TEST_F(messages, reach_the_callback_before_the_handler) {
    note_action_message* message = note(3);
    const i32 length = static_cast<i32>(marshal(message));
    static note_action_message* called_back;
    called_back = nullptr;
    note_action_message* received = nullptr;
    int context = 0;
    const auto callback = [](loom_handle*, u32, void*, note_action_message* got, u32*) { called_back = got; };
    EXPECT_EQ(note_action_message_unmarshal(h(), d, &context, &received, wire, length, callback, &err),
              static_cast<u32>(length));
    EXPECT_EQ(called_back, received);
    EXPECT_EQ(handled, nullptr);
    EXPECT_EQ(err, 0u);
    note_action_message_unmarshal(h(), d, &context, &received, wire, length, nullptr, &err);
    EXPECT_EQ(handled, received);
    EXPECT_EQ(handled_context, &context);
    EXPECT_EQ(handled->number_row->id, 3u);
    EXPECT_EQ(err, 77u) << "the handler's verdict";
}

TEST_F(messages, without_a_handler_are_an_error) {
    lost_action_message* message = lost_action_message_create(h(), d);
    const u32 length = lost_action_message_marshal(h(), d, wire, message, sizeof wire, &err);
    lost_action_message* received = nullptr;
    const std::string log = log_of([&] {
        EXPECT_EQ(lost_action_message_unmarshal(h(), d, nullptr, &received, wire, static_cast<i32>(length),
                                                nullptr, &err),
                  length);
    });
    EXPECT_NE(log.find("error 38\nsays 6 default table_forms_lost_action_message handler called\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(err, 38u);
    EXPECT_NE(received, nullptr);
    err = 5;
    received = message;
    EXPECT_EQ(log_of([&] {
                  lost_action_message_unmarshal(h(), d, nullptr, &received, wire, 43, nullptr, &err);
                  lost_action_message_unmarshal_only(h(), d, &received, wire, 43, &err);
              }),
              "says 7 Error present in call to lost_action message unmarshal: Input/output error\n"
              "says 7 Error present in call to lost_action unmarshal: Input/output error\n");
    EXPECT_EQ(received, message);
    err = 0;
    lost_action_message_unmarshal(h(), d, nullptr, &received, wire, 30, nullptr, &err);
    EXPECT_EQ(err, 90u);
    EXPECT_EQ(received, nullptr) << "what cannot be decoded is handed to nobody";
}

TEST_F(messages, without_memory_are_not_decoded) {
    note_action_message* message = note(1);
    const i32 length = static_cast<i32>(marshal(message));
    for (u64 nth = 1; nth <= 2; ++nth) {
        err = 0;
        note_action_message* received = nullptr;
        handle.fail_allocation(nth);
        note_action_message_unmarshal_only(h(), d, &received, wire, length, &err);
        EXPECT_EQ(err, 12u) << nth;
        EXPECT_EQ(received == nullptr, nth == 1);
        note_action_message_destroy(h(), d, received);
    }
}

// ---- Recording -------------------------------------------------------------------------------------------------

class recorded_messages : public messages {
  protected:
    recorded_messages() : stream(tmpfile()) {}
    ~recorded_messages() override {
        loom_recorder_stop();
        fclose(stream);
    }
    std::string recorded() {
        fflush(stream);
        rewind(stream);
        std::string text(65536, '\0');
        text.resize(fread(text.data(), 1, text.size(), stream));
        return text;
    }
    void receive(u32 id) {
        err = 0;
        note_action_message* message = note(id);
        const i32 length = static_cast<i32>(marshal(message));
        note_action_message_unmarshal(h(), d, nullptr, nullptr, wire, length, nullptr, &err);
    }
    FILE* stream;
};

TEST_F(recorded_messages, stand_one_behind_the_other) {
    loom_recorder_start_stream(stream);
    receive(4);
    receive(5);
    EXPECT_EQ(err, 77u) << "the handler ran";
    const std::string text = recorded();
    const auto element = [&](const char* id) {
        return std::string("<note_action><number_row><id>") + id +
               "</id><text></text></number_row></note_action></table_forms>";
    };
    EXPECT_EQ(text.rfind("<table_forms ", 0), 0u) << text;
    EXPECT_NE(text.find(element("4") + "<table_forms "), std::string::npos) << text;
    ASSERT_GE(text.size(), element("5").size());
    EXPECT_EQ(text.substr(text.size() - element("5").size()), element("5")) << "no separator, no terminator";
    err = 0;
    note_action_message* message = note(6);
    const i32 length = static_cast<i32>(marshal(message));
    note_action_message* read = nullptr;
    note_action_message_unmarshal_only(h(), d, &read, wire, length, &err);
    note_action_message_unmarshal(h(), d, nullptr, nullptr, wire, 30, nullptr, &err);
    EXPECT_EQ(recorded(), text) << "neither decoding alone nor a failure is recorded";
}

TEST_F(recorded_messages, without_a_stream_are_dispatched_all_the_same) {
    loom_recorder_start_stream(nullptr);
    const std::string log = log_of([&] { receive(4); });
    EXPECT_NE(log.find("says 3 LOOM record - NULL file handle for message note\n"), std::string::npos) << log;
    EXPECT_NE(handled, nullptr);
}

TEST_F(recorded_messages, that_are_too_long_are_dispatched_all_the_same) {
    loom_recorder_start_stream(stream);
    std::string characters(70000, 'x');
    loom_vstring text{characters.data(), static_cast<u32>(characters.size()), 0};
    note_action_message* message = note(4);
    number_row_text_set(h(), d, message->number_row, &text, &err);
    std::string buffer(80000, '\0');
    const u32 length = note_action_message_marshal(h(), d, buffer.data(), message, 80000, &err);
    ASSERT_EQ(err, 0u);
    const std::string log = log_of([&] {
        note_action_message_unmarshal(h(), d, nullptr, nullptr, buffer.data(), static_cast<i32>(length), nullptr,
                                      &err);
    });
    EXPECT_NE(log.find("says 3 Error 90 note_action message not recorded, xml len "), std::string::npos) << log;
    EXPECT_NE(log.find("says 3 Error 90 in recording note_action message\n"), std::string::npos) << log;
    EXPECT_NE(handled, nullptr);
    EXPECT_EQ(err, 77u);
    EXPECT_EQ(recorded(), "");
}

// ---- Text and XML ----------------------------------------------------------------------------------------------

TEST_F(messages, print_and_render) {
    note_action_message* message = note(7);
    char text[256] = {};
    const i32 printed = note_action_message_print(h(), d, text, message, sizeof text, &err);
    EXPECT_EQ(std::string(text).rfind("message@note_action: {\n  number_row@number_row: {\n    id@u_int32:7\n", 0),
              0u)
        << text;
    EXPECT_EQ(text[printed - 2], '}');
    EXPECT_EQ(note_action_message_print_cr(h(), message, text, sizeof text), printed);
    ping_action_message* ping = ping_action_message_create(h(), d);
    EXPECT_EQ(ping_action_message_print(h(), d, text, ping, sizeof text, &err), 25);
    EXPECT_STREQ(text, "message@ping_action: {\n}\n");
    ping_action_message_print(h(), d, text, ping, 5, &err);
    EXPECT_EQ(err, 90u);
    err = 0;
    const u32 written = note_action_message_to_xml(h(), d, text, message, sizeof text, &err);
    EXPECT_EQ(std::string(text, written),
              "<note_action><number_row><id>7</id><text></text></number_row></note_action>");
    EXPECT_EQ(note_action_message_toxml_cr(h(), message, text, sizeof text), static_cast<i32>(written));
    h()->last_error = 5;
    EXPECT_EQ(note_action_message_print_cr(h(), message, text, sizeof text), -1);
    EXPECT_EQ(note_action_message_toxml_cr(h(), message, text, sizeof text), -1);
    err = 5;
    EXPECT_EQ(log_of([&] {
                  note_action_message_print(h(), d, text, message, sizeof text, &err);
                  note_action_message_to_xml(h(), d, text, message, sizeof text, &err);
                  note_action_message_from_xml(h(), d, nullptr, &err, nullptr, 0);
              }),
              "says 7 Already have error when printing note_action: Input/output error\n"
              "says 7 Already have error when rendering XML for note_action: Input/output error\n"
              "says 7 Already have error when rendering note_action to XML: Input/output error\n");
}

TEST_F(messages, are_read_from_xml) {
    const auto read = [&](const char* text, char* complaint = nullptr, u32 size = 0) {
        return note_action_message_from_xml(h(), d, xml_text(text), &err, complaint, size);
    };
    note_action_message* message = read("<any><number_row><id>9</id></number_row></any>");
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->number_row->id, 9u);
    message = read("<any/>");
    ASSERT_NE(message, nullptr) << "a missing element leaves defaults";
    EXPECT_EQ(err, 0u);
    char complaint[64] = {};
    EXPECT_EQ(read("<number_row><id>nine</id></number_row>", complaint, sizeof complaint), nullptr);
    EXPECT_EQ(err, 22u);
    EXPECT_STREQ(complaint, "Failed xpath: //number_row/id");
    err = 0;
    handle.fail_allocation(1);
    EXPECT_EQ(read("<any/>"), nullptr);
    EXPECT_EQ(err, 12u);
    err = 0;
    EXPECT_NE(ping_action_message_from_xml(h(), d, xml_text("<x/>"), &err, nullptr, 0), nullptr);
}

} // namespace
