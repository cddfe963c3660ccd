// What a person at the device can do wrong, and what the device then does: confirming a
// staged system update before its restart, rolling back a system trial with the package
// command, a foreground apply beside a background one, and a boot menu that cannot be
// written. Each test shows today's behaviour; docs/ota-guide.md says which command to use
// when, and docs/robustness.md names each window with its recovery.

#include "life_support.h"

namespace life {
namespace {

using tavisim::CallFault;
using tavisim::FetchFaultKind;

const std::string kRolledBack =
    "system: overlay restored (previous /bin files are back)\nsystem: trial kernel was rolled back, update dropped\n";

class LifeOperator : public LifeTest {
 protected:
  void SetUp() override {
    LifeTest::SetUp();
    if (HasFatalFailure()) return;
    second_ = system_build(20260301, "a1b2c3d4e5");
  }

  // `ota system apply` of the second build, which must stage it.
  void stage() {
    publish_system(second_);
    RunResult r = device().run({"system", "apply"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    ASSERT_EQ(esp("limine.conf"), staged_menu());
  }

  // The overlay files are those of the first build, nothing is pending and the records
  // say the first build, whatever kernel runs.
  void expect_first_files_and_records() {
    EXPECT_EQ(file("/system/SYSVERSION"), "20260101\n");
    EXPECT_FALSE(device().exists("/system/SYSPENDING"));
    EXPECT_FALSE(device().exists("/system/SYSOVL"));
    EXPECT_EQ(file("/bin/clock"), first_.files.at("/bin/clock"));
    EXPECT_EQ(file("/etc/motd"), first_.files.at("/etc/motd"));
    EXPECT_FALSE(device().exists("/apps/clock/start"));
  }

  bool trial_open() {
    auto r = device().read_file("/system/ERPROBUNG");
    return r && r->size() == 36 && (*r)[34] == '0';
  }

  // The download name of the second build's kernel, as its manifest gives it.
  std::string kernel_download_name() {
    std::string manifest = read_all(system_ + "/stable/VERZEICHNIS");
    size_t at = manifest.find("sysfile\tkernel\t");
    std::string line = manifest.substr(at, manifest.find('\n', at) - at);
    return line.substr(line.rfind('\t') + 1);
  }

  SystemBuild second_;
};

// --- A staged system update, confirmed before the restart ---

TEST_F(LifeOperator, OtaConfirmBeforeTheRestartDropsTheUpdateButClosesItsTrial) {
  // `ota confirm` asks the installer for "trial ok", which closes the trial record the
  // system apply opened, and then runs the system confirmation, which finds the old kernel
  // running and rolls the update back. The menu still defaults to entry 2, and with the
  // trial closed nothing counts the starts of kernel B any more.
  stage();
  RunResult confirm = device().run({"confirm"});
  EXPECT_EQ(confirm.status, 0);
  EXPECT_EQ(confirm.out, kRolledBack);
  EXPECT_EQ(confirm.err, "");
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000004 vor=00000004 v=00 ok=1\n");
  expect_first_files_and_records();
  EXPECT_EQ(esp("limine.conf"), staged_menu());
  EXPECT_EQ(file("/system/sys.stand"), "here=20260101\nthere=0\ncommit=\nphase=failed\n");

  // Every start boots the dropped kernel B, uncounted; the start-up check has no trial.
  for (int start = 0; start < 2; start++) {
    BootResult b = restart();
    ASSERT_TRUE(b.booted) << b.stuck;
    EXPECT_EQ(b.entry, 2);
    EXPECT_EQ(b.kernel.build, "20260301");
    EXPECT_EQ(b.trial_starts, -1);
    EXPECT_FALSE(b.fallback);
    EXPECT_EQ(b.start_entry.out, "ota: automatic search is OFF\n");
  }
  expect_first_files_and_records();
}

TEST_F(LifeOperator, OtaConfirmBeforeTheRestartLeavesABrokenKernelBWithNoFallback) {
  // The same with a kernel B that never comes up healthy: with its trial closed the kernel
  // never counts its starts, so it never falls back to entry 1.
  second_ = system_build(20260301, "a1b2c3d4e5", false);
  stage();
  ASSERT_EQ(device().run({"confirm"}).out, kRolledBack);
  for (int start = 0; start < 5; start++) {
    BootResult b = restart();
    ASSERT_TRUE(b.booted) << b.stuck;
    EXPECT_EQ(b.entry, 2);
    EXPECT_FALSE(b.kernel.healthy);
    EXPECT_EQ(b.trial_starts, -1);
    EXPECT_FALSE(b.fallback);
  }
  EXPECT_EQ(esp("limine.conf"), staged_menu());
}

TEST_F(LifeOperator, OtaSystemConfirmBeforeTheRestartKeepsTheTrialOpenForTheFallback) {
  // `ota system confirm` runs only the system confirmation: the update is rolled back as
  // well, but the trial record stays open, so a broken kernel B is counted and left.
  second_ = system_build(20260301, "a1b2c3d4e5", false);
  stage();
  RunResult confirm = device().run({"system", "confirm"});
  EXPECT_EQ(confirm.status, 0);
  EXPECT_EQ(confirm.out, kRolledBack);
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000004 vor=00000004 v=00 ok=0\n");
  expect_first_files_and_records();
  BootResult b;
  for (int start = 0; start < 6 && !b.fallback; start++) b = restart();
  ASSERT_TRUE(b.booted);
  EXPECT_TRUE(b.fallback);
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.kernel.build, "20260101");
  EXPECT_EQ(b.start_entry.out, kHealthyStart);
  EXPECT_FALSE(trial_open());
  // The kernel's fallback set the menu's default to entry 1 for good.
  EXPECT_EQ(esp("limine.conf"), promoted_menu());
  expect_first_files_and_records();
}

TEST_F(LifeOperator, OtaSystemConfirmBeforeTheRestartThenAHealthyKernelBRunsWithTheOldFiles) {
  // With a healthy kernel B the same confirmation leaves the menu on entry 2: the next start
  // boots kernel B on the open trial, the start-up check confirms it, and kernel B then runs
  // with the first build's files and records until the update is applied again, which
  // finds the offered kernel running and only installs the files.
  stage();
  ASSERT_EQ(device().run({"system", "confirm"}).out, kRolledBack);
  BootResult b = restart();
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(b.kernel.build, "20260301");
  EXPECT_EQ(b.start_entry.out, "ota: start healthy, trial confirmed after 60\nota: automatic search is OFF\n");
  expect_first_files_and_records();
  RunResult again = device().run({"system", "apply"});
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(again.out, applied_output(second_));
  EXPECT_EQ(again.err, "");
  EXPECT_EQ(file("/system/SYSVERSION"), "20260301\n");
  EXPECT_EQ(file("/bin/clock"), second_.files.at("/bin/clock"));
}

TEST_F(LifeOperator, ADropBeforeTheRestartIsCleanWithTheMenuSetBackByHand) {
  // The way to drop a staged update before its restart: the menu's default set back to
  // entry 1 by hand, then `ota system confirm`. The next start boots the old kernel, the
  // start-up check closes the trial, and nothing of the update is left in use.
  stage();
  tavisim::fat_write(device().disk_image("sda1"), "limine.conf", promoted_menu());
  ASSERT_EQ(device().run({"system", "confirm"}).out, kRolledBack);
  BootResult b = restart();
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.kernel.build, "20260101");
  EXPECT_EQ(b.start_entry.out, "ota: start healthy, trial confirmed after 60\nota: automatic search is OFF\n");
  EXPECT_FALSE(trial_open());
  expect_first_files_and_records();
  b = restart();
  EXPECT_EQ(b.kernel.build, "20260101");
}

TEST_F(LifeOperator, ADropDuringTheTrialIsCleanWithTheMenuSetBackByHand) {
  // The same on a system trial that runs: with the menu's default set back to entry 1 by
  // hand, `ota system confirm` rolls the update back although its kernel runs, and the
  // next start boots the old kernel in slot A; the start-up check closes the trial.
  stage();
  BootResult b = restart(false);
  ASSERT_EQ(b.kernel.build, "20260301");
  tavisim::fat_write(device().disk_image("sda1"), "limine.conf", promoted_menu());
  ASSERT_EQ(device().run({"system", "confirm"}).out, kRolledBack);
  b = restart();
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.kernel.build, "20260101");
  EXPECT_EQ(b.start_entry.out, "ota: start healthy, trial confirmed after 60\nota: automatic search is OFF\n");
  EXPECT_FALSE(trial_open());
  expect_first_files_and_records();
}

// --- A system trial rolled back with the package command ---

TEST_F(LifeOperator, OtaRollbackDuringASystemTrialClosesTheTrialAndLeavesTheUpdatePending) {
  // `ota rollback` asks the installer to return to the generation of the trial record,
  // which for a system trial is the one it runs. The installer removes the trial record;
  // the system update stays pending on entry 2 with nothing counting its starts, and the
  // next confirmation promotes it, since its kernel runs.
  stage();
  device().write_file("/system/tpk/gen/00000004", file("/system/tpk/installed"));
  BootResult b = restart(false);
  ASSERT_EQ(b.kernel.build, "20260301");
  RunResult rollback = device().run({"rollback"});
  EXPECT_EQ(rollback.status, 0);
  EXPECT_EQ(rollback.out, "");
  EXPECT_EQ(tpk_runs(rollback.events),
            (std::vector<Words>{{"/bin/tpk", "rollback", "00000004"}, {"/bin/tpk", "rebuild"}}));
  EXPECT_FALSE(device().exists("/system/ERPROBUNG"));
  EXPECT_TRUE(device().exists("/system/SYSPENDING"));
  EXPECT_EQ(file("/bin/clock"), second_.files.at("/bin/clock"));

  b = restart();
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(b.trial_starts, -1);
  EXPECT_EQ(b.start_entry.out, "ota: automatic search is OFF\n");
  RunResult apply = device().run({"system", "apply"});
  EXPECT_EQ(apply.err, "ota: a trial is running or pending, confirm or restart first\n");
  RunResult confirm = device().run({"system", "confirm"});
  EXPECT_EQ(confirm.out, "system: overlay committed\nsystem: new kernel confirmed and promoted to slot A\n");
  expect_system(second_, "after the confirmation");
}

// --- A foreground apply beside a background one ---

TEST_F(LifeOperator, AForegroundApplyBesideABackgroundOneUndoesPartOfBoth) {
  // Nothing stops `ota system apply` while `ota system apply bg` runs. Here the background
  // child stands in its kernel download with the ESP mounted; the foreground apply mounts
  // the ESP anew (which unmounts the child's), stages the update to its end and unmounts.
  // The child then goes on without its ESP and finds its staged files moved away by the
  // foreground: its overlay install fails, and its undo restores what the foreground had
  // kept and removes the foreground's pending and trial records, while the menu on the
  // ESP still defaults to entry 2 and kernel B stays in slot B.
  publish_system(second_);
  std::string kernel_name = kernel_download_name();
  device().add_fetch_fault(kernel_name, FetchFaultKind::hold, 0, 1);
  RunResult bg = device().run({"system", "apply", "bg"});
  ASSERT_EQ(bg.status, 0);
  ASSERT_TRUE(device().serve_until_held(kernel_name));
  EXPECT_TRUE(device().mounted());
  auto forks = tavisim::events_of(bg.events, "fork");
  ASSERT_EQ(forks.size(), 1u);
  RunResult status = device().run({"system", "status"});
  EXPECT_EQ(status.status, 0);
  EXPECT_EQ(status.out, "system: installed build 20260101\nsystem: no update pending\nsystem: apply running pid=" +
                            forks[0].value("child") + "\nsystem: apply log:\n" + checked_output(second_));
  EXPECT_EQ(status.err, "");

  RunResult fg = device().run({"system", "apply"});
  EXPECT_EQ(fg.status, 0) << fg.err;
  EXPECT_EQ(fg.out, staged_output(second_));
  EXPECT_EQ(fg.err, "");
  EXPECT_FALSE(device().mounted());
  EXPECT_EQ(esp("limine.conf"), staged_menu());
  EXPECT_EQ(esp("tavi-b.mb"), second_.kernel);

  device().release(kernel_name);
  ASSERT_TRUE(device().wait_background());
  std::string log = file("/system/sys.applylog");
  EXPECT_EQ(file("/system/sys.apply"), "state=failed\n") << log;
  EXPECT_EQ(log, checked_output(second_) +
                     "system: overlay restored (previous /bin files are back)\n"
                     "ota: overlay install failed, previous files restored\n");
  EXPECT_FALSE(device().exists("/system/SYSPENDING"));
  EXPECT_FALSE(device().exists("/system/ERPROBUNG"));
  EXPECT_EQ(esp("limine.conf"), staged_menu());
  // The child's journal counts every file as one that existed, since the foreground had
  // put them in place: its undo restores the foreground's backups, so the replaced files
  // are the first build's again, but the file the update added stays, and the records say
  // the first build.
  EXPECT_EQ(file("/bin/clock"), first_.files.at("/bin/clock"));
  EXPECT_EQ(file("/etc/motd"), first_.files.at("/etc/motd"));
  EXPECT_EQ(file("/apps/clock/start"), second_.files.at("/apps/clock/start"));
  EXPECT_FALSE(device().exists("/system/SYSOVL"));
  EXPECT_EQ(file("/system/SYSVERSION"), "20260101\n");

  // The next start boots kernel B from entry 2, with no trial to count it or confirm it.
  BootResult b = restart();
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(b.trial_starts, -1);
  EXPECT_EQ(b.kernel.build, "20260301");
}

TEST_F(LifeOperator, StatusShowsARunningBackgroundApplyBeforeAForegroundOneIsStarted) {
  // What a person checks before starting an apply: `ota system status` names a running
  // background apply with its process id, and a second background apply is refused.
  publish_system(second_);
  std::string kernel_name = kernel_download_name();
  device().add_fetch_fault(kernel_name, FetchFaultKind::hold, 0, 1);
  RunResult bg = device().run({"system", "apply", "bg"});
  ASSERT_EQ(bg.status, 0);
  auto forks = tavisim::events_of(bg.events, "fork");
  ASSERT_EQ(forks.size(), 1u);
  ASSERT_TRUE(device().serve_until_held(kernel_name));
  RunResult status = device().run({"system", "status"});
  EXPECT_EQ(status.out, "system: installed build 20260101\nsystem: no update pending\nsystem: apply running pid=" +
                            forks[0].value("child") + "\nsystem: apply log:\n" + checked_output(second_));
  RunResult second = device().run({"system", "apply", "bg"});
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(second.out, "system: an apply is already running (state in /system/sys.apply)\n");
  device().release(kernel_name);
  ASSERT_TRUE(device().wait_background());
  EXPECT_EQ(file("/system/sys.apply"), "state=done\n");
}

// --- A boot menu that cannot be written ---

// The opens of /sysesp/limine.conf in `ota system apply`: the mount's check for the menu,
// the mount's reading of the kernel directory, the rewrite's reading of the menu, and then
// the direct rewrite when the rename of limine.nw has failed.
constexpr int64_t kDirectRewriteOpen = 4;

CallFault failing(int64_t number, const std::string& path, int64_t nth = 1, bool every = false) {
  CallFault f;
  f.number = number;
  f.error = -5;
  f.nth = nth;
  f.every = every;
  f.path = path;
  return f;
}

TEST_F(LifeOperator, AFailedRenameOfTheNewMenuIsCoveredByTheDirectRewrite) {
  publish_system(second_);
  device().add_call_fault(failing(82, "/sysesp/limine.nw"));
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(esp("limine.conf"), staged_menu());
  EXPECT_FALSE(device().esp_read("sda1", "limine.nw"));
  BootResult b = restart();
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.kernel.build, "20260301");
  expect_system(second_, "after the promotion");
}

TEST_F(LifeOperator, WhenTheDirectRewriteFailsTooTheOldMenuGoesBack) {
  // Neither the rename nor the direct rewrite puts the new menu in place: the old menu is
  // written back and the apply undoes its steps, so the machine starts the old kernel.
  publish_system(second_);
  device().add_call_fault(failing(82, "/sysesp/limine.nw"));
  device().add_call_fault(failing(2, "/sysesp/limine.conf", kDirectRewriteOpen));
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, checked_output(second_) + "system: overlay restored (previous /bin files are back)\n");
  EXPECT_EQ(esp("limine.conf"), installed_menu());
  EXPECT_FALSE(device().esp_read("sda1", "limine.nw"));
  EXPECT_FALSE(device().esp_read("sda1", "tavi-b.mb"));
  EXPECT_FALSE(device().exists("/system/ERPROBUNG"));
  expect_first_files_and_records();
  BootResult b = restart();
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.kernel.build, "20260101");
  // The update goes through once the ESP takes writes again.
  device().clear_faults();
  ASSERT_EQ(device().run({"system", "apply"}).status, 0);
  b = restart();
  expect_system(second_, "applied again");
}

TEST_F(LifeOperator, AnEspThatTakesNoWriteAtAllLeavesNoMenu) {
  // The one case the device cannot cover: the ESP refuses the rename, the direct rewrite
  // and the rewrite of the old menu alike. The menu is gone and the machine stands at the
  // boot loader; the old menu has to be put back from outside (docs/robustness.md).
  publish_system(second_);
  device().add_call_fault(failing(82, "/sysesp/limine.nw"));
  device().add_call_fault(failing(2, "/sysesp/limine.conf", kDirectRewriteOpen, true));
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_FALSE(device().esp_read("sda1", "limine.conf"));
  expect_first_files_and_records();
  BootResult b = restart();
  EXPECT_FALSE(b.booted);
  EXPECT_EQ(b.stuck, "no ESP with a limine.conf");
  tavisim::fat_write(device().disk_image("sda1"), "limine.conf", installed_menu());
  b = restart();
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.kernel.build, "20260101");
}

}  // namespace
}  // namespace life
