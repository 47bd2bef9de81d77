#pragma once

#include <cstdint>

namespace platform {

using Int = std::int64_t;
using Int32 = std::int32_t;
using UInt32 = std::uint32_t;
using UInt64 = std::uint64_t;
using Float = double;

}  // namespace platform
