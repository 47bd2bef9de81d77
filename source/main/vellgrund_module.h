#pragma once

#include <filesystem>
#include <span>

#include "platform/host.h"
#include "platform/registry.h"

namespace VLGD {

// The module's entry points, called by the application that loads it.
//
// PluginMessage with kSystemInit loads the string table and the two icon sheets from the
// resource folder; false when one of them is missing or broken. PluginStart registers every
// node type, description, icon and menu entry in the fixed order of the plug-in menu;
// false as soon as one registration fails. PluginEnd frees the icon sheets.
constexpr platform::Int32 kSystemInit = 1;

// Every type the module registers, in registration order: the list that the menu, scene
// files, `describe`, editors, benches and tests go through.
std::span<const platform::TypeDescriptor* const> RegisteredTypes();

bool PluginStart(platform::Host& host);
bool PluginMessage(platform::Host& host, platform::Int32 id,
                   const std::filesystem::path& resources = platform::ResourceFolder());
void PluginEnd();

// What a front-end needs of the resources: an editor shows icons; a batch tool shows none
// and need not decode the sheets (decoding them costs most of a tool's start-up), though
// it still refuses to start when one is missing, as the editor would.
enum class IconUse { LOAD, CHECK_ONLY };

// Loads the module into the host as an application does at start-up: preferences from the
// user's file, the system-initialisation message, then PluginStart. The error names what
// failed.
platform::Status StartModule(platform::Host& host, const std::filesystem::path& resources = platform::ResourceFolder(),
                             IconUse icons = IconUse::LOAD);

}  // namespace VLGD
