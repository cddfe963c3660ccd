#pragma once
// Every file comes from the source through /bin/fetch; the installer /bin/tpk and the
// clock setter /bin/sntp are started the same way. ota always waits for them.

#include "device_limits.h"
#include "runtime/syscall.h"
#include "runtime/text.h"

namespace ota {

// The argument vector of every program start, and the URL of the last fetch (the source,
// "/", the channel and "/" when there is one, the file name), cut at kUrlBytes - 1.
extern const char* program_words[kProgramWords];
extern char fetch_url[kUrlBytes];

// Exit code of /bin/fetch, or -1 when it could not be started.
i64 run_fetch(const char* file_name, const char* local_path, u64 offset);
// /bin/tpk with up to four words; count includes "/bin/tpk" itself.
i64 run_tpk(const char* word1, const char* word2, const char* word3, const char* word4, u64 count);
// True when /bin/sntp set the clock.
bool sync_clock();
bool clock_needs_sync();
// Removes the work copy of name and fetches it there; the exit code of /bin/fetch.
i64 fetch_to_work(const char* name);
// Whether `ota fetch` passes a file name on. The name becomes part of a path and a URL:
// nothing that could climb out of the work directory or the source is passed on.
inline bool fetchable_name(const char* name) {
  return name[0] != 0 && str_find(name, "/") < 0 && str_find(name, "..") < 0;
}
int fetch_command(const char* name, const char* target);

}  // namespace ota
