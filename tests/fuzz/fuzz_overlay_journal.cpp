// The overlay journal replay, in each mode, over a fuzzed /system/SYSOVL in a scratch
// device root.
//
// Input: a mode byte (0 install, 1 restore, 2 commit), a byte whose bits say which of a
// few files already exist (live files, staged copies, backups), then the journal.
//
// Checked: the replay returns; it touches no relative path (it runs in an empty working
// directory of its own, where one would show); everything in the scratch root afterwards
// lies in the device's state directories or in the overlay areas; commit and restore
// leave no staged copy of a valid file entry behind, and commit no backup either.
#include <string.h>

#include "fuzz_support.h"
#include "system/overlay.h"

namespace {

// Files that may exist before the replay, one per bit of the second byte.
const char* const kExisting[] = {"/bin/ls", "/system/new/ls", "/system/old/ls", "/etc/net/hosts.conf",
                                 "/system/new/etc@net@hosts.conf", "/system/old/etc@net@hosts.conf",
                                 "/bin/sh", "/apps/clock/start"};

std::string cwd_dir;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  DeviceRoot& root = DeviceRoot::get();
  cwd_dir = root.path() + "-cwd";
  mkdir(cwd_dir.c_str(), 0700);
  atexit([] { remove_tree(cwd_dir); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  int mode = data[0] % 3;
  uint8_t existing = data[1];
  data += 2;
  size -= 2;
  std::string journal(reinterpret_cast<const char*>(data), size);

  DeviceRoot& root = DeviceRoot::get();
  root.reset();
  for (const char* d : {"/system/new", "/system/old", "/etc/net", "/apps", "/apps/clock"}) {
    mkdir(root.path(d).c_str(), 0700);
  }
  for (int i = 0; i < 8; i++) {
    if (existing & (1 << i)) root.put(kExisting[i], std::string("content of ") + kExisting[i]);
  }
  root.put("/system/SYSOVL", journal);

  ota::ReplayMode modes[] = {ota::ReplayMode::install, ota::ReplayMode::restore, ota::ReplayMode::commit};
  // The replay runs in an empty working directory of its own, where a relative path
  // would show.
  char saved_cwd[4096];
  if (getcwd(saved_cwd, sizeof saved_cwd) == nullptr || chdir(cwd_dir.c_str()) != 0) abort();
  {
    Silence quiet;
    ota::replay_overlay_journal(modes[mode]);
  }
  if (chdir(saved_cwd) != 0) abort();

  // Nothing relative: the working directory stays empty.
  std::vector<std::string> stray;
  list_tree(cwd_dir, "", &stray);
  FUZZ_CHECK(stray.empty());

  // Only commit and restore remove staged copies; neither ever leaves one of a valid file
  // line. Commit also removes the backups.
  if (mode != 0) {
    for (size_t start = 0; start < journal.size();) {
      size_t nl = journal.find('\n', start);
      size_t end = nl == std::string::npos ? journal.size() : nl;
      std::string line = journal.substr(start, end - start);
      start = end + 1;
      if (line.empty() || line[0] == 'L' || line[0] == 'N') continue;
      std::string target = line.substr(1, 130);
      if (target.find('\0') != std::string::npos || !ota::valid_target(target.c_str())) continue;
      char staged[128];
      ota::staging_path("/system/new", target.c_str(), staged);
      FUZZ_CHECK(!root.has(staged));
      if (mode == 2) {
        char backup[128];
        ota::staging_path("/system/old", target.c_str(), backup);
        FUZZ_CHECK(!root.has(backup));
      }
    }
  }

  // Everything in the root lies in the state directories or in the overlay areas.
  std::vector<std::string> all;
  list_tree(root.path(), "", &all);
  for (const std::string& p : all) {
    bool allowed = false;
    for (const char* area : {"etc", "system", "tmp", "proc", "bin", "sysesp", "apps", "usr", "lib"}) {
      size_t n = strlen(area);
      allowed = allowed || (p.compare(0, n, area) == 0 && (p.size() == n || p[n] == '/'));
    }
    FUZZ_CHECK(allowed);
  }
  return 0;
}
