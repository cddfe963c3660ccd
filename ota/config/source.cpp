#include "config/source.h"

#include "runtime/text.h"

namespace ota {

SourceSettings source_settings;

bool load_source_settings(SourceKind kind) {
  if (!load_settings() || !setting_text("quelle=", source_settings.source, kSourceBytes)) {
    return report_failure("ota: /etc/ota.conf is missing or names no source", nullptr);
  }
  source_settings.channel[0] = 0;
  if (setting_text("kanal=", source_settings.channel, kChannelBytes) && !valid_channel(source_settings.channel)) {
    return report_failure("ota: channel must be stable or test", nullptr);
  }
  if (kind == SourceKind::system) derive_system_source();
  return true;
}

void load_device_name() {
  if (!setting_text("name=", source_settings.device_name, kDeviceNameBytes)) source_settings.device_name[0] = 0;
}

void derive_system_source() {
  char* source = source_settings.source;
  char system_source[kSourceBytes];
  if (setting_text("sysquelle=", system_source, kSourceBytes)) {
    str_copy(source, system_source);
  } else {
    constexpr const char* kCurrent = "/aktuell";
    constexpr usize kCurrentLength = text_length(kCurrent);
    usize len = str_len(source);
    if (len > kCurrentLength && str_equal(source + len - kCurrentLength, kCurrent)) {
      source[len - kCurrentLength] = 0;
    } else if (len > 0 && source[len - 1] == '/') {
      source[len - 1] = 0;
    }
    // The source buffer holds 199 bytes; "/system" is cut to what still fits.
    usize kept = str_len(source);
    str_copy_bounded(source + kept, "/system", kSourceBytes - kept);
  }
  if (source_settings.channel[0] == 0) str_copy(source_settings.channel, "stable");
}

}  // namespace ota
