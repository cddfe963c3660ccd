#include "synced_copy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "host.h"

namespace tavisim {

namespace {

// Makes dst hold what src holds (below the skipped top-level names): files compared by
// size, time and mode, copied with their time, so an unchanged file is not copied again.
void mirror(const std::string& src, const std::string& dst, const std::vector<std::string>& skip) {
  make_host_dirs(dst);
  TreeListing s = list_tree(src, skip);
  TreeListing d = list_tree(dst, skip);
  std::set<std::string> sdirs(s.dirs.begin(), s.dirs.end());
  std::set<std::string> sfiles(s.files.begin(), s.files.end());
  std::set<std::string> sothers(s.others.begin(), s.others.end());
  for (auto& f : d.files)
    if (!sfiles.count(f)) unlink(join_path(dst, f).c_str());
  for (auto& o : d.others)
    if (!sothers.count(o)) unlink(join_path(dst, o).c_str());
  for (auto it = d.dirs.rbegin(); it != d.dirs.rend(); ++it)
    if (!sdirs.count(*it)) remove_host_tree(join_path(dst, *it));
  for (auto& dir : s.dirs) {
    struct stat st;
    std::string to = join_path(dst, dir);
    if (lstat(to.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) unlink(to.c_str());
    mkdir(to.c_str(), 0755);
    if (stat(join_path(src, dir).c_str(), &st) == 0) chmod(to.c_str(), st.st_mode & 07777);
  }
  for (auto& f : s.files) {
    struct stat a, b;
    std::string from = join_path(src, f), to = join_path(dst, f);
    if (lstat(from.c_str(), &a) != 0) continue;
    if (lstat(to.c_str(), &b) == 0 && S_ISREG(b.st_mode) && a.st_size == b.st_size &&
        a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
        (a.st_mode & 07777) == (b.st_mode & 07777))
      continue;
    if (lstat(to.c_str(), &b) == 0 && S_ISDIR(b.st_mode)) remove_host_tree(to);
    auto data = read_host_file(from);
    if (!data) continue;
    unlink(to.c_str());
    write_host_file(to, *data, a.st_mode & 07777);
    timespec times[2] = {a.st_atim, a.st_mtim};
    utimensat(AT_FDCWD, to.c_str(), times, 0);
  }
  for (auto& o : s.others) {
    char target[4096];
    ssize_t n = readlink(join_path(src, o).c_str(), target, sizeof target - 1);
    if (n < 0) continue;
    target[n] = 0;
    std::string to = join_path(dst, o);
    unlink(to.c_str());
    if (symlink(target, to.c_str()) != 0) continue;
  }
}

}  // namespace

SyncedCopy::SyncedCopy(const std::string& device_dir, const std::string& root)
    : root_(root), copy_(device_dir + "/synced") {}

void SyncedCopy::arm(const std::vector<std::string>& mount_points) {
  mirror(root_, copy_, skipped(mount_points));
  armed_ = true;
}

void SyncedCopy::synced(const std::vector<std::string>& mount_points) {
  if (armed_) mirror(root_, copy_, skipped(mount_points));
}

void SyncedCopy::restore(const std::vector<std::string>& mount_points) {
  mirror(copy_, root_, skipped(mount_points));
}

std::vector<std::string> SyncedCopy::skipped(const std::vector<std::string>& mount_points) const {
  // Downloads in /tmp outlive a cut on this model's machine; a mount point is the image's.
  std::vector<std::string> skip = {"tmp"};
  for (auto& target : mount_points) skip.push_back(target.substr(1));
  return skip;
}

}  // namespace tavisim
