// `ota set` rewriting a fuzzed /etc/ota.conf in a scratch device root.
//
// Input: a selector byte (the low three bits pick one of the seven keys, 7 takes the key
// from the input; bit 3 set means there is no settings file at all), a length-prefixed
// key (used for selector 7), a length-prefixed value, then the file's bytes.
//
// Checked against the rewrite's rules written again here: a refused key or channel leaves
// the file as it was; otherwise every line that does not begin with "key=" is kept in its
// order, one "key=value" line is appended last, copying stops at 1,023 bytes (the tail of
// the new line is what is lost) and the closing newline is always written, so the file
// never exceeds 1,024 bytes.
#include <string.h>

#include "cli/settings_command.h"
#include "fuzz_support.h"

namespace {

const char* const kKeys[] = {"quelle", "name", "abstand", "auto", "frist", "kanal", "gesund"};
constexpr size_t kLoaded = 1023;  // the settings file is read up to this many bytes
constexpr size_t kLimit = 1023;   // the new text is copied up to this many bytes

bool listed(const std::string& key) {
  for (const char* k : kKeys)
    if (key == k) return true;
  return false;
}

std::string reference_rewrite(const std::string& old_text, const std::string& key, const std::string& value) {
  std::string old = old_text.substr(0, kLoaded);
  std::string prefix = key + "=";
  std::string kept;
  for (size_t start = 0; start < old.size();) {
    size_t nl = old.find('\n', start);
    size_t end = nl == std::string::npos ? old.size() : nl + 1;
    std::string line = old.substr(start, end - start);
    if (line.compare(0, prefix.size(), prefix) != 0 || line.size() < prefix.size()) kept += line;
    start = end;
  }
  std::string text = kept.substr(0, kLimit);
  if (!text.empty() && text.back() != '\n' && text.size() < kLimit) text += '\n';
  std::string tail = prefix + value;
  text += tail.substr(0, kLimit - std::min(kLimit, text.size()));
  text += '\n';
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  uint8_t selector = data[0];
  data++;
  size--;
  std::string own_key = take_piece(data, size, 32);
  std::string value = take_piece(data, size, 400);
  std::string file(reinterpret_cast<const char*>(data), size);
  // Words of an argument block end at their zero byte.
  std::string key = (selector & 7) == 7 ? own_key : kKeys[selector & 7];
  key = key.substr(0, strnlen(key.c_str(), key.size()));
  value = value.substr(0, strnlen(value.c_str(), value.size()));
  bool no_file = (selector & 8) != 0;

  DeviceRoot& root = DeviceRoot::get();
  root.remove("/etc/ota.conf");
  root.remove("/etc/ota.conf.nw");
  if (!no_file) root.put("/etc/ota.conf", file);

  int r;
  {
    Silence quiet;
    r = ota::cmd_set(key.c_str(), value.c_str());
  }
  bool has = false;
  std::string after = root.get("/etc/ota.conf", &has);
  FUZZ_CHECK(!root.has("/etc/ota.conf.nw"));

  bool channel_ok = value == "stable" || value == "test" || value == "dev";
  if (!listed(key) || (key == "kanal" && !channel_ok)) {
    FUZZ_CHECK(r == 1);
    FUZZ_CHECK(has == !no_file);
    FUZZ_CHECK(after == (no_file ? std::string() : file));
    return 0;
  }
  FUZZ_CHECK(r == 0);
  FUZZ_CHECK(has);
  FUZZ_CHECK(after.size() <= kLimit + 1);
  FUZZ_CHECK(after == reference_rewrite(no_file ? std::string() : file, key, value));

  // The same outcome stated line by line, for a value that is one line and a file with
  // room for the new line: the key's line is there once, last, and the other lines keep
  // their order.
  std::string prefix = key + "=";
  std::string line = prefix + value + "\n";
  size_t last = after.size() - std::min(after.size(), line.size());
  if (value.find('\n') == std::string::npos && after.size() >= line.size() &&
      after.compare(last, line.size(), line) == 0 && (last == 0 || after[last - 1] == '\n')) {
    size_t lines_with_key = 0;
    for (size_t start = 0; start < after.size();) {
      size_t nl = after.find('\n', start);
      size_t end = nl == std::string::npos ? after.size() : nl + 1;
      if (after.compare(start, prefix.size(), prefix) == 0 && end - start >= prefix.size()) lines_with_key++;
      start = end;
    }
    FUZZ_CHECK(lines_with_key == 1);
  }
  return 0;
}
