// value_of and number_of over any text, key and capacity.
//
// Input: one byte of capacity, a length-prefixed key (no zero byte: the callers' keys are
// strings), then the text. The text is copied into a buffer of exactly its length, so a
// read past it is caught. Each result is compared with the lookup's rules written again
// here: the key counts only at a line start and the first such line wins, the value runs
// to LF, CR or the end of the text and is cut to capacity - 1 bytes, an empty value is
// missing, and a key that is not found leaves the output untouched.
#include <string.h>

#include <memory>

#include "fuzz_support.h"
#include "runtime/files.h"

namespace {

struct Expected {
  bool found;        // a line begins with the key
  size_t value;      // where its value starts
  std::string text;  // the value as copied
};

Expected reference_lookup(const std::string& text, const std::string& key, size_t cap) {
  Expected e{false, 0, ""};
  for (size_t i = 0; i < text.size(); i++) {
    if (i != 0 && text[i - 1] != '\n') continue;
    if (i + key.size() <= text.size() && text.compare(i, key.size(), key) == 0) {
      e.found = true;
      e.value = i + key.size();
      break;
    }
  }
  if (!e.found) return e;
  for (size_t v = e.value; v < text.size() && text[v] != '\n' && text[v] != '\r' && e.text.size() + 1 < cap; v++) {
    e.text.push_back(text[v]);
  }
  return e;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  size_t cap = data[0];
  data++;
  size--;
  std::string key = take_piece(data, size, 64);
  if (key.find('\0') != std::string::npos) return 0;
  std::string text(reinterpret_cast<const char*>(data), size);

  std::unique_ptr<char[]> exact(new char[text.size() + 1]);
  memcpy(exact.get(), text.data(), text.size());
  Expected e = reference_lookup(text, key, cap);

  // The output buffer is exactly cap bytes, filled with a mark to see what was touched.
  std::unique_ptr<char[]> out(new char[cap + 1]);
  memset(out.get(), '#', cap + 1);
  int r = ota::value_of(exact.get(), text.size(), key.c_str(), out.get(), cap);
  FUZZ_CHECK(out[cap] == '#');  // nothing written past the capacity

  if (text.empty() || !e.found) {
    FUZZ_CHECK(r == 0);
    for (size_t i = 0; i < cap; i++) FUZZ_CHECK(out[i] == '#');
  } else if (e.value >= text.size()) {
    // The key is the last thing in the text: an empty value and 0.
    FUZZ_CHECK(r == 0);
    if (cap > 0) FUZZ_CHECK(out[0] == 0);
  } else {
    FUZZ_CHECK(r == (e.text.empty() ? 0 : 1));
    if (cap > 0) {
      FUZZ_CHECK(memcmp(out.get(), e.text.data(), e.text.size()) == 0);
      FUZZ_CHECK(out[e.text.size()] == 0);
    }
  }
  if (r == 1) {
    // What a found value is, stated on its own: not empty, one line, within the capacity,
    // and standing right after the key at the start of a line of the text. (The value is
    // bytes: a zero byte of the text is copied like any other.)
    size_t n = e.text.size();
    FUZZ_CHECK(n > 0 && n + 1 <= cap);
    FUZZ_CHECK(memchr(out.get(), '\n', n) == nullptr && memchr(out.get(), '\r', n) == nullptr);
    FUZZ_CHECK(e.value >= key.size());
    size_t line = e.value - key.size();
    FUZZ_CHECK(line == 0 || text[line - 1] == '\n');
    FUZZ_CHECK(text.compare(line, key.size(), key) == 0 && text.compare(e.value, n, out.get(), n) == 0);
  }

  // number_of: the fallback when the lookup gives nothing, otherwise the decimal value.
  uint64_t fallback = 0x5eed0000u + cap;
  uint64_t number = ota::number_of(exact.get(), text.size(), key.c_str(), fallback);
  Expected e32 = reference_lookup(text, key, ota::kNumberValueBytes);
  bool has_value = e32.found && e32.value < text.size() && !e32.text.empty();
  FUZZ_CHECK(number == (has_value ? reference_decimal(e32.text) : fallback));
  return 0;
}
