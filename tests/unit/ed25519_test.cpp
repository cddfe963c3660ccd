// Ed25519 verification: the RFC 8032 vectors and every single-bit change of them, the
// twelve edge cases of "Taming the many EdDSAs", and hand-built hostile encodings (S out
// of range, non-canonical y, x = 0 with the sign bit, small-order and mixed-order points)
// where the verdict of the strict, cofactorless rule is the point of the test.
#include "trust/ed25519.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>
#include <regex>
#include <sstream>
#include <string>

#include "ed25519_reference.h"
#include "sha_vectors.h"

using namespace ota;

namespace {

int verify(const Bytes& key, const Bytes& message, const Bytes& signature) {
  if (key.size() != kPublicKeyBytes || signature.size() != kSignatureBytes) throw std::runtime_error("bad sizes");
  return ed25519_verify(key.data(), message.data(), message.size(), signature.data());
}

Bytes concat(const Bytes& a, const Bytes& b) {
  Bytes out(a);
  out.insert(out.end(), b.begin(), b.end());
  return out;
}

Bytes message_number(unsigned n) {
  std::string s = "message " + std::to_string(n);
  return Bytes(s.begin(), s.end());
}

// OpenSSL's view of a secret key: its public key and its (deterministic) signature.
void openssl_sign(const Bytes& secret, const Bytes& message, Bytes& key, Bytes& signature) {
  EVP_PKEY* pkey = EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, secret.data(), secret.size());
  ASSERT_NE(pkey, nullptr);
  key.assign(32, 0);
  size_t n = key.size();
  ASSERT_EQ(EVP_PKEY_get_raw_public_key(pkey, key.data(), &n), 1);
  EVP_MD_CTX* md = EVP_MD_CTX_new();
  signature.assign(64, 0);
  size_t sig_len = signature.size();
  ASSERT_EQ(EVP_DigestSignInit(md, nullptr, nullptr, nullptr, pkey), 1);
  ASSERT_EQ(EVP_DigestSign(md, signature.data(), &sig_len, message.data(), message.size()), 1);
  EVP_MD_CTX_free(md);
  EVP_PKEY_free(pkey);
}

struct RfcVector {
  std::string name;
  Bytes secret, key, message, signature;
};

std::vector<RfcVector> rfc_vectors() {
  std::istringstream in(read_text(vector_path("rfc8032_ed25519.txt")));
  std::vector<RfcVector> out;
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> f;
    std::stringstream fields(line);
    for (std::string part; std::getline(fields, part, ':');) f.push_back(part);
    if (f.size() != 5) throw std::runtime_error("bad line: " + line);
    out.push_back({f[0], from_hex(f[1]), from_hex(f[2]), from_hex(f[3]), from_hex(f[4])});
  }
  return out;
}

// The points of order dividing 8: [i]T for a point T of order 8 (taken from the
// encoding that the EdDSA edge cases use).
std::vector<ref::Pt> small_order_points() {
  Bytes t8 = from_hex("c7176a703d4dd84fba3c0b760d10670f2a2053fa2c39ccc64ec7fd7792ac037a");
  ref::Pt t;
  if (!ref::decode(t8.data(), t)) throw std::runtime_error("order-8 point does not decode");
  std::vector<ref::Pt> points{ref::identity()};
  for (int i = 1; i < 8; i++) points.push_back(ref::add(points.back(), t));
  return points;
}

int point_order(const ref::Pt& p) {
  ref::Pt q = p;
  for (int n = 1; n <= 8; n++) {
    if (ref::same(q, ref::identity())) return n;
    q = ref::add(q, p);
  }
  return 0;
}

// A signature whose R is [r]B and whose S is r: valid exactly when [k]A is the neutral
// point, which for a small-order key depends on k alone.
Bytes signature_r_equals_s(const ref::Num& r) {
  return concat(ref::encode(ref::mul(r, ref::base())), r.bytes32());
}

// Some message for which pick(k) holds, k taken over the given R and key bytes.
template <typename Pick>
Bytes message_where(const Bytes& r_bytes, const Bytes& key, Pick pick) {
  for (unsigned n = 0; n < 10000; n++) {
    Bytes m = message_number(n);
    if (pick(ref::challenge(r_bytes, key, m))) return m;
  }
  throw std::runtime_error("no such message");
}

}  // namespace

TEST(Ed25519Rfc8032, VectorsVerifyAndOpenSslDerivesTheSameKeysAndSignatures) {
  auto vectors = rfc_vectors();
  ASSERT_EQ(vectors.size(), 5u);
  for (const auto& v : vectors) {
    SCOPED_TRACE(v.name);
    Bytes key, signature;
    openssl_sign(v.secret, v.message, key, signature);
    EXPECT_EQ(to_hex(key), to_hex(v.key));
    EXPECT_EQ(to_hex(signature), to_hex(v.signature));
    EXPECT_EQ(verify(v.key, v.message, v.signature), 1);
  }
}

TEST(Ed25519Rfc8032, EverySingleBitFlipOfMessageRSAndKeyIsRefused) {
  for (const auto& v : rfc_vectors()) {
    SCOPED_TRACE(v.name);
    for (size_t bit = 0; bit < v.message.size() * 8; bit++) {
      Bytes m = v.message;
      m[bit / 8] ^= static_cast<u8>(1 << (bit % 8));
      ASSERT_EQ(verify(v.key, m, v.signature), 0) << "message bit " << bit;
    }
    for (size_t bit = 0; bit < 512; bit++) {
      Bytes s = v.signature;
      s[bit / 8] ^= static_cast<u8>(1 << (bit % 8));
      ASSERT_EQ(verify(v.key, v.message, s), 0) << (bit < 256 ? "R" : "S") << " bit " << bit % 256;
    }
    for (size_t bit = 0; bit < 256; bit++) {
      Bytes k = v.key;
      k[bit / 8] ^= static_cast<u8>(1 << (bit % 8));
      ASSERT_EQ(verify(k, v.message, v.signature), 0) << "key bit " << bit;
    }
  }
}

// Cases 0-3 satisfy the cofactorless equation with small-order or mixed-order points and
// verify; 4 and 5 hold only with the cofactor; 6 and 7 have S >= L; 8 and 9 give R with
// x = 0 and the sign bit set, 10 and 11 the key.
TEST(Ed25519EdgeCases, TwelveCasesGetTheStrictCofactorlessVerdicts) {
  std::string json = read_text(vector_path("eddsa_edge_cases.json"));
  std::regex record("\\{\"message\":\"([0-9a-f]*)\",\"pub_key\":\"([0-9a-f]{64})\",\"signature\":\"([0-9a-f]{128})\"\\}");
  std::vector<std::smatch> cases;
  for (auto it = std::sregex_iterator(json.begin(), json.end(), record); it != std::sregex_iterator(); ++it) {
    cases.push_back(*it);
  }
  ASSERT_EQ(cases.size(), 12u);
  for (size_t i = 0; i < cases.size(); i++) {
    int expected = i <= 3 ? 1 : 0;
    EXPECT_EQ(verify(from_hex(cases[i][2]), from_hex(cases[i][1]), from_hex(cases[i][3])), expected) << "case " << i;
  }
}

TEST(Ed25519Hostile, ScalarAtOrAboveTheOrderIsRefusedEvenWhenItsResidueWouldVerify) {
  const ref::Num& order = ref::order();
  Bytes key, signature;
  Bytes secret(32, 7), message = message_number(1);
  openssl_sign(secret, message, key, signature);
  ASSERT_EQ(verify(key, message, signature), 1);
  ref::Num s = ref::Num::little_endian(signature.data() + 32, 32);
  bool top_bit_seen[3] = {false, false, false};
  for (unsigned m = 1; m <= 15; m++) {
    // S + m L still fits 256 bits and is the same scalar modulo L.
    ref::Num big;
    BN_mul_word(BN_copy(big.b, order.b), m);
    BN_add(big.b, big.b, s.b);
    Bytes forged(signature.begin(), signature.begin() + 32);
    Bytes s_bytes = big.bytes32();
    forged.insert(forged.end(), s_bytes.begin(), s_bytes.end());
    for (int b = 0; b < 3; b++) top_bit_seen[b] |= (s_bytes[31] >> (5 + b)) & 1;
    ASSERT_TRUE(ref::equation_holds(key, message, forged));
    EXPECT_EQ(verify(key, message, forged), 0) << "S + " << m << " L";
  }
  EXPECT_TRUE(top_bit_seen[0] && top_bit_seen[1] && top_bit_seen[2]);

  // S = L and S = L + 1 under the neutral key, where S mod L (0 and 1) verifies.
  Bytes neutral_key = from_hex("0100000000000000000000000000000000000000000000000000000000000000");
  Bytes neutral_r = neutral_key;
  Bytes base_r = ref::encode(ref::base());
  ref::Num l_plus_1;
  BN_add(l_plus_1.b, order.b, BN_value_one());
  EXPECT_EQ(verify(neutral_key, message, concat(neutral_r, ref::Num::word(0).bytes32())), 1);
  EXPECT_EQ(verify(neutral_key, message, concat(neutral_r, order.bytes32())), 0);
  EXPECT_EQ(verify(neutral_key, message, concat(base_r, ref::Num::word(1).bytes32())), 1);
  EXPECT_EQ(verify(neutral_key, message, concat(base_r, l_plus_1.bytes32())), 0);
}

TEST(Ed25519Hostile, KeyWithYAtOrAbovePIsRefusedEvenWhereItsResidueWouldVerify) {
  std::mt19937_64 rng(31);
  ref::Num r = ref::random_scalar(rng);
  Bytes signature = signature_r_equals_s(r);
  Bytes r_bytes(signature.begin(), signature.begin() + 32);

  // y = p + 1 stands for y = 1, the neutral point: every message would verify.
  Bytes neutral = from_hex("0100000000000000000000000000000000000000000000000000000000000000");
  Bytes p_plus_1 = from_hex("eeffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f");
  Bytes message = message_number(3);
  EXPECT_EQ(verify(neutral, message, signature), 1);
  ASSERT_TRUE(ref::equation_holds(p_plus_1, message, signature));
  EXPECT_EQ(verify(p_plus_1, message, signature), 0);

  // y = p stands for y = 0, a point of order 4: valid when 4 divides k.
  for (u8 sign : {0x00, 0x80}) {
    Bytes zero_y(32, 0), p_y = from_hex("edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f");
    zero_y[31] |= sign;
    p_y[31] |= sign;
    auto divisible_by_4 = [](const ref::Num& k) { return ref::residue(k, 4) == 0; };
    Bytes m_canonical = message_where(r_bytes, zero_y, divisible_by_4);
    EXPECT_EQ(verify(zero_y, m_canonical, signature), 1);
    Bytes m_wide = message_where(r_bytes, p_y, divisible_by_4);
    ASSERT_TRUE(ref::equation_holds(p_y, m_wide, signature));
    EXPECT_EQ(verify(p_y, m_wide, signature), 0) << "sign " << int(sign);
  }

  // Thirty-two 0xff bytes with the top bit cleared: y = p + 18.
  Bytes key, good;
  openssl_sign(Bytes(32, 9), message, key, good);
  EXPECT_EQ(verify(from_hex("ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"), message, good), 0);
  EXPECT_EQ(verify(from_hex("ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff"), message, good), 0);
}

TEST(Ed25519Hostile, RWithYAtOrAbovePIsRefusedEvenWhereItsResidueWouldVerify) {
  std::mt19937_64 rng(32);
  // A key with a known secret scalar a; R = neutral, S = k a.
  ref::Num a = ref::random_scalar(rng);
  Bytes key = ref::encode(ref::mul(a, ref::base()));
  Bytes message = message_number(4);
  auto neutral_signature = [&](const Bytes& r_bytes) {
    return concat(r_bytes, ref::scalar_mul(ref::challenge(r_bytes, key, message), a).bytes32());
  };
  Bytes neutral = from_hex("0100000000000000000000000000000000000000000000000000000000000000");
  Bytes p_plus_1 = from_hex("eeffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f");
  EXPECT_EQ(verify(key, message, neutral_signature(neutral)), 1);
  Bytes wide = neutral_signature(p_plus_1);
  ASSERT_TRUE(ref::equation_holds(key, message, wide));
  EXPECT_EQ(verify(key, message, wide), 0);

  // R = (x, 0) of order 4 under the key (x, 0) itself, S = 0: valid when k = 3 (mod 4).
  Bytes zero_y(32, 0), p_y = from_hex("edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f");
  Bytes zero_s(32, 0);
  auto three_mod_4 = [](const ref::Num& k) { return ref::residue(k, 4) == 3; };
  Bytes m_canonical = message_where(zero_y, zero_y, three_mod_4);
  EXPECT_EQ(verify(zero_y, m_canonical, concat(zero_y, zero_s)), 1);
  Bytes m_wide = message_where(p_y, zero_y, three_mod_4);
  ASSERT_TRUE(ref::equation_holds(zero_y, m_wide, concat(p_y, zero_s)));
  EXPECT_EQ(verify(zero_y, m_wide, concat(p_y, zero_s)), 0);
}

TEST(Ed25519Hostile, XZeroWithTheSignBitIsRefusedForKeyAndR) {
  std::mt19937_64 rng(33);
  Bytes neutral = from_hex("0100000000000000000000000000000000000000000000000000000000000000");
  Bytes neutral_signed = from_hex("0100000000000000000000000000000000000000000000000000000000000080");
  Bytes minus_one = from_hex("ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f");
  Bytes minus_one_signed = from_hex("ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff");
  Bytes message = message_number(5);

  // As the key: the neutral point verifies S = r for any message.
  Bytes signature = signature_r_equals_s(ref::random_scalar(rng));
  Bytes r_bytes(signature.begin(), signature.begin() + 32);
  EXPECT_EQ(verify(neutral, message, signature), 1);
  ASSERT_TRUE(ref::equation_holds(neutral_signed, message, signature));
  EXPECT_EQ(verify(neutral_signed, message, signature), 0);
  // (0, -1) has order 2: S = r verifies when k is even.
  auto even = [](const ref::Num& k) { return ref::residue(k, 2) == 0; };
  Bytes m_canonical = message_where(r_bytes, minus_one, even);
  EXPECT_EQ(verify(minus_one, m_canonical, signature), 1);
  Bytes m_signed = message_where(r_bytes, minus_one_signed, even);
  ASSERT_TRUE(ref::equation_holds(minus_one_signed, m_signed, signature));
  EXPECT_EQ(verify(minus_one_signed, m_signed, signature), 0);

  // As R: R = neutral with S = k a under a key [a]B.
  ref::Num a = ref::random_scalar(rng);
  Bytes key = ref::encode(ref::mul(a, ref::base()));
  auto neutral_signature = [&](const Bytes& r) {
    return concat(r, ref::scalar_mul(ref::challenge(r, key, message), a).bytes32());
  };
  EXPECT_EQ(verify(key, message, neutral_signature(neutral)), 1);
  Bytes forged = neutral_signature(neutral_signed);
  ASSERT_TRUE(ref::equation_holds(key, message, forged));
  EXPECT_EQ(verify(key, message, forged), 0);
  // R = (0, -1) under the key (0, -1) with S = 0: valid when k is odd.
  Bytes zero_s(32, 0);
  auto odd = [](const ref::Num& k) { return ref::residue(k, 2) == 1; };
  Bytes m1 = message_where(minus_one, minus_one, odd);
  EXPECT_EQ(verify(minus_one, m1, concat(minus_one, zero_s)), 1);
  Bytes m2 = message_where(minus_one_signed, minus_one, odd);
  ASSERT_TRUE(ref::equation_holds(minus_one, m2, concat(minus_one_signed, zero_s)));
  EXPECT_EQ(verify(minus_one, m2, concat(minus_one_signed, zero_s)), 0);
}

// Small order is no reason to refuse: a small-order key verifies exactly when [k]A is
// the neutral point, and fails otherwise (where a cofactored check would still accept).
TEST(Ed25519SmallOrder, SmallOrderKeysVerifyExactlyWhereTheEquationHolds) {
  std::mt19937_64 rng(34);
  auto points = small_order_points();
  std::vector<int> orders;
  for (const auto& t : points) {
    ASSERT_TRUE(ref::on_curve(t));
    orders.push_back(point_order(t));
  }
  EXPECT_EQ(orders, (std::vector<int>{1, 8, 4, 8, 2, 8, 4, 8}));
  for (size_t i = 0; i < points.size(); i++) {
    SCOPED_TRACE("key [" + std::to_string(i) + "]T");
    Bytes key = ref::encode(points[i]);
    Bytes signature = signature_r_equals_s(ref::random_scalar(rng));
    Bytes r_bytes(signature.begin(), signature.begin() + 32);
    unsigned long n = static_cast<unsigned long>(orders[i]);
    Bytes holds = message_where(r_bytes, key, [&](const ref::Num& k) { return ref::residue(k, n) == 0; });
    EXPECT_EQ(verify(key, holds, signature), 1);
    if (n > 1) {
      Bytes fails = message_where(r_bytes, key, [&](const ref::Num& k) { return ref::residue(k, n) != 0; });
      EXPECT_EQ(verify(key, fails, signature), 0);
    }
  }
}

TEST(Ed25519SmallOrder, SmallOrderRVerifiesWhereTheEquationHolds) {
  auto points = small_order_points();
  Bytes key = ref::encode(points[1]);  // order 8
  Bytes zero_s(32, 0);
  // [0]B = R + [k]T needs R = -[k]T: try R = -[c]T until k = c (mod 8).
  for (unsigned n = 0, found = 0; found < 4 && n < 10000; n++) {
    Bytes message = message_number(n);
    for (int c = 0; c < 8; c++) {
      Bytes r_bytes = ref::encode(ref::neg(points[c]));
      ref::Num k = ref::challenge(r_bytes, key, message);
      Bytes signature = concat(r_bytes, zero_s);
      int expected = ref::residue(k, 8) == static_cast<unsigned long>(c) ? 1 : 0;
      if (c == 0 || c == 4) {
        // R = neutral or (0, -1): x = 0, always encoded with the sign bit clear.
        ASSERT_EQ(r_bytes[31] & 0x80, 0);
      }
      EXPECT_EQ(verify(key, message, signature), expected) << "c " << c << " message " << n;
      found += expected;
    }
  }
}

TEST(Ed25519SmallOrder, MixedOrderKeyVerifiesOnlyWhereTheSmallComponentVanishes) {
  std::mt19937_64 rng(35);
  auto points = small_order_points();
  ref::Num a = ref::random_scalar(rng);
  Bytes key = ref::encode(ref::add(ref::mul(a, ref::base()), points[1]));
  ref::Num r = ref::random_scalar(rng);
  Bytes r_bytes = ref::encode(ref::mul(r, ref::base()));
  auto sign = [&](const Bytes& message) {
    return concat(r_bytes, ref::scalar_add(r, ref::scalar_mul(ref::challenge(r_bytes, key, message), a)).bytes32());
  };
  Bytes holds = message_where(r_bytes, key, [](const ref::Num& k) { return ref::residue(k, 8) == 0; });
  EXPECT_EQ(verify(key, holds, sign(holds)), 1);
  Bytes fails = message_where(r_bytes, key, [](const ref::Num& k) { return ref::residue(k, 8) != 0; });
  EXPECT_EQ(verify(key, fails, sign(fails)), 0);
}

// Signatures made with the reference arithmetic from arbitrary secret scalars (not the
// clamped ones of real keys) verify, and fail for another message.
TEST(Ed25519Reference, SignaturesFromArbitraryScalarsVerify) {
  std::mt19937_64 rng(36);
  for (int i = 0; i < 40; i++) {
    ref::Num a = ref::random_scalar(rng), r = ref::random_scalar(rng);
    Bytes key = ref::encode(ref::mul(a, ref::base()));
    Bytes r_bytes = ref::encode(ref::mul(r, ref::base()));
    Bytes message = message_number(1000 + i);
    Bytes s = ref::scalar_add(r, ref::scalar_mul(ref::challenge(r_bytes, key, message), a)).bytes32();
    EXPECT_EQ(verify(key, message, concat(r_bytes, s)), 1) << i;
    EXPECT_EQ(verify(key, message_number(2000 + i), concat(r_bytes, s)), 0) << i;
  }
}

// When [S]B - [k]A comes out as -R (same y, x of the other sign) the signature is wrong:
// both coordinates take part in the comparison.
TEST(Ed25519Reference, NegatedRIsRefused) {
  std::mt19937_64 rng(37);
  for (int i = 0; i < 8; i++) {
    ref::Num a = ref::random_scalar(rng), x = ref::random_scalar(rng);
    Bytes key = ref::encode(ref::mul(a, ref::base()));
    Bytes r_bytes = ref::encode(ref::mul(x, ref::base()));
    Bytes message = message_number(3000 + i);
    ref::Num k = ref::challenge(r_bytes, key, message);
    ref::Num minus_x;
    BN_mod_sub(minus_x.b, ref::order().b, x.b, ref::order().b, ref::ctx());
    EXPECT_EQ(verify(key, message, concat(r_bytes, ref::scalar_add(ref::scalar_mul(k, a), minus_x).bytes32())), 0);
    EXPECT_EQ(verify(key, message, concat(r_bytes, ref::scalar_add(ref::scalar_mul(k, a), x).bytes32())), 1);
  }
}
