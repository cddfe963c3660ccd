// ota-publish keygen: a new Ed25519 key pair, the private half for the release machine and
// the public half in the raw form a device keeps.
#include <cstdio>

#include "args.h"
#include "commands.h"
#include "keys.h"
#include "output.h"
#include "rules.h"

namespace publish {

const char kKeygenHelp[] =
    "usage: ota-publish keygen --out PREFIX\n"
    "\n"
    "Makes a new Ed25519 key pair:\n"
    "  PREFIX.key  the private key, PKCS#8 PEM, created with mode 0600\n"
    "  PREFIX.pub  the public key, exactly 32 raw bytes: the file a device keeps as\n"
    "              /system/schluessel.pub (trusted key) or /system/ersatz.pub (spare key)\n"
    "An existing PREFIX.key or PREFIX.pub is never overwritten.\n";

int keygen_command(int argc, char** argv) {
  Args args(argc, argv, 2, {{"--out", true, false}});
  if (!args.positional().empty()) throw UsageError("keygen takes no word " + args.positional().front());
  std::string prefix = args.required("--out");
  std::string key_path = prefix + ".key";
  std::string pub_path = prefix + ".pub";
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
