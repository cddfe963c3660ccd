// SHA-512, the hash inside Ed25519: the NIST SHAVS vectors and the FIPS 180-4 examples,
// whole, byte by byte and split at every offset, and random messages against OpenSSL.
#include "trust/sha512.h"

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <random>
#include <string>

#include "sha_vectors.h"

using namespace ota;

namespace {

std::string digest_in_pieces(const u8* data, size_t n, const std::vector<size_t>& cuts) {
  Sha512 context;
  u8 out[kSha512DigestBytes];
  sha512_init(context);
  size_t at = 0;
  for (size_t cut : cuts) {
    sha512_update(context, data + at, cut - at);
    at = cut;
  }
  sha512_update(context, data + at, n - at);
  sha512_final(context, out);
  return to_hex(out, sizeof out);
}
std::string digest_of(const Bytes& b) { return digest_in_pieces(b.data(), b.size(), {}); }
std::string digest_of(const std::string& s) {
  return digest_in_pieces(reinterpret_cast<const u8*>(s.data()), s.size(), {});
}

std::vector<size_t> every_byte(size_t n) {
  std::vector<size_t> cuts;
  for (size_t i = 1; i < n; i++) cuts.push_back(i);
  return cuts;
}

}  // namespace

TEST(Sha512, ShortMessagesWholeByteByByteAndSplitAtEveryOffset) {
  auto vectors = read_shavs("SHA512ShortMsg.rsp");
  ASSERT_EQ(vectors.size(), 129u);
  for (const auto& v : vectors) {
    SCOPED_TRACE("Len = " + std::to_string(v.bits));
    EXPECT_EQ(digest_of(v.message), v.digest_hex);
    EXPECT_EQ(digest_in_pieces(v.message.data(), v.message.size(), every_byte(v.message.size())), v.digest_hex);
    for (size_t cut = 0; cut <= v.message.size(); cut++) {
      EXPECT_EQ(digest_in_pieces(v.message.data(), v.message.size(), {cut}), v.digest_hex) << "split at " << cut;
    }
  }
}

TEST(Sha512, LongMessagesWholeAndInUnevenPieces) {
  auto vectors = read_shavs("SHA512LongMsg.rsp");
  ASSERT_EQ(vectors.size(), 128u);
  for (const auto& v : vectors) {
    SCOPED_TRACE("Len = " + std::to_string(v.bits));
    EXPECT_EQ(digest_of(v.message), v.digest_hex);
    std::vector<size_t> cuts;
    for (size_t at = 0, step = 1; at + step < v.message.size(); step = step % 260 + 1) cuts.push_back(at += step);
    EXPECT_EQ(digest_in_pieces(v.message.data(), v.message.size(), cuts), v.digest_hex);
    EXPECT_EQ(digest_in_pieces(v.message.data(), v.message.size(), every_byte(v.message.size())), v.digest_hex);
  }
}

TEST(Sha512, Fips180Examples) {
  EXPECT_EQ(digest_of(std::string("abc")),
            "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
            "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
  EXPECT_EQ(digest_of(std::string("abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmno"
                                  "ijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu")),
            "8e959b75dae313da8cf4f72814fc143f8f7779c6eb9f7fa17299aeadb6889018"
            "501d289e4900f7e4331b99dec4b5433ac7d329eeb6dd26545e96e55b874be909");
  EXPECT_EQ(digest_of(std::string("")),
            "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
            "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e");
}

TEST(Sha512, OneMillionTimesA) {
  std::string million(1000000, 'a');
  const char expected[] =
      "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973eb"
      "de0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4eadb217ad8cc09b";
  EXPECT_EQ(digest_of(million), expected);
  std::vector<size_t> cuts;
  for (size_t at = 1000; at < million.size(); at += 1000) cuts.push_back(at);
  EXPECT_EQ(digest_in_pieces(reinterpret_cast<const u8*>(million.data()), million.size(), cuts), expected);
}

TEST(Sha512, AgreesWithOpenSslOnRandomMessagesAndPieces) {
  std::mt19937_64 rng(21);
  for (int round = 0; round < 400; round++) {
    size_t n = rng() % 3000;
    Bytes buffer(n + 16);
    for (auto& x : buffer) x = static_cast<u8>(rng());
    const u8* message = buffer.data() + rng() % 16;
    std::vector<size_t> cuts;
    for (size_t at = 0; n > 0;) {
      at += 1 + rng() % 400;
      if (at >= n) break;
      cuts.push_back(at);
    }
    u8 reference[SHA512_DIGEST_LENGTH];
    SHA512(message, n, reference);
    EXPECT_EQ(digest_in_pieces(message, n, cuts), to_hex(reference, sizeof reference)) << "length " << n;
  }
}

// Each verification owns its context; two hashes in flight do not disturb each other.
TEST(Sha512, ContextsAreIndependent) {
  Sha512 first, second;
  sha512_init(first);
  sha512_init(second);
  sha512_update(first, "ab", 2);
  sha512_update(second, "xyz", 3);
  sha512_update(first, "c", 1);
  u8 out_first[kSha512DigestBytes], out_second[kSha512DigestBytes];
  sha512_final(first, out_first);
  sha512_final(second, out_second);
  EXPECT_EQ(to_hex(out_first, sizeof out_first), digest_of(std::string("abc")));
  EXPECT_EQ(to_hex(out_second, sizeof out_second), digest_of(std::string("xyz")));
}
