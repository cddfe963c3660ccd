// ota-publish check: looks at a source the way a device would before it takes anything
// from it, and says what it found. It exits 0 only when a device would accept the source.
#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <set>

#include "args.h"
#include "catalog_text.h"
#include "commands.h"
#include "gzip.h"
#include "key_chain.h"
#include "limits.h"
#include "multiboot.h"
#include "rules.h"
#include "gzip/gunzip.h"

namespace publish {

const char kCheckHelp[] =
    "usage: ota-publish check DIR --trusted PUB [--spare PUB] [--generation G] [--system]\n"
    "\n"
    "Checks the source in DIR as a device with trusted key PUB (and spare key, and key\n"
    "generation G, default 0) would: the VERZEICHNIS fits 32767 bytes; the key changes are\n"
    "followed from generation G+1, each verified by the key trusted at that step or the\n"
    "spare key; the signature verifies with the newest key reached, or the spare key; the\n"
    "text begins with \"OTA2\"; no field is longer than a device keeps it.\n"
    "Package source: the offered version, each package file with its length, SHA-256 and\n"
    ".sig, INDEX and INDEX.sig.\n"
    "--system: the system line, the kernel entry, notes, roots, each overlay file and its\n"
    "gzip variant (unpacked and compared), the links and the overlay journal size; the\n"
    "kernel a device would fetch must carry a multiboot1 header that Limine on UEFI starts\n"
    "(magic, checksum, a framebuffer asked for).\n"
    "Findings go to standard output, problems to standard error. Exit status 0 when a\n"
    "device would accept the source, 1 when it would not.\n";

namespace {

class Report {
 public:
  void info(const std::string& text) { std::printf("check: %s\n", text.c_str()); }
  void warn(const std::string& text) { std::printf("check: warning: %s\n", text.c_str()); }
  void problem(const std::string& text) {
    std::fflush(stdout);
    std::fprintf(stderr, "check: PROBLEM: %s\n", text.c_str());
    ++problems_;
  }
  int finish() {
    std::fflush(stdout);
    if (problems_ == 0) {
      std::printf("check: ACCEPTED -- a device would take this source\n");
      return 0;
    }
    std::fprintf(stderr, "check: REFUSED -- %d problem(s)\n", problems_);
    return 1;
  }
  int problems() const { return problems_; }

 private:
  int problems_ = 0;
};

std::optional<Bytes> read_optional(const std::string& path) {
  try {
    return read_file(path, "file");
  } catch (const Error&) {
    return std::nullopt;
  }
}

bool is_lower_hex64(const std::string& text) {
  if (text.size() != limits::kShaHexChars) return false;
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

struct Checker {
  std::string dir;
  std::string text;
  PublicKey catalog_key{};
  Report report;

  std::string path(const std::string& name) const { return dir + "/" + name; }

  // A field as a device reads it, with a problem when the device would cut it.
  Field field(std::size_t at, std::size_t n, std::size_t kept, const std::string& what) {
    Field f = line_field(text, at, n, kept);
    if (f.cut) {
      report.problem(what + " " + shown(f.whole) + " is " + std::to_string(f.whole.size()) +
                     " characters; a device keeps " + std::to_string(kept) + " and would cut it");
    }
    return f;
  }

  // The file as a device downloads it: present, of the announced size and hash.
  bool check_download(const std::string& name, std::uint64_t size, const std::string& sha, const std::string& what,
                      Bytes* content = nullptr) {
    std::optional<Bytes> data = read_optional(path(name));
    if (!data) {
      report.problem(what + ": file " + shown(name) + " is missing from the source");
      return false;
    }
    if (data->size() != size) {
      report.problem(what + ": " + shown(name) + " is " + std::to_string(data->size()) + " bytes, announced " +
                     std::to_string(size));
      return false;
    }
    if (sha256_hex(*data) != sha) {
      report.problem(what + ": " + shown(name) + " has a different SHA-256 than announced");
      return false;
    }
    if (content) *content = std::move(*data);
    return true;
  }

  bool check_signature_file(const std::string& name, const Bytes& signed_bytes, const std::string& what) {
    std::optional<Bytes> sig = read_optional(path(name));
    if (!sig) {
      report.problem(what + ": " + shown(name) + " is missing from the source");
      return false;
    }
    if (sig->size() != kSignatureBytes) {
      report.problem(what + ": " + shown(name) + " is " + std::to_string(sig->size()) + " bytes, not 64");
      return false;
    }
    if (!verify_signature(catalog_key, signed_bytes.data(), signed_bytes.size(), sig->data())) {
      report.problem(what + ": " + shown(name) + " does not verify with the key that signed the VERZEICHNIS");
      return false;
    }
    return true;
  }

  void check_packages();
  void check_system();
};

void Checker::check_packages() {
  std::uint64_t version = 0;
  if (auto at = find_line(text, "fassung\t", 0)) {
    std::size_t end = text.find('\n', *at);
    std::string value = text.substr(*at, end == std::string::npos ? std::string::npos : end - *at);
    if (value.size() > limits::kFassungField) {
      report.problem("fassung value " + shown(value) + " is longer than the 23 characters a device reads");
    }
    version = device_decimal(value.substr(0, limits::kFassungField));
    if (!is_plain_number(value)) report.problem("fassung value " + shown(value) + " is not a plain decimal number");
    if (version > limits::kStoredNumberMax) {
      report.problem("version " + std::to_string(version) + " does not fit the eight digits a device stores");
    }
  }
  if (version == 0) report.problem("the catalog offers version 0 (no fassung line?), which is never installed");
  report.info("version offered: " + std::to_string(version));
  for (std::size_t i = 0;; ++i) {
    auto at = find_line(text, "gesperrt\t", i);
    if (!at) break;
    Field f = line_field(text, *at, 0, limits::kBlockedField);
    if (f.present && device_decimal(f.value) == version) {
      report.problem("the offered version " + std::to_string(version) + " is blocked by the catalog itself");
    }
  }

  std::map<std::string, std::pair<std::string, std::string>> announced;  // name -> file, sha
  std::size_t total = 0;
  std::size_t mine = 0;
  for (std::size_t i = 0;; ++i) {
    auto at = find_line(text, "paket\t", i);
    if (!at) break;
    ++total;
    std::string label = "package line " + std::to_string(i + 1);
    Field name = field(*at, 0, limits::kPackageName, label + " name");
    field(*at, 1, limits::kPackageWord, label + " second word");
    Field sha = line_field(text, *at, 2, limits::kPackageShaField);
    Field length = field(*at, 3, limits::kPackageLength, label + " length");
    Field file = field(*at, 4, limits::kPackageFile, label + " file name");
    Field platform = field(*at, 5, limits::kPlatformTag, label + " platform tag");
    if (!name.present) report.problem(label + " has no package name");
    if (!is_lower_hex64(sha.whole))
      report.problem(label + " SHA-256 " + shown(sha.whole) + " is not 64 lowercase hex digits");
    std::uint64_t size = device_decimal(length.value);
    if (!is_plain_number(length.whole) || size == 0) {
      report.problem(label + " length " + shown(length.whole) + " is not a number above 0");
    }
    if (!file.present) {
      report.problem(label + " has no file name");
      continue;
    }
    if (file.whole.size() + limits::kSigSuffix > limits::kPackageFile) {
      report.problem(label + " signature name " + shown(file.whole + ".sig") + " is longer than 127 characters");
    }
    bool for_me = platform.present && (platform.value == "tavi-x86_64" || platform.value == "tavi-any");
    if (for_me) ++mine;
    label = "package " + name.value;
    Bytes content;
    if (check_download(file.value, size, sha.whole, label, &content)) {
      if (check_signature_file(file.value + ".sig", content, label)) {
        report.info(label + ": " + file.value + ", " + std::to_string(size) + " bytes, hash and signature ok" +
                    (platform.present ? ", platform " + platform.value : ", no platform given (skipped by tavi)"));
      }
    }
    announced[name.value + "\t" + file.value] = {file.value, sha.whole};
  }
  if (total == 0)
    report.problem("the VERZEICHNIS names no package");
  else if (mine == 0)
    report.problem("NO PACKAGE for this platform (tavi-x86_64 or tavi-any)");

  std::optional<Bytes> index = read_optional(path("INDEX"));
  if (!index) {
    report.problem("INDEX is missing from the source");
    return;
  }
  int problems_before = report.problems();
  check_signature_file("INDEX.sig", *index, "INDEX");
  std::string index_text = as_string(*index);
  std::size_t lines = 0;
  std::size_t pos = 0;
  while (pos < index_text.size()) {
    std::size_t lf = index_text.find('\n', pos);
    std::string line = index_text.substr(pos, lf == std::string::npos ? std::string::npos : lf - pos);
    pos = lf == std::string::npos ? index_text.size() : lf + 1;
    ++lines;
    Field n = line_field(line, 0, 0, line.size());
    Field v = line_field(line, 0, 1, line.size());
    Field f = line_field(line, 0, 2, line.size());
    Field s = line_field(line, 0, 3, line.size());
    auto it = announced.find(n.whole + "\t" + f.whole);
    if (it == announced.end()) {
      report.problem("INDEX line " + std::to_string(lines) + " names " + shown(n.whole) + " / " + shown(f.whole) +
                     ", which the VERZEICHNIS does not");
      continue;
    }
    if (s.whole != it->second.second || device_decimal(v.whole) != version || !is_plain_number(v.whole)) {
      report.problem("INDEX line " + std::to_string(lines) + " for " + shown(n.whole) +
                     " does not match the VERZEICHNIS (version or hash)");
    }
    announced.erase(it);
  }
  for (const auto& entry : announced) {
    report.problem("package " + shown(entry.first.substr(0, entry.first.find('\t'))) + " is missing from INDEX");
  }
  if (report.problems() == problems_before) report.info("INDEX: " + std::to_string(lines) + " line(s), signature ok");
}

void Checker::check_system() {
  auto sys = find_line(text, "system\t", 0);
  if (!sys) {
    report.problem("this source offers no system update (no system line)");
    return;
  }
  Field build = field(*sys, 0, limits::kNumberField, "build");
  Field commit = field(*sys, 1, limits::kCommitMax, "commit");
  Field min_from = field(*sys, 2, limits::kNumberField, "min_from");
  if (!build.present || !is_plain_number(build.whole) || device_decimal(build.value) == 0) {
    report.problem("the system line's build " + shown(build.whole) + " is not a number above 0");
  } else if (device_decimal(build.value) > limits::kStoredNumberMax) {
    report.problem("build " + build.value + " does not fit the eight digits a device stores");
  }
  // What a device keeps of the commit goes into /system/sys.stand and /system/SYSPENDING.
  if (std::string problem = commit_problem(commit.value); !problem.empty()) report.problem(problem);
  if (min_from.present && !is_plain_number(min_from.whole)) {
    report.problem("min_from " + shown(min_from.whole) + " is not a plain number");
  }
  report.info("system build " + visible(build.value) + ", commit " + visible(commit.value) +
              (min_from.present ? ", min_from " + visible(min_from.value) : ""));

  struct SysEntry {
    bool seen = false;
    std::string sha;
    std::uint64_t size = 0;
    std::string name;
  };
  std::map<std::string, SysEntry> fixed;  // kernel, notes, roots: the last line of a kind wins
  struct FileEntry {
    SysEntry entry;
    std::string target;
  };
  std::vector<FileEntry> overlay;
  for (std::size_t i = 0;; ++i) {
    auto at = find_line(text, "sysfile\t", i);
    if (!at) break;
    std::string label = "sysfile line " + std::to_string(i + 1);
    Field kind = field(*at, 0, limits::kSysfileKind, label + " kind");
    if (!kind.present) continue;
    if (kind.value != "kernel" && kind.value != "notes" && kind.value != "roots" && kind.value != "file") {
      report.warn(label + " has the unknown kind " + shown(kind.value) + "; devices ignore it");
      continue;
    }
    SysEntry e;
    e.seen = true;
    e.sha = field(*at, 1, limits::kSysfileSha, label + " SHA-256").value;
    Field size = field(*at, 2, limits::kNumberField, label + " size");
    e.size = device_decimal(size.value);
    if (!is_plain_number(size.whole)) report.problem(label + " size " + shown(size.whole) + " is not a plain number");
    e.name = field(*at, 3, limits::kSysfileName, label + " name").value;
    if (kind.value == "file") {
      Field target = field(*at, 4, limits::kTargetKept, label + " target");
      overlay.push_back({e, target.value});
    } else {
      fixed[kind.value] = e;
    }
  }

  // Every gzip line, in order. A device takes the first line for a target, and only when
  // it is complete; every other line is never fetched.
  struct GzLine {
    std::size_t number = 0;
    std::string target;
    SysEntry gz;
    bool complete = false;
    bool used = false;
  };
  std::vector<GzLine> gz_lines;
  for (std::size_t i = 0;; ++i) {
    auto at = find_line(text, ota::kGzipTag, i);
    if (!at) break;
    GzLine g;
    g.number = i + 1;
    g.target = line_field(text, *at, 0, limits::kSysgzTarget).value;
    std::string label = "sysgz line for " + g.target;
    g.gz.sha = field(*at, 1, limits::kSysfileSha, label + " SHA-256").value;
    g.gz.size = device_decimal(field(*at, 2, limits::kNumberField, label + " size").value);
    g.gz.name = field(*at, 3, limits::kSysfileName, label + " name").value;
    g.complete = g.gz.sha.size() == limits::kShaHexChars && g.gz.size > 0 && !g.gz.name.empty();
    gz_lines.push_back(g);
  }
  auto gz_for = [&](const std::string& target) -> GzLine* {
    for (GzLine& g : gz_lines) {
      if (g.target != target) continue;
      if (g.complete) return &g;
      report.warn("the gzip line for " + shown(target) + " is incomplete; devices fetch the plain file");
      return nullptr;
    }
    return nullptr;
  };
  // A device unpacks the whole gzip file before it compares the result with the entry, so
  // each variant is unpacked here with the device's own decoder (stopped once it passes
  // the entry's size) and compared the same way.
  // content, when given, receives the unpacked file, only when every check passed.
  auto check_unpacked = [&](const GzLine& g, const SysEntry& e, const std::string& what, Bytes* content) {
    Bytes packed;
    if (!check_download(g.gz.name, g.gz.size, g.gz.sha, what + " (gzip)", &packed)) return;
    Unpacked unpacked = device_gunzip(packed, e.size, content != nullptr);
    if (unpacked.over_limit) {
      report.problem(what + ": " + shown(g.gz.name) + " unpacks to more than the " + std::to_string(e.size) +
                     " bytes of its entry; a device writes all of it before it checks the size");
      return;
    }
    if (unpacked.code != ota::kGunzipOk) {
      report.problem(what + ": " + shown(g.gz.name) + " does not unpack: " + gunzip_code_text(unpacked.code));
      return;
    }
    if (unpacked.size != e.size || unpacked.sha != e.sha) {
      report.problem(what + ": " + shown(g.gz.name) + " unpacks to the wrong size or hash");
      return;
    }
    report.info(what + ": " + g.gz.name + ", " + std::to_string(g.gz.size) + " bytes, unpacks to " +
                std::to_string(e.size) + " bytes, hashes ok");
    if (content) *content = std::move(unpacked.content);
  };
  std::map<std::string, SysEntry> served;  // target -> the entry a gzip line stands in for
  // content, when given, receives the file a device ends up with (the unpacked one for a
  // gzip variant), only when every check passed.
  auto check_fetch = [&](const std::string& target, const SysEntry& e, const std::string& what, bool gz_allowed,
                         Bytes* content = nullptr) {
    if (!is_lower_hex64(e.sha)) {
      report.problem(what + " SHA-256 " + shown(e.sha) + " is not 64 lowercase hex digits");
      return;
    }
    if (e.size == 0 || e.name.empty()) {
      report.problem(what + " has no size or no name");
      return;
    }
    GzLine* gz = nullptr;
    if (gz_allowed) {
      served[target] = e;
      gz = gz_for(target);
    }
    if (!gz) {
      if (check_download(e.name, e.size, e.sha, what, content)) {
        report.info(what + ": " + e.name + ", " + std::to_string(e.size) + " bytes, hash ok");
      }
      return;
    }
    gz->used = true;
    check_unpacked(*gz, e, what, content);
  };

  const SysEntry& kernel = fixed[ota::kKernelKind];
  if (!kernel.seen || kernel.size == 0 || kernel.name.empty() || kernel.sha.size() != limits::kShaHexChars) {
    report.problem("system manifest has no kernel entry (size above 0, name and 64-character SHA-256)");
  } else {
    Bytes image;
    check_fetch(ota::kKernelKind, kernel, "kernel", true, &image);
    std::string problem = image.empty() ? "" : multiboot1_problem(image);
    if (!problem.empty()) {
      report.problem("kernel " + shown(kernel.name) + " would not start under Limine on UEFI: " + problem);
    }
  }
  if (fixed[ota::kNotesKind].seen && fixed[ota::kNotesKind].size > 0) {
    if (fixed[ota::kNotesKind].size > limits::kNotesBytes) {
      report.problem("notes of " + std::to_string(fixed[ota::kNotesKind].size) +
                     " bytes; a device skips notes above 2000 bytes");
    } else {
      check_fetch(ota::kNotesKind, fixed[ota::kNotesKind], "notes", false);
    }
  }
  if (fixed[ota::kRootsKind].seen && fixed[ota::kRootsKind].size > 0) {
    check_fetch(ota::kRootsKind, fixed[ota::kRootsKind], "roots", true);
  }

  std::vector<std::string> targets;
  for (const FileEntry& f : overlay) {
    std::string problem = target_problem(f.target);
    if (!problem.empty()) {
      report.problem("overlay target " + shown(f.target) + " is refused by devices: " + problem);
      continue;
    }
    if (std::find(targets.begin(), targets.end(), f.target) != targets.end()) {
      // Both lines go into the journal as files that existed: the second install step
      // replaces the backup of the first, and the previous file is gone for good.
      report.problem("overlay target " + shown(f.target) +
                     " is given twice; a device would lose the backup of the file it replaces");
      continue;
    }
    if (f.target == ota::kKernelKind || f.target == ota::kRootsKind) {
      report.problem("overlay target " + shown(f.target) + " clashes with the gzip line of the " + f.target);
    }
    targets.push_back(f.target);
    check_fetch(f.target, f.entry, "overlay file " + f.target, true);
  }
  // The gzip lines no device fetches are still unpacked: one of them would be used as soon
  // as a line before it went, so it must match its entry too.
  for (const GzLine& g : gz_lines) {
    if (g.used || !g.complete) continue;
    auto entry = served.find(g.target);
    if (entry == served.end()) {
      report.warn("gzip line " + std::to_string(g.number) + " for " + shown(g.target) +
                  " belongs to no entry; devices never fetch it");
      continue;
    }
    report.warn("gzip line " + std::to_string(g.number) + " for " + shown(g.target) +
                " is not the first complete one for it; devices never fetch it");
    check_unpacked(g, entry->second, "gzip line " + std::to_string(g.number) + " for " + g.target, nullptr);
  }

  // Directories the release owns: those of its own overlay files below the overlay areas
  // (not an area itself). A file that stood at a link's path before the update is put
  // back by no rollback: the journal only knows that something was there, and puts the
  // link back. Inside a directory the release owns, that file was the release's own.
  std::vector<std::string> owned;
  for (const std::string& t : targets) {
    if (t[0] != '/') continue;
    std::string dir = t.substr(0, t.rfind('/'));
    bool area = false;
    for (const char* a : {ota::kAppsArea, ota::kEtcArea, ota::kShareArea, ota::kLibArea}) {
      area = area || dir + "/" == a;
    }
    if (!area) owned.push_back(dir + "/");
  }
  std::vector<LinkEntry> links;
  std::set<std::string> link_paths;
  for (std::size_t i = 0;; ++i) {
    auto at = find_line(text, ota::kLinkTag, i);
    if (!at) break;
    Field p = field(*at, 0, limits::kTargetKept, "link path");
    Field t = field(*at, 1, limits::kTargetKept, "link target");
    std::string problem = link_problem(p.value, t.value);
    if (!problem.empty()) {
      report.problem("link " + shown(p.value) + " -> " + shown(t.value) + " is refused by devices: " + problem);
      continue;
    }
    if (std::find(targets.begin(), targets.end(), p.value) != targets.end()) {
      report.problem("link path " + shown(p.value) +
                     " is also an overlay target of this release; devices put the file there and then the link "
                     "over it, and a rollback deletes the restored file again");
      continue;
    }
    if (!link_paths.insert(p.value).second) {
      report.warn("link path " + shown(p.value) + " is given twice; devices keep the link of the last line");
    }
    links.push_back({p.value, t.value});
    report.info("link " + p.value + " -> " + t.value);
    bool in_owned = false;
    for (const std::string& d : owned) in_owned = in_owned || p.value.compare(0, d.size(), d) == 0;
    if (!in_owned) {
      report.warn("link " + p.value + " -> " + t.value +
                  ": a file at this path is lost if the update is rolled back (a rollback leaves the link where "
                  "the file stood)");
    }
  }
  try {
    std::size_t journal = check_overlay_journal(targets, links);
    report.info("overlay: " + std::to_string(targets.size()) + " file(s), " + std::to_string(links.size()) +
                " link(s), journal " + std::to_string(journal) + " of 7900 bytes");
  } catch (const Error& e) {
    report.problem(e.what());
  }
}

}  // namespace

int check_command(int argc, char** argv) {
  Args args(argc, argv, 2,
            {{"--trusted", true, false},
             {"--spare", true, false},
             {"--generation", true, false},
             {"--system", false, false}});
  if (args.positional().size() != 1) throw UsageError("check needs exactly one source directory");
  Checker c;
  c.dir = args.positional().front();
  PublicKey trusted = load_public_key(args.required("--trusted"));
  std::optional<PublicKey> spare;
  if (auto s = args.get("--spare")) spare = load_public_key(*s);
  // Keys a device would be given: whatever else the source holds, a weak one is a problem.
  if (std::string refusal = public_key_refusal(trusted, "trusted key"); !refusal.empty()) c.report.problem(refusal);
  if (spare) {
    if (std::string refusal = public_key_refusal(*spare, "spare key"); !refusal.empty()) c.report.problem(refusal);
  }
  std::uint64_t generation = 0;
  if (auto g = args.get("--generation")) generation = parse_number(*g, "key generation", limits::kStoredNumberMax);

  std::optional<Bytes> catalog = read_optional(c.path("VERZEICHNIS"));
  if (!catalog || catalog->empty()) {
    c.report.problem("cannot fetch VERZEICHNIS: missing or empty in " + shown(c.dir));
    return c.report.finish();
  }
  c.report.info("VERZEICHNIS: " + std::to_string(catalog->size()) + " of 32767 bytes");
  if (catalog->size() > limits::kCatalogBytes) {
    c.report.problem("the VERZEICHNIS is " + std::to_string(catalog->size()) +
                     " bytes; a device reads only 32767 of them and the signature check fails");
    return c.report.finish();
  }
  std::optional<Bytes> sig = read_optional(c.path("VERZEICHNIS.sig"));
  if (!sig || sig->size() < kSignatureBytes) {
    c.report.problem("NO SIGNATURE for the VERZEICHNIS (VERZEICHNIS.sig missing or shorter than 64 bytes)");
    return c.report.finish();
  }
  if (sig->size() > kSignatureBytes)
    c.report.warn("VERZEICHNIS.sig is longer than 64 bytes; devices read the first 64");
  c.text = as_string(*catalog);

  ChainWalk walk = walk_key_chain(c.text, trusted, spare, generation);
  for (const std::string& step : walk.steps) c.report.info(step);
  if (walk.broken) {
    c.report.problem("KEY CHANGE: the chain is BROKEN after generation " + std::to_string(walk.generation));
  }
  for (const auto& [reached, key] : walk.keys) {
    std::string refusal = public_key_refusal(key, "the key of generation " + std::to_string(reached));
    if (!refusal.empty()) c.report.problem(refusal);
  }
  if (walk.generation > limits::kStoredNumberMax) {
    c.report.problem("key generation " + std::to_string(walk.generation) +
                     " does not fit the eight digits a device stores; it would go back after the next catalog");
  }
  // verify_signature is the device's own verifier: it decides as the device does.
  auto device_verifies = [&](const PublicKey& key) {
    return verify_signature(key, catalog->data(), catalog->size(), sig->data());
  };
  if (device_verifies(walk.key)) {
    c.catalog_key = walk.key;
    c.report.info("signature ok with the key of generation " + std::to_string(walk.generation));
  } else if (spare && device_verifies(*spare)) {
    c.catalog_key = *spare;
    c.report.info("signature ok, checked with the SPARE KEY");
  } else {
    c.report.problem(walk.broken ? "KEY CHANGE: the chain is BROKEN -- REJECTED"
                                 : "SIGNATURE OF THE VERZEICHNIS WRONG -- REJECTED");
    return c.report.finish();
  }
  if (c.text.compare(0, 4, "OTA2") != 0) {
    c.report.problem("this is not a VERZEICHNIS (marker \"OTA2\" missing at its start)");
    return c.report.finish();
  }
  c.report.info("marker OTA2 ok");

  std::vector<std::string> blocked;
  for (std::size_t i = 0;; ++i) {
    auto at = find_line(c.text, "gesperrt\t", i);
    if (!at) break;
    Field f = c.field(*at, 0, limits::kBlockedField, "blocked version");
    if (!f.present) continue;
    blocked.push_back(f.value);
    // A device stores the number it reads, modulo 10^8: anything else would block another
    // version than the one meant.
    if (!is_plain_number(f.value)) {
      c.report.warn("blocked version " + shown(f.value) + " is not a plain number; a device blocks " +
                    std::to_string(device_decimal(f.value)));
    }
    if (device_decimal(f.value) > limits::kStoredNumberMax) {
      c.report.problem("blocked version " + f.value + " does not fit the eight digits a device stores; it would block " +
                       std::to_string(device_decimal(f.value) % ota::kStoredNumberModulus));
    }
  }
  if (!blocked.empty()) {
    std::string list;
    for (const std::string& b : blocked) list += " " + b;
    c.report.info("blocked versions:" + list);
    if (blocked.size() > limits::kBlockedVersions) {
      c.report.problem(std::to_string(blocked.size()) + " blocked versions; a device keeps at most 64");
    }
  }
  if (args.has("--system")) {
    c.check_system();
  } else {
    c.check_packages();
  }
  return c.report.finish();
}

}  // namespace publish
