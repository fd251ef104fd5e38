// Recognition of one 109-pixel-high line of 1,000 pixels, in process: scoring (ten crops at two
// scales through the recognition network) and widening through a similarity table of 1,964
// entries. The network is FONTRIX_BENCH_REC_MODEL when set (a trained model), else the small
// stand-in the tests use; FONTRIX_BENCH_LOC_MODEL adds a localisation network, run first over
// the whole line as the module does.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>

#include "deepnet/layers/fc.h"
#include "deepnet/model_io.h"
#include "deepnet/parallel.h"
#include "recognition/font_recognition_cache.h"
#include "similarity/font_similar_cache.h"
#include "tests/recognition/recognition_fixtures.h"
#include "tests/support/fake_font_access.h"

namespace {

using namespace fontrix;
namespace fs = std::filesystem;

void BM_RecognizeLine1000(benchmark::State& state) {
  deepnet::deepnet_set_num_threads(int(state.range(0)));
  const fs::path dir = fs::temp_directory_path() / "fontrix-recognition-bench";
  fs::remove_all(dir);
  fs::create_directories(dir);
  auto p = [&](const char* name) { return (dir / name).string(); };
  SimilarityPaths sim{p("sim.dnm"), p("fs.fea"), p("fs.meta"), p("sys.fea"), p("sys.meta"), p("log"), "", "", ""};
  SetSimilarityPaths(sim);
  deepnet::deepnet_save_model(sim.model, testing::MakeTestNetwork());
  testing::WritePair(
      sim.computedMeta, sim.computedFeature, 1864, [](size_t i) { return "c" + std::to_string(100000 + i); },
      [](size_t i) { return "Cloud" + std::to_string(i); }, [](size_t i) { return testing::AxisVector(i); });
  testing::WritePair(
      sim.cachedMeta, sim.cachedFeature, 100, [](size_t) { return std::string("0"); },
      [](size_t i) { return "F" + std::to_string(i); }, [](size_t i) { return testing::AxisVector(i, 0.5f); }, "0");
  hostglue::FakeFontAccess fonts;
  std::vector<QVFontHandle> installed;
  for (int i = 0; i < 100; ++i)
    installed.push_back(fonts.Add(hostglue::FakeFontAccess::LatinFont("F" + std::to_string(i))));
  FontSimilarCache::SetFontAccess(&fonts);
  FontRecognitionCache::SetFontAccess(&fonts);
  FontSimilarCache::Init();
  FontSimilarCache::Instance()->Update(installed, 1);

  std::string model = std::getenv("FONTRIX_BENCH_REC_MODEL") ? std::getenv("FONTRIX_BENCH_REC_MODEL") : "";
  // The font table names one font per class of the network: as many as its last product gives
  // (a table of another length is refused and every query would answer nothing).
  uint32_t classes = 100;
  if (!model.empty()) {
    deepnet::layer_model_list layers;
    deepnet::deepnet_load_model(model, layers);
    for (const auto& layer : layers)
      if (layer->type == deepnet::layer_type_fc)
        classes = static_cast<const deepnet::layer_model_fc&>(*layer).num_output;
  }
  if (model.empty()) {
    model = p("rec.dnm");
    deepnet::deepnet_save_model(model, testing::RecognitionNetwork(classes));
  }
  testing::WritePair(
      p("rec.meta"), p("rec.unused"), classes, [](size_t) { return std::string("0"); },
      [](size_t i) { return "F" + std::to_string(i); }, [](size_t) { return std::vector<float>(); }, "1");
  auto cache = FontRecognitionCache::GetOrCreate();
  const char* localisation = std::getenv("FONTRIX_BENCH_LOC_MODEL");
  cache->Load({model, p("rec.meta"), localisation ? localisation : "", "", "", "", ""});
  cache->Update(installed, 1);

  std::vector<uint8_t> line(109 * 1000, 255);
  for (int y = 30; y < 80; ++y)
    for (int x = 0; x < 1000; x += 7) line[size_t(y) * 1000 + size_t(x)] = 0;
  for (auto _ : state) benchmark::DoNotOptimize(cache->GetRecognizedFontList(line.data(), 1000, 109));

  FontRecognitionCache::Terminate();
  FontSimilarCache::Terminate();
  FontSimilarCache::SetFontAccess(nullptr);
  FontRecognitionCache::SetFontAccess(nullptr);
  deepnet::deepnet_set_num_threads(1);
  fs::remove_all(dir);
}
BENCHMARK(BM_RecognizeLine1000)->ArgNames({"threads"})->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
