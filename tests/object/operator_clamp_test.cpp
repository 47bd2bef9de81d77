#include "object/operator_clamp.h"

#include <gtest/gtest.h>

#include <limits>
#include <utility>

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
  EXPECT_TRUE(Identical(c.Result(), Row({0.0, 12.5, 18.75, 50.0})));
  EXPECT_FALSE(c.Result().IsMinMaxValid());
  c.Remove(CLAMPOPERATOR_MAX);  // a clamp stored without its upper bound keeps 0 .. 100
  ASSERT_TRUE(c.Compute(in));
  EXPECT_EQ(c.Out(3), 100.0);

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
  EXPECT_TRUE(Identical(c.Result(), Row({-3.0, -3.0, -3.0})));
}

TEST(ClampOperatorTest, HardClampCutsAtTheBoundsAndSendsNaNToLo) {
  DirectOperator c(ID_CLAMPOPERATOR);
  c.Set(CLAMPOPERATOR_HARDCLAMP, true);
  c.Set(CLAMPOPERATOR_MAX, 10.0);
  const Float nan = std::numeric_limits<Float>::quiet_NaN();
  const Float inf = std::numeric_limits<Float>::infinity();
  const Grid2D<Float> in = Row({-5.0, 0.0, 3.25, 10.0, 12.0, nan, -inf, inf});
  ASSERT_TRUE(c.Compute(in));
  EXPECT_TRUE(Identical(c.Result(), Row({0.0, 0.0, 3.25, 10.0, 10.0, 0.0, 0.0, 10.0})));

  // With lo above hi (only possible outside the editor) every sample becomes hi.
  c.Put(CLAMPOPERATOR_MIN, 10.0);
  c.Put(CLAMPOPERATOR_MAX, 0.0);
  ASSERT_TRUE(c.Compute(in));
  EXPECT_TRUE(Identical(c.Result(), Row({0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0})));
}

TEST(ClampOperatorTest, AnEditedBoundIsHeldByTheOther) {
  DirectOperator c(ID_CLAMPOPERATOR);
  const auto band = [&] {
    return std::pair(c.op->GetData().GetFloat(CLAMPOPERATOR_MIN), c.op->GetData().GetFloat(CLAMPOPERATOR_MAX));
  };
  // Edits in turn, from the default band 0 .. 50, and the band after each.
  const struct {
    ParameterId id;
    Float value, min, max;
  } edits[] = {{CLAMPOPERATOR_MIN, 60.0, 50.0, 50.0},
               {CLAMPOPERATOR_MIN, 10.0, 10.0, 50.0},
               {CLAMPOPERATOR_MAX, 5.0, 10.0, 10.0},
               {CLAMPOPERATOR_MAX, 30.0, 10.0, 30.0},
               {CLAMPOPERATOR_MIN, 20.0, 20.0, 30.0}};
  for (const auto& edit : edits) {
    c.Set(edit.id, edit.value);
    EXPECT_EQ(band(), std::pair(edit.min, edit.max)) << edit.id << " = " << edit.value;
  }
  // Another parameter's change leaves crossed bounds alone.
  c.Put(CLAMPOPERATOR_MIN, 40.0);
  c.Set(CLAMPOPERATOR_HARDCLAMP, true);
  EXPECT_EQ(band(), std::pair(40.0, 30.0));
}

}  // namespace
