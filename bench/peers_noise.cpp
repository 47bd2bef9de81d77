// Our noise against libnoise on the same points, and the Noise operator with its default
// settings. Run with --benchmark_repetitions=5 --benchmark_report_aggregates_only=true: the
// machine is shared, so the figures that count are the ratios measured in one run.
#include <benchmark/benchmark.h>
#include <libnoise/noise.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <vector>

#include "object/operator_noise.h"
#include "operator_bench.h"
#include "platform/noise.h"
#include "platform/parallel.h"

namespace {

using namespace platform;

// A 1001 x 1001 terrain of one unit per sample read by a Noise of scale 1 (frequency 0.01):
// ten lattice cells across, every row a line of points along x.
constexpr Int kSide = 1001;
constexpr Float kFrequency = 0.01;
constexpr Float kPlaneY = 0.37;  // off the lattice planes for both libraries

struct GridRows {
  std::vector<Float> x, y, z;
  GridRows() : x(kSide), y(kSide, kPlaneY), z(kSide) {
    for (Int i = 0; i < kSide; ++i) x[static_cast<std::size_t>(i)] = (static_cast<Float>(i) - 500.0) * kFrequency;
  }
  // Row r of the grid: only z changes between rows.
  PointRows Row(Int r) {
    std::fill(z.begin(), z.end(), (500.0 - static_cast<Float>(r)) * kFrequency);
    return {x.data(), y.data(), z.data(), kSide};
  }
};

using Clock = std::chrono::steady_clock;

// Ours through the row path and libnoise point by point over the same grid on one thread,
// each iteration timing both; counters in million samples per second.
void Compare(benchmark::State& state, NoiseType type, int octaves) {
  auto allocated = NoiseGenerator::Alloc(1234);
  if (!allocated) std::abort();
  NoiseGenerator& ours = **allocated;
  // Lacunarity 2 and gain 0.5, as libnoise's defaults.
  if (!ours.InitFbm(NoiseGenerator::kMaxOctaves, 2.0, 1.0)) std::abort();
  noise::module::Perlin theirs;
  theirs.SetOctaveCount(octaves);
  theirs.SetNoiseQuality(noise::QUALITY_BEST);
  theirs.SetFrequency(1.0);
  GridRows grid;
  std::vector<Float> out(kSide);
  Clock::duration oursTime{}, theirsTime{};
  double sink = 0.0;
  for (auto _ : state) {
    const auto start = Clock::now();
    for (Int r = 0; r < kSide; ++r) {
      ours.NoiseRow(static_cast<Int32>(type), false, grid.Row(r), 0.0, static_cast<Float>(octaves), false, 0.0, 0.0, 0,
                    out.data());
      sink += out[static_cast<std::size_t>(r)];
    }
    const auto middle = Clock::now();
    for (Int r = 0; r < kSide; ++r) {
      const Float z = grid.Row(r).z[0];
      for (Int i = 0; i < kSide; ++i)
        out[static_cast<std::size_t>(i)] = theirs.GetValue(grid.x[std::size_t(i)], kPlaneY, z);
      sink += out[static_cast<std::size_t>(r)];
    }
    oursTime += middle - start;
    theirsTime += Clock::now() - middle;
  }
  benchmark::DoNotOptimize(sink);
  const double samples = static_cast<double>(state.iterations()) * static_cast<double>(kSide * kSide);
  const double oursRate = samples / std::chrono::duration<double>(oursTime).count() * 1e-6;
  const double theirsRate = samples / std::chrono::duration<double>(theirsTime).count() * 1e-6;
  state.counters["ours_Msps"] = oursRate;
  state.counters["libnoise_Msps"] = theirsRate;
  state.counters["ratio"] = oursRate / theirsRate;
}

void BM_Gradient3D_VsLibnoise(benchmark::State& state) {
  Compare(state, NoiseType::PERLIN, 1);
}
void BM_Fbm6_3D_VsLibnoise(benchmark::State& state) {
  Compare(state, NoiseType::FBM, 6);
}
BENCHMARK(BM_Gradient3D_VsLibnoise)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Fbm6_3D_VsLibnoise)->Unit(benchmark::kMillisecond);

// The Noise operator as inserted (its default type and settings) on a 1001 x 1001 grid.
void BM_NoiseOperatorDefault(benchmark::State& state) {
  vellgrund_bench::OperatorBench bench(VLGD::ID_NOISEOPERATOR, state.range(0));
  bench.Run(state);
}
BENCHMARK(BM_NoiseOperatorDefault)->Args({kSide, 2})->Args({kSide, 1})->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
