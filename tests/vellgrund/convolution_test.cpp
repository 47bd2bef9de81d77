#include "vellgrund/convolution.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "platform/parallel.h"
#include "support/operator_fixture.h"

namespace {

using namespace VLGD;
using namespace VLGD::Convolution;
using namespace testing_support;
using platform::CancellationToken;
using platform::ErrorKind;

constexpr OUTOFBOUNDSMODE kModes[] = {OUTOFBOUNDSMODE::CLAMP, OUTOFBOUNDSMODE::TILE, OUTOFBOUNDSMODE::MIRROR};

// A kernel of given values.
class FixedKernel final : public BaseKernel {
 public:
  Status Build(UInt32 n, const Float* data) override {
    VLGD_RETURN_IF_ERROR(Resize(n));
    std::copy(data, data + static_cast<std::ptrdiff_t>(n) * n, values_.begin());
    return platform::Ok();
  }
};

// The edge rule: clamp, wrap, or the asymmetric mirror; what one reflection cannot reach clamps.
Int ReferenceIndex(Int i, Int n, OUTOFBOUNDSMODE mode) {
  if (i >= 0 && i < n) return i;
  if (mode == OUTOFBOUNDSMODE::TILE) return ((i % n) + n) % n;
  if (mode == OUTOFBOUNDSMODE::MIRROR) return std::clamp<Int>(i < 0 ? -i : 2 * n - i - 1, 0, n - 1);
  return std::clamp<Int>(i, 0, n - 1);
}

// The plain sum: every tap in kernel order. `scale` receives the sum of the absolute
// terms, the size that rounding is relative to.
Grid2D<Float> ReferenceConvolution(const Grid2D<Float>& s, const BaseKernel& kernel, OUTOFBOUNDSMODE mode,
                                   Grid2D<Float>* scale = nullptr) {
  Grid2D<Float> d;
  EXPECT_TRUE(d.InitFrom(s));
  EXPECT_TRUE(scale == nullptr || scale->InitFrom(s));
  const Int n = kernel.Size();
  for (Int y = 0; y < s.Height(); ++y)
    for (Int x = 0; x < s.Width(); ++x) {
      Float sum = 0.0;
      Float magnitude = 0.0;
      for (Int i = 0; i < n; ++i)
        for (Int j = 0; j < n; ++j) {
          const Float term =
              kernel.Values()[static_cast<std::size_t>(i * n + j)] *
              s.Get(ReferenceIndex(x - n / 2 + j, s.Width(), mode), ReferenceIndex(y - n / 2 + i, s.Height(), mode));
          sum += term;
          magnitude += std::abs(term);
        }
      d.Set(x, y, sum);
      if (scale != nullptr) scale->Set(x, y, magnitude);
    }
  return d;
}

// A vertical, then a horizontal pass: post x the sum of taps[k + h] x the clamped
// neighbour, in tap order.
Grid2D<Float> ReferencePasses(const Grid2D<Float>& g, const std::vector<Float>& taps, Float post) {
  const Int h = static_cast<Int>(taps.size() / 2);
  const auto pass = [&](const Grid2D<Float>& in, bool vertical) {
    Grid2D<Float> out;
    EXPECT_TRUE(out.InitFrom(in));
    for (Int y = 0; y < in.Height(); ++y)
      for (Int x = 0; x < in.Width(); ++x) {
        Float sum = 0.0;
        for (Int k = -h; k <= h; ++k)
          sum +=
              taps[static_cast<std::size_t>(k + h)] * (vertical ? in.Get(x, std::clamp<Int>(y + k, 0, in.Height() - 1))
                                                                : in.Get(std::clamp<Int>(x + k, 0, in.Width() - 1), y));
        out.Set(x, y, post * sum);
      }
    return out;
  };
  return pass(pass(g, true), false);
}

Grid2D<Float> ReferenceBoxBlur(const Grid2D<Float>& g, Int diameter) {
  return ReferencePasses(
      g, std::vector<Float>(static_cast<std::size_t>(diameter / 2 * 2 + 1), 1.0 / static_cast<Float>(diameter)), 1.0);
}

// The ramp from the centre weight to -1 on either side, normalised to sum 1.
Grid2D<Float> ReferenceSharpen(const Grid2D<Float>& g, Int size, Float amount) {
  const Int h = size / 2;
  const Float a = OrvelSharpen::CentreWeight(size, amount);
  std::vector<Float> taps(static_cast<std::size_t>(2 * h + 1));
  Float sum = 0.0;
  for (Int k = -h; k <= h; ++k) {
    const Float v = a + (static_cast<Float>(std::abs(k)) / static_cast<Float>(h)) * (-1.0 - a);
    taps[static_cast<std::size_t>(k + h)] = v;
    if (k != 0) sum += v;
  }
  return ReferencePasses(g, taps, 1.0 / (taps[static_cast<std::size_t>(h)] + sum));
}

// Equal up to 1e-12 relative to `scale` (or the expected value), at least 1.
void ExpectNear(const Grid2D<Float>& actual, const Grid2D<Float>& expected, const Grid2D<Float>* scale,
                const std::string& what) {
  ASSERT_EQ(actual.Width(), expected.Width()) << what;
  ASSERT_EQ(actual.Height(), expected.Height()) << what;
  for (Int i = 0; i < actual.Count(); ++i) {
    const Float size = std::max(1.0, scale != nullptr ? scale->Data()[i] : std::abs(expected.Data()[i]));
    ASSERT_LE(std::abs(actual.Data()[i] - expected.Data()[i]), 1e-12 * size)
        << what << ": sample " << i << " is " << actual.Data()[i] << ", expected " << expected.Data()[i];
  }
}

TEST(ConvolutionTest, GaussianKernelsAreNormalisedSampledGaussiansAndUnsharpMasksTheirComplement) {
  // The sampled Gaussian of sigma r / 2, normalised; the unsharp mask is 2 delta minus it.
  for (const UInt32 r : {1u, 2u, 8u}) {
    PresetKernels::GaussBlur gauss;
    PresetKernels::UnsharpMask unsharp;
    ASSERT_TRUE(gauss.Initialize(r) && unsharp.Initialize(r));
    const UInt32 n = 2 * r + 1;
    ASSERT_EQ(gauss.Size(), n);
    ASSERT_EQ(unsharp.Size(), n);
    Float sum = 0.0;
    for (const Float v : gauss.Values()) sum += v;
    EXPECT_NEAR(sum, 1.0, 1e-14) << r;
    // Ratios to the centre: exp(-0.5 a^2) exp(-0.5 b^2), the outermost offset being a = 2.
    const Float centre = gauss.Values()[n * n / 2];
    EXPECT_NEAR(gauss.Values()[r] / centre, std::exp(-2.0), 1e-14) << r;
    EXPECT_NEAR(gauss.Values()[0] / centre, std::exp(-4.0), 1e-14) << r;
    for (std::size_t i = 0; i < n * n; ++i)
      EXPECT_NEAR(unsharp.Values()[i], (i == n * n / 2 ? 2.0 : 0.0) - gauss.Values()[i], 1e-14) << r << " " << i;
  }
}

TEST(ConvolutionTest, SharpenRampRunsFromTheCentreWeightToItsEnd) {
  OrvelSharpen::SharpenKernel kernel;
  const Float ends[2] = {1.5, -1.0};
  ASSERT_TRUE(kernel.Initialize(5, ends));
  EXPECT_EQ(kernel.Size(), 5u);
  EXPECT_EQ(std::vector<Float>(kernel.Values().begin(), kernel.Values().end()), (std::vector<Float>{1.5, 0.25, -1.0}));
  ASSERT_TRUE(kernel.Initialize(8, ends));  // n / 2 + 1 values
  ASSERT_EQ(kernel.Values().size(), 5u);
  EXPECT_EQ(kernel.Values()[4], -1.0);

  EXPECT_EQ(OrvelSharpen::CentreWeight(3, 0.0), 5.0);
  EXPECT_EQ(OrvelSharpen::CentreWeight(3, 0.5), 4.0);
  EXPECT_EQ(OrvelSharpen::CentreWeight(9, 0.0), 3.0);  // t0 = 1
  EXPECT_EQ(OrvelSharpen::CentreWeight(9, 1.0), 1.5);
  EXPECT_EQ(OrvelSharpen::CentreWeight(3, 7.0), 1.5);  // never below 1.5
}

TEST(ConvolutionTest, KernelsKeepTheirDegenerateCases) {
  PresetKernels::GaussBlur gauss;  // radius 0 divides 0 by 0
  ASSERT_TRUE(gauss.Build(0, nullptr));
  ASSERT_EQ(gauss.Size(), 1u);
  Grid2D<Float> destination;
  ASSERT_TRUE(Convolve(RandomGrid(4, 3, 1), destination, gauss, OUTOFBOUNDSMODE::MIRROR));
  for (const Float v : destination.Values()) EXPECT_TRUE(std::isnan(v));

  EXPECT_EQ(PresetKernels::UnsharpMask{}.Initialize(0).error().message, "Can't initialize kernel with size 0!");
  EXPECT_EQ(PresetKernels::GaussBlur3x3{}.Initialize(0).error().message, "Can't initialize kernel with size 0!");
  OrvelSharpen::SharpenKernel ramp;
  EXPECT_EQ(ramp.Initialize(5, nullptr).error().message, "Data pointer must not be NULL!");
  const Float ends[2] = {5.0, -1.0};
  ASSERT_TRUE(ramp.Initialize(1, ends));  // the ramp divides 0 by 0
  ASSERT_EQ(ramp.Values().size(), 1u);
  EXPECT_TRUE(std::isnan(ramp.Values()[0]));

  // Convolve takes neither an alias nor a kernel that is not square.
  Grid2D<Float> g = RandomGrid(4, 4, 41);
  PresetKernels::GaussBlur3x3 gauss3;
  ASSERT_TRUE(gauss3.Initialize(3));
  EXPECT_EQ(Convolve(g, g, gauss3, OUTOFBOUNDSMODE::MIRROR).error().message,
            "Source and destination must be different grids!");
  ASSERT_TRUE(ramp.Initialize(3, ends));
  EXPECT_FALSE(Convolve(g, destination, ramp, OUTOFBOUNDSMODE::MIRROR));
}

TEST(ConvolutionTest, EdgeModesClampWrapAndMirrorAsymmetrically) {
  using enum OUTOFBOUNDSMODE;
  // What the single tap at row i, column j of an n x n kernel reads for the sample (x, y).
  const auto read = [](const Grid2D<Float>& source, UInt32 n, UInt32 i, UInt32 j, OUTOFBOUNDSMODE mode, Int x, Int y) {
    std::vector<Float> values(static_cast<std::size_t>(n) * n, 0.0);
    values[static_cast<std::size_t>(i) * n + j] = 1.0;
    FixedKernel kernel;
    Grid2D<Float> d;
    EXPECT_TRUE(kernel.Initialize(n, values.data()));
    EXPECT_TRUE(Convolve(source, d, kernel, mode));
    return d.Get(x, y);
  };
  // Source values 10 x column + row, on a 4 x 3 grid.
  const Grid2D<Float> s = MakeGrid(4, 3, [](Int x, Int y) { return static_cast<Float>(10 * x + y); });
  EXPECT_EQ(read(s, 3, 1, 0, CLAMP, 0, 1), 1.0);
  EXPECT_EQ(read(s, 3, 1, 0, NONE, 0, 1), 1.0);  // clamps
  EXPECT_EQ(read(s, 3, 1, 0, TILE, 0, 1), 31.0);
  EXPECT_EQ(read(s, 3, 1, 2, TILE, 3, 1), 1.0);
  EXPECT_EQ(read(s, 3, 1, 0, MIRROR, 0, 1), 11.0);  // -1 reads 1: the border is not repeated
  EXPECT_EQ(read(s, 3, 1, 2, MIRROR, 3, 1), 31.0);  // 4 reads 3: the border is repeated
  EXPECT_EQ(read(s, 3, 0, 1, MIRROR, 2, 0), 21.0);  // the same down the columns
  EXPECT_EQ(read(s, 3, 2, 1, MIRROR, 2, 2), 22.0);
  // Two steps out: -2 reads 2, N + 1 reads N - 2.
  EXPECT_EQ(read(s, 5, 2, 0, MIRROR, 0, 0), 20.0);
  EXPECT_EQ(read(s, 5, 2, 4, MIRROR, 3, 0), 20.0);
  EXPECT_EQ(read(s, 5, 2, 4, MIRROR, 2, 0), 30.0);
  // A grid smaller than the reflection: -2 reflects to 2 and clamps to 1, 3 reads 0.
  const Grid2D<Float> tiny = Row({1.0, 2.0});
  EXPECT_EQ(read(tiny, 5, 2, 0, MIRROR, 0, 0), 2.0);
  EXPECT_EQ(read(tiny, 5, 2, 4, MIRROR, 1, 0), 1.0);
  EXPECT_EQ(read(tiny, 5, 2, 0, TILE, 0, 0), 1.0);
}

TEST(ConvolutionTest, TheDirectPathIsExactlyTheSumOverEveryTap) {
  const Grid2D<Float> s = RandomGrid(37, 23, 7);
  PresetKernels::GaussBlur3x3 gauss3;
  PresetKernels::GaussBlur5x5 gauss5;
  PresetKernels::Sharpen3x3 sharpen;
  PresetKernels::UnsharpMask5x5 unsharp5;
  PresetKernels::GaussBlur gauss;
  FixedKernel even;  // reaches one sample further before the centre than after it
  std::vector<Float> values(16);
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = static_cast<Float>(i) - 7.5;
  ASSERT_TRUE(gauss3.Initialize(3) && gauss5.Initialize(5) && sharpen.Initialize(3) && unsharp5.Initialize(5) &&
              gauss.Initialize(3) && even.Initialize(4, values.data()));
  for (const OUTOFBOUNDSMODE mode : kModes)
    for (const BaseKernel* kernel :
         std::initializer_list<const BaseKernel*>{&gauss3, &gauss5, &sharpen, &unsharp5, &gauss, &even}) {
      // The Gaussian has a separable form to bypass; the others always sum directly.
      Grid2D<Float> d;
      ASSERT_TRUE(
          Convolve(s, d, *kernel, mode, kernel == &gauss ? ConvolutionPath::DIRECT : ConvolutionPath::AUTOMATIC));
      EXPECT_TRUE(Identical(d, ReferenceConvolution(s, *kernel, mode))) << kernel->Size();
    }
}

TEST(ConvolutionTest, SeparableGaussianAndUnsharpMaskEqualTheDirectSum) {
  const Grid2D<Float> grids[] = {RandomGrid(61, 47, 3), RandomGrid(5, 3, 4), RandomGrid(1, 9, 5)};
  for (const UInt32 r : {2u, 3u, 8u, 20u}) {
    PresetKernels::GaussBlur gauss;
    PresetKernels::UnsharpMask unsharp;
    ASSERT_TRUE(gauss.Initialize(r) && unsharp.Initialize(r));
    ASSERT_TRUE(gauss.Separable() != nullptr && unsharp.Separable() != nullptr);
    for (const Grid2D<Float>& s : grids)
      for (const OUTOFBOUNDSMODE mode : kModes)
        for (const BaseKernel* kernel : std::initializer_list<const BaseKernel*>{&gauss, &unsharp}) {
          Grid2D<Float> scale;
          const Grid2D<Float> expected = ReferenceConvolution(s, *kernel, mode, &scale);
          Grid2D<Float> fast;
          ASSERT_TRUE(Convolve(s, fast, *kernel, mode));
          ExpectNear(fast, expected, &scale,
                     "radius " + std::to_string(r) + " on " + std::to_string(s.Width()) + " x " +
                         std::to_string(s.Height()) + ", mode " + std::to_string(static_cast<int>(mode)));
        }
  }
}

TEST(ConvolutionTest, SlidingSumsEqualTheDirectSumsOfBothPasses) {
  // 530 x 520 has more than 500 rows (all threads), two column tiles and several restarts.
  const Grid2D<Float> big = RandomGrid(530, 520, 11);
  const Grid2D<Float> small = RandomGrid(7, 5, 12);
  const Grid2D<Float> column = RandomGrid(1, 6, 13);
  struct Case {
    const Grid2D<Float>* grid;
    Int n;         // a diameter or a size
    Float amount;  // below 0: the box blur
  };
  const Case cases[] = {{&big, 3, -1},     {&big, 5, -1},    {&big, 65, -1},    {&small, 9, -1},  {&small, 301, -1},
                        {&column, 13, -1}, {&big, 3, 0.0},   {&big, 5, 1.0},    {&big, 65, 0.0},  {&small, 3, 0.3},
                        {&small, 4, 0.0},  {&small, 9, 0.3}, {&small, 41, 1.0}, {&column, 5, 0.3}};
  for (const auto& [grid, n, amount] : cases) {
    const bool box = amount < 0.0;
    Grid2D<Float> inPlace = Copy(*grid);
    Grid2D<Float> outOfPlace;
    ASSERT_TRUE(box ? BoxBlur(inPlace, n) : SeparableSharpen(inPlace, n, amount));
    ASSERT_TRUE(box ? BoxBlur(*grid, outOfPlace, n) : SeparableSharpen(*grid, outOfPlace, n, amount));
    const Grid2D<Float> expected = box ? ReferenceBoxBlur(*grid, n) : ReferenceSharpen(*grid, n, amount);
    const std::string what = (box ? "box " : "sharpen ") + std::to_string(n) + " amount " + std::to_string(amount) +
                             " on " + std::to_string(grid->Width()) + " x " + std::to_string(grid->Height());
    if (n == 3)
      EXPECT_TRUE(Identical(inPlace, expected)) << what;  // the direct path
    else
      ExpectNear(inPlace, expected, nullptr, what);
    EXPECT_TRUE(Identical(outOfPlace, inPlace)) << what;
  }
}

}  // namespace
