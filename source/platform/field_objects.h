#pragma once

#include <cmath>
#include <optional>

#include "platform/matrix.h"
#include "platform/node_data.h"
#include "platform/parameters.h"
#include "platform/result.h"
#include "platform/types.h"
#include "platform/vector.h"

namespace platform {

class Node;
class Registry;

// Node type IDs of the field objects; stored in files.
enum FieldObjectId : Int32 {
  ID_FIELD_SPHERICAL = 1059001,
  ID_FIELD_LINEAR = 1059002,
  ID_FIELD_BOX = 1059003,
};

// Parameters of the field objects. The extent shares its ID across the types: each type
// has exactly one.
inline constexpr ParameterId FIELD_RADIUS = 1001;        // spherical, Float
inline constexpr ParameterId FIELD_LENGTH = 1001;        // linear, Float
inline constexpr ParameterId FIELD_SIZE = 1001;          // box, Vector
inline constexpr ParameterId FIELD_INNER_OFFSET = 1002;  // Float 0 .. 1
inline constexpr ParameterId FIELD_INVERT = 1003;        // Bool

enum class FieldShape : Int32 {
  EMPTY,      // 0 everywhere (zero extent, flattened matrix)
  SPHERICAL,  // distance from the centre over the radius
  LINEAR,     // ramp along local +Z
  BOX,        // largest axis distance over the half size
};

// A field object's settings read once, so that sampling many positions is plain
// arithmetic: no parameter look-ups, no virtual calls.
//
// `toUnit` maps a global position into the shape's unit space, where the falloff distance
// d is 0 at the full end and 1 at the border: the sphere's radius and the box's half size
// become 1, and the linear ramp's -length/2 .. +length/2 becomes z = 0 .. 1 (d = 1 - z).
// With the inner offset o, t = (1 - d) / (1 - o) clamped to 0 .. 1: 1 for d <= o, 0 from
// the border on (the border itself stays 0 even when o = 1). The spherical and box fields
// fall off by the smooth step t * t * (3 - 2t); the linear field keeps the straight ramp t,
// so that without an inner offset it rises evenly from one end to the other.
struct FieldEvaluator {
  FieldShape shape = FieldShape::EMPTY;
  Matrix toUnit;
  Float falloffScale = 1.0;  // 1 / (1 - o); infinite for o = 1
  bool invert = false;

  // The value at a global position, in 0 .. 1. A position without a distance (NaN) gives
  // 0, inverted or not.
  [[nodiscard]] Float ValueAt(const Vector& position) const {
    Float distance = 1.0;
    switch (shape) {
      case FieldShape::EMPTY:
        if (std::isnan(position.x + position.y + position.z)) return 0.0;
        break;
      case FieldShape::SPHERICAL:
        distance = Length(TransformPoint(toUnit, position));
        break;
      case FieldShape::LINEAR:
        // Only the unit z matters.
        distance = 1.0 - (toUnit.off.z + toUnit.v1.z * position.x + toUnit.v2.z * position.y +
                          toUnit.v3.z * position.z);
        break;
      case FieldShape::BOX: {
        const Vector unit = TransformPoint(toUnit, position);
        const Float x = std::fabs(unit.x), y = std::fabs(unit.y), z = std::fabs(unit.z);
        const Float xy = x > y ? x : y;
        // A NaN axis must not be dropped by the comparisons.
        distance = std::isnan(x + y + z) ? x + y + z : (xy > z ? xy : z);
        break;
      }
    }
    if (std::isnan(distance)) return 0.0;
    // t >= 1 within the inner offset, <= 0 from the border on. The comparisons also turn
    // the NaN of 0 times an infinite scale (the border when o = 1) into 0.
    Float t = (1.0 - distance) * falloffScale;
    t = t > 0.0 ? t : 0.0;
    t = t < 1.0 ? t : 1.0;
    const Float value = shape == FieldShape::LINEAR ? t : t * t * (3.0 - 2.0 * t);
    return invert ? 1.0 - value : value;
  }
};

// The evaluator of a field object node, or no value when the node's data is not one of the
// field types. The node's global matrix is read now; later moves need a new evaluator.
[[nodiscard]] std::optional<FieldEvaluator> MakeFieldEvaluator(const Node& node);

// The data of the spherical, linear and box field objects; `shape` tells them apart.
class FieldObjectData final : public ObjectData {
 public:
  explicit FieldObjectData(FieldShape shape) : shape_(shape) {}

  [[nodiscard]] FieldShape Shape() const { return shape_; }

  bool Init(Node& node) override;
  // The extent of the falloff in local coordinates: the sphere, the box, the ramp's length.
  void GetDimension(const Node& node, Vector& centre, Vector& radius) const override;

 private:
  FieldShape shape_;
};

// Registers the three field object types. They stay out of the plug-in menu: field lists
// create them.
Status RegisterFieldTypes(Registry& registry);

}  // namespace platform
