#include "vellgrund/convolution.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "platform/parallel.h"

namespace {

using namespace VLGD;
using namespace VLGD::Convolution;
using platform::CancellationToken;
using platform::ErrorKind;

constexpr Float kRelative = 1e-12;

Grid2D<Float> MakeGrid(Int width, Int height, const std::function<Float(Int, Int)>& value) {
  Grid2D<Float> grid;
  EXPECT_TRUE(grid.Init(width, height, 10.0, 10.0));
  for (Int y = 0; y < height; ++y)
    for (Int x = 0; x < width; ++x) grid.Set(x, y, value(x, y));
  return grid;
}

Grid2D<Float> RandomGrid(Int width, Int height, unsigned seed) {
  std::mt19937_64 engine(seed);
  std::uniform_real_distribution<Float> uniform(0.0, 1.0);
  return MakeGrid(width, height, [&](Int, Int) { return uniform(engine); });
}

Grid2D<Float> ConstantGrid(Int width, Int height, Float value) {
  return MakeGrid(width, height, [value](Int, Int) { return value; });
}

// A kernel of given values, for edge tests.
class FixedKernel final : public BaseKernel {
 public:
  Status Build(UInt32 n, const Float* data) override {
    VLGD_RETURN_IF_ERROR(Resize(n));
    std::copy(data, data + static_cast<std::ptrdiff_t>(n) * n, values_.begin());
    return platform::Ok();
  }
};

// A kernel of size n with a single 1 at kernel row i, column j.
std::unique_ptr<FixedKernel> Tap(UInt32 n, UInt32 i, UInt32 j) {
  std::vector<Float> values(static_cast<std::size_t>(n) * n, 0.0);
  values[static_cast<std::size_t>(i) * n + j] = 1.0;
  auto kernel = std::make_unique<FixedKernel>();
  EXPECT_TRUE(kernel->Initialize(n, values.data()));
  return kernel;
}

// The edge rule as a reference: clamp, wrap, or the asymmetric mirror; what one
// reflection cannot reach clamps.
Int ReferenceIndex(Int i, Int n, OUTOFBOUNDSMODE mode) {
  if (i >= 0 && i < n) return i;
  if (mode == OUTOFBOUNDSMODE::TILE) return ((i % n) + n) % n;
  if (mode == OUTOFBOUNDSMODE::MIRROR) return std::clamp<Int>(i < 0 ? -i : 2 * n - i - 1, 0, n - 1);
  return std::clamp<Int>(i, 0, n - 1);
}

// The plain sum: every tap in kernel order. `scale` receives the sum of the
// absolute terms, the size that rounding is relative to.
Grid2D<Float> ReferenceConvolution(const Grid2D<Float>& s, const BaseKernel& kernel, OUTOFBOUNDSMODE mode,
                                   Grid2D<Float>* scale = nullptr) {
  Grid2D<Float> d;
  EXPECT_TRUE(d.InitFrom(s));
  if (scale != nullptr) {
    EXPECT_TRUE(scale->InitFrom(s));
  }
  const Int n = kernel.Size();
  const Int h = n / 2;
  for (Int y = 0; y < s.Height(); ++y)
    for (Int x = 0; x < s.Width(); ++x) {
      Float sum = 0.0;
      Float magnitude = 0.0;
      for (Int i = 0; i < n; ++i)
        for (Int j = 0; j < n; ++j) {
          const Float term =
              kernel.Values()[static_cast<std::size_t>(i * n + j)] *
              s.Get(ReferenceIndex(x - h + j, s.Width(), mode), ReferenceIndex(y - h + i, s.Height(), mode));
          sum += term;
          magnitude += std::abs(term);
        }
      d.Set(x, y, sum);
      if (scale != nullptr) scale->Set(x, y, magnitude);
    }
  return d;
}

// One separable pass written plainly: taps[k + h] x the clamped neighbour, summed in
// tap order, times `post`.
void ReferencePass(const Grid2D<Float>& in, Grid2D<Float>& out, const std::vector<Float>& taps, Int h, Float post,
                   bool vertical) {
  EXPECT_TRUE(out.InitFrom(in));
  for (Int y = 0; y < in.Height(); ++y)
    for (Int x = 0; x < in.Width(); ++x) {
      Float sum = 0.0;
      for (Int k = -h; k <= h; ++k) {
        const Float sample = vertical ? in.Get(x, std::clamp<Int>(y + k, 0, in.Height() - 1))
                                      : in.Get(std::clamp<Int>(x + k, 0, in.Width() - 1), y);
        sum += taps[static_cast<std::size_t>(k + h)] * sample;
      }
      out.Set(x, y, post * sum);
    }
}

Grid2D<Float> ReferenceBoxBlur(const Grid2D<Float>& g, Int diameter) {
  const Int h = diameter / 2;
  const Float w = 1.0 / static_cast<Float>(diameter);
  Grid2D<Float> t, result;
  const std::vector<Float> taps(static_cast<std::size_t>(2 * h + 1), w);
  ReferencePass(g, t, taps, h, 1.0, true);
  ReferencePass(t, result, taps, h, 1.0, false);
  return result;
}

Grid2D<Float> ReferenceSharpen(const Grid2D<Float>& g, Int size, Float amount) {
  const Int h = size / 2;
  const Float a = OrvelSharpen::CentreWeight(size, amount);
  std::vector<Float> ramp(static_cast<std::size_t>(h + 1));
  for (Int k = 0; k <= h; ++k)
    ramp[static_cast<std::size_t>(k)] = a + (static_cast<Float>(k) / static_cast<Float>(h)) * (-1.0 - a);
  Float outer = 0.0;
  for (Int k = 1; k <= h; ++k) outer += ramp[static_cast<std::size_t>(k)];
  const Float w = 1.0 / (ramp[0] + 2.0 * outer);
  std::vector<Float> taps(static_cast<std::size_t>(2 * h + 1));
  for (Int k = -h; k <= h; ++k) taps[static_cast<std::size_t>(k + h)] = ramp[static_cast<std::size_t>(std::abs(k))];
  Grid2D<Float> t, result;
  ReferencePass(g, t, taps, h, w, true);
  ReferencePass(t, result, taps, h, w, false);
  return result;
}

void ExpectNear(const Grid2D<Float>& actual, const Grid2D<Float>& expected, const Grid2D<Float>* scale,
                const std::string& what) {
  ASSERT_EQ(actual.Width(), expected.Width()) << what;
  ASSERT_EQ(actual.Height(), expected.Height()) << what;
  Int failures = 0;
  for (Int i = 0; i < actual.Count() && failures < 5; ++i) {
    const Float size = std::max(1.0, scale != nullptr ? scale->Values()[i] : std::abs(expected.Values()[i]));
    if (!(std::abs(actual.Values()[i] - expected.Values()[i]) <= kRelative * size)) {
      ADD_FAILURE() << what << ": sample " << i << " is " << actual.Values()[i] << ", expected "
                    << expected.Values()[i];
      ++failures;
    }
  }
}

void ExpectIdentical(const Grid2D<Float>& actual, const Grid2D<Float>& expected, const std::string& what) {
  ASSERT_EQ(actual.Count(), expected.Count()) << what;
  for (Int i = 0; i < actual.Count(); ++i)
    ASSERT_EQ(actual.Values()[i], expected.Values()[i]) << what << ": sample " << i;
}

Grid2D<Float> Copy(const Grid2D<Float>& grid) {
  Grid2D<Float> copy;
  EXPECT_TRUE(copy.CopyFrom(grid));
  return copy;
}

TEST(ConvolutionTest, FixedPresetKernelsHoldTheirExactValues) {
  PresetKernels::GaussBlur3x3 gauss3;
  ASSERT_TRUE(gauss3.Initialize(3));
  EXPECT_EQ(gauss3.Size(), 3u);
  const std::vector<Float> expected3 = {0.0625, 0.125, 0.0625, 0.125, 0.25, 0.125, 0.0625, 0.125, 0.0625};
  EXPECT_EQ(std::vector<Float>(gauss3.Values().begin(), gauss3.Values().end()), expected3);

  PresetKernels::GaussBlur5x5 gauss5;
  ASSERT_TRUE(gauss5.Initialize(5));
  EXPECT_EQ(gauss5.Size(), 5u);
  const std::vector<Float> expected5 = {0.00390625, 0.015625, 0.0234375, 0.015625, 0.00390625,  //
                                        0.015625,   0.0625,   0.09375,   0.0625,   0.015625,    //
                                        0.0234375,  0.09375,  0.140625,  0.09375,  0.0234375,   //
                                        0.015625,   0.0625,   0.09375,   0.0625,   0.015625,    //
                                        0.00390625, 0.015625, 0.0234375, 0.015625, 0.00390625};
  EXPECT_EQ(std::vector<Float>(gauss5.Values().begin(), gauss5.Values().end()), expected5);

  PresetKernels::Sharpen3x3 sharpen;
  ASSERT_TRUE(sharpen.Initialize(3));
  const std::vector<Float> expectedSharpen = {0.0, -1.0, 0.0, -1.0, 5.0, -1.0, 0.0, -1.0, 0.0};
  EXPECT_EQ(std::vector<Float>(sharpen.Values().begin(), sharpen.Values().end()), expectedSharpen);

  PresetKernels::UnsharpMask5x5 unsharp;
  ASSERT_TRUE(unsharp.Initialize(5));
  EXPECT_EQ(unsharp.Size(), 5u);
  for (std::size_t i = 0; i < 25; ++i) {
    const Float expected = i == 12 ? 1.859375 : -expected5[i];
    EXPECT_EQ(unsharp.Values()[i], expected) << i;
  }
  Float sum = 0.0;
  for (const Float v : unsharp.Values()) sum += v;
  EXPECT_EQ(sum, 1.0);
}

TEST(ConvolutionTest, GaussBlurAndUnsharpMaskFollowTheSampledGaussian) {
  for (const UInt32 r : {1u, 2u, 3u, 8u}) {
    PresetKernels::GaussBlur gauss;
    ASSERT_TRUE(gauss.Build(r, nullptr));
    const UInt32 n = 2 * r + 1;
    ASSERT_EQ(gauss.Size(), n);
    ASSERT_EQ(gauss.Values().size(), static_cast<std::size_t>(n) * n);
    Float sum = 0.0;
    for (const Float v : gauss.Values()) sum += v;
    EXPECT_NEAR(sum, 1.0, 1e-14) << r;
    // value ~ exp(-0.5 b^2) exp(-0.5 a^2) with a, b = offset / (r / 2): ratios to the centre.
    const Float centre = gauss.Values()[static_cast<std::size_t>(n * n / 2)];
    const Float a = static_cast<Float>(r) / (static_cast<Float>(r) * 0.5);  // outermost offset: 2
    EXPECT_NEAR(gauss.Values()[static_cast<std::size_t>(r)] / centre, std::exp(-0.5 * a * a), 1e-14);
    EXPECT_NEAR(gauss.Values()[0] / centre, std::exp(-a * a), 1e-14);

    PresetKernels::UnsharpMask unsharp;
    ASSERT_TRUE(unsharp.Initialize(r));
    ASSERT_EQ(unsharp.Size(), n);
    Float unsharpSum = 0.0;
    for (std::size_t i = 0; i < unsharp.Values().size(); ++i) {
      unsharpSum += unsharp.Values()[i];
      // 2 delta - g / S: the Gaussian blur's values negated, 2 added at the centre.
      const Float expected = (i == n * n / 2 ? 2.0 : 0.0) - gauss.Values()[i];
      EXPECT_NEAR(unsharp.Values()[i], expected, 1e-14) << r << " " << i;
    }
    EXPECT_NEAR(unsharpSum, 1.0, 1e-14) << r;
  }
}

TEST(ConvolutionTest, RadiusZeroGaussianIsNotANumberAndInitializeRefusesSizeZero) {
  PresetKernels::GaussBlur gauss;
  ASSERT_TRUE(gauss.Build(0, nullptr));
  ASSERT_EQ(gauss.Size(), 1u);
  EXPECT_TRUE(std::isnan(gauss.Values()[0]));
  const Grid2D<Float> source = RandomGrid(4, 3, 1);
  Grid2D<Float> destination;
  ASSERT_TRUE(Convolve(source, destination, gauss, OUTOFBOUNDSMODE::MIRROR));
  for (const Float v : destination.Values()) EXPECT_TRUE(std::isnan(v));

  PresetKernels::UnsharpMask unsharp;
  const Status refused = unsharp.Initialize(0);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().message, "Can't initialize kernel with size 0!");
  PresetKernels::GaussBlur3x3 fixed;
  EXPECT_EQ(fixed.Initialize(0).error().message, "Can't initialize kernel with size 0!");
}

TEST(ConvolutionTest, SharpenKernelIsARampFromItsTwoValues) {
  OrvelSharpen::SharpenKernel kernel;
  const Status missing = kernel.Initialize(5, nullptr);
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().message, "Data pointer must not be NULL!");
  EXPECT_EQ(kernel.Initialize(0, nullptr).error().message, "Can't initialize kernel with size 0!");

  const Float ends[2] = {1.5, -1.0};
  ASSERT_TRUE(kernel.Initialize(5, ends));
  EXPECT_EQ(kernel.Size(), 5u);
  EXPECT_EQ(std::vector<Float>(kernel.Values().begin(), kernel.Values().end()), (std::vector<Float>{1.5, 0.25, -1.0}));
  ASSERT_TRUE(kernel.Initialize(8, ends));  // n / 2 + 1 values
  EXPECT_EQ(kernel.Values().size(), 5u);
  EXPECT_EQ(kernel.Values()[4], -1.0);
  ASSERT_TRUE(kernel.Initialize(1, ends));  // the ramp divides 0 by 0
  ASSERT_EQ(kernel.Values().size(), 1u);
  EXPECT_TRUE(std::isnan(kernel.Values()[0]));

  EXPECT_EQ(OrvelSharpen::CentreWeight(3, 0.0), 5.0);
  EXPECT_EQ(OrvelSharpen::CentreWeight(3, 1.0), 3.0);
  EXPECT_EQ(OrvelSharpen::CentreWeight(3, 0.5), 4.0);
  EXPECT_EQ(OrvelSharpen::CentreWeight(9, 0.0), 3.0);  // t0 = 1
  EXPECT_EQ(OrvelSharpen::CentreWeight(9, 1.0), 1.5);  // 1.5 exactly
  EXPECT_EQ(OrvelSharpen::CentreWeight(3, 7.0), 1.5);  // never below 1.5
  EXPECT_EQ(OrvelSharpen::CentreWeight(65, 0.0), 1.5);
}

TEST(ConvolutionTest, EdgeModesClampWrapAndMirrorAsymmetrically) {
  // Source values 10 x column + row, on a 4 x 3 grid.
  const Grid2D<Float> s = MakeGrid(4, 3, [](Int x, Int y) { return static_cast<Float>(10 * x + y); });
  Grid2D<Float> d;
  const auto at = [&](const std::unique_ptr<FixedKernel>& kernel, OUTOFBOUNDSMODE mode, Int x, Int y) {
    EXPECT_TRUE(Convolve(s, d, *kernel, mode));
    return d.Get(x, y);
  };
  // Kernel column 0 of a 3 x 3 reads x - 1; column 2 reads x + 1.
  const std::unique_ptr<FixedKernel> left = Tap(3, 1, 0);
  const std::unique_ptr<FixedKernel> right = Tap(3, 1, 2);
  EXPECT_EQ(at(left, OUTOFBOUNDSMODE::CLAMP, 0, 1), 1.0);
  EXPECT_EQ(at(left, OUTOFBOUNDSMODE::TILE, 0, 1), 31.0);
  EXPECT_EQ(at(left, OUTOFBOUNDSMODE::MIRROR, 0, 1), 11.0);  // -1 reads 1: the border is not repeated
  EXPECT_EQ(at(left, OUTOFBOUNDSMODE::NONE, 0, 1), 1.0);     // clamps
  EXPECT_EQ(at(right, OUTOFBOUNDSMODE::CLAMP, 3, 1), 31.0);
  EXPECT_EQ(at(right, OUTOFBOUNDSMODE::TILE, 3, 1), 1.0);
  EXPECT_EQ(at(right, OUTOFBOUNDSMODE::MIRROR, 3, 1), 31.0);  // 4 reads 3: the border is repeated
  EXPECT_EQ(at(right, OUTOFBOUNDSMODE::MIRROR, 2, 1), 31.0);  // inside
  // Rows the same way: kernel row 0 reads y - 1.
  const std::unique_ptr<FixedKernel> up = Tap(3, 0, 1);
  const std::unique_ptr<FixedKernel> down = Tap(3, 2, 1);
  EXPECT_EQ(at(up, OUTOFBOUNDSMODE::MIRROR, 2, 0), 21.0);
  EXPECT_EQ(at(up, OUTOFBOUNDSMODE::TILE, 2, 0), 22.0);
  EXPECT_EQ(at(down, OUTOFBOUNDSMODE::MIRROR, 2, 2), 22.0);
  EXPECT_EQ(at(down, OUTOFBOUNDSMODE::TILE, 2, 2), 20.0);
  // Two steps out: -2 reads 2, N + 1 reads N - 2.
  const std::unique_ptr<FixedKernel> farLeft = Tap(5, 2, 0);
  const std::unique_ptr<FixedKernel> farRight = Tap(5, 2, 4);
  EXPECT_EQ(at(farLeft, OUTOFBOUNDSMODE::MIRROR, 0, 0), 20.0);
  EXPECT_EQ(at(farLeft, OUTOFBOUNDSMODE::MIRROR, 1, 0), 10.0);
  EXPECT_EQ(at(farRight, OUTOFBOUNDSMODE::MIRROR, 3, 0), 20.0);
  EXPECT_EQ(at(farRight, OUTOFBOUNDSMODE::MIRROR, 2, 0), 30.0);
  EXPECT_EQ(at(farRight, OUTOFBOUNDSMODE::TILE, 3, 0), 10.0);

  // A grid smaller than the reflection: 2 columns, -2 reflects to 2 and clamps to 1.
  const Grid2D<Float> tiny = MakeGrid(2, 1, [](Int x, Int) { return static_cast<Float>(x + 1); });
  ASSERT_TRUE(Convolve(tiny, d, *farLeft, OUTOFBOUNDSMODE::MIRROR));
  EXPECT_EQ(d.Get(0, 0), 2.0);
  EXPECT_EQ(d.Get(1, 0), 2.0);  // -1 reads 1
  ASSERT_TRUE(Convolve(tiny, d, *farRight, OUTOFBOUNDSMODE::MIRROR));
  EXPECT_EQ(d.Get(0, 0), 2.0);  // 2 reads 1
  EXPECT_EQ(d.Get(1, 0), 1.0);  // 3 reads 0
  ASSERT_TRUE(Convolve(tiny, d, *farLeft, OUTOFBOUNDSMODE::TILE));
  EXPECT_EQ(d.Get(0, 0), 1.0);
  EXPECT_EQ(d.Get(1, 0), 2.0);
}

TEST(ConvolutionTest, TheDirectPathIsExactlyTheSumOverEveryTap) {
  const Grid2D<Float> s = RandomGrid(37, 23, 7);
  PresetKernels::GaussBlur3x3 gauss3;
  PresetKernels::GaussBlur5x5 gauss5;
  PresetKernels::Sharpen3x3 sharpen;
  PresetKernels::UnsharpMask5x5 unsharp5;
  PresetKernels::GaussBlur gauss3r;
  ASSERT_TRUE(gauss3.Initialize(3));
  ASSERT_TRUE(gauss5.Initialize(5));
  ASSERT_TRUE(sharpen.Initialize(3));
  ASSERT_TRUE(unsharp5.Initialize(5));
  ASSERT_TRUE(gauss3r.Build(3, nullptr));
  const BaseKernel* kernels[] = {&gauss3, &gauss5, &sharpen, &unsharp5};
  for (const OUTOFBOUNDSMODE mode : {OUTOFBOUNDSMODE::CLAMP, OUTOFBOUNDSMODE::TILE, OUTOFBOUNDSMODE::MIRROR}) {
    for (const BaseKernel* kernel : kernels) {
      Grid2D<Float> d;
      ASSERT_TRUE(Convolve(s, d, *kernel, mode));
      ExpectIdentical(d, ReferenceConvolution(s, *kernel, mode), "fixed kernel");
    }
    Grid2D<Float> d;
    ASSERT_TRUE(Convolve(s, d, gauss3r, mode, ConvolutionPath::DIRECT));
    ExpectIdentical(d, ReferenceConvolution(s, gauss3r, mode), "direct Gaussian");
    // An even size reaches one sample further before the centre than after it.
    std::vector<Float> even(16);
    for (std::size_t i = 0; i < even.size(); ++i) even[i] = static_cast<Float>(i) - 7.5;
    FixedKernel evenKernel;
    ASSERT_TRUE(evenKernel.Initialize(4, even.data()));
    ASSERT_TRUE(Convolve(s, d, evenKernel, mode));
    ExpectIdentical(d, ReferenceConvolution(s, evenKernel, mode), "even kernel");
  }
}

TEST(ConvolutionTest, SeparableGaussianAndUnsharpMaskEqualTheDirectSum) {
  const Grid2D<Float> grids[] = {RandomGrid(61, 47, 3), RandomGrid(5, 3, 4), RandomGrid(1, 9, 5)};
  for (const UInt32 r : {2u, 3u, 8u, 20u}) {
    PresetKernels::GaussBlur gauss;
    PresetKernels::UnsharpMask unsharp;
    ASSERT_TRUE(gauss.Build(r, nullptr));
    ASSERT_TRUE(unsharp.Initialize(r));
    ASSERT_NE(gauss.Separable(), nullptr);
    ASSERT_NE(unsharp.Separable(), nullptr);
    for (const Grid2D<Float>& s : grids)
      for (const OUTOFBOUNDSMODE mode : {OUTOFBOUNDSMODE::CLAMP, OUTOFBOUNDSMODE::TILE, OUTOFBOUNDSMODE::MIRROR})
        for (const BaseKernel* kernel :
             {static_cast<const BaseKernel*>(&gauss), static_cast<const BaseKernel*>(&unsharp)}) {
          Grid2D<Float> scale;
          const Grid2D<Float> expected = ReferenceConvolution(s, *kernel, mode, &scale);
          Grid2D<Float> fast, direct;
          ASSERT_TRUE(Convolve(s, fast, *kernel, mode));
          ASSERT_TRUE(Convolve(s, direct, *kernel, mode, ConvolutionPath::DIRECT));
          const std::string what = "radius " + std::to_string(r) + " on " + std::to_string(s.Width()) + " x " +
                                   std::to_string(s.Height()) + ", mode " + std::to_string(static_cast<int>(mode));
          ExpectNear(fast, expected, &scale, "separable " + what);
          ExpectIdentical(direct, expected, "direct " + what);
        }
  }
}

TEST(ConvolutionTest, ConstantGridsAreKeptByEveryKernelAndFilter) {
  const Grid2D<Float> constant = ConstantGrid(9, 7, 3.5);
  std::vector<std::unique_ptr<BaseKernel>> kernels;
  kernels.push_back(std::make_unique<PresetKernels::GaussBlur3x3>());
  kernels.push_back(std::make_unique<PresetKernels::GaussBlur5x5>());
  kernels.push_back(std::make_unique<PresetKernels::Sharpen3x3>());
  kernels.push_back(std::make_unique<PresetKernels::UnsharpMask5x5>());
  for (auto& kernel : kernels) ASSERT_TRUE(kernel->Initialize(1));  // the fixed kernels ignore the size
  for (const UInt32 r : {1u, 4u, 12u}) {
    kernels.push_back(std::make_unique<PresetKernels::GaussBlur>());
    ASSERT_TRUE(kernels.back()->Build(r, nullptr));
    kernels.push_back(std::make_unique<PresetKernels::UnsharpMask>());
    ASSERT_TRUE(kernels.back()->Initialize(r));
  }
  for (const auto& kernel : kernels)
    for (const OUTOFBOUNDSMODE mode : {OUTOFBOUNDSMODE::CLAMP, OUTOFBOUNDSMODE::TILE, OUTOFBOUNDSMODE::MIRROR}) {
      Grid2D<Float> d;
      ASSERT_TRUE(Convolve(constant, d, *kernel, mode));
      for (const Float v : d.Values()) ASSERT_NEAR(v, 3.5, 1e-12) << "kernel of size " << kernel->Size();
    }
  for (const Int diameter : {1, 3, 5, 9, 101}) {
    Grid2D<Float> g = Copy(constant);
    ASSERT_TRUE(BoxBlur(g, diameter));
    for (const Float v : g.Values()) ASSERT_NEAR(v, 3.5, 1e-12) << "box " << diameter;
  }
  for (const Int size : {3, 4, 5, 9, 65})
    for (const Float amount : {0.0, 0.5, 1.0, 3.0}) {
      // A ramp whose taps sum to 0 has the weight 0 and gives zeros (sizes 4 and 5 once their
      // centre is 1.5).
      const bool flat = (size == 4 || size == 5) && amount >= 3.0;
      Grid2D<Float> g = Copy(constant);
      ASSERT_TRUE(SeparableSharpen(g, size, amount));
      for (const Float v : g.Values()) ASSERT_NEAR(v, flat ? 0.0 : 3.5, 1e-12) << "sharpen " << size << " " << amount;
    }
}

TEST(ConvolutionTest, BoxBlurEqualsTheDirectSumsOfBothPasses) {
  // 530 x 520 has more than 500 rows (all threads), two column tiles and several restarts.
  const Grid2D<Float> big = RandomGrid(530, 520, 11);
  const Grid2D<Float> small = RandomGrid(7, 5, 12);
  const Grid2D<Float> column = RandomGrid(1, 6, 13);
  const std::pair<const Grid2D<Float>*, std::vector<Int>> cases[] = {
      {&big, {3, 5, 65}}, {&small, {3, 5, 9, 21, 301}}, {&column, {5, 13}}};
  for (const auto& [grid, diameters] : cases)
    for (const Int d : diameters) {
      Grid2D<Float> inPlace = Copy(*grid);
      ASSERT_TRUE(BoxBlur(inPlace, d));
      Grid2D<Float> outOfPlace;
      ASSERT_TRUE(BoxBlur(*grid, outOfPlace, d));
      const Grid2D<Float> expected = ReferenceBoxBlur(*grid, d);
      const std::string what = "diameter " + std::to_string(d) + " on " + std::to_string(grid->Width()) + " x " +
                               std::to_string(grid->Height());
      if (d == 3)
        ExpectIdentical(inPlace, expected, what);  // the direct path
      else
        ExpectNear(inPlace, expected, nullptr, what);
      ExpectIdentical(outOfPlace, inPlace, what + " out of place");
    }
}

TEST(ConvolutionTest, SeparableSharpenEqualsTheDirectSumsOfBothPasses) {
  const Grid2D<Float> big = RandomGrid(530, 520, 21);
  const Grid2D<Float> small = RandomGrid(7, 5, 22);
  const std::pair<const Grid2D<Float>*, std::vector<Int>> cases[] = {{&big, {3, 5, 65}}, {&small, {3, 4, 5, 9, 41}}};
  for (const auto& [grid, sizes] : cases)
    for (const Int size : sizes)
      for (const Float amount : {0.0, 0.3, 1.0}) {
        if (grid == &big && amount == 0.3) continue;
        Grid2D<Float> inPlace = Copy(*grid);
        ASSERT_TRUE(SeparableSharpen(inPlace, size, amount));
        Grid2D<Float> outOfPlace;
        ASSERT_TRUE(SeparableSharpen(*grid, outOfPlace, size, amount));
        const Grid2D<Float> expected = ReferenceSharpen(*grid, size, amount);
        const std::string what = "size " + std::to_string(size) + " amount " + std::to_string(amount) + " on " +
                                 std::to_string(grid->Width()) + " x " + std::to_string(grid->Height());
        if (size == 3)
          ExpectIdentical(inPlace, expected, what);  // the direct path
        else
          ExpectNear(inPlace, expected, nullptr, what);
        ExpectIdentical(outOfPlace, inPlace, what + " out of place");
      }
}

TEST(ConvolutionTest, BoxBlurAndSharpenKeepTheirDegenerateCases) {
  const Grid2D<Float> source = RandomGrid(6, 5, 31);
  Grid2D<Float> g = Copy(source);
  ASSERT_TRUE(BoxBlur(g, 1));  // radius 0: w = 1, one tap
  ExpectIdentical(g, source, "diameter 1");
  for (const Int diameter : {0, -1, -3, -4, -11}) {  // no tap, or weight 0: zeros
    g = Copy(source);
    ASSERT_TRUE(BoxBlur(g, diameter));
    for (const Float v : g.Values()) ASSERT_EQ(v, 0.0) << diameter;
  }
  g = Copy(source);
  ASSERT_TRUE(SeparableSharpen(g, 1, 0.0));
  for (const Float v : g.Values()) ASSERT_TRUE(std::isnan(v));
  g = Copy(source);
  EXPECT_EQ(SeparableSharpen(g, 0, 0.0).error().message, "Can't initialize kernel with size 0!");
  EXPECT_EQ(SeparableSharpen(g, -3, 0.0).error().message, "Can't initialize kernel with a negative size!");

  Grid2D<Float> empty;
  ASSERT_TRUE(empty.Init(0, 4, 1.0, 1.0));
  EXPECT_EQ(BoxBlur(empty, 5).error().message, "Can't BluxBlur a grid with size 0!");
  EXPECT_EQ(SeparableSharpen(empty, 0, 0.0).error().message, "Can't sharpen a grid with size 0!");
  Grid2D<Float> destination;
  EXPECT_EQ(BoxBlur(empty, destination, 5).error().message, "Can't BluxBlur a grid with size 0!");
  EXPECT_EQ(SeparableSharpen(empty, destination, 5, 0.0).error().message, "Can't sharpen a grid with size 0!");
  ASSERT_TRUE(Convolve(empty, destination, PresetKernels::GaussBlur3x3{}, OUTOFBOUNDSMODE::MIRROR));
  EXPECT_TRUE(destination.IsEmpty());
}

TEST(ConvolutionTest, ConvolveRefusesAliasesAndKernelsOfTheWrongShape) {
  Grid2D<Float> g = RandomGrid(4, 4, 41);
  PresetKernels::GaussBlur3x3 gauss;
  ASSERT_TRUE(gauss.Initialize(3));
  EXPECT_EQ(Convolve(g, g, gauss, OUTOFBOUNDSMODE::MIRROR).error().message,
            "Source and destination must be different grids!");
  OrvelSharpen::SharpenKernel ramp;
  const Float ends[2] = {5.0, -1.0};
  ASSERT_TRUE(ramp.Initialize(3, ends));
  Grid2D<Float> d;
  EXPECT_FALSE(Convolve(g, d, ramp, OUTOFBOUNDSMODE::MIRROR));
}

TEST(ConvolutionTest, ABreakStopsThePassesWithTheirMessage) {
  CancellationToken cancelled;
  cancelled.Cancel();
  const Grid2D<Float> source = RandomGrid(12, 9, 51);
  for (const Int diameter : {3, 9}) {  // the direct and the sliding pass
    Grid2D<Float> g = Copy(source);
    const Status status = BoxBlur(g, diameter, &cancelled);
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().message, "Vertical BoxBlur pass cancelled!");
    EXPECT_EQ(status.error().kind, ErrorKind::Cancelled);
  }
  for (const Int size : {3, 9}) {
    Grid2D<Float> g = Copy(source);
    const Status status = SeparableSharpen(g, size, 0.0, &cancelled);
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().message, "Vertical Sharpen pass cancelled!");
    EXPECT_EQ(status.error().kind, ErrorKind::Cancelled);
  }
  // Row 0 never tests (0 & 999 is 0): a one-row grid cannot be cancelled.
  const Grid2D<Float> row = RandomGrid(12, 1, 52);
  for (const Int diameter : {3, 9}) {
    Grid2D<Float> g = Copy(row);
    EXPECT_TRUE(BoxBlur(g, diameter, &cancelled));
    EXPECT_TRUE(SeparableSharpen(g, diameter, 0.0, &cancelled));
  }
}

TEST(ConvolutionTest, ResultsDoNotDependOnTheNumberOfThreads) {
  const Grid2D<Float> source = RandomGrid(300, 620, 61);
  PresetKernels::GaussBlur gauss;
  ASSERT_TRUE(gauss.Build(4, nullptr));
  const auto run = [&](int threads) {
    const platform::ScopedThreadLimit limit(threads);
    std::vector<Grid2D<Float>> results(3);
    EXPECT_TRUE(BoxBlur(source, results[0], 9));
    EXPECT_TRUE(SeparableSharpen(source, results[1], 9, 0.5));
    EXPECT_TRUE(Convolve(source, results[2], gauss, OUTOFBOUNDSMODE::MIRROR));
    return results;
  };
  const std::vector<Grid2D<Float>> one = run(1);
  const std::vector<Grid2D<Float>> all = run(std::max(2, platform::MaxThreads()));
  for (std::size_t i = 0; i < one.size(); ++i) ExpectIdentical(all[i], one[i], "result " + std::to_string(i));
}

}  // namespace
