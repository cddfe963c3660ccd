// The machine start: boot loader, the kernel's trial counting, health, start-up entry.

#include "tavisim/boot.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <optional>

#include "host.h"
#include "kernel.h"
#include "tavisim/esp.h"
#include "trial_record.h"

namespace tavisim {

namespace {

// The boot disks the firmware looks at, in this order; other images come after them.
const char* kBootDisks[] = {"sda1", "nvme01", "hda1"};

// The trial record's layout is the device's own (device_limits.h); bytes 28-29 hold the
// start count "v=NN".
constexpr size_t kStartCountDigits = ota::kTrialStartCountOffset;

constexpr const char* kFirmwareFile = "/firmware.state";

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

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return out;
}

// An option line "name: value". Option names are not case-sensitive, so the name comes
// back in lower case. Entry lines, comments and blank lines are no options.
bool option_of(const std::string& line, std::string* name, std::string* value) {
  std::string t = trim(line);
  if (t.empty() || t[0] == '#' || line[0] == '/') return false;
  size_t colon = t.find(':');
  if (colon == std::string::npos) return false;
  *name = lower(trim(t.substr(0, colon)));
  *value = trim(t.substr(colon + 1));
  return true;
}

// The line of the global option `name` that counts: the first one anywhere in the file,
// unless a first line that is a sub-entry made the boot loader drop the global options.
// npos: none.
size_t option_line_index(const std::vector<MenuLine>& lines, const std::string& wanted) {
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
    std::string name, value;
    if (option_of(line, &name, &value) && name == wanted) return i;
  }
  return std::string::npos;
}

std::string option_value(const std::vector<MenuLine>& lines, const std::string& name) {
  size_t i = option_line_index(lines, name);
  std::string n, v;
  if (i == std::string::npos || !option_of(lines[i].text, &n, &v)) return "";
  return v;
}

// An entry of the menu: a line starting with one or more "/" (its depth) and the option
// lines after it.
struct MenuEntry {
  int depth = 1;
  std::string title;
  std::string path;
  bool directory = false;  // the next entry lies deeper: this one holds sub-entries
  int top = 0;             // the top-level entry it is or lies under, from 1; 0: none
};

std::vector<MenuEntry> menu_entries(const std::vector<MenuLine>& lines) {
  std::vector<MenuEntry> entries;
  int top = 0;
  for (const MenuLine& l : lines) {
    const std::string& line = l.text;
    if (line.empty()) continue;
    if (line[0] == '/') {
      MenuEntry e;
      size_t slashes = line.find_first_not_of('/');
      if (slashes == std::string::npos) slashes = line.size();
      e.depth = static_cast<int>(slashes);
      e.title = trim(line.substr(slashes));
      if (e.depth == 1) top++;
      e.top = top;
      entries.push_back(e);
      continue;
    }
    std::string name, value;
    if (!entries.empty() && option_of(line, &name, &value) && (name == "path" || name == "kernel_path"))
      entries.back().path = value;
  }
  for (size_t i = 0; i + 1 < entries.size(); i++) entries[i].directory = entries[i + 1].depth > entries[i].depth;
  return entries;
}

}  // namespace

MenuChoice choose_boot_entry(std::string_view text, const BootSelection& selection) {
  MenuChoice c;
  std::vector<MenuLine> lines = menu_lines(text);
  std::vector<MenuEntry> entries = menu_entries(lines);
  std::vector<const MenuEntry*> top;
  for (auto& e : entries)
    if (e.depth == 1) top.push_back(&e);
  c.entries = static_cast<int>(top.size());
  if (top.empty()) {
    c.problem = "no boot entry in limine.conf";
    return c;
  }
  c.remember = option_value(lines, "remember_last_entry") == "yes";
  auto titled = [&](const std::string& title) -> const MenuEntry* {
    for (auto& e : entries)
      if (e.top > 0 && e.title == title) return &e;
    return nullptr;
  };

  const MenuEntry* chosen = nullptr;
  if (!selection.pick.empty()) {
    c.picked = true;
    uint64_t n = 0;
    if (parse_u64(selection.pick, n)) {
      if (n < 1 || n > top.size()) {
        c.problem = "there is no entry " + selection.pick + " to pick";
        return c;
      }
      chosen = top[static_cast<size_t>(n - 1)];
    } else if (!(chosen = titled(selection.pick))) {
      c.problem = "there is no entry titled \"" + selection.pick + "\" to pick";
      return c;
    }
  } else {
    // default_entry names a top-level entry by its number or (as Limine 11 reads it) by
    // its title; anything else, or a number beyond the entries, means entry 1.
    chosen = top[0];
    std::string value = option_value(lines, "default_entry");
    uint64_t n = 0;
    if (parse_u64(value, n)) {
      if (n >= 1 && n <= top.size()) chosen = top[static_cast<size_t>(n - 1)];
    } else {
      for (const MenuEntry* e : top)
        if (!value.empty() && e->title == value) {
          chosen = e;
          break;
        }
    }
    if (c.remember && !selection.remembered.empty()) {
      if (const MenuEntry* e = titled(selection.remembered)) {
        chosen = e;
        c.remembered = true;
      }
    }
  }
  c.entry = chosen->top;
  c.title = chosen->title;
  c.sub_entry = chosen->depth > 1;
  std::string which = c.sub_entry ? "entry \"" + chosen->title + "\"" : "entry " + std::to_string(c.entry);
  if (chosen->directory) {
    c.waits = true;
    c.problem = "the boot menu waits: " + which + " is a directory, shown as \"[+] " + chosen->title + "\"";
    return c;
  }
  const std::string& path = chosen->path;
  if (path.rfind("boot():", 0) != 0 || path.size() <= 7) {
    c.problem = path.empty() ? which + " names no kernel" : which + " names a kernel off this disk: " + path;
    return c;
  }
  c.kernel_path = path.substr(7);
  return c;
}

MenuChoice choose_boot_entry(std::string_view text, int force_entry) {
  MenuChoice c = choose_boot_entry(text, BootSelection{});
  if (force_entry < 1 || force_entry > c.entries) return c;
  BootSelection s;
  s.pick = std::to_string(force_entry);
  return choose_boot_entry(text, s);
}

std::string menu_with_default_one(std::string_view text) {
  std::vector<MenuLine> lines = menu_lines(text);
  size_t d = option_line_index(lines, "default_entry");
  if (d == std::string::npos) return std::string(text);
  const MenuLine& l = lines[d];
  size_t colon = text.find(':', l.start);
  std::string out(text.substr(0, colon + 1));
  out += " 1";
  out += text.substr(l.end);
  return out;
}

std::string multiboot1_refusal(std::string_view image) {
  if (image.size() < kernel_image::kMultiboot1WordsBytes) return "Kernel file too small to contain header";
  Multiboot1Header h = find_multiboot1_header(image);
  if (!h.found) return "multiboot1: no header in the first 8192 bytes";
  if (!h.checksum_ok) return "multiboot1: the header checksum is wrong";
  if (!(h.flags & kernel_image::kMultiboot1VideoFlag)) return "PANIC: multiboot1: Cannot use text mode with UEFI.";
  return "";
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
  std::string s = kernel_image::stand_in_first_line(build, commit, healthy);
  size_t at = kernel_image::stand_in_header_offset(s.size());
  size = std::max(size, at + kernel_image::kMultiboot1HeaderBytes);
  for (size_t i = s.size(); i < size; i++) s += static_cast<char>(i % 251);
  kernel_image::put_stand_in_header(s, at);
  return s;
}

FirmwareState read_firmware_state(const std::string& device_dir) {
  FirmwareState s;
  std::string path = device_dir + kFirmwareFile;
  auto text = read_host_file(path);
  if (!text) return s;
  int no = 0;
  for (const std::string& line : text_lines(*text)) {
    no++;
    if (line.empty() || line[0] == '#') continue;
    size_t tab = line.find('\t');
    std::string name = line.substr(0, tab);
    if (name == "last-booted-entry" && tab != std::string::npos) {
      s.last_booted_entry = unescape_field(line.substr(tab + 1));
      continue;
    }
    throw SimError(path + ":" + std::to_string(no) + ": cannot read: " + line);
  }
  return s;
}

namespace {

std::string format_firmware_state(const FirmwareState& s) {
  std::string text = "# tavi-sim firmware state: the boot loader's variables, kept across restarts\n";
  if (!s.last_booted_entry.empty()) text += "last-booted-entry\t" + escape_field(s.last_booted_entry) + "\n";
  return text;
}

}  // namespace

void write_firmware_state(const std::string& device_dir, const FirmwareState& s) {
  std::string path = device_dir + kFirmwareFile;
  if (!replace_host_file(path, format_firmware_state(s))) throw SimError("cannot write " + path);
}

BootResult Kernel::boot(const BootOptions& options) {
  // Whatever ran before is gone, and nothing stays mounted over a restart.
  if (!processes_.empty()) stop_machine(Stop::power);
  unmount_all(true);
  st_.restarted();
  st_.healthy = false;
  BootResult b;
  BootSelection selection;
  selection.pick = options.pick;
  FirmwareState firmware = read_firmware_state(dir_);
  selection.remembered = firmware.last_booted_entry;
  // How the entry was chosen, for the event: by hand, or as the entry the firmware remembered.
  auto chosen_fields = [&](const MenuChoice& c) {
    std::vector<std::string> fields;
    if (c.picked) fields.push_back("picked=" + options.pick);
    if (c.remembered) fields.push_back("remembered=" + c.title);
    if (c.sub_entry) fields.push_back("title=" + c.title);
    return fields;
  };
  auto stuck = [&](const std::string& why, const MenuChoice* c = nullptr) {
    b.stuck = why;
    std::vector<std::string> fields = {"stuck=" + why};
    if (!b.disk.empty()) fields.push_back("disk=" + b.disk);
    if (c)
      for (auto& f : chosen_fields(*c)) fields.push_back(f);
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

  // The boot loader starts the chosen entry's kernel, or nothing at all: it never falls
  // back by itself.
  MenuChoice m = choose_boot_entry(menu, selection);
  b.entry = m.entry;
  b.picked = m.picked;
  b.remembered = m.remembered;
  if (!m.problem.empty()) return stuck(m.problem, &m);
  auto load = [&](const MenuChoice& choice) -> std::optional<std::string> {
    b.entry = choice.entry;
    b.kernel_path = choice.kernel_path;
    auto kernel = fat_read(image, choice.kernel_path.substr(1));
    if (!kernel) {
      b.stuck = "Failed to open kernel with path boot():" + choice.kernel_path;
      return std::nullopt;
    }
    b.stuck = multiboot1_refusal(*kernel);
    if (!b.stuck.empty()) return std::nullopt;
    b.kernel = read_kernel_image(*kernel);
    if (!b.kernel.valid) {
      b.stuck = "the kernel image " + choice.kernel_path + " does not start";
      return std::nullopt;
    }
    // With remember_last_entry the loader notes in a firmware variable which entry it
    // starts; the next start takes that one instead of the default.
    if (choice.remember && firmware.last_booted_entry != choice.title) {
      firmware.last_booted_entry = choice.title;
      write_firmware_state(dir_, firmware);
    }
    return kernel;
  };
  if (!load(m)) return stuck(b.stuck, &m);
  std::vector<std::string> how = chosen_fields(m);
  // The event of a start that got as far as a kernel: the kernel loaded, then what the
  // trial counting did.
  auto started = [&] {
    std::vector<std::string> fields = {"disk=" + b.disk,          "entry=" + std::to_string(b.entry),
                                       "kernel=" + b.kernel_path, "build=" + b.kernel.build,
                                       "commit=" + b.kernel.commit, b.kernel.healthy ? "health=good" : "health=broken"};
    if (b.trial_starts >= 0) fields.push_back("starts=" + std::to_string(b.trial_starts));
    fields.insert(fields.end(), how.begin(), how.end());
    if (b.fallback) fields.push_back("fallback");
    if (b.menu_reset) fields.push_back("menu-default=1");
    if (b.restarted) fields.push_back("restart");
    log("boot", 0, fields);
    save_state();
  };

  // The kernel that started counts the starts of an unconfirmed trial in the trial record
  // itself. Past the allowed number it falls back to entry 1, and makes that lasting: it
  // sets the menu's default to entry 1 on the ESP, so a trial that ends without the
  // counter (confirmed, rolled back, removed) cannot lead back to the entry that failed.
  auto record = fs_.read(kTrialRecordPath);
  if (trial_open(record)) {
    int v = 0;
    for (size_t i = kStartCountDigits; i < kStartCountDigits + 2; i++)
      v = v * 10 + (isdigit(static_cast<unsigned char>((*record)[i])) ? (*record)[i] - '0' : 0);
    v = std::min(v + 1, 99);
    (*record)[kStartCountDigits] = static_cast<char>('0' + v / 10);
    (*record)[kStartCountDigits + 1] = static_cast<char>('0' + v % 10);
    fs_.write(kTrialRecordPath, *record);
    b.trial_starts = v;
    if (v > cfg_.boot_tries && m.entry != 1) {
      b.fallback = true;
      std::string reset = menu_with_default_one(menu);
      if (reset != menu) {
        fat_write(image, "limine.conf", reset);
        b.menu_reset = true;
      }
      // The fallback goes through the boot loader again, which starts entry 1 unless it
      // remembers the entry it booted last: then the same entry starts again, counts again
      // and falls back again, a restart without end. This start ends in that restart.
      BootSelection again;
      again.remembered = firmware.last_booted_entry;
      MenuChoice next = choose_boot_entry(reset, again);
      if (!next.problem.empty()) return stuck(next.problem, &next);
      if (next.entry != 1) {
        b.restarted = true;
        started();
        return b;
      }
      b.kernel = KernelImage{};
      if (!load(next)) return stuck(b.stuck, &next);
      how.clear();
    }
  }

  fs_.make_dirs("/proc");
  fs_.write("/proc/version", "tavi " + b.kernel.build + " build " + b.kernel.commit + " (tavi-sim stand-in kernel)\n");
  st_.healthy = b.kernel.healthy;
  b.booted = true;
  started();

  if (options.start_entry && !cfg_.start_entry.empty()) {
    std::vector<std::string> argv = {"/bin/ota"};
    argv.insert(argv.end(), cfg_.start_entry.begin(), cfg_.start_entry.end());
    b.ran_start_entry = true;
    b.start_entry = wait(start(argv, options.run), 0);
  }
  return b;
}

}  // namespace tavisim
