#pragma once

// Height files for game engines and GIS. Every preset writes one data file and returns the
// text of its JSON sidecar, which says how to place the file so that imported heights match
// ours: the terrain's size in world units, its position, the sample counts, the height
// range, and for each stored value the rule height = offset + value x scale.
//
// Rows: the terrain's +Z edge is grid row 0. The Unreal PNG, the normal and splat maps and
// the GeoTIFF put it on their first (top) line; the Unity RAW starts at the -Z edge, the
// terrain's z = 0 side in that engine. Columns always run from -X to +X.

#include <filesystem>
#include <span>
#include <string>
#include <string_view>

#include "platform/file_output.h"
#include "platform/result.h"
#include "platform/types.h"
#include "platform/vector.h"
#include "vellgrund/grid2d.h"

namespace VLGD {

enum class EXPORTPRESET : Int32 {
  UNREAL = 0,   // 16-bit greyscale PNG
  UNITY = 1,    // 16-bit little-endian RAW, square, 2^n + 1 samples
  GEOTIFF = 2,  // 32-bit float GeoTIFF through GDAL
  NORMAL = 3,   // 8-bit RGB tangent-space normal map PNG
  SPLAT = 4,    // 8-bit RGBA weight map PNG
};

enum class NORMALCONVENTION : Int32 {
  OPENGL = 0,   // green is the slope towards the image's top
  DIRECTX = 1,  // green flipped
};

// "unreal, unity, geotiff, normal, splat", for messages.
std::string ExportPresetList();
// A preset by its name (any case); an unknown name is refused with the valid ones listed.
Result<EXPORTPRESET> ParseExportPreset(std::string_view name);
std::string_view ExportPresetName(EXPORTPRESET preset);
// The data file's ending with its dot: ".png", ".raw" or ".tif".
std::string_view ExportPresetEnding(EXPORTPRESET preset);

// "EPSG:n" (any case) as its code, refused unless the projection database knows it. The
// check loads the GeoTIFF codec.
Result<Int32> ParseCrs(std::string_view text);

// The landscape sizes per side that Unreal recommends, ascending.
std::span<const Int> UnrealLandscapeSizes();
// The recommended size nearest to `samples` (the larger one on a tie).
Int NearestUnrealLandscapeSize(Int samples);
inline constexpr Int kUnityMinimumSize = 33;
inline constexpr Int kUnityMaximumSize = 4097;
// The smallest 2^n + 1 of kUnityMinimumSize .. kUnityMaximumSize that holds `samples`, or
// the largest one for more.
Int UnityHeightmapSizeFor(Int samples);

struct ExportTerrain {
  std::string name;
  // The final heights; the grid's sizes X and Y are the terrain's size along X and Z.
  const Grid2D<Float>* heights = nullptr;
  // The terrain's centre in world space.
  Vector position;
};

struct ExportOptions {
  // World units in a metre: 100 makes one unit a centimetre, Unreal's unit.
  Float unitsPerMetre = 100.0;
  // Resample to the nearest size the engine takes instead of noting or refusing.
  bool fitSize = false;
  NORMALCONVENTION normalConvention = NORMALCONVENTION::OPENGL;
  // The GeoTIFF's CRS as an EPSG code; 0 for none.
  Int32 epsg = 0;
};

// The samples a preset writes for a terrain: the grid's own or, with fitSize, fitted to
// the engine. A size Unity cannot take is refused unless fitted; a size Unreal does not
// recommend gets a note for the user.
struct ExportShape {
  Int width = 0;
  Int height = 0;
  bool resampled = false;
  std::string note;
};
Result<ExportShape> PlanExportShape(EXPORTPRESET preset, const ExportTerrain& terrain, const ExportOptions& options);

// Makes `target` width x height samples over the source's extent, bilinear between the
// source's samples, which the edge samples keep exactly.
Status ResampleBilinear(const Grid2D<Float>& source, Int width, Int height, Grid2D<Float>& target,
                        const platform::CancellationToken* cancel = nullptr);

// Writes a preset's data file to `file` (splat maps need their weights: WriteSplatMap) and
// returns the sidecar, which names the data file `fileName`. Heights that are not finite,
// or whose range is not, are refused.
Result<std::string> WriteTerrainExport(EXPORTPRESET preset, const ExportTerrain& terrain, const ExportOptions& options,
                                       const std::filesystem::path& file, std::string_view fileName,
                                       const platform::WriteControl& control = {});

// One channel of a splat map: a weight per height sample, and its name for the sidecar.
struct SplatLayer {
  const Grid2D<Float>* weights = nullptr;
  std::string name;
};
inline constexpr std::size_t kMaxSplatLayers = 4;

// Writes 1 .. 4 weight grids of the terrain's shape as one RGBA image, in order R, G, B, A:
// negative weights count as zero, and where their sum is above zero they are divided by it,
// elsewhere all are zero. Returns the sidecar as WriteTerrainExport does.
Result<std::string> WriteSplatMap(const ExportTerrain& terrain, std::span<const SplatLayer> layers,
                                  const ExportOptions& options, const std::filesystem::path& file,
                                  std::string_view fileName, const platform::WriteControl& control = {});

}  // namespace VLGD
