// --help: each command describes itself on standard output with exit status 0, the
// overview lists every command, and an unknown command gets the overview on standard
// error with exit status 2.
#include <gtest/gtest.h>

#include "publish_support.h"

using namespace publish_test;

namespace {

const std::vector<std::pair<std::string, std::string>> kCommandHelp = {
    {"keygen", R"(usage: ota-publish keygen --out PREFIX
       ota-publish keygen --key PKCS11-URI --out PREFIX

Makes a new Ed25519 key pair:
  PREFIX.key  the private key, PKCS#8 PEM, created with mode 0600
  PREFIX.pub  the public key, exactly 32 raw bytes: the file a device keeps as
              /system/schluessel.pub (trusted key) or /system/ersatz.pub (spare key)
An existing PREFIX.key or PREFIX.pub is never overwritten.

With --key the pair is made inside the PKCS#11 token the URI names (RFC 7512), e.g.
  'pkcs11:token=ota;object=release?module-path=/usr/lib/softhsm/libsofthsm2.so'
with CKM_EC_EDWARDS_KEY_PAIR_GEN, labelled with object= and identified by id= (or a
random id); the private key is sensitive and cannot be extracted. Only PREFIX.pub is
written. The PIN comes from pin-value=, pin-source=file:PATH or the environment
variable OTA_PKCS11_PIN; it is never asked for. An object of the same label or id in
the token is never replaced.
)"},
    {"chain", R"(usage: ota-publish chain --signer KEY --new PUB --generation G --out FILE [--force]

Writes one key-change line to FILE:
  kette TAB G TAB <new key, 64 lowercase hex> TAB <signature, 128 hex> LF
signed by KEY (a PEM private key file, or a PKCS#11 URI of a key in a token) over
"tavi-schluessel" TAB G TAB <new key hex>.
KEY must be the key devices trust at generation G-1, or the spare key; PUB is the
new 32-byte public key. G is 1 to 99999999 (a device stores it as eight digits).
Catalogs carry the line with --chain FILE; give one --chain per generation to build
a chain of several steps. FILE is not overwritten unless --force is given.
)"},
    {"catalog", R"(usage: ota-publish catalog (--key KEY | --unsigned) --out DIR --version N
                           [--package NAME:WORD:FILE[:PLATFORM]]...
                           [--block V]... [--chain FILE]... [--spare PUB]
                           [--extra-line TEXT]... [--test-source] [--force]

Builds a package source in DIR:
  VERZEICHNIS      "OTA2", "fassung" N, one "paket" line per package, one
                   "gesperrt" line per --block, the key-change lines, extra lines
  VERZEICHNIS.sig  its Ed25519 signature, 64 raw bytes, made with KEY
  <file>, <file>.sig  each package file and its raw signature
  INDEX, INDEX.sig    name TAB N TAB file TAB sha256 per package, and its signature

--package NAME:WORD:FILE[:PLATFORM]
    NAME is the installer's package name (at most 63 characters), WORD the second
    word shown by search (at most 127), FILE the package file; it is published under
    its own base name (at most 123 characters, letters, digits and . _ + ~ -).
    PLATFORM is the platform tag written as the sixth field (at most 31 characters):
    tavi-x86_64 or tavi-any for tavi devices, any other tag for other machines.
    Without :PLATFORM the line has five fields ("no platform given"), which tavi
    devices skip. NAME and WORD cannot contain ":"; FILE cannot either when a
    PLATFORM follows.
--key KEY     the signing key: a PEM private key file, or a PKCS#11 URI (pkcs11:...)
              of a key in a token, which signs with CKM_EDDSA (see keygen --help)
--unsigned    write everything but VERZEICHNIS.sig, INDEX.sig and the packages' .sig
              files, to be signed on another machine with `ota-publish sign` and
              checked with `ota-publish check` when it comes back
--version N   the version offered, 1 to 99999999 (devices store it as eight digits)
--block V     withdraw version V (repeatable, at most 64, 1 to 99999999)
--chain FILE  carry the key changes in FILE, written by `ota-publish chain`
              (repeatable); their generations must follow one another and KEY must
              be the newest of their keys (or the spare key)
--spare PUB   the devices' spare public key; with it a key change or the catalog may
              be signed by the spare key
--extra-line TEXT  append TEXT as one more line (a kind devices ignore)
--test-source  publish even when devices would refuse the offer with a message (no
              package for tavi-x86_64, the offered version blocked); limits that a
              device would cut silently are never relaxed
--force       replace an existing DIR (swapped in one step); without it DIR must not
              exist
Nothing is written unless every check passes; DIR is built under a hidden temporary
name beside it and renamed into place at the end.
)"},
    {"system", R"(usage: ota-publish system (--key KEY | --unsigned) --out DIR --build B --commit C
                          [--min-from M]
                          --kernel FILE [--gzip-kernel] [--notes FILE]
                          [--roots FILE] [--gzip-roots] [--file TARGET=PATH[:gz]]...
                          [--link LINKPATH=/bin/NAME]... [--block V]... [--chain FILE]...
                          [--spare PUB] [--extra-line TEXT]... [--force]

Builds a system source in DIR: VERZEICHNIS with "OTA2", a "system" line (build,
commit, min_from), "sysfile" lines for the kernel, notes, roots and each overlay
file, "sysgz" lines for gzip variants and "syslink" lines; VERZEICHNIS.sig; and
every file a device downloads, published under its base name (gzip variants under
the name plus ".gz").

--build B      the build offered, 1 to 99999999 (devices store it as eight digits)
--commit C     7 to 19 visible characters; devices know the running kernel by the
               first seven
--min-from M   oldest installed build that may take this update (at most B)
--kernel FILE  the kernel image (not empty); --gzip-kernel also publishes FILE.gz.
               Limine on UEFI must be able to start it: a multiboot1 header (magic
               0x1BADB002, 4-byte aligned, within the first 8192 bytes) with a good
               checksum that asks for a framebuffer (flags bit 2)
--notes FILE   release notes, 1 to 2000 bytes
--roots FILE   trust roots for /bin/rootsctl; --gzip-roots also publishes FILE.gz
--file TARGET=PATH[:gz]
               an overlay file. TARGET is a program name for /bin (letters, digits,
               . - _, not starting with ".") or an absolute path below /apps/, /etc/,
               /usr/share/ or /lib/ (no "..", "//" or final "/"), at most 59
               characters; "kernel" and "roots" are taken. ":gz" adds a gzip variant.
--link LINKPATH=/bin/NAME
               a hard link at LINKPATH (an allowed absolute path) to the program NAME
--key, --unsigned (which leaves out VERZEICHNIS.sig), --block, --chain, --spare,
--extra-line, --force: as for `ota-publish catalog`.
Nothing is written unless every check passes, the overlay journal a device writes
(at most 7900 bytes) included.
)"},
    {"sign", R"(usage: ota-publish sign --key KEY [--force] FILE|DIR...

Writes FILE.sig beside each FILE: its Ed25519 signature, 64 raw bytes, the form a
device reads. KEY is a PEM private key file or a PKCS#11 URI (see keygen --help).

A DIR is a source directory made with --unsigned. Its VERZEICHNIS is signed and, when
it offers packages, also INDEX and every package file its "paket" lines name, each
first compared with the length and SHA-256 its line announces. Those are all the
signatures a device fetches: VERZEICHNIS.sig, INDEX.sig and <package file>.sig (a
system source has only VERZEICHNIS.sig; its files are covered by their hashes).

Every signature is made before the first one is written. An existing .sig file is
refused unless --force is given. Run `ota-publish check` on the source afterwards.
)"},
    {"kernel", R"(usage: ota-publish kernel --build B --commit C [--broken] [--size BYTES] --out FILE
                          [--force]

Writes a stand-in kernel image for the simulator: the line
  TAVI-KERNEL build=B commit=C health=good   (health=broken with --broken)
and a LF, then filler bytes up to BYTES in all (default 4096): the byte at offset i
of the image is i mod 251, except for a 48-byte multiboot1 header at the first offset
after the line that is a multiple of 4. The header asks for a 1024x768x32 framebuffer
(flags 0x00010004), as Limine on UEFI requires of a multiboot1 kernel. B and C follow
the rules of `ota-publish system`.
)"},
    {"check", R"(usage: ota-publish check DIR --trusted PUB [--spare PUB] [--generation G] [--system]

Checks the source in DIR as a device with trusted key PUB (and spare key, and key
generation G, default 0) would: the VERZEICHNIS fits 32767 bytes; the key changes are
followed from generation G+1, each verified by the key trusted at that step or the
spare key; the signature verifies with the newest key reached, or the spare key; the
text begins with "OTA2"; no field is longer than a device keeps it.
Package source: the offered version, each package file with its length, SHA-256 and
.sig, INDEX and INDEX.sig.
--system: the system line, the kernel entry, notes, roots, each overlay file and its
gzip variant (unpacked and compared), the links and the overlay journal size; the
kernel a device would fetch must carry a multiboot1 header that Limine on UEFI starts
(magic, checksum, a framebuffer asked for).
Findings go to standard output, problems to standard error. Exit status 0 when a
device would accept the source, 1 when it would not.
)"},
};

const std::string kOverview = R"(usage: ota-publish COMMAND [OPTIONS]   (ota-publish COMMAND --help for more)

  keygen   make an Ed25519 key pair (PREFIX.key or in a token, PREFIX.pub)
  chain    sign one key change (a "kette" line)
  catalog  build a signed package source
  system   build a signed system source
  sign     sign files of a source built with --unsigned (FILE.sig)
  kernel   write a stand-in kernel image for the simulator
  check    check a source as a device would

ota-publish --version prints the version.

Exit status: 0 done (check: the source would be accepted), 1 refused or failed,
2 a mistake in the command line.
)";

TEST(Help, EveryCommandDescribesItself) {
  for (const auto& [command, help] : kCommandHelp) {
    SCOPED_TRACE(command);
    expect_outcome(publish({command, "--help"}), 0, help, "");
  }
}

TEST(Help, TheOverviewNamesEveryCommand) {
  expect_outcome(publish({"--help"}), 0, kOverview, "");
  // The overview's command lines are indented by two blanks; they name exactly the
  // commands that describe themselves, in the same order.
  std::vector<std::string> listed;
  for (const std::string& line : lines_of(kOverview)) {
    if (line.rfind("  ", 0) == 0) listed.push_back(line.substr(2, line.find(' ', 2) - 2));
  }
  std::vector<std::string> described;
  for (const auto& entry : kCommandHelp) described.push_back(entry.first);
  EXPECT_EQ(listed, described);
}

TEST(Help, AnUnknownCommandGetsTheOverviewOnStandardError) {
  expect_outcome(publish({"frobnicate"}), 2, "", "ota-publish: unknown command frobnicate\n" + kOverview);
}

}  // namespace
