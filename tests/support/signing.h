#pragma once
// Ed25519 key pairs and signatures made with OpenSSL, for tests that need correctly
// signed key changes and catalogs, and OpenSSL's verdict on a signature as the reference
// the device's own verifier is held against.
#include <openssl/evp.h>

#include <array>
#include <string>

#include "bytes.h"

struct TestKey {
  std::array<unsigned char, 32> seed{};
  std::array<unsigned char, 32> pub{};

  static TestKey from_seed(unsigned char fill) {
    TestKey k;
    k.seed.fill(fill);
    EVP_PKEY* pkey = EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, k.seed.data(), 32);
    size_t len = 32;
    EVP_PKEY_get_raw_public_key(pkey, k.pub.data(), &len);
    EVP_PKEY_free(pkey);
    return k;
  }

  std::string sign(const std::string& message) const {
    EVP_PKEY* pkey = EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed.data(), 32);
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestSignInit(ctx, nullptr, nullptr, nullptr, pkey);
    unsigned char sig[64];
    size_t len = sizeof sig;
    EVP_DigestSign(ctx, sig, &len, reinterpret_cast<const unsigned char*>(message.data()), message.size());
    EVP_MD_CTX_free(ctx);
    EVP_PKEY_free(pkey);
    return std::string(reinterpret_cast<char*>(sig), 64);
  }

  std::string pub_bytes() const { return std::string(reinterpret_cast<const char*>(pub.data()), 32); }
};

// Whether sig is an Ed25519 signature of message by the 32-byte public key pub.
inline bool openssl_verifies(const std::string& pub, const std::string& message, const std::string& sig) {
  if (pub.size() != 32 || sig.size() != 64) return false;
  EVP_PKEY* key =
      EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(pub.data()), 32);
  if (key == nullptr) return false;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  bool ok = EVP_DigestVerifyInit(ctx, nullptr, nullptr, nullptr, key) == 1 &&
            EVP_DigestVerify(ctx, reinterpret_cast<const unsigned char*>(sig.data()), 64,
                             reinterpret_cast<const unsigned char*>(message.data()), message.size()) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(key);
  return ok;
}

// A key-change line for generation g introducing `next`, signed by `signer`.
inline std::string chain_line(unsigned long long g, const TestKey& next, const TestKey& signer, bool upper = false) {
  std::string key_text = to_hex(next.pub_bytes(), upper);
  std::string signed_text = "tavi-schluessel\t" + std::to_string(g) + "\t" + key_text;
  return "kette\t" + std::to_string(g) + "\t" + key_text + "\t" + to_hex(signer.sign(signed_text)) + "\n";
}
