#include <new>
#include <utility>

#include "platform/document.h"
#include "platform/undo_group.h"

namespace platform {
namespace {

NodePlace PlaceOf(const Node& node) {
  NodePlace place;
  if (const Node* parent = node.GetUp()) place.parent = parent->Identity();
  if (const Node* pred = node.GetPred()) place.pred = pred->Identity();
  place.branch = node.IsInBranch();
  return place;
}

}  // namespace

void Document::StartUndo() {
  if (undoDepth_++ > 0) return;
  openGroup_ = std::make_unique<UndoGroup>();
  openGroup_->selectionBefore = selection_;
}

Status Document::AddUndo(UndoType type, Node& node) {
  if (openGroup_ == nullptr) return GenericError("AddUndo() needs an open undo group!");
  if (node.GetDocument() != this) return IllegalArgumentError("AddUndo() was given a node of another document!");
  try {
    UndoStep step;
    step.type = type;
    step.identity = node.Identity();
    step.place = PlaceOf(node);
    switch (type) {
      case UNDOTYPE_CHANGE:
        step.state.name = node.GetName();
        step.state.enabled = node.IsEnabled();
        step.state.editorVisibility = node.GetEditorVisibility();
        step.state.renderVisibility = node.GetRenderVisibility();
        step.state.localMatrix = node.GetMl();
        step.state.textureLinks = node.GetTextureLinks();
        [[fallthrough]];
      case UNDOTYPE_CHANGE_SMALL:
        VLGD_RETURN_IF_ERROR(step.state.parameters.CopyFrom(node.GetData()));
        break;
      case UNDOTYPE_NEWOBJ:
        break;
      case UNDOTYPE_DELETEOBJ: {
        // The caller frees the node after removing it, so undo keeps a copy with the same
        // identities, which makes links to it resolve again after undo.
        VLGD_ASSIGN_OR_RETURN(step.detached, CloneKeepingIdentity(node, true));
        break;
      }
      default:
        return IllegalArgumentError("Unknown undo type " + std::to_string(type) + "!");
    }
    openGroup_->steps.push_back(std::move(step));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError("Could not record an undo step!");
  }
  return Ok();
}

void Document::EndUndo() {
  if (undoDepth_ == 0 || --undoDepth_ > 0) return;
  std::unique_ptr<UndoGroup> group = std::move(openGroup_);
  if (group->steps.empty()) return;
  group->selectionAfter = selection_;
  redoStack_.clear();
  try {
    undoStack_.push_back(std::move(group));
  } catch (const std::bad_alloc&) {
    // Without room for the entry the edit simply cannot be undone; the document is intact.
  }
}

bool Document::DoUndo() {
  if (undoDepth_ > 0 || undoStack_.empty()) return false;
  std::unique_ptr<UndoGroup> group = std::move(undoStack_.back());
  undoStack_.pop_back();
  ApplyUndo(*group, true);
  redoStack_.push_back(std::move(group));
  return true;
}

bool Document::DoRedo() {
  if (undoDepth_ > 0 || redoStack_.empty()) return false;
  std::unique_ptr<UndoGroup> group = std::move(redoStack_.back());
  redoStack_.pop_back();
  ApplyUndo(*group, false);
  undoStack_.push_back(std::move(group));
  return true;
}

void Document::ApplyUndo(UndoGroup& group, bool undo) {
  const auto putBack = [this](std::unique_ptr<Node> node, const NodePlace& place) {
    Node* parent = place.parent != 0 ? FindByIdentity(place.parent) : nullptr;
    Node* pred = place.pred != 0 ? FindByIdentity(place.pred) : nullptr;
    if (pred != nullptr && pred->GetUp() == parent && pred->IsInBranch() == place.branch)
      return InsertAfter(std::move(node), *pred);
    return Link(std::move(node), parent != nullptr ? *parent : *root_, nullptr, place.branch);
  };
  const auto apply = [&](UndoStep& step) {
    // A node is out of the document after undoing its creation or redoing its deletion.
    const bool takeOut = (step.type == UNDOTYPE_NEWOBJ) == undo;
    if (step.type == UNDOTYPE_NEWOBJ || step.type == UNDOTYPE_DELETEOBJ) {
      if (takeOut) {
        if (Node* node = FindByIdentity(step.identity)) {
          step.place = PlaceOf(*node);
          step.detached = Remove(*node);
        }
      } else if (step.detached != nullptr) {
        putBack(std::move(step.detached), step.place);
      }
      return;
    }
    Node* node = FindByIdentity(step.identity);
    if (node == nullptr) return;
    std::swap(node->parameters_, step.state.parameters);
    node->SetDirty(DIRTYFLAGS_DATA);
    if (step.type != UNDOTYPE_CHANGE) return;
    std::string name = node->GetName();
    node->SetName(std::exchange(step.state.name, std::move(name)));
    node->SetEnabled(std::exchange(step.state.enabled, node->IsEnabled()));
    node->SetEditorVisibility(std::exchange(step.state.editorVisibility, node->GetEditorVisibility()));
    node->SetRenderVisibility(std::exchange(step.state.renderVisibility, node->GetRenderVisibility()));
    node->SetTextureLinks(std::exchange(step.state.textureLinks, node->GetTextureLinks()));
    node->SetMl(std::exchange(step.state.localMatrix, node->GetMl()));
    const NodePlace current = PlaceOf(*node);
    if (current.parent != step.place.parent || current.pred != step.place.pred || current.branch != step.place.branch) {
      std::unique_ptr<Node> moved = Remove(*node);
      putBack(std::move(moved), step.place);
    }
    step.place = current;
  };
  if (undo) {
    for (auto step = group.steps.rbegin(); step != group.steps.rend(); ++step) apply(*step);
  } else {
    for (UndoStep& step : group.steps) apply(step);
  }
  // Restore the selection of that moment, in its order.
  SetActiveObject(nullptr, SelectionMode::NEW);
  for (const UInt64 identity : undo ? group.selectionBefore : group.selectionAfter)
    SetActiveObject(FindByIdentity(identity), SelectionMode::ADD);
}

}  // namespace platform
