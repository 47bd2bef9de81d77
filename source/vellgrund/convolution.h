#pragma once

#include <optional>
#include <span>
#include <vector>

#include "platform/cancellation.h"
#include "platform/result.h"
#include "platform/types.h"
#include "vellgrund/grid2d.h"

// Convolution kernels and the filters that the Blur and Sharpen operators run: the generic
// two-dimensional kernel convolution with its edge modes, the separable box blur and the
// separable sharpen.
namespace VLGD {
// The largest kernel radius a parameter takes, in samples.
constexpr Int32 kMaxKernelRadius = 2048;
}  // namespace VLGD

namespace VLGD::Convolution {

using platform::UInt32;

// A kernel that equals centre x delta + column (outer product) row, up to rounding: the
// convolution may then run as two one-dimensional passes. column[i] weighs kernel row i,
// row[j] kernel column j.
struct SeparableForm {
  std::vector<Float> column;
  std::vector<Float> row;
  Float centre = 0.0;
};

// A square kernel of size x size values, row-major. Not flipped when convolving, and not
// divided by anything: the presets are normalised when they are built.
class BaseKernel {
 public:
  BaseKernel() = default;
  BaseKernel(const BaseKernel&) = delete;
  BaseKernel& operator=(const BaseKernel&) = delete;

  // The kernel's own build: fills the values for `n` (a size or a radius, by kernel) and
  // the kernel's data. Builds sizes the values themselves.
  virtual Status Build(UInt32 n, const Float* data) = 0;
  virtual ~BaseKernel() = default;

  // Initialises with a size and optional data: size 0 fails with "Can't initialize kernel
  // with size 0!", otherwise the class's build runs with `n` and `data`. A failed build
  // leaves the kernel empty.
  Status Initialize(UInt32 n, const Float* data = nullptr);

  [[nodiscard]] UInt32 Size() const { return size_; }
  [[nodiscard]] std::span<const Float> Values() const { return values_; }
  // The two-pass form, when the build set one.
  [[nodiscard]] const SeparableForm* Separable() const { return separable_ ? &*separable_ : nullptr; }

 protected:
  // size = n; the values become `count` zeros (n x n when count is omitted). An allocation
  // failure is returned as an out-of-memory error and leaves the kernel empty.
  Status Resize(UInt32 n, std::optional<Int> count = std::nullopt);

  std::vector<Float> values_;
  UInt32 size_ = 0;
  std::optional<SeparableForm> separable_;
};

namespace PresetKernels {

// 1/16 x (1 2 1) (outer product) (1 2 1); `n` is ignored.
class GaussBlur3x3 final : public BaseKernel {
 public:
  Status Build(UInt32 n, const Float* data) override;
};

// 1/256 x (1 4 6 4 1) (outer product) (1 4 6 4 1); `n` is ignored.
class GaussBlur5x5 final : public BaseKernel {
 public:
  Status Build(UInt32 n, const Float* data) override;
};

// A Gaussian of sigma r / 2 sampled at integer offsets, size 2r + 1, normalised to sum 1;
// `n` is the radius r. Radius 0 divides 0 by 0 and gives a kernel of not-a-number.
class GaussBlur final : public BaseKernel {
 public:
  Status Build(UInt32 n, const Float* data) override;
};

// 0 -1 0 / -1 5 -1 / 0 -1 0; `n` is ignored.
class Sharpen3x3 final : public BaseKernel {
 public:
  Status Build(UInt32 n, const Float* data) override;
};

// 2 x delta - GaussBlur5x5: the centre is 476/256, every other entry -1/256 x the binomial
// outer product; `n` is ignored.
class UnsharpMask5x5 final : public BaseKernel {
 public:
  Status Build(UInt32 n, const Float* data) override;
};

// 2 x delta - g / S with g the unnormalised Gaussian of GaussBlur and S its sum: an unsharp
// mask of amount 1, size 2r + 1; `n` is the radius r.
class UnsharpMask final : public BaseKernel {
 public:
  Status Build(UInt32 n, const Float* data) override;
};

}  // namespace PresetKernels

namespace OrvelSharpen {

// The taps on either side of the centre of a separable sharpen of size n: n / 2, so an even
// size reaches as far as the odd size above it.
[[nodiscard]] Int Half(Int size);

// The one-sided ramp of the separable sharpen: Half(n) + 1 values, a at the centre (index 0)
// to b at the outermost tap, linear in between; `data` holds a and b ("Data pointer must not
// be NULL!" without it). With n of 1 or 2 the ramp divides 0 by 0: not-a-number.
class SharpenKernel final : public BaseKernel {
 public:
  Status Build(UInt32 n, const Float* data) override;
};

// The centre weight of the separable sharpen's ramp for a size and an amount:
// t0 = (n - 3) / 6, 5 - 2 t0 at amount 0 to 3 - 1.5 t0 at amount 1, never below 1.5.
[[nodiscard]] Float CentreWeight(Int size, Float amount);

}  // namespace OrvelSharpen

enum class ConvolutionPath {
  AUTOMATIC,  // two one-dimensional passes for kernels with a separable form of size 5 and up
  DIRECT,     // the sum over every tap, in kernel order
};

// destination[y][x] = sum over kernel rows i and columns j of K[i][j] x
// source[y - n/2 + i][x - n/2 + j], the indices remapped by the edge mode: CLAMP clamps,
// TILE wraps around, MIRROR reflects without repeating the border sample at the low edge
// (-1 reads 1) and with repeating it at the high edge (N reads N - 1), clamping what one
// reflection cannot reach; NONE and unknown modes clamp, so no read leaves the grid. The
// destination takes the source's shape, its samples are all written and its range is
// reset. Rows run in parallel (granularity 16); there is no cancellation. The direct path
// adds the taps in kernel order, as the sum reads; the separable path equals it up to
// rounding, the same on every SIMD target. Source and destination must be different grids.
Status Convolve(const Grid2D<Float>& source, Grid2D<Float>& destination, const BaseKernel& kernel, OUTOFBOUNDSMODE mode,
                ConvolutionPath path = ConvolutionPath::AUTOMATIC);

// The box blur of diameter d, in place: a vertical, then a horizontal pass, each the sum of
// the d / 2 (rounded down) neighbours on either side and the sample itself, each weighed
// 1 / d (0 when d is 0), with clamped edges. A negative diameter sums no tap at all and
// gives zeros. Fails with "Can't BluxBlur a grid with size 0!" on an empty grid, with
// "Vertical BoxBlur pass cancelled!" (or "Horizontal BoxBlur pass cancelled!" from the
// second pass of diameters below 4) when the thread reports a break at the start of a row y
// with (y & 999) != 0 (the grid is then left partly blurred). From diameter 4 the passes are
// sliding sums, whose results equal the direct sums up to rounding, independent of the
// number of threads and of the SIMD target; they run together, a few rows at a time, and in
// place on a copy of the grid. Below 501 rows they run on one thread. The range of the grid
// is left as it was.
Status BoxBlur(Grid2D<Float>& grid, Int diameter, const platform::CancellationToken* thread = nullptr);
// The same from a source into a destination that takes the source's shape (range reset).
Status BoxBlur(const Grid2D<Float>& source, Grid2D<Float>& destination, Int diameter,
               const platform::CancellationToken* thread = nullptr);

// The separable sharpen of size n and amount t, in place: the ramp v of
// OrvelSharpen::SharpenKernel from CentreWeight(n, t) to -1 over Half(n) taps on either
// side, normalised by w = 1 / (v[0] + 2 (v[1] + ... + v[Half(n)])) (0 when that sum is 0);
// a vertical, then a horizontal pass, edges clamped. Fails with "Can't sharpen a grid with
// size 0!", the kernel's "Can't initialize kernel with size 0!", "Can't initialize kernel
// with a negative size!", and "Vertical Sharpen pass cancelled!" / "Horizontal Sharpen
// pass cancelled!" under the same break rule as the box blur. Sizes 1 and 2 give
// not-a-number everywhere. From size 4 the passes are sliding sums (equal to the direct sums
// up to rounding, independent of the number of threads and of the SIMD target).
Status SeparableSharpen(Grid2D<Float>& grid, Int size, Float amount,
                        const platform::CancellationToken* thread = nullptr);
Status SeparableSharpen(const Grid2D<Float>& source, Grid2D<Float>& destination, Int size, Float amount,
                        const platform::CancellationToken* thread = nullptr);

}  // namespace VLGD::Convolution
