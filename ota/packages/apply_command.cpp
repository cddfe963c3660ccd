#include "packages/apply.h"

#include "packages/catalog.h"
#include "packages/fetch.h"
#include "packages/update_state.h"
#include "runtime/files.h"
#include "runtime/text.h"
#include "trust/blocked.h"
#include "trust/catalog_text.h"
#include "trust/keys.h"
#include "trust/sha256.h"

namespace ota {

namespace {

// Set when every package was already current and only the installed version moved.
bool nothing_installed = false;

// How often a package file is fetched before it is given up (four checks in all).
constexpr int kFetchAttempts = 3;
constexpr usize kPathBytes = kUrlBytes;

u64 package_length(const char* line) {
  char text[kPackageFieldBytes];
  line_field(line, 3, text, sizeof text);
  return parse_decimal(text);
}

bool not_enough_space() {
  print_err("ota: NOT ENOUGH SPACE -- aborted, \n     nothing was written. \n");
  return false;
}

}  // namespace

bool download_package(const char* file, u64 length, const char* hash_text) {
  char local[kPathBytes];
  work_path(local, file);
  return checked_download(file, local, length, hash_text);
}

bool checked_download(const char* file, const char* local, u64 length, const char* hash_text) {
  if (length == 0 || file[0] == 0) return report_failure("ota: wrong length, REJECTED: ", file);
  bool mismatch = false;
  for (int fetches = 0;; fetches++) {
    u64 size = file_size(local);
    if (size > length) {
      remove_file(local);
      size = 0;
    }
    if (size == length) {
      // Compared over at most 64 characters; capitals never match.
      if (sha256_file_matches(local, hash_text)) return true;
      mismatch = true;
      remove_file(local);
      size = 0;
    }
    if (fetches == kFetchAttempts) break;
    if (size > 0) say_number("ota: partial file, resuming at ", size);
    run_fetch(file, local, size);
  }
  return report_failure(mismatch ? "ota: HASH MISMATCH, REJECTED: " : "ota: wrong length, REJECTED: ", file);
}

bool apply_packages() {
  if (!load_catalog(SourceKind::packages, true)) return false;
  u64 offered = catalog_version();
  offered_version = offered;
  u64 here = read_installed_version();
  if (version_is_blocked(offered)) {
    say_number("ota: VERSION BLOCKED -- REJECTED, offered ", offered);
    return false;
  }
  if (!check_offered_version(offered, here, true)) return false;
  u64 total = package_count();
  if (total == 0) return report_failure("ota: the VERZEICHNIS names no package", nullptr);
  u64 mine = platform_package_count();
  if (mine == 0) return report_failure("ota: NO PACKAGE for this platform -- nothing to do", nullptr);
  if (mine < total) say_number("ota: not for this machine, skipped: ", total - mine);

  load_install_catalog();
  u64 count = 0;
  u64 sum = 0;
  u64 max = 0;
  for (u64 i = 0;; i++) {
    const char* line = nth_package_line(i);
    if (line == nullptr) break;
    if (!package_needs_update(line)) continue;
    u64 length = package_length(line);
    count++;
    sum += length;
    if (length > max) max = length;
  }
  if (count < mine) say_number("ota: packages already current: ", mine - count);
  if (count == 0) {
    if (!write_installed_version(offered)) return report_failure("ota: /system/FASSUNG could not be set", nullptr);
    nothing_installed = true;
    print_out("ota: nothing to install -- every package is current\n");
    return true;
  }

  u64 block_size = sys_system_info(TAVI_INFO_BLOCK_SIZE);
  u64 space = sys_system_info(TAVI_INFO_FREE_BLOCKS) * block_size;
  u64 needed = max + sum + kSpareRoom + sum / 8;
  say_number("ota: space ", space);
  say_number("ota: needed ", needed);
  if (space < needed) {
    say_number("ota: short by ", needed - space);
    return not_enough_space();
  }

  for (u64 i = 0;; i++) {
    const char* line = nth_package_line(i);
    if (line == nullptr) break;
    if (!package_needs_update(line)) continue;
    char hash[kHashFieldBytes];
    char file[kPackageFieldBytes];
    line_field(line, 2, hash, sizeof hash);
    line_field(line, 4, file, sizeof file);
    if (!download_package(file, package_length(line), hash)) return false;
    say_text("ota: hash ok ", file);
    char signature[kPackageFieldBytes + kSignatureSuffixLength];
    str_append_at(signature, str_copy(signature, file), kSignatureSuffix);
    if (fetch_to_work(signature) != 0) return report_failure("ota: cannot fetch: ", signature);
  }
  if (fetch_to_work("INDEX") != 0) return report_failure("ota: cannot fetch: ", "INDEX");
  if (fetch_to_work("INDEX.sig") != 0) return report_failure("ota: cannot fetch: ", "INDEX.sig");

  // The files are on disk now; what the installer needs beside them must still be free.
  space = sys_system_info(TAVI_INFO_FREE_BLOCKS) * block_size;
  if (space < sum / 8 + max + kSpareRoom) return not_enough_space();

  for (u64 i = 0;; i++) {
    const char* line = nth_package_line(i);
    if (line == nullptr) break;
    if (!package_needs_update(line)) continue;
    char name[kPackageNameBytes];
    char file[kPackageFieldBytes];
    line_field(line, 0, name, sizeof name);
    line_field(line, 4, file, sizeof file);
    say_text("ota: applying with tpk ", name);
    i64 code = run_tpk("update", name, "--source", kWorkDir, 5);
    if (code != 0) {
      // An installer that could not be started reports -1, so the code is shown signed.
      char shown[kDecimalBytes];
      format_decimal(static_cast<u64>(code), shown, 1);
      say_text("ota: tpk did not install, code ", shown);
      return false;
    }
    char local[kPathBytes];
    work_path(local, file);
    remove_file(local);
    str_append(local, kSignatureSuffix);
    remove_file(local);
  }
  if (!write_installed_version(offered)) return report_failure("ota: /system/FASSUNG could not be set", nullptr);
  print_out("ota: READY FOR RESTART -- it will NOT\n     restart by itself. `reboot`.\n");
  return true;
}

int apply_command() {
  nothing_installed = false;
  write_update_state("einspielen");
  bool applied = apply_packages();
  if (applied && nothing_installed) {
    write_update_state("ruhe");
    return 0;
  }
  write_update_state(applied ? "bereit" : "fehler");
  return applied ? 0 : 1;
}

}  // namespace ota
