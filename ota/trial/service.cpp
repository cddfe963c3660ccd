#include "config/settings.h"
#include "packages/apply.h"
#include "packages/fetch.h"
#include "packages/update_state.h"
#include "records/trial_record.h"
#include "runtime/process.h"
#include "runtime/text.h"
#include "system/manifest.h"
#include "trial/trial.h"

namespace ota {

bool service_with_system = false;

namespace {

constexpr u64 kDefaultInterval = 3600;        // abstand=
constexpr u64 kDefaultSystemInterval = 21600;  // sysabstand=
constexpr u64 kDefaultStartDelay = 180;        // start=
// A source that cannot be reached is asked again soon, then less and less often: after
// 30 seconds, doubled with each failed pass up to 480, never later than the interval.
constexpr u64 kFirstBackoff = 30;
constexpr u64 kMostDoublings = 4;
// After this many failed passes in a row the full interval is waited once.
constexpr u64 kLongestStreak = 20;

void sleep_seconds(u64 seconds) {
  for (u64 i = 0; i < seconds; i++) sleep_ms(1000);
}

int service_off() {
  print_out("ota: automatic search is OFF\n");
  return 0;
}

}  // namespace

int service_loop(u64 passes) {
  load_settings();
  char automatic[kAutoBytes];
  if (setting_text("auto=", automatic, sizeof automatic) && !str_equal(automatic, "ja") &&
      !str_equal(automatic, "true")) {
    return service_off();
  }
  u64 interval = setting_number("abstand=", kDefaultInterval);
  if (interval == 0) return service_off();
  say_number("ota: service, interval ", interval);
  u64 system_interval = setting_number("sysabstand=", kDefaultSystemInterval);
  bool system_searches = system_interval != 0 && (passes == 0 || service_with_system);
  if (passes == 0) sleep_seconds(setting_number("start=", kDefaultStartDelay));

  u64 count = 0;
  u64 streak = 0;
  u64 system_due_in = 0;
  for (;;) {
    bool clock_was_due = clock_needs_sync();
    if (clock_was_due) sync_clock();
    int r = search_command();
    if (r != 0 && catalog_fetch_failed) {
      // The catalog may have failed only because the clock was wrong: set it and try once
      // more, but only when the clock was not just set before this search.
      if (!clock_was_due && clock_needs_sync() && sync_clock()) {
        if (search_command() == 0 && !in_trial()) apply_command();
      }
    } else if (r == 0 && !in_trial()) {
      apply_command();
    }
    if (system_searches && system_due_in == 0) {
      // A build this one is too old for is asked about again at the next pass.
      if (system_background_check() != SystemCheck::too_old) system_due_in = system_interval;
    }
    count++;
    if (passes != 0 && count >= passes) return 0;

    u64 pause;
    if (!catalog_fetch_failed || streak >= kLongestStreak) {
      streak = 0;
      pause = interval;
    } else {
      pause = kFirstBackoff << (streak < kMostDoublings ? streak : kMostDoublings);
      if (pause > interval) pause = interval;
      streak++;
    }
    sleep_seconds(pause);
    system_due_in = system_due_in > pause ? system_due_in - pause : 0;
  }
}

}  // namespace ota
