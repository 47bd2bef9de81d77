#pragma once

#include "platform/description.h"
#include "platform/node.h"
#include "platform/parameters.h"
#include "platform/registry.h"
#include "platform/types.h"
#include "platform/vector.h"

namespace platform {

// A node's parameters with its description's defaults as the fallbacks: a value that the
// container lacks (or holds as another type) reads as the default the editor shows, so a
// getter and the description cannot disagree. A fallback that differs from the default on
// purpose is read from the container itself, with the reason beside it.
class ParameterReader {
 public:
  explicit ParameterReader(const Node& node) : values_(node.GetData()), description_(node.GetTypeInfo().description) {}
  ParameterReader(const ParameterContainer& values, const FlatDescription& description)
      : values_(values), description_(description) {}

  [[nodiscard]] bool GetBool(ParameterId id) const { return values_.GetBool(id, Default(id).ToBool(false)); }
  [[nodiscard]] Int32 GetInt32(ParameterId id) const { return values_.GetInt32(id, Default(id).ToInt32(0)); }
  [[nodiscard]] Int GetInt64(ParameterId id) const { return values_.GetInt64(id, Default(id).ToInt64(0)); }
  [[nodiscard]] Float GetFloat(ParameterId id) const { return values_.GetFloat(id, Default(id).ToFloat(0.0)); }
  [[nodiscard]] Vector GetVector(ParameterId id) const;

  [[nodiscard]] const ParameterContainer& Values() const { return values_; }

 private:
  [[nodiscard]] const Value& Default(ParameterId id) const;

  const ParameterContainer& values_;
  const FlatDescription& description_;
};

}  // namespace platform
