#include "platform/parallel.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <new>
#include <optional>
#include <string>

#if defined(VELLGRUND_PARALLEL_TBB)
#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#else
#include <system_error>
#include <thread>
#include <vector>
#endif

namespace platform {
namespace {

// Collects the first error of a loop and tells the other chunks to stop.
class LoopState {
 public:
  void Record(Error error) {
    std::lock_guard lock(mutex_);
    if (!error_) error_ = std::move(error);
    stop_.store(true, std::memory_order_relaxed);
  }
  [[nodiscard]] bool Stopped() const noexcept { return stop_.load(std::memory_order_relaxed); }
  [[nodiscard]] LoopStop Stop() const noexcept { return LoopStop(&stop_); }
  Status Finish() {
    std::lock_guard lock(mutex_);
    if (error_) return std::unexpected<Error>(std::move(*error_));
    return Ok();
  }

 private:
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::optional<Error> error_;
};

void RunOneChunk(Int chunkBegin, Int chunkEnd, const ParallelOptions& options, detail::ChunkBody body,
                 LoopState& state) {
  if (state.Stopped()) return;
  if (TestBreak(options.cancel)) {
    state.Record(Error{ErrorKind::Cancelled, std::string(options.cancelMessage)});
    return;
  }
  try {
    if (Status status = body(chunkBegin, chunkEnd, state.Stop()); !status) state.Record(std::move(status).error());
  } catch (const std::bad_alloc&) {
    state.Record(Error{ErrorKind::OutOfMemory, "Out of memory!"});
  } catch (const std::exception& exception) {
    state.Record(Error{ErrorKind::Generic, exception.what()});
  } catch (...) {
    state.Record(Error{ErrorKind::Generic, "Unknown failure in a parallel loop!"});
  }
}

void RunSerial(Int begin, Int end, Int granularity, const ParallelOptions& options, detail::ChunkBody body,
               LoopState& state) {
  // Without a break flag there is nothing to test between chunks: one call does it all.
  const Int step = options.cancel != nullptr ? granularity : end - begin;
  for (Int chunkBegin = begin; chunkBegin < end && !state.Stopped(); chunkBegin += step)
    RunOneChunk(chunkBegin, std::min(end, chunkBegin + step), options, body, state);
}

#if defined(VELLGRUND_PARALLEL_TBB)

void RunWorkers(Int begin, Int end, Int granularity, const ParallelOptions& options, detail::ChunkBody body,
                LoopState& state) {
  // The auto partitioner never splits below the granularity but merges small chunks when
  // the workers are busy, which keeps the per-chunk cost away from memory-bound loops.
  tbb::parallel_for(
      tbb::blocked_range<Int>(begin, end, static_cast<std::size_t>(granularity)),
      [&](const tbb::blocked_range<Int>& range) { RunOneChunk(range.begin(), range.end(), options, body, state); },
      tbb::auto_partitioner());
}

int CurrentMaxThreads() {
  return static_cast<int>(tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism));
}

#else

std::atomic<int> threadLimit{0};

int HardwareThreads() { return std::max(1, static_cast<int>(std::thread::hardware_concurrency())); }

int CurrentMaxThreads() {
  const int limit = threadLimit.load(std::memory_order_relaxed);
  return limit > 0 ? limit : HardwareThreads();
}

void RunWorkers(Int begin, Int end, Int granularity, const ParallelOptions& options, detail::ChunkBody body,
                LoopState& state) {
  const Int count = end - begin;
  const Int chunkCount = (count + granularity - 1) / granularity;
  const int threads = static_cast<int>(std::min<Int>(CurrentMaxThreads(), chunkCount));
  const Int chunk = std::max(granularity, count / (static_cast<Int>(threads) * 16));
  std::atomic<Int> next{begin};
  auto worker = [&] {
    for (;;) {
      const Int chunkBegin = next.fetch_add(chunk, std::memory_order_relaxed);
      if (chunkBegin >= end) return;
      RunOneChunk(chunkBegin, std::min(end, chunkBegin + chunk), options, body, state);
    }
  };
  std::vector<std::thread> helpers;
  try {
    helpers.reserve(static_cast<std::size_t>(threads - 1));
    for (int t = 1; t < threads; ++t) helpers.emplace_back(worker);
  } catch (const std::system_error&) {
    // Fewer threads than asked for: the ones we have share the work.
  } catch (const std::bad_alloc&) {
  }
  worker();
  for (std::thread& helper : helpers) helper.join();
}

#endif

}  // namespace

namespace detail {

Status RunChunks(Int begin, Int end, const ParallelOptions& options, ChunkBody body) {
  if (end <= begin) return Ok();
  const Int granularity = std::max<Int>(1, options.granularity);
  const Int count = end - begin;
  LoopState state;
  if (count < options.singleThreadBelow || count <= granularity || CurrentMaxThreads() <= 1)
    RunSerial(begin, end, granularity, options, body, state);
  else
    RunWorkers(begin, end, granularity, options, body, state);
  return state.Finish();
}

}  // namespace detail

int MaxThreads() { return CurrentMaxThreads(); }

#if defined(VELLGRUND_PARALLEL_TBB)

struct ScopedThreadLimit::State {
  // Built in place: the limit lasts exactly as long as this control object.
  explicit State(int threads)
      : control(tbb::global_control::max_allowed_parallelism, static_cast<std::size_t>(std::max(1, threads))) {}
  tbb::global_control control;
};

ScopedThreadLimit::ScopedThreadLimit(int threads)
    : state_(std::make_unique<State>(threads)) {}

ScopedThreadLimit::~ScopedThreadLimit() = default;

#else

struct ScopedThreadLimit::State {
  int previous;
};

ScopedThreadLimit::ScopedThreadLimit(int threads)
    : state_(std::make_unique<State>(threadLimit.exchange(std::max(1, threads), std::memory_order_relaxed))) {}

ScopedThreadLimit::~ScopedThreadLimit() {
  threadLimit.store(state_->previous, std::memory_order_relaxed);
}

#endif

}  // namespace platform
