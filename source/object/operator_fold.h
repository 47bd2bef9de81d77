#pragma once

#include <vector>
#include "platform/registry.h"

#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_FOLDOPERATOR = 1055664;

enum FoldOperatorParameter : ParameterId {
  FOLDOPERATOR_MODE = 10001,           // Int32 FOLDMODE
  FOLDOPERATOR_LEVEL = 10002,          // Float: the fold level
  FOLDOPERATOR_NOISESTRENGTH = 10004,  // Float: amplitude of the level noise; off unless > 0
  FOLDOPERATOR_NOISESCALE = 10005,     // Float: the noise is sampled at 1 / (scale x 100)
  FOLDOPERATOR_NOISEOFFSET = 10006,    // Float: moves through the noise along its y axis
};

enum class FOLDMODE : Int32 {
  DOWN = 0,  // reflect what lies above the level
  UP = 1,    // reflect what lies below the level
};

// Reflects the heights beyond a level back across it; the level may be disturbed by the
// host's scalar noise.
class FoldOperator final : public BaseTerrainOperatorData {
 public:
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const override;
};

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& FoldOperatorType();

}  // namespace VLGD
