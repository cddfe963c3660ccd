// Offline signing: catalog and system --unsigned write everything but the signature files,
// `sign` makes them elsewhere (for a file or for a whole source directory), and the source
// that comes back is the very source the signing key would have made directly, which
// `check` accepts. `sign` refuses what a device could not use and writes nothing then.
#include <gtest/gtest.h>

#include "publish_support.h"

using namespace publish_test;

namespace {

class OfflineSigning : public ::testing::Test {
 protected:
  KeyedScratch s;

  void SetUp() override {
    write_all(s("foo-1.0.tpk"), "the foo package\n");
    write_all(s("bar-2.1.tpk"), std::string(3000, 'b'));
    write_all(s("arm-1.0.tpk"), "for another machine\n");
    ASSERT_EQ(publish({"kernel", "--build", "20250110", "--commit", "a1b2c3d4e5", "--out", s("tavi.mb")}).status, 0);
    write_all(s("taskbar"), "taskbar program\n");
  }

  // The catalog's words after --key KEY or --unsigned.
  std::vector<std::string> catalog_words(const std::string& out) {
    return {"--out",     s(out),
            "--version", "12",
            "--package", "foo:1.0:" + s("foo-1.0.tpk") + ":tavi-x86_64",
            "--package", "bar:2.1:" + s("bar-2.1.tpk") + ":tavi-any",
            "--package", "arm:1.0:" + s("arm-1.0.tpk") + ":tavi-arm64",
            "--block",   "9"};
  }
  Outcome catalog(const std::vector<std::string>& signing, const std::string& out,
                  const std::vector<std::string>& more = {}) {
    std::vector<std::string> words = {"catalog"};
    words.insert(words.end(), signing.begin(), signing.end());
    std::vector<std::string> rest = catalog_words(out);
    words.insert(words.end(), rest.begin(), rest.end());
    words.insert(words.end(), more.begin(), more.end());
    return publish(words);
  }
  Outcome system(const std::vector<std::string>& signing, const std::string& out) {
    std::vector<std::string> words = {"system"};
    words.insert(words.end(), signing.begin(), signing.end());
    std::vector<std::string> rest = {"--out",
                                     s(out),
                                     "--build",
                                     "20250110",
                                     "--commit",
                                     "a1b2c3d4e5",
                                     "--kernel",
                                     s("tavi.mb"),
                                     "--gzip-kernel",
                                     "--file",
                                     "taskbar=" + s("taskbar") + ":gz"};
    words.insert(words.end(), rest.begin(), rest.end());
    return publish(words);
  }

  // Two directories hold the same names with the same bytes.
  void expect_same_source(const std::string& a, const std::string& b) {
    ASSERT_EQ(names_in(s(a)), names_in(s(b)));
    for (const std::string& name : names_in(s(a))) EXPECT_EQ(read_all(s(a + "/" + name)), read_all(s(b + "/" + name))) << name;
  }

  // `sign` refused: status 1, one line on standard error, and not one .sig file anywhere.
  void expect_sign_refused(const std::vector<std::string>& words, const std::string& what) {
    std::vector<std::string> before = names_in(s("src"));
    Outcome r = publish(words);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_NE(r.err.find(what), std::string::npos) << r.err;
    EXPECT_EQ(names_in(s("src")), before);
  }
};

TEST_F(OfflineSigning, AnUnsignedCatalogHoldsEverythingButTheSignatures) {
  Outcome r = catalog({"--unsigned"}, "src");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(names_in(s("src")),
            (std::vector<std::string>{"INDEX", "VERZEICHNIS", "arm-1.0.tpk", "bar-2.1.tpk", "foo-1.0.tpk"}));
  EXPECT_NE(r.out.find("bytes, UNSIGNED\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("ota-publish: not signed yet; sign VERZEICHNIS INDEX foo-1.0.tpk bar-2.1.tpk arm-1.0.tpk\n"),
            std::string::npos)
      << r.out;
  // What is there is byte for byte what a signed build writes.
  ASSERT_EQ(catalog({"--key", s.key("k0")}, "signed").status, 0);
  for (const std::string& name : names_in(s("src"))) EXPECT_EQ(read_all(s("src/" + name)), read_all(s("signed/" + name)));
  r = publish({"check", s("src"), "--trusted", s.pub("k0")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("NO SIGNATURE for the VERZEICHNIS"), std::string::npos) << r.err;
}

TEST_F(OfflineSigning, SigningTheDirectoryCoversEverySignatureADeviceFetches) {
  ASSERT_EQ(catalog({"--unsigned"}, "src").status, 0);
  Outcome r = publish({"sign", "--key", s.key("k0"), s("src")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(names_in(s("src")), (std::vector<std::string>{"INDEX", "INDEX.sig", "VERZEICHNIS", "VERZEICHNIS.sig",
                                                          "arm-1.0.tpk", "arm-1.0.tpk.sig", "bar-2.1.tpk",
                                                          "bar-2.1.tpk.sig", "foo-1.0.tpk", "foo-1.0.tpk.sig"}));
  EXPECT_NE(r.out.find("ota-publish: 5 signature(s) by " + to_hex(read_all(s.pub("k0"))) + "\n"), std::string::npos) << r.out;
  ASSERT_EQ(catalog({"--key", s.key("k0")}, "signed").status, 0);
  expect_same_source("src", "signed");
  r = publish({"check", s("src"), "--trusted", s.pub("k0")});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("check: ACCEPTED -- a device would take this source\n"), std::string::npos);
}

TEST_F(OfflineSigning, SigningFileByFileGivesTheSameSource) {
  ASSERT_EQ(catalog({"--unsigned"}, "src").status, 0);
  Outcome r = publish({"sign", "--key", s.key("k0"), s("src/VERZEICHNIS"), s("src/INDEX"), s("src/foo-1.0.tpk"),
                       s("src/bar-2.1.tpk"), s("src/arm-1.0.tpk")});
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_EQ(catalog({"--key", s.key("k0")}, "signed").status, 0);
  expect_same_source("src", "signed");
}

TEST_F(OfflineSigning, ASourceMissingOneSignatureIsRefusedByCheck) {
  ASSERT_EQ(catalog({"--unsigned"}, "src").status, 0);
  ASSERT_EQ(publish({"sign", "--key", s.key("k0"), s("src/VERZEICHNIS"), s("src/foo-1.0.tpk"), s("src/bar-2.1.tpk"),
                     s("src/arm-1.0.tpk")})
                .status,
            0);
  Outcome r = publish({"check", s("src"), "--trusted", s.pub("k0")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("INDEX: \"INDEX.sig\" is missing from the source"), std::string::npos) << r.err;
}

TEST_F(OfflineSigning, AnUnsignedSystemSourceNeedsOnlyTheManifestSigned) {
  Outcome r = system({"--unsigned"}, "sys");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("ota-publish: not signed yet; sign VERZEICHNIS\n"), std::string::npos) << r.out;
  EXPECT_FALSE(exists(s("sys/VERZEICHNIS.sig")));
  r = publish({"sign", "--key", s.key("k0"), s("sys")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("ota-publish: 1 signature(s) by"), std::string::npos) << r.out;
  ASSERT_EQ(system({"--key", s.key("k0")}, "signed").status, 0);
  expect_same_source("sys", "signed");
  r = publish({"check", s("sys"), "--trusted", s.pub("k0"), "--system"});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST_F(OfflineSigning, KeyChangesAreCheckedAndTheNoteNamesTheKeyThatMustSign) {
  ASSERT_EQ(
      publish({"chain", "--signer", s.key("k0"), "--new", s.pub("k1"), "--generation", "1", "--out", s("kette-1")})
          .status,
      0);
  Outcome r = catalog({"--unsigned"}, "src", {"--chain", s("kette-1")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(
      r.out.find("ota-publish: KEY must be the key of generation 1 (" + to_hex(read_all(s.pub("k1"))) + ") or the spare key\n"),
      std::string::npos)
      << r.out;
  // Signed with the old key, a device that follows the change refuses it; with the new
  // key it is accepted.
  ASSERT_EQ(publish({"sign", "--key", s.key("k0"), s("src")}).status, 0);
  EXPECT_EQ(publish({"check", s("src"), "--trusted", s.pub("k0")}).status, 1);
  ASSERT_EQ(publish({"sign", "--force", "--key", s.key("k1"), s("src")}).status, 0);
  r = publish({"check", s("src"), "--trusted", s.pub("k0")});
  EXPECT_EQ(r.status, 0) << r.out << r.err;

  // The key changes themselves are still checked without a signer: a step not signed by
  // the key before it is refused.
  ASSERT_EQ(
      publish({"chain", "--signer", s.key("k0"), "--new", s.pub("k2"), "--generation", "2", "--out", s("kette-2-bad")})
          .status,
      0);
  r = catalog({"--unsigned"}, "bad", {"--chain", s("kette-1"), "--chain", s("kette-2-bad")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("the key change to generation 2 is not signed by the key of generation 1"), std::string::npos)
      << r.err;
  EXPECT_FALSE(exists(s("bad")));
}

TEST_F(OfflineSigning, UnsignedTakesNoKey) {
  Outcome r = catalog({"--unsigned", "--key", s.key("k0")}, "src");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("--unsigned writes no signature, so it takes no --key"), std::string::npos) << r.err;
  r = system({"--unsigned", "--key", s.key("k0")}, "sys");
  EXPECT_EQ(r.status, 2);
  r = catalog({}, "src");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("option --key is required"), std::string::npos) << r.err;
  EXPECT_FALSE(exists(s("src")));
  EXPECT_FALSE(exists(s("sys")));
}

TEST_F(OfflineSigning, AnExistingSignatureIsReplacedOnlyWithForce) {
  ASSERT_EQ(catalog({"--unsigned"}, "src").status, 0);
  ASSERT_EQ(publish({"sign", "--key", s.key("k1"), s("src/VERZEICHNIS")}).status, 0);
  std::string wrong = read_all(s("src/VERZEICHNIS.sig"));
  // Signing the whole source stops at the one signature already there, and writes none.
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src")},
                      "signature file \"" + s("src/VERZEICHNIS.sig") + "\" already exists (give --force");
  EXPECT_EQ(read_all(s("src/VERZEICHNIS.sig")), wrong);
  ASSERT_EQ(publish({"sign", "--force", "--key", s.key("k0"), s("src")}).status, 0);
  EXPECT_TRUE(verifies(read_all(s.pub("k0")), read_all(s("src/VERZEICHNIS")), read_all(s("src/VERZEICHNIS.sig"))));
  EXPECT_EQ(publish({"check", s("src"), "--trusted", s.pub("k0")}).status, 0);
}

TEST_F(OfflineSigning, APackageThatChangedOnTheWayIsRefused) {
  ASSERT_EQ(catalog({"--unsigned"}, "src").status, 0);
  write_all(s("src/bar-2.1.tpk"), std::string(3000, 'x'));
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src")}, "package file \"" + s("src/bar-2.1.tpk") +
                                                                    "\" is not what \"" + s("src/VERZEICHNIS") +
                                                                    "\" package line 2 announces (length or SHA-256)");
  write_all(s("src/bar-2.1.tpk"), read_all(s("bar-2.1.tpk")));
  std::filesystem::remove(s("src/arm-1.0.tpk"));
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src")}, "cannot read package file");
}

TEST_F(OfflineSigning, ACatalogWhosePackageNamesLeaveTheDirectoryIsRefused) {
  std::filesystem::create_directories(s("src"));
  write_all(s("victim"), "a file outside the source\n");
  std::string data = read_all(s("victim"));
  write_all(s("src/VERZEICHNIS"), "OTA2\nfassung\t3\npaket\tx\tw\t" + sha256_hex(data) + "\t" + std::to_string(data.size()) +
                                "\t../victim\ttavi-any\n");
  write_all(s("src/INDEX"), "x\t3\t../victim\t" + sha256_hex(data) + "\n");
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src")}, "may hold only letters, digits");
  EXPECT_FALSE(exists(s("victim.sig")));
}

TEST_F(OfflineSigning, WhatCannotBeSignedIsRefused) {
  ASSERT_EQ(catalog({"--key", s.key("k0")}, "src").status, 0);
  std::filesystem::remove(s("src/VERZEICHNIS.sig"));
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src/INDEX.sig")}, "is a signature file itself");
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src/VERZEICHNIS"), s("src/nothing")},
                      "cannot read \"" + s("src/nothing") + "\"");
  expect_sign_refused({"sign", "--key", s("missing.key"), s("src/VERZEICHNIS")}, "missing.key");
  write_all(s("src/VERZEICHNIS"), "OTA2\nfassung\t3\n" + std::string(32767, '#'));
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src/VERZEICHNIS")},
                      "a device reads at most 32767 of a VERZEICHNIS");
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src")}, "a device reads at most 32767 of a VERZEICHNIS");
  Outcome r = publish({"sign", "--key", s.key("k0")});
  EXPECT_EQ(r.status, 2);
}

}  // namespace
