// The calls the simulated kernel answers itself: tavi's own (program start, system facts,
// task table, ending tasks, filesystem growth, notices), and the Linux calls whose tavi
// meaning differs or which must not reach the host (sleep, wait4 of a started program,
// rename, file modes, sync, mount, umount2, reboot); and the faults injected into any call.
// docs/simulator.md says what each call does.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>

#include <algorithm>

#include "host.h"
#include "kernel.h"
#include "tavi_abi.h"

namespace tavisim {

namespace {

// The tavi kernel's own call numbers; Linux's are the SYS_* names of <sys/syscall.h>.
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
// Sleeps are cut at a year: far beyond any limit a command runs under, and the clock's
// arithmetic stays far from overflowing.
constexpr int64_t kLongestSleepSeconds = 366LL * 86400;

// The calls this kernel answers or looks at; open and mkdir are stopped only when they
// create something with mode 0.
const int64_t kTraced[] = {SYS_nanosleep, SYS_wait4, SYS_rename, SYS_sync, SYS_mount, SYS_umount2, SYS_reboot,
                           kSpawn, kSystemInfo, kTaskInfo, kEndTask, kFsGrow, kNotify};

// The programs the kernel models; any other path needs a configured host program.
const char* kModelled[] = {"/bin/fetch", "/bin/tpk", "/bin/sntp", "/bin/rootsctl"};

}  // namespace

std::vector<sock_filter> Kernel::call_filter(bool every_call) const {
  std::set<int64_t> stopped(std::begin(kTraced), std::end(kTraced));
  for (auto& f : cfg_.call_faults) stopped.insert(f.number);
  return seccomp_filter(stopped, every_call);
}

void Kernel::on_call(pid_t pid, user_regs_struct& r) {
  Process& p = processes_[pid];
  int64_t nr = static_cast<int64_t>(r.orig_rax);
  p.calls++;
  auto cit = commands_.find(p.command);
  if (cit != commands_.end() && cit->second.trace_calls)
    (p.main ? cit->second.result.calls : cit->second.result.forked_calls).push_back(nr);
  if (cit != commands_.end() && cit->second.cut) {
    const Cut& cut = *cit->second.cut;
    bool counts = cut.forked_only ? !p.main : p.main || cut.any_process;
    if (counts && p.calls == cut.at_call) {
      log("cut", pid,
          {"call=" + num(static_cast<int64_t>(p.calls)), "nr=" + num(nr),
           cut.durability == Durability::all ? "all" : "synced"});
      stop_machine(Stop::cut, cut.durability);
      return;
    }
  }
  if (auto e = injected_fault(p, r)) {
    answer(p, r, *e);
    return;
  }
  switch (nr) {
    case SYS_open:
      // tavi makes a file created with mode 0 readable.
      if ((r.rsi & O_CREAT) && (r.rdx & 07777) == 0) {
        unsigned long long original = r.rdx;
        r.rdx = 0644;
        tracer_.let_through_changed(pid, r, &user_regs_struct::rdx, original);
      } else {
        tracer_.resume(pid);
      }
      return;
    case SYS_mkdir:
      if ((r.rsi & 07777) == 0) {
        unsigned long long original = r.rsi;
        r.rsi = 0755;
        tracer_.let_through_changed(pid, r, &user_regs_struct::rsi, original);
      } else {
        tracer_.resume(pid);
      }
      return;
    case SYS_nanosleep: sys_nanosleep(p, r); return;
    case SYS_wait4: sys_wait4(p, r); return;
    case SYS_rename: {
      int64_t res = sys_rename(p, r);
      if (res == 0) tracer_.resume(pid);
      else answer(p, r, res);
      return;
    }
    case SYS_sync:
      sys_sync();
      answer(p, r, 0);
      return;
    case SYS_mount: answer(p, r, sys_mount(p, r)); return;
    case SYS_umount2: answer(p, r, sys_umount(p, r)); return;
    case SYS_reboot:
      if (r.rdi != kRestartCommand || r.rsi != 0 || r.rdx != 0) {
        log("reboot", pid, {"arg=" + num(static_cast<int64_t>(r.rdi)), "result=" + num(-EINVAL)});
        answer(p, r, -EINVAL);
        return;
      }
      log("reboot", pid, {"restart"});
      stop_machine(Stop::reboot);
      return;
    case kSpawn: sys_spawn(p, r); return;
    case kSystemInfo: answer(p, r, sys_system_info(r.rdi)); return;
    case kTaskInfo: answer(p, r, tasks_.info(r.rdi, r.rsi)); return;
    case kEndTask: {
      // The caller may end itself: then nothing is left to answer.
      int64_t res = sys_end_task(p, r.rdi, r.rsi);
      if (Process* self = process(pid)) answer(*self, r, res);
      return;
    }
    case kFsGrow: answer(p, r, sys_fs_grow(pid, r.rdi, r.rsi)); return;
    case kNotify: answer(p, r, sys_notify(p, r)); return;
    default: tracer_.resume(pid); return;
  }
}

std::optional<int64_t> Kernel::injected_fault(Process& p, const user_regs_struct& r) {
  int64_t nr = static_cast<int64_t>(r.orig_rax);
  for (size_t i = 0; i < cfg_.call_faults.size(); i++) {
    const CallFault& f = cfg_.call_faults[i];
    if (f.number != nr) continue;
    if (!f.path.empty()) {
      auto path = read_string(p.pid, r.rdi);
      if (!path || *path != f.path) continue;
    }
    // The counter's key is the whole fault line and its place, so that a changed line
    // counts anew.
    std::string key = "call-fault " + num(f.number) + " " + num(f.error) + " " + num(f.nth) +
                      (f.every ? " every" : "") + (f.path.empty() ? "" : " path=" + f.path) + " #" + num(i);
    int64_t n = ++st_.counters[key];
    if (n == f.nth || (f.every && n > f.nth)) {
      std::vector<std::string> fields = {"call=" + num(nr), "error=" + num(f.error), "count=" + num(n)};
      if (!f.path.empty()) fields.push_back("path=" + f.path);
      log("fault", p.pid, fields);
      return f.error;
    }
  }
  return std::nullopt;
}

void Kernel::sys_nanosleep(Process& p, user_regs_struct& r) {
  int64_t req[2];
  if (!read_memory(p.pid, r.rdi, req, sizeof req)) {
    answer(p, r, -EFAULT);
    return;
  }
  if (req[0] < 0 || req[1] < 0 || req[1] >= 1000000000) {
    answer(p, r, -EINVAL);
    return;
  }
  int64_t sec = std::min<int64_t>(req[0], kLongestSleepSeconds);
  int64_t d = sec * 1000000000 + req[1];
  if (d == 0) {
    answer(p, r, 0);
    return;
  }
  // The process stands in the call until the clock reaches its wake-up (advance_sleepers).
  p.wait = Wait::sleep;
  p.wake_ns = st_.clock_ns + d;
  p.regs = r;
}

void Kernel::sys_wait4(Process& p, user_regs_struct& r) {
  int64_t pid = static_cast<int32_t>(static_cast<uint32_t>(r.rdi));
  if (pid < kSpawnIdBase) {
    tracer_.resume(p.pid);  // a real child: Linux's
    return;
  }
  auto it = spawned_.find(pid);
  if (it == spawned_.end()) {
    answer(p, r, -ECHILD);
    return;
  }
  int32_t status = it->second;
  if (r.rsi != 0 && !write_memory(p.pid, r.rsi, &status, sizeof status)) {
    answer(p, r, -EFAULT);
    return;
  }
  spawned_.erase(it);
  answer(p, r, pid);
}

void Kernel::sys_spawn(Process& p, user_regs_struct& r) {
  auto path = read_string(p.pid, r.rdi);
  if (!path) {
    answer(p, r, -EFAULT);
    return;
  }
  uint64_t count = r.rdx;
  if (count > kSpawnWordLimit) {
    answer(p, r, -E2BIG);
    return;
  }
  std::vector<std::string> words;
  if (count > 0) {
    std::vector<uint64_t> addrs(count);
    if (!read_memory(p.pid, r.rsi, addrs.data(), count * 8)) {
      answer(p, r, -EFAULT);
      return;
    }
    for (uint64_t a : addrs) {
      auto w = read_string(p.pid, a);
      if (!w) {
        answer(p, r, -EFAULT);
        return;
      }
      words.push_back(*w);
    }
  } else {
    words.push_back(*path);
  }
  bool modelled = std::find(std::begin(kModelled), std::end(kModelled), *path) != std::end(kModelled);
  if (!modelled && !cfg_.programs.count(*path)) {
    std::vector<std::string> fields = {"result=" + num(-ENOENT)};
    fields.insert(fields.end(), words.begin(), words.end());
    log("spawn", p.pid, fields);
    answer(p, r, -ENOENT);
    return;
  }
  std::string name;
  if (*path == "/bin/fetch" && fetch_should_hold(words, &name)) {
    // The process stands in the call until the test releases the fetch.
    p.wait = Wait::hold;
    p.hold_words = words;
    p.hold_words[0] = *path;
    p.hold_name = name;
    p.regs = r;
    std::vector<std::string> fields = {name};
    fields.insert(fields.end(), words.begin(), words.end());
    log("hold", p.pid, fields);
    return;
  }
  // A host program may take a while: the caller could be gone (a limit) when it ends.
  pid_t pid = p.pid;
  int64_t id = start_program(p, *path, words);
  if (Process* self = process(pid)) answer(*self, r, id);
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

int64_t Kernel::sys_end_task(Process& p, uint64_t pid_arg, uint64_t status) {
  int64_t target = static_cast<int64_t>(pid_arg);
  if (auto name = tasks_.end_configured(target)) {
    log("end_task", p.pid, {num(target), *name, num(static_cast<int64_t>(status)), "0"});
    return 0;
  }
  if (target > 0 && target <= INT32_MAX && processes_.count(static_cast<pid_t>(target))) {
    log("end_task", p.pid, {num(target), "ota", num(static_cast<int64_t>(status)), "0"});
    // The task is gone when end_task returns: wait for the killed process here.
    kill(static_cast<pid_t>(target), SIGKILL);
    tracer_.reap(static_cast<pid_t>(target), *this);
    return 0;
  }
  log("end_task", p.pid, {num(target), "", num(static_cast<int64_t>(status)), num(-ESRCH)});
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

int64_t Kernel::sys_notify(Process& p, const user_regs_struct& r) {
  // Operation 19 (with 1 as its second word) posts a notice; the model knows no other.
  if (r.rdi != 19 || r.rsi != 1) return -EINVAL;
  uint64_t len = std::min<uint64_t>(r.r10, kNotifyTextLimit);
  std::string text(len, '\0');
  if (!read_memory(p.pid, r.rdx, text.data(), len)) return -EFAULT;
  log("notify", p.pid, {text});
  return 0;
}

int64_t Kernel::sys_rename(Process& p, const user_regs_struct& r) {
  auto to = read_string(p.pid, r.rsi);
  if (!to) return -EFAULT;
  // tavi's rename never replaces: an existing target makes it fail and nothing moves.
  if (fs_.exists(device_path(p, *to))) return -EEXIST;
  return 0;
}

void Kernel::sys_sync() {
  write_back_mounts("sync");
  synced_.synced(mounts_.targets());
}

int64_t Kernel::sys_mount(Process& p, const user_regs_struct& r) {
  auto source = read_string(p.pid, r.rdi);
  auto target_arg = read_string(p.pid, r.rsi);
  auto type = read_string(p.pid, r.rdx);
  if (!source || !target_arg || !type) return -EFAULT;
  std::string target = device_path(p, *target_arg);
  int64_t result = mounts_.mount(*source, target, *type);
  log("mount", p.pid, {*source, target, *type, num(result)});
  return result;
}

int64_t Kernel::sys_umount(Process& p, const user_regs_struct& r) {
  auto target_arg = read_string(p.pid, r.rdi);
  if (!target_arg) return -EFAULT;
  std::string target = device_path(p, *target_arg);
  std::string err;
  int64_t result = mounts_.unmount(target, &err);
  if (result == -EIO) log("esp", p.pid, {"writeback-failed", target, err});
  log("umount", p.pid, {target, num(result)});
  return result;
}

void Kernel::note_clock_change(int64_t from, int64_t to) {
  for (auto& c : tasks_.changes(from, to))
    events_.add(c.ns, "task", c.pid, {c.what, c.name, "slot=" + num(c.slot)});
}

}  // namespace tavisim
