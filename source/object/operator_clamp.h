#pragma once

#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

class ClampOperator final : public BaseTerrainOperatorData {
 public:
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
};

platform::Description ClampOperatorDescription();

}  // namespace VLGD
