#pragma once

#include "platform/registry.h"
#include "vellgrund/evaluation.h"

namespace VLGD {

inline constexpr platform::Int32 ID_GROUPOPERATOR = 1054581;

// An operator whose result is a whole sub-stack: its own operator children evaluated in
// order on a flat grid of the terrain's size, then blended like any other result.
class GroupOperator final : public BaseTerrainOperatorData {
 public:
  [[nodiscard]] TERRAINOPERATORFLAGS GetFlags(const Node& op) const override;
  Status Compute(const Grid2D<Float>& incoming, Node& op, Document& doc, const EvaluationContext& context) override;
  bool NeedsRebuild(Node& op, Document& doc, const EvaluationContext& context) override;
  [[nodiscard]] Int GetMemoryUsage() const override;

  [[nodiscard]] const EvaluationQueue& GetQueue() const { return queue_; }

  // The product of the local matrices of the chain of Groups from `group` upwards.
  static platform::Matrix ParentHierarchyMatrix(const Node& group);

 private:
  EvaluationContext ChildContext(const Node& op, const EvaluationContext& context) const;

  EvaluationQueue queue_;
  EvaluationQueue previousQueue_;
  Int queueMemory_ = 0;
};

// How the application knows the type: IDs, menu place, icon, strings and parameters.
const platform::TypeDescriptor& GroupOperatorType();

}  // namespace VLGD
