// ota-publish catalog: a signed package source (VERZEICHNIS and its signature, the package
// files with their signatures, and the installer's INDEX with its signature).
#include <cstdio>
#include <set>

#include "args.h"
#include "commands.h"
#include "limits.h"
#include "output.h"
#include "release.h"
#include "rules.h"

namespace publish {

const char kCatalogHelp[] =
    "usage: ota-publish catalog (--key KEY | --unsigned) --out DIR --version N\n"
    "                           [--package NAME:WORD:FILE[:PLATFORM]]...\n"
    "                           [--block V]... [--chain FILE]... [--spare PUB]\n"
    "                           [--extra-line TEXT]... [--test-source] [--force]\n"
    "\n"
    "Builds a package source in DIR:\n"
    "  VERZEICHNIS      \"OTA2\", \"fassung\" N, one \"paket\" line per package, one\n"
    "                   \"gesperrt\" line per --block, the key-change lines, extra lines\n"
    "  VERZEICHNIS.sig  its Ed25519 signature, 64 raw bytes, made with KEY\n"
    "  <file>, <file>.sig  each package file and its raw signature\n"
    "  INDEX, INDEX.sig    name TAB N TAB file TAB sha256 per package, and its signature\n"
    "\n"
    "--package NAME:WORD:FILE[:PLATFORM]\n"
    "    NAME is the installer's package name (at most 63 characters), WORD the second\n"
    "    word shown by search (at most 127), FILE the package file; it is published under\n"
    "    its own base name (at most 123 characters, letters, digits and . _ + ~ -).\n"
    "    PLATFORM is the platform tag written as the sixth field (at most 31 characters):\n"
    "    tavi-x86_64 or tavi-any for tavi devices, any other tag for other machines.\n"
    "    Without :PLATFORM the line has five fields (\"no platform given\"), which tavi\n"
    "    devices skip. NAME and WORD cannot contain \":\"; FILE cannot either when a\n"
    "    PLATFORM follows.\n"
    "--key KEY     the signing key: a PEM private key file, or a PKCS#11 URI (pkcs11:...)\n"
    "              of a key in a token, which signs with CKM_EDDSA (see keygen --help)\n"
    "--unsigned    write everything but VERZEICHNIS.sig, INDEX.sig and the packages' .sig\n"
    "              files, to be signed on another machine with `ota-publish sign` and\n"
    "              checked with `ota-publish check` when it comes back\n"
    "--version N   the version offered, 1 to 99999999 (devices store it as eight digits)\n"
    "--block V     withdraw version V (repeatable, at most 64, 1 to 99999999)\n"
    "--chain FILE  carry the key changes in FILE, written by `ota-publish chain`\n"
    "              (repeatable); their generations must follow one another and KEY must\n"
    "              be the newest of their keys (or the spare key)\n"
    "--spare PUB   the devices' spare public key; with it a key change or the catalog may\n"
    "              be signed by the spare key\n"
    "--extra-line TEXT  append TEXT as one more line (a kind devices ignore)\n"
    "--test-source  publish even when devices would refuse the offer with a message (no\n"
    "              package for tavi-x86_64, the offered version blocked); limits that a\n"
    "              device would cut silently are never relaxed\n"
    "--force       replace an existing DIR (swapped in one step); without it DIR must not\n"
    "              exist\n"
    "Nothing is written unless every check passes; DIR is built under a hidden temporary\n"
    "name beside it and renamed into place at the end.\n";

namespace {

struct Package {
  std::string name;
  std::string word;
  std::string path;
  std::string file;  // name at the source
  std::optional<std::string> platform;
  Bytes data;
  std::string sha;
};

bool for_this_machine(const std::optional<std::string>& platform) {
  return platform && (*platform == "tavi-x86_64" || *platform == "tavi-any");
}

Package parse_package(const std::string& given) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (;;) {
    std::size_t colon = given.find(':', start);
    parts.push_back(given.substr(start, colon == std::string::npos ? std::string::npos : colon - start));
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  if (parts.size() != 3 && parts.size() != 4) {
    throw UsageError("--package " + given + ": expected NAME:WORD:FILE or NAME:WORD:FILE:PLATFORM");
  }
  Package p;
  p.name = parts[0];
  p.word = parts[1];
  p.path = parts[2];
  if (parts.size() == 4) p.platform = parts[3];
  check_field_text(p.name, "package name");
  check_field_length(p.name, limits::kPackageName, "package name");
  check_field_text(p.word, "second word of package " + p.name);
  check_field_length(p.word, limits::kPackageWord, "second word of package " + p.name);
  if (p.path.empty()) throw UsageError("--package " + given + ": the FILE part is empty");
  p.file = base_name(p.path);
  check_download_name(p.file, limits::kPackageFile, "package file name");
  check_field_length(p.file + ".sig", limits::kPackageFile, "package signature name");
  if (p.platform) {
    check_field_text(*p.platform, "platform tag of package " + p.name);
    check_field_length(*p.platform, limits::kPlatformTag, "platform tag of package " + p.name);
  }
  return p;
}

}  // namespace

int catalog_command(int argc, char** argv) {
  std::vector<OptionRule> rules = release_options(true);
  rules.push_back({"--version", true, false});
  rules.push_back({"--package", true, true});
  Args args(argc, argv, 2, rules);
  if (!args.positional().empty()) throw UsageError("catalog takes no word " + args.positional().front());

  ReleaseCommon common = read_release_common(args);
  std::uint64_t version = parse_number(args.required("--version"), "version", limits::kStoredNumberMax);
  if (version == 0) throw Error("version 0 means \"none\" on a device and is never offered");

  std::vector<Package> packages;
  for (const std::string& given : args.all("--package")) packages.push_back(parse_package(given));
  std::set<std::string> mine;
  std::set<std::pair<std::string, std::string>> named;
  for (const Package& p : packages) {
    if (!named.insert({p.name, p.platform.value_or("")}).second ||
        (for_this_machine(p.platform) && !mine.insert(p.name).second)) {
      throw Error("package " + shown(p.name) + " is given twice for the same platform");
    }
  }
  if (!common.test_source) {
    if (packages.empty()) throw Error("no --package given; a device refuses a VERZEICHNIS that names no package");
    if (mine.empty()) {
      throw Error(
          "no package is for tavi-x86_64 or tavi-any; a tavi device finds NO PACKAGE for its platform "
          "(add :tavi-x86_64 or :tavi-any to a --package)");
    }
    for (std::uint64_t blocked : common.blocked) {
      if (blocked == version) throw Error("version " + std::to_string(version) + " is offered and blocked at once");
    }
  }
  check_output_free(common.out, common.force, "output directory", true);
  finish_release_common(args, common);

  SourceFiles files;
  std::string text = "OTA2\nfassung\t" + std::to_string(version) + "\n";
  std::string index;
  for (Package& p : packages) {
    p.data = read_file(p.path, "package file");
    if (p.data.empty()) throw Error("package file " + shown(p.path) + " is empty; a device refuses a length of 0");
    p.sha = sha256_hex(p.data);
    text += "paket\t" + p.name + "\t" + p.word + "\t" + p.sha + "\t" + std::to_string(p.data.size()) + "\t" + p.file;
    if (p.platform) text += "\t" + *p.platform;
    text += "\n";
    index += p.name + "\t" + std::to_string(version) + "\t" + p.file + "\t" + p.sha + "\n";
    std::optional<Signature> sig = sign_release_file(common, p.data);
    files.add(p.file, std::move(p.data), "package file " + p.path);
    if (sig) files.add(p.file + ".sig", Bytes(sig->begin(), sig->end()), "signature of " + p.path);
  }
  text += trailing_lines(common);
  check_catalog_size(text);

  Bytes catalog = as_bytes(text);
  std::optional<Signature> catalog_sig = sign_release_file(common, catalog);
  Bytes index_bytes = as_bytes(index);
  std::optional<Signature> index_sig = sign_release_file(common, index_bytes);

  StagedDirectory dir(common.out, common.force);
  dir.write("VERZEICHNIS", catalog);
  if (catalog_sig) dir.write("VERZEICHNIS.sig", Bytes(catalog_sig->begin(), catalog_sig->end()));
  dir.write("INDEX", index_bytes);
  if (index_sig) dir.write("INDEX.sig", Bytes(index_sig->begin(), index_sig->end()));
  for (const auto& [name, data] : files.files()) dir.write(name, data);
  dir.commit();

  std::printf(
      "ota-publish: wrote %s: version %llu, %zu package(s) (%zu for tavi-x86_64), %zu blocked, %zu key "
      "change(s)\n",
      common.out.c_str(), static_cast<unsigned long long>(version), packages.size(), mine.size(), common.blocked.size(),
      common.chain.size());
  std::printf("ota-publish: VERZEICHNIS %zu of 32767 bytes, %s\n", text.size(), signed_by(common).c_str());
  std::vector<std::string> to_sign = {"VERZEICHNIS", "INDEX"};
  std::set<std::string> package_files;
  for (const Package& p : packages) {
    if (package_files.insert(p.file).second) to_sign.push_back(p.file);
  }
  print_unsigned_note(common, to_sign);
  for (const Package& p : packages) {
    if (!p.platform) {
      std::fprintf(stderr, "ota-publish: note: package %s names no platform; tavi devices skip it\n", p.name.c_str());
    }
  }
  return 0;
}

}  // namespace publish
