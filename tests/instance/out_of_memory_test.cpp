// The n-th allocation fails, for n from 1 until the operation passes: the failure is reported where it must be,
// nothing is lost, and what is left can be used, copied and ended.
#include "records.h"
#include "tests/support/sanitized.h"

#include <trellis_test_types/rec_child_comp_key_parent_comp_key.h>
#include <trellis_test_types/string_key.h>

#include <gtest/gtest.h>

#include <memory>
#include <ostream>

namespace trellis::testing {
namespace {

/// The allocation that fails next: each, one by one. A record takes up to some hundreds, and the walk is as long
/// as their square; under a sanitizer it takes each of the first 40 and then steps that grow with the way gone.
u64 following(u64 nth) { return !under_sanitizer || nth < 40 ? nth + 1 : nth + nth / 8; }

accessor_walk walk_of(test_handle& handle, bool sets, u64 seed) {
    return {.schema = catalogue(), .handle = handle, .setting = sets, .seed = seed};
}
void fill(test_handle& handle, const std::string& type, void* object, u64 seed) {
    accessor_walk walk = walk_of(handle, true, seed);
    walk.walk(type, pattern_of(type, seed), object);
    ASSERT_EQ(walk.faults, "");
}

std::vector<std::byte> workspace_for(test_handle& handle, const std::string& type, const void* object) {
    return std::vector<std::byte>(size_t{named_type(type).len(handle, domain, object)} + 64);
}

struct setting {
    const char* name;
    u32 tracking;
    bool unfollowed;
};
void PrintTo(const setting& in, std::ostream* out) { *out << in.name; }

class without_memory : public ::testing::TestWithParam<setting> {
  protected:
    std::unique_ptr<test_handle> open() const {
        handle_options options{};
        options.tracking = GetParam().tracking;
        options.unfollowed = GetParam().unfollowed;
        return std::make_unique<test_handle>(options);
    }
};

TEST_P(without_memory, creating_gives_null_and_nothing_is_left) {
    const auto handle = open();
    const auto fails_cleanly = [&](const char* name, auto create, auto destroy) {
        for (u64 nth = 1;; nth = following(nth)) {
            handle->fail_allocation(nth);
            void* made = create();
            if (!handle->allocation_failed()) {
                destroy(made);
                break;
            }
            EXPECT_EQ(made, nullptr) << name;
            // The object's own memory is missed in silence, a place in the side table is not.
            EXPECT_EQ((*handle)->last_error, nth == 1 ? 0u : u32{LOOM_ENOMEM}) << name;
            EXPECT_EQ(handle->live_blocks(), 0u) << name;
            EXPECT_EQ(loom_tracking_map_count(*handle), 0u) << name;
        }
        handle->fail_allocation(0);
        EXPECT_EQ(handle->live_blocks(), 0u) << name;
    };
    const auto all_fail_cleanly = [&](const auto& types) {
        for (const auto& [name, description] : types) {
            const named_type type(name);
            fails_cleanly(
                name.c_str(), [&] { return type.create(*handle, domain); },
                [&](void* made) { type.destroy(*handle, domain, made); });
        }
    };
    all_fail_cleanly(catalogue().records);
    all_fail_cleanly(catalogue().enumerations);
    all_fail_cleanly(catalogue().flag_sets);
}

TEST_P(without_memory, setting_reports_12_and_leaves_a_whole_object) {
    for (const auto& [name, record] : catalogue().records) {
        const named_type type(name);
        const auto handle = open();
        for (u64 nth = 1;; nth = following(nth)) {
            void* object = type.create(*handle, domain);
            accessor_walk walk = walk_of(*handle, true, 42);
            walk.memory_may_end = true;
            handle->fail_allocation(nth);
            walk.walk(name, pattern_of(name, 42), object);
            const bool failed = handle->allocation_failed();
            handle->fail_allocation(0);
            EXPECT_EQ(walk.faults, "") << name << " allocation " << nth;
            EXPECT_EQ(failed, walk.stopped) << name;
            // What was set before can still be used, and with memory the whole can be set.
            EXPECT_EQ(type.compare(object, object), 0);
            type.hash(object, 1);
            EXPECT_GT(type.len(*handle, domain, object), 0u);
            if (failed) {
                fill(*handle, name, object, 42);
                accessor_walk check = walk_of(*handle, false, 42);
                check.refilled = true;
                check.walk(name, pattern_of(name, 42), object);
                EXPECT_EQ(check.faults, "") << name << " behind allocation " << nth;
            }
            type.destroy(*handle, domain, object);
            ASSERT_EQ(handle->live_blocks(), 0u) << name << " allocation " << nth << "\n"
                                                 << handle->describe_live_blocks();
            ASSERT_EQ(loom_tracking_map_count(*handle), 0u) << name << " allocation " << nth;
            ASSERT_EQ(handle->take_violations(), "") << name << " allocation " << nth;
            if (!failed) break;
        }
    }
}

TEST_P(without_memory, copying_gives_null_and_12) {
    for (const auto& [name, record] : catalogue().records) {
        const named_type type(name);
        const auto handle = open();
        void* object = type.create(*handle, domain);
        fill(*handle, name, object, 7);
        std::vector<std::byte> workspace = workspace_for(*handle, name, object);
        const u64 blocks = handle->live_blocks();
        const u64 placed = loom_tracking_map_count(*handle);
        for (u64 nth = 1;; nth = following(nth)) {
            void* copy = nullptr;
            u32 error = 0;
            handle->fail_allocation(nth);
            operate(name, "_clone", handle->get(), domain, object, &copy, workspace.data(),
                    static_cast<i32>(workspace.size()), &error);
            const bool failed = handle->allocation_failed();
            handle->fail_allocation(0);
            if (!failed) {
                EXPECT_EQ(error, 0u);
                EXPECT_EQ(type.compare(object, copy), 0);
                type.destroy(*handle, domain, copy);
            } else {
                EXPECT_EQ(error, u32{LOOM_ENOMEM}) << name << " allocation " << nth;
                EXPECT_EQ(copy, nullptr) << name << " allocation " << nth;
            }
            ASSERT_EQ(handle->live_blocks(), blocks) << name << " allocation " << nth;
            ASSERT_EQ(loom_tracking_map_count(*handle), placed) << name << " allocation " << nth;
            if (!failed) break;
        }
        type.destroy(*handle, domain, object);
        ASSERT_EQ(handle->live_blocks(), 0u);
    }
}

TEST_P(without_memory, reading_over_an_object_in_use_reports_12) {
    for (const auto& [name, record] : catalogue().records) {
        const named_type type(name);
        const auto handle = open();
        void* source = type.create(*handle, domain);
        fill(*handle, name, source, 8);
        std::vector<std::byte> wire = workspace_for(*handle, name, source);
        u32 error = 0;
        const u32 size = type.marshal(*handle, domain, wire.data(), source, static_cast<i32>(wire.size()), &error);
        ASSERT_EQ(error, 0u) << name;
        const u64 blocks = handle->live_blocks();
        for (const u32 existing : {0u, 1u}) {
            for (u64 nth = 1;; nth = following(nth)) {
                void* object = type.create(*handle, domain);
                // Over an object of other contents; without `existing` the object is a new one.
                if (existing != 0) fill(*handle, name, object, 9);
                handle->fail_allocation(nth);
                error = 0;
                type.unmarshal(*handle, domain, wire.data(), object, static_cast<i32>(size), existing, &error);
                const bool failed = handle->allocation_failed();
                handle->fail_allocation(0);
                EXPECT_EQ(error, failed ? u32{LOOM_ENOMEM} : 0u) << name << " allocation " << nth;
                if (failed) type.len(*handle, domain, object);
                type.destroy(*handle, domain, object);
                ASSERT_EQ(handle->live_blocks(), blocks)
                    << name << " allocation " << nth << " existing " << existing;
                if (!failed) break;
            }
        }
        type.destroy(*handle, domain, source);
        ASSERT_EQ(handle->live_blocks(), 0u);
    }
}

TEST_P(without_memory, moving_reports_12_and_both_objects_can_be_ended) {
    for (const auto& [name, record] : catalogue().records) {
        const named_type type(name);
        const auto handle = open();
        for (u64 nth = 1;; nth = following(nth)) {
            void* from = type.create(*handle, domain);
            void* to = type.create(*handle, domain);
            fill(*handle, name, from, 10);
            fill(*handle, name, to, 11);
            u32 error = 0;
            handle->fail_allocation(nth);
            operate(name, "_set", handle->get(), domain, to, from, &error);
            const bool failed = handle->allocation_failed();
            handle->fail_allocation(0);
            EXPECT_EQ(error, failed ? u32{LOOM_ENOMEM} : 0u) << name << " allocation " << nth;
            type.destroy(*handle, domain, from);
            type.destroy(*handle, domain, to);
            ASSERT_EQ(handle->live_blocks(), 0u) << name << " allocation " << nth;
            if (!failed) break;
        }
    }
}

constexpr setting settings[] = {{"untracked", LOOM_TRACKING_NONE, false},
                                {"untracked_unfollowed", LOOM_TRACKING_NONE, true},
                                {"tracked", LOOM_TRACKING_ON, false},
                                {"tracked_unfollowed", LOOM_TRACKING_ON, true}};
INSTANTIATE_TEST_SUITE_P(tracking, without_memory, ::testing::ValuesIn(settings),
                         [](const auto& info) { return info.param.name; });

TEST(memory_that_ends, type_information_that_finds_no_room_stops_the_creation) {
    handle_options options{};
    options.db_kind = LOOM_DB_PRIVATE_MANIFESTED;
    u64 last = 0;
    for (u64 nth = 1;; nth = nth < 6 ? nth + 1 : nth + 37) {
        test_handle handle(options);
        handle.fail_allocation(nth);
        string_key* made = string_key_create(handle, domain);
        const bool failed = handle.allocation_failed();
        handle.fail_allocation(0);
        // Descriptions are made in one go; what comes behind the object's own may be missing still.
        EXPECT_TRUE(made != nullptr || failed) << nth;
        if (nth == 1) {
            EXPECT_EQ(made, nullptr);
        }
        test_handle chain(options);
        chain.fail_allocation(nth);
        EXPECT_NE(string_key_create_cr(chain), nullptr) << "a chain needs no test: " << nth;
        // The same handle makes it good as soon as there is memory.
        string_key* second = string_key_create(handle, domain);
        ASSERT_NE(second, nullptr) << nth;
        EXPECT_EQ(second->loom_tinfo->manifested_kind, u32{LOOM_DB_PRIVATE_MANIFESTED});
        string_key_destroy(handle, domain, second);
        string_key_destroy(handle, domain, made);
        last = nth;
        if (!failed) break;
    }
    EXPECT_GT(last, 223u) << "one allocation for each of the bundle's descriptions";
}

TEST(memory_that_ends, growth_changes_nothing_and_a_replaced_array_is_empty) {
    for (const u32 tracking : {LOOM_TRACKING_NONE, LOOM_TRACKING_ON}) {
        handle_options options{};
        options.tracking = tracking;
        test_handle handle(options);
        auto* rec = rec_child_comp_key_parent_comp_key_create(handle, domain);
        u32 error = 0;
        const u32 values[] = {1, 2, 3};
        rec_child_comp_key_parent_comp_key_uint32_arr_attr_set_mem(handle, domain, rec, values, 3, &error);
        ASSERT_EQ(error, 0u);
        const u64 blocks = handle.live_blocks();
        for (u64 nth = 1;; ++nth) {
            handle.fail_allocation(nth);
            rec_child_comp_key_parent_comp_key_uint32_arr_attr_set_value(handle, domain, rec, 3, 4, &error);
            if (!handle.allocation_failed()) break;
            EXPECT_EQ(error, u32{LOOM_ENOMEM});
            error = 0;
            EXPECT_EQ(handle.live_blocks(), blocks);
            ASSERT_EQ(rec->uint32_arr_len, 3u);
            EXPECT_EQ(rec_child_comp_key_parent_comp_key_uint32_arr_attr_get_value(handle, domain, rec, 2, &error),
                      3u);
        }
        EXPECT_EQ(error, 0u);
        EXPECT_EQ(rec->uint32_arr_len, 4u);
        // Replacing the whole array gives the old block away first.
        for (u64 nth = 1;; ++nth) {
            handle.fail_allocation(nth);
            rec_child_comp_key_parent_comp_key_uint32_arr_attr_set_mem(handle, domain, rec, values, 2, &error);
            if (!handle.allocation_failed()) break;
            EXPECT_EQ(error, u32{LOOM_ENOMEM});
            error = 0;
            EXPECT_EQ(rec->uint32_arr_len, 0u);
            EXPECT_EQ(rec->uint32_arr_attr, nullptr);
            EXPECT_EQ(rec_child_comp_key_parent_comp_key_uint32_arr_attr_get(handle, domain, rec, 0, &error),
                      nullptr);
            EXPECT_EQ(error, u32{LOOM_ENOENT});
            error = 0;
        }
        EXPECT_EQ(rec->uint32_arr_len, 2u);
        rec_child_comp_key_parent_comp_key_dynamic_char_arr_attr_set(handle, domain, rec, "text", 4, &error);
        handle.fail_allocation(1);
        rec_child_comp_key_parent_comp_key_dynamic_char_arr_attr_set(handle, domain, rec, "longer", 6, &error);
        EXPECT_EQ(error, u32{LOOM_ENOMEM});
        EXPECT_EQ(rec->dynamic_char_arr_len, 0u);
        EXPECT_EQ(rec->dynamic_char_arr_attr, nullptr);
        rec_child_comp_key_parent_comp_key_destroy(handle, domain, rec);
        EXPECT_EQ(handle.live_blocks(), 0u);
    }
}

} // namespace
} // namespace trellis::testing
