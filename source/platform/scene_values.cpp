#include "platform/scene_codec.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <exception>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <new>
#include <numbers>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/strings.h"

namespace platform::scene_internal {

// The kind of a JSON value, for messages: "expected a number, not a string".
std::string KindOf(const Json& value) {
  switch (value.type()) {
    case Json::value_t::null:
      return "null";
    case Json::value_t::boolean:
      return "a boolean";
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
      return "an integer";
    case Json::value_t::number_float:
      return "a fractional number";
    case Json::value_t::string:
      return "a string";
    case Json::value_t::array:
      return "an array";
    case Json::value_t::object:
      return "an object";
    default:
      return "an unknown value";
  }
}

std::unexpected<Error> Expected(std::string_view what, const Json& value) {
  return IllegalArgumentError("expected " + std::string(what) + ", not " + KindOf(value));
}

// Shortest text that reads back as the same number.
std::string NumberText(Float value) {
  return Json(value).dump();
}

const Json* Member(const Json& object, const char* key) {
  const auto& members = object.get_ref<const Json::object_t&>();
  const auto found = members.find(key);
  return found != members.end() ? &found->second : nullptr;
}

Status OnlyKeys(const Json& object, std::initializer_list<std::string_view> keys) {
  for (const auto& [key, value] : object.get_ref<const Json::object_t&>())
    if (std::find(keys.begin(), keys.end(), key) == keys.end())
      return IllegalArgumentError("unknown key '" + Excerpt(key) + "'");
  return Ok();
}

// A decimal ID in its one canonical spelling ("10002", "-3"): "007", "+1" and " 1" are not
// IDs, so two keys never name the same entry.
bool ParseId(std::string_view text, Int32& id) {
  const char* end = text.data() + text.size();
  const auto [next, error] = std::from_chars(text.data(), end, id);
  return error == std::errc() && next == end && std::to_string(id) == text;
}

std::optional<Int> IntegerOf(const Json& value) {
  if (value.is_number_unsigned()) {
    const auto number = value.get<std::uint64_t>();
    if (number > static_cast<std::uint64_t>(std::numeric_limits<Int>::max())) return std::nullopt;
    return static_cast<Int>(number);
  }
  if (value.is_number_integer()) return value.get<Int>();
  return std::nullopt;
}

Result<Int> ReadInteger(const Json& value, Int low, Int high) {
  if (!value.is_number_integer()) return Expected("an integer", value);
  const std::optional<Int> number = IntegerOf(value);
  if (!number || *number < low || *number > high)
    return IllegalArgumentError(value.dump() + " is out of range (" + std::to_string(low) + " .. " +
                                std::to_string(high) + ")");
  return *number;
}

Result<Int32> ReadInt32(const Json& value) {
  VLGD_ASSIGN_OR_RETURN(const Int number,
                        ReadInteger(value, std::numeric_limits<Int32>::min(), std::numeric_limits<Int32>::max()));
  return static_cast<Int32>(number);
}

Result<bool> ReadBool(const Json& value) {
  if (!value.is_boolean()) return Expected("true or false", value);
  return value.get<bool>();
}

Result<Float> ReadNumber(const Json& value) {
  if (!value.is_number()) return Expected("a number", value);
  const auto number = value.get<Float>();
  if (!std::isfinite(number)) return IllegalArgumentError("the number is not finite");
  return number;
}

// [x, y, z], or [x, y] for curve coordinates (z is 0).
Result<Vector> ReadVector(const Json& value, std::size_t size) {
  const char* form = size == 3 ? "[x, y, z]" : "[x, y]";
  if (!value.is_array() || value.size() != size) return Expected(form, value);
  Float components[3] = {0.0, 0.0, 0.0};
  for (std::size_t i = 0; i < size; ++i) {
    if (!value[i].is_number()) return Expected(std::string(form) + " numbers", value[i]);
    VLGD_ASSIGN_OR_RETURN(components[i], ReadNumber(value[i]));
  }
  return Vector{components[0], components[1], components[2]};
}

Result<std::string> ReadString(const Json& value) {
  if (!value.is_string()) return Expected("a string", value);
  return value.get<std::string>();
}

bool IsFinite(const Vector& v) {
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}
bool IsFinite(const Matrix& m) {
  return IsFinite(m.off) && IsFinite(m.v1) && IsFinite(m.v2) && IsFinite(m.v3);
}

// {"off": [x,y,z], "v1": .., "v2": .., "v3": ..} with the missing parts from the identity,
// or {"position": .., "rotation": <degrees>, "scale": ..}.
Result<Matrix> ReadMatrix(const Json& value) {
  if (!value.is_object()) return Expected("a matrix object", value);
  VLGD_RETURN_IF_ERROR(OnlyKeys(value, {"off", "v1", "v2", "v3", "position", "rotation", "scale"}));
  const bool axes = Member(value, "off") || Member(value, "v1") || Member(value, "v2") || Member(value, "v3");
  const bool parts = Member(value, "position") || Member(value, "rotation") || Member(value, "scale");
  if (axes && parts) return IllegalArgumentError("give either off/v1/v2/v3 or position/rotation/scale, not both");
  Vector read[4];
  const char* names[4];
  if (axes) {
    const Matrix identity;
    read[0] = identity.off, read[1] = identity.v1, read[2] = identity.v2, read[3] = identity.v3;
    names[0] = "off", names[1] = "v1", names[2] = "v2", names[3] = "v3";
  } else {
    read[0] = Vector{}, read[1] = Vector{}, read[2] = Vector{1.0};
    names[0] = "position", names[1] = "rotation", names[2] = "scale", names[3] = nullptr;
  }
  for (int i = 0; i < 4 && names[i] != nullptr; ++i) {
    if (const Json* part = Member(value, names[i])) {
      VLGD_ASSIGN_OR_RETURN(read[i], Within(ReadVector(*part, 3), std::string("'") + names[i] + "'"));
    }
  }
  if (axes) return Matrix{read[0], read[1], read[2], read[3]};
  const Matrix composed =
      TranslationMatrix(read[0]) * RotationMatrix(read[1] * (std::numbers::pi / 180.0)) * ScaleMatrix(read[2]);
  if (!IsFinite(composed)) return IllegalArgumentError("the matrix is not finite");
  return composed;
}

Result<Visibility> ReadVisibility(const Json& value) {
  if (value.is_boolean()) return value.get<bool>() ? Visibility::ON : Visibility::OFF;
  if (value.is_string()) {
    const auto& text = value.get_ref<const std::string&>();
    if (text == "default") return Visibility::DEFAULT;
    if (text == "on") return Visibility::ON;
    if (text == "off") return Visibility::OFF;
  }
  return IllegalArgumentError("expected \"default\", \"on\", \"off\" or a boolean, not " + Excerpt(value.dump()));
}

const char* VisibilityName(Visibility visibility) {
  switch (visibility) {
    case Visibility::ON:
      return "on";
    case Visibility::OFF:
      return "off";
    default:
      return "default";
  }
}

// A member name of an enumeration; flag sets also take members joined by "|".
std::optional<Int> EnumValueOf(const Enumeration& enumeration, std::string_view text) {
  if (const std::optional<Int> value = enumeration.ValueOf(text)) return value;
  if (!enumeration.isFlagSet || text.empty()) return std::nullopt;
  Int bits = 0;
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t bar = std::min(text.find('|', start), text.size());
    const std::optional<Int> member = enumeration.ValueOf(text.substr(start, bar - start));
    if (!member) return std::nullopt;
    bits |= *member;
    start = bar + 1;
  }
  return bits;
}

// A parameter key of a file: "10002", "TERRAINOBJECT_SIZE_X" or the written form
// "10002 TERRAINOBJECT_SIZE_X", where the ID decides (symbols may have been renamed since).
const ParameterDescription* FindParameter(const FlatDescription& description, const std::string& key) {
  const std::size_t space = key.find(' ');
  Int32 id = 0;
  if (ParseId(std::string_view(key).substr(0, space), id)) return description.Find(id);
  return space == std::string::npos ? description.FindSymbol(key) : nullptr;
}

std::string ParameterKey(const ParameterDescription& parameter) {
  return parameter.symbol.empty() ? std::to_string(parameter.id)
                                  : std::to_string(parameter.id) + " " + parameter.symbol;
}

// The parameters a scene file keeps: described values that users can edit.
bool IsStored(const ParameterDescription& parameter) {
  return parameter.kind == ParameterKind::VALUE && !parameter.readOnly && parameter.type != ValueType::NONE;
}

const char* TypeName(ValueType type) {
  switch (type) {
    case ValueType::BOOL:
      return "Bool";
    case ValueType::INT32:
      return "Int32";
    case ValueType::INT64:
      return "Int64";
    case ValueType::FLOAT:
      return "Float";
    case ValueType::VECTOR:
      return "Vector";
    case ValueType::STRING:
      return "String";
    case ValueType::CURVE:
      return "curve";
    case ValueType::LINK:
      return "link";
    case ValueType::MATRIX:
      return "Matrix";
    case ValueType::FIELDLIST:
      return "field list";
    case ValueType::LINKLIST:
      return "link list";
    case ValueType::SPLINEPATH:
      return "spline points";
    default:
      return "empty";
  }
}

bool IsNumber(const Value& value) {
  const ValueType type = value.Type();
  return type == ValueType::BOOL || type == ValueType::INT32 || type == ValueType::INT64 || type == ValueType::FLOAT;
}

Result<OrderedJson> WriteVector(const Vector& v) {
  if (!IsFinite(v)) return IllegalArgumentError("the vector is not finite");
  return OrderedJson::array({v.x, v.y, v.z});
}

Result<OrderedJson> WriteMatrix(const Matrix& m) {
  if (!IsFinite(m)) return IllegalArgumentError("the matrix is not finite");
  OrderedJson out = OrderedJson::object();
  out["off"] = OrderedJson::array({m.off.x, m.off.y, m.off.z});
  out["v1"] = OrderedJson::array({m.v1.x, m.v1.y, m.v1.z});
  out["v2"] = OrderedJson::array({m.v2.x, m.v2.y, m.v2.z});
  out["v3"] = OrderedJson::array({m.v3.x, m.v3.y, m.v3.z});
  return out;
}

Result<OrderedJson> WritePreference(const Value& value) {
  switch (value.Type()) {
    case ValueType::BOOL:
      return OrderedJson(std::get<bool>(value.Data()));
    case ValueType::INT32:
      return OrderedJson(std::get<Int32>(value.Data()));
    case ValueType::INT64:
      return OrderedJson(std::get<Int>(value.Data()));
    case ValueType::FLOAT: {
      const Float number = std::get<Float>(value.Data());
      if (!std::isfinite(number)) return IllegalArgumentError("the number is not finite");
      return OrderedJson(number);
    }
    case ValueType::STRING:
      return OrderedJson(std::get<std::string>(value.Data()));
    case ValueType::VECTOR:
      return WriteVector(std::get<Vector>(value.Data()));
    default:
      return IllegalArgumentError(std::string("a scene file cannot keep a ") + TypeName(value.Type()) + " preference");
  }
}

}  // namespace platform::scene_internal
