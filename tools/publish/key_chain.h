#pragma once
// Key-change lines: "kette" TAB generation TAB new key (64 hex) TAB signature (128 hex).
// Each one is signed by the key trusted one generation before it, or by the spare key,
// over the text "tavi-schluessel" TAB generation TAB key field.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "keys.h"

namespace publish {

struct ChainLine {
  std::uint64_t generation = 0;
  std::string key_field;  // as it stands in the line; its letters' case is signed
  PublicKey key{};
  Signature signature{};
  std::string text;  // the whole line with its LF
};

// The text a key change signs; it never stands in the catalog itself.
std::string chain_signed_text(std::uint64_t generation, std::string_view key_field);
ChainLine make_chain_line(const PrivateKey& signer, const PublicKey& new_key, std::uint64_t generation);

// Reads the key-change lines of a file written by `ota-publish chain` (one or more lines).
std::vector<ChainLine> read_chain_file(const std::string& path);

// The line of the highest generation (the first of them when several have it), or null.
const ChainLine* newest_chain_line(const std::vector<ChainLine>& lines);

// Checks the key changes a catalog is about to carry: generations form one unbroken run,
// each later step verifies under the key of the step before it (or the spare key, when
// given), and the catalog's own key is the newest key of the run (or the spare key), since
// that is the key a device checks the catalog with after following the run.
// Returns the lines in the order given, exact repeats dropped.
std::vector<ChainLine> check_chain_lines(const std::vector<ChainLine>& lines, const PublicKey& catalog_key,
                                         const std::optional<PublicKey>& spare);

struct ChainWalk {
  PublicKey key{};
  std::uint64_t generation = 0;
  bool broken = false;
  std::vector<std::string> steps;  // one line of report per step taken or refused
  std::vector<std::pair<std::uint64_t, PublicKey>> keys;  // each generation reached, with its key
};

// The device's walk: from `generation`, look for the next generation's line from the top
// of the catalog, verify it with the key trusted now or the spare key, take its key and
// start again from the top; a bad line stops the walk as broken.
ChainWalk walk_key_chain(std::string_view catalog, const PublicKey& trusted, const std::optional<PublicKey>& spare,
                         std::uint64_t generation);

}  // namespace publish
