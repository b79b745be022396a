// The catalogue's library as a host loads it: module list, handler chain, type information, registry, counters.
#include "tests/frame/elf_file.h"
#include "tests/frame/fake_runtime.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <link.h>

#include <cstdarg>
#include <cstring>
#include <set>

namespace trellis::test {
namespace {

constexpr const char* bundle_name = "trellis_test_types";

/// The library, loaded for one test.
class loaded_library : public testing::Test {
  protected:
    void SetUp() override {
        the_journal().reset();
        library_ = dlopen(TRELLIS_CATALOGUE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library_, nullptr) << dlerror();
    }
    void TearDown() override {
        if (library_ != nullptr) dlclose(library_);
    }

    template <class T>
    T* find(const std::string& name) {
        void* address = dlsym(library_, name.c_str());
        EXPECT_NE(address, nullptr) << name;
        return reinterpret_cast<T*>(address);
    }

    loom_module_node* module() {
        for (loom_module_node* node = loom_module_tot_root.first; node != nullptr; node = node->next)
            if (std::strcmp(node->name, bundle_name) == 0) return node;
        ADD_FAILURE() << "the bundle is not on the module list";
        return nullptr;
    }
    std::vector<const loom_type_info*> type_infos() {
        std::vector<const loom_type_info*> all;
        for (loom_type_info* const* each = module()->type_infos; *each != nullptr; ++each)
            all.push_back(*each);
        return all;
    }
    const loom_table_vft* lut() { return find<const loom_table_vft>("trellis_test_types_table_lut"); }
    std::int32_t lookup(const void* luid) {
        return find<std::int32_t(const void*)>("trellis_test_types_table_mrst_lookup")(luid);
    }
    /// Fills the array of records.
    void initialize_registry() { EXPECT_EQ(find<std::uint32_t()>("trellis_test_types_table_vft_init")(), 0u); }

    void* library_ = nullptr;
};

// ---- Module list -----------------------------------------------------------------------------------------------

TEST(module_list_of_loaded_libraries, follows_loading_and_unloading) {
    const std::vector<std::string> before = listed_modules();
    for (int round = 0; round < 2; ++round) {
        void* library = dlopen(TRELLIS_CATALOGUE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        const std::vector<std::string> during = listed_modules();
        EXPECT_EQ(during.size(), before.size() + 6) << "the bundle and its five siblings";
        EXPECT_EQ(during.back(), bundle_name) << "siblings are loaded first";
        void* sibling = dlopen(TRELLIS_SIBLING_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(sibling, nullptr) << dlerror();
        dlclose(library);
        EXPECT_EQ(listed_modules().size(), before.size() + 1) << "nodes leave from the middle too";
        dlclose(sibling);
        EXPECT_EQ(listed_modules(), before);
    }
}

// ---- Handler chain ---------------------------------------------------------------------------------------------

TEST_F(loaded_library, handlers_go_on_to_the_siblings_in_the_order_of_imports) {
    const auto add = find<void*(void*)>("trellis_test_types_bundle_handler_register");
    const auto remove = find<void*()>("trellis_test_types_bundle_handler_unregister");
    void** slot = find<void*>("trellis_test_types_bundle_registered_handler");
    const std::string siblings[] = {"skyband_enum_types", "nexa_comm", "peering_comm", "peering_route_oper",
                                    "peering_emul_oper"};
    const auto calls = [&](const std::string& what, int handler) {
        std::vector<std::string> expected;
        for (const std::string& each : siblings)
            expected.push_back(what + " " + each + " " + std::to_string(handler));
        const std::vector<std::string> found = the_journal().handler_calls;
        the_journal().reset();
        return found == expected ? std::string() : testing::PrintToString(found);
    };
    const auto pointer = [](std::uintptr_t value) { return reinterpret_cast<void*>(value); };
    EXPECT_EQ(remove(), nullptr) << "nothing is registered";
    EXPECT_EQ(calls("unregister", 0), "");
    EXPECT_EQ(add(pointer(16)), nullptr);
    EXPECT_EQ(calls("register", 16), "");
    EXPECT_EQ(add(pointer(32)), pointer(16)) << "the one before";
    EXPECT_EQ(calls("register", 32), "");
    EXPECT_EQ(*slot, pointer(32));
    EXPECT_EQ(remove(), pointer(32));
    EXPECT_EQ(calls("unregister", 0), "");
    EXPECT_EQ(*slot, nullptr);
}

// ---- Type information ------------------------------------------------------------------------------------------

TEST_F(loaded_library, all_types_describe_themselves) {
    const auto all = type_infos();
    ASSERT_EQ(all.size(), 223u);
    std::map<std::string, int> kinds;
    std::map<int, int> variants;
    std::set<std::string> luids;
    for (const loom_type_info* each : all) {
        SCOPED_TRACE(each->name);
        EXPECT_EQ(each->magic, LOOM_TYPE_INFO_MAGIC);
        EXPECT_STREQ(each->module, bundle_name);
        EXPECT_EQ(each->runtime_slot, -1);
        EXPECT_EQ(each->manifested_kind, 0u);
        EXPECT_EQ(each->reserved1 + each->reserved2, 0u);
        EXPECT_EQ(each->luid_text, hexadecimal({each->luid, each->luid + 16}));
        luids.insert(each->luid_text);
        ++kinds[each->kind];
        ASSERT_NE(each->variant_table, nullptr);
        ++variants[each->variant_table->n_variants];
        const std::string kind = each->kind;
        std::uint32_t end =
            each->variant_table->entries[0].used_length + each->variant_table->entries[0].alloc_slop;
        for (int v = 0; v < each->variant_table->n_variants; ++v) {
            const loom_variant_entry& entry = each->variant_table->entries[v];
            if (kind == "table" || kind == "table_record") {
                EXPECT_EQ(entry.variant, 1u);
                EXPECT_EQ(entry.used_length, 8u);
                EXPECT_EQ(entry.alloc_slop, 0u);
            } else {
                EXPECT_EQ(entry.variant, static_cast<std::uint32_t>(v));
                EXPECT_EQ(entry.used_length + entry.alloc_slop, end) << "the base size, in all variants";
            }
            EXPECT_TRUE(entry.alloc_slop == 0 || (kind != "enum" && kind != "message"));
            EXPECT_EQ(entry.objects_created + entry.objects_destroyed + entry.reserved_counter, 0u);
        }
    }
    EXPECT_EQ(luids.size(), 223u);
    EXPECT_EQ(kinds,
              (std::map<std::string, int>{
                  {"type", 103}, {"enum", 15}, {"flag", 3}, {"table", 47}, {"table_record", 47}, {"message", 8}}));
    EXPECT_EQ(variants, (std::map<int, int>{{1, 207}, {2, 6}, {3, 4}, {4, 5}, {5, 1}}));
}

TEST_F(loaded_library, types_are_listed_in_their_order) {
    const auto all = type_infos();
    ASSERT_EQ(all.size(), 223u);
    const char* first[] = {"const_default_type", "complex_comp_key", "enum_keys", "ipv4_addr_keys"};
    for (std::size_t i = 0; i < std::size(first); ++i)
        EXPECT_STREQ(all[i]->name, first[i]);
    std::vector<std::string> runs;
    for (const loom_type_info* each : all) {
        std::string kind = each->kind;
        if (kind == "table_record") {
            EXPECT_EQ(each->name, runs.back() + "_record");
            continue;
        }
        if (kind == "table") kind = each->name;
        if (runs.empty() || runs.back() != kind) runs.push_back(kind);
    }
    ASSERT_EQ(runs.size(), 3u + 47u + 1u) << "a table record follows its table";
    EXPECT_EQ(runs[0], "type");
    EXPECT_EQ(runs[1], "enum");
    EXPECT_EQ(runs[2], "flag");
    EXPECT_EQ(runs.back(), "message");
    const loom_type_info* table = find<const loom_type_info>("_tbl_constraint_test_table_type_info_internal");
    const loom_type_info* record =
        find<const loom_type_info>("_tbl_constraint_test_table_record_type_info_internal");
    const loom_type_info* message =
        find<const loom_type_info>("_custom_rpc_action_simple_action_message_type_info_internal");
    EXPECT_STREQ(table->name, "tbl_constraint_test");
    EXPECT_STREQ(record->name, "tbl_constraint_test_record");
    EXPECT_STREQ(message->name, "custom_rpc_action_simple");
    EXPECT_STREQ(find<const char>("table_tbl_constraint_test_name"), "table tbl_constraint_test");
    EXPECT_STREQ(find<const char>("table_tbl_constraint_test_luid_text"), table->luid_text);
    EXPECT_EQ(std::memcmp(find<const char>("table_tbl_constraint_test_luid"), table->luid, 16), 0);
    EXPECT_STREQ(find<const char>("message_action_custom_rpc_action_simple_name"),
                 "message_action custom_rpc_action_simple");
    EXPECT_STREQ(find<const char>("message_action_custom_rpc_action_simple_luid_text"), message->luid_text);
}

TEST_F(loaded_library, told_sizes_of_telling_types) {
    struct told {
        const char* type;
        std::vector<std::uint32_t> used, slop;
    };
    for (const told& each : std::vector<told>{{"string_key", {32}, {8}},
                                              {"rec_parent_with_sing_child", {928, 931, 952}, {40, 37, 16}},
                                              {"ipv6_addr_keys", {59}, {13}},
                                              {"ud_flag", {16, 16}, {8, 8}},
                                              {"ud_enum", {16, 16}, {0, 0}}}) {
        SCOPED_TRACE(each.type);
        const auto* info = find<const loom_type_info>(std::string("_") + each.type + "_type_info_internal");
        ASSERT_EQ(static_cast<std::size_t>(info->variant_table->n_variants), each.used.size());
        for (std::size_t v = 0; v < each.used.size(); ++v) {
            EXPECT_EQ(info->variant_table->entries[v].used_length, each.used[v]);
            EXPECT_EQ(info->variant_table->entries[v].alloc_slop, each.slop[v]);
        }
    }
}

TEST_F(loaded_library, type_information_is_brought_into_a_database_once) {
    const auto initialize =
        find<void(loom_handle*, std::uint32_t, std::uint32_t*)>("trellis_test_types_typeinfo_initialize");
    const auto all = type_infos();
    database db;
    db.blocks_left = 100;
    std::uint32_t err = 0;
    initialize(&db.handle, 9, &err);
    EXPECT_EQ(err, static_cast<std::uint32_t>(LOOM_ENOMEM));
    EXPECT_EQ(db.handle.last_error, static_cast<std::uint32_t>(LOOM_ENOMEM));
    EXPECT_EQ(db.order.size(), 100u) << "what was made stays";

    db.blocks_left = 1000;
    err = 0;
    the_journal().reset();
    initialize(&db.handle, 9, &err);
    EXPECT_EQ(err, 0u);
    ASSERT_EQ(db.order.size(), 223u);
    std::vector<std::uint32_t> created(223, 1);
    std::fill_n(created.begin(), 100, 0);
    EXPECT_EQ(the_journal().variant_updates, created);
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(db.order[i], all[i]->luid_text);
        const auto* made = static_cast<const loom_type_info*>(db.entries[all[i]->luid_text]);
        EXPECT_EQ(std::memcmp(made, all[i], offsetof(loom_type_info, manifested_kind)), 0);
        EXPECT_EQ(made->manifested_kind, 1u);
        static constexpr char zeros[16] = {};
        EXPECT_EQ(std::memcmp(made + 1, zeros, sizeof zeros), 0);
    }
    EXPECT_EQ(std::set<std::uint32_t>(db.domains.begin(), db.domains.end()), std::set<std::uint32_t>{9});
    EXPECT_EQ(std::set<std::uint32_t>(db.alloc_domains.begin(), db.alloc_domains.end()),
              std::set<std::uint32_t>{LOOM_DOMAIN_NONE});

    db.blocks_left = 0;
    the_journal().reset();
    initialize(&db.handle, 9, &err);
    EXPECT_EQ(err, 0u) << "nothing is allocated again";
    EXPECT_EQ(the_journal().variant_updates, std::vector<std::uint32_t>(223, 0));
}

int dumped_tables, dumped_variants;

int count_lines(const char* format, ...) {
    if (std::strcmp(format, "n_variants %d\n") == 0)
        ++dumped_tables;
    else if (std::strcmp(format, "variant %d used length %d alloc slop %d\n") == 0)
        ++dumped_variants;
    else
        ADD_FAILURE() << format;
    return 0;
}

TEST_F(loaded_library, the_dump_prints_every_variant) {
    dumped_tables = dumped_variants = 0;
    EXPECT_EQ(find<void*(loom_print_fn)>("trellis_test_types_type_variant_dump")(count_lines), nullptr);
    EXPECT_EQ(dumped_tables, 223);
    EXPECT_EQ(dumped_variants, 207 + 6 * 2 + 4 * 3 + 5 * 4 + 5);
}

// ---- Registry --------------------------------------------------------------------------------------------------

TEST_F(loaded_library, every_luid_of_the_registry_is_found_and_no_other) {
    initialize_registry();
    for (std::int32_t i = 0; i < 70; ++i) {
        const auto* luid = static_cast<const std::uint8_t*>(lut()[i].slots[LOOM_VFT_LUID]);
        EXPECT_EQ(lookup(luid), i);
        std::uint8_t unaligned[20];
        for (int shift = 0; shift < 4; ++shift) {
            std::memcpy(unaligned + shift, luid, 16);
            EXPECT_EQ(lookup(unaligned + shift), i);
        }
        for (int byte = 0; byte < 16; ++byte)
            for (const int bit : {1, 128}) {
                std::uint8_t other[16];
                std::memcpy(other, luid, 16);
                other[byte] ^= static_cast<std::uint8_t>(bit);
                EXPECT_EQ(lookup(other), -1) << i << " with byte " << byte << " changed";
            }
    }
    // Luids made of the halves of two tables.
    for (std::int32_t i = 0; i + 1 < 70; ++i) {
        std::uint8_t mixed[16];
        std::memcpy(mixed, lut()[i].slots[LOOM_VFT_LUID], 8);
        std::memcpy(mixed + 8, static_cast<const char*>(lut()[i + 1].slots[LOOM_VFT_LUID]) + 8, 8);
        EXPECT_EQ(lookup(mixed), -1);
    }
    const std::uint8_t zero[16] = {};
    EXPECT_EQ(lookup(zero), -1);
}

TEST_F(loaded_library, records_are_complete_and_in_registry_order) {
    EXPECT_EQ(lut()[0].slots[0], nullptr) << "filled by the first lookup";
    initialize_registry();
    const std::map<int, std::string> told = {{0, "tbl_top_level_rec_with_keyless_list"},
                                             {1, "tbl_bgp_state"},
                                             {24, "vap_operational_config_tbl"},
                                             {34, "radio_band_tbl"},
                                             {48, "radio_operation_tbl"},
                                             {58, "tbl_constraint_test"},
                                             {68, "tbl_trellis_flat"},
                                             {69, "tbl_NOAUTORENAMEtopLevelSing"}};
    const std::map<int, std::string> functions = {
        {LOOM_VFT_TABLE_OPEN, "_table_open"},
        {LOOM_VFT_TABLE_OPEN_BY_IOR_WITH_ID, "_table_open_by_ior_with_id"},
        {LOOM_VFT_TABLE_FREE, "_table_free"},
        {LOOM_VFT_RECORD_CREATE_CB, "_table_record_create_cb"},
        {LOOM_VFT_RECORD_FREE_CB, "_table_record_free_cb"},
        {LOOM_VFT_SEARCH, "_search"},
        {LOOM_VFT_CREATE_RECORD, "_create_record"},
        {LOOM_VFT_INSERT, "_insert"},
        {LOOM_VFT_DELETE, "_delete"},
        {LOOM_VFT_PKEY_GET_NEXT, "_pkey_get_next"},
        {LOOM_VFT_TABLE_GET_COUNT_BY_SRC, "_table_get_count_by_src"},
        {LOOM_VFT_PKEY_GET_NEXT_IGNORE_SRC, "_pkey_get_next_ignore_src"},
        {LOOM_VFT_RECORD_FROM_XML, "_table_record_from_xml"},
        {LOOM_VFT_REQUEST_RECORD_DESTROY, "_request_record_destroy"},
        {LOOM_VFT_RECORD_UNMARSHAL, "_table_record_unmarshal"},
        {LOOM_VFT_PKEY_LEN, "_table_pkey_len"},
        {LOOM_VFT_GET_PREV_BY_KEY, "_get_prev_by_key"},
        {LOOM_VFT_PKEY_PRINT, "_pkey_print"}};
    for (int i = 0; i < 70; ++i) {
        const loom_table_vft& record = lut()[i];
        const char* text = static_cast<const char*>(record.slots[LOOM_VFT_NAME]);
        ASSERT_EQ(std::string(text).rfind("table ", 0), 0u) << text;
        const std::string name = text + 6;
        SCOPED_TRACE(name);
        EXPECT_TRUE(!told.contains(i) || told.at(i) == name);
        const auto* object = find<const loom_table_vft>(name + "_table_vft");
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(std::memcmp(object, &record, sizeof record), 0);
        EXPECT_EQ(record.slots[LOOM_VFT_LUID], find<void>("table_" + name + "_luid"));
        for (int slot = LOOM_VFT_TABLE_OPEN; slot < LOOM_VFT_SLOTS; ++slot)
            EXPECT_EQ(record.slots[slot] == nullptr, slot == LOOM_VFT_RESERVED) << slot;
        for (const auto& [slot, function] : functions)
            EXPECT_EQ(record.slots[slot], find<void>(name + function)) << function;
    }
}

TEST_F(loaded_library, foreign_tables_are_those_of_their_home_bundles) {
    initialize_registry();
    void* home = dlopen(TRELLIS_SIBLING_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(home, nullptr);
    const auto* luid =
        reinterpret_cast<const std::uint8_t*>("\x14\xc1\x16\xaa\xb7\xfc\xf4\x12\x9d\xd3\xd1\x59\xc8\x58\xec\xf2");
    const std::int32_t place = lookup(luid);
    ASSERT_EQ(place, 5) << "tbl_neighbor";
    EXPECT_EQ(lut()[place].slots[LOOM_VFT_INSERT], dlsym(home, "tbl_neighbor_insert"));
    EXPECT_EQ(lut()[place].slots[LOOM_VFT_LUID], dlsym(home, "table_tbl_neighbor_luid"));
    EXPECT_STREQ(static_cast<const char*>(lut()[place].slots[LOOM_VFT_NAME]), "table tbl_neighbor");
    dlclose(home);
}

TEST_F(loaded_library, the_runtime_reaches_tables_through_one_name) {
    const auto get = find<loom_table_get_vft_fn()>("trellis_test_types_fetch_table_get_vft")();
    EXPECT_EQ(reinterpret_cast<void*>(get), dlsym(library_, "trellis_test_types_table_get_vft"));
    loom_handle handle{};
    const auto* luid = find<const std::uint8_t>("table_tbl_constraint_test_luid");
    const loom_table_vft* out = reinterpret_cast<const loom_table_vft*>(1);
    std::uint32_t err = 5;
    get(&handle, 0, luid, &out, &err);
    EXPECT_EQ(err, 5u);
    EXPECT_EQ(out, reinterpret_cast<const loom_table_vft*>(1)) << "an error of before leaves everything alone";
    ASSERT_EQ(the_journal().traces.size(), 1u);
    EXPECT_EQ(the_journal().traces[0].level, 7u);
    EXPECT_EQ(the_journal().traces[0].index, 1u);
    EXPECT_EQ(the_journal().copies, 0u);

    err = 0;
    handle.last_error = 3;
    get(&handle, 0, luid, &out, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(handle.last_error, 0u);
    EXPECT_EQ(out, lut() + 58);
    ASSERT_EQ(the_journal().traces.size(), 2u);
    EXPECT_EQ(the_journal().traces[1].index, 0u);
    EXPECT_EQ(the_journal().traces[1].argument, bundle_name);
    const std::string section = ".spoor_luids_" + hexadecimal(the_journal().traces[1].unit);
    const elf_file file(TRELLIS_CATALOGUE_LIBRARY);
    ASSERT_NE(file.section(section), nullptr) << section;
    EXPECT_EQ(file.section(section)->bytes[2], 4) << "the unit of the registry";

    const std::uint8_t unknown[16] = {1};
    get(&handle, 0, unknown, &out, &err);
    EXPECT_EQ(err, static_cast<std::uint32_t>(LOOM_ENOENT));
    EXPECT_EQ(handle.last_error, static_cast<std::uint32_t>(LOOM_ENOENT));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(the_journal().copies, 1u) << "filled once";
}

// ---- Counters --------------------------------------------------------------------------------------------------

TEST_F(loaded_library, a_call_raises_one_counter_of_its_own) {
    const elf_file file(TRELLIS_CATALOGUE_LIBRARY);
    const elf_section* section = file.section(".spoor_counters");
    ASSERT_NE(section, nullptr);
    link_map* map = nullptr;
    ASSERT_EQ(dlinfo(library_, RTLD_DI_LINKMAP, &map), 0);
    const auto* counters = reinterpret_cast<const std::uint64_t*>(map->l_addr + section->address);
    const std::size_t count = section->size / 8;
    const auto raised_by = [&](const auto& call) {
        const std::vector<std::uint64_t> before(counters, counters + count);
        call();
        std::vector<std::size_t> raised;
        for (std::size_t i = 0; i < count; ++i) {
            if (counters[i] == before[i]) continue;
            EXPECT_EQ(counters[i], before[i] + 1);
            raised.push_back(i);
        }
        EXPECT_EQ(raised.size(), 1u);
        return raised.empty() ? count : raised.front();
    };
    std::set<std::size_t> places;
    std::size_t calls = 0;
    for (const loom_type_info* each : type_infos()) {
        const std::string kind = each->kind;
        if (kind != "type" && kind != "enum" && kind != "flag") continue;
        const auto cap = find<std::uint32_t(std::uint32_t)>(std::string(each->name) + "_variant_data_index_cap");
        const auto hash = find<std::uint32_t(const void*, std::uint32_t)>(std::string(each->name) + "_hash");
        places.insert(raised_by([&] { EXPECT_EQ(cap(0x700u), 0x700u); }));
        places.insert(raised_by([&] { EXPECT_EQ(hash(nullptr, 17), 17u); }));
        calls += 2;
    }
    EXPECT_EQ(places.size(), calls) << "no two functions share a counter";
    const auto fetch = find<void*()>("trellis_test_types_fetch_table_get_vft");
    EXPECT_EQ(raised_by([&] { fetch(); }), raised_by([&] { fetch(); }));
}

} // namespace
} // namespace trellis::test
