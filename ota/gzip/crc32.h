#pragma once
// CRC-32 as gzip uses it: the reflected polynomial 0xEDB88320, register preset to all
// ones and complemented at the end. The value passed in and returned is the finished
// checksum, so crc32_update(0, data, n) is the CRC-32 of data, and a message fed in
// pieces, each call given the previous result, ends with the same value as fed whole.

#include "runtime/syscall.h"

namespace ota {

// Uses carry-less multiplication when the processor has it, the tables otherwise.
u32 crc32_update(u32 crc, const u8* data, usize n);

// The table-driven path alone (slicing by eight bytes), whatever the processor offers.
u32 crc32_update_portable(u32 crc, const u8* data, usize n);

// For tests: while on is non-zero, crc32_update takes the table-driven path only.
void crc32_force_portable(int on);

}  // namespace ota
