#pragma once
// `ota settings` and `ota set <key> <value>`: the settings file shown and changed.

namespace ota {

int cmd_settings();
int cmd_set(const char* key, const char* value);

}  // namespace ota
