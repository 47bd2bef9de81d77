// The image codec module: the only code that uses OpenImageIO. Loaded by the platform on
// first use (see image_codec_abi.h); errors come back as text, never as exceptions.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>

#include "platform/image_codec_abi.h"

namespace {

OIIO::TypeDesc ToTypeDesc(int type) {
  switch (type) {
    case 0:
      return OIIO::TypeDesc::UINT8;
    case 1:
      return OIIO::TypeDesc::UINT16;
    default:
      return OIIO::TypeDesc::FLOAT;
  }
}

// Our pixel type for a file's channel type: ours are kept, other integers widen to 16 bits
// and other floats (half, double) become 32-bit floats.
int FromTypeDesc(OIIO::TypeDesc type) {
  switch (type.basetype) {
    case OIIO::TypeDesc::UINT8:
      return 0;
    case OIIO::TypeDesc::HALF:
    case OIIO::TypeDesc::FLOAT:
    case OIIO::TypeDesc::DOUBLE:
      return 2;
    default:
      return 1;
  }
}

int Fail(std::string message, char* error, std::size_t errorSize) {
  while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
  if (message.empty()) message = "unknown OpenImageIO failure";
  if (errorSize > 0) std::snprintf(error, errorSize, "%s", message.c_str());
  return 1;
}

struct Progress {
  VlgdProgress callback;
  void* user;
  bool stopped = false;
};

bool OnProgress(void* opaque, float portion) {
  auto* progress = static_cast<Progress*>(opaque);
  if (progress->callback != nullptr && progress->callback(progress->user, portion)) progress->stopped = true;
  return progress->stopped;
}

int Encode(const VlgdImageView& image, const char* format, const char* fallbackPath, const char* const* names,
           const char* const* values, int count, VlgdProgress callback, void* user, unsigned char** encoded,
           std::size_t* encodedSize, char* error, std::size_t errorSize) {
  std::unique_ptr<OIIO::ImageOutput> output = OIIO::ImageOutput::create(format);
  if (!output) return Fail(OIIO::geterror(), error, errorSize);
  OIIO::ImageSpec description(static_cast<int>(image.width), static_cast<int>(image.height), image.channels,
                              ToTypeDesc(image.fileType));
  // Our channels are data, written as given: without this, formats that store straight
  // alpha (PNG) would get the colour channels divided by the last channel.
  description.attribute("oiio:UnassociatedAlpha", 1);
  for (int i = 0; i < count; ++i) description.attribute(names[i], values[i]);
  // TIFF keeps only the tags it knows: the attributes go into its description text.
  if (std::string(format) == "tiff" && count > 0) {
    std::string text;
    for (int i = 0; i < count; ++i) text += std::string(i == 0 ? "" : "\n") + names[i] + "=" + values[i];
    description.attribute("ImageDescription", text);
  }

  // In memory where the format allows it, so that the platform writes the bytes with every
  // block checked: some encoders do not report a failed write to their file.
  std::vector<unsigned char> bytes;
  OIIO::Filesystem::IOVecOutput proxy(bytes);
  const bool inMemory = output->supports("ioproxy") != 0 && output->set_ioproxy(&proxy);
  if (!output->open(inMemory ? std::string("memory.") + format : std::string(fallbackPath), description))
    return Fail(output->geterror(), error, errorSize);
  Progress progress{callback, user};
  const bool written = output->write_image(ToTypeDesc(image.memoryType), image.pixels, OIIO::AutoStride,
                                           OIIO::AutoStride, OIIO::AutoStride, OnProgress, &progress);
  std::string reason = written ? std::string() : output->geterror();
  const bool closed = output->close();
  if (reason.empty() && !closed) reason = output->geterror();
  if (progress.stopped) return 2;
  if (!written || !closed) return Fail(reason, error, errorSize);
  if (inMemory) {
    auto* copy = static_cast<unsigned char*>(std::malloc(std::max<std::size_t>(bytes.size(), 1)));
    if (copy == nullptr) return Fail("out of memory", error, errorSize);
    std::memcpy(copy, bytes.data(), bytes.size());
    *encoded = copy;
    *encodedSize = bytes.size();
  }
  return 0;
}

int Read(const char* path, std::int64_t* width, std::int64_t* height, int* channels, int* type, void* pixels,
         char* error, std::size_t errorSize) {
  // Keep straight alpha as stored instead of multiplying the colour channels by it.
  OIIO::ImageSpec config;
  config.attribute("oiio:UnassociatedAlpha", 1);
  std::unique_ptr<OIIO::ImageInput> input = OIIO::ImageInput::open(path, &config);
  if (!input) return Fail(OIIO::geterror(), error, errorSize);
  const OIIO::ImageSpec& description = input->spec();
  if (description.deep) return Fail("deep images are not supported!", error, errorSize);
  if (description.depth > 1) return Fail("volume images are not supported!", error, errorSize);
  if (description.nchannels < 1) return Fail("the image has no channels!", error, errorSize);
  // Our images hold at most four channels; further ones (depth, masks) are left out.
  *width = description.width;
  *height = description.height;
  *channels = std::min(description.nchannels, 4);
  *type = FromTypeDesc(description.format);
  if (pixels == nullptr) return 0;
  if (!input->read_image(0, 0, 0, *channels, ToTypeDesc(*type), pixels)) return Fail(input->geterror(), error, errorSize);
  input->close();
  return 0;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int vlgd_encode_image(const VlgdImageView* image, const char* format,
                                                             const char* fallbackPath, const char* const* names,
                                                             const char* const* values, int count,
                                                             VlgdProgress progress, void* user,
                                                             unsigned char** encoded, std::size_t* encodedSize,
                                                             char* error, std::size_t errorSize) {
  try {
    return Encode(*image, format, fallbackPath, names, values, count, progress, user, encoded, encodedSize, error,
                  errorSize);
  } catch (const std::bad_alloc&) {
    return Fail("out of memory", error, errorSize);
  } catch (const std::exception& exception) {
    return Fail(exception.what(), error, errorSize);
  }
}

__attribute__((visibility("default"))) void vlgd_free_encoded(unsigned char* encoded) { std::free(encoded); }

__attribute__((visibility("default"))) int vlgd_read_image(const char* path, std::int64_t* width,
                                                           std::int64_t* height, int* channels, int* type,
                                                           void* pixels, char* error, std::size_t errorSize) {
  try {
    return Read(path, width, height, channels, type, pixels, error, errorSize);
  } catch (const std::bad_alloc&) {
    return Fail("out of memory", error, errorSize);
  } catch (const std::exception& exception) {
    return Fail(exception.what(), error, errorSize);
  }
}

}  // extern "C"
