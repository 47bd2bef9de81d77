#pragma once

// What the scene reader, writer and comparison share: the strict JSON parser, the value
// codecs and the format's limits. Not part of the public API (see scene_file.h).

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include "platform/description.h"
#include "platform/enumerations.h"
#include "platform/field_list.h"
#include "platform/matrix.h"
#include "platform/node.h"
#include "platform/parameters.h"
#include "platform/result.h"
#include "platform/types.h"

namespace platform::scene_internal {

using Json = nlohmann::json;
// Written files keep their keys in the order we write them ("type" and "name" first),
// which reads better than sorted keys.
using OrderedJson = nlohmann::ordered_json;

inline constexpr Int kFormatVersion = 1;
// Limits that keep hostile files from exhausting the stack or the memory. A scene at the
// deepest allowed nesting of children is about 140 JSON levels deep.
inline constexpr Int kMaxChildDepth = 64;
inline constexpr Int kMaxNodes = 1'000'000;
inline constexpr std::size_t kMaxJsonDepth = 256;
// Spline points lie within the world distances parameters take; longer lists than these
// are refused rather than loaded.
inline constexpr Float kMaxSplineCoordinate = 1.0e6;
inline constexpr std::size_t kMaxSplinePoints = 1'000'000;
inline constexpr std::size_t kMaxLinkListEntries = 10'000;

// Parses JSON as nlohmann's parser does, but refuses duplicate keys (the parser would
// silently keep the last one) and absurd nesting, naming the place of the fault.
Result<Json> ParseStrictJson(std::string_view text);

// Two-space indentation like dump(2), but arrays of plain values ([x, y, z]) stay on one
// line: dump(2) gives every number a line of its own. Numbers and strings are nlohmann's,
// so floats read back exactly.
void AppendPretty(const OrderedJson& value, std::size_t indent, std::string& out);

// The kind of a JSON value, for messages: "expected a number, not a string".
std::string KindOf(const Json& value);

std::unexpected<Error> Expected(std::string_view what, const Json& value);

// Shortest text that reads back as the same number.
std::string NumberText(Float value);

// A message prefix before refusals of inner readers; out-of-memory errors pass unchanged.
template <class T>
Result<T> Within(Result<T> result, const std::string& prefix) {
  if (!result && result.error().kind != ErrorKind::OutOfMemory)
    return IllegalArgumentError(prefix + ": " + result.error().message);
  return result;
}

const Json* Member(const Json& object, const char* key);

Status OnlyKeys(const Json& object, std::initializer_list<std::string_view> keys);

// A decimal ID in its one canonical spelling ("10002", "-3"): "007", "+1" and " 1" are not
// IDs, so two keys never name the same entry.
bool ParseId(std::string_view text, Int32& id);

std::optional<Int> IntegerOf(const Json& value);

Result<Int> ReadInteger(const Json& value, Int low, Int high);

Result<Int32> ReadInt32(const Json& value);

Result<bool> ReadBool(const Json& value);

Result<Float> ReadNumber(const Json& value);

// [x, y, z], or [x, y] for curve coordinates (z is 0).
Result<Vector> ReadVector(const Json& value, std::size_t size);

Result<std::string> ReadString(const Json& value);

bool IsFinite(const Vector& v);

bool IsFinite(const Matrix& m);

// {"off": [x,y,z], "v1": .., "v2": .., "v3": ..} with the missing parts from the identity,
// or {"position": .., "rotation": <degrees>, "scale": ..}.
Result<Matrix> ReadMatrix(const Json& value);

Result<Visibility> ReadVisibility(const Json& value);

const char* VisibilityName(Visibility visibility);

// A member name of an enumeration; flag sets also take members joined by "|".
std::optional<Int> EnumValueOf(const Enumeration& enumeration, std::string_view text);

// A parameter key of a file: "10002", "TERRAINOBJECT_SIZE_X" or the written form
// "10002 TERRAINOBJECT_SIZE_X", where the ID decides (symbols may have been renamed since).
const ParameterDescription* FindParameter(const FlatDescription& description, const std::string& key);

std::string ParameterKey(const ParameterDescription& parameter);

// The parameters a scene file keeps: described values that users can edit.
bool IsStored(const ParameterDescription& parameter);

const char* TypeName(ValueType type);

bool IsNumber(const Value& value);

Result<OrderedJson> WriteVector(const Vector& v);

Result<OrderedJson> WriteMatrix(const Matrix& m);

Result<OrderedJson> WritePreference(const Value& value);

}  // namespace platform::scene_internal
