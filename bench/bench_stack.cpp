#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>

#include "main/default_scene.h"
#include "main/vellgrund_module.h"
#include "object/terrainobject.h"
#include "platform/document.h"
#include "platform/parallel.h"
#include "platform/scene_file.h"
#include "started_host.h"

namespace {

using namespace platform;

// A generator that costs about what a few octaves of noise cost per sample, so the stack's
// operators outweigh blending as real ones do.
class WavesOperator final : public VLGD::BaseTerrainOperatorData {
 public:
  [[nodiscard]] VLGD::TERRAINOPERATORFLAGS GetFlags(const Node&) const override {
    return VLGD::TERRAINOPERATORFLAGS::TYPE_GENERATOR;
  }
  Status Compute(const VLGD::Grid2D<Float>& incoming, Node& op, Document&, const VLGD::EvaluationContext&) override {
    VLGD_RETURN_IF_ERROR(result_.InitFrom(incoming));
    const Float phase = op.GetData().GetFloat(10001);
    const Int width = result_.Width();
    Float* values = result_.Data();
    return ParallelForRange(0, result_.Count(), {}, [&](Int begin, Int end) {
      for (Int k = begin; k < end; ++k) {
        const Float x = static_cast<Float>(k % width) * 0.01;
        const Float z = static_cast<Float>(k / width) * 0.01;
        Float sum = 0.0;
        Float frequency = 1.0;
        for (int octave = 0; octave < 6; ++octave, frequency *= 2.0)
          sum += std::sin(x * frequency + phase) * std::cos(z * frequency - phase) / frequency;
        values[k] = sum;
      }
    });
  }
  bool GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const override {
    ids = {10001};
    return true;
  }
};

constexpr Int32 kWavesType = 1990001;

struct Stack {
  Stack() {
    host.SetConsole(console);
    if (!VLGD::StartModule(host)) std::abort();
    PluginInfo info;
    info.id = kWavesType;
    info.resourceName = "obenchwaves";
    info.baseTypes = {VLGD::ID_BASETERRAINOPERATOR};
    info.allocate = [] { return std::make_unique<WavesOperator>(); };
    if (!host.GetRegistry().RegisterNodeType(std::move(info), {"obenchwaves", {"Obaseterrainoperator"}, {}})) std::abort();
    doc = std::make_unique<Document>(host);
    terrain = doc->InsertLast(*doc->CreateNode(VLGD::ID_TERRAINOBJECT));
    (void)doc->SetParameter(*terrain, VLGD::TERRAINOBJECT_RESOLUTION_X, Int32{1000});
    (void)doc->SetParameter(*terrain, VLGD::TERRAINOBJECT_RESOLUTION_Z, Int32{1000});
    for (int k = 0; k < 8; ++k) {
      Node* op = doc->InsertLast(*doc->CreateNode(kWavesType), terrain);
      (void)doc->SetParameter(*op, 10001, static_cast<Float>(k));
      (void)doc->SetParameter(*op, VLGD::TERRAINOPERATOR_BLENDMODE, Int32{1});
      (void)doc->SetParameter(*op, VLGD::TERRAINOPERATOR_STRENGTH, 0.5);
      operators.push_back(op);
    }
    if (!doc->ExecutePasses({})) std::abort();
  }
  CollectingConsole console;
  Host host;
  std::unique_ptr<Document> doc;
  Node* terrain = nullptr;
  std::vector<Node*> operators;
};

// Every operator computed again: the terrain's resolution toggles between two values.
void BM_StackFullRebuild(benchmark::State& state) {
  Stack stack;
  Int32 resolution = 1000;
  for (auto _ : state) {
    resolution = resolution == 1000 ? 1001 : 1000;
    (void)stack.doc->SetParameter(*stack.terrain, VLGD::TERRAINOBJECT_RESOLUTION_X, resolution);
    if (!stack.doc->ExecutePasses({})) state.SkipWithError("rebuild failed");
  }
}

// One operator's strength changes: every result is reused, only the blending and the mesh
// are made again.
void BM_StackStrengthChange(benchmark::State& state) {
  Stack stack;
  Float strength = 0.5;
  for (auto _ : state) {
    strength = strength == 0.5 ? 0.25 : 0.5;
    (void)stack.doc->SetParameter(*stack.operators[3], VLGD::TERRAINOPERATOR_STRENGTH, strength);
    if (!stack.doc->ExecutePasses({})) state.SkipWithError("rebuild failed");
  }
}

// The scene a new user starts from, made again in full at range(0) samples a side on range(1)
// threads: every operator, the blending and the mesh. The resolution steps by one sample
// between iterations, so no cached result survives.
void BM_DefaultSceneRebuild(benchmark::State& state) {
  auto doc = LoadScene(vellgrund_bench::StartedHost(), VLGD::kDefaultScene, "default");
  if (!doc) return state.SkipWithError("the default scene did not load");
  Node* terrain = (*doc)->GetFirstObject();
  const ScopedThreadLimit threads(static_cast<int>(state.range(1)));
  auto resolution = static_cast<Int32>(state.range(0) - 1);
  for (auto _ : state) {
    resolution = resolution == state.range(0) - 1 ? resolution - 1 : resolution + 1;
    for (const ParameterId id : {VLGD::TERRAINOBJECT_RESOLUTION_X, VLGD::TERRAINOBJECT_RESOLUTION_Z})
      (void)(*doc)->SetParameter(*terrain, id, resolution);
    if (!(*doc)->ExecutePasses({})) state.SkipWithError("rebuild failed");
  }
}
BENCHMARK(BM_DefaultSceneRebuild)
    ->ArgsProduct({{1001, 4001}, {1, MaxThreads()}})
    ->ArgNames({"side", "threads"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

BENCHMARK(BM_StackFullRebuild)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StackStrengthChange)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
