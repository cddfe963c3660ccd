// The `ota system` words and the background apply: its state file /system/sys.apply, its
// log /system/sys.applylog, a second start while the first lives, stale and forced
// states, and the restart from the background.
#include "system_source.h"

using namespace e2e;
using tavisim::RunResult;

namespace {

const std::string kStarted = "system: apply started in the background, watch: ota system status\n";
const std::string kAlreadyRunning = "system: an apply is already running (state in /system/sys.apply)\n";
const std::string kDied = "system: the previous apply died, its running state was released\n";
const std::string kStale = "system: apply state is stale (the task is gone), use: ota system apply bg force\n";
const std::string kStatusHead = "system: installed build 20250110\nsystem: no update pending\n";

class SystemBackgroundTest : public SystemTest {
 protected:
  std::string file(const std::string& path) { return device().read_file(path).value_or("<missing>"); }
  static std::string child_of(const RunResult& r) {
    auto forks = events_of(r.events, "fork");
    return forks.empty() ? "" : forks[0].value("child");
  }
  std::string staged_log() { return check_lines() + "system: staged in slot B, restart to install\n"; }
};

// --- The words ---

TEST_F(SystemBackgroundTest, StatusIsTheAnswerToNoWordStatusAndAnyUnknownWord) {
  device().write_file("/etc/osversion", "tavi 2025.01\n");
  for (const std::vector<std::string>& words : {std::vector<std::string>{"system"},
                                                {"system", "status"},
                                                {"system", "Search"},
                                                {"system", "upgrade", "now"}}) {
    RunResult r = device().run(words);
    EXPECT_EQ(r.status, 0) << words.back();
    EXPECT_EQ(r.out, "system: installed build 20250110\ntavi 2025.01\nsystem: no update pending\n") << words.back();
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(events_of(r.events, "spawn").empty());
  }
}

TEST_F(SystemBackgroundTest, TheUsageNamesTheSystemFamily) {
  RunResult r = device().run({});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kUsage);
}

TEST_F(SystemBackgroundTest, ConfirmAlwaysSucceeds) {
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  device().write_file("/system/SYSPENDING", "count=20250111\ncommit=2222222bbbb\nsha=" + std::string(64, 'a') + "\n");
  r = device().run({"system", "confirm"});  // the running kernel is the old one: rolled back
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "system: trial kernel was rolled back, update dropped\n");
}

// --- The background apply ---

TEST_F(SystemBackgroundTest, ApplyBgRunsInAChildWithItsOwnLogAndState) {
  std::string kernel = publish_system();
  device().write_file("/system/sys.applylog", std::string(3000, 'o'));  // an older, longer log
  RunResult r = device().run({"system", "apply", "bg"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kStarted);
  EXPECT_EQ(r.err, "");
  EXPECT_FALSE(child_of(r).empty());
  ASSERT_TRUE(device().wait_background());
  EXPECT_EQ(file("/system/sys.apply"), "state=done\n");
  EXPECT_EQ(file("/system/sys.applylog"), staged_log());
  EXPECT_EQ(device().esp_read("sda1", "tavi-b.mb").value_or(""), kernel);
  expect_esp_menu(kStagedMenu);

  r = device().run({"system", "status"});
  EXPECT_EQ(r.out, "system: installed build 20250110\nsystem: pending trial of build \n" +
                       file("/system/SYSPENDING") + "system: apply done\nsystem: apply log:\n" + staged_log());
}

TEST_F(SystemBackgroundTest, AFailedBackgroundApplyIsMarkedFailed) {
  device().write_file("/system/SYSVERSION", "20250111\n");
  publish_system();
  RunResult r = device().run({"system", "apply", "bg"});
  EXPECT_EQ(r.out, kStarted);
  ASSERT_TRUE(device().wait_background());
  EXPECT_EQ(file("/system/sys.apply"), "state=failed\n");
  EXPECT_EQ(file("/system/sys.applylog"), check_lines(kNewBuild, kNewBuild) + "system: up to date\n");
  r = device().run({"system", "status"});
  EXPECT_EQ(r.out, "system: installed build 20250111\nsystem: no update pending\nsystem: apply failed\n"
                   "system: apply log:\n" + check_lines(kNewBuild, kNewBuild) + "system: up to date\n");
}

TEST_F(SystemBackgroundTest, ASecondStartWhileTheChildLivesIsRefused) {
  publish_system();
  device().add_fetch_fault("VERZEICHNIS", tavisim::FetchFaultKind::hold);
  RunResult first = device().run({"system", "apply", "bg"});
  ASSERT_EQ(first.out, kStarted);
  ASSERT_TRUE(device().serve_until_held("VERZEICHNIS"));
  std::string child = child_of(first);
  EXPECT_EQ(file("/system/sys.apply"), "state=running pid=" + child + "\n");

  RunResult second = device().run({"system", "apply", "bg"});
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(second.out, kAlreadyRunning);
  EXPECT_TRUE(events_of(second.events, "fork").empty());

  // The status shows the running state and what the log holds so far, nothing stale.
  RunResult status = device().run({"system", "status"});
  EXPECT_EQ(status.out, kStatusHead + "system: apply running pid=" + child +
                            "\nsystem: apply log:\nota: source http://updates.tavi.test/system\nota: channel stable\n");

  device().release("VERZEICHNIS");
  ASSERT_TRUE(device().wait_background());
  EXPECT_EQ(file("/system/sys.apply"), "state=done\n");
  EXPECT_EQ(file("/system/sys.applylog"), staged_log());
}

TEST_F(SystemBackgroundTest, AStateOfRunningWithoutAnIdentifierCountsAsAlive) {
  publish_system();
  device().write_file("/system/sys.apply", "state=running\n");
  RunResult r = device().run({"system", "apply", "bg"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, kAlreadyRunning);
  r = device().run({"system", "status"});
  EXPECT_EQ(r.out, kStatusHead + "system: apply running\n");
  // "pid=" without digits is identifier 0 as well.
  device().write_file("/system/sys.apply", "state=running pid=\n");
  r = device().run({"system", "apply", "bg"});
  EXPECT_EQ(r.out, kAlreadyRunning);
}

TEST_F(SystemBackgroundTest, AStaleStateIsShownAndReleasedByTheNextStart) {
  publish_system();
  device().write_file("/system/sys.apply", "state=running pid=4242\n");
  RunResult r = device().run({"system", "status"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kStatusHead + "system: apply running pid=4242\n" + kStale);

  r = device().run({"system", "apply", "bg"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kDied + kStarted);
  ASSERT_TRUE(device().wait_background());
  EXPECT_EQ(file("/system/sys.apply"), "state=done\n");
  EXPECT_EQ(file("/system/sys.applylog"), staged_log());
}

TEST_F(SystemBackgroundTest, AnIdentifierTakenByAnotherProgramIsStale) {
  device().add_task("desktop", 3, 0, -1, 4242);
  device().write_file("/system/sys.apply", "state=running pid=4242\n");
  RunResult r = device().run({"system", "status"});
  EXPECT_EQ(r.out, kStatusHead + "system: apply running pid=4242\n" + kStale);
}

TEST_F(SystemBackgroundTest, ForceReleasesALiveApply) {
  publish_system();
  // A live task named ota under the recorded identifier.
  device().add_task("ota", 9, 0, -1, 4343);
  device().write_file("/system/sys.apply", "state=running pid=4343\n");
  RunResult r = device().run({"system", "status"});
  EXPECT_EQ(r.out, kStatusHead + "system: apply running pid=4343\n");
  r = device().run({"system", "apply", "bg"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, kAlreadyRunning);
  r = device().run({"system", "apply", "force", "bg"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kDied + kStarted);
  ASSERT_TRUE(device().wait_background());
  EXPECT_EQ(file("/system/sys.apply"), "state=done\n");
}

TEST_F(SystemBackgroundTest, ForceWithoutBgIsAnApplyInTheForeground) {
  publish_system();
  device().write_file("/system/sys.apply", "state=running\n");
  RunResult r = device().run({"system", "apply", "force"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, check_lines() + "system: staged in slot B, restart to install\n");
  EXPECT_EQ(file("/system/sys.apply"), "state=running\n");
}

TEST_F(SystemBackgroundTest, ABackgroundApplyWithRestartIsDoneBeforeTheRestart) {
  std::string kernel = publish_system();
  RunResult r = device().run({"system", "apply", "bg", "restart"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kStarted);
  device().wait_background();
  std::string log = file("/system/sys.applylog");
  EXPECT_EQ(log, staged_log() + "system: restarting\n");
  EXPECT_EQ(file("/system/sys.apply"), "state=done\n");
  auto reboots = events_of(device().events(), "reboot");
  ASSERT_EQ(reboots.size(), 1u);
  EXPECT_EQ(std::to_string(reboots[0].pid), child_of(r));
  tavisim::BootResult b = restart_machine();
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(b.kernel.commit, kNewCommit);
}

TEST_F(SystemBackgroundTest, AFailedForkIsMarkedFailed) {
  publish_system();
  device().add_call_fault({57, -11, 1, true, ""});
  RunResult r = device().run({"system", "apply", "bg"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "ota: could not start the background apply\n");
  EXPECT_EQ(file("/system/sys.apply"), "state=failed\n");
  EXPECT_TRUE(events_of(r.events, "spawn").empty());
}

// --- The report ---

TEST_F(SystemBackgroundTest, TheReportShowsAtMost900BytesOfTheLog) {
  std::string log(1000, 'l');
  device().write_file("/system/sys.apply", "state=done\n");
  device().write_file("/system/sys.applylog", log);
  RunResult r = device().run({"system", "status"});
  EXPECT_EQ(r.out, kStatusHead + "system: apply done\nsystem: apply log:\n" + log.substr(0, 900));
}

TEST_F(SystemBackgroundTest, AStateOfFewerThanSevenBytesShowsNothing) {
  device().write_file("/system/sys.apply", "state=");  // six bytes
  device().write_file("/system/sys.applylog", "a log\n");
  RunResult r = device().run({"system", "status"});
  EXPECT_EQ(r.out, kStatusHead);
  // Seven bytes are enough; the text after "state=" is shown as it stands.
  device().write_file("/system/sys.apply", "state=x");
  r = device().run({"system", "status"});
  EXPECT_EQ(r.out, kStatusHead + "system: apply x" + "system: apply log:\na log\n");
}

TEST_F(SystemBackgroundTest, AnEmptyLogIsNotShown) {
  device().write_file("/system/sys.apply", "state=failed\n");
  device().write_file("/system/sys.applylog", "");
  RunResult r = device().run({"system", "status"});
  EXPECT_EQ(r.out, kStatusHead + "system: apply failed\n");
}

}  // namespace
