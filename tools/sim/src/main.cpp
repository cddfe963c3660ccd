// tavi-sim: make a simulated tavi device, run `ota` in it, and look at what happened.

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>

#include "fleet.h"
#include "host.h"
#include "tavisim/boot.h"
#include "tavisim/device.h"
#include "version.h"

namespace {

using namespace tavisim;

// Exit statuses of `tavi-sim run` when ota did not end by itself.
constexpr int kExitRestart = 250;
constexpr int kExitCut = 251;
constexpr int kExitWallLimit = 252;
constexpr int kExitVirtualLimit = 253;
constexpr int kExitSignal = 254;
constexpr int kExitSimulator = 255;
// Exit status of `tavi-sim boot` when the machine stands at the boot loader; 1 and 2 are
// taken by a failing simulator and a wrong command line.
constexpr int kExitAtBootLoader = 3;

const char* kUsage =
    "usage: tavi-sim <command> [options]\n"
    "\n"
    "  init DIR [--esp DISK]... [--binary OTA] [--proc-version TEXT]\n"
    "                     make a device directory\n"
    "  run DIR [--wall S] [--virtual S] [--cut K all|synced] [-v] -- WORDS...\n"
    "                     run `ota WORDS...` in the device\n"
    "  boot DIR [--virtual S] [--wall S] [--restarts N] [--no-start] [--pick ENTRY] [-v]\n"
    "                     start the machine: boot loader, kernel, start-up entry\n"
    "  firmware DIR [clear]\n"
    "                     show (or clear) the boot loader's firmware variables\n"
    "  events DIR [KIND]  print the device's event log\n"
    "  esp DIR [--disk DISK] ls | cat FILE | check\n"
    "                     look into an ESP image\n"
    "  conf DIR           print the device configuration (sim.conf)\n"
    "  set DIR KEY VALUE...    replace the setting KEY of sim.conf\n"
    "  add DIR KEY VALUE...    add one more line KEY VALUE... to sim.conf\n"
    "  unset DIR KEY           remove every line of KEY from sim.conf\n"
    "  clock DIR [advance SECONDS]\n"
    "                     show (or move forward) the device's virtual clock\n"
    "  fleet --source DIR --trusted PUB --devices N --rounds R --out OUT [options]\n"
    "                     rehearse a release on a simulated fleet (docs/fleet.md)\n"
    "  --version          print tavi-sim's version\n"
    "\n"
    "Each command takes --help. docs/simulator.md describes devices, sim.conf and events.log.\n";

struct Help {
  const char* command;
  const char* text;
};
const Help kHelp[] = {
    {"init",
     "usage: tavi-sim init DIR [--esp DISK]... [--binary OTA] [--proc-version TEXT]\n"
     "Makes DIR a device: root/ (bin/ota copied from OTA, default: the ota beside tavi-sim,\n"
     "else the installed one, " TAVISIM_INSTALLED_OTA " from tavi-sim's directory;\n"
     "etc/, system/, tmp/, sysesp/, proc/version), disks/, sim.conf, kernel.state, events.log.\n"
     "--esp DISK makes disks/DISK.img, a FAT image with limine.conf and tavi.mb (e.g. sda1).\n"},
    {"run",
     "usage: tavi-sim run DIR [--wall S] [--virtual S] [--cut K all|synced] [-v] -- WORDS...\n"
     "Runs `ota WORDS...` in the device and serves its background children to their end.\n"
     "ota's output passes through; the exit status is ota's. When ota did not end by\n"
     "itself: 250 restart, 251 cut, 252 wall-clock limit, 253 virtual-time limit,\n"
     "254 killed by a signal, 255 the simulator failed. -v names the reason on stderr.\n"
     "--wall S: real seconds (default 120, 0 none); --virtual S: virtual seconds (default 86400).\n"
     "--cut K all|synced: end ota at its K-th system call, keeping all or only synced data.\n"},
    {"boot",
     "usage: tavi-sim boot DIR [--virtual S] [--wall S] [--restarts N] [--no-start]\n"
     "                     [--pick ENTRY] [-v]\n"
     "Starts the machine. The boot loader reads limine.conf on the first disk image that has\n"
     "one (sda1, nvme01, hda1, then the others) and starts the default entry's kernel (the\n"
     "entry it remembers instead, with remember_last_entry: yes), a stand-in image\n"
     "(`ota-publish kernel`) whose multiboot1 header asks for a framebuffer. --pick ENTRY:\n"
     "someone at the console picks that entry (a top-level number, or any entry's title).\n"
     "The kernel writes /proc/version, counts the starts of an unconfirmed trial in\n"
     "/system/ERPROBUNG (after boot-tries starts it falls back to entry 1 and makes entry 1\n"
     "the menu's default), brings the configured tasks up if the image is healthy, and runs\n"
     "the start-up entry (`ota boot`) for at most S virtual seconds (default 3600). When that\n"
     "restarts the machine (or the kernel's fallback does) it is started again, at most N\n"
     "more times (default 0). Exit status: 0 the machine came up, 3 it stands at the boot\n"
     "loader (a panic, or its menu waits), 250 it was still restarting.\n"},
    {"firmware",
     "usage: tavi-sim firmware DIR [clear]\n"
     "Prints the firmware variables the boot loader keeps across restarts (DIR/firmware.state):\n"
     "last-booted-entry, the title of the entry it booted last under remember_last_entry: yes.\n"
     "clear empties them, as a reset of the firmware's variables does.\n"},
    {"events", "usage: tavi-sim events DIR [KIND]\nPrints DIR/events.log, or only its events of KIND.\n"},
    {"esp",
     "usage: tavi-sim esp DIR [--disk DISK] ls | cat FILE | check\n"
     "ls lists the image's files, cat prints one, check runs fsck.vfat -n. DISK defaults to sda1.\n"},
    {"conf", "usage: tavi-sim conf DIR\nPrints DIR/sim.conf.\n"},
    {"set",
     "usage: tavi-sim set DIR KEY VALUE...\n"
     "Replaces every line of KEY in DIR/sim.conf by `KEY VALUE...`; the result is checked.\n"},
    {"add", "usage: tavi-sim add DIR KEY VALUE...\nAdds the line `KEY VALUE...` to DIR/sim.conf (for repo, task, ...).\n"},
    {"unset", "usage: tavi-sim unset DIR KEY\nRemoves every line of KEY from DIR/sim.conf.\n"},
    {"clock",
     "usage: tavi-sim clock DIR [advance SECONDS]\n"
     "Prints the virtual clock (seconds since its configured start), or moves it forward.\n"},
};

bool wants_help(int argc, char** argv) {
  for (int i = 2; i < argc; i++) {
    if (strcmp(argv[i], "--") == 0) return false;
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) return true;
  }
  return false;
}

int usage_error(const std::string& command, const std::string& message) {
  std::cerr << "tavi-sim " << command << ": " << message << "\n";
  for (auto& h : kHelp)
    if (command == h.command) std::cerr << h.text;
  return 2;
}

std::string self_dir() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return ".";
  buf[n] = 0;
  return parent_of(buf);
}

double seconds_arg(const std::string& command, const std::string& option, const char* text) {
  char* end = nullptr;
  double v = strtod(text, &end);
  if (!end || *end != 0 || v < 0) throw SimError("tavi-sim " + command + ": " + option + " wants seconds, not " + text);
  return v;
}

// The device program `init` copies when not told which: the one beside tavi-sim (a build
// tree), else the one an installation put in its own directory.
std::string default_ota_binary() {
  std::string beside = self_dir() + "/ota";
  if (access(beside.c_str(), F_OK) == 0) return beside;
  std::string installed = self_dir() + "/" + TAVISIM_INSTALLED_OTA;
  if (access(installed.c_str(), F_OK) == 0) return installed;
  return beside;
}

int cmd_init(int argc, char** argv) {
  if (argc < 3) return usage_error("init", "which directory?");
  InitOptions o;
  o.ota_binary = default_ota_binary();
  for (int i = 3; i < argc; i++) {
    std::string a = argv[i];
    if ((a == "--esp" || a == "--binary" || a == "--proc-version") && i + 1 < argc) {
      std::string v = argv[++i];
      if (a == "--esp") o.esp_disks.push_back(v);
      else if (a == "--binary") o.ota_binary = v;
      else o.proc_version = v + "\n";
    } else if (a == "--esp" || a == "--binary" || a == "--proc-version") {
      return usage_error("init", a + " needs a value");
    } else {
      return usage_error("init", "unknown option " + a);
    }
  }
  make_host_dirs(argv[2]);
  init_device(argv[2], o);
  return 0;
}

int cmd_run(int argc, char** argv) {
  if (argc < 3) return usage_error("run", "which device?");
  RunOptions o;
  o.capture = false;
  bool verbose = false;
  int i = 3;
  std::vector<std::string> words;
  for (; i < argc; i++) {
    std::string a = argv[i];
    if (a == "--") {
      i++;
      break;
    }
    if (a == "-v") {
      verbose = true;
    } else if (a == "--wall" && i + 1 < argc) {
      o.wall_seconds = seconds_arg("run", a, argv[++i]);
    } else if (a == "--virtual" && i + 1 < argc) {
      o.virtual_seconds = seconds_arg("run", a, argv[++i]);
    } else if (a == "--cut" && i + 2 < argc) {
      Cut c;
      uint64_t k;
      if (!parse_u64(argv[i + 1], k) || k == 0) return usage_error("run", std::string("not a call count: ") + argv[i + 1]);
      c.at_call = k;
      std::string d = argv[i + 2];
      if (d != "all" && d != "synced") return usage_error("run", "durability must be all or synced, not " + d);
      c.durability = d == "all" ? Durability::all : Durability::synced;
      o.cut = c;
      i += 2;
    } else if (a == "--wall" || a == "--virtual") {
      return usage_error("run", a + " needs a number of seconds");
    } else if (a == "--cut") {
      return usage_error("run", "--cut needs a call count and all or synced");
    } else {
      return usage_error("run", "unknown option " + a + " (the words for ota follow --)");
    }
  }
  for (; i < argc; i++) words.push_back(argv[i]);
  Device d = Device::open(argv[2]);
  RunResult r = d.run(words, o);
  if (!r.error.empty()) {
    std::cerr << "tavi-sim run: " << r.error << "\n";
    return kExitSimulator;
  }
  if (!r.rebooted && !r.cut && r.limit == Limit::none) {
    if (!d.wait_background(o.wall_seconds, o.virtual_seconds) && verbose)
      std::cerr << "tavi-sim run: background processes were ended by a limit\n";
  }
  auto say = [&](const char* why, int code) {
    if (verbose) std::cerr << "tavi-sim run: " << why << "\n";
    return code;
  };
  if (r.rebooted) return say("the device restarted", kExitRestart);
  if (r.cut) return say("the program was cut by fault injection", kExitCut);
  if (r.limit == Limit::wall) return say("the wall-clock limit ran out", kExitWallLimit);
  if (r.limit == Limit::virtual_time) return say("the virtual-time limit ran out", kExitVirtualLimit);
  if (!r.exited) return say(("ota was ended by signal " + std::to_string(r.signal)).c_str(), kExitSignal);
  return r.status;
}

int cmd_boot(int argc, char** argv) {
  if (argc < 3) return usage_error("boot", "which device?");
  BootOptions o;
  o.run.capture = false;
  bool verbose = false;
  uint64_t restarts = 0;
  for (int i = 3; i < argc; i++) {
    std::string a = argv[i];
    if (a == "-v") verbose = true;
    else if (a == "--no-start") o.start_entry = false;
    else if (a == "--wall" && i + 1 < argc) o.run.wall_seconds = seconds_arg("boot", a, argv[++i]);
    else if (a == "--virtual" && i + 1 < argc) o.run.virtual_seconds = seconds_arg("boot", a, argv[++i]);
    else if (a == "--restarts" && i + 1 < argc && parse_u64(argv[i + 1], restarts)) i++;
    else if (a == "--pick" && i + 1 < argc && *argv[i + 1]) o.pick = argv[++i];
    else if (a == "--pick") return usage_error("boot", "--pick needs an entry's number or title");
    else if (a == "--restarts") return usage_error("boot", "--restarts needs a number of restarts");
    else if (a == "--wall" || a == "--virtual") return usage_error("boot", a + " needs a number of seconds");
    else return usage_error("boot", "unknown option " + a);
  }
  Device d = Device::open(argv[2]);
  for (uint64_t n = 0;; n++) {
    BootResult b = d.boot(o);
    o.pick.clear();  // a pick is made at one start only
    if (b.restarted) {
      if (verbose)
        std::cerr << "tavi-sim boot: " << b.disk << " entry " << b.entry << " " << b.kernel_path << ", trial start "
                  << b.trial_starts << ": the kernel fell back, but the boot loader starts entry " << b.entry
                  << " again (it remembers it); restarting\n";
      if (n >= restarts) return kExitRestart;
      continue;
    }
    if (!b.booted) {
      if (verbose) std::cerr << "tavi-sim boot: stands at the boot loader: " << b.stuck << "\n";
      return kExitAtBootLoader;
    }
    if (verbose) {
      std::cerr << "tavi-sim boot: " << b.disk << " entry " << b.entry << " " << b.kernel_path << " build "
                << b.kernel.build << " commit " << b.kernel.commit << (b.kernel.healthy ? " healthy" : " broken");
      if (b.trial_starts >= 0) std::cerr << ", trial start " << b.trial_starts;
      if (b.picked) std::cerr << ", picked by hand";
      if (b.remembered) std::cerr << ", the remembered entry";
      if (b.fallback) std::cerr << ", fell back to entry 1";
      if (b.menu_reset) std::cerr << " (menu default set to 1)";
      std::cerr << "\n";
    }
    if (!b.ran_start_entry || !b.start_entry.rebooted) return 0;
    if (n >= restarts) return kExitRestart;
  }
}

int cmd_firmware(int argc, char** argv) {
  if (argc != 3 && !(argc == 4 && std::string(argv[3]) == "clear"))
    return usage_error("firmware", "needs DIR [clear]");
  Device d = Device::open(argv[2]);
  if (argc == 4) d.set_remembered_entry("");
  std::string entry = d.remembered_entry();
  if (!entry.empty()) std::cout << "last-booted-entry\t" << entry << "\n";
  return 0;
}

int cmd_events(int argc, char** argv) {
  if (argc < 3 || argc > 4) return usage_error("events", "which device?");
  auto text = read_host_file(std::string(argv[2]) + "/events.log");
  if (!text) throw SimError(std::string("cannot read ") + argv[2] + "/events.log");
  if (argc == 3) {
    std::cout << *text;
    return 0;
  }
  for (auto& e : parse_events(*text))
    if (e.kind == argv[3]) std::cout << format_event(e) << "\n";
  return 0;
}

int cmd_esp(int argc, char** argv) {
  if (argc < 4) return usage_error("esp", "which device and what?");
  std::string disk = "sda1";
  int i = 3;
  if (std::string(argv[i]) == "--disk" && i + 1 < argc) {
    disk = argv[i + 1];
    i += 2;
  }
  if (i >= argc) return usage_error("esp", "ls, cat FILE or check?");
  std::string image = std::string(argv[2]) + "/disks/" + disk + ".img";
  if (!host_exists(image)) throw SimError("no image " + image);
  std::string what = argv[i];
  if (what == "ls") {
    for (auto& n : fat_list(image)) std::cout << n << "\n";
    return 0;
  }
  if (what == "cat" && i + 1 < argc) {
    auto data = fat_read(image, argv[i + 1]);
    if (!data) {
      std::cerr << "tavi-sim esp: " << argv[i + 1] << " is not on " << image << "\n";
      return 1;
    }
    std::cout << *data;
    return 0;
  }
  if (what == "check") {
    std::string report;
    int rc = fat_check(image, &report);
    std::cout << report;
    return rc;
  }
  return usage_error("esp", "ls, cat FILE or check?");
}

std::string conf_path(const char* dir) { return std::string(dir) + "/sim.conf"; }

// Rewrites sim.conf with the lines of KEY removed and, when given, one new line added;
// the result must parse before it is written.
int edit_conf(const char* dir, const std::string& key, const std::string* line, bool keep_others) {
  std::string path = conf_path(dir);
  auto text = read_host_file(path);
  if (!text) throw SimError("cannot read " + path);
  std::istringstream in(*text);
  std::string out, l;
  while (std::getline(in, l)) {
    auto w = split_words(l);
    if (!keep_others && !w.empty() && w[0] == key) continue;
    out += l + "\n";
  }
  if (line) out += *line + "\n";
  parse_config(out, path);
  write_host_file(path, out);
  return 0;
}

int cmd_set(int argc, char** argv, bool add) {
  const char* name = add ? "add" : "set";
  if (argc < 5) return usage_error(name, "needs DIR, KEY and at least one VALUE");
  std::string line = argv[3];
  for (int i = 4; i < argc; i++) line += std::string(" ") + argv[i];
  return edit_conf(argv[2], argv[3], &line, add);
}

int cmd_unset(int argc, char** argv) {
  if (argc != 4) return usage_error("unset", "needs DIR and KEY");
  return edit_conf(argv[2], argv[3], nullptr, false);
}

int cmd_conf(int argc, char** argv) {
  if (argc != 3) return usage_error("conf", "which device?");
  auto text = read_host_file(conf_path(argv[2]));
  if (!text) throw SimError("cannot read " + conf_path(argv[2]));
  std::cout << *text;
  return 0;
}

int cmd_clock(int argc, char** argv) {
  if (argc != 3 && argc != 5) return usage_error("clock", "needs DIR [advance SECONDS]");
  Device d = Device::open(argv[2]);
  if (argc == 5) {
    if (std::string(argv[3]) != "advance") return usage_error("clock", "unknown word " + std::string(argv[3]));
    d.advance_clock(seconds_arg("clock", "advance", argv[4]));
  }
  std::cout << format_seconds_ms(d.virtual_ms() * 1000000) << "\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
    std::cout << kUsage;
    return argc < 2 ? 2 : 0;
  }
  std::string command = argv[1];
  if (command == "fleet") return fleet::fleet_main(argc, argv);
  if (command == "--version") {
    std::cout << "tavi-sim " << ota_version_text << "\n";
    return 0;
  }
  if (wants_help(argc, argv)) {
    for (auto& h : kHelp)
      if (command == h.command) {
        std::cout << h.text;
        return 0;
      }
  }
  try {
    if (command == "init") return cmd_init(argc, argv);
    if (command == "run") return cmd_run(argc, argv);
    if (command == "events") return cmd_events(argc, argv);
    if (command == "boot") return cmd_boot(argc, argv);
    if (command == "firmware") return cmd_firmware(argc, argv);
    if (command == "esp") return cmd_esp(argc, argv);
    if (command == "conf") return cmd_conf(argc, argv);
    if (command == "set") return cmd_set(argc, argv, false);
    if (command == "add") return cmd_set(argc, argv, true);
    if (command == "unset") return cmd_unset(argc, argv);
    if (command == "clock") return cmd_clock(argc, argv);
  } catch (const std::exception& e) {
    std::cerr << e.what() << "\n";
    return command == "run" ? kExitSimulator : 1;
  }
  std::cerr << "tavi-sim: unknown command " << command << "\n" << kUsage;
  return 2;
}
