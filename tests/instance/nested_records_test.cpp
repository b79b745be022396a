// References that records hold inside of other records: each is counted once, wherever its holder is copied,
// moved, grown or ended, and their holders say what other far records say. The catalogue has no such records.
#include "tests/support/test_handle.h"

#include <all_shapes/all_shapes.h>
#include <gtest/gtest.h>

namespace trellis::testing {
namespace {

constexpr u32 domain = test_handle::domain;

class nested_records : public ::testing::TestWithParam<u32> {
  protected:
    nested_records() : handle_(options_for(GetParam())) {
        table_ = everything_tbl_table_open(handle_, domain, "targets", 0, &error_);
        handle_.end_operation();
    }
    ~nested_records() override {
        EXPECT_EQ(references(), 0u) << "all holders are gone";
        handle_.end_operation();
        EXPECT_EQ(handle_.take_violations(), "");
        const test_handle::unannounced quiet(handle_, "tables are counted without a notice");
        everything_tbl_table_free(handle_, domain, table_, &error_);
        EXPECT_EQ(error_, 0u);
    }
    static handle_options options_for(u32 tracking) {
        handle_options options{};
        options.tracking = tracking;
        options.check_stores = true;
        return options;
    }

    u32 references() {
        loom_oid_state state{};
        return loom_oid_mapping_state(handle_, table_, &state) == 0 ? static_cast<u32>(state.count) : 0;
    }
    void refer(referrer* holder) {
        referrer_target_set_by_ref(handle_, domain, holder, table_, &error_);
        ASSERT_EQ(error_, 0u);
    }
    /// Adds an element that refers to the table.
    void append(referrers* holder) {
        referrer* element = referrer_create(handle_, domain);
        refer(element);
        referrers_row_set(handle_, domain, holder, holder->row_len, element, &error_);
        ASSERT_EQ(error_, 0u);
        referrer_destroy(handle_, domain, element);
    }
    /// Five references: one, two in a pair, two in a row.
    void fill(referrers* holder) {
        refer(&holder->first);
        for (referrer& each : holder->pair)
            refer(&each);
        append(holder);
        append(holder);
    }
    /// Links two elements at the end.
    void link(referrers* holder) {
        for (const u64 value : {1u, 2u}) {
            chained* element = chained_create(handle_, domain);
            chained_value_set(handle_, domain, element, &value, &error_);
            referrers_links_set_last(handle_, domain, holder, element, &error_);
            ASSERT_EQ(error_, 0u);
        }
    }
    std::vector<u64> linked(referrers* holder) {
        std::vector<u64> values;
        for (chained* each = referrers_links_get_first(handle_, domain, holder, &error_); each != nullptr;
             each = referrers_links_get_next(handle_, domain, holder, each, &error_))
            values.push_back(each->value);
        return values;
    }
    outer_referrers* filled() {
        outer_referrers* made = outer_referrers_create(handle_, domain);
        fill(&made->inside);
        outer_referrers_own_set_by_ref(handle_, domain, made, table_, &error_);
        return made;
    }
    bool all_resolve(outer_referrers* object) {
        referrers& inside = object->inside;
        bool good = outer_referrers_own_get_by_ref(handle_, domain, object, &error_) == table_;
        for (referrer* each : {&inside.first, &inside.pair[0], &inside.pair[1], inside.row, inside.row + 1})
            good = good && referrer_target_get_by_ref(handle_, domain, each, &error_) == table_;
        return good;
    }

    test_handle handle_;
    loom_table* table_ = nullptr;
    u32 error_ = 0;
};

TEST_P(nested_records, end_with_their_holder) {
    outer_referrers* object = filled();
    EXPECT_EQ(references(), 6u);
    EXPECT_TRUE(all_resolve(object));
    outer_referrers_destroy(handle_, domain, object);
}

TEST_P(nested_records, move_with_their_holder) {
    outer_referrers* from = filled();
    outer_referrers* to = filled();
    EXPECT_EQ(references(), 12u);
    outer_referrers_set(handle_, domain, to, from, &error_);
    EXPECT_EQ(error_, 0u);
    EXPECT_EQ(references(), 6u) << "those of the destination are given up";
    EXPECT_TRUE(all_resolve(to));
    outer_referrers_destroy(handle_, domain, from);
    EXPECT_EQ(references(), 6u) << "the source holds none";
    outer_referrers_destroy(handle_, domain, to);
}

TEST_P(nested_records, refer_to_tables_only_and_say_so) {
    referrer* holder = referrer_create(handle_, domain);
    refer(holder);
    everything_tbl_table_record* row = everything_tbl_create_record(handle_, domain, &error_);
    EXPECT_EQ(handle_.log_of([&] { referrer_target_set_by_ref(handle_, domain, holder, row, &error_); }),
              "error 22\n");
    EXPECT_STREQ(loom_error_text(),
                 "referrer.target refers to a table everything_tbl: the target is none (a record "
                 "of the table is none either)");
    error_ = 0;
    EXPECT_EQ(references(), 1u) << "the reference held stays";
    everything_tbl_destroy_record(handle_, domain, row, &error_);
    referrer_destroy(handle_, domain, holder);
}

/// The header comes along with what is moved into a holder, so a nested record may look like one that stands
/// alone.
TEST_P(nested_records, move_again_from_where_they_were_moved) {
    referrers* alone = referrers_create(handle_, domain);
    fill(alone);
    outer_referrers* middle = outer_referrers_create(handle_, domain);
    outer_referrers_inside_set(handle_, domain, middle, alone, &error_);
    outer_referrers_own_set_by_ref(handle_, domain, middle, table_, &error_);
    referrers_destroy(handle_, domain, alone);
    EXPECT_EQ(references(), 6u);
    outer_referrers* last = outer_referrers_create(handle_, domain);
    outer_referrers_set(handle_, domain, last, middle, &error_);
    EXPECT_EQ(error_, 0u);
    EXPECT_EQ(references(), 6u);
    outer_referrers_destroy(handle_, domain, middle);
    EXPECT_EQ(references(), 6u);
    EXPECT_TRUE(all_resolve(last));
    outer_referrers_destroy(handle_, domain, last);
}

/// An empty list's head points at itself, wherever the block that holds it was copied from.
TEST_P(nested_records, lists_move_along) {
    outer_referrers* none = outer_referrers_create(handle_, domain);
    outer_referrers* two = outer_referrers_create(handle_, domain);
    link(&two->inside);
    outer_referrers* to = outer_referrers_create(handle_, domain);
    for (outer_referrers* from : {none, two, none}) {
        const std::vector<u64> expected = linked(&from->inside);
        outer_referrers_set(handle_, domain, to, from, &error_);
        EXPECT_EQ(error_, 0u);
        EXPECT_EQ(linked(&to->inside), expected);
        EXPECT_EQ(linked(&from->inside), std::vector<u64>{});
    }
    for (outer_referrers* each : {none, two, to})
        outer_referrers_destroy(handle_, domain, each);
}

INSTANTIATE_TEST_SUITE_P(tracking, nested_records,
                         ::testing::Values(LOOM_TRACKING_NONE, LOOM_TRACKING_OFF, LOOM_TRACKING_ON),
                         [](const auto& info) {
                             return info.param == LOOM_TRACKING_NONE  ? "absent"
                                    : info.param == LOOM_TRACKING_OFF ? "off"
                                                                      : "on";
                         });

/// A record with references is far from its holder in the same unit: what stands behind it in the statement store
/// stays in its place.
TEST(nested_records_trace, tells_of_every_attribute) {
    add_trace_texts_of(reinterpret_cast<const void*>(&referrers_create));
    test_handle handle;
    referrers* object = referrers_create(handle, domain);
    handle.end_operation();
    loom_set_tracking(handle, LOOM_TRACKING_ON);

    const auto get = [&](auto* state_flag_get) {
        u32 error = 0;
        return handle.log_of([&] { state_flag_get(handle, domain, object, &error); });
    };
    const auto set = [&](auto* state_flag_set) {
        u32 error = 0;
        return handle.log_of([&] { state_flag_set(handle, domain, object, 1, &error); });
    };
    const std::string not_got = "error 22\nsays 3 The object is non state tracked\n";
    EXPECT_EQ(get(referrers_first_state_flag_get), not_got);
    EXPECT_EQ(get(referrers_behind_state_flag_get), not_got);
    const std::string not_set = "says 3 The object is not state tracked\nerror 22\n";
    EXPECT_EQ(set(referrers_first_state_flag_set), not_set);
    EXPECT_EQ(set(referrers_behind_state_flag_set), not_set);

    loom_set_tracking(handle, LOOM_TRACKING_NONE);
    referrers_destroy(handle, domain, object);
}

} // namespace
} // namespace trellis::testing
