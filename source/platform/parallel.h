#pragma once

#include <atomic>
#include <memory>
#include <string_view>
#include <type_traits>

#include "platform/cancellation.h"
#include "platform/function_ref.h"
#include "platform/result.h"
#include "platform/types.h"

namespace platform {

// Loops over fewer samples than this run on the calling thread: below it, waking the
// workers costs more than the work.
inline constexpr Int kSingleThreadBelowSamples = 10001;
// The same for loops whose iterations are whole rows.
inline constexpr Int kSingleThreadBelowRows = 501;

// Long loops test the break flag only where the index shares a bit with a mask: a bit
// test, not a modulo, so that a test costs one AND and the indices tested are the same on
// every machine (indices such as 0 and 1024 never test, deliberately).
inline constexpr Int kRowBreakMask = 999;
inline constexpr Int kSampleBreakMask = 3999;
constexpr bool IsRowBreakTest(Int row) noexcept { return (row & kRowBreakMask) != 0; }
constexpr bool IsSampleBreakTest(Int sample) noexcept { return (sample & kSampleBreakMask) != 0; }

struct ParallelOptions {
  // The smallest chunk of iterations handed to one worker.
  Int granularity = 16;
  // A loop of fewer iterations than this runs on the calling thread alone.
  Int singleThreadBelow = 0;
  // Tested before every chunk; a break ends the loop with a cancellation error.
  const CancellationToken* cancel = nullptr;
  std::string_view cancelMessage = "Operation cancelled!";
};

// Flag shared by the chunks of one loop: set once an error is recorded, so that the other
// workers stop early.
class LoopStop {
 public:
  [[nodiscard]] bool Requested() const noexcept { return stop_->load(std::memory_order_relaxed); }
  explicit LoopStop(const std::atomic<bool>* stop) noexcept : stop_(stop) {}

 private:
  const std::atomic<bool>* stop_;
};

namespace detail {
using ChunkBody = FunctionRef<Status(Int chunkBegin, Int chunkEnd, LoopStop stop)>;
Status RunChunks(Int begin, Int end, const ParallelOptions& options, ChunkBody body);
}  // namespace detail

// Runs body(chunkBegin, chunkEnd) over [begin, end) on the worker threads. The body returns
// void or Status; the first error recorded wins, the loop stops as soon as the workers see
// it, and that error is returned. Each iteration index is visited exactly once.
template <class Body>
Status ParallelForRange(Int begin, Int end, const ParallelOptions& options, Body&& body) {
  using Returned = std::invoke_result_t<Body&, Int, Int>;
  auto chunk = [&body](Int chunkBegin, Int chunkEnd, LoopStop) -> Status {
    if constexpr (std::is_void_v<Returned>) {
      body(chunkBegin, chunkEnd);
      return Ok();
    } else {
      return body(chunkBegin, chunkEnd);
    }
  };
  return detail::RunChunks(begin, end, options, chunk);
}

// Runs body(i) for every i in [begin, end). A body that returns Status may fail; the loop
// then stops at the next index every worker reaches.
template <class Body>
Status ParallelFor(Int begin, Int end, const ParallelOptions& options, Body&& body) {
  using Returned = std::invoke_result_t<Body&, Int>;
  auto chunk = [&body](Int chunkBegin, Int chunkEnd, LoopStop stop) -> Status {
    for (Int i = chunkBegin; i < chunkEnd; ++i) {
      if constexpr (std::is_void_v<Returned>) {
        body(i);
      } else {
        if (stop.Requested()) return Ok();
        if (Status status = body(i); !status) return status;
      }
    }
    return Ok();
  };
  return detail::RunChunks(begin, end, options, chunk);
}

// The number of worker threads that loops may use.
int MaxThreads();

// Limits the worker threads of every loop started while the object lives (1 runs all
// loops on the calling thread). Used by tools and by tests of thread-count independence.
class ScopedThreadLimit {
 public:
  explicit ScopedThreadLimit(int threads);
  ~ScopedThreadLimit();
  ScopedThreadLimit(const ScopedThreadLimit&) = delete;
  ScopedThreadLimit& operator=(const ScopedThreadLimit&) = delete;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace platform
