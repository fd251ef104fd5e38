#pragma once
// The narrow interface through which the caches reach fonts, glyphs, text and rasters. The
// module's one implementation calls the host's font engine procedures bound at start-up; tests
// use an in-memory fake. Every call reports failure by its result, never by an exception, and
// may be made from any thread.
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "sdk/qv_font_engine.h"
#include "sdk/qv_types.h"

namespace fontrix::hostglue {

struct FontNames {
  std::string uniqueName, family, style;
};

/// An outline path as the engine gives it: moves, lines, cubics and closes, in order.
struct GlyphPath {
  // A fixed underlying type: an engine may hand over a kind this list lacks, which the feature
  // code reports and skips; without one, holding such a value would be undefined.
  enum Kind : int32_t { kMove, kLine, kCurve, kClose };
  struct Segment {
    Kind kind;
    double x[3], y[3];  ///< end point in [0] for moves and lines; control points then end for curves
  };
  std::vector<Segment> segments;
};

/// A 1-bit glyph bitmap: rows of `stride` bytes, leftmost pixel in the most significant bit.
struct GlyphBitmap {
  int32_t width = 0, height = 0, stride = 0;
  std::vector<uint8_t> bits;
  bool Pixel(int32_t x, int32_t y) const {
    return x >= 0 && y >= 0 && x < width && y < height && (bits[size_t(y) * stride + size_t(x) / 8] >> (7 - x % 8)) & 1;
  }
};

/// An 8-bit grey raster copied out of the host: `height` rows of exactly `width` bytes.
struct GreyImage {
  int32_t width = 0, height = 0;
  std::vector<uint8_t> pixels;
};

class FontAccess {
 public:
  virtual ~FontAccess() = default;

  /// Unique name (PostScript name), family and style.
  virtual bool Names(QVFontHandle font, FontNames& names) = 0;
  /// The font has a usable outline program.
  virtual bool IsUsable(QVFontHandle font) = 0;
  virtual bool Metrics(QVFontHandle font, QVFontMetrics& metrics) = 0;
  virtual bool Underline(QVFontHandle font, double& position, double& thickness) = 0;
  virtual bool Style(QVFontHandle font, QVFontStyle& style) = 0;
  virtual bool GlyphByCode(QVFontHandle font, uint32_t unicode, uint32_t& glyph) = 0;
  virtual bool GlyphByName(QVFontHandle font, const std::string& name, uint32_t& glyph) = 0;
  /// Box and advance at the engine's outline scale (1000 units to the em).
  virtual bool GlyphBox(QVFontHandle font, uint32_t glyph, QVGlyphBox& box) = 0;
  virtual bool AdvanceWidth(QVFontHandle font, uint32_t glyph, double& advance) = 0;
  /// The outline under `matrix` applied to the glyph in ems.
  virtual bool Outline(QVFontHandle font, uint32_t glyph, const double matrix[4], GlyphPath& path) = 0;
  virtual bool Bitmap(QVFontHandle font, uint32_t glyph, const double matrix[4], GlyphBitmap& bitmap) = 0;
  /// Integer ink box of `utf8` set at `size` pixels to the em, y down, baseline origin at 0.
  virtual bool MeasureText(QVFontHandle font, const std::string& utf8, double size, QVIntRect& box) = 0;
  /// Draws `utf8` into a raster of exactly `bounds` (black ink on white) and copies it out.
  virtual bool DrawText(QVFontHandle font, const std::string& utf8, double size, const QVIntRect& bounds,
                        GreyImage& image) = 0;
  /// The pixels of an image raster the host made (for recognition).
  virtual bool ImagePixels(QVRasterHandle raster, GreyImage& image) = 0;
};

/// The host's fonts through the procedures bound at start-up; every call fails while they are
/// not bound.
FontAccess& HostFontAccess();

/// A cache's way to the fonts: the host's, unless a test has put another FontAccess in.
class FontAccessSlot {
 public:
  using Access = FontAccess;
  void Set(FontAccess* access) { access_.store(access); }
  FontAccess& Get() const {
    FontAccess* access = access_.load();
    return access ? *access : HostFontAccess();
  }
  /// Whether fonts can be reached: a replacement is in, or the host's engine is bound.
  bool Available() const;

 private:
  std::atomic<FontAccess*> access_{nullptr};
};

}  // namespace fontrix::hostglue
