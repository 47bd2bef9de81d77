#include "common/vlgd_gui.h"

#include <cmath>
#include <string>

#include <gtest/gtest.h>

namespace VLGD {
namespace {

using platform::Int32;
using platform::SplineData;
using platform::Vector;

TEST(SplinePresetTest, EveryPresetReplacesTheCurveWithAUsableTransferCurve) {
  for (Int32 preset = 1; preset <= static_cast<Int32>(SPLINEDATAPRESET::FLATTENVALLEYS); ++preset) {
    SCOPED_TRACE("preset " + std::to_string(preset));
    SplineData curve;
    ASSERT_TRUE(curve.InsertKnot(0.3, 0.9));  // whatever was there goes
    ASSERT_TRUE(ApplySplinePreset(curve, preset));
    EXPECT_EQ(curve.GetKnot(0)->position.x, 0.0);
    EXPECT_EQ(curve.GetKnot(curve.GetKnotCount() - 1)->position.x, 1.0);
    for (int i = 0; i <= 1000; ++i) {
      const platform::Float y = curve.GetPoint(i / 1000.0).y;
      ASSERT_TRUE(std::isfinite(y)) << "x " << i / 1000.0;
      EXPECT_GE(y, -0.5);
      EXPECT_LE(y, 1.5);
    }
  }
}

TEST(SplinePresetTest, LinearAndUnknownValuesAreIdentity) {
  SplineData linear;
  ASSERT_TRUE(linear.MakeLinearSpline(2));
  for (const Int32 preset : {0, 13, 999, -1}) {
    SCOPED_TRACE("preset " + std::to_string(preset));
    SplineData curve;
    ASSERT_TRUE(ApplySplinePreset(curve, preset));
    EXPECT_EQ(curve, linear);
  }
}

// Whatever curve was there, the default profile rises from the rim (0) to the centre (1),
// sagging between.
TEST(GradientProfileTest, DefaultProfile) {
  SplineData profile;
  ASSERT_TRUE(ApplySplinePreset(profile, static_cast<Int32>(SPLINEDATAPRESET::DUNES)));
  ASSERT_TRUE(InitGradientProfile(profile));
  ASSERT_EQ(profile.GetKnotCount(), 2);
  EXPECT_EQ(profile.GetKnot(0)->position, Vector(0.0, 0.0, 0.0));
  EXPECT_EQ(profile.GetKnot(1)->position, Vector(1.0, 1.0, 0.0));
  EXPECT_LT(profile.GetPoint(0.5).y, 0.5);
}

}  // namespace
}  // namespace VLGD
