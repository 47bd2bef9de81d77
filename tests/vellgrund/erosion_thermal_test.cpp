#include "vellgrund/erosion_thermal.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/parallel.h"
#include "platform/progress.h"
#include "support/operator_fixture.h"

namespace {

using namespace VLGD;
using namespace VLGD::Erosion;
using namespace testing_support;

ThermalSettings Settings(Int32 neighbourhood, bool smooth, Int32 iterations = 1) {
  ThermalSettings s;
  s.neighbourhood = neighbourhood;
  s.smooth = smooth;
  s.iterations = iterations;
  return s;
}

Status Weather(Grid2D<Float>& grid, const ThermalSettings& s, const EvaluationContext& context = {}) {
  const platform::StringTable strings;
  return ThermalWeathering(grid, s, context, strings);
}

// The neighbours of a sample in listing order, as (dx, dy).
std::vector<std::pair<Int, Int>> Offsets(const ThermalSettings& s) {
  if (s.neighbourhood == 1 || s.neighbourhood == 3)
    return {{0, -1}, {1, -1}, {-1, -1}, {0, 1}, {1, 1}, {-1, 1}, {-1, 0}, {1, 0}};
  return {{0, -1}, {1, 0}, {0, 1}, {-1, 0}};
}

// The scatter as one would write it: samples in index order, each taking its slides off a
// copy of the start-of-pass grid and adding them to its receivers there.
Grid2D<Float> Reference(const Grid2D<Float>& start, const ThermalSettings& s) {
  const Int w = start.Width(), h = start.Height();
  const bool allLower = s.neighbourhood == 3 || s.neighbourhood == 4;
  const std::vector<std::pair<Int, Int>> offsets = Offsets(s);
  Grid2D<Float> grid = Copy(start);
  for (Int32 i = 0; i < s.iterations; ++i) {
    Grid2D<Float> t = Copy(grid);
    for (Int y = 0; y < h; ++y)
      for (Int x = 0; x < w; ++x) {
        std::vector<std::pair<Int, Int>> listed;
        for (const auto& [dx, dy] : offsets)
          if (x + dx >= 0 && x + dx < w && y + dy >= 0 && y + dy < h) listed.emplace_back(x + dx, y + dy);
        const auto add = [&t](std::pair<Int, Int> n, Float v) {
          t.Set(n.first, n.second, t.Get(n.first, n.second) + v);
        };
        const Float hs = grid.Get(x, y);
        if (allLower) {
          Float sum = 0.0, dmax = -std::numeric_limits<Float>::infinity();
          for (const auto& n : listed)
            if (const Float d = hs - grid.Get(n.first, n.second); d > s.talus) {
              sum += d;
              dmax = std::max(dmax, d);
            }
          const Float inv = sum != 0.0 ? 1.0 / sum : 0.0;
          for (const auto& n : listed)
            if (const Float d = hs - grid.Get(n.first, n.second); d > s.talus) {
              const Float m = (dmax - s.talus) * d * inv;
              add({x, y}, -m * s.intensity);
              add(n, m * s.deposit);
            }
        } else if (!listed.empty()) {
          auto lowest = listed.front();
          for (const auto& n : listed)
            if (grid.Get(n.first, n.second) < grid.Get(lowest.first, lowest.second)) lowest = n;
          if (const Float d = hs - grid.Get(lowest.first, lowest.second); d > s.talus) {
            add({x, y}, -d * s.intensity);
            add(lowest, d * s.intensity * s.deposit);
          }
        }
      }
    grid = Copy(t);
    if (allLower && s.smooth)
      for (Int y = 0; y < h; ++y)
        for (Int x = 0; x < w; ++x) {
          const auto at = [&](Int cx, Int cy) {
            return t.Get(std::clamp<Int>(cx, 0, w - 1), std::clamp<Int>(cy, 0, h - 1));
          };
          grid.Set(x, y, 0.2 * (at(x - 1, y) + at(x, y) + at(x + 1, y) + at(x, y + 1) + at(x, y - 1)));
        }
  }
  return grid;
}

::testing::AssertionResult NearReference(const Grid2D<Float>& start, const ThermalSettings& s) {
  Grid2D<Float> grid = Copy(start);
  if (auto done = Weather(grid, s); !done) return ::testing::AssertionFailure() << done.error().message;
  const Grid2D<Float> expected = Reference(start, s);
  for (Int i = 0; i < grid.Count(); ++i)
    if (std::abs(grid.Data()[i] - expected.Data()[i]) > 1e-12 * (1.0 + std::abs(expected.Data()[i])))
      return ::testing::AssertionFailure() << "sample " << i << ": " << grid.Data()[i] << " vs " << expected.Data()[i];
  return ::testing::AssertionSuccess();
}

// The gathering passes sample by sample in the plainest form: each sample's shares from the
// start-of-pass heights, then what it receives, in listing order, then the smoothing. The
// kernels must give these bits exactly.
Grid2D<Float> GatherReference(const Grid2D<Float>& start, const ThermalSettings& s) {
  const Int w = start.Width(), h = start.Height();
  const bool allLower = s.neighbourhood == 3 || s.neighbourhood == 4;
  const std::vector<std::pair<Int, Int>> offsets = Offsets(s);
  const auto count = static_cast<Int>(offsets.size());
  const auto neighbour = [&](Int i, Int k) -> Int {
    const Int x = i % w + offsets[static_cast<std::size_t>(k)].first;
    const Int y = i / w + offsets[static_cast<std::size_t>(k)].second;
    return x < 0 || y < 0 || x >= w || y >= h ? -1 : y * w + x;
  };
  std::vector<Float> b(start.Values().begin(), start.Values().end()), kept(b), share(b), code(b), t(b);
  for (Int32 pass = 0; pass < s.iterations; ++pass) {
    for (Int i = 0; i < w * h; ++i) {
      Float sum = 0.0, dmax = -std::numeric_limits<Float>::infinity(), low = 0.0, out = b[i];
      Int best = -1;
      for (Int k = 0; k < count; ++k)
        if (const Int n = neighbour(i, k); n >= 0) {
          if (b[i] - b[n] > s.talus) sum += b[i] - b[n], dmax = std::max(dmax, b[i] - b[n]);
          if (best < 0 || b[n] < low) best = k, low = b[n];
        }
      const Float factor =
          dmax > -std::numeric_limits<Float>::infinity() ? (dmax - s.talus) * (sum != 0.0 ? 1.0 / sum : 0.0) : 0.0;
      for (Int k = 0; k < count; ++k)
        if (const Int n = neighbour(i, k); n >= 0 && b[i] - b[n] > s.talus) out -= factor * (b[i] - b[n]) * s.intensity;
      const bool slides = best >= 0 && b[i] - low > s.talus;
      kept[i] = allLower ? out : b[i] - (slides ? (b[i] - low) * s.intensity : 0.0);
      share[i] = allLower ? factor : (slides ? (b[i] - low) * s.intensity : 0.0);
      code[i] = slides ? static_cast<Float>(best) : -1.0;
    }
    for (Int i = 0; i < w * h; ++i) {
      Float gain = 0.0;
      for (Int k = 0; k < count; ++k) {
        const Int n = neighbour(i, k);
        if (n < 0) continue;
        const Float d = b[n] - b[i];
        if (allLower && d > s.talus) gain += share[n] * d;
        if (!allLower && code[n] >= 0.0 && neighbour(n, static_cast<Int>(code[n])) == i) gain += share[n];
      }
      t[i] = kept[i] + gain * s.deposit;
    }
    for (Int i = 0; i < w * h; ++i) {
      const Int x = i % w, y = i / w;
      const auto at = [&](Int cx, Int cy) {
        return t[std::clamp<Int>(cy, 0, h - 1) * w + std::clamp<Int>(cx, 0, w - 1)];
      };
      b[i] = allLower && s.smooth ? 0.2 * (at(x - 1, y) + at(x, y) + at(x + 1, y) + at(x, y + 1) + at(x, y - 1)) : t[i];
    }
  }
  return MakeGrid(w, h, [&](Int x, Int y) { return b[y * w + x]; });
}

::testing::AssertionResult SameBits(const Grid2D<Float>& actual, const Grid2D<Float>& expected) {
  for (Int i = 0; i < actual.Count(); ++i) {
    const Float a = actual.Data()[i], e = expected.Data()[i];
    if (std::bit_cast<std::uint64_t>(a) != std::bit_cast<std::uint64_t>(e) && !(std::isnan(a) && std::isnan(e)))
      return ::testing::AssertionFailure() << "sample " << i << " is " << a << ", expected " << e;
  }
  return ::testing::AssertionSuccess();
}

TEST(ThermalWeathering, KernelsMatchTheGatherBitForBitOnEveryTargetAndThreadCount) {
  // Odd sizes put vector tails and edges everywhere; the larger ones run in several bands.
  // A cliff, a flat plateau (equal neighbours: ties and zero sums) and noise; one infinite
  // sample spreads NaN, which every select must treat as the scalar code does.
  const auto terrain = [](Int x, Int y) {
    const Float noise = 0.01 * static_cast<Float>((x * 7919 + y * 104729) % 97);
    if (x > 13 && x < 40 && y > 5 && y < 30) return 2.0;
    return (x + y) % 23 < 11 ? noise : 3.0 + noise * 40.0;
  };
  std::vector<Grid2D<Float>> grids;
  for (const auto& [w, h] :
       {std::pair<Int, Int>{1, 1}, {1, 7}, {9, 1}, {2, 3}, {3, 2}, {5, 5}, {13, 11}, {47, 33}, {131, 97}, {203, 157}})
    grids.push_back(MakeGrid(w, h, terrain));
  grids.push_back(MakeGrid(41, 37, [&](Int x, Int y) {
    return x == 20 && y == 18 ? std::numeric_limits<Float>::infinity() : terrain(x, y);
  }));
  // One scratch for all: kept storage must not leak one grid's state into the next.
  ThermalScratch scratch;
  const platform::StringTable strings;
  for (const std::int64_t target : hwy::SupportedAndGeneratedTargets()) {
    hwy::SetSupportedTargetsForTest(target);
    for (const Grid2D<Float>& start : grids)
      for (const Int32 n : {1, 2, 3, 4})
        for (const Float talus : {0.05, 0.0, -0.01}) {
          ThermalSettings s = Settings(n, talus != 0.0, 3);
          s.talus = talus;
          const Grid2D<Float> expected = GatherReference(start, s);
          for (const int threads : {1, 2}) {
            SCOPED_TRACE(testing::Message() << hwy::TargetName(target) << " " << start.Width() << "x" << start.Height()
                                            << " mode " << n << " talus " << talus << " threads " << threads);
            const platform::ScopedThreadLimit limit(threads);
            Grid2D<Float> grid = Copy(start);
            ASSERT_TRUE(ThermalWeathering(grid, s, {}, strings, scratch));
            ASSERT_TRUE(SameBits(grid, expected));
          }
        }
  }
  hwy::SetSupportedTargetsForTest(0);
}

TEST(ThermalWeathering, SinglePeakSlidesToItsLowerNeighbours) {
  // A peak of 1 at (2, 1). All lower of four: m = 0.9 x 1 / 4, the peak loses 4 m x 0.8 and
  // each neighbour gets m x 0.2; of eight, eight shares of 0.9 / 8. Lowest only: all
  // neighbours tie and the first listed (the row above) takes 0.8 x 0.2, never smoothed.
  const struct {
    Int32 neighbourhood;
    bool smooth;
    std::vector<std::tuple<Int, Int, Float>> heights;
  } cases[] = {
      {4, false, {{2, 1, 0.28}, {2, 0, 0.045}, {3, 1, 0.045}, {2, 2, 0.045}, {1, 1, 0.045}, {1, 0, 0.0}}},
      {3, false, {{2, 1, 0.28}, {1, 0, 0.0225}, {3, 2, 0.0225}}},
      {1, true, {{2, 1, 0.2}, {2, 0, 0.16}, {2, 2, 0.0}, {1, 1, 0.0}, {3, 1, 0.0}, {1, 0, 0.0}}},
      {2, true, {{2, 1, 0.2}, {2, 0, 0.16}, {2, 2, 0.0}, {1, 1, 0.0}, {3, 1, 0.0}, {1, 0, 0.0}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "neighbourhood " << c.neighbourhood);
    Grid2D<Float> grid = MakeGrid(5, 4, [](Int x, Int y) { return x == 2 && y == 1 ? 1.0 : 0.0; });
    ASSERT_TRUE(Weather(grid, Settings(c.neighbourhood, c.smooth)));
    for (const auto& [x, y, height] : c.heights) EXPECT_NEAR(grid.Get(x, y), height, 1e-15) << x << ", " << y;
  }
}

// A talus above every difference only smooths; a negative pass count changes nothing, and
// zero passes are refused.
TEST(ThermalWeathering, TalusAboveEveryDifferenceOnlySmoothsAndNoPassKeepsTheGrid) {
  const Grid2D<Float> start = RandomGrid(23, 17, 5);
  for (const Int32 n : {1, 2, 3, 4}) {
    ThermalSettings s = Settings(n, n <= 2, 3);
    s.talus = 1.0;
    Grid2D<Float> grid = Copy(start);
    ASSERT_TRUE(Weather(grid, s));
    EXPECT_TRUE(Identical(grid, start)) << n;
  }
  ThermalSettings s = Settings(3, true, 2);
  s.talus = 1.0;
  EXPECT_TRUE(NearReference(start, s));

  Grid2D<Float> grid = Copy(start);
  auto refused = Weather(grid, Settings(3, true, 0));
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().message, "Intensity and iterations must not be 0!");
  EXPECT_TRUE(Identical(grid, start));
  ASSERT_TRUE(Weather(grid, Settings(3, true, -2)));
  EXPECT_TRUE(Identical(grid, start));
}

TEST(ThermalWeathering, ReportsEveryPassInWholePercent) {
  struct Recorder final : platform::ProgressSink {
    void SetStatus(std::string_view text) override { texts.emplace_back(text); }
    void ClearStatus() override {}
    void SetProgress(double fraction) override { fractions.push_back(fraction); }
    std::vector<std::string> texts;
    std::vector<double> fractions;
  } recorder;
  platform::StringTable strings;
  ASSERT_TRUE(strings.LoadText(R"({"10083": "Weathering # of #"})", "test"));
  EvaluationContext context;
  context.progress = &recorder;
  Grid2D<Float> grid = RandomGrid(4, 4, 1);
  ASSERT_TRUE(ThermalWeathering(grid, Settings(2, false, 3), context, strings));
  EXPECT_EQ(recorder.texts, (std::vector<std::string>{"Weathering 0 of 3", "Weathering 1 of 3", "Weathering 2 of 3"}));
  EXPECT_EQ(recorder.fractions, (std::vector<double>{0.0, 0.33, 0.66}));
}

TEST(ThermalWeathering, MatchesTheSequentialScatter) {
  // Large enough to run the slide passes on several threads. Weathering drives neighbour
  // differences onto the talus itself, where a rounding difference flips a comparison, so
  // random heights are compared over one pass; whole steps and binary fractions stay exact
  // over several, ties of the lowest neighbour included.
  const Grid2D<Float> random = RandomGrid(131, 97, 7);
  const Grid2D<Float> terraces = MakeGrid(37, 29, [](Int x, Int y) { return static_cast<Float>((x * 7 + y * 3) % 4); });
  for (const Int32 n : {1, 2, 3, 4, 0})
    for (const bool smoothing : {false, true}) {
      ThermalSettings s = Settings(n, smoothing, 1);
      s.talus = 0.05;
      EXPECT_TRUE(NearReference(random, s)) << n << smoothing;
      s.talus = -0.01;  // equal and slightly higher neighbours take part too
      EXPECT_TRUE(NearReference(random, s)) << n << smoothing;
      s.iterations = 3;
      s.talus = 0.5;
      s.intensity = 0.5;
      s.deposit = 0.25;
      EXPECT_TRUE(NearReference(terraces, s)) << n << smoothing;
    }
}

TEST(ThermalWeathering, ResultDoesNotDependOnTheThreadCount) {
  const Grid2D<Float> start = RandomGrid(611, 523, 11);
  for (const Int32 n : {1, 2, 3, 4}) {
    Grid2D<Float> one = Copy(start);
    Grid2D<Float> all = Copy(start);
    {
      const platform::ScopedThreadLimit limit(1);
      ASSERT_TRUE(Weather(one, Settings(n, true, 3)));
    }
    ASSERT_TRUE(Weather(all, Settings(n, true, 3)));
    EXPECT_TRUE(Identical(all, one)) << n;
  }
}

}  // namespace
