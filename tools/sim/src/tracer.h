#pragma once
// The ptrace side of the simulated kernel: starting the device program chrooted and under a
// seccomp filter, collecting what its processes do (calls, forks, the program start, exits),
// skipping a call or letting it through, and reading and writing their memory. The tracer
// gives none of this a meaning: it reports each event to the kernel (TraceEvents), which
// answers the calls.

#include <linux/filter.h>
#include <sys/types.h>
#include <sys/user.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tavisim {

// What the tracer reports. Every pid it reports stays known to it until on_exit.
class TraceEvents {
 public:
  virtual ~TraceEvents() = default;
  // A process the tracer had not seen before stopped before its parent's fork event came.
  virtual void on_new_process(pid_t pid, pid_t parent) = 0;
  // The parent forked (or cloned) a child; the child may have been reported already.
  virtual void on_fork(pid_t parent, pid_t child) = 0;
  // The process executed its program image (only the first exec counts).
  virtual void on_program_start(pid_t pid) = 0;
  // The process stands in a call the filter stopped, made after its program image started.
  // The kernel must end the stop: skip the call, let it through, or keep the process waiting.
  virtual void on_call(pid_t pid, user_regs_struct& regs) = 0;
  // The process ended. program_started: it got as far as its program image.
  virtual void on_exit(pid_t pid, int status, bool program_started, int64_t peak_rss_kib) = 0;
};

// Which calls stop at the tracer: every number in `stopped`; open only when it creates a file
// with mode 0 and mkdir only with mode 0 (the modes tavi treats differently from Linux); with
// `every_call`, all of them. The calls a device program has no business making on a
// development machine fail with EPERM, and x32 and 32-bit calls with ENOSYS, without a stop.
std::vector<sock_filter> seccomp_filter(const std::set<int64_t>& stopped, bool every_call);

struct Launch {
  std::string root;                // the device root the program is chrooted into
  std::vector<std::string> argv;   // for /bin/ota; the environment is empty
  std::vector<sock_filter> filter;
  int stdout_fd = -1;              // when >= 0: the program's standard output (and error)
  int stderr_fd = -1;
};

class Tracer {
 public:
  Tracer();
  ~Tracer();
  Tracer(const Tracer&) = delete;
  Tracer& operator=(const Tracer&) = delete;

  // Forks the program and lets it run once it stands traced at its first stop. The pid is
  // that of the child even when it could not be prepared (ok false: it never became a
  // tracee). Throws SimError when no process could be forked.
  struct Started {
    pid_t pid = -1;
    bool ok = false;
  };
  Started launch(const Launch& l);

  // Collects every status change waiting and reports it.
  void collect(TraceEvents& events);
  // After SIGKILL went to every traced process: waits until each has ended, letting every
  // stop on the way go, and reports the exits.
  void reap_all(TraceEvents& events);
  // The same for one killed process.
  void reap(pid_t pid, TraceEvents& events);
  bool traces(pid_t pid) const { return procs_.count(pid) != 0; }

  // A descriptor that becomes readable when a child changes state (for poll), and the
  // reading that empties it.
  int wakeup_fd() const { return sigfd_; }
  void clear_wakeups();

  // Ending a call stop: run it as Linux would, skip it with `result` in rax, or run it with
  // one argument register changed; the register is put back when the call returns, as the
  // kernel preserves argument registers and programs rely on that.
  void resume(pid_t pid, int signal = 0);
  void skip_call(pid_t pid, user_regs_struct& regs, int64_t result);
  void let_through_changed(pid_t pid, user_regs_struct& changed, unsigned long long user_regs_struct::*reg,
                           unsigned long long original);

 private:
  struct Traced {
    bool program_started = false;
    unsigned long long user_regs_struct::*restore_reg = nullptr;
    unsigned long long restore_value = 0;
    int64_t peak_rss_kib = 0;  // VmHWM when the process was about to exit
  };
  // One status of one process. `draining`: SIGKILL is on its way to it, so every stop is
  // let go (or the process never ends) and nothing else is looked at.
  void dispatch(pid_t pid, int status, TraceEvents& events, bool draining);
  void exited(pid_t pid, int status, TraceEvents& events);

  std::map<pid_t, Traced> procs_;
  int sigfd_ = -1;
};

// The memory of a traced process.
bool read_memory(pid_t pid, uint64_t addr, void* out, size_t n);
bool write_memory(pid_t pid, uint64_t addr, const void* data, size_t n);
std::optional<std::string> read_string(pid_t pid, uint64_t addr, size_t max = 4096);

// A path as the process means it, inside the device root: relative paths count from its
// working directory.
std::string device_path_of(pid_t pid, const std::string& root, const std::string& path);

// The process's scheduler state letter from /proc/PID/stat ('R', 'S', 't', ...).
char scheduler_state(pid_t pid);

}  // namespace tavisim
