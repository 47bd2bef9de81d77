#include "object/operator_gradient.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <cmath>
#include <cstring>
#include <numbers>
#include <tuple>
#include <vector>

#include "common/vlgd_gui.h"
#include "platform/parallel.h"
#include "support/operator_fixture.h"
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
  using enum GRADIENTTYPE;
  // Heights at (column, row). Linear: t = (size / 4 - Z) / (size / 2), clamped. The
  // rectangle, size wide and 150 deep, takes the lower of two roofs. Degenerate extents
  // give a point, a step at Z = 0, and a type without a shape a flat grid.
  const struct {
    GRADIENTTYPE type;
    Float radius, size;
    std::vector<std::tuple<Int, Int, Float>> heights;
  } shapes[] = {
      {RADIAL, 200.0, 200.0, {{4, 4, 1.0}, {6, 4, 0.5}, {4, 0, 0.0}, {7, 7, 0.0}}},
      {LINEAR, 200.0, 200.0, {{2, 1, 0.0}, {2, 4, 0.5}, {5, 5, 1.0}, {0, 8, 1.0}}},
      {RECTANGULAR, 200.0, 200.0, {{4, 4, 1.0}, {5, 4, 0.5}, {4, 3, 1.0 / 3.0}, {5, 3, 1.0 / 3.0}, {4, 2, 0.0}}},
      {SQUARE, 200.0, 200.0, {{5, 5, 0.5}, {3, 4, 0.5}, {7, 4, 0.0}}},
      {RADIAL, 0.0, 200.0, {{4, 4, 1.0}, {5, 4, 0.0}, {0, 0, 0.0}}},
      {LINEAR, 0.0, 0.0, {{1, 3, 0.0}, {1, 4, 1.0}, {1, 5, 1.0}}},
      {static_cast<GRADIENTTYPE>(7), 200.0, 200.0, {{4, 4, 0.0}, {0, 8, 0.0}}},
  };
  for (const auto& shape : shapes) {
    SCOPED_TRACE(testing::Message() << "type " << static_cast<int>(shape.type) << ", radius " << shape.radius
                                    << ", size " << shape.size);
    ASSERT_TRUE(h.gradient->GetDataInstance().Set(GRADIENTOPERATOR_TYPE, static_cast<Int32>(shape.type)));
    h.Set(h.gradient, GRADIENTOPERATOR_RADIUS, shape.radius);
    h.Set(h.gradient, GRADIENTOPERATOR_SIZE, shape.size);
    h.gradient->SetDirty(DIRTYFLAGS_DATA);  // the type was put without the editor's notice
    ASSERT_TRUE(h.Rebuild());
    for (const auto& [x, y, height] : shape.heights) EXPECT_NEAR(h.Height(x, y), height, 1e-15) << x << ", " << y;
  }
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

// On a grid whose rows span several of the distortion's blocks (one thread takes them whole,
// several split the grid inside rows), every sample reads its own distorted point.
TEST(GradientOperatorTest, DistortedSamplesReadTheirOwnPoints) {
  DirectOperator g(ID_GRADIENTOPERATOR);
  SplineData linear;
  ASSERT_TRUE(linear.MakeLinearSpline(2));
  g.Set(GRADIENTOPERATOR_PROFILE, std::move(linear));
  g.Set(GRADIENTOPERATOR_RADIUS, 1000.0);
  g.Set(TERRAINDISTORTION_ENABLED, true);
  const TerrainDistortion distortion = TerrainDistortion::Read(ParameterReader(*g.op));
  const Grid2D<Float> flat = MakeGrid(
      601, 19, [](Int, Int) { return 0.0; }, 600.0, 90.0);
  for (const int threads : {1, MaxThreads()}) {
    const ScopedThreadLimit limit(threads);
    ASSERT_TRUE(g.Compute(flat));
    for (Int y = 0; y < flat.Height(); ++y)
      for (Int x = 0; x < flat.Width(); ++x) {
        Vector p = GridPoint(x, y, flat.Width(), flat.Height(), 600.0, 90.0);
        distortion.Apply(p);
        ASSERT_NEAR(g.Result().Get(x, y), 1.0 - std::sqrt(p.x * p.x + p.z * p.z) / 1000.0, 1e-9)
            << threads << " threads: " << x << ", " << y;
      }
  }
}

// Through every preset profile and the default one, the radial and rectangular shapes read
// each distorted point's profile value to the bit, as GetPoint gives it, on any number of
// threads and every SIMD target.
TEST(GradientOperatorTest, DistortedShapesReadTheProfileOfEachPoint) {
  std::vector<SplineData> profiles(13);
  for (Int32 preset = 0; preset < 13; ++preset) ASSERT_TRUE(ApplySplinePreset(profiles[preset], preset));
  ASSERT_TRUE(InitGradientProfile(profiles.emplace_back()));
  DirectOperator g(ID_GRADIENTOPERATOR);
  g.Set(GRADIENTOPERATOR_RADIUS, 320.0);
  g.Set(GRADIENTOPERATOR_SIZE, 500.0);
  g.Set(GRADIENTOPERATOR_HEIGHT, 300.0);
  g.Set(TERRAINDISTORTION_ENABLED, true);
  const TerrainDistortion distortion = TerrainDistortion::Read(ParameterReader(*g.op));
  const Grid2D<Float> flat = MakeGrid(
      181, 121, [](Int, Int) { return 0.0; }, 600.0, 400.0);
  const auto bitsEqual = [](Float a, Float b) { return std::memcmp(&a, &b, sizeof a) == 0; };
  for (const SplineData& profile : profiles) {
    g.Set(GRADIENTOPERATOR_PROFILE, profile);
    const auto curve = [&profile](Float t) { return profile.GetPoint(t).y; };
    for (const GRADIENTTYPE type : {GRADIENTTYPE::RADIAL, GRADIENTTYPE::RECTANGULAR}) {
      g.Set(GRADIENTOPERATOR_TYPE, static_cast<Int32>(type));
      for (const std::int64_t target : hwy::SupportedAndGeneratedTargets())
        for (const int threads : {1, MaxThreads()}) {
          hwy::SetSupportedTargetsForTest(target);
          const ScopedThreadLimit limit(threads);
          ASSERT_TRUE(g.Compute(flat));
          for (Int y = 0; y < flat.Height(); ++y)
            for (Int x = 0; x < flat.Width(); ++x) {
              Vector p = GridPoint(x, y, flat.Width(), flat.Height(), 600.0, 400.0);
              distortion.Apply(p);
              Float expected = 0.0;
              if (type == GRADIENTTYPE::RADIAL) {
                const Float distanceSquared = p.x * p.x + p.y * p.y + p.z * p.z;
                if (distanceSquared <= 320.0 * 320.0)
                  expected = curve(1.0 - std::sqrt(distanceSquared) * (1.0 / 320.0));
              } else if (std::abs(p.x) <= 250.0 && std::abs(p.z) <= 150.0) {
                const Float u = curve(1.0 - std::abs(p.x) * (1.0 / 250.0));
                const Float v = curve(1.0 - std::abs(p.z) * (1.0 / 150.0));
                expected = u <= v ? u : v;
              }
              ASSERT_PRED2(bitsEqual, g.Result().Get(x, y), expected)
                  << hwy::TargetName(target) << ", " << threads << " threads, type " << static_cast<int>(type) << ": "
                  << x << ", " << y;
            }
        }
      hwy::SetSupportedTargetsForTest(0);
    }
  }
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
