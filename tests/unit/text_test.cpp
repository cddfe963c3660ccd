// Strings, numbers and console lines: the exact behaviour at the edges.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "runtime/text.h"
#include "test_support.h"

using namespace ota;

TEST(Text, BoundedCopyCutsAndAlwaysCloses) {
  char buf[8];
  EXPECT_EQ(str_copy_bounded(buf, "abcdef", 4), 3u);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(str_copy_bounded(buf, nullptr, 4), 0u);
  EXPECT_STREQ(buf, "");
  buf[0] = 'x';
  EXPECT_EQ(str_copy_bounded(buf, "abc", 0), 0u);
  EXPECT_EQ(buf[0], 0);
  buf[0] = 'x';
  EXPECT_EQ(str_copy_bounded(buf, "abc", 1), 0u);
  EXPECT_EQ(buf[0], 0);
}

TEST(Text, FindEmptyShorterAndInside) {
  EXPECT_EQ(str_find("abc", ""), 0);
  EXPECT_EQ(str_find("ab", "abc"), -1);
  EXPECT_EQ(str_find("xabc", "bc"), 2);
  EXPECT_EQ(str_find("", "a"), -1);
}

TEST(Text, EqualOverNBytes) {
  EXPECT_TRUE(str_equal_n("abc", "abd", 2));
  EXPECT_TRUE(str_equal_n("ab", "ab", 5));
  EXPECT_FALSE(str_equal_n("ab", "abc", 3));
  EXPECT_TRUE(str_equal_n("x", "y", 0));
  EXPECT_TRUE(str_starts_with("abcdef", "abc"));
  EXPECT_FALSE(str_starts_with("ab", "abc"));
  EXPECT_TRUE(str_equal("abc", "abc"));
  EXPECT_FALSE(str_equal("abc", "abcd"));
  EXPECT_TRUE(str_equal("", ""));
}

TEST(Text, AppendOperations) {
  char buf[64] = "ab";
  EXPECT_EQ(str_append(buf, "cd"), 4u);
  EXPECT_EQ(str_append_at(buf, 4, "ef"), 6u);
  EXPECT_EQ(str_append_char(buf, 6, 'g'), 7u);
  EXPECT_EQ(str_append_slash(buf), 8u);
  EXPECT_STREQ(buf, "abcdefg/");
  char date[16] = "";
  str_append_two_digits(date, 7);
  str_append_two_digits(date, 2025);
  EXPECT_STREQ(date, "0725");
  char neg[32] = "v=";
  str_append_decimal(neg, static_cast<u64>(-5));
  EXPECT_STREQ(neg, "v=-5");
}

TEST(Text, ParseDecimalStopsAndSticks) {
  EXPECT_EQ(parse_decimal(std::string(23, '9').c_str()), 9999999999999999999ull);
  EXPECT_EQ(parse_decimal(" 5"), 0u);
  EXPECT_EQ(parse_decimal("12abc"), 12u);
  EXPECT_EQ(parse_decimal("abc"), 0u);
  EXPECT_EQ(parse_decimal(""), 0u);
  EXPECT_EQ(parse_decimal("-3"), 0u);
  EXPECT_EQ(parse_decimal("+3"), 0u);
  EXPECT_EQ(parse_decimal("007"), 7u);
  EXPECT_EQ(parse_decimal("18446744073709551615"), 1844674407370955161ull);
}

TEST(Text, FormatDecimalSignedAndUnsigned) {
  char buf[kDecimalBytes];
  EXPECT_EQ(format_decimal(0, buf, 0), 1u);
  EXPECT_STREQ(buf, "0");
  EXPECT_EQ(format_decimal(1ull << 63, buf, 1), 20u);
  EXPECT_STREQ(buf, "-9223372036854775808");
  EXPECT_EQ(format_decimal(1ull << 63, buf, 0), 19u);
  EXPECT_STREQ(buf, "9223372036854775808");
  EXPECT_EQ(format_decimal(~0ull, buf, 0), 20u);
  EXPECT_STREQ(buf, "18446744073709551615");
  EXPECT_EQ(format_decimal(~0ull, buf, 1), 2u);
  EXPECT_STREQ(buf, "-1");
}

TEST(Text, HexEncodeLowercaseHighNibbleFirst) {
  const u8 bytes[] = {0x00, 0x0f, 0xa5, 0xff};
  char out[9];
  hex_encode(bytes, 4, out);
  EXPECT_STREQ(out, "000fa5ff");
}

TEST(Console, FailPrintsMessageAndNewlineAndReturnsOne) {
  CapturedOutput cap;
  EXPECT_EQ(fail("ota: cannot fetch: ", "VERZEICHNIS"), 1);
  EXPECT_EQ(fail("ota: nothing", nullptr), 1);
  EXPECT_EQ(cap.err(), "ota: cannot fetch: VERZEICHNIS\nota: nothing\n");
  EXPECT_EQ(cap.out(), "");
}

TEST(Console, SayNumberAndTextGoToStandardOutput) {
  CapturedOutput cap;
  say_number("ota: space ", 1234);
  say_text("ota: source ", "http://x");
  print_unsigned(0);
  print_newline();
  std::string long_text(2000, 'z');
  say_text("ota: ", long_text.c_str());
  EXPECT_EQ(cap.out(), "ota: space 1234\nota: source http://x\n0\nota: " + long_text + "\n");
  EXPECT_EQ(cap.err(), "");
}

TEST(Console, WriteAllOfNothingWritesNothing) {
  CapturedOutput cap;
  EXPECT_EQ(write_all(1, "x", 0), 0);
  EXPECT_EQ(cap.out(), "");
}

TEST(Console, WriteAllToAClosedDescriptorFails) { EXPECT_EQ(write_all(-1, "x", 1), -1); }
