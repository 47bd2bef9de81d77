#include "object/operator_adjustment.h"

#include "common/vlgd_icons.h"
#include "platform/parallel.h"
#include "platform/parameter_reader.h"
#include "vellgrund/filter_loops.h"

namespace VLGD {
namespace {

using platform::ValueType;

}  // namespace

bool AdjustmentOperator::Read(Node& node, Int32 diskLevel) {
  const bool base = BaseTerrainOperatorData::Read(node, diskLevel);
  if (diskLevel == 0 && !node.GetDataInstance().Set(ADJUSTMENTOPERATOR_RELATIVE, true)) return false;
  return base;
}

TERRAINOPERATORFLAGS AdjustmentOperator::GetFlags(const Node& op) const {
  if (platform::ParameterReader(op).GetBool(ADJUSTMENTOPERATOR_RELATIVE))
    return TERRAINOPERATORFLAGS::TYPE_FILTER | TERRAINOPERATORFLAGS::REQUIRES_MINMAX;
  return TERRAINOPERATORFLAGS::TYPE_FILTER;
}

bool AdjustmentOperator::GetOperatorDescriptionVisibility(const Node& op, ParameterId id) const {
  switch (id) {
    case ADJUSTMENTOPERATOR_OFFSET_RELATIVE:
      return platform::ParameterReader(op).GetBool(ADJUSTMENTOPERATOR_RELATIVE);
    case ADJUSTMENTOPERATOR_OFFSET:
      return !platform::ParameterReader(op).GetBool(ADJUSTMENTOPERATOR_RELATIVE);
    default:
      return true;
  }
}

bool AdjustmentOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const {
  const bool relative = data.GetBool(ADJUSTMENTOPERATOR_RELATIVE);
  return AppendRebuildParameters(ids, {ADJUSTMENTOPERATOR_RELATIVE, ADJUSTMENTOPERATOR_SCALE,
                                       relative ? ADJUSTMENTOPERATOR_OFFSET_RELATIVE : ADJUSTMENTOPERATOR_OFFSET});
}

Status AdjustmentOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext&) {
  const platform::ParameterReader data(op);
  const bool relative = data.GetBool(ADJUSTMENTOPERATOR_RELATIVE);
  const Float scale = data.GetFloat(ADJUSTMENTOPERATOR_SCALE);
  const Float offset =
      relative ? data.GetFloat(ADJUSTMENTOPERATOR_OFFSET_RELATIVE) : data.GetFloat(ADJUSTMENTOPERATOR_OFFSET);
  Float factor = 1.0;
  if (relative) factor = incoming.IsMinMaxValid() ? incoming.Maximum() - incoming.Minimum() : 0.0;
  VLGD_RETURN_IF_ERROR(result_.ReshapeLike(incoming));

  // out = in x scale + factor x offset; the product of the two constants is the same for
  // every sample.
  const Float shift = factor * offset;
  const Float* in = incoming.Data();
  Float* out = result_.Data();
  const platform::ParallelOptions options{.granularity = 16, .singleThreadBelow = kPointFilterSingleThreadBelow};
  return platform::ParallelForRange(0, result_.Count(), options, [=](Int begin, Int end) {
    const Float* __restrict source = in;
    Float* __restrict target = out;
    for (Int i = begin; i < end; ++i) target[i] = source[i] * scale + shift;
  });
}

namespace {

platform::Description AdjustmentOperatorDescription() {
  using platform::DescribeParameter;
  return {"oadjustmentoperator",
          {"Obaseterrainoperator"},
          {
              DescribeParameter(ADJUSTMENTOPERATOR_SCALE, "ADJUSTMENTOPERATOR_SCALE", ValueType::FLOAT, 1.0)
                  .Limits(-1000.0, 1000.0),
              // In multiples of the incoming height range.
              DescribeParameter(ADJUSTMENTOPERATOR_OFFSET_RELATIVE, "ADJUSTMENTOPERATOR_OFFSET_RELATIVE",
                                ValueType::FLOAT, 0.0)
                  .Limits(-1000.0, 1000.0),
              DescribeParameter(ADJUSTMENTOPERATOR_OFFSET, "ADJUSTMENTOPERATOR_OFFSET", ValueType::FLOAT, 0.0)
                  .Limits(-kMaxWorldDistance, kMaxWorldDistance, "units"),
              DescribeParameter(ADJUSTMENTOPERATOR_RELATIVE, "ADJUSTMENTOPERATOR_RELATIVE", ValueType::BOOL, false),
          }};
}

}  // namespace

const platform::TypeDescriptor& AdjustmentOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_ADJUSTMENTOPERATOR,
                                             .resourceName = "oadjustmentoperator",
                                             .sort = 31,
                                             .icon = MainSheetIcon(384, 0),
                                             .nameStringId = 10002,
                                             .diskLevel = 1,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<AdjustmentOperator>(),
                                             .describe = AdjustmentOperatorDescription};
  return type;
}

}  // namespace VLGD
