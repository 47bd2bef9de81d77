#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/description.h"
#include "platform/enumerations.h"
#include "platform/node_data.h"
#include "platform/result.h"
#include "platform/spline_data.h"
#include "platform/types.h"

namespace platform {

enum class PluginKind {
  OBJECT,
  COMMAND,
  SEPARATOR,  // a command entry named "--", shown as a menu separator
  DESCRIPTION,  // a description without a node type (shared parameter blocks)
};

// Object info flags.
enum ObjectInfo : UInt32 {
  OBJECT_NONE = 0,
  OBJECT_GENERATOR = 1,
  OBJECT_FIELD = 2,  // a field object that field lists can link
  // Its children form a stack of terrain operators that it evaluates in order.
  OBJECT_OPERATOR_STACK = 4,
  OBJECT_MATERIAL = 8,  // lives among the document's materials, not its objects
  OBJECT_SHADER = 16,   // lives in a material's shader tree
};

// One 64 x 64 cell of an icon sheet, by its top-left pixel.
struct IconCell {
  std::string sheet;  // file name of the sheet in the resource folder
  Int32 x = 0;
  Int32 y = 0;
};

using NodeDataAllocator = std::function<std::unique_ptr<NodeData>()>;
using CommandAllocator = std::function<std::shared_ptr<CommandData>()>;

struct PluginInfo {
  Int32 id = 0;
  PluginKind kind = PluginKind::OBJECT;
  std::string resourceName;  // "oterrain"; for commands the class name
  // "#$" + sort number + name for entries of the plug-in menu; empty for the others.
  std::string registeredName;
  Int32 nameStringId = 0;
  Int32 helpStringId = 0;
  std::optional<IconCell> icon;
  Int32 diskLevel = 0;
  UInt32 objectInfo = OBJECT_NONE;
  // Type IDs this type is also an instance of (an operator is an instance of the operator
  // base type).
  std::vector<Int32> baseTypes;
  NodeDataAllocator allocate;            // node types only
  std::shared_ptr<CommandData> command;  // commands only
  FlatDescription description;           // resolved at registration

  // The number of the "#$" prefix, or no value for entries outside the menu.
  [[nodiscard]] std::optional<Int32> SortNumber() const;
};

// One node type, command, separator or shared description, described once beside the unit
// that implements it. A module's registration table is the ordered list of these; scene
// files, `describe`, the menu, editors, benches and tests read them through the registry.
struct TypeDescriptor {
  PluginKind kind = PluginKind::OBJECT;
  Int32 id = 0;
  std::string_view resourceName;
  std::optional<Int32> sort;  // menu sort number; none for entries outside the menu
  std::optional<IconCell> icon;
  Int32 nameStringId = 0;
  Int32 helpStringId = 0;
  Int32 diskLevel = 0;
  UInt32 objectInfo = OBJECT_NONE;
  std::vector<Int32> baseTypes;
  NodeDataAllocator allocate;           // node types only
  CommandAllocator command;             // commands only
  Description (*describe)() = nullptr;  // none: an empty description
  // A command whose icon registers in one step with this one's, so that the pair's icons
  // are there together or not at all.
  const TypeDescriptor* iconPartner = nullptr;
};

template <class Command>
CommandAllocator CommandOf() {
  return []() -> std::shared_ptr<CommandData> { return std::make_shared<Command>(); };
}

template <class Data>
NodeDataAllocator AllocatorOf() {
  return [] { return std::make_unique<Data>(); };
}

// "#$" + number + name: the menu sorts by the number.
std::string MakeSortName(Int32 sortNumber, std::string_view name);

// Node types, commands, descriptions, icons and enumerations known to the application.
class Registry {
 public:
  // Descriptions must be registered before the types that include them. Every kind is
  // refused when its ID is taken (a description may share the ID of its node type).
  Status RegisterDescription(Int32 id, Description description);
  Status RegisterNodeType(PluginInfo info, const Description& description);
  Status RegisterCommand(PluginInfo info);
  Status RegisterIcon(Int32 id, IconCell cell);

  [[nodiscard]] const PluginInfo* Find(Int32 id) const;
  // By resource name, case-sensitive; descriptions without a node type are not found.
  [[nodiscard]] const PluginInfo* FindByResourceName(std::string_view resourceName) const;
  [[nodiscard]] const Description* FindDescription(std::string_view resourceName) const;
  [[nodiscard]] const IconCell* FindIcon(Int32 id) const;

  // Objects, commands and separators of the plug-in menu, by sort number; equal numbers
  // keep the registration order.
  [[nodiscard]] std::vector<const PluginInfo*> MenuOrder() const;
  // Every entry in registration order.
  [[nodiscard]] const std::vector<std::unique_ptr<PluginInfo>>& All() const { return plugins_; }

  EnumRegistry& Enumerations() { return enumerations_; }
  [[nodiscard]] const EnumRegistry& Enumerations() const { return enumerations_; }

  // Named curves that files may give instead of knots ({"preset": "NAME"}).
  using CurvePreset = std::function<Status(SplineData&)>;
  Status RegisterCurvePreset(std::string name, CurvePreset make);
  [[nodiscard]] const CurvePreset* FindCurvePreset(std::string_view name) const;

 private:
  std::vector<std::unique_ptr<PluginInfo>> plugins_;
  std::vector<std::pair<Int32, Description>> descriptions_;
  std::vector<std::pair<Int32, IconCell>> icons_;
  std::vector<std::pair<std::string, CurvePreset>> curvePresets_;
  EnumRegistry enumerations_;
};

}  // namespace platform
