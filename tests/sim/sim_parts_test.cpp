// The simulator's pieces on their own: sim.conf, the URL mapping of the fetch model, the
// event log format, the kernel state file, and the FAT images with their write-back.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "config_text.h"
#include "esp_mount.h"
#include "host.h"
#include "kernel.h"
#include "tavisim/config.h"
#include "tavisim/esp.h"
#include "tavisim/events.h"

namespace tavisim {
namespace {

std::string scratch_dir() {
  std::string tmpl = std::filesystem::temp_directory_path().string() + "/tavisim-parts-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back(0);
  EXPECT_NE(mkdtemp(buf.data()), nullptr);
  return buf.data();
}

struct Scratch {
  std::string dir = scratch_dir();
  ~Scratch() { std::filesystem::remove_all(dir); }
};

// ---- sim.conf

TEST(SimConfig, DefaultsSurviveTheRoundTrip) {
  Config c;
  Config back = parse_config(format_config(c));
  EXPECT_EQ(back.clock_start, "2026-02-03 09:05:00");
  EXPECT_EQ(back.free_blocks, 1000000u);
  EXPECT_EQ(back.block_size, 4096u);
  EXPECT_EQ(back.first_ota_slot, 1);
  EXPECT_EQ(format_config(back), format_config(c));
}

TEST(SimConfig, EveryKeyRoundTrips) {
  const char* text =
      "clock 2030-12-31 23:59:00\n"
      "free-blocks 77\n"
      "block-size 512\n"
      "disk-capacity 1048576\n"
      "repo http://u.example/aktuell /srv/repo with blank\n"
      "repo http://u.example /srv/other\n"
      "fetch-mode curl\n"
      "first-ota-slot 9\n"
      "task 3 desktop 20 - pid=4242\n"
      "task 4 glogin 1.5 90\n"
      "grow-state 2\n"
      "grow-steps 0 50 120 990\n"
      "grow-fail 3 7\n"
      "grow-blocks 10 20 30 40\n"
      "program /bin/tpk /usr/local/bin/fake tpk\n"
      "fetch-fault VERZEICHNIS fail 2\n"
      "fetch-fault pkg.tpk stop 400\n"
      "fetch-fault pkg.tpk corrupt 17 0\n"
      "fetch-fault pkg.tpk length -10 2\n"
      "fetch-fault INDEX hold\n"
      "call-fault 82 EIO 2 every path=/etc/ota.conf.nw\n"
      "cut 12 synced any\n"
      "tpk-fail update:beta 7\n"
      "tpk-fail trial 3\n"
      "tpk-catalog /srv/catalog.txt\n"
      "sntp-fail 1\n"
      "rootsctl-fail 4\n";
  Config c = parse_config(text);
  EXPECT_EQ(c.clock_start, "2030-12-31 23:59:00");
  EXPECT_EQ(c.free_blocks, 77u);
  EXPECT_EQ(c.capacity_bytes, 1048576u);
  ASSERT_EQ(c.repos.size(), 2u);
  EXPECT_EQ(c.repos[0].dir, "/srv/repo with blank");
  EXPECT_TRUE(c.fetch_curl);
  EXPECT_EQ(c.first_ota_slot, 9);
  ASSERT_EQ(c.tasks.size(), 2u);
  EXPECT_EQ(c.tasks[0].effective_pid(), 4242);
  EXPECT_EQ(c.tasks[0].end_ns, -1);
  EXPECT_EQ(c.tasks[1].appear_ns, 1500000000);
  EXPECT_EQ(c.tasks[1].end_ns, 90000000000);
  EXPECT_EQ(c.tasks[1].effective_pid(), 5000004);
  EXPECT_EQ(c.grow.steps, (std::vector<int64_t>{0, 50, 120, 990}));
  EXPECT_EQ(c.grow.fail_step, 3);
  EXPECT_EQ(c.grow.fail_code, 7);
  EXPECT_EQ(c.programs.at("/bin/tpk"), "/usr/local/bin/fake tpk");
  ASSERT_EQ(c.fetch_faults.size(), 5u);
  EXPECT_EQ(c.fetch_faults[0].times, 2);
  EXPECT_EQ(c.fetch_faults[1].times, 1);  // a stop happens once unless told otherwise
  EXPECT_EQ(c.fetch_faults[2].times, 0);
  EXPECT_EQ(c.fetch_faults[3].arg, -10);
  EXPECT_EQ(c.fetch_faults[4].kind, FetchFaultKind::hold);
  ASSERT_EQ(c.call_faults.size(), 1u);
  EXPECT_EQ(c.call_faults[0].error, -5);
  EXPECT_TRUE(c.call_faults[0].every);
  EXPECT_EQ(c.call_faults[0].path, "/etc/ota.conf.nw");
  ASSERT_TRUE(c.cut.has_value());
  EXPECT_EQ(c.cut->at_call, 12u);
  EXPECT_EQ(c.cut->durability, Durability::synced);
  EXPECT_TRUE(c.cut->any_process);
  EXPECT_EQ(c.tpk_fail.at("update:beta"), 7);
  EXPECT_EQ(c.sntp_fail, 1);
  EXPECT_EQ(c.rootsctl_fail, 4);
  Config back = parse_config(format_config(c));
  EXPECT_EQ(format_config(back), format_config(c));
  // A cut that only the forked processes count (a background child) reads back as such.
  Config forked = parse_config("cut 40 all forked\n");
  ASSERT_TRUE(forked.cut.has_value());
  EXPECT_TRUE(forked.cut->forked_only);
  EXPECT_FALSE(forked.cut->any_process);
  EXPECT_EQ(format_config(forked), config_text_with("cut 40 all forked\n"));
}

TEST(SimConfig, ErrorsNameTheLineAndTheValue) {
  try {
    parse_config("clock 2026-02-03 09:05:00\nfree-blocks lots\n", "dev/sim.conf");
    FAIL() << "accepted a non-number";
  } catch (const SimError& e) {
    EXPECT_EQ(std::string(e.what()),
              "dev/sim.conf:2: free-blocks: not a number for free blocks: lots (line: free-blocks lots)");
  }
  EXPECT_THROW(parse_config("frobnicate 1\n"), SimError);
  EXPECT_THROW(parse_config("task 128 desktop 0\n"), SimError);
  EXPECT_THROW(parse_config("task 3 a-name-longer-than-16 0\n"), SimError);
  EXPECT_THROW(parse_config("task 3 a 0\ntask 3 b 0\n"), SimError);
  EXPECT_THROW(parse_config("fetch-fault X explode 1\n"), SimError);
  EXPECT_THROW(parse_config("fetch-fault X fail 0\n"), SimError);
  EXPECT_THROW(parse_config("call-fault 82 EWHAT 1\n"), SimError);
  EXPECT_THROW(parse_config("cut 0 all\n"), SimError);
  EXPECT_THROW(parse_config("cut 5 sometimes\n"), SimError);
  EXPECT_THROW(parse_config("clock tomorrow\n"), SimError);
  EXPECT_THROW(parse_config("grow-fail 2 1\n"), SimError);
  EXPECT_THROW(parse_config("tpk-fail install 3\n"), SimError);
  EXPECT_NO_THROW(parse_config("# a comment\n\n   \n"));
}

TEST(SimConfig, ErrorNumbersByNameOrNumber) {
  Config c = parse_config("call-fault 2 ENOSPC 1\ncall-fault 2 -13 1\ncall-fault 2 5 1\n");
  EXPECT_EQ(c.call_faults[0].error, -28);
  EXPECT_EQ(c.call_faults[1].error, -13);
  EXPECT_EQ(c.call_faults[2].error, -5);
}

TEST(SimConfig, DateTimeToEpoch) {
  int64_t e = 0;
  ASSERT_TRUE(parse_date_time("1970-01-01 00:00:00", e));
  EXPECT_EQ(e, 0);
  ASSERT_TRUE(parse_date_time("2026-02-03 09:05:00", e));
  EXPECT_EQ(e, 1770109500);
  ASSERT_TRUE(parse_date_time("2024-02-29 23:59:59", e));
  EXPECT_EQ(e, 1709251199);
  EXPECT_FALSE(parse_date_time("2026-13-01 00:00:00", e));
  EXPECT_FALSE(parse_date_time("yesterday", e));
}

// ---- URL mapping of the fetch model

TEST(SimFetchUrl, LongestPrefixWinsAndTheRestIsKeptAsItStands) {
  std::vector<Repo> repos = {{"http://u.example", "/srv/root"}, {"http://u.example/aktuell", "/srv/aktuell"}};
  EXPECT_EQ(map_url(repos, "http://u.example/aktuell/VERZEICHNIS"), "/srv/aktuell/VERZEICHNIS");
  // A source ending in "/" makes the device ask for a double slash; it is kept.
  EXPECT_EQ(map_url(repos, "http://u.example/aktuell//VERZEICHNIS"), "/srv/aktuell//VERZEICHNIS");
  EXPECT_EQ(map_url(repos, "http://u.example/aktuell/test/INDEX"), "/srv/aktuell/test/INDEX");
  EXPECT_EQ(map_url(repos, "http://u.example/other/x"), "/srv/root/other/x");
  EXPECT_EQ(map_url(repos, "http://elsewhere.example/x"), std::nullopt);
  EXPECT_EQ(map_url({}, "http://u.example/x"), std::nullopt);
}

TEST(SimFetchUrl, FileNameIsTheLastComponent) {
  EXPECT_EQ(url_file_name("http://u.example/aktuell/test/pkg-1.tpk"), "pkg-1.tpk");
  EXPECT_EQ(url_file_name("http://u.example/aktuell//VERZEICHNIS.sig"), "VERZEICHNIS.sig");
  EXPECT_EQ(url_file_name("VERZEICHNIS"), "VERZEICHNIS");
  EXPECT_EQ(url_file_name("http://u.example/dir/"), "");
}

// ---- events.log

TEST(SimEvents, FormatAndParseRoundTripWithEscapes) {
  Event e;
  e.ms = 3723456;
  e.kind = "spawn";
  e.pid = 4711;
  e.fields = {"exit=0", "/bin/fetch", "a\tb", "line\nbreak", "back\\slash", ""};
  std::string line = format_event(e);
  EXPECT_EQ(line, "3723.456\tspawn\t4711\texit=0\t/bin/fetch\ta\\tb\tline\\nbreak\tback\\\\slash\t");
  EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 0);
  auto back = parse_event(line);
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(back->ms, e.ms);
  EXPECT_EQ(back->kind, e.kind);
  EXPECT_EQ(back->pid, e.pid);
  EXPECT_EQ(back->fields, e.fields);
  EXPECT_EQ(back->value("exit"), "0");
  EXPECT_TRUE(back->has("/bin/fetch"));
}

TEST(SimEvents, ParsesALogAndSkipsBrokenLines) {
  std::string log = "0.000\tstart\t12\t/bin/ota\tsettings\n"
                    "not an event\n"
                    "2.500\tnotify\t12\tSystem update available: build 7\n"
                    "x.y\texit\t12\tstatus=0\n"
                    "2.500\texit\t12\tstatus=0\n";
  auto all = parse_events(log);
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[1].ms, 2500);
  EXPECT_EQ(all[1].fields[0], "System update available: build 7");
  EXPECT_EQ(events_of(all, "exit").size(), 1u);
  EXPECT_EQ(events_of(all, "exit")[0].value("status"), "0");
}

// ---- kernel.state

TEST(SimKernelState, RoundTrip) {
  KernelState s;
  s.clock_ns = 123456789012;
  s.boot_ns = 5;
  s.grow_steps_done = 3;
  s.grow_finished = true;
  s.killed_slots = {3, 40};
  s.counters["fetch-fault pkg\tx #0"] = 2;
  s.mounts["/sysesp"] = "sda1";
  s.next_spawn_id = 6000042;
  KernelState b = parse_kernel_state(format_kernel_state(s), "kernel.state");
  EXPECT_EQ(b.clock_ns, s.clock_ns);
  EXPECT_EQ(b.boot_ns, 5);
  EXPECT_EQ(b.grow_steps_done, 3);
  EXPECT_TRUE(b.grow_finished);
  EXPECT_EQ(b.killed_slots, s.killed_slots);
  EXPECT_EQ(b.counters, s.counters);
  EXPECT_EQ(b.mounts, s.mounts);
  EXPECT_EQ(b.next_spawn_id, 6000042);
  EXPECT_THROW(parse_kernel_state("clock-ns\tsoon\n", "kernel.state"), SimError);
}

// ---- FAT images

TEST(SimEsp, ImageRoundTripIsACleanFatFileSystem) {
  Scratch s;
  std::string img = s.dir + "/sda1.img";
  std::string big(100000, 'k');
  make_fat_image(img, {{"limine.conf", default_limine_conf()}, {"boot/tavi.mb", big}, {"EFI/BOOT/x.efi", "efi"}});
  EXPECT_TRUE(fat_valid(img));
  auto names = fat_list(img);
  EXPECT_NE(std::find(names.begin(), names.end(), "limine.conf"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "boot/"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "boot/tavi.mb"), names.end());
  EXPECT_EQ(fat_read(img, "limine.conf"), default_limine_conf());
  EXPECT_EQ(fat_read(img, "boot/tavi.mb"), big);
  EXPECT_EQ(fat_read(img, "missing.txt"), std::nullopt);
  fat_write(img, "new/dir/file.txt", "hello");
  EXPECT_EQ(fat_read(img, "new/dir/file.txt"), "hello");
  fat_write(img, "limine.conf", "short");
  EXPECT_EQ(fat_read(img, "limine.conf"), "short");
  fat_remove(img, "EFI/BOOT/x.efi");
  EXPECT_EQ(fat_read(img, "EFI/BOOT/x.efi"), std::nullopt);
  std::string report;
  EXPECT_EQ(fat_check(img, &report), 0) << report;
}

TEST(SimEsp, NotAFatImage) {
  Scratch s;
  std::string img = s.dir + "/junk.img";
  std::ofstream(img) << std::string(65536, '\x17');
  EXPECT_FALSE(fat_valid(img));
  EXPECT_FALSE(fat_valid(s.dir + "/absent.img"));
  FatMount m;
  std::filesystem::create_directories(s.dir + "/mnt");
  EXPECT_EQ(m.mount(img, s.dir + "/mnt"), -EINVAL);
}

TEST(SimEsp, MountCopiesOutAndWriteBackCarriesEveryKindOfChange) {
  Scratch s;
  std::string img = s.dir + "/sda1.img";
  make_fat_image(img, {{"limine.conf", "menu"}, {"tavi.mb", "A"}, {"old/gone.txt", "x"}, {"keep/k.txt", "k"}});
  std::string mnt = s.dir + "/mnt";
  std::filesystem::create_directories(mnt);
  FatMount m;
  ASSERT_EQ(m.mount(img, mnt), 0);
  EXPECT_EQ(read_host_file(mnt + "/limine.conf"), "menu");
  EXPECT_EQ(read_host_file(mnt + "/old/gone.txt"), "x");

  write_host_file(mnt + "/limine.conf", "menu, rewritten");  // changed
  write_host_file(mnt + "/tavi-b.mb", std::string(5000, 'B'));  // new
  std::filesystem::remove_all(mnt + "/old");                    // deleted directory
  std::filesystem::create_directories(mnt + "/boot/deep");      // new directories
  write_host_file(mnt + "/boot/deep/f", "f");
  std::string err;
  ASSERT_TRUE(m.write_back(&err)) << err;
  EXPECT_EQ(fat_read(img, "limine.conf"), "menu, rewritten");
  EXPECT_EQ(fat_read(img, "tavi-b.mb"), std::string(5000, 'B'));
  EXPECT_EQ(fat_read(img, "old/gone.txt"), std::nullopt);
  EXPECT_EQ(fat_read(img, "boot/deep/f"), "f");
  EXPECT_EQ(fat_read(img, "keep/k.txt"), "k");
  auto names = fat_list(img);
  EXPECT_EQ(std::find(names.begin(), names.end(), "old/"), names.end());

  // A file replaced by a directory of the same name, and a second write-back that has
  // nothing to do.
  std::filesystem::remove(mnt + "/tavi-b.mb");
  std::filesystem::create_directories(mnt + "/tavi-b.mb");
  ASSERT_TRUE(m.write_back(&err)) << err;
  ASSERT_TRUE(m.write_back(&err)) << err;
  names = fat_list(img);
  EXPECT_NE(std::find(names.begin(), names.end(), "tavi-b.mb/"), names.end());
  std::string report;
  EXPECT_EQ(fat_check(img, &report), 0) << report;
}

TEST(SimEsp, WriteBackIntoAFullImageReportsTheFailure) {
  Scratch s;
  std::string img = s.dir + "/tiny.img";
  make_fat_image(img, {{"limine.conf", "menu"}}, 256);
  std::string mnt = s.dir + "/mnt";
  std::filesystem::create_directories(mnt);
  FatMount m;
  ASSERT_EQ(m.mount(img, mnt), 0);
  write_host_file(mnt + "/huge.bin", std::string(400 * 1024, 'h'));
  std::string err;
  EXPECT_FALSE(m.write_back(&err));
  EXPECT_FALSE(err.empty());
  std::string report;
  EXPECT_EQ(fat_check(img, &report), 0) << report;
}

}  // namespace
}  // namespace tavisim
