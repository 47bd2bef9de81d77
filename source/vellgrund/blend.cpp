#include "vellgrund/blend.h"

#include <cmath>

#include "platform/parallel.h"

namespace VLGD {
namespace {


constexpr Int32 Mode(BLENDMODE mode) { return static_cast<Int32>(mode); }

// The target value of one sample for mode M, or false when the sample must not be written.
template <Int32 M>
inline bool BlendTarget(Float b, Float o, const BlendContext& context, Float& target) {
  if constexpr (M == Mode(BLENDMODE::NORMAL)) {
    target = o;
  } else if constexpr (M == Mode(BLENDMODE::ADD)) {
    target = b + o;
  } else if constexpr (M == Mode(BLENDMODE::SUBTRACT)) {
    target = b - o;
  } else if constexpr (M == Mode(BLENDMODE::MULTIPLY)) {
    target = b * o;
  } else if constexpr (M == Mode(BLENDMODE::DIVIDE)) {
    if (o == 0.0) return false;
    target = b / o;
  } else if constexpr (M == Mode(BLENDMODE::LOWEST)) {
    target = b < o ? b : o;
  } else if constexpr (M == Mode(BLENDMODE::HIGHEST)) {
    target = o > b ? o : b;
  } else if constexpr (M == Mode(BLENDMODE::DIFFERENCE)) {
    target = std::abs(b - o);
  } else if constexpr (M == Mode(BLENDMODE::PHOENIX) || M == Mode(BLENDMODE::PHOENIXINVERSE)) {
    // The mean of the two, not the image formula's + 1: heights are not confined to 0 .. 1.
    const Float low = b < o ? b : o;
    const Float high = b < o ? o : b;
    target = M == Mode(BLENDMODE::PHOENIX) ? low - high + (b + o) * 0.5 : high - low + (b + o) * 0.5;
  } else if constexpr (IsNormalizedBlendMode(M)) {
    const Float n = (b - context.baseMinimum) * context.baseRangeInverse;
    Float u = 0.0;
    if constexpr (M == Mode(BLENDMODE::OVERLAY)) {
      u = n < 0.5 ? 2.0 * n * o : 1.0 - 2.0 * (1.0 - o) * (1.0 - n);
    } else if constexpr (M == Mode(BLENDMODE::NEGATION)) {
      u = 1.0 - std::abs(1.0 - n - o);
    } else if constexpr (M == Mode(BLENDMODE::SCREEN)) {
      u = 1.0 - (1.0 - n) * (1.0 - o);
    } else if constexpr (M == Mode(BLENDMODE::SOFTLIGHT)) {
      u = o < 0.5 ? n * n + 2.0 * n * o - 2.0 * n * n * o
                  : 2.0 * std::sqrt(n) * o - std::sqrt(n) + 2.0 * n - 2.0 * n * o;
    } else {  // HARDLIGHT
      u = o < 0.5 ? 2.0 * n * o : 1.0 - 2.0 * (1.0 - o) * (1.0 - n);
    }
    target = u * context.baseRange + context.baseMinimum;
  } else {
    return false;
  }
  return true;
}

// One mode over a run of samples; instantiated per mode and mask presence so that the
// inner loop has no branch on either.
template <Int32 M, bool HasMask>
void BlendRange(const BlendContext& context, Int begin, Int end) {
  Float* __restrict base = context.base;
  const Float* __restrict result = context.result;
  const Float* __restrict mask = context.mask;
  const Float strength = context.strength;
  const Float scale = context.scale;
  const Float offset = context.offset;
  for (Int i = begin; i < end; ++i) {
    const Float b = base[i];
    const Float o = result[i] * scale + offset;
    Float target;
    if (!BlendTarget<M>(b, o, context, target)) continue;
    const Float s = HasMask ? strength * mask[i] : strength;
    base[i] = b + (target - b) * s;
  }
}

template <bool HasMask>
void BlendRangeForMode(const BlendContext& context, Int begin, Int end) {
  switch (context.mode) {
#define VLGD_BLEND_CASE(name) \
  case Mode(BLENDMODE::name): \
    return BlendRange<Mode(BLENDMODE::name), HasMask>(context, begin, end);
    VLGD_BLEND_CASE(NORMAL)
    VLGD_BLEND_CASE(ADD)
    VLGD_BLEND_CASE(SUBTRACT)
    VLGD_BLEND_CASE(MULTIPLY)
    VLGD_BLEND_CASE(DIVIDE)
    VLGD_BLEND_CASE(LOWEST)
    VLGD_BLEND_CASE(HIGHEST)
    VLGD_BLEND_CASE(DIFFERENCE)
    VLGD_BLEND_CASE(PHOENIX)
    VLGD_BLEND_CASE(PHOENIXINVERSE)
    VLGD_BLEND_CASE(OVERLAY)
    VLGD_BLEND_CASE(NEGATION)
    VLGD_BLEND_CASE(SCREEN)
    VLGD_BLEND_CASE(SOFTLIGHT)
    VLGD_BLEND_CASE(HARDLIGHT)
#undef VLGD_BLEND_CASE
    default:
      return;  // an unknown mode leaves the base as it is
  }
}

void BlendSamples(const BlendContext& context, Int begin, Int end) {
  if (context.hasMask)
    BlendRangeForMode<true>(context, begin, end);
  else
    BlendRangeForMode<false>(context, begin, end);
}

// The editor's ring; DIVIDE is left out on purpose.
constexpr Int32 kBlendModeRing[] = {
    Mode(BLENDMODE::NORMAL),  Mode(BLENDMODE::ADD),     Mode(BLENDMODE::SUBTRACT),       Mode(BLENDMODE::DIFFERENCE),
    Mode(BLENDMODE::PHOENIX), Mode(BLENDMODE::PHOENIXINVERSE), Mode(BLENDMODE::LOWEST), Mode(BLENDMODE::HIGHEST),
    Mode(BLENDMODE::MULTIPLY), Mode(BLENDMODE::OVERLAY), Mode(BLENDMODE::NEGATION),      Mode(BLENDMODE::SCREEN),
    Mode(BLENDMODE::SOFTLIGHT), Mode(BLENDMODE::HARDLIGHT)};
constexpr Int kRingSize = static_cast<Int>(std::size(kBlendModeRing));

Int RingPosition(Int32 mode) {
  for (Int i = 0; i < kRingSize; ++i)
    if (kBlendModeRing[i] == mode) return i;
  return -1;
}

}  // namespace

void BlendSample(const BlendContext& context, Int index) { BlendSamples(context, index, index + 1); }

Status Combine(Grid2D<Float>& base, const Grid2D<Float>& result, std::span<const Float> mask,
               const BlendSettings& settings) {
  if (base.Count() != result.Count()) return platform::IllegalArgumentError("Cannot merge grids of different sizes!");
  if (!mask.empty() && static_cast<Int>(mask.size()) != base.Count())
    return platform::IllegalArgumentError("FieldOutput and _size are different!");
  if (IsNormalizedBlendMode(settings.mode)) base.RecomputeRange();

  BlendContext context;
  context.base = base.Data();
  context.result = result.Data();
  context.mask = mask.data();
  context.hasMask = !mask.empty();
  context.baseMinimum = base.Minimum();
  context.baseRange = base.Maximum() - base.Minimum();
  context.baseRangeInverse = context.baseRange == 0.0 ? 0.0 : 1.0 / context.baseRange;
  context.mode = settings.mode;
  context.strength = settings.strength;
  context.scale = settings.scale;
  context.offset = settings.offset;

  const platform::ParallelOptions options{.granularity = 16, .singleThreadBelow = platform::kSingleThreadBelowSamples};
  return platform::ParallelForRange(0, base.Count(), options,
                                    [&context](Int begin, Int end) { BlendSamples(context, begin, end); });
}

Int32 NextBlendMode(Int32 mode) {
  if (mode == Mode(BLENDMODE::DIVIDE)) return Mode(BLENDMODE::OVERLAY);
  const Int position = RingPosition(mode);
  return position < 0 ? Mode(BLENDMODE::NORMAL) : kBlendModeRing[(position + 1) % kRingSize];
}

Int32 PreviousBlendMode(Int32 mode) {
  if (mode == Mode(BLENDMODE::DIVIDE)) return Mode(BLENDMODE::MULTIPLY);
  const Int position = RingPosition(mode);
  return position < 0 ? Mode(BLENDMODE::NORMAL) : kBlendModeRing[(position + kRingSize - 1) % kRingSize];
}

}  // namespace VLGD
