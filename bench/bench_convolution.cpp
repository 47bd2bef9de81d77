#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <memory>

#include "bench_heights.h"
#include "main/vellgrund_module.h"
#include "object/operator_blur.h"
#include "object/operator_sharpen.h"
#include "platform/document.h"
#include "platform/parallel.h"

namespace {

using namespace platform;

constexpr Int kSide = vellgrund_bench::kFilterSide;

// One Blur or Sharpen operator computed directly on the 4001 x 4001 grid, so the figures
// are the filter's own, without blending or meshing.
struct FilterBench {
  explicit FilterBench(Int32 type) : incoming(vellgrund_bench::FilterHeights()) {
    host.SetConsole(console);
    if (!VLGD::StartModule(host)) std::abort();
    doc = std::make_unique<Document>(host);
    op = doc->InsertLast(*doc->CreateNode(type));
    context.resolutionX = static_cast<Int32>(kSide - 1);
    context.resolutionZ = static_cast<Int32>(kSide - 1);
    context.sizeX = 4000.0;
    context.sizeZ = 4000.0;
  }

  void Set(ParameterId id, Value value) {
    if (!doc->SetParameter(*op, id, std::move(value))) std::abort();
  }

  // range(0) is the benchmark's parameter, range(1) the thread count.
  void Run(benchmark::State& state) {
    const ScopedThreadLimit threads(static_cast<int>(state.range(1)));
    auto* data = op->GetNodeData<VLGD::BaseTerrainOperatorData>();
    if (!data->Compute(incoming, *op, *doc, context)) state.SkipWithError("compute failed");  // result allocated
    for (auto _ : state)
      if (!data->Compute(incoming, *op, *doc, context)) state.SkipWithError("compute failed");
    state.SetItemsProcessed(state.iterations() * kSide * kSide);
    state.counters["threads"] = static_cast<double>(state.range(1));
  }

  CollectingConsole console;
  Host host;
  std::unique_ptr<Document> doc;
  Node* op = nullptr;
  const VLGD::Grid2D<Float>& incoming;
  VLGD::EvaluationContext context;
};

void Blur(benchmark::State& state, Int32 type) {
  FilterBench bench(VLGD::ID_BLUROPERATOR);
  bench.Set(VLGD::BLUROPERATOR_TYPE, type);
  bench.Set(VLGD::BLUROPERATOR_RADIUS, static_cast<Int32>(state.range(0)));
  bench.Run(state);
}

void Sharpen(benchmark::State& state, Int32 type) {
  FilterBench bench(VLGD::ID_SHARPENOPERATOR);
  bench.Set(VLGD::SHARPENOPERATOR_TYPE, type);
  bench.Set(VLGD::SHARPENOPERATOR_SIZE, static_cast<Int32>(state.range(0)));
  bench.Set(VLGD::SHARPENOPERATOR_AMOUNT, 0.5);
  bench.Run(state);
}

// Box blur by radius: sliding sums, so the radius should barely matter.
void BM_BlurBox(benchmark::State& state) {
  Blur(state, VLGD::BLUROPERATOR_TYPE_BOX);
}
// Gaussian by radius: two one-dimensional passes of 2 radius + 1 taps.
void BM_BlurGauss(benchmark::State& state) {
  Blur(state, VLGD::BLUROPERATOR_TYPE_GAUSS);
}
// The fixed kernels, summed tap by tap (radius unused).
void BM_BlurGauss3x3(benchmark::State& state) {
  Blur(state, VLGD::BLUROPERATOR_TYPE_GAUSS3X3);
}
void BM_BlurGauss5x5(benchmark::State& state) {
  Blur(state, VLGD::BLUROPERATOR_TYPE_GAUSS5X5);
}
// Separable sharpen by size: direct at size 3, sliding ramp sums above.
void BM_SharpenSeparable(benchmark::State& state) {
  Sharpen(state, VLGD::SHARPENOPERATOR_TYPE_SEPARABLE);
}
void BM_Sharpen3x3(benchmark::State& state) {
  Sharpen(state, VLGD::SHARPENOPERATOR_TYPE_SHARPEN3X3);
}
void BM_SharpenUnsharp5x5(benchmark::State& state) {
  Sharpen(state, VLGD::SHARPENOPERATOR_TYPE_UNSHARP5X5);
}
// Unsharp mask by radius: two one-dimensional passes plus the centre.
void BM_SharpenUnsharp(benchmark::State& state) {
  Sharpen(state, VLGD::SHARPENOPERATOR_TYPE_UNSHARP);
}

// Each on one thread and on all; a handful of iterations of a grid this size is plenty.
void Threads(benchmark::internal::Benchmark* benchmark, std::initializer_list<Int> parameters) {
  for (const Int parameter : parameters)
    for (const int threads : {1, MaxThreads()}) benchmark->Args({parameter, threads});
}

#define VLGD_FILTER_BENCHMARK(name, ...)                                            \
  BENCHMARK(name)                                                                   \
      ->Apply([](benchmark::internal::Benchmark* b) { Threads(b, {__VA_ARGS__}); }) \
      ->ArgNames({"param", "threads"})                                              \
      ->Iterations(3)                                                               \
      ->Unit(benchmark::kMillisecond)                                               \
      ->UseRealTime()

VLGD_FILTER_BENCHMARK(BM_BlurBox, 2, 16, 64);
VLGD_FILTER_BENCHMARK(BM_BlurGauss, 2, 8);
VLGD_FILTER_BENCHMARK(BM_BlurGauss3x3, 0);
VLGD_FILTER_BENCHMARK(BM_BlurGauss5x5, 0);
VLGD_FILTER_BENCHMARK(BM_SharpenSeparable, 3, 65);
VLGD_FILTER_BENCHMARK(BM_Sharpen3x3, 0);
VLGD_FILTER_BENCHMARK(BM_SharpenUnsharp5x5, 0);
VLGD_FILTER_BENCHMARK(BM_SharpenUnsharp, 2, 8);

}  // namespace
