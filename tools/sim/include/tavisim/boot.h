#pragma once
// The start of a simulated machine: the boot loader reads limine.conf on the ESP and
// starts the default entry's kernel image (or stands still when it cannot); the kernel
// writes /proc/version from the image, counts the starts of an unconfirmed trial and,
// after too many, falls back to entry 1 and sets the menu's default to entry 1, starts
// the desktop tasks if the image is healthy, and runs the start-up entry.
//
// Kernel images are stand-ins, as `ota-publish kernel` writes them: a first line
//   TAVI-KERNEL build=<build> commit=<commit> health=good|broken
// then filler bytes, byte i of the file being i mod 251.

#include <cstdint>
#include <string>
#include <string_view>

#include "tavisim/device.h"

namespace tavisim {

// What the boot loader makes of a menu (the rules observed with Limine, BOOTLOADER.md).
struct MenuChoice {
  int entries = 0;          // top-level entries
  int entry = 0;            // the one started, from 1; 0 when none
  std::string kernel_path;  // on the ESP, e.g. "/tavi-b.mb"; empty with a problem
  std::string problem;      // why nothing can be started
};
// force_entry: start that entry instead of the default one (the kernel's fallback).
MenuChoice choose_boot_entry(std::string_view limine_conf, int force_entry = 0);
// The menu with the value of the default_entry line that counts set to 1 (the kernel's
// lasting fallback); every other byte stays. Unchanged when no such line counts.
std::string menu_with_default_one(std::string_view limine_conf);

struct KernelImage {
  bool valid = false;
  std::string build;
  std::string commit;
  bool healthy = false;
};
KernelImage read_kernel_image(std::string_view image);
std::string stand_in_kernel(uint64_t build, const std::string& commit, bool healthy = true, size_t size = 4096);

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
};

}  // namespace tavisim
