// Classification speed through the reference host's font engine, as the module computes it: the
// 96 features of one font (DejaVu Sans), and features plus class mask of every installed font
// (one thread, as the classification update runs).
#include <benchmark/benchmark.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "classification/attribute_scoring.h"
#include "classification/font_features.h"
#include "host/host.h"
#include "hostglue/font_access.h"
#include "plugin/dispatch.h"
#include "sdk/qv_font_suites.h"

namespace {

using fontrix::host::Host;

// One host with the module's engine procedures bound, for the whole run.
Host& StartedHost() {
  static Host* host = [] {
    auto* h = new Host({});
    h->UseModuleEntry(FontrixPluginMain);
    if (h->Startup() != kQVNoErr) throw std::runtime_error("the module could not bind the font engine");
    return h;
  }();
  return *host;
}

QVFontHandle Find(const std::string& name) {
  const auto* fonts = static_cast<const QVFontSuite*>(StartedHost().AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
  QVFontHandle font = nullptr;
  if (fonts->FindFontByName(name.c_str(), &font) != kQVNoErr) throw std::runtime_error(name + " is not installed");
  return font;
}

void BM_FeaturesOfOneFont(benchmark::State& state) {
  const QVFontHandle font = Find("DejaVuSans");
  fontrix::FeatureVector features{};
  for (auto _ : state) {
    if (!fontrix::ComputeFontFeatures(fontrix::hostglue::HostFontAccess(), font, features))
      state.SkipWithError("DejaVu Sans could not be measured");
    benchmark::DoNotOptimize(features.data());
  }
}
BENCHMARK(BM_FeaturesOfOneFont)->Unit(benchmark::kMillisecond);

// The glyph calls the features make, through the module's binding of the engine: a glyph
// looked up by code and its advance, box and outline, from one or two threads.
void BM_GlyphCallsThroughTheGlue(benchmark::State& state) {
  const QVFontHandle font = Find("DejaVuSans");
  fontrix::hostglue::FontAccess& access = fontrix::hostglue::HostFontAccess();
  const double matrix[4] = {1000, 0, 0, 1000};
  for (auto _ : state) {
    uint32_t glyph = 0;
    double advance = 0;
    QVGlyphBox box{};
    fontrix::hostglue::GlyphPath path;
    if (!access.GlyphByCode(font, 'g', glyph) || !access.AdvanceWidth(font, glyph, advance) ||
        !access.GlyphBox(font, glyph, box) || !access.Outline(font, glyph, matrix, path))
      state.SkipWithError("DejaVu Sans could not be read");
    benchmark::DoNotOptimize(path.segments.data());
  }
}
BENCHMARK(BM_GlyphCallsThroughTheGlue)->Unit(benchmark::kMicrosecond)->Threads(1)->Threads(2);

void BM_ClassifyAllInstalled(benchmark::State& state) {
  std::vector<QVFontHandle> fonts;
  for (const auto& f : StartedHost().Fonts())
    if (!f.bitmap_only) fonts.push_back(Find(f.unique_name));
  fontrix::FeatureVector features{};
  size_t measured = 0;
  for (auto _ : state) {
    measured = 0;
    for (QVFontHandle font : fonts) {
      if (fontrix::ComputeFontFeatures(fontrix::hostglue::HostFontAccess(), font, features)) ++measured;
      benchmark::DoNotOptimize(fontrix::ClassMask(features));
    }
  }
  state.counters["fonts"] = double(fonts.size());
  state.counters["measured"] = double(measured);
  // fonts per second of CPU time; its inverse is the time per font
  state.counters["fonts_per_s"] =
      benchmark::Counter(double(fonts.size()), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_ClassifyAllInstalled)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
