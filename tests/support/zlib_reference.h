#pragma once
// gzip made and unpacked by zlib, the reference the device's own decoder and the
// publisher's packing are held against.
#include <zlib.h>

#include <string>

// Compresses with zlib: window_bits 31 makes a gzip member, 15 a zlib stream, -15 raw DEFLATE.
// Empty when zlib refuses the parameters.
inline std::string zlib_compress(const std::string& data, int level, int strategy = Z_DEFAULT_STRATEGY,
                                 int window_bits = 31, int mem_level = 8) {
  z_stream z{};
  if (deflateInit2(&z, level, Z_DEFLATED, window_bits, mem_level, strategy) != Z_OK) return {};
  std::string out(deflateBound(&z, data.size()) + 64, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  int r = deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return r == Z_STREAM_END ? out : std::string();
}

// One gzip member of data at level 9.
inline std::string gzip_by_zlib(const std::string& data) { return zlib_compress(data, 9); }

// Unpacks one gzip member; false when it is not a complete, valid member.
inline bool gunzip_by_zlib(const std::string& packed, std::string& out) {
  z_stream s{};
  if (inflateInit2(&s, 15 + 16) != Z_OK) return false;
  s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  s.avail_in = static_cast<uInt>(packed.size());
  char chunk[16384];
  int rc = Z_OK;
  out.clear();
  while (rc == Z_OK) {
    s.next_out = reinterpret_cast<Bytef*>(chunk);
    s.avail_out = sizeof chunk;
    rc = inflate(&s, Z_NO_FLUSH);
    out.append(chunk, sizeof chunk - s.avail_out);
    if (rc == Z_BUF_ERROR) break;
  }
  inflateEnd(&s);
  return rc == Z_STREAM_END;
}
