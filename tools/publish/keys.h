#pragma once
// Ed25519 through libcrypto: key files, signing and verifying. Private keys stay in their
// PKCS#8 PEM file, which the tool reads and never writes anywhere else, or in a PKCS#11
// token, which signs for the tool and never gives them out.
#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "device_limits.h"
#include "util.h"

typedef struct evp_pkey_st EVP_PKEY;

namespace publish {

class TokenKey;

constexpr std::size_t kPublicKeyBytes = ota::kPublicKeyBytes;  // what a device holds in /system/schluessel.pub
constexpr std::size_t kSignatureBytes = ota::kSignatureBytes;  // R then S, stored raw in every .sig file

using PublicKey = std::array<std::uint8_t, kPublicKeyBytes>;
using Signature = std::array<std::uint8_t, kSignatureBytes>;

class PrivateKey {
 public:
  // Reads a PEM private key, or opens the token key a PKCS#11 URI ("pkcs11:...") names;
  // refuses any other key type than Ed25519.
  static PrivateKey load(const std::string& path_or_uri);
  // Makes a key pair in the token the PKCS#11 URI names (keygen --key).
  static PrivateKey generate_in_token(const std::string& uri);
  static PrivateKey generate();
  PrivateKey(PrivateKey&&) noexcept = default;
  PrivateKey& operator=(PrivateKey&&) noexcept = default;
  ~PrivateKey();

  PublicKey public_key() const;
  Signature sign(const std::uint8_t* message, std::size_t length) const;
  Signature sign(const Bytes& message) const { return sign(message.data(), message.size()); }
  // The PKCS#8 PEM text of the key, for keygen only (never for a token key).
  std::string pem() const;
  // The token key behind this key, or null for a key read from a file.
  const std::shared_ptr<TokenKey>& token() const { return token_; }

  struct Free {
    void operator()(EVP_PKEY* key) const;
  };

 private:
  explicit PrivateKey(EVP_PKEY* key) : key_(key) {}
  explicit PrivateKey(std::shared_ptr<TokenKey> token);
  std::unique_ptr<EVP_PKEY, Free> key_;
  std::shared_ptr<TokenKey> token_;
};

// A raw 32-byte public key file (exactly 32 bytes, as keygen writes it).
PublicKey load_public_key(const std::string& path);

// Whether signature (64 bytes) is a signature of message under key, as a device decides it.
bool verify_signature(const PublicKey& key, const std::uint8_t* message, std::size_t length,
                      const std::uint8_t* signature);

}  // namespace publish
