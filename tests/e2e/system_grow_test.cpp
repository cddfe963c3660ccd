// `ota system grow`: growing the root filesystem through the kernel's grow interface, in
// the foreground, in the background with its log, and the report alone.
#include "device_test.h"

using tavisim::Event;
using tavisim::RunResult;

namespace {

class SystemGrowTest : public tavisim::DeviceTest {
 protected:
  void grow_model(int64_t state, std::vector<int64_t> steps = {}, int64_t fail_step = 0, int64_t fail_code = 0) {
    tavisim::GrowModel& g = device().config().grow;
    g.state = state;
    g.steps = std::move(steps);
    g.fail_step = fail_step;
    g.fail_code = fail_code;
    device().save_config();
  }
  // The grow calls of a run as "operation argument result".
  static std::vector<std::string> grow_calls(const std::vector<Event>& events) {
    std::vector<std::string> out;
    for (const auto& e : events_of(events, "grow")) {
      std::string line;
      for (const auto& f : e.fields) line += (line.empty() ? "" : " ") + f;
      out.push_back(line);
    }
    return out;
  }
  static size_t steps_of(const std::vector<Event>& events) {
    size_t n = 0;
    for (const std::string& call : grow_calls(events)) n += call.rfind("16 256", 0) == 0;
    return n;
  }
  static std::string report(int state, uint64_t fs_blocks) {
    return "grow: state " + std::to_string(state) + "\ngrow: fs blocks " + std::to_string(fs_blocks) +
           "\ngrow: device blocks 1048576\ngrow: inodes 65536\ngrow: ext inodes 0\n";
  }
};

TEST_F(SystemGrowTest, AFilesystemAlreadyGrownIsDoneWithoutAStep) {
  grow_model(3);
  RunResult r = device().run({"system", "grow"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "grow: done\n" + report(3, 1048576));  // the kernel counts it as grown
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(steps_of(r.events), 0u);
  // The report's queries, in order.
  std::vector<std::string> calls = grow_calls(r.events);
  ASSERT_EQ(calls.size(), 6u);
  EXPECT_EQ(calls[0], "15 0 3");
  EXPECT_EQ(calls[1], "15 0 3");
  EXPECT_EQ(calls[2], "15 2 1048576");
  EXPECT_EQ(calls[3], "15 3 1048576");
  EXPECT_EQ(calls[4], "15 4 65536");
  EXPECT_EQ(calls[5], "15 6 0");
}

TEST_F(SystemGrowTest, AGrowthThatIsNotPossibleFailsWithTheReport) {
  grow_model(0);
  RunResult r = device().run({"system", "grow"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "grow: not possible\n");
  EXPECT_EQ(r.out, report(0, 262144));
  EXPECT_EQ(steps_of(r.events), 0u);
}

TEST_F(SystemGrowTest, ProgressIsPrintedOncePerTenth) {
  grow_model(1, {0, 50, 120, 990});
  RunResult r = device().run({"system", "grow"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "grow: permille 0\ngrow: permille 100\ngrow: permille 900\ngrow: done\n" + report(3, 1048576));
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(steps_of(r.events), 5u);
  // Once done, a second run takes no step.
  r = device().run({"system", "grow"});
  EXPECT_EQ(r.out, "grow: done\n" + report(3, 1048576));
  EXPECT_EQ(steps_of(r.events), 0u);
}

TEST_F(SystemGrowTest, AFailingStepEndsTheGrowthWithItsCodeAndNoReport) {
  grow_model(1, {100, 200}, 2, 7);
  RunResult r = device().run({"system", "grow"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "grow: permille 100\n");
  EXPECT_EQ(r.err, "grow: failed 7\n");
  EXPECT_EQ(steps_of(r.events), 2u);
}

TEST_F(SystemGrowTest, ANegativeCodeIsPrintedAsAnUnsignedNumber) {
  grow_model(1, {}, 1, -5);
  RunResult r = device().run({"system", "grow"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "grow: failed 18446744073709551611\n");
}

TEST_F(SystemGrowTest, AnInterruptedGrowthGoesOnWhereItStopped) {
  grow_model(1, {100, 200, 300, 400}, 3, 9);
  RunResult r = device().run({"system", "grow"});
  EXPECT_EQ(r.out, "grow: permille 100\ngrow: permille 200\n");
  EXPECT_EQ(r.err, "grow: failed 9\n");
  grow_model(1, {100, 200, 300, 400});
  r = device().run({"system", "grow"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "grow: permille 300\ngrow: permille 400\ngrow: done\n" + report(3, 1048576));
  EXPECT_EQ(steps_of(r.events), 3u);
}

TEST_F(SystemGrowTest, StatusOnlyReportsAndTakesNoStep) {
  grow_model(1, {500});
  RunResult r = device().run({"system", "grow", "status"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, report(1, 262144));
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(steps_of(r.events), 0u);
  EXPECT_EQ(grow_calls(r.events).size(), 5u);
}

TEST_F(SystemGrowTest, AnUnknownWordRunsTheGrowthInTheForeground) {
  grow_model(1, {990});
  RunResult r = device().run({"system", "grow", "now"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "grow: permille 900\ngrow: done\n" + report(3, 1048576));
  EXPECT_TRUE(events_of(r.events, "fork").empty());
}

TEST_F(SystemGrowTest, BgRunsTheGrowthInAChildThatWritesTheLog) {
  grow_model(1, {0, 50, 120, 990});
  device().write_file("/tmp/fsgrow.log", std::string(2000, 'o'));  // an older, longer log
  RunResult r = device().run({"system", "grow", "bg"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "grow: started in background\n");
  EXPECT_EQ(r.err, "");
  ASSERT_EQ(events_of(r.events, "fork").size(), 1u);
  ASSERT_TRUE(device().wait_background());
  EXPECT_EQ(device().read_file("/tmp/fsgrow.log").value_or("<missing>"),
            "grow: permille 0\ngrow: permille 100\ngrow: permille 900\ngrow: done\n" + report(3, 1048576));
  EXPECT_EQ(steps_of(device().events()), 5u);
}

TEST_F(SystemGrowTest, BgLogsAFailureToo) {
  grow_model(0);
  RunResult r = device().run({"system", "grow", "bg"});
  EXPECT_EQ(r.out, "grow: started in background\n");
  ASSERT_TRUE(device().wait_background());
  EXPECT_EQ(device().read_file("/tmp/fsgrow.log").value_or("<missing>"), "grow: not possible\n" + report(0, 262144));
}

TEST_F(SystemGrowTest, AFailedForkInBgIsSilent) {
  grow_model(1, {500});
  device().add_call_fault({57, -11, 1, true, ""});
  RunResult r = device().run({"system", "grow", "bg"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(steps_of(r.events), 0u);
}

}  // namespace
