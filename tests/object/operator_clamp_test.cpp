#include "object/operator_clamp.h"

#include <gtest/gtest.h>

#include <limits>

#include "support/operator_fixture.h"

namespace {

using namespace platform;
using namespace VLGD;
using namespace testing_support;

TEST(ClampOperatorTest, FitsTheInputRangeIntoTheBand) {
  DirectOperator c(ID_CLAMPOPERATOR);
  // Defaults 0 .. 50: the lowest input lands on 0, the highest on 50, linearly between.
  const Grid2D<Float> in = Row({-10.0, 0.0, 5.0, 30.0});
  ASSERT_TRUE(c.Compute(in));
  EXPECT_EQ(c.Out(0), 0.0);
  EXPECT_EQ(c.Out(1), 12.5);
  EXPECT_EQ(c.Out(2), 18.75);
  EXPECT_EQ(c.Out(3), 50.0);
  EXPECT_FALSE(c.Result().IsMinMaxValid());

  c.Set(CLAMPOPERATOR_MIN, -3.0);
  c.Set(CLAMPOPERATOR_MAX, 7.0);
  ASSERT_TRUE(c.Compute(in));
  EXPECT_EQ(c.Out(1), -3.0 + 10.0 * (10.0 / 40.0));

  // A flat input lands on lo everywhere; so does one without a valid range.
  ASSERT_TRUE(c.Compute(MakeGrid(3, 3, [](Int, Int) { return 12.0; })));
  EXPECT_EQ(c.Out(8), -3.0);
  Grid2D<Float> unranged = Row({1.0, 2.0, 3.0});
  unranged.ResetRange();
  ASSERT_TRUE(c.Compute(unranged));
  for (Int i = 0; i < 3; ++i) EXPECT_EQ(c.Out(i), -3.0);
  ASSERT_TRUE(c.Compute(MakeGrid(0, 4, [](Int, Int) { return 0.0; })));
  EXPECT_EQ(c.Result().Count(), 0);
  EXPECT_EQ(c.Result().Height(), 4);

  c.Remove(CLAMPOPERATOR_MAX);  // the band then ends at 100
  ASSERT_TRUE(c.Compute(in));
  EXPECT_EQ(c.Out(3), 100.0);
}

TEST(ClampOperatorTest, HardClampCutsAtTheBoundsAndSendsNaNToLo) {
  DirectOperator c(ID_CLAMPOPERATOR);
  c.Set(CLAMPOPERATOR_HARDCLAMP, true);
  c.Set(CLAMPOPERATOR_MAX, 10.0);
  const Float nan = std::numeric_limits<Float>::quiet_NaN();
  const Float inf = std::numeric_limits<Float>::infinity();
  const Grid2D<Float> in = Row({-5.0, 0.0, 3.25, 10.0, 12.0, nan, -inf, inf});
  ASSERT_TRUE(c.Compute(in));
  const Float expected[] = {0.0, 0.0, 3.25, 10.0, 10.0, 0.0, 0.0, 10.0};
  for (Int i = 0; i < 8; ++i) EXPECT_EQ(c.Out(i), expected[i]) << i;

  // With lo above hi (only possible outside the editor) every sample becomes hi.
  c.Put(CLAMPOPERATOR_MIN, 10.0);
  c.Put(CLAMPOPERATOR_MAX, 0.0);
  ASSERT_TRUE(c.Compute(in));
  for (Int i = 0; i < 8; ++i) EXPECT_EQ(c.Out(i), 0.0) << i;

  // A result of another shape is made anew.
  ASSERT_TRUE(c.Compute(MakeGrid(2, 3, [](Int x, Int y) { return static_cast<Float>(x + y); })));
  EXPECT_EQ(c.Result().Width(), 2);
  EXPECT_EQ(c.Result().Count(), 6);
}

TEST(ClampOperatorTest, AnEditedBoundIsHeldByTheOther) {
  DirectOperator c(ID_CLAMPOPERATOR);
  const ParameterContainer& data = c.op->GetData();
  c.Set(CLAMPOPERATOR_MIN, 60.0);  // above the maximum of 50
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MIN), 50.0);
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MAX), 50.0);
  c.Set(CLAMPOPERATOR_MIN, 10.0);
  c.Set(CLAMPOPERATOR_MAX, 5.0);  // below the minimum of 10
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MAX), 10.0);
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MIN), 10.0);
  c.Set(CLAMPOPERATOR_MAX, 30.0);
  c.Set(CLAMPOPERATOR_MIN, 20.0);  // in order: nothing to hold
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MIN), 20.0);
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MAX), 30.0);

  // Another parameter's change leaves crossed bounds alone.
  c.Put(CLAMPOPERATOR_MIN, 40.0);
  c.Set(CLAMPOPERATOR_HARDCLAMP, true);
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MIN), 40.0);
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MAX), 30.0);
}

}  // namespace
