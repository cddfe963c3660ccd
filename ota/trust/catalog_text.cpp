#include "trust/catalog_text.h"

#include "runtime/text.h"

namespace ota {

CatalogText catalog;

const char* catalog_end() { return catalog.text + catalog.length; }

const char* find_catalog_line(const char* tag, usize tag_length, u64 index) {
  const char* text = catalog.text;
  for (usize i = 0; i < catalog.length; i++) {
    if (i != 0 && text[i - 1] != '\n') continue;
    // The text is closed by a 0, so the comparison ends there at the latest.
    if (!str_equal_n(text + i, tag, tag_length)) continue;
    if (index == 0) return text + i + tag_length;
    index--;
  }
  return nullptr;
}

int catalog_field(const char* line, const char* end, u64 n, char* out, usize capacity) {
  const char* p = line;
  for (u64 skipped = 0; skipped < n; skipped++) {
    while (p < end && *p != '\t' && *p != '\n') p++;
    if (p >= end || *p == '\n') {
      if (capacity > 0) out[0] = 0;
      return 0;
    }
    p++;  // past the TAB
  }
  usize len = 0;
  while (p + len < end && p[len] != '\t' && p[len] != '\n' && len + 1 < capacity) {
    out[len] = p[len];
    len++;
  }
  if (capacity > 0) out[len] = 0;
  return len > 0 ? 1 : 0;
}

int line_field(const char* line, u64 n, char* out, usize capacity) {
  return catalog_field(line, catalog_end(), n, out, capacity);
}

}  // namespace ota
