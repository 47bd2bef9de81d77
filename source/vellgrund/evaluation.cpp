#include "vellgrund/evaluation.h"

#include <chrono>
#include <limits>
#include <new>

#include "platform/host.h"
#include "vellgrund/string_ids.h"

namespace VLGD {
namespace {

using platform::DIRTYFLAGS_CACHE;
using platform::DIRTYFLAGS_DATA;
using platform::DIRTYFLAGS_MATRIX;
using platform::HashMatrix;

class StatusText {
 public:
  explicit StatusText(platform::ProgressSink* sink) : sink_(sink) {}
  StatusText(const StatusText&) = delete;
  StatusText& operator=(const StatusText&) = delete;
  ~StatusText() {
    if (sink_ != nullptr) sink_->ClearStatus();
  }
  void Set(const std::string& text) {
    if (sink_ != nullptr) sink_->SetStatus(text);
  }

 private:
  platform::ProgressSink* sink_;
};

}  // namespace

Status EvaluationQueue::Build(Node* parentObject, platform::BuildPurpose purpose) {
  items_.clear();
  status_ = STATUS::UNKNOWN;
  if (parentObject == nullptr || (parentObject->GetTypeInfo().objectInfo & platform::OBJECT_OPERATOR_STACK) == 0)
    return platform::IllegalArgumentError("parentObject must be a valid pointer to a TerrainObject or GroupOperator!");
  for (Node* child = parentObject->GetDown(); child != nullptr; child = child->GetNext()) {
    if (!child->IsInstanceOf(ID_BASETERRAINOPERATOR) || !child->IsActiveFor(purpose)) continue;
    if (child->GetNodeData() == nullptr) {
      items_.clear();
      return platform::GenericError("Could not get BaseTerrainOperatorData pointer!");
    }
    auto* data = child->GetNodeData<BaseTerrainOperatorData>();
    if (data == nullptr) {
      items_.clear();
      return platform::IllegalArgumentError("Provided object pointer is not a BaseTerrainOperatorData!");
    }
    try {
      items_.push_back({child, data, child->Identity(), STATUS::UNKNOWN});
    } catch (const std::bad_alloc&) {
      items_.clear();
      return platform::OutOfMemoryError("Could not allocate the evaluation queue!");
    }
  }
  return platform::Ok();
}

OPERATORDIRTY EvaluationQueue::GetDirtyState(BaseTerrainOperatorData& op, Node& object, Document& doc,
                                             const EvaluationContext& settings) {
  const TERRAINOPERATORFLAGS flags = op.GetFlags(object);
  DirtySnapshot& current = op.current;
  const DirtySnapshot& last = op.last;
  current.dataDirty = object.GetDirty(DIRTYFLAGS_DATA);
  const bool dataChanged = current.dataDirty != last.dataDirty;

  bool rebuild = false;
  std::vector<ParameterId> relevant;
  if (op.GetRebuildParameters(relevant, object.GetData())) {
    rebuild = relevant.empty() ? !(object.GetData() == op.parameterSnapshot)
                               : !object.GetData().EqualFor(op.parameterSnapshot, relevant);
  } else {
    rebuild = dataChanged;
  }

  const Node* previous = object.GetPred();
  current.previousIdentity = previous != nullptr ? previous->Identity() : 0;
  current.previousDirty = previous != nullptr ? previous->GetDirty(DIRTYFLAGS_DATA) : 0;
  if (HasFlag(flags, TERRAINOPERATORFLAGS::TYPE_FILTER) && previous != nullptr &&
      (current.previousIdentity != last.previousIdentity || current.previousDirty != last.previousDirty))
    rebuild = true;

  current.operatorMatrixHash = HashMatrix(object.GetMl());
  current.terrainMatrixHash = HashMatrix(settings.terrainMatrix);
  current.parentHierarchyMatrixHash = HashMatrix(settings.parentHierarchyMatrix);
  if (HasFlag(flags, TERRAINOPERATORFLAGS::DIRTY_MATRIX_OPERATOR) &&
      current.operatorMatrixHash != last.operatorMatrixHash)
    rebuild = true;
  if (HasFlag(flags, TERRAINOPERATORFLAGS::DIRTY_MATRIX_PARENTHIERARCHY) &&
      current.parentHierarchyMatrixHash != last.parentHierarchyMatrixHash)
    rebuild = true;
  if (HasFlag(flags, TERRAINOPERATORFLAGS::DIRTY_MATRIX_TERRAIN) && current.terrainMatrixHash != last.terrainMatrixHash)
    rebuild = true;

  bool fieldsChanged = false;
  const platform::FieldList* fields = object.GetData().GetFieldList(TERRAINOPERATOR_MASKING_FIELDS_LIST);
  if (fields != nullptr && fields->HasContent()) {
    current.fieldsDirty = fields->GetDirty();
    current.fieldLayersDirty = fields->LayersDirty();
    current.fieldObjectsDirty = fields->LinkedObjectsDirty(doc);
    fieldsChanged = current.fieldsDirty != last.fieldsDirty || current.fieldLayersDirty != last.fieldLayersDirty ||
                    current.fieldObjectsDirty != last.fieldObjectsDirty;
  }

  const Grid2D<Float>& result = op.GetResult();
  if (result.Width() != settings.resolutionX + 1 || result.Height() != settings.resolutionZ + 1 ||
      result.SizeX() != settings.sizeX || result.SizeY() != settings.sizeZ)
    rebuild = true;
  if (op.NeedsRebuild(object, doc, settings)) rebuild = true;

  if (rebuild) return OPERATORDIRTY::REBUILD;
  return dataChanged || fieldsChanged ? OPERATORDIRTY::REEVALUATE : OPERATORDIRTY::CLEAN;
}

EvaluationQueue::STATUS EvaluationQueue::Check(const EvaluationQueue* previous, Document& doc,
                                               const EvaluationContext& settings) {
  constexpr size_t kNone = std::numeric_limits<size_t>::max();
  size_t firstDifference = kNone;
  bool lengthsDiffer = false;
  if (previous != nullptr) {
    lengthsDiffer = previous->items_.size() != items_.size();
    const size_t common = std::min(previous->items_.size(), items_.size());
    for (size_t i = 0; i < common; ++i) {
      if (previous->items_[i].identity != items_[i].identity) {
        firstDifference = i;
        break;
      }
    }
    if (previous->items_.empty()) firstDifference = 0;
  }
  structureChanged_ = previous == nullptr || lengthsDiffer || firstDifference != kNone;

  bool anyDirty = false;
  for (size_t i = 0; i < items_.size(); ++i) {
    Item& item = items_[i];
    BaseTerrainOperatorData& op = *item.operatorData;
    const OPERATORDIRTY dirty = GetDirtyState(op, *item.object, doc, settings);
    const bool changedFromHere = firstDifference != kNone && i >= firstDifference;
    item.status = STATUS::OK;
    item.changed = dirty != OPERATORDIRTY::CLEAN;
    if (dirty != OPERATORDIRTY::CLEAN) {
      item.status = STATUS::EVALUATE;
      anyDirty = true;
      if (dirty == OPERATORDIRTY::REBUILD) op.SetNeedsEvaluation();
    } else if (HasFlag(op.GetFlags(*item.object), TERRAINOPERATORFLAGS::TYPE_FILTER)) {
      // A filter whose input changed must be computed again, even if it did not change.
      if (anyDirty || changedFromHere) {
        op.SetNeedsEvaluation();
        item.status = STATUS::EVALUATE;
      }
    } else if (changedFromHere) {
      item.status = STATUS::EVALUATE;  // combines again, keeps its result
    }
  }
  if (lengthsDiffer && firstDifference == kNone && !items_.empty()) items_.back().status = STATUS::EVALUATE;
  status_ = anyDirty ? STATUS::EVALUATE : STATUS::OK;
  return status_;
}

Status EvaluationQueue::Run(Grid2D<Float>& terrain, Document& doc, const EvaluationContext& context) {
  memory_ = 0;
  StatusText status(context.progress);
  const platform::StringTable& strings = doc.GetHost().GetStrings();
  // Whether the terrain an operator combines into differs from the last run's.
  bool upstreamChanged = false;
  for (Item& item : items_) {
    BaseTerrainOperatorData& op = *item.operatorData;
    item.result = EVALUATIONRESULT::CACHED;
    item.seconds = 0.0;
    if (item.status == STATUS::UNKNOWN) return platform::GenericError("A queue item has status UNKNOWN! Why??");
    if (item.status == STATUS::EVALUATE) {
      if (HasFlag(op.GetFlags(*item.object), TERRAINOPERATORFLAGS::REQUIRES_MINMAX)) terrain.RecomputeRange();
      status.Set(strings.Format(STRING_EVALUATING, {item.object->GetName()}));
      const auto start = std::chrono::steady_clock::now();
      auto evaluated = op.Evaluate(terrain, *item.object, doc, context);
      item.seconds = std::chrono::duration<Float>(std::chrono::steady_clock::now() - start).count();
      if (!evaluated) {
        status_ = STATUS::EVALUATE;
        return std::unexpected(evaluated.error());
      }
      item.result = *evaluated;
      item.status = STATUS::OK;
    }
    memory_ += op.GetMemoryUsage();
    if (auto combined = op.CombineIntoTerrain(terrain, *item.object, doc, context); !combined) {
      status_ = STATUS::EVALUATE;
      return combined;
    }
    // Every operator combines again on every run, but what materials read of it changes
    // only when it was computed again, its own settings changed or, for masks that weigh
    // by the terrain below, that terrain changed. Telling the materials only then re-bakes
    // just those that read what changed.
    const bool rebuilt = item.result == EVALUATIONRESULT::REBUILT;
    const BlendSettings masks = ReadBlendSettings(item.object->GetData());
    if (rebuilt || item.changed || (upstreamChanged && (masks.slopeMaskEnabled || masks.heightMaskEnabled)))
      op.Observers().Notify(ID_TERRAINOPERATORSHADER_MESSAGE, doc, true);
    upstreamChanged = upstreamChanged || rebuilt || item.changed;
  }
  status_ = STATUS::OK;
  return platform::Ok();
}

}  // namespace VLGD
