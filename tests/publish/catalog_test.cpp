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

  // What catalog prints for a source it wrote to `out` with k0: the summary, then the
  // size of the VERZEICHNIS and the key that signed it.
  std::string wrote(const std::string& out, const std::string& summary, int bytes) {
    return "ota-publish: wrote " + s(out) + ": " + summary + "\nota-publish: VERZEICHNIS " + std::to_string(bytes) +
           " of 32767 bytes, signed by " + to_hex(read_all(s.pub("k0"))) + "\n";
  }

  // Runs a catalog command that must be refused: exit 1, nothing on standard output, the
  // one message line that names the limit and the value, and no output directory (nor a
  // temporary one) left in the scratch dir.
  void expect_refused(std::vector<std::string> more, const std::string& message,
                      std::source_location where = std::source_location::current()) {
    std::vector<std::string> before = names_in(s.path());
    Outcome r = catalog(more);
    expect_outcome(r, 1, "", "ota-publish: " + message + "\n", where);
    ::testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "the refused catalog");
    EXPECT_FALSE(exists(s("src")));
    EXPECT_EQ(names_in(s.path()), before) << "something was left behind";
  }
};

TEST_F(CatalogTest, WritesTheCatalogPackagesSignaturesAndIndex) {
  Outcome r = catalog({"--version", "12", "--package", "foo:1.0:" + s("foo-1.0.tpk") + ":tavi-x86_64", "--package",
                       "bar:2.1:" + s("bar-2.1.tpk") + ":tavi-any", "--block", "9", "--block", "10", "--extra-line",
                       "hinweis\\tnot a field"});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_outcome(r, 0, wrote("src", "version 12, 2 package(s) (2 for tavi-x86_64), 2 blocked, 0 key change(s)", 271), "");
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
  Outcome r = catalog({"--version", "3", "--package", "foo:1:" + s("foo-1.0.tpk"), "--package",
                       "bar:2:" + s("bar-2.1.tpk") + ":tavi-riscv64", "--test-source"});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_outcome(r, 0, wrote("src", "version 3, 2 package(s) (0 for tavi-x86_64), 0 blocked, 0 key change(s)", 214),
                 "ota-publish: note: package foo names no platform; tavi devices skip it\n");
  std::vector<std::string> lines = lines_of(read_all(s("src/VERZEICHNIS")));
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(fields_of(lines[2]).size(), 6u) << "tag and five fields: no platform given";
  EXPECT_EQ(fields_of(lines[3]).size(), 7u);
  EXPECT_EQ(fields_of(lines[3])[6], "tavi-riscv64");
}

TEST_F(CatalogTest, NoPackageForThisMachineIsRefusedUnlessATestSourceIsWanted) {
  const std::string no_package =
      "no package is for tavi-x86_64 or tavi-any; a tavi device finds NO PACKAGE for its platform (add :tavi-x86_64 "
      "or :tavi-any to a --package)";
  expect_refused({"--version", "3", "--package", "foo:1:" + s("foo-1.0.tpk")}, no_package);
  expect_refused({"--version", "3", "--package", "foo:1:" + s("foo-1.0.tpk") + ":tavi-arm64"}, no_package);
  expect_refused({"--version", "3"}, "no --package given; a device refuses a VERZEICHNIS that names no package");
  expect_refused({"--version", "3", "--block", "3", "--package", "foo:1:" + s("foo-1.0.tpk") + ":tavi-any"},
                 "version 3 is offered and blocked at once");
  Outcome r = catalog({"--version", "3", "--block", "3", "--package", "foo:1:" + s("foo-1.0.tpk"), "--test-source"});
  expect_outcome(r, 0, wrote("src", "version 3, 1 package(s) (0 for tavi-x86_64), 1 blocked, 0 key change(s)", 118),
                 "ota-publish: note: package foo names no platform; tavi devices skip it\n");
}

TEST_F(CatalogTest, SameInputsGiveByteIdenticalSources) {
  std::vector<std::string> args = {"--version", "4",
                                   "--package", "foo:1.0:" + s("foo-1.0.tpk") + ":tavi-x86_64",
                                   "--package", "bar:2.1:" + s("bar-2.1.tpk") + ":tavi-any",
                                   "--block",   "2"};
  const std::string summary = "version 4, 2 package(s) (2 for tavi-x86_64), 1 blocked, 0 key change(s)";
  expect_outcome(catalog(args, "a"), 0, wrote("a", summary, 237), "");
  expect_outcome(catalog(args, "b"), 0, wrote("b", summary, 237), "");
  std::vector<std::string> names = names_in(s("a"));
  ASSERT_EQ(names, names_in(s("b")));
  for (const std::string& name : names) EXPECT_EQ(read_all(s("a/" + name)), read_all(s("b/" + name))) << name;
}

TEST_F(CatalogTest, ExistingOutputIsRefusedWithoutForceAndReplacedWholeWithIt) {
  std::string given = "foo:1:" + s("foo-1.0.tpk") + ":tavi-x86_64";
  expect_outcome(catalog({"--version", "1", "--package", given}), 0,
                 wrote("src", "version 1, 1 package(s) (1 for tavi-x86_64), 0 blocked, 0 key change(s)", 119), "");
  write_all(s("src/stray"), "left from before\n");
  Outcome r = catalog({"--version", "2", "--package", given});
  expect_outcome(r, 1, "",
                 "ota-publish: output directory \"" + s("src") + "\" already exists (give --force to replace it)\n");
  EXPECT_EQ(lines_of(read_all(s("src/VERZEICHNIS")))[1], "fassung\t1");

  r = catalog({"--version", "2", "--package", given, "--force"});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_outcome(r, 0, wrote("src", "version 2, 1 package(s) (1 for tavi-x86_64), 0 blocked, 0 key change(s)", 119), "");
  EXPECT_EQ(lines_of(read_all(s("src/VERZEICHNIS")))[1], "fassung\t2");
  EXPECT_FALSE(exists(s("src/stray"))) << "the old directory is replaced, not merged";
  // Only the source itself is left beside the keys: no temporary or old directory.
  for (const std::string& name : names_in(s.path())) EXPECT_NE(name[0], '.') << name;
}

TEST_F(CatalogTest, PackageFieldLimits) {
  std::string f = s("foo-1.0.tpk");
  expect_refused({"--version", "1", "--package", std::string(64, 'n') + ":w:" + f + ":tavi-any"},
                 "package name \"" + std::string(64, 'n') + "\" is 64 characters; a device keeps at most 63");
  expect_outcome(catalog({"--version", "1", "--package", std::string(63, 'n') + ":w:" + f + ":tavi-any"}), 0,
                 wrote("src", "version 1, 1 package(s) (1 for tavi-x86_64), 0 blocked, 0 key change(s)", 176), "");
  std::filesystem::remove_all(s("src"));

  // A long value is quoted with its first 80 characters.
  expect_refused({"--version", "1", "--package", "n:" + std::string(128, 'w') + ":" + f + ":tavi-any"},
                 "second word of package n \"" + std::string(80, 'w') +
                     "...\" is 128 characters; a device keeps at most 127");
  expect_refused({"--version", "1", "--package", "n:w:" + f + ":" + std::string(32, 'p')},
                 "platform tag of package n \"" + std::string(32, 'p') +
                     "\" is 32 characters; a device keeps at most 31");
  expect_refused({"--version", "1", "--package", ":w:" + f + ":tavi-any"},
                 "package name is empty; a device reads an empty field as missing");
  expect_refused({"--version", "1", "--package", "n::" + f + ":tavi-any"},
                 "second word of package n is empty; a device reads an empty field as missing");
  const std::string breaks = " contains a control character; a TAB, LF or CR would break the line on the device";
  expect_refused({"--version", "1", "--package", "n\tx:w:" + f + ":tavi-any"}, "package name \"n\\tx\"" + breaks);
  expect_refused({"--version", "1", "--package", "n:w\r:" + f + ":tavi-any"},
                 "second word of package n \"w\\r\"" + breaks);
  expect_refused({"--version", "1", "--package", "n:w\nx:" + f + ":tavi-any"},
                 "second word of package n \"w\\nx\"" + breaks);
  expect_refused({"--version", "1", "--package", "n:w:" + f + ":tavi\tany"},
                 "platform tag of package n \"tavi\\tany\"" + breaks);
}

TEST_F(CatalogTest, FileNameLimitsIncludeTheSignatureName) {
  std::string long_name = std::string(123, 'f');
  write_all(s(long_name), "x");
  Outcome r = catalog({"--version", "1", "--package", "n:w:" + s(long_name) + ":tavi-any"});
  expect_outcome(r, 0, wrote("src", "version 1, 1 package(s) (1 for tavi-x86_64), 0 blocked, 0 key change(s)", 225), "");
  EXPECT_EQ(read_all(s("src/" + long_name + ".sig")).size(), 64u);
  std::filesystem::remove_all(s("src"));

  std::string too_long = std::string(124, 'f');
  write_all(s(too_long), "x");
  expect_refused({"--version", "1", "--package", "n:w:" + s(too_long) + ":tavi-any"},
                 "package signature name \"" + std::string(80, 'f') +
                     "...\" is 128 characters; a device keeps at most 127");
  std::string way_too_long = std::string(128, 'f');
  write_all(s(way_too_long), "x");
  expect_refused({"--version", "1", "--package", "n:w:" + s(way_too_long) + ":tavi-any"},
                 "package file name \"" + std::string(80, 'f') + "...\" is 128 characters; a device keeps at most 127");
  write_all(s("bad name.tpk"), "x");
  expect_refused({"--version", "1", "--package", "n:w:" + s("bad name.tpk") + ":tavi-any"},
                 "package file name \"bad name.tpk\" may hold only letters, digits and . _ + ~ - (it is a download "
                 "address and a file on the device)");
  write_all(s("INDEX"), "x");
  expect_refused({"--version", "1", "--package", "n:w:" + s("INDEX") + ":tavi-any"},
                 "package file name \"INDEX\" is the name of one of the source's own files");
}

TEST_F(CatalogTest, VersionsAndBlockedVersionsMustBeEightDigitNumbers) {
  std::string p = "foo:1:" + s("foo-1.0.tpk") + ":tavi-any";
  expect_refused({"--version", "1.5", "--package", p}, "version \"1.5\" is not a decimal number");
  expect_refused({"--version", "-3", "--package", p}, "version \"-3\" is not a decimal number");
  expect_refused({"--version", "", "--package", p}, "version is empty; a decimal number is needed");
  expect_refused({"--version", "0", "--package", p}, "version 0 means \"none\" on a device and is never offered");
  expect_refused({"--version", "100000000", "--package", p}, "version \"100000000\" is too large; at most 99999999");
  expect_refused({"--version", "99999999999999999999999", "--package", p},
                 "version \"99999999999999999999999\" is too large; at most 99999999");
  expect_outcome(catalog({"--version", "99999999", "--package", p}), 0,
                 wrote("src", "version 99999999, 1 package(s) (1 for tavi-x86_64), 0 blocked, 0 key change(s)", 123),
                 "");
  std::filesystem::remove_all(s("src"));
  expect_refused({"--version", "5", "--block", "x", "--package", p}, "blocked version \"x\" is not a decimal number");
  expect_refused({"--version", "5", "--block", "100000000", "--package", p},
                 "blocked version \"100000000\" is too large; at most 99999999");
  expect_refused({"--version", "5", "--block", "4", "--block", "4", "--package", p}, "blocked version 4 is given twice");
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
  expect_outcome(r, 0, wrote("src", "version 1000, 1 package(s) (1 for tavi-x86_64), 64 blocked, 0 key change(s)", 878),
                 "");
  std::filesystem::remove_all(s("src"));
  args.push_back("--block");
  args.push_back("65");
  expect_refused(args, "65 blocked versions; a device keeps at most 64 and would forget the rest");
}

TEST_F(CatalogTest, CatalogMustFit32767Bytes) {
  std::string p = "foo:1:" + s("foo-1.0.tpk") + ":tavi-any";
  const std::string summary = "version 1, 1 package(s) (1 for tavi-x86_64), 0 blocked, 0 key change(s)";
  expect_outcome(catalog({"--version", "1", "--package", p}), 0, wrote("src", summary, 116), "");
  std::size_t base = read_all(s("src/VERZEICHNIS")).size();
  std::filesystem::remove_all(s("src"));
  // An extra line that makes the text exactly 32767 bytes (its LF included) is fine.
  std::string fill(32767 - base - 1, 'x');
  Outcome r = catalog({"--version", "1", "--package", p, "--extra-line", fill});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_outcome(r, 0, wrote("src", summary, 32767), "");
  EXPECT_EQ(read_all(s("src/VERZEICHNIS")).size(), 32767u);
  std::filesystem::remove_all(s("src"));
  expect_refused({"--version", "1", "--package", p, "--extra-line", fill + "x"},
                 "the VERZEICHNIS would be 32768 bytes; a device reads at most 32767 and the signature check would "
                 "fail");
}

TEST_F(CatalogTest, ExtraLinesCannotBreakLinesOrImitateKindsDevicesRead) {
  std::string p = "foo:1:" + s("foo-1.0.tpk") + ":tavi-any";
  expect_refused({"--version", "1", "--package", p, "--extra-line", "a\nfassung\t99"},
                 "extra line \"a\\nfassung\\t99\" contains a control character; a LF or CR would start a new line "
                 "that no check has seen");
  expect_refused({"--version", "1", "--package", p, "--extra-line", "paket\tx\ty"},
                 "extra line \"paket\\tx\\ty\" is a line kind devices read; use the option made for it");
  expect_refused({"--version", "1", "--package", p, "--extra-line", "gesperrt\t1"},
                 "extra line \"gesperrt\\t1\" is a line kind devices read; use the option made for it");
}

TEST_F(CatalogTest, MissingOrEmptyPackageFilesAreNamed) {
  expect_refused({"--version", "1", "--package", "n:w:" + s("nothing.tpk") + ":tavi-any"},
                 "cannot read package file \"" + s("nothing.tpk") + "\": No such file or directory");
  write_all(s("empty.tpk"), "");
  expect_refused({"--version", "1", "--package", "n:w:" + s("empty.tpk") + ":tavi-any"},
                 "package file \"" + s("empty.tpk") + "\" is empty; a device refuses a length of 0");
  std::filesystem::create_directories(s("other"));
  write_all(s("other/foo-1.0.tpk"), "different bytes under the same name\n");
  expect_refused({"--version", "1", "--package", "a:w:" + s("foo-1.0.tpk") + ":tavi-any", "--package",
                  "b:w:" + s("other/foo-1.0.tpk") + ":tavi-any"},
                 "package file " + s("other/foo-1.0.tpk") + " and package file " + s("foo-1.0.tpk") +
                     " would both be published as \"foo-1.0.tpk\" with different contents");
  expect_refused({"--version", "1", "--package", "a:w:" + s("foo-1.0.tpk") + ":tavi-any", "--package",
                  "a:v:" + s("bar-2.1.tpk") + ":tavi-x86_64"},
                 "package \"a\" is given twice for the same platform");
}

TEST_F(CatalogTest, CommandLineMistakesExitWithStatusTwo) {
  const std::string see_help = "(ota-publish catalog --help shows the options)\n";
  Outcome r = catalog({"--version", "1", "--package", "only:two"});
  expect_outcome(r, 2, "",
                 "ota-publish catalog: --package only:two: expected NAME:WORD:FILE or NAME:WORD:FILE:PLATFORM\n" +
                     see_help);
  r = catalog({"--version", "1", "--frobnicate"});
  expect_outcome(r, 2, "", "ota-publish catalog: unknown option --frobnicate\n" + see_help);
  r = publish({"catalog", "--out", s("src"), "--version", "1"});
  expect_outcome(r, 2, "", "ota-publish catalog: option --key is required\n" + see_help);
  EXPECT_FALSE(exists(s("src")));
}

}  // namespace
