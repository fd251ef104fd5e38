// Similar-font query latency on a table of 5,000 entries: 1,864 shipped cloud fonts and 3,136
// installed fonts (fake fonts, generated vectors), p50 and p99 over many queries.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>

#include "deepnet/layers/data.h"
#include "deepnet/model_io.h"
#include "similarity/font_similar_cache.h"
#include "tests/support/fake_font_access.h"

namespace {

using namespace fontrix;
namespace fs = std::filesystem;

std::vector<float> RandomUnitHalves(std::mt19937& gen) {
  std::normal_distribution<float> d;
  std::vector<float> v(kFeatureDim);
  for (int half = 0; half < 2; ++half) {
    double s = 0;
    for (int i = 0; i < 384; ++i)
      v[size_t(half * 384 + i)] = std::abs(d(gen)), s += double(v[size_t(half * 384 + i)]) * v[size_t(half * 384 + i)];
    for (int i = 0; i < 384; ++i) v[size_t(half * 384 + i)] = float(v[size_t(half * 384 + i)] / std::sqrt(s));
  }
  return v;
}

void WritePair(const fs::path& meta, const fs::path& feature, size_t n, bool shipped, std::mt19937& gen) {
  std::ofstream m(meta, std::ios::binary), f(feature, std::ios::binary);
  for (size_t i = 0; i < n; ++i) {
    const std::string name = (shipped ? "Cloud" : "Font") + std::to_string(i);
    m << (shipped ? "c" + std::to_string(100000 + i) : "0") << "\n0\n"
      << (shipped ? "1" : "0") << "\n"
      << name << "\nFamily\nRegular\n";
    const auto v = RandomUnitHalves(gen);
    f.write(reinterpret_cast<const char*>(v.data()), std::streamsize(v.size() * sizeof(float)));
  }
}

void BM_SimilarQuery5000(benchmark::State& state) {
  const fs::path dir = fs::temp_directory_path() / "fontrix-similarity-bench";
  fs::remove_all(dir);
  fs::create_directories(dir);
  std::mt19937 gen(5);
  SimilarityPaths paths{(dir / "m.dnm").string(),
                        (dir / "fs.fea").string(),
                        (dir / "fs.meta").string(),
                        (dir / "sys.fea").string(),
                        (dir / "sys.meta").string(),
                        (dir / "log.txt").string(),
                        "",
                        "",
                        ""};
  WritePair(paths.computedMeta, paths.computedFeature, size_t(kShippedFontCount), true, gen);
  WritePair(paths.cachedMeta, paths.cachedFeature, 5000 - size_t(kShippedFontCount), false, gen);
  deepnet::layer_model_list network;  // present so the table loads; queries never run it
  network.push_back(std::make_shared<deepnet::layer_model_data>());
  deepnet::deepnet_save_model(paths.model, network);
  SetSimilarityPaths(paths);
  hostglue::FakeFontAccess fonts;
  std::vector<QVFontHandle> installed;
  for (size_t i = 0; i < 5000 - size_t(kShippedFontCount); ++i)
    installed.push_back(fonts.Add(hostglue::FakeFontAccess::LatinFont("Font" + std::to_string(i))));
  FontSimilarCache::SetFontAccess(&fonts);
  FontSimilarCache::Init();
  auto cache = FontSimilarCache::Instance();
  cache->Update(installed, 1);  // every font matches its cache entry by name

  std::vector<double> micros;
  size_t q = 0;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    auto result = cache->GetSimilarFonts("Font" + std::to_string(q++ % installed.size()));
    micros.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
    benchmark::DoNotOptimize(result.data());
  }
  std::sort(micros.begin(), micros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
  state.counters["entries"] = double(cache->Size());
  FontSimilarCache::Terminate();
  FontSimilarCache::SetFontAccess(nullptr);
  fs::remove_all(dir);
}
BENCHMARK(BM_SimilarQuery5000)->Unit(benchmark::kMicrosecond)->Iterations(2000);

}  // namespace

BENCHMARK_MAIN();
