#include "vellgrund/scratch_pool.h"

#include <algorithm>
#include <new>
#include <thread>

#include "platform/memory.h"
#include "platform/parallel.h"

namespace VLGD {

Status ScratchPool::Allocate(Int count) {
  const int slots = std::max(1, platform::MaxThreads());
  if (count < 0 || !platform::TryResize(values_, count * slots))
    return platform::OutOfMemoryError("Not enough memory for the scratch rows of a parallel loop!");
  try {
    busy_ = std::make_unique<std::atomic<bool>[]>(static_cast<std::size_t>(slots));
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError("Not enough memory for the scratch rows of a parallel loop!");
  }
  slots_ = slots;
  count_ = count;
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
