#include "platform/parallel.h"

#include <atomic>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace platform {
namespace {

// One counter per index; the loops under test increment them from any thread.
class VisitCounts {
 public:
  explicit VisitCounts(Int size)
      : counts_(std::make_unique<std::atomic<int>[]>(static_cast<std::size_t>(size))), size_(size) {}
  void Visit(Int i) { counts_[static_cast<std::size_t>(i)].fetch_add(1, std::memory_order_relaxed); }
  // The first index not visited exactly once, or -1.
  [[nodiscard]] Int FirstWrong() const {
    for (Int i = 0; i < size_; ++i)
      if (counts_[static_cast<std::size_t>(i)].load() != 1) return i;
    return -1;
  }

 private:
  std::unique_ptr<std::atomic<int>[]> counts_;
  Int size_;
};

TEST(ParallelTest, VisitsEveryIndexExactlyOnce) {
  for (const Int size : {Int{0}, Int{1}, Int{7}, Int{16}, Int{17}, Int{1000}, Int{100003}}) {
    for (const Int granularity : {Int{0}, Int{1}, Int{16}, Int{4096}}) {
      for (const Int singleThreadBelow : {Int{0}, Int{1} << 30}) {
        const Int begin = 5;  // loops need not start at 0
        ParallelOptions options;
        options.granularity = granularity;
        options.singleThreadBelow = singleThreadBelow;
        SCOPED_TRACE("size " + std::to_string(size) + ", granularity " + std::to_string(granularity) +
                     ", single thread below " + std::to_string(singleThreadBelow));

        VisitCounts each(size);
        ASSERT_TRUE(ParallelFor(begin, begin + size, options, [&](Int i) { each.Visit(i - begin); }));
        EXPECT_EQ(each.FirstWrong(), -1);

        VisitCounts checked(size);
        ASSERT_TRUE(ParallelFor(begin, begin + size, options, [&](Int i) -> Status {
          checked.Visit(i - begin);
          return Ok();
        }));
        EXPECT_EQ(checked.FirstWrong(), -1);

        VisitCounts ranges(size);
        std::atomic<bool> emptyChunk{false};
        ASSERT_TRUE(ParallelForRange(begin, begin + size, options, [&](Int chunkBegin, Int chunkEnd) {
          if (chunkBegin >= chunkEnd) emptyChunk = true;
          for (Int i = chunkBegin; i < chunkEnd; ++i) ranges.Visit(i - begin);
        }));
        EXPECT_EQ(ranges.FirstWrong(), -1);
        EXPECT_FALSE(emptyChunk);
      }
    }
  }
  // An empty or reversed range runs nothing.
  bool called = false;
  EXPECT_TRUE(ParallelFor(10, 3, ParallelOptions{}, [&](Int) { called = true; }));
  EXPECT_FALSE(called);
}

TEST(ParallelTest, FirstErrorStopsTheLoop) {
  constexpr Int total = 1'000'000;
  for (const Int singleThreadBelow : {Int{0}, total + 1}) {
    SCOPED_TRACE("single thread below " + std::to_string(singleThreadBelow));
    ParallelOptions options;
    options.granularity = 1;
    options.singleThreadBelow = singleThreadBelow;
    std::atomic<Int> visits{0};
    std::atomic<Int> visitsAfterError{0};
    std::atomic<bool> failed{false};
    Status status = ParallelFor(0, total, options, [&](Int) -> Status {
      if (failed.load()) visitsAfterError.fetch_add(1);
      // The hundredth visit fails, wherever in the range it falls.
      if (visits.fetch_add(1) == 100) {
        failed = true;
        return IllegalArgumentError("visit 100 failed");
      }
      return Ok();
    });
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().kind, ErrorKind::IllegalArgument);
    EXPECT_EQ(status.error().message, "visit 100 failed");
    EXPECT_LT(visitsAfterError.load(), total / 100);
    if (singleThreadBelow > total) {
      EXPECT_EQ(visits.load(), 101);
    }
  }

  // The same through chunks: no chunk starts once an error is recorded.
  ParallelOptions options;
  options.granularity = 1;
  std::atomic<Int> chunksAfterError{0};
  std::atomic<bool> failed{false};
  Status status = ParallelForRange(0, total, options, [&](Int chunkBegin, Int) -> Status {
    if (failed.load()) chunksAfterError.fetch_add(1);
    if (chunkBegin == 0) {
      failed = true;
      return GenericError("first chunk failed");
    }
    return Ok();
  });
  ASSERT_FALSE(status);
  EXPECT_EQ(status.error().message, "first chunk failed");
  EXPECT_LT(chunksAfterError.load(), total / 100);
}

TEST(ParallelTest, CancellationEndsTheLoopWithItsMessage) {
  constexpr Int total = 200'000;
  for (const Int singleThreadBelow : {Int{0}, total + 1}) {
    SCOPED_TRACE("single thread below " + std::to_string(singleThreadBelow));
    CancellationToken token;
    ParallelOptions options;
    options.granularity = 64;
    options.singleThreadBelow = singleThreadBelow;
    options.cancel = &token;
    options.cancelMessage = "Stopped by the user!";

    // Cancelled before the start: nothing runs.
    token.Cancel();
    std::atomic<Int> visits{0};
    Status before = ParallelFor(0, total, options, [&](Int) { visits.fetch_add(1); });
    ASSERT_FALSE(before);
    EXPECT_EQ(before.error().kind, ErrorKind::Cancelled);
    EXPECT_EQ(before.error().message, "Stopped by the user!");
    EXPECT_EQ(visits.load(), 0);

    // Cancelled while running: the loop ends early.
    token.Reset();
    visits = 0;
    Status during = ParallelFor(0, total, options, [&](Int) {
      if (visits.fetch_add(1) == 1000) token.Cancel();
    });
    ASSERT_FALSE(during);
    EXPECT_EQ(during.error().kind, ErrorKind::Cancelled);
    EXPECT_EQ(during.error().message, "Stopped by the user!");
    EXPECT_LT(visits.load(), total / 2);

    // An untouched token changes nothing.
    token.Reset();
    visits = 0;
    EXPECT_TRUE(ParallelFor(0, total, options, [&](Int) { visits.fetch_add(1); }));
    EXPECT_EQ(visits.load(), total);
  }
}

TEST(ParallelTest, ExceptionsFromBodiesBecomeErrors) {
  for (const Int singleThreadBelow : {Int{0}, Int{1} << 30}) {
    SCOPED_TRACE("single thread below " + std::to_string(singleThreadBelow));
    ParallelOptions options;
    options.granularity = 8;
    options.singleThreadBelow = singleThreadBelow;

    Status outOfMemory = ParallelFor(0, 10'000, options, [](Int i) {
      if (i == 4321) throw std::bad_alloc();
    });
    ASSERT_FALSE(outOfMemory);
    EXPECT_EQ(outOfMemory.error().kind, ErrorKind::OutOfMemory);

    Status failure = ParallelFor(0, 10'000, options, [](Int i) -> Status {
      if (i == 777) throw std::runtime_error("broken body");
      return Ok();
    });
    ASSERT_FALSE(failure);
    EXPECT_EQ(failure.error().kind, ErrorKind::Generic);
    EXPECT_EQ(failure.error().message, "broken body");

    Status unknown = ParallelForRange(0, 10'000, options, [](Int chunkBegin, Int chunkEnd) {
      if (chunkBegin <= 5000 && 5000 < chunkEnd) throw 42;
    });
    ASSERT_FALSE(unknown);
    EXPECT_EQ(unknown.error().kind, ErrorKind::Generic);
  }
}

TEST(ParallelTest, ThreadLimitOfOneRunsOnTheCallingThread) {
  const int before = MaxThreads();
  EXPECT_GE(before, 1);
  {
    ScopedThreadLimit limit(1);
    EXPECT_EQ(MaxThreads(), 1);
    const std::thread::id caller = std::this_thread::get_id();
    VisitCounts counts(50'000);
    std::atomic<bool> elsewhere{false};
    ASSERT_TRUE(ParallelFor(0, 50'000, ParallelOptions{.granularity = 1}, [&](Int i) {
      if (std::this_thread::get_id() != caller) elsewhere = true;
      counts.Visit(i);
    }));
    EXPECT_EQ(counts.FirstWrong(), -1);
    EXPECT_FALSE(elsewhere);
  }
  EXPECT_EQ(MaxThreads(), before);
  {
    ScopedThreadLimit limit(0);  // nonsense limits mean one thread, not none
    EXPECT_EQ(MaxThreads(), 1);
  }
  EXPECT_EQ(MaxThreads(), before);
}

TEST(ParallelTest, NestedLoopsCompleteAndPassErrorsOut) {
  constexpr Int outer = 48;
  constexpr Int inner = 2000;
  ParallelOptions options;
  options.granularity = 4;
  VisitCounts counts(outer * inner);
  ASSERT_TRUE(ParallelFor(0, outer, options, [&](Int row) -> Status {
    return ParallelFor(0, inner, options, [&](Int column) { counts.Visit(row * inner + column); });
  }));
  EXPECT_EQ(counts.FirstWrong(), -1);

  Status nestedError = ParallelFor(0, outer, options, [&](Int row) -> Status {
    return ParallelFor(0, inner, options, [&](Int column) -> Status {
      if (row == 17 && column == 1234) return IoError("inner failure");
      return Ok();
    });
  });
  ASSERT_FALSE(nestedError);
  EXPECT_EQ(nestedError.error().kind, ErrorKind::Io);
  EXPECT_EQ(nestedError.error().message, "inner failure");
}

}  // namespace
}  // namespace platform
