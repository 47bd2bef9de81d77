#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstdlib>

#include "memcpy_baseline.h"
#include "platform/parallel.h"
#include "platform/strings.h"
#include "vellgrund/erosion_droplet.h"
#include "vellgrund/erosion_lowland.h"
#include "vellgrund/erosion_thermal.h"

namespace {

using namespace platform;

// Smooth hills with a ripple, steep enough that most samples slide.
VLGD::Grid2D<Float> Hills(Int side) {
  VLGD::Grid2D<Float> grid;
  if (!grid.Init(side, side, 1000.0, 1000.0)) std::abort();
  for (Int y = 0; y < side; ++y)
    for (Int x = 0; x < side; ++x)
      grid.Set(x, y,
               20.0 * std::sin(static_cast<Float>(x) * 0.02) * std::cos(static_cast<Float>(y) * 0.017) +
                   0.3 * static_cast<Float>((x * 7 + y * 13) % 5));
  return grid;
}

// Thermal weathering, 5 passes with the default amounts, timed without restoring the input.
// range(0): neighbourhood; range(1): grid side; range(2): threads.
void BM_ThermalWeathering(benchmark::State& state) {
  const VLGD::Grid2D<Float> input = Hills(state.range(1));
  VLGD::Grid2D<Float> grid;
  const ScopedThreadLimit threads(static_cast<int>(state.range(2)));
  VLGD::Erosion::ThermalSettings settings;
  settings.neighbourhood = static_cast<Int32>(state.range(0));
  const VLGD::EvaluationContext context;
  const StringTable strings;
  for (auto _ : state) {
    if (!grid.CopyFrom(input)) std::abort();
    const auto start = std::chrono::steady_clock::now();
    if (!VLGD::Erosion::ThermalWeathering(grid, settings, context, strings)) state.SkipWithError("weathering failed");
    benchmark::ClobberMemory();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  state.SetItemsProcessed(state.iterations() * state.range(1) * state.range(1) * settings.iterations);
  state.counters["threads"] = static_cast<double>(state.range(2));
}

// Lowest of eight (1) and all lower of eight with smoothing (3), one thread and all.
void ThermalArguments(benchmark::internal::Benchmark* benchmark) {
  for (const Int neighbourhood : {1, 3})
    for (const Int side : {1001, 2001})
      for (const int threads : {1, MaxThreads()}) benchmark->Args({neighbourhood, side, threads});
}

BENCHMARK(BM_ThermalWeathering)
    ->Apply(ThermalArguments)
    ->ArgNames({"neighbourhood", "side", "threads"})
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();

// 5000 droplets with the default settings on one core, reported as droplet steps per second.
void BM_Droplets(benchmark::State& state) {
  const VLGD::Grid2D<Float> input = Hills(1001);
  VLGD::Grid2D<Float> grid;
  const VLGD::Erosion::DropletSettings settings;
  UInt64 steps = 0;
  for (auto _ : state) {
    if (!grid.CopyFrom(input)) std::abort();
    const auto start = std::chrono::steady_clock::now();
    steps += VLGD::Erosion::SimulateDroplets(grid, settings);
    benchmark::ClobberMemory();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  state.counters["steps/s"] = benchmark::Counter(static_cast<double>(steps), benchmark::Counter::kIsRate);
  state.counters["steps/droplet"] =
      static_cast<double>(steps) / static_cast<double>(state.iterations() * settings.count);
}

BENCHMARK(BM_Droplets)->Unit(benchmark::kMillisecond)->UseManualTime();

// Lowland flattening at 4001 x 4001 with the default settings on range(0) threads, beside a
// memcpy of the grid: the pass reads and writes every sample once.
void BM_LowlandFlattening(benchmark::State& state) {
  constexpr Int kSide = 4001;
  const VLGD::Grid2D<Float> input = Hills(kSide);
  VLGD::Grid2D<Float> grid;
  if (!grid.CopyFrom(input)) std::abort();
  grid.RecomputeRange();
  const ScopedThreadLimit threads(static_cast<int>(state.range(0)));
  const VLGD::Erosion::LowlandSettings settings;
  // Flattening the result again is as much work as flattening the input: the samples the
  // noise has to decide stay below their level.
  vellgrund_bench::TimeAgainstMemcpy(state, static_cast<std::size_t>(kSide * kSide) * sizeof(Float), [&] {
    if (!VLGD::Erosion::FlattenLowlands(grid, settings)) state.SkipWithError("flattening failed");
  });
  state.counters["threads"] = static_cast<double>(state.range(0));
}

BENCHMARK(BM_LowlandFlattening)
    ->Arg(1)
    ->Arg(MaxThreads())
    ->ArgName("threads")
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();

}  // namespace
