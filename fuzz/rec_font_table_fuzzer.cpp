// Fuzz target for the recognition font table "NQ_rec_font.bin" (six lines per class of the
// recognition network: identifier, two reserved fields, unique name, family, style) as the
// recognition cache loads it, matches it to the installed fonts, ranks it by the network's
// output and widens the ranking through the similarity cache. Any bytes must end in a table of
// whole entries (or none) and answers that name installed fonts only, never a crash.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "deepnet/layers/data.h"
#include "deepnet/layers/fc.h"
#include "deepnet/layers/softmax.h"
#include "deepnet/model_io.h"
#include "fuzz/fuzz_support.h"
#include "recognition/font_recognition_cache.h"
#include "recognition/line_scoring.h"
#include "similarity/font_similar_cache.h"
#include "tests/support/fake_font_access.h"

namespace {

using namespace fontrix;
using fontrix::fuzz::ScratchPath;

// Names of the seeds' installed fonts: classes of the shipped table, and a few of the seeds' own.
const char* const kInstalled[] = {"Cabin-Bold",     "Cabin-Italic", "DejaVuSans", "DejaVuSerif-Bold",
                                  "LiberationMono", "F0",           "F1",         ""};
constexpr uint32_t kClasses = 6;

// data -> fully connected to kClasses -> "prob", on 109 x 109 crops.
deepnet::layer_model_list RecognitionNetwork() {
  using namespace deepnet;
  auto data = std::make_shared<layer_model_data>();
  data->name = "data";
  auto fc = std::make_shared<layer_model_fc>();
  fc->name = "fc";
  fc->inputs.push_back(data.get());
  fc->input_sizes = {uint32_t(kLineHeight * kLineHeight)};
  fc->num_output = kClasses;
  fc->weights.resize(size_t(kLineHeight) * kLineHeight * kClasses);
  for (size_t i = 0; i < fc->weights.size(); ++i) fc->weights[i] = float(int(i % 7) - 3) * 1e-4f;
  fc->biases.assign(kClasses, 0.0f);
  auto prob = std::make_shared<layer_model_softmax>();
  prob->name = "prob";
  prob->inputs.push_back(fc.get());
  return {data, fc, prob};
}

struct World {
  hostglue::FakeFontAccess fonts;
  std::vector<QVFontHandle> installed;
  std::vector<std::string> names;  // of the installed fonts, in order: what font indices index
  RecognitionPaths paths;
  uint32_t generation = 0;

  World() {
    for (const char* name : kInstalled) {
      installed.push_back(fonts.Add(hostglue::FakeFontAccess::LatinFont(name)));
      names.push_back(name);
    }
    FontSimilarCache::SetFontAccess(&fonts);
    FontRecognitionCache::SetFontAccess(&fonts);
    paths.model = ScratchPath("NQ_rec_model.dnm");
    paths.fontTable = ScratchPath("NQ_rec_font.bin");
    deepnet::deepnet_save_model(paths.model, RecognitionNetwork());

    // Similarity: no shipped pair, a cache pair with a vector for every installed font, so a
    // widened ranking reaches all of them and nothing is computed.
    SimilarityPaths sim;
    sim.model = paths.model;
    sim.cachedMeta = ScratchPath("NQ_sim_meta_sys.cch");
    sim.cachedFeature = ScratchPath("NQ_sim_fea_sys.cch");
    std::string meta;
    std::vector<float> features(names.size() * kFeatureDim, 0.0f);
    for (size_t i = 0; i < names.size(); ++i) {
      meta += "0\n0\n0\n" + names[i] + "\nFamily\nRegular\n";
      features[i * kFeatureDim + i] = 1.0f;
      features[i * kFeatureDim + kFeatureDim / 2 + i] = 1.0f;
    }
    fuzz::WriteFile(sim.cachedMeta, meta);
    fuzz::WriteFile(sim.cachedFeature,
                    std::string_view(reinterpret_cast<const char*>(features.data()), features.size() * sizeof(float)));
    auto similar = FontSimilarCache::GetOrCreate();
    FUZZ_CHECK(similar->Load(sim) == kLoadOk);
    similar->Update(installed, 1);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World world;
  fuzz::WriteFile(world.paths.fontTable, std::string_view(reinterpret_cast<const char*>(data), size));

  FontRecognitionCache::Terminate();
  auto cache = FontRecognitionCache::GetOrCreate();
  const bool loaded = cache->Load(world.paths);
  cache->Update(world.installed, ++world.generation);
  const size_t entries = cache->TableSize();
  FUZZ_CHECK(loaded == (entries > 0));

  // Rankings by table index keep every entry the output covers; by installed font, only those
  // still offered. Either way best first, and a font index names an installed font.
  std::vector<float> probabilities(entries + 2);
  for (size_t i = 0; i < probabilities.size(); ++i) probabilities[i] = 1.0f / float(1 + (i * 7919) % 101);
  for (const bool byTable : {true, false}) {
    const auto ranked = cache->RankClasses(probabilities, byTable);
    if (byTable) FUZZ_CHECK(ranked.size() == entries);
    FUZZ_CHECK(ranked.size() <= entries);
    for (size_t k = 0; k < ranked.size(); ++k) {
      const auto& c = ranked[k];
      if (k) FUZZ_CHECK(ranked[k - 1].score >= c.score);
      FUZZ_CHECK(c.fontIndex >= -1 && c.fontIndex < int32_t(world.names.size()));
      FUZZ_CHECK(byTable ? c.tableIndex >= 0 && size_t(c.tableIndex) < entries : c.tableIndex == -1);
    }
    for (const auto& c : FontRecognitionCache::Widen(ranked))
      FUZZ_CHECK(c.fontIndex >= -1 && c.fontIndex < int32_t(world.names.size()));
  }

  // A line through the network: its classes are the table's first entries.
  std::vector<uint8_t> pixels(size_t(160) * 40, 255);
  for (size_t i = 0; i < pixels.size(); ++i)
    if ((i / 160) % 12 < 6 && (i % 160) % 9 < 4) pixels[i] = 0;
  const auto results = cache->GetRecognizedFontList(pixels.data(), 160, 40);
  FUZZ_CHECK(results.size() <= FontRecognitionCache::kMaxResults);
  for (const auto& r : results) {
    FUZZ_CHECK(r.fontIndex >= 0 && size_t(r.fontIndex) < world.names.size());
    FUZZ_CHECK(r.name == world.names[size_t(r.fontIndex)]);
  }
  return 0;
}
