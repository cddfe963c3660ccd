// tavi-sim fleet: the command line, the worker processes that run the devices, the
// progress line, and the merge of shards.

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <set>

#include "fleet.h"
#include "host.h"
#include "tavisim/config.h"

namespace tavisim::fleet {

namespace {

// Exit statuses: 0 the rehearsal ran and every device ended in its starting or its release
// state and can start; 3 it ran, but some device did not (summary.md lists them, their
// directories are kept); 1 it could not run; 2 a mistake in the command line.
constexpr int kExitKept = 3;

const char* kHelp =
    "usage: tavi-sim fleet --source DIR [--system-source DIR] --trusted PUB [--spare PUB]\n"
    "                      --devices N --rounds R --out OUT [--mix FILE] [--seed S]\n"
    "                      [--power-cut P] [--fetch-fail P] [--jobs J] [--shard I/N] [--binary OTA]\n"
    "       tavi-sim fleet merge OUT1 OUT2 ... --out OUT\n"
    "Rehearses a release on N simulated devices. DIR is what `ota-publish catalog --out` wrote\n"
    "(and `ota-publish system --out` for --system-source); nginx serves both on a free port of\n"
    "127.0.0.1 and the devices download with curl. Each device starts in a state drawn from the\n"
    "mix (docs/fleet.md; a default without --mix), trusts PUB, and lives R rounds of its service\n"
    "interval: passes of the service loop, its owner's restarts and system applies, a power cut\n"
    "at a random call in a share P of the commands (--power-cut), a download that breaks off in\n"
    "a share P of the fetches (--fetch-fail). --jobs J devices run at once (default: the CPUs);\n"
    "--shard I/N runs only the devices whose index is I modulo N, and `fleet merge` joins the\n"
    "shards' OUT directories into what one run writes.\n"
    "Writes OUT/devices.tsv, summary.md, requests.tsv, rollout.tsv, rollout.png and run.tsv.\n"
    "Exit status: 0 done, 3 done but some device cannot start or ends outside its starting\n"
    "and release states (kept in OUT/devices/), 1 failed, 2 a mistake in the command line.\n";

struct UsageError : SimError {
  using SimError::SimError;
};

std::string absolute_dir(const std::string& path, const char* what) {
  char buf[PATH_MAX];
  if (!realpath(path.c_str(), buf) || !host_is_dir(buf)) throw SimError(std::string(what) + " is not a directory: " + path);
  return buf;
}

std::string absolute_file(const std::string& path, const char* what) {
  char buf[PATH_MAX];
  if (!realpath(path.c_str(), buf) || !read_host_file(buf)) throw SimError(std::string("cannot read ") + what + " " + path);
  return buf;
}

std::string self_dir() {
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return ".";
  buf[n] = 0;
  return parent_of(buf);
}

// OUT is made when missing; an existing one must be empty, so no earlier run is mixed in.
std::string prepare_out(const std::string& out) {
  make_host_dirs(out);
  std::string dir = absolute_dir(out, "--out");
  TreeListing t = list_tree(dir);
  if (!t.files.empty() || !t.dirs.empty() || !t.others.empty())
    throw SimError("--out " + out + " is not empty; give a new directory");
  return dir;
}

// Room a running device may need: its root with a release's downloads and a snapshot of
// them, and its ESP image.
constexpr uint64_t kScratchPerJob = 256ull << 20;

// Devices make and remove many small files; in memory (tmpfs) that costs a fraction of
// what a disk file system spends on it. /dev/shm is used when programs can run from it
// and it has room for every job, else a directory inside OUT's scratch.
std::string scratch_dir(const std::string& fallback, uint64_t jobs) {
  struct statvfs fs;
  if (statvfs("/dev/shm", &fs) == 0 && !(fs.f_flag & ST_NOEXEC) && !(fs.f_flag & ST_RDONLY) &&
      static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize >= jobs * kScratchPerJob &&
      access("/dev/shm", W_OK | X_OK) == 0) {
    char tmpl[] = "/dev/shm/tavi-fleet-XXXXXX";
    if (mkdtemp(tmpl)) return tmpl;
  }
  make_host_dirs(fallback + "/scratch");
  return fallback + "/scratch";
}

bool tool_present(const char* name) {
  ToolRun run;
  run.argv = {"sh", "-c", std::string("command -v ") + name};
  return run_tool(run) == 0;
}

std::string duration_text(double seconds) {
  long s = static_cast<long>(seconds + 0.5);
  char buf[32];
  if (s >= 3600) snprintf(buf, sizeof buf, "%ldh%02ldm", s / 3600, s / 60 % 60);
  else if (s >= 60) snprintf(buf, sizeof buf, "%ldm%02lds", s / 60, s % 60);
  else snprintf(buf, sizeof buf, "%lds", s);
  return buf;
}

// The progress line on a terminal: devices done of N, outcomes so far, time left.
class Progress {
 public:
  explicit Progress(uint64_t total) : total_(total), on_(isatty(2) != 0), began_(std::chrono::steady_clock::now()) {}

  void done(const std::string& outcome) {
    done_++;
    counts_[outcome]++;
    if (!on_) return;
    double spent = std::chrono::duration<double>(std::chrono::steady_clock::now() - began_).count();
    std::string line = "fleet: " + std::to_string(done_) + "/" + std::to_string(total_) + " devices";
    for (const char* o : kOutcomes)
      if (counts_[o]) line += "  " + std::string(o) + " " + std::to_string(counts_[o]);
    if (done_ < total_)
      line += "  about " + duration_text(spent / static_cast<double>(done_) * static_cast<double>(total_ - done_)) + " left";
    // One line rewritten in place: longer than the terminal, it would wrap and stay.
    winsize w{};
    if (ioctl(2, TIOCGWINSZ, &w) == 0 && w.ws_col > 1 && line.size() >= w.ws_col) line.resize(w.ws_col - 1);
    std::string text = "\r\x1b[K" + line;
    if (write(2, text.data(), text.size()) < 0) on_ = false;
  }

  void end() {
    if (on_ && done_ > 0 && write(2, "\r\x1b[K", 4) < 0) on_ = false;
  }

 private:
  uint64_t total_;
  uint64_t done_ = 0;
  bool on_;
  std::chrono::steady_clock::time_point began_;
  std::map<std::string, uint64_t> counts_;
};

std::string encode_timeline(const std::vector<Sample>& t) {
  std::string s;
  for (auto& x : t) s += std::to_string(x.version) + "," + std::to_string(x.build) + "," + (x.down ? "1" : "0") + ";";
  return s;
}

std::vector<Sample> decode_timeline(const std::string& s) {
  std::vector<Sample> t;
  size_t i = 0;
  while (i < s.size()) {
    size_t e = s.find(';', i);
    if (e == std::string::npos) break;
    std::string item = s.substr(i, e - i);
    Sample x;
    unsigned long long v = 0, b = 0;
    int down = 0;
    if (sscanf(item.c_str(), "%llu,%llu,%d", &v, &b, &down) == 3) {
      x.version = v;
      x.build = b;
      x.down = down != 0;
      t.push_back(x);
    }
    i = e + 1;
  }
  return t;
}

bool write_all(int fd, const std::string& s) {
  size_t done = 0;
  while (done < s.size()) {
    ssize_t n = write(fd, s.data() + done, s.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// A worker process: reads device indices, one per line, and answers each with the
// device's line of devices.tsv and its timeline. One device lives in it at a time.
[[noreturn]] void worker(const LifeContext& c, int in, int out) {
  std::string buf;
  char chunk[256];
  for (;;) {
    size_t nl;
    while ((nl = buf.find('\n')) == std::string::npos) {
      ssize_t n = read(in, chunk, sizeof chunk);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) _exit(0);
      buf.append(chunk, static_cast<size_t>(n));
    }
    std::string word = buf.substr(0, nl);
    buf.erase(0, nl + 1);
    uint64_t index;
    if (!parse_u64(word, index)) _exit(0);
    DeviceReport rep = live_device(c, index);
    if (!write_all(out, format_device_line(rep) + "\t" + encode_timeline(rep.timeline) + "\n")) _exit(1);
  }
}

volatile sig_atomic_t interrupted = 0;
void on_interrupt(int) { interrupted = 1; }

struct Worker {
  pid_t pid = -1;
  int to = -1;
  int from = -1;
  std::string buf;
  bool busy = false;
};

// Runs the shard's devices on `jobs` workers; results arrive in any order.
void run_devices(const LifeContext& c, const std::vector<uint64_t>& indices, uint64_t jobs, Results& results,
                 bool has_system) {
  Progress progress(indices.size());
  std::vector<Worker> workers(std::min<uint64_t>(jobs, indices.size()));
  for (auto& w : workers) {
    int down[2], up[2];
    if (pipe2(down, O_CLOEXEC) != 0 || pipe2(up, O_CLOEXEC) != 0) throw SimError("pipe failed");
    pid_t pid = fork();
    if (pid < 0) throw SimError("fork failed");
    if (pid == 0) {
      signal(SIGINT, SIG_DFL);
      signal(SIGTERM, SIG_DFL);
      close(down[1]);
      close(up[0]);
      worker(c, down[0], up[1]);
    }
    close(down[0]);
    close(up[1]);
    w.pid = pid;
    w.to = down[1];
    w.from = up[0];
  }
  size_t next = 0;
  auto give = [&](Worker& w) {
    if (next < indices.size()) {
      write_all(w.to, std::to_string(indices[next++]) + "\n");
      w.busy = true;
    } else if (w.to >= 0) {
      close(w.to);
      w.to = -1;
    }
  };
  for (auto& w : workers) give(w);
  // Ends the workers: at the end they see their input close; after a failure they are killed.
  auto stop_workers = [&](bool kill_them) {
    for (auto& w : workers) {
      if (w.to >= 0) close(w.to);
      w.to = -1;
      if (kill_them) kill(w.pid, SIGKILL);
      while (waitpid(w.pid, nullptr, 0) < 0 && errno == EINTR) {
      }
      if (w.from >= 0) close(w.from);
      w.from = -1;
    }
  };
  try {
    size_t received = 0;
    while (received < indices.size() && !interrupted) {
      std::vector<pollfd> fds;
      std::vector<Worker*> polled;
      for (auto& w : workers) {
        if (w.from < 0) continue;
        fds.push_back({w.from, POLLIN, 0});
        polled.push_back(&w);
      }
      if (fds.empty()) throw SimError("every worker process ended before the fleet was done");
      if (poll(fds.data(), fds.size(), 1000) < 0) {
        if (errno == EINTR) continue;
        throw SimError(std::string("poll failed: ") + strerror(errno));
      }
      for (size_t i = 0; i < fds.size(); i++) {
        if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        Worker& w = *polled[i];
        char chunk[65536];
        ssize_t n = read(w.from, chunk, sizeof chunk);
        if (n < 0) continue;
        if (n == 0) {
          close(w.from);
          w.from = -1;
          if (w.busy) throw SimError("a worker process ended before its device did");
          continue;
        }
        w.buf.append(chunk, static_cast<size_t>(n));
        size_t nl;
        while ((nl = w.buf.find('\n')) != std::string::npos) {
          std::string line = w.buf.substr(0, nl);
          w.buf.erase(0, nl + 1);
          size_t cut = line.rfind('\t');
          auto rep = cut == std::string::npos ? std::nullopt : parse_device_line(line.substr(0, cut));
          if (!rep) throw SimError("a worker sent a line that is no device: " + line);
          rep->timeline = decode_timeline(line.substr(cut + 1));
          add_to_rollout(results.rollout, *rep, has_system);
          rep->timeline.clear();
          progress.done(rep->outcome);
          results.devices.push_back(*rep);
          received++;
          w.busy = false;
          give(w);
        }
      }
    }
  } catch (...) {
    progress.end();
    stop_workers(true);
    throw;
  }
  progress.end();
  stop_workers(interrupted);
  if (interrupted) throw SimError("interrupted");
}

void sort_devices(Results& r) {
  std::sort(r.devices.begin(), r.devices.end(),
            [](const DeviceReport& a, const DeviceReport& b) { return a.index < b.index; });
}

int finish(const std::string& out, const Results& r) {
  write_results(out, r);
  std::map<std::string, uint64_t> counts;
  bool kept = false;
  for (auto& d : r.devices) {
    counts[d.outcome]++;
    kept = kept || d.kept != "-";
  }
  std::cout << "fleet: " << r.devices.size() << " devices:";
  for (const char* o : kOutcomes)
    if (counts[o]) std::cout << " " << o << " " << counts[o];
  std::cout << "\nfleet: wrote " << out << "/summary.md, devices.tsv, requests.tsv, rollout.tsv, rollout.png\n";
  return kept ? kExitKept : 0;
}

uint32_t share_arg(const std::string& option, const std::string& text) {
  uint32_t ppm;
  if (!parse_share_ppm(text, ppm)) throw UsageError(option + " wants a share from 0 to 1 (e.g. 0.05), not " + text);
  return ppm;
}

uint64_t count_arg(const std::string& option, const std::string& text) {
  uint64_t v;
  if (!parse_u64(text, v)) throw UsageError(option + " wants a number, not " + text);
  return v;
}

int run_fleet(int argc, char** argv) {
  FleetParams p;
  p.ota_binary = self_dir() + "/ota";
  std::string source, system_source, mix_file, out;
  uint64_t jobs = static_cast<uint64_t>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
  uint64_t shard = 0, shards = 1;
  bool have_devices = false, have_rounds = false;
  for (int i = 2; i < argc; i++) {
    std::string a = argv[i];
    if (i + 1 >= argc) throw UsageError(a.rfind("--", 0) == 0 ? a + " needs a value" : "unknown word " + a);
    std::string v = argv[++i];
    if (a == "--source") source = v;
    else if (a == "--system-source") system_source = v;
    else if (a == "--trusted") p.trusted_key_file = v;
    else if (a == "--spare") p.spare_key_file = v;
    else if (a == "--devices") p.devices = count_arg(a, v), have_devices = true;
    else if (a == "--rounds") p.rounds = count_arg(a, v), have_rounds = true;
    else if (a == "--out") out = v;
    else if (a == "--mix") mix_file = v;
    else if (a == "--seed") p.seed = count_arg(a, v);
    else if (a == "--power-cut") p.power_cut_ppm = share_arg(a, v);
    else if (a == "--fetch-fail") p.fetch_fail_ppm = share_arg(a, v);
    else if (a == "--jobs") jobs = count_arg(a, v);
    else if (a == "--binary") p.ota_binary = v;
    else if (a == "--shard") {
      size_t slash = v.find('/');
      if (slash == std::string::npos || !parse_u64(v.substr(0, slash), shard) ||
          !parse_u64(v.substr(slash + 1), shards) || shards == 0 || shard >= shards)
        throw UsageError("--shard wants I/N with I from 0 to N-1, not " + v);
    } else {
      throw UsageError("unknown option " + a);
    }
  }
  if (source.empty()) throw UsageError("--source is missing");
  if (p.trusted_key_file.empty()) throw UsageError("--trusted is missing");
  if (!have_devices || p.devices == 0) throw UsageError("--devices is missing (at least 1)");
  if (!have_rounds || p.rounds == 0) throw UsageError("--rounds is missing (at least 1)");
  if (out.empty()) throw UsageError("--out is missing");
  if (jobs == 0) throw UsageError("--jobs wants at least 1");

  if (geteuid() != 0) throw SimError("the devices need root (chroot and ptrace): run tavi-sim fleet as root");
  p.trusted_key_file = absolute_file(p.trusted_key_file, "the trusted key");
  if (read_host_file(p.trusted_key_file)->size() != 32) throw SimError(p.trusted_key_file + " is not a 32-byte public key");
  if (!p.spare_key_file.empty()) {
    p.spare_key_file = absolute_file(p.spare_key_file, "the spare key");
    if (read_host_file(p.spare_key_file)->size() != 32) throw SimError(p.spare_key_file + " is not a 32-byte public key");
  }
  p.ota_binary = absolute_file(p.ota_binary, "the device program");
  for (const char* tool : {"curl", "gnuplot"})
    if (!tool_present(tool))
      throw SimError(std::string(tool) + " is not installed (scripts/setup.sh installs it)");
  Release release = read_release(absolute_dir(source, "--source"),
                                 system_source.empty() ? "" : absolute_dir(system_source, "--system-source"));
  Mix mix = default_mix(release, !p.spare_key_file.empty());
  if (!mix_file.empty()) {
    auto text = read_host_file(mix_file);
    if (!text) throw SimError("cannot read the mix " + mix_file);
    mix = parse_mix(*text, mix_file, release, !p.spare_key_file.empty());
  }
  p.out = prepare_out(out);

  Results results;
  results.run = run_lines(p, release, mix);
  if (shards > 1) results.run.push_back({"shard", std::to_string(shard) + "/" + std::to_string(shards)});
  std::vector<uint64_t> indices;
  for (uint64_t i = shard; i < p.devices; i += shards) indices.push_back(i);

  LifeContext c;
  c.params = &p;
  c.release = &release;
  c.mix = &mix;
  std::string work = p.out + "/.fleet";
  c.scratch = scratch_dir(work, jobs);
  c.calls = calibrate(p, release, mix, c.scratch + "/calibration");
  Server server = start_server(release, work + "/nginx");
  c.port = server.port;
  struct sigaction sa{};
  sa.sa_handler = on_interrupt;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  try {
    run_devices(c, indices, jobs, results, release.has_system);
  } catch (...) {
    stop_server(server);
    remove_host_tree(c.scratch);
    remove_host_tree(work);
    throw;
  }
  results.traffic = stop_server(server);
  remove_host_tree(c.scratch);
  remove_host_tree(work);
  sort_devices(results);
  return finish(p.out, results);
}

int merge(int argc, char** argv) {
  std::vector<std::string> inputs;
  std::string out;
  for (int i = 3; i < argc; i++) {
    std::string a = argv[i];
    if (a == "--out") {
      if (i + 1 >= argc) throw UsageError("--out needs a directory");
      out = argv[++i];
    } else if (a.rfind("--", 0) == 0) {
      throw UsageError("unknown option " + a);
    } else {
      inputs.push_back(a);
    }
  }
  if (inputs.empty()) throw UsageError("which shards? give their OUT directories");
  if (out.empty()) throw UsageError("--out is missing");
  Results merged;
  std::vector<std::pair<std::string, std::string>> run;
  std::map<uint64_t, std::string> seen;  // device index -> the shard that ran it
  std::vector<std::pair<std::string, std::string>> kept;  // from, to (relative)
  for (auto& in : inputs) {
    std::string dir = absolute_dir(in, "a shard");
    Results r = read_results(dir);
    std::vector<std::pair<std::string, std::string>> lines;
    for (auto& l : r.run)
      if (l.first != "shard") lines.push_back(l);
    if (run.empty()) run = lines;
    else if (lines != run) throw SimError(in + " rehearsed another release or fleet than " + inputs[0] + " (run.tsv differs)");
    for (auto& d : r.devices) {
      if (!seen.emplace(d.index, in).second)
        throw SimError("device " + std::to_string(d.index) + " is in " + seen[d.index] + " and in " + in);
      if (d.kept != "-") kept.push_back({dir + "/" + d.kept, d.kept});
      merged.devices.push_back(d);
    }
    for (auto& [path, t] : r.traffic) {
      Traffic& m = merged.traffic[path];
      m.requests += t.requests;
      m.range_requests += t.range_requests;
      m.failed += t.failed;
      m.bytes += t.bytes;
    }
    for (auto& [k, n] : r.rollout) merged.rollout[k] += n;
  }
  merged.run = run;
  uint64_t devices = 0;
  for (auto& [k, v] : run)
    if (k == "devices") parse_u64(v, devices);
  for (uint64_t i = 0; i < devices; i++)
    if (!seen.count(i)) throw SimError("device " + std::to_string(i) + " is in none of the shards given");
  std::string dir = prepare_out(out);
  for (auto& [from, to] : kept) {
    make_host_dirs(parent_of(dir + "/" + to));
    ToolRun copy;
    copy.argv = {"cp", "-a", from, dir + "/" + to};
    if (run_tool(copy) != 0) throw SimError("cannot copy " + from + " to " + dir + "/" + to);
  }
  sort_devices(merged);
  return finish(dir, merged);
}

}  // namespace

int fleet_main(int argc, char** argv) {
  for (int i = 2; i < argc; i++) {
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      std::cout << kHelp;
      return 0;
    }
  }
  try {
    if (argc >= 3 && strcmp(argv[2], "merge") == 0) return merge(argc, argv);
    return run_fleet(argc, argv);
  } catch (const UsageError& e) {
    std::cerr << "tavi-sim fleet: " << e.what() << "\n" << kHelp;
    return 2;
  } catch (const std::exception& e) {
    std::cerr << "tavi-sim fleet: " << e.what() << "\n";
    return 1;
  }
}

}  // namespace tavisim::fleet
