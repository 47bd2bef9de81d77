#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "platform/result.h"

namespace platform {

// Opens a module of ours that is loaded on first use (a codec that drags in a large
// library): the file named by the environment variable `environment` when set, then
// `fileName` beside the running program (an installed tool), then `buildPath` (tests and
// tools run from the build tree). `what` names it in errors ("The image codec").
Result<void*> OpenModule(const char* environment, std::string_view fileName, const std::filesystem::path& buildPath,
                         std::string_view what);

}  // namespace platform
