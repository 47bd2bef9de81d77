// The spline operator with a long road against the adjustment operator on the same grid:
// a distance field should cost a small multiple of a pass that touches every sample once.

#include <benchmark/benchmark.h>

#include <cmath>
#include <numbers>
#include <vector>

#include "object/operator_adjustment.h"
#include "object/operator_spline.h"
#include "operator_bench.h"
#include "platform/spline_objects.h"

namespace {

using namespace platform;
using vellgrund_bench::OperatorBench;

constexpr Int kSide = 4001;
constexpr int kSegments = 1000;

// A road of kSegments Bezier spans meandering over the 4000-unit grid, climbing as it
// goes, with smooth tangents through each point.
SplinePath Road() {
  std::vector<Vector> at;
  for (int i = 0; i <= kSegments; ++i) {
    const Float t = static_cast<Float>(i) / kSegments;
    at.emplace_back(-1900.0 + 3800.0 * t + 60.0 * std::sin(97.0 * t), 300.0 * t,
                    1500.0 * std::sin(2.0 * std::numbers::pi * 3.0 * t) + 80.0 * std::cos(41.0 * t));
  }
  SplinePath path;
  for (std::size_t i = 0; i < at.size(); ++i) {
    const Vector& before = at[i > 0 ? i - 1 : i];
    const Vector& after = at[i + 1 < at.size() ? i + 1 : i];
    const Vector tangent = (after - before) * (1.0 / 6.0);
    path.points.push_back({at[i], tangent * -1.0, tangent});
  }
  return path;
}

void BM_SplineRoad(benchmark::State& state) {
  OperatorBench bench(VLGD::ID_SPLINEOPERATOR, kSide);
  Node* road = bench.doc->InsertLast(*bench.doc->CreateNode(ID_SPLINE_OBJECT));
  if (!bench.doc->SetParameter(*road, SPLINEOBJECT_POINTS, Road()) ||
      !bench.doc->SetParameter(*road, SPLINEOBJECT_TYPE, static_cast<Int32>(SPLINETYPE::BEZIER)))
    std::abort();
  bench.Set(VLGD::SPLINEOPERATOR_SPLINES, NodeLinkList{{road->Identity()}});
  bench.Set(VLGD::SPLINEOPERATOR_WIDTH, 12.0);
  bench.Set(VLGD::SPLINEOPERATOR_FALLOFF, 50.0);
  state.SetLabel("1000-segment road, falloff 50");
  bench.Compute(state);  // the result's storage is allocated once, as in a rebuild
  bench.Run(state);
}

void BM_AdjustmentSameGrid(benchmark::State& state) {
  OperatorBench bench(VLGD::ID_ADJUSTMENTOPERATOR, kSide);
  bench.Set(VLGD::ADJUSTMENTOPERATOR_RELATIVE, true);
  bench.Set(VLGD::ADJUSTMENTOPERATOR_SCALE, 1.5);
  state.SetLabel("adjustment, the reference");
  bench.incoming.RecomputeRange();
  bench.Compute(state);
  bench.Run(state);
}

BENCHMARK(BM_SplineRoad)->ArgsProduct({{kSide}, {1, MaxThreads()}})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AdjustmentSameGrid)->ArgsProduct({{kSide}, {1, MaxThreads()}})->Unit(benchmark::kMillisecond);

}  // namespace
