#include "shader/shader_inputs.h"

#include <cmath>
#include <numbers>

#include "platform/description.h"
#include "platform/memory.h"
#include "platform/parallel.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {
namespace {

// Weighs a grid sampled at each pixel by a range with soft edges.
class RangeProgram final : public ShaderProgram {
 public:
  RangeProgram(const ShadeContext& context, const Float* grid, float low, float high, float smooth)
      : context_(context), grid_(grid), low_(low), high_(high), smooth_(smooth) {}

  void ShadeRow(Int y, std::span<Colour> out, RowScratch& scratch) const override {
    const std::span<float> values = scratch.BorrowValues().first(out.size());
    SampleGridRow(grid_, context_.heights->Width(), context_.heights->Height(), context_, y, values);
    for (size_t x = 0; x < out.size(); ++x) {
      const float v = RangeWeight(values[x], low_, high_, smooth_);
      out[x] = Colour{v, v, v, 1.0f};
    }
    scratch.ReleaseValues();
  }

 private:
  ShadeContext context_;
  const Float* grid_;
  float low_, high_, smooth_;
};

// Slopes are kept as floats; the range program reads Floats, so they are widened once.
class SlopeProgram final : public ShaderProgram {
 public:
  SlopeProgram(const ShadeContext& context, float low, float high, float smooth)
      : context_(context), low_(low), high_(high), smooth_(smooth) {}

  void ShadeRow(Int y, std::span<Colour> out, RowScratch& scratch) const override {
    const Int gridWidth = context_.heights->Width();
    const Int gridHeight = context_.heights->Height();
    if (context_.OneToOne()) {  // a pixel per sample: the slopes of the row, made here
      const std::span<float> values = scratch.BorrowValues().first(out.size());
      SlopeRow(*context_.heights, context_.sizeX, context_.sizeZ, gridHeight - 1 - y, values);
      for (size_t x = 0; x < out.size(); ++x) {
        const float v = RangeWeight(values[x], low_, high_, smooth_);
        out[x] = Colour{v, v, v, 1.0f};
      }
      scratch.ReleaseValues();
      return;
    }
    const std::vector<float>& slopes = *context_.slopes;
    const Float row = context_.GridRow(y, gridHeight);
    const Int j0 = std::clamp<Int>(static_cast<Int>(row), 0, gridHeight - 1);
    const Int j1 = std::min(j0 + 1, gridHeight - 1);
    const float fy = static_cast<float>(row - static_cast<Float>(j0));
    const Float scale = context_.width > 1 && gridWidth > 1
                            ? static_cast<Float>(gridWidth - 1) / static_cast<Float>(context_.width - 1)
                            : 0.0;
    (void)scratch;
    for (size_t x = 0; x < out.size(); ++x) {
      const Float column = static_cast<Float>(x) * scale;
      const Int i0 = std::clamp<Int>(static_cast<Int>(column), 0, gridWidth - 1);
      const Int i1 = std::min(i0 + 1, gridWidth - 1);
      const float fx = static_cast<float>(column - static_cast<Float>(i0));
      const auto at = [&](Int i, Int j) { return slopes[static_cast<size_t>(j * gridWidth + i)]; };
      const float bottom = at(i0, j0) + (at(i1, j0) - at(i0, j0)) * fx;
      const float top = at(i0, j1) + (at(i1, j1) - at(i0, j1)) * fx;
      const float v = RangeWeight(bottom + (top - bottom) * fy, low_, high_, smooth_);
      out[x] = Colour{v, v, v, 1.0f};
    }
  }

 private:
  ShadeContext context_;
  float low_, high_, smooth_;
};

class FlatProgram final : public ShaderProgram {
 public:
  void ShadeRow(Int y, std::span<Colour> out, RowScratch& scratch) const override {
    (void)y;
    (void)scratch;
    std::fill(out.begin(), out.end(), Colour{0.0f, 0.0f, 0.0f, 1.0f});
  }
};

platform::Description RangeDescription(const char* resource, const char* prefix, Float low, Float high, Float smooth,
                                       Float limit, const char* unit) {
  using platform::DescribeParameter;
  using platform::ValueType;
  const std::string name(prefix);
  return {resource,
          {std::string(kBaseShaderResource)},
          {
              DescribeParameter(10001, name + "_LOW", ValueType::FLOAT, low).Limits(-limit, limit, unit),
              DescribeParameter(10002, name + "_HIGH", ValueType::FLOAT, high).Limits(-limit, limit, unit),
              DescribeParameter(10003, name + "_SMOOTH", ValueType::FLOAT, smooth).Limits(0.0, limit, unit),
          }};
}

platform::Description HeightShaderDescription() {
  return RangeDescription("xheightshader", "HEIGHTSHADER", 100.0, kMaxWorldDistance, 20.0, kMaxWorldDistance, "units");
}

platform::Description SlopeShaderDescription() {
  return RangeDescription("xslopeshader", "SLOPESHADER", 0.0, 30.0, 10.0, 90.0, "degrees");
}

bool HasGrid(const ShadeContext& context) {
  return context.heights != nullptr && context.heights->Count() > 0;
}

}  // namespace

namespace {

// The angle of a gradient in degrees, within 0.001 degrees: a polynomial for atan instead
// of the library's, which cost more than the rest of a bake.
float SlopeDegrees(float gradient) {
  constexpr float kDegrees = 180.0f / std::numbers::pi_v<float>;
  // Branch-free, so that rows of it vectorise: the angle of min(g, 1/g), mirrored for g > 1.
  const float inverse = 1.0f / gradient;
  const float t = inverse < gradient ? inverse : gradient;
  const float t2 = t * t;
  const float angle = t * (0.9998660f + t2 * (-0.3302995f + t2 * (0.1801410f + t2 * (-0.0851330f + t2 * 0.0208351f))));
  return (gradient > 1.0f ? std::numbers::pi_v<float> / 2.0f - angle : angle) * kDegrees;
}

}  // namespace

void SlopeRow(const Grid2D<Float>& heights, Float sizeX, Float sizeZ, Int j, std::span<float> out) {
  const Int width = heights.Width(), height = heights.Height();
  const Float stepX = width > 1 ? sizeX / static_cast<Float>(width - 1) : 1.0;
  const Float stepZ = height > 1 ? sizeZ / static_cast<Float>(height - 1) : 1.0;
  const Float* h = heights.Data();
  const Int up = std::min(j + 1, height - 1), down = std::max<Int>(j - 1, 0);
  const Float dz = stepZ * static_cast<Float>(up - down);
  const Float* row = h + j * width;
  const Float* above = h + up * width;
  const Float* below = h + down * width;
  const auto slopeAt = [&](Int i, Int left, Int right) {
    const Float dx = stepX * static_cast<Float>(right - left);
    const Float gx = dx > 0.0 ? (row[right] - row[left]) / dx : 0.0;
    const Float gz = dz > 0.0 ? (above[i] - below[i]) / dz : 0.0;
    return SlopeDegrees(static_cast<float>(std::sqrt(gx * gx + gz * gz)));
  };
  if (width <= 2) {
    for (Int i = 0; i < width; ++i)
      out[static_cast<size_t>(i)] = slopeAt(i, std::max<Int>(i - 1, 0), std::min(i + 1, width - 1));
    return;
  }
  out[0] = slopeAt(0, 0, 1);
  const Float inverseDx = 1.0 / (2.0 * stepX);
  const Float inverseDz = dz > 0.0 ? 1.0 / dz : 0.0;
  float* inner = out.data();
  for (Int i = 1; i + 1 < width; ++i) {
    const Float gx = (row[i + 1] - row[i - 1]) * inverseDx;
    const Float gz = (above[i] - below[i]) * inverseDz;
    inner[i] = SlopeDegrees(static_cast<float>(std::sqrt(gx * gx + gz * gz)));
  }
  out[static_cast<size_t>(width - 1)] = slopeAt(width - 1, width - 2, width - 1);
}

Status ComputeSlopes(const Grid2D<Float>& heights, Float sizeX, Float sizeZ, std::vector<float>& slopes,
                     const platform::CancellationToken* cancel) {
  const Int width = heights.Width();
  const Int height = heights.Height();
  VLGD_RETURN_IF_ERROR(platform::TryResize(slopes, heights.Count()));
  if (width == 0 || height == 0) return platform::Ok();
  platform::ParallelOptions options{.granularity = 16, .cancel = cancel};
  return platform::ParallelFor(0, height, options, [&](Int j) -> Status {
    SlopeRow(heights, sizeX, sizeZ, j,
             std::span(slopes).subspan(static_cast<size_t>(j * width), static_cast<size_t>(width)));
    return platform::Ok();
  });
}

Result<std::unique_ptr<ShaderProgram>> HeightShader::Compile(Node& shader, const ShadeContext& context) {
  if (!HasGrid(context)) return std::make_unique<FlatProgram>();
  const platform::ParameterContainer& data = shader.GetData();
  return std::make_unique<RangeProgram>(context, context.heights->Data(),
                                        static_cast<float>(data.GetFloat(HEIGHTSHADER_LOW, 100.0)),
                                        static_cast<float>(data.GetFloat(HEIGHTSHADER_HIGH, kMaxWorldDistance)),
                                        static_cast<float>(data.GetFloat(HEIGHTSHADER_SMOOTH, 20.0)));
}

Result<std::unique_ptr<ShaderProgram>> SlopeShader::Compile(Node& shader, const ShadeContext& context) {
  if (!HasGrid(context) || (context.slopes == nullptr && !context.OneToOne())) return std::make_unique<FlatProgram>();
  const platform::ParameterContainer& data = shader.GetData();
  return std::make_unique<SlopeProgram>(context, static_cast<float>(data.GetFloat(SLOPESHADER_LOW, 0.0)),
                                        static_cast<float>(data.GetFloat(SLOPESHADER_HIGH, 30.0)),
                                        static_cast<float>(data.GetFloat(SLOPESHADER_SMOOTH, 10.0)));
}

const platform::TypeDescriptor& HeightShaderType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_HEIGHTSHADER,
                                             .resourceName = "xheightshader",
                                             .objectInfo = platform::OBJECT_SHADER,
                                             .allocate = platform::AllocatorOf<HeightShader>(),
                                             .describe = HeightShaderDescription};
  return type;
}

const platform::TypeDescriptor& SlopeShaderType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_SLOPESHADER,
                                             .resourceName = "xslopeshader",
                                             .objectInfo = platform::OBJECT_SHADER,
                                             .allocate = platform::AllocatorOf<SlopeShader>(),
                                             .describe = SlopeShaderDescription};
  return type;
}

}  // namespace VLGD
