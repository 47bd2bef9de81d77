#include "common/vlgd_gui.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace VLGD {
namespace {

using platform::Float;
using platform::Int32;
using platform::SplineData;
using platform::SplineKnot;
using platform::Vector;

struct ExpectedKnot {
  Float x, y;
  Vector left, right;
  Int32 flags = 0;
};

// Tangents a knot keeps from its insertion: horizontal, a third of the distance to the
// neighbour that existed then (knots are inserted left to right, so none on the right).
Vector Inserted(Float distanceLeft) {
  return Vector(-distanceLeft / 3.0, 0.0, 0.0);
}

struct PresetCase {
  SPLINEDATAPRESET preset;
  std::vector<ExpectedKnot> knots;
};

std::vector<PresetCase> PresetTable() {
  const Vector zero;
  auto v = [](Float x, Float y) { return Vector(x, y, 0.0); };
  const Int32 broken = platform::kKnotFlagBreakTangents;
  return {
      {SPLINEDATAPRESET::CANYON, {{0, 0, zero, zero}, {1, 1, v(-0.5, 0), zero}}},
      {SPLINEDATAPRESET::GLACIER, {{0, 0, zero, v(0.5, 0)}, {1, 1, zero, zero}}},
      {SPLINEDATAPRESET::PLATEAU,
       {{0, 0, zero, zero},
        {0.45, 0.5, v(-0.1, 0), v(0.1, 0)},
        {0.55, 0.5, v(-0.1, 0), v(0.1, 0)},
        {1, 1, zero, zero}}},
      {SPLINEDATAPRESET::EMPHASIZE, {{0, 0, zero, v(0.5, 0)}, {1, 1, v(-0.5, 0), zero}}},
      {SPLINEDATAPRESET::TERRACE_1,
       {{0, 0, zero, zero},
        {0.25, 0.25, v(-0.15, 0), v(0.15, 0)},
        {0.5, 0.5, v(-0.15, 0), v(0.15, 0)},
        {0.75, 0.75, v(-0.15, 0), v(0.15, 0)},
        {1, 1, zero, zero}}},
      {SPLINEDATAPRESET::TERRACE_2,
       {{0, 0, zero, zero},
        {0.2, 0.2, v(-0.1, 0), v(0.1, 0)},
        {0.4, 0.4, v(-0.1, 0), v(0.1, 0)},
        {0.6, 0.6, v(-0.1, 0), v(0.1, 0)},
        {0.8, 0.8, Inserted(0.2), zero},  // untouched
        {1, 1, zero, zero}}},
      {SPLINEDATAPRESET::DUNES, {{0, 0, zero, v(0.2, 0)}, {0.5, 0.5, v(-0.2, 0), v(0.2, 0)}, {1, 0, v(-0.2, 0), zero}}},
      {SPLINEDATAPRESET::DUNES_2,
       {{0, 0, zero, v(0.2, 0)}, {0.5, 0.5, v(-0.2, 0.3), v(0.2, 0.3), broken}, {1, 0, v(-0.2, 0), zero}}},
      {SPLINEDATAPRESET::GLACIER_2, {{0, 0, zero, v(0.75, 0)}, {1, 1, v(-0.1, 0), zero}}},
      {SPLINEDATAPRESET::PLATEAU_2,
       {{0, 0, zero, zero}, {0.5, 0.5, v(-0.2, 0), v(0.2, 0)}, {1, 1, Inserted(0.5), zero}}},  // knot 2 untouched
      {SPLINEDATAPRESET::CRATERS,
       {{0, 0.5, zero, v(0.2, -0.2)}, {0.5, 0.2, v(-0.2, -0.3), v(0.2, -0.3), broken}, {1, 0.5, v(-0.2, -0.3), zero}}},
      {SPLINEDATAPRESET::FLATTENVALLEYS, {{0, 0, zero, v(0.25, 0)}, {1, 1, zero, zero}}},
  };
}

void ExpectVectorNear(const Vector& actual, const Vector& expected, const std::string& what) {
  EXPECT_NEAR(actual.x, expected.x, 1e-12) << what;
  EXPECT_NEAR(actual.y, expected.y, 1e-12) << what;
  EXPECT_EQ(actual.z, 0.0) << what;
}

TEST(SplinePresetTest, PresetsHaveTheirKnotsAndTangents) {
  for (const PresetCase& expected : PresetTable()) {
    const Int32 preset = static_cast<Int32>(expected.preset);
    SCOPED_TRACE("preset " + std::to_string(preset));
    SplineData curve;
    ASSERT_TRUE(curve.InsertKnot(0.3, 0.9));  // whatever was there goes
    ASSERT_TRUE(ApplySplinePreset(curve, preset));
    ASSERT_EQ(curve.GetKnotCount(), static_cast<Int32>(expected.knots.size()));
    for (Int32 k = 0; k < curve.GetKnotCount(); ++k) {
      const SplineKnot& knot = *curve.GetKnot(k);
      const ExpectedKnot& want = expected.knots[static_cast<std::size_t>(k)];
      const std::string what = "knot " + std::to_string(k);
      ExpectVectorNear(knot.position, Vector(want.x, want.y, 0.0), what + " position");
      ExpectVectorNear(knot.leftTangent, want.left, what + " left");
      ExpectVectorNear(knot.rightTangent, want.right, what + " right");
      EXPECT_EQ(knot.flags, want.flags) << what;
    }
    // Every preset is a usable transfer curve: finite and within reach of the unit square.
    for (int i = 0; i <= 1000; ++i) {
      const Float y = curve.GetPoint(i / 1000.0).y;
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
    for (int i = 0; i <= 100; ++i) EXPECT_NEAR(curve.GetPoint(i / 100.0).y, i / 100.0, 1e-12);
  }
}

TEST(GradientProfileTest, DefaultProfile) {
  SplineData profile;
  ASSERT_TRUE(ApplySplinePreset(profile, static_cast<Int32>(SPLINEDATAPRESET::DUNES)));
  ASSERT_TRUE(InitGradientProfile(profile));
  ASSERT_EQ(profile.GetKnotCount(), 2);
  EXPECT_EQ(profile.GetKnot(0)->position, Vector(0.0, 0.0, 0.0));
  EXPECT_EQ(profile.GetKnot(1)->position, Vector(1.0, 1.0, 0.0));
  EXPECT_EQ(profile.GetKnot(0)->rightTangent, Vector(0.5, 0.0, 0.0));
  EXPECT_EQ(profile.GetKnot(1)->leftTangent, Vector(-0.2, 0.0, 0.0));
  EXPECT_LT(profile.GetPoint(0.5).y, 0.5);
}

}  // namespace
}  // namespace VLGD
