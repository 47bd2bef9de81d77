#include "object/operator_adjustment.h"

#include <new>

#include "platform/parallel.h"

namespace VLGD {
namespace {

using platform::ValueType;

constexpr Int kSingleThreadBelow = 10001;

// Gives the result the incoming grid's shape and an invalid range. A result that has the
// shape already keeps its storage as it is, as the host's array resize does: the compute
// writes every sample, so zeroing it first would only cost a pass over memory.
Status ShapeResultLike(Grid2D<Float>& result, const Grid2D<Float>& incoming) {
  if (result.Width() == incoming.Width() && result.Height() == incoming.Height() &&
      result.Count() == incoming.Count() && result.SizeX() == incoming.SizeX() && result.SizeY() == incoming.SizeY()) {
    result.ResetRange();
    return platform::Ok();
  }
  result.Reset();  // frees the old samples before the new ones are allocated
  return result.InitFrom(incoming);
}

}  // namespace

bool AdjustmentOperator::Read(Node& node, Int32 diskLevel) {
  const bool base = BaseTerrainOperatorData::Read(node, diskLevel);
  if (diskLevel == 0) (void)node.GetDataInstance().Set(ADJUSTMENTOPERATOR_RELATIVE, true);
  return base;
}

TERRAINOPERATORFLAGS AdjustmentOperator::GetFlags(const Node& op) const {
  if (op.GetData().GetBool(ADJUSTMENTOPERATOR_RELATIVE))
    return TERRAINOPERATORFLAGS::TYPE_FILTER | TERRAINOPERATORFLAGS::REQUIRES_MINMAX;
  return TERRAINOPERATORFLAGS::TYPE_FILTER;
}

bool AdjustmentOperator::InitOperatorDefaults(ParameterContainer& data) {
  return data.Set(ADJUSTMENTOPERATOR_SCALE, 1.0) && data.Set(ADJUSTMENTOPERATOR_OFFSET_RELATIVE, 0.0) &&
         data.Set(ADJUSTMENTOPERATOR_OFFSET, 0.0) && data.Set(ADJUSTMENTOPERATOR_RELATIVE, false);
}

bool AdjustmentOperator::GetOperatorDescriptionVisibility(const Node& op, ParameterId id) const {
  switch (id) {
    case ADJUSTMENTOPERATOR_OFFSET_RELATIVE:
      return op.GetData().GetBool(ADJUSTMENTOPERATOR_RELATIVE);
    case ADJUSTMENTOPERATOR_OFFSET:
      return !op.GetData().GetBool(ADJUSTMENTOPERATOR_RELATIVE);
    default:
      return true;
  }
}

bool AdjustmentOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const {
  const bool relative = data.GetBool(ADJUSTMENTOPERATOR_RELATIVE);
  try {
    ids.insert(ids.end(), {ADJUSTMENTOPERATOR_RELATIVE, ADJUSTMENTOPERATOR_SCALE,
                           relative ? ADJUSTMENTOPERATOR_OFFSET_RELATIVE : ADJUSTMENTOPERATOR_OFFSET});
  } catch (const std::bad_alloc&) {
    // No list: every parameter change rebuilds, which is never wrong.
    ids.clear();
    return false;
  }
  return true;
}

Status AdjustmentOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext&) {
  const ParameterContainer& data = op.GetData();
  const bool relative = data.GetBool(ADJUSTMENTOPERATOR_RELATIVE);
  const Float scale = data.GetFloat(ADJUSTMENTOPERATOR_SCALE, 1.0);
  const Float offset =
      relative ? data.GetFloat(ADJUSTMENTOPERATOR_OFFSET_RELATIVE, 0.0) : data.GetFloat(ADJUSTMENTOPERATOR_OFFSET, 0.0);
  Float factor = 1.0;
  if (relative) factor = incoming.IsMinMaxValid() ? incoming.Maximum() - incoming.Minimum() : 0.0;
  VLGD_RETURN_IF_ERROR(ShapeResultLike(result_, incoming));

  // out = in x scale + factor x offset; the product of the two constants is the same for
  // every sample.
  const Float shift = factor * offset;
  const Float* in = incoming.Data();
  Float* out = result_.Data();
  const platform::ParallelOptions options{.granularity = 16, .singleThreadBelow = kSingleThreadBelow};
  return platform::ParallelForRange(0, result_.Count(), options, [=](Int begin, Int end) {
    const Float* __restrict source = in;
    Float* __restrict target = out;
    for (Int i = begin; i < end; ++i) target[i] = source[i] * scale + shift;
  });
}

platform::Description AdjustmentOperatorDescription() {
  using platform::DescribeParameter;
  return {"oadjustmentoperator",
          {"Obaseterrainoperator"},
          {
              DescribeParameter(ADJUSTMENTOPERATOR_SCALE, "ADJUSTMENTOPERATOR_SCALE", ValueType::FLOAT, 1.0),
              DescribeParameter(ADJUSTMENTOPERATOR_OFFSET_RELATIVE, "ADJUSTMENTOPERATOR_OFFSET_RELATIVE",
                                ValueType::FLOAT, 0.0),
              DescribeParameter(ADJUSTMENTOPERATOR_OFFSET, "ADJUSTMENTOPERATOR_OFFSET", ValueType::FLOAT, 0.0),
              DescribeParameter(ADJUSTMENTOPERATOR_RELATIVE, "ADJUSTMENTOPERATOR_RELATIVE", ValueType::BOOL, false),
          }};
}

}  // namespace VLGD
