#include "task_table.h"

#include <errno.h>

namespace tavisim {

TaskTable::TaskTable(const Config& config, KernelState& state) : config_(config), state_(state) {}

bool TaskTable::configured(int s) const {
  bool found = false;
  for (auto& task : config_.tasks) found = found || task.slot == s;
  return found;
}

TaskTable::Slot TaskTable::slot(int s) const {
  Slot v;
  for (auto& task : config_.tasks) {
    if (task.slot != s) continue;
    // A broken kernel image never brings the desktop up.
    if (state_.killed_slots.count(s) || !state_.healthy) return v;
    int64_t appear = state_.boot_ns + task.appear_ns;
    if (state_.clock_ns < appear) return v;
    v.pid = task.effective_pid();
    v.name = task.name;
    v.state = task.end_ns >= 0 && state_.clock_ns >= state_.boot_ns + task.end_ns ? 5 : 1;
    return v;
  }
  if (owner_[s] != 0) {
    v.state = 1;
    v.pid = owner_[s];
    v.name = "ota";
  }
  return v;
}

int64_t TaskTable::info(uint64_t s, uint64_t field) const {
  if (s >= static_cast<uint64_t>(kTaskSlots)) return -EINVAL;
  if (field != 0 && field != 1 && field != 10 && field != 11) return -EINVAL;
  Slot v = slot(static_cast<int>(s));
  if (v.state == 0) return 0;
  if (field == 0) return v.state;
  if (field == 1) return v.pid;
  // The name's bytes packed little-endian, first byte lowest, zero bytes after the name.
  uint64_t packed = 0;
  size_t from = field == 10 ? 0 : 8;
  for (size_t i = 0; i < 8 && from + i < v.name.size(); i++)
    packed |= static_cast<uint64_t>(static_cast<unsigned char>(v.name[from + i])) << (8 * i);
  return static_cast<int64_t>(packed);
}

int TaskTable::take(pid_t pid) {
  for (int s = config_.first_ota_slot; s < kTaskSlots; s++) {
    if (configured(s) || owner_[s] != 0) continue;
    owner_[s] = pid;
    return s;
  }
  return -1;
}

void TaskTable::give_back(int s, pid_t pid) {
  if (s >= 0 && owner_[s] == pid) owner_[s] = 0;
}

std::optional<std::string> TaskTable::end_configured(int64_t pid) {
  for (int s = 0; s < kTaskSlots; s++) {
    Slot v = slot(s);
    if (!configured(s) || v.state != 1 || v.pid != pid) continue;
    state_.killed_slots.insert(s);
    return v.name;
  }
  return std::nullopt;
}

std::vector<TaskTable::Change> TaskTable::changes(int64_t from, int64_t to) const {
  std::vector<Change> out;
  for (auto& task : config_.tasks) {
    int64_t appear = state_.boot_ns + task.appear_ns;
    if (appear > from && appear <= to) out.push_back({appear, task.effective_pid(), "appear", task.name, task.slot});
    if (task.end_ns >= 0) {
      int64_t end = state_.boot_ns + task.end_ns;
      if (end > from && end <= to) out.push_back({end, task.effective_pid(), "end", task.name, task.slot});
    }
  }
  return out;
}

}  // namespace tavisim
