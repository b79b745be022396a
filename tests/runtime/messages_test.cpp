// Message bundles, the recorder, and the registry of bundles.
#include "tests/runtime/support.h"

#include <cstdio>
#include <cstring>
#include <fstream>

namespace {
using namespace runtime_test;

const std::uint8_t first_luid[16] = {1}, second_luid[16] = {2};

struct message_bundles : testing::Test {
    handle_ptr handle = open_private();
    std::uint32_t err = 0;
    void add(const std::uint8_t* luid, const char* name) {
        bundle_message_validate_add(handle, 1, luid, name, &err);
        bundle_message_increment_count(handle, luid, &err);
    }
};

TEST_F(message_bundles, hold_and_count_messages) {
    EXPECT_EQ(loom_message_bundle_open(handle, "update"), 0u);
    EXPECT_EQ(handle->bundle_active, 1u);
    EXPECT_EQ(loom_message_bundle_open(handle, "second"), std::uint32_t{EEXIST});
    add(first_luid, "first");
    add(first_luid, "first");
    add(second_luid, "second");
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(loom_message_bundle_count(handle, first_luid), 2u);
    EXPECT_EQ(loom_message_bundle_count(handle, nullptr), 3u);
    std::string all;
    loom_message_bundle_each(
        handle,
        [](const std::uint8_t*, const char* name, std::uint64_t count, void* context) {
            *static_cast<std::string*>(context) += name + std::string("=") + std::to_string(count) + " ";
        },
        &all);
    EXPECT_EQ(all, "first=2 second=1 ");
    EXPECT_EQ(loom_message_bundle_close(handle), 0u);
    EXPECT_EQ(handle->bundle_active, 0u);
    EXPECT_EQ(loom_message_bundle_close(handle), std::uint32_t{ENOENT});
}

TEST_F(message_bundles, refuse_what_they_were_not_told_of) {
    bundle_message_validate_add(handle, 1, first_luid, "first", &err);
    EXPECT_EQ(std::exchange(err, 0u), std::uint32_t{LOOM_ENOENT});
    loom_message_bundle_open(handle, "narrow");
    bundle_message_increment_count(handle, first_luid, &err);
    EXPECT_EQ(std::exchange(err, 0u), std::uint32_t{LOOM_ENOENT});
    loom_message_bundle_allow(handle, first_luid);
    bundle_message_validate_add(handle, 1, second_luid, "second", &err);
    EXPECT_EQ(std::exchange(err, 0u), std::uint32_t{LOOM_EPERM});
    EXPECT_EQ(handle->last_error, std::uint32_t{LOOM_EPERM});
    loom_message_bundle_limit(handle, 1);
    add(first_luid, "first");
    EXPECT_EQ(err, 0u);
    bundle_message_validate_add(handle, 1, first_luid, "first", &err);
    EXPECT_EQ(err, std::uint32_t{LOOM_ENOSPC});
}

TEST(recorder, appends_to_its_file_while_it_is_on) {
    scratch_directory directory;
    const std::string path = directory.file("recorded.xml");
    EXPECT_EQ(loomlib_msg_recorder_get_state(), 0u);
    EXPECT_FALSE(loomlib_msg_recorder_get_handle());
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(loom_recorder_start(path.c_str()), 0u);
        EXPECT_NE(loomlib_msg_recorder_get_state(), 0u);
        EXPECT_EQ(loom_recorder_start(path.c_str()), std::uint32_t{EEXIST});
        std::fputs("<m/>", loomlib_msg_recorder_get_handle());
        loom_recorder_stop();
        EXPECT_EQ(loomlib_msg_recorder_get_state(), 0u);
    }
    std::ifstream file(path);
    std::string text;
    std::getline(file, text);
    EXPECT_EQ(text, "<m/><m/>");
    EXPECT_EQ(loom_recorder_start_stream(nullptr), 0u);
    EXPECT_NE(loomlib_msg_recorder_get_state(), 0u);
    EXPECT_FALSE(loomlib_msg_recorder_get_handle());
    loom_recorder_stop();
    EXPECT_EQ(loom_recorder_start(directory.file("no/such/place").c_str()), std::uint32_t{ENOENT});
    EXPECT_NE(std::string(loom_error_text()).find("no/such/place"), std::string::npos);
}

TEST(registry, finds_bundles_types_and_tables) {
    load_fake_bundle();
    handle_ptr handle = open_private();
    loom_bundle* bundle = loom_bundle_find("fake_bundle");
    ASSERT_TRUE(bundle) << loom_error_text();
    EXPECT_STREQ(loom_bundle_name(bundle), "fake_bundle");
    EXPECT_STREQ(loom_bundle_module(bundle)->name, "fake_bundle");
    const loom_table_vft* vft = nullptr;
    std::uint32_t err = 0;
    loom_bundle_table_get_vft(bundle)(handle, 1, fake_table_type.info.luid, &vft, &err);
    EXPECT_EQ(vft, &fake_table_vft);
    EXPECT_EQ(loom_find_table_vft(handle, fake_table_type.info.luid), &fake_table_vft);
    EXPECT_FALSE(loom_find_table_vft(handle, first_luid));
    EXPECT_EQ(loom_find_type("fake_table"), &fake_table_type.info);
    EXPECT_FALSE(loom_find_type("no_such_type"));
    EXPECT_TRUE(loom_bundle_symbol(bundle, "fake_bundle_fetch_table_get_vft"));
    loom_bundle_unload(bundle);
    EXPECT_FALSE(loom_bundle_find("unheard_of"));
    EXPECT_NE(std::string(loom_error_text()).find("unheard_of"), std::string::npos);
    EXPECT_FALSE(loom_bundle_load("/no/such/bundle.so"));
    EXPECT_FALSE(loom_bundle_load("libm.so.6"));
    EXPECT_NE(std::string(loom_error_text()).find("is no bundle"), std::string::npos);
}

TEST(registry, copies_function_records) {
    loom_table_vft source[2] = {fake_table_vft, {}}, copy[2] = {};
    EXPECT_EQ(table_vft_cpy(copy, source, 2), 0u);
    EXPECT_EQ(std::memcmp(copy, source, sizeof source), 0);
    EXPECT_EQ(table_vft_cpy(nullptr, source, 2), std::uint32_t{LOOM_EINVAL});
}
} // namespace
