// Labels and scoring: the fixed label order, the data table matching it, the raw linear score,
// the strict 0.5 threshold and the 99 debug lines.
#include "classification/attribute_scoring.h"

#include <gtest/gtest.h>

#include <cstring>

namespace fontrix {
namespace {

TEST(AttributeScoring, TheTableFollowsTheLabelOrder) {
  for (int n = 0; n < kLabelCount; ++n) EXPECT_STREQ(kModelLabels[n], LabelName(n)) << n;
  EXPECT_STREQ(LabelName(10), "r_attention-grabbing");
  EXPECT_EQ(kClassBits[7].bit, 128u);
  EXPECT_DOUBLE_EQ(kIntercepts[20], 0.55515);  // an attribute row: an untrained prior
}

TEST(AttributeScoring, ScoresAreInterceptPlusWeightedFeaturesAndTheMaskIsStrict) {
  FeatureVector zeros{};
  for (int n = 0; n < kLabelCount; ++n) EXPECT_EQ(ScoreLabel(n, zeros, false), kIntercepts[n]);
  // The zero vector scores each intercept, so its mask holds exactly the classes whose intercept
  // passes 0.5 (a score of exactly 0.5 would not).
  uint32_t expected = 0;
  for (int n = 0; n < 8; ++n)
    if (kIntercepts[n] > 0.5) expected |= kClassBits[n].bit;
  EXPECT_EQ(ClassMask(zeros), expected);
  testing::internal::CaptureStdout();
  ScoreLabel(6, zeros, true);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 99);
  EXPECT_EQ(out.rfind("attributeNum: 6\n", 0), 0u);
}

}  // namespace
}  // namespace fontrix
