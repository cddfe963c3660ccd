#include "kernel.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "host.h"

namespace tavisim {

namespace {

using Clock = std::chrono::steady_clock;

// The device directory, absolute; throws when it holds no device.
std::string device_dir(const std::string& dir) {
  char buf[PATH_MAX];
  std::string absolute = realpath(dir.c_str(), buf) ? std::string(buf) : dir;
  if (!host_is_dir(absolute + "/root"))
    throw SimError(dir + " is not a device directory: " + absolute + "/root is missing");
  return absolute;
}

Config device_config(const std::string& dir) {
  auto text = read_host_file(dir + "/sim.conf");
  return text ? parse_config(*text, dir + "/sim.conf") : Config{};
}

std::optional<Clock::time_point> wall_deadline(double wall_seconds) {
  if (wall_seconds <= 0) return std::nullopt;
  return Clock::now() + std::chrono::microseconds(static_cast<int64_t>(wall_seconds * 1e6));
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Life of the kernel

Kernel::Kernel(const std::string& dir)
    : dir_(device_dir(dir)),
      root_(dir_ + "/root"),
      fs_(root_),
      cfg_(device_config(dir)),
      state_file_(dir),
      st_(state_file_.load()),
      events_(dir + "/events.log"),
      tasks_(cfg_, st_),
      mounts_(dir_, fs_),
      synced_(dir_, root_) {
  mounts_.resume(st_.mounts);
}

Kernel::~Kernel() {
  try {
    if (!processes_.empty()) stop_machine(Stop::power);
    write_back_mounts("end of session");
    save_state();
  } catch (...) {
  }
  for (auto& [id, c] : commands_) {
    if (c.out_fd >= 0) close(c.out_fd);
    if (c.err_fd >= 0) close(c.err_fd);
  }
}

void Kernel::set_config(const Config& c) { cfg_ = c; }

void Kernel::save_state() {
  st_.mounts = mounts_.saved();
  state_file_.save(st_);
}

void Kernel::reset_counters() { st_.counters.clear(); }

// ---------------------------------------------------------------------------------------
// Starting a command

CommandId Kernel::start(const std::vector<std::string>& argv, const RunOptions& options) {
  Command c;
  c.id = next_command_++;
  c.first_event = events_.size();
  c.cut = options.cut ? options.cut : cfg_.cut;
  c.trace_calls = options.trace_calls;
  c.argv = argv;
  c.wall_deadline = wall_deadline(options.wall_seconds);
  if (options.virtual_seconds > 0)
    c.virtual_deadline = st_.clock_ns + static_cast<int64_t>(options.virtual_seconds * 1e9);
  int id = c.id;

  struct stat st;
  if (stat((root_ + "/bin/ota").c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    c.done = true;
    c.result.error = "no device program: " + root_ + "/bin/ota is missing";
    commands_[id] = std::move(c);
    return id;
  }

  Launch l;
  l.root = root_;
  l.argv = c.argv;
  // A cut counts every call, and so does a trace of them: then every call stops.
  l.filter = call_filter(c.cut.has_value() || c.trace_calls);
  int out[2] = {-1, -1}, err[2] = {-1, -1};
  if (options.capture) {
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) throw SimError("pipe failed");
    fcntl(out[0], F_SETFL, O_NONBLOCK);
    fcntl(err[0], F_SETFL, O_NONBLOCK);
  }
  l.stdout_fd = out[1];
  l.stderr_fd = err[1];
  if (c.cut && c.cut->durability == Durability::synced) synced_.arm(mounts_.targets());

  Tracer::Started s = tracer_.launch(l);
  if (out[1] >= 0) {
    close(out[1]);
    close(err[1]);
  }
  c.out_fd = out[0];
  c.err_fd = err[0];
  c.main = s.pid;
  c.result.pid = s.pid;
  if (!s.ok) {
    c.done = true;
    c.result.error = "the device program could not be prepared (chroot or ptrace refused)";
    if (c.out_fd >= 0) close(c.out_fd);
    if (c.err_fd >= 0) close(c.err_fd);
    c.out_fd = c.err_fd = -1;
    commands_[id] = std::move(c);
    return id;
  }
  Process& p = processes_[s.pid];
  p.pid = s.pid;
  p.command = id;
  p.main = true;
  commands_[id] = std::move(c);
  tracer_.resume(s.pid);
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
    std::optional<Clock::time_point> wall = wall_deadline(wall_seconds);
    if (!wall) wall = c.wall_deadline;
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
  c.result.events = events_.since(c.first_event);
  save_state();
  return c.result;
}

bool Kernel::serve_until(const std::function<bool()>& done, double wall_seconds, double virtual_seconds) {
  int64_t vdeadline = virtual_seconds > 0 ? st_.clock_ns + static_cast<int64_t>(virtual_seconds * 1e9) : INT64_MAX;
  Served s = serve(done, wall_deadline(wall_seconds), vdeadline, true);
  save_state();
  return s == Served::done;
}

bool Kernel::wait_background(double wall_seconds, double virtual_seconds) {
  int64_t vdeadline = virtual_seconds > 0 ? st_.clock_ns + static_cast<int64_t>(virtual_seconds * 1e9) : INT64_MAX;
  Served s = serve([] { return false; }, wall_deadline(wall_seconds), vdeadline);
  if (s == Served::wall) {
    log("limit", 0, {"wall"});
    stop_machine(Stop::limit_wall);
  }
  save_state();
  return s == Served::idle && processes_.empty();
}

bool Kernel::held(const std::string& name) const {
  for (auto& [pid, p] : processes_)
    if (p.wait == Wait::hold && p.hold_name == name) return true;
  return false;
}

void Kernel::release(const std::string& name) {
  std::vector<pid_t> pids;
  for (auto& [pid, p] : processes_)
    if (p.wait == Wait::hold && p.hold_name == name) pids.push_back(pid);
  for (pid_t pid : pids) {
    Process* p = process(pid);
    if (!p) continue;
    log("release", pid, {name});
    p->wait = Wait::none;
    int64_t id = start_program(*p, p->hold_words.empty() ? "/bin/fetch" : p->hold_words[0], p->hold_words);
    p = process(pid);
    if (p) answer(*p, p->regs, id);
  }
}

std::vector<int64_t> Kernel::live_pids() const {
  std::vector<int64_t> pids;
  for (auto& [pid, p] : processes_) pids.push_back(pid);
  return pids;
}

void Kernel::power_off() {
  if (!processes_.empty()) stop_machine(Stop::power);
  unmount_all(true);
  st_.restarted();
  save_state();
}

void Kernel::advance_clock(int64_t ns) {
  if (ns <= 0) return;
  note_clock_change(st_.clock_ns, st_.clock_ns + ns);
  st_.clock_ns += ns;
  save_state();
}

Kernel::Process* Kernel::process(pid_t pid) {
  auto it = processes_.find(pid);
  return it == processes_.end() ? nullptr : &it->second;
}

// ---------------------------------------------------------------------------------------
// Serving

Kernel::Served Kernel::serve(const std::function<bool()>& done, std::optional<Clock::time_point> wall,
                             int64_t virtual_deadline, bool keep_running) {
  // SIGCHLD is read from the tracer's descriptor, never delivered.
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
    if (processes_.empty()) {
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
    fds.push_back({tracer_.wakeup_fd(), POLLIN, 0});
    for (auto& [id, c] : commands_) {
      if (c.out_fd >= 0) fds.push_back({c.out_fd, POLLIN, 0});
      if (c.err_fd >= 0) fds.push_back({c.err_fd, POLLIN, 0});
    }
    poll(fds.data(), fds.size(), timeout);
    tracer_.clear_wakeups();
  }
  serve_wall_.reset();
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  return result;
}

void Kernel::pump() {
  tracer_.collect(*this);
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
  for (auto& [pid, p] : processes_)
    if (p.wait == Wait::sleep) earliest = std::min(earliest, p.wake_ns);
  if (earliest == INT64_MAX) return false;
  // Time moves only when no process can still do something before its next call: all
  // stand in a sleep or a held fetch, or wait inside Linux (state S).
  for (auto& [pid, p] : processes_) {
    if (p.wait != Wait::none) continue;
    if (scheduler_state(pid) != 'S') {
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
  for (auto& [pid, p] : processes_)
    if (p.wait == Wait::sleep && p.wake_ns <= st_.clock_ns) wake.push_back(pid);
  for (pid_t pid : wake) {
    Process* p = process(pid);
    if (!p) continue;
    p->wait = Wait::none;
    answer(*p, p->regs, 0);
  }
  return true;
}

// ---------------------------------------------------------------------------------------
// What the tracer reports

void Kernel::on_new_process(pid_t pid, pid_t parent) {
  Process& n = processes_[pid];
  n.pid = pid;
  if (Process* p = process(parent)) n.command = p->command;
  n.slot = tasks_.take(pid);
}

void Kernel::on_fork(pid_t parent, pid_t child) {
  int command = processes_[parent].command;
  Process& c = processes_[child];
  c.pid = child;
  c.command = command;
  if (c.slot < 0) c.slot = tasks_.take(child);
  log("fork", parent, {"child=" + num(child)});
}

void Kernel::on_program_start(pid_t pid) {
  Process& p = processes_[pid];
  if (p.slot < 0) p.slot = tasks_.take(pid);
  if (p.main) {
    auto it = commands_.find(p.command);
    log("start", pid, it == commands_.end() ? std::vector<std::string>{} : it->second.argv);
  }
}

void Kernel::on_exit(pid_t pid, int status, bool program_started, int64_t peak_rss_kib) {
  Process& p = processes_[pid];
  bool exited = WIFEXITED(status);
  log("exit", pid,
      {exited ? "status=" + num(WEXITSTATUS(status)) : "signal=" + num(WTERMSIG(status)), "maxrss=" + num(peak_rss_kib)});
  tasks_.give_back(p.slot, pid);
  int cmd = p.command;
  if (p.main) {
    Command& c = commands_[cmd];
    if (!program_started) {
      c.result.error = exited && WEXITSTATUS(status) == 127
                           ? "cannot execute /bin/ota in the device root"
                           : "the device program could not be prepared (chroot, ptrace or seccomp refused)";
    } else if (exited) {
      c.result.max_rss_kib = peak_rss_kib;
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
  processes_.erase(pid);
  bool left = false;
  for (auto& [other, o] : processes_) left = left || o.command == cmd;
  auto it = commands_.find(cmd);
  if (!left && it != commands_.end() && it->second.done) {
    drain_pipes();
    for (int* fd : {&it->second.out_fd, &it->second.err_fd}) {
      if (*fd >= 0) close(*fd);
      *fd = -1;
    }
  }
}

// ---------------------------------------------------------------------------------------
// Stopping the machine

void Kernel::stop_machine(Stop why, Durability durability) {
  stopping_ = why;
  for (auto& [pid, p] : processes_) kill(pid, SIGKILL);
  tracer_.reap_all(*this);
  spawned_.clear();
  switch (why) {
    case Stop::reboot:
      unmount_all(true);
      st_.restarted();
      break;
    case Stop::cut:
      if (durability == Durability::synced) synced_.restore(mounts_.targets());
      unmount_all(durability == Durability::all);
      st_.restarted();
      break;
    default: break;
  }
  synced_.disarm();
  stopping_ = Stop::none;
  save_state();
}

void Kernel::write_back_mounts(const char* why) {
  for (auto& t : mounts_.write_back_all()) log("esp", 0, {"writeback-failed", t.target, why, t.error});
}

void Kernel::unmount_all(bool write_back) {
  for (auto& u : mounts_.unmount_all(write_back)) {
    if (u.write_back_error) log("esp", 0, {"writeback-failed", u.target, "unmount", *u.write_back_error});
    log("umount", 0, {u.target, write_back ? "restart" : "lost"});
  }
}

}  // namespace tavisim
