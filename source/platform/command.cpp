#include "platform/command.h"

#include <algorithm>

namespace platform {

const PluginInfo* FindCommand(const Registry& registry, Int32 id) {
  const PluginInfo* info = registry.Find(id);
  return info != nullptr && info->command != nullptr ? info : nullptr;
}

const PluginInfo* FindCommand(const Registry& registry, std::string_view className) {
  const PluginInfo* info = registry.FindByResourceName(className);
  return info != nullptr && info->command != nullptr ? info : nullptr;
}

std::vector<const PluginInfo*> MenuCommands(const Registry& registry) {
  std::vector<const PluginInfo*> commands = registry.MenuOrder();
  std::erase_if(commands, [](const PluginInfo* info) { return info->command == nullptr; });
  return commands;
}

Result<bool> ExecuteCommand(Document& document, const PluginInfo& command, CommandInput input) {
  if (command.command == nullptr) return IllegalArgumentError(command.resourceName + " is not a command!");
  return command.command->Execute(document, input);
}

bool IsCommandEnabled(Document& document, const PluginInfo& command, CommandInput input) {
  return command.command != nullptr && command.command->GetState(document, input) == CMD_ENABLED;
}

}  // namespace platform
