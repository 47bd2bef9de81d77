#include "vellgrund/enumerations.h"

#include <gtest/gtest.h>

#include "common/vlgd_gui.h"

namespace {

using namespace platform;

TEST(EnumerationsTest, EveryEngineEnumerationIsKnownByNameWithItsStoredValues) {
  Registry registry;
  ASSERT_TRUE(VLGD::RegisterEnumerations(registry));
  for (const char* name : {"BLENDMODE", "SAMPLEINTERPOLATION", "OUTOFBOUNDSMODE", "TERRAINOPERATORFLAGS",
                           "EVALUATIONRESULT", "OPERATORDIRTY", "EvaluationQueue::STATUS", "PLANETESSELATIONMODE",
                           "SPLINEDATAPRESET"})
    EXPECT_NE(registry.Enumerations().Find(name), nullptr) << name;

  const Enumeration& blend = *registry.Enumerations().Find("BLENDMODE");
  EXPECT_EQ(blend.members.size(), 15u);
  EXPECT_EQ(blend.ValueOf("HARDLIGHT"), 14);
  EXPECT_EQ(blend.NameOf(7), "DIFFERENCE");
  EXPECT_EQ(registry.Enumerations().Find("TERRAINOPERATORFLAGS")->NameOf(30),
            "TYPE_GENERATOR|DIRTY_MATRIX_OPERATOR|DIRTY_MATRIX_TERRAIN|DIRTY_MATRIX_PARENTHIERARCHY");
  EXPECT_EQ(registry.Enumerations().Find("SPLINEDATAPRESET")->ValueOf("FLATTENVALLEYS"), 12);

  // A second registration is refused rather than shadowing the first.
  EXPECT_FALSE(VLGD::RegisterEnumerations(registry));
}

TEST(EnumerationsTest, CurvePresetsByNameMatchThePresetsByValue) {
  Registry registry;
  ASSERT_TRUE(VLGD::RegisterEnumerations(registry));
  const Registry::CurvePreset* glacier = registry.FindCurvePreset("GLACIER_2");
  ASSERT_NE(glacier, nullptr);
  SplineData byName;
  SplineData byValue;
  ASSERT_TRUE((*glacier)(byName));
  ASSERT_TRUE(VLGD::ApplySplinePreset(byValue, static_cast<Int32>(VLGD::SPLINEDATAPRESET::GLACIER_2)));
  EXPECT_EQ(byName, byValue);
  EXPECT_EQ(registry.FindCurvePreset("glacier_2"), nullptr);
}

}  // namespace
