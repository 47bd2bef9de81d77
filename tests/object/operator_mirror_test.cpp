#include "object/operator_mirror.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/operator_fixture.h"

namespace {

using namespace platform;
using namespace VLGD;
using namespace testing_support;

std::vector<Float> Values(const Grid2D<Float>& grid) {
  return {grid.Values().begin(), grid.Values().end()};
}

TEST(MirrorOperatorTest, FlipsColumnsRowsAndHeights) {
  DirectOperator m(ID_MIRROROPERATOR);
  // 3 columns, 2 rows: 1 2 3 / 4 5 6.
  const Grid2D<Float> in = MakeGrid(3, 2, [](Int x, Int y) { return static_cast<Float>(1 + x + 3 * y); });
  ASSERT_TRUE(m.Compute(in));
  EXPECT_TRUE(Identical(m.Result(), in));
  EXPECT_FALSE(m.Result().IsMinMaxValid());
  const auto expectMirrored = [&](bool x, bool h, bool y, const std::vector<Float>& expected) {
    m.Set(MIRROROPERATOR_X, x);
    m.Set(MIRROROPERATOR_HEIGHT, h);
    m.Set(MIRROROPERATOR_Y, y);
    ASSERT_TRUE(m.Compute(in));
    EXPECT_EQ(Values(m.Result()), expected) << x << h << y;
  };
  expectMirrored(true, false, false, {3, 2, 1, 6, 5, 4});
  expectMirrored(false, false, true, {4, 5, 6, 1, 2, 3});
  // Height: min + max - v, so the highest point becomes the lowest and the range is kept.
  expectMirrored(false, true, false, {6, 5, 4, 3, 2, 1});
  expectMirrored(true, true, true, {1, 2, 3, 4, 5, 6});

  // A flat input becomes max everywhere; one without a valid range reads 0 .. 0.
  ASSERT_TRUE(m.Compute(MakeGrid(2, 2, [](Int, Int) { return 3.5; })));
  EXPECT_EQ(Values(m.Result()), std::vector<Float>(4, 3.5));
  Grid2D<Float> unranged = Copy(in);
  unranged.ResetRange();
  ASSERT_TRUE(m.Compute(unranged));
  EXPECT_EQ(Values(m.Result()), std::vector<Float>(6, 0.0));
}

}  // namespace
