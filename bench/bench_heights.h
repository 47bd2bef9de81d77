#pragma once

#include <cmath>
#include <cstdlib>

#include "vellgrund/grid2d.h"

namespace vellgrund_bench {

// A 4001 x 4001 terrain (the default resolution cap) of smooth heights with detail, made
// once per program: what the filter benchmarks and their peers run on.
inline constexpr platform::Int kFilterSide = 4001;

inline const VLGD::Grid2D<platform::Float>& FilterHeights() {
  using platform::Float;
  static const VLGD::Grid2D<Float> heights = [] {
    VLGD::Grid2D<Float> grid;
    if (!grid.Init(kFilterSide, kFilterSide, 4000.0, 4000.0)) std::abort();
    for (platform::Int y = 0; y < kFilterSide; ++y)
      for (platform::Int x = 0; x < kFilterSide; ++x)
        grid.Set(x, y,
                 100.0 * std::sin(static_cast<Float>(x) * 0.01) * std::cos(static_cast<Float>(y) * 0.013) +
                     static_cast<Float>((x * 7 + y * 13) % 17));
    return grid;
  }();
  return heights;
}

}  // namespace vellgrund_bench
