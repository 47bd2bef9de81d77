#pragma once

#include <atomic>
#include <memory>

#include "platform/large_array.h"
#include "platform/result.h"
#include "platform/types.h"

namespace VLGD {

using platform::Float;
using platform::Int;
using platform::Status;

// Scratch memory for the chunks of a parallel loop: one slot for each thread that may run a
// chunk at the same time, allocated before the loop (so that running out of memory is an
// error there, not a failure inside a worker) and lent to a chunk while it runs. No chunk
// allocates, and no two chunks share a slot.
class ScratchPool {
 public:
  static constexpr Int kLineBytes = 64;
  static constexpr Int kLineValues = kLineBytes / static_cast<Int>(sizeof(Float));

  // Slots of `count` values each (rounded up to whole cache lines, each slot starting on
  // one), one per worker thread; contents are undefined.
  Status Allocate(Int count);

  class Lease {
   public:
    Lease(ScratchPool& pool, int slot) : pool_(&pool), slot_(slot) {}
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease() { pool_->busy_[slot_].store(false, std::memory_order_release); }
    [[nodiscard]] Float* Data() const {
      return pool_->values_.data() + pool_->first_ + static_cast<Int>(slot_) * pool_->count_;
    }

   private:
    ScratchPool* pool_;
    int slot_;
  };

  // A free slot for the calling chunk, given back when the lease ends.
  [[nodiscard]] Lease Claim();

 private:
  platform::LargeArray<Float> values_;
  std::unique_ptr<std::atomic<bool>[]> busy_;
  int slots_ = 0;
  Int count_ = 0;
  Int first_ = 0;  // values before the first cache line
};

}  // namespace VLGD
