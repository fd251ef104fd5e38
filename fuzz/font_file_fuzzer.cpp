// Fuzz target for font files: any bytes as a font file, read as the host lists a face (FreeType
// through the host's pread stream: names, qualification, outline print), then every face the
// host would list put to its font engine through the module's glue, as the services use it:
// metrics, style, glyph lookup, boxes, advances, outlines and glyph bitmaps under several
// matrices, the 96 classification features, the similarity specimens with their crops, and a
// specimen drawn as the tool draws one. Any input must end in answers or refusals, never a
// crash, a sanitizer report, or values that are not numbers where the engine promises them.
//
// One host per process (memory font source, services off, the module linked in); each input is
// a file of its own name, so no face the host keeps open from an earlier input is lent for it.
#include <ft2build.h>
#include FT_FREETYPE_H

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "classification/font_features.h"
#include "fuzz/fuzz_support.h"
#include "host/font_file.h"
#include "host/fontconfig_source.h"
#include "host/host.h"
#include "host/specimen.h"
#include "hostglue/font_access.h"
#include "plugin/dispatch.h"
#include "sdk/qv_font_suites.h"
#include "similarity/specimen.h"

namespace {

using namespace fontrix;
using fontrix::fuzz::ScratchPath;

// Ems to outline units, slanted, mirrored and shrunk, and a matrix of large values.
constexpr double kMatrices[][4] = {{1000, 0, 0, 1000}, {100, 0, 21, 100}, {-40, 3, 0, -40}, {1e6, 0, 0, 1e6}};

bool Finite(std::initializer_list<double> values) {
  for (double v : values)
    if (!std::isfinite(v)) return false;
  return true;
}

// The faces the host would list from this file: the first, the second of a collection, and for
// a font with named instances the first instance and the whole font's pattern.
std::vector<std::pair<int, bool>> FacesToRead(FT_Library library, const std::string& path) {
  host::FontFile file(path);
  FT_Face face = file.Open(library, 0);
  if (!face) return {};
  std::vector<std::pair<int, bool>> faces{{0, false}};
  if (face->num_faces > 1) faces.push_back({1, false});
  if ((face->style_flags >> 16) > 0) {
    faces.push_back({1 << 16, false});
    faces.push_back({0, true});
  }
  FT_Done_Face(face);
  return faces;
}

void UseFont(const QVFontGlueSuite& glue, QVFontHandle font) {
  hostglue::FontAccess& access = hostglue::HostFontAccess();
  hostglue::FontNames names;
  FUZZ_CHECK(access.Names(font, names) && !names.uniqueName.empty());
  access.IsUsable(font);
  QVFontMetrics metrics{};
  if (access.Metrics(font, metrics))
    FUZZ_CHECK(Finite({metrics.ascent, metrics.descent, metrics.italicAngle, metrics.xHeight, metrics.stemV}));
  double position = 0, thickness = 0;
  if (access.Underline(font, position, thickness)) FUZZ_CHECK(Finite({position, thickness}));
  QVFontStyle style{};
  access.Style(font, style);

  std::vector<uint32_t> glyphs{0, 1, 2, 0xFFFF, 0x10000, 0xFFFFFFFF};
  for (uint32_t code : {uint32_t('a'), uint32_t('H'), uint32_t('1'), 0x20u, 0xE9u, 0x1F600u, 0x110000u}) {
    uint32_t glyph = 0;
    if (access.GlyphByCode(font, code, glyph)) glyphs.push_back(glyph);
  }
  for (const char* name : {"one", "a", "uni0041", "u1F600", "uniD800", ".notdef", ""}) {
    uint32_t glyph = 0;
    if (access.GlyphByName(font, name, glyph)) glyphs.push_back(glyph);
  }
  for (uint32_t glyph : glyphs) {
    QVGlyphBox box{};
    if (access.GlyphBox(font, glyph, box)) FUZZ_CHECK(Finite({box.left, box.bottom, box.right, box.top}));
    double advance = 0;
    if (access.AdvanceWidth(font, glyph, advance)) FUZZ_CHECK(Finite({advance}));
    for (const auto& matrix : kMatrices) {
      hostglue::GlyphPath path;
      if (access.Outline(font, glyph, matrix, path)) {
        if (!path.segments.empty()) FUZZ_CHECK(path.segments.front().kind == hostglue::GlyphPath::kMove);
        for (const auto& s : path.segments) FUZZ_CHECK(Finite({s.x[0], s.x[1], s.x[2], s.y[0], s.y[1], s.y[2]}));
      }
      hostglue::GlyphBitmap bitmap;
      if (access.Bitmap(font, glyph, matrix, bitmap))
        FUZZ_CHECK(bitmap.bits.size() == size_t(bitmap.stride) * size_t(bitmap.height));
    }
  }

  std::array<double, kFeatureCount> features{};
  ComputeFontFeatures(access, font, features);

  Specimens specimens;
  if (RenderSpecimens(access, font, specimens) == kRenderOk) {
    for (const Specimen* s : {&specimens.lower, &specimens.upper}) {
      FUZZ_CHECK(s->height >= kCropSide && s->pixels.size() == size_t(s->width) * size_t(s->height));
      FUZZ_CHECK(SpecimenCrops(*s).size() == size_t(kCropsPerSpecimen) * kCropSide * kCropSide);
    }
  }
  try {
    const host::Specimen line = host::DrawSpecimen(glue, font, "Handgloves 0123", 48);
    FUZZ_CHECK(line.pixels.size() == size_t(line.width) * size_t(line.height));
  } catch (const std::runtime_error&) {
  }
}

struct World {
  FT_Library library = nullptr;
  std::shared_ptr<host::MemoryFontSource> source = std::make_shared<host::MemoryFontSource>();
  std::unique_ptr<host::Host> host;
  const QVFontSuite* fonts = nullptr;
  const QVFontGlueSuite* glue = nullptr;
  uint64_t inputs = 0;

  World() {
    FUZZ_CHECK(FT_Init_FreeType(&library) == 0);
    host::HostOptions options;
    options.fonts = source;
    options.data_dir = ScratchPath("data");
    options.cache_dir = ScratchPath("cache");
    options.switches = {
        {host::kSwitchClassification, false}, {host::kSwitchSimilarity, false}, {host::kSwitchRecognition, false}};
    host = std::make_unique<host::Host>(options);
    host->UseModuleEntry(FontrixPluginMain);  // start-up binds the engine procedures, as in the module
    FUZZ_CHECK(host->Startup() == kQVNoErr);
    fonts = static_cast<const QVFontSuite*>(host->AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
    glue = static_cast<const QVFontGlueSuite*>(host->AcquireSuite(kQVFontGlueSuite, kQVFontGlueSuiteVersion));
    FUZZ_CHECK(fonts && glue);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World& world = *new World;  // never torn down: the host keeps what the module leaves it
  const std::string path = ScratchPath("font-" + std::to_string(world.inputs++) + ".bin");
  fuzz::WriteFile(path, std::string_view(reinterpret_cast<const char*>(data), size));

  world.source->fonts.clear();
  for (const auto& [index, variable] : FacesToRead(world.library, path)) {
    auto font = host::ReadFace(world.library, path, index, variable);
    if (!font) continue;
    FUZZ_CHECK(!font->unique_name.empty() && font->file == path && font->face_index == index);
    world.source->fonts.push_back(std::move(*font));
  }
  if (!world.source->fonts.empty()) {
    FUZZ_CHECK(world.host->FontListChanged() == kQVNoErr);
    int32_t count = 0;
    FUZZ_CHECK(world.fonts->CountFonts(&count) == kQVNoErr && size_t(count) == world.source->fonts.size());
    for (int32_t i = 0; i < count; ++i) {
      QVFontHandle font = nullptr;
      FUZZ_CHECK(world.fonts->IndexFontList(i, &font) == kQVNoErr);
      UseFont(*world.glue, font);
    }
  }
  std::remove(path.c_str());
  return 0;
}
