#include "trial_record.h"

#include "device_limits.h"
#include "host.h"

namespace tavisim {

bool trial_open(const std::optional<std::string>& record) {
  return record && record->size() == ota::kTrialRecordBytes && (*record)[ota::kTrialOkOffset] == '0';
}

std::string open_trial_record(uint64_t gen, uint64_t before) {
  return "gen=" + eight_digits(gen) + " vor=" + eight_digits(before) + " v=00 ok=0\n";
}

}  // namespace tavisim
