#include "vellgrund/convolution.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "platform/parallel.h"
#include "support/operator_fixture.h"

namespace {

using namespace VLGD;
using namespace VLGD::Convolution;
using namespace testing_support;
using platform::CancellationToken;
using platform::ErrorKind;
using platform::ScopedThreadLimit;

constexpr OUTOFBOUNDSMODE kModes[] = {OUTOFBOUNDSMODE::NONE, OUTOFBOUNDSMODE::CLAMP, OUTOFBOUNDSMODE::TILE,
                                      OUTOFBOUNDSMODE::MIRROR};

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

// ---- The sliding passes as plain scalar loops, restarts included --------------------------

// One line of `count` samples `stride` apart, clamped at its ends.
struct Line {
  const Float* in;
  Float* out;
  Int count;
  Int stride;
  [[nodiscard]] Float At(Int i) const { return in[std::clamp<Int>(i, 0, count - 1) * stride]; }
  Float& Out(Int i) const { return out[i * stride]; }
};

// The sums start afresh every `period` samples: that is what fixes their rounding.
Int Period(Int half) {
  return std::max<Int>(256, 4 * (2 * half + 1));
}

void BoxLine(const Line& line, Int half, Float w) {
  for (Int start = 0; start < line.count; start += Period(half)) {
    Float sum = 0.0;
    for (Int t = std::max<Int>(0, start - half); t <= std::min(line.count - 1, start + half); ++t) sum += line.At(t);
    sum += static_cast<Float>(std::max<Int>(0, half - start)) * line.At(0) +
           static_cast<Float>(std::max<Int>(0, start + half - (line.count - 1))) * line.At(line.count - 1);
    for (Int c = start; c < std::min(line.count, start + Period(half)); ++c) {
      line.Out(c) = w * sum;
      sum += line.At(c + half + 1) - line.At(c - half);
    }
  }
}

// The ramp a + delta |k| as a box and a tent sum over a ring of forward sums (Rows::Ramp).
void RampLine(const Line& line, Int half, Float a, Float delta, Float w) {
  const Float boxWeight = a + delta * static_cast<Float>(half + 1);
  std::vector<Float> ring(static_cast<std::size_t>(half + 1));
  for (Int start = 0; start < line.count; start += Period(half)) {
    Float forward = 0.0;
    for (Int t = std::max<Int>(0, start - half); t <= start; ++t) forward += line.At(t);
    forward += static_cast<Float>(std::max<Int>(0, half - start)) * line.At(0);
    ring[0] = forward;
    Float tent = forward;
    for (Int t = 1; t <= half; ++t) {
      forward += line.At(start + t) - line.At(start - half - 1 + t);
      ring[static_cast<std::size_t>(t)] = forward;
      tent += forward;
    }
    for (Int c = start; c < std::min(line.count, start + Period(half)); ++c) {
      Float& oldest = ring[static_cast<std::size_t>((c - start) % (half + 1))];
      const Float add = line.At(c + half + 1);
      const Float next = forward + add - line.At(c);
      line.Out(c) = w * (boxWeight * (oldest + next - add) - delta * tent);
      tent += next - oldest;
      oldest = forward = next;
    }
  }
}

// `pass` down every column, then along every row.
template <class Pass>
Grid2D<Float> ColumnsThenRows(const Grid2D<Float>& g, Pass pass) {
  Grid2D<Float> mid, out;
  EXPECT_TRUE(mid.InitFrom(g) && out.InitFrom(g));
  for (Int x = 0; x < g.Width(); ++x) pass(Line{g.Data() + x, mid.Data() + x, g.Height(), g.Width()});
  for (Int y = 0; y < g.Height(); ++y) pass(Line{mid.Data() + y * g.Width(), out.Data() + y * g.Width(), g.Width(), 1});
  return out;
}

// The separable form: the weighted column sums of a padded row, then the weighted row sums.
Grid2D<Float> ReferenceSeparable(const Grid2D<Float>& s, const SeparableForm& form, OUTOFBOUNDSMODE mode) {
  Grid2D<Float> d;
  EXPECT_TRUE(d.InitFrom(s));
  const Int n = static_cast<Int>(form.row.size());
  std::vector<Float> middle(static_cast<std::size_t>(s.Width()));
  for (Int y = 0; y < s.Height(); ++y) {
    for (Int x = 0; x < s.Width(); ++x) {
      Float sum = 0.0;
      for (Int i = 0; i < n; ++i)
        sum += form.column[static_cast<std::size_t>(i)] * s.Get(x, ReferenceIndex(y - n / 2 + i, s.Height(), mode));
      middle[static_cast<std::size_t>(x)] = sum;
    }
    for (Int x = 0; x < s.Width(); ++x) {
      Float sum = form.centre * s.Get(x, y);
      for (Int j = 0; j < n; ++j)
        sum += form.row[static_cast<std::size_t>(j)] *
               middle[static_cast<std::size_t>(ReferenceIndex(x - n / 2 + j, s.Width(), mode))];
      d.Set(x, y, sum);
    }
  }
  return d;
}

::testing::AssertionResult SameBits(const Grid2D<Float>& actual, const Grid2D<Float>& expected) {
  if (actual.Count() != expected.Count()) return ::testing::AssertionFailure() << "shapes differ";
  for (Int i = 0; i < actual.Count(); ++i)
    if (std::memcmp(actual.Data() + i, expected.Data() + i, sizeof(Float)) != 0)
      return ::testing::AssertionFailure() << "sample " << i << " (" << i % actual.Width() << ", " << i / actual.Width()
                                           << ") is " << actual.Data()[i] << ", expected " << expected.Data()[i];
  return ::testing::AssertionSuccess();
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

  // Size 9 starts from t0 = 1; no amount takes the weight below 1.5.
  for (const auto& [size, amount, weight] :
       {std::tuple{3, 0.0, 5.0}, {3, 0.5, 4.0}, {9, 0.0, 3.0}, {9, 1.0, 1.5}, {3, 7.0, 1.5}})
    EXPECT_EQ(OrvelSharpen::CentreWeight(size, amount), weight) << size << " " << amount;
}

// The Gaussian of radius 0 (0 / 0 everywhere) and the unsharp mask of size 0 are the blur
// and sharpen operators' to keep, and their tests hold them.
TEST(ConvolutionTest, KernelsKeepTheirDegenerateCases) {
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
  Grid2D<Float> destination;
  EXPECT_FALSE(Convolve(g, destination, ramp, OUTOFBOUNDSMODE::MIRROR));
}

// Every kernel against the plain sum in every edge mode, on grids down to a two-sample row
// that the mirror reaches past (where it clamps). The direct path sums exactly as the plain
// sum; the separable form of the Gaussian and the unsharp mask, taken where there is one,
// agrees to rounding.
TEST(ConvolutionTest, EveryPathEqualsTheSumOverEveryTapInEveryEdgeMode) {
  PresetKernels::GaussBlur3x3 gauss3;
  PresetKernels::GaussBlur5x5 gauss5;
  PresetKernels::Sharpen3x3 sharpen;
  PresetKernels::UnsharpMask5x5 unsharp5;
  FixedKernel even;  // reaches one sample further before the centre than after it
  std::vector<Float> values(16);
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = static_cast<Float>(i) - 7.5;
  ASSERT_TRUE(gauss3.Initialize(3) && gauss5.Initialize(5) && sharpen.Initialize(3) && unsharp5.Initialize(5) &&
              even.Initialize(4, values.data()));
  std::vector<const BaseKernel*> kernels = {&gauss3, &gauss5, &sharpen, &unsharp5, &even};
  const UInt32 radii[] = {2, 3, 8, 20};
  PresetKernels::GaussBlur gauss[4];
  PresetKernels::UnsharpMask unsharp[4];
  for (std::size_t i = 0; i < 4; ++i) {
    ASSERT_TRUE(gauss[i].Initialize(radii[i]) && unsharp[i].Initialize(radii[i]));
    ASSERT_TRUE(gauss[i].Separable() != nullptr && unsharp[i].Separable() != nullptr);
    kernels.insert(kernels.end(), {&gauss[i], &unsharp[i]});
  }
  for (const Grid2D<Float>& s :
       {RandomGrid(61, 47, 3), RandomGrid(5, 3, 4), RandomGrid(1, 9, 5), Row({1.0, 2.0}), RandomGrid(1, 3, 8)})
    for (const OUTOFBOUNDSMODE mode : kModes)
      for (const BaseKernel* kernel : kernels) {
        SCOPED_TRACE(testing::Message() << s.Width() << " x " << s.Height() << ", mode " << static_cast<int>(mode)
                                        << ", kernel " << kernel->Size());
        Grid2D<Float> scale;
        const Grid2D<Float> expected = ReferenceConvolution(s, *kernel, mode, &scale);
        Grid2D<Float> direct, automatic;
        ASSERT_TRUE(Convolve(s, direct, *kernel, mode, ConvolutionPath::DIRECT));
        EXPECT_TRUE(Identical(direct, expected));
        ASSERT_TRUE(Convolve(s, automatic, *kernel, mode));
        if (kernel->Separable() == nullptr) {
          EXPECT_TRUE(Identical(automatic, expected));
        } else {
          ExpectNear(automatic, expected, &scale, "separable");
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

// Every SIMD target gives the scalar loops' bits, in place and not, on one thread and two:
// grids down to a sample, restarts in both directions (more than 256 rows and columns), more
// than 500 rows (several workers), and a grid large enough for the streamed stores.
TEST(ConvolutionTest, EveryTargetGivesTheBitsOfTheScalarLoops) {
  struct Filter {
    std::string name;
    std::function<Status(const Grid2D<Float>&, Grid2D<Float>&)> run;
    std::function<Status(Grid2D<Float>&)> inPlace;  // none for Convolve
    std::function<Grid2D<Float>(const Grid2D<Float>&)> reference;
  };
  std::vector<Filter> filters;
  for (const Int d : {1, 2, 4, 5, 6, 9, 65}) {
    const Int half = d / 2;
    const Float w = 1.0 / static_cast<Float>(d);
    filters.push_back({"box " + std::to_string(d), [=](const auto& s, auto& t) { return BoxBlur(s, t, d); },
                       [=](auto& g) { return BoxBlur(g, d); },
                       [=](const auto& g) {
                         return half < 2 ? ReferenceBoxBlur(g, d)
                                         : ColumnsThenRows(g, [&](const Line& line) { BoxLine(line, half, w); });
                       }});
  }
  for (const auto& [size, amount] : {std::pair<Int, Float>{4, 0.0}, {5, 1.0}, {9, 0.3}, {41, 0.5}}) {
    const Int half = size / 2;
    OrvelSharpen::SharpenKernel ramp;
    const Float ends[2] = {OrvelSharpen::CentreWeight(size, amount), -1.0};
    EXPECT_TRUE(ramp.Initialize(static_cast<UInt32>(size), ends));
    Float outer = 0.0;
    for (Int k = 1; k <= half; ++k) outer += ramp.Values()[static_cast<std::size_t>(k)];
    const Float w = 1.0 / (ramp.Values()[0] + 2.0 * outer);
    const Float delta = (-1.0 - ends[0]) / static_cast<Float>(half);
    filters.push_back({"sharpen " + std::to_string(size),
                       [=](const auto& s, auto& t) { return SeparableSharpen(s, t, size, amount); },
                       [=](auto& g) { return SeparableSharpen(g, size, amount); },
                       [=](const auto& g) {
                         return ColumnsThenRows(g, [&](const Line& line) { RampLine(line, half, ends[0], delta, w); });
                       }});
  }
  std::vector<std::unique_ptr<BaseKernel>> kernels;
  for (const auto& [radius, unsharp, mode] : {std::tuple{2u, false, OUTOFBOUNDSMODE::MIRROR},
                                              {8u, false, OUTOFBOUNDSMODE::TILE},
                                              {3u, true, OUTOFBOUNDSMODE::CLAMP}}) {
    kernels.push_back(unsharp ? std::unique_ptr<BaseKernel>(std::make_unique<PresetKernels::UnsharpMask>())
                              : std::make_unique<PresetKernels::GaussBlur>());
    ASSERT_TRUE(kernels.back()->Initialize(radius));
    const BaseKernel& kernel = *kernels.back();
    filters.push_back({(unsharp ? "unsharp " : "gauss ") + std::to_string(radius),
                       [&kernel, mode](const auto& s, auto& t) { return Convolve(s, t, kernel, mode); }, nullptr,
                       [&kernel, mode](const auto& g) { return ReferenceSeparable(g, *kernel.Separable(), mode); }});
  }

  std::vector<Grid2D<Float>> grids;
  for (const auto& [w, h] : {std::pair<Int, Int>{1, 1}, {1, 9}, {9, 1}, {3, 3}, {17, 5}, {5, 17}, {300, 520}})
    grids.push_back(RandomGrid(w, h, static_cast<unsigned>(w * 1000 + h), -50.0, 50.0));
  for (const Grid2D<Float>& grid : grids)
    for (const Filter& filter : filters) {
      const Grid2D<Float> expected = filter.reference(grid);
      for (const std::int64_t target : hwy::SupportedAndGeneratedTargets()) {
        hwy::SetSupportedTargetsForTest(target);
        for (const int threads : {1, 2}) {
          SCOPED_TRACE(testing::Message() << filter.name << " on " << grid.Width() << " x " << grid.Height() << ", "
                                          << hwy::TargetName(target) << ", " << threads << " threads");
          const ScopedThreadLimit limit(threads);
          Grid2D<Float> result;
          ASSERT_TRUE(filter.run(grid, result));
          EXPECT_TRUE(SameBits(result, expected));
          if (!filter.inPlace) continue;
          Grid2D<Float> inPlace = Copy(grid);
          ASSERT_TRUE(filter.inPlace(inPlace));
          EXPECT_TRUE(SameBits(inPlace, expected));
        }
      }
      hwy::SetSupportedTargetsForTest(0);
    }

  // Past 2^22 samples the Gaussian streams its stores past the cache.
  const Grid2D<Float> large = RandomGrid(2049, 2049, 77, -50.0, 50.0);
  const Filter& gauss = *std::ranges::find(filters, "gauss 2", &Filter::name);
  const Grid2D<Float> expected = gauss.reference(large);
  for (const std::int64_t target : hwy::SupportedAndGeneratedTargets()) {
    hwy::SetSupportedTargetsForTest(target);
    Grid2D<Float> result;
    ASSERT_TRUE(gauss.run(large, result));
    EXPECT_TRUE(SameBits(result, expected)) << hwy::TargetName(target);
  }
  hwy::SetSupportedTargetsForTest(0);
}

}  // namespace
