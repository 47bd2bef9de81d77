#include "object/operator_adjustment.h"

#include <gtest/gtest.h>

#include "platform/description.h"
#include "support/operator_fixture.h"

namespace {

using namespace platform;
using namespace VLGD;
using namespace testing_support;

TEST(AdjustmentOperatorTest, ScalesThenShiftsAbsolutelyOrByTheInputRange) {
  DirectOperator a(ID_ADJUSTMENTOPERATOR);
  const Grid2D<Float> in = MakeGrid(5, 3, [](Int x, Int y) { return 0.37 * static_cast<Float>(x * x) - 2.5 * y; });
  ASSERT_TRUE(a.Compute(in));  // the defaults reproduce the input; the result's range stays unknown
  EXPECT_TRUE(Identical(a.Result(), in));
  EXPECT_FALSE(a.Result().IsMinMaxValid());

  // Absolute: in x scale + offset; the relative offset is not read.
  a.Set(ADJUSTMENTOPERATOR_SCALE, 2.0);
  a.Set(ADJUSTMENTOPERATOR_OFFSET, 3.0);
  a.Set(ADJUSTMENTOPERATOR_OFFSET_RELATIVE, 100.0);
  ASSERT_TRUE(a.Compute(in));
  for (const Int i : {0, 7, 14}) EXPECT_EQ(a.Out(i), in.Data()[i] * 2.0 + 3.0) << i;

  // Relative: in x scale + range x offset.
  a.Set(ADJUSTMENTOPERATOR_RELATIVE, true);
  a.Set(ADJUSTMENTOPERATOR_SCALE, 0.5);
  a.Set(ADJUSTMENTOPERATOR_OFFSET_RELATIVE, -0.25);
  const Float range = in.Maximum() - in.Minimum();
  ASSERT_TRUE(a.Compute(in));
  for (const Int i : {0, 7, 14}) EXPECT_EQ(a.Out(i), in.Data()[i] * 0.5 + range * -0.25) << i;

  // A flat input, or one whose range is not valid, has range 0: no shift at all.
  ASSERT_TRUE(a.Compute(MakeGrid(3, 3, [](Int, Int) { return 4.0; })));
  EXPECT_EQ(a.Out(4), 2.0);
  Grid2D<Float> unranged = Row({0.0, 1.0, 2.0});
  unranged.ResetRange();
  ASSERT_TRUE(a.Compute(unranged));
  EXPECT_EQ(a.Out(2), 1.0);
}

TEST(AdjustmentOperatorTest, ScenesOfDiskLevelZeroTurnRelativeAndTheSwitchShowsItsOffset) {
  DirectOperator a(ID_ADJUSTMENTOPERATOR);
  EXPECT_TRUE(a.Data().Read(*a.op, 1));
  EXPECT_FALSE(a.op->GetData().GetBool(ADJUSTMENTOPERATOR_RELATIVE));
  EXPECT_FALSE(IsParameterVisible(*a.op, ADJUSTMENTOPERATOR_OFFSET_RELATIVE));
  EXPECT_TRUE(IsParameterVisible(*a.op, ADJUSTMENTOPERATOR_OFFSET));
  // Written before the switch existed, such a scene always shifted by the range.
  EXPECT_TRUE(a.Data().Read(*a.op, 0));
  EXPECT_TRUE(a.op->GetData().GetBool(ADJUSTMENTOPERATOR_RELATIVE));
  EXPECT_TRUE(IsParameterVisible(*a.op, ADJUSTMENTOPERATOR_OFFSET_RELATIVE));
  EXPECT_FALSE(IsParameterVisible(*a.op, ADJUSTMENTOPERATOR_OFFSET));
}

}  // namespace
