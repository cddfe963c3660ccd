#include "records/trial_record.h"

#include "runtime/files.h"

namespace ota {

bool read_trial_record(char* buf) {
  return read_file(kTrialRecordPath, buf, kTrialReadBytes) == static_cast<i64>(kTrialRecordBytes);
}

bool in_trial() {
  char record[kTrialReadBytes];
  return read_trial_record(record) && record[kTrialOkOffset] == '0';
}

}  // namespace ota
