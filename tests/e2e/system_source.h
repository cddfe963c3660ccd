#pragma once
// System update sources for end-to-end tests. The device's package source is
// http://updates.tavi.test/aktuell, so its system source is http://updates.tavi.test/system
// with the channel "stable": the manifest and every file it names are served from
// <scratch>/system/stable. The device starts with build 20250110 installed, its running
// kernel (commit 1111111...) in slot A of an ESP on /dev/sda1, a one-entry boot menu and
// package generation 3.
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "bytes.h"
#include "tavisim/boot.h"
#include "update_source.h"

namespace e2e {

constexpr const char* kSystemUrl = "http://updates.tavi.test/system";
constexpr const char* kOldCommit = "1111111aaaa";
constexpr const char* kNewCommit = "2222222bbbb";
constexpr unsigned long long kOldBuild = 20250110;
constexpr unsigned long long kNewBuild = 20250111;

// The boot menu a fresh device carries: one entry, default 1.
inline const std::string kPlainMenu =
    "timeout: 5\ndefault_entry: 1\n\n/tavi\n    protocol: multiboot1\n    path: boot():/tavi.mb\n";
// The same menu after entry B was added and made the default.
inline const std::string kStagedMenu =
    "timeout: 5\ndefault_entry: 2\n\n/tavi\n    protocol: multiboot1\n    path: boot():/tavi.mb\n"
    "\n/tavi (update)\n    protocol: multiboot1\n    path: boot():/tavi-b.mb\n";

// The lines a verbose system check prints before its verdict.
inline std::string check_lines(unsigned long long installed = kOldBuild, unsigned long long available = kNewBuild,
                               const std::string& commit = kNewCommit) {
  return std::string("ota: source ") + kSystemUrl + "\nota: channel stable\nsystem: installed build " +
         std::to_string(installed) + "\nsystem: available build " + std::to_string(available) +
         "\nsystem: commit " + commit + "\n";
}

// An overlay file line of a hand-written manifest: the file `data`, downloaded as `name`.
inline std::string file_line(const std::string& data, const std::string& name, const std::string& target) {
  return "sysfile\tfile\t" + sha256_hex(data) + "\t" + std::to_string(data.size()) + "\t" + name + "\t" + target +
         "\n";
}

// Files of a tree (or an ESP image) with their mode and bytes, for before/after comparisons.
using Snapshot = std::map<std::string, std::string>;

class SystemTest : public SourceTest {
 protected:
  void SetUp() override {
    SourceTest::SetUp();
    if (HasFatalFailure()) return;
    system_ = scratch("system");
    device().add_repo(kSystemUrl, system_);
    device().write_file("/system/SYSVERSION", eight_digits(kOldBuild) + "\n");
    device().write_file("/system/AKTUELL", "00000003\n");
    running_kernel(kOldCommit);
    old_kernel_ = tavisim::stand_in_kernel(kOldBuild, kOldCommit);
    device().make_esp("sda1", {{"limine.conf", kPlainMenu}, {"tavi.mb", old_kernel_}});
    signer_ = load_key(key("release") + ".key");
  }

  // What the kernel writes to /proc/version when it runs an image of that commit.
  void running_kernel(const std::string& commit) {
    device().write_file("/proc/version", "tavi 1 build " + commit + " (tavi-sim stand-in kernel)\n");
  }

  std::string system_dir() const { return system_ + "/stable"; }

  // A stand-in kernel image written by ota-publish; returns its bytes.
  std::string kernel_file(const std::string& name, unsigned long long build, const std::string& commit,
                          size_t size = 4096) {
    std::string path = work_ + "/kernels/" + name;
    std::filesystem::create_directories(work_ + "/kernels");
    ToolResult r = publish({"kernel", "--build", std::to_string(build), "--commit", commit, "--size",
                            std::to_string(size), "--out", path, "--force"});
    EXPECT_EQ(r.status, 0) << r.output;
    return read_all(path);
  }

  // A host file for --file, --notes or --roots.
  std::string host_file(const std::string& name, const std::string& data) {
    std::string path = work_ + "/files/" + name;
    write_all(path, data);
    return path;
  }

  // Publishes a system source offering build `build` (kernel image "tavi-new.mb" of that
  // build and commit) with the further options given. Returns the kernel's bytes.
  std::string publish_system(const std::vector<std::string>& options = {}, unsigned long long build = kNewBuild,
                             const std::string& commit = kNewCommit, size_t kernel_size = 4096) {
    std::string image = kernel_file("tavi-new.mb", build, commit, kernel_size);
    std::vector<std::string> words = {"system",   "--key",    key("release") + ".key", "--out", system_dir(),
                                      "--build",  std::to_string(build), "--commit", commit,
                                      "--kernel", work_ + "/kernels/tavi-new.mb", "--force"};
    words.insert(words.end(), options.begin(), options.end());
    ToolResult r = publish(words);
    EXPECT_EQ(r.status, 0) << r.output;
    return image;
  }

  // Serves a hand-written manifest, signed with the release key, for manifests the
  // publisher rightly refuses to make. Files it names are put beside it with serve_file.
  void serve_system_text(const std::string& text) {
    write_all(system_dir() + "/VERZEICHNIS", text);
    write_all(system_dir() + "/VERZEICHNIS.sig", signer_.sign(text));
  }
  void serve_file(const std::string& name, const std::string& data) { write_all(system_dir() + "/" + name, data); }

  // Pieces of hand-written manifests. kernel_line serves the image as "tavi-new.mb".
  static std::string system_line(unsigned long long build = kNewBuild, const std::string& commit = kNewCommit) {
    return "system\t" + std::to_string(build) + "\t" + commit + "\n";
  }
  std::string kernel_line(const std::string& image) {
    serve_file("tavi-new.mb", image);
    return "sysfile\tkernel\t" + sha256_hex(image) + "\t" + std::to_string(image.size()) + "\ttavi-new.mb\n";
  }
  // The marker, the system line and the kernel entry.
  std::string manifest_head(const std::string& image, unsigned long long build = kNewBuild,
                            const std::string& commit = kNewCommit) {
    return "OTA2\n" + system_line(build, commit) + kernel_line(image);
  }

  // Every regular file and link of the device root with its mode and bytes, the download
  // directory left out (downloads stay there by design).
  Snapshot root_snapshot() {
    Snapshot s;
    std::string root = device().root();
    for (auto it = std::filesystem::recursive_directory_iterator(root);
         it != std::filesystem::recursive_directory_iterator(); ++it) {
      std::string rel = "/" + std::filesystem::relative(it->path(), root).string();
      if (rel == "/tmp/ota") {
        it.disable_recursion_pending();
        continue;
      }
      struct stat st;
      if (lstat(it->path().c_str(), &st) != 0) continue;
      if (S_ISDIR(st.st_mode)) continue;
      std::string entry = std::to_string(st.st_mode & 07777) + ":";
      if (S_ISLNK(st.st_mode)) {
        entry += "link:" + std::filesystem::read_symlink(it->path()).string();
      } else {
        entry += read_all(it->path().string());
      }
      s[rel] = entry;
    }
    return s;
  }

  Snapshot esp_snapshot(const std::string& disk = "sda1") {
    Snapshot s;
    for (const std::string& p : device().esp_list(disk)) {
      s[p] = p.empty() || p.back() == '/' ? "dir" : device().esp_read(disk, p).value_or("<unreadable>");
    }
    return s;
  }

  // Names the first difference of two snapshots, or "" when they are equal.
  static std::string difference(const Snapshot& before, const Snapshot& after) {
    for (const auto& [path, data] : before) {
      auto it = after.find(path);
      if (it == after.end()) return "gone: " + path;
      if (it->second != data) return "changed: " + path;
    }
    for (const auto& [path, data] : after) {
      if (!before.count(path)) return "new: " + path;
    }
    return "";
  }

  // The ESP must be a clean FAT file system whose menu is exactly `menu`.
  void expect_esp_menu(const std::string& menu, const std::string& disk = "sda1") {
    std::string report;
    EXPECT_EQ(device().esp_check(disk, &report), 0) << report;
    EXPECT_EQ(device().esp_read(disk, "limine.conf").value_or("<missing>"), menu);
  }

  // Starts the machine without a start-up entry: the boot loader's choice decides which
  // kernel writes /proc/version.
  tavisim::BootResult restart_machine() {
    tavisim::BootOptions o;
    o.start_entry = false;
    return device().boot(o);
  }

  static TestKey load_key(const std::string& pem_path) {
    TestKey k;
    FILE* f = fopen(pem_path.c_str(), "r");
    EVP_PKEY* pkey = f ? PEM_read_PrivateKey(f, nullptr, nullptr, nullptr) : nullptr;
    if (f) fclose(f);
    if (pkey == nullptr) {
      ADD_FAILURE() << "cannot read " << pem_path;
      return k;
    }
    size_t len = 32;
    EVP_PKEY_get_raw_private_key(pkey, k.seed.data(), &len);
    len = 32;
    EVP_PKEY_get_raw_public_key(pkey, k.pub.data(), &len);
    EVP_PKEY_free(pkey);
    return k;
  }

  std::string system_;
  std::string old_kernel_;
  TestKey signer_;
};

}  // namespace e2e
