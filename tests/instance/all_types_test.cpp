// Every type of the catalogue through its whole life: made, filled, read back, copied, compared, moved, ended. With
// tracking absent, off and on, in each kind of database, for each variant that a peer may speak; every store must
// have been announced, no block may be left, and as many objects must end as were made.
#include "tests/support/typed.h"

#include <gtest/gtest.h>

#include <map>
#include <ostream>

namespace trellis::testing {
namespace {

/// Objects of every type that were made and not ended, as the statistics count them.
std::map<std::string, i64> living_objects(loom_handle* handle) {
    std::map<std::string, i64> living;
    const auto count = [&](const char* name, const loom_type_info* info) {
        if (handle->db_kind != 0)
            info = static_cast<loom_type_info*>(handle->tinfo_lookup(handle->tinfo_ctx, test_handle::domain, info->luid_text));
        if (info == nullptr) return; // nobody has made one yet
        i64 sum = 0;
        for (int i = 0; i < info->variant_table->n_variants; ++i) {
            const loom_variant_entry& entry = info->variant_table->entries[i];
            sum += static_cast<i64>(entry.objects_created) - static_cast<i64>(entry.objects_destroyed);
        }
        if (sum != 0) living[name] = sum;
    };
    for (const record_driver& each : all_records()) count(each.name, each.type_info());
    for (const compact_driver& each : all_compact_types()) count(each.name, each.type_info());
    return living;
}

/// An object whose variant does not reach an attribute leaves a nested record there as it was made: it is set up with
/// its holder and not ended with it.
void add_all_nested(const record_driver& driver, std::map<std::string, i64>& left) {
    for (const auto& [name, since] : driver.nested) {
        ++left[name];
        add_all_nested(record_named(name), left);
    }
}
std::map<std::string, i64> left_behind(const record_driver& driver, int variant) {
    std::map<std::string, i64> left;
    for (const auto& [name, since] : driver.nested) {
        if (since <= variant) continue;
        ++left[name];
        add_all_nested(record_named(name), left);
    }
    return left;
}
std::map<std::string, i64> sum_of(std::map<std::string, i64> a, const std::map<std::string, i64>& b, i64 times) {
    for (const auto& [name, count] : b)
        if ((a[name] += count * times) == 0) a.erase(name);
    return a;
}

struct setting {
    u32 db_kind;
    u32 tracking;
};
std::string name_of(const setting& in) {
    static const char* const kinds[] = {"private", "mapped", "manifested"};
    static const char* const modes[] = {"untracked", "off", "tracked"};
    return std::string(kinds[in.db_kind]) + "_" + modes[in.tracking];
}
std::vector<setting> all_settings() {
    std::vector<setting> all;
    for (const u32 kind : {LOOM_DB_PRIVATE, LOOM_DB_MAPPED, LOOM_DB_PRIVATE_MANIFESTED})
        for (const u32 mode : {LOOM_TRACKING_NONE, LOOM_TRACKING_OFF, LOOM_TRACKING_ON}) all.push_back({kind, mode});
    return all;
}

std::string joined(const std::vector<std::string>& faults) {
    std::string text;
    for (size_t i = 0; i < faults.size() && i < 20; ++i) text += faults[i] + "\n";
    return text;
}

struct peer_limit {
    loom_peer* peer;
    peer_limit(test_handle& handle, const char* type, int variant) : peer(loom_peer_create_same_build("older")) {
        loom_peer_limit(peer, type, variant);
        loom_set_peer(handle, peer);
    }
    ~peer_limit() { loom_peer_release(peer); }
};

class every_record : public ::testing::TestWithParam<setting> {};

/// The first objects of all bring the type information of their bundles into the database, where it stays.
void bring_type_information(const record_driver& driver, test_handle& handle) {
    std::vector<std::string> faults;
    void* object = driver.create(handle, test_handle::domain);
    object_walk fill(handle, true, 1, faults);
    driver.walk(fill, object);
    driver.destroy(handle, test_handle::domain, object);
    record_named("ud_type").destroy(handle, test_handle::domain, record_named("ud_type").create(handle, test_handle::domain));
    handle.end_operation();
}

/// What every record must do, whatever its variant.
void live_through(const record_driver& driver, test_handle& handle, int variant, u64 seed) {
    SCOPED_TRACE(std::string(driver.name) + " variant " + std::to_string(variant));
    bring_type_information(driver, handle);
    const u64 blocks = handle.live_blocks();
    const auto living = living_objects(handle);
    std::vector<std::string> faults;

    void* object = driver.create(handle, test_handle::domain);
    ASSERT_NE(object, nullptr);
    handle.end_operation();
    ASSERT_EQ(static_cast<const loom_object*>(object)->loom_variant, variant);

    {
        object_walk fill(handle, true, seed, faults);
        driver.walk(fill, object);
        object_walk check(handle, false, seed, faults);
        driver.walk(check, object);
    }
    ASSERT_TRUE(faults.empty()) << joined(faults);

    // A copy is equal, hashes alike and holds the same values.
    std::vector<std::byte> workspace(size_t{driver.len(handle, test_handle::domain, object)} + 64);
    void* copy = nullptr;
    u32 error = 0;
    driver.clone(handle, test_handle::domain, object, &copy, workspace.data(), static_cast<i32>(workspace.size()), &error);
    ASSERT_EQ(error, 0u);
    ASSERT_NE(copy, nullptr);
    handle.end_operation();
    EXPECT_EQ(driver.compare(object, copy), 0);
    EXPECT_EQ(driver.hash(object, 4711), driver.hash(copy, 4711));
    {
        object_walk check(handle, false, seed, faults);
        driver.walk(check, copy);
    }
    EXPECT_TRUE(faults.empty()) << "in the copy: " << joined(faults);

    // A move leaves the source fit for its end, and the destination's earlier values go.
    faults.clear();
    driver.set(handle, test_handle::domain, object, copy, &error);
    EXPECT_EQ(error, 0u);
    handle.end_operation();
    {
        object_walk check(handle, false, seed, faults);
        driver.walk(check, object);
    }
    EXPECT_TRUE(faults.empty()) << "after a move: " << joined(faults);

    driver.destroy(handle, test_handle::domain, copy);
    handle.end_operation();
    driver.destroy(handle, test_handle::domain, object);
    EXPECT_EQ(handle.take_violations(), "");
    EXPECT_EQ(handle.live_blocks(), blocks);
    EXPECT_EQ(living_objects(handle), sum_of(living, left_behind(driver, variant), 2));
}

TEST_P(every_record, lives_its_whole_life_in_the_newest_variant) {
    u64 seed = 20240101;
    for (const record_driver& driver : all_records()) {
        handle_options options{};
        options.db_kind = GetParam().db_kind;
        options.tracking = GetParam().tracking;
        options.check_stores = true;
        test_handle handle(options);
        live_through(driver, handle, driver.newest, ++seed);
        if (HasFatalFailure()) return;
    }
}

TEST_P(every_record, lives_its_whole_life_under_older_peers) {
    u64 seed = 77;
    for (const record_driver& driver : all_records()) {
        for (int variant = -1; variant < driver.newest; ++variant) {
            handle_options options{};
            options.db_kind = GetParam().db_kind;
            options.tracking = GetParam().tracking;
            test_handle handle(options);
            peer_limit limit(handle, driver.name, variant);
            if (variant >= 0) {
                live_through(driver, handle, variant, ++seed);
            } else {
                // Nothing of it can be reached; what it was made with stays with it.
                bring_type_information(driver, handle);
                const u64 blocks = handle.live_blocks();
                std::vector<std::string> faults;
                void* object = driver.create(handle, test_handle::domain);
                object_walk fill(handle, true, seed, faults);
                driver.walk(fill, object);
                object_walk check(handle, false, seed, faults);
                driver.walk(check, object);
                EXPECT_TRUE(faults.empty()) << driver.name << ": " << joined(faults);
                driver.destroy(handle, test_handle::domain, object);
                EXPECT_EQ(handle.live_blocks(), blocks) << driver.name;
            }
            loom_set_peer(handle, nullptr);
            if (HasFatalFailure()) return;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(settings, every_record, ::testing::ValuesIn(all_settings()),
                         [](const auto& info) { return name_of(info.param); });

class every_compact_type : public ::testing::TestWithParam<setting> {};

TEST_P(every_compact_type, lives_its_whole_life) {
    for (const compact_driver& driver : all_compact_types()) {
        for (int variant = -1; variant <= driver.newest; ++variant) {
            SCOPED_TRACE(std::string(driver.name) + " variant " + std::to_string(variant));
            handle_options options{};
            options.db_kind = GetParam().db_kind;
            options.tracking = GetParam().tracking;
            options.check_stores = true;
            test_handle handle(options);
            peer_limit limit(handle, driver.name, variant);
            auto* const set_value = exported_address(std::string(driver.name) + "_set_value");
            auto* const get_value = exported_address(std::string(driver.name) + "_get_value");
            driver.destroy(handle, test_handle::domain, driver.create(handle, test_handle::domain));
            handle.end_operation();
            const u64 blocks = handle.live_blocks();
            const auto living = living_objects(handle);

            void* object = driver.create(handle, test_handle::domain);
            ASSERT_NE(object, nullptr);
            void* copy = driver.create(handle, test_handle::domain);
            EXPECT_EQ(handle.live_blocks(), blocks + 2);
            EXPECT_EQ(driver.compare(object, copy), 0);
            handle.end_operation();
            for (const auto& [value, since] : driver.members) {
                const bool refused = since > 0 && since > variant;
                u32 error = 0;
                if (driver.is_flag_set)
                    reinterpret_cast<void (*)(loom_handle*, u32, void*, u32, u32, u32*)>(set_value)(
                        handle, test_handle::domain, object, static_cast<u32>(value), 1, &error);
                else
                    reinterpret_cast<void (*)(loom_handle*, u32, void*, i32, u32*)>(set_value)(
                        handle, test_handle::domain, object, value, &error);
                handle.end_operation();
                EXPECT_EQ(error, refused ? u32{LOOM_EIDRM} : 0u) << value;
                if (error != 0) continue;
                i64 got;
                if (driver.is_flag_set)
                    got = reinterpret_cast<u32 (*)(loom_handle*, u32, const void*, u32, u32*)>(get_value)(
                        handle, test_handle::domain, object, static_cast<u32>(value), &error);
                else
                    got = reinterpret_cast<i32 (*)(loom_handle*, u32, const void*, u32*)>(get_value)(
                        handle, test_handle::domain, object, &error);
                EXPECT_EQ(got, driver.is_flag_set ? 1 : value);
                EXPECT_EQ(error, 0u);
                // A copy through the wire and a copy by set are the value itself.
                std::byte wire[64];
                const u32 size = driver.marshal(handle, test_handle::domain, wire, object, sizeof wire, &error);
                EXPECT_EQ(size, driver.len(handle, test_handle::domain, object));
                EXPECT_EQ(driver.unmarshal(handle, test_handle::domain, wire, copy, static_cast<i32>(size), 0, &error), size);
                handle.end_operation();
                EXPECT_EQ(driver.compare(object, copy), 0);
                EXPECT_EQ(driver.hash(object, 99), driver.hash(copy, 99));
                driver.set(handle, test_handle::domain, copy, object, &error);
                handle.end_operation();
                EXPECT_EQ(driver.compare(object, copy), 0);
                EXPECT_EQ(error, 0u);
            }
            driver.destroy(handle, test_handle::domain, copy);
            driver.destroy(handle, test_handle::domain, object);
            EXPECT_EQ(handle.take_violations(), "");
            EXPECT_EQ(handle.live_blocks(), blocks);
            EXPECT_EQ(living_objects(handle), living);
            loom_set_peer(handle, nullptr);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(settings, every_compact_type, ::testing::ValuesIn(all_settings()),
                         [](const auto& info) { return name_of(info.param); });

TEST(catalogue, has_all_types) {
    EXPECT_EQ(all_records().size(), 103u);
    EXPECT_EQ(all_compact_types().size(), 18u);
}

} // namespace
} // namespace trellis::testing
