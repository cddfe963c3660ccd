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

// Renames without replacing what is there. Where the file system has no such rename, a
// file is linked (which never replaces) and a directory is renamed after a last look.
int rename_no_replace(const std::string& from, const std::string& to, bool directory) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return -1;
  if (!directory) {
    if (link(from.c_str(), to.c_str()) != 0) return -1;
    unlink(from.c_str());
    return 0;
  }
  struct stat st {};
  if (lstat(to.c_str(), &st) == 0) {
    errno = EEXIST;
    return -1;
  }
  return rename(from.c_str(), to.c_str());
}

// Puts `from` in the place of the existing directory `to` and leaves the old one at `from`.
int exchange_directories(const std::string& from, const std::string& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_EXCHANGE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return -1;
  // Two renames: for a moment there is no directory at `to`, but never a mixed one.
  std::string aside = from + ".old";
  if (rename(to.c_str(), aside.c_str()) != 0) return -1;
  if (rename(from.c_str(), to.c_str()) != 0) {
    int saved = errno;
    rename(aside.c_str(), to.c_str());
    errno = saved;
    return -1;
  }
  return rename(aside.c_str(), from.c_str());
}

// Everything is first written under a temporary name beside its final place, so a failure
// there is reported against the final path; a missing parent directory is said as such,
// since the tool does not create it.
Error creation_error(const std::string& final_path, const char* temporary) {
  int error = errno;
  std::string parent = parent_of(final_path);
  struct stat st {};
  if (error == ENOENT && stat(parent.c_str(), &st) != 0) {
    return Error("cannot write " + shown(final_path) + ": the directory " + shown(parent) +
                 " does not exist (make it first)");
  }
  return Error("cannot write " + shown(final_path) + ": cannot create " + temporary + " in " + shown(parent) + ": " +
               std::strerror(error));
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
  if (mkdtemp(buf.data()) == nullptr) throw creation_error(final_path_, "a temporary directory");
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
  if (rename_no_replace(temp_path_, final_path_, true) == 0) {
    committed_ = true;
  } else if ((errno == EEXIST || errno == ENOTEMPTY) && force_) {
    // Swap the new directory and the old one in one step, then remove the old one, which
    // now stands at the temporary name (the destructor does that).
    if (exchange_directories(temp_path_, final_path_) != 0) {
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
  if (fd < 0) throw creation_error(path, "a temporary file");
  std::string temp = buf.data();
  try {
    if (fchmod(fd, mode) != 0) throw Error("cannot set the mode of " + shown(temp) + ": " + std::strerror(errno));
    write_all(fd, data, temp);
    close(fd);
    fd = -1;
    int moved = force ? rename(temp.c_str(), path.c_str()) : rename_no_replace(temp, path, false);
    if (moved != 0) {
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
