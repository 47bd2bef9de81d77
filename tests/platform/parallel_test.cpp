#include "platform/parallel.h"

#include <atomic>
#include <functional>
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
using VisitCounts = std::vector<std::atomic<int>>;

// The first index not visited exactly once, or -1.
Int FirstWrong(const VisitCounts& counts) {
  for (std::size_t i = 0; i < counts.size(); ++i)
    if (counts[i].load() != 1) return Int(i);
  return -1;
}

TEST(ParallelTest, VisitsEveryIndexExactlyOnce) {
  for (const Int size : {Int{0}, Int{1}, Int{7}, Int{16}, Int{17}, Int{1000}, Int{100003}}) {
    for (const Int granularity : {Int{0}, Int{1}, Int{16}, Int{4096}}) {
      for (const Int singleThreadBelow : {Int{0}, Int{1} << 30}) {
        const Int begin = 5;  // loops need not start at 0
        const ParallelOptions options{.granularity = granularity, .singleThreadBelow = singleThreadBelow};
        SCOPED_TRACE("size " + std::to_string(size) + ", granularity " + std::to_string(granularity) +
                     ", single thread below " + std::to_string(singleThreadBelow));

        VisitCounts each(static_cast<std::size_t>(size));
        ASSERT_TRUE(ParallelFor(begin, begin + size, options, [&](Int i) { ++each[std::size_t(i - begin)]; }));
        EXPECT_EQ(FirstWrong(each), -1);

        VisitCounts checked(static_cast<std::size_t>(size));
        ASSERT_TRUE(ParallelFor(begin, begin + size, options, [&](Int i) -> Status {
          ++checked[std::size_t(i - begin)];
          return Ok();
        }));
        EXPECT_EQ(FirstWrong(checked), -1);

        VisitCounts ranges(static_cast<std::size_t>(size));
        std::atomic<bool> emptyChunk{false};
        ASSERT_TRUE(ParallelForRange(begin, begin + size, options, [&](Int chunkBegin, Int chunkEnd) {
          if (chunkBegin >= chunkEnd) emptyChunk = true;
          for (Int i = chunkBegin; i < chunkEnd; ++i) ++ranges[std::size_t(i - begin)];
        }));
        EXPECT_EQ(FirstWrong(ranges), -1);
        EXPECT_FALSE(emptyChunk);
      }
    }
  }
  // An empty or reversed range runs nothing.
  bool called = false;
  EXPECT_TRUE(ParallelFor(10, 3, ParallelOptions{}, [&](Int) { called = true; }));
  EXPECT_FALSE(called);
}

// An error, an exception or a break in one body ends the loop soon, on one thread or many,
// with that error; a token cancelled before the start runs nothing.
TEST(ParallelTest, TheFirstErrorExceptionOrBreakEndsTheLoop) {
  constexpr Int total = 1'000'000;
  struct Stopper {
    const char* what;
    Int at;  // the visit that stops the loop
    std::function<Status(CancellationToken&)> stop;
    ErrorKind kind;
    std::string message;
  };
  const std::vector<Stopper> stoppers = {
      {"error", 100, [](CancellationToken&) { return IllegalArgumentError("visit 100 failed"); },
       ErrorKind::IllegalArgument, "visit 100 failed"},
      {"bad_alloc", 4321, [](CancellationToken&) -> Status { throw std::bad_alloc(); }, ErrorKind::OutOfMemory,
       "Out of memory!"},
      {"exception", 777, [](CancellationToken&) -> Status { throw std::runtime_error("broken body"); },
       ErrorKind::Generic, "broken body"},
      {"unknown exception", 5000, [](CancellationToken&) -> Status { throw 42; }, ErrorKind::Generic,
       "Unknown failure in a parallel loop!"},
      {"break", 1000,
       [](CancellationToken& token) {
         token.Cancel();
         return Ok();
       },
       ErrorKind::Cancelled, "Stopped by the user!"},
  };
  for (const Int singleThreadBelow : {Int{0}, total + 1})
    for (const Stopper& stopper : stoppers) {
      SCOPED_TRACE(std::string(stopper.what) + (singleThreadBelow ? ", one thread" : ", all threads"));
      CancellationToken token;
      ParallelOptions options{.granularity = 1,
                              .singleThreadBelow = singleThreadBelow,
                              .cancel = &token,
                              .cancelMessage = "Stopped by the user!"};
      std::atomic<Int> visits{0};
      const Status status = ParallelFor(
          0, total, options, [&](Int) { return visits.fetch_add(1) == stopper.at ? stopper.stop(token) : Ok(); });
      ASSERT_FALSE(status);
      EXPECT_EQ(status.error().kind, stopper.kind);
      EXPECT_EQ(status.error().message, stopper.message);
      // A returned error stops the other workers at their next index. A throw is recorded
      // only once unwound, and a break is seen between chunks, which some back-ends cut
      // large: both are slower, but must still end the loop.
      EXPECT_LT(visits.load(), stopper.kind == ErrorKind::IllegalArgument ? total / 100 : total / 2);
      // Cancelled before the start: nothing runs, chunked or not.
      token.Cancel();
      visits = 0;
      EXPECT_FALSE(ParallelForRange(0, total, options, [&](Int, Int) { visits.fetch_add(1); }));
      EXPECT_EQ(visits.load(), 0);
    }
}

TEST(ParallelTest, ThreadLimitOfOneRunsOnTheCallingThread) {
  const int before = MaxThreads();
  EXPECT_GE(before, 1);
  {
    ScopedThreadLimit limit(1);
    EXPECT_EQ(MaxThreads(), 1);
    const std::thread::id caller = std::this_thread::get_id();
    VisitCounts counts(static_cast<std::size_t>(50'000));
    std::atomic<bool> elsewhere{false};
    ASSERT_TRUE(ParallelFor(0, 50'000, ParallelOptions{.granularity = 1}, [&](Int i) {
      if (std::this_thread::get_id() != caller) elsewhere = true;
      ++counts[std::size_t(i)];
    }));
    EXPECT_EQ(FirstWrong(counts), -1);
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
  const ParallelOptions options{.granularity = 4};
  VisitCounts counts(static_cast<std::size_t>(outer * inner));
  ASSERT_TRUE(ParallelFor(0, outer, options, [&](Int row) -> Status {
    return ParallelFor(0, inner, options, [&](Int column) { ++counts[std::size_t(row * inner + column)]; });
  }));
  EXPECT_EQ(FirstWrong(counts), -1);

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
