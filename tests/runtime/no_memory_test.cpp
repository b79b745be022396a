// Operations of the runtime whose own structures take memory: each allocation fails in turn, of the database and
// of the process. What fails says so, leaves nothing behind, and does its work when it is asked again.
#include "tests/runtime/support.h"

#include <loom/messages.h>

#include <cstdlib>
#include <new>

namespace {
thread_local std::uint64_t process_allocations_left = UINT64_MAX;

/// In its scope the allocation behind `count` further ones fails, and all after it.
class scarce_memory {
  public:
    scarce_memory(loom_handle* handle, std::uint64_t count, bool of_process) : handle_(handle) {
        if (of_process)
            process_allocations_left = count;
        else
            loom_arena_fail_after(handle, count);
    }
    ~scarce_memory() {
        process_allocations_left = UINT64_MAX;
        loom_arena_fail_after(handle_, UINT64_MAX);
    }
    scarce_memory(const scarce_memory&) = delete;
    scarce_memory& operator=(const scarce_memory&) = delete;

  private:
    loom_handle* handle_;
};
} // namespace

void* operator new(std::size_t size) {
    void* block = process_allocations_left != 0 ? std::malloc(size) : nullptr;
    if (!block) throw std::bad_alloc();
    if (process_allocations_left != UINT64_MAX) --process_allocations_left;
    return block;
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }

namespace {
using namespace runtime_test;

/// What the operations work on, the same in each run.
struct objects {
    loom_table* table;
    fake_record* record;
    fake_object* object;
};
/// One operation: done or undone, its error number.
struct operation {
    const char* name;
    std::uint32_t (*run)(loom_handle* handle, objects& on);
    std::uint32_t (*undo)(loom_handle* handle, objects& on);
    bool of_process = false;
};

template <class Step>
std::uint32_t error_of(Step step) {
    std::uint32_t err = 0;
    step(&err);
    return err;
}
const std::uint8_t message_luid[16] = {7};

const operation operations[] = {
    {"mapping_an_object",
     [](loom_handle* h, objects& on) {
         return error_of([&](auto* err) { loom_oid_mapping_create(h, 1, on.object, 1, 0, 0, err); });
     },
     [](loom_handle* h, objects& on) {
         return error_of([&](auto* err) { loom_request_oid_mapping_destroy(h, 1, on.object, err); });
     }},
    {"referring_to_an_object",
     [](loom_handle* h, objects& on) {
         loom_oid oid;
         return error_of([&](auto* err) { loom_handle_to_oid(&oid, h, 1, on.object, 1, 1, err); });
     },
     [](loom_handle* h, objects& on) {
         return error_of([&](auto* err) {
             loomlib_lookup_and_update_oid_ref_count(h, 1, on.object, 0, err);
             loom_request_oid_mapping_destroy(h, 1, on.object, err);
         });
     }},
    {"opening_contents",
     [](loom_handle* h, objects&) { return error_of([&](auto* err) { loomdb_database_toc_open(h, 9, err); }); },
     nullptr},
    {"tracking",
     [](loom_handle* h, objects& on) {
         loom_clear_last_error(h);
         loomlib_update_sttr_offset(h, 1, on.object, 24);
         return h->last_error;
     },
     [](loom_handle* h, objects& on) {
         return error_of([&](auto* err) { loom_hd_mapping_destroy(h, 1, on.object, err); });
     }},
    {"replicating", [](loom_handle* h, objects& on) { return loom_table_set_replication(h, 1, on.table, 1, 1); },
     nullptr},
    {"locating",
     [](loom_handle* h, objects& on) { return loom_record_set_location(h, 1, &on.record->record, "a/b"); },
     [](loom_handle* h, objects& on) { return loom_record_set_location(h, 1, &on.record->record, nullptr); }},
    {"naming_a_root",
     [](loom_handle* h, objects& on) {
         return arbor_set_key(h->alloc_ctx, "a root", on.object) ? 0 : h->last_error;
     },
     nullptr},
    {"opening_a_message_bundle",
     [](loom_handle* h, objects&) {
         return loom_message_bundle_open(h, "a name that is too long to lie in its string");
     },
     [](loom_handle* h, objects&) { return loom_message_bundle_close(h); }, true},
    {"adding_a_message",
     [](loom_handle* h, objects&) {
         if (!h->bundle_active)
             if (const std::uint32_t error = loom_message_bundle_open(h, "")) return error;
         return error_of([&](auto* err) { bundle_message_validate_add(h, 1, message_luid, "message", err); });
     },
     [](loom_handle* h, objects&) { return loom_message_bundle_close(h); }, true},
};

class scarcity : public testing::TestWithParam<operation> {
  protected:
    scarcity() {
        load_fake_bundle();
        std::uint32_t err = 0;
        on.table = fake_table_open(handle, 1, "scarce", &err);
        on.record = fake_table_add(handle, 1, on.table, 1, &err);
        on.object = new_object(handle, &type.info);
    }
    fake_type type{"scarce"};
    handle_ptr handle = open_private();
    objects on{};
};

TEST_P(scarcity, is_told_and_leaves_nothing_half_made) {
    const operation& is = GetParam();
    const loom_arena_usage before = usage_of(handle);
    std::uint64_t failures = 0;
    for (std::uint32_t error = 1; error; ++failures) {
        {
            const scarce_memory scarce(handle, failures, is.of_process);
            error = is.run(handle, on);
        }
        if (!error) break;
        EXPECT_EQ(error, std::uint32_t{LOOM_ENOMEM});
        EXPECT_STRNE(loom_error_text(), "");
        EXPECT_EQ(loom_tracking_map_count(handle), 0u);
        EXPECT_EQ(loom_oid_mapping_count(handle), 1u); // the table's
        expect_sound(handle);
    }
    EXPECT_GT(failures, 0u);
    if (!is.undo) return;
    // The second time what the structure keeps for good is there.
    const std::uint64_t blocks = (is.undo(handle, on), usage_of(handle).blocks);
    EXPECT_EQ(is.run(handle, on), 0u);
    EXPECT_EQ(is.undo(handle, on), 0u);
    EXPECT_EQ(usage_of(handle).blocks, blocks);
    EXPECT_LE(blocks, before.blocks + 2); // two maps, at most, have their first places
}
INSTANTIATE_TEST_SUITE_P(of_memory, scarcity, testing::ValuesIn(operations),
                         [](const auto& info) { return std::string(info.param.name); });

/// A record is in its table when it is counted, so counting cannot fail.
TEST(tenants_without_memory, are_counted_by_walking) {
    load_fake_bundle();
    const handle_ptr handle = open_private();
    std::uint32_t err = 0;
    loom_table* table = fake_table_open(handle, 1, "scarce", &err);
    const auto counts = [&] {
        std::vector<std::uint32_t> all;
        for (std::uint16_t tenant = 3; tenant < 6; ++tenant)
            loomdb_get_tenant_counter(handle, 1, table, &all.emplace_back(), tenant, nullptr);
        return all;
    };
    std::vector<fake_record*> records;
    for (std::uint64_t n = 0; n < 24; ++n) {
        loom_set_tenant(static_cast<std::uint16_t>(3 + n % 3));
        auto* spare = static_cast<fake_record*>(handle->alloc(handle->alloc_ctx, 1, sizeof(fake_record)));
        handle->free(handle->alloc_ctx, 1, spare);
        const scarce_memory scarce(handle, n < 12 ? 1 + n / 3 : UINT64_MAX, false); // the record, and so many more
        records.push_back(fake_table_add(handle, 1, table, static_cast<std::uint32_t>(n), &err));
        ASSERT_EQ(err, 0u);
    }
    EXPECT_EQ(counts(), (std::vector<std::uint32_t>{8, 8, 8}));
    const auto drop =
        reinterpret_cast<void (*)(loom_handle*, std::uint32_t, loom_table*, loom_table_record*, std::uint32_t*)>(
            const_cast<void*>(fake_table_vft.slots[LOOM_VFT_DELETE]));
    for (std::size_t n = 0; n < 24; n += 2) {
        loom_set_tenant(static_cast<std::uint16_t>(3 + n % 3));
        drop(handle, 1, table, &records[n]->record, &err);
    }
    loom_set_tenant(0);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(counts(), (std::vector<std::uint32_t>{4, 4, 4}));
}
} // namespace
