// Every type of the catalogue through its whole life: made, filled, read back, copied, compared, moved, ended.
// With tracking absent, off and on, in each kind of database, for each variant that a peer may speak; every store
// must have been announced, no block may be left, and as many objects must end as were made.
#include "records.h"
#include "tests/support/forms.h"

#include <gtest/gtest.h>

#include <map>
#include <ostream>

namespace trellis::testing {
namespace {

/// Objects of every type that were made and not ended, as the statistics count them.
std::map<std::string, i64> living_objects(loom_handle* handle) {
    std::map<std::string, i64> living;
    const auto count = [&](const std::string& name, const loom_type_info* info) {
        if (handle->db_kind != 0)
            info = static_cast<loom_type_info*>(
                handle->tinfo_lookup(handle->tinfo_ctx, test_handle::domain, info->luid_text));
        if (info == nullptr) return; // nobody has made one yet
        i64 sum = 0;
        for (int i = 0; i < info->variant_table->n_variants; ++i) {
            const loom_variant_entry& entry = info->variant_table->entries[i];
            sum += static_cast<i64>(entry.objects_created) - static_cast<i64>(entry.objects_destroyed);
        }
        if (sum != 0) living[name] = sum;
    };
    const auto count_all = [&](const auto& types) {
        for (const auto& [name, type] : types)
            count(name, static_cast<const loom_type_info*>(find_function("_" + name + "_type_info_internal")));
    };
    count_all(catalogue().records);
    count_all(catalogue().enumerations);
    count_all(catalogue().flag_sets);
    return living;
}

/// An object whose variant does not reach an attribute leaves a nested record there as it was made: it is set up
/// with its holder and not ended with it. Adds the records in place that came after the variant.
void add_nested(const record_description& record, int variant, std::map<std::string, i64>& left) {
    for (const attribute_description& a : record.attributes) {
        const auto nested = catalogue().records.find(a.type);
        const bool in_place = a.shape == attribute_shape::object || a.shape == attribute_shape::fixed_array;
        if (!in_place || nested == catalogue().records.end() || a.since <= variant) continue;
        for (u32 i = 0; i < std::max(a.extent, 1u); ++i) {
            ++left[a.type];
            add_nested(nested->second, -1, left);
        }
    }
}
std::map<std::string, i64> left_behind(const record_description& record, int variant) {
    std::map<std::string, i64> left;
    add_nested(record, variant, left);
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
    bool unfollowed = false; // nobody looks at stores, which lets bundles take straight paths
};
std::string name_of(const setting& in) {
    static const char* const kinds[] = {"private", "mapped", "manifested"};
    static const char* const modes[] = {"untracked", "off", "tracked"};
    return std::string(kinds[in.db_kind]) + "_" + modes[in.tracking] + (in.unfollowed ? "_unfollowed" : "");
}
void PrintTo(const setting& in, std::ostream* out) { *out << name_of(in); }
std::vector<setting> all_settings() {
    std::vector<setting> all;
    for (const u32 kind : {LOOM_DB_PRIVATE, LOOM_DB_MAPPED, LOOM_DB_PRIVATE_MANIFESTED})
        for (const u32 mode : {LOOM_TRACKING_NONE, LOOM_TRACKING_OFF, LOOM_TRACKING_ON})
            all.push_back({kind, mode});
    for (const u32 mode : {LOOM_TRACKING_NONE, LOOM_TRACKING_OFF, LOOM_TRACKING_ON})
        all.push_back({LOOM_DB_PRIVATE, mode, true});
    return all;
}

handle_options options_of(const setting& in) {
    handle_options made{};
    made.db_kind = in.db_kind;
    made.tracking = in.tracking;
    made.unfollowed = in.unfollowed;
    made.check_stores = !in.unfollowed;
    return made;
}

class every_record : public ::testing::TestWithParam<setting> {
  protected:
    static handle_options options() { return options_of(GetParam()); }
};

/// Objects of one record, filled with what their seeds give, under one handle.
class life {
  public:
    life(const record_description& record, test_handle& handle)
        : record_(record), type_(record.name), handle_(handle), tables_(handle) {
        // The first objects of all bring the type information of their bundles into the database, where it stays.
        void* first = made();
        fill(first, 1);
        end(first);
        const named_type another("ud_type");
        another.destroy(handle, domain, another.create(handle, domain));
        handle.end_operation();
        handle.trust_blocks();
        blocks_ = handle.live_blocks();
        living_ = living_objects(handle);
        EXPECT_EQ(tables_.references(), 0u);
    }

    void* made() {
        void* object = type_.create(handle_, domain);
        EXPECT_NE(object, nullptr);
        handle_.end_operation();
        return object;
    }
    void fill(void* object, u64 seed) { walk(object, true, seed, "while it is filled"); }
    /// From now on objects are filled a second time: they keep arms that are no longer selected.
    void expect_stale_arms() { refilled_ = true; }
    void expect_filled(const void* object, u64 seed, const char* when) {
        walk(const_cast<void*>(object), false, seed, when);
    }
    void* clone_of(const void* object) {
        std::vector<std::byte> workspace(size_t{type_.len(handle_, domain, object)} + 1);
        void* copy = nullptr;
        u32 error = 0;
        operate(record_.name, "_clone", handle_.get(), domain, object, &copy, workspace.data(),
                static_cast<i32>(workspace.size()), &error);
        EXPECT_EQ(error, 0u);
        handle_.end_operation();
        through_wire_ = true;
        return copy;
    }
    std::vector<std::byte> wire_form_of(const void* object, u32 expected_error = 0) {
        std::vector<std::byte> wire(size_t{type_.len(handle_, domain, object)} + 64);
        u32 error = 0;
        wire.resize(type_.marshal(handle_, domain, wire.data(), object, static_cast<i32>(wire.size()), &error));
        EXPECT_EQ(error, expected_error);
        handle_.end_operation();
        return wire;
    }
    void read(void* object, const std::vector<std::byte>& wire, u32 existing) {
        u32 error = 0;
        EXPECT_EQ(
            type_.unmarshal(handle_, domain, wire.data(), object, static_cast<i32>(wire.size()), existing, &error),
            wire.size());
        EXPECT_EQ(error, 0u);
        handle_.end_operation();
        through_wire_ = true;
    }
    void raise(void* object) {
        u32 error = 0;
        operate(record_.name, "_adjust_variant", handle_.get(), domain, object, &error);
        EXPECT_EQ(error, 0u);
        handle_.end_operation();
    }
    void move(void* to, void* from, u32 expected_error = 0) {
        u32 error = 0;
        operate(record_.name, "_set", handle_.get(), domain, to, from, &error);
        EXPECT_EQ(error, expected_error);
        handle_.end_operation();
    }
    void end(void* object) {
        type_.destroy(handle_, domain, object);
        handle_.end_operation();
    }

    /// All is as it was before the first object, but for `left` of each object ended.
    void expect_nothing_left(const std::map<std::string, i64>& left = {}, i64 objects = 0) {
        EXPECT_EQ(handle_.take_violations(), "");
        EXPECT_EQ(handle_.live_blocks(), blocks_);
        EXPECT_EQ(living_objects(handle_), sum_of(living_, left, objects));
        EXPECT_EQ(tables_.references(), 0u);
    }

    void expect_no_blocks_left() { EXPECT_EQ(handle_.live_blocks(), blocks_) << handle_.describe_live_blocks(); }

    reference_tables& tables() { return tables_; }

  private:
    void walk(void* object, bool sets, u64 seed, const char* when) {
        accessor_walk all{
            .schema = catalogue(), .handle = handle_, .setting = sets, .seed = seed, .tables = &tables_};
        all.refilled = refilled_;
        all.through_wire = through_wire_;
        all.walk(record_.name, pattern_of(record_.name, seed), object);
        EXPECT_EQ(all.faults.substr(0, 2000), "") << when;
    }

    const record_description& record_;
    named_type type_;
    test_handle& handle_;
    reference_tables tables_;
    bool refilled_ = false;
    bool through_wire_ = false;
    u64 blocks_ = 0;
    std::map<std::string, i64> living_;
};

/// A new object, moved to a block that is as long as older code would have made it.
class older_layout {
  public:
    older_layout(const record_description& record, test_handle& handle, void* newest, int layout) {
        const auto size_of = [&](const void* object, u32 with_area, u32 area_only) {
            return operate<u32>(record.name, "_sizeof_internal", handle.get(), object, with_area, area_only);
        };
        const test_handle::unannounced by_hand(handle, "the test lays the object out itself");
        const bool tracked = is_on(handle);
        auto* header = static_cast<loom_object*>(newest);
        header->loom_layout_variant = static_cast<u8>(layout);
        // Without a control block the layout is not looked at: a block of the base size must do.
        size_ = size_of(newest, 1, 0);
        object_ = static_cast<u8*>(handle->alloc(handle->alloc_ctx, domain, size_ + sizeof guard));
        memset(object_, 0, size_);
        memcpy(object_, newest, tracked ? size_of(newest, 0, 0) : size_);
        memcpy(object_ + size_, guard, sizeof guard);
        u32 error = 0;
        header->loom_layout_variant = static_cast<u8>(record.newest);
        operate(record.name, "_offset_remove", handle.get(), domain, newest, &error);
        if (tracked)
            operate(record.name, "_offset_update", handle.get(), domain, object_, object_ + size_of(object_, 0, 0),
                    &error);
        handle->free(handle->alloc_ctx, domain, newest);
        EXPECT_EQ(error, 0u);
    }
    void* object() const { return object_; }
    bool kept_to_its_room() const { return memcmp(object_ + size_, guard, sizeof guard) == 0; }

  private:
    static bool is_on(test_handle& handle) {
        return handle->sttr_block != nullptr && handle->sttr_block->sttr_mode == LOOM_STTR_ON;
    }
    static constexpr u8 guard[] = {0xDE, 0xAD, 0xBE, 0xEF, 0xDE, 0xAD, 0xBE, 0xEF};
    u8* object_;
    u32 size_;
};

i8 variant_of(const void* object) { return static_cast<const loom_object*>(object)->loom_variant; }

/// What every record must do, whatever its variant.
void live_through(const record_description& record, test_handle& handle, int variant, u64 seed) {
    SCOPED_TRACE(record.name + " variant " + std::to_string(variant));
    life on(record, handle);
    void* object = on.made();
    ASSERT_EQ(variant_of(object), variant);
    on.fill(object, seed);
    on.expect_filled(object, seed, "filled");
    const u32 references = on.tables().references();

    // A copy is equal, hashes alike and holds the same values. References are not counted for it.
    void* copy = on.clone_of(object);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(named_type(record.name).compare(object, copy), 0);
    EXPECT_EQ(named_type(record.name).hash(object, 4711), named_type(record.name).hash(copy, 4711));
    on.expect_filled(copy, seed, "in the copy");
    EXPECT_EQ(on.tables().references(), references);

    // What was read over an object in use takes the place of its values, as in a new object.
    const std::vector<std::byte> wire = on.wire_form_of(object);
    void* reader = on.made();
    on.read(reader, wire, 0);
    on.expect_filled(reader, seed, "read by a new object");
    on.expect_stale_arms();
    on.fill(reader, seed + 1000);
    on.expect_filled(reader, seed + 1000, "filled again");
    on.read(reader, wire, 1);
    on.expect_filled(reader, seed, "read over an object in use");
    EXPECT_EQ(on.tables().references(), references);

    // A move leaves the source fit for its end, and the destination's earlier values go.
    on.move(object, copy);
    on.expect_filled(object, seed, "after a move");
    EXPECT_EQ(on.tables().references(), 0u) << "copies hold none, and those of the destination are given up";
    on.fill(reader, seed + 2000);
    on.move(object, reader);
    on.expect_filled(object, seed + 2000, "after a second move");
    EXPECT_EQ(on.tables().references(), references);
    on.end(reader);
    on.expect_filled(object, seed + 2000, "after the end of what was moved from");
    EXPECT_EQ(on.tables().references(), references) << "references move along";

    on.end(copy);
    on.end(object);
    on.expect_nothing_left(left_behind(record, variant), 3);
}

/// The type does not exist for the peer: nothing of an object can be reached, and what it was made with stays with
/// it.
void live_through_without_variant(const record_description& record, test_handle& handle) {
    SCOPED_TRACE(record.name + " without variant");
    life on(record, handle);
    void* object = on.made();
    ASSERT_EQ(variant_of(object), -1);
    on.fill(object, 1);
    on.expect_filled(object, 1, "out of reach");
    void* copy = on.clone_of(object);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(variant_of(copy), -1);
    const std::vector<std::byte> wire = on.wire_form_of(object);
    on.read(copy, wire, 0);
    on.read(copy, wire, 1);
    on.move(copy, object);
    on.expect_filled(copy, 1, "moved to");
    on.end(copy);
    on.end(object);
    on.expect_nothing_left(left_behind(record, -1), 2);
}

TEST_P(every_record, lives_its_whole_life_in_the_newest_variant) {
    u64 seed = 20240101;
    for (const auto& [name, record] : catalogue().records) {
        test_handle handle(options());
        live_through(record, handle, record.newest, ++seed);
        if (HasFailure()) return;
    }
}

TEST_P(every_record, lives_its_whole_life_under_older_peers) {
    u64 seed = 77;
    for (const auto& [name, record] : catalogue().records) {
        for (int variant = -1; variant < record.newest; ++variant) {
            test_handle handle(options());
            const older_peer limit(handle, record.name.c_str(), variant);
            if (variant < 0)
                live_through_without_variant(record, handle);
            else
                live_through(record, handle, variant, ++seed);
            if (HasFailure()) return;
        }
    }
}

/// Objects of different variants meet when the peer changes.
TEST_P(every_record, outlives_its_peer) {
    constexpr u64 newer_seed = 5, older_seed = 6;
    for (const auto& [name, record] : catalogue().records) {
        for (int variant = -1; variant < record.newest; ++variant) {
            SCOPED_TRACE(record.name + " variant " + std::to_string(variant));
            test_handle handle(options());
            life on(record, handle);
            void* newer = on.made();
            on.fill(newer, newer_seed);
            const std::vector<std::byte> wire = on.wire_form_of(newer);
            const older_peer limit(handle, record.name.c_str(), variant);
            void* older = on.made();
            void* reader = on.made();
            EXPECT_EQ(variant_of(older), variant);
            on.fill(older, older_seed);

            // The peer does not get what it does not know; copies within the process do.
            on.wire_form_of(newer, LOOM_EIDRM);
            void* copy = on.clone_of(newer);
            ASSERT_NE(copy, nullptr);
            EXPECT_EQ(variant_of(copy), record.newest);
            on.expect_filled(copy, newer_seed, "cloned");
            // A reader takes as much as it has room for, whatever its peer knows.
            on.read(reader, wire, 0);
            EXPECT_EQ(variant_of(reader), record.newest);
            on.expect_filled(reader, newer_seed, "read");
            // A newer object does not fit into an older one, but the other way round.
            on.move(older, newer, LOOM_EIDRM);
            EXPECT_EQ(variant_of(older), variant);
            on.expect_filled(older, older_seed, "not moved to");
            on.expect_filled(newer, newer_seed, "not moved");
            on.move(copy, older);
            EXPECT_EQ(variant_of(copy), variant);
            on.expect_filled(copy, older_seed, "of an older object");

            // An instance can be raised to what the new peer knows.
            loom_set_peer(handle, nullptr);
            on.expect_stale_arms();
            on.raise(older);
            EXPECT_EQ(variant_of(older), record.newest);
            on.fill(older, newer_seed);
            on.expect_filled(older, newer_seed, "raised");

            for (void* each : {newer, older, reader, copy})
                on.end(each);
            EXPECT_EQ(handle.take_violations(), "");
            on.expect_no_blocks_left();
            if (HasFailure()) return;
        }
    }
}

/// An object that was laid out by older code has less room, and its tracking area begins where that ends.
TEST_P(every_record, of_an_older_layout_is_used_within_its_room) {
    constexpr u64 seed = 8;
    for (const auto& [name, record] : catalogue().records) {
        for (int layout = 0; layout < record.newest; ++layout) {
            SCOPED_TRACE(record.name + " layout " + std::to_string(layout));
            test_handle handle(options());
            life on(record, handle);
            void* newest = on.made();
            on.fill(newest, seed);
            const std::vector<std::byte> newest_wire = on.wire_form_of(newest);
            {
                const older_peer limit(handle, record.name.c_str(), layout);
                void* object = on.made();
                older_layout made(record, handle, object, layout);
                loom_set_peer(handle, nullptr);

                // The peer knows more than there is room for.
                on.fill(made.object(), seed);
                EXPECT_EQ(variant_of(made.object()), layout);
                on.expect_filled(made.object(), seed, "filled");
                void* copy = on.clone_of(made.object());
                ASSERT_NE(copy, nullptr);
                EXPECT_EQ(named_type(record.name).compare(made.object(), copy), 0);
                EXPECT_EQ(named_type(record.name).hash(made.object(), 1), named_type(record.name).hash(copy, 1));
                on.expect_filled(copy, seed, "cloned");
                on.read(made.object(), newest_wire, 1);
                EXPECT_EQ(variant_of(made.object()), layout);
                on.expect_filled(made.object(), seed, "read");
                on.move(made.object(), copy, LOOM_EIDRM);
                on.move(copy, made.object(), LOOM_EIDRM);
                on.expect_filled(made.object(), seed, "not moved");
                EXPECT_TRUE(made.kept_to_its_room());
                on.end(copy);
                on.end(made.object());
            }
            on.end(newest);
            EXPECT_EQ(handle.take_violations(), "");
            on.expect_no_blocks_left();
            if (HasFailure()) return;
        }
    }
}

/// An object that is referred to is ended by its last reference.
TEST_P(every_record, ends_with_its_last_reference) {
    constexpr u64 seed = 9;
    for (const auto& [name, record] : catalogue().records) {
        SCOPED_TRACE(record.name);
        test_handle handle(options());
        life on(record, handle);
        void* object = on.made();
        on.fill(object, seed);
        u32 error = 0;
        loom_oid references[2];
        for (loom_oid& each : references)
            loom_handle_to_oid(&each, handle, domain, object, 0, 1, &error);
        ASSERT_EQ(error, 0u);
        handle.end_operation();
        EXPECT_TRUE(static_cast<const loom_object*>(object)->loom_flags & OBJ_OID_MAPPED);
        for (loom_oid& each : references) {
            on.end(object);
            on.expect_filled(object, seed, "referred to");
            loomlib_oid_release_internal(handle, domain, &each, &error);
            EXPECT_EQ(error, 0u);
        }
        handle.end_operation();
        EXPECT_EQ(loom_oid_to_handle(handle, domain, &references[0], &error), nullptr);
        on.expect_nothing_left();
        if (HasFailure()) return;
    }
}

/// A table that is referred to is freed when its last reference has gone, not before and not by itself.
TEST_P(every_record, keeps_the_tables_that_it_refers_to) {
    constexpr u64 seed = 10;
    u32 referring = 0;
    for (const auto& [name, record] : catalogue().records) {
        SCOPED_TRACE(record.name);
        test_handle handle(options());
        life on(record, handle);
        void* object = on.made();
        on.fill(object, seed);
        const u32 references = on.tables().references();
        EXPECT_EQ(on.tables().free_all(), references) << "tables that wait";
        on.expect_filled(object, seed, "its tables freed");
        EXPECT_EQ(loom_oid_mapping_count(handle), references);
        on.end(object);
        EXPECT_EQ(loom_oid_mapping_count(handle), references);
        EXPECT_EQ(on.tables().free_all(), 0u);
        EXPECT_EQ(loom_oid_mapping_count(handle), 0u);
        if (HasFailure()) return;
        referring += references != 0 ? 1 : 0;
    }
    EXPECT_EQ(referring, 13u);
}

INSTANTIATE_TEST_SUITE_P(settings, every_record, ::testing::ValuesIn(all_settings()),
                         [](const auto& info) { return name_of(info.param); });

class every_compact_type : public ::testing::TestWithParam<setting> {};

/// An enumeration or flag set: its members' user values, or bit numbers, each with its variant.
struct compact_type {
    std::string name;
    int newest;
    std::vector<std::pair<i32, int>> members;
    bool is_flag_set;
};
std::vector<compact_type> compact_types() {
    std::vector<compact_type> all;
    for (const auto& [name, type] : catalogue().enumerations) {
        all.push_back({name, type.newest, {}, false});
        for (const auto& each : type.members)
            all.back().members.emplace_back(each.value, each.since);
    }
    for (const auto& [name, type] : catalogue().flag_sets) {
        all.push_back({name, type.newest, {}, true});
        for (const auto& each : type.bits)
            all.back().members.emplace_back(static_cast<i32>(all.back().members.size()), each.since);
    }
    return all;
}

/// Sets a member or bit in one object and takes it to another by the wire and by `set`.
void set_and_copy(const compact_type& type, test_handle& handle, void* object, void* copy, i32 value,
                  u32 refused) {
    const named_type operations(type.name);
    u32 error = 0;
    loom_handle* const h = handle;
    if (type.is_flag_set)
        operate(type.name, "_set_value", h, domain, object, value, 1u, &error);
    else
        operate(type.name, "_set_value", h, domain, object, value, &error);
    handle.end_operation();
    EXPECT_EQ(error, refused) << value;
    if (error != 0) return;
    const i32 got = type.is_flag_set ? operate<i32>(type.name, "_get_value", h, domain, object, value, &error)
                                     : operate<i32>(type.name, "_get_value", h, domain, object, &error);
    EXPECT_EQ(got, type.is_flag_set ? 1 : value);
    std::byte wire[64];
    const u32 size = operations.marshal(h, domain, wire, object, sizeof wire, &error);
    EXPECT_EQ(size, operations.len(h, domain, object));
    EXPECT_EQ(operations.unmarshal(h, domain, wire, copy, static_cast<i32>(size), 0, &error), size);
    handle.end_operation();
    EXPECT_EQ(operations.compare(object, copy), 0);
    EXPECT_EQ(operations.hash(object, 99), operations.hash(copy, 99));
    operate(type.name, "_set", h, domain, copy, object, &error);
    handle.end_operation();
    EXPECT_EQ(operations.compare(object, copy), 0);
    EXPECT_EQ(error, 0u);
}

TEST_P(every_compact_type, lives_its_whole_life) {
    for (const compact_type& type : compact_types()) {
        const named_type operations(type.name);
        for (int variant = -1; variant <= type.newest; ++variant) {
            SCOPED_TRACE(type.name + " variant " + std::to_string(variant));
            test_handle handle(options_of(GetParam()));
            const older_peer limit(handle, type.name.c_str(), variant);
            operations.destroy(handle, domain, operations.create(handle, domain));
            handle.end_operation();
            const u64 blocks = handle.live_blocks();
            const auto living = living_objects(handle);
            void* object = operations.create(handle, domain);
            void* copy = operations.create(handle, domain);
            EXPECT_EQ(handle.live_blocks(), blocks + 2);
            EXPECT_EQ(operations.compare(object, copy), 0);
            handle.end_operation();
            for (const auto& [value, since] : type.members)
                set_and_copy(type, handle, object, copy, value,
                             since > 0 && since > variant ? u32{LOOM_EIDRM} : 0u);
            operations.destroy(handle, domain, copy);
            operations.destroy(handle, domain, object);
            EXPECT_EQ(handle.take_violations(), "");
            EXPECT_EQ(handle.live_blocks(), blocks);
            EXPECT_EQ(living_objects(handle), living);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(settings, every_compact_type, ::testing::ValuesIn(all_settings()),
                         [](const auto& info) { return name_of(info.param); });

TEST(types, are_all_there) {
    EXPECT_EQ(catalogue().records.size(), 103u);
    EXPECT_EQ(compact_types().size(), 18u);
}

} // namespace
} // namespace trellis::testing
