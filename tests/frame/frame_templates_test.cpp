// The frame's templates over small data of the test's own, for what a loaded library cannot show: nodes linked and
// unlinked in any order, records without a variant table, copies that fail.
#include "frame/bundle.h"

#include "tests/frame/fake_runtime.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace trellis::test {
namespace {

constexpr u8 unit_hash[16] = {'u', 'n', 'i', 't'};

struct small_bundle {
    static constexpr char name[] = "small";
    static u16 trace_module() { return 7; }
    template <int>
    static const u8* trace_unit() {
        return unit_hash;
    }
};
struct small_frame {
    using bundle = small_bundle;
    static constexpr int trace_unit = 2;
    static constexpr u32 trace_base = 0;
};

// ---- Module list -----------------------------------------------------------------------------------------------

TEST(module_list, nodes_leave_from_front_middle_and_end) {
    const u32 before = loom_module_tot_root.count;
    for (const std::array<int, 3>& leaving : {std::array{0, 1, 2}, {1, 0, 2}, {2, 0, 1}, {2, 1, 0}}) {
        std::array<loom_module_node, 3> nodes{{{"a", nullptr, nullptr, nullptr},
                                               {"b", nullptr, nullptr, nullptr},
                                               {"c", nullptr, nullptr, nullptr}}};
        std::array<u8, 3> linked{};
        for (std::size_t i = 0; i < nodes.size(); ++i)
            frame::link_module(nodes[i], linked[i]);
        EXPECT_EQ(listed_modules(before), (std::vector<std::string>{"a", "b", "c"}));
        std::vector<std::string> left = {"a", "b", "c"};
        for (const int place : leaving) {
            const auto index = static_cast<std::size_t>(place);
            frame::unlink_module(nodes[index]);
            std::erase(left, nodes[index].name);
            EXPECT_EQ(listed_modules(before), left);
            EXPECT_EQ(nodes[index].next, nullptr);
            EXPECT_EQ(nodes[index].previous, nullptr);
        }
        EXPECT_EQ(loom_module_tot_root.count, before);
    }
}

TEST(module_list, a_node_is_linked_once_in_its_life) {
    loom_module_node node{"once", nullptr, nullptr, nullptr};
    u8 linked = 0;
    const u32 before = loom_module_tot_root.count;
    frame::unlink_module(node); // never linked: nothing happens
    EXPECT_EQ(loom_module_tot_root.count, before);
    frame::link_module(node, linked);
    frame::link_module(node, linked);
    EXPECT_EQ(loom_module_tot_root.count, before + 1);
    frame::unlink_module(node);
    frame::unlink_module(node);
    frame::link_module(node, linked);
    EXPECT_EQ(loom_module_tot_root.count, before);
    EXPECT_TRUE(listed_modules(before).empty());
}

// ---- Type information ------------------------------------------------------------------------------------------

std::string printed;

int print(const char* format, ...) {
    char line[128];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    printed += line;
    return 0;
}

TEST(type_information, the_dump_notes_a_record_without_variant_table_and_goes_on) {
    loom_variant_entry entries[] = {{0, 32, 24, 0, 0, 0, 0}, {1, 40, 16, 0, 0, 0, 0}};
    loom_variant_table table{2, entries};
    loom_type_info first{}, second{};
    second.variant_table = &table;
    loom_type_info* const list[] = {&first, &second, nullptr};
    printed.clear();
    the_journal().reset();
    EXPECT_EQ(frame::type_variant_dump<small_frame>(list, print), nullptr);
    EXPECT_EQ(printed, "n_variants 2\n"
                       "variant 0 used length 32 alloc slop 24\n"
                       "variant 1 used length 40 alloc slop 16\n");
    ASSERT_EQ(the_journal().traces.size(), 1u);
    EXPECT_EQ(the_journal().traces[0].index, 0u);
    EXPECT_EQ(the_journal().traces[0].level, 3u);
}

TEST(type_information, records_without_variant_table_are_manifested_and_not_updated) {
    loom_type_info info{};
    std::strcpy(info.luid_text, "00112233445566778899aabbccddeeff");
    loom_type_info* const list[] = {&info, nullptr};
    database db;
    the_journal().reset();
    u32 err = 0;
    frame::typeinfo_initialize(list, &db.handle, 5, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(db.order, std::vector<std::string>{info.luid_text});
    EXPECT_TRUE(the_journal().variant_updates.empty());
}

// ---- Registry --------------------------------------------------------------------------------------------------

loom_table_vft records[2] = {{{"a"}}, {{"b"}}};
loom_table_vft filled[2];
u32 registry_state = 0;

struct small_registry {
    using bundle = small_bundle;
    static constexpr int trace_unit = 4;
    static constexpr u32 trace_base = 0;
    static constexpr u32 count = 2;
    static constexpr u64 multiplier = u64{1} << 63;
    static constexpr u32 shift = 63;
    static constexpr u8 slots[] = {0, 1};
    static constexpr frame::luid_words keys[] = {{2, 0}, {3, 0}};
    static const loom_table_vft* records() { return test::records; }
    static loom_table_vft* filled() { return test::filled; }
    static u32& state() { return registry_state; }
};

TEST(registry, a_failed_copy_is_reported_and_tried_again) {
    the_journal().reset();
    the_journal().copies_to_refuse = 1;
    registry_state = 0;
    loom_handle handle{};
    const u8 luid[16] = {3};
    const u8 unknown[16] = {5};
    const loom_table_vft* found = nullptr;
    u32 err = 0;
    frame::find_record<small_registry>(&handle, luid, &found, &err);
    EXPECT_EQ(err, static_cast<u32>(LOOM_ENOMEM));
    EXPECT_EQ(handle.last_error, static_cast<u32>(LOOM_ENOMEM));
    EXPECT_EQ(found, &filled[1]) << "the lookup runs all the same";
    EXPECT_EQ(found->slots[0], nullptr) << "the array is not filled yet";

    err = 0;
    frame::find_record<small_registry>(&handle, luid, &found, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(handle.last_error, 0u);
    EXPECT_STREQ(static_cast<const char*>(found->slots[0]), "b");
    frame::find_record<small_registry>(&handle, unknown, &found, &err);
    EXPECT_EQ(err, static_cast<u32>(LOOM_ENOENT));
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(the_journal().copies, 2u) << "filled once";
    EXPECT_EQ(the_journal().locks, 2u) << "no lock once it is filled";
    EXPECT_EQ(the_journal().lock_depth, 0);
}

TEST(registry, the_state_is_read_again_inside_the_lock) {
    the_journal().reset();
    registry_state = 1;
    EXPECT_EQ(frame::initialize_records<small_registry>(), 0u);
    EXPECT_EQ(the_journal().locks, 0u);
    EXPECT_EQ(the_journal().copies, 0u);
}

struct empty_registry : small_registry {
    static constexpr u32 count = 0;
    static constexpr u8 slots[] = {0, 0};
};

TEST(registry, a_bundle_without_tables_knows_no_luid) {
    const u8 luid[16] = {};
    EXPECT_EQ(frame::lookup<empty_registry>(luid), -1);
}

TEST(call_counters, count_from_whatever_they_hold) {
    u64 counter = 0xFFFFFFFFu;
    frame::count_call(counter);
    EXPECT_EQ(counter, 0x100000000u);
}

} // namespace
} // namespace trellis::test
