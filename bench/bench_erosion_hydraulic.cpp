#include <benchmark/benchmark.h>

#include <cmath>

#include "memcpy_baseline.h"
#include "platform/parallel.h"
#include "vellgrund/erosion_hydraulic.h"

namespace {

using namespace platform;
using VLGD::Grid2D;
using VLGD::Erosion::detail::HydraulicSimulation;

// The state an iteration has to read and write at least once: terrain, water, sediment and
// the four outflow fluxes, 7 doubles a sample (the velocities live only for a row or two).
// A memcpy of 7 x 8 bytes a sample reads and writes as much, so the minimal traffic is
// that of a copy of 56 bytes a sample: 58,835,000 bytes at 1025 x 1025 and 235,110,456
// bytes at 2049 x 2049.
constexpr std::size_t kMinimalBytesPerSample = 7 * sizeof(Float);

// One iteration of the water simulation on a side x side grid of rolling hills, on
// state.range(1) threads, beside a single-threaded memcpy of the minimal traffic. The
// simulation runs 16 iterations first, so that the water has spread from the rain spots and
// the source as it does in use, then 4 timed ones: a fixed count, because the wet area (and
// with it the work) keeps growing from iteration to iteration. Set-up and allocation are not
// timed.
void BM_HydraulicIteration(benchmark::State& state) {
  const Int side = state.range(0);
  const ScopedThreadLimit threads(static_cast<int>(state.range(1)));
  Grid2D<Float> terrain;
  if (!terrain.Init(side, side, static_cast<Float>(side - 1), static_cast<Float>(side - 1))) {
    state.SkipWithError("grid allocation failed");
    return;
  }
  for (Int y = 0; y < side; ++y)
    for (Int x = 0; x < side; ++x) {
      const auto fx = static_cast<Float>(x);
      const auto fy = static_cast<Float>(y);
      terrain.Set(x, y, 30.0 * std::sin(fx / 41.0) * std::cos(fy / 67.0) + 8.0 * std::sin((fx + 2.0 * fy) / 13.0));
    }
  HydraulicSimulation simulation;
  if (!simulation.Init(terrain)) {
    state.SkipWithError("simulation allocation failed");
    return;
  }
  for (int i = 0; i < 16; ++i)
    if (!simulation.Step()) state.SkipWithError("step failed");
  vellgrund_bench::TimeAgainstMemcpy(state, static_cast<std::size_t>(side * side) * kMinimalBytesPerSample, [&] {
    if (!simulation.Step()) state.SkipWithError("step failed");
  });
  state.counters["threads"] = static_cast<double>(state.range(1));
}
BENCHMARK(BM_HydraulicIteration)
    ->ArgsProduct({{1025, 2049}, {1, MaxThreads()}})
    ->Iterations(4)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();

}  // namespace
