#pragma once

#include "platform/registry.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_SHARPENOPERATOR = 1056139;

enum SharpenOperatorParameter : ParameterId {
  SHARPENOPERATOR_TYPE = 10001,    // Int32, SHARPENTYPE
  SHARPENOPERATOR_SIZE = 10002,    // Int32: kernel size (separable) or radius (unsharp); 5 when missing
  SHARPENOPERATOR_AMOUNT = 10003,  // Float: softness of the separable kernel
};

// The values of SHARPENOPERATOR_TYPE (enumeration "SHARPENTYPE"); any other value leaves
// the incoming heights as they are.
enum SharpenOperatorType : Int32 {
  SHARPENOPERATOR_TYPE_SEPARABLE = 0,   // OrvelSharpen ramp, vertical then horizontal pass
  SHARPENOPERATOR_TYPE_SHARPEN3X3 = 1,  // PresetKernels::Sharpen3x3
  SHARPENOPERATOR_TYPE_UNSHARP5X5 = 2,  // PresetKernels::UnsharpMask5x5
  SHARPENOPERATOR_TYPE_UNSHARP = 3,     // PresetKernels::UnsharpMask of radius SHARPENOPERATOR_SIZE
};

// Emphasises detail in the incoming heights (kernel edges mirrored, separable edges clamped).
class SharpenOperator final : public BaseTerrainOperatorData {
 public:
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  [[nodiscard]] bool GetOperatorDEnabling(const Node& op, ParameterId id, const Value& value) const override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const override;
};

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& SharpenOperatorType();

}  // namespace VLGD
