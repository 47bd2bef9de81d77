#pragma once

#include "platform/registry.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_NOISEOPERATOR = 1054566;

enum NoiseOperatorParameter : ParameterId {
  NOISEOPERATOR_OCTAVES = 10001,
  NOISEOPERATOR_ABSOLUTE = 10002,
  NOISEOPERATOR_TYPE = 10003,  // a platform::NoiseType number
  NOISEOPERATOR_SEED = 10004,
  NOISEOPERATOR_SCALE = 10005,
  NOISEOPERATOR_NORMALIZE = 10006,
  NOISEOPERATOR_OFFSET = 10007,
  NOISEOPERATOR_USE_TERRAIN_MATRIX = 10008,
  NOISEOPERATOR_INVERT = 10009,
};

// Heights from the noise library, one value per sample of the incoming grid's shape; the
// incoming heights themselves are not read.
class NoiseOperator final : public BaseTerrainOperatorData {
 public:
  bool Init(Node& node) override;
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  [[nodiscard]] bool GetOperatorDEnabling(const Node& op, ParameterId id, const Value& value) const override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const override;
};

// A seed for a new noise: 1 .. 5000, drawn from a Mersenne Twister seeded with the timer.
Int32 DrawNoiseSeed(UInt64 timerValue);

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& NoiseOperatorType();

}  // namespace VLGD
