#pragma once
// The system manifest: the signed file pair of the system source, read into the shared
// fields below, and the small status files of the system side.

#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

constexpr const char* kSystemVersionPath = "/system/SYSVERSION";
constexpr const char* kSystemStatePath = "/system/sys.stand";
constexpr const char* kSystemNotesPath = "/system/sys.notes";
constexpr const char* kSystemNotifiedPath = "/system/sys.notified";
constexpr const char* kSystemPendingPath = "/system/SYSPENDING";
struct ManifestFile {
  char sha[kShaFieldBytes];
  u64 size;
  char name[kEntryNameBytes];
};

struct SystemManifest {
  u64 build;
  char commit[kCommitBytes];
  u64 min_from;
  ManifestFile kernel;
  ManifestFile notes;
  ManifestFile roots;
  u64 file_count;
  bool unknown_entry;
};
extern SystemManifest manifest;

// What the update check found: a newer build that may be installed; nothing (up to date,
// or the fetch or the parse failed); a newer build this one is too old to update to. The
// values are the exit statuses `ota system search` ends with.
enum class SystemCheck { offered = 0, nothing = 1, too_old = 2 };
constexpr int exit_status(SystemCheck check) { return static_cast<int>(check); }

// False, with the reason printed, when the manifest has no usable system or kernel line.
bool parse_system_manifest();
SystemCheck check_system_update(bool verbose);
// Quiet (the periodic check) keeps the notes without printing them.
void fetch_system_notes(bool quiet);
void write_system_status(const char* phase);
int system_search();
// The service loop's periodic check: nothing while a trial is open or pending; otherwise
// the check, quiet, with a desktop notice once per newly offered build.
SystemCheck system_background_check();
int system_status();

}  // namespace ota
