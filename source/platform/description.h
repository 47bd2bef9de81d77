#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/enumerations.h"
#include "platform/parameters.h"
#include "platform/result.h"
#include "platform/types.h"

namespace platform {

class Node;

enum class ParameterKind {
  VALUE,   // a stored value of `type`
  BUTTON,  // a command button; stores nothing
  GROUP,   // a heading that other parameters name as their group
};

// One parameter of a node type, described once: files, the command line's `describe`,
// editors and benchmarks all read it from here.
struct ParameterDescription {
  ParameterId id = 0;
  std::string symbol;
  ParameterKind kind = ParameterKind::VALUE;
  ValueType type = ValueType::NONE;
  Value defaultValue;      // none: Init writes no value
  Int32 labelStringId = 0;  // 0: the label is the symbol
  ParameterId group = 0;    // the GROUP it sits in; 0 for the top level
  std::string enumeration;  // the registered enumeration of an Int32 choice, if any
  std::optional<Float> minimum;  // limits a value must keep, numbers only
  std::optional<Float> maximum;
  std::string unit;              // of a number, for people: "samples", "units", "degrees", "%"; empty: none
  bool readOnly = false;         // shown, never edited (status texts)
  bool keptForFiles = false;     // stored and read from files, but nothing computes with it

  // Builders for description lines: DescribeParameter(...).Limits(0, 4096, "samples").
  [[nodiscard]] ParameterDescription Limits(Float low, Float high, std::string unitName = {}) && {
    minimum = low;
    maximum = high;
    unit = std::move(unitName);
    return std::move(*this);
  }
  [[nodiscard]] ParameterDescription Choice(std::string enumerationName, Int32 first, Int32 last) && {
    enumeration = std::move(enumerationName);
    minimum = first;
    maximum = last;
    return std::move(*this);
  }
  [[nodiscard]] ParameterDescription KeptForFiles() && {
    keptForFiles = true;
    return std::move(*this);
  }
};

// A number brought into the parameter's limits, as editors and the scene loader apply them;
// integers keep to whole numbers inside the limits. NaN stays NaN for the caller to refuse.
Float ClampToLimits(const ParameterDescription& parameter, Float value);
Int ClampToLimits(const ParameterDescription& parameter, Int value);

// A value parameter, the common case of a description line.
ParameterDescription DescribeParameter(ParameterId id, std::string symbol, ValueType type, Value defaultValue = {},
                                       std::optional<Float> minimum = std::nullopt,
                                       std::optional<Float> maximum = std::nullopt);

// The description of a node type or a shared block of parameters. `includes` name other
// registered descriptions by resource name; their parameters come first.
struct Description {
  std::string resourceName;
  std::vector<std::string> includes;
  std::vector<ParameterDescription> parameters;
  // The choices of the node type's own parameters, registered with the node type.
  std::vector<Enumeration> enumerations = {};
};

// A description with its includes resolved, indexed by ID and by symbol.
class FlatDescription {
 public:
  // Refuses a parameter ID or symbol described twice.
  Status Append(const ParameterDescription& parameter);

  [[nodiscard]] const std::vector<ParameterDescription>& Parameters() const { return parameters_; }
  [[nodiscard]] const ParameterDescription* Find(ParameterId id) const;
  [[nodiscard]] const ParameterDescription* FindSymbol(std::string_view symbol) const;

  // Writes every described default into `container`.
  Status WriteDefaults(ParameterContainer& container) const;

 private:
  std::vector<ParameterDescription> parameters_;
  std::unordered_map<ParameterId, size_t> byId_;
  std::unordered_map<std::string, size_t> bySymbol_;
};

// Enabling and visibility as an editor would show them: the node's data decides, with the
// current value of the parameter.
bool IsParameterEnabled(const Node& node, ParameterId id);
bool IsParameterVisible(const Node& node, ParameterId id);

}  // namespace platform
