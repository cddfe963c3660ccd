#pragma once
// `ota apply`: download, check and install the offered packages through /bin/tpk.

#include "runtime/syscall.h"

namespace ota {

int apply_command();
int apply_packages();
// 1 when /tmp/ota/<file> holds exactly length bytes with the given SHA-256 (fetching
// and resuming up to three times); 0 after the failure line was printed.
int download_package(const char* file, u64 length, const char* hash_text);
// The same check and fetch with the file kept at local instead of the work directory.
int checked_download(const char* file, const char* local, u64 length, const char* hash_text);

}  // namespace ota
