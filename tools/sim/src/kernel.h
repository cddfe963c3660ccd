#pragma once
// The simulated tavi kernel of one device. It starts `ota` chrooted into the device root
// under ptrace with a seccomp filter that stops only the calls Linux must not or cannot
// answer, and answers those: the tavi calls, sleeps on a virtual clock, the ESP mount,
// tavi's rename, file modes, restart, and injected faults. Everything else runs as
// Linux runs it.
//
// The kernel composes its parts: the tracer (ptrace), the mount table, the copy a power cut
// goes back to, the task table, the event log and the saved state. What is left here is
// what ties them together: commands and their processes, the virtual clock and its
// sleepers, the calls' meaning (calls.cpp), the outside programs (models.cpp) and the start
// of the machine (boot.cpp).

#include <sys/types.h>
#include <sys/user.h>

#include <climits>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "event_log.h"
#include "kernel_state.h"
#include "mount_table.h"
#include "rootfs.h"
#include "synced_copy.h"
#include "task_table.h"
#include "tavisim/boot.h"
#include "tavisim/config.h"
#include "tavisim/device.h"
#include "tavisim/events.h"
#include "tracer.h"

namespace tavisim {

// A number as an event field writes it.
inline std::string num(int64_t v) { return std::to_string(v); }

class Kernel : private TraceEvents {
 public:
  explicit Kernel(const std::string& dir);
  ~Kernel() override;
  Kernel(const Kernel&) = delete;
  Kernel& operator=(const Kernel&) = delete;

  void set_config(const Config& c);
  const Config& config() const { return cfg_; }

  CommandId start(const std::vector<std::string>& argv, const RunOptions& options);
  RunResult wait(CommandId id, double wall_seconds);
  bool finished(CommandId id) const;
  bool serve_until(const std::function<bool()>& done, double wall_seconds, double virtual_seconds);
  bool wait_background(double wall_seconds, double virtual_seconds);
  bool held(const std::string& name) const;
  void release(const std::string& name);
  std::vector<int64_t> live_pids() const;
  void power_off();
  BootResult boot(const BootOptions& options);

  int64_t clock_ns() const { return st_.clock_ns; }
  void advance_clock(int64_t ns);
  bool mounted(const std::string& target) const { return mounts_.mounted(target); }
  void reset_counters();
  void save_state();

 private:
  enum class Wait { none, sleep, hold };
  // What the kernel knows of a traced process (the tracer keeps the ptrace side).
  struct Process {
    pid_t pid = 0;
    int command = -1;
    bool main = false;  // the command's first process
    Wait wait = Wait::none;
    int64_t wake_ns = 0;
    user_regs_struct regs{};  // the call it waits in, answered when the wait ends
    uint64_t calls = 0;       // its calls since its program started, as a cut counts them
    int slot = -1;
    std::vector<std::string> hold_words;
    std::string hold_name;
  };
  struct Command {
    int id = 0;
    std::vector<std::string> argv;
    pid_t main = -1;
    int out_fd = -1;
    int err_fd = -1;
    RunResult result;
    bool done = false;
    size_t first_event = 0;
    std::optional<std::chrono::steady_clock::time_point> wall_deadline;
    int64_t virtual_deadline = INT64_MAX;
    std::optional<Cut> cut;
    bool trace_calls = false;
  };
  enum class Stop { none, reboot, cut, limit_wall, limit_virtual, power };
  enum class Served { done, idle, wall, stopped };

  // Serving (kernel.cpp).
  // At the virtual deadline the machine is stopped (a limit), or with keep_running the
  // serving just ends there.
  Served serve(const std::function<bool()>& done, std::optional<std::chrono::steady_clock::time_point> wall,
               int64_t virtual_deadline, bool keep_running = false);
  void pump();
  void drain_pipes();
  bool advance_sleepers(int64_t virtual_deadline, bool* hit_limit, bool* busy);
  void stop_machine(Stop why, Durability durability = Durability::all);
  void write_back_mounts(const char* why);
  void unmount_all(bool write_back);
  Process* process(pid_t pid);

  // What the tracer reports (kernel.cpp, on_call in calls.cpp).
  void on_new_process(pid_t pid, pid_t parent) override;
  void on_fork(pid_t parent, pid_t child) override;
  void on_program_start(pid_t pid) override;
  void on_call(pid_t pid, user_regs_struct& regs) override;
  void on_exit(pid_t pid, int status, bool program_started, int64_t peak_rss_kib) override;

  // The calls (calls.cpp).
  std::vector<sock_filter> call_filter(bool every_call) const;
  void answer(Process& p, user_regs_struct& r, int64_t result) { tracer_.skip_call(p.pid, r, result); }
  std::optional<int64_t> injected_fault(Process& p, const user_regs_struct& r);
  void sys_nanosleep(Process& p, user_regs_struct& r);
  void sys_wait4(Process& p, user_regs_struct& r);
  void sys_spawn(Process& p, user_regs_struct& r);
  int64_t sys_system_info(uint64_t selector);
  int64_t sys_end_task(Process& p, uint64_t pid, uint64_t status);
  int64_t sys_fs_grow(pid_t caller, uint64_t op, uint64_t arg);
  int64_t sys_notify(Process& p, const user_regs_struct& r);
  int64_t sys_mount(Process& p, const user_regs_struct& r);
  int64_t sys_umount(Process& p, const user_regs_struct& r);
  void sys_sync();
  int64_t sys_rename(Process& p, const user_regs_struct& r);
  void note_clock_change(int64_t from, int64_t to);

  // Outside programs (models.cpp).
  int64_t start_program(Process& p, const std::string& path, const std::vector<std::string>& words);
  int run_host_program(Process& p, const std::string& host, const std::vector<std::string>& words);
  int model_fetch(Process& p, const std::vector<std::string>& words);
  int model_tpk(Process& p, const std::vector<std::string>& words);
  int model_sntp();
  int model_rootsctl(Process& p, const std::vector<std::string>& words);
  bool fetch_should_hold(const std::vector<std::string>& words, std::string* name);
  bool fault_applies(const std::string& key, int64_t times);

  std::string device_path(const Process& p, const std::string& path) const {
    return device_path_of(p.pid, root_, path);
  }
  void log(const std::string& kind, int64_t pid, std::vector<std::string> fields) {
    events_.add(st_.clock_ns, kind, pid, std::move(fields));
  }

  // Declared in the order they are made: each part stands on those above it, and a device
  // directory that is not one fails before anything is written into it.
  std::string dir_;
  std::string root_;
  RootFs fs_;
  Config cfg_;
  KernelStateFile state_file_;
  KernelState st_;
  EventLog events_;
  Tracer tracer_;
  TaskTable tasks_;
  MountTable mounts_;
  SyncedCopy synced_;
  std::map<pid_t, Process> processes_;
  std::map<int, Command> commands_;
  int next_command_ = 1;
  std::map<int64_t, int> spawned_;  // spawn id -> wait status, until waited for
  Stop stopping_ = Stop::none;
  std::optional<std::chrono::steady_clock::time_point> serve_wall_;
};

}  // namespace tavisim
