// ota-publish keygen: a new Ed25519 key pair, the private half for the release machine (or
// kept inside a PKCS#11 token) and the public half in the raw form a device keeps.
#include <cstdio>

#include "args.h"
#include "commands.h"
#include "keys.h"
#include "output.h"
#include "pkcs11_key.h"
#include "pkcs11_uri.h"
#include "rules.h"

namespace publish {

const char kKeygenHelp[] =
    "usage: ota-publish keygen --out PREFIX\n"
    "       ota-publish keygen --key PKCS11-URI --out PREFIX\n"
    "\n"
    "Makes a new Ed25519 key pair:\n"
    "  PREFIX.key  the private key, PKCS#8 PEM, created with mode 0600\n"
    "  PREFIX.pub  the public key, exactly 32 raw bytes: the file a device keeps as\n"
    "              /system/schluessel.pub (trusted key) or /system/ersatz.pub (spare key)\n"
    "An existing PREFIX.key or PREFIX.pub is never overwritten.\n"
    "\n"
    "With --key the pair is made inside the PKCS#11 token the URI names (RFC 7512), e.g.\n"
    "  'pkcs11:token=ota;object=release?module-path=/usr/lib/softhsm/libsofthsm2.so'\n"
    "with CKM_EC_EDWARDS_KEY_PAIR_GEN, labelled with object= and identified by id= (or a\n"
    "random id); the private key is sensitive and cannot be extracted. Only PREFIX.pub is\n"
    "written. The PIN comes from pin-value=, pin-source=file:PATH or the environment\n"
    "variable OTA_PKCS11_PIN; it is never asked for. An object of the same label or id in\n"
    "the token is never replaced.\n";

int keygen_command(int argc, char** argv) {
  Args args(argc, argv, 2, {{"--out", true, false}, {"--key", true, false}});
  if (!args.positional().empty()) throw UsageError("keygen takes no word " + args.positional().front());
  std::string prefix = args.required("--out");
  std::string pub_path = prefix + ".pub";
  if (auto uri = args.get("--key")) {
    if (!is_pkcs11_uri(*uri)) {
      throw UsageError("keygen --key takes a PKCS#11 URI (pkcs11:...); without --key it writes a key file");
    }
    check_output_free(pub_path, false, "public key", false, false);
    PrivateKey key = PrivateKey::generate_in_token(*uri);
    PublicKey pub = key.public_key();
    // The token made the point, so it is checked as any key a device would be given; a
    // faulty token is the one way a weak key could come out of keygen.
    if (std::string refusal = public_key_refusal(pub, "new public key"); !refusal.empty()) {
      key.token()->destroy();
      throw Error(refusal);
    }
    try {
      write_file_atomic(pub_path, Bytes(pub.begin(), pub.end()), 0644, false, "public key");
    } catch (...) {
      // A pair whose public half nobody has is of no use, and would block its label.
      key.token()->destroy();
      throw;
    }
    std::printf("ota-publish: made an Ed25519 key pair in the token: %s; the private key cannot leave it\n",
                key.token()->description().c_str());
    std::printf("ota-publish: wrote %s (public, 32 bytes)\n", pub_path.c_str());
    std::printf("ota-publish: public key %s\n", hex_lower(pub.data(), pub.size()).c_str());
    return 0;
  }
  std::string key_path = prefix + ".key";
  check_output_free(key_path, false, "private key", false, false);
  check_output_free(pub_path, false, "public key", false, false);

  PrivateKey key = PrivateKey::generate();
  PublicKey pub = key.public_key();
  check_public_key(pub, "new public key");
  std::string pem = key.pem();
  write_file_atomic(key_path, as_bytes(pem), 0600, false, "private key");
  try {
    write_file_atomic(pub_path, Bytes(pub.begin(), pub.end()), 0644, false, "public key");
  } catch (...) {
    // Without its public half the new private key is of no use; do not leave it lying about.
    std::remove(key_path.c_str());
    throw;
  }
  std::printf("ota-publish: wrote %s (private, mode 0600) and %s (public, 32 bytes)\n", key_path.c_str(),
              pub_path.c_str());
  std::printf("ota-publish: public key %s\n", hex_lower(pub.data(), pub.size()).c_str());
  return 0;
}

}  // namespace publish
