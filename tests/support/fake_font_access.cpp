#include "tests/support/fake_font_access.h"

#include <algorithm>
#include <cmath>

namespace fontrix::hostglue {

FakeFontAccess::Font FakeFontAccess::LatinFont(const std::string& uniqueName, double widthScale) {
  Font font;
  font.names = {uniqueName, uniqueName, "Regular"};
  font.metrics = {750, -250, 80, 500, 0};
  uint32_t id = 1;
  auto add = [&](uint32_t code, double width, double height) {
    Glyph g;
    g.box = {50, 0, 50 + width, height};
    g.advance = width + 100;
    const double l = 0.05, r = (50 + width) / 1000, t = height / 1000;
    g.path.segments = {{GlyphPath::kMove, {l, 0, 0}, {0, 0, 0}},
                       {GlyphPath::kLine, {r, 0, 0}, {0, 0, 0}},
                       {GlyphPath::kLine, {r, 0, 0}, {t, 0, 0}},
                       {GlyphPath::kLine, {l, 0, 0}, {t, 0, 0}},
                       {GlyphPath::kClose, {0, 0, 0}, {0, 0, 0}}};
    font.codes[code] = id;
    font.glyphs[id] = g;
    return id++;
  };
  for (uint32_t c = 'a'; c <= 'z'; ++c) add(c, (300 + 10 * (c - 'a')) * widthScale, 500);
  for (uint32_t c = 'A'; c <= 'Z'; ++c) add(c, (400 + 10 * (c - 'A')) * widthScale, 700);
  for (uint32_t c = '0'; c <= '9'; ++c) font.glyphNames[c == '1' ? "one" : std::string(1, char(c))] = add(c, 450, 700);
  font.textWidth = 0.6 * widthScale;
  return font;
}

QVFontHandle FakeFontAccess::Add(Font font) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto handle = reinterpret_cast<QVFontHandle>(next_++);
  fonts_[handle] = std::move(font);
  return handle;
}

FakeFontAccess::Font& FakeFontAccess::Get(QVFontHandle font) {
  std::lock_guard<std::mutex> lock(mutex_);
  return fonts_.at(font);
}

QVRasterHandle FakeFontAccess::AddImage(GreyImage image) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto handle = reinterpret_cast<QVRasterHandle>(next_++);
  images_[handle] = std::move(image);
  return handle;
}

const FakeFontAccess::Font* FakeFontAccess::Find(QVFontHandle font) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = fonts_.find(font);
  return it == fonts_.end() ? nullptr : &it->second;
}

const FakeFontAccess::Glyph* FakeFontAccess::FindGlyph(QVFontHandle font, uint32_t glyph) {
  const Font* f = Find(font);
  if (!f) return nullptr;
  auto it = f->glyphs.find(glyph);
  return it == f->glyphs.end() ? nullptr : &it->second;
}

bool FakeFontAccess::Names(QVFontHandle font, FontNames& names) {
  const Font* f = Find(font);
  if (f) names = f->names;
  return f != nullptr;
}

bool FakeFontAccess::IsUsable(QVFontHandle font) {
  const Font* f = Find(font);
  return f && f->usable;
}

bool FakeFontAccess::Metrics(QVFontHandle font, QVFontMetrics& metrics) {
  const Font* f = Find(font);
  if (f) metrics = f->metrics;
  return f != nullptr;
}

bool FakeFontAccess::Underline(QVFontHandle font, double& position, double& thickness) {
  const Font* f = Find(font);
  if (f) position = f->underlinePosition, thickness = f->underlineThickness;
  return f != nullptr;
}

bool FakeFontAccess::Style(QVFontHandle font, QVFontStyle& style) {
  const Font* f = Find(font);
  if (f) style = f->style;
  return f != nullptr;
}

bool FakeFontAccess::GlyphByCode(QVFontHandle font, uint32_t unicode, uint32_t& glyph) {
  const Font* f = Find(font);
  if (!f || !f->codes.count(unicode)) return false;
  glyph = f->codes.at(unicode);
  return true;
}

bool FakeFontAccess::GlyphByName(QVFontHandle font, const std::string& name, uint32_t& glyph) {
  const Font* f = Find(font);
  if (!f || !f->glyphNames.count(name)) return false;
  glyph = f->glyphNames.at(name);
  return true;
}

bool FakeFontAccess::GlyphBox(QVFontHandle font, uint32_t glyph, QVGlyphBox& box) {
  const Glyph* g = FindGlyph(font, glyph);
  if (g) box = g->box;
  return g != nullptr;
}

bool FakeFontAccess::AdvanceWidth(QVFontHandle font, uint32_t glyph, double& advance) {
  const Glyph* g = FindGlyph(font, glyph);
  if (g) advance = g->advance;
  return g != nullptr;
}

bool FakeFontAccess::Outline(QVFontHandle font, uint32_t glyph, const double m[4], GlyphPath& path) {
  const Glyph* g = FindGlyph(font, glyph);
  if (!g) return false;
  path = g->path;
  for (auto& s : path.segments)
    for (int i = 0; i < 3; ++i) {
      const double x = s.x[i], y = s.y[i];
      s.x[i] = m[0] * x + m[2] * y;
      s.y[i] = m[1] * x + m[3] * y;
    }
  return true;
}

bool FakeFontAccess::Bitmap(QVFontHandle font, uint32_t glyph, const double[4], GlyphBitmap& bitmap) {
  const Glyph* g = FindGlyph(font, glyph);
  if (g) bitmap = g->bitmap;
  return g != nullptr;
}

bool FakeFontAccess::MeasureText(QVFontHandle font, const std::string& utf8, double size, QVIntRect& box) {
  const Font* f = Find(font);
  if (!f) return false;
  box = {0, 0, 0, 0};
  if (utf8.empty()) return true;
  box.right = int32_t(std::lround(f->textWidth * size * double(utf8.size())));
  box.top = -int32_t(std::lround(f->textHeight * size));
  return true;
}

bool FakeFontAccess::DrawText(QVFontHandle font, const std::string& utf8, double size, const QVIntRect& bounds,
                              GreyImage& image) {
  const Font* f = Find(font);
  if (!f || bounds.right < bounds.left || bounds.bottom < bounds.top) return false;
  image.width = bounds.right - bounds.left;
  image.height = bounds.bottom - bounds.top;
  image.pixels.assign(size_t(image.width) * size_t(image.height), 255);
  // One block per character, with a one-pixel gap before the next, from the baseline up.
  const double step = f->textWidth * size;
  const int32_t top = -int32_t(std::lround(f->textHeight * size));
  for (size_t i = 0; i < utf8.size(); ++i) {
    const int32_t x0 = int32_t(std::lround(step * double(i))), x1 = int32_t(std::lround(step * double(i + 1))) - 1;
    for (int32_t y = std::max(top, bounds.top); y < std::min(0, bounds.bottom); ++y)
      for (int32_t x = std::max(x0, bounds.left); x < std::min(x1, bounds.right); ++x)
        image.pixels[size_t(y - bounds.top) * size_t(image.width) + size_t(x - bounds.left)] = 0;
  }
  return true;
}

bool FakeFontAccess::ImagePixels(QVRasterHandle raster, GreyImage& image) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = images_.find(raster);
  if (it == images_.end()) return false;
  image = it->second;
  return true;
}

}  // namespace fontrix::hostglue
