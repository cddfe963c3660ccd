// The decoder on its descriptors: output leaves in whole windows at each 32768-byte
// boundary and once at the end, input is read in 4096-byte pieces and never further than
// the member needs, and failing reads and writes give code 5.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "gzip/gunzip.h"
#include "gzip_test_util.h"
#include "test_support.h"

using namespace gzip_test;
using ota::kGunzipIoFailed;
using ota::kGunzipMalformed;
using ota::kGunzipOk;
using ota::kGunzipTruncated;

namespace {

// Decodes into one end of a sequenced-packet socket pair, where every write call arrives
// as one record, and returns the sizes of the records in order.
std::vector<size_t> write_calls(const std::string& gz, uint64_t* code, std::string* out) {
  int sv[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
  std::vector<size_t> sizes;
  std::thread reader([&] {
    std::vector<char> buf(1 << 17);
    for (;;) {
      ssize_t r = recv(sv[1], buf.data(), buf.size(), 0);
      if (r <= 0) break;
      sizes.push_back(static_cast<size_t>(r));
      out->append(buf.data(), static_cast<size_t>(r));
    }
  });
  FILE* in = tmpfile();
  write_all_fd(fileno(in), gz);
  lseek(fileno(in), 0, SEEK_SET);
  *code = ota::gunzip_stream(fileno(in), sv[0]);
  fclose(in);
  shutdown(sv[0], SHUT_WR);
  reader.join();
  close(sv[0]);
  close(sv[1]);
  return sizes;
}

// A member of exactly `size` bytes holding one stored block.
std::string stored_member_of_size(size_t size, std::string* content) {
  size_t n = size - 10 - 5 - 8;  // header, block header with LEN and NLEN, trailer
  std::mt19937_64 rng(size);
  *content = random_bytes(rng, n);
  BitWriter w;
  w.put(1, 1);
  w.put(0, 2);
  std::string len = {static_cast<char>(n), static_cast<char>(n >> 8), static_cast<char>(~n), static_cast<char>(~n >> 8)};
  w.put_bytes(len + *content);
  std::string gz = gzip_member(w.bytes(), *content);
  EXPECT_EQ(gz.size(), size);
  return gz;
}

}  // namespace

TEST(GzipIo, OutputLeavesInWholeWindowsAndOnceAtTheEnd) {
  std::mt19937_64 rng(101);
  struct Case {
    size_t size;
    std::vector<size_t> writes;
  };
  const Case cases[] = {{0, {}},
                        {1, {1}},
                        {32767, {32767}},
                        {32768, {32768}},  // flushed once at the boundary, nothing more at the end
                        {32769, {32768, 1}},
                        {65536, {32768, 32768}},
                        {100000, {32768, 32768, 32768, 1696}}};
  for (const Case& c : cases) {
    for (int level : {0, 6}) {
      std::string data = random_text(rng, c.size);
      uint64_t code = 99;
      std::string out;
      std::vector<size_t> sizes = write_calls(zlib_compress(data, level), &code, &out);
      EXPECT_EQ(code, kGunzipOk);
      EXPECT_EQ(sizes, c.writes) << "size " << c.size << " level " << level;
      EXPECT_TRUE(out == data);
    }
  }
}

TEST(GzipIo, NothingIsReadBeyondThePieceThatHoldsTheMemberEnd) {
  // Input is asked for in 4096-byte pieces, and only when a byte is needed: after the
  // decode the file offset is the member's size rounded up to a whole piece (or the end
  // of the file, whichever comes first).
  for (size_t size : {size_t{100}, size_t{4095}, size_t{4096}, size_t{4097}, size_t{8191}, size_t{8192}, size_t{12288}}) {
    std::string content;
    std::string gz = stored_member_of_size(size, &content);
    for (size_t trailing : {size_t{0}, size_t{1}, size_t{5000}}) {
      FILE* in = tmpfile();
      FILE* out = tmpfile();
      write_all_fd(fileno(in), gz + std::string(trailing, 'T'));
      lseek(fileno(in), 0, SEEK_SET);
      EXPECT_EQ(ota::gunzip_stream(fileno(in), fileno(out)), kGunzipOk);
      off_t at = lseek(fileno(in), 0, SEEK_CUR);
      size_t pieces = (size + 4095) / 4096 * 4096;
      EXPECT_EQ(static_cast<size_t>(at), std::min(pieces, size + trailing)) << size << " + " << trailing;
      EXPECT_TRUE(read_all(fileno(out)) == content);
      fclose(in);
      fclose(out);
    }
  }
  // The same for compressed members whose trailer ends exactly at a piece's end: an
  // extra header field pads each to a whole number of pieces.
  std::mt19937_64 rng(102);
  for (size_t pieces : {size_t{1}, size_t{2}, size_t{5}}) {
    std::string data = random_text(rng, 2500 * pieces);
    std::string deflate = raw_deflate(data);
    size_t xlen = pieces * 4096 - 10 - 2 - deflate.size() - 8;
    ASSERT_LT(xlen, 65536u);
    std::string gz = gzip_header(0x04) + std::string{static_cast<char>(xlen), static_cast<char>(xlen >> 8)} +
                     std::string(xlen, 'x') + deflate;
    put_le32(gz, zlib_crc(data));
    put_le32(gz, static_cast<uint32_t>(data.size()));
    ASSERT_EQ(gz.size(), pieces * 4096);
    FILE* in = tmpfile();
    FILE* out = tmpfile();
    write_all_fd(fileno(in), gz + "more");
    lseek(fileno(in), 0, SEEK_SET);
    EXPECT_EQ(ota::gunzip_stream(fileno(in), fileno(out)), kGunzipOk);
    EXPECT_EQ(static_cast<size_t>(lseek(fileno(in), 0, SEEK_CUR)), gz.size());
    EXPECT_TRUE(read_all(fileno(out)) == data);
    fclose(in);
    fclose(out);
  }
}

TEST(GzipIo, ReadFailureInTheMiddleGivesCode5) {
  // The process's own memory read through /proc/self/mem: a member placed at the end of
  // a mapped page, the page after it unmapped. Reading the first piece succeeds, the next
  // read fails with EIO.
  long page = sysconf(_SC_PAGESIZE);
  ASSERT_EQ(page, 4096);
  char* map = static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(map, MAP_FAILED);
  ASSERT_EQ(munmap(map + page, page), 0);
  int mem = open("/proc/self/mem", O_RDONLY);
  ASSERT_GE(mem, 0);
  std::mt19937_64 rng(103);
  std::string data = random_text(rng, 50000);
  std::string gz = zlib_compress(data, 6);
  ASSERT_GT(gz.size(), 4096u);
  memcpy(map, gz.data(), page);  // only the first 4096 bytes of the member are readable
  FILE* out = tmpfile();
  ASSERT_EQ(lseek(mem, reinterpret_cast<off_t>(map), SEEK_SET), reinterpret_cast<off_t>(map));
  EXPECT_EQ(ota::gunzip_stream(mem, fileno(out)), kGunzipIoFailed);
  // A whole member inside the readable page needs no further read and decodes.
  std::string small = zlib_compress("fits in one page", 6);
  memcpy(map + page - small.size(), small.data(), small.size());
  ASSERT_EQ(lseek(mem, reinterpret_cast<off_t>(map + page - small.size()), SEEK_SET),
            reinterpret_cast<off_t>(map + page - small.size()));
  FILE* out2 = tmpfile();
  EXPECT_EQ(ota::gunzip_stream(mem, fileno(out2)), kGunzipOk);
  EXPECT_EQ(read_all(fileno(out2)), "fits in one page");
  // Cut short inside the page, the member needs a read that fails: 5, not 1.
  ASSERT_EQ(lseek(mem, reinterpret_cast<off_t>(map + page - small.size() + 3), SEEK_SET),
            reinterpret_cast<off_t>(map + page - small.size() + 3));
  memcpy(map + page - small.size() + 3, small.data(), small.size() - 3);
  EXPECT_EQ(ota::gunzip_stream(mem, fileno(out2)), kGunzipIoFailed);
  fclose(out);
  fclose(out2);
  close(mem);
  munmap(map, page);
}

TEST(GzipIo, UnreadableInputGivesCode5) {
  ScratchDir dir;
  int d = open(dir.path().c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(d, 0);
  FILE* out = tmpfile();
  EXPECT_EQ(ota::gunzip_stream(d, fileno(out)), kGunzipIoFailed);  // a directory
  close(d);
  std::string path = dir.path("write-only");
  put_file(path, zlib_compress("abc", 6));
  int w = open(path.c_str(), O_WRONLY);
  ASSERT_GE(w, 0);
  EXPECT_EQ(ota::gunzip_stream(w, fileno(out)), kGunzipIoFailed);  // open for writing only
  close(w);
  EXPECT_EQ(ota::gunzip_stream(-1, fileno(out)), kGunzipIoFailed);  // not a descriptor
  fclose(out);
}

TEST(GzipIo, UnwritableOutputGivesCode5) {
  ScratchDir dir;
  std::string in_path = dir.path("in.gz");
  std::string out_path = dir.path("out");
  put_file(out_path, "");
  std::mt19937_64 rng(104);
  for (size_t n : {size_t{1}, size_t{40000}}) {
    put_file(in_path, zlib_compress(random_text(rng, n), 6));
    int in = open(in_path.c_str(), O_RDONLY);
    int out = open(out_path.c_str(), O_RDONLY);  // read-only: every write fails
    EXPECT_EQ(ota::gunzip_stream(in, out), kGunzipIoFailed) << n;
    close(in);
    close(out);
  }
  // An empty member writes nothing, so the read-only output never fails.
  put_file(in_path, zlib_compress("", 6));
  int in = open(in_path.c_str(), O_RDONLY);
  int out = open(out_path.c_str(), O_RDONLY);
  EXPECT_EQ(ota::gunzip_stream(in, out), kGunzipOk);
  close(in);
  close(out);
}

TEST(GzipIo, PipesWithShortReadsAndWrites) {
  // Input arrives through a pipe in uneven chunks (reads return short counts), output
  // leaves through another pipe.
  std::mt19937_64 rng(105);
  for (int round = 0; round < 6; round++) {
    std::string data = mixed_corpus(rng, 300000 + rng() % 300000);
    std::string gz = zlib_compress(data, static_cast<int>(rng() % 10));
    int in_pipe[2], out_pipe[2];
    ASSERT_EQ(pipe(in_pipe), 0);
    ASSERT_EQ(pipe(out_pipe), 0);
    uint64_t seed = rng();
    std::thread writer([&] {
      std::mt19937_64 r(seed);
      size_t at = 0;
      while (at < gz.size()) {
        size_t n = std::min<size_t>(gz.size() - at, 1 + r() % 7000);
        write_all_fd(in_pipe[1], gz.substr(at, n));
        at += n;
        if (r() % 8 == 0) std::this_thread::yield();
      }
      close(in_pipe[1]);
    });
    std::string out;
    std::thread reader([&] {
      char buf[5000];
      for (;;) {
        ssize_t r = read(out_pipe[0], buf, sizeof buf);
        if (r <= 0) break;
        out.append(buf, static_cast<size_t>(r));
      }
    });
    EXPECT_EQ(ota::gunzip_stream(in_pipe[0], out_pipe[1]), kGunzipOk);
    close(out_pipe[1]);
    writer.join();
    reader.join();
    close(in_pipe[0]);
    close(out_pipe[0]);
    EXPECT_TRUE(out == data) << round;
  }
}

TEST(GzipIo, EachCallStartsAfresh) {
  // A failed decode leaves nothing behind for the next one: state, tables and CRC.
  std::mt19937_64 rng(106);
  std::string a = random_text(rng, 70000);
  std::string good_fixed = zlib_compress(a, 6, Z_FIXED);
  std::string good_dynamic = zlib_compress(a, 6);
  std::string bad = good_dynamic.substr(0, good_dynamic.size() / 2);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(run_gunzip(bad).code, kGunzipTruncated);
    EXPECT_EQ(run_gunzip(good_fixed).code, kGunzipOk);
    EXPECT_EQ(run_gunzip("\x1f\x8b\x08\x00").code, kGunzipTruncated);
    Outcome o = run_gunzip(good_dynamic);
    EXPECT_EQ(o.code, kGunzipOk);
    EXPECT_TRUE(o.out == a);
    EXPECT_EQ(run_gunzip(std::string("\x1f\x8b\x08\xe0", 4) + std::string(20, 0)).code, kGunzipMalformed);
  }
}
