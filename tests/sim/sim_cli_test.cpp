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
  EXPECT_NE(again.status, 0);
  EXPECT_NE(again.err.find("already holds a device"), std::string::npos) << again.err;
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
  EXPECT_NE(c.out.find("limine.conf\n"), std::string::npos);
  EXPECT_NE(c.out.find("tavi.mb\n"), std::string::npos);
  c = sim({"esp", dev_, "--disk", "sda1", "cat", "limine.conf"});
  EXPECT_EQ(c.out, default_limine_conf());
  c = sim({"esp", dev_, "cat", "nope"});
  EXPECT_EQ(c.status, 1);
  EXPECT_NE(c.err.find("nope"), std::string::npos);
  c = sim({"esp", dev_, "check"});
  EXPECT_EQ(c.status, 0);
  c = sim({"esp", dev_, "--disk", "nvme01", "ls"});
  EXPECT_NE(c.status, 0);
  EXPECT_NE(c.err.find("nvme01.img"), std::string::npos) << c.err;
}

TEST_F(SimCli, SetAddAndUnsetEditSimConfAndRefuseBadValues) {
  init();
  EXPECT_EQ(sim({"set", dev_, "free-blocks", "42"}).status, 0);
  EXPECT_EQ(sim({"add", dev_, "task", "3", "desktop", "20"}).status, 0);
  EXPECT_EQ(sim({"add", dev_, "task", "4", "glogin", "25"}).status, 0);
  Config c = parse_config(read_all(dev_ + "/sim.conf"));
  EXPECT_EQ(c.free_blocks, 42u);
  EXPECT_EQ(c.tasks.size(), 2u);
  Cli bad = sim({"set", dev_, "free-blocks", "many"});
  EXPECT_NE(bad.status, 0);
  EXPECT_NE(bad.err.find("many"), std::string::npos) << bad.err;
  EXPECT_NE(bad.err.find("sim.conf"), std::string::npos) << bad.err;
  bad = sim({"set", dev_, "no-such-key", "1"});
  EXPECT_NE(bad.status, 0);
  EXPECT_NE(bad.err.find("no-such-key"), std::string::npos) << bad.err;
  EXPECT_EQ(parse_config(read_all(dev_ + "/sim.conf")).free_blocks, 42u);  // untouched by the refusals
  EXPECT_EQ(sim({"unset", dev_, "task"}).status, 0);
  EXPECT_TRUE(parse_config(read_all(dev_ + "/sim.conf")).tasks.empty());
  Cli conf = sim({"conf", dev_});
  EXPECT_NE(conf.out.find("free-blocks 42"), std::string::npos);
}

TEST_F(SimCli, BootStartsTheMachineAndRunsTheStartUpEntry) {
  init({"--esp", "sda1"});
  EXPECT_EQ(sim({"set", dev_, "start-entry", "settings"}).status, 0);
  Cli c = sim({"boot", dev_, "-v"});
  EXPECT_EQ(c.status, 0) << c.err;
  EXPECT_EQ(c.out.rfind("ota: settings (/etc/ota.conf)\n", 0), 0u) << c.out;
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

TEST_F(SimCli, EveryCommandHasHelp) {
  for (const char* cmd : {"init", "run", "boot", "firmware", "events", "esp", "conf", "set", "add", "unset", "clock"}) {
    Cli c = sim({cmd, "--help"});
    EXPECT_EQ(c.status, 0) << cmd;
    EXPECT_EQ(c.out.rfind(std::string("usage: tavi-sim ") + cmd, 0), 0u) << cmd << ": " << c.out;
  }
  Cli c = sim({"--help"});
  EXPECT_EQ(c.status, 0);
  EXPECT_NE(c.out.find("run DIR"), std::string::npos);
  c = sim({"frobnicate"});
  EXPECT_EQ(c.status, 2);
  c = sim({"run", base_ + "/missing", "--", "settings"});
  EXPECT_EQ(c.status, 255);
  EXPECT_NE(c.err.find(base_ + "/missing"), std::string::npos) << c.err;
}

}  // namespace
}  // namespace tavisim
