#include "object/operator_blur.h"

namespace VLGD {

TERRAINOPERATORFLAGS BlurOperator::GetFlags(const Node&) const { return TERRAINOPERATORFLAGS::TYPE_FILTER; }

Status BlurOperator::Compute(const Grid2D<Float>& incoming, Node&, Document&, const EvaluationContext&) {
  return result_.CopyFrom(incoming);
}

platform::Description BlurOperatorDescription() { return {"obluroperator", {"Obaseterrainoperator"}, {}}; }

}  // namespace VLGD
