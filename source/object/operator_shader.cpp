#include "object/operator_shader.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <system_error>

#include "common/vlgd_geotiff.h"
#include "common/vlgd_icons.h"
#include "platform/file_output.h"
#include "platform/image.h"
#include "platform/memory.h"
#include "platform/parallel.h"
#include "platform/parameter_reader.h"
#include "platform/strings.h"
#include "vellgrund/distortion.h"

namespace VLGD {
namespace {

using platform::ValueType;

Float InverseOrZero(Float value) {
  return value != 0.0 ? 1.0 / value : 0.0;
}

std::string Quoted(const std::filesystem::path& path) {
  // Appended piece by piece: "literal" + string trips a false -Wrestrict in GCC 12.
  std::string text(1, '"');
  text += platform::Excerpt(path.string(), 200);
  text += '"';
  return text;
}

platform::Error LoadError(const std::filesystem::path& path, std::string_view why,
                          platform::ErrorKind kind = platform::ErrorKind::Generic) {
  std::string message = "Could not load image " + Quoted(path) + ": ";
  message += why;
  if (!message.ends_with('!')) message += '!';
  return platform::Error{kind, std::move(message)};
}

// Files the image library reads; everything else goes to GDAL, which also reads plain TIFF.
bool IsImageEnding(std::string_view ending) {
  constexpr std::array<std::string_view, 10> kEndings = {".png", ".exr", ".jpg", ".jpeg", ".bmp",
                                                         ".tga", ".hdr", ".psd", ".gif",  ".webp"};
  return std::ranges::find(kEndings, ending) != kEndings.end();
}

constexpr Float kLuminance[3] = {0.2126, 0.7152, 0.0722};

// The channel to read of `channels`, or -1 for the weighted luminance of the first three.
Result<int> ChannelIndex(SHADEROPERATORCHANNEL channel, int channels, const std::filesystem::path& path) {
  // A greyscale picture (with or without alpha) answers every colour with its grey.
  const bool grey = channels <= 2;
  switch (channel) {
    case SHADEROPERATORCHANNEL::RED:
      return 0;
    case SHADEROPERATORCHANNEL::GREEN:
      return grey ? 0 : 1;
    case SHADEROPERATORCHANNEL::BLUE:
      return grey ? 0 : 2;
    case SHADEROPERATORCHANNEL::LUMINANCE:
      return grey ? 0 : -1;
    case SHADEROPERATORCHANNEL::ALPHA:
      if (channels == 2 || channels == 4) return channels - 1;
      return std::unexpected(LoadError(path, "it has no alpha channel (" + std::to_string(channels) + " channels)",
                                       platform::ErrorKind::IllegalArgument));
  }
  return std::unexpected(LoadError(path, "unknown channel " + std::to_string(static_cast<Int32>(channel)),
                                   platform::ErrorKind::IllegalArgument));
}

template <class T>
Float ReadAs(const std::byte* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return static_cast<Float>(value);
}

// One channel of a decoded image into floats, row by row.
Status FromImage(const platform::Image& image, int channel, HeightPicture& picture,
                 const platform::CancellationToken* cancel) {
  const Int width = image.Width();
  const int channels = image.Channels();
  const std::size_t size = platform::PixelTypeSize(image.Type());
  const std::byte* bytes = image.Bytes().data();
  float* out = picture.samples.data();
  const platform::PixelType type = image.Type();
  const auto read = [type](const std::byte* at) {
    switch (type) {
      case platform::PixelType::UInt8:
        return ReadAs<std::uint8_t>(at);
      case platform::PixelType::UInt16:
        return ReadAs<std::uint16_t>(at);
      case platform::PixelType::Float32:
        return ReadAs<float>(at);
    }
    return 0.0;
  };
  platform::ParallelOptions rows{.granularity = 16, .cancel = cancel, .cancelMessage = "Loading an image cancelled!"};
  return platform::ParallelFor(0, image.Height(), rows, [&](Int y) {
    for (Int x = 0; x < width; ++x) {
      const std::byte* pixel = bytes + static_cast<std::size_t>((y * width + x) * channels) * size;
      Float value = 0.0;
      if (channel >= 0) {
        value = read(pixel + static_cast<std::size_t>(channel) * size);
      } else {
        for (int c = 0; c < 3; ++c) value += kLuminance[c] * read(pixel + static_cast<std::size_t>(c) * size);
      }
      out[y * width + x] = static_cast<float>(value);
    }
  });
}

struct ReadWatch {
  const platform::CancellationToken* cancel;
};

bool OnReadProgress(void* user, double) {
  return platform::TestBreak(static_cast<ReadWatch*>(user)->cancel);
}

// One band (or the luminance of the first three) of a raster through the GDAL codec.
Status FromRaster(const GeoCodec& codec, const std::filesystem::path& path, int bandCount, int channel,
                  HeightPicture& picture, const platform::CancellationToken* cancel) {
  ReadWatch watch{cancel};
  std::array<char, 1024> reason{};
  std::int64_t width = picture.width;
  std::int64_t height = picture.height;
  int bands = bandCount;
  const auto readBand = [&](int band, float* into) -> Status {
    const int outcome = codec.read(path.c_str(), band, into, &width, &height, &bands, OnReadProgress, &watch,
                                   reason.data(), reason.size());
    if (outcome == 2) return platform::CancelledError("Loading " + Quoted(path) + " cancelled!");
    if (outcome != 0) return std::unexpected(LoadError(path, reason.data()));
    if (width != picture.width || height != picture.height)
      return std::unexpected(LoadError(path, "the file changed while it was read"));
    return platform::Ok();
  };
  if (channel >= 0) return readBand(channel + 1, picture.samples.data());
  std::vector<float> band;
  VLGD_RETURN_IF_ERROR(platform::TryResize(band, static_cast<Int>(picture.samples.size())));
  std::vector<Float> sum;
  VLGD_RETURN_IF_ERROR(platform::TryResize(sum, static_cast<Int>(picture.samples.size())));
  for (int c = 0; c < 3; ++c) {
    VLGD_RETURN_IF_ERROR(readBand(c + 1, band.data()));
    for (std::size_t i = 0; i < band.size(); ++i) sum[i] += kLuminance[c] * static_cast<Float>(band[i]);
  }
  std::transform(sum.begin(), sum.end(), picture.samples.begin(), [](Float v) { return static_cast<float>(v); });
  return platform::Ok();
}

// The range of the samples with data, and whether any lacks it; rows in parallel, then
// folded in row order so that the result never depends on the thread count.
Status MeasureRange(HeightPicture& picture, const platform::CancellationToken* cancel) {
  struct RowRange {
    float minimum = std::numeric_limits<float>::infinity();
    float maximum = -std::numeric_limits<float>::infinity();
    bool noData = false;
  };
  std::vector<RowRange> rows;
  VLGD_RETURN_IF_ERROR(platform::TryResize(rows, picture.height));
  const float* samples = picture.samples.data();
  const Int width = picture.width;
  platform::ParallelOptions options{
      .granularity = 16, .cancel = cancel, .cancelMessage = "Loading an image cancelled!"};
  VLGD_RETURN_IF_ERROR(platform::ParallelFor(0, picture.height, options, [&](Int y) {
    RowRange& range = rows[static_cast<std::size_t>(y)];
    for (const float* s = samples + y * width; s != samples + (y + 1) * width; ++s) {
      if (std::isnan(*s)) {
        range.noData = true;
        continue;
      }
      range.minimum = std::min(range.minimum, *s);
      range.maximum = std::max(range.maximum, *s);
    }
  }));
  float minimum = std::numeric_limits<float>::infinity();
  float maximum = -std::numeric_limits<float>::infinity();
  for (const RowRange& range : rows) {
    minimum = std::min(minimum, range.minimum);
    maximum = std::max(maximum, range.maximum);
    picture.hasNoData = picture.hasNoData || range.noData;
  }
  picture.valid = minimum <= maximum;
  picture.minimum = picture.valid ? static_cast<Float>(minimum) : 0.0;
  picture.maximum = picture.valid ? static_cast<Float>(maximum) : 0.0;
  return platform::Ok();
}

Status SizePicture(HeightPicture& picture, Int width, Int height, const std::filesystem::path& path) {
  picture.width = width;
  picture.height = height;
  if (width <= 0 || height <= 0) return std::unexpected(LoadError(path, "the image is empty"));
  if (height > std::numeric_limits<Int>::max() / static_cast<Int>(sizeof(float)) / width)
    return std::unexpected(LoadError(path, "the image is too large", platform::ErrorKind::OutOfMemory));
  const platform::Status fits =
      platform::CheckMemory(platform::BytesFor(width * height, sizeof(float)), "The image " + Quoted(path));
  if (!fits) return std::unexpected(LoadError(path, fits.error().message, platform::ErrorKind::OutOfMemory));
  if (!platform::TryResize(picture.samples, width * height))
    return std::unexpected(LoadError(path, "out of memory", platform::ErrorKind::OutOfMemory));
  return platform::Ok();
}

Result<HeightPicture> LoadUnchecked(const std::filesystem::path& path, SHADEROPERATORCHANNEL channel,
                                    const platform::CancellationToken* cancel) {
  std::error_code error;
  if (!std::filesystem::exists(path, error)) return std::unexpected(LoadError(path, "the file does not exist"));
  if (std::filesystem::is_directory(path, error)) return std::unexpected(LoadError(path, "it is a folder, not a file"));
  HeightPicture picture;
  if (IsImageEnding(platform::LowerCaseEnding(path))) {
    Result<platform::Image> image = platform::ReadImage(path);
    if (!image) {
      // The reader names the file itself; keep only its reason.
      std::string why = image.error().message;
      if (const std::size_t at = why.find("\": "); why.starts_with("Could not read") && at != std::string::npos)
        why = why.substr(at + 3);
      return std::unexpected(LoadError(path, why, image.error().kind));
    }
    VLGD_ASSIGN_OR_RETURN(const int index, ChannelIndex(channel, image->Channels(), path));
    VLGD_RETURN_IF_ERROR(SizePicture(picture, image->Width(), image->Height(), path));
    VLGD_RETURN_IF_ERROR(FromImage(*image, index, picture, cancel));
  } else {
    Result<const GeoCodec*> codec = LoadGeoCodec();
    if (!codec) return std::unexpected(LoadError(path, codec.error().message));
    std::int64_t width = 0;
    std::int64_t height = 0;
    int bands = 0;
    std::array<char, 1024> reason{};
    if ((*codec)->read(path.c_str(), 0, nullptr, &width, &height, &bands, nullptr, nullptr, reason.data(),
                       reason.size()) != 0)
      return std::unexpected(LoadError(path, reason.data()));
    VLGD_ASSIGN_OR_RETURN(const int index, ChannelIndex(channel, bands, path));
    VLGD_RETURN_IF_ERROR(SizePicture(picture, width, height, path));
    VLGD_RETURN_IF_ERROR(FromRaster(**codec, path, bands, index, picture, cancel));
  }
  // Infinities are no heights either.
  for (float& sample : picture.samples)
    if (!std::isfinite(sample)) sample = std::numeric_limits<float>::quiet_NaN();
  VLGD_RETURN_IF_ERROR(MeasureRange(picture, cancel));
  return picture;
}

// ---- Sampling.

// Everything a row needs, read once per evaluation.
struct Sampler {
  const float* samples = nullptr;
  Int width = 0;
  Int height = 0;
  // Picture coordinates (columns, rows; integers at sample centres) of an operator-space
  // point: column = x * ax + bx, row = z * az + bz.
  Float ax = 0.0, bx = 0.0, az = 0.0, bz = 0.0;
  Float scale = 1.0, offset = 0.0;  // raw sample to result
  // The grid and the frame its points are read in.
  Int gridWidth = 0, gridHeight = 0;
  Float sizeX = 0.0, sizeY = 0.0;
  platform::Matrix frame;
  TerrainDistortion distortion;
};

// The picture coordinates along grid row y: the first sample's and the step per column.
struct RowLine {
  Float column0, row0, columnStep, rowStep;
};

RowLine LineOf(const Sampler& s, Int y) {
  const Vector first = platform::TransformPoint(s.frame, GridPoint(0, y, s.gridWidth, s.gridHeight, s.sizeX, s.sizeY));
  const Float stepX = s.gridWidth > 1 ? s.sizeX / static_cast<Float>(s.gridWidth - 1) : 0.0;
  const Vector step = platform::TransformDirection(s.frame, Vector(stepX, 0.0, 0.0));
  return {first.x * s.ax + s.bx, first.z * s.az + s.bz, step.x * s.ax, step.z * s.az};
}

struct Weighted {
  Float value;
  Float weight;
};

// Far beyond any picture, yet exact as an integer: keeps the index conversion defined.
constexpr Float kCoordinateLimit = 1.0e15;

// An index outside 0 .. n-1 brought back: TILE repeats the picture, MIRROR repeats it
// reflected (the border sample twice, so that neighbouring tiles meet seamlessly), the
// others clamp.
template <OUTOFBOUNDSMODE O>
inline Int Fold(Int index, Int n) {
  if constexpr (O == OUTOFBOUNDSMODE::TILE) {
    const Int m = index % n;
    return m < 0 ? m + n : m;
  } else if constexpr (O == OUTOFBOUNDSMODE::MIRROR) {
    const Int period = 2 * n;
    Int m = index % period;
    if (m < 0) m += period;
    return m < n ? m : period - 1 - m;
  } else {
    return index < 0 ? 0 : (index >= n ? n - 1 : index);
  }
}

// The raw value at picture coordinates, as Grid2D::Sample computes it, with the out-of-
// bounds mode deciding the neighbours. Every sample has data.
template <SAMPLEINTERPOLATION I, OUTOFBOUNDSMODE O>
inline Float Interpolate(const Sampler& s, Float column, Float row) {
  const float* v = s.samples;
  const Int w = s.width;
  const Int h = s.height;
  if constexpr (I == SAMPLEINTERPOLATION::NEAREST) {
    const Int x = Fold<O>(static_cast<Int>(std::floor(column + 0.5)), w);
    const Int y = Fold<O>(static_cast<Int>(std::floor(row + 0.5)), h);
    return v[y * w + x];
  } else {
    const Float floorX = std::floor(column);
    const Float floorY = std::floor(row);
    const auto x0 = static_cast<Int>(floorX);
    const auto y0 = static_cast<Int>(floorY);
    const Float fx = column - floorX;
    const Float fy = row - floorY;
    if constexpr (I == SAMPLEINTERPOLATION::BILINEAR) {
      const Int c0 = Fold<O>(x0, w);
      const Int c1 = Fold<O>(x0 + 1, w);
      const float* r0 = v + Fold<O>(y0, h) * w;
      const float* r1 = v + Fold<O>(y0 + 1, h) * w;
      const Float a = static_cast<Float>(r0[c0]) + (static_cast<Float>(r0[c1]) - static_cast<Float>(r0[c0])) * fx;
      const Float b = static_cast<Float>(r1[c0]) + (static_cast<Float>(r1[c1]) - static_cast<Float>(r1[c0])) * fx;
      return a + (b - a) * fy;
    } else {
      const Int c[4] = {Fold<O>(x0 - 1, w), Fold<O>(x0, w), Fold<O>(x0 + 1, w), Fold<O>(x0 + 2, w)};
      Float lines[4];
      for (Int k = 0; k < 4; ++k) {
        const float* line = v + Fold<O>(y0 - 1 + k, h) * w;
        lines[k] = Hermite(line[c[0]], line[c[1]], line[c[2]], line[c[3]], fx, 0.0, 0.0);
      }
      return Hermite(lines[0], lines[1], lines[2], lines[3], fy, 0.0, 0.0);
    }
  }
}

// Whether every neighbour the interpolation reads has data.
template <SAMPLEINTERPOLATION I, OUTOFBOUNDSMODE O>
inline bool AllHaveData(const Sampler& s, Float column, Float row) {
  const Int reach = I == SAMPLEINTERPOLATION::BICUBIC ? 2 : 1;
  const auto x0 = static_cast<Int>(std::floor(column));
  const auto y0 = static_cast<Int>(std::floor(row));
  for (Int dy = 1 - reach; dy <= reach; ++dy) {
    const float* line = s.samples + Fold<O>(y0 + dy, s.height) * s.width;
    for (Int dx = 1 - reach; dx <= reach; ++dx)
      if (std::isnan(line[Fold<O>(x0 + dx, s.width)])) return false;
  }
  return true;
}

// Near samples without data: the bilinear weights of the neighbours with data, their sum
// the weight of the result, so the terrain below shows through in proportion.
template <OUTOFBOUNDSMODE O>
inline Weighted BilinearWithData(const Sampler& s, Float column, Float row) {
  const Float floorX = std::floor(column);
  const Float floorY = std::floor(row);
  const auto x0 = static_cast<Int>(floorX);
  const auto y0 = static_cast<Int>(floorY);
  const Float fx = column - floorX;
  const Float fy = row - floorY;
  const Int c[2] = {Fold<O>(x0, s.width), Fold<O>(x0 + 1, s.width)};
  const Int r[2] = {Fold<O>(y0, s.height), Fold<O>(y0 + 1, s.height)};
  const Float wx[2] = {1.0 - fx, fx};
  const Float wy[2] = {1.0 - fy, fy};
  Float sum = 0.0;
  Float weight = 0.0;
  for (int j = 0; j < 2; ++j) {
    for (int i = 0; i < 2; ++i) {
      const float value = s.samples[r[j] * s.width + c[i]];
      const Float w = wx[i] * wy[j];
      if (std::isnan(value) || w == 0.0) continue;
      sum += static_cast<Float>(value) * w;
      weight += w;
    }
  }
  return weight > 0.0 ? Weighted{sum / weight, weight} : Weighted{0.0, 0.0};
}

template <SAMPLEINTERPOLATION I, OUTOFBOUNDSMODE O, bool NoData>
inline Weighted SampleAt(const Sampler& s, Float column, Float row) {
  if constexpr (O == OUTOFBOUNDSMODE::NONE) {
    // Outside the picture's area the operator has nothing to say.
    if (!(column >= -0.5 && column <= static_cast<Float>(s.width) - 0.5 && row >= -0.5 &&
          row <= static_cast<Float>(s.height) - 0.5))
      return {0.0, 0.0};
  }
  column = std::fmin(std::fmax(column, -kCoordinateLimit), kCoordinateLimit);
  row = std::fmin(std::fmax(row, -kCoordinateLimit), kCoordinateLimit);
  if constexpr (NoData) {
    if constexpr (I == SAMPLEINTERPOLATION::NEAREST) {
      const Float value = Interpolate<I, O>(s, column, row);
      return std::isnan(value) ? Weighted{0.0, 0.0} : Weighted{value, 1.0};
    } else {
      if (AllHaveData<I, O>(s, column, row)) return {Interpolate<I, O>(s, column, row), 1.0};
      return BilinearWithData<O>(s, column, row);
    }
  } else {
    return {Interpolate<I, O>(s, column, row), 1.0};
  }
}

// Fills one grid row; `weights` is null when every sample has full weight. True when a
// weight below 1 was written.
template <SAMPLEINTERPOLATION I, OUTOFBOUNDSMODE O, bool NoData>
bool FillRow(const Sampler& s, Int y, Float* out, Float* weights) {
  const Int width = s.gridWidth;
  const TerrainDistortion& distortion = s.distortion;
  bool partial = false;
  const auto put = [&](Int x, Float column, Float row) {
    const Weighted sample = SampleAt<I, O, NoData>(s, column, row);
    out[x] = sample.weight > 0.0 ? sample.value * s.scale + s.offset : 0.0;
    if (weights != nullptr) {
      weights[x] = sample.weight;
      partial = partial || sample.weight < 1.0;
    }
  };
  if (!distortion.enabled) {
    // The frame is affine, so picture coordinates advance by a constant step along the row.
    const auto [column0, row0, columnStep, rowStep] = LineOf(s, y);
    for (Int x = 0; x < width; ++x)
      put(x, column0 + static_cast<Float>(x) * columnStep, row0 + static_cast<Float>(x) * rowStep);
    return partial;
  }
  // The distortion takes a block of points per call, on the worker's stack.
  constexpr Int kBlock = 256;
  Vector points[kBlock];
  for (Int start = 0; start < width; start += kBlock) {
    const Int count = std::min(kBlock, width - start);
    for (Int k = 0; k < count; ++k) {
      const Vector p = GridPoint(start + k, y, width, s.gridHeight, s.sizeX, s.sizeY);
      points[k] = distortion.beforeMatrix ? platform::TransformPoint(s.frame, p) : p;
    }
    distortion.ApplyRow(std::span(points, static_cast<std::size_t>(count)));
    for (Int k = 0; k < count; ++k) {
      const Vector p = distortion.beforeMatrix ? points[k] : platform::TransformPoint(s.frame, points[k]);
      put(start + k, p.x * s.ax + s.bx, p.z * s.az + s.bz);
    }
  }
  return partial;
}

// ---- The separable case: a picture that is not turned against the grid, without
// distortion and with data everywhere. Every grid column then reads the same picture
// columns in every row, and every row the same picture rows, so the neighbours and weights
// are found once per column and once per row instead of per sample. The arithmetic is that
// of Interpolate, so the results are the same to the bit.

struct Taps {
  Int index[4] = {0, 0, 0, 0};
  Float fraction = 0.0;
  bool inside = true;  // for NONE: within the picture's area
};

template <SAMPLEINTERPOLATION I, OUTOFBOUNDSMODE O>
Taps TapsAt(Float coordinate, Int n) {
  Taps taps;
  taps.inside = coordinate >= -0.5 && coordinate <= static_cast<Float>(n) - 0.5;
  coordinate = std::fmin(std::fmax(coordinate, -kCoordinateLimit), kCoordinateLimit);
  if constexpr (I == SAMPLEINTERPOLATION::NEAREST) {
    taps.index[0] = Fold<O>(static_cast<Int>(std::floor(coordinate + 0.5)), n);
  } else {
    const Float lower = std::floor(coordinate);
    const auto i0 = static_cast<Int>(lower);
    taps.fraction = coordinate - lower;
    if constexpr (I == SAMPLEINTERPOLATION::BILINEAR) {
      taps.index[0] = Fold<O>(i0, n);
      taps.index[1] = Fold<O>(i0 + 1, n);
    } else {
      for (Int k = 0; k < 4; ++k) taps.index[k] = Fold<O>(i0 - 1 + k, n);
    }
  }
  return taps;
}

template <SAMPLEINTERPOLATION I, OUTOFBOUNDSMODE O>
bool FillSeparableRow(const Sampler& s, const Taps* columns, const Taps& row, Float* out, Float* weights) {
  const Int width = s.gridWidth;
  const float* v = s.samples;
  const Int w = s.width;
  if (O == OUTOFBOUNDSMODE::NONE && !row.inside) {
    std::fill(out, out + width, 0.0);
    if (weights != nullptr) std::fill(weights, weights + width, 0.0);
    return width > 0;
  }
  bool partial = false;
  for (Int x = 0; x < width; ++x) {
    const Taps& column = columns[x];
    Float value = 0.0;
    if constexpr (I == SAMPLEINTERPOLATION::NEAREST) {
      value = v[row.index[0] * w + column.index[0]];
    } else if constexpr (I == SAMPLEINTERPOLATION::BILINEAR) {
      const float* r0 = v + row.index[0] * w;
      const float* r1 = v + row.index[1] * w;
      const Int c0 = column.index[0];
      const Int c1 = column.index[1];
      const Float fx = column.fraction;
      const Float a = static_cast<Float>(r0[c0]) + (static_cast<Float>(r0[c1]) - static_cast<Float>(r0[c0])) * fx;
      const Float b = static_cast<Float>(r1[c0]) + (static_cast<Float>(r1[c1]) - static_cast<Float>(r1[c0])) * fx;
      value = a + (b - a) * row.fraction;
    } else {
      Float lines[4];
      for (Int k = 0; k < 4; ++k) {
        const float* line = v + row.index[k] * w;
        lines[k] = Hermite(line[column.index[0]], line[column.index[1]], line[column.index[2]], line[column.index[3]],
                           column.fraction, 0.0, 0.0);
      }
      value = Hermite(lines[0], lines[1], lines[2], lines[3], row.fraction, 0.0, 0.0);
    }
    if constexpr (O == OUTOFBOUNDSMODE::NONE) {
      const Float weight = column.inside ? 1.0 : 0.0;
      out[x] = column.inside ? value * s.scale + s.offset : 0.0;
      if (weights != nullptr) weights[x] = weight;
      partial = partial || !column.inside;
    } else {
      out[x] = value * s.scale + s.offset;
      if (weights != nullptr) weights[x] = 1.0;
    }
  }
  return partial;
}

using RowFiller = bool (*)(const Sampler&, Int, Float*, Float*);

template <SAMPLEINTERPOLATION I, OUTOFBOUNDSMODE O>
RowFiller PickNoData(bool noData) {
  return noData ? &FillRow<I, O, true> : &FillRow<I, O, false>;
}

template <SAMPLEINTERPOLATION I>
RowFiller PickBounds(OUTOFBOUNDSMODE mode, bool noData) {
  switch (mode) {
    case OUTOFBOUNDSMODE::NONE:
      return PickNoData<I, OUTOFBOUNDSMODE::NONE>(noData);
    case OUTOFBOUNDSMODE::TILE:
      return PickNoData<I, OUTOFBOUNDSMODE::TILE>(noData);
    case OUTOFBOUNDSMODE::MIRROR:
      return PickNoData<I, OUTOFBOUNDSMODE::MIRROR>(noData);
    case OUTOFBOUNDSMODE::CLAMP:
    default:
      return PickNoData<I, OUTOFBOUNDSMODE::CLAMP>(noData);
  }
}

// One instance per mode, chosen once per evaluation: no branch on the modes per sample.
RowFiller PickFiller(SAMPLEINTERPOLATION interpolation, OUTOFBOUNDSMODE mode, bool noData) {
  switch (interpolation) {
    case SAMPLEINTERPOLATION::NEAREST:
      return PickBounds<SAMPLEINTERPOLATION::NEAREST>(mode, noData);
    case SAMPLEINTERPOLATION::BICUBIC:
      return PickBounds<SAMPLEINTERPOLATION::BICUBIC>(mode, noData);
    case SAMPLEINTERPOLATION::BILINEAR:
    default:
      return PickBounds<SAMPLEINTERPOLATION::BILINEAR>(mode, noData);
  }
}

// The separable plan of one evaluation: taps per grid column and per grid row.
struct SeparablePlan {
  using Fill = bool (*)(const Sampler&, const Taps*, const Taps&, Float*, Float*);
  using Make = Taps (*)(Float, Int);
  Fill fill = nullptr;
  Make make = nullptr;
};

template <SAMPLEINTERPOLATION I>
SeparablePlan SeparableFor(OUTOFBOUNDSMODE mode) {
  switch (mode) {
    case OUTOFBOUNDSMODE::NONE:
      return {&FillSeparableRow<I, OUTOFBOUNDSMODE::NONE>, &TapsAt<I, OUTOFBOUNDSMODE::NONE>};
    case OUTOFBOUNDSMODE::TILE:
      return {&FillSeparableRow<I, OUTOFBOUNDSMODE::TILE>, &TapsAt<I, OUTOFBOUNDSMODE::TILE>};
    case OUTOFBOUNDSMODE::MIRROR:
      return {&FillSeparableRow<I, OUTOFBOUNDSMODE::MIRROR>, &TapsAt<I, OUTOFBOUNDSMODE::MIRROR>};
    case OUTOFBOUNDSMODE::CLAMP:
    default:
      return {&FillSeparableRow<I, OUTOFBOUNDSMODE::CLAMP>, &TapsAt<I, OUTOFBOUNDSMODE::CLAMP>};
  }
}

SeparablePlan PickSeparable(SAMPLEINTERPOLATION interpolation, OUTOFBOUNDSMODE mode) {
  switch (interpolation) {
    case SAMPLEINTERPOLATION::NEAREST:
      return SeparableFor<SAMPLEINTERPOLATION::NEAREST>(mode);
    case SAMPLEINTERPOLATION::BICUBIC:
      return SeparableFor<SAMPLEINTERPOLATION::BICUBIC>(mode);
    case SAMPLEINTERPOLATION::BILINEAR:
    default:
      return SeparableFor<SAMPLEINTERPOLATION::BILINEAR>(mode);
  }
}

struct Settings {
  std::string file;
  Int32 channel = 0;
  bool metres = false;
  Int32 mapping = 0;
  Float pictureSizeX = 0.0;
  Float pictureSizeZ = 0.0;
  Int32 outOfBounds = 0;
  Int32 interpolation = 0;
  bool useTerrainMatrix = false;

  static Settings Read(const platform::ParameterReader& data) {
    return {data.Values().GetString(SHADEROPERATOR_FILE, ""),
            data.GetInt32(SHADEROPERATOR_CHANNEL),
            data.GetBool(SHADEROPERATOR_METRES),
            data.GetInt32(SHADEROPERATOR_MAPPING),
            data.GetFloat(SHADEROPERATOR_SIZE_X),
            data.GetFloat(SHADEROPERATOR_SIZE_Z),
            data.GetInt32(SHADEROPERATOR_OUTOFBOUNDS),
            data.GetInt32(SHADEROPERATOR_INTERPOLATION),
            data.GetBool(SHADEROPERATOR_USE_TERRAIN_MATRIX)};
  }

  // A choice outside its enumeration, named.
  [[nodiscard]] Status Check() const {
    const auto refuse = [](const char* what, Int32 value) {
      return platform::IllegalArgumentError("Unknown " + std::string(what) + " " + std::to_string(value) +
                                            " of the shader operator!");
    };
    if (channel < 0 || channel > static_cast<Int32>(SHADEROPERATORCHANNEL::LUMINANCE))
      return refuse("channel", channel);
    if (mapping < 0 || mapping > static_cast<Int32>(SHADEROPERATORMAPPING::SIZE)) return refuse("mapping", mapping);
    if (outOfBounds < 0 || outOfBounds > static_cast<Int32>(OUTOFBOUNDSMODE::MIRROR))
      return refuse("out-of-bounds mode", outOfBounds);
    if (interpolation < 0 || interpolation > static_cast<Int32>(SAMPLEINTERPOLATION::BICUBIC))
      return refuse("interpolation", interpolation);
    return platform::Ok();
  }
};

}  // namespace

Result<HeightPicture> LoadHeightPicture(const std::filesystem::path& path, SHADEROPERATORCHANNEL channel,
                                        const platform::CancellationToken* cancel) {
  try {
    return LoadUnchecked(path, channel, cancel);
  } catch (const std::bad_alloc&) {
    return std::unexpected(LoadError(path, "out of memory", platform::ErrorKind::OutOfMemory));
  } catch (const std::filesystem::filesystem_error& error) {
    return std::unexpected(LoadError(path, error.code().message()));
  }
}

TERRAINOPERATORFLAGS ShaderOperator::GetFlags(const Node& op) const {
  TERRAINOPERATORFLAGS flags = TERRAINOPERATORFLAGS::TYPE_GENERATOR | TERRAINOPERATORFLAGS::DIRTY_MATRIX_OPERATOR |
                               TERRAINOPERATORFLAGS::DIRTY_MATRIX_PARENTHIERARCHY;
  if (platform::ParameterReader(op).GetBool(SHADEROPERATOR_USE_TERRAIN_MATRIX))
    flags = flags | TERRAINOPERATORFLAGS::DIRTY_MATRIX_TERRAIN;
  return flags;
}

bool ShaderOperator::GetOperatorDEnabling(const Node& op, ParameterId id, const Value&) const {
  const platform::ParameterReader data(op);
  switch (id) {
    case SHADEROPERATOR_SIZE_X:
    case SHADEROPERATOR_SIZE_Z:
      return data.GetInt32(SHADEROPERATOR_MAPPING) == static_cast<Int32>(SHADEROPERATORMAPPING::SIZE);
    case TERRAINOPERATOR_HEIGHTSCALE:
      // Heights in units are taken as they are.
      return !data.GetBool(SHADEROPERATOR_METRES);
    default:
      return IsDistortionParameterEnabled(data.Values(), id);
  }
}

BlendSettings ShaderOperator::GetBlendSettings(const Node& op) const {
  BlendSettings settings = BaseTerrainOperatorData::GetBlendSettings(op);
  if (platform::ParameterReader(op).GetBool(SHADEROPERATOR_METRES) && !IsFactorBlendMode(settings.mode))
    settings.scale = 1.0;
  return settings;
}

bool ShaderOperator::GetRebuildParameters(std::vector<ParameterId>& ids, const ParameterContainer&) const {
  AppendGeneratorParameters(ids, SHADEROPERATOR_FILE, SHADEROPERATOR_USE_TERRAIN_MATRIX);
  return true;
}

Int ShaderOperator::GetMemoryUsage() const {
  const Int picture = picture_ != nullptr ? static_cast<Int>(picture_->samples.size() * sizeof(float)) : 0;
  return BaseTerrainOperatorData::GetMemoryUsage() + picture + static_cast<Int>(resultMask_.size() * sizeof(Float));
}

namespace {

// What the file on disk is now; `exists` false when it cannot be read.
struct DiskState {
  bool exists = false;
  std::filesystem::file_time_type modified{};
  std::uintmax_t size = 0;
};

DiskState StateOf(const std::string& file) {
  std::error_code timeError;
  std::error_code sizeError;
  DiskState state;
  state.modified = std::filesystem::last_write_time(file, timeError);
  state.size = std::filesystem::file_size(file, sizeError);
  state.exists = !timeError && !sizeError;
  if (!state.exists) state = {};
  return state;
}

}  // namespace

bool ShaderOperator::NeedsRebuild(Node& op, Document& doc, const EvaluationContext&) {
  const std::string file = doc.ResolveFile(op.GetData().GetString(SHADEROPERATOR_FILE, "")).string();
  // Another file is a parameter change, which the dirty check sees by itself.
  if (file.empty() || !attempted_ || file != attempted_->path) return false;
  const DiskState now = StateOf(file);
  return now.exists != attempted_->exists || now.modified != attempted_->modified || now.size != attempted_->size;
}

Status ShaderOperator::Compute(const Grid2D<Float>& incoming, Node& op, Document& doc,
                               const EvaluationContext& context) {
  const platform::ParameterReader data(op);
  Settings settings = Settings::Read(data);
  settings.file = doc.ResolveFile(settings.file).string();
  VLGD_RETURN_IF_ERROR(settings.Check());
  const TerrainDistortion distortion = TerrainDistortion::Read(data);
  const platform::Matrix frame = SamplingFrame(op, context, settings.useTerrainMatrix);

  VLGD_RETURN_IF_ERROR(result_.ReshapeLike(incoming));
  resultMask_.clear();
  const Int count = result_.Count();
  if (settings.file.empty()) {
    // Without a picture the operator leaves the terrain as it is.
    std::fill(result_.Data(), result_.Data() + count, 0.0);
    return platform::TryResize(resultMask_, count, 0.0);
  }

  // The picture of the last evaluation serves while the file and channel stay the same.
  const DiskState disk = StateOf(settings.file);
  const FileStamp stamp{settings.file, disk.exists, disk.modified, disk.size, settings.channel};
  if (picture_ == nullptr || !(stamp == loaded_)) {
    picture_.reset();
    attempted_ = stamp;
    VLGD_ASSIGN_OR_RETURN(
        HeightPicture picture,
        LoadHeightPicture(settings.file, static_cast<SHADEROPERATORCHANNEL>(settings.channel), context.thread));
    try {
      picture_ = std::make_shared<const HeightPicture>(std::move(picture));
    } catch (const std::bad_alloc&) {
      return platform::OutOfMemoryError("Could not hold the image of the shader operator!");
    }
    loaded_ = stamp;
    ++loads_;
  }
  if (count == 0) return platform::Ok();
  const HeightPicture& picture = *picture_;

  Sampler sampler;
  sampler.samples = picture.samples.data();
  sampler.width = picture.width;
  sampler.height = picture.height;
  const auto columns = static_cast<Float>(picture.width);
  const auto rows = static_cast<Float>(picture.height);
  if (settings.mapping == static_cast<Int32>(SHADEROPERATORMAPPING::FIT)) {
    // Corner samples on the terrain's corners, as a height map of resolution + 1 samples.
    sampler.ax = (columns - 1.0) * InverseOrZero(result_.SizeX());
    sampler.bx = (columns - 1.0) * 0.5;
    sampler.az = -(rows - 1.0) * InverseOrZero(result_.SizeY());
    sampler.bz = (rows - 1.0) * 0.5;
  } else {
    // Each sample the centre of its cell of the picture's area, as textures tile.
    sampler.ax = columns * InverseOrZero(settings.pictureSizeX);
    sampler.bx = columns * 0.5 - 0.5;
    sampler.az = -rows * InverseOrZero(settings.pictureSizeZ);
    sampler.bz = rows * 0.5 - 0.5;
  }
  if (!settings.metres) {
    const Float range = picture.maximum - picture.minimum;
    sampler.scale = InverseOrZero(range);
    sampler.offset = -picture.minimum * sampler.scale;
  }
  sampler.gridWidth = result_.Width();
  sampler.gridHeight = result_.Height();
  sampler.sizeX = result_.SizeX();
  sampler.sizeY = result_.SizeY();
  sampler.frame = frame;
  sampler.distortion = distortion;

  const auto bounds = static_cast<OUTOFBOUNDSMODE>(settings.outOfBounds);
  const bool noData = picture.hasNoData || !picture.valid;
  const bool weighted = noData || bounds == OUTOFBOUNDSMODE::NONE;
  const RowFiller fill = PickFiller(static_cast<SAMPLEINTERPOLATION>(settings.interpolation), bounds, noData);
  std::vector<unsigned char> partialRows;
  if (weighted) {
    VLGD_RETURN_IF_ERROR(platform::TryResize(resultMask_, count, 0.0));
    VLGD_RETURN_IF_ERROR(platform::TryResize(partialRows, result_.Height(), static_cast<unsigned char>(0)));
  }
  const Int width = result_.Width();
  Float* values = result_.Data();
  Float* weights = weighted ? resultMask_.data() : nullptr;

  // Not turned against the grid: picture columns follow grid columns alone and picture
  // rows grid rows alone.
  const RowLine line = LineOf(sampler, 0);
  const Vector down = platform::TransformDirection(frame, Vector(0.0, 0.0, 1.0));
  const bool separable = !noData && !distortion.enabled && line.rowStep == 0.0 && down.x * sampler.ax == 0.0;
  const SeparablePlan plan =
      separable ? PickSeparable(static_cast<SAMPLEINTERPOLATION>(settings.interpolation), bounds) : SeparablePlan{};
  std::vector<Taps> columnTaps;
  if (separable) {
    VLGD_RETURN_IF_ERROR(platform::TryResize(columnTaps, width));
    for (Int x = 0; x < width; ++x)
      columnTaps[static_cast<std::size_t>(x)] =
          plan.make(line.column0 + static_cast<Float>(x) * line.columnStep, sampler.width);
  }

  const platform::CancellationToken* thread = context.thread;
  const platform::ParallelOptions options{.granularity = 16};
  const Status filled = platform::ParallelFor(0, result_.Height(), options, [&](Int y) -> Status {
    if (platform::IsSampleBreakTest(y) && platform::TestBreak(thread))
      return platform::CancelledError("Shader operator cancelled!");
    Float* rowWeights = weights != nullptr ? weights + y * width : nullptr;
    const bool partial = separable
                             ? plan.fill(sampler, columnTaps.data(), plan.make(LineOf(sampler, y).row0, sampler.height),
                                         values + y * width, rowWeights)
                             : fill(sampler, y, values + y * width, rowWeights);
    if (weighted) partialRows[static_cast<std::size_t>(y)] = partial ? 1 : 0;
    return platform::Ok();
  });
  if (!filled) {
    resultMask_.clear();
    return filled;
  }
  // A picture that covers everything with data needs no mask.
  if (weighted && std::ranges::find(partialRows, 1) == partialRows.end()) resultMask_.clear();
  return platform::Ok();
}

namespace {

platform::Description ShaderOperatorDescription() {
  using platform::DescribeParameter;
  constexpr Float kFar = kMaxWorldDistance;
  return {"oshaderoperator",
          {"Obaseterrainoperator", "DterrainDistortion"},
          {
              DescribeParameter(SHADEROPERATOR_FILE, "SHADEROPERATOR_FILE", ValueType::STRING, std::string()),
              DescribeParameter(SHADEROPERATOR_CHANNEL, "SHADEROPERATOR_CHANNEL", ValueType::INT32, Int32{0})
                  .Choice("SHADEROPERATORCHANNEL", 0, static_cast<Int32>(SHADEROPERATORCHANNEL::LUMINANCE)),
              DescribeParameter(SHADEROPERATOR_METRES, "SHADEROPERATOR_METRES", ValueType::BOOL, false),
              DescribeParameter(SHADEROPERATOR_MAPPING, "SHADEROPERATOR_MAPPING", ValueType::INT32, Int32{0})
                  .Choice("SHADEROPERATORMAPPING", 0, static_cast<Int32>(SHADEROPERATORMAPPING::SIZE)),
              DescribeParameter(SHADEROPERATOR_SIZE_X, "SHADEROPERATOR_SIZE_X", ValueType::FLOAT, 1000.0)
                  .Limits(0.0, kFar, "units"),
              DescribeParameter(SHADEROPERATOR_SIZE_Z, "SHADEROPERATOR_SIZE_Z", ValueType::FLOAT, 1000.0)
                  .Limits(0.0, kFar, "units"),
              DescribeParameter(SHADEROPERATOR_OUTOFBOUNDS, "SHADEROPERATOR_OUTOFBOUNDS", ValueType::INT32,
                                static_cast<Int32>(OUTOFBOUNDSMODE::CLAMP))
                  .Choice("OUTOFBOUNDSMODE", 0, static_cast<Int32>(OUTOFBOUNDSMODE::MIRROR)),
              DescribeParameter(SHADEROPERATOR_INTERPOLATION, "SHADEROPERATOR_INTERPOLATION", ValueType::INT32,
                                static_cast<Int32>(SAMPLEINTERPOLATION::BILINEAR))
                  .Choice("SAMPLEINTERPOLATION", 0, static_cast<Int32>(SAMPLEINTERPOLATION::BICUBIC)),
              DescribeParameter(SHADEROPERATOR_USE_TERRAIN_MATRIX, "SHADEROPERATOR_USE_TERRAIN_MATRIX", ValueType::BOOL,
                                false),
          },
          {{"SHADEROPERATORCHANNEL", {{"RED", 0}, {"GREEN", 1}, {"BLUE", 2}, {"ALPHA", 3}, {"LUMINANCE", 4}}},
           {"SHADEROPERATORMAPPING", {{"FIT", 0}, {"SIZE", 1}}}}};
}

}  // namespace

const platform::TypeDescriptor& ShaderOperatorType() {
  static const platform::TypeDescriptor type{.kind = platform::PluginKind::OBJECT,
                                             .id = ID_SHADEROPERATOR,
                                             .resourceName = "oshaderoperator",
                                             .sort = 22,
                                             .icon = MainSheetIcon(192, 0),
                                             .nameStringId = 10006,
                                             .baseTypes = {ID_BASETERRAINOPERATOR},
                                             .allocate = platform::AllocatorOf<ShaderOperator>(),
                                             .describe = ShaderOperatorDescription};
  return type;
}

}  // namespace VLGD
