// FontAccess over the host's font engine procedures bound at start-up.
#include <memory>

#include "hostglue/font_access.h"
#include "hostglue/font_engine.h"
#include "shell/host_suites.h"

namespace fontrix::hostglue {

namespace {

// The engine's procedures as bound at start-up; a null table (unbound) answers every call false.
const FontEngineProcedures kUnbound{};
const FontEngineProcedures& Engine() {
  const FontEngineProcedures* bound = BoundFontEngine();
  return bound ? *bound : kUnbound;
}

// Collects a path from the engine's sink callbacks.
struct PathCollector {
  GlyphPath& path;
  static void Move(void* c, double x, double y) { Add(c, {GlyphPath::kMove, {x, 0, 0}, {y, 0, 0}}); }
  static void Line(void* c, double x, double y) { Add(c, {GlyphPath::kLine, {x, 0, 0}, {y, 0, 0}}); }
  static void Cubic(void* c, double x1, double y1, double x2, double y2, double x3, double y3) {
    Add(c, {GlyphPath::kCurve, {x1, x2, x3}, {y1, y2, y3}});
  }
  static void Close(void* c) { Add(c, {GlyphPath::kClose, {0, 0, 0}, {0, 0, 0}}); }
  static void Add(void* c, const GlyphPath::Segment& s) { static_cast<PathCollector*>(c)->path.segments.push_back(s); }
};

bool CopyPixels(const QVGreyPixels& p, GreyImage& image) {
  if (!p.pixels || p.width < 0 || p.height < 0 || p.rowBytes < p.width) return false;
  image.width = p.width;
  image.height = p.height;
  image.pixels.resize(size_t(p.width) * size_t(p.height));
  for (int32_t y = 0; y < p.height; ++y)
    std::copy(p.pixels + size_t(y) * size_t(p.rowBytes), p.pixels + size_t(y) * size_t(p.rowBytes) + p.width,
              image.pixels.begin() + ptrdiff_t(size_t(y) * size_t(p.width)));
  return true;
}

class HostAccess : public FontAccess {
 public:
  bool Names(QVFontHandle font, FontNames& names) override {
    const QVFontSuite* fonts = qv::Suites().fonts;
    const char *unique = nullptr, *family = nullptr, *style = nullptr;
    if (!fonts || fonts->GetFontNames(font, &unique, &family, &style) != kQVNoErr || !unique) return false;
    names = {unique, family ? family : "", style ? style : ""};
    return true;
  }
  bool IsUsable(QVFontHandle font) override {
    auto proc = Engine().isFontUsable;
    QVBool usable = 0;
    return proc && proc(font, &usable) == kQVNoErr && usable;
  }
  bool Metrics(QVFontHandle font, QVFontMetrics& metrics) override {
    auto proc = Engine().getFontMetrics;
    return proc && proc(font, &metrics) == kQVNoErr;
  }
  bool Underline(QVFontHandle font, double& position, double& thickness) override {
    auto proc = Engine().getUnderline;
    return proc && proc(font, &position, &thickness) == kQVNoErr;
  }
  bool Style(QVFontHandle font, QVFontStyle& style) override {
    auto proc = Engine().getFontStyle;
    return proc && proc(font, &style) == kQVNoErr;
  }
  bool GlyphByCode(QVFontHandle font, uint32_t unicode, uint32_t& glyph) override {
    auto proc = Engine().getGlyphByCode;
    return proc && proc(font, unicode, &glyph) == kQVNoErr;
  }
  bool GlyphByName(QVFontHandle font, const std::string& name, uint32_t& glyph) override {
    auto proc = Engine().getGlyphByName;
    return proc && proc(font, name.c_str(), &glyph) == kQVNoErr;
  }
  bool GlyphBox(QVFontHandle font, uint32_t glyph, QVGlyphBox& box) override {
    auto proc = Engine().getGlyphBox;
    return proc && proc(font, glyph, &box) == kQVNoErr;
  }
  bool AdvanceWidth(QVFontHandle font, uint32_t glyph, double& advance) override {
    auto proc = Engine().getAdvanceWidth;
    return proc && proc(font, glyph, &advance) == kQVNoErr;
  }
  bool Outline(QVFontHandle font, uint32_t glyph, const double matrix[4], GlyphPath& path) override {
    auto proc = Engine().getGlyphOutline;
    if (!proc) return false;
    path.segments.clear();
    PathCollector collector{path};
    QVPathSink sink{&collector, PathCollector::Move, PathCollector::Line, PathCollector::Cubic, PathCollector::Close};
    return proc(font, glyph, matrix, &sink) == kQVNoErr;
  }
  bool Bitmap(QVFontHandle font, uint32_t glyph, const double matrix[4], GlyphBitmap& bitmap) override {
    auto render = Engine().renderGlyphBitmap;
    auto release = Engine().releaseGlyphBitmap;
    if (!render || !release) return false;
    QVGlyphBitmap raw{};
    if (render(font, glyph, matrix, &raw) != kQVNoErr) return false;
    const bool ok = raw.width >= 0 && raw.height >= 0 && raw.stride * 8 >= raw.width && (raw.bits || !raw.height);
    if (ok) {
      bitmap.width = raw.width;
      bitmap.height = raw.height;
      bitmap.stride = raw.stride;
      bitmap.bits.assign(raw.bits, raw.bits + size_t(raw.stride) * size_t(raw.height));
    }
    release(&raw);
    return ok;
  }
  bool MeasureText(QVFontHandle font, const std::string& utf8, double size, QVIntRect& box) override {
    auto proc = Engine().measureText;
    return proc && proc(font, utf8.c_str(), size, &box) == kQVNoErr;
  }
  bool DrawText(QVFontHandle font, const std::string& utf8, double size, const QVIntRect& bounds,
                GreyImage& image) override {
    auto make = Engine().newRasterPort;
    auto draw = Engine().drawText;
    auto read = Engine().getRasterPortPixels;
    auto dispose = Engine().disposeRasterPort;
    if (!make || !draw || !read || !dispose) return false;
    QVRasterPort port = nullptr;
    if (make(&bounds, &port) != kQVNoErr || !port) return false;
    QVIntRect got{};
    QVGreyPixels pixels{};
    const bool ok = draw(port, font, utf8.c_str(), size) == kQVNoErr && read(port, &got, &pixels) == kQVNoErr &&
                    CopyPixels(pixels, image);
    dispose(port);
    return ok;
  }
  bool ImagePixels(QVRasterHandle raster, GreyImage& image) override {
    auto proc = Engine().getRasterPixels;
    QVGreyPixels pixels{};
    return proc && proc(raster, &pixels) == kQVNoErr && CopyPixels(pixels, image);
  }
};

}  // namespace

bool FontAccessSlot::Available() const { return access_.load() != nullptr || FontEngineBound(); }

FontAccess& HostFontAccess() {
  static HostAccess access;
  return access;
}

}  // namespace fontrix::hostglue
