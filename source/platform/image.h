#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/file_output.h"
#include "platform/result.h"
#include "platform/types.h"

namespace platform {

enum class PixelType { UInt8, UInt16, Float32 };

// A bitmap: width x height pixels of 1 to 4 channels, row 0 the top line, stored in one
// pixel type. Channel values are given in the type's own units: 0 .. 255 for UInt8,
// 0 .. 65535 for UInt16, any value for Float32.
class Image {
 public:
  static Result<Image> Create(Int width, Int height, int channels, PixelType type);

  [[nodiscard]] Int Width() const { return width_; }
  [[nodiscard]] Int Height() const { return height_; }
  [[nodiscard]] int Channels() const { return channels_; }
  [[nodiscard]] PixelType Type() const { return type_; }

  // False when the pixel lies outside the image or the value count is not the channel count.
  // Integer types clamp to their range and truncate.
  bool SetPixel(Int x, Int y, std::span<const Float> values);
  // The channel value in the type's units; 0 outside the image.
  [[nodiscard]] Float GetPixel(Int x, Int y, int channel) const;

  [[nodiscard]] std::span<const std::byte> Bytes() const { return data_; }
  [[nodiscard]] std::span<std::byte> Bytes() { return data_; }

 private:
  Int width_ = 0;
  Int height_ = 0;
  int channels_ = 0;
  PixelType type_ = PixelType::UInt8;
  std::vector<std::byte> data_;
};

[[nodiscard]] std::size_t PixelTypeSize(PixelType type);

// Writes through OpenImageIO; the format follows the file ending (.tif/.tiff, .exr, .png).
// `fileType` is the channel type in the file (default: the image's own); integer images
// become 0 .. 1 floats in a float file and floats are clamped to 0 .. 1 in an integer file.
// PNG holds 8 or 16 bits, OpenEXR 32-bit floats, TIFF all three. Nothing is left behind
// on failure.
// `attributes` are stored as text metadata: PNG text chunks and OpenEXR attributes by
// name, in TIFF as "name=value" lines of the image description. Encoding tests the break
// flag and both encoding and writing report progress; every block written is checked.
// The image library is loaded on the first read or write.
struct ImageAttribute {
  std::string name;
  std::string value;
};
Status WriteImage(const Image& image, const std::filesystem::path& path, std::optional<PixelType> fileType = {},
                  const WriteControl& control = {}, std::span<const ImageAttribute> attributes = {});

// Encodes an 8 or 16-bit image as PNG in memory, for files that embed their images (a
// glTF binary). Tests the break flag while encoding and reports its progress. The image
// library is loaded on first use, as for WriteImage.
Result<std::vector<std::byte>> EncodePng(const Image& image, const WriteControl& control = {});

// Reads any image OpenImageIO understands, keeping the file's channel type where it is one
// of ours (other integer types arrive as UInt16, other float types as Float32).
Result<Image> ReadImage(const std::filesystem::path& path);

}  // namespace platform
