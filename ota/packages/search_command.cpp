#include "config/settings.h"
#include "packages/catalog.h"
#include "packages/update_state.h"
#include "records/trial_record.h"
#include "runtime/files.h"
#include "runtime/text.h"
#include "trust/blocked.h"
#include "trust/catalog_text.h"
#include "trust/keys.h"

namespace ota {

int search_command() {
  catalog_fetch_failed = false;
  if (!load_catalog(SourceKind::packages, true)) {
    catalog_fetch_failed = true;
    write_update_state("fehler");
    return 1;
  }
  u64 offered = catalog_version();
  u64 here = read_installed_version();
  offered_version = offered;
  write_update_state(state_is_ready() ? "bereit" : "ruhe");

  print_blocked_versions();
  if (version_is_blocked(offered)) {
    say_number("ota: VERSION BLOCKED -- REJECTED, offered ", offered);
    return 1;
  }
  if (!check_offered_version(offered, here, true)) return 1;
  if (package_count() == 0) return fail("ota: the VERZEICHNIS names no package", nullptr);

  print_out("ota: NEW VERSION available\n");
  say_text("ota: platform ", kPlatform);
  u64 other = 0;
  u64 unmarked = 0;
  u64 mine = 0;
  for (u64 i = 0;; i++) {
    const char* line = nth_package_line(i);
    if (line == nullptr) break;
    Platform platform = package_platform(line);
    if (platform == Platform::other) other++;
    if (platform == Platform::none) unmarked++;
    if (platform != Platform::this_machine) continue;
    mine++;
    char name[kPackageFieldBytes];
    char word[kPackageFieldBytes];
    char tag[kPackageFieldBytes];
    line_field(line, 0, name, sizeof name);
    line_field(line, 1, word, sizeof word);
    line_field(line, 5, tag, sizeof tag);
    char text[3 * kPackageFieldBytes + 4];
    usize len = str_copy(text, name);
    len = str_append_char(text, len, ' ');
    len = str_append_at(text, len, word);
    len = str_append_char(text, len, ' ');
    str_append_at(text, len, tag);
    say_text("ota: package ", text);
  }
  if (other > 0) say_number("ota: hidden, for other platforms: ", other);
  if (unmarked > 0) say_number("ota: hidden, no platform given: ", unmarked);
  if (mine == 0) {
    print_out("ota: NO PACKAGE for this platform -- nothing to do\n");
    return 1;
  }
  write_update_state("verfuegbar");
  return 0;
}

int show_command() {
  load_settings();
  char value[kSourceBytes];
  if (setting_text("quelle=", value, kSourceBytes)) say_text("ota: source ", value);
  if (setting_text("kanal=", value, kChannelBytes)) say_text("ota: channel ", value);
  say_text("ota: platform ", kPlatform);
  say_number("ota: version here ", read_installed_version());
  say_number("ota: key generation ", read_key_generation());
  print_out(spare_key_file_present() ? "ota: spare key present\n" : "ota: NO spare key\n");

  char generation[kNumberFileReadBytes];
  i64 n = read_file(kCurrentGenerationPath, generation, sizeof generation);
  if (n >= static_cast<i64>(kStoredDigits)) {
    generation[kStoredDigits] = 0;
    say_number("ota: generation ", parse_decimal(generation));
  }
  char record[kTrialReadBytes];
  if (read_trial_record(record) && record[kTrialOkOffset] == '0') {
    record[kTrialGenerationOffset + kStoredDigits] = 0;
    say_text("ota: in trial: ", record + kTrialGenerationOffset);
  } else {
    print_out("ota: nothing in trial\n");
  }
  return 0;
}

}  // namespace ota
