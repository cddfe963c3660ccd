#pragma once
// The EFI system partition: found among the boot disks' first partitions, mounted at
// /sysesp for the length of one operation, and the two kernel slots on it.

#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

extern char slot_a_path[kSlotPathBytes];
extern char slot_b_path[kSlotPathBytes];

// "/sysesp", the kernel directory (below kKernelDirBytes) and the file, into out
// (kSlotPathBytes).
void build_slot_path(char* out, const char* dir, const char* file);
bool try_mount_esp(const char* device);
bool mount_esp();
void unmount_esp();
int esp_report();
// The menu as last read, closed with a 0 after what was read.
extern char esp_menu_text[kMenuTextBytes + 1];
// Reads the menu into esp_menu_text; the byte count, or -1.
i64 read_menu();

}  // namespace ota
