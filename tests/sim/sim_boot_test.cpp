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

// The 48 bytes of a multiboot1 header as little-endian words.
std::string header_bytes(const std::vector<uint32_t>& words) {
  std::string out;
  for (uint32_t w : words)
    for (int i = 0; i < 4; i++) out += static_cast<char>((w >> (8 * i)) & 0xff);
  return out;
}

TEST(SimKernelImage, StandInsFollowThePublishersLayout) {
  std::string img = stand_in_kernel(20250110, "3f9c2a1be07", true, 4096);
  ASSERT_EQ(img.size(), 4096u);
  std::string first = "TAVI-KERNEL build=20250110 commit=3f9c2a1be07 health=good\n";
  ASSERT_EQ(first.size(), 58u);
  EXPECT_EQ(img.substr(0, first.size()), first);
  // The multiboot1 header at offset 60, the first multiple of 4 after the line: magic,
  // flags (video mode and load addresses), checksum, header_addr, load_addr, load_end_addr,
  // bss_end_addr, entry_addr (loaded whole at 1 MiB, entered after the header), then a
  // linear framebuffer of 1024 x 768 x 32.
  EXPECT_EQ(img.substr(60, 48), header_bytes({0x1BADB002, 0x00010004, 0xE4514FFA, 0x10003C, 0x100000, 0, 0, 0x10006C,
                                               0, 1024, 768, 32}));
  for (size_t i = first.size(); i < img.size(); i++) {
    if (i >= 60 && i < 108) continue;
    ASSERT_EQ(static_cast<unsigned char>(img[i]), i % 251) << i;
  }
  EXPECT_EQ(multiboot1_refusal(img), "");
  // An image asked to be smaller than its line and header is as long as they need.
  EXPECT_EQ(stand_in_kernel(1, "aaaaaaa", true, 10).size(), 96u);
  EXPECT_EQ(multiboot1_refusal(stand_in_kernel(1, "aaaaaaa", true, 10)), "");
  KernelImage k = read_kernel_image(img);
  EXPECT_TRUE(k.valid);
  EXPECT_EQ(k.build, "20250110");
  EXPECT_EQ(k.commit, "3f9c2a1be07");
  EXPECT_TRUE(k.healthy);
  EXPECT_FALSE(read_kernel_image(stand_in_kernel(2, "abcdefg", false)).healthy);
  EXPECT_FALSE(read_kernel_image("MZ\x90\n").valid);
  EXPECT_FALSE(read_kernel_image("TAVI-KERNEL health=good\n").valid);
}

TEST(SimBootMenu, OptionNamesAreNotCaseSensitive) {
  EXPECT_EQ(choose_boot_entry("DEFAULT_ENTRY: 2\n" + kEntryA + kEntryB).entry, 2);
  EXPECT_EQ(choose_boot_entry("Default_Entry: 2\n/tavi\n    PATH: boot():/tavi.mb\n/b\n    Path: boot():/b.mb\n")
                .kernel_path,
            "/b.mb");
  EXPECT_EQ(menu_with_default_one("DEFAULT_ENTRY: 2\n" + kEntryA + kEntryB), "DEFAULT_ENTRY: 1\n" + kEntryA + kEntryB);
}

TEST(SimBootMenu, ADefaultNamingATitleBootsThatEntryAsLimine11Does) {
  MenuChoice c = choose_boot_entry("default_entry: tavi (update)\n" + kEntryA + kEntryB);
  EXPECT_EQ(c.entry, 2);
  EXPECT_EQ(c.title, "tavi (update)");
  EXPECT_EQ(c.kernel_path, "/tavi-b.mb");
  EXPECT_EQ(choose_boot_entry("default_entry: tavi\r\n" + kEntryB + kEntryA).entry, 2);
  // A title no top-level entry has means entry 1, as a number beyond the entries does.
  EXPECT_EQ(choose_boot_entry("default_entry: other\n" + kEntryA + kEntryB).entry, 1);
}

const std::string kSubEntries = "//tavi (safe mode)\n    protocol: multiboot1\n    path: boot():/tavi.mb\n"
                                "    cmdline: tavi safe\n"
                                "//tavi (no network)\n    protocol: multiboot1\n    path: boot():/tavi.mb\n";

TEST(SimBootMenu, AnEntryWithSubEntriesIsADirectoryAndTheMenuWaitsAtIt) {
  // Entry 1 holds sub-entries: it is shown as "[+] tavi" and never boots by itself.
  MenuChoice c = choose_boot_entry("default_entry: 1\n" + kEntryA + kSubEntries + kEntryB);
  EXPECT_EQ(c.entries, 2);
  EXPECT_TRUE(c.waits);
  EXPECT_EQ(c.entry, 1);
  EXPECT_EQ(c.kernel_path, "");
  EXPECT_EQ(c.problem, "the boot menu waits: entry 1 is a directory, shown as \"[+] tavi\"");
  // The entry after the sub-entries is an ordinary entry again.
  c = choose_boot_entry("default_entry: 2\n" + kEntryA + kSubEntries + kEntryB);
  EXPECT_FALSE(c.waits);
  EXPECT_EQ(c.kernel_path, "/tavi-b.mb");
  // The menu ota makes of it: entry B inserted between entry A and A's sub-entries, so
  // entry B is now the directory, and the default points at it.
  c = choose_boot_entry("default_entry: 2\n" + kEntryA + "\n" + kEntryB + kSubEntries);
  EXPECT_TRUE(c.waits);
  EXPECT_EQ(c.entry, 2);
  EXPECT_EQ(c.problem, "the boot menu waits: entry 2 is a directory, shown as \"[+] tavi (update)\"");
  EXPECT_EQ(choose_boot_entry("default_entry: 1\n" + kEntryA + "\n" + kEntryB + kSubEntries).kernel_path, "/tavi.mb");
}

TEST(SimBootMenu, AnEntryPickedByHandBootsWhateverTheDefaultSays) {
  std::string menu = "default_entry: 2\n" + kEntryA + "\n" + kEntryB + kSubEntries;
  BootSelection s;
  s.pick = "1";
  MenuChoice c = choose_boot_entry(menu, s);
  EXPECT_TRUE(c.picked);
  EXPECT_EQ(c.kernel_path, "/tavi.mb");
  s.pick = "tavi (safe mode)";
  c = choose_boot_entry(menu, s);
  EXPECT_TRUE(c.sub_entry);
  EXPECT_EQ(c.entry, 2);
  EXPECT_EQ(c.title, "tavi (safe mode)");
  EXPECT_EQ(c.kernel_path, "/tavi.mb");
  s.pick = "2";
  EXPECT_TRUE(choose_boot_entry(menu, s).waits);
  s.pick = "3";
  EXPECT_EQ(choose_boot_entry(menu, s).problem, "there is no entry 3 to pick");
  s.pick = "tavi (recovery)";
  EXPECT_EQ(choose_boot_entry(menu, s).problem, "there is no entry titled \"tavi (recovery)\" to pick");
}

TEST(SimBootMenu, RememberLastEntryBootsTheRememberedEntryInsteadOfTheDefault) {
  std::string menu = "timeout: 5\nremember_last_entry: yes\ndefault_entry: 1\n\n" + kEntryA + "\n" + kEntryB;
  BootSelection s;
  MenuChoice c = choose_boot_entry(menu, s);  // nothing remembered yet
  EXPECT_TRUE(c.remember);
  EXPECT_FALSE(c.remembered);
  EXPECT_EQ(c.entry, 1);
  s.remembered = "tavi (update)";
  c = choose_boot_entry(menu, s);
  EXPECT_TRUE(c.remembered);
  EXPECT_EQ(c.entry, 2);
  EXPECT_EQ(c.kernel_path, "/tavi-b.mb");
  // The option placed after the entries still counts; without it, or with another value,
  // the firmware's entry is not looked at.
  EXPECT_EQ(choose_boot_entry("default_entry: 1\n" + kEntryA + kEntryB + "REMEMBER_LAST_ENTRY: yes\n", s).entry, 2);
  EXPECT_EQ(choose_boot_entry("default_entry: 1\n" + kEntryA + kEntryB, s).entry, 1);
  EXPECT_EQ(choose_boot_entry("remember_last_entry: no\n" + kEntryA + kEntryB, s).entry, 1);
  // A remembered title that is no longer in the menu leaves the choice to default_entry.
  s.remembered = "tavi (old)";
  c = choose_boot_entry(menu, s);
  EXPECT_FALSE(c.remembered);
  EXPECT_EQ(c.entry, 1);
  // A pick by hand wins over the remembered entry.
  s.remembered = "tavi (update)";
  s.pick = "1";
  EXPECT_EQ(choose_boot_entry(menu, s).entry, 1);
}

// An image of `size` filler bytes with the words given written at `at`.
std::string image_with(size_t at, const std::vector<uint32_t>& words, size_t size = 4096) {
  std::string img(size, '\0');
  for (size_t i = 0; i < size; i++) img[i] = static_cast<char>(i % 251);
  img.replace(at, words.size() * 4, header_bytes(words));
  return img;
}

TEST(SimKernelImage, TheBootLoaderNeedsAMultiboot1HeaderThatAsksForAFramebuffer) {
  const uint32_t magic = 0x1BADB002;
  // A good header anywhere at a 4-byte aligned offset in the first 8192 bytes.
  EXPECT_EQ(multiboot1_refusal(image_with(0, {magic, 4, 0u - magic - 4})), "");
  EXPECT_EQ(multiboot1_refusal(image_with(8180, {magic, 4, 0u - magic - 4}, 9000)), "");
  Multiboot1Header h = find_multiboot1_header(image_with(8180, {magic, 4, 0u - magic - 4}, 9000));
  EXPECT_TRUE(h.found);
  EXPECT_EQ(h.offset, 8180u);
  EXPECT_EQ(h.flags, 4u);
  EXPECT_TRUE(h.checksum_ok);
  // Not aligned, or not wholly within the first 8192 bytes: no header.
  EXPECT_EQ(multiboot1_refusal(image_with(2, {magic, 4, 0u - magic - 4})),
            "multiboot1: no header in the first 8192 bytes");
  EXPECT_EQ(multiboot1_refusal(image_with(8184, {magic, 4, 0u - magic - 4}, 9000)),
            "multiboot1: no header in the first 8192 bytes");
  EXPECT_EQ(multiboot1_refusal("TAVI-KERNEL build=1 commit=aaaaaaa health=good\n"),
            "multiboot1: no header in the first 8192 bytes");
  // The first magic is the header: a bad checksum there is not made good by a later one.
  std::string twice = image_with(64, {magic, 4, 0u - magic - 4});
  twice.replace(16, 12, header_bytes({magic, 4, 0u - magic - 3}));
  EXPECT_EQ(multiboot1_refusal(twice), "multiboot1: the header checksum is wrong");
  // Text mode only (flags bit 2 clear): Limine on UEFI panics.
  EXPECT_EQ(multiboot1_refusal(image_with(0, {magic, 0x10003, 0u - magic - 0x10003})),
            "PANIC: multiboot1: Cannot use text mode with UEFI.");
  // Too short for any header, an empty file included.
  EXPECT_EQ(multiboot1_refusal(""), "Kernel file too small to contain header");
  EXPECT_EQ(multiboot1_refusal(std::string(11, '\0')), "Kernel file too small to contain header");
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
  EXPECT_EQ(b.start_entry.out, "pid " + std::to_string(b.start_entry.pid) + "\n");
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

TEST_F(BootProbe, AKernelThatAsksForTextModePanicsAndCountsNoStart) {
  // A stand-in whose header flags say text mode: the boot loader refuses it before any
  // kernel runs, so nothing counts the start.
  std::string text_mode = stand_in_kernel(2, "bbbbbbb");  // its header at offset 48
  text_mode.replace(52, 8, header_bytes({0x00010000, 0u - 0x1BADB002 - 0x00010000}));
  device().make_esp("sda1", {{"limine.conf", "default_entry: 2\n" + kEntryA + kEntryB},
                             {"tavi.mb", stand_in_kernel(1, "aaaaaaa")},
                             {"tavi-b.mb", text_mode}});
  device().config().boot_tries = 0;
  start_entry("getpid");
  device().write_file("/system/ERPROBUNG", "gen=00000003 vor=00000003 v=00 ok=0\n");
  BootResult b = device().boot();
  EXPECT_FALSE(b.booted);
  EXPECT_EQ(b.stuck, "PANIC: multiboot1: Cannot use text mode with UEFI.");
  EXPECT_FALSE(b.ran_start_entry);
  EXPECT_EQ(device().read_file("/system/ERPROBUNG"), "gen=00000003 vor=00000003 v=00 ok=0\n");
  EXPECT_EQ(events_of(device().events(), "boot").back().fields,
            (std::vector<std::string>{"stuck=PANIC: multiboot1: Cannot use text mode with UEFI.", "disk=sda1"}));
}

TEST_F(BootProbe, AnImageWithoutAHeaderOrWithABadChecksumDoesNotStart) {
  std::string plain = "TAVI-KERNEL build=2 commit=bbbbbbb health=good\n" + std::string(4000, 'x');
  std::string bad = stand_in_kernel(2, "bbbbbbb");
  bad[56] ^= 1;  // a bit of the checksum (the header is at offset 48)
  start_entry("getpid");
  device().make_esp("sda1", {{"limine.conf", "default_entry: 1\n/tavi\n    path: boot():/plain.mb\n"},
                             {"plain.mb", plain}});
  EXPECT_EQ(device().boot().stuck, "multiboot1: no header in the first 8192 bytes");
  device().make_esp("sda1", {{"limine.conf", "default_entry: 1\n/tavi\n    path: boot():/bad.mb\n"}, {"bad.mb", bad}});
  EXPECT_EQ(device().boot().stuck, "multiboot1: the header checksum is wrong");
  device().make_esp("sda1",
                    {{"limine.conf", "default_entry: 1\n/tavi\n    path: boot():/empty.mb\n"}, {"empty.mb", ""}});
  EXPECT_EQ(device().boot().stuck, "Kernel file too small to contain header");
  // A good header but no stand-in line: the loader would start it, but the model knows
  // no kernel to run.
  std::string foreign = image_with(0, {0x1BADB002, 4, 0u - 0x1BADB002 - 4});
  device().make_esp("sda1", {{"limine.conf", "default_entry: 1\n/tavi\n    path: boot():/x.mb\n"}, {"x.mb", foreign}});
  EXPECT_EQ(device().boot().stuck, "the kernel image /x.mb does not start");
}

TEST_F(BootProbe, AMenuWaitingAtADirectoryBootsNothingAndCountsNothing) {
  menu("default_entry: 2\n" + kEntryA + "\n" + kEntryB + kSubEntries);
  start_entry("getpid");
  device().write_file("/system/ERPROBUNG", "gen=00000003 vor=00000003 v=00 ok=0\n");
  for (int i = 0; i < 2; i++) {
    BootResult b = device().boot();
    EXPECT_FALSE(b.booted);
    EXPECT_EQ(b.stuck, "the boot menu waits: entry 2 is a directory, shown as \"[+] tavi (update)\"");
    EXPECT_FALSE(b.ran_start_entry);
  }
  EXPECT_EQ(device().read_file("/system/ERPROBUNG"), "gen=00000003 vor=00000003 v=00 ok=0\n");
  // Someone at the console opens the directory and picks one of its entries.
  BootOptions o;
  o.pick = "tavi (no network)";
  o.start_entry = false;
  BootResult b = device().boot(o);
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_TRUE(b.picked);
  EXPECT_EQ(b.kernel.commit, "aaaaaaa");
  EXPECT_EQ(device().read_file("/system/ERPROBUNG"), "gen=00000003 vor=00000003 v=01 ok=0\n");
  EXPECT_EQ(events_of(device().events(), "boot").back().fields,
            (std::vector<std::string>{"disk=sda1", "entry=2", "kernel=/tavi.mb", "build=1", "commit=aaaaaaa",
                                      "health=good", "starts=1", "picked=tavi (no network)",
                                      "title=tavi (no network)"}));
}

TEST_F(BootProbe, TheBootLoaderRemembersTheEntryItBootedInTheFirmware) {
  const std::string conf = "remember_last_entry: yes\ndefault_entry: 2\n" + kEntryA + kEntryB;
  menu(conf);
  device().config().start_entry.clear();
  EXPECT_EQ(device().remembered_entry(), "");
  BootResult b = device().boot();
  EXPECT_EQ(b.entry, 2);
  EXPECT_FALSE(b.remembered);
  EXPECT_EQ(device().remembered_entry(), "tavi (update)");
  // The default back at entry 1 does not bring entry 1 back.
  fat_write(device().disk_image("sda1"), "limine.conf",
            "remember_last_entry: yes\ndefault_entry: 1\n" + kEntryA + kEntryB);
  b = device().boot();
  EXPECT_EQ(b.entry, 2);
  EXPECT_TRUE(b.remembered);
  EXPECT_EQ(events_of(device().events(), "boot").back().value("remembered"), "tavi (update)");
  // Picked by hand, entry 1 is what the loader remembers from then on.
  BootOptions o;
  o.start_entry = false;
  o.pick = "1";
  EXPECT_EQ(device().boot(o).entry, 1);
  EXPECT_EQ(device().remembered_entry(), "tavi");
  EXPECT_EQ(device().boot().entry, 1);
  // Without the option the firmware's entry is neither used nor changed.
  menu("default_entry: 2\n" + kEntryA + kEntryB);
  EXPECT_EQ(device().boot().entry, 2);
  EXPECT_EQ(device().remembered_entry(), "tavi");
  device().set_remembered_entry("");
  EXPECT_EQ(device().remembered_entry(), "");
}

TEST_F(BootProbe, UnderRememberLastEntryTheKernelsFallbackRestartsIntoTheSameEntryAgain) {
  const std::string conf = "remember_last_entry: yes\ndefault_entry: 2\n" + kEntryA + kEntryB;
  menu(conf, false);
  device().config().boot_tries = 1;
  device().config().start_entry.clear();
  device().write_file("/system/ERPROBUNG", "gen=00000003 vor=00000003 v=00 ok=0\n");
  BootResult b = device().boot();
  EXPECT_TRUE(b.booted);
  EXPECT_EQ(b.entry, 2);
  // The second start passes the count: the kernel sets the default to 1 and restarts, but
  // the loader starts the entry it remembers, entry 2, whose kernel counts and falls back
  // again: the machine never comes up.
  for (int start = 2; start <= 4; start++) {
    SCOPED_TRACE("start " + std::to_string(start));
    b = device().boot();
    EXPECT_FALSE(b.booted);
    EXPECT_TRUE(b.restarted);
    EXPECT_TRUE(b.fallback);
    EXPECT_EQ(b.menu_reset, start == 2);
    EXPECT_EQ(b.entry, 2);
    EXPECT_EQ(b.trial_starts, start);
    EXPECT_EQ(b.stuck, "");
    EXPECT_FALSE(b.ran_start_entry);
  }
  auto boots = events_of(device().events(), "boot");
  ASSERT_EQ(boots.size(), 4u);
  EXPECT_EQ(boots[1].fields, (std::vector<std::string>{"disk=sda1", "entry=2", "kernel=/tavi-b.mb", "build=2",
                                                       "commit=bbbbbbb", "health=broken", "starts=2",
                                                       "remembered=tavi (update)", "fallback", "menu-default=1",
                                                       "restart"}));
  EXPECT_FALSE(boots[3].has("menu-default=1"));
  EXPECT_EQ(device().esp_read("sda1", "limine.conf"),
            "remember_last_entry: yes\ndefault_entry: 1\n" + kEntryA + kEntryB);
  // Entry 1 picked by hand starts the old kernel; it counts the start but does not fall back.
  BootOptions o;
  o.start_entry = false;
  o.pick = "1";
  b = device().boot(o);
  EXPECT_TRUE(b.booted);
  EXPECT_FALSE(b.fallback);
  EXPECT_EQ(b.kernel.commit, "aaaaaaa");
  EXPECT_EQ(b.trial_starts, 5);
  EXPECT_EQ(device().remembered_entry(), "tavi");
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
