#pragma once

#include "shader/shader.h"

namespace VLGD {

enum ColourShaderParameter : platform::ParameterId {
  COLOURSHADER_COLOUR = 10001,  // Vector: red, green, blue in 0 .. 1 (sRGB, as colour pickers give them)
};

// The colour ramp maps its first input's value (0 .. 1; 0 without an input) through up to
// four colour knots, blending linearly between neighbours.
inline constexpr Int32 kMaxRampKnots = 4;
enum ColourRampShaderParameter : platform::ParameterId {
  COLOURRAMPSHADER_KNOTS = 10001,       // Int32 2 .. 4: how many knots are used
  COLOURRAMPSHADER_POSITION_1 = 10011,  // Float 0 .. 1, then _2 .. _4 at 10012 .. 10014
  COLOURRAMPSHADER_COLOUR_1 = 10021,    // Vector (sRGB), then _2 .. _4 at 10022 .. 10024
};

class ColourShader final : public ShaderData {
 public:
  Result<std::unique_ptr<ShaderProgram>> Compile(Node& shader, const ShadeContext& context) override;
};

class ColourRampShader final : public ShaderData {
 public:
  Result<std::unique_ptr<ShaderProgram>> Compile(Node& shader, const ShadeContext& context) override;
  [[nodiscard]] bool GetDVisibility(const Node& node, platform::ParameterId id) const override;
};

const platform::TypeDescriptor& ColourShaderType();
const platform::TypeDescriptor& ColourRampShaderType();

// sRGB-encoded 0 .. 1 to linear light and back.
float SrgbToLinear(float value);
float LinearToSrgb(float value);

}  // namespace VLGD
