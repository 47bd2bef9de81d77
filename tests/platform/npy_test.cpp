#include "platform/npy.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
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
  EXPECT_EQ(bytes.substr(0, 6), std::string("\x93NUMPY"));
  EXPECT_EQ(bytes[6], '\x01');
  EXPECT_EQ(bytes[7], '\x00');
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
  // Row 0 is {1.5, -2.25}; the values include ones that only survive bit-exact copying.
  const std::vector<Float> values{1.5, -2.25, 0.1, -0.0, std::numeric_limits<Float>::denorm_min(), 3e300};
  const auto path = dir.File("array.npy");
  ASSERT_TRUE(WriteNpy(path, values, 3, 2));
  const NpyFile file = Parse(testing_support::ReadFileBytes(path));
  EXPECT_EQ(file.dict, "{'descr': '<f8', 'fortran_order': False, 'shape': (3, 2), }");
  ASSERT_EQ(file.bits.size(), values.size());
  for (std::size_t i = 0; i < values.size(); ++i) EXPECT_EQ(file.bits[i], std::bit_cast<std::uint64_t>(values[i])) << i;

  // Wide shapes lengthen the header; it still ends on a 64-byte boundary.
  const std::vector<Float> none;
  const auto wide = dir.File("wide.npy");
  ASSERT_TRUE(WriteNpy(wide, none, 1234567890123, 0));
  const NpyFile wideFile = Parse(testing_support::ReadFileBytes(wide));
  EXPECT_EQ(wideFile.dict, "{'descr': '<f8', 'fortran_order': False, 'shape': (1234567890123, 0), }");
  EXPECT_TRUE(wideFile.bits.empty());

  // Rewriting replaces the old file entirely and leaves no temporary.
  const std::vector<Float> single{7.0};
  ASSERT_TRUE(WriteNpy(path, single, 1, 1));
  const NpyFile rewritten = Parse(testing_support::ReadFileBytes(path));
  EXPECT_EQ(rewritten.dict, "{'descr': '<f8', 'fortran_order': False, 'shape': (1, 1), }");
  ASSERT_EQ(rewritten.bits.size(), 1u);
  EXPECT_EQ(rewritten.bits[0], std::bit_cast<std::uint64_t>(7.0));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.Path()), std::filesystem::directory_iterator()), 2);
}

TEST(NpyTest, RefusesShapesThatDoNotMatchTheValues) {
  TempDir dir;
  const std::vector<Float> six(6, 1.0);
  const std::vector<Float> none;
  const auto path = dir.File("bad.npy");
  struct Case {
    std::span<const Float> values;
    Int rows;
    Int columns;
  };
  const Int big = Int{1} << 32;  // big * big wraps to 0 in 64 bits
  for (const Case& c : {Case{six, -3, -2}, Case{six, -1, 2}, Case{six, 3, -2}, Case{six, 3, 3}, Case{six, 2, 2},
                        Case{six, 6, 0}, Case{none, big, big}, Case{six, std::numeric_limits<Int>::max(), 2}}) {
    Status status = WriteNpy(path, c.values, c.rows, c.columns);
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
