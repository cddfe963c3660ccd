#include "trust/blocked.h"

#include "runtime/files.h"
#include "runtime/text.h"
#include "trust/catalog_text.h"

namespace ota {

BlockedTable blocked;

namespace {

constexpr usize kBlockedTagLength = text_length(kBlockedTag);

// What the index-th "gesperrt" line of the catalog holds; out gets its version text.
enum class BlockedLine { none, no_version, version };
BlockedLine catalog_blocked_field(u64 index, char out[kBlockedFieldBytes]) {
  const char* line = find_catalog_line(kBlockedTag, kBlockedTagLength, index);
  if (line == nullptr) return BlockedLine::none;
  return line_field(line, 0, out, kBlockedFieldBytes) ? BlockedLine::version : BlockedLine::no_version;
}

}  // namespace

void load_blocked_versions() {
  blocked.count = 0;
  i64 n = read_file(kBlockedPath, blocked.bytes, kBlockedFileBytes);
  if (n < static_cast<i64>(kBlockedRecordBytes)) return;
  u64 records = static_cast<u64>(n) / kBlockedRecordBytes;
  blocked.count = records > kBlockedRecords ? kBlockedRecords : records;
}

bool is_in_blocked_list(u64 version) {
  for (u64 i = 0; i < blocked.count; i++) {
    char digits[kStoredDigits + 1];
    mem_copy(digits, blocked.bytes + i * kBlockedRecordBytes, kStoredDigits);
    digits[kStoredDigits] = 0;
    if (parse_decimal(digits) == version) return true;
  }
  return false;
}

bool add_blocked_version(u64 version) {
  if (is_in_blocked_list(version) || blocked.count >= kBlockedRecords) return false;
  char* record = blocked.bytes + blocked.count * kBlockedRecordBytes;
  format_eight_digits(record, version);
  record[kStoredDigits] = '\n';
  blocked.count++;
  return true;
}

void merge_blocked_versions() {
  load_blocked_versions();
  u64 added = 0;
  char field[kBlockedFieldBytes];
  for (u64 index = 0;; index++) {
    BlockedLine found = catalog_blocked_field(index, field);
    if (found == BlockedLine::none) break;
    if (found == BlockedLine::version && add_blocked_version(parse_decimal(field))) added++;
  }
  if (added > 0) overwrite_in_place(kBlockedPath, blocked.bytes, blocked.count * kBlockedRecordBytes);
}

bool version_is_blocked(u64 version) {
  load_blocked_versions();
  if (is_in_blocked_list(version)) return true;
  char field[kBlockedFieldBytes];
  for (u64 index = 0;; index++) {
    BlockedLine found = catalog_blocked_field(index, field);
    if (found == BlockedLine::none) return false;
    if (found == BlockedLine::version && parse_decimal(field) == version) return true;
  }
}

void print_blocked_versions() {
  // The list is one line, put together here and written in pieces only when long.
  char line[kLineBytes];
  usize len = 0;
  bool any = false;
  char field[kBlockedFieldBytes];
  for (u64 index = 0;; index++) {
    BlockedLine found = catalog_blocked_field(index, field);
    if (found == BlockedLine::none) break;
    if (found == BlockedLine::no_version) continue;
    if (len + kBlockedFieldBytes + 32 > sizeof line) {
      print_bytes(line, len);
      len = 0;
    }
    len = str_append_at(line, len, any ? " " : "ota: blocked versions: ");
    len = str_append_at(line, len, field);
    any = true;
  }
  if (!any) return;
  len = str_append_char(line, len, '\n');
  print_bytes(line, len);
}

}  // namespace ota
