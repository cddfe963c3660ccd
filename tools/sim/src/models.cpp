// The outside programs the device program starts: /bin/fetch, /bin/tpk, /bin/sntp and
// /bin/rootsctl as small models, or any of them (and any other path) as a host executable
// named in the device configuration. docs/simulator.md describes each model.

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "host.h"
#include "kernel.h"
#include "trial_record.h"

namespace tavisim {

namespace {

struct FetchArgs {
  std::string out;
  uint64_t offset = 0;
  bool resume = false;
  std::string url;
};

// /bin/fetch -o PATH [-n NAME] [-b OFFSET] URL, options in any order before the URL.
bool parse_fetch_words(const std::vector<std::string>& w, FetchArgs& a) {
  for (size_t i = 1; i < w.size(); i++) {
    if (w[i] == "-o" || w[i] == "-n" || w[i] == "-b") {
      if (i + 1 >= w.size()) return false;
      const std::string& v = w[++i];
      // -n names the download for a progress display, which the model does not show.
      if (w[i - 1] == "-o") {
        a.out = v;
      } else if (w[i - 1] == "-b") {
        if (!parse_u64(v, a.offset)) return false;
        a.resume = true;
      }
    } else if (a.url.empty()) {
      a.url = w[i];
    } else {
      return false;
    }
  }
  return !a.out.empty() && !a.url.empty();
}

std::string fault_key(const FetchFault& f, size_t index) {
  static const char* kinds[] = {"fail", "stop", "corrupt", "length", "hold"};
  return "fetch-fault " + f.name + " " + kinds[static_cast<int>(f.kind)] + " " + std::to_string(f.arg) + " " +
         std::to_string(f.times) + " #" + std::to_string(index);
}

// A number file of the device: the digits among its first eight bytes; short or missing: 0.
uint64_t read_number(const RootFs& fs, const std::string& path) {
  auto text = fs.read(path);
  if (!text || text->size() < 8) return 0;
  uint64_t v = 0;
  for (size_t i = 0; i < 8; i++)
    if ((*text)[i] >= '0' && (*text)[i] <= '9') v = v * 10 + static_cast<uint64_t>((*text)[i] - '0');
  return v;
}

// A line of the installer's INDEX: name, version, file and its SHA-256, which the model
// does not check.
struct IndexEntry {
  std::string name, version, file;
};

std::vector<IndexEntry> parse_index(const std::string& text) {
  std::vector<IndexEntry> out;
  for (const std::string& line : text_lines(text)) {
    std::vector<std::string> f = tab_fields(line);
    if (f.size() >= 3 && !f[0].empty()) out.push_back({f[0], f[1], f[2]});
  }
  return out;
}

// The installer's list of installed packages: lines "name TAB version".
std::vector<std::pair<std::string, std::string>> parse_installed(const std::string& text) {
  std::vector<std::pair<std::string, std::string>> out;
  size_t i = 0;
  while (i < text.size()) {
    size_t n = text.find('\n', i);
    if (n == std::string::npos) n = text.size();
    std::string line = text.substr(i, n - i);
    size_t t = line.find('\t');
    if (t != std::string::npos && t > 0) out.emplace_back(line.substr(0, t), line.substr(t + 1));
    i = n + 1;
  }
  return out;
}

std::string format_installed(const std::vector<std::pair<std::string, std::string>>& list) {
  std::string s;
  for (auto& [n, v] : list) s += n + "\t" + v + "\n";
  return s;
}

constexpr const char* kTpkState = "/system/tpk";
constexpr const char* kTpkInstalled = "/system/tpk/installed";
constexpr const char* kGeneration = "/system/AKTUELL";
// A trial record is exactly this long (the device's own layout); byte 34 is its ok digit.
constexpr size_t kTrialRecordBytes = ota::kTrialRecordBytes;
constexpr size_t kTrialOkDigit = ota::kTrialOkOffset;
// The keys a device trusts, as it keeps them: the first 32 bytes of each file count.
constexpr const char* kTrustedKeyFile = "/system/schluessel.pub";
constexpr const char* kSpareKeyFile = "/system/ersatz.pub";
constexpr size_t kKeyBytes = ota::kPublicKeyBytes;
constexpr size_t kSignatureBytes = ota::kSignatureBytes;
// Exit code of `catalog` and `update` when INDEX.sig is not a signature of INDEX by one of
// those keys.
constexpr int kIndexNotSigned = 5;

// Whether DIR/INDEX.sig signs the INDEX text with the device's trusted key or its spare
// key. A real installer checks this before it believes a word of the index: an index
// changed on the way would otherwise make it report packages current, or install what
// nobody signed.
bool index_signed(const RootFs& fs, const std::string& dir, const std::string& index) {
  auto sig = fs.read(dir + "/INDEX.sig");
  if (!sig || sig->size() < kSignatureBytes) return false;
  for (const char* path : {kTrustedKeyFile, kSpareKeyFile}) {
    auto key = fs.read(path);
    if (!key || key->size() < kKeyBytes) continue;
    if (ed25519_verifies(key->substr(0, kKeyBytes), index, sig->substr(0, kSignatureBytes))) return true;
  }
  return false;
}

}  // namespace

bool Kernel::fault_applies(const std::string& key, int64_t times) {
  int64_t& used = st_.counters[key];
  if (times != 0 && used >= times) return false;
  used++;
  return true;
}

bool Kernel::fetch_should_hold(const std::vector<std::string>& words, std::string* name) {
  FetchArgs a;
  if (!parse_fetch_words(words, a)) return false;
  std::string file = url_file_name(a.url);
  for (size_t i = 0; i < cfg_.fetch_faults.size(); i++) {
    const FetchFault& f = cfg_.fetch_faults[i];
    if (f.kind != FetchFaultKind::hold || f.name != file) continue;
    if (fault_applies(fault_key(f, i), f.times)) {
      *name = file;
      return true;
    }
  }
  return false;
}

int64_t Kernel::start_program(Process& t, const std::string& path, const std::vector<std::string>& words) {
  pid_t caller = t.pid;
  int status;  // as wait4 reports it
  auto o = cfg_.programs.find(path);
  if (o != cfg_.programs.end()) {
    status = run_host_program(t, o->second, words);
    if (status < 0) {
      std::vector<std::string> fields = {"result=" + std::to_string(-ENOENT)};
      fields.insert(fields.end(), words.begin(), words.end());
      log("spawn", caller, fields);
      return -ENOENT;
    }
  } else if (path == "/bin/fetch") {
    status = model_fetch(t, words) << 8;
  } else if (path == "/bin/tpk") {
    status = model_tpk(t, words) << 8;
  } else if (path == "/bin/sntp") {
    status = model_sntp() << 8;
  } else if (path == "/bin/rootsctl") {
    status = model_rootsctl(t, words) << 8;
  } else {
    return -ENOENT;
  }
  int64_t id = st_.next_spawn_id++;
  spawned_[id] = status;
  std::vector<std::string> fields = {(status & 0x7f) ? "signal=" + std::to_string(status & 0x7f)
                                                     : "exit=" + std::to_string((status >> 8) & 255)};
  fields.insert(fields.end(), words.begin(), words.end());
  log("spawn", caller, fields);
  return id;
}

int Kernel::run_host_program(Process& t, const std::string& host, const std::vector<std::string>& words) {
  ToolRun run;
  run.file = host;
  run.argv = words;
  run.cwd = root_;
  run.extra_env = {"TAVI_ROOT=" + root_};
  // The program writes where its caller writes: the caller's own descriptors 1 and 2.
  int pidfd = static_cast<int>(syscall(SYS_pidfd_open, t.pid, 0));
  int out = pidfd >= 0 ? static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, 1, 0)) : -1;
  int err = pidfd >= 0 ? static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, 2, 0)) : -1;
  run.stdout_fd = out;
  run.stderr_fd = err;
  pid_t pid = start_tool(run, nullptr, nullptr);
  for (int fd : {out, err, pidfd})
    if (fd >= 0) close(fd);
  if (pid < 0) return -1;
  for (;;) {
    int status = 0;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return status;
    if (r < 0 && errno != EINTR) return -1;
    if (serve_wall_ && std::chrono::steady_clock::now() >= *serve_wall_) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return status;
    }
    // The program may write into a pipe the simulator reads: keep reading while it runs.
    drain_pipes();
    pollfd p{tracer_.wakeup_fd(), POLLIN, 0};
    poll(&p, 1, 5);
  }
}

int Kernel::model_fetch(Process& t, const std::vector<std::string>& words) {
  FetchArgs a;
  if (!parse_fetch_words(words, a)) return 2;
  std::string file = url_file_name(a.url);
  auto fault = [&](const char* what, const std::string& detail) {
    log("fault", t.pid, {"fetch", file, what, detail});
  };
  for (size_t i = 0; i < cfg_.fetch_faults.size(); i++) {
    const FetchFault& f = cfg_.fetch_faults[i];
    if (f.name == file && f.kind == FetchFaultKind::fail && fault_applies(fault_key(f, i), f.times)) {
      fault("fail", "exit=1");
      return 1;
    }
  }
  std::string piece;
  if (cfg_.fetch_curl) {
    if (a.url.rfind("http://127.0.0.1:", 0) != 0 && a.url.rfind("http://127.0.0.1/", 0) != 0) {
      fault("refused", "only http://127.0.0.1 is fetched for real");
      return 1;
    }
    ToolRun run;
    run.argv = {"curl", "-q", "-s", "-f", "--max-time", "60", "-o", "-"};
    if (a.resume) {
      run.argv.push_back("-C");
      run.argv.push_back(std::to_string(a.offset));
    }
    run.argv.push_back(a.url);
    std::string err;
    run.out = &piece;
    run.err = &err;
    if (run_tool(run) != 0) return 1;
  } else {
    auto host = map_url(cfg_.repos, a.url);
    if (!host) return 1;
    auto data = read_host_file(*host);
    if (!data) return 1;
    for (size_t i = 0; i < cfg_.fetch_faults.size(); i++) {
      const FetchFault& f = cfg_.fetch_faults[i];
      if (f.name != file) continue;
      if (f.kind == FetchFaultKind::length && fault_applies(fault_key(f, i), f.times)) {
        if (f.arg >= 0) data->append(static_cast<size_t>(f.arg), 'Z');
        else data->resize(data->size() - std::min<size_t>(data->size(), static_cast<size_t>(-f.arg)));
        fault("length", std::to_string(f.arg));
      } else if (f.kind == FetchFaultKind::corrupt && fault_applies(fault_key(f, i), f.times)) {
        if (static_cast<uint64_t>(f.arg) < data->size()) (*data)[static_cast<size_t>(f.arg)] ^= 0x5a;
        fault("corrupt", std::to_string(f.arg));
      }
    }
    if (a.offset > data->size()) return 1;
    piece = data->substr(a.offset);
  }
  bool stopped = false;
  for (size_t i = 0; i < cfg_.fetch_faults.size(); i++) {
    const FetchFault& f = cfg_.fetch_faults[i];
    if (f.name == file && f.kind == FetchFaultKind::stop && fault_applies(fault_key(f, i), f.times)) {
      if (piece.size() > static_cast<uint64_t>(f.arg)) piece.resize(static_cast<size_t>(f.arg));
      stopped = true;
      fault("stop", std::to_string(f.arg));
    }
  }
  if (cfg_.fetch_drop_ppm > 0) {
    // Two draws per fetch: whether the link drops, and after how many of the bytes.
    int64_t& n = st_.counters["fetch-drop"];
    uint64_t chance = mix64(cfg_.fetch_drop_seed, static_cast<uint64_t>(n) * 2);
    uint64_t point = mix64(cfg_.fetch_drop_seed, static_cast<uint64_t>(n) * 2 + 1);
    n++;
    if (chance % 1000000 < cfg_.fetch_drop_ppm) {
      piece.resize(static_cast<size_t>(point % (piece.size() + 1)));
      stopped = true;
      fault("drop", std::to_string(piece.size()));
    }
  }
  if (!fs_.write(device_path(t, a.out), piece, a.resume)) return 1;
  return stopped ? 1 : 0;
}

int Kernel::model_tpk(Process& t, const std::vector<std::string>& w) {
  std::string verb = w.size() > 1 ? w[1] : "";
  auto configured_failure = [&](const std::string& use) {
    auto it = cfg_.tpk_fail.find(use);
    return it == cfg_.tpk_fail.end() ? 0 : it->second;
  };
  auto installed = [&]() { return parse_installed(fs_.read(kTpkInstalled).value_or("")); };
  // With signed indexes asked for, an INDEX no trusted key signed is refused, and noted.
  auto index_refused = [&](const std::string& dir, const std::string& index) {
    if (!cfg_.tpk_index_signed || index_signed(fs_, dir, index)) return false;
    log("tpk", t.pid, {"index-refused", dir + "/INDEX"});
    return true;
  };
  fs_.make_dirs(kTpkState);

  if (verb == "catalog") {
    if (int code = configured_failure("catalog")) return code;
    if (w.size() < 4) return 64;
    if (!cfg_.tpk_catalog_file.empty()) {
      auto exact = read_host_file(cfg_.tpk_catalog_file);
      if (!exact) return 1;
      return fs_.write(w[3], *exact) ? 0 : 1;
    }
    auto index = fs_.read(w[2] + "/INDEX");
    if (!index) return 1;
    if (index_refused(w[2], *index)) return kIndexNotSigned;
    auto have = installed();
    std::string out;
    for (auto& e : parse_index(*index)) {
      bool current = false;
      for (auto& [n, v] : have) current = current || (n == e.name && v == e.version);
      out += e.name + "\t" + e.version + "\t" + (current ? "1" : "0") + "\n";
    }
    return fs_.write(w[3], out) ? 0 : 1;
  }

  if (verb == "update") {
    if (w.size() < 3) return 64;
    const std::string& name = w[2];
    if (int code = configured_failure("update:" + name)) return code;
    if (int code = configured_failure("update")) return code;
    std::string source = "/tmp/ota";
    for (size_t i = 3; i + 1 < w.size(); i++)
      if (w[i] == "--source") source = w[i + 1];
    auto index = fs_.read(source + "/INDEX");
    if (!index) return 2;
    if (index_refused(source, *index)) return kIndexNotSigned;
    const IndexEntry* entry = nullptr;
    auto entries = parse_index(*index);
    for (auto& e : entries)
      if (e.name == name) entry = &e;
    if (!entry) return 2;
    if (!fs_.exists(source + "/" + entry->file)) return 3;
    auto list = installed();
    auto record = fs_.read(kTrialRecordPath);
    if (!trial_open(record)) {
      // The first update opens a trial: a new generation, the old list kept as `vor`.
      uint64_t before = read_number(fs_, kGeneration);
      uint64_t gen = before + 1;
      fs_.make_dirs(std::string(kTpkState) + "/gen");
      if (!fs_.write(std::string(kTpkState) + "/gen/" + eight_digits(before), format_installed(list))) return 4;
      if (!fs_.write(kGeneration, eight_digits(gen) + "\n")) return 4;
      if (!fs_.write(kTrialRecordPath, open_trial_record(gen, before))) return 4;
    }
    bool replaced = false;
    for (auto& [n, v] : list)
      if (n == name) {
        v = entry->version;
        replaced = true;
      }
    if (!replaced) list.emplace_back(name, entry->version);
    return fs_.write(kTpkInstalled, format_installed(list)) ? 0 : 4;
  }

  if (verb == "trial") {
    if (int code = configured_failure("trial")) return code;
    if (w.size() < 3 || w[2] != "ok") return 64;
    auto record = fs_.read(kTrialRecordPath);
    if (!record || record->size() != kTrialRecordBytes) return 1;
    (*record)[kTrialOkDigit] = '1';
    return fs_.write(kTrialRecordPath, *record) ? 0 : 1;
  }

  if (verb == "rollback") {
    if (int code = configured_failure("rollback")) return code;
    if (w.size() < 3) return 64;
    uint64_t gen;
    if (!parse_u64(w[2], gen)) return 2;
    auto snapshot = fs_.read(std::string(kTpkState) + "/gen/" + eight_digits(gen));
    if (!snapshot) return 2;
    if (!fs_.write(kTpkInstalled, *snapshot)) return 4;
    if (!fs_.write(kGeneration, eight_digits(gen) + "\n")) return 4;
    fs_.remove(kTrialRecordPath);
    return 0;
  }

  if (verb == "rebuild") {
    if (int code = configured_failure("rebuild")) return code;
    return 0;
  }
  return 64;
}

int Kernel::model_sntp() {
  if (cfg_.sntp_fail) return cfg_.sntp_fail;
  return fs_.write("/system/clock.stand", "S\n") ? 0 : 1;
}

int Kernel::model_rootsctl(Process& t, const std::vector<std::string>& w) {
  if (cfg_.rootsctl_fail) return cfg_.rootsctl_fail;
  if (w.size() < 3 || w[1] != "apply") return 64;
  auto data = fs_.read(device_path(t, w[2]));
  if (!data) return 1;
  log("rootsctl", t.pid, {"sha256=" + sha256_hex(*data), "size=" + std::to_string(data->size()), w[2]});
  make_host_dirs(dir_ + "/rootsctl");
  write_host_file(dir_ + "/rootsctl/applied.pem", *data);
  return 0;
}

}  // namespace tavisim
