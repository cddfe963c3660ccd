// Key changes: each "kette" line is signed by the key of the generation before it (or the
// spare key) over "tavi-schluessel" TAB generation TAB key field, and check follows them
// from a device's generation the way the device does.
#include <gtest/gtest.h>

#include "publish_support.h"

using namespace publish_test;

namespace {

class ChainTest : public ::testing::Test {
 protected:
  KeyedScratch s;

  void SetUp() override { write_all(s("pkg"), "package bytes\n"); }

  Outcome chain(const std::string& signer, const std::string& next, const std::string& gen, const std::string& out) {
    return publish({"chain", "--signer", s.key(signer), "--new", s.pub(next), "--generation", gen, "--out", s(out)});
  }

  // A package catalog signed with `key` that carries the given key-change files.
  Outcome catalog(const std::string& key, const std::vector<std::string>& chains, const std::string& out = "src",
                  const std::vector<std::string>& more = {}) {
    std::vector<std::string> words = {"catalog", "--key",     s.key(key),
                                      "--out",   s(out),      "--version",
                                      "7",       "--package", "p:w:" + s("pkg") + ":tavi-x86_64"};
    for (const std::string& c : chains) {
      words.push_back("--chain");
      words.push_back(s(c));
    }
    words.insert(words.end(), more.begin(), more.end());
    return publish(words);
  }

  Outcome check(const std::string& trusted, const std::vector<std::string>& more = {}, const std::string& dir = "src") {
    std::vector<std::string> words = {"check", s(dir), "--trusted", s.pub(trusted)};
    words.insert(words.end(), more.begin(), more.end());
    return publish(words);
  }

  // What chain prints for a key change it wrote to `out`.
  std::string chain_said(const std::string& out, const std::string& gen, const std::string& next) {
    return "ota-publish: wrote " + s(out) + ": key change to generation " + gen + ", new key " + hex_of(next) + "\n";
  }

  // What catalog prints for a source of the one package p, version 7.
  std::string catalog_said(const std::string& out, int chains, int bytes, const std::string& signer) {
    return "ota-publish: wrote " + s(out) + ": version 7, 1 package(s) (1 for tavi-x86_64), 0 blocked, " +
           std::to_string(chains) + " key change(s)\nota-publish: VERZEICHNIS " + std::to_string(bytes) +
           " of 32767 bytes, signed by " + hex_of(signer) + "\n";
  }

  // The VERZEICHNIS of a source of the one package p, version 7, up to its key changes.
  std::string catalog_head() {
    return "OTA2\nfassung\t7\npaket\tp\tw\t" + sha256_hex(read_all(s("pkg"))) + "\t14\tpkg\ttavi-x86_64\n";
  }

  std::string hex_of(const std::string& key) { return to_hex(read_all(s.pub(key))); }

  // A chain step that must be written.
  void expect_chain(const std::string& signer, const std::string& next, const std::string& gen, const std::string& out,
                    std::source_location where = std::source_location::current()) {
    expect_outcome(chain(signer, next, gen, out), 0, chain_said(out, gen, next), "", where);
  }

  void make_three_steps() {
    expect_chain("k0", "k1", "1", "c1");
    expect_chain("k1", "k2", "2", "c2");
    expect_chain("k2", "k3", "3", "c3");
  }
};

// What check prints after the signature of a package source of the one package p.
const std::string kPackageChecked =
    "check: marker OTA2 ok\n"
    "check: version offered: 7\n"
    "check: package p: pkg, 14 bytes, hash and signature ok, platform tavi-x86_64\n"
    "check: INDEX: 1 line(s), signature ok\n"
    "check: ACCEPTED -- a device would take this source\n";

const std::string kSignedByNewest =
    "the signing key is not the key of generation 3, the newest key change; a device that follows the changes checks "
    "the catalog with that key (give --spare PUB if the catalog is signed with the spare key)\n";

// The three lines check writes to standard error when the walk stops after `gen`.
std::string broken_after(const std::string& gen) {
  return "check: PROBLEM: KEY CHANGE: the chain is BROKEN after generation " + gen +
         "\ncheck: PROBLEM: KEY CHANGE: the chain is BROKEN -- REJECTED\ncheck: REFUSED -- 2 problem(s)\n";
}

TEST_F(ChainTest, ThreeKeyChangesVerifyGenerationByGenerationOverTheExactSignedText) {
  make_three_steps();
  const char* files[] = {"c1", "c2", "c3"};
  const char* signers[] = {"k0", "k1", "k2"};
  const char* keys[] = {"k1", "k2", "k3"};
  for (int i = 0; i < 3; ++i) {
    std::string text = read_all(s(files[i]));
    ASSERT_EQ(text.back(), '\n');
    std::vector<std::string> lines = lines_of(text);
    ASSERT_EQ(lines.size(), 1u);
    std::vector<std::string> f = fields_of(lines[0]);
    ASSERT_EQ(f.size(), 4u);
    EXPECT_EQ(f[0], "kette");
    EXPECT_EQ(f[1], std::to_string(i + 1));
    EXPECT_EQ(f[2], to_hex(read_all(s.pub(keys[i])))) << "the new key, 64 lowercase hex digits";
    ASSERT_EQ(f[3].size(), 128u);
    std::string signed_text = "tavi-schluessel\t" + std::to_string(i + 1) + "\t" + f[2];
    std::string sig = unhex(f[3]);
    EXPECT_TRUE(verifies(read_all(s.pub(signers[i])), signed_text, sig)) << "generation " << i + 1;
    // Not the next key's, nor the text with a LF, nor another generation number.
    EXPECT_FALSE(openssl_verifies(read_all(s.pub(keys[i])), signed_text, sig));
    EXPECT_FALSE(openssl_verifies(read_all(s.pub(signers[i])), signed_text + "\n", sig));
    EXPECT_FALSE(
        openssl_verifies(read_all(s.pub(signers[i])), "tavi-schluessel\t" + std::to_string(i + 2) + "\t" + f[2], sig));
  }
}

TEST_F(ChainTest, CatalogCarriesTheLinesAndCheckWalksToTheNewestKey) {
  make_three_steps();
  Outcome r = catalog("k3", {"c1", "c2", "c3"});
  expect_outcome(r, 0, catalog_said("src", 3, 715, "k3"), "");
  std::string text = read_all(s("src/VERZEICHNIS"));
  EXPECT_EQ(text, catalog_head() + read_all(s("c1")) + read_all(s("c2")) + read_all(s("c3")));
  EXPECT_TRUE(verifies(read_all(s.pub("k3")), text, read_all(s("src/VERZEICHNIS.sig"))));

  r = check("k0");
  expect_outcome(r, 0,
                 "check: VERZEICHNIS: 715 of 32767 bytes\n"
                 "check: key change to generation 1 accepted, signed by the key of generation 0\n"
                 "check: key change to generation 2 accepted, signed by the key of generation 1\n"
                 "check: key change to generation 3 accepted, signed by the key of generation 2\n"
                 "check: signature ok with the key of generation 3\n" +
                     kPackageChecked,
                 "");

  // A device already at generation 1 starts from the line for 2 with its own key.
  r = check("k1", {"--generation", "1"});
  expect_outcome(r, 0,
                 "check: VERZEICHNIS: 715 of 32767 bytes\n"
                 "check: key change to generation 2 accepted, signed by the key of generation 1\n"
                 "check: key change to generation 3 accepted, signed by the key of generation 2\n"
                 "check: signature ok with the key of generation 3\n" +
                     kPackageChecked,
                 "");

  // A device at generation 3 has nothing to follow.
  r = check("k3", {"--generation", "3"});
  expect_outcome(r, 0,
                 "check: VERZEICHNIS: 715 of 32767 bytes\n"
                 "check: signature ok with the key of generation 3\n" +
                     kPackageChecked,
                 "");

  // A device that trusts k0 but claims generation 1 finds the step to 2 not signed by k0.
  r = check("k0", {"--generation", "1"});
  expect_outcome(r, 1,
                 "check: VERZEICHNIS: 715 of 32767 bytes\n"
                 "check: key change to generation 2: signature not valid under the trusted or spare key -- chain "
                 "BROKEN\n",
                 broken_after("1"));
}

TEST_F(ChainTest, LinesInReverseOrderAreFollowedInPasses) {
  make_three_steps();
  expect_outcome(catalog("k3", {"c3", "c2", "c1"}), 0, catalog_said("src", 3, 715, "k3"), "");
  // The lines keep the order they were given in.
  EXPECT_EQ(read_all(s("src/VERZEICHNIS")), catalog_head() + read_all(s("c3")) + read_all(s("c2")) + read_all(s("c1")));
  Outcome r = check("k0");
  expect_outcome(r, 0,
                 "check: VERZEICHNIS: 715 of 32767 bytes\n"
                 "check: key change to generation 1 accepted, signed by the key of generation 0\n"
                 "check: key change to generation 2 accepted, signed by the key of generation 1\n"
                 "check: key change to generation 3 accepted, signed by the key of generation 2\n"
                 "check: signature ok with the key of generation 3\n" +
                     kPackageChecked,
                 "");
}

TEST_F(ChainTest, SpareKeyCanSignAStepAndTheNextStepIsSignedByTheNewKey) {
  expect_chain("spare", "k1", "1", "c1");
  expect_chain("k1", "k2", "2", "c2");
  Outcome r = catalog("k2", {"c1", "c2"});
  expect_outcome(r, 0, catalog_said("src", 2, 513, "k2"), "");

  r = check("k0", {"--spare", s.pub("spare")});
  expect_outcome(r, 0,
                 "check: VERZEICHNIS: 513 of 32767 bytes\n"
                 "check: key change to generation 1 accepted, signed by the SPARE KEY\n"
                 "check: key change to generation 2 accepted, signed by the key of generation 1\n"
                 "check: signature ok with the key of generation 2\n" +
                     kPackageChecked,
                 "");

  // Without the spare key a device cannot take the first step, and the catalog is not
  // signed by the key it still trusts.
  r = check("k0");
  expect_outcome(r, 1,
                 "check: VERZEICHNIS: 513 of 32767 bytes\n"
                 "check: key change to generation 1: signature not valid under the trusted or spare key -- chain "
                 "BROKEN\n",
                 broken_after("0"));
}

TEST_F(ChainTest, CatalogSignedWithTheSpareKeyIsAcceptedWithTheSpareFallback) {
  expect_chain("k0", "k1", "1", "c1");
  // The catalog key is neither generation 1's key nor, without --spare, known to be the spare.
  Outcome r = catalog("spare", {"c1"});
  expect_outcome(r, 1, "",
                 "ota-publish: the signing key is not the key of generation 1, the newest key change; a device that "
                 "follows the changes checks the catalog with that key (give --spare PUB if the catalog is signed "
                 "with the spare key)\n");
  EXPECT_FALSE(exists(s("src")));

  r = catalog("spare", {"c1"}, "src", {"--spare", s.pub("spare")});
  expect_outcome(r, 0, catalog_said("src", 1, 311, "spare"), "");
  r = check("k0", {"--spare", s.pub("spare")});
  expect_outcome(r, 0,
                 "check: VERZEICHNIS: 311 of 32767 bytes\n"
                 "check: key change to generation 1 accepted, signed by the key of generation 0\n"
                 "check: signature ok, checked with the SPARE KEY\n" +
                     kPackageChecked,
                 "");
}

TEST_F(ChainTest, CatalogRefusesASigningKeyThatIsNotTheNewest) {
  make_three_steps();
  Outcome r = catalog("k2", {"c1", "c2", "c3"});
  expect_outcome(r, 1, "", "ota-publish: " + kSignedByNewest);
  EXPECT_FALSE(exists(s("src")));
}

TEST_F(ChainTest, CatalogRefusesAGapAStepNotSignedByItsPredecessorAndTwoLinesForOneGeneration) {
  make_three_steps();
  Outcome r = catalog("k3", {"c1", "c3"});
  expect_outcome(r, 1, "",
                 "ota-publish: the key changes skip a generation (they run from 1 to 3 with 2 lines); a device stops "
                 "at the gap\n");

  // Generation 2 signed by k0 instead of k1.
  expect_chain("k0", "k2", "2", "bad2");
  r = catalog("k2", {"c1", "bad2"});
  expect_outcome(r, 1, "",
                 "ota-publish: the key change to generation 2 is not signed by the key of generation 1 (give --spare "
                 "PUB if the spare key signed it); a device would find the chain broken\n");

  expect_chain("k1", "k3", "2", "other2");
  r = catalog("k3", {"c1", "c2", "other2"});
  expect_outcome(r, 1, "",
                 "ota-publish: two different key changes for generation 2; a device would take only the first one it "
                 "finds\n");
  EXPECT_FALSE(exists(s("src")));

  // The same file given twice is one line.
  r = catalog("k2", {"c1", "c2", "c2"});
  expect_outcome(r, 0, catalog_said("src", 2, 513, "k2"), "");
  EXPECT_EQ(read_all(s("src/VERZEICHNIS")), catalog_head() + read_all(s("c1")) + read_all(s("c2")));
}

TEST_F(ChainTest, ChainRefusesBadGenerationsAndAnExistingFile) {
  Outcome r = chain("k0", "k1", "0", "c0");
  expect_outcome(r, 1, "", "ota-publish: key generation 0 is what a device starts from; key changes begin at 1\n");
  r = chain("k0", "k1", "two", "c0");
  expect_outcome(r, 1, "", "ota-publish: key generation \"two\" is not a decimal number\n");
  r = chain("k0", "k1", "100000000", "c0");
  expect_outcome(r, 1, "", "ota-publish: key generation \"100000000\" is too large; at most 99999999\n");
  EXPECT_FALSE(exists(s("c0")));

  expect_chain("k0", "k1", "1", "c1");
  std::string before = read_all(s("c1"));
  r = chain("k0", "k2", "1", "c1");
  expect_outcome(r, 1, "",
                 "ota-publish: key-change file \"" + s("c1") + "\" already exists (give --force to replace it)\n");
  EXPECT_EQ(read_all(s("c1")), before);
  r = publish(
      {"chain", "--signer", s.key("k0"), "--new", s.pub("k2"), "--generation", "1", "--out", s("c1"), "--force"});
  expect_outcome(r, 0, chain_said("c1", "1", "k2"), "");
  EXPECT_NE(read_all(s("c1")), before);
}

TEST_F(ChainTest, ChainFileThatIsNotAKeyChangeIsRefused) {
  write_all(s("bogus"), "paket\tx\n");
  Outcome r = catalog("k0", {"bogus"});
  expect_outcome(r, 1, "",
                 "ota-publish: key-change file \"" + s("bogus") +
                     "\" line 1 is not a key-change line (\"kette\" TAB ...)\n");
  write_all(s("short"), "kette\t1\tabcd\t00\n");
  r = catalog("k0", {"short"});
  expect_outcome(r, 1, "",
                 "ota-publish: key-change file \"" + s("short") + "\" line 1: the new key must be 64 hex digits\n");
  EXPECT_FALSE(exists(s("src")));
}

TEST_F(ChainTest, SystemSourceCarriesKeyChangesAndBlockedVersionsToo) {
  make_three_steps();
  expect_outcome(publish({"kernel", "--build", "9", "--commit", "abcdef0", "--out", s("k.mb")}), 0,
                 "ota-publish: wrote " + s("k.mb") + ": 4096 bytes, TAVI-KERNEL build=9 commit=abcdef0 health=good\n",
                 "");
  Outcome r =
      publish({"system", "--key", s.key("k3"), "--out", s("sys"), "--build", "9", "--commit", "abcdef0", "--kernel",
               s("k.mb"), "--chain", s("c1"), "--chain", s("c2"), "--chain", s("c3"), "--block", "4"});
  expect_outcome(r, 0,
                 "ota-publish: wrote " + s("sys") +
                     ": build 9, commit abcdef0, 0 overlay file(s), 0 link(s)\n"
                     "ota-publish: VERZEICHNIS 729 of 32767 bytes, overlay journal 0 of 7900 bytes, signed by " +
                     hex_of("k3") + "\n",
                 "");
  std::string text = read_all(s("sys/VERZEICHNIS"));
  EXPECT_EQ(text, "OTA2\nsystem\t9\tabcdef0\nsysfile\tkernel\t" + sha256_hex(read_all(s("k.mb"))) +
                      "\t4096\tk.mb\ngesperrt\t4\n" + read_all(s("c1")) + read_all(s("c2")) + read_all(s("c3")));
  r = publish({"check", s("sys"), "--trusted", s.pub("k0"), "--system"});
  expect_outcome(r, 0,
                 "check: VERZEICHNIS: 729 of 32767 bytes\n"
                 "check: key change to generation 1 accepted, signed by the key of generation 0\n"
                 "check: key change to generation 2 accepted, signed by the key of generation 1\n"
                 "check: key change to generation 3 accepted, signed by the key of generation 2\n"
                 "check: signature ok with the key of generation 3\n"
                 "check: marker OTA2 ok\n"
                 "check: blocked versions: 4\n"
                 "check: system build 9, commit abcdef0\n"
                 "check: kernel: k.mb, 4096 bytes, hash ok\n"
                 "check: overlay: 0 file(s), 0 link(s), journal 0 of 7900 bytes\n"
                 "check: ACCEPTED -- a device would take this source\n",
                 "");
  r = publish({"system", "--key", s.key("k1"), "--out", s("sys2"), "--build", "9", "--commit", "abcdef0", "--kernel",
               s("k.mb"), "--chain", s("c1"), "--chain", s("c2"), "--chain", s("c3")});
  expect_outcome(r, 1, "", "ota-publish: " + kSignedByNewest);
  EXPECT_FALSE(exists(s("sys2")));
}

TEST_F(ChainTest, CheckFindsABrokenStepAfterAHandEdit) {
  make_three_steps();
  expect_outcome(catalog("k3", {"c1", "c2", "c3"}), 0, catalog_said("src", 3, 715, "k3"), "");
  // Flip one hex digit of the generation 2 signature and sign the catalog again with k3.
  std::string text = read_all(s("src/VERZEICHNIS"));
  std::size_t at = text.find("kette\t2\t");
  ASSERT_NE(at, std::string::npos);
  std::size_t sig_at = text.find('\t', at + 8 + 1) + 1;  // after the key field
  text[sig_at] = text[sig_at] == '0' ? '1' : '0';
  write_all(s("src/VERZEICHNIS"), text);
  write_all(s("src/VERZEICHNIS.sig"), openssl_sign(s.key("k3"), text));
  Outcome r = check("k0");
  expect_outcome(r, 1,
                 "check: VERZEICHNIS: 715 of 32767 bytes\n"
                 "check: key change to generation 1 accepted, signed by the key of generation 0\n"
                 "check: key change to generation 2: signature not valid under the trusted or spare key -- chain "
                 "BROKEN\n",
                 broken_after("1"));
}

}  // namespace
