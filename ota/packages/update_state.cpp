#include "packages/update_state.h"

#include "runtime/files.h"
#include "runtime/text.h"
#include "trust/keys.h"

namespace ota {

u64 offered_version = 0;
bool catalog_fetch_failed = false;

usize append_clock_text(char* dst, usize len) {
  len += format_decimal(sys_system_info(TAVI_INFO_YEAR), dst + len, 0);
  len = str_append_char(dst, len, '-');
  len = str_append_two_digits(dst, sys_system_info(TAVI_INFO_MONTH));
  len = str_append_char(dst, len, '-');
  len = str_append_two_digits(dst, sys_system_info(TAVI_INFO_DAY));
  len = str_append_char(dst, len, ' ');
  len = str_append_two_digits(dst, sys_system_info(TAVI_INFO_HOUR));
  len = str_append_char(dst, len, ':');
  return str_append_two_digits(dst, sys_system_info(TAVI_INFO_MINUTE));
}

void write_update_state(const char* phase) {
  u64 here = read_installed_version();
  if (offered_version == 0) offered_version = here;
  char record[kStateRecordBytes];
  usize len = str_copy(record, "dort=");
  len += format_decimal(offered_version, record + len, 0);
  len = str_append_at(record, len, "\nhier=");
  len += format_decimal(here, record + len, 0);
  len = str_append_at(record, len, "\nzeit=");
  len = append_clock_text(record, len);
  len = str_append_at(record, len, "\nphase=");
  len = str_append_at(record, len, phase);
  len = str_append_char(record, len, '\n');
  replace_file(kUpdateStatePath, record, len);
}

bool state_is_ready() {
  char text[kStateReadBytes];
  i64 n = read_file(kUpdateStatePath, text, sizeof text);
  constexpr const char* kReady = "phase=bereit";
  return n > 0 && mem_find(text, static_cast<usize>(n), kReady, text_length(kReady)) >= 0;
}

bool check_offered_version(u64 offered, u64 here, bool verbose) {
  if (verbose) {
    say_number("ota: version here ", here);
    say_number("ota: version there ", offered);
  }
  if (offered > here) return true;
  if (offered == here && verbose) {
    print_out("ota: up to date, nothing to do\n");
    return false;
  }
  char line[96];
  usize len = str_copy(line, "ota: ROLLBACK REFUSED -- offered is ");
  len += format_decimal(offered, line + len, 0);
  str_append_at(line, len, ", this device is already at ");
  return report_failure_number(line, here);
}

}  // namespace ota
