// The marks of a bundle's exported functions and data; everything else stays hidden. Nothing else lives here.
#pragma once

/// An exported C function: `TRELLIS_EXPORT uint32_t ud_type_len(...) { ... }`.
#define TRELLIS_EXPORT extern "C" __attribute__((visibility("default")))

/// Exported data, inside an `extern "C"` block: `TRELLIS_EXPORT_DATA uint16_t module_id = 0;`.
#define TRELLIS_EXPORT_DATA __attribute__((visibility("default")))
