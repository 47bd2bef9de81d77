// The cost the Python module adds to an edit and a rebuild: the same edit on the same scene,
// once through the C++ document and once through `vellgrund` in an embedded interpreter.
#include <benchmark/benchmark.h>

#include <pybind11/embed.h>

#include <cstdlib>
#include <memory>

#include "main/default_scene.h"
#include "main/vellgrund_module.h"
#include "object/terrainobject.h"
#include "platform/document.h"
#include "platform/scene_file.h"

namespace {

namespace py = pybind11;
using namespace platform;

constexpr Int32 kResolution = 1000;  // 1001 x 1001 samples

// The default landscape at the benchmark's resolution, built once so that every operator's
// result is cached.
void BM_StrengthEditRebuild_Cpp(benchmark::State& state) {
  CollectingConsole console;
  Host host;
  host.SetConsole(console);
  if (!VLGD::StartModule(host)) std::abort();
  auto doc = LoadScene(host, VLGD::kDefaultScene, "default");
  if (!doc) std::abort();
  const auto named = [&](const char* name) -> Node* {
    for (Node* node : (*doc)->AllNodes())
      if (node->GetName() == name) return node;
    return nullptr;
  };
  Node* terrain = named("Terrain");
  Node* hills = named("Rolling hills");
  if (terrain == nullptr || hills == nullptr) std::abort();
  (void)(*doc)->SetParameter(*terrain, VLGD::TERRAINOBJECT_RESOLUTION_X, kResolution);
  (void)(*doc)->SetParameter(*terrain, VLGD::TERRAINOBJECT_RESOLUTION_Z, kResolution);
  if (!(*doc)->ExecutePasses({})) std::abort();
  Float strength = 1.0;
  for (auto _ : state) {
    strength = strength == 1.0 ? 0.5 : 1.0;
    (void)(*doc)->SetParameter(*hills, VLGD::TERRAINOPERATOR_STRENGTH, strength);
    if (!(*doc)->ExecutePasses({})) state.SkipWithError("rebuild failed");
  }
}

void BM_StrengthEditRebuild_Python(benchmark::State& state) {
  py::scoped_interpreter interpreter;
  py::module_::import("sys").attr("path").attr("insert")(0, VELLGRUND_PYTHON_DIR);
  py::dict scope;
  py::exec(R"(
import vellgrund
doc = vellgrund.Document.new()
terrain = doc.find("Terrain")
terrain["TERRAINOBJECT_RESOLUTION_X"] = terrain["TERRAINOBJECT_RESOLUTION_Z"] = )" +
               std::to_string(kResolution) + R"(
hills = doc.find("Rolling hills")
doc.build()
def edit(strength):
    hills["TERRAINOPERATOR_STRENGTH"] = strength
    return doc.build()
)",
           scope);
  const py::object edit = scope["edit"];
  double strength = 1.0;
  for (auto _ : state) {
    strength = strength == 1.0 ? 0.5 : 1.0;
    benchmark::DoNotOptimize(edit(strength));
  }
}

BENCHMARK(BM_StrengthEditRebuild_Cpp)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_StrengthEditRebuild_Python)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

}  // namespace
