#pragma once

#include <memory>
#include <vector>

#include "platform/image.h"
#include "platform/node_data.h"
#include "platform/parameters.h"
#include "platform/registry.h"
#include "platform/result.h"
#include "platform/types.h"

namespace platform {

class Document;
class Node;

// The type every material is an instance of.
inline constexpr Int32 ID_BASE_MATERIAL = 5702;

enum MaterialParameter : ParameterId {
  MATERIAL_ROUGHNESS = 2001,  // Float 0..1, given to mesh files with the baked colour
  MATERIAL_METALLIC = 2002,   // Float 0..1
  MATERIAL_MASK = 2003,       // Bool: bakes a linear 16-bit grey mask instead of an sRGB colour
};

// A material baked for one terrain: its texture and what it was baked from.
struct MaterialBake {
  UInt64 terrain = 0;  // the terrain's identity
  UInt64 key = 0;      // a hash of everything the bake read; another key bakes again
  std::shared_ptr<const Image> image;
  Float seconds = 0.0;
};

// A material: its shader tree is its second branch, the shaders' inputs their children and
// second branches. Asked to update (MSG_UPDATE) when something its shaders read changed;
// bakers and views compare the update count with the one they last saw.
class MaterialData : public NodeData {
 public:
  bool Init(Node& node) override;
  bool Message(Node& node, Int32 type, MessageData& data) override;
  bool CopyTo(NodeData& destination) const override;
  [[nodiscard]] UInt32 UpdateCount() const { return updates_; }
  [[nodiscard]] const MaterialBake* FindBake(UInt64 terrain) const;
  // Replaces the bake for the same terrain.
  Status StoreBake(MaterialBake bake);

 private:
  UInt32 updates_ = 0;
  std::vector<MaterialBake> bakes_;
};

// A link to a node that is resolved against a document on every use, so a target that was
// deleted reads as nullptr instead of a dangling pointer.
class BaseLink {
 public:
  void SetLink(const Node* node);
  [[nodiscard]] Node* GetLink(const Document& document) const;

 private:
  NodeLink link_;
};

// Registers the material type ("Mmaterial"); the application's own, like the field types.
Status RegisterMaterialType(Registry& registry);

}  // namespace platform
