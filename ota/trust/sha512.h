#pragma once
// SHA-512 (FIPS 180-4), only for Ed25519: each verification hashes into a context of its
// own on its stack.

#include "runtime/syscall.h"

namespace ota {

constexpr usize kSha512DigestBytes = 64;
constexpr usize kSha512BlockBytes = 128;

struct Sha512 {
  u64 chain[8];
  u8 block[kSha512BlockBytes];
  usize waiting;  // bytes in block, 0..127
  u64 total;      // bytes hashed so far
};

void sha512_init(Sha512& context);
void sha512_update(Sha512& context, const void* bytes, usize length);
void sha512_final(Sha512& context, u8 out[kSha512DigestBytes]);

}  // namespace ota
