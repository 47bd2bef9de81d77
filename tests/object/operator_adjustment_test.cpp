#include "object/operator_adjustment.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "main/vellgrund_module.h"
#include "platform/description.h"
#include "platform/document.h"
#include "support/terrain_harness.h"

namespace {

using namespace platform;
using namespace VLGD;
using testing_support::TerrainHarness;

// One Adjustment operator in a document, computed directly on grids of the test's making.
struct DirectAdjustment {
  DirectAdjustment() {
    host.SetConsole(console);
    EXPECT_TRUE(StartModule(host));
    doc = std::make_unique<Document>(host);
    auto created = doc->CreateNode(ID_ADJUSTMENTOPERATOR);
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

std::vector<ParameterId> RebuildParameters(const DirectAdjustment& a) {
  std::vector<ParameterId> ids;
  EXPECT_TRUE(a.Data().GetRebuildParameters(ids, a.op->GetData()));
  return ids;
}

TEST(AdjustmentOperatorTest, ScalesThenShiftsAbsolutelyOrByTheInputRange) {
  DirectAdjustment a;
  const Grid2D<Float> in = MakeGrid(5, 3, [](Int x, Int y) { return 0.37 * static_cast<Float>(x * x) - 2.5 * y; });
  EXPECT_EQ(a.Data().GetFlags(*a.op), TERRAINOPERATORFLAGS::TYPE_FILTER);

  // Defaults reproduce the input exactly; the result's range stays invalid.
  ASSERT_TRUE(a.Compute(in));
  const Grid2D<Float>& out = a.Data().GetResult();
  ASSERT_EQ(out.Count(), in.Count());
  EXPECT_EQ(out.Width(), 5);
  EXPECT_EQ(out.SizeX(), 10.0);
  for (Int i = 0; i < in.Count(); ++i) EXPECT_EQ(a.Out(i), in.Data()[i]) << i;
  EXPECT_FALSE(out.IsMinMaxValid());
  EXPECT_EQ(out.Minimum(), 1.7976931348623157e308);
  EXPECT_EQ(out.Maximum(), -1.7976931348623157e308);

  // Absolute: in x scale + offset; the relative offset is not read.
  a.Set(ADJUSTMENTOPERATOR_SCALE, 2.0);
  a.Set(ADJUSTMENTOPERATOR_OFFSET, 3.0);
  a.Set(ADJUSTMENTOPERATOR_OFFSET_RELATIVE, 100.0);
  ASSERT_TRUE(a.Compute(in));
  for (Int i = 0; i < in.Count(); ++i) EXPECT_EQ(a.Out(i), in.Data()[i] * 2.0 + 3.0) << i;

  // Relative: in x scale + range x offset, and the input's range is required.
  a.Set(ADJUSTMENTOPERATOR_RELATIVE, true);
  EXPECT_EQ(a.Data().GetFlags(*a.op), TERRAINOPERATORFLAGS::TYPE_FILTER | TERRAINOPERATORFLAGS::REQUIRES_MINMAX);
  a.Set(ADJUSTMENTOPERATOR_SCALE, 1.0);
  a.Set(ADJUSTMENTOPERATOR_OFFSET_RELATIVE, 1.0);
  const Float range = in.Maximum() - in.Minimum();  // 5.92 + 5
  ASSERT_TRUE(a.Compute(in));
  for (Int i = 0; i < in.Count(); ++i) EXPECT_EQ(a.Out(i), in.Data()[i] + range) << i;
  a.Set(ADJUSTMENTOPERATOR_SCALE, 0.5);
  a.Set(ADJUSTMENTOPERATOR_OFFSET_RELATIVE, -0.25);
  ASSERT_TRUE(a.Compute(in));
  EXPECT_EQ(a.Out(7), in.Data()[7] * 0.5 + range * -0.25);

  // A flat input, or one whose range is not valid, has range 0: no shift at all.
  const Grid2D<Float> flat = MakeGrid(3, 3, [](Int, Int) { return 4.0; });
  ASSERT_TRUE(a.Compute(flat));
  EXPECT_EQ(a.Out(4), 2.0);
  Grid2D<Float> unranged = MakeGrid(3, 1, [](Int x, Int) { return static_cast<Float>(x); });
  unranged.ResetRange();
  ASSERT_TRUE(a.Compute(unranged));
  EXPECT_EQ(a.Out(2), 1.0);

  // An empty grid gives an empty result.
  const Grid2D<Float> empty = MakeGrid(0, 0, [](Int, Int) { return 0.0; });
  ASSERT_TRUE(a.Compute(empty));
  EXPECT_EQ(a.Data().GetResult().Count(), 0);

  // Missing parameters read as scale 1, offset 0, absolute.
  for (const ParameterId id : {ADJUSTMENTOPERATOR_SCALE, ADJUSTMENTOPERATOR_OFFSET_RELATIVE, ADJUSTMENTOPERATOR_OFFSET,
                               ADJUSTMENTOPERATOR_RELATIVE})
    EXPECT_TRUE(a.op->GetDataInstance().Remove(id));
  EXPECT_EQ(a.Data().GetFlags(*a.op), TERRAINOPERATORFLAGS::TYPE_FILTER);
  ASSERT_TRUE(a.Compute(in));
  for (Int i = 0; i < in.Count(); ++i) EXPECT_EQ(a.Out(i), in.Data()[i]) << i;
}

TEST(AdjustmentOperatorTest, OldScenesTurnRelativeAndTheSwitchShowsItsOffset) {
  DirectAdjustment a;
  const ParameterContainer& data = a.op->GetData();
  EXPECT_EQ(data.GetFloat(ADJUSTMENTOPERATOR_SCALE, -1.0), 1.0);
  EXPECT_EQ(data.GetFloat(ADJUSTMENTOPERATOR_OFFSET_RELATIVE, -1.0), 0.0);
  EXPECT_EQ(data.GetFloat(ADJUSTMENTOPERATOR_OFFSET, -1.0), 0.0);
  ASSERT_TRUE(data.Contains(ADJUSTMENTOPERATOR_RELATIVE));
  EXPECT_FALSE(data.GetBool(ADJUSTMENTOPERATOR_RELATIVE, true));

  // Absolute: the absolute offset is shown and decides rebuilds.
  EXPECT_FALSE(IsParameterVisible(*a.op, ADJUSTMENTOPERATOR_OFFSET_RELATIVE));
  EXPECT_TRUE(IsParameterVisible(*a.op, ADJUSTMENTOPERATOR_OFFSET));
  EXPECT_TRUE(IsParameterVisible(*a.op, ADJUSTMENTOPERATOR_SCALE));
  EXPECT_EQ(RebuildParameters(a), (std::vector<ParameterId>{ADJUSTMENTOPERATOR_RELATIVE, ADJUSTMENTOPERATOR_SCALE,
                                                            ADJUSTMENTOPERATOR_OFFSET}));

  // A file of a later disk level is left alone ...
  EXPECT_TRUE(a.op->GetNodeData()->Read(*a.op, 1));
  EXPECT_FALSE(data.GetBool(ADJUSTMENTOPERATOR_RELATIVE));
  // ... one of level 0 was written before the switch existed and keeps the relative offset.
  EXPECT_TRUE(a.op->GetNodeData()->Read(*a.op, 0));
  EXPECT_TRUE(data.GetBool(ADJUSTMENTOPERATOR_RELATIVE));
  EXPECT_TRUE(IsParameterVisible(*a.op, ADJUSTMENTOPERATOR_OFFSET_RELATIVE));
  EXPECT_FALSE(IsParameterVisible(*a.op, ADJUSTMENTOPERATOR_OFFSET));
  EXPECT_EQ(RebuildParameters(a), (std::vector<ParameterId>{ADJUSTMENTOPERATOR_RELATIVE, ADJUSTMENTOPERATOR_SCALE,
                                                            ADJUSTMENTOPERATOR_OFFSET_RELATIVE}));
  // The list is appended to.
  std::vector<ParameterId> ids{42};
  EXPECT_TRUE(a.Data().GetRebuildParameters(ids, data));
  EXPECT_EQ(ids.size(), 4u);
  EXPECT_EQ(ids.front(), 42);
}

TEST(AdjustmentOperatorTest, InTheStackItsOwnParametersRebuildItAndBlendingDoesNot) {
  TerrainHarness h(8, 80.0);
  h.AddGenerator("ramp", 1.0);  // heights 1 + column
  Node* adjust = h.AddOperator(ID_ADJUSTMENTOPERATOR, "adjust");
  h.Set(adjust, TERRAINOPERATOR_BLENDMODE, Int32{0});  // NORMAL: the adjusted terrain replaces the terrain
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "ramp adjust");
  EXPECT_EQ(h.Height(3, 2), 4.0);

  h.Set(adjust, ADJUSTMENTOPERATOR_SCALE, 2.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "adjust");
  EXPECT_EQ(h.Height(3, 2), 8.0);

  // The relative offset is not used in absolute mode and does not rebuild.
  h.Set(adjust, ADJUSTMENTOPERATOR_OFFSET_RELATIVE, 1.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");
  EXPECT_EQ(h.Height(3, 2), 8.0);

  // Relative mode reads the stack's range: 1 .. 9 gives a shift of 8.
  h.Set(adjust, ADJUSTMENTOPERATOR_RELATIVE, true);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "adjust");
  EXPECT_EQ(h.Height(3, 2), 8.0 + 8.0);

  h.Set(adjust, TERRAINOPERATOR_STRENGTH, 0.5);  // blending only
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");
  EXPECT_EQ(h.Height(3, 2), 4.0 + (16.0 - 4.0) * 0.5);
}

}  // namespace
