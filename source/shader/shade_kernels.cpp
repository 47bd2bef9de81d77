// Compiled once per SIMD target; the functions at the end pick the machine's best.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "shader/shade_kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <numbers>
#include <utility>

#include "shader/shade_kernels.h"
#include "shader/shader_colour.h"
#include "vellgrund/blend.h"

#ifndef VLGD_SHADE_KERNELS_ONCE
#define VLGD_SHADE_KERNELS_ONCE
namespace VLGD::kernels::detail {

// sRGB bytes by bucket of the linear value: 2^12 buckets over 0 .. 1, narrow enough that at
// most one byte boundary falls in any of them (the steepest part of the curve climbs 0.8 of
// a byte per bucket), and few enough that the table stays in the first-level cache. An entry holds the byte at the
// bucket's lower edge in its top 8 bits and, below, where in the bucket the next byte begins, in units of 2^-24 of the
// bucket.
inline constexpr int kBucketBits = 12;
inline constexpr float kBuckets = 4096.0f;
inline constexpr float kFractionUnits = 16777216.0f;   // 2^24
inline constexpr std::int32_t kNoBoundary = 0xFFFFFF;  // beyond every fraction that occurs

const std::int32_t* SrgbTable();

// The polynomial for atan on 0 .. 1, within 0.001 degrees.
inline constexpr float kAtan[] = {0.9998660f, -0.3302995f, 0.1801410f, -0.0851330f, 0.0208351f};
inline constexpr float kDegrees = 180.0f / std::numbers::pi_v<float>;
inline constexpr float kQuarterTurn = std::numbers::pi_v<float> / 2.0f;

}  // namespace VLGD::kernels::detail
#endif

HWY_BEFORE_NAMESPACE();
namespace VLGD::kernels::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using FloatTag = hn::ScalableTag<float>;
using DoubleTag = hn::ScalableTag<double>;
using HalfFloatTag = hn::Rebind<float, DoubleTag>;

template <bool kStep, class D, class V = hn::Vec<D>>
HWY_INLINE V Edge(D d, V value, float start, float scale) {
  if constexpr (kStep) {
    return hn::IfThenZeroElse(value < hn::Set(d, start), hn::Set(d, 1.0f));
  } else {
    const V t = hn::Min(hn::Max((value - hn::Set(d, start)) * hn::Set(d, scale), hn::Zero(d)), hn::Set(d, 1.0f));
    return t * t * (hn::Set(d, 3.0f) - hn::Set(d, 2.0f) * t);
  }
}

template <bool kLowStep, bool kHighStep>
void RangeLoop(const RangeWeights& w, float* values, std::size_t count) {
  const FloatTag d;
  const std::size_t padded = Padded(count);
  for (std::size_t i = 0; i < padded; i += hn::Lanes(d)) {
    const auto v = hn::LoadU(d, values + i);
    const auto low = Edge<kLowStep>(d, v, w.lowStart, w.lowScale);
    const auto high = Edge<kHighStep>(d, v, w.highStart, w.highScale);
    hn::StoreU(low * (hn::Set(d, 1.0f) - high), d, values + i);
  }
}

void ApplyRangeWeightsImpl(const RangeWeights& w, float* values, std::size_t count) {
  const bool lowStep = w.lowScale == 0.0f, highStep = w.highScale == 0.0f;
  if (lowStep && highStep)
    RangeLoop<true, true>(w, values, count);
  else if (lowStep)
    RangeLoop<true, false>(w, values, count);
  else if (highStep)
    RangeLoop<false, true>(w, values, count);
  else
    RangeLoop<false, false>(w, values, count);
}

void ToFloatsImpl(const Float* in, float* out, std::size_t count) {
  const DoubleTag dd;
  const HalfFloatTag df;
  const std::size_t lanes = hn::Lanes(dd);
  std::size_t i = 0;
  for (; i + lanes <= count; i += lanes) hn::StoreU(hn::DemoteTo(df, hn::LoadU(dd, in + i)), df, out + i);
  for (; i < count; ++i) out[i] = static_cast<float>(in[i]);
}

template <class D, class V = hn::Vec<D>>
HWY_INLINE V SlopeDegrees(D d, V squared) {
  using detail::kAtan;
  const V gradient = hn::Sqrt(squared);
  const V inverse = hn::Set(d, 1.0f) / gradient;
  // The angle of min(g, 1/g), mirrored for g > 1.
  const V t = hn::IfThenElse(inverse < gradient, inverse, gradient);
  const V t2 = t * t;
  const V angle = t * (hn::Set(d, kAtan[0]) +
                       t2 * (hn::Set(d, kAtan[1]) +
                             t2 * (hn::Set(d, kAtan[2]) + t2 * (hn::Set(d, kAtan[3]) + t2 * hn::Set(d, kAtan[4])))));
  return hn::IfThenElse(gradient > hn::Set(d, 1.0f), hn::Set(d, detail::kQuarterTurn) - angle, angle) *
         hn::Set(d, detail::kDegrees);
}

void InteriorSlopesImpl(const Float* row, const Float* above, const Float* below, Float inverseDx, Float inverseDz,
                        std::size_t first, std::size_t count, float* out) {
  const DoubleTag dd;
  const HalfFloatTag df;
  const std::size_t lanes = hn::Lanes(dd);
  const auto one = [&](std::size_t k) {
    const std::size_t i = first + k;
    const auto gx = (hn::LoadU(dd, row + i + 1) - hn::LoadU(dd, row + i - 1)) * hn::Set(dd, inverseDx);
    const auto gz = (hn::LoadU(dd, above + i) - hn::LoadU(dd, below + i)) * hn::Set(dd, inverseDz);
    hn::StoreU(SlopeDegrees(df, hn::DemoteTo(df, gx * gx + gz * gz)), df, out + k);
  };
  if (count >= lanes) {
    std::size_t k = 0;
    for (; k + lanes <= count; k += lanes) one(k);
    if (k < count) one(count - lanes);  // the last lanes again, ending at the span's end
    return;
  }
  for (std::size_t k = 0; k < count; ++k) {
    const std::size_t i = first + k;
    const Float gx = (row[i + 1] - row[i - 1]) * inverseDx;
    const Float gz = (above[i] - below[i]) * inverseDz;
    out[k] = SlopeDegreesOfSquared(static_cast<float>(gx * gx + gz * gz));
  }
}

template <int kMode, class D, class V = hn::Vec<D>>
HWY_INLINE V BlendChannel(D d, V a, V b) {
  const V one = hn::Set(d, 1.0f);
  const V two = hn::Set(d, 2.0f);
  const V half = hn::Set(d, 0.5f);
  switch (static_cast<BLENDMODE>(kMode)) {
    case BLENDMODE::NORMAL:
      return b;
    case BLENDMODE::ADD:
      return a + b;
    case BLENDMODE::SUBTRACT:
      return a - b;
    case BLENDMODE::MULTIPLY:
      return a * b;
    case BLENDMODE::DIVIDE:
      return hn::IfThenElse(b > hn::Zero(d), a / b, a);
    case BLENDMODE::LOWEST:
      return hn::Min(a, b);
    case BLENDMODE::HIGHEST:
      return hn::Max(a, b);
    case BLENDMODE::DIFFERENCE:
      return hn::Abs(a - b);
    case BLENDMODE::PHOENIX:
      return hn::Min(a, b) - hn::Max(a, b) + one;
    case BLENDMODE::PHOENIXINVERSE:
      return hn::Max(a, b) - hn::Min(a, b);
    case BLENDMODE::OVERLAY:
      return hn::IfThenElse(a < half, two * a * b, one - two * (one - a) * (one - b));
    case BLENDMODE::NEGATION:
      return one - hn::Abs(one - a - b);
    case BLENDMODE::SCREEN:
      return one - (one - a) * (one - b);
    case BLENDMODE::SOFTLIGHT: {
      const V root = hn::Sqrt(hn::Max(a, hn::Zero(d)));
      return hn::IfThenElse(b < half, a * a + two * a * b - two * a * a * b,
                            two * root * b - root + two * a - two * a * b);
    }
    case BLENDMODE::HARDLIGHT:
      return hn::IfThenElse(b < half, two * a * b, one - two * (one - a) * (one - b));
    default:
      return a;
  }
}

// kConstant: top is one colour, in constant.
template <int kMode, bool kConstant>
void BlendLoop(Channels base, ConstChannels top, const float* constant, const float* weights, float opacity,
               std::size_t count) {
  const FloatTag d;
  const std::size_t padded = Padded(count);
  const auto zero = hn::Zero(d);
  const auto one = hn::Set(d, 1.0f);
  const auto clampUnit = [&](auto v) { return hn::Min(hn::Max(v, zero), one); };
  float* const out[3] = {base.r, base.g, base.b};
  const float* const over[3] = {top.r, top.g, top.b};
  for (std::size_t i = 0; i < padded; i += hn::Lanes(d)) {
    auto w = hn::Set(d, opacity);
    if (weights != nullptr) w = w * hn::LoadU(d, weights + i);
    w = clampUnit(w * (kConstant ? hn::Set(d, constant[3]) : hn::LoadU(d, top.a + i)));
    for (int c = 0; c < 3; ++c) {
      const auto under = hn::LoadU(d, out[c] + i);
      const auto t = kConstant ? hn::Set(d, constant[c]) : hn::LoadU(d, over[c] + i);
      hn::StoreU(under + (clampUnit(BlendChannel<kMode>(d, under, t)) - under) * w, d, out[c] + i);
    }
    hn::StoreU(hn::Max(hn::LoadU(d, base.a + i), w), d, base.a + i);
  }
}

template <bool kConstant, int... kModes>
void BlendAnyMode(Int32 mode, Channels base, ConstChannels top, const float* constant, const float* weights,
                  float opacity, std::size_t count, std::integer_sequence<int, kModes...>) {
  ((mode == kModes ? BlendLoop<kModes, kConstant>(base, top, constant, weights, opacity, count) : void()), ...);
}

constexpr auto kModes = std::make_integer_sequence<int, static_cast<int>(BLENDMODE::HARDLIGHT) + 1>{};

void BlendSpanImpl(Int32 mode, Channels base, ConstChannels top, const float* weights, float opacity,
                   std::size_t count) {
  BlendAnyMode<false>(mode, base, top, nullptr, weights, opacity, count, kModes);
}

void BlendConstantSpanImpl(Int32 mode, Channels base, const float* top, const float* weights, float opacity,
                           std::size_t count) {
  BlendAnyMode<true>(mode, base, ConstChannels{}, top, weights, opacity, count, kModes);
}

void FillSpanImpl(Channels out, const float* colour, std::size_t count) {
  const FloatTag d;
  float* const channels[4] = {out.r, out.g, out.b, out.a};
  const std::size_t padded = Padded(count);
  for (int c = 0; c < 4; ++c) {
    const auto value = hn::Set(d, colour[c]);
    for (std::size_t i = 0; i < padded; i += hn::Lanes(d)) hn::StoreU(value, d, channels[c] + i);
  }
}

// One channel's bytes, for Padded(count) pixels.
void EncodeChannel(const float* linear, const std::int32_t* table, std::uint8_t* out, std::size_t count) {
  const FloatTag df;
  const hn::RebindToSigned<FloatTag> di;
  const hn::RebindToUnsigned<FloatTag> du;
  const hn::Rebind<std::uint8_t, FloatTag> d8;
  const std::size_t padded = Padded(count);
  for (std::size_t i = 0; i < padded; i += hn::Lanes(df)) {
    auto v = hn::LoadU(df, linear + i);
    v = hn::Min(hn::IfThenElseZero(v > hn::Zero(df), v), hn::Set(df, 1.0f));  // NaN to 0 as well
    const auto scaled = v * hn::Set(df, detail::kBuckets);
    const auto bucket = hn::ConvertTo(di, scaled);
    const auto fraction = hn::ConvertTo(di, (scaled - hn::ConvertTo(df, bucket)) * hn::Set(df, detail::kFractionUnits));
    const auto entry = hn::GatherIndex(di, table, bucket);
    const auto low = hn::BitCast(di, hn::ShiftRight<24>(hn::BitCast(du, entry)));
    const auto boundary = hn::And(entry, hn::Set(di, 0xFFFFFF));
    const auto byte = low + hn::IfThenZeroElse(boundary > fraction, hn::Set(di, 1));
    hn::StoreU(hn::DemoteTo(d8, byte), d8, out + i);
  }
}

void EncodeSrgbImpl(const float* r, const float* g, const float* b, std::uint8_t* out, std::size_t count) {
  const std::int32_t* table = detail::SrgbTable();
  // Bytes per channel for a span at a time, then interleaved 16 pixels per step.
  constexpr std::size_t kStep = 256;
  alignas(64) std::uint8_t bytes[3][kStep];
  const hn::CappedTag<std::uint8_t, 16> d8;
  const std::size_t lanes = hn::Lanes(d8);
  for (std::size_t start = 0; start < count; start += kStep) {
    const std::size_t n = std::min(kStep, count - start);
    EncodeChannel(r + start, table, bytes[0], n);
    EncodeChannel(g + start, table, bytes[1], n);
    EncodeChannel(b + start, table, bytes[2], n);
    std::uint8_t* target = out + 3 * start;
    std::size_t i = 0;
    for (; i + lanes <= n; i += lanes)
      hn::StoreInterleaved3(hn::LoadU(d8, bytes[0] + i), hn::LoadU(d8, bytes[1] + i), hn::LoadU(d8, bytes[2] + i), d8,
                            target + 3 * i);
    for (; i < n; ++i) {
      target[3 * i] = bytes[0][i];
      target[3 * i + 1] = bytes[1][i];
      target[3 * i + 2] = bytes[2][i];
    }
  }
}

}  // namespace VLGD::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VLGD::kernels {

HWY_EXPORT(ApplyRangeWeightsImpl);
HWY_EXPORT(ToFloatsImpl);
HWY_EXPORT(InteriorSlopesImpl);
HWY_EXPORT(BlendSpanImpl);
HWY_EXPORT(BlendConstantSpanImpl);
HWY_EXPORT(EncodeSrgbImpl);
HWY_EXPORT(FillSpanImpl);

namespace {

float EdgeScale(float start, float end) {
  return end > start ? 1.0f / (end - start) : 0.0f;
}

std::uint8_t ExactSrgbByte(float linear) {
  return static_cast<std::uint8_t>(std::lround(LinearToSrgb(linear) * 255.0f));
}

}  // namespace

RangeWeights::RangeWeights(float low, float high, float smooth) {
  const float half = std::max(smooth, 0.0f) * 0.5f;
  lowStart = low - half;
  lowScale = EdgeScale(lowStart, low + half);
  highStart = high - half;
  highScale = EdgeScale(highStart, high + half);
}

float RangeWeights::operator()(float value) const {
  float padded[kSpanPadding] = {value};
  ApplyRangeWeights(*this, padded, 1);
  return padded[0];
}

void ApplyRangeWeights(const RangeWeights& weights, float* values, std::size_t count) {
  HWY_DYNAMIC_DISPATCH(ApplyRangeWeightsImpl)(weights, values, count);
}

void ToFloats(const Float* in, float* out, std::size_t count) {
  HWY_DYNAMIC_DISPATCH(ToFloatsImpl)(in, out, count);
}

void InteriorSlopes(const Float* row, const Float* above, const Float* below, Float inverseDx, Float inverseDz,
                    std::size_t first, std::size_t count, float* out) {
  HWY_DYNAMIC_DISPATCH(InteriorSlopesImpl)(row, above, below, inverseDx, inverseDz, first, count, out);
}

float SlopeDegreesOfSquared(float squared) {
  using detail::kAtan;
  const float gradient = std::sqrt(squared);
  const float inverse = 1.0f / gradient;
  const float t = inverse < gradient ? inverse : gradient;
  const float t2 = t * t;
  const float angle = t * (kAtan[0] + t2 * (kAtan[1] + t2 * (kAtan[2] + t2 * (kAtan[3] + t2 * kAtan[4]))));
  return (gradient > 1.0f ? detail::kQuarterTurn - angle : angle) * detail::kDegrees;
}

void BlendSpan(Int32 mode, Channels base, ConstChannels top, const float* weights, float opacity, std::size_t count) {
  HWY_DYNAMIC_DISPATCH(BlendSpanImpl)(mode, base, top, weights, opacity, count);
}

void BlendConstantSpan(Int32 mode, Channels base, const float (&top)[4], const float* weights, float opacity,
                       std::size_t count) {
  HWY_DYNAMIC_DISPATCH(BlendConstantSpanImpl)(mode, base, top, weights, opacity, count);
}

void FillSpan(Channels out, const float (&colour)[4], std::size_t count) {
  HWY_DYNAMIC_DISPATCH(FillSpanImpl)(out, colour, count);
}

void EncodeSrgb(const float* r, const float* g, const float* b, std::uint8_t* out, std::size_t count) {
  HWY_DYNAMIC_DISPATCH(EncodeSrgbImpl)(r, g, b, out, count);
}

void EncodeUnit16(const float* grey, std::uint16_t* out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const float v = grey[i];
    out[i] = static_cast<std::uint16_t>((v > 0.0f ? std::min(v, 1.0f) : 0.0f) * 65535.0f + 0.5f);
  }
}

std::uint8_t SrgbByte(float linear) {
  const float v = std::min(linear > 0.0f ? linear : 0.0f, 1.0f);
  const float scaled = v * detail::kBuckets;
  const auto bucket = static_cast<std::int32_t>(scaled);
  const auto fraction = static_cast<std::int32_t>((scaled - static_cast<float>(bucket)) * detail::kFractionUnits);
  const std::int32_t entry = detail::SrgbTable()[bucket];
  const auto low = static_cast<std::uint8_t>(static_cast<std::uint32_t>(entry) >> 24);
  return static_cast<std::uint8_t>(low + ((entry & 0xFFFFFF) > fraction ? 0 : 1));
}

namespace detail {

const std::int32_t* SrgbTable() {
  static const auto table = [] {
    // Where each byte begins: positive floats order as their bit patterns, so bisecting the
    // patterns finds each boundary exactly.
    const auto bits = [](float f) { return std::bit_cast<std::uint32_t>(f); };
    std::array<float, 256> begins{};
    for (std::size_t k = 1; k < 256; ++k) {
      std::uint32_t low = bits(0.0f), high = bits(1.0f);  // byte(low) < k <= byte(high)
      while (high - low > 1) {
        const std::uint32_t middle = low + (high - low) / 2;
        (ExactSrgbByte(std::bit_cast<float>(middle)) >= k ? high : low) = middle;
      }
      begins[k] = std::bit_cast<float>(high);
    }
    std::array<std::int32_t, (1 << kBucketBits) + 1> entries{};
    for (std::size_t bucket = 0; bucket < entries.size(); ++bucket) {
      const float lower = static_cast<float>(bucket) / kBuckets;
      const std::uint8_t byte = ExactSrgbByte(lower);
      std::int32_t boundary = kNoBoundary;
      // The next byte's start, as a fraction of the bucket: exact, since the scaled value and
      // the bucket number are within one of each other, and the scaled value is at least 1/2
      // (no byte begins lower).
      if (byte < 255 && begins[byte + 1] * kBuckets < static_cast<float>(bucket + 1))
        boundary =
            static_cast<std::int32_t>((begins[byte + 1] * kBuckets - static_cast<float>(bucket)) * kFractionUnits);
      entries[bucket] = static_cast<std::int32_t>(static_cast<std::uint32_t>(byte) << 24) | boundary;
    }
    return entries;
  }();
  return table.data();
}

}  // namespace detail
}  // namespace VLGD::kernels
#endif
