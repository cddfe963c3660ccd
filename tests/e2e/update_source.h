#pragma once
// Update sources for end-to-end tests, made the way a release engineer makes them: with
// ota-publish. A device is given the source's address, its trusted key and a repository
// that maps the address onto the source directory.
#include <filesystem>
#include <string>
#include <vector>

#include "device_test.h"
#include "files.h"
#include "ota_texts.h"
#include "run.h"
#include "signing.h"

namespace e2e {

constexpr const char* kSourceUrl = "http://updates.tavi.test/aktuell";

struct ToolResult {
  int status = -1;
  std::string output;
};

// Runs ota-publish with the words given; its output and errors are returned together.
inline ToolResult publish(const std::vector<std::string>& words) {
  Ran r = run_program(OTA_PUBLISH, words, "", true);
  return {r.status, r.out};
}

// A fixture with a device, a release key (and a spare) and a source directory served at
// kSourceUrl.
class SourceTest : public tavisim::DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    work_ = scratch("release");
    source_ = scratch("source");
    keys_ = work_ + "/keys";
    std::filesystem::create_directories(keys_);
    ASSERT_EQ(publish({"keygen", "--out", keys_ + "/release"}).status, 0);
    ASSERT_EQ(publish({"keygen", "--out", keys_ + "/spare"}).status, 0);
    device().add_repo(kSourceUrl, source_);
    device().write_file("/etc/ota.conf", std::string("quelle=") + kSourceUrl + "\n");
    device().write_file("/system/schluessel.pub", read_all(key("release") + ".pub"));
  }

  std::string key(const std::string& name) const { return keys_ + "/" + name; }

  // A package file of the given size with content made from the seed.
  std::string package_file(const std::string& name, size_t size, char seed = 'p') {
    std::string data(size, seed);
    for (size_t i = 0; i < size; i++) data[i] = static_cast<char>(seed + (i * 7) % 23);
    std::string path = work_ + "/files/" + name;
    write_all(path, data);
    return path;
  }

  // Publishes a package catalog into dir (default: the served source itself).
  ToolResult publish_catalog(const std::vector<std::string>& options, const std::string& channel = "") {
    std::string out = channel.empty() ? source_ : source_ + "/" + channel;
    std::vector<std::string> words = {"catalog", "--key", key("release") + ".key", "--out", out, "--force"};
    words.insert(words.end(), options.begin(), options.end());
    ToolResult r = publish(words);
    EXPECT_EQ(r.status, 0) << r.output;
    return r;
  }

  // Replaces VERZEICHNIS (and its signature, made with the named key) with a text
  // written by hand, for catalogs the publisher rightly refuses to make.
  void serve_catalog_text(const std::string& text, const TestKey& signer, const std::string& channel = "") {
    std::string dir = channel.empty() ? source_ : source_ + "/" + channel;
    write_all(dir + "/VERZEICHNIS", text);
    write_all(dir + "/VERZEICHNIS.sig", signer.sign(text));
  }

  std::string source_;
  std::string work_;
  std::string keys_;
};

// The words of every spawn of a program, in order.
inline std::string spawn_exit(const tavisim::Event& e) { return e.fields.empty() ? "" : e.fields[0]; }

inline std::vector<std::vector<std::string>> spawns_of(const std::vector<tavisim::Event>& events,
                                                       const std::string& program) {
  std::vector<std::vector<std::string>> out;
  for (const auto& e : tavisim::events_of(events, "spawn")) {
    // The first field is the outcome (exit=N), the words follow.
    std::vector<std::string> words(e.fields.begin() + (e.fields.empty() ? 0 : 1), e.fields.end());
    if (!words.empty() && words[0] == program) out.push_back(words);
  }
  return out;
}

}  // namespace e2e
