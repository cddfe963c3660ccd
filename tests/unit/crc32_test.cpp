// CRC-32 of gzip: known answers, and both paths (folding with carry-less multiplication
// and the tables) against zlib's crc32 at every length and alignment around the edges of
// the folding.
#include "gzip/crc32.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <string>

using namespace ota;

namespace {

u32 reference(const u8* p, size_t n) { return static_cast<u32>(crc32(0, p, static_cast<uInt>(n))); }

u32 of(const std::string& s) { return crc32_update(0, reinterpret_cast<const u8*>(s.data()), s.size()); }

// The processor path may be unavailable; then both calls take the tables and the
// comparison still holds.
struct PortableOff {
  ~PortableOff() { crc32_force_portable(0); }
};

}  // namespace

TEST(Crc32, KnownAnswers) {
  EXPECT_EQ(of(""), 0u);
  EXPECT_EQ(of("a"), 0xE8B7BE43u);
  EXPECT_EQ(of("123456789"), 0xCBF43926u);
  EXPECT_EQ(of("The quick brown fox jumps over the lazy dog"), 0x414FA339u);
  // 64 bytes and more go through the folding path where the processor allows it.
  EXPECT_EQ(of(std::string(64, '\0')), 0x758D6336u);
  EXPECT_EQ(of(std::string(1000, 'a')), reference(reinterpret_cast<const u8*>(std::string(1000, 'a').data()), 1000));
}

TEST(Crc32, BothPathsMatchZlibAtEveryLengthAndAlignment) {
  std::mt19937_64 rng(1);
  std::string buf(700, '\0');
  for (auto& c : buf) c = static_cast<char>(rng());
  const u8* base = reinterpret_cast<const u8*>(buf.data());
  PortableOff restore;
  for (size_t offset = 0; offset < 16; offset++) {
    for (size_t n = 0; n + offset <= 600; n++) {
      u32 want = reference(base + offset, n);
      ASSERT_EQ(crc32_update_portable(0, base + offset, n), want) << offset << " " << n;
      crc32_force_portable(0);
      ASSERT_EQ(crc32_update(0, base + offset, n), want) << offset << " " << n;
      crc32_force_portable(1);
      ASSERT_EQ(crc32_update(0, base + offset, n), want) << offset << " " << n;
    }
  }
}

TEST(Crc32, PiecesGiveTheSameAsTheWhole) {
  std::mt19937_64 rng(2);
  std::string buf(200000, '\0');
  for (auto& c : buf) c = static_cast<char>(rng());
  const u8* p = reinterpret_cast<const u8*>(buf.data());
  u32 whole = reference(p, buf.size());
  for (int round = 0; round < 50; round++) {
    u32 crc = 0;
    size_t at = 0;
    while (at < buf.size()) {
      size_t n = std::min<size_t>(buf.size() - at, rng() % 5000);
      crc = crc32_update(crc, p + at, n);
      at += n;
    }
    ASSERT_EQ(crc, whole);
  }
}

TEST(Crc32, LargeBuffersBothPaths) {
  std::mt19937_64 rng(3);
  PortableOff restore;
  for (size_t n : {size_t{32768}, size_t{1} << 20, (size_t{1} << 20) + 13}) {
    std::string buf(n, '\0');
    for (auto& c : buf) c = static_cast<char>(rng());
    const u8* p = reinterpret_cast<const u8*>(buf.data());
    u32 want = reference(p, n);
    crc32_force_portable(0);
    EXPECT_EQ(crc32_update(0, p, n), want);
    crc32_force_portable(1);
    EXPECT_EQ(crc32_update(0, p, n), want);
    EXPECT_EQ(crc32_update_portable(0, p, n), want);
    // A running value carried in, as the decoder carries it from one window to the next.
    EXPECT_EQ(crc32_update(0x12345678, p, n), static_cast<u32>(crc32(0x12345678, p, static_cast<uInt>(n))));
  }
}
