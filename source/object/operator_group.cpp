#include "object/operator_group.h"
#include "common/vlgd_icons.h"

namespace VLGD {

TERRAINOPERATORFLAGS GroupOperator::GetFlags(const Node&) const {
  return TERRAINOPERATORFLAGS::TYPE_GENERATOR | TERRAINOPERATORFLAGS::DIRTY_MATRIX_OPERATOR |
         TERRAINOPERATORFLAGS::DIRTY_MATRIX_TERRAIN | TERRAINOPERATORFLAGS::DIRTY_MATRIX_PARENTHIERARCHY;
}

platform::Matrix GroupOperator::ParentHierarchyMatrix(const Node& group) {
  platform::Matrix matrix;
  for (const Node* current = &group; current != nullptr && current->GetType() == ID_GROUPOPERATOR;
       current = current->GetUp())
    matrix = current->GetMl() * matrix;
  return matrix;
}

EvaluationContext GroupOperator::ChildContext(const Node& op, const EvaluationContext& context) const {
  EvaluationContext inner = context;
  inner.parentHierarchyMatrix = ParentHierarchyMatrix(op);
  inner.parentHierarchyMatrixInverse = platform::Inverse(inner.parentHierarchyMatrix);
  return inner;
}

Status GroupOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document& doc,
                              const EvaluationContext& context) {
  // The children start from a flat grid, not from the terrain below the Group.
  VLGD_RETURN_IF_ERROR(result_.InitFrom(incoming));
  VLGD_RETURN_IF_ERROR(queue_.Run(result_, doc, ChildContext(op, context)));
  queueMemory_ = queue_.GetMemory();
  return platform::Ok();
}

bool GroupOperator::NeedsRebuild(Node& op, Document& doc, const EvaluationContext& context) {
  std::swap(previousQueue_, queue_);
  if (!queue_.Build(&op, context.purpose)) return true;
  // Any change inside the group rebuilds the group as a whole; the children's decisions
  // stay in force for the following Compute.
  const auto status = queue_.Check(&previousQueue_, doc, ChildContext(op, context));
  return status != EvaluationQueue::STATUS::OK || queue_.StructureChanged();
}

Int GroupOperator::GetMemoryUsage() const {
  return BaseTerrainOperatorData::GetMemoryUsage() + queueMemory_;
}

namespace {

platform::Description GroupOperatorDescription() {
  return {"ogroupoperator", {"Obaseterrainoperator"}, {}};
}

}  // namespace

const platform::TypeDescriptor& GroupOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_GROUPOPERATOR,
                                             .resourceName = "ogroupoperator",
                                             .sort = 25,
                                             .icon = MainSheetIcon(320, 0),
                                             .nameStringId = 10003,
                                             .objectInfo = platform::OBJECT_OPERATOR_STACK,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<GroupOperator>(),
                                             .describe = GroupOperatorDescription};
  return type;
}

}  // namespace VLGD
