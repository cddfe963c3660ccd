#pragma once
// Strings in caller-owned buffers, decimal and hexadecimal numbers, and unbuffered
// console output. No operation allocates; only str_copy_bounded knows a capacity.

#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

usize str_len(const char* s);
usize str_copy(char* dst, const char* src);
usize str_copy_bounded(char* dst, const char* src, usize cap);
usize str_append(char* dst, const char* src);
usize str_append_at(char* dst, usize len, const char* src);
usize str_append_char(char* dst, usize len, char c);
usize str_append_slash(char* dst);
usize str_append_decimal(char* dst, u64 v);
usize str_append_two_digits(char* dst, u64 v);
bool str_equal(const char* a, const char* b);
bool str_equal_n(const char* a, const char* b, usize n);
bool str_starts_with(const char* a, const char* b);
i64 str_find(const char* hay, const char* needle);
void mem_copy(void* dst, const void* src, usize n);
void mem_fill(void* dst, u8 byte, usize n);
// Bytes equal over n (no string end is looked for).
bool mem_equal(const void* a, const void* b, usize n);
// Index of the first place where needle (n bytes) occurs in hay (len bytes), else -1.
i64 mem_find(const char* hay, usize len, const char* needle, usize n);

u64 parse_decimal(const char* s);
usize format_decimal(u64 v, char* buf, int is_signed);
void hex_encode(const u8* bytes, usize n, char* out);

i64 write_all(int fd, const void* buf, usize n);
void print_out(const char* s);
void print_bytes(const void* buf, usize n);
void print_err(const char* s);
void print_newline();
void print_unsigned(u64 v);
void say_number(const char* msg, u64 v);
void say_text(const char* msg, const char* s);
// A failure line on standard error: msg, extra (when not null) and a newline. fail gives
// the status a failing command ends with, 1; report_failure answers false, for an
// operation that reports its own failure to a caller that only asks whether it worked.
int fail(const char* msg, const char* extra);
bool report_failure(const char* msg, const char* extra);
// msg, v and a newline on standard error; false (for the few failure lines that end in a
// number).
bool report_failure_number(const char* msg, u64 v);

}  // namespace ota
