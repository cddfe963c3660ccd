#include "system/pending.h"

#include "records/trial_record.h"
#include "runtime/files.h"
#include "runtime/text.h"
#include "system/esp.h"
#include "system/manifest.h"
#include "system/menu.h"
#include "system/overlay.h"
#include "trust/sha256.h"

namespace ota {

namespace {

// The value text after key in the record, or null.
const char* after_key(const char* text, usize len, const char* key) {
  i64 at = mem_find(text, len, key, str_len(key));
  return at < 0 ? nullptr : text + at + str_len(key);
}

SystemTrialDecision roll_back() {
  remove_file(kSystemPendingPath);
  restore_overlay();
  write_system_status("failed");
  print_out("system: trial kernel was rolled back, update dropped\n");
  return SystemTrialDecision::dropped;
}

}  // namespace

bool arm_system_trial() {
  char text[kCurrentGenerationReadBytes];
  i64 n = read_file(kCurrentGenerationPath, text, sizeof text);
  u64 generation = 0;
  if (n < static_cast<i64>(kStoredDigits)) {
    if (!write_number_file(kCurrentGenerationPath, 0)) return false;
  } else {
    // The digits among the first eight characters, in order; anything else is skipped.
    for (usize i = 0; i < kStoredDigits; i++) {
      if (text[i] >= '0' && text[i] <= '9') generation = generation * 10 + static_cast<u64>(text[i] - '0');
    }
  }
  char record[kTrialRecordBytes + 1];
  usize len = str_copy(record, "gen=");
  format_eight_digits(record + len, generation);
  len = str_append_at(record, len + kStoredDigits, " vor=");
  format_eight_digits(record + len, generation);
  len = str_append_at(record, len + kStoredDigits, " v=00 ok=0\n");
  if (len != kTrialRecordBytes) return false;
  return replace_file(kTrialRecordPath, record, len);
}

bool write_pending_record() {
  // Each key starts its own line; the texts join the line end before it and the key.
  constexpr const char* kCommitLine = "\ncommit=";
  constexpr const char* kShaLine = "\nsha=";
  static_assert(texts_equal(kCommitLine + 1, kPendingCommitKey) && texts_equal(kShaLine + 1, kPendingShaKey));
  char record[kPendingBytes];
  usize len = str_copy(record, kPendingCountKey);
  len += format_decimal(manifest.build, record + len, 0);
  len = str_append_at(record, len, kCommitLine);
  len = str_append_at(record, len, manifest.commit);
  len = str_append_at(record, len, kShaLine);
  len = str_append_at(record, len, manifest.kernel.sha);
  len = str_append_char(record, len, '\n');
  return replace_file(kSystemPendingPath, record, len);
}

bool system_trial_pending() {
  // One byte is enough to say a record is there; it is read up to eight.
  char text[8];
  return read_file(kSystemPendingPath, text, sizeof text) >= 1;
}

bool running_kernel_is(const char* commit7) {
  char version[kProcVersionBytes + kCommitPrefix + 1];
  mem_fill(version, 0, sizeof version);
  i64 n = read_file("/proc/version", version, kProcVersionBytes);
  if (n <= 0) return false;
  const char* build = after_key(version, static_cast<usize>(n), " build ");
  return build != nullptr && mem_equal(build, commit7, kCommitPrefix);
}

SystemTrialDecision confirm_system_update() {
  // Zero-filled, so values near the end of a short record compare as zero bytes; the room
  // behind the record holds the longest value read after a key at its very end, the hash.
  char record[kPendingBytes + kDigestHexLength];
  mem_fill(record, 0, sizeof record);
  i64 n = read_file(kSystemPendingPath, record, kPendingBytes);
  if (n <= 0) {
    restore_overlay();
    return SystemTrialDecision::undecided;
  }
  usize len = static_cast<usize>(n);
  const char* count = after_key(record, len, kPendingCountKey);
  const char* commit = after_key(record, len, kPendingCommitKey);
  const char* sha = after_key(record, len, kPendingShaKey);
  if (count == nullptr || commit == nullptr || sha == nullptr) {
    remove_file(kSystemPendingPath);
    restore_overlay();
    return SystemTrialDecision::dropped;
  }
  u64 build = parse_decimal(count);
  char hash[kDigestHexBytes];
  mem_copy(hash, sha, kDigestHexLength);
  hash[kDigestHexLength] = 0;

  if (!running_kernel_is(commit)) return roll_back();
  if (!mount_esp()) return SystemTrialDecision::undecided;
  i64 m = read_menu();
  if (m <= 0 || m >= static_cast<i64>(kMenuTextBytes)) {
    unmount_esp();
    return SystemTrialDecision::undecided;
  }
  // A menu that no longer starts the trial entry means a rollback, unless slot A already
  // holds the pending kernel: then the promotion itself switched the menu back to entry 1 and
  // was ended before it could remove the pending record, and it is finished now.
  bool staged = mem_find(esp_menu_text, static_cast<usize>(m), kDefaultTwo, text_length(kDefaultTwo)) >= 0;
  bool promoted = staged ? sha256_file_matches(slot_b_path, hash) && copy_file(slot_b_path, slot_a_path) &&
                               sha256_file_matches(slot_a_path, hash) && reset_default_entry()
                         : sha256_file_matches(slot_a_path, hash);
  unmount_esp();
  if (!staged && !promoted) return roll_back();
  if (!promoted) return SystemTrialDecision::undecided;  // the next confirmation tries again

  write_number_file(kSystemVersionPath, build);
  remove_file(kSystemPendingPath);
  commit_overlay();
  manifest.build = build;
  write_system_status("current");
  print_out("system: new kernel confirmed and promoted to slot A\n");
  return SystemTrialDecision::promoted;
}

}  // namespace ota
