// What the publisher refuses because it would hurt a device: public keys a device cannot
// use or anyone can forge signatures for, commits that change how a device reads its
// pending record back, links over the release's own files, gzip variants that unpack to
// something else (or to far more) than their entry, and numbers a device would store cut.
#include <gtest/gtest.h>

#include <filesystem>

#include "publish/gzip.h"
#include "publish/rules.h"
#include "publish_support.h"
#include "trust/ed25519.h"

using namespace publish_test;

namespace {

// ota-publish itself, run as a child process ("publish" alone also names its namespace).
Outcome tool(const std::vector<std::string>& words) { return publish_test::publish(words); }

std::string key_bytes(const std::string& hex_text) { return unhex(hex_text); }

// The eight points of small order, each in its canonical encoding: the identity, the
// point of order 2 (y = -1), the two of order 4 (y = 0) and the four of order 8.
const std::vector<std::string> kSmallOrder = {
    "0100000000000000000000000000000000000000000000000000000000000000",
    "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
    "0000000000000000000000000000000000000000000000000000000000000000",
    "0000000000000000000000000000000000000000000000000000000000000080",
    "c7176a703d4dd84fba3c0b760d10670f2a2053fa2c39ccc64ec7fd7792ac037a",
    "c7176a703d4dd84fba3c0b760d10670f2a2053fa2c39ccc64ec7fd7792ac03fa",
    "26e8958fc2b227b045c3f489f2ef98f0d5dfac05d3c63339b13802886d53fc05",
    "26e8958fc2b227b045c3f489f2ef98f0d5dfac05d3c63339b13802886d53fc85",
};
// y of p and above: p itself (the y = 0 points again), p + 1 (the identity again), and
// 2^255 - 1.
const std::vector<std::string> kNotCanonical = {
    "edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
    "eeffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
    "eeffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff",
    "ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
};
// x = 0 with the sign bit: the identity and the point of order 2, signed.
const std::vector<std::string> kZeroXSigned = {
    "0100000000000000000000000000000000000000000000000000000000000080",
    "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff",
};

int problem_of(const std::string& key) {
  return ota::ed25519_key_problem(reinterpret_cast<const ota::u8*>(key.data()));
}

// R = B (y = 4/5) and S = 1: made without any private key.
const std::string kForgery = unhex("5866666666666666666666666666666666666666666666666666666666666666") +
                             unhex("0100000000000000000000000000000000000000000000000000000000000000");

TEST(PublicKeyProblems, EverySmallOrderEncodingIsFoundAndAnyoneCanSignForIt) {
  for (const std::string& hex_key : kSmallOrder) {
    std::string key = key_bytes(hex_key);
    EXPECT_EQ(problem_of(key), ota::kKeySmallOrder) << hex_key;
    // The danger itself: a device's check (without the cofactor) accepts the fixed forgery
    // for some message among a few tries, for every message under the identity.
    int passed = 0;
    for (int m = 0; m < 64; m++) passed += device_verify(key, "catalog " + std::to_string(m), kForgery);
    EXPECT_GT(passed, 0) << hex_key;
    if (hex_key == kSmallOrder[0]) {
      EXPECT_EQ(passed, 64);
    }
  }
}

TEST(PublicKeyProblems, NonCanonicalAndSignedZeroEncodingsAreFound) {
  for (const std::string& hex_key : kNotCanonical) EXPECT_EQ(problem_of(key_bytes(hex_key)), ota::kKeyNotCanonical);
  for (const std::string& hex_key : kZeroXSigned) EXPECT_EQ(problem_of(key_bytes(hex_key)), ota::kKeyZeroXSigned);
}

TEST(PublicKeyProblems, RealKeysAreUsableAndYWithoutAPointIsNot) {
  Scratch s;
  for (int i = 0; i < 20; i++) {
    ASSERT_EQ(tool({"keygen", "--out", s("k" + std::to_string(i))}).status, 0);
    std::string key = read_all(s("k" + std::to_string(i) + ".pub"));
    EXPECT_EQ(problem_of(key), ota::kKeyUsable);
    for (int m = 0; m < 8; m++) EXPECT_FALSE(device_verify(key, "catalog " + std::to_string(m), kForgery));
  }
  // Small y values: about half of them have no x on the curve.
  int usable = 0;
  int not_on_curve = 0;
  for (int y = 2; y < 60; y++) {
    std::string key(32, '\0');
    key[0] = static_cast<char>(y);
    int problem = problem_of(key);
    EXPECT_TRUE(problem == ota::kKeyUsable || problem == ota::kKeyNotOnCurve) << y;
    (problem == ota::kKeyUsable ? usable : not_on_curve)++;
    if (problem == ota::kKeyNotOnCurve) {
      EXPECT_FALSE(device_verify(key, "x", kForgery));
    }
  }
  EXPECT_GT(usable, 10);
  EXPECT_GT(not_on_curve, 10);
}

class WeakKeyTest : public ::testing::Test {
 protected:
  KeyedScratch s;
  // Every kind of key a device must never be given, written as a key file.
  std::vector<std::pair<std::string, std::string>> weak_key_files() {
    std::vector<std::pair<std::string, std::string>> files;
    std::vector<std::string> all = kSmallOrder;
    all.insert(all.end(), kNotCanonical.begin(), kNotCanonical.end());
    all.insert(all.end(), kZeroXSigned.begin(), kZeroXSigned.end());
    all.push_back("0200000000000000000000000000000000000000000000000000000000000000");  // y = 2: no point
    for (std::size_t i = 0; i < all.size(); i++) {
      std::string path = s("weak" + std::to_string(i) + ".pub");
      write_all(path, key_bytes(all[i]));
      files.push_back({path, all[i]});
    }
    EXPECT_EQ(problem_of(key_bytes(all.back())), ota::kKeyNotOnCurve);
    return files;
  }
};

TEST_F(WeakKeyTest, ChainNewRefusesEveryWeakKeyAndWritesNothing) {
  for (const auto& [path, hex_key] : weak_key_files()) {
    Outcome r = tool({"chain", "--signer", s.key("k0"), "--new", path, "--generation", "1", "--out", s("step")});
    EXPECT_EQ(r.status, 1) << hex_key;
    EXPECT_NE(r.err.find("ota-publish: new key " + hex_key + " "), std::string::npos) << r.err;
    EXPECT_FALSE(exists(s("step")));
  }
  Outcome r = tool({"chain", "--signer", s.key("k0"), "--new", s.pub("k1"), "--generation", "1", "--out", s("step")});
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(WeakKeyTest, TheIdentityKeyIsRefusedAsASmallOrderPoint) {
  std::string path = s("identity.pub");
  write_all(path, key_bytes(kSmallOrder[0]));
  Outcome r = tool({"chain", "--signer", s.key("k0"), "--new", path, "--generation", "1", "--out", s("step")});
  EXPECT_EQ(r.err, "ota-publish: new key " + kSmallOrder[0] +
                       " is a point of small order; devices check signatures without the cofactor, so anyone "
                       "could forge signatures under it (under the identity key R = B, S = 1 passes for every "
                       "catalog)\n");
}

TEST_F(WeakKeyTest, CheckRefusesAWeakTrustedOrSpareKey) {
  write_all(s("p.tpk"), "package\n");
  ASSERT_EQ(tool({"catalog", "--key", s.key("k0"), "--out", s("src"), "--version", "2", "--package",
                     "p:w:" + s("p.tpk") + ":tavi-any"})
                .status,
            0);
  for (const auto& [path, hex_key] : weak_key_files()) {
    Outcome r = tool({"check", s("src"), "--trusted", path});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("check: PROBLEM: trusted key " + hex_key + " "), std::string::npos) << r.err;
    r = tool({"check", s("src"), "--trusted", s.pub("k0"), "--spare", path});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("check: PROBLEM: spare key " + hex_key + " "), std::string::npos) << r.err;
  }
  EXPECT_EQ(tool({"check", s("src"), "--trusted", s.pub("k0"), "--spare", s.pub("spare")}).status, 0);
}

TEST_F(WeakKeyTest, CheckRefusesAChainThatReachesAWeakKey) {
  // A key change to the identity, signed by k0 by hand; the catalog is signed with the
  // spare key so that it verifies whatever the chain reaches.
  std::string identity = key_bytes(kSmallOrder[0]);
  std::string step = "tavi-schluessel\t1\t" + kSmallOrder[0];
  std::string text = "OTA2\nfassung\t2\nkette\t1\t" + kSmallOrder[0] + "\t" + to_hex(openssl_sign(s.key("k0"), step)) + "\n";
  std::filesystem::create_directories(s("src"));
  write_all(s("src/VERZEICHNIS"), text);
  write_all(s("src/VERZEICHNIS.sig"), openssl_sign(s.key("spare"), text));
  Outcome r = tool({"check", s("src"), "--trusted", s.pub("k0"), "--spare", s.pub("spare")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("key change to generation 1 accepted, signed by the key of generation 0"), std::string::npos)
      << r.out;
  EXPECT_NE(r.err.find("check: PROBLEM: the key of generation 1 " + kSmallOrder[0] + " is a point of small order"),
            std::string::npos)
      << r.err;
}

TEST_F(WeakKeyTest, ReleasesRefuseAKeyChangeFileOrSpareKeyThatIsWeak) {
  write_all(s("p.tpk"), "package\n");
  std::string step = "tavi-schluessel\t1\t" + kSmallOrder[4];
  write_all(s("weak.chain"), "kette\t1\t" + kSmallOrder[4] + "\t" + to_hex(openssl_sign(s.key("k0"), step)) + "\n");
  Outcome r = tool({"catalog", "--key", s.key("k0"), "--out", s("src"), "--version", "2", "--package",
                       "p:w:" + s("p.tpk") + ":tavi-any", "--chain", s("weak.chain")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("the key change to generation 1 introduces a key that is a point of small order"),
            std::string::npos)
      << r.err;
  EXPECT_FALSE(exists(s("src")));
  write_all(s("zero.pub"), key_bytes(kSmallOrder[2]));
  r = tool({"catalog", "--key", s.key("k0"), "--out", s("src"), "--version", "2", "--package",
               "p:w:" + s("p.tpk") + ":tavi-any", "--spare", s("zero.pub")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("spare key " + kSmallOrder[2] + " is a point of small order"), std::string::npos) << r.err;
}

TEST_F(WeakKeyTest, CheckRefusesAKeyGenerationADeviceCannotStore) {
  std::string step = "tavi-schluessel\t100000000\t" + to_hex(read_all(s.pub("k1")));
  std::string text = "OTA2\nfassung\t2\nkette\t100000000\t" + to_hex(read_all(s.pub("k1"))) + "\t" +
                     to_hex(openssl_sign(s.key("k0"), step)) + "\n";
  std::filesystem::create_directories(s("src"));
  write_all(s("src/VERZEICHNIS"), text);
  write_all(s("src/VERZEICHNIS.sig"), openssl_sign(s.key("k1"), text));
  Outcome r = tool({"check", s("src"), "--trusted", s.pub("k0"), "--generation", "99999999"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("key generation 100000000 does not fit the eight digits a device stores"), std::string::npos)
      << r.err;
}

// --- Commits

TEST(CommitRules, ShaIsRefusedTheOtherKeysAndSignsAreNot) {
  EXPECT_NE(publish::commit_problem("2222sha=bbbb").find("contains \"sha=\""), std::string::npos);
  EXPECT_NE(publish::commit_problem("abcdefgsha=").find("contains \"sha=\""), std::string::npos);
  EXPECT_EQ(publish::commit_problem("2222sha-bbbb"), "");
  EXPECT_EQ(publish::commit_problem("22count=xcommit=yy"), "");
  EXPECT_EQ(publish::commit_problem("v1.2=3+a~b"), "");
  // A CR would end the commit early for readers of /system/sys.stand, a zero byte on the
  // device itself; TAB and LF end the field.
  for (std::string bad : {std::string("abcdefg\rh"), std::string("abcdefg\0h", 9), std::string("abcd\tefgh"),
                          std::string("abcd\nefgh")}) {
    EXPECT_NE(publish::commit_problem(bad).find("control character"), std::string::npos);
  }
  EXPECT_NE(publish::commit_problem("abc defg").find("contains a blank"), std::string::npos);
  EXPECT_NE(publish::commit_problem("abcdef").find("at least 7 are needed"), std::string::npos);
  EXPECT_NE(publish::commit_problem(std::string(20, 'a')).find("a device keeps at most 19"), std::string::npos);
}

class SystemRefusalTest : public ::testing::Test {
 protected:
  KeyedScratch s;
  void SetUp() override {
    ASSERT_EQ(tool({"kernel", "--build", "30", "--commit", "0123456789", "--out", s("tavi.mb")}).status, 0);
    write_all(s("prog"), std::string(1000, 'p'));
    write_all(s("hosts"), "hosts\n");
    write_all(s("start"), "#!/bin/sh\n");
  }
  Outcome system(const std::vector<std::string>& more) {
    std::vector<std::string> words = {"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "30", "--commit",
                                      "0123456789", "--kernel", s("tavi.mb"), "--force"};
    words.insert(words.end(), more.begin(), more.end());
    return tool(words);
  }
  Outcome check() { return tool({"check", s("sys"), "--trusted", s.pub("k0"), "--system"}); }
  std::string text() { return read_all(s("sys/VERZEICHNIS")); }
  void resign(const std::string& text) {
    write_all(s("sys/VERZEICHNIS"), text);
    write_all(s("sys/VERZEICHNIS.sig"), openssl_sign(s.key("k0"), text));
  }
};

TEST_F(SystemRefusalTest, SystemAndCheckRefuseACommitHoldingSha) {
  Outcome r = system({});
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<std::string> words = {"system", "--key", s.key("k0"), "--out", s("other"), "--build", "30", "--commit",
                                    "0123sha=456", "--kernel", s("tavi.mb")};
  r = tool(words);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("commit \"0123sha=456\" contains \"sha=\""), std::string::npos) << r.err;
  EXPECT_FALSE(exists(s("other")));

  std::string t = text();
  t.replace(t.find("0123456789"), 10, "0123sha=456");
  resign(t);
  r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("check: PROBLEM: commit \"0123sha=456\" contains \"sha=\""), std::string::npos) << r.err;
  t.replace(t.find("0123sha=456"), 11, "0123456\r89");
  resign(t);
  r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("contains a control character"), std::string::npos) << r.err;
}

TEST_F(SystemRefusalTest, CheckRefusesALinkOverAnOverlayTargetAndADoubledTarget) {
  ASSERT_EQ(system({"--file", "/etc/hosts=" + s("hosts")}).status, 0);
  std::string t = text();
  resign(t + "syslink\t/etc/hosts\t/bin/prog\n");
  Outcome r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("check: PROBLEM: link path \"/etc/hosts\" is also an overlay target of this release"),
            std::string::npos)
      << r.err;

  std::size_t at = t.find("sysfile\tfile\t");
  std::string line = t.substr(at, t.find('\n', at) + 1 - at);
  resign(t + line);
  r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("overlay target \"/etc/hosts\" is given twice; a device would lose the backup"),
            std::string::npos)
      << r.err;
}

TEST_F(SystemRefusalTest, CheckWarnsThatALinkOutsideTheReleasesDirectoriesLosesAFileOnRollback) {
  ASSERT_EQ(system({"--file", "prog=" + s("prog"), "--file", "/apps/clock/start=" + s("start"), "--link",
                    "/apps/clock/tick=/bin/prog", "--link", "/etc/prog=/bin/prog", "--link",
                    "/apps/other/x=/bin/prog"})
                .status,
            0);
  Outcome r = check();
  EXPECT_EQ(r.status, 0) << r.err;
  const std::string lost = ": a file at this path is lost if the update is rolled back";
  EXPECT_EQ(r.out.find("link /apps/clock/tick -> /bin/prog" + lost), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("check: warning: link /etc/prog -> /bin/prog" + lost), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("check: warning: link /apps/other/x -> /bin/prog" + lost), std::string::npos) << r.out;
}

// A gzip file packed by hand from other bytes, announced with its own size and hash.
std::string gz_of(const std::string& data) {
  publish::Bytes packed = publish::gzip_bytes(publish::Bytes(data.begin(), data.end()));
  return std::string(packed.begin(), packed.end());
}

TEST_F(SystemRefusalTest, CheckUnpacksEveryGzipVariant) {
  ASSERT_EQ(system({"--file", "prog=" + s("prog") + ":gz"}).status, 0);
  std::string t = text();
  std::size_t gz_at = t.find("sysgz\tprog\t");
  std::string good_line = t.substr(gz_at, t.find('\n', gz_at) + 1 - gz_at);
  auto variant = [&](const std::string& name, const std::string& packed, const std::string& target = "prog") {
    write_all(s("sys/" + name), packed);
    return "sysgz\t" + target + "\t" + sha256_hex(packed) + "\t" + std::to_string(packed.size()) + "\t" + name + "\n";
  };

  // Far more than the entry's 1000 bytes: a device writes all of it first.
  std::string bomb = gz_of(std::string(50 * 1000 * 1000, 'p'));
  std::string with_bomb = t;
  with_bomb.replace(gz_at, good_line.size(), variant("bomb.gz", bomb));
  resign(with_bomb);
  Outcome r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("overlay file prog: \"bomb.gz\" unpacks to more than the 1000 bytes of its entry"),
            std::string::npos)
      << r.err;

  // A damaged trailer: the decoder writes everything, then refuses.
  std::string damaged = gz_of(std::string(1000, 'p'));
  damaged[damaged.size() - 8] ^= 1;
  std::string with_damaged = t;
  with_damaged.replace(gz_at, good_line.size(), variant("damaged.gz", damaged));
  resign(with_damaged);
  r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("\"damaged.gz\" does not unpack: its CRC-32 or length trailer does not match the output (code 4)"),
            std::string::npos)
      << r.err;

  // A second line for the same target is never fetched, but it is unpacked and must match
  // too; a line for no entry is only reported.
  std::string later = t + variant("other.gz", gz_of(std::string(1000, 'q'))) + variant("lone.gz", gz_of("x"), "nope");
  resign(later);
  r = check();
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("gzip line 2 for \"prog\" is not the first complete one for it; devices never fetch it"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.err.find("gzip line 2 for prog: \"other.gz\" unpacks to the wrong size or hash"), std::string::npos)
      << r.err;
  EXPECT_NE(r.out.find("gzip line 3 for \"nope\" belongs to no entry; devices never fetch it"), std::string::npos)
      << r.out;
}

TEST(DeviceGunzip, UnpacksAsTheDeviceDoesAndStopsPastTheLimit) {
  std::string data(100000, '\0');
  for (std::size_t i = 0; i < data.size(); i++) data[i] = static_cast<char>((i * 7919) >> 5);
  std::string packed = gz_of(data);
  publish::Bytes bytes(packed.begin(), packed.end());
  publish::Unpacked u = publish::device_gunzip(bytes, data.size());
  EXPECT_EQ(u.code, 0u);
  EXPECT_EQ(u.size, data.size());
  EXPECT_FALSE(u.over_limit);
  EXPECT_EQ(u.sha, sha256_hex(data));
  // Trailing bytes after the member are not read.
  publish::Bytes trailing = bytes;
  trailing.insert(trailing.end(), {'j', 'u', 'n', 'k'});
  EXPECT_EQ(publish::device_gunzip(trailing, data.size()).sha, sha256_hex(data));
  // One byte past the limit is enough to know.
  u = publish::device_gunzip(bytes, data.size() - 1);
  EXPECT_TRUE(u.over_limit);
  EXPECT_EQ(u.size, data.size());
  // Far past it, the decoding is stopped: its next write fails (the device's code 5).
  std::string bomb = gz_of(std::string(20 * 1000 * 1000, '\0'));
  u = publish::device_gunzip(publish::Bytes(bomb.begin(), bomb.end()), 1000);
  EXPECT_TRUE(u.over_limit);
  EXPECT_EQ(u.size, 1001u);
  EXPECT_EQ(u.code, 5u);
  // Cut short, and not gzip at all.
  publish::Bytes cut(bytes.begin(), bytes.begin() + static_cast<long>(bytes.size() / 2));
  EXPECT_EQ(publish::device_gunzip(cut, data.size()).code, 1u);
  publish::Bytes zlib_stream = {0x78, 0x9c, 0x03, 0x00, 0x00, 0x00, 0x00, 0x01};
  EXPECT_EQ(publish::device_gunzip(zlib_stream, 100).code, 3u);
}

TEST(CheckNumbers, ABlockedVersionADeviceCannotStoreIsAProblem) {
  KeyedScratch s;
  write_all(s("p.tpk"), "package\n");
  ASSERT_EQ(tool({"catalog", "--key", s.key("k0"), "--out", s("src"), "--version", "2", "--package",
                     "p:w:" + s("p.tpk") + ":tavi-any"})
                .status,
            0);
  std::string text = read_all(s("src/VERZEICHNIS")) + "gesperrt\t100000007\ngesperrt\t3rc1\n";
  write_all(s("src/VERZEICHNIS"), text);
  write_all(s("src/VERZEICHNIS.sig"), openssl_sign(s.key("k0"), text));
  Outcome r = tool({"check", s("src"), "--trusted", s.pub("k0")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("blocked version 100000007 does not fit the eight digits a device stores; it would block 7"),
            std::string::npos)
      << r.err;
  EXPECT_NE(r.out.find("check: warning: blocked version \"3rc1\" is not a plain number; a device blocks 3"),
            std::string::npos)
      << r.out;
}

}  // namespace
