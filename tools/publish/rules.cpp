#include "rules.h"

#include "limits.h"
#include "packages/fetch.h"
#include "system/overlay.h"
#include "trust/ed25519.h"
#include "util.h"

namespace publish {

namespace {

bool is_name_char(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
}

bool starts_with(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

// The device's own target test allows 60 characters; its field reader keeps 59, which the
// caller checks separately so the message can say which of the two was hit.
constexpr std::size_t kTargetRuleMax = ota::kTargetLongest;

bool has_zero_byte(std::string_view s) { return s.find('\0') != std::string_view::npos; }

}  // namespace

std::string target_rule_problem(std::string_view target) {
  if (target.empty()) return "it is empty";
  if (target[0] != '/') {
    if (target.size() > kTargetRuleMax) return "a program name is at most 60 characters";
    if (target[0] == '.') return "a program name must not start with \".\"";
    for (char c : target) {
      if (!is_name_char(c)) return "a program name holds only letters, digits, \".\", \"-\" and \"_\"";
    }
    return "";
  }
  if (target.size() < limits::kTargetMin || target.size() > kTargetRuleMax) {
    return "an absolute path is 6 to 60 characters";
  }
  if (!starts_with(target, ota::kAppsArea) && !starts_with(target, ota::kEtcArea) &&
      !starts_with(target, ota::kShareArea) && !starts_with(target, ota::kLibArea)) {
    return "an absolute path must begin with /apps/, /etc/, /usr/share/ or /lib/ (programs in /bin are "
           "named by their bare name)";
  }
  for (char c : target) {
    if (!is_name_char(c) && c != '/')
      return "an absolute path holds only letters, digits, \".\", \"-\", \"_\" and \"/\"";
  }
  if (target.find("..") != std::string_view::npos) return "an absolute path must not contain \"..\"";
  if (target.find("//") != std::string_view::npos) return "an absolute path must not contain \"//\"";
  if (target.back() == '/') return "an absolute path must not end with \"/\"";
  return "";
}


std::string public_key_problem(const PublicKey& key) {
  switch (ota::ed25519_key_problem(key.data())) {
    case ota::kKeyUsable:
      return "";
    case ota::kKeyNotCanonical:
      return "is not a canonical encoding (its y is 2^255 - 19 or more); devices refuse every signature under it";
    case ota::kKeyNotOnCurve:
      return "is not a point of the curve; devices refuse every signature under it";
    case ota::kKeyZeroXSigned:
      return "encodes x = 0 with the sign bit set; devices refuse every signature under it";
    default:
      return "is a point of small order; devices check signatures without the cofactor, so anyone could forge "
             "signatures under it (under the identity key R = B, S = 1 passes for every catalog)";
  }
}

std::string public_key_refusal(const PublicKey& key, const std::string& what) {
  std::string problem = public_key_problem(key);
  return problem.empty() ? "" : what + " " + hex_lower(key.data(), key.size()) + " " + problem;
}

void check_public_key(const PublicKey& key, const std::string& what) {
  if (std::string refusal = public_key_refusal(key, what); !refusal.empty()) throw Error(refusal);
}

void check_field_text(std::string_view value, const std::string& what) {
  if (value.empty()) throw Error(what + " is empty; a device reads an empty field as missing");
  for (unsigned char c : value) {
    if (c < 0x20 || c == 0x7f) {
      throw Error(what + " " + shown(value) +
                  " contains a control character; a TAB, LF or CR would break the line on the device");
    }
  }
}

void check_field_length(std::string_view value, std::size_t max, const std::string& what) {
  if (value.size() > max) {
    throw Error(what + " " + shown(value) + " is " + std::to_string(value.size()) +
                " characters; a device keeps at most " + std::to_string(max));
  }
}

void check_download_name(std::string_view name, std::size_t max, const std::string& what) {
  check_field_text(name, what);
  check_field_length(name, max, what);
  for (char c : name) {
    bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
              c == '_' || c == '+' || c == '~';
    if (!ok) {
      throw Error(what + " " + shown(name) +
                  " may hold only letters, digits and . _ + ~ - (it is a download address and a file on the device)");
    }
  }
  if (name[0] == '.') throw Error(what + " " + shown(name) + " must not start with \".\"");
  // The device's own test for a name it fetches (`ota fetch` refuses what fails it).
  if (!ota::fetchable_name(std::string(name).c_str())) {
    throw Error(what + " " + shown(name) + " must not contain \"..\" (it could climb out of the download directory)");
  }
  if (name == "VERZEICHNIS" || name == "VERZEICHNIS.sig" || name == "INDEX" || name == "INDEX.sig") {
    throw Error(what + " " + shown(name) + " is the name of one of the source's own files");
  }
}

std::string commit_problem(std::string_view commit) {
  try {
    // A CR would end the commit early for whoever reads /system/sys.stand, a zero byte
    // would end it early on the device itself; TAB and LF end the field.
    check_field_text(commit, "commit");
    check_field_length(commit, limits::kCommitMax, "commit");
  } catch (const Error& e) {
    return e.what();
  }
  for (char c : commit) {
    if (c == ' ') return "commit " + shown(commit) + " contains a blank";
  }
  if (commit.size() < limits::kCommitMin) {
    return "commit " + shown(commit) + " is " + std::to_string(commit.size()) +
           " characters; at least 7 are needed, since a device recognises the running kernel by the first seven";
  }
  // The device writes the commit into /system/SYSPENDING between the build and the
  // kernel's hash, and reads each key back at its first place anywhere in the record. A
  // "sha=" in the commit comes before the real one: the hash would be read from the
  // commit, never match the kernel, and the update would stay pending for good. The keys
  // "count=" and "commit=" are harmless there, since their real places come first.
  if (commit.find(ota::kPendingShaKey) != std::string_view::npos) {
    return "commit " + shown(commit) + " contains \"" + ota::kPendingShaKey +
           "\"; a device finds the keys of /system/SYSPENDING anywhere in the record, would read the kernel's "
           "hash from the commit and could never promote the update";
  }
  return "";
}

void check_commit(std::string_view commit) {
  std::string problem = commit_problem(commit);
  if (!problem.empty()) throw Error(problem);
}

std::string target_problem(std::string_view target) {
  std::string reason = target_rule_problem(target);
  // A zero byte would end the target early on the device: it would be installed at a
  // different path. The words above already refuse it; the device's test sees only the
  // text before it.
  if (has_zero_byte(target)) return reason;
  if (ota::valid_target(std::string(target).c_str())) return "";
  return reason.empty() ? "devices refuse it" : reason;
}

std::string link_rule_problem(std::string_view path, std::string_view target) {
  if (path.empty() || path[0] != '/') return "the link path must be an absolute path";
  if (std::string problem = target_rule_problem(path); !problem.empty()) return "link path: " + problem;
  constexpr std::size_t kDirLength = ota::text_length(ota::kProgramDirectory);
  if (!starts_with(target, ota::kProgramDirectory) || target.size() == kDirLength || target[kDirLength] == '/') {
    return "the link target must be /bin/ followed by a program name";
  }
  if (std::string problem = target_rule_problem(target.substr(kDirLength)); !problem.empty()) {
    return "link target: " + problem;
  }
  return "";
}

std::string link_problem(std::string_view path, std::string_view target) {
  std::string reason = link_rule_problem(path, target);
  if (has_zero_byte(path) || has_zero_byte(target)) return reason;
  if (ota::valid_link(std::string(path).c_str(), std::string(target).c_str())) return "";
  return reason.empty() ? "devices refuse it" : reason;
}

std::size_t check_overlay_journal(const std::vector<std::string>& file_targets, const std::vector<LinkEntry>& links) {
  std::size_t length = 0;
  for (std::size_t i = 0; i < file_targets.size(); ++i) {
    const std::string& target = file_targets[i];
    if (length + target.size() + limits::kJournalFileReserve > limits::kJournalBytes) {
      throw Error("overlay journal: file entry " + std::to_string(i + 1) + " (" + shown(target) + ") needs " +
                  std::to_string(length + target.size() + limits::kJournalFileReserve) +
                  " bytes of journal; a device writes at most 7900 and would refuse the whole update");
    }
    length += 1 + target.size() + 1;  // flag, target, LF
  }
  for (std::size_t i = 0; i < links.size(); ++i) {
    if (length + limits::kJournalLinkReserve > limits::kJournalBytes) {
      throw Error("overlay journal: link " + std::to_string(i + 1) + " (" + shown(links[i].first) +
                  ") needs room for 140 more bytes after " + std::to_string(length) +
                  "; a device writes at most 7900 and would refuse the whole update");
    }
    length += 1 + links[i].first.size() + 1 + links[i].second.size() + 1;  // flag, path, TAB, target, LF
  }
  return length;
}

}  // namespace publish
