// The boot menu on the ESP through a whole apply and confirmation: entry B added and made
// the default, the default switched back to 1 in place, and every layout the device will
// not touch left byte for byte as it was. After each rewrite the image must still be a
// clean FAT file system and the menu read back with mtools must be exactly the text
// expected.
#include "system_source.h"

using namespace e2e;
using tavisim::RunResult;

namespace {

const std::string kEntryA = "/tavi\n    protocol: multiboot1\n    path: boot():/tavi.mb\n";
const std::string kEntryB = "/tavi (update)\n    protocol: multiboot1\n    path: boot():/tavi-b.mb\n";

std::string with_default_one(std::string menu) {
  size_t at = menu.find("default_entry: 2");
  if (at != std::string::npos) menu[at + 15] = '1';
  return menu;
}

class SystemMenuTest : public SystemTest {
 protected:
  // Stages the offered build with the menu given and checks the rewrite; then restarts
  // into entry B, confirms and checks the menu once more.
  void stage_and_confirm(const std::string& menu, const std::string& staged, const std::string& confirmed,
                         const std::string& dir = "") {
    std::string slot_a = dir.empty() ? "tavi.mb" : dir + "/tavi.mb";
    std::string slot_b = dir.empty() ? "tavi-b.mb" : dir + "/tavi-b.mb";
    device().make_esp("sda1", {{"limine.conf", menu}, {slot_a, old_kernel_}});
    std::string kernel = publish_system();
    RunResult r = device().run({"system", "apply"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, check_lines() + "system: staged in slot B, restart to install\n");
    expect_esp_menu(staged);
    EXPECT_EQ(device().esp_read("sda1", slot_b).value_or(""), kernel);
    for (const std::string& f : device().esp_list("sda1")) EXPECT_EQ(f.find("limine.nw"), std::string::npos);

    tavisim::BootResult b = restart_machine();
    ASSERT_TRUE(b.booted) << b.stuck;
    EXPECT_EQ(b.entry, 2);
    EXPECT_EQ(b.kernel.commit, kNewCommit);
    r = device().run({"system", "confirm"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "system: new kernel confirmed and promoted to slot A\n");
    expect_esp_menu(confirmed);
    EXPECT_EQ(device().esp_read("sda1", slot_a).value_or(""), kernel);
  }

  // An apply with the menu given, and one overlay file, must be refused at the menu with
  // the reason given and leave the device and its ESP exactly as they were.
  void expect_refused(const std::string& menu, const std::string& reason) {
    device().make_esp("sda1", {{"limine.conf", menu}, {"tavi.mb", old_kernel_}});
    publish_system({"--file", "taskbar=" + host_file("taskbar", "new taskbar\n")});
    device().write_file("/bin/taskbar", "old taskbar\n", 0755);
    Snapshot root = root_snapshot();
    Snapshot esp = esp_snapshot();
    RunResult r = device().run({"system", "apply"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "ota: unsupported limine.conf layout: " + reason + "\n");
    EXPECT_EQ(r.out, check_lines() +
                         "system: overlay files verified: 1\n"
                         "system: overlay restored (previous /bin files are back)\n");
    EXPECT_EQ(difference(root, root_snapshot()), "");
    EXPECT_EQ(difference(esp, esp_snapshot()), "");
    expect_esp_menu(menu);
    EXPECT_FALSE(device().mounted());
  }
};

// --- Rewrites ---

TEST_F(SystemMenuTest, EntryBFollowsEntryAAndBecomesTheDefault) {
  stage_and_confirm(kPlainMenu, kStagedMenu, with_default_one(kStagedMenu));
}

TEST_F(SystemMenuTest, AMenuWithoutADefaultLineGetsOneAsItsFirstLine) {
  std::string menu = "timeout: 5\n\n" + kEntryA;
  stage_and_confirm(menu, "default_entry: 2\ntimeout: 5\n\n" + kEntryA + "\n" + kEntryB,
                    "default_entry: 1\ntimeout: 5\n\n" + kEntryA + "\n" + kEntryB);
}

TEST_F(SystemMenuTest, AnEntryAEndingInAnEmptyLineGetsNoSecondOne) {
  // Entry A's empty line belongs to its text and is copied into entry B as well.
  std::string menu = "default_entry: 1\n" + kEntryA + "\n";
  std::string staged = "default_entry: 2\n" + kEntryA + "\n" + kEntryB + "\n";
  stage_and_confirm(menu, staged, with_default_one(staged));
}

TEST_F(SystemMenuTest, AnEntryAWithoutAFinalNewlineIsClosedFirst) {
  std::string menu = "default_entry: 1\n/tavi\n    path: boot():/tavi.mb";
  std::string staged = "default_entry: 2\n/tavi\n    path: boot():/tavi.mb\n\n/tavi (update)\n    path: boot():/tavi-b.mb";
  stage_and_confirm(menu, staged, with_default_one(staged));
}

TEST_F(SystemMenuTest, OptionLinesOfEntryAAreCopiedIntoEntryB) {
  std::string a = "/tavi\n    protocol: multiboot1\n    path: boot():/tavi.mb\n    cmdline: tavi vfs gfx tz=60\n";
  std::string b = "/tavi (update)\n    protocol: multiboot1\n    path: boot():/tavi-b.mb\n    cmdline: tavi vfs gfx tz=60\n";
  std::string menu = "# the menu\ntimeout: 5\ndefault_entry: 1\n\n" + a;
  std::string staged = "# the menu\ntimeout: 5\ndefault_entry: 2\n\n" + a + "\n" + b;
  stage_and_confirm(menu, staged, with_default_one(staged));
}

TEST_F(SystemMenuTest, FurtherEntriesStayAfterEntryB) {
  std::string windows = "\n/Windows Boot Manager\n    protocol: efi_chainload\n    path: boot():/EFI/Microsoft/Boot/bootmgfw.efi\n";
  std::string menu = "timeout: 5\ndefault_entry: 1\n\n" + kEntryA + windows;
  std::string staged = "timeout: 5\ndefault_entry: 2\n\n" + kEntryA + "\n" + kEntryB + windows;
  stage_and_confirm(menu, staged, with_default_one(staged));
}

TEST_F(SystemMenuTest, CrLfLinesAreKeptAndTheNewEntryStillBoots) {
  std::string menu = "timeout: 5\r\ndefault_entry: 1\r\n\r\n/tavi\r\n    protocol: multiboot1\r\n    path: boot():/tavi.mb\r\n";
  std::string staged =
      "timeout: 5\r\ndefault_entry: 2\r\n\r\n/tavi\r\n    protocol: multiboot1\r\n    path: boot():/tavi.mb\r\n"
      "\n/tavi (update)\r\n    protocol: multiboot1\r\n    path: boot():/tavi-b.mb\r\n";
  stage_and_confirm(menu, staged, with_default_one(staged));
}

TEST_F(SystemMenuTest, KernelsInADirectoryStayInIt) {
  std::string a = "/tavi\n    protocol: multiboot1\n    path: boot():/boot/tavi.mb\n";
  std::string b = "/tavi (update)\n    protocol: multiboot1\n    path: boot():/boot/tavi-b.mb\n";
  std::string staged = "default_entry: 2\n" + a + "\n" + b;
  stage_and_confirm("default_entry: 1\n" + a, staged, with_default_one(staged), "boot");
}

TEST_F(SystemMenuTest, AnExistingEntryBInSecondPlaceIsKeptAndOnlyTheDefaultChanges) {
  // "default_entry:1" without a blank is accepted; the rewrite writes the usual spelling.
  std::string menu = "timeout: 5\ndefault_entry:1\n\n" + kEntryA + "\n" + kEntryB;
  device().make_esp("sda1", {{"limine.conf", menu}, {"tavi.mb", old_kernel_}, {"tavi-b.mb", "an older slot B"}});
  std::string staged = "timeout: 5\ndefault_entry: 2\n\n" + kEntryA + "\n" + kEntryB;
  std::string kernel = publish_system();
  RunResult r = device().run({"system", "apply"});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_esp_menu(staged);
  EXPECT_EQ(device().esp_read("sda1", "tavi-b.mb").value_or(""), kernel);
  ASSERT_EQ(restart_machine().entry, 2);
  r = device().run({"system", "confirm"});
  EXPECT_EQ(r.out, "system: new kernel confirmed and promoted to slot A\n");
  expect_esp_menu(with_default_one(staged));
}

TEST_F(SystemMenuTest, AMenuThatAlreadyDefaultsToTwoIsRewrittenAgainWithoutASecondEntryB) {
  // A staged menu whose slot B was dropped: the next apply uses the entry B it finds.
  device().make_esp("sda1", {{"limine.conf", kStagedMenu}, {"tavi.mb", old_kernel_}});
  publish_system();
  RunResult r = device().run({"system", "apply"});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_esp_menu(kStagedMenu);
}

// A menu of exactly 23999 bytes whose entry A is `entry_a_size` bytes long.
std::string large_menu(size_t entry_a_size) {
  std::string head = "/tavi\n    protocol: multiboot1\n    cmdline: ";
  std::string tail = "\n    path: boot():/tavi.mb\n";
  std::string a = head + std::string(entry_a_size - head.size() - tail.size(), 'x') + tail;
  std::string global = "default_entry: 1\n";
  size_t room = 23999 - a.size();
  while (global.size() + 80 < room) global += "# " + std::string(77, '-') + "\n";
  global += "#" + std::string(room - global.size() - 2, '=') + "\n";
  return global + a;
}

TEST_F(SystemMenuTest, TheLargestRewriteThatFitsIsWritten) {
  // 23999 bytes plus a copy of entry A (3988 bytes), " (update)", the longer kernel
  // name and the empty line: 27999 bytes and the closing zero fill the 28000.
  std::string menu = large_menu(3988);
  ASSERT_EQ(menu.size(), 23999u);
  size_t a = menu.find("\n/tavi\n") + 1;
  std::string entry_a = menu.substr(a);
  std::string entry_b = entry_a;
  entry_b.replace(0, 5, "/tavi (update)");
  entry_b.replace(entry_b.find("/tavi.mb"), 8, "/tavi-b.mb");
  std::string staged = menu + "\n" + entry_b;
  staged[15] = '2';
  ASSERT_EQ(staged.size(), 27999u);
  device().make_esp("sda1", {{"limine.conf", menu}, {"tavi.mb", old_kernel_}});
  publish_system();
  RunResult r = device().run({"system", "apply"});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_esp_menu(staged);
}

// --- Refusals ---

TEST_F(SystemMenuTest, ARewriteOneByteTooLargeIsRefused) {
  expect_refused(large_menu(3989), "file too large or empty");
}

TEST_F(SystemMenuTest, AMenuOf24000BytesIsRefused) {
  std::string menu = large_menu(200);
  menu.insert(0, "#");
  ASSERT_EQ(menu.size(), 24000u);
  expect_refused(menu, "file too large or empty");
}

TEST_F(SystemMenuTest, AnEmptyMenuIsRefused) { expect_refused("", "file too large or empty"); }

TEST_F(SystemMenuTest, AFirstLineSubEntryIsRefused) {
  expect_refused("//hidden\n    path: boot():/tavi.mb\ndefault_entry: 1\n" + kEntryA, "no top-level first entry");
}

TEST_F(SystemMenuTest, AMenuWithoutEntriesIsRefused) {
  expect_refused("timeout: 5\ndefault_entry: 1\n", "no top-level first entry");
}

TEST_F(SystemMenuTest, AFirstEntryBootingAnotherFileIsRefused) {
  expect_refused("default_entry: 1\n/tavi\n    path: boot():/other.mb\n", "first entry has no path boot():/tavi.mb");
}

TEST_F(SystemMenuTest, ThePathSpelledOtherwiseIsRefused) {
  expect_refused("default_entry: 1\n/tavi\n    kernel_path: boot():/tavi.mb\n",
                 "first entry has no path boot():/tavi.mb");
}

TEST_F(SystemMenuTest, ADefaultOfThreeIsRefused) {
  expect_refused("default_entry: 3\n" + kEntryA, "default_entry is not 1");
}

TEST_F(SystemMenuTest, ADefaultOfTenIsRefused) {
  expect_refused("default_entry: 10\n" + kEntryA, "default_entry is not 1");
}

TEST_F(SystemMenuTest, AnEmptyDefaultIsRefused) {
  expect_refused("timeout: 5\ndefault_entry:\n" + kEntryA, "default_entry is not 1");
}

TEST_F(SystemMenuTest, AnEntryBInThirdPlaceIsRefused) {
  std::string other = "/other\n    path: boot():/other.mb\n";
  expect_refused("default_entry: 1\n" + kEntryA + other + kEntryB, "entry B is not the second entry");
}

TEST_F(SystemMenuTest, AnEntryBAsASubEntryIsRefused) {
  expect_refused("default_entry: 1\n" + kEntryA + "//tavi (update)\n    path: boot():/tavi-b.mb\n",
                 "entry B is not the second entry");
}

}  // namespace
