#pragma once
// The start of a simulated machine: the boot loader reads limine.conf on the ESP and
// starts the default entry's kernel image (or stands still when it cannot); the kernel
// writes /proc/version from the image, counts the starts of an unconfirmed trial and,
// after too many, falls back to entry 1 and sets the menu's default to entry 1, starts
// the desktop tasks if the image is healthy, and runs the start-up entry.
//
// Kernel images are stand-ins, as `ota-publish kernel` writes them (kernel_image.h).

#include <cstdint>
#include <string>
#include <string_view>

#include "kernel_image.h"
#include "tavisim/device.h"

namespace tavisim {

// What the boot loader makes of a menu (the rules observed with Limine, BOOTLOADER.md).
struct MenuChoice {
  int entries = 0;          // top-level entries
  int entry = 0;            // the top-level entry started (or holding the sub-entry started), from 1; 0: none
  std::string title;        // the title of the entry chosen
  bool sub_entry = false;   // the entry chosen is a sub-entry (picked by hand)
  std::string kernel_path;  // on the ESP, e.g. "/tavi-b.mb"; empty with a problem
  std::string problem;      // why nothing can be started
  bool waits = false;       // the entry chosen is a directory: the loader waits at its menu
  bool remember = false;    // the menu asks the loader to remember the entry it boots
  bool remembered = false;  // the entry chosen is the one the firmware remembered
  bool picked = false;      // the entry chosen was picked by hand
};

// What decides the boot loader's choice besides the menu itself.
struct BootSelection {
  // The title of the entry the loader booted last, from the firmware's variables; it is
  // used only when the menu says `remember_last_entry: yes`. Empty: none.
  std::string remembered;
  // An entry picked by hand at the boot menu: a top-level entry's number, or the title of
  // any entry (sub-entries included). Empty: nobody picks.
  std::string pick;
};

MenuChoice choose_boot_entry(std::string_view limine_conf, const BootSelection& selection);
// force_entry: start that top-level entry instead of the default one, as if picked by hand.
MenuChoice choose_boot_entry(std::string_view limine_conf, int force_entry = 0);
// The menu with the value of the default_entry line that counts set to 1 (the kernel's
// lasting fallback); every other byte stays. Unchanged when no such line counts.
std::string menu_with_default_one(std::string_view limine_conf);

// The multiboot1 header of a kernel image as the boot loader looks for it (kernel_image.h).
using kernel_image::Multiboot1Header;
using kernel_image::find_multiboot1_header;
// Why the boot loader (Limine on UEFI) does not start this multiboot1 image, in the words
// shown on its screen; empty when it starts it.
std::string multiboot1_refusal(std::string_view image);

struct KernelImage {
  bool valid = false;
  std::string build;
  std::string commit;
  bool healthy = false;
};
KernelImage read_kernel_image(std::string_view image);
// A stand-in image of `size` bytes, or longer when its first line and multiboot1 header
// need more.
std::string stand_in_kernel(uint64_t build, const std::string& commit, bool healthy = true, size_t size = 4096);

// The firmware's variables that the boot loader keeps across restarts, in
// DIR/firmware.state. A device without the file has empty variables.
struct FirmwareState {
  std::string last_booted_entry;  // the title of the entry booted last (remember_last_entry)
};
FirmwareState read_firmware_state(const std::string& device_dir);
void write_firmware_state(const std::string& device_dir, const FirmwareState& state);

struct BootResult {
  bool booted = false;
  std::string stuck;  // why the machine stands at the boot loader; empty when it booted
  std::string disk;
  int entry = 0;
  std::string kernel_path;
  KernelImage kernel;
  int trial_starts = -1;  // the start count of an unconfirmed trial after this start; -1: none
  bool fallback = false;  // the kernel fell back to entry 1
  bool menu_reset = false;  // and rewrote the menu's default to entry 1 on the ESP
  // The kernel fell back and restarted the machine, but the boot loader would not start
  // entry 1 (it remembers the entry it booted last): this start ends in a restart and the
  // next one begins at the boot loader again. booted stays false.
  bool restarted = false;
  bool remembered = false;  // the loader started the entry it remembered, not the default
  bool picked = false;      // the entry was picked by hand
  bool ran_start_entry = false;
  RunResult start_entry;  // the start-up entry's run
};

struct BootOptions {
  RunOptions run = [] {
    RunOptions o;
    o.virtual_seconds = 3600;  // `ota boot` goes on as the endless service loop
    return o;
  }();
  bool start_entry = true;
  // Someone at the console picks this entry from the boot menu (see BootSelection::pick).
  std::string pick;
};

}  // namespace tavisim
