#pragma once
// Helpers for the end-to-end tests of the trial, health and service commands: trial
// records, runs bounded in virtual and real time, the virtual times of program starts,
// and a way to change a file while ota stands in a chosen one-second sleep.
#include <stdio.h>

#include <cstdint>
#include <string>
#include <vector>

#include "update_source.h"

namespace e2e {

// Every run of these tests ends by itself long before these limits; they only keep a
// wrong program from hanging the suite.
inline tavisim::RunOptions bounded(double virtual_seconds, double wall_seconds = 20) {
  tavisim::RunOptions o;
  o.virtual_seconds = virtual_seconds;
  o.wall_seconds = wall_seconds;
  return o;
}

// The 36-byte trial record as the installer writes it.
inline std::string trial_record(unsigned gen, unsigned vor, char ok = '0', const char* starts = "00") {
  char buf[64];
  snprintf(buf, sizeof buf, "gen=%08u vor=%08u v=%s ok=%c\n", gen, vor, starts, ok);
  return buf;
}

inline constexpr const char* kRecordPath = "/system/ERPROBUNG";
inline constexpr const char* kNotHealthy =
    "ota: start NOT healthy within the grace period -- restart, the kernel counts\n";
inline constexpr const char* kServiceOff = "ota: automatic search is OFF\n";
inline constexpr const char* kNothingInTrial = "ota: nothing in trial\n";
inline constexpr const char* kWatchdogRestart =
    "ota: WATCHDOG: no confirmation within the grace period\nota: WATCHDOG: restart -- the kernel counts\n";

// Spawn events of one program (word 0 of the spawned words), in order.
inline std::vector<tavisim::Event> spawn_events(const std::vector<tavisim::Event>& events,
                                                const std::string& program) {
  std::vector<tavisim::Event> out;
  for (const auto& e : tavisim::events_of(events, "spawn"))
    if (e.fields.size() >= 2 && e.fields[1] == program) out.push_back(e);
  return out;
}

// Spawn events of /bin/fetch whose URL (the last word) is the given one.
inline std::vector<tavisim::Event> fetches_of(const std::vector<tavisim::Event>& events, const std::string& url) {
  std::vector<tavisim::Event> out;
  for (const auto& e : spawn_events(events, "/bin/fetch"))
    if (e.fields.back() == url) out.push_back(e);
  return out;
}

// Virtual seconds between consecutive events.
inline std::vector<int64_t> gaps_in_seconds(const std::vector<tavisim::Event>& events) {
  std::vector<int64_t> out;
  for (size_t i = 1; i < events.size(); i++) out.push_back((events[i].ms - events[i - 1].ms) / 1000);
  return out;
}

inline int64_t start_ms(const std::vector<tavisim::Event>& events) {
  auto starts = tavisim::events_of(events, "start");
  return starts.empty() ? -1 : starts[0].ms;
}

// Seconds from the command's start to each event.
inline std::vector<double> seconds_after_start(const std::vector<tavisim::Event>& all,
                                               const std::vector<tavisim::Event>& chosen) {
  std::vector<double> out;
  int64_t t0 = start_ms(all);
  for (const auto& e : chosen) out.push_back(static_cast<double>(e.ms - t0) / 1000.0);
  return out;
}

// The kinds of the events, in order, leaving out the kinds named.
inline std::vector<std::string> kinds_of(const std::vector<tavisim::Event>& events,
                                         const std::vector<std::string>& leave_out = {}) {
  std::vector<std::string> out;
  for (const auto& e : events) {
    bool skip = false;
    for (const auto& k : leave_out) skip = skip || e.kind == k;
    if (!skip) out.push_back(e.kind == "fault" ? e.kind + ":" + e.value("call") : e.kind);
  }
  return out;
}

// Makes every sync fail, so that each one shows in the event log as a fault.
inline void log_every_sync(tavisim::Device& device) {
  tavisim::CallFault f;
  f.number = 162;
  f.error = -5;
  f.nth = 1;
  f.every = true;
  device.add_call_fault(f);
}

// The exit events of one process.
inline std::vector<tavisim::Event> exits_of(const std::vector<tavisim::Event>& events, int64_t pid) {
  std::vector<tavisim::Event> out;
  for (const auto& e : tavisim::events_of(events, "exit"))
    if (e.pid == pid) out.push_back(e);
  return out;
}

// The state letter of a host process ('t' while it stands in a ptrace stop).
inline char process_state(int64_t pid) {
  std::string stat = read_all("/proc/" + std::to_string(pid) + "/stat");
  size_t paren = stat.rfind(')');
  if (paren == std::string::npos || paren + 2 >= stat.size()) return '?';
  return stat[paren + 2];
}

// Serves the device until its clock has reached `seconds` after the clock's start and
// every ota process stands in a stopped call again. Used while the only calls ota stops
// in are its one-second sleeps: the program has then made its check for this second and
// waits in the next sleep, so a file changed now is first seen one second later. The
// simulator has no timed file changes of its own; this is how a test makes one.
inline bool serve_into_sleep_after(tavisim::Device& device, double seconds) {
  const int64_t at = static_cast<int64_t>(seconds * 1000);
  return device.serve_until(
      [&] {
        if (device.virtual_ms() < at) return false;
        std::vector<int64_t> pids = device.live_pids();
        if (pids.empty()) return false;
        for (int64_t pid : pids)
          if (process_state(pid) != 't') return false;
        return true;
      },
      20);
}

}  // namespace e2e
