#pragma once

#include "platform/registry.h"
#include "platform/types.h"

namespace VLGD {

// The icon sheets in the resource folder: 64 x 64 cells by their top-left pixel.
inline constexpr const char* kMainIconSheet = "vellgrund_icons.tif";
inline constexpr const char* kBlendModeIconSheet = "vellgrund_blendmodes.tif";

inline platform::IconCell MainSheetIcon(platform::Int32 x, platform::Int32 y) {
  return {kMainIconSheet, x, y};
}

}  // namespace VLGD
