#include "command/command_blendmode.h"

#include <new>

#include "common/vlgd_icons.h"
#include "platform/host.h"
#include "platform/parameter_reader.h"
#include "vellgrund/blend.h"
#include "vellgrund/string_ids.h"

namespace VLGD {

Result<std::vector<Node*>> BaseCycleBlendmodeCommand::CollectTargets(const Document& doc) {
  try {
    std::vector<Node*> targets;
    for (Node* node : doc.GetActiveObjects()) {
      if (!node->IsInstanceOf(ID_BASETERRAINOPERATOR)) continue;
      const auto* op = node->GetNodeData<BaseTerrainOperatorData>();
      if (op != nullptr && HasFlag(op->GetFlags(*node), TERRAINOPERATORFLAGS::TYPE_GENERATOR)) targets.push_back(node);
    }
    return targets;
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError();
  }
}

Status BaseCycleBlendmodeCommand::Step(Document& doc, Node* op) const {
  if (op == nullptr) return platform::IllegalArgumentError("op must not be NULL!");
  const Int32 mode = platform::ParameterReader(*op).GetInt32(TERRAINOPERATOR_BLENDMODE);
  VLGD_RETURN_IF_ERROR(doc.AddUndo(platform::UNDOTYPE_CHANGE_SMALL, *op));
  VLGD_RETURN_IF_ERROR(op->SetParameter(TERRAINOPERATOR_BLENDMODE, Successor(mode)));
  // The same marking the curve operator gives after applying a preset.
  op->SetDirty(platform::DIRTYFLAGS_DATA);
  return platform::Ok();
}

Result<bool> BaseCycleBlendmodeCommand::Execute(Document& doc, const platform::CommandInput&) {
  VLGD_ASSIGN_OR_RETURN(const std::vector<Node*> targets, CollectTargets(doc));
  if (targets.empty()) return true;
  doc.StartUndo();
  Status status = platform::Ok();
  for (Node* op : targets)
    if (status = Step(doc, op); !status) break;
  doc.EndUndo();
  doc.GetHost().RequestUpdate();
  if (!status) return std::unexpected(status.error());
  return true;
}

Int32 BaseCycleBlendmodeCommand::GetState(Document& doc, const platform::CommandInput&) {
  const Result<std::vector<Node*>> targets = CollectTargets(doc);
  return targets && !targets->empty() ? platform::CMD_ENABLED : platform::CMD_DISABLED;
}

Int32 NextBlendmodeCommand::Successor(Int32 mode) const { return NextBlendMode(mode); }

Int32 PreviousBlendmodeCommand::Successor(Int32 mode) const { return PreviousBlendMode(mode); }

const platform::TypeDescriptor& NextBlendmodeCommandType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::COMMAND,
                                             .id = ID_NEXTBLENDMODECOMMAND,
                                             .resourceName = "NextBlendmodeCommand",
                                             .sort = 45,
                                             .icon = MainSheetIcon(64, 128),
                                             .nameStringId = STRING_NEXT_BLENDMODE,
                                             .helpStringId = STRING_NEXT_BLENDMODE_HELP,
                                             .command = platform::CommandOf<NextBlendmodeCommand>(),
                                             .iconPartner = &PreviousBlendmodeCommandType()};
  return type;
}

const platform::TypeDescriptor& PreviousBlendmodeCommandType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::COMMAND,
                                             .id = ID_PREVIOUSBLENDMODECOMMAND,
                                             .resourceName = "PreviousBlendmodeCommand",
                                             .sort = 45,
                                             .icon = MainSheetIcon(128, 128),
                                             .nameStringId = STRING_PREVIOUS_BLENDMODE,
                                             .helpStringId = STRING_PREVIOUS_BLENDMODE_HELP,
                                             .command = platform::CommandOf<PreviousBlendmodeCommand>()};
  return type;
}

}  // namespace VLGD
