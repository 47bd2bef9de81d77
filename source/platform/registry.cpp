#include "platform/registry.h"

#include <algorithm>
#include <charconv>
#include <new>

namespace platform {
namespace {

template <class Function>
Status Guarded(Function&& function) {
  try {
    return function();
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

}  // namespace

std::optional<Int32> PluginInfo::SortNumber() const {
  if (!registeredName.starts_with("#$")) return std::nullopt;
  Int32 number = 0;
  const char* begin = registeredName.data() + 2;
  const char* end = registeredName.data() + registeredName.size();
  const auto [next, error] = std::from_chars(begin, end, number);
  if (error != std::errc{} || next == begin) return std::nullopt;
  return number;
}

std::string MakeSortName(Int32 sortNumber, std::string_view name) {
  return "#$" + std::to_string(sortNumber) + std::string(name);
}

Status Registry::RegisterDescription(Int32 id, Description description) {
  const bool taken = std::any_of(descriptions_.begin(), descriptions_.end(), [&](const auto& entry) {
    return entry.first == id || entry.second.resourceName == description.resourceName;
  });
  if (taken)
    return IllegalArgumentError("A description with the ID " + std::to_string(id) + " or the name " +
                                description.resourceName + " is already registered!");
  return Guarded([&]() -> Status {
    descriptions_.emplace_back(id, std::move(description));
    return Ok();
  });
}

Status Registry::RegisterNodeType(PluginInfo info, const Description& description) {
  if (Find(info.id) != nullptr)
    return IllegalArgumentError("A plug-in with the ID " + std::to_string(info.id) + " is already registered!");
  if (!info.allocate) return IllegalArgumentError("The node type " + info.resourceName + " has no allocator!");
  for (const std::string& include : description.includes) {
    const Description* shared = FindDescription(include);
    if (shared == nullptr)
      return IllegalArgumentError("The node type " + info.resourceName + " includes the unknown description " +
                                  include + "!");
    for (const ParameterDescription& parameter : shared->parameters)
      VLGD_RETURN_IF_ERROR(info.description.Append(parameter));
  }
  for (const ParameterDescription& parameter : description.parameters)
    VLGD_RETURN_IF_ERROR(info.description.Append(parameter));
  for (const Enumeration& enumeration : description.enumerations)
    VLGD_RETURN_IF_ERROR(enumerations_.Register(enumeration));
  return Guarded([&]() -> Status {
    plugins_.push_back(std::make_unique<PluginInfo>(std::move(info)));
    return Ok();
  });
}

Status Registry::RegisterCommand(PluginInfo info) {
  if (Find(info.id) != nullptr)
    return IllegalArgumentError("A plug-in with the ID " + std::to_string(info.id) + " is already registered!");
  if (info.kind != PluginKind::COMMAND && info.kind != PluginKind::SEPARATOR)
    return IllegalArgumentError("Only commands and separators are registered as commands!");
  return Guarded([&]() -> Status {
    plugins_.push_back(std::make_unique<PluginInfo>(std::move(info)));
    return Ok();
  });
}

Status Registry::RegisterIcon(Int32 id, IconCell cell) {
  if (FindIcon(id) != nullptr)
    return IllegalArgumentError("An icon with the ID " + std::to_string(id) + " is already registered!");
  return Guarded([&]() -> Status {
    icons_.emplace_back(id, std::move(cell));
    return Ok();
  });
}

const PluginInfo* Registry::Find(Int32 id) const {
  const auto found = std::find_if(plugins_.begin(), plugins_.end(), [&](const auto& info) { return info->id == id; });
  return found != plugins_.end() ? found->get() : nullptr;
}

const PluginInfo* Registry::FindByResourceName(std::string_view resourceName) const {
  const auto found = std::find_if(plugins_.begin(), plugins_.end(), [&](const auto& info) {
    return info->resourceName == resourceName && info->kind != PluginKind::SEPARATOR;
  });
  return found != plugins_.end() ? found->get() : nullptr;
}

const Description* Registry::FindDescription(std::string_view resourceName) const {
  const auto found = std::find_if(descriptions_.begin(), descriptions_.end(),
                                  [&](const auto& entry) { return entry.second.resourceName == resourceName; });
  return found != descriptions_.end() ? &found->second : nullptr;
}

const IconCell* Registry::FindIcon(Int32 id) const {
  const auto found = std::find_if(icons_.begin(), icons_.end(), [&](const auto& entry) { return entry.first == id; });
  return found != icons_.end() ? &found->second : nullptr;
}

std::vector<const PluginInfo*> Registry::MenuOrder() const {
  std::vector<const PluginInfo*> menu;
  for (const auto& info : plugins_)
    if (info->SortNumber().has_value()) menu.push_back(info.get());
  std::stable_sort(menu.begin(), menu.end(),
                   [](const PluginInfo* a, const PluginInfo* b) { return *a->SortNumber() < *b->SortNumber(); });
  return menu;
}

Status Registry::RegisterCurvePreset(std::string name, CurvePreset make) {
  if (FindCurvePreset(name) != nullptr)
    return IllegalArgumentError("The curve preset " + name + " is already registered!");
  return Guarded([&]() -> Status {
    curvePresets_.emplace_back(std::move(name), std::move(make));
    return Ok();
  });
}

const Registry::CurvePreset* Registry::FindCurvePreset(std::string_view name) const {
  const auto found = std::find_if(curvePresets_.begin(), curvePresets_.end(),
                                  [&](const auto& entry) { return entry.first == name; });
  return found != curvePresets_.end() ? &found->second : nullptr;
}

}  // namespace platform

