#include "common/vlgd_export.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <cpl_conv.h>
#include <gdal.h>
#include <ogr_srs_api.h>
#include <nlohmann/json.hpp>

#include "platform/image.h"
#include "support/temp_dir.h"

namespace VLGD {
namespace {

using Json = nlohmann::json;
using testing_support::ReadFileBytes;
using testing_support::TempDir;

// A tilted plane over 40 x 30 world units, so that bilinear resampling reproduces it
// exactly and any output sample can be checked against the formula.
Float Plane(Float column, Float row) {
  return 2.5 * column - 1.25 * row + 7.0;
}

Grid2D<Float> PlaneGrid(Int width, Int height) {
  Grid2D<Float> grid;
  EXPECT_TRUE(grid.Init(width, height, 40.0, 30.0));
  for (Int row = 0; row < height; ++row)
    for (Int x = 0; x < width; ++x) grid.Set(x, row, Plane(static_cast<Float>(x), static_cast<Float>(row)));
  grid.RecomputeRange();
  return grid;
}

Json Sidecar(const Result<std::string>& text) {
  return text ? Json::parse(*text) : Json();
}

// The stored 16-bit values, row by row as the file holds them.
std::vector<std::uint16_t> StoredValues(EXPORTPRESET preset, const std::filesystem::path& file) {
  std::vector<std::uint16_t> values;
  if (preset == EXPORTPRESET::UNITY) {
    const std::string bytes = ReadFileBytes(file);
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
      values.push_back(static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[i]) |
                                                  (static_cast<unsigned char>(bytes[i + 1]) << 8)));
    return values;
  }
  const Result<platform::Image> image = platform::ReadImage(file);
  EXPECT_TRUE(image) << (image ? "" : image.error().message);
  if (!image) return values;
  EXPECT_EQ(image->Type(), platform::PixelType::UInt16);
  for (Int y = 0; y < image->Height(); ++y)
    for (Int x = 0; x < image->Width(); ++x) values.push_back(static_cast<std::uint16_t>(image->GetPixel(x, y, 0)));
  return values;
}

// Every stored value decodes, through the sidecar's offset and scale and through the
// engine's own placement, to our height within half a quantisation step; the file's rows
// run in the order each engine reads them.
TEST(Export, StoredHeightsDecodeWithinHalfAStepInTheEnginesRowOrder) {
  struct Case {
    const char* what;
    EXPORTPRESET preset;
    Int width, height;  // the terrain's samples
    Int fitted;         // samples per side written
    bool fitSize;
    Float unitsPerMetre;
    bool firstRowIsMinusZ;
  };
  const std::vector<Case> cases = {
      {"unreal, centimetres", EXPORTPRESET::UNREAL, 127, 127, 127, false, 100.0, false},
      {"unreal fitted, metres", EXPORTPRESET::UNREAL, 33, 33, 127, true, 1.0, false},
      {"unity", EXPORTPRESET::UNITY, 33, 33, 33, false, 100.0, true},
      {"unity fitted from a rectangle", EXPORTPRESET::UNITY, 40, 20, 65, true, 100.0, true},
  };
  const Vector position(100.0, -3.0, 50.0);
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
    TempDir dir;
    const Grid2D<Float> grid = PlaneGrid(test.width, test.height);
    ExportOptions options;
    options.unitsPerMetre = test.unitsPerMetre;
    options.fitSize = test.fitSize;
    const auto file = dir.File(std::string("t") + std::string(ExportPresetEnding(test.preset)));
    const Result<std::string> written =
        WriteTerrainExport(test.preset, {"T", &grid, position}, options, file, "t.name");
    ASSERT_TRUE(written) << written.error().message;
    const Json sidecar = Sidecar(written);
    EXPECT_EQ(sidecar["file"], "t.name");
    EXPECT_EQ(sidecar["samples"]["x"], test.fitted);
    EXPECT_EQ(sidecar["samples"]["z"], test.fitted);
    EXPECT_EQ(sidecar["size"]["x"], 40.0);
    EXPECT_EQ(sidecar["size"]["z"], 30.0);
    const std::vector<std::uint16_t> stored = StoredValues(test.preset, file);
    ASSERT_EQ(stored.size(), static_cast<std::size_t>(test.fitted * test.fitted));

    const Float offset = sidecar["encoding"]["offset"], scale = sidecar["encoding"]["scale"];
    const Float minimum = sidecar["height"]["min"], maximum = sidecar["height"]["max"];
    EXPECT_DOUBLE_EQ(minimum, Plane(0.0, static_cast<Float>(test.height - 1)));
    EXPECT_DOUBLE_EQ(maximum, Plane(static_cast<Float>(test.width - 1), 0.0));
    const Float halfStep = scale / 2.0 * (1.0 + 1e-9);
    const Float toSource = 1.0 / static_cast<Float>(test.fitted - 1);
    for (Int fileRow = 0; fileRow < test.fitted; ++fileRow) {
      const Int row = test.firstRowIsMinusZ ? test.fitted - 1 - fileRow : fileRow;
      for (Int x = 0; x < test.fitted; ++x) {
        const Float expected = Plane(static_cast<Float>(x * (test.width - 1)) * toSource,
                                     static_cast<Float>(row * (test.height - 1)) * toSource);
        const Float value = stored[static_cast<std::size_t>(fileRow * test.fitted + x)];
        ASSERT_NEAR(offset + value * scale, expected, halfStep) << "file row " << fileRow << ", column " << x;
        if (test.preset == EXPORTPRESET::UNREAL) {
          const Json& unreal = sidecar["unreal"];
          const Float centimetres = 100.0 / test.unitsPerMetre;
          const Float heightCm =
              unreal["location_cm"]["z"].get<Float>() + (value - 32768.0) * unreal["scale"]["z"].get<Float>() / 128.0;
          ASSERT_NEAR(heightCm, (position.y + expected) * centimetres, halfStep * centimetres);
        } else {
          const Json& unity = sidecar["unity"];
          const Float height = unity["position"]["y"].get<Float>() + value / 65535.0 * unity["size"]["y"].get<Float>();
          ASSERT_NEAR(height, position.y + expected, halfStep);
        }
      }
    }
    // The extremes take the full range; the first bytes of a RAW are the -Z edge's first
    // sample, little-endian.
    EXPECT_EQ(*std::min_element(stored.begin(), stored.end()), 0);
    EXPECT_EQ(*std::max_element(stored.begin(), stored.end()), 65535);
    if (test.preset == EXPORTPRESET::UNITY) {
      EXPECT_EQ(stored.front(), 0);
      EXPECT_EQ(ReadFileBytes(file).substr(0, 2), std::string("\0\0", 2));
      EXPECT_EQ(sidecar["unity"]["position"]["x"], position.x - 20.0);
      EXPECT_EQ(sidecar["unity"]["position"]["z"], position.z - 15.0);
    } else {
      EXPECT_EQ(stored[static_cast<std::size_t>(test.fitted - 1)], 65535);  // top right: +X, +Z
      EXPECT_EQ(sidecar["unreal"]["location_cm"]["y"], -(position.z + 15.0) * 100.0 / test.unitsPerMetre);
    }
  }
}

TEST(Export, GeoTiffReadsBackWithItsPlacementPointMetadataAndCrs) {
  for (const Int32 epsg : {32633, 0}) {
    SCOPED_TRACE(epsg);
    TempDir dir;
    const Grid2D<Float> grid = PlaneGrid(5, 4);  // spacing 10 along X and Z
    ExportOptions options;
    options.epsg = epsg;
    const auto file = dir.File("t.tif");
    const Result<std::string> written =
        WriteTerrainExport(EXPORTPRESET::GEOTIFF, {"T", &grid, Vector(1000.0, 0.0, 5000.0)}, options, file, "t.tif");
    ASSERT_TRUE(written) << written.error().message;

    GDALAllRegister();
    for (const char* ignorePoint : {"FALSE", "TRUE"}) {
      CPLSetConfigOption("GTIFF_POINT_GEO_IGNORE", ignorePoint);
      GDALDatasetH dataset = GDALOpen(file.c_str(), GA_ReadOnly);
      ASSERT_NE(dataset, nullptr);
      double transform[6] = {};
      ASSERT_EQ(GDALGetGeoTransform(dataset, transform), CE_None);
      // GDAL names cell corners; the file's own tie point (read with the point convention
      // ignored) is the first sample's centre, the terrain's -X, +Z corner.
      const double corner = std::string(ignorePoint) == "TRUE" ? 0.0 : 5.0;
      EXPECT_DOUBLE_EQ(transform[0], 980.0 - corner);
      EXPECT_DOUBLE_EQ(transform[3], 5015.0 + corner);
      EXPECT_DOUBLE_EQ(transform[1], 10.0);
      EXPECT_DOUBLE_EQ(transform[5], -10.0);
      EXPECT_STREQ(GDALGetMetadataItem(dataset, "AREA_OR_POINT", nullptr), "Point");
      EXPECT_EQ(GDALGetRasterXSize(dataset), 5);
      EXPECT_EQ(GDALGetRasterYSize(dataset), 4);
      std::vector<float> values(20);
      ASSERT_EQ(
          GDALRasterIO(GDALGetRasterBand(dataset, 1), GF_Read, 0, 0, 5, 4, values.data(), 5, 4, GDT_Float32, 0, 0),
          CE_None);
      for (Int i = 0; i < 20; ++i)
        EXPECT_EQ(values[static_cast<std::size_t>(i)], static_cast<float>(grid.Data()[i])) << i;
      // Without a CRS, GDAL records a local one in unnamed units.
      OGRSpatialReferenceH crs = GDALGetSpatialRef(dataset);
      ASSERT_NE(crs, nullptr);
      if (epsg == 0)
        EXPECT_TRUE(OSRIsLocal(crs));
      else
        EXPECT_STREQ(OSRGetAuthorityCode(crs, nullptr), "32633");
      GDALClose(dataset);
    }
    CPLSetConfigOption("GTIFF_POINT_GEO_IGNORE", nullptr);
    EXPECT_EQ(Sidecar(written)["geotiff"]["crs"], epsg != 0 ? Json("EPSG:32633") : Json());
  }
}

TEST(Export, EngineSizesAndResampling) {
  struct Case {
    EXPORTPRESET preset;
    Int width, height;
    bool fitSize;
    Int expectedWidth, expectedHeight;
    bool noted;
  };
  const std::vector<Case> cases = {
      {EXPORTPRESET::UNREAL, 253, 253, false, 253, 253, false},
      {EXPORTPRESET::UNREAL, 33, 33, false, 33, 33, true},
      {EXPORTPRESET::UNREAL, 33, 33, true, 127, 127, true},
      {EXPORTPRESET::UNREAL, 1000, 1016, true, 1009, 1017, true},
      {EXPORTPRESET::UNREAL, 9000, 379, true, 8161, 505, true},  // 379 is a tie: the larger wins
      {EXPORTPRESET::UNITY, 33, 33, false, 33, 33, false},
      {EXPORTPRESET::UNITY, 40, 20, true, 65, 65, true},
      {EXPORTPRESET::UNITY, 9, 9, true, 33, 33, true},
      {EXPORTPRESET::UNITY, 5000, 33, true, 4097, 4097, true},
      {EXPORTPRESET::GEOTIFF, 40, 20, true, 40, 20, false},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(std::string(ExportPresetName(test.preset)) + " " + std::to_string(test.width) + " x " +
                 std::to_string(test.height));
    Grid2D<Float> grid;
    ASSERT_TRUE(grid.Init(test.width, test.height, 1.0, 1.0));
    ExportOptions options;
    options.fitSize = test.fitSize;
    const Result<ExportShape> shape = PlanExportShape(test.preset, {"T", &grid, {}}, options);
    ASSERT_TRUE(shape) << shape.error().message;
    EXPECT_EQ(shape->width, test.expectedWidth);
    EXPECT_EQ(shape->height, test.expectedHeight);
    EXPECT_EQ(shape->resampled, test.width != test.expectedWidth || test.height != test.expectedHeight);
    EXPECT_EQ(!shape->note.empty(), test.noted) << shape->note;
  }

  // Corners stay exact and a plane stays a plane.
  const Grid2D<Float> source = PlaneGrid(5, 3);
  Grid2D<Float> target;
  ASSERT_TRUE(ResampleBilinear(source, 9, 7, target));
  EXPECT_EQ(target.SizeX(), source.SizeX());
  EXPECT_EQ(target.Get(0, 0), source.Get(0, 0));
  EXPECT_EQ(target.Get(8, 6), source.Get(4, 2));
  for (Int row = 0; row < 7; ++row)
    for (Int x = 0; x < 9; ++x) EXPECT_NEAR(target.Get(x, row), Plane(x * 0.5, row / 3.0), 1e-12);
}

TEST(Export, NormalMapSlopesAndConventions) {
  struct Case {
    const char* what;
    std::function<Float(Int, Int)> height;  // column, row
    NORMALCONVENTION convention;
    int red, green, blue;
  };
  // 5 x 5 samples over 8 x 8 units: spacing 2, so a rise of 2 a sample is a 45 degree slope.
  const std::vector<Case> cases = {
      {"flat", [](Int, Int) { return 3.0; }, NORMALCONVENTION::OPENGL, 128, 128, 255},
      {"rising towards +X", [](Int x, Int) { return 2.0 * static_cast<Float>(x); }, NORMALCONVENTION::OPENGL, 37, 128,
       218},
      {"rising towards +Z, opengl", [](Int, Int row) { return -2.0 * static_cast<Float>(row); },
       NORMALCONVENTION::OPENGL, 128, 37, 218},
      {"rising towards +Z, directx", [](Int, Int row) { return -2.0 * static_cast<Float>(row); },
       NORMALCONVENTION::DIRECTX, 128, 218, 218},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
    TempDir dir;
    Grid2D<Float> grid;
    ASSERT_TRUE(grid.Init(5, 5, 8.0, 8.0));
    for (Int row = 0; row < 5; ++row)
      for (Int x = 0; x < 5; ++x) grid.Set(x, row, test.height(x, row));
    ExportOptions options;
    options.normalConvention = test.convention;
    const auto file = dir.File("n.png");
    const Result<std::string> written = WriteTerrainExport(EXPORTPRESET::NORMAL, {"T", &grid, {}}, options, file, "n");
    ASSERT_TRUE(written) << written.error().message;
    const Result<platform::Image> image = platform::ReadImage(file);
    ASSERT_TRUE(image);
    ASSERT_EQ(image->Channels(), 3);
    for (const auto& [x, y] : {std::pair<Int, Int>{2, 2}, {0, 0}, {4, 4}}) {
      EXPECT_EQ(image->GetPixel(x, y, 0), test.red);
      EXPECT_EQ(image->GetPixel(x, y, 1), test.green);
      EXPECT_EQ(image->GetPixel(x, y, 2), test.blue);
    }
  }
}

TEST(Export, SplatWeightsAreNormalisedWhereAnyIsSet) {
  TempDir dir;
  Grid2D<Float> heights;
  ASSERT_TRUE(heights.Init(2, 2, 3.0, 1.0));
  // Per sample: equal weights, nothing set, a negative weight, three layers in proportion.
  std::vector<Grid2D<Float>> grids(3);
  const Float weights[3][4] = {{1.0, 0.0, -1.0, 0.2}, {1.0, 0.0, 2.0, 0.6}, {0.0, 0.0, 0.0, 0.2}};
  for (std::size_t k = 0; k < 3; ++k) {
    ASSERT_TRUE(grids[k].InitFrom(heights));
    for (Int i = 0; i < 4; ++i) grids[k].Values()[static_cast<std::size_t>(i)] = weights[k][i];
  }
  const std::vector<SplatLayer> layers = {{&grids[0], "rock"}, {&grids[1], "grass"}, {&grids[2], "snow"}};
  const auto file = dir.File("s.png");
  const Result<std::string> written = WriteSplatMap({"T", &heights, {}}, layers, {}, file, "s.png");
  ASSERT_TRUE(written) << written.error().message;
  const Result<platform::Image> image = platform::ReadImage(file);
  ASSERT_TRUE(image);
  ASSERT_EQ(image->Channels(), 4);
  const int expected[4][4] = {{128, 128, 0, 0}, {0, 0, 0, 0}, {0, 255, 0, 0}, {51, 153, 51, 0}};
  for (Int i = 0; i < 4; ++i)
    for (int c = 0; c < 4; ++c)
      EXPECT_EQ(image->GetPixel(i % 2, i / 2, c), expected[i][c]) << "sample " << i << " channel " << c;
  const Json sidecar = Sidecar(written);
  EXPECT_EQ(sidecar["splat"]["channels"][1]["name"], "grass");
  EXPECT_EQ(sidecar["splat"]["channels"][1]["channel"], "G");
}

// Bad input is refused with a message that names what is wrong, and no file is left.
TEST(Export, RefusalsNameWhatIsWrong) {
  TempDir dir;
  const auto file = dir.File("x.out");
  Grid2D<Float> unitySized = PlaneGrid(33, 33);
  Grid2D<Float> rectangle = PlaneGrid(257, 129);
  Grid2D<Float> notANumber = PlaneGrid(33, 33);
  notANumber.Set(4, 7, std::numeric_limits<Float>::quiet_NaN());
  Grid2D<Float> infinite = PlaneGrid(33, 33);
  infinite.Set(0, 1, std::numeric_limits<Float>::infinity());
  const auto write = [&](EXPORTPRESET preset, const Grid2D<Float>& grid, ExportOptions options = {}) {
    return [&grid, preset, options, &file]() -> Status {
      const Result<std::string> written = WriteTerrainExport(preset, {"Hill", &grid, {}}, options, file, "x");
      return written ? platform::Ok() : Status(std::unexpected(written.error()));
    };
  };
  const auto status = [](auto result) -> Status {
    return result ? platform::Ok() : Status(std::unexpected(result.error()));
  };
  Grid2D<Float> badWeights;
  ASSERT_TRUE(badWeights.InitFrom(unitySized));
  badWeights.Set(2, 3, std::numeric_limits<Float>::quiet_NaN());
  const std::vector<SplatLayer> five(5, {&badWeights, "w"});
  struct Case {
    const char* what;
    std::function<Status()> run;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"unknown preset", [&] { return status(ParseExportPreset("fbx")); }, "'fbx' is not a preset (use unreal, unity"},
      {"unknown CRS code", [&] { return status(ParseCrs("EPSG:99999")); }, "EPSG:99999 is not a known"},
      {"CRS not an EPSG code", [&] { return status(ParseCrs("WGS84")); }, "give the CRS as EPSG:<code>"},
      {"unity rectangle without --fit-size", write(EXPORTPRESET::UNITY, rectangle),
       "has 257 x 129 samples; a Unity height map needs a square of 2^n + 1"},
      {"not a number", write(EXPORTPRESET::UNREAL, notANumber),
       "'Hill' has a height that is not a number (column 4, row 7)"},
      {"infinite", write(EXPORTPRESET::GEOTIFF, infinite), "is infinite (column 0, row 1)"},
      {"units per metre", write(EXPORTPRESET::UNREAL, unitySized, {.unitsPerMetre = 0.0}), "units per metre"},
      {"splat from heights alone", write(EXPORTPRESET::SPLAT, unitySized), "weight grids"},
      {"five splat layers",
       [&] {
         return status(WriteSplatMap({"Hill", &unitySized, {}}, five, {}, file, "x"));
       },
       "1 to 4 weight grids"},
      {"splat weight not a number",
       [&] {
         return status(WriteSplatMap({"Hill", &unitySized, {}}, std::span(five).first(1), {}, file, "x"));
       },
       "'w' of the terrain 'Hill' hold a value that is not finite (column 2, row 3)"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
    const Status result = test.run();
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().kind, platform::ErrorKind::IllegalArgument);
    EXPECT_NE(result.error().message.find(test.message), std::string::npos) << result.error().message;
    EXPECT_FALSE(std::filesystem::exists(file));
  }
}

}  // namespace
}  // namespace VLGD
