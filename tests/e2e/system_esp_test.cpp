// `ota system esp`: finding the EFI system partition among the candidate disks, the
// kernel directory read from the boot menu, and the report of the two kernel slots.
#include <filesystem>

#include "system_source.h"

using namespace e2e;
using tavisim::RunResult;

namespace {

class SystemEspTest : public SystemTest {
 protected:
  // "device target type result" of every mount in a run.
  static std::vector<std::string> mounts(const RunResult& r) {
    std::vector<std::string> out;
    for (const auto& e : events_of(r.events, "mount")) {
      std::string line;
      for (const auto& f : e.fields) line += (line.empty() ? "" : " ") + f;
      out.push_back(line);
    }
    return out;
  }
  void drop_disk(const std::string& disk) { std::filesystem::remove(device().disk_image(disk)); }
};

TEST_F(SystemEspTest, NoPartitionAtAllIsReportedAsNoneFound) {
  drop_disk("sda1");
  RunResult r = device().run({"system", "esp"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "esp: none found\n");
  EXPECT_EQ(r.err, "");
  // Every candidate was tried, in order.
  std::vector<std::string> m = mounts(r);
  ASSERT_EQ(m.size(), 3u);
  EXPECT_EQ(m[0], "/dev/sda1 /sysesp vfat -2");
  EXPECT_EQ(m[1], "/dev/nvme01 /sysesp vfat -2");
  EXPECT_EQ(m[2], "/dev/hda1 /sysesp vfat -2");
  EXPECT_FALSE(device().mounted());
}

TEST_F(SystemEspTest, TheReportNamesTheMenuSizeAndBothSlots) {
  RunResult r = device().run({"system", "esp"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "esp: mounted\nesp: limine.conf bytes " + std::to_string(kPlainMenu.size()) +
                       "\nesp: tavi.mb sha256 " + sha256_hex(old_kernel_) + "\nesp: tavi-b.mb sha256 absent\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(mounts(r), (std::vector<std::string>{"/dev/sda1 /sysesp vfat 0"}));
  EXPECT_FALSE(device().mounted());
  // The report changes nothing on the partition.
  EXPECT_EQ(device().esp_read("sda1", "limine.conf").value_or(""), kPlainMenu);
}

TEST_F(SystemEspTest, BothSlotsAreHashed) {
  std::string b = tavisim::stand_in_kernel(kNewBuild, kNewCommit, true, 70000);  // more than one read block
  device().make_esp("sda1", {{"limine.conf", kStagedMenu}, {"tavi.mb", old_kernel_}, {"tavi-b.mb", b}});
  RunResult r = device().run({"system", "esp"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "esp: mounted\nesp: limine.conf bytes " + std::to_string(kStagedMenu.size()) +
                       "\nesp: tavi.mb sha256 " + sha256_hex(old_kernel_) + "\nesp: tavi-b.mb sha256 " +
                       sha256_hex(b) + "\n");
}

TEST_F(SystemEspTest, APartitionWithoutAMenuIsSkippedAndLeftUnmounted) {
  device().make_esp("sda1", {{"tavi.mb", "not this one"}});
  device().make_esp("nvme01", {{"limine.conf", kPlainMenu}, {"tavi.mb", old_kernel_}});
  RunResult r = device().run({"system", "esp"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "esp: mounted\nesp: limine.conf bytes " + std::to_string(kPlainMenu.size()) +
                       "\nesp: tavi.mb sha256 " + sha256_hex(old_kernel_) + "\nesp: tavi-b.mb sha256 absent\n");
  EXPECT_EQ(mounts(r), (std::vector<std::string>{"/dev/sda1 /sysesp vfat 0", "/dev/nvme01 /sysesp vfat 0"}));
  // sda1 was unmounted again before nvme01 was tried.
  auto umounts = events_of(r.events, "umount");
  ASSERT_GE(umounts.size(), 3u);
  EXPECT_FALSE(device().mounted());
}

TEST_F(SystemEspTest, TheOldIdeNameIsTheLastCandidate) {
  drop_disk("sda1");
  device().make_esp("nvme01", {{"EFI/readme.txt", "no menu here"}});
  std::string kernel = tavisim::stand_in_kernel(7, "7777777");
  device().make_esp("hda1", {{"limine.conf", kPlainMenu}, {"tavi.mb", kernel}});
  RunResult r = device().run({"system", "esp"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "esp: mounted\nesp: limine.conf bytes " + std::to_string(kPlainMenu.size()) +
                       "\nesp: tavi.mb sha256 " + sha256_hex(kernel) + "\nesp: tavi-b.mb sha256 absent\n");
  std::vector<std::string> m = mounts(r);
  ASSERT_EQ(m.size(), 3u);
  EXPECT_EQ(m[1], "/dev/nvme01 /sysesp vfat 0");
  EXPECT_EQ(m[2], "/dev/hda1 /sysesp vfat 0");
}

TEST_F(SystemEspTest, TheKernelDirectoryComesFromTheFirstEntrysPath) {
  std::string menu = "timeout: 5\ndefault_entry: 1\n\n/tavi\n    protocol: multiboot1\n    path: boot():/boot/tavi.mb\n";
  std::string a = tavisim::stand_in_kernel(1, "aaaaaaa");
  std::string b = tavisim::stand_in_kernel(2, "bbbbbbb");
  device().make_esp("sda1", {{"limine.conf", menu},
                             {"tavi.mb", "the top-level file is not the slot"},
                             {"boot/tavi.mb", a},
                             {"boot/tavi-b.mb", b}});
  RunResult r = device().run({"system", "esp"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "esp: mounted\nesp: limine.conf bytes " + std::to_string(menu.size()) + "\nesp: tavi.mb sha256 " +
                       sha256_hex(a) + "\nesp: tavi-b.mb sha256 " + sha256_hex(b) + "\n");
}

// A menu of exactly `size` bytes whose first entry boots /boot/tavi.mb.
std::string padded_menu(size_t size) {
  std::string entry = "/tavi\n    protocol: multiboot1\n    path: boot():/boot/tavi.mb\n";
  std::string menu = "default_entry: 1\n";
  while (menu.size() + 100 + entry.size() < size) menu += "# padding line\n";
  menu += std::string(size - menu.size() - entry.size() - 1, '#') + "\n" + entry;
  return menu;
}

TEST_F(SystemEspTest, AMenuOf24000BytesGivesTheTopLevelSlots) {
  std::string menu = padded_menu(24000);
  ASSERT_EQ(menu.size(), 24000u);
  std::string top = tavisim::stand_in_kernel(1, "ttttttt");
  device().make_esp("sda1", {{"limine.conf", menu}, {"tavi.mb", top}, {"boot/tavi.mb", "in the directory"}});
  RunResult r = device().run({"system", "esp"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "esp: mounted\nesp: limine.conf bytes 24000\nesp: tavi.mb sha256 " + sha256_hex(top) +
                       "\nesp: tavi-b.mb sha256 absent\n");
}

TEST_F(SystemEspTest, AMenuOf23999BytesIsReadForItsDirectory) {
  std::string menu = padded_menu(23999);
  ASSERT_EQ(menu.size(), 23999u);
  device().make_esp("sda1", {{"limine.conf", menu}, {"tavi.mb", "top"}, {"boot/tavi.mb", "in the directory"}});
  RunResult r = device().run({"system", "esp"});
  EXPECT_EQ(r.out, "esp: mounted\nesp: limine.conf bytes 23999\nesp: tavi.mb sha256 " +
                       sha256_hex("in the directory") + "\nesp: tavi-b.mb sha256 absent\n");
}

TEST_F(SystemEspTest, AnEmptyMenuStillMountsAndGivesTheTopLevelSlots) {
  std::string top = tavisim::stand_in_kernel(1, "ttttttt");
  device().make_esp("sda1", {{"limine.conf", ""}, {"tavi.mb", top}});
  RunResult r = device().run({"system", "esp"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "esp: mounted\nesp: limine.conf bytes 0\nesp: tavi.mb sha256 " + sha256_hex(top) +
                       "\nesp: tavi-b.mb sha256 absent\n");
}

TEST_F(SystemEspTest, AStaleMountIsClearedFirst) {
  // The unmount at the end of this run fails, so the partition stays mounted.
  device().add_call_fault({166, -16, 2, false, "/sysesp"});
  RunResult first = device().run({"system", "esp"});
  ASSERT_EQ(first.status, 0);
  ASSERT_TRUE(device().mounted());
  device().clear_faults();
  RunResult r = device().run({"system", "esp"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "esp: mounted\nesp: limine.conf bytes " + std::to_string(kPlainMenu.size()) +
                       "\nesp: tavi.mb sha256 " + sha256_hex(old_kernel_) + "\nesp: tavi-b.mb sha256 absent\n");
  auto umounts = events_of(r.events, "umount");
  ASSERT_EQ(umounts.size(), 2u);
  EXPECT_EQ(umounts[0].fields, (std::vector<std::string>{"/sysesp", "0"}));
  EXPECT_EQ(mounts(r), (std::vector<std::string>{"/dev/sda1 /sysesp vfat 0"}));
  EXPECT_FALSE(device().mounted());
}

}  // namespace
