#pragma once
// The pending system update: the trial armed when a kernel is staged, the record of what
// is pending, and the decision after the restart.

#include "runtime/syscall.h"

namespace ota {

bool arm_system_trial();
bool write_pending_record();
bool system_trial_pending();
// Whether the seven characters after the first " build " of /proc/version equal the
// first seven of commit7 (which must hold at least seven readable bytes).
bool running_kernel_is(const char* commit7);

// What the confirmation after a restart decided: nothing (no update pending, or it cannot
// be decided yet and stays pending), the trial kernel promoted to slot A, or the update
// dropped (rolled back, or a pending record that cannot be read).
enum class SystemTrialDecision { undecided = 0, promoted = 1, dropped = 2 };
SystemTrialDecision confirm_system_update();

}  // namespace ota
