#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <vector>

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

// The weathering rule as one writes it first, the baseline of the passes below: every
// sample in turn takes its slides off a copy of the start-of-pass heights and adds them to
// its receivers there, testing the bounds of every neighbour; then the smoothing.
void NaiveWeathering(VLGD::Grid2D<Float>& grid, const VLGD::Erosion::ThermalSettings& s, std::vector<Float>& next) {
  constexpr int kEight[8][2] = {{0, -1}, {1, -1}, {-1, -1}, {0, 1}, {1, 1}, {-1, 1}, {-1, 0}, {1, 0}};
  constexpr int kFour[4][2] = {{0, -1}, {1, 0}, {0, 1}, {-1, 0}};
  const bool eight = s.neighbourhood == 1 || s.neighbourhood == 3;
  const bool allLower = s.neighbourhood == 3 || s.neighbourhood == 4;
  const Int w = grid.Width(), h = grid.Height(), count = eight ? 8 : 4;
  Float* heights = grid.Data();
  for (Int32 pass = 0; pass < s.iterations; ++pass) {
    next.assign(heights, heights + w * h);
    for (Int y = 0; y < h; ++y)
      for (Int x = 0; x < w; ++x) {
        const Int i = y * w + x;
        Int n[8], listed = 0, lowest = -1;
        Float sum = 0.0, dmax = -std::numeric_limits<Float>::infinity();
        for (Int k = 0; k < count; ++k) {
          const Int nx = x + (eight ? kEight[k][0] : kFour[k][0]), ny = y + (eight ? kEight[k][1] : kFour[k][1]);
          if (nx < 0 || nx >= w || ny < 0 || ny >= h) continue;
          n[listed++] = ny * w + nx;
          if (const Float d = heights[i] - heights[ny * w + nx]; d > s.talus) sum += d, dmax = std::max(dmax, d);
          if (lowest < 0 || heights[ny * w + nx] < heights[lowest]) lowest = ny * w + nx;
        }
        if (allLower) {
          for (Int k = 0; k < listed; ++k)
            if (const Float d = heights[i] - heights[n[k]]; d > s.talus) {
              const Float m = (dmax - s.talus) * d / sum;
              next[static_cast<std::size_t>(i)] -= m * s.intensity;
              next[static_cast<std::size_t>(n[k])] += m * s.deposit;
            }
        } else if (lowest >= 0 && heights[i] - heights[lowest] > s.talus) {
          const Float d = heights[i] - heights[lowest];
          next[static_cast<std::size_t>(i)] -= d * s.intensity;
          next[static_cast<std::size_t>(lowest)] += d * s.intensity * s.deposit;
        }
      }
    for (Int y = 0; y < h; ++y)
      for (Int x = 0; x < w; ++x) {
        const auto at = [&](Int cx, Int cy) {
          return next[static_cast<std::size_t>(std::clamp<Int>(cy, 0, h - 1) * w + std::clamp<Int>(cx, 0, w - 1))];
        };
        heights[y * w + x] = allLower && s.smooth
                                 ? 0.2 * (at(x - 1, y) + at(x, y) + at(x + 1, y) + at(x, y + 1) + at(x, y - 1))
                                 : at(x, y);
      }
  }
}

// Thermal weathering, 5 passes with the default amounts, timed without restoring the input.
// range(0): neighbourhood; range(1): grid side; range(2): threads, 0 for the naive scatter
// on one.
void BM_ThermalWeathering(benchmark::State& state) {
  const VLGD::Grid2D<Float> input = Hills(state.range(1));
  VLGD::Grid2D<Float> grid;
  const bool naive = state.range(2) == 0;
  const ScopedThreadLimit threads(naive ? 1 : static_cast<int>(state.range(2)));
  VLGD::Erosion::ThermalSettings settings;
  settings.neighbourhood = static_cast<Int32>(state.range(0));
  const VLGD::EvaluationContext context;
  const StringTable strings;
  VLGD::Erosion::ThermalScratch scratch;  // kept between runs, as the operator keeps it
  std::vector<Float> next;
  for (auto _ : state) {
    if (!grid.CopyFrom(input)) std::abort();
    const auto start = std::chrono::steady_clock::now();
    if (naive)
      NaiveWeathering(grid, settings, next);
    else if (!VLGD::Erosion::ThermalWeathering(grid, settings, context, strings, scratch))
      state.SkipWithError("weathering failed");
    benchmark::ClobberMemory();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  state.SetItemsProcessed(state.iterations() * state.range(1) * state.range(1) * settings.iterations);
  state.counters["threads"] = naive ? 1.0 : static_cast<double>(state.range(2));
  state.counters["naive"] = naive ? 1.0 : 0.0;
}

// Lowest of eight (1) and all lower of eight with smoothing (3): the naive scatter, then ours
// on one thread and on all.
void ThermalArguments(benchmark::internal::Benchmark* benchmark) {
  for (const Int neighbourhood : {1, 3})
    for (const Int side : {1001, 2001})
      for (const int threads : {0, 1, MaxThreads()}) benchmark->Args({neighbourhood, side, threads});
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
