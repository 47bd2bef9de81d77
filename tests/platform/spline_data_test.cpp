#include "platform/spline_data.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include "platform/parallel.h"
#include "platform/random.h"

namespace platform {
namespace {

constexpr Float kInf = std::numeric_limits<Float>::infinity();

SplineData TwoKnots(Vector right0, Vector left1) {
  SplineData curve;
  EXPECT_TRUE(curve.InsertKnot(0.0, 0.0));
  EXPECT_TRUE(curve.InsertKnot(1.0, 1.0));
  EXPECT_TRUE(curve.SetKnotRightTangent(0, right0));
  EXPECT_TRUE(curve.SetKnotLeftTangent(1, left1));
  return curve;
}

// A point of the segment's Bezier by de Casteljau, independent of GetPoint's solve.
Vector BezierPoint(const SplineKnot& a, const SplineKnot& b, Float t) {
  const Vector p[4] = {a.position, a.position + a.rightTangent, b.position + b.leftTangent, b.position};
  auto lerp = [t](const Vector& u, const Vector& v) { return u + (v - u) * t; };
  const Vector q0 = lerp(p[0], p[1]), q1 = lerp(p[1], p[2]), q2 = lerp(p[2], p[3]);
  return lerp(lerp(q0, q1), lerp(q1, q2));
}

TEST(SplineDataTest, LinearSplineIsIdentity) {
  for (const Int32 knots : {2, 3, 7, 50}) {
    SCOPED_TRACE(std::to_string(knots) + " knots");
    SplineData curve;
    ASSERT_TRUE(curve.MakeLinearSpline(knots));
    ASSERT_EQ(curve.GetKnotCount(), knots);
    EXPECT_EQ(curve.GetKnot(knots - 1)->position, Vector(1.0, 1.0, 0.0));
    for (int i = 0; i <= 1000; ++i) {
      const Float x = i / 1000.0;
      const Vector point = curve.GetPoint(x);
      EXPECT_EQ(point.x, x);
      ASSERT_NEAR(point.y, x, 1e-12) << "x " << x;
      EXPECT_EQ(point.z, 0.0);
    }
  }
}

TEST(SplineDataTest, EvaluatesTheBezierSegments) {
  // Zero tangents put both inner control points on the knots: the straight diagonal,
  // although Bx has no slope at either end, where Newton alone would stall.
  const SplineData straight = TwoKnots(Vector(), Vector());
  for (const Float x : {1e-12, 1e-6, 0.001, 0.3, 0.999, 1.0 - 1e-9}) EXPECT_NEAR(straight.GetPoint(x).y, x, 1e-13);

  // Points of the Bezier itself, taken by parameter, must be met within the solve's
  // tolerance: a smooth S of horizontal tangents; uneven tangents, a vertical one and a
  // curve that falls.
  SplineData s = TwoKnots(Vector(1.0 / 3.0, 0.0, 0.0), Vector(-1.0 / 3.0, 0.0, 0.0));
  SplineData curve;
  for (const auto& [x, y] : {std::pair{0.0, 0.2}, {0.3, 0.9}, {0.7, 0.1}, {1.0, 0.6}})
    ASSERT_TRUE(curve.InsertKnot(x, y));
  curve.SetKnotRightTangent(0, Vector(0.05, 0.5, 0.0));
  curve.SetKnotLeftTangent(1, Vector(0.0, -0.3, 0.0));
  curve.SetKnotRightTangent(1, Vector(0.35, 0.1, 0.0));
  curve.SetKnotLeftTangent(2, Vector(-0.1, 0.2, 0.0));
  curve.SetKnotRightTangent(2, Vector(0.2, -0.4, 0.0));
  curve.SetKnotLeftTangent(3, Vector(-0.01, 0.0, 0.0));
  for (const SplineData* c : {&s, &curve})
    for (Int32 k = 0; k + 1 < c->GetKnotCount(); ++k)
      for (int i = 0; i <= 200; ++i) {
        const Vector expected = BezierPoint(*c->GetKnot(k), *c->GetKnot(k + 1), i / 200.0);
        ASSERT_NEAR(c->GetPoint(expected.x).y, expected.y, 1e-9) << "segment " << k << ", t " << i / 200.0;
      }

  // A tangent reaching past the neighbour is cut back to the segment, so Bx does not
  // fold and the curve stays continuous.
  const SplineData overshoot = TwoKnots(Vector(3.0, 0.5, 0.0), Vector(-0.1, 0.0, 0.0));
  Float last = 0.0;
  for (int i = 0; i <= 1000; ++i) {
    const Float y = overshoot.GetPoint(i / 1000.0).y;
    ASSERT_TRUE(std::isfinite(y));
    EXPECT_NEAR(y, last, 0.02) << "x " << i / 1000.0;  // no jumps between folds of Bx
    last = y;
  }
  EXPECT_EQ(overshoot.GetPoint(1.0).y, 1.0);
}

TEST(SplineDataTest, OutsideTheKnotsAndDegenerateCurves) {
  SplineData curve;
  EXPECT_EQ(curve.GetPoint(0.3), Vector(0.3, 0.3, 0.0));  // no knots: identity

  ASSERT_TRUE(curve.InsertKnot(0.4, 0.7));
  for (const Float x : {-1.0, 0.0, 0.4, 0.9, 5.0}) EXPECT_EQ(curve.GetPoint(x), Vector(x, 0.7, 0.0));

  ASSERT_TRUE(curve.InsertKnot(0.8, 0.2));
  for (const auto& [x, y] : {std::pair{-1.0, 0.7}, {0.1, 0.7}, {0.9, 0.2}, {kInf, 0.2}, {std::nan(""), 0.7}})
    EXPECT_EQ(curve.GetPoint(x).y, y) << x;

  // Two knots at one x make a step; x at the step reads the later knot.
  ASSERT_TRUE(curve.InsertKnot(0.6, 0.0));
  ASSERT_EQ(curve.InsertKnot(0.6, 1.0).value(), 2);
  EXPECT_EQ(curve.GetPoint(0.6).y, 1.0);
  EXPECT_LT(curve.GetPoint(0.6 - 1e-9).y, 0.01);
  EXPECT_GT(curve.GetPoint(0.6 + 1e-9).y, 0.99);
}

TEST(SplineDataTest, KnotEditing) {
  SplineData curve;
  EXPECT_EQ(curve.InsertKnot(0.5, 0.1).value(), 0);
  EXPECT_EQ(*curve.GetKnot(0), SplineKnot{Vector(0.5, 0.1, 0.0)});  // alone: no tangents, no flags
  EXPECT_EQ(curve.InsertKnot(1.0, 0.3).value(), 1);
  EXPECT_EQ(curve.InsertKnot(0.0, 0.2, kKnotFlagBreakTangents).value(), 0);
  EXPECT_EQ(curve.InsertKnot(0.2, 0.4).value(), 1);
  ASSERT_EQ(curve.GetKnotCount(), 4);
  const Float xs[] = {0.0, 0.2, 0.5, 1.0};
  for (Int32 k = 0; k < 4; ++k) EXPECT_EQ(curve.GetKnot(k)->position.x, xs[k]);
  EXPECT_EQ(curve.GetKnot(0)->flags, kKnotFlagBreakTangents);
  EXPECT_NEAR(curve.GetKnot(0)->rightTangent.x, 0.5 / 3.0, 1e-15);  // neighbour at insertion time
  EXPECT_NEAR(curve.GetKnot(1)->leftTangent.x, -0.2 / 3.0, 1e-15);
  EXPECT_NEAR(curve.GetKnot(1)->rightTangent.x, 0.3 / 3.0, 1e-15);
  EXPECT_EQ(curve.GetKnot(3)->rightTangent, Vector());
  EXPECT_EQ(curve.GetKnot(4), nullptr);

  const SplineData before = curve;
  EXPECT_EQ(curve.InsertKnot(std::nan(""), 0.0).error().kind, ErrorKind::IllegalArgument);
  EXPECT_EQ(curve.MakeLinearSpline(1).error().kind, ErrorKind::IllegalArgument);
  EXPECT_FALSE(curve.InsertKnot(0.3, kInf));
  EXPECT_FALSE(curve.SetKnotLeftTangent(4, Vector(1.0, 1.0, 0.0)));
  EXPECT_FALSE(curve.SetKnotRightTangent(-1, Vector(1.0, 1.0, 0.0)));
  EXPECT_FALSE(curve.SetKnotFlags(4, 1));
  EXPECT_FALSE(curve.SetKnotRightTangent(1, Vector(std::nan(""), 0.0, 0.0)));
  EXPECT_EQ(curve, before);

  EXPECT_TRUE(curve.SetKnotLeftTangent(3, Vector(-0.1, 0.2, 5.0)));
  EXPECT_EQ(curve.GetKnot(3)->leftTangent, Vector(-0.1, 0.2, 0.0));  // z stays 0
}

TEST(SplineDataTest, ConcurrentEvaluationMatchesSerial) {
  SplineData curve;
  for (const auto& [x, y] : {std::pair{0.0, 0.5}, {0.25, 0.1}, {0.5, 0.9}, {0.75, 0.3}, {1.0, 0.6}})
    ASSERT_TRUE(curve.InsertKnot(x, y));
  curve.SetKnotRightTangent(2, Vector(0.2, -0.3, 0.0));
  constexpr Int kCount = 4001 * 25;
  std::vector<Float> serial(kCount), parallel(kCount);
  const auto at = [&](Int i) { return curve.GetPoint(Float(i) / (kCount - 1)).y; };
  for (Int i = 0; i < kCount; ++i) serial[std::size_t(i)] = at(i);
  ASSERT_TRUE(ParallelFor(0, kCount, {.granularity = 1}, [&](Int i) { parallel[std::size_t(i)] = at(i); }));
  EXPECT_EQ(parallel, serial);
}

TEST(SplineDataTest, CopyAndEquality) {
  SplineData original;
  ASSERT_TRUE(original.MakeLinearSpline(4));
  ASSERT_TRUE(original.SetKnotRightTangent(1, Vector(0.2, 0.1, 0.0)));

  SplineData copied(original);
  SplineData assigned;
  ASSERT_TRUE(assigned.InsertKnot(0.5, 0.5));
  assigned = original;
  SplineData explicitCopy;
  ASSERT_TRUE(explicitCopy.CopyFrom(original));
  ASSERT_TRUE(explicitCopy.CopyFrom(explicitCopy));
  for (const SplineData* copy : {&copied, &assigned, &explicitCopy}) EXPECT_EQ(*copy, original);

  // Copies are deep, and flags, tangents and positions all take part in equality.
  ASSERT_TRUE(copied.SetKnotFlags(2, kKnotFlagBreakTangents));
  ASSERT_TRUE(assigned.SetKnotLeftTangent(3, Vector(-0.2, 0.0, 0.0)));
  explicitCopy.GetKnot(0)->position.y = 0.01;
  for (const SplineData* copy : {&copied, &assigned, &explicitCopy}) EXPECT_NE(*copy, original);
  EXPECT_EQ(original.GetKnot(2)->flags, 0);
}

TEST(SplineDataTest, TheSamplerFollowsTheCurveEverywhere) {
  // Flat, steep, vertical and stepping stretches, knots off the cell grid and a span that is
  // not the unit interval.
  SplineData curve;
  ASSERT_TRUE(curve.InsertKnot(-0.3, 2.0));
  ASSERT_TRUE(curve.InsertKnot(0.1, 0.0));
  ASSERT_TRUE(curve.InsertKnot(0.37, 5.0));
  ASSERT_TRUE(curve.InsertKnot(0.37, 1.0));
  ASSERT_TRUE(curve.InsertKnot(0.9, 1.2));
  ASSERT_TRUE(curve.InsertKnot(1.4, -3.0));
  ASSERT_TRUE(curve.SetKnotRightTangent(0, {0.0, 0.0, 0.0}));
  ASSERT_TRUE(curve.SetKnotLeftTangent(1, {0.0, 0.5, 0.0}));  // vertical into the knot
  ASSERT_TRUE(curve.SetKnotRightTangent(1, {0.2, 0.0, 0.0}));
  ASSERT_TRUE(curve.SetKnotRightTangent(4, {0.5, 2.0, 0.0}));
  SplineData linear;
  ASSERT_TRUE(linear.MakeLinearSpline(5));
  SplineData identity;
  for (const SplineData* c : {&curve, &linear, &identity}) {
    auto built = SplineSampler::Build(*c);
    ASSERT_TRUE(built);
    const SplineSampler& sampler = *built;
    for (int k = -1000; k <= 21000; ++k) {
      const Float x = -0.3 + 1.7 * static_cast<Float>(k) / 20000.0 + 1e-7 * static_cast<Float>(k % 7);
      ASSERT_NEAR(sampler(x), c->GetPoint(x).y, 8e-12) << x;  // 1e-12 of the height range of 8
    }
    // Where the sampler falls back to the curve itself, it reads exactly the same.
    for (const Float x : {std::nan(""), 1.4, 1e300}) {
      const Float expected = c->GetPoint(x).y;
      EXPECT_TRUE(sampler(x) == expected || (std::isnan(sampler(x)) && std::isnan(expected))) << x;
    }
  }
}

// Batches of mixed samples (random ones, each knot and the doubles next to it, the ends,
// outside, NaN) in a shuffled order and in runs of every length up to a few vectors, read
// the same bits as GetPoint on every SIMD target, whatever segments share a batch.
TEST(SplineDataTest, BatchesReadTheBitsOfGetPoint) {
  std::vector<SplineData> curves(9);
  ASSERT_TRUE(curves[0].MakeLinearSpline(2));
  curves[1] = TwoKnots(Vector(0.5, 0.0, 0.0), Vector(-0.2, 0.0, 0.0));
  // Vertical halfway: Newton meets a zero slope and bisects until the bracket is spent.
  curves[2] = TwoKnots(Vector(1.0, 0.0, 0.0), Vector(-1.0, 0.0, 0.0));
  curves[3] = TwoKnots(Vector(0.0, 40.0, 0.0), Vector(0.0, -40.0, 0.0));
  // Steps, a vertical tangent into a knot and a span that is not the unit interval.
  for (const auto& [x, y] : {std::pair{-0.3, 2.0}, {0.1, 0.0}, {0.37, 5.0}, {0.37, 1.0}, {0.9, 1.2}, {1.4, -3.0}})
    ASSERT_TRUE(curves[4].InsertKnot(x, y));
  ASSERT_TRUE(curves[4].SetKnotLeftTangent(1, {0.0, 0.5, 0.0}));
  ASSERT_TRUE(curves[4].SetKnotRightTangent(4, {0.5, 2.0, 0.0}));
  // More segments in a batch than it groups at once.
  Random knots(7);
  for (int k = 0; k < 150; ++k) ASSERT_TRUE(curves[5].InsertKnot(knots.Get01(), knots.Get01()));
  ASSERT_TRUE(curves[6].InsertKnot(0.4, 0.7));  // one knot; curves[7] has none
  ASSERT_TRUE(curves[8].InsertKnot(0.5, 0.0));  // nothing but a step
  ASSERT_TRUE(curves[8].InsertKnot(0.5, 1.0));

  Random random(99);
  for (const SplineData& curve : curves) {
    std::vector<Float> x = {std::nan(""), -kInf, kInf, -1e300, 1e300, 0.0, -0.0, 1.0};
    for (Int32 k = 0; k < curve.GetKnotCount(); ++k) {
      Float at = curve.GetKnot(k)->position.x;
      for (int step = 0; step < 3; ++step) at = std::nextafter(at, -kInf);
      for (int step = 0; step < 7; ++step, at = std::nextafter(at, kInf)) x.push_back(at);
    }
    const Float low = curve.GetKnotCount() > 0 ? curve.GetKnot(0)->position.x : 0.0;
    const Float high = curve.GetKnotCount() > 0 ? curve.GetKnot(curve.GetKnotCount() - 1)->position.x : 1.0;
    for (int k = 0; k < 3000; ++k) x.push_back(low - 0.1 + (high - low + 0.2) * random.Get01());
    // Sorted runs first (segments change rarely), then the rest shuffled.
    std::sort(x.begin() + 8, x.begin() + 1000);
    for (std::size_t k = x.size() - 1; k > 1000; --k) std::swap(x[k], x[1000 + random.GetUInt64() % (k - 999)]);

    std::vector<Float> expected(x.size());
    for (std::size_t k = 0; k < x.size(); ++k) expected[k] = curve.GetPoint(x[k]).y;
    for (const std::int64_t target : hwy::SupportedAndGeneratedTargets()) {
      hwy::SetSupportedTargetsForTest(target);
      SCOPED_TRACE(std::string(hwy::TargetName(target)) + ", " + std::to_string(curve.GetKnotCount()) + " knots");
      // Whole, and in short calls from many offsets, each into its own array and in place.
      std::vector<Float> y(x.size()), inPlace = x, shortY(x.size()), shortInPlace = x;
      curve.GetPointsY(x.data(), y.data(), static_cast<Int>(x.size()));
      curve.GetPointsY(inPlace.data(), inPlace.data(), static_cast<Int>(x.size()));
      std::vector<std::size_t> inShortCalls;
      // Sorted stretches: mostly one segment a call, the first and last with ends beside it.
      std::vector<std::pair<Int, Int>> calls = {{8, 60}, {940, 60}};
      for (Int count = 1; count <= 20; ++count) calls.emplace_back(70 + 40 * count, count);
      for (const auto& [at, count] : calls) {
        curve.GetPointsY(x.data() + at, shortY.data() + at, count);
        curve.GetPointsY(shortInPlace.data() + at, shortInPlace.data() + at, count);
        for (Int k = at; k < at + count; ++k) inShortCalls.push_back(static_cast<std::size_t>(k));
      }
      const auto same = [](Float a, Float b) { return std::memcmp(&a, &b, sizeof a) == 0; };
      for (std::size_t k = 0; k < x.size(); ++k) {
        ASSERT_TRUE(same(y[k], expected[k])) << "x " << x[k] << ": " << y[k] << " != " << expected[k];
        ASSERT_TRUE(same(inPlace[k], expected[k])) << "in place, x " << x[k];
      }
      for (const std::size_t k : inShortCalls)
        ASSERT_TRUE(same(shortY[k], expected[k]) && same(shortInPlace[k], expected[k])) << "short call, x " << x[k];
    }
    hwy::SetSupportedTargetsForTest(0);
  }
}

}  // namespace
}  // namespace platform
