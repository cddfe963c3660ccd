#pragma once
// The dispatcher: the first word of the argument block chooses one command, and the
// command's result becomes the program's exit status.

#include "runtime/args.h"

namespace ota {

u64 ota_main(ArgBlock block);

}  // namespace ota
