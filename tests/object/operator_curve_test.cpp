#include "object/operator_curve.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "common/vlgd_gui.h"
#include "main/vellgrund_module.h"
#include "platform/document.h"
#include "support/terrain_harness.h"

namespace {

using namespace platform;
using namespace VLGD;
using testing_support::TerrainHarness;

// One Curve operator in a document, computed directly on grids of the test's making.
struct DirectCurve {
  DirectCurve() {
    host.SetConsole(console);
    EXPECT_TRUE(StartModule(host));
    doc = std::make_unique<Document>(host);
    auto created = doc->CreateNode(ID_CURVEOPERATOR);
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
  [[nodiscard]] const SplineData* Curve() const { return op->GetData().GetSplineData(CURVEOPERATOR_CURVE); }
  [[nodiscard]] std::string LastConsoleLine() const { return console.Lines().empty() ? "" : console.Lines().back(); }

  CollectingConsole console;
  Host host;
  std::unique_ptr<Document> doc;
  Node* op = nullptr;
};

SplineData Preset(SPLINEDATAPRESET preset) {
  SplineData curve;
  EXPECT_TRUE(ApplySplinePreset(curve, static_cast<Int32>(preset)));
  return curve;
}

// A grid of value(x, y), its range computed as the stack does for REQUIRES_MINMAX.
Grid2D<Float> MakeGrid(Int width, Int height, const std::function<Float(Int, Int)>& value) {
  Grid2D<Float> grid;
  EXPECT_TRUE(grid.Init(width, height, 10.0, 10.0));
  for (Int y = 0; y < height; ++y)
    for (Int x = 0; x < width; ++x) grid.Set(x, y, value(x, y));
  grid.RecomputeRange();
  return grid;
}

TEST(CurveOperatorTest, StartsAsGlacier2AndTheButtonAppliesTheSelectedPreset) {
  DirectCurve c;
  EXPECT_EQ(c.Data().GetFlags(*c.op), TERRAINOPERATORFLAGS::TYPE_FILTER | TERRAINOPERATORFLAGS::REQUIRES_MINMAX);
  EXPECT_EQ(c.op->GetData().GetInt32(CURVEOPERATOR_PRESET), 9);
  ASSERT_NE(c.Curve(), nullptr);
  EXPECT_EQ(*c.Curve(), Preset(SPLINEDATAPRESET::GLACIER_2));
  std::vector<ParameterId> ids;
  EXPECT_TRUE(c.Data().GetRebuildParameters(ids, c.op->GetData()));
  EXPECT_EQ(ids, std::vector<ParameterId>{CURVEOPERATOR_CURVE});

  // Selecting a preset changes nothing until the button is pressed.
  c.Set(CURVEOPERATOR_PRESET, Int32{11});
  EXPECT_EQ(*c.Curve(), Preset(SPLINEDATAPRESET::GLACIER_2));
  const UInt32 dirty = c.op->GetDirty(DIRTYFLAGS_DATA);
  EXPECT_TRUE(c.doc->PressButton(*c.op, CURVEOPERATOR_APPLYPRESET));
  EXPECT_EQ(*c.Curve(), Preset(SPLINEDATAPRESET::CRATERS));
  EXPECT_GT(c.op->GetDirty(DIRTYFLAGS_DATA), dirty);
  EXPECT_EQ(c.op->GetData().GetInt32(CURVEOPERATOR_PRESET), 11);

  // A hand edit of the curve selects "custom"; applying that gives the linear curve.
  c.Set(CURVEOPERATOR_CURVE, Preset(SPLINEDATAPRESET::DUNES));
  EXPECT_EQ(c.op->GetData().GetInt32(CURVEOPERATOR_PRESET), kCurvePresetCustom);
  EXPECT_TRUE(c.doc->PressButton(*c.op, CURVEOPERATOR_APPLYPRESET));
  EXPECT_EQ(*c.Curve(), Preset(SPLINEDATAPRESET::LINEAR));
  EXPECT_EQ(c.op->GetData().GetInt32(CURVEOPERATOR_PRESET), kCurvePresetCustom);

  // Other messages and buttons are not the curve's.
  MessageData other;
  other.parameter = CURVEOPERATOR_PRESET;
  EXPECT_FALSE(c.op->Message(MSG_DESCRIPTION_CHECKUPDATE, other));
  EXPECT_FALSE(c.op->Message(MSG_UPDATE));
  EXPECT_FALSE(c.doc->PressButton(*c.op, 12345));

  // Without a curve the button reports on the console and the compute fails.
  ASSERT_TRUE(c.op->GetDataInstance().Remove(CURVEOPERATOR_CURVE));
  EXPECT_TRUE(c.doc->PressButton(*c.op, CURVEOPERATOR_APPLYPRESET));
  EXPECT_EQ(c.LastConsoleLine(), "Could not apply curve preset!: Could not get SplineData!");
  const Status computed = c.Compute(MakeGrid(3, 3, [](Int x, Int) { return static_cast<Float>(x); }));
  ASSERT_FALSE(computed);
  EXPECT_EQ(computed.error().message, "Could not get SplineData!");
  ASSERT_FALSE(ApplyCurvePreset(*c.op, CURVEOPERATOR_CURVE, 0));
}

TEST(CurveOperatorTest, RemapsThroughTheCurveWithinTheInputRange) {
  DirectCurve c;
  const Grid2D<Float> in = MakeGrid(11, 3, [](Int x, Int y) { return 0.7 * static_cast<Float>(x) - 3.0 + 0.01 * y; });
  const Float minimum = in.Minimum();
  const Float range = in.Maximum() - minimum;

  // GLACIER_2: y of the curve at the normalised height, scaled back.
  const SplineData glacier = Preset(SPLINEDATAPRESET::GLACIER_2);
  ASSERT_TRUE(c.Compute(in));
  EXPECT_FALSE(c.Data().GetResult().IsMinMaxValid());
  for (Int i = 0; i < in.Count(); ++i)
    EXPECT_NEAR(c.Out(i), glacier.GetPoint((in.Data()[i] - minimum) * (1.0 / range)).y * range + minimum, 1e-12 * range)
        << i;
  EXPECT_EQ(c.Out(0), minimum);
  EXPECT_LT(c.Out(5), in.Data()[5]);  // flat at the start: the middle sinks

  // LINEAR leaves the heights as they are.
  c.Set(CURVEOPERATOR_PRESET, Int32{0});
  EXPECT_TRUE(c.doc->PressButton(*c.op, CURVEOPERATOR_APPLYPRESET));
  ASSERT_TRUE(c.Compute(in));
  for (Int i = 0; i < in.Count(); ++i) EXPECT_NEAR(c.Out(i), in.Data()[i], 1e-12) << i;

  // CRATERS lifts the lowest and the highest height to half the range, lowers the middle.
  c.Set(CURVEOPERATOR_PRESET, Int32{11});
  EXPECT_TRUE(c.doc->PressButton(*c.op, CURVEOPERATOR_APPLYPRESET));
  const Grid2D<Float> line = MakeGrid(3, 1, [](Int x, Int) { return 10.0 + 20.0 * static_cast<Float>(x); });
  ASSERT_TRUE(c.Compute(line));
  EXPECT_NEAR(c.Out(0), 30.0, 1e-12);
  EXPECT_NEAR(c.Out(2), 30.0, 1e-12);
  EXPECT_NEAR(c.Out(1), 10.0 + 0.2 * 40.0, 1e-12);

  // A flat input returns at once with zeros, whatever the result held before.
  ASSERT_TRUE(c.Compute(MakeGrid(3, 1, [](Int, Int) { return 7.0; })));
  for (Int i = 0; i < 3; ++i) EXPECT_EQ(c.Out(i), 0.0) << i;
  ASSERT_TRUE(c.Compute(MakeGrid(0, 0, [](Int, Int) { return 0.0; })));
  EXPECT_EQ(c.Data().GetResult().Count(), 0);
}

TEST(CurveOperatorTest, ABreakStopsTheLoopAtSamplesPassingTheIndexMask) {
  DirectCurve c;
  CancellationToken cancelled;
  cancelled.Cancel();
  const Grid2D<Float> pair = MakeGrid(2, 1, [](Int x, Int) { return static_cast<Float>(x); });
  const Grid2D<Float> large = MakeGrid(150, 150, [](Int x, Int y) { return static_cast<Float>(x * y); });
  for (const Grid2D<Float>* in : {&pair, &large}) {
    const Status status = c.Compute(*in, &cancelled);
    ASSERT_FALSE(status) << in->Count();
    EXPECT_EQ(status.error().kind, ErrorKind::Cancelled);
    EXPECT_EQ(status.error().message, "Curve operator cancelled!");
  }
  // A flat input returns before the loop.
  EXPECT_TRUE(c.Compute(MakeGrid(1, 1, [](Int, Int) { return 3.0; }), &cancelled));
  CancellationToken running;
  ASSERT_TRUE(c.Compute(large, &running));
  EXPECT_EQ(c.Out(large.Count() - 1), large.Maximum());
}

TEST(CurveOperatorTest, InTheStackTheCurveRebuildsItAndBlendingDoesNot) {
  TerrainHarness h(8, 80.0);
  h.AddGenerator("ramp", 0.0);  // heights 0 .. 8
  Node* curve = h.AddOperator(ID_CURVEOPERATOR, "curve");
  h.Set(curve, TERRAINOPERATOR_BLENDMODE, Int32{0});  // NORMAL
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "ramp curve");
  EXPECT_EQ(h.Height(0, 3), 0.0);
  EXPECT_EQ(h.Height(8, 3), 8.0);
  EXPECT_LT(h.Height(4, 3), 4.0);

  h.Set(curve, CURVEOPERATOR_CURVE, Preset(SPLINEDATAPRESET::LINEAR));  // a hand edit
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "curve");
  EXPECT_NEAR(h.Height(4, 3), 4.0, 1e-12);
  EXPECT_EQ(curve->GetData().GetInt32(CURVEOPERATOR_PRESET), kCurvePresetCustom);

  // Selecting a preset alone computes nothing; the button does.
  h.Set(curve, CURVEOPERATOR_PRESET, Int32{11});
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");
  EXPECT_TRUE(h.doc->PressButton(*curve, CURVEOPERATOR_APPLYPRESET));
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "curve");
  EXPECT_NEAR(h.Height(0, 3), 4.0, 1e-12);
  EXPECT_NEAR(h.Height(8, 3), 4.0, 1e-12);

  h.Set(curve, TERRAINOPERATOR_STRENGTH, 0.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");
  EXPECT_EQ(h.Height(8, 3), 8.0);
}

}  // namespace
