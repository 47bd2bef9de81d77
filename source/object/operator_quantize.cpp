#include "object/operator_quantize.h"

#include <cmath>

#include "common/vlgd_icons.h"
#include "platform/parallel.h"
#include "platform/parameter_reader.h"
#include "vellgrund/filter_loops.h"

namespace VLGD {
namespace {

using platform::ValueType;

// Twice the threshold of the other point-wise filters, deliberately.
constexpr Int kSingleThreadBelow = 2 * platform::kSingleThreadBelowSamples - 1;

// std::floor, written so that the sample loop vectorises on every x86-64 (std::floor is a
// library call without SSE4.1). Below 2^52, adding and subtracting 2^52 rounds |x| to an
// integer, exactly under the default rounding mode; from 2^52 on every double is an
// integer already and nothing is added (NaN fails the comparison the same way and stays
// NaN). A rounding that went up is taken back by one. The floor of a double always has the
// double's sign (floor(-0) is -0), which the last copysign restores where adding 0 made a
// zero positive. Only constants are selected and every operation runs on every path, so
// the compiler needs no branch (a conditional x - 1 could trap and would keep the loop
// scalar).
inline Float Floor(Float x) {
  constexpr Float kTwoTo52 = 4503599627370496.0;
  const Float magnitude = std::fabs(x);
  const Float magic = magnitude < kTwoTo52 ? kTwoTo52 : 0.0;
  const Float rounded = std::copysign((magnitude + magic) - magic, x);
  return std::copysign(rounded + (rounded > x ? -1.0 : 0.0), x);
}

}  // namespace

Float QuantizeFloor(Float x) {
  return Floor(x);
}

TERRAINOPERATORFLAGS QuantizeOperator::GetFlags(const Node&) const {
  return TERRAINOPERATORFLAGS::TYPE_FILTER | TERRAINOPERATORFLAGS::REQUIRES_MINMAX;
}

bool QuantizeOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const {
  return AppendRebuildParameters(ids, {QUANTIZEOPERATOR_STEPS});
}

Status QuantizeOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext&) {
  // Steps of 1 or less are taken as they stand: 1 gives n = 0 and every sample becomes
  // min, 0 and below give a negative n.
  const Float n = static_cast<Float>(platform::ParameterReader(op).GetInt32(QUANTIZEOPERATOR_STEPS)) - 1.0;
  const Float inverseN = n != 0.0 ? 1.0 / n : 0.0;
  const bool valid = incoming.IsMinMaxValid();
  const Float minimum = valid ? incoming.Minimum() : 0.0;
  const Float maximum = valid ? incoming.Maximum() : 0.0;
  const Float range = maximum - minimum;
  const Float inverseRange = range != 0.0 ? 1.0 / range : 0.0;
  VLGD_RETURN_IF_ERROR(result_.ReshapeLike(incoming));

  const Float* in = incoming.Data();
  Float* out = result_.Data();
  const platform::ParallelOptions options{.granularity = 16, .singleThreadBelow = kSingleThreadBelow};
  return platform::ParallelForRange(0, result_.Count(), options, [=](Int begin, Int end) {
    const Float* __restrict source = in;
    Float* __restrict target = out;
    for (Int i = begin; i < end; ++i)
      target[i] = Floor((source[i] - minimum) * inverseRange * n + 0.5) * inverseN * range + minimum;
  });
}

namespace {

platform::Description QuantizeOperatorDescription() {
  using platform::DescribeParameter;
  return {"oquantizeoperator",
          {"Obaseterrainoperator"},
          {DescribeParameter(QUANTIZEOPERATOR_STEPS, "QUANTIZEOPERATOR_STEPS", ValueType::INT32, Int32{8})
               .Limits(1.0, 65536.0)}};
}

}  // namespace

const platform::TypeDescriptor& QuantizeOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_QUANTIZEOPERATOR,
                                             .resourceName = "oquantizeoperator",
                                             .sort = 38,
                                             .icon = MainSheetIcon(0, 128),
                                             .nameStringId = 10014,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<QuantizeOperator>(),
                                             .describe = QuantizeOperatorDescription};
  return type;
}

}  // namespace VLGD
