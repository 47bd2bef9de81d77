#include "platform/random.h"

namespace platform {

Int32 Random::GetInt(Int32 low, Int32 high) {
  if (high <= low) return low;
  // At most 2^32 values: the top 32 bits scaled by the span stay within 64 bits, and the
  // bias of this mapping is below 2^-32 of a value's share.
  const UInt64 span = static_cast<UInt64>(static_cast<Int>(high) - static_cast<Int>(low)) + 1;
  const UInt64 offset = ((GetUInt64() >> 32) * span) >> 32;
  return static_cast<Int32>(static_cast<Int>(low) + static_cast<Int>(offset));
}

}  // namespace platform
