// How the runtime marks what it exports. The library is built with hidden visibility, so every operation of the
// platform headers carries LOOM_EXPORT at its definition. Nothing else lives here.
#pragma once

/// An exported C operation: `LOOM_EXPORT uint32_t u_int8_len(...) { ... }`.
#define LOOM_EXPORT extern "C" __attribute__((visibility("default")))
