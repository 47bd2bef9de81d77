#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "main/vellgrund_module.h"
#include "memcpy_baseline.h"
#include "object/terrainobject.h"
#include "platform/document.h"
#include "platform/parallel.h"
#include "platform/scene_file.h"
#include "shader/bake.h"
#include "started_host.h"

namespace {

using namespace platform;

// A colour material of three layers: a ground colour, grass on the flats, snow up high.
std::string ThreeLayerMaterial(const std::string& id) {
  return R"({"type": "Mmaterial", "name": ")" + id + R"(", "id": ")" + id + R"(", "shaders": [
    {"type": "xcolourshader", "params": {"COLOURSHADER_COLOUR": [0.42, 0.38, 0.33]}},
    {"type": "xcolourshader", "params": {"COLOURSHADER_COLOUR": [0.28, 0.40, 0.16]},
     "shaders": [{"type": "xslopeshader", "params": {"SLOPESHADER_HIGH": 28}}]},
    {"type": "xcolourshader", "params": {"COLOURSHADER_COLOUR": [0.94, 0.95, 0.97]},
     "shaders": [{"type": "xheightshader", "params": {"HEIGHTSHADER_LOW": 30}}]}]})";
}

// The terrain's heights are made once; the loop bakes the material over them.
void BM_BakeThreeLayerMaterial(benchmark::State& state) {
  const Int resolution = state.range(0) - 1;
  const std::string scene = R"({"vellgrund": 1, "objects": [{"type": "oterrain", "name": "T", "materials": ["m"],
    "params": {"TERRAINOBJECT_RESOLUTION_X": )" +
                            std::to_string(resolution) + R"(, "TERRAINOBJECT_RESOLUTION_Z": )" +
                            std::to_string(resolution) +
                            R"(, "TERRAINOBJECT_ISOPARM_LINES": 0},
    "children": [{"type": "onoiseoperator", "params": {"NOISEOPERATOR_SEED": 3, "TERRAINOPERATOR_HEIGHTSCALE": 60}}]}],
    "materials": [)" + ThreeLayerMaterial("m") +
                            "]}";
  auto doc = LoadScene(vellgrund_bench::StartedHost(), scene, "bench");
  if (!doc || !(*doc)->ExecutePasses({})) return state.SkipWithError("the terrain did not build");
  Node* terrain = (*doc)->FindByName("T");
  Node* material = (*doc)->GetFirstMaterial();
  const auto& grid = terrain->GetNodeData<VLGD::TerrainObject>()->GetGrid();
  const Float sizeX = terrain->GetData().GetFloat(VLGD::TERRAINOBJECT_SIZE_X);
  const Float sizeZ = terrain->GetData().GetFloat(VLGD::TERRAINOBJECT_SIZE_Z);
  const ScopedThreadLimit threads(static_cast<int>(state.range(1)));
  const std::size_t textureBytes = static_cast<std::size_t>(grid.Count()) * 3;
  // Into one image, as memcpy copies into pages it has touched before.
  Image image;
  vellgrund_bench::TimeAgainstMemcpy(state, textureBytes, [&] {
    if (!VLGD::BakeMaterial(*material, **doc, grid, sizeX, sizeZ, grid.Width(), grid.Height(), image))
      state.SkipWithError("the bake failed");
    benchmark::DoNotOptimize(image.Bytes().data());
  });
}

// Four materials, each reading one of four operators; one operator's strength changes.
// The counter "x_first_build" is the rebuild with its bakes over the first build with all
// four bakes, both measured here.
void BM_StrengthChangeRebakesOneOfFourMaterials(benchmark::State& state) {
  const std::string resolution = std::to_string(state.range(0) - 1);
  std::string operators, materials, links;
  for (int k = 0; k < 4; ++k) {
    const std::string n = std::to_string(k);
    operators += std::string(k ? ", " : "") + R"({"type": "onoiseoperator", "name": "N)" + n + R"(", "id": "n)" + n +
                 R"(", "params": {"NOISEOPERATOR_SEED": )" + n +
                 R"(, "TERRAINOPERATOR_BLENDMODE": "ADD", "TERRAINOPERATOR_HEIGHTSCALE": 20}})";
    materials += std::string(k ? ", " : "") + R"({"type": "Mmaterial", "name": "M)" + n + R"(", "id": "m)" + n +
                 R"(", "params": {"MATERIAL_MASK": true}, "shaders": [{"type": "xterrainoperatorshader",
                   "params": {"TERRAINOPERATORSHADER_OPERATOR": {"link": "n)" +
                 n + R"("}}}]})";
    links += std::string(k ? ", " : "") + "\"m" + n + "\"";
  }
  const std::string scene = R"({"vellgrund": 1, "objects": [{"type": "oterrain", "name": "T", "materials": [)" + links +
                            R"(], "params": {"TERRAINOBJECT_RESOLUTION_X": )" + resolution +
                            R"(, "TERRAINOBJECT_RESOLUTION_Z": )" + resolution +
                            R"(, "TERRAINOBJECT_ISOPARM_LINES": 0}, "children": [)" + operators +
                            R"(]}], "materials": [)" + materials + "]}";
  const ScopedThreadLimit threads(2);
  const auto buildAndBake = [&](Document& doc) {
    if (!doc.ExecutePasses({})) return false;
    auto bakes = VLGD::BakeMaterials(*doc.FindByName("T"), doc, {});
    return bakes.has_value() && bakes->size() == 4;
  };
  double firstSeconds = 0.0;
  for (int k = 0; k < 3; ++k) {
    auto fresh = LoadScene(vellgrund_bench::StartedHost(), scene, "bench");
    const auto start = std::chrono::steady_clock::now();
    if (!fresh || !buildAndBake(**fresh)) return state.SkipWithError("the first build failed");
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    firstSeconds = k == 0 ? seconds : std::min(firstSeconds, seconds);
  }
  auto doc = LoadScene(vellgrund_bench::StartedHost(), scene, "bench");
  if (!doc || !buildAndBake(**doc)) return state.SkipWithError("the first build failed");
  Node* edited = (*doc)->FindByName("N2");
  // One edit untimed: the first rebuild after a load touches memory that later ones reuse.
  (void)(*doc)->SetParameter(*edited, VLGD::TERRAINOPERATOR_STRENGTH, 0.75);
  if (!buildAndBake(**doc)) return state.SkipWithError("the rebuild failed");
  Float strength = 1.0;
  double editSeconds = 0.0;
  for (auto _ : state) {
    strength = strength == 1.0 ? 0.5 : 1.0;
    const auto start = std::chrono::steady_clock::now();
    (void)(*doc)->SetParameter(*edited, VLGD::TERRAINOPERATOR_STRENGTH, strength);
    if (!buildAndBake(**doc)) state.SkipWithError("the rebuild failed");
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.SetIterationTime(seconds);
    editSeconds += seconds;
  }
  state.counters["first_build_ms"] = firstSeconds * 1e3;
  state.counters["x_first_build"] = editSeconds / static_cast<double>(state.iterations()) / firstSeconds;
}

BENCHMARK(BM_BakeThreeLayerMaterial)
    ->Args({1001, 2})
    ->Args({4001, 1})
    ->Args({4001, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();
BENCHMARK(BM_StrengthChangeRebakesOneOfFourMaterials)
    ->Arg(1001)
    ->Arg(2001)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();

}  // namespace
