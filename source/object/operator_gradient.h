#pragma once

#include "platform/registry.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_GRADIENTOPERATOR = 1054623;

enum GradientOperatorParameter : ParameterId {
  GRADIENTOPERATOR_PROFILE = 10001,  // curve: falloff from the rim (0) to the centre (1)
  GRADIENTOPERATOR_TYPE = 10002,     // GRADIENTTYPE
  GRADIENTOPERATOR_RADIUS = 10003,
  GRADIENTOPERATOR_SIZE = 10004,  // length, width or edge, by type
  GRADIENTOPERATOR_HEIGHT = 10005,
};

enum class GRADIENTTYPE : Int32 {
  RADIAL = 1,
  LINEAR = 2,
  RECTANGULAR = 3,
  SQUARE = 4,
};

// A falloff shape around the operator's position, mapped through a profile curve; like
// the noise it only takes the incoming grid's shape.
class GradientOperator final : public BaseTerrainOperatorData {
 public:
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  [[nodiscard]] bool GetOperatorDEnabling(const Node& op, ParameterId id, const Value& value) const override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const override;
};

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& GradientOperatorType();

}  // namespace VLGD
