#pragma once
// SHA-256 as FIPS 180-4 defines it, with one hash state for the whole program: a hash
// runs from sha256_init to sha256_final with no other hash in between. Every digest the
// program uses comes from sha256_file.

#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

constexpr usize kSha256DigestBytes = 32;
// The digest as text: two lowercase hex digits per byte, 64 characters, and in a buffer
// the terminating zero. A hash text of any other length in a catalog or record is no hash.
constexpr usize kDigestHexLength = 2 * kSha256DigestBytes;
constexpr usize kDigestHexBytes = kDigestHexLength + 1;

void sha256_init();
void sha256_update(const void* bytes, usize length);
// Pads and writes the digest; the state is left as it is.
void sha256_final(u8 out[kSha256DigestBytes]);
// True when the file could be opened (the digest covers what could be read), false when
// it could not; out is then untouched.
bool sha256_file(const char* path, u8 out[kSha256DigestBytes]);

// The digest as 64 lowercase hex characters and a zero.
void sha256_hex(const u8 digest[kSha256DigestBytes], char out[kDigestHexBytes]);
// True when the digest, rendered in lowercase hex, equals the expected text byte for byte
// (so a hash written in capitals never matches).
bool sha256_matches(const u8 digest[kSha256DigestBytes], const char* expected_hex);
// True when the file can be read and its digest matches the expected text as above.
bool sha256_file_matches(const char* path, const char* expected_hex);

// Tests: true keeps the hash on the portable rounds even where the processor has the
// SHA extensions, so both paths are checked on every machine.
void sha256_force_portable(bool portable);

}  // namespace ota
