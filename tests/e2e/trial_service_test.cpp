// `ota service [passes [system]]`: the switches that turn it off, the start delay, the
// pauses between passes and their back-off, the clock sync and the retry after it, the
// system searches, and that nothing is applied while a trial is open.
#include <sys/stat.h>

#include "tavisim/boot.h"
#include "trial_support.h"

using namespace e2e;
using tavisim::RunResult;
using Words = std::vector<std::string>;

namespace {

const std::string kCatalogUrl = std::string(kSourceUrl) + "/VERZEICHNIS";
const std::string kSystemBase = "http://updates.tavi.test/system";
const std::string kSystemUrl = kSystemBase + "/stable/VERZEICHNIS";
const std::string kSourceLine = std::string("ota: source ") + kSourceUrl + "\n";
constexpr const char* kCannotFetch = "ota: cannot fetch: VERZEICHNIS\n";

std::string interval_line(uint64_t seconds) { return "ota: service, interval " + std::to_string(seconds) + "\n"; }

std::string up_to_date(int version) {
  std::string v = std::to_string(version);
  return kSourceLine + "ota: version here " + v + "\nota: version there " + v + "\nota: up to date, nothing to do\n";
}

std::string repeat(const std::string& s, int n) {
  std::string out;
  for (int i = 0; i < n; i++) out += s;
  return out;
}

class ServiceTest : public SourceTest {
 protected:
  // The settings: the source, then the lines given.
  void conf(const std::string& extra) {
    device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\n" + extra);
  }

  // Version 2 offers one package of 1000 bytes for this machine.
  void publish_version_2() {
    publish_catalog({"--version", "2", "--package", "app:App:" + package_file("app-2.tpk", 1000) + ":tavi-x86_64"});
  }

  void publish_up_to_date(int version) {
    publish_catalog({"--version", std::to_string(version), "--package",
                     "app:App:" + package_file("app-" + std::to_string(version) + ".tpk", 100) + ":tavi-x86_64"});
    char installed[16];
    snprintf(installed, sizeof installed, "%08d\n", version);
    device().write_file("/system/FASSUNG", installed);
  }

  // A system source at the address the device derives from its package source.
  void publish_system(const std::vector<std::string>& options) {
    std::string dir = scratch("system");
    device().add_repo(kSystemBase, dir);
    std::string kernel = work_ + "/kernel.mb";
    write_all(kernel, tavisim::stand_in_kernel(10, "abcdef1"));
    std::vector<std::string> words = {"system", "--key", key("release") + ".key", "--out", dir + "/stable",
                                      "--commit", "abcdef1", "--kernel", kernel, "--force"};
    words.insert(words.end(), options.begin(), options.end());
    ToolResult r = publish(words);
    ASSERT_EQ(r.status, 0) << r.output;
  }

  RunResult run(const Words& words, double virtual_seconds = 100000) {
    RunResult r = device().run(words, bounded(virtual_seconds));
    EXPECT_TRUE(r.error.empty()) << r.error;
    return r;
  }

  // Seconds from the start to each fetch of the package catalog.
  std::vector<double> catalog_fetch_times(const RunResult& r) {
    return seconds_after_start(r.events, fetches_of(r.events, kCatalogUrl));
  }

  std::vector<double> system_fetch_times(const RunResult& r) {
    return seconds_after_start(r.events, fetches_of(r.events, kSystemUrl));
  }

  // A run that ended by itself with status 0 at second t.
  void expect_ended_at(const RunResult& r, double t) {
    EXPECT_TRUE(r.exited) << r.error;
    EXPECT_EQ(r.status, 0);
    EXPECT_FALSE(r.rebooted);
    EXPECT_EQ(seconds_after_start(r.events, exits_of(r.events, r.pid)), std::vector<double>{t});
  }

  void expect_off(const Words& words) {
    RunResult r = run(words);
    EXPECT_EQ(r.out, kServiceOff);
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(tavisim::events_of(r.events, "spawn").empty());
    expect_ended_at(r, 0);
  }
};

// ---------------------------------------------------------------------------------------
// Switched off

TEST_F(ServiceTest, AutoValuesOtherThanJaOrTrueSwitchItOff) {
  for (const char* value : {"nein", "false", "0", "yes", "JA", "True", "ja ", "truex", "jaja", " true"}) {
    SCOPED_TRACE(value);
    conf(std::string("auto=") + value + "\n");
    expect_off({"service"});
    expect_off({"service", "1"});
  }
}

TEST_F(ServiceTest, AnAutoValueWithTrailingBlanksIsNotTrue) {
  conf("auto=true" + std::string(20, ' ') + "\n");
  expect_off({"service"});
}

TEST_F(ServiceTest, AbstandZeroOrNoNumberSwitchesItOff) {
  for (const char* value : {"0", "abc", "-5", " 5", "00"}) {
    SCOPED_TRACE(value);
    conf(std::string("abstand=") + value + "\n");
    expect_off({"service"});
  }
}

TEST_F(ServiceTest, AbstandZeroWinsOverAutoJa) {
  conf("auto=ja\nabstand=0\n");
  expect_off({"service", "1"});
}

class ServiceOn : public ServiceTest, public ::testing::WithParamInterface<std::string> {};

// One pass against a source that cannot be reached: the service is on.
TEST_P(ServiceOn, TheseAutoLinesLeaveItOn) {
  conf(GetParam());
  RunResult r = run({"service", "1"});
  EXPECT_EQ(r.out, interval_line(3600) + kSourceLine);
  EXPECT_EQ(r.err, kCannotFetch);
  EXPECT_EQ(catalog_fetch_times(r), std::vector<double>{0});
  expect_ended_at(r, 0);
}

INSTANTIATE_TEST_SUITE_P(ServiceTest, ServiceOn,
                         ::testing::Values("", "auto=ja\n", "auto=true\n", "auto=\n", "auto=true\r\n",
                                           "xauto=nein\n", "auto =nein\n", "abstand=\n", "abstand=3600\n"));

TEST_F(ServiceTest, OnlyTheFirstAutoLineCounts) {
  conf("auto=ja\nauto=nein\n");
  RunResult r = run({"service", "1"});
  EXPECT_EQ(r.out, interval_line(3600) + kSourceLine);
  conf("auto=nein\nauto=ja\n");
  expect_off({"service", "1"});
}

// ---------------------------------------------------------------------------------------
// Passes, the start delay and system searches

TEST_F(ServiceTest, OnePassHasNoStartDelayAndNoSystemSearch) {
  publish_up_to_date(3);
  conf("start=500\n");
  RunResult r = run({"service", "1"});
  EXPECT_EQ(r.out, interval_line(3600) + up_to_date(3));
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(catalog_fetch_times(r), std::vector<double>{0});
  EXPECT_TRUE(system_fetch_times(r).empty());
  EXPECT_TRUE(spawns_of(r.events, "/bin/tpk").empty());
  expect_ended_at(r, 0);
  EXPECT_EQ(device().read_file("/system/ota.stand").value_or(""),
            "dort=3\nhier=3\nzeit=2026-02-03 09:05\nphase=ruhe\n");
}

TEST_F(ServiceTest, TwoPassesAreOneIntervalApart) {
  publish_up_to_date(3);
  conf("abstand=250\n");
  RunResult r = run({"service", "2"});
  EXPECT_EQ(r.out, interval_line(250) + up_to_date(3) + up_to_date(3));
  EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{0, 250}));
  EXPECT_TRUE(system_fetch_times(r).empty());
  expect_ended_at(r, 250);
}

TEST_F(ServiceTest, OnePassWithTheWordSystemSearchesASystemSourceThatIsNotThere) {
  publish_up_to_date(3);
  RunResult r = run({"service", "1", "system"});
  // The system source is derived from the package source; it is not served, so the
  // quiet check fails with the fetch line alone.
  EXPECT_EQ(r.out, interval_line(3600) + up_to_date(3));
  EXPECT_EQ(r.err, kCannotFetch);
  EXPECT_EQ(system_fetch_times(r), std::vector<double>{0});
  auto fetches = spawn_events(r.events, "/bin/fetch");
  ASSERT_EQ(fetches.size(), 3u);
  EXPECT_EQ(fetches[2].fields, (Words{"exit=1", "/bin/fetch", "-o", "/tmp/ota/VERZEICHNIS", kSystemUrl}));
  EXPECT_TRUE(tavisim::events_of(r.events, "notify").empty());
  EXPECT_FALSE(device().exists("/system/sys.stand"));
  expect_ended_at(r, 0);
}

TEST_F(ServiceTest, TheSystemWordIsCaseSensitive) {
  publish_up_to_date(3);
  RunResult r = run({"service", "1", "System"});
  EXPECT_TRUE(system_fetch_times(r).empty());
  EXPECT_EQ(r.err, "");
}

TEST_F(ServiceTest, ASurplusWordAfterSystemDoesNotMatter) {
  publish_up_to_date(3);
  RunResult r = run({"service", "1", "system", "extra"});
  EXPECT_EQ(system_fetch_times(r), std::vector<double>{0});
}

TEST_F(ServiceTest, AfterAFailedSystemSearchTheNextWaitsTheSystemInterval) {
  publish_up_to_date(3);
  conf("abstand=100\n");
  RunResult r = run({"service", "2", "system"});
  EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{0, 100}));
  // 21600 seconds to the next system search, of which one pause has passed.
  EXPECT_EQ(system_fetch_times(r), std::vector<double>{0});
  EXPECT_EQ(r.err, kCannotFetch);
}

TEST_F(ServiceTest, TwoPassesWithSystemSearchesWhenTheSystemIntervalHasRunOut) {
  publish_up_to_date(3);
  conf("abstand=100\nsysabstand=100\n");
  RunResult r = run({"service", "2", "system"});
  EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{0, 100}));
  EXPECT_EQ(system_fetch_times(r), (std::vector<double>{0, 100}));
  EXPECT_EQ(r.err, std::string(kCannotFetch) + kCannotFetch);
  expect_ended_at(r, 100);
}

TEST_F(ServiceTest, SystemSearchesFollowTheSystemIntervalAcrossPasses) {
  publish_up_to_date(3);
  // Seconds left to the system search: 250, 150, 50, 0 (never below 0), 250, ...
  conf("abstand=100\nsysabstand=250\n");
  RunResult r = run({"service", "7", "system"});
  EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{0, 100, 200, 300, 400, 500, 600}));
  EXPECT_EQ(system_fetch_times(r), (std::vector<double>{0, 300, 600}));
}

TEST_F(ServiceTest, SysabstandZeroSwitchesSystemSearchesOff) {
  publish_up_to_date(3);
  conf("abstand=100\nsysabstand=0\n");
  RunResult r = run({"service", "2", "system"});
  EXPECT_TRUE(system_fetch_times(r).empty());
  conf("abstand=100\nsysabstand=abc\n");
  r = run({"service", "2", "system"});
  EXPECT_TRUE(system_fetch_times(r).empty());
}

TEST_F(ServiceTest, AnUnlimitedServiceSearchesForSystemBuildsWithoutTheWord) {
  publish_up_to_date(3);
  conf("abstand=100\nsysabstand=200\nstart=0\n");
  RunResult r = run({"service"}, 450);
  EXPECT_EQ(r.limit, tavisim::Limit::virtual_time);
  EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{0, 100, 200, 300, 400}));
  EXPECT_EQ(system_fetch_times(r), (std::vector<double>{0, 200, 400}));
}

TEST_F(ServiceTest, ANewSystemBuildIsAnnouncedOnce) {
  publish_up_to_date(3);
  publish_system({"--build", "10"});
  conf("abstand=100\nsysabstand=100\n");
  RunResult r = run({"service", "2", "system"});
  EXPECT_EQ(r.out, interval_line(100) + up_to_date(3) + up_to_date(3));
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(system_fetch_times(r), (std::vector<double>{0, 100}));
  auto notices = tavisim::events_of(r.events, "notify");
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].fields, Words{"System update available: build 10"});
  EXPECT_EQ(device().read_file("/system/sys.notified").value_or(""), "00000010\n");
  EXPECT_EQ(device().read_file("/system/sys.stand").value_or(""),
            "here=0\nthere=10\ncommit=abcdef1\nphase=available\n");
}

TEST_F(ServiceTest, ASystemTooOldForTheUpdateIsAskedAgainNextPass) {
  publish_up_to_date(3);
  publish_system({"--build", "10", "--min-from", "5"});
  conf("abstand=100\n");
  RunResult r = run({"service", "2", "system"});
  std::string too_old = "ota: this system is too old for an incremental update (min_from): 5\n";
  EXPECT_EQ(r.out, interval_line(100) + up_to_date(3) + too_old + up_to_date(3) + too_old);
  EXPECT_EQ(system_fetch_times(r), (std::vector<double>{0, 100}));
  EXPECT_TRUE(tavisim::events_of(r.events, "notify").empty());
}

TEST_F(ServiceTest, NoSystemSearchWhileATrialIsOpen) {
  publish_up_to_date(3);
  publish_system({"--build", "10"});
  device().write_file(kRecordPath, trial_record(2, 1));
  RunResult r = run({"service", "1", "system"});
  EXPECT_TRUE(system_fetch_times(r).empty());
  EXPECT_TRUE(tavisim::events_of(r.events, "notify").empty());
}

TEST_F(ServiceTest, TheStartDelayIs180SecondsByDefault) {
  conf("abstand=100\nsysabstand=0\n");
  RunResult r = run({"service"}, 400);
  EXPECT_EQ(r.limit, tavisim::Limit::virtual_time);
  EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{180, 210, 270, 370}));
  EXPECT_EQ(r.out, interval_line(100) + repeat(kSourceLine, 4));
  EXPECT_EQ(r.err, repeat(kCannotFetch, 4));
}

TEST_F(ServiceTest, TheStartDelayComesFromStart) {
  conf("abstand=100\nsysabstand=0\nstart=7\n");
  RunResult r = run({"service"}, 200);
  EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{7, 37, 97, 197}));
  conf("abstand=100\nsysabstand=0\nstart=0\n");
  r = run({"service"}, 100);
  EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{0, 30, 90}));
  conf("abstand=100\nsysabstand=0\nstart=\n");
  r = run({"service"}, 200);
  EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{180}));
}

TEST_F(ServiceTest, ACountThatIsNoNumberRunsWithoutEndAfterTheDelay) {
  conf("abstand=100\nsysabstand=0\nstart=20\n");
  for (const char* count : {"abc", "0", "-1"}) {
    SCOPED_TRACE(count);
    RunResult r = run({"service", count}, 150);
    EXPECT_EQ(r.limit, tavisim::Limit::virtual_time);
    EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{20, 50, 110}));
  }
}

// ---------------------------------------------------------------------------------------
// Pauses between passes

TEST_F(ServiceTest, BackOffIsCappedByTheInterval) {
  conf("abstand=100\n");
  RunResult r = run({"service", "25"});
  std::vector<int64_t> expected = {30, 60};
  for (int i = 0; i < 18; i++) expected.push_back(100);
  // The 21st failed pass waits the interval and starts the back-off again.
  for (int64_t p : {100, 30, 60, 100}) expected.push_back(p);
  EXPECT_EQ(gaps_in_seconds(fetches_of(r.events, kCatalogUrl)), expected);
  EXPECT_EQ(r.out, interval_line(100) + repeat(kSourceLine, 25));
  EXPECT_EQ(r.err, repeat(kCannotFetch, 25));
  EXPECT_TRUE(spawns_of(r.events, "/bin/sntp").empty());
  // The last search came 2180 seconds (the pauses above) after the first.
  EXPECT_EQ(device().read_file("/system/ota.stand").value_or(""), "dort=0\nhier=0\nzeit=2026-02-03 09:41\nphase=fehler\n");
}

TEST_F(ServiceTest, BackOffDoublesToFourHundredEightyThenWaitsOneFullInterval) {
  RunResult r = run({"service", "27"});
  std::vector<int64_t> expected = {30, 60, 120, 240};
  for (int i = 0; i < 16; i++) expected.push_back(480);
  for (int64_t p : {3600, 30, 60, 120, 240, 480}) expected.push_back(p);
  EXPECT_EQ(gaps_in_seconds(fetches_of(r.events, kCatalogUrl)), expected);
  expect_ended_at(r, 8130 + 3600 + 930);
}

TEST_F(ServiceTest, AnUnlimitedServiceBacksOffTheSameWay) {
  conf("start=0\nsysabstand=0\n");
  RunResult r = run({"service"}, 12000);
  std::vector<int64_t> expected = {30, 60, 120, 240};
  for (int i = 0; i < 16; i++) expected.push_back(480);
  for (int64_t p : {3600, 30, 60, 120}) expected.push_back(p);
  EXPECT_EQ(gaps_in_seconds(fetches_of(r.events, kCatalogUrl)), expected);
  EXPECT_EQ(r.limit, tavisim::Limit::virtual_time);
}

TEST_F(ServiceTest, ASuccessfulCatalogLoadEndsTheBackOff) {
  publish_up_to_date(3);
  device().add_fetch_fault("VERZEICHNIS", tavisim::FetchFaultKind::fail, 0, 3);
  conf("abstand=1000\n");
  RunResult r = run({"service", "6"});
  // Three failed loads, then the catalog; "up to date" is no load failure.
  EXPECT_EQ(gaps_in_seconds(fetches_of(r.events, kCatalogUrl)), (std::vector<int64_t>{30, 60, 120, 1000, 1000}));
  EXPECT_EQ(r.out, interval_line(1000) + repeat(kSourceLine, 3) + repeat(up_to_date(3), 3));
  EXPECT_EQ(r.err, repeat(kCannotFetch, 3));
}

TEST_F(ServiceTest, AWrongSignatureBacksOffLikeAnUnreachableSource) {
  serve_catalog_text("OTA2\nfassung\t5\n", TestKey::from_seed(7));
  conf("abstand=1000\n");
  RunResult r = run({"service", "4"});
  EXPECT_EQ(gaps_in_seconds(fetches_of(r.events, kCatalogUrl)), (std::vector<int64_t>{30, 60, 120}));
  EXPECT_EQ(r.err, repeat("ota: SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED\n", 4));
}

TEST_F(ServiceTest, AMissingKeyBacksOffWithoutAFetch) {
  device().remove("/system/schluessel.pub");
  conf("abstand=1000\n");
  RunResult r = run({"service", "4"});
  EXPECT_TRUE(spawn_events(r.events, "/bin/fetch").empty());
  EXPECT_EQ(r.out, interval_line(1000));
  EXPECT_EQ(r.err, repeat("ota: no trusted key -- nothing is done\n", 4));
  expect_ended_at(r, 210);
}

// ---------------------------------------------------------------------------------------
// The clock

TEST_F(ServiceTest, AClockStateBeginningWithSMeansNoSync) {
  publish_up_to_date(3);
  device().write_file("/system/clock.stand", "Set\n");
  device().write_file("/etc/ntp.conf", "auto=true");
  RunResult r = run({"service", "1"});
  EXPECT_TRUE(spawns_of(r.events, "/bin/sntp").empty());
  EXPECT_EQ(r.out, interval_line(3600) + up_to_date(3));
}

TEST_F(ServiceTest, NtpConfAutoTrueSyncsTheClockBeforeTheSearch) {
  publish_up_to_date(3);
  device().write_file("/etc/ntp.conf", "auto=true");
  conf("abstand=100\n");
  RunResult r = run({"service", "2"});
  auto spawns = tavisim::events_of(r.events, "spawn");
  ASSERT_GE(spawns.size(), 2u);
  EXPECT_EQ(spawns[0].fields, (Words{"exit=0", "/bin/sntp"}));
  EXPECT_EQ(spawns[1].fields.back(), kCatalogUrl);
  // The sync wrote the clock state, so the second pass needs none.
  EXPECT_EQ(spawns_of(r.events, "/bin/sntp").size(), 1u);
  EXPECT_EQ(device().read_file("/system/clock.stand").value_or(""), "S\n");
  EXPECT_EQ(r.out, interval_line(100) + up_to_date(3) + up_to_date(3));
}

TEST_F(ServiceTest, AutoTrueIsFoundAnywhereInNtpConf) {
  publish_up_to_date(3);
  device().write_file("/etc/ntp.conf", "server pool\n#xauto=true\n");
  RunResult r = run({"service", "1"});
  EXPECT_EQ(spawns_of(r.events, "/bin/sntp").size(), 1u);
}

TEST_F(ServiceTest, AnEmptyClockStateFallsThroughToNtpConf) {
  publish_up_to_date(3);
  device().write_file("/system/clock.stand", "");
  device().write_file("/etc/ntp.conf", "auto=true\n");
  RunResult r = run({"service", "1"});
  EXPECT_EQ(spawns_of(r.events, "/bin/sntp").size(), 1u);
}

TEST_F(ServiceTest, BlanksAroundTheEqualsSignMeanNoSync) {
  publish_up_to_date(3);
  device().write_file("/etc/ntp.conf", "auto = true\n");
  RunResult r = run({"service", "1"});
  EXPECT_TRUE(spawns_of(r.events, "/bin/sntp").empty());
  device().write_file("/etc/ntp.conf", "auto=tru");
  r = run({"service", "1"});
  EXPECT_TRUE(spawns_of(r.events, "/bin/sntp").empty());
}

TEST_F(ServiceTest, AClockStateOtherThanSSyncsEveryPassWhileSntpFails) {
  publish_up_to_date(3);
  device().write_file("/system/clock.stand", "U\n");
  device().config().sntp_fail = 1;
  device().save_config();
  conf("abstand=100\n");
  RunResult r = run({"service", "2"});
  auto sntp = spawn_events(r.events, "/bin/sntp");
  ASSERT_EQ(sntp.size(), 2u);
  EXPECT_EQ(sntp[0].fields, (Words{"exit=1", "/bin/sntp"}));
  // A failed sync does not stop the search.
  EXPECT_EQ(r.out, interval_line(100) + up_to_date(3) + up_to_date(3));
  EXPECT_EQ(seconds_after_start(r.events, sntp), (std::vector<double>{0, 100}));
}

// ---------------------------------------------------------------------------------------
// A catalog that fails only because the clock is wrong: /bin/fetch is a script that fails
// and marks the clock unset while /system/clock.stand does not begin with "S", and
// serves the source otherwise.

class ClockRetryTest : public ServiceTest {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    std::string script = scratch("bin") + "/fetch";
    write_host(script,
               "#!/bin/sh\n"
               "out=; url=\n"
               "while [ $# -gt 0 ]; do\n"
               "  case \"$1\" in\n"
               "    -o) out=$2; shift 2 ;;\n"
               "    -n|-b) shift 2 ;;\n"
               "    *) url=$1; shift ;;\n"
               "  esac\n"
               "done\n"
               "state=$(head -c 1 \"$TAVI_ROOT/system/clock.stand\" 2>/dev/null)\n"
               "if [ \"$state\" != S ]; then printf 'U\\n' > \"$TAVI_ROOT/system/clock.stand\"; exit 1; fi\n"
               "name=${url#" + std::string(kSourceUrl) + "/}\n"
               "cp \"" + source_ + "/$name\" \"$TAVI_ROOT$out\" 2>/dev/null || exit 1\n",
               true);
    device().set_program("/bin/fetch", script);
    conf("abstand=100\n");
  }

  // The programs started, in order: the fetched file names, "sntp" and the tpk words.
  std::vector<std::string> started(const RunResult& r) {
    std::vector<std::string> out;
    for (const auto& e : tavisim::events_of(r.events, "spawn")) {
      if (e.fields.size() < 2) continue;
      if (e.fields[1] == "/bin/fetch") {
        out.push_back(e.fields.back().substr(e.fields.back().rfind('/') + 1) + ":" + e.fields[0]);
      } else {
        std::string words = e.fields[1].substr(5);
        for (size_t i = 2; i < e.fields.size(); i++) words += " " + e.fields[i];
        out.push_back(words + ":" + e.fields[0]);
      }
    }
    return out;
  }
};

const std::string kApplyOutput =
    "ota: version here 0\nota: version there 2\nota: space 4096000000\nota: needed 526413\n"
    "ota: hash ok app-2.tpk\nota: applying with tpk app\nota: READY FOR RESTART -- it will NOT\n"
    "     restart by itself. `reboot`.\n";
const std::string kFoundOutput =
    "ota: version here 0\nota: version there 2\nota: NEW VERSION available\nota: platform tavi-x86_64\n"
    "ota: package app App tavi-x86_64\n";

TEST_F(ClockRetryTest, AfterTheSyncTheSearchRunsOnceMoreAndItsFindIsApplied) {
  publish_version_2();
  RunResult r = run({"service", "1"});
  EXPECT_EQ(started(r), (std::vector<std::string>{
                            "VERZEICHNIS:exit=1", "sntp:exit=0", "VERZEICHNIS:exit=0", "VERZEICHNIS.sig:exit=0",
                            "VERZEICHNIS:exit=0", "VERZEICHNIS.sig:exit=0", "INDEX:exit=0", "INDEX.sig:exit=0",
                            "tpk catalog /tmp/ota /tmp/ota/CATALOG:exit=0", "app-2.tpk:exit=0",
                            "app-2.tpk.sig:exit=0", "INDEX:exit=0", "INDEX.sig:exit=0",
                            "tpk update app --source /tmp/ota:exit=0"}));
  EXPECT_EQ(r.out, interval_line(100) + kSourceLine + kSourceLine + kFoundOutput + kSourceLine + kApplyOutput);
  EXPECT_EQ(r.err, kCannotFetch);
  EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000002\n");
  EXPECT_EQ(device().read_file("/system/ota.stand").value_or(""),
            "dort=2\nhier=2\nzeit=2026-02-03 09:05\nphase=bereit\n");
  expect_ended_at(r, 0);
}

TEST_F(ClockRetryTest, AFindOfTheRetryIsNotAppliedDuringATrial) {
  publish_version_2();
  device().write_file(kRecordPath, trial_record(1, 0));
  RunResult r = run({"service", "1"});
  EXPECT_EQ(started(r), (std::vector<std::string>{"VERZEICHNIS:exit=1", "sntp:exit=0", "VERZEICHNIS:exit=0",
                                                  "VERZEICHNIS.sig:exit=0"}));
  EXPECT_EQ(r.out, interval_line(100) + kSourceLine + kSourceLine + kFoundOutput);
  EXPECT_EQ(device().read_file("/system/ota.stand").value_or(""),
            "dort=2\nhier=0\nzeit=2026-02-03 09:05\nphase=verfuegbar\n");
  EXPECT_FALSE(device().exists("/system/FASSUNG"));
}

TEST_F(ClockRetryTest, ARetryThatFindsNothingNewAppliesNothing) {
  publish_up_to_date(3);
  RunResult r = run({"service", "2"});
  EXPECT_EQ(started(r), (std::vector<std::string>{"VERZEICHNIS:exit=1", "sntp:exit=0", "VERZEICHNIS:exit=0",
                                                  "VERZEICHNIS.sig:exit=0", "VERZEICHNIS:exit=0",
                                                  "VERZEICHNIS.sig:exit=0"}));
  EXPECT_EQ(r.out, interval_line(100) + kSourceLine + up_to_date(3) + up_to_date(3));
  // The retried search loaded its catalog, so the pause is the interval.
  EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{0, 0, 100}));
}

TEST_F(ClockRetryTest, NoRetryWhenTheSyncFails) {
  publish_version_2();
  device().config().sntp_fail = 2;
  device().save_config();
  RunResult r = run({"service", "2"});
  EXPECT_EQ(started(r), (std::vector<std::string>{"VERZEICHNIS:exit=1", "sntp:exit=2", "sntp:exit=2",
                                                  "VERZEICHNIS:exit=1"}));
  EXPECT_EQ(r.out, interval_line(100) + kSourceLine + kSourceLine);
  EXPECT_EQ(r.err, repeat(kCannotFetch, 2));
  // The first pass failed in the catalog load: the back-off's first pause.
  EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{0, 30}));
}

TEST_F(ClockRetryTest, NoRetryWhenTheClockWasSetBeforeTheSearch) {
  publish_version_2();
  device().write_file("/system/clock.stand", "U\n");
  device().config().sntp_fail = 3;
  device().save_config();
  RunResult r = run({"service", "1"});
  EXPECT_EQ(started(r), (std::vector<std::string>{"sntp:exit=3", "VERZEICHNIS:exit=1"}));
  EXPECT_EQ(r.out, interval_line(100) + kSourceLine);
  EXPECT_EQ(r.err, kCannotFetch);
}

TEST_F(ClockRetryTest, ARetryThatFailsAgainIsTheEndOfThePass) {
  publish_version_2();
  // The sync is made, but the source still cannot be fetched.
  std::filesystem::remove(source_ + "/VERZEICHNIS");
  RunResult r = run({"service", "2"});
  EXPECT_EQ(started(r), (std::vector<std::string>{"VERZEICHNIS:exit=1", "sntp:exit=0", "VERZEICHNIS:exit=1",
                                                  "VERZEICHNIS:exit=1"}));
  EXPECT_EQ(r.err, repeat(kCannotFetch, 3));
  EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{0, 0, 30}));
}

// ---------------------------------------------------------------------------------------
// Finding a new version

TEST_F(ServiceTest, AFoundVersionIsAppliedOutsideATrial) {
  publish_version_2();
  RunResult r = run({"service", "1"});
  EXPECT_EQ(r.out, interval_line(3600) + kSourceLine + kFoundOutput + kSourceLine + kApplyOutput);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(spawns_of(r.events, "/bin/tpk"),
            (std::vector<Words>{{"/bin/tpk", "catalog", "/tmp/ota", "/tmp/ota/CATALOG"},
                                {"/bin/tpk", "update", "app", "--source", "/tmp/ota"}}));
  // The installer opened a trial for the new version.
  EXPECT_EQ(device().read_file(kRecordPath).value_or(""), trial_record(1, 0));
  EXPECT_EQ(device().read_file("/system/ota.stand").value_or(""),
            "dort=2\nhier=2\nzeit=2026-02-03 09:05\nphase=bereit\n");
}

TEST_F(ServiceTest, AFoundVersionDuringAnOpenTrialIsSearchedButNotApplied) {
  publish_version_2();
  device().write_file(kRecordPath, trial_record(1, 0));
  conf("abstand=100\n");
  RunResult r = run({"service", "2"});
  EXPECT_EQ(r.out, interval_line(100) + repeat(kSourceLine + kFoundOutput, 2));
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(spawns_of(r.events, "/bin/tpk").empty());
  EXPECT_EQ(catalog_fetch_times(r), (std::vector<double>{0, 100}));
  EXPECT_EQ(device().read_file("/system/ota.stand").value_or(""),
            "dort=2\nhier=0\nzeit=2026-02-03 09:06\nphase=verfuegbar\n");
  EXPECT_FALSE(device().exists("/system/FASSUNG"));
  expect_ended_at(r, 100);
}

TEST_F(ServiceTest, APendingRestartStaysInTheStateRecordThroughLaterPasses) {
  publish_version_2();
  conf("abstand=100\n");
  RunResult r = run({"service", "2"});
  EXPECT_EQ(r.out, interval_line(100) + kSourceLine + kFoundOutput + kSourceLine + kApplyOutput + up_to_date(2));
  EXPECT_EQ(device().read_file("/system/ota.stand").value_or(""),
            "dort=2\nhier=2\nzeit=2026-02-03 09:06\nphase=bereit\n");
}

TEST_F(ServiceTest, AConfirmedTrialNoLongerHoldsTheApplyBack) {
  publish_version_2();
  device().write_file(kRecordPath, trial_record(1, 0, '1'));
  RunResult r = run({"service", "1"});
  EXPECT_EQ(spawns_of(r.events, "/bin/tpk").size(), 2u);
  EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000002\n");
}

TEST_F(ServiceTest, AnApplyOpensATrialThatHoldsBackTheNextFind) {
  publish_version_2();
  conf("abstand=100\n");
  RunResult first = run({"service", "1"});
  ASSERT_EQ(device().read_file(kRecordPath).value_or(""), trial_record(1, 0));
  publish_catalog({"--version", "3", "--package", "app:App:" + package_file("app-3.tpk", 500) + ":tavi-x86_64"});
  RunResult r = run({"service", "1"});
  EXPECT_TRUE(spawns_of(r.events, "/bin/tpk").empty());
  EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000002\n");
  EXPECT_EQ(device().read_file("/system/ota.stand").value_or(""), "dort=3\nhier=2\nzeit=2026-02-03 09:05\nphase=verfuegbar\n");
}

}  // namespace
