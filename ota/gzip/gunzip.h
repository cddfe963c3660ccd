#pragma once
// Unpacking one gzip member (RFC 1952) whose data is DEFLATE (RFC 1951), streamed from
// one open descriptor to another through a 32 KiB window, with the CRC-32 and the length
// of the output checked against the member's trailer.

#include "runtime/syscall.h"

namespace ota {

// Results of gunzip_stream. The numbering has no 2 and keeps the gap.
constexpr u64 kGunzipOk = 0;
// A read found the end of the input before the member was complete.
constexpr u64 kGunzipTruncated = 1;
// Not a gzip header for DEFLATE, or DEFLATE data that breaks the format's rules.
constexpr u64 kGunzipMalformed = 3;
// The output's CRC-32 or length differs from the trailer.
constexpr u64 kGunzipCheckFailed = 4;
// A read failed, or a write failed or wrote nothing.
constexpr u64 kGunzipIoFailed = 5;

// Decodes the first member read from input_fd and writes its content to output_fd.
// Both descriptors are open and positioned; neither is closed or synced. Bytes after the
// member are never asked of the input beyond what the last 4096-byte read returned.
// The first failure stops the decoding; output already written stays written.
u64 gunzip_stream(int input_fd, int output_fd);

}  // namespace ota
