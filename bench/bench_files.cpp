#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <vector>

#include "memcpy_baseline.h"
#include "platform/npy.h"

namespace {

using namespace platform;

// A 4001 x 4001 height grid to a .npy file in the temporary folder (the page cache, as a
// fast disk would take it) through the checked stream, beside a memcpy of the same bytes:
// what the checks, the break tests and the progress cost over the copy that any write is.
void BM_WriteNpy(benchmark::State& state) {
  constexpr Int kSide = 4001;
  std::vector<Float> heights(static_cast<std::size_t>(kSide * kSide));
  for (std::size_t i = 0; i < heights.size(); ++i) heights[i] = static_cast<Float>(i % 977) * 0.25;
  const std::filesystem::path file = std::filesystem::temp_directory_path() / "vellgrund-bench-heights.npy";
  vellgrund_bench::TimeAgainstMemcpy(state, heights.size() * sizeof(Float), [&] {
    if (!WriteNpy(file, heights, kSide, kSide)) state.SkipWithError("write failed");
  });
  std::filesystem::remove(file);
}
BENCHMARK(BM_WriteNpy)->Unit(benchmark::kMillisecond)->UseManualTime();

}  // namespace
