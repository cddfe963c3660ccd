// ed25519_verify cross-checked against OpenSSL.
//
// Input: a mode byte, then by mode
//   0: key (32), signature (64), message (the rest): all as given;
//   1: a private-key seed (32), message: OpenSSL signs, both must accept;
//   2: seed (32), a 16-bit position and a mask byte, message: OpenSSL signs, then one
//      byte of key, signature or message is changed by the mask;
//   3: seed (32), signature (64), message: a real key with a signature as given.
//
// Our verifier is strict where OpenSSL may not be: it refuses a key or R whose y is not
// below 2^255 - 19, or that encodes x = 0 with the sign bit set. For such encodings ours
// must say 0. For canonical ones both check the same plain (cofactorless) equation with
// S below the group order, so the verdicts must agree exactly.
#include <openssl/evp.h>
#include <string.h>

#include "fuzz_support.h"
#include "trust/ed25519.h"

namespace {

bool openssl_verify(const uint8_t key[32], const uint8_t* msg, size_t n, const uint8_t sig[64]) {
  EVP_PKEY* pkey = EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, key, 32);
  if (pkey == nullptr) return false;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  bool ok = EVP_DigestVerifyInit(ctx, nullptr, nullptr, nullptr, pkey) == 1 &&
            EVP_DigestVerify(ctx, sig, 64, msg, n) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(pkey);
  return ok;
}

bool openssl_key_and_sign(const uint8_t seed[32], const uint8_t* msg, size_t n, uint8_t key[32], uint8_t sig[64]) {
  EVP_PKEY* pkey = EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed, 32);
  if (pkey == nullptr) return false;
  size_t key_len = 32;
  size_t sig_len = 64;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  bool ok = EVP_PKEY_get_raw_public_key(pkey, key, &key_len) == 1 &&
            EVP_DigestSignInit(ctx, nullptr, nullptr, nullptr, pkey) == 1 &&
            EVP_DigestSign(ctx, sig, &sig_len, msg, n) == 1 && sig_len == 64;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(pkey);
  return ok;
}

// y (the encoding without its top bit) is below p = 2^255 - 19, and the encoding does not
// name x = 0 (y = 1 or y = p - 1) with the sign bit set.
bool canonical(const uint8_t e[32]) {
  uint8_t y[32];
  memcpy(y, e, 32);
  y[31] &= 0x7f;
  bool sign = e[31] & 0x80;
  bool all_ff = y[31] == 0x7f;
  for (int i = 1; i < 31; i++) all_ff = all_ff && y[i] == 0xff;
  if (all_ff && y[0] >= 0xed) return false;  // y >= p
  bool is_one = y[0] == 1;
  for (int i = 1; i < 32; i++) is_one = is_one && y[i] == 0;
  bool is_p_minus_one = all_ff && y[0] == 0xec;
  return !(sign && (is_one || is_p_minus_one));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  int mode = data[0] & 3;
  data++;
  size--;
  uint8_t key[32];
  uint8_t sig[64];
  std::vector<uint8_t> msg;
  if (mode == 0) {
    if (size < 96) return 0;
    memcpy(key, data, 32);
    memcpy(sig, data + 32, 64);
    msg.assign(data + 96, data + size);
  } else if (mode == 1 || mode == 2) {
    size_t head = mode == 1 ? 32 : 35;
    if (size < head) return 0;
    msg.assign(data + head, data + size);
    if (!openssl_key_and_sign(data, msg.data(), msg.size(), key, sig)) return 0;
    FUZZ_CHECK(ota::ed25519_verify(key, msg.data(), msg.size(), sig) == 1);
    if (mode == 2) {
      size_t position = (static_cast<size_t>(data[32]) | static_cast<size_t>(data[33]) << 8) % (96 + msg.size());
      uint8_t mask = data[34] == 0 ? 1 : data[34];
      if (position < 32) key[position] ^= mask;
      else if (position < 96) sig[position - 32] ^= mask;
      else msg[position - 96] ^= mask;
    }
  } else {
    if (size < 96) return 0;
    uint8_t unused[64];
    if (!openssl_key_and_sign(data, nullptr, 0, key, unused)) return 0;
    memcpy(sig, data + 32, 64);
    msg.assign(data + 96, data + size);
  }

  int ours = ota::ed25519_verify(key, msg.data(), msg.size(), sig);
  FUZZ_CHECK(ours == 0 || ours == 1);
  if (!canonical(key) || !canonical(sig)) {
    FUZZ_CHECK(ours == 0);
    return 0;
  }
  bool theirs = openssl_verify(key, msg.data(), msg.size(), sig);
  if (ours != (theirs ? 1 : 0)) {
    fprintf(stderr, "verdicts differ: ours %d, OpenSSL %d\n", ours, theirs ? 1 : 0);
    FUZZ_CHECK(ours == (theirs ? 1 : 0));
  }
  return 0;
}
