#pragma once
// Ed25519 keys kept in a PKCS#11 token (a hardware security module, a smart card, a USB
// token, or SoftHSM2 for rehearsals). The module named by the URI's module-path is loaded
// with dlopen and driven through its function list; the token signs with CKM_EDDSA and the
// private key never leaves it. The PIN comes from the URI (pin-value, pin-source=file:...)
// or from the environment variable OTA_PKCS11_PIN; it is never asked for, so a release
// pipeline cannot hang on a prompt.
#include <memory>
#include <string>

#include "keys.h"

namespace publish {

class TokenKey {
 public:
  // Finds the Ed25519 private key the URI names, logs in, and reads the public half from
  // the public key object beside it (same id, else same label).
  static std::shared_ptr<TokenKey> open(const std::string& uri);
  // Makes a new Ed25519 key pair in the token the URI names, labelled with its object= and
  // identified by its id= (or by a fresh random id). The private half is sensitive and not
  // extractable; a token that makes it otherwise has the pair removed again.
  static std::shared_ptr<TokenKey> generate(const std::string& uri);

  TokenKey(const TokenKey&) = delete;
  TokenKey& operator=(const TokenKey&) = delete;
  ~TokenKey();

  const PublicKey& public_key() const;
  // Each signature is checked against the public key before it is returned, so a token
  // whose public object does not belong to its private key is found out at once.
  Signature sign(const std::uint8_t* message, std::size_t length) const;
  // For messages: `key "release" (id 0a1b...) in token "ota"`.
  std::string description() const;
  // Removes both objects of a pair made by generate(), when its public key could not be
  // written out and the pair would be of no use.
  void destroy();

  struct Impl;

 private:
  explicit TokenKey(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace publish
