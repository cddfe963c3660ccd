// The catalog line readers over a fuzzed catalog and a fuzzed installer CATALOG.
//
// Input: a length-prefixed installer CATALOG (up to 8,191 bytes), a length-prefixed
// package name, a byte of field capacity, then the catalog text (up to 32,767 bytes).
//
// Every reader is compared with its rules written again here: lines begin at offset 0
// or after an LF, a tag matches at a line start; catalog_field skips n fields that end
// at a TAB, gives 0 when an LF or the end comes first, copies up to a TAB, an LF, the end
// or capacity - 1 bytes, and gives 0 for an empty field; the platform class, the offered
// version and the installer's "current" verdict follow their own rules.
#include <string.h>

#include <memory>

#include "fuzz_support.h"
#include "packages/catalog.h"
#include "trust/catalog_text.h"

namespace {

// Offsets just after the tag of every line that begins with it.
std::vector<size_t> tagged_lines(const std::string& text, const std::string& tag) {
  std::vector<size_t> at;
  for (size_t i = 0; i < text.size(); i++) {
    if (i != 0 && text[i - 1] != '\n') continue;
    // Tags hold no zero byte, so the 0 that closes the held text never completes one:
    // a tag must fit whole.
    if (text.compare(i, tag.size(), tag) == 0 && i + tag.size() <= text.size()) at.push_back(i + tag.size());
  }
  return at;
}

// Field n of the line at `at`: whether it is non-empty, and its copied text.
bool reference_field(const std::string& text, size_t at, uint64_t n, size_t capacity, std::string* out) {
  out->clear();
  size_t p = at;
  for (uint64_t k = 0; k < n; k++) {
    while (p < text.size() && text[p] != '\t' && text[p] != '\n') p++;
    if (p >= text.size() || text[p] == '\n') return false;
    p++;
  }
  while (p < text.size() && text[p] != '\t' && text[p] != '\n' && out->size() + 1 < capacity) out->push_back(text[p++]);
  return !out->empty();
}

ota::Platform reference_platform(const std::string& text, size_t at) {
  std::string platform;
  if (!reference_field(text, at, 5, ota::kPlatformFieldBytes, &platform)) return ota::Platform::none;
  platform = platform.substr(0, strnlen(platform.c_str(), platform.size()));  // compared as a string
  if (platform == "tavi-x86_64" || platform == "tavi-any") return ota::Platform::this_machine;
  return ota::Platform::other;
}

bool reference_current(const std::string& install, const std::string& name) {
  for (size_t start = 0; start < install.size();) {
    size_t nl = install.find('\n', start);
    size_t end = nl == std::string::npos ? install.size() : nl;
    std::string line = install.substr(start, end - start);
    if (line.size() > name.size() && line.compare(0, name.size(), name) == 0 && line[name.size()] == '\t') {
      return line.size() >= 2 && line[line.size() - 2] == '\t' && line.back() == '1';
    }
    start = end + 1;
  }
  return false;
}

void check_field(const std::string& text, const char* base, size_t at, uint64_t n, size_t capacity) {
  std::string expected;
  bool present = reference_field(text, at, n, capacity, &expected);
  // Exactly capacity bytes of output, so a write past them is caught.
  std::unique_ptr<char[]> out(new char[capacity == 0 ? 1 : capacity]);
  memset(out.get(), '#', capacity == 0 ? 1 : capacity);
  int r = ota::catalog_field(base + at, base + text.size(), n, out.get(), capacity);
  FUZZ_CHECK(r == (present ? 1 : 0));
  if (capacity > 0) {
    // Bytes, not a string: a zero byte of the text is copied like any other.
    FUZZ_CHECK(memcmp(out.get(), expected.data(), expected.size()) == 0);
    FUZZ_CHECK(out[expected.size()] == 0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string install = take_piece(data, size, ota::kInstallCatalogBytes);
  std::string name = take_piece(data, size, 100);
  name = name.substr(0, strnlen(name.c_str(), name.size()));
  if (size < 1) return 0;
  size_t capacity = data[0];
  data++;
  size--;
  std::string text(reinterpret_cast<const char*>(data), size < ota::kCatalogBytes ? size : ota::kCatalogBytes);

  // catalog_field on its own, over a buffer of exactly the text's length: it must stay
  // inside [line, end) whatever it is given.
  {
    std::unique_ptr<char[]> exact(new char[text.size() + 1]);
    memcpy(exact.get(), text.data(), text.size());
    for (size_t at : {size_t(0), text.size() / 3, text.size() / 2, text.size()}) {
      for (uint64_t n : {0, 1, 2, 5, 7}) check_field(text, exact.get(), at, n, capacity);
    }
  }

  hold_catalog(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  hold_text(ota::install_catalog.text, sizeof ota::install_catalog.text, &ota::install_catalog.length, install);

  // The lines of each tag, in order, and nothing after the last.
  for (const char* tag : {"paket\t", "kette\t", "gesperrt\t", "fassung\t", "sysfile\tfile\t", "OTA2"}) {
    std::vector<size_t> at = tagged_lines(text, tag);
    size_t tag_length = strlen(tag);
    for (size_t k = 0; k <= at.size() && k < 64; k++) {
      const char* line = ota::find_catalog_line(tag, tag_length, k);
      if (k == at.size()) {
        FUZZ_CHECK(line == nullptr);
      } else {
        FUZZ_CHECK(line == ota::catalog.text + at[k]);
      }
    }
    // Backwards, and alternating with another tag, the answers are the same: where the
    // last lookup stopped only shortens the search, it never changes the result.
    for (size_t k = at.size() < 64 ? at.size() : 64; k-- > 0;) {
      FUZZ_CHECK(ota::find_catalog_line(tag, tag_length, k) == ota::catalog.text + at[k]);
      ota::find_catalog_line("kette\t", 6, k);
      FUZZ_CHECK(ota::find_catalog_line(tag, tag_length, k) == ota::catalog.text + at[k]);
    }
  }

  std::vector<size_t> packages = tagged_lines(text, "paket\t");
  FUZZ_CHECK(ota::package_count() == packages.size());
  uint64_t mine = 0;
  for (size_t k = 0; k < packages.size() && k < 64; k++) {
    const char* line = ota::nth_package_line(k);
    FUZZ_CHECK(line == ota::catalog.text + packages[k]);
    ota::Platform platform = ota::package_platform(line);
    FUZZ_CHECK(platform == reference_platform(text, packages[k]));
    for (uint64_t n = 0; n < 6; n++) check_field(text, ota::catalog.text, packages[k], n, ota::kPackageFieldBytes);
    std::string package_name;
    reference_field(text, packages[k], 0, ota::kPackageNameBytes, &package_name);
    package_name = package_name.substr(0, strnlen(package_name.c_str(), package_name.size()));  // used as a string
    bool needs = platform == ota::Platform::this_machine && !reference_current(install, package_name);
    FUZZ_CHECK(ota::package_needs_update(line) == (needs ? 1 : 0));
    FUZZ_CHECK(ota::catalog_says_current(package_name.c_str()) == (reference_current(install, package_name) ? 1 : 0));
  }
  for (size_t k = 0; k < packages.size(); k++) mine += reference_platform(text, packages[k]) == ota::Platform::this_machine;
  FUZZ_CHECK(ota::platform_package_count() == mine);

  // The offered version: the first fassung line, its first 23 characters up to the LF.
  std::vector<size_t> versions = tagged_lines(text, "fassung\t");
  uint64_t version = 0;
  if (!versions.empty()) {
    size_t end = text.find('\n', versions[0]);
    std::string value = text.substr(versions[0], (end == std::string::npos ? text.size() : end) - versions[0]);
    version = reference_decimal(value.substr(0, 23));
  }
  FUZZ_CHECK(ota::catalog_version() == version);

  FUZZ_CHECK(ota::catalog_says_current(name.c_str()) == (reference_current(install, name) ? 1 : 0));
  return 0;
}
