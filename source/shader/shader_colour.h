#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

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

// Linear 0 .. 1 to the sRGB byte that lround(LinearToSrgb(v) * 255) gives, from tables
// instead of a power per channel.
class SrgbByteEncoder {
 public:
  static const SrgbByteEncoder& Get();
  std::uint8_t operator()(float linear) const {
    if (!(linear > 0.0f)) return 0;  // NaN as well
    const float v = std::min(linear, 1.0f);
    std::size_t byte = start_[static_cast<std::size_t>(v * static_cast<float>(kBuckets))];
    while (v >= thresholds_[byte]) ++byte;  // a bucket spans at most one step
    return static_cast<std::uint8_t>(byte);
  }

 private:
  SrgbByteEncoder();
  static constexpr std::size_t kBuckets = 4096;
  std::array<float, 256> thresholds_{};             // where byte k + 1 begins; the last never reached
  std::array<std::uint8_t, kBuckets + 1> start_{};  // the byte at each bucket's lower edge
};

}  // namespace VLGD
