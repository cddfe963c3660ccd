// check: accepts what catalog and system make, and refuses what a device would refuse: a
// changed byte, the wrong key, a missing marker, a catalog too long for the device, files
// that do not match their entries.
#include <gtest/gtest.h>

#include "publish_support.h"

using namespace publish_test;

namespace {

class CheckTest : public ::testing::Test {
 protected:
  KeyedScratch s;

  void SetUp() override {
    write_all(s("foo.tpk"), "foo package\n");
    write_all(s("bar.tpk"), "bar package\n");
    Outcome r = publish({"catalog", "--key", s.key("k0"), "--out", s("src"), "--version", "8", "--package",
                         "foo:1:" + s("foo.tpk") + ":tavi-x86_64", "--package", "bar:2:" + s("bar.tpk") + ":tavi-any"});
    ASSERT_EQ(r.status, 0) << r.err;
    expect_outcome(r, 0,
                   "ota-publish: wrote " + s("src") +
                       ": version 8, 2 package(s) (2 for tavi-x86_64), 0 blocked, 0 key change(s)\n"
                       "ota-publish: VERZEICHNIS 212 of 32767 bytes, signed by " +
                       to_hex(read_all(s.pub("k0"))) + "\n",
                   "");
  }

  Outcome check(const std::vector<std::string>& more = {}, const std::string& trusted = "k0") {
    std::vector<std::string> words = {"check", s("src"), "--trusted", s.pub(trusted)};
    words.insert(words.end(), more.begin(), more.end());
    return publish(words);
  }

  // Replaces the catalog text and signs it again with k0, as a careless release would.
  void resign(const std::string& text) {
    write_all(s("src/VERZEICHNIS"), text);
    write_all(s("src/VERZEICHNIS.sig"), openssl_sign(s.key("k0"), text));
  }

};

// What check prints of the source the fixture makes, piece by piece.
std::string verzeichnis(int bytes) { return "check: VERZEICHNIS: " + std::to_string(bytes) + " of 32767 bytes\n"; }
const std::string kSignedMarked = "check: signature ok with the key of generation 0\ncheck: marker OTA2 ok\n";
const std::string kOffered = "check: version offered: 8\n";
const std::string kFoo = "check: package foo: foo.tpk, 12 bytes, hash and signature ok, platform tavi-x86_64\n";
const std::string kBar = "check: package bar: bar.tpk, 12 bytes, hash and signature ok, platform tavi-any\n";
const std::string kIndex = "check: INDEX: 2 line(s), signature ok\n";
const std::string kAccepted = "check: ACCEPTED -- a device would take this source\n";
// The whole report of the source as the fixture made it.
const std::string kAllGood = verzeichnis(212) + kSignedMarked + kOffered + kFoo + kBar + kIndex + kAccepted;

TEST_F(CheckTest, AcceptsWhatCatalogWrote) {
  expect_outcome(check(), 0, kAllGood, "");
}

TEST_F(CheckTest, RefusesAChangedByteOfTheCatalog) {
  std::string text = read_all(s("src/VERZEICHNIS"));
  text[text.find("fassung\t8") + 8] = '9';
  write_all(s("src/VERZEICHNIS"), text);
  expect_outcome(check(), 1, verzeichnis(212), check_refused({"SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED"}));
}

TEST_F(CheckTest, RefusesTheWrongKeyAndAcceptsTheSpareFallback) {
  const std::string wrong = check_refused({"SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED"});
  expect_outcome(check({}, "k1"), 1, verzeichnis(212), wrong);
  expect_outcome(check({"--spare", s.pub("k2")}, "k1"), 1, verzeichnis(212), wrong);
  expect_outcome(check({"--spare", s.pub("k0")}, "k1"), 0,
                 verzeichnis(212) + "check: signature ok, checked with the SPARE KEY\ncheck: marker OTA2 ok\n" +
                     kOffered + kFoo + kBar + kIndex + kAccepted,
                 "");
}

TEST_F(CheckTest, RefusesAShortOrMissingSignatureAndWarnsAboutALongOne) {
  std::string sig = read_all(s("src/VERZEICHNIS.sig"));
  const std::string no_signature =
      check_refused({"NO SIGNATURE for the VERZEICHNIS (VERZEICHNIS.sig missing or shorter than 64 bytes)"});
  write_all(s("src/VERZEICHNIS.sig"), sig.substr(0, 63));
  expect_outcome(check(), 1, verzeichnis(212), no_signature);
  std::filesystem::remove(s("src/VERZEICHNIS.sig"));
  expect_outcome(check(), 1, verzeichnis(212), no_signature);
  // Only the first 64 bytes count on a device, so a longer file still passes.
  write_all(s("src/VERZEICHNIS.sig"), sig + "trailing");
  expect_outcome(check(), 0,
                 verzeichnis(212) + "check: warning: VERZEICHNIS.sig is longer than 64 bytes; devices read the first 64\n" +
                     kSignedMarked + kOffered + kFoo + kBar + kIndex + kAccepted,
                 "");
}

TEST_F(CheckTest, RefusesACorrectlySignedTextWithoutTheMarker) {
  std::string text = read_all(s("src/VERZEICHNIS"));
  const std::string not_a_catalog = check_refused({"this is not a VERZEICHNIS (marker \"OTA2\" missing at its start)"});
  const std::string signature_ok = "check: signature ok with the key of generation 0\n";
  resign("OTA3" + text.substr(4));
  expect_outcome(check(), 1, verzeichnis(212) + signature_ok, not_a_catalog);
  resign("\n" + text);  // the marker on the second line is not at the start
  expect_outcome(check(), 1, verzeichnis(213) + signature_ok, not_a_catalog);
}

TEST_F(CheckTest, RefusesACatalogLongerThanTheDeviceReads) {
  std::string text = read_all(s("src/VERZEICHNIS"));
  std::string padded = text + std::string(32767 - text.size() - 1, 'x') + "\n";
  ASSERT_EQ(padded.size(), 32767u);
  resign(padded);
  expect_outcome(check(), 0, verzeichnis(32767) + kSignedMarked + kOffered + kFoo + kBar + kIndex + kAccepted, "");
  resign(padded + "y");
  expect_outcome(check(), 1, "check: VERZEICHNIS: 32768 of 32767 bytes\n",
                 check_refused({"the VERZEICHNIS is 32768 bytes; a device reads only 32767 of them and the signature "
                                "check fails"}));
}

TEST_F(CheckTest, RefusesPackageFilesThatDoNotMatchTheirEntries) {
  // The package that fails is left out of the findings; the rest are checked as before.
  const std::string without_foo = verzeichnis(212) + kSignedMarked + kOffered + kBar + kIndex;
  write_all(s("src/foo.tpk"), "foo packagE\n");  // same length, different hash
  expect_outcome(check(), 1, without_foo,
                 check_refused({"package foo: \"foo.tpk\" has a different SHA-256 than announced"}));
  write_all(s("src/foo.tpk"), "foo package\n\n");
  expect_outcome(check(), 1, without_foo, check_refused({"package foo: \"foo.tpk\" is 13 bytes, announced 12"}));
  std::filesystem::remove(s("src/foo.tpk"));
  expect_outcome(check(), 1, without_foo,
                 check_refused({"package foo: file \"foo.tpk\" is missing from the source"}));
  write_all(s("src/foo.tpk"), read_all(s("foo.tpk")));
  write_all(s("src/foo.tpk.sig"), read_all(s("src/bar.tpk.sig")));
  expect_outcome(check(), 1, without_foo,
                 check_refused({"package foo: \"foo.tpk.sig\" does not verify with the key that signed the "
                                "VERZEICHNIS"}));
  write_all(s("src/foo.tpk.sig"), openssl_sign(s.key("k0"), read_all(s("foo.tpk"))));
  expect_outcome(check(), 0, kAllGood, "");
}

TEST_F(CheckTest, RefusesAMissingOrWrongIndex) {
  std::string index = read_all(s("src/INDEX"));
  const std::string packages_ok = verzeichnis(212) + kSignedMarked + kOffered + kFoo + kBar;
  std::filesystem::remove(s("src/INDEX.sig"));
  expect_outcome(check(), 1, packages_ok, check_refused({"INDEX: \"INDEX.sig\" is missing from the source"}));
  write_all(s("src/INDEX.sig"), openssl_sign(s.key("k1"), index));
  expect_outcome(check(), 1, packages_ok,
                 check_refused({"INDEX: \"INDEX.sig\" does not verify with the key that signed the VERZEICHNIS"}));
  std::string changed = index;
  changed[changed.find("\t8\t") + 1] = '7';
  write_all(s("src/INDEX"), changed);
  write_all(s("src/INDEX.sig"), openssl_sign(s.key("k0"), changed));
  expect_outcome(check(), 1, packages_ok,
                 check_refused({"INDEX line 1 for \"foo\" does not match the VERZEICHNIS (version or hash)"}));
  std::filesystem::remove(s("src/INDEX"));
  expect_outcome(check(), 1, packages_ok, check_refused({"INDEX is missing from the source"}));
}

TEST_F(CheckTest, RefusesFieldsADeviceWouldCutAndOffersItCannotTake) {
  std::string text = read_all(s("src/VERZEICHNIS"));
  std::string long_name = text;
  long_name.replace(long_name.find("paket\tfoo\t") + 6, 3, std::string(64, 'f'));
  resign(long_name);
  // The device's view of the line is reported too: the name cut to 63 characters.
  expect_outcome(check(), 1,
                 verzeichnis(273) + kSignedMarked + kOffered + "check: package " + std::string(63, 'f') +
                     ": foo.tpk, 12 bytes, hash and signature ok, platform tavi-x86_64\n" + kBar,
                 check_refused({"package line 1 name \"" + std::string(64, 'f') +
                                    "\" is 64 characters; a device keeps 63 and would cut it",
                                "INDEX line 1 names \"foo\" / \"foo.tpk\", which the VERZEICHNIS does not",
                                "package \"" + std::string(63, 'f') + "\" is missing from INDEX"}));

  std::string upper = text;
  std::size_t sha_at = upper.find("paket\tfoo\t1\t") + 12;
  for (std::size_t i = sha_at; i < sha_at + 64; ++i) upper[i] = static_cast<char>(std::toupper(upper[i]));
  resign(upper);
  std::string upper_sha = sha256_hex(read_all(s("foo.tpk")));
  for (char& c : upper_sha) c = static_cast<char>(std::toupper(c));
  expect_outcome(check(), 1, verzeichnis(212) + kSignedMarked + kOffered + kBar,
                 check_refused({"package line 1 SHA-256 \"" + upper_sha + "\" is not 64 lowercase hex digits",
                                "package foo: \"foo.tpk\" has a different SHA-256 than announced",
                                "INDEX line 1 for \"foo\" does not match the VERZEICHNIS (version or hash)"}));

  std::string blocked = text + "gesperrt\t8\n";
  resign(blocked);
  expect_outcome(check(), 1,
                 verzeichnis(223) + kSignedMarked + "check: blocked versions: 8\n" + kOffered + kFoo + kBar + kIndex,
                 check_refused({"the offered version 8 is blocked by the catalog itself"}));

  std::string no_version = text;
  no_version.replace(no_version.find("fassung\t8\n"), 10, "");
  resign(no_version);
  expect_outcome(check(), 1, verzeichnis(202) + kSignedMarked + "check: version offered: 0\n" + kFoo + kBar,
                 check_refused({"the catalog offers version 0 (no fassung line?), which is never installed",
                                "INDEX line 1 for \"foo\" does not match the VERZEICHNIS (version or hash)",
                                "INDEX line 2 for \"bar\" does not match the VERZEICHNIS (version or hash)"}));

  std::string other_platform = text;
  other_platform.replace(other_platform.find("tavi-x86_64"), 11, "tavi-arm64");
  other_platform.replace(other_platform.find("tavi-any"), 8, "none");
  resign(other_platform);
  expect_outcome(check(), 1,
                 verzeichnis(207) + kSignedMarked + kOffered +
                     "check: package foo: foo.tpk, 12 bytes, hash and signature ok, platform tavi-arm64\n"
                     "check: package bar: bar.tpk, 12 bytes, hash and signature ok, platform none\n" +
                     kIndex,
                 check_refused({"NO PACKAGE for this platform (tavi-x86_64 or tavi-any)"}));
}

class CheckSystemTest : public ::testing::Test {
 protected:
  KeyedScratch s;

  void SetUp() override {
    expect_outcome(publish({"kernel", "--build", "30", "--commit", "0123456789", "--out", s("tavi.mb")}), 0,
                   kernel_said(s("tavi.mb"), "30", "0123456789"), "");
    write_all(s("prog"), std::string(1000, 'p'));
    Outcome r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "30", "--commit", "0123456789",
                         "--kernel", s("tavi.mb"), "--gzip-kernel", "--file", "prog=" + s("prog") + ":gz"});
    ASSERT_EQ(r.status, 0) << r.err;
    expect_outcome(r, 0,
                   system_said(s("sys"), "build 30, commit 0123456789, 1 overlay file(s), 0 link(s)",
                               size_text(s("sys/VERZEICHNIS")), 6, s.pub("k0")),
                   "");
  }

  // Pieces of check's report on the source as SetUp made it. The sizes of the gzip
  // variants, and so of the VERZEICHNIS, are read back: they are zlib's.
  std::string head() {
    return "check: VERZEICHNIS: " + size_text(s("sys/VERZEICHNIS")) +
           " of 32767 bytes\ncheck: signature ok with the key of generation 0\ncheck: marker OTA2 ok\n";
  }
  const std::string system_line = "check: system build 30, commit 0123456789\n";
  std::string kernel_gz() {
    return "check: kernel: tavi.mb.gz, " + size_text(s("sys/tavi.mb.gz")) + " bytes, unpacks to 4096 bytes, hashes ok\n";
  }
  std::string prog_gz() {
    return "check: overlay file prog: prog.gz, " + size_text(s("sys/prog.gz")) +
           " bytes, unpacks to 1000 bytes, hashes ok\n";
  }
  const std::string overlay = "check: overlay: 1 file(s), 0 link(s), journal 6 of 7900 bytes\n";

  Outcome check() { return publish({"check", s("sys"), "--trusted", s.pub("k0"), "--system"}); }

  void resign(const std::string& text) {
    write_all(s("sys/VERZEICHNIS"), text);
    write_all(s("sys/VERZEICHNIS.sig"), openssl_sign(s.key("k0"), text));
  }
};

TEST_F(CheckSystemTest, AcceptsWhatSystemWroteAndChecksTheUnpackedFiles) {
  expect_outcome(check(), 0,
                 head() + system_line + kernel_gz() + prog_gz() + overlay +
                     "check: ACCEPTED -- a device would take this source\n",
                 "");

  // A package check of a system source finds no package.
  Outcome p = publish({"check", s("sys"), "--trusted", s.pub("k0")});
  expect_outcome(p, 1, head() + "check: version offered: 0\n",
                 check_refused({"the catalog offers version 0 (no fassung line?), which is never installed",
                                "the VERZEICHNIS names no package", "INDEX is missing from the source"}));
}

TEST_F(CheckSystemTest, RefusesAGzipVariantThatUnpacksToSomethingElse) {
  // A well-formed gzip file of other bytes, announced with its own correct size and hash:
  // only the unpacked comparison can catch it.
  std::string text = read_all(s("sys/VERZEICHNIS"));
  Outcome other = publish({"kernel", "--build", "31", "--commit", "0123456789", "--out", s("other.mb")});
  expect_outcome(other, 0, kernel_said(s("other.mb"), "31", "0123456789"), "");
  other = publish({"system", "--key", s.key("k0"), "--out", s("sys2"), "--build", "31", "--commit", "0123456789",
                   "--kernel", s("other.mb"), "--gzip-kernel"});
  expect_outcome(other, 0,
                 system_said(s("sys2"), "build 31, commit 0123456789, 0 overlay file(s), 0 link(s)",
                             size_text(s("sys2/VERZEICHNIS")), 0, s.pub("k0")),
                 "");
  std::string gz = read_all(s("sys2/other.mb.gz"));
  write_all(s("sys/tavi.mb.gz"), gz);
  std::size_t at = text.find("sysgz\tkernel\t") + 13;
  std::size_t end = text.find('\n', at);
  text.replace(at, end - at, sha256_hex(gz) + "\t" + std::to_string(gz.size()) + "\ttavi.mb.gz");
  resign(text);
  expect_outcome(check(), 1, head() + system_line + prog_gz() + overlay,
                 check_refused({"kernel: \"tavi.mb.gz\" unpacks to the wrong size or hash"}));
}

TEST_F(CheckSystemTest, RefusesAMissingKernelEntryAndBadOverlayLines) {
  std::string text = read_all(s("sys/VERZEICHNIS"));
  std::string no_kernel = text;
  std::size_t at = no_kernel.find("sysfile\tkernel\t");
  no_kernel.erase(at, no_kernel.find('\n', at) + 1 - at);
  resign(no_kernel);
  expect_outcome(check(), 1,
                 head() + system_line + prog_gz() +
                     "check: warning: gzip line 1 for \"kernel\" belongs to no entry; devices never fetch it\n" + overlay,
                 check_refused({"system manifest has no kernel entry (size above 0, name and 64-character SHA-256)"}));

  resign(text + "syslink\t/bin/sh\t/bin/prog\n");
  expect_outcome(check(), 1, head() + system_line + kernel_gz() + prog_gz() + overlay,
                 check_refused({"link \"/bin/sh\" -> \"/bin/prog\" is refused by devices: link path: an absolute path "
                                "must begin with /apps/, /etc/, /usr/share/ or /lib/ (programs in /bin are named by "
                                "their bare name)"}));

  resign(text + "sysfile\tfile\t" + std::string(64, 'a') + "\t5\tx\t/etc/" + std::string(55, 'x') + "\n");
  // The entry is then checked as a device would read it: its target cut to 59 characters.
  expect_outcome(check(), 1,
                 head() + system_line + kernel_gz() + prog_gz() +
                     "check: overlay: 2 file(s), 0 link(s), journal 67 of 7900 bytes\n",
                 check_refused({"sysfile line 3 target \"/etc/" + std::string(55, 'x') +
                                    "\" is 60 characters; a device keeps 59 and would cut it",
                                "overlay file /etc/" + std::string(54, 'x') + ": file \"x\" is missing from the source"}));

  std::string no_system = text;
  no_system.replace(no_system.find("system\t"), 7, "systen\t");
  resign(no_system);
  expect_outcome(check(), 1, head(), check_refused({"this source offers no system update (no system line)"}));
}

// A gzip member of data, made with zlib.
TEST_F(CheckSystemTest, RefusesAKernelLimineOnUefiWouldNotStartWhetherPlainOrPacked) {
  // The stand-in kernel with its header's flags changed to text mode and the checksum made
  // good again: 4096 bytes, the header at offset 52.
  std::string text_mode = read_all(s("tavi.mb"));
  const std::uint32_t flags = 0x00010000;
  const std::uint32_t sum = 0u - 0x1BADB002u - flags;
  for (int i = 0; i < 4; ++i) {
    text_mode[56 + i] = static_cast<char>((flags >> (8 * i)) & 0xff);
    text_mode[60 + i] = static_cast<char>((sum >> (8 * i)) & 0xff);
  }
  std::string text = read_all(s("sys/VERZEICHNIS"));
  std::string sha = sha256_hex(read_all(s("tavi.mb")));
  std::string packed = gzip_by_zlib(text_mode);
  write_all(s("sys/tavi.mb.gz"), packed);
  write_all(s("sys/tavi.mb"), text_mode);
  std::string announced = text;
  announced.replace(announced.find(sha), 64, sha256_hex(text_mode));
  std::size_t gz_line = announced.find("sysgz\tkernel\t");
  std::size_t gz_end = announced.find('\n', gz_line);
  announced.replace(gz_line, gz_end - gz_line,
                    "sysgz\tkernel\t" + sha256_hex(packed) + "\t" + std::to_string(packed.size()) + "\ttavi.mb.gz");
  const std::string reason =
      "check: PROBLEM: kernel \"tavi.mb\" would not start under Limine on UEFI: its multiboot1 header at offset 52 "
      "asks for text mode only (flags 0x00010000, bit 2 not set), and Limine on UEFI stops with \"PANIC: multiboot1: "
      "Cannot use text mode with UEFI.\"\n";
  // A device fetches the gzip variant and unpacks it.
  resign(announced);
  expect_outcome(check(), 1, head() + system_line + kernel_gz() + prog_gz() + overlay,
                 reason + "check: REFUSED -- 1 problem(s)\n");
  // Without the gzip line it fetches the plain file.
  std::string plain = announced;
  plain.erase(gz_line, plain.find('\n', gz_line) + 1 - gz_line);
  resign(plain);
  expect_outcome(check(), 1,
                 head() + system_line + "check: kernel: tavi.mb, 4096 bytes, hash ok\n" + prog_gz() + overlay,
                 reason + "check: REFUSED -- 1 problem(s)\n");
}

}  // namespace
