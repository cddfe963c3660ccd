#pragma once
// A slow, plain Ed25519 point arithmetic over OpenSSL's BIGNUM (affine coordinates, one
// inversion per addition), independent of the code under test. The signature tests use
// it to build hostile cases that OpenSSL's signing interface cannot make: signatures
// under small-order and mixed-order keys, small-order R, and non-canonical encodings
// whose reduced value would satisfy the equation.
#include <openssl/bn.h>
#include <openssl/sha.h>
#include <stdint.h>

#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace ref {

using Bytes = std::vector<uint8_t>;

inline BN_CTX* ctx() {
  static BN_CTX* c = BN_CTX_new();
  return c;
}

// An owned integer.
struct Num {
  BIGNUM* b;
  Num() : b(BN_new()) {}
  Num(const Num& o) : b(BN_dup(o.b)) {}
  Num& operator=(const Num& o) {
    BN_copy(b, o.b);
    return *this;
  }
  ~Num() { BN_free(b); }
  static Num word(unsigned long w) {
    Num n;
    BN_set_word(n.b, w);
    return n;
  }
  static Num little_endian(const uint8_t* s, size_t n) {
    Num r;
    BN_lebin2bn(s, static_cast<int>(n), r.b);
    return r;
  }
  Bytes bytes32() const {
    Bytes out(32);
    if (BN_bn2lebinpad(b, out.data(), 32) != 32) throw std::runtime_error("number wider than 32 bytes");
    return out;
  }
  bool operator==(const Num& o) const { return BN_cmp(b, o.b) == 0; }
};

// 2^255 - 19
inline const Num& prime() {
  static Num p = [] {
    Num n;
    BN_set_bit(n.b, 255);
    BN_sub_word(n.b, 19);
    return n;
  }();
  return p;
}

// 2^252 + 27742317777372353535851937790883648493
inline const Num& order() {
  static Num l = [] {
    Num n, c;
    BN_set_bit(n.b, 252);
    BN_dec2bn(&c.b, "27742317777372353535851937790883648493");
    BN_add(n.b, n.b, c.b);
    return n;
  }();
  return l;
}

inline Num fadd(const Num& a, const Num& b) {
  Num r;
  BN_mod_add(r.b, a.b, b.b, prime().b, ctx());
  return r;
}
inline Num fsub(const Num& a, const Num& b) {
  Num r;
  BN_mod_sub(r.b, a.b, b.b, prime().b, ctx());
  return r;
}
inline Num fmul(const Num& a, const Num& b) {
  Num r;
  BN_mod_mul(r.b, a.b, b.b, prime().b, ctx());
  return r;
}
inline Num finv(const Num& a) {
  Num r;
  if (!BN_mod_inverse(r.b, a.b, prime().b, ctx())) throw std::runtime_error("no inverse");
  return r;
}

inline const Num& curve_d() {
  static Num d = fsub(Num::word(0), fmul(Num::word(121665), finv(Num::word(121666))));
  return d;
}

struct Pt {
  Num x, y;
};

inline Pt identity() { return {Num::word(0), Num::word(1)}; }

// The twisted Edwards addition law with a = -1; complete since d is not a square.
inline Pt add(const Pt& p, const Pt& q) {
  Num t = fmul(curve_d(), fmul(fmul(p.x, q.x), fmul(p.y, q.y)));
  Num x = fmul(fadd(fmul(p.x, q.y), fmul(p.y, q.x)), finv(fadd(Num::word(1), t)));
  Num y = fmul(fadd(fmul(p.y, q.y), fmul(p.x, q.x)), finv(fsub(Num::word(1), t)));
  return {x, y};
}

inline Pt neg(const Pt& p) { return {fsub(Num::word(0), p.x), p.y}; }

inline Pt mul(const Num& k, const Pt& p) {
  Pt r = identity();
  for (int i = BN_num_bits(k.b) - 1; i >= 0; i--) {
    r = add(r, r);
    if (BN_is_bit_set(k.b, i)) r = add(r, p);
  }
  return r;
}

inline bool same(const Pt& p, const Pt& q) { return p.x == q.x && p.y == q.y; }

inline bool on_curve(const Pt& p) {
  Num xx = fmul(p.x, p.x), yy = fmul(p.y, p.y);
  return fsub(yy, xx) == fadd(Num::word(1), fmul(curve_d(), fmul(xx, yy)));
}

inline Bytes encode(const Pt& p) {
  Bytes out = p.y.bytes32();
  if (BN_is_odd(p.x.b)) out[31] |= 0x80;
  return out;
}

// Lax decoding: y is reduced mod p, whatever its encoding; false when there is no x.
inline bool decode(const uint8_t s[32], Pt& out) {
  uint8_t copy[32];
  for (int i = 0; i < 32; i++) copy[i] = s[i];
  int sign = copy[31] >> 7;
  copy[31] &= 0x7f;
  Num y = Num::little_endian(copy, 32);
  BN_nnmod(y.b, y.b, prime().b, ctx());
  Num yy = fmul(y, y);
  Num xx = fmul(fsub(yy, Num::word(1)), finv(fadd(fmul(curve_d(), yy), Num::word(1))));
  Num x;
  if (BN_is_zero(xx.b)) {
    BN_zero(x.b);
  } else if (!BN_mod_sqrt(x.b, xx.b, prime().b, ctx())) {
    return false;
  }
  if (BN_is_odd(x.b) != sign) x = fsub(Num::word(0), x);
  out = {x, y};
  return true;
}

inline const Pt& base() {
  static Pt b = [] {
    Num y = fmul(Num::word(4), finv(Num::word(5)));
    Bytes s = y.bytes32();  // x is even
    Pt p;
    if (!decode(s.data(), p)) throw std::runtime_error("no base point");
    return p;
  }();
  return b;
}

inline Num scalar_mod(const Num& a) {
  Num r;
  BN_nnmod(r.b, a.b, order().b, ctx());
  return r;
}
inline Num scalar_add(const Num& a, const Num& b) {
  Num r;
  BN_mod_add(r.b, a.b, b.b, order().b, ctx());
  return r;
}
inline Num scalar_mul(const Num& a, const Num& b) {
  Num r;
  BN_mod_mul(r.b, a.b, b.b, order().b, ctx());
  return r;
}

// k = SHA-512(R || A || message) mod L, over the bytes as given.
inline Num challenge(const Bytes& r, const Bytes& a, const Bytes& message) {
  Bytes all(r);
  all.insert(all.end(), a.begin(), a.end());
  all.insert(all.end(), message.begin(), message.end());
  uint8_t h[SHA512_DIGEST_LENGTH];
  SHA512(all.data(), all.size(), h);
  return scalar_mod(Num::little_endian(h, sizeof h));
}

// The residue of k modulo a small number (the order of a small-order component).
inline unsigned long residue(const Num& k, unsigned long m) { return BN_mod_word(k.b, m); }

inline Num random_scalar(std::mt19937_64& rng) {
  uint8_t s[64];
  for (auto& x : s) x = static_cast<uint8_t>(rng());
  return scalar_mod(Num::little_endian(s, sizeof s));
}

// Whether [S]B = R + [k]A holds for the points the encodings stand for (reduced, lax).
inline bool equation_holds(const Bytes& key, const Bytes& message, const Bytes& signature) {
  Pt a, r;
  if (!decode(key.data(), a) || !decode(signature.data(), r)) return false;
  Bytes r_bytes(signature.begin(), signature.begin() + 32);
  Num s = Num::little_endian(signature.data() + 32, 32);
  Num k = challenge(r_bytes, key, message);
  return same(mul(s, base()), add(r, mul(k, a)));
}

}  // namespace ref
