#pragma once

#include <vector>
#include "platform/registry.h"

#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_ADJUSTMENTOPERATOR = 1054574;

enum AdjustmentOperatorParameter : ParameterId {
  ADJUSTMENTOPERATOR_SCALE = 10001,            // Float: factor applied to every height
  ADJUSTMENTOPERATOR_OFFSET_RELATIVE = 10002,  // Float: offset as a fraction of the input's height range
  ADJUSTMENTOPERATOR_OFFSET = 10003,           // Float: offset in height units
  ADJUSTMENTOPERATOR_RELATIVE = 10004,         // Bool: use the relative offset
};

// Scales every incoming height, then shifts it by an absolute amount or by a fraction of
// the input's height range.
class AdjustmentOperator final : public BaseTerrainOperatorData {
 public:
  // Scenes of disk level 0 were written before the relative switch existed and keep the
  // relative behaviour.
  bool Read(Node& node, Int32 diskLevel) override;
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  [[nodiscard]] bool GetOperatorDescriptionVisibility(const Node& op, ParameterId id) const override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const override;
};

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& AdjustmentOperatorType();

}  // namespace VLGD
