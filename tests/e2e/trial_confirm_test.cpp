// `ota confirm` and `ota rollback`: the installer's words, the state record, the pending
// system confirmation, and which trial records count.
#include "trial_support.h"

using namespace e2e;
using tavisim::RunResult;
using Words = std::vector<std::string>;

namespace {

constexpr const char* kStatePath = "/system/ota.stand";

class ConfirmTest : public tavisim::DeviceTest {
 protected:
  RunResult run(const Words& words) {
    RunResult r = device().run(words, bounded(60));
    EXPECT_TRUE(r.exited) << r.error;
    EXPECT_FALSE(r.rebooted);
    return r;
  }
};

TEST_F(ConfirmTest, ConfirmAsksTheInstallerAndWritesTheStateAtRest) {
  device().write_file(kRecordPath, trial_record(8, 7));
  device().write_file("/system/FASSUNG", "00000012\n");
  RunResult r = run({"confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(spawns_of(r.events, "/bin/tpk"), (std::vector<Words>{{"/bin/tpk", "trial", "ok"}}));
  EXPECT_EQ(spawn_events(r.events, "/bin/tpk")[0].fields[0], "exit=0");
  // The installer model marks the record confirmed; ota itself never writes it.
  EXPECT_EQ(device().read_file(kRecordPath).value_or(""), trial_record(8, 7, '1'));
  // No search ran, so the offered version is the installed one; the clock has not moved.
  EXPECT_EQ(device().read_file(kStatePath).value_or(""), "dort=12\nhier=12\nzeit=2026-02-03 09:05\nphase=ruhe\n");
  EXPECT_FALSE(device().exists("/system/sys.stand"));
}

TEST_F(ConfirmTest, ConfirmWithoutARecordReturnsTheInstallersCode) {
  // The installer model refuses "trial ok" with 1 when there is no record.
  device().write_file(kStatePath, "phase=verfuegbar\n");
  RunResult r = run({"confirm"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(spawns_of(r.events, "/bin/tpk"), (std::vector<Words>{{"/bin/tpk", "trial", "ok"}}));
  EXPECT_EQ(device().read_file(kStatePath).value_or(""), "phase=verfuegbar\n");
}

TEST_F(ConfirmTest, AFailingInstallerIsPassedThroughAndLeavesTheStateRecordAlone) {
  device().config().tpk_fail["trial"] = 7;
  device().save_config();
  device().write_file(kRecordPath, trial_record(3, 2));
  device().write_file(kStatePath, "dort=4\nhier=3\nzeit=2026-01-01 00:00\nphase=bereit\n");
  RunResult r = run({"confirm"});
  EXPECT_EQ(r.status, 7);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(spawns_of(r.events, "/bin/tpk"), (std::vector<Words>{{"/bin/tpk", "trial", "ok"}}));
  EXPECT_EQ(device().read_file(kStatePath).value_or(""), "dort=4\nhier=3\nzeit=2026-01-01 00:00\nphase=bereit\n");
  EXPECT_EQ(device().read_file(kRecordPath).value_or(""), trial_record(3, 2));
}

TEST_F(ConfirmTest, AFailingInstallerStillRunsThePendingSystemConfirmation) {
  device().config().tpk_fail["trial"] = 5;
  device().save_config();
  device().write_file(kRecordPath, trial_record(3, 3));
  device().write_file(kStatePath, "phase=bereit\n");
  // A system trial is pending for commit abcdef1, but the running kernel is another
  // build: the confirmation drops the update.
  device().write_file("/system/SYSPENDING", "count=7\ncommit=abcdef1\nsha=" + std::string(64, 'a') + "\n");
  RunResult r = run({"confirm"});
  EXPECT_EQ(r.status, 5);
  EXPECT_EQ(r.out, "system: trial kernel was rolled back, update dropped\n");
  EXPECT_EQ(r.err, "");
  EXPECT_FALSE(device().exists("/system/SYSPENDING"));
  EXPECT_EQ(device().read_file("/system/sys.stand").value_or(""), "here=0\nthere=0\ncommit=\nphase=failed\n");
  EXPECT_EQ(device().read_file(kStatePath).value_or(""), "phase=bereit\n");
}

TEST_F(ConfirmTest, ASuccessfulConfirmAlsoDecidesAPendingSystemTrial) {
  device().write_file(kRecordPath, trial_record(3, 3));
  device().write_file("/system/SYSPENDING", "count=7\ncommit=abcdef1\nsha=" + std::string(64, 'a') + "\n");
  RunResult r = run({"confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "system: trial kernel was rolled back, update dropped\n");
  EXPECT_FALSE(device().exists("/system/SYSPENDING"));
  EXPECT_EQ(device().read_file(kStatePath).value_or(""), "dort=0\nhier=0\nzeit=2026-02-03 09:05\nphase=ruhe\n");
}

TEST_F(ConfirmTest, AnUnusablePendingRecordIsDroppedWithoutAWord) {
  device().write_file(kRecordPath, trial_record(3, 3));
  device().write_file("/system/SYSPENDING", "count=7\n");
  RunResult r = run({"confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  EXPECT_FALSE(device().exists("/system/SYSPENDING"));
  EXPECT_FALSE(device().exists("/system/sys.stand"));
}

TEST_F(ConfirmTest, RollbackReturnsToTheGenerationOfBytes17To24ThenRebuilds) {
  // The model keeps the installed list of generation 7 to come back to.
  device().write_file("/system/tpk/gen/00000007", "");
  device().write_file("/system/AKTUELL", "00000008\n");
  device().write_file(kRecordPath, trial_record(8, 7));
  RunResult r = run({"rollback"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(spawns_of(r.events, "/bin/tpk"),
            (std::vector<Words>{{"/bin/tpk", "rollback", "00000007"}, {"/bin/tpk", "rebuild"}}));
  EXPECT_FALSE(device().exists(kRecordPath));
  EXPECT_FALSE(device().exists(kStatePath));
}

TEST_F(ConfirmTest, RollbackOfAConfirmedRecordStillRollsBack) {
  device().write_file("/system/tpk/gen/00000041", "");
  device().write_file(kRecordPath, trial_record(42, 41, '1'));
  RunResult r = run({"rollback"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(spawns_of(r.events, "/bin/tpk"),
            (std::vector<Words>{{"/bin/tpk", "rollback", "00000041"}, {"/bin/tpk", "rebuild"}}));
  // Only the pending view says there is nothing in trial.
  device().write_file(kRecordPath, trial_record(42, 41, '1'));
  // The installer's rollback set the generation back to 41.
  RunResult show = run({"show"});
  EXPECT_EQ(show.out, std::string("ota: platform tavi-x86_64\nota: version here 0\nota: key generation 0\n"
                                  "ota: NO spare key\nota: generation 41\n") +
                          kNothingInTrial);
}

TEST_F(ConfirmTest, RollbackPassesTheWordAsItStandsEvenWhenItIsNoNumber) {
  // Bytes 17-24 are handed on as they are; the installer judges them.
  std::string record = trial_record(5, 4);
  record.replace(17, 8, "ab/..x y");
  ASSERT_EQ(record.size(), 36u);
  device().write_file(kRecordPath, record);
  RunResult r = run({"rollback"});
  EXPECT_EQ(r.status, 2);  // the model does not know that generation
  EXPECT_EQ(spawns_of(r.events, "/bin/tpk"), (std::vector<Words>{{"/bin/tpk", "rollback", "ab/..x y"}}));
}

TEST_F(ConfirmTest, AFailingRollbackIsReturnedWithoutARebuild) {
  device().write_file(kRecordPath, trial_record(8, 7));
  device().config().tpk_fail["rollback"] = 9;
  device().save_config();
  device().write_file(kStatePath, "phase=bereit\n");
  RunResult r = run({"rollback"});
  EXPECT_EQ(r.status, 9);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(spawns_of(r.events, "/bin/tpk"), (std::vector<Words>{{"/bin/tpk", "rollback", "00000007"}}));
  EXPECT_EQ(device().read_file(kRecordPath).value_or(""), trial_record(8, 7));
  EXPECT_EQ(device().read_file(kStatePath).value_or(""), "phase=bereit\n");
}

TEST_F(ConfirmTest, AFailingRebuildIsTheResult) {
  device().write_file("/system/tpk/gen/00000007", "");
  device().write_file(kRecordPath, trial_record(8, 7));
  device().config().tpk_fail["rebuild"] = 4;
  device().save_config();
  RunResult r = run({"rollback"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(spawns_of(r.events, "/bin/tpk"),
            (std::vector<Words>{{"/bin/tpk", "rollback", "00000007"}, {"/bin/tpk", "rebuild"}}));
}

TEST_F(ConfirmTest, RollbackWithoutARecordDoesNothing) {
  RunResult r = run({"rollback"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, kNothingInTrial);
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(spawns_of(r.events, "/bin/tpk").empty());
}

TEST_F(ConfirmTest, ARecordWithAnExtraNewlineIsNoRecord) {
  device().write_file(kRecordPath, trial_record(8, 7) + "\n");
  RunResult r = run({"rollback"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, kNothingInTrial);
  EXPECT_TRUE(spawns_of(r.events, "/bin/tpk").empty());
  RunResult show = run({"show"});
  EXPECT_EQ(show.out, std::string("ota: platform tavi-x86_64\nota: version here 0\nota: key generation 0\n"
                                  "ota: NO spare key\n") +
                          kNothingInTrial);
}

// Records of every length from 0 to 40 bytes, each with every ok digit: rollback acts only
// on exactly 36 bytes, whatever the digit.
TEST_F(ConfirmTest, OnlyARecordOfExactly36BytesCountsForRollback) {
  device().write_file("/system/tpk/gen/00000007", "");
  const std::string full = trial_record(8, 7) + "0123";
  for (size_t len = 0; len <= 40; len++) {
    for (char ok : std::string("0123456789 x\n")) {
      std::string record = full.substr(0, len);
      if (len > 34) record[34] = ok;
      device().write_file(kRecordPath, record);
      RunResult r = run({"rollback"});
      auto tpk = spawns_of(r.events, "/bin/tpk");
      if (len == 36) {
        EXPECT_EQ(r.status, 0) << "ok digit " << ok;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(tpk, (std::vector<Words>{{"/bin/tpk", "rollback", "00000007"}, {"/bin/tpk", "rebuild"}}));
        EXPECT_FALSE(device().exists(kRecordPath));
      } else {
        EXPECT_EQ(r.status, 1) << "length " << len;
        EXPECT_EQ(r.out, kNothingInTrial) << "length " << len;
        EXPECT_TRUE(tpk.empty()) << "length " << len;
        EXPECT_EQ(device().read_file(kRecordPath).value_or("?"), record);
      }
      if (len <= 34) break;  // the digit is not part of shorter records
    }
  }
}

}  // namespace
