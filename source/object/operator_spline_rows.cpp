// Compiled once per SIMD target; the functions at the end pick the machine's best.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "object/operator_spline_rows.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include <cstdint>

#include "object/operator_spline_rows.h"

#ifndef VLGD_SPLINE_ROWS_ONCE
#define VLGD_SPLINE_ROWS_ONCE
namespace VLGD::spline_rows::detail {

// The sample rule of WriteSpan for one sample; vectors apply the same compares and selects.
inline void WriteSample(const Shape& shape, Float distance, Float curveHeight, Float shaped, Float& value,
                        Float& weight) {
  const bool reached = distance < shape.reach || distance <= shape.halfWidth;
  const Float w = distance > shape.halfWidth ? shaped : 1.0;
  value = reached ? (shape.flatten ? curveHeight : shape.level) : 0.0;
  weight = reached ? (w > 0.0 ? (w < 1.0 ? w : 1.0) : 0.0) : 0.0;
}

}  // namespace VLGD::spline_rows::detail
#endif

HWY_BEFORE_NAMESPACE();
namespace VLGD::spline_rows::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

void WriteSpanImpl(const Shape& shape, const Float* distance, const Float* curveHeight, const Float* shaped, Int count,
                   Float* value, Float* weight) {
  const hn::ScalableTag<Float> d;
  const auto lanes = static_cast<Int>(hn::Lanes(d));
  const auto zero = hn::Zero(d), one = hn::Set(d, 1.0);
  const auto reach = hn::Set(d, shape.reach), halfWidth = hn::Set(d, shape.halfWidth);
  const auto level = hn::Set(d, shape.level);
  Int i = 0;
  for (; i + lanes <= count; i += lanes) {
    const auto at = hn::LoadU(d, distance + i);
    const auto reached = hn::Or(hn::Lt(at, reach), hn::Le(at, halfWidth));
    auto w = hn::IfThenElse(hn::Gt(at, halfWidth), hn::LoadU(d, shaped + i), one);
    w = hn::IfThenElse(hn::Gt(w, zero), hn::IfThenElse(hn::Lt(w, one), w, one), zero);
    const auto height = shape.flatten ? hn::LoadU(d, curveHeight + i) : level;
    hn::StoreU(hn::IfThenElseZero(reached, height), d, value + i);
    hn::StoreU(hn::IfThenElseZero(reached, w), d, weight + i);
  }
  // The rest one at a time: a whole vector would write into the next row, another worker's.
  for (; i < count; ++i) detail::WriteSample(shape, distance[i], curveHeight[i], shaped[i], value[i], weight[i]);
}

void StreamZerosImpl(Float* begin, Float* end) {
  const hn::ScalableTag<Float> d;
  const auto lanes = static_cast<std::uintptr_t>(hn::Lanes(d));
  const std::uintptr_t alignment = lanes * sizeof(Float);
  while (begin < end && reinterpret_cast<std::uintptr_t>(begin) % alignment != 0) *begin++ = 0.0;
  const auto zero = hn::Zero(d);
  for (; end - begin >= static_cast<std::ptrdiff_t>(lanes); begin += lanes) hn::Stream(zero, d, begin);
  while (begin < end) *begin++ = 0.0;
}

}  // namespace VLGD::spline_rows::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VLGD::spline_rows {

HWY_EXPORT(WriteSpanImpl);
HWY_EXPORT(StreamZerosImpl);

void WriteSpan(const Shape& shape, const Float* distance, const Float* curveHeight, const Float* shaped, Int count,
               Float* value, Float* weight) {
  HWY_DYNAMIC_DISPATCH(WriteSpanImpl)(shape, distance, curveHeight, shaped, count, value, weight);
}

void StreamZeros(Float* begin, Float* end) {
  HWY_DYNAMIC_DISPATCH(StreamZerosImpl)(begin, end);
}

void EndStreaming() {
  hwy::FlushStream();
}

}  // namespace VLGD::spline_rows
#endif
