// The real ota binary in the simulator: the commands it has today, and the kernel
// behaviour they reach (tavi's rename, files created with mode 0, sync, call faults,
// cuts at every system call).

#include <sys/stat.h>

#include "device_test.h"
#include "ota_texts.h"

namespace tavisim {
namespace {

using OtaInSim = DeviceTest;

TEST_F(OtaInSim, NoWordsPrintsBothUsageLinesAndSucceeds) {
  RunResult r = device().run({});
  ASSERT_TRUE(r.error.empty()) << r.error;
  EXPECT_TRUE(r.exited);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kUsage);
  EXPECT_EQ(r.err, "");
}

TEST_F(OtaInSim, AnUnknownWordPrintsTheFirstUsageLineAndFails) {
  RunResult r = device().run({"frobnicate"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, kUsageFirstLine);
  EXPECT_EQ(r.err, "");
}

TEST_F(OtaInSim, FetchWithTooFewWordsFallsThroughToTheUsageLine) {
  RunResult r = device().run({"fetch", "x"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, kUsageFirstLine);
}

TEST_F(OtaInSim, AnEmptyWordIsAnUnknownWord) {
  RunResult r = device().run({""});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, kUsageFirstLine);
}

TEST_F(OtaInSim, AnEmptyArgumentVectorActsLikeNoWords) {
  // Linux starts a program given no words at all with one empty word, so the count the
  // program sees is 1: the same as `ota` alone.
  RunResult r = device().run_argv({});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kUsage);
}

TEST_F(OtaInSim, StartAndExitEventsCarryTheWords) {
  RunResult r = device().run({"set", "kanal", "dev"});
  ASSERT_EQ(r.status, 0);
  auto starts = events_of(r.events, "start");
  ASSERT_EQ(starts.size(), 1u);
  EXPECT_EQ(starts[0].fields, (std::vector<std::string>{"/bin/ota", "set", "kanal", "dev"}));
  EXPECT_EQ(starts[0].pid, r.pid);
  auto exits = events_of(r.events, "exit");
  ASSERT_EQ(exits.size(), 1u);
  EXPECT_EQ(exits[0].value("status"), "0");
  EXPECT_EQ(device().events().size(), r.events.size());
}

TEST_F(OtaInSim, SettingsWithoutAFileListsEveryKeyAsNotSet) {
  RunResult r = device().run({"settings"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, settings_listing({}));
  EXPECT_EQ(r.err, "");
}

TEST_F(OtaInSim, SetCreatesTheFileReadableWithoutATemporaryLeft) {
  RunResult r = device().run({"set", "quelle", "http://u.example/aktuell"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "ota: set quelle is now http://u.example/aktuell\n");
  EXPECT_EQ(device().read_file("/etc/ota.conf"), "quelle=http://u.example/aktuell\n");
  // ota creates files with mode 0; the kernel keeps them readable.
  EXPECT_EQ(device().mode_of("/etc/ota.conf"), 0644u);
  EXPECT_FALSE(device().exists("/etc/ota.conf.nw"));
  RunResult s = device().run({"settings"});
  EXPECT_EQ(s.out, settings_listing({{"quelle", "http://u.example/aktuell"}}));
}

TEST_F(OtaInSim, SetReplacesAnExistingFileThoughRenameNeverReplaces) {
  device().write_file("/etc/ota.conf", "quelle=a\nabstand=10\nquelle=b\n");
  RunResult r = device().run({"set", "quelle", "c"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(device().read_file("/etc/ota.conf"), "abstand=10\nquelle=c\n");
  EXPECT_FALSE(device().exists("/etc/ota.conf.nw"));
  RunResult again = device().run({"set", "auto", "ja"});
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(device().read_file("/etc/ota.conf"), "abstand=10\nquelle=c\nauto=ja\n");
}

TEST_F(OtaInSim, SetWithTooFewWordsOrAWrongKeyFails) {
  for (auto words : std::vector<std::vector<std::string>>{{"set"}, {"set", "quelle"}, {"set", "Quelle", "x"},
                                                          {"set", "sysabstand", "5"}}) {
    RunResult r = device().run(words);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, kNotAKey);
  }
  EXPECT_FALSE(device().exists("/etc/ota.conf"));
}

TEST_F(OtaInSim, ABadChannelLeavesTheFileAsItWas) {
  device().write_file("/etc/ota.conf", "kanal=test\n");
  RunResult r = device().run({"set", "kanal", "beta"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: channel must be stable or test\n");
  EXPECT_EQ(device().read_file("/etc/ota.conf"), "kanal=test\n");
}

TEST_F(OtaInSim, ASetTargetThatCannotBeRemovedMakesTheRenameFail) {
  // With a directory in the way of /etc/ota.conf, ota's unlink fails, tavi's rename
  // refuses to replace it, and so does the direct write.
  device().make_dir("/etc/ota.conf");
  RunResult r = device().run({"set", "kanal", "dev"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: /etc/ota.conf could not be written\n");
  EXPECT_FALSE(device().exists("/etc/ota.conf.nw"));
}

TEST_F(OtaInSim, AFailingRenameFallsBackToWritingTheFileDirectly) {
  device().write_file("/etc/ota.conf", "auto=ja");
  CallFault f;
  f.number = 82;
  f.error = -5;
  f.nth = 1;
  device().add_call_fault(f);
  RunResult r = device().run({"set", "frist", "300"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(device().read_file("/etc/ota.conf"), "auto=ja\nfrist=300\n");
  EXPECT_FALSE(device().exists("/etc/ota.conf.nw"));
  auto faults = events_of(r.events, "fault");
  ASSERT_EQ(faults.size(), 1u);
  EXPECT_EQ(faults[0].value("call"), "82");
  EXPECT_EQ(faults[0].value("error"), "-5");
}

TEST_F(OtaInSim, ATemporaryFileThatCannotBeCreatedFailsTheSet) {
  device().write_file("/etc/ota.conf", "kanal=test\n");
  CallFault f;
  f.number = 2;
  f.error = -28;  // ENOSPC
  f.nth = 1;
  f.every = true;
  f.path = "/etc/ota.conf.nw";
  device().add_call_fault(f);
  RunResult r = device().run({"set", "kanal", "dev"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: /etc/ota.conf could not be written\n");
  EXPECT_EQ(device().read_file("/etc/ota.conf"), "kanal=test\n");
}

TEST_F(OtaInSim, AnUnreadableSettingsFileListsNothing) {
  device().write_file("/etc/ota.conf", "quelle=x\n");
  CallFault f;
  f.number = 2;
  f.error = -13;
  f.nth = 1;
  f.every = true;
  f.path = "/etc/ota.conf";
  device().add_call_fault(f);
  RunResult r = device().run({"settings"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, settings_listing({}));
  // Only the nth call fails when `every` is not given.
  device().clear_faults();
  f.every = false;
  f.nth = 2;
  device().add_call_fault(f);
  EXPECT_EQ(device().run({"settings"}).out, settings_listing({{"quelle", "x"}}));
  EXPECT_EQ(device().run({"settings"}).out, settings_listing({}));
  EXPECT_EQ(device().run({"settings"}).out, settings_listing({{"quelle", "x"}}));
}

// Cutting `ota set` at every one of its system calls: with only synced data kept, the
// settings file is always the old or the new one; with everything kept, the moment
// between removing the old file and renaming the new one leaves only the new text in
// /etc/ota.conf.nw, and the next command that reads the settings finishes the rename.
class OtaSetCut : public DeviceTest, public ::testing::WithParamInterface<Durability> {};

TEST_P(OtaSetCut, TheSettingsFileIsNeverHalfWritten) {
  const std::string before = "quelle=http://old.example\nkanal=test\n";
  const std::string after = "quelle=http://old.example\nkanal=dev\n";
  Durability durability = GetParam();
  int cuts = 0, completed_at = 0, only_temporary = 0;
  for (uint64_t k = 1; k < 200 && completed_at == 0; k++) {
    device().remove("/etc/ota.conf.nw");
    device().write_file("/etc/ota.conf", before);
    RunOptions o;
    o.cut = Cut{k, durability, false};
    RunResult r = device().run({"set", "kanal", "dev"}, o);
    ASSERT_TRUE(r.error.empty()) << r.error;
    if (!r.cut) {
      ASSERT_TRUE(r.exited);
      EXPECT_EQ(r.status, 0);
      EXPECT_EQ(device().read_file("/etc/ota.conf"), after);
      completed_at = static_cast<int>(k);
      break;
    }
    cuts++;
    EXPECT_EQ(events_of(r.events, "cut").size(), 1u) << "k=" << k;
    EXPECT_EQ(events_of(r.events, "cut")[0].value("call"), std::to_string(k));
    auto conf = device().read_file("/etc/ota.conf");
    auto temp = device().read_file("/etc/ota.conf.nw");
    if (durability == Durability::synced) {
      ASSERT_TRUE(conf.has_value()) << "k=" << k;
      EXPECT_TRUE(*conf == before || *conf == after) << "k=" << k << ": " << *conf;
    } else if (!conf) {
      ASSERT_TRUE(temp.has_value()) << "k=" << k << ": neither file is there";
      EXPECT_EQ(*temp, after) << "k=" << k;
      only_temporary++;
      RunResult next = device().run({"settings"});
      EXPECT_EQ(next.out, settings_listing({{"quelle", "http://old.example"}, {"kanal", "dev"}}));
      EXPECT_EQ(device().read_file("/etc/ota.conf"), after);
      EXPECT_FALSE(device().exists("/etc/ota.conf.nw"));
    } else {
      EXPECT_TRUE(*conf == before || *conf == after) << "k=" << k << ": " << *conf;
    }
  }
  EXPECT_GT(cuts, 5);
  EXPECT_GT(completed_at, 0) << "ota set never ran to its end";
  if (durability == Durability::all) EXPECT_EQ(only_temporary, 1);
  else EXPECT_EQ(only_temporary, 0);
}

INSTANTIATE_TEST_SUITE_P(Durability, OtaSetCut, ::testing::Values(Durability::all, Durability::synced),
                         [](const auto& info) { return info.param == Durability::all ? "all" : "synced"; });

TEST_F(OtaInSim, SyncedDurabilityLosesWhatCameAfterTheLastSync) {
  // `ota set` syncs once, after the rename: cut at the sync call itself, the synced state
  // is the one before the command; cut at the call after it, the new file survives.
  device().write_file("/etc/ota.conf", "kanal=test\n");
  std::vector<Event> all;
  uint64_t sync_call = 0;
  for (uint64_t k = 1; k < 200; k++) {
    device().write_file("/etc/ota.conf", "kanal=test\n");
    RunOptions o;
    o.cut = Cut{k, Durability::all, false};
    RunResult r = device().run({"set", "kanal", "dev"}, o);
    if (!r.cut) break;
    if (events_of(r.events, "cut")[0].value("nr") == "162") {
      sync_call = k;
      break;
    }
  }
  ASSERT_GT(sync_call, 0u);
  device().write_file("/etc/ota.conf", "kanal=test\n");
  RunOptions o;
  o.cut = Cut{sync_call, Durability::synced, false};
  EXPECT_TRUE(device().run({"set", "kanal", "dev"}, o).cut);
  EXPECT_EQ(device().read_file("/etc/ota.conf"), "kanal=test\n");
  device().write_file("/etc/ota.conf", "kanal=test\n");
  o.cut = Cut{sync_call + 1, Durability::synced, false};
  EXPECT_TRUE(device().run({"set", "kanal", "dev"}, o).cut);
  EXPECT_EQ(device().read_file("/etc/ota.conf"), "kanal=dev\n");
}

}  // namespace
}  // namespace tavisim
