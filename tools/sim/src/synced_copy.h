#pragma once
// What a power cut leaves of the device root. With `synced` durability only what was there
// at the last sync survives: while such a cut is armed, DIR/synced/ holds a copy of the root
// as of the command's start and of each sync since, and the cut puts the root back to it.
// /tmp and the mount points are left as the cut found them (the mounts have their own
// write-back at each sync).

#include <string>
#include <vector>

namespace tavisim {

class SyncedCopy {
 public:
  SyncedCopy(const std::string& device_dir, const std::string& root);

  // A cut with `synced` durability is armed: the copy starts as the root is now.
  void arm(const std::vector<std::string>& mount_points);
  // A sync: the copy follows the root, when armed.
  void synced(const std::vector<std::string>& mount_points);
  // The cut came: the root goes back to the copy.
  void restore(const std::vector<std::string>& mount_points);
  void disarm() { armed_ = false; }

 private:
  std::vector<std::string> skipped(const std::vector<std::string>& mount_points) const;

  std::string root_;
  std::string copy_;
  bool armed_ = false;
};

}  // namespace tavisim
