#include "object/operator_fold.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>

#include "main/vellgrund_module.h"
#include "platform/document.h"
#include "platform/noise.h"
#include "support/terrain_harness.h"

namespace {

using namespace platform;
using namespace VLGD;
using testing_support::TerrainHarness;

// One Fold operator in a document, computed directly on grids of the test's making.
struct DirectFold {
  DirectFold() {
    host.SetConsole(console);
    EXPECT_TRUE(StartModule(host));
    doc = std::make_unique<Document>(host);
    auto created = doc->CreateNode(ID_FOLDOPERATOR);
    EXPECT_TRUE(created);
    op = doc->InsertLast(std::move(*created));
  }
  [[nodiscard]] BaseTerrainOperatorData& Data() const { return *op->GetNodeData<BaseTerrainOperatorData>(); }
  void Set(ParameterId id, Value value) { EXPECT_TRUE(doc->SetParameter(*op, id, std::move(value))); }
  Status Compute(const Grid2D<Float>& incoming) { return Data().Compute(incoming, *op, *doc, EvaluationContext{}); }
  [[nodiscard]] Float Out(Int i) const { return Data().GetResult().Data()[i]; }

  CollectingConsole console;
  Host host;
  std::unique_ptr<Document> doc;
  Node* op = nullptr;
};

Grid2D<Float> MakeGrid(Int width, Int height, Float sizeX, Float sizeY, const std::function<Float(Int, Int)>& value) {
  Grid2D<Float> grid;
  EXPECT_TRUE(grid.Init(width, height, sizeX, sizeY));
  for (Int y = 0; y < height; ++y)
    for (Int x = 0; x < width; ++x) grid.Set(x, y, value(x, y));
  return grid;
}

Grid2D<Float> Row(std::initializer_list<Float> values) {
  const std::vector<Float> list(values);
  return MakeGrid(static_cast<Int>(list.size()), 1, 10.0, 10.0,
                  [&](Int x, Int) { return list[static_cast<size_t>(x)]; });
}

// The fold written with plain comparisons.
Float FoldAsWritten(Int32 mode, Float v, Float level) {
  if (mode == 0 && v > level) return level - (v - level);
  if (mode == 1 && v < level) return level + (level - v);
  return v;
}

TEST(FoldOperatorTest, ReflectsHeightsBeyondTheLevel) {
  DirectFold f;
  EXPECT_EQ(f.Data().GetFlags(*f.op), TERRAINOPERATORFLAGS::TYPE_FILTER);
  const ParameterContainer& data = f.op->GetData();
  EXPECT_EQ(data.GetInt32(FOLDOPERATOR_MODE, -1), 0);
  EXPECT_EQ(data.GetFloat(FOLDOPERATOR_LEVEL), 25.0);
  EXPECT_EQ(data.GetFloat(FOLDOPERATOR_NOISESTRENGTH, -1.0), 0.0);
  EXPECT_EQ(data.GetFloat(FOLDOPERATOR_NOISESCALE), 1.0);
  EXPECT_EQ(data.GetFloat(FOLDOPERATOR_NOISEOFFSET, -1.0), 0.0);
  std::vector<ParameterId> ids;
  EXPECT_TRUE(f.Data().GetRebuildParameters(ids, data));
  EXPECT_EQ(ids, (std::vector<ParameterId>{FOLDOPERATOR_MODE, FOLDOPERATOR_LEVEL, FOLDOPERATOR_NOISESTRENGTH,
                                           FOLDOPERATOR_NOISESCALE, FOLDOPERATOR_NOISEOFFSET}));

  // Down: what lies above 25 is reflected below it; a height on the level stays.
  const Grid2D<Float> in = Row({0.0, 10.0, 25.0, 30.0, 50.0, 60.5});
  ASSERT_TRUE(f.Compute(in));
  const Float down[] = {0.0, 10.0, 25.0, 20.0, 0.0, -10.5};
  for (Int i = 0; i < 6; ++i) EXPECT_EQ(f.Out(i), down[i]) << i;
  EXPECT_FALSE(f.Data().GetResult().IsMinMaxValid());

  // Up: what lies below the level is reflected above it.
  f.Set(FOLDOPERATOR_MODE, Int32{1});
  ASSERT_TRUE(f.Compute(in));
  const Float up[] = {50.0, 40.0, 25.0, 30.0, 50.0, 60.5};
  for (Int i = 0; i < 6; ++i) EXPECT_EQ(f.Out(i), up[i]) << i;

  // Another mode leaves every height as it is; so does a level above the highest height.
  f.Set(FOLDOPERATOR_MODE, Int32{2});
  ASSERT_TRUE(f.Compute(in));
  for (Int i = 0; i < 6; ++i) EXPECT_EQ(f.Out(i), in.Data()[i]) << i;
  f.Set(FOLDOPERATOR_MODE, Int32{0});
  f.Set(FOLDOPERATOR_LEVEL, 61.0);
  ASSERT_TRUE(f.Compute(in));
  for (Int i = 0; i < 6; ++i) EXPECT_EQ(f.Out(i), in.Data()[i]) << i;

  // The branch-free fold agrees with the plain comparisons on awkward values too.
  const Float inf = std::numeric_limits<Float>::infinity();
  const Float nan = std::numeric_limits<Float>::quiet_NaN();
  const Float values[] = {0.0, -0.0, 1e-310, -1e-310, 1.5, -2.25, 1e308, -1e308, inf, -inf, nan};
  std::vector<Float> samples;
  for (const Float v : values) samples.push_back(v);
  const Grid2D<Float> awkward = MakeGrid(static_cast<Int>(samples.size()), 1, 1.0, 1.0,
                                         [&](Int x, Int) { return samples[static_cast<size_t>(x)]; });
  for (const Int32 mode : {0, 1}) {
    for (const Float level : values) {
      f.Set(FOLDOPERATOR_MODE, mode);
      ASSERT_TRUE(f.op->GetDataInstance().Set(FOLDOPERATOR_LEVEL, level));  // the editor refuses non-finite levels
      ASSERT_TRUE(f.Compute(awkward));
      for (Int i = 0; i < awkward.Count(); ++i) {
        const Float expected = FoldAsWritten(mode, samples[static_cast<size_t>(i)], level);
        const Float got = f.Out(i);
        EXPECT_TRUE(std::isnan(expected) ? std::isnan(got)
                                         : got == expected && std::signbit(got) == std::signbit(expected))
            << "mode " << mode << " level " << level << " v " << samples[static_cast<size_t>(i)] << ": " << got;
      }
    }
  }

  // Missing parameters read as the defaults; an empty grid gives an empty result.
  for (const ParameterId id : ids) EXPECT_TRUE(f.op->GetDataInstance().Remove(id));
  ASSERT_TRUE(f.Compute(in));
  for (Int i = 0; i < 6; ++i) EXPECT_EQ(f.Out(i), down[i]) << i;
  ASSERT_TRUE(f.Compute(Row({})));
  EXPECT_EQ(f.Data().GetResult().Count(), 0);
}

TEST(FoldOperatorTest, TheNoiseMovesTheLevelAcrossTheGrid) {
  DirectFold f;
  const Float sizeX = 300.0;
  const Float sizeY = 200.0;
  const Grid2D<Float> in = MakeGrid(7, 5, sizeX, sizeY, [](Int x, Int y) { return 20.0 + 2.0 * x - 1.5 * y; });

  // Off while the strength is not above 0: scale and offset change nothing.
  f.Set(FOLDOPERATOR_NOISESCALE, 0.0);
  f.Set(FOLDOPERATOR_NOISEOFFSET, 5.0);
  f.Set(FOLDOPERATOR_NOISESTRENGTH, -4.0);
  ASSERT_TRUE(f.Compute(in));
  for (Int i = 0; i < in.Count(); ++i) EXPECT_EQ(f.Out(i), FoldAsWritten(0, in.Data()[i], 25.0)) << i;

  // Scale 0: frequency 0, the noise of the origin shifts the level everywhere alike.
  f.Set(FOLDOPERATOR_NOISESTRENGTH, 4.0);
  const Float shifted = 25.0 + ScalarNoise(Vector(0.0, 0.0, 0.0), 0.0) * 4.0;
  ASSERT_TRUE(f.Compute(in));
  for (Int i = 0; i < in.Count(); ++i) EXPECT_EQ(f.Out(i), FoldAsWritten(0, in.Data()[i], shifted)) << i;

  // Scale 1.5: every sample reads the noise at its own place, frequency 1 / 150.
  f.Set(FOLDOPERATOR_NOISESCALE, 1.5);
  f.Set(FOLDOPERATOR_MODE, Int32{1});
  const Float frequency = 1.0 / (1.5 * 100.0);
  ASSERT_TRUE(f.Compute(in));
  std::vector<Float> levels;
  for (Int y = 0; y < 5; ++y) {
    for (Int x = 0; x < 7; ++x) {
      const Vector point(((static_cast<Float>(x) / 6.0) * sizeX - sizeX * 0.5) * frequency, (5.0 + 0.0) * frequency,
                         (sizeY * 0.5 - (static_cast<Float>(y) / 4.0) * sizeY) * frequency);
      levels.push_back(25.0 + ScalarNoise(point, 0.0) * 4.0);
      EXPECT_EQ(f.Out(y * 7 + x), FoldAsWritten(1, in.Get(x, y), levels.back())) << x << ", " << y;
    }
  }
  EXPECT_NE(*std::min_element(levels.begin(), levels.end()), *std::max_element(levels.begin(), levels.end()));

  // One column divides by W - 1 = 0; the compute goes on regardless.
  const Grid2D<Float> column = MakeGrid(1, 3, sizeX, sizeY, [](Int, Int y) { return 10.0 * y; });
  ASSERT_TRUE(f.Compute(column));
  for (Int y = 0; y < 3; ++y) {
    const Vector point((std::numeric_limits<Float>::quiet_NaN() * sizeX - sizeX * 0.5) * frequency, 5.0 * frequency,
                       (sizeY * 0.5 - (static_cast<Float>(y) / 2.0) * sizeY) * frequency);
    EXPECT_EQ(f.Out(y), FoldAsWritten(1, 10.0 * y, 25.0 + ScalarNoise(point, 0.0) * 4.0)) << y;
  }
}

TEST(FoldOperatorTest, InTheStackItsOwnParametersRebuildItAndBlendingDoesNot) {
  TerrainHarness h(8, 80.0);
  h.AddGenerator("ramp", 0.0);  // heights 0 .. 8
  Node* fold = h.AddOperator(ID_FOLDOPERATOR, "fold");
  h.Set(fold, TERRAINOPERATOR_BLENDMODE, Int32{0});  // NORMAL
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "ramp fold");
  EXPECT_EQ(h.Height(8, 0), 8.0);  // all below the default level of 25

  h.Set(fold, FOLDOPERATOR_LEVEL, 5.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "fold");
  EXPECT_EQ(h.Height(8, 0), 2.0);
  EXPECT_EQ(h.Height(4, 0), 4.0);

  h.Set(fold, TERRAINOPERATOR_STRENGTH, 0.5);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");
  EXPECT_EQ(h.Height(8, 0), 5.0);
}

}  // namespace
