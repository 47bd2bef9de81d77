#include "platform/image.h"

#include <cstdint>
#include <cstring>
#include <limits>

#include "platform/memory.h"

namespace platform {
namespace {

template <class T>
T Load(const std::byte* source) {
  T value;
  std::memcpy(&value, source, sizeof(T));
  return value;
}

template <class T>
void Store(std::byte* target, T value) {
  std::memcpy(target, &value, sizeof(T));
}

// Clamps to the integer range and truncates; NaN has no sensible value and becomes 0.
template <class T>
T ToInteger(Float value) {
  if (!(value > 0.0)) return T{0};
  constexpr Float top = static_cast<Float>(std::numeric_limits<T>::max());
  if (value >= top) return std::numeric_limits<T>::max();
  return static_cast<T>(value);
}

}  // namespace

std::size_t PixelTypeSize(PixelType type) {
  switch (type) {
    case PixelType::UInt8:
      return 1;
    case PixelType::UInt16:
      return 2;
    case PixelType::Float32:
      return 4;
  }
  return 0;
}

Result<Image> Image::Create(Int width, Int height, int channels, PixelType type) {
  if (width < 0 || height < 0) return IllegalArgumentError("Image size must not be negative!");
  if (channels < 1 || channels > 4) return IllegalArgumentError("An image has 1 to 4 channels!");
  const Int pixelSize = channels * static_cast<Int>(PixelTypeSize(type));
  // Sizes whose byte count does not even fit our integer cannot be allocated either.
  constexpr Int maxBytes = std::numeric_limits<Int>::max();
  if (width != 0 && height > maxBytes / width / pixelSize) return OutOfMemoryError("Could not allocate the image!");
  Image image;
  if (!TryResize(image.data_, width * height * pixelSize)) return OutOfMemoryError("Could not allocate the image!");
  image.width_ = width;
  image.height_ = height;
  image.channels_ = channels;
  image.type_ = type;
  return image;
}

bool Image::SetPixel(Int x, Int y, std::span<const Float> values) {
  if (x < 0 || y < 0 || x >= width_ || y >= height_) return false;
  if (values.size() != static_cast<std::size_t>(channels_)) return false;
  const std::size_t size = PixelTypeSize(type_);
  std::byte* pixel = data_.data() + static_cast<std::size_t>((y * width_ + x) * channels_) * size;
  for (const Float value : values) {
    switch (type_) {
      case PixelType::UInt8:
        Store(pixel, ToInteger<std::uint8_t>(value));
        break;
      case PixelType::UInt16:
        Store(pixel, ToInteger<std::uint16_t>(value));
        break;
      case PixelType::Float32:
        Store(pixel, static_cast<float>(value));
        break;
    }
    pixel += size;
  }
  return true;
}

Float Image::GetPixel(Int x, Int y, int channel) const {
  if (x < 0 || y < 0 || x >= width_ || y >= height_ || channel < 0 || channel >= channels_) return 0.0;
  const std::size_t size = PixelTypeSize(type_);
  const std::byte* value = data_.data() + static_cast<std::size_t>((y * width_ + x) * channels_ + channel) * size;
  switch (type_) {
    case PixelType::UInt8:
      return Load<std::uint8_t>(value);
    case PixelType::UInt16:
      return Load<std::uint16_t>(value);
    case PixelType::Float32:
      return static_cast<Float>(Load<float>(value));
  }
  return 0.0;
}

}  // namespace platform
