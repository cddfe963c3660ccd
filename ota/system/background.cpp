#include "system/background.h"

#include "runtime/files.h"
#include "runtime/process.h"
#include "runtime/text.h"
#include "system/apply.h"
#include "system/manifest.h"

namespace ota {

namespace {

// The state file's one line: this key, then the state word (and for a running apply the
// child's id).
constexpr const char* kStateKey = "state=";
constexpr usize kStateKeyLength = text_length(kStateKey);
constexpr const char* kRunning = "state=running";
constexpr usize kRunningLength = text_length(kRunning);
constexpr const char* kRunningWithPid = "state=running pid=";
constexpr usize kRunningWithPidLength = text_length(kRunningWithPid);

struct ApplyState {
  char text[kApplyStateBytes + 1];
  i64 length;
};

void read_apply_state(ApplyState* state) {
  state->length = read_file(kApplyStatePath, state->text, kApplyStateBytes);
  state->text[state->length > 0 ? state->length : 0] = 0;
}

bool state_running(const ApplyState& state) {
  return state.length >= static_cast<i64>(kRunningLength) && str_starts_with(state.text, kRunning);
}

u64 state_pid(const ApplyState& state) {
  if (state.length < static_cast<i64>(kRunningWithPidLength + 1) || !str_starts_with(state.text, kRunningWithPid)) {
    return 0;
  }
  return parse_decimal(state.text + kRunningWithPidLength);
}

bool alive(const ApplyState& state) {
  if (!state_running(state)) return false;
  u64 pid = state_pid(state);
  // Without an identifier the child has not written its line yet: it counts as alive.
  if (pid == 0) return true;
  return is_own_task(pid);
}

}  // namespace

void write_apply_state(const char* text) { replace_file(kApplyStatePath, text, str_len(text)); }

bool apply_task_alive() {
  ApplyState state;
  read_apply_state(&state);
  return alive(state);
}

int apply_in_background(bool restart, bool force) {
  ApplyState state;
  read_apply_state(&state);
  if (state_running(state)) {
    if (alive(state) && !force) {
      print_out("system: an apply is already running (state in /system/sys.apply)\n");
      return 1;
    }
    print_out("system: the previous apply died, its running state was released\n");
  }
  write_apply_state("state=running\n");
  u64 pid = sys_fork();
  if (is_error(pid)) {
    write_apply_state("state=failed\n");
    return fail("ota: could not start the background apply", nullptr);
  }
  if (pid != 0) {
    print_out("system: apply started in the background, watch: ota system status\n");
    return 0;
  }
  char line[kApplyStateBytes];
  usize len = str_copy(line, kRunningWithPid);
  len += format_decimal(sys_getpid(), line + len, 0);
  str_append_char(line, len, '\n');
  write_apply_state(line);
  redirect_output(kApplyLogPath);
  int r = system_apply(restart, true);
  write_apply_state(r == 0 ? "state=done\n" : "state=failed\n");
  return r;
}

void apply_report() {
  ApplyState state;
  read_apply_state(&state);
  // A file that holds no more than the key says nothing.
  if (state.length <= static_cast<i64>(kStateKeyLength)) return;
  print_out("system: apply ");
  print_bytes(state.text + kStateKeyLength, static_cast<usize>(state.length) - kStateKeyLength);
  if (state_running(state) && !alive(state)) {
    print_out("system: apply state is stale (the task is gone), use: ota system apply bg force\n");
  }
  char log[kApplyLogShownBytes];
  i64 n = read_file(kApplyLogPath, log, sizeof log);
  if (n > 0) {
    print_out("system: apply log:\n");
    print_bytes(log, static_cast<usize>(n));
  }
}

}  // namespace ota
