#include "vellgrund/distortion.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace VLGD {

using platform::DescribeParameter;
using platform::ValueType;

TerrainDistortion TerrainDistortion::Read(const platform::ParameterReader& data) {
  TerrainDistortion distortion;
  distortion.amount = data.GetFloat(TERRAINDISTORTION_AMOUNT) * 200.0;
  distortion.enabled = data.GetBool(TERRAINDISTORTION_ENABLED) && distortion.amount != 0.0;
  const Float period = 75.0 * data.GetFloat(TERRAINDISTORTION_SCALE);
  distortion.frequency = period != 0.0 ? 1.0 / period : 0.0;
  const Float angle = data.GetFloat(TERRAINDISTORTION_ANGLE);
  distortion.sinAngle = std::sin(angle);
  distortion.cosAngle = std::cos(angle);
  distortion.offset = data.GetVector(TERRAINDISTORTION_OFFSET) * 0.01;
  distortion.beforeMatrix = data.GetBool(TERRAINDISTORTION_BEFORE_MATRIX);
  return distortion;
}

void TerrainDistortion::ApplyRow(std::span<Vector> points) const {
  if (!enabled) return;
  constexpr std::size_t kBlock = 256;
  Float x[kBlock], y[kBlock], z[kBlock], shiftedY[kBlock], alongX[kBlock], alongZ[kBlock];
  const Float half = amount * 0.5;
  const Float secondY = 2.0 * offset.y + 10.0;
  for (std::size_t start = 0; start < points.size(); start += kBlock) {
    const std::span<Vector> block = points.subspan(start, std::min(kBlock, points.size() - start));
    for (std::size_t i = 0; i < block.size(); ++i) {
      x[i] = frequency * block[i].x + offset.x;
      y[i] = frequency * block[i].y + offset.y;
      z[i] = frequency * block[i].z + offset.z;
      shiftedY[i] = secondY;
    }
    const auto count = static_cast<Int>(block.size());
    platform::ScalarNoiseRow({x, y, z, count}, 0.0, alongX);
    platform::ScalarNoiseRow({x, shiftedY, z, count}, 0.0, alongZ);
    for (std::size_t i = 0; i < block.size(); ++i) {
      block[i].x += (alongX[i] * amount - half) * sinAngle;
      block[i].z += (alongZ[i] * amount - half) * cosAngle;
    }
  }
}

void AppendGeneratorParameters(std::vector<ParameterId>& ids, ParameterId first, ParameterId last) {
  for (ParameterId id = first; id <= last; ++id) ids.push_back(id);
  ids.insert(ids.end(), std::begin(kTerrainDistortionParameters), std::end(kTerrainDistortionParameters));
}

bool IsDistortionParameterEnabled(const ParameterContainer& data, ParameterId id) {
  if (id <= TERRAINDISTORTION_ENABLED || id > TERRAINDISTORTION_OFFSET) return true;
  return data.GetBool(TERRAINDISTORTION_ENABLED);
}

platform::Matrix SamplingFrame(const Node& op, const EvaluationContext& context, bool includeTerrainMatrix) {
  const platform::Matrix operatorSpace = platform::Inverse(context.parentHierarchyMatrix * op.GetMl());
  return includeTerrainMatrix ? operatorSpace * context.terrainMatrix : operatorSpace;
}

namespace {

platform::Description TerrainDistortionDescription() {
  constexpr Float kTurn = 2.0 * std::numbers::pi;
  return {
      "DterrainDistortion",
      {},
      {
          DescribeParameter(TERRAINDISTORTION_ENABLED, "TERRAINDISTORTION_ENABLED", ValueType::BOOL, false),
          // In hundreds of units of displacement, and in multiples of the 75-unit period.
          DescribeParameter(TERRAINDISTORTION_AMOUNT, "TERRAINDISTORTION_AMOUNT", ValueType::FLOAT, 1.0)
              .Limits(-100.0, 100.0),
          DescribeParameter(TERRAINDISTORTION_SCALE, "TERRAINDISTORTION_SCALE", ValueType::FLOAT, 1.0)
              .Limits(0.0, 1000.0),
          DescribeParameter(TERRAINDISTORTION_ANGLE, "TERRAINDISTORTION_ANGLE", ValueType::FLOAT, 0.0)
              .Limits(-kTurn, kTurn, "radians"),
          DescribeParameter(TERRAINDISTORTION_2005, "TERRAINDISTORTION_2005", ValueType::BOOL, false).KeptForFiles(),
          DescribeParameter(TERRAINDISTORTION_BEFORE_MATRIX, "TERRAINDISTORTION_BEFORE_MATRIX", ValueType::BOOL, false),
          DescribeParameter(TERRAINDISTORTION_OFFSET, "TERRAINDISTORTION_OFFSET", ValueType::VECTOR, Vector())
              .Limits(-kMaxWorldDistance, kMaxWorldDistance, "units"),
      }};
}

}  // namespace

const platform::TypeDescriptor& TerrainDistortionType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::DESCRIPTION,
                                             .id = 1055057,
                                             .resourceName = "DterrainDistortion",
                                             .describe = TerrainDistortionDescription};
  return type;
}

}  // namespace VLGD
