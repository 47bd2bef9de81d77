#include "platform/npy.h"

#include <bit>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <limits>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace platform {
namespace {

using testing_support::TempDir;

struct NpyFile {
  std::string dict;  // the header text without its padding and newline
  std::size_t dataOffset = 0;
  std::vector<std::uint64_t> bits;  // the values as stored, decoded little-endian
};

// Parses the file the way a reader of the format would, checking its framing on the way.
NpyFile Parse(const std::string& bytes) {
  NpyFile file;
  EXPECT_GE(bytes.size(), 10u);
  if (bytes.size() < 10) return file;
  EXPECT_EQ(bytes.substr(0, 8), std::string("\x93NUMPY\x01\x00", 8));  // version 1.0
  const std::size_t headerLength =
      static_cast<std::uint8_t>(bytes[8]) | (static_cast<std::size_t>(static_cast<std::uint8_t>(bytes[9])) << 8);
  file.dataOffset = 10 + headerLength;
  EXPECT_EQ(file.dataOffset % 64, 0u);
  EXPECT_LE(file.dataOffset, bytes.size());
  if (file.dataOffset > bytes.size()) return file;
  const std::string header = bytes.substr(10, headerLength);
  EXPECT_EQ(header.back(), '\n');
  const std::size_t end = header.find_last_not_of(" \n");
  file.dict = header.substr(0, end + 1);
  EXPECT_EQ(header.find('\n'), header.size() - 1);
  const std::string data = bytes.substr(file.dataOffset);
  EXPECT_EQ(data.size() % 8, 0u);
  for (std::size_t i = 0; i + 8 <= data.size(); i += 8) {
    std::uint64_t value = 0;
    for (std::size_t b = 0; b < 8; ++b) value |= std::uint64_t{static_cast<std::uint8_t>(data[i + b])} << (8 * b);
    file.bits.push_back(value);
  }
  return file;
}

TEST(NpyTest, WritesRowMajorFloat64WithAlignedHeader) {
  TempDir dir;
  struct Case {
    const char* name;
    std::vector<Float> values;
    Int rows, columns;
    std::string shape;
  };
  // Values that only survive bit-exact copying; a wide shape that lengthens the header, which
  // still ends on a 64-byte boundary; a rewrite that replaces the old file entirely.
  const Case cases[] = {
      {"array.npy", {1.5, -2.25, 0.1, -0.0, std::numeric_limits<Float>::denorm_min(), 3e300}, 3, 2, "3, 2"},
      {"wide.npy", {}, 1234567890123, 0, "1234567890123, 0"},
      {"array.npy", {7.0}, 1, 1, "1, 1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.shape);
    ASSERT_TRUE(WriteNpy(dir.File(c.name), c.values, c.rows, c.columns));
    const NpyFile file = Parse(testing_support::ReadFileBytes(dir.File(c.name)));
    EXPECT_EQ(file.dict, "{'descr': '<f8', 'fortran_order': False, 'shape': (" + c.shape + "), }");
    std::vector<std::uint64_t> bits;
    for (const Float value : c.values) bits.push_back(std::bit_cast<std::uint64_t>(value));
    EXPECT_EQ(file.bits, bits);
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.Path()), std::filesystem::directory_iterator()), 2);
}

TEST(NpyTest, RefusesShapesThatDoNotMatchTheValues) {
  TempDir dir;
  const std::vector<Float> six(6, 1.0);
  const std::vector<Float> none;
  struct Case {
    std::span<const Float> values;
    Int rows, columns;
  };
  const Int big = Int{1} << 32;  // big * big wraps to 0 in 64 bits
  for (const Case& c : {Case{six, -3, -2}, Case{six, -1, 2}, Case{six, 3, -2}, Case{six, 3, 3}, Case{six, 2, 2},
                        Case{six, 6, 0}, Case{none, big, big}, Case{six, std::numeric_limits<Int>::max(), 2}}) {
    Status status = WriteNpy(dir.File("bad.npy"), c.values, c.rows, c.columns);
    ASSERT_FALSE(status) << c.rows << " x " << c.columns;
    EXPECT_EQ(status.error().kind, ErrorKind::IllegalArgument);
  }
  EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));

  Status missingFolder = WriteNpy(dir.File("nowhere") / "a.npy", six, 2, 3);
  ASSERT_FALSE(missingFolder);
  EXPECT_NE(missingFolder.error().message.find("a.npy"), std::string::npos);
  EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));
}

}  // namespace
}  // namespace platform
