// The module's path to the host's font engine: binding by name at start-up, and the fonts,
// glyphs and text it then reaches through HostFontAccess, on this machine's fonts.
#include "hostglue/font_engine.h"

#include <algorithm>
#include <cstring>

#include "hostglue/font_access.h"
#include "tests/plugin/test_host.h"

namespace fontrix {
namespace {

using testing::HostTest;
using testing::interception;

// The host's glue suite, except that one procedure is missing.
QVFontGlueSuite glue_without_draw;
const QVFontGlueSuite* real_glue = nullptr;

QVErr ProcedureExceptDrawText(void* engine, const char* name, void** procedure) {
  if (std::strcmp(name, kQVProcDrawText) == 0) return kQVNotFoundErr;
  return real_glue->GetEngineProcedure(engine, name, procedure);
}

TEST_F(HostTest, AMissingProcedureFailsStartupWithOne) {
  auto& h = MakeHost();
  real_glue = static_cast<const QVFontGlueSuite*>(h.AcquireSuite(kQVFontGlueSuite, kQVFontGlueSuiteVersion));
  ASSERT_NE(real_glue, nullptr);
  glue_without_draw = *real_glue;
  glue_without_draw.GetEngineProcedure = ProcedureExceptDrawText;
  interception().replaced[kQVFontGlueSuite] = &glue_without_draw;
  EXPECT_EQ(h.Startup(), 1u);
  EXPECT_EQ(h.Globals(), nullptr);
  EXPECT_FALSE(hostglue::FontEngineBound());
  ASSERT_EQ(h.Alerts().size(), 1u);
  EXPECT_NE(h.Alerts()[0].find("font engine"), std::string::npos);
  h.ReleaseSuite(kQVFontGlueSuite, kQVFontGlueSuiteVersion);
}

class RealFontTest : public HostTest {
 protected:
  QVFontHandle Started(const char* name) {
    real_fonts_ = true;
    HostTest::Started();
    const auto* fonts = static_cast<const QVFontSuite*>(host_->AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
    QVFontHandle font = nullptr;
    EXPECT_EQ(fonts->FindFontByName(name, &font), kQVNoErr) << name << " is installed by scripts/setup.sh";
    host_->ReleaseSuite(kQVFontSuite, kQVFontSuiteVersion);
    return font;
  }
  hostglue::FontAccess& access = hostglue::HostFontAccess();
};

TEST_F(RealFontTest, GlyphsAndOutlinesOfDejaVuSans) {
  QVFontHandle font = Started("DejaVuSans");
  ASSERT_NE(font, nullptr);
  hostglue::FontNames names;
  ASSERT_TRUE(access.Names(font, names));
  EXPECT_EQ(names.uniqueName, "DejaVuSans");
  EXPECT_EQ(names.family, "DejaVu Sans");
  EXPECT_TRUE(access.IsUsable(font));
  uint32_t L = 0, one = 0, missing = 0;
  ASSERT_TRUE(access.GlyphByCode(font, 'L', L));
  ASSERT_TRUE(access.GlyphByName(font, "one", one));
  uint32_t one_by_code = 0;
  ASSERT_TRUE(access.GlyphByCode(font, '1', one_by_code));
  EXPECT_EQ(one, one_by_code);
  EXPECT_FALSE(access.GlyphByCode(font, 0x10FFFD, missing));  // a private-use code no font here has

  // "L" is one closed contour of straight lines; its extreme points span the engine's box.
  const double to_outline_scale[4] = {1000, 0, 0, 1000};
  hostglue::GlyphPath path;
  ASSERT_TRUE(access.Outline(font, L, to_outline_scale, path));
  ASSERT_GE(path.segments.size(), 5u);
  EXPECT_EQ(path.segments.front().kind, hostglue::GlyphPath::kMove);
  EXPECT_EQ(path.segments.back().kind, hostglue::GlyphPath::kClose);
  double left = 1e9, right = -1e9, bottom = 1e9, top = -1e9;
  for (const auto& s : path.segments) {
    EXPECT_NE(s.kind, hostglue::GlyphPath::kCurve);
    if (s.kind == hostglue::GlyphPath::kClose) continue;
    left = std::min(left, s.x[0]), right = std::max(right, s.x[0]);
    bottom = std::min(bottom, s.y[0]), top = std::max(top, s.y[0]);
  }
  QVGlyphBox box{};
  ASSERT_TRUE(access.GlyphBox(font, L, box));
  EXPECT_NEAR(box.left, left, 1.0);
  EXPECT_NEAR(box.right, right, 1.0);
  EXPECT_NEAR(box.bottom, bottom, 1.0);
  EXPECT_NEAR(box.top, top, 1.0);
  double advance = 0;
  ASSERT_TRUE(access.AdvanceWidth(font, L, advance));
  EXPECT_GT(advance, box.right - box.left);

  const double render_at_100[4] = {100, 0, 0, 100};
  hostglue::GlyphBitmap bitmap;
  ASSERT_TRUE(access.Bitmap(font, L, render_at_100, bitmap));
  EXPECT_NEAR(bitmap.height, (box.top - box.bottom) / 10, 2);
  int set = 0;
  for (int y = 0; y < bitmap.height; ++y)
    for (int x = 0; x < bitmap.width; ++x) set += bitmap.Pixel(x, y);
  EXPECT_GT(set, 0);
}

// The text a specimen needs: its ink box, then a raster of exactly that box whose non-white
// pixels span the whole box.
TEST_F(RealFontTest, TextInkBoxMatchesTheDrawnPixels) {
  QVFontHandle font = Started("DejaVuSans");
  ASSERT_NE(font, nullptr);
  QVIntRect box{};
  ASSERT_TRUE(access.MeasureText(font, "abcdefghijklmnopqrstuvwxyz", 200, box));
  EXPECT_LT(box.top, 0);     // ascenders above the baseline
  EXPECT_GT(box.bottom, 0);  // descenders below it
  hostglue::GreyImage image;
  ASSERT_TRUE(access.DrawText(font, "abcdefghijklmnopqrstuvwxyz", 200, box, image));
  ASSERT_EQ(image.width, box.right - box.left);
  ASSERT_EQ(image.height, box.bottom - box.top);
  int x0 = image.width, x1 = -1, y0 = image.height, y1 = -1;
  for (int y = 0; y < image.height; ++y)
    for (int x = 0; x < image.width; ++x)
      if (image.pixels[size_t(y) * image.width + x] < 255)
        x0 = std::min(x0, x), x1 = std::max(x1, x), y0 = std::min(y0, y), y1 = std::max(y1, y);
  EXPECT_EQ(x0, 0);
  EXPECT_EQ(y0, 0);
  EXPECT_EQ(x1, image.width - 1);
  EXPECT_EQ(y1, image.height - 1);
}

}  // namespace
}  // namespace fontrix
