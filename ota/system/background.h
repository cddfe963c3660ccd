#pragma once
// The apply in the background: a forked ota whose output goes to a log and whose
// progress is kept in /system/sys.apply, watched through `ota system status`.

#include "runtime/syscall.h"

namespace ota {

constexpr const char* kApplyStatePath = "/system/sys.apply";
constexpr const char* kApplyLogPath = "/system/sys.applylog";

void write_apply_state(const char* text);
int apply_in_background(bool restart, bool force);
bool apply_task_alive();
void apply_report();

}  // namespace ota
