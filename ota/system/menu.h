#pragma once
#include "runtime/syscall.h"
namespace ota {
bool find_first_entry_kernel_dir(const char* text, usize length);
const char* menu_kernel_dir();
bool install_entry_b();
bool reset_default_entry();
bool copy_file(const char* source, const char* target);
}  // namespace ota
