// `ota system apply`: the refusals before anything is fetched, every failing step undone
// so that the device holds what it held before, the road without a kernel change, the
// trust roots, the shell programs and the restart.
#include "system_source.h"

using namespace e2e;
using tavisim::RunResult;
using Words = std::vector<std::string>;

namespace {

class SystemApplyTest : public SystemTest {
 protected:
  std::string file(const std::string& path) { return device().read_file(path).value_or("<missing>"); }
  std::string stand() { return file("/system/sys.stand"); }

  // Offers the new kernel with two overlay files: a new /bin/taskbar over the old one and
  // a new /etc/new.conf.
  std::string publish_with_overlay(const std::vector<std::string>& more = {}) {
    device().write_file("/bin/taskbar", "old taskbar\n", 0755);
    std::vector<std::string> options = {"--file", "taskbar=" + host_file("taskbar", "new taskbar\n"), "--file",
                                        "/etc/new.conf=" + host_file("new.conf", "fresh\n")};
    options.insert(options.end(), more.begin(), more.end());
    return publish_system(options);
  }

  // Runs the apply, which must fail with `err` after printing `out`, and checks that the
  // device root (downloads aside) and its ESP hold exactly what they held before.
  RunResult expect_undone(const std::string& out, const std::string& err) {
    Snapshot root = root_snapshot();
    Snapshot esp = esp_snapshot();
    RunResult r = device().run({"system", "apply"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(r.err, err);
    EXPECT_EQ(difference(root, root_snapshot()), "");
    EXPECT_EQ(difference(esp, esp_snapshot()), "");
    EXPECT_FALSE(device().mounted());
    return r;
  }
};

const char* kVerifiedTwo = "system: overlay files verified: 2\n";

// --- Refused at once ---

TEST_F(SystemApplyTest, AnOpenPackageTrialRefusesBeforeAnyDownload) {
  publish_with_overlay();
  device().write_file("/system/ERPROBUNG", "gen=00000004 vor=00000003 v=00 ok=0\n");
  RunResult r = expect_undone("", "ota: a trial is running or pending, confirm or restart first\n");
  EXPECT_TRUE(events_of(r.events, "spawn").empty());
  EXPECT_TRUE(events_of(r.events, "mount").empty());
}

TEST_F(SystemApplyTest, APendingSystemUpdateRefusesBeforeAnyDownload) {
  publish_with_overlay();
  device().write_file("/system/SYSPENDING", "count=20250111\n");
  RunResult r = expect_undone("", "ota: a trial is running or pending, confirm or restart first\n");
  EXPECT_TRUE(events_of(r.events, "spawn").empty());
  EXPECT_TRUE(events_of(r.events, "mount").empty());
}

TEST_F(SystemApplyTest, AnEmptyPendingRecordAndAConfirmedTrialDoNotRefuse) {
  publish_system();
  device().write_file("/system/SYSPENDING", "");
  device().write_file("/system/ERPROBUNG", "gen=00000003 vor=00000002 v=01 ok=1\n");
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000003 vor=00000003 v=00 ok=0\n");
}

// --- Every failing step undone ---

TEST_F(SystemApplyTest, NoPartitionToMount) {
  publish_with_overlay();
  std::filesystem::remove(device().disk_image("sda1"));
  RunResult r = expect_undone(check_lines(), "ota: cannot mount the ESP (partition 1 of the boot disk)?\n");
  EXPECT_EQ(events_of(r.events, "mount").size(), 3u);
}

TEST_F(SystemApplyTest, AFailingMountCall) {
  publish_with_overlay();
  device().add_call_fault({165, -5, 1, true, ""});
  expect_undone(check_lines(), "ota: cannot mount the ESP (partition 1 of the boot disk)?\n");
}

TEST_F(SystemApplyTest, AnOverlayFileThatCannotBeFetched) {
  publish_with_overlay();
  device().add_fetch_fault("new.conf", tavisim::FetchFaultKind::fail, 0, 9);
  RunResult r = expect_undone(check_lines(),
                              "ota: wrong length, REJECTED: new.conf\n"
                              "ota: overlay file download or check failed: /etc/new.conf\n");
  // Three fetches, each followed by a check, and a fourth check before it is given up.
  int tries = 0;
  for (const auto& f : spawns_of(r.events, "/bin/fetch")) tries += f.back() == std::string(kSystemUrl) + "/stable/new.conf";
  EXPECT_EQ(tries, 3);
}

TEST_F(SystemApplyTest, AKernelThatCannotBeFetched) {
  publish_with_overlay();
  device().add_fetch_fault("tavi-new.mb", tavisim::FetchFaultKind::fail, 0, 9);
  expect_undone(check_lines() + kVerifiedTwo,
                "ota: wrong length, REJECTED: tavi-new.mb\nota: kernel download or check failed\n");
}

TEST_F(SystemApplyTest, AKernelWithTheWrongHash) {
  publish_with_overlay();
  device().add_fetch_fault("tavi-new.mb", tavisim::FetchFaultKind::corrupt, 2000, 0);
  expect_undone(check_lines() + kVerifiedTwo,
                "ota: HASH MISMATCH, REJECTED: tavi-new.mb\nota: kernel download or check failed\n");
}

TEST_F(SystemApplyTest, APendingRecordThatCannotBeWritten) {
  publish_with_overlay();
  device().add_call_fault({2, -28, 1, true, "/system/SYSPENDING.nw"});
  expect_undone(check_lines() + kVerifiedTwo, "ota: could not write /system/SYSPENDING\n");
}

TEST_F(SystemApplyTest, ATrialRecordThatCannotBeWritten) {
  publish_with_overlay();
  device().add_call_fault({2, -28, 1, true, "/system/ERPROBUNG.nw"});
  expect_undone(check_lines() + kVerifiedTwo, "ota: could not arm the trial counter\n");
}

TEST_F(SystemApplyTest, AnOverlayInstallThatStopsHalfWay) {
  publish_with_overlay();
  device().add_call_fault({82, -5, 1, false, "/system/new/etc@new.conf"});
  expect_undone(check_lines() + kVerifiedTwo + "system: overlay restored (previous /bin files are back)\n",
                "ota: overlay install failed, previous files restored\n");
}

TEST_F(SystemApplyTest, AMenuOfAnUnsupportedLayout) {
  publish_with_overlay();
  device().make_esp("sda1", {{"limine.conf", "default_entry: 3\n/tavi\n    path: boot():/tavi.mb\n"},
                             {"tavi.mb", old_kernel_}});
  expect_undone(check_lines() + kVerifiedTwo + "system: overlay restored (previous /bin files are back)\n",
                "ota: unsupported limine.conf layout: default_entry is not 1\n");
}

TEST_F(SystemApplyTest, TrustRootsStayAppliedWhenALaterStepFails) {
  std::string roots = "roots v2\n";
  publish_with_overlay({"--roots", host_file("roots.pem", roots)});
  device().add_fetch_fault("tavi-new.mb", tavisim::FetchFaultKind::fail, 0, 9);
  RunResult r = expect_undone(check_lines() + "system: trust roots updated\n" + kVerifiedTwo,
                              "ota: wrong length, REJECTED: tavi-new.mb\nota: kernel download or check failed\n");
  EXPECT_EQ(read_all(device().dir() + "/rootsctl/applied.pem"), roots);
}

// --- The road without a kernel change ---

TEST_F(SystemApplyTest, TheRunningKernelIsTheOfferedBuildSoTheEspIsNeverTouched) {
  publish_with_overlay();
  // Only the first seven characters of the commit count.
  running_kernel("2222222zzzz");
  Snapshot esp = esp_snapshot();
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + kVerifiedTwo +
                       "system: overlay committed\n"
                       "system: applied, no restart needed (same kernel)\n");
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(events_of(r.events, "mount").empty());
  EXPECT_EQ(difference(esp, esp_snapshot()), "");
  EXPECT_EQ(file("/system/SYSVERSION"), "20250111\n");
  EXPECT_EQ(stand(), "here=20250111\nthere=20250111\ncommit=2222222bbbb\nphase=applied\n");
  EXPECT_EQ(file("/bin/taskbar"), "new taskbar\n");
  EXPECT_EQ(file("/etc/new.conf"), "fresh\n");
  for (const char* gone : {"/system/SYSPENDING", "/system/ERPROBUNG", "/system/SYSOVL", "/system/old/taskbar",
                           "/system/new/taskbar", "/system/new/etc@new.conf"}) {
    EXPECT_FALSE(device().exists(gone)) << gone;
  }
}

TEST_F(SystemApplyTest, SixCharactersOfTheCommitAreNotEnough) {
  publish_system();
  running_kernel("222222z");
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, check_lines() + "system: staged in slot B, restart to install\n");
}

TEST_F(SystemApplyTest, SlotAAlreadyHoldingTheOfferedKernelNeedsNoRestart) {
  std::string kernel = publish_system();
  device().make_esp("sda1", {{"limine.conf", kPlainMenu}, {"tavi.mb", kernel}});
  Snapshot esp = esp_snapshot();
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + "system: applied, no restart needed (same kernel)\n");
  EXPECT_EQ(events_of(r.events, "mount").size(), 1u);
  EXPECT_FALSE(device().mounted());
  EXPECT_EQ(difference(esp, esp_snapshot()), "");
  EXPECT_EQ(file("/system/SYSVERSION"), "20250111\n");
  EXPECT_FALSE(device().exists("/system/SYSPENDING"));
  EXPECT_FALSE(device().exists("/system/ERPROBUNG"));
  EXPECT_EQ(stand(), "here=20250111\nthere=20250111\ncommit=2222222bbbb\nphase=applied\n");
}

TEST_F(SystemApplyTest, ASlotAOfTheSameSizeButOtherBytesIsNotTheOfferedKernel) {
  std::string kernel = publish_system();
  std::string other = kernel;
  other[10] ^= 1;
  device().make_esp("sda1", {{"limine.conf", kPlainMenu}, {"tavi.mb", other}});
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, check_lines() + "system: staged in slot B, restart to install\n");
}

TEST_F(SystemApplyTest, AFailedOverlayInstallWithoutAKernelChangeIsRestored) {
  publish_with_overlay();
  running_kernel(kNewCommit);
  device().add_call_fault({82, -5, 1, false, "/system/new/etc@new.conf"});
  Snapshot root = root_snapshot();
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, check_lines() + kVerifiedTwo + "system: overlay restored (previous /bin files are back)\n");
  EXPECT_EQ(r.err, "ota: overlay install failed, previous files restored\n");
  EXPECT_EQ(difference(root, root_snapshot()), "");
}

// --- Shell programs ---

TEST_F(SystemApplyTest, RunningShellProgramsReplacedByTheOverlayAreEnded) {
  device().add_task("taskbar", 3, 0);
  device().add_task("taskbar", 4, 0);
  device().add_task("desktop", 6, 0);
  // launcher is in the overlay too but does not run; desktop runs but is not replaced.
  publish_with_overlay({"--file", "launcher=" + host_file("launcher", "new launcher\n"), "--file",
                        "desktop=" + host_file("desktop", "new desktop\n")});
  running_kernel(kNewCommit);
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() +
                       "system: overlay files verified: 4\n"
                       "system: shell program restarted: taskbar\n"
                       "system: overlay committed\n"
                       "system: applied, no restart needed (same kernel)\n");
  auto ended = events_of(r.events, "end_task");
  ASSERT_EQ(ended.size(), 2u);
  EXPECT_EQ(ended[0].fields[0], "5000003");
  EXPECT_EQ(ended[0].fields[1], "taskbar");
  EXPECT_EQ(ended[0].fields[2], "137");
  EXPECT_EQ(ended[1].fields[0], "5000004");
}

TEST_F(SystemApplyTest, ARunningLauncherReplacedByTheOverlayIsEndedToo) {
  device().add_task("launcher", 7, 0);
  device().add_task("taskbar", 3, 0);
  publish_with_overlay({"--file", "launcher=" + host_file("launcher", "new launcher\n")});
  running_kernel(kNewCommit);
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() +
                       "system: overlay files verified: 3\n"
                       "system: shell program restarted: taskbar\n"
                       "system: shell program restarted: launcher\n"
                       "system: overlay committed\n"
                       "system: applied, no restart needed (same kernel)\n");
  auto ended = events_of(r.events, "end_task");
  ASSERT_EQ(ended.size(), 2u);
  EXPECT_EQ(ended[0].fields[1], "taskbar");
  EXPECT_EQ(ended[1].fields[0], "5000007");
  EXPECT_EQ(ended[1].fields[1], "launcher");
}

TEST_F(SystemApplyTest, AStagedKernelLeavesTheShellProgramsToTheRestart) {
  device().add_task("taskbar", 3, 0);
  publish_with_overlay();
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(events_of(r.events, "end_task").empty());
}

// --- Trust roots ---

TEST_F(SystemApplyTest, TrustRootsAreAppliedWithRootsctl) {
  std::string roots = "-----BEGIN CERTIFICATE-----\nnew roots\n-----END CERTIFICATE-----\n";
  publish_system({"--roots", host_file("roots.pem", roots)});
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + "system: trust roots updated\nsystem: staged in slot B, restart to install\n");
  auto runs = spawns_of(r.events, "/bin/rootsctl");
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0], (Words{"/bin/rootsctl", "apply", "/system/new/roots.pem"}));
  EXPECT_EQ(events_of(r.events, "rootsctl")[0].value("sha256"), sha256_hex(roots));
  EXPECT_EQ(read_all(device().dir() + "/rootsctl/applied.pem"), roots);
  EXPECT_FALSE(device().exists("/system/new/roots.pem"));
}

TEST_F(SystemApplyTest, TrustRootsWithAShortHashAreNotUpdatedAndTheApplyGoesOn) {
  std::string image = kernel_file("k", kNewBuild, kNewCommit);
  serve_file("roots.pem", "roots\n");
  serve_system_text(manifest_head(image) + "sysfile\troots\t" + sha256_hex("roots\n").substr(1) + "\t6\troots.pem\n");
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, check_lines() + "system: staged in slot B, restart to install\n");
  EXPECT_EQ(r.err, "ota: trust roots not updated (download, check or apply failed)\n");
  EXPECT_TRUE(spawns_of(r.events, "/bin/rootsctl").empty());
  for (const auto& f : spawns_of(r.events, "/bin/fetch")) EXPECT_NE(f.back(), std::string(kSystemUrl) + "/stable/roots.pem");
}

TEST_F(SystemApplyTest, TrustRootsWithoutANameAreNotUpdated) {
  std::string image = kernel_file("k", kNewBuild, kNewCommit);
  serve_system_text(manifest_head(image) + "sysfile\troots\t" + sha256_hex("roots\n") + "\t6\n");
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "ota: trust roots not updated (download, check or apply failed)\n");
}

TEST_F(SystemApplyTest, TrustRootsThatFailTheirHashAreNotApplied) {
  publish_system({"--roots", host_file("roots.pem", "roots\n")});
  device().add_fetch_fault("roots.pem", tavisim::FetchFaultKind::corrupt, 0, 0);
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err,
            "ota: HASH MISMATCH, REJECTED: roots.pem\n"
            "ota: trust roots not updated (download, check or apply failed)\n");
  EXPECT_TRUE(spawns_of(r.events, "/bin/rootsctl").empty());
  EXPECT_FALSE(device().exists("/system/new/roots.pem"));
  EXPECT_EQ(r.out, check_lines() + "system: staged in slot B, restart to install\n");
}

TEST_F(SystemApplyTest, TrustRootsRefusedByRootsctlAreReported) {
  publish_system({"--roots", host_file("roots.pem", "roots\n")});
  device().config().rootsctl_fail = 3;
  device().save_config();
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(spawns_of(r.events, "/bin/rootsctl").size(), 1u);
  EXPECT_EQ(r.err, "ota: trust roots not updated (download, check or apply failed)\n");
  EXPECT_FALSE(device().exists("/system/new/roots.pem"));
}

// --- Restart ---

TEST_F(SystemApplyTest, ApplyRestartRestartsIntoTheStagedKernel) {
  std::string kernel = publish_system();
  RunResult r = device().run({"system", "apply", "restart"});
  EXPECT_FALSE(r.exited);
  EXPECT_TRUE(r.rebooted);
  EXPECT_EQ(r.out, check_lines() + "system: staged in slot B, restart to install\nsystem: restarting\n");
  auto reboots = events_of(r.events, "reboot");
  ASSERT_EQ(reboots.size(), 1u);
  EXPECT_TRUE(reboots[0].has("restart"));
  EXPECT_EQ(file("/system/sys.apply"), "<missing>");  // only the background apply keeps a state
  expect_esp_menu(kStagedMenu);
  tavisim::BootResult b = restart_machine();
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(b.kernel.commit, kNewCommit);
  EXPECT_EQ(device().esp_read("sda1", "tavi-b.mb").value_or(""), kernel);
}

TEST_F(SystemApplyTest, AKernelTheBootLoaderWouldNotStartIsStagedAndTheMachineStandsAtTheBootLoader) {
  // The offered kernel's multiboot1 header asks for text mode (flags 0x00010000, the
  // checksum made good again); the header of this stand-in lies at offset 60. The device
  // takes a kernel by its size and hash only, so the check that guards against it is the
  // publisher's, which refuses to publish it.
  std::string image = tavisim::stand_in_kernel(kNewBuild, kNewCommit);
  const uint32_t flags = 0x00010000;
  const uint32_t sum = 0u - 0x1BADB002u - flags;
  for (int i = 0; i < 4; i++) {
    image[64 + i] = static_cast<char>((flags >> (8 * i)) & 0xff);
    image[68 + i] = static_cast<char>((sum >> (8 * i)) & 0xff);
  }
  std::string path = host_file("text-mode.mb", image);
  ToolResult refused = publish({"system", "--key", key("release") + ".key", "--out", system_dir(), "--build",
                                std::to_string(kNewBuild), "--commit", kNewCommit, "--kernel", path});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output, "ota-publish: kernel file \"" + path +
                                "\" would not start under Limine on UEFI: its multiboot1 header at offset 60 asks "
                                "for text mode only (flags 0x00010000, bit 2 not set), and Limine on UEFI stops with "
                                "\"PANIC: multiboot1: Cannot use text mode with UEFI.\"\n");

  serve_system_text(manifest_head(image));
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + "system: staged in slot B, restart to install\n");
  // Limine on UEFI panics over the header: no kernel runs, no start is counted, nothing
  // falls back, however often the machine is switched on.
  for (int start = 1; start <= 2; start++) {
    tavisim::BootResult b = restart_machine();
    EXPECT_FALSE(b.booted);
    EXPECT_EQ(b.entry, 2);
    EXPECT_EQ(b.stuck, "PANIC: multiboot1: Cannot use text mode with UEFI.");
  }
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000003 vor=00000003 v=00 ok=0\n");
  expect_esp_menu(kStagedMenu);
}

TEST_F(SystemApplyTest, TheWordsAfterApplyComeInAnyOrderAndUnknownOnesAreIgnored) {
  publish_system();
  RunResult r = device().run({"system", "apply", "now", "restart", "please"});
  EXPECT_TRUE(r.rebooted);
  EXPECT_EQ(r.out, check_lines() + "system: staged in slot B, restart to install\nsystem: restarting\n");
}

TEST_F(SystemApplyTest, NoRestartWhenNothingWasStaged) {
  std::string kernel = publish_system();
  running_kernel(kNewCommit);
  RunResult r = device().run({"system", "apply", "restart"});
  EXPECT_EQ(r.status, 0);
  EXPECT_FALSE(r.rebooted);
  EXPECT_EQ(r.out, check_lines() + "system: applied, no restart needed (same kernel)\n");
}

}  // namespace
