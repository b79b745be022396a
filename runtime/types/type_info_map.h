// The database's map of manifested type information; the functions that bundles find in the handle.
#pragma once

#include "frame/basic_types.h"

namespace loom {
using namespace trellis;
void insert_type_info(void* context, u32 domain, const char* luid_text, void* info);
void* lookup_type_info(void* context, u32 domain, const char* luid_text);
} // namespace loom
