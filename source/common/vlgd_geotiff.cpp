#include "common/vlgd_geotiff.h"

#include <dlfcn.h>

#include <mutex>
#include <string>

#include "platform/module_loader.h"

#ifdef VELLGRUND_GEOTIFF_CODEC_LINKED
extern "C" {
int vlgd_geotiff_check_crs(int epsg, char* error, std::size_t errorSize);
int vlgd_geotiff_encode(const float* values, std::int64_t width, std::int64_t height, const double* geotransform,
                        int epsg, const char* const* metadataNames, const char* const* metadataValues,
                        int metadataCount, VlgdGeoProgress progress, void* user, unsigned char** encoded,
                        std::size_t* encodedSize, char* error, std::size_t errorSize);
void vlgd_geotiff_free(unsigned char* encoded);
int vlgd_geotiff_read(const char* path, int band, float* values, std::int64_t* width, std::int64_t* height, int* bands,
                      VlgdGeoProgress progress, void* user, char* error, std::size_t errorSize);
}
#endif

namespace VLGD {

platform::Result<const GeoCodec*> LoadGeoCodec() {
#ifdef VELLGRUND_GEOTIFF_CODEC_LINKED
  // Sanitizer builds link the codec in: LeakSanitizer cannot scan a library loaded later.
  static const GeoCodec linked{vlgd_geotiff_check_crs, vlgd_geotiff_encode, vlgd_geotiff_free, vlgd_geotiff_read};
  return &linked;
#else
  static std::once_flag once;
  static GeoCodec codec;
  static std::string failure;
  std::call_once(once, [] {
    const platform::Result<void*> handle = platform::OpenModule("VELLGRUND_GEOTIFF_CODEC", VELLGRUND_GEOTIFF_CODEC_NAME,
                                                                VELLGRUND_GEOTIFF_CODEC_PATH, "The GeoTIFF codec");
    if (!handle) {
      failure = handle.error().message;
      return;
    }
    codec.checkCrs = reinterpret_cast<VlgdGeoCheckCrs>(::dlsym(*handle, "vlgd_geotiff_check_crs"));
    codec.encode = reinterpret_cast<VlgdGeoEncode>(::dlsym(*handle, "vlgd_geotiff_encode"));
    codec.release = reinterpret_cast<VlgdGeoFree>(::dlsym(*handle, "vlgd_geotiff_free"));
    codec.read = reinterpret_cast<VlgdGeoRead>(::dlsym(*handle, "vlgd_geotiff_read"));
    if (codec.checkCrs == nullptr || codec.encode == nullptr || codec.release == nullptr || codec.read == nullptr)
      failure = "The GeoTIFF codec lacks its entry points";
  });
  if (!failure.empty()) return platform::GenericError(failure + "!");
  return &codec;
#endif
}

}  // namespace VLGD
