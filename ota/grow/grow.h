#pragma once
// Growing the root file system to the size of its device. The kernel does the work; the
// program asks for it step by step, reports progress and words the outcome.

#include "runtime/args.h"

namespace ota {

// The kernel's grow call, its operations, selectors and answers are in tavi_abi.h. Each
// step asks for at most this many units of work, so that progress can be reported
// between steps.
constexpr u64 kGrowStepUnits = 256;

constexpr const char* kGrowLogPath = "/tmp/fsgrow.log";

// `ota system grow [status | bg]`: first is the index of the word after "grow".
int grow_command(ArgBlock block, u64 count, u64 first);
// The five state lines on standard output.
void grow_report();
// True when the file system is grown (or already was), false when it cannot be or a step
// failed.
bool grow_run();
// Forks a child that grows with its output in the log; 0 in the parent, or 1 when the
// fork failed. The child returns what grow_run returns.
int grow_in_background();

// The same report and run against another grow call than the kernel's, so the wording
// and the progress steps can be checked off the device.
using GrowCall = u64 (*)(u64 operation, u64 argument);
void grow_report_with(GrowCall grow);
bool grow_run_with(GrowCall grow);

}  // namespace ota
