#include "vellgrund/blend.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <vector>

#include "platform/parallel.h"

namespace VLGD {
namespace {

constexpr Int32 M(BLENDMODE mode) {
  return static_cast<Int32>(mode);
}

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

BlendSettings Settings(Int32 mode, Float strength = 1.0) {
  BlendSettings settings;
  settings.strength = strength;
  settings.mode = mode;
  return settings;
}

TEST(Blend, EveryModeWithStrengthScaleOffsetAndMask) {
  struct Case {
    BLENDMODE mode;
    std::vector<Float> base, result, expected;
    Float strength = 1.0, scale = 1.0, offset = 0.0;
    std::vector<Float> mask = {};
  };
  // The normalised modes (from OVERLAY on) read the base 0, 2, 4 as n = 0, 0.5, 1 and the
  // operator value as it stands; a flat base normalises to 0 and maps back onto itself.
  const Case cases[] = {
      {BLENDMODE::NORMAL, {2, 1}, {4, -8}, {4, -8}},
      {BLENDMODE::ADD, {2}, {4}, {6}},
      {BLENDMODE::SUBTRACT, {2}, {4}, {-2}},
      {BLENDMODE::MULTIPLY, {2}, {4}, {8}},
      {BLENDMODE::DIVIDE, {2, 3}, {4, 0}, {0.5, 3}},  // by exactly 0 writes nothing
      {BLENDMODE::LOWEST, {2, 5}, {4, -1}, {2, -1}},
      {BLENDMODE::HIGHEST, {2, 5}, {4, -1}, {4, 5}},
      {BLENDMODE::DIFFERENCE, {2, 4}, {4, 2}, {2, 2}},
      {BLENDMODE::PHOENIX, {2, 4}, {4, 2}, {1, 1}},
      {BLENDMODE::PHOENIXINVERSE, {2}, {4}, {5}},
      {BLENDMODE::OVERLAY, {0, 2, 4}, {0.25, 0.25, 0.25}, {0, 1, 4}},  // n = 0.5 takes the second branch
      {BLENDMODE::HARDLIGHT, {0, 2, 4}, {0.25, 0.25, 0.25}, {0, 1, 2}},
      {BLENDMODE::HARDLIGHT, {0, 2, 4}, {0.5, 0.5, 0.5}, {0, 2, 4}},  // o = 0.5: the second branch
      {BLENDMODE::NEGATION, {0, 2, 4}, {0.25, 0.25, 0.25}, {1, 3, 3}},
      {BLENDMODE::SCREEN, {0, 2, 4}, {0.25, 0.25, 0.25}, {1, 2.5, 4}},
      {BLENDMODE::SOFTLIGHT, {0, 2, 4}, {0.5, 0.5, 0.5}, {0, 2, 4}},
      {BLENDMODE::SOFTLIGHT, {0, 2, 4}, {0.25, 0.25, 0.25}, {0, 1.5, 4}},
      {BLENDMODE::OVERLAY, {5, 5}, {0.3, 0.9}, {5, 5}, 0.7},
      {BLENDMODE::HARDLIGHT, {5, 5}, {0.3, 0.9}, {5, 5}, 0.7},
      // o = result x scale + offset, then the base moves by strength (times the mask) towards the target.
      {BLENDMODE::ADD, {10}, {3}, {13.5}, 0.5, 2.0, 1.0},
      {BLENDMODE::DIVIDE, {3}, {2}, {3}, 1.0, 1.0, -2.0},  // the offset makes the divisor 0
      {BLENDMODE::NORMAL, {0, 0, 0}, {8, 8, 8}, {0, 4, 8}, 1.0, 1.0, 0.0, {0.0, 0.5, 1.0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << &c - cases << ", mode " << M(c.mode));
    BlendSettings settings = Settings(M(c.mode), c.strength);
    settings.scale = c.scale;
    settings.offset = c.offset;
    const std::vector<Float> blended = Blend(c.base, c.result, settings, c.mask);
    ASSERT_EQ(blended.size(), c.expected.size());
    for (std::size_t i = 0; i < blended.size(); ++i) EXPECT_NEAR(blended[i], c.expected[i], 1e-12) << i;
  }

  // Strength 0 leaves every mode's samples alone, and a mode outside the enumeration any.
  const std::vector<Float> base{1.0, 3.0, -2.0};
  for (Int32 mode = 0; mode < 15; ++mode) EXPECT_EQ(Blend(base, {0.25, 0.75, 2.0}, Settings(mode, 0.0)), base) << mode;
  for (const Int32 mode : {-1, 15, 99}) EXPECT_EQ(Blend(base, {5.0, 6.0, 7.0}, Settings(mode)), base) << mode;
}

TEST(Blend, RefusalsKeepTheBaseAndTheRangeIsRecomputed) {
  Grid2D<Float> base = MakeGrid({0.0, 2.0, 4.0});
  const Grid2D<Float> shorter = MakeGrid({1.0, 2.0});
  const Grid2D<Float> same = MakeGrid({0.25, 0.25, 0.25});
  const std::vector<Float> shortMask{1.0, 1.0};
  auto sizes = Combine(base, shorter, {}, Settings(M(BLENDMODE::NORMAL)));
  ASSERT_FALSE(sizes);
  EXPECT_EQ(sizes.error().message, "Cannot merge grids of different sizes!");
  EXPECT_EQ(sizes.error().kind, platform::ErrorKind::IllegalArgument);
  auto masks = Combine(base, same, shortMask, Settings(M(BLENDMODE::NORMAL)));
  ASSERT_FALSE(masks);
  EXPECT_EQ(masks.error().message, "FieldOutput and _size are different!");
  EXPECT_EQ(std::vector<Float>(base.Values().begin(), base.Values().end()), (std::vector<Float>{0.0, 2.0, 4.0}));

  // The base range comes from the samples, not from a stale cache.
  base.IncludeInRange(-100.0);
  ASSERT_TRUE(Combine(base, same, {}, Settings(M(BLENDMODE::SCREEN))));
  EXPECT_DOUBLE_EQ(base.Get(0, 0), 1.0);
  EXPECT_EQ(base.Minimum(), 0.0);
  EXPECT_EQ(base.Maximum(), 4.0);
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
  const auto head = [](const std::vector<Float>& values) {
    return std::vector<Float>(values.begin(), values.begin() + 64);
  };
  for (Int32 mode = 0; mode < 15; ++mode) {
    BlendSettings settings = Settings(mode, 0.8);
    settings.scale = 1.5;
    settings.offset = 0.25;
    const std::vector<Float> parallel = Blend(base, result, settings, mask);
    {
      platform::ScopedThreadLimit oneThread(1);
      ASSERT_EQ(Blend(base, result, settings, mask), parallel) << mode;
    }

    // BlendSample over a short copy, one index at a time.
    std::vector<Float> single = head(base);
    Grid2D<Float> range = MakeGrid(single);
    range.RecomputeRange();
    const BlendContext context{.base = single.data(),
                               .result = result.data(),
                               .mask = mask.data(),
                               .baseMinimum = range.Minimum(),
                               .baseRange = range.Maximum() - range.Minimum(),
                               .baseRangeInverse = 1.0 / (range.Maximum() - range.Minimum()),
                               .mode = mode,
                               .strength = settings.strength,
                               .scale = settings.scale,
                               .offset = settings.offset,
                               .hasMask = true};
    for (Int i = 0; i < 64; ++i) BlendSample(context, i);
    ASSERT_EQ(single, Blend(head(base), head(result), settings, head(mask))) << mode;
  }
}

TEST(Blend, EditorRingVisitsEveryModeButDivideOnceEachWay) {
  std::set<Int32> visited;
  Int32 mode = M(BLENDMODE::NORMAL);
  do {
    EXPECT_TRUE(visited.insert(mode).second) << mode;
    EXPECT_EQ(PreviousBlendMode(NextBlendMode(mode)), mode);
    mode = NextBlendMode(mode);
  } while (mode != M(BLENDMODE::NORMAL) && visited.size() < 20);
  EXPECT_EQ(visited.size(), 14u);
  EXPECT_FALSE(visited.contains(M(BLENDMODE::DIVIDE)));
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
