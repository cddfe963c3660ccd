#pragma once
// The top-level operations the dispatcher chooses from.

#include "cli/args.h"

namespace ota {

int cmd_settings();
int cmd_set(const char* key, const char* value);
int system_command(ArgBlock block, u64 n);

}  // namespace ota
