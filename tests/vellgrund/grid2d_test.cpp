#include "vellgrund/grid2d.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "platform/debug_stop.h"
#include "platform/parallel.h"

namespace VLGD {
namespace {

constexpr Float kLargest = std::numeric_limits<Float>::max();

Grid2D<Float> MakeGrid(Int width, Int height, const std::vector<Float>& values) {
  Grid2D<Float> grid;
  EXPECT_TRUE(grid.Init(width, height, 10.0, 20.0));
  for (Int i = 0; i < grid.Count(); ++i) grid.Values()[static_cast<std::size_t>(i)] = values[static_cast<std::size_t>(i)];
  return grid;
}

TEST(Grid2D, InitialisationShapesAndRefusals) {
  Grid2D<Float> grid;
  ASSERT_TRUE(grid.Init(4, 3, 100.0, 50.0));
  EXPECT_EQ(grid.Width(), 4);
  EXPECT_EQ(grid.Height(), 3);
  EXPECT_EQ(grid.Count(), 12);
  EXPECT_EQ(grid.SizeX(), 100.0);
  EXPECT_EQ(grid.SizeY(), 50.0);
  EXPECT_FALSE(grid.IsMinMaxValid());
  EXPECT_EQ(grid.Minimum(), kLargest);
  EXPECT_EQ(grid.Maximum(), -kLargest);
  for (Float value : grid.Values()) EXPECT_EQ(value, 0.0);

  grid.Set(3, 2, 7.0);
  EXPECT_EQ(grid.Values()[11], 7.0);
  EXPECT_EQ(grid.Get(3, 2), 7.0);

  // A copy is deep and keeps the range; InitFrom takes only the shape.
  grid.RecomputeRange();
  Grid2D<Float> copy;
  ASSERT_TRUE(copy.CopyFrom(grid));
  grid.Set(3, 2, 1.0);
  EXPECT_EQ(copy.Get(3, 2), 7.0);
  EXPECT_TRUE(copy.IsMinMaxValid());
  EXPECT_EQ(copy.Maximum(), 7.0);
  Grid2D<Vector> shaped;
  ASSERT_TRUE(shaped.InitFrom(copy));
  EXPECT_EQ(shaped.Count(), 12);
  EXPECT_EQ(shaped.SizeX(), 100.0);
  EXPECT_EQ(shaped.Get(3, 2), Vector());
  EXPECT_EQ(shaped.Minimum(), Vector(kLargest));

  for (auto [width, height, sizeX, sizeY] : {std::tuple{-1, 2, 1.0, 1.0}, std::tuple{2, -1, 1.0, 1.0},
                                             std::tuple{2, 2, 0.0, 1.0}, std::tuple{2, 2, 1.0, -3.0},
                                             std::tuple{2, 2, std::nan(""), 1.0}}) {
    auto status = grid.Init(width, height, sizeX, sizeY);
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().message, "Invalid grid initialization arguments!");
  }

  // An absurd resolution is an error value, not a crash, and leaves the grid empty.
  auto absurd = grid.Init(std::numeric_limits<Int>::max() / 2, 4, 1.0, 1.0);
  ASSERT_FALSE(absurd);
  EXPECT_EQ(absurd.error().kind, platform::ErrorKind::OutOfMemory);
  EXPECT_EQ(grid.Count(), 0);
  auto huge = grid.Init(1'000'000'000, 1'000'000'000, 1.0, 1.0);
  ASSERT_FALSE(huge);
  EXPECT_EQ(huge.error().kind, platform::ErrorKind::OutOfMemory);

  grid.Reset();
  EXPECT_EQ(grid.Count(), 0);
  EXPECT_EQ(grid.SizeX(), 0.0);
  // A reset grid's zero sizes travel with InitFrom as they stand.
  EXPECT_TRUE(shaped.InitFrom(grid));
  EXPECT_EQ(shaped.Count(), 0);
}

TEST(Grid2D, RangeWidensPerValueAndPerComponent) {
  Grid2D<Float> grid = MakeGrid(3, 1, {2.0, -1.0, 5.0});
  grid.IncludeInRange(3.0);
  EXPECT_EQ(grid.Minimum(), 3.0);
  EXPECT_EQ(grid.Maximum(), 3.0);
  grid.RecomputeRange();
  EXPECT_TRUE(grid.IsMinMaxValid());
  EXPECT_EQ(grid.Minimum(), -1.0);
  EXPECT_EQ(grid.Maximum(), 5.0);

  Grid2D<Vector> vectors;
  ASSERT_TRUE(vectors.Init(2, 1, 1.0, 1.0));
  vectors.Set(0, 0, Vector(1.0, -2.0, 3.0));
  vectors.Set(1, 0, Vector(-1.0, 4.0, 0.0));
  vectors.RecomputeRange();
  EXPECT_EQ(vectors.Minimum(), Vector(-1.0, -2.0, 0.0));
  EXPECT_EQ(vectors.Maximum(), Vector(1.0, 4.0, 3.0));
}

TEST(Grid2D, SamplingModes) {
  // Columns 0..3 hold 0, 10, 20, 30 on row 0 and 100 more on row 1.
  Grid2D<Float> ramp = MakeGrid(4, 2, {0, 10, 20, 30, 100, 110, 120, 130});

  // Nearest rounds half up and treats unknown interpolation values as nearest.
  EXPECT_EQ(ramp.Sample(2.5, 0.0, SAMPLEINTERPOLATION::NEAREST), 30.0);
  EXPECT_EQ(ramp.Sample(2.49, 0.5, SAMPLEINTERPOLATION::NEAREST), 120.0);
  EXPECT_EQ(ramp.Sample(1.2, 0.2, static_cast<SAMPLEINTERPOLATION>(7)), 10.0);

  // Bilinear: exact at integral coordinates, linear between, clamped at the last column.
  EXPECT_EQ(ramp.Sample(2.0, 1.0, SAMPLEINTERPOLATION::BILINEAR), 120.0);
  EXPECT_DOUBLE_EQ(ramp.Sample(1.25, 0.5, SAMPLEINTERPOLATION::BILINEAR), 62.5);
  EXPECT_EQ(ramp.Sample(3.0, 0.0, SAMPLEINTERPOLATION::BILINEAR), 30.0);
  EXPECT_DOUBLE_EQ(ramp.Sample(3.5, 0.0, SAMPLEINTERPOLATION::BILINEAR), 30.0);

  // Bicubic: exact at samples, reproduces a linear ramp inside, overshoots at a step.
  EXPECT_DOUBLE_EQ(ramp.Sample(2.0, 0.0, SAMPLEINTERPOLATION::BICUBIC), 20.0);
  EXPECT_DOUBLE_EQ(ramp.Sample(1.5, 0.0, SAMPLEINTERPOLATION::BICUBIC), 15.0);
  Grid2D<Float> step = MakeGrid(6, 1, {0, 0, 0, 1, 1, 1});
  EXPECT_LT(step.Sample(1.5, 0.0, SAMPLEINTERPOLATION::BICUBIC), 0.0);
  EXPECT_GT(step.Sample(3.5, 0.0, SAMPLEINTERPOLATION::BICUBIC), 1.0);
  EXPECT_DOUBLE_EQ(step.Sample(2.5, 0.0, SAMPLEINTERPOLATION::BICUBIC), 0.5);
  // Catmull-Rom weights at mu = 0.5 across a step: -1/16 undershoot.
  EXPECT_DOUBLE_EQ(step.Sample(1.5, 0.0, SAMPLEINTERPOLATION::BICUBIC), -0.0625);
  EXPECT_DOUBLE_EQ(Hermite(0.0, 0.0, 1.0, 1.0, 0.5, 0.0, 0.0), 0.5);
}

TEST(Grid2D, NormalsInsideAndAtTheBorder) {
  Grid2D<Float> flat = MakeGrid(3, 3, std::vector<Float>(9, 4.0));
  for (Int y = 0; y < 3; ++y)
    for (Int x = 0; x < 3; ++x) EXPECT_EQ(flat.Normal(x, y), Vector(0.0, 1.0, 0.0));

  // Heights rise by 1 per column: inside dx = -2, at a border the neighbour is the sample
  // itself, so dx = -1 (half as steep).
  Grid2D<Float> slope = MakeGrid(3, 2, {0, 1, 2, 0, 1, 2});
  const Vector inner = slope.Normal(1, 0);
  const Float innerLength = std::sqrt(4.0 + 4.0);
  EXPECT_DOUBLE_EQ(inner.x, -2.0 / innerLength);
  EXPECT_DOUBLE_EQ(inner.y, 2.0 / innerLength);
  EXPECT_EQ(inner.z, 0.0);
  const Vector border = slope.Normal(2, 1);
  EXPECT_DOUBLE_EQ(border.x, -1.0 / std::sqrt(5.0));
  EXPECT_DOUBLE_EQ(border.y, 2.0 / std::sqrt(5.0));
  // Rows: dz = v(x, y-1) - v(x, y+1).
  Grid2D<Float> rows = MakeGrid(1, 3, {0, 1, 2});
  EXPECT_DOUBLE_EQ(rows.Normal(0, 1).z, -2.0 / innerLength);

  Grid2D<Vector> map;
  ASSERT_TRUE(map.ComputeNormals(slope));
  EXPECT_EQ(map.Width(), 3);
  EXPECT_EQ(map.Height(), 2);
  EXPECT_EQ(map.SizeY(), 20.0);
  for (Int y = 0; y < 2; ++y)
    for (Int x = 0; x < 3; ++x) EXPECT_EQ(map.Get(x, y), slope.Normal(x, y));

  // An empty source gives an empty map; a non-positive size is refused and the map keeps its state.
  Grid2D<Float> empty;
  ASSERT_TRUE(empty.Init(0, 5, 1.0, 1.0));
  Grid2D<Vector> emptyMap;
  ASSERT_TRUE(emptyMap.ComputeNormals(empty));
  EXPECT_EQ(emptyMap.Count(), 0);
  Grid2D<Float> sizeless;
  auto refused = map.ComputeNormals(sizeless);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().message, "Invalid grid initialization arguments!");
  EXPECT_EQ(refused.error().kind, platform::ErrorKind::IllegalArgument);
  EXPECT_EQ(map.Count(), 6);
}

TEST(Grid2D, NormalizeMapsTheRangeAndKeepsTheOldBounds) {
  Grid2D<Float> grid = MakeGrid(3, 1, {2.0, 4.0, 6.0});
  ASSERT_TRUE(grid.Normalize(1.0, 0.0));
  EXPECT_EQ(grid.Get(0, 0), 0.0);
  EXPECT_EQ(grid.Get(1, 0), 0.5);
  EXPECT_EQ(grid.Get(2, 0), 1.0);
  EXPECT_EQ(grid.Minimum(), 2.0);
  EXPECT_EQ(grid.Maximum(), 6.0);

  ASSERT_TRUE(grid.Normalize(10.0, -5.0));
  EXPECT_EQ(grid.Get(0, 0), -5.0);
  EXPECT_EQ(grid.Get(2, 0), 5.0);

  Grid2D<Float> flat = MakeGrid(2, 2, {3.0, 3.0, 3.0, 3.0});
  ASSERT_TRUE(flat.Normalize(1.0, 0.0));
  for (Float value : flat.Values()) EXPECT_EQ(value, 3.0);

  // Vector grids refuse: a debug stop naming the unit, an error, and no change.
  std::vector<std::string> stops;
  platform::ScopedDebugStopHandler handler(
      [&stops](std::string_view unit, std::string_view message) { stops.push_back(std::string(unit) + ": " + std::string(message)); });
  Grid2D<Vector> vectors;
  ASSERT_TRUE(vectors.Init(1, 1, 1.0, 1.0));
  vectors.Set(0, 0, Vector(3.0, 4.0, 5.0));
  auto refused = vectors.Normalize(1.0, 0.0);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().message, "Grid2D<Vector>::Normalize() not implemented yet!");
  ASSERT_EQ(stops.size(), 1u);
  EXPECT_EQ(stops[0], "grid2d: Grid2D<Vector>::Normalize() not implemented yet!");
  EXPECT_EQ(vectors.Get(0, 0), Vector(3.0, 4.0, 5.0));

  platform::CancellationToken token;
  token.Cancel();
  Grid2D<Float> big;
  ASSERT_TRUE(big.Init(200, 200, 1.0, 1.0));
  big.Set(5, 5, 1.0);
  auto cancelled = big.Normalize(1.0, 0.0, &token);
  ASSERT_FALSE(cancelled);
  EXPECT_EQ(cancelled.error().kind, platform::ErrorKind::Cancelled);
}

TEST(Grid2D, ResultsDoNotDependOnTheThreadCount) {
  Grid2D<Float> heights;
  ASSERT_TRUE(heights.Init(301, 257, 10.0, 10.0));
  for (Int i = 0; i < heights.Count(); ++i)
    heights.Values()[static_cast<std::size_t>(i)] = std::sin(static_cast<Float>(i) * 0.37) * 40.0 + static_cast<Float>(i % 97);
  Grid2D<Float> serialHeights;
  ASSERT_TRUE(serialHeights.CopyFrom(heights));
  Grid2D<Vector> parallelNormals, serialNormals;
  ASSERT_TRUE(parallelNormals.ComputeNormals(heights));
  ASSERT_TRUE(heights.Normalize(2.0, 1.0));
  {
    platform::ScopedThreadLimit oneThread(1);
    ASSERT_TRUE(serialNormals.ComputeNormals(serialHeights));
    ASSERT_TRUE(serialHeights.Normalize(2.0, 1.0));
  }
  for (Int i = 0; i < heights.Count(); ++i) {
    ASSERT_EQ(heights.Values()[static_cast<std::size_t>(i)], serialHeights.Values()[static_cast<std::size_t>(i)]);
    ASSERT_EQ(parallelNormals.Values()[static_cast<std::size_t>(i)], serialNormals.Values()[static_cast<std::size_t>(i)]);
  }
}

TEST(Grid2D, BitmapsAndHeightImagesPutRowZeroAtTheBottom) {
  Grid2D<Vector> single;
  ASSERT_TRUE(single.Init(1, 1, 1.0, 1.0));
  single.Set(0, 0, Vector(0.5, -1.0, 2.0));
  auto bitmap = single.ToBitmap();
  ASSERT_TRUE(bitmap);
  EXPECT_EQ(bitmap->Channels(), 3);
  EXPECT_EQ(bitmap->Type(), platform::PixelType::UInt8);
  EXPECT_EQ(bitmap->GetPixel(0, 0, 0), 127.0);
  EXPECT_EQ(bitmap->GetPixel(0, 0, 1), 0.0);
  EXPECT_EQ(bitmap->GetPixel(0, 0, 2), 255.0);

  Grid2D<Vector> column;
  ASSERT_TRUE(column.Init(2, 2, 1.0, 1.0));
  column.Set(1, 0, Vector(1.0, 0.0, 0.0));
  column.Set(0, 1, Vector(0.0, 0.0, 1.0));
  auto flipped = column.ToBitmap();
  ASSERT_TRUE(flipped);
  EXPECT_EQ(flipped->GetPixel(1, 1, 0), 255.0);  // row 0 -> bottom line
  EXPECT_EQ(flipped->GetPixel(0, 0, 2), 255.0);  // row 1 -> top line

  Grid2D<Float> heights = MakeGrid(2, 2, {1.5, 2.5, -3.0, 4.0});
  auto image = heights.ToHeightImage();
  ASSERT_TRUE(image);
  EXPECT_EQ(image->Type(), platform::PixelType::Float32);
  EXPECT_EQ(image->GetPixel(0, 1, 0), 1.5);
  EXPECT_EQ(image->GetPixel(1, 1, 0), 2.5);
  EXPECT_EQ(image->GetPixel(0, 0, 0), -3.0);
}

TEST(Grid2D, OutOfBoundsRemapping) {
  EXPECT_EQ(RemapIndex(-3, 5, OUTOFBOUNDSMODE::CLAMP), 0);
  EXPECT_EQ(RemapIndex(7, 5, OUTOFBOUNDSMODE::CLAMP), 4);
  EXPECT_EQ(RemapIndex(-1, 5, OUTOFBOUNDSMODE::TILE), 4);
  EXPECT_EQ(RemapIndex(12, 5, OUTOFBOUNDSMODE::TILE), 2);
  EXPECT_EQ(RemapIndex(-1, 5, OUTOFBOUNDSMODE::MIRROR), 1);
  EXPECT_EQ(RemapIndex(5, 5, OUTOFBOUNDSMODE::MIRROR), 4);
  EXPECT_EQ(RemapIndex(6, 5, OUTOFBOUNDSMODE::MIRROR), 3);
  EXPECT_EQ(RemapIndex(-40, 5, OUTOFBOUNDSMODE::MIRROR), 4);
  EXPECT_EQ(RemapIndex(-2, 5, OUTOFBOUNDSMODE::NONE), -2);
  EXPECT_EQ(RemapIndex(3, 5, OUTOFBOUNDSMODE::MIRROR), 3);
}

}  // namespace
}  // namespace VLGD
