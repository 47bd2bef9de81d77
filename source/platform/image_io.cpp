#include "platform/image.h"
#include "platform/module_loader.h"

// Image files through the image codec module, loaded on first use: binaries that never read
// or write an image file do not load the image library and its dependencies.

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/file_output.h"
#include "platform/image_codec_abi.h"
#include "platform/memory.h"

#ifdef VELLGRUND_IMAGE_CODEC_LINKED
extern "C" {
int vlgd_encode_image(const VlgdImageView* image, const char* format, const char* fallbackPath,
                      const char* const* attributeNames, const char* const* attributeValues, int attributeCount,
                      VlgdProgress progress, void* user, unsigned char** encoded, std::size_t* encodedSize,
                      char* error, std::size_t errorSize);
void vlgd_free_encoded(unsigned char* encoded);
int vlgd_read_image(const char* path, std::int64_t* width, std::int64_t* height, int* channels, int* type,
                    void* pixels, char* error, std::size_t errorSize);
}
#endif

namespace platform {
namespace {

struct Codec {
  VlgdEncodeImage encode = nullptr;
  VlgdFreeEncoded freeEncoded = nullptr;
  VlgdReadImage read = nullptr;
};

// Beside the running program first (an installed tool), then where the build put it (the
// tests and tools run from the build tree); VELLGRUND_IMAGE_CODEC names another.
Result<const Codec*> LoadCodec() {
#ifdef VELLGRUND_IMAGE_CODEC_LINKED
  // Sanitizer builds link the codec in: LeakSanitizer cannot scan the thread-local storage
  // of a library loaded at run time.
  static const Codec linked{vlgd_encode_image, vlgd_free_encoded, vlgd_read_image};
  return &linked;
#endif
  static std::once_flag once;
  static Codec codec;
  static std::string failure;
  std::call_once(once, [] {
    const Result<void*> handle =
        OpenModule("VELLGRUND_IMAGE_CODEC", VELLGRUND_IMAGE_CODEC_NAME, VELLGRUND_IMAGE_CODEC_PATH, "The image codec");
    if (!handle) {
      failure = handle.error().message;
      return;
    }
    codec.encode = reinterpret_cast<VlgdEncodeImage>(::dlsym(*handle, "vlgd_encode_image"));
    codec.freeEncoded = reinterpret_cast<VlgdFreeEncoded>(::dlsym(*handle, "vlgd_free_encoded"));
    codec.read = reinterpret_cast<VlgdReadImage>(::dlsym(*handle, "vlgd_read_image"));
    if (codec.encode == nullptr || codec.freeEncoded == nullptr || codec.read == nullptr)
      failure = "The image codec lacks its entry points";
  });
  if (!failure.empty()) return GenericError(failure);
  return &codec;
}

int TypeNumber(PixelType type) {
  switch (type) {
    case PixelType::UInt8:
      return 0;
    case PixelType::UInt16:
      return 1;
    case PixelType::Float32:
      return 2;
  }
  return 2;
}

PixelType FromTypeNumber(int type) {
  return type == 0 ? PixelType::UInt8 : type == 1 ? PixelType::UInt16 : PixelType::Float32;
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

// The codec's format name for a file ending, empty when we do not write it.
std::string_view FormatForEnding(std::string_view ending) {
  if (ending == ".tif" || ending == ".tiff") return "tiff";
  if (ending == ".exr") return "openexr";
  if (ending == ".png") return "png";
  return {};
}

// The codec names the file it was given; the user knows only the target.
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

// Maps a part of the work onto a stretch of the whole bar: encoding, then writing.
class PartProgress final : public ProgressSink {
 public:
  PartProgress(ProgressSink* whole, double from, double to) : whole_(whole), from_(from), to_(to) {}
  void SetStatus(std::string_view text) override {
    if (whole_ != nullptr) whole_->SetStatus(text);
  }
  void ClearStatus() override {
    if (whole_ != nullptr) whole_->ClearStatus();
  }
  void SetProgress(double fraction) override {
    if (whole_ != nullptr) whole_->SetProgress(from_ + (to_ - from_) * std::clamp(fraction, 0.0, 1.0));
  }

 private:
  ProgressSink* whole_;
  double from_;
  double to_;
};

struct EncodeWatch {
  const CancellationToken* cancel;
  PartProgress progress;
};

bool OnEncodeProgress(void* user, float portion) {
  auto* watch = static_cast<EncodeWatch*>(user);
  watch->progress.SetProgress(portion);
  return TestBreak(watch->cancel);
}

Status WriteImageUnchecked(const Image& image, const std::filesystem::path& path, std::optional<PixelType> fileType,
                           const WriteControl& control, std::span<const ImageAttribute> attributes) {
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
  std::error_code ignored;
  if (const auto folder = path.parent_path(); !folder.empty() && !std::filesystem::is_directory(folder, ignored))
    return IoError("Could not open " + Quoted(path) + " for writing: the folder " + Quoted(folder) +
                   " does not exist!");
  VLGD_ASSIGN_OR_RETURN(const Codec* codec, LoadCodec());

  std::vector<const char*> names;
  std::vector<const char*> values;
  for (const ImageAttribute& attribute : attributes) {
    names.push_back(attribute.name.c_str());
    values.push_back(attribute.value.c_str());
  }
  // Formats the codec cannot encode in memory go to a temporary file beside the target.
  PendingFile pending(path);
  const std::string temporary = pending.TemporaryPath().string();
  const VlgdImageView view{image.Bytes().data(), image.Width(),           image.Height(),
                           image.Channels(),     TypeNumber(image.Type()), TypeNumber(type)};
  EncodeWatch watch{control.cancel, PartProgress(control.progress, 0.0, 0.8)};
  unsigned char* encoded = nullptr;
  std::size_t encodedSize = 0;
  std::array<char, 1024> reason{};
  const int outcome = codec->encode(&view, std::string(format).c_str(), temporary.c_str(), names.data(), values.data(),
                                    static_cast<int>(names.size()), OnEncodeProgress, &watch, &encoded, &encodedSize,
                                    reason.data(), reason.size());
  const std::unique_ptr<unsigned char, VlgdFreeEncoded> bytes(encoded, codec->freeEncoded);
  if (outcome == 2) return CancelledError("Writing " + Quoted(path) + " cancelled!");
  if (outcome != 0) return IoError("Could not write " + Quoted(path) + ": " + ShowTarget(reason.data(), temporary, path.string()));
  if (bytes == nullptr) return pending.Commit();
  PartProgress writing(control.progress, 0.8, 1.0);
  return WriteBytesAtomically(path, {reinterpret_cast<const std::byte*>(bytes.get()), encodedSize},
                              {control.cancel, &writing});
}

Result<std::vector<std::byte>> EncodePngUnchecked(const Image& image, const WriteControl& control) {
  if (image.Type() == PixelType::Float32)
    return IllegalArgumentError("Cannot encode a PNG image: PNG holds 8 or 16-bit integers, not 32-bit floats!");
  if (image.Width() <= 0 || image.Height() <= 0)
    return IllegalArgumentError("Cannot encode a PNG image: the image is empty!");
  if (image.Width() > std::numeric_limits<int>::max() || image.Height() > std::numeric_limits<int>::max())
    return IllegalArgumentError("Cannot encode a PNG image: the image is too large for a PNG file!");
  // The codec reads width x height pixels from the buffer; a moved-from image has none.
  const auto needed = static_cast<std::size_t>(image.Width()) * static_cast<std::size_t>(image.Height()) *
                      static_cast<std::size_t>(image.Channels()) * PixelTypeSize(image.Type());
  if (image.Bytes().size() < needed)
    return IllegalArgumentError("Cannot encode a PNG image: the image holds fewer pixels than its size!");
  VLGD_ASSIGN_OR_RETURN(const Codec* codec, LoadCodec());

  const int type = TypeNumber(image.Type());
  const VlgdImageView view{image.Bytes().data(), image.Width(), image.Height(), image.Channels(), type, type};
  EncodeWatch watch{control.cancel, PartProgress(control.progress, 0.0, 1.0)};
  unsigned char* encoded = nullptr;
  std::size_t encodedSize = 0;
  std::array<char, 1024> reason{};
  // No fallback file: PNG encodes in memory, and an empty path makes a codec that could
  // not do so fail instead of writing somewhere.
  const int outcome = codec->encode(&view, "png", "", nullptr, nullptr, 0, OnEncodeProgress, &watch, &encoded,
                                    &encodedSize, reason.data(), reason.size());
  const std::unique_ptr<unsigned char, VlgdFreeEncoded> bytes(encoded, codec->freeEncoded);
  if (outcome == 2) return CancelledError("Encoding a PNG image cancelled!");
  if (outcome != 0) return IoError(std::string("Could not encode a PNG image: ") + reason.data());
  if (bytes == nullptr) return IoError("Could not encode a PNG image: the image codec cannot encode PNG in memory!");
  std::vector<std::byte> result;
  if (!TryResize(result, static_cast<Int>(encodedSize))) return OutOfMemoryError("Out of memory encoding a PNG image!");
  std::memcpy(result.data(), bytes.get(), encodedSize);
  return result;
}

Result<Image> ReadImageUnchecked(const std::filesystem::path& path) {
  VLGD_ASSIGN_OR_RETURN(const Codec* codec, LoadCodec());
  std::int64_t width = 0;
  std::int64_t height = 0;
  int channels = 0;
  int type = 0;
  std::array<char, 1024> reason{};
  if (codec->read(path.c_str(), &width, &height, &channels, &type, nullptr, reason.data(), reason.size()) != 0)
    return IoError("Could not read " + Quoted(path) + ": " + reason.data());
  Result<Image> image = Image::Create(width, height, channels, FromTypeNumber(type));
  if (!image) {
    if (image.error().kind == ErrorKind::OutOfMemory)
      return OutOfMemoryError("Out of memory reading " + Quoted(path) + "!");
    return IoError("Could not read " + Quoted(path) + ": " + image.error().message);
  }
  if (codec->read(path.c_str(), &width, &height, &channels, &type, image->Bytes().data(), reason.data(),
                  reason.size()) != 0)
    return IoError("Could not read " + Quoted(path) + ": " + reason.data());
  return image;
}

}  // namespace

Status WriteImage(const Image& image, const std::filesystem::path& path, std::optional<PixelType> fileType,
                  const WriteControl& control, std::span<const ImageAttribute> attributes) {
  try {
    return WriteImageUnchecked(image, path, fileType, control, attributes);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError("Out of memory writing " + Quoted(path) + "!");
  }
}

Result<std::vector<std::byte>> EncodePng(const Image& image, const WriteControl& control) {
  try {
    return EncodePngUnchecked(image, control);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError("Out of memory encoding a PNG image!");
  }
}

Result<Image> ReadImage(const std::filesystem::path& path) {
  try {
    return ReadImageUnchecked(path);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError("Out of memory reading " + Quoted(path) + "!");
  }
}

}  // namespace platform
