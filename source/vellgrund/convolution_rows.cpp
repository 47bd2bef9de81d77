// Compiled once per SIMD target; the functions at the end pick the machine's best.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "vellgrund/convolution_rows.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "vellgrund/convolution_rows.h"

HWY_BEFORE_NAMESPACE();
namespace VLGD::Convolution::Rows::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using Wide = hn::ScalableTag<Float>;              // down the columns: every lane the target has
using Square = hn::CappedTag<Float, kGroupRows>;  // along the rows: lanes x lanes blocks turn over
using Single = hn::CappedTag<Float, 1>;           // the columns a full vector does not cover

// Turns the lanes x lanes block v[row][lane] over: v[lane][row] afterwards.
template <class D, class V>
HWY_INLINE void Transpose([[maybe_unused]] D d, [[maybe_unused]] V* v) {
  constexpr std::size_t kLanes = hn::MaxLanes(D());
  static_assert(kLanes == 1 || kLanes == 2 || kLanes == 4, "the along-rows loops transpose 1, 2 or 4 lanes");
#if HWY_TARGET != HWY_SCALAR  // one lane: nothing to turn, and no shuffles to do it with
  if constexpr (kLanes == 2) {
    const V low = hn::InterleaveLower(d, v[0], v[1]);
    const V high = hn::InterleaveUpper(d, v[0], v[1]);
    v[0] = low;
    v[1] = high;
  } else if constexpr (kLanes == 4) {
    const V even01 = hn::InterleaveLower(d, v[0], v[1]);  // v0[0] v1[0] v0[2] v1[2]
    const V odd01 = hn::InterleaveUpper(d, v[0], v[1]);   // v0[1] v1[1] v0[3] v1[3]
    const V even23 = hn::InterleaveLower(d, v[2], v[3]);
    const V odd23 = hn::InterleaveUpper(d, v[2], v[3]);
    v[0] = hn::ConcatLowerLower(d, even23, even01);
    v[1] = hn::ConcatLowerLower(d, odd23, odd01);
    v[2] = hn::ConcatUpperUpper(d, even23, even01);
    v[3] = hn::ConcatUpperUpper(d, odd23, odd01);
  }
#endif
}

// Stores lanes 0 .. lanes - 1 of the result for column x of rows out, out + width, ...
template <class D, class V>
HWY_INLINE void StoreColumn(D d, V value, Float* out, Int width, Int lanes, Int x) {
  HWY_ALIGN Float values[hn::MaxLanes(D())];
  hn::Store(value, d, values);
  for (Int lane = 0; lane < lanes; ++lane) out[lane * width + x] = values[lane];
}

// step(x) for x = start .. end - 1, each a vector of `rows` rows' values at column x, stored
// into those rows: kLanes columns at a time through a transpose, the rest one by one.
template <class D, class Step>
HWY_INLINE void StoreSteps(D d, Step& step, Int start, Int end, Float* out, Int width, Int rows) {
  constexpr Int kLanes = static_cast<Int>(hn::MaxLanes(D()));
  Int x = start;
  for (; x + kLanes <= end; x += kLanes) {
    hn::Vec<D> block[kLanes];
    for (Int c = 0; c < kLanes; ++c) block[c] = step(x + c);
    Transpose(d, block);
    for (Int lane = 0; lane < rows; ++lane) hn::StoreU(block[lane], d, out + lane * width + x);
  }
  for (; x < end; ++x) StoreColumn(d, step(x), out, width, rows, x);
}

// ---- Gaussian passes: four vectors at once, so four sums are in flight -------------------

template <class D>
HWY_INLINE Int WeightedRowsFrom(D d, Float* out, const Float* const* rows, const Float* weights, Int count, Int x,
                                Int width) {
  const Int n = static_cast<Int>(hn::Lanes(d));
  for (; x + 4 * n <= width; x += 4 * n) {
    auto a0 = hn::Zero(d), a1 = a0, a2 = a0, a3 = a0;
    for (Int t = 0; t < count; ++t) {
      const auto k = hn::Set(d, weights[t]);
      const Float* row = rows[t] + x;
      a0 = hn::Add(a0, hn::Mul(k, hn::LoadU(d, row)));
      a1 = hn::Add(a1, hn::Mul(k, hn::LoadU(d, row + n)));
      a2 = hn::Add(a2, hn::Mul(k, hn::LoadU(d, row + 2 * n)));
      a3 = hn::Add(a3, hn::Mul(k, hn::LoadU(d, row + 3 * n)));
    }
    hn::StoreU(a0, d, out + x);
    hn::StoreU(a1, d, out + x + n);
    hn::StoreU(a2, d, out + x + 2 * n);
    hn::StoreU(a3, d, out + x + 3 * n);
  }
  for (; x + n <= width; x += n) {
    auto sum = hn::Zero(d);
    for (Int t = 0; t < count; ++t) sum = hn::Add(sum, hn::Mul(hn::Set(d, weights[t]), hn::LoadU(d, rows[t] + x)));
    hn::StoreU(sum, d, out + x);
  }
  return x;
}

void WeightedRowsImpl(Float* out, const Float* const* rows, const Float* weights, Int count, Int width) {
  const Int x = WeightedRowsFrom(Wide(), out, rows, weights, count, 0, width);
  WeightedRowsFrom(Single(), out, rows, weights, count, x, width);
}

// Stores a finished output vector, streamed past the cache to an aligned address.
template <bool kStream, class D, class V>
HWY_INLINE void StoreOut(V value, D d, Float* out) {
  if constexpr (kStream) {
    hn::Stream(value, d, out);
  } else {
    hn::StoreU(value, d, out);
  }
}

template <bool kStream, class D>
HWY_INLINE Int WeightedShiftsFrom(D d, Float* out, const Float* centreRow, Float centre, const Float* padded,
                                  const Float* weights, Int count, Int x, Int end) {
  const Int n = static_cast<Int>(hn::Lanes(d));
  const auto c = hn::Set(d, centre);
  for (; x + 4 * n <= end; x += 4 * n) {
    auto a0 = hn::Mul(c, hn::LoadU(d, centreRow + x));
    auto a1 = hn::Mul(c, hn::LoadU(d, centreRow + x + n));
    auto a2 = hn::Mul(c, hn::LoadU(d, centreRow + x + 2 * n));
    auto a3 = hn::Mul(c, hn::LoadU(d, centreRow + x + 3 * n));
    for (Int t = 0; t < count; ++t) {
      const auto k = hn::Set(d, weights[t]);
      const Float* row = padded + x + t;
      a0 = hn::Add(a0, hn::Mul(k, hn::LoadU(d, row)));
      a1 = hn::Add(a1, hn::Mul(k, hn::LoadU(d, row + n)));
      a2 = hn::Add(a2, hn::Mul(k, hn::LoadU(d, row + 2 * n)));
      a3 = hn::Add(a3, hn::Mul(k, hn::LoadU(d, row + 3 * n)));
    }
    StoreOut<kStream>(a0, d, out + x);
    StoreOut<kStream>(a1, d, out + x + n);
    StoreOut<kStream>(a2, d, out + x + 2 * n);
    StoreOut<kStream>(a3, d, out + x + 3 * n);
  }
  for (; x + n <= end; x += n) {
    auto sum = hn::Mul(c, hn::LoadU(d, centreRow + x));
    for (Int t = 0; t < count; ++t) sum = hn::Add(sum, hn::Mul(hn::Set(d, weights[t]), hn::LoadU(d, padded + x + t)));
    StoreOut<kStream>(sum, d, out + x);
  }
  return x;
}

void WeightedShiftsImpl(Float* out, const Float* centreRow, Float centre, const Float* padded, const Float* weights,
                        Int count, Int width, bool streamed) {
  const Wide d;
  if (!streamed) {
    const Int x = WeightedShiftsFrom<false>(d, out, centreRow, centre, padded, weights, count, 0, width);
    WeightedShiftsFrom<false>(Single(), out, centreRow, centre, padded, weights, count, x, width);
    return;
  }
  // Single lanes up to the first aligned output, whole vectors streamed from there.
  const std::uintptr_t bytes = hn::Lanes(d) * sizeof(Float);
  const std::uintptr_t misaligned = reinterpret_cast<std::uintptr_t>(out) % bytes;
  const Int head = misaligned == 0 ? 0 : std::min<Int>(width, static_cast<Int>((bytes - misaligned) / sizeof(Float)));
  Int x = WeightedShiftsFrom<false>(Single(), out, centreRow, centre, padded, weights, count, 0, head);
  x = WeightedShiftsFrom<true>(d, out, centreRow, centre, padded, weights, count, x, width);
  WeightedShiftsFrom<false>(Single(), out, centreRow, centre, padded, weights, count, x, width);
  // Streamed stores are ordered only by a store fence; the loop's join then publishes them.
  hwy::FlushStream();
}

// ---- Box blur ---------------------------------------------------------------------------

template <class D>
HWY_INLINE Int AddRowFrom(D d, Float* sums, const Float* row, Int x, Int width) {
  const Int n = static_cast<Int>(hn::Lanes(d));
  for (; x + n <= width; x += n) hn::StoreU(hn::Add(hn::LoadU(d, sums + x), hn::LoadU(d, row + x)), d, sums + x);
  return x;
}

template <class D>
HWY_INLINE Int AddEndsFrom(D d, Float* sums, const Float* top, Float below, const Float* bottom, Float above, Int x,
                           Int width) {
  const Int n = static_cast<Int>(hn::Lanes(d));
  const auto b = hn::Set(d, below);
  const auto a = hn::Set(d, above);
  for (; x + n <= width; x += n) {
    const auto ends = hn::Add(hn::Mul(b, hn::LoadU(d, top + x)), hn::Mul(a, hn::LoadU(d, bottom + x)));
    hn::StoreU(hn::Add(hn::LoadU(d, sums + x), ends), d, sums + x);
  }
  return x;
}

void BoxColumnSumsImpl(const Float* src, Int width, Int height, Int y0, Int half, Float* sums) {
  std::fill(sums, sums + width, 0.0);
  const BoxWindow window = BoxWindowAt(y0, half, height);
  for (Int r = window.lo; r <= window.hi; ++r) {
    const Float* row = src + r * width;
    AddRowFrom(Single(), sums, row, AddRowFrom(Wide(), sums, row, 0, width), width);
  }
  const Float* top = src;
  const Float* bottom = src + (height - 1) * width;
  const Int x = AddEndsFrom(Wide(), sums, top, window.below, bottom, window.above, 0, width);
  AddEndsFrom(Single(), sums, top, window.below, bottom, window.above, x, width);
}

template <class D>
HWY_INLINE Int AdvanceFrom(D d, Float* sums, const Float* add, const Float* sub, Int x, Int width) {
  const Int n = static_cast<Int>(hn::Lanes(d));
  for (; x + n <= width; x += n) {
    const auto step = hn::Sub(hn::LoadU(d, add + x), hn::LoadU(d, sub + x));
    hn::StoreU(hn::Add(hn::LoadU(d, sums + x), step), d, sums + x);
  }
  return x;
}

void BoxAdvanceImpl(const Float* src, Int width, Int height, Int y, Int rows, Int half, Float* sums) {
  for (Int row = y; row < y + rows; ++row) {
    const Float* add = src + std::min(row + half + 1, height - 1) * width;
    const Float* sub = src + std::max<Int>(row - half, 0) * width;
    AdvanceFrom(Single(), sums, add, sub, AdvanceFrom(Wide(), sums, add, sub, 0, width), width);
  }
}

// The horizontal box over `in`, lanes rows interleaved (in[x * lanes + lane]), into the rows
// out, out + width, ...; only the first `rows` lanes are stored.
template <class D>
HWY_INLINE void BoxAlongRows(D d, const Float* in, Float* out, Int width, Int rows, Int half, Float w, Int period) {
  using V = hn::Vec<D>;
  constexpr Int kLanes = static_cast<Int>(hn::MaxLanes(D()));
  const V weight = hn::Set(d, w);
  const Float* last = in + (width - 1) * kLanes;
  const auto at = [&](Int index) { return hn::LoadU(d, in + index * kLanes); };
  for (Int start = 0; start < width; start += period) {
    const Int end = std::min(width, start + period);
    const BoxWindow window = BoxWindowAt(start, half, width);
    V sum = hn::Zero(d);
    for (Int t = window.lo; t <= window.hi; ++t) sum = hn::Add(sum, at(t));
    sum = hn::Add(sum, hn::Add(hn::Mul(hn::Set(d, window.below), hn::LoadU(d, in)),
                               hn::Mul(hn::Set(d, window.above), hn::LoadU(d, last))));
    const auto step = [&](Int x) {
      const V result = hn::Mul(weight, sum);
      sum = hn::Add(sum, hn::Sub(at(std::min(x + half + 1, width - 1)), at(std::max<Int>(x - half, 0))));
      return result;
    };
    StoreSteps(d, step, start, end, out, width, rows);
  }
}

void BoxRowsImpl(const Float* src, Float* dst, Int width, Int height, Int y, Int rows, Int half, Float w, Int period,
                 Float* sums, Float* buffer) {
  const Square d;
  using V = hn::Vec<Square>;
  constexpr Int kLanes = static_cast<Int>(hn::MaxLanes(Square()));
  const V weight = hn::Set(d, w);
  for (Int first = 0; first < rows; first += kLanes) {
    // The vertical pass of rows first .. first + lanes - 1, turned over into the buffer; a
    // group short of rows repeats its last row's values in the spare lanes.
    const Int lanes = std::min(kLanes, rows - first);
    const Float* add[kLanes];
    const Float* sub[kLanes];
    for (Int lane = 0; lane < kLanes; ++lane) {
      const Int row = y + first + lane;
      add[lane] = src + std::min(row + half + 1, height - 1) * width;
      sub[lane] = src + std::max<Int>(row - half, 0) * width;
    }
    Int x = 0;
    for (; x + kLanes <= width; x += kLanes) {
      V sum = hn::LoadU(d, sums + x);
      V block[kLanes];
      for (Int lane = 0; lane < kLanes; ++lane) {
        block[lane] = hn::Mul(weight, sum);
        if (lane < lanes) sum = hn::Add(sum, hn::Sub(hn::LoadU(d, add[lane] + x), hn::LoadU(d, sub[lane] + x)));
      }
      hn::StoreU(sum, d, sums + x);
      Transpose(d, block);
      for (Int c = 0; c < kLanes; ++c) hn::StoreU(block[c], d, buffer + (x + c) * kLanes);
    }
    for (; x < width; ++x) {
      Float sum = sums[x];
      for (Int lane = 0; lane < kLanes; ++lane) {
        buffer[x * kLanes + lane] = w * sum;
        if (lane < lanes) sum += add[lane][x] - sub[lane][x];
      }
      sums[x] = sum;
    }
    BoxAlongRows(d, buffer, dst + (y + first) * width, width, lanes, half, w, period);
  }
}

// ---- Separable sharpen ------------------------------------------------------------------

template <class D>
HWY_INLINE Int RampStartFrom(D d, const Float* src, Int width, Int height, Int y0, Int x0, Int count, const Ramp& ramp,
                             Float* state, Int x) {
  const Int n = static_cast<Int>(hn::Lanes(d));
  const Int half = ramp.half;
  const Int ringSize = half + 1;
  const BoxWindow first = BoxWindowAt(y0, half, height);
  const auto row = [&](Int index) { return src + std::clamp<Int>(index, 0, height - 1) * width + x0; };
  Float* forwardOut = state + ringSize * count;
  Float* tentOut = forwardOut + count;
  for (; x + n <= count; x += n) {
    // F(y0 - half - 1): the samples y0 - half .. y0, clamped.
    auto forward = hn::Zero(d);
    for (Int r = std::max<Int>(0, y0 - half); r <= y0; ++r) forward = hn::Add(forward, hn::LoadU(d, row(r) + x));
    forward = hn::Add(forward, hn::Mul(hn::Set(d, first.below), hn::LoadU(d, row(0) + x)));
    hn::StoreU(forward, d, state + x);
    auto tent = forward;
    for (Int t = 1; t < ringSize; ++t) {
      forward = hn::Add(forward, hn::Sub(hn::LoadU(d, row(y0 + t) + x), hn::LoadU(d, row(y0 - half - 1 + t) + x)));
      hn::StoreU(forward, d, state + t * count + x);
      tent = hn::Add(tent, forward);
    }
    hn::StoreU(forward, d, forwardOut + x);
    hn::StoreU(tent, d, tentOut + x);
  }
  return x;
}

void RampColumnsStartImpl(const Float* src, Int width, Int height, Int y0, Int x0, Int count, const Ramp& ramp,
                          Float* state) {
  const Int x = RampStartFrom(Wide(), src, width, height, y0, x0, count, ramp, state, 0);
  RampStartFrom(Single(), src, width, height, y0, x0, count, ramp, state, x);
}

template <class D>
HWY_INLINE Int RampRowFrom(D d, const Float* add, const Float* sub, Float* out, Int count, const Ramp& ramp,
                           Float* slot, Float* forwardIo, Float* tentIo, Int x) {
  const Int n = static_cast<Int>(hn::Lanes(d));
  const auto w = hn::Set(d, ramp.w);
  const auto boxWeight = hn::Set(d, ramp.a + ramp.delta * static_cast<Float>(ramp.half + 1));
  const auto delta = hn::Set(d, ramp.delta);
  for (; x + n <= count; x += n) {
    const auto added = hn::LoadU(d, add + x);
    const auto old = hn::LoadU(d, slot + x);
    const auto tent = hn::LoadU(d, tentIo + x);
    const auto next = hn::Sub(hn::Add(hn::LoadU(d, forwardIo + x), added), hn::LoadU(d, sub + x));
    const auto box = hn::Sub(hn::Add(old, next), added);
    hn::StoreU(hn::Mul(w, hn::Sub(hn::Mul(boxWeight, box), hn::Mul(delta, tent))), d, out + x);
    hn::StoreU(hn::Add(tent, hn::Sub(next, old)), d, tentIo + x);
    hn::StoreU(next, d, slot + x);
    hn::StoreU(next, d, forwardIo + x);
  }
  return x;
}

void RampColumnsRowImpl(const Float* src, Float* dst, Int width, Int height, Int y, Int x0, Int count, const Ramp& ramp,
                        Float* state, Int oldest) {
  const auto row = [&](Int index) { return src + std::clamp<Int>(index, 0, height - 1) * width + x0; };
  const Float* add = row(y + ramp.half + 1);
  const Float* sub = row(y);
  Float* slot = state + oldest * count;
  Float* forward = state + (ramp.half + 1) * count;
  Float* tent = forward + count;
  Float* out = dst + y * width + x0;
  const Int x = RampRowFrom(Wide(), add, sub, out, count, ramp, slot, forward, tent, 0);
  RampRowFrom(Single(), add, sub, out, count, ramp, slot, forward, tent, x);
}

// The horizontal ramp over `in`, lanes rows interleaved, into rows out, out + width, ...
template <class D>
HWY_INLINE void RampAlongRows(D d, const Float* in, Float* out, Int width, Int rows, const Ramp& ramp, Int period,
                              Float* ring) {
  using V = hn::Vec<D>;
  constexpr Int kLanes = static_cast<Int>(hn::MaxLanes(D()));
  const Int half = ramp.half;
  const Int ringSize = half + 1;
  const V w = hn::Set(d, ramp.w);
  const V boxWeight = hn::Set(d, ramp.a + ramp.delta * static_cast<Float>(ringSize));
  const V delta = hn::Set(d, ramp.delta);
  const auto at = [&](Int index) { return hn::LoadU(d, in + std::clamp<Int>(index, 0, width - 1) * kLanes); };
  for (Int start = 0; start < width; start += period) {
    const Int end = std::min(width, start + period);
    const BoxWindow window = BoxWindowAt(start, half, width);
    V forward = hn::Zero(d);
    for (Int t = std::max<Int>(0, start - half); t <= start; ++t) forward = hn::Add(forward, at(t));
    forward = hn::Add(forward, hn::Mul(hn::Set(d, window.below), at(0)));
    hn::StoreU(forward, d, ring);
    V tent = forward;
    for (Int t = 1; t < ringSize; ++t) {
      forward = hn::Add(forward, hn::Sub(at(start + t), at(start - half - 1 + t)));
      hn::StoreU(forward, d, ring + t * kLanes);
      tent = hn::Add(tent, forward);
    }
    Int oldest = 0;
    const auto step = [&](Int x) {
      const V added = at(x + half + 1);
      Float* slot = ring + oldest * kLanes;
      const V old = hn::LoadU(d, slot);
      const V next = hn::Sub(hn::Add(forward, added), at(x));
      const V box = hn::Sub(hn::Add(old, next), added);
      const V result = hn::Mul(w, hn::Sub(hn::Mul(boxWeight, box), hn::Mul(delta, tent)));
      tent = hn::Add(tent, hn::Sub(next, old));
      hn::StoreU(next, d, slot);
      forward = next;
      if (++oldest == ringSize) oldest = 0;
      return result;
    };
    StoreSteps(d, step, start, end, out, width, rows);
  }
}

void RampRowsImpl(const Float* src, Float* dst, Int width, Int rows, const Ramp& ramp, Int period, Float* ring,
                  Float* buffer) {
  const Square d;
  using V = hn::Vec<Square>;
  constexpr Int kLanes = static_cast<Int>(hn::MaxLanes(Square()));
  for (Int first = 0; first < rows; first += kLanes) {
    // Rows first .. first + lanes - 1 turned over into the buffer; a group short of rows
    // repeats its last row in the spare lanes.
    const Int lanes = std::min(kLanes, rows - first);
    const Float* in[kLanes];
    for (Int lane = 0; lane < kLanes; ++lane) in[lane] = src + (first + std::min(lane, lanes - 1)) * width;
    Int x = 0;
    for (; x + kLanes <= width; x += kLanes) {
      V block[kLanes];
      for (Int lane = 0; lane < kLanes; ++lane) block[lane] = hn::LoadU(d, in[lane] + x);
      Transpose(d, block);
      for (Int c = 0; c < kLanes; ++c) hn::StoreU(block[c], d, buffer + (x + c) * kLanes);
    }
    for (; x < width; ++x)
      for (Int lane = 0; lane < kLanes; ++lane) buffer[x * kLanes + lane] = in[lane][x];
    RampAlongRows(d, buffer, dst + first * width, width, lanes, ramp, period, ring);
  }
}

}  // namespace VLGD::Convolution::Rows::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VLGD::Convolution::Rows {

HWY_EXPORT(WeightedRowsImpl);
HWY_EXPORT(WeightedShiftsImpl);
HWY_EXPORT(BoxColumnSumsImpl);
HWY_EXPORT(BoxAdvanceImpl);
HWY_EXPORT(BoxRowsImpl);
HWY_EXPORT(RampColumnsStartImpl);
HWY_EXPORT(RampColumnsRowImpl);
HWY_EXPORT(RampRowsImpl);

void WeightedRows(Float* out, const Float* const* rows, const Float* weights, Int count, Int width) {
  HWY_DYNAMIC_DISPATCH(WeightedRowsImpl)(out, rows, weights, count, width);
}

void WeightedShifts(Float* out, const Float* centreRow, Float centre, const Float* padded, const Float* weights,
                    Int count, Int width, bool streamed) {
  HWY_DYNAMIC_DISPATCH(WeightedShiftsImpl)(out, centreRow, centre, padded, weights, count, width, streamed);
}

void BoxColumnSums(const Float* src, Int width, Int height, Int y0, Int half, Float* sums) {
  HWY_DYNAMIC_DISPATCH(BoxColumnSumsImpl)(src, width, height, y0, half, sums);
}

void BoxAdvance(const Float* src, Int width, Int height, Int y, Int rows, Int half, Float* sums) {
  HWY_DYNAMIC_DISPATCH(BoxAdvanceImpl)(src, width, height, y, rows, half, sums);
}

void BoxRows(const Float* src, Float* dst, Int width, Int height, Int y, Int rows, Int half, Float w, Int period,
             Float* sums, Float* buffer) {
  HWY_DYNAMIC_DISPATCH(BoxRowsImpl)(src, dst, width, height, y, rows, half, w, period, sums, buffer);
}

void RampColumnsStart(const Float* src, Int width, Int height, Int y0, Int x0, Int count, const Ramp& ramp,
                      Float* state) {
  HWY_DYNAMIC_DISPATCH(RampColumnsStartImpl)(src, width, height, y0, x0, count, ramp, state);
}

void RampColumnsRow(const Float* src, Float* dst, Int width, Int height, Int y, Int x0, Int count, const Ramp& ramp,
                    Float* state, Int oldest) {
  HWY_DYNAMIC_DISPATCH(RampColumnsRowImpl)(src, dst, width, height, y, x0, count, ramp, state, oldest);
}

void RampRows(const Float* src, Float* dst, Int width, Int rows, const Ramp& ramp, Int period, Float* ring,
              Float* buffer) {
  HWY_DYNAMIC_DISPATCH(RampRowsImpl)(src, dst, width, rows, ramp, period, ring, buffer);
}

}  // namespace VLGD::Convolution::Rows
#endif  // HWY_ONCE
