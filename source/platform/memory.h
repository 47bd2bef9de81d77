#pragma once

#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/result.h"
#include "platform/types.h"

namespace platform {

// "1.5 GB": bytes for people, in units of 1024.
std::string ByteSize(UInt64 bytes);

// The bytes a new allocation can still get: the smaller of what the system has free
// (available memory and free swap) and what the address-space limit leaves this process.
// Empty when neither can be read.
std::optional<UInt64> AvailableMemory();

// `count` items of `size` bytes, saturating instead of wrapping.
UInt64 BytesFor(Int count, std::size_t size);

// Refuses a large allocation that cannot fit, before it is tried: the system would grant
// it lazily and then end the process while the pages are filled. `what` starts the
// message ("A plane of 20000 x 20000 segments"). Small requests pass unchecked, so that
// hot paths do not read the system's tables.
Status CheckMemory(UInt64 bytes, std::string_view what);

// Sizes a vector, turning allocation failure (or a size beyond what a vector can hold)
// into an error value instead of an exception.
template <class T, class A>
Status TryResize(std::vector<T, A>& values, Int count, const T& fill = T{}) {
  if (count < 0) return IllegalArgumentError("Negative element count!");
  try {
    values.assign(static_cast<std::size_t>(count), fill);
  } catch (const std::bad_alloc&) {
    values = {};
    return OutOfMemoryError();
  } catch (const std::length_error&) {
    values = {};
    return OutOfMemoryError();
  }
  return Ok();
}

// A new default-made object behind a shared pointer, or the allocation failure as an error.
template <class T>
Status TryMakeShared(std::shared_ptr<T>& object) {
  try {
    object = std::make_shared<T>();
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

template <class T, class A>
Status TryReserve(std::vector<T, A>& values, Int count) {
  if (count < 0) return IllegalArgumentError("Negative element count!");
  try {
    values.reserve(static_cast<std::size_t>(count));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  } catch (const std::length_error&) {
    return OutOfMemoryError();
  }
  return Ok();
}

template <class T, class A>
Status TryCopy(std::vector<T, A>& target, const std::vector<T, A>& source) {
  try {
    target = source;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

}  // namespace platform
