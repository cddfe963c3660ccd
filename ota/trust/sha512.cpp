// SHA-512 (FIPS 180-4) in plain code. It only ever hashes R, the key and the signed
// message of a verification, at most a catalog's worth of bytes.
#include "trust/sha512.h"

#include "runtime/text.h"

namespace ota {
namespace {

constexpr usize kRounds = 80;
// The padding ends every message with its length in bits in the last 16 bytes of a block.
constexpr usize kLengthAt = kSha512BlockBytes - 16;

// The leading 64 bits of the fractional parts of the cube roots of the first 80 primes.
constexpr u64 kRoundConstants[kRounds] = {
    0x428a2f98d728ae22, 0x7137449123ef65cd, 0xb5c0fbcfec4d3b2f, 0xe9b5dba58189dbbc, 0x3956c25bf348b538,
    0x59f111f1b605d019, 0x923f82a4af194f9b, 0xab1c5ed5da6d8118, 0xd807aa98a3030242, 0x12835b0145706fbe,
    0x243185be4ee4b28c, 0x550c7dc3d5ffb4e2, 0x72be5d74f27b896f, 0x80deb1fe3b1696b1, 0x9bdc06a725c71235,
    0xc19bf174cf692694, 0xe49b69c19ef14ad2, 0xefbe4786384f25e3, 0x0fc19dc68b8cd5b5, 0x240ca1cc77ac9c65,
    0x2de92c6f592b0275, 0x4a7484aa6ea6e483, 0x5cb0a9dcbd41fbd4, 0x76f988da831153b5, 0x983e5152ee66dfab,
    0xa831c66d2db43210, 0xb00327c898fb213f, 0xbf597fc7beef0ee4, 0xc6e00bf33da88fc2, 0xd5a79147930aa725,
    0x06ca6351e003826f, 0x142929670a0e6e70, 0x27b70a8546d22ffc, 0x2e1b21385c26c926, 0x4d2c6dfc5ac42aed,
    0x53380d139d95b3df, 0x650a73548baf63de, 0x766a0abb3c77b2a8, 0x81c2c92e47edaee6, 0x92722c851482353b,
    0xa2bfe8a14cf10364, 0xa81a664bbc423001, 0xc24b8b70d0f89791, 0xc76c51a30654be30, 0xd192e819d6ef5218,
    0xd69906245565a910, 0xf40e35855771202a, 0x106aa07032bbd1b8, 0x19a4c116b8d2d0c8, 0x1e376c085141ab53,
    0x2748774cdf8eeb99, 0x34b0bcb5e19b48a8, 0x391c0cb3c5c95a63, 0x4ed8aa4ae3418acb, 0x5b9cca4f7763e373,
    0x682e6ff3d6b2b8a3, 0x748f82ee5defb2fc, 0x78a5636f43172f60, 0x84c87814a1f0ab72, 0x8cc702081a6439ec,
    0x90befffa23631e28, 0xa4506cebde82bde9, 0xbef9a3f7b2c67915, 0xc67178f2e372532b, 0xca273eceea26619c,
    0xd186b8c721c0c207, 0xeada7dd6cde0eb1e, 0xf57d4f7fee6ed178, 0x06f067aa72176fba, 0x0a637dc5a2c898a6,
    0x113f9804bef90dae, 0x1b710b35131c471b, 0x28db77f523047d84, 0x32caab7b40c72493, 0x3c9ebe0a15c9bebc,
    0x431d67c49c100d4c, 0x4cc5d4becb3e42b6, 0x597f299cfc657e2a, 0x5fcb6fab3ad6faec, 0x6c44198c4a475817,
};

// The leading 64 bits of the fractional parts of the square roots of the first 8 primes.
constexpr u64 kInitialChain[8] = {
    0x6a09e667f3bcc908, 0xbb67ae8584caa73b, 0x3c6ef372fe94f82b, 0xa54ff53a5f1d36f1,
    0x510e527fade682d1, 0x9b05688c2b3e6c1f, 0x1f83d9abfb41bd6b, 0x5be0cd19137e2179,
};

inline u64 rotr(u64 x, int n) { return (x >> n) | (x << (64 - n)); }

inline u64 load_be64(const u8* p) {
  u64 v = 0;
  for (int i = 0; i < 8; i++) v = (v << 8) | p[i];
  return v;
}

// One round; the callers rotate the roles of the eight working words instead of moving
// them. Choice and majority are written in their shorter equivalent forms.
inline void round(u64 a, u64 b, u64 c, u64& d, u64 e, u64 f, u64 g, u64& h, u64 constant_and_word) {
  u64 t1 = h + (rotr(e, 14) ^ rotr(e, 18) ^ rotr(e, 41)) + (g ^ (e & (f ^ g))) + constant_and_word;
  u64 t2 = (rotr(a, 28) ^ rotr(a, 34) ^ rotr(a, 39)) + ((a & b) | (c & (a | b)));
  d += t1;
  h = t1 + t2;
}

void compress(u64 chain[8], const u8* data, usize blocks) {
  for (; blocks > 0; blocks--, data += kSha512BlockBytes) {
    u64 w[kRounds];
    for (usize t = 0; t < 16; t++) w[t] = load_be64(data + 8 * t);
    for (usize t = 16; t < kRounds; t++) {
      u64 s0 = rotr(w[t - 15], 1) ^ rotr(w[t - 15], 8) ^ (w[t - 15] >> 7);
      u64 s1 = rotr(w[t - 2], 19) ^ rotr(w[t - 2], 61) ^ (w[t - 2] >> 6);
      w[t] = w[t - 16] + s0 + w[t - 7] + s1;
    }
    u64 a = chain[0], b = chain[1], c = chain[2], d = chain[3];
    u64 e = chain[4], f = chain[5], g = chain[6], h = chain[7];
    for (usize t = 0; t < kRounds; t += 8) {
      round(a, b, c, d, e, f, g, h, kRoundConstants[t] + w[t]);
      round(h, a, b, c, d, e, f, g, kRoundConstants[t + 1] + w[t + 1]);
      round(g, h, a, b, c, d, e, f, kRoundConstants[t + 2] + w[t + 2]);
      round(f, g, h, a, b, c, d, e, kRoundConstants[t + 3] + w[t + 3]);
      round(e, f, g, h, a, b, c, d, kRoundConstants[t + 4] + w[t + 4]);
      round(d, e, f, g, h, a, b, c, kRoundConstants[t + 5] + w[t + 5]);
      round(c, d, e, f, g, h, a, b, kRoundConstants[t + 6] + w[t + 6]);
      round(b, c, d, e, f, g, h, a, kRoundConstants[t + 7] + w[t + 7]);
    }
    chain[0] += a, chain[1] += b, chain[2] += c, chain[3] += d;
    chain[4] += e, chain[5] += f, chain[6] += g, chain[7] += h;
  }
}

}  // namespace

void sha512_init(Sha512& context) {
  mem_copy(context.chain, kInitialChain, sizeof context.chain);
  context.waiting = 0;
  context.total = 0;
}

void sha512_update(Sha512& context, const void* bytes, usize length) {
  const u8* p = static_cast<const u8*>(bytes);
  context.total += length;
  if (context.waiting > 0) {
    usize take = kSha512BlockBytes - context.waiting;
    if (take > length) take = length;
    mem_copy(context.block + context.waiting, p, take);
    context.waiting += take;
    p += take;
    length -= take;
    if (context.waiting < kSha512BlockBytes) return;
    compress(context.chain, context.block, 1);
    context.waiting = 0;
  }
  usize blocks = length / kSha512BlockBytes;
  if (blocks > 0) compress(context.chain, p, blocks);
  p += blocks * kSha512BlockBytes;
  length -= blocks * kSha512BlockBytes;
  mem_copy(context.block, p, length);
  context.waiting = length;
}

void sha512_final(Sha512& context, u8 out[kSha512DigestBytes]) {
  u64 bits = context.total * 8;
  usize n = context.waiting;
  context.block[n++] = 0x80;
  if (n > kLengthAt) {
    mem_fill(context.block + n, 0, kSha512BlockBytes - n);
    compress(context.chain, context.block, 1);
    n = 0;
  }
  mem_fill(context.block + n, 0, kSha512BlockBytes - n);
  context.block[kLengthAt + 7] = static_cast<u8>(context.total >> 61);
  for (usize i = 0; i < 8; i++) context.block[kSha512BlockBytes - 8 + i] = static_cast<u8>(bits >> (56 - 8 * i));
  compress(context.chain, context.block, 1);
  for (usize i = 0; i < 8; i++) {
    for (usize j = 0; j < 8; j++) out[8 * i + j] = static_cast<u8>(context.chain[i] >> (56 - 8 * j));
  }
}

}  // namespace ota
