#include "object/operator_shader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <functional>
#include <numbers>
#include <string>
#include <vector>

#include "common/vlgd_geotiff.h"
#include "main/vellgrund_module.h"
#include "platform/image.h"
#include "platform/parallel.h"
#include "support/operator_fixture.h"
#include "support/temp_dir.h"
#include "vellgrund/distortion.h"

namespace {

using namespace platform;
using namespace testing_support;
using namespace VLGD;

// Distinct, uneven values that fit every file type exactly: 0 .. 255 integers.
Float Value(Int x, Int y) {
  return static_cast<Float>((x * 37 + y * 101 + x * y * 13) % 256);
}

void WriteRaster(const std::filesystem::path& path, Int width, Int height, PixelType type, int channels = 1,
                 const std::function<Float(Int, Int)>& value = Value) {
  Result<Image> image = Image::Create(width, height, channels, type);
  ASSERT_TRUE(image);
  for (Int y = 0; y < height; ++y)
    for (Int x = 0; x < width; ++x) {
      std::vector<Float> pixel(static_cast<std::size_t>(channels), value(x, y));
      for (int c = 1; c < channels; ++c) pixel[static_cast<std::size_t>(c)] = 10.0 * c;  // other channels differ
      ASSERT_TRUE(image->SetPixel(x, y, pixel));
    }
  ASSERT_TRUE(WriteImage(*image, path, type));
}

// A GeoTIFF through the same codec the export writes with, north-up, row 0 first.
void WriteGeoTiff(const std::filesystem::path& path, Int width, Int height, const std::vector<float>& values) {
  Result<const GeoCodec*> codec = LoadGeoCodec();
  ASSERT_TRUE(codec) << codec.error().message;
  const double transform[6] = {500000.0, 30.0, 0.0, 4100000.0, 0.0, -30.0};
  unsigned char* encoded = nullptr;
  std::size_t size = 0;
  char error[256] = {};
  ASSERT_EQ((*codec)->encode(values.data(), width, height, transform, 0, nullptr, nullptr, 0, nullptr, nullptr,
                             &encoded, &size, error, sizeof error),
            0)
      << error;
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(encoded), static_cast<std::streamsize>(size));
  (*codec)->release(encoded);
}

void WriteText(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::vector<Float> Heights(const Grid2D<Float>& grid) {
  return {grid.Data(), grid.Data() + grid.Count()};
}

struct ShaderTrial : DirectOperator {
  ShaderTrial() : DirectOperator(ID_SHADEROPERATOR) {}
  platform::Result<std::vector<Float>> Run(Int width, Int height, Float sizeX = 80.0, Float sizeY = 60.0) {
    const Grid2D<Float> incoming = MakeGrid(
        width, height, [](Int, Int) { return 0.0; }, sizeX, sizeY);
    VLGD_RETURN_IF_ERROR(Compute(incoming));
    return Heights(Result());
  }
  [[nodiscard]] std::vector<Float> Mask() const {
    const std::span<const Float> mask = Data().GetResultMask();
    return {mask.begin(), mask.end()};
  }
};

// Fitted onto a grid of its own shape, every grid sample lies on a picture sample: the
// values come back in every format, exactly by nearest and within rounding otherwise; at
// half-sample positions (a grid twice as dense) the interpolation is that of Grid2D.
TEST(ShaderOperatorTest, SamplesThePictureWhereverItIsReadInEveryFormat) {
  TempDir dir;
  constexpr Int kWidth = 9, kHeight = 7;
  const struct {
    const char* file;
    PixelType type;
    int channels;
    SHADEROPERATORCHANNEL channel;
  } formats[] = {
      {"grey8.png", PixelType::UInt8, 1, SHADEROPERATORCHANNEL::RED},
      {"grey16.png", PixelType::UInt16, 1, SHADEROPERATORCHANNEL::GREEN},  // grey for every colour
      {"rgba16.png", PixelType::UInt16, 4, SHADEROPERATORCHANNEL::RED},
      {"float.exr", PixelType::Float32, 1, SHADEROPERATORCHANNEL::RED},
      {"float.tif", PixelType::Float32, 3, SHADEROPERATORCHANNEL::RED},  // TIFF goes to GDAL
  };
  Grid2D<Float> reference = MakeGrid(kWidth, kHeight, Value);
  for (const auto& format : formats) {
    WriteRaster(dir.File(format.file), kWidth, kHeight, format.type, format.channels);
    ShaderTrial trial;
    trial.Put(SHADEROPERATOR_FILE, dir.File(format.file).string());
    trial.Put(SHADEROPERATOR_CHANNEL, static_cast<Int32>(format.channel));
    trial.Put(SHADEROPERATOR_METRES, true);
    for (const auto interpolation :
         {SAMPLEINTERPOLATION::NEAREST, SAMPLEINTERPOLATION::BILINEAR, SAMPLEINTERPOLATION::BICUBIC}) {
      SCOPED_TRACE(std::string(format.file) + " interpolation " + std::to_string(static_cast<int>(interpolation)));
      trial.Put(SHADEROPERATOR_INTERPOLATION, static_cast<Int32>(interpolation));
      const Float tolerance = interpolation == SAMPLEINTERPOLATION::NEAREST ? 0.0 : 1e-9;
      Result<std::vector<Float>> same = trial.Run(kWidth, kHeight);
      ASSERT_TRUE(same) << same.error().message;
      for (Int i = 0; i < kWidth * kHeight; ++i) EXPECT_NEAR((*same)[i], reference.Data()[i], tolerance) << i;
      EXPECT_TRUE(trial.Mask().empty());
      if (interpolation == SAMPLEINTERPOLATION::NEAREST) continue;
      Result<std::vector<Float>> dense = trial.Run(2 * kWidth - 1, 2 * kHeight - 1);
      ASSERT_TRUE(dense);
      for (Int y = 0; y < 2 * kHeight - 1; ++y)
        for (Int x = 0; x < 2 * kWidth - 1; ++x)
          EXPECT_NEAR((*dense)[y * (2 * kWidth - 1) + x], reference.Sample(0.5 * x, 0.5 * y, interpolation), 1e-9)
              << x << ", " << y;
    }
  }
  // Off "metres", the picture's lowest to highest sample becomes 0 .. 1.
  ShaderTrial trial;
  trial.Put(SHADEROPERATOR_FILE, dir.File("grey16.png").string());
  trial.Put(SHADEROPERATOR_INTERPOLATION, Int32{0});
  reference.RecomputeRange();
  Result<std::vector<Float>> normalised = trial.Run(kWidth, kHeight);
  ASSERT_TRUE(normalised);
  for (Int i = 0; i < kWidth * kHeight; ++i)
    EXPECT_DOUBLE_EQ((*normalised)[i],
                     (reference.Data()[i] - reference.Minimum()) / (reference.Maximum() - reference.Minimum()));
}

// An elevation model's metres arrive as heights whatever the height scale, north at +Z.
TEST(ShaderOperatorTest, AGeoTiffKeepsItsMetresInTheTerrain) {
  TempDir dir;
  constexpr Int kSide = 9;
  std::vector<float> metres;
  for (Int y = 0; y < kSide; ++y)
    for (Int x = 0; x < kSide; ++x)
      metres.push_back(1250.25f + 3.5f * static_cast<float>(x) - 20.0f * static_cast<float>(y));
  WriteGeoTiff(dir.File("dem.tif"), kSide, kSide, metres);

  TerrainHarness h(kSide - 1, 400.0);
  Node* shader = h.AddOperator(ID_SHADEROPERATOR, "dem");
  h.Set(shader, SHADEROPERATOR_FILE, dir.File("dem.tif").string());
  h.Set(shader, SHADEROPERATOR_METRES, true);
  h.Set(shader, TERRAINOPERATOR_HEIGHTSCALE, 100.0);
  ASSERT_TRUE(h.Rebuild());
  for (Int y = 0; y < kSide; ++y)
    for (Int x = 0; x < kSide; ++x)
      EXPECT_EQ(h.Height(x, y), static_cast<Float>(metres[static_cast<std::size_t>(y * kSide + x)]));
  EXPECT_FALSE(IsParameterEnabled(*shader, TERRAINOPERATOR_HEIGHTSCALE));

  // Normalised, the height scale applies again.
  h.Set(shader, SHADEROPERATOR_METRES, false);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_DOUBLE_EQ(h.Height(kSide - 1, 0), 100.0);  // the highest sample: north-east
  EXPECT_DOUBLE_EQ(h.Height(0, kSide - 1), 0.0);
}

// Samples without data, and with NONE those outside the picture, keep the terrain below.
TEST(ShaderOperatorTest, NoDataAndUncoveredSamplesLeaveTheTerrainBelow) {
  TempDir dir;
  WriteText(dir.File("hole.asc"),
            "ncols 5\nnrows 5\nxllcorner 0\nyllcorner 0\ncellsize 10\nNODATA_value -9999\n"
            "1 2 3 4 5\n6 7 8 9 10\n11 12 -9999 14 15\n16 17 18 19 20\n21 22 23 24 25\n");
  WriteRaster(dir.File("nan.exr"), 5, 5, PixelType::Float32, 1,
              [](Int x, Int y) { return x == 2 && y == 2 ? std::nan("") : static_cast<Float>(y * 5 + x + 1); });
  WriteRaster(dir.File("full.png"), 5, 5, PixelType::UInt8, 1,
              [](Int x, Int y) { return static_cast<Float>(y * 5 + x + 1); });
  const struct {
    const char* file;
    Int32 interpolation;
    Float moveX;  // the operator's offset in units; one cell is 10
    std::vector<std::pair<Int, Int>> untouched;
  } cases[] = {
      {"hole.asc", 0, 0.0, {{2, 2}}},
      {"hole.asc", 1, 0.0, {{2, 2}}},
      {"nan.exr", 2, 0.0, {{2, 2}}},
      // NONE: the two columns the moved picture no longer covers
      {"full.png", 0, 20.0, {{0, 0}, {1, 0}, {0, 1}, {1, 1}, {0, 2}, {1, 2}, {0, 3}, {1, 3}, {0, 4}, {1, 4}}},
  };
  for (const auto& trial : cases) {
    SCOPED_TRACE(std::string(trial.file) + " interpolation " + std::to_string(trial.interpolation));
    TerrainHarness h(4, 40.0);
    h.AddGenerator("below", 100.0);
    Node* shader = h.AddOperator(ID_SHADEROPERATOR, "picture");
    h.Set(shader, TERRAINOPERATOR_BLENDMODE, Int32{0});  // NORMAL: the picture replaces the terrain
    h.Set(shader, SHADEROPERATOR_FILE, dir.File(trial.file).string());
    h.Set(shader, SHADEROPERATOR_METRES, true);
    h.Set(shader, SHADEROPERATOR_INTERPOLATION, trial.interpolation);
    h.Set(shader, SHADEROPERATOR_OUTOFBOUNDS, static_cast<Int32>(OUTOFBOUNDSMODE::NONE));
    shader->SetMl(TranslationMatrix({trial.moveX, 0.0, 0.0}));
    ASSERT_TRUE(h.Rebuild());
    const Int shift = static_cast<Int>(trial.moveX / 10.0);
    for (Int y = 0; y < 5; ++y)
      for (Int x = 0; x < 5; ++x) {
        const bool kept = std::ranges::find(trial.untouched, std::pair{x, y}) != trial.untouched.end();
        if (kept) {
          EXPECT_EQ(h.Height(x, y), 100.0 + static_cast<Float>(x)) << x << ", " << y;
        } else {
          // Beside a hole, bilinear and bicubic read only samples with data.
          EXPECT_NEAR(h.Height(x, y), static_cast<Float>(y * 5 + (x - shift) + 1), 1e-9) << x << ", " << y;
        }
      }
  }
}

// Beyond the picture (SIZE mapping, 4 samples over 4 units): clamped, repeated, reflected
// or left out. The grid's 16 samples lie one unit apart, at picture columns -6 .. 9.
TEST(ShaderOperatorTest, OutOfBoundsModesContinueThePicture) {
  TempDir dir;
  WriteRaster(dir.File("row.png"), 4, 1, PixelType::UInt8, 1, [](Int x, Int) { return static_cast<Float>(x + 1); });
  const struct {
    OUTOFBOUNDSMODE mode;
    std::vector<Float> heights;
  } modes[] = {
      {OUTOFBOUNDSMODE::CLAMP, {1, 1, 1, 1, 1, 1, 1, 2, 3, 4, 4, 4, 4, 4, 4, 4}},
      {OUTOFBOUNDSMODE::TILE, {3, 4, 1, 2, 3, 4, 1, 2, 3, 4, 1, 2, 3, 4, 1, 2}},
      {OUTOFBOUNDSMODE::MIRROR, {3, 4, 4, 3, 2, 1, 1, 2, 3, 4, 4, 3, 2, 1, 1, 2}},
      {OUTOFBOUNDSMODE::NONE, {0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 0, 0, 0, 0, 0, 0}},
  };
  ShaderTrial trial;
  trial.Put(SHADEROPERATOR_FILE, dir.File("row.png").string());
  trial.Put(SHADEROPERATOR_METRES, true);
  trial.Put(SHADEROPERATOR_INTERPOLATION, Int32{0});
  trial.Put(SHADEROPERATOR_MAPPING, static_cast<Int32>(SHADEROPERATORMAPPING::SIZE));
  trial.Put(SHADEROPERATOR_SIZE_X, 4.0);
  trial.Put(SHADEROPERATOR_SIZE_Z, 1.0);
  for (const auto& mode : modes) {
    SCOPED_TRACE(static_cast<int>(mode.mode));
    trial.Put(SHADEROPERATOR_OUTOFBOUNDS, static_cast<Int32>(mode.mode));
    Result<std::vector<Float>> heights = trial.Run(16, 1, 15.0, 0.5);
    ASSERT_TRUE(heights) << heights.error().message;
    EXPECT_EQ(*heights, mode.heights);
    const std::vector<Float> mask = trial.Mask();
    if (mode.mode != OUTOFBOUNDSMODE::NONE) {
      EXPECT_TRUE(mask.empty());
    } else {
      ASSERT_EQ(mask.size(), 16u);
      for (std::size_t i = 0; i < 16; ++i) EXPECT_EQ(mask[i], mode.heights[i] > 0.0 ? 1.0 : 0.0) << i;
    }
  }
}

// The picture lives in the operator's space: moved by a cell it shifts by a column, turned
// a quarter about Y its columns become rows.
TEST(ShaderOperatorTest, MovingOrTurningTheOperatorMovesThePicture) {
  TempDir dir;
  constexpr Int kSide = 9;
  WriteRaster(dir.File("square.png"), kSide, kSide, PixelType::UInt16);
  ShaderTrial trial;
  trial.Put(SHADEROPERATOR_FILE, dir.File("square.png").string());
  trial.Put(SHADEROPERATOR_METRES, true);
  trial.Put(SHADEROPERATOR_INTERPOLATION, Int32{0});
  Result<std::vector<Float>> still = trial.Run(kSide, kSide, 80.0, 80.0);
  ASSERT_TRUE(still);
  const auto at = [&](Int x, Int y) { return (*still)[static_cast<std::size_t>(y * kSide + x)]; };

  trial.op->SetMl(TranslationMatrix({10.0, 0.0, 0.0}));
  Result<std::vector<Float>> moved = trial.Run(kSide, kSide, 80.0, 80.0);
  ASSERT_TRUE(moved);
  for (Int y = 0; y < kSide; ++y)
    for (Int x = 1; x < kSide; ++x) EXPECT_EQ((*moved)[static_cast<std::size_t>(y * kSide + x)], at(x - 1, y));

  trial.op->SetMl(RotationMatrix({0.0, std::numbers::pi / 2.0, 0.0}));
  Result<std::vector<Float>> turned = trial.Run(kSide, kSide, 80.0, 80.0);
  ASSERT_TRUE(turned);
  // Which way a quarter turn goes is the matrix's to say; the picture must follow it.
  const platform::Matrix back = Inverse(trial.op->GetMl());
  for (Int y = 0; y < kSide; ++y)
    for (Int x = 0; x < kSide; ++x) {
      const Vector p = TransformPoint(back, GridPoint(x, y, kSide, kSide, 80.0, 80.0));
      const auto column = static_cast<Int>(std::lround(p.x / 10.0 + 4.0));
      const auto row = static_cast<Int>(std::lround(4.0 - p.z / 10.0));
      EXPECT_EQ((*turned)[static_cast<std::size_t>(y * kSide + x)], at(column, row)) << x << ", " << y;
    }
  EXPECT_NE(*turned, *still);

  // Distorted, on rows that span several of the distortion's blocks: every sample reads the
  // picture where its own distorted point lies.
  trial.op->SetMl(Matrix());
  trial.Put(TERRAINDISTORTION_ENABLED, true);
  trial.Put(TERRAINDISTORTION_AMOUNT, 0.05);
  constexpr Int kWide = 601;
  Result<std::vector<Float>> distorted = trial.Run(kWide, 3, 80.0, 80.0);
  ASSERT_TRUE(distorted);
  const TerrainDistortion distortion = TerrainDistortion::Read(ParameterReader(*trial.op));
  for (Int y = 0; y < 3; ++y)
    for (Int x = 0; x < kWide; ++x) {
      Vector p = GridPoint(x, y, kWide, 3, 80.0, 80.0);
      distortion.Apply(p);
      const auto column = std::clamp<Int>(std::lround(p.x / 10.0 + 4.0), 0, kSide - 1);
      const auto row = std::clamp<Int>(std::lround(4.0 - p.z / 10.0), 0, kSide - 1);
      EXPECT_EQ((*distorted)[static_cast<std::size_t>(y * kWide + x)], at(column, row)) << x << ", " << y;
    }
}

// The picture is read once and kept while the file stays the same; a changed, removed or
// restored file rebuilds the operator at the next build.
TEST(ShaderOperatorTest, ThePictureIsKeptUntilItsFileChanges) {
  TempDir dir;
  const std::filesystem::path file = dir.File("map.png");
  WriteRaster(file, 5, 5, PixelType::UInt8);
  TerrainHarness h(4, 40.0);
  Node* shader = h.AddOperator(ID_SHADEROPERATOR, "map");
  h.Set(shader, SHADEROPERATOR_FILE, file.string());
  h.Set(shader, SHADEROPERATOR_METRES, true);
  const auto& data = *shader->GetNodeData<ShaderOperator>();
  const auto touch = [&file](int seconds) {
    std::filesystem::last_write_time(file,
                                     std::filesystem::file_time_type::clock::now() + std::chrono::seconds(seconds));
  };
  const struct {
    const char* step;
    std::function<void()> change;
    std::string rebuilt;
    Int loads;
    bool fails;
  } steps[] = {
      {"first build", [] {}, "map", 1, false},
      {"nothing changed", [] {}, "", 1, false},
      {"blending changed", [&] { h.Set(shader, TERRAINOPERATOR_STRENGTH, 0.5); }, "", 1, false},
      {"interpolation changed", [&] { h.Set(shader, SHADEROPERATOR_INTERPOLATION, Int32{2}); }, "map", 1, false},
      {"file rewritten",
       [&] {
         WriteRaster(file, 5, 5, PixelType::UInt8, 1, [](Int x, Int) { return static_cast<Float>(x); });
         touch(5);
       },
       "map", 2, false},
      {"file removed", [&] { std::filesystem::remove(file); }, "failed", 2, true},
      {"file restored",
       [&] {
         WriteRaster(file, 5, 5, PixelType::UInt8);
         touch(10);
       },
       "map", 3, false},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.step);
    step.change();
    const platform::Status built = h.Rebuild();
    EXPECT_EQ(built.has_value(), !step.fails);
    if (step.fails) {
      EXPECT_NE(built.error().message.find("Could not load image \"" + file.string() + "\": the file does not exist!"),
                std::string::npos)
          << built.error().message;
      continue;
    }
    EXPECT_EQ(h.Rebuilt(), step.rebuilt);
    EXPECT_EQ(data.LoadCount(), step.loads);
  }
  EXPECT_NEAR(h.Height(3, 0), 0.5 * Value(3, 0), 1e-9);  // at the strength set above
}

// Files that cannot serve are refused by name with the reason; nothing is half loaded.
TEST(ShaderOperatorTest, BadFilesAreRefusedByNameWithTheReason) {
  TempDir dir;
  WriteText(dir.File("text.png"), "not a picture");
  WriteText(dir.File("text.tif"), "not a raster either");
  WriteRaster(dir.File("rgb.png"), 3, 3, PixelType::UInt8, 3);
  std::filesystem::create_directory(dir.File("folder.png"));
  const struct {
    std::string file;
    SHADEROPERATORCHANNEL channel;
    std::string reason;
  } cases[] = {
      {"missing.png", SHADEROPERATORCHANNEL::RED, "the file does not exist!"},
      {"folder.png", SHADEROPERATORCHANNEL::RED, "it is a folder, not a file!"},
      {"text.png", SHADEROPERATORCHANNEL::RED, ""},
      {"text.tif", SHADEROPERATORCHANNEL::RED, ""},
      {"rgb.png", SHADEROPERATORCHANNEL::ALPHA, "it has no alpha channel (3 channels)!"},
  };
  for (const auto& bad : cases) {
    SCOPED_TRACE(bad.file);
    ShaderTrial trial;
    trial.Put(SHADEROPERATOR_FILE, dir.File(bad.file).string());
    trial.Put(SHADEROPERATOR_CHANNEL, static_cast<Int32>(bad.channel));
    Result<std::vector<Float>> run = trial.Run(5, 5);
    ASSERT_FALSE(run);
    const std::string prefix = "Could not load image \"" + dir.File(bad.file).string() + "\": ";
    EXPECT_TRUE(run.error().message.starts_with(prefix)) << run.error().message;
    EXPECT_GT(run.error().message.size(), prefix.size() + 3) << run.error().message;
    if (!bad.reason.empty()) {
      EXPECT_EQ(run.error().message, prefix + bad.reason);
    }
  }
  // An unknown choice is named; no file is touched for it.
  ShaderTrial trial;
  trial.Put(SHADEROPERATOR_OUTOFBOUNDS, Int32{9});
  Result<std::vector<Float>> run = trial.Run(5, 5);
  ASSERT_FALSE(run);
  EXPECT_EQ(run.error().message, "Unknown out-of-bounds mode 9 of the shader operator!");
}

// The hardest mode (distorted, turned, bicubic beside holes) on one thread and on all, and
// a new operator without a file that leaves the terrain as it is.
TEST(ShaderOperatorTest, AlikeOnAnyThreadCountAndInertWithoutAFile) {
  TempDir dir;
  std::string grid = "ncols 40\nnrows 30\nxllcorner 0\nyllcorner 0\ncellsize 1\nNODATA_value -1\n";
  for (Int y = 0; y < 30; ++y) {
    for (Int x = 0; x < 40; ++x) grid += (x * y) % 17 == 3 ? "-1 " : std::to_string(Value(x, y)) + " ";
    grid += "\n";
  }
  WriteText(dir.File("holes.asc"), grid);
  ShaderTrial trial;
  trial.Put(SHADEROPERATOR_FILE, dir.File("holes.asc").string());
  trial.Put(SHADEROPERATOR_INTERPOLATION, Int32{2});
  trial.Put(SHADEROPERATOR_OUTOFBOUNDS, static_cast<Int32>(OUTOFBOUNDSMODE::MIRROR));
  trial.Put(TERRAINDISTORTION_ENABLED, true);
  trial.op->SetMl(RotationMatrix({0.0, 0.4, 0.0}) * ScaleMatrix({0.7, 1.0, 0.7}));
  const auto run = [&](int threads) {
    const ScopedThreadLimit limit(threads);
    Result<std::vector<Float>> heights = trial.Run(157, 521);
    EXPECT_TRUE(heights);
    std::vector<Float> all = heights ? *heights : std::vector<Float>{};
    const std::vector<Float> mask = trial.Mask();
    all.insert(all.end(), mask.begin(), mask.end());
    return all;
  };
  const std::vector<Float> one = run(1);
  EXPECT_EQ(one.size(), 2u * 157u * 521u);  // heights and a mask: there are holes
  EXPECT_TRUE(one == run(MaxThreads()));

  ShaderTrial empty;
  Result<std::vector<Float>> heights = empty.Run(4, 3);
  ASSERT_TRUE(heights);
  EXPECT_EQ(empty.Mask(), std::vector<Float>(12, 0.0));
}

TEST(ShaderOperatorTest, TheMenuListsItAfterTheNoise) {
  std::vector<Int32> generators;
  for (const TypeDescriptor* type : RegisteredTypes())
    if (type->sort && *type->sort > 20 && *type->sort < 30) generators.push_back(type->id);
  std::ranges::sort(generators, [](Int32 a, Int32 b) {
    const auto sortOf = [](Int32 id) {
      for (const TypeDescriptor* type : RegisteredTypes())
        if (type->id == id) return *type->sort;
      return 0;
    };
    return sortOf(a) < sortOf(b);
  });
  ASSERT_GE(generators.size(), 4u);
  EXPECT_EQ(generators[0], 1054566);  // noise
  EXPECT_EQ(generators[1], ID_SHADEROPERATOR);
  EXPECT_EQ(generators.back(), 1054581);  // group
}

}  // namespace
