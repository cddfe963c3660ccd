#pragma once
// Ed25519 signature verification (RFC 8032, plain form: no context, no pre-hashing).
// The program only verifies; it never signs and holds no private key.

#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

// A public key is kPublicKeyBytes, a signature kSignatureBytes: R (an encoded point)
// followed by S (a little-endian scalar).

// True when signature is a valid signature of the length bytes at message under
// public_key, false for everything else, without saying why. The rule is strict: S must be
// below the group order, the key and R must be canonical encodings of curve points and
// must not encode x = 0 with the sign bit set, and [S]B = R + [k]A must hold exactly
// (without the cofactor). Small-order keys and R are not refused for being small order.
bool ed25519_verify(const u8 public_key[kPublicKeyBytes], const u8* message, usize length,
                    const u8 signature[kSignatureBytes]);

// Why a public key should never be handed to devices; kKeyUsable when it may. The device
// itself never asks (verification stays the plain equation above); the release tool asks
// before it writes a key or a key change, with the device's own decoding. A key of small
// order is the worst case: the check without the cofactor then accepts R = B, S = 1 (a
// fixed forgery) for any message under the identity key.
constexpr int kKeyUsable = 0;
constexpr int kKeyNotCanonical = 1;  // y is p = 2^255 - 19 or more
constexpr int kKeyNotOnCurve = 2;    // no x for this y: every verification fails
constexpr int kKeyZeroXSigned = 3;   // x = 0 with the sign bit set
constexpr int kKeySmallOrder = 4;    // [8]A is the neutral point
#ifdef OTA_HOST_BUILD
int ed25519_key_problem(const u8 public_key[kPublicKeyBytes]);
#endif

}  // namespace ota
