// The gzip files of tests/vectors/gzip, made by gzip, pigz, libdeflate and by hand,
// decode to the plain files beside them (or to the result their README gives).
#include <gtest/gtest.h>

#include "gzip/gunzip.h"
#include "gzip_test_util.h"
#include "test_support.h"

using namespace gzip_test;

namespace {

std::string vector_file(const std::string& name) { return get_file(std::string(OTA_TEST_VECTORS_DIR) + "/gzip/" + name); }

}  // namespace

TEST(GzipVectors, DecodeToTheirPlainFiles) {
  struct Case {
    const char* file;
    const char* plain;  // nullptr: empty output
  };
  const Case cases[] = {{"sample.txt.gzip-9.gz", "sample.txt"},         {"sample.txt.gzip-name.gz", "sample.txt"},
                        {"sample.txt.pigz-11.gz", "sample.txt"},        {"sample.txt.pigz-0.gz", "sample.txt"},
                        {"sample.bin.libdeflate-12.gz", "sample.bin"},  {"sample.bin.gzip-1.gz", "sample.bin"},
                        {"sample.txt.allflags.gz", "sample.txt"},       {"two-members.gz", "sample.txt"},
                        {"empty.gz", nullptr}};
  for (const Case& c : cases) {
    std::string gz = vector_file(c.file);
    ASSERT_FALSE(gz.empty()) << c.file;
    std::string want = c.plain ? vector_file(c.plain) : std::string();
    if (c.plain) {
      ASSERT_FALSE(want.empty()) << c.plain;
    }
    Outcome o = run_gunzip(gz);
    EXPECT_EQ(o.code, ota::kGunzipOk) << c.file;
    EXPECT_TRUE(o.out == want) << c.file;
    EXPECT_TRUE(zlib_gunzip(gz).out == want) << "zlib control: " << c.file;
  }
}

TEST(GzipVectors, DamagedFiles) {
  std::string truncated = vector_file("sample.txt.truncated.gz");
  ASSERT_EQ(truncated.size(), 299u);
  EXPECT_EQ(run_gunzip(truncated).code, ota::kGunzipTruncated);
  std::string bad_crc = vector_file("sample.txt.badcrc.gz");
  ASSERT_EQ(bad_crc.size(), 598u);
  Outcome o = run_gunzip(bad_crc);
  EXPECT_EQ(o.code, ota::kGunzipCheckFailed);
  EXPECT_TRUE(o.out == vector_file("sample.txt"));
}
