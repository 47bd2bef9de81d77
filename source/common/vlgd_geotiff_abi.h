#pragma once

// The boundary between the engine and its GeoTIFF codec module, the only code that uses
// GDAL. GDAL brings over a hundred libraries; loading them only when a GeoTIFF is written,
// an elevation model is read or a CRS is checked keeps every other start of a tool fast.
// Plain C types only: the two sides are built apart.

#include <cstddef>
#include <cstdint>

extern "C" {

// Encoding progress in 0 .. 1; returning true stops the encoding.
using VlgdGeoProgress = bool (*)(void* user, double portion);

// Checks a CRS given as an EPSG code against the projection database. 0 when it is known,
// 1 when it is not (the reason in `error`).
using VlgdGeoCheckCrs = int (*)(int epsg, char* error, std::size_t errorSize);

// Encodes one band of 32-bit floats, row 0 first, as a GeoTIFF in memory, with GDAL's
// geotransform, the CRS (`epsg` 0 for none) and dataset metadata items. The bytes come back
// in `*encoded` (free them with vlgd_geotiff_free). 0 on success, 1 on a failure described
// in `error`, 2 when the progress callback stopped it.
using VlgdGeoEncode = int (*)(const float* values, std::int64_t width, std::int64_t height, const double* geotransform,
                              int epsg, const char* const* metadataNames, const char* const* metadataValues,
                              int metadataCount, VlgdGeoProgress progress, void* user, unsigned char** encoded,
                              std::size_t* encodedSize, char* error, std::size_t errorSize);
using VlgdGeoFree = void (*)(unsigned char* encoded);

// Reads a raster that GDAL opens (GeoTIFF, ESRI ASCII grid, SRTM .hgt, ...). With `values`
// null only the shape and the band count come back. Otherwise band `band` (from 1) is read
// into `values` (width x height 32-bit floats) with row 0 the northern edge, and NoData and
// non-finite samples become NaN. 0 on success, 1 on a failure described in `error`, 2 when
// the progress callback stopped it.
using VlgdGeoRead = int (*)(const char* path, int band, float* values, std::int64_t* width, std::int64_t* height,
                            int* bands, VlgdGeoProgress progress, void* user, char* error, std::size_t errorSize);

}  // extern "C"
