#pragma once
// The simulated tavi kernel of one device. It starts `ota` chrooted into the device root
// under ptrace with a seccomp filter that stops only the calls Linux must not or cannot
// answer, and answers those: the tavi calls, sleeps on a virtual clock, the ESP mount,
// tavi's rename, file modes, restart, and injected faults. Everything else runs as
// Linux runs it.

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

#include "device_limits.h"
#include "esp_mount.h"
#include "rootfs.h"
#include "tavisim/boot.h"
#include "tavisim/config.h"
#include "tavisim/device.h"
#include "tavisim/events.h"

namespace tavisim {

// Process ids the kernel hands out for started outside programs and uses for configured
// tasks lie above Linux's largest possible pid (4194304), so they never meet a real one.
constexpr int64_t kSpawnIdBase = 6000000;
// The kernel has as many task slots as the device program walks.
constexpr int kTaskSlots = static_cast<int>(ota::kTaskSlots);

struct KernelState {
  int64_t clock_ns = 0;  // virtual time since the configured clock start
  int64_t boot_ns = 0;   // virtual time of the last start of the machine
  int64_t grow_steps_done = 0;
  bool grow_finished = false;
  std::set<int> killed_slots;  // configured tasks ended through end_task since the start
  std::map<std::string, int64_t> counters;
  std::map<std::string, std::string> mounts;  // target -> device
  int64_t next_spawn_id = kSpawnIdBase;
  bool healthy = true;  // the running kernel image starts the desktop tasks
};

KernelState parse_kernel_state(const std::string& text, const std::string& origin);
std::string format_kernel_state(const KernelState& s);

class Kernel {
 public:
  explicit Kernel(const std::string& dir);
  ~Kernel();
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
  bool mounted(const std::string& target) const { return mounts_.count(target) != 0; }
  void reset_counters();
  void save_state();

 private:
  enum class Wait { none, sleep, hold };
  struct Tracee {
    pid_t pid = 0;
    int command = -1;
    bool main = false;
    bool started = false;
    bool exec_seen = false;
    Wait wait = Wait::none;
    int64_t wake_ns = 0;
    user_regs_struct regs{};
    // An argument register rewritten for the call, to be put back when the call returns
    // (the kernel keeps argument registers, and the program may rely on that).
    int restore_reg = -1;
    unsigned long long restore_value = 0;
    uint64_t calls = 0;
    int slot = -1;
    std::vector<std::string> hold_words;
    std::string hold_name;
    int64_t peak_rss_kib = 0;  // VmHWM when the process was about to exit
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
    std::chrono::steady_clock::time_point wall_deadline;
    bool has_wall = false;
    int64_t virtual_deadline = INT64_MAX;
    std::optional<Cut> cut;
    bool trace_calls = false;
  };
  struct Mount {
    std::string device;
    FatMount fat;
    std::string shadow;  // where the mount point's own content waits while mounted
  };
  enum class Stop { none, reboot, cut, limit_wall, limit_virtual, power };
  enum class Served { done, idle, wall, stopped };

  // Serving.
  // At the virtual deadline the machine is stopped (a limit), or with keep_running the
  // serving just ends there.
  Served serve(const std::function<bool()>& done, std::optional<std::chrono::steady_clock::time_point> wall,
               int64_t virtual_deadline, bool keep_running = false);
  void pump();
  void drain_pipes();
  bool advance_sleepers(int64_t virtual_deadline, bool* hit_limit, bool* busy);
  void handle_status(pid_t pid, int status);
  void on_exit(Tracee& t, int status);
  void on_fork(Tracee& parent);
  void on_exec(Tracee& t);
  void on_syscall(Tracee& t);
  void resume(Tracee& t, int signal = 0);
  void finish(Tracee& t, int64_t result);  // skips the call, result in rax
  void finish_with(Tracee& t, user_regs_struct& regs, int64_t result);
  void allow_rewritten(Tracee& t, user_regs_struct& regs, int reg, unsigned long long original);
  void on_syscall_exit(Tracee& t);
  void stop_machine(Stop why, Durability durability = Durability::all);
  void reap_all();
  void reap_one(pid_t pid);
  Tracee* tracee(pid_t pid);

  // Calls.
  std::optional<int64_t> injected_fault(Tracee& t, const user_regs_struct& r);
  void sys_nanosleep(Tracee& t, user_regs_struct& r);
  void sys_wait4(Tracee& t, user_regs_struct& r);
  void sys_spawn(Tracee& t, user_regs_struct& r);
  int64_t sys_system_info(uint64_t selector);
  int64_t sys_task_info(uint64_t slot, uint64_t field);
  int64_t sys_end_task(Tracee& t, uint64_t pid, uint64_t status);
  int64_t sys_fs_grow(pid_t caller, uint64_t op, uint64_t arg);
  int64_t sys_notify(Tracee& t, const user_regs_struct& r);
  int64_t sys_mount(Tracee& t, const user_regs_struct& r);
  int64_t sys_umount(Tracee& t, const user_regs_struct& r);
  void sys_sync();
  int64_t sys_rename(Tracee& t, const user_regs_struct& r);

  // Outside programs (models.cpp).
  int64_t start_program(Tracee& t, const std::string& path, const std::vector<std::string>& words);
  int run_host_program(Tracee& t, const std::string& host, const std::vector<std::string>& words);
  int model_fetch(Tracee& t, const std::vector<std::string>& words);
  int model_tpk(Tracee& t, const std::vector<std::string>& words);
  int model_sntp(Tracee& t, const std::vector<std::string>& words);
  int model_rootsctl(Tracee& t, const std::vector<std::string>& words);
  bool fetch_should_hold(const std::vector<std::string>& words, std::string* name);
  bool fault_applies(const std::string& key, int64_t times);

  // Task table.
  struct SlotView {
    int64_t state = 0;
    int64_t pid = 0;
    std::string name;
  };
  SlotView slot_view(int slot) const;
  int take_slot(pid_t pid);
  void note_clock_change(int64_t from, int64_t to);

  // Memory of a traced process.
  bool read_mem(pid_t pid, uint64_t addr, void* out, size_t n);
  bool write_mem(pid_t pid, uint64_t addr, const void* data, size_t n);
  std::optional<std::string> read_string(pid_t pid, uint64_t addr, size_t max = 4096);
  std::string device_path_of(Tracee& t, const std::string& path);

  // ESP and durability.
  void write_back_mounts(const char* why);
  void unmount_all(bool write_back);
  void take_snapshot();
  void restore_snapshot();

  void log(const std::string& kind, int64_t pid, std::vector<std::string> fields);
  void log_at(int64_t ns, const std::string& kind, int64_t pid, std::vector<std::string> fields);

  std::string dir_;
  std::string root_;
  Config cfg_;
  KernelState st_;
  std::string saved_state_;  // the text last written to kernel.state
  std::unique_ptr<RootFs> fs_;
  int events_fd_ = -1;
  int sigfd_ = -1;
  std::vector<Event> events_;
  std::map<pid_t, Tracee> tracees_;
  std::map<int, Command> commands_;
  int next_command_ = 1;
  std::map<int64_t, int> spawned_;  // spawn id -> wait status, until waited for
  std::map<std::string, Mount> mounts_;
  pid_t slot_owner_[kTaskSlots] = {};
  bool snapshot_active_ = false;
  Stop stopping_ = Stop::none;
  std::optional<std::chrono::steady_clock::time_point> serve_wall_;
};

}  // namespace tavisim
