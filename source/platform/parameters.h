#pragma once

#include <span>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/field_list.h"
#include "platform/matrix.h"
#include "platform/result.h"
#include "platform/spline_data.h"
#include "platform/spline_path.h"
#include "platform/types.h"
#include "platform/vector.h"

namespace platform {

using ParameterId = Int32;

// A weak reference to a node of a document, by the node's identity; 0 links nothing. It is
// resolved through the document on every use, so a deleted node no longer resolves.
struct NodeLink {
  UInt64 target = 0;
  friend constexpr bool operator==(const NodeLink&, const NodeLink&) = default;
};

// Stored type of a parameter value; the numbers are kept in files.
enum class ValueType : Int32 {
  NONE = 0,
  BOOL = 1,
  INT32 = 2,
  INT64 = 3,
  FLOAT = 4,
  VECTOR = 5,
  STRING = 6,
  CURVE = 7,
  LINK = 8,
  MATRIX = 9,
  FIELDLIST = 10,
  LINKLIST = 11,
  SPLINEPATH = 12,
};

// One typed parameter value. Copies are deep.
class Value {
 public:
  using Storage = std::variant<std::monostate, bool, Int32, Int, Float, Vector, std::string, SplineData, NodeLink,
                               Matrix, FieldList, NodeLinkList, SplinePath>;

  Value() = default;
  Value(bool value) : storage_(value) {}                  // NOLINT(google-explicit-constructor)
  Value(Int32 value) : storage_(value) {}                 // NOLINT(google-explicit-constructor)
  Value(Int value) : storage_(value) {}                 // NOLINT(google-explicit-constructor)
  Value(Float value) : storage_(value) {}                 // NOLINT(google-explicit-constructor)
  Value(const Vector& value) : storage_(value) {}         // NOLINT(google-explicit-constructor)
  Value(std::string value) : storage_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
  Value(const char* value) : storage_(std::string(value)) {}  // NOLINT(google-explicit-constructor)
  Value(SplineData value) : storage_(std::move(value)) {}   // NOLINT(google-explicit-constructor)
  Value(NodeLink value) : storage_(value) {}              // NOLINT(google-explicit-constructor)
  Value(const Matrix& value) : storage_(value) {}         // NOLINT(google-explicit-constructor)
  Value(FieldList value) : storage_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
  Value(NodeLinkList value) : storage_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
  Value(SplinePath value) : storage_(std::move(value)) {}    // NOLINT(google-explicit-constructor)

  [[nodiscard]] ValueType Type() const { return static_cast<ValueType>(storage_.index()); }
  [[nodiscard]] const Storage& Data() const { return storage_; }
  [[nodiscard]] Storage& Data() { return storage_; }

  // Numeric reads convert between Bool, Int32, Int and Float as a stored number would
  // (a Float truncates towards zero, out-of-range integers saturate); reads of another
  // type give the fallback.
  [[nodiscard]] bool ToBool(bool fallback) const;
  [[nodiscard]] Int32 ToInt32(Int32 fallback) const;
  [[nodiscard]] Int ToInt64(Int fallback) const;
  [[nodiscard]] Float ToFloat(Float fallback) const;

  friend bool operator==(const Value&, const Value&) = default;

 private:
  Storage storage_;
};

// Named parameters of a node: numeric ID to a typed value, kept sorted by ID. Getters take
// the value a missing entry reads as.
class ParameterContainer {
 public:
  [[nodiscard]] bool Contains(ParameterId id) const { return Find(id) != nullptr; }
  [[nodiscard]] const Value* Find(ParameterId id) const;
  [[nodiscard]] Value* Find(ParameterId id);
  [[nodiscard]] ValueType TypeOf(ParameterId id) const;

  [[nodiscard]] bool GetBool(ParameterId id, bool fallback = false) const;
  [[nodiscard]] Int32 GetInt32(ParameterId id, Int32 fallback = 0) const;
  [[nodiscard]] Int GetInt64(ParameterId id, Int fallback = 0) const;
  [[nodiscard]] Float GetFloat(ParameterId id, Float fallback = 0.0) const;
  [[nodiscard]] Vector GetVector(ParameterId id, const Vector& fallback = {}) const;
  [[nodiscard]] std::string GetString(ParameterId id, const std::string& fallback = {}) const;
  [[nodiscard]] Matrix GetMatrix(ParameterId id, const Matrix& fallback = {}) const;
  [[nodiscard]] NodeLink GetLink(ParameterId id) const;
  // The curve stored under the ID, or nullptr when there is none.
  [[nodiscard]] const SplineData* GetSplineData(ParameterId id) const;
  [[nodiscard]] SplineData* GetSplineData(ParameterId id);
  // The field list stored under the ID, or nullptr when there is none.
  [[nodiscard]] const FieldList* GetFieldList(ParameterId id) const;
  [[nodiscard]] FieldList* GetFieldList(ParameterId id);
  // The link list or spline points stored under the ID, or nullptr when there are none.
  [[nodiscard]] const NodeLinkList* GetLinkList(ParameterId id) const;
  [[nodiscard]] const SplinePath* GetSplinePath(ParameterId id) const;

  // Stores a value, replacing what the ID held, whatever its type.
  Status Set(ParameterId id, Value value);
  // True when the ID held a value.
  bool Remove(ParameterId id);
  void Clear() { entries_.clear(); }

  [[nodiscard]] Int Count() const { return static_cast<Int>(entries_.size()); }
  [[nodiscard]] std::span<const std::pair<ParameterId, Value>> Entries() const { return entries_; }

  Status CopyFrom(const ParameterContainer& other);
  // Equality of the listed IDs only: both hold equal values, or both hold none.
  [[nodiscard]] bool EqualFor(const ParameterContainer& other, std::span<const ParameterId> ids) const;
  friend bool operator==(const ParameterContainer&, const ParameterContainer&) = default;

 private:
  std::vector<std::pair<ParameterId, Value>> entries_;
};

}  // namespace platform
