// Filesystem growth: the wording, the progress steps and the choice of the form, against
// a scripted grow call; and the host's refused call, which reads as a failure code.
#include "grow/grow.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_support.h"

using namespace ota;

namespace {

// A scripted kernel: fixed answers to the queries, step results and progress readings in
// order. Every call is counted.
struct FakeGrow {
  u64 state = 1;
  std::vector<u64> steps;
  std::vector<u64> progress;
  size_t step_calls = 0;
  size_t progress_calls = 0;
  std::vector<std::pair<u64, u64>> calls;
};
FakeGrow fake;

u64 fake_grow(u64 operation, u64 argument) {
  fake.calls.push_back({operation, argument});
  if (operation == TAVI_GROW_STEP) {
    EXPECT_EQ(argument, ota::kGrowStepUnits);
    return fake.step_calls < fake.steps.size() ? fake.steps[fake.step_calls++] : 1;
  }
  EXPECT_EQ(operation, static_cast<u64>(TAVI_GROW_QUERY));
  switch (argument) {
    case TAVI_GROW_STATE: return fake.state;
    case TAVI_GROW_PERMILLE: return fake.progress_calls < fake.progress.size() ? fake.progress[fake.progress_calls++] : 999;
    case TAVI_GROW_FS_BLOCKS: return 1000;
    case TAVI_GROW_DEVICE_BLOCKS: return 4096;
    case TAVI_GROW_INODES: return 256;
    case TAVI_GROW_EXT_INODES: return 7;
  }
  ADD_FAILURE() << "unexpected query " << argument;
  return 0;
}

const std::string kReport =
    "grow: state 1\ngrow: fs blocks 1000\ngrow: device blocks 4096\ngrow: inodes 256\ngrow: ext inodes 7\n";

std::string report_with_state(u64 state) {
  return "grow: state " + std::to_string(state) + kReport.substr(kReport.find('\n'));
}

}  // namespace

TEST(Grow, ReportHasFiveLines) {
  fake = FakeGrow{};
  CapturedOutput out;
  grow_report_with(fake_grow);
  EXPECT_EQ(out.out(), kReport);
  EXPECT_EQ(out.err(), "");
  EXPECT_EQ(fake.step_calls, 0u);
}

TEST(Grow, AlreadyGrownTakesNoStep) {
  fake = FakeGrow{};
  fake.state = 3;
  CapturedOutput out;
  EXPECT_TRUE(grow_run_with(fake_grow));
  EXPECT_EQ(out.out(), "grow: done\n" + report_with_state(3));
  EXPECT_EQ(out.err(), "");
  EXPECT_EQ(fake.step_calls, 0u);
}

TEST(Grow, NotPossibleFailsWithReport) {
  fake = FakeGrow{};
  fake.state = 0;
  CapturedOutput out;
  EXPECT_FALSE(grow_run_with(fake_grow));
  EXPECT_EQ(out.err(), "grow: not possible\n");
  EXPECT_EQ(out.out(), report_with_state(0));
  EXPECT_EQ(fake.step_calls, 0u);
}

TEST(Grow, ProgressIsPrintedInTenths) {
  fake = FakeGrow{};
  fake.state = 2;
  fake.steps = {0, 0, 0, 0, 1};
  fake.progress = {0, 50, 120, 990};
  CapturedOutput out;
  EXPECT_TRUE(grow_run_with(fake_grow));
  EXPECT_EQ(out.out(),
            "grow: permille 0\ngrow: permille 100\ngrow: permille 900\ngrow: done\n" + report_with_state(2));
  EXPECT_EQ(out.err(), "");
  EXPECT_EQ(fake.step_calls, 5u);
  EXPECT_EQ(fake.progress_calls, 4u);
}

TEST(Grow, ProgressGoingBackIsPrintedAgain) {
  // Only a change of the tenth counts, in either direction.
  fake = FakeGrow{};
  fake.state = 5;
  fake.steps = {0, 0, 0, 0, 1};
  fake.progress = {310, 399, 200, 1000};
  CapturedOutput out;
  EXPECT_TRUE(grow_run_with(fake_grow));
  EXPECT_EQ(out.out(), "grow: permille 300\ngrow: permille 200\ngrow: permille 1000\ngrow: done\n" +
                           report_with_state(5));
}

TEST(Grow, FailedStepEndsWithoutReport) {
  fake = FakeGrow{};
  fake.steps = {0, static_cast<u64>(-5)};
  fake.progress = {100};
  CapturedOutput out;
  EXPECT_FALSE(grow_run_with(fake_grow));
  EXPECT_EQ(out.out(), "grow: permille 100\n");
  EXPECT_EQ(out.err(), "grow: failed 18446744073709551611\n");
  fake = FakeGrow{};
  fake.steps = {2};
  CapturedOutput second;
  EXPECT_FALSE(grow_run_with(fake_grow));
  EXPECT_EQ(second.out(), "");
  EXPECT_EQ(second.err(), "grow: failed 2\n");
}

TEST(Grow, EveryCallHasTheKernelsArguments) {
  fake = FakeGrow{};
  fake.steps = {0, 1};
  fake.progress = {500};
  CapturedOutput out;
  ASSERT_TRUE(grow_run_with(fake_grow));
  std::vector<std::pair<u64, u64>> expected = {{15, 0}, {16, 256}, {15, 1}, {16, 256}, {15, 0},
                                               {15, 2}, {15, 3},   {15, 4}, {15, 6}};
  EXPECT_EQ(fake.calls, expected);
}

// On the host the kernel's grow call is refused with -ENOSYS (38): the state reads as
// "can proceed" and the first step fails with that code.
TEST(Grow, HostCallIsRefusedAsAFailure) {
  CapturedOutput out;
  EXPECT_FALSE(grow_run());
  EXPECT_EQ(out.out(), "");
  EXPECT_EQ(out.err(), "grow: failed 18446744073709551578\n");
}

TEST(Grow, CommandWords) {
  const std::string refused = "18446744073709551578";
  const std::string host_report = "grow: state " + refused + "\ngrow: fs blocks " + refused +
                                  "\ngrow: device blocks " + refused + "\ngrow: inodes " + refused +
                                  "\ngrow: ext inodes " + refused + "\n";
  auto block_of = [](std::vector<const char*>& words) {
    std::vector<u64> block{words.size()};
    for (const char* w : words) block.push_back(reinterpret_cast<u64>(w));
    return block;
  };
  {
    std::vector<const char*> words{"ota", "system", "grow", "status"};
    auto block = block_of(words);
    CapturedOutput out;
    EXPECT_EQ(grow_command(block.data(), words.size(), 3), 0);
    EXPECT_EQ(out.out(), host_report);
    EXPECT_EQ(out.err(), "");
  }
  // No word, and an unknown word, run the growth in the foreground.
  for (std::vector<const char*> words : {std::vector<const char*>{"ota", "system", "grow"},
                                         std::vector<const char*>{"ota", "system", "grow", "now"},
                                         std::vector<const char*>{"ota", "system", "grow", "Status"}}) {
    auto block = block_of(words);
    CapturedOutput out;
    EXPECT_EQ(grow_command(block.data(), words.size(), 3), 1);
    EXPECT_EQ(out.out(), "");
    EXPECT_EQ(out.err(), "grow: failed " + refused + "\n");
  }
}
