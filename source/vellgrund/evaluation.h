#pragma once

#include <vector>

#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

// The ordered active operators under a Terrain object or a Group operator. Each build makes
// a new queue, compares it with the previous one to decide what to compute again, and runs
// it: evaluating where needed and combining every result into the terrain, in order.
class EvaluationQueue {
 public:
  enum class STATUS : UInt32 {
    UNKNOWN = 0,   // not decided yet; must never reach a run
    OK = 1,        // nothing to do beyond combining
    EVALUATE = 2,  // goes through the evaluation before combining
  };

  struct Item {
    Node* object = nullptr;
    BaseTerrainOperatorData* operatorData = nullptr;
    UInt64 identity = 0;
    STATUS status = STATUS::UNKNOWN;
    // What the last run did with the operator, and how long its evaluation took.
    EVALUATIONRESULT result = EVALUATIONRESULT::CACHED;
    Float seconds = 0.0;
    // Its own parameters, fields or matrices changed since the last run.
    bool changed = false;
  };

  // Fills the queue from the parent's children that are operators and active for the
  // purpose.
  Status Build(Node* parentObject, platform::BuildPurpose purpose);
  // Decides every item's status against the previous queue (none on the first build).
  STATUS Check(const EvaluationQueue* previous, Document& doc, const EvaluationContext& settings);
  Status Run(Grid2D<Float>& terrain, Document& doc, const EvaluationContext& context);

  static OPERATORDIRTY GetDirtyState(BaseTerrainOperatorData& op, Node& object, Document& doc,
                                     const EvaluationContext& settings);

  [[nodiscard]] const std::vector<Item>& Items() const { return items_; }
  [[nodiscard]] STATUS GetStatus() const { return status_; }
  // The operators' memory estimates, summed by the last run.
  [[nodiscard]] Int GetMemory() const { return memory_; }
  // True when the last Check found other operators than the previous queue held.
  [[nodiscard]] bool StructureChanged() const { return structureChanged_; }

 private:
  std::vector<Item> items_;
  STATUS status_ = STATUS::UNKNOWN;
  Int memory_ = 0;
  bool structureChanged_ = false;
};

}  // namespace VLGD
