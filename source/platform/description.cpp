#include "platform/description.h"

#include <cmath>
#include <limits>
#include <new>

#include "platform/node.h"

namespace platform {

ParameterDescription DescribeParameter(ParameterId id, std::string symbol, ValueType type, Value defaultValue,
                                       std::optional<Float> minimum, std::optional<Float> maximum) {
  ParameterDescription parameter;
  parameter.id = id;
  parameter.symbol = std::move(symbol);
  parameter.type = type;
  parameter.defaultValue = std::move(defaultValue);
  parameter.minimum = minimum;
  parameter.maximum = maximum;
  return parameter;
}

Float ClampToLimits(const ParameterDescription& parameter, Float value) {
  if (parameter.minimum && value < *parameter.minimum) return *parameter.minimum;
  if (parameter.maximum && value > *parameter.maximum) return *parameter.maximum;
  return value;
}

Int ClampToLimits(const ParameterDescription& parameter, Int value) {
  // Whole limits: the nearest integers inside fractional ones, within Int's range.
  constexpr Float kLowest = -9223372036854775808.0;  // -2^63, exact
  if (parameter.minimum && static_cast<Float>(value) < *parameter.minimum)
    return *parameter.minimum >= -kLowest ? std::numeric_limits<Int>::max()
                                          : static_cast<Int>(std::ceil(*parameter.minimum));
  if (parameter.maximum && static_cast<Float>(value) > *parameter.maximum)
    return *parameter.maximum < kLowest ? std::numeric_limits<Int>::min()
                                        : static_cast<Int>(std::floor(*parameter.maximum));
  return value;
}

Status FlatDescription::Append(const ParameterDescription& parameter) {
  if (byId_.contains(parameter.id))
    return IllegalArgumentError("The parameter ID " + std::to_string(parameter.id) + " is described twice!");
  if (!parameter.symbol.empty() && bySymbol_.contains(parameter.symbol))
    return IllegalArgumentError("The parameter symbol " + parameter.symbol + " is described twice!");
  try {
    parameters_.push_back(parameter);
    byId_.emplace(parameter.id, parameters_.size() - 1);
    if (!parameter.symbol.empty()) bySymbol_.emplace(parameter.symbol, parameters_.size() - 1);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

const ParameterDescription* FlatDescription::Find(ParameterId id) const {
  const auto found = byId_.find(id);
  return found != byId_.end() ? &parameters_[found->second] : nullptr;
}

const ParameterDescription* FlatDescription::FindSymbol(std::string_view symbol) const {
  const auto found = bySymbol_.find(std::string(symbol));
  return found != bySymbol_.end() ? &parameters_[found->second] : nullptr;
}

Status FlatDescription::WriteDefaults(ParameterContainer& container) const {
  for (const ParameterDescription& parameter : parameters_) {
    if (parameter.kind != ParameterKind::VALUE || parameter.defaultValue.Type() == ValueType::NONE) continue;
    VLGD_RETURN_IF_ERROR(container.Set(parameter.id, parameter.defaultValue));
  }
  return Ok();
}

bool IsParameterEnabled(const Node& node, ParameterId id) {
  const NodeData* data = node.GetNodeData();
  if (data == nullptr) return true;
  static const Value none;
  const Value* value = node.GetData().Find(id);
  return data->GetDEnabling(node, id, value != nullptr ? *value : none);
}

bool IsParameterVisible(const Node& node, ParameterId id) {
  const NodeData* data = node.GetNodeData();
  return data == nullptr || data->GetDVisibility(node, id);
}

}  // namespace platform
