#include "config/settings.h"

#include "runtime/files.h"
#include "runtime/text.h"

namespace ota {

Settings settings;

bool load_settings() {
  i64 n = read_replaced_file(kSettingsPath, settings.text, kSettingsBytes - 1);
  if (n < 0) {
    settings.length = 0;
    settings.text[0] = 0;
    return false;
  }
  settings.length = static_cast<usize>(n);
  settings.text[n] = 0;
  return true;
}

bool valid_channel(const char* text) {
  return str_equal(text, "stable") || str_equal(text, "test") || str_equal(text, "dev");
}

bool setting_text(const char* key, char* out, usize cap) {
  return value_of(settings.text, settings.length, key, out, cap);
}

u64 setting_number(const char* key, u64 fallback) {
  return number_of(settings.text, settings.length, key, fallback);
}

}  // namespace ota
