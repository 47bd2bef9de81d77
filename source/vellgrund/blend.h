#pragma once

#include <array>
#include <span>

#include "platform/cancellation.h"
#include "vellgrund/grid2d.h"

namespace VLGD {

// Stored in documents by value.
enum class BLENDMODE : Int32 {
  NORMAL = 0,
  ADD = 1,
  SUBTRACT = 2,
  MULTIPLY = 3,
  DIVIDE = 4,
  LOWEST = 5,
  HIGHEST = 6,
  DIFFERENCE = 7,
  PHOENIX = 8,
  PHOENIXINVERSE = 9,
  OVERLAY = 10,
  NEGATION = 11,
  SCREEN = 12,
  SOFTLIGHT = 13,
  HARDLIGHT = 14,
  _BLENDMODE_COUNT = 15,
};

// The normalised modes work on the base brought into 0 .. 1.
constexpr bool IsNormalizedBlendMode(Int32 mode) { return mode >= 10 && mode <= 14; }
// The factor modes scale the operator's value by a factor rather than a height amount.
constexpr bool IsFactorBlendMode(Int32 mode) {
  return mode == static_cast<Int32>(BLENDMODE::MULTIPLY) || mode == static_cast<Int32>(BLENDMODE::DIVIDE) ||
         IsNormalizedBlendMode(mode);
}

// How an operator's result is folded into the terrain. `mode` is kept as the stored number:
// a value outside the enumeration leaves the terrain unchanged.
struct BlendSettings {
  Float strength = 0.0;
  Int32 mode = 0;
  Float scale = 1.0;   // the factor for factor modes, the height amount for the others
  Float offset = 0.0;
  bool slopeMaskEnabled = false;
  std::array<Float, 4> slopeMaskParams{};   // lower, upper, lower falloff, upper falloff
  bool heightMaskEnabled = false;
  std::array<Float, 4> heightMaskParams{};  // lower, upper, lower falloff, upper falloff
};

// Everything one combination run needs, read-only for the workers except base[i].
struct BlendContext {
  Float* base = nullptr;
  const Float* result = nullptr;
  const Float* mask = nullptr;
  Float baseMinimum = 0.0;
  Float baseRange = 0.0;
  Float baseRangeInverse = 0.0;
  Int32 mode = 0;
  Float strength = 0.0;
  Float scale = 1.0;
  Float offset = 0.0;
  bool hasMask = false;
};

// Combines sample `index` of the result into the base in place.
void BlendSample(const BlendContext& context, Int index);

// Blends the result grid into the base grid, sample by sample, with an optional
// per-sample mask (empty for none). Fails without touching the base when the grids or the
// mask differ in size.
Status Combine(Grid2D<Float>& base, const Grid2D<Float>& result, std::span<const Float> mask,
               const BlendSettings& settings);

// The editor's ring of blend modes. DIVIDE is not on it: nothing leads to it, and from it
// next goes to OVERLAY and previous to MULTIPLY. Values outside the enumeration give NORMAL.
Int32 NextBlendMode(Int32 mode);
Int32 PreviousBlendMode(Int32 mode);

}  // namespace VLGD
