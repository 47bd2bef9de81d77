#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "platform/result.h"
#include "platform/types.h"
#include "platform/vector.h"

namespace platform {

// Left and right tangents of a knot are edited independently. Evaluation always uses both
// tangents as stored; the flag only tells editors and files how the knot was made.
constexpr Int32 kKnotFlagBreakTangents = 0x10;

// A knot of a curve in the x/y plane. The tangents are offsets from the position; z is 0
// throughout.
struct SplineKnot {
  Vector position;
  Vector leftTangent;
  Vector rightTangent;
  Int32 flags = 0;

  friend bool operator==(const SplineKnot&, const SplineKnot&) = default;
};

// A curve y(x) through knots sorted by x, used for transfer curves and gradient profiles
// over the unit square. Between two neighbouring knots it is the cubic Bezier with control
// points P_i, P_i + right_i, P_{i+1} + left_{i+1}, P_{i+1}; before the first knot and
// after the last it stays at that knot's y.
class SplineData {
 public:
  SplineData() = default;
  // Knot lists are small, so plain copies are offered; a copy whose allocation fails
  // yields no knots (construction) or keeps the old knots (assignment). Code that must
  // know uses CopyFrom.
  SplineData(const SplineData& other) noexcept;
  SplineData& operator=(const SplineData& other) noexcept;
  SplineData(SplineData&&) noexcept = default;
  SplineData& operator=(SplineData&&) noexcept = default;

  // A deep copy; on failure this curve is left as it was.
  Status CopyFrom(const SplineData& other);

  [[nodiscard]] Int32 GetKnotCount() const { return static_cast<Int32>(knots_.size()); }
  // nullptr for an index out of range. Moving a knot's position through the writable
  // pointer must keep the knots sorted by x.
  [[nodiscard]] const SplineKnot* GetKnot(Int32 index) const;
  [[nodiscard]] SplineKnot* GetKnot(Int32 index);

  // Adds a knot at (x, y) and returns its index; a knot at the x of existing ones goes
  // after them. Its tangents are horizontal, each a third of the x distance to the
  // neighbour on that side long, and zero on a side without a neighbour. Other knots are
  // not touched. Non-finite coordinates are refused.
  Result<Int32> InsertKnot(Float x, Float y, Int32 flags = 0);
  void DeleteAllKnots() { knots_.clear(); }

  // Each returns false and changes nothing for an index out of range (presets rely on
  // that) or for a non-finite tangent. The z component is stored as 0.
  bool SetKnotLeftTangent(Int32 index, const Vector& tangent);
  bool SetKnotRightTangent(Int32 index, const Vector& tangent);
  bool SetKnotFlags(Int32 index, Int32 flags);

  // Replaces the knots by knotCount knots evenly spaced on y = x from (0, 0) to (1, 1),
  // tangents along the diagonal a third of the spacing long (none on the open ends), so
  // that the curve maps every x in 0 .. 1 to itself. At least 2 knots; on failure the
  // curve is left as it was.
  Status MakeLinearSpline(Int32 knotCount);

  // The curve point (x, y, 0) above x. Without knots the curve is the identity, with one
  // knot it is that knot's y; a NaN x reads the first knot's y. Const, free of
  // allocation and safe to call from any number of threads.
  [[nodiscard]] Vector GetPoint(Float x) const;

  // y[i] = GetPoint(x[i]).y for i < count, the same bits, many samples at a time in SIMD;
  // y may be x. Const, free of allocation and safe to call from any number of threads.
  void GetPointsY(const Float* x, Float* y, Int count) const;

  friend bool operator==(const SplineData& a, const SplineData& b) { return a.knots_ == b.knots_; }

 private:
  static constexpr Int kBatch = 256;  // samples a call keeps on the stack

  SplineKnot* MutableKnot(Int32 index);
  // GetPointsY for count <= kBatch.
  void GetBatchY(const Float* x, Float* y, Int count) const;

  std::vector<SplineKnot> knots_;
};

// y(x) of a curve for very many x, as the filters need it: the knots' span is cut into
// kCells cells, and each cell whose curve a cubic follows to within kSamplerTolerance of the
// curve's height range is evaluated as that cubic; cells around a knot, or where the curve
// turns too fast, solve the curve as GetPoint does. Outside the span and for NaN it reads
// as GetPoint. The curve must outlive the sampler and stay unchanged while it is used.
class SplineSampler {
 public:
  static constexpr Int kCells = 8192;
  static constexpr Float kSamplerTolerance = 1e-12;

  static Result<SplineSampler> Build(const SplineData& curve);

  [[nodiscard]] Float operator()(Float x) const {
    if (cells_.empty()) return curve_->GetPoint(x).y;
    // Clamped without branches (NaN goes to the start); past the last cell lies one more
    // that holds the last knot's y.
    const Float inside = x > start_ ? (x < end_ ? x : end_) : start_;
    const Float u = (inside - start_) * inverseCell_;
    const auto cell = static_cast<Int>(u);
    const Float f = u - static_cast<Float>(cell);
    const Cell& c = cells_[static_cast<std::size_t>(cell)];
    if (std::isnan(c.c0)) [[unlikely]]
      return curve_->GetPoint(x).y;
    return c(f);
  }

  // out[i] = y((in[i] - minimum) x inverseRange) x range + minimum for i < count: a height
  // normalised by its range, sent through the curve and scaled back.
  void RemapNormalised(const Float* in, Float* out, Int count, Float minimum, Float inverseRange, Float range) const;

 private:
  struct Cell {
    Float c0, c1, c2, c3;  // y = c0 + c1 f + c2 f^2 + c3 f^3 over the cell, 0 <= f <= 1

    [[nodiscard]] Float operator()(Float f) const { return ((c3 * f + c2) * f + c1) * f + c0; }
  };

  const SplineData* curve_ = nullptr;
  std::vector<Cell> cells_;
  Float start_ = 0.0, end_ = 0.0, inverseCell_ = 0.0;
};

}  // namespace platform
