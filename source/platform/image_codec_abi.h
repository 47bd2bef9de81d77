#pragma once

// The boundary between the platform and its image codec module, which holds everything
// that needs OpenImageIO. The module is loaded on the first image read or write, so that
// tools which never touch image files do not pay for loading the image library and its
// dependencies at start-up. Plain C types only: the two sides are built apart.

#include <cstddef>
#include <cstdint>

extern "C" {

// Pixel types as the platform numbers them: 0 UInt8, 1 UInt16, 2 Float32.
struct VlgdImageView {
  const void* pixels;
  std::int64_t width;
  std::int64_t height;
  int channels;
  int memoryType;
  int fileType;
};

// Encoding progress in 0 .. 1; returning true stops the encoding.
using VlgdProgress = bool (*)(void* user, float portion);

// Encodes an image in a format ("png", "tiff", "openexr") with text attributes. The bytes
// come back in `*encoded` (free them with vlgd_free_encoded) unless the format cannot be
// encoded in memory; then it is written to `fallbackPath` and `*encoded` stays null.
// 0 on success, 1 on a failure described in `error`, 2 when the progress callback stopped it.
using VlgdEncodeImage = int (*)(const VlgdImageView* image, const char* format, const char* fallbackPath,
                                const char* const* attributeNames, const char* const* attributeValues,
                                int attributeCount, VlgdProgress progress, void* user, unsigned char** encoded,
                                std::size_t* encodedSize, char* error, std::size_t errorSize);
using VlgdFreeEncoded = void (*)(unsigned char* encoded);

// Reads an image: first the shape (`pixels` null), then again with `pixels` sized for it.
// `*type` comes back as the platform's pixel type that holds the file's channels; at most
// four channels are read. 0 on success, 1 on a failure described in `error`.
using VlgdReadImage = int (*)(const char* path, std::int64_t* width, std::int64_t* height, int* channels, int* type,
                              void* pixels, char* error, std::size_t errorSize);

}  // extern "C"
