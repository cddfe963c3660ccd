// The simulator's link that drops (fetch-drop SHARE SEED): a fetch breaks off after a
// random part of its bytes with the given chance, the same way for the same seed.
#include <filesystem>

#include "config_text.h"
#include "device_test.h"
#include "files.h"

using tavisim::RunResult;

namespace {

constexpr const char* kSourceUrl = "http://updates.tavi.test/aktuell";
constexpr size_t kFileBytes = 5000;
constexpr int kFetches = 20;

std::string pattern() {
  std::string s;
  for (size_t i = 0; i < kFileBytes; i++) s += static_cast<char>('a' + i % 23);
  return s;
}

// What each of kFetches fetches left behind: the bytes, or "ok" for the whole file.
std::vector<std::string> fetch_many(tavisim::Device& d, int* drops) {
  std::vector<std::string> seen;
  for (int i = 0; i < kFetches; i++) {
    std::string target = "/tmp/got" + std::to_string(i);
    RunResult r = d.run({"fetch", "INDEX", target});
    std::string got = d.read_file(target).value_or("<none>");
    if (r.status == 0) {
      EXPECT_EQ(got, pattern());
      seen.push_back("ok");
      continue;
    }
    EXPECT_EQ(r.err, "ota: cannot fetch: INDEX\n");
    EXPECT_EQ(got, pattern().substr(0, got.size())) << "a dropped fetch keeps the first bytes";
    auto faults = tavisim::events_of(r.events, "fault");
    EXPECT_EQ(faults.size(), 1u);
    if (!faults.empty()) {
      EXPECT_EQ(faults[0].fields, (std::vector<std::string>{"fetch", "INDEX", "drop", std::to_string(got.size())}));
    }
    seen.push_back(std::to_string(got.size()));
    (*drops)++;
  }
  return seen;
}

void drop_links(tavisim::Device& d, uint32_t ppm, uint64_t seed) {
  d.config().fetch_drop_ppm = ppm;
  d.config().fetch_drop_seed = seed;
  d.save_config();
}

}  // namespace

// A device whose source is a host directory; ota's fetch takes files from it.
class FetchDropTest : public tavisim::DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    source_ = scratch("source");
    serve_source(device());
  }

  void serve_source(tavisim::Device& d) const {
    d.add_repo(kSourceUrl, source_);
    d.write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\n");
  }

  std::string source_;
};

TEST_F(FetchDropTest, ALinkThatDropsKeepsOnlyTheFirstBytesOfSomeFetches) {
  write_all(source_ + "/INDEX", pattern());
  drop_links(device(), 500000, 7);
  int drops = 0;
  fetch_many(device(), &drops);
  EXPECT_GT(drops, 0);
  EXPECT_LT(drops, kFetches);
}

TEST_F(FetchDropTest, TheSameSeedDropsTheSameFetchesAndAnotherSeedOthers) {
  write_all(source_ + "/INDEX", pattern());
  drop_links(device(), 500000, 7);
  int drops = 0;
  std::vector<std::string> first = fetch_many(device(), &drops);

  std::vector<std::string> dirs;
  {
    auto fresh = [&](uint64_t seed) {
      tavisim::Device d = tavisim::Device::create(OTA_BINARY);
      dirs.push_back(d.dir());
      serve_source(d);
      drop_links(d, 500000, seed);
      return d;
    };
    tavisim::Device again = fresh(7);
    EXPECT_EQ(fetch_many(again, &drops), first);
    tavisim::Device other = fresh(8);
    EXPECT_NE(fetch_many(other, &drops), first);
  }
  for (auto& dir : dirs) std::filesystem::remove_all(dir);
}

TEST_F(FetchDropTest, ALinkThatNeverDropsChangesNothing) {
  write_all(source_ + "/INDEX", pattern());
  drop_links(device(), 0, 7);
  int drops = 0;
  for (const std::string& s : fetch_many(device(), &drops)) EXPECT_EQ(s, "ok");
  EXPECT_EQ(drops, 0);
}

TEST(FetchDropConfig, TheShareAndSeedAreReadAndWrittenBack) {
  tavisim::Config c = tavisim::parse_config("fetch-drop 0.05 9\n");
  EXPECT_EQ(c.fetch_drop_ppm, 50000u);
  EXPECT_EQ(c.fetch_drop_seed, 9u);
  EXPECT_EQ(tavisim::format_config(c), config_text_with("fetch-drop 0.05 9\n"));
  EXPECT_EQ(tavisim::parse_config("fetch-drop 1 3\n").fetch_drop_ppm, 1000000u);
  EXPECT_EQ(tavisim::format_config(tavisim::Config{}), config_text_with());
  for (const char* bad : {"fetch-drop 1.5 3\n", "fetch-drop 0.0000001 3\n", "fetch-drop x 3\n", "fetch-drop 0.5\n",
                          "fetch-drop 0.5 -1\n"})
    EXPECT_THROW(tavisim::parse_config(bad), tavisim::SimError) << bad;
}
