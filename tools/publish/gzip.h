#pragma once
// gzip: packing through zlib, and unpacking with the device's own decoder. The member is
// written with no file name and a modification time of 0, so the same input always gives
// the same bytes.
#include <cstdint>
#include <string>

#include "util.h"

namespace publish {

Bytes gzip_bytes(const Bytes& data);

// What a device gets when it unpacks a gzip file: the decoder's result code (0 for a
// good member; the device's own codes otherwise) and what it wrote. A device writes the
// whole output before it checks its size and hash, so the output is counted and hashed
// as it streams, and the unpacking is stopped once it passes `limit` bytes (over_limit;
// the result code then says nothing, usually a failed write).
struct Unpacked {
  std::uint64_t code = 0;
  std::uint64_t size = 0;  // bytes written, at most limit + 1
  bool over_limit = false;
  std::string sha;  // SHA-256 of the output, when it stayed within the limit
  Bytes content;    // the output itself, when asked for and within the limit
};
Unpacked device_gunzip(const Bytes& packed, std::uint64_t limit, bool keep_content = false);
// Words for a decoder result code.
std::string gunzip_code_text(std::uint64_t code);

}  // namespace publish
