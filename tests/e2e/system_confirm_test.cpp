// The pending system update and its trial: the records written when a kernel is staged,
// and the decision after the restart (promoted to slot A, rolled back, or left pending
// for a later run).
#include "system_source.h"

using namespace e2e;
using tavisim::RunResult;

namespace {

class SystemConfirmTest : public SystemTest {
 protected:
  // Stages the offered build with one overlay file replacing /bin/taskbar; returns the
  // offered kernel.
  std::string stage() {
    std::string kernel = publish_system({"--file", "taskbar=" + host_file("taskbar", "new taskbar\n")});
    device().write_file("/bin/taskbar", "old taskbar\n", 0755);
    RunResult r = device().run({"system", "apply"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, check_lines() + "system: overlay files verified: 1\nsystem: staged in slot B, restart to install\n");
    return kernel;
  }
  std::string pending_record(const std::string& kernel) {
    return "count=20250111\ncommit=" + std::string(kNewCommit) + "\nsha=" + sha256_hex(kernel) + "\n";
  }
  std::string file(const std::string& path) { return device().read_file(path).value_or("<missing>"); }
  std::string stand() { return file("/system/sys.stand"); }
  static std::string with_entry_b_default_one() {
    std::string menu = kStagedMenu;
    menu[menu.find("default_entry: 2") + 15] = '1';
    return menu;
  }

  // Everything a staged, undecided update holds.
  void expect_still_pending(const std::string& kernel) {
    EXPECT_EQ(file("/system/SYSPENDING"), pending_record(kernel));
    EXPECT_EQ(file("/system/SYSVERSION"), "20250110\n");
    EXPECT_EQ(file("/bin/taskbar"), "new taskbar\n");
    EXPECT_EQ(file("/system/old/taskbar"), "old taskbar\n");
    EXPECT_EQ(file("/system/SYSOVL"), "1taskbar\n");
    EXPECT_EQ(device().esp_read("sda1", "tavi.mb").value_or(""), old_kernel_);
  }
};

// --- The records of a staged update ---

TEST_F(SystemConfirmTest, StagingWritesThePendingRecordAndArmsTheTrial) {
  std::string kernel = stage();
  EXPECT_EQ(file("/system/SYSPENDING"), pending_record(kernel));
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000003 vor=00000003 v=00 ok=0\n");
  EXPECT_EQ(file("/system/AKTUELL"), "00000003\n");
  expect_esp_menu(kStagedMenu);
  EXPECT_EQ(device().esp_read("sda1", "tavi-b.mb").value_or(""), kernel);
}

TEST_F(SystemConfirmTest, TheGenerationIsMadeOfTheDigitsAmongTheFirstEightCharacters) {
  device().write_file("/system/AKTUELL", "0000012\n");
  publish_system();
  ASSERT_EQ(device().run({"system", "apply"}).status, 0);
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000012 vor=00000012 v=00 ok=0\n");
  EXPECT_EQ(file("/system/AKTUELL"), "0000012\n");
}

TEST_F(SystemConfirmTest, OtherCharactersAmongTheFirstEightAreSkipped) {
  device().write_file("/system/AKTUELL", "00x0 047\n");
  publish_system();
  ASSERT_EQ(device().run({"system", "apply"}).status, 0);
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000047 vor=00000047 v=00 ok=0\n");
}

TEST_F(SystemConfirmTest, AMissingGenerationIsCreatedAsZero) {
  device().remove("/system/AKTUELL");
  publish_system();
  ASSERT_EQ(device().run({"system", "apply"}).status, 0);
  EXPECT_EQ(file("/system/AKTUELL"), "00000000\n");
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000000 vor=00000000 v=00 ok=0\n");
}

TEST_F(SystemConfirmTest, AShortGenerationIsRewrittenAsZero) {
  device().write_file("/system/AKTUELL", "12\n");
  publish_system();
  ASSERT_EQ(device().run({"system", "apply"}).status, 0);
  EXPECT_EQ(file("/system/AKTUELL"), "00000000\n");
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000000 vor=00000000 v=00 ok=0\n");
}

// --- Confirmed ---

TEST_F(SystemConfirmTest, ARestartIntoTheNewKernelIsPromotedToSlotA) {
  std::string kernel = stage();
  tavisim::BootResult b = restart_machine();
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(file("/proc/version"), "tavi 20250111 build 2222222bbbb (tavi-sim stand-in kernel)\n");

  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "system: overlay committed\nsystem: new kernel confirmed and promoted to slot A\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(device().esp_read("sda1", "tavi.mb").value_or(""), kernel);
  EXPECT_EQ(device().esp_read("sda1", "tavi-b.mb").value_or(""), kernel);
  expect_esp_menu(
      "timeout: 5\ndefault_entry: 1\n\n/tavi\n    protocol: multiboot1\n    path: boot():/tavi.mb\n"
      "\n/tavi (update)\n    protocol: multiboot1\n    path: boot():/tavi-b.mb\n");
  EXPECT_EQ(file("/system/SYSVERSION"), "20250111\n");
  EXPECT_FALSE(device().exists("/system/SYSPENDING"));
  EXPECT_FALSE(device().exists("/system/SYSOVL"));
  EXPECT_FALSE(device().exists("/system/old/taskbar"));
  EXPECT_EQ(file("/bin/taskbar"), "new taskbar\n");
  EXPECT_EQ(stand(), "here=20250111\nthere=20250111\ncommit=\nphase=current\n");
  // The system confirmation leaves the trial record to the package side.
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000003 vor=00000003 v=01 ok=0\n");

  // The next start boots the promoted kernel from entry 1.
  b = restart_machine();
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.kernel.commit, kNewCommit);
  r = device().run({"system", "confirm"});
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.status, 0);
}

TEST_F(SystemConfirmTest, OtaConfirmAlsoDecidesTheSystemTrial) {
  std::string kernel = stage();
  ASSERT_TRUE(restart_machine().booted);
  RunResult r = device().run({"confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "system: overlay committed\nsystem: new kernel confirmed and promoted to slot A\n");
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000003 vor=00000003 v=01 ok=1\n");
  EXPECT_EQ(device().esp_read("sda1", "tavi.mb").value_or(""), kernel);
  EXPECT_EQ(file("/system/SYSVERSION"), "20250111\n");
}

// --- Rolled back ---

TEST_F(SystemConfirmTest, AFallbackToTheOldKernelRollsBack) {
  std::string kernel = stage();
  // The kernel gives up on the trial entry at the first start.
  device().config().boot_tries = 0;
  device().save_config();
  tavisim::BootResult b = restart_machine();
  ASSERT_TRUE(b.booted);
  EXPECT_TRUE(b.fallback);
  EXPECT_EQ(b.kernel.commit, kOldCommit);

  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.status, 0);  // the command succeeds although the trial was rolled back
  EXPECT_EQ(r.out,
            "system: overlay restored (previous /bin files are back)\n"
            "system: trial kernel was rolled back, update dropped\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(file("/bin/taskbar"), "old taskbar\n");
  EXPECT_FALSE(device().exists("/system/old/taskbar"));
  EXPECT_FALSE(device().exists("/system/SYSOVL"));
  EXPECT_FALSE(device().exists("/system/SYSPENDING"));
  EXPECT_EQ(file("/system/SYSVERSION"), "20250110\n");
  EXPECT_EQ(stand(), "here=20250110\nthere=0\ncommit=\nphase=failed\n");
  // Slot B and entry B stay; the next apply overwrites them. The kernel's fallback made
  // entry 1 the default again, so the next start boots the old kernel.
  EXPECT_EQ(device().esp_read("sda1", "tavi.mb").value_or(""), old_kernel_);
  EXPECT_EQ(device().esp_read("sda1", "tavi-b.mb").value_or(""), kernel);
  std::string menu = kStagedMenu;
  menu.replace(menu.find("default_entry: 2"), 16, "default_entry: 1");
  expect_esp_menu(menu);
}

TEST_F(SystemConfirmTest, AnUnreadableProcVersionRollsBack) {
  stage();
  device().remove("/proc/version");
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.out,
            "system: overlay restored (previous /bin files are back)\n"
            "system: trial kernel was rolled back, update dropped\n");
  EXPECT_FALSE(device().exists("/system/SYSPENDING"));
}

TEST_F(SystemConfirmTest, AMenuResetToOneByHandRollsBackAlthoughTheNewKernelRuns) {
  stage();
  ASSERT_EQ(restart_machine().entry, 2);
  std::string by_hand = with_entry_b_default_one();
  tavisim::fat_write(device().disk_image("sda1"), "limine.conf", by_hand);
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "system: overlay restored (previous /bin files are back)\n"
            "system: trial kernel was rolled back, update dropped\n");
  EXPECT_EQ(file("/bin/taskbar"), "old taskbar\n");
  EXPECT_EQ(device().esp_read("sda1", "tavi.mb").value_or(""), old_kernel_);
  expect_esp_menu(by_hand);
  EXPECT_EQ(file("/system/SYSVERSION"), "20250110\n");
}

// --- Not yet decidable: everything stays pending ---

TEST_F(SystemConfirmTest, AnEspThatCannotBeMountedLeavesTheUpdatePending) {
  std::string kernel = stage();
  ASSERT_EQ(restart_machine().entry, 2);
  device().add_call_fault({165, -5, 1, true, ""});
  Snapshot root = root_snapshot();
  Snapshot esp = esp_snapshot();
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(difference(root, root_snapshot()), "");
  EXPECT_EQ(difference(esp, esp_snapshot()), "");
  expect_still_pending(kernel);

  // Once the partition mounts again the trial is decided.
  device().clear_faults();
  r = device().run({"system", "confirm"});
  EXPECT_EQ(r.out, "system: overlay committed\nsystem: new kernel confirmed and promoted to slot A\n");
}

TEST_F(SystemConfirmTest, AnEmptyMenuLeavesTheUpdatePending) {
  std::string kernel = stage();
  ASSERT_EQ(restart_machine().entry, 2);
  tavisim::fat_write(device().disk_image("sda1"), "limine.conf", "");
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  expect_still_pending(kernel);
  EXPECT_EQ(device().esp_read("sda1", "limine.conf").value_or("<missing>"), "");
}

TEST_F(SystemConfirmTest, ASlotBThatNoLongerMatchesLeavesTheUpdatePending) {
  std::string kernel = stage();
  ASSERT_EQ(restart_machine().entry, 2);
  std::string changed = kernel;
  changed[100] ^= 1;
  tavisim::fat_write(device().disk_image("sda1"), "tavi-b.mb", changed);
  Snapshot root = root_snapshot();
  Snapshot esp = esp_snapshot();
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(difference(root, root_snapshot()), "");
  EXPECT_EQ(difference(esp, esp_snapshot()), "");
  expect_still_pending(kernel);
  expect_esp_menu(kStagedMenu);
}

TEST_F(SystemConfirmTest, AFailedCopyIntoSlotALeavesTheUpdatePending) {
  std::string kernel = stage();
  ASSERT_EQ(restart_machine().entry, 2);
  device().add_call_fault({2, -28, 1, true, "/sysesp/tavi.mb"});
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  expect_still_pending(kernel);
  expect_esp_menu(kStagedMenu);
}

// --- The pending record itself ---

TEST_F(SystemConfirmTest, ARecordMissingAKeyIsDroppedSilentlyAndTheOverlayRestored) {
  // A journal of an installed overlay, as an interrupted apply leaves it.
  device().write_file("/bin/taskbar", "new taskbar\n", 0755);
  device().write_file("/system/old/taskbar", "old taskbar\n", 0755);
  device().write_file("/system/SYSOVL", "1taskbar\n");
  const std::vector<std::string> records = {
      "count=20250111\ncommit=2222222bbbb\n",                       // no sha=
      "count=20250111\nsha=" + std::string(64, 'a') + "\n",         // no commit=
      "commit=2222222bbbb\nsha=" + std::string(64, 'a') + "\n",     // no count=
  };
  for (size_t i = 0; i < records.size(); i++) {
    device().write_file("/system/SYSPENDING", records[i]);
    RunResult r = device().run({"system", "confirm"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_FALSE(device().exists("/system/SYSPENDING")) << records[i];
    EXPECT_TRUE(events_of(r.events, "mount").empty());
    // Only the first run finds the journal to restore.
    EXPECT_EQ(r.out, i == 0 ? "system: overlay restored (previous /bin files are back)\n" : "") << records[i];
  }
  EXPECT_EQ(file("/bin/taskbar"), "old taskbar\n");
  EXPECT_FALSE(device().exists("/system/SYSOVL"));
  EXPECT_FALSE(device().exists("/system/sys.stand"));
}

TEST_F(SystemConfirmTest, NothingPendingPrintsNothingUnlessAJournalIsLeft) {
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_TRUE(events_of(r.events, "mount").empty());

  device().write_file("/etc/new.conf", "staged and moved\n");
  device().write_file("/system/SYSOVL", "0/etc/new.conf\n");
  device().write_file("/system/SYSPENDING", "");
  r = device().run({"system", "confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "system: overlay restored (previous /bin files are back)\n");
  EXPECT_FALSE(device().exists("/etc/new.conf"));
  EXPECT_FALSE(device().exists("/system/SYSOVL"));
}

TEST_F(SystemConfirmTest, AShortCommitIsComparedWithTheBytesThatFollowItInTheRecord) {
  std::string kernel = stage();
  ASSERT_EQ(restart_machine().entry, 2);
  std::string sha = sha256_hex(kernel);
  device().write_file("/system/SYSPENDING", "count=20250111\ncommit=abc\nsha=" + sha + "\n");
  // "abc" alone is not the pending kernel: the comparison takes seven bytes, "abc\nsha".
  device().write_file("/proc/version", "tavi 20250111 build abc (tavi-sim stand-in kernel)\n");
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.out,
            "system: overlay restored (previous /bin files are back)\n"
            "system: trial kernel was rolled back, update dropped\n");
}

TEST_F(SystemConfirmTest, AShortCommitMatchesAVersionHoldingTheSameBytes) {
  std::string kernel = stage();
  ASSERT_EQ(restart_machine().entry, 2);
  std::string sha = sha256_hex(kernel);
  device().write_file("/system/SYSPENDING", "count=20250111\ncommit=abc\nsha=" + sha + "\n");
  device().write_file("/proc/version", "tavi 20250111 build abc\nsha=\n");
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.out, "system: overlay committed\nsystem: new kernel confirmed and promoted to slot A\n");
  EXPECT_EQ(device().esp_read("sda1", "tavi.mb").value_or(""), kernel);
}

}  // namespace
