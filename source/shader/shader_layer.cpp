#include "shader/shader_layer.h"

#include <algorithm>
#include <new>
#include <span>

#include "platform/description.h"
#include "vellgrund/blend.h"

namespace VLGD {
namespace {

struct Layer {
  std::unique_ptr<ShaderProgram> colour;
  std::unique_ptr<ShaderProgram> mask;  // none: opacity alone
  Int32 mode = 0;
  float opacity = 1.0f;
};

class LayerProgram final : public ShaderProgram {
 public:
  explicit LayerProgram(std::vector<Layer> layers) : layers_(std::move(layers)) {
    // A first layer of one colour, unmasked and normal, is what the stack starts from: the
    // blend over nothing would give that colour at its weight.
    if (layers_.empty() || layers_.front().mask != nullptr ||
        layers_.front().mode != static_cast<Int32>(BLENDMODE::NORMAL))
      return;
    if (const Colour* colour = layers_.front().colour->Constant()) {
      const float weight = std::clamp(layers_.front().opacity * colour->a, 0.0f, 1.0f);
      const auto weighed = [weight](float channel) { return std::clamp(channel, 0.0f, 1.0f) * weight; };
      ground_ = {weighed(colour->r), weighed(colour->g), weighed(colour->b), weight};
      firstBlended_ = 1;
    }
  }

  void ShadeSpan(const Span& span, kernels::Channels out, SpanScratch& scratch) const override {
    FillSpan(out, ground_);
    const auto count = static_cast<size_t>(span.count);
    const kernels::Channels top = scratch.BorrowColours();
    float* weights = scratch.BorrowValues();
    for (const Layer& layer : std::span(layers_).subspan(firstBlended_)) {
      const float* weighed = nullptr;
      if (layer.mask != nullptr) {
        layer.mask->ShadeGrey(span, weights, scratch);
        weighed = weights;
      }
      if (const Colour* colour = layer.colour->Constant()) {
        const float constant[4] = {colour->r, colour->g, colour->b, colour->a};
        kernels::BlendConstantSpan(layer.mode, out, constant, weighed, layer.opacity, count);
      } else {
        layer.colour->ShadeSpan(span, top, scratch);
        kernels::BlendSpan(layer.mode, out, {top.r, top.g, top.b, top.a}, weighed, layer.opacity, count);
      }
    }
    scratch.ReleaseValues();
    scratch.ReleaseColours();
  }

 private:
  std::vector<Layer> layers_;
  Colour ground_{0.0f, 0.0f, 0.0f, 0.0f};
  size_t firstBlended_ = 0;
};

platform::Description LayerShaderDescription() {
  return {"xlayershader", {std::string(kBaseShaderResource)}, {}};
}

}  // namespace

Result<std::unique_ptr<ShaderProgram>> LayerShader::Compile(Node& shader, const ShadeContext& context) {
  return CompileLayers(shader.GetDown(), context);
}

Result<std::unique_ptr<ShaderProgram>> CompileLayers(Node* first, const ShadeContext& context) {
  std::vector<Layer> layers;
  try {
    for (Node* input = first; input != nullptr; input = input->GetNext()) {
      auto* data = input->GetNodeData<ShaderData>();
      if (!input->IsEnabled() || data == nullptr) continue;
      Layer layer;
      VLGD_ASSIGN_OR_RETURN(layer.colour, data->Compile(*input, context));
      if (layer.colour == nullptr) continue;
      VLGD_ASSIGN_OR_RETURN(layer.mask, CompileFirst(input->GetBranch(), context));
      layer.mode = input->GetData().GetInt32(SHADER_LAYER_BLEND, 0);
      layer.opacity = static_cast<float>(input->GetData().GetFloat(SHADER_LAYER_OPACITY, 1.0));
      layers.push_back(std::move(layer));
    }
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError("Could not prepare the layers of a shader!");
  }
  return std::make_unique<LayerProgram>(std::move(layers));
}

const platform::TypeDescriptor& LayerShaderType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_LAYERSHADER,
                                             .resourceName = "xlayershader",
                                             .objectInfo = platform::OBJECT_SHADER,
                                             .allocate = platform::AllocatorOf<LayerShader>(),
                                             .describe = LayerShaderDescription};
  return type;
}

}  // namespace VLGD
