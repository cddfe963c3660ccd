// The files a fleet rehearsal writes: devices.tsv, requests.tsv, rollout.tsv, run.tsv,
// summary.md and rollout.png. They are made from the same data whether one run wrote it
// or a merge of shards gathered it, so both give the same bytes.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>

#include "fleet.h"
#include "host.h"
#include "tavisim/config.h"

namespace tavisim::fleet {

std::string six_digits(uint64_t v) {
  char buf[24];
  snprintf(buf, sizeof buf, "%06llu", static_cast<unsigned long long>(v));
  return buf;
}

namespace {

uint64_t number(const std::string& s) {
  uint64_t v = 0;
  if (!parse_u64(s, v)) throw SimError("not a number: " + s);
  return v;
}

std::string dash(const std::string& s) { return s.empty() ? "-" : s; }
std::string undash(const std::string& s) { return s == "-" ? "" : s; }

std::string percent(uint64_t part, uint64_t whole) {
  char buf[32];
  snprintf(buf, sizeof buf, "%.1f%%", whole ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0.0);
  return buf;
}

std::string decimal(double v, int places) {
  char buf[64];
  snprintf(buf, sizeof buf, "%.*f", places, v);
  return buf;
}

std::string lookup(const Results& r, const std::string& key, const std::string& fallback = "") {
  for (auto& [k, v] : r.run)
    if (k == key) return v;
  return fallback;
}

// "abstand 3600" among the mix lines.
uint64_t mix_setting(const Results& r, const std::string& key, uint64_t fallback) {
  for (auto& [k, v] : r.run) {
    if (k != "mix" || v.compare(0, key.size() + 1, key + " ") != 0) continue;
    uint64_t n;
    if (parse_u64(v.substr(key.size() + 1), n)) return n;
  }
  return fallback;
}

constexpr const char* kDeviceColumns[] = {
    "device", "version",     "keygen",   "build",       "spare",   "free",      "trial",
    "auto",   "end_version", "end_keygen", "end_build", "end_trial", "outcome", "reason",
    "updated_at", "boots",   "cuts",     "drops",       "rollbacks", "dir",   "said"};

struct OutcomeText {
  const char* outcome;
  const char* meaning;
};
constexpr OutcomeText kMeanings[] = {
    {"updated", "started elsewhere and ends running the release, nothing left open"},
    {"current", "started on the release and stayed there"},
    {"refused", "the device said no to the release (the reason names its message)"},
    {"in-trial", "restarted into the new state but its trial is still open"},
    {"needs-person", "waits for its owner: a restart, a system apply (again, after a rolled-back trial), or automatic search is off"},
    {"behind", "would take the release but did not get it within the rounds (the link dropped)"},
    {"outside", "ends in a state that is neither its starting one nor the release's (kept)"},
    {"cannot-boot", "stands at the boot loader (kept)"},
    {"error", "the simulator could not run it (kept)"},
};

std::string value_text(const Sample& s, bool build) {
  if (s.down) return "down";
  return std::to_string(build ? s.build : s.version);
}

// Numbers in numeric order, "down" after them.
bool value_less(const std::string& a, const std::string& b) {
  bool an = a != "down", bn = b != "down";
  if (an != bn) return an;
  if (!an) return false;
  if (a.size() != b.size()) return a.size() < b.size();
  return a < b;
}

}  // namespace

bool RolloutKey::operator<(const RolloutKey& o) const {
  if (sample != o.sample) return sample < o.sample;
  if (kind != o.kind) return kind > o.kind;  // "version" before "build"
  if (value != o.value) return value_less(value, o.value);
  return false;
}

void add_to_rollout(Rollout& r, const DeviceReport& d, bool has_system) {
  for (size_t s = 0; s < d.timeline.size(); s++) {
    r[{s, "version", value_text(d.timeline[s], false)}]++;
    if (has_system) r[{s, "build", value_text(d.timeline[s], true)}]++;
  }
}

std::string device_header() {
  std::string h;
  for (const char* c : kDeviceColumns) h += std::string(h.empty() ? "" : "\t") + c;
  return h;
}

std::string format_device_line(const DeviceReport& d) {
  const StartState& s = d.start;
  std::vector<std::string> f = {six_digits(d.index),
                                std::to_string(s.version),
                                std::to_string(s.keygen),
                                std::to_string(s.build),
                                s.spare ? "yes" : "no",
                                std::to_string(s.free_blocks),
                                s.trial,
                                s.automatic,
                                std::to_string(d.end_version),
                                std::to_string(d.end_keygen),
                                std::to_string(d.end_build),
                                d.end_trial,
                                d.outcome,
                                dash(d.reason),
                                d.updated_at,
                                std::to_string(d.boots),
                                std::to_string(d.cuts),
                                std::to_string(d.drops),
                                std::to_string(d.rollbacks),
                                d.kept,
                                dash(escape_field(d.said))};
  std::string line;
  for (auto& x : f) line += (line.empty() ? "" : "\t") + x;
  return line;
}

std::optional<DeviceReport> parse_device_line(const std::string& line) {
  auto f = tab_fields(line);
  if (f.size() != std::size(kDeviceColumns) || f[0] == "device") return std::nullopt;
  DeviceReport d;
  d.index = number(f[0]);
  d.start.version = number(f[1]);
  d.start.keygen = number(f[2]);
  d.start.build = number(f[3]);
  d.start.spare = f[4] == "yes";
  d.start.free_blocks = number(f[5]);
  d.start.trial = f[6];
  d.start.automatic = f[7];
  d.end_version = number(f[8]);
  d.end_keygen = number(f[9]);
  d.end_build = number(f[10]);
  d.end_trial = f[11];
  d.outcome = f[12];
  d.reason = undash(f[13]);
  d.updated_at = f[14];
  d.boots = number(f[15]);
  d.cuts = number(f[16]);
  d.drops = number(f[17]);
  d.rollbacks = number(f[18]);
  d.kept = f[19];
  d.said = unescape_field(undash(f[20]));
  return d;
}

std::vector<std::pair<std::string, std::string>> run_lines(const FleetParams& p, const Release& r, const Mix& m) {
  std::vector<std::pair<std::string, std::string>> l = {
      {"devices", std::to_string(p.devices)},
      {"rounds", std::to_string(p.rounds)},
      {"seed", std::to_string(p.seed)},
      {"power-cut", format_share_ppm(p.power_cut_ppm)},
      {"fetch-fail", format_share_ppm(p.fetch_fail_ppm)},
      {"package-version", std::to_string(r.version)},
      {"package-catalog-sha256", r.catalog_sha256},
      {"newest-key-generation", std::to_string(r.newest_generation)},
      {"system-build", r.has_system ? std::to_string(r.build) : "none"},
  };
  if (r.has_system) {
    l.push_back({"system-commit", r.commit});
    l.push_back({"system-min-from", std::to_string(r.min_from)});
    l.push_back({"system-catalog-sha256", r.system_catalog_sha256});
  }
  l.push_back({"trusted-key-sha256", sha256_hex(read_host_file(p.trusted_key_file).value_or(""))});
  l.push_back({"spare-key-sha256",
               p.spare_key_file.empty() ? "none" : sha256_hex(read_host_file(p.spare_key_file).value_or(""))});
  for (auto& line : format_mix(m)) l.push_back({"mix", line});
  return l;
}

namespace {

std::string format_run(const Results& r) {
  std::string s;
  for (auto& [k, v] : r.run) s += k + "\t" + v + "\n";
  return s;
}

std::string format_devices(const Results& r) {
  std::string s = device_header() + "\n";
  for (auto& d : r.devices) s += format_device_line(d) + "\n";
  return s;
}

std::string format_requests(const Results& r) {
  std::string s = "path\trequests\trange_requests\tfailed\tbytes\n";
  for (auto& [path, t] : r.traffic)
    s += path + "\t" + std::to_string(t.requests) + "\t" + std::to_string(t.range_requests) + "\t" +
         std::to_string(t.failed) + "\t" + std::to_string(t.bytes) + "\n";
  return s;
}

std::string format_rollout(const Results& r, uint64_t abstand) {
  std::string s = "round\thours\tkind\tvalue\tdevices\n";
  for (auto& [k, n] : r.rollout)
    s += std::to_string(k.sample) + "\t" + decimal(static_cast<double>(k.sample * abstand) / 3600.0, 2) + "\t" +
         k.kind + "\t" + k.value + "\t" + std::to_string(n) + "\n";
  return s;
}

// Hours after which a share of the fleet ran the release, from the devices' updated_at.
std::string time_to_reach(const Results& r, double share) {
  std::vector<double> at;
  for (auto& d : r.devices)
    if (d.updated_at != "-") at.push_back(std::stod(d.updated_at));
  std::sort(at.begin(), at.end());
  size_t needed = static_cast<size_t>(share * static_cast<double>(r.devices.size()) + 0.999999);
  if (needed == 0) needed = 1;
  if (at.size() < needed) return "not within the rounds";
  std::string h = decimal(at[needed - 1], 2);
  while (h.back() == '0') h.pop_back();
  if (h.back() == '.') h.pop_back();
  return "after " + h + " h";
}

std::string format_summary(const Results& r) {
  uint64_t devices = r.devices.size();
  uint64_t rounds = number(lookup(r, "rounds", "0"));
  uint64_t abstand = mix_setting(r, "abstand", 3600);
  std::ostringstream o;
  o << "# Fleet rehearsal\n\n";
  std::string shard = lookup(r, "shard");
  if (!shard.empty()) o << "Shard " << shard << " of the fleet: the devices whose index is " << shard.substr(0, shard.find('/'))
                        << " modulo " << shard.substr(shard.find('/') + 1) << ".\n\n";
  o << "- Release: package version " << lookup(r, "package-version") << " (catalog sha256 "
    << lookup(r, "package-catalog-sha256").substr(0, 16) << "...)";
  if (lookup(r, "system-build") != "none")
    o << ", system build " << lookup(r, "system-build") << " commit " << lookup(r, "system-commit") << ", min_from "
      << lookup(r, "system-min-from");
  o << "; newest key generation " << lookup(r, "newest-key-generation") << ".\n";
  o << "- Fleet: " << lookup(r, "devices") << " devices, " << rounds << " rounds of " << abstand << " s ("
    << decimal(static_cast<double>(rounds * abstand) / 3600.0, 1) << " h of virtual time), seed " << lookup(r, "seed")
    << ".\n";
  o << "- Faults: a power cut in a share of " << lookup(r, "power-cut") << " of the commands, a failing download in "
    << lookup(r, "fetch-fail") << " of the fetches.\n\n";

  std::map<std::string, uint64_t> counts;
  for (auto& d : r.devices) counts[d.outcome]++;
  o << "## Outcomes\n\n| Outcome | Devices | Share | What it means |\n|---|---:|---:|---|\n";
  for (auto& m : kMeanings)
    o << "| " << m.outcome << " | " << counts[m.outcome] << " | " << percent(counts[m.outcome], devices) << " | "
      << m.meaning << " |\n";
  o << "\nOn the release: half of the devices " << time_to_reach(r, 0.5) << ", 90% " << time_to_reach(r, 0.9) << ", 99% "
    << time_to_reach(r, 0.99) << ".\n\n";

  // Reasons in the order of the outcomes, then by the number of devices.
  struct Why {
    uint64_t devices = 0;
    std::string said;  // of the first device with it
  };
  std::map<std::pair<std::string, std::string>, Why> why;
  for (auto& d : r.devices) {
    if (d.reason.empty()) continue;
    Why& w = why[{d.outcome, d.reason}];
    if (w.devices++ == 0) w.said = d.said;
  }
  o << "## Why devices are not on the release\n\n";
  if (why.empty()) {
    o << "Every device ends on the release.\n\n";
  } else {
    o << "| Outcome | Reason | Devices | What the first of them said |\n|---|---|---:|---|\n";
    for (auto& m : kMeanings) {
      std::vector<std::pair<std::string, Why>> rows;
      for (auto& [key, w] : why)
        if (key.first == m.outcome) rows.push_back({key.second, w});
      std::stable_sort(rows.begin(), rows.end(),
                       [](const auto& a, const auto& b) { return a.second.devices > b.second.devices; });
      for (auto& [reason, w] : rows) {
        std::string said = w.said;
        std::replace(said.begin(), said.end(), '|', '/');
        o << "| " << m.outcome << " | " << reason << " | " << w.devices << " | " << said << " |\n";
      }
    }
    o << "\n";
  }

  o << "## Devices kept for inspection\n\n";
  bool any = false;
  for (auto& d : r.devices) {
    if (d.kept == "-") continue;
    if (!any) o << "| Device | Outcome | Directory | Why |\n|---|---|---|---|\n";
    any = true;
    std::string said = d.said;
    std::replace(said.begin(), said.end(), '|', '/');
    o << "| " << six_digits(d.index) << " | " << d.outcome << " | " << d.kept << " | " << said << " |\n";
  }
  if (!any) o << "None: every device ended in its starting or its release state and could start.\n";
  o << "\n";

  Traffic total;
  for (auto& [path, t] : r.traffic) {
    total.requests += t.requests;
    total.range_requests += t.range_requests;
    total.failed += t.failed;
    total.bytes += t.bytes;
  }
  double device_rounds = static_cast<double>(devices * rounds);
  o << "## Traffic\n\n";
  o << "Served by nginx, from its access log (requests.tsv). Per device and round: "
    << decimal(device_rounds ? static_cast<double>(total.requests) / device_rounds : 0, 3) << " requests, "
    << decimal(device_rounds ? static_cast<double>(total.bytes) / device_rounds : 0, 0) << " bytes.\n\n";
  o << "| File | Requests | Range requests | Failed | Bytes | Requests per device and round | Bytes per device and round |\n"
       "|---|---:|---:|---:|---:|---:|---:|\n";
  for (auto& [path, t] : r.traffic)
    o << "| " << path << " | " << t.requests << " | " << t.range_requests << " | " << t.failed << " | " << t.bytes
      << " | " << decimal(device_rounds ? static_cast<double>(t.requests) / device_rounds : 0, 4) << " | "
      << decimal(device_rounds ? static_cast<double>(t.bytes) / device_rounds : 0, 1) << " |\n";
  o << "| all | " << total.requests << " | " << total.range_requests << " | " << total.failed << " | " << total.bytes
    << " | " << decimal(device_rounds ? static_cast<double>(total.requests) / device_rounds : 0, 4) << " | "
    << decimal(device_rounds ? static_cast<double>(total.bytes) / device_rounds : 0, 1) << " |\n\n";

  uint64_t boots = 0, cuts = 0, drops = 0, cut_devices = 0, rollbacks = 0, rolled_devices = 0;
  for (auto& d : r.devices) {
    boots += d.boots;
    cuts += d.cuts;
    drops += d.drops;
    cut_devices += d.cuts > 0;
    rollbacks += d.rollbacks;
    rolled_devices += d.rollbacks > 0;
  }
  o << "## Faults, starts and rollbacks\n\n- Machine starts: " << boots << ".\n- Power cuts: " << cuts << ", on "
    << cut_devices << " devices.\n- Downloads that broke off: " << drops << ".\n- System trials rolled back: " << rollbacks
    << ", on " << rolled_devices << " devices.\n\n";

  o << "## Starting mix\n\n```\n";
  for (auto& [k, v] : r.run)
    if (k == "mix") o << v << "\n";
  o << "```\n";
  return o.str();
}

// The picture: devices per package version (and per system build) over virtual time.
void draw_rollout(const std::string& out, const Results& r) {
  uint64_t abstand = mix_setting(r, "abstand", 3600);
  uint64_t rounds = number(lookup(r, "rounds", "0"));
  bool system = lookup(r, "system-build", "none") != "none";
  std::vector<std::string> kinds = {"version"};
  if (system) kinds.push_back("build");
  std::ostringstream g;
  g << "set terminal pngcairo size 1000," << (system ? 800 : 450) << " font 'sans,10'\n";
  g << "set output 'rollout.png'\n";
  g << "set multiplot layout " << kinds.size() << ",1\n";
  g << "set rmargin at screen 0.8\n";
  g << "set grid\nset key outside right top\nset xlabel 'virtual time (hours)'\nset ylabel 'devices'\n";
  g << "set xrange [0:" << decimal(static_cast<double>(rounds * abstand) / 3600.0, 2) << "]\n";
  g << "set yrange [0:" << decimal(static_cast<double>(std::max<size_t>(1, r.devices.size())) * 1.05, 2) << "]\n";
  for (auto& kind : kinds) {
    std::string release = lookup(r, kind == "version" ? "package-version" : "system-build");
    std::vector<std::string> values;
    for (auto& [k, n] : r.rollout)
      if (k.kind == kind && std::find(values.begin(), values.end(), k.value) == values.end()) values.push_back(k.value);
    std::sort(values.begin(), values.end(), value_less);
    std::reverse(values.begin(), values.end());  // the newest first in the key
    g << "$" << kind << " << EOD\nhours";
    for (auto& v : values) g << " \"" << v << (v == release ? " (release)" : "") << "\"";
    g << "\n";
    // The state at the end of a round is drawn over that round: what a round changes,
    // its first pass changes at the round's start. The starting state is the first row.
    auto row = [&](double hours, uint64_t s) {
      g << decimal(hours, 2);
      for (auto& v : values) {
        auto it = r.rollout.find({s, kind, v});
        g << " " << (it == r.rollout.end() ? 0 : it->second);
      }
      g << "\n";
    };
    row(0, 0);
    for (uint64_t s = 1; s <= rounds; s++) row(static_cast<double>((s - 1) * abstand) / 3600.0, s);
    row(static_cast<double>(rounds * abstand) / 3600.0, rounds);
    g << "EOD\n";
    g << "set title '" << (kind == "version" ? "Devices per package version" : "Devices per system build") << "'\n";
    if (values.empty()) g << "plot 0 notitle\n";
    else g << "plot for [i=2:" << values.size() + 1 << "] $" << kind << " using 1:i with steps lw 2 title columnheader(i)\n";
  }
  g << "unset multiplot\n";
  std::string script = out + "/.rollout.gp";
  write_host_file(script, g.str());
  ToolRun run;
  run.argv = {"gnuplot", ".rollout.gp"};
  run.cwd = out;
  std::string err;
  run.err = &err;
  int rc = run_tool(run);
  remove_host_tree(script);
  if (rc != 0) throw SimError("gnuplot could not draw rollout.png: " + (err.empty() ? "exit " + std::to_string(rc) : err));
}

}  // namespace

void write_results(const std::string& out, const Results& r) {
  uint64_t abstand = mix_setting(r, "abstand", 3600);
  write_host_file(out + "/run.tsv", format_run(r));
  write_host_file(out + "/devices.tsv", format_devices(r));
  write_host_file(out + "/requests.tsv", format_requests(r));
  write_host_file(out + "/rollout.tsv", format_rollout(r, abstand));
  write_host_file(out + "/summary.md", format_summary(r));
  draw_rollout(out, r);
}

Results read_results(const std::string& out) {
  Results r;
  auto need = [&](const char* name) {
    auto text = read_host_file(out + "/" + name);
    if (!text) throw SimError("cannot read " + out + "/" + name + ": not the output of tavi-sim fleet");
    return *text;
  };
  for (auto& line : text_lines(need("run.tsv"))) {
    size_t t = line.find('\t');
    if (t == std::string::npos) continue;
    r.run.push_back({line.substr(0, t), line.substr(t + 1)});
  }
  for (auto& line : text_lines(need("devices.tsv"))) {
    if (line.empty()) continue;
    auto d = parse_device_line(line);
    if (d) r.devices.push_back(*d);
    else if (line != device_header()) throw SimError(out + "/devices.tsv: not a device line: " + line);
  }
  for (auto& line : text_lines(need("requests.tsv"))) {
    auto f = tab_fields(line);
    if (f.size() != 5 || f[0] == "path") continue;
    Traffic& t = r.traffic[f[0]];
    t.requests += number(f[1]);
    t.range_requests += number(f[2]);
    t.failed += number(f[3]);
    t.bytes += number(f[4]);
  }
  for (auto& line : text_lines(need("rollout.tsv"))) {
    auto f = tab_fields(line);
    if (f.size() != 5 || f[0] == "round") continue;
    r.rollout[{number(f[0]), f[2], f[3]}] += number(f[4]);
  }
  return r;
}

}  // namespace tavisim::fleet
