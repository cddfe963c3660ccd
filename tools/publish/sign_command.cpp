// ota-publish sign: the detached signatures of a source built elsewhere with --unsigned, so
// the signing key can stay on a machine that never sees the network, or in a token.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

#include "args.h"
#include "catalog_text.h"
#include "commands.h"
#include "keys.h"
#include "limits.h"
#include "output.h"
#include "rules.h"

namespace publish {

const char kSignHelp[] =
    "usage: ota-publish sign --key KEY [--force] FILE|DIR...\n"
    "\n"
    "Writes FILE.sig beside each FILE: its Ed25519 signature, 64 raw bytes, the form a\n"
    "device reads. KEY is a PEM private key file or a PKCS#11 URI (see keygen --help).\n"
    "\n"
    "A DIR is a source directory made with --unsigned. Its VERZEICHNIS is signed and, when\n"
    "it offers packages, also INDEX and every package file its \"paket\" lines name, each\n"
    "first compared with the length and SHA-256 its line announces. Those are all the\n"
    "signatures a device fetches: VERZEICHNIS.sig, INDEX.sig and <package file>.sig (a\n"
    "system source has only VERZEICHNIS.sig; its files are covered by their hashes).\n"
    "\n"
    "Every signature is made before the first one is written. An existing .sig file is\n"
    "refused unless --force is given. Run `ota-publish check` on the source afterwards.\n";

namespace {

struct Signing {
  std::string path;
  Bytes data;
  std::string sha;  // SHA-256 of data in hex, for the report
};

class Collection {
 public:
  // sha: the data's SHA-256 in hex when the caller has it already.
  void add(const std::string& path, Bytes data, std::string sha = "") {
    if (!seen_.insert(path).second) return;
    if (sha.empty()) sha = sha256_hex(data);
    items_.push_back({path, std::move(data), std::move(sha)});
  }
  void add_file(const std::string& path) {
    std::string name = base_name(path);
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".sig") == 0) {
      throw Error(shown(path) + " is a signature file itself; sign the file it belongs to");
    }
    Bytes data = read_file(path, "file to sign");
    if (name == "VERZEICHNIS") check_catalog_bytes(path, data);
    add(path, std::move(data));
  }
  void add_source(const std::string& given);
  std::vector<Signing>& items() { return items_; }

 private:
  static void check_catalog_bytes(const std::string& path, const Bytes& data) {
    if (data.size() > limits::kCatalogBytes) {
      throw Error(shown(path) + " is " + std::to_string(data.size()) +
                  " bytes; a device reads at most 32767 of a VERZEICHNIS and its signature would fail");
    }
  }

  std::set<std::string> seen_;
  std::vector<Signing> items_;
};

void Collection::add_source(const std::string& given) {
  std::string dir = given;
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  std::string catalog_path = dir + "/VERZEICHNIS";
  Bytes catalog = read_file(catalog_path, "VERZEICHNIS");
  if (catalog.empty()) throw Error(shown(catalog_path) + " is empty");
  check_catalog_bytes(catalog_path, catalog);
  std::string text = as_string(catalog);
  add(catalog_path, std::move(catalog));
  if (!find_line(text, "paket\t", 0)) return;

  add(dir + "/INDEX", read_file(dir + "/INDEX", "INDEX"));
  for (std::size_t i = 0;; ++i) {
    std::optional<std::size_t> at = find_line(text, "paket\t", i);
    if (!at) break;
    std::string where = shown(catalog_path) + " package line " + std::to_string(i + 1);
    Field sha = line_field(text, *at, 2, limits::kPackageShaField);
    Field length = line_field(text, *at, 3, limits::kNumberField);
    Field file = line_field(text, *at, 4, limits::kPackageFile);
    if (!file.present) throw Error(where + " names no package file");
    // The name becomes a path beside the catalog; one that could lead elsewhere is refused.
    check_download_name(file.whole, limits::kPackageFile, where + ": package file name");
    std::string path = dir + "/" + file.whole;
    Bytes data = read_file(path, "package file");
    std::string digest = sha256_hex(data);
    if (std::to_string(data.size()) != length.whole || digest != sha.whole) {
      throw Error("package file " + shown(path) + " is not what " + where +
                  " announces (length or SHA-256); it changed after the catalog was made");
    }
    add(path, std::move(data), std::move(digest));
  }
}

}  // namespace

int sign_command(int argc, char** argv) {
  Args args(argc, argv, 2, {{"--key", true, false}, {"--force", false, false}});
  if (args.positional().empty()) throw UsageError("sign needs at least one FILE or source directory");
  std::string key_text = args.required("--key");
  bool force = args.has("--force");

  Collection collection;
  for (const std::string& word : args.positional()) {
    struct stat st {};
    if (stat(word.c_str(), &st) != 0) throw Error("cannot read " + shown(word) + ": " + std::strerror(errno));
    if (S_ISDIR(st.st_mode)) {
      collection.add_source(word);
    } else {
      collection.add_file(word);
    }
  }
  std::vector<Signing>& items = collection.items();
  for (const Signing& item : items) check_output_free(item.path + ".sig", force, "signature file", false);

  PrivateKey key = PrivateKey::load(key_text);
  std::vector<Signature> signatures;
  for (const Signing& item : items) signatures.push_back(key.sign(item.data));

  std::vector<std::string> created;
  try {
    for (std::size_t i = 0; i < items.size(); ++i) {
      std::string sig_path = items[i].path + ".sig";
      bool existed = file_exists(sig_path);
      write_file_atomic(sig_path, Bytes(signatures[i].begin(), signatures[i].end()), 0644, force, "signature file");
      if (!existed) created.push_back(sig_path);
    }
  } catch (...) {
    // All or nothing: the signatures this run added are taken away again.
    for (const std::string& path : created) std::remove(path.c_str());
    throw;
  }
  for (const Signing& item : items) {
    std::printf("ota-publish: wrote %s.sig (%zu bytes signed, SHA-256 %s)\n", item.path.c_str(), item.data.size(),
                item.sha.c_str());
  }
  PublicKey pub = key.public_key();
  std::printf("ota-publish: %zu signature(s) by %s\n", items.size(), hex_lower(pub.data(), pub.size()).c_str());
  return 0;
}

}  // namespace publish
