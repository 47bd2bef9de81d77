#include "object/operator_quantize.h"

namespace VLGD {

TERRAINOPERATORFLAGS QuantizeOperator::GetFlags(const Node&) const { return TERRAINOPERATORFLAGS::TYPE_FILTER; }

Status QuantizeOperator::Compute(const Grid2D<Float>& incoming, Node&, Document&, const EvaluationContext&) {
  return result_.CopyFrom(incoming);
}

platform::Description QuantizeOperatorDescription() { return {"oquantizeoperator", {"Obaseterrainoperator"}, {}}; }

}  // namespace VLGD
