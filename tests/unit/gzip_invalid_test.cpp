// Damaged and malformed members give their result codes: 1 for an early end of input, 3
// for data that breaks the format, 4 for a failed trailer check. Each bad stream is built
// field by field; where zlib has an opinion it is asked too, as a control that the stream
// is bad for the reason the test names.
#include <gtest/gtest.h>

#include "gzip/gunzip.h"
#include "gzip_test_util.h"

using namespace gzip_test;
using ota::kGunzipCheckFailed;
using ota::kGunzipMalformed;
using ota::kGunzipOk;
using ota::kGunzipTruncated;

namespace {

// A member around hand-built DEFLATE bytes; the trailer is for an empty output, which a
// malformed stream never reaches anyway. Padding after it keeps the input from ending
// before the fault is met.
std::string wrap(BitWriter& w) { return gzip_member(w.bytes(), "") + std::string(64, '\0'); }

void expect_malformed(const std::string& gz, const char* what, bool zlib_agrees = true) {
  EXPECT_EQ(run_gunzip(gz).code, kGunzipMalformed) << what;
  if (zlib_agrees) {
    EXPECT_FALSE(zlib_gunzip(gz).ok) << "zlib control: " << what;
  }
}

// Lit/len lengths where only 'A' (65) and the end of block (256) have codes, of one bit
// each, and one distance code of one bit.
std::vector<int> two_symbol_litlen() {
  std::vector<int> lit(257, 0);
  lit[65] = 1;
  lit[256] = 1;
  return lit;
}

}  // namespace

TEST(GzipInvalid, EmptyInputAndBareMagic) {
  EXPECT_EQ(run_gunzip("").code, kGunzipTruncated);
  EXPECT_EQ(run_gunzip("\x1f\x8b").code, kGunzipTruncated);
  EXPECT_EQ(run_gunzip("\x1f").code, kGunzipTruncated);
  // A short header is an early end even when the bytes read so far are wrong: all four
  // are read before they are judged.
  EXPECT_EQ(run_gunzip("\x1f\x8b\x09").code, kGunzipTruncated);
  EXPECT_EQ(run_gunzip("PK").code, kGunzipTruncated);
}

TEST(GzipInvalid, NotAGzipHeader) {
  const std::string data = "content";
  const std::string good = zlib_compress(data, 6);
  ASSERT_EQ(run_gunzip(good).code, kGunzipOk);
  std::string s = good;
  s[0] = 0x1e;  // ID1
  expect_malformed(s, "ID1");
  s = good;
  s[1] = static_cast<char>(0x8c);  // ID2
  expect_malformed(s, "ID2");
  s = good;
  s[2] = 9;  // CM 9
  expect_malformed(s, "method 9");
  s[2] = 0;  // CM 0
  expect_malformed(s, "method 0");
  for (int bit : {0x20, 0x40, 0x80}) {  // reserved FLG bits
    s = good;
    s[3] = static_cast<char>(bit);
    expect_malformed(s, "reserved flag");
  }
  // A zlib stream (RFC 1950) is not a gzip member.
  std::string z = zlib_compress(data, 6, Z_DEFAULT_STRATEGY, 15);
  ASSERT_FALSE(z.empty());
  expect_malformed(z, "zlib stream");
  // Raw DEFLATE without any header.
  expect_malformed(raw_deflate(data), "raw deflate");
}

TEST(GzipInvalid, TruncatedAtEveryByte) {
  // Members of each block kind, cut at every length short of their end.
  std::mt19937_64 rng(91);
  std::string text = random_text(rng, 3000);
  std::string with_header = gzip_header(0x04 | 0x08 | 0x10 | 0x02) + std::string("\x03\x00xyz", 5) + "name" +
                            std::string(1, '\0') + "comment" + std::string(1, '\0') + "\x12\x34" + raw_deflate(text);
  put_le32(with_header, zlib_crc(text));
  put_le32(with_header, static_cast<uint32_t>(text.size()));
  const std::string members[] = {zlib_compress(text, 6), zlib_compress(text, 0), zlib_compress(text, 6, Z_FIXED),
                                 with_header, zlib_compress("", 6)};
  for (const std::string& m : members) {
    ASSERT_EQ(run_gunzip(m).code, kGunzipOk);
    for (size_t cut = 0; cut < m.size(); cut++) {
      Outcome o = run_gunzip(m.substr(0, cut));
      ASSERT_EQ(o.code, kGunzipTruncated) << "cut at " << cut << " of " << m.size();
      ASSERT_FALSE(zlib_gunzip(m.substr(0, cut)).ok);
    }
  }
}

TEST(GzipInvalid, WrongCrcOrLength) {
  std::mt19937_64 rng(92);
  const std::string data = random_text(rng, 100000);
  const std::string good = zlib_compress(data, 6);
  for (int k = 0; k < 4; k++) {
    std::string s = good;
    s[s.size() - 8 + k] ^= 0x01;  // one CRC-32 byte, the last one included
    Outcome o = run_gunzip(s);
    EXPECT_EQ(o.code, kGunzipCheckFailed) << "crc byte " << k;
    EXPECT_TRUE(o.out == data) << "the whole output is written before the check";
    EXPECT_FALSE(zlib_gunzip(s).ok);
  }
  for (int k = 0; k < 4; k++) {
    std::string s = good;
    s[s.size() - 4 + k] ^= 0x80;  // one ISIZE byte
    Outcome o = run_gunzip(s);
    EXPECT_EQ(o.code, kGunzipCheckFailed) << "isize byte " << k;
    EXPECT_TRUE(o.out == data);
    EXPECT_FALSE(zlib_gunzip(s).ok);
  }
}

TEST(GzipInvalid, StoredLengthAndComplementDisagree) {
  BitWriter w;
  w.put(1, 1);  // BFINAL
  w.put(0, 2);  // BTYPE stored
  w.put_bytes(std::string("\x05\x00\xfa\xfe", 4) + "hello");  // LEN 5, NLEN 0xFEFA (should be 0xFFFA)
  expect_malformed(wrap(w), "LEN/NLEN");
  BitWriter z;
  z.put(1, 1);
  z.put(0, 2);
  z.put_bytes(std::string("\x00\x00\x00\x00", 4));  // LEN 0, NLEN 0
  expect_malformed(wrap(z), "LEN 0 NLEN 0");
}

TEST(GzipInvalid, BlockTypeThree) {
  BitWriter w;
  w.put(1, 1);  // BFINAL
  w.put(3, 2);  // BTYPE 3, reserved
  expect_malformed(wrap(w), "block type 3");
  // After a good block too.
  const Code fixed(fixed_litlen_lengths());
  BitWriter v;
  v.put(0, 1);
  v.put(1, 2);
  fixed.put(v, 'x');
  fixed.put(v, 256);
  v.put(1, 1);
  v.put(3, 2);
  expect_malformed(wrap(v), "block type 3 second");
}

TEST(GzipInvalid, OverSubscribedCodes) {
  // The code-length code: three codes of one bit.
  {
    std::vector<int> clen(19, 0);
    clen[0] = clen[1] = clen[8] = 1;
    BitWriter w;
    put_dynamic_header(w, true, 0, 0, clen, {});
    expect_malformed(wrap(w), "code-length code");
  }
  // The literal/length code: three codes of one bit.
  {
    std::vector<int> lit(257, 0);
    lit[0] = lit[1] = lit[256] = 1;
    BitWriter w;
    put_dynamic_lengths(w, true, lit, {1});
    expect_malformed(wrap(w), "literal/length code");
  }
  // The distance code: five codes of two bits.
  {
    BitWriter w;
    put_dynamic_lengths(w, true, two_symbol_litlen(), {2, 2, 2, 2, 2});
    expect_malformed(wrap(w), "distance code");
  }
  // One code of one bit, one of two and three of three: one eighth too many.
  {
    std::vector<int> lit(257, 0);
    lit[0] = 1;
    lit[1] = 2;
    lit[2] = 3;
    lit[3] = 3;
    lit[256] = 3;
    BitWriter w;
    put_dynamic_lengths(w, true, lit, {1});
    expect_malformed(wrap(w), "over by one code of 3 bits");
  }
}

TEST(GzipInvalid, TooManyLengthOrDistanceCodes) {
  for (int hlit : {30, 31}) {  // 287 and 288 literal/length codes
    std::vector<int> clen = standard_clen_lengths();
    BitWriter w;
    put_dynamic_header(w, true, hlit, 0, clen, {});
    expect_malformed(wrap(w), "HLIT");
  }
  for (int hdist : {30, 31}) {  // 31 and 32 distance codes
    BitWriter w;
    put_dynamic_header(w, true, 0, hdist, standard_clen_lengths(), {});
    expect_malformed(wrap(w), "HDIST");
  }
  // 286 and 30 are allowed.
  std::vector<int> lit(286, 0);
  lit['A'] = 1;
  lit[256] = 1;
  BitWriter w;
  put_dynamic_lengths(w, true, lit, std::vector<int>(30, 0));
  Code code(lit);
  code.put(w, 'A');
  code.put(w, 256);
  std::string gz = gzip_member(w.bytes(), "A");
  EXPECT_EQ(run_gunzip(gz).code, kGunzipOk);
}

TEST(GzipInvalid, RepeatWithNoPreviousLength) {
  BitWriter w;
  put_dynamic_header(w, true, 0, 0, standard_clen_lengths(), {{16, 0}});  // 16 as the first item
  expect_malformed(wrap(w), "16 first");
}

TEST(GzipInvalid, RepeatsPastTheAnnouncedCount) {
  // 257 + 1 lengths announced. 255 zeros, then a 1 (for 255) and a 1 (for 256), then the
  // distance length: 258 sent so far; each case then repeats past the end.
  std::vector<ClenItem> base = {{18, 138 - 11}, {18, 117 - 11}, {1, 0}, {1, 0}};  // 255 zeros, 255 and 256
  for (ClenItem over : {ClenItem{16, 0}, ClenItem{17, 0}, ClenItem{18, 0}}) {
    std::vector<ClenItem> items = base;
    items.push_back(over);  // 3, 3 or 11 more lengths where only 1 is left
    BitWriter w;
    put_dynamic_header(w, true, 0, 0, standard_clen_lengths(), items);
    expect_malformed(wrap(w), "repeat past the end");
  }
  // Exactly up to the end is fine: one length left, filled by a plain 1.
  std::vector<ClenItem> items = base;
  items.push_back({1, 0});
  BitWriter w;
  put_dynamic_header(w, true, 0, 0, standard_clen_lengths(), items);
  std::vector<int> lit(257, 0);
  lit[255] = lit[256] = 1;
  Code code(lit);
  code.put(w, 255);
  code.put(w, 256);
  EXPECT_EQ(run_gunzip(gzip_member(w.bytes(), "\xff")).code, kGunzipOk);
  // A repeat may run on from the literal/length lengths into the distance lengths.
  std::vector<ClenItem> across = {{18, 138 - 11}, {18, 117 - 11}, {2, 0}, {16, 0}};  // 255 zeros, then 2 four times
  BitWriter a;
  put_dynamic_header(a, true, 0, 1, standard_clen_lengths(), across);  // 257 + 2 lengths
  std::vector<int> lit2(257, 0);
  lit2[255] = lit2[256] = 2;
  Code code2(lit2);
  code2.put(a, 255);
  code2.put(a, 256);
  Outcome o = run_gunzip(gzip_member(a.bytes(), "\xff"));
  EXPECT_EQ(o.code, kGunzipOk);
  EXPECT_EQ(o.out, "\xff");
}

TEST(GzipInvalid, IncompleteCodesAreAcceptedUntilABitSequenceMatchesNothing) {
  // Only 'A' has a code (one bit, "0"); the end of block has none. The stream sends 'A'
  // and then fifteen one bits, which match no code.
  std::vector<int> lit(257, 0);
  lit['A'] = 1;
  lit[256] = 2;  // "10"; "11" and longer match nothing
  BitWriter w;
  put_dynamic_lengths(w, true, lit, {0});
  Code code(lit);
  code.put(w, 'A');
  w.put(0x7FFF, 15);
  EXPECT_EQ(run_gunzip(wrap(w)).code, kGunzipMalformed);

  // The same incomplete code used properly decodes (zlib refuses incomplete codes, so it
  // is no control here).
  BitWriter ok;
  put_dynamic_lengths(ok, true, lit, {0});
  code.put(ok, 'A');
  code.put(ok, 'A');
  code.put(ok, 256);
  EXPECT_EQ(run_gunzip(gzip_member(ok.bytes(), "AA")).code, kGunzipOk);

  // A distance code with one code of one bit ("0"), used, then a "1" as distance: after
  // 15 bits it matches nothing.
  std::vector<int> lit2(258, 0);
  lit2['A'] = 2;
  lit2[256] = 2;
  lit2[257] = 2;  // length 3
  Code code2(lit2);
  BitWriter d;
  put_dynamic_lengths(d, true, lit2, {1});
  code2.put(d, 'A');
  code2.put(d, 257);
  d.put(0, 1);  // distance 1
  code2.put(d, 257);
  d.put(0x7FFF, 15);  // no distance code starts with 1
  EXPECT_EQ(run_gunzip(wrap(d)).code, kGunzipMalformed);
  BitWriter dok;
  put_dynamic_lengths(dok, true, lit2, {1});
  code2.put(dok, 'A');
  code2.put(dok, 257);
  dok.put(0, 1);
  code2.put(dok, 256);
  EXPECT_EQ(run_gunzip(gzip_member(dok.bytes(), "AAAA")).code, kGunzipOk);
}

TEST(GzipInvalid, UnmatchedSequenceAtTheVeryEndIsAnEarlyEnd) {
  // When fewer than 15 bits remain, a sequence that matches nothing so far is not yet
  // known to be bad: the input ended first.
  std::vector<int> lit(257, 0);
  lit['A'] = 1;
  lit[256] = 2;
  BitWriter w;
  put_dynamic_lengths(w, true, lit, {0});
  Code code(lit);
  code.put(w, 'A');
  w.put(0x3, 2);  // "11": matches nothing, and the input ends within the byte
  EXPECT_EQ(run_gunzip(gzip_header() + w.bytes()).code, kGunzipTruncated);
}

TEST(GzipInvalid, EmptyLiteralCodeIsAcceptedAsATableButDecodesNothing) {
  // All literal/length lengths zero: the table is built (empty), and the first symbol
  // fails. Two distance codes of one bit.
  std::vector<ClenItem> items = {{18, 138 - 11}, {18, 119 - 11}, {1, 0}, {1, 0}};  // 257 zeros, distance 1, 1
  BitWriter w;
  put_dynamic_header(w, true, 0, 1, standard_clen_lengths(), items);
  w.put(0, 16);
  EXPECT_EQ(run_gunzip(wrap(w)).code, kGunzipMalformed);
  // An empty distance code is fine when no match uses it.
  std::vector<int> lit(257, 0);
  lit['B'] = 1;
  lit[256] = 1;
  BitWriter ok;
  put_dynamic_lengths(ok, true, lit, {0});
  Code code(lit);
  code.put(ok, 'B');
  code.put(ok, 256);
  EXPECT_EQ(run_gunzip(gzip_member(ok.bytes(), "B")).code, kGunzipOk);
}

TEST(GzipInvalid, LengthOrDistanceSymbolOutOfRange) {
  const Code fixed(fixed_litlen_lengths());
  for (int sym : {286, 287}) {  // fixed codes exist for them, the format gives them no length
    BitWriter w;
    w.put(1, 1);
    w.put(1, 2);
    fixed.put(w, 'a');
    fixed.put(w, sym);
    expect_malformed(wrap(w), "length symbol");
  }
  for (int dsym : {30, 31}) {
    BitWriter w;
    w.put(1, 1);
    w.put(1, 2);
    fixed.put(w, 'a');
    fixed.put(w, 257);  // length 3
    w.put_code(dsym, 5);
    expect_malformed(wrap(w), "distance symbol");
  }
}

TEST(GzipInvalid, DistanceBeyondTheOutput) {
  const Code fixed(fixed_litlen_lengths());
  {
    BitWriter w;  // a back-reference before any output
    w.put(1, 1);
    w.put(1, 2);
    put_fixed_match(w, fixed, 3, 1);
    expect_malformed(wrap(w), "at the start");
  }
  {
    BitWriter w;  // four bytes written, distance 5
    w.put(1, 1);
    w.put(1, 2);
    for (char c : std::string("abcd")) fixed.put(w, c);
    put_fixed_match(w, fixed, 3, 5);
    expect_malformed(wrap(w), "one too far");
  }
  {
    BitWriter w;  // four bytes written, distance 4: fine
    w.put(1, 1);
    w.put(1, 2);
    for (char c : std::string("abcd")) fixed.put(w, c);
    put_fixed_match(w, fixed, 6, 4);
    fixed.put(w, 256);
    EXPECT_EQ(run_gunzip(gzip_member(w.bytes(), "abcdabcdab")).code, kGunzipOk);
  }
  {
    // 40000 bytes written: the limit is the count written, not the window, and 32768 is
    // the largest a distance can say; 32768 is fine here.
    std::mt19937_64 rng(93);
    std::string data = random_bytes(rng, 40000);
    BitWriter w;
    w.put(0, 1);
    w.put(0, 2);
    w.put_bytes(std::string("\x40\x9c\xbf\x63", 4) + data);  // LEN 40000
    w.put(1, 1);
    w.put(1, 2);
    put_fixed_match(w, fixed, 10, 32768);
    fixed.put(w, 256);
    std::string want = data + data.substr(40000 - 32768, 10);
    Outcome o = run_gunzip(gzip_member(w.bytes(), want));
    EXPECT_EQ(o.code, kGunzipOk);
    EXPECT_TRUE(o.out == want);
  }
}

TEST(GzipInvalid, RandomDamageNeverDisagreesWithZlibOnGoodResults) {
  // Damaged members: whenever zlib reads one to a matching trailer, so must this
  // decoder, with the same bytes; and the result is always one of the defined codes.
  std::mt19937_64 rng(94);
  const std::string data = mixed_corpus(rng, 20000);
  const std::string sources[] = {zlib_compress(data, 6), zlib_compress(data, 1, Z_FIXED), zlib_compress(data, 9, Z_RLE),
                                 zlib_compress(data, 0)};
  int zlib_ok = 0;
  for (int i = 0; i < 3000; i++) {
    std::string s = sources[i % 4];
    int edits = 1 + static_cast<int>(rng() % 4);
    for (int k = 0; k < edits; k++) {
      size_t at = rng() % s.size();
      switch (rng() % 3) {
        case 0: s[at] ^= static_cast<char>(1 << (rng() % 8)); break;
        case 1: s[at] = static_cast<char>(rng()); break;
        default: s.resize(at); break;
      }
      if (s.empty()) break;
    }
    Outcome o = run_gunzip(s);
    ASSERT_TRUE(o.code == 0 || o.code == 1 || o.code == 3 || o.code == 4) << o.code;
    ZlibResult z = zlib_gunzip(s);
    if (z.ok) {
      zlib_ok++;
      ASSERT_EQ(o.code, kGunzipOk) << "case " << i;
      ASSERT_TRUE(o.out == z.out) << "case " << i;
    }
  }
  EXPECT_GT(zlib_ok, 0);
}
