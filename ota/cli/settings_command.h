#pragma once
// `ota settings` and `ota set <key> <value>`: the settings file shown and changed.

namespace ota {

// What `ota set` says to a key it does not know, and to too few words.
constexpr const char* kNotAKey = "ota: not a key: quelle name abstand auto frist kanal gesund";

int cmd_settings();
int cmd_set(const char* key, const char* value);

}  // namespace ota
