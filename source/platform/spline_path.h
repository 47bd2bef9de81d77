#pragma once

#include <vector>

#include "platform/types.h"
#include "platform/vector.h"

namespace platform {

// A control point of a spline object: its position and the two tangents, as offsets from
// the position. A linear spline ignores the tangents.
struct SplinePoint {
  Vector position;
  Vector left;
  Vector right;

  friend bool operator==(const SplinePoint&, const SplinePoint&) = default;
};

// The points of a spline object in its local coordinates, in order along the curve.
struct SplinePath {
  std::vector<SplinePoint> points;

  friend bool operator==(const SplinePath&, const SplinePath&) = default;
};

// An ordered list of weak node references, as NodeLink holds one.
struct NodeLinkList {
  std::vector<UInt64> targets;  // node identities; 0 links nothing

  friend bool operator==(const NodeLinkList&, const NodeLinkList&) = default;
};

}  // namespace platform
