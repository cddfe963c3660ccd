// catalog: what a package source holds, that every signature in it verifies over the exact
// file bytes, that the same inputs give the same bytes, and that a release a device would
// cut or refuse is refused before anything is written.
#include <gtest/gtest.h>

#include "publish_support.h"

using namespace publish_test;

namespace {

class CatalogTest : public ::testing::Test {
 protected:
  KeyedScratch s;

  void SetUp() override {
    write_all(s("foo-1.0.tpk"), "the foo package\n");
    write_all(s("bar-2.1.tpk"), std::string(3000, 'b'));
  }

  Outcome catalog(std::vector<std::string> more, const std::string& out = "src") {
    std::vector<std::string> words = {"catalog", "--key", s.key("k0"), "--out", s(out)};
    words.insert(words.end(), more.begin(), more.end());
    return publish(words);
  }

  // Runs a catalog command that must be refused: exit 1, the message names the limit and
  // the value, and no output directory (nor a temporary one) is left in the scratch dir.
  void expect_refused(std::vector<std::string> more, const std::vector<std::string>& message_parts) {
    std::vector<std::string> before = names_in(s.path());
    Outcome r = catalog(more);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    for (const std::string& part : message_parts) EXPECT_NE(r.err.find(part), std::string::npos) << r.err;
    EXPECT_FALSE(exists(s("src")));
    EXPECT_EQ(names_in(s.path()), before) << "something was left behind";
  }
};

TEST_F(CatalogTest, WritesTheCatalogPackagesSignaturesAndIndex) {
  Outcome r = catalog({"--version", "12", "--package", "foo:1.0:" + s("foo-1.0.tpk") + ":tavi-x86_64", "--package",
                       "bar:2.1:" + s("bar-2.1.tpk") + ":tavi-any", "--block", "9", "--block", "10", "--extra-line",
                       "hinweis\\tnot a field"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(names_in(s("src")),
            (std::vector<std::string>{"INDEX", "INDEX.sig", "VERZEICHNIS", "VERZEICHNIS.sig", "bar-2.1.tpk",
                                      "bar-2.1.tpk.sig", "foo-1.0.tpk", "foo-1.0.tpk.sig"}));
  std::string foo = read_all(s("foo-1.0.tpk"));
  std::string bar = read_all(s("bar-2.1.tpk"));
  std::string expected =
      "OTA2\n"
      "fassung\t12\n"
      "paket\tfoo\t1.0\t" +
      sha256_hex(foo) + "\t" + std::to_string(foo.size()) +
      "\tfoo-1.0.tpk\ttavi-x86_64\n"
      "paket\tbar\t2.1\t" +
      sha256_hex(bar) +
      "\t3000\tbar-2.1.tpk\ttavi-any\n"
      "gesperrt\t9\n"
      "gesperrt\t10\n"
      "hinweis\\tnot a field\n";
  EXPECT_EQ(read_all(s("src/VERZEICHNIS")), expected);
  EXPECT_EQ(read_all(s("src/INDEX")),
            "foo\t12\tfoo-1.0.tpk\t" + sha256_hex(foo) + "\nbar\t12\tbar-2.1.tpk\t" + sha256_hex(bar) + "\n");
  EXPECT_EQ(read_all(s("src/foo-1.0.tpk")), foo);
  EXPECT_EQ(read_all(s("src/bar-2.1.tpk")), bar);

  std::string pub = read_all(s.pub("k0"));
  for (const char* name : {"VERZEICHNIS", "INDEX", "foo-1.0.tpk", "bar-2.1.tpk"}) {
    std::string sig = read_all(s("src/") + name + ".sig");
    ASSERT_EQ(sig.size(), 64u) << name;
    EXPECT_TRUE(verifies(pub, read_all(s("src/") + name), sig)) << name;
    EXPECT_FALSE(openssl_verifies(read_all(s.pub("k1")), read_all(s("src/") + name), sig)) << name;
  }
  // The signature covers the bytes exactly: one byte more or less breaks it.
  std::string text = read_all(s("src/VERZEICHNIS"));
  std::string sig = read_all(s("src/VERZEICHNIS.sig"));
  EXPECT_FALSE(openssl_verifies(pub, text + "\n", sig));
  EXPECT_FALSE(openssl_verifies(pub, text.substr(0, text.size() - 1), sig));
}

TEST_F(CatalogTest, PlatformIsOmittedOrWrittenAsTheSixthField) {
  ASSERT_EQ(catalog({"--version", "3", "--package", "foo:1:" + s("foo-1.0.tpk"), "--package",
                     "bar:2:" + s("bar-2.1.tpk") + ":tavi-riscv64", "--test-source"})
                .status,
            0);
  std::vector<std::string> lines = lines_of(read_all(s("src/VERZEICHNIS")));
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(fields_of(lines[2]).size(), 6u) << "tag and five fields: no platform given";
  EXPECT_EQ(fields_of(lines[3]).size(), 7u);
  EXPECT_EQ(fields_of(lines[3])[6], "tavi-riscv64");
}

TEST_F(CatalogTest, NoPackageForThisMachineIsRefusedUnlessATestSourceIsWanted) {
  expect_refused({"--version", "3", "--package", "foo:1:" + s("foo-1.0.tpk")}, {"NO PACKAGE", "tavi-x86_64"});
  expect_refused({"--version", "3", "--package", "foo:1:" + s("foo-1.0.tpk") + ":tavi-arm64"}, {"NO PACKAGE"});
  expect_refused({"--version", "3"}, {"no --package"});
  expect_refused({"--version", "3", "--block", "3", "--package", "foo:1:" + s("foo-1.0.tpk") + ":tavi-any"},
                 {"offered and blocked"});
  Outcome r = catalog({"--version", "3", "--block", "3", "--package", "foo:1:" + s("foo-1.0.tpk"), "--test-source"});
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(CatalogTest, SameInputsGiveByteIdenticalSources) {
  std::vector<std::string> args = {"--version", "4",
                                   "--package", "foo:1.0:" + s("foo-1.0.tpk") + ":tavi-x86_64",
                                   "--package", "bar:2.1:" + s("bar-2.1.tpk") + ":tavi-any",
                                   "--block",   "2"};
  ASSERT_EQ(catalog(args, "a").status, 0);
  ASSERT_EQ(catalog(args, "b").status, 0);
  std::vector<std::string> names = names_in(s("a"));
  ASSERT_EQ(names, names_in(s("b")));
  for (const std::string& name : names) EXPECT_EQ(read_all(s("a/" + name)), read_all(s("b/" + name))) << name;
}

TEST_F(CatalogTest, ExistingOutputIsRefusedWithoutForceAndReplacedWholeWithIt) {
  std::string given = "foo:1:" + s("foo-1.0.tpk") + ":tavi-x86_64";
  ASSERT_EQ(catalog({"--version", "1", "--package", given}).status, 0);
  write_all(s("src/stray"), "left from before\n");
  Outcome r = catalog({"--version", "2", "--package", given});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("already exists"), std::string::npos) << r.err;
  EXPECT_EQ(lines_of(read_all(s("src/VERZEICHNIS")))[1], "fassung\t1");

  r = catalog({"--version", "2", "--package", given, "--force"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(lines_of(read_all(s("src/VERZEICHNIS")))[1], "fassung\t2");
  EXPECT_FALSE(exists(s("src/stray"))) << "the old directory is replaced, not merged";
  // Only the source itself is left beside the keys: no temporary or old directory.
  for (const std::string& name : names_in(s.path())) EXPECT_NE(name[0], '.') << name;
}

TEST_F(CatalogTest, PackageFieldLimits) {
  std::string f = s("foo-1.0.tpk");
  expect_refused({"--version", "1", "--package", std::string(64, 'n') + ":w:" + f + ":tavi-any"},
                 {"package name", "64 characters", "at most 63"});
  EXPECT_EQ(catalog({"--version", "1", "--package", std::string(63, 'n') + ":w:" + f + ":tavi-any"}).status, 0);
  std::filesystem::remove_all(s("src"));

  expect_refused({"--version", "1", "--package", "n:" + std::string(128, 'w') + ":" + f + ":tavi-any"},
                 {"second word", "128 characters", "at most 127"});
  expect_refused({"--version", "1", "--package", "n:w:" + f + ":" + std::string(32, 'p')},
                 {"platform tag", "32 characters", "at most 31"});
  expect_refused({"--version", "1", "--package", ":w:" + f + ":tavi-any"}, {"package name is empty"});
  expect_refused({"--version", "1", "--package", "n::" + f + ":tavi-any"}, {"second word", "empty"});
  expect_refused({"--version", "1", "--package", "n\tx:w:" + f + ":tavi-any"}, {"package name", "\\t", "control"});
  expect_refused({"--version", "1", "--package", "n:w\r:" + f + ":tavi-any"}, {"second word", "\\r"});
  expect_refused({"--version", "1", "--package", "n:w\nx:" + f + ":tavi-any"}, {"\\n"});
  expect_refused({"--version", "1", "--package", "n:w:" + f + ":tavi\tany"}, {"platform tag", "\\t"});
}

TEST_F(CatalogTest, FileNameLimitsIncludeTheSignatureName) {
  std::string long_name = std::string(123, 'f');
  write_all(s(long_name), "x");
  Outcome r = catalog({"--version", "1", "--package", "n:w:" + s(long_name) + ":tavi-any"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(read_all(s("src/" + long_name + ".sig")).size(), 64u);
  std::filesystem::remove_all(s("src"));

  std::string too_long = std::string(124, 'f');
  write_all(s(too_long), "x");
  expect_refused({"--version", "1", "--package", "n:w:" + s(too_long) + ":tavi-any"},
                 {"package signature name", "128 characters", "at most 127"});
  std::string way_too_long = std::string(128, 'f');
  write_all(s(way_too_long), "x");
  expect_refused({"--version", "1", "--package", "n:w:" + s(way_too_long) + ":tavi-any"},
                 {"package file name", "128 characters", "at most 127"});
  write_all(s("bad name.tpk"), "x");
  expect_refused({"--version", "1", "--package", "n:w:" + s("bad name.tpk") + ":tavi-any"},
                 {"package file name", "\"bad name.tpk\""});
  write_all(s("INDEX"), "x");
  expect_refused({"--version", "1", "--package", "n:w:" + s("INDEX") + ":tavi-any"}, {"source's own files"});
}

TEST_F(CatalogTest, VersionsAndBlockedVersionsMustBeEightDigitNumbers) {
  std::string p = "foo:1:" + s("foo-1.0.tpk") + ":tavi-any";
  expect_refused({"--version", "1.5", "--package", p}, {"version", "\"1.5\"", "not a decimal number"});
  expect_refused({"--version", "-3", "--package", p}, {"version"});
  expect_refused({"--version", "", "--package", p}, {"version is empty"});
  expect_refused({"--version", "0", "--package", p}, {"version 0"});
  expect_refused({"--version", "100000000", "--package", p}, {"\"100000000\"", "at most 99999999"});
  expect_refused({"--version", "99999999999999999999999", "--package", p}, {"at most 99999999"});
  EXPECT_EQ(catalog({"--version", "99999999", "--package", p}).status, 0);
  std::filesystem::remove_all(s("src"));
  expect_refused({"--version", "5", "--block", "x", "--package", p}, {"blocked version", "\"x\""});
  expect_refused({"--version", "5", "--block", "100000000", "--package", p}, {"blocked version", "at most 99999999"});
  expect_refused({"--version", "5", "--block", "4", "--block", "4", "--package", p}, {"blocked version 4", "twice"});
}

TEST_F(CatalogTest, AtMostSixtyFourBlockedVersions) {
  std::string p = "foo:1:" + s("foo-1.0.tpk") + ":tavi-any";
  std::vector<std::string> args = {"--version", "1000", "--package", p};
  for (int v = 1; v <= 64; ++v) {
    args.push_back("--block");
    args.push_back(std::to_string(v));
  }
  Outcome r = catalog(args);
  ASSERT_EQ(r.status, 0) << r.err;
  std::filesystem::remove_all(s("src"));
  args.push_back("--block");
  args.push_back("65");
  expect_refused(args, {"65 blocked versions", "at most 64"});
}

TEST_F(CatalogTest, CatalogMustFit32767Bytes) {
  std::string p = "foo:1:" + s("foo-1.0.tpk") + ":tavi-any";
  ASSERT_EQ(catalog({"--version", "1", "--package", p}).status, 0);
  std::size_t base = read_all(s("src/VERZEICHNIS")).size();
  std::filesystem::remove_all(s("src"));
  // An extra line that makes the text exactly 32767 bytes (its LF included) is fine.
  std::string fill(32767 - base - 1, 'x');
  Outcome r = catalog({"--version", "1", "--package", p, "--extra-line", fill});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(read_all(s("src/VERZEICHNIS")).size(), 32767u);
  std::filesystem::remove_all(s("src"));
  expect_refused({"--version", "1", "--package", p, "--extra-line", fill + "x"}, {"32768 bytes", "32767"});
}

TEST_F(CatalogTest, ExtraLinesCannotBreakLinesOrImitateKindsDevicesRead) {
  std::string p = "foo:1:" + s("foo-1.0.tpk") + ":tavi-any";
  expect_refused({"--version", "1", "--package", p, "--extra-line", "a\nfassung\t99"}, {"extra line", "control"});
  expect_refused({"--version", "1", "--package", p, "--extra-line", "paket\tx\ty"}, {"line kind devices read"});
  expect_refused({"--version", "1", "--package", p, "--extra-line", "gesperrt\t1"}, {"line kind devices read"});
}

TEST_F(CatalogTest, MissingOrEmptyPackageFilesAreNamed) {
  expect_refused({"--version", "1", "--package", "n:w:" + s("nothing.tpk") + ":tavi-any"},
                 {"package file", "nothing.tpk"});
  write_all(s("empty.tpk"), "");
  expect_refused({"--version", "1", "--package", "n:w:" + s("empty.tpk") + ":tavi-any"}, {"empty.tpk", "empty"});
  std::filesystem::create_directories(s("other"));
  write_all(s("other/foo-1.0.tpk"), "different bytes under the same name\n");
  expect_refused({"--version", "1", "--package", "a:w:" + s("foo-1.0.tpk") + ":tavi-any", "--package",
                  "b:w:" + s("other/foo-1.0.tpk") + ":tavi-any"},
                 {"foo-1.0.tpk", "different contents"});
  expect_refused({"--version", "1", "--package", "a:w:" + s("foo-1.0.tpk") + ":tavi-any", "--package",
                  "a:v:" + s("bar-2.1.tpk") + ":tavi-x86_64"},
                 {"\"a\" is given twice"});
}

TEST_F(CatalogTest, CommandLineMistakesExitWithStatusTwo) {
  Outcome r = catalog({"--version", "1", "--package", "only:two"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("NAME:WORD:FILE"), std::string::npos) << r.err;
  r = catalog({"--version", "1", "--frobnicate"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("unknown option --frobnicate"), std::string::npos) << r.err;
  r = publish({"catalog", "--out", s("src"), "--version", "1"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("--key is required"), std::string::npos) << r.err;
  EXPECT_FALSE(exists(s("src")));
}

TEST(Help, EveryCommandDescribesItself) {
  for (const char* command : {"keygen", "chain", "catalog", "system", "kernel", "check"}) {
    Outcome r = publish({command, "--help"});
    EXPECT_EQ(r.status, 0) << command;
    EXPECT_EQ(r.out.rfind(std::string("usage: ota-publish ") + command, 0), 0u) << r.out;
  }
  Outcome r = publish({"--help"});
  EXPECT_EQ(r.status, 0);
  for (const char* command : {"keygen", "chain", "catalog", "system", "kernel", "check"}) {
    EXPECT_NE(r.out.find(command), std::string::npos);
  }
  r = publish({"frobnicate"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("unknown command"), std::string::npos);
}

}  // namespace
