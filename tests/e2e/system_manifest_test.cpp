// The system manifest and status: where the system source lies, how its lines are read,
// the build checks, the release notes, /system/sys.stand, `ota system status` and the
// periodic check's desktop notice.
#include "system_source.h"

using namespace e2e;
using tavisim::RunResult;
using Words = std::vector<std::string>;

namespace {

class SystemManifestTest : public SystemTest {
 protected:
  // The URL of the first fetch of a run (the manifest).
  static std::string manifest_url(const RunResult& r) {
    auto fetches = spawns_of(r.events, "/bin/fetch");
    return fetches.empty() ? "<no fetch>" : fetches[0].back();
  }
  std::string stand() { return device().read_file("/system/sys.stand").value_or("<missing>"); }
};

// --- Where the system source lies ---

TEST_F(SystemManifestTest, APackageSourceEndingInAktuellBecomesTheSystemSourceOnChannelStable) {
  publish_system();
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 0) << r.err;
  auto fetches = spawns_of(r.events, "/bin/fetch");
  ASSERT_EQ(fetches.size(), 2u);
  EXPECT_EQ(fetches[0], (Words{"/bin/fetch", "-o", "/tmp/ota/VERZEICHNIS",
                               "http://updates.tavi.test/system/stable/VERZEICHNIS"}));
  EXPECT_EQ(fetches[1], (Words{"/bin/fetch", "-o", "/tmp/ota/VERZEICHNIS.sig",
                               "http://updates.tavi.test/system/stable/VERZEICHNIS.sig"}));
}

TEST_F(SystemManifestTest, ASourceEndingInOneSlashLosesItBeforeSystemIsAdded) {
  device().write_file("/etc/ota.conf", "quelle=http://updates.tavi.test/pakete/\n");
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "ota: source http://updates.tavi.test/pakete/system\nota: channel stable\n");
  EXPECT_EQ(r.err, "ota: cannot fetch: VERZEICHNIS\n");
  EXPECT_EQ(manifest_url(r), "http://updates.tavi.test/pakete/system/stable/VERZEICHNIS");
}

TEST_F(SystemManifestTest, OnlyOneSlashIsCutSoAktuellWithASlashStays) {
  device().write_file("/etc/ota.conf", "quelle=http://updates.tavi.test/aktuell/\n");
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(manifest_url(r), "http://updates.tavi.test/aktuell/system/stable/VERZEICHNIS");
}

TEST_F(SystemManifestTest, TheSourceAktuellAloneIsNotLongerThanTheEndingAndKeepsIt) {
  device().write_file("/etc/ota.conf", "quelle=/aktuell\n");
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "ota: source /aktuell/system\nota: channel stable\n");
  EXPECT_EQ(manifest_url(r), "/aktuell/system/stable/VERZEICHNIS");
}

TEST_F(SystemManifestTest, SysquelleOverridesTheDerivedSourceAndKeepsTheChannel) {
  device().write_file("/etc/ota.conf",
                      std::string("quelle=") + kSourceUrl + "\nkanal=test\nsysquelle=http://mirror.tavi.test/sys\n");
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.out, "ota: source http://mirror.tavi.test/sys\nota: channel test\n");
  EXPECT_EQ(manifest_url(r), "http://mirror.tavi.test/sys/test/VERZEICHNIS");
}

TEST_F(SystemManifestTest, AnEmptySysquelleDoesNotOverride) {
  device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\nsysquelle=\n");
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(manifest_url(r), "http://updates.tavi.test/system/stable/VERZEICHNIS");
}

TEST_F(SystemManifestTest, AnEmptyChannelBecomesStableOnTheSystemSideOnly) {
  device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\nkanal=\n");
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(manifest_url(r), "http://updates.tavi.test/system/stable/VERZEICHNIS");
  r = device().run({"search"});
  EXPECT_EQ(manifest_url(r), std::string(kSourceUrl) + "/VERZEICHNIS");
}

TEST_F(SystemManifestTest, TheFilesOfTheManifestComeFromTheSameChannelDirectory) {
  std::string notes = "better clocks\n";
  publish_system({"--notes", host_file("notes.txt", notes)});
  RunResult r = device().run({"system", "search"});
  auto fetches = spawns_of(r.events, "/bin/fetch");
  ASSERT_EQ(fetches.size(), 3u);
  EXPECT_EQ(fetches[2],
            (Words{"/bin/fetch", "-o", "/tmp/ota/notes.txt", "http://updates.tavi.test/system/stable/notes.txt"}));
}

// --- Reading the manifest ---

TEST_F(SystemManifestTest, AManifestWithoutASystemLineOffersNoSystemUpdate) {
  serve_system_text("OTA2\nfassung\t5\n");
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, std::string("ota: source ") + kSystemUrl + "\nota: channel stable\n");
  EXPECT_EQ(r.err, "ota: this source offers no system update (no system line)\n");
  EXPECT_FALSE(device().exists("/system/sys.stand"));
}

TEST_F(SystemManifestTest, ASystemLineWithAnEmptyBuildIsUnreadable) {
  std::string image = kernel_file("k", kNewBuild, kNewCommit);
  serve_system_text("OTA2\nsystem\t\t" + std::string(kNewCommit) + "\n" + kernel_line(image));
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: system list line unreadable: system\t\n");
  EXPECT_EQ(r.out, std::string("ota: source ") + kSystemUrl + "\nota: channel stable\n");
}

TEST_F(SystemManifestTest, OnlyTheFirstSystemLineCounts) {
  std::string image = kernel_file("k", kNewBuild, kNewCommit);
  std::string head = manifest_head(image);
  serve_system_text(head + "system\t20259999\tfffffff\n");
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + "system: update available\n");
}

TEST_F(SystemManifestTest, AKernelHashOf63Or65CharactersOrASizeOfZeroIsNoKernelEntry) {
  std::string image = kernel_file("k", kNewBuild, kNewCommit);
  serve_file("tavi-new.mb", image);
  std::string sha = sha256_hex(image);
  std::string system_line = "OTA2\nsystem\t" + std::to_string(kNewBuild) + "\t" + kNewCommit + "\n";
  const std::vector<std::string> kernel_lines = {
      "sysfile\tkernel\t" + sha.substr(0, 63) + "\t4096\ttavi-new.mb\n",  // one digit short
      "sysfile\tkernel\t" + sha + "a\t4096\ttavi-new.mb\n",              // one digit more
      "sysfile\tkernel\t" + sha + "\t0\ttavi-new.mb\n",                  // no size
      "sysfile\tkernel\t" + sha + "\t4096\t\n",                          // no name
  };
  for (const std::string& line : kernel_lines) {
    serve_system_text(system_line + line);
    RunResult r = device().run({"system", "search"});
    EXPECT_EQ(r.status, 1) << line;
    EXPECT_EQ(r.err, "ota: system manifest has no kernel entry\n") << line;
    EXPECT_EQ(r.out, std::string("ota: source ") + kSystemUrl + "\nota: channel stable\n") << line;
  }
}

TEST_F(SystemManifestTest, OfTwoKernelLinesTheSecondIsStaged) {
  std::string first = kernel_file("first.mb", kNewBuild, "aaaaaaa1111");
  std::string second = kernel_file("second.mb", kNewBuild, kNewCommit, 5000);
  serve_file("first.mb", first);
  serve_file("second.mb", second);
  serve_system_text("OTA2\nsystem\t" + std::to_string(kNewBuild) + "\t" + kNewCommit + "\nsysfile\tkernel\t" +
                    sha256_hex(first) + "\t4096\tfirst.mb\nsysfile\tkernel\t" + sha256_hex(second) +
                    "\t5000\tsecond.mb\n");
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(device().esp_read("sda1", "tavi-b.mb").value_or(""), second);
  for (const auto& f : spawns_of(r.events, "/bin/fetch")) EXPECT_NE(f.back(), std::string(kSystemUrl) + "/stable/first.mb");
  EXPECT_EQ(device().read_file("/system/SYSPENDING").value_or(""),
            "count=20250111\ncommit=" + std::string(kNewCommit) + "\nsha=" + sha256_hex(second) + "\n");
}

TEST_F(SystemManifestTest, AnEntryOfUnknownKindIsRememberedAndAnEmptyKindSkipped) {
  std::string image = kernel_file("k", kNewBuild, kNewCommit);
  std::string head = manifest_head(image);
  serve_system_text(head + "sysfile\t\t" + sha256_hex("x") + "\t1\tx\n");
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + "system: staged in slot B, restart to install\n");

  // Back to the plain state, then the same with an entry of a kind this device does not know.
  device().remove("/system/SYSPENDING");
  device().remove("/system/ERPROBUNG");
  serve_system_text(head + "sysfile\tmodule-root\t" + sha256_hex("x") + "\t1\troot.img\n");
  r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + "system: root image entry ignored (module-root layout is stage 2)\n" +
                       "system: staged in slot B, restart to install\n");
  // The entry of unknown kind is never fetched (nor is the kernel: slot B holds it already).
  std::string url = std::string(kSystemUrl) + "/stable/";
  EXPECT_EQ(spawns_of(r.events, "/bin/fetch"),
            (std::vector<std::vector<std::string>>{
                {"/bin/fetch", "-o", "/tmp/ota/VERZEICHNIS", url + "VERZEICHNIS"},
                {"/bin/fetch", "-o", "/tmp/ota/VERZEICHNIS.sig", url + "VERZEICHNIS.sig"}}));
}

TEST_F(SystemManifestTest, AKindIsComparedWholeSoAKernelPrefixIsUnknown) {
  std::string image = kernel_file("k", kNewBuild, kNewCommit);
  serve_system_text(manifest_head(image) + "sysfile\tkernelx\t" + sha256_hex("x") + "\t1\tx\n");
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + "system: root image entry ignored (module-root layout is stage 2)\n" +
                       "system: staged in slot B, restart to install\n");
  EXPECT_EQ(device().esp_read("sda1", "tavi-b.mb").value_or(""), image);
}

// --- Builds ---

TEST_F(SystemManifestTest, TheSameBuildIsUpToDateAndMarkedCurrent) {
  device().write_file("/system/SYSVERSION", "20250111\n");
  publish_system();
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, check_lines(kNewBuild, kNewBuild) + "system: up to date\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(stand(), "here=20250111\nthere=20250111\ncommit=2222222bbbb\nphase=current\n");
}

TEST_F(SystemManifestTest, AnOlderOfferedBuildIsUpToDateToo) {
  device().write_file("/system/SYSVERSION", "20250200\n");
  publish_system();
  RunResult r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, check_lines(20250200, kNewBuild) + "system: up to date\n");
  EXPECT_TRUE(events_of(r.events, "mount").empty());
  EXPECT_EQ(stand(), "here=20250200\nthere=20250111\ncommit=2222222bbbb\nphase=current\n");
}

TEST_F(SystemManifestTest, MinFromEqualToTheInstalledBuildIsAllowed) {
  publish_system({"--min-from", std::to_string(kOldBuild)});
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + "system: update available\n");
  EXPECT_EQ(stand(), "here=20250110\nthere=20250111\ncommit=2222222bbbb\nphase=available\n");
}

TEST_F(SystemManifestTest, MinFromOneAboveTheInstalledBuildIsTooOldAndLeavesTheStatus) {
  device().write_file("/system/sys.stand", "here=1\nthere=2\ncommit=x\nphase=staged\n");
  publish_system({"--min-from", std::to_string(kNewBuild)});
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, check_lines() + "ota: this system is too old for an incremental update (min_from): 20250111\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(stand(), "here=1\nthere=2\ncommit=x\nphase=staged\n");
  r = device().run({"system", "apply"});
  EXPECT_EQ(r.status, 2);
  EXPECT_TRUE(events_of(r.events, "mount").empty());
  EXPECT_FALSE(device().exists("/system/SYSPENDING"));
}

TEST_F(SystemManifestTest, ASysversionOfSevenDigitsReadsAsBuildZero) {
  device().write_file("/system/SYSVERSION", "2025011\n");
  publish_system();
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, check_lines(0, kNewBuild) + "system: update available\n");
}

TEST_F(SystemManifestTest, AMissingSysversionReadsAsBuildZero) {
  device().remove("/system/SYSVERSION");
  publish_system();
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.out, check_lines(0, kNewBuild) + "system: update available\n");
  EXPECT_EQ(stand(), "here=0\nthere=20250111\ncommit=2222222bbbb\nphase=available\n");
}

TEST_F(SystemManifestTest, AFailedManifestFetchLeavesTheStatusAlone) {
  device().write_file("/system/sys.stand", "phase=old\n");
  publish_system();
  device().add_fetch_fault("VERZEICHNIS.sig", tavisim::FetchFaultKind::fail, 0, 9);
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ota: cannot fetch: VERZEICHNIS.sig\n");
  EXPECT_EQ(stand(), "phase=old\n");
}

// --- Release notes ---

TEST_F(SystemManifestTest, NotesOf2000BytesAreFetchedKeptAndPrinted) {
  std::string notes(2000, 'n');
  for (size_t i = 0; i < notes.size(); i += 50) notes[i] = '\n';
  notes.back() = '.';  // printed as they are: no newline is added
  publish_system({"--notes", host_file("notes.txt", notes)});
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + "system: update available\nsystem: changes:\n" + notes);
  EXPECT_EQ(device().read_file("/system/sys.notes").value_or(""), notes);
  EXPECT_FALSE(device().exists("/tmp/ota/notes.txt"));
}

TEST_F(SystemManifestTest, NotesOf2001BytesAreNotFetched) {
  std::string image = kernel_file("k", kNewBuild, kNewCommit);
  std::string notes(2001, 'n');
  serve_file("notes.txt", notes);
  serve_system_text(manifest_head(image) + "sysfile\tnotes\t" + sha256_hex(notes) + "\t2001\tnotes.txt\n");
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, check_lines() + "system: update available\n");
  EXPECT_EQ(spawns_of(r.events, "/bin/fetch").size(), 2u);
  EXPECT_FALSE(device().exists("/system/sys.notes"));
}

TEST_F(SystemManifestTest, NotesThatFailTheirCheckAreSilentlyLeftOut) {
  publish_system({"--notes", host_file("notes.txt", "hello\n")});
  device().add_fetch_fault("notes.txt", tavisim::FetchFaultKind::corrupt, 0, 0);
  device().write_file("/system/sys.notes", "older notes\n");
  RunResult r = device().run({"system", "search"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, check_lines() + "system: update available\n");
  // The checked download words its own rejection; the search goes on.
  EXPECT_EQ(r.err, "ota: HASH MISMATCH, REJECTED: notes.txt\n");
  EXPECT_EQ(device().read_file("/system/sys.notes").value_or(""), "older notes\n");
}

// --- ota system status ---

TEST_F(SystemManifestTest, StatusWithNothingPending) {
  device().write_file("/etc/osversion", "tavi 2025.01 \"Linde\" desk");  // shown as it is, no newline added
  RunResult r = device().run({"system", "status"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "system: installed build 20250110\ntavi 2025.01 \"Linde\" desksystem: no update pending\n");
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(events_of(r.events, "spawn").empty());
  EXPECT_TRUE(events_of(r.events, "mount").empty());
}

TEST_F(SystemManifestTest, StatusShowsAtMost200BytesOfTheOsVersion) {
  std::string os(250, 'v');
  device().write_file("/etc/osversion", os);
  device().remove("/system/SYSVERSION");
  RunResult r = device().run({"system"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "system: installed build 0\n" + os.substr(0, 200) + "system: no update pending\n");
}

TEST_F(SystemManifestTest, StatusPrintsThePendingRecordAfterItsLabelAndANewline) {
  std::string record = "count=20250111\ncommit=2222222bbbb\nsha=" + std::string(64, 'a') + "\n";
  device().write_file("/system/SYSPENDING", record);
  device().write_file("/etc/osversion", "tavi 2025.01\n");
  RunResult r = device().run({"system", "status"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "system: installed build 20250110\ntavi 2025.01\nsystem: pending trial of build \n" + record);
}

TEST_F(SystemManifestTest, StatusShowsAtMost300BytesOfThePendingRecord) {
  std::string record(320, 'p');
  device().write_file("/system/SYSPENDING", record);
  RunResult r = device().run({"system", "status"});
  EXPECT_EQ(r.out, "system: installed build 20250110\nsystem: pending trial of build \n" + record.substr(0, 300));
}

TEST_F(SystemManifestTest, StatusEndsWithTheBackgroundApplyReport) {
  device().write_file("/system/sys.apply", "state=done\n");
  device().write_file("/system/sys.applylog", "system: staged in slot B, restart to install\n");
  RunResult r = device().run({"system", "status"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "system: installed build 20250110\nsystem: no update pending\nsystem: apply done\n"
            "system: apply log:\nsystem: staged in slot B, restart to install\n");
}

// --- sys.stand through the phases ---

TEST_F(SystemManifestTest, TheStatusFileFollowsSearchApplyAndConfirmation) {
  publish_system();
  device().run({"system", "search"});
  EXPECT_EQ(stand(), "here=20250110\nthere=20250111\ncommit=2222222bbbb\nphase=available\n");
  device().run({"system", "apply"});
  EXPECT_EQ(stand(), "here=20250110\nthere=20250111\ncommit=2222222bbbb\nphase=staged\n");
  ASSERT_TRUE(restart_machine().booted);
  RunResult r = device().run({"system", "confirm"});
  EXPECT_EQ(r.out, "system: new kernel confirmed and promoted to slot A\n");
  // The confirmation takes the build from the pending record; it reads no manifest, so it
  // has no commit text to write.
  EXPECT_EQ(stand(), "here=20250111\nthere=20250111\ncommit=\nphase=current\n");
}

// --- The periodic check and its desktop notice ---

class SystemNoticeTest : public SystemManifestTest {
 protected:
  void SetUp() override {
    SystemManifestTest::SetUp();
    // The package side stays quiet: its search finds no catalog and starts no trial.
    device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\n");
  }
  static std::vector<std::string> notices(const RunResult& r) {
    std::vector<std::string> out;
    for (const auto& e : events_of(r.events, "notify")) out.push_back(e.fields.empty() ? "" : e.fields[0]);
    return out;
  }
  static bool fetched_system_manifest(const RunResult& r) {
    for (const auto& f : spawns_of(r.events, "/bin/fetch")) {
      if (f.back() == std::string(kSystemUrl) + "/stable/VERZEICHNIS") return true;
    }
    return false;
  }
};

TEST_F(SystemNoticeTest, ANewBuildIsAnnouncedOnceAndItsNotesAreKeptButNotPrinted) {
  publish_system({"--notes", host_file("notes.txt", "quiet notes\n")});
  RunResult r = device().run({"service", "1", "system"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(notices(r), (Words{"System update available: build 20250111"}));
  EXPECT_EQ(r.out, "ota: service, interval 3600\nota: source http://updates.tavi.test/aktuell\n");
  EXPECT_EQ(r.err, "ota: cannot fetch: VERZEICHNIS\n");
  EXPECT_EQ(device().read_file("/system/sys.notified").value_or(""), "20250111\n");
  EXPECT_EQ(device().read_file("/system/sys.notes").value_or(""), "quiet notes\n");
  EXPECT_EQ(stand(), "here=20250110\nthere=20250111\ncommit=2222222bbbb\nphase=available\n");

  r = device().run({"service", "1", "system"});
  EXPECT_TRUE(fetched_system_manifest(r));
  EXPECT_TRUE(notices(r).empty());

  // A newer build is announced again, once.
  publish_system({}, 20250112, "3333333cccc");
  r = device().run({"service", "1", "system"});
  EXPECT_EQ(notices(r), (Words{"System update available: build 20250112"}));
  EXPECT_EQ(device().read_file("/system/sys.notified").value_or(""), "20250112\n");
}

TEST_F(SystemNoticeTest, NoNoticeWhenUpToDate) {
  device().write_file("/system/SYSVERSION", "20250111\n");
  publish_system();
  RunResult r = device().run({"service", "1", "system"});
  EXPECT_TRUE(fetched_system_manifest(r));
  EXPECT_TRUE(notices(r).empty());
  EXPECT_FALSE(device().exists("/system/sys.notified"));
  EXPECT_EQ(stand(), "here=20250111\nthere=20250111\ncommit=2222222bbbb\nphase=current\n");
}

TEST_F(SystemNoticeTest, NothingIsCheckedWhileASystemUpdateIsPending) {
  publish_system();
  device().write_file("/system/SYSPENDING", "c");
  RunResult r = device().run({"service", "1", "system"});
  EXPECT_FALSE(fetched_system_manifest(r));
  EXPECT_TRUE(notices(r).empty());
  EXPECT_FALSE(device().exists("/system/sys.notified"));
  // An empty pending record is no pending update.
  device().write_file("/system/SYSPENDING", "");
  r = device().run({"service", "1", "system"});
  EXPECT_EQ(notices(r), (Words{"System update available: build 20250111"}));
}

TEST_F(SystemNoticeTest, NothingIsCheckedWhileAPackageTrialIsOpen) {
  publish_system();
  device().write_file("/system/ERPROBUNG", "gen=00000004 vor=00000003 v=01 ok=0\n");
  RunResult r = device().run({"service", "1", "system"});
  EXPECT_FALSE(fetched_system_manifest(r));
  EXPECT_TRUE(notices(r).empty());
  // A confirmed trial is no open trial.
  device().write_file("/system/ERPROBUNG", "gen=00000004 vor=00000003 v=01 ok=1\n");
  r = device().run({"service", "1", "system"});
  EXPECT_EQ(notices(r), (Words{"System update available: build 20250111"}));
}

TEST_F(SystemNoticeTest, ABuildTooNewForThisSystemIsNotAnnounced) {
  publish_system({"--min-from", std::to_string(kNewBuild)});
  RunResult r = device().run({"service", "1", "system"});
  EXPECT_TRUE(fetched_system_manifest(r));
  EXPECT_TRUE(notices(r).empty());
  EXPECT_FALSE(device().exists("/system/sys.notified"));
}

}  // namespace
