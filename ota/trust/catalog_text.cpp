#include "trust/catalog_text.h"

#include "runtime/text.h"

namespace ota {

CatalogText catalog;

const char* catalog_end() { return catalog.text + catalog.length; }

void hold_catalog_text(usize length) {
  catalog.length = length;
  catalog.text[length] = 0;
  catalog.cursor.tag_length = 0;
}

const char* find_catalog_line(const char* tag, usize tag_length, u64 index) {
  const char* text = catalog.text;
  CatalogCursor& cursor = catalog.cursor;
  usize from = 0;
  u64 left = index;
  // Go on from the remembered line when it is the same tag and not past the one asked for.
  if (cursor.tag_length != 0 && cursor.tag_length == tag_length && cursor.index <= index &&
      cursor.at < catalog.length && mem_equal(cursor.tag, tag, tag_length)) {
    from = cursor.at;
    left = index - cursor.index;
  }
  for (usize i = from; i < catalog.length; i++) {
    if (i != 0 && text[i - 1] != '\n') continue;
    // The text is closed by a 0, so the comparison ends there at the latest.
    if (!str_equal_n(text + i, tag, tag_length)) continue;
    if (left == 0) {
      if (tag_length < kCursorTagBytes) {
        mem_copy(cursor.tag, tag, tag_length);
        cursor.tag_length = tag_length;
        cursor.index = index;
        cursor.at = i;
      }
      return text + i + tag_length;
    }
    left--;
  }
  return nullptr;
}

bool catalog_field(const char* line, const char* end, u64 n, char* out, usize capacity) {
  const char* p = line;
  for (u64 skipped = 0; skipped < n; skipped++) {
    while (p < end && *p != '\t' && *p != '\n') p++;
    if (p >= end || *p == '\n') {
      if (capacity > 0) out[0] = 0;
      return false;
    }
    p++;  // past the TAB
  }
  usize len = 0;
  while (p + len < end && p[len] != '\t' && p[len] != '\n' && len + 1 < capacity) {
    out[len] = p[len];
    len++;
  }
  if (capacity > 0) out[len] = 0;
  return len > 0;
}

bool line_field(const char* line, u64 n, char* out, usize capacity) {
  return catalog_field(line, catalog_end(), n, out, capacity);
}

}  // namespace ota
