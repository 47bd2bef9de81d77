#include "object/operator_erosion.h"

#include "common/vlgd_icons.h"
#include "platform/host.h"
#include "platform/parameter_reader.h"
#include "vellgrund/erosion_droplet.h"
#include "vellgrund/erosion_hydraulic.h"
#include "vellgrund/erosion_lowland.h"
#include "vellgrund/erosion_thermal.h"
#include "vellgrund/filter_loops.h"

namespace VLGD {
namespace {

using platform::ValueType;

// The mode whose group holds a parameter, or -1 for the mode itself and the base
// operator's parameters.
Int32 ModeOf(ParameterId id) {
  if (id >= EROSIONOPERATOR_THERMAL_ITERATIONS && id <= EROSIONOPERATOR_THERMAL_SMOOTH)
    return EROSIONOPERATOR_MODE_THERMAL;
  if (id >= EROSIONOPERATOR_DROPLET_COUNT && id <= EROSIONOPERATOR_DROPLET_P41) return EROSIONOPERATOR_MODE_DROPLET;
  if (id >= EROSIONOPERATOR_FLATTEN_LEVEL_LOW && id <= EROSIONOPERATOR_FLATTEN_SOFTNESS)
    return EROSIONOPERATOR_MODE_LOWLAND;
  if (id == EROSIONOPERATOR_HYDRAULIC_ITERATIONS) return EROSIONOPERATOR_MODE_HYDRAULIC;
  return -1;
}

Erosion::ThermalSettings ReadThermal(const platform::ParameterReader& data) {
  Erosion::ThermalSettings settings;
  // An erosion that lacks its thermal iterations or neighbourhood weathers once over the
  // eight neighbours, as those stored before these parameters existed did.
  settings.iterations = data.Values().GetInt32(EROSIONOPERATOR_THERMAL_ITERATIONS, 1);
  settings.intensity = data.GetFloat(EROSIONOPERATOR_THERMAL_INTENSITY);
  settings.talus = data.GetFloat(EROSIONOPERATOR_THERMAL_TALUS);
  settings.deposit = data.GetFloat(EROSIONOPERATOR_THERMAL_DEPOSIT);
  settings.neighbourhood = data.Values().GetInt32(EROSIONOPERATOR_THERMAL_NEIGHBOURHOOD, 2);
  settings.smooth = data.GetBool(EROSIONOPERATOR_THERMAL_SMOOTH);
  return settings;
}

Erosion::DropletSettings ReadDroplets(const platform::ParameterReader& data) {
  Erosion::DropletSettings settings;
  // The description keeps the seed within 0 .. 2^32 - 1.
  settings.seed = static_cast<UInt32>(data.GetInt64(EROSIONOPERATOR_DROPLET_SEED));
  settings.count = data.GetInt32(EROSIONOPERATOR_DROPLET_COUNT);
  settings.deposition = data.GetFloat(EROSIONOPERATOR_DROPLET_DEPOSITION);
  settings.friction = data.GetFloat(EROSIONOPERATOR_DROPLET_FRICTION);
  return settings;
}

Erosion::LowlandSettings ReadLowland(const platform::ParameterReader& data) {
  Erosion::LowlandSettings settings;
  settings.low = data.GetFloat(EROSIONOPERATOR_FLATTEN_LEVEL_LOW);
  settings.high = data.GetFloat(EROSIONOPERATOR_FLATTEN_LEVEL_HIGH);
  settings.noiseScale = data.GetFloat(EROSIONOPERATOR_FLATTEN_NOISE_SCALE);
  settings.exponent = data.GetFloat(EROSIONOPERATOR_FLATTEN_EXPONENT);
  settings.noiseAmount = data.GetFloat(EROSIONOPERATOR_FLATTEN_NOISE_AMOUNT);
  settings.softness = data.GetFloat(EROSIONOPERATOR_FLATTEN_SOFTNESS);
  return settings;
}

}  // namespace

TERRAINOPERATORFLAGS ErosionOperator::GetFlags(const Node& op) const {
  // Every kind but thermal weathering reads the incoming range.
  if (platform::ParameterReader(op).GetInt32(EROSIONOPERATOR_MODE) == EROSIONOPERATOR_MODE_THERMAL)
    return TERRAINOPERATORFLAGS::TYPE_FILTER;
  return TERRAINOPERATORFLAGS::TYPE_FILTER | TERRAINOPERATORFLAGS::REQUIRES_MINMAX;
}

bool ErosionOperator::GetOperatorDEnabling(const Node& op, ParameterId id, const Value&) const {
  const Int32 mode = ModeOf(id);
  return mode < 0 || platform::ParameterReader(op).GetInt32(EROSIONOPERATOR_MODE) == mode;
}

bool ErosionOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer& data) const {
  if (!AppendRebuildParameters(ids, {EROSIONOPERATOR_MODE})) return false;
  switch (data.GetInt32(EROSIONOPERATOR_MODE, 0)) {
    case EROSIONOPERATOR_MODE_THERMAL:
      return AppendRebuildParameters(ids, {EROSIONOPERATOR_THERMAL_ITERATIONS, EROSIONOPERATOR_THERMAL_INTENSITY,
                                           EROSIONOPERATOR_THERMAL_TALUS, EROSIONOPERATOR_THERMAL_NEIGHBOURHOOD,
                                           EROSIONOPERATOR_THERMAL_DEPOSIT, EROSIONOPERATOR_THERMAL_SMOOTH});
    case EROSIONOPERATOR_MODE_DROPLET:
      // P41 is left out: editing it never rebuilds.
      return AppendRebuildParameters(
          ids, {EROSIONOPERATOR_DROPLET_SEED, EROSIONOPERATOR_DROPLET_COUNT, EROSIONOPERATOR_DROPLET_P32,
                EROSIONOPERATOR_DROPLET_DEPOSITION, EROSIONOPERATOR_DROPLET_P34, EROSIONOPERATOR_DROPLET_FRICTION,
                EROSIONOPERATOR_DROPLET_P36, EROSIONOPERATOR_DROPLET_P37, EROSIONOPERATOR_DROPLET_P38,
                EROSIONOPERATOR_DROPLET_P39});
    case EROSIONOPERATOR_MODE_LOWLAND:
      return AppendRebuildParameters(ids, {EROSIONOPERATOR_FLATTEN_LEVEL_LOW, EROSIONOPERATOR_FLATTEN_LEVEL_HIGH,
                                           EROSIONOPERATOR_FLATTEN_NOISE_SCALE, EROSIONOPERATOR_FLATTEN_NOISE_AMOUNT,
                                           EROSIONOPERATOR_FLATTEN_EXPONENT, EROSIONOPERATOR_FLATTEN_SOFTNESS});
    case EROSIONOPERATOR_MODE_HYDRAULIC:
      return AppendRebuildParameters(ids, {EROSIONOPERATOR_HYDRAULIC_ITERATIONS});
    default:
      return true;
  }
}

Status ErosionOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext& context) {
  const platform::ParameterReader data(op);
  const Int32 mode = data.GetInt32(EROSIONOPERATOR_MODE);
  result_.Reset();
  VLGD_RETURN_IF_ERROR(result_.CopyFrom(incoming));
  if (mode != EROSIONOPERATOR_MODE_THERMAL) thermal_.Release();
  if (mode != EROSIONOPERATOR_MODE_HYDRAULIC) hydraulic_.Release();
  switch (mode) {
    case EROSIONOPERATOR_MODE_THERMAL:
      return Erosion::ThermalWeathering(result_, ReadThermal(data), context, op.GetHost().GetStrings(), thermal_);
    case EROSIONOPERATOR_MODE_DROPLET:
      // The droplet count it returns is for benches; a break is told by the flag.
      (void)Erosion::SimulateDroplets(result_, ReadDroplets(data), context.thread, context.progress);
      if (platform::TestBreak(context.thread)) return platform::CancelledError("Droplet Erosion cancelled!");
      return platform::Ok();
    case EROSIONOPERATOR_MODE_LOWLAND:
      return Erosion::FlattenLowlands(result_, ReadLowland(data));
    case EROSIONOPERATOR_MODE_HYDRAULIC:
      return Erosion::HydraulicErosion(result_, data.GetInt32(EROSIONOPERATOR_HYDRAULIC_ITERATIONS), context,
                                       hydraulic_);
    default:
      return platform::Ok();
  }
}

namespace {

platform::Description ErosionOperatorDescription() {
  using platform::DescribeParameter;
  // A share of something, 0 .. 1.
  const auto share = [](ParameterId id, const char* symbol, Float value) {
    return DescribeParameter(id, symbol, ValueType::FLOAT, value).Limits(0.0, 1.0);
  };
  const auto count = [](ParameterId id, const char* symbol, Int32 value, Float low, Float high, const char* unit) {
    return DescribeParameter(id, symbol, ValueType::INT32, value).Limits(low, high, unit);
  };
  // Droplet settings that nothing reads yet; files keep them.
  const auto kept = [](ParameterId id, const char* symbol, Float value) {
    return DescribeParameter(id, symbol, ValueType::FLOAT, value).Limits(0.0, 1000.0).KeptForFiles();
  };
  return {
      "oerosionoperator",
      {"Obaseterrainoperator"},
      {
          DescribeParameter(EROSIONOPERATOR_MODE, "EROSIONOPERATOR_MODE", ValueType::INT32,
                            Int32{EROSIONOPERATOR_MODE_THERMAL})
              .Choice("EROSIONMODE", EROSIONOPERATOR_MODE_THERMAL, EROSIONOPERATOR_MODE_HYDRAULIC),
          // 0 passes is refused by the weathering.
          count(EROSIONOPERATOR_THERMAL_ITERATIONS, "EROSIONOPERATOR_THERMAL_ITERATIONS", 5, 1.0, 10000.0,
                "iterations"),
          share(EROSIONOPERATOR_THERMAL_INTENSITY, "EROSIONOPERATOR_THERMAL_INTENSITY", 0.8),
          DescribeParameter(EROSIONOPERATOR_THERMAL_TALUS, "EROSIONOPERATOR_THERMAL_TALUS", ValueType::FLOAT, 0.1)
              .Limits(0.0, kMaxWorldDistance, "units"),
          // 1 .. 4: lowest of eight, lowest of four, all lower of eight, all lower of four.
          count(EROSIONOPERATOR_THERMAL_NEIGHBOURHOOD, "EROSIONOPERATOR_THERMAL_NEIGHBOURHOOD", 3, 1.0, 4.0, ""),
          share(EROSIONOPERATOR_THERMAL_DEPOSIT, "EROSIONOPERATOR_THERMAL_DEPOSIT", 0.2),
          DescribeParameter(EROSIONOPERATOR_THERMAL_SMOOTH, "EROSIONOPERATOR_THERMAL_SMOOTH", ValueType::BOOL, true),
          DescribeParameter(EROSIONOPERATOR_DROPLET_SEED, "EROSIONOPERATOR_DROPLET_SEED", ValueType::INT64, Int{1234})
              .Limits(0.0, 4294967295.0),
          // Droplets run one after the other on one thread: ten million take minutes.
          count(EROSIONOPERATOR_DROPLET_COUNT, "EROSIONOPERATOR_DROPLET_COUNT", 5000, 0.0, 10'000'000.0, "droplets"),
          kept(EROSIONOPERATOR_DROPLET_P32, "EROSIONOPERATOR_DROPLET_P32", 0.04),
          share(EROSIONOPERATOR_DROPLET_DEPOSITION, "EROSIONOPERATOR_DROPLET_DEPOSITION", 0.03),
          kept(EROSIONOPERATOR_DROPLET_P34, "EROSIONOPERATOR_DROPLET_P34", 0.15),
          share(EROSIONOPERATOR_DROPLET_FRICTION, "EROSIONOPERATOR_DROPLET_FRICTION", 0.7),
          kept(EROSIONOPERATOR_DROPLET_P36, "EROSIONOPERATOR_DROPLET_P36", 0.8),
          kept(EROSIONOPERATOR_DROPLET_P37, "EROSIONOPERATOR_DROPLET_P37", 0.1),
          count(EROSIONOPERATOR_DROPLET_P38, "EROSIONOPERATOR_DROPLET_P38", 80, 0.0, 100000.0, "").KeptForFiles(),
          kept(EROSIONOPERATOR_DROPLET_P39, "EROSIONOPERATOR_DROPLET_P39", 0.04),
          DescribeParameter(EROSIONOPERATOR_DROPLET_P41, "EROSIONOPERATOR_DROPLET_P41", ValueType::BOOL, false)
              .KeptForFiles(),
          // Levels in the unit range of the incoming heights.
          share(EROSIONOPERATOR_FLATTEN_LEVEL_LOW, "EROSIONOPERATOR_FLATTEN_LEVEL_LOW", 0.25),
          share(EROSIONOPERATOR_FLATTEN_LEVEL_HIGH, "EROSIONOPERATOR_FLATTEN_LEVEL_HIGH", 0.5),
          DescribeParameter(EROSIONOPERATOR_FLATTEN_NOISE_SCALE, "EROSIONOPERATOR_FLATTEN_NOISE_SCALE",
                            ValueType::FLOAT, 2.0)
              .Limits(0.0, 10000.0),
          DescribeParameter(EROSIONOPERATOR_FLATTEN_EXPONENT, "EROSIONOPERATOR_FLATTEN_EXPONENT", ValueType::FLOAT, 3.0)
              .Limits(0.0, 100.0),
          share(EROSIONOPERATOR_FLATTEN_NOISE_AMOUNT, "EROSIONOPERATOR_FLATTEN_NOISE_AMOUNT", 0.4),
          share(EROSIONOPERATOR_FLATTEN_SOFTNESS, "EROSIONOPERATOR_FLATTEN_SOFTNESS", 0.0),
          count(EROSIONOPERATOR_HYDRAULIC_ITERATIONS, "EROSIONOPERATOR_HYDRAULIC_ITERATIONS", 20, 0.0, 10000.0,
                "iterations"),
      },
      {{"EROSIONMODE",
        {{"THERMAL_WEATHERING", EROSIONOPERATOR_MODE_THERMAL},
         {"DROPLET", EROSIONOPERATOR_MODE_DROPLET},
         {"LOWLAND_FLATTENING", EROSIONOPERATOR_MODE_LOWLAND},
         {"HYDRAULIC", EROSIONOPERATOR_MODE_HYDRAULIC}}}}};
}

}  // namespace

const platform::TypeDescriptor& ErosionOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_EROSIONOPERATOR,
                                             .resourceName = "oerosionoperator",
                                             .sort = 38,
                                             .icon = MainSheetIcon(64, 64),
                                             .nameStringId = 10012,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<ErosionOperator>(),
                                             .describe = ErosionOperatorDescription};
  return type;
}

}  // namespace VLGD
