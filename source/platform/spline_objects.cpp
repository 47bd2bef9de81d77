#include "platform/spline_objects.h"

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "platform/description.h"
#include "platform/node.h"
#include "platform/registry.h"

namespace platform {

bool SplineObjectData::Init(Node& node) {
  return node.GetTypeInfo().description.WriteDefaults(node.GetDataInstance()).has_value();
}

void SplineObjectData::GetDimension(const Node& node, Vector& centre, Vector& radius) const {
  centre = {};
  radius = {};
  const SplinePath* path = node.GetData().GetSplinePath(SPLINEOBJECT_POINTS);
  if (path == nullptr || path->points.empty()) return;
  Vector low = path->points.front().position;
  Vector high = low;
  const bool tangents = node.GetData().GetInt32(SPLINEOBJECT_TYPE, 0) == static_cast<Int32>(SPLINETYPE::BEZIER);
  for (const SplinePoint& point : path->points) {
    for (const Vector& p : {point.position, point.position + point.left, point.position + point.right}) {
      low = Min(low, p);
      high = Max(high, p);
      if (!tangents) break;
    }
  }
  centre = (low + high) * 0.5;
  radius = (high - low) * 0.5;
}

Status RegisterSplineTypes(Registry& registry) {
  try {
    Description description;
    description.resourceName = "ospline";
    description.parameters = {
        DescribeParameter(SPLINEOBJECT_TYPE, "SPLINEOBJECT_TYPE", ValueType::INT32,
                          static_cast<Int32>(SPLINETYPE::BEZIER))
            .Choice("SPLINETYPE", static_cast<Int32>(SPLINETYPE::LINEAR), static_cast<Int32>(SPLINETYPE::BEZIER)),
        DescribeParameter(SPLINEOBJECT_CLOSED, "SPLINEOBJECT_CLOSED", ValueType::BOOL, false),
        DescribeParameter(SPLINEOBJECT_POINTS, "SPLINEOBJECT_POINTS", ValueType::SPLINEPATH, SplinePath{}),
    };
    description.enumerations = {{"SPLINETYPE", {{"LINEAR", 0}, {"BEZIER", 1}}}};

    PluginInfo info;
    info.id = ID_SPLINE_OBJECT;
    info.kind = PluginKind::OBJECT;
    info.resourceName = "ospline";
    info.diskLevel = 0;
    info.allocate = []() -> std::unique_ptr<NodeData> { return std::make_unique<SplineObjectData>(); };
    return registry.RegisterNodeType(std::move(info), description);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

}  // namespace platform
