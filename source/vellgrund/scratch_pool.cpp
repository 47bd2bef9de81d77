#include "vellgrund/scratch_pool.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <thread>

#include "platform/memory.h"
#include "platform/parallel.h"

namespace VLGD {

Status ScratchPool::Allocate(Int count) {
  const int slots = std::max(1, platform::MaxThreads());
  // Slots start on cache lines of their own: no two threads write one line, and the row
  // loops that work in them see the alignment they would get from their own allocation.
  count = (std::max<Int>(count, 0) + kLineValues - 1) / kLineValues * kLineValues;
  if (!platform::TryResize(values_, count * slots + kLineValues))
    return platform::OutOfMemoryError("Not enough memory for the scratch rows of a parallel loop!");
  try {
    busy_ = std::make_unique<std::atomic<bool>[]>(static_cast<std::size_t>(slots));
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError("Not enough memory for the scratch rows of a parallel loop!");
  }
  slots_ = slots;
  count_ = count;
  const auto address = reinterpret_cast<std::uintptr_t>(values_.data());
  first_ = static_cast<Int>((kLineBytes - address % kLineBytes) % kLineBytes / sizeof(Float));
  return platform::Ok();
}

ScratchPool::Lease ScratchPool::Claim() {
  // As many slots as threads may run chunks, so the wait is only there for a thread limit
  // raised since Allocate.
  for (;; std::this_thread::yield())
    for (int slot = 0; slot < slots_; ++slot)
      if (!busy_[slot].exchange(true, std::memory_order_acquire)) return Lease(*this, slot);
}

}  // namespace VLGD
