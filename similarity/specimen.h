#pragma once
// Specimen imaging: a font drawn as two one-line specimens, each cut into five 109 x 109 crops
// that go through the similarity network, reduced to the font's 768-value feature vector.
#include <cstdint>
#include <string>
#include <vector>

#include "deepnet/layer_model.h"
#include "hostglue/font_access.h"

namespace fontrix {

constexpr int kCropSide = 109;
constexpr int kCropsPerSpecimen = 5;
constexpr double kSpecimenSize = 200;

/// "abcdefghijklmnopqrstuvwxyz", then "ABCDEFGHIJKLMNOPQRSTUVWXYZ".
const std::string& SpecimenText(int which);

/// One drawn specimen: `height` rows of `width` grey bytes (0 ink, 255 paper); (0, 0) when not drawn.
struct Specimen {
  int32_t height = 0, width = 0;
  std::vector<uint8_t> pixels;
};

struct Specimens {
  Specimen lower, upper;
};

enum RenderResult : int { kRenderOk = 0, kRenderUnusable = 1, kRenderFailed = -1 };

/// Draws the lower-case specimen, then (only if that succeeded) the upper-case one. 1: the font
/// is unusable; -1: a specimen could not be drawn or is under 109 rows (both sizes then (0, 0)).
int RenderSpecimens(hostglue::FontAccess& fonts, QVFontHandle font, Specimens& specimens);

/// The five crops of a specimen as network input: 5 planes of 109 x 109 values, pixel - 128.
/// The first 109 rows are used; each row is resampled (scale 1), tiled until it is at least
/// 109 wide, and the crops spread evenly from its left end to its right end.
std::vector<float> SpecimenCrops(const Specimen& specimen);
/// Left offsets of the five crops in a tiled row of width `tiled`.
std::vector<int> CropOffsets(int tiled);

/// The feature vector: per specimen, the network's "pool4" for its five crops, reduced by pairs
/// of adjacent values with max, combined over the crops with max (from 0), and scaled to unit
/// length; the lower-case specimen fills the first half.
std::vector<float> ComputeFeature(const deepnet::layer_model_list& network, const Specimens& specimens);

}  // namespace fontrix
