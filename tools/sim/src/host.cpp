#include "host.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

extern char** environ;

namespace tavisim {

std::optional<std::string> read_host_file(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return std::nullopt;
  }
  std::string data;
  char buf[65536];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    data.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return data;
}

void write_host_file(const std::string& path, std::string_view data, mode_t mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) throw SimError("cannot write " + path + ": " + strerror(errno));
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      int e = errno;
      close(fd);
      throw SimError("cannot write " + path + ": " + strerror(e));
    }
    done += static_cast<size_t>(n);
  }
  fchmod(fd, mode);
  close(fd);
}

bool replace_host_file(const std::string& path, std::string_view data) {
  std::string beside = path + ".nw";
  write_host_file(beside, data);
  return rename(beside.c_str(), path.c_str()) == 0;
}

bool host_exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

bool host_is_dir(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void make_host_dirs(const std::string& path) {
  if (path.empty()) return;
  std::string cur;
  size_t i = 0;
  while (i <= path.size()) {
    size_t j = path.find('/', i);
    if (j == std::string::npos) j = path.size();
    cur = path.substr(0, j);
    if (!cur.empty() && mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST)
      throw SimError("cannot create directory " + cur + ": " + strerror(errno));
    i = j + 1;
  }
}

void remove_host_tree(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    if (DIR* d = opendir(path.c_str())) {
      std::vector<std::string> names;
      while (dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
      }
      closedir(d);
      for (auto& n : names) remove_host_tree(path + "/" + n);
    }
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

std::string join_path(std::string_view a, std::string_view b) {
  std::string r(a);
  if (b.empty()) return r;
  if (!r.empty() && r.back() == '/' && b.front() == '/') r.pop_back();
  else if (!r.empty() && r.back() != '/' && b.front() != '/') r += '/';
  r += b;
  return r;
}

std::string parent_of(const std::string& path) {
  size_t s = path.find_last_of('/');
  if (s == std::string::npos) return ".";
  if (s == 0) return "/";
  return path.substr(0, s);
}

namespace {

void walk(const std::string& base, const std::string& rel, const std::vector<std::string>& skip,
          TreeListing& out) {
  std::string dir = rel.empty() ? base : base + "/" + rel;
  DIR* d = opendir(dir.c_str());
  if (!d) return;
  std::vector<std::string> names;
  while (dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n != "." && n != "..") names.push_back(n);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  for (auto& n : names) {
    std::string r = rel.empty() ? n : rel + "/" + n;
    if (std::find(skip.begin(), skip.end(), r) != skip.end()) continue;
    struct stat st;
    if (lstat((base + "/" + r).c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      out.dirs.push_back(r);
      walk(base, r, skip, out);
    } else if (S_ISREG(st.st_mode)) {
      out.files.push_back(r);
    } else {
      out.others.push_back(r);
    }
  }
}

}  // namespace

TreeListing list_tree(const std::string& base, const std::vector<std::string>& skip) {
  TreeListing out;
  walk(base, "", skip, out);
  return out;
}

uint64_t tree_bytes(const std::string& base) {
  uint64_t total = 0;
  TreeListing t = list_tree(base);
  for (auto& f : t.files) {
    struct stat st;
    if (lstat((base + "/" + f).c_str(), &st) == 0) total += static_cast<uint64_t>(st.st_blocks) * 512;
  }
  return total;
}

bool ed25519_verifies(std::string_view key, std::string_view message, std::string_view sig) {
  if (key.size() != 32 || sig.size() != 64) return false;
  EVP_PKEY* pkey = EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr,
                                               reinterpret_cast<const unsigned char*>(key.data()), key.size());
  if (pkey == nullptr) return false;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  bool ok = ctx != nullptr && EVP_DigestVerifyInit(ctx, nullptr, nullptr, nullptr, pkey) == 1 &&
            EVP_DigestVerify(ctx, reinterpret_cast<const unsigned char*>(sig.data()), sig.size(),
                             reinterpret_cast<const unsigned char*>(message.data()), message.size()) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(pkey);
  return ok;
}

std::string sha256_hex(std::string_view data) {
  unsigned char md[32];
  unsigned int len = 0;
  EVP_Digest(data.data(), data.size(), md, &len, EVP_sha256(), nullptr);
  static const char* hex = "0123456789abcdef";
  std::string s;
  for (unsigned i = 0; i < len; i++) {
    s += hex[md[i] >> 4];
    s += hex[md[i] & 15];
  }
  return s;
}

uint64_t mix64(uint64_t a, uint64_t b) {
  uint64_t z = a + 0x9e3779b97f4a7c15ull * (b + 1);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  return z ^ (z >> 31);
}

std::string eight_digits(uint64_t v) {
  char buf[16];
  snprintf(buf, sizeof buf, "%08llu", static_cast<unsigned long long>(v % 100000000));
  return buf;
}

pid_t start_tool(const ToolRun& run, int* out_pipe, int* err_pipe) {
  std::vector<std::string> env_store;
  for (char** e = environ; e && *e; e++) env_store.emplace_back(*e);
  for (auto& kv : run.extra_env) {
    std::string key = kv.substr(0, kv.find('=') + 1);
    env_store.erase(std::remove_if(env_store.begin(), env_store.end(),
                                   [&](const std::string& s) { return s.compare(0, key.size(), key) == 0; }),
                    env_store.end());
    env_store.push_back(kv);
  }
  std::vector<char*> envp;
  for (auto& s : env_store) envp.push_back(const_cast<char*>(s.c_str()));
  envp.push_back(nullptr);
  std::vector<char*> argv;
  for (auto& s : run.argv) argv.push_back(const_cast<char*>(s.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  int op[2] = {-1, -1}, ep[2] = {-1, -1};
  if (run.stdout_fd >= 0) {
    posix_spawn_file_actions_adddup2(&fa, run.stdout_fd, 1);
  } else if (out_pipe) {
    if (pipe2(op, O_CLOEXEC) != 0) throw SimError("pipe failed");
    posix_spawn_file_actions_adddup2(&fa, op[1], 1);
  } else {
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
  }
  if (run.stderr_fd >= 0) {
    posix_spawn_file_actions_adddup2(&fa, run.stderr_fd, 2);
  } else if (err_pipe) {
    if (pipe2(ep, O_CLOEXEC) != 0) throw SimError("pipe failed");
    posix_spawn_file_actions_adddup2(&fa, ep[1], 2);
  } else {
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
  }
  if (!run.cwd.empty()) posix_spawn_file_actions_addchdir_np(&fa, run.cwd.c_str());

  // The simulator keeps SIGCHLD blocked while it serves; helpers start with a clean mask
  // and default dispositions.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t empty, defaults;
  sigemptyset(&empty);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGCHLD);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGTERM);
  posix_spawnattr_setsigmask(&attr, &empty);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  pid_t pid = -1;
  int rc = run.file.empty() ? posix_spawnp(&pid, argv[0], &fa, &attr, argv.data(), envp.data())
                            : posix_spawn(&pid, run.file.c_str(), &fa, &attr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&fa);
  posix_spawnattr_destroy(&attr);
  if (op[1] >= 0) close(op[1]);
  if (ep[1] >= 0) close(ep[1]);
  if (rc != 0) {
    if (op[0] >= 0) close(op[0]);
    if (ep[0] >= 0) close(ep[0]);
    return -1;
  }
  if (out_pipe) *out_pipe = op[0];
  if (err_pipe) *err_pipe = ep[0];
  return pid;
}

int run_tool(const ToolRun& run) {
  int op = -1, ep = -1;
  pid_t pid = start_tool(run, run.out ? &op : nullptr, run.err ? &ep : nullptr);
  if (pid < 0) return -1;
  // Read both pipes together so a chatty helper never blocks on a full one.
  while (op >= 0 || ep >= 0) {
    pollfd fds[2];
    int n = 0;
    if (op >= 0) fds[n++] = {op, POLLIN, 0};
    if (ep >= 0) fds[n++] = {ep, POLLIN, 0};
    if (poll(fds, n, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < n; i++) {
      if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buf[8192];
      ssize_t r = read(fds[i].fd, buf, sizeof buf);
      bool is_out = fds[i].fd == op;
      if (r > 0) {
        (is_out ? run.out : run.err)->append(buf, static_cast<size_t>(r));
      } else if (r == 0 || errno != EINTR) {
        close(fds[i].fd);
        (is_out ? op : ep) = -1;
      }
    }
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return -1;
}

std::string escape_field(std::string_view s) {
  std::string r;
  for (char c : s) {
    switch (c) {
      case '\\': r += "\\\\"; break;
      case '\t': r += "\\t"; break;
      case '\n': r += "\\n"; break;
      case '\r': r += "\\r"; break;
      default: r += c;
    }
  }
  return r;
}

std::string unescape_field(std::string_view s) {
  std::string r;
  for (size_t i = 0; i < s.size(); i++) {
    if (s[i] != '\\' || i + 1 == s.size()) {
      r += s[i];
      continue;
    }
    char c = s[++i];
    switch (c) {
      case 't': r += '\t'; break;
      case 'n': r += '\n'; break;
      case 'r': r += '\r'; break;
      default: r += c;
    }
  }
  return r;
}

std::vector<std::string> split_words(std::string_view line) {
  std::vector<std::string> w;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) i++;
    size_t j = i;
    while (j < line.size() && line[j] != ' ' && line[j] != '\t') j++;
    if (j > i) w.emplace_back(line.substr(i, j - i));
    i = j;
  }
  return w;
}

std::vector<std::string> tab_fields(std::string_view line) {
  std::vector<std::string> f;
  size_t i = 0;
  for (;;) {
    size_t t = line.find('\t', i);
    f.emplace_back(line.substr(i, t == std::string_view::npos ? std::string_view::npos : t - i));
    if (t == std::string_view::npos) return f;
    i = t + 1;
  }
}

std::vector<std::string> text_lines(std::string_view text) {
  std::vector<std::string> lines;
  size_t i = 0;
  while (i < text.size()) {
    size_t end = text.find('\n', i);
    if (end == std::string_view::npos) end = text.size();
    std::string_view l = text.substr(i, end - i);
    if (!l.empty() && l.back() == '\r') l.remove_suffix(1);
    lines.emplace_back(l);
    i = end + 1;
  }
  return lines;
}

std::string trim(std::string_view s) {
  size_t a = 0, b = s.size();
  while (a < b && (s[a] == ' ' || s[a] == '\t' || s[a] == '\r' || s[a] == '\n')) a++;
  while (b > a && (s[b - 1] == ' ' || s[b - 1] == '\t' || s[b - 1] == '\r' || s[b - 1] == '\n')) b--;
  return std::string(s.substr(a, b - a));
}

bool parse_u64(std::string_view s, uint64_t& out) {
  if (s.empty() || s.size() > 20) return false;
  uint64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    uint64_t d = static_cast<uint64_t>(c - '0');
    if (v > (UINT64_MAX - d) / 10) return false;
    v = v * 10 + d;
  }
  out = v;
  return true;
}

bool parse_i64(std::string_view s, int64_t& out) {
  bool neg = false;
  if (!s.empty() && (s[0] == '-' || s[0] == '+')) {
    neg = s[0] == '-';
    s.remove_prefix(1);
  }
  uint64_t v;
  if (!parse_u64(s, v) || v > static_cast<uint64_t>(INT64_MAX)) return false;
  out = neg ? -static_cast<int64_t>(v) : static_cast<int64_t>(v);
  return true;
}

bool parse_seconds(std::string_view s, int64_t& ns) {
  size_t dot = s.find('.');
  std::string_view whole = s.substr(0, dot);
  std::string_view frac = dot == std::string_view::npos ? std::string_view() : s.substr(dot + 1);
  uint64_t w = 0;
  if (whole.empty() && frac.empty()) return false;
  if (!whole.empty() && !parse_u64(whole, w)) return false;
  if (frac.size() > 9) return false;
  uint64_t f = 0;
  if (!frac.empty() && !parse_u64(frac, f)) return false;
  for (size_t i = frac.size(); i < 9; i++) f *= 10;
  if (w > 9000000000ull) return false;
  ns = static_cast<int64_t>(w * 1000000000ull + f);
  return true;
}

std::string format_seconds_ms(int64_t ns) {
  bool neg = ns < 0;
  uint64_t v = static_cast<uint64_t>(neg ? -ns : ns) / 1000000;
  char buf[48];
  snprintf(buf, sizeof buf, "%s%llu.%03llu", neg ? "-" : "", static_cast<unsigned long long>(v / 1000),
           static_cast<unsigned long long>(v % 1000));
  return buf;
}

}  // namespace tavisim
