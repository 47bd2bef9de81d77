#pragma once

#include <span>

#include "platform/description.h"
#include "platform/matrix.h"
#include "platform/noise.h"
#include "platform/parameter_reader.h"
#include "platform/registry.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

// The domain distortion that the generators share: their sample points are pushed along X
// and Z by a low-frequency noise before the generator reads them.
enum TerrainDistortionParameter : ParameterId {
  TERRAINDISTORTION_ENABLED = 2001,
  TERRAINDISTORTION_AMOUNT = 2002,  // x 200 scene units
  TERRAINDISTORTION_SCALE = 2003,   // feature size; the frequency is 1 / (75 x scale)
  TERRAINDISTORTION_ANGLE = 2004,   // radians; sin moves X, cos moves Z
  TERRAINDISTORTION_2005 = 2005,    // kept for files, read by nothing
  TERRAINDISTORTION_BEFORE_MATRIX = 2006,
  TERRAINDISTORTION_OFFSET = 2007,  // x 0.01, moves the distortion noise
};

inline constexpr ParameterId kTerrainDistortionParameters[] = {
    TERRAINDISTORTION_ENABLED, TERRAINDISTORTION_AMOUNT,        TERRAINDISTORTION_SCALE, TERRAINDISTORTION_ANGLE,
    TERRAINDISTORTION_2005,    TERRAINDISTORTION_BEFORE_MATRIX, TERRAINDISTORTION_OFFSET};

// The settings read once per evaluation.
struct TerrainDistortion {
  bool enabled = false;  // on and with a non-zero amount
  bool beforeMatrix = false;
  Float amount = 0.0;
  Float frequency = 0.0;
  Float sinAngle = 0.0;
  Float cosAngle = 1.0;
  Vector offset;

  static TerrainDistortion Read(const platform::ParameterReader& data);

  // Moves X by the noise at the point, then Z by a second lookup that uses the undistorted
  // X and, for historical files, the offset's Y instead of the point's.
  void Apply(Vector& point) const {
    if (!enabled) return;
    const Float x = point.x;
    const Float half = amount * 0.5;
    const Float w1 = platform::ScalarNoise(
        Vector(frequency * x + offset.x, frequency * point.y + offset.y, frequency * point.z + offset.z), 0.0);
    point.x += (w1 * amount - half) * sinAngle;
    const Float w2 = platform::ScalarNoise(
        Vector(frequency * x + offset.x, 2.0 * offset.y + 10.0, frequency * point.z + offset.z), 0.0);
    point.z += (w2 * amount - half) * cosAngle;
  }

  // Apply on every point, a block of points per noise call: the same values, faster.
  void ApplyRow(std::span<Vector> points) const;
};

// The parameters that decide a generator's result: its own, first .. last, and the
// distortion's.
void AppendGeneratorParameters(std::vector<ParameterId>& ids, ParameterId first, ParameterId last);

// The description block of the distortion parameters.
// The distortion block that generators include.
const platform::TypeDescriptor& TerrainDistortionType();

// Enabling of the distortion parameters: everything but the switch follows the switch.
// True for IDs that are not distortion parameters.
bool IsDistortionParameterEnabled(const ParameterContainer& data, ParameterId id);

// The frame a generator reads its points in. A terrain point is taken into the operator's
// own space (the inverse of the Group chain times the operator's matrix), so moving,
// turning or scaling the operator object moves its pattern with it. With the terrain's
// matrix included, the point is first placed in world space by the Terrain object's
// matrix: moving the Terrain then slides it over a pattern that stays put, and terrains
// side by side continue each other's pattern.
platform::Matrix SamplingFrame(const Node& op, const EvaluationContext& context, bool includeTerrainMatrix);

// The local point of sample (x, y) of a grid of width x height samples over sizeX x sizeY:
// centred, with row 0 at +Z.
inline Vector GridPoint(Int x, Int y, Int width, Int height, Float sizeX, Float sizeY) {
  const Float u = width > 1 ? static_cast<Float>(x) / static_cast<Float>(width - 1) : 0.0;
  const Float v = height > 1 ? static_cast<Float>(y) / static_cast<Float>(height - 1) : 0.0;
  return Vector(u * sizeX - sizeX * 0.5, 0.0, sizeY * 0.5 - v * sizeY);
}

}  // namespace VLGD
