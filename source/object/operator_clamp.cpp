#include "object/operator_clamp.h"

namespace VLGD {

TERRAINOPERATORFLAGS ClampOperator::GetFlags(const Node&) const { return TERRAINOPERATORFLAGS::TYPE_FILTER; }

Status ClampOperator::Compute(const Grid2D<Float>& incoming, Node&, Document&, const EvaluationContext&) {
  return result_.CopyFrom(incoming);
}

platform::Description ClampOperatorDescription() { return {"oclampoperator", {"Obaseterrainoperator"}, {}}; }

}  // namespace VLGD
