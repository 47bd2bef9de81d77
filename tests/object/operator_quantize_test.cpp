#include "object/operator_quantize.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <random>

#include "main/vellgrund_module.h"
#include "platform/document.h"
#include "support/terrain_harness.h"

namespace {

using namespace platform;
using namespace VLGD;
using testing_support::TerrainHarness;

// One Quantize operator in a document, computed directly on grids of the test's making.
struct DirectQuantize {
  DirectQuantize() {
    host.SetConsole(console);
    EXPECT_TRUE(StartModule(host));
    doc = std::make_unique<Document>(host);
    auto created = doc->CreateNode(ID_QUANTIZEOPERATOR);
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

// A grid of value(x, y), its range computed as the stack does for REQUIRES_MINMAX.
Grid2D<Float> MakeGrid(Int width, Int height, const std::function<Float(Int, Int)>& value) {
  Grid2D<Float> grid;
  EXPECT_TRUE(grid.Init(width, height, 10.0, 10.0));
  for (Int y = 0; y < height; ++y)
    for (Int x = 0; x < width; ++x) grid.Set(x, y, value(x, y));
  grid.RecomputeRange();
  return grid;
}

// The quantisation written plainly, with the library's floor.
Float QuantizeAsWritten(Float v, Int32 steps, Float minimum, Float maximum) {
  const Float n = static_cast<Float>(steps) - 1.0;
  const Float inverseN = n != 0.0 ? 1.0 / n : 0.0;
  const Float range = maximum - minimum;
  const Float inverseRange = range != 0.0 ? 1.0 / range : 0.0;
  return std::floor((v - minimum) * inverseRange * n + 0.5) * inverseN * range + minimum;
}

TEST(QuantizeOperatorTest, SnapsToEvenlySpacedLevelsBetweenTheExtremes) {
  DirectQuantize q;
  EXPECT_EQ(q.Data().GetFlags(*q.op), TERRAINOPERATORFLAGS::TYPE_FILTER | TERRAINOPERATORFLAGS::REQUIRES_MINMAX);
  EXPECT_EQ(q.op->GetData().GetInt32(QUANTIZEOPERATOR_STEPS), 8);
  std::vector<ParameterId> ids;
  EXPECT_TRUE(q.Data().GetRebuildParameters(ids, q.op->GetData()));
  EXPECT_EQ(ids, std::vector<ParameterId>{QUANTIZEOPERATOR_STEPS});

  // 0 .. 10 in steps of 1, and a second row of fractions.
  const Grid2D<Float> in = MakeGrid(11, 2, [](Int x, Int y) { return static_cast<Float>(x) + 0.37 * y - 0.37; });
  const Float minimum = in.Minimum();
  const Float maximum = in.Maximum();
  for (const Int32 steps : {8, 2, 3, 5, 1, 0, -3}) {
    q.Set(QUANTIZEOPERATOR_STEPS, steps);
    ASSERT_TRUE(q.Compute(in));
    for (Int i = 0; i < in.Count(); ++i)
      EXPECT_EQ(q.Out(i), QuantizeAsWritten(in.Data()[i], steps, minimum, maximum)) << steps << ": " << i;
    EXPECT_FALSE(q.Data().GetResult().IsMinMaxValid());
    if (steps >= 2) {  // the extremes are levels
      Grid2D<Float> out;
      ASSERT_TRUE(out.CopyFrom(q.Data().GetResult()));
      out.RecomputeRange();
      EXPECT_EQ(out.Minimum(), minimum) << steps;
      EXPECT_EQ(out.Maximum(), maximum) << steps;
    }
  }

  // Two steps: min or max, the exact midpoint going up.
  const Grid2D<Float> ten = MakeGrid(11, 1, [](Int x, Int) { return static_cast<Float>(x); });
  q.Set(QUANTIZEOPERATOR_STEPS, Int32{2});
  ASSERT_TRUE(q.Compute(ten));
  for (Int x = 0; x <= 10; ++x) EXPECT_EQ(q.Out(x), x < 5 ? 0.0 : 10.0) << x;
  // One step: n = 0, everything becomes min.
  q.Set(QUANTIZEOPERATOR_STEPS, Int32{1});
  ASSERT_TRUE(q.Compute(ten));
  for (Int x = 0; x <= 10; ++x) EXPECT_EQ(q.Out(x), 0.0) << x;
  // Zero steps: n = -1 is taken as it stands; the two levels remain, but the midpoint now
  // goes down.
  q.Set(QUANTIZEOPERATOR_STEPS, Int32{0});
  ASSERT_TRUE(q.Compute(ten));
  for (Int x = 0; x <= 10; ++x) EXPECT_EQ(q.Out(x), x <= 5 ? 0.0 : 10.0) << x;

  // A flat input, and one without a valid range (read as 0 .. 0), give min everywhere.
  q.Set(QUANTIZEOPERATOR_STEPS, Int32{8});
  ASSERT_TRUE(q.Compute(MakeGrid(2, 2, [](Int, Int) { return -6.5; })));
  for (Int i = 0; i < 4; ++i) EXPECT_EQ(q.Out(i), -6.5);
  Grid2D<Float> unranged = MakeGrid(3, 1, [](Int x, Int) { return 1.0 + x; });
  unranged.ResetRange();
  ASSERT_TRUE(q.Compute(unranged));
  for (Int i = 0; i < 3; ++i) EXPECT_EQ(q.Out(i), 0.0);

  ASSERT_TRUE(q.Compute(MakeGrid(0, 0, [](Int, Int) { return 0.0; })));
  EXPECT_EQ(q.Data().GetResult().Count(), 0);

  // Without the parameter 8 steps are taken.
  ASSERT_TRUE(q.op->GetDataInstance().Remove(QUANTIZEOPERATOR_STEPS));
  ASSERT_TRUE(q.Compute(in));
  for (Int i = 0; i < in.Count(); ++i) EXPECT_EQ(q.Out(i), QuantizeAsWritten(in.Data()[i], 8, minimum, maximum)) << i;
}

TEST(QuantizeOperatorTest, TheFloorIsTheLibrarysForEveryDouble) {
  const Float inf = std::numeric_limits<Float>::infinity();
  const Float tiny = std::numeric_limits<Float>::denorm_min();
  const Float twoTo52 = 4503599627370496.0;
  std::vector<Float> values = {0.0,
                               -0.0,
                               tiny,
                               -tiny,
                               0.5,
                               -0.5,
                               0.49999999999999994,
                               -0.49999999999999994,
                               1.0,
                               -1.0,
                               1.5,
                               -1.5,
                               2.5,
                               -2.5,
                               3.7,
                               -3.7,
                               twoTo52 - 0.5,
                               -(twoTo52 - 0.5),
                               twoTo52,
                               -twoTo52,
                               twoTo52 + 1.0,
                               -(twoTo52 + 1.0),
                               1e300,
                               -1e300,
                               inf,
                               -inf,
                               std::numeric_limits<Float>::max(),
                               std::numeric_limits<Float>::lowest()};
  std::mt19937_64 random(7);
  std::uniform_real_distribution<Float> unit(-1.0, 1.0);
  for (int k = 0; k < 2000; ++k) values.push_back(std::ldexp(unit(random), k % 70 - 10));
  for (const Float v : values) {
    const Float expected = std::floor(v);
    const Float got = QuantizeFloor(v);
    EXPECT_EQ(got, expected) << v;
    EXPECT_EQ(std::signbit(got), std::signbit(expected)) << v;
  }
  EXPECT_TRUE(std::isnan(QuantizeFloor(std::numeric_limits<Float>::quiet_NaN())));
}

TEST(QuantizeOperatorTest, InTheStackItsStepsRebuildItAndBlendingDoesNot) {
  TerrainHarness h(8, 80.0);
  h.AddGenerator("ramp", 0.0);  // heights 0 .. 8
  Node* quantize = h.AddOperator(ID_QUANTIZEOPERATOR, "quantize");
  h.Set(quantize, TERRAINOPERATOR_BLENDMODE, Int32{0});  // NORMAL
  h.Set(quantize, QUANTIZEOPERATOR_STEPS, Int32{3});     // levels 0, 4, 8
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "ramp quantize");
  const Float levels[] = {0, 0, 4, 4, 4, 4, 8, 8, 8};
  for (Int x = 0; x <= 8; ++x) EXPECT_EQ(h.Height(x, 5), levels[x]) << x;

  h.Set(quantize, QUANTIZEOPERATOR_STEPS, Int32{9});  // every height is a level
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "quantize");
  for (Int x = 0; x <= 8; ++x) EXPECT_EQ(h.Height(x, 5), static_cast<Float>(x)) << x;

  h.Set(quantize, TERRAINOPERATOR_STRENGTH, 0.25);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");
}

}  // namespace
