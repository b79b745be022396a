// Frame fields of the binary form, byte by byte; also with an error pending and without room.
#include "watched_memory.h"

#include <loom/wire.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr uint32_t domain = watched_memory::domain;

class frame_fields : public testing::Test {
  protected:
    using writer = std::function<uint32_t(void* buffer, int32_t length)>;
    using reader = std::function<uint32_t(const void* buffer, int32_t length)>;

    /// Writes and reads one field: exact room, more room, a pending error, too little room.
    void expect_field(const std::vector<uint8_t>& bytes, const writer& write, const reader& read,
                      const std::function<bool()>& is_read, const std::function<bool()>& is_zero) {
        const auto size = static_cast<int32_t>(bytes.size());
        uint32_t& last_error = memory.handle()->last_error;
        for (int32_t length = -1; length < size; ++length) {
            std::vector<uint8_t> buffer(bytes.size() + 1, 0xcd);
            EXPECT_EQ(write(buffer.data(), length), 0u);
            EXPECT_EQ(buffer, std::vector<uint8_t>(bytes.size() + 1, 0xcd));
            EXPECT_EQ(std::exchange(memory.error, 0u), 90u);
            EXPECT_EQ(std::exchange(last_error, 0u), 90u);
            EXPECT_EQ(read(bytes.data(), length), 0u);
            EXPECT_TRUE(is_zero());
            EXPECT_EQ(std::exchange(memory.error, 0u), 90u);
        }
        for (const uint32_t pending : {0u, 43u}) {
            memory.error = pending;
            last_error = 0;
            std::vector<uint8_t> buffer(bytes.size() + 1, 0xcd);
            EXPECT_EQ(write(buffer.data(), size + (pending ? 1 : 0)), bytes.size());
            EXPECT_EQ(std::vector<uint8_t>(buffer.begin(), buffer.end() - 1), bytes);
            EXPECT_EQ(buffer.back(), 0xcd);
            EXPECT_EQ(memory.error, pending);
            EXPECT_EQ(last_error, 0u);
            EXPECT_EQ(read(bytes.data(), size), pending ? 0 : bytes.size());
            EXPECT_TRUE(pending ? is_zero() : is_read());
        }
        // Without room the error that stands is kept.
        uint8_t byte = 0;
        EXPECT_EQ(write(&byte, 0), 0u);
        EXPECT_EQ(std::exchange(memory.error, 0u), 43u);
    }

    template <class T, class Marshal, class Unmarshal>
    void expect_number(T number, const std::vector<uint8_t>& bytes, Marshal marshal, Unmarshal unmarshal) {
        T got = 1;
        expect_field(
            bytes,
            [&](void* buffer, int32_t length) {
                return marshal(memory.handle(), domain, buffer, &number, length, &memory.error);
            },
            [&](const void* buffer, int32_t length) {
                got = 1;
                return unmarshal(memory.handle(), domain, buffer, &got, length, &memory.error);
            },
            [&] { return got == number; }, [&] { return got == 0; });
    }

    watched_memory memory;
};

TEST_F(frame_fields, are_numbers_most_significant_byte_first) {
    expect_number(int8_t{-2}, {0xfe}, _loom_instance_variant_marshal, _loom_instance_variant_unmarshal);
    expect_number(uint8_t{0x28}, {0x28}, _loom_instance_obj_flag_marshal, _loom_instance_obj_flag_unmarshal);
    expect_number(0x01020304u, {1, 2, 3, 4}, _loom_variant_jump_marshal, _loom_variant_jump_unmarshal);
    expect_number(0xfffefdfcu, {0xff, 0xfe, 0xfd, 0xfc}, _loom_list_len_marshal, _loom_list_len_unmarshal);
}

TEST_F(frame_fields, ra_data_is_nine_bytes) {
    const uint64_t address = 0x0102030405060708;
    const uint8_t kind = 9;
    uint64_t got_address = 1;
    uint8_t got_kind = 1;
    expect_field(
        {1, 2, 3, 4, 5, 6, 7, 8, 9},
        [&](void* buffer, int32_t length) {
            return _loom_instance_ra_data_marshal(memory.handle(), domain, buffer, &address, &kind, length,
                                                  &memory.error);
        },
        [&](const void* buffer, int32_t length) {
            return _loom_instance_ra_data_unmarshal(memory.handle(), domain, buffer, &got_address, &got_kind,
                                                    length, &memory.error);
        },
        [&] { return got_address == address && got_kind == kind; },
        [&] { return got_address == 0 && got_kind == 0; });
}

TEST_F(frame_fields, message_header_is_twenty_seven_bytes) {
    const loom_message_header header{188, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, 1, 0x01020304, 0x0a0b0c0d};
    const loom_message_header zero{};
    loom_message_header got{};
    const auto same = [](const loom_message_header& a, const loom_message_header& b) {
        return std::memcmp(&a, &b, sizeof a) == 0;
    };
    expect_field(
        {188, 255, 255, 255, 255, 255, 255, 1, 1, 2, 3, 4, 10, 11, 12, 13, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
        [&](void* buffer, int32_t length) {
            return _loom_message_header_marshal(memory.handle(), domain, buffer, &header, length, &memory.error);
        },
        [&](const void* buffer, int32_t length) {
            return _loom_message_header_unmarshal(memory.handle(), domain, buffer, &got, length, &memory.error);
        },
        [&] { return same(got, header); }, [&] { return same(got, zero); });
}

TEST(type_header, tells_whether_state_bytes_follow) {
    const uint8_t tracked[] = {0, 0x28};
    const uint8_t plain[] = {8, 0x20};
    EXPECT_EQ(loomlib_type_header_get_state_tracking_flag(tracked), 1);
    EXPECT_EQ(loomlib_type_header_get_state_tracking_flag(plain), 0);
}
} // namespace
