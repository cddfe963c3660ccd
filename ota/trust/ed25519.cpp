// Ed25519 verification over the field of p = 2^255 - 19 with five 51-bit limbs, points in
// extended coordinates on -x^2 + y^2 = 1 + d x^2 y^2, and one double-scalar
// multiplication with width-5 sliding windows. Verification works on public data only,
// so nothing here needs to run in constant time. The curve constants and the window
// tables are built on the stack of each call; nothing outlives a verification.
#include "trust/ed25519.h"

#include "trust/sha512.h"

namespace ota {
namespace {

using u128 = unsigned __int128;
using i128 = __int128;
using i8 = signed char;

constexpr u64 kMask51 = (u64{1} << 51) - 1;
constexpr usize kScalarBits = 256;
// Odd multiples P, 3P, ..., 15P of each point: the digits of a width-5 window.
constexpr usize kWindowPoints = 8;
constexpr int kWindowLargestDigit = 2 * kWindowPoints - 1;

// A field element: value = v[0] + v[1] 2^51 + v[2] 2^102 + v[3] 2^153 + v[4] 2^204.
// Limbs may stand above 51 bits between operations. Bounds used below:
//   tight: every limb < 2^51 + 2^13 (what fe_mul, fe_sq and fe_from_bytes give);
//   fe_add of two tight elements: limbs < 2^52 + 2^14;
//   fe_sub(f, g) needs g limbs <= 2^53 - 76 and gives limbs < f + 2^53;
//   fe_mul and fe_sq take limbs < 2^54.
struct Fe {
  u64 v[5];
};

// Extended point: x = X/Z, y = Y/Z, x y = T/Z.
struct Ge3 {
  Fe X, Y, Z, T;
};
// Projective point (X:Y:Z), all a doubling reads.
struct Ge2 {
  Fe X, Y, Z;
};
// Completed point: x = X/Z, y = Y/T; what an addition or doubling leaves before the
// multiplications that bring it back to Ge2 or Ge3.
struct Ge1 {
  Fe X, Y, Z, T;
};
// A point prepared for additions: Y + X, Y - X, Z and 2 d T.
struct GeCached {
  Fe y_plus_x, y_minus_x, Z, T2d;
};

// The curve's constants, set up by each verification in its own frame.
struct Curve {
  Fe d;        // -121665 / 121666
  Fe d2;       // 2 d
  Fe sqrt_m1;  // 2^((p - 1) / 4), a square root of -1
  Ge3 base;    // B: y = 4/5, x even
};

inline void fe_add(Fe& h, const Fe& f, const Fe& g) {
  for (int i = 0; i < 5; i++) h.v[i] = f.v[i] + g.v[i];
}

// f + 4p - g, so no limb goes below zero.
inline void fe_sub(Fe& h, const Fe& f, const Fe& g) {
  h.v[0] = f.v[0] + 0x1FFFFFFFFFFFB4 - g.v[0];  // 4 (2^51 - 19)
  for (int i = 1; i < 5; i++) h.v[i] = f.v[i] + 0x1FFFFFFFFFFFFC - g.v[i];  // 4 (2^51 - 1)
}

inline void fe_neg(Fe& h, const Fe& f) {
  const Fe zero = {{0, 0, 0, 0, 0}};
  fe_sub(h, zero, f);
}

// Carries the five column sums of a product into a tight element. With inputs below
// 2^54 each column is below 2^115, so every carry fits 64 bits; column 4 holds no
// factor 19, so it stays below 2^111 and 19 times its carry stays below 2^64.
inline void fe_carry_columns(Fe& h, u128 t0, u128 t1, u128 t2, u128 t3, u128 t4) {
  t1 += static_cast<u64>(t0 >> 51);
  t2 += static_cast<u64>(t1 >> 51);
  t3 += static_cast<u64>(t2 >> 51);
  t4 += static_cast<u64>(t3 >> 51);
  u64 r0 = (static_cast<u64>(t0) & kMask51) + 19 * static_cast<u64>(t4 >> 51);
  h.v[1] = (static_cast<u64>(t1) & kMask51) + (r0 >> 51);
  h.v[0] = r0 & kMask51;
  h.v[2] = static_cast<u64>(t2) & kMask51;
  h.v[3] = static_cast<u64>(t3) & kMask51;
  h.v[4] = static_cast<u64>(t4) & kMask51;
}

// 2^255 = 19 (mod p), so the columns past limb 4 fold back multiplied by 19. Inputs below
// 2^54: each product is below 2^54 * 19 * 2^54 < 2^113, each column below 2^115.
void fe_mul(Fe& h, const Fe& f, const Fe& g) {
  u64 f0 = f.v[0], f1 = f.v[1], f2 = f.v[2], f3 = f.v[3], f4 = f.v[4];
  u64 g0 = g.v[0], g1 = g.v[1], g2 = g.v[2], g3 = g.v[3], g4 = g.v[4];
  u64 g1_19 = 19 * g1, g2_19 = 19 * g2, g3_19 = 19 * g3, g4_19 = 19 * g4;  // < 2^59
  u128 t0 = (u128)f0 * g0 + (u128)f1 * g4_19 + (u128)f2 * g3_19 + (u128)f3 * g2_19 + (u128)f4 * g1_19;
  u128 t1 = (u128)f0 * g1 + (u128)f1 * g0 + (u128)f2 * g4_19 + (u128)f3 * g3_19 + (u128)f4 * g2_19;
  u128 t2 = (u128)f0 * g2 + (u128)f1 * g1 + (u128)f2 * g0 + (u128)f3 * g4_19 + (u128)f4 * g3_19;
  u128 t3 = (u128)f0 * g3 + (u128)f1 * g2 + (u128)f2 * g1 + (u128)f3 * g0 + (u128)f4 * g4_19;
  u128 t4 = (u128)f0 * g4 + (u128)f1 * g3 + (u128)f2 * g2 + (u128)f3 * g1 + (u128)f4 * g0;
  fe_carry_columns(h, t0, t1, t2, t3, t4);
}

// The same product with the symmetric terms taken once and doubled; same bounds.
void fe_sq(Fe& h, const Fe& f) {
  u64 f0 = f.v[0], f1 = f.v[1], f2 = f.v[2], f3 = f.v[3], f4 = f.v[4];
  u64 f0_2 = 2 * f0, f1_2 = 2 * f1, f2_2 = 2 * f2, f3_2 = 2 * f3;  // < 2^55
  u64 f3_19 = 19 * f3, f4_19 = 19 * f4;                            // < 2^59
  u128 t0 = (u128)f0 * f0 + (u128)f1_2 * f4_19 + (u128)f2_2 * f3_19;
  u128 t1 = (u128)f0_2 * f1 + (u128)f2_2 * f4_19 + (u128)f3 * f3_19;
  u128 t2 = (u128)f0_2 * f2 + (u128)f1 * f1 + (u128)f3_2 * f4_19;
  u128 t3 = (u128)f0_2 * f3 + (u128)f1_2 * f2 + (u128)f4 * f4_19;
  u128 t4 = (u128)f0_2 * f4 + (u128)f1_2 * f3 + (u128)f2 * f2;
  fe_carry_columns(h, t0, t1, t2, t3, t4);
}

void fe_sq_times(Fe& h, const Fe& f, int times) {
  fe_sq(h, f);
  for (int i = 1; i < times; i++) fe_sq(h, h);
}

// The 255-bit little-endian number in s, top bit ignored.
void fe_from_bytes(Fe& h, const u8 s[32]) {
  auto load64 = [&](int at) {
    u64 v = 0;
    for (int i = 7; i >= 0; i--) v = (v << 8) | s[at + i];
    return v;
  };
  h.v[0] = load64(0) & kMask51;
  h.v[1] = (load64(6) >> 3) & kMask51;
  h.v[2] = (load64(12) >> 6) & kMask51;
  h.v[3] = (load64(19) >> 1) & kMask51;
  h.v[4] = (load64(24) >> 12) & kMask51;
}

// The unique representative below p, limbs below 2^51; takes limbs below 2^54. Needed a
// few times per verification only, so it is kept out of line for size.
__attribute__((noinline)) void fe_canonical(Fe& h, const Fe& f) {
  u64 t[5] = {f.v[0], f.v[1], f.v[2], f.v[3], f.v[4]};
  auto carry = [&t]() {
    for (int i = 0; i < 4; i++) {
      t[i + 1] += t[i] >> 51;
      t[i] &= kMask51;
    }
  };
  auto carry_around = [&]() {
    carry();
    t[0] += 19 * (t[4] >> 51);
    t[4] &= kMask51;
  };
  carry_around();
  carry_around();
  // Now 0 <= t < 2^255. Adding 19 carries out of bit 255 exactly when t >= p.
  t[0] += 19;
  carry_around();
  // Now t is 19 above the answer (mod 2^255); take the 19 back through 2^255 - 19.
  t[0] += (u64{1} << 51) - 19;
  for (int i = 1; i < 5; i++) t[i] += (u64{1} << 51) - 1;
  carry();
  t[4] &= kMask51;
  for (int i = 0; i < 5; i++) h.v[i] = t[i];
}

int fe_equal(const Fe& f, const Fe& g) {
  Fe a, b;
  fe_canonical(a, f);
  fe_canonical(b, g);
  u64 diff = 0;
  for (int i = 0; i < 5; i++) diff |= a.v[i] ^ b.v[i];
  return diff == 0;
}

int fe_is_zero(const Fe& f) {
  Fe a;
  fe_canonical(a, f);
  return (a.v[0] | a.v[1] | a.v[2] | a.v[3] | a.v[4]) == 0;
}

// The sign of x in an encoding is the low bit of its canonical value.
int fe_is_odd(const Fe& f) {
  Fe a;
  fe_canonical(a, f);
  return static_cast<int>(a.v[0] & 1);
}

// z^((p - 5) / 8) = z^(2^252 - 3), by the usual chain of squarings.
__attribute__((noinline)) void fe_pow22523(Fe& out, const Fe& z) {
  Fe t0, t1, t2;
  fe_sq(t0, z);                // z^2
  fe_sq_times(t1, t0, 2);      // z^8
  fe_mul(t1, z, t1);           // z^9
  fe_mul(t0, t0, t1);          // z^11
  fe_sq(t0, t0);               // z^22
  fe_mul(t0, t1, t0);          // z^(2^5 - 1)
  fe_sq_times(t1, t0, 5);
  fe_mul(t0, t1, t0);          // z^(2^10 - 1)
  fe_sq_times(t1, t0, 10);
  fe_mul(t1, t1, t0);          // z^(2^20 - 1)
  fe_sq_times(t2, t1, 20);
  fe_mul(t1, t2, t1);          // z^(2^40 - 1)
  fe_sq_times(t1, t1, 10);
  fe_mul(t0, t1, t0);          // z^(2^50 - 1)
  fe_sq_times(t1, t0, 50);
  fe_mul(t1, t1, t0);          // z^(2^100 - 1)
  fe_sq_times(t2, t1, 100);
  fe_mul(t1, t2, t1);          // z^(2^200 - 1)
  fe_sq_times(t1, t1, 50);
  fe_mul(t0, t1, t0);          // z^(2^250 - 1)
  fe_sq_times(t0, t0, 2);      // z^(2^252 - 4)
  fe_mul(out, t0, z);          // z^(2^252 - 3)
}

void set_curve(Curve& c) {
  c.d = {{0x34dca135978a3, 0x1a8283b156ebd, 0x5e7a26001c029, 0x739c663a03cbb, 0x52036cee2b6ff}};
  fe_add(c.d2, c.d, c.d);  // limbs < 2^52, used only as a factor
  c.sqrt_m1 = {{0x61b274a0ea0b0, 0xd5a5fc8f189d, 0x7ef5e9cbd0c60, 0x78595a6804c9e, 0x2b8324804fc1d}};
  c.base.X = {{0x62d608f25d51a, 0x412a4b4f6592a, 0x75b7171a4b31d, 0x1ff60527118fe, 0x216936d3cd6e5}};
  c.base.Y = {{0x6666666666658, 0x4cccccccccccc, 0x1999999999999, 0x3333333333333, 0x6666666666666}};
  c.base.Z = {{1, 0, 0, 0, 0}};
  fe_mul(c.base.T, c.base.X, c.base.Y);
}

// The 255 low bits as y are at least p = 2^255 - 19: bytes 1..30 all 0xff, the top byte
// 0x7f without the sign bit, the low byte 0xed or more.
int y_is_canonical(const u8 s[32]) {
  if ((s[31] & 0x7f) != 0x7f || s[0] < 0xed) return 1;
  for (int i = 1; i < 31; i++) {
    if (s[i] != 0xff) return 1;
  }
  return 0;
}

// RFC 8032 section 5.1.3: 1 with the point in p, 0 for an encoding that is refused.
int ge_decode(Ge3& p, const u8 s[32], const Curve& c) {
  if (!y_is_canonical(s)) return 0;
  const int sign = s[31] >> 7;
  const Fe one = {{1, 0, 0, 0, 0}};
  Fe y, yy, u, v, v3, x, vxx, minus_u;
  fe_from_bytes(y, s);
  fe_sq(yy, y);
  fe_sub(u, yy, one);       // u = y^2 - 1, limbs < 2^54
  fe_mul(v, yy, c.d);
  fe_add(v, v, one);        // v = d y^2 + 1, tight
  fe_sq(v3, v);
  fe_mul(v3, v3, v);        // v^3
  fe_sq(x, v3);
  fe_mul(x, x, v);
  fe_mul(x, x, u);          // u v^7
  fe_pow22523(x, x);
  fe_mul(x, x, v3);
  fe_mul(x, x, u);          // x = u v^3 (u v^7)^((p - 5) / 8)
  fe_sq(vxx, x);
  fe_mul(vxx, vxx, v);
  if (!fe_equal(vxx, u)) {
    fe_sub(minus_u, one, yy);  // -u = 1 - y^2
    if (!fe_equal(vxx, minus_u)) return 0;  // u / v has no square root: not a point
    fe_mul(x, x, c.sqrt_m1);
  }
  if (fe_is_zero(x) && sign) return 0;
  if (fe_is_odd(x) != sign) {
    fe_neg(x, x);
    fe_canonical(x, x);  // tight again, as the point formulas expect
  }
  p.X = x;
  p.Y = y;
  p.Z = one;
  fe_mul(p.T, x, y);
  return 1;
}

void ge1_to_2(Ge2& r, const Ge1& p) {
  fe_mul(r.X, p.X, p.T);
  fe_mul(r.Y, p.Y, p.Z);
  fe_mul(r.Z, p.Z, p.T);
}

void ge1_to_3(Ge3& r, const Ge1& p) {
  fe_mul(r.X, p.X, p.T);
  fe_mul(r.Y, p.Y, p.Z);
  fe_mul(r.Z, p.Z, p.T);
  fe_mul(r.T, p.X, p.Y);
}

// Input tight; Y + X < 2^53 and Y - X < 2^54, both fine as factors.
void ge3_to_cached(GeCached& r, const Ge3& p, const Curve& c) {
  fe_add(r.y_plus_x, p.Y, p.X);
  fe_sub(r.y_minus_x, p.Y, p.X);
  r.Z = p.Z;
  fe_mul(r.T2d, p.T, c.d2);
}

// 2p for a = -1 (Hisil, Wong, Carter, Dawson 2008), complete on this curve. Input tight.
void ge_double(Ge1& r, const Ge2& p) {
  Fe xx, yy, zz2, sum;
  fe_sq(xx, p.X);
  fe_sq(yy, p.Y);
  fe_sq(zz2, p.Z);
  fe_add(zz2, zz2, zz2);   // 2 Z^2 < 2^52 + 2^14
  fe_add(sum, p.X, p.Y);
  fe_sq(sum, sum);         // (X + Y)^2
  fe_add(r.Y, yy, xx);     // Y^2 + X^2 < 2^52 + 2^14
  fe_sub(r.Z, yy, xx);     // Y^2 - X^2 < 2^54
  fe_sub(r.X, sum, r.Y);   // 2 X Y < 2^54
  fe_add(r.T, zz2, xx);
  fe_sub(r.T, r.T, yy);    // 2 Z^2 - (Y^2 - X^2) < 2^54
}

// p + q (negate: p - q), the unified addition for a = -1 with k = 2d; complete on this
// curve, so small-order and equal points need no case of their own. p tight.
void ge_add(Ge1& r, const Ge3& p, const GeCached& q, bool negate) {
  Fe sum, diff, a, b, cc, zz;
  fe_add(sum, p.Y, p.X);
  fe_sub(diff, p.Y, p.X);
  fe_mul(b, sum, negate ? q.y_minus_x : q.y_plus_x);
  fe_mul(a, diff, negate ? q.y_plus_x : q.y_minus_x);
  fe_mul(cc, p.T, q.T2d);
  fe_mul(zz, p.Z, q.Z);
  fe_add(zz, zz, zz);                    // D = 2 Z1 Z2 < 2^52 + 2^14
  fe_sub(r.X, b, a);                     // E < 2^54
  fe_add(r.Y, b, a);                     // H < 2^53
  if (negate) {
    fe_sub(r.Z, zz, cc);                 // G < 2^54
    fe_add(r.T, zz, cc);                 // F < 2^54
  } else {
    fe_add(r.Z, zz, cc);
    fe_sub(r.T, zz, cc);
  }
}

// P, 3P, 5P, ..., 15P.
void build_window(GeCached table[kWindowPoints], const Ge3& p, const Curve& c) {
  Ge1 t;
  Ge3 twice, sum;
  Ge2 p2 = {p.X, p.Y, p.Z};
  ge3_to_cached(table[0], p, c);
  ge_double(t, p2);
  ge1_to_3(twice, t);
  for (usize i = 1; i < kWindowPoints; i++) {
    ge_add(t, twice, table[i - 1], false);
    ge1_to_3(sum, t);
    ge3_to_cached(table[i], sum, c);
  }
}

// The scalar as signed odd digits, each at most 15 in size and at least 5 places apart
// (a width-5 sliding window). The scalar is below 2^253, so the carries stay inside 256.
void slide(i8 digits[kScalarBits], const u8 scalar[32]) {
  for (usize i = 0; i < kScalarBits; i++) digits[i] = static_cast<i8>(1 & (scalar[i >> 3] >> (i & 7)));
  for (usize i = 0; i < kScalarBits; i++) {
    if (!digits[i]) continue;
    for (usize b = 1; b <= 6 && i + b < kScalarBits; b++) {
      if (!digits[i + b]) continue;
      int high = digits[i + b] << b;
      if (digits[i] + high <= kWindowLargestDigit) {
        digits[i] = static_cast<i8>(digits[i] + high);
        digits[i + b] = 0;
      } else if (digits[i] - high >= -kWindowLargestDigit) {
        digits[i] = static_cast<i8>(digits[i] - high);
        for (usize k = i + b; k < kScalarBits; k++) {
          if (!digits[k]) {
            digits[k] = 1;
            break;
          }
          digits[k] = 0;
        }
      } else {
        break;
      }
    }
  }
}

// The group order L = 2^252 + 27742317777372353535851937790883648493 in 64-bit words,
// lowest first; word 2 is zero.
constexpr u64 kOrder0 = 0x5812631a5cf5d3ed;
constexpr u64 kOrder1 = 0x14def9dea2f79cd6;
constexpr u64 kOrder3 = 0x1000000000000000;

inline u64 load_le64(const u8* p) {
  u64 v = 0;
  for (int i = 7; i >= 0; i--) v = (v << 8) | p[i];
  return v;
}

// All 256 bits of s, so a value with any of the top three bits set is out of range too.
int scalar_below_order(const u8 s[32]) {
  const u64 order[4] = {kOrder0, kOrder1, 0, kOrder3};
  for (int i = 3; i >= 0; i--) {
    u64 w = load_le64(s + 8 * i);
    if (w != order[i]) return w < order[i];
  }
  return 0;  // equal to L
}

// The 512-bit little-endian number in wide, mod L, into 32 little-endian bytes. Byte by
// byte from the top: r = 256 r + byte, then r - q L with q = floor(r / 2^252). Since
// L = 2^252 + c with c < 2^125, that leaves the low 252 bits minus q c, which is at most
// one L below zero.
void scalar_reduce(u8 out[32], const u8 wide[64]) {
  u64 r[4] = {0, 0, 0, 0};  // always below L
  for (int at = 63; at >= 0; at--) {
    u64 top = r[3] >> 56;
    r[3] = (r[3] << 8) | (r[2] >> 56);
    r[2] = (r[2] << 8) | (r[1] >> 56);
    r[1] = (r[1] << 8) | (r[0] >> 56);
    r[0] = (r[0] << 8) | wide[at];
    u64 q = (top << 4) | (r[3] >> 60);  // < 2^9
    r[3] &= (u64{1} << 60) - 1;
    u128 low = static_cast<u128>(q) * kOrder0;
    u128 high = static_cast<u128>(q) * kOrder1 + static_cast<u64>(low >> 64);  // q c < 2^134
    const u64 qc[4] = {static_cast<u64>(low), static_cast<u64>(high), static_cast<u64>(high >> 64), 0};
    i128 borrow = 0;
    for (int i = 0; i < 4; i++) {
      borrow += static_cast<i128>(r[i]) - qc[i];
      r[i] = static_cast<u64>(borrow);
      borrow >>= 64;  // 0 or -1
    }
    if (borrow < 0) {
      const u64 order[4] = {kOrder0, kOrder1, 0, kOrder3};
      u128 carry = 0;
      for (int i = 0; i < 4; i++) {
        carry += static_cast<u128>(r[i]) + order[i];
        r[i] = static_cast<u64>(carry);
        carry >>= 64;
      }
    }
  }
  for (int i = 0; i < 32; i++) out[i] = static_cast<u8>(r[i / 8] >> (8 * (i % 8)));
}

}  // namespace

#ifdef OTA_HOST_BUILD
// Built for the host tools only: kept out of the device program, whose compiler would
// otherwise share the decoder and the constants differently between two callers.
int ed25519_key_problem(const u8 public_key[kPublicKeyBytes]) {
  if (!y_is_canonical(public_key)) return kKeyNotCanonical;
  Curve curve;
  set_curve(curve);
  Ge3 a;
  if (!ge_decode(a, public_key, curve)) {
    // The encoding is canonical, so the decoder refused either a y without a point or the
    // sign bit on x = 0; without the sign bit only the first still fails.
    u8 unsigned_key[kPublicKeyBytes];
    for (usize i = 0; i < kPublicKeyBytes; i++) unsigned_key[i] = public_key[i];
    unsigned_key[kPublicKeyBytes - 1] &= 0x7f;
    return ge_decode(a, unsigned_key, curve) ? kKeyZeroXSigned : kKeyNotOnCurve;
  }
  // The group has order 8 L: a point has small order exactly when [8]A is the neutral
  // point (x = 0, y = 1), that is X = 0 and Y = Z.
  Ge2 p = {a.X, a.Y, a.Z};
  for (int i = 0; i < 3; i++) {
    Ge1 t;
    ge_double(t, p);
    ge1_to_2(p, t);
  }
  return fe_is_zero(p.X) && fe_equal(p.Y, p.Z) ? kKeySmallOrder : kKeyUsable;
}
#endif

bool ed25519_verify(const u8 public_key[kPublicKeyBytes], const u8* message, usize length,
                    const u8 signature[kSignatureBytes]) {
  const u8* r_bytes = signature;
  const u8* s_bytes = signature + 32;
  if (!scalar_below_order(s_bytes)) return false;

  Curve curve;
  set_curve(curve);
  Ge3 a, r;
  if (!ge_decode(a, public_key, curve)) return false;
  if (!ge_decode(r, r_bytes, curve)) return false;

  // k = SHA-512(R || A || message) mod L, over the bytes exactly as given.
  Sha512 hash;
  u8 wide[kSha512DigestBytes];
  u8 k[32];
  sha512_init(hash);
  sha512_update(hash, r_bytes, 32);
  sha512_update(hash, public_key, kPublicKeyBytes);
  sha512_update(hash, message, length);
  sha512_final(hash, wide);
  scalar_reduce(k, wide);

  // [S]B = R + [k]A is checked as [S]B - [k]A = R: the same equation, and both scalar
  // multiplications then share one run of doublings.
  i8 s_digits[kScalarBits], k_digits[kScalarBits];
  slide(s_digits, s_bytes);
  slide(k_digits, k);
  GeCached b_window[kWindowPoints], a_window[kWindowPoints];
  build_window(b_window, curve.base, curve);
  build_window(a_window, a, curve);

  Ge2 sum = {{{0, 0, 0, 0, 0}}, {{1, 0, 0, 0, 0}}, {{1, 0, 0, 0, 0}}};  // the neutral point
  int i = kScalarBits - 1;
  while (i >= 0 && !s_digits[i] && !k_digits[i]) i--;
  for (; i >= 0; i--) {
    Ge1 t;
    Ge3 u;
    ge_double(t, sum);
    if (s_digits[i]) {
      ge1_to_3(u, t);
      int digit = s_digits[i];
      ge_add(t, u, b_window[(digit < 0 ? -digit : digit) / 2], digit < 0);
    }
    if (k_digits[i]) {
      ge1_to_3(u, t);
      int digit = k_digits[i];
      ge_add(t, u, a_window[(digit < 0 ? -digit : digit) / 2], digit > 0);
    }
    ge1_to_2(sum, t);
  }

  // Compared projectively with R = (x_R : y_R : 1).
  Fe x_r, y_r;
  fe_mul(x_r, r.X, sum.Z);
  fe_mul(y_r, r.Y, sum.Z);
  return fe_equal(x_r, sum.X) && fe_equal(y_r, sum.Y);
}

}  // namespace ota
