#include "platform/host.h"

#include <chrono>

#include "platform/field_objects.h"
#include "platform/material.h"
#include "platform/spline_objects.h"

#include <array>
#include <cstdlib>
#include <system_error>

namespace platform {

Host::Host() {
  // Field objects, splines and materials are the application's own node types, there for every
  // document. A fresh registry cannot refuse them.
  (void)RegisterFieldTypes(registry_);
  (void)RegisterMaterialType(registry_);
  (void)RegisterSplineTypes(registry_);
}

UInt64 Host::TimerValue() {
  if (countingTimer_.has_value()) return (*countingTimer_)++;
  return static_cast<UInt64>(std::chrono::steady_clock::now().time_since_epoch().count());
}

std::filesystem::path ResourceFolder() {
  if (const char* folder = std::getenv("VELLGRUND_RESOURCES"); folder != nullptr && *folder != '\0') return folder;

  // Beside the executable, or up to two levels up: our binaries live in
  // build/<preset>/apps/cli/ and build/<preset>/tests/.
  std::error_code error;
  const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
  const std::filesystem::path beside = error ? std::filesystem::path("res") : executable.parent_path() / "res";
  if (!error) {
    const std::filesystem::path folder = executable.parent_path();
    for (const auto& candidate :
         std::array{beside, folder.parent_path() / "res", folder.parent_path().parent_path() / "res"})
      if (std::filesystem::is_directory(candidate, error)) return candidate;
  }

#ifdef VELLGRUND_SOURCE_RESOURCES
  return VELLGRUND_SOURCE_RESOURCES;
#else
  return beside;  // found nowhere: name the first place looked at in messages
#endif
}

std::filesystem::path DocumentationFolder() {
  if (const char* folder = std::getenv("VELLGRUND_DOCS"); folder != nullptr && *folder != '\0') return folder;
  return ResourceFolder().parent_path() / "docs";
}

}  // namespace platform
