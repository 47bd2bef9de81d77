#include "object/operator_noise.h"

#include <algorithm>
#include <limits>
#include <random>
#include <span>

#include "common/vlgd_icons.h"
#include "platform/host.h"
#include "platform/noise.h"
#include "platform/parallel.h"
#include "platform/parameter_reader.h"
#include "vellgrund/distortion.h"

namespace VLGD {
namespace {

using platform::NoiseType;
using platform::ValueType;

// The noise numbers whose octave count means something.
bool UsesOctaves(Int32 type) {
  const platform::NoiseTypeInfo* info = platform::FindNoiseType(type);
  return info != nullptr && info->usesOctaves;
}

bool IsThreeDimensional(Int32 type) {
  switch (static_cast<NoiseType>(type)) {
    case NoiseType::FBM:
    case NoiseType::VORONOI_F1:
    case NoiseType::VORONOI_F2:
    case NoiseType::VORONOI_F2_F1:
      return true;
    default:
      return false;
  }
}

}  // namespace

Int32 DrawNoiseSeed(UInt64 timerValue) {
  std::mt19937 twister(static_cast<std::mt19937::result_type>(timerValue));
  // 53 random bits from two draws, so the value is the same with every standard library.
  const UInt64 high = twister() >> 5;
  const UInt64 low = twister() >> 6;
  const Float u = static_cast<Float>(high * 67108864ULL + low) * 0x1.0p-53;
  // Rounded through single precision first, as seeds always have been.
  return static_cast<Int32>(static_cast<Float>(static_cast<float>(u)) * 4999.0 + 1.0);
}

bool NoiseOperator::Init(Node& node) {
  if (!BaseTerrainOperatorData::Init(node)) return false;
  return node.GetDataInstance().Set(NOISEOPERATOR_SEED, DrawNoiseSeed(node.GetHost().TimerValue())).has_value();
}

TERRAINOPERATORFLAGS NoiseOperator::GetFlags(const Node& op) const {
  TERRAINOPERATORFLAGS flags = TERRAINOPERATORFLAGS::TYPE_GENERATOR | TERRAINOPERATORFLAGS::DIRTY_MATRIX_OPERATOR |
                               TERRAINOPERATORFLAGS::DIRTY_MATRIX_PARENTHIERARCHY;
  if (platform::ParameterReader(op).GetBool(NOISEOPERATOR_USE_TERRAIN_MATRIX))
    flags = flags | TERRAINOPERATORFLAGS::DIRTY_MATRIX_TERRAIN;
  return flags;
}

bool NoiseOperator::GetOperatorDEnabling(const Node& op, ParameterId id, const Value&) const {
  const platform::ParameterReader data(op);
  const Int32 type = data.GetInt32(NOISEOPERATOR_TYPE);
  switch (id) {
    case NOISEOPERATOR_OCTAVES:
      return UsesOctaves(type);
    case NOISEOPERATOR_ABSOLUTE:
      return type != static_cast<Int32>(NoiseType::RIDGED_MULTIFRACTAL);
    default:
      return IsDistortionParameterEnabled(data.Values(), id);
  }
}

bool NoiseOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const {
  AppendGeneratorParameters(ids, NOISEOPERATOR_OCTAVES, NOISEOPERATOR_INVERT);
  return true;
}

Status NoiseOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document&, const EvaluationContext& context) {
  const platform::ParameterReader data(op);
  Float octaves = data.GetFloat(NOISEOPERATOR_OCTAVES);
  const bool absolute = data.GetBool(NOISEOPERATOR_ABSOLUTE);
  const Int32 type = data.GetInt32(NOISEOPERATOR_TYPE);
  // New noises draw a seed of their own (the description has no default); one without a
  // stored seed gets the pattern of seed 123 that such noises always had.
  const Int32 seed = data.Values().GetInt32(NOISEOPERATOR_SEED, 123);
  const Float scale = data.GetFloat(NOISEOPERATOR_SCALE);
  const bool normalize = data.GetBool(NOISEOPERATOR_NORMALIZE);
  const Vector offset = data.GetVector(NOISEOPERATOR_OFFSET);
  const bool invert = data.GetBool(NOISEOPERATOR_INVERT);
  const Float frequency = scale != 0.0 ? 0.01 / scale : 0.0;
  const TerrainDistortion distortion = TerrainDistortion::Read(data);
  const platform::Matrix frame = SamplingFrame(op, context, data.GetBool(NOISEOPERATOR_USE_TERRAIN_MATRIX));

  if (platform::FindNoiseType(type) == nullptr)
    return platform::IllegalArgumentError("Unknown noise type " + std::to_string(type) + "!");
  VLGD_RETURN_IF_ERROR(result_.InitFrom(incoming));

  auto allocated = platform::NoiseGenerator::Alloc(seed);
  if (!allocated) return platform::OutOfMemoryError("Could not allocate noise generator!");
  platform::NoiseGenerator& noise = **allocated;
  const bool twoD = !IsThreeDimensional(type);
  const bool ridged = type == static_cast<Int32>(NoiseType::RIDGED_MULTIFRACTAL);
  if (ridged) {
    if (!noise.InitFbm(20, 2.2, 0.8))
      return platform::GenericError("Could not initialize Fbm for Ridged Multifractal!");
  } else if (type == static_cast<Int32>(NoiseType::BILLOW) || type == static_cast<Int32>(NoiseType::FBM)) {
    // The octave count shapes the spectrum here; the sampling always takes five octaves.
    if (!noise.InitFbm(12, octaves * 0.19 + 1.0, 0.95)) return platform::GenericError("Could not initialize Fbm!");
    octaves = 5.0;
  }

  const Int width = result_.Width();
  const Int height = result_.Height();
  const Float sizeX = result_.SizeX();
  const Float sizeY = result_.SizeY();
  Float* values = result_.Data();
  const platform::CancellationToken* thread = context.thread;
  const platform::ParallelOptions rows{.granularity = 16};
  VLGD_RETURN_IF_ERROR(platform::ParallelFor(0, height, rows, [&](Int y) -> Status {
    if (platform::IsSampleBreakTest(y) && platform::TestBreak(thread))
      return platform::CancelledError("Noise operator cancelled!");
    // Blocks of the row on the worker's stack: the noise takes them a block per call.
    constexpr Int kBlock = 256;
    Vector points[kBlock];
    Float qx[kBlock], qy[kBlock], qz[kBlock];
    Float* row = values + y * width;
    for (Int start = 0; start < width; start += kBlock) {
      const Int count = std::min(kBlock, width - start);
      for (Int i = 0; i < count; ++i) {
        const Vector p = GridPoint(start + i, y, width, height, sizeX, sizeY);
        points[i] = distortion.beforeMatrix ? platform::TransformPoint(frame, p) : p;
      }
      distortion.ApplyRow(std::span(points, static_cast<std::size_t>(count)));
      for (Int i = 0; i < count; ++i) {
        Vector p = points[i] + offset;
        if (!distortion.beforeMatrix) p = platform::TransformPoint(frame, p);
        // The vertical axis is read ten times coarser.
        qx[i] = p.x * frequency;
        qy[i] = p.y * frequency * 0.1;
        qz[i] = p.z * frequency;
      }
      const platform::PointRows q{qx, qy, qz, count};
      Float* out = row + start;
      if (ridged) {
        noise.RidgedMultifractalRow(q, 0.0, octaves, 1.0, 1.0, 1023, out);
        for (Int i = 0; i < count; ++i) out[i] *= 0.4;
      } else {
        noise.NoiseRow(type, twoD, q, 0.0, octaves, absolute, 0.25, 0.25, 0, out);
      }
      if (invert)
        for (Int i = 0; i < count; ++i) out[i] = 1.0 - out[i];
    }
    return platform::Ok();
  }));
  if (normalize) VLGD_RETURN_IF_ERROR(result_.Normalize(1.0, 0.0, thread));
  return platform::Ok();
}

namespace {

platform::Description NoiseOperatorDescription() {
  using platform::DescribeParameter;
  platform::Enumeration noiseTypes{"NOISETYPE", {}};
  Int32 first = std::numeric_limits<Int32>::max();
  Int32 last = std::numeric_limits<Int32>::min();
  for (const platform::NoiseTypeInfo& info : platform::NoiseTypes()) {
    const auto value = static_cast<Int32>(info.type);
    noiseTypes.members.push_back({std::string(info.name), value});
    first = std::min(first, value);
    last = std::max(last, value);
  }
  const platform::ParameterDescription type =
      DescribeParameter(NOISEOPERATOR_TYPE, "NOISEOPERATOR_TYPE", ValueType::INT32, Int32{21})
          .Choice("NOISETYPE", first, last);
  return {"onoiseoperator",
          {"Obaseterrainoperator", "DterrainDistortion"},
          {
              DescribeParameter(NOISEOPERATOR_OCTAVES, "NOISEOPERATOR_OCTAVES", ValueType::FLOAT, 5.0)
                  .Limits(0.0, static_cast<Float>(platform::NoiseGenerator::kMaxOctaves), "octaves"),
              DescribeParameter(NOISEOPERATOR_ABSOLUTE, "NOISEOPERATOR_ABSOLUTE", ValueType::BOOL, false),
              type,
              // No default: every new noise draws its own seed.
              DescribeParameter(NOISEOPERATOR_SEED, "NOISEOPERATOR_SEED", ValueType::INT32, Value{})
                  .Limits(std::numeric_limits<Int32>::min(), std::numeric_limits<Int32>::max()),
              // In hundreds of units of feature size.
              DescribeParameter(NOISEOPERATOR_SCALE, "NOISEOPERATOR_SCALE", ValueType::FLOAT, 1.0).Limits(0.0, 10000.0),
              DescribeParameter(NOISEOPERATOR_NORMALIZE, "NOISEOPERATOR_NORMALIZE", ValueType::BOOL, true),
              DescribeParameter(NOISEOPERATOR_OFFSET, "NOISEOPERATOR_OFFSET", ValueType::VECTOR, Vector())
                  .Limits(-kMaxWorldDistance, kMaxWorldDistance),
              DescribeParameter(NOISEOPERATOR_USE_TERRAIN_MATRIX, "NOISEOPERATOR_USE_TERRAIN_MATRIX", ValueType::BOOL,
                                false),
              DescribeParameter(NOISEOPERATOR_INVERT, "NOISEOPERATOR_INVERT", ValueType::BOOL, false),
          },
          {std::move(noiseTypes)}};
}

}  // namespace

const platform::TypeDescriptor& NoiseOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_NOISEOPERATOR,
                                             .resourceName = "onoiseoperator",
                                             .sort = 21,
                                             .icon = MainSheetIcon(64, 0),
                                             .nameStringId = 10001,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<NoiseOperator>(),
                                             .describe = NoiseOperatorDescription};
  return type;
}

}  // namespace VLGD
