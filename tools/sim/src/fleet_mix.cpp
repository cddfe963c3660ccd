// The release a fleet rehearses, read from its sources, and the mix its devices start
// from: one line per value with a weight, drawn independently for each device.

#include <algorithm>

#include "fleet.h"
#include "host.h"
#include "tavisim/config.h"

namespace tavisim::fleet {

Draws::Draws(uint64_t seed, uint64_t index, uint64_t stream) : state_(mix64(mix64(seed, index), stream)) {}

uint64_t Draws::next() {
  state_ += 0x9e3779b97f4a7c15ull;
  return mix64(state_, 0);
}

bool Draws::chance(uint32_t ppm) { return next() % 1000000 < ppm; }

uint64_t Draws::between_one_and(uint64_t n) { return n == 0 ? 1 : next() % n + 1; }

namespace {

uint64_t leading_number(const std::string& s) {
  uint64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') break;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  return v;
}

std::string must_read(const std::string& path) {
  auto text = read_host_file(path);
  if (!text) throw SimError("cannot read " + path);
  return *text;
}

}  // namespace

Release read_release(const std::string& package_dir, const std::string& system_dir) {
  Release r;
  r.package_dir = package_dir;
  std::string catalog = must_read(package_dir + "/VERZEICHNIS");
  if (catalog.compare(0, 4, "OTA2") != 0) throw SimError(package_dir + "/VERZEICHNIS is not a catalog (no OTA2 marker)");
  r.catalog_sha256 = sha256_hex(catalog);
  bool version_seen = false;
  for (auto& line : text_lines(catalog)) {
    auto f = tab_fields(line);
    if (f[0] == "fassung" && f.size() > 1 && !version_seen) {
      r.version = leading_number(f[1]);
      version_seen = true;
    } else if (f[0] == "kette" && f.size() > 1) {
      r.newest_generation = std::max(r.newest_generation, leading_number(f[1]));
    }
  }
  if (r.version == 0) throw SimError(package_dir + "/VERZEICHNIS offers no version (no fassung line)");
  // The installer's list names each package with the version word a device records.
  if (auto index = read_host_file(package_dir + "/INDEX")) {
    for (auto& line : text_lines(*index)) {
      auto f = tab_fields(line);
      if (f.size() >= 2 && !f[0].empty()) r.packages[f[0]] = f[1];
    }
  }
  if (system_dir.empty()) return r;

  r.has_system = true;
  r.system_dir = system_dir;
  std::string manifest = must_read(system_dir + "/VERZEICHNIS");
  if (manifest.compare(0, 4, "OTA2") != 0) throw SimError(system_dir + "/VERZEICHNIS is not a catalog (no OTA2 marker)");
  r.system_catalog_sha256 = sha256_hex(manifest);
  bool system_seen = false;
  for (auto& line : text_lines(manifest)) {
    auto f = tab_fields(line);
    if (f[0] == "system" && !system_seen && f.size() > 2) {
      system_seen = true;
      r.build = leading_number(f[1]);
      r.commit = f[2];
      r.min_from = f.size() > 3 ? leading_number(f[3]) : 0;
    } else if (f[0] == "sysfile" && f.size() > 4 && f[1] == "kernel") {
      r.kernel_bytes = leading_number(f[3]);
      r.kernel_file = f[4];
    } else if (f[0] == "sysfile" && f.size() > 5 && f[1] == "file") {
      // A bare program name goes to /bin; any other target is its own path.
      std::string path = !f[5].empty() && f[5][0] == '/' ? f[5] : "/bin/" + f[5];
      r.overlay.push_back({path, f[2], f[4]});
    } else if (f[0] == "kette" && f.size() > 1) {
      r.newest_generation = std::max(r.newest_generation, leading_number(f[1]));
    }
  }
  if (!system_seen || r.build == 0) throw SimError(system_dir + "/VERZEICHNIS offers no system build (no system line)");
  if (r.kernel_file.empty()) throw SimError(system_dir + "/VERZEICHNIS names no kernel image");
  if (!host_exists(system_dir + "/" + r.kernel_file))
    throw SimError("the kernel image " + system_dir + "/" + r.kernel_file + " is missing");
  return r;
}

namespace {

constexpr uint64_t kWeightScale = 1000;  // weights are kept in thousandths

// Keys with a distribution, in the order a device's start is drawn.
const char* kDrawnKeys[] = {"version", "keygen", "build", "spare", "free", "trial", "auto"};

std::vector<MixValue>& values_of(Mix& m, const std::string& key) {
  if (key == "version") return m.version;
  if (key == "keygen") return m.keygen;
  if (key == "build") return m.build;
  if (key == "spare") return m.spare;
  if (key == "free") return m.free_blocks;
  if (key == "trial") return m.trial;
  return m.automatic;
}

const std::vector<MixValue>& values_of(const Mix& m, const std::string& key) {
  return values_of(const_cast<Mix&>(m), key);
}

bool parse_weight(std::string text, uint64_t& thousandths) {
  if (!text.empty() && text.back() == '%') text.pop_back();
  int64_t ns;
  // Seconds are read with nine decimals; a weight keeps three of them.
  if (!parse_seconds(text, ns)) return false;
  thousandths = static_cast<uint64_t>(ns / 1000000);
  return true;
}

// "12", "new", "new-2", "min+1": a number, or one relative to a base the release gives.
// nullopt: not such a value, or below 0.
std::optional<uint64_t> resolve(const std::string& text, const std::map<std::string, std::optional<uint64_t>>& bases,
                                std::string* why) {
  uint64_t v;
  if (parse_u64(text, v)) return v;
  size_t op = text.find_first_of("+-");
  std::string base = text.substr(0, op);
  auto it = bases.find(base);
  if (it == bases.end()) {
    *why = "not a number or a value relative to the release: " + text;
    return std::nullopt;
  }
  if (!it->second) {
    *why = base + " means nothing without a system source: " + text;
    return std::nullopt;
  }
  uint64_t b = *it->second;
  if (op == std::string::npos) return b;
  uint64_t d;
  if (!parse_u64(text.substr(op + 1), d)) {
    *why = "not a number after " + text.substr(0, op + 1) + ": " + text;
    return std::nullopt;
  }
  if (text[op] == '+') return b + d;
  if (d > b) {
    *why = text + " is below 0 for this release";
    return std::nullopt;
  }
  return b - d;
}

struct Resolver {
  const Release& release;
  bool spare_given;

  std::map<std::string, std::optional<uint64_t>> bases(const std::string& key) const {
    if (key == "version") return {{"new", release.version}};
    if (key == "keygen") return {{"new", release.newest_generation}};
    std::optional<uint64_t> build, min;
    if (release.has_system) {
      build = release.build;
      min = release.min_from;
    }
    return {{"new", build}, {"min", min}};
  }

  // Fills v.value from v.text for the key; false with why when it cannot.
  bool value(const std::string& key, MixValue& v, std::string* why) const {
    if (key == "version" || key == "keygen" || key == "build") {
      auto r = resolve(v.text, bases(key), why);
      if (!r) return false;
      v.value = *r;
      if (v.value > 99999999) {
        *why = "devices keep eight digits: " + v.text;
        return false;
      }
      return true;
    }
    if (key == "free") {
      if (!parse_u64(v.text, v.value)) {
        *why = "not a number of free blocks: " + v.text;
        return false;
      }
      return true;
    }
    if (key == "spare") {
      if (v.text != "yes" && v.text != "no") {
        *why = "must be yes or no: " + v.text;
        return false;
      }
      if (v.text == "yes" && !spare_given) {
        *why = "spare keys need --spare";
        return false;
      }
      return true;
    }
    if (key == "trial") {
      if (v.text != "none" && v.text != "open" && v.text != "system") {
        *why = "must be none, open or system: " + v.text;
        return false;
      }
      if (v.text == "system" && !release.has_system) {
        *why = "a staged system update needs --system-source";
        return false;
      }
      return true;
    }
    // auto: the word written as auto= (ja and true keep the service on).
    if (v.text.empty() || v.text.find('=') != std::string::npos) {
      *why = "not a value for auto=: " + v.text;
      return false;
    }
    return true;
  }
};

void add_default(Mix& m, const Resolver& r, const std::string& key, const std::string& text, uint64_t percent) {
  MixValue v;
  v.text = text;
  v.weight = percent * kWeightScale;
  v.weight_text = std::to_string(percent);
  std::string why;
  // A default that means nothing for this release (below 0) is left out.
  if (!r.value(key, v, &why)) return;
  values_of(m, key).push_back(v);
}

}  // namespace

Mix default_mix(const Release& rel, bool spare_given) {
  Mix m;
  Resolver r{rel, spare_given};
  add_default(m, r, "version", "new-1", 50);
  add_default(m, r, "version", "new-2", 20);
  add_default(m, r, "version", "new", 15);
  add_default(m, r, "version", "0", 10);
  add_default(m, r, "version", "new+1", 5);
  add_default(m, r, "keygen", "0", 100);
  if (rel.has_system && rel.min_from > 0) {
    add_default(m, r, "build", "new-1", 55);
    add_default(m, r, "build", "new", 20);
    add_default(m, r, "build", "min", 15);
    add_default(m, r, "build", "min-1", 10);
  } else if (rel.has_system) {
    add_default(m, r, "build", "new-1", 60);
    add_default(m, r, "build", "new", 25);
    add_default(m, r, "build", "new-2", 15);
  } else {
    add_default(m, r, "build", "1", 100);
  }
  if (spare_given) {
    add_default(m, r, "spare", "yes", 90);
    add_default(m, r, "spare", "no", 10);
  } else {
    add_default(m, r, "spare", "no", 100);
  }
  add_default(m, r, "free", "1000000", 95);
  add_default(m, r, "free", "64", 5);
  add_default(m, r, "trial", "none", rel.has_system ? 90 : 95);
  add_default(m, r, "trial", "open", 5);
  if (rel.has_system) add_default(m, r, "trial", "system", 5);
  add_default(m, r, "auto", "ja", 95);
  add_default(m, r, "auto", "nein", 5);
  if (!rel.has_system) m.sysabstand = 0;
  return m;
}

Mix parse_mix(const std::string& text, const std::string& origin, const Release& rel, bool spare_given) {
  Mix m = default_mix(rel, spare_given);
  Resolver r{rel, spare_given};
  std::vector<std::string> replaced;
  int no = 0;
  for (auto& raw : text_lines(text)) {
    no++;
    std::string line = trim(raw);
    if (line.empty() || line[0] == '#') continue;
    size_t hash = line.find(" #");
    if (hash != std::string::npos) line = trim(line.substr(0, hash));
    auto w = split_words(line);
    const std::string& key = w[0];
    auto bad = [&](const std::string& what) {
      return SimError(origin + ":" + std::to_string(no) + ": " + what + " (line: " + line + ")");
    };
    if (key == "abstand" || key == "sysabstand") {
      if (w.size() != 2) throw bad(key + " wants one number of seconds");
      uint64_t v;
      if (!parse_u64(w[1], v)) throw bad("not a number of seconds: " + w[1]);
      if (key == "abstand" && v == 0) throw bad("abstand 0 switches the service off for every device; use auto nein");
      (key == "abstand" ? m.abstand : m.sysabstand) = v;
      if (!rel.has_system) m.sysabstand = 0;
      continue;
    }
    if (key == "restart" || key == "system-apply") {
      if (w.size() != 2) throw bad(key + " wants one share from 0 to 1");
      uint32_t ppm;
      if (!parse_share_ppm(w[1], ppm)) throw bad("not a share from 0 to 1: " + w[1]);
      (key == "restart" ? m.restart_ppm : m.system_apply_ppm) = ppm;
      continue;
    }
    if (std::find(std::begin(kDrawnKeys), std::end(kDrawnKeys), key) == std::end(kDrawnKeys))
      throw bad("unknown key " + key +
                " (version, keygen, build, spare, free, trial, auto, abstand, sysabstand, restart, system-apply)");
    size_t most = key == "keygen" ? 4 : 3;
    if (w.size() < 3 || w.size() > most) throw bad(key + " wants a value and a weight" + (key == "keygen" ? " [key file]" : ""));
    MixValue v;
    v.text = w[1];
    v.weight_text = w[2];
    if (!parse_weight(w[2], v.weight)) throw bad("not a weight: " + w[2]);
    if (w.size() == 4) {
      v.key_file = w[3];
      auto key_bytes = read_host_file(v.key_file);
      if (!key_bytes || key_bytes->size() != 32) throw bad("not a 32-byte public key: " + v.key_file);
    }
    std::string why;
    if (!r.value(key, v, &why)) throw bad(why);
    if (std::find(replaced.begin(), replaced.end(), key) == replaced.end()) {
      values_of(m, key).clear();
      replaced.push_back(key);
    }
    values_of(m, key).push_back(v);
  }
  for (const char* key : kDrawnKeys) {
    uint64_t total = 0;
    for (auto& v : values_of(m, key)) total += v.weight;
    if (total == 0) throw SimError(origin + ": the weights of " + key + " add up to 0");
  }
  return m;
}

std::vector<std::string> format_mix(const Mix& m) {
  std::vector<std::string> lines;
  for (const char* key : kDrawnKeys) {
    for (auto& v : values_of(m, key)) {
      std::string shown = v.text;
      if (std::string(key) == "version" || std::string(key) == "keygen" || std::string(key) == "build") {
        if (shown != std::to_string(v.value)) shown = std::to_string(v.value) + " (" + v.text + ")";
      }
      std::string line = std::string(key) + " " + shown + " " + v.weight_text;
      if (!v.key_file.empty()) line += " " + v.key_file.substr(v.key_file.find_last_of('/') + 1);
      lines.push_back(line);
    }
  }
  lines.push_back("abstand " + std::to_string(m.abstand));
  lines.push_back("sysabstand " + std::to_string(m.sysabstand));
  lines.push_back("restart " + format_share_ppm(m.restart_ppm));
  lines.push_back("system-apply " + format_share_ppm(m.system_apply_ppm));
  return lines;
}

namespace {

const MixValue& pick(const std::vector<MixValue>& values, Draws& d) {
  uint64_t total = 0;
  for (auto& v : values) total += v.weight;
  uint64_t x = d.next() % total;
  for (auto& v : values) {
    if (x < v.weight) return v;
    x -= v.weight;
  }
  return values.back();
}

}  // namespace

StartState draw_start(const Mix& m, uint64_t seed, uint64_t index) {
  Draws d(seed, index, 1);
  StartState s;
  s.version = pick(m.version, d).value;
  const MixValue& k = pick(m.keygen, d);
  s.keygen = k.value;
  s.key_file = k.key_file;
  s.build = pick(m.build, d).value;
  s.spare = pick(m.spare, d).text == "yes";
  s.free_blocks = pick(m.free_blocks, d).value;
  s.trial = pick(m.trial, d).text;
  s.automatic = pick(m.automatic, d).text;
  return s;
}

}  // namespace tavisim::fleet
