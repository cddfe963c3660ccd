// Power loss at every system call of every command that changes a device for good: the
// package apply and the service round that applies by itself, catalogs that change the key
// (one step and two) or withdraw versions, the system apply with a new kernel and with the
// same one, in the foreground and as the background child, the start-up check after the
// restart into slot B, the confirmations and rollbacks of a package trial and of a system
// trial, `ota system confirm`, the filesystem growth and `ota set`. The program is ended at
// its k-th call, with either every write kept or only what the last sync made durable;
// then the machine starts again and runs its normal start-up. The device must boot, end in
// the old or the new state and never in a mix (at once, or after the one step a user
// takes), and take a later update.
//
// By default a fixed sample of cut points runs (see sample_points); TAVI_POWER_FULL=1 tries
// every index. TAVI_POWER_REPORT=FILE appends one line per cut point to FILE, and
// TAVI_POWER_VERBOSE=1 prints every line. scripts/robustness.sh runs the full matrix and
// writes the report.

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <set>

#include "life_support.h"
#include "tavi_abi.h"

namespace life {
namespace {

using tavisim::Cut;
using tavisim::Device;
using tavisim::Durability;

constexpr const char* kNextUrl = "http://updates.tavi.test/next/aktuell";
constexpr const char* kNextSystemUrl = "http://updates.tavi.test/next/system";

// The sample, chosen from an uncut run of the same road with its calls traced. With every
// write kept: the first call, every kAllStride-th call, the cut just after every call that
// changes what is on disk for good (rename, unlink, mount, umount2, the start of an outside
// program, which runs to its end inside the call, and a step of the filesystem growth) and
// the cuts just before and just after every sync. With only synced data kept the disk
// changes only at a sync, so the cuts just before and just after each sync stand for all
// the others, with every kSyncedStride-th call besides. Of these, at most kMostAll (or
// kMostSynced) per road are tried, spread evenly, so that the whole sample stays a short
// part of the test suite; scripts/robustness.sh tries every call. The later update is
// tried at every kLaterStride-th surviving cut point.
constexpr uint64_t kAllStride = 16;
constexpr uint64_t kSyncedStride = 64;
constexpr size_t kMostAll = 24;
constexpr size_t kMostSynced = 8;
constexpr uint64_t kLaterStride = 6;
constexpr int64_t kSync = 162;
constexpr int64_t kDurableCalls[] = {kSync, 82, 87, 165, 166, TAVI_SPAWN, TAVI_FS_GROW};
// A machine that restarts again and again (a start-up check that never sees a healthy
// start) is given this many starts before it counts as not surviving.
constexpr int kMostStarts = 6;
// Virtual seconds each start-up entry may run: the start-up check of a trial needs at most
// `frist` (120 s); outside a trial it goes on as the service, which has nothing to do here.
constexpr double kStartUpSeconds = 600;

// Every road that changes a device.
enum class Road {
  package_apply,
  service_round,
  key_change_one,
  key_change_two,
  blocked_versions,
  system_apply,
  system_apply_same_kernel,
  background_apply,
  boot_confirm,
  package_confirm,
  package_rollback,
  system_trial_confirm,
  system_trial_rollback,
  system_confirm,
  system_grow,
  set_setting,
};

// What names a road's state, and so how it is judged.
enum class Kind { packages, package_rollback, keys, blocked, system, grow, settings };

struct RoadInfo {
  Road road;
  const char* name;  // in reports and docs
  const char* id;    // in test names
  Kind kind;
};

constexpr RoadInfo kRoads[] = {
    {Road::package_apply, "ota apply", "PackageApply", Kind::packages},
    {Road::service_round, "ota service 1 (applies)", "ServiceRound", Kind::packages},
    {Road::key_change_one, "ota search (key change, one step)", "KeyChangeOneStep", Kind::keys},
    {Road::key_change_two, "ota search (key change, two steps)", "KeyChangeTwoSteps", Kind::keys},
    {Road::blocked_versions, "ota search (blocked versions)", "BlockedVersions", Kind::blocked},
    {Road::system_apply, "ota system apply", "SystemApply", Kind::system},
    {Road::system_apply_same_kernel, "ota system apply (same kernel)", "SystemApplySameKernel", Kind::system},
    {Road::background_apply, "ota system apply bg (the child)", "BackgroundApply", Kind::system},
    {Road::boot_confirm, "ota boot (confirmation)", "BootConfirm", Kind::system},
    {Road::package_confirm, "ota confirm (package trial)", "PackageConfirm", Kind::packages},
    {Road::package_rollback, "ota rollback (package trial)", "PackageRollback", Kind::package_rollback},
    {Road::system_trial_confirm, "ota confirm (system trial)", "SystemTrialConfirm", Kind::system},
    {Road::system_trial_rollback, "ota rollback (system trial)", "SystemTrialRollback", Kind::system},
    {Road::system_confirm, "ota system confirm", "SystemConfirm", Kind::system},
    {Road::system_grow, "ota system grow", "SystemGrow", Kind::grow},
    {Road::set_setting, "ota set", "Set", Kind::settings},
};

const RoadInfo& info(Road r) {
  for (const RoadInfo& i : kRoads)
    if (i.road == r) return i;
  return kRoads[0];
}
const char* road_name(Road r) { return info(r).name; }

const char* durability_name(Durability d) { return d == Durability::all ? "all" : "synced"; }

bool full_run() {
  const char* full = getenv("TAVI_POWER_FULL");
  return full != nullptr && *full == '1';
}

// One cut point's outcome.
struct Outcome {
  uint64_t k = 0;
  std::string call;     // the system call number of call k, the one that was not made
  std::string verdict;  // "old", "new", or why the device did not survive
  bool survived = false;
  std::string note;     // how it got there (the step a user took)
  std::string known;    // the known case of the design it is, when it did not survive
  bool later_tried = false;
  bool later_ok = false;
};

struct Matrix {
  Road road;
  Durability durability;
  uint64_t calls = 0;  // the calls the road makes when nothing cuts it
  std::vector<Outcome> outcomes;
  double seconds = 0;
};

std::string read_or(const Device& d, const std::string& path) { return d.read_file(path).value_or("<missing>"); }

bool trial_open(const Device& d) {
  auto r = d.read_file("/system/ERPROBUNG");
  return r && r->size() == 36 && (*r)[34] == '0';
}

// The value of the first default_entry line, as the boot loader reads it.
std::string menu_default(const std::string& menu) {
  size_t at = menu.find("default_entry:");
  if (at == std::string::npos) return "none";
  size_t end = menu.find('\n', at);
  std::string v = menu.substr(at + 14, end == std::string::npos ? std::string::npos : end - at - 14);
  while (!v.empty() && (v[0] == ' ' || v[0] == '\t')) v.erase(0, 1);
  while (!v.empty() && (v.back() == '\r' || v.back() == ' ')) v.pop_back();
  return v;
}

bool settled(const std::string& state) { return state == "old" || state == "new"; }

class PowerLoss : public LifeTest {
 protected:
  void SetUp() override {
    LifeTest::SetUp();
    if (HasFatalFailure()) return;
    next_packages_ = scratch("next-packages");
    next_system_ = scratch("next-system");
    device().add_repo(kNextUrl, next_packages_);
    device().add_repo(kNextSystemUrl, next_system_);
    before_ = first_;
  }

  void publish_system_to(const SystemBuild& b, const std::string& dir) {
    std::string saved = system_;
    system_ = dir;
    publish_system(b);
    system_ = saved;
  }

  // A key made by the publisher, and the key change from `signer` to it.
  void make_key(const std::string& name) { ASSERT_EQ(e2e::publish({"keygen", "--out", key(name)}).status, 0); }
  std::string chain(const std::string& signer, const std::string& to, int generation) {
    std::string out = work_ + "/chain-" + std::to_string(generation);
    e2e::ToolResult r = e2e::publish({"chain", "--signer", key(signer) + ".key", "--new", key(to) + ".pub",
                                      "--generation", std::to_string(generation), "--out", out, "--force"});
    EXPECT_EQ(r.status, 0) << r.output;
    return out;
  }

  // The device after `ota system apply`, restarted into slot B without its start-up entry:
  // the new kernel runs on trial and nothing has confirmed it yet.
  void stage_and_start_slot_b() {
    RunResult r = device().run({"system", "apply"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    BootResult b = restart(false);
    ASSERT_TRUE(b.booted) << b.stuck;
    ASSERT_EQ(b.kernel.build, "20260301");
  }

  // Brings the fixture's device to the moment before the road, and publishes what the road
  // and the later update need.
  void prepare(Road road) {
    switch (info(road).kind) {
      case Kind::packages:
      case Kind::package_rollback:
      case Kind::grow:
      case Kind::settings:
        publish_packages(2);
        publish_packages(3, {}, "release", next_packages_);
        break;
      case Kind::keys: {
        for (const char* k : {"k1", "k2", "k3"}) make_key(k);
        Words one = {"--chain", chain("release", "k1", 1)};
        Words two = one;
        two.insert(two.end(), {"--chain", chain("k1", "k2", 2)});
        Words three = two;
        three.insert(three.end(), {"--chain", chain("k2", "k3", 3)});
        if (road == Road::key_change_one) {
          publish_packages(2, one, "k1");
          publish_packages(3, two, "k2", next_packages_);
          new_key_ = {"k1", 1};
          later_key_ = {"k2", 2};
        } else {
          publish_packages(2, two, "k2");
          publish_packages(3, three, "k3", next_packages_);
          new_key_ = {"k2", 2};
          later_key_ = {"k3", 3};
        }
        break;
      }
      case Kind::blocked:
        device().write_file("/system/GESPERRT", "00000007\n");
        publish_packages(2, {"--block", "8", "--block", "9"});
        publish_packages(3, {"--block", "8", "--block", "9", "--block", "10"}, "release", next_packages_);
        break;
      case Kind::system:
        // The kernel images are made only for the roads that change the system.
        second_ = system_build(20260301, "a1b2c3d4e5");
        third_ = system_build(20260401, "b2c3d4e5f6");
        after_ = second_;
        publish_packages(3, {}, "release", next_packages_);
        if (road == Road::system_apply_same_kernel) {
          // The offered build keeps the running kernel (its commit is the running kernel's),
          // so only the overlay changes, at once; it also replaces the desktop's taskbar.
          before_.files["/bin/taskbar"] = "#!/bin/sh\necho taskbar 1\n";
          device().write_file("/bin/taskbar", before_.files["/bin/taskbar"], 0755);
          device().add_task("taskbar", 3, 5);
          after_ = system_build(20260201, kFirstCommit);
          after_.kernel = first_.kernel;
          after_.files["/bin/taskbar"] = "#!/bin/sh\necho taskbar 20260201\n";
        }
        publish_system(after_);
        publish_system_to(third_, next_system_);
        if (road == Road::boot_confirm) {
          RunResult r = device().run({"system", "apply"});
          ASSERT_EQ(r.status, 0) << r.out << r.err;
        }
        if (road == Road::system_trial_confirm || road == Road::system_trial_rollback ||
            road == Road::system_confirm) {
          stage_and_start_slot_b();
        }
        if (road == Road::system_trial_rollback) {
          // The installer keeps the package list of the generation the trial record names,
          // as it does for every generation a package trial started from.
          device().write_file("/system/tpk/gen/00000004", file("/system/tpk/installed"));
        }
        break;
    }
    if (road == Road::package_confirm || road == Road::package_rollback) {
      RunResult r = device().run({"apply"});
      ASSERT_EQ(r.status, 0) << r.out << r.err;
      BootResult b = restart(false);
      ASSERT_TRUE(b.booted) << b.stuck;
      ASSERT_TRUE(trial_open(device()));
    }
    if (road == Road::service_round) {
      // The service searches and applies by itself; its start delay is longer than any
      // start-up below runs, so only the round under test applies.
      device().write_file("/etc/ota.conf",
                          std::string("quelle=") + e2e::kSourceUrl + "\nname=life\nauto=ja\nstart=86400\n");
    }
    if (road == Road::system_grow) {
      device().config().grow.steps = {0, 100, 200, 300, 400, 500, 600, 700, 800, 900};
      device().save_config();
    }
    settings_before_ = file("/etc/ota.conf");
  }

  // A fresh copy of the prepared device (its event log left behind).
  Device copy_device(const std::string& to) {
    namespace fs = std::filesystem;
    fs::remove_all(to);
    fs::create_directories(to);
    for (const char* part : {"root", "disks"})
      fs::copy(device().dir() + "/" + part, to + "/" + part, fs::copy_options::recursive);
    for (const char* part : {"sim.conf", "kernel.state"}) fs::copy_file(device().dir() + "/" + part, to + "/" + part);
    std::ofstream(to + "/events.log");
    return Device::open(to);
  }

  static Words road_words(Road road) {
    switch (road) {
      case Road::package_apply: return {"apply"};
      case Road::service_round: return {"service", "1"};
      case Road::key_change_one:
      case Road::key_change_two:
      case Road::blocked_versions: return {"search"};
      case Road::system_apply:
      case Road::system_apply_same_kernel: return {"system", "apply"};
      case Road::background_apply: return {"system", "apply", "bg"};
      case Road::boot_confirm: return {};
      case Road::package_confirm:
      case Road::system_trial_confirm: return {"confirm"};
      case Road::package_rollback:
      case Road::system_trial_rollback: return {"rollback"};
      case Road::system_confirm: return {"system", "confirm"};
      case Road::system_grow: return {"system", "grow"};
      case Road::set_setting: return {"set", "name", "dev-7"};
    }
    return {};
  }

  // Runs the road on d, cut at call k when k > 0. The start-up road is a start of the
  // machine; the background road's cut counts the calls of the child it forks, and its
  // result is read once the child has ended, so that it holds the child's calls.
  static RunResult run_road(Device& d, Road road, uint64_t k, Durability durability, bool trace = false) {
    tavisim::RunOptions o;
    o.virtual_seconds = 3600;
    o.trace_calls = trace;
    if (k > 0) o.cut = Cut{k, durability, false, road == Road::background_apply};
    if (road == Road::boot_confirm) {
      BootOptions b;
      b.run = o;
      return d.boot(b).start_entry;
    }
    if (road != Road::background_apply) return d.run(road_words(road), o);
    tavisim::CommandId id = d.start(road_words(road), o);
    RunResult parent = d.wait(id);
    if (!parent.exited || parent.status != 0) return parent;
    d.wait_background();
    RunResult r = d.wait(id);
    r.cut = !tavisim::events_of(r.events, "cut").empty();
    r.calls = r.forked_calls;
    return r;
  }

  // Starts the machine until its start-up entry stops restarting it.
  static BootResult start_up(Device& d, int* starts = nullptr) {
    BootResult b;
    int n = 0;
    do {
      BootOptions o;
      o.run.virtual_seconds = kStartUpSeconds;
      b = d.boot(o);
      n++;
    } while (b.booted && b.start_entry.rebooted && n < kMostStarts);
    if (starts) *starts = n;
    return b;
  }

  static std::string installed_text(const Device& d) {
    std::string s;
    for (char c : read_or(d, "/system/tpk/installed")) s += c == '\n' ? ' ' : c == '\t' ? '=' : c;
    return s;
  }

  // Which of the two package states the device is in, or what is mixed.
  static std::string package_state(const Device& d) {
    std::string v = read_or(d, "/system/FASSUNG"), list = read_or(d, "/system/tpk/installed");
    bool open = trial_open(d);
    if (!open && v == "00000001\n" && list == "core\t1\neditor\t1\n") return "old";
    if (!open && v == "00000002\n" && list == "core\t2\neditor\t2\n") return "new";
    return "FASSUNG " + v.substr(0, 8) + ", installed " + installed_text(d) + (open ? ", trial open" : "");
  }

  // A rollback of a package trial: the trial is either confirmed by the start-up (old) or
  // undone by the installer (new); the recorded version stays, as the rollback leaves it.
  static std::string rollback_state(const Device& d) {
    std::string v = read_or(d, "/system/FASSUNG"), list = read_or(d, "/system/tpk/installed");
    std::string generation = read_or(d, "/system/AKTUELL");
    bool record = d.exists("/system/ERPROBUNG");
    if (v == "00000002\n" && list == "core\t2\neditor\t2\n" && generation == "00000005\n" && record && !trial_open(d))
      return "old";
    if (v == "00000002\n" && list == "core\t1\neditor\t1\n" && generation == "00000004\n" && !record) return "new";
    return "FASSUNG " + v.substr(0, 8) + ", installed " + installed_text(d) + ", generation " +
           generation.substr(0, 8) + (record ? trial_open(d) ? ", trial open" : ", trial confirmed" : "");
  }

  // The trusted key and its generation.
  std::string key_state(const Device& d) {
    std::string k = d.read_file("/system/schluessel.pub").value_or("");
    std::string g = d.read_file("/system/SCHLUESSELGEN").value_or("");
    std::string release = read_all(key("release") + ".pub");
    std::string fresh = read_all(key(new_key_.first) + ".pub");
    if (k == release && (g.empty() || g == "00000000\n")) return "old";
    if (k == fresh && g == eight_digits(new_key_.second) + "\n") return "new";
    std::string which = k.empty() ? "missing" : k == release ? "release" : k == fresh ? new_key_.first : "other";
    if (k.empty() && d.exists("/system/schluessel.pub.nw")) which += " (" + std::string(".nw left") + ")";
    return "key " + which + ", generation " + (g.empty() ? "none" : g.substr(0, 8));
  }

  static std::string blocked_state(const Device& d) {
    std::string list = read_or(d, "/system/GESPERRT");
    if (list == "00000007\n") return "old";
    if (list == "00000007\n00000008\n00000009\n") return "new";
    std::string s;
    for (char c : list) s += c == '\n' ? ' ' : c;
    return "GESPERRT " + s;
  }

  static std::string grow_state(Device& d) {
    RunResult r = d.run({"system", "grow", "status"});
    if (r.out.find("grow: state 3\ngrow: fs blocks 1048576\n") != std::string::npos) return "new";
    if (r.out.find("grow: state 1\ngrow: fs blocks 262144\n") != std::string::npos) return "old";
    std::string s = r.out.substr(0, r.out.find("grow: device"));
    std::replace(s.begin(), s.end(), '\n', ' ');
    return s;
  }

  std::string settings_state(const Device& d) {
    std::string now = read_or(d, "/etc/ota.conf");
    if (now == settings_before_) return "old";
    // `ota set` drops the key's line and puts the new one last.
    std::string after = settings_before_;
    after.erase(after.find("name=life\n"), 10);
    if (now == after + "name=dev-7\n") return "new";
    return "ota.conf " + std::string(d.exists("/etc/ota.conf") ? "changed" : "missing") +
           (d.exists("/etc/ota.conf.nw") ? ", ota.conf.nw left" : "");
  }

  static std::string kernel_name(const std::string& image, const std::vector<const SystemBuild*>& builds) {
    if (image == "<missing>") return "missing";
    for (const SystemBuild* b : builds)
      if (image == b->kernel) return std::to_string(b->build);
    return "other (" + std::to_string(image.size()) + " bytes)";
  }

  // Which of the two system states the device is in, judged by everything that tells the
  // build, or a list of the facts when they disagree.
  std::string system_state(const Device& d, const BootResult& b) {
    std::vector<const SystemBuild*> builds = {&before_, &after_};
    std::string version = read_or(d, "/system/SYSVERSION");
    std::string slot_a = d.esp_read("sda1", "tavi.mb").value_or("<missing>");
    std::string menu = d.esp_read("sda1", "limine.conf").value_or("");
    bool pending = d.exists("/system/SYSPENDING"), journal = d.exists("/system/SYSOVL"), open = trial_open(d);
    std::string overlay;
    std::set<std::string> paths;
    for (const SystemBuild* s : builds)
      for (const auto& [path, content] : s->files) paths.insert(path);
    for (const std::string& path : paths) {
      std::optional<std::string> now = d.read_file(path);
      std::string which = "?";
      for (const SystemBuild* s : builds) {
        auto it = s->files.find(path);
        std::string want = it == s->files.end() ? "" : it->second;
        if ((want.empty() && !now) || (now && *now == want && !want.empty())) which = s == &before_ ? "1" : "2";
      }
      overlay += (overlay.empty() ? "" : ",") + which;
    }
    for (const SystemBuild* s : builds) {
      std::string all;
      for (size_t i = 0; i < paths.size(); i++) all += (i ? "," : "") + std::string(s == &before_ ? "1" : "2");
      // The running kernel names its build by the image it was started from.
      tavisim::KernelImage image = tavisim::read_kernel_image(s->kernel);
      if (version == eight_digits(s->build) + "\n" && slot_a == s->kernel && b.kernel.build == image.build &&
          overlay == all && !pending && !journal && !open)
        return s == &before_ ? "old" : "new";
    }
    return "SYSVERSION " + version.substr(0, 8) + ", slot A " + kernel_name(slot_a, {&first_, &second_}) +
           ", running " + b.kernel.build + ", overlay " + overlay + ", menu default " + menu_default(menu) +
           (pending ? ", pending" : "") + (journal ? ", journal" : "") + (open ? ", trial open" : "");
  }

  std::string state_of(Road road, Device& d, const BootResult& b) {
    switch (info(road).kind) {
      case Kind::packages: return package_state(d);
      case Kind::package_rollback: return rollback_state(d);
      case Kind::keys: return key_state(d);
      case Kind::blocked: return blocked_state(d);
      case Kind::system: return system_state(d, b);
      case Kind::grow: return grow_state(d);
      case Kind::settings: return settings_state(d);
    }
    return "";
  }

  // The one step a user (or the next update) takes when a start leaves the device
  // undecided: the same apply again for packages, `ota confirm` for a system update on
  // trial, the same command again for the rest.
  static Words user_step(Road road) {
    switch (info(road).kind) {
      case Kind::packages: return {"apply"};
      case Kind::system: return road == Road::system_apply_same_kernel ? Words{"system", "apply"} : Words{"confirm"};
      default: return road_words(road);
    }
  }

  // After the cut: start the machine, judge the state, then start it once more and see
  // that it stays. A state the start-up leaves undecided gets the one step a user would
  // take.
  Outcome judge(Device& d, Road road, uint64_t k, const RunResult& cut) {
    Outcome o;
    o.k = k;
    auto cuts = tavisim::events_of(cut.events, "cut");
    o.call = cuts.empty() ? "none" : cuts[0].value("nr");
    // What the cut left, before anything starts: the known cases are told by it.
    bool promoted_journal = !d.exists("/system/SYSPENDING") && d.exists("/system/SYSOVL") &&
                            read_or(d, "/system/SYSVERSION") == eight_digits(after_.build) + "\n" &&
                            after_.build != before_.build && road != Road::system_apply_same_kernel;
    bool running_without_pid = read_or(d, "/system/sys.apply") == "state=running\n";
    BootResult b = start_up(d);
    if (!b.booted) {
      o.verdict = "stands at the boot loader: " + b.stuck;
      if (o.call == "82" && b.stuck == "no ESP with a limine.conf" && d.esp_read("sda1", "limine.nw") == staged_menu())
        o.known = "menu";
      return o;
    }
    if (b.start_entry.rebooted) {
      o.verdict = "still restarting after " + std::to_string(kMostStarts) + " starts";
      return o;
    }
    std::string fsck;
    if (d.esp_check("sda1", &fsck) != 0) {
      o.verdict = "the ESP is not a clean FAT file system: " + fsck;
      return o;
    }
    Kind kind = info(road).kind;
    std::string state = state_of(road, d, b);
    // A system update stays undecided only once no trial is open: no start-up decides it
    // then, the user's `ota confirm` (or the next package update's confirmation) does.
    bool step = !settled(state) && (kind != Kind::system || !trial_open(d));
    if (step) {
      Words words = user_step(road);
      std::string text;
      for (const std::string& w : words) text += " " + w;
      o.note = "left " + state + "; `ota" + text + "` ";
      RunResult again = d.run(words);
      if (kind == Kind::packages) {
        BootResult b2 = start_up(d);
        if (!b2.booted) again.err += " (then stands at the boot loader)";
      }
      std::string decided = state_of(road, d, b);
      if (settled(decided)) {
        o.note += "decided it";
      } else {
        o.note += "then left " + decided;
        // The new key in place with the old generation: catalogs signed with the new key
        // are taken, but the next key change can no longer be followed.
        if (kind == Kind::keys && d.read_file("/system/schluessel.pub") == read_all(key(new_key_.first) + ".pub"))
          o.known = "key generation";
      }
      state = decided;
    }
    if (!settled(state)) {
      o.verdict = "mixed: " + state;
      // The journal of a promotion cut short after the pending record was removed: the next
      // confirmation takes it for an interrupted install and restores it.
      if (kind == Kind::system && promoted_journal) o.known = "journal";
      return o;
    }
    if (running_without_pid && read_or(d, "/system/sys.apply") == "state=running\n") {
      // The background child was cut before it wrote its process id: the state reads as a
      // child still starting, and every later background apply is refused until `force`.
      o.verdict = state + "; /system/sys.apply still says running, without a process id";
      o.known = "apply state";
      return o;
    }
    // The next start boots the same state.
    BootResult again = start_up(d);
    std::string after = !again.booted ? "stands at the boot loader: " + again.stuck : state_of(road, d, again);
    if (after != state) {
      o.verdict = "changed at the next start: " + state + " became " + after;
      return o;
    }
    o.verdict = state;
    o.survived = true;
    return o;
  }

  // A later update from the next source goes through to the end.
  bool later_update(Device& d, Road road, std::string* why) {
    Kind kind = info(road).kind;
    d.write_file("/etc/ota.conf", std::string("quelle=") + kNextUrl + "\nname=life\nauto=nein\n");
    if (kind == Kind::system) {
      RunResult r = d.run(road == Road::background_apply ? Words{"system", "apply", "bg"} : Words{"system", "apply"});
      if (road == Road::background_apply) {
        d.wait_background();
        if (read_or(d, "/system/sys.apply") != "state=done\n") r.status = 1;
        r.out += read_or(d, "/system/sys.applylog");
      }
      if (r.status != 0) {
        *why = "apply: " + r.out + r.err;
        return false;
      }
      BootResult b = start_up(d);
      if (!b.booted) {
        *why = "stands at the boot loader: " + b.stuck;
        return false;
      }
      bool ok = read_or(d, "/system/SYSVERSION") == "20260401\n" && b.kernel.build == "20260401" &&
                d.esp_read("sda1", "tavi.mb") == third_.kernel && !d.exists("/system/SYSPENDING") &&
                !d.exists("/system/SYSOVL") && read_or(d, "/bin/clock") == third_.files.at("/bin/clock") &&
                read_or(d, "/etc/motd") == third_.files.at("/etc/motd") &&
                read_or(d, "/apps/clock/start") == third_.files.at("/apps/clock/start");
      if (!ok)
        *why = "SYSVERSION " + read_or(d, "/system/SYSVERSION") + " running " + b.kernel.build + "\n" +
               b.start_entry.out;
      return ok;
    }
    RunResult r = d.run({"apply"});
    if (r.status != 0) {
      *why = "apply: " + r.out + r.err;
      return false;
    }
    BootResult b = start_up(d);
    if (!b.booted) {
      *why = "stands at the boot loader: " + b.stuck;
      return false;
    }
    bool ok = read_or(d, "/system/FASSUNG") == "00000003\n" &&
              read_or(d, "/system/tpk/installed") == "core\t3\neditor\t3\n" && !trial_open(d);
    *why = package_state(d);
    if (kind == Kind::keys) {
      ok = ok && d.read_file("/system/schluessel.pub") == read_all(key(later_key_.first) + ".pub") &&
           read_or(d, "/system/SCHLUESSELGEN") == eight_digits(later_key_.second) + "\n";
      *why += ", " + key_state(d);
    }
    if (kind == Kind::blocked) {
      ok = ok && read_or(d, "/system/GESPERRT").find("00000010\n") != std::string::npos;
      *why += ", " + blocked_state(d);
    }
    return ok;
  }

  // The road without a cut, its calls traced: it must end in the new state; the numbers
  // of its calls choose the sample.
  std::vector<int64_t> calibrate(Road road) {
    Device d = copy_device(device().dir() + "/scratch/uncut");
    RunResult r = run_road(d, road, 0, Durability::all, true);
    EXPECT_TRUE(r.exited && r.status == 0) << road_name(road) << ": " << r.out << r.err << r.error;
    Outcome uncut = judge(d, road, 0, r);
    EXPECT_EQ(uncut.verdict, "new") << road_name(road) << " without a cut: " << uncut.note;
    // A rollback of a system trial closes the trial but leaves the update pending, for the
    // next confirmation to decide (docs/robustness.md).
    if (road != Road::system_trial_rollback) {
      EXPECT_EQ(uncut.note, "");
    }
    std::filesystem::remove_all(device().dir() + "/scratch/uncut");
    return r.calls;
  }

  static std::set<uint64_t> sample_points(const std::vector<int64_t>& calls, Durability durability) {
    std::set<uint64_t> points = {1};
    uint64_t stride = durability == Durability::all ? kAllStride : kSyncedStride;
    for (uint64_t k = 1; k <= calls.size(); k++) {
      if (k % stride == 0) points.insert(k);
      int64_t nr = calls[k - 1];
      bool durable = std::find(std::begin(kDurableCalls), std::end(kDurableCalls), nr) != std::end(kDurableCalls);
      if (nr == kSync) points.insert(k);
      if ((nr == kSync || (durable && durability == Durability::all)) && k < calls.size()) points.insert(k + 1);
    }
    size_t most = durability == Durability::all ? kMostAll : kMostSynced;
    if (points.size() <= most) return points;
    std::vector<uint64_t> all(points.begin(), points.end());
    std::set<uint64_t> spread;
    for (size_t i = 0; i < most; i++) spread.insert(all[i * all.size() / most]);
    return spread;
  }

  // Tries the chosen cut points, each on a fresh copy of the prepared device.
  Matrix run_matrix(Road road, Durability durability, bool full) {
    Matrix m{road, durability, 0, {}, 0};
    auto started = std::chrono::steady_clock::now();
    std::vector<int64_t> calls = calibrate(road);
    m.calls = calls.size();
    std::set<uint64_t> points;
    if (full) {
      for (uint64_t k = 1; k <= calls.size(); k++) points.insert(k);
    } else {
      points = sample_points(calls, durability);
    }
    std::string work = device().dir() + "/scratch/cut";
    uint64_t survivors = 0;
    for (uint64_t k : points) {
      Device d = copy_device(work);
      RunResult r = run_road(d, road, k, durability);
      EXPECT_TRUE(r.error.empty()) << r.error;
      EXPECT_TRUE(r.cut) << road_name(road) << " was not cut at call " << k << " of " << calls.size();
      if (!r.error.empty() || !r.cut) break;
      Outcome o = judge(d, road, k, r);
      // The calls are the same in every copy, so the cut meets the call the trace saw.
      EXPECT_EQ(o.call, std::to_string(calls[k - 1])) << "call " << k;
      if (o.survived && survivors++ % kLaterStride == 0) {
        o.later_tried = true;
        std::string why;
        o.later_ok = later_update(d, road, &why);
        if (!o.later_ok) {
          o.survived = false;
          o.verdict += "; the later update failed: " + why;
        }
      }
      m.outcomes.push_back(o);
    }
    m.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::filesystem::remove_all(work);
    report(m);
    return m;
  }

  void report(const Matrix& m) {
    size_t survived = 0, manual = 0, known = 0, later = 0, later_ok = 0;
    for (const Outcome& o : m.outcomes) {
      survived += o.survived;
      manual += o.survived && !o.note.empty();
      known += !o.known.empty();
      later += o.later_tried;
      later_ok += o.later_ok;
    }
    printf("power loss, %s, durability %s: %zu cut points of %llu calls tried, %zu survived (%zu of them after a "
           "second step), %zu known cases, %zu other, later update %zu/%zu, %.1f s\n",
           road_name(m.road), durability_name(m.durability), m.outcomes.size(),
           static_cast<unsigned long long>(m.calls), survived, manual, known, m.outcomes.size() - survived - known,
           later_ok, later, m.seconds);
    const char* path = getenv("TAVI_POWER_REPORT");
    std::ofstream file;
    if (path && *path) file.open(path, std::ios::app);
    std::string lines;
    for (const Outcome& o : m.outcomes) {
      std::string line = std::string(road_name(m.road)) + "\t" + durability_name(m.durability) + "\t" +
                         std::to_string(o.k) + "\tnr=" + o.call + "\t" +
                         (o.survived ? "survived" : o.known.empty() ? "LOST" : "known:" + o.known) + "\t" + o.verdict +
                         "\t" + o.note + "\t" + (o.later_tried ? o.later_ok ? "later update ok" : "later update FAILED" : "");
      lines += line + "\n";
      if (!o.survived || getenv("TAVI_POWER_VERBOSE")) printf("  %s\n", line.c_str());
    }
    // One write for the whole road, so that matrices run side by side do not mix lines.
    if (file.is_open()) file << lines << std::flush;
  }

  std::string next_packages_;
  std::string next_system_;
  SystemBuild second_;
  SystemBuild third_;
  SystemBuild before_;  // the system state before the road and after it
  SystemBuild after_;
  std::pair<std::string, int> new_key_;    // the key and generation a key change leads to
  std::pair<std::string, int> later_key_;  // and those of the later update
  std::string settings_before_;
};

void PrintTo(Road r, std::ostream* os) { *os << road_name(r); }

class PowerLossMatrix : public PowerLoss, public ::testing::WithParamInterface<std::tuple<Road, Durability>> {};

// Each cut point must leave a device that boots into the old or the new state, at once or
// after the one step a user takes; the known cases of the design (docs/robustness.md,
// "Power loss") are counted apart and must stay exactly those.
TEST_P(PowerLossMatrix, EveryCutPointBootsIntoTheOldOrTheNewState) {
  auto [road, durability] = GetParam();
  prepare(road);
  if (HasFatalFailure()) return;
  Matrix m = run_matrix(road, durability, full_run());
  EXPECT_GT(m.calls, 0u);
  EXPECT_FALSE(m.outcomes.empty());
  for (const Outcome& o : m.outcomes) {
    if (!o.known.empty()) continue;
    EXPECT_TRUE(o.survived) << road_name(road) << ", " << durability_name(durability) << ", cut at call " << o.k
                            << " (nr " << o.call << "): " << o.verdict << " " << o.note;
  }
}

// The windows of the design, each at the first cut point that shows it (docs/robustness.md,
// "Power loss"): what the device shows there and the recovery a person can do on it; and
// the windows that are closed, each shown closed.
class PowerLossKnown : public PowerLoss {
 protected:
  // The calls right after which the windows open.
  static constexpr int64_t kWrite = 1;
  static constexpr int64_t kRename = 82;
  static constexpr int64_t kUnlink = 87;
  static constexpr int64_t kSpawn = TAVI_SPAWN;

  // The first cut point (or only those right after a call numbered `after`, when given)
  // after which the device, before it is started again, shows what `shows` looks for.
  uint64_t first_cut_where(Road road, const std::function<bool(Device&)>& shows, int64_t after = -1) {
    std::vector<int64_t> calls = calibrate(road);
    std::string work = device().dir() + "/scratch/find";
    for (uint64_t k = 1; k <= calls.size(); k++) {
      if (after >= 0 && (k < 2 || calls[k - 2] != after)) continue;
      Device d = copy_device(work);
      if (run_road(d, road, k, Durability::all).cut && shows(d)) return k;
    }
    return 0;
  }
  Device cut_copy(Road road, uint64_t k) {
    Device d = copy_device(device().dir() + "/scratch/cut");
    EXPECT_TRUE(run_road(d, road, k, Durability::all).cut);
    return d;
  }
  static bool pending(const Device& d) { return d.exists("/system/SYSPENDING"); }
  static std::string menu_of(const Device& d) {
    return menu_default(d.esp_read("sda1", "limine.conf").value_or(""));
  }
};

TEST_F(PowerLossKnown, TheMenuIsMissingBetweenItsDeleteAndTheRenameOfTheNewOne) {
  // FAT cannot rename over a file, so the old menu is deleted before the new one is
  // renamed into place: a power loss between the two leaves no limine.conf, and the boot
  // loader starts nothing. The new menu is complete in limine.nw.
  prepare(Road::system_apply);
  uint64_t k = first_cut_where(
      Road::system_apply, [](Device& d) { return !d.esp_read("sda1", "limine.conf"); }, kUnlink);
  ASSERT_GT(k, 0u);
  Device d = cut_copy(Road::system_apply, k);
  BootResult b = start_up(d);
  EXPECT_FALSE(b.booted);
  EXPECT_EQ(b.stuck, "no ESP with a limine.conf");
  EXPECT_EQ(d.esp_read("sda1", "limine.nw"), staged_menu());
  EXPECT_EQ(d.esp_read("sda1", "tavi-b.mb"), second_.kernel);
  // Renaming it by hand (from the firmware's shell or another computer) finishes the
  // staged update.
  tavisim::fat_write(d.disk_image("sda1"), "limine.conf", staged_menu());
  tavisim::fat_remove(d.disk_image("sda1"), "limine.nw");
  b = start_up(d);
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(system_state(d, b), "new");
}

TEST_F(PowerLossKnown, APendingRecordWithoutATrialWaitsForOtaConfirm) {
  // The pending record is written before the trial record. After a cut between them no
  // trial is open: the start-up check does not run the confirmation, and `ota system
  // apply` refuses; the menu still starts the old kernel. `ota confirm` rolls it back.
  prepare(Road::system_apply);
  uint64_t k = first_cut_where(
      Road::system_apply, [](Device& d) { return pending(d) && !d.exists("/system/ERPROBUNG"); }, kRename);
  ASSERT_GT(k, 0u);
  Device d = cut_copy(Road::system_apply, k);
  BootResult b = start_up(d);
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.kernel.build, "20260101");
  EXPECT_EQ(b.start_entry.out, "ota: automatic search is OFF\n");
  EXPECT_TRUE(pending(d));
  RunResult status = d.run({"system", "status"});
  EXPECT_EQ(status.out, "system: installed build 20260101\nsystem: pending trial of build \ncount=20260301\n"
                        "commit=a1b2c3d4e5\nsha=" + sha256_hex(after_.kernel) + "\n");
  RunResult again = d.run({"system", "apply"});
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.err, "ota: a trial is running or pending, confirm or restart first\n");
  // No trial record: the installer refuses "trial ok", and its code is the result.
  RunResult confirm = d.run({"confirm"});
  EXPECT_EQ(confirm.status, 1);
  EXPECT_EQ(confirm.out, "system: trial kernel was rolled back, update dropped\n");
  EXPECT_EQ(confirm.err, "");
  EXPECT_EQ(system_state(d, b), "old");
}

TEST_F(PowerLossKnown, AnUpdateWhoseTrialWasClosedIsPromotedByOtaConfirm) {
  // The start-up check closes the trial ("trial ok") before the system confirmation
  // promotes slot B. After a cut between them the next start finds no open trial and
  // leaves the update pending on entry 2; `ota confirm` promotes it.
  prepare(Road::boot_confirm);
  uint64_t k = first_cut_where(
      Road::boot_confirm, [](Device& d) { return pending(d) && !trial_open(d) && menu_of(d) == "2"; }, kSpawn);
  ASSERT_GT(k, 0u);
  Device d = cut_copy(Road::boot_confirm, k);
  BootResult b = start_up(d);
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.entry, 2);
  EXPECT_EQ(b.trial_starts, -1);
  EXPECT_TRUE(pending(d));
  RunResult confirm = d.run({"confirm"});
  EXPECT_EQ(confirm.status, 0);
  EXPECT_EQ(confirm.out, "system: overlay committed\nsystem: new kernel confirmed and promoted to slot A\n");
  EXPECT_EQ(confirm.err, "");
  EXPECT_EQ(system_state(d, b), "new");
}

TEST_F(PowerLossKnown, APromotionCutAfterItsMenuSwitchIsFinishedNotRolledBack) {
  // The promotion switches the menu back to entry 1 before it removes the pending record.
  // After a cut between the two, slot A already holds the new kernel: the next
  // confirmation finishes the promotion instead of taking the switched menu for a start of
  // the old entry.
  prepare(Road::boot_confirm);
  uint64_t k = first_cut_where(
      Road::boot_confirm, [](Device& d) { return pending(d) && menu_of(d) == "1"; }, kWrite);
  ASSERT_GT(k, 0u);
  Device d = cut_copy(Road::boot_confirm, k);
  EXPECT_EQ(d.esp_read("sda1", "tavi.mb"), second_.kernel);
  BootResult b = start_up(d);
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.entry, 1);
  EXPECT_EQ(b.kernel.build, "20260301");
  RunResult confirm = d.run({"confirm"});
  EXPECT_EQ(confirm.out, "system: overlay committed\nsystem: new kernel confirmed and promoted to slot A\n");
  EXPECT_EQ(system_state(d, b), "new");
}

TEST_F(PowerLossKnown, AJournalLeftByACutPromotionIsRestoredUnderTheNewKernel) {
  // The promotion removes the pending record before it commits the overlay. After a cut
  // between the two, the journal is left without a pending record, and the next
  // confirmation (the user's, or the start-up check of the next package update) takes it
  // for an interrupted install and restores it: old files come back under the new kernel,
  // and the file the update added is deleted.
  prepare(Road::boot_confirm);
  auto shows = [](Device& d) { return !pending(d) && d.exists("/system/SYSOVL"); };
  uint64_t k = first_cut_where(Road::boot_confirm, shows, kUnlink);
  ASSERT_GT(k, 0u);
  Device d = cut_copy(Road::boot_confirm, k);
  BootResult b = start_up(d);
  ASSERT_TRUE(b.booted);
  EXPECT_EQ(b.kernel.build, "20260301");
  EXPECT_EQ(read_or(d, "/system/SYSVERSION"), "20260301\n");
  RunResult confirm = d.run({"confirm"});
  EXPECT_EQ(confirm.out, "system: overlay restored (previous /bin files are back)\n");
  EXPECT_EQ(read_or(d, "/bin/clock"), first_.files.at("/bin/clock"));
  EXPECT_FALSE(d.exists("/apps/clock/start"));
  EXPECT_NE(system_state(d, b), "new");
  // Recovery once that happened: with the previous build written back into SYSVERSION by
  // hand, the same update is offered again, and since its kernel already runs, applying it
  // installs only the files.
  d.write_file("/system/SYSVERSION", "20260101\n");
  RunResult again = d.run({"system", "apply"});
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(again.out, applied_output(after_));
  EXPECT_EQ(again.err, "");
  EXPECT_EQ(system_state(d, b), "new");

  // Recovery: before any confirmation runs, the journal (and the backups beside it) is
  // removed by hand; the new files stay, and the device is in the new state.
  Device fresh = cut_copy(Road::boot_confirm, k);
  b = start_up(fresh);
  ASSERT_TRUE(b.booted);
  fresh.remove("/system/SYSOVL");
  std::filesystem::remove_all(fresh.host_path("/system/old"));
  EXPECT_EQ(fresh.run({"confirm"}).out, "");
  EXPECT_EQ(system_state(fresh, b), "new");
}

TEST_F(PowerLossKnown, AKeyChangeCutBeforeItsGenerationIsWrittenBreaksTheNextOne) {
  // A key change writes the new key first and its generation after it. After a cut
  // between the two the device trusts the new key with the old generation: catalogs signed
  // with the new key are still taken, but the next key change is refused for good, since
  // its first step is signed by a key the device no longer holds.
  prepare(Road::key_change_one);
  std::string k1 = read_all(key("k1") + ".pub");
  uint64_t k = first_cut_where(
      Road::key_change_one,
      [&](Device& d) { return d.read_file("/system/schluessel.pub") == k1 && !d.exists("/system/SCHLUESSELGEN"); },
      kRename);
  ASSERT_GT(k, 0u);
  Device d = cut_copy(Road::key_change_one, k);
  ASSERT_TRUE(start_up(d).booted);
  RunResult show = d.run({"show"});
  EXPECT_EQ(show.out, show_output(1, 0, 4));
  RunResult search = d.run({"search"});
  EXPECT_EQ(search.status, 0) << search.err;
  EXPECT_EQ(search.out, package_search_output(1, 2));
  EXPECT_EQ(search.err, "");
  d.write_file("/etc/ota.conf", std::string("quelle=") + kNextUrl + "\nname=life\nauto=nein\n");
  RunResult next = d.run({"apply"});
  EXPECT_EQ(next.status, 1);
  EXPECT_EQ(next.err, "ota: KEY CHANGE: the chain is BROKEN -- REJECTED\n");

  // Recovery: the generation of the key in place is written by hand (the catalog's
  // "kette" line that carries this key names it); the chain goes on from there.
  d.write_file("/system/SCHLUESSELGEN", "00000001\n");
  next = d.run({"apply"});
  EXPECT_EQ(next.status, 0) << next.err;
  EXPECT_EQ(next.out, package_apply_output(1, 3, "ota: KEY CHANGE accepted, new generation 2\n", kNextUrl));
  EXPECT_EQ(next.err, "");
  EXPECT_EQ(d.read_file("/system/schluessel.pub"), read_all(key("k2") + ".pub"));
}

TEST_F(PowerLossKnown, AKeyReplacementCutBeforeItsRenameIsFinishedByTheNextCommand) {
  // The old key file is removed before the new one is renamed into place. After a cut
  // between the two only schluessel.pub.nw is there; the next command that loads the keys
  // finishes the rename instead of saying "no trusted key" from then on.
  prepare(Road::key_change_one);
  uint64_t k = first_cut_where(
      Road::key_change_one,
      [](Device& d) { return !d.exists("/system/schluessel.pub") && d.exists("/system/schluessel.pub.nw"); },
      kUnlink);
  ASSERT_GT(k, 0u);
  Device d = cut_copy(Road::key_change_one, k);
  RunResult search = d.run({"search"});
  EXPECT_EQ(search.err, "");
  EXPECT_EQ(search.status, 0);
  EXPECT_EQ(d.read_file("/system/schluessel.pub"), read_all(key("k1") + ".pub"));
  EXPECT_FALSE(d.exists("/system/schluessel.pub.nw"));
}

TEST_F(PowerLossKnown, ABackgroundChildCutBeforeItsProcessIdIsAliveUntilForce) {
  // The background apply writes "state=running" before it forks; the child replaces it
  // with its process id first thing. A cut between the two leaves a state that reads as a
  // child still starting: status shows it running, and every later background apply is
  // refused until `force` releases it.
  prepare(Road::background_apply);
  Device d = cut_copy(Road::background_apply, 1);
  EXPECT_EQ(read_or(d, "/system/sys.apply"), "state=running\n");
  ASSERT_TRUE(start_up(d).booted);
  RunResult status = d.run({"system", "status"});
  EXPECT_EQ(status.out, "system: installed build 20260101\nsystem: no update pending\nsystem: apply running\n");
  RunResult again = d.run({"system", "apply", "bg"});
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.out, "system: an apply is already running (state in /system/sys.apply)\n");
  RunResult forced = d.run({"system", "apply", "bg", "force"});
  EXPECT_EQ(forced.status, 0);
  EXPECT_EQ(forced.out,
            "system: the previous apply died, its running state was released\n"
            "system: apply started in the background, watch: ota system status\n");
  d.wait_background();
  EXPECT_EQ(read_or(d, "/system/sys.apply"), "state=done\n");
  EXPECT_TRUE(pending(d));
}

TEST_F(PowerLossKnown, SettingsCutBeforeTheirRenameAreFinishedByTheNextCommand) {
  // `ota set` removes the old settings file before it renames the new one into place.
  // After a cut between the two the next command finishes the rename instead of saying
  // that /etc/ota.conf is missing from then on.
  prepare(Road::set_setting);
  uint64_t k = first_cut_where(
      Road::set_setting, [](Device& d) { return !d.exists("/etc/ota.conf"); }, kUnlink);
  ASSERT_GT(k, 0u);
  Device d = cut_copy(Road::set_setting, k);
  RunResult settings = d.run({"settings"});
  EXPECT_EQ(settings.out, settings_listing({{"quelle", e2e::kSourceUrl}, {"name", "dev-7"}, {"auto", "nein"}}));
  EXPECT_EQ(settings_state(d), "new");
}

INSTANTIATE_TEST_SUITE_P(
    Roads, PowerLossMatrix,
    ::testing::Combine(::testing::Values(Road::package_apply, Road::service_round, Road::key_change_one,
                                         Road::key_change_two, Road::blocked_versions, Road::system_apply,
                                         Road::system_apply_same_kernel, Road::background_apply, Road::boot_confirm,
                                         Road::package_confirm, Road::package_rollback, Road::system_trial_confirm,
                                         Road::system_trial_rollback, Road::system_confirm, Road::system_grow,
                                         Road::set_setting),
                       ::testing::Values(Durability::all, Durability::synced)),
    [](const auto& info) {
      return std::string(life::info(std::get<0>(info.param)).id) +
             (std::get<1>(info.param) == Durability::all ? "_All" : "_Synced");
    });

}  // namespace
}  // namespace life

namespace tavisim {
void PrintTo(Durability d, std::ostream* os) { *os << (d == Durability::all ? "all" : "synced"); }
}  // namespace tavisim
