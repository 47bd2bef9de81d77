#include "command/command_info.h"

#include <filesystem>

#include "common/vlgd_icons.h"
#include "platform/host.h"
#include "vellgrund/string_ids.h"

namespace VLGD {

Result<bool> OpenHelpCommand::Execute(Document& doc, const platform::CommandInput&) {
  const std::filesystem::path index = platform::DocumentationFolder() / "index.md";
  std::error_code error;
  if (!std::filesystem::is_regular_file(index, error))
    return platform::IoError("The documentation was not found at " + index.string() + "!");
  (void)doc.GetHost().GetUserInterface().OpenPage(index);  // without a viewer it names the page itself
  return true;
}

Int32 OpenHelpCommand::GetState(Document&, const platform::CommandInput&) { return platform::CMD_ENABLED; }

std::string AboutText() {
  return std::string("Vellgrund ") + VELLGRUND_VERSION + "\n" +
         "Procedural terrain for artists and technical directors.\n"
         "Built " VELLGRUND_BUILD_DATE ".\n"
         "\n"
         "Libraries:\n"
         "  oneTBB (Apache License 2.0): parallel loops\n"
         "  OpenImageIO (Apache License 2.0): height maps and icon sheets\n"
         "  TinyGLTF (MIT License): glTF meshes\n"
         "  JSON for Modern C++ (MIT License): scene files\n"
         "  CLI11 (BSD 3-Clause License): the command-line tool\n"
         "  pybind11 (BSD 3-Clause License) and NumPy (BSD 3-Clause License): the Python module";
}

Result<bool> AboutCommand::Execute(Document& doc, const platform::CommandInput&) {
  doc.GetHost().GetUserInterface().MessageDialog(AboutText());
  return true;
}

Int32 AboutCommand::GetState(Document&, const platform::CommandInput&) { return platform::CMD_ENABLED; }

const platform::TypeDescriptor& OpenHelpCommandType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::COMMAND,
                                             .id = ID_OPENHELPCOMMAND,
                                             .resourceName = "OpenHelpCommand",
                                             .sort = 52,
                                             .icon = MainSheetIcon(256, 64),
                                             .nameStringId = STRING_OPEN_HELP,
                                             .helpStringId = STRING_OPEN_HELP_HELP,
                                             .command = platform::CommandOf<OpenHelpCommand>()};
  return type;
}

const platform::TypeDescriptor& AboutCommandType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::COMMAND,
                                             .id = ID_ABOUTCOMMAND,
                                             .resourceName = "AboutCommand",
                                             .sort = 53,
                                             .icon = MainSheetIcon(128, 64),
                                             .nameStringId = STRING_ABOUT,
                                             .helpStringId = STRING_ABOUT_HELP,
                                             .command = platform::CommandOf<AboutCommand>()};
  return type;
}

}  // namespace VLGD
