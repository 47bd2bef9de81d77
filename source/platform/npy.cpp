#include "platform/npy.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <limits>
#include <new>
#include <ostream>
#include <string>

#include "platform/file_output.h"

namespace platform {
namespace {

constexpr std::size_t kPreambleSize = 10;  // magic, version, header length
constexpr std::size_t kAlignment = 64;

// The format 1.0 preamble and dictionary, padded with spaces and ending in a newline so
// that the data starts at a multiple of 64 bytes.
std::string MakeHeader(Int rows, Int columns) {
  std::string dict = "{'descr': '<f8', 'fortran_order': False, 'shape': (" + std::to_string(rows) + ", " +
                     std::to_string(columns) + "), }";
  const std::size_t unpadded = kPreambleSize + dict.size() + 1;
  dict.append((kAlignment - unpadded % kAlignment) % kAlignment, ' ');
  dict.push_back('\n');
  const auto length = static_cast<std::uint16_t>(dict.size());
  std::string header = "\x93NUMPY";
  header.push_back('\x01');
  header.push_back('\x00');
  header.push_back(static_cast<char>(length & 0xFF));
  header.push_back(static_cast<char>(length >> 8));
  return header + dict;
}

Status WriteValues(std::ostream& stream, std::span<const Float> values) {
  if constexpr (std::endian::native == std::endian::little) {
    stream.write(reinterpret_cast<const char*>(values.data()), static_cast<std::streamsize>(values.size_bytes()));
  } else {
    // Swapped in blocks so that a big array needs no second copy.
    std::array<std::uint64_t, 1024> block;
    for (std::size_t begin = 0; begin < values.size(); begin += block.size()) {
      const std::size_t count = std::min(block.size(), values.size() - begin);
      for (std::size_t i = 0; i < count; ++i) block[i] = std::byteswap(std::bit_cast<std::uint64_t>(values[begin + i]));
      stream.write(reinterpret_cast<const char*>(block.data()),
                   static_cast<std::streamsize>(count * sizeof(std::uint64_t)));
    }
  }
  return Ok();
}

}  // namespace

Status WriteNpy(const std::filesystem::path& path, std::span<const Float> values, Int rows, Int columns,
                const WriteControl& control) {
  if (rows < 0 || columns < 0)
    return IllegalArgumentError("Cannot write \"" + path.string() + "\": the array shape must not be negative!");
  const auto count = static_cast<Int>(values.size());
  const bool fits =
      columns == 0 ? count == 0 : rows <= std::numeric_limits<Int>::max() / columns && rows * columns == count;
  if (!fits) {
    return IllegalArgumentError("Cannot write \"" + path.string() + "\": " + std::to_string(values.size()) +
                                " values do not fill an array of " + std::to_string(rows) + " x " +
                                std::to_string(columns) + "!");
  }
  try {
    const std::string header = MakeHeader(rows, columns);
    return WriteFileAtomically(path, [&](std::ostream& stream) -> Status {
      stream.write(header.data(), static_cast<std::streamsize>(header.size()));
      return WriteValues(stream, values);
    }, control, header.size() + values.size() * sizeof(Float));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError("Out of memory writing \"" + path.string() + "\"!");
  }
}

}  // namespace platform
