#pragma once

#include <vector>
#include "platform/registry.h"

#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_CURVEOPERATOR = 1054582;

enum CurveOperatorParameter : ParameterId {
  CURVEOPERATOR_CURVE = 10001,        // curve: normalised input height to normalised output height
  CURVEOPERATOR_PRESET = 10002,       // Int32: a SPLINEDATAPRESET, or 999 once the curve was edited by hand
  CURVEOPERATOR_APPLYPRESET = 10003,  // button: applies the preset to the curve
};

// The preset selector's value after a hand edit of the curve.
constexpr Int32 kCurvePresetCustom = 999;

// Remaps every height through a transfer curve over the input's own height range.
class CurveOperator final : public BaseTerrainOperatorData {
 public:
  // Writes the common defaults, then a new curve holding the GLACIER_2 preset.
  bool Init(Node& node) override;
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  // The apply button builds the selected preset; a hand edit of the curve selects 999.
  bool OperatorMessage(Node& op, Int32 type, MessageData& data) override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const override;
};

// Replaces the knots of the curve stored under `curveId` by those of a SPLINEDATAPRESET
// value (anything else gives LINEAR); fails with "Could not get SplineData!" when the
// parameter holds no curve.
Status ApplyCurvePreset(Node& node, ParameterId curveId, Int32 preset);

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& CurveOperatorType();

}  // namespace VLGD
