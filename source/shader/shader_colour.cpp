#include "shader/shader_colour.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

#include "platform/description.h"

namespace VLGD {
namespace {

Colour LinearColour(const platform::Vector& srgb) {
  return {SrgbToLinear(static_cast<float>(srgb.x)), SrgbToLinear(static_cast<float>(srgb.y)),
          SrgbToLinear(static_cast<float>(srgb.z)), 1.0f};
}

class ConstantColourProgram final : public ShaderProgram {
 public:
  explicit ConstantColourProgram(Colour colour) : colour_(colour) {}
  void ShadeRow(Int y, std::span<Colour> out, RowScratch& scratch) const override {
    (void)y;
    (void)scratch;
    std::fill(out.begin(), out.end(), colour_);
  }

 private:
  Colour colour_;
};

struct RampKnot {
  float position = 0.0f;
  Colour colour;
};

class RampProgram final : public ShaderProgram {
 public:
  RampProgram(std::unique_ptr<ShaderProgram> input, std::vector<RampKnot> knots)
      : input_(std::move(input)), knots_(std::move(knots)) {}

  void ShadeRow(Int y, std::span<Colour> out, RowScratch& scratch) const override {
    const std::span<float> values = scratch.BorrowValues().first(out.size());
    ShadeInputRow(input_.get(), y, values, scratch, 0.0f);
    for (size_t x = 0; x < out.size(); ++x) out[x] = At(values[x]);
    scratch.ReleaseValues();
  }

 private:
  [[nodiscard]] Colour At(float t) const {
    if (!(t > knots_.front().position)) return knots_.front().colour;  // NaN too
    for (size_t k = 1; k < knots_.size(); ++k) {
      if (t > knots_[k].position) continue;
      const RampKnot& a = knots_[k - 1];
      const RampKnot& b = knots_[k];
      const float span = b.position - a.position;
      const float f = span > 0.0f ? (t - a.position) / span : 1.0f;
      return {a.colour.r + (b.colour.r - a.colour.r) * f, a.colour.g + (b.colour.g - a.colour.g) * f,
              a.colour.b + (b.colour.b - a.colour.b) * f, 1.0f};
    }
    return knots_.back().colour;
  }

  std::unique_ptr<ShaderProgram> input_;
  std::vector<RampKnot> knots_;  // by position
};

platform::Description ColourShaderDescription() {
  using platform::DescribeParameter;
  return {"xcolourshader",
          {std::string(kBaseShaderResource)},
          {DescribeParameter(COLOURSHADER_COLOUR, "COLOURSHADER_COLOUR", platform::ValueType::VECTOR,
                             platform::Vector(0.5, 0.5, 0.5))
               .Limits(0.0, 1.0)}};
}

platform::Description ColourRampShaderDescription() {
  using platform::DescribeParameter;
  using platform::ValueType;
  platform::Description description{
      "xcolourrampshader",
      {std::string(kBaseShaderResource)},
      {DescribeParameter(COLOURRAMPSHADER_KNOTS, "COLOURRAMPSHADER_KNOTS", ValueType::INT32, Int32{2})
           .Limits(2.0, kMaxRampKnots)}};
  const std::array<platform::Vector, kMaxRampKnots> colours = {platform::Vector(0.0), platform::Vector(1.0),
                                                               platform::Vector(1.0), platform::Vector(1.0)};
  for (Int32 k = 0; k < kMaxRampKnots; ++k) {
    const std::string number = std::to_string(k + 1);
    description.parameters.push_back(DescribeParameter(COLOURRAMPSHADER_POSITION_1 + k,
                                                       "COLOURRAMPSHADER_POSITION_" + number, ValueType::FLOAT,
                                                       k == 0 ? 0.0 : 1.0)
                                         .Limits(0.0, 1.0));
    description.parameters.push_back(DescribeParameter(COLOURRAMPSHADER_COLOUR_1 + k,
                                                       "COLOURRAMPSHADER_COLOUR_" + number, ValueType::VECTOR,
                                                       colours[static_cast<size_t>(k)])
                                         .Limits(0.0, 1.0));
  }
  return description;
}

}  // namespace

float SrgbToLinear(float value) {
  const float v = std::clamp(value, 0.0f, 1.0f);
  return v <= 0.04045f ? v / 12.92f : std::pow((v + 0.055f) / 1.055f, 2.4f);
}

float LinearToSrgb(float value) {
  const float v = std::clamp(value, 0.0f, 1.0f);
  return v <= 0.0031308f ? v * 12.92f : 1.055f * std::pow(v, 1.0f / 2.4f) - 0.055f;
}

namespace {

std::uint8_t ExactSrgbByte(float linear) {
  return static_cast<std::uint8_t>(std::lround(LinearToSrgb(linear) * 255.0f));
}

}  // namespace

SrgbByteEncoder::SrgbByteEncoder() {
  // Positive floats order as their bit patterns, so each threshold is found exactly by
  // bisecting the patterns between 0 and 1.
  const auto bits = [](float f) { return std::bit_cast<std::uint32_t>(f); };
  for (std::size_t k = 0; k < 255; ++k) {
    std::uint32_t low = bits(0.0f), high = bits(1.0f);  // byte(low) <= k < byte(high)
    while (high - low > 1) {
      const std::uint32_t middle = low + (high - low) / 2;
      (ExactSrgbByte(std::bit_cast<float>(middle)) > k ? high : low) = middle;
    }
    thresholds_[k] = std::bit_cast<float>(high);
  }
  thresholds_[255] = std::numeric_limits<float>::infinity();
  for (std::size_t i = 0; i <= kBuckets; ++i)
    start_[i] = ExactSrgbByte(static_cast<float>(i) / static_cast<float>(kBuckets));
}

const SrgbByteEncoder& SrgbByteEncoder::Get() {
  static const SrgbByteEncoder encoder;
  return encoder;
}

Result<std::unique_ptr<ShaderProgram>> ColourShader::Compile(Node& shader, const ShadeContext& context) {
  (void)context;
  return std::make_unique<ConstantColourProgram>(
      LinearColour(shader.GetData().GetVector(COLOURSHADER_COLOUR, platform::Vector(0.5))));
}

Result<std::unique_ptr<ShaderProgram>> ColourRampShader::Compile(Node& shader, const ShadeContext& context) {
  const platform::ParameterContainer& data = shader.GetData();
  const Int32 count = std::clamp(data.GetInt32(COLOURRAMPSHADER_KNOTS, 2), 2, kMaxRampKnots);
  std::vector<RampKnot> knots;
  for (Int32 k = 0; k < count; ++k)
    knots.push_back({static_cast<float>(data.GetFloat(COLOURRAMPSHADER_POSITION_1 + k, 0.0)),
                     LinearColour(data.GetVector(COLOURRAMPSHADER_COLOUR_1 + k, platform::Vector(1.0)))});
  std::stable_sort(knots.begin(), knots.end(),
                   [](const RampKnot& a, const RampKnot& b) { return a.position < b.position; });
  VLGD_ASSIGN_OR_RETURN(std::unique_ptr<ShaderProgram> input, CompileFirst(shader.GetDown(), context));
  return std::make_unique<RampProgram>(std::move(input), std::move(knots));
}

bool ColourRampShader::GetDVisibility(const Node& node, platform::ParameterId id) const {
  const Int32 knots = node.GetData().GetInt32(COLOURRAMPSHADER_KNOTS, 2);
  for (const platform::ParameterId first : {COLOURRAMPSHADER_POSITION_1, COLOURRAMPSHADER_COLOUR_1})
    if (id >= first && id < first + kMaxRampKnots) return id - first < knots;
  return true;
}

const platform::TypeDescriptor& ColourShaderType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_COLOURSHADER,
                                             .resourceName = "xcolourshader",
                                             .objectInfo = platform::OBJECT_SHADER,
                                             .allocate = platform::AllocatorOf<ColourShader>(),
                                             .describe = ColourShaderDescription};
  return type;
}

const platform::TypeDescriptor& ColourRampShaderType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_COLOURRAMPSHADER,
                                             .resourceName = "xcolourrampshader",
                                             .objectInfo = platform::OBJECT_SHADER,
                                             .allocate = platform::AllocatorOf<ColourRampShader>(),
                                             .describe = ColourRampShaderDescription};
  return type;
}

}  // namespace VLGD
