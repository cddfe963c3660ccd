#pragma once
// gzip made and unpacked by zlib, the reference the device's own decoder and the
// publisher's packing are held against.
#include <zlib.h>

#include <string>

// One gzip member of data at level 9.
inline std::string gzip_by_zlib(const std::string& data) {
  z_stream z{};
  if (deflateInit2(&z, 9, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) return "";
  std::string out(deflateBound(&z, data.size()) + 64, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  int rc = deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return rc == Z_STREAM_END ? out : "";
}

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
