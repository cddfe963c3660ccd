#include "system/system_command.h"

#include "grow/grow.h"
#include "runtime/text.h"
#include "system/apply.h"
#include "system/background.h"
#include "system/esp.h"
#include "system/manifest.h"
#include "system/pending.h"

namespace ota {

int system_command(ArgBlock block, u64 n) {
  const char* sub = arg_word(block, 2);
  if (sub == nullptr) return system_status();
  if (str_equal(sub, "search")) return system_search();
  if (str_equal(sub, "apply")) {
    bool restart = false;
    bool background = false;
    bool force = false;
    // The words after "apply" may come in any order; unknown ones are ignored.
    for (u64 i = 3; i < n; i++) {
      const char* w = arg_word(block, i);
      restart = restart || str_equal(w, "restart");
      background = background || str_equal(w, "bg");
      force = force || str_equal(w, "force");
    }
    return background ? apply_in_background(restart, force) : system_apply(restart, false);
  }
  if (str_equal(sub, "esp")) return esp_report();
  if (str_equal(sub, "grow")) return grow_command(block, n, 3);
  if (str_equal(sub, "confirm")) {
    // The outcome is printed by the confirmation itself; the command always succeeds.
    confirm_system_update();
    return 0;
  }
  return system_status();
}

}  // namespace ota
