#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

namespace platform {

// Allocator for the big arrays of the engine (grids, meshes). Blocks of 2 MiB and more are
// aligned to 2 MiB and offered to the kernel for transparent huge pages: a 4001 x 4001
// grid then takes a few hundred page faults instead of tens of thousands, which on
// virtual machines is the larger part of the time spent allocating it.
namespace detail {
constexpr std::size_t kHugePageSize = std::size_t{2} << 20;
void* AllocateLarge(std::size_t bytes);  // throws std::bad_alloc
}  // namespace detail

template <class T>
class LargeArrayAllocator {
 public:
  using value_type = T;

  LargeArrayAllocator() noexcept = default;
  template <class U>
  LargeArrayAllocator(const LargeArrayAllocator<U>&) noexcept {}  // NOLINT(google-explicit-constructor)

  T* allocate(std::size_t count) {
    if (count > static_cast<std::size_t>(-1) / sizeof(T)) throw std::bad_alloc();
    const std::size_t bytes = count * sizeof(T);
    if (bytes < detail::kHugePageSize) return static_cast<T*>(::operator new(bytes, std::align_val_t{alignof(T)}));
    return static_cast<T*>(detail::AllocateLarge(bytes));
  }

  void deallocate(T* pointer, std::size_t count) noexcept {
    if (count * sizeof(T) < detail::kHugePageSize)
      ::operator delete(pointer, std::align_val_t{alignof(T)});
    else
      std::free(pointer);
  }

  template <class U>
  friend bool operator==(const LargeArrayAllocator&, const LargeArrayAllocator<U>&) noexcept {
    return true;
  }
};

template <class T>
using LargeArray = std::vector<T, LargeArrayAllocator<T>>;

}  // namespace platform
