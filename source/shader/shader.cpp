#include "shader/shader.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "platform/description.h"
#include "vellgrund/blend.h"

namespace VLGD {

Float ShadeContext::GridRow(Int y, Int rows) const {
  if (height <= 1 || rows <= 1) return 0.0;
  return static_cast<Float>(height - 1 - y) * static_cast<Float>(rows - 1) / static_cast<Float>(height - 1);
}

float* SpanScratch::Next() {
  if (used_ == buffers_.size()) {
    // Zeroed, so that the lanes past a span's end hold numbers from the start.
    auto buffer = hwy::AllocateAligned<float>(kernels::Padded(kSpanPixels));
    if (buffer == nullptr) throw std::bad_alloc();
    std::fill_n(buffer.get(), kernels::Padded(kSpanPixels), 0.0f);
    buffers_.push_back(std::move(buffer));
  }
  return buffers_[used_++].get();
}

kernels::Channels SpanScratch::BorrowColours() {
  float* r = Next();
  float* g = Next();
  float* b = Next();
  return {r, g, b, Next()};
}

float* SpanScratch::BorrowValues() {
  return Next();
}

void ShaderProgram::ShadeGrey(const Span& span, float* out, SpanScratch& scratch) const {
  const kernels::Channels colours = scratch.BorrowColours();
  ShadeSpan(span, colours, scratch);
  std::copy_n(colours.r, span.count, out);
  scratch.ReleaseColours();
}

void GreyProgram::ShadeSpan(const Span& span, kernels::Channels out, SpanScratch& scratch) const {
  ShadeGrey(span, out.r, scratch);
  std::copy_n(out.r, span.count, out.g);
  std::copy_n(out.r, span.count, out.b);
  std::fill_n(out.a, span.count, 1.0f);
}

namespace {

class ConstantColourProgram final : public ShaderProgram {
 public:
  explicit ConstantColourProgram(const Colour& colour) : colour_(colour) {}
  void ShadeSpan(const Span& span, kernels::Channels out, SpanScratch& scratch) const override {
    (void)span;
    (void)scratch;
    FillSpan(out, colour_);
  }
  [[nodiscard]] const Colour* Constant() const override { return &colour_; }

 private:
  Colour colour_;
};

}  // namespace

std::unique_ptr<ShaderProgram> ConstantColour(const Colour& colour) {
  return std::make_unique<ConstantColourProgram>(colour);
}

void FillSpan(kernels::Channels out, const Colour& colour) {
  const float channels[4] = {colour.r, colour.g, colour.b, colour.a};
  kernels::FillSpan(out, channels, kSpanPixels);
}

bool ShaderData::Init(Node& node) {
  return node.GetTypeInfo().description.WriteDefaults(node.GetDataInstance()).has_value();
}

Result<std::unique_ptr<ShaderProgram>> CompileFirst(Node* first, const ShadeContext& context) {
  for (Node* shader = first; shader != nullptr; shader = shader->GetNext()) {
    if (!shader->IsEnabled()) continue;
    auto* data = shader->GetNodeData<ShaderData>();
    if (data == nullptr) continue;
    return data->Compile(*shader, context);
  }
  return std::unique_ptr<ShaderProgram>{};
}

void ShadeInputSpan(const ShaderProgram* input, const Span& span, float* out, SpanScratch& scratch, float fallback) {
  if (input == nullptr) {
    std::fill_n(out, span.count, fallback);
    return;
  }
  input->ShadeGrey(span, out, scratch);
}

void SampleGridSpan(const Float* grid, Int gridWidth, Int gridHeight, const ShadeContext& context, const Span& span,
                    float* out) {
  if (grid == nullptr || gridWidth <= 0 || gridHeight <= 0) {
    std::fill_n(out, span.count, 0.0f);
    return;
  }
  if (gridWidth == context.width && gridHeight == context.height) {
    kernels::ToFloats(grid + (gridHeight - 1 - span.y) * gridWidth + span.x0, out, static_cast<size_t>(span.count));
    return;
  }
  const Float row = context.GridRow(span.y, gridHeight);
  const Int j0 = std::clamp<Int>(static_cast<Int>(row), 0, gridHeight - 1);
  const Int j1 = std::min(j0 + 1, gridHeight - 1);
  const Float fy = row - static_cast<Float>(j0);
  const Float* lower = grid + j0 * gridWidth;
  const Float* upper = grid + j1 * gridWidth;
  const Float scale = context.width > 1 && gridWidth > 1
                          ? static_cast<Float>(gridWidth - 1) / static_cast<Float>(context.width - 1)
                          : 0.0;
  for (Int k = 0; k < span.count; ++k) {
    const Float column = static_cast<Float>(span.x0 + k) * scale;
    const Int i0 = std::clamp<Int>(static_cast<Int>(column), 0, gridWidth - 1);
    const Int i1 = std::min(i0 + 1, gridWidth - 1);
    const Float fx = column - static_cast<Float>(i0);
    const Float bottom = lower[i0] + (lower[i1] - lower[i0]) * fx;
    const Float top = upper[i0] + (upper[i1] - upper[i0]) * fx;
    out[k] = static_cast<float>(bottom + (top - bottom) * fy);
  }
}

namespace {

platform::Description BaseShaderDescription() {
  using platform::DescribeParameter;
  using platform::ValueType;
  return {std::string(kBaseShaderResource),
          {},
          {
              DescribeParameter(SHADER_LAYER_BLEND, "SHADER_LAYER_BLEND", ValueType::INT32, Int32{0})
                  .Choice("BLENDMODE", 0, static_cast<Int32>(BLENDMODE::_BLENDMODE_COUNT) - 1),
              DescribeParameter(SHADER_LAYER_OPACITY, "SHADER_LAYER_OPACITY", ValueType::FLOAT, 1.0).Limits(0.0, 1.0),
          }};
}

}  // namespace

const platform::TypeDescriptor& BaseShaderType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::DESCRIPTION,
                                             .id = 1058000,
                                             .resourceName = kBaseShaderResource,
                                             .describe = BaseShaderDescription};
  return type;
}

}  // namespace VLGD
