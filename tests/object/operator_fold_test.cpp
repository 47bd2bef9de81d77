#include "object/operator_fold.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "platform/noise.h"
#include "platform/parallel.h"
#include "support/operator_fixture.h"

namespace {

using namespace platform;
using namespace VLGD;
using namespace testing_support;

// The fold written with plain comparisons; a mode outside the choice leaves every height.
Float FoldAsWritten(Int32 mode, Float v, Float level) {
  if (mode == 0 && v > level) return level - (v - level);
  if (mode == 1 && v < level) return level + (level - v);
  return v;
}

TEST(FoldOperatorTest, ReflectsHeightsBeyondTheLevel) {
  DirectOperator f(ID_FOLDOPERATOR);
  // At the default level 25 down reflects what lies above below, up the reverse; a height
  // on the level stays.
  const Grid2D<Float> in = Row({0.0, 10.0, 25.0, 30.0, 50.0, 60.5});
  ASSERT_TRUE(f.Compute(in));
  EXPECT_TRUE(Identical(f.Result(), Row({0.0, 10.0, 25.0, 20.0, 0.0, -10.5})));
  EXPECT_FALSE(f.Result().IsMinMaxValid());
  f.Set(FOLDOPERATOR_MODE, Int32{1});
  ASSERT_TRUE(f.Compute(in));
  EXPECT_TRUE(Identical(f.Result(), Row({50.0, 40.0, 25.0, 30.0, 50.0, 60.5})));

  // The branch-free fold agrees with the plain comparisons on awkward values too, in both
  // modes and in one only code can place.
  const Float inf = std::numeric_limits<Float>::infinity();
  const Float nan = std::numeric_limits<Float>::quiet_NaN();
  const Grid2D<Float> awkward = Row({0.0, -0.0, 1e-310, -1e-310, 1.5, -2.25, 1e308, -1e308, inf, -inf, nan});
  for (const Int32 mode : {0, 1, 2}) {
    for (const Float level : awkward.Values()) {
      f.Put(FOLDOPERATOR_MODE, mode);
      f.Put(FOLDOPERATOR_LEVEL, level);  // the editor refuses non-finite levels
      ASSERT_TRUE(f.Compute(awkward));
      for (Int i = 0; i < awkward.Count(); ++i) {
        const Float expected = FoldAsWritten(mode, awkward.Data()[i], level);
        const Float got = f.Out(i);
        EXPECT_TRUE(std::isnan(expected) ? std::isnan(got)
                                         : got == expected && std::signbit(got) == std::signbit(expected))
            << "mode " << mode << " level " << level << " v " << awkward.Data()[i] << ": " << got;
      }
    }
  }
}

TEST(FoldOperatorTest, TheNoiseMovesTheLevelAcrossTheGrid) {
  DirectOperator f(ID_FOLDOPERATOR);
  const Float sizeX = 300.0;
  const Float sizeY = 200.0;
  const Grid2D<Float> in = MakeGrid(
      7, 5, [](Int x, Int y) { return 20.0 + 2.0 * x - 1.5 * y; }, sizeX, sizeY);
  const auto expectFoldedAt = [&](const Grid2D<Float>& grid, Int32 mode, const auto& level) {
    for (Int y = 0; y < grid.Height(); ++y)
      for (Int x = 0; x < grid.Width(); ++x)
        EXPECT_EQ(f.Result().Get(x, y), FoldAsWritten(mode, grid.Get(x, y), level(x, y))) << x << ", " << y;
  };

  // Off while the strength is not above 0: scale and offset change nothing.
  f.Set(FOLDOPERATOR_NOISESCALE, 0.0);
  f.Set(FOLDOPERATOR_NOISEOFFSET, 5.0);
  f.Put(FOLDOPERATOR_NOISESTRENGTH, -4.0);
  ASSERT_TRUE(f.Compute(in));
  expectFoldedAt(in, 0, [](Int, Int) { return 25.0; });

  // Scale 0: frequency 0, the noise of the origin shifts the level everywhere alike.
  f.Set(FOLDOPERATOR_NOISESTRENGTH, 4.0);
  ASSERT_TRUE(f.Compute(in));
  expectFoldedAt(in, 0, [](Int, Int) { return 25.0 + ScalarNoise(Vector(0.0, 0.0, 0.0), 0.0) * 4.0; });

  // Scale 1.5: every sample reads the noise at its own place, frequency 1 / 150: x across
  // the columns from -SX/2, z down the rows from +SY/2, y the offset. One column divides by
  // W - 1 = 0, and the compute goes on regardless. The wide grid's rows span several of the
  // noise's blocks: one thread takes them whole, several split the grid inside rows.
  f.Set(FOLDOPERATOR_NOISESCALE, 1.5);
  f.Set(FOLDOPERATOR_MODE, Int32{1});
  const Float frequency = 1.0 / 150.0;
  const Grid2D<Float> column = MakeGrid(
      1, 3, [](Int, Int y) { return 10.0 * y; }, sizeX, sizeY);
  const Grid2D<Float> wide = MakeGrid(
      601, 19, [](Int x, Int y) { return 25.0 + static_cast<Float>((x * 7 + y * 3) % 9); }, sizeX, sizeY);
  for (const int threads : {1, MaxThreads()})
    for (const Grid2D<Float>* grid : {&in, &column, &wide}) {
      const ScopedThreadLimit limit(threads);
      const Float lastColumn = static_cast<Float>(grid->Width() - 1);
      const Float lastRow = static_cast<Float>(grid->Height() - 1);
      std::vector<Float> levels;
      ASSERT_TRUE(f.Compute(*grid));
      expectFoldedAt(*grid, 1, [&](Int x, Int y) {
        const Vector point(((static_cast<Float>(x) / lastColumn) * sizeX - sizeX * 0.5) * frequency, 5.0 * frequency,
                           (sizeY * 0.5 - (static_cast<Float>(y) / lastRow) * sizeY) * frequency);
        levels.push_back(25.0 + ScalarNoise(point, 0.0) * 4.0);
        return levels.back();
      });
      EXPECT_TRUE(grid != &in || levels.front() != levels.back()) << "the level does not vary";
    }
}

}  // namespace
