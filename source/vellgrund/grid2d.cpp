#include "vellgrund/grid2d.h"

#include <charconv>
#include <limits>

#include "platform/debug_stop.h"
#include "platform/memory.h"
#include "platform/parallel.h"

namespace VLGD {
namespace {


void AppendNumber(std::string& text, Float value) {
  char buffer[32];
  const auto [end, error] = std::to_chars(buffer, buffer + sizeof(buffer), value);
  text.append(buffer, error == std::errc() ? end : buffer);
}

void AppendSample(std::string& text, Float value) { AppendNumber(text, value); }

void AppendSample(std::string& text, const Vector& value) {
  text += '(';
  AppendNumber(text, value.x);
  text += ';';
  AppendNumber(text, value.y);
  text += ';';
  AppendNumber(text, value.z);
  text += ')';
}

// 0 .. 255 from a component in 0 .. 1; out-of-range values clamp, NaN reads as 0.
Float ToByteChannel(Float component) {
  const Float scaled = component * 255.0;
  if (!(scaled > 0.0)) return 0.0;
  return std::trunc(std::min(scaled, 255.0));
}

}  // namespace

template <class T>
Status Grid2D<T>::InitShape(Int width, Int height, Float sizeX, Float sizeY) {
  if (width < 0 || height < 0) return platform::IllegalArgumentError("Invalid grid initialization arguments!");
  const bool countFits = height == 0 || width <= std::numeric_limits<Int>::max() / height;
  if (countFits && static_cast<Int>(values_.size()) == width * height) {
    // Rebuilds re-initialise grids of an unchanged shape; zeroing the storage in place
    // spares the page faults of a fresh allocation.
    std::fill(values_.begin(), values_.end(), T{});
  } else {
    Reset();
    if (countFits) {
      const Status fits = platform::CheckMemory(platform::BytesFor(width * height, sizeof(T)),
                                                "A grid of " + std::to_string(width) + " x " + std::to_string(height) +
                                                    " samples");
      if (!fits) return fits;
    }
    if (!countFits || !platform::TryResize(values_, width * height, T{})) {
      Reset();
      return platform::OutOfMemoryError("Could not allocate grid of " + std::to_string(width) + " x " +
                                        std::to_string(height) + " samples!");
    }
  }
  ResetRange();
  width_ = width;
  height_ = height;
  count_ = width * height;
  sizeX_ = sizeX;
  sizeY_ = sizeY;
  return platform::Ok();
}

template <class T>
Status Grid2D<T>::Init(Int width, Int height, Float sizeX, Float sizeY) {
  if (!(sizeX > 0.0) || !(sizeY > 0.0) || !std::isfinite(sizeX) || !std::isfinite(sizeY))
    return platform::IllegalArgumentError("Invalid grid initialization arguments!");
  return InitShape(width, height, sizeX, sizeY);
}

template <class T>
void Grid2D<T>::Reset() {
  width_ = 0;
  height_ = 0;
  count_ = 0;
  sizeX_ = 0.0;
  sizeY_ = 0.0;
  ResetRange();
  values_ = {};
}

template <class T>
Status Grid2D<T>::CopyFrom(const Grid2D& other) {
  if (this == &other) return platform::Ok();
  platform::LargeArray<T> values;
  VLGD_RETURN_IF_ERROR(platform::TryCopy(values, other.values_));
  values_ = std::move(values);
  width_ = other.width_;
  height_ = other.height_;
  count_ = other.count_;
  sizeX_ = other.sizeX_;
  sizeY_ = other.sizeY_;
  minimum_ = other.minimum_;
  maximum_ = other.maximum_;
  minMaxValid_ = other.minMaxValid_;
  return platform::Ok();
}

template <class T>
void Grid2D<T>::RecomputeRange() {
  ResetRange();
  for (const T& value : values_) IncludeInRange(value);
}

template <class T>
Status Grid2D<T>::Normalize(Float scale, Float offset, const platform::CancellationToken* thread) {
  if constexpr (std::is_same_v<T, Vector>) {
    (void)scale;
    (void)offset;
    (void)thread;
    platform::DebugStop("grid2d", "Grid2D<Vector>::Normalize() not implemented yet!");
    return platform::GenericError("Grid2D<Vector>::Normalize() not implemented yet!");
  } else {
    RecomputeRange();
    if (count_ == 0) return platform::Ok();
    const Float range = maximum_ - minimum_;
    if (range == 0.0) return platform::Ok();
    const Float minimum = minimum_;
    const Float factor = scale / range;
    Float* values = values_.data();
    const platform::ParallelOptions options{.granularity = 16,
                                            .singleThreadBelow = platform::kSingleThreadBelowSamples,
                                            .cancel = thread,
                                            .cancelMessage = "Grid2D<Float>::Normalize() cancelled!"};
    return platform::ParallelForRange(0, count_, options, [=](Int begin, Int end) {
      for (Int i = begin; i < end; ++i) values[i] = (values[i] - minimum) * factor + offset;
    });
  }
}

template <class T>
Result<platform::Image> Grid2D<T>::ToHeightImage() const
  requires std::is_same_v<T, Float>
{
  VLGD_ASSIGN_OR_RETURN(platform::Image image, platform::Image::Create(width_, height_, 1, platform::PixelType::Float32));
  auto* pixels = reinterpret_cast<float*>(image.Bytes().data());
  for (Int y = 0; y < height_; ++y) {
    const Float* row = values_.data() + y * width_;
    float* line = pixels + (height_ - 1 - y) * width_;
    for (Int x = 0; x < width_; ++x) line[x] = static_cast<float>(row[x]);
  }
  return image;
}

template <class T>
Status Grid2D<T>::ComputeNormals(const Grid2D<Float>& source)
  requires std::is_same_v<T, Vector>
{
  if (source.Width() < 0 || source.Height() < 0 || source.SizeX() <= 0.0 || source.SizeY() <= 0.0)
    return platform::IllegalArgumentError("Invalid grid initialization arguments!");
  VLGD_RETURN_IF_ERROR(InitShape(source.Width(), source.Height(), source.SizeX(), source.SizeY()));
  Vector* normals = values_.data();
  const Int width = width_;
  return platform::ParallelFor(0, height_, platform::ParallelOptions{.granularity = 1}, [&](Int y) {
    Vector* line = normals + y * width;
    for (Int x = 0; x < width; ++x) line[x] = source.Normal(x, y);
  });
}

template <class T>
Result<platform::Image> Grid2D<T>::ToBitmap() const
  requires std::is_same_v<T, Vector>
{
  auto created = platform::Image::Create(width_, height_, 3, platform::PixelType::UInt8);
  if (!created) return platform::GenericError("Could not initialize BaseBitmap!");
  platform::Image& image = *created;
  for (Int y = 0; y < height_; ++y) {
    for (Int x = 0; x < width_; ++x) {
      const Vector& v = Get(std::clamp<Int>(x, 0, width_ - 1), std::clamp<Int>(y, 0, height_ - 1));
      const Float rgb[3] = {ToByteChannel(v.x), ToByteChannel(v.y), ToByteChannel(v.z)};
      if (!image.SetPixel(x, height_ - 1 - y, rgb)) return platform::GenericError("Could not set pixel in Bitmap!");
    }
  }
  return std::move(image);
}

template <class T>
std::string Grid2D<T>::ToString(Int n) const {
  std::string text = std::is_same_v<T, Vector> ? "Grid2D<Vector>(" : "Grid2D<Float>(";
  const Int shown = std::clamp<Int>(n, 0, count_);
  for (Int i = 0; i < shown; ++i) {
    if (i > 0) text += ", ";
    AppendSample(text, values_[static_cast<std::size_t>(i)]);
  }
  text += ')';
  return text;
}

template class Grid2D<Float>;
template class Grid2D<Vector>;

}  // namespace VLGD
