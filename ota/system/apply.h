#pragma once
// `ota system apply`: from the offered build to a state in which a restart boots it on
// trial, or to files applied at once when the kernel does not change.

#include "runtime/syscall.h"

namespace ota {

// In the background apply the state file says "done" before a restart.
int system_apply(bool restart, bool in_background);
int apply_without_kernel();
bool fetch_kernel_to_slot_b();
bool slot_a_is_offered_kernel();
void update_trust_roots();
void restart_shell_programs();

}  // namespace ota
