// Valid gzip members decode byte for byte: streams from zlib at every level and strategy,
// from the gzip and pigz tools, with every combination of header flags, at the window's
// edges, and a thousand and more random inputs.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "gzip/crc32.h"
#include "gzip/gunzip.h"
#include "gzip_test_util.h"

using namespace gzip_test;
using ota::kGunzipOk;

namespace {

std::string corpus(size_t n, uint64_t seed = 7) {
  std::mt19937_64 rng(seed);
  return mixed_corpus(rng, n);
}

void expect_decodes(const std::string& gz, const std::string& want, const std::string& what) {
  Outcome o = run_gunzip(gz);
  ASSERT_EQ(o.code, kGunzipOk) << what;
  ASSERT_EQ(o.out.size(), want.size()) << what;
  ASSERT_TRUE(o.out == want) << what;
}

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Runs a compressing tool (installed by scripts/setup.sh) in a scratch directory: over
// standard input, or, when the command names {} , over a file of that name.
std::string tool_compress(const std::string& command, const std::string& data) {
  char dir_template[] = "/tmp/ota-gzip-XXXXXX";
  std::string dir = mkdtemp(dir_template);
  std::ofstream(dir + "/sample.txt", std::ios::binary) << data;
  std::string cmd = command;
  size_t at = cmd.find("{}");
  if (at == std::string::npos) cmd += " < " + dir + "/sample.txt";
  else cmd.replace(at, 2, dir + "/sample.txt");
  cmd += " > " + dir + "/out";
  int status = std::system(cmd.c_str());
  std::string out = status == 0 ? slurp(dir + "/out") : std::string();
  std::filesystem::remove_all(dir);
  return out;
}

}  // namespace

TEST(GzipDecode, ZlibEveryLevelAndStrategy) {
  const std::string data = corpus(300000);
  const int strategies[] = {Z_DEFAULT_STRATEGY, Z_FILTERED, Z_HUFFMAN_ONLY, Z_RLE, Z_FIXED};
  for (int strategy : strategies) {
    for (int level = 0; level <= 9; level++) {
      std::string gz = zlib_compress(data, level, strategy);
      ASSERT_FALSE(gz.empty());
      expect_decodes(gz, data, "level " + std::to_string(level) + " strategy " + std::to_string(strategy));
    }
  }
}

TEST(GzipDecode, SmallMemoryLevelsMakeManyBlocks) {
  // memLevel 1 makes zlib end a block every few hundred symbols, so table building and
  // block changes are exercised far more often than with the defaults.
  const std::string data = corpus(200000, 11);
  for (int level : {1, 6, 9})
    for (int strategy : {Z_DEFAULT_STRATEGY, Z_FIXED, Z_HUFFMAN_ONLY})
      expect_decodes(zlib_compress(data, level, strategy, 31, 1), data, "memLevel 1 level " + std::to_string(level));
}

TEST(GzipDecode, OutputSizesAroundTheWindow) {
  std::mt19937_64 rng(5);
  for (size_t n : {size_t{0}, size_t{1}, size_t{32767}, size_t{32768}, size_t{32769}, size_t{65535}, size_t{65536},
                   size_t{65537}, size_t{98304}}) {
    for (const std::string& data : {random_text(rng, n), random_bytes(rng, n), std::string(n, 'z')}) {
      for (int level : {0, 1, 6, 9})
        expect_decodes(zlib_compress(data, level), data, "size " + std::to_string(n) + " level " + std::to_string(level));
    }
  }
}

TEST(GzipDecode, SeveralMebibytes) {
  const std::string data = corpus(6 << 20, 21);
  expect_decodes(zlib_compress(data, 6), data, "6 MiB level 6");
  expect_decodes(zlib_compress(data, 1), data, "6 MiB level 1");
  expect_decodes(zlib_compress(data, 0), data, "6 MiB stored");
  // The same through the table-driven CRC path.
  ota::crc32_force_portable(1);
  Outcome o = run_gunzip(zlib_compress(data, 9));
  ota::crc32_force_portable(0);
  EXPECT_EQ(o.code, kGunzipOk);
  EXPECT_TRUE(o.out == data);
}

TEST(GzipDecode, GzipToolEveryLevel) {
  const std::string data = corpus(400000, 31);
  for (int level = 1; level <= 9; level++) {
    std::string gz = tool_compress("gzip -c -" + std::to_string(level), data);
    ASSERT_FALSE(gz.empty()) << "gzip is missing: run scripts/setup.sh";
    expect_decodes(gz, data, "gzip -" + std::to_string(level));
  }
  // gzip with the file name in the header (FNAME).
  std::string named = tool_compress("gzip -c -6 {}", data);
  ASSERT_GT(named.size(), 10u);
  EXPECT_EQ(named[3] & 0x08, 0x08);
  expect_decodes(named, data, "gzip with name");
}

TEST(GzipDecode, PigzLevelsAndBlockings) {
  const std::string data = corpus(1 << 20, 41);
  // pigz -0 stores, -11 compresses with zopfli; -b 32 cuts the input into 32 KiB pieces
  // joined by empty stored blocks; -i makes the pieces independent.
  const char* commands[] = {"pigz -c -0",       "pigz -c -1", "pigz -c -6",         "pigz -c -9",
                            "pigz -c -11 -p 2", "pigz -c -6 -b 32", "pigz -c -6 -i -b 64", "pigz -c -9 -p 1"};
  for (const char* command : commands) {
    // zopfli is slow: it gets a smaller part.
    const std::string part = std::string(command).find("-11") != std::string::npos ? data.substr(0, 120000) : data;
    std::string gz = tool_compress(command, part);
    ASSERT_FALSE(gz.empty()) << command << ": pigz is missing, run scripts/setup.sh";
    expect_decodes(gz, part, command);
  }
}

TEST(GzipDecode, EveryCombinationOfHeaderFlags) {
  const std::string data = corpus(50000, 51);
  const std::string deflate = raw_deflate(data);
  for (int flags = 0; flags < 32; flags++) {
    std::string s = gzip_header(static_cast<uint8_t>(flags));
    if (flags & 0x04) {  // FEXTRA: XLEN 10, one subfield "OT" of six bytes
      s += std::string("\x0a\x00", 2) + "OT" + std::string("\x06\x00", 2) + "abcdef";
    }
    if (flags & 0x08) s += std::string("name.bin") + '\0';              // FNAME
    if (flags & 0x10) s += std::string("a comment\nline two") + '\0';  // FCOMMENT
    if (flags & 0x02) {                                                 // FHCRC: low half of the header's CRC-32
      uint32_t c = zlib_crc(s);
      s.push_back(static_cast<char>(c));
      s.push_back(static_cast<char>(c >> 8));
    }
    s += deflate;
    put_le32(s, zlib_crc(data));
    put_le32(s, static_cast<uint32_t>(data.size()));
    ASSERT_TRUE(zlib_gunzip(s).ok) << "zlib control, flags " << flags;
    expect_decodes(s, data, "flags " + std::to_string(flags));
  }
}

TEST(GzipDecode, HeaderCrcIsNotChecked) {
  const std::string data = "header crc is skipped";
  std::string s = gzip_header(0x02) + "\xde\xad" + raw_deflate(data);
  put_le32(s, zlib_crc(data));
  put_le32(s, static_cast<uint32_t>(data.size()));
  expect_decodes(s, data, "wrong FHCRC");
}

TEST(GzipDecode, LargeExtraFieldAndLongName) {
  const std::string data = "x";
  std::string s = gzip_header(0x04 | 0x08);
  s += std::string("\xff\xff", 2) + std::string(65535, 'e');  // XLEN 65535
  s += std::string(10000, 'n') + '\0';                        // a name far longer than a read piece
  s += raw_deflate(data);
  put_le32(s, zlib_crc(data));
  put_le32(s, 1);
  expect_decodes(s, data, "large header fields");
}

TEST(GzipDecode, StoredBlockOfLengthZero) {
  const std::string data = "after an empty stored block";
  BitWriter w;
  w.put(0, 1);  // BFINAL 0
  w.put(0, 2);  // BTYPE stored
  w.put_bytes(std::string("\x00\x00\xff\xff", 4));  // LEN 0, NLEN 0xFFFF
  w.put(0, 1);  // BFINAL 0
  w.put(0, 2);  // BTYPE stored
  w.put_bytes(std::string("\x00\x00\xff\xff", 4));  // LEN 0 again
  w.put(1, 1);  // BFINAL 1
  w.put(0, 2);  // BTYPE stored
  std::string len = {static_cast<char>(data.size()), 0, static_cast<char>(~data.size()), '\xff'};
  w.put_bytes(len + data);
  std::string gz = gzip_member(w.bytes(), data);
  ASSERT_TRUE(zlib_gunzip(gz).ok);
  expect_decodes(gz, data, "empty stored blocks");
  // An empty member made of one empty stored block.
  BitWriter e;
  e.put(1, 1);
  e.put(0, 2);
  e.put_bytes(std::string("\x00\x00\xff\xff", 4));
  expect_decodes(gzip_member(e.bytes(), ""), "", "empty member");
}

TEST(GzipDecode, StoredBlocksBetweenHuffmanBlocksKeepBitAlignment) {
  // Fixed blocks end at odd bit positions; the stored blocks after them must start at
  // the next byte, and the bits after them continue at a byte.
  const Code fixed(fixed_litlen_lengths());
  std::string want;
  BitWriter w;
  for (int round = 0; round < 40; round++) {
    w.put(0, 1);
    w.put(1, 2);  // fixed block
    for (int i = 0; i <= round % 7; i++) {
      fixed.put(w, 'a' + i);
      want.push_back(static_cast<char>('a' + i));
    }
    fixed.put(w, 256);
    w.put(0, 1);
    w.put(0, 2);  // stored block
    std::string chunk(round * 37 % 300, static_cast<char>('0' + round % 10));
    std::string len = {static_cast<char>(chunk.size()), static_cast<char>(chunk.size() >> 8),
                       static_cast<char>(~chunk.size()), static_cast<char>(~(chunk.size() >> 8))};
    w.put_bytes(len + chunk);
    want += chunk;
  }
  w.put(1, 1);
  w.put(1, 2);
  fixed.put(w, 256);
  std::string gz = gzip_member(w.bytes(), want);
  ASSERT_TRUE(zlib_gunzip(gz).ok);
  expect_decodes(gz, want, "fixed and stored blocks mixed");
}

TEST(GzipDecode, DistanceOf32768IntoAFullWindow) {
  std::mt19937_64 rng(61);
  const std::string first = random_bytes(rng, 32768);
  BitWriter w;
  w.put(0, 1);
  w.put(0, 2);  // a stored block fills the window
  w.put_bytes(std::string("\x00\x80\xff\x7f", 4) + first);  // LEN 32768, NLEN
  w.put(1, 1);
  w.put(1, 2);  // a fixed block
  const Code fixed(fixed_litlen_lengths());
  std::string want = first;
  // Copies of length 258 from 32768 back, again and again: each reaches the byte the
  // window slot still holds from one window earlier.
  for (int i = 0; i < 300; i++) {
    fixed.put(w, 285);         // length 258
    w.put_code(29, 5);         // distance code 29: 24577 + 13 extra bits
    w.put(32768 - 24577, 13);  // distance 32768
    for (int k = 0; k < 258; k++) want.push_back(want[want.size() - 32768]);
  }
  fixed.put(w, 'Q');
  want.push_back('Q');
  fixed.put(w, 256);
  std::string gz = gzip_member(w.bytes(), want);
  ZlibResult z = zlib_gunzip(gz);
  ASSERT_TRUE(z.ok);
  ASSERT_TRUE(z.out == want);
  expect_decodes(gz, want, "distance 32768");
}

TEST(GzipDecode, OverlappingShortDistancesAcrossTheWindowEnd) {
  // Distances 1 to 17 repeat patterns shorter than the copy; with 60 rounds the output
  // passes the window's end several times, in the middle of copies.
  const Code fixed(fixed_litlen_lengths());
  BitWriter w;
  w.put(1, 1);
  w.put(1, 2);
  std::string want;
  for (int round = 0; round < 60; round++) {
    for (int d = 1; d <= 17; d++) {
      for (int k = 0; k < d; k++) {
        char c = static_cast<char>('a' + (round + k + d) % 26);
        fixed.put(w, static_cast<unsigned char>(c));
        want.push_back(c);
      }
      int len = 3 + (round * 17 + d) % 256;
      put_fixed_match(w, fixed, len, d);
      for (int k = 0; k < len; k++) want.push_back(want[want.size() - d]);
    }
  }
  fixed.put(w, 256);
  ASSERT_GT(want.size(), 3u * 32768);
  std::string gz = gzip_member(w.bytes(), want);
  ZlibResult z = zlib_gunzip(gz);
  ASSERT_TRUE(z.ok);
  ASSERT_TRUE(z.out == want);
  expect_decodes(gz, want, "short distances");
}

TEST(GzipDecode, EveryLengthAndDistanceSymbol) {
  // Each length 3-258 and a spread of distances covering every distance symbol and its
  // extra bits, against zlib.
  std::mt19937_64 rng(71);
  const Code fixed(fixed_litlen_lengths());
  BitWriter w;
  w.put(1, 1);
  w.put(1, 2);
  std::string want = random_bytes(rng, 32768);
  for (unsigned char c : want) fixed.put(w, c);
  for (int len = 3; len <= 258; len++) {
    for (int d : {1, 2, 3, 4, 5, 7, 8, 9, 12, 13, 16, 17, 24, 25, 100, 257, 1024, 4097, 8193, 16385, 24577, 32767, 32768}) {
      int dd = (d + len * 7) % 32768 + 1;  // vary within the symbol's span too
      for (int dist : {d, dd}) {
        put_fixed_match(w, fixed, len, dist);
        for (int k = 0; k < len; k++) want.push_back(want[want.size() - dist]);
      }
    }
  }
  fixed.put(w, 256);
  std::string gz = gzip_member(w.bytes(), want);
  ZlibResult z = zlib_gunzip(gz);
  ASSERT_TRUE(z.ok);
  ASSERT_TRUE(z.out == want);
  expect_decodes(gz, want, "every length");
}

TEST(GzipDecode, RandomInputsRoundTripThroughZlib) {
  std::mt19937_64 rng(81);
  const int strategies[] = {Z_DEFAULT_STRATEGY, Z_FILTERED, Z_HUFFMAN_ONLY, Z_RLE, Z_FIXED};
  int cases = 0;
  for (int i = 0; i < 1200; i++) {
    size_t n = rng() % 4 == 0 ? rng() % 200000 : rng() % 5000;
    std::string data;
    switch (i % 4) {
      case 0: data = random_bytes(rng, n); break;
      case 1: data = random_text(rng, n); break;
      case 2: data = random_runs(rng, n); break;
      default: data = mixed_corpus(rng, n); break;
    }
    int level = static_cast<int>(rng() % 10);
    int strategy = strategies[rng() % 5];
    int mem_level = 1 + static_cast<int>(rng() % 9);
    std::string gz = zlib_compress(data, level, strategy, 31, mem_level);
    ASSERT_FALSE(gz.empty());
    expect_decodes(gz, data, "random case " + std::to_string(i));
    cases++;
  }
  EXPECT_EQ(cases, 1200);
}

TEST(GzipDecode, FirstMemberOnly) {
  const std::string a = "first member\n", b = "second member\n";
  std::string gz = zlib_compress(a, 6) + zlib_compress(b, 6);
  expect_decodes(gz, a, "two members");
  expect_decodes(zlib_compress(a, 6) + "garbage that is not gzip at all", a, "member and garbage");
  expect_decodes(zlib_compress(a, 6) + std::string(100000, '\xff'), a, "member and much garbage");
}

TEST(GzipDecode, DeepCodesOfEveryLength) {
  // A literal/length code with one code of each length 1 to 14 and two of 15 (complete),
  // and a distance code shaped the same: every code longer than the root table goes
  // through a subtable, up to 15 bits.
  std::vector<int> lit(258, 0);
  const int lit_syms[16] = {'e', 't', 'a', 256, 'o', 257, 'n', 's', 'h', 'r', 'd', 'l', 'u', 0, 255, 'z'};
  for (int i = 0; i < 16; i++) lit[lit_syms[i]] = i < 15 ? i + 1 : 15;
  std::vector<int> dist(16, 0);
  for (int i = 0; i < 16; i++) dist[i] = i < 15 ? i + 1 : 15;
  Code lcode(lit), dcode(dist);
  BitWriter w;
  put_dynamic_lengths(w, true, lit, dist);
  std::string want;
  std::mt19937_64 rng(111);
  for (int i = 0; i < 40000; i++) {
    int pick = lit_syms[rng() % 16];
    if (pick == 256) continue;
    if (pick == 257) {
      if (want.size() < 300) continue;
      lcode.put(w, 257);  // length 3
      int ds = static_cast<int>(rng() % 16);
      dcode.put(w, ds);
      static const int kBase[16] = {1, 2, 3, 4, 5, 7, 9, 13, 17, 25, 33, 49, 65, 97, 129, 193};
      int extra = ds < 4 ? 0 : ds / 2 - 1;
      int value = static_cast<int>(rng() % (1u << extra));
      w.put(value, extra);
      int d = kBase[ds] + value;
      for (int k = 0; k < 3; k++) want.push_back(want[want.size() - d]);
      continue;
    }
    lcode.put(w, pick);
    want.push_back(static_cast<char>(pick));
  }
  lcode.put(w, 256);
  std::string gz = gzip_member(w.bytes(), want);
  ZlibResult z = zlib_gunzip(gz);
  ASSERT_TRUE(z.ok);
  ASSERT_TRUE(z.out == want);
  expect_decodes(gz, want, "deep codes");
}
