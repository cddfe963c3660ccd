// The blocked-version merge and tests over a fuzzed catalog and a fuzzed /system/GESPERRT
// in a scratch device root.
//
// Input: a flag byte (bit 0: no GESPERRT file at all), a length-prefixed GESPERRT (up to
// 800 bytes), an eight-byte version to ask about, then the catalog text.
//
// Checked against the list's rules written again here: the table is the file's whole
// records (at most 64 of the first 639 bytes); each "gesperrt" line with a version field
// adds its number unless it is listed or the table is full; when something was added the
// table is written from the file's start without truncation. So the file only grows, the
// records it had stay, and at most 576 bytes of records are written.
#include <string.h>

#include "fuzz_support.h"
#include "trust/blocked.h"
#include "trust/catalog_text.h"

namespace {

constexpr size_t kRecord = 9;
constexpr size_t kMaxRecords = 64;

std::vector<std::string> catalog_versions(const std::string& text) {
  std::vector<std::string> fields;
  for (size_t i = 0; i < text.size(); i++) {
    if ((i != 0 && text[i - 1] != '\n') || text.compare(i, 9, "gesperrt\t") != 0 || i + 9 > text.size()) continue;
    std::string f;
    for (size_t p = i + 9; p < text.size() && text[p] != '\t' && text[p] != '\n' && f.size() < 23; p++) f.push_back(text[p]);
    if (!f.empty()) fields.push_back(f);
  }
  return fields;
}

std::string record_of(uint64_t v) {
  char buf[16];
  snprintf(buf, sizeof buf, "%08llu\n", static_cast<unsigned long long>(v % 100000000));
  return buf;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  bool no_file = data[0] & 1;
  data++;
  size--;
  std::string file = take_piece(data, size, 800);
  if (size < 8) return 0;
  uint64_t asked;
  memcpy(&asked, data, 8);
  asked %= 1000000000;
  data += 8;
  size -= 8;
  std::string text = hold_catalog(data, size);

  DeviceRoot& root = DeviceRoot::get();
  if (no_file) {
    root.remove("/system/GESPERRT");
    file.clear();
  } else {
    root.put("/system/GESPERRT", file);
  }

  // The table as loaded, and what the merge makes of it.
  std::string loaded = file.substr(0, 639);
  size_t count = loaded.size() < kRecord ? 0 : std::min(loaded.size() / kRecord, kMaxRecords);
  std::vector<uint64_t> table;
  for (size_t i = 0; i < count; i++) table.push_back(reference_decimal(loaded.substr(i * kRecord, 8)));
  std::string expected = loaded.substr(0, count * kRecord);
  size_t added = 0;
  std::vector<std::string> fields = catalog_versions(text);
  for (const std::string& f : fields) {
    uint64_t v = reference_decimal(f);
    bool listed = false;
    for (uint64_t t : table) listed = listed || t == v;
    if (listed || table.size() >= kMaxRecords) continue;
    table.push_back(v % 100000000);
    expected += record_of(v);
    added++;
  }

  {
    Silence quiet;
    ota::merge_blocked_versions();
  }
  bool has = false;
  std::string after = root.get("/system/GESPERRT", &has);
  if (added == 0) {
    FUZZ_CHECK(has == !no_file);
    FUZZ_CHECK(after == file);
  } else {
    FUZZ_CHECK(has);
    FUZZ_CHECK(expected.size() <= kMaxRecords * kRecord);
    FUZZ_CHECK(expected.size() % kRecord == 0);
    FUZZ_CHECK(after.size() == std::max(file.size(), expected.size()));
    FUZZ_CHECK(after.compare(0, expected.size(), expected) == 0);
    // The old tail beyond the records written stays: the file is not truncated.
    if (file.size() > expected.size()) FUZZ_CHECK(after.substr(expected.size()) == file.substr(expected.size()));
    FUZZ_CHECK(ota::blocked.count == count + added);
  }
  // The records the file had are all still there.
  FUZZ_CHECK(after.compare(0, count * kRecord, file, 0, count * kRecord) == 0);

  // The test that refuses an offered version: in the stored list, or in the catalog.
  bool blocked = false;
  for (size_t i = 0; i < std::min(after.substr(0, 639).size() / kRecord, kMaxRecords); i++) {
    blocked = blocked || reference_decimal(after.substr(i * kRecord, 8)) == asked;
  }
  for (const std::string& f : fields) blocked = blocked || reference_decimal(f) == asked;
  FUZZ_CHECK(ota::version_is_blocked(asked) == (blocked ? 1 : 0));
  if (!fields.empty()) FUZZ_CHECK(ota::version_is_blocked(reference_decimal(fields[0])) == 1);
  {
    Silence quiet;
    ota::print_blocked_versions();
  }
  return 0;
}
