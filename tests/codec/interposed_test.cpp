// A program that takes the place of one of the runtime's plain operations, as a library that traces calls would:
// the bundle must then call every operation instead of doing the common case itself. All types are walked in this
// program a second time (all_types_test.cpp), so both ways are held against the same walker.
#include "tests/codec/codec_fixture.h"

#include <all_shapes/leaf.h>
#include <loom/values.h>

namespace {
uint32_t calls = 0;
}

// The runtime's own definition is hidden behind this one; it does what that would do.
extern "C" uint32_t u_int16_len(loom_handle*, uint32_t, const uint16_t*) {
    ++calls;
    return sizeof(uint16_t);
}

namespace trellis::testing {
namespace {

TEST(Interposed, OperationIsCalled) {
    const database memory;
    leaf* object = leaf_create(memory, domain);
    calls = 0;
    const uint32_t length = leaf_len(memory, domain, object);
    EXPECT_EQ(calls, 1u);
    EXPECT_GT(length, 6u);
    leaf_destroy(memory, domain, object);
}

} // namespace
} // namespace trellis::testing
