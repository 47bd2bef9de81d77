#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/geometry.h"
#include "platform/matrix.h"
#include "platform/messages.h"
#include "platform/node_data.h"
#include "platform/parameters.h"
#include "platform/result.h"
#include "platform/types.h"

namespace platform {

class Document;
class Host;
struct PluginInfo;

// Dirty counters a node keeps, one per flag; GetDirty sums those asked for.
enum DirtyFlags : UInt32 {
  DIRTYFLAGS_NONE = 0,
  DIRTYFLAGS_MATRIX = 2,  // the local matrix changed
  DIRTYFLAGS_DATA = 4,    // a parameter, the name or the enabled state changed
  DIRTYFLAGS_CACHE = 8,   // the generated geometry changed
};

// Whether a node takes part in editor or render builds.
enum class Visibility : Int32 {
  DEFAULT = 0,  // on, unless a parent switches it off
  ON = 1,
  OFF = 2,
};

// An object of a document: its type and data, parameters, place in the hierarchy, matrix,
// dirty counters and generated cache. Nodes are made by Document::CreateNode and owned by
// the document once inserted, or by a unique_ptr while detached.
class Node {
 public:
  ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  // Unique among all nodes of the process; kept by undo, new for clones and loaded nodes.
  [[nodiscard]] UInt64 Identity() const { return identity_; }
  [[nodiscard]] Int32 GetType() const;
  [[nodiscard]] const PluginInfo& GetTypeInfo() const { return *type_; }
  // The node's own type or one of its base types.
  [[nodiscard]] bool IsInstanceOf(Int32 typeId) const;
  [[nodiscard]] NodeData* GetNodeData() const { return data_.get(); }
  template <class T>
  [[nodiscard]] T* GetNodeData() const {
    return dynamic_cast<T*>(data_.get());
  }
  // The document the node is inserted in, or nullptr while detached.
  [[nodiscard]] Document* GetDocument() const;
  [[nodiscard]] Host& GetHost() const { return *host_; }

  [[nodiscard]] Node* GetUp() const;  // nullptr at the top level
  [[nodiscard]] Node* GetDown() const { return firstChild_.get(); }
  [[nodiscard]] Node* GetDownLast() const { return lastChild_; }
  [[nodiscard]] Node* GetNext() const { return next_.get(); }
  [[nodiscard]] Node* GetPred() const { return pred_; }
  // The first node of the second branch: a list of nodes that belong to this one beside its
  // children (a material's or a shader's own shaders). The document's materials are the
  // branch of its hidden root.
  [[nodiscard]] Node* GetBranch() const { return branch_.get(); }
  // Whether the node lies in its parent's second branch rather than among its children.
  [[nodiscard]] bool IsInBranch() const { return inBranch_; }
  // The next node of a depth-first walk (the node, its children, its second branch, then
  // its siblings and the parents' next), staying below `root` when one is given.
  [[nodiscard]] Node* GetNextDepthFirst(const Node* root = nullptr) const;
  // Whether `other` is this node or below it.
  [[nodiscard]] bool IsAncestorOf(const Node& other) const;

  [[nodiscard]] const std::string& GetName() const { return name_; }
  void SetName(std::string name);

  [[nodiscard]] bool IsEnabled() const { return enabled_; }
  void SetEnabled(bool enabled);
  [[nodiscard]] Visibility GetEditorVisibility() const { return editorVisibility_; }
  [[nodiscard]] Visibility GetRenderVisibility() const { return renderVisibility_; }
  void SetEditorVisibility(Visibility mode);
  void SetRenderVisibility(Visibility mode);
  // Enabled, and its visibility for the purpose (render or editor) is not switched off.
  [[nodiscard]] bool IsActiveFor(BuildPurpose purpose) const;
  // Selected in its document.
  [[nodiscard]] bool IsSelected() const { return selected_; }

  // The materials the node is textured with, in order (the first is the one a mesh file
  // carries). Links resolve in the node's document; a deleted material reads as nullptr.
  [[nodiscard]] const std::vector<NodeLink>& GetTextureLinks() const { return textureLinks_; }
  void SetTextureLinks(std::vector<NodeLink> links);

  // Reads of the parameters.
  [[nodiscard]] const ParameterContainer& GetData() const { return parameters_; }
  // Writes without dirty count or messages, for initialisation and file migrations.
  [[nodiscard]] ParameterContainer& GetDataInstance() { return parameters_; }
  // Stores a value and bumps the data dirty count. Editors use Document::SetParameter,
  // which also checks the type and tells the node's data.
  Status SetParameter(ParameterId id, Value value);

  [[nodiscard]] UInt32 GetDirty(UInt32 flags) const;
  void SetDirty(UInt32 flags);

  [[nodiscard]] const Matrix& GetMl() const { return localMatrix_; }
  void SetMl(const Matrix& matrix);
  // The product of the local matrices from the top level down to this node.
  [[nodiscard]] Matrix GetMg() const;
  void SetMg(const Matrix& matrix);

  // Generated geometry of the last build of a generator, or nullptr.
  [[nodiscard]] const GeometryObject* GetCache() const { return cache_.get(); }
  // The cache for a reader that may outlive the next build (a script holding a mesh's
  // arrays without copying them): a build replaces the cache, never changes it.
  [[nodiscard]] std::shared_ptr<const GeometryObject> ShareCache() const { return cache_; }
  // True when a generator must build: no cache, or the data changed since it was built.
  [[nodiscard]] bool CheckCache() const;
  void SetCache(std::unique_ptr<GeometryObject> cache);
  std::shared_ptr<GeometryObject> TakeCache();

  // Delivers a message to the node's data; true when handled.
  bool Message(Int32 type, MessageData& data);
  bool Message(Int32 type);

 private:
  friend class Document;
  Node(Host& host, const PluginInfo& type, std::unique_ptr<NodeData> data, UInt64 identity);

  Host* host_;
  const PluginInfo* type_;
  std::unique_ptr<NodeData> data_;
  UInt64 identity_;
  Document* document_ = nullptr;  // set while inserted
  Node* up_ = nullptr;            // the parent; the document's root for top-level nodes
  Node* pred_ = nullptr;
  std::unique_ptr<Node> next_;
  std::unique_ptr<Node> firstChild_;
  Node* lastChild_ = nullptr;  // so that appending a child does not walk the siblings
  std::unique_ptr<Node> branch_;
  bool inBranch_ = false;

  std::string name_;
  bool enabled_ = true;
  bool selected_ = false;
  Visibility editorVisibility_ = Visibility::DEFAULT;
  Visibility renderVisibility_ = Visibility::DEFAULT;
  ParameterContainer parameters_;
  std::vector<NodeLink> textureLinks_;
  Matrix localMatrix_;
  UInt32 dirtyData_ = 0;
  UInt32 dirtyMatrix_ = 0;
  UInt32 dirtyCache_ = 0;
  std::shared_ptr<GeometryObject> cache_;
  UInt32 cacheDataDirty_ = 0;
};

}  // namespace platform
