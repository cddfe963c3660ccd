#include "runtime/text.h"

namespace ota {

i64 last_error = 0;

usize str_len(const char* s) {
  usize n = 0;
  while (s[n] != 0) n++;
  return n;
}

usize str_copy(char* dst, const char* src) {
  usize n = 0;
  while ((dst[n] = src[n]) != 0) n++;
  return n;
}

usize str_copy_bounded(char* dst, const char* src, usize cap) {
  usize n = 0;
  if (src != nullptr) {
    while (n + 1 < cap && src[n] != 0) {
      dst[n] = src[n];
      n++;
    }
  }
  // Even a capacity of 0 or 1 gets its closing 0 at dst[0], as callers rely on.
  dst[n] = 0;
  return n;
}

usize str_append(char* dst, const char* src) { return str_append_at(dst, str_len(dst), src); }

usize str_append_at(char* dst, usize len, const char* src) { return len + str_copy(dst + len, src); }

usize str_append_char(char* dst, usize len, char c) {
  dst[len] = c;
  dst[len + 1] = 0;
  return len + 1;
}

usize str_append_slash(char* dst) { return str_append(dst, "/"); }

usize str_append_decimal(char* dst, u64 v) {
  usize len = str_len(dst);
  return len + format_decimal(v, dst + len, 1);
}

usize str_append_two_digits(char* dst, u64 v) {
  usize len = str_len(dst);
  len = str_append_char(dst, len, static_cast<char>('0' + (v / 10) % 10));
  return str_append_char(dst, len, static_cast<char>('0' + v % 10));
}

bool str_equal(const char* a, const char* b) {
  usize i = 0;
  for (;;) {
    if (a[i] != b[i]) return false;
    if (a[i] == 0) return true;
    i++;
  }
}

bool str_equal_n(const char* a, const char* b, usize n) {
  for (usize i = 0; i < n; i++) {
    if (a[i] != b[i]) return false;
    if (a[i] == 0) return true;
  }
  return true;
}

bool str_starts_with(const char* a, const char* b) { return str_equal_n(a, b, str_len(b)); }

i64 str_find(const char* hay, const char* needle) {
  return mem_find(hay, str_len(hay), needle, str_len(needle));
}

void mem_copy(void* dst, const void* src, usize n) {
  u8* d = static_cast<u8*>(dst);
  const u8* s = static_cast<const u8*>(src);
  for (usize i = 0; i < n; i++) d[i] = s[i];
}

void mem_fill(void* dst, u8 byte, usize n) {
  u8* d = static_cast<u8*>(dst);
  for (usize i = 0; i < n; i++) d[i] = byte;
}

bool mem_equal(const void* a, const void* b, usize n) {
  const u8* x = static_cast<const u8*>(a);
  const u8* y = static_cast<const u8*>(b);
  for (usize i = 0; i < n; i++) {
    if (x[i] != y[i]) return false;
  }
  return true;
}

i64 mem_find(const char* hay, usize len, const char* needle, usize n) {
  if (n == 0) return 0;
  if (n > len) return -1;
  for (usize i = 0; i + n <= len; i++) {
    if (hay[i] == needle[0] && mem_equal(hay + i, needle, n)) return static_cast<i64>(i);
  }
  return -1;
}

u64 parse_decimal(const char* s) {
  constexpr u64 kStick = 1000000000000000000ull;  // 10^18: from here on digits are dropped
  u64 value = 0;
  if (static_cast<u8>(s[0]) < '0') return 0;
  for (usize i = 0; s[i] >= '0' && s[i] <= '9'; i++) {
    if (value < kStick) value = value * 10 + static_cast<u64>(s[i] - '0');
  }
  return value;
}

usize format_decimal(u64 v, char* buf, int is_signed) {
  char scratch[24];
  usize n = 0;
  usize len = 0;
  u64 magnitude = v;
  if (is_signed && (v >> 63) != 0) {
    buf[len++] = '-';
    magnitude = ~v + 1;
  }
  do {
    scratch[n++] = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  while (n > 0) buf[len++] = scratch[--n];
  buf[len] = 0;
  return len;
}

void hex_encode(const u8* bytes, usize n, char* out) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (usize i = 0; i < n; i++) {
    out[2 * i] = kDigits[bytes[i] >> 4];
    out[2 * i + 1] = kDigits[bytes[i] & 15];
  }
  out[2 * n] = 0;
}

i64 write_all(int fd, const void* buf, usize n) {
  const u8* p = static_cast<const u8*>(buf);
  usize done = 0;
  while (done < n) {
    i64 w = sys_write(fd, p + done, n - done);
    if (w < 0) return -1;
    if (w == 0) return static_cast<i64>(done);
    done += static_cast<usize>(w);
  }
  return static_cast<i64>(done);
}

void print_out(const char* s) { write_all(1, s, str_len(s)); }
void print_bytes(const void* buf, usize n) { write_all(1, buf, n); }
void print_err(const char* s) { write_all(2, s, str_len(s)); }
void print_newline() { write_all(1, "\n", 1); }

void print_unsigned(u64 v) {
  char buf[kDecimalBytes];
  usize n = format_decimal(v, buf, 0);
  write_all(1, buf, n);
}

namespace {

// A message line is put together in kLineBytes so that it leaves in one write: lines
// from a background apply and its log then never interleave mid-line. A line longer than
// the buffer is written in pieces, still at once.

void emit_line(int fd, const char* msg, const char* extra, usize extra_len) {
  char line[kLineBytes];
  usize msg_len = str_len(msg);
  if (msg_len + extra_len + 1 <= kLineBytes) {
    mem_copy(line, msg, msg_len);
    mem_copy(line + msg_len, extra, extra_len);
    line[msg_len + extra_len] = '\n';
    write_all(fd, line, msg_len + extra_len + 1);
    return;
  }
  write_all(fd, msg, msg_len);
  write_all(fd, extra, extra_len);
  write_all(fd, "\n", 1);
}

}  // namespace

void say_number(const char* msg, u64 v) {
  char digits[kDecimalBytes];
  usize n = format_decimal(v, digits, 0);
  emit_line(1, msg, digits, n);
}

void say_text(const char* msg, const char* s) { emit_line(1, msg, s, str_len(s)); }

int fail(const char* msg, const char* extra) {
  emit_line(2, msg, extra == nullptr ? "" : extra, extra == nullptr ? 0 : str_len(extra));
  return 1;
}

bool report_failure(const char* msg, const char* extra) {
  fail(msg, extra);
  return false;
}

bool report_failure_number(const char* msg, u64 v) {
  char digits[kDecimalBytes];
  usize n = format_decimal(v, digits, 0);
  emit_line(2, msg, digits, n);
  return false;
}

}  // namespace ota
