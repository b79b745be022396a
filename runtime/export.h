// How the runtime marks what it exports. The library is built with hidden visibility, so every operation and every
// object of the platform headers carries one of these marks at its definition. Nothing else lives here.
#pragma once

/// An exported C operation: `LOOM_EXPORT uint32_t u_int8_len(...) { ... }`.
#define LOOM_EXPORT extern "C" __attribute__((visibility("default")))
/// An exported object that a platform header declares: `LOOM_EXPORT_DATA loom_type_info _x_type_info_internal =
/// ...;`.
#define LOOM_EXPORT_DATA __attribute__((visibility("default")))
