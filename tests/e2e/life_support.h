#pragma once
// A device through its life: package updates and system updates, each across several runs
// and restarts. The fixture gives a device as a tavi installation leaves it (a boot menu
// with one entry, a kernel in slot A, version 1 of the packages, a desktop that comes up
// 25 s after each start) and a release engineer's tools to publish what comes next.

#include <map>
#include <string>
#include <vector>

#include "bytes.h"
#include "tavisim/boot.h"
#include "update_source.h"

namespace life {

using tavisim::BootOptions;
using tavisim::BootResult;
using tavisim::Event;
using tavisim::RunResult;
using Words = std::vector<std::string>;

constexpr const char* kSystemUrl = "http://updates.tavi.test/system";
constexpr uint64_t kFirstBuild = 20260101;
constexpr const char* kFirstCommit = "0000000";
// Kernel images larger than one copy block (32768 bytes), so copying slot B over slot A
// takes several reads and writes.
constexpr size_t kKernelBytes = 70000;

// The menu a tavi installation writes: one entry that boots slot A.
inline std::string installed_menu() {
  return "timeout: 5\ndefault_entry: 1\n\n/tavi\n    protocol: multiboot1\n    path: boot():/tavi.mb\n"
         "    cmdline: tavi vfs gfx wm wig desk wmshell wmdauer herz tz=60 tzrule=eu nosched noproc nofs\n";
}

// The same menu after `ota system apply` added entry B and made it the default.
inline std::string staged_menu() {
  return "timeout: 5\ndefault_entry: 2\n\n/tavi\n    protocol: multiboot1\n    path: boot():/tavi.mb\n"
         "    cmdline: tavi vfs gfx wm wig desk wmshell wmdauer herz tz=60 tzrule=eu nosched noproc nofs\n"
         "\n/tavi (update)\n    protocol: multiboot1\n    path: boot():/tavi-b.mb\n"
         "    cmdline: tavi vfs gfx wm wig desk wmshell wmdauer herz tz=60 tzrule=eu nosched noproc nofs\n";
}

// ... and after the confirmation switched the default back to entry 1 (entry B stays).
inline std::string promoted_menu() {
  std::string m = staged_menu();
  m.replace(m.find("default_entry: 2"), 16, "default_entry: 1");
  return m;
}

// One system build as published: its kernel image and the overlay files it brings, by
// device path.
struct SystemBuild {
  uint64_t build = 0;
  std::string commit;
  bool healthy = true;
  std::string kernel;
  std::map<std::string, std::string> files;  // device path -> content
};

// The overlay files of the installed system before any system update.
inline std::map<std::string, std::string> first_files() {
  return {{"/bin/clock", "#!/bin/sh\necho clock 1\n"},
          {"/etc/motd", "Welcome to tavi 20260101\n"},
          {"/apps/clock/start", ""}};  // empty content: the file does not exist
}

// What `ota system apply` prints of build b over the installed build: the verbose check,
// then its overlay files verified.
inline std::string checked_output(const SystemBuild& b, uint64_t installed = kFirstBuild) {
  size_t files = 0;
  for (const auto& [path, content] : b.files) files += content.empty() ? 0 : 1;
  return std::string("ota: source ") + kSystemUrl + "\nota: channel stable\nsystem: installed build " +
         std::to_string(installed) + "\nsystem: available build " + std::to_string(b.build) + "\nsystem: commit " +
         b.commit + "\nsystem: overlay files verified: " + std::to_string(files) + "\n";
}

// ... when it stages the build in slot B.
inline std::string staged_output(const SystemBuild& b, uint64_t installed = kFirstBuild) {
  return checked_output(b, installed) + "system: staged in slot B, restart to install\n";
}

// ... when the offered kernel already runs and only the files change.
inline std::string applied_output(const SystemBuild& b, uint64_t installed = kFirstBuild) {
  return checked_output(b, installed) + "system: overlay committed\nsystem: applied, no restart needed (same kernel)\n";
}

// What the start-up entry prints at the start that confirms a package trial: the desktop is
// up by the 60th second, the installer confirms, and the service (auto=nein) ends.
inline const std::string kHealthyStart = "ota: start healthy, trial confirmed after 60\nota: automatic search is OFF\n";

// What the start-up entry prints at the start that confirms a staged build: the desktop is
// up by the 60th second, the overlay is committed, slot B is promoted, and the service
// (switched off with auto=nein) ends.
inline const std::string kPromoted =
    "ota: start healthy, trial confirmed after 60\n"
    "system: overlay committed\n"
    "system: new kernel confirmed and promoted to slot A\n"
    "ota: automatic search is OFF\n";

inline const std::string kReady = "ota: READY FOR RESTART -- it will NOT\n     restart by itself. `reboot`.\n";

// What `ota apply` prints when it installs core and editor of version v (as
// publish_packages makes them) over version here, with the device's default free space;
// `key_change` is the key change line the catalog brings, if any.
inline std::string package_apply_output(uint64_t here, uint64_t v, const std::string& key_change = "",
                                        const std::string& source = e2e::kSourceUrl) {
  uint64_t core = 3000 + v, editor = 2000 + v, sum = core + editor;
  uint64_t needed = core + sum + 524288 + sum / 8;
  std::string n = std::to_string(v);
  return "ota: source " + source + "\n" + key_change + "ota: version here " +
         std::to_string(here) + "\nota: version there " + n + "\nota: space 4096000000\nota: needed " +
         std::to_string(needed) + "\nota: hash ok core-" + n + ".tpk\nota: hash ok editor-" + n +
         ".tpk\nota: applying with tpk core\nota: applying with tpk editor\n" + kReady;
}

// What `ota show` prints on this device (spare key present, no channel).
inline std::string show_output(uint64_t version, uint64_t key_generation, uint64_t generation,
                               const std::string& trial = "ota: nothing in trial\n") {
  return std::string("ota: source ") + e2e::kSourceUrl + "\nota: platform tavi-x86_64\nota: version here " +
         std::to_string(version) + "\nota: key generation " + std::to_string(key_generation) +
         "\nota: spare key present\nota: generation " + std::to_string(generation) + "\n" + trial;
}

// What `ota search` prints when it finds core and editor of version v over version here.
inline std::string package_search_output(uint64_t here, uint64_t v) {
  return std::string("ota: source ") + e2e::kSourceUrl + "\nota: version here " + std::to_string(here) +
         "\nota: version there " + std::to_string(v) +
         "\nota: NEW VERSION available\nota: platform tavi-x86_64\nota: package core base-system tavi-x86_64\n"
         "ota: package editor text-editor tavi-any\n";
}

class LifeTest : public e2e::SourceTest {
 protected:
  void SetUp() override {
    SourceTest::SetUp();
    if (HasFatalFailure()) return;
    system_ = scratch("system");
    device().add_repo(kSystemUrl, system_);
    device().write_file("/etc/ota.conf", std::string("quelle=") + e2e::kSourceUrl + "\nname=life\nauto=nein\n");
    device().write_file("/system/ersatz.pub", read_all(key("spare") + ".pub"));
    device().write_file("/system/FASSUNG", "00000001\n");
    device().write_file("/system/SYSVERSION", eight_digits(kFirstBuild) + "\n");
    device().write_file("/system/tpk/installed", "core\t1\neditor\t1\n");
    device().write_file("/system/AKTUELL", "00000004\n");
    for (const auto& [path, content] : first_files())
      if (!content.empty()) device().write_file(path, content, path.rfind("/bin/", 0) == 0 ? 0755 : 0644);
    first_ = SystemBuild{kFirstBuild, kFirstCommit, true, kernel(kFirstBuild, kFirstCommit, true), first_files()};
    device().make_esp("sda1", {{"limine.conf", installed_menu()}, {"tavi.mb", first_.kernel}}, 2048);
    device().write_file("/proc/version", std::string("tavi 20260101 build ") + kFirstCommit + " (stand-in)\n");
    device().add_task("desktop", 2, 25);
  }

  // A stand-in kernel image made by the publisher.
  std::string kernel(uint64_t build, const std::string& commit, bool healthy) {
    std::string path = work_ + "/files/tavi-" + std::to_string(build) + (healthy ? "" : "-broken") + ".mb";
    std::filesystem::create_directories(work_ + "/files");
    Words words = {"kernel", "--build", std::to_string(build), "--commit", commit, "--size",
                   std::to_string(kKernelBytes), "--out", path, "--force"};
    if (!healthy) words.push_back("--broken");
    e2e::ToolResult r = e2e::publish(words);
    EXPECT_EQ(r.status, 0) << r.output;
    return read_all(path);
  }

  // A system build whose overlay replaces /bin/clock and /etc/motd and adds
  // /apps/clock/start, each with content naming the build.
  SystemBuild system_build(uint64_t build, const std::string& commit, bool healthy = true) {
    SystemBuild b{build, commit, healthy, kernel(build, commit, healthy), {}};
    std::string n = std::to_string(build);
    b.files = {{"/bin/clock", "#!/bin/sh\necho clock " + n + "\n"},
               {"/etc/motd", "Welcome to tavi " + n + "\n"},
               {"/apps/clock/start", "#!/bin/sh\nexec /bin/clock " + n + "\n"}};
    return b;
  }

  // Publishes the build on the stable channel of the system source.
  void publish_system(const SystemBuild& b) {
    std::string dir = work_ + "/files/" + std::to_string(b.build);
    std::string kernel_path = dir + "/tavi-" + std::to_string(b.build) + ".mb";
    write_all(kernel_path, b.kernel);
    Words words = {"system", "--key", key("release") + ".key", "--out", system_ + "/stable", "--build",
                   std::to_string(b.build), "--commit", b.commit, "--kernel", kernel_path, "--force"};
    int i = 0;
    for (const auto& [path, content] : b.files) {
      std::string target = path.rfind("/bin/", 0) == 0 ? path.substr(5) : path;
      std::string host = dir + "/overlay-" + std::to_string(i++);
      write_all(host, content);
      words.push_back("--file");
      // Every other file also gets a gzip variant, so both download roads are taken.
      words.push_back(target + "=" + host + (i % 2 ? ":gz" : ""));
    }
    e2e::ToolResult r = e2e::publish(words);
    ASSERT_EQ(r.status, 0) << r.output;
  }

  // Publishes package version `version`: core and editor, each with content of that version.
  void publish_packages(uint64_t version, const Words& extra = {}, const std::string& signer = "release",
                        const std::string& dir = "") {
    std::string v = std::to_string(version);
    Words words = {"catalog", "--key", key(signer) + ".key", "--out", dir.empty() ? source_ : dir, "--force",
                   "--version", v,
                   "--package", "core:base-system:" + package_file("core-" + v + ".tpk", 3000 + version, 'c') +
                                    ":tavi-x86_64",
                   "--package", "editor:text-editor:" + package_file("editor-" + v + ".tpk", 2000 + version, 'e') +
                                    ":tavi-any"};
    words.insert(words.end(), extra.begin(), extra.end());
    e2e::ToolResult r = e2e::publish(words);
    ASSERT_EQ(r.status, 0) << r.output;
  }

  // Starts the machine; the start-up entry (`ota boot`) runs for at most an hour of
  // virtual time (the service is off, so outside a trial it ends at once).
  BootResult restart(bool start_entry = true) {
    BootOptions o;
    o.start_entry = start_entry;
    o.run.virtual_seconds = 3600;
    BootResult b = device().boot(o);
    EXPECT_TRUE(b.start_entry.error.empty()) << b.start_entry.error;
    return b;
  }

  std::string esp(const std::string& file) { return device().esp_read("sda1", file).value_or("<missing>"); }
  std::string file(const std::string& path) { return device().read_file(path).value_or("<missing>"); }

  // The tpk words of every installer run in these events.
  static std::vector<Words> tpk_runs(const std::vector<Event>& events) { return e2e::spawns_of(events, "/bin/tpk"); }

  // Everything that says which system build the device runs, checked as one state.
  void expect_system(const SystemBuild& b, const std::string& where) {
    SCOPED_TRACE(where);
    EXPECT_EQ(file("/system/SYSVERSION"), eight_digits(b.build) + "\n");
    EXPECT_EQ(sha256_hex(esp("tavi.mb")), sha256_hex(b.kernel)) << "slot A holds another kernel";
    EXPECT_NE(esp("limine.conf").find("default_entry: 1"), std::string::npos) << esp("limine.conf");
    EXPECT_FALSE(device().exists("/system/SYSPENDING"));
    EXPECT_FALSE(device().exists("/system/SYSOVL"));
    for (const auto& [path, content] : b.files) {
      if (content.empty()) {
        EXPECT_FALSE(device().exists(path)) << path;
      } else {
        EXPECT_EQ(sha256_hex(file(path)), sha256_hex(content)) << path;
      }
    }
  }

  std::string system_;
  SystemBuild first_;
};

}  // namespace life
