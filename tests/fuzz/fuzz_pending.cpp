// The readers of the pending system update and of the trial record, over fuzzed files in
// a scratch device root.
//
// Input: a flag byte (bit 0: no /system/SYSPENDING; bit 1: no /proc/version; bit 2: no
// /system/ERPROBUNG), then length-prefixed /system/SYSPENDING (up to 400 bytes),
// /proc/version (up to 300) and /system/ERPROBUNG (up to 50).
//
// In the host build the partition cannot be mounted, so the confirmation can only end
// undecided or rolled back; which one follows from the record and /proc/version by the
// rules written again here. The trial record readers accept exactly 36 bytes.
#include <string.h>

#include "fuzz_support.h"
#include "records/trial_record.h"
#include "system/pending.h"

namespace {

// Where the value after key starts in the record as read (at most 300 bytes), or npos.
size_t after_key(const std::string& record, const std::string& key) {
  size_t at = record.find(key);
  return at == std::string::npos ? at : at + key.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  uint8_t flags = data[0];
  data++;
  size--;
  std::string pending = take_piece(data, size, 400);
  std::string version = take_piece(data, size, 300);
  std::string trial = take_piece(data, size, 50);

  DeviceRoot& root = DeviceRoot::get();
  for (const char* p : {"/system/SYSPENDING", "/proc/version", "/system/ERPROBUNG", "/system/sys.stand",
                        "/system/sys.stand.nw", "/system/SYSOVL"}) {
    root.remove(p);
  }
  if (!(flags & 1)) root.put("/system/SYSPENDING", pending);
  if (!(flags & 2)) root.put("/proc/version", version);
  if (!(flags & 4)) root.put("/system/ERPROBUNG", trial);

  // The trial record: exactly 36 bytes, and "in trial" when byte 34 is '0'.
  bool record = !(flags & 4) && trial.size() == 36;
  char buf[ota::kTrialReadBytes];
  FUZZ_CHECK(ota::read_trial_record(buf) == record);
  FUZZ_CHECK(ota::in_trial() == (record && trial[34] == '0'));
  FUZZ_CHECK(ota::system_trial_pending() == (!(flags & 1) && !pending.empty()));

  ota::SystemTrialDecision r;
  {
    Silence quiet;
    r = ota::confirm_system_update();
  }

  std::string held = (flags & 1) ? std::string() : pending.substr(0, 300);
  if (held.empty()) {
    FUZZ_CHECK(r == ota::SystemTrialDecision::undecided);
    FUZZ_CHECK(root.has("/system/SYSPENDING") == !(flags & 1));
    return 0;
  }
  size_t count = after_key(held, "count=");
  size_t commit = after_key(held, "commit=");
  size_t sha = after_key(held, "sha=");
  if (count == std::string::npos || commit == std::string::npos || sha == std::string::npos) {
    FUZZ_CHECK(r == ota::SystemTrialDecision::dropped);
    FUZZ_CHECK(!root.has("/system/SYSPENDING"));
    return 0;
  }
  // The running kernel is the pending one when the seven bytes after the first " build "
  // of /proc/version (read up to 200 bytes) equal the seven after "commit=" (the record is
  // read into zeros, so a short record compares zeros there).
  std::string running = (flags & 2) ? std::string() : version.substr(0, 200);
  std::string commit7 = (held + std::string(80, '\0')).substr(commit, 7);
  size_t build = running.find(" build ");
  bool same = build != std::string::npos && (running + std::string(8, '\0')).compare(build + 7, 7, commit7) == 0;
  if (!same) {
    FUZZ_CHECK(r == ota::SystemTrialDecision::dropped);
    FUZZ_CHECK(!root.has("/system/SYSPENDING"));
    FUZZ_CHECK(root.get("/system/sys.stand").find("phase=failed\n") != std::string::npos);
  } else {
    // The partition cannot be mounted here: the decision waits, and the record stays.
    FUZZ_CHECK(r == ota::SystemTrialDecision::undecided);
    FUZZ_CHECK(root.get("/system/SYSPENDING") == pending);
  }
  return 0;
}
