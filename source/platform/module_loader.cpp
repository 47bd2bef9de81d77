#include "platform/module_loader.h"

#include <dlfcn.h>

#include <cstdlib>
#include <vector>

namespace platform {

Result<void*> OpenModule(const char* environment, std::string_view fileName, const std::filesystem::path& buildPath,
                         std::string_view what) {
  std::vector<std::filesystem::path> candidates;
  if (const char* chosen = std::getenv(environment); chosen != nullptr && *chosen != '\0')
    candidates.emplace_back(chosen);
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error) candidates.push_back(self.parent_path() / fileName);
  candidates.push_back(buildPath);
  std::string tried;
  for (const std::filesystem::path& candidate : candidates) {
    std::error_code ignored;
    if (!std::filesystem::is_regular_file(candidate, ignored)) {
      tried += (tried.empty() ? "" : ", ") + candidate.string();
      continue;
    }
    void* handle = ::dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      const char* reason = ::dlerror();
      return GenericError(std::string(what) + " " + candidate.string() +
                          " could not be loaded: " + (reason != nullptr ? reason : "unknown reason"));
    }
    return handle;
  }
  return GenericError(std::string(what) + " is not installed (looked for " + tried + ")");
}

}  // namespace platform
