#include "tests/frame/fake_runtime.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace trellis::test {

journal& the_journal() {
    static journal the;
    return the;
}

std::vector<std::string> listed_modules(std::size_t skip) {
    std::vector<std::string> names;
    loom_module_node** back = &loom_module_tot_root.first;
    for (loom_module_node* node = loom_module_tot_root.first; node != nullptr; node = node->next) {
        EXPECT_EQ(node->previous, back) << node->name;
        back = &node->next;
        names.emplace_back(node->name);
    }
    EXPECT_EQ(loom_module_tot_root.last, back);
    EXPECT_EQ(loom_module_tot_root.count, names.size());
    names.erase(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(std::min(skip, names.size())));
    return names;
}

namespace {

database& of(void* context) { return *static_cast<database*>(context); }

void note_handler(const char* what, const char* bundle, const void* handler) {
    const auto number = static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(handler));
    the_journal().handler_calls.push_back(std::string(what) + " " + bundle + " " + std::to_string(number));
}

void note_trace(const std::uint8_t* unit, std::uint32_t index, std::uint32_t level, const char* argument) {
    the_journal().traces.push_back(
        {std::string(reinterpret_cast<const char*>(unit), 16), index, level >> 24, argument});
}

} // namespace

database::database() {
    handle.db_kind = 1;
    handle.tinfo_ctx = handle.shared_alloc_ctx = this;
    handle.tinfo_lookup = [](void* context, std::uint32_t domain, const char* luid) -> void* {
        of(context).domains.push_back(domain);
        const auto found = of(context).entries.find(luid);
        return found == of(context).entries.end() ? nullptr : found->second;
    };
    handle.tinfo_insert = [](void* context, std::uint32_t domain, const char* luid, void* tinfo) {
        of(context).domains.push_back(domain);
        of(context).order.emplace_back(luid);
        of(context).entries[luid] = tinfo;
    };
    handle.shared_alloc = [](void* context, std::uint32_t domain, std::size_t size) -> void* {
        database& self = of(context);
        self.alloc_domains.push_back(domain);
        if (self.blocks_left == 0) return nullptr;
        --self.blocks_left;
        void* block = std::malloc(size);
        std::memset(block, 0xA5, size);
        self.blocks_.push_back(block);
        return block;
    };
}

database::~database() {
    for (void* block : blocks_)
        std::free(block);
}

} // namespace trellis::test

using trellis::test::the_journal;

extern "C" {

#define TRELLIS_FAKE_SIBLING(NAME)                                                                                \
    void* NAME##_bundle_handler_register(void* handler);                                                          \
    void* NAME##_bundle_handler_unregister(void);                                                                 \
    void* NAME##_bundle_handler_register(void* handler) {                                                         \
        trellis::test::note_handler("register", #NAME, handler);                                                  \
        return nullptr;                                                                                           \
    }                                                                                                             \
    void* NAME##_bundle_handler_unregister(void) {                                                                \
        trellis::test::note_handler("unregister", #NAME, nullptr);                                                \
        return nullptr;                                                                                           \
    }
TRELLIS_FAKE_SIBLING(skyband_enum_types)
TRELLIS_FAKE_SIBLING(nexa_comm)
TRELLIS_FAKE_SIBLING(peering_comm)
TRELLIS_FAKE_SIBLING(peering_route_oper)
TRELLIS_FAKE_SIBLING(peering_emul_oper)

void loom_update_variant_info(loom_handle*, uint32_t, loom_type_info*, const loom_type_info*, uint32_t created) {
    the_journal().variant_updates.push_back(created);
}

uint32_t table_vft_cpy(loom_table_vft* destination, const loom_table_vft* source, uint32_t count) {
    ++the_journal().copies;
    if (the_journal().copies_to_refuse != 0) {
        --the_journal().copies_to_refuse;
        return LOOM_ENOMEM;
    }
    std::memcpy(destination, source, count * sizeof *destination);
    return 0;
}
void loomlib_vft_init_lock(void) {
    ++the_journal().locks;
    ++the_journal().lock_depth;
}
void loomlib_vft_init_unlock(void) { --the_journal().lock_depth; }

void __SPf_0(const uint8_t* unit, uint32_t index, uint16_t, uint32_t level) {
    trellis::test::note_trace(unit, index, level, "");
}
void __SPf_1(const uint8_t* unit, uint32_t index, uint16_t, uint32_t level, const char* a) {
    trellis::test::note_trace(unit, index, level, a);
}

} // extern "C"
