#include "platform/spline_data.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "platform/memory.h"
#include "platform/spline_data_batch.h"

namespace platform {
namespace {

using spline_batch::kMaxSolveSteps;
using spline_batch::kMinBracket;
using spline_batch::kSolveTolerance;

bool IsFinite(const Vector& v) {
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

// The first knot right of x.
template <class Iterator>
Iterator FirstKnotAfter(Iterator begin, Iterator end, Float x) {
  return std::upper_bound(begin, end, x, [](Float value, const SplineKnot& knot) { return value < knot.position.x; });
}

// The Bezier segment from knot a to knot b in power form, relative to knot a.
struct Segment : spline_batch::SegmentPolynomials {
  Segment(const SplineKnot& a, const SplineKnot& b) {
    width = b.position.x - a.position.x;
    // Inner control points with their x kept within the segment make Bx(t) monotone, so
    // every x has exactly one t.
    const Float x1 = std::clamp(a.rightTangent.x, 0.0, width);
    const Float x2 = std::clamp(width + b.leftTangent.x, 0.0, width);
    const Float rise = b.position.y - a.position.y;
    const Float y1 = a.rightTangent.y;
    const Float y2 = rise + b.leftTangent.y;
    ax3 = width - 3.0 * x2 + 3.0 * x1;
    ax2 = 3.0 * x2 - 6.0 * x1;
    ax1 = 3.0 * x1;
    ay3 = rise - 3.0 * y2 + 3.0 * y1;
    ay2 = 3.0 * y2 - 6.0 * y1;
    ay1 = 3.0 * y1;
  }

  // The t whose Bx(t) is u, 0 <= u <= width.
  [[nodiscard]] Float Solve(Float u) const {
    // Newton from the chord's guess, which is exact for evenly spread control points;
    // a step leaving the bracket falls back to bisection.
    const Float tolerance = kSolveTolerance * width;
    Float t = u / width;
    Float low = 0.0;
    Float high = 1.0;
    for (int step = 0; step < kMaxSolveSteps; ++step) {
      const Float error = ((ax3 * t + ax2) * t + ax1) * t - u;
      if (std::abs(error) <= tolerance) break;
      if (error < 0.0)
        low = t;
      else
        high = t;
      if (high - low <= kMinBracket) break;
      const Float slope = (3.0 * ax3 * t + 2.0 * ax2) * t + ax1;
      const Float next = t - error / slope;
      t = next > low && next < high ? next : 0.5 * (low + high);
    }
    return t;
  }
  // y relative to knot a, and dy/dx (not finite where the curve is vertical).
  [[nodiscard]] Float Y(Float t) const { return ((ay3 * t + ay2) * t + ay1) * t; }
  [[nodiscard]] Float Slope(Float t) const {
    return ((3.0 * ay3 * t + 2.0 * ay2) * t + ay1) / ((3.0 * ax3 * t + 2.0 * ax2) * t + ax1);
  }
};

// y of the segment from a to b at x, a.x < x < b.x.
Float EvaluateSegment(const SplineKnot& a, const SplineKnot& b, Float x) {
  const Segment segment(a, b);
  return a.position.y + segment.Y(segment.Solve(x - a.position.x));
}

// The span of a curve of knotCount knots, where every sample inside lies between the knots
// after - 1 and after.
spline_batch::SpanOfOneSegment SpanOf(const SplineKnot* knots, Int knotCount, Int after) {
  const SplineKnot& a = knots[after - 1];
  return {Segment(a, knots[after]),
          a.position.x,
          a.position.y,
          knots[0].position.x,
          knots[0].position.y,
          knots[knotCount - 1].position.x,
          knots[knotCount - 1].position.y};
}

}  // namespace

// A copy that cannot allocate is left empty: copies must not throw, and an empty curve is valid.
SplineData::SplineData(const SplineData& other) noexcept {
  (void)CopyFrom(other);
}

SplineData& SplineData::operator=(const SplineData& other) noexcept {
  (void)CopyFrom(other);
  return *this;
}

Status SplineData::CopyFrom(const SplineData& other) {
  if (this == &other) return Ok();
  if (knots_.capacity() >= other.knots_.size()) {
    knots_.assign(other.knots_.begin(), other.knots_.end());  // no allocation
    return Ok();
  }
  std::vector<SplineKnot> copy;
  VLGD_RETURN_IF_ERROR(TryCopy(copy, other.knots_));
  knots_.swap(copy);
  return Ok();
}

const SplineKnot* SplineData::GetKnot(Int32 index) const {
  if (index < 0 || static_cast<std::size_t>(index) >= knots_.size()) return nullptr;
  return &knots_[static_cast<std::size_t>(index)];
}

SplineKnot* SplineData::GetKnot(Int32 index) {
  return MutableKnot(index);
}

SplineKnot* SplineData::MutableKnot(Int32 index) {
  if (index < 0 || static_cast<std::size_t>(index) >= knots_.size()) return nullptr;
  return &knots_[static_cast<std::size_t>(index)];
}

Result<Int32> SplineData::InsertKnot(Float x, Float y, Int32 flags) {
  if (!std::isfinite(x) || !std::isfinite(y)) return IllegalArgumentError("A knot coordinate is not a finite number!");
  if (knots_.size() >= static_cast<std::size_t>(std::numeric_limits<Int32>::max()))
    return IllegalArgumentError("Too many knots!");
  // Reserve first so that the insert itself cannot fail halfway; grow geometrically so
  // that building a curve knot by knot stays linear.
  if (knots_.size() == knots_.capacity())
    VLGD_RETURN_IF_ERROR(TryReserve(knots_, std::max<Int>(8, 2 * static_cast<Int>(knots_.size()))));

  const auto at = FirstKnotAfter(knots_.begin(), knots_.end(), x);
  SplineKnot knot;
  knot.position = Vector(x, y, 0.0);
  knot.flags = flags;
  if (at != knots_.begin()) knot.leftTangent = Vector((std::prev(at)->position.x - x) / 3.0, 0.0, 0.0);
  if (at != knots_.end()) knot.rightTangent = Vector((at->position.x - x) / 3.0, 0.0, 0.0);
  const auto index = static_cast<Int32>(at - knots_.begin());
  knots_.insert(at, knot);
  return index;
}

bool SplineData::SetKnotLeftTangent(Int32 index, const Vector& tangent) {
  SplineKnot* knot = MutableKnot(index);
  if (knot == nullptr || !IsFinite(tangent)) return false;
  knot->leftTangent = Vector(tangent.x, tangent.y, 0.0);
  return true;
}

bool SplineData::SetKnotRightTangent(Int32 index, const Vector& tangent) {
  SplineKnot* knot = MutableKnot(index);
  if (knot == nullptr || !IsFinite(tangent)) return false;
  knot->rightTangent = Vector(tangent.x, tangent.y, 0.0);
  return true;
}

bool SplineData::SetKnotFlags(Int32 index, Int32 flags) {
  SplineKnot* knot = MutableKnot(index);
  if (knot == nullptr) return false;
  knot->flags = flags;
  return true;
}

Status SplineData::MakeLinearSpline(Int32 knotCount) {
  if (knotCount < 2) return IllegalArgumentError("A linear spline needs at least 2 knots!");
  std::vector<SplineKnot> knots;
  VLGD_RETURN_IF_ERROR(TryResize(knots, Int{knotCount}));
  const Int32 last = knotCount - 1;
  const Float third = 1.0 / (3.0 * last);
  const Vector handle(third, third, 0.0);
  for (Int32 i = 0; i <= last; ++i) {
    SplineKnot& knot = knots[static_cast<std::size_t>(i)];
    // Divided rather than stepped so that the last knot lands on 1 exactly.
    const Float position = static_cast<Float>(i) / static_cast<Float>(last);
    knot.position = Vector(position, position, 0.0);
    if (i > 0) knot.leftTangent = -handle;
    if (i < last) knot.rightTangent = handle;
  }
  knots_.swap(knots);
  return Ok();
}

Vector SplineData::GetPoint(Float x) const {
  if (knots_.empty()) return Vector(x, x, 0.0);
  const SplineKnot& first = knots_.front();
  const SplineKnot& last = knots_.back();
  if (!(x > first.position.x)) return Vector(x, first.position.y, 0.0);
  if (x >= last.position.x) return Vector(x, last.position.y, 0.0);
  // first.x < x < last.x: the segment found has a positive width, also where knots share
  // an x (the curve steps there, and x at the step reads the later knot).
  const auto after = FirstKnotAfter(knots_.begin(), knots_.end(), x);
  return Vector(x, EvaluateSegment(*std::prev(after), *after, x), 0.0);
}

void SplineData::GetPointsY(const Float* x, Float* y, Int count) const {
  if (knots_.size() < 2) {
    for (Int i = 0; i < count; ++i) y[i] = GetPoint(x[i]).y;
    return;
  }
  if (knots_.size() == 2) {
    spline_batch::SolveSpan(SpanOf(knots_.data(), 2, 1), x, y, count);
    return;
  }
  for (Int start = 0; start < count; start += kBatch) GetBatchY(x + start, y + start, std::min(kBatch, count - start));
}

void SplineData::GetBatchY(const Float* x, Float* y, Int count) const {
  // Samples inside the span are grouped by segment (a counting sort over the segments the
  // batch touches), each group solved in SIMD with its segment's constants in every lane.
  // Nothing is written to y before every x is read: y may be x.
  constexpr Int kMaxGroups = 64;
  const SplineKnot* knots = knots_.data();
  const auto knotCount = static_cast<Int>(knots_.size());
  const Float firstX = knots[0].position.x;
  const Float lastX = knots[knotCount - 1].position.x;
  // The knot after each sample inside the span; 0 before it (and NaN), knotCount after it.
  std::int32_t afterOf[kBatch];
  Int lowest = knotCount;
  Int highest = 0;
  Int hint = 1;  // neighbouring samples mostly share a segment
  for (Int i = 0; i < count; ++i) {
    const Float v = x[i];
    if (!(v > firstX)) {
      afterOf[i] = 0;
    } else if (v >= lastX) {
      afterOf[i] = static_cast<std::int32_t>(knotCount);
    } else {
      // The first knot right of v, as GetPoint finds it.
      if (!(knots[hint - 1].position.x <= v && v < knots[hint].position.x))
        hint = FirstKnotAfter(knots, knots + knotCount, v) - knots;
      afterOf[i] = static_cast<std::int32_t>(hint);
      lowest = std::min(lowest, hint);
      highest = std::max(highest, hint);
    }
  }
  const auto end = [&](Int i) { return knots[afterOf[i] == 0 ? 0 : knotCount - 1].position.y; };
  const auto inside = [&](Int i) { return afterOf[i] != 0 && afterOf[i] != knotCount; };
  if (highest == 0) {
    for (Int i = 0; i < count; ++i) y[i] = end(i);
    return;
  }
  if (lowest == highest) {  // the common case: no grouping, no gathering
    spline_batch::SolveSpan(SpanOf(knots, knotCount, lowest), x, y, count);
    return;
  }
  if (highest - lowest >= kMaxGroups) {
    for (Int i = 0; i < count; ++i)
      y[i] = inside(i) ? EvaluateSegment(knots[afterOf[i] - 1], knots[afterOf[i]], x[i]) : end(i);
    return;
  }
  Int groupStart[kMaxGroups + 1] = {};
  for (Int i = 0; i < count; ++i)
    if (inside(i)) ++groupStart[afterOf[i] - lowest + 1];
  for (Int g = 0; g < kMaxGroups; ++g) groupStart[g + 1] += groupStart[g];
  Int fill[kMaxGroups];
  std::copy_n(groupStart, kMaxGroups, fill);
  Float u[kBatch];
  Float solved[kBatch];
  std::int32_t sampleOf[kBatch];
  for (Int i = 0; i < count; ++i) {
    if (!inside(i)) continue;
    const Int slot = fill[afterOf[i] - lowest]++;
    u[slot] = x[i] - knots[afterOf[i] - 1].position.x;
    sampleOf[slot] = static_cast<std::int32_t>(i);
  }
  for (Int after = lowest; after <= highest; ++after) {
    const Int begin = groupStart[after - lowest];
    const Int stop = groupStart[after - lowest + 1];
    if (begin == stop) continue;
    const SplineKnot& a = knots[after - 1];
    spline_batch::SolveSegment(Segment(a, knots[after]), a.position.y, u + begin, solved + begin, stop - begin);
  }
  for (Int i = 0; i < count; ++i)
    if (!inside(i)) y[i] = end(i);
  for (Int slot = 0; slot < groupStart[highest - lowest + 1]; ++slot) y[sampleOf[slot]] = solved[slot];
}

Result<SplineSampler> SplineSampler::Build(const SplineData& curve) {
  SplineSampler sampler;
  sampler.curve_ = &curve;
  const Int32 knotCount = curve.GetKnotCount();
  if (knotCount < 2) return sampler;  // every x goes to GetPoint
  const SplineKnot& first = *curve.GetKnot(0);
  const SplineKnot& last = *curve.GetKnot(knotCount - 1);
  const Float span = last.position.x - first.position.x;
  if (!(span > 0.0)) return sampler;
  sampler.start_ = first.position.x;
  sampler.end_ = last.position.x;
  sampler.inverseCell_ = static_cast<Float>(kCells) / span;
  VLGD_RETURN_IF_ERROR(TryResize(sampler.cells_, kCells + 1));
  sampler.cells_.back() = {last.position.y, 0.0, 0.0, 0.0};

  // The exact values at the cell ends, then a cubic Hermite per cell checked against the
  // exact curve inside it; cells around a knot or too steep for it keep solving.
  const Float cellWidth = span / static_cast<Float>(kCells);
  Float low = first.position.y, high = first.position.y;
  for (Int32 k = 1; k < knotCount; ++k) {
    low = std::min(low, curve.GetKnot(k)->position.y);
    high = std::max(high, curve.GetKnot(k)->position.y);
  }
  const Float tolerance = kSamplerTolerance * std::max(1.0, high - low);
  Int32 segmentEnd = 1;  // the knot that ends the current segment
  Int32 solvedEnd = 0;   // the segment whose t at the previous cell's end is `solvedT`
  Float solvedT = 0.0;
  for (Int cell = 0; cell < kCells; ++cell) {
    Cell& c = sampler.cells_[static_cast<std::size_t>(cell)];
    const Float xa = sampler.start_ + static_cast<Float>(cell) * cellWidth;
    const Float xb = cell + 1 == kCells ? sampler.end_ : xa + cellWidth;
    while (segmentEnd < knotCount - 1 && curve.GetKnot(segmentEnd)->position.x <= xa) ++segmentEnd;
    const SplineKnot& a = *curve.GetKnot(segmentEnd - 1);
    const SplineKnot& b = *curve.GetKnot(segmentEnd);
    c = {std::numeric_limits<Float>::quiet_NaN(), 0.0, 0.0, 0.0};       // NaN: solve
    if (b.position.x < xb || !(b.position.x > a.position.x)) continue;  // a knot inside
    const Segment segment(a, b);
    const Float ta = solvedEnd == segmentEnd ? solvedT : segment.Solve(std::max(0.0, xa - a.position.x));
    const Float tb = segment.Solve(std::min(segment.width, xb - a.position.x));
    solvedEnd = segmentEnd;
    solvedT = tb;
    const Float y0 = a.position.y + segment.Y(ta);
    const Float y1 = a.position.y + segment.Y(tb);
    const Float m0 = segment.Slope(ta) * (xb - xa);
    const Float m1 = segment.Slope(tb) * (xb - xa);
    const Cell cubic{y0, m0, 3.0 * (y1 - y0) - 2.0 * m0 - m1, 2.0 * (y0 - y1) + m0 + m1};
    bool close = std::isfinite(cubic.c1) && std::isfinite(cubic.c2) && std::isfinite(cubic.c3);
    for (const Float f : {0.25, 0.5, 0.75}) {
      const Float exact = a.position.y + segment.Y(segment.Solve(xa + f * (xb - xa) - a.position.x));
      close = close && std::abs(cubic(f) - exact) <= tolerance;
    }
    if (close) c = cubic;
  }
  return sampler;
}

void SplineSampler::RemapNormalised(const Float* in, Float* out, Int count, Float minimum, Float inverseRange,
                                    Float range) const {
  if (cells_.empty()) {
    for (Int i = 0; i < count; ++i) out[i] = curve_->GetPoint((in[i] - minimum) * inverseRange).y * range + minimum;
    return;
  }
  // Locals, so that the stores to out cannot make the compiler read the members again.
  const Cell* cells = cells_.data();
  const Float start = start_, end = end_, inverseCell = inverseCell_;
  for (Int i = 0; i < count; ++i) {
    const Float x = (in[i] - minimum) * inverseRange;
    const Float inside = x > start ? (x < end ? x : end) : start;
    const Float u = (inside - start) * inverseCell;
    const auto cell = static_cast<Int>(u);
    const Float f = u - static_cast<Float>(cell);
    out[i] = cells[cell](f) * range + minimum;
  }
  // Cells that solve hold NaN and so leave NaN behind, as a NaN height does: both are
  // looked up again here, which keeps the loop above free of branches.
  for (Int i = 0; i < count; ++i)
    if (std::isnan(out[i])) out[i] = curve_->GetPoint((in[i] - minimum) * inverseRange).y * range + minimum;
}

}  // namespace platform
