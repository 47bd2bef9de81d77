// The cell query is compiled once per SIMD target; the rest once.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "vellgrund/spline_distance.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include "vellgrund/spline_distance.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <string>

#include "platform/memory.h"
#include "platform/parallel.h"

HWY_BEFORE_NAMESPACE();
namespace VLGD::spline_detail::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// For `count` points x + offsetX, z + offsetZ (rounded up to whole vectors, which the caller's padding
// holds): the distance to the nearest listed segment and the height there, or infinity and
// 0 when it lies beyond the reach. The operations of one point at a time, in the same
// order, ties going to the earlier segment of the list, so every target gives the same bits.
void NearestInListImpl(const Segment* segments, const Int32* list, Int listCount, const Float* x, Float offsetX,
                       const Float* z, Float offsetZ, Int count, Float reach, Float* distance, Float* height) {
  const hn::ScalableTag<Float> d;
  using V = hn::Vec<decltype(d)>;
  const auto lanes = static_cast<Int>(hn::Lanes(d));
  const V zero = hn::Zero(d), one = hn::Set(d, 1.0);
  const V far = hn::Set(d, std::numeric_limits<Float>::infinity());
  for (Int i = 0; i < count; i += lanes) {
    const V x0 = hn::Add(hn::LoadU(d, x + i), hn::Set(d, offsetX));
    const V z0 = hn::Add(hn::LoadU(d, z + i), hn::Set(d, offsetZ));
    V best = far, bestT = zero, bestAy = zero, bestDy = zero;
    for (Int k = 0; k < listCount; ++k) {
      const Segment& s = segments[list[k]];
      const V dx = hn::Set(d, s.dx), dz = hn::Set(d, s.dz);
      const V px = hn::Sub(x0, hn::Set(d, s.ax)), pz = hn::Sub(z0, hn::Set(d, s.az));
      V t = hn::Mul(hn::Add(hn::Mul(px, dx), hn::Mul(pz, dz)), hn::Set(d, s.inverseLengthSquared));
      // Compares rather than Min/Max: NaN goes to 0 as in the scalar clamp.
      t = hn::IfThenElse(hn::Gt(t, zero), hn::IfThenElse(hn::Lt(t, one), t, one), zero);
      const V ex = hn::Sub(px, hn::Mul(t, dx)), ez = hn::Sub(pz, hn::Mul(t, dz));
      const V squared = hn::Add(hn::Mul(ex, ex), hn::Mul(ez, ez));
      const auto nearer = hn::Lt(squared, best);
      best = hn::IfThenElse(nearer, squared, best);
      bestT = hn::IfThenElse(nearer, t, bestT);
      bestAy = hn::IfThenElse(nearer, hn::Set(d, s.ay), bestAy);
      bestDy = hn::IfThenElse(nearer, hn::Set(d, s.dy), bestDy);
    }
    // Nothing found leaves the distance infinite, which no reach admits.
    const V root = hn::Sqrt(best);
    const auto within = hn::Le(root, hn::Set(d, reach));
    hn::StoreU(hn::IfThenElse(within, root, far), d, distance + i);
    hn::StoreU(hn::IfThenElseZero(within, hn::Add(bestAy, hn::Mul(bestT, bestDy))), d, height + i);
  }
}

}  // namespace VLGD::spline_detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VLGD {
namespace spline_detail {

HWY_EXPORT(NearestInListImpl);

}  // namespace spline_detail

namespace {

// A field of more cells than this gets larger cells instead: cell tables stay within a few
// tens of megabytes whatever the curves' extent.
constexpr Float kMaxCells = 4.0 * 1024.0 * 1024.0;
constexpr int kMaxFlattenDepth = 16;
// Segment-cell pairs one build may test: beyond this the reach is absurd for the curves.
constexpr Float kMaxCellTests = 4.0e8;

Float DistanceToSegment(const Vector& p, const Vector& a, const Vector& b) {
  const Vector ab = b - a;
  const Float lengthSquared = platform::Dot(ab, ab);
  Float t = lengthSquared > 0.0 ? platform::Dot(p - a, ab) / lengthSquared : 0.0;
  t = std::clamp(t, 0.0, 1.0);
  return platform::Length(p - (a + ab * t));
}

void Flatten(const Vector& p0, const Vector& p1, const Vector& p2, const Vector& p3, Float tolerance, int depth,
             std::vector<Vector>& out) {
  // The curve lies in the hull of its control points, so inner points near the chord keep
  // it near the chord.
  if (depth >= kMaxFlattenDepth ||
      std::max(DistanceToSegment(p1, p0, p3), DistanceToSegment(p2, p0, p3)) <= tolerance) {
    out.push_back(p3);
    return;
  }
  const Vector a = (p0 + p1) * 0.5, b = (p1 + p2) * 0.5, c = (p2 + p3) * 0.5;
  const Vector ab = (a + b) * 0.5, bc = (b + c) * 0.5;
  const Vector middle = (ab + bc) * 0.5;
  Flatten(p0, a, ab, middle, tolerance, depth + 1, out);
  Flatten(middle, bc, c, p3, tolerance, depth + 1, out);
}

Float SegmentDistance(Float x, Float z, Float ax, Float az, Float dx, Float dz, Float inverseLengthSquared) {
  const Float px = x - ax, pz = z - az;
  Float t = (px * dx + pz * dz) * inverseLengthSquared;
  t = t > 0.0 ? (t < 1.0 ? t : 1.0) : 0.0;
  const Float ex = px - t * dx, ez = pz - t * dz;
  return std::sqrt(ex * ex + ez * ez);
}

bool IsFinite(const Vector& v) {
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

}  // namespace

Status FlattenCubic(const Vector& p0, const Vector& p1, const Vector& p2, const Vector& p3, Float tolerance,
                    std::vector<Vector>& out) {
  try {
    Flatten(p0, p1, p2, p3, tolerance > 0.0 ? tolerance : 0.0, 0, out);
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError("Could not allocate the flattened spline!");
  }
  return platform::Ok();
}

Status SegmentField::AddPolyline(std::span<const Vector> points, bool closed, bool fill) {
  if (points.size() < 2 || !std::all_of(points.begin(), points.end(), IsFinite)) return platform::Ok();
  try {
    const auto polyline = static_cast<Int32>(polylines_.size());
    Polyline& added = polylines_.emplace_back();
    added.fill = closed && fill;
    const std::size_t count = closed ? points.size() : points.size() - 1;
    Float weightedHeight = 0.0, length = 0.0;
    for (std::size_t i = 0; i < count; ++i) {
      const Vector& a = points[i];
      const Vector& b = points[(i + 1) % points.size()];
      Segment s{a.x, a.z, a.y, b.x - a.x, b.z - a.z, b.y - a.y, 0.0, polyline};
      const Float lengthSquared = s.dx * s.dx + s.dz * s.dz;
      s.inverseLengthSquared = lengthSquared > 0.0 ? 1.0 / lengthSquared : 0.0;
      segments_.push_back(s);
      const Float segmentLength = std::sqrt(lengthSquared);
      weightedHeight += (a.y + b.y) * 0.5 * segmentLength;
      length += segmentLength;
    }
    added.level = length > 0.0 ? weightedHeight / length : points.front().y;
    hasFill_ = hasFill_ || added.fill;
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError("Could not allocate the spline segments!");
  }
  return platform::Ok();
}

Int SegmentField::MemoryUsage() const {
  return static_cast<Int>(segments_.size() * sizeof(Segment) + cellStart_.size() * sizeof(Int) +
                          cellCount_.size() * sizeof(Int32) + entries_.size() * sizeof(Int32) +
                          bandStart_.size() * sizeof(Int) + bandEntries_.size() * sizeof(Int32));
}

Status SegmentField::Build(Float reach, Float cellSize, const platform::CancellationToken* cancel) {
  reach_ = std::isfinite(reach) && reach > 0.0 ? reach : 0.0;
  cellsX_ = cellsZ_ = 0;
  cellStart_.clear();
  cellCount_.clear();
  entries_.clear();
  bandStart_.clear();
  bandEntries_.clear();
  if (segments_.empty()) return platform::Ok();

  Float minX = segments_[0].ax, maxX = minX, minZ = segments_[0].az, maxZ = minZ;
  for (const Segment& s : segments_) {
    for (const Float x : {s.ax, s.ax + s.dx}) minX = std::min(minX, x), maxX = std::max(maxX, x);
    for (const Float z : {s.az, s.az + s.dz}) minZ = std::min(minZ, z), maxZ = std::max(maxZ, z);
  }
  originX_ = minX - reach_;
  originZ_ = minZ - reach_;
  const Float extentX = maxX + reach_ - originX_;
  const Float extentZ = maxZ + reach_ - originZ_;
  Float cell = std::isfinite(cellSize) && cellSize > 0.0 ? cellSize : 0.0;
  cell = std::max({cell, std::sqrt(extentX * extentZ / kMaxCells), std::max(extentX, extentZ) / 4096.0});
  if (!(cell > 0.0)) cell = 1.0;  // every point in one place and no reach
  inverseCell_ = 1.0 / cell;
  cellsX_ = static_cast<Int>(extentX * inverseCell_) + 1;
  cellsZ_ = static_cast<Int>(extentZ * inverseCell_) + 1;
  const Float halfDiagonal = cell * 0.7071067811865476;
  const auto rowOf = [&](Float z) {
    return std::clamp<Int>(static_cast<Int>((z - originZ_) * inverseCell_), 0, cellsZ_ - 1);
  };
  const auto columnOf = [&](Float x) {
    return std::clamp<Int>(static_cast<Int>((x - originX_) * inverseCell_), 0, cellsX_ - 1);
  };

  // Rows of cells each segment can reach, as lists per row (counted, then filled, so that
  // each row lists its segments in ascending order).
  std::vector<Int> rowStart;
  std::vector<Int32> rowSegments;
  std::vector<Int> bandCount;
  VLGD_RETURN_IF_ERROR(platform::TryResize(rowStart, cellsZ_ + 1));
  VLGD_RETURN_IF_ERROR(platform::TryResize(bandStart_, hasFill_ ? cellsZ_ + 1 : 0));
  const auto rowsOf = [&](const Segment& s, Float margin) {
    return std::pair{rowOf(std::min(s.az, s.az + s.dz) - margin), rowOf(std::max(s.az, s.az + s.dz) + margin)};
  };
  Float work = 0.0;  // segment-cell pairs the rows will test
  for (const Segment& s : segments_) {
    const auto [first, last] = rowsOf(s, reach_ + halfDiagonal);
    const Int columns = columnOf(std::max(s.ax, s.ax + s.dx) + reach_ + halfDiagonal) -
                        columnOf(std::min(s.ax, s.ax + s.dx) - reach_ - halfDiagonal) + 1;
    work += static_cast<Float>(last - first + 1) * static_cast<Float>(columns);
    for (Int row = first; row <= last; ++row) ++rowStart[static_cast<std::size_t>(row) + 1];
    if (polylines_[static_cast<std::size_t>(s.polyline)].fill) {
      const auto [bandFirst, bandLast] = rowsOf(s, 0.0);
      for (Int row = bandFirst; row <= bandLast; ++row) ++bandStart_[static_cast<std::size_t>(row) + 1];
    }
  }
  if (work > kMaxCellTests)
    return platform::IllegalArgumentError("Spline operator: " + std::to_string(segments_.size()) +
                                          " segments within a reach of " + std::to_string(reach_) +
                                          " units are too many to search; use a smaller width or falloff!");
  for (Int row = 0; row < cellsZ_; ++row)
    rowStart[static_cast<std::size_t>(row) + 1] += rowStart[static_cast<std::size_t>(row)];
  for (std::size_t row = 1; row < bandStart_.size(); ++row) bandStart_[row] += bandStart_[row - 1];
  VLGD_RETURN_IF_ERROR(platform::TryResize(rowSegments, rowStart.back()));
  VLGD_RETURN_IF_ERROR(platform::TryResize(bandEntries_, bandStart_.empty() ? 0 : bandStart_.back()));
  {
    std::vector<Int> rowFill, bandFill;
    VLGD_RETURN_IF_ERROR(platform::TryResize(rowFill, cellsZ_));
    VLGD_RETURN_IF_ERROR(platform::TryResize(bandFill, hasFill_ ? cellsZ_ : 0));
    for (std::size_t index = 0; index < segments_.size(); ++index) {
      const Segment& s = segments_[index];
      const auto [first, last] = rowsOf(s, reach_ + halfDiagonal);
      for (Int row = first; row <= last; ++row) {
        const auto r = static_cast<std::size_t>(row);
        rowSegments[static_cast<std::size_t>(rowStart[r] + rowFill[r]++)] = static_cast<Int32>(index);
      }
      if (polylines_[static_cast<std::size_t>(s.polyline)].fill) {
        const auto [bandFirst, bandLast] = rowsOf(s, 0.0);
        for (Int row = bandFirst; row <= bandLast; ++row) {
          const auto r = static_cast<std::size_t>(row);
          bandEntries_[static_cast<std::size_t>(bandStart_[r] + bandFill[r]++)] = static_cast<Int32>(index);
        }
      }
    }
  }

  // Per row of cells, the segments each cell keeps: within the reach of some point of the
  // cell, and not farther from the cell's centre than the nearest one's bound. A point p of
  // the cell lies within halfDiagonal of the centre q, so |p, s| >= |q, s| - halfDiagonal,
  // and the nearest segment is at most min |q, s| + halfDiagonal away.
  std::vector<std::vector<Int32>> rowEntries;
  try {
    rowEntries.resize(static_cast<std::size_t>(cellsZ_));
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError("Could not allocate the spline cells!");
  }
  VLGD_RETURN_IF_ERROR(platform::TryResize(cellCount_, cellsX_ * cellsZ_));
  VLGD_RETURN_IF_ERROR(platform::TryResize(cellStart_, cellsX_ * cellsZ_));
  platform::ParallelOptions rows;
  rows.granularity = 4;
  rows.cancel = cancel;
  rows.cancelMessage = "Spline operator cancelled!";
  VLGD_RETURN_IF_ERROR(platform::ParallelFor(0, cellsZ_, rows, [&](Int row) -> Status {
    const auto r = static_cast<std::size_t>(row);
    const Int32* listed = rowSegments.data() + rowStart[r];
    const Int listedCount = rowStart[r + 1] - rowStart[r];
    if (listedCount == 0) return platform::Ok();
    struct Candidate {
      Int32 column, segment;
      Float distance;
    };
    std::vector<Candidate> candidates;
    std::vector<Int32>& kept = rowEntries[r];
    const Float centreZ = originZ_ + (static_cast<Float>(row) + 0.5) * cell;
    try {
      for (Int k = 0; k < listedCount; ++k) {
        const Segment& s = segments_[static_cast<std::size_t>(listed[k])];
        const Int first = columnOf(std::min(s.ax, s.ax + s.dx) - reach_ - halfDiagonal);
        const Int last = columnOf(std::max(s.ax, s.ax + s.dx) + reach_ + halfDiagonal);
        for (Int column = first; column <= last; ++column) {
          const Float centreX = originX_ + (static_cast<Float>(column) + 0.5) * cell;
          const Float distance = SegmentDistance(centreX, centreZ, s.ax, s.az, s.dx, s.dz, s.inverseLengthSquared);
          if (distance <= reach_ + halfDiagonal)
            candidates.push_back({static_cast<Int32>(column), listed[k], distance});
        }
      }
      // By column, keeping the ascending segment order within a column.
      std::stable_sort(candidates.begin(), candidates.end(),
                       [](const Candidate& a, const Candidate& b) { return a.column < b.column; });
      for (std::size_t begin = 0; begin < candidates.size();) {
        std::size_t end = begin;
        Float bound = std::numeric_limits<Float>::infinity();
        for (; end < candidates.size() && candidates[end].column == candidates[begin].column; ++end)
          bound = std::min(bound, candidates[end].distance + halfDiagonal);
        const Int cellIndex = row * cellsX_ + candidates[begin].column;
        cellStart_[static_cast<std::size_t>(cellIndex)] = static_cast<Int>(kept.size());
        for (std::size_t k = begin; k < end; ++k)
          if (candidates[k].distance - halfDiagonal <= bound) kept.push_back(candidates[k].segment);
        cellCount_[static_cast<std::size_t>(cellIndex)] =
            static_cast<Int32>(static_cast<Int>(kept.size()) - cellStart_[static_cast<std::size_t>(cellIndex)]);
        begin = end;
      }
    } catch (const std::bad_alloc&) {
      return platform::OutOfMemoryError("Could not allocate the spline cells!");
    }
    return platform::Ok();
  }));

  // One array for all rows; the rows' starts become offsets into it.
  Int total = 0;
  for (const std::vector<Int32>& row : rowEntries) total += static_cast<Int>(row.size());
  VLGD_RETURN_IF_ERROR(platform::TryResize(entries_, total));
  Int offset = 0;
  for (Int row = 0; row < cellsZ_; ++row) {
    const std::vector<Int32>& kept = rowEntries[static_cast<std::size_t>(row)];
    std::copy(kept.begin(), kept.end(), entries_.begin() + offset);
    for (Int column = 0; column < cellsX_; ++column)
      cellStart_[static_cast<std::size_t>(row * cellsX_ + column)] += offset;
    offset += static_cast<Int>(kept.size());
  }
  return platform::Ok();
}

SegmentField::Nearest SegmentField::Query(Float x, Float z) const {
  Nearest nearest;
  const Int cell = CellOf(x, z);
  if (cell < 0) return nearest;
  const Float px[1 + kPadding] = {x}, pz[1 + kPadding] = {z};
  Float distance[1 + kPadding], height[1 + kPadding];
  QueryRun(cell, px, kNoOffset, pz, kNoOffset, 1, distance, height);
  nearest.distance = distance[0];
  nearest.height = height[0];
  nearest.inside = hasFill_ && distance[0] == 0.0 && Inside(x, z, cell / cellsX_, nearest.height);
  return nearest;
}

void SegmentField::QueryRun(Int cell, const Float* x, Float offsetX, const Float* z, Float offsetZ, Int count,
                            Float* distance, Float* height) const {
  if (count <= 0) return;
  HWY_DYNAMIC_DISPATCH(spline_detail::NearestInListImpl)
  (segments_.data(), entries_.data() + cellStart_[static_cast<std::size_t>(cell)],
   cellCount_[static_cast<std::size_t>(cell)], x, offsetX, z, offsetZ, count, reach_, distance, height);
  if (!hasFill_) return;
  const Int band = cell / cellsX_;
  for (Int i = 0; i < count; ++i) {
    Float level = 0.0;
    if (Inside(x[i] + offsetX, z[i] + offsetZ, band, level)) {
      distance[i] = 0.0;
      height[i] = level;
    }
  }
}

}  // namespace VLGD
#endif
