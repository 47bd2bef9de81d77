#pragma once

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/cancellation.h"
#include "platform/image.h"
#include "platform/large_array.h"
#include "platform/result.h"
#include "platform/types.h"
#include "platform/vector.h"

namespace VLGD {

using platform::Float;
using platform::Int;
using platform::Int32;
using platform::Result;
using platform::Status;
using platform::Vector;

enum class SAMPLEINTERPOLATION : Int32 {
  NEAREST = 0,
  BILINEAR = 1,
  BICUBIC = 2,
};

enum class OUTOFBOUNDSMODE : Int32 {
  NONE = 0,
  CLAMP = 1,
  TILE = 2,
  MIRROR = 3,
};

// Maps an index outside 0 .. count-1 back into the grid. NONE leaves it as it is (the
// caller guarantees it is inside); CLAMP clamps; TILE wraps around; MIRROR reflects once
// without repeating the border sample at the low edge (-1 reads 1) and with repeating it
// at the high edge (count reads count-1), as the kernel convolution does, then clamps
// what a single reflection cannot reach.
constexpr Int RemapIndex(Int index, Int count, OUTOFBOUNDSMODE mode) {
  if (index >= 0 && index < count) return index;
  switch (mode) {
    case OUTOFBOUNDSMODE::NONE:
      return index;
    case OUTOFBOUNDSMODE::TILE: {
      const Int wrapped = index % count;
      return wrapped < 0 ? wrapped + count : wrapped;
    }
    case OUTOFBOUNDSMODE::MIRROR: {
      const Int reflected = index < 0 ? -index : 2 * count - index - 1;
      return std::clamp<Int>(reflected, 0, count - 1);
    }
    case OUTOFBOUNDSMODE::CLAMP:
    default:
      return std::clamp<Int>(index, 0, count - 1);
  }
}

// Cubic Hermite interpolation between p1 and p2 at mu in 0 .. 1, with p0 and p3 shaping
// the tangents. Tension 0 and bias 0 give the Catmull-Rom spline; the result may overshoot.
constexpr Float Hermite(Float p0, Float p1, Float p2, Float p3, Float mu, Float tension, Float bias) {
  const Float m0 = (p1 - p0) * (1.0 + bias) * (1.0 - tension) * 0.5 + (p2 - p1) * (1.0 - bias) * (1.0 - tension) * 0.5;
  const Float m1 = (p2 - p1) * (1.0 + bias) * (1.0 - tension) * 0.5 + (p3 - p2) * (1.0 - bias) * (1.0 - tension) * 0.5;
  const Float mu2 = mu * mu;
  const Float mu3 = mu2 * mu;
  const Float a0 = 2.0 * mu3 - 3.0 * mu2 + 1.0;
  const Float a1 = mu3 - 2.0 * mu2 + mu;
  const Float a2 = mu3 - mu2;
  const Float a3 = 3.0 * mu2 - 2.0 * mu3;
  return a0 * p1 + a1 * m0 + a2 * m1 + a3 * p2;
}

// The bounds a range starts from before any value is included.
template <class T>
constexpr T RangeLowest() {
  if constexpr (std::is_same_v<T, Vector>)
    return Vector(std::numeric_limits<Float>::max());
  else
    return std::numeric_limits<Float>::max();
}

// A rectangular field of samples, row-major (index y * width + x), with its physical size
// and a cached minimum/maximum. Row 0 is the first row in memory and the terrain's +Z edge.
// Copies are explicit (CopyFrom) because they allocate and may fail.
template <class T>
class Grid2D {
 public:
  Grid2D() = default;
  Grid2D(const Grid2D&) = delete;
  Grid2D& operator=(const Grid2D&) = delete;
  Grid2D(Grid2D&&) noexcept = default;
  Grid2D& operator=(Grid2D&&) noexcept = default;

  // Gives the grid width x height samples, all zero, over sizeX x sizeY. Negative counts,
  // sizes that are not positive and finite, or a sample count beyond memory are refused;
  // on failure the grid is left empty.
  Status Init(Int width, Int height, Float sizeX, Float sizeY);
  // Takes the shape and physical size of another grid, with all samples zero; on
  // allocation failure the grid is left empty.
  template <class U>
  Status InitFrom(const Grid2D<U>& other) {
    return InitShape(other.Width(), other.Height(), other.SizeX(), other.SizeY());
  }
  // The shape of `other` with the range reset, for computations that write every sample:
  // storage of the same size is kept as it is instead of being zeroed, saving a pass over
  // memory; otherwise the old samples are freed before the new ones are allocated.
  template <class U>
  Status ReshapeLike(const Grid2D<U>& other) {
    if (width_ == other.Width() && height_ == other.Height() && sizeX_ == other.SizeX() && sizeY_ == other.SizeY()) {
      ResetRange();
      return platform::Ok();
    }
    Reset();
    return InitFrom(other);
  }
  // Counts and sizes 0, storage freed, range reset.
  void Reset();
  // A deep copy of shape, range and samples.
  Status CopyFrom(const Grid2D& other);

  [[nodiscard]] Int Width() const { return width_; }
  [[nodiscard]] Int Height() const { return height_; }
  [[nodiscard]] Int Count() const { return count_; }
  [[nodiscard]] Float SizeX() const { return sizeX_; }
  [[nodiscard]] Float SizeY() const { return sizeY_; }
  [[nodiscard]] bool IsEmpty() const { return count_ == 0; }

  [[nodiscard]] const T& Minimum() const { return minimum_; }
  [[nodiscard]] const T& Maximum() const { return maximum_; }
  [[nodiscard]] bool IsMinMaxValid() const { return minMaxValid_; }
  void ResetRange() {
    minimum_ = RangeLowest<T>();
    maximum_ = -RangeLowest<T>();
    minMaxValid_ = false;
  }
  void IncludeInRange(const T& value);
  // Takes the range of another grid, valid or not, as a copy of it would.
  void CopyRangeFrom(const Grid2D& other) {
    minimum_ = other.minimum_;
    maximum_ = other.maximum_;
    minMaxValid_ = other.minMaxValid_;
  }
  // Reset, then include every sample in storage order.
  void RecomputeRange();

  // Direct access without bounds handling: callers clamp.
  [[nodiscard]] const T& Get(Int x, Int y) const { return values_[static_cast<std::size_t>(y * width_ + x)]; }
  void Set(Int x, Int y, const T& value) { values_[static_cast<std::size_t>(y * width_ + x)] = value; }
  [[nodiscard]] std::span<T> Values() { return values_; }
  [[nodiscard]] std::span<const T> Values() const { return values_; }
  [[nodiscard]] T* Data() { return values_.data(); }
  [[nodiscard]] const T* Data() const { return values_.data(); }

  // Reads the field at fractional sample coordinates (x in columns, y in rows).
  [[nodiscard]] Float Sample(Float x, Float y, SAMPLEINTERPOLATION interpolation) const
    requires std::is_same_v<T, Float>;
  // The surface normal at a sample, neighbours clamped to the grid. The vertical
  // component is twice the sample spacing; heights are taken without the physical size.
  [[nodiscard]] Vector Normal(Int x, Int y) const
    requires std::is_same_v<T, Float>;
  // Maps every sample from the current range to 0 .. 1, then by scale and offset. An
  // empty or flat grid is left as it is. The cached range keeps describing the values
  // from before the mapping.
  Status Normalize(Float scale, Float offset, const platform::CancellationToken* thread = nullptr);
  // A single-channel 32-bit float image of the heights, row 0 at the bottom line.
  [[nodiscard]] Result<platform::Image> ToHeightImage() const
    requires std::is_same_v<T, Float>;

  // Makes this grid the normal map of a height grid.
  Status ComputeNormals(const Grid2D<Float>& source)
    requires std::is_same_v<T, Vector>;
  // An 8-bit RGB image: each component x 255, clamped to 0 .. 255 and truncated (negative
  // components become 0); row 0 is the bottom line.
  [[nodiscard]] Result<platform::Image> ToBitmap() const
    requires std::is_same_v<T, Vector>;

  // A debug rendering of the first n samples.
  [[nodiscard]] std::string ToString(Int n) const;

 private:
  // Allocates without judging the sizes, which InitFrom copies as they stand.
  Status InitShape(Int width, Int height, Float sizeX, Float sizeY);

  Int width_ = 0;
  Int height_ = 0;
  Int count_ = 0;
  Float sizeX_ = 0.0;
  Float sizeY_ = 0.0;
  T minimum_ = RangeLowest<T>();
  T maximum_ = -RangeLowest<T>();
  bool minMaxValid_ = false;
  platform::LargeArray<T> values_;
};

template <class T>
inline void Grid2D<T>::IncludeInRange(const T& value) {
  if (!minMaxValid_) {
    minimum_ = value;
    maximum_ = value;
    minMaxValid_ = true;
    return;
  }
  if constexpr (std::is_same_v<T, Vector>) {
    minimum_ = platform::Min(minimum_, value);
    maximum_ = platform::Max(maximum_, value);
  } else {
    if (value < minimum_) minimum_ = value;
    if (value > maximum_) maximum_ = value;
  }
}

template <class T>
inline Float Grid2D<T>::Sample(Float x, Float y, SAMPLEINTERPOLATION interpolation) const
  requires std::is_same_v<T, Float>
{
  const Int lastColumn = width_ - 1;
  const Int lastRow = height_ - 1;
  auto column = [lastColumn](Int c) { return std::clamp<Int>(c, 0, lastColumn); };
  auto row = [lastRow](Int r) { return std::clamp<Int>(r, 0, lastRow); };
  switch (interpolation) {
    case SAMPLEINTERPOLATION::BILINEAR: {
      const Float floorX = std::floor(x);
      const Float floorY = std::floor(y);
      const Int x0 = column(static_cast<Int>(floorX));
      const Int x1 = column(static_cast<Int>(std::ceil(x)));
      const Int y0 = row(static_cast<Int>(floorY));
      const Int y1 = row(static_cast<Int>(std::ceil(y)));
      const Float fx = x - floorX;
      const Float fy = y - floorY;
      const Float a = Get(x0, y0) + (Get(x1, y0) - Get(x0, y0)) * fx;
      const Float b = Get(x0, y1) + (Get(x1, y1) - Get(x0, y1)) * fx;
      return a + (b - a) * fy;
    }
    case SAMPLEINTERPOLATION::BICUBIC: {
      const Float floorX = std::floor(x);
      const Float floorY = std::floor(y);
      const Int x0 = static_cast<Int>(floorX);
      const Int y0 = static_cast<Int>(floorY);
      const Float fx = x - floorX;
      const Float fy = y - floorY;
      const Int c0 = column(x0 - 1), c1 = column(x0), c2 = column(x0 + 1), c3 = column(x0 + 2);
      Float rows[4];
      for (Int k = 0; k < 4; ++k) {
        const Float* line = values_.data() + row(y0 - 1 + k) * width_;
        rows[k] = Hermite(line[c0], line[c1], line[c2], line[c3], fx, 0.0, 0.0);
      }
      return Hermite(rows[0], rows[1], rows[2], rows[3], fy, 0.0, 0.0);
    }
    case SAMPLEINTERPOLATION::NEAREST:
    default:
      // Rounds half up. Callers pass coordinates inside the grid; the clamp only keeps a
      // stray coordinate from reading outside the storage.
      return Get(column(static_cast<Int>(std::floor(x + 0.5))), row(static_cast<Int>(std::floor(y + 0.5))));
  }
}

template <class T>
inline Vector Grid2D<T>::Normal(Int x, Int y) const
  requires std::is_same_v<T, Float>
{
  const Int left = std::max<Int>(x - 1, 0);
  const Int right = std::min<Int>(x + 1, width_ - 1);
  const Int up = std::max<Int>(y - 1, 0);
  const Int down = std::min<Int>(y + 1, height_ - 1);
  const Float dx = Get(left, y) - Get(right, y);
  const Float dz = Get(x, up) - Get(x, down);
  const Float length = std::sqrt(dx * dx + 4.0 + dz * dz);
  return Vector(dx / length, 2.0 / length, dz / length);
}

extern template class Grid2D<Float>;
extern template class Grid2D<Vector>;

}  // namespace VLGD
