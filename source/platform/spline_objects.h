#pragma once

#include "platform/node_data.h"
#include "platform/parameters.h"
#include "platform/result.h"
#include "platform/types.h"

namespace platform {

class Node;
class Registry;

// Node type ID of the spline object; stored in files.
inline constexpr Int32 ID_SPLINE_OBJECT = 1059010;

// Parameters of the spline object.
inline constexpr ParameterId SPLINEOBJECT_TYPE = 1001;    // SPLINETYPE
inline constexpr ParameterId SPLINEOBJECT_CLOSED = 1002;  // Bool: the last point joins the first
inline constexpr ParameterId SPLINEOBJECT_POINTS = 1003;  // SplinePath, local coordinates

// How the points are joined; the numbers are stored in files.
enum class SPLINETYPE : Int32 {
  LINEAR = 0,  // straight lines; tangents are ignored
  BEZIER = 1,  // cubic: P_i, P_i + right_i, P_i+1 + left_i+1, P_i+1
};

// A path in the scene made of points with tangents; terrain operators read its shape.
class SplineObjectData final : public ObjectData {
 public:
  bool Init(Node& node) override;
  // The bounds of the points and their tangent handles, in local coordinates.
  void GetDimension(const Node& node, Vector& centre, Vector& radius) const override;
};

// Registers the spline object type. It stays out of the plug-in menu, like the fields.
Status RegisterSplineTypes(Registry& registry);

}  // namespace platform
