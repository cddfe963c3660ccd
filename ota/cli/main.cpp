#include "cli/main.h"

#include "cli/settings_command.h"
#include "packages/apply.h"
#include "packages/fetch.h"
#include "packages/update_state.h"
#include "runtime/text.h"
#include "system/system_command.h"
#include "trial/trial.h"

namespace ota {

namespace {

constexpr const char* kUsageFirst = "ota search | show | apply";
constexpr const char* kUsageSecond = "ota confirm | rollback | watchdog | service | system search|apply|status";

int usage_short() {
  print_out(kUsageFirst);
  print_newline();
  return 1;
}

int run_fetch_command(ArgBlock block, u64 n) {
  // With fewer words "fetch" is no command at all and ends in the usage line.
  if (n < 4) return usage_short();
  return fetch_command(arg_word(block, 2), arg_word(block, 3));
}

int run_show(ArgBlock, u64) { return show_command(); }
int run_search(ArgBlock, u64) { return search_command(); }
int run_apply(ArgBlock, u64) { return apply_command(); }
int run_confirm(ArgBlock, u64) { return confirm_command(); }
int run_rollback(ArgBlock, u64) { return rollback_command(); }
int run_watchdog(ArgBlock block, u64) { return watchdog_command(arg_word(block, 2)); }

int run_service(ArgBlock block, u64 n) {
  u64 passes = n >= 3 ? parse_decimal(arg_word(block, 2)) : 0;
  if (n >= 4 && str_equal(arg_word(block, 3), "system")) service_with_system = true;
  return service_loop(passes);
}

int run_boot(ArgBlock block, u64) { return boot_command(arg_word(block, 2)); }
int run_settings(ArgBlock, u64) { return cmd_settings(); }

int run_set(ArgBlock block, u64 n) {
  if (n < 4) return fail(kNotAKey, nullptr);
  return cmd_set(arg_word(block, 2), arg_word(block, 3));
}

struct Command {
  const char* word;
  int (*run)(ArgBlock block, u64 n);
};

// Chosen by the first word; every comparison is whole and case-sensitive.
constexpr Command kCommands[] = {
    {"system", system_command},     {"fetch", run_fetch_command}, {"show", run_show},
    {"search", run_search},     {"apply", run_apply},         {"confirm", run_confirm},
    {"rollback", run_rollback}, {"watchdog", run_watchdog},   {"service", run_service},
    {"boot", run_boot},         {"settings", run_settings},   {"set", run_set},
};

}  // namespace

u64 ota_main(ArgBlock block) {
  u64 n = arg_count(block);
  if (n < 2) {
    // Asking for nothing is not an error.
    print_out(kUsageFirst);
    print_newline();
    print_out(kUsageSecond);
    print_newline();
    return 0;
  }
  const char* w = arg_word(block, 1);
  for (const Command& command : kCommands) {
    if (str_equal(w, command.word)) return static_cast<u64>(command.run(block, n));
  }
  return static_cast<u64>(usage_short());
}

}  // namespace ota
