#include "system/esp.h"

#include "runtime/files.h"
#include "runtime/text.h"
#include "system/menu.h"
#include "trust/sha256.h"

namespace ota {

char slot_a_path[kSlotPathBytes];
char slot_b_path[kSlotPathBytes];
char esp_menu_text[kMenuTextBytes + 1];

namespace {

// Tried in this order: SATA/SCSI, then NVMe, then the old IDE name.
constexpr const char* kCandidates[] = {"/dev/sda1", "/dev/nvme01", "/dev/hda1"};

// The SHA-256 of a file as 64 lowercase hex digits; false when it cannot be opened.
bool file_sha256_hex(const char* path, char out[kDigestHexBytes]) {
  u8 digest[kSha256DigestBytes];
  if (!sha256_file(path, digest)) return false;
  sha256_hex(digest, out);
  return true;
}

void report_hash(const char* label, const char* path) {
  char hex[kDigestHexBytes];
  say_text(label, file_sha256_hex(path, hex) ? hex : "absent");
}

}  // namespace

void build_slot_path(char* out, const char* dir, const char* file) {
  usize len = str_copy(out, kEspMount);
  len = str_append_at(out, len, dir);
  str_append_at(out, len, file);
}

i64 read_menu() {
  i64 n = read_file(kMenuPath, esp_menu_text, kMenuTextBytes);
  esp_menu_text[n > 0 ? n : 0] = 0;
  return n;
}

bool try_mount_esp(const char* device) {
  sys_umount2(kEspMount);  // a stale mount is cleared first
  if (is_error(sys_mount(device, kEspMount, "vfat"))) return false;
  if (!file_exists(kMenuPath)) {
    sys_umount2(kEspMount);
    return false;
  }
  return true;
}

bool mount_esp() {
  make_directory(kEspMount);
  bool mounted = false;
  for (const char* device : kCandidates) {
    if (try_mount_esp(device)) {
      mounted = true;
      break;
    }
  }
  if (!mounted) return false;
  i64 n = read_menu();
  const char* dir = "";
  if (n >= 1 && n < static_cast<i64>(kMenuTextBytes) && find_first_entry_kernel_dir(esp_menu_text, static_cast<usize>(n))) {
    dir = menu_kernel_dir();
  }
  build_slot_path(slot_a_path, dir, kSlotAEnding);
  build_slot_path(slot_b_path, dir, kSlotBEnding);
  return true;
}

void unmount_esp() {
  sys_sync();
  sys_umount2(kEspMount);
}

int esp_report() {
  if (!mount_esp()) {
    print_out("esp: none found\n");
    return 1;
  }
  print_out("esp: mounted\n");
  say_number("esp: limine.conf bytes ", file_size(kMenuPath));
  report_hash("esp: tavi.mb sha256 ", slot_a_path);
  report_hash("esp: tavi-b.mb sha256 ", slot_b_path);
  unmount_esp();
  return 0;
}

}  // namespace ota
