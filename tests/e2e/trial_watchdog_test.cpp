// `ota watchdog [seconds]`: waits for someone else to confirm the trial and restarts the
// machine when nobody does within the grace period.
#include "trial_support.h"

using namespace e2e;
using tavisim::RunResult;
using Words = std::vector<std::string>;

namespace {

std::string confirmed_after(int seconds) {
  return "ota: watchdog: confirmed after " + std::to_string(seconds) + "\n";
}

class WatchdogTest : public tavisim::DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    device().write_file(kRecordPath, trial_record(9, 8));
  }

  RunResult watchdog(const Words& words = {"watchdog"}) { return device().run(words, bounded(1000)); }

  void expect_restart(const RunResult& r, int grace) {
    EXPECT_FALSE(r.exited);
    EXPECT_TRUE(r.rebooted);
    EXPECT_EQ(r.out, kWatchdogRestart);
    EXPECT_EQ(r.err, "");
    auto reboots = tavisim::events_of(r.events, "reboot");
    ASSERT_EQ(reboots.size(), 1u);
    EXPECT_EQ(reboots[0].fields, Words{"restart"});
    EXPECT_EQ(seconds_after_start(r.events, reboots), std::vector<double>{static_cast<double>(grace)});
    EXPECT_TRUE(tavisim::events_of(r.events, "spawn").empty());
  }

  void expect_confirmed(const RunResult& r, int t) {
    EXPECT_TRUE(r.exited) << r.error;
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, confirmed_after(t));
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(tavisim::events_of(r.events, "reboot").empty());
    EXPECT_EQ(seconds_after_start(r.events, exits_of(r.events, r.pid)),
              std::vector<double>{static_cast<double>(t)});
  }

  void expect_nothing_in_trial(const RunResult& r) {
    EXPECT_TRUE(r.exited) << r.error;
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, kNothingInTrial);
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(tavisim::events_of(r.events, "reboot").empty());
    EXPECT_EQ(seconds_after_start(r.events, exits_of(r.events, r.pid)), std::vector<double>{0});
  }
};

TEST_F(WatchdogTest, NotConfirmedRestartsAfterExactlyTheGracePeriod) {
  device().write_file("/etc/ota.conf", "frist=30\n");
  expect_restart(watchdog(), 30);
  // Nothing is written before the restart.
  EXPECT_EQ(device().read_file(kRecordPath).value_or(""), trial_record(9, 8));
  EXPECT_FALSE(device().exists("/system/ota.stand"));
}

TEST_F(WatchdogTest, TheRestartFollowsASyncAndNothingElse) {
  log_every_sync(device());
  RunResult r = watchdog({"watchdog", "5"});
  expect_restart(r, 5);
  EXPECT_EQ(kinds_of(r.events), (Words{"start", "fault:162", "reboot", "exit"}));
}

TEST_F(WatchdogTest, TheDefaultGraceIs120) { expect_restart(watchdog(), 120); }

TEST_F(WatchdogTest, TheArgumentReplacesFrist) {
  device().write_file("/etc/ota.conf", "frist=30\n");
  expect_restart(watchdog({"watchdog", "45"}), 45);
}

TEST_F(WatchdogTest, TheGraceIsNotRaisedAboveGesund) {
  device().write_file("/etc/ota.conf", "gesund=100\nfrist=30\n");
  expect_restart(watchdog(), 30);
}

TEST_F(WatchdogTest, ArgumentZeroRestartsAtOnce) {
  device().write_file("/etc/ota.conf", "frist=30\n");
  expect_restart(watchdog({"watchdog", "0"}), 0);
}

TEST_F(WatchdogTest, AnArgumentThatIsNoNumberIsZero) {
  device().write_file("/etc/ota.conf", "frist=30\n");
  expect_restart(watchdog({"watchdog", "abc"}), 0);
}

TEST_F(WatchdogTest, AnArgumentIsReadUpToItsFirstNonDigit) {
  expect_restart(watchdog({"watchdog", "12s"}), 12);
}

TEST_F(WatchdogTest, AnEmptyArgumentIsZeroNotTheSetting) {
  device().write_file("/etc/ota.conf", "frist=30\n");
  expect_restart(watchdog({"watchdog", ""}), 0);
}

TEST_F(WatchdogTest, NoTrialSaysSoAndSucceeds) {
  device().remove(kRecordPath);
  expect_nothing_in_trial(watchdog());
}

TEST_F(WatchdogTest, AConfirmedRecordIsNoTrial) {
  device().write_file(kRecordPath, trial_record(9, 8, '1'));
  expect_nothing_in_trial(watchdog());
}

TEST_F(WatchdogTest, ARecordOfTheWrongLengthIsNoTrial) {
  device().write_file(kRecordPath, trial_record(9, 8) + "\n");
  expect_nothing_in_trial(watchdog());
  device().write_file(kRecordPath, trial_record(9, 8).substr(0, 35));
  expect_nothing_in_trial(watchdog({"watchdog", "0"}));
}

TEST_F(WatchdogTest, ConfirmedPartWayByAChangedOkDigit) {
  device().write_file("/etc/ota.conf", "frist=60\n");
  tavisim::CommandId id = device().start({"watchdog"}, bounded(1000));
  ASSERT_TRUE(serve_into_sleep_after(device(), 19));
  device().write_file(kRecordPath, trial_record(9, 8, '1'));
  expect_confirmed(device().wait(id), 20);
}

TEST_F(WatchdogTest, AnyOkCharacterOtherThanZeroConfirms) {
  tavisim::CommandId id = device().start({"watchdog", "50"}, bounded(1000));
  ASSERT_TRUE(serve_into_sleep_after(device(), 3));
  device().write_file(kRecordPath, trial_record(9, 8, 'x'));
  expect_confirmed(device().wait(id), 4);
}

TEST_F(WatchdogTest, ConfirmedInTheLastSecond) {
  tavisim::CommandId id = device().start({"watchdog", "30"}, bounded(1000));
  ASSERT_TRUE(serve_into_sleep_after(device(), 29));
  device().write_file(kRecordPath, trial_record(9, 8, '1'));
  expect_confirmed(device().wait(id), 30);
}

TEST_F(WatchdogTest, ConfirmedByOtaConfirmInAnotherProcess) {
  tavisim::CommandId id = device().start({"watchdog", "60"}, bounded(1000));
  ASSERT_TRUE(serve_into_sleep_after(device(), 9));
  RunResult c = device().run({"confirm"}, bounded(10));
  EXPECT_EQ(c.status, 0);
  expect_confirmed(device().wait(id), 10);
}

TEST_F(WatchdogTest, ADeletedRecordCountsAsUnconfirmed) {
  tavisim::CommandId id = device().start({"watchdog", "40"}, bounded(1000));
  ASSERT_TRUE(serve_into_sleep_after(device(), 10));
  device().remove(kRecordPath);
  expect_restart(device().wait(id), 40);
}

TEST_F(WatchdogTest, ARecordGrownTo37BytesCountsAsUnconfirmed) {
  tavisim::CommandId id = device().start({"watchdog", "25"}, bounded(1000));
  ASSERT_TRUE(serve_into_sleep_after(device(), 5));
  device().write_file(kRecordPath, trial_record(9, 8, '1') + "\n");
  expect_restart(device().wait(id), 25);
}

TEST_F(WatchdogTest, AHugeGraceKeepsSleepingSecondBySecond) {
  RunResult r = device().run({"watchdog", "99999999999999999999999"}, bounded(300));
  EXPECT_EQ(r.limit, tavisim::Limit::virtual_time);
  EXPECT_EQ(r.out, "");
  EXPECT_TRUE(tavisim::events_of(r.events, "reboot").empty());
}

}  // namespace
