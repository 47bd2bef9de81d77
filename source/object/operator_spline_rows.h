#pragma once

#include "platform/types.h"

namespace VLGD::spline_rows {

using platform::Float;
using platform::Int;

// What the samples of a span need to turn their distances into heights and weights.
struct Shape {
  Float reach = 0.0;      // the core's half width plus the falloff
  Float halfWidth = 0.0;  // of the core, where the weight is 1
  Float level = 0.0;      // the height of raise and carve
  bool flatten = false;   // the curve's own height instead of the level
};

// For `count` samples: within the reach (or the core), value = the curve's height or the
// level and weight = the profile's value clamped to 0 .. 1 (1 in the core); beyond it both
// are 0. `shaped` holds the profile at the samples on a shoulder and is read nowhere else.
void WriteSpan(const Shape& shape, const Float* distance, const Float* curveHeight, const Float* shaped, Int count,
               Float* value, Float* weight);

// Zeros into begin .. end, the aligned bulk with stores that bypass the caches: the rows of
// a large grid are not read again soon. EndStreaming before the memory is handed on.
void StreamZeros(Float* begin, Float* end);
void EndStreaming();

}  // namespace VLGD::spline_rows
