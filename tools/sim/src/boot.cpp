// The machine start: boot loader, the kernel's trial counting, health, start-up entry.

#include "tavisim/boot.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <sstream>

#include "host.h"
#include "kernel.h"
#include "tavisim/esp.h"

namespace tavisim {

namespace {

// The boot disks the firmware looks at, in this order; other images come after them.
const char* kBootDisks[] = {"sda1", "nvme01", "hda1"};

constexpr const char* kTrialRecord = "/system/ERPROBUNG";
// The trial record's layout is the device's own (device_limits.h); bytes 28-29 hold the
// start count "v=NN".
constexpr size_t kTrialRecordBytes = ota::kTrialRecordBytes;
constexpr size_t kStartCountDigits = ota::kTrialStartCountOffset;
constexpr size_t kOkDigit = ota::kTrialOkOffset;

struct MenuEntry {
  bool top_level = true;
  std::string path;
};

}  // namespace

namespace {

// One line of the menu with where it starts and where its text ends (before a CR and LF).
struct MenuLine {
  size_t start = 0;
  size_t end = 0;
  std::string text;
};

std::vector<MenuLine> menu_lines(std::string_view text) {
  std::vector<MenuLine> lines;
  size_t p = 0;
  while (p < text.size()) {
    size_t nl = text.find('\n', p);
    size_t next = nl == std::string_view::npos ? text.size() : nl + 1;
    size_t end = nl == std::string_view::npos ? text.size() : nl;
    if (end > p && text[end - 1] == '\r') end--;
    lines.push_back({p, end, std::string(text.substr(p, end - p))});
    p = next;
  }
  return lines;
}

// The line whose default_entry counts: the first one anywhere in the file, unless a first
// line that is a sub-entry made the boot loader drop the global options. npos: none.
size_t default_line_index(const std::vector<MenuLine>& lines) {
  bool first_line_seen = false;
  for (size_t i = 0; i < lines.size(); i++) {
    const std::string& line = lines[i].text;
    std::string t = trim(line);
    if (t.empty() || t[0] == '#') continue;
    if (line[0] == '/') {
      if (!first_line_seen && line.size() > 1 && line[1] == '/') return std::string::npos;
      first_line_seen = true;
      continue;
    }
    first_line_seen = true;
    size_t colon = t.find(':');
    if (colon != std::string::npos && trim(t.substr(0, colon)) == "default_entry") return i;
  }
  return std::string::npos;
}

}  // namespace

MenuChoice choose_boot_entry(std::string_view text, int force_entry) {
  MenuChoice c;
  std::vector<MenuEntry> entries;
  MenuEntry* current = nullptr;
  std::vector<MenuLine> lines = menu_lines(text);
  for (const MenuLine& l : lines) {
    const std::string& line = l.text;
    std::string t = trim(line);
    if (t.empty() || t[0] == '#') continue;
    if (line[0] == '/') {
      entries.push_back({!(line.size() > 1 && line[1] == '/'), ""});
      current = &entries.back();
      continue;
    }
    size_t colon = t.find(':');
    if (colon == std::string::npos) continue;
    std::string key = trim(t.substr(0, colon));
    if (current && (key == "path" || key == "kernel_path")) current->path = trim(t.substr(colon + 1));
  }
  std::vector<const MenuEntry*> top;
  for (auto& e : entries)
    if (e.top_level) top.push_back(&e);
  c.entries = static_cast<int>(top.size());
  if (top.empty()) {
    c.problem = "no boot entry in limine.conf";
    return c;
  }
  int chosen = 1;
  size_t d = default_line_index(lines);
  if (d != std::string::npos) {
    std::string t = trim(lines[d].text);
    uint64_t n = 0;
    if (parse_u64(trim(t.substr(t.find(':') + 1)), n) && n >= 1 && n <= top.size()) chosen = static_cast<int>(n);
  }
  if (force_entry >= 1 && force_entry <= c.entries) chosen = force_entry;
  c.entry = chosen;
  const std::string& path = top[static_cast<size_t>(chosen - 1)]->path;
  if (path.rfind("boot():", 0) != 0 || path.size() <= 7) {
    c.problem = path.empty() ? "entry " + std::to_string(chosen) + " names no kernel"
                             : "entry " + std::to_string(chosen) + " names a kernel off this disk: " + path;
    return c;
  }
  c.kernel_path = path.substr(7);
  return c;
}

std::string menu_with_default_one(std::string_view text) {
  std::vector<MenuLine> lines = menu_lines(text);
  size_t d = default_line_index(lines);
  if (d == std::string::npos) return std::string(text);
  const MenuLine& l = lines[d];
  size_t colon = text.find(':', l.start);
  std::string out(text.substr(0, colon + 1));
  out += " 1";
  out += text.substr(l.end);
  return out;
}

KernelImage read_kernel_image(std::string_view image) {
  KernelImage k;
  size_t n = image.find('\n');
  if (n == std::string_view::npos) return k;
  std::vector<std::string> w = split_words(image.substr(0, n));
  if (w.size() < 4 || w[0] != "TAVI-KERNEL") return k;
  for (size_t i = 1; i < w.size(); i++) {
    if (w[i].rfind("build=", 0) == 0) k.build = w[i].substr(6);
    else if (w[i].rfind("commit=", 0) == 0) k.commit = w[i].substr(7);
    else if (w[i] == "health=good") k.healthy = true;
    else if (w[i] == "health=broken") k.healthy = false;
  }
  k.valid = !k.build.empty() && !k.commit.empty();
  return k;
}

std::string stand_in_kernel(uint64_t build, const std::string& commit, bool healthy, size_t size) {
  std::string s = "TAVI-KERNEL build=" + std::to_string(build) + " commit=" + commit +
                  (healthy ? " health=good\n" : " health=broken\n");
  for (size_t i = s.size(); i < size; i++) s += static_cast<char>(i % 251);
  return s;
}

BootResult Kernel::boot(const RunOptions& options, bool run_start_entry) {
  // Whatever ran before is gone, and nothing stays mounted over a restart.
  if (!tracees_.empty()) stop_machine(Stop::power);
  unmount_all(true);
  st_.boot_ns = st_.clock_ns;
  st_.killed_slots.clear();
  st_.healthy = false;
  BootResult b;
  auto stuck = [&](const std::string& why) {
    b.stuck = why;
    std::vector<std::string> fields = {"stuck=" + why};
    if (!b.disk.empty()) fields.push_back("disk=" + b.disk);
    log("boot", 0, fields);
    save_state();
    return b;
  };

  std::vector<std::string> disks(std::begin(kBootDisks), std::end(kBootDisks));
  TreeListing images = list_tree(dir_ + "/disks");
  for (auto& f : images.files) {
    if (f.size() < 5 || f.compare(f.size() - 4, 4, ".img") != 0) continue;
    std::string d = f.substr(0, f.size() - 4);
    if (std::find(disks.begin(), disks.end(), d) == disks.end()) disks.push_back(d);
  }
  std::string image, menu;
  for (auto& d : disks) {
    std::string img = dir_ + "/disks/" + d + ".img";
    if (!host_exists(img) || !fat_valid(img)) continue;
    auto conf = fat_read(img, "limine.conf");
    if (!conf) continue;
    b.disk = d;
    image = img;
    menu = *conf;
    break;
  }
  if (image.empty()) return stuck("no ESP with a limine.conf");

  // The boot loader starts the default entry's kernel, or nothing at all: it never falls
  // back by itself.
  MenuChoice m = choose_boot_entry(menu);
  b.entry = m.entry;
  if (!m.problem.empty()) return stuck(m.problem);
  auto load = [&](const MenuChoice& choice) -> std::optional<std::string> {
    b.entry = choice.entry;
    b.kernel_path = choice.kernel_path;
    auto kernel = fat_read(image, choice.kernel_path.substr(1));
    if (!kernel) {
      b.stuck = "Failed to open kernel with path boot():" + choice.kernel_path;
      return std::nullopt;
    }
    b.kernel = read_kernel_image(*kernel);
    if (!b.kernel.valid) {
      b.stuck = "the kernel image " + choice.kernel_path + " does not start";
      return std::nullopt;
    }
    return kernel;
  };
  if (!load(m)) return stuck(b.stuck);

  // The kernel that started counts the starts of an unconfirmed trial in the trial record
  // itself. Past the allowed number it falls back to entry 1, and makes that lasting: it
  // sets the menu's default to entry 1 on the ESP, so a trial that ends without the
  // counter (confirmed, rolled back, removed) cannot lead back to the entry that failed.
  auto record = fs_->read(kTrialRecord);
  if (record && record->size() == kTrialRecordBytes && (*record)[kOkDigit] == '0') {
    int v = 0;
    for (size_t i = kStartCountDigits; i < kStartCountDigits + 2; i++)
      v = v * 10 + (isdigit(static_cast<unsigned char>((*record)[i])) ? (*record)[i] - '0' : 0);
    v = std::min(v + 1, 99);
    (*record)[kStartCountDigits] = static_cast<char>('0' + v / 10);
    (*record)[kStartCountDigits + 1] = static_cast<char>('0' + v % 10);
    fs_->write(kTrialRecord, *record);
    b.trial_starts = v;
    if (v > cfg_.boot_tries && m.entry != 1) {
      b.fallback = true;
      std::string reset = menu_with_default_one(menu);
      if (reset != menu) {
        fat_write(image, "limine.conf", reset);
        b.menu_reset = true;
      }
      b.kernel = KernelImage{};
      if (!load(choose_boot_entry(menu, 1))) return stuck(b.stuck);
    }
  }

  fs_->make_dirs("/proc");
  fs_->write("/proc/version", "tavi " + b.kernel.build + " build " + b.kernel.commit + " (tavi-sim stand-in kernel)\n");
  st_.healthy = b.kernel.healthy;
  b.booted = true;
  std::vector<std::string> fields = {"disk=" + b.disk, "entry=" + std::to_string(b.entry), "kernel=" + b.kernel_path,
                                     "build=" + b.kernel.build, "commit=" + b.kernel.commit,
                                     b.kernel.healthy ? "health=good" : "health=broken"};
  if (b.trial_starts >= 0) fields.push_back("starts=" + std::to_string(b.trial_starts));
  if (b.fallback) fields.push_back("fallback");
  if (b.menu_reset) fields.push_back("menu-default=1");
  log("boot", 0, fields);
  save_state();

  if (run_start_entry && !cfg_.start_entry.empty()) {
    std::vector<std::string> argv = {"/bin/ota"};
    argv.insert(argv.end(), cfg_.start_entry.begin(), cfg_.start_entry.end());
    b.ran_start_entry = true;
    b.start_entry = wait(start(argv, options), 0);
  }
  return b;
}

}  // namespace tavisim
