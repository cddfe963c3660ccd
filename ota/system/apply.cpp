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
// The desktop programs restarted when an overlay replaces them.
constexpr const char* kShellPrograms[] = {"taskbar", "launcher"};

int give_up(const char* msg) { return fail(msg, nullptr); }

void say_overlay_verified() { say_number("system: overlay files verified: ", manifest.file_count); }

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
  if (str_len(roots.sha) == 64 && roots.name[0] != 0 &&
      fetch_overlay_file(kRootsKind, roots.name, roots.size, roots.sha, kRootsPath)) {
    static const char* words[3];
    words[0] = "/bin/rootsctl";
    words[1] = "apply";
    words[2] = kRootsPath;
    ok = run_program("/bin/rootsctl", words, 3) == 0;
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

  char commit7[kCommitBytes + 8];
  mem_fill(commit7, 0, sizeof commit7);
  str_copy(commit7, manifest.commit);
  if (running_kernel_is(commit7)) return apply_without_kernel();
  if (!mount_esp()) return give_up("ota: cannot mount the ESP (partition 1 of the boot disk)?");
  if (slot_a_is_offered_kernel()) return apply_without_kernel();

  bool overlay = manifest.file_count > 0;
  if (overlay) {
    if (!stage_overlay_files()) {
      unmount_esp();
      return 1;
    }
    say_overlay_verified();
  }
  // From here on every failure undoes what the steps before it did, in reverse order.
  if (!fetch_kernel_to_slot_b()) {
    remove_file(slot_b_path);
    if (overlay) clean_staging();
    unmount_esp();
    return give_up("ota: kernel download or check failed");
  }
  if (!write_pending_record()) {
    remove_file(slot_b_path);
    clean_staging();
    unmount_esp();
    return give_up("ota: could not write /system/SYSPENDING");
  }
  if (!arm_system_trial()) {
    remove_file(slot_b_path);
    remove_file(kSystemPendingPath);
    clean_staging();
    unmount_esp();
    return give_up("ota: could not arm the trial counter");
  }
  if (overlay && !install_overlay()) {
    restore_overlay();
    clean_staging();
    remove_file(kSystemPendingPath);
    remove_file(kTrialRecordPath);
    remove_file(slot_b_path);
    unmount_esp();
    return give_up("ota: overlay install failed, previous files restored");
  }
  if (!install_entry_b()) {
    remove_file(slot_b_path);
    restore_overlay();
    remove_file(kSystemPendingPath);
    remove_file(kTrialRecordPath);
    unmount_esp();
    return 1;
  }
  unmount_esp();
  write_system_status("staged");
  print_out("system: staged in slot B, restart to install\n");
  if (!restart) return 0;
  print_out("system: restarting\n");
  if (in_background) write_apply_state("state=done\n");
  sys_sync();
  sleep_ms(500);
  sys_reboot(TAVI_RESTART);
  return 0;
}

}  // namespace ota
