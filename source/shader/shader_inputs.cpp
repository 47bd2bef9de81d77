#include "shader/shader_inputs.h"

#include <algorithm>
#include <cmath>

#include "platform/description.h"
#include "platform/memory.h"
#include "platform/parallel.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {
namespace {

// Weighs a grid sampled at each pixel by a range with soft edges.
class RangeProgram final : public GreyProgram {
 public:
  RangeProgram(const ShadeContext& context, const Float* grid, const kernels::RangeWeights& weights)
      : context_(context), grid_(grid), weights_(weights) {}

  void ShadeGrey(const Span& span, float* out, SpanScratch& scratch) const override {
    (void)scratch;
    SampleGridSpan(grid_, context_.heights->Width(), context_.heights->Height(), context_, span, out);
    kernels::ApplyRangeWeights(weights_, out, static_cast<size_t>(span.count));
  }

 private:
  ShadeContext context_;
  const Float* grid_;
  kernels::RangeWeights weights_;
};

class SlopeProgram final : public GreyProgram {
 public:
  SlopeProgram(const ShadeContext& context, const kernels::RangeWeights& weights)
      : context_(context), weights_(weights) {}

  void ShadeGrey(const Span& span, float* out, SpanScratch& scratch) const override {
    (void)scratch;
    const Int gridWidth = context_.heights->Width();
    const Int gridHeight = context_.heights->Height();
    if (context_.OneToOne()) {  // a pixel per sample: the slopes of the span, made here
      SlopeSpan(*context_.heights, context_.sizeX, context_.sizeZ, gridHeight - 1 - span.y, span.x0, span.count, out);
    } else {
      SampleGrid(*context_.slopes, gridWidth, gridHeight, span, out);
    }
    kernels::ApplyRangeWeights(weights_, out, static_cast<size_t>(span.count));
  }

 private:
  void SampleGrid(const std::vector<float>& slopes, Int gridWidth, Int gridHeight, const Span& span, float* out) const {
    const Float row = context_.GridRow(span.y, gridHeight);
    const Int j0 = std::clamp<Int>(static_cast<Int>(row), 0, gridHeight - 1);
    const Int j1 = std::min(j0 + 1, gridHeight - 1);
    const float fy = static_cast<float>(row - static_cast<Float>(j0));
    const Float scale = context_.width > 1 && gridWidth > 1
                            ? static_cast<Float>(gridWidth - 1) / static_cast<Float>(context_.width - 1)
                            : 0.0;
    const auto at = [&](Int i, Int j) { return slopes[static_cast<size_t>(j * gridWidth + i)]; };
    for (Int k = 0; k < span.count; ++k) {
      const Float column = static_cast<Float>(span.x0 + k) * scale;
      const Int i0 = std::clamp<Int>(static_cast<Int>(column), 0, gridWidth - 1);
      const Int i1 = std::min(i0 + 1, gridWidth - 1);
      const float fx = static_cast<float>(column - static_cast<Float>(i0));
      const float bottom = at(i0, j0) + (at(i1, j0) - at(i0, j0)) * fx;
      const float top = at(i0, j1) + (at(i1, j1) - at(i0, j1)) * fx;
      out[k] = bottom + (top - bottom) * fy;
    }
  }

  ShadeContext context_;
  kernels::RangeWeights weights_;
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

void SlopeSpan(const Grid2D<Float>& heights, Float sizeX, Float sizeZ, Int j, Int first, Int count, float* out) {
  const Int width = heights.Width(), height = heights.Height();
  const Float stepX = width > 1 ? sizeX / static_cast<Float>(width - 1) : 1.0;
  const Float stepZ = height > 1 ? sizeZ / static_cast<Float>(height - 1) : 1.0;
  const Float* h = heights.Data();
  const Int up = std::min(j + 1, height - 1), down = std::max<Int>(j - 1, 0);
  const Float dz = stepZ * static_cast<Float>(up - down);
  const Float* row = h + j * width;
  const Float* above = h + up * width;
  const Float* below = h + down * width;
  const Float inverseDz = dz > 0.0 ? 1.0 / dz : 0.0;
  // The first and last samples take one-sided differences.
  const auto edge = [&](Int i) {
    const Int left = std::max<Int>(i - 1, 0), right = std::min(i + 1, width - 1);
    const Float dx = stepX * static_cast<Float>(right - left);
    const Float gx = dx > 0.0 ? (row[right] - row[left]) / dx : 0.0;
    const Float gz = (above[i] - below[i]) * inverseDz;
    return kernels::SlopeDegreesOfSquared(static_cast<float>(gx * gx + gz * gz));
  };
  const Int end = first + count;
  const Int innerBegin = std::max<Int>(first, 1), innerEnd = std::min(end, width - 1);
  if (innerEnd > innerBegin)
    kernels::InteriorSlopes(row, above, below, 1.0 / (2.0 * stepX), inverseDz, static_cast<size_t>(innerBegin),
                            static_cast<size_t>(innerEnd - innerBegin), out + (innerBegin - first));
  if (first == 0) out[0] = edge(0);
  if (end == width && width > 1) out[width - 1 - first] = edge(width - 1);
}

Status ComputeSlopes(const Grid2D<Float>& heights, Float sizeX, Float sizeZ, std::vector<float>& slopes,
                     const platform::CancellationToken* cancel) {
  const Int width = heights.Width();
  const Int height = heights.Height();
  VLGD_RETURN_IF_ERROR(platform::TryResize(slopes, heights.Count()));
  if (width == 0 || height == 0) return platform::Ok();
  platform::ParallelOptions options{.granularity = 16, .cancel = cancel};
  return platform::ParallelFor(0, height, options, [&](Int j) -> Status {
    SlopeSpan(heights, sizeX, sizeZ, j, 0, width, slopes.data() + j * width);
    return platform::Ok();
  });
}

Result<std::unique_ptr<ShaderProgram>> HeightShader::Compile(Node& shader, const ShadeContext& context) {
  if (!HasGrid(context)) return ConstantColour(Colour{0.0f, 0.0f, 0.0f, 1.0f});
  const platform::ParameterContainer& data = shader.GetData();
  return std::make_unique<RangeProgram>(
      context, context.heights->Data(),
      kernels::RangeWeights(static_cast<float>(data.GetFloat(HEIGHTSHADER_LOW, 100.0)),
                            static_cast<float>(data.GetFloat(HEIGHTSHADER_HIGH, kMaxWorldDistance)),
                            static_cast<float>(data.GetFloat(HEIGHTSHADER_SMOOTH, 20.0))));
}

Result<std::unique_ptr<ShaderProgram>> SlopeShader::Compile(Node& shader, const ShadeContext& context) {
  if (!HasGrid(context) || (context.slopes == nullptr && !context.OneToOne()))
    return ConstantColour(Colour{0.0f, 0.0f, 0.0f, 1.0f});
  const platform::ParameterContainer& data = shader.GetData();
  return std::make_unique<SlopeProgram>(
      context, kernels::RangeWeights(static_cast<float>(data.GetFloat(SLOPESHADER_LOW, 0.0)),
                                     static_cast<float>(data.GetFloat(SLOPESHADER_HIGH, 30.0)),
                                     static_cast<float>(data.GetFloat(SLOPESHADER_SMOOTH, 10.0))));
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
