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

  void make_three_steps() {
    ASSERT_EQ(chain("k0", "k1", "1", "c1").status, 0);
    ASSERT_EQ(chain("k1", "k2", "2", "c2").status, 0);
    ASSERT_EQ(chain("k2", "k3", "3", "c3").status, 0);
  }
};

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
  ASSERT_EQ(r.status, 0) << r.err;
  std::string text = read_all(s("src/VERZEICHNIS"));
  for (const char* c : {"c1", "c2", "c3"}) EXPECT_NE(text.find(read_all(s(c))), std::string::npos);
  EXPECT_TRUE(verifies(read_all(s.pub("k3")), text, read_all(s("src/VERZEICHNIS.sig"))));

  r = check("k0");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("key change to generation 1 accepted"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("key change to generation 3 accepted"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("signature ok with the key of generation 3"), std::string::npos) << r.out;

  // A device already at generation 1 starts from the line for 2 with its own key.
  r = check("k1", {"--generation", "1"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.find("generation 1 accepted"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("key change to generation 2 accepted"), std::string::npos) << r.out;

  // A device at generation 3 has nothing to follow.
  r = check("k3", {"--generation", "3"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.find("accepted, signed"), std::string::npos) << r.out;

  // A device that trusts k0 but claims generation 1 finds the step to 2 not signed by k0.
  r = check("k0", {"--generation", "1"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("BROKEN"), std::string::npos) << r.err;
}

TEST_F(ChainTest, LinesInReverseOrderAreFollowedInPasses) {
  make_three_steps();
  ASSERT_EQ(catalog("k3", {"c3", "c2", "c1"}).status, 0);
  std::string text = read_all(s("src/VERZEICHNIS"));
  EXPECT_LT(text.find("kette\t3\t"), text.find("kette\t1\t"));
  Outcome r = check("k0");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("signature ok with the key of generation 3"), std::string::npos) << r.out;
}

TEST_F(ChainTest, SpareKeyCanSignAStepAndTheNextStepIsSignedByTheNewKey) {
  ASSERT_EQ(chain("spare", "k1", "1", "c1").status, 0);
  ASSERT_EQ(chain("k1", "k2", "2", "c2").status, 0);
  Outcome r = catalog("k2", {"c1", "c2"});
  ASSERT_EQ(r.status, 0) << r.err;

  r = check("k0", {"--spare", s.pub("spare")});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("generation 1 accepted, signed by the SPARE KEY"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("generation 2 accepted, signed by the key of generation 1"), std::string::npos) << r.out;

  // Without the spare key a device cannot take the first step, and the catalog is not
  // signed by the key it still trusts.
  r = check("k0");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("KEY CHANGE: the chain is BROKEN -- REJECTED"), std::string::npos) << r.err;
}

TEST_F(ChainTest, CatalogSignedWithTheSpareKeyIsAcceptedWithTheSpareFallback) {
  ASSERT_EQ(chain("k0", "k1", "1", "c1").status, 0);
  // The catalog key is neither generation 1's key nor, without --spare, known to be the spare.
  Outcome r = catalog("spare", {"c1"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("not the key of generation 1"), std::string::npos) << r.err;
  EXPECT_FALSE(exists(s("src")));

  r = catalog("spare", {"c1"}, "src", {"--spare", s.pub("spare")});
  ASSERT_EQ(r.status, 0) << r.err;
  r = check("k0", {"--spare", s.pub("spare")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("checked with the SPARE KEY"), std::string::npos) << r.out;
}

TEST_F(ChainTest, CatalogRefusesASigningKeyThatIsNotTheNewest) {
  make_three_steps();
  Outcome r = catalog("k2", {"c1", "c2", "c3"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("not the key of generation 3"), std::string::npos) << r.err;
  EXPECT_FALSE(exists(s("src")));
}

TEST_F(ChainTest, CatalogRefusesAGapAStepNotSignedByItsPredecessorAndTwoLinesForOneGeneration) {
  make_three_steps();
  Outcome r = catalog("k3", {"c1", "c3"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("skip a generation"), std::string::npos) << r.err;

  // Generation 2 signed by k0 instead of k1.
  ASSERT_EQ(chain("k0", "k2", "2", "bad2").status, 0);
  r = catalog("k2", {"c1", "bad2"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("not signed by the key of generation 1"), std::string::npos) << r.err;

  ASSERT_EQ(chain("k1", "k3", "2", "other2").status, 0);
  r = catalog("k3", {"c1", "c2", "other2"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("two different key changes for generation 2"), std::string::npos) << r.err;
  EXPECT_FALSE(exists(s("src")));

  // The same file given twice is one line.
  r = catalog("k2", {"c1", "c2", "c2"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::string text = read_all(s("src/VERZEICHNIS"));
  EXPECT_EQ(text.find("kette\t2\t"), text.rfind("kette\t2\t"));
}

TEST_F(ChainTest, ChainRefusesBadGenerationsAndAnExistingFile) {
  Outcome r = chain("k0", "k1", "0", "c0");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("generation 0"), std::string::npos) << r.err;
  r = chain("k0", "k1", "two", "c0");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("\"two\" is not a decimal number"), std::string::npos) << r.err;
  r = chain("k0", "k1", "100000000", "c0");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("at most 99999999"), std::string::npos) << r.err;
  EXPECT_FALSE(exists(s("c0")));

  ASSERT_EQ(chain("k0", "k1", "1", "c1").status, 0);
  std::string before = read_all(s("c1"));
  r = chain("k0", "k2", "1", "c1");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("already exists"), std::string::npos) << r.err;
  EXPECT_EQ(read_all(s("c1")), before);
  r = publish(
      {"chain", "--signer", s.key("k0"), "--new", s.pub("k2"), "--generation", "1", "--out", s("c1"), "--force"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(read_all(s("c1")), before);
}

TEST_F(ChainTest, ChainFileThatIsNotAKeyChangeIsRefused) {
  write_all(s("bogus"), "paket\tx\n");
  Outcome r = catalog("k0", {"bogus"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("not a key-change line"), std::string::npos) << r.err;
  write_all(s("short"), "kette\t1\tabcd\t00\n");
  r = catalog("k0", {"short"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("64 hex digits"), std::string::npos) << r.err;
  EXPECT_FALSE(exists(s("src")));
}

TEST_F(ChainTest, SystemSourceCarriesKeyChangesAndBlockedVersionsToo) {
  make_three_steps();
  ASSERT_EQ(publish({"kernel", "--build", "9", "--commit", "abcdef0", "--out", s("k.mb")}).status, 0);
  Outcome r =
      publish({"system", "--key", s.key("k3"), "--out", s("sys"), "--build", "9", "--commit", "abcdef0", "--kernel",
               s("k.mb"), "--chain", s("c1"), "--chain", s("c2"), "--chain", s("c3"), "--block", "4"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::string text = read_all(s("sys/VERZEICHNIS"));
  EXPECT_NE(text.find("\ngesperrt\t4\n"), std::string::npos);
  EXPECT_NE(text.find(read_all(s("c3"))), std::string::npos);
  r = publish({"check", s("sys"), "--trusted", s.pub("k0"), "--system"});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("signature ok with the key of generation 3"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("blocked versions: 4"), std::string::npos) << r.out;
  r = publish({"system", "--key", s.key("k1"), "--out", s("sys2"), "--build", "9", "--commit", "abcdef0", "--kernel",
               s("k.mb"), "--chain", s("c1"), "--chain", s("c2"), "--chain", s("c3")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("not the key of generation 3"), std::string::npos) << r.err;
  EXPECT_FALSE(exists(s("sys2")));
}

TEST_F(ChainTest, CheckFindsABrokenStepAfterAHandEdit) {
  make_three_steps();
  ASSERT_EQ(catalog("k3", {"c1", "c2", "c3"}).status, 0);
  // Flip one hex digit of the generation 2 signature and sign the catalog again with k3.
  std::string text = read_all(s("src/VERZEICHNIS"));
  std::size_t at = text.find("kette\t2\t");
  ASSERT_NE(at, std::string::npos);
  std::size_t sig_at = text.find('\t', at + 8 + 1) + 1;  // after the key field
  text[sig_at] = text[sig_at] == '0' ? '1' : '0';
  write_all(s("src/VERZEICHNIS"), text);
  write_all(s("src/VERZEICHNIS.sig"), openssl_sign(s.key("k3"), text));
  Outcome r = check("k0");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("key change to generation 1 accepted"), std::string::npos) << r.out;
  EXPECT_NE(r.err.find("KEY CHANGE: the chain is BROKEN -- REJECTED"), std::string::npos) << r.err;
}

}  // namespace
