// System updates through restarts: staged in slot B, started on trial, promoted to slot A
// by the start-up check; a broken kernel counted by the kernel, fallen back from and rolled
// back by the confirmation; and the updates that come after each.

#include "life_support.h"

namespace life {
namespace {

using LifeSystem = LifeTest;

TEST_F(LifeSystem, AnUpdateIsPromotedToSlotAAndASecondOneFollowsOnTop) {
  SystemBuild second = system_build(20260301, "a1b2c3d4e5");
  publish_system(second);

  RunResult apply = device().run({"system", "apply"});
  ASSERT_EQ(apply.status, 0) << apply.out << apply.err;
  EXPECT_EQ(apply.err, "");
  EXPECT_EQ(apply.out, staged_output(second));
  // Staged: the kernel in slot B, entry B the default, the trial armed, the overlay in
  // place with the previous files kept.
  EXPECT_EQ(esp("tavi-b.mb"), second.kernel);
  EXPECT_EQ(esp("tavi.mb"), first_.kernel);
  EXPECT_EQ(esp("limine.conf"), staged_menu());
  EXPECT_EQ(file("/system/SYSPENDING"),
            "count=20260301\ncommit=a1b2c3d4e5\nsha=" + sha256_hex(second.kernel) + "\n");
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000004 vor=00000004 v=00 ok=0\n");
  EXPECT_EQ(file("/system/SYSOVL"), "0/apps/clock/start\n1clock\n1/etc/motd\n");
  EXPECT_EQ(file("/bin/clock"), second.files["/bin/clock"]);
  EXPECT_EQ(file("/system/old/clock"), first_.files["/bin/clock"]);
  EXPECT_EQ(file("/system/SYSVERSION"), "20260101\n");

  // The restart boots entry B; the desktop comes up, the start-up check confirms, and the
  // confirmation promotes slot B.
  BootResult b = restart();
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(b.kernel.build, "20260301");
  EXPECT_EQ(b.trial_starts, 1);
  EXPECT_FALSE(b.fallback);
  EXPECT_EQ(b.start_entry.out, kPromoted);
  EXPECT_EQ(tpk_runs(b.start_entry.events), (std::vector<Words>{{"/bin/tpk", "trial", "ok"}}));
  EXPECT_EQ(esp("limine.conf"), promoted_menu());
  EXPECT_EQ(esp("tavi-b.mb"), second.kernel);
  EXPECT_FALSE(device().exists("/system/old/clock"));
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000004 vor=00000004 v=01 ok=1\n");
  expect_system(second, "after the promotion");
  // The confirming start read no manifest: the promoted build is all it knows of it.
  EXPECT_EQ(file("/system/sys.stand"), "here=20260301\nthere=20260301\ncommit=\nphase=current\n");
  RunResult status = device().run({"system", "status"});
  EXPECT_EQ(status.status, 0);
  EXPECT_EQ(status.out, "system: installed build 20260301\nsystem: no update pending\n");

  // The next start boots entry 1, which is now the new kernel; nothing is counted.
  b = restart();
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.kernel.build, "20260301");
  EXPECT_EQ(b.trial_starts, -1);
  EXPECT_EQ(b.start_entry.out, "ota: automatic search is OFF\n");

  // A second update on top: the menu keeps its one entry B and only its default changes.
  SystemBuild third = system_build(20260401, "b2c3d4e5f6");
  publish_system(third);
  apply = device().run({"system", "apply"});
  ASSERT_EQ(apply.status, 0) << apply.out << apply.err;
  EXPECT_EQ(apply.out, staged_output(third, second.build));
  EXPECT_EQ(apply.err, "");
  EXPECT_EQ(esp("limine.conf"), staged_menu());
  EXPECT_EQ(esp("tavi-b.mb"), third.kernel);
  EXPECT_EQ(file("/system/old/clock"), second.files["/bin/clock"]);
  b = restart();
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(b.kernel.build, "20260401");
  EXPECT_EQ(b.start_entry.out, kPromoted);
  expect_system(third, "after the second promotion");
  EXPECT_EQ(esp("limine.conf"), promoted_menu());
  b = restart();
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.kernel.build, "20260401");
}

TEST_F(LifeSystem, ABrokenKernelIsCountedFallenBackFromAndRolledBack) {
  SystemBuild broken = system_build(20260301, "badbad1", false);
  publish_system(broken);
  RunResult apply = device().run({"system", "apply"});
  ASSERT_EQ(apply.status, 0) << apply.out << apply.err;
  EXPECT_EQ(file("/bin/clock"), broken.files["/bin/clock"]);
  EXPECT_EQ(file("/apps/clock/start"), broken.files["/apps/clock/start"]);

  // Three starts of the broken kernel: the desktop never comes up, the start-up check
  // restarts at the end of the grace period, and the kernel counts each start.
  for (int start = 1; start <= 3; start++) {
    SCOPED_TRACE("start " + std::to_string(start));
    int64_t started = device().virtual_ms();
    BootResult b = restart();
    ASSERT_TRUE(b.booted) << b.stuck;
    EXPECT_EQ(b.entry, 2);
    EXPECT_EQ(b.kernel.build, "20260301");
    EXPECT_FALSE(b.kernel.healthy);
    EXPECT_EQ(b.trial_starts, start);
    EXPECT_EQ(b.start_entry.out,
              "ota: start NOT healthy within the grace period -- restart, the kernel counts\n");
    EXPECT_TRUE(b.start_entry.rebooted);
    auto reboots = tavisim::events_of(b.start_entry.events, "reboot");
    ASSERT_EQ(reboots.size(), 1u);
    EXPECT_EQ(reboots[0].ms - started, 120000);
    EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000004 vor=00000004 v=0" + std::to_string(start) + " ok=0\n");
  }

  // The fourth start passes the allowed count: the kernel falls back to entry 1 and makes
  // it the default; the old kernel comes up healthy, and the confirmation finds the trial
  // kernel not running, so it rolls the update back.
  BootResult b = restart();
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_TRUE(b.fallback);
  EXPECT_TRUE(b.menu_reset);
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.kernel.build, "20260101");
  EXPECT_EQ(b.trial_starts, 4);
  EXPECT_EQ(b.start_entry.out,
            "ota: start healthy, trial confirmed after 60\n"
            "system: overlay restored (previous /bin files are back)\n"
            "system: trial kernel was rolled back, update dropped\n"
            "ota: automatic search is OFF\n");
  expect_system(first_, "after the rollback");
  EXPECT_EQ(device().mode_of("/bin/clock"), 0755u);
  EXPECT_EQ(file("/system/sys.stand"), "here=20260101\nthere=0\ncommit=\nphase=failed\n");
  // Slot B and entry B stay on the partition; only the default changed.
  EXPECT_EQ(esp("tavi-b.mb"), broken.kernel);
  EXPECT_EQ(esp("limine.conf"), promoted_menu());

  // The next start boots the old kernel again, with no trial left to count.
  b = restart();
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.kernel.build, "20260101");
  EXPECT_EQ(b.trial_starts, -1);
  EXPECT_FALSE(b.fallback);
  EXPECT_EQ(b.start_entry.out, "ota: automatic search is OFF\n");

  // A later good build goes through the same menu and slot B.
  SystemBuild good = system_build(20260302, "c0ffee1");
  publish_system(good);
  apply = device().run({"system", "apply"});
  ASSERT_EQ(apply.status, 0) << apply.out << apply.err;
  EXPECT_EQ(esp("limine.conf"), staged_menu());
  EXPECT_EQ(file("/system/old/clock"), first_.files["/bin/clock"]);
  b = restart();
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(b.trial_starts, 1);
  EXPECT_EQ(b.start_entry.out, kPromoted);
  expect_system(good, "after the later update");
}

}  // namespace
}  // namespace life
