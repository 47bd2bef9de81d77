#include "vellgrund/blend.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "platform/parallel.h"

namespace VLGD {
namespace {

constexpr Int32 M(BLENDMODE mode) { return static_cast<Int32>(mode); }

Grid2D<Float> MakeGrid(const std::vector<Float>& values) {
  Grid2D<Float> grid;
  EXPECT_TRUE(grid.Init(static_cast<Int>(values.size()), 1, 1.0, 1.0));
  for (std::size_t i = 0; i < values.size(); ++i) grid.Values()[i] = values[i];
  return grid;
}

std::vector<Float> Blend(const std::vector<Float>& base, const std::vector<Float>& result, BlendSettings settings,
                         const std::vector<Float>& mask = {}) {
  Grid2D<Float> baseGrid = MakeGrid(base);
  Grid2D<Float> resultGrid = MakeGrid(result);
  EXPECT_TRUE(Combine(baseGrid, resultGrid, mask, settings));
  return {baseGrid.Values().begin(), baseGrid.Values().end()};
}

BlendSettings Full(BLENDMODE mode) {
  BlendSettings settings;
  settings.strength = 1.0;
  settings.mode = M(mode);
  return settings;
}

TEST(Blend, PointwiseModesAtFullStrength) {
  struct Case {
    BLENDMODE mode;
    Float b, o, expected;
  };
  const Case cases[] = {
      {BLENDMODE::NORMAL, 2, 4, 4},       {BLENDMODE::ADD, 2, 4, 6},          {BLENDMODE::SUBTRACT, 2, 4, -2},
      {BLENDMODE::MULTIPLY, 2, 4, 8},     {BLENDMODE::DIVIDE, 2, 4, 0.5},     {BLENDMODE::LOWEST, 2, 4, 2},
      {BLENDMODE::LOWEST, 5, -1, -1},     {BLENDMODE::HIGHEST, 2, 4, 4},      {BLENDMODE::HIGHEST, 5, -1, 5},
      {BLENDMODE::DIFFERENCE, 2, 4, 2},   {BLENDMODE::DIFFERENCE, 4, 2, 2},   {BLENDMODE::PHOENIX, 2, 4, 1},
      {BLENDMODE::PHOENIXINVERSE, 2, 4, 5}, {BLENDMODE::PHOENIX, 4, 2, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(M(c.mode));
    EXPECT_DOUBLE_EQ(Blend({c.b}, {c.o}, Full(c.mode))[0], c.expected);
  }
}

TEST(Blend, StrengthScaleOffsetAndMask) {
  // Strength 0 leaves every mode's samples alone; NORMAL at full strength copies.
  for (Int32 mode = 0; mode < 15; ++mode) {
    BlendSettings settings;
    settings.mode = mode;
    settings.strength = 0.0;
    EXPECT_EQ(Blend({1.0, 3.0, -2.0}, {0.25, 0.75, 2.0}, settings), (std::vector<Float>{1.0, 3.0, -2.0})) << mode;
  }
  EXPECT_EQ(Blend({1.0, 3.0}, {7.0, -8.0}, Full(BLENDMODE::NORMAL)), (std::vector<Float>{7.0, -8.0}));

  // o = result * scale + offset, then the base moves by strength towards the target.
  BlendSettings settings = Full(BLENDMODE::ADD);
  settings.scale = 2.0;
  settings.offset = 1.0;
  settings.strength = 0.5;
  EXPECT_DOUBLE_EQ(Blend({10.0}, {3.0}, settings)[0], 10.0 + 7.0 * 0.5);

  // The mask scales the strength per sample.
  EXPECT_EQ(Blend({0.0, 0.0, 0.0}, {8.0, 8.0, 8.0}, Full(BLENDMODE::NORMAL), {0.0, 0.5, 1.0}),
            (std::vector<Float>{0.0, 4.0, 8.0}));
}

TEST(Blend, EarlyExitsLeaveSamplesUntouched) {
  // DIVIDE by exactly 0 writes nothing, also at strength 1.
  EXPECT_EQ(Blend({3.0, 3.0}, {0.0, 2.0}, Full(BLENDMODE::DIVIDE)), (std::vector<Float>{3.0, 1.5}));
  BlendSettings offsetToZero = Full(BLENDMODE::DIVIDE);
  offsetToZero.offset = -2.0;
  EXPECT_EQ(Blend({3.0}, {2.0}, offsetToZero)[0], 3.0);
  // Modes outside the enumeration leave the base as it is.
  for (Int32 mode : {-1, 15, 99}) {
    BlendSettings settings;
    settings.mode = mode;
    settings.strength = 1.0;
    EXPECT_EQ(Blend({1.0, 2.0}, {5.0, 6.0}, settings), (std::vector<Float>{1.0, 2.0})) << mode;
  }
}

TEST(Blend, NormalisedModesWorkOnTheBaseRange) {
  // Base 0, 2, 4 normalises to n = 0, 0.5, 1; the operator value is used as it stands.
  const std::vector<Float> base{0.0, 2.0, 4.0};
  auto expectU = [&](BLENDMODE mode, Float o, std::vector<Float> u) {
    SCOPED_TRACE(M(mode));
    const std::vector<Float> blended = Blend(base, {o, o, o}, Full(mode));
    for (std::size_t i = 0; i < u.size(); ++i) EXPECT_NEAR(blended[i], u[i] * 4.0, 1e-12) << i;
  };
  expectU(BLENDMODE::OVERLAY, 0.25, {0.0, 1.0 - 2.0 * 0.75 * 0.5, 1.0});  // n = 0.5 takes the second branch
  expectU(BLENDMODE::HARDLIGHT, 0.25, {0.0, 2.0 * 0.5 * 0.25, 2.0 * 0.25});
  expectU(BLENDMODE::HARDLIGHT, 0.5, {1.0 - 2.0 * 0.5, 1.0 - 2.0 * 0.5 * 0.5, 1.0});  // o = 0.5: second branch
  expectU(BLENDMODE::NEGATION, 0.25, {0.25, 0.75, 0.75});
  expectU(BLENDMODE::SCREEN, 0.25, {0.25, 1.0 - 0.5 * 0.75, 1.0});
  expectU(BLENDMODE::SOFTLIGHT, 0.5, {0.0, 0.5, 1.0});  // o = 0.5: u = n
  expectU(BLENDMODE::SOFTLIGHT, 0.25, {0.0, 0.25 + 0.25 - 0.125, 1.0 + 0.5 - 0.5});

  // A flat base normalises to 0 and maps back onto itself at any strength.
  for (BLENDMODE mode : {BLENDMODE::OVERLAY, BLENDMODE::HARDLIGHT}) {
    BlendSettings settings = Full(mode);
    settings.strength = 0.7;
    EXPECT_EQ(Blend({5.0, 5.0}, {0.3, 0.9}, settings), (std::vector<Float>{5.0, 5.0}));
  }

  // The base range is recomputed from the samples, not taken from a stale cache.
  Grid2D<Float> stale = MakeGrid(base);
  stale.IncludeInRange(-100.0);
  Grid2D<Float> operand = MakeGrid({0.25, 0.25, 0.25});
  ASSERT_TRUE(Combine(stale, operand, {}, Full(BLENDMODE::SCREEN)));
  EXPECT_DOUBLE_EQ(stale.Get(0, 0), 1.0);
  EXPECT_EQ(stale.Minimum(), 0.0);
  EXPECT_EQ(stale.Maximum(), 4.0);
}

TEST(Blend, SizeChecksRefuseAndKeepTheBase) {
  Grid2D<Float> base = MakeGrid({1.0, 2.0, 3.0});
  Grid2D<Float> shorter = MakeGrid({1.0, 2.0});
  auto sizes = Combine(base, shorter, {}, Full(BLENDMODE::NORMAL));
  ASSERT_FALSE(sizes);
  EXPECT_EQ(sizes.error().message, "Cannot merge grids of different sizes!");
  EXPECT_EQ(sizes.error().kind, platform::ErrorKind::IllegalArgument);

  Grid2D<Float> same = MakeGrid({9.0, 9.0, 9.0});
  const std::vector<Float> mask{1.0, 1.0};
  auto masks = Combine(base, same, mask, Full(BLENDMODE::NORMAL));
  ASSERT_FALSE(masks);
  EXPECT_EQ(masks.error().message, "FieldOutput and _size are different!");
  EXPECT_EQ(base.Get(0, 0), 1.0);
  EXPECT_EQ(base.Get(2, 0), 3.0);
}

TEST(Blend, SingleSamplesAndThreadCountsAgreeWithCombine) {
  // Large enough to run on several workers.
  const Int count = 100'003;
  std::vector<Float> base(count), result(count), mask(count);
  for (Int i = 0; i < count; ++i) {
    base[static_cast<std::size_t>(i)] = std::sin(static_cast<Float>(i) * 0.01) * 50.0;
    result[static_cast<std::size_t>(i)] = std::cos(static_cast<Float>(i) * 0.003);
    mask[static_cast<std::size_t>(i)] = static_cast<Float>(i % 11) / 10.0;
  }
  for (Int32 mode = 0; mode < 15; ++mode) {
    BlendSettings settings;
    settings.mode = mode;
    settings.strength = 0.8;
    settings.scale = 1.5;
    settings.offset = 0.25;
    const std::vector<Float> parallel = Blend(base, result, settings, mask);
    std::vector<Float> serial;
    {
      platform::ScopedThreadLimit oneThread(1);
      serial = Blend(base, result, settings, mask);
    }
    ASSERT_EQ(parallel, serial) << mode;

    // BlendSample over a short copy, one index at a time.
    std::vector<Float> single(base.begin(), base.begin() + 64);
    Grid2D<Float> range = MakeGrid(single);
    range.RecomputeRange();
    BlendContext context;
    context.base = single.data();
    context.result = result.data();
    context.mask = mask.data();
    context.hasMask = true;
    context.baseMinimum = range.Minimum();
    context.baseRange = range.Maximum() - range.Minimum();
    context.baseRangeInverse = 1.0 / context.baseRange;
    context.mode = mode;
    context.strength = settings.strength;
    context.scale = settings.scale;
    context.offset = settings.offset;
    for (Int i = 0; i < 64; ++i) BlendSample(context, i);
    const std::vector<Float> combined = Blend(std::vector<Float>(base.begin(), base.begin() + 64),
                                              std::vector<Float>(result.begin(), result.begin() + 64), settings,
                                              std::vector<Float>(mask.begin(), mask.begin() + 64));
    ASSERT_EQ(single, combined) << mode;
  }
}

TEST(Blend, EditorRingSkipsDivide) {
  const std::vector<BLENDMODE> ring{BLENDMODE::NORMAL,   BLENDMODE::ADD,         BLENDMODE::SUBTRACT,
                                    BLENDMODE::DIFFERENCE, BLENDMODE::PHOENIX,   BLENDMODE::PHOENIXINVERSE,
                                    BLENDMODE::LOWEST,   BLENDMODE::HIGHEST,     BLENDMODE::MULTIPLY,
                                    BLENDMODE::OVERLAY,  BLENDMODE::NEGATION,    BLENDMODE::SCREEN,
                                    BLENDMODE::SOFTLIGHT, BLENDMODE::HARDLIGHT};
  for (std::size_t i = 0; i < ring.size(); ++i) {
    EXPECT_EQ(NextBlendMode(M(ring[i])), M(ring[(i + 1) % ring.size()]));
    EXPECT_EQ(PreviousBlendMode(M(ring[(i + 1) % ring.size()])), M(ring[i]));
  }
  EXPECT_EQ(NextBlendMode(M(BLENDMODE::DIVIDE)), M(BLENDMODE::OVERLAY));
  EXPECT_EQ(PreviousBlendMode(M(BLENDMODE::DIVIDE)), M(BLENDMODE::MULTIPLY));
  for (Int32 outside : {-1, 15, 1000}) {
    EXPECT_EQ(NextBlendMode(outside), M(BLENDMODE::NORMAL));
    EXPECT_EQ(PreviousBlendMode(outside), M(BLENDMODE::NORMAL));
  }
  EXPECT_TRUE(IsFactorBlendMode(M(BLENDMODE::MULTIPLY)));
  EXPECT_TRUE(IsFactorBlendMode(M(BLENDMODE::HARDLIGHT)));
  EXPECT_FALSE(IsFactorBlendMode(M(BLENDMODE::PHOENIX)));
}

}  // namespace
}  // namespace VLGD
