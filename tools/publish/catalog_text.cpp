#include "catalog_text.h"

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
  std::size_t pos = start;
  for (std::size_t skipped = 0; skipped < n; ++skipped) {
    while (pos < text.size() && text[pos] != '\t' && text[pos] != '\n') ++pos;
    if (pos >= text.size() || text[pos] == '\n') return field;
    ++pos;  // the TAB
  }
  std::size_t end = pos;
  while (end < text.size() && text[end] != '\t' && text[end] != '\n') ++end;
  field.whole = std::string(text.substr(pos, end - pos));
  field.present = !field.whole.empty();
  field.cut = field.whole.size() > kept;
  field.value = field.whole.substr(0, kept);
  return field;
}

std::uint64_t device_decimal(std::string_view text) {
  constexpr std::uint64_t kStick = 1000000000000000000ull;  // 10^18
  std::uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') break;
    if (value < kStick) value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return value;
}

std::size_t field_count(std::string_view text, std::size_t start) {
  std::size_t count = 1;
  for (std::size_t pos = start; pos < text.size() && text[pos] != '\n'; ++pos) {
    if (text[pos] == '\t') ++count;
  }
  return count;
}

}  // namespace publish
