#pragma once
// The boot loader's menu file on the EFI system partition. A system update adds a second
// entry (slot B) that boots the staged kernel and makes it the default; after a confirmed
// start the default goes back to entry 1. Only one narrow menu layout is accepted, and a
// menu that does not fit it is refused with a reason and left untouched.
//
// The checks and the rewrite work on text in memory and never touch a file; the file
// operations at the end read and write the menu on the mounted partition.

#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

// The menu's capacities (read whole into kMenuTextBytes, rewritten into kMenuOutputBytes,
// a kernel directory below kKernelDirBytes, slot copies in kCopyBlockBytes) are in
// device_limits.h. A menu that fills its whole buffer may have been cut, so the callers
// refuse it.

// The menu on the ESP as mount_esp mounts it (at /sysesp), and the new menu while it is
// being written.
constexpr const char* kMenuPath = "/sysesp/limine.conf";
constexpr const char* kNewMenuPath = "/sysesp/limine.nw";
// The default line of a menu that starts entry B. reset_default_entry rewrites its last
// byte, the digit, and a menu without it no longer starts the trial entry.
constexpr char kDefaultTwo[] = "default_entry: 2";

// Result codes of check_and_add_entry_b; 0 means the output holds the new menu.
constexpr int kMenuNoFirstEntry = 1;
constexpr int kMenuNoSlotAPath = 2;
constexpr int kMenuDefaultNotOne = 3;
constexpr int kMenuEntryBMisplaced = 4;
constexpr int kMenuTooLarge = 5;

// Position of "path:" in the first line starting in [from, to) that reads, after leading
// spaces and tabs, "path: boot():" + directory + ending, with a directory below 90
// characters. With take set, that directory becomes the kept kernel directory; otherwise
// the line only counts when its directory equals the kept one. -1 when no line qualifies.
i64 find_path_line(const char* text, usize from, usize to, const char* ending, bool take);

// Finds the first entry's path line ending in "/tavi.mb" and keeps its directory. The
// directory is cleared first, so it is empty whenever the result is false.
bool find_first_entry_kernel_dir(const char* text, usize length);
const char* menu_kernel_dir();
usize menu_kernel_dir_length();

// Checks the layout of text (n bytes) and writes the menu with entry B as the default
// into out. Returns 0, or one of the result codes above.
int check_and_add_entry_b(const char* text, usize n, char* out, usize capacity);
// Length of the last successful rewrite (0 after a refusal), and whether the last
// rewrite ran out of room.
usize menu_new_length();
bool menu_overflowed();
// The words printed after "ota: unsupported limine.conf layout: "; a code outside 1..5
// gets the words of code 1.
const char* menu_reason_text(int code);

// Reads, checks, rewrites and replaces the menu. Failures are printed.
bool install_entry_b();
// Switches "default_entry: 2" back to 1 by rewriting that one byte in place.
bool reset_default_entry();
// Copies source over target (created or truncated).
bool copy_file(const char* source, const char* target);

// The same two operations on a menu at another place; the commands use kMenuPath and
// kNewMenuPath, the tests a scratch directory.
bool install_entry_b_at(const char* menu_path, const char* new_path);
bool reset_default_entry_at(const char* menu_path);

// A complete menu as a fresh installation writes it: entry title, kernel file name (on
// the partition's root) and the kernel command line variant (1 minimal, any other value
// full), optionally followed by the chain-load entry of another system on the same disk.
// Returns the length written to out (closed with a 0), or 0 when it does not fit.
usize compose_fresh_menu(const char* title, const char* kernel_file, int variant, bool chainload, char* out,
                         usize capacity);
// The firmware's boot file for a directory name, and the prompt that offers to register
// it; each returns its length, or 0 when it does not fit.
usize compose_firmware_boot_path(const char* directory, char* out, usize capacity);
usize compose_register_prompt(const char* name, char* out, usize capacity);

}  // namespace ota
