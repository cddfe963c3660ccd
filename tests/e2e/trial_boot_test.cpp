// `ota boot`: the start-up health check during a trial (desktop, glogin or a named task,
// tested from the `gesund` second on, within the grace period), the restart when the start
// is not healthy, and the service loop it becomes.
#include "trial_support.h"

using namespace e2e;
using tavisim::RunResult;
using Words = std::vector<std::string>;

namespace {

std::string healthy_after(int seconds) {
  return "ota: start healthy, trial confirmed after " + std::to_string(seconds) + "\n";
}

class BootTest : public tavisim::DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    device().write_file(kRecordPath, trial_record(5, 4));
  }

  // The service loop that follows a healthy start is switched off, so a run ends there.
  void settings(const std::string& extra) { device().write_file("/etc/ota.conf", "auto=nein\n" + extra); }

  RunResult boot(const Words& words = {"boot"}) { return device().run(words, bounded(1000)); }

  // A healthy start at second t: confirmed through the installer at that second, then the
  // service loop (off here).
  void expect_healthy(const RunResult& r, int t) {
    EXPECT_TRUE(r.exited) << r.error;
    EXPECT_FALSE(r.rebooted);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, healthy_after(t) + kServiceOff);
    EXPECT_EQ(r.err, "");
    auto tpk = spawn_events(r.events, "/bin/tpk");
    ASSERT_EQ(tpk.size(), 1u);
    EXPECT_EQ(tpk[0].fields, (Words{"exit=0", "/bin/tpk", "trial", "ok"}));
    EXPECT_EQ(seconds_after_start(r.events, tpk), std::vector<double>{static_cast<double>(t)});
    EXPECT_EQ(device().read_file(kRecordPath).value_or(""), trial_record(5, 4, '1'));
    EXPECT_EQ(device().read_file("/system/ota.stand").value_or(""),
              "dort=0\nhier=0\nzeit=2026-02-03 09:0" + std::to_string(5 + t / 60) + "\nphase=ruhe\n");
    EXPECT_TRUE(tavisim::events_of(r.events, "reboot").empty());
  }

  // Not healthy within the grace period: the restart at exactly that second, and nothing
  // written before it.
  void expect_restart(const RunResult& r, int grace) {
    EXPECT_FALSE(r.exited);
    EXPECT_TRUE(r.rebooted);
    EXPECT_EQ(r.out, kNotHealthy);
    EXPECT_EQ(r.err, "");
    auto reboots = tavisim::events_of(r.events, "reboot");
    ASSERT_EQ(reboots.size(), 1u);
    EXPECT_EQ(reboots[0].fields, Words{"restart"});
    EXPECT_EQ(seconds_after_start(r.events, reboots), std::vector<double>{static_cast<double>(grace)});
    EXPECT_TRUE(spawn_events(r.events, "/bin/tpk").empty());
    EXPECT_EQ(device().read_file(kRecordPath).value_or(""), trial_record(5, 4));
    EXPECT_FALSE(device().exists("/system/ota.stand"));
  }
};

class DesktopAppears : public BootTest, public ::testing::WithParamInterface<std::pair<int, int>> {};

// gesund=60: health counts from the 60th second on, and only once the desktop is there.
TEST_P(DesktopAppears, HealthyAtTheFirstSecondFromGesundOnWithTheDesktopUp) {
  auto [appear, healthy_at] = GetParam();
  settings("gesund=60\n");
  device().add_task("desktop", 3, appear);
  expect_healthy(boot(), healthy_at);
}

INSTANTIATE_TEST_SUITE_P(BootTest, DesktopAppears,
                         ::testing::Values(std::pair{30, 60}, std::pair{59, 60}, std::pair{60, 60},
                                           std::pair{61, 61}));

TEST_F(BootTest, GloginCountsLikeTheDesktop) {
  settings("gesund=60\n");
  device().add_task("glogin", 7, 10);
  expect_healthy(boot(), 60);
}

TEST_F(BootTest, TheNamedTaskCounts) {
  settings("gesund=60\n");
  device().add_task("kiosk", 4, 70);
  expect_healthy(boot({"boot", "kiosk"}), 70);
}

TEST_F(BootTest, ANamedTaskIsNotLookedForWithoutItsWord) {
  settings("gesund=60\n");
  device().add_task("kiosk", 4, 10);
  expect_restart(boot(), 120);
}

TEST_F(BootTest, ATaskNamedDesktopXDoesNotCount) {
  settings("gesund=60\n");
  device().add_task("desktop-x", 3, 10);
  expect_restart(boot(), 120);
}

TEST_F(BootTest, ALongProcessWordIsMatchedOnItsFirstEightBytes) {
  settings("gesund=60\n");
  device().add_task("launcher", 5, 10);
  expect_healthy(boot({"boot", "launcher-main"}), 60);
}

TEST_F(BootTest, ALongTaskNameIsMatchedOnItsFirstEightBytes) {
  settings("gesund=60\n");
  device().add_task("launcherABCDEFGH", 5, 10);
  expect_healthy(boot({"boot", "launcherXYZ"}), 60);
}

TEST_F(BootTest, AShortProcessWordDoesNotMatchALongerTask) {
  settings("gesund=60\n");
  device().add_task("kiosk2", 5, 10);
  expect_restart(boot({"boot", "kiosk"}), 120);
}

TEST_F(BootTest, ADesktopInSlot31IsFound) {
  settings("gesund=60\n");
  device().add_task("desktop", 31, 10);
  expect_healthy(boot(), 60);
}

TEST_F(BootTest, ADesktopInSlot32IsNotFound) {
  settings("gesund=60\n");
  device().add_task("desktop", 32, 10);
  expect_restart(boot(), 120);
}

TEST_F(BootTest, ADesktopThatEndedBeforeGesundDoesNotCount) {
  settings("gesund=60\n");
  device().add_task("desktop", 3, 10, 59);
  expect_restart(boot(), 120);
}

TEST_F(BootTest, NoDesktopRestartsAtExactlyTheGracePeriod) {
  settings("gesund=60\nfrist=90\n");
  expect_restart(boot(), 90);
}

TEST_F(BootTest, TheRestartFollowsASyncAndNothingElse) {
  settings("gesund=60\nfrist=65\n");
  log_every_sync(device());
  RunResult r = boot();
  expect_restart(r, 65);
  // A failing sync does not stop the restart; the restart ends the process.
  EXPECT_EQ(kinds_of(r.events, {"task"}), (Words{"start", "fault:162", "reboot", "exit"}));
}

TEST_F(BootTest, DefaultsAreGesund60AndFrist120) {
  device().remove("/etc/ota.conf");
  device().add_task("desktop", 3, 45);
  // Without settings the service loop after the confirmation runs on; its start delay
  // alone outlasts this limit.
  RunResult r = device().run({"boot"}, bounded(100));
  EXPECT_EQ(r.limit, tavisim::Limit::virtual_time);
  EXPECT_EQ(r.out, healthy_after(60) + "ota: service, interval 3600\n");
  EXPECT_EQ(seconds_after_start(r.events, spawn_events(r.events, "/bin/tpk")), std::vector<double>{60});
}

TEST_F(BootTest, DefaultGraceIs120) {
  device().remove("/etc/ota.conf");
  expect_restart(boot(), 120);
}

TEST_F(BootTest, AGraceNotAboveGesundIsRaisedToGesundPlus60) {
  settings("gesund=60\nfrist=60\n");
  expect_restart(boot(), 120);
}

TEST_F(BootTest, Gesund90Frist60WaitsUpTo150Seconds) {
  settings("gesund=90\nfrist=60\n");
  expect_restart(boot(), 150);
}

TEST_F(BootTest, Gesund90Frist60TestsHealthFromTheNinetiethSecond) {
  settings("gesund=90\nfrist=60\n");
  device().add_task("desktop", 3, 20);
  expect_healthy(boot(), 90);
}

TEST_F(BootTest, Gesund90Frist60FindsALateDesktopBefore150) {
  settings("gesund=90\nfrist=60\n");
  device().add_task("desktop", 3, 149);
  expect_healthy(boot(), 149);
}

TEST_F(BootTest, Gesund90Frist60StillTestsAtSecond150) {
  settings("gesund=90\nfrist=60\n");
  device().add_task("desktop", 3, 150);
  // The last test is made at second 150 itself.
  expect_healthy(boot(), 150);
}

TEST_F(BootTest, ADesktopOneSecondTooLateRestarts) {
  settings("gesund=60\nfrist=100\n");
  device().add_task("desktop", 3, 101);
  expect_restart(boot(), 100);
}

TEST_F(BootTest, GesundZeroTestsFromTheFirstSecond) {
  settings("gesund=0\n");
  device().add_task("desktop", 3, 0);
  expect_healthy(boot(), 1);
}

TEST_F(BootTest, ARecordConfirmedWhileItWaitsEndsTheWaitWithoutARestart) {
  settings("gesund=60\n");
  tavisim::CommandId id = device().start({"boot"}, bounded(1000));
  ASSERT_TRUE(serve_into_sleep_after(device(), 20));
  device().write_file(kRecordPath, trial_record(5, 4, '1'));
  RunResult r = device().wait(id);
  EXPECT_TRUE(r.exited);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kServiceOff);
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(spawn_events(r.events, "/bin/tpk").empty());
  EXPECT_TRUE(tavisim::events_of(r.events, "reboot").empty());
  EXPECT_EQ(seconds_after_start(r.events, exits_of(r.events, r.pid)), std::vector<double>{21});
  EXPECT_FALSE(device().exists("/system/ota.stand"));
}

TEST_F(BootTest, ARecordDeletedWhileItWaitsEndsTheWaitWithoutARestart) {
  settings("gesund=60\n");
  tavisim::CommandId id = device().start({"boot"}, bounded(1000));
  ASSERT_TRUE(serve_into_sleep_after(device(), 35));
  device().remove(kRecordPath);
  RunResult r = device().wait(id);
  EXPECT_TRUE(r.exited);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kServiceOff);
  EXPECT_TRUE(tavisim::events_of(r.events, "reboot").empty());
  EXPECT_EQ(seconds_after_start(r.events, exits_of(r.events, r.pid)), std::vector<double>{36});
}

TEST_F(BootTest, ARecordThatStopsBeing36BytesWhileItWaitsEndsTheWait) {
  settings("gesund=60\n");
  tavisim::CommandId id = device().start({"boot"}, bounded(1000));
  ASSERT_TRUE(serve_into_sleep_after(device(), 10));
  device().write_file(kRecordPath, trial_record(5, 4) + "\n");
  RunResult r = device().wait(id);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kServiceOff);
  EXPECT_EQ(seconds_after_start(r.events, exits_of(r.events, r.pid)), std::vector<double>{11});
}

TEST_F(BootTest, OutsideATrialItIsTheServiceLoopAtOnce) {
  device().remove(kRecordPath);
  settings("gesund=60\n");
  device().add_task("desktop", 3, 0);
  RunResult r = boot();
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kServiceOff);
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(spawn_events(r.events, "/bin/tpk").empty());
  EXPECT_EQ(seconds_after_start(r.events, exits_of(r.events, r.pid)), std::vector<double>{0});
}

TEST_F(BootTest, AConfirmedRecordIsNoTrial) {
  device().write_file(kRecordPath, trial_record(5, 4, '1'));
  settings("");
  RunResult r = boot();
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kServiceOff);
  EXPECT_EQ(seconds_after_start(r.events, exits_of(r.events, r.pid)), std::vector<double>{0});
}

// Outside a trial the service runs with its start delay and searches: seen here as the
// catalog fetches of an unreachable source, cut off by the virtual limit.
TEST_F(BootTest, OutsideATrialTheServiceStartsAfterItsDelay) {
  device().remove(kRecordPath);
  device().write_file("/etc/ota.conf",
                      "quelle=http://nowhere.tavi.test/aktuell\nabstand=100\nstart=5\nsysabstand=0\n");
  device().write_file("/system/schluessel.pub", std::string(32, 'k'));
  RunResult r = device().run({"boot"}, bounded(200));
  EXPECT_EQ(r.limit, tavisim::Limit::virtual_time);
  auto fetches = fetches_of(r.events, "http://nowhere.tavi.test/aktuell/VERZEICHNIS");
  EXPECT_EQ(seconds_after_start(r.events, fetches), (std::vector<double>{5, 35, 95, 195}));
  std::string pass = "ota: source http://nowhere.tavi.test/aktuell\n";
  EXPECT_EQ(r.out, "ota: service, interval 100\n" + pass + pass + pass + pass);
  EXPECT_EQ(r.err, "ota: cannot fetch: VERZEICHNIS\nota: cannot fetch: VERZEICHNIS\nota: cannot fetch: VERZEICHNIS\n"
                   "ota: cannot fetch: VERZEICHNIS\n");
}

// The confirmation inside `ota boot` is the full `ota confirm`: a failing installer does
// not stop the service loop from following.
TEST_F(BootTest, AFailingConfirmationIsIgnored) {
  settings("gesund=60\n");
  device().config().tpk_fail["trial"] = 3;
  device().save_config();
  device().add_task("desktop", 3, 0);
  RunResult r = boot();
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, healthy_after(60) + kServiceOff);
  EXPECT_EQ(spawns_of(r.events, "/bin/tpk"), (std::vector<Words>{{"/bin/tpk", "trial", "ok"}}));
  EXPECT_EQ(device().read_file(kRecordPath).value_or(""), trial_record(5, 4));
  EXPECT_FALSE(device().exists("/system/ota.stand"));
}

}  // namespace
