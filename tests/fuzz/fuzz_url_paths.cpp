// Every assembly of a URL or a path into a fixed buffer: the URL and the words of
// /bin/fetch (from fuzzed settings and a file name of any length, as `ota fetch` hands
// one on), the working paths of package files and their signatures and of system
// downloads (names read from a catalog line with the capacities the commands use), the
// staging, backup and real paths of overlay targets, the kernel slot paths made from a
// boot menu, and the temporary name of the safe record writer.
//
// Input: a flag byte (bit 0: a channel; bit 1: a device name; bit 2: the system source; bit 3:
// a resume offset), then length-prefixed pieces: the source, the device name, the file
// name for `ota fetch`, a catalog line's fields (TAB-separated), an overlay target, a
// boot menu; what is left is a record path for the safe writer.
//
// Checked: every buffer is written only within its capacity (the buffers the device uses,
// allocated at exactly their size so the address sanitizer sees one byte past them), the
// words of /bin/fetch are exactly "/bin/fetch", "-o", the target, "-n" and the name when
// there is one, "-b" and the offset when it is not 0, then the URL; the URL is the source,
// "/", the channel and "/" when there is one, the file name, cut at 359 characters; the
// paths are the texts their rules say.
#include <string.h>

#include <memory>

#include "config/source.h"
#include "fuzz_support.h"
#include "packages/fetch.h"
#include "runtime/files.h"
#include "runtime/text.h"
#include "system/esp.h"
#include "system/menu.h"
#include "system/overlay.h"
#include "trust/catalog_text.h"

namespace {

// A buffer of exactly n bytes on the heap, so that one byte past it is a sanitizer error.
struct Exact {
  explicit Exact(size_t n) : bytes(new char[n]), size(n) { memset(bytes.get(), 0x5a, n); }
  char* get() { return bytes.get(); }
  std::unique_ptr<char[]> bytes;
  size_t size;
};

std::string until_zero(const std::string& s) { return s.substr(0, strnlen(s.c_str(), s.size())); }

// A settings value on one line: a line end in it would start another key.
std::string one_line(std::string s) {
  for (char& c : s)
    if (c == '\n' || c == '\r') c = '_';
  return s;
}

// Settings values end at a line end; what a device keeps of them.
std::string setting_value(const std::string& s, size_t capacity) {
  std::string v;
  for (char c : s) {
    if (c == '\n' || c == '\r' || v.size() + 1 >= capacity) break;
    v.push_back(c);
  }
  return until_zero(v);
}

void check_fetch_words(uint8_t flags, const std::string& source_piece, const std::string& name_piece,
                       const std::string& file) {
  DeviceRoot& root = DeviceRoot::get();
  bool channel = flags & 1;
  bool named = flags & 2;
  bool system = flags & 4;
  bool resume = flags & 8;
  // The source must not be empty, or the commands refuse to fetch at all.
  std::string source = "h" + source_piece;
  std::string conf = "quelle=" + source + "\n";
  if (channel) conf += "kanal=test\n";
  if (named) conf += "name=" + name_piece + "\n";
  root.put("/etc/ota.conf", conf);

  bool loaded;
  {
    Silence quiet;
    loaded = ota::load_source_settings(system ? ota::SourceKind::system : ota::SourceKind::packages);
  }
  FUZZ_CHECK(loaded);
  ota::load_device_name();
  std::string kept_source = ota::source_settings.source;
  std::string kept_channel = ota::source_settings.channel;
  std::string kept_name = ota::source_settings.device_name;
  FUZZ_CHECK(kept_source.size() < ota::kSourceBytes);
  FUZZ_CHECK(kept_channel.size() < ota::kChannelBytes);
  if (!system) {
    FUZZ_CHECK(kept_source == setting_value(source, ota::kSourceBytes));
    FUZZ_CHECK(kept_channel == (channel ? "test" : ""));
  }
  FUZZ_CHECK(kept_name == (named ? setting_value(name_piece, ota::kDeviceNameBytes) : ""));

  uint64_t offset = resume ? 1 + file.size() : 0;
  // No program starts on the host: the start is refused, after the words were made.
  int64_t code = ota::run_fetch(file.c_str(), "/tmp/got", offset);
  FUZZ_CHECK(code == -1);

  std::vector<std::string> expected = {"/bin/fetch", "-o", "/tmp/got"};
  if (!kept_name.empty()) {
    expected.push_back("-n");
    expected.push_back(kept_name);
  }
  if (offset != 0) {
    expected.push_back("-b");
    expected.push_back(std::to_string(offset));
  }
  std::string url = kept_source + "/" + (kept_channel.empty() ? "" : kept_channel + "/") + file;
  expected.push_back(url.substr(0, ota::characters_kept(ota::kUrlBytes)));
  FUZZ_CHECK(expected.size() <= ota::kProgramWords);
  for (size_t i = 0; i < expected.size(); i++) FUZZ_CHECK(ota::program_words[i] == expected[i]);
  FUZZ_CHECK(memchr(ota::fetch_url, 0, ota::kUrlBytes) != nullptr);
}

void check_work_paths(const std::string& fields) {
  std::string line = fields + "\n";
  const char* begin = line.c_str();
  const char* end = begin + line.size();

  // A package file name (field 4 of a "paket" line) and its signature's name.
  Exact file(ota::kPackageFieldBytes);
  ota::catalog_field(begin, end, 4, file.get(), file.size);
  Exact signature(ota::kPackageFieldBytes + ota::kSignatureSuffixLength);
  ota::str_append_at(signature.get(), ota::str_copy(signature.get(), file.get()), ota::kSignatureSuffix);
  Exact local(ota::kUrlBytes);
  ota::work_path(local.get(), signature.get());
  FUZZ_CHECK(std::string(local.get()) == std::string("/tmp/ota/") + file.get() + ".sig");

  // A download name of the system manifest (field 3 of a "sysfile" or "sysgz" line).
  Exact name(ota::kEntryNameBytes);
  ota::catalog_field(begin, end, 3, name.get(), name.size);
  Exact packed(ota::kEntryNameBytes + 16);
  ota::work_path(packed.get(), name.get());
  FUZZ_CHECK(std::string(packed.get()) == std::string("/tmp/ota/") + name.get());
}

void check_overlay_paths(const std::string& field) {
  std::string line = field + "\n";
  const char* begin = line.c_str();
  const char* end = begin + line.size();
  for (size_t capacity : {ota::kTargetBytes, ota::kGzipTargetBytes, ota::kLinkBytes}) {
    Exact target(capacity);
    ota::catalog_field(begin, end, 0, target.get(), capacity);
    std::string t = target.get();
    // The real path is made for every file entry, valid or not, when the journal is built.
    if (capacity != ota::kGzipTargetBytes) {
      Exact real(ota::kOverlayPathBytes);
      ota::target_real_path(target.get(), real.get());
      FUZZ_CHECK(std::string(real.get()) == (!t.empty() && t[0] == '/' ? t : "/bin/" + t));
    }
    if (!ota::valid_target(target.get())) continue;
    for (const char* dir : {ota::kStagingDir, ota::kBackupDir}) {
      Exact staged(ota::kOverlayPathBytes);
      ota::staging_path(dir, target.get(), staged.get());
      std::string name = t[0] == '/' ? t.substr(1) : t;
      for (char& c : name)
        if (c == '/') c = '@';
      FUZZ_CHECK(std::string(staged.get()) == std::string(dir) + "/" + name);
    }
  }
}

void check_slot_paths(const std::string& menu) {
  std::string dir;
  if (!menu.empty() && ota::find_first_entry_kernel_dir(menu.c_str(), menu.size())) dir = ota::menu_kernel_dir();
  FUZZ_CHECK(dir.size() < ota::kKernelDirBytes);
  for (const char* file : {"/tavi.mb", "/tavi-b.mb"}) {
    Exact slot(ota::kSlotPathBytes);
    ota::build_slot_path(slot.get(), dir.c_str(), file);
    FUZZ_CHECK(std::string(slot.get()) == "/sysesp" + dir + file);
  }
}

void check_replace_path(const std::string& piece) {
  // A record path under /tmp of up to 250 characters (one directory level, so the host
  // can make it); at 191 characters and more the record is written without a temporary.
  std::string name;
  for (char c : piece) {
    if (name.size() >= 245) break;
    name.push_back(static_cast<char>('a' + static_cast<uint8_t>(c) % 26));
  }
  if (name.empty()) return;
  std::string path = "/tmp/" + name;
  DeviceRoot& root = DeviceRoot::get();
  FUZZ_CHECK(ota::replace_file(path.c_str(), "record", 6) == 1);
  FUZZ_CHECK(root.get(path) == "record");
  FUZZ_CHECK(!root.has(path + ".nw"));
  root.remove(path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  uint8_t flags = data[0];
  data++;
  size--;
  std::string source = one_line(take_piece(data, size, 400));
  std::string device_name = one_line(take_piece(data, size, 400));
  std::string file = until_zero(take_piece(data, size, 4000));
  std::string fields = take_piece(data, size, 2000);
  std::string target = take_piece(data, size, 200);
  std::string menu = take_piece(data, size, 4000);
  std::string record_path(reinterpret_cast<const char*>(data), size);

  check_fetch_words(flags, source, device_name, file);
  check_work_paths(fields);
  check_overlay_paths(target);
  check_slot_paths(menu);
  check_replace_path(record_path);
  return 0;
}
