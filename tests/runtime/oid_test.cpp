// Object references: ids, counted references, ends that are put off, the wire form.
#include "tests/runtime/support.h"

#include <cstring>
#include <set>

extern "C" unsigned put_off_objects_destroyed;

namespace {
using namespace runtime_test;

class references : public in_write_section {
  protected:
    fake_object* object(fake_type& of) { return new_object(handle, &of.info); }
    loom_oid oid_of(void* target, std::uint32_t counted) {
        loom_oid oid;
        loom_handle_to_oid(&oid, handle, 1, target, 1, counted, &err);
        return oid;
    }
    loom_oid_state state_of(const void* target) {
        loom_oid_state state{};
        loom_oid_mapping_state(handle, target, &state);
        return state;
    }

    fake_type type{"referenced"};
    fake_type ending{"put_off_type"};
};
INSTANTIATE_TEST_SUITE_P(kinds, references, testing::Values(memory_kind::private_memory, memory_kind::shared_file),
                         name_of_kind);

TEST_P(references, are_unique_and_never_zero) {
    std::set<std::string> ids;
    for (std::uint64_t i = 0; i < 400; ++i) {
        fake_object* each = object(type);
        // Some references are asked for; the runtime's own choice goes round them.
        const std::uint64_t wanted = i % 5 == 0 ? i + 3 : 0;
        const std::uint64_t given = loom_oid_mapping_create(handle, 1, each, 1, 0, wanted, &err);
        if (wanted && given == 0) {
            EXPECT_EQ(std::exchange(err, 0u), std::uint32_t{LOOM_EEXIST});
            loom_oid_mapping_create(handle, 1, each, 1, 0, 0, &err);
        } else if (wanted) {
            EXPECT_EQ(given, wanted);
        }
        ASSERT_EQ(err, 0u);
        EXPECT_TRUE(each->header.loom_flags & OBJ_OID_MAPPED);
        const loom_oid oid = oid_of(each, 0);
        EXPECT_FALSE(loom_oid_id_is_zero(oid.id));
        EXPECT_TRUE(ids.insert(std::string(reinterpret_cast<const char*>(oid.id), 16)).second);
        std::uint8_t identity[16];
        loom_database_identity(handle, identity);
        EXPECT_EQ(std::memcmp(oid.source, identity, 16), 0);
        EXPECT_EQ(loom_oid_to_handle(handle, 1, &oid, &err), each);
    }
    EXPECT_EQ(loom_oid_mapping_count(handle), 400u);
}

TEST_P(references, one_object_has_one_mapping) {
    fake_object* each = object(type);
    EXPECT_NE(loom_oid_mapping_create(handle, 1, each, 1, 1, 0, &err), 0u);
    EXPECT_EQ(loom_oid_mapping_create(handle, 1, each, 1, 0, 0, &err), 0u);
    EXPECT_EQ(std::exchange(err, 0u), std::uint32_t{LOOM_EEXIST});
    EXPECT_EQ(state_of(each).dynamic, 1u);
    EXPECT_EQ(loom_oid_mapping_create(handle, 1, nullptr, 1, 0, 0, &err), 0u);
    EXPECT_EQ(err, std::uint32_t{LOOM_EINVAL});
}

TEST_P(references, are_counted_only_when_asked_for) {
    fake_object* each = object(type);
    const loom_oid plain = oid_of(each, 0);
    EXPECT_EQ(state_of(each).count, 0u);
    loom_oid counted = oid_of(each, 1);
    EXPECT_EQ(state_of(each).count, 1u);
    EXPECT_GE(counted.object, 256u);
    loom_oid_mapping* mapping = loomlib_oid_id_mapping_get(handle, 1, &counted, &err);
    ASSERT_TRUE(mapping);
    EXPECT_FALSE(loomlib_oid_id_mapping_get(handle, 1, &plain, &err));
    loomlib_update_oid_ref_count(handle, 1, mapping, 1, &err);
    loomlib_lookup_and_update_oid_ref_count(handle, 1, each, 1, &err);
    EXPECT_EQ(state_of(each).count, 3u);
    loomlib_lookup_and_update_oid_ref_count(handle, 1, each, 0, &err);
    loomlib_update_oid_ref_count(handle, 1, mapping, 0, &err);
    loom_oid value = counted;
    loomlib_oid_release_internal(handle, 1, &value, &err);
    EXPECT_EQ(std::memcmp(&value, &counted, sizeof value), 0);
    EXPECT_EQ(state_of(each).count, 0u);
    EXPECT_EQ(err, 0u);
    loomlib_update_oid_ref_count(handle, 1, mapping, 0, &err);
    EXPECT_EQ(std::exchange(err, 0u), std::uint32_t{LOOM_EINVAL});
    loom_oid copy = plain;
    loomlib_oid_release_internal(handle, 1, &copy, &err);
    EXPECT_EQ(err, 0u);
}

TEST_P(references, a_copy_over_the_wire_holds_nothing) {
    fake_object* each = object(type);
    const loom_oid counted = oid_of(each, 1);
    std::uint8_t wire[40];
    loom_oid copy{};
    EXPECT_EQ(loomlib_oid_len(handle, 1, &counted), 40u);
    EXPECT_EQ(loomlib_oid_marshal(handle, 1, wire, &counted, 40, &err), 40u);
    EXPECT_LT(wire[0], 128); // nobody else can know of the count
    EXPECT_EQ(loomlib_oid_unmarshal(handle, 1, wire, &copy, 40, 0, &err), 40u);
    EXPECT_LT(copy.object >> 63, 1u);
    EXPECT_EQ(loomlib_oid_compare(&copy, &counted), 0);
    EXPECT_EQ(loom_oid_to_handle(handle, 1, &copy, &err), each);
    loomlib_oid_release_internal(handle, 1, &copy, &err);
    EXPECT_EQ(state_of(each).count, 1u);
    EXPECT_EQ(loomlib_oid_marshal(handle, 1, wire, &counted, 39, &err), 0u);
    EXPECT_EQ(std::exchange(err, 0u), std::uint32_t{LOOM_EMSGSIZE});
    EXPECT_EQ(loomlib_oid_unmarshal(handle, 1, wire, &copy, 39, 0, &err), 0u);
    EXPECT_EQ(err, std::uint32_t{LOOM_EMSGSIZE});
}

TEST_P(references, raw_empty_and_foreign_ones_lead_nowhere) {
    loom_oid raw = oid_of(LOOM_OID_RAW_TARGET, 1);
    EXPECT_EQ(err, 0u);
    EXPECT_LT(raw.object, 256u);
    EXPECT_FALSE(loom_oid_to_handle(handle, 1, &raw, &err));
    fake_object* each = object(type);
    loom_oid foreign = oid_of(each, 1);
    foreign.source[3] ^= 1;
    EXPECT_FALSE(loom_oid_to_handle(handle, 1, &foreign, &err));
    loomlib_oid_release_internal(handle, 1, &foreign, &err);
    loom_oid empty{};
    EXPECT_TRUE(loom_oid_id_is_zero(empty.id));
    EXPECT_FALSE(loom_oid_to_handle(handle, 1, &empty, &err));
    loomlib_oid_release_internal(handle, 1, &empty, &err);
    loomlib_lookup_and_update_oid_ref_count(handle, 1, nullptr, 0, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(state_of(each).count, 1u);
    loomlib_lookup_and_update_oid_ref_count(handle, 1, &empty, 0, &err);
    EXPECT_EQ(err, std::uint32_t{LOOM_ENOENT});
}

TEST_P(references, the_last_one_ends_an_object_that_was_put_off) {
    put_off_objects_destroyed = 0;
    fake_object* each = object(ending);
    loom_oid first = oid_of(each, 1), second = oid_of(each, 1);
    EXPECT_EQ(loom_request_oid_mapping_destroy(handle, 1, each, &err), 0u);
    EXPECT_EQ(loom_request_oid_mapping_destroy(handle, 1, each, &err), 0u); // asking twice changes nothing
    EXPECT_EQ(state_of(each).destroy_pending, 1u);
    loomlib_oid_release_internal(handle, 1, &first, &err);
    EXPECT_EQ(put_off_objects_destroyed, 0u);
    loomlib_oid_release_internal(handle, 1, &second, &err);
    EXPECT_EQ(put_off_objects_destroyed, 1u);
    EXPECT_EQ(loom_oid_mapping_count(handle), 0u);
    EXPECT_FALSE(loom_oid_to_handle(handle, 1, &second, &err));
    EXPECT_EQ(err, 0u);
}

TEST_P(references, an_object_without_references_goes_at_once) {
    fake_object* each = object(type);
    loom_oid_mapping_create(handle, 1, each, 1, 0, 0, &err);
    EXPECT_NE(loom_request_oid_mapping_destroy(handle, 1, each, &err), 0u);
    EXPECT_NE(loom_request_oid_mapping_destroy(handle, 1, each, &err), 0u);
    EXPECT_EQ(loom_oid_mapping_count(handle), 0u);
}

/// The one that ends first gives up the last reference to another, which then ends with it.
TEST_P(references, an_unknown_type_waits_until_somebody_knows_how_to_end_it) {
    static unsigned ended = 0;
    ended = 0;
    static loom_oid held;
    fake_object* other = object(type);
    held = oid_of(other, 1);
    loom_request_oid_mapping_destroy(handle, 1, other, &err);
    fake_object* each = object(type);
    loom_oid only = oid_of(each, 1);
    loom_request_oid_mapping_destroy(handle, 1, each, &err);
    loomlib_oid_release_internal(handle, 1, &only, &err);
    EXPECT_EQ(state_of(each).destroy_pending, 1u);
    loom_gc_result result{};
    loom_gc_run(handle, &result);
    EXPECT_EQ(result.objects_waiting, 2u);
    EXPECT_EQ(loom_register_destroyer("short", nullptr), std::uint32_t{EINVAL});
    loom_register_destroyer(type.info.luid_text, [](loom_handle* own, std::uint32_t domain, void* object) {
        std::uint32_t error = 0;
        EXPECT_NE(loom_request_oid_mapping_destroy(own, domain, object, &error), 0u);
        own->free(own->alloc_ctx, domain, object);
        ++ended;
        loomlib_oid_release_internal(own, domain, &held, &error);
    });
    loom_gc_run(handle, &result);
    loom_register_destroyer(type.info.luid_text, nullptr);
    EXPECT_EQ(result.objects_destroyed, 2u);
    EXPECT_EQ(ended, 2u);
}

TEST_P(references, print_and_compare_as_texts_and_values) {
    fake_object* each = object(type);
    loom_oid oid = oid_of(each, 0);
    char id[33], source[33];
    EXPECT_EQ(loomlib_oid_id_print(handle, 1, oid.id, id, sizeof id, &err), 32);
    EXPECT_EQ(loomlib_oid_src_print(handle, 1, oid.source, source, sizeof source, &err), 32);
    EXPECT_EQ(std::string(id).substr(0, 16), "0000000000000001");
    EXPECT_EQ(std::string(id).substr(16), std::string(source).substr(0, 16));
    EXPECT_EQ(loomlib_oid_id_print(handle, 1, oid.id, id, 32, &err), 0);
    EXPECT_EQ(std::exchange(err, 0u), std::uint32_t{LOOM_EMSGSIZE});
    char line[200] = "";
    const std::string expected = "  child_oid@oid:" + std::string(id) + "/" + source + "\n";
    EXPECT_EQ(loom_oid_print(handle, 1, line, 2, "child_oid", &oid, sizeof line, &err),
              static_cast<int>(expected.size()));
    EXPECT_EQ(line, expected);
    loom_oid greater = oid;
    greater.id[0] = 1;
    greater.object = 0;
    EXPECT_LT(loomlib_oid_compare(&oid, &greater), 0);
    EXPECT_GT(loomlib_oid_compare(&greater, &oid), 0);
    EXPECT_LT(loomlib_oid_compare(nullptr, &oid), 0);
    EXPECT_EQ(loomlib_oid_compare(nullptr, nullptr), 0);
}
} // namespace
