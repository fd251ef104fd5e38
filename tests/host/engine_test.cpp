// The host's font engine on the machine's real fonts (scripts/setup.sh installs them), bound
// by name through the font glue suite as the module binds it.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <thread>

#include "host/host.h"
#include "host/image.h"
#include "host_test_support.h"
#include "sdk/qv_font_engine.h"
#include "sdk/qv_font_suites.h"

// Beside QVIntRect in the global namespace, where argument-dependent lookup finds them.
static bool operator==(const QVIntRect& a, const QVIntRect& b) {
  return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}
static std::ostream& operator<<(std::ostream& os, const QVIntRect& r) {
  return os << "(" << r.left << ", " << r.top << ")-(" << r.right << ", " << r.bottom << ")";
}

namespace fontrix::host::testing {
namespace {

const char* const kProcedureNames[] = {kQVProcIsFontUsable,      kQVProcGetFontMetrics,     kQVProcGetUnderline,
                                       kQVProcGetFontStyle,      kQVProcGetGlyphByCode,     kQVProcGetGlyphByName,
                                       kQVProcGetGlyphBox,       kQVProcGetAdvanceWidth,    kQVProcGetGlyphOutline,
                                       kQVProcRenderGlyphBitmap, kQVProcReleaseGlyphBitmap, kQVProcMeasureText,
                                       kQVProcNewRasterPort,     kQVProcDrawText,           kQVProcGetRasterPortPixels,
                                       kQVProcDisposeRasterPort, kQVProcGetRasterPixels};

/// The engine's procedures bound from a glue suite, in the order of kProcedureNames.
struct Engine {
  QVIsFontUsableProc IsFontUsable;
  QVGetFontMetricsProc GetFontMetrics;
  QVGetUnderlineProc GetUnderline;
  QVGetFontStyleProc GetFontStyle;
  QVGetGlyphByCodeProc GetGlyphByCode;
  QVGetGlyphByNameProc GetGlyphByName;
  QVGetGlyphBoxProc GetGlyphBox;
  QVGetAdvanceWidthProc GetAdvanceWidth;
  QVGetGlyphOutlineProc GetGlyphOutline;
  QVRenderGlyphBitmapProc RenderGlyphBitmap;
  QVReleaseGlyphBitmapProc ReleaseGlyphBitmap;
  QVMeasureTextProc MeasureText;
  QVNewRasterPortProc NewRasterPort;
  QVDrawTextProc DrawText;
  QVGetRasterPortPixelsProc GetRasterPortPixels;
  QVDisposeRasterPortProc DisposeRasterPort;
  QVGetRasterPixelsProc GetRasterPixels;

  explicit Engine(const QVFontGlueSuite& glue) {
    void* engine = nullptr;
    void* slots[std::size(kProcedureNames)] = {};
    EXPECT_EQ(glue.GetEngineInterface(&engine), kQVNoErr);
    for (size_t i = 0; i < std::size(kProcedureNames); ++i)
      EXPECT_EQ(glue.GetEngineProcedure(engine, kProcedureNames[i], &slots[i]), kQVNoErr) << kProcedureNames[i];
    static_assert(sizeof(Engine) == sizeof slots);
    std::memcpy(static_cast<void*>(this), slots, sizeof slots);
  }
};

/// A glyph path: its operations as letters (M, L, C, Z) and every point, controls included.
struct Path {
  std::string ops;
  std::vector<std::array<double, 2>> points;

  QVPathSink Sink() {
    return {this,
            [](void* c, double x, double y) {
              static_cast<Path*>(c)->Add("M", {x, y});
            },
            [](void* c, double x, double y) {
              static_cast<Path*>(c)->Add("L", {x, y});
            },
            [](void* c, double x1, double y1, double x2, double y2, double x3, double y3) {
              static_cast<Path*>(c)->Add("C", {x1, y1, x2, y2, x3, y3});
            },
            [](void* c) { static_cast<Path*>(c)->ops += 'Z'; }};
  }
  void Add(const char* op, std::initializer_list<double> xy) {
    ops += op;
    for (auto p = xy.begin(); p != xy.end(); p += 2) points.push_back({p[0], p[1]});
  }
  /// Each cubic as its start, two controls and end.
  std::vector<std::array<std::array<double, 2>, 4>> Cubics() const {
    std::vector<std::array<std::array<double, 2>, 4>> cubics;
    for (size_t i = 0, p = 0; i < ops.size(); ++i) {
      if (ops[i] == 'C') cubics.push_back({points[p - 1], points[p], points[p + 1], points[p + 2]});
      p += ops[i] == 'C' ? 3 : ops[i] == 'Z' ? 0 : 1;
    }
    return cubics;
  }
  /// The box of the curve itself: on-curve points and the cubics, finely sampled.
  QVGlyphBox InkBox() const {
    QVGlyphBox box{1e9, 1e9, -1e9, -1e9};
    auto add = [&](double x, double y) {
      box = {std::min(box.left, x), std::min(box.bottom, y), std::max(box.right, x), std::max(box.top, y)};
    };
    for (size_t i = 0, p = 0; i < ops.size(); ++i) {
      p += ops[i] == 'C' ? 3 : ops[i] == 'Z' ? 0 : 1;
      if (ops[i] != 'Z') add(points[p - 1][0], points[p - 1][1]);
    }
    for (const auto& c : Cubics()) {
      for (double t = 0; t <= 1; t += 1e-3) {
        const double u = 1 - t, w[4] = {u * u * u, 3 * u * u * t, 3 * u * t * t, t * t * t};
        add(w[0] * c[0][0] + w[1] * c[1][0] + w[2] * c[2][0] + w[3] * c[3][0],
            w[0] * c[0][1] + w[1] * c[1][1] + w[2] * c[2][1] + w[3] * c[3][1]);
      }
    }
    return box;
  }
};

/// A raster port's pixels, read in port coordinates (white outside the port).
struct Grey {
  QVIntRect bounds{};
  std::vector<uint8_t> pixels;
  uint8_t At(int32_t x, int32_t y) const {
    if (x < bounds.left || y < bounds.top || x >= bounds.right || y >= bounds.bottom) return 255;
    return pixels[size_t(y - bounds.top) * size_t(bounds.right - bounds.left) + size_t(x - bounds.left)];
  }
  QVIntRect InkBox() const {  // of the non-white pixels; all zero when there are none
    QVIntRect box{INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN};
    for (int32_t y = bounds.top; y < bounds.bottom; ++y)
      for (int32_t x = bounds.left; x < bounds.right; ++x)
        if (At(x, y) != 255)
          box = {std::min(box.left, x), std::min(box.top, y), std::max(box.right, x + 1), std::max(box.bottom, y + 1)};
    return box.left == INT32_MAX ? QVIntRect{0, 0, 0, 0} : box;
  }
};

/// What a procedure of the form proc(font, [arguments...,] &out) puts out.
template <typename Out, typename Proc, typename... Args>
Out Get(Proc proc, QVFontHandle font, Args... args) {
  Out out{};
  EXPECT_EQ(proc(font, args..., &out), kQVNoErr);
  return out;
}

class EngineTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char pattern[] = "/tmp/fontrix-engine-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    tmp_ = pattern;
    HostOptions options;  // the machine's fonts through fontconfig
    options.data_dir = tmp_ + "/data";
    options.cache_dir = tmp_ + "/cache";
    host_ = new Host(options);
    fonts_ = static_cast<const QVFontSuite*>(host_->AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
    glue_ = static_cast<const QVFontGlueSuite*>(host_->AcquireSuite(kQVFontGlueSuite, kQVFontGlueSuiteVersion));
    e_ = new Engine(*glue_);
  }
  static void TearDownTestSuite() {
    delete e_;
    delete host_;
    std::filesystem::remove_all(tmp_);
  }

  /// The first face named `name` whose file ends in `file_end`.
  static QVFontHandle Font(const std::string& name, const std::string& file_end = "") {
    const auto& fonts = host_->Fonts();
    for (size_t i = 0; i < fonts.size(); ++i) {
      const std::string& file = fonts[i].file;
      if (fonts[i].unique_name != name || file.size() < file_end.size() ||
          file.compare(file.size() - file_end.size(), file_end.size(), file_end) != 0)
        continue;
      QVFontHandle font = nullptr;
      EXPECT_EQ(fonts_->IndexFontList(int32_t(i), &font), kQVNoErr);
      return font;
    }
    ADD_FAILURE() << name << " (" << file_end << ") is not installed; run scripts/setup.sh";
    return nullptr;
  }
  static uint32_t Glyph(QVFontHandle font, uint32_t code) {
    uint32_t glyph = 0;
    EXPECT_EQ(e_->GetGlyphByCode(font, code, &glyph), kQVNoErr) << code;
    return glyph;
  }
  static Path Outline(QVFontHandle font, uint32_t glyph, std::array<double, 4> matrix = {1000, 0, 0, 1000}) {
    Path path;
    QVPathSink sink = path.Sink();
    EXPECT_EQ(e_->GetGlyphOutline(font, glyph, matrix.data(), &sink), kQVNoErr);
    return path;
  }
  static QVIntRect Measure(QVFontHandle font, const char* text, double size) {
    return Get<QVIntRect>(e_->MeasureText, font, text, size);
  }
  static Grey Draw(QVFontHandle font, const char* text, double size, const QVIntRect& bounds) {
    QVRasterPort port = nullptr;
    QVGreyPixels pixels{};
    Grey grey;
    EXPECT_EQ(e_->NewRasterPort(&bounds, &port), kQVNoErr);
    EXPECT_EQ(e_->DrawText(port, font, text, size), kQVNoErr);
    EXPECT_EQ(e_->GetRasterPortPixels(port, &grey.bounds, &pixels), kQVNoErr);
    for (int32_t y = 0; y < pixels.height; ++y)
      grey.pixels.insert(grey.pixels.end(), pixels.pixels + y * pixels.rowBytes,
                         pixels.pixels + y * pixels.rowBytes + pixels.width);
    EXPECT_EQ(e_->DisposeRasterPort(port), kQVNoErr);
    return grey;
  }

  static inline std::string tmp_;
  static inline Host* host_ = nullptr;
  static inline const QVFontSuite* fonts_ = nullptr;
  static inline const QVFontGlueSuite* glue_ = nullptr;
  static inline Engine* e_ = nullptr;
};

TEST_F(EngineTest, ProceduresAndUsableFaces) {
  void *engine = nullptr, *procedure = &engine;
  std::set<void*> addresses;
  ASSERT_EQ(glue_->GetEngineInterface(&engine), kQVNoErr);
  for (const char* name : kProcedureNames) {
    EXPECT_EQ(glue_->GetEngineProcedure(engine, name, &procedure), kQVNoErr);
    addresses.insert(procedure);
  }
  EXPECT_EQ(addresses.size(), std::size(kProcedureNames));
  EXPECT_EQ(glue_->GetEngineProcedure(engine, "GetKerning", &procedure), kQVNotFoundErr);
  EXPECT_EQ(procedure, nullptr);

  for (const char* name : {"DejaVuSans", "NimbusSans-Regular", "Inter-Black", "WenQuanYiMicroHei"})
    EXPECT_EQ(Get<QVBool>(e_->IsFontUsable, Font(name)), 1) << name;
  // Bitmap strikes only: listed as such, and no outline scale to answer in.
  const QVFontHandle terminus = Font("TerminusMedium");
  EXPECT_EQ(Get<QVBool>(glue_->IsBitmapOnly, terminus), 1);
  EXPECT_EQ(Get<int32_t>(glue_->GetFontKind, terminus), kQVFontKindBitmapStrike);
  EXPECT_EQ(Get<QVBool>(e_->IsFontUsable, terminus), 0);
  QVIntRect box{};
  EXPECT_EQ(e_->MeasureText(terminus, "a", 16, &box), kQVBadParameterErr);
}

TEST_F(EngineTest, CollectionFacesAndNamedInstancesAreSeparateFaces) {
  auto file = [](QVFontHandle font) {
    const char* path = nullptr;
    int32_t index = -1;
    EXPECT_EQ(fonts_->GetFontFile(font, &path, &index), kQVNoErr);
    return std::make_pair(std::string(path ? path : ""), index);
  };
  // wqy-microhei.ttc: the proportional face at index 0, the monospaced one at 1.
  const QVFontHandle hei = Font("WenQuanYiMicroHei"), mono = Font("WenQuanYiMicroHeiMono");
  EXPECT_EQ(file(hei).first, file(mono).first);
  EXPECT_EQ(file(hei).second, 0);
  EXPECT_EQ(file(mono).second, 1);
  auto advance = [](QVFontHandle font, char c) { return Get<double>(e_->GetAdvanceWidth, font, Glyph(font, c)); };
  EXPECT_NE(advance(hei, 'i'), advance(hei, 'M'));
  EXPECT_EQ(advance(mono, 'i'), advance(mono, 'M'));

  // Named instances of a variable font: one file, each its own face, outlines and style.
  const QVFontHandle thin = Font("Inter-Thin"), black = Font("Inter-Black");
  EXPECT_EQ(file(thin).first, file(black).first);
  EXPECT_NE(file(thin).second, file(black).second);
  EXPECT_GT(Get<QVFontMetrics>(e_->GetFontMetrics, black).stemV,
            3 * Get<QVFontMetrics>(e_->GetFontMetrics, thin).stemV);
  EXPECT_GT(advance(black, 'o'), advance(thin, 'o'));
  EXPECT_EQ(Get<QVFontStyle>(e_->GetFontStyle, black).style, kQVFontStyleBold);
  EXPECT_EQ(Get<QVFontStyle>(e_->GetFontStyle, thin).style, kQVFontStyleRegular);
  // An instance on the slant axis (at -10, which FreeType 2.12 reads as +65526): slanted. Its
  // letters are the italic file's, so it keeps that instance's name as its copy.
  const QVFontHandle slanted = Font("Inter-BlackItalic", "Inter.var.ttf");
  EXPECT_EQ(Get<QVFontStyle>(e_->GetFontStyle, slanted).style, kQVFontStyleBoldItalic);
  EXPECT_EQ(Get<QVFontMetrics>(e_->GetFontMetrics, slanted).italicAngle, -10);
  EXPECT_GT(Get<QVGlyphBox>(e_->GetGlyphBox, slanted, Glyph(slanted, 'l')).right,
            Get<QVGlyphBox>(e_->GetGlyphBox, black, Glyph(black, 'l')).right + 50);
}

TEST_F(EngineTest, OutlinesOfTrueTypeCffAndType1Glyphs) {
  const QVFontHandle dejavu = Font("DejaVuSans");
  const Path l = Outline(dejavu, Glyph(dejavu, 'L'));
  EXPECT_EQ(l.ops, "MLLLLLLZ");  // 6 corners, 6 edges: the closing one explicit, then closePath

  // TrueType quadratics arrive as exact cubics: both controls lead back to one quadratic control.
  const Path o = Outline(dejavu, Glyph(dejavu, 'o'));
  EXPECT_EQ(o.ops.find('L'), std::string::npos);
  EXPECT_EQ(std::count(o.ops.begin(), o.ops.end(), 'Z'), 2);
  ASSERT_GT(o.Cubics().size(), 8u);
  for (const auto& c : o.Cubics())
    for (int axis = 0; axis < 2; ++axis)
      EXPECT_NEAR(c[0][axis] + 1.5 * (c[1][axis] - c[0][axis]), c[3][axis] + 1.5 * (c[2][axis] - c[3][axis]), 1e-9);

  // The URW design as Type 1 and as CFF: the same cubics, straight from the font.
  const QVFontHandle type1 = Font("NimbusSans-Regular", ".t1"), cff = Font("NimbusSans-Regular", ".otf");
  const Path t1_o = Outline(type1, Glyph(type1, 'o')), cff_o = Outline(cff, Glyph(cff, 'o'));
  EXPECT_EQ(t1_o.ops, cff_o.ops);
  ASSERT_EQ(t1_o.points.size(), cff_o.points.size());
  for (size_t i = 0; i < t1_o.points.size(); ++i) {
    EXPECT_NEAR(t1_o.points[i][0], cff_o.points[i][0], 1.0);
    EXPECT_NEAR(t1_o.points[i][1], cff_o.points[i][1], 1.0);
  }

  // The outline's extremes are the glyph box (1000 units to the em under the identity em).
  for (const auto& [font, code] : std::vector<std::pair<QVFontHandle, uint32_t>>{{dejavu, 'o'},
                                                                                 {dejavu, 'g'},
                                                                                 {type1, 'o'},
                                                                                 {cff, 'S'},
                                                                                 {Font("Inter-Black"), 'S'},
                                                                                 {Font("WenQuanYiMicroHei"), 0x4E2D}}) {
    const QVGlyphBox box = Get<QVGlyphBox>(e_->GetGlyphBox, font, Glyph(font, code));
    const QVGlyphBox ink = Outline(font, Glyph(font, code)).InkBox();
    EXPECT_NEAR(ink.left, box.left, 0.5) << code;
    EXPECT_NEAR(ink.bottom, box.bottom, 0.5) << code;
    EXPECT_NEAR(ink.right, box.right, 0.5) << code;
    EXPECT_NEAR(ink.top, box.top, 0.5) << code;
  }

  // The matrix {a, b, c, d} maps (x, y) to (a x + c y, b x + d y).
  const Path slanted = Outline(dejavu, Glyph(dejavu, 'L'), {2000, 0, 500, 1000});
  ASSERT_EQ(slanted.points.size(), l.points.size());
  for (size_t i = 0; i < l.points.size(); ++i) {
    EXPECT_NEAR(slanted.points[i][0], 2 * l.points[i][0] + 0.5 * l.points[i][1], 1e-9);
    EXPECT_NEAR(slanted.points[i][1], l.points[i][1], 1e-9);
  }
}

TEST_F(EngineTest, InkBoxOfATextIsTheBoxOfItsDrawnPixels) {
  const QVFontHandle dejavu = Font("DejaVuSans");
  const std::tuple<QVFontHandle, const char*, double> cases[] = {
      {dejavu, "Hamburgefontsiv", 64},
      {dejavu, "fi AV Wa", 13.5},
      {Font("NimbusRoman-Regular", ".t1"), "Type 1 glyphs", 40},
      {Font("Inter-Black"), "Inter Black", 31},
      {Font("WenQuanYiMicroHei"), "\xE4\xB8\xAD\xE6\x96\x87 text", 24}};
  for (const auto& [font, text, size] : cases) {
    const QVIntRect box = Measure(font, text, size);
    ASSERT_LT(box.left, box.right) << text;
    EXPECT_EQ(Draw(font, text, size, box).InkBox(), box) << text;
    // On a larger port the same pixels land in the same place.
    EXPECT_EQ(Draw(font, text, size, {box.left - 7, box.top - 5, box.right + 3, box.bottom + 9}).InkBox(), box);
  }
  // y down from the baseline: "H" stands on it, its top at the cap height (1493/2048 em).
  const QVIntRect h = Measure(dejavu, "H", 100);
  EXPECT_EQ(h.bottom, 0);
  EXPECT_EQ(h.top, -73);
  EXPECT_GT(Measure(dejavu, "g", 100).bottom, 15);
  EXPECT_EQ(Measure(dejavu, "", 100), (QVIntRect{0, 0, 0, 0}));
  EXPECT_EQ(Measure(dejavu, "   ", 100), (QVIntRect{0, 0, 0, 0}));
}

TEST_F(EngineTest, MonochromeGlyphBitmapAgreesWithTheGreyRendering) {
  for (const QVFontHandle font : {Font("DejaVuSerif"), Font("NimbusRoman-Regular", ".t1")}) {
    for (const char* text : {"a", "R", "g"}) {
      const double size = 48, matrix[4] = {size, 0, 0, size};
      QVGlyphBitmap bitmap{};
      ASSERT_EQ(e_->RenderGlyphBitmap(font, Glyph(font, uint32_t(*text)), matrix, &bitmap), kQVNoErr);
      const QVIntRect box = Measure(font, text, size);
      const Grey grey = Draw(font, text, size, box);
      auto bit = [&](int32_t x, int32_t y) {  // the bitmap's top-left pixel (left, top) y up is port pixel (left, -top)
        const int32_t col = x - bitmap.left, row = y + bitmap.top;
        return col >= 0 && row >= 0 && col < bitmap.width && row < bitmap.height &&
               ((bitmap.bits[row * bitmap.stride + col / 8] >> (7 - col % 8)) & 1);
      };
      auto dark = [&](int32_t x, int32_t y) { return grey.At(x, y) < 128; };
      auto near = [](auto&& test, int32_t x, int32_t y) {
        for (int32_t dy = -1; dy <= 1; ++dy)
          for (int32_t dx = -1; dx <= 1; ++dx)
            if (test(x + dx, y + dy)) return true;
        return false;
      };
      int set = 0, darker = 0, strays = 0;
      for (int32_t y = std::min(box.top, -bitmap.top) - 1; y <= std::max(box.bottom, bitmap.height - bitmap.top); ++y) {
        for (int32_t x = std::min(box.left, bitmap.left) - 1; x <= std::max(box.right, bitmap.left + bitmap.width);
             ++x) {
          set += bit(x, y);
          darker += dark(x, y);
          strays += (bit(x, y) && !near(dark, x, y)) || (dark(x, y) && !near(bit, x, y));
        }
      }
      EXPECT_EQ(strays, 0) << text;
      EXPECT_NEAR(set, darker, 0.1 * darker) << text;
      EXPECT_GT(set, 50) << text;
      QVGlyphBitmap copy = bitmap;
      EXPECT_EQ(e_->ReleaseGlyphBitmap(&bitmap), kQVNoErr);
      EXPECT_EQ(e_->ReleaseGlyphBitmap(&copy), kQVBadParameterErr);  // released already
    }
  }
}

TEST_F(EngineTest, MetricsStyleUnderlineAndGlyphs) {
  const QVFontHandle sans = Font("DejaVuSans");
  const QVFontMetrics m = Get<QVFontMetrics>(e_->GetFontMetrics, sans);
  EXPECT_NEAR(m.ascent, 1556 * 1000.0 / 2048, 1e-9);  // OS/2 typographic values
  EXPECT_NEAR(m.descent, -492 * 1000.0 / 2048, 1e-9);
  EXPECT_NEAR(m.xHeight, 1120 * 1000.0 / 2048, 1e-9);  // no sxHeight: the top of 'x'
  EXPECT_NEAR(m.stemV, 184 * 1000.0 / 2048, 1);        // measured on 'l'
  EXPECT_EQ(m.italicAngle, 0);
  EXPECT_EQ(Get<QVFontMetrics>(e_->GetFontMetrics, Font("DejaVuSans-Oblique")).italicAngle, -11);

  // One design as Type 1 and CFF: StdVW of either Private dict; the underline of the post table
  // and of Type 1 FontInfo (whose centre is moved to the top): the same numbers.
  for (const QVFontHandle font : {Font("NimbusSans-Regular", ".t1"), Font("NimbusSans-Regular", ".otf")}) {
    EXPECT_EQ(Get<QVFontMetrics>(e_->GetFontMetrics, font).stemV, 93);
    double position = 0, thickness = 0;
    ASSERT_EQ(e_->GetUnderline(font, &position, &thickness), kQVNoErr);
    EXPECT_EQ(position, -126);
    EXPECT_EQ(thickness, 50);
  }

  const std::tuple<const char*, uint32_t, int32_t> styles[] = {
      {"DejaVuSans", kQVFontFlagNonsymbolic, kQVFontStyleRegular},
      {"DejaVuSans-BoldOblique", kQVFontFlagNonsymbolic | kQVFontFlagItalic, kQVFontStyleBoldItalic},
      {"DejaVuSansMono", kQVFontFlagNonsymbolic | kQVFontFlagFixedPitch, kQVFontStyleRegular},
      {"DejaVuSerif", kQVFontFlagNonsymbolic | kQVFontFlagSerif, kQVFontStyleRegular},  // PANOSE
      {"LiberationSerif-Italic", kQVFontFlagNonsymbolic | kQVFontFlagSerif | kQVFontFlagItalic,
       kQVFontStyleItalic},                                              // sFamilyClass
      {"StandardSymbolsPS", kQVFontFlagSymbolic, kQVFontStyleRegular}};  // the Type 1 copy: symbol encoding
  for (const auto& [name, flags, code] : styles) {
    const QVFontStyle style = Get<QVFontStyle>(e_->GetFontStyle, Font(name, flags & kQVFontFlagSymbolic ? ".t1" : ""));
    EXPECT_EQ(style.flags, flags) << name;
    EXPECT_EQ(style.style, code) << name;
  }

  uint32_t glyph = 0;
  EXPECT_EQ(Get<uint32_t>(e_->GetGlyphByName, sans, "one"), Glyph(sans, '1'));
  EXPECT_EQ(e_->GetGlyphByName(sans, "no.such.glyph", &glyph), kQVNotFoundErr);
  EXPECT_EQ(e_->GetGlyphByCode(Font("NimbusSans-Regular", ".t1"), 0x4E2D, &glyph), kQVNotFoundErr);
  EXPECT_NEAR(Get<double>(e_->GetAdvanceWidth, sans, Glyph(sans, 'A')), 1401 * 1000.0 / 2048, 1e-9);
  QVGlyphBox box{};
  EXPECT_EQ(e_->GetGlyphBox(sans, 1u << 20, &box), kQVNotFoundErr);
  EXPECT_EQ(Outline(sans, Glyph(sans, ' ')).ops, "");
}

TEST_F(EngineTest, ImageRastersAreReadThroughGetRasterPixels) {
  auto image = std::make_unique<ImageRaster>(3, 2);
  image->row(1)[2] = 7;
  QVGreyPixels pixels{};
  ASSERT_EQ(e_->GetRasterPixels(image->handle(), &pixels), kQVNoErr);
  EXPECT_EQ((std::vector<int>{pixels.width, pixels.height, pixels.pixels[0], pixels.pixels[pixels.rowBytes + 2]}),
            (std::vector<int>{3, 2, 255, 7}));
  // Through a volatile integer, so the compiler sees no pointer used after its object.
  const volatile uintptr_t address = reinterpret_cast<uintptr_t>(image->handle());
  image.reset();
  EXPECT_EQ(e_->GetRasterPixels(reinterpret_cast<QVRasterHandle>(uintptr_t(address)), &pixels), kQVBadParameterErr);
}

// The module's worker threads call the engine at once, on one font and on several.
TEST_F(EngineTest, ConcurrentCallsGiveTheAnswersOfOneThread) {
  const QVFontHandle fonts[] = {Font("DejaVuSans"), Font("NimbusRoman-Regular", ".t1"), Font("Inter-Black")};
  auto work = [&](QVFontHandle font) {
    const QVIntRect box = Measure(font, "Quick brown fox", 30);
    return Draw(font, "Quick brown fox", 30, box).pixels;
  };
  std::vector<std::vector<uint8_t>> expected;
  for (const QVFontHandle font : fonts) expected.push_back(work(font));
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (size_t t = 0; t < 6; ++t)
    threads.emplace_back([&, t] {
      for (size_t round = 0; round < 10; ++round)
        mismatches += work(fonts[(t + round) % 3]) != expected[(t + round) % 3];
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches, 0);
}

// A TrueType font's bytes with table `tag` (offset, length) changed by `change`.
std::string PatchTable(std::string font, const char* tag,
                       const std::function<void(std::string&, size_t, size_t)>& change) {
  auto u32 = [&](size_t at) {
    size_t v = 0;
    for (size_t k = 0; k < 4; ++k) v = v << 8 | uint8_t(font[at + k]);
    return v;
  };
  for (size_t i = 0; i < (size_t(uint8_t(font[4])) << 8 | uint8_t(font[5])); ++i)
    if (font.compare(12 + 16 * i, 4, tag) == 0) change(font, u32(12 + 16 * i + 8), u32(12 + 16 * i + 12));
  return font;
}

class DamagedFontTest : public HostTest {};

TEST_F(DamagedFontTest, FontsAndArgumentsTheEngineCannotUseFailCleanly) {
  std::ifstream in("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf", std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto save = [&](const char* name, const std::string& content) {
    std::ofstream(tmp_ / name, std::ios::binary) << content;
    return (tmp_ / name).string();
  };
  std::vector<HostFont> fonts;
  for (const std::string& file :
       {save("glyphless.ttf",
             PatchTable(bytes, "glyf", [](std::string&f, size_t at, size_t n) { f.replace(at, n, n, '\xff'); })),
        save("half.ttf", bytes.substr(0, bytes.size() / 2)), save("garbage.ttf", std::string(5000, 'Z')),
        (tmp_ / "missing.ttf").string(),
        save("nameless.ttf", PatchTable(bytes, "post", [](std::string&f, size_t at, size_t) {
               f.replace(at, 4, std::string("\0\3\0\0", 4));  // post version 3: no glyph names
             }))})
    fonts.push_back({std::filesystem::path(file).stem().string(), "", "", file});
  std::optional<Host> host(std::in_place, Options(fonts));
  auto* suite = static_cast<const QVFontSuite*>(host->AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
  const Engine e(*static_cast<const QVFontGlueSuite*>(host->AcquireSuite(kQVFontGlueSuite, kQVFontGlueSuiteVersion)));
  QVFontHandle font[5] = {};
  for (int32_t i = 0; i < 5; ++i) EXPECT_EQ(suite->IndexFontList(i, &font[i]), kQVNoErr);

  QVBool usable = 1;
  QVFontMetrics metrics{};
  QVGlyphBox glyph_box{};
  QVIntRect box{};
  uint32_t glyph = 0;
  for (int32_t i = 0; i < 4; ++i) {  // the first opens, its glyph data garbage; FreeType refuses the others
    EXPECT_EQ(e.IsFontUsable(font[i], &usable), kQVNoErr) << i;
    EXPECT_EQ(usable, 0) << i;
    EXPECT_EQ(e.MeasureText(font[i], "Hamburg", 20, &box), kQVBadParameterErr) << i;
    EXPECT_EQ(e.GetGlyphBox(font[i], 36, &glyph_box), kQVBadParameterErr) << i;
    EXPECT_EQ(e.GetGlyphByCode(font[i], 'a', &glyph), i ? kQVBadParameterErr : kQVNoErr) << i;
  }

  // Without glyph names in the font, the standard names of ASCII and uniXXXX go through the cmap.
  for (const auto& [name, code] : std::vector<std::pair<const char*, uint32_t>>{
           {"one", '1'}, {"A", 'A'}, {"period", '.'}, {"asciitilde", '~'}, {"uni00E9", 0xE9}, {"u00E9", 0xE9}}) {
    EXPECT_EQ(e.GetGlyphByName(font[4], name, &glyph), kQVNoErr) << name;
    EXPECT_EQ(glyph, Get<uint32_t>(e.GetGlyphByCode, font[4], code)) << name;
  }
  EXPECT_EQ(e.GetGlyphByName(font[4], "eacute", &glyph), kQVNotFoundErr);  // beyond the ASCII names

  int stranger = 0;
  QVRasterPort port = nullptr;
  QVGlyphBitmap bitmap{};
  const double bad_matrix[4] = {1000, 0, 0, std::nan("")};
  const QVIntRect inverted{10, 0, 0, 10}, huge{0, 0, 100000, 100000};
  EXPECT_EQ(e.GetFontMetrics(reinterpret_cast<QVFontHandle>(&stranger), &metrics), kQVBadParameterErr);
  EXPECT_EQ(e.RenderGlyphBitmap(font[4], 36, bad_matrix, &bitmap), kQVBadParameterErr);
  EXPECT_EQ(e.MeasureText(font[4], "a", 0, &box), kQVBadParameterErr);
  EXPECT_EQ(e.NewRasterPort(&inverted, &port), kQVBadParameterErr);
  EXPECT_EQ(e.NewRasterPort(&huge, &port), kQVBadParameterErr);
  EXPECT_EQ(e.DrawText(reinterpret_cast<QVRasterPort>(&stranger), font[4], "a", 10), kQVBadParameterErr);
  host.reset();  // the engine outlives no host
  EXPECT_EQ(e.GetFontMetrics(font[4], &metrics), kQVNotInitialisedErr);
}

}  // namespace
}  // namespace fontrix::host::testing
