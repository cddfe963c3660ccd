#pragma once
// The update state record /system/ota.stand: what the updater last saw and is doing,
// for a desktop or a person to read. Also the forward-only version rule.

#include "runtime/syscall.h"

namespace ota {

constexpr const char* kUpdateStatePath = "/system/ota.stand";

// The last catalog's offered version; 0 until a catalog has been read.
extern u64 offered_version;
// Set by a search whose catalog load failed for any reason; read by the service loop.
extern bool catalog_fetch_failed;

void write_update_state(const char* phase);
bool state_is_ready();
// The forward-only rule: true when the offered version is newer than the one here, false
// (with the reason printed) when it is the same or older.
bool check_offered_version(u64 offered, u64 here, bool verbose);
// Writes the clock as "YYYY-MM-DD hh:mm" behind dst; returns the new length.
usize append_clock_text(char* dst, usize len);

int search_command();
int show_command();

}  // namespace ota
