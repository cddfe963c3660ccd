#pragma once
// Shared pieces of the fuzz targets: a scratch device root that the device code's
// absolute paths are taken below, silenced standard output and error, small file helpers,
// and a check that stops the run with a message when a property does not hold.
#include <dirent.h>
#include <errno.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sanitizer/asan_interface.h>
#include <stddef.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "runtime/syscall.h"
#include "trust/catalog_text.h"

// A property of the code under test failed: say which and abort, which libFuzzer reports
// as a crash together with the input.
[[noreturn]] inline void fuzz_failure(const char* file, int line, const char* what) {
  fprintf(stderr, "\nfuzz check failed at %s:%d: %s\n", file, line, what);
  abort();
}
#define FUZZ_CHECK(cond)                                     \
  do {                                                       \
    if (!(cond)) fuzz_failure(__FILE__, __LINE__, #cond);    \
  } while (0)

// The device code syncs after its important writes. Thousands of whole-system syncs a
// second would slow the fuzzing down to the pace of the disk and everything else on the
// machine with it, and the scratch root lives in memory anyway: so in a fuzz process the
// kernel answers sync with success without doing it. Every other call goes through.
inline bool answer_sync_without_syncing() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 0, 2),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sync, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program = {static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}
inline const bool sync_answered = answer_sync_without_syncing();

// Descriptors 1 and 2 go to /dev/null while the object lives: the device code prints its
// messages with raw writes, and a fuzzer printing them for every input would crawl.
class Silence {
 public:
  Silence() {
    null_ = open("/dev/null", O_WRONLY);
    saved_out_ = dup(1);
    saved_err_ = dup(2);
    dup2(null_, 1);
    dup2(null_, 2);
  }
  ~Silence() {
    dup2(saved_out_, 1);
    dup2(saved_err_, 2);
    close(saved_out_);
    close(saved_err_);
    close(null_);
  }

 private:
  int null_;
  int saved_out_;
  int saved_err_;
};

inline void remove_tree(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    if (DIR* d = opendir(path.c_str())) {
      std::vector<std::string> names;
      while (dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
      }
      closedir(d);
      for (const std::string& n : names) remove_tree(path + "/" + n);
    }
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

// Every path below a directory, relative to it, in a sorted list ("a", "a/b", ...).
inline void list_tree(const std::string& base, const std::string& rel, std::vector<std::string>* out) {
  std::string dir = rel.empty() ? base : base + "/" + rel;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  std::vector<std::string> names;
  while (dirent* e = readdir(d)) {
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
  }
  closedir(d);
  for (const std::string& n : names) {
    std::string r = rel.empty() ? n : rel + "/" + n;
    out->push_back(r);
    struct stat st;
    if (lstat((base + "/" + r).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) list_tree(base, r, out);
  }
}

// The device root of the fuzz run: made once, in memory-backed /dev/shm when there is
// one, removed when the process ends. Every absolute path of the device code is taken
// below it.
class DeviceRoot {
 public:
  static DeviceRoot& get() {
    static DeviceRoot root;
    return root;
  }
  const std::string& path() const { return path_; }
  std::string path(const std::string& device_path) const { return path_ + device_path; }

  // Back to the directories the device keeps its state in, with nothing in them.
  void reset() {
    remove_tree(path_);
    mkdir(path_.c_str(), 0700);
    for (const char* d : {"/etc", "/system", "/tmp", "/tmp/ota", "/proc", "/bin", "/sysesp"}) {
      mkdir((path_ + d).c_str(), 0700);
    }
  }
  void put(const std::string& device_path, const void* data, size_t n) const {
    int fd = open(path(device_path).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) fuzz_failure(__FILE__, __LINE__, "cannot write a file of the scratch root");
    const char* p = static_cast<const char*>(data);
    while (n > 0) {
      ssize_t w = write(fd, p, n);
      if (w <= 0) fuzz_failure(__FILE__, __LINE__, "cannot write a file of the scratch root");
      p += w;
      n -= static_cast<size_t>(w);
    }
    close(fd);
  }
  void put(const std::string& device_path, const std::string& content) const {
    put(device_path, content.data(), content.size());
  }
  // The file's bytes; has is false when it cannot be opened.
  std::string get(const std::string& device_path, bool* has = nullptr) const {
    std::string s;
    int fd = open(path(device_path).c_str(), O_RDONLY);
    if (has != nullptr) *has = fd >= 0;
    if (fd < 0) return s;
    char buf[4096];
    for (;;) {
      ssize_t r = read(fd, buf, sizeof buf);
      if (r <= 0) break;
      s.append(buf, static_cast<size_t>(r));
    }
    close(fd);
    return s;
  }
  bool has(const std::string& device_path) const { return access(path(device_path).c_str(), F_OK) == 0; }
  void remove(const std::string& device_path) const { unlink(path(device_path).c_str()); }

 private:
  DeviceRoot() {
    const char* base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    remove_orphans(base);
    std::string tmpl = std::string(base) + "/ota-fuzz-" + std::to_string(getpid()) + "-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back(0);
    if (mkdtemp(buf.data()) == nullptr) fuzz_failure(__FILE__, __LINE__, "cannot make the scratch root");
    path_ = buf.data();
    snprintf(ota::host_root, sizeof ota::host_root, "%s", path_.c_str());
    reset();
    atexit([] { remove_tree(DeviceRoot::get().path()); });
  }
  // A run that ends by a crash or by libFuzzer's own exit never removes its root; the
  // roots are named with their process id, so the next run removes those whose process
  // is gone.
  static void remove_orphans(const char* base) {
    DIR* d = opendir(base);
    if (d == nullptr) return;
    std::vector<std::string> orphans;
    while (dirent* e = readdir(d)) {
      long pid = 0;
      if (sscanf(e->d_name, "ota-fuzz-%ld-", &pid) == 1 && pid > 0 && kill(static_cast<pid_t>(pid), 0) != 0 &&
          errno == ESRCH) {
        orphans.push_back(std::string(base) + "/" + e->d_name);
      }
    }
    closedir(d);
    for (const std::string& o : orphans) remove_tree(o);
  }
  std::string path_;
};

// Reads a length-prefixed piece off the front of a fuzz input: a 16-bit length, then the
// bytes (cut to what is there and to limit). What is left stays in data and size.
inline std::string take_piece(const uint8_t*& data, size_t& size, size_t limit) {
  if (size < 2) {
    data += size;
    size = 0;
    return std::string();
  }
  size_t n = static_cast<size_t>(data[0]) | static_cast<size_t>(data[1]) << 8;
  data += 2;
  size -= 2;
  if (n > limit) n = limit;
  if (n > size) n = size;
  std::string s(reinterpret_cast<const char*>(data), n);
  data += n;
  size -= n;
  return s;
}

// The decimal reader's rule, written again from its description: no digit first gives 0,
// digits are read up to the first non-digit, and from 10^18 on they no longer count.
inline uint64_t reference_decimal(const char* s, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n && s[i] >= '0' && s[i] <= '9'; i++) {
    if (v < 1000000000000000000ull) v = v * 10 + static_cast<uint64_t>(s[i] - '0');
  }
  return v;
}
inline uint64_t reference_decimal(const std::string& s) { return reference_decimal(s.data(), s.size()); }

// Puts text into a program-wide buffer the way its loader does (the bytes, a closing 0,
// the length) and poisons the rest of the buffer, so that a reader going past the closing
// 0 is caught although it stays inside the buffer.
inline void hold_text(char* buffer, size_t capacity, size_t* length, const std::string& text) {
  ASAN_UNPOISON_MEMORY_REGION(buffer, capacity);
  memcpy(buffer, text.data(), text.size());
  buffer[text.size()] = 0;
  *length = text.size();
  ASAN_POISON_MEMORY_REGION(buffer + text.size() + 1, capacity - text.size() - 1);
}

// The catalog text as the catalog load leaves it (at most 32,767 bytes are read).
inline std::string hold_catalog(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size < ota::kCatalogBytes ? size : ota::kCatalogBytes);
  hold_text(ota::catalog.text, sizeof ota::catalog.text, &ota::catalog.length, text);
  ota::hold_catalog_text(text.size());
  return text;
}
