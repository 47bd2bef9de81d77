#pragma once

#include "platform/material.h"
#include "shader/shader.h"

namespace VLGD {

enum TerrainOperatorShaderParameter : platform::ParameterId {
  TERRAINOPERATORSHADER_OPERATOR = 10001,  // Link: the terrain operator it reads
  TERRAINOPERATORSHADER_OUTPUT = 10002,    // TERRAINOPERATORSHADER_OUTPUT: what it reads
};

// What the shader reads of its operator, per sample.
enum class OPERATOROUTPUT : Int32 {
  RESULT = 0,     // the operator's own result, brought into 0 .. 1 over its range
  CHANGEMAP = 1,  // where a filter changed the terrain, 0 .. 1
  MASK = 2,       // the weight it was combined with: fields, slope and height range
};

// Shows an operator's output in a material. Registers its material with the operator when
// it first samples it, so that the operator's changes re-bake the material; unregisters
// when relinked or deleted.
class TerrainOperatorShader final : public ShaderData {
 public:
  Result<std::unique_ptr<ShaderProgram>> Compile(Node& shader, const ShadeContext& context) override;
  bool Message(Node& node, Int32 type, platform::MessageData& data) override;
  void Removing(Node& node, platform::Document& document) override;
  // How often the operator told it to refresh.
  [[nodiscard]] platform::UInt32 Refreshes() const { return refreshes_; }

 private:
  void Unregister(platform::Document& document);

  platform::BaseLink watched_;  // the operator its material is registered with
  platform::BaseLink material_;
  platform::UInt32 refreshes_ = 0;
};

const platform::TypeDescriptor& TerrainOperatorShaderType();

}  // namespace VLGD
