#pragma once
// Ed25519 signature verification (RFC 8032, plain form: no context, no pre-hashing).
// The program only verifies; it never signs and holds no private key.

#include "runtime/syscall.h"

namespace ota {

constexpr usize kPublicKeyBytes = 32;
// R (an encoded point) followed by S (a little-endian scalar).
constexpr usize kSignatureBytes = 64;

// 1 when signature is a valid signature of the length bytes at message under
// public_key, 0 for everything else, without saying why. The rule is strict: S must be
// below the group order, the key and R must be canonical encodings of curve points and
// must not encode x = 0 with the sign bit set, and [S]B = R + [k]A must hold exactly
// (without the cofactor). Small-order keys and R are not refused for being small order.
int ed25519_verify(const u8 public_key[kPublicKeyBytes], const u8* message, usize length,
                   const u8 signature[kSignatureBytes]);

}  // namespace ota
