#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>

#include "object/operator_gradient.h"
#include "object/operator_noise.h"
#include "operator_bench.h"
#include "platform/noise.h"
#include "platform/parallel.h"
#include "vellgrund/distortion.h"

namespace {

using namespace platform;
using vellgrund_bench::OperatorBench;

constexpr Int kSide = 1001;  // a 1000 x 1000 terrain

// Samples per second of the Noise operator per noise type, on one thread and on all.
void BM_NoiseOperator(benchmark::State& state) {
  OperatorBench bench(VLGD::ID_NOISEOPERATOR, kSide);
  const Int32 type = static_cast<Int32>(state.range(0));
  bench.Set(VLGD::NOISEOPERATOR_TYPE, type);
  bench.Set(VLGD::NOISEOPERATOR_SEED, Int32{1234});
  state.SetLabel(std::string(FindNoiseType(type)->name));
  bench.Run(state);
}

void NoiseTypeArguments(benchmark::internal::Benchmark* benchmark) {
  for (const NoiseTypeInfo& info : NoiseTypes())
    for (const int threads : {1, MaxThreads()}) benchmark->Args({static_cast<Int>(info.type), threads});
}
BENCHMARK(BM_NoiseOperator)->Apply(NoiseTypeArguments)->Unit(benchmark::kMillisecond)->UseRealTime();

// The default noise with the distortion on, which adds two scalar noise lookups a sample.
void BM_NoiseOperatorDistorted(benchmark::State& state) {
  OperatorBench bench(VLGD::ID_NOISEOPERATOR, kSide);
  bench.Set(VLGD::NOISEOPERATOR_SEED, Int32{1234});
  bench.Set(VLGD::TERRAINDISTORTION_ENABLED, true);
  bench.Run(state);
}
BENCHMARK(BM_NoiseOperatorDistorted)->Args({21, 1})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_GradientOperator(benchmark::State& state) {
  OperatorBench bench(VLGD::ID_GRADIENTOPERATOR, kSide);
  bench.Set(VLGD::GRADIENTOPERATOR_TYPE, static_cast<Int32>(state.range(0)));
  // Big enough that every shape covers the whole grid.
  bench.Set(VLGD::GRADIENTOPERATOR_RADIUS, 800.0);
  bench.Set(VLGD::GRADIENTOPERATOR_SIZE, 1200.0);
  bench.Set(VLGD::GRADIENTOPERATOR_HEIGHT, 1200.0);
  bench.Run(state);
}
BENCHMARK(BM_GradientOperator)->ArgsProduct({{1, 2, 3, 4}, {1}})->Unit(benchmark::kMillisecond)->UseRealTime();

// The radial gradient through its default profile with the distortion on, as the default
// scene's massif has it, over a radius that covers the grid: every sample solves the curve.
void BM_GradientOperatorDistorted(benchmark::State& state) {
  OperatorBench bench(VLGD::ID_GRADIENTOPERATOR, kSide);
  bench.Set(VLGD::GRADIENTOPERATOR_TYPE, static_cast<Int32>(state.range(0)));
  bench.Set(VLGD::GRADIENTOPERATOR_RADIUS, 800.0);
  bench.Set(VLGD::TERRAINDISTORTION_ENABLED, true);
  bench.Run(state);
}
BENCHMARK(BM_GradientOperatorDistorted)->ArgsProduct({{1}, {1, 2}})->Unit(benchmark::kMillisecond)->UseRealTime();

// Every registered operator at its defaults on a 1000 x 1000 terrain, one thread and all:
// a new type is measured the day it is registered.
void EveryOperatorArguments(benchmark::internal::Benchmark* benchmark) {
  const auto types = VLGD::RegisteredTypes();
  for (std::size_t i = 0; i < types.size(); ++i) {
    const auto& bases = types[i]->baseTypes;
    if (std::find(bases.begin(), bases.end(), VLGD::ID_BASETERRAINOPERATOR) == bases.end()) continue;
    for (const int threads : {1, MaxThreads()}) benchmark->Args({static_cast<Int>(i), threads});
  }
}
void BM_EveryOperatorAtDefaults(benchmark::State& state) {
  const platform::TypeDescriptor& type = *VLGD::RegisteredTypes()[static_cast<std::size_t>(state.range(0))];
  OperatorBench bench(type.id, kSide);
  state.SetLabel(std::string(type.resourceName));
  bench.Run(state);
}
BENCHMARK(BM_EveryOperatorAtDefaults)->Apply(EveryOperatorArguments)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
