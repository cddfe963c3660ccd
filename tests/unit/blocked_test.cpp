// The stored list of withdrawn versions: loading every file length, merging a catalog's
// lines, and the test that refuses an offered version.
#include <gtest/gtest.h>

#include <string>

#include "test_support.h"
#include "trust/blocked.h"
#include "trust/catalog_text.h"

using namespace ota;

namespace {

void hold_catalog(const std::string& text) {
  memcpy(catalog.text, text.data(), text.size());
  hold_catalog_text(text.size());
}

std::string records(int first, int count) {
  std::string s;
  char buf[16];
  for (int i = 0; i < count; i++) {
    snprintf(buf, sizeof buf, "%08d\n", first + i);
    s += buf;
  }
  return s;
}

}  // namespace

TEST(BlockedFile, EveryLengthUpTo700Bytes) {
  DeviceRoot root;
  std::string all = records(1, 78);  // 702 bytes
  for (size_t len = 0; len <= 700; len++) {
    root.put("/system/GESPERRT", all.substr(0, len));
    load_blocked_versions();
    u64 whole = len < 9 ? 0 : std::min<u64>(std::min<u64>(len, 639) / 9, 64);
    ASSERT_EQ(blocked.count, whole) << len;
    if (whole > 0) {
      EXPECT_TRUE(is_in_blocked_list(whole)) << len;
      EXPECT_FALSE(is_in_blocked_list(whole + 1)) << len;
    }
  }
}

TEST(BlockedFile, SixHundredFortyBytesGiveSixtyFourAndSeventeenGiveOne) {
  DeviceRoot root;
  root.put("/system/GESPERRT", records(1, 71).substr(0, 640));
  load_blocked_versions();
  EXPECT_EQ(blocked.count, 64u);
  root.put("/system/GESPERRT", records(1, 2).substr(0, 17));
  load_blocked_versions();
  EXPECT_EQ(blocked.count, 1u);
  root.put("/system/GESPERRT", "");
  load_blocked_versions();
  EXPECT_EQ(blocked.count, 0u);
}

TEST(BlockedFile, MissingFileIsAnEmptyList) {
  DeviceRoot root;
  load_blocked_versions();
  EXPECT_EQ(blocked.count, 0u);
  hold_catalog("OTA2\n");
  EXPECT_FALSE(version_is_blocked(5));
}

TEST(BlockedMerge, StoresEachNewVersionOnce) {
  DeviceRoot root;
  hold_catalog("OTA2\ngesperrt\t7\ngesperrt\t7\ngesperrt\t9\n");
  merge_blocked_versions();
  EXPECT_EQ(root.get("/system/GESPERRT"), "00000007\n00000009\n");
  // A second merge of the same lines writes nothing new.
  root.put("/system/GESPERRT", "00000007\n00000009\nTAIL");
  merge_blocked_versions();
  EXPECT_EQ(root.get("/system/GESPERRT"), "00000007\n00000009\nTAIL");
}

TEST(BlockedMerge, AFieldNotStartingWithADigitBlocksVersionZero) {
  DeviceRoot root;
  hold_catalog("OTA2\ngesperrt\tx5\ngesperrt\t12abc\ngesperrt\n");
  merge_blocked_versions();
  EXPECT_EQ(root.get("/system/GESPERRT"), "00000000\n00000012\n");
}

TEST(BlockedMerge, ATableOfSixtyFourTakesNoMore) {
  DeviceRoot root;
  root.put("/system/GESPERRT", records(1, 64));
  hold_catalog("OTA2\ngesperrt\t500\n");
  merge_blocked_versions();
  EXPECT_EQ(root.get("/system/GESPERRT"), records(1, 64));
  // Still blocked while the current catalog lists it.
  EXPECT_TRUE(version_is_blocked(500));
  hold_catalog("OTA2\n");
  EXPECT_FALSE(version_is_blocked(500));
  EXPECT_TRUE(version_is_blocked(64));
}

TEST(BlockedMerge, AStoredVersionIsBlockedWithoutACatalogLine) {
  DeviceRoot root;
  root.put("/system/GESPERRT", "00000042\n");
  hold_catalog("OTA2\nfassung\t42\n");
  EXPECT_TRUE(version_is_blocked(42));
  EXPECT_FALSE(version_is_blocked(43));
}
