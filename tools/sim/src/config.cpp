#include "tavisim/config.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "host.h"

namespace tavisim {

namespace {

// Error numbers a configuration may name instead of a number.
struct ErrnoName {
  const char* name;
  int value;
};
constexpr ErrnoName kErrnoNames[] = {
    {"EPERM", EPERM},   {"ENOENT", ENOENT}, {"ESRCH", ESRCH},   {"EINTR", EINTR},   {"EIO", EIO},
    {"ENXIO", ENXIO},   {"E2BIG", E2BIG},   {"EBADF", EBADF},   {"ECHILD", ECHILD}, {"EAGAIN", EAGAIN},
    {"ENOMEM", ENOMEM}, {"EACCES", EACCES}, {"EFAULT", EFAULT}, {"EBUSY", EBUSY},   {"EEXIST", EEXIST},
    {"EXDEV", EXDEV},   {"ENODEV", ENODEV}, {"ENOTDIR", ENOTDIR}, {"EISDIR", EISDIR}, {"EINVAL", EINVAL},
    {"ENFILE", ENFILE}, {"EMFILE", EMFILE}, {"EFBIG", EFBIG},   {"ENOSPC", ENOSPC}, {"EROFS", EROFS},
    {"EMLINK", EMLINK}, {"ENAMETOOLONG", ENAMETOOLONG}, {"ENOSYS", ENOSYS}, {"ENOTEMPTY", ENOTEMPTY},
    {"EDQUOT", EDQUOT},
};

bool parse_error_number(const std::string& w, int64_t& out) {
  for (auto& e : kErrnoNames) {
    if (w == e.name || w == std::string("-") + e.name) {
      out = -e.value;
      return true;
    }
  }
  int64_t v;
  if (!parse_i64(w, v) || v == 0 || v < -4095 || v > 4095) return false;
  out = v < 0 ? v : -v;
  return true;
}

const char* kind_name(FetchFaultKind k) {
  switch (k) {
    case FetchFaultKind::fail: return "fail";
    case FetchFaultKind::stop: return "stop";
    case FetchFaultKind::corrupt: return "corrupt";
    case FetchFaultKind::length: return "length";
    case FetchFaultKind::hold: return "hold";
  }
  return "fail";
}

std::string seconds_text(int64_t ns) {
  std::string s = format_seconds_ms(ns);
  // Drop a zero fraction: "20.000" -> "20".
  if (s.size() > 4 && s.compare(s.size() - 4, 4, ".000") == 0) s.resize(s.size() - 4);
  return s;
}

// Everything after the first `skip` words of the line, trimmed: a path may hold blanks.
std::string rest_after(std::string_view line, size_t skip) {
  size_t i = 0;
  for (size_t w = 0; w < skip; w++) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) i++;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') i++;
  }
  return trim(line.substr(i));
}

}  // namespace

bool parse_date_time(std::string_view text, int64_t& epoch_seconds) {
  int y, mo, d, h = 0, mi = 0, s = 0;
  std::string t(text);
  int n = sscanf(t.c_str(), "%d-%d-%d %d:%d:%d", &y, &mo, &d, &h, &mi, &s);
  if (n != 3 && n != 5 && n != 6) {
    n = sscanf(t.c_str(), "%d-%d-%dT%d:%d:%d", &y, &mo, &d, &h, &mi, &s);
    if (n != 3 && n != 5 && n != 6) return false;
  }
  if (y < 1970 || y > 9999 || mo < 1 || mo > 12 || d < 1 || d > 31 || h < 0 || h > 23 || mi < 0 || mi > 59 ||
      s < 0 || s > 59)
    return false;
  // Days from the civil date (proleptic Gregorian), after H. Hinnant's algorithm.
  int yy = y - (mo <= 2);
  int era = yy / 400;
  int yoe = yy - era * 400;
  int doy = (153 * (mo + (mo > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  int64_t days = static_cast<int64_t>(era) * 146097 + doe - 719468;
  epoch_seconds = days * 86400 + h * 3600 + mi * 60 + s;
  return true;
}

bool parse_share_ppm(std::string_view text, uint32_t& ppm) {
  constexpr uint64_t kMillion = 1000000;
  size_t dot = text.find('.');
  std::string_view whole = text.substr(0, dot);
  std::string_view frac = dot == std::string_view::npos ? std::string_view() : text.substr(dot + 1);
  if ((whole.empty() && frac.empty()) || frac.size() > 6) return false;
  uint64_t w = 0, f = 0;
  if (!whole.empty() && !parse_u64(whole, w)) return false;
  if (!frac.empty() && !parse_u64(frac, f)) return false;
  for (size_t i = frac.size(); i < 6; i++) f *= 10;
  if (w > 1 || w * kMillion + f > kMillion) return false;
  ppm = static_cast<uint32_t>(w * kMillion + f);
  return true;
}

std::string format_share_ppm(uint32_t ppm) {
  char buf[16];
  snprintf(buf, sizeof buf, "%u.%06u", ppm / 1000000, ppm % 1000000);
  std::string s = buf;
  while (s.back() == '0') s.pop_back();
  if (s.back() == '.') s.pop_back();
  return s;
}

std::optional<std::string> map_url(const std::vector<Repo>& repos, std::string_view url) {
  const Repo* best = nullptr;
  for (auto& r : repos) {
    if (r.prefix.empty() || url.substr(0, r.prefix.size()) != r.prefix) continue;
    if (!best || r.prefix.size() > best->prefix.size()) best = &r;
  }
  if (!best) return std::nullopt;
  return best->dir + std::string(url.substr(best->prefix.size()));
}

std::string url_file_name(std::string_view url) {
  size_t q = url.find_first_of("?#");
  if (q != std::string_view::npos) url = url.substr(0, q);
  size_t s = url.find_last_of('/');
  return std::string(s == std::string_view::npos ? url : url.substr(s + 1));
}

Config parse_config(std::string_view text, const std::string& origin) {
  Config c;
  std::istringstream in{std::string(text)};
  std::string raw;
  int line_no = 0;
  bool grow_steps_seen = false;
  while (std::getline(in, raw)) {
    line_no++;
    std::string line = trim(raw);
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> w = split_words(line);
    const std::string& key = w[0];
    auto bad = [&](const std::string& what) -> SimError {
      return SimError(origin + ":" + std::to_string(line_no) + ": " + key + ": " + what + " (line: " + line + ")");
    };
    auto need = [&](size_t min_words, size_t max_words) {
      if (w.size() < min_words + 1 || w.size() > max_words + 1) throw bad("wrong number of values");
    };
    auto u64_at = [&](size_t i, const char* what) {
      uint64_t v;
      if (!parse_u64(w[i], v)) throw bad(std::string("not a number for ") + what + ": " + w[i]);
      return v;
    };
    auto i64_at = [&](size_t i, const char* what) {
      int64_t v;
      if (!parse_i64(w[i], v)) throw bad(std::string("not a number for ") + what + ": " + w[i]);
      return v;
    };
    if (key == "clock") {
      std::string v = rest_after(line, 1);
      int64_t e;
      if (!parse_date_time(v, e)) throw bad("not a date and time (YYYY-MM-DD HH:MM:SS): " + v);
      c.clock_start = v;
    } else if (key == "free-blocks") {
      need(1, 1);
      c.free_blocks = u64_at(1, "free blocks");
    } else if (key == "block-size") {
      need(1, 1);
      c.block_size = u64_at(1, "block size");
      if (c.block_size == 0) throw bad("block size 0");
    } else if (key == "disk-capacity") {
      need(1, 1);
      c.capacity_bytes = u64_at(1, "capacity");
    } else if (key == "repo") {
      if (w.size() < 3) throw bad("needs a URL prefix and a host directory");
      c.repos.push_back({w[1], rest_after(line, 2)});
    } else if (key == "fetch-mode") {
      need(1, 1);
      if (w[1] == "model") c.fetch_curl = false;
      else if (w[1] == "curl") c.fetch_curl = true;
      else throw bad("must be model or curl: " + w[1]);
    } else if (key == "first-ota-slot") {
      need(1, 1);
      uint64_t v = u64_at(1, "slot");
      if (v >= 128) throw bad("slot beyond 127: " + w[1]);
      c.first_ota_slot = static_cast<int>(v);
    } else if (key == "task") {
      // task SLOT NAME APPEAR [END|-] [pid=N]
      if (w.size() < 4 || w.size() > 6) throw bad("needs slot, name, appear time, [end time], [pid=N]");
      TaskSpec t;
      uint64_t slot = u64_at(1, "slot");
      if (slot >= 128) throw bad("slot beyond 127: " + w[1]);
      t.slot = static_cast<int>(slot);
      t.name = w[2];
      if (t.name.size() > 16) throw bad("task name longer than 16 bytes: " + t.name);
      if (!parse_seconds(w[3], t.appear_ns)) throw bad("not a time in seconds: " + w[3]);
      for (size_t i = 4; i < w.size(); i++) {
        if (w[i].rfind("pid=", 0) == 0) {
          int64_t p;
          if (!parse_i64(w[i].substr(4), p) || p <= 0) throw bad("not a pid: " + w[i]);
          t.pid = p;
        } else if (w[i] != "-") {
          if (!parse_seconds(w[i], t.end_ns)) throw bad("not a time in seconds: " + w[i]);
        }
      }
      for (auto& o : c.tasks)
        if (o.slot == t.slot) throw bad("slot " + w[1] + " is given twice");
      c.tasks.push_back(t);
    } else if (key == "grow-state") {
      need(1, 1);
      c.grow.state = i64_at(1, "state");
    } else if (key == "grow-steps") {
      if (grow_steps_seen) throw bad("given twice");
      grow_steps_seen = true;
      for (size_t i = 1; i < w.size(); i++) c.grow.steps.push_back(i64_at(i, "progress"));
    } else if (key == "grow-fail") {
      need(2, 2);
      c.grow.fail_step = i64_at(1, "step");
      c.grow.fail_code = i64_at(2, "code");
      if (c.grow.fail_step <= 0) throw bad("steps count from 1");
      if (c.grow.fail_code == 0 || c.grow.fail_code == 1) throw bad("a failure code must not be 0 or 1");
    } else if (key == "grow-blocks") {
      need(4, 4);
      c.grow.fs_blocks = u64_at(1, "fs blocks");
      c.grow.device_blocks = u64_at(2, "device blocks");
      c.grow.inodes = u64_at(3, "inodes");
      c.grow.ext_inodes = u64_at(4, "ext inodes");
    } else if (key == "program") {
      if (w.size() < 3) throw bad("needs a device path and a host executable");
      if (w[1].empty() || w[1][0] != '/') throw bad("device path must be absolute: " + w[1]);
      c.programs[w[1]] = rest_after(line, 2);
    } else if (key == "fetch-fault") {
      // fetch-fault NAME KIND [ARG] [TIMES]
      if (w.size() < 3) throw bad("needs a file name and a kind");
      FetchFault f;
      f.name = w[1];
      const std::string& k = w[2];
      size_t args = 0;
      if (k == "fail") {
        f.kind = FetchFaultKind::fail;
        need(3, 3);
        f.times = static_cast<int64_t>(u64_at(3, "times"));
        if (f.times == 0) throw bad("fail needs a count above 0");
        args = 3;
      } else if (k == "hold") {
        f.kind = FetchFaultKind::hold;
        need(2, 3);
        f.times = w.size() > 3 ? static_cast<int64_t>(u64_at(3, "times")) : 1;
        args = w.size() - 1;
      } else if (k == "stop" || k == "corrupt" || k == "length") {
        f.kind = k == "stop" ? FetchFaultKind::stop : k == "corrupt" ? FetchFaultKind::corrupt : FetchFaultKind::length;
        need(3, 4);
        f.arg = k == "length" ? i64_at(3, "length change") : static_cast<int64_t>(u64_at(3, "bytes"));
        f.times = w.size() > 4 ? static_cast<int64_t>(u64_at(4, "times")) : (k == "stop" ? 1 : 0);
        args = w.size() - 1;
      } else {
        throw bad("kind must be fail, stop, corrupt, length or hold: " + k);
      }
      (void)args;
      c.fetch_faults.push_back(f);
    } else if (key == "fetch-drop") {
      need(2, 2);
      if (!parse_share_ppm(w[1], c.fetch_drop_ppm)) throw bad("not a share from 0 to 1: " + w[1]);
      c.fetch_drop_seed = u64_at(2, "seed");
    } else if (key == "call-fault") {
      // call-fault NUMBER ERROR NTH [every] [path=PATH]
      if (w.size() < 4) throw bad("needs a call number, an error and which call");
      CallFault f;
      f.number = static_cast<int64_t>(u64_at(1, "call number"));
      if (!parse_error_number(w[2], f.error)) throw bad("not an error number: " + w[2]);
      f.nth = static_cast<int64_t>(u64_at(3, "nth call"));
      if (f.nth == 0) throw bad("calls count from 1");
      for (size_t i = 4; i < w.size(); i++) {
        if (w[i] == "every") f.every = true;
        else if (w[i].rfind("path=", 0) == 0) f.path = w[i].substr(5);
        else throw bad("unknown word " + w[i]);
      }
      c.call_faults.push_back(f);
    } else if (key == "cut") {
      need(2, 3);
      Cut k;
      k.at_call = u64_at(1, "call count");
      if (k.at_call == 0) throw bad("calls count from 1");
      if (w[2] == "all") k.durability = Durability::all;
      else if (w[2] == "synced") k.durability = Durability::synced;
      else throw bad("durability must be all or synced: " + w[2]);
      if (w.size() > 3) {
        if (w[3] == "any") k.any_process = true;
        else if (w[3] == "forked") k.forked_only = true;
        else if (w[3] != "main") throw bad("must be main, any or forked: " + w[3]);
      }
      c.cut = k;
    } else if (key == "tpk-fail") {
      need(2, 2);
      static const char* verbs[] = {"catalog", "update", "trial", "rollback", "rebuild"};
      std::string verb = w[1].substr(0, w[1].find(':'));
      if (std::find(std::begin(verbs), std::end(verbs), verb) == std::end(verbs))
        throw bad("not a use of tpk (catalog, update, update:NAME, trial, rollback, rebuild): " + w[1]);
      uint64_t code = u64_at(2, "exit code");
      if (code == 0 || code > 255) throw bad("exit code must be 1 to 255: " + w[2]);
      c.tpk_fail[w[1]] = static_cast<int>(code);
    } else if (key == "tpk-index") {
      need(1, 1);
      if (w[1] == "signed") c.tpk_index_signed = true;
      else if (w[1] == "trusted") c.tpk_index_signed = false;
      else throw bad("must be signed or trusted: " + w[1]);
    } else if (key == "tpk-catalog") {
      if (w.size() < 2) throw bad("needs a host file");
      c.tpk_catalog_file = rest_after(line, 1);
    } else if (key == "sntp-fail" || key == "rootsctl-fail") {
      need(1, 1);
      uint64_t code = u64_at(1, "exit code");
      if (code > 255) throw bad("exit code must be 0 to 255: " + w[1]);
      (key == "sntp-fail" ? c.sntp_fail : c.rootsctl_fail) = static_cast<int>(code);
    } else if (key == "boot-tries") {
      need(1, 1);
      uint64_t v = u64_at(1, "starts");
      if (v == 0 || v > 99) throw bad("must be 1 to 99: " + w[1]);
      c.boot_tries = static_cast<int>(v);
    } else if (key == "start-entry") {
      if (w.size() < 2) throw bad("needs the words after ota, or - for none");
      c.start_entry.assign(w.begin() + 1, w.end());
      if (c.start_entry.size() == 1 && c.start_entry[0] == "-") c.start_entry.clear();
    } else {
      throw SimError(origin + ":" + std::to_string(line_no) + ": unknown key " + key);
    }
  }
  return c;
}

std::string format_config(const Config& c) {
  std::ostringstream o;
  o << "# tavi-sim device configuration (docs/simulator.md lists the keys)\n";
  o << "clock " << c.clock_start << "\n";
  o << "free-blocks " << c.free_blocks << "\n";
  o << "block-size " << c.block_size << "\n";
  if (c.capacity_bytes) o << "disk-capacity " << c.capacity_bytes << "\n";
  for (auto& r : c.repos) o << "repo " << r.prefix << " " << r.dir << "\n";
  if (c.fetch_curl) o << "fetch-mode curl\n";
  o << "first-ota-slot " << c.first_ota_slot << "\n";
  for (auto& t : c.tasks) {
    o << "task " << t.slot << " " << t.name << " " << seconds_text(t.appear_ns);
    if (t.end_ns >= 0) o << " " << seconds_text(t.end_ns);
    if (t.pid) o << " pid=" << t.pid;
    o << "\n";
  }
  o << "grow-state " << c.grow.state << "\n";
  if (!c.grow.steps.empty()) {
    o << "grow-steps";
    for (auto s : c.grow.steps) o << " " << s;
    o << "\n";
  }
  if (c.grow.fail_step) o << "grow-fail " << c.grow.fail_step << " " << c.grow.fail_code << "\n";
  o << "grow-blocks " << c.grow.fs_blocks << " " << c.grow.device_blocks << " " << c.grow.inodes << " "
    << c.grow.ext_inodes << "\n";
  for (auto& [dev, host] : c.programs) o << "program " << dev << " " << host << "\n";
  for (auto& f : c.fetch_faults) {
    o << "fetch-fault " << f.name << " " << kind_name(f.kind);
    if (f.kind == FetchFaultKind::fail || f.kind == FetchFaultKind::hold) o << " " << f.times;
    else o << " " << f.arg << " " << f.times;
    o << "\n";
  }
  if (c.fetch_drop_ppm) o << "fetch-drop " << format_share_ppm(c.fetch_drop_ppm) << " " << c.fetch_drop_seed << "\n";
  for (auto& f : c.call_faults) {
    o << "call-fault " << f.number << " " << f.error << " " << f.nth;
    if (f.every) o << " every";
    if (!f.path.empty()) o << " path=" << f.path;
    o << "\n";
  }
  if (c.cut) {
    o << "cut " << c.cut->at_call << " " << (c.cut->durability == Durability::all ? "all" : "synced")
      << (c.cut->forked_only ? " forked" : c.cut->any_process ? " any" : " main") << "\n";
  }
  for (auto& [use, code] : c.tpk_fail) o << "tpk-fail " << use << " " << code << "\n";
  if (!c.tpk_catalog_file.empty()) o << "tpk-catalog " << c.tpk_catalog_file << "\n";
  if (!c.tpk_index_signed) o << "tpk-index trusted\n";
  if (c.sntp_fail) o << "sntp-fail " << c.sntp_fail << "\n";
  if (c.rootsctl_fail) o << "rootsctl-fail " << c.rootsctl_fail << "\n";
  o << "boot-tries " << c.boot_tries << "\n";
  o << "start-entry";
  for (auto& w : c.start_entry) o << " " << w;
  if (c.start_entry.empty()) o << " -";
  o << "\n";
  return o.str();
}

}  // namespace tavisim
