#include "vellgrund/erosion_droplet.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string_view>
#include <vector>

#include "platform/random.h"
#include "support/operator_fixture.h"

namespace {

using namespace VLGD;
using namespace VLGD::Erosion;
using namespace testing_support;

DropletSettings Droplets(Int32 count, platform::UInt32 seed = 1234) {
  DropletSettings settings;
  settings.count = count;
  settings.seed = seed;
  return settings;
}

TEST(Droplets, NoneOrAFlatStartChangeNothing) {
  const Grid2D<Float> flat = MakeGrid(30, 20, [](Int, Int) { return 2.5; });
  Grid2D<Float> grid = Copy(flat);
  EXPECT_EQ(SimulateDroplets(grid, Droplets(0)), 0U);
  EXPECT_EQ(SimulateDroplets(grid, Droplets(-3)), 0U);
  // On level ground the normal points straight up: the droplet stays until it has
  // evaporated to 0.01, which takes 3836 steps, and carries nothing.
  EXPECT_EQ(SimulateDroplets(grid, Droplets(1)), 3836U);
  EXPECT_EQ(SimulateDroplets(grid, Droplets(4)), 4U * 3836U);
  EXPECT_TRUE(Identical(grid, flat));
  Grid2D<Float> empty;
  EXPECT_EQ(SimulateDroplets(empty, Droplets(10)), 0U);
}

TEST(Droplets, RunDownhillFromTheDrawnCellAndRepeatBitForBit) {
  // A ramp rising to the right: the droplet runs left along its row and out of the grid,
  // lowering the cell it starts from.
  const Grid2D<Float> ramp = MakeGrid(40, 25, [](Int x, Int) { return 0.5 * static_cast<Float>(x); });
  Grid2D<Float> one = Copy(ramp);
  const platform::UInt64 steps = SimulateDroplets(one, Droplets(1, 77));
  EXPECT_GT(steps, 0U);
  EXPECT_LT(steps, 3836U);
  // The row is drawn before the column; the first cell left is where the droplet started.
  platform::Random random(77);
  const Float row = random.Get01() * 24.0;
  const Float column = random.Get01() * 39.0;
  const Int startX = static_cast<Int>(column);
  const Int startY = static_cast<Int>(row);
  EXPECT_LT(one.Get(startX, startY), ramp.Get(startX, startY));
  for (Int y = 0; y < 25; ++y)
    for (Int x = 0; x < 40 && y != startY; ++x) ASSERT_EQ(one.Get(x, y), ramp.Get(x, y)) << "the droplet left its row";

  const Grid2D<Float> hills = RandomGrid(64, 48, 3, 0.0, 4.0);
  Grid2D<Float> first = Copy(hills);
  Grid2D<Float> second = Copy(hills);
  Grid2D<Float> otherSeed = Copy(hills);
  EXPECT_EQ(SimulateDroplets(first, Droplets(500)), SimulateDroplets(second, Droplets(500)));
  EXPECT_TRUE(Identical(first, second));
  (void)SimulateDroplets(otherSeed, Droplets(500, 1235));
  EXPECT_FALSE(Identical(otherSeed, first));
}

TEST(Droplets, NonFiniteHeightsEndTheDropletsInsideTheGrid) {
  Grid2D<Float> grid = RandomGrid(16, 16, 9);
  grid.Set(5, 5, std::numeric_limits<Float>::quiet_NaN());
  grid.Set(9, 3, std::numeric_limits<Float>::infinity());
  EXPECT_GT(SimulateDroplets(grid, Droplets(200)), 0U);
}

// A run stops at the droplet after the break, and reports its progress in whole percent
// until then.
TEST(Droplets, StopOnABreakAndShowProgress) {
  struct CancelAfter final : platform::ProgressSink {
    platform::CancellationToken token;
    std::vector<double> fractions;
    void SetStatus(std::string_view) override {}
    void ClearStatus() override {}
    void SetProgress(double fraction) override {
      fractions.push_back(fraction);
      if (fractions.size() == 3) token.Cancel();
    }
  } sink;
  Grid2D<Float> grid = RandomGrid(64, 64, 5);
  const platform::UInt64 steps = SimulateDroplets(grid, Droplets(10'000), &sink.token, &sink);
  EXPECT_EQ(sink.fractions, (std::vector<double>{0.0, 0.01, 0.02}));
  EXPECT_LE(steps, 200U * 3836U) << "ran past the break";
}

}  // namespace
