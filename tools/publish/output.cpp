#include "output.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

namespace publish {

namespace {

std::string parent_of(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  std::size_t slash = p.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return p.substr(0, slash);
}

std::string trimmed(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

void write_all(int fd, const Bytes& data, const std::string& path) {
  std::size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw Error("cannot write " + shown(path) + ": " + std::strerror(errno));
    done += static_cast<std::size_t>(n);
  }
  if (fsync(fd) != 0) throw Error("cannot sync " + shown(path) + ": " + std::strerror(errno));
}

void sync_directory(const std::string& dir) {
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    fsync(fd);
    close(fd);
  }
}

}  // namespace

void check_output_free(const std::string& path, bool force, const char* what, bool directory, bool replaceable) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) return;
    throw Error(std::string("cannot look at ") + what + " " + shown(path) + ": " + std::strerror(errno));
  }
  if (!force) {
    throw Error(std::string(what) + " " + shown(path) + " already exists" +
                (replaceable ? " (give --force to replace it)" : "; it is never overwritten"));
  }
  if (directory && !S_ISDIR(st.st_mode)) throw Error(shown(path) + " exists and is not a directory");
  if (!directory && !S_ISREG(st.st_mode)) throw Error(shown(path) + " exists and is not a regular file");
}

StagedDirectory::StagedDirectory(const std::string& final_path, bool force)
    : final_path_(trimmed(final_path)), force_(force) {
  check_output_free(final_path_, force_, "output directory", true);
  std::string pattern = parent_of(final_path_) + "/." + base_name(final_path_) + ".tmp-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) {
    throw Error("cannot create a temporary directory beside " + shown(final_path_) + ": " + std::strerror(errno));
  }
  temp_path_ = buf.data();
  chmod(temp_path_.c_str(), 0755);
}

StagedDirectory::~StagedDirectory() {
  if (committed_ || temp_path_.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(temp_path_, ignored);
}

void StagedDirectory::write(const std::string& name, const Bytes& data) {
  std::string path = temp_path_ + "/" + name;
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) throw Error("cannot create " + shown(path) + ": " + std::strerror(errno));
  try {
    write_all(fd, data, path);
  } catch (...) {
    close(fd);
    throw;
  }
  close(fd);
}

void StagedDirectory::commit() {
  sync_directory(temp_path_);
  if (renameat2(AT_FDCWD, temp_path_.c_str(), AT_FDCWD, final_path_.c_str(), RENAME_NOREPLACE) == 0) {
    committed_ = true;
  } else if (errno == EEXIST && force_) {
    // Swap the new directory and the old one in one step, then remove the old one, which
    // now stands at the temporary name (the destructor does that).
    if (renameat2(AT_FDCWD, temp_path_.c_str(), AT_FDCWD, final_path_.c_str(), RENAME_EXCHANGE) != 0) {
      throw Error("cannot replace " + shown(final_path_) + ": " + std::strerror(errno));
    }
  } else {
    throw Error("cannot move the new source to " + shown(final_path_) + ": " + std::strerror(errno));
  }
  sync_directory(parent_of(final_path_));
}

void write_file_atomic(const std::string& path, const Bytes& data, unsigned mode, bool force, const char* what) {
  check_output_free(path, force, what, false);
  std::string pattern = parent_of(path) + "/." + base_name(path) + ".tmp-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  int fd = mkstemp(buf.data());
  if (fd < 0) throw Error("cannot create a temporary file beside " + shown(path) + ": " + std::strerror(errno));
  std::string temp = buf.data();
  try {
    if (fchmod(fd, mode) != 0) throw Error("cannot set the mode of " + shown(temp) + ": " + std::strerror(errno));
    write_all(fd, data, temp);
    close(fd);
    fd = -1;
    unsigned flags = force ? 0 : RENAME_NOREPLACE;
    if (renameat2(AT_FDCWD, temp.c_str(), AT_FDCWD, path.c_str(), flags) != 0) {
      if (errno == EEXIST) throw Error(std::string(what) + " " + shown(path) + " already exists");
      throw Error("cannot move " + shown(temp) + " to " + shown(path) + ": " + std::strerror(errno));
    }
  } catch (...) {
    if (fd >= 0) close(fd);
    unlink(temp.c_str());
    throw;
  }
  sync_directory(parent_of(path));
}

}  // namespace publish
