// The offer of direct forms: the operations in runtime/values/scalars.cpp, runtime/wire/frame_fields.cpp,
// runtime/handle and runtime/types do no more in their common case than <loom/direct.h> tells.
#include "runtime/export.h"
#include "runtime/handle/open_handle.h"

#include <loom/direct.h>

// Where the linker put this image.
extern "C" __attribute__((visibility("hidden"))) const char __ehdr_start, _end;

LOOM_EXPORT const loom_direct_forms* loom_get_direct_forms() {
    static const loom_direct_forms forms{
        LOOM_DIRECT_FORMS_REVISION,   0, &__ehdr_start, &_end, loom::unfollowed_write_hook,
        loom::unfollowed_counter_hook};
    return &forms;
}
