#pragma once

#include <vector>
#include "platform/registry.h"

#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_QUANTIZEOPERATOR = 1056548;

enum QuantizeOperatorParameter : ParameterId {
  QUANTIZEOPERATOR_STEPS = 10001,  // Int32: height levels, lowest and highest included (8 when missing)
};

// Snaps every height to one of evenly spaced levels between the input's lowest and highest
// point.
class QuantizeOperator final : public BaseTerrainOperatorData {
 public:
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const override;
};

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& QuantizeOperatorType();

// The floor the operator rounds with: std::floor's value for every double (signed zeros,
// NaN and infinities included) under the default rounding mode, but free of a library call.
Float QuantizeFloor(Float x);

}  // namespace VLGD
