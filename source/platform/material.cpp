#include "platform/material.h"

#include <new>

#include "platform/document.h"
#include "platform/node.h"

namespace platform {

bool MaterialData::Init(Node& node) {
  return node.GetTypeInfo().description.WriteDefaults(node.GetDataInstance()).has_value();
}

bool MaterialData::Message(Node& node, Int32 type, MessageData& data) {
  (void)node;
  (void)data;
  if (type == MSG_UPDATE) ++updates_;
  return true;
}

bool MaterialData::CopyTo(NodeData& destination) const {
  // A copy has baked nothing yet; it starts its own count.
  return dynamic_cast<MaterialData*>(&destination) != nullptr;
}

const MaterialBake* MaterialData::FindBake(UInt64 terrain) const {
  for (const MaterialBake& bake : bakes_)
    if (bake.terrain == terrain) return &bake;
  return nullptr;
}

Status MaterialData::StoreBake(MaterialBake bake) {
  for (MaterialBake& existing : bakes_) {
    if (existing.terrain != bake.terrain) continue;
    existing = std::move(bake);
    return Ok();
  }
  try {
    bakes_.push_back(std::move(bake));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError("Could not keep a baked texture!");
  }
  return Ok();
}

void BaseLink::SetLink(const Node* node) {
  link_ = NodeLink{node != nullptr ? node->Identity() : 0};
}

Node* BaseLink::GetLink(const Document& document) const {
  return link_.target != 0 ? document.Resolve(link_) : nullptr;
}

Status RegisterMaterialType(Registry& registry) {
  try {
    Description description;
    description.resourceName = "Mmaterial";
    description.parameters.push_back(
        DescribeParameter(MATERIAL_ROUGHNESS, "MATERIAL_ROUGHNESS", ValueType::FLOAT, 0.9).Limits(0.0, 1.0));
    description.parameters.push_back(
        DescribeParameter(MATERIAL_METALLIC, "MATERIAL_METALLIC", ValueType::FLOAT, 0.0).Limits(0.0, 1.0));
    description.parameters.push_back(DescribeParameter(MATERIAL_MASK, "MATERIAL_MASK", ValueType::BOOL, false));
    PluginInfo info;
    info.id = ID_BASE_MATERIAL;
    info.kind = PluginKind::OBJECT;
    info.resourceName = "Mmaterial";
    info.objectInfo = OBJECT_MATERIAL;
    info.allocate = [] { return std::make_unique<MaterialData>(); };
    return registry.RegisterNodeType(std::move(info), description);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

}  // namespace platform
