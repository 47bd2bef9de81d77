#pragma once

#include "platform/registry.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_GROUPOPERATORSCOMMAND = 1054797;
inline constexpr platform::Int32 ID_UNGROUPOPERATORSCOMMAND = 1055911;

// Wraps the selected operators, in their order, into a new group at the place of the
// first selected object; the group becomes the selection.
class GroupOperatorsCommand final : public platform::CommandData {
 public:
  Result<bool> Execute(Document& doc, const platform::CommandInput& input) override;
  [[nodiscard]] Int32 GetState(Document& doc, const platform::CommandInput& input) override;
};

// Moves the children of each selected group to the group's place, in their order and
// where they were in the world, and removes the group; the children become the selection.
// What the group itself held, its blend settings and masks, goes with it.
class UngroupOperatorsCommand final : public platform::CommandData {
 public:
  Result<bool> Execute(Document& doc, const platform::CommandInput& input) override;
  [[nodiscard]] Int32 GetState(Document& doc, const platform::CommandInput& input) override;
};

const platform::TypeDescriptor& GroupOperatorsCommandType();
const platform::TypeDescriptor& UngroupOperatorsCommandType();

}  // namespace VLGD
