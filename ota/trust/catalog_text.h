#pragma once
// The verified catalog (or system manifest) held in memory, and the readers of its lines.
// Every line is read by its tag at a line start; fields are separated by single TABs.

#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

// The catalog's capacity (a 0 always follows the text) is in device_limits.h.

// Where the last lookup by tag stopped. The readers walk the lines of one tag in order
// (index 0, 1, 2, ...); going on from the last match makes such a walk one pass over the
// text instead of one pass per line.
struct CatalogCursor {
  char tag[kCursorTagBytes];
  usize tag_length;  // 0: nothing is remembered
  u64 index;
  usize at;  // offset of the index-th line's start
};

struct CatalogText {
  char text[kCatalogBytes + 1];
  usize length;  // 0: no valid catalog is held
  CatalogCursor cursor;
};
extern CatalogText catalog;

// Sets the length of the text now in catalog.text, closes it with a 0 and forgets where
// the last lookup stopped. Everything that puts new text into the buffer goes through it.
void hold_catalog_text(usize length);

// Position just after the tag of the index-th line (from 0) that begins with the tag.
const char* find_catalog_line(const char* tag, usize tag_length, u64 index);
// True when field n of the line at `line` is non-empty; it is copied to out (at most
// capacity - 1 bytes, 0-terminated). Fields end at TAB; an LF or `end` ends the line.
bool catalog_field(const char* line, const char* end, u64 n, char* out, usize capacity);
// catalog_field over the held catalog.
bool line_field(const char* line, u64 n, char* out, usize capacity);
// The end of the held catalog text.
const char* catalog_end();

}  // namespace ota
