#pragma once

#include "platform/types.h"

namespace VLGD {

using platform::UInt32;

// What an operator is and what makes it dirty. Stored in documents by value.
enum class TERRAINOPERATORFLAGS : UInt32 {
  NONE = 0,
  TYPE_FILTER = 1,      // transforms the incoming terrain; publishes its change map
  TYPE_GENERATOR = 2,   // creates heights of its own
  DIRTY_MATRIX_OPERATOR = 4,
  DIRTY_MATRIX_TERRAIN = 8,
  DIRTY_MATRIX_PARENTHIERARCHY = 16,
  REQUIRES_MINMAX = 32,  // needs the incoming grid's minimum and maximum to be current
};

constexpr TERRAINOPERATORFLAGS operator|(TERRAINOPERATORFLAGS a, TERRAINOPERATORFLAGS b) {
  return static_cast<TERRAINOPERATORFLAGS>(static_cast<UInt32>(a) | static_cast<UInt32>(b));
}
constexpr TERRAINOPERATORFLAGS operator&(TERRAINOPERATORFLAGS a, TERRAINOPERATORFLAGS b) {
  return static_cast<TERRAINOPERATORFLAGS>(static_cast<UInt32>(a) & static_cast<UInt32>(b));
}
constexpr bool HasFlag(TERRAINOPERATORFLAGS flags, TERRAINOPERATORFLAGS flag) { return (flags & flag) == flag; }

// Whether an operator's result was computed in this evaluation or reused.
enum class EVALUATIONRESULT : UInt32 {
  REBUILT = 0,
  CACHED = 1,
};

// What a change means for an operator.
enum class OPERATORDIRTY : UInt32 {
  CLEAN = 0,
  REEVALUATE = 1,  // the result stays valid; blending or mask inputs changed
  REBUILD = 2,     // the result must be computed again
};

}  // namespace VLGD
