#include "keys.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include "pkcs11_key.h"
#include "trust/ed25519.h"
#include "pkcs11_uri.h"

namespace publish {

namespace {

std::string openssl_reason() {
  unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return "no reason given by libcrypto";
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct CtxFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
struct PkeyCtxFree {
  void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};

}  // namespace

void PrivateKey::Free::operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }

PrivateKey::~PrivateKey() = default;

PrivateKey::PrivateKey(std::shared_ptr<TokenKey> token) : token_(std::move(token)) {}

PrivateKey PrivateKey::generate_in_token(const std::string& uri) { return PrivateKey(TokenKey::generate(uri)); }

PrivateKey PrivateKey::load(const std::string& path) {
  if (is_pkcs11_uri(path)) return PrivateKey(TokenKey::open(path));
  Bytes pem = read_file(path, "private key");
  std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!bio) throw Error("libcrypto could not open a memory buffer");
  EVP_PKEY* key = PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr);
  if (key == nullptr) {
    throw Error("cannot read private key " + shown(path) + ": not a PEM private key (" + openssl_reason() + ")");
  }
  PrivateKey result(key);
  if (EVP_PKEY_get_base_id(key) != EVP_PKEY_ED25519) {
    const char* type = EVP_PKEY_get0_type_name(key);
    throw Error("private key " + shown(path) + " is " + with_article(type ? type : "non-Ed25519") +
                " key; devices check Ed25519 signatures only");
  }
  return result;
}

PrivateKey PrivateKey::generate() {
  std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr));
  EVP_PKEY* key = nullptr;
  if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 || EVP_PKEY_keygen(ctx.get(), &key) != 1) {
    throw Error("Ed25519 key generation failed: " + openssl_reason());
  }
  return PrivateKey(key);
}

PublicKey PrivateKey::public_key() const {
  if (token_) return token_->public_key();
  PublicKey out{};
  std::size_t len = out.size();
  if (EVP_PKEY_get_raw_public_key(key_.get(), out.data(), &len) != 1 || len != out.size()) {
    throw Error("cannot take the public half of the key: " + openssl_reason());
  }
  return out;
}

Signature PrivateKey::sign(const std::uint8_t* message, std::size_t length) const {
  if (token_) return token_->sign(message, length);
  std::unique_ptr<EVP_MD_CTX, CtxFree> ctx(EVP_MD_CTX_new());
  Signature sig{};
  std::size_t sig_len = sig.size();
  // Plain Ed25519 hashes the message itself, so no digest is named here.
  if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, key_.get()) != 1 ||
      EVP_DigestSign(ctx.get(), sig.data(), &sig_len, message, length) != 1 || sig_len != sig.size()) {
    throw Error("Ed25519 signing failed: " + openssl_reason());
  }
  return sig;
}

std::string PrivateKey::pem() const {
  if (token_) throw Error("a key in a token has no PEM text; it never leaves the token");
  std::unique_ptr<BIO, BioFree> bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_PKCS8PrivateKey(bio.get(), key_.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    throw Error("cannot write the private key as PEM: " + openssl_reason());
  }
  char* data = nullptr;
  long len = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(len));
}

PublicKey load_public_key(const std::string& path) {
  Bytes raw = read_file(path, "public key");
  if (raw.size() != kPublicKeyBytes) {
    throw Error("public key " + shown(path) + " holds " + std::to_string(raw.size()) +
                " bytes; a public key file is exactly 32 raw bytes");
  }
  PublicKey key{};
  std::copy(raw.begin(), raw.end(), key.begin());
  return key;
}

bool verify_signature(const PublicKey& key, const std::uint8_t* message, std::size_t length,
                      const std::uint8_t* signature) {
  // The device's own verifier, so that the publisher accepts exactly the signatures a
  // device accepts.
  return ota::ed25519_verify(key.data(), message, length, signature);
}

}  // namespace publish
