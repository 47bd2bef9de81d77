#include <benchmark/benchmark.h>

#include "memcpy_baseline.h"
#include "operator_bench.h"
#include "object/operator_adjustment.h"
#include "object/operator_clamp.h"
#include "object/operator_curve.h"
#include "object/operator_fold.h"
#include "object/operator_mirror.h"
#include "object/operator_quantize.h"

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

enum Filter : int { ADJUST, CLAMP_FIT, CLAMP_HARD, CURVE, FOLD, MIRROR, QUANTIZE };

void BM_PointFilter(benchmark::State& state) {
  switch (static_cast<Filter>(state.range(0))) {
    case ADJUST: {
      OperatorBench bench(VLGD::ID_ADJUSTMENTOPERATOR, kSide);
      bench.Set(VLGD::ADJUSTMENTOPERATOR_RELATIVE, true);
      bench.Set(VLGD::ADJUSTMENTOPERATOR_SCALE, 1.5);
      bench.Set(VLGD::ADJUSTMENTOPERATOR_OFFSET_RELATIVE, 0.1);
      state.SetLabel("adjustment, relative");
      return RunFilter(state, bench);
    }
    case CLAMP_FIT:
    case CLAMP_HARD: {
      OperatorBench bench(VLGD::ID_CLAMPOPERATOR, kSide);
      const bool hard = state.range(0) == CLAMP_HARD;
      bench.Set(VLGD::CLAMPOPERATOR_HARDCLAMP, hard);
      state.SetLabel(hard ? "clamp, hard" : "clamp, fitting");
      return RunFilter(state, bench);
    }
    case CURVE: {
      OperatorBench bench(VLGD::ID_CURVEOPERATOR, kSide);
      state.SetLabel("curve, default preset");
      return RunFilter(state, bench);
    }
    case FOLD: {
      OperatorBench bench(VLGD::ID_FOLDOPERATOR, kSide);
      state.SetLabel("fold, no noise");
      return RunFilter(state, bench);
    }
    case MIRROR: {
      OperatorBench bench(VLGD::ID_MIRROROPERATOR, kSide);
      bench.Set(VLGD::MIRROROPERATOR_X, true);
      bench.Set(VLGD::MIRROROPERATOR_Y, true);
      bench.Set(VLGD::MIRROROPERATOR_HEIGHT, true);
      state.SetLabel("mirror, both axes and height");
      return RunFilter(state, bench);
    }
    case QUANTIZE: {
      OperatorBench bench(VLGD::ID_QUANTIZEOPERATOR, kSide);
      state.SetLabel("quantize, 8 steps");
      return RunFilter(state, bench);
    }
  }
}
BENCHMARK(BM_PointFilter)
    ->ArgsProduct({{ADJUST, CLAMP_FIT, CLAMP_HARD, CURVE, FOLD, MIRROR, QUANTIZE}, {1, MaxThreads()}})
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();

}  // namespace
