#pragma once

#include "shader/shader.h"

namespace VLGD {

enum HeightShaderParameter : platform::ParameterId {
  HEIGHTSHADER_LOW = 10001,     // Float, world units: where the range starts
  HEIGHTSHADER_HIGH = 10002,    // Float, world units: where it ends
  HEIGHTSHADER_SMOOTH = 10003,  // Float, world units: the width of the soft edge at each bound
};

enum SlopeShaderParameter : platform::ParameterId {
  SLOPESHADER_LOW = 10001,     // Float, degrees
  SLOPESHADER_HIGH = 10002,    // Float, degrees
  SLOPESHADER_SMOOTH = 10003,  // Float, degrees
};

// 1 where the terrain's final height lies within a range, falling off smoothly outside it.
class HeightShader final : public ShaderData {
 public:
  Result<std::unique_ptr<ShaderProgram>> Compile(Node& shader, const ShadeContext& context) override;
  [[nodiscard]] bool ReadsTerrain() const override { return true; }
};

// 1 where the terrain's slope (0 flat, 90 degrees vertical) lies within a range.
class SlopeShader final : public ShaderData {
 public:
  Result<std::unique_ptr<ShaderProgram>> Compile(Node& shader, const ShadeContext& context) override;
  [[nodiscard]] bool ReadsTerrain() const override { return true; }
};

const platform::TypeDescriptor& HeightShaderType();
const platform::TypeDescriptor& SlopeShaderType();

// The slope in degrees at every sample of a grid that spans sizeX x sizeZ world units,
// from central differences (one-sided at the borders).
Status ComputeSlopes(const Grid2D<Float>& heights, Float sizeX, Float sizeZ, std::vector<float>& slopes,
                     const platform::CancellationToken* cancel);
// The same for samples first .. first + count - 1 of row j alone.
void SlopeSpan(const Grid2D<Float>& heights, Float sizeX, Float sizeZ, Int j, Int first, Int count, float* out);

}  // namespace VLGD
