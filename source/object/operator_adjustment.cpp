#include "object/operator_adjustment.h"

namespace VLGD {

TERRAINOPERATORFLAGS AdjustmentOperator::GetFlags(const Node&) const { return TERRAINOPERATORFLAGS::TYPE_FILTER; }

Status AdjustmentOperator::Compute(const Grid2D<Float>& incoming, Node&, Document&, const EvaluationContext&) {
  return result_.CopyFrom(incoming);
}

platform::Description AdjustmentOperatorDescription() { return {"oadjustmentoperator", {"Obaseterrainoperator"}, {}}; }

}  // namespace VLGD
