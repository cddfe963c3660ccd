// `ota apply`: download with resume, length and hash checks, space checks, installation
// through /bin/tpk, the installed version and the state record.
#include <sys/stat.h>

#include "tavi_abi.h"
#include "update_source.h"

using namespace e2e;
using tavisim::FetchFaultKind;
using tavisim::RunResult;
using Words = std::vector<std::string>;

class ApplyTest : public SourceTest {
 protected:
  std::string state() { return device().read_file("/system/ota.stand").value_or(""); }
  std::string phase() {
    std::string s = state();
    size_t at = s.find("phase=");
    return at == std::string::npos ? "" : s.substr(at + 6, s.find('\n', at) - at - 6);
  }
  // Publishes version 5 with the given packages of the given sizes, all for this machine.
  void offer(const std::vector<std::pair<std::string, size_t>>& packages, std::vector<std::string> extra = {}) {
    std::vector<std::string> options = {"--version", "5"};
    char seed = 'a';
    for (const auto& [name, size] : packages) {
      options.push_back("--package");
      options.push_back(name + ":word:" + package_file(name + ".tpk", size, seed++) + ":tavi-x86_64");
    }
    options.insert(options.end(), extra.begin(), extra.end());
    publish_catalog(options);
  }
  std::string served(const std::string& file) { return read_all(source_ + "/" + file); }
  // What apply prints before its space check, for version 5 over version `here`.
  static std::string head(uint64_t here) {
    return std::string("ota: source ") + kSourceUrl + "\nota: version here " + std::to_string(here) +
           "\nota: version there 5\n";
  }
  // The space check for packages of these sizes to install, with `space` bytes free.
  static std::string space_lines(const std::vector<uint64_t>& sizes, uint64_t space = 1000000ull * 4096) {
    uint64_t sum = 0, max = 0;
    for (uint64_t s : sizes) {
      sum += s;
      max = std::max(max, s);
    }
    return "ota: space " + std::to_string(space) + "\nota: needed " + std::to_string(max + sum + 524288 + sum / 8) +
           "\n";
  }
  static constexpr const char* kReady = "ota: READY FOR RESTART -- it will NOT\n     restart by itself. `reboot`.\n";

  void set_free_bytes(uint64_t bytes) {
    device().config().free_blocks = bytes;
    device().config().block_size = 1;
    device().save_config();
  }
};

TEST_F(ApplyTest, InstallsEveryPackageAndWaitsForTheRestart) {
  device().write_file("/system/FASSUNG", "00000004\n");
  offer({{"core", 3000}, {"lib", 1000}});
  RunResult r = device().run({"apply"});
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  uint64_t space = 1000000ull * 4096;
  uint64_t needed = 3000 + 4000 + 524288 + 4000 / 8;
  EXPECT_EQ(r.out, std::string("ota: source ") + kSourceUrl +
                       "\nota: version here 4\nota: version there 5\n"
                       "ota: space " + std::to_string(space) + "\nota: needed " + std::to_string(needed) +
                       "\nota: hash ok core.tpk\nota: hash ok lib.tpk\n"
                       "ota: applying with tpk core\nota: applying with tpk lib\n"
                       "ota: READY FOR RESTART -- it will NOT\n     restart by itself. `reboot`.\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000005\n");
  EXPECT_EQ(phase(), "bereit");
  EXPECT_EQ(state(), "dort=5\nhier=5\nzeit=2026-02-03 09:05\nphase=bereit\n");
  // Installed files leave the work directory; the installer's index stays.
  EXPECT_FALSE(device().exists("/tmp/ota/core.tpk"));
  EXPECT_FALSE(device().exists("/tmp/ota/core.tpk.sig"));
  EXPECT_TRUE(device().exists("/tmp/ota/INDEX"));

  std::string base = kSourceUrl;
  auto fetches = spawns_of(r.events, "/bin/fetch");
  std::vector<Words> expected_fetches = {
      {"/bin/fetch", "-o", "/tmp/ota/VERZEICHNIS", base + "/VERZEICHNIS"},
      {"/bin/fetch", "-o", "/tmp/ota/VERZEICHNIS.sig", base + "/VERZEICHNIS.sig"},
      {"/bin/fetch", "-o", "/tmp/ota/INDEX", base + "/INDEX"},
      {"/bin/fetch", "-o", "/tmp/ota/INDEX.sig", base + "/INDEX.sig"},
      {"/bin/fetch", "-o", "/tmp/ota/core.tpk", base + "/core.tpk"},
      {"/bin/fetch", "-o", "/tmp/ota/core.tpk.sig", base + "/core.tpk.sig"},
      {"/bin/fetch", "-o", "/tmp/ota/lib.tpk", base + "/lib.tpk"},
      {"/bin/fetch", "-o", "/tmp/ota/lib.tpk.sig", base + "/lib.tpk.sig"},
      {"/bin/fetch", "-o", "/tmp/ota/INDEX", base + "/INDEX"},
      {"/bin/fetch", "-o", "/tmp/ota/INDEX.sig", base + "/INDEX.sig"},
  };
  EXPECT_EQ(fetches, expected_fetches);
  std::vector<Words> expected_tpk = {
      {"/bin/tpk", "catalog", "/tmp/ota", "/tmp/ota/CATALOG"},
      {"/bin/tpk", "update", "core", "--source", "/tmp/ota"},
      {"/bin/tpk", "update", "lib", "--source", "/tmp/ota"},
  };
  EXPECT_EQ(spawns_of(r.events, "/bin/tpk"), expected_tpk);
  // The installer model opened a trial for the new generation.
  EXPECT_EQ(device().read_file("/system/ERPROBUNG").value_or(""), "gen=00000001 vor=00000000 v=00 ok=0\n");
}

TEST_F(ApplyTest, ACompleteCorrectFileIsUsedWithoutAFetch) {
  offer({{"core", 2000}});
  device().make_dir("/tmp/ota");
  device().write_file("/tmp/ota/core.tpk", served("core.tpk"));
  RunResult r = device().run({"apply"});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const Words& w : spawns_of(r.events, "/bin/fetch")) EXPECT_NE(w[2], "/tmp/ota/core.tpk");
}

TEST_F(ApplyTest, APartialFileIsResumed) {
  offer({{"core", 1000}});
  device().make_dir("/tmp/ota");
  device().write_file("/tmp/ota/core.tpk", served("core.tpk").substr(0, 400));
  RunResult r = device().run({"apply"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, head(0) + space_lines({1000}) +
                       "ota: partial file, resuming at 400\nota: hash ok core.tpk\nota: applying with tpk core\n" +
                       kReady);
  auto fetches = spawns_of(r.events, "/bin/fetch");
  EXPECT_NE(std::find(fetches.begin(), fetches.end(),
                      Words{"/bin/fetch", "-o", "/tmp/ota/core.tpk", "-b", "400", std::string(kSourceUrl) + "/core.tpk"}),
            fetches.end());
}

TEST_F(ApplyTest, ADownloadCutShortIsResumedWhereItStopped) {
  offer({{"core", 5000}});
  device().add_fetch_fault("core.tpk", FetchFaultKind::stop, 1234, 1);
  RunResult r = device().run({"apply"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, head(0) + space_lines({5000}) +
                       "ota: partial file, resuming at 1234\nota: hash ok core.tpk\nota: applying with tpk core\n" +
                       kReady);
}

TEST_F(ApplyTest, AFileLargerThanAnnouncedIsFetchedAgainFromTheStart) {
  offer({{"core", 1000}});
  device().make_dir("/tmp/ota");
  device().write_file("/tmp/ota/core.tpk", std::string(1200, 'x'));
  RunResult r = device().run({"apply"});
  ASSERT_EQ(r.status, 0) << r.err;
  // No resume: the file is fetched whole again.
  EXPECT_EQ(r.out, head(0) + space_lines({1000}) + "ota: hash ok core.tpk\nota: applying with tpk core\n" + kReady);
  auto fetches = spawns_of(r.events, "/bin/fetch");
  EXPECT_NE(std::find(fetches.begin(), fetches.end(),
                      Words{"/bin/fetch", "-o", "/tmp/ota/core.tpk", std::string(kSourceUrl) + "/core.tpk"}),
            fetches.end());
}

TEST_F(ApplyTest, AHashMismatchAfterThreeFetchesIsRejected) {
  device().write_file("/system/FASSUNG", "00000004\n");
  offer({{"core", 1000}});
  device().add_fetch_fault("core.tpk", FetchFaultKind::corrupt, 10, 0);
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: HASH MISMATCH, REJECTED: core.tpk\n");
  int core_fetches = 0;
  for (const Words& w : spawns_of(r.events, "/bin/fetch")) core_fetches += w[2] == "/tmp/ota/core.tpk";
  EXPECT_EQ(core_fetches, 3);
  EXPECT_FALSE(device().exists("/tmp/ota/core.tpk"));
  EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000004\n");
  EXPECT_EQ(phase(), "fehler");
}

TEST_F(ApplyTest, AFileThatNeverArrivesIsAWrongLength) {
  offer({{"core", 1000}});
  device().add_fetch_fault("core.tpk", FetchFaultKind::fail, 0, 100);
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: wrong length, REJECTED: core.tpk\n");
  EXPECT_TRUE(spawns_of(r.events, "/bin/tpk").size() == 1u);  // only the catalog
}

TEST_F(ApplyTest, ALengthFieldMissingOrZeroIsRejected) {
  const TestKey k = TestKey::from_seed(31);
  device().write_file("/system/schluessel.pub", k.pub_bytes());
  for (const char* length : {"", "0", "abc"}) {
    serve_catalog_text("OTA2\nfassung\t5\npaket\tcore\tw\t" + std::string(64, 'a') + "\t" + length +
                           "\tcore.tpk\ttavi-x86_64\n",
                       k);
    RunResult r = device().run({"apply"});
    EXPECT_EQ(r.status, 1) << length;
    EXPECT_EQ(r.err, "ota: wrong length, REJECTED: core.tpk\n") << length;
  }
}

TEST_F(ApplyTest, SpaceIsCheckedAtItsExactBoundary) {
  offer({{"big", 10000000}, {"small", 2000000}});
  set_free_bytes(24024287);
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, head(0) + "ota: space 24024287\nota: needed 24024288\nota: short by 1\n");
  EXPECT_EQ(r.err, "ota: NOT ENOUGH SPACE -- aborted, \n     nothing was written. \n");
  EXPECT_FALSE(device().exists("/tmp/ota/big.tpk"));
  set_free_bytes(24024288);
  r = device().run({"apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, head(0) + space_lines({10000000, 2000000}, 24024288) +
                       "ota: hash ok big.tpk\nota: hash ok small.tpk\n"
                       "ota: applying with tpk big\nota: applying with tpk small\n" +
                       kReady);
}

TEST_F(ApplyTest, PackagesAlreadyCurrentAreSkipped) {
  offer({{"core", 1000}, {"lib", 1000}});
  device().write_file("/system/tpk/installed", "core\t5\n");
  RunResult r = device().run({"apply"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, head(0) + "ota: packages already current: 1\n" + space_lines({1000}) +
                       "ota: hash ok lib.tpk\nota: applying with tpk lib\n" + kReady);
  EXPECT_EQ(spawns_of(r.events, "/bin/tpk").size(), 2u);  // catalog and one update
}

TEST_F(ApplyTest, EveryPackageCurrentOnlyMovesTheVersion) {
  device().write_file("/system/FASSUNG", "00000004\n");
  offer({{"core", 1000}});
  device().write_file("/system/tpk/installed", "core\t5\n");
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, head(4) + "ota: packages already current: 1\nota: nothing to install -- every package is current\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000005\n");
  EXPECT_EQ(phase(), "ruhe");
}

TEST_F(ApplyTest, OtherPlatformsAreSkippedAndCounted) {
  std::string core = package_file("core.tpk", 500, 'c');
  std::string arm = package_file("arm.tpk", 500, 'd');
  std::string bare = package_file("bare.tpk", 500, 'e');
  publish_catalog({"--version", "5", "--package", "core:w:" + core + ":tavi-any", "--package", "arm:w:" + arm + ":arm",
                   "--package", "bare:w:" + bare});
  RunResult r = device().run({"apply"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, head(0) + "ota: not for this machine, skipped: 2\n" + space_lines({500}) +
                       "ota: hash ok core.tpk\nota: applying with tpk core\n" + kReady);
}

TEST_F(ApplyTest, AnInstallerFailureStopsAtThatPackage) {
  device().write_file("/system/FASSUNG", "00000004\n");
  offer({{"core", 1000}, {"lib", 1000}});
  device().config().tpk_fail["update:lib"] = 7;
  device().save_config();
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, head(4) + space_lines({1000, 1000}) +
                       "ota: hash ok core.tpk\nota: hash ok lib.tpk\nota: applying with tpk core\n"
                       "ota: applying with tpk lib\nota: tpk did not install, code 7\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(device().read_file("/system/tpk/installed").value_or(""), "core\t5\n");
  EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000004\n");
  EXPECT_EQ(phase(), "fehler");
  // The version is offered again, and the next apply installs what is missing.
  device().config().tpk_fail.clear();
  device().save_config();
  r = device().run({"search"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, head(4) + "ota: NEW VERSION available\nota: platform tavi-x86_64\n"
                             "ota: package core word tavi-x86_64\nota: package lib word tavi-x86_64\n");
  // The package downloaded before stays in the work directory and is used as it is.
  r = device().run({"apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, head(4) + "ota: packages already current: 1\n" + space_lines({1000}) +
                       "ota: hash ok lib.tpk\nota: applying with tpk lib\n" + kReady);
}

// An INDEX changed on its way from the source (here: one package's version made
// current). The installer believes no word of an index its signature does not cover: it
// lists nothing as current and installs nothing, so the version stays where it was.
TEST_F(ApplyTest, AnIndexChangedOnTheWayInstallsNothingAndKeepsTheVersion) {
  device().write_file("/system/FASSUNG", "00000004\n");
  offer({{"core", 1000}});
  device().write_file("/system/tpk/installed", "core\t4\n");
  std::string index = served("INDEX");
  size_t at = index.find("core\t5\t");
  ASSERT_NE(at, std::string::npos) << index;
  index.replace(at, 7, "core\t4\t");
  write_all(source_ + "/INDEX", index);
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.status, 1);
  // Without the installer's catalog every package counts as not current.
  EXPECT_EQ(r.out, head(4) + space_lines({1000}) +
                       "ota: hash ok core.tpk\nota: applying with tpk core\nota: tpk did not install, code 5\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000004\n");
  EXPECT_EQ(device().read_file("/system/tpk/installed").value_or(""), "core\t4\n");
  EXPECT_EQ(phase(), "fehler");
  auto refused = tavisim::events_of(r.events, "tpk");
  ASSERT_EQ(refused.size(), 2u);  // the catalog, then the update
  EXPECT_EQ(refused[0].fields[0], "index-refused");
}

// The trusting installer model (sim.conf "tpk-index trusted") believes the changed index:
// every package looks current and the device records the new version with nothing
// installed. The signed model exists to rule that out.
TEST_F(ApplyTest, TheTrustingInstallerModelBelievesAChangedIndex) {
  device().write_file("/system/FASSUNG", "00000004\n");
  offer({{"core", 1000}});
  device().write_file("/system/tpk/installed", "core\t4\n");
  std::string index = served("INDEX");
  index.replace(index.find("core\t5\t"), 7, "core\t4\t");
  write_all(source_ + "/INDEX", index);
  device().config().tpk_index_signed = false;
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, head(4) + "ota: packages already current: 1\nota: nothing to install -- every package is current\n");
  EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000005\n");
  EXPECT_EQ(device().read_file("/system/tpk/installed").value_or(""), "core\t4\n");
}

TEST_F(ApplyTest, AnInstallerThatCannotBeStartedIsReportedAsCodeMinusOne) {
  device().write_file("/system/FASSUNG", "00000004\n");
  offer({{"core", 1000}});
  // The first start of /bin/tpk reads the installer catalog; the second would install.
  device().add_call_fault({.number = TAVI_SPAWN, .error = -2, .nth = 2, .path = "/bin/tpk"});
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, head(4) + space_lines({1000}) +
                       "ota: hash ok core.tpk\nota: applying with tpk core\nota: tpk did not install, code -1\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000004\n");
}

TEST_F(ApplyTest, ThePhaseFollowsSearchApplyAndAFailedSearch) {
  offer({{"core", 1000}});
  device().run({"search"});
  EXPECT_EQ(phase(), "verfuegbar");
  device().run({"apply"});
  EXPECT_EQ(phase(), "bereit");
  device().run({"search"});
  EXPECT_EQ(phase(), "bereit");  // up to date, the restart still pending
  std::filesystem::remove(source_ + "/VERZEICHNIS");
  device().run({"search"});
  EXPECT_EQ(phase(), "fehler");
}

TEST_F(ApplyTest, AFailingSignatureFetchNamesTheFile) {
  offer({{"core", 1000}});
  device().add_fetch_fault("core.tpk.sig", FetchFaultKind::fail, 0, 100);
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: cannot fetch: core.tpk.sig\n");
}

TEST_F(ApplyTest, TheSecondSpaceCheckCountsTheDownloadedFilesAtItsExactBoundary) {
  // The free space is what a disk of fixed capacity has left beside the device's files,
  // so the downloads themselves use it up between the two checks.
  offer({{"core", 600000}});
  uint64_t sum = 600000, max = 600000;
  uint64_t needed = max + sum + 524288 + sum / 8;
  // The simulated disk counts the blocks a file takes on the host's file system: what the
  // package and its signature take is measured on files of the same sizes beside it.
  auto allocated = [&](size_t size) {
    std::string probe_file = scratch("alloc") + "/f" + std::to_string(size);
    write_all(probe_file, std::string(size, 'a'));
    struct stat st;
    stat(probe_file.c_str(), &st);
    return static_cast<uint64_t>(st.st_blocks) * 512;
  };
  uint64_t growth = allocated(600000) + allocated(64);
  device().config().capacity_bytes = 1000000000000ull;
  device().config().block_size = 1;
  device().save_config();
  // A first run that stops after the first check tells how much the device's files use.
  device().add_fetch_fault("core.tpk", FetchFaultKind::fail, 0, 3);
  RunResult probe = device().run({"apply"});
  size_t at = probe.out.find("ota: space ");
  ASSERT_NE(at, std::string::npos) << probe.out;
  uint64_t used = 1000000000000ull - std::stoull(probe.out.substr(at + 11));

  // The second check asks for max + 524288 + sum / 8 once the files (the package and its
  // signature) are on disk, that is for needed - sum + what the files took.
  device().config().capacity_bytes = used + needed - sum + growth - 1;
  device().save_config();
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.status, 1);
  // The second check prints no figures of its own.
  EXPECT_EQ(r.out, head(0) + space_lines({sum}, needed - sum + growth - 1) + "ota: hash ok core.tpk\n");
  EXPECT_EQ(r.err, "ota: NOT ENOUGH SPACE -- aborted, \n     nothing was written. \n");
  EXPECT_TRUE(spawns_of(r.events, "/bin/tpk").size() == 1u);  // the catalog only, no update

  device().remove("/tmp/ota/core.tpk");
  device().remove("/tmp/ota/core.tpk.sig");
  device().config().capacity_bytes = used + needed - sum + growth;
  device().save_config();
  r = device().run({"apply"});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
