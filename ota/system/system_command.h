#pragma once
// `ota system ...`: the system side's command family, given the whole argument block (its
// own words start at word 2).

#include "runtime/args.h"

namespace ota {

int system_command(ArgBlock block, u64 n);

}  // namespace ota
