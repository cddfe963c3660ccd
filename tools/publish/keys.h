#pragma once
// Ed25519 through libcrypto: key files, signing and verifying. Private keys stay in their
// PKCS#8 PEM file; the tool reads them and never writes them anywhere else.
#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "device_limits.h"
#include "util.h"

typedef struct evp_pkey_st EVP_PKEY;

namespace publish {

constexpr std::size_t kPublicKeyBytes = ota::kPublicKeyBytes;  // what a device holds in /system/schluessel.pub
constexpr std::size_t kSignatureBytes = ota::kSignatureBytes;  // R then S, stored raw in every .sig file

using PublicKey = std::array<std::uint8_t, kPublicKeyBytes>;
using Signature = std::array<std::uint8_t, kSignatureBytes>;

class PrivateKey {
 public:
  // Reads a PEM private key; refuses any other key type than Ed25519.
  static PrivateKey load(const std::string& path);
  static PrivateKey generate();
  PrivateKey(PrivateKey&&) noexcept = default;
  PrivateKey& operator=(PrivateKey&&) noexcept = default;
  ~PrivateKey();

  PublicKey public_key() const;
  Signature sign(const std::uint8_t* message, std::size_t length) const;
  Signature sign(const Bytes& message) const { return sign(message.data(), message.size()); }
  // The PKCS#8 PEM text of the key, for keygen only.
  std::string pem() const;

  struct Free {
    void operator()(EVP_PKEY* key) const;
  };

 private:
  explicit PrivateKey(EVP_PKEY* key) : key_(key) {}
  std::unique_ptr<EVP_PKEY, Free> key_;
};

// A raw 32-byte public key file (exactly 32 bytes, as keygen writes it).
PublicKey load_public_key(const std::string& path);

bool verify_signature(const PublicKey& key, const std::uint8_t* message, std::size_t length,
                      const std::uint8_t* signature);

}  // namespace publish
