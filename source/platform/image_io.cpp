#include "platform/image.h"

// Image files through OpenImageIO; kept apart from the image type so that binaries which
// only build images in memory do not load the image library.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <OpenImageIO/imageio.h>

#include "platform/file_output.h"
#include "platform/memory.h"

namespace platform {
namespace {

OIIO::TypeDesc ToTypeDesc(PixelType type) {
  switch (type) {
    case PixelType::UInt8:
      return OIIO::TypeDesc::UINT8;
    case PixelType::UInt16:
      return OIIO::TypeDesc::UINT16;
    case PixelType::Float32:
      return OIIO::TypeDesc::FLOAT;
  }
  return OIIO::TypeDesc::UNKNOWN;
}

std::string_view PixelTypeName(PixelType type) {
  switch (type) {
    case PixelType::UInt8:
      return "8-bit integer";
    case PixelType::UInt16:
      return "16-bit integer";
    case PixelType::Float32:
      return "32-bit float";
  }
  return "unknown";
}

// Our pixel type for a file's channel type: ours are kept, other integers widen to 16 bits
// and other floats (half, double) become 32-bit floats.
PixelType FromTypeDesc(OIIO::TypeDesc type) {
  switch (type.basetype) {
    case OIIO::TypeDesc::UINT8:
      return PixelType::UInt8;
    case OIIO::TypeDesc::UINT16:
      return PixelType::UInt16;
    case OIIO::TypeDesc::HALF:
    case OIIO::TypeDesc::FLOAT:
    case OIIO::TypeDesc::DOUBLE:
      return PixelType::Float32;
    default:
      return PixelType::UInt16;
  }
}

// The OpenImageIO format name for a file ending, empty when we do not write it.
std::string_view FormatForEnding(std::string_view ending) {
  if (ending == ".tif" || ending == ".tiff") return "tiff";
  if (ending == ".exr") return "openexr";
  if (ending == ".png") return "png";
  return {};
}

// OpenImageIO names the file it was given; the user knows only the target.
std::string ShowTarget(std::string message, const std::string& temporary, const std::string& target) {
  if (temporary.empty()) return message;
  for (std::size_t at = message.find(temporary); at != std::string::npos;
       at = message.find(temporary, at + target.size()))
    message.replace(at, temporary.size(), target);
  return message;
}

std::string Quoted(const std::filesystem::path& path) {
  // Appended piece by piece: "literal" + string trips a false -Wrestrict in GCC 12.
  std::string text(1, '"');
  text += path.string();
  text += '"';
  return text;
}

// OpenImageIO's message, or a fallback when it left none.
std::string Reason(std::string message) {
  while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
  return message.empty() ? std::string("unknown OpenImageIO failure") : message;
}

Status WriteImageUnchecked(const Image& image, const std::filesystem::path& path, std::optional<PixelType> fileType) {
  const std::string ending = LowerCaseEnding(path);
  const std::string_view format = FormatForEnding(ending);
  if (ending.empty()) {
    return IllegalArgumentError(
        "Cannot write " + Quoted(path) +
        ": the file name has no ending to choose the format by (supported: .tif, .tiff, .exr, .png)!");
  }
  if (format.empty()) {
    return IllegalArgumentError("Cannot write " + Quoted(path) + ": unsupported file ending \"" + ending +
                                "\" (supported: .tif, .tiff, .exr, .png)!");
  }
  const PixelType type = fileType.value_or(image.Type());
  if (format == "png" && type == PixelType::Float32)
    return IllegalArgumentError("Cannot write " + Quoted(path) +
                                ": PNG files hold 8 or 16-bit integers, not 32-bit floats!");
  if (format == "openexr" && type != PixelType::Float32) {
    return IllegalArgumentError("Cannot write " + Quoted(path) + ": OpenEXR files hold 32-bit floats, not " +
                                std::string(PixelTypeName(type)) + "s!");
  }
  constexpr Int maxSide = std::numeric_limits<int>::max();
  if (image.Width() <= 0 || image.Height() <= 0)
    return IllegalArgumentError("Cannot write " + Quoted(path) + ": the image is empty!");
  if (image.Width() > maxSide || image.Height() > maxSide)
    return IllegalArgumentError("Cannot write " + Quoted(path) + ": the image is too large for an image file!");

  // The temporary path has no image ending, so the writer is chosen by format name. The
  // output is declared after the pending file so that it closes before the temporary file
  // is removed on failure.
  PendingFile pending(path);
  const std::string temporary = pending.TemporaryPath().string();
  const auto failure = [&](std::string message) {
    return ShowTarget(Reason(std::move(message)), temporary, path.string());
  };
  std::unique_ptr<OIIO::ImageOutput> output = OIIO::ImageOutput::create(std::string(format));
  if (!output) return GenericError("Cannot write " + Quoted(path) + ": " + Reason(OIIO::geterror()));
  OIIO::ImageSpec description(static_cast<int>(image.Width()), static_cast<int>(image.Height()), image.Channels(),
                              ToTypeDesc(type));
  // Our channels are data, written as given: without this, formats that store straight
  // alpha (PNG) would get the colour channels divided by the last channel.
  description.attribute("oiio:UnassociatedAlpha", 1);
  if (!output->open(temporary, description)) {
    std::error_code ignored;
    if (const auto folder = path.parent_path(); !folder.empty() && !std::filesystem::is_directory(folder, ignored))
      return IoError("Could not open " + Quoted(path) + " for writing: the folder " + Quoted(folder) +
                     " does not exist!");
    return IoError("Could not open " + Quoted(path) + " for writing: " + failure(output->geterror()));
  }
  // OpenImageIO converts from the memory type to the file type.
  if (!output->write_image(ToTypeDesc(image.Type()), image.Bytes().data())) {
    std::string reason = failure(output->geterror());
    output->close();
    return IoError("Could not write " + Quoted(path) + ": " + reason);
  }
  if (!output->close()) return IoError("Could not write " + Quoted(path) + ": " + failure(output->geterror()));
  output.reset();
  return pending.Commit();
}

Result<Image> ReadImageUnchecked(const std::filesystem::path& path) {
  // Keep straight alpha as stored instead of multiplying the colour channels by it.
  OIIO::ImageSpec config;
  config.attribute("oiio:UnassociatedAlpha", 1);
  std::unique_ptr<OIIO::ImageInput> input = OIIO::ImageInput::open(path.string(), &config);
  if (!input) return IoError("Could not read " + Quoted(path) + ": " + Reason(OIIO::geterror()));
  const OIIO::ImageSpec& description = input->spec();
  if (description.deep) return IoError("Could not read " + Quoted(path) + ": deep images are not supported!");
  if (description.depth > 1) return IoError("Could not read " + Quoted(path) + ": volume images are not supported!");
  if (description.nchannels < 1) return IoError("Could not read " + Quoted(path) + ": the image has no channels!");
  // Our images hold at most four channels; further ones (depth, masks) are left out.
  const int channels = std::min(description.nchannels, 4);
  const PixelType type = FromTypeDesc(description.format);
  Result<Image> image = Image::Create(description.width, description.height, channels, type);
  if (!image) {
    if (image.error().kind == ErrorKind::OutOfMemory)
      return OutOfMemoryError("Out of memory reading " + Quoted(path) + "!");
    return IoError("Could not read " + Quoted(path) + ": " + image.error().message);
  }
  if (!input->read_image(0, 0, 0, channels, ToTypeDesc(type), image->Bytes().data()))
    return IoError("Could not read " + Quoted(path) + ": " + Reason(input->geterror()));
  input->close();
  return image;
}

}  // namespace

Status WriteImage(const Image& image, const std::filesystem::path& path, std::optional<PixelType> fileType,
                  const WriteControl&, std::span<const ImageAttribute>) {
  try {
    return WriteImageUnchecked(image, path, fileType);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError("Out of memory writing " + Quoted(path) + "!");
  } catch (const std::exception& exception) {
    return IoError("Could not write " + Quoted(path) + ": " + exception.what());
  }
}

Result<Image> ReadImage(const std::filesystem::path& path) {
  try {
    return ReadImageUnchecked(path);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError("Out of memory reading " + Quoted(path) + "!");
  } catch (const std::exception& exception) {
    return IoError("Could not read " + Quoted(path) + ": " + exception.what());
  }
}

}  // namespace platform
