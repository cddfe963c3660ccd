#pragma once
// What the catalog and system commands share: the signing key, the key changes, the
// blocked versions and extra lines they carry, the set of files that go into the source
// directory, and the final size check of the signed text.
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "args.h"
#include "key_chain.h"
#include "keys.h"

namespace publish {

// Options both release commands take; --test-source only matters to the catalog.
std::vector<OptionRule> release_options(bool with_test_source);

struct ReleaseCommon {
  std::string out;
  bool force = false;
  // --unsigned: everything but the signature files is written, to be signed elsewhere
  // (ota-publish sign) and checked when it comes back.
  bool unsigned_output = false;
  bool test_source = false;  // allows what a device refuses loudly; never what it cuts
  std::optional<PrivateKey> key;
  PublicKey key_public{};
  std::optional<PublicKey> spare;
  std::vector<std::uint64_t> blocked;
  std::vector<ChainLine> chain;
  std::vector<std::string> extra_lines;
};

// Reads and checks the shared options (everything but the key changes, which need the
// signing key: call finish_release_common after loading it).
ReleaseCommon read_release_common(const Args& args);
void finish_release_common(const Args& args, ReleaseCommon& common);

// The signature of a file of the source, or none for an --unsigned source.
std::optional<Signature> sign_release_file(const ReleaseCommon& common, const Bytes& data);
// "signed by <key hex>", or "UNSIGNED", for the report of a release.
std::string signed_by(const ReleaseCommon& common);
// For an --unsigned source, the lines that say which files still need a signature, and
// with which key; nothing for a signed one.
void print_unsigned_note(const ReleaseCommon& common, const std::vector<std::string>& to_sign);

// The "gesperrt", "kette" and extra lines, in that order.
std::string trailing_lines(const ReleaseCommon& common);
// Refuses a signed text a device would cut.
void check_catalog_size(const std::string& text);

// The files of a source directory by name. The same name may be added twice only with
// the same bytes (then one copy is published).
class SourceFiles {
 public:
  void add(const std::string& name, Bytes data, const std::string& what);
  const std::map<std::string, Bytes>& files() const { return files_; }

 private:
  std::map<std::string, Bytes> files_;
  std::map<std::string, std::string> owners_;
};

}  // namespace publish
