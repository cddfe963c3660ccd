#include "gzip.h"

#include <zlib.h>

namespace publish {

Bytes gzip_bytes(const Bytes& data) {
  // One deflate call takes at most 4 GiB of input; system files are far smaller.
  if (data.size() >= 0xFFFFFFFFu) throw Error("a file of 4 GiB or more cannot be compressed in one piece");
  z_stream stream{};
  // 15 window bits plus 16 asks zlib for a gzip header instead of a zlib one.
  if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw Error("zlib could not start compressing");
  }
  Bytes out(deflateBound(&stream, static_cast<uLong>(data.size())) + 64);
  stream.next_in = const_cast<Bytef*>(data.data());
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  int rc = deflate(&stream, Z_FINISH);
  std::size_t produced = stream.total_out;
  deflateEnd(&stream);
  if (rc != Z_STREAM_END) throw Error("zlib could not compress the data");
  out.resize(produced);
  return out;
}

bool gunzip_bytes(const Bytes& packed, Bytes& out) {
  out.clear();
  if (packed.size() >= 0xFFFFFFFFu) return false;
  z_stream stream{};
  if (inflateInit2(&stream, 15 + 16) != Z_OK) return false;
  stream.next_in = const_cast<Bytef*>(packed.data());
  stream.avail_in = static_cast<uInt>(packed.size());
  std::uint8_t chunk[65536];
  int rc = Z_OK;
  while (rc == Z_OK) {
    stream.next_out = chunk;
    stream.avail_out = sizeof chunk;
    rc = inflate(&stream, Z_NO_FLUSH);
    out.insert(out.end(), chunk, chunk + (sizeof chunk - stream.avail_out));
    if (rc == Z_BUF_ERROR && stream.avail_in == 0) break;  // input ended before the member did
  }
  inflateEnd(&stream);
  return rc == Z_STREAM_END;
}

}  // namespace publish
