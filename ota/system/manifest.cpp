#include "system/manifest.h"

#include "config/source.h"
#include "packages/apply.h"
#include "packages/catalog.h"
#include "runtime/files.h"
#include "runtime/text.h"
#include "records/trial_record.h"
#include "system/background.h"
#include "system/pending.h"
#include "trust/catalog_text.h"
#include "trust/sha256.h"

namespace ota {

SystemManifest manifest;

namespace {

u64 number_field(const char* line, u64 n) {
  char text[kSizeFieldBytes];
  line_field(line, n, text, sizeof text);
  return parse_decimal(text);
}

void read_entry(const char* line, ManifestFile* entry) {
  line_field(line, 1, entry->sha, sizeof entry->sha);
  entry->size = number_field(line, 2);
  line_field(line, 3, entry->name, sizeof entry->name);
}

}  // namespace

bool parse_system_manifest() {
  const char* line = find_catalog_line(kSystemTag, text_length(kSystemTag), 0);
  if (line == nullptr) return report_failure("ota: this source offers no system update (no system line)", nullptr);
  char text[kBuildFieldBytes];
  if (!line_field(line, 0, text, sizeof text)) return report_failure("ota: system list line unreadable: ", kSystemTag);
  manifest.build = parse_decimal(text);
  line_field(line, 1, manifest.commit, sizeof manifest.commit);
  manifest.min_from = line_field(line, 2, text, sizeof text) ? parse_decimal(text) : 0;

  manifest.kernel.size = 0;
  manifest.notes.size = 0;
  manifest.roots.size = 0;
  manifest.roots.name[0] = 0;
  manifest.file_count = 0;
  manifest.unknown_entry = false;
  for (u64 i = 0;; i++) {
    const char* entry = find_catalog_line(kSystemFileTag, text_length(kSystemFileTag), i);
    if (entry == nullptr) break;
    char kind[kKindBytes];
    if (!line_field(entry, 0, kind, sizeof kind)) continue;
    if (str_equal(kind, kKernelKind)) {
      read_entry(entry, &manifest.kernel);
    } else if (str_equal(kind, kNotesKind)) {
      read_entry(entry, &manifest.notes);
    } else if (str_equal(kind, kRootsKind)) {
      read_entry(entry, &manifest.roots);
    } else if (str_equal(kind, kFileKind)) {
      manifest.file_count++;
    } else {
      manifest.unknown_entry = true;
    }
  }
  if (manifest.kernel.size == 0 || manifest.kernel.name[0] == 0 || str_len(manifest.kernel.sha) != kDigestHexLength) {
    return report_failure("ota: system manifest has no kernel entry", nullptr);
  }
  return true;
}

SystemCheck check_system_update(bool verbose) {
  if (!load_catalog(SourceKind::system, verbose) || !parse_system_manifest()) return SystemCheck::nothing;
  u64 installed = read_number_file(kSystemVersionPath);
  if (verbose) {
    say_number("system: installed build ", installed);
    say_number("system: available build ", manifest.build);
    say_text("system: commit ", manifest.commit);
  }
  if (manifest.build <= installed) {
    if (verbose) print_out("system: up to date\n");
    write_system_status("current");
    return SystemCheck::nothing;
  }
  if (manifest.min_from <= installed) return SystemCheck::offered;
  say_number("ota: this system is too old for an incremental update (min_from): ", manifest.min_from);
  return SystemCheck::too_old;
}

void fetch_system_notes(bool quiet) {
  const ManifestFile& notes = manifest.notes;
  if (notes.size == 0 || notes.size > kNotesLimit || notes.name[0] == 0) return;
  if (!download_package(notes.name, notes.size, notes.sha)) return;
  char local[kEntryWorkPathBytes];
  work_path(local, notes.name);
  char text[kNotesLimit];
  i64 n = read_file(local, text, sizeof text);
  if (n >= 1) {
    replace_file(kSystemNotesPath, text, static_cast<usize>(n));
    if (!quiet) {
      print_out("system: changes:\n");
      print_bytes(text, static_cast<usize>(n));
    }
  }
  remove_file(local);
}

void write_system_status(const char* phase) {
  char record[kCommitBytes + 3 * kDecimalBytes + 48];
  usize len = str_copy(record, "here=");
  len += format_decimal(read_number_file(kSystemVersionPath), record + len, 0);
  len = str_append_at(record, len, "\nthere=");
  len += format_decimal(manifest.build, record + len, 0);
  len = str_append_at(record, len, "\ncommit=");
  len = str_append_at(record, len, manifest.commit);
  len = str_append_at(record, len, "\nphase=");
  len = str_append_at(record, len, phase);
  len = str_append_char(record, len, '\n');
  replace_file(kSystemStatePath, record, len);
}

int system_search() {
  SystemCheck check = check_system_update(true);
  if (check != SystemCheck::offered) return exit_status(check);
  print_out("system: update available\n");
  fetch_system_notes(false);
  write_system_status("available");
  return 0;
}

SystemCheck system_background_check() {
  if (in_trial() || system_trial_pending()) return SystemCheck::nothing;
  SystemCheck check = check_system_update(false);
  if (check == SystemCheck::offered) {
    fetch_system_notes(true);
    write_system_status("available");
    if (read_number_file(kSystemNotifiedPath) != manifest.build) {
      char notice[kNoticeBytes];
      mem_fill(notice, 0, sizeof notice);
      usize len = str_copy(notice, "System update available: build ");
      len += format_decimal(manifest.build, notice + len, 0);
      sys_notify(notice, len);
      write_number_file(kSystemNotifiedPath, manifest.build);
    }
  }
  return check;
}

int system_status() {
  say_number("system: installed build ", read_number_file(kSystemVersionPath));
  char text[kPendingBytes];
  i64 n = read_file("/etc/osversion", text, kOsVersionBytes);
  if (n > 0) print_bytes(text, static_cast<usize>(n));
  n = read_file(kSystemPendingPath, text, kPendingBytes);
  if (n > 0) {
    // The record follows the label on its own lines, as it stands.
    print_out("system: pending trial of build \n");
    print_bytes(text, static_cast<usize>(n));
  } else {
    print_out("system: no update pending\n");
  }
  apply_report();
  return 0;
}

}  // namespace ota
