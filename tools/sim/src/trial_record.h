#pragma once
// The package trial record a device keeps in /system/ERPROBUNG: "gen=G vor=V v=NN ok=D",
// the device's own fixed-length layout. The installer model opens trials with it, the
// kernel model counts starts in it, and the fleet rehearsal reads and seeds it.

#include <cstdint>
#include <optional>
#include <string>

namespace tavisim {

constexpr const char* kTrialRecordPath = "/system/ERPROBUNG";

// Whether the record (as read, or none) is a whole one whose trial is not yet confirmed.
bool trial_open(const std::optional<std::string>& record);
// A newly opened trial's record: generation `gen`, the one before it `before`, no start
// counted, not confirmed.
std::string open_trial_record(uint64_t gen, uint64_t before);

}  // namespace tavisim
