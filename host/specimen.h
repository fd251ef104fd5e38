#pragma once
// Specimens: text drawn in an installed font through the host's font engine, as the module
// draws it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "sdk/qv_font_engine.h"
#include "sdk/qv_font_suites.h"

namespace fontrix::host {

/// Text drawn over its ink box.
struct Specimen {
  QVIntRect box{};  ///< the ink box: pixels, y down, the text's baseline origin at (0, 0)
  int32_t width = 0, height = 0;
  std::vector<uint8_t> pixels;  ///< `height` rows of `width` pixels, 0 black ink to 255 white
  QVGreyPixels Pixels() const { return {width, height, width, pixels.data()}; }
};

/// The most pixels a specimen may cover, as the host's raster ports allow.
inline constexpr int64_t kLargestSpecimenPixels = int64_t{64} << 20;

/// Draws `text` (UTF-8) in `font` at `size` pixels to the em through the engine procedures that
/// `glue` gives by name, the way the module binds them: MeasureText, NewRasterPort over the ink
/// box, DrawText, GetRasterPortPixels, DisposeRasterPort. Throws std::runtime_error naming the
/// step that failed, or saying the text has no ink or would cover more than kLargestSpecimenPixels.
Specimen DrawSpecimen(const QVFontGlueSuite& glue, QVFontHandle font, const std::string& text, double size);

/// Up to `limit` of `names` that look like `name`, for "did you mean": names that contain it or
/// that it contains (case ignored) first, then names within a few edits of it, nearest first.
std::vector<std::string> CloseNames(const std::vector<std::string>& names, const std::string& name, size_t limit = 5);

}  // namespace fontrix::host
