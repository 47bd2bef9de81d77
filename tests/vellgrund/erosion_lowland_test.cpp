#include "vellgrund/erosion_lowland.h"

#include <gtest/gtest.h>

#include <cmath>

#include "platform/noise.h"
#include "platform/parallel.h"
#include "support/operator_fixture.h"

namespace {

using namespace VLGD;
using namespace VLGD::Erosion;
using namespace testing_support;

// Heights 10 .. 30 along a row, so the unit height of column x is x / 20.
Grid2D<Float> Slope() {
  return MakeGrid(21, 3, [](Int x, Int) { return 10.0 + static_cast<Float>(x); });
}

// Without noise the level is the high level everywhere.
LowlandSettings FixedLevel(Float softness) {
  LowlandSettings settings;
  settings.noiseAmount = 0.0;
  settings.softness = softness;
  return settings;
}

TEST(LowlandFlattening, PowerCurveBelowTheLevelAndSmoothStepWithSoftness) {
  for (const Float softness : {0.0, 1.0, 0.5}) {
    Grid2D<Float> grid = Slope();
    ASSERT_TRUE(FlattenLowlands(grid, FixedLevel(softness)));
    for (Int x = 0; x <= 20; ++x) {
      const Float t = static_cast<Float>(x) / 20.0;
      Float expected = t;
      if (t < 0.5) {
        Float u = std::pow(t / 0.5, 3.0) * t;
        const Float start = (1.0 - softness) * 0.5;
        if (softness > 0.0) {
          Float w = std::clamp((u - start) / (0.5 - start), 0.0, 1.0);
          w = w * w * (3.0 - 2.0 * w);
          u += (t - u) * w;
        }
        expected = u;
      }
      EXPECT_NEAR(grid.Get(x, 1), expected * 20.0 + 10.0, 1e-12) << softness << " " << x;
    }
  }
}

TEST(LowlandFlattening, FlatGridsStayAndTheNoiseMovesTheLevelBetweenItsBounds) {
  const Grid2D<Float> flat = MakeGrid(7, 5, [](Int, Int) { return 3.0; });
  Grid2D<Float> grid = Copy(flat);
  ASSERT_TRUE(FlattenLowlands(grid, LowlandSettings{}));
  EXPECT_TRUE(Identical(grid, flat));

  // Level between 0.25 + 0.6 x 0.25 and 0.5: heights at 0.5 and above never change, those
  // below 0.4 always do, and scale 0 samples the noise at one point for the whole grid.
  LowlandSettings noisy;
  const Grid2D<Float> slope = MakeGrid(
      101, 9, [](Int x, Int) { return static_cast<Float>(x); }, 500.0, 40.0);
  grid = Copy(slope);
  ASSERT_TRUE(FlattenLowlands(grid, noisy));
  for (Int y = 0; y < 9; ++y)
    for (Int x = 1; x <= 100; ++x) {
      if (x >= 50) {
        ASSERT_EQ(grid.Get(x, y), slope.Get(x, y));
      } else if (x < 40) {
        ASSERT_LT(grid.Get(x, y), slope.Get(x, y));
      }
    }
  // Every sample the noise decides reads it at its own place, on a grid whose rows span
  // several of the noise's blocks: one thread takes them whole, several split the grid
  // inside rows.
  const Grid2D<Float> wide = MakeGrid(
      601, 19, [](Int x, Int y) { return static_cast<Float>((x * 7 + y * 3) % 100); }, 600.0, 90.0);
  for (const int threads : {1, platform::MaxThreads()}) {
    const platform::ScopedThreadLimit limit(threads);
    grid = Copy(wide);
    ASSERT_TRUE(FlattenLowlands(grid, noisy));
    for (Int y = 0; y < wide.Height(); ++y)
      for (Int x = 0; x < wide.Width(); ++x) {
        const Vector point((static_cast<Float>(x) - 300.0) / 20.0, 0.0, (45.0 - 5.0 * static_cast<Float>(y)) / 20.0);
        const Float level = ((platform::ScalarNoise(point, 0.0) - 1.0) * 0.4 + 1.0) * 0.25 + 0.25;
        const Float t = wide.Get(x, y) / 99.0;
        const Float expected = t < level ? std::pow(t / level, 3.0) * t * 99.0 : wide.Get(x, y);
        ASSERT_NEAR(grid.Get(x, y), expected, 1e-9) << threads << " threads: " << x << ", " << y;
      }
  }
  noisy.noiseScale = 0.0;
  grid = Copy(slope);
  ASSERT_TRUE(FlattenLowlands(grid, noisy));
  const Float level = ((platform::ScalarNoise(Vector(0.0), 0.0) - 1.0) * 0.4 + 1.0) * 0.25 + 0.25;
  for (Int x = 1; x <= 100; ++x) {
    const Float t = static_cast<Float>(x) / 100.0;
    const Float expected = t < level ? std::pow(t / level, 3.0) * t * 100.0 : slope.Get(x, 0);
    ASSERT_NEAR(grid.Get(x, 4), expected, 1e-12) << x;
  }
}

}  // namespace
