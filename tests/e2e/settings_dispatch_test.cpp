// Settings as the commands use them (capacities, defaults, the on/off words) and the
// dispatcher's handling of the service, watchdog and boot words.
#include "update_source.h"

using namespace e2e;
using tavisim::RunOptions;
using tavisim::RunResult;

class SettingsUse : public tavisim::DeviceTest {
 protected:
  // A bound for commands that would otherwise run for ever.
  RunOptions bounded(double virtual_seconds) {
    RunOptions o;
    o.virtual_seconds = virtual_seconds;
    o.wall_seconds = 20;
    return o;
  }
};

TEST_F(SettingsUse, SetKanalDevIsAccepted) {
  RunResult r = device().run({"set", "kanal", "dev"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "ota: set kanal is now dev\n");
  EXPECT_EQ(device().read_file("/etc/ota.conf"), "kanal=dev\n");
}

TEST_F(SettingsUse, ALastLineWithoutNewlineGetsOneBeforeTheNewSetting) {
  device().write_file("/etc/ota.conf", "auto=ja");
  RunResult r = device().run({"set", "frist", "300"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(device().read_file("/etc/ota.conf"), "auto=ja\nfrist=300\n");
}

TEST_F(SettingsUse, AnEmptyValueIsStoredAndReadsAsMissing) {
  RunResult r = device().run({"set", "name", ""});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "ota: set name is now \n");
  EXPECT_EQ(device().read_file("/etc/ota.conf"), "name=\n");
  EXPECT_EQ(device().run({"settings"}).out, settings_listing({}));
}

TEST_F(SettingsUse, NearTheLimitTheNewLinesTailIsLostNeverAnOldLine) {
  std::string old = "name=" + std::string(1000, 'n') + "\n";  // 1006 bytes
  device().write_file("/etc/ota.conf", old);
  RunResult r = device().run({"set", "quelle", std::string(100, 'q')});
  EXPECT_EQ(r.status, 0);
  // 1,023 bytes are kept, then the closing newline is always written.
  std::string expected = old + ("quelle=" + std::string(100, 'q')).substr(0, 1023 - old.size()) + "\n";
  EXPECT_EQ(device().read_file("/etc/ota.conf"), expected);
  EXPECT_EQ(expected.size(), 1024u);
}

TEST_F(SettingsUse, ALongSourceIsShownWhole255AndUsedAs199) {
  std::string source = "http://u.example/" + std::string(233, 's');  // 250 bytes
  device().write_file("/etc/ota.conf", "quelle=" + source + "\n");
  RunResult s = device().run({"settings"});
  EXPECT_EQ(s.out, settings_listing({{"quelle", source}}));
  RunResult f = device().run({"fetch", "INDEX", "/tmp/x"});
  auto fetches = spawns_of(f.events, "/bin/fetch");
  ASSERT_EQ(fetches.size(), 1u);
  EXPECT_EQ(fetches[0].back(), source.substr(0, 199) + "/INDEX");
}

TEST_F(SettingsUse, OnlyJaAndTrueKeepTheServiceOn) {
  for (const std::string value : {"false", "0", "yes", "nein", "Ja"}) {
    device().write_file("/etc/ota.conf", "auto=" + value + "\n");
    RunResult r = device().run({"service"}, bounded(10));
    EXPECT_EQ(r.status, 0) << value;
    EXPECT_EQ(r.out, "ota: automatic search is OFF\n") << value;
  }
  for (const std::string value : {"ja", "true", ""}) {
    device().write_file("/etc/ota.conf", "auto=" + value + "\nabstand=50\n");
    RunResult r = device().run({"service", "1"}, bounded(3600));
    EXPECT_EQ(r.status, 0) << value;
    // The one pass finds no source to search.
    EXPECT_EQ(r.out, "ota: service, interval 50\n") << value;
    EXPECT_EQ(r.err, "ota: /etc/ota.conf is missing or names no source\n") << value;
  }
}

TEST_F(SettingsUse, AbstandThatIsNotANumberReadsAsZeroNotTheDefault) {
  device().run({"set", "abstand", "abc"});
  EXPECT_EQ(device().read_file("/etc/ota.conf"), "abstand=abc\n");
  RunResult r = device().run({"service", "1"}, bounded(10));
  EXPECT_EQ(r.out, "ota: automatic search is OFF\n");
  device().write_file("/etc/ota.conf", "abstand=0\n");
  EXPECT_EQ(device().run({"service", "1"}, bounded(10)).out, "ota: automatic search is OFF\n");
  device().write_file("/etc/ota.conf", "abstand=\n");
  r = device().run({"service", "1"}, bounded(3600));
  EXPECT_EQ(r.out, "ota: service, interval 3600\n");
  EXPECT_EQ(r.err, "ota: /etc/ota.conf is missing or names no source\n");
}

TEST_F(SettingsUse, ServiceWithANonNumericCountRunsWithoutEnd) {
  device().write_file("/etc/ota.conf", "quelle=http://u.example/aktuell\nabstand=100\n");
  device().write_file("/system/schluessel.pub", std::string(32, 'k'));
  RunResult r = device().run({"service", "abc"}, bounded(1000));
  EXPECT_FALSE(r.exited);
  EXPECT_EQ(r.limit, tavisim::Limit::virtual_time);
  // Without a count the loop waits its start delay of 180 seconds before the first search.
  auto spawns = tavisim::events_of(r.events, "spawn");
  ASSERT_FALSE(spawns.empty());
  EXPECT_EQ(spawns.front().ms - r.events.front().ms, 180000);
}

TEST_F(SettingsUse, OnlyTheExactWordSystemAllowsSystemSearchesInALimitedRun) {
  device().write_file("/etc/ota.conf", "quelle=http://u.example/aktuell\n");
  device().write_file("/system/schluessel.pub", std::string(32, 'k'));
  auto system_fetches = [&](const std::vector<std::string>& words) {
    RunResult r = device().run(words, bounded(7200));
    int n = 0;
    for (const auto& w : spawns_of(r.events, "/bin/fetch")) n += w.back().find("/system/stable/") != std::string::npos;
    return n;
  };
  EXPECT_EQ(system_fetches({"service", "1"}), 0);
  EXPECT_EQ(system_fetches({"service", "1", "System"}), 0);
  EXPECT_GT(system_fetches({"service", "1", "system"}), 0);
  EXPECT_GT(system_fetches({"service", "1", "system", "surplus"}), 0);
}

TEST_F(SettingsUse, WatchdogWithoutAWordUsesTheSettingNotZero) {
  device().write_file("/etc/ota.conf", "frist=5\n");
  device().write_file("/system/ERPROBUNG", "gen=00000002 vor=00000001 v=00 ok=0\n");
  RunResult r = device().run({"watchdog"}, bounded(100));
  EXPECT_TRUE(r.rebooted);
  EXPECT_EQ(r.out, "ota: WATCHDOG: no confirmation within the grace period\nota: WATCHDOG: restart -- the kernel counts\n");
  auto reboots = tavisim::events_of(r.events, "reboot");
  ASSERT_EQ(reboots.size(), 1u);
  EXPECT_EQ(reboots[0].ms - r.events.front().ms, 5000);
}
