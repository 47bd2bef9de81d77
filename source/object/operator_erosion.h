#pragma once

#include <vector>
#include "platform/registry.h"

#include "vellgrund/baseterrainoperator.h"
#include "vellgrund/erosion_hydraulic.h"
#include "vellgrund/erosion_thermal.h"

namespace VLGD {

inline constexpr platform::Int32 ID_EROSIONOPERATOR = 1054690;

enum ErosionOperatorParameter : ParameterId {
  EROSIONOPERATOR_MODE = 100000,  // Int32, EROSIONMODE
  // Thermal weathering
  EROSIONOPERATOR_THERMAL_ITERATIONS = 100011,     // Int32; 1 when missing
  EROSIONOPERATOR_THERMAL_INTENSITY = 100012,      // Float
  EROSIONOPERATOR_THERMAL_TALUS = 100013,          // Float
  EROSIONOPERATOR_THERMAL_NEIGHBOURHOOD = 100014,  // Int32, 1 .. 4; 2 when missing
  EROSIONOPERATOR_THERMAL_DEPOSIT = 100015,        // Float
  EROSIONOPERATOR_THERMAL_SMOOTH = 100016,         // Bool
  // Droplets. P32, P34, P36 to P39 and P41 are kept for scenes and change nothing in the
  // result; all but P41 still mark the cached result dirty when edited.
  EROSIONOPERATOR_DROPLET_COUNT = 100031,       // Int32
  EROSIONOPERATOR_DROPLET_P32 = 100032,         // Float
  EROSIONOPERATOR_DROPLET_DEPOSITION = 100033,  // Float
  EROSIONOPERATOR_DROPLET_P34 = 100034,         // Float
  EROSIONOPERATOR_DROPLET_FRICTION = 100035,    // Float
  EROSIONOPERATOR_DROPLET_P36 = 100036,         // Float
  EROSIONOPERATOR_DROPLET_P37 = 100037,         // Float
  EROSIONOPERATOR_DROPLET_P38 = 100038,         // Int32
  EROSIONOPERATOR_DROPLET_P39 = 100039,         // Float
  EROSIONOPERATOR_DROPLET_SEED = 100040,        // Int64 holding an unsigned 32-bit seed
  EROSIONOPERATOR_DROPLET_P41 = 100041,         // Bool
  // Lowland flattening
  EROSIONOPERATOR_FLATTEN_LEVEL_LOW = 100051,     // Float
  EROSIONOPERATOR_FLATTEN_LEVEL_HIGH = 100052,    // Float
  EROSIONOPERATOR_FLATTEN_NOISE_SCALE = 100053,   // Float
  EROSIONOPERATOR_FLATTEN_EXPONENT = 100054,      // Float
  EROSIONOPERATOR_FLATTEN_NOISE_AMOUNT = 100055,  // Float
  EROSIONOPERATOR_FLATTEN_SOFTNESS = 100056,      // Float
  // Hydraulic simulation
  EROSIONOPERATOR_HYDRAULIC_ITERATIONS = 100061,  // Int32
};

// The values of EROSIONOPERATOR_MODE (enumeration "EROSIONMODE"); other values leave the
// incoming terrain as it is.
enum ErosionOperatorMode : Int32 {
  EROSIONOPERATOR_MODE_THERMAL = 0,    // material slides down slopes steeper than the talus
  EROSIONOPERATOR_MODE_DROPLET = 1,    // droplets carry material downhill
  EROSIONOPERATOR_MODE_LOWLAND = 2,    // valleys flattened below a noisy level
  EROSIONOPERATOR_MODE_HYDRAULIC = 3,  // water flow over the whole grid
};

// Wears the incoming terrain down with one of four kinds of erosion, on a copy of it.
class ErosionOperator final : public BaseTerrainOperatorData {
 public:
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  // A mode's parameters are editable only while that mode is chosen.
  [[nodiscard]] bool GetOperatorDEnabling(const Node& op, ParameterId id, const Value& value) const override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const override;

 private:
  // The working memory of the chosen mode, kept from one evaluation to the next while the
  // grid keeps its size; a change of mode frees the other's.
  Erosion::ThermalScratch thermal_;
  Erosion::detail::HydraulicSimulation hydraulic_;
};

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& ErosionOperatorType();

}  // namespace VLGD
