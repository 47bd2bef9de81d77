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

// An error, an exception or a break in one body ends the loop soon, on one thread or many,
// with that error; a token cancelled before the start runs nothing.
TEST(ParallelTest, TheFirstErrorExceptionOrBreakEndsTheLoop) {
  constexpr Int total = 1'000'000;
  struct Stopper {
    const char* what;
    std::function<Status(Int visit, CancellationToken&)> body;
    ErrorKind kind;
    std::string message;
  };
  const std::vector<Stopper> stoppers = {
      {"error",
       [](Int visit, CancellationToken&) { return visit == 100 ? IllegalArgumentError("visit 100 failed") : Ok(); },
       ErrorKind::IllegalArgument, "visit 100 failed"},
      {"bad_alloc",
       [](Int visit, CancellationToken&) -> Status {
         if (visit == 4321) throw std::bad_alloc();
         return Ok();
       },
       ErrorKind::OutOfMemory, ""},
      {"exception",
       [](Int visit, CancellationToken&) -> Status {
         if (visit == 777) throw std::runtime_error("broken body");
         return Ok();
       },
       ErrorKind::Generic, "broken body"},
      {"unknown exception",
       [](Int visit, CancellationToken&) -> Status {
         if (visit == 5000) throw 42;
         return Ok();
       },
       ErrorKind::Generic, ""},
      {"break",
       [](Int visit, CancellationToken& token) {
         if (visit == 1000) token.Cancel();
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
      const Status status =
          ParallelFor(0, total, options, [&](Int) { return stopper.body(visits.fetch_add(1), token); });
      ASSERT_FALSE(status);
      EXPECT_EQ(status.error().kind, stopper.kind);
      if (!stopper.message.empty()) {
        EXPECT_EQ(status.error().message, stopper.message);
      }
      // A break is seen between chunks, which some back-ends cut large.
      EXPECT_LT(visits.load(), stopper.kind == ErrorKind::Cancelled ? total / 2 : total / 100);
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
