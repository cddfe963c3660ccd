#pragma once
// The ESP as the simulated kernel mounts it: the image's files are copied into the mount
// directory of the device root, and every sync and the unmount write the differences back
// into the image with mtools, so the image stays a real FAT file system.

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tavisim {

class FatMount {
 public:
  // Copies the image's files into dir (which must exist and be empty). Returns 0, or a
  // negative error number: -EINVAL when the image is not a FAT file system.
  int mount(const std::string& image, const std::string& dir);
  // Takes up a mount whose directory already equals the image (a later session).
  void resume(const std::string& image, const std::string& dir);
  // Makes the image equal to the directory. False (with the reason) when mtools refused.
  bool write_back(std::string* error);

 private:
  struct FileState {
    std::string hash;
    off_t size = 0;
    int64_t mtime_ns = 0;
  };
  void scan_as_written();
  bool current_state(const std::string& rel, FileState& st, const FileState* known);

  std::string image_;
  std::string dir_;
  std::map<std::string, FileState> files_;  // what the image holds
  std::set<std::string> dirs_;
};

// Runs an mtools command on an image; returns its exit code.
int mtools(const std::vector<std::string>& argv, std::string* out = nullptr, std::string* err = nullptr);

}  // namespace tavisim
