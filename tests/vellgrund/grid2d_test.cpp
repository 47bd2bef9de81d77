#include "vellgrund/grid2d.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "platform/debug_stop.h"
#include "platform/parallel.h"

namespace VLGD {
namespace {

constexpr Float kLargest = std::numeric_limits<Float>::max();

Grid2D<Float> MakeGrid(Int width, Int height, const std::vector<Float>& values) {
  Grid2D<Float> grid;
  EXPECT_TRUE(grid.Init(width, height, 10.0, 20.0));
  for (Int i = 0; i < grid.Count(); ++i)
    grid.Values()[static_cast<std::size_t>(i)] = values[static_cast<std::size_t>(i)];
  return grid;
}

template <typename T>
std::vector<T> Values(const Grid2D<T>& grid) {
  return {grid.Values().begin(), grid.Values().end()};
}

// Width, height, count and the two sizes.
template <typename T>
std::tuple<Int, Int, Int, Float, Float> Shape(const Grid2D<T>& grid) {
  return {grid.Width(), grid.Height(), grid.Count(), grid.SizeX(), grid.SizeY()};
}

TEST(Grid2D, InitialisationShapesAndRefusals) {
  Grid2D<Float> grid;
  ASSERT_TRUE(grid.Init(4, 3, 100.0, 50.0));
  EXPECT_EQ(Shape(grid), std::make_tuple(Int{4}, Int{3}, Int{12}, 100.0, 50.0));
  EXPECT_FALSE(grid.IsMinMaxValid());
  EXPECT_EQ(grid.Minimum(), kLargest);
  EXPECT_EQ(grid.Maximum(), -kLargest);
  EXPECT_EQ(Values(grid), std::vector<Float>(12, 0.0));
  grid.Set(3, 2, 7.0);
  EXPECT_EQ(grid.Values()[11], 7.0);

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
  EXPECT_EQ(Shape(shaped), Shape(copy));
  EXPECT_EQ(shaped.Get(3, 2), Vector());
  EXPECT_EQ(shaped.Minimum(), Vector(kLargest));

  for (auto [width, height, sizeX, sizeY] :
       {std::tuple{-1, 2, 1.0, 1.0}, std::tuple{2, -1, 1.0, 1.0}, std::tuple{2, 2, 0.0, 1.0},
        std::tuple{2, 2, 1.0, -3.0}, std::tuple{2, 2, std::nan(""), 1.0}}) {
    auto status = grid.Init(width, height, sizeX, sizeY);
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().message, "Invalid grid initialization arguments!");
  }
  // An absurd resolution is an error value, not a crash, and leaves the grid empty.
  for (auto [width, height] :
       {std::pair<Int, Int>{std::numeric_limits<Int>::max() / 2, 4}, {1'000'000'000, 1'000'000'000}}) {
    auto absurd = grid.Init(width, height, 1.0, 1.0);
    ASSERT_FALSE(absurd);
    EXPECT_EQ(absurd.error().kind, platform::ErrorKind::OutOfMemory);
    EXPECT_EQ(grid.Count(), 0);
  }

  // A reset grid's zero sizes travel with InitFrom as they stand.
  grid.Reset();
  EXPECT_EQ(Shape(grid), std::make_tuple(Int{0}, Int{0}, Int{0}, 0.0, 0.0));
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
  using enum SAMPLEINTERPOLATION;
  // Columns 0..3 hold 0, 10, 20, 30 on row 0 and 100 more on row 1.
  const Grid2D<Float> ramp = MakeGrid(4, 2, {0, 10, 20, 30, 100, 110, 120, 130});
  const Grid2D<Float> step = MakeGrid(6, 1, {0, 0, 0, 1, 1, 1});
  const auto unknown = static_cast<SAMPLEINTERPOLATION>(7);
  // Nearest rounds half up and takes unknown interpolation values as nearest. Bilinear is
  // exact at integral coordinates, linear between, clamped at the last column. Catmull-Rom
  // is exact at samples, keeps a linear ramp, and over- and undershoots a step by 1/16.
  const struct {
    const Grid2D<Float>* grid;
    Float x, y;
    SAMPLEINTERPOLATION mode;
    Float expected;
  } cases[] = {
      {&ramp, 2.5, 0.0, NEAREST, 30.0},    {&ramp, 2.49, 0.5, NEAREST, 120.0}, {&ramp, 1.2, 0.2, unknown, 10.0},
      {&ramp, 2.0, 1.0, BILINEAR, 120.0},  {&ramp, 1.25, 0.5, BILINEAR, 62.5}, {&ramp, 3.0, 0.0, BILINEAR, 30.0},
      {&ramp, 3.5, 0.0, BILINEAR, 30.0},   {&ramp, 2.0, 0.0, BICUBIC, 20.0},   {&ramp, 1.5, 0.0, BICUBIC, 15.0},
      {&step, 1.5, 0.0, BICUBIC, -0.0625}, {&step, 2.5, 0.0, BICUBIC, 0.5},    {&step, 3.5, 0.0, BICUBIC, 1.0625}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "at " << c.x << ", " << c.y << " mode " << static_cast<int>(c.mode));
    EXPECT_DOUBLE_EQ(c.grid->Sample(c.x, c.y, c.mode), c.expected);
  }
  EXPECT_DOUBLE_EQ(Hermite(0.0, 0.0, 1.0, 1.0, 0.5, 0.0, 0.0), 0.5);
}

TEST(Grid2D, NormalsInsideAndAtTheBorder) {
  const Grid2D<Float> flat = MakeGrid(3, 3, std::vector<Float>(9, 4.0));
  for (Int y = 0; y < 3; ++y)
    for (Int x = 0; x < 3; ++x) EXPECT_EQ(flat.Normal(x, y), Vector(0.0, 1.0, 0.0));

  // Heights rise by 1 per column: inside dx = -2, at a border the neighbour is the sample
  // itself, so dx = -1 (half as steep); rows likewise with dz = v(x, y-1) - v(x, y+1).
  const Grid2D<Float> slope = MakeGrid(3, 2, {0, 1, 2, 0, 1, 2});
  const Float inner = std::sqrt(8.0);
  const Float border = std::sqrt(5.0);
  const auto expectNormal = [](const Vector& actual, const Vector& expected) {
    EXPECT_DOUBLE_EQ(actual.x, expected.x);
    EXPECT_DOUBLE_EQ(actual.y, expected.y);
    EXPECT_DOUBLE_EQ(actual.z, expected.z);
  };
  expectNormal(slope.Normal(1, 0), Vector(-2.0 / inner, 2.0 / inner, 0.0));
  expectNormal(slope.Normal(2, 1), Vector(-1.0 / border, 2.0 / border, 0.0));
  expectNormal(MakeGrid(1, 3, {0, 1, 2}).Normal(0, 1), Vector(0.0, 2.0 / inner, -2.0 / inner));

  Grid2D<Vector> map;
  ASSERT_TRUE(map.ComputeNormals(slope));
  EXPECT_EQ(Shape(map), Shape(slope));
  for (Int y = 0; y < 2; ++y)
    for (Int x = 0; x < 3; ++x) EXPECT_EQ(map.Get(x, y), slope.Normal(x, y));

  // An empty source gives an empty map; a non-positive size is refused and the map keeps its state.
  Grid2D<Float> empty;
  ASSERT_TRUE(empty.Init(0, 5, 1.0, 1.0));
  Grid2D<Vector> emptyMap;
  ASSERT_TRUE(emptyMap.ComputeNormals(empty));
  EXPECT_EQ(emptyMap.Count(), 0);
  auto refused = map.ComputeNormals(Grid2D<Float>());
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().message, "Invalid grid initialization arguments!");
  EXPECT_EQ(refused.error().kind, platform::ErrorKind::IllegalArgument);
  EXPECT_EQ(map.Count(), 6);
}

TEST(Grid2D, NormalizeMapsTheRangeAndKeepsTheOldBounds) {
  Grid2D<Float> grid = MakeGrid(3, 1, {2.0, 4.0, 6.0});
  ASSERT_TRUE(grid.Normalize(1.0, 0.0));
  EXPECT_EQ(Values(grid), (std::vector<Float>{0.0, 0.5, 1.0}));
  EXPECT_EQ(grid.Minimum(), 2.0);
  EXPECT_EQ(grid.Maximum(), 6.0);
  ASSERT_TRUE(grid.Normalize(10.0, -5.0));
  EXPECT_EQ(Values(grid), (std::vector<Float>{-5.0, 0.0, 5.0}));
  Grid2D<Float> flat = MakeGrid(2, 2, {3.0, 3.0, 3.0, 3.0});
  ASSERT_TRUE(flat.Normalize(1.0, 0.0));
  EXPECT_EQ(Values(flat), std::vector<Float>(4, 3.0));

  // Vector grids refuse: a debug stop naming the unit, an error, and no change.
  std::vector<std::string> stops;
  platform::ScopedDebugStopHandler handler([&stops](std::string_view unit, std::string_view message) {
    stops.push_back(std::string(unit) + ": " + std::string(message));
  });
  Grid2D<Vector> vectors;
  ASSERT_TRUE(vectors.Init(1, 1, 1.0, 1.0));
  vectors.Set(0, 0, Vector(3.0, 4.0, 5.0));
  auto refused = vectors.Normalize(1.0, 0.0);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().message, "Grid2D<Vector>::Normalize() not implemented yet!");
  EXPECT_EQ(stops, std::vector<std::string>{"grid2d: Grid2D<Vector>::Normalize() not implemented yet!"});
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
    heights.Values()[static_cast<std::size_t>(i)] =
        std::sin(static_cast<Float>(i) * 0.37) * 40.0 + static_cast<Float>(i % 97);
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
  EXPECT_TRUE(Values(heights) == Values(serialHeights));
  EXPECT_TRUE(Values(parallelNormals) == Values(serialNormals));
}

TEST(Grid2D, BitmapsAndHeightImagesPutRowZeroAtTheBottom) {
  // Components x 255, truncated and clamped to 0 .. 255.
  Grid2D<Vector> normals;
  ASSERT_TRUE(normals.Init(2, 2, 1.0, 1.0));
  normals.Set(0, 0, Vector(0.5, -1.0, 2.0));
  normals.Set(1, 0, Vector(1.0, 0.0, 0.0));
  normals.Set(0, 1, Vector(0.0, 0.0, 1.0));
  auto bitmap = normals.ToBitmap();
  ASSERT_TRUE(bitmap);
  EXPECT_EQ(bitmap->Channels(), 3);
  EXPECT_EQ(bitmap->Type(), platform::PixelType::UInt8);
  Grid2D<Float> heights = MakeGrid(2, 2, {1.5, 2.5, -3.0, 4.0});
  auto image = heights.ToHeightImage();
  ASSERT_TRUE(image);
  EXPECT_EQ(image->Type(), platform::PixelType::Float32);
  const struct {
    const platform::Image* image;
    Int x, y, channel;
    Float expected;
  } pixels[] = {{&*bitmap, 0, 1, 0, 127.0}, {&*bitmap, 0, 1, 1, 0.0},   {&*bitmap, 0, 1, 2, 255.0},
                {&*bitmap, 1, 1, 0, 255.0}, {&*bitmap, 0, 0, 2, 255.0}, {&*image, 0, 1, 0, 1.5},
                {&*image, 1, 1, 0, 2.5},    {&*image, 0, 0, 0, -3.0}};
  for (const auto& p : pixels)
    EXPECT_EQ(p.image->GetPixel(p.x, p.y, p.channel), p.expected) << p.x << ", " << p.y << " channel " << p.channel;
}

TEST(Grid2D, OutOfBoundsRemapping) {
  using enum OUTOFBOUNDSMODE;
  // The mirror does not repeat the border below 0 and does above n - 1; what one
  // reflection cannot reach clamps.
  const struct {
    Int index;
    OUTOFBOUNDSMODE mode;
    Int expected;
  } cases[] = {{-3, CLAMP, 0}, {7, CLAMP, 4},  {-1, TILE, 4},    {12, TILE, 2},  {-1, MIRROR, 1},
               {5, MIRROR, 4}, {6, MIRROR, 3}, {-40, MIRROR, 4}, {3, MIRROR, 3}, {-2, NONE, -2}};
  for (const auto& c : cases)
    EXPECT_EQ(RemapIndex(c.index, 5, c.mode), c.expected) << c.index << " mode " << static_cast<int>(c.mode);
}

}  // namespace
}  // namespace VLGD
