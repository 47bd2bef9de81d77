#include "command/command_group.h"

#include <algorithm>
#include <memory>
#include <new>
#include <vector>

#include "common/vlgd_icons.h"
#include "platform/host.h"
#include "object/operator_group.h"
#include "vellgrund/string_ids.h"

namespace VLGD {
namespace {

Result<std::vector<Node*>> Selection(const Document& doc) {
  try {
    return doc.GetActiveObjects();
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError();
  }
}

// A selected group that holds the first selected object would end up inside itself.
bool Contains(const Node& ancestor, const Node& node) {
  for (const Node* up = node.GetUp(); up != nullptr; up = up->GetUp())
    if (up == &ancestor) return true;
  return false;
}

// Everything below runs inside an open undo group, which the caller closes whatever happens.
Status Group(Document& doc, const std::vector<Node*>& selected) {
  VLGD_ASSIGN_OR_RETURN(std::unique_ptr<Node> created, doc.CreateNode(ID_GROUPOPERATOR));
  Node* group = doc.InsertBefore(std::move(created), *selected.front());
  doc.SetActiveObject(group);
  VLGD_RETURN_IF_ERROR(doc.AddUndo(platform::UNDOTYPE_NEWOBJ, *group));
  for (Node* node : selected) {
    if (!node->IsInstanceOf(ID_BASETERRAINOPERATOR) || Contains(*node, *group)) continue;
    VLGD_RETURN_IF_ERROR(doc.AddUndo(platform::UNDOTYPE_CHANGE, *node));
    doc.InsertLast(doc.Remove(*node), group);  // leaving its place also leaves the selection
  }
  return platform::Ok();
}

Status Ungroup(Document& doc, Node& group) {
  const platform::Matrix groupMatrix = group.GetMl();
  while (Node* child = group.GetDown()) {
    VLGD_RETURN_IF_ERROR(doc.AddUndo(platform::UNDOTYPE_CHANGE, *child));
    Node* moved = doc.InsertBefore(doc.Remove(*child), group);
    // The group's matrix passes to the child, so that nothing moves in the world.
    moved->SetMl(groupMatrix * moved->GetMl());
    doc.SetActiveObject(moved, platform::SelectionMode::ADD);
  }
  VLGD_RETURN_IF_ERROR(doc.AddUndo(platform::UNDOTYPE_DELETEOBJ, group));
  doc.Remove(group);
  return platform::Ok();
}

}  // namespace

Result<bool> GroupOperatorsCommand::Execute(Document& doc, const platform::CommandInput&) {
  VLGD_ASSIGN_OR_RETURN(const std::vector<Node*> selected, Selection(doc));
  if (selected.empty()) return true;
  doc.StartUndo();
  const Status status = Group(doc, selected);
  doc.EndUndo();
  doc.GetHost().RequestUpdate();
  if (!status) return std::unexpected(status.error());
  return true;
}

Int32 GroupOperatorsCommand::GetState(Document& doc, const platform::CommandInput&) {
  const Result<std::vector<Node*>> selected = Selection(doc);
  const bool enabled = selected && !selected->empty() && std::ranges::all_of(*selected, [](const Node* node) {
    return node->IsInstanceOf(ID_BASETERRAINOPERATOR);
  });
  return enabled ? platform::CMD_ENABLED : platform::CMD_DISABLED;
}

Result<bool> UngroupOperatorsCommand::Execute(Document& doc, const platform::CommandInput&) {
  VLGD_ASSIGN_OR_RETURN(const std::vector<Node*> selected, Selection(doc));
  std::vector<platform::UInt64> groups;
  try {
    for (const Node* node : selected)
      if (node->GetType() == ID_GROUPOPERATOR) groups.push_back(node->Identity());
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError();
  }
  if (groups.empty()) return true;
  doc.StartUndo();
  doc.SetActiveObject(nullptr);
  Status status = platform::Ok();
  // By identity: ungrouping an outer group first leaves an inner one in the document.
  for (const platform::UInt64 identity : groups) {
    if (Node* group = doc.FindByIdentity(identity)) status = Ungroup(doc, *group);
    if (!status) break;
  }
  doc.EndUndo();
  doc.GetHost().RequestUpdate();
  if (!status) return std::unexpected(status.error());
  return true;
}

Int32 UngroupOperatorsCommand::GetState(Document& doc, const platform::CommandInput&) {
  const Result<std::vector<Node*>> selected = Selection(doc);
  const bool enabled = selected && std::ranges::any_of(*selected, [](const Node* node) {
    return node->GetType() == ID_GROUPOPERATOR;
  });
  return enabled ? platform::CMD_ENABLED : platform::CMD_DISABLED;
}

const platform::TypeDescriptor& GroupOperatorsCommandType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::COMMAND,
                                             .id = ID_GROUPOPERATORSCOMMAND,
                                             .resourceName = "GroupOperatorsCommand",
                                             .sort = 41,
                                             .icon = MainSheetIcon(192, 64),
                                             .nameStringId = STRING_GROUP_OPERATORS,
                                             .helpStringId = STRING_GROUP_OPERATORS_HELP,
                                             .command = platform::CommandOf<GroupOperatorsCommand>()};
  return type;
}

const platform::TypeDescriptor& UngroupOperatorsCommandType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::COMMAND,
                                             .id = ID_UNGROUPOPERATORSCOMMAND,
                                             .resourceName = "UngroupOperatorsCommand",
                                             .sort = 42,
                                             .icon = MainSheetIcon(384, 64),
                                             .nameStringId = STRING_UNGROUP_OPERATORS,
                                             .helpStringId = STRING_UNGROUP_OPERATORS_HELP,
                                             .command = platform::CommandOf<UngroupOperatorsCommand>()};
  return type;
}

}  // namespace VLGD
