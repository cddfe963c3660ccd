// The gzip decoder: header, DEFLATE blocks (stored, fixed and dynamic Huffman), trailer.
//
// Bits are gathered in a 64-bit buffer, least significant first. Where the input buffer
// holds at least eight more bytes it is topped up eight bytes at a time; otherwise byte by
// byte, and a further piece of input is read only when a bit that is really needed is
// missing, so the decoder never asks the input for more than the member occupies beyond
// the current 4096-byte piece.
//
// Huffman codes are decoded through lookup tables: a root table indexed by the next few
// bits (10 for literals and lengths, 8 for distances), and for longer codes a subtable
// indexed by the bits after those. Every
// entry states the full length of its code, so one lookup tells both the symbol and how
// many bits it takes; entries for bit sequences that match no code say "bad" with a
// length of 15, because that many bits must be present before the sequence is known to
// match nothing.
#include "gzip/gunzip.h"

#include "gzip/crc32.h"
#include "runtime/files.h"

namespace ota {
namespace {

// Input is read in pieces of this size.
constexpr usize kInputBytes = kGunzipInputBytes;
// DEFLATE reaches back at most 32768 bytes: the window holds exactly that much, used as a
// ring, and output leaves it in these units.
constexpr u32 kWindowBytes = 32768;
constexpr u32 kWindowMask = kWindowBytes - 1;

constexpr unsigned kMaxCodeBits = 15;
constexpr unsigned kLitLenSymbols = 288;   // the fixed code names 288; a dynamic block at most 286
constexpr unsigned kDistSymbols = 32;      // the fixed code names 32; a dynamic block at most 30
constexpr unsigned kCodeLengthSymbols = 19;
constexpr unsigned kMaxLitLenCount = 286;
constexpr unsigned kMaxDistCount = 30;

constexpr unsigned kLitLenRootBits = 10;
constexpr unsigned kDistRootBits = 8;
constexpr unsigned kCodeLengthRootBits = 7;  // code-length codes are at most 7 bits: no subtables

// Table capacity for the worst case. Canonical codes fill the code space from one end, so
// every subtable but the last is complete; a complete subtable of s index bits holds at
// least s + 1 codes, and 2^s / (s + 1) grows with s, so the complete subtables together
// take at most (symbols / (smax + 1) + 1) << smax entries, smax being 15 minus the root
// bits, and the last one at most 1 << smax more.
constexpr usize table_capacity(unsigned symbols, unsigned root) {
  return (1u << root) + ((symbols / (kMaxCodeBits - root + 1) + 2) << (kMaxCodeBits - root));
}
constexpr usize kLitLenEntries = table_capacity(kLitLenSymbols, kLitLenRootBits);
constexpr usize kDistEntries = table_capacity(kDistSymbols, kDistRootBits);
constexpr usize kCodeLengthEntries = 1u << kCodeLengthRootBits;

// A table entry: bits 0-4 the count of bits the entry takes (the code's full length, for
// lengths and distances with their extra bits added; bit 5 stays clear so that a shift by
// the entry takes just those), bits 8-11 the code's own length (a subtable's index bits),
// one of the flags below, and bits 16-31 the value (literal byte, length or distance
// base, code-length symbol, subtable start). A length symbol has no flag, so the common
// cases test one bit each.
constexpr u32 kTakeMask = 31;
constexpr u32 kLiteral = 0x1000;  // also marks a code-length symbol
constexpr u32 kEndOfBlock = 0x2000;
constexpr u32 kSubtable = 0x4000;
constexpr u32 kBad = 0x8000;  // matches no code, or a symbol the format does not allow
constexpr u32 kUnmatched = kBad | kMaxCodeBits;

enum class Alphabet { kLitLen, kDist, kCodeLength };

// The order in which a dynamic block lists the code-length code's lengths.
constexpr u8 kCodeLengthOrder[kCodeLengthSymbols] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};

struct Decoder {
  int input_fd;
  int output_fd;
  usize in_pos;
  usize in_fill;
  u64 bits;        // bits above bit_count are zero or the input's next bits
  unsigned bit_count;
  u64 total;       // bytes decoded so far; byte i sits at window[i mod 32768]
  u64 flushed;     // bytes handed to the output so far
  u32 crc;
  u64 code;
  bool fixed_loaded;  // the tables hold the fixed code
};

Decoder g;
u8 g_input[kInputBytes];
// Short copies read and write a whole vector at their destination; the slack after the
// ring keeps that inside the buffer when a copy ends near the ring's end.
constexpr usize kWindowSlack = 32;
u8 g_window[kWindowBytes + kWindowSlack];
u32 g_litlen[kLitLenEntries];
u32 g_dist[kDistEntries];
u32 g_codelen[kCodeLengthEntries];
u8 g_lengths[kMaxLitLenCount + kMaxDistCount];

// Reads the next piece. End of input sets code 1 unless a code is set; a failed read sets 5.
bool fill_input() {
  i64 r = sys_read(g.input_fd, g_input, kInputBytes);
  if (r <= 0) {
    if (r < 0) g.code = kGunzipIoFailed;
    else if (g.code == 0) g.code = kGunzipTruncated;
    return false;
  }
  g.in_pos = 0;
  g.in_fill = static_cast<usize>(r);
  return true;
}

// Eight more bits into the bit buffer; bit_count is at most 56.
bool add_byte() {
  if (g.in_pos == g.in_fill && !fill_input()) return false;
  g.bits |= static_cast<u64>(g_input[g.in_pos++]) << g.bit_count;
  g.bit_count += 8;
  return true;
}

// The functions marked cold run once per header, block or stored byte run: they are kept
// out of line and small, and only inflate_block is built for speed.
[[gnu::noinline]] [[gnu::cold]] bool need(unsigned n) {
  while (g.bit_count < n)
    if (!add_byte()) return false;
  return true;
}

[[gnu::noinline]] u32 take(unsigned n) {
  u32 v = static_cast<u32>(g.bits & ((1u << n) - 1));
  g.bits >>= n;
  g.bit_count -= n;
  return v;
}

// A whole byte at a byte boundary: from the bit buffer while it holds some, then straight
// from the input (the bit buffer is emptied so that its upper bits stay consistent).
[[gnu::noinline]] [[gnu::cold]] bool get_byte(u8* out) {
  if (g.bit_count >= 8) {
    *out = static_cast<u8>(take(8));
    return true;
  }
  g.bits = 0;
  g.bit_count = 0;
  if (g.in_pos == g.in_fill && !fill_input()) return false;
  *out = g_input[g.in_pos++];
  return true;
}

[[gnu::noinline]] [[gnu::cold]] bool skip_bytes(usize n) {
  u8 unused;
  for (; n > 0; n--)
    if (!get_byte(&unused)) return false;
  return true;
}

// Hands the bytes decoded since the last flush to the CRC and the output. Called when the
// total reaches a multiple of the window size and once after the last block.
bool flush() {
  u32 n = static_cast<u32>(g.total - g.flushed);
  const u8* p = g_window + (g.flushed & kWindowMask);
  g.crc = crc32_update(g.crc, p, n);
  g.flushed = g.total;
  if (n != 0 && !write_fd_all(g.output_fd, p, n)) {
    g.code = kGunzipIoFailed;
    return false;
  }
  return true;
}

// The entry of a symbol with a code of len bits.
[[gnu::noinline]] u32 symbol_entry(Alphabet alphabet, unsigned sym, u32 len) {
  if (alphabet == Alphabet::kCodeLength) return sym << 16 | kLiteral | len;
  u32 extra, base;
  if (alphabet == Alphabet::kDist) {
    if (sym >= kMaxDistCount) return kBad | len;
    // Distances 1-4 stand alone; then each pair of symbols doubles the span.
    extra = sym < 4 ? 0 : sym / 2 - 1;
    base = sym < 4 ? sym + 1 : ((2 + (sym & 1)) << extra) + 1;
  } else {
    if (sym < 256) return sym << 16 | kLiteral | len;
    if (sym == 256) return kEndOfBlock | len;
    if (sym > 285) return kBad | len;
    // Lengths 3-10 stand alone, 258 has its own symbol, the rest come in groups of four.
    u32 s = sym - 257;
    extra = s < 8 || s == 28 ? 0 : s / 4 - 1;
    base = s < 8 ? s + 3 : s == 28 ? 258 : ((4 + (s & 3)) << extra) + 3;
  }
  return base << 16 | len << 8 | (len + extra);
}

// Builds the lookup table of a canonical Huffman code from its code lengths. A code with
// no lengths at all gives a table that matches nothing; an incomplete code leaves its
// unused bit sequences unmatched; an over-subscribed code is refused.
[[gnu::noinline]] bool build_table(u32* table, usize capacity, unsigned root, const u8* lengths, unsigned n, Alphabet alphabet) {
  u16 count[kMaxCodeBits + 1] = {};
  for (unsigned i = 0; i < n; i++) count[lengths[i]]++;
  count[0] = 0;
  int left = 1;
  unsigned max_len = 0;
  u16 offset[kMaxCodeBits + 2];
  offset[1] = 0;
  for (unsigned len = 1; len <= kMaxCodeBits; len++) {
    left = (left << 1) - count[len];
    if (left < 0) return false;
    if (count[len]) max_len = len;
    offset[len + 1] = static_cast<u16>(offset[len] + count[len]);
  }
  u16 sorted[kLitLenSymbols];
  for (unsigned i = 0; i < n; i++)
    if (lengths[i]) sorted[offset[lengths[i]]++] = static_cast<u16>(i);
  unsigned codes = offset[kMaxCodeBits];  // after the loop: the end of the last length's run

  const u32 root_size = 1u << root;
  for (u32 i = 0; i < root_size; i++) table[i] = kUnmatched;
  usize next = root_size;     // where the next subtable starts
  u32 sub_prefix = root_size;  // root index of the current subtable (none yet)
  usize sub_start = 0;
  u32 sub_size = 0;
  u32 code = 0;  // canonical code of the current symbol, most significant bit first
  unsigned code_len = 0;
  for (unsigned k = 0; k < codes; k++) {
    unsigned sym = sorted[k];
    unsigned len = lengths[sym];
    code <<= len - code_len;
    code_len = len;
    u32 reversed = 0;
    for (unsigned b = 0; b < len; b++) reversed |= ((code >> b) & 1) << (len - 1 - b);
    code++;
    u32 entry = symbol_entry(alphabet, sym, len);
    if (len <= root) {
      for (u32 i = reversed; i < root_size; i += 1u << len) table[i] = entry;
    } else {
      u32 prefix = reversed & (root_size - 1);
      if (prefix != sub_prefix) {
        // Enough index bits for the codes that share this prefix: grow until the codes
        // still to come fill the subtable, or up to the longest code.
        unsigned bits = len - root;
        int room = 1 << bits;
        while (bits + root < max_len) {
          room -= count[bits + root];
          if (room <= 0) break;
          bits++;
          room <<= 1;
        }
        sub_size = 1u << bits;
        if (next + sub_size > capacity) return false;  // cannot happen; see table_capacity
        sub_prefix = prefix;
        sub_start = next;
        next += sub_size;
        table[prefix] = static_cast<u32>(sub_start) << 16 | bits << 8 | kSubtable;
        for (u32 i = 0; i < sub_size; i++) table[sub_start + i] = kUnmatched;
      }
      for (u32 i = reversed >> root; i < sub_size; i += 1u << (len - root)) table[sub_start + i] = entry;
    }
    count[len]--;
  }
  return true;
}

[[gnu::always_inline]] inline u32 lookup(const u32* table, unsigned root, u64 bits) {
  u32 e = table[bits & ((1u << root) - 1)];
  if (e & kSubtable) e = table[(e >> 16) + ((bits >> root) & ((1u << ((e >> 8) & 15)) - 1))];
  return e;
}

// One symbol, outside the hot loop. Returns the entry; on a missing input the code is set.
[[gnu::noinline]] [[gnu::cold]] u32 read_symbol(const u32* table, unsigned root) {
  for (;;) {
    u32 e = lookup(table, root, g.bits);
    unsigned len = e & kTakeMask;
    if (len <= g.bit_count) {
      take(len);
      return e;
    }
    if (!add_byte()) return kUnmatched;
  }
}

[[gnu::noinline]] [[gnu::cold]] void load_fixed_tables() {
  if (g.fixed_loaded) return;
  u8* lengths = g_lengths;  // the fixed code lengths, borrowed space
  for (unsigned i = 0; i < kLitLenSymbols; i++) lengths[i] = i < 144 ? 8 : i < 256 ? 9 : i < 280 ? 7 : 8;
  build_table(g_litlen, kLitLenEntries, kLitLenRootBits, lengths, kLitLenSymbols, Alphabet::kLitLen);
  for (unsigned i = 0; i < kDistSymbols; i++) lengths[i] = 5;
  build_table(g_dist, kDistEntries, kDistRootBits, lengths, kDistSymbols, Alphabet::kDist);
  g.fixed_loaded = true;
}

// Reads a dynamic block's code description and builds its tables.
[[gnu::noinline]] [[gnu::cold]] bool read_dynamic_tables() {
  g.fixed_loaded = false;
  if (!need(14)) return false;
  unsigned nlit = take(5) + 257;  // HLIT
  unsigned ndist = take(5) + 1;   // HDIST
  unsigned nclen = take(4) + 4;   // HCLEN
  if (nlit > kMaxLitLenCount || ndist > kMaxDistCount) {
    g.code = kGunzipMalformed;
    return false;
  }
  u8 clen[kCodeLengthSymbols] = {};
  for (unsigned i = 0; i < nclen; i++) {
    if (!need(3)) return false;
    clen[kCodeLengthOrder[i]] = static_cast<u8>(take(3));
  }
  if (!build_table(g_codelen, kCodeLengthEntries, kCodeLengthRootBits, clen, kCodeLengthSymbols,
                   Alphabet::kCodeLength)) {
    g.code = kGunzipMalformed;
    return false;
  }
  unsigned n = nlit + ndist;
  for (unsigned i = 0; i < n;) {
    u32 e = read_symbol(g_codelen, kCodeLengthRootBits);
    if (g.code) return false;
    if (e & kBad) {
      g.code = kGunzipMalformed;
      return false;
    }
    unsigned sym = e >> 16;
    if (sym < 16) {
      g_lengths[i++] = static_cast<u8>(sym);
      continue;
    }
    u8 value = 0;
    unsigned repeat;
    if (sym == 16) {
      if (i == 0) {  // repeats the previous length, and there is none
        g.code = kGunzipMalformed;
        return false;
      }
      value = g_lengths[i - 1];
      if (!need(2)) return false;
      repeat = 3 + take(2);
    } else if (sym == 17) {
      if (!need(3)) return false;
      repeat = 3 + take(3);
    } else {
      if (!need(7)) return false;
      repeat = 11 + take(7);
    }
    if (i + repeat > n) {
      g.code = kGunzipMalformed;
      return false;
    }
    for (; repeat > 0; repeat--) g_lengths[i++] = value;
  }
  if (!build_table(g_litlen, kLitLenEntries, kLitLenRootBits, g_lengths, nlit, Alphabet::kLitLen) ||
      !build_table(g_dist, kDistEntries, kDistRootBits, g_lengths + nlit, ndist, Alphabet::kDist)) {
    g.code = kGunzipMalformed;
    return false;
  }
  return true;
}

// Copies n bytes inside the window, from src to dst, neither run wrapping. The bytes
// beyond the run are history that later matches may still need, so nothing is written
// past dst + n: runs are copied in words with the last word overlapping the one before.
template <unsigned kWord>
[[gnu::always_inline]] inline void copy_words(u8* dst, const u8* src, u32 n) {
  struct Word {
    u8 b[kWord];
  };
  u32 i = 0;
  for (; i + kWord <= n; i += kWord) {
    Word w;
    __builtin_memcpy(&w, src + i, kWord);
    __builtin_memcpy(dst + i, &w, kWord);
  }
  if (i < n) {
    Word w;
    __builtin_memcpy(&w, src + n - kWord, kWord);
    __builtin_memcpy(dst + n - kWord, &w, kWord);
  }
}

// Bytes from the input buffer into the window (the two never overlap).
inline void copy_bytes(u8* dst, const u8* src, u32 n) {
  if (n >= 16) return copy_words<16>(dst, src, n);
  for (u32 i = 0; i < n; i++) dst[i] = src[i];
}

[[gnu::noinline]] void stored_block() {
  take(g.bit_count & 7);
  u8 h[4];
  for (u8& b : h)
    if (!get_byte(&b)) return;
  u32 len = h[0] | h[1] << 8;   // LEN
  u32 nlen = h[2] | h[3] << 8;  // NLEN, its complement
  if (len != (nlen ^ 0xFFFF)) {
    g.code = kGunzipMalformed;
    return;
  }
  while (len > 0) {
    u32 pos = g.total & kWindowMask;
    u32 n;
    if (g.bit_count >= 8) {
      g_window[pos] = static_cast<u8>(take(8));
      n = 1;
    } else {
      g.bits = 0;
      g.bit_count = 0;
      if (g.in_pos == g.in_fill && !fill_input()) return;
      n = len;
      if (n > g.in_fill - g.in_pos) n = static_cast<u32>(g.in_fill - g.in_pos);
      if (n > kWindowBytes - pos) n = kWindowBytes - pos;
      copy_bytes(g_window + pos, g_input + g.in_pos, n);
      g.in_pos += n;
    }
    len -= n;
    g.total += n;
    if ((g.total & kWindowMask) == 0 && !flush()) return;
  }
}

typedef signed char Bytes16 __attribute__((vector_size(16)));

// Copies n bytes, at most 32, whose source and destination do not overlap: 32 bytes are
// read at both, the first n source bytes merged into the destination's own, and 32 bytes
// written back. No branch depends on n.
[[gnu::always_inline]] inline void copy_merged(u8* dst, const u8* src, u32 n) {
  const Bytes16 iota = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  Bytes16 a0, a1, b0, b1;
  __builtin_memcpy(&a0, src, 16);
  __builtin_memcpy(&a1, src + 16, 16);
  __builtin_memcpy(&b0, dst, 16);
  __builtin_memcpy(&b1, dst + 16, 16);
  Bytes16 nv = Bytes16{} + static_cast<signed char>(n);
  Bytes16 m0 = iota < nv;
  Bytes16 m1 = (iota + 16) < nv;
  a0 = (a0 & m0) | (b0 & ~m0);
  a1 = (a1 & m1) | (b1 & ~m1);
  __builtin_memcpy(dst, &a0, 16);
  __builtin_memcpy(dst + 16, &a1, 16);
}

[[gnu::always_inline]] inline void copy_match(u8* dst, const u8* src, u32 n) {
  usize gap = dst > src ? static_cast<usize>(dst - src) : static_cast<usize>(src - dst);
  if (gap >= n) {  // the runs do not overlap
    if (n <= 32) return copy_merged(dst, src, n);
    return copy_words<16>(dst, src, n);
  } else if (gap >= 16) {
    return copy_words<16>(dst, src, n);
  } else if (gap >= 8) {
    return copy_words<8>(dst, src, n);
  } else if (dst > src) {
    // A pattern shorter than a word repeats with any multiple of its length as well:
    // after the first few bytes, copy from the same source at a distance of a word or
    // more, the smallest multiple of gap that is at least 8.
    static constexpr u8 kStep[8] = {0, 8, 8, 9, 8, 10, 12, 14};
    u32 lead = kStep[gap] - static_cast<u32>(gap);
    if (n >= lead + 8) {
      for (u32 i = 0; i < lead; i++) dst[i] = src[i];
      return copy_words<8>(dst + lead, src, n - lead);
    }
  }
  for (u32 i = 0; i < n; i++) dst[i] = src[i];
}

// The symbols of one Huffman-coded block, up to its end-of-block code. The decoder's
// state lives in locals here and goes back to g around every call that needs it.
[[gnu::hot]] void inflate_block() {
  u64 bits = g.bits;
  unsigned count = g.bit_count;
  usize in_pos = g.in_pos;
  usize in_fill = g.in_fill;
  u64 total = g.total;
  const u8* const in = g_input;
  u8* const window = g_window;
#define OTA_SAVE() (g.bits = bits, g.bit_count = count, g.in_pos = in_pos, g.total = total)
#define OTA_LOAD() (bits = g.bits, count = g.bit_count, in_pos = g.in_pos, in_fill = g.in_fill, total = g.total)
// Calls f on g's state; returns from the block when it fails.
#define OTA_CALL(f)        \
  do {                     \
    OTA_SAVE();            \
    bool ok_ = f();        \
    OTA_LOAD();            \
    if (!ok_) return;      \
  } while (0)
#define OTA_FAIL()                  \
  do {                              \
    OTA_SAVE();                     \
    g.code = kGunzipMalformed;      \
    return;                         \
  } while (0)

  for (;;) {
    // At least 56 bits when eight input bytes are at hand, which covers a literal/length
    // code, its extra bits, a distance code and its extra bits. Near the end of the
    // buffer the top-up takes what is there and each step below checks its bits.
    if (in_fill - in_pos >= 8) {
      u64 w;
      __builtin_memcpy(&w, in + in_pos, 8);
      bits |= w << count;
      in_pos += (63 - count) >> 3;
      count |= 56;
    } else {
      for (; count <= 56 && in_pos < in_fill; count += 8) bits |= static_cast<u64>(in[in_pos++]) << count;
    }

    u32 e = lookup(g_litlen, kLitLenRootBits, bits);
    // Up to two literals here without going round the loop (each takes at most 15 bits).
    for (int k = 0; k < 2 && (e & kLiteral) && (e & kTakeMask) <= count; k++) {
      bits >>= e & 63;
      count -= e & kTakeMask;
      window[total & kWindowMask] = static_cast<u8>(e >> 16);
      if ((++total & kWindowMask) == 0) OTA_CALL(flush);
      e = lookup(g_litlen, kLitLenRootBits, bits);
    }
    while ((e & kTakeMask) > count) {
      OTA_CALL(add_byte);
      e = lookup(g_litlen, kLitLenRootBits, bits);
    }
    u64 saved = bits;
    bits >>= e & 63;
    count -= e & kTakeMask;
    if (e & kLiteral) {
      window[total & kWindowMask] = static_cast<u8>(e >> 16);
      if ((++total & kWindowMask) == 0) OTA_CALL(flush);
      continue;
    }
    if (e & (kEndOfBlock | kBad)) {
      if (e & kBad) OTA_FAIL();
      OTA_SAVE();
      return;
    }
    // A length: its base plus the extra bits that follow the code.
    u32 length = (e >> 16) + static_cast<u32>((saved & ((1ull << (e & kTakeMask)) - 1)) >> ((e >> 8) & 15));

    while (((e = lookup(g_dist, kDistRootBits, bits)) & kTakeMask) > count) OTA_CALL(add_byte);
    saved = bits;
    bits >>= e & 63;
    count -= e & kTakeMask;
    if (e & kBad) OTA_FAIL();
    u32 distance = (e >> 16) + static_cast<u32>((saved & ((1ull << (e & kTakeMask)) - 1)) >> ((e >> 8) & 15));
    if (distance > total) OTA_FAIL();

    u32 pos = total & kWindowMask;
    u32 src = (pos - distance) & kWindowMask;
    if ((pos > src ? pos : src) + length < kWindowBytes) {  // no wrap, no flush: the usual case
      copy_match(window + pos, window + src, length);
      total += length;
      continue;
    }
    // The copy meets the end of the ring: byte by byte, flushing at the boundary.
    for (; length > 0; length--) {
      window[pos] = window[src];
      pos = (pos + 1) & kWindowMask;
      src = (src + 1) & kWindowMask;
      if ((++total & kWindowMask) == 0) OTA_CALL(flush);
    }
  }
#undef OTA_SAVE
#undef OTA_LOAD
#undef OTA_CALL
#undef OTA_FAIL
}

}  // namespace

u64 gunzip_stream(int input_fd, int output_fd) {
  bool fixed_loaded = g.fixed_loaded;
  g = Decoder{};
  g.fixed_loaded = fixed_loaded;
  g.input_fd = input_fd;
  g.output_fd = output_fd;

  u8 h[4];
  for (u8& b : h)
    if (!get_byte(&b)) return g.code;
  if (h[0] != 0x1F || h[1] != 0x8B || h[2] != 8 || (h[3] & 0xE0)) return kGunzipMalformed;  // ID1, ID2, CM, FLG
  u8 flags = h[3];
  if (!skip_bytes(6)) return g.code;  // MTIME, XFL, OS
  if (flags & 0x04) {                 // FEXTRA: XLEN, then that many bytes
    u8 x[2];
    if (!get_byte(&x[0]) || !get_byte(&x[1]) || !skip_bytes(x[0] | x[1] << 8)) return g.code;
  }
  for (u8 flag = 0x08; flag <= 0x10; flag <<= 1) {  // FNAME, then FCOMMENT: zero-terminated
    if (!(flags & flag)) continue;
    u8 c = 1;
    while (c != 0)
      if (!get_byte(&c)) return g.code;
  }
  if ((flags & 0x02) && !skip_bytes(2)) return g.code;  // FHCRC, not checked; FTEXT is ignored

  for (bool last = false; !last && g.code == 0;) {
    if (!need(3)) break;
    last = take(1);
    switch (take(2)) {
      case 0:
        stored_block();
        break;
      case 1:
        load_fixed_tables();
        inflate_block();
        break;
      case 2:
        if (read_dynamic_tables()) inflate_block();
        break;
      default:
        g.code = kGunzipMalformed;
    }
  }
  // Decoded bytes still in the window are written only when every block was whole.
  if (g.code || !flush()) return g.code;

  take(g.bit_count & 7);
  u8 t[8];
  for (u8& b : t)
    if (!get_byte(&b)) return g.code;
  u32 stored_crc = t[0] | t[1] << 8 | t[2] << 16 | static_cast<u32>(t[3]) << 24;
  u32 stored_size = t[4] | t[5] << 8 | t[6] << 16 | static_cast<u32>(t[7]) << 24;
  if (stored_crc != g.crc || stored_size != static_cast<u32>(g.total)) return kGunzipCheckFailed;
  return kGunzipOk;
}

}  // namespace ota
