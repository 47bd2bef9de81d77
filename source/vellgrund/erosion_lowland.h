#pragma once

#include "platform/result.h"
#include "vellgrund/grid2d.h"

// Lowland flattening: heights below a noise-modulated level are pushed down a power curve,
// so valleys widen into flat floors while the hills above the level keep their shape.
namespace VLGD::Erosion {

struct LowlandSettings {
  Float low = 0.25;         // the level where the noise is 0, in the unit range of the heights
  Float high = 0.5;         // the level where the noise is 1
  Float noiseScale = 2.0;   // feature size of the level noise; 0 gives one flat level
  Float exponent = 3.0;     // steepness of the power curve below the level
  Float noiseAmount = 0.4;  // how far the noise pulls the level from `high` towards `low`
  Float softness = 0.0;     // 0: the bare curve; 1: blends back to the input across 0 .. level
};

// Maps every sample in place. Heights are taken in the unit range of the grid's minimum
// and maximum (computed here when the grid's range is not current; a flat grid maps to 0).
// A sample at or above its level L is kept; below it, with t its unit height, it becomes
// u = (t / L)^exponent x t, and with softness s > 0 it is pulled back towards t by the
// smooth step of (u - (1 - s) L) / (s L). The level noise is sampled at the sample's
// position centred on the grid's middle in physical units, X to the right and the rows
// running towards -Z, at the frequency 1 / (10 x noiseScale).
// Samples are independent, so any thread count gives the same heights.
Status FlattenLowlands(Grid2D<Float>& grid, const LowlandSettings& settings);

}  // namespace VLGD::Erosion
