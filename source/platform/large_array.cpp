#include "platform/large_array.h"

#include <sys/mman.h>

namespace platform::detail {

void* AllocateLarge(std::size_t bytes) {
  const std::size_t rounded = (bytes + kHugePageSize - 1) / kHugePageSize * kHugePageSize;
  void* memory = std::aligned_alloc(kHugePageSize, rounded);
  if (memory == nullptr) throw std::bad_alloc();
  // Advice only: where huge pages are unavailable the block works with normal pages.
  ::madvise(memory, rounded, MADV_HUGEPAGE);
  return memory;
}

}  // namespace platform::detail
