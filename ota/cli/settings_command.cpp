#include "cli/settings_command.h"
#include "config/settings.h"
#include "runtime/files.h"
#include "runtime/text.h"

namespace ota {

namespace {

// The seven keys `ota settings` lists and `ota set` accepts, with their labels.
struct ListedKey {
  const char* key;
  const char* label;
};
constexpr ListedKey kListedKeys[] = {
    {"quelle", "  quelle   "}, {"name", "  name     "}, {"abstand", "  abstand  "}, {"auto", "  auto     "},
    {"frist", "  frist    "},  {"kanal", "  kanal    "}, {"gesund", "  gesund   "},
};
// Keys are at most 7 bytes; the prefix adds the "=".
constexpr usize kPrefixBytes = 16;

}  // namespace

int cmd_settings() {
  load_settings();
  print_out("ota: settings (/etc/ota.conf)\n");
  for (const ListedKey& k : kListedKeys) {
    char prefix[kPrefixBytes];
    str_append_at(prefix, str_copy(prefix, k.key), "=");
    char value[kShownValueBytes];
    if (!setting_text(prefix, value, sizeof value)) str_copy(value, "(not set)");
    say_text(k.label, value);
  }
  print_out("  change:   ota set <key> <value>\n");
  return 0;
}

int cmd_set(const char* key, const char* value) {
  bool known = false;
  for (const ListedKey& k : kListedKeys) known = known || str_equal(key, k.key);
  if (!known) return fail(kNotAKey, nullptr);
  if (str_equal(key, "kanal") && !valid_channel(value)) return fail("ota: channel must be stable or test", nullptr);

  char prefix[kPrefixBytes];
  usize prefix_len = str_append_at(prefix, str_copy(prefix, key), "=");
  load_settings();

  // The new text keeps every other line in its order and puts the setting last. Copying
  // stops at 1,023 bytes, so near the limit the new line's tail is lost, never an old line.
  static char text[kSettingsBytes];
  constexpr usize kLimit = kSettingsBytes - 1;
  usize len = 0;
  const char* old = settings.text;
  usize old_len = settings.length;
  for (usize start = 0; start < old_len;) {
    usize end = start;
    while (end < old_len && old[end] != '\n') end++;
    if (end < old_len) end++;  // the line includes its newline
    bool dropped = end - start >= prefix_len && mem_equal(old + start, prefix, prefix_len);
    for (usize i = start; !dropped && i < end && len < kLimit; i++) text[len++] = old[i];
    start = end;
  }
  if (len > 0 && text[len - 1] != '\n' && len < kLimit) text[len++] = '\n';
  for (usize i = 0; i < prefix_len && len < kLimit; i++) text[len++] = prefix[i];
  for (usize i = 0; value[i] != 0 && len < kLimit; i++) text[len++] = value[i];
  // The closing newline is always written, even past the limit.
  text[len++] = '\n';

  if (!replace_file(kSettingsPath, text, len)) return fail("ota: /etc/ota.conf could not be written", nullptr);
  sys_sync();
  char line[kShownValueBytes + 64];
  usize n = str_copy(line, "ota: set ");
  n = str_append_at(line, n, key);
  n = str_append_at(line, n, " is now ");
  say_text(line, value);
  return 0;
}

}  // namespace ota
