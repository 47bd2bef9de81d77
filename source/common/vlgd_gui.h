#pragma once

#include "platform/result.h"
#include "platform/spline_data.h"
#include "platform/types.h"

namespace VLGD {

// The transfer curve presets offered in the interface. The values are stored in scenes.
enum class SPLINEDATAPRESET : platform::Int32 {
  LINEAR = 0,
  CANYON = 1,
  GLACIER = 2,
  PLATEAU = 3,
  EMPHASIZE = 4,
  TERRACE_1 = 5,
  TERRACE_2 = 6,
  DUNES = 7,
  DUNES_2 = 8,
  GLACIER_2 = 9,
  PLATEAU_2 = 10,
  CRATERS = 11,
  FLATTENVALLEYS = 12,
};

// Replaces the knots of `curve` by those of a stored SPLINEDATAPRESET value; a value that
// is not a preset gives LINEAR. On failure `curve` is left as it was.
platform::Status ApplySplinePreset(platform::SplineData& curve, platform::Int32 preset);

// The default gradient profile: from (0, 0) to (1, 1), flat at the start and steep at
// the end. On failure `profile` is left as it was.
platform::Status InitGradientProfile(platform::SplineData& profile);

}  // namespace VLGD
