// ota-publish system: a signed system source (the manifest VERZEICHNIS with its signature,
// the kernel image, release notes, trust roots, overlay files and their gzip variants).
#include <cstdio>
#include <set>

#include "args.h"
#include "commands.h"
#include "gzip.h"
#include "limits.h"
#include "multiboot.h"
#include "output.h"
#include "release.h"
#include "rules.h"

namespace publish {

const char kSystemHelp[] =
    "usage: ota-publish system (--key KEY | --unsigned) --out DIR --build B --commit C\n"
    "                          [--min-from M]\n"
    "                          --kernel FILE [--gzip-kernel] [--notes FILE]\n"
    "                          [--roots FILE] [--gzip-roots] [--file TARGET=PATH[:gz]]...\n"
    "                          [--link LINKPATH=/bin/NAME]... [--block V]... [--chain FILE]...\n"
    "                          [--spare PUB] [--extra-line TEXT]... [--force]\n"
    "\n"
    "Builds a system source in DIR: VERZEICHNIS with \"OTA2\", a \"system\" line (build,\n"
    "commit, min_from), \"sysfile\" lines for the kernel, notes, roots and each overlay\n"
    "file, \"sysgz\" lines for gzip variants and \"syslink\" lines; VERZEICHNIS.sig; and\n"
    "every file a device downloads, published under its base name (gzip variants under\n"
    "the name plus \".gz\").\n"
    "\n"
    "--build B      the build offered, 1 to 99999999 (devices store it as eight digits)\n"
    "--commit C     7 to 19 visible characters; devices know the running kernel by the\n"
    "               first seven\n"
    "--min-from M   oldest installed build that may take this update (at most B)\n"
    "--kernel FILE  the kernel image (not empty); --gzip-kernel also publishes FILE.gz.\n"
    "               Limine on UEFI must be able to start it: a multiboot1 header (magic\n"
    "               0x1BADB002, 4-byte aligned, within the first 8192 bytes) with a good\n"
    "               checksum that asks for a framebuffer (flags bit 2)\n"
    "--notes FILE   release notes, 1 to 2000 bytes\n"
    "--roots FILE   trust roots for /bin/rootsctl; --gzip-roots also publishes FILE.gz\n"
    "--file TARGET=PATH[:gz]\n"
    "               an overlay file. TARGET is a program name for /bin (letters, digits,\n"
    "               . - _, not starting with \".\") or an absolute path below /apps/, /etc/,\n"
    "               /usr/share/ or /lib/ (no \"..\", \"//\" or final \"/\"), at most 59\n"
    "               characters; \"kernel\" and \"roots\" are taken. \":gz\" adds a gzip variant.\n"
    "--link LINKPATH=/bin/NAME\n"
    "               a hard link at LINKPATH (an allowed absolute path) to the program NAME\n"
    "--key, --unsigned (which leaves out VERZEICHNIS.sig), --block, --chain, --spare,\n"
    "--extra-line, --force: as for `ota-publish catalog`.\n"
    "Nothing is written unless every check passes, the overlay journal a device writes\n"
    "(at most 7900 bytes) included.\n";

namespace {

struct Entry {
  std::string kind;    // kernel, notes, roots or file
  std::string target;  // the overlay target, or "kernel"/"roots" for the gzip line
  std::string path;
  std::string name;
  bool gz = false;
  Bytes data;
  std::string sha;
};

Entry make_entry(const std::string& kind, const std::string& target, const std::string& path, bool gz) {
  Entry e;
  e.kind = kind;
  e.target = target;
  e.path = path;
  e.gz = gz;
  e.name = base_name(path);
  std::string what = kind == "file" ? "download name of " + target : kind + " file name";
  check_download_name(e.name, limits::kSysfileName, what);
  if (gz) check_field_length(e.name + ".gz", limits::kSysfileName, "gzip name of " + (kind == "file" ? target : kind));
  return e;
}

}  // namespace

int system_command(int argc, char** argv) {
  std::vector<OptionRule> rules = release_options(false);
  for (const char* name : {"--build", "--commit", "--min-from", "--kernel", "--notes", "--roots"}) {
    rules.push_back({name, true, false});
  }
  rules.push_back({"--gzip-kernel", false, false});
  rules.push_back({"--gzip-roots", false, false});
  rules.push_back({"--file", true, true});
  rules.push_back({"--link", true, true});
  Args args(argc, argv, 2, rules);
  if (!args.positional().empty()) throw UsageError("system takes no word " + args.positional().front());

  ReleaseCommon common = read_release_common(args);
  std::uint64_t build = parse_number(args.required("--build"), "build", limits::kStoredNumberMax);
  if (build == 0) throw Error("build 0 means \"none\" on a device and is never offered");
  std::string commit = args.required("--commit");
  check_commit(commit);
  std::optional<std::uint64_t> min_from;
  if (auto text = args.get("--min-from")) {
    min_from = parse_number(*text, "min_from", limits::kStoredNumberMax);
    if (*min_from > build) {
      throw Error("min_from " + *text + " is above build " + std::to_string(build) +
                  "; every device offered this build would be too old for it");
    }
  }

  std::vector<Entry> entries;
  entries.push_back(make_entry("kernel", "kernel", args.required("--kernel"), args.has("--gzip-kernel")));
  if (auto notes = args.get("--notes")) entries.push_back(make_entry("notes", "notes", *notes, false));
  if (auto roots = args.get("--roots")) {
    entries.push_back(make_entry("roots", "roots", *roots, args.has("--gzip-roots")));
  }
  if (args.has("--gzip-roots") && !args.has("--roots")) throw UsageError("--gzip-roots needs --roots");

  std::set<std::string> targets;
  std::vector<std::string> file_targets;
  for (const std::string& given : args.all("--file")) {
    std::size_t eq = given.find('=');
    if (eq == std::string::npos) throw UsageError("--file " + given + ": expected TARGET=PATH or TARGET=PATH:gz");
    std::string target = given.substr(0, eq);
    std::string path = given.substr(eq + 1);
    bool gz = path.size() > 3 && path.compare(path.size() - 3, 3, ":gz") == 0;
    if (gz) path.resize(path.size() - 3);
    if (path.empty()) throw UsageError("--file " + given + ": the PATH part is empty");
    check_field_text(target, "overlay target");
    check_field_length(target, limits::kTargetKept, "overlay target");
    std::string problem = target_problem(target);
    if (!problem.empty()) throw Error("overlay target " + shown(target) + " is not allowed: " + problem);
    if (target == "kernel" || target == "roots") {
      throw Error("overlay target " + shown(target) + " is not allowed: devices take a gzip line for \"" + target +
                  "\" as the " + target + " entry's");
    }
    if (!targets.insert(target).second) throw Error("overlay target " + shown(target) + " is given twice");
    file_targets.push_back(target);
    entries.push_back(make_entry("file", target, path, gz));
  }
  std::vector<LinkEntry> links;
  for (const std::string& given : args.all("--link")) {
    std::size_t eq = given.find('=');
    if (eq == std::string::npos) throw UsageError("--link " + given + ": expected LINKPATH=/bin/NAME");
    LinkEntry link{given.substr(0, eq), given.substr(eq + 1)};
    check_field_text(link.first, "link path");
    check_field_length(link.first, limits::kTargetKept, "link path");
    check_field_text(link.second, "link target");
    check_field_length(link.second, limits::kTargetKept, "link target");
    std::string problem = link_problem(link.first, link.second);
    if (!problem.empty()) throw Error("link " + shown(given) + " is not allowed: " + problem);
    if (!targets.insert(link.first).second) {
      throw Error("link path " + shown(link.first) + " is also an overlay target or another link");
    }
    links.push_back(link);
  }
  std::size_t journal = check_overlay_journal(file_targets, links);
  check_output_free(common.out, common.force, "output directory", true);
  finish_release_common(args, common);

  SourceFiles files;
  std::string text = "OTA2\nsystem\t" + std::to_string(build) + "\t" + commit;
  if (min_from) text += "\t" + std::to_string(*min_from);
  text += "\n";
  std::string gz_lines;
  for (Entry& e : entries) {
    std::string what = e.kind == "file" ? "overlay file" : e.kind + " file";
    e.data = read_file(e.path, what.c_str());
    if (e.data.empty()) throw Error(what + " " + shown(e.path) + " is empty; a device needs a size above 0");
    if (e.kind == "kernel") {
      std::string problem = multiboot1_problem(e.data);
      if (!problem.empty()) {
        throw Error("kernel file " + shown(e.path) + " would not start under Limine on UEFI: " + problem);
      }
    }
    if (e.kind == "notes" && e.data.size() > limits::kNotesBytes) {
      throw Error("notes file " + shown(e.path) + " is " + std::to_string(e.data.size()) +
                  " bytes; a device fetches notes of at most 2000 bytes and skips larger ones");
    }
    e.sha = sha256_hex(e.data);
    text += "sysfile\t" + e.kind + "\t" + e.sha + "\t" + std::to_string(e.data.size()) + "\t" + e.name;
    if (e.kind == "file") text += "\t" + e.target;
    text += "\n";
    if (e.gz) {
      Bytes packed = gzip_bytes(e.data);
      gz_lines += "sysgz\t" + e.target + "\t" + sha256_hex(packed) + "\t" + std::to_string(packed.size()) + "\t" +
                  e.name + ".gz\n";
      files.add(e.name + ".gz", std::move(packed), "gzip variant of " + e.path);
    }
    files.add(e.name, std::move(e.data), what + " " + e.path);
  }
  text += gz_lines;
  for (const LinkEntry& link : links) text += "syslink\t" + link.first + "\t" + link.second + "\n";
  text += trailing_lines(common);
  check_catalog_size(text);

  Bytes manifest = as_bytes(text);
  std::optional<Signature> sig = sign_release_file(common, manifest);
  StagedDirectory dir(common.out, common.force);
  dir.write("VERZEICHNIS", manifest);
  if (sig) dir.write("VERZEICHNIS.sig", Bytes(sig->begin(), sig->end()));
  for (const auto& [name, data] : files.files()) dir.write(name, data);
  dir.commit();

  std::printf("ota-publish: wrote %s: build %llu, commit %s, %zu overlay file(s), %zu link(s)\n", common.out.c_str(),
              static_cast<unsigned long long>(build), commit.c_str(), file_targets.size(), links.size());
  std::printf("ota-publish: VERZEICHNIS %zu of 32767 bytes, overlay journal %zu of 7900 bytes, %s\n", text.size(),
              journal, signed_by(common).c_str());
  print_unsigned_note(common, {"VERZEICHNIS"});
  return 0;
}

}  // namespace publish
