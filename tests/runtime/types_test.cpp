// Type information in databases, variants of peers, tracking offsets and statistics.
#include "tests/runtime/support.h"

#include <cstring>

namespace {
using namespace runtime_test;

fake_type* initialized_type = nullptr;
unsigned initializations = 0;

void initialize(loom_handle* handle, std::uint32_t domain, std::uint32_t* err) {
    ++initializations;
    manifest_type(handle, domain, *initialized_type, err);
}

class manifested : public on_database {
  protected:
    loom_type_info* get(fake_type& type) {
        initialized_type = &type;
        return loom_type_info_ptr_get(handle, 1, &type.info, initialize);
    }
    bool inside(const void* address) { return arbor_in_range(handle->alloc_ctx, address); }
};
INSTANTIATE_TEST_SUITE_P(kinds, manifested,
                         testing::Values(memory_kind::manifested_memory, memory_kind::shared_file,
                                         memory_kind::exclusive_file),
                         name_of_kind);

TEST_P(manifested, records_hold_no_pointer_into_the_process) {
    fake_type type("some_type", "type", 3);
    type.entries[1].objects_created = 99; // a static counter is not part of the database
    initializations = 0;
    loom_type_info* info = get(type);
    ASSERT_TRUE(info);
    EXPECT_EQ(initializations, 1u);
    EXPECT_TRUE(inside(info) && inside(info->variant_table) && inside(info->variant_table->entries));
    EXPECT_EQ(info->variant_table->n_variants, 3);
    for (std::uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(info->variant_table->entries[i].used_length, type.entries[i].used_length);
        EXPECT_EQ(info->variant_table->entries[i].objects_created, 0u);
    }
    EXPECT_EQ(get(type), info);
    EXPECT_EQ(initializations, 1u);
    EXPECT_EQ(loom_type_info_map_count(handle), 1u);
}

TEST_P(manifested, a_second_run_of_the_initialiser_allocates_nothing) {
    fake_type type("some_type", "type", 2);
    get(type);
    const loom_arena_usage before = usage();
    initialize(handle, 1, &err);
    EXPECT_EQ(usage().allocations, before.allocations);
    EXPECT_EQ(usage().blocks, before.blocks);
}

TEST_P(manifested, newer_code_adds_its_variants_and_older_code_takes_none_away) {
    fake_type old_code("growing", "type", 2), new_code("growing", "type", 4);
    new_code.entries[0].alloc_slop = 24;
    loom_type_info* info = get(old_code);
    loomlib_type_stats_create_object(handle, 1, info, &info->variant_table->entries[1].objects_created, &err);
    initialized_type = &new_code;
    initialize(handle, 1, &err);
    EXPECT_EQ(info->variant_table->n_variants, 4);
    EXPECT_EQ(info->variant_table->entries[3].used_length, new_code.entries[3].used_length);
    EXPECT_EQ(info->variant_table->entries[0].alloc_slop, 24u);
    EXPECT_EQ(info->variant_table->entries[1].objects_created, 1u);
    initialized_type = &old_code;
    initialize(handle, 1, &err);
    EXPECT_EQ(info->variant_table->n_variants, 4);
}

TEST_P(manifested, out_of_memory_leaves_a_state_that_a_later_call_completes) {
    fake_type type("scarce", "type", 2);
    initialized_type = &type;
    loom_arena_fail_after(handle, 0);
    initialize(handle, 1, &err);
    EXPECT_EQ(err, std::uint32_t{LOOM_ENOMEM});
    loom_arena_fail_after(handle, UINT64_MAX);
    loom_type_info* info = get(type);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->variant_table->n_variants, 2);
}

TEST_P(manifested, a_record_of_an_aborted_section_is_made_again) {
    fake_type type("aborted");
    loom_write_begin(handle);
    get(type);
    loom_write_abort(handle);
    EXPECT_EQ(loom_type_info_map_count(handle), 0u);
    loom_type_info* info = get(type);
    ASSERT_TRUE(info);
    EXPECT_EQ(loom_type_info_map_count(handle), 1u);
    EXPECT_EQ(handle->tinfo_lookup(handle->tinfo_ctx, 1, type.info.luid_text), info);
}

TEST_P(manifested, many_types_are_told_apart) {
    std::vector<std::unique_ptr<fake_type>> types;
    std::vector<loom_type_info*> infos;
    for (int i = 0; i < 500; ++i) {
        types.push_back(std::make_unique<fake_type>(("type" + std::to_string(i)).c_str()));
        infos.push_back(get(*types.back()));
        ASSERT_TRUE(infos.back());
    }
    for (std::size_t i = 0; i < types.size(); ++i) {
        EXPECT_EQ(get(*types[i]), infos[i]);
        EXPECT_STREQ(infos[i]->name, types[i]->info.name);
    }
}

TEST(manifested_while_reading, type_information_stays_in_the_process) {
    scratch_directory directory;
    handle_ptr handle = open_mapped(directory.file("db"));
    fake_type type("late");
    initialized_type = &type;
    loom_read_begin(handle);
    loom_type_info* info = loom_type_info_ptr_get(handle, 1, &type.info, initialize);
    ASSERT_TRUE(info);
    EXPECT_FALSE(arbor_in_range(handle->alloc_ctx, info));
    EXPECT_EQ(loom_type_info_ptr_get(handle, 1, &type.info, initialize), info);
    loom_read_end(handle);
    loom_type_info* stored = loom_type_info_ptr_get(handle, 1, &type.info, initialize);
    EXPECT_TRUE(arbor_in_range(handle->alloc_ctx, stored));
}

TEST(type_information, of_a_private_database_is_the_static_one) {
    handle_ptr handle = open_private();
    fake_type type("plain");
    EXPECT_EQ(loom_type_info_ptr_get(handle, 1, &type.info, initialize), &type.info);
}

// ----------------------------------------------------------------------------------------------------- peers

struct peers : testing::Test {
    handle_ptr handle = open_private();
    fake_type type{"rec_type", "type", 4};
    fake_type other{"other_type", "type", 2};
    std::uint32_t err = 0;
    int variant(const fake_type& of) {
        return loom_domain_lookup_variant(handle, &handle->domain_state, &of.info, &err);
    }
    void set(loom_peer* peer) {
        loom_set_peer(handle, peer);
        loom_peer_release(peer);
    }
};

TEST_F(peers, none_is_this_build) {
    EXPECT_EQ(variant(type), 3);
    EXPECT_TRUE(loom_domain_lookup_table_ok(handle, &handle->domain_state, &type.info, &err));
}

TEST_F(peers, speak_what_their_manifest_says) {
    loom_peer* peer = loom_peer_create("remote");
    const std::string line =
        std::string(type.info.luid_text) + ":0123456789abcdef0123456789abcdeftype002:00104N\n";
    ASSERT_EQ(line.size(), 80u);
    const std::string text = "# some.minime\n" + line;
    EXPECT_EQ(loom_peer_add_manifest(peer, text.c_str(), text.size() + 1), 0u) << loom_error_text();
    set(peer);
    EXPECT_STREQ(handle->domain_text, "remote");
    EXPECT_EQ(variant(type), 2);
    EXPECT_EQ(variant(type), 2); // from the cache
    EXPECT_EQ(variant(other), -1);
    EXPECT_FALSE(loom_domain_lookup_message_ok(handle, &handle->domain_state, &other.info, &err));
    set(nullptr);
    EXPECT_EQ(variant(type), 3);
}

TEST_F(peers, tell_the_line_of_a_bad_manifest_and_take_nothing_from_it) {
    loom_peer* peer = loom_peer_create("remote");
    const std::string good =
        std::string(type.info.luid_text) + ":0123456789abcdef0123456789abcdeftype002:00104N\n";
    const auto changed = [&](std::size_t place, const char* characters) {
        std::string text = good;
        std::memcpy(text.data() + place, characters, std::strlen(characters));
        return text;
    };
    for (const std::string& bad : {std::string("short\n"), good.substr(1) + "\n", changed(69, "xyz"),
                                   changed(69, "200"), changed(0, "g")}) {
        const std::string text = good + bad;
        EXPECT_EQ(loom_peer_add_manifest(peer, text.c_str(), text.size()), std::uint32_t{LOOM_EINVAL}) << bad;
        EXPECT_NE(std::string(loom_error_text()).find("line 2"), std::string::npos);
    }
    set(peer);
    EXPECT_EQ(variant(type), -1);
}

TEST_F(peers, are_limited_by_name_and_by_luid) {
    loom_peer* peer = loom_peer_create_same_build("older");
    loom_peer_limit(peer, "rec_type", 1);
    loom_peer_set_variant(peer, other.info.luid_text, -1);
    EXPECT_EQ(loom_peer_set_variant(peer, "no luid", 1), std::uint32_t{LOOM_EINVAL});
    set(peer);
    EXPECT_EQ(variant(type), 1);
    EXPECT_EQ(variant(other), -1);
    fake_type third("third", "type", 5);
    EXPECT_EQ(variant(third), 4);
}

TEST_F(peers, raise_instances_within_all_limits_and_never_lower_them) {
    fake_object* object = new_object(handle, &type.info);
    object->header.loom_layout_variant = 2;
    std::vector<const void*> hooked;
    static std::vector<const void*>* hooks = &hooked;
    hooks = &hooked;
    handle->write_hook = [](loom_handle*, const void* address, size_t length, std::uint32_t, const void*) {
        EXPECT_EQ(length, 1u);
        hooks->push_back(address);
    };
    const auto adjust = [&](int newest) {
        loomlib_adjust_variant(handle, 1, object, &type.info, newest, &err);
        return int{object->header.loom_variant};
    };
    loom_peer* peer = loom_peer_create_same_build("older");
    loom_peer_limit(peer, "rec_type", 1);
    loom_peer* newer = loom_peer_create_same_build("newer");
    set(peer);
    EXPECT_EQ(adjust(3), 1); // the peer
    EXPECT_EQ(hooked, std::vector<const void*>{&object->header.loom_variant});
    EXPECT_EQ(adjust(3), 1);
    EXPECT_EQ(hooked.size(), 1u);
    set(newer);
    EXPECT_EQ(adjust(3), 2); // the layout
    object->header.loom_variant = -1;
    EXPECT_EQ(adjust(1), 1); // the caller's code
    object->header.loom_variant = 2;
    EXPECT_EQ(adjust(0), 2);
    err = 5;
    object->header.loom_variant = 0;
    EXPECT_EQ(adjust(3), 0);
    err = 0;
    loomlib_adjust_variant(handle, 1, nullptr, nullptr, 3, &err);
    EXPECT_EQ(err, 0u);
    handle->free(handle->alloc_ctx, 1, object);
}

// ------------------------------------------------------------------------------- headers, tracking, statistics

TEST(headers, tell_luid_variant_and_flags) {
    handle_ptr handle = open_private();
    fake_type type("headed");
    fake_object* object = new_object(handle, &type.info);
    object->header.loom_variant = -3;
    object->header.loom_flags = OBJ_NESTED;
    EXPECT_EQ(loom_get_instance_variant(object, 1, 0), -3);
    EXPECT_EQ(loom_get_instance_variant(nullptr, 1, 0), 0);
    EXPECT_EQ(loom_get_instance_obj_flag(object, 1, 0), OBJ_NESTED);
    EXPECT_NE(loomlib_validate_object_flags(object, 1, 1), 0u);
    object->header.loom_flags = OBJ_EMBEDDED;
    EXPECT_NE(loomlib_validate_object_flags(object, 0, 1), 0u);
    object->header.loom_flags = OBJ_STATE_TRACKED | OBJ_OID_MAPPED;
    EXPECT_EQ(loomlib_validate_object_flags(object, 0, 1), 0u);
    std::uint8_t luid[16];
    std::uint32_t err = 0;
    loom_get_luid(handle, 1, object, luid, &err);
    EXPECT_EQ(std::memcmp(luid, type.info.luid, 16), 0);
    loom_get_luid(handle, 1, nullptr, luid, &err);
    EXPECT_EQ(err, std::uint32_t{LOOM_EINVAL});
    EXPECT_EQ(handle->last_error, std::uint32_t{LOOM_EINVAL});
    handle->free(handle->alloc_ctx, 1, object);
}

class tracking : public on_database {};
INSTANTIATE_TEST_SUITE_P(kinds, tracking,
                         testing::Values(memory_kind::private_memory, memory_kind::shared_file,
                                         memory_kind::exclusive_file),
                         name_of_kind);

TEST_P(tracking, offsets_are_kept_per_object_wherever_it_lies) {
    fake_type type("tracked");
    std::vector<fake_object*> objects;
    for (std::uint32_t i = 0; i < 300; ++i) {
        objects.push_back(new_object(handle, &type.info));
        loomlib_update_sttr_offset(handle, 1, objects.back(), i * 3);
        EXPECT_EQ(objects.back()->header.loom_flags, OBJ_STTR_OFFSET);
    }
    fake_object outside{};
    loomlib_update_sttr_offset(handle, 1, &outside, static_cast<std::uint32_t>(-40));
    loomlib_update_sttr_offset(handle, 1, objects[7], 1000);
    loom_hd_mapping_destroy(handle, 1, objects[9], &err);
    loom_hd_mapping_destroy(handle, 1, objects[9], &err);
    EXPECT_EQ(err, 0u);
    for (std::uint32_t i = 0; i < 300; ++i)
        EXPECT_EQ(loomlib_get_sttr_offset(handle, 1, objects[i]), i == 7 ? 1000u : i == 9 ? 0u : i * 3);
    EXPECT_EQ(loomlib_get_sttr_offset(handle, 1, &outside), static_cast<std::uint32_t>(-40));
    EXPECT_EQ(loom_tracking_map_count(handle), GetParam() == memory_kind::private_memory ? 300u : 299u);
    for (fake_object* each : objects) {
        loom_hd_mapping_destroy(handle, 1, each, &err);
        handle->free(handle->alloc_ctx, 1, each);
    }
    expect_sound(handle);
}

TEST(statistics, are_raised_behind_the_counter_hook) {
    handle_ptr handle = open_private();
    fake_type type("counted");
    static std::uint64_t value_at_hook = 0;
    handle->counter_hook = [](void*, const void* address, std::uint32_t one, std::uint32_t) {
        value_at_hook = *static_cast<const std::uint64_t*>(address) * 10 + one;
    };
    std::uint32_t err = 0;
    loomlib_type_stats_create_object(handle, 1, &type.info, &type.entries[0].objects_created, &err);
    loomlib_type_stats_create_object(handle, 1, &type.info, &type.entries[0].objects_created, &err);
    EXPECT_EQ(value_at_hook, 11u);
    loomlib_type_stats_destroy_object(handle, 1, &type.info, &type.entries[0].objects_created, &err);
    EXPECT_EQ(value_at_hook, 1u);
    EXPECT_EQ(type.entries[0].objects_created, 2u);
    EXPECT_EQ(type.entries[0].objects_destroyed, 1u);
}
} // namespace
