#pragma once
// Helpers shared by the unit tests: a scratch directory, captured standard output and
// error, and small file helpers.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

// Redirects descriptors 1 and 2 into temporary files while alive.
class CapturedOutput {
 public:
  CapturedOutput() {
    fflush(stdout);
    fflush(stderr);
    out_file_ = tmpfile();
    err_file_ = tmpfile();
    saved_out_ = dup(1);
    saved_err_ = dup(2);
    dup2(fileno(out_file_), 1);
    dup2(fileno(err_file_), 2);
  }
  ~CapturedOutput() {
    restore();
    fclose(out_file_);
    fclose(err_file_);
  }
  std::string out() { return read_all(out_file_); }
  std::string err() { return read_all(err_file_); }

 private:
  void restore() {
    if (saved_out_ < 0) return;
    dup2(saved_out_, 1);
    dup2(saved_err_, 2);
    close(saved_out_);
    close(saved_err_);
    saved_out_ = saved_err_ = -1;
  }
  static std::string read_all(FILE* f) {
    std::string s;
    char buf[4096];
    off_t end = lseek(fileno(f), 0, SEEK_END);
    s.resize(static_cast<size_t>(end));
    ssize_t got = pread(fileno(f), s.data(), s.size(), 0);
    s.resize(got < 0 ? 0 : static_cast<size_t>(got));
    (void)buf;
    return s;
  }
  FILE* out_file_;
  FILE* err_file_;
  int saved_out_;
  int saved_err_;
};

// A fresh directory under /tmp, removed with its contents at the end of the test.
class ScratchDir {
 public:
  ScratchDir() {
    char tmpl[] = "/tmp/ota-unit-XXXXXX";
    path_ = mkdtemp(tmpl);
  }
  ~ScratchDir() { std::filesystem::remove_all(path_); }
  std::string path(const std::string& name = "") const { return name.empty() ? path_ : path_ + "/" + name; }

 private:
  std::string path_;
};

inline void put_file(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

inline std::string get_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline bool file_there(const std::string& path) { return std::filesystem::exists(path); }

// Points the device code's absolute paths at a scratch directory for the life of the
// object (the host build only), with the directories the device keeps its state in.
#include "runtime/syscall.h"
class DeviceRoot {
 public:
  DeviceRoot() {
    for (const char* d : {"/etc", "/system", "/tmp", "/tmp/ota", "/proc", "/bin", "/sysesp"}) {
      std::filesystem::create_directories(dir_.path() + d);
    }
    snprintf(ota::host_root, sizeof ota::host_root, "%s", dir_.path().c_str());
  }
  ~DeviceRoot() { ota::host_root[0] = 0; }
  std::string path(const std::string& device_path) const { return dir_.path() + device_path; }
  void put(const std::string& device_path, const std::string& content) const { put_file(path(device_path), content); }
  std::string get(const std::string& device_path) const { return get_file(path(device_path)); }
  bool has(const std::string& device_path) const { return file_there(path(device_path)); }

 private:
  ScratchDir dir_;
};
