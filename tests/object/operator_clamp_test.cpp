#include "object/operator_clamp.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>

#include "main/vellgrund_module.h"
#include "platform/document.h"
#include "support/terrain_harness.h"

namespace {

using namespace platform;
using namespace VLGD;
using testing_support::TerrainHarness;

// One Clamp operator in a document, computed directly on grids of the test's making.
struct DirectClamp {
  DirectClamp() {
    host.SetConsole(console);
    EXPECT_TRUE(StartModule(host));
    doc = std::make_unique<Document>(host);
    auto created = doc->CreateNode(ID_CLAMPOPERATOR);
    EXPECT_TRUE(created);
    op = doc->InsertLast(std::move(*created));
  }
  [[nodiscard]] BaseTerrainOperatorData& Data() const { return *op->GetNodeData<BaseTerrainOperatorData>(); }
  void Set(ParameterId id, Value value) { EXPECT_TRUE(doc->SetParameter(*op, id, std::move(value))); }
  Status Compute(const Grid2D<Float>& incoming, const CancellationToken* thread = nullptr) {
    EvaluationContext context;
    context.thread = thread;
    return Data().Compute(incoming, *op, *doc, context);
  }
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

Grid2D<Float> Row(std::initializer_list<Float> values) {
  const std::vector<Float> list(values);
  return MakeGrid(static_cast<Int>(list.size()), 1, [&](Int x, Int) { return list[static_cast<size_t>(x)]; });
}

TEST(ClampOperatorTest, FitsTheInputRangeIntoTheBand) {
  DirectClamp c;
  EXPECT_EQ(c.Data().GetFlags(*c.op), TERRAINOPERATORFLAGS::TYPE_FILTER | TERRAINOPERATORFLAGS::REQUIRES_MINMAX);
  EXPECT_EQ(c.op->GetData().GetFloat(CLAMPOPERATOR_MIN, -1.0), 0.0);
  EXPECT_EQ(c.op->GetData().GetFloat(CLAMPOPERATOR_MAX, -1.0), 50.0);
  EXPECT_FALSE(c.op->GetData().GetBool(CLAMPOPERATOR_HARDCLAMP, true));

  // Defaults 0 .. 50: the lowest input lands on 0, the highest on 50, linearly between.
  const Grid2D<Float> in = Row({-10.0, 0.0, 5.0, 30.0});
  ASSERT_TRUE(c.Compute(in));
  EXPECT_EQ(c.Out(0), 0.0);
  EXPECT_EQ(c.Out(1), 12.5);
  EXPECT_EQ(c.Out(2), 18.75);
  EXPECT_EQ(c.Out(3), 50.0);
  EXPECT_FALSE(c.Data().GetResult().IsMinMaxValid());

  c.Set(CLAMPOPERATOR_MIN, -3.0);
  c.Set(CLAMPOPERATOR_MAX, 7.0);
  ASSERT_TRUE(c.Compute(in));
  EXPECT_EQ(c.Out(0), -3.0);
  EXPECT_EQ(c.Out(1), -3.0 + 10.0 * (10.0 / 40.0));
  EXPECT_EQ(c.Out(3), 7.0);

  // A flat input lands on lo everywhere; so does one without a valid range.
  ASSERT_TRUE(c.Compute(MakeGrid(3, 3, [](Int, Int) { return 12.0; })));
  for (Int i = 0; i < 9; ++i) EXPECT_EQ(c.Out(i), -3.0);
  Grid2D<Float> unranged = Row({1.0, 2.0, 3.0});
  unranged.ResetRange();
  ASSERT_TRUE(c.Compute(unranged));
  for (Int i = 0; i < 3; ++i) EXPECT_EQ(c.Out(i), -3.0);

  ASSERT_TRUE(c.Compute(MakeGrid(0, 4, [](Int, Int) { return 0.0; })));
  EXPECT_EQ(c.Data().GetResult().Count(), 0);
  EXPECT_EQ(c.Data().GetResult().Height(), 4);

  // Without the upper bound in the container the band ends at 100.
  ASSERT_TRUE(c.op->GetDataInstance().Remove(CLAMPOPERATOR_MAX));
  ASSERT_TRUE(c.Compute(in));
  EXPECT_EQ(c.Out(3), 100.0);
  EXPECT_EQ(c.Out(0), -3.0);
}

TEST(ClampOperatorTest, HardClampCutsAtTheBoundsAndSendsNaNToLo) {
  DirectClamp c;
  c.Set(CLAMPOPERATOR_HARDCLAMP, true);
  c.Set(CLAMPOPERATOR_MIN, 0.0);
  c.Set(CLAMPOPERATOR_MAX, 10.0);
  const Float nan = std::numeric_limits<Float>::quiet_NaN();
  const Float inf = std::numeric_limits<Float>::infinity();
  const Grid2D<Float> in = Row({-5.0, 0.0, 3.25, 10.0, 12.0, nan, -inf, inf});
  ASSERT_TRUE(c.Compute(in));
  const Float expected[] = {0.0, 0.0, 3.25, 10.0, 10.0, 0.0, 0.0, 10.0};
  for (Int i = 0; i < 8; ++i) EXPECT_EQ(c.Out(i), expected[i]) << i;

  // With lo above hi (only possible outside the editor) every sample becomes hi.
  ASSERT_TRUE(c.op->GetDataInstance().Set(CLAMPOPERATOR_MIN, 10.0));
  ASSERT_TRUE(c.op->GetDataInstance().Set(CLAMPOPERATOR_MAX, 0.0));
  ASSERT_TRUE(c.Compute(in));
  for (Int i = 0; i < 8; ++i) EXPECT_EQ(c.Out(i), 0.0) << i;

  // A result of another shape is made anew.
  ASSERT_TRUE(c.Compute(MakeGrid(2, 2, [](Int x, Int y) { return static_cast<Float>(x + y); })));
  EXPECT_EQ(c.Data().GetResult().Count(), 4);
  EXPECT_EQ(c.Data().GetResult().Width(), 2);
}

TEST(ClampOperatorTest, ABreakStopsTheClampAtSamplesPassingTheIndexMask) {
  DirectClamp c;
  CancellationToken cancelled;
  cancelled.Cancel();
  const Grid2D<Float> large = MakeGrid(101, 101, [](Int x, Int y) { return static_cast<Float>(x - y); });

  // Fitting has no break test.
  ASSERT_TRUE(c.Compute(large, &cancelled));

  c.Set(CLAMPOPERATOR_HARDCLAMP, true);
  const Grid2D<Float> pair = Row({1.0, 2.0});        // sample 1 is tested; one thread
  for (const Grid2D<Float>* in : {&pair, &large}) {  // and all threads
    const Status status = c.Compute(*in, &cancelled);
    ASSERT_FALSE(status) << in->Count();
    EXPECT_EQ(status.error().kind, ErrorKind::Cancelled);
    EXPECT_EQ(status.error().message, "Clamp operator cancelled!");
  }
  // Sample 0 is not tested ((0 AND 3999) = 0): a single sample is clamped anyway.
  ASSERT_TRUE(c.Compute(Row({70.0}), &cancelled));
  EXPECT_EQ(c.Out(0), 50.0);

  CancellationToken running;
  ASSERT_TRUE(c.Compute(large, &running));
  EXPECT_EQ(c.Out(0), 0.0);
  EXPECT_EQ(c.Out(100), 50.0);
}

TEST(ClampOperatorTest, AnEditedBoundIsHeldByTheOther) {
  DirectClamp c;
  const ParameterContainer& data = c.op->GetData();
  c.Set(CLAMPOPERATOR_MIN, 60.0);  // above the maximum of 50
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MIN), 50.0);
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MAX), 50.0);
  c.Set(CLAMPOPERATOR_MIN, 10.0);
  c.Set(CLAMPOPERATOR_MAX, 5.0);  // below the minimum of 10
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MAX), 10.0);
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MIN), 10.0);
  c.Set(CLAMPOPERATOR_MAX, 30.0);
  c.Set(CLAMPOPERATOR_MIN, 20.0);  // in order: nothing to hold
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MIN), 20.0);
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MAX), 30.0);

  // Another parameter's change leaves crossed bounds alone; the message is still handled.
  ASSERT_TRUE(c.op->GetDataInstance().Set(CLAMPOPERATOR_MIN, 40.0));
  MessageData changed;
  changed.parameter = CLAMPOPERATOR_HARDCLAMP;
  EXPECT_TRUE(c.op->Message(MSG_DESCRIPTION_CHECKUPDATE, changed));
  EXPECT_EQ(data.GetFloat(CLAMPOPERATOR_MIN), 40.0);
  EXPECT_FALSE(c.op->Message(MSG_UPDATE));

  std::vector<ParameterId> ids;
  EXPECT_TRUE(c.Data().GetRebuildParameters(ids, data));
  EXPECT_EQ(ids, (std::vector<ParameterId>{CLAMPOPERATOR_MIN, CLAMPOPERATOR_MAX, CLAMPOPERATOR_HARDCLAMP}));
}

TEST(ClampOperatorTest, InTheStackItsOwnParametersRebuildItAndBlendingDoesNot) {
  TerrainHarness h(8, 80.0);
  h.AddGenerator("ramp", 2.0);  // heights 2 .. 10
  Node* clamp = h.AddOperator(ID_CLAMPOPERATOR, "clamp");
  h.Set(clamp, TERRAINOPERATOR_BLENDMODE, Int32{0});  // NORMAL
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "ramp clamp");
  EXPECT_EQ(h.Height(0, 1), 0.0);  // the stack's range fits into 0 .. 50
  EXPECT_EQ(h.Height(2, 1), 12.5);
  EXPECT_EQ(h.Height(8, 1), 50.0);

  h.Set(clamp, CLAMPOPERATOR_HARDCLAMP, true);
  h.Set(clamp, CLAMPOPERATOR_MIN, 3.0);
  h.Set(clamp, CLAMPOPERATOR_MAX, 6.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "clamp");
  EXPECT_EQ(h.Height(0, 1), 3.0);
  EXPECT_EQ(h.Height(3, 1), 5.0);
  EXPECT_EQ(h.Height(8, 1), 6.0);

  h.Set(clamp, TERRAINOPERATOR_STRENGTH, 0.5);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");
  EXPECT_EQ(h.Height(8, 1), 10.0 + (6.0 - 10.0) * 0.5);
}

}  // namespace
