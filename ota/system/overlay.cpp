#include "system/overlay.h"

#include "gzip/gunzip.h"
#include "packages/apply.h"
#include "runtime/files.h"
#include "runtime/text.h"
#include "system/esp.h"
#include "system/manifest.h"
#include "trust/catalog_text.h"
#include "trust/sha256.h"

namespace ota {

namespace {

constexpr usize kFileTagLength = text_length(kOverlayFileTag);
constexpr usize kPathBytes = kOverlayPathBytes;
constexpr u64 kExecutableMode = 0755;
constexpr u64 kPlainMode = 0644;

bool name_char(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
         c == '_';
}

struct FileEntry {
  char sha[kShaFieldBytes];
  u64 size;
  char name[kEntryNameBytes];
  char target[kTargetBytes];
};

// The index-th file entry; false when there is none.
bool file_entry(u64 index, FileEntry* entry) {
  const char* line = find_catalog_line(kOverlayFileTag, kFileTagLength, index);
  if (line == nullptr) return false;
  char size[kSizeFieldBytes];
  line_field(line, 0, entry->sha, sizeof entry->sha);
  line_field(line, 1, size, sizeof size);
  entry->size = parse_decimal(size);
  line_field(line, 2, entry->name, sizeof entry->name);
  line_field(line, 3, entry->target, sizeof entry->target);
  return true;
}

bool link_entry(u64 index, char path[kLinkBytes], char target[kLinkBytes]) {
  const char* line = find_catalog_line(kLinkTag, text_length(kLinkTag), index);
  if (line == nullptr) return false;
  line_field(line, 0, path, kLinkBytes);
  line_field(line, 1, target, kLinkBytes);
  return true;
}

// Creates every parent directory of path (each prefix ending before a "/").
void make_parents(const char* path) {
  char prefix[kPathBytes];
  for (usize i = 1; path[i] != 0 && i < sizeof prefix; i++) {
    if (path[i] != '/') continue;
    mem_copy(prefix, path, i);
    prefix[i] = 0;
    make_directory(prefix);
  }
}

bool renamed(const char* from, const char* to) { return !is_error(sys_rename(from, to)); }

}  // namespace

bool valid_bare_name(const char* name) {
  usize len = str_len(name);
  if (len < 1 || len > kTargetLongest || name[0] == '.') return false;
  for (usize i = 0; i < len; i++) {
    if (!name_char(name[i])) return false;
  }
  return true;
}

bool valid_target(const char* target) {
  if (target[0] != '/') return valid_bare_name(target);
  usize len = str_len(target);
  if (len < kTargetShortestPath || len > kTargetLongest) return false;
  if (!str_starts_with(target, kAppsArea) && !str_starts_with(target, kEtcArea) &&
      !str_starts_with(target, kShareArea) && !str_starts_with(target, kLibArea)) {
    return false;
  }
  for (usize i = 0; i < len; i++) {
    if (!name_char(target[i]) && target[i] != '/') return false;
  }
  return str_find(target, "..") < 0 && str_find(target, "//") < 0 && target[len - 1] != '/';
}

bool valid_link(const char* path, const char* target) {
  constexpr usize kDirLength = text_length(kProgramDirectory);
  return path[0] == '/' && valid_target(path) && str_starts_with(target, kProgramDirectory) &&
         target[kDirLength] != '/' && valid_bare_name(target + kDirLength);
}

void target_real_path(const char* target, char* out) {
  if (target[0] == '/') {
    str_copy(out, target);
  } else {
    str_append_at(out, str_copy(out, kProgramDirectory), target);
  }
}

bool target_is_executable(const char* target) {
  if (target[0] != '/') return true;
  usize len = str_len(target);
  constexpr usize kEndingLength = text_length(kStartEnding);
  return len > kEndingLength && str_equal(target + len - kEndingLength, kStartEnding);
}

void staging_path(const char* dir, const char* target, char* out) {
  usize len = str_append_at(out, str_copy(out, dir), "/");
  const char* name = target[0] == '/' ? target + 1 : target;
  for (usize i = 0; name[i] != 0; i++) len = str_append_char(out, len, name[i] == '/' ? '@' : name[i]);
}

bool gunzip_file(const char* source, const char* destination) {
  u64 in = sys_open(source, kOpenRead);
  if (is_error(in)) return false;
  remove_file(destination);
  u64 out = sys_open(destination, kOpenCreate);
  u64 code = gunzip_stream(static_cast<int>(in), static_cast<int>(out));
  sys_close(static_cast<int>(in));
  sys_close(static_cast<int>(out));
  sys_sync();
  if (code == 0) return true;
  say_number("ota: gunzip failed, code ", code);
  remove_file(destination);
  return false;
}

bool fetch_overlay_file(const char* target, const char* name, u64 size, const char* sha256, const char* destination) {
  // The first gzip line for this target counts, when it is complete.
  const char* gz = nullptr;
  for (u64 i = 0;; i++) {
    const char* line = find_catalog_line(kGzipTag, text_length(kGzipTag), i);
    if (line == nullptr) break;
    char gz_target[kGzipTargetBytes];
    line_field(line, 0, gz_target, sizeof gz_target);
    if (str_equal(gz_target, target)) {
      gz = line;
      break;
    }
  }
  char gz_sha[kShaFieldBytes];
  char gz_size[kSizeFieldBytes];
  char gz_name[kEntryNameBytes];
  if (gz != nullptr) {
    line_field(gz, 1, gz_sha, sizeof gz_sha);
    line_field(gz, 2, gz_size, sizeof gz_size);
    line_field(gz, 3, gz_name, sizeof gz_name);
    if (str_len(gz_sha) != kDigestHexLength || parse_decimal(gz_size) == 0 || gz_name[0] == 0) gz = nullptr;
  }
  if (gz == nullptr) return checked_download(name, destination, size, sha256);

  remove_file(destination);
  char packed[kEntryWorkPathBytes];
  work_path(packed, gz_name);
  bool ok = checked_download(gz_name, packed, parse_decimal(gz_size), gz_sha) && gunzip_file(packed, destination);
  remove_file(packed);
  if (!ok) {
    remove_file(destination);
    return false;
  }
  if (file_size(destination) != size || !sha256_file_matches(destination, sha256)) {
    report_failure("ota: unpacked file has the wrong size or hash", nullptr);
    remove_file(destination);
    return false;
  }
  return true;
}

void clean_staging() {
  FileEntry entry;
  for (u64 i = 0; file_entry(i, &entry); i++) {
    if (!valid_target(entry.target)) continue;
    char staged[kPathBytes];
    staging_path(kStagingDir, entry.target, staged);
    remove_file(staged);
  }
}

bool stage_overlay_files() {
  FileEntry entry;
  u64 sum = 0;
  for (u64 i = 0; file_entry(i, &entry); i++) sum += entry.size;
  if (sum != 0) {
    u64 space = sys_system_info(TAVI_INFO_FREE_BLOCKS) * sys_system_info(TAVI_INFO_BLOCK_SIZE);
    if (space < 2 * sum + kSpareRoom) return report_failure("ota: not enough free space for the overlay files", nullptr);
  }
  make_directory(kStagingDir);
  make_directory(kBackupDir);
  bool ok = true;
  for (u64 i = 0; ok && file_entry(i, &entry); i++) {
    if (!valid_target(entry.target) || str_len(entry.sha) != kDigestHexLength || entry.size == 0 ||
        entry.name[0] == 0) {
      ok = report_failure("ota: bad overlay entry in the signed list", nullptr);
      break;
    }
    char staged[kPathBytes];
    staging_path(kStagingDir, entry.target, staged);
    if (!fetch_overlay_file(entry.target, entry.name, entry.size, entry.sha, staged)) {
      ok = report_failure("ota: overlay file download or check failed: ", entry.target);
      break;
    }
    sys_chmod(staged, target_is_executable(entry.target) ? kExecutableMode : kPlainMode);
  }
  char path[kLinkBytes];
  char target[kLinkBytes];
  for (u64 i = 0; ok && link_entry(i, path, target); i++) {
    if (!valid_link(path, target)) ok = report_failure("ota: bad overlay entry in the signed list", nullptr);
  }
  if (!ok) clean_staging();
  return ok;
}

i64 build_overlay_journal(char* out) {
  usize len = 0;
  out[0] = 0;
  FileEntry entry;
  for (u64 i = 0; file_entry(i, &entry); i++) {
    if (len + str_len(entry.target) + kJournalFileReserve > kJournalLimit) return -1;
    char real[kPathBytes];
    target_real_path(entry.target, real);
    len = str_append_char(out, len, file_exists(real) ? kJournalFileExisted : kJournalFileNew);
    len = str_append_at(out, len, entry.target);
    len = str_append_char(out, len, '\n');
  }
  char path[kLinkBytes];
  char target[kLinkBytes];
  for (u64 i = 0; link_entry(i, path, target); i++) {
    if (len + kJournalLinkReserve > kJournalLimit) return -1;
    len = str_append_char(out, len, file_exists(path) ? kJournalLinkExisted : kJournalLinkNew);
    len = str_append_at(out, len, path);
    len = str_append_char(out, len, '\t');
    len = str_append_at(out, len, target);
    len = str_append_char(out, len, '\n');
  }
  return static_cast<i64>(len);
}

bool write_overlay_journal() {
  static char text[kJournalLimit + 1];
  i64 len = build_overlay_journal(text);
  if (len < 0) return false;
  if (!replace_file(kJournalPath, text, static_cast<usize>(len))) return false;
  // Nothing may move before the journal that undoes it is on disk.
  sys_sync();
  return true;
}

bool replay_overlay_journal(ReplayMode mode) {
  static char text[kJournalReadBytes + 1];
  i64 n = read_file(kJournalPath, text, kJournalReadBytes);
  if (n <= 0) return true;
  usize len = static_cast<usize>(n);
  bool failed = false;
  for (usize start = 0; start < len && !failed;) {
    usize end = start;
    while (end < len && text[end] != '\n') end++;
    usize line_start = start;
    start = end + 1;
    if (end == line_start) continue;  // an empty line carries nothing
    char flag = text[line_start];
    usize rest_len = end - line_start - 1;
    if (rest_len > kJournalLineBytes) rest_len = kJournalLineBytes;
    char rest[kJournalLineBytes + 1];
    mem_copy(rest, text + line_start + 1, rest_len);
    rest[rest_len] = 0;

    if (flag == kJournalLinkExisted || flag == kJournalLinkNew) {
      i64 tab = str_find(rest, "\t");
      if (tab < 0) continue;
      rest[tab] = 0;
      const char* path = rest;
      const char* target = rest + tab + 1;
      if (!valid_link(path, target)) continue;
      if (mode == ReplayMode::install) {
        make_parents(path);
        remove_file(path);
        sys_link(target, path);
      } else if (mode == ReplayMode::restore) {
        remove_file(path);
        if (flag == kJournalLinkExisted) sys_link(target, path);
      }
      continue;
    }
    const char* target = rest;
    if (!valid_target(target)) continue;
    char staged[kPathBytes];
    char backup[kPathBytes];
    char real[kPathBytes];
    staging_path(kStagingDir, target, staged);
    staging_path(kBackupDir, target, backup);
    target_real_path(target, real);
    if (mode == ReplayMode::install) {
      make_parents(real);
      if (flag == kJournalFileExisted) {
        remove_file(backup);
        if (!renamed(real, backup)) failed = true;
      }
      if (!renamed(staged, real)) failed = true;
    } else if (mode == ReplayMode::restore) {
      if (flag == kJournalFileExisted) {
        if (file_exists(backup)) {
          remove_file(real);
          renamed(backup, real);
        }
      } else if (!file_exists(staged)) {
        // The new file was moved into place: it goes again.
        remove_file(real);
      }
      remove_file(staged);
    } else {
      remove_file(backup);
      remove_file(staged);
    }
  }
  sys_sync();
  return !failed;
}

bool install_overlay() {
  if (!write_overlay_journal()) return false;
  return replay_overlay_journal(ReplayMode::install);
}

bool restore_overlay() {
  if (!file_exists(kJournalPath)) return false;
  replay_overlay_journal(ReplayMode::restore);
  remove_file(kJournalPath);
  sys_sync();
  print_out("system: overlay restored (previous /bin files are back)\n");
  return true;
}

void commit_overlay() {
  if (!file_exists(kJournalPath)) return;
  replay_overlay_journal(ReplayMode::commit);
  remove_file(kJournalPath);
  sys_sync();
  print_out("system: overlay committed\n");
}

}  // namespace ota
