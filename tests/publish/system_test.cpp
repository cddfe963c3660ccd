// system and kernel: the signed system manifest with its files and gzip variants, the
// stand-in kernel image, and the overlay, name and journal limits a device applies.
#include <gtest/gtest.h>

#include "publish_support.h"

using namespace publish_test;

namespace {

class SystemTest : public ::testing::Test {
 protected:
  KeyedScratch s;

  void SetUp() override {
    expect_outcome(publish({"kernel", "--build", "20250110", "--commit", "a1b2c3d4e5", "--out", s("tavi.mb")}), 0,
                   kernel_said(s("tavi.mb"), "20250110", "a1b2c3d4e5"), "");
    write_all(s("notes.txt"), "Build 20250110: faster start.\n");
    write_all(s("roots.pem"), "-----BEGIN CERTIFICATE-----\nroots\n-----END CERTIFICATE-----\n");
    write_all(s("taskbar"), std::string(5000, 't') + "taskbar program\n");
    write_all(s("hosts.conf"), "127.0.0.1 localhost\n");
  }

  std::vector<std::string> base() {
    return {"system",   "--key",    s.key("k0"),  "--out",    s("sys"),    "--build",
            "20250110", "--commit", "a1b2c3d4e5", "--kernel", s("tavi.mb")};
  }

  Outcome system(std::vector<std::string> more, const std::string& out = "sys") {
    std::vector<std::string> words = base();
    words[4] = s(out);
    words.insert(words.end(), more.begin(), more.end());
    return publish(words);
  }

  // What system prints for a source of build 20250110 it wrote to `out`; `bytes` is the
  // size of the VERZEICHNIS.
  std::string said(const std::string& out, const std::string& summary, const std::string& bytes, int journal) {
    return system_said(s(out), "build 20250110, commit a1b2c3d4e5, " + summary, bytes, journal, s.pub("k0"));
  }

  // A system command that must be refused: exit 1, nothing on standard output, the one
  // message line, and nothing left behind.
  void expect_refused(std::vector<std::string> more, const std::string& message,
                      std::source_location where = std::source_location::current()) {
    std::vector<std::string> before = names_in(s.path());
    Outcome r = system(more);
    expect_outcome(r, 1, "", "ota-publish: " + message + "\n", where);
    ::testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "the refused system source");
    EXPECT_FALSE(exists(s("sys")));
    EXPECT_EQ(names_in(s.path()), before) << "something was left behind";
  }
};

TEST_F(SystemTest, ManifestListsEveryEntryAndTheSourceHoldsEveryDownload) {
  Outcome r = system({"--min-from", "20240101", "--gzip-kernel", "--notes", s("notes.txt"), "--roots", s("roots.pem"),
                      "--gzip-roots", "--file", "taskbar=" + s("taskbar") + ":gz", "--file",
                      "/etc/net/hosts.conf=" + s("hosts.conf"), "--link", "/apps/bar/start=/bin/taskbar"});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_outcome(r, 0, said("sys", "2 overlay file(s), 1 link(s)", size_text(s("sys/VERZEICHNIS")), 60), "");
  std::string kernel = read_all(s("tavi.mb"));
  std::string notes = read_all(s("notes.txt"));
  std::string roots = read_all(s("roots.pem"));
  std::string taskbar = read_all(s("taskbar"));
  std::string hosts = read_all(s("hosts.conf"));
  std::string kernel_gz = read_all(s("sys/tavi.mb.gz"));
  std::string roots_gz = read_all(s("sys/roots.pem.gz"));
  std::string taskbar_gz = read_all(s("sys/taskbar.gz"));
  std::string expected =
      "OTA2\n"
      "system\t20250110\ta1b2c3d4e5\t20240101\n"
      "sysfile\tkernel\t" +
      sha256_hex(kernel) +
      "\t4096\ttavi.mb\n"
      "sysfile\tnotes\t" +
      sha256_hex(notes) + "\t" + std::to_string(notes.size()) +
      "\tnotes.txt\n"
      "sysfile\troots\t" +
      sha256_hex(roots) + "\t" + std::to_string(roots.size()) +
      "\troots.pem\n"
      "sysfile\tfile\t" +
      sha256_hex(taskbar) + "\t" + std::to_string(taskbar.size()) +
      "\ttaskbar\ttaskbar\n"
      "sysfile\tfile\t" +
      sha256_hex(hosts) + "\t" + std::to_string(hosts.size()) +
      "\thosts.conf\t/etc/net/hosts.conf\n"
      "sysgz\tkernel\t" +
      sha256_hex(kernel_gz) + "\t" + std::to_string(kernel_gz.size()) +
      "\ttavi.mb.gz\n"
      "sysgz\troots\t" +
      sha256_hex(roots_gz) + "\t" + std::to_string(roots_gz.size()) +
      "\troots.pem.gz\n"
      "sysgz\ttaskbar\t" +
      sha256_hex(taskbar_gz) + "\t" + std::to_string(taskbar_gz.size()) +
      "\ttaskbar.gz\n"
      "syslink\t/apps/bar/start\t/bin/taskbar\n";
  EXPECT_EQ(read_all(s("sys/VERZEICHNIS")), expected);
  EXPECT_TRUE(verifies(read_all(s.pub("k0")), expected, read_all(s("sys/VERZEICHNIS.sig"))));
  EXPECT_EQ(names_in(s("sys")),
            (std::vector<std::string>{"VERZEICHNIS", "VERZEICHNIS.sig", "hosts.conf", "notes.txt", "roots.pem",
                                      "roots.pem.gz", "taskbar", "taskbar.gz", "tavi.mb", "tavi.mb.gz"}));
  EXPECT_EQ(read_all(s("sys/tavi.mb")), kernel);
  EXPECT_EQ(read_all(s("sys/taskbar")), taskbar);
  EXPECT_EQ(read_all(s("sys/hosts.conf")), hosts);

  Outcome c = publish({"check", s("sys"), "--trusted", s.pub("k0"), "--system"});
  expect_outcome(c, 0,
                 "check: VERZEICHNIS: " + std::to_string(expected.size()) +
                     " of 32767 bytes\n"
                     "check: signature ok with the key of generation 0\n"
                     "check: marker OTA2 ok\n"
                     "check: system build 20250110, commit a1b2c3d4e5, min_from 20240101\n"
                     "check: kernel: tavi.mb.gz, " +
                     std::to_string(kernel_gz.size()) +
                     " bytes, unpacks to 4096 bytes, hashes ok\n"
                     "check: notes: notes.txt, 30 bytes, hash ok\n"
                     "check: roots: roots.pem.gz, " +
                     std::to_string(roots_gz.size()) +
                     " bytes, unpacks to 60 bytes, hashes ok\n"
                     "check: overlay file taskbar: taskbar.gz, " +
                     std::to_string(taskbar_gz.size()) +
                     " bytes, unpacks to 5016 bytes, hashes ok\n"
                     "check: overlay file /etc/net/hosts.conf: hosts.conf, 20 bytes, hash ok\n"
                     "check: link /apps/bar/start -> /bin/taskbar\n"
                     "check: warning: link /apps/bar/start -> /bin/taskbar: a file at this path is lost if the update "
                     "is rolled back (a rollback leaves the link where the file stood)\n"
                     "check: overlay: 2 file(s), 1 link(s), journal 60 of 7900 bytes\n"
                     "check: ACCEPTED -- a device would take this source\n",
                 "");
}

TEST_F(SystemTest, GzipVariantsUnpackWithZlibToTheAnnouncedSizeAndHash) {
  Outcome r = system({"--gzip-kernel", "--roots", s("roots.pem"), "--gzip-roots", "--file",
                      "taskbar=" + s("taskbar") + ":gz", "--file", "/usr/share/x/hosts.conf=" + s("hosts.conf") + ":gz"});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_outcome(r, 0, said("sys", "2 overlay file(s), 0 link(s)", size_text(s("sys/VERZEICHNIS")), 34), "");
  std::string text = read_all(s("sys/VERZEICHNIS"));
  std::map<std::string, std::vector<std::string>> plain;   // target -> sysfile fields
  std::map<std::string, std::vector<std::string>> packed;  // target -> sysgz fields
  for (const std::string& line : lines_of(text)) {
    std::vector<std::string> f = fields_of(line);
    if (f[0] == "sysfile") plain[f[1] == "file" ? f[5] : f[1]] = f;
    if (f[0] == "sysgz") packed[f[1]] = f;
  }
  ASSERT_EQ(packed.size(), 4u);
  for (const auto& [target, gz] : packed) {
    ASSERT_TRUE(plain.count(target)) << target;
    std::string data = read_all(s("sys/" + gz[4]));
    EXPECT_EQ(gz[4], plain[target][4] + ".gz");
    EXPECT_EQ(std::to_string(data.size()), gz[3]) << target;
    EXPECT_EQ(sha256_hex(data), gz[2]) << target;
    std::string unpacked;
    ASSERT_TRUE(gunzip_by_zlib(data, unpacked)) << target;
    EXPECT_EQ(std::to_string(unpacked.size()), plain[target][3]) << target;
    EXPECT_EQ(sha256_hex(unpacked), plain[target][2]) << target;
    // No file name and no time in the header: bytes 4..7 are the zero modification time.
    ASSERT_GE(data.size(), 10u);
    EXPECT_EQ(data[3] & 0x08, 0) << "no FNAME";
    EXPECT_EQ(data.substr(4, 4), std::string(4, '\0'));
  }
  EXPECT_LT(std::stoul(packed["kernel"][3]), 4096u) << "the stand-in kernel compresses";
}

TEST_F(SystemTest, SameInputsGiveByteIdenticalSources) {
  std::vector<std::string> more = {
      "--gzip-kernel",        "--notes", s("notes.txt"), "--file", "taskbar=" + s("taskbar") + ":gz", "--link",
      "/etc/bar=/bin/taskbar"};
  Outcome a = system(more, "a");
  expect_outcome(a, 0, said("a", "1 overlay file(s), 1 link(s)", size_text(s("a/VERZEICHNIS")), 32), "");
  Outcome b = system(more, "b");
  expect_outcome(b, 0, said("b", "1 overlay file(s), 1 link(s)", size_text(s("a/VERZEICHNIS")), 32), "");
  ASSERT_EQ(names_in(s("a")), names_in(s("b")));
  for (const std::string& name : names_in(s("a"))) EXPECT_EQ(read_all(s("a/" + name)), read_all(s("b/" + name))) << name;
}

// The 48 bytes of a multiboot1 header as little-endian words.
std::string header_words(const std::vector<std::uint32_t>& words) {
  std::string out;
  for (std::uint32_t w : words)
    for (int i = 0; i < 4; ++i) out += static_cast<char>((w >> (8 * i)) & 0xff);
  return out;
}

TEST_F(SystemTest, KernelStandInImage) {
  std::string image = read_all(s("tavi.mb"));
  ASSERT_EQ(image.size(), 4096u);
  std::string first = "TAVI-KERNEL build=20250110 commit=a1b2c3d4e5 health=good\n";
  ASSERT_EQ(first.size(), 57u);
  EXPECT_EQ(image.substr(0, first.size()), first);
  // At offset 60, the first multiple of 4 after the line, a multiboot1 header: magic, flags
  // (a video mode, load addresses given), checksum, header_addr, load_addr, load_end_addr,
  // bss_end_addr, entry_addr, and a linear framebuffer of 1024 x 768 x 32.
  EXPECT_EQ(to_hex(image.substr(60, 48)), to_hex(header_words({0x1BADB002, 0x00010004, 0xE4514FFA, 0x0010003C, 0x00100000,
                                                         0, 0, 0x0010006C, 0, 1024, 768, 32})));
  for (std::size_t i = first.size(); i < image.size(); ++i) {
    if (i >= 60 && i < 108) continue;
    ASSERT_EQ(static_cast<unsigned char>(image[i]), i % 251) << i;
  }
  Outcome r =
      publish({"kernel", "--build", "7", "--commit", "deadbeef", "--broken", "--size", "100", "--out", s("bad.mb")});
  expect_outcome(r, 0, kernel_said(s("bad.mb"), "7", "deadbeef", "broken", 100), "");
  EXPECT_EQ(read_all(s("bad.mb")).size(), 100u);
  EXPECT_EQ(read_all(s("bad.mb")).rfind("TAVI-KERNEL build=7 commit=deadbeef health=broken\n", 0), 0u);
  EXPECT_EQ(read_all(s("bad.mb")).substr(52, 4), header_words({0x1BADB002}));
  // The line (50 bytes) and the header at 52 need 100 bytes.
  r = publish({"kernel", "--build", "7", "--commit", "deadbeef", "--broken", "--size", "99", "--out", s("tiny.mb")});
  expect_outcome(r, 1, "",
                 "ota-publish: image size 99 is smaller than its first line and multiboot1 header (100 bytes)\n");
  r = publish({"kernel", "--build", "7", "--commit", "dead", "--out", s("short.mb")});
  expect_outcome(r, 1, "",
                 "ota-publish: commit \"dead\" is 4 characters; at least 7 are needed, since a device recognises the "
                 "running kernel by the first seven\n");
  EXPECT_FALSE(exists(s("tiny.mb")));
  EXPECT_FALSE(exists(s("short.mb")));
}

// An image such as a linker makes, of `size` bytes, with the words given at `at`.
std::string kernel_with(std::size_t at, const std::vector<std::uint32_t>& words, std::size_t size = 6000) {
  std::string image = "\x7f" "ELF" + std::string(size - 4, '\0');
  // Bytes rising by 7 can never spell the magic, whose bytes are 02 b0 ad 1b.
  for (std::size_t i = 4; i < image.size(); ++i) image[i] = static_cast<char>((i * 7) % 256);
  image.replace(at, words.size() * 4, header_words(words));
  return image;
}

TEST_F(SystemTest, AKernelLimineOnUefiWouldNotStartIsRefusedAndAGoodOneIsTakenAsItIs) {
  const std::uint32_t magic = 0x1BADB002;
  // A real kernel's header: page-aligned modules, memory information and a video mode
  // (flags 0x7), at 4096 bytes in. It is published byte for byte.
  std::string real = kernel_with(4096, {magic, 0x7, 0u - magic - 0x7, 0, 0, 0, 0, 0, 0, 1280, 800, 32});
  write_all(s("real.mb"), real);
  std::vector<std::string> words = base();
  words.back() = s("real.mb");
  Outcome r = publish(words);
  expect_outcome(r, 0, said("sys", "0 overlay file(s), 0 link(s)", "125", 0), "");
  EXPECT_EQ(read_all(s("sys/real.mb")), real);
  EXPECT_EQ(read_all(s("sys/VERZEICHNIS")),
            "OTA2\nsystem\t20250110\ta1b2c3d4e5\nsysfile\tkernel\t" + sha256_hex(real) + "\t6000\treal.mb\n");
  std::filesystem::remove_all(s("sys"));

  struct Case {
    std::string name;
    std::string image;
    std::string reason;
  };
  std::vector<Case> cases = {
      {"text.mb", kernel_with(4096, {magic, 0x3, 0u - magic - 0x3}),
       "its multiboot1 header at offset 4096 asks for text mode only (flags 0x00000003, bit 2 not set), and Limine "
       "on UEFI stops with \"PANIC: multiboot1: Cannot use text mode with UEFI.\""},
      {"sum.mb", kernel_with(4096, {magic, 0x7, 0u - magic - 0x6}),
       "its multiboot1 header at offset 4096 has a bad checksum (magic + flags + checksum is 0x00000001, not 0)"},
      {"late.mb", kernel_with(8184, {magic, 0x7, 0u - magic - 0x7}, 9000),
       "it has no multiboot1 header (the magic 0x1BADB002 at a 4-byte aligned offset within its first 8192 bytes)"},
      {"odd.mb", kernel_with(4098, {magic, 0x7, 0u - magic - 0x7}),
       "it has no multiboot1 header (the magic 0x1BADB002 at a 4-byte aligned offset within its first 8192 bytes)"},
      {"short.mb", "\x02\xb0\xad\x1b",
       "it is 4 bytes, too short for a multiboot1 header (Limine: \"Kernel file too small to contain header\")"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    write_all(s(c.name), c.image);
    std::vector<std::string> before = names_in(s.path());
    words.back() = s(c.name);
    r = publish(words);
    expect_outcome(r, 1, "",
                   "ota-publish: kernel file \"" + s(c.name) + "\" would not start under Limine on UEFI: " + c.reason +
                       "\n");
    EXPECT_FALSE(exists(s("sys")));
    EXPECT_EQ(names_in(s.path()), before) << "something was left behind";
  }
}

TEST_F(SystemTest, BuildCommitAndMinFromLimits) {
  Outcome r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "2025x", "--commit", "a1b2c3d4",
                       "--kernel", s("tavi.mb")});
  expect_outcome(r, 1, "", "ota-publish: build \"2025x\" is not a decimal number\n");
  r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "100000000", "--commit", "a1b2c3d4",
               "--kernel", s("tavi.mb")});
  expect_outcome(r, 1, "", "ota-publish: build \"100000000\" is too large; at most 99999999\n");
  auto with_commit = [&](const std::string& commit) {
    return publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "5", "--commit", commit, "--kernel",
                    s("tavi.mb")});
  };
  r = with_commit("abc1234");
  expect_outcome(r, 0,
                 system_said(s("sys"), "build 5, commit abc1234, 0 overlay file(s), 0 link(s)", "115", 0, s.pub("k0")),
                 "");
  std::filesystem::remove_all(s("sys"));
  r = with_commit("abc123");
  expect_outcome(r, 1, "",
                 "ota-publish: commit \"abc123\" is 6 characters; at least 7 are needed, since a device recognises the "
                 "running kernel by the first seven\n");
  r = with_commit(std::string(20, 'c'));
  expect_outcome(r, 1, "",
                 "ota-publish: commit \"" + std::string(20, 'c') + "\" is 20 characters; a device keeps at most 19\n");
  r = with_commit("abc\t1234");
  expect_outcome(r, 1, "",
                 "ota-publish: commit \"abc\\t1234\" contains a control character; a TAB, LF or CR would break the "
                 "line on the device\n");
  r = with_commit("abc 1234");
  expect_outcome(r, 1, "", "ota-publish: commit \"abc 1234\" contains a blank\n");
  expect_refused({"--min-from", "20250111"},
                 "min_from 20250111 is above build 20250110; every device offered this build would be too old for it");
  EXPECT_FALSE(exists(s("sys")));
}

TEST_F(SystemTest, RepeatedSingleOptionIsAUsageError) {
  Outcome r = system({"--build", "7"});
  expect_outcome(r, 2, "",
                 "ota-publish system: option --build is given twice\n(ota-publish system --help shows the options)\n");
}

TEST_F(SystemTest, NotesRootsAndKernelFiles) {
  write_all(s("notes2000"), std::string(2000, 'n'));
  write_all(s("notes2001"), std::string(2001, 'n'));
  expect_outcome(system({"--notes", s("notes2000")}), 0, said("sys", "0 overlay file(s), 0 link(s)", "219", 0), "");
  std::filesystem::remove_all(s("sys"));
  expect_refused({"--notes", s("notes2001")},
                 "notes file \"" + s("notes2001") +
                     "\" is 2001 bytes; a device fetches notes of at most 2000 bytes and skips larger ones");
  write_all(s("empty"), "");
  expect_refused({"--notes", s("empty")}, "notes file \"" + s("empty") + "\" is empty; a device needs a size above 0");
  expect_refused({"--roots", s("empty")}, "roots file \"" + s("empty") + "\" is empty; a device needs a size above 0");
  expect_refused({"--roots", s("nothing.pem")},
                 "cannot read roots file \"" + s("nothing.pem") + "\": No such file or directory");
  Outcome r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "5", "--commit", "abcdefg",
                       "--kernel", s("nothing.mb")});
  expect_outcome(r, 1, "",
                 "ota-publish: cannot read kernel file \"" + s("nothing.mb") + "\": No such file or directory\n");

  r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "5", "--commit", "abcdefg", "--kernel",
               s("empty")});
  expect_outcome(r, 1, "",
                 "ota-publish: kernel file \"" + s("empty") + "\" is empty; a device needs a size above 0\n");
  // Long names are quoted with their first 80 characters.
  std::string long_notes = std::string(120, 'n');
  write_all(s(long_notes), "notes\n");
  expect_refused({"--notes", s(long_notes)},
                 "notes file name \"" + std::string(80, 'n') + "...\" is 120 characters; a device keeps at most 119");
  expect_refused({"--roots", s(long_notes)},
                 "roots file name \"" + std::string(80, 'n') + "...\" is 120 characters; a device keeps at most 119");
  expect_refused({"--min-from", "2024-01"}, "min_from \"2024-01\" is not a decimal number");

  std::string long_kernel = std::string(119, 'k');
  expect_outcome(publish({"kernel", "--build", "5", "--commit", "abcdefg", "--out", s(long_kernel)}), 0,
                 kernel_said(s(long_kernel), "5", "abcdefg"), "");
  r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "5", "--commit", "abcdefg", "--kernel",
               s(long_kernel)});
  expect_outcome(r, 0,
                 system_said(s("sys"), "build 5, commit abcdefg, 0 overlay file(s), 0 link(s)", "227", 0, s.pub("k0")),
                 "");
  std::filesystem::remove_all(s("sys"));
  // Its gzip variant would have a name of 122 characters.
  r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "5", "--commit", "abcdefg", "--kernel",
               s(long_kernel), "--gzip-kernel"});
  expect_outcome(r, 1, "",
                 "ota-publish: gzip name of kernel \"" + std::string(80, 'k') +
                     "...\" is 122 characters; a device keeps at most 119\n");
  std::string too_long = std::string(120, 'k');
  expect_outcome(publish({"kernel", "--build", "5", "--commit", "abcdefg", "--out", s(too_long)}), 0,
                 kernel_said(s(too_long), "5", "abcdefg"), "");
  r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "5", "--commit", "abcdefg", "--kernel",
               s(too_long)});
  expect_outcome(r, 1, "",
                 "ota-publish: kernel file name \"" + std::string(80, 'k') +
                     "...\" is 120 characters; a device keeps at most 119\n");
  EXPECT_FALSE(exists(s("sys")));
}

TEST_F(SystemTest, OverlayTargetsFollowTheDeviceRules) {
  std::string f = s("hosts.conf");
  // Refused targets, each with the reason a device would refuse it for.
  expect_refused({"--file", "/bin/ls=" + f},
                 "overlay target \"/bin/ls\" is not allowed: an absolute path must begin with /apps/, /etc/, "
                 "/usr/share/ or /lib/ (programs in /bin are named by their bare name)");
  expect_refused({"--file", "/etc/../x=" + f},
                 "overlay target \"/etc/../x\" is not allowed: an absolute path must not contain \"..\"");
  expect_refused({"--file", "/etc//x=" + f},
                 "overlay target \"/etc//x\" is not allowed: an absolute path must not contain \"//\"");
  expect_refused({"--file", "/etc/=" + f},
                 "overlay target \"/etc/\" is not allowed: an absolute path is 6 to 60 characters");
  expect_refused({"--file", "/etc/x/=" + f},
                 "overlay target \"/etc/x/\" is not allowed: an absolute path must not end with \"/\"");
  expect_refused({"--file", "..x=" + f},
                 "overlay target \"..x\" is not allowed: a program name must not start with \".\"");
  expect_refused({"--file", "a b=" + f},
                 "overlay target \"a b\" is not allowed: a program name holds only letters, digits, \".\", \"-\" and "
                 "\"_\"");
  expect_refused({"--file", "/etc/a b=" + f},
                 "overlay target \"/etc/a b\" is not allowed: an absolute path holds only letters, digits, \".\", "
                 "\"-\", \"_\" and \"/\"");
  expect_refused({"--file", "=" + f}, "overlay target is empty; a device reads an empty field as missing");
  expect_refused({"--file", "kernel=" + f},
                 "overlay target \"kernel\" is not allowed: devices take a gzip line for \"kernel\" as the kernel "
                 "entry's");
  expect_refused({"--file", "roots=" + f},
                 "overlay target \"roots\" is not allowed: devices take a gzip line for \"roots\" as the roots entry's");
  expect_refused({"--file", "x\ty=" + f},
                 "overlay target \"x\\ty\" contains a control character; a TAB, LF or CR would break the line on the "
                 "device");
  // 60 characters pass the device's target test but are cut to 59 when read.
  expect_refused({"--file", std::string(60, 'p') + "=" + f},
                 "overlay target \"" + std::string(60, 'p') + "\" is 60 characters; a device keeps at most 59");
  expect_refused({"--file", "/etc/" + std::string(55, 'p') + "=" + f},
                 "overlay target \"/etc/" + std::string(55, 'p') + "\" is 60 characters; a device keeps at most 59");
  expect_refused({"--file", "x=" + f, "--file", "x=" + s("taskbar")}, "overlay target \"x\" is given twice");
  // The download name of an overlay file is limited like the kernel's.
  std::string long_name = std::string(120, 'd');
  write_all(s(long_name), "x");
  expect_refused({"--file", "x=" + s(long_name)},
                 "download name of x \"" + std::string(80, 'd') + "...\" is 120 characters; a device keeps at most 119");

  // Accepted forms: a bare name and each allowed absolute prefix, at their longest.
  Outcome r = system({"--file", "x.y-z_1=" + f, "--file", std::string(59, 'p') + "=" + f, "--file",
                      "/apps/clock/start=" + f, "--file", "/usr/share/a=" + f, "--file",
                      "/lib/" + std::string(54, 'l') + "=" + f, "--file", "/etc/a=" + f});
  expect_outcome(r, 0, said("sys", "6 overlay file(s), 0 link(s)", "843", 172), "");
}

TEST_F(SystemTest, LinksFollowTheDeviceRules) {
  expect_refused({"--link", "/bin/ls=/bin/busybox"},
                 "link \"/bin/ls=/bin/busybox\" is not allowed: link path: an absolute path must begin with /apps/, "
                 "/etc/, /usr/share/ or /lib/ (programs in /bin are named by their bare name)");
  expect_refused({"--link", "relative=/bin/busybox"},
                 "link \"relative=/bin/busybox\" is not allowed: the link path must be an absolute path");
  expect_refused({"--link", "/etc/sh=/usr/bin/busybox"},
                 "link \"/etc/sh=/usr/bin/busybox\" is not allowed: the link target must be /bin/ followed by a "
                 "program name");
  expect_refused({"--link", "/etc/sh=/bin//busybox"},
                 "link \"/etc/sh=/bin//busybox\" is not allowed: the link target must be /bin/ followed by a program "
                 "name");
  expect_refused({"--link", "/etc/sh=/bin/.hidden"},
                 "link \"/etc/sh=/bin/.hidden\" is not allowed: link target: a program name must not start with \".\"");
  expect_refused({"--link", "/etc/" + std::string(55, 'l') + "=/bin/x"},
                 "link path \"/etc/" + std::string(55, 'l') + "\" is 60 characters; a device keeps at most 59");
  expect_refused({"--link", "/etc/l=/bin/" + std::string(55, 'x')},
                 "link target \"/bin/" + std::string(55, 'x') + "\" is 60 characters; a device keeps at most 59");
  expect_refused({"--file", "/etc/a=" + s("hosts.conf"), "--link", "/etc/a=/bin/x"},
                 "link path \"/etc/a\" is also an overlay target or another link");
  Outcome r = system({"--link", "/etc/" + std::string(54, 'l') + "=/bin/" + std::string(54, 'x')});
  expect_outcome(r, 0, said("sys", "0 overlay file(s), 1 link(s)", "253", 121), "");
}

TEST_F(SystemTest, LinkWithoutEqualsIsAUsageError) {
  Outcome r = system({"--link", "/etc/sh"});
  expect_outcome(r, 2, "",
                 "ota-publish system: --link /etc/sh: expected LINKPATH=/bin/NAME\n(ota-publish system --help shows "
                 "the options)\n");
}

TEST_F(SystemTest, OverlayJournalMustStayWithin7900BytesAsTheDeviceCountsIt) {
  std::string f = s("hosts.conf");
  auto target = [](int i, std::size_t length) {
    std::string t = "/etc/" + std::to_string(i) + "-";
    return t + std::string(length - t.size(), 'j');
  };
  // 129 file entries of 59 characters: 61 journal bytes each, 7869 in all; before the
  // 129th the device sees 7808 + 59 + 3 = 7870, within 7900.
  std::vector<std::string> files;
  for (int i = 0; i < 129; ++i) {
    files.push_back("--file");
    files.push_back(target(i, 59) + "=" + f);
  }
  Outcome r = system(files);
  ASSERT_EQ(r.status, 0) << r.err;
  expect_outcome(r, 0, said("sys", "129 overlay file(s), 0 link(s)", "19733", 7869), "");
  Outcome c = publish({"check", s("sys"), "--trusted", s.pub("k0"), "--system"});
  std::string report =
      "check: VERZEICHNIS: 19733 of 32767 bytes\n"
      "check: signature ok with the key of generation 0\n"
      "check: marker OTA2 ok\n"
      "check: system build 20250110, commit a1b2c3d4e5\n"
      "check: kernel: tavi.mb, 4096 bytes, hash ok\n";
  for (int i = 0; i < 129; ++i) report += "check: overlay file " + target(i, 59) + ": hosts.conf, 20 bytes, hash ok\n";
  report +=
      "check: overlay: 129 file(s), 0 link(s), journal 7869 of 7900 bytes\n"
      "check: ACCEPTED -- a device would take this source\n";
  expect_outcome(c, 0, report, "");
  std::filesystem::remove_all(s("sys"));

  // One more entry of 28 characters makes exactly 7869 + 28 + 3 = 7900: still fine.
  std::vector<std::string> more = files;
  more.push_back("--file");
  more.push_back(target(500, 28) + "=" + f);
  r = system(more);
  expect_outcome(r, 0, said("sys", "130 overlay file(s), 0 link(s)", "19854", 7899), "");
  std::filesystem::remove_all(s("sys"));
  // 29 characters would need 7901.
  more.back() = target(500, 29) + "=" + f;
  expect_refused(more, "overlay journal: file entry 130 (\"" + target(500, 29) +
                           "\") needs 7901 bytes of journal; a device writes at most 7900 and would refuse the whole "
                           "update");

  // Links: each needs 140 bytes of room. After 127 files (7747 bytes) one link fits
  // (7887), a second one does not (7762 + 140 = 7902).
  std::vector<std::string> with_links(files.begin(), files.begin() + 2 * 127);
  with_links.push_back("--link");
  with_links.push_back("/etc/la=/bin/x");
  r = system(with_links);
  expect_outcome(r, 0, said("sys", "127 overlay file(s), 1 link(s)", "19452", 7763), "");
  std::filesystem::remove_all(s("sys"));
  with_links.push_back("--link");
  with_links.push_back("/etc/lb=/bin/x");
  expect_refused(with_links,
                 "overlay journal: link 2 (\"/etc/lb\") needs room for 140 more bytes after 7763; a device writes at "
                 "most 7900 and would refuse the whole update");
}

TEST_F(SystemTest, SameDownloadNameWithDifferentContentsIsRefused) {
  std::filesystem::create_directories(s("other"));
  write_all(s("other/hosts.conf"), "different\n");
  expect_refused({"--file", "/etc/a=" + s("hosts.conf"), "--file", "/etc/b=" + s("other/hosts.conf")},
                 "overlay file " + s("other/hosts.conf") + " and overlay file " + s("hosts.conf") +
                     " would both be published as \"hosts.conf\" with different contents");
  // The same file for two targets is published once.
  Outcome r = system({"--file", "/etc/a=" + s("hosts.conf"), "--file", "/etc/b=" + s("hosts.conf")});
  expect_outcome(r, 0, said("sys", "2 overlay file(s), 0 link(s)", "323", 16), "");
}

}  // namespace
