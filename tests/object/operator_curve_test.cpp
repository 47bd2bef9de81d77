#include "object/operator_curve.h"

#include <gtest/gtest.h>

#include <utility>

#include "common/vlgd_gui.h"
#include "platform/scene_file.h"
#include "support/operator_fixture.h"

namespace {

using namespace platform;
using namespace VLGD;
using namespace testing_support;

SplineData Preset(SPLINEDATAPRESET preset) {
  SplineData curve;
  EXPECT_TRUE(ApplySplinePreset(curve, static_cast<Int32>(preset)));
  return curve;
}

TEST(CurveOperatorTest, TheButtonAppliesTheSelectedPresetAndAHandEditSelectsCustom) {
  DirectOperator c(ID_CURVEOPERATOR);
  const auto curve = [&] { return c.op->GetData().GetSplineData(CURVEOPERATOR_CURVE); };
  const auto preset = [&] { return c.op->GetData().GetInt32(CURVEOPERATOR_PRESET); };
  ASSERT_NE(curve(), nullptr);
  EXPECT_EQ(*curve(), Preset(SPLINEDATAPRESET::GLACIER_2));

  // Selecting a preset changes nothing until the button is pressed.
  c.Set(CURVEOPERATOR_PRESET, Int32{11});
  EXPECT_EQ(*curve(), Preset(SPLINEDATAPRESET::GLACIER_2));
  const UInt32 dirty = c.op->GetDirty(DIRTYFLAGS_DATA);
  EXPECT_TRUE(c.doc->PressButton(*c.op, CURVEOPERATOR_APPLYPRESET));
  EXPECT_EQ(*curve(), Preset(SPLINEDATAPRESET::CRATERS));
  EXPECT_GT(c.op->GetDirty(DIRTYFLAGS_DATA), dirty);
  EXPECT_EQ(preset(), 11);

  // A hand edit of the curve selects 999; applying that gives the linear curve.
  c.Set(CURVEOPERATOR_CURVE, Preset(SPLINEDATAPRESET::DUNES));
  EXPECT_EQ(preset(), kCurvePresetCustom);
  EXPECT_TRUE(c.doc->PressButton(*c.op, CURVEOPERATOR_APPLYPRESET));
  EXPECT_EQ(*curve(), Preset(SPLINEDATAPRESET::LINEAR));
  EXPECT_EQ(preset(), kCurvePresetCustom);
  EXPECT_FALSE(c.doc->PressButton(*c.op, 12345));

  // Without a curve the button reports on the console and the compute fails.
  c.Remove(CURVEOPERATOR_CURVE);
  EXPECT_TRUE(c.doc->PressButton(*c.op, CURVEOPERATOR_APPLYPRESET));
  ASSERT_FALSE(c.console.Lines().empty());
  EXPECT_EQ(c.console.Lines().back(), "Could not apply curve preset!: Could not get SplineData!");
  EXPECT_EQ(c.Compute(Row({0.0, 1.0})).error().message, "Could not get SplineData!");
}

// A file that names only a preset means its curve; an explicit curve wins; a hand-edited
// curve is written as CUSTOM and reads back as it was.
TEST(CurveOperatorTest, AScenePresetWithoutACurveAppliesThePreset) {
  DirectOperator c(ID_CURVEOPERATOR);
  const std::size_t messages = c.console.Lines().size();
  auto loaded = LoadScene(c.host, R"({"vellgrund": 1, "objects": [
      {"type": "ocurveoperator", "name": "alone", "params": {"CURVEOPERATOR_PRESET": "CANYON"}},
      {"type": "ocurveoperator", "name": "both",
       "params": {"CURVEOPERATOR_PRESET": "CANYON", "CURVEOPERATOR_CURVE": {"preset": "DUNES"}}},
      {"type": "ocurveoperator", "name": "custom", "params": {"CURVEOPERATOR_PRESET": "CUSTOM"}},
      {"type": "ocurveoperator", "name": "none"}]})",
                          "curves.json");
  ASSERT_TRUE(loaded) << loaded.error().message;
  const Document& document = **loaded;
  const auto curve = [&](const char* name) {
    return *document.FindByName(name)->GetData().GetSplineData(CURVEOPERATOR_CURVE);
  };
  EXPECT_EQ(curve("alone"), Preset(SPLINEDATAPRESET::CANYON));
  EXPECT_EQ(curve("both"), Preset(SPLINEDATAPRESET::DUNES));
  EXPECT_EQ(curve("custom"), Preset(SPLINEDATAPRESET::GLACIER_2));
  EXPECT_EQ(curve("none"), Preset(SPLINEDATAPRESET::GLACIER_2));

  Node& edited = *document.FindByName("alone");
  ASSERT_TRUE(loaded.value()->SetParameter(edited, CURVEOPERATOR_CURVE, Preset(SPLINEDATAPRESET::PLATEAU)));
  const auto saved = SaveScene(document);
  ASSERT_TRUE(saved);
  EXPECT_NE(saved->find("\"CUSTOM\""), std::string::npos);
  auto reloaded = LoadScene(c.host, *saved, "saved.json");
  ASSERT_TRUE(reloaded) << reloaded.error().message;
  EXPECT_TRUE(DocumentsEqual(document, **reloaded));
  EXPECT_EQ(c.console.Lines().size(), messages);
}

TEST(CurveOperatorTest, RemapsThroughTheCurveWithinTheInputRange) {
  DirectOperator c(ID_CURVEOPERATOR);
  const Grid2D<Float> in = MakeGrid(11, 3, [](Int x, Int y) { return 0.7 * static_cast<Float>(x) - 3.0 + 0.01 * y; });
  const Float minimum = in.Minimum();
  const Float range = in.Maximum() - minimum;

  // GLACIER_2: y of the curve at the normalised height, scaled back.
  const SplineData glacier = Preset(SPLINEDATAPRESET::GLACIER_2);
  ASSERT_TRUE(c.Compute(in));
  EXPECT_FALSE(c.Result().IsMinMaxValid());
  for (const Int i : {0, 5, 32})
    EXPECT_NEAR(c.Out(i), glacier.GetPoint((in.Data()[i] - minimum) * (1.0 / range)).y * range + minimum, 1e-12 * range)
        << i;
  EXPECT_LT(c.Out(5), in.Data()[5]);  // flat at the start: the middle sinks

  // CRATERS lifts the lowest and the highest height to half the range, lowers the middle.
  c.Set(CURVEOPERATOR_PRESET, Int32{11});
  EXPECT_TRUE(c.doc->PressButton(*c.op, CURVEOPERATOR_APPLYPRESET));
  ASSERT_TRUE(c.Compute(Row({10.0, 30.0, 50.0})));
  for (const auto& [i, height] : {std::pair<Int, Float>{0, 30.0}, {1, 10.0 + 0.2 * 40.0}, {2, 30.0}})
    EXPECT_NEAR(c.Out(i), height, 1e-12) << i;

  // A flat input returns at once with zeros, whatever the result held before.
  ASSERT_TRUE(c.Compute(Row({7.0, 7.0, 7.0})));
  EXPECT_TRUE(Identical(c.Result(), Row({0.0, 0.0, 0.0})));
}

// The curve is spline data, which the registry-wide stack test does not edit.
TEST(CurveOperatorTest, InTheStackAnEditedCurveRebuildsItAndAChosenPresetWaitsForTheButton) {
  TerrainHarness h(8, 80.0);
  h.AddGenerator("ramp", 0.0);  // heights 0 .. 8
  Node* curve = h.AddOperator(ID_CURVEOPERATOR, "curve");
  h.Set(curve, TERRAINOPERATOR_BLENDMODE, Int32{0});  // NORMAL
  EXPECT_EQ(Recomputed(h), "ramp curve");
  EXPECT_LT(h.Height(4, 3), 4.0);

  h.Set(curve, CURVEOPERATOR_CURVE, Preset(SPLINEDATAPRESET::LINEAR));  // a hand edit
  EXPECT_EQ(Recomputed(h), "curve");
  EXPECT_NEAR(h.Height(4, 3), 4.0, 1e-12);

  h.Set(curve, CURVEOPERATOR_PRESET, Int32{11});
  EXPECT_EQ(Recomputed(h), "");
  EXPECT_TRUE(h.doc->PressButton(*curve, CURVEOPERATOR_APPLYPRESET));
  EXPECT_EQ(Recomputed(h), "curve");
  EXPECT_NEAR(h.Height(8, 3), 4.0, 1e-12);
}

}  // namespace
