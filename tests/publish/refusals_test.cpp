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
    Outcome r = tool({"keygen", "--out", s("k" + std::to_string(i))});
    ASSERT_EQ(r.status, 0) << r.err;
    expect_outcome(r, 0, keygen_said(s("k" + std::to_string(i))), "");
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

// What the publisher says of a key of each kind, after the key's hex.
const std::string kSmallOrderReason =
    "is a point of small order; devices check signatures without the cofactor, so anyone could forge signatures "
    "under it (under the identity key R = B, S = 1 passes for every catalog)";
const std::string kNotCanonicalReason =
    "is not a canonical encoding (its y is 2^255 - 19 or more); devices refuse every signature under it";
const std::string kZeroXSignedReason = "encodes x = 0 with the sign bit set; devices refuse every signature under it";
const std::string kNotOnCurveReason = "is not a point of the curve; devices refuse every signature under it";

struct WeakKeyFile {
  std::string path;
  std::string hex;
  std::string reason;
};

class WeakKeyTest : public ::testing::Test {
 protected:
  KeyedScratch s;
  // Every kind of key a device must never be given, written as a key file, with what the
  // publisher says of it.
  std::vector<WeakKeyFile> weak_key_files() {
    std::vector<std::pair<std::string, std::string>> all;
    for (const std::string& hex_key : kSmallOrder) all.push_back({hex_key, kSmallOrderReason});
    for (const std::string& hex_key : kNotCanonical) all.push_back({hex_key, kNotCanonicalReason});
    for (const std::string& hex_key : kZeroXSigned) all.push_back({hex_key, kZeroXSignedReason});
    all.push_back({"0200000000000000000000000000000000000000000000000000000000000000", kNotOnCurveReason});  // y = 2
    std::vector<WeakKeyFile> files;
    for (std::size_t i = 0; i < all.size(); i++) {
      std::string path = s("weak" + std::to_string(i) + ".pub");
      write_all(path, key_bytes(all[i].first));
      files.push_back({path, all[i].first, all[i].second});
    }
    EXPECT_EQ(problem_of(key_bytes(all.back().first)), ota::kKeyNotOnCurve);
    return files;
  }

  // What check prints of the one-package source these tests make, up to its verdict.
  const std::string package_checked =
      "check: VERZEICHNIS: 107 of 32767 bytes\n"
      "check: signature ok with the key of generation 0\n"
      "check: marker OTA2 ok\n"
      "check: version offered: 2\n"
      "check: package p: p.tpk, 8 bytes, hash and signature ok, platform tavi-any\n"
      "check: INDEX: 1 line(s), signature ok\n";

  // Writes the one-package source with k0.
  void make_package_source(std::source_location where = std::source_location::current()) {
    write_all(s("p.tpk"), "package\n");
    Outcome r = tool({"catalog", "--key", s.key("k0"), "--out", s("src"), "--version", "2", "--package",
                      "p:w:" + s("p.tpk") + ":tavi-any"});
    expect_outcome(r, 0,
                   "ota-publish: wrote " + s("src") +
                       ": version 2, 1 package(s) (1 for tavi-x86_64), 0 blocked, 0 key change(s)\n"
                       "ota-publish: VERZEICHNIS 107 of 32767 bytes, signed by " +
                       to_hex(read_all(s.pub("k0"))) + "\n",
                   "", where);
  }
};

TEST_F(WeakKeyTest, ChainNewRefusesEveryWeakKeyAndWritesNothing) {
  for (const WeakKeyFile& weak : weak_key_files()) {
    Outcome r = tool({"chain", "--signer", s.key("k0"), "--new", weak.path, "--generation", "1", "--out", s("step")});
    expect_outcome(r, 1, "", "ota-publish: new key " + weak.hex + " " + weak.reason + "\n");
    EXPECT_FALSE(exists(s("step")));
  }
  Outcome r = tool({"chain", "--signer", s.key("k0"), "--new", s.pub("k1"), "--generation", "1", "--out", s("step")});
  expect_outcome(r, 0,
                 "ota-publish: wrote " + s("step") + ": key change to generation 1, new key " +
                     to_hex(read_all(s.pub("k1"))) + "\n",
                 "");
}

TEST_F(WeakKeyTest, TheIdentityKeyIsRefusedAsASmallOrderPoint) {
  std::string path = s("identity.pub");
  write_all(path, key_bytes(kSmallOrder[0]));
  Outcome r = tool({"chain", "--signer", s.key("k0"), "--new", path, "--generation", "1", "--out", s("step")});
  expect_outcome(r, 1, "",
                 "ota-publish: new key " + kSmallOrder[0] +
                     " is a point of small order; devices check signatures without the cofactor, so anyone "
                     "could forge signatures under it (under the identity key R = B, S = 1 passes for every "
                     "catalog)\n");
}

TEST_F(WeakKeyTest, CheckRefusesAWeakTrustedOrSpareKey) {
  make_package_source();
  for (const WeakKeyFile& weak : weak_key_files()) {
    SCOPED_TRACE(weak.hex);
    // A weak trusted key verifies nothing; a weak spare key is a problem even unused.
    Outcome r = tool({"check", s("src"), "--trusted", weak.path});
    expect_outcome(r, 1, "check: VERZEICHNIS: 107 of 32767 bytes\n",
                   check_refused({"trusted key " + weak.hex + " " + weak.reason,
                                  "SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED"}));
    r = tool({"check", s("src"), "--trusted", s.pub("k0"), "--spare", weak.path});
    expect_outcome(r, 1, package_checked, check_refused({"spare key " + weak.hex + " " + weak.reason}));
  }
  expect_outcome(tool({"check", s("src"), "--trusted", s.pub("k0"), "--spare", s.pub("spare")}), 0,
                 package_checked + "check: ACCEPTED -- a device would take this source\n", "");
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
  expect_outcome(r, 1,
                 "check: VERZEICHNIS: 217 of 32767 bytes\n"
                 "check: key change to generation 1 accepted, signed by the key of generation 0\n"
                 "check: signature ok, checked with the SPARE KEY\n"
                 "check: marker OTA2 ok\n"
                 "check: version offered: 2\n",
                 check_refused({"the key of generation 1 " + kSmallOrder[0] + " " + kSmallOrderReason,
                                "the VERZEICHNIS names no package", "INDEX is missing from the source"}));
}

TEST_F(WeakKeyTest, ReleasesRefuseAKeyChangeFileOrSpareKeyThatIsWeak) {
  write_all(s("p.tpk"), "package\n");
  std::string step = "tavi-schluessel\t1\t" + kSmallOrder[4];
  write_all(s("weak.chain"), "kette\t1\t" + kSmallOrder[4] + "\t" + to_hex(openssl_sign(s.key("k0"), step)) + "\n");
  Outcome r = tool({"catalog", "--key", s.key("k0"), "--out", s("src"), "--version", "2", "--package",
                       "p:w:" + s("p.tpk") + ":tavi-any", "--chain", s("weak.chain")});
  expect_outcome(r, 1, "",
                 "ota-publish: the key change to generation 1 introduces a key that " + kSmallOrderReason + "\n");
  EXPECT_FALSE(exists(s("src")));
  write_all(s("zero.pub"), key_bytes(kSmallOrder[2]));
  r = tool({"catalog", "--key", s.key("k0"), "--out", s("src"), "--version", "2", "--package",
               "p:w:" + s("p.tpk") + ":tavi-any", "--spare", s("zero.pub")});
  expect_outcome(r, 1, "", "ota-publish: spare key " + kSmallOrder[2] + " " + kSmallOrderReason + "\n");
}

TEST_F(WeakKeyTest, CheckRefusesAKeyGenerationADeviceCannotStore) {
  std::string step = "tavi-schluessel\t100000000\t" + to_hex(read_all(s.pub("k1")));
  std::string text = "OTA2\nfassung\t2\nkette\t100000000\t" + to_hex(read_all(s.pub("k1"))) + "\t" +
                     to_hex(openssl_sign(s.key("k0"), step)) + "\n";
  std::filesystem::create_directories(s("src"));
  write_all(s("src/VERZEICHNIS"), text);
  write_all(s("src/VERZEICHNIS.sig"), openssl_sign(s.key("k1"), text));
  Outcome r = tool({"check", s("src"), "--trusted", s.pub("k0"), "--generation", "99999999"});
  expect_outcome(r, 1,
                 "check: VERZEICHNIS: 225 of 32767 bytes\n"
                 "check: key change to generation 100000000 accepted, signed by the key of generation 99999999\n"
                 "check: signature ok with the key of generation 100000000\n"
                 "check: marker OTA2 ok\n"
                 "check: version offered: 2\n",
                 check_refused({"key generation 100000000 does not fit the eight digits a device stores; it would go "
                                "back after the next catalog",
                                "the VERZEICHNIS names no package", "INDEX is missing from the source"}));
}

// --- Commits

TEST(CommitRules, ShaIsRefusedTheOtherKeysAndSignsAreNot) {
  const std::string sha_reason =
      " contains \"sha=\"; a device finds the keys of /system/SYSPENDING anywhere in the record, would read the "
      "kernel's hash from the commit and could never promote the update";
  EXPECT_EQ(publish::commit_problem("2222sha=bbbb"), "commit \"2222sha=bbbb\"" + sha_reason);
  EXPECT_EQ(publish::commit_problem("abcdefgsha="), "commit \"abcdefgsha=\"" + sha_reason);
  EXPECT_EQ(publish::commit_problem("2222sha-bbbb"), "");
  EXPECT_EQ(publish::commit_problem("22count=xcommit=yy"), "");
  EXPECT_EQ(publish::commit_problem("v1.2=3+a~b"), "");
  // A CR would end the commit early for readers of /system/sys.stand, a zero byte on the
  // device itself; TAB and LF end the field.
  const std::string breaks = " contains a control character; a TAB, LF or CR would break the line on the device";
  EXPECT_EQ(publish::commit_problem("abcdefg\rh"), "commit \"abcdefg\\rh\"" + breaks);
  EXPECT_EQ(publish::commit_problem(std::string("abcdefg\0h", 9)), "commit \"abcdefg\\x00h\"" + breaks);
  EXPECT_EQ(publish::commit_problem("abcd\tefgh"), "commit \"abcd\\tefgh\"" + breaks);
  EXPECT_EQ(publish::commit_problem("abcd\nefgh"), "commit \"abcd\\nefgh\"" + breaks);
  EXPECT_EQ(publish::commit_problem("abc defg"), "commit \"abc defg\" contains a blank");
  EXPECT_EQ(publish::commit_problem("abcdef"),
            "commit \"abcdef\" is 6 characters; at least 7 are needed, since a device recognises the running kernel "
            "by the first seven");
  EXPECT_EQ(publish::commit_problem(std::string(20, 'a')),
            "commit \"" + std::string(20, 'a') + "\" is 20 characters; a device keeps at most 19");
}

class SystemRefusalTest : public ::testing::Test {
 protected:
  KeyedScratch s;
  void SetUp() override {
    expect_outcome(tool({"kernel", "--build", "30", "--commit", "0123456789", "--out", s("tavi.mb")}), 0,
                   kernel_said(s("tavi.mb"), "30", "0123456789"), "");
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
  // What system prints for the source it wrote to sys; `bytes` is the VERZEICHNIS's size.
  std::string said(const std::string& summary, const std::string& bytes, int journal) {
    return system_said(s("sys"), "build 30, commit 0123456789, " + summary, bytes, journal, s.pub("k0"));
  }
  // The first lines of check's report on the source, up to the kernel.
  std::string head(const std::string& bytes, const std::string& commit = "0123456789") {
    return "check: VERZEICHNIS: " + bytes +
           " of 32767 bytes\n"
           "check: signature ok with the key of generation 0\n"
           "check: marker OTA2 ok\n"
           "check: system build 30, commit " +
           commit + "\ncheck: kernel: tavi.mb, 4096 bytes, hash ok\n";
  }
  std::string text() { return read_all(s("sys/VERZEICHNIS")); }
  void resign(const std::string& text) {
    write_all(s("sys/VERZEICHNIS"), text);
    write_all(s("sys/VERZEICHNIS.sig"), openssl_sign(s.key("k0"), text));
  }
};

TEST_F(SystemRefusalTest, SystemAndCheckRefuseACommitHoldingSha) {
  Outcome r = system({});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_outcome(r, 0, said("0 overlay file(s), 0 link(s)", "119", 0), "");
  std::vector<std::string> words = {"system", "--key", s.key("k0"), "--out", s("other"), "--build", "30", "--commit",
                                    "0123sha=456", "--kernel", s("tavi.mb")};
  r = tool(words);
  const std::string sha_problem =
      "commit \"0123sha=456\" contains \"sha=\"; a device finds the keys of /system/SYSPENDING anywhere in the "
      "record, would read the kernel's hash from the commit and could never promote the update";
  expect_outcome(r, 1, "", "ota-publish: " + sha_problem + "\n");
  EXPECT_FALSE(exists(s("other")));

  const std::string empty_overlay = "check: overlay: 0 file(s), 0 link(s), journal 0 of 7900 bytes\n";
  std::string t = text();
  t.replace(t.find("0123456789"), 10, "0123sha=456");
  resign(t);
  r = check();
  expect_outcome(r, 1, head("120", "0123sha=456") + empty_overlay, check_refused({sha_problem}));
  t.replace(t.find("0123sha=456"), 11, "0123456\r89");
  resign(t);
  r = check();
  // Both the report line and the finding show the commit's CR as \r, so each stays one line.
  expect_outcome(r, 1, head("119", "0123456\\r89") + empty_overlay,
                 check_refused({"commit \"0123456\\r89\" contains a control character; a TAB, LF or CR would break "
                                "the line on the device"}));
}

TEST_F(SystemRefusalTest, CheckRefusesALinkOverAnOverlayTargetAndADoubledTarget) {
  expect_outcome(system({"--file", "/etc/hosts=" + s("hosts")}), 0, said("1 overlay file(s), 0 link(s)", "216", 12),
                 "");
  const std::string overlay =
      "check: overlay file /etc/hosts: hosts, 6 bytes, hash ok\n"
      "check: overlay: 1 file(s), 0 link(s), journal 12 of 7900 bytes\n";
  std::string t = text();
  resign(t + "syslink\t/etc/hosts\t/bin/prog\n");
  Outcome r = check();
  expect_outcome(r, 1, head("245") + overlay,
                 check_refused({"link path \"/etc/hosts\" is also an overlay target of this release; devices put the "
                                "file there and then the link over it, and a rollback deletes the restored file "
                                "again"}));

  std::size_t at = t.find("sysfile\tfile\t");
  std::string line = t.substr(at, t.find('\n', at) + 1 - at);
  resign(t + line);
  r = check();
  expect_outcome(r, 1, head("313") + overlay,
                 check_refused({"overlay target \"/etc/hosts\" is given twice; a device would lose the backup of the "
                                "file it replaces"}));
}

TEST_F(SystemRefusalTest, CheckWarnsThatALinkOutsideTheReleasesDirectoriesLosesAFileOnRollback) {
  expect_outcome(system({"--file", "prog=" + s("prog"), "--file", "/apps/clock/start=" + s("start"), "--link",
                         "/apps/clock/tick=/bin/prog", "--link", "/etc/prog=/bin/prog", "--link",
                         "/apps/other/x=/bin/prog"}),
                 0, said("2 overlay file(s), 3 link(s)", "412", 99), "");
  Outcome r = check();
  // The link into /apps/clock, a directory the release itself fills, gets no warning.
  const std::string lost =
      ": a file at this path is lost if the update is rolled back (a rollback leaves the link where the file stood)\n";
  expect_outcome(r, 0,
                 head("412") +
                     "check: overlay file prog: prog, 1000 bytes, hash ok\n"
                     "check: overlay file /apps/clock/start: start, 10 bytes, hash ok\n"
                     "check: link /apps/clock/tick -> /bin/prog\n"
                     "check: link /etc/prog -> /bin/prog\n"
                     "check: warning: link /etc/prog -> /bin/prog" +
                     lost +
                     "check: link /apps/other/x -> /bin/prog\n"
                     "check: warning: link /apps/other/x -> /bin/prog" +
                     lost +
                     "check: overlay: 2 file(s), 3 link(s), journal 99 of 7900 bytes\n"
                     "check: ACCEPTED -- a device would take this source\n",
                 "");
}

// A gzip file packed by hand from other bytes, announced with its own size and hash.
std::string gz_of(const std::string& data) {
  publish::Bytes packed = publish::gzip_bytes(publish::Bytes(data.begin(), data.end()));
  return std::string(packed.begin(), packed.end());
}

TEST_F(SystemRefusalTest, CheckUnpacksEveryGzipVariant) {
  Outcome made = system({"--file", "prog=" + s("prog") + ":gz"});
  expect_outcome(made, 0, said("1 overlay file(s), 0 link(s)", size_text(s("sys/VERZEICHNIS")), 6), "");
  const std::string overlay = "check: overlay: 1 file(s), 0 link(s), journal 6 of 7900 bytes\n";
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
  expect_outcome(r, 1, head(size_text(s("sys/VERZEICHNIS"))) + overlay,
                 check_refused({"overlay file prog: \"bomb.gz\" unpacks to more than the 1000 bytes of its entry; a "
                                "device writes all of it before it checks the size"}));

  // A damaged trailer: the decoder writes everything, then refuses.
  std::string damaged = gz_of(std::string(1000, 'p'));
  damaged[damaged.size() - 8] ^= 1;
  std::string with_damaged = t;
  with_damaged.replace(gz_at, good_line.size(), variant("damaged.gz", damaged));
  resign(with_damaged);
  r = check();
  expect_outcome(r, 1, head(size_text(s("sys/VERZEICHNIS"))) + overlay,
                 check_refused({"overlay file prog: \"damaged.gz\" does not unpack: its CRC-32 or length trailer does "
                                "not match the output (code 4)"}));

  // A second line for the same target is never fetched, but it is unpacked and must match
  // too; a line for no entry is only reported.
  std::string later = t + variant("other.gz", gz_of(std::string(1000, 'q'))) + variant("lone.gz", gz_of("x"), "nope");
  resign(later);
  r = check();
  expect_outcome(r, 1,
                 head(size_text(s("sys/VERZEICHNIS"))) + "check: overlay file prog: prog.gz, " +
                     size_text(s("sys/prog.gz")) +
                     " bytes, unpacks to 1000 bytes, hashes ok\n"
                     "check: warning: gzip line 2 for \"prog\" is not the first complete one for it; devices never "
                     "fetch it\n"
                     "check: warning: gzip line 3 for \"nope\" belongs to no entry; devices never fetch it\n" +
                     overlay,
                 check_refused({"gzip line 2 for prog: \"other.gz\" unpacks to the wrong size or hash"}));
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
  Outcome made = tool({"catalog", "--key", s.key("k0"), "--out", s("src"), "--version", "2", "--package",
                       "p:w:" + s("p.tpk") + ":tavi-any"});
  expect_outcome(made, 0,
                 "ota-publish: wrote " + s("src") +
                     ": version 2, 1 package(s) (1 for tavi-x86_64), 0 blocked, 0 key change(s)\n"
                     "ota-publish: VERZEICHNIS 107 of 32767 bytes, signed by " +
                     to_hex(read_all(s.pub("k0"))) + "\n",
                 "");
  std::string text = read_all(s("src/VERZEICHNIS")) + "gesperrt\t100000007\ngesperrt\t3rc1\n";
  write_all(s("src/VERZEICHNIS"), text);
  write_all(s("src/VERZEICHNIS.sig"), openssl_sign(s.key("k0"), text));
  Outcome r = tool({"check", s("src"), "--trusted", s.pub("k0")});
  expect_outcome(r, 1,
                 "check: VERZEICHNIS: 140 of 32767 bytes\n"
                 "check: signature ok with the key of generation 0\n"
                 "check: marker OTA2 ok\n"
                 "check: warning: blocked version \"3rc1\" is not a plain number; a device blocks 3\n"
                 "check: blocked versions: 100000007 3rc1\n"
                 "check: version offered: 2\n"
                 "check: package p: p.tpk, 8 bytes, hash and signature ok, platform tavi-any\n"
                 "check: INDEX: 1 line(s), signature ok\n",
                 check_refused({"blocked version 100000007 does not fit the eight digits a device stores; it would "
                                "block 7"}));
}

}  // namespace
