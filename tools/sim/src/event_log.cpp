#include "event_log.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "host.h"

namespace tavisim {

EventLog::EventLog(const std::string& path) {
  fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd_ < 0) throw SimError("cannot open " + path + ": " + strerror(errno));
}

EventLog::~EventLog() {
  if (fd_ >= 0) close(fd_);
}

void EventLog::add(int64_t ns, const std::string& kind, int64_t pid, std::vector<std::string> fields) {
  Event e;
  e.ms = ns / 1000000;
  e.kind = kind;
  e.pid = pid;
  e.fields = std::move(fields);
  std::string line = format_event(e) + "\n";
  if (write(fd_, line.data(), line.size()) < 0) {
    // The log is best effort; the in-memory copy still holds the event.
  }
  events_.push_back(std::move(e));
}

std::vector<Event> EventLog::since(size_t first) const {
  return std::vector<Event>(events_.begin() + static_cast<long>(std::min(first, events_.size())), events_.end());
}

}  // namespace tavisim
