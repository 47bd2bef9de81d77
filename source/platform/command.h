#pragma once

#include <string_view>
#include <vector>

#include "platform/document.h"
#include "platform/registry.h"

namespace platform {

// The commands of the editor as a front-end meets them: looked up by plug-in ID or class
// name, listed in menu order, run on the document's selection.
[[nodiscard]] const PluginInfo* FindCommand(const Registry& registry, Int32 id);
[[nodiscard]] const PluginInfo* FindCommand(const Registry& registry, std::string_view className);
// The registered commands in menu order, separators left out.
[[nodiscard]] std::vector<const PluginInfo*> MenuCommands(const Registry& registry);

// Runs the command on the document's current selection. The result is the command's own:
// false when it declined; an error when it failed part-way, after which one undo restores
// the document.
Result<bool> ExecuteCommand(Document& document, const PluginInfo& command, CommandInput input = {});
[[nodiscard]] bool IsCommandEnabled(Document& document, const PluginInfo& command, CommandInput input = {});

}  // namespace platform
