#pragma once
// An in-memory FontAccess for unit tests of the caches: fonts, glyphs and images are whatever
// the test puts in; text is drawn as one black block per character.
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "hostglue/font_access.h"

namespace fontrix::hostglue {

class FakeFontAccess : public FontAccess {
 public:
  struct Glyph {
    QVGlyphBox box{};
    double advance = 0;
    GlyphPath path;      ///< in ems; Outline applies the matrix (x' = m0 x + m2 y, y' = m1 x + m3 y)
    GlyphBitmap bitmap;  ///< returned as it is, whatever the matrix
  };
  struct Font {
    FontNames names;
    bool usable = true;
    QVFontMetrics metrics{};
    double underlinePosition = -100, underlineThickness = 50;
    QVFontStyle style{};
    std::map<uint32_t, uint32_t> codes;          ///< Unicode -> glyph
    std::map<std::string, uint32_t> glyphNames;  ///< glyph name -> glyph
    std::map<uint32_t, Glyph> glyphs;
    double textWidth = 0.6;   ///< block width per character, in ems
    double textHeight = 0.7;  ///< block height above the baseline, in ems
  };

  /// A font with glyphs for a-z, A-Z, 0-9 and the glyph named "one": each a square outline of
  /// its own width, box and advance to match.
  static Font LatinFont(const std::string& uniqueName, double widthScale = 1.0);

  QVFontHandle Add(Font font);
  Font& Get(QVFontHandle font);
  QVRasterHandle AddImage(GreyImage image);

  bool Names(QVFontHandle font, FontNames& names) override;
  bool IsUsable(QVFontHandle font) override;
  bool Metrics(QVFontHandle font, QVFontMetrics& metrics) override;
  bool Underline(QVFontHandle font, double& position, double& thickness) override;
  bool Style(QVFontHandle font, QVFontStyle& style) override;
  bool GlyphByCode(QVFontHandle font, uint32_t unicode, uint32_t& glyph) override;
  bool GlyphByName(QVFontHandle font, const std::string& name, uint32_t& glyph) override;
  bool GlyphBox(QVFontHandle font, uint32_t glyph, QVGlyphBox& box) override;
  bool AdvanceWidth(QVFontHandle font, uint32_t glyph, double& advance) override;
  bool Outline(QVFontHandle font, uint32_t glyph, const double matrix[4], GlyphPath& path) override;
  bool Bitmap(QVFontHandle font, uint32_t glyph, const double matrix[4], GlyphBitmap& bitmap) override;
  bool MeasureText(QVFontHandle font, const std::string& utf8, double size, QVIntRect& box) override;
  bool DrawText(QVFontHandle font, const std::string& utf8, double size, const QVIntRect& bounds,
                GreyImage& image) override;
  bool ImagePixels(QVRasterHandle raster, GreyImage& image) override;

 private:
  const Font* Find(QVFontHandle font);
  const Glyph* FindGlyph(QVFontHandle font, uint32_t glyph);

  std::mutex mutex_;
  std::map<QVFontHandle, Font> fonts_;
  std::map<QVRasterHandle, GreyImage> images_;
  uintptr_t next_ = 1;
};

}  // namespace fontrix::hostglue
