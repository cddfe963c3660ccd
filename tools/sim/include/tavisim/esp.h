#pragma once
// FAT images of the device's disks (the ESP), made with dosfstools and read and written
// with mtools. Paths inside an image are written without the leading "::/", e.g.
// "limine.conf" or "boot/tavi.mb".

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tavisim {

constexpr unsigned kDefaultEspKiB = 16384;

// A fresh FAT image holding exactly these files (directories are made as needed).
void make_fat_image(const std::string& image, const std::map<std::string, std::string>& files,
                    unsigned size_kib = kDefaultEspKiB);
// Whether mtools accepts the image as a FAT file system.
bool fat_valid(const std::string& image);
// Every entry of the image, directories with a trailing "/", in the order mtools lists them.
std::vector<std::string> fat_list(const std::string& image);
std::optional<std::string> fat_read(const std::string& image, const std::string& path);
// Adds or replaces one file (parent directories are made as needed).
void fat_write(const std::string& image, const std::string& path, const std::string& data);
void fat_remove(const std::string& image, const std::string& path);
// fsck.vfat -n (checks only, never repairs): its exit code, 0 for a clean file system.
int fat_check(const std::string& image, std::string* report = nullptr);

// The minimal boot menu a fresh device's ESP carries: entry 1 boots /tavi.mb.
std::string default_limine_conf();

}  // namespace tavisim
