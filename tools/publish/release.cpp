#include "release.h"

#include <cstdio>
#include <set>

#include "limits.h"
#include "rules.h"

namespace publish {

std::vector<OptionRule> release_options(bool with_test_source) {
  std::vector<OptionRule> rules = {{"--key", true, false},       {"--out", true, false},      {"--force", false, false},
                                   {"--chain", true, true},      {"--spare", true, false},    {"--block", true, true},
                                   {"--extra-line", true, true}, {"--unsigned", false, false}};
  if (with_test_source) rules.push_back({"--test-source", false, false});
  return rules;
}

ReleaseCommon read_release_common(const Args& args) {
  ReleaseCommon common;
  common.out = args.required("--out");
  common.force = args.has("--force");
  common.test_source = args.has("--test-source");
  common.unsigned_output = args.has("--unsigned");
  if (common.unsigned_output && args.has("--key")) {
    throw UsageError("--unsigned writes no signature, so it takes no --key (sign later with ota-publish sign)");
  }
  if (!common.unsigned_output) args.required("--key");

  std::set<std::uint64_t> seen;
  for (const std::string& text : args.all("--block")) {
    std::uint64_t version = parse_number(text, "blocked version", limits::kStoredNumberMax);
    if (version == 0) throw Error("blocked version 0 is not a version (0 means none on a device)");
    if (!seen.insert(version).second) throw Error("blocked version " + text + " is given twice");
    common.blocked.push_back(version);
  }
  if (common.blocked.size() > limits::kBlockedVersions) {
    throw Error(std::to_string(common.blocked.size()) +
                " blocked versions; a device keeps at most 64 and would forget the rest");
  }

  static const char* const kReadTags[] = {"fassung\t", "paket\t",   "kette\t", "gesperrt\t",
                                          "system\t",  "sysfile\t", "sysgz\t", "syslink\t"};
  // Extra lines are for kinds devices do not read (notes to people, kinds of later
  // releases); they may have TAB-separated fields, but a LF or CR would start a line of any
  // kind, and the kinds devices read have options of their own that check them.
  for (const std::string& line : args.all("--extra-line")) {
    for (unsigned char c : line) {
      if ((c < 0x20 && c != '\t') || c == 0x7f) {
        throw Error("extra line " + shown(line) +
                    " contains a control character; a LF or CR would start a new "
                    "line that no check has seen");
      }
    }
    for (const char* tag : kReadTags) {
      if (line.rfind(tag, 0) == 0) {
        throw Error("extra line " + shown(line) + " is a line kind devices read; use the option made for it");
      }
    }
    common.extra_lines.push_back(line);
  }
  if (auto spare = args.get("--spare")) {
    common.spare = load_public_key(*spare);
    check_public_key(*common.spare, "spare key");
  }
  return common;
}

void finish_release_common(const Args& args, ReleaseCommon& common) {
  std::vector<ChainLine> lines;
  for (const std::string& path : args.all("--chain")) {
    std::vector<ChainLine> more = read_chain_file(path);
    lines.insert(lines.end(), more.begin(), more.end());
  }
  if (common.unsigned_output) {
    // The signer is not known yet. The key changes are still checked among themselves;
    // whether the signature comes from the newest key of the run (or the spare key) is
    // for `ota-publish check` to see once the source is signed.
    if (const ChainLine* newest = newest_chain_line(lines)) common.key_public = newest->key;
  } else {
    common.key = PrivateKey::load(args.required("--key"));
    common.key_public = common.key->public_key();
  }
  common.chain = check_chain_lines(lines, common.key_public, common.spare);
}

std::optional<Signature> sign_release_file(const ReleaseCommon& common, const Bytes& data) {
  if (common.unsigned_output) return std::nullopt;
  return common.key->sign(data);
}

std::string signed_by(const ReleaseCommon& common) {
  if (common.unsigned_output) return "UNSIGNED";
  return "signed by " + hex_lower(common.key_public.data(), common.key_public.size());
}

void print_unsigned_note(const ReleaseCommon& common, const std::vector<std::string>& to_sign) {
  if (!common.unsigned_output) return;
  std::string names;
  for (const std::string& name : to_sign) names += " " + name;
  std::printf("ota-publish: not signed yet; sign%s\n", names.c_str());
  std::printf("ota-publish: (ota-publish sign --key KEY %s), then ota-publish check it before serving it\n",
              common.out.c_str());
  if (const ChainLine* newest = newest_chain_line(common.chain)) {
    std::printf("ota-publish: KEY must be the key of generation %llu (%s) or the spare key\n",
                static_cast<unsigned long long>(newest->generation), newest->key_field.c_str());
  }
}

std::string trailing_lines(const ReleaseCommon& common) {
  std::string text;
  for (std::uint64_t version : common.blocked) text += "gesperrt\t" + std::to_string(version) + "\n";
  for (const ChainLine& line : common.chain) text += line.text;
  for (const std::string& line : common.extra_lines) text += line + "\n";
  return text;
}

void check_catalog_size(const std::string& text) {
  if (text.size() > limits::kCatalogBytes) {
    throw Error("the VERZEICHNIS would be " + std::to_string(text.size()) +
                " bytes; a device reads at most 32767 and the signature check would fail");
  }
}

void SourceFiles::add(const std::string& name, Bytes data, const std::string& what) {
  auto it = files_.find(name);
  if (it != files_.end()) {
    if (it->second == data) return;
    throw Error(what + " and " + owners_[name] + " would both be published as " + shown(name) +
                " with different contents");
  }
  files_[name] = std::move(data);
  owners_[name] = what;
}

}  // namespace publish
