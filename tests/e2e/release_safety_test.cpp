// What the publisher refuses, and why: each of these releases does to a real device what
// the refusal says. A device behaves here exactly as it must; the harm comes from the
// release, so the release tool is where it is stopped.
#include "system_source.h"

using namespace e2e;
using tavisim::RunResult;

namespace {

// Why the publisher refuses a commit holding "sha=", and a key of small order.
const std::string kShaInCommit =
    "commit \"2222sha=bbbb\" contains \"sha=\"; a device finds the keys of /system/SYSPENDING anywhere in the "
    "record, would read the kernel's hash from the commit and could never promote the update\n";
const std::string kSmallOrder =
    "0100000000000000000000000000000000000000000000000000000000000000 is a point of small order; devices check "
    "signatures without the cofactor, so anyone could forge signatures under it (under the identity key R = B, "
    "S = 1 passes for every catalog)\n";

class ReleaseSafetyTest : public SystemTest {
 protected:
  std::string file(const std::string& path) { return device().read_file(path).value_or("<missing>"); }
  // Stages the manifest being served, restarts into entry B and confirms.
  RunResult stage_restart_confirm() {
    RunResult r = device().run({"system", "apply"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    tavisim::BootResult b = restart_machine();
    EXPECT_TRUE(b.booted) << b.stuck;
    EXPECT_EQ(b.entry, 2);
    return device().run({"system", "confirm"});
  }
};

// The keys of /system/SYSPENDING are found anywhere in the record, first place first. A
// commit holding "sha=" puts a false hash key before the real one: the device reads the
// kernel's hash out of the commit, never finds slot B matching it, and the update stays
// pending however often it is confirmed.
TEST_F(ReleaseSafetyTest, ACommitHoldingShaLeavesTheUpdatePendingForGood) {
  const std::string commit = "2222sha=bbbb";
  std::string image = tavisim::stand_in_kernel(kNewBuild, commit);
  serve_system_text(manifest_head(image, kNewBuild, commit));

  RunResult r = stage_restart_confirm();
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(file("/system/SYSPENDING"),
            "count=20250111\ncommit=" + commit + "\nsha=" + sha256_hex(image) + "\n");
  for (int i = 0; i < 3; i++) {
    r = device().run({"system", "confirm"});
    EXPECT_EQ(r.out, "");
  }
  EXPECT_TRUE(device().exists("/system/SYSPENDING"));
  EXPECT_EQ(file("/system/SYSVERSION"), "20250110\n");
  EXPECT_EQ(device().esp_read("sda1", "tavi.mb").value_or(""), old_kernel_);
  // And while it stays pending no other system update is taken.
  r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: a trial is running or pending, confirm or restart first\n");

  // The publisher makes no such release and finds it in a source.
  std::string kernel_path = work_ + "/kernels/sha.mb";
  write_all(kernel_path, image);
  ToolResult p = publish({"system", "--key", key("release") + ".key", "--out", work_ + "/refused", "--build",
                          std::to_string(kNewBuild), "--commit", commit, "--kernel", kernel_path});
  EXPECT_EQ(p.status, 1);
  EXPECT_EQ(p.output, "ota-publish: " + kShaInCommit);
  p = publish({"check", system_dir(), "--trusted", key("release") + ".pub", "--system"});
  EXPECT_EQ(p.status, 1);
  EXPECT_EQ(p.output,
            "check: VERZEICHNIS: 131 of 32767 bytes\ncheck: signature ok with the key of generation 0\n"
            "check: marker OTA2 ok\ncheck: PROBLEM: " + kShaInCommit +
            "check: system build 20250111, commit 2222sha=bbbb\ncheck: kernel: tavi-new.mb, 4096 bytes, hash ok\n"
            "check: overlay: 0 file(s), 0 link(s), journal 0 of 7900 bytes\ncheck: REFUSED -- 1 problem(s)\n");
}

// The other two keys are harmless in a commit: their real places come before it.
TEST_F(ReleaseSafetyTest, ACommitHoldingTheOtherKeysIsPromoted) {
  const std::string commit = "22count=xcommit=yy";
  std::string image = publish_system({}, kNewBuild, commit);
  RunResult r = stage_restart_confirm();
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "system: new kernel confirmed and promoted to slot A\n");
  EXPECT_EQ(file("/system/SYSVERSION"), "20250111\n");
  EXPECT_EQ(device().esp_read("sda1", "tavi.mb").value_or(""), image);
  EXPECT_FALSE(device().exists("/system/SYSPENDING"));
  ToolResult p = publish({"check", system_dir(), "--trusted", key("release") + ".pub", "--system"});
  EXPECT_EQ(p.status, 0) << p.output;
}

// A device checks a signature without the cofactor. Once it follows a key change to the
// identity key (01 00 ... 00), the fixed forgery R = B, S = 1 verifies for any catalog:
// whoever can serve the device takes it over. A key change to that key must never be
// signed.
TEST_F(ReleaseSafetyTest, ADeviceThatFollowsAKeyChangeToTheIdentityAcceptsAForgedCatalog) {
  std::string identity(32, '\0');
  identity[0] = 1;
  std::string key_field = to_hex(identity);
  std::string step = "tavi-schluessel\t1\t" + key_field;
  std::string chain_line = "kette\t1\t" + key_field + "\t" + to_hex(signer_.sign(step)) + "\n";
  std::string catalog = "OTA2\nfassung\t9\n" + chain_line;
  // R = B (y = 4/5), S = 1: no private key was used to make it.
  std::string forged = unhex("5866666666666666666666666666666666666666666666666666666666666666") +
                       unhex("0100000000000000000000000000000000000000000000000000000000000000");
  write_all(source_ + "/VERZEICHNIS", catalog);
  write_all(source_ + "/VERZEICHNIS.sig", forged);
  RunResult r = device().run({"search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, std::string("ota: source ") + kSourceUrl +
                       "\nota: KEY CHANGE accepted, new generation 1\nota: version here 0\nota: version there 9\n");
  EXPECT_EQ(r.err, "ota: the VERZEICHNIS names no package\n");
  EXPECT_EQ(device().read_file("/system/schluessel.pub").value_or(""), identity);
  // From now on any text passes with the same forged signature.
  write_all(source_ + "/VERZEICHNIS", "OTA2\nfassung\t10\nanything at all\n");
  r = device().run({"search"});
  EXPECT_EQ(r.out, std::string("ota: source ") + kSourceUrl + "\nota: version here 0\nota: version there 10\n");
  EXPECT_EQ(r.err, "ota: the VERZEICHNIS names no package\n");

  // The publisher signs no such key change, and refuses a source whose chain reaches it.
  std::string identity_pub = work_ + "/identity.pub";
  write_all(identity_pub, identity);
  ToolResult p = publish({"chain", "--signer", key("release") + ".key", "--new", identity_pub, "--generation", "1",
                          "--out", work_ + "/identity.chain"});
  EXPECT_EQ(p.status, 1);
  EXPECT_EQ(p.output, "ota-publish: new key " + kSmallOrder);
  EXPECT_FALSE(std::filesystem::exists(work_ + "/identity.chain"));
  write_all(source_ + "/VERZEICHNIS", catalog);
  p = publish({"check", source_, "--trusted", key("release") + ".pub"});
  EXPECT_EQ(p.status, 1);
  EXPECT_EQ(p.output,
            "check: VERZEICHNIS: 217 of 32767 bytes\n"
            "check: key change to generation 1 accepted, signed by the key of generation 0\n"
            "check: PROBLEM: the key of generation 1 " + kSmallOrder +
            "check: signature ok with the key of generation 1\ncheck: marker OTA2 ok\ncheck: version offered: 9\n"
            "check: PROBLEM: the VERZEICHNIS names no package\ncheck: PROBLEM: INDEX is missing from the source\n"
            "check: REFUSED -- 3 problem(s)\n");
}

}  // namespace
