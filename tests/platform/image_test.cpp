#include "platform/image.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/resource.h>

#include <csignal>

#include <OpenImageIO/imageio.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace platform {
namespace {

using testing_support::TempDir;

// What OpenImageIO itself finds in a file, independent of our reader.
struct FileContents {
  int width = 0;
  int height = 0;
  int channels = 0;
  OIIO::TypeDesc format;
  std::vector<float> values;  // converted to float by OpenImageIO
  std::vector<std::uint8_t> bytes8;
  std::vector<std::uint16_t> bytes16;
};

FileContents ReadWithOiio(const std::filesystem::path& path) {
  FileContents contents;
  OIIO::ImageSpec config;  // the stored values, not ones multiplied by alpha
  config.attribute("oiio:UnassociatedAlpha", 1);
  auto input = OIIO::ImageInput::open(path.string(), &config);
  EXPECT_TRUE(input) << OIIO::geterror();
  if (!input) return contents;
  const OIIO::ImageSpec& description = input->spec();
  contents.width = description.width;
  contents.height = description.height;
  contents.channels = description.nchannels;
  contents.format = description.format;
  const auto count = static_cast<std::size_t>(description.width) * static_cast<std::size_t>(description.height) *
                     static_cast<std::size_t>(description.nchannels);
  contents.values.resize(count);
  EXPECT_TRUE(input->read_image(0, 0, 0, description.nchannels, OIIO::TypeDesc::FLOAT, contents.values.data()));
  if (description.format == OIIO::TypeDesc::UINT8) {
    contents.bytes8.resize(count);
    EXPECT_TRUE(input->read_image(0, 0, 0, description.nchannels, OIIO::TypeDesc::UINT8, contents.bytes8.data()));
  }
  if (description.format == OIIO::TypeDesc::UINT16) {
    contents.bytes16.resize(count);
    EXPECT_TRUE(input->read_image(0, 0, 0, description.nchannels, OIIO::TypeDesc::UINT16, contents.bytes16.data()));
  }
  input->close();
  return contents;
}

std::vector<std::filesystem::path> Entries(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> entries;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) entries.push_back(entry.path());
  return entries;
}

Image MakeImage(Int width, Int height, int channels, PixelType type) {
  Result<Image> image = Image::Create(width, height, channels, type);
  EXPECT_TRUE(image) << image.error().message;
  return image ? std::move(*image) : Image{};
}

TEST(ImageTest, CreateValidatesAndStartsBlack) {
  Result<Image> image = Image::Create(3, 2, 4, PixelType::UInt16);
  ASSERT_TRUE(image);
  EXPECT_EQ(image->Width(), 3);
  EXPECT_EQ(image->Height(), 2);
  EXPECT_EQ(image->Channels(), 4);
  EXPECT_EQ(image->Type(), PixelType::UInt16);
  EXPECT_EQ(image->Bytes().size(), 3u * 2u * 4u * 2u);
  for (const std::byte b : image->Bytes()) EXPECT_EQ(b, std::byte{0});

  EXPECT_TRUE(Image::Create(0, 0, 1, PixelType::UInt8));
  for (const auto& [width, height, channels] :
       std::vector<std::tuple<Int, Int, int>>{{-1, 1, 1}, {1, -1, 1}, {1, 1, 0}, {1, 1, 5}, {1, 1, -3}}) {
    Result<Image> refused = Image::Create(width, height, channels, PixelType::Float32);
    ASSERT_FALSE(refused) << width << "x" << height << "x" << channels;
    EXPECT_EQ(refused.error().kind, ErrorKind::IllegalArgument);
  }
  // A byte count that overflows must not wrap around to a small allocation.
  const Int huge = std::numeric_limits<Int>::max() / 2;
  for (const auto& [width, height] :
       std::vector<std::pair<Int, Int>>{{huge, 4}, {4, huge}, {Int{1} << 32, Int{1} << 32}}) {
    Result<Image> refused = Image::Create(width, height, 4, PixelType::Float32);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().kind, ErrorKind::OutOfMemory);
  }
}

TEST(ImageTest, SetPixelClampsTruncatesAndRefusesOutsidePixels) {
  Image bytes = MakeImage(2, 2, 4, PixelType::UInt8);
  const std::vector<Float> byteValues{300.0, -5.0, 12.9, std::nan("")};
  ASSERT_TRUE(bytes.SetPixel(1, 0, byteValues));
  EXPECT_EQ(bytes.GetPixel(1, 0, 0), 255.0);
  EXPECT_EQ(bytes.GetPixel(1, 0, 1), 0.0);
  EXPECT_EQ(bytes.GetPixel(1, 0, 2), 12.0);
  EXPECT_EQ(bytes.GetPixel(1, 0, 3), 0.0);
  const std::vector<Float> edges{255.0, 254.999, 0.999, 1.0};
  ASSERT_TRUE(bytes.SetPixel(0, 1, edges));
  EXPECT_EQ(bytes.GetPixel(0, 1, 0), 255.0);
  EXPECT_EQ(bytes.GetPixel(0, 1, 1), 254.0);
  EXPECT_EQ(bytes.GetPixel(0, 1, 2), 0.0);
  EXPECT_EQ(bytes.GetPixel(0, 1, 3), 1.0);
  // Interleaved, row-major, row 0 first.
  EXPECT_EQ(bytes.Bytes()[4], std::byte{255});
  EXPECT_EQ(bytes.Bytes()[2 * 4 * 1 + 1], std::byte{254});

  Image words = MakeImage(2, 1, 3, PixelType::UInt16);
  const std::vector<Float> wordValues{70000.0, -1.0, 65534.99};
  ASSERT_TRUE(words.SetPixel(0, 0, wordValues));
  EXPECT_EQ(words.GetPixel(0, 0, 0), 65535.0);
  EXPECT_EQ(words.GetPixel(0, 0, 1), 0.0);
  EXPECT_EQ(words.GetPixel(0, 0, 2), 65534.0);

  Image floats = MakeImage(1, 1, 2, PixelType::Float32);
  const std::vector<Float> floatValues{-7.25, 1e6};
  ASSERT_TRUE(floats.SetPixel(0, 0, floatValues));
  EXPECT_EQ(floats.GetPixel(0, 0, 0), -7.25);
  EXPECT_EQ(floats.GetPixel(0, 0, 1), 1e6);

  // Refused writes leave the image as it was.
  Image untouched = MakeImage(2, 2, 1, PixelType::UInt8);
  const std::vector<Float> one{9.0};
  const std::vector<Float> two{9.0, 9.0};
  for (const auto& [x, y] : {std::pair<Int, Int>{-1, 0}, {0, -1}, {2, 0}, {0, 2}})
    EXPECT_FALSE(untouched.SetPixel(x, y, one));
  EXPECT_FALSE(untouched.SetPixel(0, 0, two));
  for (const std::byte b : untouched.Bytes()) EXPECT_EQ(b, std::byte{0});
  for (const auto& [x, y, c] : {std::tuple<Int, Int, int>{1, 0, 0}, {0, 1, 0}, {-1, 0, 0}, {0, 0, 2}, {0, 0, -1}})
    EXPECT_EQ(floats.GetPixel(x, y, c), 0.0);
}

TEST(ImageTest, WritesTiffPngAndExrWithExactValues) {
  TempDir dir;

  // 8-bit RGB TIFF, with an upper-case ending.
  Image rgb = MakeImage(3, 2, 3, PixelType::UInt8);
  for (Int y = 0; y < 2; ++y)
    for (Int x = 0; x < 3; ++x) {
      const std::vector<Float> value{Float(x * 80), Float(y * 200), Float(10 + x + 3 * y)};
      ASSERT_TRUE(rgb.SetPixel(x, y, value));
    }
  const auto rgbPath = dir.File("rgb.TIF");
  ASSERT_TRUE(WriteImage(rgb, rgbPath));
  FileContents rgbFile = ReadWithOiio(rgbPath);
  EXPECT_EQ(std::tuple(rgbFile.width, rgbFile.height, rgbFile.channels), std::tuple(3, 2, 3));
  EXPECT_EQ(rgbFile.format, OIIO::TypeDesc::UINT8);
  ASSERT_EQ(rgbFile.bytes8.size(), 18u);
  for (std::size_t i = 0; i < 18; ++i) EXPECT_EQ(rgbFile.bytes8[i], static_cast<std::uint8_t>(rgb.Bytes()[i])) << i;
  EXPECT_EQ(rgbFile.bytes8[(1 * 3 + 2) * 3 + 2], 10 + 2 + 3);

  // 32-bit float TIFF, one channel, values outside 0 .. 1 kept.
  Image heights = MakeImage(4, 3, 1, PixelType::Float32);
  std::vector<float> expected;
  for (Int y = 0; y < 3; ++y)
    for (Int x = 0; x < 4; ++x) {
      const float value = static_cast<float>(x) * 1.5f - static_cast<float>(y) * 1000.25f + 0.1f;
      expected.push_back(value);
      const std::vector<Float> values{static_cast<Float>(value)};
      ASSERT_TRUE(heights.SetPixel(x, y, values));
    }
  const auto heightPath = dir.File("heights.tiff");
  ASSERT_TRUE(WriteImage(heights, heightPath));
  FileContents heightFile = ReadWithOiio(heightPath);
  EXPECT_EQ(std::tuple(heightFile.width, heightFile.height, heightFile.channels), std::tuple(4, 3, 1));
  EXPECT_EQ(heightFile.format, OIIO::TypeDesc::FLOAT);
  EXPECT_EQ(heightFile.values, expected);

  // OpenEXR from a float image, and from a byte image as 0 .. 1 floats.
  Image colour = MakeImage(2, 2, 4, PixelType::Float32);
  const std::vector<Float> pixel{-3.5, 0.125, 42.0, 0.5};  // a last channel below 1 scales nothing
  ASSERT_TRUE(colour.SetPixel(1, 1, pixel));
  const auto exrPath = dir.File("colour.exr");
  ASSERT_TRUE(WriteImage(colour, exrPath));
  FileContents exrFile = ReadWithOiio(exrPath);
  EXPECT_EQ(std::tuple(exrFile.width, exrFile.height, exrFile.channels), std::tuple(2, 2, 4));
  EXPECT_EQ(exrFile.format, OIIO::TypeDesc::FLOAT);
  ASSERT_EQ(exrFile.values.size(), 16u);
  std::vector<float> exrExpected(12, 0.0f);
  exrExpected.insert(exrExpected.end(), {-3.5f, 0.125f, 42.0f, 0.5f});
  EXPECT_EQ(exrFile.values, exrExpected);

  Image grey = MakeImage(2, 1, 1, PixelType::UInt8);
  const std::vector<Float> white{255.0};
  const std::vector<Float> fifth{51.0};
  ASSERT_TRUE(grey.SetPixel(0, 0, white));
  ASSERT_TRUE(grey.SetPixel(1, 0, fifth));
  const auto greyExrPath = dir.File("grey.exr");
  ASSERT_TRUE(WriteImage(grey, greyExrPath, PixelType::Float32));
  FileContents greyFile = ReadWithOiio(greyExrPath);
  EXPECT_EQ(greyFile.format, OIIO::TypeDesc::FLOAT);
  ASSERT_EQ(greyFile.values.size(), 2u);
  EXPECT_FLOAT_EQ(greyFile.values[0], 1.0f);
  EXPECT_FLOAT_EQ(greyFile.values[1], 0.2f);

  // 16-bit PNG, two channels: the second is stored as alpha, yet the first keeps its values.
  Image words = MakeImage(3, 1, 2, PixelType::UInt16);
  const std::vector<std::vector<Float>> wordPixels{{0.0, 65535.0}, {12345.0, 1.0}, {65534.0, 32768.0}};
  for (Int x = 0; x < 3; ++x) ASSERT_TRUE(words.SetPixel(x, 0, wordPixels[static_cast<std::size_t>(x)]));
  const auto pngPath = dir.File("words.png");
  ASSERT_TRUE(WriteImage(words, pngPath));
  FileContents pngFile = ReadWithOiio(pngPath);
  EXPECT_EQ(std::tuple(pngFile.width, pngFile.height, pngFile.channels), std::tuple(3, 1, 2));
  EXPECT_EQ(pngFile.format, OIIO::TypeDesc::UINT16);
  EXPECT_EQ(pngFile.bytes16, (std::vector<std::uint16_t>{0, 65535, 12345, 1, 65534, 32768}));

  // A float image in a 16-bit file is clamped to 0 .. 1 first.
  Image wide = MakeImage(3, 1, 1, PixelType::Float32);
  for (Int x = 0; x < 3; ++x) {
    const std::vector<Float> value{x == 0 ? -2.0 : x == 1 ? 5.0 : 0.5};
    ASSERT_TRUE(wide.SetPixel(x, 0, value));
  }
  const auto clampedPath = dir.File("clamped.png");
  ASSERT_TRUE(WriteImage(wide, clampedPath, PixelType::UInt16));
  FileContents clampedFile = ReadWithOiio(clampedPath);
  ASSERT_EQ(clampedFile.bytes16.size(), 3u);
  EXPECT_EQ(clampedFile.bytes16[0], 0);
  EXPECT_EQ(clampedFile.bytes16[1], 65535);
  EXPECT_NEAR(clampedFile.bytes16[2], 32767.5, 1.0);

  // Only the written files are left, no temporaries.
  EXPECT_EQ(Entries(dir.Path()).size(), 6u);
}

TEST(ImageTest, ReadImageKeepsTypeAndValues) {
  TempDir dir;
  Image words = MakeImage(2, 3, 3, PixelType::UInt16);
  Image floats = MakeImage(2, 3, 1, PixelType::Float32);
  Image rgba = MakeImage(2, 3, 4, PixelType::UInt8);
  for (Int y = 0; y < 3; ++y)
    for (Int x = 0; x < 2; ++x) {
      const std::vector<Float> word{Float(x * 1000 + y), Float(65535 - y), Float(x)};
      const std::vector<Float> value{Float(x) * 0.75 - Float(y) * 8.0};
      ASSERT_TRUE(words.SetPixel(x, y, word));
      ASSERT_TRUE(floats.SetPixel(x, y, value));
      const std::vector<Float> colour{Float(200 + x), Float(100 * y), 255.0, Float(10 * (x + y))};
      ASSERT_TRUE(rgba.SetPixel(x, y, colour));
    }
  const auto check = [](const Image& written, const std::filesystem::path& path) {
    Result<Image> read = ReadImage(path);
    ASSERT_TRUE(read) << read.error().message;
    EXPECT_EQ(read->Width(), written.Width());
    EXPECT_EQ(read->Height(), written.Height());
    EXPECT_EQ(read->Channels(), written.Channels());
    EXPECT_EQ(read->Type(), written.Type());
    ASSERT_EQ(read->Bytes().size(), written.Bytes().size());
    EXPECT_TRUE(std::equal(read->Bytes().begin(), read->Bytes().end(), written.Bytes().begin())) << path;
  };
  // rgba has colour channels above its alpha channel: any multiplying or dividing by alpha shows.
  for (const auto& [image, name] : {std::pair{&words, "words.png"},
                                    {&words, "words.tif"},
                                    {&floats, "floats.exr"},
                                    {&rgba, "rgba.png"},
                                    {&rgba, "rgba.tif"}}) {
    ASSERT_TRUE(WriteImage(*image, dir.File(name)));
    check(*image, dir.File(name));
  }

  Result<Image> missing = ReadImage(dir.File("missing.png"));
  ASSERT_FALSE(missing);
  EXPECT_NE(missing.error().message.find("missing.png"), std::string::npos) << missing.error().message;

  // Not an image at all.
  std::ofstream(dir.File("text.png")) << "no pixels here";
  Result<Image> text = ReadImage(dir.File("text.png"));
  ASSERT_FALSE(text);
  EXPECT_NE(text.error().message.find("text.png"), std::string::npos) << text.error().message;
}

TEST(ImageTest, RefusedWritesLeaveNothingBehind) {
  TempDir dir;
  Image bytes = MakeImage(2, 2, 3, PixelType::UInt8);
  Image floats = MakeImage(2, 2, 1, PixelType::Float32);

  Status badEnding = WriteImage(bytes, dir.File("picture.bmp"));
  ASSERT_FALSE(badEnding);
  EXPECT_EQ(badEnding.error().kind, ErrorKind::IllegalArgument);
  EXPECT_NE(badEnding.error().message.find(".bmp"), std::string::npos) << badEnding.error().message;
  for (const char* supported : {".tif", ".tiff", ".exr", ".png"})
    EXPECT_NE(badEnding.error().message.find(supported), std::string::npos) << badEnding.error().message;

  Status noEnding = WriteImage(bytes, dir.File("picture"));
  ASSERT_FALSE(noEnding);
  EXPECT_EQ(noEnding.error().kind, ErrorKind::IllegalArgument);

  Status floatPng = WriteImage(floats, dir.File("floats.png"));
  ASSERT_FALSE(floatPng);
  EXPECT_EQ(floatPng.error().kind, ErrorKind::IllegalArgument);
  Status floatPngAsked = WriteImage(bytes, dir.File("asked.png"), PixelType::Float32);
  ASSERT_FALSE(floatPngAsked);

  Status integerExr = WriteImage(bytes, dir.File("bytes.exr"));
  ASSERT_FALSE(integerExr);
  EXPECT_EQ(integerExr.error().kind, ErrorKind::IllegalArgument);
  Status integerExrAsked = WriteImage(floats, dir.File("asked.exr"), PixelType::UInt16);
  ASSERT_FALSE(integerExrAsked);

  Image empty = MakeImage(0, 3, 1, PixelType::UInt8);
  EXPECT_FALSE(WriteImage(empty, dir.File("empty.tif")));

  EXPECT_TRUE(Entries(dir.Path()).empty());

  // A folder that does not exist: the error names the target, and no temporary appears.
  const auto nowhere = dir.File("no-such-folder") / "picture.tif";
  Status badPath = WriteImage(bytes, nowhere);
  ASSERT_FALSE(badPath);
  EXPECT_NE(badPath.error().message.find(nowhere.string()), std::string::npos) << badPath.error().message;
  EXPECT_EQ(badPath.error().message.find(".partial"), std::string::npos) << badPath.error().message;
  EXPECT_TRUE(Entries(dir.Path()).empty());

  // An existing target under a failing write stays as it was.
  const auto existing = dir.File("existing.png");
  ASSERT_TRUE(WriteImage(bytes, existing));
  const auto before = std::filesystem::file_size(existing);
  EXPECT_FALSE(WriteImage(floats, existing));
  EXPECT_EQ(std::filesystem::file_size(existing), before);
  EXPECT_EQ(Entries(dir.Path()).size(), 1u);

  // The pixels are written but cannot be moved onto the target (a folder in the way): the
  // temporary file goes again.
  const auto blocked = dir.File("blocked.tif");
  std::filesystem::create_directories(blocked / "inside");
  Status blockedWrite = WriteImage(bytes, blocked);
  ASSERT_FALSE(blockedWrite);
  EXPECT_NE(blockedWrite.error().message.find(blocked.string()), std::string::npos) << blockedWrite.error().message;
  EXPECT_EQ(Entries(dir.Path()).size(), 2u);
  EXPECT_TRUE(std::filesystem::is_directory(blocked));
}

// The height map of a build goes out with its range as metadata, a full disk or a break
// stop the write with the reason and leave the earlier file, and each format reads back.
TEST(ImageFileTest, AttributesFullDisksAndBreaks) {
  TempDir dir;
  Image heights = MakeImage(300, 200, 1, PixelType::Float32);
  for (Int y = 0; y < 200; ++y)
    for (Int x = 0; x < 300; ++x) {
      const Float value = 0.5 + 0.5 * std::sin(0.37 * static_cast<Float>(x) + 0.11 * static_cast<Float>(x * y % 97));
      ASSERT_TRUE(heights.SetPixel(x, y, std::vector<Float>{value}));
    }
  const std::vector<ImageAttribute> range = {{"Vellgrund:HeightMinimum", "-12.5"}, {"Vellgrund:HeightMaximum", "80"}};
  for (const char* name : {"h.png", "h.tif", "h.exr"}) {
    SCOPED_TRACE(name);
    const bool png = std::string(name).ends_with(".png");
    ASSERT_TRUE(WriteImage(heights, dir.File(name), png ? PixelType::UInt16 : PixelType::Float32, {}, range));
    std::unique_ptr<OIIO::ImageInput> input = OIIO::ImageInput::open(dir.File(name).string());
    ASSERT_TRUE(input);
    if (std::string(name).ends_with(".tif")) {
      EXPECT_EQ(input->spec().get_string_attribute("ImageDescription"),
                "Vellgrund:HeightMinimum=-12.5\nVellgrund:HeightMaximum=80");
    } else {
      EXPECT_EQ(input->spec().get_string_attribute("Vellgrund:HeightMinimum"), "-12.5");
      EXPECT_EQ(input->spec().get_string_attribute("Vellgrund:HeightMaximum"), "80");
    }
  }
  const std::string earlier = testing_support::ReadFileBytes(dir.File("h.png"));

  // A file size limit stands in for a full disk: some encoders do not notice a failed write
  // of their own, so this is where a cut file would be reported as written.
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit small = old;
  small.rlim_cur = 4096;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const Status full = WriteImage(heights, dir.File("h.png"), PixelType::UInt16);
  setrlimit(RLIMIT_FSIZE, &old);
  std::signal(SIGXFSZ, oldHandler);
  ASSERT_FALSE(full);
  EXPECT_NE(full.error().message.find("File too large"), std::string::npos) << full.error().message;

  CancellationToken cancel;
  cancel.Cancel();
  const Status cancelled = WriteImage(heights, dir.File("h.png"), PixelType::UInt16, {&cancel, nullptr});
  ASSERT_FALSE(cancelled);
  EXPECT_EQ(cancelled.error().kind, ErrorKind::Cancelled);
  EXPECT_EQ(testing_support::ReadFileBytes(dir.File("h.png")), earlier);
  EXPECT_EQ(Entries(dir.Path()).size(), 3u);
}

}  // namespace
}  // namespace platform
