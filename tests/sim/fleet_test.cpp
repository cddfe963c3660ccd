// tavi-sim fleet: a release published with ota-publish, rehearsed on small fleets of
// simulated devices over nginx and curl. The files must account for every device, the
// same seed must give the same files whatever the number of jobs, and shards merged must
// give what one run gives.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "files.h"
#include "run.h"

namespace {

namespace fs = std::filesystem;

using Cli = Ran;

std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> out;
  std::string cur;
  std::istringstream in(s);
  while (std::getline(in, cur, sep)) out.push_back(cur);
  return out;
}

bool on_path(const char* tool) {
  return system((std::string("command -v ") + tool + " >/dev/null 2>&1").c_str()) == 0;
}

constexpr uint64_t kVersion = 12;
constexpr uint64_t kBuild = 20260301;
constexpr uint64_t kMinFrom = 20260101;
constexpr size_t kCoreBytes = 40000;

const char* kFiles[] = {"devices.tsv", "summary.md", "requests.tsv", "rollout.tsv", "run.tsv", "rollout.png"};

// One line of devices.tsv, by column name.
using Row = std::map<std::string, std::string>;

class FleetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* tool : {"nginx", "curl", "gnuplot"}) {
      if (!on_path(tool) && !fs::exists(std::string("/usr/sbin/") + tool))
        GTEST_SKIP() << tool << " is not installed (scripts/setup.sh installs it)";
    }
    std::string tmpl = fs::temp_directory_path().string() + "/tavisim-fleet-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back(0);
    ASSERT_NE(mkdtemp(buf.data()), nullptr);
    base_ = buf.data();
    publish_release();
  }

  void TearDown() override {
    if (!base_.empty()) fs::remove_all(base_);
  }

  void publish(const std::vector<std::string>& args) {
    Cli c = run_program(OTA_PUBLISH, args);
    ASSERT_EQ(c.status, 0) << c.out << c.err;
  }

  // Package version 12 (core for this machine, fonts for any tavi, one for another
  // platform) and system build 20260301 that devices from build 20260101 on may take.
  void publish_release() {
    std::string f = base_ + "/files/";
    publish({"keygen", "--out", base_ + "/release"});
    publish({"keygen", "--out", base_ + "/spare"});
    write_all(f + "core-12.tpk", std::string(kCoreBytes, 'c'));
    write_all(f + "fonts-12.tpk", std::string(9000, 'f'));
    write_all(f + "rpi-12.tpk", std::string(5000, 'r'));
    publish({"catalog", "--key", base_ + "/release.key", "--out", base_ + "/pakete", "--version",
             std::to_string(kVersion), "--package", "core:12.0:" + f + "core-12.tpk:tavi-x86_64", "--package",
             "fonts:1.1:" + f + "fonts-12.tpk:tavi-any", "--package", "firmware-rpi:1.0:" + f + "rpi-12.tpk:tavi-arm64"});
    publish({"kernel", "--build", std::to_string(kBuild), "--commit", "5e1ea5e0c0ffee", "--size", "70000", "--out",
             f + "tavi.mb"});
    write_all(f + "motd", "Welcome to tavi 20260301\n");
    publish_system("system", f + "tavi.mb");
  }

  void publish_system(const std::string& name, const std::string& kernel) {
    publish({"system", "--key", base_ + "/release.key", "--out", base_ + "/" + name, "--build", std::to_string(kBuild),
             "--commit", "5e1ea5e0c0ffee", "--min-from", std::to_string(kMinFrom), "--kernel", kernel, "--file",
             "/etc/motd=" + base_ + "/files/motd"});
  }

  // tavi-sim fleet over the release, 20 devices for 3 rounds with faults unless the
  // extra words say otherwise (a later word of the same option wins).
  Cli fleet(const std::string& out, const std::vector<std::string>& extra = {}, const std::string& system = "system") {
    std::vector<std::string> args = {"fleet",         "--source",       base_ + "/pakete", "--system-source",
                                     base_ + "/" + system, "--trusted", base_ + "/release.pub", "--spare",
                                     base_ + "/spare.pub", "--out",     base_ + "/" + out, "--devices",
                                     "20",            "--rounds",       "3",               "--seed",
                                     "11",            "--power-cut",    "0.1",             "--fetch-fail",
                                     "0.1",           "--jobs",         "2"};
    args.insert(args.end(), extra.begin(), extra.end());
    return run_program(OTA_SIM, args);
  }

  std::string file(const std::string& out, const std::string& name) { return read_all(base_ + "/" + out + "/" + name); }

  std::vector<Row> devices(const std::string& out) {
    auto lines = split(file(out, "devices.tsv"), '\n');
    std::vector<Row> rows;
    if (lines.empty()) return rows;
    auto header = split(lines[0], '\t');
    for (size_t i = 1; i < lines.size(); i++) {
      auto f = split(lines[i], '\t');
      EXPECT_EQ(f.size(), header.size()) << lines[i];
      Row r;
      for (size_t k = 0; k < header.size() && k < f.size(); k++) r[header[k]] = f[k];
      rows.push_back(r);
    }
    return rows;
  }

  void expect_same_files(const std::string& a, const std::string& b) {
    for (const char* name : kFiles) {
      std::string x = file(a, name), y = file(b, name);
      EXPECT_FALSE(x.empty()) << a << "/" << name;
      EXPECT_TRUE(x == y) << name << " differs between " << a << " and " << b << "\n" << x << "\n---\n" << y;
    }
  }

  std::string base_;
};

TEST_F(FleetTest, TwentyDevicesThreeRoundsAccountForEveryDeviceInEveryFile) {
  Cli c = fleet("out");
  ASSERT_EQ(c.status, 0) << c.out << c.err;
  EXPECT_EQ(c.err, "") << "nothing but the progress line goes to standard error, and only on a terminal";

  EXPECT_EQ(split(file("out", "devices.tsv"), '\n')[0],
            "device\tversion\tkeygen\tbuild\tspare\tfree\ttrial\tauto\tend_version\tend_keygen\tend_build\tend_trial\t"
            "outcome\treason\tupdated_at\tboots\tcuts\tdrops\trollbacks\tdir\tsaid");
  std::vector<Row> rows = devices("out");
  ASSERT_EQ(rows.size(), 20u);
  std::map<std::string, int> outcomes;
  int searching = 0;
  std::set<std::string> versions = {"0", "10", "11", "12", "13"};
  std::set<std::string> builds = {"20260101", "20260100", "20260300", "20260301"};
  for (size_t i = 0; i < rows.size(); i++) {
    Row& r = rows[i];
    SCOPED_TRACE("device " + r["device"]);
    char index[32];
    snprintf(index, sizeof index, "%06zu", i);
    EXPECT_EQ(r["device"], index);
    // Starting states come from the default mix of this release.
    EXPECT_TRUE(versions.count(r["version"]));
    EXPECT_TRUE(builds.count(r["build"]));
    EXPECT_EQ(r["keygen"], "0");
    EXPECT_TRUE(r["auto"] == "ja" || r["auto"] == "nein");
    // Every device ends in its starting or in its release state, and can start.
    EXPECT_TRUE(r["end_version"] == r["version"] || r["end_version"] == "12");
    EXPECT_TRUE(r["end_build"] == r["build"] || r["end_build"] == std::to_string(kBuild));
    EXPECT_EQ(r["dir"], "-");
    outcomes[r["outcome"]]++;
    searching += r["auto"] == "ja";
    const std::string& o = r["outcome"];
    if (o == "updated" || o == "current") {
      EXPECT_EQ(r["end_version"], "12");
      EXPECT_EQ(r["end_build"], std::to_string(kBuild));
      EXPECT_EQ(r["end_trial"], "none");
      EXPECT_EQ(r["reason"], "-");
      EXPECT_NE(r["updated_at"], "-");
    } else {
      EXPECT_NE(r["reason"], "-");
    }
    if (o == "current") {
      EXPECT_TRUE(r["version"] == "12" && r["build"] == std::to_string(kBuild));
    }
    if (r["reason"] == "rollback-refused") {
      EXPECT_EQ(r["version"], "13");
    }
    if (r["reason"] == "system-too-old") {
      EXPECT_LT(std::stoull(r["build"]), kMinFrom);
    }
    if (r["reason"] == "automatic-search-off") {
      EXPECT_EQ(r["auto"], "nein");
    }
    if (r["reason"] == "no-space") {
      EXPECT_EQ(r["free"], "64");
    }
  }
  EXPECT_FALSE(fs::exists(base_ + "/out/devices") && !fs::is_empty(base_ + "/out/devices"))
      << "only devices that cannot start or end outside their states keep a directory";

  // summary.md counts each outcome as devices.tsv does.
  std::string summary = file("out", "summary.md");
  for (const char* o : {"updated", "current", "refused", "in-trial", "needs-person", "behind", "outside", "cannot-boot",
                        "error"})
    EXPECT_NE(summary.find(std::string("| ") + o + " | " + std::to_string(outcomes[o]) + " | "), std::string::npos)
        << o << "\n" << summary;

  // requests.tsv: what nginx served. Each searching device fetched the catalog; each
  // package request served the whole file, or the rest of it for a range request.
  std::map<std::string, std::vector<std::string>> served;
  auto lines = split(file("out", "requests.tsv"), '\n');
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "path\trequests\trange_requests\tfailed\tbytes");
  for (size_t i = 1; i < lines.size(); i++) {
    auto f = split(lines[i], '\t');
    ASSERT_EQ(f.size(), 5u) << lines[i];
    served[f[0]] = f;
  }
  ASSERT_TRUE(served.count("/aktuell/VERZEICHNIS")) << file("out", "requests.tsv");
  EXPECT_GE(std::stoi(served["/aktuell/VERZEICHNIS"][1]), searching);
  ASSERT_TRUE(served.count("/aktuell/core-12.tpk")) << file("out", "requests.tsv");
  uint64_t requests = std::stoull(served["/aktuell/core-12.tpk"][1]);
  uint64_t ranges = std::stoull(served["/aktuell/core-12.tpk"][2]);
  uint64_t bytes = std::stoull(served["/aktuell/core-12.tpk"][4]);
  EXPECT_GE(bytes, (requests - ranges) * kCoreBytes);
  EXPECT_LE(bytes, requests * kCoreBytes);
  EXPECT_FALSE(served.count("/aktuell/rpi-12.tpk")) << "no device fetches another platform's package";

  // rollout.tsv: every device is counted once per kind at the start and after each round.
  std::map<std::pair<std::string, std::string>, int> per_sample;
  for (auto& line : split(file("out", "rollout.tsv"), '\n')) {
    auto f = split(line, '\t');
    if (f.size() != 5 || f[0] == "round") continue;
    per_sample[{f[0], f[2]}] += std::stoi(f[4]);
  }
  EXPECT_EQ(per_sample.size(), 8u);
  for (auto& [key, n] : per_sample) EXPECT_EQ(n, 20) << "round " << key.first << " " << key.second;

  EXPECT_EQ(file("out", "rollout.png").substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
  std::string run = file("out", "run.tsv");
  for (const char* line : {"devices\t20\n", "rounds\t3\n", "seed\t11\n", "power-cut\t0.1\n", "fetch-fail\t0.1\n",
                           "package-version\t12\n", "system-build\t20260301\n"})
    EXPECT_NE(run.find(line), std::string::npos) << line << run;
}

TEST_F(FleetTest, TheSameSeedGivesTheSameFilesWhateverTheNumberOfJobs) {
  Cli one = fleet("one", {"--jobs", "1"});
  ASSERT_EQ(one.status, 0) << one.err;
  Cli three = fleet("three", {"--jobs", "3"});
  ASSERT_EQ(three.status, 0) << three.err;
  expect_same_files("one", "three");

  Cli other = fleet("other", {"--seed", "12"});
  ASSERT_EQ(other.status, 0) << other.err;
  EXPECT_NE(file("one", "devices.tsv"), file("other", "devices.tsv")) << "another seed draws another fleet";
}

TEST_F(FleetTest, TwoShardsMergedGiveWhatOneRunGives) {
  Cli whole = fleet("whole");
  ASSERT_EQ(whole.status, 0) << whole.err;
  for (const char* shard : {"0/2", "1/2"}) {
    Cli c = fleet(std::string("shard") + shard[0], {"--shard", shard, "--jobs", "1"});
    ASSERT_EQ(c.status, 0) << c.err;
  }
  for (auto& r : devices("shard1")) EXPECT_EQ(std::stoi(r["device"]) % 2, 1) << "shard 1/2 runs the odd devices";
  EXPECT_EQ(devices("shard0").size(), 10u);

  Cli missing = run_program(OTA_SIM, {"fleet", "merge", base_ + "/shard0", "--out", base_ + "/half"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "tavi-sim fleet: device 1 is in none of the shards given\n");

  Cli merge = run_program(OTA_SIM, {"fleet", "merge", base_ + "/shard1", base_ + "/shard0", "--out", base_ + "/merged"});
  ASSERT_EQ(merge.status, 0) << merge.out << merge.err;
  expect_same_files("whole", "merged");
}

// Devices in one state: packages current, one build behind, owners who restart and apply
// at once, no faults.
const char* kSystemMix =
    "version new 100\n"
    "build new-1 100\n"
    "trial none 100\n"
    "auto ja 100\n"
    "free 1000000 100\n"
    "restart 1\n"
    "system-apply 1\n";

TEST_F(FleetTest, AKernelThatDoesNotComeUpIsRolledBackOnEveryDeviceThatTriesIt) {
  publish({"kernel", "--build", std::to_string(kBuild), "--commit", "5e1ea5e0c0ffee", "--size", "70000", "--broken",
           "--out", base_ + "/files/broken.mb"});
  publish_system("broken", base_ + "/files/broken.mb");
  write_all(base_ + "/mix", kSystemMix);
  Cli c = fleet("out", {"--devices", "4", "--power-cut", "0", "--fetch-fail", "0", "--mix", base_ + "/mix"}, "broken");
  ASSERT_EQ(c.status, 0) << c.out << c.err;
  for (auto& r : devices("out")) {
    SCOPED_TRACE("device " + r["device"]);
    EXPECT_EQ(r["end_build"], std::to_string(kBuild - 1)) << "the device is back on its build";
    EXPECT_EQ(r["outcome"], "needs-person");
    EXPECT_EQ(r["reason"], "system-rolled-back");
    EXPECT_EQ(r["said"], "system: trial kernel was rolled back, update dropped");
    EXPECT_EQ(r["rollbacks"], "1");
    EXPECT_GE(std::stoi(r["boots"]), 2) << "the new kernel started, did not come up, and the old one came back";
  }
  EXPECT_NE(file("out", "summary.md").find("- System trials rolled back: 4, on 4 devices."), std::string::npos)
      << file("out", "summary.md");
}

TEST_F(FleetTest, AKernelImageThatCannotStartLeavesDevicesAtTheBootLoaderWithTheirDirectoriesKept) {
  // Bytes the boot loader accepts (a multiboot1 header asking for a framebuffer) but that
  // are no kernel the machine can run: the publisher takes it, every device that tries it
  // stands at the boot loader.
  std::string garbage(70000, 'g');
  const uint32_t header[3] = {0x1BADB002u, 0x4u, 0u - 0x1BADB002u - 0x4u};
  std::memcpy(garbage.data(), header, sizeof header);
  write_all(base_ + "/files/garbage.mb", garbage);
  publish_system("garbage", base_ + "/files/garbage.mb");
  write_all(base_ + "/mix", kSystemMix);
  Cli c = fleet("out", {"--devices", "3", "--power-cut", "0", "--fetch-fail", "0", "--mix", base_ + "/mix"}, "garbage");
  EXPECT_EQ(c.status, 3) << "some device cannot start: " << c.out << c.err;
  std::string summary = file("out", "summary.md");
  for (auto& r : devices("out")) {
    SCOPED_TRACE("device " + r["device"]);
    EXPECT_EQ(r["outcome"], "cannot-boot");
    EXPECT_EQ(r["reason"], "stands-at-boot-loader");
    EXPECT_EQ(r["dir"], "devices/" + r["device"]);
    EXPECT_TRUE(fs::exists(base_ + "/out/" + r["dir"] + "/root/system/SYSPENDING")) << "the directory is kept whole";
    EXPECT_TRUE(fs::exists(base_ + "/out/" + r["dir"] + "/disks/sda1.img"));
    EXPECT_NE(summary.find("| " + r["device"] + " | cannot-boot | devices/" + r["device"] + " | "), std::string::npos)
        << summary;
  }
}

TEST_F(FleetTest, AMixFileSetsTheStartingStatesAndDevicesWithoutAutomaticSearchFetchNothing) {
  write_all(base_ + "/mix", "# nobody searches\nversion new-1 100\nauto nein 100 # off\n");
  Cli c = fleet("out", {"--devices", "5", "--mix", base_ + "/mix"});
  ASSERT_EQ(c.status, 0) << c.err;
  for (auto& r : devices("out")) {
    EXPECT_EQ(r["version"], "11");
    EXPECT_EQ(r["end_version"], "11");
    EXPECT_EQ(r["outcome"], "needs-person");
    EXPECT_EQ(r["reason"], "automatic-search-off");
  }
  EXPECT_EQ(file("out", "requests.tsv"), "path\trequests\trange_requests\tfailed\tbytes\n");
  EXPECT_NE(file("out", "summary.md").find("version 11 (new-1) 100\n"), std::string::npos);

  write_all(base_ + "/bad", "version new-1 100\nbuild soon 5\n");
  Cli bad = fleet("bad", {"--mix", base_ + "/bad"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, "tavi-sim fleet: " + base_ +
                         "/bad:2: not a number or a value relative to the release: soon (line: build soon 5)\n");
}

}  // namespace
