#pragma once
#include "runtime/syscall.h"
namespace ota {
int ed25519_verify(const u8 public_key[32], const u8* message, usize length, const u8 signature[64]);
}  // namespace ota
