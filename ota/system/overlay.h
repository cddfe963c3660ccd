#pragma once
// Overlay files of a system update: downloaded and checked into /system/new, moved into
// place with the previous files kept in /system/old, under a journal that makes a
// restore possible after a restart.

#include "runtime/syscall.h"

namespace ota {

constexpr const char* kJournalPath = "/system/SYSOVL";

enum class ReplayMode { install, restore, commit };

// Target rules. A bare name goes to /bin; an absolute path must lie in one of the
// overlay areas.
bool valid_bare_name(const char* name);
bool valid_target(const char* target);
bool valid_link(const char* path, const char* target);
// The real path of a valid target; whether it is installed executable.
void target_real_path(const char* target, char* out);
bool target_is_executable(const char* target);
// dir + "/" + the staging name of a target ("/etc/a/b" is staged as "etc@a@b").
void staging_path(const char* dir, const char* target, char* out);
// Builds the journal text for the current manifest into out (capacity kJournalLimit+1);
// the length, or -1 when it would not fit.
i64 build_overlay_journal(char* out);

bool stage_overlay_files();
bool fetch_overlay_file(const char* target, const char* name, u64 size, const char* sha256, const char* destination);
bool gunzip_file(const char* source, const char* destination);
bool write_overlay_journal();
bool replay_overlay_journal(ReplayMode mode);
bool install_overlay();
bool restore_overlay();
void commit_overlay();
void clean_staging();

}  // namespace ota
