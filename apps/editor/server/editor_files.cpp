#include "editor_files.h"

#include <algorithm>
#include <system_error>

namespace editor {

namespace {

platform::Status Refused(const std::string& message) {
  return platform::IllegalArgumentError(message);
}

// A path below a folder, compared part by part: "/a/bc" is not inside "/a/b".
bool Below(const std::filesystem::path& path, const std::filesystem::path& folder) {
  auto part = path.begin();
  for (const auto& folderPart : folder) {
    if (folderPart.empty()) continue;  // the trailing separator of "/a/b/"
    if (part == path.end() || *part != folderPart) return false;
    ++part;
  }
  return true;
}

}  // namespace

FolderAccess::FolderAccess(const std::vector<std::filesystem::path>& roots) {
  for (const auto& root : roots) AddRoot(root);
}

void FolderAccess::AddRoot(const std::filesystem::path& folder) {
  std::error_code error;
  const std::filesystem::path resolved = std::filesystem::canonical(folder.empty() ? "." : folder, error);
  if (error || !std::filesystem::is_directory(resolved, error) || Inside(resolved)) return;
  roots_.push_back(resolved);
}

bool FolderAccess::Inside(const std::filesystem::path& path) const {
  return std::ranges::any_of(roots_, [&](const auto& root) { return Below(path, root); });
}

platform::Result<std::filesystem::path> FolderAccess::Resolve(const std::string& requested) const {
  if (requested.empty() || requested.size() > 4096 || requested.find('\0') != std::string::npos)
    return std::unexpected(Refused("A file name is needed.").error());
  std::error_code error;
  // The existing part resolved with its links, the rest as written ("..", ".", none left).
  const std::filesystem::path resolved = std::filesystem::weakly_canonical(requested, error);
  if (error || !resolved.is_absolute() || !Inside(resolved))
    return std::unexpected(Refused("\"" + requested + "\" is outside the folders this editor may use.").error());
  return resolved;
}

platform::Result<nlohmann::json> FolderAccess::List(const std::string& folder, bool showAll) const {
  nlohmann::json entries = nlohmann::json::array();
  if (folder.empty()) {
    for (const auto& root : roots_) entries.push_back({{"name", root.string()}, {"folder", true}});
    return nlohmann::json{{"folder", ""}, {"parent", nullptr}, {"entries", std::move(entries)}};
  }
  VLGD_ASSIGN_OR_RETURN(const std::filesystem::path resolved, Resolve(folder));
  std::error_code error;
  std::filesystem::directory_iterator listing(resolved, std::filesystem::directory_options::skip_permission_denied,
                                              error);
  if (error)
    return std::unexpected(platform::IoError("\"" + folder + "\" cannot be listed: " + error.message()).error());
  std::vector<nlohmann::json> found;
  for (const auto& entry : listing) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with('.')) continue;
    const bool isFolder = entry.is_directory(error);
    if (!isFolder && !showAll && entry.path().extension() != ".json") continue;
    found.push_back({{"name", name}, {"folder", isFolder}});
  }
  // Folders first, then by name, as file dialogs show them.
  std::ranges::sort(found, [](const nlohmann::json& a, const nlohmann::json& b) {
    if (a["folder"] != b["folder"]) return a["folder"].get<bool>();
    return a["name"].get<std::string>() < b["name"].get<std::string>();
  });
  const std::filesystem::path parent = resolved.parent_path();
  const bool parentInside = parent != resolved && Inside(parent);
  return nlohmann::json{{"folder", resolved.string()},
                        {"parent", parentInside ? nlohmann::json(parent.string()) : nlohmann::json("")},
                        {"entries", std::move(found)}};
}

}  // namespace editor
