#include "object/operator_gradient.h"

#include <gtest/gtest.h>

#include <numbers>

#include "support/terrain_harness.h"
#include "vellgrund/distortion.h"

namespace {

using namespace platform;
using namespace testing_support;
using namespace VLGD;

// 8 x 8 cells of 50 units over 400 x 400: column x lies at X = 50 x - 200, row y at
// Z = 200 - 50 y.
struct GradientHarness : TerrainHarness {
  GradientHarness() : TerrainHarness(8, 400.0) {
    gradient = AddOperator(ID_GRADIENTOPERATOR, "gradient");
    SplineData linear;
    EXPECT_TRUE(linear.MakeLinearSpline(2));
    Set(gradient, GRADIENTOPERATOR_PROFILE, std::move(linear));
  }
  void Shape(GRADIENTTYPE type) { Set(gradient, GRADIENTOPERATOR_TYPE, static_cast<Int32>(type)); }
  Node* gradient = nullptr;
};

TEST(GradientOperatorTest, ShapesFollowTheirExtentsThroughTheProfile) {
  GradientHarness h;
  h.Shape(GRADIENTTYPE::RADIAL);
  h.Set(h.gradient, GRADIENTOPERATOR_RADIUS, 200.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Height(4, 4), 1.0);
  EXPECT_DOUBLE_EQ(h.Height(6, 4), 0.5);
  EXPECT_DOUBLE_EQ(h.Height(4, 0), 0.0);
  EXPECT_EQ(h.Height(7, 7), 0.0);  // outside the radius

  h.Shape(GRADIENTTYPE::LINEAR);  // t = (50 - Z) / 100, clamped
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "gradient");
  EXPECT_EQ(h.Height(2, 1), 0.0);
  EXPECT_DOUBLE_EQ(h.Height(2, 4), 0.5);
  EXPECT_DOUBLE_EQ(h.Height(5, 5), 1.0);
  EXPECT_EQ(h.Height(0, 8), 1.0);

  h.Shape(GRADIENTTYPE::RECTANGULAR);  // 200 wide, 150 deep: the lower of two roofs
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Height(4, 4), 1.0);
  EXPECT_DOUBLE_EQ(h.Height(5, 4), 0.5);
  EXPECT_DOUBLE_EQ(h.Height(4, 3), 1.0 - 50.0 / 75.0);
  EXPECT_DOUBLE_EQ(h.Height(5, 3), 1.0 - 50.0 / 75.0);
  EXPECT_EQ(h.Height(4, 2), 0.0);  // 100 north: outside

  h.Shape(GRADIENTTYPE::SQUARE);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_DOUBLE_EQ(h.Height(5, 5), 0.5);
  EXPECT_DOUBLE_EQ(h.Height(3, 4), 0.5);
  EXPECT_EQ(h.Height(7, 4), 0.0);

  // Degenerate extents.
  h.Shape(GRADIENTTYPE::RADIAL);
  h.Set(h.gradient, GRADIENTOPERATOR_RADIUS, 0.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Height(4, 4), 1.0);
  EXPECT_EQ(h.Terrain().GetGrid().Minimum(), 0.0);
  EXPECT_EQ(h.Height(5, 4), 0.0);
  h.Shape(GRADIENTTYPE::LINEAR);
  h.Set(h.gradient, GRADIENTOPERATOR_SIZE, 0.0);  // a step at Z = 0
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Height(1, 3), 0.0);
  EXPECT_EQ(h.Height(1, 4), 1.0);
  EXPECT_EQ(h.Height(1, 5), 1.0);
  ASSERT_TRUE(h.gradient->GetDataInstance().Set(GRADIENTOPERATOR_TYPE, Int32{7}));  // no shape: flat
  h.gradient->SetDirty(DIRTYFLAGS_DATA);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Terrain().GetGrid().Maximum(), 0.0);
}

TEST(GradientOperatorTest, TheShapeMovesWithTheOperatorAndTheDistortion) {
  GradientHarness h;
  h.Set(h.gradient, GRADIENTOPERATOR_RADIUS, 100.0);
  h.gradient->SetMl(TranslationMatrix({100.0, 0.0, -50.0}));
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Height(6, 5), 1.0);
  EXPECT_EQ(h.Height(4, 4), 0.0);
  h.gradient->SetMl(Matrix());

  // Distortion at a right angle pushes samples along X only: a linear ramp stays as it was.
  h.Shape(GRADIENTTYPE::LINEAR);
  ASSERT_TRUE(h.Rebuild());
  // Each build makes a new grid: read the current one.
  const auto heights = [&h] {
    const Grid2D<Float>& grid = h.Terrain().GetGrid();
    return std::vector<Float>(grid.Data(), grid.Data() + grid.Count());
  };
  const std::vector<Float> straight = heights();
  h.Set(h.gradient, TERRAINDISTORTION_ENABLED, true);
  h.Set(h.gradient, TERRAINDISTORTION_ANGLE, std::numbers::pi / 2.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "gradient");
  const std::vector<Float> turned = heights();
  for (std::size_t k = 0; k < straight.size(); ++k) EXPECT_NEAR(turned[k], straight[k], 1e-9);
  h.Set(h.gradient, TERRAINDISTORTION_ANGLE, 0.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_NE(heights(), straight);
}

TEST(GradientOperatorTest, AMissingProfileIsReported) {
  GradientHarness h;
  ASSERT_TRUE(h.gradient->GetDataInstance().Remove(GRADIENTOPERATOR_PROFILE));
  h.gradient->SetDirty(DIRTYFLAGS_DATA);
  const Status status = h.Rebuild();
  ASSERT_FALSE(status);
  EXPECT_EQ(status.error().message, "Could not access SplineData!");
}

}  // namespace
