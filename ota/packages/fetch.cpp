#include "packages/fetch.h"

#include "config/source.h"
#include "runtime/files.h"
#include "runtime/process.h"
#include "runtime/text.h"

namespace ota {

// One argument vector serves every start; starts never overlap.
const char* program_words[kProgramWords];
char fetch_url[kUrlBytes];

namespace {

// The outside programs; word 0 of each start is the program's own path.
constexpr const char* kFetchProgram = "/bin/fetch";
constexpr const char* kInstaller = "/bin/tpk";
constexpr const char* kClockSetter = "/bin/sntp";

char offset_text[kDecimalBytes];

void build_url(const char* file_name) {
  // The source and the channel were read with their own capacities, so they and their
  // slashes always fit.
  usize len = str_copy(fetch_url, source_settings.source);
  len = str_append_char(fetch_url, len, '/');
  if (source_settings.channel[0] != 0) {
    len = str_append_at(fetch_url, len, source_settings.channel);
    len = str_append_char(fetch_url, len, '/');
  }
  // A file name from a catalog fits as well; only `ota fetch` hands on a name of any
  // length, and like every value copied into a fixed buffer the URL is then cut at the
  // buffer's capacity.
  str_copy_bounded(fetch_url + len, file_name, kUrlBytes - len);
}

}  // namespace

i64 run_fetch(const char* file_name, const char* local_path, u64 offset) {
  u64 n = 0;
  program_words[n++] = kFetchProgram;
  program_words[n++] = "-o";
  program_words[n++] = local_path;
  if (source_settings.device_name[0] != 0) {
    program_words[n++] = "-n";
    program_words[n++] = source_settings.device_name;
  }
  if (offset != 0) {
    format_decimal(offset, offset_text, 0);
    program_words[n++] = "-b";
    program_words[n++] = offset_text;
  }
  build_url(file_name);
  program_words[n++] = fetch_url;
  return run_program(kFetchProgram, program_words, n);
}

i64 run_tpk(const char* word1, const char* word2, const char* word3, const char* word4, u64 count) {
  program_words[0] = kInstaller;
  program_words[1] = word1;
  program_words[2] = word2;
  program_words[3] = word3;
  program_words[4] = word4;
  return run_program(kInstaller, program_words, count);
}

bool sync_clock() {
  program_words[0] = kClockSetter;
  return run_program(kClockSetter, program_words, 1) == 0;
}

bool clock_needs_sync() {
  char state[kClockStateBytes];
  i64 n = read_file("/system/clock.stand", state, sizeof state);
  if (n >= 1) return state[0] != 'S';
  // Without a clock state a sync is asked for when the time service's settings say so.
  constexpr const char* kAutomatic = "auto=true";
  constexpr usize kAutomaticLength = text_length(kAutomatic);
  char ntp[kNtpConfigBytes + 1];
  n = read_file("/etc/ntp.conf", ntp, sizeof ntp - 1);
  if (n < static_cast<i64>(kAutomaticLength)) return false;
  return mem_find(ntp, static_cast<usize>(n), kAutomatic, kAutomaticLength) >= 0;
}

i64 fetch_to_work(const char* name) {
  char local[kUrlBytes];
  work_path(local, name);
  remove_file(local);
  return run_fetch(name, local, 0);
}

int fetch_command(const char* name, const char* target) {
  if (!load_source_settings(SourceKind::packages)) return 1;
  load_device_name();
  if (!fetchable_name(name)) return fail("ota: cannot fetch: ", name);
  make_work_dir();
  remove_file(target);
  if (run_fetch(name, target, 0) == 0) return 0;
  return fail("ota: cannot fetch: ", name);
}

}  // namespace ota
