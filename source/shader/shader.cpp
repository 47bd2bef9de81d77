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

std::span<Colour> RowScratch::Borrow() {
  // Rows are made once per worker and nesting depth; a bad_alloc here ends the bake, which
  // catches it.
  if (used_ == rows_.size()) rows_.push_back(std::make_unique<Colour[]>(static_cast<size_t>(width_)));
  return {rows_[used_++].get(), static_cast<size_t>(width_)};
}

std::span<float> RowScratch::BorrowValues() {
  if (usedValues_ == valueRows_.size()) valueRows_.push_back(std::make_unique<float[]>(static_cast<size_t>(width_)));
  return {valueRows_[usedValues_++].get(), static_cast<size_t>(width_)};
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

void ShadeInputRow(const ShaderProgram* input, Int y, std::span<float> out, RowScratch& scratch, float fallback) {
  if (input == nullptr) {
    std::fill(out.begin(), out.end(), fallback);
    return;
  }
  const std::span<Colour> row = scratch.Borrow().first(out.size());
  input->ShadeRow(y, row, scratch);
  for (size_t x = 0; x < out.size(); ++x) out[x] = row[x].r;
  scratch.Release();
}

void SampleGridRow(const Float* grid, Int gridWidth, Int gridHeight, const ShadeContext& context, Int y,
                   std::span<float> out) {
  if (grid == nullptr || gridWidth <= 0 || gridHeight <= 0) {
    std::fill(out.begin(), out.end(), 0.0f);
    return;
  }
  if (gridWidth == context.width && gridHeight == context.height) {
    const Float* line = grid + (gridHeight - 1 - y) * gridWidth;
    for (size_t x = 0; x < out.size(); ++x) out[x] = static_cast<float>(line[x]);
    return;
  }
  const Float row = context.GridRow(y, gridHeight);
  const Int j0 = std::clamp<Int>(static_cast<Int>(row), 0, gridHeight - 1);
  const Int j1 = std::min(j0 + 1, gridHeight - 1);
  const Float fy = row - static_cast<Float>(j0);
  const Float* lower = grid + j0 * gridWidth;
  const Float* upper = grid + j1 * gridWidth;
  const Float scale = context.width > 1 && gridWidth > 1
                          ? static_cast<Float>(gridWidth - 1) / static_cast<Float>(context.width - 1)
                          : 0.0;
  for (size_t x = 0; x < out.size(); ++x) {
    const Float column = static_cast<Float>(x) * scale;
    const Int i0 = std::clamp<Int>(static_cast<Int>(column), 0, gridWidth - 1);
    const Int i1 = std::min(i0 + 1, gridWidth - 1);
    const Float fx = column - static_cast<Float>(i0);
    const Float bottom = lower[i0] + (lower[i1] - lower[i0]) * fx;
    const Float top = upper[i0] + (upper[i1] - upper[i0]) * fx;
    out[x] = static_cast<float>(bottom + (top - bottom) * fy);
  }
}

namespace {

template <BLENDMODE kMode>
float BlendChannel(float a, float b) {
  switch (kMode) {
    case BLENDMODE::NORMAL:
      return b;
    case BLENDMODE::ADD:
      return a + b;
    case BLENDMODE::SUBTRACT:
      return a - b;
    case BLENDMODE::MULTIPLY:
      return a * b;
    case BLENDMODE::DIVIDE:
      return b > 0.0f ? a / b : a;
    case BLENDMODE::LOWEST:
      return std::min(a, b);
    case BLENDMODE::HIGHEST:
      return std::max(a, b);
    case BLENDMODE::DIFFERENCE:
      return std::abs(a - b);
    case BLENDMODE::PHOENIX:
      return std::min(a, b) - std::max(a, b) + 1.0f;
    case BLENDMODE::PHOENIXINVERSE:
      return std::max(a, b) - std::min(a, b);
    case BLENDMODE::OVERLAY:
      return a < 0.5f ? 2.0f * a * b : 1.0f - 2.0f * (1.0f - a) * (1.0f - b);
    case BLENDMODE::NEGATION:
      return 1.0f - std::abs(1.0f - a - b);
    case BLENDMODE::SCREEN:
      return 1.0f - (1.0f - a) * (1.0f - b);
    case BLENDMODE::SOFTLIGHT:
      return b < 0.5f
                 ? a * a + 2.0f * a * b - 2.0f * a * a * b
                 : 2.0f * std::sqrt(std::max(a, 0.0f)) * b - std::sqrt(std::max(a, 0.0f)) + 2.0f * a - 2.0f * a * b;
    case BLENDMODE::HARDLIGHT:
      return b < 0.5f ? 2.0f * a * b : 1.0f - 2.0f * (1.0f - a) * (1.0f - b);
    default:
      return a;  // an unknown mode leaves the layers below as they are
  }
}

template <BLENDMODE kMode>
void BlendLoop(std::span<Colour> base, std::span<const Colour> top, std::span<const float> weights, float opacity) {
  for (size_t x = 0; x < base.size(); ++x) {
    Colour& b = base[x];
    const Colour& t = top[x];
    const float w = std::clamp(opacity * weights[x] * t.a, 0.0f, 1.0f);
    const auto mix = [w](float under, float over) {
      return under + (std::clamp(BlendChannel<kMode>(under, over), 0.0f, 1.0f) - under) * w;
    };
    b = {mix(b.r, t.r), mix(b.g, t.g), mix(b.b, t.b), std::max(b.a, w)};
  }
}

}  // namespace

void BlendColourRow(std::span<Colour> base, std::span<const Colour> top, std::span<const float> weights, Int32 mode,
                    float opacity) {
  using Loop = void (*)(std::span<Colour>, std::span<const Colour>, std::span<const float>, float);
  // In the stored order of the modes.
  static constexpr Loop kLoops[] = {
      BlendLoop<BLENDMODE::NORMAL>,         BlendLoop<BLENDMODE::ADD>,        BlendLoop<BLENDMODE::SUBTRACT>,
      BlendLoop<BLENDMODE::MULTIPLY>,       BlendLoop<BLENDMODE::DIVIDE>,     BlendLoop<BLENDMODE::LOWEST>,
      BlendLoop<BLENDMODE::HIGHEST>,        BlendLoop<BLENDMODE::DIFFERENCE>, BlendLoop<BLENDMODE::PHOENIX>,
      BlendLoop<BLENDMODE::PHOENIXINVERSE>, BlendLoop<BLENDMODE::OVERLAY>,    BlendLoop<BLENDMODE::NEGATION>,
      BlendLoop<BLENDMODE::SCREEN>,         BlendLoop<BLENDMODE::SOFTLIGHT>,  BlendLoop<BLENDMODE::HARDLIGHT>};
  static_assert(std::size(kLoops) == static_cast<size_t>(BLENDMODE::HARDLIGHT) + 1);
  // An unknown mode leaves the layers below as they are.
  if (mode >= 0 && static_cast<size_t>(mode) < std::size(kLoops)) kLoops[mode](base, top, weights, opacity);
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
