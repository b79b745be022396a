// Programming faults end the process, behind their trace at level 0. Each case runs in a child process, which
// writes its traces to the standard error stream. Those that every type can meet stand with the tests of all
// types' forms: making, ending, reading and writing.
#include "tests/support/test_handle.h"

#include <trellis_test_types/rec_child_comp_key_parent_comp_key.h>
#include <trellis_test_types/rec_parent_with_sing_child.h>
#include <trellis_test_types/rec_with_list.h>
#include <trellis_test_types/simple_union.h>
#include <trellis_test_types/string_key.h>
#include <trellis_test_types/type_with_list.h>
#include <trellis_test_types/ud_enum.h>
#include <trellis_test_types/ud_flag.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <functional>

namespace trellis::testing {
namespace {

constexpr u32 domain = test_handle::domain;

void write_trace(const loom_trace_record* record, void*) {
    char text[512];
    loom_trace_format(trace_decoder(), record, text, sizeof text);
    fprintf(stderr, "[%u] %s\n", record->level, text);
}

/// In the child: traces in words, then the fault.
void run(const std::function<void(test_handle&, u32*)>& fault, u32 tracking) {
    handle_options options{};
    options.tracking = tracking;
    test_handle handle(options);
    add_trace_texts_of(reinterpret_cast<const void*>(&string_key_create));
    loom_trace_set_tap(write_trace, nullptr);
    u32 error = 0;
    fault(handle, &error);
}

struct fatal_case {
    const char* name;
    const char* text;
    std::function<void(test_handle&, u32*)> fault;
    u32 tracking = LOOM_TRACKING_ON;
};

rec_parent_with_sing_child* parent(test_handle& handle) {
    return rec_parent_with_sing_child_create(handle, domain);
}

/// The faults of a handle whose tracking mode is none: `use` works on an object made before.
template <class Use>
std::function<void(test_handle&, u32*)> corrupted(Use use) {
    return [use](test_handle& handle, u32* err) {
        auto* rec = parent(handle);
        handle->sttr_block->sttr_mode = 0x1234;
        use(handle, rec, err);
    };
}
using rec = rec_parent_with_sing_child;

const fatal_case cases[] = {
    {"create_cr", "Corrupted LOOM Handle", corrupted([](test_handle& h, rec*, u32*) { string_key_create_cr(h); })},
    {"sizeof", "Corrupted LOOM Handle", corrupted([](test_handle& h, rec*, u32*) { string_key_sizeof(h); })},
    {"sizeof_internal", "Corrupted LOOM Handle",
     corrupted([](test_handle& h, rec*, u32*) { string_key_sizeof_internal(h, nullptr, 0, 0); })},
    {"set", "Corrupted LOOM Handle", corrupted([](test_handle& h, rec* r, u32* err) {
         const u32 value = 1;
         rec_parent_with_sing_child_int_attr_set(h, domain, r, &value, err);
     })},
    {"set_value", "Corrupted LOOM Handle", corrupted([](test_handle& h, rec* r, u32* err) {
         rec_parent_with_sing_child_int_attr_set_value(h, domain, r, 1, err);
     })},
    {"state_flag_get", "Corrupted LOOM Handle", corrupted([](test_handle& h, rec* r, u32* err) {
         rec_parent_with_sing_child_int_attr_state_flag_get(h, domain, r, err);
     })},
    {"state_flag_set", "Corrupted LOOM Handle", corrupted([](test_handle& h, rec* r, u32* err) {
         rec_parent_with_sing_child_int_attr_state_flag_set(h, domain, r, 1, err);
     })},
    {"state_flag_whole_get", "Corrupted LOOM Handle", corrupted([](test_handle& h, rec* r, u32* err) {
         rec_parent_with_sing_child_b_arr_attr_state_flag_whole_get(h, domain, r, err);
     })},
    {"array_set", "Corrupted LOOM Handle", corrupted([](test_handle& h, rec* r, u32* err) {
         const u8 value = 1;
         rec_parent_with_sing_child_b_arr_attr_set(h, domain, r, 0, &value, err);
     })},
    {"array_set_mem", "Corrupted LOOM Handle", corrupted([](test_handle& h, rec* r, u32* err) {
         const u8 value = 1;
         rec_parent_with_sing_child_b_arr_attr_set_mem(h, domain, r, &value, 1, err);
     })},
    {"whole_set", "Corrupted LOOM Handle",
     [](test_handle& h, u32* err) {
         auto* a = string_key_create(h, domain);
         auto* b = string_key_create(h, domain);
         h->sttr_block->sttr_mode = 1;
         string_key_set(h, domain, a, b, err);
     }},
    {"arm_set", "Corrupted LOOM Handle",
     [](test_handle& h, u32* err) {
         auto* a = simple_union_create(h, domain);
         h->sttr_block->sttr_mode = 1;
         simple_union_int_attr_set(h, domain, a, u_int32_create(h, domain), err);
     }},
    {"list_add", "Corrupted LOOM Handle",
     [](test_handle& h, u32* err) {
         auto* holder = rec_with_list_create(h, domain);
         auto* element = type_with_list_create(h, domain);
         h->sttr_block->sttr_mode = 1;
         rec_with_list_list_attr_set_first(h, domain, holder, element, err);
     }},
    {"list_refused", "arbor internal error",
     [](test_handle& h, u32* err) {
         auto* holder = rec_with_list_create(h, domain);
         auto* element = type_with_list_create(h, domain);
         h.refuse_ranges();
         rec_with_list_list_attr_set_first(h, domain, holder, element, err);
     }},
    {"list_removal_refused", "arbor internal error",
     [](test_handle& h, u32* err) {
         auto* holder = rec_with_list_create(h, domain);
         auto* element = type_with_list_create(h, domain);
         rec_with_list_list_attr_set_first(h, domain, holder, element, err);
         h.refuse_ranges();
         rec_with_list_list_attr_remove(h, domain, holder, element, err);
     }},
    {"list_move_refused", "arbor internal error",
     [](test_handle& h, u32* err) {
         auto* holder = rec_with_list_create(h, domain);
         auto* other = rec_with_list_create(h, domain);
         rec_with_list_list_attr_set_first(h, domain, holder, type_with_list_create(h, domain), err);
         h.refuse_ranges();
         rec_with_list_set(h, domain, other, holder, err);
     }},
    {"no_variant_table_at_the_start", "varinfo is NULL",
     [](test_handle& h, u32* err) {
         alignas(8) static unsigned char memory[64];
         static loom_type_info other;
         other = *string_key_create(h, domain)->loom_tinfo;
         other.variant_table = nullptr;
         string_key_initialize(h, domain, reinterpret_cast<string_key*>(memory), &other, 0, 0, 0, nullptr, err);
     }},
    {"no_variant_table_at_the_end", "varinfo is NULL",
     [](test_handle& h, u32*) {
         auto* a = string_key_create(h, domain);
         static loom_type_info other;
         other = *a->loom_tinfo;
         other.variant_table = nullptr;
         a->loom_tinfo = &other;
         string_key_destroy(h, domain, a);
     }},
    {"no_variant_table_of_an_enumeration", "varinfo is NULL",
     [](test_handle& h, u32*) {
         auto* a = ud_enum_create(h, domain);
         static loom_type_info other;
         other = *a->loom_tinfo;
         other.variant_table = nullptr;
         a->loom_tinfo = &other;
         ud_enum_destroy(h, domain, a);
     }},
};

class fatal : public ::testing::TestWithParam<fatal_case> {};

TEST_P(fatal, ends_the_process_behind_its_trace) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(run(GetParam().fault, GetParam().tracking), ::testing::KilledBySignal(SIGABRT),
                std::string("\\[0\\] ") + GetParam().text);
}

std::ostream& operator<<(std::ostream& out, const fatal_case& each) { return out << each.name; }
INSTANTIATE_TEST_SUITE_P(faults, fatal, ::testing::ValuesIn(cases),
                         [](const auto& info) { return info.param.name; });

/// With tracking off or absent the same misuse has no mode to be corrupted by, and an object without tracking
/// is none of anybody's business.
TEST(no_fault, without_a_control_block) {
    test_handle handle;
    auto* a = string_key_create(handle, domain);
    EXPECT_EQ(string_key_sizeof(handle), 40u);
    u32 error = 0;
    loom_vstring text{const_cast<char*>("x"), 1, 0};
    string_key_s_key_set(handle, domain, a, &text, &error);
    EXPECT_EQ(error, 0u);
    string_key_destroy(handle, domain, a);
    EXPECT_EQ(handle.live_blocks(), 0u);
}

} // namespace
} // namespace trellis::testing
