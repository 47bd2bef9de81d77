#include "object/operator_sharpen.h"

namespace VLGD {

TERRAINOPERATORFLAGS SharpenOperator::GetFlags(const Node&) const { return TERRAINOPERATORFLAGS::TYPE_FILTER; }

Status SharpenOperator::Compute(const Grid2D<Float>& incoming, Node&, Document&, const EvaluationContext&) {
  return result_.CopyFrom(incoming);
}

platform::Description SharpenOperatorDescription() { return {"osharpenoperator", {"Obaseterrainoperator"}, {}}; }

}  // namespace VLGD
