#pragma once
// The system manifest: the signed file pair of the system source, read into the shared
// fields below, and the small status files of the system side.

#include "runtime/syscall.h"

namespace ota {

constexpr const char* kSystemVersionPath = "/system/SYSVERSION";
constexpr const char* kSystemStatePath = "/system/sys.stand";
constexpr const char* kSystemNotesPath = "/system/sys.notes";
constexpr const char* kSystemNotifiedPath = "/system/sys.notified";
constexpr const char* kSystemPendingPath = "/system/SYSPENDING";
// Release notes are kept and shown up to this size; larger notes are not fetched.
constexpr u64 kNotesLimit = 2000;

// Capacities of the manifest fields (characters kept plus the closing 0).
constexpr usize kBuildFieldBytes = 20;
constexpr usize kCommitBytes = 20;
constexpr usize kKindBytes = 24;
constexpr usize kShaFieldBytes = 70;
constexpr usize kSizeFieldBytes = 20;
constexpr usize kEntryNameBytes = 120;

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

// Set only during the periodic check: release notes are then kept but not printed.
extern bool system_quiet;
// Set in the forked background apply.
extern bool system_background;

int parse_system_manifest();
int check_system_update(bool verbose);
void fetch_system_notes();
void write_system_status(const char* phase);
int system_search();
int system_background_check();
int system_status();

}  // namespace ota
