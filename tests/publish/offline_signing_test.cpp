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
    expect_outcome(publish({"kernel", "--build", "20250110", "--commit", "a1b2c3d4e5", "--out", s("tavi.mb")}), 0,
                   kernel_said(s("tavi.mb"), "20250110", "a1b2c3d4e5"), "");
    write_all(s("taskbar"), "taskbar program\n");
  }

  // What catalog prints for the package source of catalog_words(): signed with a key, or
  // unsigned with the note on what is left to sign.
  std::string catalog_said(const std::string& out, const std::string& key, int chains = 0, int bytes = 343) {
    std::string said = "ota-publish: wrote " + s(out) + ": version 12, 3 package(s) (2 for tavi-x86_64), 1 blocked, " +
                       std::to_string(chains) + " key change(s)\nota-publish: VERZEICHNIS " + std::to_string(bytes) +
                       " of 32767 bytes, ";
    if (!key.empty()) return said + "signed by " + to_hex(read_all(s.pub(key))) + "\n";
    return said +
           "UNSIGNED\n"
           "ota-publish: not signed yet; sign VERZEICHNIS INDEX foo-1.0.tpk bar-2.1.tpk arm-1.0.tpk\n"
           "ota-publish: (ota-publish sign --key KEY " +
           s(out) + "), then ota-publish check it before serving it\n";
  }

  // A catalog run that must succeed, its output compared whole.
  void make_catalog(const std::vector<std::string>& signing, const std::string& out, const std::string& key,
                    std::source_location where = std::source_location::current()) {
    Outcome r = catalog(signing, out);
    expect_outcome(r, 0, catalog_said(out, key), "", where);
  }

  // The five files a package source's signature covers, in the order sign signs them.
  std::vector<std::string> signed_files(const std::string& dir) {
    std::vector<std::string> files;
    for (const char* name : {"VERZEICHNIS", "INDEX", "foo-1.0.tpk", "bar-2.1.tpk", "arm-1.0.tpk"})
      files.push_back(s(dir + "/" + name));
    return files;
  }

  // What check prints of the package source, signed with the key of generation `gen`.
  static std::string package_checked(int bytes = 343, const std::string& chain = "", const std::string& gen = "0") {
    return "check: VERZEICHNIS: " + std::to_string(bytes) + " of 32767 bytes\n" + chain +
           "check: signature ok with the key of generation " + gen +
           "\n"
           "check: marker OTA2 ok\n"
           "check: blocked versions: 9\n"
           "check: version offered: 12\n"
           "check: package foo: foo-1.0.tpk, 16 bytes, hash and signature ok, platform tavi-x86_64\n"
           "check: package bar: bar-2.1.tpk, 3000 bytes, hash and signature ok, platform tavi-any\n"
           "check: package arm: arm-1.0.tpk, 20 bytes, hash and signature ok, platform tavi-arm64\n";
  }
  static constexpr const char* kIndexOk = "check: INDEX: 3 line(s), signature ok\n";
  static constexpr const char* kAccepted = "check: ACCEPTED -- a device would take this source\n";

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

  // `sign` refused: status 1, nothing on standard output, the one line on standard error,
  // and not one .sig file anywhere.
  void expect_sign_refused(const std::vector<std::string>& words, const std::string& message,
                           std::source_location where = std::source_location::current()) {
    std::vector<std::string> before = names_in(s("src"));
    Outcome r = publish(words);
    expect_outcome(r, 1, "", "ota-publish: " + message + "\n", where);
    ::testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "the refused signing");
    EXPECT_EQ(names_in(s("src")), before);
  }
};

TEST_F(OfflineSigning, AnUnsignedCatalogHoldsEverythingButTheSignatures) {
  make_catalog({"--unsigned"}, "src", "");
  EXPECT_EQ(names_in(s("src")),
            (std::vector<std::string>{"INDEX", "VERZEICHNIS", "arm-1.0.tpk", "bar-2.1.tpk", "foo-1.0.tpk"}));
  // What is there is byte for byte what a signed build writes.
  make_catalog({"--key", s.key("k0")}, "signed", "k0");
  for (const std::string& name : names_in(s("src"))) EXPECT_EQ(read_all(s("src/" + name)), read_all(s("signed/" + name)));
  Outcome r = publish({"check", s("src"), "--trusted", s.pub("k0")});
  expect_outcome(r, 1, "check: VERZEICHNIS: 343 of 32767 bytes\n",
                 check_refused({"NO SIGNATURE for the VERZEICHNIS (VERZEICHNIS.sig missing or shorter than 64 bytes)"}));
}

TEST_F(OfflineSigning, SigningTheDirectoryCoversEverySignatureADeviceFetches) {
  make_catalog({"--unsigned"}, "src", "");
  Outcome r = publish({"sign", "--key", s.key("k0"), s("src")});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_outcome(r, 0, sign_said(signed_files("src"), read_all(s.pub("k0"))), "");
  EXPECT_EQ(names_in(s("src")), (std::vector<std::string>{"INDEX", "INDEX.sig", "VERZEICHNIS", "VERZEICHNIS.sig",
                                                          "arm-1.0.tpk", "arm-1.0.tpk.sig", "bar-2.1.tpk",
                                                          "bar-2.1.tpk.sig", "foo-1.0.tpk", "foo-1.0.tpk.sig"}));
  make_catalog({"--key", s.key("k0")}, "signed", "k0");
  expect_same_source("src", "signed");
  r = publish({"check", s("src"), "--trusted", s.pub("k0")});
  expect_outcome(r, 0, package_checked() + kIndexOk + kAccepted, "");
}

TEST_F(OfflineSigning, SigningFileByFileGivesTheSameSource) {
  make_catalog({"--unsigned"}, "src", "");
  Outcome r = publish({"sign", "--key", s.key("k0"), s("src/VERZEICHNIS"), s("src/INDEX"), s("src/foo-1.0.tpk"),
                       s("src/bar-2.1.tpk"), s("src/arm-1.0.tpk")});
  expect_outcome(r, 0, sign_said(signed_files("src"), read_all(s.pub("k0"))), "");
  make_catalog({"--key", s.key("k0")}, "signed", "k0");
  expect_same_source("src", "signed");
}

TEST_F(OfflineSigning, ASourceMissingOneSignatureIsRefusedByCheck) {
  make_catalog({"--unsigned"}, "src", "");
  std::vector<std::string> files = {s("src/VERZEICHNIS"), s("src/foo-1.0.tpk"), s("src/bar-2.1.tpk"),
                                    s("src/arm-1.0.tpk")};
  std::vector<std::string> words = {"sign", "--key", s.key("k0")};
  words.insert(words.end(), files.begin(), files.end());
  expect_outcome(publish(words), 0, sign_said(files, read_all(s.pub("k0"))), "");
  Outcome r = publish({"check", s("src"), "--trusted", s.pub("k0")});
  expect_outcome(r, 1, package_checked(), check_refused({"INDEX: \"INDEX.sig\" is missing from the source"}));
}

TEST_F(OfflineSigning, AnUnsignedSystemSourceNeedsOnlyTheManifestSigned) {
  Outcome r = system({"--unsigned"}, "sys");
  ASSERT_EQ(r.status, 0) << r.err;
  // The sizes of the gzip variants, and so of the VERZEICHNIS, are zlib's: read back.
  const std::string summary = "build 20250110, commit a1b2c3d4e5, 1 overlay file(s), 0 link(s)\n";
  const std::string bytes = size_text(s("sys/VERZEICHNIS"));
  expect_outcome(r, 0,
                 "ota-publish: wrote " + s("sys") + ": " + summary + "ota-publish: VERZEICHNIS " + bytes +
                     " of 32767 bytes, overlay journal 9 of 7900 bytes, UNSIGNED\n"
                     "ota-publish: not signed yet; sign VERZEICHNIS\n"
                     "ota-publish: (ota-publish sign --key KEY " +
                     s("sys") + "), then ota-publish check it before serving it\n",
                 "");
  EXPECT_FALSE(exists(s("sys/VERZEICHNIS.sig")));
  r = publish({"sign", "--key", s.key("k0"), s("sys")});
  expect_outcome(r, 0, sign_said({s("sys/VERZEICHNIS")}, read_all(s.pub("k0"))), "");
  r = system({"--key", s.key("k0")}, "signed");
  expect_outcome(r, 0,
                 "ota-publish: wrote " + s("signed") + ": " + summary + "ota-publish: VERZEICHNIS " + bytes +
                     " of 32767 bytes, overlay journal 9 of 7900 bytes, signed by " + to_hex(read_all(s.pub("k0"))) +
                     "\n",
                 "");
  expect_same_source("sys", "signed");
  r = publish({"check", s("sys"), "--trusted", s.pub("k0"), "--system"});
  expect_outcome(r, 0,
                 "check: VERZEICHNIS: " + bytes +
                     " of 32767 bytes\n"
                     "check: signature ok with the key of generation 0\n"
                     "check: marker OTA2 ok\n"
                     "check: system build 20250110, commit a1b2c3d4e5\n"
                     "check: kernel: tavi.mb.gz, " +
                     size_text(s("sys/tavi.mb.gz")) +
                     " bytes, unpacks to 4096 bytes, hashes ok\n"
                     "check: overlay file taskbar: taskbar.gz, " +
                     size_text(s("sys/taskbar.gz")) +
                     " bytes, unpacks to 16 bytes, hashes ok\n"
                     "check: overlay: 1 file(s), 0 link(s), journal 9 of 7900 bytes\n" +
                     kAccepted,
                 "");
}

TEST_F(OfflineSigning, KeyChangesAreCheckedAndTheNoteNamesTheKeyThatMustSign) {
  const std::string k1 = to_hex(read_all(s.pub("k1")));
  expect_outcome(
      publish({"chain", "--signer", s.key("k0"), "--new", s.pub("k1"), "--generation", "1", "--out", s("kette-1")}), 0,
      "ota-publish: wrote " + s("kette-1") + ": key change to generation 1, new key " + k1 + "\n", "");
  Outcome r = catalog({"--unsigned"}, "src", {"--chain", s("kette-1")});
  expect_outcome(r, 0,
                 catalog_said("src", "", 1, 545) + "ota-publish: KEY must be the key of generation 1 (" + k1 +
                     ") or the spare key\n",
                 "");
  // Signed with the old key, a device that follows the change refuses it; with the new
  // key it is accepted. The signatures of the other files are the same bytes either way.
  expect_outcome(publish({"sign", "--key", s.key("k0"), s("src")}), 0,
                 sign_said(signed_files("src"), read_all(s.pub("k0"))), "");
  const std::string followed = "check: key change to generation 1 accepted, signed by the key of generation 0\n";
  expect_outcome(publish({"check", s("src"), "--trusted", s.pub("k0")}), 1,
                 "check: VERZEICHNIS: 545 of 32767 bytes\n" + followed,
                 check_refused({"SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED"}));
  expect_outcome(publish({"sign", "--force", "--key", s.key("k1"), s("src")}), 0,
                 sign_said(signed_files("src"), read_all(s.pub("k1"))), "");
  r = publish({"check", s("src"), "--trusted", s.pub("k0")});
  expect_outcome(r, 0, package_checked(545, followed, "1") + kIndexOk + kAccepted, "");

  // The key changes themselves are still checked without a signer: a step not signed by
  // the key before it is refused.
  expect_outcome(
      publish({"chain", "--signer", s.key("k0"), "--new", s.pub("k2"), "--generation", "2", "--out", s("kette-2-bad")}),
      0,
      "ota-publish: wrote " + s("kette-2-bad") + ": key change to generation 2, new key " +
          to_hex(read_all(s.pub("k2"))) + "\n",
      "");
  r = catalog({"--unsigned"}, "bad", {"--chain", s("kette-1"), "--chain", s("kette-2-bad")});
  expect_outcome(r, 1, "",
                 "ota-publish: the key change to generation 2 is not signed by the key of generation 1 (give --spare "
                 "PUB if the spare key signed it); a device would find the chain broken\n");
  EXPECT_FALSE(exists(s("bad")));
}

TEST_F(OfflineSigning, UnsignedTakesNoKey) {
  const std::string no_key = "--unsigned writes no signature, so it takes no --key (sign later with ota-publish sign)\n";
  Outcome r = catalog({"--unsigned", "--key", s.key("k0")}, "src");
  expect_outcome(r, 2, "", "ota-publish catalog: " + no_key + "(ota-publish catalog --help shows the options)\n");
  r = system({"--unsigned", "--key", s.key("k0")}, "sys");
  expect_outcome(r, 2, "", "ota-publish system: " + no_key + "(ota-publish system --help shows the options)\n");
  r = catalog({}, "src");
  expect_outcome(r, 2, "",
                 "ota-publish catalog: option --key is required\n(ota-publish catalog --help shows the options)\n");
  EXPECT_FALSE(exists(s("src")));
  EXPECT_FALSE(exists(s("sys")));
}

TEST_F(OfflineSigning, AnExistingSignatureIsReplacedOnlyWithForce) {
  make_catalog({"--unsigned"}, "src", "");
  expect_outcome(publish({"sign", "--key", s.key("k1"), s("src/VERZEICHNIS")}), 0,
                 sign_said({s("src/VERZEICHNIS")}, read_all(s.pub("k1"))), "");
  std::string wrong = read_all(s("src/VERZEICHNIS.sig"));
  // Signing the whole source stops at the one signature already there, and writes none.
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src")},
                      "signature file \"" + s("src/VERZEICHNIS.sig") + "\" already exists (give --force to replace it)");
  EXPECT_EQ(read_all(s("src/VERZEICHNIS.sig")), wrong);
  expect_outcome(publish({"sign", "--force", "--key", s.key("k0"), s("src")}), 0,
                 sign_said(signed_files("src"), read_all(s.pub("k0"))), "");
  EXPECT_TRUE(verifies(read_all(s.pub("k0")), read_all(s("src/VERZEICHNIS")), read_all(s("src/VERZEICHNIS.sig"))));
  expect_outcome(publish({"check", s("src"), "--trusted", s.pub("k0")}), 0, package_checked() + kIndexOk + kAccepted,
                 "");
}

TEST_F(OfflineSigning, APackageThatChangedOnTheWayIsRefused) {
  make_catalog({"--unsigned"}, "src", "");
  write_all(s("src/bar-2.1.tpk"), std::string(3000, 'x'));
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src")},
                      "package file \"" + s("src/bar-2.1.tpk") + "\" is not what \"" + s("src/VERZEICHNIS") +
                          "\" package line 2 announces (length or SHA-256); it changed after the catalog was made");
  write_all(s("src/bar-2.1.tpk"), read_all(s("bar-2.1.tpk")));
  std::filesystem::remove(s("src/arm-1.0.tpk"));
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src")},
                      "cannot read package file \"" + s("src/arm-1.0.tpk") + "\": No such file or directory");
}

TEST_F(OfflineSigning, ACatalogWhosePackageNamesLeaveTheDirectoryIsRefused) {
  std::filesystem::create_directories(s("src"));
  write_all(s("victim"), "a file outside the source\n");
  std::string data = read_all(s("victim"));
  write_all(s("src/VERZEICHNIS"), "OTA2\nfassung\t3\npaket\tx\tw\t" + sha256_hex(data) + "\t" + std::to_string(data.size()) +
                                "\t../victim\ttavi-any\n");
  write_all(s("src/INDEX"), "x\t3\t../victim\t" + sha256_hex(data) + "\n");
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src")},
                      "\"" + s("src/VERZEICHNIS") +
                          "\" package line 1: package file name \"../victim\" may hold only letters, digits and . _ + ~ "
                          "- (it is a download address and a file on the device)");
  EXPECT_FALSE(exists(s("victim.sig")));
}

TEST_F(OfflineSigning, WhatCannotBeSignedIsRefused) {
  make_catalog({"--key", s.key("k0")}, "src", "k0");
  std::filesystem::remove(s("src/VERZEICHNIS.sig"));
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src/INDEX.sig")},
                      "\"" + s("src/INDEX.sig") + "\" is a signature file itself; sign the file it belongs to");
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src/VERZEICHNIS"), s("src/nothing")},
                      "cannot read \"" + s("src/nothing") + "\": No such file or directory");
  expect_sign_refused({"sign", "--key", s("missing.key"), s("src/VERZEICHNIS")},
                      "cannot read private key \"" + s("missing.key") + "\": No such file or directory");
  write_all(s("src/VERZEICHNIS"), "OTA2\nfassung\t3\n" + std::string(32767, '#'));
  const std::string too_long = "\"" + s("src/VERZEICHNIS") +
                               "\" is 32782 bytes; a device reads at most 32767 of a VERZEICHNIS and its signature "
                               "would fail";
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src/VERZEICHNIS")}, too_long);
  expect_sign_refused({"sign", "--key", s.key("k0"), s("src")}, too_long);
  Outcome r = publish({"sign", "--key", s.key("k0")});
  expect_outcome(r, 2, "",
                 "ota-publish sign: sign needs at least one FILE or source directory\n(ota-publish sign --help shows "
                 "the options)\n");
}

}  // namespace
