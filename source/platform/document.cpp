#include "platform/document.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <new>
#include <variant>

#include "platform/host.h"
#include "platform/registry.h"
#include "platform/undo_group.h"

namespace platform {
namespace {

UInt64 NextIdentity() {
  static std::atomic<UInt64> counter{0};
  return counter.fetch_add(1, std::memory_order_relaxed) + 1;
}

const PluginInfo& RootType() {
  static const PluginInfo root = [] {
    PluginInfo info;
    info.kind = PluginKind::DESCRIPTION;
    info.resourceName = "root";
    return info;
  }();
  return root;
}

std::string NodeLabel(const Node& node) {
  return "'" + (node.GetName().empty() ? node.GetTypeInfo().resourceName : node.GetName()) + "'";
}

bool IsNumeric(ValueType type) {
  return type == ValueType::BOOL || type == ValueType::INT32 || type == ValueType::INT64 || type == ValueType::FLOAT;
}

// A user's value in the type the description gives, brought into its limits as the scene
// loader brings a file's values (ClampToLimits); a choice must name a member.
Result<Value> Conform(const Node& node, const ParameterDescription& parameter, Value value) {
  const std::string where = "Parameter " + parameter.symbol + " of " + NodeLabel(node);
  if (parameter.kind != ParameterKind::VALUE || parameter.readOnly)
    return IllegalArgumentError(where + " cannot be set!");
  if (parameter.type == ValueType::VECTOR && value.Type() == ValueType::VECTOR) {
    Vector v = *std::get_if<Vector>(&value.Data());
    for (Float* component : {&v.x, &v.y, &v.z}) {
      if (!std::isfinite(*component)) return IllegalArgumentError(where + " must be a finite number!");
      *component = ClampToLimits(parameter, *component);
    }
    return Value(v);
  }
  if (value.Type() == parameter.type && !IsNumeric(parameter.type)) return value;
  if (!IsNumeric(parameter.type) || !IsNumeric(value.Type()))
    return IllegalArgumentError(where + " does not take a value of this type!");
  if (!std::isfinite(value.ToFloat(0.0))) return IllegalArgumentError(where + " must be a finite number!");
  switch (parameter.type) {
    case ValueType::BOOL:
      return Value(value.ToBool(false));
    case ValueType::INT32:
    case ValueType::INT64: {
      Int integer = value.ToInt64(0);
      const Enumeration* enumeration = parameter.enumeration.empty()
                                           ? nullptr
                                           : node.GetHost().GetRegistry().Enumerations().Find(parameter.enumeration);
      if (enumeration != nullptr && !enumeration->isFlagSet) {
        // A choice has no nearest member to fall back on.
        if (!enumeration->NameOf(integer))
          return IllegalArgumentError(where + ": " + std::to_string(integer) + " is not a member of " +
                                      parameter.enumeration + "!");
      } else {
        integer = ClampToLimits(parameter, integer);
      }
      if (parameter.type == ValueType::INT64) return Value(integer);
      return Value(Value(integer).ToInt32(0));
    }
    default:
      return Value(ClampToLimits(parameter, value.ToFloat(0.0)));
  }
}

}  // namespace

Document::Document(Host& host) : host_(&host), root_(new Node(host, RootType(), nullptr, 0)) {
  root_->document_ = this;
}

Document::~Document() = default;

Result<std::unique_ptr<Node>> Document::CreateNode(Int32 typeId) {
  const PluginInfo* type = host_->GetRegistry().Find(typeId);
  if (type == nullptr || !type->allocate)
    return IllegalArgumentError("Unknown node type " + std::to_string(typeId) + "!");
  try {
    std::unique_ptr<NodeData> data = type->allocate();
    if (data == nullptr) return OutOfMemoryError("Could not allocate a node of type " + type->resourceName + "!");
    std::unique_ptr<Node> node(new Node(*host_, *type, std::move(data), NextIdentity()));
    const StringTable& strings = host_->GetStrings();
    node->name_ = type->nameStringId != 0 && strings.Contains(type->nameStringId) ? strings.Get(type->nameStringId)
                                                                                 : type->resourceName;
    if (!node->data_->Init(*node))
      return GenericError("Could not initialise a node of type " + type->resourceName + "!");
    return node;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError("Could not allocate a node of type " + type->resourceName + "!");
  }
}

Result<std::unique_ptr<Node>> Document::CreateNode(std::string_view resourceName) {
  const PluginInfo* type = host_->GetRegistry().FindByResourceName(resourceName);
  if (type == nullptr) return IllegalArgumentError("Unknown node type " + std::string(resourceName) + "!");
  return CreateNode(type->id);
}

Result<std::unique_ptr<Node>> Document::Clone(const Node& node) { return CloneKeepingIdentity(node, false); }

Result<std::unique_ptr<Node>> Document::CloneKeepingIdentity(const Node& node, bool keepIdentity) {
  try {
    std::unique_ptr<NodeData> data = node.type_->allocate ? node.type_->allocate() : nullptr;
    if (data == nullptr) return OutOfMemoryError("Could not clone " + NodeLabel(node) + "!");
    std::unique_ptr<Node> copy(
        new Node(*node.host_, *node.type_, std::move(data), keepIdentity ? node.identity_ : NextIdentity()));
    copy->name_ = node.name_;
    copy->enabled_ = node.enabled_;
    copy->textureLinks_ = node.textureLinks_;
    copy->editorVisibility_ = node.editorVisibility_;
    copy->renderVisibility_ = node.renderVisibility_;
    VLGD_RETURN_IF_ERROR(copy->parameters_.CopyFrom(node.parameters_));
    copy->localMatrix_ = node.localMatrix_;
    if (node.data_ != nullptr && !node.data_->CopyTo(*copy->data_))
      return GenericError("Could not copy the data of " + NodeLabel(node) + "!");
    for (const bool branch : {false, true}) {
      Node* last = nullptr;
      for (const Node* child = branch ? node.GetBranch() : node.GetDown(); child != nullptr; child = child->GetNext()) {
        VLGD_ASSIGN_OR_RETURN(std::unique_ptr<Node> childCopy, CloneKeepingIdentity(*child, keepIdentity));
        last = Link(std::move(childCopy), *copy, last, branch);
      }
    }
    return copy;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError("Could not clone " + NodeLabel(node) + "!");
  }
}

Node* Document::Link(std::unique_ptr<Node> node, Node& parent, Node* pred, bool branch) {
  if (node == nullptr) return nullptr;
  Node* raw = node.get();
  std::unique_ptr<Node>& slot = pred != nullptr ? pred->next_ : branch ? parent.branch_ : parent.firstChild_;
  raw->next_ = std::move(slot);
  if (raw->next_ != nullptr) raw->next_->pred_ = raw;
  raw->pred_ = pred;
  raw->up_ = &parent;
  raw->inBranch_ = branch;
  if (raw->next_ == nullptr && !branch) parent.lastChild_ = raw;
  slot = std::move(node);
  if (parent.document_ == this) Attach(*raw);
  return raw;
}

Node* Document::InsertFirst(std::unique_ptr<Node> node, Node* parent) {
  return Link(std::move(node), parent != nullptr ? *parent : *root_, nullptr);
}

Node* Document::InsertLast(std::unique_ptr<Node> node, Node* parent) {
  Node& target = parent != nullptr ? *parent : *root_;
  return Link(std::move(node), target, target.GetDownLast());
}

Node* Document::InsertBefore(std::unique_ptr<Node> node, Node& sibling) {
  if (sibling.up_ == nullptr) return nullptr;
  return Link(std::move(node), *sibling.up_, sibling.pred_, sibling.inBranch_);
}

Node* Document::InsertAfter(std::unique_ptr<Node> node, Node& sibling) {
  if (sibling.up_ == nullptr) return nullptr;
  return Link(std::move(node), *sibling.up_, &sibling, sibling.inBranch_);
}

Node* Document::InsertBranchLast(std::unique_ptr<Node> node, Node* owner) {
  Node& target = owner != nullptr ? *owner : *root_;
  Node* last = target.GetBranch();
  while (last != nullptr && last->GetNext() != nullptr) last = last->GetNext();
  return Link(std::move(node), target, last, true);
}

Node* Document::InsertMaterial(std::unique_ptr<Node> material) {
  return InsertBranchLast(std::move(material), nullptr);
}

namespace {

enum class Kind { OBJECT, MATERIAL, SHADER };

Kind KindOf(const Node& node) {
  const UInt32 info = node.GetTypeInfo().objectInfo;
  return (info & OBJECT_MATERIAL) != 0 ? Kind::MATERIAL : (info & OBJECT_SHADER) != 0 ? Kind::SHADER : Kind::OBJECT;
}

std::string Quoted(const Node& node) {
  return "'" + (node.GetName().empty() ? node.GetTypeInfo().resourceName : node.GetName()) + "'";
}

}  // namespace

Status Document::CanPlace(const Node& node, const Node* parent, const Node* before) const {
  const Node* at = before != nullptr ? before : parent;
  switch (KindOf(node)) {
    case Kind::OBJECT:
      if (at != nullptr && KindOf(*at) != Kind::OBJECT)
        return IllegalArgumentError("An object cannot go among the materials and shaders (" + Quoted(*at) + ").");
      return Ok();
    case Kind::MATERIAL:
      if (parent != nullptr && before == nullptr)
        return IllegalArgumentError("A material goes among the document's materials, not under " + Quoted(*parent) +
                                    ".");
      if (before != nullptr && KindOf(*before) != Kind::MATERIAL)
        return IllegalArgumentError("A material goes among the document's materials, not before " + Quoted(*before) +
                                    ".");
      return Ok();
    case Kind::SHADER:
      if (at == nullptr || KindOf(*at) == Kind::OBJECT || (before != nullptr && KindOf(*before) != Kind::SHADER))
        return IllegalArgumentError("A shader goes into a material, or under a shader as its input.");
      return Ok();
  }
  return Ok();
}

Result<Node*> Document::Place(std::unique_ptr<Node> node, Node* parent, Node* before, bool mask) {
  VLGD_RETURN_IF_ERROR(CanPlace(*node, parent, before));
  if (before != nullptr) return InsertBefore(std::move(node), *before);
  switch (KindOf(*node)) {
    case Kind::MATERIAL:
      return InsertMaterial(std::move(node));
    case Kind::SHADER:
      return KindOf(*parent) == Kind::MATERIAL || mask ? InsertBranchLast(std::move(node), parent)
                                                       : InsertLast(std::move(node), parent);
    case Kind::OBJECT:
      break;
  }
  return InsertLast(std::move(node), parent);
}

std::unique_ptr<Node> Document::Remove(Node& node) {
  Node* parent = node.up_;
  if (parent == nullptr) return nullptr;
  if (node.document_ == this)
    for (Node* current = &node; current != nullptr; current = current->GetNextDepthFirst(&node))
      if (current->data_ != nullptr) current->data_->Removing(*current, *this);
  std::unique_ptr<Node>& slot = node.pred_ != nullptr ? node.pred_->next_
                                : node.inBranch_      ? parent->branch_
                                                      : parent->firstChild_;
  std::unique_ptr<Node> taken = std::move(slot);
  slot = std::move(taken->next_);
  if (slot != nullptr) slot->pred_ = taken->pred_;
  else if (!taken->inBranch_)
    parent->lastChild_ = taken->pred_;
  taken->pred_ = nullptr;
  taken->up_ = nullptr;
  taken->inBranch_ = false;
  if (taken->document_ == this) Detach(*taken);
  return taken;
}

void Document::Attach(Node& node) {
  for (Node* current = &node; current != nullptr; current = current->GetNextDepthFirst(&node)) {
    current->document_ = this;
    nodes_[current->identity_] = current;
  }
}

void Document::Detach(Node& node) {
  for (Node* current = &node; current != nullptr; current = current->GetNextDepthFirst(&node)) {
    if (current->selected_) {
      current->selected_ = false;
      std::erase(selection_, current->identity_);
    }
    nodes_.erase(current->identity_);
  }
  // Cleared in a second pass: the walk above relies on document_ to find the top level.
  for (Node* current = &node; current != nullptr; current = current->GetNextDepthFirst(&node))
    current->document_ = nullptr;
}

Node* Document::GetFirstObject() const { return root_->GetDown(); }

Node* Document::GetFirstMaterial() const {
  return root_->GetBranch();
}

std::vector<Node*> Document::AllMaterials() const {
  std::vector<Node*> all;
  for (Node* current = GetFirstMaterial(); current != nullptr; current = current->GetNextDepthFirst())
    all.push_back(current);
  return all;
}

std::vector<Node*> Document::AllNodes() const {
  std::vector<Node*> all;
  for (Node* current = GetFirstObject(); current != nullptr; current = current->GetNextDepthFirst())
    all.push_back(current);
  return all;
}

Node* Document::FindByIdentity(UInt64 identity) const {
  const auto found = nodes_.find(identity);
  return found != nodes_.end() ? found->second : nullptr;
}

Node* Document::FindByName(std::string_view name) const {
  for (Node* current = GetFirstObject(); current != nullptr; current = current->GetNextDepthFirst())
    if (current->GetName() == name) return current;
  return nullptr;
}

void Document::SetActiveObject(Node* node, SelectionMode mode) {
  if (mode == SelectionMode::NEW) {
    for (const UInt64 identity : selection_)
      if (Node* selected = FindByIdentity(identity)) selected->selected_ = false;
    selection_.clear();
  }
  if (node == nullptr || node->document_ != this) return;
  if (mode == SelectionMode::DEL) {
    node->selected_ = false;
    std::erase(selection_, node->identity_);
    return;
  }
  if (node->selected_) return;
  node->selected_ = true;
  selection_.push_back(node->identity_);
}

std::vector<Node*> Document::GetActiveObjects() const {
  std::vector<Node*> active;
  for (const UInt64 identity : selection_)
    if (Node* node = FindByIdentity(identity)) active.push_back(node);
  return active;
}

Status Document::SetParameter(Node& node, ParameterId id, Value value) {
  if (const ParameterDescription* parameter = node.type_->description.Find(id)) {
    VLGD_ASSIGN_OR_RETURN(value, Conform(node, *parameter, std::move(value)));
  }
  VLGD_RETURN_IF_ERROR(node.SetParameter(id, std::move(value)));
  MessageData data;
  data.parameter = id;
  node.Message(MSG_DESCRIPTION_CHECKUPDATE, data);
  node.Message(MSG_DESCRIPTION_POSTSETPARAMETER, data);
  return Ok();
}

bool Document::PressButton(Node& node, ParameterId id) {
  MessageData data;
  data.parameter = id;
  return node.Message(MSG_DESCRIPTION_COMMAND, data);
}

ParameterContainer& Document::GetWorldPluginData(Int32 id) {
  const auto found = worldOverrides_.find(id);
  if (found != worldOverrides_.end()) return found->second;
  return host_->GetPreferences().GetWorldPluginData(id);
}

ParameterContainer& Document::OverrideWorldPluginData(Int32 id) {
  const auto found = worldOverrides_.find(id);
  if (found != worldOverrides_.end()) return found->second;
  ParameterContainer& own = worldOverrides_[id];
  if (const ParameterContainer* application = host_->GetPreferences().FindWorldPluginData(id))
    (void)own.CopyFrom(*application);  // out of memory leaves the defaults of the getters
  return own;
}

Status Document::ExecutePasses(const HierarchyHelp& help) {
  Status first = Ok();
  for (Node* node : AllNodes()) {
    if ((node->type_->objectInfo & OBJECT_GENERATOR) == 0) continue;
    auto* data = node->GetNodeData<ObjectData>();
    if (data == nullptr) continue;
    if (!node->IsActiveFor(help.purpose)) {
      node->TakeCache();
      continue;
    }
    auto built = data->GetVirtualObjects(*node, help);
    if (!built) {
      host_->GetConsole().Print(built.error().message);
      node->TakeCache();
      if (first) first = std::unexpected(built.error());
      continue;
    }
    if (*built != nullptr) node->SetCache(std::move(*built));
  }
  return first;
}

Result<std::shared_ptr<GeometryObject>> Document::CurrentStateToObject(Node& node, const HierarchyHelp& help) {
  auto* data = node.GetNodeData<ObjectData>();
  if (data == nullptr || (node.type_->objectInfo & OBJECT_GENERATOR) == 0)
    return IllegalArgumentError(NodeLabel(node) + " generates no geometry!");
  VLGD_ASSIGN_OR_RETURN(std::shared_ptr<GeometryObject> built, data->GetVirtualObjects(node, help));
  if (built == nullptr) built = node.TakeCache();
  if (built == nullptr) return GenericError(NodeLabel(node) + " generates no geometry!");
  return built;
}

}  // namespace platform
