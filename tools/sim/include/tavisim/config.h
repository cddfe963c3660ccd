#pragma once
// The device configuration, DIR/sim.conf: what the simulated kernel and the outside
// programs do for this device. The text form is one setting per line, a key and its
// words; docs/simulator.md lists every key.

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tavisim {

// Thrown for failures of the simulator itself (not of the device program): a missing
// file, a bad configuration value. The message names the file or value at fault.
class SimError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A URL prefix of /bin/fetch and the host directory it stands for.
struct Repo {
  std::string prefix;
  std::string dir;
};

// A task of the kernel's task table that is not an ota process (desktop, glogin, ...).
// Times are seconds after the start of the machine (the last restart).
struct TaskSpec {
  int slot = 0;
  std::string name;          // at most 16 bytes
  int64_t appear_ns = 0;
  int64_t end_ns = -1;       // -1: runs until it is ended
  int64_t pid = 0;           // 0: 5000000 + slot
  int64_t effective_pid() const { return pid != 0 ? pid : 5000000 + slot; }
};

// The kernel's filesystem growth (call 1880).
struct GrowModel {
  int64_t state = 1;                    // query 0 before the growth: 0 not possible, 3 done, else can proceed
  std::vector<int64_t> steps;           // progress (permille) after each step; one step more finishes
  int64_t fail_step = 0;                // 1-based step that fails instead, 0: none
  int64_t fail_code = 0;
  uint64_t fs_blocks = 262144;
  uint64_t device_blocks = 1048576;
  uint64_t inodes = 65536;
  uint64_t ext_inodes = 0;
};

enum class FetchFaultKind { fail, stop, corrupt, length, hold };

// A fault of /bin/fetch for one file name (the last component of the URL). It applies to
// the next `times` fetches of that name (0: to every one).
struct FetchFault {
  std::string name;
  FetchFaultKind kind = FetchFaultKind::fail;
  int64_t arg = 0;  // stop: bytes written; corrupt: offset; length: bytes added (or cut when < 0)
  int64_t times = 1;
};

// Makes a system call fail with `error` (a negative error number) the nth time it is made
// (counting only calls whose first path argument equals `path`, when given), or every
// time from the nth on.
struct CallFault {
  int64_t number = 0;
  int64_t error = -5;
  int64_t nth = 1;
  bool every = false;
  std::string path;
};

enum class Durability { all, synced };

// Ends the program at its k-th system call; with `any_process` every traced process
// counts its own calls and the first to reach k is ended; with `forked_only` only the
// processes the command forked count (a background child, not the command that started
// it).
struct Cut {
  uint64_t at_call = 0;
  Durability durability = Durability::all;
  bool any_process = false;
  bool forked_only = false;
};

struct Config {
  std::string clock_start = "2026-02-03 09:05:00";
  // Free space (system_info 5 and 8): fixed blocks, or, when capacity is set, the
  // capacity minus what the device root holds.
  uint64_t free_blocks = 1000000;
  uint64_t block_size = 4096;
  uint64_t capacity_bytes = 0;

  std::vector<Repo> repos;
  bool fetch_curl = false;  // real downloads with curl, 127.0.0.1 only

  std::vector<TaskSpec> tasks;
  int first_ota_slot = 1;

  GrowModel grow;

  std::map<std::string, std::string> programs;  // device path -> host executable

  std::vector<FetchFault> fetch_faults;
  // A link that drops: every fetch, with this chance in parts per million, breaks off after
  // a random share of its bytes. The draws come from a generator seeded with
  // fetch_drop_seed whose position lives in kernel.state, so a device replays them exactly.
  uint32_t fetch_drop_ppm = 0;
  uint64_t fetch_drop_seed = 0;
  std::vector<CallFault> call_faults;
  std::optional<Cut> cut;

  // Installer model: exit codes per use ("catalog", "update", "trial", "rollback",
  // "rebuild", or "update:NAME" for one package), and an exact CATALOG text.
  std::map<std::string, int> tpk_fail;
  std::string tpk_catalog_file;  // host file whose bytes become CATALOG
  // `catalog` and `update` believe INDEX only when INDEX.sig verifies with the device's
  // trusted or spare key; false keeps the older model that checks no signature.
  bool tpk_index_signed = true;
  int sntp_fail = 0;
  int rootsctl_fail = 0;

  // The start of the machine (Device::boot): how many starts of an unconfirmed trial the
  // kernel allows before it falls back to menu entry 1, and the start-up entry it runs
  // (the words after "ota"; empty: none).
  int boot_tries = 3;
  std::vector<std::string> start_entry = {"boot"};
};

// Parses sim.conf text. Throws SimError naming the line and the value at fault.
Config parse_config(std::string_view text, const std::string& origin = "sim.conf");
std::string format_config(const Config& c);

// The URL mapping of the /bin/fetch model: the longest matching prefix wins and the
// rest of the URL is appended to its directory as it stands. nullopt: no prefix matches.
std::optional<std::string> map_url(const std::vector<Repo>& repos, std::string_view url);

// The file name a fetch fault is matched against: the URL's last component.
std::string url_file_name(std::string_view url);

// A share written as a decimal fraction from 0 to 1 with at most six decimals ("0.05"),
// in parts per million; and back.
bool parse_share_ppm(std::string_view text, uint32_t& ppm);
std::string format_share_ppm(uint32_t ppm);

// "2026-02-03 09:05:00" -> seconds since 1970 (UTC, the device clock has no zones).
bool parse_date_time(std::string_view text, int64_t& epoch_seconds);

}  // namespace tavisim
