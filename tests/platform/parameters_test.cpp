#include "platform/parameters.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace platform {
namespace {

TEST(Parameters, TypedReadsConvertNumbersAndFallBackOtherwise) {
  ParameterContainer parameters;
  using Entry = std::pair<ParameterId, Value>;
  for (const auto& [id, value] :
       {Entry{15, "ridge"}, Entry{10, true}, Entry{17, -1e300}, Entry{11, Int32{-10}}, Entry{12, 2.75},
        Entry{16, NodeLink{77}}, Entry{13, Int{1} << 40}, Entry{14, Vector(1.0, 2.0, 3.0)}})
    ASSERT_TRUE(parameters.Set(id, value));

  EXPECT_EQ(parameters.GetInt32(10), 1);
  EXPECT_EQ(parameters.GetFloat(11), -10.0);  // an integer stored where a Float is expected
  EXPECT_EQ(parameters.GetInt32(12), 2);      // truncates towards zero
  EXPECT_EQ(parameters.GetInt32(13), std::numeric_limits<Int32>::max());
  EXPECT_EQ(parameters.GetInt32(17), std::numeric_limits<Int32>::min());
  EXPECT_TRUE(parameters.GetBool(12));
  EXPECT_EQ(parameters.GetVector(14), Vector(1.0, 2.0, 3.0));
  EXPECT_EQ(parameters.GetString(15), "ridge");
  EXPECT_EQ(parameters.GetLink(16).target, 77u);

  // Missing entries and other types read as the fallback.
  EXPECT_EQ(parameters.GetFloat(99, 250.0), 250.0);
  EXPECT_EQ(parameters.GetInt32(15, 7), 7);
  EXPECT_EQ(parameters.GetVector(12, Vector(9.0)), Vector(9.0));
  EXPECT_EQ(parameters.GetString(11, "none"), "none");
  EXPECT_EQ(parameters.GetSplineData(14), nullptr);
  EXPECT_EQ(parameters.GetLink(99).target, 0u);
  EXPECT_EQ(parameters.TypeOf(99), ValueType::NONE);

  // A value may change its type under the same ID.
  ASSERT_TRUE(parameters.Set(12, Int32{4}));
  EXPECT_EQ(parameters.TypeOf(12), ValueType::INT32);
  EXPECT_TRUE(parameters.Remove(12));
  EXPECT_FALSE(parameters.Remove(12));
  EXPECT_EQ(parameters.Count(), 7);

  // Entries stay sorted by ID whatever the insertion order.
  std::vector<ParameterId> ids;
  for (const auto& [id, value] : parameters.Entries()) ids.push_back(id);
  EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
}

TEST(Parameters, CopiesAreDeepAndCompareByValue) {
  ParameterContainer original;
  SplineData curve;
  ASSERT_TRUE(curve.MakeLinearSpline(2));
  ASSERT_TRUE(original.Set(1, curve));
  ASSERT_TRUE(original.Set(2, 5.0));
  ASSERT_TRUE(original.Set(3, Int32{1}));

  ParameterContainer copy;
  ASSERT_TRUE(copy.CopyFrom(original));
  EXPECT_EQ(copy, original);

  // Editing the copy's curve leaves the original's alone.
  SplineData* copied = copy.GetSplineData(1);
  ASSERT_NE(copied, nullptr);
  ASSERT_TRUE(copied->InsertKnot(0.5, 0.9));
  EXPECT_EQ(original.GetSplineData(1)->GetKnotCount(), 2);
  EXPECT_NE(copy, original);

  // Comparison restricted to a list of IDs.
  const ParameterId unaffected[] = {2, 3};
  const ParameterId curveOnly[] = {1};
  EXPECT_TRUE(copy.EqualFor(original, unaffected));
  EXPECT_FALSE(copy.EqualFor(original, curveOnly));
  ASSERT_TRUE(copy.Set(4, 1.0));
  const ParameterId added[] = {4};
  EXPECT_FALSE(copy.EqualFor(original, added));
  EXPECT_TRUE(original.EqualFor(original, added));

  // Same number, different type: not equal.
  ParameterContainer a, b;
  ASSERT_TRUE(a.Set(1, Int32{1}));
  ASSERT_TRUE(b.Set(1, 1.0));
  EXPECT_NE(a, b);
}

}  // namespace
}  // namespace platform
