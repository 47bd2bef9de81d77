#pragma once

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>

#include "main/vellgrund_module.h"
#include "platform/document.h"
#include "platform/parallel.h"
#include "vellgrund/baseterrainoperator.h"

namespace vellgrund_bench {

// One operator of a type in a document, computed directly on a side x side grid (one
// scene unit per cell) so the figures are the operator's own, without blending or meshing.
struct OperatorBench {
  OperatorBench(platform::Int32 type, platform::Int sideLength) : side(sideLength) {
    host.SetConsole(console);
    if (!VLGD::StartModule(host)) std::abort();
    doc = std::make_unique<platform::Document>(host);
    op = doc->InsertLast(*doc->CreateNode(type));
    const auto extent = static_cast<platform::Float>(side - 1);
    if (!incoming.Init(side, side, extent, extent)) std::abort();
    context.resolutionX = static_cast<platform::Int32>(side - 1);
    context.resolutionZ = static_cast<platform::Int32>(side - 1);
    context.sizeX = extent;
    context.sizeZ = extent;
  }

  void Set(platform::ParameterId id, platform::Value value) {
    if (!doc->SetParameter(*op, id, std::move(value))) std::abort();
  }
  [[nodiscard]] VLGD::BaseTerrainOperatorData& Data() const {
    return *op->GetNodeData<VLGD::BaseTerrainOperatorData>();
  }
  void Compute(benchmark::State& state) {
    if (!Data().Compute(incoming, *op, *doc, context)) state.SkipWithError("compute failed");
  }

  // Samples per second on state.range(1) threads.
  void Run(benchmark::State& state) {
    const platform::ScopedThreadLimit threads(static_cast<int>(state.range(1)));
    for (auto _ : state) Compute(state);
    state.SetItemsProcessed(state.iterations() * side * side);
    state.counters["threads"] = static_cast<double>(state.range(1));
  }

  platform::Int side;
  platform::CollectingConsole console;
  platform::Host host;
  std::unique_ptr<platform::Document> doc;
  platform::Node* op = nullptr;
  VLGD::Grid2D<platform::Float> incoming;
  VLGD::EvaluationContext context;
};

}  // namespace vellgrund_bench
