#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/result.h"

namespace editor {

// The folders the page's file dialogs may reach: the scene's folder and the folders named
// on the command line. Every path the page sends is checked here, links resolved, so that
// a request can neither read nor write anywhere else.
class FolderAccess {
 public:
  // Folders that do not exist are left out.
  explicit FolderAccess(const std::vector<std::filesystem::path>& roots);

  // The path as the file system resolves it, when it lies inside one of the folders.
  [[nodiscard]] platform::Result<std::filesystem::path> Resolve(const std::string& requested) const;
  // The folders and scene files of a folder (every file with `showAll`), with its parent
  // while that stays inside; an empty name lists the roots.
  [[nodiscard]] platform::Result<nlohmann::json> List(const std::string& folder, bool showAll) const;
  // Adds the folder of a scene opened or saved, so that its neighbours stay reachable.
  void AddRoot(const std::filesystem::path& folder);

 private:
  [[nodiscard]] bool Inside(const std::filesystem::path& path) const;
  std::vector<std::filesystem::path> roots_;
};

}  // namespace editor
