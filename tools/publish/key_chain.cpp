#include "key_chain.h"

#include <algorithm>
#include <iterator>
#include <map>

#include "catalog_text.h"
#include "limits.h"
#include "rules.h"
#include "trust/catalog_text.h"
#include "trust/keys.h"

namespace publish {

std::string chain_signed_text(std::uint64_t generation, std::string_view key_field) {
  return ota::kChainSignedPrefix + std::to_string(generation) + "\t" + std::string(key_field);
}

ChainLine make_chain_line(const PrivateKey& signer, const PublicKey& new_key, std::uint64_t generation) {
  ChainLine line;
  line.generation = generation;
  line.key = new_key;
  line.key_field = hex_lower(new_key.data(), new_key.size());
  std::string message = chain_signed_text(generation, line.key_field);
  line.signature = signer.sign(reinterpret_cast<const std::uint8_t*>(message.data()), message.size());
  line.text = ota::kChainTag + std::to_string(generation) + "\t" + line.key_field + "\t" +
              hex_lower(line.signature.data(), line.signature.size()) + "\n";
  return line;
}

std::vector<ChainLine> read_chain_file(const std::string& path) {
  std::string text = as_string(read_file(path, "key-change file"));
  std::vector<ChainLine> lines;
  std::size_t pos = 0;
  std::size_t number = 0;
  while (pos < text.size()) {
    std::size_t lf = text.find('\n', pos);
    ++number;
    std::string where = "key-change file " + shown(path) + " line " + std::to_string(number);
    if (lf == std::string::npos) throw Error(where + " does not end with a LF");
    std::string_view line(text.data() + pos, lf - pos);
    pos = lf + 1;
    if (line.empty()) continue;
    if (line.substr(0, ota::text_length(ota::kChainTag)) != ota::kChainTag) {
      throw Error(where + " is not a key-change line (\"kette\" TAB ...)");
    }
    std::vector<std::string_view> fields;
    std::size_t start = ota::text_length(ota::kChainTag);
    for (;;) {
      std::size_t tab = line.find('\t', start);
      fields.push_back(line.substr(start, tab == std::string_view::npos ? std::string_view::npos : tab - start));
      if (tab == std::string_view::npos) break;
      start = tab + 1;
    }
    if (fields.size() != 3) throw Error(where + " has " + std::to_string(fields.size()) + " fields; 3 are needed");
    ChainLine entry;
    if (fields[0].empty() || fields[0][0] == '0') throw Error(where + ": the generation must be a number from 1");
    entry.generation = parse_number(fields[0], "key generation", limits::kStoredNumberMax);
    if (!hex_decode(fields[1], entry.key.data(), entry.key.size())) {
      throw Error(where + ": the new key must be 64 hex digits");
    }
    if (!hex_decode(fields[2], entry.signature.data(), entry.signature.size())) {
      throw Error(where + ": the signature must be 128 hex digits");
    }
    for (char c : line) {
      if (c == '\r') throw Error(where + " contains a CR");
    }
    entry.key_field = std::string(fields[1]);
    entry.text = std::string(line) + "\n";
    lines.push_back(entry);
  }
  if (lines.empty()) throw Error("key-change file " + shown(path) + " holds no key-change line");
  return lines;
}

const ChainLine* newest_chain_line(const std::vector<ChainLine>& lines) {
  const ChainLine* newest = nullptr;
  for (const ChainLine& line : lines) {
    if (newest == nullptr || line.generation > newest->generation) newest = &line;
  }
  return newest;
}

std::vector<ChainLine> check_chain_lines(const std::vector<ChainLine>& lines, const PublicKey& catalog_key,
                                         const std::optional<PublicKey>& spare) {
  std::vector<ChainLine> kept;
  std::map<std::uint64_t, std::size_t> by_generation;  // generation -> index in kept
  for (const ChainLine& line : lines) {
    auto it = by_generation.find(line.generation);
    if (it != by_generation.end()) {
      if (kept[it->second].text == line.text) continue;
      throw Error("two different key changes for generation " + std::to_string(line.generation) +
                  "; a device would take only the first one it finds");
    }
    std::string problem = public_key_problem(line.key);
    if (!problem.empty()) {
      throw Error("the key change to generation " + std::to_string(line.generation) + " introduces a key that " +
                  problem);
    }
    by_generation[line.generation] = kept.size();
    kept.push_back(line);
  }
  if (kept.empty()) return kept;

  std::uint64_t first = by_generation.begin()->first;
  std::uint64_t last = by_generation.rbegin()->first;
  if (last - first + 1 != by_generation.size()) {
    throw Error("the key changes skip a generation (they run from " + std::to_string(first) + " to " +
                std::to_string(last) + " with " + std::to_string(by_generation.size()) +
                " lines); a device stops at the gap");
  }
  for (std::uint64_t g = first + 1; g <= last; ++g) {
    const ChainLine& step = kept[by_generation[g]];
    const ChainLine& before = kept[by_generation[g - 1]];
    std::string message = chain_signed_text(g, step.key_field);
    auto bytes = reinterpret_cast<const std::uint8_t*>(message.data());
    // A step must pass exactly the check a device makes (verify_signature is the device's).
    bool ok = verify_signature(before.key, bytes, message.size(), step.signature.data()) ||
              (spare && verify_signature(*spare, bytes, message.size(), step.signature.data()));
    if (!ok) {
      throw Error("the key change to generation " + std::to_string(g) + " is not signed by the key of generation " +
                  std::to_string(g - 1) +
                  (spare ? " nor by the spare key" : " (give --spare PUB if the spare key signed it)") +
                  "; a device would find the chain broken");
    }
  }
  const ChainLine& newest = kept[by_generation[last]];
  if (catalog_key != newest.key && !(spare && catalog_key == *spare)) {
    throw Error("the signing key is not the key of generation " + std::to_string(last) +
                ", the newest key change; a device that follows the changes checks the catalog with that key" +
                (spare ? " or the spare key" : " (give --spare PUB if the catalog is signed with the spare key)"));
  }
  return kept;
}

ChainWalk walk_key_chain(std::string_view catalog, const PublicKey& trusted, const std::optional<PublicKey>& spare,
                         std::uint64_t generation) {
  // The verdict is the device's own walk, over the catalog as a device holds it (cut at
  // its buffer's capacity) and with the trust state a device would have loaded.
  std::size_t length = std::min(catalog.size(), ota::kCatalogBytes);
  std::copy(catalog.begin(), catalog.begin() + static_cast<std::ptrdiff_t>(length), ota::catalog.text);
  ota::hold_catalog_text(length);
  std::copy(trusted.begin(), trusted.end(), ota::trust.trusted_key);
  ota::trust.spare_present = spare.has_value();
  if (spare) std::copy(spare->begin(), spare->end(), ota::trust.spare_key);
  ota::trust.stored_generation = generation;
  ota::trust.current_generation = generation;
  ota::follow_key_chain();

  ChainWalk walk;
  std::copy(std::begin(ota::trust.trusted_key), std::end(ota::trust.trusted_key), walk.key.begin());
  walk.generation = ota::trust.current_generation;
  walk.broken = ota::trust.chain_broken;

  // The report names each step the walk took and the step it stopped at. A device takes,
  // for each generation, the first line from the top that announces it, so that is the
  // line looked at here, with the device's own field reader, hex decoder and verifier.
  std::string held(ota::catalog.text, length);
  PublicKey key = trusted;
  std::uint64_t last = walk.broken ? walk.generation + 1 : walk.generation;
  for (std::uint64_t next = generation + 1; next <= last; ++next) {
    std::optional<std::size_t> at;
    for (std::size_t index = 0;; ++index) {
      at = find_line(held, ota::kChainTag, index);
      if (!at) break;
      Field gen = line_field(held, *at, 0, limits::kChainGenerationField);
      if (gen.present && device_decimal(gen.value) == next) break;
    }
    if (!at) break;  // cannot happen: the walk took or refused this generation's line
    Field key_text = line_field(held, *at, 1, limits::kChainKeyField);
    Field sig_text = line_field(held, *at, 2, limits::kChainSignatureField);
    PublicKey new_key{};
    Signature sig{};
    if (!key_text.present || !sig_text.present ||
        !ota::hex_decode(key_text.value.c_str(), new_key.data(), new_key.size()) ||
        !ota::hex_decode(sig_text.value.c_str(), sig.data(), sig.size())) {
      walk.steps.push_back("key change to generation " + std::to_string(next) +
                           ": the key or signature is not 64/128 hex digits -- chain BROKEN");
      break;
    }
    std::string message = chain_signed_text(next, key_text.value);
    auto bytes = reinterpret_cast<const std::uint8_t*>(message.data());
    std::string by;
    if (verify_signature(key, bytes, message.size(), sig.data())) {
      by = "the key of generation " + std::to_string(next - 1);
    } else if (spare && verify_signature(*spare, bytes, message.size(), sig.data())) {
      by = "the SPARE KEY";
    }
    if (by.empty()) {
      walk.steps.push_back("key change to generation " + std::to_string(next) +
                           ": signature not valid under the trusted or spare key -- chain BROKEN");
      break;
    }
    walk.steps.push_back("key change to generation " + std::to_string(next) + " accepted, signed by " + by);
    walk.keys.push_back({next, new_key});
    key = new_key;
  }
  return walk;
}

}  // namespace publish
