// The system manifest parse over a fuzzed catalog text.
//
// Input: the catalog text (up to 32,767 bytes).
//
// Checked against the manifest's rules written again here: the first "system" line gives
// the build, the commit and min_from; every "sysfile" line is sorted by its whole kind
// field, the last of a kind wins, other kinds raise the unknown-entry flag, an empty kind
// is skipped; success needs a kernel entry with a size, a name and a 64-character hash.
#include <string.h>

#include "fuzz_support.h"
#include "system/manifest.h"
#include "trust/catalog_text.h"

namespace {

bool field(const std::string& text, size_t at, int n, size_t capacity, std::string* out) {
  out->clear();
  size_t p = at;
  for (int k = 0; k < n; k++) {
    while (p < text.size() && text[p] != '\t' && text[p] != '\n') p++;
    if (p >= text.size() || text[p] == '\n') return false;
    p++;
  }
  while (p < text.size() && text[p] != '\t' && text[p] != '\n' && out->size() + 1 < capacity) out->push_back(text[p++]);
  return !out->empty();
}

std::vector<size_t> tagged(const std::string& text, const std::string& tag) {
  std::vector<size_t> at;
  for (size_t i = 0; i < text.size(); i++) {
    if ((i == 0 || text[i - 1] == '\n') && text.compare(i, tag.size(), tag) == 0 && i + tag.size() <= text.size()) {
      at.push_back(i + tag.size());
    }
  }
  return at;
}

struct Entry {
  std::string sha;
  uint64_t size = 0;
  std::string name;
  bool seen = false;
};

// A C string field of the shared record, read only up to its capacity.
std::string held(const char* s, size_t capacity) { return std::string(s, strnlen(s, capacity)); }
// A copied field as the string it makes: up to its first zero byte.
std::string as_string(const std::string& s) { return s.substr(0, strnlen(s.c_str(), s.size())); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text = hold_catalog(data, size);
  // Leftovers of an earlier run must not decide this one: the parse clears what it
  // owns, and fields it only overwrites when a line is there are set to marks.
  memset(&ota::manifest, 0x5a, sizeof ota::manifest);
  ota::manifest.commit[sizeof ota::manifest.commit - 1] = 0;

  bool parsed;
  {
    Silence quiet;
    parsed = ota::parse_system_manifest();
  }

  std::vector<size_t> systems = tagged(text, "system\t");
  std::string build_text;
  if (systems.empty() || !field(text, systems[0], 0, ota::kBuildFieldBytes, &build_text)) {
    FUZZ_CHECK(!parsed);
    return 0;
  }
  FUZZ_CHECK(ota::manifest.build == reference_decimal(build_text));
  std::string commit, min_from;
  field(text, systems[0], 1, ota::kCommitBytes, &commit);
  FUZZ_CHECK(held(ota::manifest.commit, ota::kCommitBytes) == as_string(commit));
  bool has_min = field(text, systems[0], 2, ota::kBuildFieldBytes, &min_from);
  FUZZ_CHECK(ota::manifest.min_from == (has_min ? reference_decimal(min_from) : 0));

  Entry kernel, notes, roots;
  uint64_t files = 0;
  bool unknown = false;
  for (size_t at : tagged(text, "sysfile\t")) {
    std::string kind;
    if (!field(text, at, 0, ota::kKindBytes, &kind)) continue;
    kind = as_string(kind);  // compared as a string
    Entry* e = kind == "kernel" ? &kernel : kind == "notes" ? &notes : kind == "roots" ? &roots : nullptr;
    if (e != nullptr) {
      std::string size_text;
      field(text, at, 1, ota::kShaFieldBytes, &e->sha);
      field(text, at, 2, ota::kSizeFieldBytes, &size_text);
      e->size = reference_decimal(size_text);
      field(text, at, 3, ota::kEntryNameBytes, &e->name);
      e->seen = true;
    } else if (kind == "file") {
      files++;
    } else {
      unknown = true;
    }
  }
  FUZZ_CHECK(ota::manifest.file_count == files);
  FUZZ_CHECK(ota::manifest.unknown_entry == unknown);
  FUZZ_CHECK(ota::manifest.kernel.size == kernel.size);
  FUZZ_CHECK(ota::manifest.notes.size == notes.size);
  FUZZ_CHECK(ota::manifest.roots.size == roots.size);
  FUZZ_CHECK(ota::manifest.roots.name[0] == 0 || roots.seen);
  for (const auto& [got, want] : {std::pair{&ota::manifest.kernel, &kernel}, std::pair{&ota::manifest.notes, &notes},
                                  std::pair{&ota::manifest.roots, &roots}}) {
    if (!want->seen) continue;
    FUZZ_CHECK(held(got->sha, ota::kShaFieldBytes) == as_string(want->sha));
    FUZZ_CHECK(held(got->name, ota::kEntryNameBytes) == as_string(want->name));
  }
  bool kernel_ok = kernel.seen && kernel.size != 0 && !as_string(kernel.name).empty() && as_string(kernel.sha).size() == 64;
  FUZZ_CHECK(parsed == kernel_ok);
  return 0;
}
