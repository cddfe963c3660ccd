// The compiler emits calls to these four even in a freestanding program. They live here,
// linked into the device program only; the host build uses the C library's. This file is
// compiled with loop-idiom recognition off, so the loops do not turn into calls to
// themselves.
#include <stddef.h>

extern "C" {

void* memcpy(void* dst, const void* src, size_t n) {
  auto* d = static_cast<unsigned char*>(dst);
  auto* s = static_cast<const unsigned char*>(src);
  for (size_t i = 0; i < n; i++) d[i] = s[i];
  return dst;
}

void* memmove(void* dst, const void* src, size_t n) {
  auto* d = static_cast<unsigned char*>(dst);
  auto* s = static_cast<const unsigned char*>(src);
  if (d < s) {
    for (size_t i = 0; i < n; i++) d[i] = s[i];
  } else {
    for (size_t i = n; i > 0; i--) d[i - 1] = s[i - 1];
  }
  return dst;
}

void* memset(void* dst, int c, size_t n) {
  auto* d = static_cast<unsigned char*>(dst);
  for (size_t i = 0; i < n; i++) d[i] = static_cast<unsigned char>(c);
  return dst;
}

int memcmp(const void* a, const void* b, size_t n) {
  auto* x = static_cast<const unsigned char*>(a);
  auto* y = static_cast<const unsigned char*>(b);
  for (size_t i = 0; i < n; i++) {
    if (x[i] != y[i]) return x[i] < y[i] ? -1 : 1;
  }
  return 0;
}
}
