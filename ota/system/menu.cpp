#include "system/menu.h"

#include "runtime/files.h"
#include "runtime/text.h"

namespace ota {

namespace {

// Kept for the run: the first entry's kernel directory, the length of the last rewrite and
// whether it ran out of room.
char kernel_dir[kKernelDirBytes];
usize kernel_dir_length;
usize new_length;
bool overflowed;

char menu_text[kMenuTextBytes];
char menu_output[kMenuOutputBytes];
u8 copy_block[kCopyBlockBytes];

constexpr char kPathPrefix[] = "path: boot():";
constexpr usize kPathPrefixLength = text_length(kPathPrefix);
constexpr char kDefaultKey[] = "default_entry:";
constexpr usize kDefaultKeyLength = text_length(kDefaultKey);
constexpr usize kDefaultTwoLength = text_length(kDefaultTwo);
// The digit of "default_entry: 2", counted from its first byte: its last.
constexpr usize kDefaultDigitOffset = kDefaultTwoLength - 1;
// Below this the output could not even hold the added default line and a short entry.
constexpr usize kSmallestOutput = 64;

constexpr const char* kReasons[] = {
    "no top-level first entry",
    "first entry has no path boot():/tavi.mb",
    "default_entry is not 1",
    "entry B is not the second entry",
    "file too large or empty",
};

constexpr const char* kUnsupported = "ota: unsupported limine.conf layout: ";
constexpr const char* kCouldNotWrite = "ota: could not write limine.conf";

// Appends to a caller's buffer, always keeping one byte for the closing 0. After the first
// append that does not fit nothing more is added; the caller only looks at the flag then.
struct TextBuilder {
  char* out;
  usize capacity;
  usize length;
  bool overflow;

  void put(const char* p, usize n) {
    if (overflow || n > capacity - 1 - length) {
      overflow = true;
      return;
    }
    mem_copy(out + length, p, n);
    length += n;
  }
  void put(const char* s) { put(s, str_len(s)); }
  // The length written, or 0 when something did not fit.
  usize finish() {
    if (overflow) return 0;
    out[length] = 0;
    return length;
  }
};

bool starts_line(const char* text, usize p) { return p == 0 || text[p - 1] == '\n'; }

// A line ends at its first carriage return or newline.
usize line_end(const char* text, usize p, usize to) {
  while (p < to && text[p] != '\n' && text[p] != '\r') p++;
  return p;
}

// The first line at or after from whose first character is "/", or n.
usize next_entry(const char* text, usize from, usize n) {
  for (usize p = from; p < n; p++) {
    if (text[p] == '/' && starts_line(text, p)) return p;
  }
  return n;
}

bool is_sub_entry(const char* text, usize p, usize n) { return p + 1 < n && text[p + 1] == '/'; }

}  // namespace

i64 find_path_line(const char* text, usize from, usize to, const char* ending, bool take) {
  usize ending_length = str_len(ending);
  for (usize p = from; p < to; p++) {
    if (!starts_line(text, p)) continue;
    usize q = p;
    while (q < to && (text[q] == ' ' || text[q] == '\t')) q++;
    if (q + kPathPrefixLength > to || !mem_equal(text + q, kPathPrefix, kPathPrefixLength)) continue;
    usize dir = q + kPathPrefixLength;
    usize end = line_end(text, dir, to);
    if (end - dir < ending_length || !mem_equal(text + end - ending_length, ending, ending_length)) continue;
    usize length = end - ending_length - dir;
    if (length >= kKernelDirBytes) continue;
    if (take) {
      mem_copy(kernel_dir, text + dir, length);
      kernel_dir[length] = 0;
      kernel_dir_length = length;
      return static_cast<i64>(q);
    }
    if (length == kernel_dir_length && mem_equal(text + dir, kernel_dir, length)) return static_cast<i64>(q);
  }
  return -1;
}

bool find_first_entry_kernel_dir(const char* text, usize length) {
  kernel_dir[0] = 0;
  kernel_dir_length = 0;
  if (length == 0) return false;
  usize a = next_entry(text, 0, length);
  if (a == length || is_sub_entry(text, a, length)) return false;
  return find_path_line(text, a, next_entry(text, a + 1, length), kSlotAEnding, true) >= 0;
}

const char* menu_kernel_dir() { return kernel_dir; }
usize menu_kernel_dir_length() { return kernel_dir_length; }
usize menu_new_length() { return new_length; }
bool menu_overflowed() { return overflowed; }

const char* menu_reason_text(int code) {
  if (code < kMenuNoFirstEntry || code > kMenuTooLarge) code = kMenuNoFirstEntry;
  return kReasons[code - 1];
}

int check_and_add_entry_b(const char* text, usize n, char* out, usize capacity) {
  new_length = 0;
  overflowed = false;
  if (n == 0 || capacity < kSmallestOutput) return kMenuNoFirstEntry;

  // Entry A: the first entry line, which must be a top-level one; everything before it is
  // the global section.
  usize a = next_entry(text, 0, n);
  if (a == n || is_sub_entry(text, a, n)) return kMenuNoFirstEntry;
  usize a_end = next_entry(text, a + 1, n);
  i64 a_path = find_path_line(text, a, a_end, kSlotAEnding, true);
  if (a_path < 0) return kMenuNoSlotAPath;

  // The default line, only at the very start of a line of the global section. A menu that
  // already defaults to 2 passes, so the rewrite can be run again.
  i64 default_line = -1;
  for (usize p = 0; p + kDefaultKeyLength <= a; p++) {
    if (starts_line(text, p) && mem_equal(text + p, kDefaultKey, kDefaultKeyLength)) {
      default_line = static_cast<i64>(p);
      break;
    }
  }
  if (default_line >= 0) {
    usize v = static_cast<usize>(default_line) + kDefaultKeyLength;
    while (v < a && (text[v] == ' ' || text[v] == '\t')) v++;
    if (v >= a || (text[v] != '1' && text[v] != '2')) return kMenuDefaultNotOne;
    if (v + 1 < a && text[v + 1] != '\n' && text[v + 1] != '\r' && text[v + 1] != ' ') return kMenuDefaultNotOne;
  }

  // An entry B that is already there is kept, but only as the second entry.
  i64 b_path = find_path_line(text, 0, n, kSlotBEnding, false);
  if (b_path >= 0) {
    usize second = a_end;
    if (second == n || is_sub_entry(text, second, n)) return kMenuEntryBMisplaced;
    usize second_end = next_entry(text, second + 1, n);
    if (static_cast<usize>(b_path) < second || static_cast<usize>(b_path) >= second_end) {
      return kMenuEntryBMisplaced;
    }
  }

  TextBuilder b{out, capacity, 0, false};
  if (default_line < 0) {
    b.put(kDefaultTwo);
    b.put("\n");
    b.put(text, a_end);
  } else {
    usize d = static_cast<usize>(default_line);
    usize d_end = line_end(text, d, a);
    b.put(text, d);
    b.put(kDefaultTwo, kDefaultTwoLength);
    b.put(text + d_end, a_end - d_end);
  }

  if (b_path < 0) {
    // Entry B is entry A with " (update)" in its title and the slot B kernel, set apart by
    // an empty line.
    if (text[a_end - 1] != '\n') b.put("\n");
    bool ends_empty = (text[a_end - 1] == '\n' && text[a_end - 2] == '\n') ||
                      (text[a_end - 1] == '\n' && text[a_end - 2] == '\r' && text[a_end - 3] == '\n');
    if (!ends_empty) b.put("\n");
    usize title_end = line_end(text, a, a_end);
    usize path = static_cast<usize>(a_path);
    usize path_end = line_end(text, path, a_end);
    b.put(text + a, title_end - a);
    b.put(" (update)");
    b.put(text + title_end, path - title_end);
    b.put(kPathPrefix, kPathPrefixLength);
    b.put(kernel_dir, kernel_dir_length);
    b.put(kSlotBEnding);
    b.put(text + path_end, a_end - path_end);
  }

  b.put(text + a_end, n - a_end);
  if (b.overflow) {
    overflowed = true;
    return kMenuTooLarge;
  }
  new_length = b.finish();
  return 0;
}

// Failures of these operations go to standard error, like every failure line of the
// program; the caller undoes its own steps after a false result.
bool install_entry_b_at(const char* menu_path, const char* new_path) {
  i64 n = read_file(menu_path, menu_text, kMenuTextBytes);
  if (n <= 0 || static_cast<usize>(n) >= kMenuTextBytes) {
    return report_failure(kUnsupported, menu_reason_text(kMenuTooLarge));
  }
  int code = check_and_add_entry_b(menu_text, static_cast<usize>(n), menu_output, kMenuOutputBytes);
  if (code != 0) return report_failure(kUnsupported, menu_reason_text(code));
  usize length = new_length;
  if (!write_file(new_path, menu_output, length)) return report_failure(kCouldNotWrite, nullptr);
  sys_sync();
  if (file_size(new_path) != length) {
    remove_file(new_path);
    return report_failure(kCouldNotWrite, nullptr);
  }
  // FAT does not replace a file by renaming over it, so the old menu goes first. Should the
  // rename still fail, the menu is written directly rather than left missing.
  remove_file(menu_path);
  if (is_error(sys_rename(new_path, menu_path))) {
    write_file(menu_path, menu_output, length);
    remove_file(new_path);
  }
  sys_sync();
  if (file_size(menu_path) == length) return true;
  // Neither the rename nor the direct rewrite put the new menu in place. The old one goes
  // back, so that the boot loader still finds a menu once the apply has undone its steps.
  write_file(menu_path, menu_text, static_cast<usize>(n));
  sys_sync();
  return false;
}

bool install_entry_b() { return install_entry_b_at(kMenuPath, kNewMenuPath); }

bool reset_default_entry_at(const char* menu_path) {
  i64 n = read_file(menu_path, menu_text, kMenuTextBytes);
  if (n <= 0 || static_cast<usize>(n) >= kMenuTextBytes) return false;
  i64 at = mem_find(menu_text, static_cast<usize>(n), kDefaultTwo, kDefaultTwoLength);
  if (at < 0) return false;
  // One byte changes and the length stays, so the file is patched where it lies.
  u64 fd = sys_open(menu_path, kOpenReadWrite);
  if (is_error(fd)) return false;
  i64 written = -1;
  if (!is_error(sys_lseek(static_cast<int>(fd), static_cast<u64>(at) + kDefaultDigitOffset))) {
    written = sys_write(static_cast<int>(fd), "1", 1);
  }
  sys_close(static_cast<int>(fd));
  sys_sync();
  return written == 1;
}

bool reset_default_entry() { return reset_default_entry_at(kMenuPath); }

bool copy_file(const char* source, const char* target) {
  u64 in = sys_open(source, kOpenRead);
  if (is_error(in)) return false;
  u64 out = sys_open(target, kOpenCreate);
  bool ok = !is_error(out);
  while (ok) {
    i64 got = sys_read(static_cast<int>(in), copy_block, kCopyBlockBytes);
    if (got == 0) break;
    ok = got > 0 && write_fd_all(static_cast<int>(out), copy_block, static_cast<usize>(got));
  }
  sys_close(static_cast<int>(in));
  if (!is_error(out)) sys_close(static_cast<int>(out));
  sys_sync();
  return ok;
}

// The pieces of a freshly installed menu. No command writes one; they live here so the
// layout the rewrite expects and the layout an installation writes stay in one place.
usize compose_fresh_menu(const char* title, const char* kernel_file, int variant, bool chainload, char* out,
                         usize capacity) {
  if (capacity == 0) return 0;
  TextBuilder b{out, capacity, 0, false};
  b.put("timeout: 5\ndefault_entry: 1\n\n/");
  b.put(title);
  b.put("\n    protocol: multiboot1\n    path: boot():/");
  b.put(kernel_file);
  b.put("\n    cmdline: ");
  b.put(variant == 1 ? "tavi vfs gfx wm wig desk wmshell wmdauer herz tz=60 tzrule=eu nosched noproc nofs"
                     : "tavi vfs gfx disp audio wm wig desk wmshell nobootterm wmdauer absturzhalt nopuls tz=60 "
                       "tzrule=eu usb hidgen nic nip=169.254.10.1/16 nsvc=0 nwait=0 dhcp helfer nosched noproc "
                       "nofs anmeldung absturzneustart");
  b.put("\n");
  if (chainload) {
    b.put("\n/Windows Boot Manager\n    protocol: efi_chainload\n    path: boot():/EFI/Microsoft/Boot/bootmgfw.efi\n");
  }
  return b.finish();
}

usize compose_firmware_boot_path(const char* directory, char* out, usize capacity) {
  if (capacity == 0) return 0;
  TextBuilder b{out, capacity, 0, false};
  b.put("/efi/EFI/");
  b.put(directory);
  b.put("/BOOTX64.EFI");
  return b.finish();
}

usize compose_register_prompt(const char* name, char* out, usize capacity) {
  if (capacity == 0) return 0;
  TextBuilder b{out, capacity, 0, false};
  b.put("Register ");
  b.put(name);
  b.put(" in firmware boot menu");
  return b.finish();
}

}  // namespace ota
