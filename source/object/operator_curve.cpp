#include "object/operator_curve.h"

namespace VLGD {

TERRAINOPERATORFLAGS CurveOperator::GetFlags(const Node&) const { return TERRAINOPERATORFLAGS::TYPE_FILTER; }

Status CurveOperator::Compute(const Grid2D<Float>& incoming, Node&, Document&, const EvaluationContext&) {
  return result_.CopyFrom(incoming);
}

platform::Description CurveOperatorDescription() { return {"ocurveoperator", {"Obaseterrainoperator"}, {}}; }

}  // namespace VLGD
