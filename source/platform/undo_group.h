#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/document.h"

namespace platform {

// Where a node sits: under which parent (0: the top level), after which sibling (0: first),
// in which of the parent's lists.
struct NodePlace {
  UInt64 parent = 0;
  UInt64 pred = 0;
  bool branch = false;  // in the parent's second branch (the top level's: the materials)
};

// What a change step restores besides the place.
struct NodeState {
  std::string name;
  bool enabled = true;
  Visibility editorVisibility = Visibility::DEFAULT;
  Visibility renderVisibility = Visibility::DEFAULT;
  ParameterContainer parameters;
  std::vector<NodeLink> textureLinks;
  Matrix localMatrix;
};

// One recorded step. Applying it swaps what it holds with what the document has, so the
// same step serves undo and redo.
struct UndoStep {
  UndoType type = UNDOTYPE_CHANGE;
  UInt64 identity = 0;
  NodeState state;                 // change steps
  NodePlace place;                 // change, new and delete steps
  std::unique_ptr<Node> detached;  // the node while it is out of the document
};

struct UndoGroup {
  std::vector<UndoStep> steps;
  std::vector<UInt64> selectionBefore;
  std::vector<UInt64> selectionAfter;
};

}  // namespace platform
