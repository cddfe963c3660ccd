// System updates on devices whose boot menu uses what the update design leaves out: the
// boot loader's remember_last_entry option, and sub-entries under the first entry. ota's
// menu check accepts both menus; the boot loader then does not start what the update
// meant it to start. Each test shows what the device does, and the way back.

#include "life_support.h"

namespace life {
namespace {

const std::string kRolledBack =
    "ota: start healthy, trial confirmed after 60\n"
    "system: overlay restored (previous /bin files are back)\n"
    "system: trial kernel was rolled back, update dropped\n"
    "ota: automatic search is OFF\n";
const std::string kNotHealthy = "ota: start NOT healthy within the grace period -- restart, the kernel counts\n";

// The menu with `line` put in as its second line (after "timeout: 5").
std::string with_global(const std::string& menu, const std::string& line) {
  std::string m = menu;
  m.insert(m.find('\n') + 1, line);
  return m;
}

// Two ways into entry A's kernel that the owner keeps under entry A.
const std::string kSubEntries =
    "//tavi (safe mode)\n    protocol: multiboot1\n    path: boot():/tavi.mb\n"
    "    cmdline: tavi vfs gfx wm wig desk nosched noproc nofs\n"
    "//tavi (text log)\n    protocol: multiboot1\n    path: boot():/tavi.mb\n"
    "    cmdline: tavi vfs gfx wm wig desk herz nosched noproc nofs\n";

class LifeMenu : public LifeTest {
 protected:
  // A start at which someone at the console picks an entry from the boot menu.
  BootResult restart_picking(const std::string& entry) {
    BootOptions o;
    o.run.virtual_seconds = 3600;
    o.pick = entry;
    BootResult b = device().boot(o);
    EXPECT_TRUE(b.start_entry.error.empty()) << b.start_entry.error;
    return b;
  }

  // Whether any start so far loaded the kernel in slot B.
  bool slot_b_ever_started() {
    for (const Event& e : tavisim::events_of(device().events(), "boot"))
      if (e.value("kernel") == "/tavi-b.mb") return true;
    return false;
  }
};

TEST_F(LifeMenu, UnderRememberLastEntryABrokenKernelBStartsForEverUntilEntryOneIsPickedByHand) {
  const std::string remember = "remember_last_entry: yes\n";
  device().make_esp("sda1", {{"limine.conf", with_global(installed_menu(), remember)}, {"tavi.mb", first_.kernel}},
                    2048);
  EXPECT_EQ(device().remembered_entry(), "") << "the firmware remembers nothing yet";
  SystemBuild broken = system_build(20260301, "badbad1", false);
  publish_system(broken);
  RunResult apply = device().run({"system", "apply"});
  ASSERT_EQ(apply.status, 0) << apply.out << apply.err;
  EXPECT_EQ(apply.out, staged_output(broken));
  EXPECT_EQ(apply.err, "");
  EXPECT_EQ(esp("limine.conf"), with_global(staged_menu(), remember));

  // The first start boots the default, entry B, and the boot loader remembers it. The
  // broken kernel never brings the desktop up; the start-up check restarts, three times.
  for (int start = 1; start <= 3; start++) {
    SCOPED_TRACE("start " + std::to_string(start));
    BootResult b = restart();
    ASSERT_TRUE(b.booted) << b.stuck;
    EXPECT_EQ(b.entry, 2);
    EXPECT_EQ(b.remembered, start > 1);
    EXPECT_EQ(b.trial_starts, start);
    EXPECT_EQ(b.start_entry.out, kNotHealthy);
    EXPECT_EQ(device().remembered_entry(), "tavi (update)");
  }

  // The fourth start passes the count. The kernel sets the menu's default to entry 1 and
  // restarts, but the boot loader starts the entry it remembers, entry B, again: its
  // kernel counts and falls back again, start after start. ota never runs again, so
  // nothing rolls the update back.
  for (int start = 4; start <= 7; start++) {
    SCOPED_TRACE("start " + std::to_string(start));
    BootResult b = restart();
    EXPECT_FALSE(b.booted);
    EXPECT_TRUE(b.restarted);
    EXPECT_TRUE(b.fallback);
    EXPECT_EQ(b.menu_reset, start == 4);
    EXPECT_EQ(b.entry, 2);
    EXPECT_EQ(b.kernel.build, "20260301");
    EXPECT_EQ(b.trial_starts, start);
    EXPECT_FALSE(b.ran_start_entry);
  }
  EXPECT_EQ(esp("limine.conf"), with_global(promoted_menu(), remember));
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000004 vor=00000004 v=07 ok=0\n");
  EXPECT_TRUE(device().exists("/system/SYSPENDING"));
  EXPECT_EQ(file("/bin/clock"), broken.files["/bin/clock"]);
  auto boots = tavisim::events_of(device().events(), "boot");
  ASSERT_EQ(boots.size(), 7u);
  EXPECT_EQ(boots[6].fields, (std::vector<std::string>{"disk=sda1", "entry=2", "kernel=/tavi-b.mb", "build=20260301",
                                                       "commit=badbad1", "health=broken", "starts=7",
                                                       "remembered=tavi (update)", "fallback", "restart"}));

  // The way back: someone at the console picks entry 1. The old kernel counts the start
  // but does not fall back; it comes up healthy, and the confirmation finds the trial
  // kernel not running and rolls the update back. The loader now remembers entry 1.
  BootResult b = restart_picking("1");
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_TRUE(b.picked);
  EXPECT_FALSE(b.fallback);
  EXPECT_EQ(b.kernel.build, "20260101");
  EXPECT_EQ(b.trial_starts, 8);
  EXPECT_EQ(b.start_entry.out, kRolledBack);
  expect_system(first_, "after entry 1 was picked");
  EXPECT_EQ(device().remembered_entry(), "tavi");
  b = restart();
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_EQ(b.entry, 1);
  EXPECT_TRUE(b.remembered);
  EXPECT_EQ(b.start_entry.out, "ota: automatic search is OFF\n");

  // The owner takes remember_last_entry out of the menu. The firmware's variable stays, but
  // the loader no longer looks at it: the next update's trial and promotion work.
  tavisim::fat_write(device().disk_image("sda1"), "limine.conf", promoted_menu());
  SystemBuild good = system_build(20260302, "c0ffee1");
  publish_system(good);
  apply = device().run({"system", "apply"});
  ASSERT_EQ(apply.status, 0) << apply.out << apply.err;
  b = restart();
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_EQ(b.entry, 2);
  EXPECT_FALSE(b.remembered);
  EXPECT_EQ(b.start_entry.out, kPromoted);
  EXPECT_EQ(b.start_entry.status, 0);
  expect_system(good, "after the menu was fixed");
  b = restart();
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.kernel.build, "20260302");
  EXPECT_EQ(device().remembered_entry(), "tavi");
}

TEST_F(LifeMenu, UnderRememberLastEntryAnUpdateIsDroppedWhileTheLoaderRemembersEntryOne) {
  const std::string remember = "remember_last_entry: yes\n";
  device().make_esp("sda1", {{"limine.conf", with_global(installed_menu(), remember)}, {"tavi.mb", first_.kernel}},
                    2048);
  BootResult b = restart();  // the device has started before: the loader remembers entry 1
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_EQ(device().remembered_entry(), "tavi");

  SystemBuild second = system_build(20260301, "a1b2c3d4e5");
  publish_system(second);
  for (int round = 1; round <= 2; round++) {
    SCOPED_TRACE("apply " + std::to_string(round));
    RunResult apply = device().run({"system", "apply"});
    ASSERT_EQ(apply.status, 0) << apply.out << apply.err;
    EXPECT_EQ(esp("limine.conf"), with_global(staged_menu(), remember));
    // The default says entry B, but the loader starts the entry it remembers: the old
    // kernel. It comes up healthy, and the confirmation rolls the update back. The menu
    // keeps "default_entry: 2", and every later apply ends the same way.
    b = restart();
    ASSERT_TRUE(b.booted) << b.stuck;
    EXPECT_EQ(b.entry, 1);
    EXPECT_TRUE(b.remembered);
    EXPECT_EQ(b.trial_starts, 1);
    EXPECT_EQ(b.start_entry.out, kRolledBack);
    EXPECT_EQ(file("/system/SYSVERSION"), "20260101\n");
    EXPECT_EQ(file("/bin/clock"), first_.files["/bin/clock"]);
  }
  EXPECT_FALSE(slot_b_ever_started());
  EXPECT_EQ(esp("tavi-b.mb"), second.kernel);
}

TEST_F(LifeMenu, SubEntriesUnderEntryAMakeEntryBADirectoryAndTheMachineWaitsAtItsMenu) {
  device().make_esp("sda1", {{"limine.conf", installed_menu() + kSubEntries}, {"tavi.mb", first_.kernel}}, 2048);
  // With sub-entries, entry 1 is a directory already: the machine never starts by itself,
  // and the owner picks one of the entries inside at each start.
  BootResult b = restart();
  EXPECT_FALSE(b.booted);
  EXPECT_EQ(b.stuck, "the boot menu waits: entry 1 is a directory, shown as \"[+] tavi\"");
  b = restart_picking("tavi (safe mode)");
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_EQ(b.kernel.build, "20260101");

  // ota's menu check accepts the menu, and the rewrite puts entry B between entry A and
  // A's sub-entries, which now belong to entry B.
  SystemBuild second = system_build(20260301, "a1b2c3d4e5");
  publish_system(second);
  RunResult apply = device().run({"system", "apply"});
  ASSERT_EQ(apply.status, 0) << apply.out << apply.err;
  EXPECT_EQ(apply.out, staged_output(second));
  EXPECT_EQ(apply.err, "");
  EXPECT_EQ(esp("limine.conf"), staged_menu() + kSubEntries);

  // The default, entry 2, is now the directory: the machine waits at the boot menu, start
  // after start. No kernel runs, so nothing is counted and nothing falls back.
  for (int start = 1; start <= 3; start++) {
    SCOPED_TRACE("start " + std::to_string(start));
    b = restart();
    EXPECT_FALSE(b.booted);
    EXPECT_EQ(b.stuck, "the boot menu waits: entry 2 is a directory, shown as \"[+] tavi (update)\"");
    EXPECT_FALSE(b.ran_start_entry);
  }
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000004 vor=00000004 v=00 ok=0\n");

  // Whatever the owner picks, the new kernel cannot be started: entry 1 and the
  // sub-entries all boot slot A. Picking entry 1 brings the old kernel up, and the
  // confirmation rolls the update back; but the default stays on the directory.
  b = restart_picking("1");
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_EQ(b.kernel.build, "20260101");
  EXPECT_EQ(b.trial_starts, 1);
  EXPECT_EQ(b.start_entry.out, kRolledBack);
  EXPECT_EQ(file("/system/SYSVERSION"), "20260101\n");
  b = restart();
  EXPECT_FALSE(b.booted);
  EXPECT_EQ(b.stuck, "the boot menu waits: entry 2 is a directory, shown as \"[+] tavi (update)\"");
  EXPECT_FALSE(slot_b_ever_started());

  // The way back: the owner gives the sub-entries a directory entry of their own after
  // entry B and sets the default to 1. The machine starts by itself again, and the next
  // apply (the same build, still offered) goes through its trial and promotion.
  const std::string fixed = promoted_menu() + "/tavi (more)\n" + kSubEntries;
  tavisim::fat_write(device().disk_image("sda1"), "limine.conf", fixed);
  b = restart();
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_EQ(b.entry, 1);
  apply = device().run({"system", "apply"});
  ASSERT_EQ(apply.status, 0) << apply.out << apply.err;
  EXPECT_EQ(esp("limine.conf"), staged_menu() + "/tavi (more)\n" + kSubEntries);
  b = restart();
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(b.kernel.build, "20260301");
  EXPECT_EQ(b.start_entry.out, kPromoted);
  EXPECT_EQ(b.start_entry.status, 0);
  expect_system(second, "after the menu was fixed");
  EXPECT_EQ(esp("limine.conf"), fixed);
}

}  // namespace
}  // namespace life
