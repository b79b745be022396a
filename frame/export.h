// The mark of a bundle's exported functions and data; everything else stays hidden. Nothing else lives here.
#pragma once

/// An exported C function: `TRELLIS_EXPORT uint32_t ud_type_len(...) { ... }`.
#define TRELLIS_EXPORT extern "C" __attribute__((visibility("default")))
