// A program that takes the place of one of the runtime's plain operations, as a library that traces calls would:
// the bundle must then call every operation instead of doing the common case itself. All types are walked in this
// program a second time (all_types_test.cpp), so both ways are held against the same walker.
#include "tests/codec/codec_fixture.h"

#include <all_shapes/all_shapes.h>
#include <loom/values.h>

#include <dlfcn.h>

namespace {
uint32_t calls = 0;
uint32_t adjusting_fails = 0; // with this number, the object being as it was
} // namespace

// The runtime's own definition is hidden behind this one; it does what that would do.
extern "C" uint32_t u_int16_len(loom_handle*, uint32_t, const uint16_t*) {
    ++calls;
    return sizeof(uint16_t);
}

extern "C" void loomlib_adjust_variant(loom_handle* handle, uint32_t domain, void* object,
                                       const loom_type_info* tinfo, int32_t newest, uint32_t* err) {
    static auto* const real =
        reinterpret_cast<decltype(&loomlib_adjust_variant)>(dlsym(RTLD_NEXT, "loomlib_adjust_variant"));
    if (adjusting_fails == 0) return real(handle, domain, object, tinfo, newest, err);
    *err = adjusting_fails;
}

namespace trellis::testing {
namespace {

TEST(interposed, operation_is_called) {
    const database memory;
    leaf* object = leaf_create(memory, domain);
    calls = 0;
    const uint32_t length = leaf_len(memory, domain, object);
    EXPECT_EQ(calls, 1u);
    EXPECT_GT(length, 6u);
    leaf_destroy(memory, domain, object);
}

/// An error of the holder's variant keeps an element neither from the list nor from the array, so that it must not
/// end there.
TEST(interposed, what_a_holder_has_taken_stays_though_it_reports_an_error) {
    const database memory;
    const uint64_t blocks = memory.blocks();
    everything* object = everything_create(memory, domain);
    for (const char* text : {"<e><chain><value>1</value></chain><chain><value>2</value></chain></e>",
                             "<e><trees><name>oak</name></trees><trees><name>elm</name></trees></e>"}) {
        const xml_text document(text);
        uint32_t error = 0;
        adjusting_fails = 5;
        everything_from_xml(memory, domain, "/e", document, object, &error, nullptr, 0);
        adjusting_fails = 0;
        EXPECT_EQ(error, 5u);
    }
    uint32_t error = 0;
    EXPECT_EQ(object->chain.count, 1u);
    const chained* element = everything_chain_get_first(memory, domain, object, &error);
    ASSERT_NE(element, nullptr);
    EXPECT_NE(element->loom_tinfo, nullptr) << "it has not ended";
    EXPECT_EQ(element->value, 1u);
    ASSERT_EQ(object->trees_len, 1u);
    EXPECT_STREQ(object->trees[0].name.text, "oak");
    everything_destroy(memory, domain, object);
    EXPECT_EQ(memory.blocks(), blocks);
}

} // namespace
} // namespace trellis::testing
