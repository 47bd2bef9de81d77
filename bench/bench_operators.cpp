#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>

#include "main/vellgrund_module.h"
#include "object/operator_gradient.h"
#include "object/operator_noise.h"
#include "platform/document.h"
#include "platform/noise.h"
#include "platform/parallel.h"

namespace {

using namespace platform;

constexpr Int kSide = 1001;  // a 1000 x 1000 terrain

// One operator of a type in a document, computed directly on a 1001 x 1001 grid so the
// figures are the operator's own, without blending or meshing.
struct OperatorBench {
  explicit OperatorBench(Int32 type) {
    host.SetConsole(console);
    if (!VLGD::StartModule(host)) std::abort();
    doc = std::make_unique<Document>(host);
    op = doc->InsertLast(*doc->CreateNode(type));
    if (!incoming.Init(kSide, kSide, 1000.0, 1000.0)) std::abort();
    context.resolutionX = static_cast<Int32>(kSide - 1);
    context.resolutionZ = static_cast<Int32>(kSide - 1);
    context.sizeX = 1000.0;
    context.sizeZ = 1000.0;
  }

  void Run(benchmark::State& state) {
    const ScopedThreadLimit threads(static_cast<int>(state.range(1)));
    auto* data = op->GetNodeData<VLGD::BaseTerrainOperatorData>();
    for (auto _ : state)
      if (!data->Compute(incoming, *op, *doc, context)) state.SkipWithError("compute failed");
    state.SetItemsProcessed(state.iterations() * kSide * kSide);
    state.counters["threads"] = static_cast<double>(state.range(1));
  }

  CollectingConsole console;
  Host host;
  std::unique_ptr<Document> doc;
  Node* op = nullptr;
  VLGD::Grid2D<Float> incoming;
  VLGD::EvaluationContext context;
};

// Samples per second of the Noise operator per noise type, on one thread and on all.
void BM_NoiseOperator(benchmark::State& state) {
  OperatorBench bench(VLGD::ID_NOISEOPERATOR);
  const Int32 type = static_cast<Int32>(state.range(0));
  (void)bench.doc->SetParameter(*bench.op, VLGD::NOISEOPERATOR_TYPE, type);
  (void)bench.doc->SetParameter(*bench.op, VLGD::NOISEOPERATOR_SEED, Int32{1234});
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
  OperatorBench bench(VLGD::ID_NOISEOPERATOR);
  (void)bench.doc->SetParameter(*bench.op, VLGD::NOISEOPERATOR_SEED, Int32{1234});
  (void)bench.doc->SetParameter(*bench.op, 2001, true);
  bench.Run(state);
}
BENCHMARK(BM_NoiseOperatorDistorted)->Args({21, 1})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_GradientOperator(benchmark::State& state) {
  OperatorBench bench(VLGD::ID_GRADIENTOPERATOR);
  (void)bench.doc->SetParameter(*bench.op, VLGD::GRADIENTOPERATOR_TYPE, static_cast<Int32>(state.range(0)));
  // Big enough that every shape covers the whole grid.
  (void)bench.doc->SetParameter(*bench.op, VLGD::GRADIENTOPERATOR_RADIUS, 800.0);
  (void)bench.doc->SetParameter(*bench.op, VLGD::GRADIENTOPERATOR_SIZE, 1200.0);
  (void)bench.doc->SetParameter(*bench.op, VLGD::GRADIENTOPERATOR_HEIGHT, 1200.0);
  bench.Run(state);
}
BENCHMARK(BM_GradientOperator)
    ->ArgsProduct({{1, 2, 3, 4}, {1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
