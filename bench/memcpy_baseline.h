#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>

namespace vellgrund_bench {

// Bytes per second of a single-threaded memcpy of `bytes` bytes, measured once per size in
// this process (best of several copies), so that every benchmark can report its own
// throughput beside the machine's copy bandwidth of the same amount of data.
double MemcpyBytesPerSecond(std::size_t bytes);

// Runs `iteration` under manual timing (benchmarks register with UseManualTime) and
// reports bytes per second for `bytesPerIteration`, the memcpy rate of the same bytes
// ("memcpy_GB/s") and the ratio of the two ("x_memcpy"; above 1 is faster than memcpy).
template <class Iteration>
void TimeAgainstMemcpy(benchmark::State& state, std::size_t bytesPerIteration, Iteration&& iteration) {
  double seconds = 0.0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    iteration();
    benchmark::ClobberMemory();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(elapsed.count());
    seconds += elapsed.count();
  }
  const double iterations = static_cast<double>(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(iterations * static_cast<double>(bytesPerIteration)));
  const double memcpyRate = MemcpyBytesPerSecond(bytesPerIteration);
  state.counters["memcpy_GB/s"] = memcpyRate / 1e9;
  if (seconds > 0.0)
    state.counters["x_memcpy"] = (static_cast<double>(bytesPerIteration) * iterations / seconds) / memcpyRate;
}

}  // namespace vellgrund_bench
