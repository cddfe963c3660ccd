#pragma once
// Versions a signed catalog withdrew. The device remembers every one it has seen in
// /system/GESPERRT, so a replayed or later catalog cannot bring one back.

#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

constexpr const char* kBlockedPath = "/system/GESPERRT";

// The program-wide copy of the file: what was read of it, and the records that count
// (the table grows at its end when a catalog adds one).
struct BlockedTable {
  char bytes[kBlockedFileBytes];
  u64 count;
};
extern BlockedTable blocked;

void load_blocked_versions();
bool is_in_blocked_list(u64 version);
// True when the version was added: it was not stored yet and the table has room.
bool add_blocked_version(u64 version);
void merge_blocked_versions();
bool version_is_blocked(u64 version);
void print_blocked_versions();

}  // namespace ota
