#pragma once

#include "platform/registry.h"
#include "platform/result.h"

namespace VLGD {

// Registers the engine's enumerations by name, so that files and tools read and show
// member names, and the curve presets that files may name.
platform::Status RegisterEnumerations(platform::Registry& registry);

// The curve presets by name, for enumerations that offer them.
platform::Enumeration SplinePresets();

}  // namespace VLGD
