// SHA-256: the NIST SHAVS vectors and the FIPS 180-4 examples, each message hashed whole,
// byte by byte and split at every offset, on both the SHA-extension and the portable
// rounds; whole files through sha256_file, checked against OpenSSL; and the comparison
// with an expected hex digest.
#include "trust/sha256.h"

#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <random>
#include <thread>
#include <string>

#include "runtime/syscall.h"
#include "sha_vectors.h"
#include "test_support.h"

using namespace ota;

namespace {

std::string digest_of(const void* data, size_t n) {
  u8 out[kSha256DigestBytes];
  sha256_init();
  sha256_update(data, n);
  sha256_final(out);
  return to_hex(out, sizeof out);
}
std::string digest_of(const std::string& s) { return digest_of(s.data(), s.size()); }
std::string digest_of(const Bytes& b) { return digest_of(b.data(), b.size()); }

std::string digest_in_pieces(const Bytes& b, const std::vector<size_t>& cuts) {
  u8 out[kSha256DigestBytes];
  sha256_init();
  size_t at = 0;
  for (size_t cut : cuts) {
    sha256_update(b.data() + at, cut - at);
    at = cut;
  }
  sha256_update(b.data() + at, b.size() - at);
  sha256_final(out);
  return to_hex(out, sizeof out);
}

std::string openssl_sha256(const void* data, size_t n) {
  u8 out[SHA256_DIGEST_LENGTH];
  SHA256(static_cast<const unsigned char*>(data), n, out);
  return to_hex(out, sizeof out);
}

Bytes random_bytes(std::mt19937_64& rng, size_t n) {
  Bytes b(n);
  for (auto& x : b) x = static_cast<u8>(rng());
  return b;
}

std::string file_digest(const std::string& path) {
  u8 out[kSha256DigestBytes];
  EXPECT_TRUE(sha256_file(path.c_str(), out)) << path;
  return to_hex(out, sizeof out);
}

const char kEmptyDigest[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

}  // namespace

// Every hashing test runs twice: on the processor's SHA extensions (where present) and on
// the portable rounds.
class Sha256Rounds : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { sha256_force_portable(GetParam()); }
  void TearDown() override { sha256_force_portable(false); }
};

INSTANTIATE_TEST_SUITE_P(Paths, Sha256Rounds, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Portable" : "ShaExtensions"; });

TEST_P(Sha256Rounds, ShortMessagesWholeByteByByteAndSplitAtEveryOffset) {
  auto vectors = read_shavs("SHA256ShortMsg.rsp");
  ASSERT_EQ(vectors.size(), 65u);
  for (const auto& v : vectors) {
    SCOPED_TRACE("Len = " + std::to_string(v.bits));
    EXPECT_EQ(digest_of(v.message), v.digest_hex);
    std::vector<size_t> every_byte;
    for (size_t i = 1; i < v.message.size(); i++) every_byte.push_back(i);
    EXPECT_EQ(digest_in_pieces(v.message, every_byte), v.digest_hex);
    for (size_t cut = 0; cut <= v.message.size(); cut++) {
      EXPECT_EQ(digest_in_pieces(v.message, {cut}), v.digest_hex) << "split at " << cut;
    }
  }
}

TEST_P(Sha256Rounds, LongMessagesWholeAndInUnevenPieces) {
  auto vectors = read_shavs("SHA256LongMsg.rsp");
  ASSERT_EQ(vectors.size(), 64u);
  for (const auto& v : vectors) {
    SCOPED_TRACE("Len = " + std::to_string(v.bits));
    EXPECT_EQ(digest_of(v.message), v.digest_hex);
    // Pieces of 1, 2, ..., 130 bytes in turn: every offset inside a block gets a cut.
    std::vector<size_t> cuts;
    for (size_t at = 0, step = 1; at + step < v.message.size(); step = step % 130 + 1) cuts.push_back(at += step);
    EXPECT_EQ(digest_in_pieces(v.message, cuts), v.digest_hex);
    std::vector<size_t> every_byte;
    for (size_t i = 1; i < v.message.size(); i++) every_byte.push_back(i);
    EXPECT_EQ(digest_in_pieces(v.message, every_byte), v.digest_hex);
  }
}

TEST_P(Sha256Rounds, Fips180Examples) {
  EXPECT_EQ(digest_of(std::string("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(digest_of(std::string("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(digest_of(std::string("")), kEmptyDigest);
}

TEST_P(Sha256Rounds, OneMillionTimesA) {
  std::string million(1000000, 'a');
  const char expected[] = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";
  EXPECT_EQ(digest_of(million), expected);
  // The same through many small updates, as a stream would arrive.
  u8 out[kSha256DigestBytes];
  sha256_init();
  for (size_t at = 0; at < million.size(); at += 1000) sha256_update(million.data() + at, 1000);
  sha256_final(out);
  EXPECT_EQ(to_hex(out, sizeof out), expected);
}

TEST_P(Sha256Rounds, AgreesWithOpenSslOnRandomMessagesPiecesAndAlignments) {
  std::mt19937_64 rng(GetParam() ? 11 : 12);
  for (int round = 0; round < 400; round++) {
    size_t n = rng() % 5000;
    Bytes buffer = random_bytes(rng, n + 16);
    size_t shift = rng() % 16;  // blocks compressed straight from unaligned caller memory
    Bytes message(buffer.begin() + shift, buffer.begin() + shift + n);
    std::vector<size_t> cuts;
    for (size_t at = 0; n > 0;) {
      at += 1 + rng() % 300;
      if (at >= n) break;
      cuts.push_back(at);
    }
    std::string expected = openssl_sha256(message.data(), n);
    EXPECT_EQ(digest_of(buffer.data() + shift, n), expected) << "length " << n;
    EXPECT_EQ(digest_in_pieces(message, cuts), expected) << "length " << n;
  }
}

// The padding takes an extra block exactly when more than 55 bytes are left in the last
// one; 4096 and 4097 sit on the edge of the read buffer.
TEST_P(Sha256Rounds, FilesOfEveryPaddingCaseAndSeveralMebibytes) {
  ScratchDir dir;
  std::mt19937_64 rng(5);
  for (size_t n : {0ul, 1ul, 55ul, 56ul, 63ul, 64ul, 65ul, 119ul, 120ul, 4095ul, 4096ul, 4097ul, 8192ul,
                   3ul * 1024 * 1024 + 7}) {
    Bytes content = random_bytes(rng, n);
    std::string path = dir.path("f" + std::to_string(n));
    put_file(path, std::string(content.begin(), content.end()));
    EXPECT_EQ(file_digest(path), openssl_sha256(content.data(), n)) << n << " bytes";
  }
}

TEST(Sha256File, EmptyFileGivesTheDigestOfNothing) {
  ScratchDir dir;
  put_file(dir.path("empty"), "");
  u8 out[kSha256DigestBytes];
  ASSERT_TRUE(sha256_file(dir.path("empty").c_str(), out));
  EXPECT_EQ(to_hex(out, sizeof out), kEmptyDigest);
}

TEST(Sha256File, MissingFileReturnsZeroAndLeavesTheOutputAlone) {
  ScratchDir dir;
  u8 out[kSha256DigestBytes];
  memset(out, 0x5a, sizeof out);
  EXPECT_FALSE(sha256_file(dir.path("not-there").c_str(), out));
  for (u8 b : out) EXPECT_EQ(b, 0x5a);
}

// A directory opens for reading, but its first read fails (EISDIR): the hash ends there
// and the result is the digest of the bytes read so far, none, with 1.
TEST(Sha256File, ReadFailureEndsTheHashWithWhatWasRead) {
  ScratchDir dir;
  mkdir(dir.path("sub").c_str(), 0755);
  u8 out[kSha256DigestBytes];
  memset(out, 0x5a, sizeof out);
  EXPECT_TRUE(sha256_file(dir.path("sub").c_str(), out));
  EXPECT_EQ(to_hex(out, sizeof out), kEmptyDigest);
}

// A read that fails after data has come in: a pipe whose writer stays open, and a signal
// (handled without restart) that interrupts the read waiting for more. The hash ends with
// the bytes read so far, and the result is still 1.
TEST(Sha256File, ReadFailingPartWayGivesTheDigestOfTheBytesReadSoFar) {
  ScratchDir dir;
  std::string fifo = dir.path("pipe");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  int writer = open(fifo.c_str(), O_RDWR);  // read-write: opening does not wait for a reader
  ASSERT_GE(writer, 0);
  std::mt19937_64 rng(8);
  Bytes data = random_bytes(rng, 10000);  // more than two read buffers, less than the pipe holds
  ASSERT_EQ(write(writer, data.data(), data.size()), static_cast<ssize_t>(data.size()));

  struct sigaction quiet {}, saved {};
  quiet.sa_handler = [](int) {};
  sigemptyset(&quiet.sa_mask);
  quiet.sa_flags = 0;  // no SA_RESTART: the waiting read fails with EINTR
  ASSERT_EQ(sigaction(SIGUSR1, &quiet, &saved), 0);
  std::atomic<bool> done{false};
  int result = -1;
  u8 out[kSha256DigestBytes];
  std::thread reader([&] {
    result = sha256_file(fifo.c_str(), out);
    done = true;
  });
  // A signal that lands while the reader is not waiting is simply ignored; repeat until
  // one interrupts the read that waits for bytes that never come.
  while (!done) {
    usleep(20000);
    if (!done) pthread_kill(reader.native_handle(), SIGUSR1);
  }
  reader.join();
  close(writer);
  sigaction(SIGUSR1, &saved, nullptr);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(to_hex(out, sizeof out), openssl_sha256(data.data(), data.size()));
}

TEST(Sha256File, HashAfterAFailedOpenStartsClean) {
  ScratchDir dir;
  put_file(dir.path("abc"), "abc");
  u8 out[kSha256DigestBytes];
  sha256_init();
  sha256_update("left over", 9);
  EXPECT_FALSE(sha256_file(dir.path("none").c_str(), out));
  EXPECT_EQ(file_digest(dir.path("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Sha256Compare, LowercaseRenderingMatchesAndNothingElseDoes) {
  u8 digest[kSha256DigestBytes];
  sha256_init();
  sha256_update("abc", 3);
  sha256_final(digest);
  char hex[kDigestHexBytes];
  sha256_hex(digest, hex);
  EXPECT_STREQ(hex, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

  EXPECT_TRUE(sha256_matches(digest, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
  // The same hash written in capitals never matches.
  EXPECT_FALSE(sha256_matches(digest, "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"));
  // One capital letter is enough to miss.
  EXPECT_FALSE(sha256_matches(digest, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015aD"));
  // Too short, empty, one digit off.
  EXPECT_FALSE(sha256_matches(digest, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015a"));
  EXPECT_FALSE(sha256_matches(digest, ""));
  EXPECT_FALSE(sha256_matches(digest, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ae"));
  // Only the 64 characters take part: what follows them is not looked at.
  EXPECT_TRUE(sha256_matches(digest, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad  abc"));
}

// The dispatch trusts cpu_feature_bits; on a machine whose kernel lists sha_ni the bits
// must say so too, or the extension path would never run here.
TEST(Sha256Dispatch, ProcessorFeatureBitsAgreeWithTheKernel) {
  std::string cpuinfo = get_file("/proc/cpuinfo");
  if (cpuinfo.empty()) GTEST_SKIP() << "no /proc/cpuinfo";
  u64 bits = cpu_feature_bits();
  auto listed = [&](const char* flag) { return cpuinfo.find(std::string(" ") + flag) != std::string::npos; };
  EXPECT_EQ((bits & kCpuSha) != 0, listed("sha_ni"));
  EXPECT_EQ((bits & kCpuSse41) != 0, listed("sse4_1"));
  EXPECT_EQ((bits & kCpuSsse3) != 0, listed("ssse3"));
}
