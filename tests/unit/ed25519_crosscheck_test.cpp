// Ed25519 against OpenSSL on random cases: fresh keys and messages signed by OpenSSL must
// verify, and after one random bit of the message, R, S or key is flipped both verifiers
// must give the same verdict (a refusal).
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>

#include "sha_vectors.h"
#include "trust/ed25519.h"

using namespace ota;

namespace {

struct Ed25519Key {
  EVP_PKEY* pkey = nullptr;
  Bytes key = Bytes(32);
  explicit Ed25519Key(const Bytes& secret) {
    pkey = EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, secret.data(), secret.size());
    size_t n = key.size();
    if (!pkey || EVP_PKEY_get_raw_public_key(pkey, key.data(), &n) != 1) throw std::runtime_error("key");
  }
  ~Ed25519Key() { EVP_PKEY_free(pkey); }
  Bytes sign(const Bytes& message) const {
    Bytes signature(64);
    size_t n = signature.size();
    EVP_MD_CTX* md = EVP_MD_CTX_new();
    if (EVP_DigestSignInit(md, nullptr, nullptr, nullptr, pkey) != 1 ||
        EVP_DigestSign(md, signature.data(), &n, message.data(), message.size()) != 1) {
      throw std::runtime_error("sign");
    }
    EVP_MD_CTX_free(md);
    return signature;
  }
};

int openssl_verify(const Bytes& key, const Bytes& message, const Bytes& signature) {
  EVP_PKEY* pkey = EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, key.data(), key.size());
  if (!pkey) return 0;
  EVP_MD_CTX* md = EVP_MD_CTX_new();
  int ok = EVP_DigestVerifyInit(md, nullptr, nullptr, nullptr, pkey) == 1 &&
           EVP_DigestVerify(md, signature.data(), signature.size(), message.data(), message.size()) == 1;
  EVP_MD_CTX_free(md);
  EVP_PKEY_free(pkey);
  return ok;
}

}  // namespace

TEST(Ed25519CrossCheck, TenThousandRandomCasesAgreeWithOpenSsl) {
  std::mt19937_64 rng(2024);
  int mutated_refused = 0;
  for (int i = 0; i < 10000; i++) {
    Bytes secret(32);
    for (auto& b : secret) b = static_cast<u8>(rng());
    Ed25519Key signer(secret);
    Bytes message(rng() % 300);
    for (auto& b : message) b = static_cast<u8>(rng());
    Bytes signature = signer.sign(message);
    Bytes key = signer.key;
    ASSERT_TRUE(ed25519_verify(key.data(), message.data(), message.size(), signature.data())) << "case " << i;

    // One random bit of message, R, S or key.
    size_t region = rng() % 4;
    if (region == 0 && message.empty()) region = 1;
    Bytes& target = region == 0 ? message : region == 3 ? key : signature;
    size_t bit = region == 0 ? rng() % (message.size() * 8) : region == 1 ? rng() % 256 : region == 2 ? 256 + rng() % 256 : rng() % 256;
    target[bit / 8] ^= static_cast<u8>(1 << (bit % 8));
    int ours = ed25519_verify(key.data(), message.data(), message.size(), signature.data());
    int theirs = openssl_verify(key, message, signature);
    ASSERT_EQ(ours, theirs) << "case " << i << " region " << region << " bit " << bit;
    mutated_refused += ours == 0;
  }
  EXPECT_EQ(mutated_refused, 10000);
}
