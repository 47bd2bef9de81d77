#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/result.h"

namespace platform {

// What people read about a parameter or a node type: a short label and one line of help.
struct HelpText {
  std::string label;
  std::string help;
};

// Labels and help texts keyed by parameter symbol ("BLUROPERATOR_RADIUS") or node type
// resource name ("obluroperator"), from res/strings/parameters.json:
//   {"BLUROPERATOR_RADIUS": {"label": "Radius", "help": "..."}, ...}
// Only tools that explain parameters read it, so it is loaded on demand, not at start-up.
class ParameterHelp {
 public:
  // A broken file is refused as a whole: a missing or empty label or help, a help text of
  // more than one line, or any other key in an entry.
  static Result<ParameterHelp> LoadFile(const std::filesystem::path& file);
  static Result<ParameterHelp> LoadText(std::string_view json, std::string_view sourceName);

  // The file beside the string table in the resource folder.
  static std::filesystem::path DefaultFile();

  [[nodiscard]] const HelpText* Find(std::string_view key) const;
  [[nodiscard]] const std::unordered_map<std::string, HelpText>& Entries() const { return entries_; }

 private:
  std::unordered_map<std::string, HelpText> entries_;
};

}  // namespace platform
