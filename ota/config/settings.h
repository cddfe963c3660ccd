#pragma once
// The settings file /etc/ota.conf: loaded whole before every use, looked up by key.

#include "runtime/syscall.h"

namespace ota {

constexpr const char* kSettingsPath = "/etc/ota.conf";
// The file's first 1,023 bytes are kept, closed with a 0.
constexpr usize kSettingsBytes = 1024;

// Capacities of the values as the commands use them (bytes kept plus the closing 0).
constexpr usize kSourceBytes = 200;      // quelle=, sysquelle=
constexpr usize kDeviceNameBytes = 128;  // name=
constexpr usize kChannelBytes = 20;      // kanal=
constexpr usize kAutoBytes = 16;         // auto=

struct Settings {
  char text[kSettingsBytes];
  usize length;
};
extern Settings settings;

int load_settings();
int valid_channel(const char* text);
// value_of over the loaded settings.
int setting_text(const char* key, char* out, usize cap);
// number_of over the loaded settings.
u64 setting_number(const char* key, u64 fallback);

}  // namespace ota
