#include "classification/attribute_scoring.h"

#include <iostream>

namespace fontrix {

double ScoreLabel(int32_t n, const FeatureVector& features, bool debug) {
  const double* w = kCoefficients[n];
  double sum = kIntercepts[n];
  for (int j = 0; j < kFeatureCount; ++j) sum += w[j] * features[size_t(j)];
  if (debug) {
    std::cout << "attributeNum: " << n << '\n';
    for (int j = 0; j < kFeatureCount; ++j)
      std::cout << "feature[" << j << "] = " << features[size_t(j)] << ", coef[" << j << "] = " << w[j] << '\n';
    std::cout << "intercept: " << kIntercepts[n] << '\n' << "returnVal: " << sum << '\n';
  }
  return sum;
}

uint32_t ClassMask(const FeatureVector& features) {
  std::array<double, kStyleClassCount> scores;
  for (int c = 0; c < kStyleClassCount; ++c) scores[size_t(c)] = ScoreLabel(kClassBits[c].attribute, features, false);
  return ClassMaskOfScores(scores);
}

uint32_t ClassMaskOfScores(const std::array<double, kStyleClassCount>& scores) {
  uint32_t mask = 0;
  for (int c = 0; c < kStyleClassCount; ++c)
    if (scores[size_t(c)] > 0.5) mask |= kClassBits[c].bit;
  return mask;
}

}  // namespace fontrix
