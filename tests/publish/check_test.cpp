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

  static void expect_refusal(const Outcome& r, const std::string& message) {
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("check: REFUSED"), std::string::npos) << r.err;
    EXPECT_EQ(r.out.find("ACCEPTED"), std::string::npos) << r.out;
  }
};

TEST_F(CheckTest, AcceptsWhatCatalogWrote) {
  Outcome r = check();
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("version offered: 8"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("package foo: foo.tpk, 12 bytes, hash and signature ok"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("INDEX: 2 line(s), signature ok"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("check: ACCEPTED"), std::string::npos) << r.out;
  EXPECT_EQ(r.err, "");
}

TEST_F(CheckTest, RefusesAChangedByteOfTheCatalog) {
  std::string text = read_all(s("src/VERZEICHNIS"));
  text[text.find("fassung\t8") + 8] = '9';
  write_all(s("src/VERZEICHNIS"), text);
  expect_refusal(check(), "SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED");
}

TEST_F(CheckTest, RefusesTheWrongKeyAndAcceptsTheSpareFallback) {
  expect_refusal(check({}, "k1"), "SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED");
  expect_refusal(check({"--spare", s.pub("k2")}, "k1"), "SIGNATURE OF THE VERZEICHNIS WRONG");
  Outcome r = check({"--spare", s.pub("k0")}, "k1");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("checked with the SPARE KEY"), std::string::npos) << r.out;
}

TEST_F(CheckTest, RefusesAShortOrMissingSignatureAndWarnsAboutALongOne) {
  std::string sig = read_all(s("src/VERZEICHNIS.sig"));
  write_all(s("src/VERZEICHNIS.sig"), sig.substr(0, 63));
  expect_refusal(check(), "NO SIGNATURE for the VERZEICHNIS");
  std::filesystem::remove(s("src/VERZEICHNIS.sig"));
  expect_refusal(check(), "NO SIGNATURE");
  // Only the first 64 bytes count on a device, so a longer file still passes.
  write_all(s("src/VERZEICHNIS.sig"), sig + "trailing");
  Outcome r = check();
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("longer than 64 bytes"), std::string::npos) << r.out;
}

TEST_F(CheckTest, RefusesACorrectlySignedTextWithoutTheMarker) {
  std::string text = read_all(s("src/VERZEICHNIS"));
  resign("OTA3" + text.substr(4));
  expect_refusal(check(), "marker \"OTA2\" missing");
  resign("\n" + text);  // the marker on the second line is not at the start
  expect_refusal(check(), "marker \"OTA2\" missing");
}

TEST_F(CheckTest, RefusesACatalogLongerThanTheDeviceReads) {
  std::string text = read_all(s("src/VERZEICHNIS"));
  std::string padded = text + std::string(32767 - text.size() - 1, 'x') + "\n";
  ASSERT_EQ(padded.size(), 32767u);
  resign(padded);
  Outcome r = check();
  EXPECT_EQ(r.status, 0) << r.err;
  resign(padded + "y");
  expect_refusal(check(), "32768 bytes");
}

TEST_F(CheckTest, RefusesPackageFilesThatDoNotMatchTheirEntries) {
  write_all(s("src/foo.tpk"), "foo packagE\n");  // same length, different hash
  expect_refusal(check(), "package foo: \"foo.tpk\" has a different SHA-256");
  write_all(s("src/foo.tpk"), "foo package\n\n");
  expect_refusal(check(), "is 13 bytes, announced 12");
  std::filesystem::remove(s("src/foo.tpk"));
  expect_refusal(check(), "\"foo.tpk\" is missing");
  write_all(s("src/foo.tpk"), read_all(s("foo.tpk")));
  write_all(s("src/foo.tpk.sig"), read_all(s("src/bar.tpk.sig")));
  expect_refusal(check(), "\"foo.tpk.sig\" does not verify");
  write_all(s("src/foo.tpk.sig"), openssl_sign(s.key("k0"), read_all(s("foo.tpk"))));
  EXPECT_EQ(check().status, 0);
}

TEST_F(CheckTest, RefusesAMissingOrWrongIndex) {
  std::string index = read_all(s("src/INDEX"));
  std::filesystem::remove(s("src/INDEX.sig"));
  expect_refusal(check(), "INDEX: \"INDEX.sig\" is missing");
  write_all(s("src/INDEX.sig"), openssl_sign(s.key("k1"), index));
  expect_refusal(check(), "\"INDEX.sig\" does not verify");
  std::string changed = index;
  changed[changed.find("\t8\t") + 1] = '7';
  write_all(s("src/INDEX"), changed);
  write_all(s("src/INDEX.sig"), openssl_sign(s.key("k0"), changed));
  expect_refusal(check(), "does not match the VERZEICHNIS");
  std::filesystem::remove(s("src/INDEX"));
  expect_refusal(check(), "INDEX is missing");
}

TEST_F(CheckTest, RefusesFieldsADeviceWouldCutAndOffersItCannotTake) {
  std::string text = read_all(s("src/VERZEICHNIS"));
  std::string long_name = text;
  long_name.replace(long_name.find("paket\tfoo\t") + 6, 3, std::string(64, 'f'));
  resign(long_name);
  expect_refusal(check(), "is 64 characters; a device keeps 63 and would cut it");

  std::string upper = text;
  std::size_t sha_at = upper.find("paket\tfoo\t1\t") + 12;
  for (std::size_t i = sha_at; i < sha_at + 64; ++i) upper[i] = static_cast<char>(std::toupper(upper[i]));
  resign(upper);
  expect_refusal(check(), "is not 64 lowercase hex digits");

  std::string blocked = text + "gesperrt\t8\n";
  resign(blocked);
  expect_refusal(check(), "blocked by the catalog itself");

  std::string no_version = text;
  no_version.replace(no_version.find("fassung\t8\n"), 10, "");
  resign(no_version);
  expect_refusal(check(), "offers version 0");

  std::string other_platform = text;
  other_platform.replace(other_platform.find("tavi-x86_64"), 11, "tavi-arm64");
  other_platform.replace(other_platform.find("tavi-any"), 8, "none");
  resign(other_platform);
  expect_refusal(check(), "NO PACKAGE for this platform");
}

class CheckSystemTest : public ::testing::Test {
 protected:
  KeyedScratch s;

  void SetUp() override {
    ASSERT_EQ(publish({"kernel", "--build", "30", "--commit", "0123456789", "--out", s("tavi.mb")}).status, 0);
    write_all(s("prog"), std::string(1000, 'p'));
    Outcome r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "30", "--commit", "0123456789",
                         "--kernel", s("tavi.mb"), "--gzip-kernel", "--file", "prog=" + s("prog") + ":gz"});
    ASSERT_EQ(r.status, 0) << r.err;
  }

  Outcome check() { return publish({"check", s("sys"), "--trusted", s.pub("k0"), "--system"}); }

  void resign(const std::string& text) {
    write_all(s("sys/VERZEICHNIS"), text);
    write_all(s("sys/VERZEICHNIS.sig"), openssl_sign(s.key("k0"), text));
  }
};

TEST_F(CheckSystemTest, AcceptsWhatSystemWroteAndChecksTheUnpackedFiles) {
  Outcome r = check();
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("overlay file prog: prog.gz"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("unpacks to 1000 bytes, hashes ok"), std::string::npos) << r.out;

  // A package check of a system source finds no package.
  Outcome p = publish({"check", s("sys"), "--trusted", s.pub("k0")});
  EXPECT_EQ(p.status, 1);
}

TEST_F(CheckSystemTest, RefusesAGzipVariantThatUnpacksToSomethingElse) {
  // A well-formed gzip file of other bytes, announced with its own correct size and hash:
  // only the unpacked comparison can catch it.
  std::string text = read_all(s("sys/VERZEICHNIS"));
  Outcome other = publish({"kernel", "--build", "31", "--commit", "0123456789", "--out", s("other.mb")});
  ASSERT_EQ(other.status, 0);
  ASSERT_EQ(publish({"system", "--key", s.key("k0"), "--out", s("sys2"), "--build", "31", "--commit", "0123456789",
                     "--kernel", s("other.mb"), "--gzip-kernel"})
                .status,
            0);
  std::string gz = read_all(s("sys2/other.mb.gz"));
  write_all(s("sys/tavi.mb.gz"), gz);
  std::size_t at = text.find("sysgz\tkernel\t") + 13;
  std::size_t end = text.find('\n', at);
  text.replace(at, end - at, sha256_hex(gz) + "\t" + std::to_string(gz.size()) + "\ttavi.mb.gz");
  resign(text);
  Outcome r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("unpacks to the wrong size or hash"), std::string::npos) << r.err;
}

TEST_F(CheckSystemTest, RefusesAMissingKernelEntryAndBadOverlayLines) {
  std::string text = read_all(s("sys/VERZEICHNIS"));
  std::string no_kernel = text;
  std::size_t at = no_kernel.find("sysfile\tkernel\t");
  no_kernel.erase(at, no_kernel.find('\n', at) + 1 - at);
  resign(no_kernel);
  Outcome r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("system manifest has no kernel entry"), std::string::npos) << r.err;

  resign(text + "syslink\t/bin/sh\t/bin/prog\n");
  r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("is refused by devices"), std::string::npos) << r.err;

  resign(text + "sysfile\tfile\t" + std::string(64, 'a') + "\t5\tx\t/etc/" + std::string(55, 'x') + "\n");
  r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("target"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("would cut it"), std::string::npos) << r.err;

  std::string no_system = text;
  no_system.replace(no_system.find("system\t"), 7, "systen\t");
  resign(no_system);
  r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("no system line"), std::string::npos) << r.err;
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
  Outcome r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("check: kernel: tavi.mb.gz"), std::string::npos) << r.out;
  EXPECT_NE(r.err.find(reason), std::string::npos) << r.err;
  // Without the gzip line it fetches the plain file.
  std::string plain = announced;
  plain.erase(gz_line, plain.find('\n', gz_line) + 1 - gz_line);
  resign(plain);
  r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("check: kernel: tavi.mb, 4096 bytes, hash ok"), std::string::npos) << r.out;
  EXPECT_EQ(r.err, reason + "check: REFUSED -- 1 problem(s)\n");
}

}  // namespace
