#pragma once

#include "platform/registry.h"
#include "platform/types.h"

namespace VLGD {

// The icon sheets in the resource folder: 64 x 64 cells by their top-left pixel.
inline constexpr const char* kMainIconSheet = "vellgrund_icons.tif";
inline constexpr const char* kBlendModeIconSheet = "vellgrund_blendmodes.tif";

// The blend modes' icons by mode value, registered from the blend-mode sheet in this order:
// ten cells along its first row, five along its second.
inline constexpr platform::Int32 kBlendModeIconIds[] = {1055710, 1055711, 1055712, 1055713, 1055714,
                                                        1055715, 1055716, 1055717, 1055718, 1055719,
                                                        1056645, 1056646, 1056650, 1056651, 1056652};
inline constexpr platform::Int32 kBlendModeIconsPerRow = 10;

inline platform::IconCell MainSheetIcon(platform::Int32 x, platform::Int32 y) {
  return {kMainIconSheet, x, y};
}

}  // namespace VLGD
