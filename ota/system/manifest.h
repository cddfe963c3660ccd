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

int parse_system_manifest();
int check_system_update(bool verbose);
// Quiet (the periodic check) keeps the notes without printing them.
void fetch_system_notes(bool quiet);
void write_system_status(const char* phase);
int system_search();
int system_background_check();
int system_status();

}  // namespace ota
