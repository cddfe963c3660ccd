#include "kernel_state.h"

#include <algorithm>
#include <sstream>
#include <vector>

#include "host.h"

namespace tavisim {

KernelState parse_kernel_state(const std::string& text, const std::string& origin) {
  KernelState s;
  int no = 0;
  for (const std::string& line : text_lines(text)) {
    no++;
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> f = tab_fields(line);
    for (std::string& field : f) field = unescape_field(field);
    auto bad = [&]() { return SimError(origin + ":" + std::to_string(no) + ": cannot read: " + line); };
    auto number = [&](size_t k) {
      int64_t v;
      if (k >= f.size() || !parse_i64(f[k], v)) throw bad();
      return v;
    };
    if (f[0] == "clock-ns") s.clock_ns = number(1);
    else if (f[0] == "boot-ns") s.boot_ns = number(1);
    else if (f[0] == "grow-steps-done") s.grow_steps_done = number(1);
    else if (f[0] == "grow-finished") s.grow_finished = number(1) != 0;
    else if (f[0] == "killed") s.killed_slots.insert(static_cast<int>(number(1)));
    else if (f[0] == "counter" && f.size() == 3) s.counters[f[1]] = number(2);
    else if (f[0] == "mount" && f.size() >= 3) s.mounts[f[1]] = f[2];
    else if (f[0] == "next-spawn-id") s.next_spawn_id = std::max<int64_t>(number(1), kSpawnIdBase);
    else if (f[0] == "healthy") s.healthy = number(1) != 0;
    else throw bad();
  }
  return s;
}

std::string format_kernel_state(const KernelState& s) {
  std::ostringstream o;
  o << "# tavi-sim kernel state: what the simulated kernel keeps between commands\n";
  o << "clock-ns\t" << s.clock_ns << "\n";
  o << "boot-ns\t" << s.boot_ns << "\n";
  o << "grow-steps-done\t" << s.grow_steps_done << "\n";
  o << "grow-finished\t" << (s.grow_finished ? 1 : 0) << "\n";
  for (int k : s.killed_slots) o << "killed\t" << k << "\n";
  for (auto& [key, v] : s.counters) o << "counter\t" << escape_field(key) << "\t" << v << "\n";
  for (auto& [target, dev] : s.mounts) o << "mount\t" << escape_field(target) << "\t" << escape_field(dev) << "\n";
  o << "next-spawn-id\t" << s.next_spawn_id << "\n";
  o << "healthy\t" << (s.healthy ? 1 : 0) << "\n";
  return o.str();
}

KernelStateFile::KernelStateFile(const std::string& device_dir) : dir_(device_dir) {}

KernelState KernelStateFile::load() {
  auto text = read_host_file(dir_ + "/kernel.state");
  if (!text) return KernelState{};
  KernelState s = parse_kernel_state(*text, dir_ + "/kernel.state");
  saved_ = *text;
  return s;
}

void KernelStateFile::save(const KernelState& s) {
  std::string text = format_kernel_state(s);
  if (text == saved_) return;
  // A failed rename leaves the old state whole; the simulator goes on as before.
  replace_host_file(dir_ + "/kernel.state", text);
  saved_ = text;
}

}  // namespace tavisim
