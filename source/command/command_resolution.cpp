#include "command/command_resolution.h"

#include <algorithm>
#include <new>

#include "common/vlgd_icons.h"
#include "platform/host.h"
#include "object/terrainobject.h"
#include "platform/messages.h"
#include "vellgrund/baseterrainoperator.h"
#include "vellgrund/string_ids.h"

namespace VLGD {
namespace {

constexpr Int32 kStep = 250;
constexpr Int32 kFineStep = 100;  // with the modifier
constexpr Int32 kLowestResolution = 100;

Int32 Cap(Document& doc) {
  const Int32 preference =
      doc.GetWorldPluginData(ID_PREFERENCES).GetInt32(PREFS_MAX_RESOLUTION, kDefaultMaxResolution);
  return std::min(preference, kHardMaxResolution);
}

}  // namespace

Result<std::vector<Node*>> ChangeTerrainResolutionCommand::CollectTargets(const Document& doc) {
  try {
    std::vector<Node*> targets;
    for (Node* node : doc.GetActiveObjects()) {
      Node* terrain = node;
      if (node->IsInstanceOf(ID_BASETERRAINOPERATOR)) {
        while (terrain != nullptr && terrain->GetType() != ID_TERRAINOBJECT) terrain = terrain->GetUp();
      } else if (node->GetType() != ID_TERRAINOBJECT) {
        continue;
      }
      if (terrain != nullptr && std::ranges::find(targets, terrain) == targets.end()) targets.push_back(terrain);
    }
    return targets;
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError();
  }
}

Result<bool> ChangeTerrainResolutionCommand::Execute(Document& doc, const platform::CommandInput& input) {
  VLGD_ASSIGN_OR_RETURN(const std::vector<Node*> targets, CollectTargets(doc));
  const Int32 step = input.modifier ? kFineStep : kStep;
  const Int32 cap = Cap(doc);
  doc.StartUndo();
  Status status = platform::Ok();
  for (Node* terrain : targets) {
    const Int32 x = terrain->GetData().GetInt32(TERRAINOBJECT_RESOLUTION_X);
    const Int32 z = terrain->GetData().GetInt32(TERRAINOBJECT_RESOLUTION_Z);
    if (!CanStep(x, z, step, cap)) continue;  // left as it is; the others still change
    status = doc.AddUndo(platform::UNDOTYPE_CHANGE, *terrain);
    if (!status) break;
    // Both axes by the same amount, so that their difference is kept.
    status = terrain->SetParameter(TERRAINOBJECT_RESOLUTION_X, x + Signed(step));
    if (status) status = terrain->SetParameter(TERRAINOBJECT_RESOLUTION_Z, z + Signed(step));
    if (!status) break;
    terrain->Message(platform::MSG_UPDATE);
  }
  doc.EndUndo();
  doc.GetHost().RequestUpdate();
  if (!status) return std::unexpected(status.error());
  return true;
}

Int32 ChangeTerrainResolutionCommand::GetState(Document& doc, const platform::CommandInput&) {
  const Result<std::vector<Node*>> targets = CollectTargets(doc);
  if (!targets) return platform::CMD_DISABLED;
  const Int32 cap = Cap(doc);
  for (const Node* terrain : *targets)
    if (CanStep(terrain->GetData().GetInt32(TERRAINOBJECT_RESOLUTION_X),
                terrain->GetData().GetInt32(TERRAINOBJECT_RESOLUTION_Z), kFineStep, cap))
      return platform::CMD_ENABLED;
  return platform::CMD_DISABLED;
}

bool IncreaseResCommand::CanStep(Int32 resolutionX, Int32 resolutionZ, Int32 step, Int32 cap) const {
  return std::max(resolutionX, resolutionZ) + step <= cap;
}

bool DecreaseResCommand::CanStep(Int32 resolutionX, Int32 resolutionZ, Int32 step, Int32) const {
  return std::min(resolutionX, resolutionZ) - step >= kLowestResolution;
}

const platform::TypeDescriptor& IncreaseResCommandType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::COMMAND,
                                             .id = ID_INCREASERESCOMMAND,
                                             .resourceName = "IncreaseResCommand",
                                             .sort = 43,
                                             .icon = MainSheetIcon(448, 64),
                                             .nameStringId = STRING_INCREASE_RESOLUTION,
                                             .helpStringId = STRING_INCREASE_RESOLUTION_HELP,
                                             .command = platform::CommandOf<IncreaseResCommand>(),
                                             .iconPartner = &DecreaseResCommandType()};
  return type;
}

const platform::TypeDescriptor& DecreaseResCommandType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::COMMAND,
                                             .id = ID_DECREASERESCOMMAND,
                                             .resourceName = "DecreaseResCommand",
                                             .sort = 43,
                                             .icon = MainSheetIcon(512, 64),
                                             .nameStringId = STRING_DECREASE_RESOLUTION,
                                             .helpStringId = STRING_DECREASE_RESOLUTION_HELP,
                                             .command = platform::CommandOf<DecreaseResCommand>()};
  return type;
}

}  // namespace VLGD
