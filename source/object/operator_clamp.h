#pragma once

#include <vector>
#include "platform/registry.h"

#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_CLAMPOPERATOR = 1054609;

enum ClampOperatorParameter : ParameterId {
  CLAMPOPERATOR_MIN = 10001,        // Float: lower bound of the band
  CLAMPOPERATOR_MAX = 10002,        // Float: upper bound of the band (100 when missing)
  CLAMPOPERATOR_HARDCLAMP = 10003,  // Bool: cut at the bounds instead of fitting the range in
};

// Confines the incoming heights to a band: fits the input's range into it, or clamps.
class ClampOperator final : public BaseTerrainOperatorData {
 public:
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  // Holds the bound the user moves back at the other one, so that min <= max.
  bool OperatorMessage(Node& op, Int32 type, MessageData& data) override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const override;
};

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& ClampOperatorType();

}  // namespace VLGD
