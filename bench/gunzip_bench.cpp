// gunzip_stream against zlib's inflate and libdeflate in the same process, on a generated
// corpus of mixed data (text, machine-code-like and record-like binary, random bytes)
// compressed by zlib at level 6. Throughput is counted in bytes of output per second of
// the process's processor time (user and system, so the decoder's reads and writes count),
// which stays meaningful on a machine shared with other work.
//
// The corpus is written under /tmp when the first benchmark needs it and removed at the
// end. With OTA_GUNZIP_CORPUS=path set, the compressed corpus is also kept at that path
// for whole-process comparisons (gunzip_tool, pigz -dc, libdeflate-gunzip -c).
// With OTA_GUNZIP_INPUT=file.gz set, that gzip file is the corpus instead (bench/run.sh
// gives it a tar of programs and documentation installed on the machine).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#ifdef OTA_HAVE_LIBDEFLATE
#include <libdeflate.h>
#endif

#include "gzip/crc32.h"
#include "gzip/gunzip.h"

namespace {

constexpr size_t kCorpusBytes = 120u << 20;

// Words with a skewed frequency, sentences and lines: compresses like prose or logs.
void add_text(std::mt19937_64& rng, std::string& s, size_t n) {
  static std::vector<std::string> words;
  if (words.empty()) {
    std::mt19937_64 w(1);
    for (int i = 0; i < 3000; i++) {
      std::string word;
      int len = 2 + static_cast<int>(w() % 9);
      for (int k = 0; k < len; k++) word.push_back(static_cast<char>('a' + w() % 26));
      words.push_back(word);
    }
  }
  size_t end = s.size() + n;
  while (s.size() < end) {
    // A cubed uniform number favours the first words, as natural text does.
    double u = static_cast<double>(rng() % 1000000) / 1000000.0;
    s += words[static_cast<size_t>(u * u * u * static_cast<double>(words.size()))];
    uint64_t r = rng() % 20;
    s += r == 0 ? ".\n" : r == 1 ? ", " : " ";
  }
  s.resize(end);
}

// Instruction-like byte groups with changing immediates and offsets, and tables of
// little-endian records with slowly changing fields.
void add_binary(std::mt19937_64& rng, std::string& s, size_t n) {
  static const std::string groups[] = {std::string("\x48\x89\xe5", 3),     std::string("\x48\x83\xec", 3),
                                       std::string("\xe8", 1),             std::string("\x0f\x1f\x44\x00\x00", 5),
                                       std::string("\xc3", 1),             std::string("\x48\x8b\x45", 3),
                                       std::string("\x89\x7d", 2),         std::string("\x55", 1),
                                       std::string("\x41\x57\x41\x56", 4), std::string("\x74", 1),
                                       std::string("\x48\x8d\x3d", 3),     std::string("\x31\xc0", 2)};
  size_t end = s.size() + n;
  if (rng() % 2) {
    while (s.size() < end) {
      s += groups[rng() % 12];
      int imm = static_cast<int>(rng() % 4);
      for (int k = 0; k < imm; k++) s.push_back(static_cast<char>(rng() % 3 ? rng() % 16 : rng()));
    }
  } else {
    uint32_t id = static_cast<uint32_t>(rng()), stamp = static_cast<uint32_t>(rng());
    while (s.size() < end) {
      id += 1;
      stamp += static_cast<uint32_t>(rng() % 1000);
      uint32_t fields[4] = {id, stamp, static_cast<uint32_t>(rng() % 7), static_cast<uint32_t>(rng() % 100000)};
      s.append(reinterpret_cast<const char*>(fields), sizeof fields);
    }
  }
  s.resize(end);
}

void add_random(std::mt19937_64& rng, std::string& s, size_t n) {
  size_t end = s.size() + n;
  while (s.size() < end) {
    uint64_t v = rng();
    s.append(reinterpret_cast<const char*>(&v), 8);
  }
  s.resize(end);
}

struct Corpus {
  std::string plain;
  std::string packed;  // one gzip member, zlib level 6
  std::string path;    // the packed corpus on disk, for gunzip_stream
  bool keep = false;

  Corpus() {
    const char* input = std::getenv("OTA_GUNZIP_INPUT");
    if (input && *input) {
      load(input);
      return;
    }
    std::mt19937_64 rng(2024);
    plain.reserve(kCorpusBytes + (1 << 20));
    // Pieces of 64 KiB to 1 MiB: about half text, a third binary, the rest random.
    while (plain.size() < kCorpusBytes) {
      size_t n = (64u << 10) + rng() % (1u << 20);
      uint64_t kind = rng() % 12;
      if (kind < 6) add_text(rng, plain, n);
      else if (kind < 10) add_binary(rng, plain, n);
      else add_random(rng, plain, n);
    }
    plain.resize(kCorpusBytes);

    z_stream z{};
    deflateInit2(&z, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
    packed.resize(deflateBound(&z, plain.size()));
    z.next_in = reinterpret_cast<Bytef*>(plain.data());
    z.avail_in = static_cast<uInt>(plain.size());
    z.next_out = reinterpret_cast<Bytef*>(packed.data());
    z.avail_out = static_cast<uInt>(packed.size());
    deflate(&z, Z_FINISH);
    packed.resize(z.total_out);
    deflateEnd(&z);

    const char* keep_path = std::getenv("OTA_GUNZIP_CORPUS");
    if (keep_path && *keep_path) {
      path = keep_path;
      keep = true;
    } else {
      char name[] = "/tmp/ota-gunzip-bench-XXXXXX";
      int fd = mkstemp(name);
      close(fd);
      path = name;
    }
    FILE* f = std::fopen(path.c_str(), "wb");
    std::fwrite(packed.data(), 1, packed.size(), f);
    std::fclose(f);
    std::fprintf(stderr, "corpus: %zu bytes, packed %zu bytes (%.1f%%) at %s\n", plain.size(), packed.size(),
                 100.0 * static_cast<double>(packed.size()) / static_cast<double>(plain.size()), path.c_str());
  }
  ~Corpus() {
    if (!keep) std::remove(path.c_str());
  }

  // A gzip file made elsewhere: its bytes are the packed corpus, zlib unpacks the plain one.
  void load(const char* input) {
    path = input;
    keep = true;
    FILE* f = std::fopen(input, "rb");
    if (!f) {
      std::perror(input);
      std::exit(1);
    }
    char buf[1 << 16];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) packed.append(buf, n);
    std::fclose(f);
    z_stream z{};
    inflateInit2(&z, 31);
    z.next_in = reinterpret_cast<Bytef*>(packed.data());
    z.avail_in = static_cast<uInt>(packed.size());
    int r;
    do {
      z.next_out = reinterpret_cast<Bytef*>(buf);
      z.avail_out = sizeof buf;
      r = inflate(&z, Z_NO_FLUSH);
      plain.append(buf, sizeof buf - z.avail_out);
    } while (r == Z_OK);
    inflateEnd(&z);
    if (r != Z_STREAM_END || z.avail_in != 0) {
      std::fprintf(stderr, "%s: not one whole gzip member\n", input);
      std::exit(1);
    }
    std::fprintf(stderr, "corpus: %zu bytes, packed %zu bytes (%.1f%%) from %s\n", plain.size(), packed.size(),
                 100.0 * static_cast<double>(packed.size()) / static_cast<double>(plain.size()), input);
  }
};

Corpus& corpus() {
  static Corpus c;
  return c;
}

void BM_Gunzip_Ota(benchmark::State& state) {
  Corpus& c = corpus();
  int out = open("/dev/null", O_WRONLY);
  for (auto _ : state) {
    int in = open(c.path.c_str(), O_RDONLY);
    uint64_t code = ota::gunzip_stream(in, out);
    close(in);
    if (code != 0) state.SkipWithError("gunzip_stream failed");
  }
  close(out);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(c.plain.size()));
}
BENCHMARK(BM_Gunzip_Ota)->Unit(benchmark::kMillisecond);

// zlib streaming through a 64 KiB output buffer, its CRC-32 check included.
void BM_Gunzip_Zlib(benchmark::State& state) {
  Corpus& c = corpus();
  std::vector<unsigned char> buf(64 << 10);
  for (auto _ : state) {
    z_stream z{};
    inflateInit2(&z, 31);
    z.next_in = reinterpret_cast<Bytef*>(c.packed.data());
    z.avail_in = static_cast<uInt>(c.packed.size());
    int r;
    do {
      z.next_out = buf.data();
      z.avail_out = static_cast<uInt>(buf.size());
      r = inflate(&z, Z_NO_FLUSH);
      benchmark::DoNotOptimize(buf.data());
    } while (r == Z_OK);
    if (r != Z_STREAM_END || z.total_out != c.plain.size()) state.SkipWithError("zlib failed");
    inflateEnd(&z);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(c.plain.size()));
}
BENCHMARK(BM_Gunzip_Zlib)->Unit(benchmark::kMillisecond);

#ifdef OTA_HAVE_LIBDEFLATE
// libdeflate decodes the whole member into one buffer of the output's size.
void BM_Gunzip_Libdeflate(benchmark::State& state) {
  Corpus& c = corpus();
  std::vector<unsigned char> out(c.plain.size());
  libdeflate_decompressor* d = libdeflate_alloc_decompressor();
  for (auto _ : state) {
    size_t got = 0;
    libdeflate_result r = libdeflate_gzip_decompress(d, c.packed.data(), c.packed.size(), out.data(), out.size(), &got);
    if (r != LIBDEFLATE_SUCCESS || got != c.plain.size()) state.SkipWithError("libdeflate failed");
    benchmark::DoNotOptimize(out.data());
  }
  libdeflate_free_decompressor(d);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(c.plain.size()));
}
BENCHMARK(BM_Gunzip_Libdeflate)->Unit(benchmark::kMillisecond);
#endif

// The CRC-32 alone over 32 KiB, the unit the decoder hands it: both paths and zlib's.
void BM_Crc32(benchmark::State& state) {
  std::string buf(32768, '\0');
  std::mt19937_64 rng(5);
  for (auto& ch : buf) ch = static_cast<char>(rng());
  const auto* p = reinterpret_cast<const ota::u8*>(buf.data());
  ota::crc32_force_portable(state.range(0) == 1);
  uint32_t crc = 0;
  for (auto _ : state) {
    if (state.range(0) == 2) crc = static_cast<uint32_t>(crc32(crc, p, static_cast<uInt>(buf.size())));
    else crc = ota::crc32_update(crc, p, buf.size());
    benchmark::DoNotOptimize(crc);
  }
  ota::crc32_force_portable(0);
  state.SetLabel(state.range(0) == 0 ? "ota, processor path" : state.range(0) == 1 ? "ota, tables" : "zlib");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(buf.size()));
}
BENCHMARK(BM_Crc32)->Arg(0)->Arg(1)->Arg(2);

}  // namespace
