// Package updates through restarts: confirmed by a healthy start, or never healthy and
// rolled back; key changes over several catalogs; catalogs replayed or withdrawn.

#include <openssl/pem.h>

#include "life_support.h"

namespace life {
namespace {

using LifePackage = LifeTest;

std::string phase_of(const std::string& state) {
  size_t at = state.find("phase=");
  return at == std::string::npos ? "" : state.substr(at + 6, state.find('\n', at) - at - 6);
}

TEST_F(LifePackage, AnUpdateIsConfirmedByTheFirstHealthyStart) {
  publish_packages(2);
  RunResult search = device().run({"search"});
  ASSERT_EQ(search.status, 0) << search.err;
  EXPECT_EQ(search.out, package_search_output(1, 2));
  EXPECT_EQ(search.err, "");
  EXPECT_EQ(phase_of(file("/system/ota.stand")), "verfuegbar");

  RunResult apply = device().run({"apply"});
  ASSERT_EQ(apply.status, 0) << apply.out << apply.err;
  EXPECT_EQ(apply.out, package_apply_output(1, 2));
  EXPECT_EQ(apply.err, "");
  EXPECT_EQ(tpk_runs(apply.events), (std::vector<Words>{{"/bin/tpk", "catalog", "/tmp/ota", "/tmp/ota/CATALOG"},
                                                         {"/bin/tpk", "update", "core", "--source", "/tmp/ota"},
                                                         {"/bin/tpk", "update", "editor", "--source", "/tmp/ota"}}));
  EXPECT_EQ(file("/system/FASSUNG"), "00000002\n");
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000005 vor=00000004 v=00 ok=0\n");
  EXPECT_EQ(file("/system/tpk/installed"), "core\t2\neditor\t2\n");
  EXPECT_EQ(phase_of(file("/system/ota.stand")), "bereit");
  EXPECT_FALSE(apply.rebooted) << "apply never restarts by itself";

  // The restart: the kernel counts the start, the desktop comes up after 25 s, and from
  // the 60th second the start-up check sees it and confirms through the installer.
  int64_t started = device().virtual_ms();
  BootResult b = restart();
  ASSERT_TRUE(b.booted) << b.stuck;
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.trial_starts, 1);
  EXPECT_EQ(b.start_entry.out, kHealthyStart);
  auto tpk = tavisim::events_of(b.start_entry.events, "spawn");
  ASSERT_EQ(tpk.size(), 1u);
  EXPECT_EQ(tpk[0].fields, (Words{"exit=0", "/bin/tpk", "trial", "ok"}));
  EXPECT_EQ(tpk[0].ms - started, 60000);
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000005 vor=00000004 v=01 ok=1\n");
  EXPECT_EQ(phase_of(file("/system/ota.stand")), "ruhe");

  RunResult show = device().run({"show"});
  EXPECT_EQ(show.status, 0);
  EXPECT_EQ(show.out, show_output(2, 0, 5));

  // Later starts count nothing and confirm nothing.
  b = restart();
  EXPECT_EQ(b.trial_starts, -1);
  EXPECT_EQ(b.start_entry.out, "ota: automatic search is OFF\n");
  EXPECT_TRUE(tpk_runs(b.start_entry.events).empty());
  RunResult again = device().run({"search"});
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.out, std::string("ota: source ") + e2e::kSourceUrl +
                           "\nota: version here 2\nota: version there 2\nota: up to date, nothing to do\n");
}

TEST_F(LifePackage, AStartThatNeverComesUpRestartsAtTheGracePeriodAndIsRolledBack) {
  // This update leaves the device without a desktop.
  device().config().tasks.clear();
  device().save_config();
  publish_packages(2);
  ASSERT_EQ(device().run({"apply"}).status, 0);
  ASSERT_EQ(file("/system/tpk/installed"), "core\t2\neditor\t2\n");

  for (int start = 1; start <= 2; start++) {
    SCOPED_TRACE("start " + std::to_string(start));
    int64_t started = device().virtual_ms();
    BootResult b = restart();
    ASSERT_TRUE(b.booted);
    EXPECT_EQ(b.trial_starts, start);
    EXPECT_EQ(b.start_entry.out, "ota: start NOT healthy within the grace period -- restart, the kernel counts\n");
    // The restart comes exactly at the end of the grace period (frist=, 120 s), after
    // the file system was flushed.
    auto reboots = tavisim::events_of(b.start_entry.events, "reboot");
    ASSERT_EQ(reboots.size(), 1u);
    EXPECT_EQ(reboots[0].ms - started, 120000);
    EXPECT_TRUE(tpk_runs(b.start_entry.events).empty()) << "nothing is confirmed";
  }
  EXPECT_EQ(file("/system/ERPROBUNG"), "gen=00000005 vor=00000004 v=02 ok=0\n");

  // At the third start the user takes over at the console before the start-up check
  // runs, and rolls back.
  BootResult b = restart(false);
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.trial_starts, 3);
  RunResult show = device().run({"show"});
  EXPECT_EQ(show.out, show_output(2, 0, 5, "ota: in trial: 00000005\n"));
  RunResult rollback = device().run({"rollback"});
  EXPECT_EQ(rollback.status, 0) << rollback.out << rollback.err;
  EXPECT_EQ(rollback.out, "");
  EXPECT_EQ(tpk_runs(rollback.events),
            (std::vector<Words>{{"/bin/tpk", "rollback", "00000004"}, {"/bin/tpk", "rebuild"}}));
  EXPECT_EQ(file("/system/tpk/installed"), "core\t1\neditor\t1\n");
  EXPECT_EQ(file("/system/AKTUELL"), "00000004\n");
  EXPECT_FALSE(device().exists("/system/ERPROBUNG"));
  // The rollback writes no state of its own: the installed version stays at 2, so the
  // version that was rolled back is not offered again.
  EXPECT_EQ(file("/system/FASSUNG"), "00000002\n");
  show = device().run({"show"});
  EXPECT_EQ(show.out, show_output(2, 0, 4));
  // Nothing is left to roll back.
  rollback = device().run({"rollback"});
  EXPECT_EQ(rollback.status, 1);
  EXPECT_EQ(rollback.out, "ota: nothing in trial\n");

  // The next start counts nothing and does not restart.
  b = restart();
  EXPECT_EQ(b.trial_starts, -1);
  EXPECT_FALSE(b.start_entry.rebooted);
  EXPECT_EQ(b.start_entry.out, "ota: automatic search is OFF\n");
}

// An Ed25519 signature of data made with the publisher's private key file (PEM).
std::string sign_with(const std::string& pem_path, const std::string& data) {
  FILE* f = fopen(pem_path.c_str(), "r");
  if (f == nullptr) return "";
  EVP_PKEY* key = PEM_read_PrivateKey(f, nullptr, nullptr, nullptr);
  fclose(f);
  if (key == nullptr) return "";
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  std::string sig(64, '\0');
  size_t n = sig.size();
  bool ok = EVP_DigestSignInit(ctx, nullptr, nullptr, nullptr, key) == 1 &&
            EVP_DigestSign(ctx, reinterpret_cast<unsigned char*>(sig.data()), &n,
                           reinterpret_cast<const unsigned char*>(data.data()), data.size()) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(key);
  return ok && n == 64 ? sig : "";
}

// Copies the served catalog aside, so it can be served again later.
void keep_catalog(const std::string& from, const std::string& to) {
  std::filesystem::remove_all(to);
  std::filesystem::copy(from, to, std::filesystem::copy_options::recursive);
}

TEST_F(LifePackage, KeyChangesOverThreeCatalogsThenTheRetiredKeyIsRefused) {
  ASSERT_EQ(e2e::publish({"keygen", "--out", key("k1")}).status, 0);
  ASSERT_EQ(e2e::publish({"keygen", "--out", key("k2")}).status, 0);
  std::string chain1 = work_ + "/chain-1", chain2 = work_ + "/chain-2";
  ASSERT_EQ(e2e::publish({"chain", "--signer", key("release") + ".key", "--new", key("k1") + ".pub",
                          "--generation", "1", "--out", chain1})
                .status,
            0);
  ASSERT_EQ(e2e::publish({"chain", "--signer", key("k1") + ".key", "--new", key("k2") + ".pub", "--generation",
                          "2", "--out", chain2})
                .status,
            0);
  std::string old_key = file("/system/schluessel.pub");

  struct Step {
    uint64_t version;
    std::string signer;
    Words chains;
    std::string accepted;  // the key change message, or empty
    uint64_t generation;
  };
  std::vector<Step> steps = {
      {2, "k1", {"--chain", chain1}, "ota: KEY CHANGE accepted, new generation 1\n", 1},
      {3, "k2", {"--chain", chain1, "--chain", chain2}, "ota: KEY CHANGE accepted, new generation 2\n", 2},
      {4, "k2", {"--chain", chain1, "--chain", chain2}, "", 2},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE("version " + std::to_string(s.version));
    publish_packages(s.version, s.chains, s.signer);
    RunResult apply = device().run({"apply"});
    ASSERT_EQ(apply.status, 0) << apply.out << apply.err;
    EXPECT_EQ(apply.out, package_apply_output(s.version - 1, s.version, s.accepted));
    EXPECT_EQ(apply.err, "");
    EXPECT_EQ(file("/system/SCHLUESSELGEN"), eight_digits(s.generation) + "\n");
    EXPECT_EQ(file("/system/schluessel.pub"), read_all(key(s.signer) + ".pub"));
    EXPECT_EQ(file("/system/FASSUNG"), eight_digits(s.version) + "\n");
    BootResult b = restart();
    EXPECT_EQ(b.start_entry.out, kHealthyStart);
    RunResult show = device().run({"show"});
    EXPECT_EQ(show.out, show_output(s.version, s.generation, 4 + s.version - 1));
  }

  // A catalog signed with the retired key of generation 0 is refused, without the chain
  // and with it; the device keeps its key, generation and version.
  publish_packages(5, {}, "release", work_ + "/retired");
  publish_packages(5, {"--chain", chain1, "--chain", chain2}, "k2", work_ + "/retired-chain");
  std::string with_chain = read_all(work_ + "/retired-chain/VERZEICHNIS");
  ASSERT_NE(with_chain.find("kette\t2\t"), std::string::npos);
  std::string resigned = sign_with(key("release") + ".key", with_chain);
  ASSERT_EQ(resigned.size(), 64u);
  write_all(work_ + "/retired-chain/VERZEICHNIS.sig", resigned);
  for (const char* command : {"search", "apply", "search-chain", "apply-chain"}) {
    SCOPED_TRACE(command);
    std::string word = command;
    bool chain = word.size() > 6 && word.substr(word.size() - 6) == "-chain";
    keep_catalog(work_ + (chain ? "/retired-chain" : "/retired"), source_);
    RunResult r = device().run({word.substr(0, word.find('-'))});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "ota: SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED\n");
    EXPECT_TRUE(tpk_runs(r.events).empty());
    EXPECT_EQ(phase_of(file("/system/ota.stand")), "fehler");
  }
  EXPECT_EQ(file("/system/schluessel.pub"), read_all(key("k2") + ".pub"));
  EXPECT_NE(file("/system/schluessel.pub"), old_key);
  EXPECT_EQ(file("/system/SCHLUESSELGEN"), "00000002\n");
  EXPECT_EQ(file("/system/FASSUNG"), "00000004\n");
  EXPECT_EQ(file("/system/tpk/installed"), "core\t4\neditor\t4\n");
}

TEST_F(LifePackage, AReplayedCatalogIsRefusedAndAWithdrawnVersionStaysBlocked) {
  publish_packages(2);
  keep_catalog(source_, work_ + "/catalog-2");
  ASSERT_EQ(device().run({"apply"}).status, 0);
  ASSERT_EQ(restart().start_entry.out, kHealthyStart);
  publish_packages(3);
  ASSERT_EQ(device().run({"apply"}).status, 0);
  ASSERT_EQ(restart().start_entry.out, kHealthyStart);
  ASSERT_EQ(file("/system/FASSUNG"), "00000003\n");

  // An attacker (or a stale mirror) serves the old, validly signed catalog of version 2.
  keep_catalog(work_ + "/catalog-2", source_);
  for (const char* command : {"search", "apply"}) {
    SCOPED_TRACE(command);
    RunResult r = device().run({command});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "ota: ROLLBACK REFUSED -- offered is 2, this device is already at 3\n");
    EXPECT_TRUE(tpk_runs(r.events).empty());
  }
  EXPECT_EQ(file("/system/FASSUNG"), "00000003\n");
  EXPECT_EQ(file("/system/tpk/installed"), "core\t3\neditor\t3\n");

  // The publisher withdraws version 4 before the device took it: a catalog still at
  // version 3 names it blocked, and the device keeps that.
  publish_packages(3, {"--block", "4"});
  RunResult search = device().run({"search"});
  EXPECT_EQ(search.status, 1);
  EXPECT_EQ(search.out, std::string("ota: source ") + e2e::kSourceUrl +
                            "\nota: blocked versions: 4\nota: version here 3\nota: version there 3\n"
                            "ota: up to date, nothing to do\n");
  EXPECT_EQ(search.err, "");
  EXPECT_EQ(file("/system/GESPERRT"), "00000004\n");

  // A later catalog offers version 4 again and no longer lists it: still blocked.
  publish_packages(4);
  for (const char* command : {"search", "apply"}) {
    SCOPED_TRACE(command);
    RunResult r = device().run({command});
    EXPECT_EQ(r.status, 1);
    // The catalog lists no blocked version; the device's own list still holds 4.
    EXPECT_EQ(r.out, std::string("ota: source ") + e2e::kSourceUrl + "\nota: VERSION BLOCKED -- REJECTED, offered 4\n");
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(e2e::spawns_of(r.events, "/bin/tpk").empty());
  }
  EXPECT_EQ(file("/system/FASSUNG"), "00000003\n");

  // Version 5 goes through, and the list stays.
  publish_packages(5);
  ASSERT_EQ(device().run({"apply"}).status, 0);
  BootResult b = restart();
  EXPECT_EQ(b.start_entry.out, kHealthyStart);
  EXPECT_EQ(file("/system/FASSUNG"), "00000005\n");
  EXPECT_EQ(file("/system/tpk/installed"), "core\t5\neditor\t5\n");
  EXPECT_EQ(file("/system/GESPERRT"), "00000004\n");
}

}  // namespace
}  // namespace life
