#include "system/apply.h"

#include "records/trial_record.h"
#include "runtime/files.h"
#include "runtime/process.h"
#include "runtime/text.h"
#include "system/background.h"
#include "system/esp.h"
#include "system/manifest.h"
#include "system/menu.h"
#include "system/overlay.h"
#include "system/pending.h"
#include "trust/catalog_text.h"
#include "trust/sha256.h"

namespace ota {

namespace {

constexpr const char* kRootsPath = "/system/new/roots.pem";
constexpr const char* kRootsTool = "/bin/rootsctl";
// The desktop programs restarted when an overlay replaces them.
constexpr const char* kShellPrograms[] = {"taskbar", "launcher"};

int give_up(const char* msg) { return fail(msg, nullptr); }

void say_overlay_verified() { say_number("system: overlay files verified: ", manifest.file_count); }

// The steps of a staged apply that can fail once the ESP is mounted, in the order they are
// taken.
enum class Stage : u8 { staging, kernel, pending_record, trial_record, overlay_install, boot_menu };

// What a failing step undoes of the steps before it.
enum class Undo : u8 { nothing, slot_b, staging, pending_record, trial_record, overlay };

// Up to five undo steps in the order they are taken, three bits each, first lowest.
constexpr u16 in_order(Undo a, Undo b = Undo::nothing, Undo c = Undo::nothing, Undo d = Undo::nothing,
                       Undo e = Undo::nothing) {
  return static_cast<u16>(static_cast<u16>(a) | static_cast<u16>(b) << 3 | static_cast<u16>(c) << 6 |
                          static_cast<u16>(d) << 9 | static_cast<u16>(e) << 12);
}

// By Stage, what its failure undoes, in the order it is undone; every failure then
// unmounts the ESP. A failed staging has cleaned up after itself. A failed overlay install
// restores the overlay first and then removes the staged copies the restore did not take
// (a journal that could not be written restores nothing).
constexpr u16 kUndoSteps[] = {
    in_order(Undo::nothing),
    in_order(Undo::slot_b, Undo::staging),
    in_order(Undo::slot_b, Undo::staging),
    in_order(Undo::slot_b, Undo::pending_record, Undo::staging),
    in_order(Undo::overlay, Undo::staging, Undo::pending_record, Undo::trial_record, Undo::slot_b),
    in_order(Undo::slot_b, Undo::overlay, Undo::pending_record, Undo::trial_record),
};

// Undoes what came before the failed stage, unmounts the ESP and ends the command with
// message (null where the failing step printed its own reason).
int roll_back_apply(Stage failed, const char* message) {
  for (u16 steps = kUndoSteps[static_cast<u8>(failed)]; steps != 0; steps >>= 3) {
    switch (static_cast<Undo>(steps & 7)) {
      case Undo::nothing: break;
      case Undo::slot_b: remove_file(slot_b_path); break;
      case Undo::staging: clean_staging(); break;
      case Undo::pending_record: remove_file(kSystemPendingPath); break;
      case Undo::trial_record: remove_file(kTrialRecordPath); break;
      case Undo::overlay: restore_overlay(); break;
    }
  }
  unmount_esp();
  return message == nullptr ? 1 : give_up(message);
}

}  // namespace

bool fetch_kernel_to_slot_b() {
  const ManifestFile& k = manifest.kernel;
  return fetch_overlay_file(kKernelKind, k.name, k.size, k.sha, slot_b_path);
}

bool slot_a_is_offered_kernel() {
  return file_size(slot_a_path) == manifest.kernel.size && sha256_file_matches(slot_a_path, manifest.kernel.sha);
}

void update_trust_roots() {
  const ManifestFile& roots = manifest.roots;
  if (roots.size == 0) return;
  make_directory(kStagingDir);
  remove_file(kRootsPath);
  bool ok = false;
  if (str_len(roots.sha) == kDigestHexLength && roots.name[0] != 0 &&
      fetch_overlay_file(kRootsKind, roots.name, roots.size, roots.sha, kRootsPath)) {
    static const char* words[3];
    words[0] = kRootsTool;
    words[1] = "apply";
    words[2] = kRootsPath;
    ok = run_program(kRootsTool, words, 3) == 0;
  }
  remove_file(kRootsPath);
  if (ok) {
    print_out("system: trust roots updated\n");
  } else {
    report_failure("ota: trust roots not updated (download, check or apply failed)", nullptr);
  }
}

void restart_shell_programs() {
  for (u64 i = 0;; i++) {
    const char* line = find_catalog_line(kOverlayFileTag, text_length(kOverlayFileTag), i);
    if (line == nullptr) return;
    char target[kTargetBytes];
    line_field(line, 3, target, sizeof target);
    for (const char* program : kShellPrograms) {
      if (str_equal(target, program) && end_tasks_named(program) > 0) {
        say_text("system: shell program restarted: ", program);
      }
    }
  }
}

int apply_without_kernel() {
  unmount_esp();
  if (manifest.file_count > 0) {
    if (!stage_overlay_files()) return 1;
    say_overlay_verified();
    if (!install_overlay()) {
      restore_overlay();
      // A journal that could not be written restores nothing; the staged copies go here.
      clean_staging();
      return give_up("ota: overlay install failed, previous files restored");
    }
    restart_shell_programs();
    // No trial is needed: the kernel stays, the files take effect now.
    commit_overlay();
  }
  write_number_file(kSystemVersionPath, manifest.build);
  write_system_status("applied");
  print_out("system: applied, no restart needed (same kernel)\n");
  return 0;
}

int system_apply(bool restart, bool in_background) {
  if (in_trial() || system_trial_pending()) return give_up("ota: a trial is running or pending, confirm or restart first");
  SystemCheck check = check_system_update(true);
  if (check != SystemCheck::offered) return exit_status(check);
  if (manifest.unknown_entry) print_out("system: root image entry ignored (module-root layout is stage 2)\n");
  fetch_system_notes(false);
  update_trust_roots();

  // Zero-filled, so a commit shorter than seven characters compares zero bytes after it
  // rather than what an earlier manifest left in the field.
  char commit7[kCommitBytes];
  static_assert(kCommitBytes > kCommitPrefix);
  mem_fill(commit7, 0, sizeof commit7);
  str_copy(commit7, manifest.commit);
  if (running_kernel_is(commit7)) return apply_without_kernel();
  if (!mount_esp()) return give_up("ota: cannot mount the ESP (partition 1 of the boot disk)?");
  if (slot_a_is_offered_kernel()) return apply_without_kernel();

  bool overlay = manifest.file_count > 0;
  if (overlay) {
    if (!stage_overlay_files()) return roll_back_apply(Stage::staging, nullptr);
    say_overlay_verified();
  }
  // From here on a failure undoes what the steps before it did (kUndoSteps).
  if (!fetch_kernel_to_slot_b()) return roll_back_apply(Stage::kernel, "ota: kernel download or check failed");
  if (!write_pending_record()) return roll_back_apply(Stage::pending_record, "ota: could not write /system/SYSPENDING");
  if (!arm_system_trial()) return roll_back_apply(Stage::trial_record, "ota: could not arm the trial counter");
  if (overlay && !install_overlay()) {
    return roll_back_apply(Stage::overlay_install, "ota: overlay install failed, previous files restored");
  }
  if (!install_entry_b()) return roll_back_apply(Stage::boot_menu, nullptr);
  unmount_esp();
  write_system_status("staged");
  print_out("system: staged in slot B, restart to install\n");
  if (!restart) return 0;
  print_out("system: restarting\n");
  if (in_background) write_apply_state("state=done\n");
  sys_sync();
  // Half a second for the disk to finish what the sync handed it before the restart.
  sleep_ms(500);
  sys_reboot(TAVI_RESTART);
  return 0;
}

}  // namespace ota
