#include "common/vlgd_export.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/vlgd_geotiff.h"
#include "platform/image.h"
#include "platform/memory.h"
#include "platform/parallel.h"
#include "platform/strings.h"

namespace VLGD {
namespace {

using Json = nlohmann::ordered_json;
using platform::CancellationToken;
using platform::WriteControl;

constexpr std::array<std::string_view, 5> kPresetNames = {"unreal", "unity", "geotiff", "normal", "splat"};
constexpr std::array<Int, 11> kUnrealSizes = {127, 253, 505, 1009, 1017, 2017, 2033, 4033, 4065, 8129, 8161};
constexpr Float kLargest16 = 65535.0;

// Appended piece by piece: "literal" + string trips a false -Wrestrict in GCC 12.
std::string Named(const ExportTerrain& terrain) {
  std::string text(1, '\'');
  text += platform::Excerpt(terrain.name);
  text += '\'';
  return text;
}

std::string Quoted(const std::filesystem::path& path) {
  std::string text(1, '"');
  text += platform::Excerpt(path.string(), 200);
  text += '"';
  return text;
}

// ---- What every preset checks and records.

struct Range {
  Float minimum = 0.0;
  Float maximum = 0.0;
  [[nodiscard]] Float Span() const { return maximum - minimum; }
};

Status CheckPlacement(const ExportTerrain& terrain) {
  const Grid2D<Float>* grid = terrain.heights;
  if (grid == nullptr || grid->Width() < 2 || grid->Height() < 2)
    return platform::IllegalArgumentError("The terrain " + Named(terrain) +
                                          " has fewer than 2 x 2 height samples; there is nothing to export!");
  if (!(grid->SizeX() > 0.0) || !(grid->SizeY() > 0.0) || !std::isfinite(grid->SizeX()) ||
      !std::isfinite(grid->SizeY()))
    return platform::IllegalArgumentError("The terrain " + Named(terrain) +
                                          " has a size that is not a positive finite number!");
  if (!std::isfinite(terrain.position.x) || !std::isfinite(terrain.position.y) || !std::isfinite(terrain.position.z))
    return platform::IllegalArgumentError("The terrain " + Named(terrain) +
                                          " has a position that is not a finite number!");
  return platform::Ok();
}

// The range of the samples themselves (the grid's cached range may hold more, such as the
// hull's depth), refusing the first sample that is not finite.
Result<Range> SampleRange(const ExportTerrain& terrain, const Grid2D<Float>& grid, const CancellationToken* cancel) {
  Range range{std::numeric_limits<Float>::max(), std::numeric_limits<Float>::lowest()};
  const Float* values = grid.Data();
  for (Int i = 0; i < grid.Count(); ++i) {
    if ((i & 0xFFFFF) == 0 && platform::TestBreak(cancel)) return platform::CancelledError("Export cancelled!");
    const Float value = values[i];
    if (!std::isfinite(value))
      return platform::IllegalArgumentError("The terrain " + Named(terrain) + " has a height that is " +
                                            (std::isnan(value) ? "not a number" : "infinite") + " (column " +
                                            std::to_string(i % grid.Width()) + ", row " +
                                            std::to_string(i / grid.Width()) + "); nothing was exported!");
    range.minimum = std::min(range.minimum, value);
    range.maximum = std::max(range.maximum, value);
  }
  if (!std::isfinite(range.Span()))
    return platform::IllegalArgumentError("The heights of the terrain " + Named(terrain) +
                                          " span more than a double can hold; nothing was exported!");
  return range;
}

// 0 .. 65535 for min .. max, rounded to the nearest step; all 0 for a flat grid.
struct Quantizer {
  Float minimum;
  Float factor;
  [[nodiscard]] std::uint16_t operator()(Float height) const {
    const Float scaled = std::floor((height - minimum) * factor + 0.5);
    return static_cast<std::uint16_t>(std::clamp(scaled, 0.0, kLargest16));
  }
};
Quantizer QuantizerFor(const Range& range) {
  return {range.minimum, range.Span() > 0.0 ? kLargest16 / range.Span() : 0.0};
}

Json Xz(Float x, Float z) {
  return Json{{"x", x}, {"z", z}};
}
Json Xyz(Float x, Float y, Float z) {
  return Json{{"x", x}, {"y", y}, {"z", z}};
}

// The sidecar's fields that every preset shares.
Json CommonSidecar(EXPORTPRESET preset, const ExportTerrain& terrain, const ExportOptions& options,
                   std::string_view fileName, const Grid2D<Float>& written, const Range& range) {
  const Grid2D<Float>& grid = *terrain.heights;
  Json sidecar;
  sidecar["vellgrund_export"] = 1;
  sidecar["preset"] = ExportPresetName(preset);
  sidecar["terrain"] = terrain.name;
  sidecar["file"] = fileName;
  sidecar["units_per_metre"] = options.unitsPerMetre;
  sidecar["size"] = Xz(grid.SizeX(), grid.SizeY());
  sidecar["position"] = Xyz(terrain.position.x, terrain.position.y, terrain.position.z);
  sidecar["samples"] = Json{{"x", written.Width()}, {"z", written.Height()}};
  if (written.Width() != grid.Width() || written.Height() != grid.Height())
    sidecar["resampled_from"] = Json{{"x", grid.Width()}, {"z", grid.Height()}};
  sidecar["height"] = Json{{"min", range.minimum}, {"max", range.maximum}};
  sidecar["first_row"] = preset == EXPORTPRESET::UNITY ? "-Z edge" : "+Z edge";
  sidecar["first_column"] = "-X edge";
  return sidecar;
}

Json HeightEncoding(std::string_view type, Float offset, Float scale) {
  return Json{{"type", type},
              {"offset", offset},
              {"scale", scale},
              {"rule", "height = offset + value * scale; world height = position.y + height"}};
}

std::string Finish(const Json& sidecar) {
  return sidecar.dump(2) + "\n";
}

// ---- Resampling for the engines' sizes.

struct Prepared {
  const Grid2D<Float>* source = nullptr;
  Grid2D<Float> fitted;  // empty unless resampled
  Range range;
  // Not a pointer kept beside `fitted`, which moves with the result.
  [[nodiscard]] const Grid2D<Float>& Grid() const { return fitted.IsEmpty() ? *source : fitted; }
};

Result<Prepared> Prepare(EXPORTPRESET preset, const ExportTerrain& terrain, const ExportOptions& options,
                         const CancellationToken* cancel) {
  VLGD_RETURN_IF_ERROR(CheckPlacement(terrain));
  // Checked before resampling, which would spread a bad sample.
  VLGD_ASSIGN_OR_RETURN(const Range original, SampleRange(terrain, *terrain.heights, cancel));
  VLGD_ASSIGN_OR_RETURN(const ExportShape shape, PlanExportShape(preset, terrain, options));
  Prepared prepared;
  prepared.source = terrain.heights;
  prepared.range = original;
  if (shape.resampled) {
    VLGD_RETURN_IF_ERROR(ResampleBilinear(*terrain.heights, shape.width, shape.height, prepared.fitted, cancel));
    VLGD_ASSIGN_OR_RETURN(prepared.range, SampleRange(terrain, prepared.fitted, cancel));
  }
  return prepared;
}

// ---- The presets.

std::uint8_t ToByte(Float unit) {
  return static_cast<std::uint8_t>(std::clamp(std::floor(unit * 255.0 + 0.5), 0.0, 255.0));
}

// Fills an image one grid row at a time, on the workers, through the break test.
Status FillRows(Int rows, const CancellationToken* cancel, platform::FunctionRef<void(Int)> fill) {
  platform::ParallelOptions parallel;
  parallel.granularity = 8;
  parallel.cancel = cancel;
  parallel.cancelMessage = "Export cancelled!";
  return platform::ParallelFor(0, rows, parallel, [&](Int row) { fill(row); });
}

Result<std::string> WriteUnreal(const ExportTerrain& terrain, const ExportOptions& options,
                                const std::filesystem::path& file, std::string_view fileName,
                                const WriteControl& control) {
  VLGD_ASSIGN_OR_RETURN(Prepared prepared, Prepare(EXPORTPRESET::UNREAL, terrain, options, control.cancel));
  const Grid2D<Float>& grid = prepared.Grid();
  const Range range = prepared.range;
  VLGD_ASSIGN_OR_RETURN(platform::Image image,
                        platform::Image::Create(grid.Width(), grid.Height(), 1, platform::PixelType::UInt16));
  const Quantizer quantize = QuantizerFor(range);
  auto* pixels = reinterpret_cast<std::uint16_t*>(image.Bytes().data());
  VLGD_RETURN_IF_ERROR(FillRows(grid.Height(), control.cancel, [&](Int row) {
    for (Int x = 0; x < grid.Width(); ++x) pixels[row * grid.Width() + x] = quantize(grid.Get(x, row));
  }));
  char minimum[40], maximum[40];
  std::snprintf(minimum, sizeof minimum, "%.17g", range.minimum);
  std::snprintf(maximum, sizeof maximum, "%.17g", range.maximum);
  const platform::ImageAttribute attributes[] = {{"Vellgrund:HeightMinimum", minimum},
                                                 {"Vellgrund:HeightMaximum", maximum}};
  VLGD_RETURN_IF_ERROR(platform::WriteImage(image, file, platform::PixelType::UInt16, control, attributes));

  // The engine's landscape: height_cm = location.z + (value - 32768) * scale.z / 128, so
  // the full 0 .. 65535 spans our range with scale.z below; a flat terrain keeps 100.
  const Float centimetres = 100.0 / options.unitsPerMetre;
  const Float spanCentimetres = range.Span() * centimetres;
  const Float zScale = spanCentimetres > 0.0 ? spanCentimetres * 128.0 / kLargest16 : 100.0;
  const Float zLocation = (terrain.position.y + range.minimum) * centimetres + 32768.0 * zScale / 128.0;
  const Grid2D<Float>& source = *terrain.heights;
  Json sidecar = CommonSidecar(EXPORTPRESET::UNREAL, terrain, options, fileName, grid, range);
  sidecar["encoding"] = HeightEncoding("uint16 greyscale PNG", range.minimum, range.Span() / kLargest16);
  sidecar["unreal"] = Json{{"centimetres_per_unit", centimetres},
                           // Our left-handed Y-up frame as the engine's left-handed Z-up one: X = x, Y = -z, Z = y.
                           {"axes", "X = x, Y = -z, Z = y"},
                           {"location_cm", Json{{"x", (terrain.position.x - source.SizeX() / 2.0) * centimetres},
                                                {"y", -(terrain.position.z + source.SizeY() / 2.0) * centimetres},
                                                {"z", zLocation}}},
                           {"scale", Json{{"x", source.SizeX() * centimetres / static_cast<Float>(grid.Width() - 1)},
                                          {"y", source.SizeY() * centimetres / static_cast<Float>(grid.Height() - 1)},
                                          {"z", zScale}}},
                           {"rule", "height_cm = location_cm.z + (value - 32768) * scale.z / 128"},
                           {"recommended_size", std::ranges::binary_search(kUnrealSizes, grid.Width()) &&
                                                    std::ranges::binary_search(kUnrealSizes, grid.Height())}};
  return Finish(sidecar);
}

Result<std::string> WriteUnity(const ExportTerrain& terrain, const ExportOptions& options,
                               const std::filesystem::path& file, std::string_view fileName,
                               const WriteControl& control) {
  VLGD_ASSIGN_OR_RETURN(Prepared prepared, Prepare(EXPORTPRESET::UNITY, terrain, options, control.cancel));
  const Grid2D<Float>& grid = prepared.Grid();
  const Range range = prepared.range;
  const Quantizer quantize = QuantizerFor(range);
  const Int width = grid.Width();
  std::vector<unsigned char> line;
  VLGD_RETURN_IF_ERROR(platform::TryResize(line, 2 * width));
  VLGD_RETURN_IF_ERROR(platform::WriteFileAtomically(
      file,
      [&](std::ostream& stream) -> Status {
        // The engine reads the first row as its z = 0 side, our -Z edge: the last grid row.
        for (Int row = grid.Height() - 1; row >= 0 && stream; --row) {
          const Float* heights = grid.Data() + row * width;
          for (Int x = 0; x < width; ++x) {
            const std::uint16_t value = quantize(heights[x]);
            line[static_cast<std::size_t>(2 * x)] = static_cast<unsigned char>(value & 0xFF);
            line[static_cast<std::size_t>(2 * x + 1)] = static_cast<unsigned char>(value >> 8);
          }
          stream.write(reinterpret_cast<const char*>(line.data()), static_cast<std::streamsize>(line.size()));
        }
        return platform::Ok();
      },
      control, static_cast<std::uint64_t>(2 * grid.Count())));

  const Grid2D<Float>& source = *terrain.heights;
  Json sidecar = CommonSidecar(EXPORTPRESET::UNITY, terrain, options, fileName, grid, range);
  sidecar["encoding"] = HeightEncoding("uint16 little-endian RAW", range.minimum, range.Span() / kLargest16);
  sidecar["unity"] =
      Json{{"heightmap_resolution", width},
           {"depth", 16},
           {"byte_order", "little-endian (Windows)"},
           {"flip_vertically", false},
           // The terrain's height must not be 0: a flat one keeps 1, its values all 0.
           {"size", Xyz(source.SizeX(), range.Span() > 0.0 ? range.Span() : 1.0, source.SizeY())},
           {"position", Xyz(terrain.position.x - source.SizeX() / 2.0, terrain.position.y + range.minimum,
                            terrain.position.z - source.SizeY() / 2.0)},
           {"rule", "height = position.y + value / 65535 * size.y"}};
  return Finish(sidecar);
}

struct GeoProgress {
  const WriteControl* control;
};

bool OnGeoProgress(void* user, double portion) {
  const WriteControl& control = *static_cast<GeoProgress*>(user)->control;
  if (control.progress != nullptr) control.progress->SetProgress(portion * 0.5);
  return platform::TestBreak(control.cancel);
}

Result<std::string> WriteGeoTiff(const ExportTerrain& terrain, const ExportOptions& options,
                                 const std::filesystem::path& file, std::string_view fileName,
                                 const WriteControl& control) {
  VLGD_ASSIGN_OR_RETURN(Prepared prepared, Prepare(EXPORTPRESET::GEOTIFF, terrain, options, control.cancel));
  const Grid2D<Float>& grid = prepared.Grid();
  VLGD_ASSIGN_OR_RETURN(const GeoCodec* codec, LoadGeoCodec());
  std::vector<float> values;
  VLGD_RETURN_IF_ERROR(platform::CheckMemory(platform::BytesFor(grid.Count(), 2 * sizeof(float)),
                                             "The GeoTIFF of the terrain " + Named(terrain)));
  VLGD_RETURN_IF_ERROR(platform::TryResize(values, grid.Count()));
  std::transform(grid.Data(), grid.Data() + grid.Count(), values.begin(),
                 [](Float height) { return static_cast<float>(height); });

  // Pixel is point: each value is the height at a sample, not the mean over a cell, so the
  // file ties raster (0, 0) to the first sample's centre. GDAL's geotransform always names
  // the first cell's corner and moves the tie point half a cell in for AREA_OR_POINT=Point,
  // hence the half spacing taken off here.
  const Grid2D<Float>& source = *terrain.heights;
  const Float spacingX = source.SizeX() / static_cast<Float>(grid.Width() - 1);
  const Float spacingZ = source.SizeY() / static_cast<Float>(grid.Height() - 1);
  const Float firstX = terrain.position.x - source.SizeX() / 2.0;
  const Float firstZ = terrain.position.z + source.SizeY() / 2.0;
  const std::array<double, 6> geotransform = {firstX - spacingX / 2.0, spacingX, 0.0,
                                              firstZ + spacingZ / 2.0, 0.0,      -spacingZ};
  const char* names[] = {"AREA_OR_POINT"};
  const char* items[] = {"Point"};
  GeoProgress progress{&control};
  unsigned char* encoded = nullptr;
  std::size_t encodedSize = 0;
  char error[512] = {};
  const int outcome =
      codec->encode(values.data(), grid.Width(), grid.Height(), geotransform.data(), options.epsg, names, items, 1,
                    OnGeoProgress, &progress, &encoded, &encodedSize, error, sizeof error);
  if (outcome == 2) return platform::CancelledError("Writing " + Quoted(file) + " cancelled!");
  if (outcome != 0) return platform::IoError("Could not encode " + Quoted(file) + ": " + error + "!");
  std::unique_ptr<unsigned char, VlgdGeoFree> bytes(encoded, codec->release);
  values = {};
  VLGD_RETURN_IF_ERROR(platform::WriteBytesAtomically(
      file, std::span(reinterpret_cast<const std::byte*>(bytes.get()), encodedSize), control));

  Json sidecar = CommonSidecar(EXPORTPRESET::GEOTIFF, terrain, options, fileName, grid, prepared.range);
  sidecar["encoding"] = HeightEncoding("float32 GeoTIFF", 0.0, 1.0);
  sidecar["geotiff"] = Json{{"crs", options.epsg != 0 ? Json("EPSG:" + std::to_string(options.epsg)) : Json()},
                            {"area_or_point", "Point"},
                            {"first_sample_centre", Xz(firstX, firstZ)},
                            {"geotransform", geotransform},
                            {"axes", "easting = x, northing = z, in world units"}};
  return Finish(sidecar);
}

Result<std::string> WriteNormalMap(const ExportTerrain& terrain, const ExportOptions& options,
                                   const std::filesystem::path& file, std::string_view fileName,
                                   const WriteControl& control) {
  VLGD_ASSIGN_OR_RETURN(Prepared prepared, Prepare(EXPORTPRESET::NORMAL, terrain, options, control.cancel));
  const Grid2D<Float>& grid = prepared.Grid();
  const Int width = grid.Width(), height = grid.Height();
  const Float spacingX = grid.SizeX() / static_cast<Float>(width - 1);
  const Float spacingZ = grid.SizeY() / static_cast<Float>(height - 1);
  const Float greenSign = options.normalConvention == NORMALCONVENTION::OPENGL ? 1.0 : -1.0;
  VLGD_ASSIGN_OR_RETURN(platform::Image image, platform::Image::Create(width, height, 3, platform::PixelType::UInt8));
  auto* pixels = reinterpret_cast<std::uint8_t*>(image.Bytes().data());
  // Central differences over the world spacing (one-sided at the edges). Rows run towards
  // -Z, so the image's up is +Z: green is the normal's z, the slope towards the top line.
  VLGD_RETURN_IF_ERROR(FillRows(height, control.cancel, [&](Int row) {
    const Int up = std::max<Int>(row - 1, 0), down = std::min<Int>(row + 1, height - 1);
    for (Int x = 0; x < width; ++x) {
      const Int left = std::max<Int>(x - 1, 0), right = std::min<Int>(x + 1, width - 1);
      const Float slopeX = (grid.Get(right, row) - grid.Get(left, row)) / (static_cast<Float>(right - left) * spacingX);
      const Float slopeZ = (grid.Get(x, up) - grid.Get(x, down)) / (static_cast<Float>(down - up) * spacingZ);
      const Float length = std::sqrt(slopeX * slopeX + 1.0 + slopeZ * slopeZ);
      std::uint8_t* pixel = pixels + 3 * (row * width + x);
      pixel[0] = ToByte((-slopeX / length + 1.0) * 0.5);
      pixel[1] = ToByte((greenSign * -slopeZ / length + 1.0) * 0.5);
      pixel[2] = ToByte((1.0 / length + 1.0) * 0.5);
    }
  }));
  VLGD_RETURN_IF_ERROR(platform::WriteImage(image, file, platform::PixelType::UInt8, control));

  Json sidecar = CommonSidecar(EXPORTPRESET::NORMAL, terrain, options, fileName, grid, prepared.range);
  sidecar["encoding"] = Json{{"type", "uint8 RGB PNG"},
                             {"offset", -1.0},
                             {"scale", 2.0 / 255.0},
                             {"rule", "component = offset + value * scale"}};
  const bool opengl = options.normalConvention == NORMALCONVENTION::OPENGL;
  sidecar["normal"] = Json{{"convention", opengl ? "opengl" : "directx"},
                           {"red", "+X"},
                           {"green", opengl ? "+Z (towards the image's top)" : "-Z (towards the image's bottom)"},
                           {"blue", "up (+Y)"}};
  return Finish(sidecar);
}

}  // namespace

std::string ExportPresetList() {
  std::string list;
  for (const std::string_view name : kPresetNames) list.append(list.empty() ? "" : ", ").append(name);
  return list;
}

Result<EXPORTPRESET> ParseExportPreset(std::string_view name) {
  std::string lower(name);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (std::size_t i = 0; i < kPresetNames.size(); ++i)
    if (kPresetNames[i] == lower) return static_cast<EXPORTPRESET>(i);
  return platform::IllegalArgumentError("--export: '" + platform::Excerpt(name, 40) + "' is not a preset (use " +
                                        ExportPresetList() + ")!");
}

std::string_view ExportPresetName(EXPORTPRESET preset) {
  return kPresetNames[static_cast<std::size_t>(preset)];
}

std::string_view ExportPresetEnding(EXPORTPRESET preset) {
  switch (preset) {
    case EXPORTPRESET::UNITY:
      return ".raw";
    case EXPORTPRESET::GEOTIFF:
      return ".tif";
    default:
      return ".png";
  }
}

Result<Int32> ParseCrs(std::string_view text) {
  const std::string shown = "--crs '" + platform::Excerpt(text, 40) + "'";
  std::string prefix(text.substr(0, std::min<std::size_t>(5, text.size())));
  for (char& c : prefix) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  const std::string_view digits = text.size() > 5 ? text.substr(5) : std::string_view();
  Int32 code = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), code);
  if (prefix != "EPSG:" || digits.empty() || error != std::errc() || end != digits.data() + digits.size() || code <= 0)
    return platform::IllegalArgumentError(shown + ": give the CRS as EPSG:<code>, such as EPSG:32633!");
  VLGD_ASSIGN_OR_RETURN(const GeoCodec* codec, LoadGeoCodec());
  char reason[512] = {};
  if (codec->checkCrs(code, reason, sizeof reason) != 0)
    return platform::IllegalArgumentError(shown + ": EPSG:" + std::to_string(code) +
                                          " is not a known coordinate reference system (" + reason + ")!");
  return code;
}

std::span<const Int> UnrealLandscapeSizes() {
  return kUnrealSizes;
}

Int NearestUnrealLandscapeSize(Int samples) {
  Int nearest = kUnrealSizes.front();
  for (const Int size : kUnrealSizes)
    if (std::abs(size - samples) <= std::abs(nearest - samples)) nearest = size;
  return nearest;
}

Int UnityHeightmapSizeFor(Int samples) {
  Int size = kUnityMinimumSize;
  while (size < samples && size < kUnityMaximumSize) size = 2 * (size - 1) + 1;
  return size;
}

Result<ExportShape> PlanExportShape(EXPORTPRESET preset, const ExportTerrain& terrain, const ExportOptions& options) {
  VLGD_RETURN_IF_ERROR(CheckPlacement(terrain));
  ExportShape shape{terrain.heights->Width(), terrain.heights->Height()};
  const std::string size = std::to_string(shape.width) + " x " + std::to_string(shape.height);
  if (preset == EXPORTPRESET::UNREAL) {
    const Int fitX = NearestUnrealLandscapeSize(shape.width), fitZ = NearestUnrealLandscapeSize(shape.height);
    if (fitX == shape.width && fitZ == shape.height) return shape;
    const std::string fitted = std::to_string(fitX) + " x " + std::to_string(fitZ);
    if (options.fitSize) {
      shape = {fitX, fitZ, true,
               "the unreal height map of the terrain " + Named(terrain) + " is resampled from " + size + " to " +
                   fitted + " samples."};
    } else {
      std::string sizes;
      for (const Int recommended : kUnrealSizes) sizes += (sizes.empty() ? "" : ", ") + std::to_string(recommended);
      shape.note = "the terrain " + Named(terrain) + " has " + size + " samples; Unreal recommends landscapes of " +
                   sizes + " per side. --fit-size resamples to " + fitted + ".";
    }
  } else if (preset == EXPORTPRESET::UNITY) {
    const Int fit = UnityHeightmapSizeFor(std::max(shape.width, shape.height));
    if (fit == shape.width && fit == shape.height) return shape;
    if (!options.fitSize)
      return platform::IllegalArgumentError(
          "The terrain " + Named(terrain) + " has " + size +
          " samples; a Unity height map needs a square of 2^n + 1 (" + std::to_string(kUnityMinimumSize) + " .. " +
          std::to_string(kUnityMaximumSize) + "). Give the terrain a resolution of 2^n (" + std::to_string(fit - 1) +
          " x " + std::to_string(fit - 1) + " gives " + std::to_string(fit) + " x " + std::to_string(fit) +
          ") or add --fit-size to resample!");
    shape = {fit, fit, true,
             "the unity height map of the terrain " + Named(terrain) + " is resampled from " + size + " to " +
                 std::to_string(fit) + " x " + std::to_string(fit) + " samples."};
  }
  return shape;
}

Status ResampleBilinear(const Grid2D<Float>& source, Int width, Int height, Grid2D<Float>& target,
                        const CancellationToken* cancel) {
  if (source.Width() < 1 || source.Height() < 1 || width < 1 || height < 1)
    return platform::IllegalArgumentError("Cannot resample an empty grid or to an empty one!");
  VLGD_RETURN_IF_ERROR(target.Init(width, height, source.SizeX(), source.SizeY()));
  Float* values = target.Data();
  platform::ParallelOptions parallel;
  parallel.granularity = 8;
  parallel.cancel = cancel;
  parallel.cancelMessage = "Export cancelled!";
  VLGD_RETURN_IF_ERROR(platform::ParallelFor(0, height, parallel, [&](Int row) {
    // The last sample lands on the source's last one exactly: (n - 1) * step is computed
    // as an integer product over a divisor that cancels.
    const Float y = height > 1 ? static_cast<Float>(row * (source.Height() - 1)) / static_cast<Float>(height - 1) : 0.0;
    Float* line = values + row * width;
    for (Int x = 0; x < width; ++x) {
      const Float at = width > 1 ? static_cast<Float>(x * (source.Width() - 1)) / static_cast<Float>(width - 1) : 0.0;
      line[x] = source.Sample(at, y, SAMPLEINTERPOLATION::BILINEAR);
    }
  }));
  target.RecomputeRange();
  return platform::Ok();
}

Result<std::string> WriteTerrainExport(EXPORTPRESET preset, const ExportTerrain& terrain, const ExportOptions& options,
                                       const std::filesystem::path& file, std::string_view fileName,
                                       const platform::WriteControl& control) {
  if (!std::isfinite(options.unitsPerMetre) || !(options.unitsPerMetre > 0.0))
    return platform::IllegalArgumentError("The world units per metre must be a number above 0!");
  try {
    switch (preset) {
      case EXPORTPRESET::UNREAL:
        return WriteUnreal(terrain, options, file, fileName, control);
      case EXPORTPRESET::UNITY:
        return WriteUnity(terrain, options, file, fileName, control);
      case EXPORTPRESET::GEOTIFF:
        return WriteGeoTiff(terrain, options, file, fileName, control);
      case EXPORTPRESET::NORMAL:
        return WriteNormalMap(terrain, options, file, fileName, control);
      case EXPORTPRESET::SPLAT:
        break;
    }
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError("Out of memory exporting the terrain " + Named(terrain) + "!");
  }
  return platform::IllegalArgumentError("A splat map is made from weight grids, not from heights alone!");
}

Result<std::string> WriteSplatMap(const ExportTerrain& terrain, std::span<const SplatLayer> layers,
                                  const ExportOptions& options, const std::filesystem::path& file,
                                  std::string_view fileName, const platform::WriteControl& control) {
  VLGD_RETURN_IF_ERROR(CheckPlacement(terrain));
  if (layers.empty() || layers.size() > kMaxSplatLayers)
    return platform::IllegalArgumentError("A splat map holds 1 to 4 weight grids, not " +
                                          std::to_string(layers.size()) + "!");
  const Grid2D<Float>& heights = *terrain.heights;
  for (const SplatLayer& layer : layers) {
    const std::string what =
        "The splat weights '" + platform::Excerpt(layer.name) + "' of the terrain " + Named(terrain);
    if (layer.weights == nullptr || layer.weights->Width() != heights.Width() ||
        layer.weights->Height() != heights.Height())
      return platform::IllegalArgumentError(what + " do not have the terrain's " + std::to_string(heights.Width()) +
                                            " x " + std::to_string(heights.Height()) + " samples!");
    const Float* values = layer.weights->Data();
    for (Int i = 0; i < layer.weights->Count(); ++i)
      if (!std::isfinite(values[i]))
        return platform::IllegalArgumentError(what + " hold a value that is not finite (column " +
                                              std::to_string(i % heights.Width()) + ", row " +
                                              std::to_string(i / heights.Width()) + ")!");
  }
  VLGD_ASSIGN_OR_RETURN(const Range range, SampleRange(terrain, heights, control.cancel));
  try {
    const Int width = heights.Width();
    VLGD_ASSIGN_OR_RETURN(platform::Image image,
                          platform::Image::Create(width, heights.Height(), 4, platform::PixelType::UInt8));
    auto* pixels = reinterpret_cast<std::uint8_t*>(image.Bytes().data());
    VLGD_RETURN_IF_ERROR(FillRows(heights.Height(), control.cancel, [&](Int row) {
      for (Int x = 0; x < width; ++x) {
        const Int at = row * width + x;
        Float weights[kMaxSplatLayers] = {};
        Float sum = 0.0;
        for (std::size_t k = 0; k < layers.size(); ++k) {
          weights[k] = std::max(layers[k].weights->Data()[at], 0.0);
          sum += weights[k];
        }
        const Float inverse = sum > 0.0 ? 1.0 / sum : 0.0;
        for (std::size_t k = 0; k < kMaxSplatLayers; ++k)
          pixels[4 * at + static_cast<Int>(k)] = ToByte(weights[k] * inverse);
      }
    }));
    VLGD_RETURN_IF_ERROR(platform::WriteImage(image, file, platform::PixelType::UInt8, control));

    Json sidecar = CommonSidecar(EXPORTPRESET::SPLAT, terrain, options, fileName, heights, range);
    sidecar["encoding"] = Json{{"type", "uint8 RGBA PNG"},
                               {"offset", 0.0},
                               {"scale", 1.0 / 255.0},
                               {"rule", "weight = offset + value * scale"}};
    Json channels = Json::array();
    for (std::size_t k = 0; k < layers.size(); ++k)
      channels.push_back(Json{{"channel", std::string(1, "RGBA"[k])}, {"name", layers[k].name}});
    sidecar["splat"] = Json{{"channels", channels}};
    return Finish(sidecar);
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError("Out of memory exporting the terrain " + Named(terrain) + "!");
  }
}

}  // namespace VLGD
