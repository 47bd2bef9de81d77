#pragma once

#include <atomic>
#include <memory>
#include <span>

#include "platform/large_array.h"
#include "platform/result.h"
#include "platform/types.h"
#include "vellgrund/baseterrainoperator.h"
#include "vellgrund/grid2d.h"
#include "vellgrund/scratch_pool.h"

// The hydraulic erosion of the Erosion operator: a pipe-model water simulation on the height
// grid. Rain falls on fixed spots and a source pours water into the centre; water flows
// between neighbouring samples through virtual pipes, dissolves material where it runs fast
// over sloped ground, carries it along and drops it where it slows down, and evaporates.
namespace VLGD::Erosion {

// Runs `iterations` iterations of the pipe-model water simulation on the grid, in place.
// iterations <= 0 leaves the grid unchanged (success).
//
// Fails with "Invalid grid initialization arguments!" on a negative width or height or a
// physical size that is not positive, with an out-of-memory error when the working state
// (about 17 doubles a sample) cannot be had, and with "Hydraulic Erosion cancelled!" when
// context.thread reports a break before an iteration; after a failure the grid is as it was.
// An empty grid is left as it is. Otherwise the grid receives the eroded heights and its
// range is reset. Results are bit-identical whatever the number of threads.
Status HydraulicErosion(Grid2D<Float>& grid, Int32 iterations, const EvaluationContext& context);

namespace detail {
class HydraulicSimulation;
}  // namespace detail

// The same with the simulation's working state kept by the caller, so that a grid of an
// unchanged size allocates nothing.
Status HydraulicErosion(Grid2D<Float>& grid, Int32 iterations, const EvaluationContext& context,
                        detail::HydraulicSimulation& simulation);

namespace detail {

// The outflow-flux grids, named by the direction of flow: towards column x-1, x+1, row y-1
// and row y+1.
enum FluxDirection : int { FLUX_LEFT = 0, FLUX_RIGHT = 1, FLUX_TOP = 2, FLUX_BOTTOM = 3 };

// The state of the simulation between iterations: allocated once by Init, stepped by Step.
//
// One iteration adds rain and the source on the calling thread, then runs all per-sample
// passes (outflow flux, water and velocity, erosion and deposition, evaporation, sediment
// transport, smoothing) in one sweep over bands of rows, each stage a row or two behind the
// one it depends on, so that every sample's data is loaded from memory about once. Every
// state grid is double-buffered: a band reads only the state from before the iteration and
// writes only its own rows of the next state, recomputing the few rows beyond its edges that
// it needs. Sediment that a sample traces back to outside the rows its band has ready is
// computed again after the sweep. So results are the same for any split into bands.
class HydraulicSimulation {
 public:
  HydraulicSimulation() = default;
  HydraulicSimulation(const HydraulicSimulation&) = delete;
  HydraulicSimulation& operator=(const HydraulicSimulation&) = delete;

  // Takes a copy of the terrain with no water, sediment or flow, in the storage of the last
  // Init when the size is the same. Fails as HydraulicErosion does on a bad shape or a lack
  // of memory.
  Status Init(const Grid2D<Float>& terrain);
  // Frees the working state.
  void Release();
  // One iteration.
  Status Step();

  // Bands of at most this many rows (0: as the parallel loop hands them out). Results do not
  // depend on it; tests use it to put band edges everywhere.
  void SetBandLimit(Int rows) { bandLimit_ = rows; }

  [[nodiscard]] Int Width() const { return width_; }
  [[nodiscard]] Int Height() const { return height_; }
  [[nodiscard]] std::span<const Float> Terrain() const { return terrain_[current_]; }
  [[nodiscard]] std::span<const Float> Water() const { return water_[current_]; }
  [[nodiscard]] std::span<const Float> Sediment() const { return sediment_[current_]; }
  [[nodiscard]] std::span<const Float> Flux(FluxDirection direction) const { return flux_[current_][direction]; }
  // Samples of the last step whose sediment was traced back outside the rows their band had
  // ready, and so was fetched after the sweep.
  [[nodiscard]] Int DeferredSamples() const { return deferredSamples_; }

 private:
  friend class BandSweep;

  Status Sweep();
  Status FetchDeferred();

  Int width_ = 0;
  Int height_ = 0;
  Int bandLimit_ = 0;
  int current_ = 0;
  Int deferredSamples_ = 0;
  Int allocatedWidth_ = -1;  // the shape the state arrays hold, -1 when they hold none
  Int allocatedHeight_ = -1;
  int scratchSlots_ = 0;  // the thread count scratch_ was allocated for
  platform::LargeArray<Float> terrain_[2];
  platform::LargeArray<Float> water_[2];
  platform::LargeArray<Float> flux_[2][4];
  platform::LargeArray<Float> sediment_[2];
  // Per row: how many samples wait for their sediment, then (index, px, py) of each, at
  // three doubles a sample from the row's first sample on.
  platform::LargeArray<Int> deferredCount_;
  platform::LargeArray<Float> deferred_;
  // The row scratch of the bands running at the same time.
  ScratchPool scratch_;
};

// Rain: 1000 drops from a generator seeded with 123, each adding 0.0625 to the 3 x 3 block
// around 1 + (int)(Get01() x (width - 2)), 1 + (int)(Get01() x (height - 2)) (x drawn
// first), clipped to the grid.
void AddRain(Int width, Int height, Float* water);
// The source: (900 - d²) x T x R on every sample within 30 samples of (width / 2, height / 2).
void AddSource(Int width, Int height, Float* water);

// One outflow-flux pass, then one water and velocity pass, over whole grids of width x
// height samples, from the same row steps as the iteration. Fluxes are indexed by
// FluxDirection; u and v receive the velocities. Outputs must not overlap the inputs.
void FlowStep(Int width, Int height, const Float* terrain, const Float* water, const Float* const fluxes[4],
              Float* newWater, Float* const newFluxes[4], Float* u, Float* v);

}  // namespace detail
}  // namespace VLGD::Erosion
