// Text over HarfBuzz and FreeType: shaping at a size in pixels to the em, the ink box of the
// rendered string, and the 8-bit grey raster ports text is drawn into.
#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_OUTLINE_H
#include <hb-ft.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <vector>

#include "host/engine.h"

namespace fontrix::host {
namespace {

constexpr double kMaxTextSize = 10000;                 // pixels to the em
constexpr int64_t kMaxPortPixels = int64_t{64} << 20;  // as for images
constexpr int64_t kMaxCoordinate = int64_t{1} << 30;   // text boxes stay far inside int32_t

struct Port {
  QVIntRect bounds;
  int32_t width, height;
  std::vector<uint8_t> pixels;  // white paper: 255
};

std::mutex ports_mu;
std::unordered_set<const Port*> ports;

Port* FindPort(QVRasterPort handle) {
  auto* port = reinterpret_cast<Port*>(handle);
  std::lock_guard lock(ports_mu);
  return ports.count(port) ? port : nullptr;
}

int64_t FloorDiv64(int64_t v) { return v >= 0 ? v / 64 : -((-v + 63) / 64); }

// Row `row` of a FreeType bitmap, top row first whatever the sign of its pitch.
const uint8_t* BitmapRow(const FT_Bitmap& bitmap, unsigned row) {
  const size_t pitch = size_t(std::abs(bitmap.pitch));
  return bitmap.buffer + (bitmap.pitch >= 0 ? row : bitmap.rows - 1 - row) * pitch;
}

// Shapes `utf8` at `size` pixels to the em and renders each glyph, unhinted and at its exact
// (fractional) position, as 8-bit coverage; calls draw(bitmap, left, top) with the position of
// the bitmap's top-left pixel, y down, the text's baseline origin at (0, 0). MeasureText and
// DrawText both go through here, so the box measured is the box drawn.
template <typename Draw>
void LayOut(FaceCache::Lease& lease, const char* utf8, double size, Draw&& draw) {
  FT_Face face = lease.face();
  OutlineScale(face);
  if (!(size > 0 && size <= kMaxTextSize)) throw EngineError{kQVBadParameterErr};
  if (FT_Set_Char_Size(face, 0, FT_F26Dot6(std::lround(size * 64)), 72, 72) != 0) throw EngineError{kQVBadParameterErr};
  hb_font_t* font = lease.shaper();
  if (!font) throw std::bad_alloc();
  hb_ft_font_changed(font);  // the new size

  std::unique_ptr<hb_buffer_t, decltype(&hb_buffer_destroy)> buffer(hb_buffer_create(), hb_buffer_destroy);
  hb_buffer_add_utf8(buffer.get(), utf8, -1, 0, -1);
  hb_buffer_guess_segment_properties(buffer.get());
  hb_shape(font, buffer.get(), nullptr, 0);
  if (!hb_buffer_allocation_successful(buffer.get())) throw std::bad_alloc();
  unsigned count = 0;
  const hb_glyph_info_t* infos = hb_buffer_get_glyph_infos(buffer.get(), &count);
  const hb_glyph_position_t* positions = hb_buffer_get_glyph_positions(buffer.get(), &count);

  int64_t pen_x = 0, pen_y = 0;  // 26.6 pixels, y up, as HarfBuzz over FreeType gives them
  for (unsigned i = 0; i < count; ++i) {
    const int64_t x = pen_x + positions[i].x_offset, y = pen_y + positions[i].y_offset;
    pen_x += positions[i].x_advance;
    pen_y += positions[i].y_advance;
    if (std::max(std::abs(x), std::abs(y)) / 64 > kMaxCoordinate) throw EngineError{kQVBadParameterErr};
    if (FT_Load_Glyph(face, infos[i].codepoint, FT_LOAD_NO_HINTING | FT_LOAD_NO_BITMAP) != 0)
      throw EngineError{kQVBadParameterErr};
    if (face->glyph->format != FT_GLYPH_FORMAT_OUTLINE) continue;  // nothing FreeType can draw
    const int64_t whole_x = FloorDiv64(x), whole_y = FloorDiv64(y);
    FT_Outline_Translate(&face->glyph->outline, FT_Pos(x - whole_x * 64), FT_Pos(y - whole_y * 64));
    if (FT_Render_Glyph(face->glyph, FT_RENDER_MODE_NORMAL) != 0) throw EngineError{kQVBadParameterErr};
    const FT_Bitmap& bitmap = face->glyph->bitmap;
    if (bitmap.rows == 0 || bitmap.width == 0) continue;
    draw(bitmap, whole_x + face->glyph->bitmap_left, -(whole_y + face->glyph->bitmap_top));
  }
}

}  // namespace

// The union of the pixels each glyph covers at all, so a port of this box drawn with the same
// text has ink on each of its four edges.
QVErr EngineMeasureText(QVFontHandle font, const char* utf8, double size, QVIntRect* ink_box) {
  if (!utf8 || !ink_box) return kQVBadParameterErr;
  return WithFace(font, [&](FaceCache::Lease& lease) {
    int64_t left = INT64_MAX, top = INT64_MAX, right = INT64_MIN, bottom = INT64_MIN;
    LayOut(lease, utf8, size, [&](const FT_Bitmap& bitmap, int64_t x, int64_t y) {
      int64_t l = INT64_MAX, t = INT64_MAX, r = INT64_MIN, b = INT64_MIN;
      for (unsigned row = 0; row < bitmap.rows; ++row) {
        const uint8_t* line = BitmapRow(bitmap, row);
        for (unsigned col = 0; col < bitmap.width; ++col) {
          if (!line[col]) continue;
          l = std::min<int64_t>(l, col);
          r = std::max<int64_t>(r, col + 1);
          t = std::min<int64_t>(t, row);
          b = row + 1;
        }
      }
      if (r == INT64_MIN) return;  // coverage rounded to nothing
      left = std::min(left, x + l);
      top = std::min(top, y + t);
      right = std::max(right, x + r);
      bottom = std::max(bottom, y + b);
    });
    *ink_box = right == INT64_MIN ? QVIntRect{0, 0, 0, 0}
                                  : QVIntRect{int32_t(left), int32_t(top), int32_t(right), int32_t(bottom)};
    return kQVNoErr;
  });
}

QVErr EngineNewRasterPort(const QVIntRect* bounds, QVRasterPort* port) {
  return EngineCall([&] {
    if (!bounds || !port) return kQVBadParameterErr;
    const int64_t width = int64_t(bounds->right) - bounds->left, height = int64_t(bounds->bottom) - bounds->top;
    if (width < 0 || height < 0 || width * height > kMaxPortPixels) return kQVBadParameterErr;
    auto created = std::make_unique<Port>(Port{*bounds, int32_t(width), int32_t(height), {}});
    created->pixels.assign(size_t(width * height), 255);
    std::lock_guard lock(ports_mu);
    ports.insert(created.get());
    *port = reinterpret_cast<QVRasterPort>(created.release());
    return kQVNoErr;
  });
}

// Black ink over the port: each pixel keeps (255 - coverage) / 255 of its lightness, which is
// "over" compositing of black at the glyph's coverage, so touching glyphs darken as they should.
QVErr EngineDrawText(QVRasterPort handle, QVFontHandle font, const char* utf8, double size) {
  Port* port = FindPort(handle);
  if (!port || !utf8) return kQVBadParameterErr;
  return WithFace(font, [&](FaceCache::Lease& lease) {
    const QVIntRect& b = port->bounds;
    LayOut(lease, utf8, size, [&](const FT_Bitmap& bitmap, int64_t x, int64_t y) {
      const int64_t col_begin = std::max<int64_t>(0, b.left - x),
                    col_end = std::min<int64_t>(bitmap.width, b.right - x);
      const int64_t row_begin = std::max<int64_t>(0, b.top - y), row_end = std::min<int64_t>(bitmap.rows, b.bottom - y);
      for (int64_t row = row_begin; row < row_end; ++row) {
        const uint8_t* line = BitmapRow(bitmap, unsigned(row));
        uint8_t* out = port->pixels.data() + size_t(y + row - b.top) * size_t(port->width);
        for (int64_t col = col_begin; col < col_end; ++col) {
          uint8_t& pixel = out[x + col - b.left];
          if (const unsigned coverage = line[col]) pixel = uint8_t((pixel * (255u - coverage) + 127) / 255);
        }
      }
    });
    return kQVNoErr;
  });
}

QVErr EngineGetRasterPortPixels(QVRasterPort handle, QVIntRect* bounds, QVGreyPixels* pixels) {
  return EngineCall([&] {
    const Port* port = FindPort(handle);
    if (!port) return kQVBadParameterErr;
    if (bounds) *bounds = port->bounds;
    if (pixels)
      *pixels = {port->width, port->height, port->width, port->pixels.empty() ? nullptr : port->pixels.data()};
    return kQVNoErr;
  });
}

QVErr EngineDisposeRasterPort(QVRasterPort handle) {
  return EngineCall([&] {
    std::unique_ptr<Port> port;
    {
      std::lock_guard lock(ports_mu);
      auto* p = reinterpret_cast<Port*>(handle);
      if (!ports.erase(p)) return kQVBadParameterErr;
      port.reset(p);
    }
    return kQVNoErr;
  });
}

}  // namespace fontrix::host
