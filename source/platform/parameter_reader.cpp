#include "platform/parameter_reader.h"

#include <variant>

namespace platform {

const Value& ParameterReader::Default(ParameterId id) const {
  static const Value kNone;
  const ParameterDescription* parameter = description_.Find(id);
  return parameter != nullptr ? parameter->defaultValue : kNone;
}

Vector ParameterReader::GetVector(ParameterId id) const {
  const auto* fallback = std::get_if<Vector>(&Default(id).Data());
  return values_.GetVector(id, fallback != nullptr ? *fallback : Vector{});
}

}  // namespace platform
