// Loading the signed catalog: every refusal in its order, key changes, blocked versions.
#include "update_source.h"

using namespace e2e;
using tavisim::RunResult;

class CatalogTest : public SourceTest {
 protected:
  // Test keys the device trusts instead of the publisher's, so that catalogs can be
  // written by hand.
  void trust(const TestKey& k, const TestKey* spare = nullptr, int generation = 0) {
    device().write_file("/system/schluessel.pub", k.pub_bytes());
    if (spare != nullptr) device().write_file("/system/ersatz.pub", spare->pub_bytes());
    if (generation > 0) {
      char g[16];
      snprintf(g, sizeof g, "%08d\n", generation);
      device().write_file("/system/SCHLUESSELGEN", g);
    }
  }
  const TestKey k1 = TestKey::from_seed(11);
  const TestKey k2 = TestKey::from_seed(12);
  const TestKey k3 = TestKey::from_seed(13);
  const TestKey spare = TestKey::from_seed(19);
  const TestKey stranger = TestKey::from_seed(17);

  static std::string source_line() { return std::string("ota: source ") + kSourceUrl + "\n"; }
  // A catalog that offers version 2 and names no package, read on a device at version 0.
  void expect_no_package(const RunResult& r, const std::string& before_versions) {
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, source_line() + before_versions + "ota: version here 0\nota: version there 2\n");
    EXPECT_EQ(r.err, "ota: the VERZEICHNIS names no package\n");
  }
};

TEST_F(CatalogTest, RefusalsComeInTheirOrder) {
  // No settings file.
  device().remove("/etc/ota.conf");
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: /etc/ota.conf is missing or names no source\n");
  // A bad channel, checked before the key.
  device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\nkanal=nightly\n");
  device().remove("/system/schluessel.pub");
  r = device().run({"search"});
  EXPECT_EQ(r.err, "ota: channel must be stable or test\n");
  // No trusted key.
  device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\n");
  r = device().run({"search"});
  EXPECT_EQ(r.err, "ota: no trusted key -- nothing is done\n");
  EXPECT_TRUE(spawns_of(r.events, "/bin/fetch").empty());
  // The catalog cannot be fetched.
  trust(k1);
  r = device().run({"search"});
  EXPECT_EQ(r.out, std::string("ota: source ") + kSourceUrl + "\n");
  EXPECT_EQ(r.err, "ota: cannot fetch: VERZEICHNIS\n");
  // Its signature cannot be fetched.
  write_all(source_ + "/VERZEICHNIS", "OTA2\nfassung\t2\n");
  r = device().run({"search"});
  EXPECT_EQ(r.err, "ota: cannot fetch: VERZEICHNIS.sig\n");
  // A signature of 63 bytes.
  write_all(source_ + "/VERZEICHNIS.sig", std::string(63, 'x'));
  r = device().run({"search"});
  EXPECT_EQ(r.err, "ota: NO SIGNATURE for the VERZEICHNIS\n");
  // A wrong signature.
  write_all(source_ + "/VERZEICHNIS.sig", stranger.sign("OTA2\nfassung\t2\n"));
  r = device().run({"search"});
  EXPECT_EQ(r.err, "ota: SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED\n");
  // A correct signature over a text without the marker: refused after the check.
  serve_catalog_text("OTA3\nfassung\t2\n", k1);
  r = device().run({"search"});
  EXPECT_EQ(r.err, "ota: this is not a VERZEICHNIS (marker missing)\n");
  // No catalog was read, so the version offered is the installed one.
  EXPECT_EQ(device().read_file("/system/ota.stand").value_or(""), "dort=0\nhier=0\nzeit=2026-02-03 09:05\nphase=fehler\n");
}

TEST_F(CatalogTest, EmptyCatalogIsACatalogThatCannotBeFetched) {
  trust(k1);
  serve_catalog_text("", k1);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: cannot fetch: VERZEICHNIS\n");
}

TEST_F(CatalogTest, SignaturesOfEveryLength) {
  trust(k1);
  std::string text = "OTA2\nfassung\t2\n";
  std::string sig = k1.sign(text);
  write_all(source_ + "/VERZEICHNIS", text);
  for (size_t len : {0, 63}) {
    write_all(source_ + "/VERZEICHNIS.sig", sig.substr(0, len));
    EXPECT_EQ(device().run({"search"}).err, "ota: NO SIGNATURE for the VERZEICHNIS\n") << len;
  }
  // 64 bytes, and a longer file whose first 64 bytes are the signature, pass this step.
  for (const std::string& s : {sig, sig + "z"}) {
    write_all(source_ + "/VERZEICHNIS.sig", s);
    RunResult r = device().run({"search"});
    EXPECT_EQ(r.err, "ota: the VERZEICHNIS names no package\n");
  }
}

TEST_F(CatalogTest, ACatalogLongerThanTheBufferIsCutAndFailsItsSignature) {
  trust(k1);
  std::string text = "OTA2\nfassung\t2\n" + std::string(32767, '#') + "\n";
  serve_catalog_text(text, k1);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.err, "ota: SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED\n");
  std::string fits = "OTA2\nfassung\t2\n";
  fits += std::string(32767 - fits.size() - 1, '#') + "\n";
  serve_catalog_text(fits, k1);
  r = device().run({"search"});
  EXPECT_EQ(r.err, "ota: the VERZEICHNIS names no package\n");
}

TEST_F(CatalogTest, SpareKeyIsNamedWhenItWasTheOneThatMatched) {
  trust(k1, &spare);
  serve_catalog_text("OTA2\nfassung\t2\n", spare);
  RunResult r = device().run({"search"});
  expect_no_package(r, "ota: checked with the SPARE KEY\n");
}

TEST_F(CatalogTest, KeyChangeIsAcceptedPersistedAndReported) {
  trust(k1, nullptr, 1);
  std::string text = "OTA2\nfassung\t2\n" + chain_line(3, k3, k2) + chain_line(2, k2, k1);
  serve_catalog_text(text, k3);
  RunResult r = device().run({"search"});
  expect_no_package(r, "ota: KEY CHANGE accepted, new generation 3\n");
  EXPECT_EQ(device().read_file("/system/schluessel.pub").value_or(""), k3.pub_bytes());
  EXPECT_EQ(device().read_file("/system/SCHLUESSELGEN").value_or(""), "00000003\n");
  // The next catalog signed with the retired key is refused.
  serve_catalog_text("OTA2\nfassung\t4\n", k1);
  r = device().run({"search"});
  EXPECT_EQ(r.err, "ota: SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED\n");
}

TEST_F(CatalogTest, BrokenChainWithACatalogSignedByTheNewestKeyIsRefusedAsBroken) {
  trust(k1, nullptr, 1);
  std::string text = "OTA2\nfassung\t2\n" + chain_line(2, k2, stranger);
  serve_catalog_text(text, k2);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.err, "ota: KEY CHANGE: the chain is BROKEN -- REJECTED\n");
  EXPECT_EQ(device().read_file("/system/schluessel.pub").value_or(""), k1.pub_bytes());
  EXPECT_EQ(device().read_file("/system/SCHLUESSELGEN").value_or(""), "00000001\n");
}

TEST_F(CatalogTest, ChainAdvancesAsFarAsItIsSound) {
  trust(k1, nullptr, 1);
  // Generation 2 is sound, generation 3 is signed by a stranger; the catalog is signed by
  // the key of generation 2 and so accepted, with the chain kept up to 2.
  std::string text = "OTA2\nfassung\t2\n" + chain_line(2, k2, k1) + chain_line(3, k3, stranger);
  serve_catalog_text(text, k2);
  RunResult r = device().run({"search"});
  expect_no_package(r, "ota: KEY CHANGE accepted, new generation 2\n");
  EXPECT_EQ(device().read_file("/system/schluessel.pub").value_or(""), k2.pub_bytes());
}

TEST_F(CatalogTest, AFailedKeyWriteRefusesTheCatalog) {
  trust(k1, nullptr, 1);
  serve_catalog_text("OTA2\nfassung\t2\n" + chain_line(2, k2, k1), k2);
  // The generation file cannot be opened for writing.
  // Its first open is the read of the generation; the opens for writing fail.
  device().add_call_fault({.number = 2, .error = -28, .nth = 2, .every = true, .path = "/system/SCHLUESSELGEN"});
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.err, "ota: KEY CHANGE: the chain is BROKEN -- REJECTED\n");
  // The key file already replaced stays replaced.
  EXPECT_EQ(device().read_file("/system/schluessel.pub").value_or(""), k2.pub_bytes());
  EXPECT_EQ(device().read_file("/system/SCHLUESSELGEN").value_or(""), "00000001\n");
}

TEST_F(CatalogTest, BlockedVersionsAreRememberedAcrossCatalogs) {
  trust(k1);
  serve_catalog_text("OTA2\nfassung\t9\ngesperrt\t7\ngesperrt\t7\ngesperrt\t9\n", k1);
  RunResult r = device().run({"search"});
  EXPECT_EQ(device().read_file("/system/GESPERRT").value_or(""), "00000007\n00000009\n");
  EXPECT_EQ(r.out, source_line() + "ota: blocked versions: 7 7 9\nota: VERSION BLOCKED -- REJECTED, offered 9\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 1);
  // A later catalog that no longer lists 7 still cannot bring it back.
  device().write_file("/system/FASSUNG", "00000006\n");
  serve_catalog_text("OTA2\nfassung\t7\npaket\ta\tw\th\t1\tf\ttavi-x86_64\n", k1);
  r = device().run({"search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, source_line() + "ota: VERSION BLOCKED -- REJECTED, offered 7\n");
}

TEST_F(CatalogTest, ABlockedOlderVersionIsReportedAsBlockedNotAsRollback) {
  trust(k1);
  device().write_file("/system/FASSUNG", "00000008\n");
  serve_catalog_text("OTA2\nfassung\t5\ngesperrt\t5\n", k1);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, source_line() + "ota: blocked versions: 5\nota: VERSION BLOCKED -- REJECTED, offered 5\n");
  EXPECT_EQ(r.err, "");
}
