#pragma once
// The task table of the simulated kernel: the configured tasks (the desktop and its
// companions) in their slots from their appear time until their end, and every live ota
// process in the first free slot from `first-ota-slot` on.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "device_limits.h"
#include "kernel_state.h"
#include "tavisim/config.h"

namespace tavisim {

// The kernel has as many task slots as the device program walks.
constexpr int kTaskSlots = static_cast<int>(ota::kTaskSlots);

class TaskTable {
 public:
  // The configuration and the kernel's state are read as they are at each question.
  TaskTable(const Config& config, KernelState& state);

  struct Slot {
    int64_t state = 0;  // 0 free, 1 running, 5 ended
    int64_t pid = 0;
    std::string name;
  };
  Slot slot(int s) const;
  // task_info(slot, field): 0 state, 1 pid, 10 and 11 the name's bytes 0-7 and 8-15.
  int64_t info(uint64_t slot, uint64_t field) const;

  // An ota process takes the first free slot that no configured task holds; -1: none left.
  int take(pid_t pid);
  void give_back(int slot, pid_t pid);

  // end_task of a running configured task with that pid: it leaves the table until the
  // next start. The task's name; nullopt when no configured task runs under that pid.
  std::optional<std::string> end_configured(int64_t pid);

  // A configured task appearing or ending as the clock passes its time.
  struct Change {
    int64_t ns = 0;
    int64_t pid = 0;
    const char* what = "";  // "appear" or "end"
    std::string name;
    int slot = 0;
  };
  // The changes whose times lie in (from, to], task by task.
  std::vector<Change> changes(int64_t from, int64_t to) const;

 private:
  bool configured(int s) const;

  const Config& config_;
  KernelState& state_;
  pid_t owner_[kTaskSlots] = {};  // the ota process in each slot, 0 for none
};

}  // namespace tavisim
