#pragma once

#include <cmath>
#include <limits>
#include <span>
#include <vector>

#include "platform/cancellation.h"
#include "platform/result.h"
#include "platform/types.h"
#include "platform/vector.h"

namespace VLGD {

using platform::Float;
using platform::Int;
using platform::Int32;
using platform::Status;
using platform::Vector;

// Appends the points of the cubic Bezier p0 .. p3 after p0, flattened so that no point of
// the curve lies farther than `tolerance` from the polyline (in all three axes, so that
// heights along it are as close as positions). Subdivision stops at a depth of 16 halvings.
Status FlattenCubic(const Vector& p0, const Vector& p1, const Vector& p2, const Vector& p3, Float tolerance,
                    std::vector<Vector>& out);

// A segment as the field stores it, outside the class for the per-target query code.
namespace spline_detail {
struct Segment {
  Float ax, az, ay;            // start
  Float dx, dz, dy;            // end minus start
  Float inverseLengthSquared;  // 0 for a point
  Int32 polyline;
};
}  // namespace spline_detail

// Distances in the X/Z plane from any point to a set of polylines, found through a uniform
// grid of cells: each cell keeps only the segments that can be the nearest one for some
// point inside it and lie within the reach, so that a query costs a few segment tests near
// the curves and one cell look-up elsewhere.
class SegmentField {
 public:
  struct Nearest {
    Float distance = std::numeric_limits<Float>::infinity();  // infinite beyond the reach
    Float height = 0.0;   // Y on the curve at the nearest point, or the filled curve's level
    bool inside = false;  // inside a filled closed polyline; distance is then 0
  };

  // Adds a polyline of (x, height, z) points. A closed one joins its last point to its
  // first; a filled one (closed only) also marks its inside. Fewer than two points, or
  // non-finite ones, add nothing.
  Status AddPolyline(std::span<const Vector> points, bool closed, bool fill);

  // Buckets the segments for queries within `reach` of them, with cells of about
  // `cellSize` units (enlarged when the cells would be too many).
  Status Build(Float reach, Float cellSize, const platform::CancellationToken* cancel = nullptr);

  [[nodiscard]] Int SegmentCount() const { return static_cast<Int>(segments_.size()); }
  [[nodiscard]] Int MemoryUsage() const;

  // Where, along +X from (x, z), the first cell with segments begins: x itself when the
  // point's cell has some (or filled curves need every point), infinity when no cell ahead
  // in the row has any. Points before it find nothing, so a row can skip them.
  [[nodiscard]] Float BusyFrom(Float x, Float z) const {
    constexpr Float kNone = std::numeric_limits<Float>::infinity();
    const Float v = (z - originZ_) * inverseCell_;
    if (!(v >= 0.0 && v < static_cast<Float>(cellsZ_))) return kNone;
    const Float u = (x - originX_) * inverseCell_;
    if (hasFill_ || std::isnan(u)) return x;
    if (u >= static_cast<Float>(cellsX_)) return kNone;
    const Int row = static_cast<Int>(v) * cellsX_;
    Int column = u > 0.0 ? static_cast<Int>(u) : 0;
    if (u >= 0.0 && cellCount_[static_cast<std::size_t>(row + column)] != 0) return x;
    for (; column < cellsX_; ++column)
      if (cellCount_[static_cast<std::size_t>(row + column)] != 0)
        return originX_ + static_cast<Float>(column) / inverseCell_;
    return kNone;
  }

  // The cell holding (x, z), or -1 outside the field (NaN included). Points of one cell
  // share their candidate segments, so they can be queried together.
  [[nodiscard]] Int CellOf(Float x, Float z) const {
    const Float u = (x - originX_) * inverseCell_;
    const Float v = (z - originZ_) * inverseCell_;
    // Negated tests also send NaN outside.
    if (!(u >= 0.0 && v >= 0.0 && u < static_cast<Float>(cellsX_) && v < static_cast<Float>(cellsZ_))) return -1;
    return static_cast<Int>(v) * cellsX_ + static_cast<Int>(u);
  }

  // How much of its cell's width lies ahead of x along +X, as a fraction (0 .. 1].
  [[nodiscard]] Float CellAhead(Float x) const {
    const Float u = (x - originX_) * inverseCell_;
    return std::floor(u) + 1.0 - u;
  }
  [[nodiscard]] Float CellSize() const { return 1.0 / inverseCell_; }

  // Whether a cell holds no segment and no filled curve can cover it: its points find
  // nothing.
  [[nodiscard]] bool IsEmpty(Int cell) const {
    return cell < 0 || (!hasFill_ && cellCount_[static_cast<std::size_t>(cell)] == 0);
  }

  // The nearest point of the curves to (x, z): the exact distance when it is within the
  // reach, with ties going to the segment added first.
  [[nodiscard]] Nearest Query(Float x, Float z) const;

  // Query for `count` points (x[i] + offsetX, z[i] + offsetZ) that share one cell (as
  // CellOf gives it, not -1): each of the cell's segments is tested against all of them at
  // once. Writes the distance (infinite beyond the reach, 0 inside a fill) and the height of
  // each. Every array holds kPadding entries past `count`, where whole vectors load and
  // store; lanes loaded there take part in nothing. An offset lets a caller add a row's
  // share of the points where it is used, rather than store the sums just before they load.
  static constexpr Int kPadding = 8;        // the widest vector's lanes
  static constexpr Float kNoOffset = -0.0;  // x + -0 is x, zeros' signs included
  void QueryRun(Int cell, const Float* x, Float offsetX, const Float* z, Float offsetZ, Int count, Float* distance,
                Float* height) const;

 private:
  using Segment = spline_detail::Segment;
  struct Polyline {
    bool fill = false;
    Float level = 0.0;  // the length-weighted mean height, the fill's height
  };

  // Even-odd test per filled polyline along +X, against the segments crossing the row band;
  // the level of the first polyline found around (x, z), if any.
  [[nodiscard]] bool Inside(Float x, Float z, Int band, Float& level) const {
    const Int32* entry = bandEntries_.data() + bandStart_[static_cast<std::size_t>(band)];
    const Int32* const end = bandEntries_.data() + bandStart_[static_cast<std::size_t>(band) + 1];
    Int32 current = -1;
    bool odd = false;
    for (; entry != end; ++entry) {
      const Segment& s = segments_[static_cast<std::size_t>(*entry)];
      if (s.polyline != current) {
        if (odd) break;
        current = s.polyline;
      }
      const Float bz = s.az + s.dz;
      if ((s.az > z) != (bz > z) && x < s.ax + (z - s.az) * s.dx / s.dz) odd = !odd;
    }
    if (odd) level = polylines_[static_cast<std::size_t>(current)].level;
    return odd;
  }

  std::vector<Segment> segments_;
  std::vector<Polyline> polylines_;
  bool hasFill_ = false;
  Float reach_ = 0.0;
  Float originX_ = 0.0, originZ_ = 0.0, inverseCell_ = 0.0;
  Int cellsX_ = 0, cellsZ_ = 0;
  std::vector<Int> cellStart_;      // per cell, into entries_
  std::vector<Int32> cellCount_;    // per cell, after pruning
  std::vector<Int32> entries_;      // segment indices, ascending per cell
  std::vector<Int> bandStart_;      // per row of cells plus one, into bandEntries_
  std::vector<Int32> bandEntries_;  // segments of filled polylines crossing each row band
};

}  // namespace VLGD
