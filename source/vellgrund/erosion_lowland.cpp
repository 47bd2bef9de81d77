#include "vellgrund/erosion_lowland.h"

#include <algorithm>
#include <cmath>

#include "platform/noise.h"
#include "platform/parallel.h"

namespace VLGD::Erosion {
namespace {

constexpr Int kGranularity = 16;
constexpr Int kSingleThreadUpTo = 10000;  // samples; larger grids let the loop choose

}  // namespace

Status FlattenLowlands(Grid2D<Float>& grid, const LowlandSettings& settings) {
  const Int width = grid.Width();
  const Int height = grid.Height();
  if (grid.IsEmpty()) return platform::Ok();
  if (!grid.IsMinMaxValid()) grid.RecomputeRange();

  const Float tenScale = 10.0 * settings.noiseScale;
  const Float frequency = tenScale != 0.0 ? 1.0 / tenScale : 0.0;
  const Float minimum = grid.Minimum();
  const Float range = grid.Maximum() - minimum;
  const Float inverse = range != 0.0 ? 1.0 / range : 0.0;
  const Float low = settings.low;
  const Float span = settings.high - settings.low;
  const Float amount = settings.noiseAmount;
  const Float exponent = settings.exponent;
  const Float softness = settings.softness;
  // The level is linear in the noise value (0 .. 1): a sample at or above both ends keeps
  // its height whatever the noise says, so the noise is skipped for it.
  const Float levelAtZero = (1.0 - amount) * span + low;
  const Float levelAtOne = span + low;
  const Float highestLevel = std::max(levelAtZero, levelAtOne);
  // A single column or row sits on the centre line instead of dividing by zero.
  const Float lastColumn = width > 1 ? static_cast<Float>(width - 1) : 1.0;
  const Float lastRow = height > 1 ? static_cast<Float>(height - 1) : 1.0;
  const Float sizeX = width > 1 ? grid.SizeX() : 0.0;
  const Float sizeY = height > 1 ? grid.SizeY() : 0.0;
  Float* heights = grid.Data();

  platform::ParallelOptions options;
  options.granularity = kGranularity;
  options.singleThreadBelow = kSingleThreadUpTo + 1;
  return platform::ParallelForRange(0, grid.Count(), options, [=](Int begin, Int end) {
    for (Int i = begin; i < end; ++i) {
      const Float t = (heights[i] - minimum) * inverse;
      if (highestLevel <= t) continue;
      const Int x = i % width;
      const Int y = i / width;
      const Vector point((static_cast<Float>(x) / lastColumn * sizeX - sizeX * 0.5) * frequency, 0.0,
                         (sizeY * 0.5 - static_cast<Float>(y) / lastRow * sizeY) * frequency);
      const Float noise = platform::ScalarNoise(point, 0.0);
      const Float level = ((noise - 1.0) * amount + 1.0) * span + low;
      if (level <= t) continue;
      // At t = 0 the curve is 0 for every exponent the artist would use; pow would give
      // infinity times 0 for a negative one.
      Float u = t != 0.0 ? std::pow(t / level, exponent) * t : 0.0;
      if (softness > 0.0) {
        const Float start = (1.0 - softness) * level;
        const Float width01 = level - start;
        Float w = width01 != 0.0 ? std::clamp((u - start) / width01, 0.0, 1.0) : 0.0;
        if (w > 0.0 && w < 1.0) w = 3.0 * w * w - 2.0 * w * w * w;
        u += (t - u) * w;
      }
      heights[i] = u * range + minimum;
    }
  });
}

}  // namespace VLGD::Erosion
