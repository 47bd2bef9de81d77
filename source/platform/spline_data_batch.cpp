// Compiled once per SIMD target; SolveSegment at the end picks the machine's best. Each lane
// is one sample running the scalar solve's steps in its order; a lane whose solve has ended
// keeps its t while the others go on, so every target gives the scalar bits.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "platform/spline_data_batch.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include "platform/spline_data_batch.h"

HWY_BEFORE_NAMESPACE();
namespace platform::spline_batch::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using D = hn::ScalableTag<double>;
using V = hn::Vec<D>;
using M = hn::Mask<D>;

// The segment's constants in every lane, the products the scalar code forms first included.
struct Broadcast {
  V ax1, ax2, ax3, threeAx3, twoAx2, ay1, ay2, ay3, tolerance, minBracket, half;

  Broadcast(D d, const SegmentPolynomials& s)
      : ax1(hn::Set(d, s.ax1)),
        ax2(hn::Set(d, s.ax2)),
        ax3(hn::Set(d, s.ax3)),
        threeAx3(hn::Set(d, 3.0 * s.ax3)),
        twoAx2(hn::Set(d, 2.0 * s.ax2)),
        ay1(hn::Set(d, s.ay1)),
        ay2(hn::Set(d, s.ay2)),
        ay3(hn::Set(d, s.ay3)),
        tolerance(hn::Set(d, kSolveTolerance * s.width)),
        minBracket(hn::Set(d, kMinBracket)),
        half(hn::Set(d, 0.5)) {}
};

// One vector of samples on its way through the solve.
struct Solve {
  V u, t, low, high;
  M active;

  Solve(D d, V width, V target) : u(target), t(target / width), low(hn::Zero(d)), high(hn::Set(d, 1.0)) {
    active = hn::Eq(low, low);
  }

  // One Newton or bisection step where the solve goes on; false once it has ended in every lane.
  HWY_INLINE bool Step(D d, const Broadcast& c) {
    const V error = ((c.ax3 * t + c.ax2) * t + c.ax1) * t - u;
    active = hn::AndNot(hn::Abs(error) <= c.tolerance, active);
    const M below = error < hn::Zero(d);
    low = hn::IfThenElse(below, t, low);
    high = hn::IfThenElse(below, high, t);
    active = hn::AndNot(high - low <= c.minBracket, active);
    if (hn::AllFalse(d, active)) return false;
    const V slope = (c.threeAx3 * t + c.twoAx2) * t + c.ax1;
    const V next = t - error / slope;
    const V bisected = c.half * (low + high);
    t = hn::IfThenElse(active, hn::IfThenElse(hn::And(next > low, next < high), next, bisected), t);
    return true;
  }

  [[nodiscard]] V Y(const Broadcast& c) const { return ((c.ay3 * t + c.ay2) * t + c.ay1) * t; }
};

// Two vectors at a time, so that one's division and multiplications overlap the other's;
// By(t) of each lane.
HWY_INLINE void SolvePair(D d, const Broadcast& c, V width, V uA, V uB, V& yA, V& yB) {
  Solve a(d, width, uA);
  Solve b(d, width, uB);
  bool aGoes = true, bGoes = true;
  for (int step = 0; step < kMaxSolveSteps && (aGoes || bGoes); ++step) {
    if (aGoes) aGoes = a.Step(d, c);
    if (bGoes) bGoes = b.Step(d, c);
  }
  yA = a.Y(c);
  yB = b.Y(c);
}

// Runs `pairOf(in, out)` on whole pairs of vectors, the rest padded with its last value.
template <class PairOf>
HWY_INLINE void ForPairs(D d, const Float* in, Float* out, Int count, const PairOf& pairOf) {
  const auto pair = static_cast<Int>(2 * hn::Lanes(d));
  Int i = 0;
  for (; i + pair <= count; i += pair) pairOf(in + i, out + i);
  if (i == count) return;
  HWY_ALIGN Float paddedIn[2 * HWY_MAX_BYTES / sizeof(Float)];
  HWY_ALIGN Float paddedOut[2 * HWY_MAX_BYTES / sizeof(Float)];
  const Int rest = count - i;
  for (Int k = 0; k < pair; ++k) paddedIn[k] = in[i + (k < rest ? k : rest - 1)];
  pairOf(paddedIn, paddedOut);
  for (Int k = 0; k < rest; ++k) out[i + k] = paddedOut[k];
}

void SolveSegmentImpl(const SegmentPolynomials& segment, Float baseY, const Float* u, Float* y, Int count) {
  const D d;
  const Broadcast c(d, segment);
  const V width = hn::Set(d, segment.width);
  const V base = hn::Set(d, baseY);
  const size_t n = hn::Lanes(d);
  ForPairs(d, u, y, count, [&](const Float* in, Float* out) {
    V yA, yB;
    SolvePair(d, c, width, hn::LoadU(d, in), hn::LoadU(d, in + n), yA, yB);
    hn::StoreU(base + yA, d, out);
    hn::StoreU(base + yB, d, out + n);
  });
}

void SolveSpanImpl(const SpanOfOneSegment& span, const Float* x, Float* y, Int count) {
  const D d;
  const Broadcast c(d, span.segment);
  const V width = hn::Set(d, span.segment.width);
  const V knotX = hn::Set(d, span.knotX), knotY = hn::Set(d, span.knotY);
  const V firstX = hn::Set(d, span.firstX), firstY = hn::Set(d, span.firstY);
  const V lastX = hn::Set(d, span.lastX), lastY = hn::Set(d, span.lastY);
  const V middle = hn::Set(d, 0.5 * span.segment.width);
  const size_t n = hn::Lanes(d);
  // As GetPoint: x not right of the first knot (NaN too) reads its y, x at or right of the
  // last knot that one's; lanes outside solve the segment's middle and are not kept.
  const auto read = [&](V v, V solved) {
    const M before = hn::Not(v > firstX);
    return hn::IfThenElse(before, firstY, hn::IfThenElse(v >= lastX, lastY, knotY + solved));
  };
  const auto relative = [&](V v) { return hn::IfThenElse(hn::And(v > firstX, v < lastX), v - knotX, middle); };
  ForPairs(d, x, y, count, [&](const Float* in, Float* out) {
    const V xA = hn::LoadU(d, in), xB = hn::LoadU(d, in + n);
    V yA, yB;
    SolvePair(d, c, width, relative(xA), relative(xB), yA, yB);
    hn::StoreU(read(xA, yA), d, out);
    hn::StoreU(read(xB, yB), d, out + n);
  });
}

}  // namespace platform::spline_batch::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace platform::spline_batch {

HWY_EXPORT(SolveSegmentImpl);
HWY_EXPORT(SolveSpanImpl);

void SolveSegment(const SegmentPolynomials& segment, Float baseY, const Float* u, Float* y, Int count) {
  if (count > 0) HWY_DYNAMIC_DISPATCH(SolveSegmentImpl)(segment, baseY, u, y, count);
}

void SolveSpan(const SpanOfOneSegment& span, const Float* x, Float* y, Int count) {
  if (count > 0) HWY_DYNAMIC_DISPATCH(SolveSpanImpl)(span, x, y, count);
}

}  // namespace platform::spline_batch
#endif
