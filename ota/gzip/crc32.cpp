// CRC-32 by slicing eight bytes at a time through eight tables, and, on processors with
// carry-less multiplication, by folding 64-byte blocks with PCLMULQDQ.
#include "gzip/crc32.h"

namespace ota {
namespace {

constexpr u32 kPolynomial = 0xEDB88320;  // x^32 + x^26 + ... + 1, bit-reflected
constexpr unsigned kSlices = 8;          // bytes consumed per step of the table path

// g_tables[k][b]: the register change caused by byte b followed by k zero bytes. Built on
// first use; 8 KiB of program-wide memory.
u32 g_tables[kSlices][256];
bool g_tables_ready;
int g_force_portable;
// 0: not asked yet, 1: table path only, 2: the processor multiplies carry-less.
int g_method;

void build_tables() {
  for (u32 i = 0; i < 256; i++) {
    u32 c = i;
    for (int k = 0; k < 8; k++) c = (c & 1) ? (c >> 1) ^ kPolynomial : c >> 1;
    g_tables[0][i] = c;
  }
  for (u32 i = 0; i < 256; i++) {
    for (unsigned s = 1; s < kSlices; s++) {
      u32 c = g_tables[s - 1][i];
      g_tables[s][i] = (c >> 8) ^ g_tables[0][c & 0xFF];
    }
  }
  g_tables_ready = true;
}

inline u64 load64(const u8* p) {
  u64 v;
  __builtin_memcpy(&v, p, 8);
  return v;
}

// The bare register update, without the inversions at both ends.
u32 update_register(u32 c, const u8* p, usize n) {
  const u32(*t)[256] = g_tables;
  for (; n >= kSlices; n -= kSlices, p += kSlices) {
    u64 w = load64(p);
    u32 lo = static_cast<u32>(w) ^ c;
    u32 hi = static_cast<u32>(w >> 32);
    c = t[7][lo & 0xFF] ^ t[6][(lo >> 8) & 0xFF] ^ t[5][(lo >> 16) & 0xFF] ^ t[4][lo >> 24] ^
        t[3][hi & 0xFF] ^ t[2][(hi >> 8) & 0xFF] ^ t[1][(hi >> 16) & 0xFF] ^ t[0][hi >> 24];
  }
  for (; n > 0; n--) c = t[0][(c ^ *p++) & 0xFF] ^ (c >> 8);
  return c;
}

// Folding constants, x^k mod P for the distances folded over, in the bit-reflected
// 33-bit form the carry-less products of reflected data need (the product of a 64-bit
// and a 33-bit reflected value lands 32 places higher, hence k minus 32).
constexpr u64 power_mod(unsigned k) {
  u64 r = 1;
  for (unsigned i = 0; i < k; i++) {
    r <<= 1;
    if (r & (1ull << 32)) r ^= 0x104C11DB7ull;
  }
  return r;
}
constexpr u64 reflect33(u64 v) {
  u64 r = 0;
  for (unsigned d = 0; d < 32; d++)
    if ((v >> d) & 1) r |= 1ull << (32 - d);
  return r;
}
constexpr u64 kFold512Low = reflect33(power_mod(512 + 64 - 32));
constexpr u64 kFold512High = reflect33(power_mod(512 - 32));
constexpr u64 kFold128Low = reflect33(power_mod(128 + 64 - 32));
constexpr u64 kFold128High = reflect33(power_mod(128 - 32));
static_assert(kFold512Low == 0x154442bd4 && kFold128High == 0x0ccaa009e);

constexpr usize kFoldMinimum = 64;  // four 16-byte lanes to start folding

typedef long long Lane __attribute__((vector_size(16)));

__attribute__((target("pclmul"))) inline Lane fold(Lane x, Lane next, Lane k) {
  return __builtin_ia32_pclmulqdq128(x, k, 0x00) ^ __builtin_ia32_pclmulqdq128(x, k, 0x11) ^ next;
}

__attribute__((target("pclmul"))) inline Lane load_lane(const u8* p) {
  Lane v;
  __builtin_memcpy(&v, p, 16);
  return v;
}

// The register folded forward 512 bits at a time over four lanes, then the lanes into
// one; what is left is a 16-byte message with the same remainder, finished by the tables
// together with the tail. n is at least kFoldMinimum.
__attribute__((target("pclmul"))) u32 update_register_clmul(u32 c, const u8* p, usize n) {
  const Lane k512 = {static_cast<long long>(kFold512Low), static_cast<long long>(kFold512High)};
  const Lane k128 = {static_cast<long long>(kFold128Low), static_cast<long long>(kFold128High)};
  Lane x0 = load_lane(p), x1 = load_lane(p + 16), x2 = load_lane(p + 32), x3 = load_lane(p + 48);
  const Lane start = {static_cast<long long>(c), 0};
  x0 ^= start;
  p += 64;
  n -= 64;
  for (; n >= 64; n -= 64, p += 64) {
    x0 = fold(x0, load_lane(p), k512);
    x1 = fold(x1, load_lane(p + 16), k512);
    x2 = fold(x2, load_lane(p + 32), k512);
    x3 = fold(x3, load_lane(p + 48), k512);
  }
  Lane x = fold(fold(fold(x0, x1, k128), x2, k128), x3, k128);
  for (; n >= 16; n -= 16, p += 16) x = fold(x, load_lane(p), k128);
  u8 rest[16];
  __builtin_memcpy(rest, &x, 16);
  return update_register(update_register(0, rest, 16), p, n);
}

}  // namespace

u32 crc32_update_portable(u32 crc, const u8* data, usize n) {
  if (!g_tables_ready) build_tables();
  return ~update_register(~crc, data, n);
}

u32 crc32_update(u32 crc, const u8* data, usize n) {
  if (!g_tables_ready) build_tables();
  if (g_method == 0) g_method = (cpu_feature_bits() & kCpuPclmul) ? 2 : 1;
  if (g_method == 2 && !g_force_portable && n >= kFoldMinimum) return ~update_register_clmul(~crc, data, n);
  return ~update_register(~crc, data, n);
}

void crc32_force_portable(int on) { g_force_portable = on; }

}  // namespace ota
