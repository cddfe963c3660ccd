// Releases signed with keys that live in a PKCS#11 token (SoftHSM2) and never on disk: the
// real ota takes a package release and a system release signed through the token, one
// signed offline from an --unsigned source, and a key change from one token's key to
// another's; a catalog signed by a token key the device does not trust is refused.
#include "token_support.h"
#include "system_source.h"

using namespace e2e;
using tavisim::RunResult;
using token_test::SoftTokens;
using Words = std::vector<std::string>;

namespace {

class TokenRelease : public SystemTest {
 protected:
  void SetUp() override {
    SystemTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(SoftTokens::available()) << "SoftHSM2 is missing; run scripts/setup.sh";
    tokens_.emplace(scratch("tokens"));
    ASSERT_TRUE(tokens_->init("release-hsm"));
    token_pub_ = keygen("release-hsm", "release");
    device().write_file("/system/schluessel.pub", token_pub_);
    device().write_file("/system/FASSUNG", "00000004\n");
  }

  // A key pair made in a token; returns its public key.
  std::string keygen(const std::string& token, const std::string& object) {
    std::string prefix = key(token + "-" + object);
    ToolResult r = publish({"keygen", "--key", SoftTokens::key(token, object), "--out", prefix});
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_FALSE(std::filesystem::exists(prefix + ".key"));
    return read_all(prefix + ".pub");
  }

  Words catalog_words(const Words& signing, const Words& more = {}) {
    Words words = {"catalog"};
    words.insert(words.end(), signing.begin(), signing.end());
    Words rest = {"--out",
                  source_,
                  "--force",
                  "--version",
                  "5",
                  "--package",
                  "core:base-system:" + package_file("core-5.tpk", 3000, 'c') + ":tavi-x86_64"};
    words.insert(words.end(), rest.begin(), rest.end());
    words.insert(words.end(), more.begin(), more.end());
    return words;
  }

  // The apply of version 5 went through, and the installer's index signature the device
  // fetched is the token's.
  void expect_installed(const RunResult& r, const std::string& signer_pub, const std::string& key_change = "") {
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out, std::string("ota: source ") + kSourceUrl + "\n" + key_change +
                         "ota: version here 4\nota: version there 5\nota: space 4096000000\nota: needed 530663\n"
                         "ota: hash ok core-5.tpk\nota: applying with tpk core\n"
                         "ota: READY FOR RESTART -- it will NOT\n     restart by itself. `reboot`.\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000005\n");
    EXPECT_EQ(device().read_file("/system/tpk/installed").value_or(""), "core\t5\n");
    EXPECT_TRUE(openssl_verifies(signer_pub, device().read_file("/tmp/ota/INDEX").value_or(""),
                                 device().read_file("/tmp/ota/INDEX.sig").value_or("")));
  }

  std::optional<SoftTokens> tokens_;
  std::string token_pub_;
};

TEST_F(TokenRelease, APackageReleaseSignedInTheTokenIsInstalled) {
  ToolResult r = publish(catalog_words({"--key", SoftTokens::key("release-hsm", "release")}));
  ASSERT_EQ(r.status, 0) << r.output;
  std::string pub_path = key("release-hsm-release") + ".pub";
  r = publish({"check", source_, "--trusted", pub_path});
  EXPECT_EQ(r.status, 0) << r.output;
  expect_installed(device().run({"apply"}), token_pub_);
}

TEST_F(TokenRelease, ASystemReleaseSignedInTheTokenIsStaged) {
  std::string image = kernel_file("tavi-new.mb", kNewBuild, kNewCommit);
  ToolResult r =
      publish({"system", "--key", SoftTokens::key("release-hsm", "release"), "--out", system_dir(), "--build",
               std::to_string(kNewBuild), "--commit", kNewCommit, "--kernel", work_ + "/kernels/tavi-new.mb", "--file",
               "taskbar=" + host_file("taskbar", "new taskbar\n") + ":gz"});
  ASSERT_EQ(r.status, 0) << r.output;
  r = publish({"check", system_dir(), "--trusted", key("release-hsm-release") + ".pub", "--system"});
  EXPECT_EQ(r.status, 0) << r.output;

  RunResult apply = device().run({"system", "apply"});
  EXPECT_EQ(apply.status, 0) << apply.err;
  EXPECT_EQ(apply.out,
            check_lines() + "system: overlay files verified: 1\nsystem: staged in slot B, restart to install\n");
  EXPECT_EQ(apply.err, "");
  EXPECT_EQ(device().esp_read("sda1", "tavi-b.mb").value_or("<missing>"), image);
  EXPECT_EQ(device().read_file("/bin/taskbar").value_or("<missing>"), "new taskbar\n");
  EXPECT_TRUE(device().exists("/system/SYSPENDING"));
}

TEST_F(TokenRelease, AnOfflineSignedReleaseIsInstalled) {
  // Built without a key, carried to the token, signed there, checked, then served.
  ToolResult r = publish(catalog_words({"--unsigned"}));
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_FALSE(std::filesystem::exists(source_ + "/VERZEICHNIS.sig"));
  RunResult refused = device().run({"search"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, "ota: cannot fetch: VERZEICHNIS.sig\n");

  r = publish({"sign", "--key", SoftTokens::key("release-hsm", "release"), source_});
  ASSERT_EQ(r.status, 0) << r.output;
  r = publish({"check", source_, "--trusted", key("release-hsm-release") + ".pub"});
  EXPECT_EQ(r.status, 0) << r.output;
  expect_installed(device().run({"apply"}), token_pub_);
}

TEST_F(TokenRelease, AKeyChangeFromOneTokenToAnotherIsFollowed) {
  ASSERT_TRUE(tokens_->init("release-hsm-2027"));
  std::string next_pub = keygen("release-hsm-2027", "release");
  ASSERT_NE(next_pub, token_pub_);
  std::string chain = work_ + "/kette-1";
  ToolResult r = publish({"chain", "--signer", SoftTokens::key("release-hsm", "release"), "--new",
                          key("release-hsm-2027-release") + ".pub", "--generation", "1", "--out", chain});
  ASSERT_EQ(r.status, 0) << r.output;
  r = publish(catalog_words({"--key", SoftTokens::key("release-hsm-2027", "release")}, {"--chain", chain}));
  ASSERT_EQ(r.status, 0) << r.output;

  RunResult apply = device().run({"apply"});
  expect_installed(apply, next_pub, "ota: KEY CHANGE accepted, new generation 1\n");
  EXPECT_EQ(device().read_file("/system/schluessel.pub").value_or(""), next_pub);
  EXPECT_EQ(device().read_file("/system/SCHLUESSELGEN").value_or(""), "00000001\n");
}

TEST_F(TokenRelease, ACatalogSignedByAnotherTokenKeyIsRefused) {
  ASSERT_TRUE(tokens_->init("stranger"));
  keygen("stranger", "release");
  ToolResult r = publish(catalog_words({"--key", SoftTokens::key("stranger", "release")}));
  ASSERT_EQ(r.status, 0) << r.output;
  RunResult search = device().run({"search"});
  EXPECT_EQ(search.status, 1);
  EXPECT_EQ(search.err, "ota: SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED\n");
  EXPECT_EQ(device().read_file("/system/schluessel.pub").value_or(""), token_pub_);
  EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000004\n");
}

}  // namespace
