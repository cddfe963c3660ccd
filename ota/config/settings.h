#pragma once
// The settings file /etc/ota.conf: loaded whole before every use, looked up by key.

#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

constexpr const char* kSettingsPath = "/etc/ota.conf";
// The file's capacity and the capacities of its values are in device_limits.h.

struct Settings {
  char text[kSettingsBytes];
  usize length;
};
extern Settings settings;

// False (and an empty text) when the file cannot be opened.
bool load_settings();
bool valid_channel(const char* text);
// value_of over the loaded settings.
bool setting_text(const char* key, char* out, usize cap);
// number_of over the loaded settings.
u64 setting_number(const char* key, u64 fallback);

}  // namespace ota
