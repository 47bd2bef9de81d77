#include "vellgrund/convolution.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

#include "platform/memory.h"
#include "platform/parallel.h"
#include "vellgrund/convolution_rows.h"

namespace VLGD::Convolution {
namespace {

using platform::CancellationToken;
using platform::ParallelOptions;

constexpr Int kGranularity = 16;                // rows of one chunk of a row loop
constexpr Int kMaxKernelSize = Int{1} << 31;    // beyond, size x size cannot be counted
constexpr Int kStreamedSamples = Int{1} << 22;  // 32 MiB of results: more than a cache keeps

constexpr const char* kBoxBlurEmpty = "Can't BluxBlur a grid with size 0!";
constexpr const char* kBoxBlurVertical = "Vertical BoxBlur pass cancelled!";
constexpr const char* kBoxBlurHorizontal = "Horizontal BoxBlur pass cancelled!";
constexpr const char* kSharpenEmpty = "Can't sharpen a grid with size 0!";
constexpr const char* kSharpenVertical = "Vertical Sharpen pass cancelled!";
constexpr const char* kSharpenHorizontal = "Horizontal Sharpen pass cancelled!";

Float InverseOrZero(Float value) {
  return value != 0.0 ? 1.0 / value : 0.0;
}

// The convolution's edge rule; NONE and unknown modes clamp, so that no read leaves the grid.
Int EdgeIndex(Int index, Int count, OUTOFBOUNDSMODE mode) {
  if (mode == OUTOFBOUNDSMODE::TILE || mode == OUTOFBOUNDSMODE::MIRROR) return RemapIndex(index, count, mode);
  return std::clamp<Int>(index, 0, count - 1);
}

// The break test of the separable passes: only rows whose index masked with 999 is not 0
// test (a bit mask, not a modulo: rows 0, 8, 16, 24, 1024, ... never do).
bool RowBreaks(Int y, const CancellationToken* thread) {
  return platform::IsRowBreakTest(y) && platform::TestBreak(thread);
}

// Scratch memory for one chunk of a loop. Up to a few megabytes it is the calling thread's
// own buffer, kept from loop to loop: chunks that allocated their own would pay for fresh
// pages (zeroed by the system) again and again. Larger requests (huge kernels) get memory
// of their own, so that no thread keeps it afterwards. Contents are undefined.
class Scratch {
 public:
  Scratch(int slot, Int count) {
    constexpr Int kKept = Int{1} << 20;
    thread_local std::vector<Float> kept[2];
    std::vector<Float>& buffer = count <= kKept ? kept[slot] : own_;
    if (static_cast<Int>(buffer.size()) < count) buffer.resize(static_cast<std::size_t>(count));
    data_ = buffer.data();
  }
  [[nodiscard]] Float* Data() const { return data_; }

 private:
  std::vector<Float> own_;
  Float* data_ = nullptr;
};

ParallelOptions PassOptions(Int rows, Int granularity) {
  ParallelOptions options;
  options.granularity = granularity;
  options.singleThreadBelow = rows < platform::kSingleThreadBelowRows ? std::numeric_limits<Int>::max() : 0;
  return options;
}

// Sliding sums start afresh at fixed places (every so many rows or columns, the same for
// every thread count), which bounds their rounding drift and keeps results independent of
// how the rows are shared out. The fresh start costs about a window, so the period grows
// with it.
Int RestartPeriod(Int half) {
  return std::max<Int>(256, 4 * (2 * half + 1));
}

// ---- Direct passes: the sum over every tap in tap order, times a scale ------------------

// out[x] += k x row[x + offset], the index remapped only where it leaves the row.
void AddShifted(Float* out, const Float* row, Int width, Int offset, Float k, OUTOFBOUNDSMODE mode) {
  const Int lo = std::clamp<Int>(-offset, 0, width);
  const Int hi = std::clamp<Int>(width - offset, lo, width);
  for (Int x = 0; x < lo; ++x) out[x] += k * row[EdgeIndex(x + offset, width, mode)];
  const Float* shifted = row + offset;
  for (Int x = lo; x < hi; ++x) out[x] += k * shifted[x];
  for (Int x = hi; x < width; ++x) out[x] += k * row[EdgeIndex(x + offset, width, mode)];
}

// dst[y] = scale x sum over k = -half .. half of taps[k + half] x src[clamp(y + k)], rows in
// parallel (granularity 16). A negative half sums nothing.
Status DirectVertical(const Float* src, Float* dst, Int width, Int height, std::span<const Float> taps, Int half,
                      Float scale, const CancellationToken* thread, const char* cancelled) {
  return platform::ParallelForRange(0, height, PassOptions(height, kGranularity), [&](Int y0, Int y1) -> Status {
    for (Int y = y0; y < y1; ++y) {
      if (RowBreaks(y, thread)) return platform::CancelledError(cancelled);
      Float* out = dst + y * width;
      std::fill(out, out + width, 0.0);
      for (Int k = -half; k <= half; ++k) {
        const Float tap = taps[static_cast<std::size_t>(k + half)];
        const Float* row = src + std::clamp<Int>(y + k, 0, height - 1) * width;
        for (Int x = 0; x < width; ++x) out[x] += tap * row[x];
      }
      for (Int x = 0; x < width; ++x) out[x] *= scale;
    }
    return platform::Ok();
  });
}

// The same along the rows; src and dst may be the same grid.
Status DirectHorizontal(const Float* src, Float* dst, Int width, Int height, std::span<const Float> taps, Int half,
                        Float scale, const CancellationToken* thread, const char* cancelled) {
  return platform::ParallelForRange(0, height, PassOptions(height, kGranularity), [&](Int y0, Int y1) -> Status {
    const Scratch scratch(0, 2 * width);
    Float* in = scratch.Data();
    Float* sum = in + width;
    for (Int y = y0; y < y1; ++y) {
      if (RowBreaks(y, thread)) return platform::CancelledError(cancelled);
      std::copy(src + y * width, src + (y + 1) * width, in);
      std::fill(sum, sum + width, 0.0);
      for (Int k = -half; k <= half; ++k)
        AddShifted(sum, in, width, k, taps[static_cast<std::size_t>(k + half)], OUTOFBOUNDSMODE::CLAMP);
      Float* out = dst + y * width;
      for (Int x = 0; x < width; ++x) out[x] = scale * sum[x];
    }
    return platform::Ok();
  });
}

// One row of the direct convolution: out[x] = the sum over kernel rows i and columns j, in
// this order, of K[i][j] x rows[i][x - n/2 + j]. N is the kernel size when known at compile
// time (0: n). The interior reads its columns directly; the border remaps them.
template <Int N>
void DirectRow(Float* out, const Float* const* rows, const Float* kernel, Int n, Int width, OUTOFBOUNDSMODE mode) {
  const Int size = N > 0 ? N : n;
  const Int half = size / 2;
  const Int lo = std::min(half, width);
  const Int hi = std::max(lo, width - size + half + 1);
  const auto border = [&](Int x) {
    Float sum = 0.0;
    for (Int i = 0; i < size; ++i)
      for (Int j = 0; j < size; ++j) sum += kernel[i * size + j] * rows[i][EdgeIndex(x - half + j, width, mode)];
    out[x] = sum;
  };
  for (Int x = 0; x < lo; ++x) border(x);
  for (Int x = lo; x < hi; ++x) {
    Float sum = 0.0;
    for (Int i = 0; i < size; ++i) {
      const Float* row = rows[i] + x - half;
      const Float* weights = kernel + i * size;
      for (Int j = 0; j < size; ++j) sum += weights[j] * row[j];
    }
    out[x] = sum;
  }
  for (Int x = hi; x < width; ++x) border(x);
}

// ---- Sliding passes ---------------------------------------------------------------------

// Box: dst[y] = w x the sum over the 2 half + 1 rows around y (clamped), then the same along
// the rows, both as sliding sums, kGroupRows rows at a time so that the vertical pass's rows
// are still in cache when the horizontal one reads them. Row blocks of `period` rows run in
// parallel, each restarting its vertical sums. When there are too few blocks to keep every
// worker busy (wide windows), a block splits into parts, each replaying the block's sums
// down to its first row: the same additions in the same order, so the same bits. src and dst
// must be different grids.
Status BoxSlide(const Float* src, Float* dst, Int width, Int height, Int half, Float w,
                const CancellationToken* thread) {
  constexpr Int kPartRows = 256;
  const Int period = RestartPeriod(half);
  const Int blocks = (height + period - 1) / period;
  const int threads = height < platform::kSingleThreadBelowRows ? 1 : platform::MaxThreads();
  const Int parts = threads > 1 && blocks < 4 * threads ? (period + kPartRows - 1) / kPartRows : 1;
  const Int partRows = (period + parts - 1) / parts;
  return platform::ParallelForRange(0, blocks * parts, PassOptions(height, 1), [&](Int begin, Int end) -> Status {
    const Scratch buffer(0, width * Rows::kGroupRows);
    const Scratch sums(1, width);
    for (Int item = begin; item < end; ++item) {
      const Int y0 = item / parts * period;
      const Int first = y0 + item % parts * partRows;
      const Int last = std::min({height, y0 + period, first + partRows});
      if (first >= last) continue;
      Rows::BoxColumnSums(src, width, height, y0, half, sums.Data());
      Rows::BoxAdvance(src, width, height, y0, first - y0, half, sums.Data());
      for (Int y = first; y < last; y += Rows::kGroupRows) {
        const Int rows = std::min(Rows::kGroupRows, last - y);
        for (Int row = y; row < y + rows; ++row)
          if (RowBreaks(row, thread)) return platform::CancelledError(kBoxBlurVertical);
        Rows::BoxRows(src, dst, width, height, y, rows, half, w, period, sums.Data(), buffer.Data());
      }
    }
    return platform::Ok();
  });
}

// The ring buffer's budget of doubles per vertical tile: wide tiles for small kernels.
constexpr Int kRingBudget = Int{1} << 16;
constexpr Int kTileColumns = 512;  // the widest vertical tile

// The ramp down the columns, in tiles of `period` rows (each restarting its sums) by up to
// kTileColumns columns, in parallel.
Status RampSlideVertical(const Float* src, Float* dst, Int width, Int height, const Rows::Ramp& ramp,
                         const CancellationToken* thread) {
  const Int ringSize = ramp.half + 1;
  const Int columns = std::clamp<Int>(kRingBudget / ringSize, 16, kTileColumns);
  const Int period = RestartPeriod(ramp.half);
  const Int rowBlocks = (height + period - 1) / period;
  const Int columnBlocks = (width + columns - 1) / columns;
  return platform::ParallelForRange(
      0, rowBlocks * columnBlocks, PassOptions(height, 1), [&](Int begin, Int end) -> Status {
        const Scratch state(0, (ringSize + 2) * columns);
        for (Int tile = begin; tile < end; ++tile) {
          const Int y0 = tile / columnBlocks * period;
          const Int y1 = std::min(height, y0 + period);
          const Int x0 = tile % columnBlocks * columns;
          const Int count = std::min(width, x0 + columns) - x0;
          Rows::RampColumnsStart(src, width, height, y0, x0, count, ramp, state.Data());
          Int oldest = 0;
          for (Int y = y0; y < y1; ++y) {
            if (RowBreaks(y, thread)) return platform::CancelledError(kSharpenVertical);
            Rows::RampColumnsRow(src, dst, width, height, y, x0, count, ramp, state.Data(), oldest);
            if (++oldest == ringSize) oldest = 0;
          }
        }
        return platform::Ok();
      });
}

// The ramp along the rows, kGroupRows rows a call, in parallel; src and dst may be the same
// grid.
Status RampSlideHorizontal(const Float* src, Float* dst, Int width, Int height, const Rows::Ramp& ramp,
                           const CancellationToken* thread) {
  const Int period = RestartPeriod(ramp.half);
  const Int groups = (height + Rows::kGroupRows - 1) / Rows::kGroupRows;
  const auto slide = [&](Int begin, Int end) -> Status {
    const Scratch buffer(0, width * Rows::kGroupRows);
    const Scratch ring(1, (ramp.half + 1) * Rows::kGroupRows);
    for (Int group = begin; group < end; ++group) {
      const Int first = group * Rows::kGroupRows;
      const Int rows = std::min(Rows::kGroupRows, height - first);
      for (Int row = first; row < first + rows; ++row)
        if (RowBreaks(row, thread)) return platform::CancelledError(kSharpenHorizontal);
      Rows::RampRows(src + first * width, dst + first * width, width, rows, ramp, period, ring.Data(), buffer.Data());
    }
    return platform::Ok();
  };
  return platform::ParallelForRange(0, groups, PassOptions(height, kGranularity / Rows::kGroupRows), slide);
}

// ---- Shared set-up ------------------------------------------------------------------------

// The destination takes the source's shape; its samples are overwritten, its range reset.
Status PrepareDestination(const Grid2D<Float>& source, Grid2D<Float>& destination) {
  if (destination.Width() != source.Width() || destination.Height() != source.Height() ||
      destination.SizeX() != source.SizeX() || destination.SizeY() != source.SizeY())
    return destination.InitFrom(source);
  destination.ResetRange();
  return platform::Ok();
}

// Vertical from src into mid, then horizontal from mid into dst (which may be mid or src).
Status BoxPasses(const Float* src, Float* mid, Float* dst, Int width, Int height, Int diameter,
                 const CancellationToken* thread) {
  const Float w = InverseOrZero(static_cast<Float>(diameter));
  // Rounded down, so that every negative diameter sums no tap at all.
  const Int half = diameter >= 0 ? diameter / 2 : -((1 - diameter) / 2);
  if (half >= 2) {
    if (src != dst) return BoxSlide(src, dst, width, height, half, w, thread);
    // Both passes run at once, so in place they read a copy.
    std::copy(src, src + width * height, mid);
    return BoxSlide(mid, dst, width, height, half, w, thread);
  }
  // Small or empty windows: the sum of w x sample over the taps, as the pass reads.
  const std::vector<Float> taps(static_cast<std::size_t>(std::max<Int>(0, 2 * half + 1)), w);
  VLGD_RETURN_IF_ERROR(DirectVertical(src, mid, width, height, taps, half, 1.0, thread, kBoxBlurVertical));
  return DirectHorizontal(mid, dst, width, height, taps, half, 1.0, thread, kBoxBlurHorizontal);
}

// The separable sharpen's taps, built before any grid memory is touched.
struct SharpenSetup {
  Int half = 0;
  Float centre = 0.0;
  Float w = 0.0;
  std::vector<Float> taps;  // v[|k|] for k = -half .. half
};

Result<SharpenSetup> SetUpSharpen(Int size, Float amount) {
  if (size < 0) return platform::IllegalArgumentError("Can't initialize kernel with a negative size!");
  if (size > std::numeric_limits<UInt32>::max()) return platform::OutOfMemoryError("Could not allocate kernel values!");
  SharpenSetup setup;
  setup.centre = OrvelSharpen::CentreWeight(size, amount);
  const Float ends[2] = {setup.centre, -1.0};
  OrvelSharpen::SharpenKernel kernel;
  VLGD_RETURN_IF_ERROR(kernel.Initialize(static_cast<UInt32>(size), ends));
  const std::span<const Float> v = kernel.Values();
  setup.half = OrvelSharpen::Half(size);
  Float outer = 0.0;
  for (Int k = 1; k <= setup.half; ++k) outer += v[static_cast<std::size_t>(k)];
  setup.w = InverseOrZero(v[0] + 2.0 * outer);
  VLGD_RETURN_IF_ERROR(platform::TryResize(setup.taps, 2 * setup.half + 1));
  for (Int k = -setup.half; k <= setup.half; ++k)
    setup.taps[static_cast<std::size_t>(k + setup.half)] = v[static_cast<std::size_t>(std::abs(k))];
  return setup;
}

Status SharpenPasses(const Float* src, Float* mid, Float* dst, Int width, Int height, const SharpenSetup& setup,
                     const CancellationToken* thread) {
  const Int half = setup.half;
  if (half >= 2) {
    const Rows::Ramp ramp{half, setup.centre, (-1.0 - setup.centre) / static_cast<Float>(half), setup.w};
    VLGD_RETURN_IF_ERROR(RampSlideVertical(src, mid, width, height, ramp, thread));
    return RampSlideHorizontal(mid, dst, width, height, ramp, thread);
  }
  VLGD_RETURN_IF_ERROR(DirectVertical(src, mid, width, height, setup.taps, half, setup.w, thread, kSharpenVertical));
  return DirectHorizontal(mid, dst, width, height, setup.taps, half, setup.w, thread, kSharpenHorizontal);
}

// The unnormalised Gaussian of sigma r / 2 at the offsets i - r, i = 0 .. 2r.
std::vector<Float> GaussianProfile(Int radius) {
  const Int size = 2 * radius + 1;
  std::vector<Float> profile(static_cast<std::size_t>(size));
  const Float r = static_cast<Float>(radius);
  for (Int i = 0; i < size; ++i) {
    const Float a = (static_cast<Float>(i) - r) / (r * 0.5);
    profile[static_cast<std::size_t>(i)] = std::exp(-0.5 * a * a);
  }
  return profile;
}

// Fills values with the sampled Gaussian exp(-0.5 b^2) x exp(-0.5 a^2), a from the row and
// b from the column, and returns the sum of the values.
Float FillGaussian(const std::vector<Float>& profile, std::vector<Float>& values) {
  const std::size_t count = profile.size();
  for (std::size_t i = 0; i < count; ++i)
    for (std::size_t j = 0; j < count; ++j) values[i * count + j] = profile[j] * profile[i];
  Float sum = 0.0;
  for (const Float value : values) sum += value;
  return sum;
}

Status CheckedKernelSize(UInt32 radius, Int& size) {
  size = 2 * static_cast<Int>(radius) + 1;
  if (size > kMaxKernelSize) return platform::OutOfMemoryError("Could not allocate kernel values!");
  return platform::Ok();
}

}  // namespace

// ---- Kernels ------------------------------------------------------------------------------

Status BaseKernel::Initialize(UInt32 n, const Float* data) {
  if (n == 0) return platform::IllegalArgumentError("Can't initialize kernel with size 0!");
  size_ = n;
  Status built = Build(n, data);
  if (!built) {  // a failed build leaves no half-made kernel behind
    values_ = {};
    size_ = 0;
    separable_.reset();
  }
  return built;
}

Status BaseKernel::Resize(UInt32 n, std::optional<Int> count) {
  separable_.reset();
  const Int values = count.value_or(static_cast<Int>(n) * static_cast<Int>(n));
  if (const Status fits =
          platform::CheckMemory(platform::BytesFor(values, sizeof(Float)),
                                "A kernel of " + std::to_string(n) + " x " + std::to_string(n) + " weights");
      !fits) {
    values_ = {};
    size_ = 0;
    return fits;
  }
  if (static_cast<Int>(n) > kMaxKernelSize || !platform::TryResize(values_, values, 0.0)) {
    values_ = {};
    size_ = 0;
    return platform::OutOfMemoryError("Could not allocate kernel values!");
  }
  size_ = n;
  return platform::Ok();
}

namespace PresetKernels {

Status GaussBlur3x3::Build(UInt32, const Float*) {
  VLGD_RETURN_IF_ERROR(Resize(3));
  values_ = {0.0625, 0.125, 0.0625, 0.125, 0.25, 0.125, 0.0625, 0.125, 0.0625};
  return platform::Ok();
}

Status GaussBlur5x5::Build(UInt32, const Float*) {
  VLGD_RETURN_IF_ERROR(Resize(5));
  const Float binomial[5] = {1.0, 4.0, 6.0, 4.0, 1.0};
  for (std::size_t i = 0; i < 5; ++i)
    for (std::size_t j = 0; j < 5; ++j) values_[i * 5 + j] = binomial[i] * binomial[j] / 256.0;
  return platform::Ok();
}

Status GaussBlur::Build(UInt32 n, const Float*) {
  Int size = 0;
  VLGD_RETURN_IF_ERROR(CheckedKernelSize(n, size));
  VLGD_RETURN_IF_ERROR(Resize(static_cast<UInt32>(size)));
  const std::vector<Float> profile = GaussianProfile(n);
  const Float sum = FillGaussian(profile, values_);
  const Float inverse = InverseOrZero(sum);
  for (Float& value : values_) value *= inverse;

  Float profileSum = 0.0;
  for (const Float value : profile) profileSum += value;
  SeparableForm form;
  form.column = profile;
  const Float profileInverse = InverseOrZero(profileSum);
  for (Float& value : form.column) value *= profileInverse;
  form.row = form.column;
  separable_ = std::move(form);
  return platform::Ok();
}

Status Sharpen3x3::Build(UInt32, const Float*) {
  VLGD_RETURN_IF_ERROR(Resize(3));
  values_ = {0.0, -1.0, 0.0, -1.0, 5.0, -1.0, 0.0, -1.0, 0.0};
  return platform::Ok();
}

Status UnsharpMask5x5::Build(UInt32, const Float*) {
  VLGD_RETURN_IF_ERROR(Resize(5));
  const Float binomial[5] = {1.0, 4.0, 6.0, 4.0, 1.0};
  for (std::size_t i = 0; i < 5; ++i)
    for (std::size_t j = 0; j < 5; ++j) values_[i * 5 + j] = -binomial[i] * binomial[j] / 256.0;
  values_[12] = 476.0 / 256.0;
  return platform::Ok();
}

Status UnsharpMask::Build(UInt32 n, const Float*) {
  Int size = 0;
  VLGD_RETURN_IF_ERROR(CheckedKernelSize(n, size));
  VLGD_RETURN_IF_ERROR(Resize(static_cast<UInt32>(size)));
  const std::vector<Float> profile = GaussianProfile(n);
  const Float sum = FillGaussian(profile, values_);
  const std::size_t centre = values_.size() / 2;
  values_[centre] = -((sum + sum) - values_[centre]);
  for (Float& value : values_) value *= -1.0;
  Float newSum = 0.0;
  for (const Float value : values_) newSum += value;
  for (Float& value : values_) value = newSum != 0.0 ? value / newSum : value * 0.0;

  // 2 delta - g / S, where g / S is the normalised profile's outer product with itself.
  Float profileSum = 0.0;
  for (const Float value : profile) profileSum += value;
  const Float profileInverse = InverseOrZero(profileSum);
  SeparableForm form;
  form.centre = 2.0;
  form.row = profile;
  for (Float& value : form.row) value *= profileInverse;
  form.column = form.row;
  for (Float& value : form.column) value = -value;
  separable_ = std::move(form);
  return platform::Ok();
}

}  // namespace PresetKernels

namespace OrvelSharpen {

Int Half(Int size) {
  return size > 0 ? size / 2 : 0;
}

Status SharpenKernel::Build(UInt32 n, const Float* data) {
  if (data == nullptr) return platform::IllegalArgumentError("Data pointer must not be NULL!");
  const Int half = Half(n);
  const Int count = half + 1;
  VLGD_RETURN_IF_ERROR(Resize(n, count));
  const Float a = data[0];
  const Float b = data[1];
  for (Int k = 0; k <= half; ++k)
    values_[static_cast<std::size_t>(k)] = a + (static_cast<Float>(k) / static_cast<Float>(count - 1)) * (b - a);
  return platform::Ok();
}

Float CentreWeight(Int size, Float amount) {
  const Float t0 = (static_cast<Float>(size) - 3.0) / 6.0;
  const Float hard = 5.0 - 2.0 * t0;
  const Float soft = 3.0 - 1.5 * t0;
  const Float centre = hard + (soft - hard) * amount;
  return std::max(1.5, centre);
}

}  // namespace OrvelSharpen

// ---- Convolution ----------------------------------------------------------------------------

Status Convolve(const Grid2D<Float>& source, Grid2D<Float>& destination, const BaseKernel& kernel, OUTOFBOUNDSMODE mode,
                ConvolutionPath path) {
  if (&source == &destination) return platform::IllegalArgumentError("Source and destination must be different grids!");
  const Int n = kernel.Size();
  const std::span<const Float> values = kernel.Values();
  if (static_cast<Int>(values.size()) != n * n)
    return platform::IllegalArgumentError("Kernel values do not match the kernel size!");
  VLGD_RETURN_IF_ERROR(PrepareDestination(source, destination));
  const Int width = source.Width();
  const Int height = source.Height();
  if (source.IsEmpty()) return platform::Ok();
  const Float* src = source.Data();
  Float* dst = destination.Data();
  platform::ParallelOptions rows;
  rows.granularity = kGranularity;

  const SeparableForm* form = kernel.Separable();
  if (path == ConvolutionPath::AUTOMATIC && form != nullptr && n >= 5 && n % 2 == 1 &&
      static_cast<Int>(form->column.size()) == n && static_cast<Int>(form->row.size()) == n) {
    // Down the columns into a padded row, then along it: 2n taps a sample instead of n^2.
    const Int half = n / 2;
    const bool streamed = width * height > kStreamedSamples;
    return platform::ParallelForRange(0, height, rows, [&](Int y0, Int y1) -> Status {
      const Scratch padded(0, width + 2 * half);
      std::vector<const Float*> sources;
      VLGD_RETURN_IF_ERROR(platform::TryResize(sources, n));
      Float* middle = padded.Data() + half;
      for (Int y = y0; y < y1; ++y) {
        for (Int i = 0; i < n; ++i)
          sources[static_cast<std::size_t>(i)] = src + EdgeIndex(y - half + i, height, mode) * width;
        Rows::WeightedRows(middle, sources.data(), form->column.data(), n, width);
        for (Int t = 1; t <= half; ++t) {
          middle[-t] = middle[EdgeIndex(-t, width, mode)];
          middle[width - 1 + t] = middle[EdgeIndex(width - 1 + t, width, mode)];
        }
        Rows::WeightedShifts(dst + y * width, src + y * width, form->centre, padded.Data(), form->row.data(), n, width,
                             streamed);
      }
      return platform::Ok();
    });
  }

  // Every tap in kernel order, as the sum reads; only border samples remap their columns.
  return platform::ParallelForRange(0, height, rows, [&](Int y0, Int y1) {
    std::vector<const Float*> sources(static_cast<std::size_t>(n));
    for (Int y = y0; y < y1; ++y) {
      for (Int i = 0; i < n; ++i)
        sources[static_cast<std::size_t>(i)] = src + EdgeIndex(y - n / 2 + i, height, mode) * width;
      Float* out = dst + y * width;
      if (n == 3)
        DirectRow<3>(out, sources.data(), values.data(), n, width, mode);
      else if (n == 5)
        DirectRow<5>(out, sources.data(), values.data(), n, width, mode);
      else
        DirectRow<0>(out, sources.data(), values.data(), n, width, mode);
    }
  });
}

// ---- Separable filters ----------------------------------------------------------------------

Status BoxBlur(Grid2D<Float>& grid, Int diameter, const CancellationToken* thread) {
  if (grid.IsEmpty()) return platform::GenericError(kBoxBlurEmpty);
  Grid2D<Float> temporary;
  VLGD_RETURN_IF_ERROR(temporary.InitFrom(grid));
  return BoxPasses(grid.Data(), temporary.Data(), grid.Data(), grid.Width(), grid.Height(), diameter, thread);
}

Status BoxBlur(const Grid2D<Float>& source, Grid2D<Float>& destination, Int diameter, const CancellationToken* thread) {
  if (&source == &destination) return BoxBlur(destination, diameter, thread);
  if (source.IsEmpty()) return platform::GenericError(kBoxBlurEmpty);
  VLGD_RETURN_IF_ERROR(PrepareDestination(source, destination));
  // The horizontal pass works on the destination in place.
  return BoxPasses(source.Data(), destination.Data(), destination.Data(), source.Width(), source.Height(), diameter,
                   thread);
}

Status SeparableSharpen(Grid2D<Float>& grid, Int size, Float amount, const CancellationToken* thread) {
  if (grid.IsEmpty()) return platform::GenericError(kSharpenEmpty);
  VLGD_ASSIGN_OR_RETURN(const SharpenSetup setup, SetUpSharpen(size, amount));
  Grid2D<Float> temporary;
  VLGD_RETURN_IF_ERROR(temporary.InitFrom(grid));
  return SharpenPasses(grid.Data(), temporary.Data(), grid.Data(), grid.Width(), grid.Height(), setup, thread);
}

Status SeparableSharpen(const Grid2D<Float>& source, Grid2D<Float>& destination, Int size, Float amount,
                        const CancellationToken* thread) {
  if (&source == &destination) return SeparableSharpen(destination, size, amount, thread);
  if (source.IsEmpty()) return platform::GenericError(kSharpenEmpty);
  VLGD_ASSIGN_OR_RETURN(const SharpenSetup setup, SetUpSharpen(size, amount));
  VLGD_RETURN_IF_ERROR(PrepareDestination(source, destination));
  return SharpenPasses(source.Data(), destination.Data(), destination.Data(), source.Width(), source.Height(), setup,
                       thread);
}

}  // namespace VLGD::Convolution
