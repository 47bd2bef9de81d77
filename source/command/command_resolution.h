#pragma once

#include <vector>

#include "platform/registry.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_INCREASERESCOMMAND = 1056090;
inline constexpr platform::Int32 ID_DECREASERESCOMMAND = 1056091;

// Changes the resolution of the selected terrains in steps of 250, or 100 with the
// modifier, within 100 and the preference cap per axis. Selecting an operator selects its
// terrain; each terrain changes once however much of its stack is selected.
class ChangeTerrainResolutionCommand : public platform::CommandData {
 public:
  Result<bool> Execute(Document& doc, const platform::CommandInput& input) override;
  [[nodiscard]] Int32 GetState(Document& doc, const platform::CommandInput& input) override;

  // The selected terrains, and those of the selected operators, in selection order, once.
  static Result<std::vector<Node*>> CollectTargets(const Document& doc);

 protected:
  // The step for a terrain of these resolutions, or no change when it would leave the limits.
  [[nodiscard]] virtual bool CanStep(Int32 resolutionX, Int32 resolutionZ, Int32 step, Int32 cap) const = 0;
  [[nodiscard]] virtual Int32 Signed(Int32 step) const = 0;
};

class IncreaseResCommand final : public ChangeTerrainResolutionCommand {
 protected:
  [[nodiscard]] bool CanStep(Int32 resolutionX, Int32 resolutionZ, Int32 step, Int32 cap) const override;
  [[nodiscard]] Int32 Signed(Int32 step) const override { return step; }
};

class DecreaseResCommand final : public ChangeTerrainResolutionCommand {
 protected:
  [[nodiscard]] bool CanStep(Int32 resolutionX, Int32 resolutionZ, Int32 step, Int32 cap) const override;
  [[nodiscard]] Int32 Signed(Int32 step) const override { return -step; }
};

const platform::TypeDescriptor& IncreaseResCommandType();
const platform::TypeDescriptor& DecreaseResCommandType();

}  // namespace VLGD
