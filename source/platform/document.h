#pragma once

#include <filesystem>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/node.h"
#include "platform/parameters.h"
#include "platform/result.h"
#include "platform/types.h"

namespace platform {

class Host;
struct UndoGroup;

enum class SelectionMode {
  NEW,  // the node alone
  ADD,  // after the nodes already selected
  DEL,  // remove the node from the selection
};

// Undo step kinds.
enum UndoType : Int32 {
  UNDOTYPE_CHANGE = 40,        // before a change of a node's parameters, state or place
  UNDOTYPE_CHANGE_SMALL = 42,  // before a change of a node's parameters only
  UNDOTYPE_NEWOBJ = 44,        // after a node was inserted
  UNDOTYPE_DELETEOBJ = 45,     // before a node is removed
};

// A scene: a tree of nodes with a selection, an undo stack and its own copy of any
// preference containers the scene overrides.
class Document {
 public:
  explicit Document(Host& host);
  ~Document();
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  [[nodiscard]] Host& GetHost() const { return *host_; }

  // A new detached node of a registered type, its defaults written by its data's Init.
  Result<std::unique_ptr<Node>> CreateNode(Int32 typeId);
  Result<std::unique_ptr<Node>> CreateNode(std::string_view resourceName);
  // A detached copy of `node` and its children: parameters, state, matrix and the data's
  // CopyTo; new identities. Links between the copied nodes are not redirected.
  Result<std::unique_ptr<Node>> Clone(const Node& node);

  // Inserts a detached node (and its children). `parent` nullptr means the top level.
  Node* InsertFirst(std::unique_ptr<Node> node, Node* parent = nullptr);
  Node* InsertLast(std::unique_ptr<Node> node, Node* parent = nullptr);
  Node* InsertBefore(std::unique_ptr<Node> node, Node& sibling);
  Node* InsertAfter(std::unique_ptr<Node> node, Node& sibling);
  // Appends to a node's second branch (nullptr: the document's materials).
  Node* InsertBranchLast(std::unique_ptr<Node> node, Node* owner);
  // Appends a material (a node whose type is an instance of ID_BASE_MATERIAL) to the
  // document's materials, which live beside the objects.
  Node* InsertMaterial(std::unique_ptr<Node> material);
  // Whether `node` may go under `parent` or before `before` (either may be null) as its kind
  // allows: objects among the objects, materials among the document's materials, shaders into
  // a material or under a shader. The refusal says where it goes.
  [[nodiscard]] Status CanPlace(const Node& node, const Node* parent, const Node* before) const;
  // Inserts a detached node where CanPlace allows it: before `before`, else a material last
  // among the materials, a shader last in a material or among a shader's inputs (`mask`: in
  // that shader's second branch, its mask), an object last under `parent`.
  Result<Node*> Place(std::unique_ptr<Node> node, Node* parent, Node* before, bool mask = false);
  // Takes a node and its children out of the document; they leave the selection and their
  // links stop resolving.
  std::unique_ptr<Node> Remove(Node& node);

  [[nodiscard]] Node* GetFirstObject() const;
  // Every object, depth first; materials and their shaders are not among them.
  [[nodiscard]] std::vector<Node*> AllNodes() const;
  [[nodiscard]] Node* GetFirstMaterial() const;
  // Every material with its shaders, depth first.
  [[nodiscard]] std::vector<Node*> AllMaterials() const;
  [[nodiscard]] Node* FindByIdentity(UInt64 identity) const;
  [[nodiscard]] Node* Resolve(NodeLink link) const { return FindByIdentity(link.target); }
  [[nodiscard]] Node* FindByName(std::string_view name) const;

  void SetActiveObject(Node* node, SelectionMode mode = SelectionMode::NEW);
  // The selected nodes in the order they were selected.
  [[nodiscard]] std::vector<Node*> GetActiveObjects() const;

  // A user edit: checks the value against the node's description (numbers convert to the
  // described type; other types are refused), stores it, and sends the node's data the
  // parameter-changed and post-set-parameter messages.
  Status SetParameter(Node& node, ParameterId id, Value value);
  // A button press: MSG_DESCRIPTION_COMMAND with the button's ID.
  bool PressButton(Node& node, ParameterId id);

  // The document's container of a world plug-in ID: its own when the scene overrides it,
  // else the application's (created empty when missing).
  ParameterContainer& GetWorldPluginData(Int32 id);
  // Gives the document its own copy of the container, the application's values first.
  ParameterContainer& OverrideWorldPluginData(Int32 id);
  [[nodiscard]] const std::unordered_map<Int32, ParameterContainer>& WorldOverrides() const { return worldOverrides_; }

  // Builds the caches of all generators depth first, as the editor does before it draws.
  // The first error is returned after its text was printed on the console; the other
  // generators are still built.
  Status ExecutePasses(const HierarchyHelp& help);
  // The modelling command "current state to object": builds `node` now and hands over what
  // it generated. Fails when the build fails or the node generates nothing.
  Result<std::shared_ptr<GeometryObject>> CurrentStateToObject(Node& node, const HierarchyHelp& help);

  // Undo. Steps are recorded only between StartUndo and EndUndo; groups nest, the
  // outermost one becomes one undo entry. A new group drops everything that could be
  // redone.
  void StartUndo();
  Status AddUndo(UndoType type, Node& node);
  void EndUndo();
  bool DoUndo();
  bool DoRedo();
  [[nodiscard]] Int UndoCount() const { return static_cast<Int>(undoStack_.size()); }
  [[nodiscard]] Int RedoCount() const { return static_cast<Int>(redoStack_.size()); }

  // The folder of the scene file the document was read from (empty: none, or the working
  // folder), where files that nodes name by relative paths are looked for, so that a scene
  // and its images move together.
  void SetFolder(std::filesystem::path folder) { folder_ = std::move(folder); }
  [[nodiscard]] std::filesystem::path ResolveFile(const std::filesystem::path& file) const {
    return file.empty() || file.is_absolute() || folder_.empty() ? file : folder_ / file;
  }

 private:
  friend class Node;
  void Attach(Node& node);
  void Detach(Node& node);
  Node* Link(std::unique_ptr<Node> node, Node& parent, Node* pred, bool branch = false);
  Result<std::unique_ptr<Node>> CloneKeepingIdentity(const Node& node, bool keepIdentity);
  void ApplyUndo(UndoGroup& group, bool undo);

  Host* host_;
  std::unique_ptr<Node> root_;  // parent of the top-level nodes; never shown
  std::unordered_map<UInt64, Node*> nodes_;
  std::vector<UInt64> selection_;
  std::unordered_map<Int32, ParameterContainer> worldOverrides_;
  std::vector<std::unique_ptr<UndoGroup>> undoStack_;
  std::vector<std::unique_ptr<UndoGroup>> redoStack_;
  std::filesystem::path folder_;
  std::unique_ptr<UndoGroup> openGroup_;
  Int32 undoDepth_ = 0;
};

}  // namespace platform
