#pragma once
// The trial record /system/ERPROBUNG: the one source of truth for "a new state runs on
// trial". Its own small module, because both the trial commands and the system update
// read it.

#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

constexpr const char* kTrialRecordPath = "/system/ERPROBUNG";
// The device's current generation, eight digits: a system trial is armed with it in both
// generation fields of the record, and `ota show` prints it.
constexpr const char* kCurrentGenerationPath = "/system/AKTUELL";
// Its layout (36 bytes, read up to 39) is in device_limits.h.

// Reads the record into buf (kTrialReadBytes); true when it has exactly 36 bytes.
bool read_trial_record(char* buf);
// A record of 36 bytes whose ok digit is '0'.
bool in_trial();

}  // namespace ota
