#include "platform/node.h"

#include <utility>

#include "platform/document.h"
#include "platform/registry.h"

namespace platform {

Node::Node(Host& host, const PluginInfo& type, std::unique_ptr<NodeData> data, UInt64 identity)
    : host_(&host), type_(&type), data_(std::move(data)), identity_(identity) {}

Node::~Node() {
  // Siblings own each other in a chain; free it in a loop so a long list does not recurse
  // once per sibling.
  std::unique_ptr<Node> next = std::move(next_);
  while (next) next = std::move(next->next_);
  next = std::move(branch_);
  while (next) next = std::move(next->next_);
}

Int32 Node::GetType() const { return type_->id; }

bool Node::IsInstanceOf(Int32 typeId) const {
  if (type_->id == typeId) return true;
  for (const Int32 base : type_->baseTypes)
    if (base == typeId) return true;
  return false;
}

Document* Node::GetDocument() const { return document_; }

Node* Node::GetUp() const {
  // The document's invisible root is nobody's parent as far as callers are concerned.
  if (up_ == nullptr || (document_ != nullptr && up_ == document_->root_.get())) return nullptr;
  return up_;
}

Node* Node::GetNextDepthFirst(const Node* root) const {
  if (firstChild_ != nullptr) return firstChild_.get();
  if (branch_ != nullptr) return branch_.get();
  const Node* current = this;
  while (current != nullptr && current != root) {
    if (current->next_ != nullptr) return current->next_.get();
    Node* up = current->GetUp();
    // The end of a child list leads to the owner's branch; the end of a branch to the
    // owner's next.
    if (up != nullptr && !current->inBranch_ && up->branch_ != nullptr) return up->branch_.get();
    current = up;
  }
  return nullptr;
}

bool Node::IsAncestorOf(const Node& other) const {
  for (const Node* current = &other; current != nullptr; current = current->up_)
    if (current == this) return true;
  return false;
}

void Node::SetName(std::string name) {
  if (name == name_) return;
  name_ = std::move(name);
  ++dirtyData_;
}

void Node::SetTextureLinks(std::vector<NodeLink> links) {
  if (links == textureLinks_) return;
  textureLinks_ = std::move(links);
  ++dirtyData_;
}

void Node::SetEnabled(bool enabled) {
  if (enabled == enabled_) return;
  enabled_ = enabled;
  ++dirtyData_;
}

void Node::SetEditorVisibility(Visibility mode) {
  if (mode == editorVisibility_) return;
  editorVisibility_ = mode;
  ++dirtyData_;
}

void Node::SetRenderVisibility(Visibility mode) {
  if (mode == renderVisibility_) return;
  renderVisibility_ = mode;
  ++dirtyData_;
}

bool Node::IsActiveFor(BuildPurpose purpose) const {
  const Visibility mode = purpose == BuildPurpose::RENDER ? renderVisibility_ : editorVisibility_;
  return enabled_ && mode != Visibility::OFF;
}

Status Node::SetParameter(ParameterId id, Value value) {
  const Value* current = parameters_.Find(id);
  if (current != nullptr && *current == value) return Ok();
  VLGD_RETURN_IF_ERROR(parameters_.Set(id, std::move(value)));
  ++dirtyData_;
  return Ok();
}

UInt32 Node::GetDirty(UInt32 flags) const {
  UInt32 sum = 0;
  if ((flags & DIRTYFLAGS_MATRIX) != 0) sum += dirtyMatrix_;
  if ((flags & DIRTYFLAGS_DATA) != 0) sum += dirtyData_;
  if ((flags & DIRTYFLAGS_CACHE) != 0) sum += dirtyCache_;
  return sum;
}

void Node::SetDirty(UInt32 flags) {
  if ((flags & DIRTYFLAGS_MATRIX) != 0) ++dirtyMatrix_;
  if ((flags & DIRTYFLAGS_DATA) != 0) ++dirtyData_;
  if ((flags & DIRTYFLAGS_CACHE) != 0) ++dirtyCache_;
}

void Node::SetMl(const Matrix& matrix) {
  if (matrix == localMatrix_) return;
  localMatrix_ = matrix;
  ++dirtyMatrix_;
}

Matrix Node::GetMg() const {
  Matrix global = localMatrix_;
  for (const Node* parent = GetUp(); parent != nullptr; parent = parent->GetUp()) global = parent->localMatrix_ * global;
  return global;
}

void Node::SetMg(const Matrix& matrix) {
  const Node* parent = GetUp();
  SetMl(parent != nullptr ? Inverse(parent->GetMg()) * matrix : matrix);
}

bool Node::CheckCache() const { return cache_ == nullptr || cacheDataDirty_ != dirtyData_; }

void Node::SetCache(std::unique_ptr<GeometryObject> cache) {
  cache_ = std::move(cache);
  cacheDataDirty_ = dirtyData_;
  ++dirtyCache_;
}

std::shared_ptr<GeometryObject> Node::TakeCache() {
  if (cache_ != nullptr) ++dirtyCache_;
  return std::move(cache_);
}

bool Node::Message(Int32 type, MessageData& data) { return data_ != nullptr && data_->Message(*this, type, data); }

bool Node::Message(Int32 type) {
  MessageData data;
  return Message(type, data);
}

}  // namespace platform
