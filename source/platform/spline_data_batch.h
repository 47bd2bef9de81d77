#pragma once

// What the curve's SIMD solver (spline_data_batch.cpp) shares with SplineData::GetPoint
// (spline_data.cpp): the solve's limits and a Bezier segment's power form, so that both
// solve alike.

#include "platform/types.h"

namespace platform::spline_batch {

// The solve for t stops once Bx(t) is this close to x, relative to the segment's width.
inline constexpr Float kSolveTolerance = 1e-14;
// ... or once the bracket around t is this narrow, which only happens where the curve is
// vertical and x hardly moves with t.
inline constexpr Float kMinBracket = 1e-15;
// Bisection alone needs about 50 halvings to reach kMinBracket.
inline constexpr int kMaxSolveSteps = 64;

// Bx(t) = ((ax3 t + ax2) t + ax1) t and By(t) alike, relative to the segment's first knot.
struct SegmentPolynomials {
  Float ax1, ax2, ax3, ay1, ay2, ay3;
  Float width;
};

// y[i] = baseY + By(t) with Bx(t) = u[i], for 0 < u[i] < width and i < count, in the
// scalar solve's operations and order, lane by lane, on the machine's best SIMD target.
void SolveSegment(const SegmentPolynomials& segment, Float baseY, const Float* u, Float* y, Int count);

// A curve whose samples inside its span all lie in one segment, from the knot at knotX.
struct SpanOfOneSegment {
  SegmentPolynomials segment;
  Float knotX, knotY;
  Float firstX, firstY, lastX, lastY;  // the ends of the curve
};

// y[i] = GetPoint(x[i]).y for i < count where every x[i] inside the span lies in the
// segment; y may be x.
void SolveSpan(const SpanOfOneSegment& span, const Float* x, Float* y, Int count);

}  // namespace platform::spline_batch
