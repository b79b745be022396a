// Addresses of named roots that an aborted section has taken back. Bundles keep the addresses of roots in
// process-wide variables and trust them while they lie in the arena at hand.
#pragma once

namespace loom {
void revoke_root(const void* address);
/// The address is a root again.
void reinstate_root(const void* address);
bool is_revoked_root(const void* address);
} // namespace loom
