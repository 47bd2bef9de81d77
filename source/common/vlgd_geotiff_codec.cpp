// The GeoTIFF codec module: the only code that uses GDAL. Loaded by the engine on first use
// (see vlgd_geotiff_abi.h); errors come back as text, never as exceptions.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_vsi.h>
#include <gdal.h>
#include <ogr_srs_api.h>

#include "common/vlgd_geotiff_abi.h"

namespace {

int Fail(std::string message, char* error, std::size_t errorSize) {
  while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
  if (message.empty()) message = "unknown GDAL failure";
  if (errorSize > 0) std::snprintf(error, errorSize, "%s", message.c_str());
  return 1;
}

std::string LastGdalMessage(const char* fallback) {
  const char* message = CPLGetLastErrorMsg();
  return message != nullptr && *message != '\0' ? std::string(message) : std::string(fallback);
}

// GDAL reports through a global handler that prints; ours keep quiet and read the last
// message instead.
class QuietErrors {
 public:
  QuietErrors() {
    CPLPushErrorHandler(CPLQuietErrorHandler);
    CPLErrorReset();
  }
  ~QuietErrors() { CPLPopErrorHandler(); }
  QuietErrors(const QuietErrors&) = delete;
  QuietErrors& operator=(const QuietErrors&) = delete;
};

void RegisterOnce() {
  static std::atomic<bool> registered{false};
  if (!registered.exchange(true)) GDALAllRegister();
}

// The WKT of an EPSG code, or empty when the database does not know it.
std::string WktOf(int epsg, std::string& reason) {
  OGRSpatialReferenceH reference = OSRNewSpatialReference(nullptr);
  if (reference == nullptr) {
    reason = "out of memory";
    return {};
  }
  std::string wkt;
  if (OSRImportFromEPSG(reference, epsg) == OGRERR_NONE) {
    char* text = nullptr;
    if (OSRExportToWkt(reference, &text) == OGRERR_NONE && text != nullptr) wkt = text;
    CPLFree(text);
  }
  if (wkt.empty()) reason = LastGdalMessage("not in the projection database");
  OSRDestroySpatialReference(reference);
  return wkt;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int vlgd_geotiff_check_crs(int epsg, char* error, std::size_t errorSize) {
  QuietErrors quiet;
  std::string reason;
  if (WktOf(epsg, reason).empty()) return Fail(reason, error, errorSize);
  return 0;
}

__attribute__((visibility("default"))) int vlgd_geotiff_encode(
    const float* values, std::int64_t width, std::int64_t height, const double* geotransform, int epsg,
    const char* const* metadataNames, const char* const* metadataValues, int metadataCount, VlgdGeoProgress progress,
    void* user, unsigned char** encoded, std::size_t* encodedSize, char* error, std::size_t errorSize) {
  *encoded = nullptr;
  *encodedSize = 0;
  if (width <= 0 || height <= 0 || width > INT32_MAX || height > INT32_MAX)
    return Fail("the raster size is out of range", error, errorSize);
  QuietErrors quiet;
  RegisterOnce();
  GDALDriverH driver = GDALGetDriverByName("GTiff");
  if (driver == nullptr) return Fail("GDAL has no GeoTIFF driver", error, errorSize);
  std::string wkt;
  if (epsg != 0) {
    std::string reason;
    wkt = WktOf(epsg, reason);
    if (wkt.empty()) return Fail("EPSG:" + std::to_string(epsg) + ": " + reason, error, errorSize);
  }
  // A name of its own in GDAL's in-memory file system, so that encodings never meet.
  static std::atomic<unsigned long> serial{0};
  char name[64];
  std::snprintf(name, sizeof name, "/vsimem/vellgrund-%lu.tif", serial.fetch_add(1));
  // Floating-point prediction before deflate roughly halves a smooth terrain's file.
  const char* options[] = {"COMPRESS=DEFLATE", "PREDICTOR=3", "BIGTIFF=IF_SAFER", nullptr};
  GDALDatasetH dataset = GDALCreate(driver, name, static_cast<int>(width), static_cast<int>(height), 1, GDT_Float32,
                                    const_cast<char**>(options));
  if (dataset == nullptr) return Fail(LastGdalMessage("GDAL could not create the file"), error, errorSize);
  const auto abandon = [&](std::string message, int code) {
    GDALClose(dataset);
    VSIUnlink(name);
    if (code == 1) return Fail(std::move(message), error, errorSize);
    return code;
  };
  if (GDALSetGeoTransform(dataset, const_cast<double*>(geotransform)) != CE_None)
    return abandon(LastGdalMessage("the geotransform was refused"), 1);
  if (!wkt.empty() && GDALSetProjection(dataset, wkt.c_str()) != CE_None)
    return abandon(LastGdalMessage("the CRS was refused"), 1);
  for (int i = 0; i < metadataCount; ++i)
    if (GDALSetMetadataItem(dataset, metadataNames[i], metadataValues[i], nullptr) != CE_None)
      return abandon(LastGdalMessage("a metadata item was refused"), 1);
  GDALRasterBandH band = GDALGetRasterBand(dataset, 1);
  // Bands of rows, so that the break test runs between them.
  const std::int64_t rowsPerBlock = std::max<std::int64_t>(1, (1 << 20) / width);
  for (std::int64_t row = 0; row < height; row += rowsPerBlock) {
    const std::int64_t rows = std::min(rowsPerBlock, height - row);
    if (GDALRasterIO(band, GF_Write, 0, static_cast<int>(row), static_cast<int>(width), static_cast<int>(rows),
                     const_cast<float*>(values + row * width), static_cast<int>(width), static_cast<int>(rows),
                     GDT_Float32, 0, 0) != CE_None)
      return abandon(LastGdalMessage("GDAL could not write the samples"), 1);
    if (progress != nullptr && progress(user, 0.9 * static_cast<double>(row + rows) / static_cast<double>(height)))
      return abandon({}, 2);
  }
  CPLErrorReset();
  GDALClose(dataset);
  if (CPLGetLastErrorType() >= CE_Failure) {
    VSIUnlink(name);
    return Fail(LastGdalMessage("GDAL could not finish the file"), error, errorSize);
  }
  vsi_l_offset length = 0;
  GByte* bytes = VSIGetMemFileBuffer(name, &length, TRUE);
  VSIUnlink(name);
  if (bytes == nullptr) return Fail("GDAL kept no encoded file", error, errorSize);
  *encoded = bytes;
  *encodedSize = static_cast<std::size_t>(length);
  return 0;
}

__attribute__((visibility("default"))) void vlgd_geotiff_free(unsigned char* encoded) {
  VSIFree(encoded);
}

__attribute__((visibility("default"))) int vlgd_geotiff_read(const char* path, int band, float* values,
                                                             std::int64_t* width, std::int64_t* height, int* bands,
                                                             VlgdGeoProgress progress, void* user, char* error,
                                                             std::size_t errorSize) {
  QuietErrors quiet;
  RegisterOnce();
  GDALDatasetH dataset = GDALOpenEx(path, GDAL_OF_RASTER | GDAL_OF_READONLY, nullptr, nullptr, nullptr);
  if (dataset == nullptr) return Fail(LastGdalMessage("GDAL cannot read this file"), error, errorSize);
  const auto finish = [&](int code, std::string message) {
    GDALClose(dataset);
    return code == 1 ? Fail(std::move(message), error, errorSize) : code;
  };
  *width = GDALGetRasterXSize(dataset);
  *height = GDALGetRasterYSize(dataset);
  *bands = GDALGetRasterCount(dataset);
  if (*bands <= 0) return finish(1, "the file holds no raster bands");
  if (*width <= 0 || *height <= 0) return finish(1, "the raster is empty");
  if (values == nullptr) return finish(0, {});
  if (band < 1 || band > *bands) return finish(1, "there is no band " + std::to_string(band));

  GDALRasterBandH raster = GDALGetRasterBand(dataset, band);
  int hasNoData = 0;
  const double noData = GDALGetRasterNoDataValue(raster, &hasNoData);
  const auto noDataFloat = static_cast<float>(noData);
  const auto columns = static_cast<int>(*width);
  const auto rows = static_cast<int>(*height);
  // Bands of rows, so that the break test runs between them.
  const int rowsPerBlock = std::max(1, (1 << 20) / columns);
  for (int row = 0; row < rows; row += rowsPerBlock) {
    const int count = std::min(rowsPerBlock, rows - row);
    float* block = values + static_cast<std::int64_t>(row) * columns;
    if (GDALRasterIO(raster, GF_Read, 0, row, columns, count, block, columns, count, GDT_Float32, 0, 0) != CE_None)
      return finish(1, LastGdalMessage("GDAL could not read the samples"));
    for (std::int64_t i = 0; i < static_cast<std::int64_t>(count) * columns; ++i)
      if (!std::isfinite(block[i]) || (hasNoData != 0 && block[i] == noDataFloat)) block[i] = NAN;
    if (progress != nullptr && progress(user, static_cast<double>(row + count) / static_cast<double>(rows)))
      return finish(2, {});
  }
  // Rasters stored south-up (a positive row step) are turned north-up.
  double transform[6] = {0.0, 1.0, 0.0, 0.0, 0.0, -1.0};
  if (GDALGetGeoTransform(dataset, transform) == CE_None && transform[5] > 0.0) {
    for (std::int64_t top = 0, bottom = *height - 1; top < bottom; ++top, --bottom)
      std::swap_ranges(values + top * *width, values + (top + 1) * *width, values + bottom * *width);
  }
  return finish(0, {});
}

}  // extern "C"
