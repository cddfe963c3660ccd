// gunzip_stream between two memory-backed descriptors, cross-checked against zlib.
//
// Input: the gzip bytes, as they would stand in a downloaded file.
//
// zlib decodes the first member (gzip wrapper only). Checked:
//   - when zlib decodes the member, ours gives 0 and exactly the same bytes;
//   - when ours gives 0, zlib gives the same bytes, except where zlib is stricter than the
//     format asks: an incomplete Huffman code (which the decoder accepts on purpose) and a
//     header CRC (which it skips on purpose);
//   - when zlib refuses the data for any other reason, ours does not give 0, and what it
//     wrote is a prefix of what zlib had decoded before it stopped;
//   - when the input simply ends early for zlib, ours says the input ended (1), or that the
//     data is malformed where zlib is more lenient (see below).
#include <string.h>
#include <sys/mman.h>
#include <zlib.h>

#include "fuzz_support.h"
#include "gzip/gunzip.h"

namespace {

struct Inflated {
  int status;       // Z_STREAM_END, Z_BUF_ERROR (input ended) or the error
  std::string msg;  // zlib's words for an error
  std::string out;
};

// Keeps zlib's output bounded: an input of some kilobytes can stand for gigabytes of
// output, and the comparison needs only as much as ours would produce in a short run.
constexpr size_t kOutputLimit = 64u << 20;

Inflated zlib_inflate(const uint8_t* data, size_t size) {
  Inflated r{Z_OK, "", ""};
  z_stream z{};
  if (inflateInit2(&z, 16 + 15) != Z_OK) abort();
  z.next_in = const_cast<Bytef*>(data);
  z.avail_in = static_cast<uInt>(size);
  std::vector<uint8_t> buf(65536);
  for (;;) {
    z.next_out = buf.data();
    z.avail_out = static_cast<uInt>(buf.size());
    int s = inflate(&z, Z_NO_FLUSH);
    r.out.append(reinterpret_cast<char*>(buf.data()), buf.size() - z.avail_out);
    if (s == Z_STREAM_END) {
      r.status = s;
      break;
    }
    if (s == Z_BUF_ERROR && z.avail_in == 0) {
      r.status = Z_BUF_ERROR;
      break;
    }
    if (s != Z_OK && s != Z_BUF_ERROR) {
      r.status = s;
      r.msg = z.msg ? z.msg : "";
      break;
    }
    if (r.out.size() > kOutputLimit) {
      r.status = Z_MEM_ERROR;
      break;
    }
  }
  inflateEnd(&z);
  return r;
}

// Refusals of zlib that the decoder does not share, by design.
bool zlib_only_refusal(const std::string& msg) {
  return msg == "invalid code lengths set" || msg == "invalid literal/lengths set" || msg == "invalid distances set" ||
         msg == "header crc mismatch";
}

std::string read_all(int fd) {
  std::string s;
  lseek(fd, 0, SEEK_SET);
  char buf[65536];
  for (;;) {
    ssize_t r = read(fd, buf, sizeof buf);
    if (r <= 0) break;
    s.append(buf, static_cast<size_t>(r));
  }
  return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int in = memfd_create("gz-in", 0);
  int out = memfd_create("gz-out", 0);
  if (in < 0 || out < 0) abort();
  for (size_t done = 0; done < size;) {
    ssize_t w = write(in, data + done, size - done);
    if (w <= 0) abort();
    done += static_cast<size_t>(w);
  }
  lseek(in, 0, SEEK_SET);
  uint64_t code = ota::gunzip_stream(in, out);
  std::string ours = read_all(out);
  close(in);
  close(out);

  FUZZ_CHECK(code == 0 || code == 1 || code == 3 || code == 4);
  Inflated z = zlib_inflate(data, size);
  // Said before any check fails, so that a report shows both verdicts.
  if (getenv("OTA_FUZZ_VERBOSE") != nullptr) {
    fprintf(stderr, "ours: code %llu, %zu bytes; zlib: status %d (%s), %zu bytes\n", static_cast<unsigned long long>(code),
            ours.size(), z.status, z.msg.c_str(), z.out.size());
  }
  if (z.status == Z_MEM_ERROR) return 0;  // too large to compare here
  if (z.status == Z_STREAM_END) {
    FUZZ_CHECK(code == 0);
    FUZZ_CHECK(ours == z.out);
    return 0;
  }
  if (code == 0) {
    FUZZ_CHECK(z.status != Z_BUF_ERROR && zlib_only_refusal(z.msg));
    return 0;
  }
  if (z.status == Z_BUF_ERROR) {
    // zlib reads a code-length code without any lengths as one that takes a bit per
    // length, so it may still be asking for input where the decoder has already met a
    // bit sequence that matches no code.
    FUZZ_CHECK(code == 1 || code == 3);
  }
  if (!zlib_only_refusal(z.msg)) {
    FUZZ_CHECK(ours.size() <= z.out.size() && z.out.compare(0, ours.size(), ours) == 0);
  }
  return 0;
}
