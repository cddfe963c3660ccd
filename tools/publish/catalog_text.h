#pragma once
// Reading a VERZEICHNIS the way a device does: a line kind is the tag at the start of the
// text or right after a LF, fields are separated by single TABs and end at a TAB, a LF or
// the end of the text, an empty field counts as missing, and each field is kept with a
// fixed number of characters. The checker uses this so that it sees what a device sees,
// and also notices where a device would cut a field short.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace publish {

struct Field {
  bool present = false;  // non-empty, as the device's reader says
  bool cut = false;      // longer than the device keeps
  std::string value;     // what the device keeps
  std::string whole;     // the field as it stands in the line
};

// Position just after the tag of the index-th line (from 0) that begins with the tag.
std::optional<std::size_t> find_line(std::string_view text, std::string_view tag, std::size_t index);
// Field n of the line whose fields start at `start`, kept with `kept` characters: read by
// the device's own field reader (catalog_field) with a buffer of kept + 1 bytes.
Field line_field(std::string_view text, std::size_t start, std::size_t n, std::size_t kept);
// The device's own decimal reader (parse_decimal): leading digits only, a non-digit first
// gives 0, and digits after the value reached 10^18 are read but no longer added.
std::uint64_t device_decimal(std::string_view text);
// Number of TAB-separated fields after the tag, up to the end of the line.
std::size_t field_count(std::string_view text, std::size_t start);

}  // namespace publish
