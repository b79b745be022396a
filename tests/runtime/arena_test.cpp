// Arena memory: allocation, sections that are aborted, named roots, and the debug arena.
#include "tests/runtime/support.h"

#include <cstring>
#include <map>

namespace {
using namespace runtime_test;

class arena : public on_database {
  protected:
    void announce(const void* address, std::size_t size) { handle->write_hook(handle, address, size, 1, nullptr); }
};
INSTANTIATE_TEST_SUITE_P(kinds, arena,
                         testing::Values(memory_kind::private_memory, memory_kind::manifested_memory,
                                         memory_kind::shared_file, memory_kind::exclusive_file),
                         name_of_kind);

struct live_block {
    std::size_t size;
    unsigned char fill;
};
using live_blocks = std::map<unsigned char*, live_block>;

std::size_t random_size(random_source& random) {
    switch (random() % 10) {
    case 0: return random() % 100000;
    case 1:
    case 2: return random() % 4000;
    default: return random() % 300;
    }
}

void expect_contents(const live_blocks& blocks) {
    for (const auto& [block, each] : blocks)
        for (std::size_t i = 0; i < each.size; ++i)
            ASSERT_EQ(block[i], each.fill) << "byte " << i << " of " << each.size;
}

TEST_P(arena, blocks_never_overlap_and_come_back) {
    random_source random(11);
    live_blocks blocks;
    const loom_arena_usage before = usage();
    loom_write_begin(handle); // one section instead of one per allocation
    for (int round = 0; round < 8000; ++round) {
        if (blocks.empty() || random() % 100 < (round < 5000 ? 60u : 40u)) {
            const std::size_t size = random_size(random);
            auto* block = static_cast<unsigned char*>(alloc(size));
            ASSERT_NE(block, nullptr);
            ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0u);
            const auto fill = static_cast<unsigned char>(random());
            std::memset(block, fill, size);
            ASSERT_TRUE(blocks.emplace(block, live_block{size, fill}).second);
        } else {
            auto victim = std::next(blocks.begin(), static_cast<long>(random() % blocks.size()));
            for (std::size_t i = 0; i < victim->second.size; ++i)
                ASSERT_EQ(victim->first[i], victim->second.fill);
            free(victim->first);
            blocks.erase(victim);
        }
        if (round % 1000 == 0) expect_sound(handle);
    }
    expect_contents(blocks);
    loom_write_commit(handle);
    expect_contents(blocks);
    for (const auto& [block, each] : blocks)
        free(block);
    expect_sound(handle);
    EXPECT_EQ(usage().blocks, before.blocks);
    EXPECT_EQ(usage().bytes, before.bytes);
}

/// Allocates, frees and changes blocks at random inside a section and aborts it: everything must be as before,
/// though fresh memory was written without notices.
TEST_P(arena, an_aborted_section_leaves_no_trace) {
    random_source random(12);
    live_blocks kept;
    for (int round = 0; round < 30; ++round) {
        ASSERT_EQ(loom_write_begin(handle), 0u);
        live_blocks now = kept;
        for (int step = 0; step < 400; ++step) {
            const unsigned choice = random() % 100;
            if (now.empty() || choice < 45) {
                const std::size_t size = random_size(random);
                auto* block = static_cast<unsigned char*>(alloc(size));
                const auto fill = static_cast<unsigned char>(random());
                std::memset(block, fill, size);
                ASSERT_TRUE(now.emplace(block, live_block{size, fill}).second);
                continue;
            }
            auto each = std::next(now.begin(), static_cast<long>(random() % now.size()));
            if (choice < 75) {
                free(each->first);
                now.erase(each);
            } else {
                announce(each->first, each->second.size);
                each->second.fill = static_cast<unsigned char>(random());
                std::memset(each->first, each->second.fill, each->second.size);
            }
        }
        const bool commit = random() % 3 == 0;
        if (commit) {
            ASSERT_EQ(loom_write_commit(handle), 0u);
            kept = now;
        } else {
            ASSERT_EQ(loom_write_abort(handle), 0u);
        }
        expect_sound(handle);
        expect_contents(kept);
    }
    for (const auto& [block, each] : kept)
        free(block);
    expect_sound(handle);
}

TEST_P(arena, grows_over_many_megabytes) {
    std::vector<void*> blocks;
    loom_write_begin(handle);
    for (int i = 0; i < 60; ++i) {
        blocks.push_back(alloc(1u << 20));
        ASSERT_NE(blocks.back(), nullptr);
        std::memset(blocks.back(), i, 1u << 20);
    }
    loom_write_commit(handle);
    expect_sound(handle);
    for (void* each : blocks)
        free(each);
    // What came back is used again before the arena grows further.
    const std::uint64_t extent = usage().extent;
    void* large = alloc(50u << 20);
    EXPECT_NE(large, nullptr);
    EXPECT_EQ(usage().extent, extent);
    free(large);
    expect_sound(handle);
}

TEST_P(arena, a_request_beyond_the_reservation_is_refused) {
    EXPECT_EQ(alloc(~std::size_t{0}), nullptr);
    EXPECT_EQ(alloc(std::size_t{1} << 45), nullptr);
    expect_sound(handle);
}

TEST(small_arena, is_used_up_and_given_back_entirely) {
    loom_open_options options{};
    options.size = sizeof options;
    options.reserve = 2u << 20;
    handle_ptr handle(loom_open(&options));
    random_source random(8);
    std::uint64_t largest = 0;
    for (int round = 0; round < 5; ++round) {
        std::vector<void*> blocks;
        std::uint64_t total = 0;
        for (;;) {
            const std::size_t size = round < 4 ? random_size(random) : 1000000;
            void* block = handle->alloc(handle->alloc_ctx, 1, size);
            if (!block) break;
            blocks.push_back(block);
            total += size;
        }
        expect_sound(handle);
        largest = std::max(largest, total);
        for (void* each : blocks)
            handle->free(handle->alloc_ctx, 1, each);
        expect_sound(handle);
        // However it was cut up before, all of it comes together again.
        void* whole = handle->alloc(handle->alloc_ctx, 1, 1u << 20);
        ASSERT_TRUE(whole) << round;
        handle->free(handle->alloc_ctx, 1, whole);
    }
    EXPECT_GT(largest, 1u << 20);
}

TEST_P(arena, allocation_fails_on_demand) {
    loom_arena_fail_after(handle, 2);
    void* first = alloc(8);
    void* second = alloc(8);
    EXPECT_TRUE(first && second);
    EXPECT_EQ(alloc(8), nullptr);
    EXPECT_EQ(alloc(8), nullptr);
    loom_arena_fail_after(handle, UINT64_MAX);
    free(first);
    free(second);
    free(alloc(8));
}

TEST_P(arena, named_roots_are_found_and_replaced) {
    EXPECT_EQ(arbor_get_key(handle->alloc_ctx, "missing"), nullptr);
    std::vector<void*> blocks;
    for (int i = 0; i < 200; ++i) {
        blocks.push_back(alloc(16));
        ASSERT_EQ(arbor_set_key(handle->alloc_ctx, ("root " + std::to_string(i)).c_str(), blocks.back()), 1u);
    }
    for (std::size_t i = 0; i < blocks.size(); ++i)
        EXPECT_EQ(arbor_get_key(handle->alloc_ctx, ("root " + std::to_string(i)).c_str()), blocks[i]);
    EXPECT_EQ(arbor_set_key(handle->alloc_ctx, "root 3", blocks[7]), 1u);
    EXPECT_EQ(arbor_get_key(handle->alloc_ctx, "root 3"), blocks[7]);
    EXPECT_EQ(arbor_set_key(nullptr, "root", blocks[0]), 0u);
    expect_sound(handle);
}

TEST_P(arena, knows_its_range_and_the_roots_that_were_taken_back) {
    int outside = 0;
    EXPECT_FALSE(arbor_in_range(handle->alloc_ctx, &outside));
    EXPECT_FALSE(arbor_in_range(handle->alloc_ctx, nullptr));
    loom_write_begin(handle);
    void* root = alloc(32);
    ASSERT_EQ(arbor_set_key(handle->alloc_ctx, "cached by a bundle", root), 1u);
    EXPECT_TRUE(arbor_in_range(handle->alloc_ctx, root));
    loom_write_abort(handle);
    EXPECT_EQ(arbor_get_key(handle->alloc_ctx, "cached by a bundle"), nullptr);
    void* filler = alloc(4096); // the address is inside the arena again, but it is not that root any more
    EXPECT_FALSE(arbor_in_range(handle->alloc_ctx, root));
    free(filler);
    EXPECT_EQ(arbor_set_range(handle->alloc_ctx, &outside, sizeof outside, 1), 1u);
}

/// A bundle keeps roots in variables of its own. A later database may lie at the same addresses.
TEST_P(arena, knows_the_roots_of_closed_databases_for_what_they_are) {
    void* root = alloc(32);
    arbor_set_key(handle->alloc_ctx, "kept by a bundle", root);
    handle.reset();
    scratch_directory elsewhere;
    handle = open_kind(GetParam(), elsewhere);
    EXPECT_FALSE(arbor_in_range(handle->alloc_ctx, root));
    handle.reset();
    handle = open_kind(GetParam(), directory);
    if (arbor_get_key(handle->alloc_ctx, "kept by a bundle")) { // the same file once more
        EXPECT_EQ(arbor_get_key(handle->alloc_ctx, "kept by a bundle"), root);
        EXPECT_TRUE(arbor_in_range(handle->alloc_ctx, root));
    }
}

TEST_P(arena, memory_can_be_freed_only_once) {
    void* block = alloc(40);
    free(block);
    EXPECT_DEATH(free(block), "is freed, but it is no block in use");
    void* large = alloc(5000);
    alloc(16);
    free(large);
    EXPECT_DEATH(free(large), "is freed, but it is no block in use");
    EXPECT_DEATH(free(static_cast<char*>(alloc(64)) + 16), "is freed, but it is no block in use");
    block = alloc(40);
    loom_write_begin(handle);
    free(block); // put off to the section's end
    EXPECT_DEATH(free(block), "is freed, but it is no block in use");
    loom_write_abort(handle);
}

TEST_P(arena, a_root_has_room_for_its_name) {
    void* block = alloc(8);
    for (std::size_t length = 0; length <= 32; ++length) {
        std::vector<void*> holes; // with a block in use behind each
        for (std::size_t size = 24; size < 128; size += 16) {
            holes.push_back(alloc(size));
            alloc(size);
        }
        for (void* hole : holes)
            free(hole);
        EXPECT_EQ(arbor_set_key(handle->alloc_ctx, std::string(length, 'n').c_str(), block), 1u);
        EXPECT_EQ(loom_arena_verify(handle), 0u) << length << ": " << loom_error_text();
    }
}

#if defined(__SANITIZE_ADDRESS__)
/// Private memory is known to the address sanitizer block by block.
TEST(private_memory, is_watched_by_the_address_sanitizer) {
    handle_ptr handle = open_private();
    const auto alloc = [&](std::size_t size) {
        return static_cast<volatile char*>(handle->alloc(handle->alloc_ctx, 1, size));
    };
    const auto free = [&](volatile char* block) { handle->free(handle->alloc_ctx, 1, const_cast<char*>(block)); };
    volatile char* block = alloc(100);
    EXPECT_DEATH(block[100] = 1, "use-after-poison");
    EXPECT_DEATH(block[-1] = 1, "use-after-poison");
    free(block);
    EXPECT_DEATH(block[50] = 1, "use-after-poison");
    // An abort brings back what its section has freed.
    block = alloc(100);
    loom_write_begin(handle);
    free(block);
    EXPECT_DEATH(block[50] = 1, "use-after-poison");
    loom_write_abort(handle);
    block[50] = 1;
    free(block);
}
#endif

// ------------------------------------------------------------------------------------------------ debug arena

struct found_stores {
    std::vector<loom_unannounced_store> stores;
    static void add(const loom_unannounced_store* store, void* context) {
        static_cast<found_stores*>(context)->stores.push_back(*store);
    }
};

TEST_P(arena, debugging_finds_stores_without_a_notice) {
    auto* block = static_cast<unsigned char*>(alloc(100));
    std::memset(block, 0, 100);
    found_stores found;
    ASSERT_EQ(loom_debug_arena_start(handle, found_stores::add, &found), 0u);
    ASSERT_EQ(loom_write_begin(handle), 0u);
    announce(block + 10, 4);
    std::memset(block + 10, 1, 4);
    EXPECT_EQ(loom_debug_arena_check(handle), 0u);

    std::memset(block + 12, 2, 4); // the notice of before the check is used up
    block[40] = 3;
    ASSERT_EQ(loom_debug_arena_check(handle), 2u);
    ASSERT_EQ(found.stores.size(), 2u);
    EXPECT_EQ(found.stores[0].address, block + 12);
    EXPECT_EQ(found.stores[0].length, 4u);
    EXPECT_EQ(found.stores[0].block, block);
    EXPECT_GE(found.stores[0].block_size, 100u);
    EXPECT_EQ(found.stores[1].address, block + 40);
    EXPECT_EQ(loom_debug_arena_check(handle), 0u);

    block[50] = 4; // announced too late
    announce(block + 48, 8);
    ASSERT_EQ(found.stores.size(), 3u);
    EXPECT_EQ(found.stores[2].at_announcement, 1u);
    EXPECT_EQ(loom_debug_arena_check(handle), 1u);
    loom_write_commit(handle);
}

TEST_P(arena, debugging_leaves_fresh_memory_alone_until_the_check) {
    ASSERT_EQ(loom_debug_arena_start(
                  handle, [](const loom_unannounced_store*, void*) {}, nullptr),
              0u);
    loom_write_begin(handle);
    auto* block = static_cast<unsigned char*>(alloc(64));
    std::memset(block, 9, 64);
    EXPECT_EQ(loom_debug_arena_check(handle), 0u);
    block[0] = 1;
    EXPECT_EQ(loom_debug_arena_check(handle), 1u);
    loom_debug_arena_exempt(handle, block, 1, 1);
    block[0] = 2;
    EXPECT_EQ(loom_debug_arena_check(handle), 0u);
    loom_write_commit(handle);
}

TEST_P(arena, debugging_tells_the_tag_of_a_block) {
    found_stores found;
    ASSERT_EQ(loom_debug_arena_start(handle, found_stores::add, &found), 0u);
    loom_write_begin(handle);
    umber_set_callsite_tag(4711);
    auto* tagged = static_cast<unsigned char*>(alloc(24));
    auto* plain = static_cast<unsigned char*>(alloc(24));
    loom_debug_arena_check(handle);
    tagged[3] ^= 1;
    plain[3] ^= 1;
    loom_debug_arena_check(handle);
    ASSERT_EQ(found.stores.size(), 2u);
    EXPECT_EQ(found.stores[0].block_tag + found.stores[1].block_tag, 4711u);
    loom_write_commit(handle);
}

/// The runtime's own records are announced like everything else.
TEST_P(arena, the_runtime_itself_announces_every_store) {
    load_fake_bundle();
    ASSERT_EQ(loom_debug_arena_start(handle, nullptr, nullptr), 0u);
    const auto step = [&](auto work) {
        loom_write_begin(handle);
        work();
        EXPECT_EQ(loom_debug_arena_check(handle), 0u);
        loom_write_commit(handle);
        EXPECT_EQ(loom_debug_arena_check(handle), 0u);
    };
    loom_table* table = nullptr;
    std::vector<fake_record*> records;
    step([&] { table = fake_table_open(handle, 1, "debug/table", &err); });
    step([&] {
        loom_table_set_replication(handle, 1, table, 1, 1);
        for (std::uint32_t key = 0; key < 200; ++key)
            records.push_back(fake_table_add(handle, 1, table, key, &err));
    });
    step([&] {
        for (fake_record* each : records) {
            loomdb_request_record_destroy(handle, 1, &each->record, &err);
            loom_record_set_location(handle, 1, &each->record, each->key % 2 ? "here" : "there");
            loomdb_update_tenant_counter(handle, 1, table, 1, static_cast<std::uint16_t>(each->key % 30), 1, &err);
            loomlib_record_dereference_loc(handle, 1, &each->record, &err);
        }
        loom_table_advance_read_cursor(handle, table, 100);
    });
    step([&] { loom_gc_run(handle, nullptr); });
    step([&] { loom_table_advance_read_cursor(handle, table, 200); });
    step([&] { loom_gc_run(handle, nullptr); });
    for (int i = 0; i < 40; ++i) // tables that grow move what earlier sections have made
        step(
            [&] { loom_oid_mapping_create(handle, 1, new_object(handle, &fake_table_type.info), 1, 0, 0, &err); });
    step([&] { loomdb_database_toc_delete(handle, 1, table, &err); });
    step([&] { loom_gc_run(handle, nullptr); });
    EXPECT_EQ(err, 0u);
    expect_sound(handle);
}
} // namespace
