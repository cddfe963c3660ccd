#include "mount_table.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "host.h"

namespace tavisim {

namespace {

void clear_dir(const std::string& dir) {
  TreeListing t = list_tree(dir);
  for (auto& f : t.files) unlink(join_path(dir, f).c_str());
  for (auto& o : t.others) unlink(join_path(dir, o).c_str());
  std::vector<std::string> dirs = t.dirs;
  std::reverse(dirs.begin(), dirs.end());
  for (auto& d : dirs) remove_host_tree(join_path(dir, d));
}

}  // namespace

MountTable::MountTable(const std::string& device_dir, const RootFs& fs)
    : dir_(device_dir), root_(fs.root()), fs_(fs) {}

void MountTable::resume(const std::map<std::string, std::string>& saved) {
  for (auto& [target, device] : saved) {
    if (!host_is_dir(root_ + target)) continue;
    Mount& m = mounts_[target];
    m.device = device;
    m.fat.resume(dir_ + "/disks/" + device + ".img", root_ + target);
  }
}

std::map<std::string, std::string> MountTable::saved() const {
  std::map<std::string, std::string> out;
  for (auto& [target, m] : mounts_) out[target] = m.device;
  return out;
}

std::vector<std::string> MountTable::targets() const {
  std::vector<std::string> out;
  for (auto& [target, m] : mounts_) out.push_back(target);
  return out;
}

int64_t MountTable::mount(const std::string& source, const std::string& target, const std::string& type) {
  if (type != "vfat") return -ENODEV;
  if (!fs_.is_dir(target)) return -ENOENT;
  std::string device;
  if (source.rfind("/dev/", 0) == 0) device = source.substr(5);
  if (device.empty() || device.find('/') != std::string::npos || device == "." || device == "..") return -ENOENT;
  std::string image = dir_ + "/disks/" + device + ".img";
  if (!host_exists(image)) return -ENOENT;
  if (mounts_.count(target)) return -EBUSY;
  for (auto& [tg, m] : mounts_)
    if (m.device == device) return -EBUSY;
  std::string host = root_ + target;
  char real_host[PATH_MAX], real_root[PATH_MAX];
  if (!realpath(host.c_str(), real_host) || !realpath(root_.c_str(), real_root) ||
      std::string(real_host) != std::string(real_root) + target)
    return -ENOENT;  // a symbolic link on the way: not a mount point of this model
  std::string shadow;
  TreeListing existing = list_tree(host);
  if (!existing.dirs.empty() || !existing.files.empty() || !existing.others.empty()) {
    shadow = next_shadow();
    if (rename(host.c_str(), shadow.c_str()) != 0 || mkdir(host.c_str(), 0755) != 0) return -EIO;
  }
  Mount m;
  m.device = device;
  m.shadow = shadow;
  int rc = m.fat.mount(image, host);
  if (rc != 0) {
    uncover(host, shadow);
    return rc;
  }
  mounts_[target] = std::move(m);
  return 0;
}

int64_t MountTable::unmount(const std::string& target, std::string* error) {
  auto it = mounts_.find(target);
  if (it == mounts_.end()) return -EINVAL;
  if (!it->second.fat.write_back(error)) return -EIO;
  uncover(root_ + target, it->second.shadow);
  mounts_.erase(it);
  return 0;
}

std::vector<MountTable::Trouble> MountTable::write_back_all() {
  std::vector<Trouble> troubles;
  for (auto& [target, m] : mounts_) {
    std::string err;
    if (!m.fat.write_back(&err)) troubles.push_back({target, err});
  }
  return troubles;
}

std::vector<MountTable::Unmounted> MountTable::unmount_all(bool write_back) {
  std::vector<Unmounted> out;
  for (auto& [target, m] : mounts_) {
    Unmounted u;
    u.target = target;
    std::string err;
    if (write_back && !m.fat.write_back(&err)) u.write_back_error = err;
    uncover(root_ + target, m.shadow);
    out.push_back(std::move(u));
  }
  mounts_.clear();
  return out;
}

void MountTable::uncover(const std::string& host, const std::string& shadow) {
  clear_dir(host);
  if (shadow.empty()) return;
  rmdir(host.c_str());
  rename(shadow.c_str(), host.c_str());
}

std::string MountTable::next_shadow() {
  make_host_dirs(dir_ + "/shadow");
  // A former session may have left its own shadows; a new one never takes their names.
  std::string path;
  do path = dir_ + "/shadow/" + std::to_string(++shadows_made_);
  while (host_exists(path));
  return path;
}

}  // namespace tavisim
