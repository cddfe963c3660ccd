// Reading catalog lines: tags at line starts, fields between TABs, capacities.
#include <gtest/gtest.h>

#include <string>

#include "packages/catalog.h"
#include "runtime/text.h"
#include "trust/blocked.h"
#include "trust/catalog_text.h"
#include "test_support.h"

using namespace ota;

namespace {

void hold_catalog(const std::string& text) {
  ASSERT_LE(text.size(), kCatalogBytes);
  memcpy(catalog.text, text.data(), text.size());
  hold_catalog_text(text.size());
}

std::string field(const char* line, u64 n, usize cap = 128) {
  char out[256];
  int r = line_field(line, n, out, cap);
  return std::to_string(r) + ":" + out;
}

}  // namespace

// The lookup goes on from where the last one stopped; in any order, with other tags in
// between, and after new text of the same length, the answers stay those of a fresh scan.
TEST(CatalogLines, LookupsInAnyOrderGiveTheSameLines) {
  hold_catalog("OTA2\npaket\ta\nkette\t1\npaket\tb\npaket\tc\nkette\t2\n");
  auto first_char = [](const char* tag, u64 n) {
    const char* line = find_catalog_line(tag, str_len(tag), n);
    return line == nullptr ? '-' : *line;
  };
  EXPECT_EQ(first_char("paket\t", 2), 'c');
  EXPECT_EQ(first_char("paket\t", 0), 'a');
  EXPECT_EQ(first_char("paket\t", 1), 'b');
  EXPECT_EQ(first_char("kette\t", 1), '2');
  EXPECT_EQ(first_char("paket\t", 2), 'c');
  EXPECT_EQ(first_char("paket\t", 3), '-');
  EXPECT_EQ(first_char("kette\t", 0), '1');
  EXPECT_EQ(first_char("paket\t", 1), 'b');
  // Same length, other lines: nothing of the old text's positions is used.
  hold_catalog("OTA2\nkette\t3\npaket\td\npaket\te\nkette\t4\nxxxxxxx\n");
  EXPECT_EQ(first_char("paket\t", 1), 'e');
  EXPECT_EQ(first_char("paket\t", 0), 'd');
  EXPECT_EQ(first_char("paket\t", 2), '-');
  EXPECT_EQ(first_char("kette\t", 1), '4');
}

TEST(CatalogLines, FindsTheNthLineWithATagAtLineStarts) {
  hold_catalog("OTA2\npaket\ta\nxpaket\tb\npaket\tc\n");
  const char* first = find_catalog_line(kPackageTag, text_length(kPackageTag), 0);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(*first, 'a');
  const char* second = find_catalog_line(kPackageTag, text_length(kPackageTag), 1);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(*second, 'c');
  EXPECT_EQ(find_catalog_line(kPackageTag, text_length(kPackageTag), 2), nullptr);
  EXPECT_EQ(find_catalog_line(kChainTag, text_length(kChainTag), 0), nullptr);
}

TEST(CatalogLines, ATagCutByTheEndOfTheTextDoesNotMatch) {
  hold_catalog("OTA2\npaket");
  EXPECT_EQ(find_catalog_line(kPackageTag, text_length(kPackageTag), 0), nullptr);
}

TEST(CatalogLines, NothingIsFoundInAnEmptyCatalog) {
  hold_catalog("");
  EXPECT_EQ(find_catalog_line(kCatalogMarker, text_length(kCatalogMarker), 0), nullptr);
  EXPECT_EQ(package_count(), 0u);
  EXPECT_EQ(catalog_version(), 0u);
}

TEST(CatalogFields, SkipsFieldsAndStopsAtTabLfAndEnd) {
  hold_catalog("paket\tname\tword\t\tlen\nnext\tx");
  const char* line = find_catalog_line(kPackageTag, text_length(kPackageTag), 0);
  EXPECT_EQ(field(line, 0), "1:name");
  EXPECT_EQ(field(line, 1), "1:word");
  EXPECT_EQ(field(line, 2), "0:");  // two adjacent TABs: an empty field
  EXPECT_EQ(field(line, 3), "1:len");
  EXPECT_EQ(field(line, 4), "0:");  // the line ends first
  EXPECT_EQ(field(line, 9), "0:");
  const char* last = catalog.text + std::string("paket\tname\tword\t\tlen\n").size();
  EXPECT_EQ(field(last, 1), "1:x");  // the end of the text ends the field
  EXPECT_EQ(field(last, 2), "0:");
}

TEST(CatalogFields, CutAtCapacity) {
  hold_catalog("paket\tabcdefghij\n");
  const char* line = find_catalog_line(kPackageTag, text_length(kPackageTag), 0);
  EXPECT_EQ(field(line, 0, 5), "1:abcd");
  EXPECT_EQ(field(line, 0, 1), "0:");
}

TEST(CatalogFields, CarriageReturnIsPartOfTheField) {
  hold_catalog("paket\ta\tb\r\n");
  EXPECT_EQ(field(find_catalog_line(kPackageTag, text_length(kPackageTag), 0), 1), "1:b\r");
}

TEST(CatalogPackages, PlatformClasses) {
  hold_catalog(
      "OTA2\n"
      "paket\ta\tw\th\t1\tf\ttavi-x86_64\n"
      "paket\tb\tw\th\t1\tf\ttavi-any\n"
      "paket\tc\tw\th\t1\tf\tarm-linux\n"
      "paket\td\tw\th\t1\tf\n"
      "paket\te\tw\th\t1\tf\t\n"
      "paket\tf\tw\th\t1\tf\ttavi-x86_64x\n");
  EXPECT_EQ(package_platform(nth_package_line(0)), Platform::this_machine);
  EXPECT_EQ(package_platform(nth_package_line(1)), Platform::this_machine);
  EXPECT_EQ(package_platform(nth_package_line(2)), Platform::other);
  EXPECT_EQ(package_platform(nth_package_line(3)), Platform::none);
  EXPECT_EQ(package_platform(nth_package_line(4)), Platform::none);
  EXPECT_EQ(package_platform(nth_package_line(5)), Platform::other);
  EXPECT_EQ(package_count(), 6u);
  EXPECT_EQ(platform_package_count(), 2u);
}

TEST(CatalogVersion, FirstFassungLineWins) {
  hold_catalog("OTA2\nfassung\t12\nfassung\t13\n");
  EXPECT_EQ(catalog_version(), 12u);
  hold_catalog("OTA2\nfassung\tx12\n");
  EXPECT_EQ(catalog_version(), 0u);
  hold_catalog("OTA2\nfassung\t7abc\n");
  EXPECT_EQ(catalog_version(), 7u);
  hold_catalog("OTA2\nfassung\t123456789012345678901234567\n");
  EXPECT_EQ(catalog_version(), 1234567890123456789u);  // 23 characters read, stuck at 19 digits
}

namespace {

void hold_install_catalog(const std::string& text) {
  memcpy(install_catalog.text, text.data(), text.size());
  install_catalog.text[text.size()] = 0;
  install_catalog.length = text.size();
}

}  // namespace

TEST(InstallCatalog, CurrentOnlyWithAFinalTabOne) {
  hold_install_catalog("foo\tbar\t1\n");
  EXPECT_TRUE(catalog_says_current("foo"));
  hold_install_catalog("foobar\tx\t1\n");
  EXPECT_FALSE(catalog_says_current("foo"));
  hold_install_catalog("foo\t1 \n");
  EXPECT_FALSE(catalog_says_current("foo"));
  hold_install_catalog("foo\t1");
  EXPECT_TRUE(catalog_says_current("foo"));
  hold_install_catalog("foo\t3\t0\nfoo\t3\t1\n");
  EXPECT_FALSE(catalog_says_current("foo"));  // the first line of the name decides
  hold_install_catalog("");
  EXPECT_FALSE(catalog_says_current("foo"));
  hold_install_catalog("bar\t1\nfoo\tv\t1\r\n");
  EXPECT_FALSE(catalog_says_current("foo"));
}

TEST(InstallCatalog, OnlyPackagesOfThisPlatformNeedAnUpdate) {
  hold_catalog("OTA2\npaket\ta\tw\th\t1\tf\ttavi-x86_64\npaket\tb\tw\th\t1\tf\tarm\npaket\tc\tw\th\t1\tf\ttavi-any\n");
  hold_install_catalog("a\t1\tx\t1\nc\t1\tx\t0\n");
  EXPECT_FALSE(package_needs_update(nth_package_line(0)));
  EXPECT_FALSE(package_needs_update(nth_package_line(1)));
  EXPECT_TRUE(package_needs_update(nth_package_line(2)));
}

TEST(BlockedTable, AddsOnceAndStopsAtSixtyFour) {
  blocked.count = 0;
  EXPECT_TRUE(add_blocked_version(7));
  EXPECT_FALSE(add_blocked_version(7));
  EXPECT_TRUE(add_blocked_version(123456789));
  EXPECT_EQ(std::string(blocked.bytes, 18), "00000007\n23456789\n");
  EXPECT_TRUE(is_in_blocked_list(7));
  EXPECT_TRUE(is_in_blocked_list(23456789));
  EXPECT_FALSE(is_in_blocked_list(123456789));  // stored modulo 10^8
  for (u64 v = 100; blocked.count < 64; v++) add_blocked_version(v);
  EXPECT_FALSE(add_blocked_version(99999));
  EXPECT_EQ(blocked.count, 64u);
}

TEST(BlockedTable, PrintsTheCatalogsListOnOneLine) {
  hold_catalog("OTA2\ngesperrt\t12\nfassung\t3\ngesperrt\t34\ngesperrt\n");
  CapturedOutput cap;
  print_blocked_versions();
  EXPECT_EQ(cap.out(), "ota: blocked versions: 12 34\n");
}

TEST(BlockedTable, PrintsNothingWithoutBlockedLines) {
  hold_catalog("OTA2\nfassung\t3\n");
  CapturedOutput cap;
  print_blocked_versions();
  EXPECT_EQ(cap.out(), "");
}
