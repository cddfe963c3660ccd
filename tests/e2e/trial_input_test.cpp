// Bad input to the trial commands: trial records of every length with every ok digit, and
// settings with values that are no number, far too large or empty. Whatever the input,
// ota sleeps between its tests (a run cut by the virtual limit, never by the wall-clock
// limit) and restarts the machine only when an open trial was not confirmed in time.
#include "trial_support.h"

using namespace e2e;
using tavisim::RunResult;
using Words = std::vector<std::string>;

namespace {

const std::string kCatalogUrl = std::string(kSourceUrl) + "/VERZEICHNIS";
constexpr const char* kHuge = "99999999999999999999999";  // read as nineteen nines
constexpr const char* kOkDigits = "0123456789 x\n";

// The record `gen=00000005 vor=00000004 v=00 ok=<digit>\n`, cut or padded to len bytes.
std::string record_of(size_t len, char ok) {
  std::string full = trial_record(5, 4) + "0123";
  std::string r = full.substr(0, len);
  if (len > 34) r[34] = ok;
  return r;
}

class BadInputTest : public tavisim::DeviceTest {
 protected:
  // A run that goes on without end: it must be cut by the virtual limit.
  void expect_still_waiting(const RunResult& r) {
    EXPECT_EQ(r.limit, tavisim::Limit::virtual_time) << r.error;
    EXPECT_FALSE(r.rebooted);
    EXPECT_TRUE(tavisim::events_of(r.events, "reboot").empty());
  }
};

TEST_F(BadInputTest, BootWaitsOnlyForA36ByteRecordWithOkDigitZero) {
  device().write_file("/etc/ota.conf", "auto=nein\ngesund=0\n");
  device().add_task("desktop", 3, 0);
  for (size_t len = 0; len <= 40; len++) {
    for (char ok : std::string(kOkDigits)) {
      SCOPED_TRACE("length " + std::to_string(len) + " ok " + std::string(1, ok));
      device().write_file(kRecordPath, record_of(len, ok));
      RunResult r = device().run({"boot"}, bounded(500));
      EXPECT_TRUE(r.exited);
      EXPECT_EQ(r.status, 0);
      EXPECT_FALSE(r.rebooted);
      if (len == 36 && ok == '0') {
        EXPECT_EQ(r.out, std::string("ota: start healthy, trial confirmed after 1\n") + kServiceOff);
        EXPECT_EQ(spawns_of(r.events, "/bin/tpk"), (std::vector<Words>{{"/bin/tpk", "trial", "ok"}}));
      } else {
        EXPECT_EQ(r.out, kServiceOff);
        EXPECT_TRUE(tavisim::events_of(r.events, "spawn").empty());
        EXPECT_EQ(seconds_after_start(r.events, exits_of(r.events, r.pid)), std::vector<double>{0});
      }
      if (len <= 34) break;
    }
  }
}

TEST_F(BadInputTest, WatchdogRestartsOnlyForA36ByteRecordWithOkDigitZero) {
  for (size_t len = 0; len <= 40; len++) {
    for (char ok : std::string(kOkDigits)) {
      SCOPED_TRACE("length " + std::to_string(len) + " ok " + std::string(1, ok));
      device().write_file(kRecordPath, record_of(len, ok));
      RunResult r = device().run({"watchdog", "0"}, bounded(500));
      if (len == 36 && ok == '0') {
        EXPECT_TRUE(r.rebooted);
        EXPECT_EQ(r.out, kWatchdogRestart);
      } else {
        EXPECT_TRUE(r.exited);
        EXPECT_EQ(r.status, 0);
        EXPECT_FALSE(r.rebooted);
        EXPECT_EQ(r.out, kNothingInTrial);
      }
      if (len <= 34) break;
    }
  }
}

TEST_F(BadInputTest, ABootEntryWordThatIsEmptyMatchesNoTask) {
  device().write_file("/etc/ota.conf", "auto=nein\nfrist=70\n");
  device().write_file(kRecordPath, trial_record(5, 4));
  RunResult r = device().run({"boot", ""}, bounded(500));
  EXPECT_TRUE(r.rebooted);
  EXPECT_EQ(r.out, kNotHealthy);
  EXPECT_EQ(seconds_after_start(r.events, tavisim::events_of(r.events, "reboot")), std::vector<double>{70});
}

TEST_F(BadInputTest, GesundThatIsNoNumberTestsFromTheFirstSecond) {
  device().write_file("/etc/ota.conf", "auto=nein\ngesund=abc\n");
  device().write_file(kRecordPath, trial_record(5, 4));
  device().add_task("glogin", 2, 0);
  RunResult r = device().run({"boot"}, bounded(500));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string("ota: start healthy, trial confirmed after 1\n") + kServiceOff);
}

TEST_F(BadInputTest, FristThatIsNoNumberIsRaisedToGesundPlus60ForBoot) {
  device().write_file("/etc/ota.conf", "auto=nein\ngesund=10\nfrist=abc\n");
  device().write_file(kRecordPath, trial_record(5, 4));
  RunResult r = device().run({"boot"}, bounded(500));
  EXPECT_TRUE(r.rebooted);
  EXPECT_EQ(seconds_after_start(r.events, tavisim::events_of(r.events, "reboot")), std::vector<double>{70});
}

TEST_F(BadInputTest, EmptyGesundAndFristAreTheDefaults) {
  device().write_file("/etc/ota.conf", "auto=nein\ngesund=\nfrist=\n");
  device().write_file(kRecordPath, trial_record(5, 4));
  device().add_task("desktop", 3, 0);
  RunResult r = device().run({"boot"}, bounded(500));
  EXPECT_EQ(r.out, std::string("ota: start healthy, trial confirmed after 60\n") + kServiceOff);
  device().write_file(kRecordPath, trial_record(5, 4));
  r = device().run({"watchdog"}, bounded(500));
  EXPECT_EQ(seconds_after_start(r.events, tavisim::events_of(r.events, "reboot")), std::vector<double>{120});
}

TEST_F(BadInputTest, AHugeGesundKeepsBootWaitingWithoutARestart) {
  // Nineteen nines plus 60 still fits: the grace period does not wrap round to a small one.
  device().write_file("/etc/ota.conf", std::string("auto=nein\ngesund=") + kHuge + "\n");
  device().write_file(kRecordPath, trial_record(5, 4));
  device().add_task("desktop", 3, 0);
  RunResult r = device().run({"boot"}, bounded(600));
  expect_still_waiting(r);
  EXPECT_EQ(r.out, "");
  EXPECT_TRUE(tavisim::events_of(r.events, "spawn").empty());
}

TEST_F(BadInputTest, AHugeFristKeepsBootWaitingButHealthStillCounts) {
  device().write_file("/etc/ota.conf", std::string("auto=nein\nfrist=") + kHuge + "\n");
  device().write_file(kRecordPath, trial_record(5, 4));
  RunResult r = device().run({"boot"}, bounded(200));
  expect_still_waiting(r);
  device().write_file(kRecordPath, trial_record(5, 4));
  device().add_task("desktop", 3, 0);
  r = device().run({"boot"}, bounded(600));
  EXPECT_EQ(r.out, std::string("ota: start healthy, trial confirmed after 60\n") + kServiceOff);
}

TEST_F(BadInputTest, FristThatIsNoNumberMakesTheWatchdogRestartAtOnce) {
  device().write_file("/etc/ota.conf", "frist=later\n");
  device().write_file(kRecordPath, trial_record(5, 4));
  RunResult r = device().run({"watchdog"}, bounded(500));
  EXPECT_TRUE(r.rebooted);
  EXPECT_EQ(seconds_after_start(r.events, tavisim::events_of(r.events, "reboot")), std::vector<double>{0});
}

TEST_F(BadInputTest, AHugeFristKeepsTheWatchdogWaiting) {
  device().write_file("/etc/ota.conf", std::string("frist=") + kHuge + "\n");
  device().write_file(kRecordPath, trial_record(5, 4));
  RunResult r = device().run({"watchdog"}, bounded(600));
  expect_still_waiting(r);
  EXPECT_EQ(r.out, "");
}

TEST_F(BadInputTest, ANumberSettingIsReadFromItsFirst31Bytes) {
  // 31 zeros and a 7: the 7 is cut off and frist reads as 0.
  device().write_file("/etc/ota.conf", "frist=" + std::string(31, '0') + "7\n");
  device().write_file(kRecordPath, trial_record(5, 4));
  RunResult r = device().run({"watchdog"}, bounded(500));
  EXPECT_EQ(seconds_after_start(r.events, tavisim::events_of(r.events, "reboot")), std::vector<double>{0});
  device().write_file("/etc/ota.conf", "frist=" + std::string(30, '0') + "7\n");
  r = device().run({"watchdog"}, bounded(500));
  EXPECT_EQ(seconds_after_start(r.events, tavisim::events_of(r.events, "reboot")), std::vector<double>{7});
}

class BadServiceSettings : public SourceTest {
 protected:
  void conf(const std::string& extra) {
    device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\n" + extra);
  }
};

TEST_F(BadServiceSettings, AHugeIntervalSleepsAfterThePass) {
  conf(std::string("abstand=") + kHuge + "\n");
  RunResult r = device().run({"service", "3"}, bounded(2000));
  EXPECT_TRUE(r.exited);
  std::string pass = std::string("ota: source ") + kSourceUrl + "\n";
  EXPECT_EQ(r.out, "ota: service, interval 9999999999999999999\n" + pass + pass + pass);
  // The back-off pauses of failed passes are the usual ones; the interval only caps them.
  EXPECT_EQ(seconds_after_start(r.events, fetches_of(r.events, kCatalogUrl)), (std::vector<double>{0, 30, 90}));
}

TEST_F(BadServiceSettings, AHugeIntervalAfterASuccessfulPassIsOneLongPause) {
  publish_catalog({"--version", "1", "--package", "a:A:" + package_file("a.tpk", 10) + ":tavi-x86_64"});
  device().write_file("/system/FASSUNG", "00000001\n");
  conf(std::string("abstand=") + kHuge + "\n");
  RunResult r = device().run({"service", "2"}, bounded(1000));
  EXPECT_EQ(r.limit, tavisim::Limit::virtual_time);
  EXPECT_EQ(seconds_after_start(r.events, fetches_of(r.events, kCatalogUrl)), std::vector<double>{0});
}

TEST_F(BadServiceSettings, AHugeStartDelayIsWaitedSecondBySecond) {
  conf(std::string("start=") + kHuge + "\n");
  RunResult r = device().run({"service"}, bounded(500));
  EXPECT_EQ(r.limit, tavisim::Limit::virtual_time);
  EXPECT_EQ(r.out, "ota: service, interval 3600\n");
  EXPECT_TRUE(tavisim::events_of(r.events, "spawn").empty());
}

TEST_F(BadServiceSettings, AStartDelayThatIsNoNumberIsNone) {
  conf("start=soon\nabstand=50\nsysabstand=0\n");
  RunResult r = device().run({"service"}, bounded(100));
  EXPECT_EQ(r.limit, tavisim::Limit::virtual_time);
  EXPECT_EQ(seconds_after_start(r.events, fetches_of(r.events, kCatalogUrl)), (std::vector<double>{0, 30, 80}));
}

TEST_F(BadServiceSettings, AnIntervalOfOneSecondStillSleepsBetweenPasses) {
  conf("abstand=1\nsysabstand=1\n");
  RunResult r = device().run({"service", "5", "system"}, bounded(100));
  EXPECT_TRUE(r.exited);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(seconds_after_start(r.events, fetches_of(r.events, kCatalogUrl)), (std::vector<double>{0, 1, 2, 3, 4}));
}

TEST_F(BadServiceSettings, AHugeSystemIntervalSearchesOnce) {
  conf(std::string("abstand=10\nsysabstand=") + kHuge + "\n");
  RunResult r = device().run({"service", "3", "system"}, bounded(1000));
  EXPECT_TRUE(r.exited);
  auto system = fetches_of(r.events, "http://updates.tavi.test/system/stable/VERZEICHNIS");
  EXPECT_EQ(seconds_after_start(r.events, system), std::vector<double>{0});
}

TEST_F(BadServiceSettings, AHugePassCountRunsOnWithPauses) {
  conf("abstand=100\n");
  RunResult r = device().run({"service", kHuge}, bounded(1000));
  EXPECT_EQ(r.limit, tavisim::Limit::virtual_time);
  // No start delay: the count is not 0.
  std::vector<double> times = seconds_after_start(r.events, fetches_of(r.events, kCatalogUrl));
  ASSERT_FALSE(times.empty());
  EXPECT_EQ(times[0], 0);
  EXPECT_EQ(times.size(), 12u);  // 0, 30, 90, then every 100 seconds up to 990
}

TEST_F(BadServiceSettings, AnIntervalIsReadFromItsFirst31Bytes) {
  conf("abstand=" + std::string(31, '0') + "5\n");
  RunResult r = device().run({"service", "1"}, bounded(100));
  EXPECT_EQ(r.out, kServiceOff);
  conf("abstand=" + std::string(30, '0') + "5\n");
  r = device().run({"service", "1"}, bounded(100));
  EXPECT_EQ(r.out, std::string("ota: service, interval 5\n") + "ota: source " + kSourceUrl + "\n");
}

TEST_F(BadServiceSettings, ASettingsFileLongerThanItsBufferIsCut) {
  // Only the first 1023 bytes are read: a line after them is not seen.
  conf("# " + std::string(1100, 'x') + "\nauto=nein\n");
  RunResult r = device().run({"service", "1"}, bounded(100));
  EXPECT_EQ(r.out, std::string("ota: service, interval 3600\n") + "ota: source " + kSourceUrl + "\n");
}

// With a version on offer, the service applies it only when no open trial stands in the
// way: records that are not exactly 36 bytes, or confirmed ones, hold nothing back.
TEST_F(BadServiceSettings, OnlyAnOpenTrialHoldsTheApplyBack) {
  publish_catalog({"--version", "2", "--package", "app:App:" + package_file("app-2.tpk", 300) + ":tavi-x86_64"});
  conf("");
  for (size_t len : {0, 1, 34, 35, 36, 37, 38, 39, 40}) {
    for (char ok : std::string("01 ")) {
      SCOPED_TRACE("length " + std::to_string(len) + " ok " + std::string(1, ok));
      device().remove("/system/FASSUNG");
      device().remove("/system/AKTUELL");
      device().remove("/system/tpk/installed");
      device().write_file(kRecordPath, record_of(len, ok));
      RunResult r = device().run({"service", "1"}, bounded(100));
      EXPECT_EQ(r.status, 0);
      bool open = len == 36 && ok == '0';
      EXPECT_EQ(spawns_of(r.events, "/bin/tpk").size(), open ? 0u : 2u);
      EXPECT_EQ(device().exists("/system/FASSUNG"), !open);
      if (len <= 34) break;
    }
  }
}

}  // namespace
