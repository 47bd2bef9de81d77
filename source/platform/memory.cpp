#include "platform/memory.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <limits>

namespace platform {
namespace {

constexpr UInt64 kCheckFrom = UInt64{64} << 20;

// A "Key:   1234 kB" line of /proc/meminfo, in bytes.
std::optional<UInt64> MemoryInfo(std::string_view key) {
  std::ifstream file("/proc/meminfo");
  std::string name;
  UInt64 kilobytes = 0;
  std::string unit;
  while (file >> name >> kilobytes >> unit)
    if (name.size() == key.size() + 1 && name.starts_with(key) && name.back() == ':') return kilobytes * 1024;
  return std::nullopt;
}

std::optional<UInt64> AddressSpaceLeft() {
  rlimit limit{};
  if (getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return std::nullopt;
  UInt64 pages = 0;
  std::ifstream statm("/proc/self/statm");
  if (!(statm >> pages)) return std::nullopt;
  const UInt64 used = pages * static_cast<UInt64>(sysconf(_SC_PAGESIZE));
  return limit.rlim_cur > used ? limit.rlim_cur - used : 0;
}

}  // namespace

std::string ByteSize(UInt64 bytes) {
  if (bytes < 1024) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
  static constexpr std::array<const char*, 5> kUnits = {"KB", "MB", "GB", "TB", "PB"};
  double value = static_cast<double>(bytes) / 1024.0;
  std::size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < kUnits.size()) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

std::optional<UInt64> AvailableMemory() {
  std::optional<UInt64> system;
  if (const auto available = MemoryInfo("MemAvailable")) system = *available + MemoryInfo("SwapFree").value_or(0);
  const std::optional<UInt64> address = AddressSpaceLeft();
  if (system && address) return std::min(*system, *address);
  return system ? system : address;
}

UInt64 BytesFor(Int count, std::size_t size) {
  if (count <= 0) return 0;
  UInt64 bytes = 0;
  if (__builtin_mul_overflow(static_cast<UInt64>(count), static_cast<UInt64>(size), &bytes))
    return std::numeric_limits<UInt64>::max();
  return bytes;
}

Status CheckMemory(UInt64 bytes, std::string_view what) {
  if (bytes < kCheckFrom) return Ok();
  const std::optional<UInt64> available = AvailableMemory();
  if (!available || bytes <= *available) return Ok();
  return OutOfMemoryError(std::string(what) + " needs " + ByteSize(bytes) + " of memory, more than the " +
                          ByteSize(*available) + " available!");
}

}  // namespace platform
