#pragma once
// Helpers of the gzip tests: streams made by zlib, a bit writer for hand-built DEFLATE
// data, gzip members wrapped around raw DEFLATE, and runs of gunzip_stream over real
// descriptors (temporary files) with zlib as the reference decoder.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>
#include <zlib.h>

#include <random>
#include <string>
#include <vector>

#include "gzip/gunzip.h"
#include "zlib_reference.h"

namespace gzip_test {

inline std::string raw_deflate(const std::string& data, int level = 6, int strategy = Z_DEFAULT_STRATEGY) {
  return zlib_compress(data, level, strategy, -15);
}

struct ZlibResult {
  bool ok;          // the first member ended and its trailer matched
  std::string out;  // what zlib produced, up to its end or its error
};

// zlib's own reading of the first gzip member: the reference for the negative tests.
inline ZlibResult zlib_gunzip(const std::string& gz) {
  z_stream z{};
  inflateInit2(&z, 31);
  std::string out;
  char buf[65536];
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gz.data()));
  z.avail_in = static_cast<uInt>(gz.size());
  int r;
  do {
    z.next_out = reinterpret_cast<Bytef*>(buf);
    z.avail_out = sizeof buf;
    r = inflate(&z, Z_NO_FLUSH);
    out.append(buf, sizeof buf - z.avail_out);
  } while (r == Z_OK);
  inflateEnd(&z);
  return {r == Z_STREAM_END, out};
}

inline uint32_t zlib_crc(const std::string& data) {
  return static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
}

inline void put_le32(std::string& s, uint32_t v) {
  for (int i = 0; i < 4; i++) s.push_back(static_cast<char>(v >> (8 * i)));
}

// The ten fixed header bytes with the given flags, MTIME 0, XFL 0, OS 3 (Unix).
inline std::string gzip_header(uint8_t flags = 0, uint8_t method = 8) {
  return std::string{'\x1f', '\x8b', static_cast<char>(method), static_cast<char>(flags), 0, 0, 0, 0, 0, 3};
}

// A whole member: header, DEFLATE data, CRC-32 and ISIZE of content.
inline std::string gzip_member(const std::string& deflate, const std::string& content) {
  std::string s = gzip_header() + deflate;
  put_le32(s, zlib_crc(content));
  put_le32(s, static_cast<uint32_t>(content.size()));
  return s;
}

// Writes bits least significant first, as DEFLATE packs them.
class BitWriter {
 public:
  void put(uint32_t value, int bits) {
    for (int i = 0; i < bits; i++) put_bit((value >> i) & 1);
  }
  // A Huffman code, sent most significant bit first.
  void put_code(uint32_t code, int len) {
    for (int i = len - 1; i >= 0; i--) put_bit((code >> i) & 1);
  }
  void align() {
    while (fill_ != 0) put_bit(0);
  }
  void put_bytes(const std::string& s) {
    align();
    bytes_ += s;
  }
  std::string bytes() {
    align();
    return bytes_;
  }

 private:
  void put_bit(int b) {
    acc_ |= b << fill_;
    if (++fill_ == 8) {
      bytes_.push_back(static_cast<char>(acc_));
      acc_ = 0;
      fill_ = 0;
    }
  }
  std::string bytes_;
  int acc_ = 0;
  int fill_ = 0;
};

// Canonical Huffman codes from code lengths, as DEFLATE defines them.
inline std::vector<uint32_t> canonical_codes(const std::vector<int>& lengths) {
  int count[16] = {};
  for (int l : lengths) count[l]++;
  count[0] = 0;
  uint32_t next[16] = {};
  uint32_t code = 0;
  for (int bits = 1; bits < 16; bits++) {
    code = (code + count[bits - 1]) << 1;
    next[bits] = code;
  }
  std::vector<uint32_t> codes(lengths.size());
  for (size_t i = 0; i < lengths.size(); i++)
    if (lengths[i]) codes[i] = next[lengths[i]]++;
  return codes;
}

// The fixed code's lengths.
inline std::vector<int> fixed_litlen_lengths() {
  std::vector<int> l(288);
  for (int i = 0; i < 288; i++) l[i] = i < 144 ? 8 : i < 256 ? 9 : i < 280 ? 7 : 8;
  return l;
}

struct Code {
  std::vector<int> lengths;
  std::vector<uint32_t> codes;
  explicit Code(std::vector<int> l) : lengths(std::move(l)), codes(canonical_codes(lengths)) {}
  void put(BitWriter& w, int sym) const { w.put_code(codes[sym], lengths[sym]); }
};

// The code-length code the hand-built dynamic blocks use: symbols 0-12 with 4 bits and
// 13-18 with 5 bits, a complete code.
inline std::vector<int> standard_clen_lengths() {
  std::vector<int> l(19);
  for (int i = 0; i < 19; i++) l[i] = i < 13 ? 4 : 5;
  return l;
}

// The order in which a dynamic block lists the code-length code's lengths.
constexpr int kClenOrder[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};

// A dynamic block header as given: HLIT, HDIST and HCLEN fields, the code-length code's
// lengths (all 19 sent), then the items: a code-length symbol and, for 16, 17 and 18, its
// extra bits.
struct ClenItem {
  int sym;
  int extra;
};
inline void put_dynamic_header(BitWriter& w, bool final, int hlit_field, int hdist_field,
                               const std::vector<int>& clen_lengths, const std::vector<ClenItem>& items) {
  w.put(final ? 1 : 0, 1);  // BFINAL
  w.put(2, 2);              // BTYPE dynamic
  w.put(hlit_field, 5);     // HLIT: count - 257
  w.put(hdist_field, 5);    // HDIST: count - 1
  w.put(19 - 4, 4);         // HCLEN: all 19 lengths follow
  for (int i = 0; i < 19; i++) w.put(clen_lengths[kClenOrder[i]], 3);
  Code clen(clen_lengths);
  for (const ClenItem& it : items) {
    clen.put(w, it.sym);
    if (it.sym == 16) w.put(it.extra, 2);
    if (it.sym == 17) w.put(it.extra, 3);
    if (it.sym == 18) w.put(it.extra, 7);
  }
}

// The lengths sent one by one with the standard code-length code.
inline void put_dynamic_lengths(BitWriter& w, bool final, const std::vector<int>& lit, const std::vector<int>& dist) {
  std::vector<ClenItem> items;
  for (int l : lit) items.push_back({l, 0});
  for (int l : dist) items.push_back({l, 0});
  put_dynamic_header(w, final, static_cast<int>(lit.size()) - 257, static_cast<int>(dist.size()) - 1,
                     standard_clen_lengths(), items);
}

struct Outcome {
  uint64_t code;
  std::string out;
};

inline std::string read_all(int fd) {
  std::string s;
  char buf[65536];
  lseek(fd, 0, SEEK_SET);
  for (;;) {
    ssize_t r = read(fd, buf, sizeof buf);
    if (r <= 0) break;
    s.append(buf, static_cast<size_t>(r));
  }
  return s;
}

inline void write_all_fd(int fd, const std::string& s) {
  size_t done = 0;
  while (done < s.size()) {
    ssize_t w = write(fd, s.data() + done, s.size() - done);
    if (w <= 0) break;
    done += static_cast<size_t>(w);
  }
}

// gunzip_stream from one temporary file into another.
inline Outcome run_gunzip(const std::string& gz) {
  FILE* in = tmpfile();
  FILE* out = tmpfile();
  write_all_fd(fileno(in), gz);
  lseek(fileno(in), 0, SEEK_SET);
  uint64_t code = ota::gunzip_stream(fileno(in), fileno(out));
  Outcome o{code, read_all(fileno(out))};
  fclose(in);
  fclose(out);
  return o;
}

// Test data of several kinds.
inline std::string random_bytes(std::mt19937_64& rng, size_t n) {
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(rng());
  return s;
}

inline std::string random_text(std::mt19937_64& rng, size_t n) {
  static const char* words[] = {"the ",    "update ", "kernel ", "slot ",  "boot ",    "trial ",   "ota ",
                                "system ", "file ",   "of ",     "and ",   "package ", "version ", "\n",
                                "signed ", "catalog ", "a ",     "to ",    "is ",      "in ",      "42 "};
  std::string s;
  while (s.size() < n) s += words[rng() % (sizeof words / sizeof words[0])];
  s.resize(n);
  return s;
}

inline std::string random_runs(std::mt19937_64& rng, size_t n) {
  std::string s;
  while (s.size() < n) s.append(1 + rng() % 600, static_cast<char>(rng() % 4));
  s.resize(n);
  return s;
}

// Machine-code-like bytes: a small vocabulary of instruction-ish groups with varying
// immediates, so matches are short and frequent.
inline std::string code_like(std::mt19937_64& rng, size_t n) {
  static const char* groups[] = {"\x48\x89\xe5", "\x48\x83\xec", "\xe8", "\x0f\x1f\x44\x00\x00", "\xc3",
                                 "\x48\x8b\x45", "\x89\x7d",     "\x55", "\x41\x57",             "\x74"};
  std::string s;
  while (s.size() < n) {
    s += groups[rng() % 10];
    if (rng() % 3 == 0) s.push_back(static_cast<char>(rng() % 64));
  }
  s.resize(n);
  return s;
}

inline std::string mixed_corpus(std::mt19937_64& rng, size_t n) {
  std::string s;
  while (s.size() < n) {
    size_t part = 1000 + rng() % 40000;
    switch (rng() % 4) {
      case 0: s += random_text(rng, part); break;
      case 1: s += random_bytes(rng, part / 4); break;
      case 2: s += random_runs(rng, part); break;
      default: s += code_like(rng, part); break;
    }
  }
  s.resize(n);
  return s;
}

}  // namespace gzip_test

namespace gzip_test {

// A match in a fixed-Huffman block: the length symbol with its extra bits, then the
// distance symbol (five bits) with its extra bits.
inline void put_fixed_match(BitWriter& w, const Code& fixed, int length, int distance) {
  static const int kLengthBase[29] = {3,  4,  5,  6,  7,  8,  9,  10, 11,  13,  15,  17,  19,  23, 27,
                                      31, 35, 43, 51, 59, 67, 83, 99, 115, 131, 163, 195, 227, 258};
  static const int kLengthExtra[29] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
  static const int kDistBase[30] = {1,   2,   3,   4,   5,   7,    9,    13,   17,   25,   33,   49,   65,    97,    129,
                                    193, 257, 385, 513, 769, 1025, 1537, 2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577};
  int ls = 28;
  while (kLengthBase[ls] > length) ls--;
  fixed.put(w, 257 + ls);
  w.put(length - kLengthBase[ls], kLengthExtra[ls]);
  int ds = 29;
  while (kDistBase[ds] > distance) ds--;
  w.put_code(ds, 5);
  w.put(distance - kDistBase[ds], ds < 4 ? 0 : ds / 2 - 1);
}

}  // namespace gzip_test
