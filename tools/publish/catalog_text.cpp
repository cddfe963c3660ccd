#include "catalog_text.h"

#include <algorithm>
#include <vector>

#include "runtime/text.h"
#include "trust/catalog_text.h"

namespace publish {

std::optional<std::size_t> find_line(std::string_view text, std::string_view tag, std::size_t index) {
  std::size_t seen = 0;
  for (std::size_t pos = 0; pos < text.size();) {
    if (text.substr(pos, tag.size()) == tag) {
      if (seen == index) return pos + tag.size();
      ++seen;
    }
    std::size_t lf = text.find('\n', pos);
    if (lf == std::string_view::npos) break;
    pos = lf + 1;
  }
  return std::nullopt;
}

Field line_field(std::string_view text, std::size_t start, std::size_t n, std::size_t kept) {
  Field field;
  // What the device keeps comes from the device's own field reader, given the capacity
  // its caller gives it; the whole field is looked at here only to tell that it was cut.
  std::vector<char> out(kept + 1);
  const char* line = text.data() + std::min(start, text.size());
  field.present = ota::catalog_field(line, text.data() + text.size(), n, out.data(), out.size()) == 1;
  std::size_t pos = std::min(start, text.size());
  for (std::size_t skipped = 0; skipped < n; ++skipped) {
    while (pos < text.size() && text[pos] != '\t' && text[pos] != '\n') ++pos;
    if (pos >= text.size() || text[pos] == '\n') return field;
    ++pos;  // the TAB
  }
  std::size_t end = pos;
  while (end < text.size() && text[end] != '\t' && text[end] != '\n') ++end;
  field.whole = std::string(text.substr(pos, end - pos));
  field.cut = field.whole.size() > kept;
  // The bytes the reader copied (a zero byte among them ends the value as a device uses it).
  field.value = std::string(out.data(), std::min(field.whole.size(), kept));
  return field;
}

std::uint64_t device_decimal(std::string_view text) {
  // The device reads numbers from zero-terminated text, so a zero byte ends the digits.
  std::string terminated(text);
  return ota::parse_decimal(terminated.c_str());
}

std::size_t field_count(std::string_view text, std::size_t start) {
  std::size_t count = 1;
  for (std::size_t pos = start; pos < text.size() && text[pos] != '\n'; ++pos) {
    if (text[pos] == '\t') ++count;
  }
  return count;
}

}  // namespace publish
