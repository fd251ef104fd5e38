#pragma once
// Scoring of labels by linear regression over the 96 font features, and the class bitmask.
// The tables are data: the build generates them from data/classification_weights.tsv.
#include <array>
#include <cstdint>

#include "classification/labels.h"

namespace fontrix {

using FeatureVector = std::array<double, kFeatureCount>;

extern const char* const kModelLabels[kLabelCount];  ///< the table's own label column, checked against LabelName
extern const double kIntercepts[kLabelCount];
extern const double kCoefficients[kLabelCount][kFeatureCount];

/// Intercept plus the weighted features, summed in feature order in double precision; the raw
/// linear value (no squashing). With `debug`, 99 lines describing the sum go to standard output:
/// the scoring's own diagnostic, kept as defined for the module although nothing in it sets the
/// flag (ClassMask scores with it off), so a host never sees it.
double ScoreLabel(int32_t n, const FeatureVector& features, bool debug);

/// The bits of the style classes scoring strictly above 0.5.
uint32_t ClassMask(const FeatureVector& features);
/// The same from the eight style classes' scores, in class order: a NaN score sets no bit.
uint32_t ClassMaskOfScores(const std::array<double, kStyleClassCount>& scores);

}  // namespace fontrix
