#include "shader/shader_colour.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "platform/description.h"

namespace VLGD {
namespace {

Colour LinearColour(const platform::Vector& srgb) {
  return {SrgbToLinear(static_cast<float>(srgb.x)), SrgbToLinear(static_cast<float>(srgb.y)),
          SrgbToLinear(static_cast<float>(srgb.z)), 1.0f};
}

struct RampKnot {
  float position = 0.0f;
  Colour colour;
};

class RampProgram final : public ShaderProgram {
 public:
  RampProgram(std::unique_ptr<ShaderProgram> input, std::vector<RampKnot> knots)
      : input_(std::move(input)), knots_(std::move(knots)) {}

  void ShadeSpan(const Span& span, kernels::Channels out, SpanScratch& scratch) const override {
    float* values = scratch.BorrowValues();
    ShadeInputSpan(input_.get(), span, values, scratch, 0.0f);
    for (Int x = 0; x < span.count; ++x) {
      const Colour c = At(values[x]);
      out.r[x] = c.r;
      out.g[x] = c.g;
      out.b[x] = c.b;
      out.a[x] = 1.0f;
    }
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

Result<std::unique_ptr<ShaderProgram>> ColourShader::Compile(Node& shader, const ShadeContext& context) {
  (void)context;
  return ConstantColour(LinearColour(shader.GetData().GetVector(COLOURSHADER_COLOUR, platform::Vector(0.5))));
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
