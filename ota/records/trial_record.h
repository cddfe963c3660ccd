#pragma once
// The trial record /system/ERPROBUNG: the one source of truth for "a new state runs on
// trial". Its own small module, because both the trial commands and the system update
// read it.

#include "runtime/syscall.h"

namespace ota {

constexpr const char* kTrialRecordPath = "/system/ERPROBUNG";
// Exactly 36 bytes: "gen=" 8 digits " vor=" 8 digits " v=" 2 digits " ok=" digit LF.
constexpr usize kTrialRecordBytes = 36;
// Readers read up to 39 bytes so a longer file shows as not-a-record.
constexpr usize kTrialReadBytes = 39;
constexpr usize kTrialGenerationOffset = 4;
constexpr usize kTrialReturnOffset = 17;
constexpr usize kTrialOkOffset = 34;

// Reads the record into buf (kTrialReadBytes); 1 when it has exactly 36 bytes.
int read_trial_record(char* buf);
// A record of 36 bytes whose ok digit is '0'.
int in_trial();

}  // namespace ota
