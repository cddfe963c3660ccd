#include "config/settings.h"
#include "records/trial_record.h"
#include "runtime/process.h"
#include "runtime/text.h"
#include "trial/trial.h"

namespace ota {

namespace {

constexpr u64 kDefaultGrace = 120;    // frist=
constexpr u64 kDefaultHealthy = 60;   // gesund=
// A grace period no longer than the time before health is tested would end before the
// first test; the start-up check then waits this much beyond it.
constexpr u64 kGraceBeyondHealthy = 60;

// A confirmed record: 36 bytes and an ok digit other than '0'.
bool trial_confirmed() {
  char record[kTrialReadBytes];
  return read_trial_record(record) && record[kTrialOkOffset] != '0';
}

}  // namespace

bool process_running(const char* name) { return task_named(name); }

int boot_command(const char* process) {
  load_settings();
  if (!in_trial()) return service_loop(0);
  u64 healthy_after = setting_number("gesund=", kDefaultHealthy);
  u64 grace = setting_number("frist=", kDefaultGrace);
  if (grace <= healthy_after) grace = healthy_after + kGraceBeyondHealthy;
  u64 t = 0;
  bool healthy = false;
  while (t < grace && !healthy) {
    sleep_ms(1000);
    t++;
    if (t >= healthy_after && in_trial() &&
        (process_running("desktop") || process_running("glogin") || (process != nullptr && process_running(process)))) {
      healthy = true;
    }
    if (!in_trial()) return service_loop(0);
  }
  if (healthy) {
    say_number("ota: start healthy, trial confirmed after ", t);
    confirm_command();
    return service_loop(0);
  }
  print_out("ota: start NOT healthy within the grace period -- restart, the kernel counts\n");
  restart_now();
  return 1;
}

int watchdog_command(const char* seconds) {
  load_settings();
  u64 grace = seconds != nullptr ? parse_decimal(seconds) : setting_number("frist=", kDefaultGrace);
  if (!in_trial()) {
    print_out("ota: nothing in trial\n");
    return 0;
  }
  for (u64 t = 1; t <= grace; t++) {
    sleep_ms(1000);
    if (trial_confirmed()) {
      say_number("ota: watchdog: confirmed after ", t);
      return 0;
    }
  }
  print_out("ota: WATCHDOG: no confirmation within the grace period\nota: WATCHDOG: restart -- the kernel counts\n");
  restart_now();
  return 0;
}

}  // namespace ota
