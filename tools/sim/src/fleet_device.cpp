// One device of a fleet through its life: made in the state the mix drew, then round by
// round its owner's restarts and system applies, the service loop's passes with their
// pauses, power cuts and dropping links, and at the end what it runs and why.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "fleet.h"
#include "host.h"
#include "tavisim/boot.h"
#include "tavisim/device.h"
#include "tavisim/esp.h"
#include "trial_record.h"

namespace tavisim::fleet {

namespace {

constexpr uint64_t kBlockSize = 4096;
// The desktop of every device comes up this long after each start of a healthy kernel.
constexpr int kDesktopSlot = 2;
constexpr double kDesktopAppears = 25;
// The start-up check waits at most 120 s (frist= and gesund= are left at their defaults).
// The start-up entry runs one second longer and is then stopped, before the service loop
// it goes on as would make its first pass (start= is 180 s); the fleet runs the passes.
constexpr double kBootWindowSeconds = 121;
// Starts in a row within one round while the start-up check keeps restarting the machine:
// enough for the kernel to count its three tries and fall back to entry 1.
constexpr int kStartsPerRound = 5;
// Real time one command may take before the simulator ends it; far beyond any normal run.
constexpr double kWallSeconds = 600;
// The service loop's back-off after passes that could not load the catalog.
constexpr uint64_t kFirstPauseSeconds = 30;
constexpr int kPauseDoublings = 4;
constexpr int kStreakLimit = 20;
// The smallest ESP image; larger kernels get room for slots A and B and a spare copy.
constexpr uint64_t kMinimumEspKiB = 4096;

const char* kMenu =
    "timeout: 5\ndefault_entry: 1\n\n/tavi\n    protocol: multiboot1\n    path: boot():/tavi.mb\n"
    "    cmdline: tavi\n";

// A number file as the device reads it: eight digits, else 0.
uint64_t number_file(const Device& d, const char* path) {
  auto text = d.read_file(path);
  if (!text || text->size() < 8) return 0;
  uint64_t v = 0;
  for (size_t i = 0; i < 8; i++) {
    char c = (*text)[i];
    if (c < '0' || c > '9') return 0;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  return v;
}

std::string record_value(const std::string& text, const std::string& key) {
  size_t p = text.find(key);
  if (p == std::string::npos) return "";
  p += key.size();
  size_t e = text.find('\n', p);
  return text.substr(p, e == std::string::npos ? std::string::npos : e - p);
}

std::string hours_text(int64_t ms) {
  char buf[32];
  snprintf(buf, sizeof buf, "%.2f", static_cast<double>(ms) / 3600000.0);
  std::string s = buf;
  while (s.back() == '0') s.pop_back();
  if (s.back() == '.') s.pop_back();
  return s;
}

// An ESP image as its non-zero blocks: a fresh FAT image is mostly zeros, so this keeps
// little in memory and writes a sparse file that costs no disk for the rest.
struct SparseImage {
  static constexpr size_t kBlock = 4096;
  size_t size = 0;
  std::vector<std::pair<size_t, std::string>> blocks;  // offset, bytes

  static SparseImage of(const std::string& bytes) {
    SparseImage s;
    s.size = bytes.size();
    for (size_t off = 0; off < bytes.size(); off += kBlock) {
      size_t n = std::min(kBlock, bytes.size() - off);
      const char* p = bytes.data() + off;
      if (!std::all_of(p, p + n, [](char c) { return c == 0; })) s.blocks.push_back({off, std::string(p, n)});
    }
    return s;
  }

  void write(const std::string& path) const {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw SimError("cannot write " + path);
    bool ok = true;
    for (auto& [off, bytes] : blocks)
      ok = ok && pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(off)) == static_cast<ssize_t>(bytes.size());
    ok = ok && ftruncate(fd, static_cast<off_t>(size)) == 0;
    close(fd);
    if (!ok) throw SimError("cannot write " + path);
  }
};

// The commit name of a build the fleet makes up for a device's starting kernel.
std::string made_up_commit(uint64_t build) { return sha256_hex("tavi build " + std::to_string(build)).substr(0, 10); }

std::string package_url(int port) { return "http://127.0.0.1:" + std::to_string(port) + "/aktuell"; }
std::string system_url(int port) { return "http://127.0.0.1:" + std::to_string(port) + "/system/stable"; }

// Calibration and fleet devices are made the same way.
class Life {
 public:
  Life(const LifeContext& c, uint64_t index, const std::string& dir, StartState start)
      : c_(c), p_(*c.params), rel_(*c.release), mix_(*c.mix), index_(index), dir_(dir), start_(std::move(start)),
        draws_(p_.seed, index, 2), calls_(c.calls) {}

  // Makes the device directory and puts the device in its starting state.
  Device make() {
    remove_host_tree(dir_);
    make_host_dirs(dir_);
    InitOptions init;
    init.ota_binary = p_.ota_binary;
    init_device(dir_, init);
    Device d = Device::open(dir_);
    esp_image(start_.build).write(d.disk_image("sda1"));

    Config& cfg = d.config();
    cfg.fetch_curl = false;  // the starting state is prepared without the server
    cfg.repos = {{package_url(c_.port), rel_.package_dir}};
    if (rel_.has_system) cfg.repos.push_back({system_url(c_.port), rel_.system_dir});
    cfg.tasks.clear();
    TaskSpec desktop;
    desktop.slot = kDesktopSlot;
    desktop.name = "desktop";
    desktop.appear_ns = static_cast<int64_t>(kDesktopAppears * 1e9);
    cfg.tasks.push_back(desktop);
    cfg.free_blocks = start_.free_blocks;
    cfg.block_size = kBlockSize;
    d.save_config();

    std::string conf = "quelle=" + package_url(c_.port) + "\nname=fleet-" + six_digits(index_) + "\nabstand=" +
                       std::to_string(mix_.abstand) + "\nsysabstand=" + std::to_string(mix_.sysabstand) +
                       "\nauto=" + start_.automatic + "\n";
    d.write_file("/etc/ota.conf", conf);
    std::string trusted = start_.key_file.empty() ? p_.trusted_key_file : start_.key_file;
    d.write_file("/system/schluessel.pub", must_read(trusted));
    if (start_.keygen) d.write_file("/system/SCHLUESSELGEN", eight_digits(start_.keygen) + "\n");
    if (start_.spare) d.write_file("/system/ersatz.pub", must_read(p_.spare_key_file));
    if (start_.version) d.write_file("/system/FASSUNG", eight_digits(start_.version) + "\n");
    if (start_.build) d.write_file("/system/SYSVERSION", eight_digits(start_.build) + "\n");
    // A device on the release's build has its overlay files already.
    if (rel_.has_system && start_.build == rel_.build) {
      for (auto& f : rel_.overlay) {
        bool program = f.path.rfind("/bin/", 0) == 0 ||
                       (f.path.size() > 6 && f.path.compare(f.path.size() - 6, 6, "/start") == 0);
        d.write_file(f.path, must_read(rel_.system_dir + "/" + f.name), program ? 0755 : 0644);
      }
    }
    KernelImage k = read_kernel_image(slot_a_kernel(start_.build));
    d.write_file("/proc/version", "tavi " + k.build + " build " + k.commit + " (tavi-sim stand-in kernel)\n");

    // The installer's own record: the packages at the device's version. A device on the
    // release has them at the versions of its INDEX; any other has older ones.
    std::string installed, before;
    for (auto& [name, word] : rel_.packages) {
      installed += name + "\t" + (start_.version == rel_.version ? word : "fleet-" + std::to_string(start_.version)) + "\n";
      before += name + "\tfleet-before\n";
    }
    uint64_t generation = 2;
    d.write_file("/system/tpk/installed", installed);
    if (start_.trial == "open") {
      // The device applied its version before the rehearsal and waits for its restart.
      d.write_file("/system/tpk/gen/" + eight_digits(generation), before);
      generation++;
      d.write_file(kTrialRecordPath, open_trial_record(generation, generation - 1));
      d.write_file("/system/ota.stand", "dort=" + std::to_string(start_.version) + "\nhier=" +
                                            std::to_string(start_.version) + "\nzeit=2026-02-03 09:05\nphase=bereit\n");
      waiting_restart_ = true;
    }
    d.write_file("/system/AKTUELL", eight_digits(generation) + "\n");
    if (start_.trial == "system") {
      // The owner applied the system release before the rehearsal: the real apply stages it.
      RunOptions o;
      o.wall_seconds = kWallSeconds;
      RunResult r = d.run({"system", "apply"}, o);
      if (!r.error.empty()) throw SimError("preparing a staged system update: " + r.error);
      waiting_restart_ = r.out.find("system: staged in slot B") != std::string::npos;
    }
    start_.trial = trial_state(d);

    cfg.fetch_curl = true;
    cfg.fetch_drop_ppm = p_.fetch_fail_ppm;
    cfg.fetch_drop_seed = mix64(mix64(p_.seed, index_), 3);
    d.save_config();
    return d;
  }

  DeviceReport live(Device& d) {
    DeviceReport rep;
    rep.index = index_;
    rep.start = start_;
    int64_t t0 = d.virtual_ms();
    int64_t round_ms = static_cast<int64_t>(mix_.abstand) * 1000;
    next_system_ms_ = rel_.has_system && mix_.sysabstand ? t0 : INT64_MAX;
    rep.timeline.push_back(sample(d));
    if (on_release(d)) rep.updated_at = "0";
    for (uint64_t round = 0; round < p_.rounds; round++) {
      int64_t begin = t0 + static_cast<int64_t>(round) * round_ms;
      int64_t end = begin + round_ms;
      advance_to(d, begin);
      if (!stuck_.empty()) {
        rep.timeline.push_back(sample(d));
        continue;
      }
      if (powered_off_ || (waiting_restart_ && draws_.chance(mix_.restart_ppm))) start_machine(d, rep);
      if (stuck_.empty() && !powered_off_ && rel_.has_system && system_announced(d) &&
          trial_state(d) == "none" && draws_.chance(mix_.system_apply_ppm))
        system_apply(d, rep);
      if (stuck_.empty() && !powered_off_) service(d, rep, end);
      rep.timeline.push_back(sample(d));
      if (rep.updated_at == "-" && on_release(d)) rep.updated_at = hours_text(end - t0);
    }
    finish(d, rep);
    return rep;
  }

 private:
  std::string must_read(const std::string& path) {
    auto text = read_host_file(path);
    if (!text) throw SimError("cannot read " + path);
    return *text;
  }

  std::string slot_a_kernel(uint64_t build) {
    if (rel_.has_system && build == rel_.build) return must_read(rel_.system_dir + "/" + rel_.kernel_file);
    return stand_in_kernel(build, made_up_commit(build));
  }

  // ESP images are made once per build and copied: mkfs and mtools cost more than a copy.
  const SparseImage& esp_image(uint64_t build) {
    static std::map<uint64_t, SparseImage> made;
    auto it = made.find(build);
    if (it != made.end()) return it->second;
    uint64_t kib = std::max(kMinimumEspKiB, rel_.kernel_bytes * 3 / 1024 + 2048);
    std::string image = dir_ + "/disks/template.img";
    make_host_dirs(dir_ + "/disks");
    make_fat_image(image, {{"limine.conf", kMenu}, {"tavi.mb", slot_a_kernel(build)}}, static_cast<unsigned>(kib));
    SparseImage sparse = SparseImage::of(must_read(image));
    remove_host_tree(image);
    return made[build] = std::move(sparse);
  }

  static std::string trial_state(const Device& d) {
    auto pending = d.read_file("/system/SYSPENDING");
    if (pending && !pending->empty()) return "system";
    if (trial_open(d.read_file(kTrialRecordPath))) return "open";
    return "none";
  }

  static bool system_announced(const Device& d) {
    return record_value(d.read_file("/system/sys.stand").value_or(""), "phase=") == "available";
  }

  bool on_release(const Device& d) const {
    if (number_file(d, "/system/FASSUNG") != rel_.version) return false;
    if (rel_.has_system && number_file(d, "/system/SYSVERSION") != rel_.build) return false;
    return trial_state(d) == "none";
  }

  Sample sample(const Device& d) const {
    Sample s;
    s.down = !stuck_.empty();
    s.version = number_file(d, "/system/FASSUNG");
    s.build = number_file(d, "/system/SYSVERSION");
    return s;
  }

  static void advance_to(Device& d, int64_t ms) {
    int64_t now = d.virtual_ms();
    if (ms > now) d.advance_clock(static_cast<double>(ms - now) / 1000.0);
  }

  // A power cut for this command, or none; it falls on a call drawn from the calls the
  // same kind of command made last time.
  std::optional<Cut> draw_cut(uint64_t typical_calls) {
    if (!draws_.chance(p_.power_cut_ppm)) return std::nullopt;
    Cut cut;
    cut.at_call = draws_.between_one_and(typical_calls);
    cut.durability = Durability::synced;
    return cut;
  }

  RunOptions options(double virtual_seconds, uint64_t typical_calls) {
    RunOptions o;
    o.wall_seconds = kWallSeconds;
    o.virtual_seconds = virtual_seconds;
    o.trace_calls = true;
    o.cut = draw_cut(typical_calls);
    return o;
  }

  // Notes what the command said and what happened to it; false when power was cut.
  bool took(const RunResult& r, DeviceReport& rep, uint64_t& typical_calls) {
    if (!r.error.empty()) throw SimError(r.error);
    for (auto& e : r.events)
      if (e.kind == "fault" && e.fields.size() > 2 && e.fields[0] == "fetch" && e.fields[2] == "drop") rep.drops++;
    heard_.listen(r.out);
    heard_.listen(r.err);
    if (r.cut) {
      rep.cuts++;
      powered_off_ = true;
      return false;
    }
    typical_calls = std::max<uint64_t>(1, r.calls.size());
    return true;
  }

  void start_machine(Device& d, DeviceReport& rep) {
    for (int start = 0; start < kStartsPerRound; start++) {
      BootOptions o;
      o.run = options(kBootWindowSeconds, calls_.boot);
      BootResult b = d.boot(o);
      rep.boots++;
      if (!b.booted) {
        stuck_ = b.stuck;
        return;
      }
      if (!took(b.start_entry, rep, calls_.boot)) return;
      powered_off_ = false;
      waiting_restart_ = false;
      streak_ = 0;
      // A new service loop looks for a system update in its first pass.
      if (next_system_ms_ != INT64_MAX) next_system_ms_ = d.virtual_ms();
      if (!b.start_entry.rebooted) return;
    }
    powered_off_ = true;  // still restarting: the next round starts it again
  }

  void system_apply(Device& d, DeviceReport& rep) {
    RunResult r = d.run({"system", "apply"}, options(3600, calls_.system_apply));
    if (!took(r, rep, calls_.system_apply)) return;
    if (r.out.find("system: staged in slot B") != std::string::npos) waiting_restart_ = true;
  }

  // The service loop through one round: a pass, then the pause the loop takes, and more
  // passes while the pauses end within the round.
  void service(Device& d, DeviceReport& rep, int64_t round_end) {
    for (;;) {
      int64_t now = d.virtual_ms();
      std::vector<std::string> words = {"service", "1"};
      bool system = now >= next_system_ms_;
      if (system) words.push_back("system");
      RunResult r = d.run(words, options(3600, calls_.service));
      if (!took(r, rep, calls_.service)) return;
      if (r.out.find("ota: automatic search is OFF") != std::string::npos) {
        automatic_off_ = true;
        return;
      }
      if (system) {
        bool too_old = r.out.find("ota: this system is too old") != std::string::npos;
        next_system_ms_ = too_old ? now : now + static_cast<int64_t>(mix_.sysabstand) * 1000;
      }
      if (record_value(d.read_file("/system/ota.stand").value_or(""), "phase=") == "bereit") waiting_restart_ = true;
      bool reached = r.out.find("ota: version there ") != std::string::npos ||
                     r.out.find("ota: VERSION BLOCKED") != std::string::npos;
      uint64_t pause = mix_.abstand;
      if (reached || streak_ >= kStreakLimit) {
        streak_ = 0;
      } else {
        pause = std::min<uint64_t>(kFirstPauseSeconds << std::min(streak_, kPauseDoublings), mix_.abstand);
        streak_++;
      }
      int64_t next = now + static_cast<int64_t>(pause) * 1000;
      if (next >= round_end) return;
      advance_to(d, next);
    }
  }

  void finish(Device& d, DeviceReport& rep) {
    rep.rollbacks = heard_.rollbacks;
    rep.end_version = number_file(d, "/system/FASSUNG");
    rep.end_keygen = number_file(d, "/system/SCHLUESSELGEN");
    rep.end_build = number_file(d, "/system/SYSVERSION");
    rep.end_trial = trial_state(d);
    auto outcome = [&](const char* o, const std::string& reason = "", const std::string& said = "") {
      rep.outcome = o;
      rep.reason = reason;
      rep.said = said;
    };
    if (!stuck_.empty()) return outcome("cannot-boot", "stands-at-boot-loader", stuck_);
    std::string outside = outside_states(d, rep);
    if (!outside.empty()) return outcome("outside", "outside-old-and-new", outside);
    bool on = on_release(d);
    bool started_on = start_.version == rel_.version && (!rel_.has_system || start_.build == rel_.build) &&
                      start_.trial == "none";
    if (on) return outcome(started_on ? "current" : "updated");
    if (rep.end_trial != "none") {
      if (waiting_restart_)
        return outcome("needs-person", "waits-for-restart", "the device waits for its owner to restart it");
      return outcome("in-trial", rep.end_trial == "open" ? "package-trial-open" : "system-trial-pending");
    }
    if (automatic_off_) return outcome("needs-person", "automatic-search-off", "ota: automatic search is OFF");
    if (!heard_.refusal.reason.empty()) return outcome("refused", heard_.refusal.reason, heard_.refusal.words);
    if (rel_.has_system && rep.end_build != rel_.build && !heard_.person.reason.empty())
      return outcome("needs-person", heard_.person.reason, heard_.person.words);
    if (rel_.has_system && rep.end_build != rel_.build && system_announced(d))
      return outcome("needs-person", "system-update-not-applied", "the owner did not apply the announced system update");
    if (!heard_.trouble.reason.empty()) return outcome("behind", heard_.trouble.reason, heard_.trouble.words);
    return outcome("behind", "not-reached", "no pass reached the release within the rounds");
  }

  // Empty when every part of the device is in its starting or its release state.
  std::string outside_states(Device& d, const DeviceReport& rep) {
    auto either = [](const char* what, uint64_t v, uint64_t from, uint64_t to) -> std::string {
      if (v == from || v == to) return "";
      return std::string(what) + " " + std::to_string(v) + " is neither the starting " + std::to_string(from) +
             " nor the release's " + std::to_string(to);
    };
    std::string why = either("version", rep.end_version, start_.version, rel_.version);
    if (why.empty()) why = either("key generation", rep.end_keygen, start_.keygen,
                                  std::max(rel_.newest_generation, start_.keygen));
    if (why.empty() && rel_.has_system) why = either("system build", rep.end_build, start_.build, rel_.build);
    if (!why.empty() || rep.end_trial == "system") return why;
    // Outside a system trial, no overlay change is under way, the build's overlay files are
    // there exactly when the build is, and slot A holds the kernel of the installed build.
    if (d.exists("/system/SYSOVL")) return "an overlay journal is left without a system trial";
    for (auto& f : rel_.overlay) {
      auto bytes = d.read_file(f.path);
      if (rep.end_build == rel_.build && (!bytes || sha256_hex(*bytes) != f.sha256))
        return f.path + " is not the file of build " + std::to_string(rel_.build);
      if (rep.end_build != rel_.build && d.exists(f.path))
        return f.path + " of build " + std::to_string(rel_.build) + " is there on build " + std::to_string(rep.end_build);
    }
    auto slot_a = d.esp_read("sda1", "tavi.mb");
    KernelImage k = read_kernel_image(slot_a.value_or(""));
    if (!k.valid) return "slot A holds no kernel that starts";
    if (k.build != std::to_string(rep.end_build))
      return "slot A holds build " + k.build + " but /system/SYSVERSION says " + std::to_string(rep.end_build);
    return "";
  }

  const LifeContext& c_;
  const FleetParams& p_;
  const Release& rel_;
  const Mix& mix_;
  uint64_t index_;
  std::string dir_;
  StartState start_;
  Draws draws_;
  CallCounts calls_;
  bool waiting_restart_ = false;
  bool powered_off_ = false;
  bool automatic_off_ = false;
  std::string stuck_;
  int streak_ = 0;
  int64_t next_system_ms_ = INT64_MAX;
  Heard heard_;
};

}  // namespace

DeviceReport live_device(const LifeContext& c, uint64_t index) {
  std::string rel_dir = "devices/" + six_digits(index);
  std::string dir = c.scratch + "/" + rel_dir;
  StartState start = draw_start(*c.mix, c.params->seed, index);
  DeviceReport rep;
  bool keep = false;
  try {
    Life life(c, index, dir, start);
    Device d = life.make();
    rep = life.live(d);
    keep = rep.outcome == "cannot-boot" || rep.outcome == "outside";
  } catch (const std::exception& e) {
    rep = DeviceReport{};
    rep.index = index;
    rep.start = start;
    rep.outcome = "error";
    rep.reason = "simulator-failed";
    rep.said = e.what();
    keep = true;
  }
  if (keep) {
    std::string to = c.params->out + "/" + rel_dir;
    make_host_dirs(parent_of(to));
    ToolRun copy;
    copy.argv = {"cp", "-a", dir, to};
    if (run_tool(copy) == 0) rep.kept = rel_dir;
  }
  remove_host_tree(dir);
  return rep;
}

CallCounts calibrate(const FleetParams& p, const Release& r, const Mix& m, const std::string& work_dir) {
  // A device one version and one build behind that takes the whole release once, with
  // nothing going wrong, through the model fetch (no traffic on the server).
  FleetParams quiet = p;
  quiet.power_cut_ppm = 0;
  quiet.fetch_fail_ppm = 0;
  quiet.spare_key_file.clear();
  Mix sure = m;
  sure.restart_ppm = 1000000;
  sure.system_apply_ppm = 1000000;
  LifeContext c;
  c.params = &quiet;
  c.release = &r;
  c.mix = &sure;
  StartState s;
  s.version = r.version - 1;
  s.build = r.has_system ? std::max<uint64_t>(r.min_from, r.build > 1 ? r.build - 1 : 0) : 1;
  s.free_blocks = 1000000;
  Life life(c, 0, work_dir, s);
  Device d = life.make();
  Config& cfg = d.config();
  cfg.fetch_curl = false;
  d.save_config();
  CallCounts counts;
  RunOptions o;
  o.trace_calls = true;
  o.wall_seconds = kWallSeconds;
  RunResult pass = d.run({"service", "1", "system"}, o);
  if (!pass.error.empty()) throw SimError("the calibration device could not run ota: " + pass.error);
  counts.service = std::max<uint64_t>(counts.service, pass.calls.size());
  if (r.has_system) {
    RunResult apply = d.run({"system", "apply"}, o);
    counts.system_apply = std::max<uint64_t>(counts.system_apply, apply.calls.size());
  }
  BootOptions b;
  b.run = o;
  b.run.virtual_seconds = kBootWindowSeconds;
  BootResult started = d.boot(b);
  counts.boot = std::max<uint64_t>(counts.boot, started.start_entry.calls.size());
  remove_host_tree(work_dir);
  return counts;
}

}  // namespace tavisim::fleet
