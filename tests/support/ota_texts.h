#pragma once
// Texts ota prints that tests in more than one folder compare whole: its usage lines, the
// refusal of an unknown settings key, and the settings listing.
#include <map>
#include <string>

// The first usage line alone (an unknown word), and both (no word at all).
inline const std::string kUsageFirstLine = "ota search | show | apply\n";
inline const std::string kUsage =
    kUsageFirstLine + "ota confirm | rollback | watchdog | service | system search|apply|status\n";
inline const std::string kNotAKey = "ota: not a key: quelle name abstand auto frist kanal gesund\n";

// What `ota settings` prints for a settings file holding these values (key -> value as
// written); the keys it does not hold show as not set.
inline std::string settings_listing(const std::map<std::string, std::string>& values) {
  std::string s = "ota: settings (/etc/ota.conf)\n";
  const char* labels[][2] = {{"quelle", "  quelle   "}, {"name", "  name     "}, {"abstand", "  abstand  "},
                             {"auto", "  auto     "},   {"frist", "  frist    "}, {"kanal", "  kanal    "},
                             {"gesund", "  gesund   "}};
  for (auto& l : labels) {
    auto it = values.find(l[0]);
    s += std::string(l[1]) + (it == values.end() ? "(not set)" : it->second) + "\n";
  }
  return s + "  change:   ota set <key> <value>\n";
}
