#pragma once
#include "runtime/syscall.h"
namespace ota {
int grow_command(const u64* block, u64 count, u64 first);
}  // namespace ota
