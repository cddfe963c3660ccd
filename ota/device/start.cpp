// The program's entry on the device: the kernel's argument block goes to the dispatcher,
// and its result becomes the exit status.
#define OTA_ENTRY_POINT
#include "cli/main.h"
#include "runtime/syscall.h"

extern "C" [[noreturn]] void ota_entry(const ota::u64* block) { ota::sys_exit(ota::ota_main(block)); }
