#include "cli/commands.h"
#include "runtime/text.h"

namespace ota {

bool service_with_system = false;

namespace {

constexpr const char* kUsageFirst = "ota search | show | apply";
constexpr const char* kUsageSecond = "ota confirm | rollback | watchdog | service | system search|apply|status";

int usage_short() {
  print_out(kUsageFirst);
  print_newline();
  return 1;
}

int run_settings(ArgBlock, u64) { return cmd_settings(); }

int run_set(ArgBlock block, u64 n) {
  if (n < 4) return fail("ota: not a key: quelle name abstand auto frist kanal gesund", nullptr);
  return cmd_set(arg_word(block, 2), arg_word(block, 3));
}

struct Command {
  const char* word;
  int (*run)(ArgBlock block, u64 n);
};

// Chosen by the first word; every comparison is whole and case-sensitive.
constexpr Command kCommands[] = {
    {"settings", run_settings},
    {"set", run_set},
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
