#pragma once
// The mounts of one device: which disk image is mounted where. Mounting copies the image's
// files into the mount point (esp_mount.h); what the mount point held before moves aside to
// DIR/shadow/ and comes back at the unmount, as a mount hides and an unmount uncovers it.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "esp_mount.h"
#include "rootfs.h"

namespace tavisim {

class MountTable {
 public:
  MountTable(const std::string& device_dir, const RootFs& fs);

  // Takes up the mounts (target -> device) a former session left. A mount point that is
  // gone cannot stand for the image: that mount is forgotten rather than the image emptied.
  void resume(const std::map<std::string, std::string>& saved);
  // target -> device, as kernel.state keeps them.
  std::map<std::string, std::string> saved() const;
  bool mounted(const std::string& target) const { return mounts_.count(target) != 0; }
  // The mount points, as device paths.
  std::vector<std::string> targets() const;

  // mount(source, target, type) for a target already resolved in the device: 0 or a
  // negative error number.
  int64_t mount(const std::string& source, const std::string& target, const std::string& type);
  // 0; -EINVAL when nothing is mounted there; -EIO (with mtools' reason in *error) when
  // the image refuses the write-back, and the mount stays.
  int64_t unmount(const std::string& target, std::string* error);

  // What went wrong with one mount while every mount was written back or taken down.
  struct Trouble {
    std::string target;
    std::string error;  // mtools' reason
  };
  // Writes every mount back into its image (a sync); the mounts whose image refused.
  std::vector<Trouble> write_back_all();
  // Takes every mount down (a restart or a power cut), written back first when asked; each
  // target in order, with the write-back's failure when there was one.
  struct Unmounted {
    std::string target;
    std::optional<std::string> write_back_error;
  };
  std::vector<Unmounted> unmount_all(bool write_back);

 private:
  struct Mount {
    std::string device;
    FatMount fat;
    std::string shadow;  // where the mount point's own content waits while mounted
  };
  // Empties the mount point and puts back what it held before the mount.
  void uncover(const std::string& host, const std::string& shadow);
  std::string next_shadow();

  std::string dir_;
  std::string root_;
  const RootFs& fs_;
  std::map<std::string, Mount> mounts_;
  uint64_t shadows_made_ = 0;
};

}  // namespace tavisim
