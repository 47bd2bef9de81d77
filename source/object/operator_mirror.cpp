#include "object/operator_mirror.h"

namespace VLGD {

TERRAINOPERATORFLAGS MirrorOperator::GetFlags(const Node&) const { return TERRAINOPERATORFLAGS::TYPE_FILTER; }

Status MirrorOperator::Compute(const Grid2D<Float>& incoming, Node&, Document&, const EvaluationContext&) {
  return result_.CopyFrom(incoming);
}

platform::Description MirrorOperatorDescription() { return {"omirroroperator", {"Obaseterrainoperator"}, {}}; }

}  // namespace VLGD
