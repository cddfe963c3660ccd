#pragma once
// DIR/events.log as the kernel writes it: each event goes to the file at once (a test or a
// person may read it while the device runs) and stays in memory for the results of the
// commands that ran meanwhile.

#include <cstdint>
#include <string>
#include <vector>

#include "tavisim/events.h"

namespace tavisim {

class EventLog {
 public:
  // Opens the file for appending; throws SimError when it cannot.
  explicit EventLog(const std::string& path);
  ~EventLog();
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  void add(int64_t ns, const std::string& kind, int64_t pid, std::vector<std::string> fields);
  // The events added in this session, from the index `first` on.
  std::vector<Event> since(size_t first) const;
  size_t size() const { return events_.size(); }

 private:
  int fd_ = -1;
  std::vector<Event> events_;
};

}  // namespace tavisim
