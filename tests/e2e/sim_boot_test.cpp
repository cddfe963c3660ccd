// The simulated machine start: the boot loader's menu rules (as observed with Limine),
// stand-in kernel images, the kernel's trial start counting and fallback, health, and
// the start-up entry. The start-up entry here is tavisim-probe, a probe of the
// simulator, not ota.

#include <sstream>

#include "device_test.h"
#include "tavisim/boot.h"

namespace tavisim {
namespace {

const std::string kEntryA = "/tavi\n    protocol: multiboot1\n    path: boot():/tavi.mb\n";
const std::string kEntryB = "/tavi (update)\n    protocol: multiboot1\n    path: boot():/tavi-b.mb\n";

TEST(SimBootMenu, TheDefaultEntryIsBooted) {
  MenuChoice c = choose_boot_entry("timeout: 5\ndefault_entry: 1\n\n" + kEntryA + "\n" + kEntryB);
  EXPECT_EQ(c.entries, 2);
  EXPECT_EQ(c.entry, 1);
  EXPECT_EQ(c.kernel_path, "/tavi.mb");
  c = choose_boot_entry("timeout: 5\ndefault_entry: 2\n\n" + kEntryA + "\n" + kEntryB);
  EXPECT_EQ(c.entry, 2);
  EXPECT_EQ(c.kernel_path, "/tavi-b.mb");
}

TEST(SimBootMenu, AGlobalOptionAfterTheEntriesStillCounts) {
  MenuChoice c = choose_boot_entry("timeout: 5\n\n" + kEntryA + "\n" + kEntryB + "default_entry: 2\n");
  EXPECT_EQ(c.entry, 2);
}

TEST(SimBootMenu, ADefaultBeyondTheEntriesBootsEntryOne) {
  EXPECT_EQ(choose_boot_entry("default_entry: 3\n" + kEntryA + kEntryB).entry, 1);
  EXPECT_EQ(choose_boot_entry("default_entry: x\n" + kEntryA + kEntryB).entry, 1);
}

TEST(SimBootMenu, CommentsAndCrLfChangeNothing) {
  std::string crlf = "# the menu\r\ntimeout: 5\r\ndefault_entry: 2\r\n\r\n/tavi\r\n    path: boot():/tavi.mb\r\n"
                     "/tavi (update)\r\n    path: boot():/tavi-b.mb\r\n";
  MenuChoice c = choose_boot_entry(crlf);
  EXPECT_EQ(c.entry, 2);
  EXPECT_EQ(c.kernel_path, "/tavi-b.mb");
}

TEST(SimBootMenu, AFirstLineSubEntryIsHiddenAndDropsTheGlobalOptions) {
  MenuChoice c = choose_boot_entry("//hidden\n    path: boot():/x.mb\ndefault_entry: 2\n" + kEntryA + kEntryB);
  EXPECT_EQ(c.entries, 2);
  EXPECT_EQ(c.entry, 1);
  EXPECT_EQ(c.kernel_path, "/tavi.mb");
}

TEST(SimBootMenu, KernelsInDirectoriesAndTheOlderOptionName) {
  EXPECT_EQ(choose_boot_entry("/tavi\n    path: boot():/boot/tavi.mb\n").kernel_path, "/boot/tavi.mb");
  EXPECT_EQ(choose_boot_entry("/tavi\n    kernel_path: boot():/tavi.mb\n").kernel_path, "/tavi.mb");
}

TEST(SimBootMenu, NothingToStart) {
  EXPECT_FALSE(choose_boot_entry("timeout: 5\n").problem.empty());
  EXPECT_FALSE(choose_boot_entry("/tavi\n    protocol: multiboot1\n").problem.empty());
  EXPECT_FALSE(choose_boot_entry("/tavi\n    path: guid(1234):/tavi.mb\n").problem.empty());
}

TEST(SimBootMenu, TheKernelsFallbackForcesEntryOne) {
  MenuChoice c = choose_boot_entry("default_entry: 2\n" + kEntryA + kEntryB, 1);
  EXPECT_EQ(c.entry, 1);
  EXPECT_EQ(c.kernel_path, "/tavi.mb");
}

TEST(SimBootMenu, TheFirstDefaultLineCounts) {
  EXPECT_EQ(choose_boot_entry("default_entry: 2\n" + kEntryA + kEntryB + "default_entry: 1\n").entry, 2);
  EXPECT_EQ(choose_boot_entry("default_entry: 1\n" + kEntryA + kEntryB + "default_entry: 2\n").entry, 1);
}

TEST(SimBootMenu, TheKernelsLastingFallbackChangesOnlyTheDefaultValue) {
  EXPECT_EQ(menu_with_default_one("timeout: 5\ndefault_entry: 2\n\n" + kEntryA + kEntryB),
            "timeout: 5\ndefault_entry: 1\n\n" + kEntryA + kEntryB);
  EXPECT_EQ(menu_with_default_one("timeout: 5\r\ndefault_entry:2\r\n/tavi\r\n"),
            "timeout: 5\r\ndefault_entry: 1\r\n/tavi\r\n");
  // At the end of the file, without a final newline.
  EXPECT_EQ(menu_with_default_one(kEntryA + kEntryB + "default_entry: 2"), kEntryA + kEntryB + "default_entry: 1");
  // Only the line that counts changes.
  EXPECT_EQ(menu_with_default_one("default_entry: 2\n" + kEntryA + "default_entry: 2\n"),
            "default_entry: 1\n" + kEntryA + "default_entry: 2\n");
  // Nothing to change: no default line, or global options the boot loader drops.
  EXPECT_EQ(menu_with_default_one(kEntryA + kEntryB), kEntryA + kEntryB);
  std::string hidden = "//x\n    path: boot():/x.mb\ndefault_entry: 2\n" + kEntryA + kEntryB;
  EXPECT_EQ(menu_with_default_one(hidden), hidden);
  EXPECT_EQ(choose_boot_entry(menu_with_default_one("default_entry: 2\n" + kEntryA + kEntryB)).entry, 1);
}

TEST(SimKernelImage, StandInsFollowThePublishersLayout) {
  std::string img = stand_in_kernel(20250110, "3f9c2a1be07", true, 4096);
  ASSERT_EQ(img.size(), 4096u);
  std::string first = "TAVI-KERNEL build=20250110 commit=3f9c2a1be07 health=good\n";
  EXPECT_EQ(img.substr(0, first.size()), first);
  for (size_t i = first.size(); i < img.size(); i++) ASSERT_EQ(static_cast<unsigned char>(img[i]), i % 251) << i;
  KernelImage k = read_kernel_image(img);
  EXPECT_TRUE(k.valid);
  EXPECT_EQ(k.build, "20250110");
  EXPECT_EQ(k.commit, "3f9c2a1be07");
  EXPECT_TRUE(k.healthy);
  EXPECT_FALSE(read_kernel_image(stand_in_kernel(2, "abcdefg", false)).healthy);
  EXPECT_FALSE(read_kernel_image("MZ\x90\n").valid);
  EXPECT_FALSE(read_kernel_image("TAVI-KERNEL health=good\n").valid);
}

class BootProbe : public DeviceTest {
 protected:
  std::string program() const override { return TAVISIM_PROBE; }
  void menu(const std::string& conf, bool b_healthy = true) {
    device().make_esp("sda1", {{"limine.conf", conf},
                               {"tavi.mb", stand_in_kernel(1, "aaaaaaa")},
                               {"tavi-b.mb", stand_in_kernel(2, "bbbbbbb", b_healthy)}});
  }
  void start_entry(const std::string& words) {
    std::istringstream in(words);
    device().config().start_entry.clear();
    for (std::string w; in >> w;) device().config().start_entry.push_back(w);
  }
};

TEST_F(BootProbe, TheKernelWritesProcVersionAndRunsTheStartUpEntry) {
  menu("default_entry: 2\n" + kEntryA + kEntryB);
  start_entry("getpid");
  BootResult b = device().boot();
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_EQ(b.disk, "sda1");
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(b.kernel.build, "2");
  EXPECT_EQ(device().read_file("/proc/version"), "tavi 2 build bbbbbbb (tavi-sim stand-in kernel)\n");
  ASSERT_TRUE(b.ran_start_entry);
  EXPECT_EQ(b.start_entry.status, 0);
  EXPECT_EQ(b.start_entry.out.rfind("pid ", 0), 0u);
  auto boots = events_of(device().events(), "boot");
  ASSERT_EQ(boots.size(), 1u);
  EXPECT_EQ(boots[0].value("entry"), "2");
  EXPECT_EQ(boots[0].value("commit"), "bbbbbbb");
}

TEST_F(BootProbe, AHealthyImageBringsTheDesktopUpAndABrokenOneDoesNot) {
  device().add_task("desktop", 3, 20);
  start_entry("sleep 30000 , named desktop");
  menu("default_entry: 1\n" + kEntryA + kEntryB);
  BootResult b = device().boot();
  EXPECT_EQ(b.start_entry.out, "sleep 0\nnamed 1\n");
  menu("default_entry: 2\n" + kEntryA + kEntryB, false);
  b = device().boot();
  EXPECT_FALSE(b.kernel.healthy);
  EXPECT_EQ(b.start_entry.out, "sleep 0\nnamed 0\n");
}

TEST_F(BootProbe, TasksStartAgainAtEveryStart) {
  device().add_task("desktop", 3, 20);
  start_entry("sleep 30000");
  menu("default_entry: 1\n" + kEntryA);
  device().advance_clock(1000);
  device().boot();
  start_entry("named desktop , sleep 25000 , named desktop");
  BootResult b = device().boot();
  EXPECT_EQ(b.start_entry.out, "named 0\nsleep 0\nnamed 1\n");
}

TEST_F(BootProbe, AMissingKernelLeavesTheMachineAtTheBootLoader) {
  device().make_esp("sda1", {{"limine.conf", "default_entry: 2\n" + kEntryA + kEntryB},
                             {"tavi.mb", stand_in_kernel(1, "aaaaaaa")}});
  start_entry("getpid");
  BootResult b = device().boot();
  EXPECT_FALSE(b.booted);
  EXPECT_EQ(b.stuck, "Failed to open kernel with path boot():/tavi-b.mb");
  EXPECT_FALSE(b.ran_start_entry);
  EXPECT_EQ(events_of(device().events(), "boot")[0].value("stuck"), b.stuck);
}

TEST_F(BootProbe, NoMenuBootsNothing) {
  device().make_esp("sda1", {{"tavi.mb", stand_in_kernel(1, "aaaaaaa")}});
  BootResult b = device().boot();
  EXPECT_FALSE(b.booted);
  EXPECT_EQ(b.stuck, "no ESP with a limine.conf");
}

TEST_F(BootProbe, TheBootDiskIsTheFirstWithAMenu) {
  device().make_esp("sda1", {{"tavi.mb", stand_in_kernel(1, "aaaaaaa")}});
  device().make_esp("nvme01", {{"limine.conf", kEntryA}, {"tavi.mb", stand_in_kernel(5, "nnnnnnn")}});
  device().config().start_entry.clear();
  BootResult b = device().boot();
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.disk, "nvme01");
  EXPECT_EQ(b.kernel.commit, "nnnnnnn");
  EXPECT_FALSE(b.ran_start_entry);
}

TEST_F(BootProbe, TheKernelCountsTrialStartsAndFallsBackToEntryOne) {
  const std::string conf = "timeout: 5\ndefault_entry: 2\n\n" + kEntryA + "\n" + kEntryB;
  menu(conf);
  device().config().boot_tries = 2;
  device().config().start_entry.clear();
  device().write_file("/system/ERPROBUNG", "gen=00000003 vor=00000003 v=00 ok=0\n");
  std::vector<int> entries;
  std::vector<bool> fallbacks;
  for (int i = 0; i < 4; i++) {
    BootResult b = device().boot();
    ASSERT_TRUE(b.booted);
    entries.push_back(b.entry);
    fallbacks.push_back(b.fallback);
    EXPECT_EQ(b.trial_starts, i + 1);
    EXPECT_EQ(b.menu_reset, b.fallback);
  }
  // The third start falls back and sets the default to entry 1 for good, so the fourth
  // boots entry 1 by the menu alone.
  EXPECT_EQ(entries, (std::vector<int>{2, 2, 1, 1}));
  EXPECT_EQ(fallbacks, (std::vector<bool>{false, false, true, false}));
  EXPECT_EQ(device().read_file("/system/ERPROBUNG"), "gen=00000003 vor=00000003 v=04 ok=0\n");
  std::string reset = conf;
  reset.replace(reset.find("default_entry: 2"), 16, "default_entry: 1");
  EXPECT_EQ(device().esp_read("sda1", "limine.conf"), reset);
  auto boots = events_of(device().events(), "boot");
  ASSERT_EQ(boots.size(), 4u);
  EXPECT_TRUE(boots[2].has("fallback"));
  EXPECT_TRUE(boots[2].has("menu-default=1"));
  EXPECT_FALSE(boots[3].has("fallback"));
  // A confirmed trial is not counted, and the menu keeps entry 1.
  device().write_file("/system/ERPROBUNG", "gen=00000003 vor=00000003 v=04 ok=1\n");
  BootResult b = device().boot();
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.trial_starts, -1);
  EXPECT_EQ(device().read_file("/system/ERPROBUNG"), "gen=00000003 vor=00000003 v=04 ok=1\n");
}

TEST_F(BootProbe, AConfirmedTrialIsNotCountedAndTheDefaultEntryBoots) {
  menu("default_entry: 2\n" + kEntryA + kEntryB);
  device().config().boot_tries = 0;
  device().config().start_entry.clear();
  device().write_file("/system/ERPROBUNG", "gen=00000003 vor=00000003 v=07 ok=1\n");
  BootResult b = device().boot();
  EXPECT_EQ(b.entry, 2);
  EXPECT_FALSE(b.fallback);
  EXPECT_EQ(b.trial_starts, -1);
}

TEST_F(BootProbe, AMachineAtTheBootLoaderCountsNothingAndNeverFallsBack) {
  // No kernel ran, so nothing counted the start: the machine stays where it is however
  // often it is switched on.
  device().make_esp("sda1", {{"limine.conf", "default_entry: 2\n" + kEntryA + kEntryB},
                             {"tavi.mb", stand_in_kernel(1, "aaaaaaa")}});
  device().config().boot_tries = 1;
  device().config().start_entry.clear();
  device().write_file("/system/ERPROBUNG", "gen=00000003 vor=00000003 v=00 ok=0\n");
  for (int i = 0; i < 3; i++) {
    BootResult b = device().boot();
    EXPECT_FALSE(b.booted);
    EXPECT_EQ(b.stuck, "Failed to open kernel with path boot():/tavi-b.mb");
    EXPECT_FALSE(b.fallback);
  }
  EXPECT_EQ(device().read_file("/system/ERPROBUNG"), "gen=00000003 vor=00000003 v=00 ok=0\n");
  EXPECT_EQ(device().esp_read("sda1", "limine.conf"), "default_entry: 2\n" + kEntryA + kEntryB);
}

TEST_F(BootProbe, AFallbackToAMissingKernelStandsAtTheBootLoader) {
  device().make_esp("sda1", {{"limine.conf", "default_entry: 2\n" + kEntryA + kEntryB},
                             {"tavi-b.mb", stand_in_kernel(2, "bbbbbbb", false)}});
  device().config().boot_tries = 0;
  device().config().start_entry.clear();
  device().write_file("/system/ERPROBUNG", "gen=00000003 vor=00000003 v=00 ok=0\n");
  BootResult b = device().boot();
  EXPECT_FALSE(b.booted);
  EXPECT_TRUE(b.fallback);
  EXPECT_EQ(b.stuck, "Failed to open kernel with path boot():/tavi.mb");
  EXPECT_EQ(device().esp_read("sda1", "limine.conf"), "default_entry: 1\n" + kEntryA + kEntryB);
}

TEST_F(BootProbe, ABootEndsWhatRanAndUnmountsTheEsp) {
  menu("default_entry: 1\n" + kEntryA);
  RunResult r = device().run({"mount", "/dev/sda1", ",", "fork", "600000"});
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(device().mounted("/sysesp"));
  EXPECT_EQ(device().live_pids().size(), 1u);
  device().config().start_entry.clear();
  device().boot();
  EXPECT_FALSE(device().mounted("/sysesp"));
  EXPECT_TRUE(device().live_pids().empty());
}

}  // namespace
}  // namespace tavisim
