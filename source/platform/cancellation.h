#pragma once

#include <atomic>

namespace platform {

// The break flag of an evaluation. Set from any thread (a signal handler included: the
// flag is a lock-free atomic), tested by long loops at the indices their owners choose.
class CancellationToken {
 public:
  void Cancel() noexcept { cancelled_.store(true, std::memory_order_relaxed); }
  void Reset() noexcept { cancelled_.store(false, std::memory_order_relaxed); }
  [[nodiscard]] bool IsCancelled() const noexcept { return cancelled_.load(std::memory_order_relaxed); }

 private:
  std::atomic<bool> cancelled_{false};
};

// The break test as callers write it: no token means no break.
inline bool TestBreak(const CancellationToken* token) noexcept { return token != nullptr && token->IsCancelled(); }

}  // namespace platform
