#include "platform/field_objects.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "platform/description.h"
#include "platform/node.h"
#include "platform/registry.h"

namespace platform {
namespace {

constexpr Float kDefaultExtent = 100.0;
// The largest extent a field takes, in units.
constexpr Float kMaxExtent = 1.0e6;

// NaN reads as 0, like a missing value.
Float ClampUnit(Float value) { return value > 0.0 ? std::min(value, 1.0) : 0.0; }

// A positive, non-NaN extent; anything else leaves the field empty.
bool IsUsableExtent(Float extent) { return extent > 0.0; }

bool IsZeroMatrix(const Matrix& m) { return m == Matrix{Vector{}, Vector{}, Vector{}, Vector{}}; }

ParameterDescription FloatParameter(ParameterId id, std::string symbol, Float defaultValue, Float minimum,
                                    Float maximum, const char* unit = "") {
  ParameterDescription parameter;
  parameter.id = id;
  parameter.symbol = std::move(symbol);
  parameter.type = ValueType::FLOAT;
  parameter.defaultValue = defaultValue;
  parameter.minimum = minimum;
  parameter.maximum = maximum;
  parameter.unit = unit;
  return parameter;
}

ParameterDescription InnerOffsetParameter() {
  return FloatParameter(FIELD_INNER_OFFSET, "FIELD_INNER_OFFSET", 0.0, 0.0, 1.0);
}

ParameterDescription InvertParameter() {
  ParameterDescription parameter;
  parameter.id = FIELD_INVERT;
  parameter.symbol = "FIELD_INVERT";
  parameter.type = ValueType::BOOL;
  parameter.defaultValue = false;
  return parameter;
}

Status RegisterFieldType(Registry& registry, Int32 id, std::string resourceName, FieldShape shape) {
  Description description;
  description.resourceName = resourceName;
  switch (shape) {
    case FieldShape::SPHERICAL:
      description.parameters.push_back(
          FloatParameter(FIELD_RADIUS, "FIELD_RADIUS", kDefaultExtent, 0.0, kMaxExtent, "units"));
      description.parameters.push_back(InnerOffsetParameter());
      break;
    case FieldShape::LINEAR:
      description.parameters.push_back(
          FloatParameter(FIELD_LENGTH, "FIELD_LENGTH", kDefaultExtent, 0.0, kMaxExtent, "units"));
      description.parameters.push_back(InnerOffsetParameter());
      break;
    case FieldShape::BOX: {
      ParameterDescription size;
      size.id = FIELD_SIZE;
      size.symbol = "FIELD_SIZE";
      size.type = ValueType::VECTOR;
      size.defaultValue = Vector(kDefaultExtent);
      size.minimum = 0.0;  // per component
      size.maximum = kMaxExtent;
      size.unit = "units";
      description.parameters.push_back(std::move(size));
      description.parameters.push_back(InnerOffsetParameter());
      break;
    }
    case FieldShape::EMPTY:
      return IllegalArgumentError("RegisterFieldTypes(): no node type for an empty field!");
  }
  description.parameters.push_back(InvertParameter());

  PluginInfo info;
  info.id = id;
  info.kind = PluginKind::OBJECT;
  info.resourceName = std::move(resourceName);
  info.objectInfo = OBJECT_FIELD;
  info.diskLevel = 0;
  info.allocate = [shape]() -> std::unique_ptr<NodeData> { return std::make_unique<FieldObjectData>(shape); };
  return registry.RegisterNodeType(std::move(info), description);
}

}  // namespace

std::optional<FieldEvaluator> MakeFieldEvaluator(const Node& node) {
  const auto* data = node.GetNodeData<FieldObjectData>();
  if (data == nullptr) return std::nullopt;
  const ParameterContainer& parameters = node.GetData();

  FieldEvaluator field;
  const Float innerOffset = ClampUnit(parameters.GetFloat(FIELD_INNER_OFFSET, 0.0));
  field.falloffScale = innerOffset < 1.0 ? 1.0 / (1.0 - innerOffset) : std::numeric_limits<Float>::infinity();
  field.invert = parameters.GetBool(FIELD_INVERT, false);

  // A flattened matrix leaves no volume for the field to fill.
  const Matrix inverse = Inverse(node.GetMg());
  if (IsZeroMatrix(inverse)) return field;

  // The extent is folded into the matrix: one transform per sample gives unit coordinates.
  switch (data->Shape()) {
    case FieldShape::EMPTY:
      break;
    case FieldShape::SPHERICAL: {
      const Float radius = parameters.GetFloat(FIELD_RADIUS, kDefaultExtent);
      if (!IsUsableExtent(radius)) break;
      field.shape = FieldShape::SPHERICAL;
      field.toUnit = ScaleMatrix(Vector(1.0 / radius)) * inverse;
      break;
    }
    case FieldShape::LINEAR: {
      const Float length = parameters.GetFloat(FIELD_LENGTH, kDefaultExtent);
      if (!IsUsableExtent(length)) break;
      field.shape = FieldShape::LINEAR;
      field.toUnit = TranslationMatrix(Vector(0.0, 0.0, 0.5)) * ScaleMatrix(Vector(1.0, 1.0, 1.0 / length)) * inverse;
      break;
    }
    case FieldShape::BOX: {
      const Vector size = parameters.GetVector(FIELD_SIZE, Vector(kDefaultExtent));
      if (!IsUsableExtent(size.x) || !IsUsableExtent(size.y) || !IsUsableExtent(size.z)) break;
      field.shape = FieldShape::BOX;
      field.toUnit = ScaleMatrix(Vector(2.0 / size.x, 2.0 / size.y, 2.0 / size.z)) * inverse;
      break;
    }
  }
  return field;
}

bool FieldObjectData::Init(Node& node) {
  return node.GetTypeInfo().description.WriteDefaults(node.GetDataInstance()).has_value();
}

void FieldObjectData::GetDimension(const Node& node, Vector& centre, Vector& radius) const {
  const ParameterContainer& parameters = node.GetData();
  centre = {};
  radius = {};
  switch (shape_) {
    case FieldShape::EMPTY:
      break;
    case FieldShape::SPHERICAL:
      radius = Vector(std::fmax(parameters.GetFloat(FIELD_RADIUS, kDefaultExtent), 0.0));
      break;
    case FieldShape::LINEAR:
      // Unbounded across the ramp; the ramp itself spans the length.
      radius = Vector(0.0, 0.0, std::fmax(parameters.GetFloat(FIELD_LENGTH, kDefaultExtent), 0.0) * 0.5);
      break;
    case FieldShape::BOX:
      radius = Max(parameters.GetVector(FIELD_SIZE, Vector(kDefaultExtent)) * 0.5, Vector{});
      break;
  }
}

Status RegisterFieldTypes(Registry& registry) {
  try {
    VLGD_RETURN_IF_ERROR(RegisterFieldType(registry, ID_FIELD_SPHERICAL, "fspherical", FieldShape::SPHERICAL));
    VLGD_RETURN_IF_ERROR(RegisterFieldType(registry, ID_FIELD_LINEAR, "flinear", FieldShape::LINEAR));
    VLGD_RETURN_IF_ERROR(RegisterFieldType(registry, ID_FIELD_BOX, "fbox", FieldShape::BOX));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

}  // namespace platform
