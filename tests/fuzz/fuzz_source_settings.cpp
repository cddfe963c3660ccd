// The settings a fetching command reads first: source, channel and device name from a
// fuzzed /etc/ota.conf in a scratch device root, with the system source derived from
// them when the system source is asked for.
//
// Input: a flag byte (bit 0: the system source; bit 1: no settings file), then the file.
//
// Checked against the rules written again here: the file's first 1,023 bytes count; no
// non-empty "quelle=" value, or a "kanal=" value other than stable, test or dev, is a
// failure; the source keeps 199 bytes, the channel 19, the name 127; for the system source a
// non-empty "sysquelle=" replaces the source, else a final "/aktuell" (on a longer
// source) or a final "/" is cut and "/system" appended as far as it fits, and an empty
// channel becomes "stable".
#include <string.h>

#include "config/source.h"
#include "fuzz_support.h"

namespace {

constexpr size_t kLoaded = 1023;

// The first non-empty value of key at a line start, cut to capacity - 1 bytes; found is
// false when it is missing or empty. Values are strings to the commands: a zero byte ends
// them.
std::string lookup(const std::string& text, const std::string& key, size_t capacity, bool* found) {
  *found = false;
  for (size_t i = 0; i < text.size(); i++) {
    if ((i != 0 && text[i - 1] != '\n') || text.compare(i, key.size(), key) != 0 || i + key.size() > text.size()) {
      continue;
    }
    std::string v;
    for (size_t p = i + key.size(); p < text.size() && text[p] != '\n' && text[p] != '\r' && v.size() + 1 < capacity; p++) {
      v.push_back(text[p]);
    }
    *found = !v.empty();
    return v.substr(0, strnlen(v.c_str(), v.size()));
  }
  return std::string();
}

bool channel_ok(const std::string& c) { return c == "stable" || c == "test" || c == "dev"; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  bool system = data[0] & 1;
  bool no_file = data[0] & 2;
  std::string file(reinterpret_cast<const char*>(data + 1), size - 1);

  DeviceRoot& root = DeviceRoot::get();
  root.remove("/etc/ota.conf");
  if (!no_file) root.put("/etc/ota.conf", file);

  memset(&ota::source_settings, 0x5a, sizeof ota::source_settings);
  bool loaded;
  {
    Silence quiet;
    loaded = ota::load_source_settings(system ? ota::SourceKind::system : ota::SourceKind::packages);
    if (loaded) ota::load_device_name();
  }

  std::string text = no_file ? std::string() : file.substr(0, kLoaded);
  bool has_source, has_channel, has_name, has_system;
  std::string source = lookup(text, "quelle=", ota::kSourceBytes, &has_source);
  std::string channel = lookup(text, "kanal=", ota::kChannelBytes, &has_channel);
  std::string name = lookup(text, "name=", ota::kDeviceNameBytes, &has_name);
  std::string system_source = lookup(text, "sysquelle=", ota::kSourceBytes, &has_system);
  if (no_file || !has_source || (has_channel && !channel_ok(channel))) {
    FUZZ_CHECK(!loaded);
    return 0;
  }
  FUZZ_CHECK(loaded);
  if (system) {
    if (has_system) {
      source = system_source;
    } else {
      if (source.size() > 8 && source.compare(source.size() - 8, 8, "/aktuell") == 0) {
        source.resize(source.size() - 8);
      } else if (!source.empty() && source.back() == '/') {
        source.pop_back();
      }
      source += std::string("/system").substr(0, ota::kSourceBytes - 1 - std::min(source.size(), ota::kSourceBytes - 1));
    }
    if (channel.empty()) channel = "stable";
  }
  FUZZ_CHECK(memchr(ota::source_settings.source, 0, ota::kSourceBytes) != nullptr);
  FUZZ_CHECK(memchr(ota::source_settings.channel, 0, ota::kChannelBytes) != nullptr);
  FUZZ_CHECK(memchr(ota::source_settings.device_name, 0, ota::kDeviceNameBytes) != nullptr);
  FUZZ_CHECK(ota::source_settings.source == source);
  FUZZ_CHECK(ota::source_settings.channel == channel);
  FUZZ_CHECK(ota::source_settings.device_name == (has_name ? name : std::string()));
  return 0;
}
