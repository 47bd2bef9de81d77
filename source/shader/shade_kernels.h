#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/types.h"

// The per-pixel loops of a bake, vectorised with a runtime choice of SIMD target. Each works
// on a span of pixels whose buffers are padded to kSpanPadding floats (lanes past the span
// are computed and ignored), and gives the same bits on every target.
namespace VLGD::kernels {

using platform::Float;
using platform::Int32;

// Every span buffer's length is a multiple of this, the widest vector's float count.
inline constexpr std::size_t kSpanPadding = 16;

[[nodiscard]] constexpr std::size_t Padded(std::size_t count) {
  return (count + kSpanPadding - 1) / kSpanPadding * kSpanPadding;
}

// 1 from low up to high, changing smoothly over `smooth` centred on each bound; the edges
// are smoothsteps, a step where the smooth width is 0.
struct RangeWeights {
  RangeWeights(float low, float high, float smooth);
  [[nodiscard]] float operator()(float value) const;

  float lowStart, lowScale;  // t = (value - start) * scale, 0 .. 1; scale 0 for a step
  float highStart, highScale;
};

// values[i] = weights(values[i]) for i < Padded(count).
void ApplyRangeWeights(const RangeWeights& weights, float* values, std::size_t count);

// Doubles to floats, count of them (no padding needed on either side).
void ToFloats(const Float* in, float* out, std::size_t count);

// The slope in degrees of samples i = first .. first + count - 1 of a grid row, all of them
// interior (0 < i < width - 1): central differences along the row and between `above` and
// `below`, scaled by the inverse distances. out[k] is sample first + k.
void InteriorSlopes(const Float* row, const Float* above, const Float* below, Float inverseDx, Float inverseDz,
                    std::size_t first, std::size_t count, float* out);

// The angle in degrees of a gradient given as its squared length, as InteriorSlopes makes it.
float SlopeDegreesOfSquared(float squared);

// Channels of a span, one array each.
struct Channels {
  float* r;
  float* g;
  float* b;
  float* a;
};
struct ConstChannels {
  const float* r;
  const float* g;
  const float* b;
  const float* a;
};

// Blends `top` over `base` with a stored blend mode (an unknown one leaves base as it is),
// each pixel weighed by opacity x weights[i] (all 1 when weights is null) x top's alpha.
void BlendSpan(Int32 mode, Channels base, ConstChannels top, const float* weights, float opacity, std::size_t count);
// The same with one colour for every pixel of top.
void BlendConstantSpan(Int32 mode, Channels base, const float (&top)[4], const float* weights, float opacity,
                       std::size_t count);

// Every pixel of a span one colour, red, green, blue and alpha.
void FillSpan(Channels out, const float (&colour)[4], std::size_t count);

// Linear colours to interleaved 8-bit sRGB, count pixels (3 x count bytes), exactly the
// bytes lround(LinearToSrgb(v) * 255) gives.
void EncodeSrgb(const float* r, const float* g, const float* b, std::uint8_t* out, std::size_t count);
// Linear grey 0 .. 1 to 16 bits, count of them.
void EncodeUnit16(const float* grey, std::uint16_t* out, std::size_t count);

// The sRGB byte of one linear value, from the same table as EncodeSrgb.
std::uint8_t SrgbByte(float linear);

}  // namespace VLGD::kernels
