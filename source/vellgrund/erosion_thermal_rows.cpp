// The inner columns of the thermal weathering's rows, compiled once per SIMD target; the
// best one for the processor is picked at run time. Each lane is one sample doing the
// scalar code's operations in the scalar code's order, so every target gives the same bits.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "vellgrund/erosion_thermal_rows.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include <limits>

#include "vellgrund/erosion_thermal_rows.h"

HWY_BEFORE_NAMESPACE();
namespace VLGD::Erosion::thermal::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using D = hn::ScalableTag<double>;
using V = hn::Vec<D>;
using M = hn::Mask<D>;

template <int kCount>
struct Neighbours {
  const Float* rows[kCount];  // each neighbour's row, shifted by its column offset
};

template <class Family>
HWY_INLINE Neighbours<Family::kCount> Shifted(const Float* const rows[3]) {
  Neighbours<Family::kCount> n;
  for (int k = 0; k < Family::kCount; ++k) n.rows[k] = rows[1 + Family::kOffsets[k].dy] + Family::kOffsets[k].dx;
  return n;
}

// All lower: every neighbour lower by more than the talus takes its difference's part of
// (dmax - talus); the sample loses those parts times the intensity.
template <class Family>
Int SpreadOut(const RowJob& job, Int x, Int end) {
  const D d;
  const auto lanes = static_cast<Int>(hn::Lanes(d));
  const auto neighbours = Shifted<Family>(job.source);
  const V talus = hn::Set(d, job.talus);
  const V intensity = hn::Set(d, job.intensity);
  const V zero = hn::Zero(d);
  const V none = hn::Set(d, -std::numeric_limits<Float>::infinity());
  for (; x + lanes <= end; x += lanes) {
    const V h = hn::LoadU(d, job.source[1] + x);
    V diff[Family::kCount];
    M kept[Family::kCount];
    V sum = zero;
    V dmax = none;
    for (int k = 0; k < Family::kCount; ++k) {
      diff[k] = h - hn::LoadU(d, neighbours.rows[k] + x);
      kept[k] = diff[k] > talus;
      sum = sum + hn::IfThenElseZero(kept[k], diff[k]);
      dmax = hn::IfThenElse(hn::And(kept[k], dmax < diff[k]), diff[k], dmax);
    }
    const V inverse = hn::IfThenElse(sum == zero, zero, hn::Set(d, 1.0) / sum);
    const V factor = hn::IfThenElse(dmax > none, (dmax - talus) * inverse, zero);
    V out = h;
    for (int k = 0; k < Family::kCount; ++k) out = out - hn::IfThenElseZero(kept[k], factor * diff[k] * intensity);
    hn::StoreU(out, d, job.kept + x);
    hn::StoreU(factor, d, job.shareOut + x);
  }
  return x;
}

template <class Family>
Int SpreadIn(const RowJob& job, Int x, Int end) {
  const D d;
  const auto lanes = static_cast<Int>(hn::Lanes(d));
  const auto heights = Shifted<Family>(job.source);
  const auto shares = Shifted<Family>(job.share);
  const V talus = hn::Set(d, job.talus);
  const V deposit = hn::Set(d, job.deposit);
  for (; x + lanes <= end; x += lanes) {
    const V h = hn::LoadU(d, job.source[1] + x);
    V gain = hn::Zero(d);
    for (int k = 0; k < Family::kCount; ++k) {
      const V diff = hn::LoadU(d, heights.rows[k] + x) - h;
      gain = gain + hn::IfThenElseZero(diff > talus, hn::LoadU(d, shares.rows[k] + x) * diff);
    }
    hn::StoreU(hn::LoadU(d, job.kept + x) + gain * deposit, d, job.target + x);
  }
  return x;
}

// Lowest: the first of the lowest neighbours receives the whole difference if it exceeds
// the talus.
template <class Family>
Int SlideOut(const RowJob& job, Int x, Int end) {
  const D d;
  const auto lanes = static_cast<Int>(hn::Lanes(d));
  const auto neighbours = Shifted<Family>(job.source);
  const V talus = hn::Set(d, job.talus);
  const V intensity = hn::Set(d, job.intensity);
  for (; x + lanes <= end; x += lanes) {
    const V h = hn::LoadU(d, job.source[1] + x);
    V low = hn::LoadU(d, neighbours.rows[0] + x);
    V best = hn::Zero(d);
    for (int k = 1; k < Family::kCount; ++k) {
      const V candidate = hn::LoadU(d, neighbours.rows[k] + x);
      const M lower = candidate < low;  // strictly: the first of equal ones stays
      low = hn::IfThenElse(lower, candidate, low);
      best = hn::IfThenElse(lower, hn::Set(d, static_cast<Float>(k)), best);
    }
    const V drop = h - low;
    const M slides = drop > talus;
    const V amount = hn::IfThenElseZero(slides, drop * intensity);
    hn::StoreU(h - amount, d, job.kept + x);
    hn::StoreU(amount, d, job.shareOut + x);
    hn::StoreU(hn::IfThenElse(slides, best, hn::Set(d, kNoSlide)), d, job.codeOut + x);
  }
  return x;
}

template <class Family>
Int SlideIn(const RowJob& job, Int x, Int end) {
  const D d;
  const auto lanes = static_cast<Int>(hn::Lanes(d));
  const auto shares = Shifted<Family>(job.share);
  const auto codes = Shifted<Family>(job.code);
  const V deposit = hn::Set(d, job.deposit);
  for (; x + lanes <= end; x += lanes) {
    V gain = hn::Zero(d);
    for (int k = 0; k < Family::kCount; ++k) {
      const V back = hn::Set(d, static_cast<Float>(kBack<Family>[static_cast<std::size_t>(k)]));
      gain = gain + hn::IfThenElseZero(hn::LoadU(d, codes.rows[k] + x) == back, hn::LoadU(d, shares.rows[k] + x));
    }
    hn::StoreU(hn::LoadU(d, job.kept + x) + gain * deposit, d, job.target + x);
  }
  return x;
}

Int Smooth(const RowJob& job, Int x, Int end) {
  const D d;
  const auto lanes = static_cast<Int>(hn::Lanes(d));
  const Float* row = job.source[1];
  const V fifth = hn::Set(d, 0.2);
  for (; x + lanes <= end; x += lanes) {
    const V sum = hn::LoadU(d, row + x - 1) + hn::LoadU(d, row + x) + hn::LoadU(d, row + x + 1) +
                  hn::LoadU(d, job.source[2] + x) + hn::LoadU(d, job.source[0] + x);
    hn::StoreU(fifth * sum, d, job.target + x);
  }
  return x;
}

Int InnerColumnsImpl(Kernel kernel, const RowJob& job, Int begin, Int end) {
  switch (kernel) {
    case Kernel::kSpreadOutEight:
      return SpreadOut<Eight>(job, begin, end);
    case Kernel::kSpreadInEight:
      return SpreadIn<Eight>(job, begin, end);
    case Kernel::kSpreadOutFour:
      return SpreadOut<Four>(job, begin, end);
    case Kernel::kSpreadInFour:
      return SpreadIn<Four>(job, begin, end);
    case Kernel::kSlideOutEight:
      return SlideOut<Eight>(job, begin, end);
    case Kernel::kSlideInEight:
      return SlideIn<Eight>(job, begin, end);
    case Kernel::kSlideOutFour:
      return SlideOut<Four>(job, begin, end);
    case Kernel::kSlideInFour:
      return SlideIn<Four>(job, begin, end);
    case Kernel::kSmooth:
      return Smooth(job, begin, end);
  }
  return begin;
}

}  // namespace VLGD::Erosion::thermal::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VLGD::Erosion::thermal {

HWY_EXPORT(InnerColumnsImpl);

Int InnerColumns(Kernel kernel, const RowJob& job, Int begin, Int end) {
  return HWY_DYNAMIC_DISPATCH(InnerColumnsImpl)(kernel, job, begin, end);
}

}  // namespace VLGD::Erosion::thermal
#endif
