// `ota search` and `ota show`: what a device reports, and the update state record.
#include "update_source.h"

using namespace e2e;
using tavisim::RunResult;

class SearchTest : public SourceTest {
 protected:
  const TestKey k1 = TestKey::from_seed(21);
  void SetUp() override {
    SourceTest::SetUp();
    device().write_file("/system/schluessel.pub", k1.pub_bytes());
  }
  std::string state() { return device().read_file("/system/ota.stand").value_or(""); }
};

TEST_F(SearchTest, ANewVersionListsThePackagesOfThisMachine) {
  device().write_file("/system/FASSUNG", "00000004\n");
  serve_catalog_text(
      "OTA2\nfassung\t5\n"
      "paket\tcore\tbase system\th\t10\tcore-5.tpk\ttavi-x86_64\n"
      "paket\tarmcore\tother\th\t10\tarm.tpk\tarm-linux\n"
      "paket\tlib\tlibrary\th\t10\tlib.tpk\ttavi-any\n"
      "paket\told\tno tag\th\t10\told.tpk\n",
      k1);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, std::string("ota: source ") + kSourceUrl +
                       "\n"
                       "ota: version here 4\n"
                       "ota: version there 5\n"
                       "ota: NEW VERSION available\n"
                       "ota: platform tavi-x86_64\n"
                       "ota: package core base system tavi-x86_64\n"
                       "ota: package lib library tavi-any\n"
                       "ota: hidden, for other platforms: 1\n"
                       "ota: hidden, no platform given: 1\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(state(), "dort=5\nhier=4\nzeit=2026-02-03 09:05\nphase=verfuegbar\n");
}

TEST_F(SearchTest, UpToDate) {
  device().write_file("/system/FASSUNG", "00000007\n");
  serve_catalog_text("OTA2\nfassung\t7\npaket\ta\tw\th\t1\tf\ttavi-x86_64\n", k1);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, std::string("ota: source ") + kSourceUrl +
                       "\nota: version here 7\nota: version there 7\nota: up to date, nothing to do\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(state(), "dort=7\nhier=7\nzeit=2026-02-03 09:05\nphase=ruhe\n");
}

TEST_F(SearchTest, AnOlderVersionIsARefusedRollback) {
  device().write_file("/system/FASSUNG", "00000007\n");
  serve_catalog_text("OTA2\nfassung\t6\npaket\ta\tw\th\t1\tf\ttavi-x86_64\n", k1);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: ROLLBACK REFUSED -- offered is 6, this device is already at 7\n");
}

TEST_F(SearchTest, OnlyPackagesWithoutAPlatformIsNothingToDo) {
  serve_catalog_text("OTA2\nfassung\t1\npaket\ta\tw\th\t1\tf\n", k1);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, std::string("ota: source ") + kSourceUrl +
                       "\nota: version here 0\nota: version there 1\nota: NEW VERSION available\n"
                       "ota: platform tavi-x86_64\nota: hidden, no platform given: 1\n"
                       "ota: NO PACKAGE for this platform -- nothing to do\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(state(), "dort=1\nhier=0\nzeit=2026-02-03 09:05\nphase=ruhe\n");
}

TEST_F(SearchTest, NoPackageLineAtAll) {
  serve_catalog_text("OTA2\nfassung\t1\n", k1);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: the VERZEICHNIS names no package\n");
}

TEST_F(SearchTest, AReadyRecordStaysReady) {
  device().write_file("/system/FASSUNG", "00000007\n");
  device().write_file("/system/ota.stand", "dort=7\nhier=6\nzeit=x\nphase=bereit\n");
  serve_catalog_text("OTA2\nfassung\t7\npaket\ta\tw\th\t1\tf\ttavi-x86_64\n", k1);
  device().run({"search"});
  EXPECT_EQ(state(), "dort=7\nhier=7\nzeit=2026-02-03 09:05\nphase=bereit\n");
}

TEST_F(SearchTest, AFailedLoadWritesFehlerWithTheInstalledVersion) {
  device().write_file("/system/FASSUNG", "00000003\n");
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(state(), "dort=3\nhier=3\nzeit=2026-02-03 09:05\nphase=fehler\n");
}

TEST_F(SearchTest, TheClockLineFollowsTheVirtualClock) {
  device().config().clock_start = "2025-12-31 23:59:00";
  device().save_config();
  device().run({"search"});
  EXPECT_EQ(state(), "dort=0\nhier=0\nzeit=2025-12-31 23:59\nphase=fehler\n");
}

TEST_F(SearchTest, ChannelIsShownAndUsed) {
  device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\nkanal=stable\n");
  serve_catalog_text("OTA2\nfassung\t1\npaket\ta\tw\th\t1\tf\ttavi-x86_64\n", k1, "stable");
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, std::string("ota: source ") + kSourceUrl +
                       "\nota: channel stable\nota: version here 0\nota: version there 1\nota: NEW VERSION available\n"
                       "ota: platform tavi-x86_64\nota: package a w tavi-x86_64\n");
}

TEST_F(SearchTest, ShowReadsOnlyLocalFiles) {
  device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\nkanal=test\n");
  device().write_file("/system/FASSUNG", "00000012\n");
  device().write_file("/system/SCHLUESSELGEN", "00000002\n");
  device().write_file("/system/AKTUELL", "00000005\n");
  device().write_file("/system/ERPROBUNG", "gen=00000005 vor=00000004 v=00 ok=0\n");
  RunResult r = device().run({"show"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string("ota: source ") + kSourceUrl +
                       "\nota: channel test\nota: platform tavi-x86_64\nota: version here 12\n"
                       "ota: key generation 2\nota: NO spare key\nota: generation 5\nota: in trial: 00000005\n");
  EXPECT_TRUE(r.events.empty() || tavisim::events_of(r.events, "spawn").empty());
}

TEST_F(SearchTest, ShowWithNothingSet) {
  device().remove("/etc/ota.conf");
  device().write_file("/system/ersatz.pub", std::string(40, 'k'));
  device().write_file("/system/ERPROBUNG", "gen=00000005 vor=00000004 v=00 ok=1\n");
  RunResult r = device().run({"show"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "ota: platform tavi-x86_64\nota: version here 0\nota: key generation 0\nota: spare key present\n"
            "ota: nothing in trial\n");
}

TEST_F(SearchTest, ShowIgnoresARecordOfTheWrongLength) {
  device().write_file("/system/ERPROBUNG", "gen=00000005 vor=00000004 v=00 ok=0\n\n");
  device().write_file("/system/AKTUELL", "0000012\n");
  RunResult r = device().run({"show"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string("ota: source ") + kSourceUrl +
                       "\nota: platform tavi-x86_64\nota: version here 0\nota: key generation 0\nota: NO spare key\n"
                       "ota: generation 12\nota: nothing in trial\n");
}
