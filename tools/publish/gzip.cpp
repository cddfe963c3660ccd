#include "gzip.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>
#include <zlib.h>

#include <memory>
#include <thread>

#include "gzip/gunzip.h"

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

namespace {

struct Fd {
  int fd = -1;
  ~Fd() { close_now(); }
  void close_now() {
    if (fd >= 0) close(fd);
    fd = -1;
  }
};

struct MdFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

// While the decoder writes into a pipe whose reader may have stopped, a write must fail
// with EPIPE rather than end the process.
class IgnoreBrokenPipe {
 public:
  IgnoreBrokenPipe() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &saved_);
  }
  ~IgnoreBrokenPipe() { sigaction(SIGPIPE, &saved_, nullptr); }

 private:
  struct sigaction saved_ {};
};

}  // namespace

Unpacked device_gunzip(const Bytes& packed, std::uint64_t limit, bool keep_content) {
  Fd input;
  input.fd = memfd_create("ota-publish-gzip", MFD_CLOEXEC);
  if (input.fd < 0) throw Error("cannot make a memory file to unpack in");
  for (std::size_t done = 0; done < packed.size();) {
    ssize_t w = write(input.fd, packed.data() + done, packed.size() - done);
    if (w <= 0) throw Error("cannot fill the memory file to unpack in");
    done += static_cast<std::size_t>(w);
  }
  if (lseek(input.fd, 0, SEEK_SET) != 0) throw Error("cannot rewind the memory file to unpack in");
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw Error("cannot make a pipe to unpack through");
  Fd read_end, write_end;
  read_end.fd = ends[0];
  write_end.fd = ends[1];

  Unpacked result;
  std::unique_ptr<EVP_MD_CTX, MdFree> md(EVP_MD_CTX_new());
  if (!md || EVP_DigestInit_ex(md.get(), EVP_sha256(), nullptr) != 1) throw Error("libcrypto could not hash");
  std::thread reader([&] {
    std::uint8_t chunk[65536];
    for (;;) {
      ssize_t n = read(read_end.fd, chunk, sizeof chunk);
      if (n <= 0) break;
      result.size += static_cast<std::uint64_t>(n);
      if (result.size > limit) {
        // A device would go on writing; enough is seen to refuse it. Closing the reading
        // end makes the decoder's next write fail, which ends the decoding.
        result.over_limit = true;
        result.size = limit + 1;
        break;
      }
      EVP_DigestUpdate(md.get(), chunk, static_cast<std::size_t>(n));
      if (keep_content) result.content.insert(result.content.end(), chunk, chunk + n);
    }
    read_end.close_now();
  });
  {
    IgnoreBrokenPipe ignore;
    result.code = ota::gunzip_stream(input.fd, write_end.fd);
    write_end.close_now();
  }
  reader.join();
  if (result.over_limit) result.content.clear();
  if (!result.over_limit) {
    unsigned char digest[32];
    unsigned int length = 0;
    EVP_DigestFinal_ex(md.get(), digest, &length);
    result.sha = hex_lower(digest, length);
  }
  return result;
}

std::string gunzip_code_text(std::uint64_t code) {
  switch (code) {
    case ota::kGunzipOk:
      return "unpacked";
    case ota::kGunzipTruncated:
      return "the input ends before the member does (code 1)";
    case ota::kGunzipMalformed:
      return "not a gzip member a device can decode (code 3)";
    case ota::kGunzipCheckFailed:
      return "its CRC-32 or length trailer does not match the output (code 4)";
    default:
      return "the unpacking failed (code " + std::to_string(code) + ")";
  }
}

}  // namespace publish
