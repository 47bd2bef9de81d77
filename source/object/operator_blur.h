#pragma once

#include "platform/registry.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_BLUROPERATOR = 1054618;

enum BlurOperatorParameter : ParameterId {
  BLUROPERATOR_RADIUS = 10001,  // Int32, samples; 5 when the container lacks it
  BLUROPERATOR_TYPE = 10002,    // Int32, BLURTYPE
};

// The values of BLUROPERATOR_TYPE (enumeration "BLURTYPE"); any other value blurs as BOX.
enum BlurOperatorType : Int32 {
  BLUROPERATOR_TYPE_BOX = 0,       // separable box blur of diameter 2 radius + 1
  BLUROPERATOR_TYPE_GAUSS = 1,     // GaussBlur of the radius
  BLUROPERATOR_TYPE_GAUSS3X3 = 2,  // GaussBlur3x3, radius ignored
  BLUROPERATOR_TYPE_GAUSS5X5 = 3,  // GaussBlur5x5, radius ignored
};

// Smooths the incoming heights with a box blur or a Gaussian kernel (edges mirrored).
class BlurOperator final : public BaseTerrainOperatorData {
 public:
  // At disk level 0 (scenes of an earlier format) the old Gaussian value 4 becomes 1 and a
  // box blur's radius, then a diameter, is halved.
  bool Read(Node& node, Int32 diskLevel) override;
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  [[nodiscard]] bool GetOperatorDEnabling(const Node& op, ParameterId id, const Value& value) const override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const override;
};

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& BlurOperatorType();

}  // namespace VLGD
