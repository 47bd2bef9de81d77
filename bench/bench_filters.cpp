#include <benchmark/benchmark.h>

#include "memcpy_baseline.h"
#include "operator_bench.h"
#include "object/operator_adjustment.h"
#include "object/operator_clamp.h"
#include "object/operator_curve.h"
#include "object/operator_fold.h"
#include "object/operator_mirror.h"
#include "object/operator_quantize.h"

#include <utility>
#include <vector>

namespace {

using namespace platform;
using vellgrund_bench::OperatorBench;

constexpr Int kSide = 4001;

// A filter at 4001 x 4001 on state.range(1) threads, beside a single-threaded memcpy of the
// grid's bytes: the filters read and write every sample once, as the copy does.
void RunFilter(benchmark::State& state, OperatorBench& bench) {
  Float* heights = bench.incoming.Data();
  for (Int y = 0; y < kSide; ++y)
    for (Int x = 0; x < kSide; ++x) heights[y * kSide + x] = static_cast<Float>((x * 31 + y * 17) % 101) * 0.5;
  bench.incoming.RecomputeRange();
  const ScopedThreadLimit threads(static_cast<int>(state.range(1)));
  bench.Compute(state);  // the result's storage is allocated once, as in a rebuild
  vellgrund_bench::TimeAgainstMemcpy(state, static_cast<std::size_t>(kSide * kSide) * sizeof(Float),
                                     [&] { bench.Compute(state); });
  state.counters["threads"] = static_cast<double>(state.range(1));
}

struct PointFilter {
  platform::Int32 type;
  const char* label;
  std::vector<std::pair<ParameterId, Value>> settings;
};

const std::vector<PointFilter>& PointFilters() {
  static const std::vector<PointFilter> filters = {
      {VLGD::ID_ADJUSTMENTOPERATOR,
       "adjustment, relative",
       {{VLGD::ADJUSTMENTOPERATOR_RELATIVE, true},
        {VLGD::ADJUSTMENTOPERATOR_SCALE, 1.5},
        {VLGD::ADJUSTMENTOPERATOR_OFFSET_RELATIVE, 0.1}}},
      {VLGD::ID_CLAMPOPERATOR, "clamp, fitting", {{VLGD::CLAMPOPERATOR_HARDCLAMP, false}}},
      {VLGD::ID_CLAMPOPERATOR, "clamp, hard", {{VLGD::CLAMPOPERATOR_HARDCLAMP, true}}},
      {VLGD::ID_CURVEOPERATOR, "curve, default preset", {}},
      {VLGD::ID_FOLDOPERATOR, "fold, no noise", {}},
      {VLGD::ID_MIRROROPERATOR,
       "mirror, both axes and height",
       {{VLGD::MIRROROPERATOR_X, true}, {VLGD::MIRROROPERATOR_Y, true}, {VLGD::MIRROROPERATOR_HEIGHT, true}}},
      {VLGD::ID_QUANTIZEOPERATOR, "quantize, 8 steps", {}},
  };
  return filters;
}

void BM_PointFilter(benchmark::State& state) {
  const PointFilter& filter = PointFilters().at(static_cast<std::size_t>(state.range(0)));
  OperatorBench bench(filter.type, kSide);
  for (const auto& [id, value] : filter.settings) bench.Set(id, value);
  state.SetLabel(filter.label);
  RunFilter(state, bench);
}
BENCHMARK(BM_PointFilter)
    ->ArgsProduct({benchmark::CreateDenseRange(0, static_cast<int64_t>(PointFilters().size()) - 1, 1),
                   {1, MaxThreads()}})
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();

}  // namespace
