#pragma once
// Confirming or undoing a version on trial, guarding the trial with a watchdog or the
// start-up health check, and the periodic service loop.

#include "runtime/syscall.h"

namespace ota {

int confirm_command();
int rollback_command();
bool process_running(const char* name);
int boot_command(const char* process);
int watchdog_command(const char* seconds);
// Set by `ota service N system`: a limited service run also searches for system builds.
extern bool service_with_system;
int service_loop(u64 passes);

}  // namespace ota
