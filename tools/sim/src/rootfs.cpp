#include "rootfs.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vector>

#include "host.h"

namespace tavisim {

namespace {

int openat2_in(int dirfd, const std::string& path, int flags, mode_t mode) {
  open_how how{};
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
  how.mode = (flags & O_CREAT) ? mode : 0;
  how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
  size_t skip = 0;
  while (skip < path.size() && path[skip] == '/') skip++;
  const char* rel = skip == path.size() ? "." : path.c_str() + skip;
  long fd = syscall(SYS_openat2, dirfd, rel, &how, sizeof how);
  return fd < 0 ? -errno : static_cast<int>(fd);
}

}  // namespace

RootFs::RootFs(const std::string& root) : root_(root) {
  fd_ = ::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd_ < 0) throw SimError("cannot open the device root " + root);
}

RootFs::~RootFs() {
  if (fd_ >= 0) close(fd_);
}

std::string RootFs::normalize(std::string_view path) {
  std::vector<std::string> parts;
  size_t i = 0;
  while (i <= path.size()) {
    size_t j = path.find('/', i);
    if (j == std::string_view::npos) j = path.size();
    std::string_view c = path.substr(i, j - i);
    if (c == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!c.empty() && c != ".") {
      parts.emplace_back(c);
    }
    i = j + 1;
  }
  std::string out;
  for (auto& p : parts) out += "/" + p;
  return out.empty() ? "/" : out;
}

int RootFs::open(std::string_view path, int flags, mode_t mode) const {
  return openat2_in(fd_, std::string(path), flags, mode);
}

std::optional<std::string> RootFs::read(std::string_view path) const {
  int fd = open(path, O_RDONLY);
  if (fd < 0) return std::nullopt;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return std::nullopt;
  }
  std::string data;
  char buf[65536];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    data.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return data;
}

bool RootFs::write(std::string_view path, std::string_view data, bool append) const {
  int fd = open(path, O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC), 0644);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  close(fd);
  return true;
}

bool RootFs::exists(std::string_view path) const {
  int fd = open(path, O_PATH | O_NOFOLLOW);
  if (fd < 0) return false;
  close(fd);
  return true;
}

bool RootFs::is_dir(std::string_view path) const {
  int fd = open(path, O_PATH | O_DIRECTORY);
  if (fd < 0) return false;
  close(fd);
  return true;
}

bool RootFs::remove(std::string_view path) const {
  std::string n = normalize(path);
  if (n == "/") return false;
  size_t s = n.find_last_of('/');
  int dir = open(n.substr(0, s == 0 ? 1 : s), O_PATH | O_DIRECTORY);
  if (dir < 0) return false;
  std::string base = n.substr(s + 1);
  bool ok = unlinkat(dir, base.c_str(), 0) == 0 || unlinkat(dir, base.c_str(), AT_REMOVEDIR) == 0;
  close(dir);
  return ok;
}

bool RootFs::make_dirs(std::string_view path) const {
  std::string n = normalize(path);
  size_t i = 1;
  while (i <= n.size()) {
    size_t j = n.find('/', i);
    if (j == std::string::npos) j = n.size();
    std::string prefix = n.substr(0, j);
    if (!is_dir(prefix)) {
      size_t s = prefix.find_last_of('/');
      int dir = open(prefix.substr(0, s == 0 ? 1 : s), O_PATH | O_DIRECTORY);
      if (dir < 0) return false;
      int rc = mkdirat(dir, prefix.substr(s + 1).c_str(), 0755);
      close(dir);
      if (rc != 0 && errno != EEXIST) return false;
    }
    i = j + 1;
  }
  return true;
}

}  // namespace tavisim
