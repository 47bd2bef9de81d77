// Comparing documents as their scene files would.

#include "platform/scene_file.h"

#include <unordered_map>
#include <variant>
#include <vector>

#include "platform/scene_codec.h"

namespace platform {
namespace {

using namespace scene_internal;

// Depth-first index of every node by identity; links compare by these.
std::unordered_map<UInt64, Int> IndexNodes(const std::vector<Node*>& nodes) {
  std::unordered_map<UInt64, Int> index;
  for (std::size_t i = 0; i < nodes.size(); ++i) index.emplace(nodes[i]->Identity(), static_cast<Int>(i));
  return index;
}

Int PlaceOf(const std::unordered_map<UInt64, Int>& index, UInt64 identity) {
  const auto found = index.find(identity);
  return identity != 0 && found != index.end() ? found->second : -1;
}

bool ValuesEqual(const Value* a, const Value* b, const std::unordered_map<UInt64, Int>& indexA,
                 const std::unordered_map<UInt64, Int>& indexB) {
  if (a == nullptr || b == nullptr) return a == b;
  if (a->Type() != b->Type()) return false;
  if (const auto* link = std::get_if<NodeLink>(&a->Data()))
    return PlaceOf(indexA, link->target) == PlaceOf(indexB, std::get<NodeLink>(b->Data()).target);
  if (const auto* list = std::get_if<NodeLinkList>(&a->Data())) {
    const auto& targetsB = std::get<NodeLinkList>(b->Data()).targets;
    if (list->targets.size() != targetsB.size()) return false;
    for (std::size_t i = 0; i < targetsB.size(); ++i)
      if (PlaceOf(indexA, list->targets[i]) != PlaceOf(indexB, targetsB[i])) return false;
    return true;
  }
  if (const auto* list = std::get_if<FieldList>(&a->Data())) {
    const auto layersA = list->Layers();
    const auto layersB = std::get<FieldList>(b->Data()).Layers();
    if (layersA.size() != layersB.size()) return false;
    for (std::size_t i = 0; i < layersA.size(); ++i) {
      FieldLayer placed = layersA[i];
      placed.field = layersB[i].field;  // compared by place below
      if (!(placed == layersB[i]) || PlaceOf(indexA, layersA[i].field) != PlaceOf(indexB, layersB[i].field))
        return false;
    }
    return true;
  }
  return *a == *b;
}

bool NodesEqual(const Node& a, const Node& b, const std::unordered_map<UInt64, Int>& indexA,
                const std::unordered_map<UInt64, Int>& indexB) {
  if (a.GetType() != b.GetType() || a.GetName() != b.GetName() || a.IsEnabled() != b.IsEnabled() ||
      a.GetEditorVisibility() != b.GetEditorVisibility() || a.GetRenderVisibility() != b.GetRenderVisibility() ||
      a.GetMl() != b.GetMl() || a.IsInBranch() != b.IsInBranch() ||
      a.GetTextureLinks().size() != b.GetTextureLinks().size())
    return false;
  for (std::size_t k = 0; k < a.GetTextureLinks().size(); ++k)
    if (PlaceOf(indexA, a.GetTextureLinks()[k].target) != PlaceOf(indexB, b.GetTextureLinks()[k].target)) return false;
  const Node* upA = a.GetUp();
  const Node* upB = b.GetUp();
  if (PlaceOf(indexA, upA != nullptr ? upA->Identity() : 0) != PlaceOf(indexB, upB != nullptr ? upB->Identity() : 0))
    return false;
  // What a file keeps: the described values users can edit.
  for (const ParameterDescription& parameter : a.GetTypeInfo().description.Parameters()) {
    if (!IsStored(parameter)) continue;
    if (!ValuesEqual(a.GetData().Find(parameter.id), b.GetData().Find(parameter.id), indexA, indexB)) return false;
  }
  return true;
}

}  // namespace

bool DocumentsEqual(const Document& a, const Document& b) {
  try {
    if (a.WorldOverrides() != b.WorldOverrides()) return false;
    std::vector<Node*> nodesA = a.AllNodes();
    std::vector<Node*> nodesB = b.AllNodes();
    for (auto [document, nodes] : {std::pair{&a, &nodesA}, std::pair{&b, &nodesB}}) {
      const std::vector<Node*> materials = document->AllMaterials();
      nodes->insert(nodes->end(), materials.begin(), materials.end());
    }
    if (nodesA.size() != nodesB.size()) return false;
    const auto indexA = IndexNodes(nodesA);
    const auto indexB = IndexNodes(nodesB);
    for (std::size_t i = 0; i < nodesA.size(); ++i)
      if (!NodesEqual(*nodesA[i], *nodesB[i], indexA, indexB)) return false;
    return true;
  } catch (const std::bad_alloc&) {
    return false;  // cannot tell; never claim equality
  }
}

}  // namespace platform
