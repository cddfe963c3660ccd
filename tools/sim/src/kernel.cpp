#include "kernel.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <sstream>

#include "host.h"
#include "tavi_abi.h"

namespace tavisim {

namespace {

using Clock = std::chrono::steady_clock;

// System call numbers (x86-64 Linux, and the tavi kernel's own).
constexpr int64_t kOpen = 2;
constexpr int64_t kNanosleep = 35;
constexpr int64_t kWait4 = 61;
constexpr int64_t kRename = 82;
constexpr int64_t kMkdir = 83;
constexpr int64_t kSync = 162;
constexpr int64_t kMount = 165;
constexpr int64_t kUmount2 = 166;
constexpr int64_t kReboot = 169;
constexpr int64_t kSpawn = TAVI_SPAWN;
constexpr int64_t kSystemInfo = TAVI_SYSTEM_INFO;
constexpr int64_t kTaskInfo = TAVI_TASK_INFO;
constexpr int64_t kEndTask = TAVI_END_TASK;
constexpr int64_t kFsGrow = TAVI_FS_GROW;
constexpr int64_t kNotify = TAVI_NOTIFY;

constexpr uint64_t kRestartCommand = TAVI_RESTART;
// The most words a program start may pass; more is refused with E2BIG.
constexpr uint64_t kSpawnWordLimit = 64;
// The longest notification text kept.
constexpr uint64_t kNotifyTextLimit = 4096;

// Calls the device program has no business making on a development machine; they fail
// with EPERM without a stop.
constexpr int kDenied[] = {101 /* ptrace */,       155 /* pivot_root */,   161 /* chroot */,
                           167 /* swapon */,       168 /* swapoff */,      175 /* init_module */,
                           176 /* delete_module */, 246 /* kexec_load */,  272 /* unshare */,
                           308 /* setns */,        313 /* finit_module */, 320 /* kexec_file_load */,
                           428 /* open_tree */,    429 /* move_mount */,   430 /* fsopen */,
                           431 /* fsconfig */,     432 /* fsmount */,      433 /* fspick */};

// The calls this kernel answers or looks at; open and mkdir are stopped only when they
// create something with mode 0.
const int64_t kTraced[] = {kNanosleep, kWait4, kRename, kSync, kMount, kUmount2, kReboot,
                           kSpawn, kSystemInfo, kTaskInfo, kEndTask, kFsGrow, kNotify};

std::vector<sock_filter> build_filter(const std::set<int64_t>& traced, bool trace_all) {
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
  if (trace_all) {
    stmt(BPF_RET | BPF_K, SECCOMP_RET_TRACE);
    return f;
  }
  for (int64_t nr : traced) {
    jump(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(nr), 0, 1);
    stmt(BPF_RET | BPF_K, SECCOMP_RET_TRACE);
  }
  if (!traced.count(kOpen)) {
    // open(path, flags, mode): stop only for O_CREAT with mode 0.
    jump(BPF_JMP | BPF_JEQ | BPF_K, kOpen, 0, 6);
    stmt(BPF_LD | BPF_W | BPF_ABS, kArgLow0 + 8);
    jump(BPF_JMP | BPF_JSET | BPF_K, O_CREAT, 0, 3);
    stmt(BPF_LD | BPF_W | BPF_ABS, kArgLow0 + 16);
    jump(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 1);
    stmt(BPF_RET | BPF_K, SECCOMP_RET_TRACE);
    stmt(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  }
  if (!traced.count(kMkdir)) {
    // mkdir(path, mode): stop only for mode 0.
    jump(BPF_JMP | BPF_JEQ | BPF_K, kMkdir, 0, 4);
    stmt(BPF_LD | BPF_W | BPF_ABS, kArgLow0 + 8);
    jump(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 1);
    stmt(BPF_RET | BPF_K, SECCOMP_RET_TRACE);
    stmt(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  }
  stmt(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  return f;
}

// The process's scheduler state letter from /proc/PID/stat ('R', 'S', 't', ...).
char proc_state(pid_t pid) {
  auto text = read_host_file("/proc/" + std::to_string(pid) + "/stat");
  if (!text) return '?';
  size_t p = text->rfind(')');
  if (p == std::string::npos || p + 2 >= text->size()) return '?';
  return (*text)[p + 2];
}

pid_t proc_parent(pid_t pid) {
  auto text = read_host_file("/proc/" + std::to_string(pid) + "/status");
  if (!text) return 0;
  size_t p = text->find("\nPPid:");
  if (p == std::string::npos) return 0;
  return static_cast<pid_t>(atoi(text->c_str() + p + 6));
}

std::string num(int64_t v) { return std::to_string(v); }

void clear_dir(const std::string& dir) {
  TreeListing t = list_tree(dir);
  for (auto& f : t.files) unlink(join_path(dir, f).c_str());
  for (auto& o : t.others) unlink(join_path(dir, o).c_str());
  std::vector<std::string> dirs = t.dirs;
  std::reverse(dirs.begin(), dirs.end());
  for (auto& d : dirs) remove_host_tree(join_path(dir, d));
}

// Makes dst hold what src holds (below the skipped top-level names): files compared by
// size, time and mode, copied with their time, so an unchanged file is not copied again.
void mirror(const std::string& src, const std::string& dst, const std::vector<std::string>& skip) {
  make_host_dirs(dst);
  TreeListing s = list_tree(src, skip);
  TreeListing d = list_tree(dst, skip);
  std::set<std::string> sdirs(s.dirs.begin(), s.dirs.end());
  std::set<std::string> sfiles(s.files.begin(), s.files.end());
  std::set<std::string> sothers(s.others.begin(), s.others.end());
  for (auto& f : d.files)
    if (!sfiles.count(f)) unlink(join_path(dst, f).c_str());
  for (auto& o : d.others)
    if (!sothers.count(o)) unlink(join_path(dst, o).c_str());
  for (auto it = d.dirs.rbegin(); it != d.dirs.rend(); ++it)
    if (!sdirs.count(*it)) remove_host_tree(join_path(dst, *it));
  for (auto& dir : s.dirs) {
    struct stat st;
    std::string to = join_path(dst, dir);
    if (lstat(to.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) unlink(to.c_str());
    mkdir(to.c_str(), 0755);
    if (stat(join_path(src, dir).c_str(), &st) == 0) chmod(to.c_str(), st.st_mode & 07777);
  }
  for (auto& f : s.files) {
    struct stat a, b;
    std::string from = join_path(src, f), to = join_path(dst, f);
    if (lstat(from.c_str(), &a) != 0) continue;
    if (lstat(to.c_str(), &b) == 0 && S_ISREG(b.st_mode) && a.st_size == b.st_size &&
        a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
        (a.st_mode & 07777) == (b.st_mode & 07777))
      continue;
    if (lstat(to.c_str(), &b) == 0 && S_ISDIR(b.st_mode)) remove_host_tree(to);
    auto data = read_host_file(from);
    if (!data) continue;
    unlink(to.c_str());
    write_host_file(to, *data, a.st_mode & 07777);
    timespec times[2] = {a.st_atim, a.st_mtim};
    utimensat(AT_FDCWD, to.c_str(), times, 0);
  }
  for (auto& o : s.others) {
    char target[4096];
    ssize_t n = readlink(join_path(src, o).c_str(), target, sizeof target - 1);
    if (n < 0) continue;
    target[n] = 0;
    std::string to = join_path(dst, o);
    unlink(to.c_str());
    if (symlink(target, to.c_str()) != 0) continue;
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------
// kernel.state

KernelState parse_kernel_state(const std::string& text, const std::string& origin) {
  KernelState s;
  std::istringstream in(text);
  std::string line;
  int no = 0;
  while (std::getline(in, line)) {
    no++;
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> f;
    size_t i = 0;
    for (;;) {
      size_t t = line.find('\t', i);
      f.push_back(unescape_field(line.substr(i, t == std::string::npos ? std::string::npos : t - i)));
      if (t == std::string::npos) break;
      i = t + 1;
    }
    auto bad = [&]() { return SimError(origin + ":" + std::to_string(no) + ": cannot read: " + line); };
    auto number = [&](size_t k) {
      int64_t v;
      if (k >= f.size() || !parse_i64(f[k], v)) throw bad();
      return v;
    };
    if (f[0] == "clock-ns") s.clock_ns = number(1);
    else if (f[0] == "boot-ns") s.boot_ns = number(1);
    else if (f[0] == "grow-steps-done") s.grow_steps_done = number(1);
    else if (f[0] == "grow-finished") s.grow_finished = number(1) != 0;
    else if (f[0] == "killed") s.killed_slots.insert(static_cast<int>(number(1)));
    else if (f[0] == "counter" && f.size() == 3) s.counters[f[1]] = number(2);
    else if (f[0] == "mount" && f.size() >= 3) s.mounts[f[1]] = f[2];
    else if (f[0] == "next-spawn-id") s.next_spawn_id = std::max<int64_t>(number(1), kSpawnIdBase);
    else if (f[0] == "healthy") s.healthy = number(1) != 0;
    else throw bad();
  }
  return s;
}

std::string format_kernel_state(const KernelState& s) {
  std::ostringstream o;
  o << "# tavi-sim kernel state: what the simulated kernel keeps between commands\n";
  o << "clock-ns\t" << s.clock_ns << "\n";
  o << "boot-ns\t" << s.boot_ns << "\n";
  o << "grow-steps-done\t" << s.grow_steps_done << "\n";
  o << "grow-finished\t" << (s.grow_finished ? 1 : 0) << "\n";
  for (int k : s.killed_slots) o << "killed\t" << k << "\n";
  for (auto& [key, v] : s.counters) o << "counter\t" << escape_field(key) << "\t" << v << "\n";
  for (auto& [target, dev] : s.mounts) o << "mount\t" << escape_field(target) << "\t" << escape_field(dev) << "\n";
  o << "next-spawn-id\t" << s.next_spawn_id << "\n";
  o << "healthy\t" << (s.healthy ? 1 : 0) << "\n";
  return o.str();
}

// ---------------------------------------------------------------------------------------
// Life of the kernel

namespace {

std::string absolute(const std::string& path) {
  char buf[PATH_MAX];
  return realpath(path.c_str(), buf) ? std::string(buf) : path;
}

}  // namespace

Kernel::Kernel(const std::string& dir) : dir_(absolute(dir)), root_(dir_ + "/root") {
  if (!host_is_dir(root_)) throw SimError(dir + " is not a device directory: " + root_ + " is missing");
  fs_ = std::make_unique<RootFs>(root_);
  if (auto conf = read_host_file(dir + "/sim.conf")) cfg_ = parse_config(*conf, dir + "/sim.conf");
  if (auto state = read_host_file(dir + "/kernel.state")) {
    st_ = parse_kernel_state(*state, dir + "/kernel.state");
    saved_state_ = *state;
  }
  events_fd_ = ::open((dir + "/events.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (events_fd_ < 0) throw SimError("cannot open " + dir + "/events.log: " + strerror(errno));
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGCHLD);
  sigfd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (sigfd_ < 0) throw SimError(std::string("signalfd failed: ") + strerror(errno));
  // Background children outlive their parent; as their subreaper this process collects
  // them instead of the host's init.
  prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
  for (auto& [target, device] : st_.mounts) {
    // A mount point that is gone cannot stand for the image: the mount is forgotten
    // rather than the image emptied.
    if (!host_is_dir(root_ + target)) continue;
    Mount& m = mounts_[target];
    m.device = device;
    m.fat.resume(dir_ + "/disks/" + device + ".img", root_ + target);
  }
}

Kernel::~Kernel() {
  try {
    if (!tracees_.empty()) stop_machine(Stop::power);
    write_back_mounts("end of session");
    save_state();
  } catch (...) {
  }
  for (auto& [id, c] : commands_) {
    if (c.out_fd >= 0) close(c.out_fd);
    if (c.err_fd >= 0) close(c.err_fd);
  }
  if (sigfd_ >= 0) close(sigfd_);
  if (events_fd_ >= 0) close(events_fd_);
}

void Kernel::set_config(const Config& c) { cfg_ = c; }

void Kernel::save_state() {
  st_.mounts.clear();
  for (auto& [target, m] : mounts_) st_.mounts[target] = m.device;
  std::string text = format_kernel_state(st_);
  if (text == saved_state_) return;
  std::string tmp = dir_ + "/kernel.state.nw";
  write_host_file(tmp, text);
  rename(tmp.c_str(), (dir_ + "/kernel.state").c_str());
  saved_state_ = text;
}

void Kernel::reset_counters() { st_.counters.clear(); }

void Kernel::log(const std::string& kind, int64_t pid, std::vector<std::string> fields) {
  log_at(st_.clock_ns, kind, pid, std::move(fields));
}

void Kernel::log_at(int64_t ns, const std::string& kind, int64_t pid, std::vector<std::string> fields) {
  Event e;
  e.ms = ns / 1000000;
  e.kind = kind;
  e.pid = pid;
  e.fields = std::move(fields);
  std::string line = format_event(e) + "\n";
  if (write(events_fd_, line.data(), line.size()) < 0) {
    // The log is best effort; the in-memory copy still holds the event.
  }
  events_.push_back(std::move(e));
}

// ---------------------------------------------------------------------------------------
// Starting a command

CommandId Kernel::start(const std::vector<std::string>& argv, const RunOptions& options) {
  Command c;
  c.id = next_command_++;
  c.first_event = events_.size();
  c.cut = options.cut ? options.cut : cfg_.cut;
  c.trace_calls = options.trace_calls;
  c.argv = argv;
  if (options.wall_seconds > 0) {
    c.has_wall = true;
    c.wall_deadline = Clock::now() + std::chrono::microseconds(static_cast<int64_t>(options.wall_seconds * 1e6));
  }
  if (options.virtual_seconds > 0)
    c.virtual_deadline = st_.clock_ns + static_cast<int64_t>(options.virtual_seconds * 1e9);

  struct stat st;
  if (stat((root_ + "/bin/ota").c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    c.done = true;
    c.result.error = "no device program: " + root_ + "/bin/ota is missing";
    int id = c.id;
    commands_[id] = std::move(c);
    return id;
  }

  std::set<int64_t> traced(std::begin(kTraced), std::end(kTraced));
  for (auto& f : cfg_.call_faults) traced.insert(f.number);
  std::vector<sock_filter> filter = build_filter(traced, c.cut.has_value() || c.trace_calls);
  sock_fprog prog{static_cast<unsigned short>(filter.size()), filter.data()};

  int out[2] = {-1, -1}, err[2] = {-1, -1};
  if (options.capture) {
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) throw SimError("pipe failed");
    fcntl(out[0], F_SETFL, O_NONBLOCK);
    fcntl(err[0], F_SETFL, O_NONBLOCK);
  }
  std::vector<char*> av;
  for (auto& w : c.argv) av.push_back(const_cast<char*>(w.c_str()));
  av.push_back(nullptr);
  char* envp[] = {nullptr};
  const char* root = root_.c_str();
  if (c.cut && c.cut->durability == Durability::synced) {
    take_snapshot();
    snapshot_active_ = true;
  }

  pid_t pid = fork();
  if (pid < 0) throw SimError(std::string("fork failed: ") + strerror(errno));
  if (pid == 0) {
    // The child becomes the device program: its own view of the world is the device root.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    signal(SIGCHLD, SIG_DFL);
    if (out[1] >= 0) {
      dup2(out[1], 1);
      dup2(err[1], 2);
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
  if (out[1] >= 0) {
    close(out[1]);
    close(err[1]);
  }
  c.out_fd = out[0];
  c.err_fd = err[0];
  c.main = pid;
  c.result.pid = pid;
  int status = 0;
  while (waitpid(pid, &status, __WALL) < 0 && errno == EINTR) {
  }
  if (!WIFSTOPPED(status)) {
    c.done = true;
    c.result.error = "the device program could not be prepared (chroot or ptrace refused)";
    if (c.out_fd >= 0) close(c.out_fd);
    if (c.err_fd >= 0) close(c.err_fd);
    c.out_fd = c.err_fd = -1;
    int id = c.id;
    commands_[id] = std::move(c);
    return id;
  }
  long opts = PTRACE_O_TRACESECCOMP | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE |
              PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXIT;
  ptrace(PTRACE_SETOPTIONS, pid, nullptr, reinterpret_cast<void*>(opts));
  Tracee& t = tracees_[pid];
  t.pid = pid;
  t.command = c.id;
  t.main = true;
  t.started = true;
  int id = c.id;
  commands_[id] = std::move(c);
  ptrace(PTRACE_CONT, pid, nullptr, nullptr);
  return id;
}

bool Kernel::finished(CommandId id) const {
  auto it = commands_.find(id);
  return it == commands_.end() || it->second.done;
}

RunResult Kernel::wait(CommandId id, double wall_seconds) {
  auto it = commands_.find(id);
  if (it == commands_.end()) throw SimError("no such command: " + std::to_string(id));
  Command& c = it->second;
  if (!c.done) {
    std::optional<Clock::time_point> wall;
    if (wall_seconds > 0) wall = Clock::now() + std::chrono::microseconds(static_cast<int64_t>(wall_seconds * 1e6));
    else if (c.has_wall) wall = c.wall_deadline;
    Served s = serve([&c] { return c.done; }, wall, c.virtual_deadline);
    if (!c.done && s == Served::wall) {
      log("limit", 0, {"wall"});
      stop_machine(Stop::limit_wall);
    }
    if (!c.done) {
      c.done = true;
      c.result.error = "the command's processes vanished without an exit";
    }
  }
  drain_pipes();
  c.result.events.assign(events_.begin() + static_cast<long>(std::min(c.first_event, events_.size())),
                         events_.end());
  save_state();
  return c.result;
}

bool Kernel::serve_until(const std::function<bool()>& done, double wall_seconds, double virtual_seconds) {
  std::optional<Clock::time_point> wall;
  if (wall_seconds > 0) wall = Clock::now() + std::chrono::microseconds(static_cast<int64_t>(wall_seconds * 1e6));
  int64_t vdeadline = virtual_seconds > 0 ? st_.clock_ns + static_cast<int64_t>(virtual_seconds * 1e9) : INT64_MAX;
  Served s = serve(done, wall, vdeadline, true);
  save_state();
  return s == Served::done;
}

bool Kernel::wait_background(double wall_seconds, double virtual_seconds) {
  std::optional<Clock::time_point> wall;
  if (wall_seconds > 0) wall = Clock::now() + std::chrono::microseconds(static_cast<int64_t>(wall_seconds * 1e6));
  int64_t vdeadline = virtual_seconds > 0 ? st_.clock_ns + static_cast<int64_t>(virtual_seconds * 1e9) : INT64_MAX;
  Served s = serve([] { return false; }, wall, vdeadline);
  if (s == Served::wall) {
    log("limit", 0, {"wall"});
    stop_machine(Stop::limit_wall);
  }
  save_state();
  return s == Served::idle && tracees_.empty();
}

bool Kernel::held(const std::string& name) const {
  for (auto& [pid, t] : tracees_)
    if (t.wait == Wait::hold && t.hold_name == name) return true;
  return false;
}

void Kernel::release(const std::string& name) {
  std::vector<pid_t> pids;
  for (auto& [pid, t] : tracees_)
    if (t.wait == Wait::hold && t.hold_name == name) pids.push_back(pid);
  for (pid_t pid : pids) {
    Tracee* t = tracee(pid);
    if (!t) continue;
    log("release", pid, {name});
    t->wait = Wait::none;
    int64_t id = start_program(*t, t->hold_words.empty() ? "/bin/fetch" : t->hold_words[0], t->hold_words);
    t = tracee(pid);
    if (t) finish_with(*t, t->regs, id);
  }
}

std::vector<int64_t> Kernel::live_pids() const {
  std::vector<int64_t> p;
  for (auto& [pid, t] : tracees_) p.push_back(pid);
  return p;
}

void Kernel::power_off() {
  if (!tracees_.empty()) stop_machine(Stop::power);
  unmount_all(true);
  st_.boot_ns = st_.clock_ns;
  st_.killed_slots.clear();
  save_state();
}

void Kernel::advance_clock(int64_t ns) {
  if (ns <= 0) return;
  note_clock_change(st_.clock_ns, st_.clock_ns + ns);
  st_.clock_ns += ns;
  save_state();
}

Kernel::Tracee* Kernel::tracee(pid_t pid) {
  auto it = tracees_.find(pid);
  return it == tracees_.end() ? nullptr : &it->second;
}

// ---------------------------------------------------------------------------------------
// Serving

Kernel::Served Kernel::serve(const std::function<bool()>& done, std::optional<Clock::time_point> wall,
                             int64_t virtual_deadline, bool keep_running) {
  sigset_t set, old;
  sigemptyset(&set);
  sigaddset(&set, SIGCHLD);
  pthread_sigmask(SIG_BLOCK, &set, &old);
  serve_wall_ = wall;
  Served result = Served::idle;
  for (;;) {
    pump();
    if (done()) {
      result = Served::done;
      break;
    }
    if (tracees_.empty()) {
      result = Served::idle;
      break;
    }
    bool hit = false, busy = false;
    if (advance_sleepers(virtual_deadline, &hit, &busy)) continue;
    if (hit) {
      if (keep_running) {
        result = Served::stopped;
        break;
      }
      log("limit", 0, {"virtual"});
      stop_machine(Stop::limit_virtual);
      result = done() ? Served::done : Served::stopped;
      break;
    }
    Clock::time_point now = Clock::now();
    if (wall && now >= *wall) {
      result = Served::wall;
      break;
    }
    int timeout = -1;
    if (wall) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*wall - now).count() + 1;
      timeout = static_cast<int>(std::min<int64_t>(left, INT_MAX));
    }
    // A predicate may turn true without a kernel event (a file written by a running
    // process), and a sleeper waits for busy processes: both are looked at again soon.
    int tick = busy ? 1 : 5;
    timeout = timeout < 0 ? tick : std::min(timeout, tick);
    std::vector<pollfd> fds;
    fds.push_back({sigfd_, POLLIN, 0});
    for (auto& [id, c] : commands_) {
      if (c.out_fd >= 0) fds.push_back({c.out_fd, POLLIN, 0});
      if (c.err_fd >= 0) fds.push_back({c.err_fd, POLLIN, 0});
    }
    poll(fds.data(), fds.size(), timeout);
    signalfd_siginfo info;
    while (read(sigfd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    }
  }
  serve_wall_.reset();
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  return result;
}

void Kernel::pump() {
  for (;;) {
    int status = 0;
    pid_t pid = waitpid(-1, &status, WNOHANG | __WALL);
    if (pid < 0 && errno == EINTR) continue;
    if (pid <= 0) break;
    handle_status(pid, status);
  }
  drain_pipes();
}

void Kernel::drain_pipes() {
  for (auto& [id, c] : commands_) {
    for (int* fd : {&c.out_fd, &c.err_fd}) {
      if (*fd < 0) continue;
      std::string& sink = fd == &c.out_fd ? c.result.out : c.result.err;
      char buf[65536];
      for (;;) {
        ssize_t n = read(*fd, buf, sizeof buf);
        if (n > 0) {
          sink.append(buf, static_cast<size_t>(n));
          continue;
        }
        if (n == 0) {
          close(*fd);
          *fd = -1;
        }
        break;
      }
    }
  }
}

bool Kernel::advance_sleepers(int64_t virtual_deadline, bool* hit, bool* busy) {
  int64_t earliest = INT64_MAX;
  for (auto& [pid, t] : tracees_)
    if (t.wait == Wait::sleep) earliest = std::min(earliest, t.wake_ns);
  if (earliest == INT64_MAX) return false;
  // Time moves only when no process can still do something before its next call: all
  // stand in a sleep or a held fetch, or wait inside Linux (state S).
  for (auto& [pid, t] : tracees_) {
    if (t.wait != Wait::none) continue;
    char s = proc_state(pid);
    if (s != 'S') {
      *busy = true;
      return false;
    }
  }
  earliest = std::max(earliest, st_.clock_ns);
  if (earliest > virtual_deadline) {
    if (virtual_deadline > st_.clock_ns) {
      note_clock_change(st_.clock_ns, virtual_deadline);
      st_.clock_ns = virtual_deadline;
    }
    *hit = true;
    return false;
  }
  note_clock_change(st_.clock_ns, earliest);
  st_.clock_ns = earliest;
  std::vector<pid_t> wake;
  for (auto& [pid, t] : tracees_)
    if (t.wait == Wait::sleep && t.wake_ns <= st_.clock_ns) wake.push_back(pid);
  for (pid_t pid : wake) {
    Tracee* t = tracee(pid);
    if (!t) continue;
    t->wait = Wait::none;
    finish_with(*t, t->regs, 0);
  }
  return true;
}

namespace {

int64_t proc_peak_rss_kib(pid_t pid) {
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

void Kernel::handle_status(pid_t pid, int status) {
  Tracee* t = tracee(pid);
  if (WIFEXITED(status) || WIFSIGNALED(status)) {
    if (t) on_exit(*t, status);
    return;
  }
  if (!WIFSTOPPED(status)) return;
  if (stopping_ != Stop::none) {
    // SIGKILL is on its way. A process it reached stops once more at its exit event and
    // must be let go from there, or it never ends.
    ptrace(PTRACE_CONT, pid, nullptr, nullptr);
    return;
  }
  if (!t) {
    // A new child whose first stop came before its parent's fork event.
    Tracee& n = tracees_[pid];
    n.pid = pid;
    if (Tracee* parent = tracee(proc_parent(pid))) {
      n.command = parent->command;
      n.exec_seen = parent->exec_seen;
    }
    n.slot = take_slot(pid);
    t = &n;
  }
  int sig = WSTOPSIG(status);
  int event = status >> 16;
  if (sig == SIGTRAP && event != 0) {
    switch (event) {
      case PTRACE_EVENT_SECCOMP: on_syscall(*t); return;
      case PTRACE_EVENT_FORK:
      case PTRACE_EVENT_VFORK:
      case PTRACE_EVENT_CLONE: on_fork(*t); return;
      case PTRACE_EVENT_EXEC: on_exec(*t); return;
      case PTRACE_EVENT_EXIT:
        // The kernel's accounting of the program's own memory (since its exec), read while
        // the process still exists: its peak resident set.
        t->peak_rss_kib = proc_peak_rss_kib(pid);
        resume(*t);
        return;
      default: resume(*t); return;
    }
  }
  if (sig == (SIGTRAP | 0x80)) {
    on_syscall_exit(*t);
    return;
  }
  if (sig == SIGSTOP && !t->started) {
    t->started = true;
    resume(*t);
    return;
  }
  if (sig == SIGSTOP) {
    resume(*t);
    return;
  }
  resume(*t, sig);
}

void Kernel::on_exit(Tracee& t, int status) {
  pid_t pid = t.pid;
  bool exited = WIFEXITED(status);
  int64_t max_rss_kib = t.peak_rss_kib;
  log("exit", pid,
      {exited ? "status=" + num(WEXITSTATUS(status)) : "signal=" + num(WTERMSIG(status)), "maxrss=" + num(max_rss_kib)});
  if (t.slot >= 0 && slot_owner_[t.slot] == pid) slot_owner_[t.slot] = 0;
  int cmd = t.command;
  if (t.main) {
    Command& c = commands_[cmd];
    if (!t.exec_seen) {
      c.result.error = exited && WEXITSTATUS(status) == 127
                           ? "cannot execute /bin/ota in the device root"
                           : "the device program could not be prepared (chroot, ptrace or seccomp refused)";
    } else if (exited) {
      c.result.max_rss_kib = max_rss_kib;
      c.result.exited = true;
      c.result.status = WEXITSTATUS(status);
    } else {
      c.result.signal = WTERMSIG(status);
    }
    switch (stopping_) {
      case Stop::reboot: c.result.rebooted = true; break;
      case Stop::cut: c.result.cut = true; break;
      case Stop::limit_wall: c.result.limit = Limit::wall; break;
      case Stop::limit_virtual: c.result.limit = Limit::virtual_time; break;
      default: break;
    }
    c.done = true;
  }
  tracees_.erase(pid);
  bool left = false;
  for (auto& [p, o] : tracees_) left = left || o.command == cmd;
  auto it = commands_.find(cmd);
  if (!left && it != commands_.end() && it->second.done) {
    drain_pipes();
    for (int* fd : {&it->second.out_fd, &it->second.err_fd}) {
      if (*fd >= 0) close(*fd);
      *fd = -1;
    }
  }
}

void Kernel::on_fork(Tracee& parent) {
  unsigned long msg = 0;
  ptrace(PTRACE_GETEVENTMSG, parent.pid, nullptr, &msg);
  pid_t child = static_cast<pid_t>(msg);
  pid_t ppid = parent.pid;
  int command = parent.command;
  bool exec_seen = parent.exec_seen;
  Tracee& c = tracees_[child];
  c.pid = child;
  c.command = command;
  c.exec_seen = exec_seen;
  if (c.slot < 0) c.slot = take_slot(child);
  log("fork", ppid, {"child=" + num(child)});
  if (Tracee* p = tracee(ppid)) resume(*p);
}

void Kernel::on_exec(Tracee& t) {
  if (!t.exec_seen) {
    t.exec_seen = true;
    if (t.slot < 0) t.slot = take_slot(t.pid);
    if (t.main) {
      auto it = commands_.find(t.command);
      log("start", t.pid, it == commands_.end() ? std::vector<std::string>{} : it->second.argv);
    }
  }
  resume(t);
}

void Kernel::resume(Tracee& t, int signal) {
  ptrace(PTRACE_CONT, t.pid, nullptr, reinterpret_cast<void*>(static_cast<long>(signal)));
}

void Kernel::finish_with(Tracee& t, user_regs_struct& regs, int64_t result) {
  regs.orig_rax = static_cast<unsigned long long>(-1);
  regs.rax = static_cast<unsigned long long>(result);
  ptrace(PTRACE_SETREGS, t.pid, nullptr, &regs);
  resume(t);
}

// Register numbers for restore_reg.
constexpr int kRegRsi = 1;
constexpr int kRegRdx = 2;

void Kernel::allow_rewritten(Tracee& t, user_regs_struct& regs, int reg, unsigned long long original) {
  ptrace(PTRACE_SETREGS, t.pid, nullptr, &regs);
  t.restore_reg = reg;
  t.restore_value = original;
  // Stop once more when the call returns, to put the register back.
  ptrace(PTRACE_SYSCALL, t.pid, nullptr, nullptr);
}

void Kernel::on_syscall_exit(Tracee& t) {
  if (t.restore_reg >= 0) {
    user_regs_struct r;
    if (ptrace(PTRACE_GETREGS, t.pid, nullptr, &r) == 0) {
      if (t.restore_reg == kRegRsi) r.rsi = t.restore_value;
      else r.rdx = t.restore_value;
      ptrace(PTRACE_SETREGS, t.pid, nullptr, &r);
    }
    t.restore_reg = -1;
  }
  resume(t);
}

void Kernel::stop_machine(Stop why, Durability durability) {
  stopping_ = why;
  for (auto& [pid, t] : tracees_) kill(pid, SIGKILL);
  reap_all();
  spawned_.clear();
  switch (why) {
    case Stop::reboot:
      unmount_all(true);
      st_.boot_ns = st_.clock_ns;
      st_.killed_slots.clear();
      break;
    case Stop::cut:
      if (durability == Durability::synced) restore_snapshot();
      unmount_all(durability == Durability::all);
      st_.boot_ns = st_.clock_ns;
      st_.killed_slots.clear();
      break;
    default: break;
  }
  snapshot_active_ = false;
  stopping_ = Stop::none;
  save_state();
}

void Kernel::reap_all() {
  while (!tracees_.empty()) {
    int status = 0;
    pid_t pid = waitpid(-1, &status, __WALL);
    if (pid < 0) {
      if (errno == EINTR) continue;
      // Nothing left to wait for: the remaining records are stale.
      std::vector<pid_t> stale;
      for (auto& [p, t] : tracees_) stale.push_back(p);
      for (pid_t p : stale)
        if (Tracee* t = tracee(p)) on_exit(*t, SIGKILL);
      break;
    }
    handle_status(pid, status);
  }
}

// The task is gone when end_task returns: wait for the killed process here.
void Kernel::reap_one(pid_t pid) {
  while (Tracee* t = tracee(pid)) {
    int status = 0;
    pid_t r = waitpid(pid, &status, __WALL);
    if (r < 0) {
      if (errno == EINTR) continue;
      on_exit(*t, SIGKILL);
      break;
    }
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      on_exit(*t, status);
    } else if (WIFSTOPPED(status)) {
      // A stop reported on the way (the exit event among them) is let go: SIGKILL then
      // ends the process.
      ptrace(PTRACE_CONT, pid, nullptr, nullptr);
    }
  }
}

// ---------------------------------------------------------------------------------------
// Memory of the traced process

bool Kernel::read_mem(pid_t pid, uint64_t addr, void* out, size_t n) {
  if (n == 0) return true;
  iovec local{out, n};
  iovec remote{reinterpret_cast<void*>(addr), n};
  return process_vm_readv(pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(n);
}

bool Kernel::write_mem(pid_t pid, uint64_t addr, const void* data, size_t n) {
  iovec local{const_cast<void*>(data), n};
  iovec remote{reinterpret_cast<void*>(addr), n};
  if (process_vm_writev(pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(n)) return true;
  int fd = ::open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = pwrite(fd, data, n, static_cast<off_t>(addr)) == static_cast<ssize_t>(n);
  close(fd);
  return ok;
}

std::optional<std::string> Kernel::read_string(pid_t pid, uint64_t addr, size_t max) {
  if (addr == 0) return std::nullopt;
  std::string s;
  while (s.size() < max) {
    // Never read across a page boundary at once: the next page may not exist.
    size_t chunk = 4096 - (addr % 4096);
    char buf[4096];
    if (!read_mem(pid, addr, buf, chunk)) return std::nullopt;
    for (size_t i = 0; i < chunk; i++) {
      if (buf[i] == 0) return s;
      s += buf[i];
      if (s.size() >= max) return s;
    }
    addr += chunk;
  }
  return s;
}

std::string Kernel::device_path_of(Tracee& t, const std::string& path) {
  if (!path.empty() && path[0] == '/') return RootFs::normalize(path);
  char buf[4096];
  ssize_t n = readlink(("/proc/" + std::to_string(t.pid) + "/cwd").c_str(), buf, sizeof buf - 1);
  std::string cwd = "/";
  if (n > 0) {
    buf[n] = 0;
    std::string host = buf;
    char real_root[PATH_MAX];
    std::string root = realpath(root_.c_str(), real_root) ? std::string(real_root) : root_;
    if (host.compare(0, root.size(), root) == 0) cwd = host.substr(root.size());
    if (cwd.empty()) cwd = "/";
  }
  return RootFs::normalize(cwd + "/" + path);
}

// ---------------------------------------------------------------------------------------
// The calls

void Kernel::on_syscall(Tracee& t) {
  user_regs_struct r;
  if (ptrace(PTRACE_GETREGS, t.pid, nullptr, &r) != 0) return;
  int64_t nr = static_cast<int64_t>(r.orig_rax);
  if (!t.exec_seen) {
    resume(t);  // execve itself, before the program runs
    return;
  }
  t.calls++;
  auto cit = commands_.find(t.command);
  if (cit != commands_.end() && cit->second.trace_calls)
    (t.main ? cit->second.result.calls : cit->second.result.forked_calls).push_back(nr);
  if (cit != commands_.end() && cit->second.cut) {
    const Cut& cut = *cit->second.cut;
    bool counts = cut.forked_only ? !t.main : t.main || cut.any_process;
    if (counts && t.calls == cut.at_call) {
      log("cut", t.pid,
          {"call=" + num(static_cast<int64_t>(t.calls)), "nr=" + num(nr),
           cut.durability == Durability::all ? "all" : "synced"});
      stop_machine(Stop::cut, cut.durability);
      return;
    }
  }
  if (auto e = injected_fault(t, r)) {
    finish_with(t, r, *e);
    return;
  }
  switch (nr) {
    case kOpen:
      if ((r.rsi & O_CREAT) && (r.rdx & 07777) == 0) {
        unsigned long long original = r.rdx;
        r.rdx = 0644;
        allow_rewritten(t, r, kRegRdx, original);
      } else {
        resume(t);
      }
      return;
    case kMkdir:
      if ((r.rsi & 07777) == 0) {
        unsigned long long original = r.rsi;
        r.rsi = 0755;
        allow_rewritten(t, r, kRegRsi, original);
      } else {
        resume(t);
      }
      return;
    case kNanosleep: sys_nanosleep(t, r); return;
    case kWait4: sys_wait4(t, r); return;
    case kRename: {
      int64_t res = sys_rename(t, r);
      if (res == 0) resume(t);
      else finish_with(t, r, res);
      return;
    }
    case kSync:
      sys_sync();
      finish_with(t, r, 0);
      return;
    case kMount: finish_with(t, r, sys_mount(t, r)); return;
    case kUmount2: finish_with(t, r, sys_umount(t, r)); return;
    case kReboot:
      if (r.rdi != kRestartCommand || r.rsi != 0 || r.rdx != 0) {
        log("reboot", t.pid, {"arg=" + num(static_cast<int64_t>(r.rdi)), "result=" + num(-EINVAL)});
        finish_with(t, r, -EINVAL);
        return;
      }
      log("reboot", t.pid, {"restart"});
      stop_machine(Stop::reboot);
      return;
    case kSpawn: sys_spawn(t, r); return;
    case kSystemInfo: finish_with(t, r, sys_system_info(r.rdi)); return;
    case kTaskInfo: finish_with(t, r, sys_task_info(r.rdi, r.rsi)); return;
    case kEndTask: {
      pid_t pid = t.pid;
      int64_t res = sys_end_task(t, r.rdi, r.rsi);
      if (Tracee* self = tracee(pid)) finish_with(*self, r, res);
      return;
    }
    case kFsGrow: finish_with(t, r, sys_fs_grow(t.pid, r.rdi, r.rsi)); return;
    case kNotify: finish_with(t, r, sys_notify(t, r)); return;
    default: resume(t); return;
  }
}

std::optional<int64_t> Kernel::injected_fault(Tracee& t, const user_regs_struct& r) {
  int64_t nr = static_cast<int64_t>(r.orig_rax);
  for (size_t i = 0; i < cfg_.call_faults.size(); i++) {
    const CallFault& f = cfg_.call_faults[i];
    if (f.number != nr) continue;
    if (!f.path.empty()) {
      auto p = read_string(t.pid, r.rdi);
      if (!p || *p != f.path) continue;
    }
    std::string key = "call-fault " + num(f.number) + " " + num(f.error) + " " + num(f.nth) +
                      (f.every ? " every" : "") + (f.path.empty() ? "" : " path=" + f.path) + " #" + num(i);
    int64_t n = ++st_.counters[key];
    if (n == f.nth || (f.every && n > f.nth)) {
      std::vector<std::string> fields = {"call=" + num(nr), "error=" + num(f.error), "count=" + num(n)};
      if (!f.path.empty()) fields.push_back("path=" + f.path);
      log("fault", t.pid, fields);
      return f.error;
    }
  }
  return std::nullopt;
}

void Kernel::sys_nanosleep(Tracee& t, user_regs_struct& r) {
  int64_t req[2];
  if (!read_mem(t.pid, r.rdi, req, sizeof req)) {
    finish_with(t, r, -EFAULT);
    return;
  }
  if (req[0] < 0 || req[1] < 0 || req[1] >= 1000000000) {
    finish_with(t, r, -EINVAL);
    return;
  }
  // A year is far beyond any limit; longer requests are cut there.
  int64_t sec = std::min<int64_t>(req[0], 366LL * 86400);
  int64_t d = sec * 1000000000 + req[1];
  if (d == 0) {
    finish_with(t, r, 0);
    return;
  }
  t.wait = Wait::sleep;
  t.wake_ns = st_.clock_ns + d;
  t.regs = r;
}

void Kernel::sys_wait4(Tracee& t, user_regs_struct& r) {
  int64_t pid = static_cast<int32_t>(static_cast<uint32_t>(r.rdi));
  if (pid < kSpawnIdBase) {
    resume(t);
    return;
  }
  auto it = spawned_.find(pid);
  if (it == spawned_.end()) {
    finish_with(t, r, -ECHILD);
    return;
  }
  int32_t status = it->second;
  if (r.rsi != 0 && !write_mem(t.pid, r.rsi, &status, sizeof status)) {
    finish_with(t, r, -EFAULT);
    return;
  }
  spawned_.erase(it);
  finish_with(t, r, pid);
}

void Kernel::sys_spawn(Tracee& t, user_regs_struct& r) {
  auto path = read_string(t.pid, r.rdi);
  if (!path) {
    finish_with(t, r, -EFAULT);
    return;
  }
  uint64_t count = r.rdx;
  if (count > kSpawnWordLimit) {
    finish_with(t, r, -E2BIG);
    return;
  }
  std::vector<std::string> words;
  if (count > 0) {
    std::vector<uint64_t> addrs(count);
    if (!read_mem(t.pid, r.rsi, addrs.data(), count * 8)) {
      finish_with(t, r, -EFAULT);
      return;
    }
    for (uint64_t a : addrs) {
      auto w = read_string(t.pid, a);
      if (!w) {
        finish_with(t, r, -EFAULT);
        return;
      }
      words.push_back(*w);
    }
  } else {
    words.push_back(*path);
  }
  static const char* kModelled[] = {"/bin/fetch", "/bin/tpk", "/bin/sntp", "/bin/rootsctl"};
  bool modelled = std::find(std::begin(kModelled), std::end(kModelled), *path) != std::end(kModelled);
  if (!modelled && !cfg_.programs.count(*path)) {
    std::vector<std::string> fields = {"result=" + num(-ENOENT)};
    fields.insert(fields.end(), words.begin(), words.end());
    log("spawn", t.pid, fields);
    finish_with(t, r, -ENOENT);
    return;
  }
  std::string name;
  if (*path == "/bin/fetch" && fetch_should_hold(words, &name)) {
    t.wait = Wait::hold;
    t.hold_words = words;
    t.hold_words[0] = *path;
    t.hold_name = name;
    t.regs = r;
    std::vector<std::string> fields = {name};
    fields.insert(fields.end(), words.begin(), words.end());
    log("hold", t.pid, fields);
    return;
  }
  pid_t pid = t.pid;
  int64_t id = start_program(t, *path, words);
  if (Tracee* self = tracee(pid)) finish_with(*self, r, id);
}

int64_t Kernel::sys_system_info(uint64_t selector) {
  switch (selector) {
    case 5: {
      if (cfg_.capacity_bytes == 0) return static_cast<int64_t>(cfg_.free_blocks);
      uint64_t used = tree_bytes(root_);
      uint64_t free = cfg_.capacity_bytes > used ? cfg_.capacity_bytes - used : 0;
      return static_cast<int64_t>(free / cfg_.block_size);
    }
    case 8: return static_cast<int64_t>(cfg_.block_size);
    case 12: case 13: case 14: case 15: case 16: {
      int64_t start = 0;
      parse_date_time(cfg_.clock_start, start);
      time_t now = static_cast<time_t>(start + st_.clock_ns / 1000000000);
      struct tm tm;
      gmtime_r(&now, &tm);
      switch (selector) {
        case 12: return tm.tm_year + 1900;
        case 13: return tm.tm_mon + 1;
        case 14: return tm.tm_mday;
        case 15: return tm.tm_hour;
        default: return tm.tm_min;
      }
    }
    default: return -EINVAL;
  }
}

Kernel::SlotView Kernel::slot_view(int slot) const {
  SlotView v;
  for (auto& task : cfg_.tasks) {
    if (task.slot != slot) continue;
    // A broken kernel image never brings the desktop up.
    if (st_.killed_slots.count(slot) || !st_.healthy) return v;
    int64_t appear = st_.boot_ns + task.appear_ns;
    if (st_.clock_ns < appear) return v;
    v.pid = task.effective_pid();
    v.name = task.name;
    v.state = task.end_ns >= 0 && st_.clock_ns >= st_.boot_ns + task.end_ns ? 5 : 1;
    return v;
  }
  if (slot_owner_[slot] != 0) {
    v.state = 1;
    v.pid = slot_owner_[slot];
    v.name = "ota";
  }
  return v;
}

int Kernel::take_slot(pid_t pid) {
  for (int s = cfg_.first_ota_slot; s < kTaskSlots; s++) {
    bool configured = false;
    for (auto& task : cfg_.tasks) configured = configured || task.slot == s;
    if (configured || slot_owner_[s] != 0) continue;
    slot_owner_[s] = pid;
    return s;
  }
  return -1;
}

int64_t Kernel::sys_task_info(uint64_t slot, uint64_t field) {
  if (slot >= static_cast<uint64_t>(kTaskSlots)) return -EINVAL;
  if (field != 0 && field != 1 && field != 10 && field != 11) return -EINVAL;
  SlotView v = slot_view(static_cast<int>(slot));
  if (v.state == 0) return 0;
  if (field == 0) return v.state;
  if (field == 1) return v.pid;
  uint64_t packed = 0;
  size_t from = field == 10 ? 0 : 8;
  for (size_t i = 0; i < 8 && from + i < v.name.size(); i++)
    packed |= static_cast<uint64_t>(static_cast<unsigned char>(v.name[from + i])) << (8 * i);
  return static_cast<int64_t>(packed);
}

int64_t Kernel::sys_end_task(Tracee& t, uint64_t pid_arg, uint64_t status) {
  int64_t target = static_cast<int64_t>(pid_arg);
  for (int s = 0; s < kTaskSlots; s++) {
    SlotView v = slot_view(s);
    bool configured = false;
    for (auto& task : cfg_.tasks) configured = configured || task.slot == s;
    if (!configured || v.state != 1 || v.pid != target) continue;
    st_.killed_slots.insert(s);
    log("end_task", t.pid, {num(target), v.name, num(static_cast<int64_t>(status)), "0"});
    return 0;
  }
  if (target > 0 && target <= INT32_MAX && tracees_.count(static_cast<pid_t>(target))) {
    log("end_task", t.pid, {num(target), "ota", num(static_cast<int64_t>(status)), "0"});
    kill(static_cast<pid_t>(target), SIGKILL);
    reap_one(static_cast<pid_t>(target));
    return 0;
  }
  log("end_task", t.pid, {num(target), "", num(static_cast<int64_t>(status)), num(-ESRCH)});
  return -ESRCH;
}

int64_t Kernel::sys_fs_grow(pid_t caller, uint64_t op, uint64_t arg) {
  const GrowModel& g = cfg_.grow;
  int64_t result;
  int64_t steps = static_cast<int64_t>(g.steps.size());
  bool finished = st_.grow_finished || g.state == 3;
  int64_t progress = finished ? 1000 : st_.grow_steps_done == 0 ? 0 : g.steps[std::min(st_.grow_steps_done, steps) - 1];
  if (op == 15) {
    switch (arg) {
      case 0: result = finished ? 3 : g.state; break;
      case 1: result = progress; break;
      case 2:
        result = finished ? static_cast<int64_t>(g.device_blocks)
                          : static_cast<int64_t>(g.fs_blocks) +
                                (static_cast<int64_t>(g.device_blocks) - static_cast<int64_t>(g.fs_blocks)) *
                                    std::clamp<int64_t>(progress, 0, 1000) / 1000;
        break;
      case 3: result = static_cast<int64_t>(g.device_blocks); break;
      case 4: result = static_cast<int64_t>(g.inodes); break;
      case 6: result = static_cast<int64_t>(g.ext_inodes); break;
      default: result = -EINVAL;
    }
  } else if (op == 16 && arg == 256) {
    if (finished) {
      result = 1;
    } else if (g.state == 0) {
      result = -EPERM;
    } else if (g.fail_step != 0 && st_.grow_steps_done + 1 == g.fail_step) {
      result = g.fail_code;  // the failing step makes no progress and fails again next time
    } else if (st_.grow_steps_done >= steps) {
      st_.grow_finished = true;
      result = 1;
    } else {
      st_.grow_steps_done++;
      result = 0;
    }
  } else {
    result = -EINVAL;
  }
  log("grow", caller, {num(static_cast<int64_t>(op)), num(static_cast<int64_t>(arg)), num(result)});
  return result;
}

int64_t Kernel::sys_notify(Tracee& t, const user_regs_struct& r) {
  if (r.rdi != 19 || r.rsi != 1) return -EINVAL;
  uint64_t len = std::min<uint64_t>(r.r10, kNotifyTextLimit);
  std::string text(len, '\0');
  if (!read_mem(t.pid, r.rdx, text.data(), len)) return -EFAULT;
  log("notify", t.pid, {text});
  return 0;
}

int64_t Kernel::sys_rename(Tracee& t, const user_regs_struct& r) {
  auto to = read_string(t.pid, r.rsi);
  if (!to) return -EFAULT;
  // tavi's rename never replaces: an existing target makes it fail and nothing moves.
  if (fs_->exists(device_path_of(t, *to))) return -EEXIST;
  return 0;
}

void Kernel::sys_sync() {
  write_back_mounts("sync");
  if (snapshot_active_) take_snapshot();
}

int64_t Kernel::sys_mount(Tracee& t, const user_regs_struct& r) {
  auto source = read_string(t.pid, r.rdi);
  auto target_arg = read_string(t.pid, r.rsi);
  auto type = read_string(t.pid, r.rdx);
  if (!source || !target_arg || !type) return -EFAULT;
  std::string target = device_path_of(t, *target_arg);
  auto done = [&](int64_t result) {
    log("mount", t.pid, {*source, target, *type, num(result)});
    return result;
  };
  if (*type != "vfat") return done(-ENODEV);
  if (!fs_->is_dir(target)) return done(-ENOENT);
  std::string device;
  if (source->rfind("/dev/", 0) == 0) device = source->substr(5);
  if (device.empty() || device.find('/') != std::string::npos || device == "." || device == "..")
    return done(-ENOENT);
  std::string image = dir_ + "/disks/" + device + ".img";
  if (!host_exists(image)) return done(-ENOENT);
  if (mounts_.count(target)) return done(-EBUSY);
  for (auto& [tg, m] : mounts_)
    if (m.device == device) return done(-EBUSY);
  std::string host = root_ + target;
  char real_host[PATH_MAX], real_root[PATH_MAX];
  if (!realpath(host.c_str(), real_host) || !realpath(root_.c_str(), real_root) ||
      std::string(real_host) != std::string(real_root) + target)
    return done(-ENOENT);  // a symbolic link on the way: not a mount point of this model
  std::string shadow;
  TreeListing existing = list_tree(host);
  if (!existing.dirs.empty() || !existing.files.empty() || !existing.others.empty()) {
    // Mounting hides what the mount point held; it comes back at the unmount.
    make_host_dirs(dir_ + "/shadow");
    shadow = dir_ + "/shadow/" + std::to_string(st_.next_spawn_id++);
    if (rename(host.c_str(), shadow.c_str()) != 0 || mkdir(host.c_str(), 0755) != 0) return done(-EIO);
  }
  Mount m;
  m.device = device;
  m.shadow = shadow;
  int rc = m.fat.mount(image, host);
  if (rc != 0) {
    clear_dir(host);
    if (!shadow.empty()) {
      rmdir(host.c_str());
      rename(shadow.c_str(), host.c_str());
    }
    return done(rc);
  }
  mounts_[target] = std::move(m);
  return done(0);
}

int64_t Kernel::sys_umount(Tracee& t, const user_regs_struct& r) {
  auto target_arg = read_string(t.pid, r.rdi);
  if (!target_arg) return -EFAULT;
  std::string target = device_path_of(t, *target_arg);
  auto it = mounts_.find(target);
  if (it == mounts_.end()) {
    log("umount", t.pid, {target, num(-EINVAL)});
    return -EINVAL;
  }
  std::string err;
  if (!it->second.fat.write_back(&err)) {
    log("esp", t.pid, {"writeback-failed", target, err});
    log("umount", t.pid, {target, num(-EIO)});
    return -EIO;
  }
  std::string host = root_ + target;
  clear_dir(host);
  if (!it->second.shadow.empty()) {
    rmdir(host.c_str());
    rename(it->second.shadow.c_str(), host.c_str());
  }
  mounts_.erase(it);
  log("umount", t.pid, {target, "0"});
  return 0;
}

void Kernel::write_back_mounts(const char* why) {
  for (auto& [target, m] : mounts_) {
    std::string err;
    if (!m.fat.write_back(&err)) log("esp", 0, {"writeback-failed", target, why, err});
  }
}

void Kernel::unmount_all(bool write_back) {
  for (auto& [target, m] : mounts_) {
    std::string err;
    if (write_back && !m.fat.write_back(&err)) log("esp", 0, {"writeback-failed", target, "unmount", err});
    std::string host = root_ + target;
    clear_dir(host);
    if (!m.shadow.empty()) {
      rmdir(host.c_str());
      rename(m.shadow.c_str(), host.c_str());
    }
    log("umount", 0, {target, write_back ? "restart" : "lost"});
  }
  mounts_.clear();
}

void Kernel::take_snapshot() {
  std::vector<std::string> skip = {"tmp"};
  for (auto& [target, m] : mounts_) skip.push_back(target.substr(1));
  mirror(root_, dir_ + "/synced", skip);
}

void Kernel::restore_snapshot() {
  std::vector<std::string> skip = {"tmp"};
  for (auto& [target, m] : mounts_) skip.push_back(target.substr(1));
  mirror(dir_ + "/synced", root_, skip);
}

void Kernel::note_clock_change(int64_t from, int64_t to) {
  for (auto& task : cfg_.tasks) {
    int64_t appear = st_.boot_ns + task.appear_ns;
    if (appear > from && appear <= to)
      log_at(appear, "task", task.effective_pid(), {"appear", task.name, "slot=" + num(task.slot)});
    if (task.end_ns >= 0) {
      int64_t end = st_.boot_ns + task.end_ns;
      if (end > from && end <= to)
        log_at(end, "task", task.effective_pid(), {"end", task.name, "slot=" + num(task.slot)});
    }
  }
}

}  // namespace tavisim
