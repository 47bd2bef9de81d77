#pragma once

#include <vector>

#include "platform/registry.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_NEXTBLENDMODECOMMAND = 1056684;
inline constexpr platform::Int32 ID_PREVIOUSBLENDMODECOMMAND = 1056685;

// Steps the blend mode of the selected generators around the ring of blend modes; filters
// are passed over, since their result replaces the terrain rather than adding to it.
class BaseCycleBlendmodeCommand : public platform::CommandData {
 public:
  Result<bool> Execute(Document& doc, const platform::CommandInput& input) override;
  [[nodiscard]] Int32 GetState(Document& doc, const platform::CommandInput& input) override;

  // The selected generators, in selection order.
  static Result<std::vector<Node*>> CollectTargets(const Document& doc);
  // One operator's step, recorded for undo.
  Status Step(Document& doc, Node* op) const;

 protected:
  [[nodiscard]] virtual Int32 Successor(Int32 mode) const = 0;
};

class NextBlendmodeCommand final : public BaseCycleBlendmodeCommand {
 protected:
  [[nodiscard]] Int32 Successor(Int32 mode) const override;
};

class PreviousBlendmodeCommand final : public BaseCycleBlendmodeCommand {
 protected:
  [[nodiscard]] Int32 Successor(Int32 mode) const override;
};

const platform::TypeDescriptor& NextBlendmodeCommandType();
const platform::TypeDescriptor& PreviousBlendmodeCommandType();

}  // namespace VLGD
