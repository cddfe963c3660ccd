#include "grow/grow.h"

#include "runtime/process.h"
#include "runtime/text.h"

namespace ota {

namespace {

// No real progress has this tenth, so the first progress reading is always printed.
constexpr u64 kNoTenthYet = 100;

u64 kernel_grow(u64 operation, u64 argument) { return sys_fs_grow(operation, argument); }

}  // namespace

void grow_report_with(GrowCall grow) {
  say_number("grow: state ", grow(TAVI_GROW_QUERY, TAVI_GROW_STATE));
  say_number("grow: fs blocks ", grow(TAVI_GROW_QUERY, TAVI_GROW_FS_BLOCKS));
  say_number("grow: device blocks ", grow(TAVI_GROW_QUERY, TAVI_GROW_DEVICE_BLOCKS));
  say_number("grow: inodes ", grow(TAVI_GROW_QUERY, TAVI_GROW_INODES));
  say_number("grow: ext inodes ", grow(TAVI_GROW_QUERY, TAVI_GROW_EXT_INODES));
}

// "grow: not possible" and "grow: failed " are failures and go to standard error, as every
// failure line of the program does; progress, "grow: done" and the report go to standard
// output. In the background both streams end up in the log.
bool grow_run_with(GrowCall grow) {
  u64 state = grow(TAVI_GROW_QUERY, TAVI_GROW_STATE);
  if (state == TAVI_GROW_DONE) {
    say_text("grow: done", "");
    grow_report_with(grow);
    return true;
  }
  if (state == TAVI_GROW_IMPOSSIBLE) {
    report_failure("grow: not possible", nullptr);
    grow_report_with(grow);
    return false;
  }
  // The kernel keeps the growth's state, so there is no limit here: an interrupted growth
  // is taken up again by the next run.
  u64 last_tenth = kNoTenthYet;
  for (;;) {
    u64 result = grow(TAVI_GROW_STEP, kGrowStepUnits);
    if (result == TAVI_GROW_FINISHED) {
      say_text("grow: done", "");
      grow_report_with(grow);
      return true;
    }
    if (result != TAVI_GROW_MORE) return report_failure_number("grow: failed ", result);
    u64 tenth = grow(TAVI_GROW_QUERY, TAVI_GROW_PERMILLE) / 100;
    if (tenth != last_tenth) {
      say_number("grow: permille ", tenth * 100);
      last_tenth = tenth;
    }
  }
}

void grow_report() { grow_report_with(kernel_grow); }

bool grow_run() { return grow_run_with(kernel_grow); }

int grow_in_background() {
  i64 pid = go_background(kGrowLogPath);
  if (pid < 0) return 1;
  if (pid > 0) {
    say_text("grow: started in background", "");
    return 0;
  }
  return grow_run() ? 0 : 1;
}

int grow_command(ArgBlock block, u64 count, u64 first) {
  const char* word = first < count ? arg_word(block, first) : nullptr;
  if (word != nullptr && str_equal(word, "status")) {
    grow_report();
    return 0;
  }
  if (word != nullptr && str_equal(word, "bg")) return grow_in_background();
  return grow_run() ? 0 : 1;
}

}  // namespace ota
