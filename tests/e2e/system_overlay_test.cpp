// Overlay files of a system update: staging with their checks and gzip variants, the
// space check, the journal /system/SYSOVL, backups in /system/old, modes, links, the
// target rules, and the restore after an install that stopped half way.
#include <sys/stat.h>

#include "system_source.h"
#include "zlib_reference.h"

using namespace e2e;
using tavisim::RunResult;
using Words = std::vector<std::string>;

namespace {

class SystemOverlayTest : public SystemTest {
 protected:
  std::string file(const std::string& path) { return device().read_file(path).value_or("<missing>"); }
  unsigned mode(const std::string& path) { return device().mode_of(path); }
  ino_t inode(const std::string& path) {
    struct stat st {};
    return stat(device().host_path(path).c_str(), &st) == 0 ? st.st_ino : 0;
  }
  static std::vector<std::string> fetched_urls(const RunResult& r) {
    std::vector<std::string> out;
    for (const auto& f : spawns_of(r.events, "/bin/fetch")) out.push_back(f.back());
    return out;
  }
  static std::string url(const std::string& name) { return std::string(kSystemUrl) + "/stable/" + name; }

  // A hand-written manifest offering the new kernel and the lines given, applied while
  // the device and its ESP are watched: the apply must fail with `err` and leave both as
  // they were.
  RunResult expect_refused_and_unchanged(const std::string& lines, const std::string& err) {
    std::string image = kernel_file("k", kNewBuild, kNewCommit);
    serve_system_text(manifest_head(image) + lines);
    Snapshot root = root_snapshot();
    Snapshot esp = esp_snapshot();
    RunResult r = device().run({"system", "apply"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, err);
    EXPECT_EQ(difference(root, root_snapshot()), "");
    EXPECT_EQ(difference(esp, esp_snapshot()), "");
    EXPECT_FALSE(device().mounted());
    return r;
  }
};

// --- A whole overlay ---

TEST_F(SystemOverlayTest, FilesAreStagedCheckedAndMovedIntoPlaceWithBackupsAndAJournal) {
  device().write_file("/bin/taskbar", "old taskbar\n", 0755);
  device().write_file("/etc/net/hosts.conf", "old hosts\n", 0600);
  device().write_file("/lib/tool", "a plain file where a link will be\n");
  publish_system({"--file", "taskbar=" + host_file("taskbar", "new taskbar\n"),               //
                  "--file", "x.y-z_1=" + host_file("xyz", "new program\n") + ":gz",            //
                  "--file", "/apps/clock/start=" + host_file("start", "#!clock\n"),            //
                  "--file", "/apps/clock/start.conf=" + host_file("start.conf", "hands=2\n"),  //
                  "--file", "/etc/net/hosts.conf=" + host_file("hosts.conf", "new hosts\n"),   //
                  "--link", "/apps/clock/alias=/bin/taskbar",                                 //
                  "--link", "/lib/tool=/bin/x.y-z_1"});
  RunResult r = device().run({"system", "apply"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + "system: overlay files verified: 5\nsystem: staged in slot B, restart to install\n");
  EXPECT_EQ(r.err, "");

  EXPECT_EQ(file("/system/SYSOVL"),
            "1taskbar\n0x.y-z_1\n0/apps/clock/start\n0/apps/clock/start.conf\n1/etc/net/hosts.conf\n"
            "N/apps/clock/alias\t/bin/taskbar\nL/lib/tool\t/bin/x.y-z_1\n");
  // The new files, in place with their modes.
  EXPECT_EQ(file("/bin/taskbar"), "new taskbar\n");
  EXPECT_EQ(mode("/bin/taskbar"), 0755u);
  EXPECT_EQ(file("/bin/x.y-z_1"), "new program\n");
  EXPECT_EQ(mode("/bin/x.y-z_1"), 0755u);
  EXPECT_EQ(file("/apps/clock/start"), "#!clock\n");
  EXPECT_EQ(mode("/apps/clock/start"), 0755u);
  EXPECT_EQ(file("/apps/clock/start.conf"), "hands=2\n");
  EXPECT_EQ(mode("/apps/clock/start.conf"), 0644u);
  EXPECT_EQ(file("/etc/net/hosts.conf"), "new hosts\n");
  EXPECT_EQ(mode("/etc/net/hosts.conf"), 0644u);
  // The links are hard links to their programs.
  EXPECT_EQ(inode("/apps/clock/alias"), inode("/bin/taskbar"));
  EXPECT_EQ(inode("/lib/tool"), inode("/bin/x.y-z_1"));
  // The previous files are kept as backups under their staging names.
  EXPECT_EQ(file("/system/old/taskbar"), "old taskbar\n");
  EXPECT_EQ(file("/system/old/etc@net@hosts.conf"), "old hosts\n");
  EXPECT_EQ(mode("/system/old/etc@net@hosts.conf"), 0600u);
  // Nothing is left in the staging directory or the download directory.
  EXPECT_TRUE(std::filesystem::is_empty(device().host_path("/system/new")));
  EXPECT_FALSE(device().exists("/tmp/ota/xyz.gz"));
  // The gzip variant was fetched instead of the plain file; each file straight into its
  // staging name.
  EXPECT_EQ(fetched_urls(r), (Words{url("VERZEICHNIS"), url("VERZEICHNIS.sig"), url("taskbar"), url("xyz.gz"),
                                    url("start"), url("start.conf"), url("hosts.conf"), url("tavi-new.mb")}));
  auto fetches = spawns_of(r.events, "/bin/fetch");
  EXPECT_EQ(fetches[2], (Words{"/bin/fetch", "-o", "/system/new/taskbar", url("taskbar")}));
  EXPECT_EQ(fetches[3], (Words{"/bin/fetch", "-o", "/tmp/ota/xyz.gz", url("xyz.gz")}));
  EXPECT_EQ(fetches[4], (Words{"/bin/fetch", "-o", "/system/new/apps@clock@start", url("start")}));
  EXPECT_EQ(fetches[6], (Words{"/bin/fetch", "-o", "/system/new/etc@net@hosts.conf", url("hosts.conf")}));

  // Confirmed: the backups are dropped, the files stay.
  ASSERT_TRUE(restart_machine().booted);
  r = device().run({"system", "confirm"});
  EXPECT_EQ(r.out, "system: overlay committed\nsystem: new kernel confirmed and promoted to slot A\n");
  EXPECT_FALSE(device().exists("/system/SYSOVL"));
  EXPECT_TRUE(std::filesystem::is_empty(device().host_path("/system/old")));
  EXPECT_EQ(file("/bin/taskbar"), "new taskbar\n");
  EXPECT_EQ(file("/lib/tool"), "new program\n");
}

TEST_F(SystemOverlayTest, ARollbackPutsEveryPreviousFileBackAndRemovesTheNewOnes) {
  device().write_file("/bin/taskbar", "old taskbar\n", 0755);
  device().write_file("/etc/net/hosts.conf", "old hosts\n", 0600);
  device().write_file("/lib/tool", "a plain file where a link will be\n");
  publish_system({"--file", "taskbar=" + host_file("taskbar", "new taskbar\n"),
                  "--file", "x.y-z_1=" + host_file("xyz", "new program\n"),
                  "--file", "/etc/net/hosts.conf=" + host_file("hosts.conf", "new hosts\n"),
                  "--link", "/apps/clock/alias=/bin/taskbar", "--link", "/lib/tool=/bin/taskbar"});
  ASSERT_EQ(device().run({"system", "apply"}).status, 0);
  running_kernel(kOldCommit);  // the trial kernel did not come up
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.out,
            "system: overlay restored (previous /bin files are back)\n"
            "system: trial kernel was rolled back, update dropped\n");
  EXPECT_EQ(file("/bin/taskbar"), "old taskbar\n");
  EXPECT_EQ(mode("/bin/taskbar"), 0755u);
  EXPECT_EQ(file("/etc/net/hosts.conf"), "old hosts\n");
  EXPECT_EQ(mode("/etc/net/hosts.conf"), 0600u);
  EXPECT_FALSE(device().exists("/bin/x.y-z_1"));
  EXPECT_FALSE(device().exists("/apps/clock/alias"));
  // A link path that existed is linked again to the same program: the journal keeps no
  // previous content, so the plain file that stood there is not back.
  EXPECT_EQ(inode("/lib/tool"), inode("/bin/taskbar"));
  EXPECT_EQ(file("/lib/tool"), "old taskbar\n");
  EXPECT_FALSE(device().exists("/system/SYSOVL"));
  EXPECT_TRUE(std::filesystem::is_empty(device().host_path("/system/old")));
  EXPECT_TRUE(std::filesystem::is_empty(device().host_path("/system/new")));
}

// --- gzip variants ---

TEST_F(SystemOverlayTest, TheKernelAndTheTrustRootsComeAsGzipVariants) {
  std::string roots = "-----BEGIN CERTIFICATE-----\nroots of trust\n-----END CERTIFICATE-----\n";
  std::string kernel = publish_system({"--gzip-kernel", "--roots", host_file("roots.pem", roots), "--gzip-roots"});
  RunResult r = device().run({"system", "apply"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + "system: trust roots updated\nsystem: staged in slot B, restart to install\n");
  EXPECT_EQ(fetched_urls(r), (Words{url("VERZEICHNIS"), url("VERZEICHNIS.sig"), url("roots.pem.gz"),
                                    url("tavi-new.mb.gz")}));
  auto fetches = spawns_of(r.events, "/bin/fetch");
  EXPECT_EQ(fetches[3], (Words{"/bin/fetch", "-o", "/tmp/ota/tavi-new.mb.gz", url("tavi-new.mb.gz")}));
  EXPECT_EQ(device().esp_read("sda1", "tavi-b.mb").value_or(""), kernel);
  auto applied = events_of(r.events, "rootsctl");
  ASSERT_EQ(applied.size(), 1u);
  EXPECT_EQ(applied[0].value("sha256"), sha256_hex(roots));
  EXPECT_EQ(read_all(device().dir() + "/rootsctl/applied.pem"), roots);
  EXPECT_FALSE(device().exists("/tmp/ota/tavi-new.mb.gz"));
  EXPECT_FALSE(device().exists("/tmp/ota/roots.pem.gz"));
  EXPECT_FALSE(device().exists("/system/new/roots.pem"));
}

TEST_F(SystemOverlayTest, AGzipVariantThatIsNotGzipFailsToUnpack) {
  device().write_file("/bin/taskbar", "old taskbar\n", 0755);
  std::string data = "new taskbar\n";
  std::string bad = "this is not a gzip stream";
  serve_file("taskbar", data);
  serve_file("taskbar.gz", bad);
  RunResult r = expect_refused_and_unchanged(
      file_line(data, "taskbar", "taskbar") + "sysgz\ttaskbar\t" + sha256_hex(bad) + "\t" +
          std::to_string(bad.size()) + "\ttaskbar.gz\n",
      "ota: overlay file download or check failed: taskbar\n");
  EXPECT_EQ(r.out, check_lines() + "ota: gunzip failed, code 3\n");
  EXPECT_FALSE(device().exists("/tmp/ota/taskbar.gz"));
}

TEST_F(SystemOverlayTest, ATruncatedGzipVariantFailsToUnpack) {
  std::string data(3000, 'q');
  std::string gz = gzip_by_zlib(data).substr(0, 12);
  serve_file("prog", data);
  serve_file("prog.gz", gz);
  RunResult r = expect_refused_and_unchanged(
      file_line(data, "prog", "prog") + "sysgz\tprog\t" + sha256_hex(gz) + "\t" + std::to_string(gz.size()) +
          "\tprog.gz\n",
      "ota: overlay file download or check failed: prog\n");
  EXPECT_EQ(r.out, check_lines() + "ota: gunzip failed, code 1\n");
}

TEST_F(SystemOverlayTest, AGzipVariantUnpackingToOtherBytesIsRefused) {
  std::string data = "new taskbar\n";
  std::string gz = gzip_by_zlib("another taskbar\n");
  serve_file("taskbar", data);
  serve_file("taskbar.gz", gz);
  RunResult r = expect_refused_and_unchanged(
      file_line(data, "taskbar", "taskbar") + "sysgz\ttaskbar\t" + sha256_hex(gz) + "\t" + std::to_string(gz.size()) +
          "\ttaskbar.gz\n",
      "ota: unpacked file has the wrong size or hash\nota: overlay file download or check failed: taskbar\n");
  EXPECT_EQ(r.out, check_lines());
}

TEST_F(SystemOverlayTest, AnIncompleteGzipLineIsPassedOverForThePlainFile) {
  std::string data = "new taskbar\n";
  std::string gz = gzip_by_zlib(data);
  std::string image = kernel_file("k", kNewBuild, kNewCommit);
  serve_file("taskbar", data);
  serve_file("taskbar.gz", gz);
  // A hash of 63 digits makes the gzip line incomplete.
  serve_system_text(manifest_head(image) + file_line(data, "taskbar", "taskbar") + "sysgz\ttaskbar\t" +
                    sha256_hex(gz).substr(1) + "\t" + std::to_string(gz.size()) + "\ttaskbar.gz\n");
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(fetched_urls(r), (Words{url("VERZEICHNIS"), url("VERZEICHNIS.sig"), url("taskbar"), url("tavi-new.mb")}));
  EXPECT_EQ(file("/bin/taskbar"), data);
}

TEST_F(SystemOverlayTest, AGzippedKernelUnpackingToOtherBytesFailsTheKernelStep) {
  std::string image = kernel_file("k", kNewBuild, kNewCommit);
  std::string gz = gzip_by_zlib(image + "x");
  serve_file("tavi-new.mb.gz", gz);
  RunResult r = expect_refused_and_unchanged(
      "sysgz\tkernel\t" + sha256_hex(gz) + "\t" + std::to_string(gz.size()) + "\ttavi-new.mb.gz\n",
      "ota: unpacked file has the wrong size or hash\nota: kernel download or check failed\n");
  EXPECT_EQ(r.out, check_lines());
}

// --- Space ---

class SystemOverlaySpaceTest : public SystemOverlayTest {
 protected:
  // 1000 bytes of overlay files need 2 * 1000 + 524288 = 526288 bytes free.
  RunResult apply_with_free_bytes(uint64_t free_bytes) {
    device().config().free_blocks = free_bytes;
    device().config().block_size = 1;
    device().save_config();
    publish_system({"--file", "one=" + host_file("one", std::string(600, '1')), "--file",
                    "two=" + host_file("two", std::string(400, '2'))});
    return device().run({"system", "apply"});
  }
};

TEST_F(SystemOverlaySpaceTest, OneByteTooLittleIsRefusedBeforeAnyFileIsFetched) {
  Snapshot root = root_snapshot();
  Snapshot esp = esp_snapshot();
  RunResult r = apply_with_free_bytes(526287);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, check_lines());
  EXPECT_EQ(r.err, "ota: not enough free space for the overlay files\n");
  EXPECT_EQ(fetched_urls(r), (Words{url("VERZEICHNIS"), url("VERZEICHNIS.sig")}));
  EXPECT_EQ(difference(root, root_snapshot()), "");
  EXPECT_EQ(difference(esp, esp_snapshot()), "");
  EXPECT_FALSE(device().mounted());
}

TEST_F(SystemOverlaySpaceTest, JustEnoughProceeds) {
  RunResult r = apply_with_free_bytes(526288);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + "system: overlay files verified: 2\nsystem: staged in slot B, restart to install\n");
  EXPECT_EQ(file("/bin/one"), std::string(600, '1'));
}

TEST_F(SystemOverlaySpaceTest, BlocksTimesBlockSizeIsTheFreeSpace) {
  device().config().free_blocks = 128;
  device().config().block_size = 4096;  // 524288 bytes: not enough
  device().save_config();
  publish_system({"--file", "one=" + host_file("one", "1")});
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: not enough free space for the overlay files\n");
}

// --- The journal's size ---

// A manifest with `count` overlay files, each with a target of 59 characters, all
// downloaded from the one file "f".
std::string many_files(int count) {
  std::string lines;
  for (int i = 0; i < count; i++) {
    char target[64];
    snprintf(target, sizeof target, "/usr/share/many/%043d", i);  // 16 + 43 = 59 characters
    lines += file_line("x", "f", target);
  }
  return lines;
}

TEST_F(SystemOverlayTest, AJournalTooLargeIsNotWrittenAndNothingIsMoved) {
  // 129 lines of 61 bytes leave 7869 bytes; the 130th would pass 7900.
  serve_file("f", "x");
  RunResult r = expect_refused_and_unchanged(many_files(130), "ota: overlay install failed, previous files restored\n");
  EXPECT_EQ(r.out, check_lines() + "system: overlay files verified: 130\n");
  EXPECT_FALSE(device().exists("/usr/share/many"));
}

TEST_F(SystemOverlayTest, AJournalThatFitsIsWrittenWhole) {
  serve_file("f", "x");
  std::string image = kernel_file("k", kNewBuild, kNewCommit);
  serve_system_text(manifest_head(image) + many_files(128));
  RunResult r = device().run({"system", "apply"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::string journal = file("/system/SYSOVL");
  // One line per file, each a new one ("0"), in the order of the list.
  std::string lines;
  for (int i = 0; i < 128; i++) {
    char line[80];
    snprintf(line, sizeof line, "0/usr/share/many/%043d\n", i);
    lines += line;
  }
  EXPECT_EQ(journal, lines);
  EXPECT_EQ(journal.size(), 128u * 61u);
  EXPECT_EQ(file("/usr/share/many/" + std::string(40, '0') + "127"), "x");
}

// --- Target and link rules ---

struct BadEntry {
  const char* name;
  std::string lines;  // built around the valid file "taskbar" that comes first
};

class SystemOverlayRuleTest : public SystemOverlayTest, public ::testing::WithParamInterface<BadEntry> {};

TEST_P(SystemOverlayRuleTest, IsRefusedAsABadEntryAndChangesNothing) {
  device().write_file("/bin/taskbar", "old taskbar\n", 0755);
  serve_file("taskbar", "new taskbar\n");
  serve_file("other", "other\n");
  RunResult r = expect_refused_and_unchanged(file_line("new taskbar\n", "taskbar", "taskbar") + GetParam().lines,
                                             "ota: bad overlay entry in the signed list\n");
  EXPECT_EQ(r.out, check_lines());
  // The valid file before it was staged and cleaned away again.
  EXPECT_FALSE(device().exists("/system/new/taskbar"));
  EXPECT_TRUE(events_of(r.events, "mount").size() == 1u);
}

std::string other_file(const std::string& target) { return file_line("other\n", "other", target); }

INSTANTIATE_TEST_SUITE_P(
    Targets, SystemOverlayRuleTest,
    ::testing::Values(BadEntry{"AbsoluteBinPath", other_file("/bin/ls")},
                      BadEntry{"DotDot", other_file("/etc/../x")},
                      BadEntry{"DoubleSlash", other_file("/etc//x")},
                      BadEntry{"FinalSlash", other_file("/etc/")},
                      BadEntry{"FinalSlashLonger", other_file("/etc/net/")},
                      BadEntry{"BareNameStartingWithADot", other_file("..x")},
                      BadEntry{"HiddenBareName", other_file(".profile")},
                      BadEntry{"OtherDirectory", other_file("/var/lib/x")},
                      BadEntry{"PrefixWithoutItsSlash", other_file("/etcetera")},
                      BadEntry{"TooShortAbsolutePath", other_file("/lib/")},
                      BadEntry{"PlusSign", other_file("a+b")},
                      BadEntry{"Blank", other_file("/etc/a b")},
                      BadEntry{"Backslash", other_file("/etc/a\\b")},
                      BadEntry{"NonAscii", other_file("/etc/\xc3\xa4.conf")},
                      BadEntry{"DotDotInsideAName", other_file("/apps/a..b/start")},
                      BadEntry{"EmptyTarget", other_file("")},
                      BadEntry{"HashOf63", "sysfile\tfile\t" + sha256_hex("other\n").substr(1) + "\t6\tother\tother\n"},
                      BadEntry{"SizeZero", "sysfile\tfile\t" + sha256_hex("other\n") + "\t0\tother\tother\n"},
                      BadEntry{"NoName", "sysfile\tfile\t" + sha256_hex("other\n") + "\t6\t\tother\n"},
                      BadEntry{"LinkPathInBin", "syslink\t/bin/ls\t/bin/taskbar\n"},
                      BadEntry{"LinkPathBare", "syslink\tls\t/bin/taskbar\n"},
                      BadEntry{"LinkPathWithDotDot", "syslink\t/etc/../bin/x\t/bin/taskbar\n"},
                      BadEntry{"LinkTargetOutsideBin", "syslink\t/etc/x\t/usr/bin/taskbar\n"},
                      BadEntry{"LinkTargetDoubleSlash", "syslink\t/etc/x\t/bin//taskbar\n"},
                      BadEntry{"LinkTargetHidden", "syslink\t/etc/x\t/bin/.taskbar\n"},
                      BadEntry{"LinkTargetDirectory", "syslink\t/etc/x\t/bin/\n"},
                      BadEntry{"LinkWithoutTarget", "syslink\t/etc/x\n"}),
    [](const ::testing::TestParamInfo<BadEntry>& info) { return std::string(info.param.name); });

TEST_F(SystemOverlayTest, TheLongestBareNameAndAllItsCharactersAreAccepted) {
  std::string name = "Az09.-_" + std::string(52, 'n');  // 59 characters, the field's capacity
  serve_file("prog", "p\n");
  std::string image = kernel_file("k", kNewBuild, kNewCommit);
  serve_system_text(manifest_head(image) + file_line("p\n", "prog", name));
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(file("/bin/" + name), "p\n");
  EXPECT_EQ(mode("/bin/" + name), 0755u);
}

TEST_F(SystemOverlayTest, ATargetLongerThanItsFieldIsCutTo59Characters) {
  // Fields are cut silently at their capacity: a name of 61 characters is read as its
  // first 59, which is a valid name.
  std::string name(61, 'n');
  name[58] = 'e';
  serve_file("prog", "p\n");
  std::string image = kernel_file("k", kNewBuild, kNewCommit);
  serve_system_text(manifest_head(image) + file_line("p\n", "prog", name));
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(file("/bin/" + name.substr(0, 59)), "p\n");
  EXPECT_FALSE(device().exists("/bin/" + name));
}

// --- An install that stops half way ---

TEST_F(SystemOverlayTest, ARenameFailingDuringTheInstallRestoresEverything) {
  device().write_file("/bin/taskbar", "old taskbar\n", 0755);
  publish_system({"--file", "taskbar=" + host_file("taskbar", "new taskbar\n"),   //
                  "--file", "/etc/new1.conf=" + host_file("new1.conf", "one\n"),  //
                  "--file", "/etc/new2.conf=" + host_file("new2.conf", "two\n")});
  // The third file cannot be moved into place.
  device().add_call_fault({82, -5, 1, false, "/system/new/etc@new2.conf"});
  Snapshot root = root_snapshot();
  Snapshot esp = esp_snapshot();
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, check_lines() +
                       "system: overlay files verified: 3\n"
                       "system: overlay restored (previous /bin files are back)\n");
  EXPECT_EQ(r.err, "ota: overlay install failed, previous files restored\n");
  EXPECT_EQ(difference(root, root_snapshot()), "");
  EXPECT_EQ(difference(esp, esp_snapshot()), "");
  EXPECT_EQ(file("/bin/taskbar"), "old taskbar\n");
  EXPECT_FALSE(device().exists("/etc/new1.conf"));
}

TEST_F(SystemOverlayTest, ABackupThatCannotBeMadeLeavesTheOldFileInPlace) {
  device().write_file("/bin/taskbar", "old taskbar\n", 0755);
  publish_system({"--file", "taskbar=" + host_file("taskbar", "new taskbar\n")});
  device().add_call_fault({82, -5, 1, false, "/bin/taskbar"});
  Snapshot root = root_snapshot();
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: overlay install failed, previous files restored\n");
  EXPECT_EQ(difference(root, root_snapshot()), "");
}

TEST_F(SystemOverlayTest, ARestoreLeavesANewFileAloneWhoseStagedCopyWasNeverMoved) {
  // The journal of an install that stopped before its second new file: the first is in
  // place, the second still staged.
  device().write_file("/etc/a.conf", "moved\n");
  device().write_file("/system/new/etc@b.conf", "still staged\n");
  device().write_file("/system/SYSOVL", "0/etc/a.conf\n0/etc/b.conf\n");
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "system: overlay restored (previous /bin files are back)\n");
  EXPECT_FALSE(device().exists("/etc/a.conf"));
  EXPECT_FALSE(device().exists("/system/new/etc@b.conf"));
  EXPECT_FALSE(device().exists("/system/SYSOVL"));
}

TEST_F(SystemOverlayTest, AJournalLineWithABadTargetIsPassedOver) {
  device().write_file("/bin/ls", "the real ls\n");
  device().write_file("/system/old/bin@ls", "something\n");
  device().write_file("/etc/a.conf", "moved\n");
  device().write_file("/system/SYSOVL", "1/bin/ls\n0/etc/a.conf\nL/bin/ls\t/bin/sh\n");
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.out, "system: overlay restored (previous /bin files are back)\n");
  EXPECT_EQ(file("/bin/ls"), "the real ls\n");
  EXPECT_FALSE(device().exists("/etc/a.conf"));
}

}  // namespace
