// SHA-256 (FIPS 180-4). Two ways to run the rounds: the processor's SHA extensions where
// it has them, and plain code everywhere else; both give the same digest.
#include "trust/sha256.h"

#include <immintrin.h>

#include "runtime/text.h"

namespace ota {
namespace {

using u128 = unsigned __int128;

constexpr usize kBlockBytes = 64;
constexpr usize kRounds = 64;
constexpr usize kChainWords = 8;
// The padding ends every message with its length in bits in the last 8 bytes of a block.
constexpr usize kLengthAt = kBlockBytes - 8;
constexpr u64 kShaExtensions = kCpuSha | kCpuSse41 | kCpuSsse3;

struct Sha256State {
  u32 chain[kChainWords];
  u8 block[kBlockBytes];
  usize waiting;  // bytes in block, 0..63
  u64 total;      // bytes hashed so far
};

Sha256State state;
u8 read_buffer[kSha256ReadBytes];

// The round constants and the initial chaining words are the leading bits of the
// fractional parts of the cube roots of the first 64 primes and of the square roots of
// the first 8. They are worked out from that definition on the first init of the run.
u32 round_constants[kRounds];
u32 initial_chain[kChainWords];
bool constants_ready;
bool have_sha_extensions;
bool portable_only;

// floor(root(prime) * 2^32) mod 2^32 for the square (power 2) or cube (power 3) root, by
// setting the bits of root(prime * 2^(32 * power)) from the top. For primes below 312 the
// root is below 2^35, so its cube stays below 2^105 and fits 128 bits.
u32 root_fraction(u32 prime, int power) {
  u64 root = 0;
  for (int bit = 34; bit >= 0; bit--) {
    u64 trial = root | (u64{1} << bit);
    u128 raised = trial;
    for (int i = 1; i < power; i++) raised *= trial;
    if (raised <= (static_cast<u128>(prime) << (32 * power))) root = trial;
  }
  return static_cast<u32>(root);
}

void fill_constants() {
  usize count = 0;
  for (u32 n = 2; count < kRounds; n++) {
    bool prime = true;
    for (u32 d = 2; d * d <= n; d++) {
      if (n % d == 0) prime = false;
    }
    if (!prime) continue;
    if (count < kChainWords) initial_chain[count] = root_fraction(n, 2);
    round_constants[count++] = root_fraction(n, 3);
  }
}

inline u32 rotr(u32 x, int n) { return (x >> n) | (x << (32 - n)); }
inline u32 load_be32(const u8* p) {
  return (u32{p[0]} << 24) | (u32{p[1]} << 16) | (u32{p[2]} << 8) | u32{p[3]};
}

// One round; the callers rotate the roles of the eight working words instead of moving
// them. Choice and majority are written in their shorter equivalent forms.
inline void round(u32 a, u32 b, u32 c, u32& d, u32 e, u32 f, u32 g, u32& h, u32 constant_and_word) {
  u32 t1 = h + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25)) + (g ^ (e & (f ^ g))) + constant_and_word;
  u32 t2 = (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22)) + ((a & b) | (c & (a | b)));
  d += t1;
  h = t1 + t2;
}

void compress_portable(u32 chain[kChainWords], const u8* data, usize blocks) {
  for (; blocks > 0; blocks--, data += kBlockBytes) {
    u32 w[kRounds];
    for (usize t = 0; t < 16; t++) w[t] = load_be32(data + 4 * t);
    for (usize t = 16; t < kRounds; t++) {
      u32 s0 = rotr(w[t - 15], 7) ^ rotr(w[t - 15], 18) ^ (w[t - 15] >> 3);
      u32 s1 = rotr(w[t - 2], 17) ^ rotr(w[t - 2], 19) ^ (w[t - 2] >> 10);
      w[t] = w[t - 16] + s0 + w[t - 7] + s1;
    }
    for (usize t = 0; t < kRounds; t++) w[t] += round_constants[t];
    u32 a = chain[0], b = chain[1], c = chain[2], d = chain[3];
    u32 e = chain[4], f = chain[5], g = chain[6], h = chain[7];
    for (usize t = 0; t < kRounds; t += 8) {
      round(a, b, c, d, e, f, g, h, w[t]);
      round(h, a, b, c, d, e, f, g, w[t + 1]);
      round(g, h, a, b, c, d, e, f, w[t + 2]);
      round(f, g, h, a, b, c, d, e, w[t + 3]);
      round(e, f, g, h, a, b, c, d, w[t + 4]);
      round(d, e, f, g, h, a, b, c, w[t + 5]);
      round(c, d, e, f, g, h, a, b, w[t + 6]);
      round(b, c, d, e, f, g, h, a, w[t + 7]);
    }
    chain[0] += a, chain[1] += b, chain[2] += c, chain[3] += d;
    chain[4] += e, chain[5] += f, chain[6] += g, chain[7] += h;
  }
}

// The SHA extensions keep the chaining words as ABEF and CDGH and run two rounds per
// instruction; the schedule of the next four words is interleaved with the rounds.
__attribute__((target("sha,sse4.1,ssse3"))) void compress_sha_extensions(u32 chain[kChainWords],
                                                                         const u8* data, usize blocks) {
  const __m128i byte_swap = _mm_set_epi64x(0x0c0d0e0f08090a0bll, 0x0405060700010203ll);
  __m128i cdab = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(chain)), 0xB1);
  __m128i efgh = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(chain + 4)), 0x1B);
  __m128i abef = _mm_alignr_epi8(cdab, efgh, 8);
  __m128i cdgh = _mm_blend_epi16(efgh, cdab, 0xF0);
  for (; blocks > 0; blocks--, data += kBlockBytes) {
    const __m128i saved_abef = abef, saved_cdgh = cdgh;
    __m128i m[4];
    for (int i = 0; i < 4; i++) {
      m[i] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data + 16 * i)), byte_swap);
    }
    for (int g0 = 0; g0 < 16; g0 += 4) {
#pragma GCC unroll 4
      for (int j = 0; j < 4; j++) {
        const int g = g0 + j;
        __m128i k = _mm_add_epi32(m[j], _mm_loadu_si128(reinterpret_cast<const __m128i*>(round_constants + 4 * g)));
        cdgh = _mm_sha256rnds2_epu32(cdgh, abef, k);
        if (g >= 3 && g <= 14) {
          __m128i& next = m[(j + 1) & 3];
          next = _mm_add_epi32(next, _mm_alignr_epi8(m[j], m[(j + 3) & 3], 4));
          next = _mm_sha256msg2_epu32(next, m[j]);
        }
        abef = _mm_sha256rnds2_epu32(abef, cdgh, _mm_shuffle_epi32(k, 0x0E));
        if (g >= 1 && g <= 12) m[(j + 3) & 3] = _mm_sha256msg1_epu32(m[(j + 3) & 3], m[j]);
      }
    }
    abef = _mm_add_epi32(abef, saved_abef);
    cdgh = _mm_add_epi32(cdgh, saved_cdgh);
  }
  __m128i feba = _mm_shuffle_epi32(abef, 0x1B);
  __m128i dchg = _mm_shuffle_epi32(cdgh, 0xB1);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(chain), _mm_blend_epi16(feba, dchg, 0xF0));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(chain + 4), _mm_alignr_epi8(dchg, feba, 8));
}

void compress(const u8* data, usize blocks) {
  if (have_sha_extensions && !portable_only) {
    compress_sha_extensions(state.chain, data, blocks);
  } else {
    compress_portable(state.chain, data, blocks);
  }
}

}  // namespace

void sha256_init() {
  if (!constants_ready) {
    fill_constants();
    have_sha_extensions = (cpu_feature_bits() & kShaExtensions) == kShaExtensions;
    constants_ready = true;
  }
  mem_copy(state.chain, initial_chain, sizeof state.chain);
  state.waiting = 0;
  state.total = 0;
}

void sha256_update(const void* bytes, usize length) {
  const u8* p = static_cast<const u8*>(bytes);
  state.total += length;
  if (state.waiting > 0) {
    usize take = kBlockBytes - state.waiting;
    if (take > length) take = length;
    mem_copy(state.block + state.waiting, p, take);
    state.waiting += take;
    p += take;
    length -= take;
    if (state.waiting < kBlockBytes) return;
    compress(state.block, 1);
    state.waiting = 0;
  }
  usize blocks = length / kBlockBytes;
  if (blocks > 0) compress(p, blocks);
  p += blocks * kBlockBytes;
  length -= blocks * kBlockBytes;
  mem_copy(state.block, p, length);
  state.waiting = length;
}

void sha256_final(u8 out[kSha256DigestBytes]) {
  u64 bits = state.total * 8;
  usize n = state.waiting;
  state.block[n++] = 0x80;
  if (n > kLengthAt) {
    mem_fill(state.block + n, 0, kBlockBytes - n);
    compress(state.block, 1);
    n = 0;
  }
  mem_fill(state.block + n, 0, kLengthAt - n);
  for (usize i = 0; i < 8; i++) state.block[kLengthAt + i] = static_cast<u8>(bits >> (56 - 8 * i));
  compress(state.block, 1);
  for (usize i = 0; i < kChainWords; i++) {
    for (usize j = 0; j < 4; j++) out[4 * i + j] = static_cast<u8>(state.chain[i] >> (24 - 8 * j));
  }
}

bool sha256_file(const char* path, u8 out[kSha256DigestBytes]) {
  u64 opened = sys_open(path, kOpenRead);
  if (is_error(opened)) return false;
  int fd = static_cast<int>(opened);
  sha256_init();
  // A read that fails part-way ends the hash like the end of the file: the digest of
  // what was read will not match, and that is what rejects the file.
  for (;;) {
    i64 got = sys_read(fd, read_buffer, kSha256ReadBytes);
    if (got <= 0) break;
    sha256_update(read_buffer, static_cast<usize>(got));
  }
  sys_close(fd);
  sha256_final(out);
  return true;
}

void sha256_hex(const u8 digest[kSha256DigestBytes], char out[kDigestHexBytes]) {
  hex_encode(digest, kSha256DigestBytes, out);
}

bool sha256_matches(const u8 digest[kSha256DigestBytes], const char* expected_hex) {
  char hex[kDigestHexBytes];
  sha256_hex(digest, hex);
  return str_equal_n(hex, expected_hex, kDigestHexLength);
}

bool sha256_file_matches(const char* path, const char* expected_hex) {
  u8 digest[kSha256DigestBytes];
  return sha256_file(path, digest) && sha256_matches(digest, expected_hex);
}

void sha256_force_portable(bool portable) { portable_only = portable; }

}  // namespace ota
