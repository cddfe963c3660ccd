#pragma once
// A simulated tavi device: a directory holding the device's root file system, its disks,
// its configuration and the state and event log of its kernel, and the simulated kernel
// that runs the unmodified `ota` program in it.
//
//   tavisim::Device d = tavisim::Device::create(OTA_BINARY);
//   tavisim::RunResult r = d.run({"set", "kanal", "dev"});
//   // r.status, r.out, r.err, r.events
//
// The device runs only while one of the calls below serves it (run, wait, serve_until,
// wait_background); in between, its processes stand still.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tavisim/config.h"
#include "tavisim/esp.h"
#include "tavisim/events.h"

namespace tavisim {

enum class Limit { none, wall, virtual_time };

struct RunOptions {
  double wall_seconds = 120;       // real time the command may take; 0: no limit
  double virtual_seconds = 86400;  // virtual time it may take; 0: no limit
  std::optional<Cut> cut;          // replaces sim.conf's cut for this command
  bool capture = true;             // false: the program writes to the simulator's own output
  bool trace_calls = false;        // record the number of every system call the program makes
};

struct RunResult {
  bool exited = false;  // the program ended by itself
  int status = -1;      // its exit status when it did
  int signal = 0;       // otherwise the signal that ended it (9 for a restart, cut or limit)
  std::string out;
  std::string err;
  std::vector<Event> events;  // events logged from its start until it ended
  bool rebooted = false;      // it (or another process) restarted the machine
  bool cut = false;           // fault injection ended it
  Limit limit = Limit::none;  // a limit ran out
  std::string error;          // the simulator could not run it at all
  int64_t pid = 0;
  int64_t max_rss_kib = 0;    // peak resident memory of the program, as the kernel accounted it
  // With RunOptions::trace_calls: the number of each system call the command's first
  // process made (or was about to make when it ended), in order, as a cut counts them.
  std::vector<int64_t> calls;
  // The same for the processes it forked, in the order the calls were made; complete once
  // they have ended (ask `wait` again after `wait_background`).
  std::vector<int64_t> forked_calls;
};

using CommandId = int;
struct BootResult;
struct BootOptions;

struct InitOptions {
  std::string ota_binary;               // copied to root/bin/ota
  std::vector<std::string> esp_disks;   // e.g. {"sda1"}: an ESP image with a boot menu and tavi.mb
  std::string proc_version = "tavi 1 build 0000000 (tavi-sim stand-in kernel)\n";
};

// Makes the device directory layout at dir (which may exist but must not hold a device).
void init_device(const std::string& dir, const InitOptions& options);

class Device {
 public:
  // A fresh device in a new temporary directory (under $TMPDIR or /tmp).
  static Device create(const std::string& ota_binary, const InitOptions& extra = {});
  // An existing device directory.
  static Device open(const std::string& dir);

  Device(Device&&) noexcept;
  Device& operator=(Device&&) noexcept;
  ~Device();  // ends every process of the device; the directory stays

  const std::string& dir() const;
  std::string root() const;
  // The host path of a device path ("/etc/ota.conf" -> DIR/root/etc/ota.conf).
  std::string host_path(std::string_view device_path) const;

  // Files of the device root, by device path.
  void write_file(std::string_view path, std::string_view data, unsigned mode = 0644);
  std::optional<std::string> read_file(std::string_view path) const;
  bool exists(std::string_view path) const;
  void remove(std::string_view path);
  void make_dir(std::string_view path);
  unsigned mode_of(std::string_view path) const;  // permission bits; 0 when missing

  // The configuration (DIR/sim.conf); changes count from the next command started.
  Config& config();
  void save_config();
  void add_repo(const std::string& url_prefix, const std::string& host_dir);
  void add_task(const std::string& name, int slot, double appear_seconds, double end_seconds = -1,
                int64_t pid = 0);
  void add_fetch_fault(const std::string& file_name, FetchFaultKind kind, int64_t arg = 0, int64_t times = -1);
  void add_call_fault(const CallFault& fault);
  void set_program(const std::string& device_path, const std::string& host_executable);
  void clear_faults();

  // Disks: DIR/disks/<disk>.img.
  std::string disk_image(const std::string& disk) const;
  void make_esp(const std::string& disk, const std::map<std::string, std::string>& files,
                unsigned size_kib = kDefaultEspKiB);
  std::optional<std::string> esp_read(const std::string& disk, const std::string& path) const;
  std::vector<std::string> esp_list(const std::string& disk) const;
  int esp_check(const std::string& disk, std::string* report = nullptr) const;
  bool mounted(const std::string& target = "/sysesp") const;

  // Running. `run` starts `ota` with the words after it (argv[0] is "/bin/ota"); the
  // _argv forms take the whole argument vector, an empty one included.
  RunResult run(const std::vector<std::string>& words, const RunOptions& options = {});
  RunResult run_argv(const std::vector<std::string>& argv, const RunOptions& options = {});
  CommandId start(const std::vector<std::string>& words, const RunOptions& options = {});
  CommandId start_argv(const std::vector<std::string>& argv, const RunOptions& options = {});
  // Serves until done() holds (true), or until nothing is left to run, the wall time is up
  // or the virtual time is up (false; the processes stay as they are). done() is asked
  // after every kernel event and every few milliseconds.
  bool serve_until(const std::function<bool()>& done, double wall_seconds = 30, double virtual_seconds = 86400);
  // Serves until a fetch of that file name is held (the calling process stands still in
  // its call until release).
  bool serve_until_held(const std::string& file_name, double wall_seconds = 30, double virtual_seconds = 86400);
  bool held(const std::string& file_name) const;
  void release(const std::string& file_name);
  RunResult wait(CommandId command, double wall_seconds = 0);  // 0: the command's own limit
  bool finished(CommandId command) const;
  // Serves every remaining process (forked background children) to its end.
  bool wait_background(double wall_seconds = 60, double virtual_seconds = 86400);
  std::vector<int64_t> live_pids() const;
  void power_off();  // ends every process at once, as a power cut with everything kept
  // Starts the machine: boot loader, kernel, start-up entry (see tavisim/boot.h).
  BootResult boot(const BootOptions& options);
  BootResult boot();
  // The firmware's variable in which the boot loader keeps the title of the entry it
  // booted last (remember_last_entry); empty when it holds none. Setting it empty clears
  // it, as a reset of the firmware's variables does.
  std::string remembered_entry() const;
  void set_remembered_entry(const std::string& title);

  // Time and events.
  int64_t virtual_ms() const;  // since the clock's configured start
  void advance_clock(double seconds);
  std::vector<Event> events() const;  // all of events.log
  void reset_fault_counters();

 private:
  struct Impl;
  explicit Device(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace tavisim
