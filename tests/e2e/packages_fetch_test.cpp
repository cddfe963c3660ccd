// Fetching: the exact words /bin/fetch is started with, the URL, and `ota fetch`.
#include "device_limits.h"
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
  EXPECT_EQ(r.out, kUsageFirstLine);
  EXPECT_EQ(r.err, "");
}

// Names of any length on the command line. The URL buffer holds 359 characters: a URL
// longer than that is cut there, like every value copied into a fixed buffer, and the
// other words of /bin/fetch are never touched by it.
namespace {

constexpr size_t kUrlKept = ota::characters_kept(ota::kUrlBytes);

// A source address of exactly `length` characters.
std::string source_of_length(size_t length) {
  std::string source = "http://u.example/aktuell";
  if (length > source.size()) source = "http://u.example/" + std::string(length - 17, 'q');
  return source.substr(0, length);
}

// A name of `length` characters that ota fetch accepts (no "/", no "..").
std::string name_of_length(size_t length) {
  std::string name;
  for (size_t i = 0; i < length; i++) name.push_back(static_cast<char>('a' + (i * 7) % 26));
  return name;
}

struct LongFetch {
  size_t name_length;
  size_t source_length;
  bool channel_and_device_name;
};

void PrintTo(const LongFetch& p, std::ostream* os) {
  *os << "name of " << p.name_length << ", source of " << p.source_length
      << (p.channel_and_device_name ? ", channel and device name" : "");
}

std::string long_fetch_label(const ::testing::TestParamInfo<LongFetch>& info) {
  return "Name" + std::to_string(info.param.name_length) + "Source" + std::to_string(info.param.source_length) +
         (info.param.channel_and_device_name ? "ChannelAndDeviceName" : "");
}

}  // namespace

class FetchLongNameTest : public SourceTest, public ::testing::WithParamInterface<LongFetch> {};

TEST_P(FetchLongNameTest, FetchIsStartedWithItsWordsIntactAndTheUrlCutAtItsCapacity) {
  const LongFetch& p = GetParam();
  std::string source = source_of_length(p.source_length);
  ASSERT_EQ(source.size(), p.source_length);
  std::string conf = "quelle=" + source + "\n";
  std::string device_name(ota::characters_kept(ota::kDeviceNameBytes), 'n');
  if (p.channel_and_device_name) conf += "kanal=test\nname=" + device_name + "\n";
  device().write_file("/etc/ota.conf", conf);
  std::string name = name_of_length(p.name_length);

  RunResult r = device().run({"fetch", name, "/tmp/got"});
  // No source serves such a file: the fetch fails and says so with the whole name.
  EXPECT_TRUE(r.exited) << r.error;
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "ota: cannot fetch: " + name + "\n");

  std::string url = source + "/" + (p.channel_and_device_name ? "test/" : "") + name;
  Words expected = {"/bin/fetch", "-o", "/tmp/got"};
  if (p.channel_and_device_name) {
    expected.push_back("-n");
    expected.push_back(device_name);
  }
  expected.push_back(url.substr(0, kUrlKept));
  auto fetches = spawns_of(r.events, "/bin/fetch");
  ASSERT_EQ(fetches.size(), 1u);
  EXPECT_EQ(fetches[0], expected);
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, FetchLongNameTest,
    ::testing::Values(LongFetch{300, 32, false}, LongFetch{359, 24, false}, LongFetch{359, 24, true},
                      LongFetch{366, 24, false}, LongFetch{366, 24, true}, LongFetch{400, 24, false},
                      LongFetch{1000, 24, false}, LongFetch{1000, 24, true}, LongFetch{140, 199, false},
                      LongFetch{140, 199, true}, LongFetch{300, 199, false}, LongFetch{359, 199, true},
                      LongFetch{366, 199, false}, LongFetch{400, 199, true}, LongFetch{1000, 199, false},
                      LongFetch{1000, 199, true}),
    long_fetch_label);

TEST_F(FetchTest, ANameWhoseUrlFitsIsFetchedWhole) {
  // 32 + 1 + 200 characters: well within the URL buffer.
  std::string name = name_of_length(200);
  write_all(source_ + "/" + name, "whole");
  RunResult r = device().run({"fetch", name, "/tmp/got"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(device().read_file("/tmp/got").value_or(""), "whole");
  auto fetches = spawns_of(r.events, "/bin/fetch");
  ASSERT_EQ(fetches.size(), 1u);
  EXPECT_EQ(fetches[0], (Words{"/bin/fetch", "-o", "/tmp/got", std::string(kSourceUrl) + "/" + name}));
}

TEST_F(FetchTest, AUrlCutAtItsCapacityNamesTheFileItWasCutTo) {
  // A source of 199 characters and the channel leave 154 characters of the name in the
  // URL; the fetch asks for exactly those.
  std::string source = source_of_length(199);
  device().add_repo(source, source_);
  device().write_file("/etc/ota.conf", "quelle=" + source + "\nkanal=test\n");
  std::string name = name_of_length(400);
  std::string kept = name.substr(0, kUrlKept - (199 + 1 + 5));
  ASSERT_EQ(kept.size(), 154u);
  write_all(source_ + "/test/" + kept, "cut");
  RunResult r = device().run({"fetch", name, "/tmp/got"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(device().read_file("/tmp/got").value_or(""), "cut");
  auto fetches = spawns_of(r.events, "/bin/fetch");
  ASSERT_EQ(fetches.size(), 1u);
  EXPECT_EQ(fetches[0], (Words{"/bin/fetch", "-o", "/tmp/got", source + "/test/" + kept}));
}
