#include "shader/shader_terrainoperator.h"

#include <algorithm>

#include "platform/description.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {
namespace {

class OperatorOutputProgram final : public GreyProgram {
 public:
  OperatorOutputProgram(const ShadeContext& context, const Grid2D<Float>* grid, std::span<const Float> mask,
                        bool normalise)
      : context_(context), grid_(grid), mask_(mask) {
    if (normalise && grid != nullptr && grid->Count() > 0) {
      const auto [low, high] = std::minmax_element(grid->Data(), grid->Data() + grid->Count());
      offset_ = -*low;
      scale_ = *high > *low ? 1.0 / (*high - *low) : 0.0;
    }
  }

  void ShadeGrey(const Span& span, float* out, SpanScratch& scratch) const override {
    (void)scratch;
    // A mask that weighed nothing is 1 everywhere; an operator never built reads 0.
    const bool fromMask = grid_ == nullptr;
    const Int width = fromMask ? context_.heights->Width() : grid_->Width();
    const Int height = fromMask ? context_.heights->Height() : grid_->Height();
    if ((fromMask && mask_.empty()) || width * height == 0 ||
        (fromMask && static_cast<Int>(mask_.size()) != width * height)) {
      std::fill_n(out, span.count, fromMask && mask_.empty() ? 1.0f : 0.0f);
      return;
    }
    SampleGridSpan(fromMask ? mask_.data() : grid_->Data(), width, height, context_, span, out);
    for (Int x = 0; x < span.count; ++x)
      out[x] = std::clamp(static_cast<float>((static_cast<Float>(out[x]) + offset_) * scale_), 0.0f, 1.0f);
  }

 private:
  ShadeContext context_;
  const Grid2D<Float>* grid_;
  std::span<const Float> mask_;
  Float offset_ = 0.0;
  Float scale_ = 1.0;
};

platform::Description TerrainOperatorShaderDescription() {
  using platform::DescribeParameter;
  using platform::ValueType;
  return {
      "xterrainoperatorshader",
      {std::string(kBaseShaderResource)},
      {
          DescribeParameter(TERRAINOPERATORSHADER_OPERATOR, "TERRAINOPERATORSHADER_OPERATOR", ValueType::LINK),
          DescribeParameter(TERRAINOPERATORSHADER_OUTPUT, "TERRAINOPERATORSHADER_OUTPUT", ValueType::INT32, Int32{0})
              .Choice("TERRAINOPERATORSHADER_OUTPUT", 0, 2),
      },
      {{"TERRAINOPERATORSHADER_OUTPUT", {{"RESULT", 0}, {"CHANGEMAP", 1}, {"MASK", 2}}}}};
}

}  // namespace

Result<std::unique_ptr<ShaderProgram>> TerrainOperatorShader::Compile(Node& shader, const ShadeContext& context) {
  platform::Document& doc = *context.doc;
  Node* op = doc.Resolve(shader.GetData().GetLink(TERRAINOPERATORSHADER_OPERATOR));
  auto* data =
      op != nullptr && op->IsInstanceOf(ID_BASETERRAINOPERATOR) ? op->GetNodeData<BaseTerrainOperatorData>() : nullptr;
  if (watched_.GetLink(doc) != op || material_.GetLink(doc) != context.material) Unregister(doc);
  if (data == nullptr) return ConstantColour(Colour{0.0f, 0.0f, 0.0f, 1.0f});
  VLGD_RETURN_IF_ERROR(data->Observers().AddObserver(context.material, &doc));
  watched_.SetLink(op);
  material_.SetLink(context.material);
  switch (static_cast<OPERATOROUTPUT>(shader.GetData().GetInt32(TERRAINOPERATORSHADER_OUTPUT, 0))) {
    case OPERATOROUTPUT::CHANGEMAP:
      return std::make_unique<OperatorOutputProgram>(context, &data->GetChangeMap(), std::span<const Float>{}, false);
    case OPERATOROUTPUT::MASK:
      return std::make_unique<OperatorOutputProgram>(context, nullptr, data->GetMask(), false);
    case OPERATOROUTPUT::RESULT:
    default:
      return std::make_unique<OperatorOutputProgram>(context, &data->GetResult(), std::span<const Float>{}, true);
  }
}

void TerrainOperatorShader::Unregister(platform::Document& document) {
  Node* op = watched_.GetLink(document);
  Node* material = material_.GetLink(document);
  if (op != nullptr && material != nullptr)
    if (auto* data = op->GetNodeData<BaseTerrainOperatorData>()) data->Observers().RemoveObserver(material, &document);
  watched_.SetLink(nullptr);
  material_.SetLink(nullptr);
}

bool TerrainOperatorShader::Message(Node& node, Int32 type, platform::MessageData& data) {
  if (type == ID_TERRAINOPERATORSHADER) {
    ++refreshes_;  // samples are taken at each bake; nothing else is kept to refresh
  } else if (type == platform::MSG_DESCRIPTION_POSTSETPARAMETER && data.parameter == TERRAINOPERATORSHADER_OPERATOR) {
    if (platform::Document* doc = node.GetDocument()) Unregister(*doc);
  }
  return true;
}

void TerrainOperatorShader::Removing(Node& node, platform::Document& document) {
  (void)node;
  Unregister(document);
}

const platform::TypeDescriptor& TerrainOperatorShaderType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_TERRAINOPERATORSHADER,
                                             .resourceName = "xterrainoperatorshader",
                                             .objectInfo = platform::OBJECT_SHADER,
                                             .allocate = platform::AllocatorOf<TerrainOperatorShader>(),
                                             .describe = TerrainOperatorShaderDescription};
  return type;
}

}  // namespace VLGD
