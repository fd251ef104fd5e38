#include "similarity/specimen.h"

#include <cmath>
#include <stdexcept>

#include "deepnet/network.h"
#include "similarity/similarity_table.h"

namespace fontrix {

const std::string& SpecimenText(int which) {
  static const std::string lower = "abcdefghijklmnopqrstuvwxyz";
  static const std::string upper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  return which == 0 ? lower : upper;
}

namespace {

bool DrawSpecimen(hostglue::FontAccess& fonts, QVFontHandle font, const std::string& text, Specimen& out) {
  QVIntRect box{};
  if (!fonts.MeasureText(font, text, kSpecimenSize, box)) return false;
  // Ink that does not rise above the baseline counts as no ink; no ink cannot be drawn.
  if (box.top >= 0) box = {0, 0, 0, 0};
  if (box.right <= box.left || box.bottom <= box.top) return false;
  hostglue::GreyImage image;
  if (!fonts.DrawText(font, text, kSpecimenSize, box, image)) return false;
  out.height = box.bottom - box.top;
  out.width = image.width;
  // The text is not scaled to the crop: only the first 109 rows, from the top of the ink, are used.
  if (out.height < kCropSide || image.height != out.height) return false;
  out.pixels = std::move(image.pixels);
  return true;
}

}  // namespace

int RenderSpecimens(hostglue::FontAccess& fonts, QVFontHandle font, Specimens& specimens) {
  specimens = Specimens();
  if (!fonts.IsUsable(font)) return kRenderUnusable;
  if (DrawSpecimen(fonts, font, SpecimenText(0), specimens.lower) &&
      DrawSpecimen(fonts, font, SpecimenText(1), specimens.upper))
    return kRenderOk;
  specimens = Specimens();
  return kRenderFailed;
}

std::vector<int> CropOffsets(int tiled) {
  std::vector<int> offsets;
  for (int c = 0; c < kCropsPerSpecimen; ++c)
    offsets.push_back(int(std::floor(double(c) * double(tiled - kCropSide) / double(kCropsPerSpecimen - 1))));
  return offsets;
}

std::vector<float> SpecimenCrops(const Specimen& specimen) {
  const int W = specimen.width;
  if (specimen.height < kCropSide || W < 1) throw std::runtime_error("SpecimenCrops(): specimen too small");
  const float scale = 1.0f;
  const int w = int(float(W) / scale);
  const int repeats = (kCropSide + w - 1) / w;
  const int tiled = repeats * w;
  const auto offsets = CropOffsets(tiled);
  std::vector<float> planes(size_t(kCropsPerSpecimen) * kCropSide * kCropSide);
  std::vector<float> row(static_cast<size_t>(tiled));
  for (int r = 0; r < kCropSide; ++r) {
    const uint8_t* p = specimen.pixels.data() + size_t(r) * size_t(W);
    // Resampled once per row, then copied for the tiles.
    for (int j = 0; j < w; ++j) {
      const float x = float(j) * scale;
      const int i = int(std::floor(x));
      const float f = x - float(i);
      float v;
      if (f != 0.0f) {
        const int m = std::min(i, W - 2);
        v = float(p[m]) + (float(p[m + 1]) - float(p[m])) * f;
      } else {
        v = float(p[i]);
      }
      for (int t = 0; t < repeats; ++t) row[size_t(t * w + j)] = v;
    }
    for (int c = 0; c < kCropsPerSpecimen; ++c) {
      float* out = planes.data() + (size_t(c) * kCropSide + size_t(r)) * kCropSide;
      for (int k = 0; k < kCropSide; ++k) out[k] = row[size_t(offsets[size_t(c)] + k)] - 128.0f;
    }
  }
  return planes;
}

std::vector<float> ComputeFeature(const deepnet::layer_model_list& network, const Specimens& specimens) {
  std::vector<float> feature(kFeatureDim, 0.0f);
  size_t at = 0;
  for (const Specimen* s : {&specimens.lower, &specimens.upper}) {
    const std::vector<float> crops = SpecimenCrops(*s);
    deepnet::input_view view{kCropSide, kCropSide, 1, kCropsPerSpecimen, crops.data()};
    deepnet::layer_test_list tests;
    deepnet::deepnet_construct_layer_test(tests, network, view, kCropsPerSpecimen);
    const auto& layer = *tests[deepnet::deepnet_compute_feature(network, tests, kCropsPerSpecimen, "pool4")];
    const uint64_t P = layer.y_size_1d();
    if (P % 2 != 0 || at + P / 2 > feature.size())
      throw std::runtime_error("ComputeFeature(): the network's pool4 does not give 768 values per font");
    float* half = feature.data() + at;
    for (uint64_t c = 0; c < kCropsPerSpecimen; ++c) {
      const float* y = layer.y.data() + c * P;
      for (uint64_t k = 0; k < P / 2; ++k) half[k] = std::max(half[k], std::max(y[2 * k], y[2 * k + 1]));
    }
    double sum = 0;
    for (uint64_t k = 0; k < P / 2; ++k) sum += double(half[k]) * half[k];
    const float norm = float(std::sqrt(sum));
    for (uint64_t k = 0; k < P / 2; ++k) half[k] /= norm;
    at += P / 2;
  }
  return feature;
}

}  // namespace fontrix
