#include "packages/catalog.h"

#include "config/source.h"
#include "packages/fetch.h"
#include "runtime/files.h"
#include "runtime/text.h"
#include "trust/blocked.h"
#include "trust/catalog_text.h"
#include "trust/keys.h"

namespace ota {

InstallCatalog install_catalog;

namespace {

constexpr usize kPackageTagLength = text_length(kPackageTag);

bool reject_catalog(const char* msg, const char* extra) {
  hold_catalog_text(0);
  return report_failure(msg, extra);
}

}  // namespace

bool load_catalog(SourceKind kind, bool verbose) {
  hold_catalog_text(0);
  if (!load_source_settings(kind)) return false;
  load_device_name();
  if (!load_trusted_keys()) return report_failure("ota: no trusted key -- nothing is done", nullptr);
  if (verbose) {
    say_text("ota: source ", source_settings.source);
    if (source_settings.channel[0] != 0) say_text("ota: channel ", source_settings.channel);
  }
  make_work_dir();
  char local[kUrlBytes];
  char local_sig[kUrlBytes];
  work_path(local, "VERZEICHNIS");
  work_path(local_sig, "VERZEICHNIS.sig");
  remove_file(local);
  remove_file(local_sig);
  if (run_fetch("VERZEICHNIS", local, 0) != 0) return report_failure("ota: cannot fetch: ", "VERZEICHNIS");
  if (run_fetch("VERZEICHNIS.sig", local_sig, 0) != 0) return report_failure("ota: cannot fetch: ", "VERZEICHNIS.sig");

  i64 n = read_file(local, catalog.text, kCatalogBytes);
  if (n <= 0) return reject_catalog("ota: cannot fetch: ", "VERZEICHNIS");
  hold_catalog_text(static_cast<usize>(n));
  if (read_file(local_sig, trust.signature, kSignatureBytes) != static_cast<i64>(kSignatureBytes)) {
    return reject_catalog("ota: NO SIGNATURE for the VERZEICHNIS", nullptr);
  }

  follow_key_chain();
  if (!verify_catalog_signature(reinterpret_cast<const u8*>(catalog.text), catalog.length)) {
    return reject_catalog(trust.chain_broken ? "ota: KEY CHANGE: the chain is BROKEN -- REJECTED"
                                             : "ota: SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED",
                          nullptr);
  }
  // The marker is looked at only once the signature holds: unsigned bytes are never judged.
  if (!str_equal_n(catalog.text, kCatalogMarker, text_length(kCatalogMarker))) return reject_catalog("ota: this is not a VERZEICHNIS (marker missing)", nullptr);
  if (trust.spare_key_used && verbose) print_out("ota: checked with the SPARE KEY\n");
  merge_blocked_versions();
  if (trust.current_generation <= trust.stored_generation) return true;

  // Key changes reach the disk only now that the catalog they lead to is verified: the
  // key first, then its generation.
  if (!replace_file(kTrustedKeyPath, trust.trusted_key, kKeyBytes) || !write_key_generation(trust.current_generation)) {
    return reject_catalog("ota: KEY CHANGE: the chain is BROKEN -- REJECTED", nullptr);
  }
  say_number("ota: KEY CHANGE accepted, new generation ", trust.current_generation);
  trust.stored_generation = trust.current_generation;
  return true;
}

const char* nth_package_line(u64 n) { return find_catalog_line(kPackageTag, kPackageTagLength, n); }

u64 package_count() {
  u64 n = 0;
  while (nth_package_line(n) != nullptr) n++;
  return n;
}

Platform package_platform(const char* line) {
  char platform[kPlatformFieldBytes];
  if (!line_field(line, 5, platform, sizeof platform)) return Platform::none;
  if (str_equal(platform, kPlatform) || str_equal(platform, kAnyPlatform)) return Platform::this_machine;
  return Platform::other;
}

u64 platform_package_count() {
  u64 n = 0;
  for (u64 i = 0;; i++) {
    const char* line = nth_package_line(i);
    if (line == nullptr) return n;
    if (package_platform(line) == Platform::this_machine) n++;
  }
}

u64 catalog_version() {
  const char* line = find_catalog_line(kVersionTag, text_length(kVersionTag), 0);
  if (line == nullptr) return 0;
  char value[kVersionFieldBytes];
  usize len = 0;
  while (line + len < catalog_end() && line[len] != '\n' && len + 1 < sizeof value) {
    value[len] = line[len];
    len++;
  }
  value[len] = 0;
  return parse_decimal(value);
}

void load_install_catalog() {
  install_catalog.length = 0;
  if (fetch_to_work("INDEX") != 0) return;
  if (fetch_to_work("INDEX.sig") != 0) return;
  char path[kUrlBytes];
  work_path(path, "CATALOG");
  remove_file(path);
  if (run_tpk("catalog", kWorkDir, path, nullptr, 4) != 0) return;
  i64 n = read_file(path, install_catalog.text, kInstallCatalogBytes);
  if (n < 0) return;
  install_catalog.length = static_cast<usize>(n);
  install_catalog.text[n] = 0;
}

bool catalog_says_current(const char* name) {
  const char* text = install_catalog.text;
  usize len = install_catalog.length;
  usize name_len = str_len(name);
  for (usize start = 0; start < len;) {
    usize end = start;
    while (end < len && text[end] != '\n') end++;
    if (end - start > name_len && mem_equal(text + start, name, name_len) && text[start + name_len] == '\t') {
      return end - start >= 2 && text[end - 2] == '\t' && text[end - 1] == '1';
    }
    start = end + 1;
  }
  return false;
}

bool package_needs_update(const char* line) {
  if (package_platform(line) != Platform::this_machine) return false;
  char name[kPackageNameBytes];
  line_field(line, 0, name, sizeof name);
  return !catalog_says_current(name);
}

}  // namespace ota
