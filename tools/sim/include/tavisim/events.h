#pragma once
// DIR/events.log: one line per kernel event,
//   <virtual seconds, 3 decimals> TAB <kind> TAB <pid> [TAB <detail>]...
// Fields are escaped so that a TAB, LF, CR or backslash inside a word stays one field.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavisim {

struct Event {
  int64_t ms = 0;  // virtual milliseconds since the clock's configured start
  std::string kind;
  int64_t pid = 0;
  std::vector<std::string> fields;  // unescaped

  // The detail that begins with "key=", without the key; empty when absent.
  std::string value(std::string_view key) const;
  bool has(std::string_view field) const;
};

std::string format_event(const Event& e);
std::optional<Event> parse_event(std::string_view line);
// Lines that do not parse are skipped.
std::vector<Event> parse_events(std::string_view text);
// Events of one kind, in order.
std::vector<Event> events_of(const std::vector<Event>& all, std::string_view kind);

}  // namespace tavisim
