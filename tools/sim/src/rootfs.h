#pragma once
// File access inside the device root as the device itself sees it: every path is resolved
// with the root as "/" (openat2 RESOLVE_IN_ROOT), so neither ".." nor a symbolic link in
// the device can lead a model's write out of the device directory.

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace tavisim {

class RootFs {
 public:
  explicit RootFs(const std::string& root);
  ~RootFs();
  RootFs(const RootFs&) = delete;
  RootFs& operator=(const RootFs&) = delete;

  const std::string& root() const { return root_; }
  // A descriptor, or a negative error number.
  int open(std::string_view path, int flags, mode_t mode = 0644) const;
  std::optional<std::string> read(std::string_view path) const;
  bool write(std::string_view path, std::string_view data, bool append = false) const;
  bool exists(std::string_view path) const;  // without following a final symbolic link
  bool is_dir(std::string_view path) const;
  bool remove(std::string_view path) const;
  bool make_dirs(std::string_view path) const;

  // The lexical form of a device path: absolute, no ".", "..", or repeated "/".
  static std::string normalize(std::string_view path);

 private:
  std::string root_;
  int fd_ = -1;
};

}  // namespace tavisim
