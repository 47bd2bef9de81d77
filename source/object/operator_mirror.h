#pragma once

#include <vector>
#include "platform/registry.h"

#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_MIRROROPERATOR = 1054640;

enum MirrorOperatorParameter : ParameterId {
  MIRROROPERATOR_X = 10001,       // Bool: the columns run the other way
  MIRROROPERATOR_HEIGHT = 10002,  // Bool: invert the heights within the input's range
  MIRROROPERATOR_Y = 10003,       // Bool: the rows run the other way
};

// Flips the incoming grid along x, along y, in height, or any combination.
class MirrorOperator final : public BaseTerrainOperatorData {
 public:
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const override;
};

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& MirrorOperatorType();

}  // namespace VLGD
