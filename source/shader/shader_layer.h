#pragma once

#include "shader/shader.h"

namespace VLGD {

// Stacks its inputs bottom to top: each enabled input is blended over the ones before it
// with its own layer blend mode and opacity, the opacity weighed by the input's mask (the
// first shader of its second branch) where it has one.
class LayerShader final : public ShaderData {
 public:
  Result<std::unique_ptr<ShaderProgram>> Compile(Node& shader, const ShadeContext& context) override;
};

const platform::TypeDescriptor& LayerShaderType();

// The shaders of the list starting at `first` stacked as a layer shader stacks its inputs.
Result<std::unique_ptr<ShaderProgram>> CompileLayers(Node* first, const ShadeContext& context);

}  // namespace VLGD
