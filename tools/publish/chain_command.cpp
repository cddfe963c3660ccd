// ota-publish chain: one signed key change, to be carried by catalogs with --chain.
#include <cstdio>

#include "args.h"
#include "commands.h"
#include "key_chain.h"
#include "limits.h"
#include "output.h"
#include "rules.h"

namespace publish {

const char kChainHelp[] =
    "usage: ota-publish chain --signer KEY --new PUB --generation G --out FILE [--force]\n"
    "\n"
    "Writes one key-change line to FILE:\n"
    "  kette TAB G TAB <new key, 64 lowercase hex> TAB <signature, 128 hex> LF\n"
    "signed by KEY (a PEM private key file, or a PKCS#11 URI of a key in a token) over\n"
    "\"tavi-schluessel\" TAB G TAB <new key hex>.\n"
    "KEY must be the key devices trust at generation G-1, or the spare key; PUB is the\n"
    "new 32-byte public key. G is 1 to 99999999 (a device stores it as eight digits).\n"
    "Catalogs carry the line with --chain FILE; give one --chain per generation to build\n"
    "a chain of several steps. FILE is not overwritten unless --force is given.\n";

int chain_command(int argc, char** argv) {
  Args args(argc, argv, 2,
            {{"--signer", true, false},
             {"--new", true, false},
             {"--generation", true, false},
             {"--out", true, false},
             {"--force", false, false}});
  if (!args.positional().empty()) throw UsageError("chain takes no word " + args.positional().front());
  std::string out = args.required("--out");
  std::uint64_t generation = parse_number(args.required("--generation"), "key generation", limits::kStoredNumberMax);
  if (generation == 0) throw Error("key generation 0 is what a device starts from; key changes begin at 1");
  bool force = args.has("--force");
  check_output_free(out, force, "key-change file", false);
  PrivateKey signer = PrivateKey::load(args.required("--signer"));
  PublicKey new_key = load_public_key(args.required("--new"));
  check_public_key(new_key, "new key");
  if (new_key == signer.public_key()) {
    throw Error("the new key is the signer's own key; a key change must introduce a different key");
  }
  ChainLine line = make_chain_line(signer, new_key, generation);
  write_file_atomic(out, as_bytes(line.text), 0644, force, "key-change file");
  std::printf("ota-publish: wrote %s: key change to generation %llu, new key %s\n", out.c_str(),
              static_cast<unsigned long long>(generation), line.key_field.c_str());
  return 0;
}

}  // namespace publish
