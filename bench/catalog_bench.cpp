// Walking the lines of one kind in the largest catalog the device reads (32,767 bytes):
// every package line in order, as the search, the space check and the install do. The
// anchor is the same walk with every lookup scanning from the top of the text, which is
// what the lookup did before it went on from the last line it found.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "packages/catalog.h"
#include "trust/catalog_text.h"

using namespace ota;

namespace {

// A catalog of realistic package lines (about 130 bytes each), or of the shortest
// package lines there are, filled up to the buffer's size.
std::string make_catalog(bool shortest) {
  std::string text = "OTA2\nfassung\t20261122\n";
  for (int i = 0;; i++) {
    std::string line = shortest ? std::string("paket\t\n")
                                : "paket\tpackage-" + std::to_string(i) + "\ttavi-x86_64\t1048576\tpackage-" +
                                      std::to_string(i) + ".tpk\t" + std::string(64, 'a') + "\n";
    if (text.size() + line.size() > kCatalogBytes) break;
    text += line;
  }
  return text;
}

void hold(const std::string& text) {
  memcpy(catalog.text, text.data(), text.size());
  hold_catalog_text(text.size());
}

void walk_packages(benchmark::State& state, bool from_the_top) {
  std::string text = make_catalog(state.range(0) != 0);
  hold(text);
  u64 lines = 0;
  for (auto _ : state) {
    lines = 0;
    for (u64 i = 0;; i++) {
      // Forgetting the last position makes the lookup scan from the top, as it used to.
      if (from_the_top) hold_catalog_text(text.size());
      const char* line = nth_package_line(i);
      if (line == nullptr) break;
      lines++;
    }
    benchmark::DoNotOptimize(lines);
  }
  state.counters["lines"] = static_cast<double>(lines);
}

void BM_CatalogWalk_InOrder(benchmark::State& state) { walk_packages(state, false); }
void BM_CatalogWalk_FromTheTop(benchmark::State& state) { walk_packages(state, true); }

}  // namespace

// Argument 0: realistic package lines; 1: the shortest package lines.
BENCHMARK(BM_CatalogWalk_InOrder)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CatalogWalk_FromTheTop)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
