#pragma once

#include "platform/result.h"
#include "platform/strings.h"
#include "platform/types.h"
#include "vellgrund/baseterrainoperator.h"
#include "vellgrund/grid2d.h"
#include "vellgrund/scratch_pool.h"

// Thermal weathering: material slides from a sample to its lower neighbours wherever the
// height difference exceeds a talus threshold, pass after pass.
namespace VLGD::Erosion {

// The status text of a pass: formatted with the pass index and the pass count.
constexpr Int32 kThermalStatusText = 10083;

struct ThermalSettings {
  Int32 iterations = 5;   // passes; 0 is refused, a negative count runs none
  Float intensity = 0.8;  // share of the computed slide removed from the sliding sample
  Float talus = 0.1;      // a neighbour lower by strictly more than this receives material
  Float deposit = 0.2;    // share of the removed amount that arrives at the receiver
  // 1: the lowest of eight neighbours; 2: the lowest of four; 3: all lower of eight;
  // 4: all lower of four. Other values act as 2.
  Int32 neighbourhood = 3;
  bool smooth = true;  // a five-point average after every pass, neighbourhoods 3 and 4 only
};

// Weathers the grid in place. Every pass reads the grid as it was at the pass's start:
//  - all lower (3, 4): a sample s with kept neighbours n (h(s) - h(n) > talus, difference d)
//    moves m = (dmax - talus) x d / sum of d (0 when that sum is 0) towards each: s loses
//    m x intensity, n gains m x deposit;
//  - lowest (other values): with the lowest listed neighbour (the first of equal ones) and
//    d > talus, s loses d x intensity and that neighbour gains d x intensity x deposit.
// Neighbour lists, in this order, keep what lies inside the grid (no wrapping): eight:
// above, above right, above left, below, below right, below left, left, right; four: above,
// right, below, left ("above" is row y - 1). The smoothing replaces every sample by 0.2 x
// (left + itself + right + below + above), edges clamped.
//
// Every sample gathers what its neighbours send it, so the result does not depend on the
// thread count (nor on the SIMD target) and equals the sample-by-sample scatter up to
// rounding. The range of the grid
// is left as it was (stale). Before pass i the status text (kThermalStatusText with i and the
// count) and the progress (whole percent) go to context.progress; passes i with bit 1 set
// (2, 3, 6, 7, ...) test context.thread first. Fails with "Intensity and iterations must not
// be 0!" for 0 iterations (grid unchanged), "Thermal Weathering cancelled!" on a break (the
// finished passes stay) and an out-of-memory error when the working grids cannot be had.
Status ThermalWeathering(Grid2D<Float>& grid, const ThermalSettings& settings, const EvaluationContext& context,
                         const platform::StringTable& strings);

// The working memory of the weathering: a second grid and the row scratch of the bands of
// rows that run at the same time. Kept by the caller between calls, so that a grid of an
// unchanged size allocates nothing.
class ThermalScratch {
 public:
  // Storage for passes over `grid`, kept when it fits already.
  Status Prepare(const Grid2D<Float>& grid);
  // Frees the storage.
  void Release();
  [[nodiscard]] Float* Grid() { return next_.Data(); }
  [[nodiscard]] ScratchPool& Rows() { return rows_; }

 private:
  Grid2D<Float> next_;
  ScratchPool rows_;
  Int rowValues_ = -1;  // the values per slot of rows_, -1 before the first Prepare
  int rowSlots_ = 0;    // the thread count rows_ was allocated for
};

// The same with working memory kept by the caller.
Status ThermalWeathering(Grid2D<Float>& grid, const ThermalSettings& settings, const EvaluationContext& context,
                         const platform::StringTable& strings, ThermalScratch& scratch);

}  // namespace VLGD::Erosion
