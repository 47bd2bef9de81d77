#pragma once

#include "common/vlgd_geotiff_abi.h"
#include "platform/result.h"

namespace VLGD {

// The entry points of the GeoTIFF codec module, the only code that uses GDAL.
struct GeoCodec {
  VlgdGeoCheckCrs checkCrs = nullptr;
  VlgdGeoEncode encode = nullptr;
  VlgdGeoFree release = nullptr;
  VlgdGeoRead read = nullptr;
};

// Loads the codec module on first use: beside the running program first (an installed
// tool), then where the build put it; VELLGRUND_GEOTIFF_CODEC names another.
platform::Result<const GeoCodec*> LoadGeoCodec();

}  // namespace VLGD
