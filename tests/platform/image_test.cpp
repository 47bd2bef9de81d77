#include "platform/image.h"

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <OpenImageIO/imageio.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace platform {
namespace {

using testing_support::TempDir;
namespace fs = std::filesystem;

// What OpenImageIO itself finds in a file, as floats in 0 .. 1 for integer files, and the
// stored values of the file's own type for an exact comparison.
struct FileContents {
  int width = 0, height = 0, channels = 0;
  OIIO::TypeDesc format;
  std::vector<float> values;
  std::string range;  // the height range as "name=value" lines, however the format keeps it
};

FileContents ReadWithOiio(const fs::path& path) {
  FileContents contents;
  OIIO::ImageSpec config;  // the stored values, not ones multiplied by alpha
  config.attribute("oiio:UnassociatedAlpha", 1);
  auto input = OIIO::ImageInput::open(path.string(), &config);
  EXPECT_TRUE(input) << OIIO::geterror();
  if (!input) return contents;
  const OIIO::ImageSpec& layout = input->spec();
  // TIFF keeps the range in its description, the other formats as named attributes.
  std::string range(layout.get_string_attribute("ImageDescription"));
  for (const std::string name : {"Vellgrund:HeightMinimum", "Vellgrund:HeightMaximum"})
    if (layout.find_attribute(name))
      range += (range.empty() ? "" : "\n") + name + "=" + std::string(layout.get_string_attribute(name));
  contents = {layout.width, layout.height, layout.nchannels, layout.format, {}, range};
  contents.values.resize(static_cast<std::size_t>(layout.width) * static_cast<std::size_t>(layout.height) *
                         static_cast<std::size_t>(layout.nchannels));
  EXPECT_TRUE(input->read_image(0, 0, 0, layout.nchannels, OIIO::TypeDesc::FLOAT, contents.values.data()));
  return contents;
}

std::size_t EntryCount(const fs::path& folder) {
  return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

// An image whose samples all differ, from `value(x, y, channel)`.
template <class F>
Image MakeImage(Int width, Int height, int channels, PixelType type, F value) {
  Result<Image> image = Image::Create(width, height, channels, type);
  EXPECT_TRUE(image) << image.error().message;
  if (!image) return {};
  for (Int y = 0; y < height; ++y)
    for (Int x = 0; x < width; ++x) {
      std::vector<Float> pixel;
      for (int c = 0; c < channels; ++c) pixel.push_back(value(x, y, c));
      EXPECT_TRUE(image->SetPixel(x, y, pixel));
    }
  return std::move(*image);
}

Image Blank(Int width, Int height, int channels, PixelType type) {
  return MakeImage(width, height, channels, type, [](Int, Int, int) { return 0.0; });
}

TEST(ImageTest, CreateValidatesAndPixelsClampTruncateAndStayInside) {
  Result<Image> image = Image::Create(3, 2, 4, PixelType::UInt16);
  ASSERT_TRUE(image);
  EXPECT_EQ(image->Bytes().size(), 3u * 2u * 4u * 2u);
  for (const std::byte b : image->Bytes()) EXPECT_EQ(b, std::byte{0});
  EXPECT_TRUE(Image::Create(0, 0, 1, PixelType::UInt8));
  // A byte count that overflows must not wrap around to a small allocation.
  const Int huge = std::numeric_limits<Int>::max() / 2;
  for (const auto& [width, height, channels, kind] :
       std::vector<std::tuple<Int, Int, int, ErrorKind>>{{-1, 1, 1, ErrorKind::IllegalArgument},
                                                         {1, -1, 1, ErrorKind::IllegalArgument},
                                                         {1, 1, 0, ErrorKind::IllegalArgument},
                                                         {1, 1, 5, ErrorKind::IllegalArgument},
                                                         {huge, 4, 4, ErrorKind::OutOfMemory},
                                                         {4, huge, 4, ErrorKind::OutOfMemory},
                                                         {Int{1} << 32, Int{1} << 32, 4, ErrorKind::OutOfMemory}}) {
    Result<Image> refused = Image::Create(width, height, channels, PixelType::Float32);
    ASSERT_FALSE(refused) << width << "x" << height << "x" << channels;
    EXPECT_EQ(refused.error().kind, kind);
  }

  // Integer types clamp, truncate and read NaN as 0; floats keep what they get.
  for (const auto& [type, in, out] : std::vector<std::tuple<PixelType, std::vector<Float>, std::vector<Float>>>{
           {PixelType::UInt8, {300.0, -5.0, 12.9, std::nan("")}, {255.0, 0.0, 12.0, 0.0}},
           {PixelType::UInt8, {255.0, 254.999, 0.999, 1.0}, {255.0, 254.0, 0.0, 1.0}},
           {PixelType::UInt16, {70000.0, -1.0, 65534.99, 3.0}, {65535.0, 0.0, 65534.0, 3.0}},
           {PixelType::Float32, {-7.25, 1e6, 0.5, 2.0}, {-7.25, 1e6, 0.5, 2.0}}}) {
    Image pixels = Blank(2, 2, 4, type);
    ASSERT_TRUE(pixels.SetPixel(1, 0, in));
    for (int c = 0; c < 4; ++c) EXPECT_EQ(pixels.GetPixel(1, 0, c), out[static_cast<std::size_t>(c)]) << c;
  }
  // Interleaved, row-major, row 0 first.
  Image bytes = MakeImage(2, 2, 1, PixelType::UInt8, [](Int x, Int y, int) { return Float(10 * x + 100 * y); });
  EXPECT_EQ(bytes.Bytes()[3], std::byte{110});

  // Refused writes and reads outside leave the image as it was.
  Image untouched = Blank(2, 2, 1, PixelType::UInt8);
  const std::vector<Float> one{9.0}, two{9.0, 9.0};
  for (const auto& [x, y] : {std::pair<Int, Int>{-1, 0}, {0, -1}, {2, 0}, {0, 2}})
    EXPECT_FALSE(untouched.SetPixel(x, y, one));
  EXPECT_FALSE(untouched.SetPixel(0, 0, two));
  for (const std::byte b : untouched.Bytes()) EXPECT_EQ(b, std::byte{0});
  for (const auto& [x, y, c] : {std::tuple<Int, Int, int>{2, 0, 0}, {0, 2, 0}, {-1, 0, 0}, {0, 0, 1}, {0, 0, -1}})
    EXPECT_EQ(bytes.GetPixel(x, y, c), 0.0);
}

// Each format and type goes out with the values OpenImageIO reads and the height range of a
// build as metadata, and comes back through ReadImage with its type and bytes; only the
// written files are left, no temporaries.
TEST(ImageTest, FilesHoldExactValuesAndReadBack) {
  TempDir dir;
  const Image rgb = MakeImage(3, 2, 3, PixelType::UInt8, [](Int x, Int y, int c) { return Float(80 * x + 7 * y + c); });
  const Image heights = MakeImage(4, 3, 1, PixelType::Float32,
                                  [](Int x, Int y, int) { return double(float(1.5 * Float(x) - 1000.25 * Float(y))); });
  // Colour channels above alpha: any multiplying or dividing by alpha shows.
  const Image rgba = MakeImage(2, 3, 4, PixelType::UInt8,
                               [](Int x, Int y, int c) { return c == 3 ? 10.0 * Float(x + y) : 200.0 + x; });
  const Image words =
      MakeImage(3, 2, 2, PixelType::UInt16, [](Int x, Int y, int c) { return Float(c ? 65535 - y : 12345 * x); });
  const std::vector<ImageAttribute> range = {{"Vellgrund:HeightMinimum", "-12.5"}, {"Vellgrund:HeightMaximum", "80"}};
  for (const auto& [image, name, format] : std::vector<std::tuple<const Image*, const char*, OIIO::TypeDesc>>{
           {&rgb, "rgb.TIF", OIIO::TypeDesc::UINT8},
           {&heights, "heights.tiff", OIIO::TypeDesc::FLOAT},
           {&heights, "heights.exr", OIIO::TypeDesc::FLOAT},
           {&rgba, "rgba.png", OIIO::TypeDesc::UINT8},
           {&rgba, "rgba.tif", OIIO::TypeDesc::UINT8},
           {&words, "words.png", OIIO::TypeDesc::UINT16}}) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(WriteImage(*image, dir.File(name), {}, {}, range));
    const FileContents file = ReadWithOiio(dir.File(name));
    EXPECT_EQ(file.range, "Vellgrund:HeightMinimum=-12.5\nVellgrund:HeightMaximum=80");
    EXPECT_EQ(std::tuple(file.width, file.height, file.channels, file.format),
              std::tuple(int(image->Width()), int(image->Height()), image->Channels(), format));
    const float scale = format == OIIO::TypeDesc::UINT8 ? 255.0f : format == OIIO::TypeDesc::UINT16 ? 65535.0f : 1.0f;
    for (Int y = 0, k = 0; y < image->Height(); ++y)
      for (Int x = 0; x < image->Width(); ++x)
        for (int c = 0; c < image->Channels(); ++c, ++k)
          ASSERT_NEAR(file.values[std::size_t(k)] * scale, image->GetPixel(x, y, c), 1e-3) << x << "," << y << "," << c;
    Result<Image> read = ReadImage(dir.File(name));
    ASSERT_TRUE(read) << read.error().message;
    EXPECT_EQ(std::tuple(read->Width(), read->Height(), read->Channels(), read->Type()),
              std::tuple(image->Width(), image->Height(), image->Channels(), image->Type()));
    EXPECT_TRUE(std::ranges::equal(read->Bytes(), image->Bytes()));
  }

  // Conversions on the way out: bytes to 0 .. 1 floats, floats clamped to 0 .. 1 words.
  const Image grey = MakeImage(2, 1, 1, PixelType::UInt8, [](Int x, Int, int) { return x ? 51.0 : 255.0; });
  ASSERT_TRUE(WriteImage(grey, dir.File("grey.exr"), PixelType::Float32));
  const FileContents greyFile = ReadWithOiio(dir.File("grey.exr"));
  ASSERT_EQ(greyFile.values.size(), 2u);
  EXPECT_FLOAT_EQ(greyFile.values[0], 1.0f);
  EXPECT_FLOAT_EQ(greyFile.values[1], 0.2f);
  const Image wide =
      MakeImage(3, 1, 1, PixelType::Float32, [](Int x, Int, int) { return x == 0 ? -2.0 : x * 0.25 + 4.5 * (x == 1); });
  ASSERT_TRUE(WriteImage(wide, dir.File("clamped.png"), PixelType::UInt16));
  const FileContents clamped = ReadWithOiio(dir.File("clamped.png"));
  EXPECT_EQ(clamped.format, OIIO::TypeDesc::UINT16);
  EXPECT_EQ(clamped.values[0], 0.0f);
  EXPECT_EQ(clamped.values[1], 1.0f);
  EXPECT_NEAR(clamped.values[2], 0.5f, 1.0 / 65535.0);
  EXPECT_EQ(EntryCount(dir.Path()), 8u);

  // What is no image, or is not there, is refused with the file named.
  std::ofstream(dir.File("text.png")) << "no pixels here";
  for (const char* name : {"missing.png", "text.png"}) {
    Result<Image> refused = ReadImage(dir.File(name));
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().message.find(name), std::string::npos) << refused.error().message;
  }
}

TEST(ImageTest, RefusedWritesLeaveNothingBehind) {
  TempDir dir;
  const Image bytes = Blank(2, 2, 3, PixelType::UInt8);
  const Image floats = Blank(2, 2, 1, PixelType::Float32);
  const Image empty = Blank(0, 3, 1, PixelType::UInt8);
  // Unknown endings name the supported ones; PNG holds no floats and EXR no integers.
  for (const auto& [image, name, type, named] :
       std::vector<std::tuple<const Image*, const char*, std::optional<PixelType>, std::vector<std::string>>>{
           {&bytes, "picture.bmp", {}, {".bmp", ".tif", ".tiff", ".exr", ".png"}},
           {&bytes, "picture", {}, {}},
           {&floats, "floats.png", {}, {}},
           {&bytes, "asked.png", PixelType::Float32, {}},
           {&bytes, "bytes.exr", {}, {}},
           {&floats, "asked.exr", PixelType::UInt16, {}},
           {&empty, "empty.tif", {}, {}}}) {
    const Status refused = WriteImage(*image, dir.File(name), type);
    ASSERT_FALSE(refused) << name;
    EXPECT_EQ(refused.error().kind, ErrorKind::IllegalArgument) << name;
    for (const std::string& text : named) EXPECT_NE(refused.error().message.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(EntryCount(dir.Path()), 0u);

  // A folder that does not exist, and a folder in the way of the finished file: the error
  // names the target, and the temporary goes again.
  const fs::path blocked = dir.File("blocked.tif");
  fs::create_directories(blocked / "inside");
  for (const fs::path& target : {dir.File("no-such-folder") / "picture.tif", blocked}) {
    const Status refused = WriteImage(bytes, target);
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().message.find(target.string()), std::string::npos) << refused.error().message;
    EXPECT_EQ(refused.error().message.find(".partial"), std::string::npos) << refused.error().message;
  }
  EXPECT_EQ(EntryCount(dir.Path()), 1u);

  // An existing target under a failing write stays as it was.
  const auto existing = dir.File("existing.png");
  ASSERT_TRUE(WriteImage(bytes, existing));
  const std::string before = testing_support::ReadFileBytes(existing);
  EXPECT_FALSE(WriteImage(floats, existing));
  EXPECT_EQ(testing_support::ReadFileBytes(existing), before);
  EXPECT_EQ(EntryCount(dir.Path()), 2u);
}

}  // namespace
}  // namespace platform
