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
    ASSERT_EQ(publish({"kernel", "--build", "20250110", "--commit", "a1b2c3d4e5", "--out", s("tavi.mb")}).status, 0);
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

  void expect_refused(std::vector<std::string> more, const std::vector<std::string>& message_parts) {
    std::vector<std::string> before = names_in(s.path());
    Outcome r = system(more);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    for (const std::string& part : message_parts) EXPECT_NE(r.err.find(part), std::string::npos) << r.err;
    EXPECT_FALSE(exists(s("sys")));
    EXPECT_EQ(names_in(s.path()), before) << "something was left behind";
  }
};

TEST_F(SystemTest, ManifestListsEveryEntryAndTheSourceHoldsEveryDownload) {
  Outcome r = system({"--min-from", "20240101", "--gzip-kernel", "--notes", s("notes.txt"), "--roots", s("roots.pem"),
                      "--gzip-roots", "--file", "taskbar=" + s("taskbar") + ":gz", "--file",
                      "/etc/net/hosts.conf=" + s("hosts.conf"), "--link", "/apps/bar/start=/bin/taskbar"});
  ASSERT_EQ(r.status, 0) << r.err;
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
  EXPECT_EQ(c.status, 0) << c.out << c.err;
  EXPECT_NE(c.out.find("kernel: tavi.mb.gz"), std::string::npos) << c.out;
  EXPECT_NE(c.out.find("journal 60 of 7900 bytes"), std::string::npos) << c.out;
}

TEST_F(SystemTest, GzipVariantsUnpackWithZlibToTheAnnouncedSizeAndHash) {
  ASSERT_EQ(system({"--gzip-kernel", "--roots", s("roots.pem"), "--gzip-roots", "--file",
                    "taskbar=" + s("taskbar") + ":gz", "--file", "/usr/share/x/hosts.conf=" + s("hosts.conf") + ":gz"})
                .status,
            0);
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
  ASSERT_EQ(system(more, "a").status, 0);
  ASSERT_EQ(system(more, "b").status, 0);
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
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(read_all(s("bad.mb")).size(), 100u);
  EXPECT_EQ(read_all(s("bad.mb")).rfind("TAVI-KERNEL build=7 commit=deadbeef health=broken\n", 0), 0u);
  EXPECT_EQ(read_all(s("bad.mb")).substr(52, 4), header_words({0x1BADB002}));
  // The line (50 bytes) and the header at 52 need 100 bytes.
  r = publish({"kernel", "--build", "7", "--commit", "deadbeef", "--broken", "--size", "99", "--out", s("tiny.mb")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("image size 99 is smaller than its first line and multiboot1 header (100 bytes)"),
            std::string::npos)
      << r.err;
  r = publish({"kernel", "--build", "7", "--commit", "dead", "--out", s("short.mb")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("at least 7"), std::string::npos) << r.err;
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
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(read_all(s("sys/real.mb")), real);
  EXPECT_NE(read_all(s("sys/VERZEICHNIS")).find("sysfile\tkernel\t" + sha256_hex(real) + "\t6000\treal.mb\n"),
            std::string::npos);
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
      {"odd.mb", kernel_with(4098, {magic, 0x7, 0u - magic - 0x7}), "it has no multiboot1 header"},
      {"short.mb", "\x02\xb0\xad\x1b", "it is 4 bytes, too short for a multiboot1 header"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    write_all(s(c.name), c.image);
    std::vector<std::string> before = names_in(s.path());
    words.back() = s(c.name);
    r = publish(words);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("ota-publish: kernel file \"" + s(c.name) + "\" would not start under Limine on UEFI: " +
                         c.reason),
              std::string::npos)
        << r.err;
    EXPECT_FALSE(exists(s("sys")));
    EXPECT_EQ(names_in(s.path()), before) << "something was left behind";
  }
}

TEST_F(SystemTest, BuildCommitAndMinFromLimits) {
  Outcome r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "2025x", "--commit", "a1b2c3d4",
                       "--kernel", s("tavi.mb")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("build \"2025x\" is not a decimal number"), std::string::npos) << r.err;
  r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "100000000", "--commit", "a1b2c3d4",
               "--kernel", s("tavi.mb")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("at most 99999999"), std::string::npos) << r.err;
  auto with_commit = [&](const std::string& commit) {
    return publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "5", "--commit", commit, "--kernel",
                    s("tavi.mb")});
  };
  r = with_commit("abc1234");
  EXPECT_EQ(r.status, 0) << r.err;
  std::filesystem::remove_all(s("sys"));
  r = with_commit("abc123");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("commit \"abc123\" is 6 characters; at least 7"), std::string::npos) << r.err;
  r = with_commit(std::string(20, 'c'));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("20 characters; a device keeps at most 19"), std::string::npos) << r.err;
  r = with_commit("abc\t1234");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("control character"), std::string::npos) << r.err;
  r = with_commit("abc 1234");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("blank"), std::string::npos) << r.err;
  expect_refused({"--min-from", "20250111"}, {"min_from 20250111 is above build 20250110"});
  EXPECT_FALSE(exists(s("sys")));
}

TEST_F(SystemTest, RepeatedSingleOptionIsAUsageError) {
  Outcome r = system({"--build", "7"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("--build is given twice"), std::string::npos) << r.err;
}

TEST_F(SystemTest, NotesRootsAndKernelFiles) {
  write_all(s("notes2000"), std::string(2000, 'n'));
  write_all(s("notes2001"), std::string(2001, 'n'));
  ASSERT_EQ(system({"--notes", s("notes2000")}).status, 0);
  std::filesystem::remove_all(s("sys"));
  expect_refused({"--notes", s("notes2001")}, {"notes2001", "2001 bytes", "2000"});
  write_all(s("empty"), "");
  expect_refused({"--notes", s("empty")}, {"empty"});
  expect_refused({"--roots", s("empty")}, {"empty"});
  expect_refused({"--roots", s("nothing.pem")}, {"roots file", "nothing.pem"});
  Outcome r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "5", "--commit", "abcdefg",
                       "--kernel", s("nothing.mb")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("kernel file \"" + s("nothing.mb") + "\""), std::string::npos) << r.err;

  r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "5", "--commit", "abcdefg", "--kernel",
               s("empty")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("kernel file \"" + s("empty") + "\" is empty"), std::string::npos) << r.err;
  std::string long_notes = std::string(120, 'n');
  write_all(s(long_notes), "notes\n");
  expect_refused({"--notes", s(long_notes)}, {"notes file name", "120 characters; a device keeps at most 119"});
  expect_refused({"--roots", s(long_notes)}, {"roots file name", "120 characters; a device keeps at most 119"});
  expect_refused({"--min-from", "2024-01"}, {"min_from \"2024-01\" is not a decimal number"});

  std::string long_kernel = std::string(119, 'k');
  ASSERT_EQ(publish({"kernel", "--build", "5", "--commit", "abcdefg", "--out", s(long_kernel)}).status, 0);
  r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "5", "--commit", "abcdefg", "--kernel",
               s(long_kernel)});
  EXPECT_EQ(r.status, 0) << r.err;
  std::filesystem::remove_all(s("sys"));
  // Its gzip variant would have a name of 122 characters.
  r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "5", "--commit", "abcdefg", "--kernel",
               s(long_kernel), "--gzip-kernel"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("gzip name of kernel"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("122 characters; a device keeps at most 119"), std::string::npos) << r.err;
  std::string too_long = std::string(120, 'k');
  ASSERT_EQ(publish({"kernel", "--build", "5", "--commit", "abcdefg", "--out", s(too_long)}).status, 0);
  r = publish({"system", "--key", s.key("k0"), "--out", s("sys"), "--build", "5", "--commit", "abcdefg", "--kernel",
               s(too_long)});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("kernel file name"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("120 characters; a device keeps at most 119"), std::string::npos) << r.err;
  EXPECT_FALSE(exists(s("sys")));
}

TEST_F(SystemTest, OverlayTargetsFollowTheDeviceRules) {
  std::string f = s("hosts.conf");
  // Refused targets, each with the reason a device would refuse it for.
  expect_refused({"--file", "/bin/ls=" + f}, {"\"/bin/ls\"", "must begin with /apps/"});
  expect_refused({"--file", "/etc/../x=" + f}, {"\"/etc/../x\"", "\"..\""});
  expect_refused({"--file", "/etc//x=" + f}, {"\"/etc//x\"", "\"//\""});
  expect_refused({"--file", "/etc/=" + f}, {"\"/etc/\""});
  expect_refused({"--file", "/etc/x/=" + f}, {"\"/etc/x/\"", "must not end with"});
  expect_refused({"--file", "..x=" + f}, {"\"..x\"", "must not start with"});
  expect_refused({"--file", "a b=" + f}, {"\"a b\"", "only letters"});
  expect_refused({"--file", "/etc/a b=" + f}, {"only letters"});
  expect_refused({"--file", "=" + f}, {"overlay target is empty"});
  expect_refused({"--file", "kernel=" + f}, {"\"kernel\"", "gzip line"});
  expect_refused({"--file", "roots=" + f}, {"\"roots\""});
  expect_refused({"--file", "x\ty=" + f}, {"control character"});
  // 60 characters pass the device's target test but are cut to 59 when read.
  expect_refused({"--file", std::string(60, 'p') + "=" + f}, {"60 characters; a device keeps at most 59"});
  expect_refused({"--file", "/etc/" + std::string(55, 'p') + "=" + f}, {"60 characters; a device keeps at most 59"});
  expect_refused({"--file", "x=" + f, "--file", "x=" + s("taskbar")}, {"\"x\" is given twice"});
  // The download name of an overlay file is limited like the kernel's.
  std::string long_name = std::string(120, 'd');
  write_all(s(long_name), "x");
  expect_refused({"--file", "x=" + s(long_name)}, {"download name of x", "at most 119"});

  // Accepted forms: a bare name and each allowed absolute prefix, at their longest.
  Outcome r = system({"--file", "x.y-z_1=" + f, "--file", std::string(59, 'p') + "=" + f, "--file",
                      "/apps/clock/start=" + f, "--file", "/usr/share/a=" + f, "--file",
                      "/lib/" + std::string(54, 'l') + "=" + f, "--file", "/etc/a=" + f});
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(SystemTest, LinksFollowTheDeviceRules) {
  expect_refused({"--link", "/bin/ls=/bin/busybox"}, {"link", "must begin with /apps/"});
  expect_refused({"--link", "relative=/bin/busybox"}, {"link path must be an absolute path"});
  expect_refused({"--link", "/etc/sh=/usr/bin/busybox"}, {"/bin/ followed by a program name"});
  expect_refused({"--link", "/etc/sh=/bin//busybox"}, {"/bin/ followed by a program name"});
  expect_refused({"--link", "/etc/sh=/bin/.hidden"}, {"link target", "must not start with"});
  expect_refused({"--link", "/etc/" + std::string(55, 'l') + "=/bin/x"}, {"link path", "at most 59"});
  expect_refused({"--link", "/etc/l=/bin/" + std::string(55, 'x')}, {"link target", "at most 59"});
  expect_refused({"--file", "/etc/a=" + s("hosts.conf"), "--link", "/etc/a=/bin/x"}, {"also an overlay target"});
  Outcome r = system({"--link", "/etc/" + std::string(54, 'l') + "=/bin/" + std::string(54, 'x')});
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(SystemTest, LinkWithoutEqualsIsAUsageError) {
  Outcome r = system({"--link", "/etc/sh"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("LINKPATH=/bin/NAME"), std::string::npos) << r.err;
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
  EXPECT_NE(r.out.find("overlay journal 7869 of 7900 bytes"), std::string::npos) << r.out;
  Outcome c = publish({"check", s("sys"), "--trusted", s.pub("k0"), "--system"});
  EXPECT_EQ(c.status, 0) << c.err;
  std::filesystem::remove_all(s("sys"));

  // One more entry of 28 characters makes exactly 7869 + 28 + 3 = 7900: still fine.
  std::vector<std::string> more = files;
  more.push_back("--file");
  more.push_back(target(500, 28) + "=" + f);
  r = system(more);
  EXPECT_EQ(r.status, 0) << r.err;
  std::filesystem::remove_all(s("sys"));
  // 29 characters would need 7901.
  more.back() = target(500, 29) + "=" + f;
  expect_refused(more, {"overlay journal", "file entry 130", "7901 bytes", "7900"});

  // Links: each needs 140 bytes of room. After 127 files (7747 bytes) one link fits
  // (7887), a second one does not (7762 + 140 = 7902).
  std::vector<std::string> with_links(files.begin(), files.begin() + 2 * 127);
  with_links.push_back("--link");
  with_links.push_back("/etc/la=/bin/x");
  r = system(with_links);
  EXPECT_EQ(r.status, 0) << r.err;
  std::filesystem::remove_all(s("sys"));
  with_links.push_back("--link");
  with_links.push_back("/etc/lb=/bin/x");
  expect_refused(with_links, {"overlay journal", "link 2", "\"/etc/lb\"", "7900"});
}

TEST_F(SystemTest, SameDownloadNameWithDifferentContentsIsRefused) {
  std::filesystem::create_directories(s("other"));
  write_all(s("other/hosts.conf"), "different\n");
  expect_refused({"--file", "/etc/a=" + s("hosts.conf"), "--file", "/etc/b=" + s("other/hosts.conf")},
                 {"\"hosts.conf\"", "different contents"});
  // The same file for two targets is published once.
  Outcome r = system({"--file", "/etc/a=" + s("hosts.conf"), "--file", "/etc/b=" + s("hosts.conf")});
  EXPECT_EQ(r.status, 0) << r.err;
}

}  // namespace
