#include "packages/fetch.h"
#include "packages/update_state.h"
#include "records/trial_record.h"
#include "runtime/text.h"
#include "system/pending.h"
#include "trial/trial.h"

namespace ota {

int confirm_command() {
  i64 code = run_tpk("trial", "ok", nullptr, nullptr, 3);
  if (code == 0) write_update_state("ruhe");
  // One confirmation covers both kinds of update: a pending system trial is decided too.
  confirm_system_update();
  return static_cast<int>(code);
}

int rollback_command() {
  char record[kTrialReadBytes];
  if (!read_trial_record(record)) {
    print_out("ota: nothing in trial\n");
    return 1;
  }
  // The ok digit is not consulted: a confirmed trial can still be undone while its
  // record exists.
  record[kTrialReturnOffset + kStoredDigits] = 0;
  i64 code = run_tpk("rollback", record + kTrialReturnOffset, nullptr, nullptr, 3);
  if (code != 0) return static_cast<int>(code);
  return static_cast<int>(run_tpk("rebuild", nullptr, nullptr, nullptr, 2));
}

}  // namespace ota
