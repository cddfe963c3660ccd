#pragma once
#include "runtime/syscall.h"
namespace ota {
u64 gunzip_stream(int input_fd, int output_fd);
}  // namespace ota
