#include <benchmark/benchmark.h>

#include <cmath>

#include "common/vlgd_geometry.h"
#include "memcpy_baseline.h"
#include "platform/parallel.h"
#include "vellgrund/blend.h"
#include "vellgrund/grid2d.h"

namespace {

using VLGD::Float;
using VLGD::Grid2D;
using VLGD::Int;

constexpr Int kSide = 4001;

Grid2D<Float> Terrain(Int side, Float phase) {
  Grid2D<Float> grid;
  if (!grid.Init(side, side, 1000.0, 1000.0)) std::abort();
  Float* values = grid.Data();
  for (Int y = 0; y < side; ++y)
    for (Int x = 0; x < side; ++x)
      values[y * side + x] = std::sin(static_cast<Float>(x) * 0.013 + phase) * std::cos(static_cast<Float>(y) * 0.007) * 50.0;
  return grid;
}

void BM_Combine(benchmark::State& state) {
  const auto mode = static_cast<VLGD::Int32>(state.range(0));
  Grid2D<Float> base = Terrain(kSide, 0.0);
  const Grid2D<Float> result = Terrain(kSide, 1.0);
  VLGD::BlendSettings settings;
  settings.mode = mode;
  settings.strength = 0.5;
  // Measured against a copy of the base grid's bytes.
  vellgrund_bench::TimeAgainstMemcpy(state, static_cast<std::size_t>(base.Count()) * sizeof(Float), [&] {
    if (!VLGD::Combine(base, result, {}, settings)) state.SkipWithError("Combine failed");
  });
}
BENCHMARK(BM_Combine)
    ->ArgName("mode")
    ->Arg(static_cast<int>(VLGD::BLENDMODE::NORMAL))
    ->Arg(static_cast<int>(VLGD::BLENDMODE::ADD))
    ->Arg(static_cast<int>(VLGD::BLENDMODE::OVERLAY))
    ->Unit(benchmark::kMillisecond)
    ->MinWarmUpTime(0.5)
    ->UseManualTime();

void BM_ComputeNormals(benchmark::State& state) {
  const Grid2D<Float> heights = Terrain(kSide, 0.0);
  Grid2D<VLGD::Vector> normals;
  // The first call allocates; later ones reuse the map as rebuilds do, and are what is timed.
  if (!normals.ComputeNormals(heights)) std::abort();
  // Measured against a copy of the normal map's bytes.
  vellgrund_bench::TimeAgainstMemcpy(state, static_cast<std::size_t>(heights.Count()) * sizeof(VLGD::Vector), [&] {
    if (!normals.ComputeNormals(heights)) state.SkipWithError("ComputeNormals failed");
    benchmark::DoNotOptimize(normals.Data());
  });
}
BENCHMARK(BM_ComputeNormals)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1.0)->UseManualTime();

// Resamples the whole grid half a sample off the sample positions, row by row in parallel,
// as a consumer that reads a grid at arbitrary coordinates does.
void BM_SampleBicubic(benchmark::State& state) {
  const Grid2D<Float> heights = Terrain(kSide, 0.0);
  Grid2D<Float> resampled;
  if (!resampled.InitFrom(heights)) std::abort();
  Float* out = resampled.Data();
  vellgrund_bench::TimeAgainstMemcpy(state, static_cast<std::size_t>(heights.Count()) * sizeof(Float), [&] {
    auto status = platform::ParallelFor(0, kSide, platform::ParallelOptions{.granularity = 16}, [&](Int y) {
      for (Int x = 0; x < kSide; ++x)
        out[y * kSide + x] = heights.Sample(static_cast<Float>(x) + 0.5, static_cast<Float>(y) + 0.5,
                                            VLGD::SAMPLEINTERPOLATION::BICUBIC);
    });
    if (!status) state.SkipWithError("sampling failed");
  });
}
BENCHMARK(BM_SampleBicubic)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1.0)->UseManualTime();

void BM_CreatePlaneGeometry(benchmark::State& state) {
  const auto segments = static_cast<VLGD::Int32>(state.range(0));
  const auto points = static_cast<std::size_t>(segments + 1) * static_cast<std::size_t>(segments + 1);
  const auto polygons = static_cast<std::size_t>(segments) * static_cast<std::size_t>(segments);
  // Measured against a copy of the mesh's bytes: points, polygons and texture coordinates.
  const std::size_t bytes =
      points * sizeof(platform::Vector) + polygons * (sizeof(platform::CPolygon) + sizeof(platform::UVWStruct));
  vellgrund_bench::TimeAgainstMemcpy(state, bytes, [&] {
    auto plane = VLGD::CreatePlaneGeometry(1000.0, 1000.0, segments, segments, 0, true, nullptr);
    if (!plane) state.SkipWithError(plane.error().message.c_str());
    else benchmark::DoNotOptimize((*plane)->GetPointR().data());
  });
}
BENCHMARK(BM_CreatePlaneGeometry)->ArgName("segments")->Arg(4000)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1.0)->UseManualTime();

}  // namespace
