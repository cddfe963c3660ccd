#pragma once
#include "runtime/syscall.h"
namespace ota {
void sha256_init();
void sha256_update(const void* bytes, usize length);
void sha256_final(u8 out[32]);
int sha256_file(const char* path, u8 out[32]);
}  // namespace ota
