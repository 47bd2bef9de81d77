#include "object/operator_fold.h"

namespace VLGD {

TERRAINOPERATORFLAGS FoldOperator::GetFlags(const Node&) const { return TERRAINOPERATORFLAGS::TYPE_FILTER; }

Status FoldOperator::Compute(const Grid2D<Float>& incoming, Node&, Document&, const EvaluationContext&) {
  return result_.CopyFrom(incoming);
}

platform::Description FoldOperatorDescription() { return {"ofoldoperator", {"Obaseterrainoperator"}, {}}; }

}  // namespace VLGD
