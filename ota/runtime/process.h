#pragma once
// Starting and waiting for outside programs, sleeping, the kernel's task table, the
// background fork and the restart.

#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

// The status every task ended by end_task gets: that of a task killed by signal 9
// (128 + 9), which is what ending it from outside is.
constexpr u64 kEndTaskStatus = 137;

i64 run_program(const char* path, const char* const* words, u64 count);
i64 wait_exit(u64 pid);
void sleep_ms(u64 ms);
// The first up to 8 bytes of name, first byte lowest, zero bytes after a shorter name.
u64 pack_name8(const char* name);
// Whether a task-table slot holds a live task (state call succeeded, state not 0 or 5).
bool slot_is_live(u64 slot);
bool task_named(const char* name);
u64 end_tasks_named(const char* name);
bool is_own_task(u64 pid);
// fork: the child's id in the parent, 0 in the child (its output now goes to log_path),
// or -1 when the fork failed.
i64 go_background(const char* log_path);
// In a background child: standard input closed, output and errors to log_path.
void redirect_output(const char* log_path);
void restart_now();

}  // namespace ota
