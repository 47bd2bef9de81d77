#pragma once

#include <new>
#include <stdexcept>
#include <vector>

#include "platform/result.h"
#include "platform/types.h"

namespace platform {

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
