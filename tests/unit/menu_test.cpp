// The boot menu module: the layout checks, the rewrite that adds entry B as the default,
// the in-place switch back to entry 1, the file copy and the fresh menu pieces.
#include "system/menu.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "test_support.h"

using namespace ota;

namespace {

struct Rewrite {
  int code;
  std::string text;
};

Rewrite rewrite(const std::string& in, size_t capacity = kMenuOutputBytes) {
  std::vector<char> out(capacity + 1, '#');
  int code = check_and_add_entry_b(in.data(), in.size(), out.data(), capacity);
  if (code != 0) return {code, ""};
  EXPECT_EQ(out[menu_new_length()], 0) << "the new menu is closed with a zero byte";
  EXPECT_EQ(out[capacity], '#') << "nothing is written past the capacity";
  return {0, std::string(out.data(), menu_new_length())};
}

int code_of(const std::string& in) { return rewrite(in).code; }

const std::string kEntryA =
    "/tavi\n"
    "    protocol: multiboot1\n"
    "    path: boot():/tavi.mb\n"
    "    cmdline: tavi vfs gfx\n";
const std::string kEntryB =
    "/tavi (update)\n"
    "    protocol: multiboot1\n"
    "    path: boot():/tavi-b.mb\n"
    "    cmdline: tavi vfs gfx\n";
const std::string kOther =
    "/Windows Boot Manager\n"
    "    protocol: efi_chainload\n"
    "    path: boot():/EFI/Microsoft/Boot/bootmgfw.efi\n";

}  // namespace

TEST(MenuRewrite, BasicMenuGetsEntryBAsDefault) {
  std::string in = "timeout: 5\ndefault_entry: 1\n\n" + kEntryA + "\n" + kOther;
  Rewrite r = rewrite(in);
  ASSERT_EQ(r.code, 0);
  // Entry A ends with an empty line, so none is added before entry B, which copies it.
  EXPECT_EQ(r.text, "timeout: 5\ndefault_entry: 2\n\n" + kEntryA + "\n" + kEntryB + "\n" + kOther);
  EXPECT_EQ(menu_new_length(), r.text.size());
  EXPECT_FALSE(menu_overflowed());
  EXPECT_STREQ(menu_kernel_dir(), "");
  EXPECT_EQ(menu_kernel_dir_length(), 0u);
}

TEST(MenuRewrite, EntryWithoutEmptyLineGetsOneBeforeEntryB) {
  std::string in = "timeout: 5\ndefault_entry: 1\n\n" + kEntryA + kOther;
  Rewrite r = rewrite(in);
  ASSERT_EQ(r.code, 0);
  EXPECT_EQ(r.text, "timeout: 5\ndefault_entry: 2\n\n" + kEntryA + "\n" + kEntryB + kOther);
}

TEST(MenuRewrite, OnlyEntryAtEndOfFile) {
  std::string in = "default_entry: 1\n" + kEntryA;
  EXPECT_EQ(rewrite(in).text, "default_entry: 2\n" + kEntryA + "\n" + kEntryB);
  // Without a final newline both the newline and the empty line are added.
  std::string cut = in.substr(0, in.size() - 1);
  EXPECT_EQ(rewrite(cut).text, "default_entry: 2\n" + kEntryA + "\n" + kEntryB.substr(0, kEntryB.size() - 1));
}

TEST(MenuRewrite, RunningItAgainChangesNothing) {
  std::string in = "timeout: 5\ndefault_entry: 1\n\n" + kEntryA + kOther;
  Rewrite first = rewrite(in);
  ASSERT_EQ(first.code, 0);
  Rewrite second = rewrite(first.text);
  ASSERT_EQ(second.code, 0);
  EXPECT_EQ(second.text, first.text);
  // The second run saw entry B in place and only rewrote the default line.
  EXPECT_EQ(second.text.find("/tavi-b.mb"), second.text.rfind("/tavi-b.mb"));
}

TEST(MenuRewrite, DefaultTwoIsRewrittenWhenEntryBExists) {
  std::string in = "default_entry: 1\n" + kEntryA + "\n" + kEntryB;
  Rewrite r = rewrite(in);
  ASSERT_EQ(r.code, 0);
  EXPECT_EQ(r.text, "default_entry: 2\n" + kEntryA + "\n" + kEntryB);
}

TEST(MenuRewrite, MissingDefaultLineIsAddedFirst) {
  std::string in = "timeout: 5\n\n" + kEntryA;
  EXPECT_EQ(rewrite(in).text, "default_entry: 2\ntimeout: 5\n\n" + kEntryA + "\n" + kEntryB);
  std::string bare = kEntryA;
  EXPECT_EQ(rewrite(bare).text, "default_entry: 2\n" + kEntryA + "\n" + kEntryB);
}

TEST(MenuRewrite, DefaultValueRules) {
  auto with_default = [](const std::string& line) { return "timeout: 5\n" + line + "\n" + kEntryA; };
  EXPECT_EQ(code_of(with_default("default_entry: 3")), kMenuDefaultNotOne);
  EXPECT_EQ(code_of(with_default("default_entry: 10")), kMenuDefaultNotOne);
  EXPECT_EQ(code_of(with_default("default_entry: 0")), kMenuDefaultNotOne);
  EXPECT_EQ(code_of(with_default("default_entry: ")), kMenuDefaultNotOne);
  EXPECT_EQ(code_of(with_default("default_entry: 1x")), kMenuDefaultNotOne);
  EXPECT_EQ(code_of(with_default("default_entry: 1\t")), kMenuDefaultNotOne);
  EXPECT_EQ(code_of(with_default("default_entry: one")), kMenuDefaultNotOne);
  EXPECT_EQ(code_of(with_default("default_entry:1")), 0);
  EXPECT_EQ(code_of(with_default("default_entry:\t \t2")), 0);
  EXPECT_EQ(code_of(with_default("default_entry: 2")), 0);
  EXPECT_EQ(code_of(with_default("default_entry: 1\r")), 0);
  // A space may follow the digit, and what comes after it is dropped with the old value.
  Rewrite r = rewrite(with_default("default_entry: 1 # first"));
  ASSERT_EQ(r.code, 0);
  EXPECT_EQ(r.text.substr(0, 28), "timeout: 5\ndefault_entry: 2\n");
  // Only the first default line counts.
  EXPECT_EQ(code_of("default_entry: 1\ndefault_entry: 3\n" + kEntryA), 0);
  EXPECT_EQ(code_of("default_entry: 3\ndefault_entry: 1\n" + kEntryA), kMenuDefaultNotOne);
}

TEST(MenuRewrite, DefaultLineOnlyAtLineStartOfGlobalSection) {
  // Indented, it is not the default line: one is added first.
  Rewrite indented = rewrite("  default_entry: 3\n" + kEntryA);
  ASSERT_EQ(indented.code, 0);
  EXPECT_EQ(indented.text.substr(0, 17), "default_entry: 2\n");
  // After entry A's line it belongs to the entries and is not looked at.
  Rewrite inside = rewrite(kEntryA + "default_entry: 3\n");
  ASSERT_EQ(inside.code, 0);
  EXPECT_EQ(inside.text, "default_entry: 2\n" + kEntryA + "default_entry: 3\n\n" +
                             "/tavi (update)\n    protocol: multiboot1\n    path: boot():/tavi-b.mb\n"
                             "    cmdline: tavi vfs gfx\ndefault_entry: 3\n");
}

TEST(MenuRewrite, OtherKernelInFirstEntryIsRefused) {
  EXPECT_EQ(code_of("default_entry: 1\n/tavi\n    path: boot():/other.mb\n"), kMenuNoSlotAPath);
  EXPECT_EQ(code_of("/tavi\n    path: boot():/tavi.mb \n"), kMenuNoSlotAPath);
  EXPECT_EQ(code_of("/tavi\n    kernel_path: boot():/tavi.mb\n"), kMenuNoSlotAPath);
  EXPECT_EQ(code_of("/tavi\n    path:boot():/tavi.mb\n"), kMenuNoSlotAPath);
  EXPECT_EQ(code_of("/tavi\n    path: boot():/xtavi.mb\n"), kMenuNoSlotAPath);
  EXPECT_EQ(code_of("/tavi\n    path: boot():/tavi-b.mb\n"), kMenuNoSlotAPath);
  EXPECT_EQ(code_of("/tavi\n    # path: boot():/tavi.mb\n"), kMenuNoSlotAPath);
  // A slot A path line outside entry A does not count.
  EXPECT_EQ(code_of("path: boot():/tavi.mb\n/tavi\n    protocol: multiboot1\n"), kMenuNoSlotAPath);
  EXPECT_EQ(code_of("/tavi\n    protocol: multiboot1\n/second\n    path: boot():/tavi.mb\n"), kMenuNoSlotAPath);
  EXPECT_EQ(code_of("/tavi"), kMenuNoSlotAPath);
}

TEST(MenuRewrite, ExistingEntryBMustBeSecond) {
  // In the third entry.
  EXPECT_EQ(code_of(kEntryA + kOther + kEntryB), kMenuEntryBMisplaced);
  // In entry A itself, and in the global section.
  EXPECT_EQ(code_of(kEntryA + "    path: boot():/tavi-b.mb\n" + kOther), kMenuEntryBMisplaced);
  EXPECT_EQ(code_of("    path: boot():/tavi-b.mb\n" + kEntryA), kMenuEntryBMisplaced);
  // The second entry is a sub-entry.
  EXPECT_EQ(code_of(kEntryA + "/" + kEntryB), kMenuEntryBMisplaced);
  // A slot B line with another directory is not entry B: a new one is added.
  Rewrite other_dir = rewrite(kEntryA + kOther + "/x\n    path: boot():/old/tavi-b.mb\n");
  ASSERT_EQ(other_dir.code, 0);
  EXPECT_EQ(other_dir.text, "default_entry: 2\n" + kEntryA + "\n" + kEntryB + kOther +
                                "/x\n    path: boot():/old/tavi-b.mb\n");
}

TEST(MenuRewrite, FirstEntryMustBeTopLevel) {
  EXPECT_EQ(code_of("//tavi\n    path: boot():/tavi.mb\n"), kMenuNoFirstEntry);
  EXPECT_EQ(code_of("timeout: 5\n//sub\n" + kEntryA), kMenuNoFirstEntry);
  EXPECT_EQ(code_of("timeout: 5\ndefault_entry: 1\n"), kMenuNoFirstEntry);
  EXPECT_EQ(code_of(" /tavi\n    path: boot():/tavi.mb\n"), kMenuNoFirstEntry);
  EXPECT_EQ(code_of(""), kMenuNoFirstEntry);
  EXPECT_EQ(code_of("/"), kMenuNoSlotAPath);
  // An output buffer below 64 bytes is refused before anything is looked at.
  char small[63];
  EXPECT_EQ(check_and_add_entry_b(kEntryA.data(), kEntryA.size(), small, sizeof small), kMenuNoFirstEntry);
}

TEST(MenuRewrite, OverflowGivesReasonFive) {
  std::string options;
  while (options.size() < 15000) options += "    comment: a long option line that entry B copies\n";
  std::string in = "/tavi\n" + options + "    path: boot():/tavi.mb\n";
  ASSERT_LT(in.size(), kMenuTextBytes);
  EXPECT_EQ(code_of(in), kMenuTooLarge);
  EXPECT_TRUE(menu_overflowed());
  EXPECT_EQ(menu_new_length(), 0u);
  // The next run starts with a clear flag.
  EXPECT_EQ(code_of(kEntryA), 0);
  EXPECT_FALSE(menu_overflowed());
}

TEST(MenuRewrite, OutputThatJustFitsAndJustOverflows) {
  std::string in = "timeout: 5\ndefault_entry: 1\n\n" + kEntryA + kOther;
  Rewrite full = rewrite(in);
  ASSERT_EQ(full.code, 0);
  size_t needed = full.text.size() + 1;  // and the closing zero
  Rewrite fits = rewrite(in, needed);
  EXPECT_EQ(fits.code, 0);
  EXPECT_EQ(fits.text, full.text);
  EXPECT_EQ(rewrite(in, needed - 1).code, kMenuTooLarge);

  // The same at the size of the real output buffer.
  std::string padded = "default_entry: 1\n" + kEntryA + kOther;
  size_t grow = full.text.size() - in.size();
  padded += "#" + std::string(kMenuOutputBytes - 1 - grow - padded.size() - 2, 'x') + "\n";
  Rewrite at_limit = rewrite(padded);
  ASSERT_EQ(at_limit.code, 0);
  EXPECT_EQ(at_limit.text.size(), kMenuOutputBytes - 1);
  EXPECT_EQ(code_of(padded + "x"), kMenuTooLarge);
}

TEST(MenuRewrite, CarriageReturnLineEndings) {
  std::string a = "/tavi\r\n    protocol: multiboot1\r\n    path: boot():/tavi.mb\r\n    cmdline: x\r\n";
  std::string b = "/tavi (update)\r\n    protocol: multiboot1\r\n    path: boot():/tavi-b.mb\r\n    cmdline: x\r\n";
  std::string other = "/other\r\n    path: boot():/o.efi\r\n";
  // Entry A ends in CR LF, which is no empty line: a plain LF is added before entry B.
  EXPECT_EQ(rewrite("timeout: 5\r\ndefault_entry: 1\r\n\r\n" + a + other).text,
            "timeout: 5\r\ndefault_entry: 2\r\n\r\n" + a + "\n" + b + other);
  // An empty line written as CR LF counts as one.
  EXPECT_EQ(rewrite("default_entry: 1\r\n" + a + "\r\n" + other).text,
            "default_entry: 2\r\n" + a + "\r\n" + b + "\r\n" + other);
  // Without a default line the added one ends in a plain LF.
  EXPECT_EQ(rewrite(a).text, "default_entry: 2\n" + a + "\n" + b);
  // The second run changes nothing.
  std::string once = rewrite("default_entry: 1\r\n" + a + other).text;
  EXPECT_EQ(rewrite(once).text, once);
}

TEST(MenuRewrite, SubEntriesEndEntryA) {
  // A sub-entry line starts a new entry, so entry A ends before it and entry B goes there.
  std::string in = "default_entry: 1\n" + kEntryA + "//rescue\n    cmdline: single\n" + kOther;
  EXPECT_EQ(rewrite(in).text,
            "default_entry: 2\n" + kEntryA + "\n" + kEntryB + "//rescue\n    cmdline: single\n" + kOther);
  // A slot A path that only a sub-entry holds is not entry A's.
  EXPECT_EQ(code_of("/tavi\n    protocol: multiboot1\n//sub\n    path: boot():/tavi.mb\n"), kMenuNoSlotAPath);
}

TEST(MenuRewrite, SeveralEntriesStayInOrder) {
  std::string third = "/third\n    path: boot():/third.mb\n";
  std::string in = "default_entry: 1\n\n" + kEntryA + "\n" + kOther + "\n" + third;
  EXPECT_EQ(rewrite(in).text, "default_entry: 2\n\n" + kEntryA + "\n" + kEntryB + "\n" + kOther + "\n" + third);
}

TEST(MenuRewrite, OptionsAroundThePathLineAreCopied) {
  std::string a = "/tavi\n  protocol: multiboot1\n\tmodule_path: boot():/init.img\n  path: boot():/tavi.mb\n"
                  "  cmdline: tavi\n  comment: last\n";
  std::string b = "/tavi (update)\n  protocol: multiboot1\n\tmodule_path: boot():/init.img\n"
                  "  path: boot():/tavi-b.mb\n  cmdline: tavi\n  comment: last\n";
  EXPECT_EQ(rewrite(a).text, "default_entry: 2\n" + a + "\n" + b);
  // The path line may be right after the title.
  EXPECT_EQ(rewrite("/t\npath: boot():/tavi.mb\n").text,
            "default_entry: 2\n/t\npath: boot():/tavi.mb\n\n/t (update)\npath: boot():/tavi-b.mb\n");
}

TEST(MenuRewrite, TabsBeforeThePathLine) {
  std::string a = "/tavi\n\t\tpath: boot():/tavi.mb\n";
  EXPECT_EQ(rewrite(a).text, "default_entry: 2\n" + a + "\n/tavi (update)\n\t\tpath: boot():/tavi-b.mb\n");
  EXPECT_EQ(rewrite("/tavi\n \t path: boot():/tavi.mb\n").text,
            "default_entry: 2\n/tavi\n \t path: boot():/tavi.mb\n\n/tavi (update)\n \t path: boot():/tavi-b.mb\n");
}

TEST(MenuRewrite, KernelDirectory) {
  std::string a = "/tavi\n    path: boot():/boot/tavi.mb\n";
  Rewrite r = rewrite(a);
  ASSERT_EQ(r.code, 0);
  EXPECT_EQ(r.text, "default_entry: 2\n" + a + "\n/tavi (update)\n    path: boot():/boot/tavi-b.mb\n");
  EXPECT_STREQ(menu_kernel_dir(), "/boot");
  EXPECT_EQ(menu_kernel_dir_length(), 5u);
  // An entry B with the root directory is not this menu's entry B.
  EXPECT_EQ(code_of(a + "/tavi (update)\n    path: boot():/tavi-b.mb\n"), 0);
  EXPECT_EQ(rewrite(a + "/b\n    path: boot():/boot/tavi-b.mb\n").text,
            "default_entry: 2\n" + a + "/b\n    path: boot():/boot/tavi-b.mb\n");
}

TEST(MenuRewrite, KernelDirectoryLengthLimit) {
  std::string dir89 = "/" + std::string(88, 'd');
  std::string dir90 = "/" + std::string(89, 'd');
  Rewrite r = rewrite("/tavi\n    path: boot():" + dir89 + "/tavi.mb\n");
  ASSERT_EQ(r.code, 0);
  EXPECT_EQ(std::string(menu_kernel_dir()), dir89);
  EXPECT_EQ(menu_kernel_dir_length(), 89u);
  EXPECT_NE(r.text.find("    path: boot():" + dir89 + "/tavi-b.mb\n"), std::string::npos);
  EXPECT_EQ(code_of("/tavi\n    path: boot():" + dir90 + "/tavi.mb\n"), kMenuNoSlotAPath);
  // A too long line is passed over, and a later one in entry A still counts.
  Rewrite later = rewrite("/tavi\n    path: boot():" + dir90 + "/tavi.mb\n    path: boot():/k/tavi.mb\n");
  ASSERT_EQ(later.code, 0);
  EXPECT_STREQ(menu_kernel_dir(), "/k");
}

TEST(MenuRewrite, LargestMenus) {
  auto sized = [](size_t total) {
    std::string tail = "default_entry: 1\n" + kEntryA;
    std::string pad = "#" + std::string(total - tail.size() - 2, 'p') + "\n";
    return pad + tail;
  };
  for (size_t total : {kMenuTextBytes - 1, kMenuTextBytes}) {
    std::string in = sized(total);
    ASSERT_EQ(in.size(), total);
    Rewrite r = rewrite(in);
    ASSERT_EQ(r.code, 0) << total;
    EXPECT_EQ(r.text.size(), total + 1 + kEntryB.size());
  }
}

TEST(MenuRewrite, ReasonTexts) {
  EXPECT_STREQ(menu_reason_text(1), "no top-level first entry");
  EXPECT_STREQ(menu_reason_text(2), "first entry has no path boot():/tavi.mb");
  EXPECT_STREQ(menu_reason_text(3), "default_entry is not 1");
  EXPECT_STREQ(menu_reason_text(4), "entry B is not the second entry");
  EXPECT_STREQ(menu_reason_text(5), "file too large or empty");
  EXPECT_STREQ(menu_reason_text(0), "no top-level first entry");
  EXPECT_STREQ(menu_reason_text(6), "no top-level first entry");
  EXPECT_STREQ(menu_reason_text(-1), "no top-level first entry");
}

TEST(MenuKernelDir, FirstEntrySearch) {
  std::string boot = "timeout: 5\n/tavi\n    path: boot():/boot/tavi.mb\n";
  EXPECT_TRUE(find_first_entry_kernel_dir(boot.data(), boot.size()));
  EXPECT_STREQ(menu_kernel_dir(), "/boot");
  // Every failure leaves the directory empty.
  EXPECT_FALSE(find_first_entry_kernel_dir(boot.data(), 0));
  EXPECT_STREQ(menu_kernel_dir(), "");
  ASSERT_TRUE(find_first_entry_kernel_dir(boot.data(), boot.size()));
  std::string sub = "//tavi\n    path: boot():/boot/tavi.mb\n";
  EXPECT_FALSE(find_first_entry_kernel_dir(sub.data(), sub.size()));
  EXPECT_EQ(menu_kernel_dir_length(), 0u);
  std::string other = "/tavi\n    path: boot():/boot/other.mb\n/b\n    path: boot():/boot/tavi.mb\n";
  EXPECT_FALSE(find_first_entry_kernel_dir(other.data(), other.size()));
  std::string root = "/tavi\n    path: boot():/tavi.mb";
  EXPECT_TRUE(find_first_entry_kernel_dir(root.data(), root.size()));
  EXPECT_STREQ(menu_kernel_dir(), "");
  // The length bounds the search: a path line cut short does not end in "/tavi.mb".
  EXPECT_FALSE(find_first_entry_kernel_dir(root.data(), root.size() - 1));
}

TEST(MenuKernelDir, PathLineTakeAndMatch) {
  std::string text = "x\n  path: boot():/d/tavi.mb\n\tpath: boot():/e/tavi-b.mb\npath: boot():/d/tavi-b.mb\n";
  EXPECT_EQ(find_path_line(text.data(), 0, text.size(), "/tavi.mb", true), 4);
  EXPECT_STREQ(menu_kernel_dir(), "/d");
  // Match mode skips the line with the other directory.
  EXPECT_EQ(find_path_line(text.data(), 0, text.size(), "/tavi-b.mb", false),
            static_cast<i64>(text.find("path: boot():/d/tavi-b.mb")));
  // Only lines starting before `to` are walked, and "path: boot():" must fit before it.
  EXPECT_EQ(find_path_line(text.data(), 0, 2, "/tavi.mb", true), -1);
  EXPECT_EQ(find_path_line(text.data(), 0, 10, "/tavi.mb", true), -1);
  // Lines are found only at their start.
  EXPECT_EQ(find_path_line(text.data(), 3, text.size(), "/tavi.mb", true), -1);
}

// Menus put together from the pieces real menus have: global options, comments, entries
// with options around the path line, sub-entries, CR LF endings, a missing last newline.
class MenuGenerator {
 public:
  explicit MenuGenerator(uint32_t seed) : rng_(seed) {}

  std::string make(std::string* dir) {
    const char* dirs[] = {"", "/boot", "/a/b", "/EFI/tavi"};
    *dir = dirs[pick(4)];
    crlf_ = pick(3) == 0;
    std::string m;
    int globals = pick(4);
    bool has_default = pick(3) != 0;
    int default_at = has_default ? pick(globals + 1) : -1;
    for (int i = 0; i <= globals; i++) {
      if (i == default_at) m += line(std::string("default_entry:") + (pick(2) ? " " : "") + (pick(2) ? "1" : "2"));
      if (i < globals) m += line(pick_of({"timeout: 5", "# a comment", "", "verbose: yes", "  default_entry: 7"}));
    }
    m += entry("/tavi" + std::string(pick(2) ? " system" : ""), *dir + "/tavi.mb");
    // Either a sub-entry or an existing entry B follows entry A: entry B must be second.
    int after_a = pick(3);
    if (after_a == 1) m += line("//rescue") + line("    cmdline: single");
    if (after_a == 2) m += entry("/tavi (update)", *dir + "/tavi-b.mb");
    int others = pick(3);
    for (int i = 0; i < others; i++) {
      m += entry("/other" + std::to_string(i), "/EFI/other" + std::to_string(i) + ".efi");
    }
    if (pick(4) == 0) m.pop_back();
    return m;
  }

 private:
  int pick(int n) { return static_cast<int>(rng_() % static_cast<uint32_t>(n)); }
  std::string pick_of(std::initializer_list<const char*> options) {
    return *(options.begin() + pick(static_cast<int>(options.size())));
  }
  std::string line(const std::string& s) { return s + (crlf_ ? "\r\n" : "\n"); }
  std::string indent() { return pick_of({"    ", "\t", "  ", "\t \t", ""}); }
  std::string option() {
    return indent() + pick_of({"protocol: multiboot1", "cmdline: tavi vfs", "module_path: boot():/m.img",
                               "comment: path: boot():/tavi.mb"});
  }
  std::string entry(const std::string& title, const std::string& path) {
    std::string e = line(title);
    for (int i = pick(3); i > 0; i--) e += line(option());
    e += line(indent() + "path: boot():" + path);
    for (int i = pick(3); i > 0; i--) e += line(option());
    if (pick(2)) e += line("");
    return e;
  }

  std::mt19937 rng_;
  bool crlf_ = false;
};

TEST(MenuRewrite, RewriteIsIdempotentOnGeneratedMenus) {
  MenuGenerator gen(20240601);
  int rewritten = 0;
  for (int i = 0; i < 4000; i++) {
    std::string dir;
    std::string in = gen.make(&dir);
    Rewrite first = rewrite(in);
    ASSERT_EQ(first.code, 0) << in;
    rewritten++;
    EXPECT_EQ(std::string(menu_kernel_dir()), dir);
    Rewrite second = rewrite(first.text);
    ASSERT_EQ(second.code, 0) << first.text;
    EXPECT_EQ(second.text, first.text) << in;
    ASSERT_TRUE(find_first_entry_kernel_dir(first.text.data(), first.text.size()));
    EXPECT_EQ(std::string(menu_kernel_dir()), dir);
    // Exactly one entry B, and the default points at it.
    std::string b_line = "path: boot():" + dir + "/tavi-b.mb";
    EXPECT_EQ(first.text.find(b_line), first.text.rfind(b_line));
    EXPECT_NE(first.text.find(b_line), std::string::npos);
    EXPECT_NE(first.text.find("default_entry: 2"), std::string::npos);
  }
  EXPECT_EQ(rewritten, 4000);
}

TEST(MenuRewrite, AnyAcceptedTextRewritesToAFixedPoint) {
  // Texts strung together from the tokens the rules look at, in any order: whatever the
  // check accepts, the rewrite of the rewrite is the rewrite itself.
  const char* tokens[] = {"/",  "//", "\n", "\r", " ", "\t", "x", "path: boot():", "/tavi.mb", "/tavi-b.mb",
                          "/d", "default_entry:", "1", "2", "3", "\n/t\n  path: boot():/tavi.mb\n"};
  std::mt19937 rng(99);
  int accepted = 0;
  for (int i = 0; i < 60000; i++) {
    std::string in;
    for (int k = static_cast<int>(rng() % 24); k > 0; k--) in += tokens[rng() % (sizeof tokens / sizeof *tokens)];
    std::vector<char> exact(in.begin(), in.end());  // no closing zero to lean on
    std::vector<char> out(kMenuOutputBytes);
    int code = check_and_add_entry_b(exact.data(), exact.size(), out.data(), out.size());
    ASSERT_GE(code, 0);
    ASSERT_LE(code, 4);
    if (code != 0) continue;
    accepted++;
    std::string dir = menu_kernel_dir();
    std::string first(out.data(), menu_new_length());
    Rewrite second = rewrite(first);
    ASSERT_EQ(second.code, 0) << in;
    ASSERT_EQ(second.text, first) << in;
    ASSERT_TRUE(find_first_entry_kernel_dir(first.data(), first.size()));
    ASSERT_EQ(std::string(menu_kernel_dir()), dir);
  }
  EXPECT_GT(accepted, 1000);
}

// The file operations, on a scratch directory in place of the mounted partition.
class MenuFiles : public ::testing::Test {
 protected:
  ScratchDir dir_;
  std::string conf_ = dir_.path("limine.conf");
  std::string nw_ = dir_.path("limine.nw");
};

TEST_F(MenuFiles, InstallReplacesTheMenu) {
  std::string in = "timeout: 5\ndefault_entry: 1\n\n" + kEntryA;
  put_file(conf_, in);
  CapturedOutput out;
  EXPECT_TRUE(install_entry_b_at(conf_.c_str(), nw_.c_str()));
  EXPECT_EQ(get_file(conf_), "timeout: 5\ndefault_entry: 2\n\n" + kEntryA + "\n" + kEntryB);
  EXPECT_FALSE(file_there(nw_));
  EXPECT_EQ(out.out(), "");
  EXPECT_EQ(out.err(), "");
}

TEST_F(MenuFiles, RefusedLayoutLeavesTheMenuAlone) {
  std::string in = "default_entry: 3\n" + kEntryA;
  put_file(conf_, in);
  CapturedOutput out;
  EXPECT_FALSE(install_entry_b_at(conf_.c_str(), nw_.c_str()));
  EXPECT_EQ(out.err(), "ota: unsupported limine.conf layout: default_entry is not 1\n");
  EXPECT_EQ(out.out(), "");
  EXPECT_EQ(get_file(conf_), in);
  EXPECT_FALSE(file_there(nw_));
}

TEST_F(MenuFiles, EmptyMissingAndFullMenusAreRefused) {
  const std::string message = "ota: unsupported limine.conf layout: file too large or empty\n";
  {
    CapturedOutput out;
    EXPECT_FALSE(install_entry_b_at(conf_.c_str(), nw_.c_str()));
    EXPECT_EQ(out.err(), message);
  }
  put_file(conf_, "");
  {
    CapturedOutput out;
    EXPECT_FALSE(install_entry_b_at(conf_.c_str(), nw_.c_str()));
    EXPECT_EQ(out.err(), message);
  }
  std::string tail = "default_entry: 1\n" + kEntryA;
  std::string full = std::string(kMenuTextBytes - tail.size() - 1, '#') + "\n" + tail;
  ASSERT_EQ(full.size(), kMenuTextBytes);
  put_file(conf_, full);
  {
    CapturedOutput out;
    EXPECT_FALSE(install_entry_b_at(conf_.c_str(), nw_.c_str()));
    EXPECT_EQ(out.err(), message);
    EXPECT_EQ(get_file(conf_), full);
  }
  std::string almost = full.substr(1);
  put_file(conf_, almost);
  {
    CapturedOutput out;
    EXPECT_TRUE(install_entry_b_at(conf_.c_str(), nw_.c_str()));
    EXPECT_EQ(out.err(), "");
    EXPECT_EQ(get_file(conf_).size(), almost.size() + 1 + kEntryB.size());
  }
}

TEST_F(MenuFiles, UnwritableNewMenuIsReported) {
  std::string in = "default_entry: 1\n" + kEntryA;
  put_file(conf_, in);
  std::string nowhere = dir_.path("missing/limine.nw");
  CapturedOutput out;
  EXPECT_FALSE(install_entry_b_at(conf_.c_str(), nowhere.c_str()));
  EXPECT_EQ(out.err(), "ota: could not write limine.conf\n");
  EXPECT_EQ(get_file(conf_), in);
}

TEST_F(MenuFiles, LeftoverNewMenuIsReplaced) {
  put_file(conf_, kEntryA);
  put_file(nw_, std::string(50000, 'z'));
  EXPECT_TRUE(install_entry_b_at(conf_.c_str(), nw_.c_str()));
  EXPECT_EQ(get_file(conf_), "default_entry: 2\n" + kEntryA + "\n" + kEntryB);
  EXPECT_FALSE(file_there(nw_));
}

TEST_F(MenuFiles, ResetSwitchesTheFirstDefaultTwoInPlace) {
  std::string in = "timeout: 5\r\ndefault_entry: 2\r\n" + kEntryA + "# default_entry: 2\n";
  put_file(conf_, in);
  EXPECT_TRUE(reset_default_entry_at(conf_.c_str()));
  std::string expected = in;
  expected[in.find("default_entry: 2") + 15] = '1';
  EXPECT_EQ(get_file(conf_), expected);
  // The remaining occurrence is the comment at the end; it is the next to go.
  EXPECT_TRUE(reset_default_entry_at(conf_.c_str()));
  EXPECT_EQ(get_file(conf_), "timeout: 5\r\ndefault_entry: 1\r\n" + kEntryA + "# default_entry: 1\n");
  EXPECT_FALSE(reset_default_entry_at(conf_.c_str()));
}

TEST_F(MenuFiles, ResetRefusesWhatItCannotRead) {
  EXPECT_FALSE(reset_default_entry_at(conf_.c_str()));
  put_file(conf_, "");
  EXPECT_FALSE(reset_default_entry_at(conf_.c_str()));
  put_file(conf_, "default_entry:2\n" + kEntryA);
  EXPECT_FALSE(reset_default_entry_at(conf_.c_str()));
  std::string full = "default_entry: 2\n" + std::string(kMenuTextBytes - 17, '#');
  put_file(conf_, full);
  EXPECT_FALSE(reset_default_entry_at(conf_.c_str()));
  EXPECT_EQ(get_file(conf_), full);
  put_file(conf_, full.substr(1));
  EXPECT_FALSE(reset_default_entry_at(conf_.c_str()));  // "efault_entry: 2" is no match
  std::string almost = full.substr(0, kMenuTextBytes - 1);
  put_file(conf_, almost);
  EXPECT_TRUE(reset_default_entry_at(conf_.c_str()));
  EXPECT_EQ(get_file(conf_).substr(0, 17), "default_entry: 1\n");
  EXPECT_EQ(get_file(conf_).size(), almost.size());
}

TEST_F(MenuFiles, CopyFileCopiesEveryByte) {
  std::mt19937 rng(7);
  for (size_t size : {size_t{0}, size_t{1}, kCopyBlockBytes - 1, kCopyBlockBytes, kCopyBlockBytes + 1,
                      3 * kCopyBlockBytes + 12345}) {
    std::string data(size, '\0');
    for (char& c : data) c = static_cast<char>(rng());
    put_file(dir_.path("src"), data);
    put_file(dir_.path("dst"), std::string(5 * kCopyBlockBytes, 'o'));  // longer: must be cut
    EXPECT_TRUE(copy_file(dir_.path("src").c_str(), dir_.path("dst").c_str())) << size;
    EXPECT_EQ(get_file(dir_.path("dst")), data) << size;
  }
}

TEST_F(MenuFiles, CopyFileFailures) {
  put_file(dir_.path("dst"), "kept");
  EXPECT_FALSE(copy_file(dir_.path("absent").c_str(), dir_.path("dst").c_str()));
  EXPECT_EQ(get_file(dir_.path("dst")), "kept");
  put_file(dir_.path("src"), "data");
  EXPECT_FALSE(copy_file(dir_.path("src").c_str(), dir_.path("no/dst").c_str()));
  // A directory opens but cannot be read.
  EXPECT_FALSE(copy_file(dir_.path().c_str(), dir_.path("dst").c_str()));
}

TEST(MenuFresh, FullMenuWithChainLoad) {
  char out[1024];
  usize n = compose_fresh_menu("tavi", "tavi.mb", 2, true, out, sizeof out);
  std::string expected =
      "timeout: 5\ndefault_entry: 1\n\n/tavi\n    protocol: multiboot1\n    path: boot():/tavi.mb\n"
      "    cmdline: tavi vfs gfx disp audio wm wig desk wmshell nobootterm wmdauer absturzhalt nopuls tz=60 "
      "tzrule=eu usb hidgen nic nip=169.254.10.1/16 nsvc=0 nwait=0 dhcp helfer nosched noproc nofs anmeldung "
      "absturzneustart\n"
      "\n/Windows Boot Manager\n    protocol: efi_chainload\n    path: boot():/EFI/Microsoft/Boot/bootmgfw.efi\n";
  EXPECT_EQ(std::string(out, n), expected);
  EXPECT_EQ(out[n], 0);
}

TEST(MenuFresh, MinimalMenuIsWhatTheRewriteAccepts) {
  char out[512];
  usize n = compose_fresh_menu("tavi", "tavi.mb", 1, false, out, sizeof out);
  std::string a =
      "/tavi\n    protocol: multiboot1\n    path: boot():/tavi.mb\n"
      "    cmdline: tavi vfs gfx wm wig desk wmshell wmdauer herz tz=60 tzrule=eu nosched noproc nofs\n";
  EXPECT_EQ(std::string(out, n), "timeout: 5\ndefault_entry: 1\n\n" + a);
  Rewrite r = rewrite(std::string(out, n));
  ASSERT_EQ(r.code, 0);
  EXPECT_EQ(r.text, "timeout: 5\ndefault_entry: 2\n\n" + a + "\n/tavi (update)\n    protocol: multiboot1\n"
                    "    path: boot():/tavi-b.mb\n    cmdline: tavi vfs gfx wm wig desk wmshell wmdauer herz "
                    "tz=60 tzrule=eu nosched noproc nofs\n");
  // Every variant other than 1 is the full one.
  char full[1024];
  usize m = compose_fresh_menu("tavi", "tavi.mb", 7, false, full, sizeof full);
  EXPECT_NE(std::string(full, m).find("absturzneustart\n"), std::string::npos);
}

TEST(MenuFresh, TooSmallBufferGivesZero) {
  char out[1024];
  usize n = compose_fresh_menu("tavi", "tavi.mb", 1, false, out, sizeof out);
  ASSERT_GT(n, 0u);
  EXPECT_EQ(compose_fresh_menu("tavi", "tavi.mb", 1, false, out, n + 1), n);
  EXPECT_EQ(compose_fresh_menu("tavi", "tavi.mb", 1, false, out, n), 0u);
  EXPECT_EQ(compose_fresh_menu("tavi", "tavi.mb", 1, false, out, 0), 0u);
}

TEST(MenuFresh, FirmwareBootPathAndPrompt) {
  char out[64];
  EXPECT_EQ(compose_firmware_boot_path("tavi", out, sizeof out), 25u);
  EXPECT_STREQ(out, "/efi/EFI/tavi/BOOTX64.EFI");
  EXPECT_EQ(compose_firmware_boot_path("tavi", out, 25), 0u);
  EXPECT_EQ(compose_register_prompt("tavi", out, sizeof out), 35u);
  EXPECT_STREQ(out, "Register tavi in firmware boot menu");
  EXPECT_EQ(compose_register_prompt("tavi", out, 35), 0u);
}
