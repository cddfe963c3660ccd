#include "tracer.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/audit.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host.h"
#include "rootfs.h"

namespace tavisim {

namespace {

// Calls the device program has no business making on a development machine; they fail
// with EPERM without a stop.
constexpr int kDenied[] = {SYS_ptrace,       SYS_pivot_root,      SYS_chroot,         SYS_swapon,
                           SYS_swapoff,      SYS_init_module,     SYS_delete_module,  SYS_kexec_load,
                           SYS_unshare,      SYS_setns,           SYS_finit_module,   SYS_kexec_file_load,
                           SYS_open_tree,    SYS_move_mount,      SYS_fsopen,         SYS_fsconfig,
                           SYS_fsmount,      SYS_fspick};

pid_t parent_of_process(pid_t pid) {
  auto text = read_host_file("/proc/" + std::to_string(pid) + "/status");
  if (!text) return 0;
  size_t p = text->find("\nPPid:");
  if (p == std::string::npos) return 0;
  return static_cast<pid_t>(atoi(text->c_str() + p + 6));
}

int64_t peak_rss_kib(pid_t pid) {
  FILE* f = fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
  if (f == nullptr) return 0;
  char line[256];
  int64_t kib = 0;
  while (fgets(line, sizeof line, f) != nullptr) {
    if (strncmp(line, "VmHWM:", 6) == 0) kib = strtoll(line + 6, nullptr, 10);
  }
  fclose(f);
  return kib;
}

}  // namespace

std::vector<sock_filter> seccomp_filter(const std::set<int64_t>& stopped, bool every_call) {
  std::vector<sock_filter> f;
  auto stmt = [&](uint16_t code, uint32_t k) { f.push_back(sock_filter{code, 0, 0, k}); };
  auto jump = [&](uint16_t code, uint32_t k, uint8_t jt, uint8_t jf) { f.push_back(sock_filter{code, jt, jf, k}); };
  constexpr uint32_t kArgLow0 = offsetof(seccomp_data, args);
  stmt(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch));
  jump(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0);
  stmt(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS);
  stmt(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr));
  jump(BPF_JMP | BPF_JSET | BPF_K, 0x40000000, 0, 1);  // the x32 numbers
  stmt(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS);
  for (int nr : kDenied) {
    jump(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(nr), 0, 1);
    stmt(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM);
  }
  if (every_call) {
    stmt(BPF_RET | BPF_K, SECCOMP_RET_TRACE);
    return f;
  }
  for (int64_t nr : stopped) {
    jump(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(nr), 0, 1);
    stmt(BPF_RET | BPF_K, SECCOMP_RET_TRACE);
  }
  if (!stopped.count(SYS_open)) {
    // open(path, flags, mode): stop only for O_CREAT with mode 0.
    jump(BPF_JMP | BPF_JEQ | BPF_K, SYS_open, 0, 6);
    stmt(BPF_LD | BPF_W | BPF_ABS, kArgLow0 + 8);
    jump(BPF_JMP | BPF_JSET | BPF_K, O_CREAT, 0, 3);
    stmt(BPF_LD | BPF_W | BPF_ABS, kArgLow0 + 16);
    jump(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 1);
    stmt(BPF_RET | BPF_K, SECCOMP_RET_TRACE);
    stmt(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  }
  if (!stopped.count(SYS_mkdir)) {
    // mkdir(path, mode): stop only for mode 0.
    jump(BPF_JMP | BPF_JEQ | BPF_K, SYS_mkdir, 0, 4);
    stmt(BPF_LD | BPF_W | BPF_ABS, kArgLow0 + 8);
    jump(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 1);
    stmt(BPF_RET | BPF_K, SECCOMP_RET_TRACE);
    stmt(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  }
  stmt(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  return f;
}

Tracer::Tracer() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGCHLD);
  sigfd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (sigfd_ < 0) throw SimError(std::string("signalfd failed: ") + strerror(errno));
  // Background children outlive their parent; as their subreaper this process collects
  // them instead of the host's init.
  prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
}

Tracer::~Tracer() {
  if (sigfd_ >= 0) close(sigfd_);
}

void Tracer::clear_wakeups() {
  signalfd_siginfo info;
  while (read(sigfd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
  }
}

Tracer::Started Tracer::launch(const Launch& l) {
  std::vector<char*> av;
  for (auto& w : l.argv) av.push_back(const_cast<char*>(w.c_str()));
  av.push_back(nullptr);
  char* envp[] = {nullptr};
  const char* root = l.root.c_str();
  sock_fprog prog{static_cast<unsigned short>(l.filter.size()), const_cast<sock_filter*>(l.filter.data())};

  pid_t pid = fork();
  if (pid < 0) throw SimError(std::string("fork failed: ") + strerror(errno));
  if (pid == 0) {
    // The child becomes the device program: its own view of the world is the device root.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    signal(SIGCHLD, SIG_DFL);
    if (l.stdout_fd >= 0) {
      dup2(l.stdout_fd, 1);
      dup2(l.stderr_fd, 2);
    }
    int null = ::open("/dev/null", O_RDONLY);
    if (null >= 0) dup2(null, 0);
    syscall(SYS_close_range, 3, ~0U, 0);
    umask(022);
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    if (chroot(root) != 0 || chdir("/") != 0) _exit(126);
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(126);
    raise(SIGSTOP);
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) _exit(126);
    if (syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &prog) != 0) _exit(126);
    execve("/bin/ota", av.data(), envp);
    _exit(127);
  }
  Started s;
  s.pid = pid;
  int status = 0;
  while (waitpid(pid, &status, __WALL) < 0 && errno == EINTR) {
  }
  if (!WIFSTOPPED(status)) return s;
  long opts = PTRACE_O_TRACESECCOMP | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE |
              PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXIT;
  ptrace(PTRACE_SETOPTIONS, pid, nullptr, reinterpret_cast<void*>(opts));
  procs_[pid];
  s.ok = true;
  return s;
}

void Tracer::collect(TraceEvents& events) {
  for (;;) {
    int status = 0;
    pid_t pid = waitpid(-1, &status, WNOHANG | __WALL);
    if (pid < 0 && errno == EINTR) continue;
    if (pid <= 0) break;
    dispatch(pid, status, events, false);
  }
}

void Tracer::reap_all(TraceEvents& events) {
  while (!procs_.empty()) {
    int status = 0;
    pid_t pid = waitpid(-1, &status, __WALL);
    if (pid < 0) {
      if (errno == EINTR) continue;
      // Nothing left to wait for: the remaining records are stale.
      std::vector<pid_t> stale;
      for (auto& [p, t] : procs_) stale.push_back(p);
      for (pid_t p : stale)
        if (traces(p)) exited(p, SIGKILL, events);
      break;
    }
    dispatch(pid, status, events, true);
  }
}

void Tracer::reap(pid_t pid, TraceEvents& events) {
  while (traces(pid)) {
    int status = 0;
    pid_t r = waitpid(pid, &status, __WALL);
    if (r < 0) {
      if (errno == EINTR) continue;
      exited(pid, SIGKILL, events);
      break;
    }
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      exited(pid, status, events);
    } else if (WIFSTOPPED(status)) {
      // A stop reported on the way (the exit event among them) is let go: SIGKILL then
      // ends the process.
      ptrace(PTRACE_CONT, pid, nullptr, nullptr);
    }
  }
}

void Tracer::exited(pid_t pid, int status, TraceEvents& events) {
  Traced t = procs_[pid];
  events.on_exit(pid, status, t.program_started, t.peak_rss_kib);
  procs_.erase(pid);
}

void Tracer::dispatch(pid_t pid, int status, TraceEvents& events, bool draining) {
  if (WIFEXITED(status) || WIFSIGNALED(status)) {
    if (traces(pid)) exited(pid, status, events);
    return;
  }
  if (!WIFSTOPPED(status)) return;
  if (draining) {
    // A process SIGKILL reached stops once more at its exit event and must be let go from
    // there, or it never ends.
    ptrace(PTRACE_CONT, pid, nullptr, nullptr);
    return;
  }
  if (!traces(pid)) {
    // A new child whose first stop came before its parent's fork event.
    pid_t parent = parent_of_process(pid);
    auto p = procs_.find(parent);
    bool started = p != procs_.end() && p->second.program_started;
    procs_[pid].program_started = started;
    events.on_new_process(pid, parent);
  }
  Traced& t = procs_[pid];
  int sig = WSTOPSIG(status);
  int event = status >> 16;
  if (sig == SIGTRAP && event != 0) {
    switch (event) {
      case PTRACE_EVENT_SECCOMP: {
        user_regs_struct regs;
        if (ptrace(PTRACE_GETREGS, pid, nullptr, &regs) != 0) return;
        if (!t.program_started) {
          resume(pid);  // execve itself, before the program runs
          return;
        }
        events.on_call(pid, regs);
        return;
      }
      case PTRACE_EVENT_FORK:
      case PTRACE_EVENT_VFORK:
      case PTRACE_EVENT_CLONE: {
        unsigned long msg = 0;
        ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &msg);
        pid_t child = static_cast<pid_t>(msg);
        bool started = t.program_started;
        procs_[child].program_started = started;
        events.on_fork(pid, child);
        resume(pid);
        return;
      }
      case PTRACE_EVENT_EXEC:
        if (!t.program_started) {
          t.program_started = true;
          events.on_program_start(pid);
        }
        resume(pid);
        return;
      case PTRACE_EVENT_EXIT:
        // The kernel's accounting of the program's own memory (since its exec), read while
        // the process still exists: its peak resident set.
        t.peak_rss_kib = peak_rss_kib(pid);
        resume(pid);
        return;
      default: resume(pid); return;
    }
  }
  if (sig == (SIGTRAP | 0x80)) {
    // The return from a call let through with a changed argument register: put it back.
    if (t.restore_reg) {
      user_regs_struct r;
      if (ptrace(PTRACE_GETREGS, pid, nullptr, &r) == 0) {
        r.*t.restore_reg = t.restore_value;
        ptrace(PTRACE_SETREGS, pid, nullptr, &r);
      }
      t.restore_reg = nullptr;
    }
    resume(pid);
    return;
  }
  // The stop the tracer's own attaching causes is no signal for the program.
  resume(pid, sig == SIGSTOP ? 0 : sig);
}

void Tracer::resume(pid_t pid, int signal) {
  ptrace(PTRACE_CONT, pid, nullptr, reinterpret_cast<void*>(static_cast<long>(signal)));
}

void Tracer::skip_call(pid_t pid, user_regs_struct& regs, int64_t result) {
  regs.orig_rax = static_cast<unsigned long long>(-1);
  regs.rax = static_cast<unsigned long long>(result);
  ptrace(PTRACE_SETREGS, pid, nullptr, &regs);
  resume(pid);
}

void Tracer::let_through_changed(pid_t pid, user_regs_struct& changed, unsigned long long user_regs_struct::*reg,
                                 unsigned long long original) {
  ptrace(PTRACE_SETREGS, pid, nullptr, &changed);
  Traced& t = procs_[pid];
  t.restore_reg = reg;
  t.restore_value = original;
  // Stop once more when the call returns, to put the register back.
  ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
}

// ---------------------------------------------------------------------------------------
// The memory and the view of a traced process

bool read_memory(pid_t pid, uint64_t addr, void* out, size_t n) {
  if (n == 0) return true;
  iovec local{out, n};
  iovec remote{reinterpret_cast<void*>(addr), n};
  return process_vm_readv(pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(n);
}

bool write_memory(pid_t pid, uint64_t addr, const void* data, size_t n) {
  iovec local{const_cast<void*>(data), n};
  iovec remote{reinterpret_cast<void*>(addr), n};
  if (process_vm_writev(pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(n)) return true;
  // process_vm_writev refuses read-only pages; /proc/PID/mem writes through them, as the
  // kernel itself would when it answers a call.
  int fd = ::open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = pwrite(fd, data, n, static_cast<off_t>(addr)) == static_cast<ssize_t>(n);
  close(fd);
  return ok;
}

std::optional<std::string> read_string(pid_t pid, uint64_t addr, size_t max) {
  if (addr == 0) return std::nullopt;
  std::string s;
  while (s.size() < max) {
    // Never read across a page boundary at once: the next page may not exist.
    size_t chunk = 4096 - (addr % 4096);
    char buf[4096];
    if (!read_memory(pid, addr, buf, chunk)) return std::nullopt;
    for (size_t i = 0; i < chunk; i++) {
      if (buf[i] == 0) return s;
      s += buf[i];
      if (s.size() >= max) return s;
    }
    addr += chunk;
  }
  return s;
}

std::string device_path_of(pid_t pid, const std::string& root, const std::string& path) {
  if (!path.empty() && path[0] == '/') return RootFs::normalize(path);
  char buf[4096];
  ssize_t n = readlink(("/proc/" + std::to_string(pid) + "/cwd").c_str(), buf, sizeof buf - 1);
  std::string cwd = "/";
  if (n > 0) {
    buf[n] = 0;
    std::string host = buf;
    char real_root[PATH_MAX];
    std::string real = realpath(root.c_str(), real_root) ? std::string(real_root) : root;
    if (host.compare(0, real.size(), real) == 0) cwd = host.substr(real.size());
    if (cwd.empty()) cwd = "/";
  }
  return RootFs::normalize(cwd + "/" + path);
}

char scheduler_state(pid_t pid) {
  auto text = read_host_file("/proc/" + std::to_string(pid) + "/stat");
  if (!text) return '?';
  size_t p = text->rfind(')');
  if (p == std::string::npos || p + 2 >= text->size()) return '?';
  return (*text)[p + 2];
}

}  // namespace tavisim
