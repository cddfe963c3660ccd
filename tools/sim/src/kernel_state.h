#pragma once
// DIR/kernel.state: what the simulated kernel keeps between commands and sessions, as a
// running machine keeps it in memory: the virtual clock, the last start, the growth's
// progress, ended tasks, fault counters, mounts, the next spawn id and the health of the
// running kernel image.

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace tavisim {

// Process ids the kernel hands out for started outside programs lie above Linux's largest
// possible pid (4194304), so they never meet a real one.
constexpr int64_t kSpawnIdBase = 6000000;

struct KernelState {
  int64_t clock_ns = 0;  // virtual time since the configured clock start
  int64_t boot_ns = 0;   // virtual time of the last start of the machine
  int64_t grow_steps_done = 0;
  bool grow_finished = false;
  std::set<int> killed_slots;  // configured tasks ended through end_task since the start
  std::map<std::string, int64_t> counters;
  std::map<std::string, std::string> mounts;  // target -> device
  int64_t next_spawn_id = kSpawnIdBase;
  bool healthy = true;  // the running kernel image starts the desktop tasks

  // The machine starts (again): tasks count their times from now, and the tasks ended
  // through end_task come back.
  void restarted() {
    boot_ns = clock_ns;
    killed_slots.clear();
  }
};

KernelState parse_kernel_state(const std::string& text, const std::string& origin);
std::string format_kernel_state(const KernelState& s);

// The file itself. It is written only when its text changed: most commands change nothing
// in it, and a rename per command would cost more than the comparison.
class KernelStateFile {
 public:
  // The device directory as the caller named it, so that a message about the file names it
  // the same way.
  explicit KernelStateFile(const std::string& device_dir);
  // What the file holds; the defaults when there is none. Throws SimError naming the line
  // at fault.
  KernelState load();
  void save(const KernelState& s);

 private:
  std::string dir_;
  std::string saved_;  // the text last read or written
};

}  // namespace tavisim
