#include "tavisim/events.h"

#include "host.h"

namespace tavisim {

std::string Event::value(std::string_view key) const {
  for (auto& f : fields) {
    if (f.size() > key.size() && f.compare(0, key.size(), key) == 0 && f[key.size()] == '=')
      return f.substr(key.size() + 1);
  }
  return {};
}

bool Event::has(std::string_view field) const {
  for (auto& f : fields)
    if (f == field) return true;
  return false;
}

std::string format_event(const Event& e) {
  std::string line = format_seconds_ms(e.ms * 1000000) + "\t" + escape_field(e.kind) + "\t" + std::to_string(e.pid);
  for (auto& f : e.fields) line += "\t" + escape_field(f);
  return line;
}

std::optional<Event> parse_event(std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  std::vector<std::string> parts = tab_fields(line);
  if (parts.size() < 3) return std::nullopt;
  Event e;
  int64_t ns;
  if (!parse_seconds(parts[0], ns)) return std::nullopt;
  e.ms = ns / 1000000;
  e.kind = unescape_field(parts[1]);
  if (e.kind.empty() || !parse_i64(parts[2], e.pid)) return std::nullopt;
  for (size_t k = 3; k < parts.size(); k++) e.fields.push_back(unescape_field(parts[k]));
  return e;
}

std::vector<Event> parse_events(std::string_view text) {
  std::vector<Event> out;
  size_t i = 0;
  while (i < text.size()) {
    size_t n = text.find('\n', i);
    if (n == std::string_view::npos) n = text.size();
    if (auto e = parse_event(text.substr(i, n - i))) out.push_back(std::move(*e));
    i = n + 1;
  }
  return out;
}

std::vector<Event> events_of(const std::vector<Event>& all, std::string_view kind) {
  std::vector<Event> out;
  for (auto& e : all)
    if (e.kind == kind) out.push_back(e);
  return out;
}

}  // namespace tavisim
