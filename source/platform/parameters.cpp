#include "platform/parameters.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <utility>

namespace platform {
namespace {

template <class Target>
Target SaturatingFromFloat(Float value) {
  if (std::isnan(value)) return 0;
  constexpr auto low = static_cast<Float>(std::numeric_limits<Target>::min());
  constexpr auto high = static_cast<Float>(std::numeric_limits<Target>::max());
  if (value <= low) return std::numeric_limits<Target>::min();
  if (value >= high) return std::numeric_limits<Target>::max();
  return static_cast<Target>(value);
}

auto LowerBound(auto& entries, ParameterId id) {
  return std::lower_bound(entries.begin(), entries.end(), id,
                          [](const auto& entry, ParameterId key) { return entry.first < key; });
}

}  // namespace

bool Value::ToBool(bool fallback) const {
  switch (Type()) {
    case ValueType::BOOL:
      return std::get<bool>(storage_);
    case ValueType::INT32:
      return std::get<Int32>(storage_) != 0;
    case ValueType::INT64:
      return std::get<Int>(storage_) != 0;
    case ValueType::FLOAT:
      return std::get<Float>(storage_) != 0.0;
    default:
      return fallback;
  }
}

Int32 Value::ToInt32(Int32 fallback) const {
  // Saturating twice gives the same as saturating once into the narrower range.
  return static_cast<Int32>(
      std::clamp<Int>(ToInt64(fallback), std::numeric_limits<Int32>::min(), std::numeric_limits<Int32>::max()));
}

Int Value::ToInt64(Int fallback) const {
  switch (Type()) {
    case ValueType::BOOL:
      return std::get<bool>(storage_) ? 1 : 0;
    case ValueType::INT32:
      return std::get<Int32>(storage_);
    case ValueType::INT64:
      return std::get<Int>(storage_);
    case ValueType::FLOAT:
      return SaturatingFromFloat<Int>(std::get<Float>(storage_));
    default:
      return fallback;
  }
}

Float Value::ToFloat(Float fallback) const {
  switch (Type()) {
    case ValueType::BOOL:
      return std::get<bool>(storage_) ? 1.0 : 0.0;
    case ValueType::INT32:
      return std::get<Int32>(storage_);
    case ValueType::INT64:
      return static_cast<Float>(std::get<Int>(storage_));
    case ValueType::FLOAT:
      return std::get<Float>(storage_);
    default:
      return fallback;
  }
}

const Value* ParameterContainer::Find(ParameterId id) const {
  const auto found = LowerBound(entries_, id);
  return found != entries_.end() && found->first == id ? &found->second : nullptr;
}

Value* ParameterContainer::Find(ParameterId id) {
  return const_cast<Value*>(std::as_const(*this).Find(id));
}

ValueType ParameterContainer::TypeOf(ParameterId id) const {
  const Value* value = Find(id);
  return value != nullptr ? value->Type() : ValueType::NONE;
}

bool ParameterContainer::GetBool(ParameterId id, bool fallback) const {
  const Value* value = Find(id);
  return value != nullptr ? value->ToBool(fallback) : fallback;
}

Int32 ParameterContainer::GetInt32(ParameterId id, Int32 fallback) const {
  const Value* value = Find(id);
  return value != nullptr ? value->ToInt32(fallback) : fallback;
}

Int ParameterContainer::GetInt64(ParameterId id, Int fallback) const {
  const Value* value = Find(id);
  return value != nullptr ? value->ToInt64(fallback) : fallback;
}

Float ParameterContainer::GetFloat(ParameterId id, Float fallback) const {
  const Value* value = Find(id);
  return value != nullptr ? value->ToFloat(fallback) : fallback;
}

Vector ParameterContainer::GetVector(ParameterId id, const Vector& fallback) const {
  const Value* value = Find(id);
  const auto* vector = value != nullptr ? std::get_if<Vector>(&value->Data()) : nullptr;
  return vector != nullptr ? *vector : fallback;
}

std::string ParameterContainer::GetString(ParameterId id, const std::string& fallback) const {
  const Value* value = Find(id);
  const auto* text = value != nullptr ? std::get_if<std::string>(&value->Data()) : nullptr;
  return text != nullptr ? *text : fallback;
}

Matrix ParameterContainer::GetMatrix(ParameterId id, const Matrix& fallback) const {
  const Value* value = Find(id);
  const auto* matrix = value != nullptr ? std::get_if<Matrix>(&value->Data()) : nullptr;
  return matrix != nullptr ? *matrix : fallback;
}

NodeLink ParameterContainer::GetLink(ParameterId id) const {
  const Value* value = Find(id);
  const auto* link = value != nullptr ? std::get_if<NodeLink>(&value->Data()) : nullptr;
  return link != nullptr ? *link : NodeLink{};
}

const SplineData* ParameterContainer::GetSplineData(ParameterId id) const {
  const Value* value = Find(id);
  return value != nullptr ? std::get_if<SplineData>(&value->Data()) : nullptr;
}

SplineData* ParameterContainer::GetSplineData(ParameterId id) {
  return const_cast<SplineData*>(std::as_const(*this).GetSplineData(id));
}

const FieldList* ParameterContainer::GetFieldList(ParameterId id) const {
  const Value* value = Find(id);
  return value != nullptr ? std::get_if<FieldList>(&value->Data()) : nullptr;
}

const NodeLinkList* ParameterContainer::GetLinkList(ParameterId id) const {
  const Value* value = Find(id);
  return value != nullptr ? std::get_if<NodeLinkList>(&value->Data()) : nullptr;
}

const SplinePath* ParameterContainer::GetSplinePath(ParameterId id) const {
  const Value* value = Find(id);
  return value != nullptr ? std::get_if<SplinePath>(&value->Data()) : nullptr;
}

FieldList* ParameterContainer::GetFieldList(ParameterId id) {
  return const_cast<FieldList*>(std::as_const(*this).GetFieldList(id));
}

Status ParameterContainer::Set(ParameterId id, Value value) {
  try {
    const auto found = LowerBound(entries_, id);
    if (found != entries_.end() && found->first == id)
      found->second = std::move(value);
    else
      entries_.emplace(found, id, std::move(value));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

bool ParameterContainer::Remove(ParameterId id) {
  const auto found = LowerBound(entries_, id);
  if (found == entries_.end() || found->first != id) return false;
  entries_.erase(found);
  return true;
}

Status ParameterContainer::CopyFrom(const ParameterContainer& other) {
  if (this == &other) return Ok();
  try {
    entries_ = other.entries_;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

bool ParameterContainer::EqualFor(const ParameterContainer& other, std::span<const ParameterId> ids) const {
  for (const ParameterId id : ids) {
    const Value* mine = Find(id);
    const Value* theirs = other.Find(id);
    if ((mine == nullptr) != (theirs == nullptr)) return false;
    if (mine != nullptr && !(*mine == *theirs)) return false;
  }
  return true;
}

}  // namespace platform
