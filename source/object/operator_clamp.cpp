#include "object/operator_clamp.h"

#include <algorithm>
#include <string>

#include "common/vlgd_icons.h"
#include "platform/parallel.h"
#include "platform/parameter_reader.h"
#include "vellgrund/filter_loops.h"

namespace VLGD {
namespace {

using platform::ValueType;

}  // namespace

TERRAINOPERATORFLAGS ClampOperator::GetFlags(const Node&) const {
  return TERRAINOPERATORFLAGS::TYPE_FILTER | TERRAINOPERATORFLAGS::REQUIRES_MINMAX;
}

bool ClampOperator::OperatorMessage(Node& op, Int32 type, MessageData& message) {
  if (type != platform::MSG_DESCRIPTION_CHECKUPDATE) return false;
  ParameterContainer& data = op.GetDataInstance();
  const Float low = data.GetFloat(CLAMPOPERATOR_MIN, 0.0);
  const Float high = data.GetFloat(CLAMPOPERATOR_MAX, 100.0);
  // Replacing a number the container holds allocates nothing and cannot fail.
  if (low > high) {
    if (message.parameter == CLAMPOPERATOR_MIN)
      (void)data.Set(CLAMPOPERATOR_MIN, high);
    else if (message.parameter == CLAMPOPERATOR_MAX)
      (void)data.Set(CLAMPOPERATOR_MAX, low);
  }
  return true;
}

bool ClampOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const {
  return AppendRebuildParameters(ids, {CLAMPOPERATOR_MIN, CLAMPOPERATOR_MAX, CLAMPOPERATOR_HARDCLAMP});
}

Status ClampOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext& context) {
  const platform::ParameterReader data(op);
  const Float low = data.GetFloat(CLAMPOPERATOR_MIN);
  // A clamp that lacks its upper bound keeps 0 .. 100, the band such clamps always had;
  // new clamps hold the default 50.
  const Float high = data.Values().GetFloat(CLAMPOPERATOR_MAX, 100.0);
  const bool hard = data.GetBool(CLAMPOPERATOR_HARDCLAMP);
  const platform::CancellationToken* thread = context.thread;
  VLGD_RETURN_IF_ERROR(result_.ReshapeLike(incoming));

  const Float* in = incoming.Data();
  Float* out = result_.Data();
  const Int count = result_.Count();
  const platform::ParallelOptions options{.granularity = 16, .singleThreadBelow = kPointFilterSingleThreadBelow};

  if (hard) {
    // A NaN fails lo <= v and becomes lo (or hi, where lo > hi).
    return platform::ParallelForRange(0, count, options, [=](Int begin, Int end) -> Status {
      return InMaskedBlocks(begin, end, thread, "Clamp operator cancelled!", [=](Int b, Int e) {
        const Float* __restrict source = in;
        Float* __restrict target = out;
        for (Int i = b; i < e; ++i) {
          const Float v = source[i];
          const Float a = low <= v ? v : low;
          target[i] = a <= high ? a : high;
        }
      });
    });
  }

  // Fitting: the input's lowest point lands on lo, its highest on hi. No break test.
  const bool valid = incoming.IsMinMaxValid();
  const Float minimum = valid ? incoming.Minimum() : RangeLowest<Float>();
  const Float maximum = valid ? incoming.Maximum() : -RangeLowest<Float>();
  const Float range = maximum - minimum;
  const Float span = high - low;
  if (range == 0.0) {
    const Float flat = low + span * 0.0;  // t = 0 for every sample
    return platform::ParallelForRange(0, count, options,
                                      [=](Int begin, Int end) { std::fill(out + begin, out + end, flat); });
  }
  return platform::ParallelForRange(0, count, options, [=](Int begin, Int end) {
    const Float* __restrict source = in;
    Float* __restrict target = out;
    for (Int i = begin; i < end; ++i) target[i] = low + span * ((source[i] - minimum) / range);
  });
}

namespace {

platform::Description ClampOperatorDescription() {
  using platform::DescribeParameter;
  return {"oclampoperator",
          {"Obaseterrainoperator"},
          {
              DescribeParameter(CLAMPOPERATOR_MIN, "CLAMPOPERATOR_MIN", ValueType::FLOAT, 0.0)
                  .Limits(-kMaxWorldDistance, kMaxWorldDistance, "units"),
              DescribeParameter(CLAMPOPERATOR_MAX, "CLAMPOPERATOR_MAX", ValueType::FLOAT, 50.0)
                  .Limits(-kMaxWorldDistance, kMaxWorldDistance, "units"),
              DescribeParameter(CLAMPOPERATOR_HARDCLAMP, "CLAMPOPERATOR_HARDCLAMP", ValueType::BOOL, false),
          }};
}

}  // namespace

const platform::TypeDescriptor& ClampOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_CLAMPOPERATOR,
                                             .resourceName = "oclampoperator",
                                             .sort = 33,
                                             .icon = MainSheetIcon(512, 0),
                                             .nameStringId = 10005,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<ClampOperator>(),
                                             .describe = ClampOperatorDescription};
  return type;
}

}  // namespace VLGD
