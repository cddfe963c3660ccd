// Fetching: the exact words /bin/fetch is started with, the URL, and `ota fetch`.
#include "update_source.h"

using namespace e2e;
using tavisim::RunResult;
using Words = std::vector<std::string>;

class FetchTest : public SourceTest {};

TEST_F(FetchTest, FetchCommandBuildsTheUrlWithoutAChannel) {
  write_all(source_ + "/INDEX", "hello");
  RunResult r = device().run({"fetch", "INDEX", "/tmp/got"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(device().read_file("/tmp/got").value_or(""), "hello");
  auto fetches = spawns_of(r.events, "/bin/fetch");
  ASSERT_EQ(fetches.size(), 1u);
  EXPECT_EQ(fetches[0], (Words{"/bin/fetch", "-o", "/tmp/got", std::string(kSourceUrl) + "/INDEX"}));
}

TEST_F(FetchTest, ChannelAndDeviceNameGoIntoTheWords) {
  device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\nkanal=test\nname=kiosk-7\n");
  write_all(source_ + "/test/INDEX", "x");
  RunResult r = device().run({"fetch", "INDEX", "/tmp/got"});
  EXPECT_EQ(r.status, 0) << r.err;
  auto fetches = spawns_of(r.events, "/bin/fetch");
  ASSERT_EQ(fetches.size(), 1u);
  EXPECT_EQ(fetches[0],
            (Words{"/bin/fetch", "-o", "/tmp/got", "-n", "kiosk-7", std::string(kSourceUrl) + "/test/INDEX"}));
}

TEST_F(FetchTest, ASourceEndingInASlashKeepsTheDoubleSlash) {
  device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "/\n");
  write_all(source_ + "/INDEX", "x");
  RunResult r = device().run({"fetch", "INDEX", "/tmp/got"});
  auto fetches = spawns_of(r.events, "/bin/fetch");
  ASSERT_EQ(fetches.size(), 1u);
  EXPECT_EQ(fetches[0].back(), std::string(kSourceUrl) + "//INDEX");
}

TEST_F(FetchTest, NamesThatCouldClimbOutAreRefusedWithoutAStart) {
  for (const std::string name : {"../x", "a/b", "x..y"}) {
    RunResult r = device().run({"fetch", name, "/tmp/got"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "ota: cannot fetch: " + name + "\n");
    EXPECT_TRUE(spawns_of(r.events, "/bin/fetch").empty());
  }
}

TEST_F(FetchTest, AFailedFetchNamesTheFile) {
  RunResult r = device().run({"fetch", "MISSING", "/tmp/got"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: cannot fetch: MISSING\n");
  EXPECT_EQ(spawns_of(r.events, "/bin/fetch").size(), 1u);
}

TEST_F(FetchTest, TheTargetIsRemovedBeforeTheFetch) {
  write_all(source_ + "/INDEX", "new");
  device().write_file("/tmp/got", "an old and longer content");
  RunResult r = device().run({"fetch", "INDEX", "/tmp/got"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(device().read_file("/tmp/got").value_or(""), "new");
  EXPECT_TRUE(device().exists("/tmp/ota"));
}

TEST_F(FetchTest, MissingSettingsOrBadChannelAreRefused) {
  device().remove("/etc/ota.conf");
  RunResult r = device().run({"fetch", "INDEX", "/tmp/got"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: /etc/ota.conf is missing or names no source\n");
  device().write_file("/etc/ota.conf", "name=x\nquelle=\n");
  r = device().run({"fetch", "INDEX", "/tmp/got"});
  EXPECT_EQ(r.err, "ota: /etc/ota.conf is missing or names no source\n");
  device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\nkanal=beta\n");
  r = device().run({"fetch", "INDEX", "/tmp/got"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: channel must be stable or test\n");
  EXPECT_TRUE(spawns_of(r.events, "/bin/fetch").empty());
}

TEST_F(FetchTest, FetchWithTooFewWordsIsTheShortUsage) {
  RunResult r = device().run({"fetch", "x"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "ota search | show | apply\n");
  EXPECT_EQ(r.err, "");
}
