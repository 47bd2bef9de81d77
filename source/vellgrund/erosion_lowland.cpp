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
    // The samples the noise has to decide are gathered a block at a time on the worker's
    // stack, and the block's noise taken in one call.
    constexpr Int kBlock = 256;
    Int indices[kBlock];
    Float units[kBlock], x[kBlock], y[kBlock], z[kBlock], noise[kBlock];
    std::fill_n(y, kBlock, 0.0);
    // Column and row advance with the index: one division per chunk, not per sample.
    Int column = begin % width;
    Int row = begin / width;
    Int i = begin;
    while (i < end) {
      Int n = 0;
      for (; i < end && n < kBlock; ++i, ++column) {
        if (column == width) {
          column = 0;
          ++row;
        }
        const Float t = (heights[i] - minimum) * inverse;
        if (highestLevel <= t) continue;
        indices[n] = i;
        units[n] = t;
        x[n] = (static_cast<Float>(column) / lastColumn * sizeX - sizeX * 0.5) * frequency;
        z[n] = (sizeY * 0.5 - static_cast<Float>(row) / lastRow * sizeY) * frequency;
        ++n;
      }
      if (n == 0) continue;
      platform::ScalarNoiseRow({x, y, z, n}, 0.0, noise);
      for (Int k = 0; k < n; ++k) {
        const Float t = units[k];
        const Float level = ((noise[k] - 1.0) * amount + 1.0) * span + low;
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
        heights[indices[k]] = u * range + minimum;
      }
    }
  });
}

}  // namespace VLGD::Erosion
