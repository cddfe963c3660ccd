#pragma once
// `ota apply`: download, check and install the offered packages through /bin/tpk.

#include "runtime/syscall.h"

namespace ota {

int apply_command();
// Downloads, checks and installs; false after the failure was printed.
bool apply_packages();
// True when /tmp/ota/<file> holds exactly length bytes with the given SHA-256 (fetching
// and resuming up to three times); false after the failure line was printed.
bool download_package(const char* file, u64 length, const char* hash_text);
// The same check and fetch with the file kept at local instead of the work directory.
bool checked_download(const char* file, const char* local, u64 length, const char* hash_text);

}  // namespace ota
