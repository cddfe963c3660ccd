// Trials across restarts of the simulated machine: the start-up entry `ota boot` confirms a
// healthy start, restarts an unhealthy one, and the kernel counts the failed starts and
// falls back to the first boot entry.
#include "tavisim/boot.h"
#include "trial_support.h"

using namespace e2e;
using tavisim::BootResult;
using tavisim::RunResult;
using Words = std::vector<std::string>;

namespace {

const std::string kEntryA = "/tavi\n    protocol: multiboot1\n    path: boot():/tavi.mb\n";
const std::string kSystemBase = "http://updates.tavi.test/system";

std::string healthy_after(int seconds) {
  return "ota: start healthy, trial confirmed after " + std::to_string(seconds) + "\n";
}

class RestartTest : public SourceTest {
 protected:
  void SetUp() override {
    SourceTest::SetUp();
    device().make_esp("sda1", {{"limine.conf", "timeout: 3\ndefault_entry: 1\n\n" + kEntryA},
                               {"tavi.mb", tavisim::stand_in_kernel(1, "1111111")}});
    device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\nauto=nein\n");
    device().write_file("/system/SYSVERSION", "00000001\n");
  }

  // Version 2 installed through `ota apply`: the installer opens a trial.
  void apply_version_2() {
    publish_catalog({"--version", "2", "--package", "app:App:" + package_file("app-2.tpk", 700) + ":tavi-x86_64"});
    RunResult r = device().run({"apply"}, bounded(100));
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    ASSERT_EQ(device().read_file(kRecordPath).value_or(""), trial_record(1, 0));
  }

  // Build 10 staged in slot B by `ota system apply`.
  void stage_system_build_10(bool healthy) {
    std::string dir = scratch("system");
    device().add_repo(kSystemBase, dir);
    std::string kernel = work_ + "/kernel-10.mb";
    write_all(kernel, tavisim::stand_in_kernel(10, "abcdef1", healthy));
    ToolResult p = publish({"system", "--key", key("release") + ".key", "--out", dir + "/stable", "--build", "10",
                            "--commit", "abcdef1", "--kernel", kernel, "--force"});
    ASSERT_EQ(p.status, 0) << p.output;
    RunResult r = device().run({"system", "apply"}, bounded(100));
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    ASSERT_TRUE(device().exists("/system/SYSPENDING"));
  }
};

TEST_F(RestartTest, APackageTrialIsConfirmedAtTheNextHealthyStart) {
  apply_version_2();
  device().add_task("desktop", 3, 20);
  BootResult b = device().boot();
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_EQ(b.trial_starts, 1);
  EXPECT_EQ(b.start_entry.out, healthy_after(60) + kServiceOff);
  EXPECT_EQ(b.start_entry.status, 0);
  EXPECT_EQ(device().read_file(kRecordPath).value_or(""), trial_record(1, 0, '1', "01"));
  // Confirmed: the next start counts nothing and goes straight to the service.
  b = device().boot();
  EXPECT_EQ(b.trial_starts, -1);
  EXPECT_EQ(b.start_entry.out, kServiceOff);
}

TEST_F(RestartTest, StartsWithoutADesktopAreRestartedAndCounted) {
  apply_version_2();
  for (int start = 1; start <= 4; start++) {
    SCOPED_TRACE(start);
    BootResult b = device().boot();
    ASSERT_TRUE(b.booted) << b.stuck;
    EXPECT_EQ(b.trial_starts, start);
    // With one boot entry there is nothing to fall back to: the count just goes on.
    EXPECT_FALSE(b.fallback);
    EXPECT_TRUE(b.start_entry.rebooted);
    EXPECT_EQ(b.start_entry.out, kNotHealthy);
    auto reboots = tavisim::events_of(b.start_entry.events, "reboot");
    EXPECT_EQ(seconds_after_start(b.start_entry.events, reboots), std::vector<double>{120});
    char starts[3];
    snprintf(starts, sizeof starts, "%02d", start);
    EXPECT_EQ(device().read_file(kRecordPath).value_or(""), trial_record(1, 0, '0', starts));
  }
}

TEST_F(RestartTest, AHealthyNewKernelIsPromotedByTheStartUpCheck) {
  stage_system_build_10(true);
  device().add_task("desktop", 3, 20);
  BootResult b = device().boot();
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(b.kernel.build, "10");
  EXPECT_EQ(b.start_entry.out,
            healthy_after(60) + "system: new kernel confirmed and promoted to slot A\n" + kServiceOff);
  EXPECT_EQ(b.start_entry.err, "");
  EXPECT_FALSE(device().exists("/system/SYSPENDING"));
  EXPECT_EQ(device().read_file("/system/SYSVERSION").value_or(""), "00000010\n");
  // The confirmation came at the 60th second of the start.
  EXPECT_EQ(device().read_file("/system/ota.stand").value_or(""), "dort=0\nhier=0\nzeit=2026-02-03 09:06\nphase=ruhe\n");
  // The next start boots the promoted kernel from slot A.
  b = device().boot();
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.kernel.build, "10");
  EXPECT_EQ(b.start_entry.out, kServiceOff);
}

TEST_F(RestartTest, ABrokenNewKernelFallsBackAndTheUpdateIsDropped) {
  stage_system_build_10(false);
  device().add_task("desktop", 3, 20);
  for (int start = 1; start <= 3; start++) {
    SCOPED_TRACE(start);
    BootResult b = device().boot();
    EXPECT_EQ(b.kernel.build, "10");
    EXPECT_FALSE(b.kernel.healthy);
    EXPECT_EQ(b.start_entry.out, kNotHealthy);
    EXPECT_TRUE(b.start_entry.rebooted);
  }
  // The fourth start passes the kernel's limit: the old kernel of entry 1 comes up,
  // healthy, and its confirmation finds that the trial kernel is not the one running.
  BootResult b = device().boot();
  EXPECT_TRUE(b.fallback);
  EXPECT_EQ(b.kernel.build, "1");
  EXPECT_EQ(b.start_entry.out,
            healthy_after(60) + "system: trial kernel was rolled back, update dropped\n" + kServiceOff);
  EXPECT_FALSE(device().exists("/system/SYSPENDING"));
  EXPECT_EQ(device().read_file("/system/SYSVERSION").value_or(""), "00000001\n");
  // This process read no manifest, so the status names no available build.
  EXPECT_EQ(device().read_file("/system/sys.stand").value_or(""), "here=1\nthere=0\ncommit=\nphase=failed\n");
}

}  // namespace
