#include "runtime/process.h"

#include "runtime/text.h"

namespace ota {

i64 run_program(const char* path, const char* const* words, u64 count) {
  u64 pid = sys_spawn(path, words, count);
  if (is_error(pid)) return -1;
  return wait_exit(pid);
}

i64 wait_exit(u64 pid) {
  int status = 0;
  u64 r = sys_wait4(pid, &status);
  if (is_error(r)) {
    last_error = -static_cast<i64>(r);
    return -1;
  }
  return (static_cast<u32>(status) >> 8) & 255;
}

void sleep_ms(u64 ms) {
  SleepRequest request{static_cast<i64>(ms / 1000), static_cast<i64>((ms % 1000) * 1000000)};
  sys_nanosleep(&request);
}

u64 pack_name8(const char* name) {
  u64 packed = 0;
  for (int i = 0; i < 8 && name[i] != 0; i++) packed |= static_cast<u64>(static_cast<u8>(name[i])) << (8 * i);
  return packed;
}

bool slot_is_live(u64 slot) {
  u64 state = sys_task_info(slot, TAVI_TASK_STATE);
  return !is_error(state) && state != TAVI_TASK_FREE && state != TAVI_TASK_ENDED;
}

bool task_named(const char* name) {
  u64 wanted = pack_name8(name);
  for (u64 slot = 0; slot < kHealthSlots; slot++) {
    if (!slot_is_live(slot)) continue;
    if (sys_task_info(slot, TAVI_TASK_NAME_LOW) == wanted) return true;
  }
  return false;
}

namespace {

// The slot's whole name, closed with a 0.
void slot_name(u64 slot, char out[TAVI_TASK_NAME_BYTES + 1]) {
  u64 words[2] = {sys_task_info(slot, TAVI_TASK_NAME_LOW), sys_task_info(slot, TAVI_TASK_NAME_HIGH)};
  for (int i = 0; i < TAVI_TASK_NAME_BYTES; i++) out[i] = static_cast<char>((words[i / 8] >> (8 * (i % 8))) & 255);
  out[TAVI_TASK_NAME_BYTES] = 0;
}

}  // namespace

u64 end_tasks_named(const char* name) {
  u64 ended = 0;
  for (u64 slot = 0; slot < kTaskSlots; slot++) {
    if (!slot_is_live(slot)) continue;
    char task[TAVI_TASK_NAME_BYTES + 1];
    slot_name(slot, task);
    if (!str_equal(task, name)) continue;
    u64 pid = sys_task_info(slot, TAVI_TASK_PID);
    if (!is_error(sys_end_task(pid, kEndTaskStatus))) ended++;
  }
  return ended;
}

bool is_own_task(u64 pid) {
  if (pid == 0 || pid == sys_getpid()) return false;
  for (u64 slot = 0; slot < kTaskSlots; slot++) {
    if (!slot_is_live(slot)) continue;
    if (sys_task_info(slot, TAVI_TASK_PID) != pid) continue;
    return sys_task_info(slot, TAVI_TASK_NAME_LOW) == pack_name8("ota") && sys_task_info(slot, TAVI_TASK_NAME_HIGH) == 0;
  }
  return false;
}

void redirect_output(const char* log_path) {
  u64 log = sys_open(log_path, kOpenCreate);
  // Standard input is closed even when the log cannot be opened; the output then goes
  // wherever the parent's went.
  sys_close(0);
  if (is_error(log)) return;
  sys_dup2(static_cast<int>(log), 1);
  sys_dup2(static_cast<int>(log), 2);
  sys_close(static_cast<int>(log));
}

i64 go_background(const char* log_path) {
  u64 pid = sys_fork();
  if (is_error(pid)) return -1;
  if (pid != 0) return static_cast<i64>(pid);
  redirect_output(log_path);
  return 0;
}

void restart_now() {
  sys_sync();
  sys_reboot(TAVI_RESTART);
}

}  // namespace ota
