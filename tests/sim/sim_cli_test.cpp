// The tavi-sim command line: making a device, running ota in it, the event log, the ESP,
// editing sim.conf, and the clock.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "files.h"
#include "ota_texts.h"
#include "run.h"
#include "tavisim/boot.h"
#include "tavisim/device.h"

namespace tavisim {
namespace {

using Cli = Ran;

class SimCli : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = std::filesystem::temp_directory_path().string() + "/tavisim-cli-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back(0);
    ASSERT_NE(mkdtemp(buf.data()), nullptr);
    base_ = buf.data();
    dev_ = base_ + "/dev";
  }
  void TearDown() override { std::filesystem::remove_all(base_); }

  Cli sim(const std::vector<std::string>& args) { return run_program(OTA_SIM, args); }

  void init(std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"init", dev_, "--binary", OTA_BINARY};
    args.insert(args.end(), extra.begin(), extra.end());
    Cli c = sim(args);
    ASSERT_EQ(c.status, 0) << c.err;
  }

  std::string base_, dev_;
};

TEST_F(SimCli, InitMakesTheDeviceLayout) {
  init({"--esp", "sda1"});
  for (const char* p : {"root/bin/ota", "root/etc", "root/system", "root/tmp", "root/sysesp", "root/proc/version",
                        "disks/sda1.img", "sim.conf", "kernel.state", "events.log"})
    EXPECT_TRUE(std::filesystem::exists(dev_ + "/" + p)) << p;
  EXPECT_FALSE(std::filesystem::exists(dev_ + "/root/etc/ota.conf"));
  EXPECT_EQ(read_all(dev_ + "/root/bin/ota"), read_all(OTA_BINARY));
  EXPECT_EQ(fat_read(dev_ + "/disks/sda1.img", "limine.conf"), default_limine_conf());
  EXPECT_EQ(fat_check(dev_ + "/disks/sda1.img"), 0);
  // A directory that already holds a device is not made again.
  Cli again = sim({"init", dev_, "--binary", OTA_BINARY});
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.out, "");
  EXPECT_EQ(again.err, dev_ + " already holds a device (root/ exists)\n");
}

TEST_F(SimCli, RunPassesOutputThroughAndExitsWithOtasStatus) {
  init();
  Cli c = sim({"run", dev_, "--"});
  EXPECT_EQ(c.status, 0);
  EXPECT_EQ(c.out, kUsage);
  EXPECT_EQ(c.err, "");
  c = sim({"run", dev_, "--", "set", "Quelle", "x"});
  EXPECT_EQ(c.status, 1);
  EXPECT_EQ(c.out, "");
  EXPECT_EQ(c.err, kNotAKey);
  c = sim({"run", dev_, "--", "set", "kanal", "dev"});
  EXPECT_EQ(c.status, 0);
  EXPECT_EQ(c.out, "ota: set kanal is now dev\n");
  EXPECT_EQ(read_all(dev_ + "/root/etc/ota.conf"), "kanal=dev\n");
}

TEST_F(SimCli, ACutRunExitsWith251AndSaysSoOnlyWhenAsked) {
  init();
  Cli c = sim({"run", dev_, "--cut", "1", "all", "--", "settings"});
  EXPECT_EQ(c.status, 251);
  EXPECT_EQ(c.err, "");
  c = sim({"run", dev_, "-v", "--cut", "1", "synced", "--", "settings"});
  EXPECT_EQ(c.status, 251);
  EXPECT_EQ(c.err, "tavi-sim run: the program was cut by fault injection\n");
}

TEST_F(SimCli, EventsPrintsTheLogOrOneKind) {
  init();
  sim({"run", dev_, "--", "settings"});
  Cli c = sim({"events", dev_});
  EXPECT_EQ(c.status, 0);
  auto events = parse_events(c.out);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].kind, "start");
  EXPECT_EQ(events[0].fields, (std::vector<std::string>{"/bin/ota", "settings"}));
  c = sim({"events", dev_, "exit"});
  EXPECT_EQ(parse_events(c.out).size(), 1u);
  EXPECT_EQ(parse_events(c.out)[0].value("status"), "0");
}

TEST_F(SimCli, EspListsAndPrintsFilesAndChecksTheImage) {
  init({"--esp", "sda1"});
  Cli c = sim({"esp", dev_, "ls"});
  EXPECT_EQ(c.status, 0);
  EXPECT_EQ(c.out, "limine.conf\ntavi.mb\n");
  c = sim({"esp", dev_, "--disk", "sda1", "cat", "limine.conf"});
  EXPECT_EQ(c.out, default_limine_conf());
  c = sim({"esp", dev_, "cat", "nope"});
  EXPECT_EQ(c.status, 1);
  EXPECT_EQ(c.out, "");
  EXPECT_EQ(c.err, "tavi-sim esp: nope is not on " + dev_ + "/disks/sda1.img\n");
  c = sim({"esp", dev_, "check"});
  EXPECT_EQ(c.status, 0);
  c = sim({"esp", dev_, "--disk", "nvme01", "ls"});
  EXPECT_EQ(c.status, 1);
  EXPECT_EQ(c.err, "no image " + dev_ + "/disks/nvme01.img\n");
}

TEST_F(SimCli, SetAddAndUnsetEditSimConfAndRefuseBadValues) {
  init();
  EXPECT_EQ(sim({"set", dev_, "free-blocks", "42"}).status, 0);
  EXPECT_EQ(sim({"add", dev_, "task", "3", "desktop", "20"}).status, 0);
  EXPECT_EQ(sim({"add", dev_, "task", "4", "glogin", "25"}).status, 0);
  Config c = parse_config(read_all(dev_ + "/sim.conf"));
  EXPECT_EQ(c.free_blocks, 42u);
  EXPECT_EQ(c.tasks.size(), 2u);
  // The whole file is checked with the new line last (in place of the key's old line); the
  // message names that line.
  size_t lines = 0;
  for (char ch : read_all(dev_ + "/sim.conf")) lines += ch == '\n';
  std::string last = dev_ + "/sim.conf:" + std::to_string(lines) + ": ";
  Cli bad = sim({"set", dev_, "free-blocks", "many"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, last + "free-blocks: not a number for free blocks: many (line: free-blocks many)\n");
  bad = sim({"set", dev_, "no-such-key", "1"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, dev_ + "/sim.conf:" + std::to_string(lines + 1) + ": unknown key no-such-key\n");
  EXPECT_EQ(parse_config(read_all(dev_ + "/sim.conf")).free_blocks, 42u);  // untouched by the refusals
  EXPECT_EQ(sim({"unset", dev_, "task"}).status, 0);
  EXPECT_TRUE(parse_config(read_all(dev_ + "/sim.conf")).tasks.empty());
  Cli conf = sim({"conf", dev_});
  EXPECT_EQ(conf.status, 0);
  EXPECT_EQ(conf.out, read_all(dev_ + "/sim.conf"));
  EXPECT_EQ(parse_config(conf.out).free_blocks, 42u);
}

TEST_F(SimCli, BootStartsTheMachineAndRunsTheStartUpEntry) {
  init({"--esp", "sda1"});
  EXPECT_EQ(sim({"set", dev_, "start-entry", "settings"}).status, 0);
  Cli c = sim({"boot", dev_, "-v"});
  EXPECT_EQ(c.status, 0) << c.err;
  EXPECT_EQ(c.out, settings_listing({}));
  EXPECT_EQ(c.err, "tavi-sim boot: sda1 entry 1 /tavi.mb build 1 commit 0000000 healthy\n");
  EXPECT_EQ(read_all(dev_ + "/root/proc/version"), "tavi 1 build 0000000 (tavi-sim stand-in kernel)\n");
  std::filesystem::remove(dev_ + "/disks/sda1.img");
  c = sim({"boot", dev_});
  EXPECT_EQ(c.status, 3);
}

TEST_F(SimCli, BootPicksAnEntryByHandAndFirmwareShowsTheRememberedEntry) {
  init({"--esp", "sda1"});
  std::string image = dev_ + "/disks/sda1.img";
  fat_write(image, "limine.conf",
            "remember_last_entry: yes\ndefault_entry: 2\n/tavi\n    path: boot():/tavi.mb\n"
            "/tavi (update)\n    path: boot():/tavi-b.mb\n");
  fat_write(image, "tavi-b.mb", stand_in_kernel(2, "bbbbbbb", false));
  EXPECT_EQ(sim({"set", dev_, "start-entry", "-"}).status, 0);
  EXPECT_EQ(sim({"firmware", dev_}).out, "");
  Cli c = sim({"boot", dev_, "-v"});
  EXPECT_EQ(c.status, 0) << c.err;
  EXPECT_EQ(c.err, "tavi-sim boot: sda1 entry 2 /tavi-b.mb build 2 commit bbbbbbb broken\n");
  EXPECT_EQ(sim({"firmware", dev_}).out, "last-booted-entry\ttavi (update)\n");
  c = sim({"boot", dev_, "-v", "--pick", "1"});
  EXPECT_EQ(c.err, "tavi-sim boot: sda1 entry 1 /tavi.mb build 1 commit 0000000 healthy, picked by hand\n");
  c = sim({"boot", dev_, "-v"});
  EXPECT_EQ(c.err, "tavi-sim boot: sda1 entry 1 /tavi.mb build 1 commit 0000000 healthy, the remembered entry\n");
  c = sim({"boot", dev_, "--pick", "9"});
  EXPECT_EQ(c.status, 3);
  EXPECT_EQ(sim({"boot", dev_, "--pick"}).status, 2);
  EXPECT_EQ(sim({"firmware", dev_, "clear"}).status, 0);
  EXPECT_EQ(sim({"firmware", dev_}).out, "");
  EXPECT_EQ(read_all(dev_ + "/firmware.state"),
            "# tavi-sim firmware state: the boot loader's variables, kept across restarts\n");
  EXPECT_EQ(sim({"firmware", dev_, "forget"}).status, 2);

  // A broken entry B the loader remembers: the kernel's fallback restarts into it again,
  // so the machine is still restarting after every start allowed.
  EXPECT_EQ(sim({"set", dev_, "boot-tries", "1"}).status, 0);
  std::ofstream(dev_ + "/root/system/ERPROBUNG") << "gen=00000003 vor=00000003 v=00 ok=0\n";
  EXPECT_EQ(sim({"boot", dev_}).status, 0);  // entry 2, the trial's first start
  c = sim({"boot", dev_, "-v", "--restarts", "1"});
  EXPECT_EQ(c.status, 250);
  const std::string again =
      ": the kernel fell back, but the boot loader starts entry 2 again (it remembers it); restarting\n";
  EXPECT_EQ(c.err, "tavi-sim boot: sda1 entry 2 /tavi-b.mb, trial start 2" + again +
                       "tavi-sim boot: sda1 entry 2 /tavi-b.mb, trial start 3" + again);
}

TEST_F(SimCli, ClockShowsAndAdvancesVirtualTime) {
  init();
  EXPECT_EQ(sim({"clock", dev_}).out, "0.000\n");
  EXPECT_EQ(sim({"clock", dev_, "advance", "90.5"}).out, "90.500\n");
  EXPECT_EQ(sim({"clock", dev_}).out, "90.500\n");
}

// The help of each command, as docs/simulator.md and the manual page describe the commands.
// The installed program's path depends on where the build installs; it stands here as
// "<installed ota>".
const std::pair<const char*, const char*> kHelp[] = {
    {"init",
     "usage: tavi-sim init DIR [--esp DISK]... [--binary OTA] [--proc-version TEXT]\n"
     "Makes DIR a device: root/ (bin/ota copied from OTA, default: the ota beside tavi-sim,\n"
     "else the installed one, <installed ota> from tavi-sim's directory;\n"
     "etc/, system/, tmp/, sysesp/, proc/version), disks/, sim.conf, kernel.state, events.log.\n"
     "--esp DISK makes disks/DISK.img, a FAT image with limine.conf and tavi.mb (e.g. sda1).\n"},
    {"run",
     "usage: tavi-sim run DIR [--wall S] [--virtual S] [--cut K all|synced] [-v] -- WORDS...\n"
     "Runs `ota WORDS...` in the device and serves its background children to their end.\n"
     "ota's output passes through; the exit status is ota's. When ota did not end by\n"
     "itself: 250 restart, 251 cut, 252 wall-clock limit, 253 virtual-time limit,\n"
     "254 killed by a signal, 255 the simulator failed. -v names the reason on stderr.\n"
     "--wall S: real seconds (default 120, 0 none); --virtual S: virtual seconds (default 86400).\n"
     "--cut K all|synced: end ota at its K-th system call, keeping all or only synced data.\n"},
    {"boot",
     "usage: tavi-sim boot DIR [--virtual S] [--wall S] [--restarts N] [--no-start]\n"
     "                     [--pick ENTRY] [-v]\n"
     "Starts the machine. The boot loader reads limine.conf on the first disk image that has\n"
     "one (sda1, nvme01, hda1, then the others) and starts the default entry's kernel (the\n"
     "entry it remembers instead, with remember_last_entry: yes), a stand-in image\n"
     "(`ota-publish kernel`) whose multiboot1 header asks for a framebuffer. --pick ENTRY:\n"
     "someone at the console picks that entry (a top-level number, or any entry's title).\n"
     "The kernel writes /proc/version, counts the starts of an unconfirmed trial in\n"
     "/system/ERPROBUNG (after boot-tries starts it falls back to entry 1 and makes entry 1\n"
     "the menu's default), brings the configured tasks up if the image is healthy, and runs\n"
     "the start-up entry (`ota boot`) for at most S virtual seconds (default 3600). When that\n"
     "restarts the machine (or the kernel's fallback does) it is started again, at most N\n"
     "more times (default 0). Exit status: 0 the machine came up, 3 it stands at the boot\n"
     "loader (a panic, or its menu waits), 250 it was still restarting.\n"},
    {"firmware",
     "usage: tavi-sim firmware DIR [clear]\n"
     "Prints the firmware variables the boot loader keeps across restarts (DIR/firmware.state):\n"
     "last-booted-entry, the title of the entry it booted last under remember_last_entry: yes.\n"
     "clear empties them, as a reset of the firmware's variables does.\n"},
    {"events",
     "usage: tavi-sim events DIR [KIND]\n"
     "Prints DIR/events.log, or only its events of KIND.\n"},
    {"esp",
     "usage: tavi-sim esp DIR [--disk DISK] ls | cat FILE | check\n"
     "ls lists the image's files, cat prints one, check runs fsck.vfat -n. DISK defaults to sda1.\n"},
    {"conf",
     "usage: tavi-sim conf DIR\n"
     "Prints DIR/sim.conf.\n"},
    {"set",
     "usage: tavi-sim set DIR KEY VALUE...\n"
     "Replaces every line of KEY in DIR/sim.conf by `KEY VALUE...`; the result is checked.\n"},
    {"add",
     "usage: tavi-sim add DIR KEY VALUE...\n"
     "Adds the line `KEY VALUE...` to DIR/sim.conf (for repo, task, ...).\n"},
    {"unset",
     "usage: tavi-sim unset DIR KEY\n"
     "Removes every line of KEY from DIR/sim.conf.\n"},
    {"clock",
     "usage: tavi-sim clock DIR [advance SECONDS]\n"
     "Prints the virtual clock (seconds since its configured start), or moves it forward.\n"},
};

const char* kMainUsage =
    "usage: tavi-sim <command> [options]\n"
    "\n"
    "  init DIR [--esp DISK]... [--binary OTA] [--proc-version TEXT]\n"
    "                     make a device directory\n"
    "  run DIR [--wall S] [--virtual S] [--cut K all|synced] [-v] -- WORDS...\n"
    "                     run `ota WORDS...` in the device\n"
    "  boot DIR [--virtual S] [--wall S] [--restarts N] [--no-start] [--pick ENTRY] [-v]\n"
    "                     start the machine: boot loader, kernel, start-up entry\n"
    "  firmware DIR [clear]\n"
    "                     show (or clear) the boot loader's firmware variables\n"
    "  events DIR [KIND]  print the device's event log\n"
    "  esp DIR [--disk DISK] ls | cat FILE | check\n"
    "                     look into an ESP image\n"
    "  conf DIR           print the device configuration (sim.conf)\n"
    "  set DIR KEY VALUE...    replace the setting KEY of sim.conf\n"
    "  add DIR KEY VALUE...    add one more line KEY VALUE... to sim.conf\n"
    "  unset DIR KEY           remove every line of KEY from sim.conf\n"
    "  clock DIR [advance SECONDS]\n"
    "                     show (or move forward) the device's virtual clock\n"
    "  fleet --source DIR --trusted PUB --devices N --rounds R --out OUT [options]\n"
    "                     rehearse a release on a simulated fleet (docs/fleet.md)\n"
    "  --version          print tavi-sim's version\n"
    "\n"
    "Each command takes --help. docs/simulator.md describes devices, sim.conf and events.log.\n";

TEST_F(SimCli, EveryCommandHasHelp) {
  for (const auto& [cmd, text] : kHelp) {
    Cli c = sim({cmd, "--help"});
    EXPECT_EQ(c.status, 0) << cmd;
    std::string out = c.out;
    const std::string from = "else the installed one, ", to = " from tavi-sim's directory";
    size_t at = out.find(from);
    if (at != std::string::npos && out.find(to, at) != std::string::npos)
      out.replace(at + from.size(), out.find(to, at) - at - from.size(), "<installed ota>");
    EXPECT_EQ(out, text) << cmd;
    EXPECT_EQ(c.err, "") << cmd;
  }
  Cli c = sim({"--help"});
  EXPECT_EQ(c.status, 0);
  EXPECT_EQ(c.out, kMainUsage);
  c = sim({"frobnicate"});
  EXPECT_EQ(c.status, 2);
  EXPECT_EQ(c.out, "");
  EXPECT_EQ(c.err, std::string("tavi-sim: unknown command frobnicate\n") + kMainUsage);
  c = sim({"run", base_ + "/missing", "--", "settings"});
  EXPECT_EQ(c.status, 255);
  EXPECT_EQ(c.err, base_ + "/missing is not a device directory: " + base_ + "/missing/root is missing\n");
}

}  // namespace
}  // namespace tavisim
