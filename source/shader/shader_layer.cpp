#include "shader/shader_layer.h"

#include <new>

#include "platform/description.h"

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
  explicit LayerProgram(std::vector<Layer> layers) : layers_(std::move(layers)) {}

  void ShadeRow(Int y, std::span<Colour> out, RowScratch& scratch) const override {
    std::fill(out.begin(), out.end(), Colour{0.0f, 0.0f, 0.0f, 0.0f});
    const std::span<Colour> top = scratch.Borrow().first(out.size());
    const std::span<float> weights = scratch.BorrowValues().first(out.size());
    for (const Layer& layer : layers_) {
      layer.colour->ShadeRow(y, top, scratch);
      ShadeInputRow(layer.mask.get(), y, weights, scratch, 1.0f);
      BlendColourRow(out, top, weights, layer.mode, layer.opacity);
    }
    scratch.ReleaseValues();
    scratch.Release();
  }

 private:
  std::vector<Layer> layers_;
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
