#pragma once

#include <filesystem>
#include <map>

#include "platform/console.h"
#include "platform/parameters.h"
#include "platform/result.h"
#include "platform/types.h"

namespace platform {

// The application's world plug-in containers, one per plug-in ID, kept in the user's
// configuration folder as JSON: {"<plug-in ID>": {"<key>": value, ...}, ...}.
class Preferences {
 public:
  // The container of a plug-in ID, created empty when missing.
  ParameterContainer& GetWorldPluginData(Int32 id);
  [[nodiscard]] const ParameterContainer* FindWorldPluginData(Int32 id) const;

  // Values a preference page always holds: written into its container now, restored for
  // keys that a loaded file lacks, and always saved.
  Status RegisterDefaults(Int32 id, const ParameterContainer& defaults);

  // The module's own page, whose keys scene files give at the top of their "preferences"
  // section; 0 until a module names it.
  void SetMainPage(Int32 id) { mainPage_ = id; }
  [[nodiscard]] Int32 MainPage() const { return mainPage_; }

  // Reads the file over the defaults. A missing file keeps the defaults silently; an
  // unreadable or broken one keeps them and prints a warning that names the file.
  void Load(const std::filesystem::path& file, ConsoleSink& console);
  // Writes every container (atomically: a failure leaves the old file).
  Status Save(const std::filesystem::path& file) const;

  // $XDG_CONFIG_HOME/vellgrund/preferences.json, else ~/.config/vellgrund/preferences.json.
  static std::filesystem::path DefaultFile();

 private:
  std::map<Int32, ParameterContainer> containers_;
  Int32 mainPage_ = 0;
  std::map<Int32, ParameterContainer> defaults_;
};

}  // namespace platform
