// Labels and scoring: the fixed label order, the data table matching it, the raw linear score,
// the class mask's strict 0.5 threshold and the 99 debug lines.
#include "classification/attribute_scoring.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

namespace fontrix {
namespace {

TEST(AttributeScoring, TheTableFollowsTheLabelOrder) {
  for (int n = 0; n < kLabelCount; ++n) EXPECT_STREQ(kModelLabels[n], LabelName(n)) << n;
  EXPECT_STREQ(LabelName(10), "r_attention-grabbing");
  EXPECT_EQ(kClassBits[7].bit, 128u);
}

TEST(AttributeScoring, ScoresAreInterceptPlusWeightedFeatures) {
  FeatureVector zeros{}, some{};
  some[0] = 1;
  some[47] = -2.5;
  // An attribute row is an untrained prior: weights 0, so every font scores its intercept.
  EXPECT_DOUBLE_EQ(ScoreLabel(20, some, false), 0.55515);
  EXPECT_DOUBLE_EQ(ScoreLabel(6, zeros, false), kIntercepts[6]);
  EXPECT_DOUBLE_EQ(ScoreLabel(6, some, false), kIntercepts[6] + kCoefficients[6][0] - 2.5 * kCoefficients[6][47]);

  testing::internal::CaptureStdout();
  ScoreLabel(6, zeros, true);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 99);
  EXPECT_EQ(out.rfind("attributeNum: 6\n", 0), 0u);
}

TEST(AttributeScoring, TheMaskHoldsTheClassesScoringStrictlyAboveOneHalf) {
  const double above = std::nextafter(0.5, 1.0), below = std::nextafter(0.5, 0.0);
  const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
  // Classes in table order: blackletter, decorative, handmade, monospace, sans serif, script,
  // serif, slab serif; class n is bit n.
  EXPECT_EQ(ClassMaskOfScores({0.5, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5}), 0u);
  EXPECT_EQ(ClassMaskOfScores({above, below, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5}), 0b00000001u);
  EXPECT_EQ(ClassMaskOfScores({0.5, 0.5, 0.5, 0.5, 0.5, 0.5, below, above}), 0b10000000u);
  EXPECT_EQ(ClassMaskOfScores({0.9, 0.2, 0.51, 0.5, -3.0, 2.0, 0.49, 0.7}), 0b10100101u);
  EXPECT_EQ(ClassMaskOfScores({1, 1, 1, 1, 1, 1, 1, 1}), 0b11111111u);
  // A NaN score (features that could not be measured) sets no bit; an infinite one counts as
  // the side of 0.5 it is on.
  EXPECT_EQ(ClassMaskOfScores({nan, nan, -inf, nan, nan, nan, nan, nan}), 0u);
  EXPECT_EQ(ClassMaskOfScores({nan, inf, -inf, 0.5, 0.5, 0.5, 0.5, 0.5}), 0b00000010u);
}

}  // namespace
}  // namespace fontrix
