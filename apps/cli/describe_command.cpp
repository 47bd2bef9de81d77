#include <cstdio>
#include <string>

#include "commands.h"
#include "main/vellgrund_module.h"
#include "platform/document.h"

namespace vellgrund_cli {

platform::Status StartHost(platform::Host& host, platform::CollectingConsole& console);

namespace {

const char* TypeName(platform::ValueType type) {
  static const char* const names[] = {"none",  "Bool",   "Int32",  "Int64",  "Float",    "Vector",
                                      "String", "Curve", "Link", "Matrix", "FieldList"};
  const auto index = static_cast<size_t>(type);
  return index < std::size(names) ? names[index] : "?";
}

std::string Show(const platform::Value& value, const platform::Enumeration* enumeration) {
  switch (value.Type()) {
    case platform::ValueType::NONE:
      return "-";
    case platform::ValueType::BOOL:
      return value.ToBool(false) ? "true" : "false";
    case platform::ValueType::INT32:
    case platform::ValueType::INT64: {
      const platform::Int number = value.ToInt64(0);
      if (enumeration != nullptr)
        if (const auto name = enumeration->NameOf(number)) return *name;
      return std::to_string(number);
    }
    case platform::ValueType::FLOAT: {
      char text[64];
      std::snprintf(text, sizeof text, "%g", value.ToFloat(0.0));
      return text;
    }
    case platform::ValueType::STRING:
      return std::string("\"").append(std::get<std::string>(value.Data())).append("\"");
    case platform::ValueType::VECTOR: {
      const platform::Vector& v = std::get<platform::Vector>(value.Data());
      char text[96];
      std::snprintf(text, sizeof text, "[%g, %g, %g]", v.x, v.y, v.z);
      return text;
    }
    default:
      return std::string("(").append(TypeName(value.Type())).append(")");
  }
}

}  // namespace

platform::Status RunDescribe(const std::string& type) {
  platform::Host host;
  platform::CollectingConsole console;
  VLGD_RETURN_IF_ERROR(StartHost(host, console));
  const platform::Registry& registry = host.GetRegistry();
  if (type.empty()) {
    for (const platform::PluginInfo* info : registry.MenuOrder()) {
      if (info->kind == platform::PluginKind::SEPARATOR) {
        std::printf("  ----\n");
        continue;
      }
      std::printf("  %-22s %8d  %s\n", info->resourceName.c_str(), info->id,
                  host.GetStrings().Get(info->nameStringId).c_str());
    }
    return platform::Ok();
  }
  const platform::PluginInfo* info = registry.FindByResourceName(type);
  if (info == nullptr) {
    char* end = nullptr;
    const long id = std::strtol(type.c_str(), &end, 10);
    if (end != type.c_str() && *end == '\0') info = registry.Find(static_cast<platform::Int32>(id));
  }
  if (info == nullptr || !info->allocate) return platform::IllegalArgumentError("Unknown node type " + type + "!");
  // Enabling depends on the other values, so it is shown for a node with its defaults.
  platform::Document doc(host);
  VLGD_ASSIGN_OR_RETURN(std::unique_ptr<platform::Node> node, doc.CreateNode(info->id));
  std::printf("%s (%d): %s\n", info->resourceName.c_str(), info->id, host.GetStrings().Get(info->nameStringId).c_str());
  std::printf("  %-6s %-44s %-9s %-14s %s\n", "ID", "symbol", "type", "default", "at defaults");
  for (const platform::ParameterDescription& parameter : info->description.Parameters()) {
    const platform::Enumeration* enumeration =
        parameter.enumeration.empty() ? nullptr : registry.Enumerations().Find(parameter.enumeration);
    const char* kind = parameter.kind == platform::ParameterKind::BUTTON ? "button" : TypeName(parameter.type);
    const char* state = parameter.readOnly                                ? "read-only"
                        : platform::IsParameterEnabled(*node, parameter.id) ? "enabled"
                                                                           : "disabled";
    std::printf("  %-6d %-44s %-9s %-14s %s\n", parameter.id, parameter.symbol.c_str(), kind,
                Show(parameter.defaultValue, enumeration).c_str(), state);
  }
  return platform::Ok();
}

platform::Status RunNew() {
  std::fputs(kDefaultScene, stdout);
  return platform::Ok();
}

}  // namespace vellgrund_cli
