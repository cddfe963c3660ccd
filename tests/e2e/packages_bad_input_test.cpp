// Catalogs that are not what they claim: the device gives its message or behaviour and
// never moves the installed version or the keys on its own.
#include "bytes.h"
#include "update_source.h"

using namespace e2e;
using tavisim::RunResult;

class BadCatalogTest : public SourceTest {
 protected:
  const TestKey k = TestKey::from_seed(41);
  void SetUp() override {
    SourceTest::SetUp();
    device().write_file("/system/schluessel.pub", k.pub_bytes());
    device().write_file("/system/FASSUNG", "00000004\n");
    device().write_file("/system/SCHLUESSELGEN", "00000001\n");
  }
  // The files a catalog must never change by itself.
  void expect_untouched() {
    EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000004\n");
    EXPECT_EQ(device().read_file("/system/schluessel.pub").value_or(""), k.pub_bytes());
    EXPECT_EQ(device().read_file("/system/SCHLUESSELGEN").value_or(""), "00000001\n");
  }
  static std::string hash_of(const std::string& data) { return sha256_hex(data); }
  // The first lines of search and apply: the source, then version 5 offered over 4.
  static std::string head() {
    return std::string("ota: source ") + kSourceUrl + "\nota: version here 4\nota: version there 5\n";
  }
  static std::string offered() { return head() + "ota: NEW VERSION available\nota: platform tavi-x86_64\n"; }
  // Serves a package file and its signature file under the given name.
  void serve_package(const std::string& name, const std::string& data, const std::string& package = "p") {
    write_all(source_ + "/" + name, data);
    write_all(source_ + "/" + name + ".sig", std::string(64, 's'));
    std::string index = package + "\t5\t" + name + "\t" + hash_of(data) + "\n";
    write_all(source_ + "/INDEX", index);
    // The installer believes an index only with a signature by the device's key.
    write_all(source_ + "/INDEX.sig", k.sign(index));
  }
};

TEST_F(BadCatalogTest, NoFinalLineFeedStillReadsTheLastLine) {
  std::string data(100, 'd');
  serve_package("p.tpk", data);
  serve_catalog_text("OTA2\nfassung\t5\npaket\tp\tw\t" + hash_of(data) + "\t100\tp.tpk\ttavi-x86_64", k);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, offered() + "ota: package p w tavi-x86_64\n");
}

TEST_F(BadCatalogTest, CarriageReturnsBecomePartOfTheLastField) {
  serve_catalog_text("OTA2\r\nfassung\t5\r\npaket\tp\tw\th\t100\tp.tpk\ttavi-x86_64\r\n", k);
  RunResult r = device().run({"search"});
  // The platform field holds "tavi-x86_64" and a CR: another platform.
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, offered() + "ota: hidden, for other platforms: 1\nota: NO PACKAGE for this platform -- nothing to do\n");
  EXPECT_EQ(r.err, "");
  expect_untouched();
}

TEST_F(BadCatalogTest, AHashInCapitalsNeverMatches) {
  std::string data(100, 'd');
  serve_package("p.tpk", data);
  std::string upper = hash_of(data);
  for (char& c : upper) c = static_cast<char>(toupper(c));
  serve_catalog_text("OTA2\nfassung\t5\npaket\tp\tw\t" + upper + "\t100\tp.tpk\ttavi-x86_64\n", k);
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: HASH MISMATCH, REJECTED: p.tpk\n");
  expect_untouched();
}

TEST_F(BadCatalogTest, AHashLongerThanSixtyFourCharactersMatchesOnItsFirstSixtyFour) {
  std::string data(100, 'd');
  serve_package("p.tpk", data);
  serve_catalog_text("OTA2\nfassung\t5\npaket\tp\tw\t" + hash_of(data) + "ff\t100\tp.tpk\ttavi-x86_64\n", k);
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, head() +
                       "ota: space 4096000000\nota: needed 524500\nota: hash ok p.tpk\nota: applying with tpk p\n"
                       "ota: READY FOR RESTART -- it will NOT\n     restart by itself. `reboot`.\n");
}

TEST_F(BadCatalogTest, AShortHashNeverMatches) {
  std::string data(100, 'd');
  serve_package("p.tpk", data);
  serve_catalog_text("OTA2\nfassung\t5\npaket\tp\tw\t" + hash_of(data).substr(0, 63) + "\t100\tp.tpk\ttavi-x86_64\n", k);
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.err, "ota: HASH MISMATCH, REJECTED: p.tpk\n");
}

TEST_F(BadCatalogTest, APackageNameIsCutAtSixtyThreeWhereInstallReadsIt) {
  std::string name(70, 'n');
  std::string data(100, 'd');
  serve_package("p.tpk", data, name.substr(0, 63));
  serve_catalog_text("OTA2\nfassung\t5\npaket\t" + name + "\tw\t" + hash_of(data) + "\t100\tp.tpk\ttavi-x86_64\n", k);
  RunResult r = device().run({"apply"});
  auto tpk = spawns_of(r.events, "/bin/tpk");
  ASSERT_GE(tpk.size(), 2u);
  EXPECT_EQ(tpk[1][2], name.substr(0, 63));
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(BadCatalogTest, FieldsMissingOrEmpty) {
  // No file name: the length check refuses it under an empty name.
  serve_catalog_text("OTA2\nfassung\t5\npaket\tp\tw\th\t100\t\ttavi-x86_64\n", k);
  RunResult r = device().run({"apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: wrong length, REJECTED: \n");
  // A line with the tag alone has no platform: hidden.
  serve_catalog_text("OTA2\nfassung\t5\npaket\t\n", k);
  r = device().run({"search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, offered() + "ota: hidden, no platform given: 1\nota: NO PACKAGE for this platform -- nothing to do\n");
  expect_untouched();
}

TEST_F(BadCatalogTest, RepeatedLinesOfEveryKind) {
  std::string data(100, 'd');
  serve_package("p.tpk", data);
  std::string line = "paket\tp\tw\t" + hash_of(data) + "\t100\tp.tpk\ttavi-x86_64\n";
  serve_catalog_text("OTA2\nfassung\t5\nfassung\t9\n" + line + line + "gesperrt\t3\ngesperrt\t3\n", k);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string("ota: source ") + kSourceUrl +
                       "\nota: blocked versions: 3 3\nota: version here 4\nota: version there 5\n"
                       "ota: NEW VERSION available\nota: platform tavi-x86_64\n"
                       "ota: package p w tavi-x86_64\nota: package p w tavi-x86_64\n");
  EXPECT_EQ(device().read_file("/system/GESPERRT").value_or(""), "00000003\n");
  // A package listed twice is installed once; its files are gone before the second
  // install, which the installer then refuses, so the version does not move.
  r = device().run({"apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, head() +
                       "ota: space 4096000000\nota: needed 524613\nota: hash ok p.tpk\nota: hash ok p.tpk\n"
                       "ota: applying with tpk p\nota: applying with tpk p\nota: tpk did not install, code 3\n");
  EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000004\n");
}

TEST_F(BadCatalogTest, AVersionThatIsNotANumberIsVersionZero) {
  serve_catalog_text("OTA2\nfassung\tfive\npaket\tp\tw\th\t1\tp.tpk\ttavi-x86_64\n", k);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: ROLLBACK REFUSED -- offered is 0, this device is already at 4\n");
  expect_untouched();
}

TEST_F(BadCatalogTest, KeyChangeLinesThatAreNotForTheNextGenerationChangeNothing) {
  const TestKey other = TestKey::from_seed(42);
  serve_catalog_text("OTA2\nfassung\t5\n" + chain_line(1, other, k) + chain_line(3, other, k), k);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, head());
  EXPECT_EQ(r.err, "ota: the VERZEICHNIS names no package\n");
  expect_untouched();
}
