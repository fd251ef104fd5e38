// Speed of the reference host: listing the installed faces through its fontconfig source, and
// drawing one 200-pixel specimen through its font engine as the module would.
//
// The fonts are a fontconfig configuration of this benchmark's own: symbolic links to the
// machine's static (non-variable) font files under /usr/share/fonts, repeated in further
// folders until there are exactly kFaces faces, with a fontconfig cache written before timing
// (a warm cache, as on a machine whose font cache is current).
#include <benchmark/benchmark.h>
#include <fontconfig/fontconfig.h>
#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_MULTIPLE_MASTERS_H
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/host.h"
#include "host/specimen.h"
#include "sdk/qv_font_suites.h"

namespace {

namespace fs = std::filesystem;
using fontrix::host::Host;

constexpr int kFaces = 300;

// Faces of a font file fontconfig lists one by one; 0 for a variable font (fontconfig lists its
// instances in ways of its own) or a file FreeType cannot open.
int StaticFaces(FT_Library library, const fs::path& file) {
  FT_Face face = nullptr;
  if (FT_New_Face(library, file.c_str(), -1, &face) != 0) return 0;
  const int faces = face->num_faces;
  FT_Done_Face(face);
  for (int i = 0; i < faces; ++i) {
    if (FT_New_Face(library, file.c_str(), i, &face) != 0) return 0;
    const bool variable = FT_HAS_MULTIPLE_MASTERS(face);
    FT_Done_Face(face);
    if (variable) return 0;
  }
  return faces;
}

class Fonts {
 public:
  Fonts() {
    char pattern[] = "/tmp/fontrix-host-bench-XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("cannot make a temporary folder");
    root_ = pattern;
    std::vector<std::pair<fs::path, int>> files;  // font file, faces
    FT_Library library = nullptr;
    FT_Init_FreeType(&library);
    for (const auto& entry : fs::recursive_directory_iterator("/usr/share/fonts")) {
      const std::string ext = entry.path().extension().string();
      if (!entry.is_regular_file() ||
          (ext != ".ttf" && ext != ".otf" && ext != ".ttc" && ext != ".t1" && ext != ".otb"))
        continue;
      if (const int faces = StaticFaces(library, entry.path())) files.emplace_back(entry.path(), faces);
    }
    FT_Done_FreeType(library);
    if (files.empty()) throw std::runtime_error("no fonts under /usr/share/fonts");

    // Copies of the files, folder after folder, skipping any that would overshoot kFaces.
    int faces = 0;
    for (int copy = 0; faces < kFaces; ++copy) {
      const fs::path dir = root_ / "fonts" / std::to_string(copy);
      fs::create_directories(dir);
      int added = 0;
      for (size_t i = 0; i < files.size() && faces < kFaces; ++i) {
        if (faces + files[i].second > kFaces) continue;
        fs::create_symlink(files[i].first, dir / (std::to_string(i) + "-" + files[i].first.filename().string()));
        faces += files[i].second;
        ++added;
      }
      if (added == 0) break;
    }
    faces_ = faces;

    const std::string conf = "<?xml version=\"1.0\"?><fontconfig><dir>" + (root_ / "fonts").string() +
                             "</dir><cachedir>" + (root_ / "cache").string() + "</cachedir></fontconfig>";
    FcConfig* config = FcConfigCreate();
    if (!FcConfigParseAndLoadFromMemory(config, reinterpret_cast<const FcChar8*>(conf.c_str()), FcTrue) ||
        !FcConfigBuildFonts(config) || !FcConfigSetCurrent(config))
      throw std::runtime_error("fontconfig could not load the benchmark's configuration");
    FcConfigDestroy(config);  // the current configuration holds its own reference

    fontrix::host::HostOptions options;
    options.data_dir = (root_ / "data").string();
    options.cache_dir = (root_ / "module-cache").string();
    host_ = std::make_unique<Host>(options);
  }
  ~Fonts() {
    host_.reset();
    std::error_code ec;
    fs::remove_all(root_, ec);
  }

  int faces() const { return faces_; }
  Host& host() { return *host_; }

 private:
  fs::path root_;
  int faces_ = 0;
  std::unique_ptr<Host> host_;
};

Fonts& TheFonts() {
  static Fonts fonts;
  return fonts;
}

// A new source each time: FreeType opens every face, as at the host's start.
void BM_ListFaces(benchmark::State& state) {
  Fonts& fonts = TheFonts();
  size_t listed = 0;
  for (auto _ : state) listed = fontrix::host::MakeFontconfigSource()->List().size();
  if (int(listed) != fonts.faces()) state.SkipWithError("the source did not list every face");
  state.counters["faces"] = double(listed);
}
BENCHMARK(BM_ListFaces)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same source again: only new or changed files are opened (font list changes).
void BM_ListFacesAgain(benchmark::State& state) {
  TheFonts();
  auto source = fontrix::host::MakeFontconfigSource();
  source->List();
  size_t listed = 0;
  for (auto _ : state) listed = source->List().size();
  state.counters["faces"] = double(listed);
}
BENCHMARK(BM_ListFacesAgain)->Unit(benchmark::kMillisecond)->UseRealTime();

// MeasureText, NewRasterPort over the ink box, DrawText, the pixels copied out.
void BM_Specimen(benchmark::State& state) {
  Host& host = TheFonts().host();
  auto* suite = static_cast<const QVFontSuite*>(host.AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
  auto* glue = static_cast<const QVFontGlueSuite*>(host.AcquireSuite(kQVFontGlueSuite, kQVFontGlueSuiteVersion));
  QVFontHandle font = nullptr;
  if (suite->FindFontByName("DejaVuSans", &font) != kQVNoErr) {
    state.SkipWithError("DejaVuSans is not installed");
    return;
  }
  fontrix::host::Specimen specimen;
  for (auto _ : state) {
    specimen = fontrix::host::DrawSpecimen(*glue, font, "abcdefghijklmnopqrstuvwxyz", 200);
    benchmark::DoNotOptimize(specimen.pixels.data());
  }
  state.counters["pixels"] = benchmark::Counter(double(specimen.pixels.size()), benchmark::Counter::kAvgThreads);
  host.ReleaseSuite(kQVFontSuite, kQVFontSuiteVersion);
  host.ReleaseSuite(kQVFontGlueSuite, kQVFontGlueSuiteVersion);
}
BENCHMARK(BM_Specimen)->Unit(benchmark::kMillisecond)->Threads(1)->Threads(2);

// One glyph outline, as the module's measurements ask for many: a face borrowed from the
// engine's cache (shared by the threads), an unscaled load, the path through a sink.
void BM_GlyphOutline(benchmark::State& state) {
  Host& host = TheFonts().host();
  auto* suite = static_cast<const QVFontSuite*>(host.AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
  auto* glue = static_cast<const QVFontGlueSuite*>(host.AcquireSuite(kQVFontGlueSuite, kQVFontGlueSuiteVersion));
  QVFontHandle font = nullptr;
  void *engine = nullptr, *by_code = nullptr, *outline = nullptr;
  if (suite->FindFontByName("DejaVuSans", &font) != kQVNoErr || glue->GetEngineInterface(&engine) != kQVNoErr ||
      glue->GetEngineProcedure(engine, kQVProcGetGlyphByCode, &by_code) != kQVNoErr ||
      glue->GetEngineProcedure(engine, kQVProcGetGlyphOutline, &outline) != kQVNoErr) {
    state.SkipWithError("DejaVuSans or the engine is missing");
    return;
  }
  uint32_t glyph = 0;
  reinterpret_cast<QVGetGlyphByCodeProc>(by_code)(font, 'g', &glyph);
  size_t segments = 0;
  QVPathSink sink{&segments, [](void* c, double, double) { ++*static_cast<size_t*>(c); },
                  [](void* c, double, double) { ++*static_cast<size_t*>(c); },
                  [](void* c, double, double, double, double, double, double) { ++*static_cast<size_t*>(c); },
                  [](void*) {}};
  const double matrix[4] = {1000, 0, 0, 1000};
  for (auto _ : state) reinterpret_cast<QVGetGlyphOutlineProc>(outline)(font, glyph, matrix, &sink);
  state.counters["segments"] = double(segments) / double(state.iterations());  // per call
  host.ReleaseSuite(kQVFontSuite, kQVFontSuiteVersion);
  host.ReleaseSuite(kQVFontGlueSuite, kQVFontGlueSuiteVersion);
}
BENCHMARK(BM_GlyphOutline)->Unit(benchmark::kMicrosecond)->Threads(1)->Threads(2);

}  // namespace

BENCHMARK_MAIN();
