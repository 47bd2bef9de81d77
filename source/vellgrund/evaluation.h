#pragma once

#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

using platform::UInt32;

// The ordered active operators under a Terrain object or a Group operator.
class EvaluationQueue {
 public:
  enum class STATUS : UInt32 {
    UNKNOWN = 0,   // not decided yet; must never reach a run
    OK = 1,        // nothing to do beyond combining
    EVALUATE = 2,  // goes through the evaluation before combining
  };
};

}  // namespace VLGD
