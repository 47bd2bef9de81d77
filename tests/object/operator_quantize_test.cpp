#include "object/operator_quantize.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "support/operator_fixture.h"

namespace {

using namespace platform;
using namespace VLGD;
using namespace testing_support;

TEST(QuantizeOperatorTest, SnapsToEvenlySpacedLevelsBetweenTheExtremes) {
  DirectOperator q(ID_QUANTIZEOPERATOR);
  const Grid2D<Float> ten = MakeGrid(11, 1, [](Int x, Int) { return static_cast<Float>(x); });
  const auto expectLevels = [&](Int32 steps, const std::vector<Float>& levels) {
    q.Put(QUANTIZEOPERATOR_STEPS, steps);
    ASSERT_TRUE(q.Compute(ten));
    for (Int x = 0; x <= 10; ++x) EXPECT_EQ(q.Out(x), levels[static_cast<std::size_t>(x)]) << steps << ": " << x;
  };
  expectLevels(3, {0, 0, 0, 5, 5, 5, 5, 5, 10, 10, 10});
  expectLevels(2, {0, 0, 0, 0, 0, 10, 10, 10, 10, 10, 10});  // the exact midpoint goes up
  expectLevels(1, std::vector<Float>(11, 0.0));              // n = 0: everything becomes min
  // Zero steps: n = -1 is taken as it stands; the two levels remain, but the midpoint now
  // goes down.
  expectLevels(0, {0, 0, 0, 0, 0, 0, 10, 10, 10, 10, 10});
  EXPECT_FALSE(q.Result().IsMinMaxValid());

  q.Put(QUANTIZEOPERATOR_STEPS, Int32{8});  // n = 7, from the lowest height on
  const Grid2D<Float> shifted = MakeGrid(11, 1, [](Int x, Int) { return static_cast<Float>(x) - 4.0; });
  ASSERT_TRUE(q.Compute(shifted));
  EXPECT_EQ(q.Out(0), -4.0);
  EXPECT_EQ(q.Out(1), 1.0 * (1.0 / 7.0) * 10.0 - 4.0);
  EXPECT_EQ(q.Out(10), 6.0);

  // A flat input, and one without a valid range (read as 0 .. 0), give min everywhere.
  ASSERT_TRUE(q.Compute(Row({-6.5, -6.5})));
  EXPECT_TRUE(Identical(q.Result(), Row({-6.5, -6.5})));
  Grid2D<Float> unranged = Row({1.0, 2.0, 3.0});
  unranged.ResetRange();
  ASSERT_TRUE(q.Compute(unranged));
  EXPECT_TRUE(Identical(q.Result(), Row({0.0, 0.0, 0.0})));
}

TEST(QuantizeOperatorTest, TheFloorIsTheLibrarysForEveryDouble) {
  const Float inf = std::numeric_limits<Float>::infinity();
  const Float tiny = std::numeric_limits<Float>::denorm_min();
  const Float twoTo52 = 4503599627370496.0;
  std::vector<Float> values = {
      0.0, tiny,  0.5,           0.49999999999999994, 1.0,     1.5, 2.5,
      3.7, 1e300, twoTo52 - 0.5, twoTo52 + 1.0,       twoTo52, inf, std::numeric_limits<Float>::max()};
  std::mt19937_64 random(7);
  std::uniform_real_distribution<Float> unit(0.0, 1.0);
  for (int k = 0; k < 1000; ++k) values.push_back(std::ldexp(unit(random), k % 70 - 10));
  for (const Float magnitude : values)
    for (const Float v : {magnitude, -magnitude}) {
      const Float got = QuantizeFloor(v);
      EXPECT_EQ(got, std::floor(v)) << v;
      EXPECT_EQ(std::signbit(got), std::signbit(std::floor(v))) << v;
    }
  EXPECT_TRUE(std::isnan(QuantizeFloor(std::numeric_limits<Float>::quiet_NaN())));
}

}  // namespace
